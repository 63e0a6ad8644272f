// SPDX-License-Identifier: MIT
#include "authorization.h"

#include "system_log.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

#include <atomic>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

using Authorization::Status;
using Details = QMap<QString, QString>;

// For Qt, and for the bus library below it, this very number means no limit; -1 would mean 25 seconds.
constexpr int noTimeLimit = std::numeric_limits<int>::max();

struct Verdict {
    Status status;
    QString reason;
};

/// A bus connection of its own, so that polkit ends the dialog when this question is given up with it.
class PrivateConnection {
public:
    PrivateConnection() : bus_(QDBusConnection::connectToBus(QDBusConnection::SystemBus, uniqueName())) {}
    ~PrivateConnection() { QDBusConnection::disconnectFromBus(bus_.name()); }
    PrivateConnection(const PrivateConnection &) = delete;
    PrivateConnection &operator=(const PrivateConnection &) = delete;

    QDBusConnection *operator->() { return &bus_; }

private:
    static QString uniqueName()
    {
        static std::atomic<unsigned> made = 0;
        return u"authorization-"_s + QString::number(++made);
    }

    QDBusConnection bus_;
};

QDBusMessage question(const QString &ourName, const QString &action, bool mayAsk)
{
    QDBusArgument subject;
    subject.beginStructure();
    subject << u"system-bus-name"_s << QVariantMap{{u"name"_s, ourName}};
    subject.endStructure();
    auto message =
        QDBusMessage::createMethodCall(u"org.freedesktop.PolicyKit1"_s, u"/org/freedesktop/PolicyKit1/Authority"_s,
                                       u"org.freedesktop.PolicyKit1.Authority"_s, u"CheckAuthorization"_s);
    QDBusArgument details;
    details.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    details.endMap();
    constexpr uint allowUserInteraction = 1;
    message << QVariant::fromValue(subject) << action << QVariant::fromValue(details)
            << (mayAsk ? allowUserInteraction : 0U) << QString();
    return message;
}

Verdict verdict(const QDBusMessage &answer)
{
    if (answer.type() != QDBusMessage::ReplyMessage)
        return {Authorization::internal, answer.errorName() + u": "_s + answer.errorMessage()};
    if (answer.signature() != "(bba{ss})"_L1)
        return {Authorization::internal, u"polkit's answer cannot be read."_s};
    bool authorized = false;
    bool challenge = false;
    Details details;
    const auto result = answer.arguments().constFirst().value<QDBusArgument>();
    result.beginStructure();
    result >> authorized >> challenge >> details;
    result.endStructure();
    if (authorized)
        return {Authorization::success, {}};
    if (details.contains(u"polkit.dismissed"_s))
        return {Authorization::cancelled, u"The person who was asked for a password cancelled."_s};
    if (challenge)
        return {Authorization::interactionNotAllowed, u"A password is needed, and nobody can be asked for it."_s};
    return {Authorization::denied, u"polkit does not allow it."_s};
}

Verdict obtain(const QString &action, bool mayAsk)
{
    PrivateConnection bus;
    if (!bus->isConnected())
        return {Authorization::internal, bus->lastError().name() + u": "_s + bus->lastError().message()};
    return verdict(bus->call(question(bus->baseService(), action, mayAsk), QDBus::Block, noTimeLimit));
}

} // namespace

Status Authorization::AuthorizationCreate(std::initializer_list<Item> rights, quint32 flags)
{
    for (const Item &right : rights) {
        const QString action = QString::fromLatin1(right.name);
        const auto [status, reason] = obtain(action, (flags & InteractionAllowed) != 0);
        if (status == success)
            continue;
        SystemLog::write(u"No right to "_s + action + u": "_s + reason);
        return status;
    }
    return success;
}
