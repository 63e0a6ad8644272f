// SPDX-License-Identifier: MIT
#pragma once

#include "helper_client.h"
#include "status_bar.h"

#include <QObject>
#include <QPointer>

#include <memory>

class MainViewController;
class QAction;
class QMainWindow;
class QMenu;
class QSystemTrayIcon;
class QWidget;

/// The application's delegate. It makes the window, the form and the status item at launch, and brings the window back.
/// Main thread, except for the operations of `HelperClient`.
class AppDelegate final : public QObject, public HelperClient {
    Q_OBJECT

public:
    AppDelegate();
    ~AppDelegate() override;

private:
    std::unique_ptr<QWidget> interface_; ///< root of the interface file; owns the menu, so it is destroyed last

public:
    QPointer<QMenu> statusMemu;                      ///< the status item's menu
    QPointer<QAction> connectItem;                   ///< its connect entry; the form sets its title
    std::unique_ptr<QMainWindow> window;             ///< empty when the interface file names another class
    QPointer<MainViewController> mainViewController; ///< owned by the window, or by `interface_` when there is none
    std::unique_ptr<QSystemTrayIcon> statusItem;     ///< empty while the desktop has no status bar

    /// Loads the interface file and shows the window with the form in it. Adds the status item as soon as there is a
    /// status bar. Installs the bundle's helper when the system's is another one. An object that the file lacks stays
    /// empty, and the launch goes on. Call once.
    void applicationDidFinishLaunching();

    /// The application is quitting. The tunnel stays up: the next start of the client takes it over.
    void applicationWillTerminate() {}

    /// Shows the main window, if there is one, and brings it to the front. Always true.
    bool applicationShouldHandleReopen(bool hasVisibleWindows) const;

    /// The status menu's connect entry. Does what the form's connect button does.
    void onConnectButtonClick() const;

private:
    void loadInterface();
    void connectMenu();
    void showStatusItem();

    StatusBar statusBar_;
};
