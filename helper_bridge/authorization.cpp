// SPDX-License-Identifier: MIT
#include "authorization.h"

#include "bus_call.h"
#include "polkit.h"
#include "system_log.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

#include <atomic>

using namespace Qt::StringLiterals;

namespace {

using Authorization::Status;
/// The status of one right, and for a person why it was refused.
struct Refusal {
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

Refusal refusal(const QDBusMessage &reply)
{
    switch (Polkit::answer(reply)) {
    case Polkit::Answer::Yes: return {Authorization::success, {}};
    case Polkit::Answer::No: return {Authorization::denied, u"polkit does not allow it."_s};
    case Polkit::Answer::NobodyToAsk:
        return {Authorization::interactionNotAllowed, u"A password is needed, and nobody can be asked for it."_s};
    case Polkit::Answer::Dismissed:
        return {Authorization::cancelled, u"The person who was asked for a password cancelled."_s};
    case Polkit::Answer::Unreadable: break;
    }
    const bool isError = reply.type() == QDBusMessage::ErrorMessage;
    return {Authorization::internal,
            isError ? reply.errorName() + u": "_s + reply.errorMessage() : u"polkit's answer cannot be read."_s};
}

Refusal obtain(const QString &action, bool mayAsk)
{
    PrivateConnection bus;
    if (!bus->isConnected())
        return {Authorization::internal, bus->lastError().name() + u": "_s + bus->lastError().message()};
    return refusal(bus->call(Polkit::question(bus->baseService(), action, mayAsk), QDBus::Block, noTimeout));
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
