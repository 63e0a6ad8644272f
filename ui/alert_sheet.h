// SPDX-License-Identifier: MIT
#pragma once

#include <QMessageBox>

/// A critical message with one button, in the middle of a window, that looks like a part of that window on every
/// desktop. Deletes itself when it is closed. Main thread.
class AlertSheet final : public QMessageBox {
    Q_OBJECT

public:
    /// Makes the sheet without showing it: call `open`. When `window` is null the sheet is a window of its own.
    AlertSheet(const QString &message, QWidget *window);

protected:
    bool event(QEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void arrange();

    QLabel *text_ = nullptr; ///< the base's; null when the base has other parts than expected, and keeps its layout
};
