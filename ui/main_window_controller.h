// SPDX-License-Identifier: MIT
#pragma once

#include <QMainWindow>

/// The main window that Main.ui names. `MainViewController` has all its behaviour.
class MainWindowController final : public QMainWindow {
    Q_OBJECT

public:
    using QMainWindow::QMainWindow;
};
