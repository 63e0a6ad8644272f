#pragma once

#include <QWidget>

/// The main window, named by Main.ui. It has no behaviour of its own: what it shows is the view controller's.
class MainWindowController final : public QWidget {
    Q_OBJECT

public:
    using QWidget::QWidget;
};
