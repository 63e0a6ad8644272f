// SPDX-License-Identifier: MIT
#include "background_queue.h"
#include "silent_helper.h"
#include "styling.h"

#include <QApplication>
#include <QTemporaryDir>

#include <cstdlib>
#include <gmock/gmock.h>

int main(int argc, char *argv[])
{
    const QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));
    // No test may reach the machine's helper.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    qputenv("QT_QPA_PLATFORM", "xcb");
    testing::InitGoogleMock(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setCursorFlashTime(0);
    Styling::apply(application);
    const SilentHelper helper;
    const int status = RUN_ALL_TESTS();
    if (!BackgroundQueue::finish(std::chrono::seconds(5)))
        std::_Exit(EXIT_FAILURE);
    return status;
}
