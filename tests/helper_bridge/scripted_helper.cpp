// SPDX-License-Identifier: MIT
#include "helper_protocol.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFile>
#include <QTimer>

#include <cstdlib>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// A helper that does what the message says: the stand-in for every way in which the real one may answer or fail.
class ScriptedHelper final : public QDBusVirtualObject {
public:
    explicit ScriptedHelper(QString version) : version_(std::move(version)) {}

    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override
    {
        if (message.member() == "getVersion"_L1) {
            if (version_ == "error"_L1)
                bus.send(message.createErrorReply(u"com.corvale.macos.helper.Error.Internal"_s, u"It is ill."_s));
            else if (version_ != "silence"_L1)
                bus.send(message.createReply(version_));
            return true;
        }
        if (message.member() != "runOpenVPN"_L1)
            return false;
        const QString action = message.arguments().value(0).toString();
        const QString first = message.arguments().value(1).toString();
        const QString second = message.arguments().value(2).toString();
        if (action == "reply"_L1)
            bus.send(message.createReply(first.toInt()));
        else if (action == "reply text"_L1)
            bus.send(message.createReply(first));
        else if (action == "error"_L1)
            bus.send(message.createErrorReply(first, second));
        else if (action == "reply late"_L1)
            QTimer::singleShot(first.toInt(), this, [=] { QDBusConnection(bus).send(message.createReply(5)); });
        else if (action == "die"_L1)
            ::_exit(1);
        else if (action == "leave"_L1)
            leave(bus, message, first);
        return true; // any other is never answered
    }

private:
    /// The one after it finds the file, and replies.
    static void leave(QDBusConnection bus, const QDBusMessage &message, const QString &file)
    {
        QFile mark(file);
        if (!mark.open(QIODevice::NewOnly)) {
            bus.send(message.createReply(7));
            return;
        }
        bus.unregisterService(QLatin1String(HelperNames::service));
        bus.send(message.createErrorReply(QLatin1String(HelperNames::leaving), u"Again."_s));
        QCoreApplication::quit();
    }

    const QString version_;
};

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    ScriptedHelper helper(QCoreApplication::arguments().value(1));
    auto bus = QDBusConnection::systemBus();
    if (!bus.registerVirtualObject(QLatin1String(HelperNames::path), &helper) ||
        !bus.registerService(QLatin1String(HelperNames::service)))
        return EXIT_FAILURE;
    bus.connect(QString(), u"/org/freedesktop/DBus/Local"_s, u"org.freedesktop.DBus.Local"_s, u"Disconnected"_s,
                QCoreApplication::instance(), SLOT(quit()));
    return QCoreApplication::exec();
}
