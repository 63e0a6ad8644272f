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

/// The application's delegate: makes window, form and status item at launch, and brings the window back. Main thread,
/// but for what `HelperClient` says of itself.
class AppDelegate final : public QObject, public HelperClient {
    Q_OBJECT

public:
    AppDelegate();
    ~AppDelegate() override;

private:
    std::unique_ptr<QWidget> interface_; ///< the rest of the interface file; owns the menu, so it goes last

public:
    QPointer<QMenu> statusMemu;                      ///< the status item's menu
    QPointer<QAction> connectItem;                   ///< its connect entry; the form keeps its title
    std::unique_ptr<QMainWindow> window;             ///< empty when the interface file names another class
    QPointer<MainViewController> mainViewController; ///< owned by the window, or by the interface where there is none
    std::unique_ptr<QSystemTrayIcon> statusItem;     ///< empty while the desktop has no status bar

    /// Loads the interface file, shows the window with the form in it, puts the status item into the status bar, and
    /// has the helper installed if the system's is not the bundle's. What the file lacks is left empty, and the launch
    /// goes on. Call once.
    void applicationDidFinishLaunching();

    /// The application is quitting. The tunnel is left as it is: the next start of the client takes it over.
    void applicationWillTerminate() {}

    /// Brings the main window, where there is one, back and to the front. Always true.
    bool applicationShouldHandleReopen(bool hasVisibleWindows) const;

    /// The status menu's connect entry: a click on the form's connect button.
    void onConnectButtonClick() const;

private:
    void loadInterface();
    void connectMenu();
    void showStatusItem();

    StatusBar statusBar_;
};
