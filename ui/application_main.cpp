// SPDX-License-Identifier: MIT
#include "application_main.h"

#include "app_delegate.h"
#include "background_queue.h"
#include "quit_signals.h"
#include "silent_bus.h"
#include "single_instance.h"
#include "standard_output.h"
#include "styling.h"

#include <QApplication>

#include <cstdlib>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

int run(QApplication &application, SingleInstance &instance)
{
    Styling::apply(application);
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
    // Qt waits for a name service that does not answer; nobody who has chosen to quit does.
    QuitSignals::limitTheEnd();
    // A thread that is still at work, in the kernel or waiting for the bus, may touch any object of the process, the
    // delegate too: then no destructor may run any more.
    if (!BackgroundQueue::finish(80ms))
        std::_Exit(status);
    return status;
}

} // namespace

int applicationMain(int &argc, char **argv)
{
    StandardOutput::keepOutOfSystemLog();
    SessionBus::leaveWhenSilent();
    QApplication application(argc, argv);
    QApplication::setApplicationName(u"Corvale"_s);
    QApplication::setDesktopFileName(u"corvale"_s);
    QApplication::setWindowIcon(Styling::imageNamed(u"corvale"_s));
    // The status item stays when the window is closed.
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance;
    if (!instance.claim())
        return EXIT_SUCCESS;
    return run(application, instance);
}
