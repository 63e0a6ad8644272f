// SPDX-License-Identifier: MIT
#include "application_main.h"

#include "app_delegate.h"
#include "background_queue.h"
#include "dark_style.h"
#include "helper_connection.h"
#include "quit_signals.h"
#include "silent_bus.h"
#include "single_instance.h"
#include "standard_output.h"
#include "theme.h"

#include <QApplication>

#include <csignal>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

int run(QApplication &application, SingleInstance &instance)
{
    DarkStyle::apply(application);
    const QuitSignals quitSignals;
    AppDelegate delegate;
    QObject::connect(&instance, &SingleInstance::activated, &delegate, [&delegate](const QString &token) {
        if (!token.isEmpty())
            qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8()); // where Qt looks for it
        delegate.applicationShouldHandleReopen(false);
    });
    QObject::connect(&application, &QApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);
    delegate.applicationDidFinishLaunching();
    const int status = QApplication::exec();
    // Any of what follows may wait: for a write that nobody reads, for an administrator, in Qt for a name service.
    QuitSignals::startDeadline();
    // Their threads use the delegate, so they end first.
    HelperConnection::finish();
    BackgroundQueue::finish();
    return status;
}

} // namespace

int applicationMain(int &argc, char **argv)
{
    // A reader that has left is an error like any other, of a socket as of standard output.
    (void)std::signal(SIGPIPE, SIG_IGN);
    StandardOutput::keepOutOfSystemLog();
    SilentBus::leaveWhenSilent();
    QApplication application(argc, argv);
    QApplication::setApplicationName(u"Corvale"_s);
    QApplication::setDesktopFileName(u"corvale"_s);
    QApplication::setWindowIcon(Theme::imageNamed(u"corvale"_s));
    // The status item stays when the window is closed.
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance;
    if (!instance.claim())
        return EXIT_SUCCESS;
    return run(application, instance);
}
