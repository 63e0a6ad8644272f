// SPDX-License-Identifier: MIT
#pragma once

#include <QMainWindow>

/// The main window, named by Main.ui. It has no behaviour of its own: what it shows is the view controller's.
class MainWindowController final : public QMainWindow {
    Q_OBJECT

public:
    using QMainWindow::QMainWindow;
};
