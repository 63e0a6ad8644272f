// SPDX-License-Identifier: MIT
#pragma once

#include <QBasicTimer>
#include <QLineEdit>

/// A line edit that draws its own caret. Qt's caret inverts the pixels under it, which gives white only on black;
/// `DarkStyle` hides it. Pasted text loses its line ends, which would be invisible. Main thread.
class TextField final : public QLineEdit {
    Q_OBJECT

public:
    explicit TextField(QWidget *parent = nullptr);

    /// White until this is called. The caret blinks at the desktop's rate.
    void setCaretColor(QColor color);

protected:
    void paintEvent(QPaintEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;
    void timerEvent(QTimerEvent *event) override;

private:
    void showCaret();
    void removeLineEnds(const QString &edited);

    QColor caretColor_ = Qt::white;
    QBasicTimer blink_;
    bool caretShown_ = false;
};
