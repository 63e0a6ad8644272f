// SPDX-License-Identifier: MIT
#pragma once

#include <QMessageBox>

/// A critical message with one button, which lies on the middle of a window and looks like a part of it on every
/// desktop. Deletes itself when it is closed. Main thread.
class AlertSheet final : public QMessageBox {
    Q_OBJECT

public:
    /// Not shown yet: `open` does. Without a window it is one of its own.
    AlertSheet(const QString &message, QWidget *window);

protected:
    bool event(QEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void arrange();

    QLabel *text_ = nullptr; ///< the base's; null where it is not as expected, and then the sheet is as Qt made it
};
