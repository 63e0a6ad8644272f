// SPDX-License-Identifier: MIT
#include "app_delegate.h"

#include "interface_loader.h"
#include "main_view_controller.h"
#include "main_window_controller.h"
#include "theme.h"

#include <QAction>
#include <QCoreApplication>
#include <QCursor>
#include <QLayout>
#include <QMenu>
#include <QSystemTrayIcon>

using namespace Qt::StringLiterals;

AppDelegate::AppDelegate() = default;
AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching()
{
    loadInterface();
    if (window && mainViewController) {
        window->setCentralWidget(mainViewController);
        window->layout()->setSizeConstraint(QLayout::SetFixedSize);
    }
    applicationShouldHandleReopen(false);
    connect(&statusBar_, &StatusBar::appeared, this, &AppDelegate::showStatusItem);
    statusBar_.await();
    shouldInstallHelperWithCallback([this](bool isCurrent) {
        if (isCurrent)
            return;
        installHelper();
        clearHelperConnection(); // it leads to the replaced helper
    });
}

void AppDelegate::loadInterface()
{
    interface_ = InterfaceLoader::load(u"Main.ui"_s);
    if (!interface_)
        return;
    statusMemu = interface_->findChild<QMenu *>(u"statusMemu"_s);
    connectItem = interface_->findChild<QAction *>(u"connectItem"_s);
    connectMenu();

    window.reset(interface_->findChild<MainWindowController *>(u"mainWindowController"_s));
    if (window)
        window->setParent(nullptr);
    auto *const form = interface_->findChild<MainViewController *>(u"mainViewController"_s);
    if (form && form->loadView())
        mainViewController = form;
}

void AppDelegate::connectMenu()
{
    const auto onTriggered = [this](const QString &name, auto action) {
        if (auto *const item = interface_->findChild<QAction *>(name))
            connect(item, &QAction::triggered, this, action);
    };
    onTriggered(u"connectItem"_s, [this] { onConnectButtonClick(); });
    onTriggered(u"showItem"_s, [this] { applicationShouldHandleReopen(false); });
    onTriggered(u"quitItem"_s, [] { QCoreApplication::exit(); });
}

void AppDelegate::showStatusItem()
{
    QIcon image = Theme::imageNamed(u"ic_status"_s);
    image.setIsMask(false); // keeps its own colours
    statusItem = std::make_unique<QSystemTrayIcon>(image);
    statusItem->setToolTip(u"Corvale"_s);
    statusItem->setContextMenu(statusMemu);
    connect(statusItem.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        // A panel opens the menu itself only for the right mouse button.
        if (reason == QSystemTrayIcon::Trigger && statusMemu)
            statusMemu->popup(QCursor::pos());
    });
    statusItem->show();
}

bool AppDelegate::applicationShouldHandleReopen(bool) const
{
    if (window) {
        window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
        window->show();
        window->raise();
        window->activateWindow();
    }
    return true;
}

void AppDelegate::onConnectButtonClick() const
{
    if (mainViewController)
        mainViewController->onConnectButtonClick();
}
