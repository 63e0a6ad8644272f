#include "bus_session.h"

#include <QDBusError>
#include <QDBusMessage>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// For Qt, and for the bus library below it, this very number means no limit; -1 would mean 25 seconds.
constexpr int noTimeLimit = std::numeric_limits<int>::max();

/// What the bus answers when nobody can be reached under a name, or when its policy keeps this client away. An ending
/// dot stands for every name that goes on from there.
constexpr QLatin1String invalidating[] = {
    "org.freedesktop.DBus.Error.AccessDenied"_L1,   "org.freedesktop.DBus.Error.AuthFailed"_L1,
    "org.freedesktop.DBus.Error.Disconnected"_L1,   "org.freedesktop.DBus.Error.NameHasNoOwner"_L1,
    "org.freedesktop.DBus.Error.ServiceUnknown"_L1, "org.freedesktop.DBus.Error.Spawn."_L1,
    "org.freedesktop.DBus.Error.TimedOut"_L1,       "org.freedesktop.systemd1."_L1,
};

const QString localPath = u"/org/freedesktop/DBus/Local"_s;
const QString localInterface = u"org.freedesktop.DBus.Local"_s;
const QString disconnected = u"Disconnected"_s;

QString uniqueName()
{
    static std::atomic<unsigned> made = 0;
    return u"message-connection-"_s + QString::number(++made);
}

} // namespace

BusSession::BusSession(Peer peer, std::function<void()> onInvalidation)
    : peer_(std::move(peer)), onInvalidation_(std::move(onInvalidation)), name_(uniqueName())
{
}

BusSession::~BusSession()
{
    for (const auto &[watcher, message] : pending_)
        delete watcher;
    if (!bus_)
        return;
    // Answered once Qt's bus thread no longer looks at this object.
    bus_->disconnect(QString(), localPath, localInterface, disconnected, this, SLOT(busLost()));
    bus_.reset();
    QDBusConnection::disconnectFromBus(name_);
}

std::optional<MessageError> BusSession::connectToBus()
{
    bus_ = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name_);
    if (!bus_->isConnected()) {
        const QDBusError error = bus_->lastError();
        return MessageError{error.name(), error.message()};
    }
    // The bus library's own word to itself that the socket is gone.
    bus_->connect(QString(), localPath, localInterface, disconnected, this, SLOT(busLost()));
    return std::nullopt;
}

void BusSession::send(const Message &message)
{
    if (!bus_) {
        if (const auto error = connectToBus()) {
            message.onError(*error);
            invalidate(*error);
            return;
        }
    }
    if (invalid_) {
        message.onError(*invalid_);
        return;
    }
    auto call = QDBusMessage::createMethodCall(peer_.service, peer_.path, peer_.interface, message.member);
    call.setArguments(message.arguments);
    auto *const watcher = new QDBusPendingCallWatcher(bus_->asyncCall(call, noTimeLimit));
    pending_.emplace(watcher, message);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &BusSession::finished);
}

void BusSession::finished(QDBusPendingCallWatcher *watcher)
{
    const auto found = pending_.extract(watcher);
    watcher->deleteLater();
    const Message &message = found.mapped();
    if (!watcher->isError()) {
        message.onReply(watcher->reply().arguments());
        return;
    }
    const MessageError error{watcher->error().name(), watcher->error().message()};
    if (error.name == peer_.leaving) {
        send(message); // the bus starts the successor
        return;
    }
    message.onError(error);
    if (invalidates(error.name))
        invalidate(error);
}

void BusSession::busLost()
{
    invalidate({u"org.freedesktop.DBus.Error.Disconnected"_s, u"The connection to the system bus is lost."_s});
}

bool BusSession::invalidates(const QString &error) const
{
    return peer_.refusals.contains(error) || std::ranges::any_of(invalidating, [&error](QLatin1String known) {
               return known.endsWith('.'_L1) ? error.startsWith(known) : error == known;
           });
}

void BusSession::invalidate(const MessageError &cause)
{
    if (invalid_)
        return;
    invalid_ = cause;
    for (const auto &[watcher, message] : std::exchange(pending_, {})) {
        delete watcher;
        message.onError(cause);
    }
    std::exchange(onInvalidation_, nullptr)();
}
