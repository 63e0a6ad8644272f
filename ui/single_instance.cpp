// SPDX-License-Identifier: MIT
#include "single_instance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1String tokenKey("activation-token");
constexpr int timeout = 1000; // ms, for each call to the bus

} // namespace

bool SingleInstance::claim()
{
    const QString name = u"com.corvale.macos"_s;
    const QString path = u"/com/corvale/macos"_s;

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return true;
    bus.registerObject(path, this, QDBusConnection::ExportScriptableInvokables);
    bus.interface()->setTimeout(timeout);
    const auto reply = bus.interface()->registerService(name);
    if (!reply.isValid() || reply.value() == QDBusConnectionInterface::ServiceRegistered)
        return true;

    QDBusMessage activate = QDBusMessage::createMethodCall(name, path, u"org.freedesktop.Application"_s, u"Activate"_s);
    activate << QVariantMap{{tokenKey, qEnvironmentVariable("XDG_ACTIVATION_TOKEN")}};
    const QDBusError error(bus.call(activate, QDBus::Block, timeout));
    // A first instance that does not answer in time is busy, but it runs. After any other error there is none.
    return error.isValid() && error.type() != QDBusError::NoReply && error.type() != QDBusError::TimedOut &&
           error.type() != QDBusError::Timeout;
}

void SingleInstance::Activate(const QVariantMap &platformData)
{
    emit activated(platformData.value(tokenKey).toString());
}
