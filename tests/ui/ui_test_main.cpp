// SPDX-License-Identifier: MIT
#include "background_queue.h"
#include "dark_style.h"
#include "helper_connection.h"
#include "silent_helper.h"

#include <QApplication>
#include <QTemporaryDir>

#include <csignal>
#include <gmock/gmock.h>

int main(int argc, char *argv[])
{
    (void)std::signal(SIGPIPE, SIG_IGN); // as the program does
    const QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));
    // No test may reach the machine's helper.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    qputenv("QT_QPA_PLATFORM", "xcb");
    testing::InitGoogleMock(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setCursorFlashTime(0);
    DarkStyle::apply(application);
    const SilentHelper helper;
    const int status = RUN_ALL_TESTS();
    HelperConnection::finish();
    BackgroundQueue::finish();
    return status;
}
