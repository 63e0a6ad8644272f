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

/// The bundle's resources as they are shipped, for this test to spoil.
void restoreResources();
QString resource(const QString &name);

/// The launched application, without its event loop, on fresh user defaults and a tunnel service at rest.
class UiTest : public testing::Test {
protected:
    UiTest();
    ~UiTest() override;

    void launch();
    MainViewController &form() { return *delegate_->mainViewController; }

    void type(const QString &email, const QString &password);
    void click(QWidget &widget);
    /// Announces a state as the tunnel service does, and waits until the form has heard of it.
    static void announce(const QString &state);

    static QMessageBox *alert(); ///< the open one, or null
    static QString alertText();
    void closeAlert();
    /// Waits for an alert and closes it; its text.
    QString nextAlert();

    std::unique_ptr<AppDelegate> delegate_;
};
