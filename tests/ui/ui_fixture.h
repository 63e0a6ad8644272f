// SPDX-License-Identifier: MIT
#pragma once

#include "app_delegate.h"
#include "main_view_controller.h"

#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QSystemTrayIcon>

#include <gmock/gmock.h>
#include <memory>

/// The application's delegate without the event loop, with fresh user defaults and a tunnel service at rest.
class UiTest : public testing::Test {
protected:
    UiTest();

    void launch();
    MainViewController &form() { return *delegate_->mainViewController; }

    void type(const QString &email, const QString &password);
    static void click(QWidget &widget);
    /// Announces a state as the tunnel service does, and waits until the form has heard of it.
    static void announce(const QString &state);

    static QMessageBox *alert(); ///< the open one, or null
    static QString nextAlert();  ///< waits for an alert, closes it and returns its text

    static QString resource(const QString &name); ///< its path in this program's own bundle, for tests to replace

    std::unique_ptr<AppDelegate> delegate_ = std::make_unique<AppDelegate>();
};
