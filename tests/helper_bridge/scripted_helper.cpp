// SPDX-License-Identifier: MIT
#include "scripted_helper.h"

#include <cstdlib>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    ScriptedHelper helper(QCoreApplication::arguments().value(1));
    auto bus = QDBusConnection::systemBus();
    if (!bus.registerVirtualObject(QLatin1String(HelperNames::path), &helper) ||
        !bus.registerService(QLatin1String(HelperNames::service)))
        return EXIT_FAILURE;
    bus.connect(QString(), u"/org/freedesktop/DBus/Local"_s, u"org.freedesktop.DBus.Local"_s, u"Disconnected"_s,
                &helper, SLOT(busLost()));
    return QCoreApplication::exec();
}
