// SPDX-License-Identifier: MIT
#include "helper_program.h"

#include "descriptor.h"
#include "system_log.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QSocketNotifier>

#include <csignal>
#include <cstdlib>
#include <sys/signalfd.h>

using namespace Qt::StringLiterals;

namespace {

/// Blocks the signals that ask for the end, in every thread that is started later too, and makes them readable.
Descriptor requestsToEnd()
{
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGTERM);
    ::sigaddset(&ends, SIGINT);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    return Descriptor(::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace

int helperMain(int argc, char *argv[], const HelperPaths &paths, const HelperService::Timeouts &timeouts)
{
    const Descriptor ends = requestsToEnd();
    (void)::signal(SIGPIPE, SIG_IGN);
    const QCoreApplication application(argc, argv);
    auto bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        SystemLog::write(u"The helper cannot reach the system bus.");
        return EXIT_FAILURE;
    }
    HelperService service(bus, paths, timeouts);
    QObject::connect(&service, &HelperService::finished, &application, &QCoreApplication::quit, Qt::QueuedConnection);
    QSocketNotifier asked(ends.get(), QSocketNotifier::Read);
    QObject::connect(&asked, &QSocketNotifier::activated, &service, [&] {
        asked.setEnabled(false);
        service.finish();
    });
    bus.connect(QString(), u"/org/freedesktop/DBus/Local"_s, u"org.freedesktop.DBus.Local"_s, u"Disconnected"_s,
                &service, SLOT(finish()));
    if (!service.offer()) {
        SystemLog::write(u"The helper may not have its name on the system bus.");
        return EXIT_FAILURE;
    }
    return QCoreApplication::exec();
}
