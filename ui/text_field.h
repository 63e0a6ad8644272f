// SPDX-License-Identifier: MIT
#pragma once

#include <QBasicTimer>
#include <QLineEdit>

/// A line edit that draws its caret itself: Qt's own is the inverse of what is under it, which is white on black
/// alone. The application's style hides that one. What is pasted loses its line ends, which nobody would see. Main
/// thread.
class TextField final : public QLineEdit {
    Q_OBJECT

public:
    explicit TextField(QWidget *parent = nullptr);

    /// White is the first colour too. Blinks as the desktop says.
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
