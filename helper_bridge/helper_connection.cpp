// SPDX-License-Identifier: MIT
#include "helper_connection.h"

#include "bus_call.h"
#include "helper_session.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <set>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

/// What says that nobody can be reached under the helper's name, or that the bus or the helper keeps this client away.
/// An ending dot stands for every name that goes on from there.
constexpr QLatin1String invalidating[] = {
    "com.corvale.macos.helper.Error.NotAuthorized"_L1,
    "org.freedesktop.DBus.Error.AccessDenied"_L1,
    "org.freedesktop.DBus.Error.AuthFailed"_L1,
    "org.freedesktop.DBus.Error.Disconnected"_L1,
    "org.freedesktop.DBus.Error.NameHasNoOwner"_L1,
    "org.freedesktop.DBus.Error.ServiceUnknown"_L1,
    "org.freedesktop.DBus.Error.Spawn."_L1,
    "org.freedesktop.DBus.Error.TimedOut"_L1,
    "org.freedesktop.systemd1."_L1,
};

bool invalidates(const QString &error)
{
    return std::ranges::any_of(invalidating, [&error](QLatin1String known) {
        return known.endsWith('.'_L1) ? error.startsWith(known) : error == known;
    });
}

const QString localPath = u"/org/freedesktop/DBus/Local"_s;
const QString localInterface = u"org.freedesktop.DBus.Local"_s;
const QString disconnected = u"Disconnected"_s;

QString uniqueName()
{
    static std::atomic<unsigned> made = 0;
    return u"helper-connection-"_s + QString::number(++made);
}

/// The private thread of all connections: there is one at a time, and another only after its invalidation. Leaked,
/// since whoever still has a connection when the process ends may let go of it after this thread's end.
class PrivateThread final : public QThread {
public:
    static PrivateThread &shared()
    {
        static auto *const one = new PrivateThread;
        return *one;
    }
    std::set<HelperSession *> sessions; ///< touched on this thread alone

private:
    void run() override;
};

} // namespace

void PrivateThread::run()
{
    exec();
    for (HelperSession *const session : sessions)
        session->close();
}

HelperSession::HelperSession() : name_(uniqueName()) {}

std::shared_ptr<HelperSession> HelperSession::make()
{
    auto *const session = new HelperSession;
    session->moveToThread(&PrivateThread::shared());
    // Behind every message that was sent before.
    return {session, [](HelperSession *unused) {
                QMetaObject::invokeMethod(
                    unused,
                    [unused] {
                        unused->isReleased_ = true;
                        unused->endWhenIdle();
                    },
                    Qt::QueuedConnection);
            }};
}

void HelperSession::enqueue(Message message)
{
    {
        const std::scoped_lock lock(guard_);
        queued_.push_back(std::move(message));
    }
    QMetaObject::invokeMethod(this, &HelperSession::sendQueued, Qt::QueuedConnection);
}

void HelperSession::sendQueued()
{
    std::unique_lock lock(guard_);
    const auto messages = std::exchange(queued_, {});
    lock.unlock();
    for (const Message &message : messages)
        send(message);
}

void HelperSession::setInvalidationHandler(std::function<void()> handler)
{
    // What the earlier handler holds is let go after the guard: it may be the last handle of this very connection.
    const std::scoped_lock lock(guard_);
    invalidationHandler_.swap(handler);
}

/// Messages that still await a reply get none of their handlers called.
void HelperSession::close()
{
    for (const auto &[watcher, message] : std::exchange(pending_, {}))
        delete watcher;
    if (!bus_)
        return;
    // Answered once Qt's bus thread no longer looks at this object.
    bus_->disconnect(QString(), localPath, localInterface, disconnected, this, SLOT(busLost()));
    bus_.reset();
    QDBusConnection::disconnectFromBus(name_);
}

void HelperSession::endWhenIdle()
{
    if (!isReleased_ || !pending_.empty())
        return;
    close();
    PrivateThread::shared().sessions.erase(this);
    deleteLater();
}

std::optional<MessageError> HelperSession::connectToBus()
{
    PrivateThread::shared().sessions.insert(this);
    bus_ = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name_);
    if (!bus_->isConnected()) {
        const QDBusError error = bus_->lastError();
        return MessageError{error.name(), error.message()};
    }
    // The bus library's own word to itself that the socket is gone.
    bus_->connect(QString(), localPath, localInterface, disconnected, this, SLOT(busLost()));
    return std::nullopt;
}

void HelperSession::send(const Message &message)
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
    const QString service = QString::fromLatin1(HelperNames::service);
    auto call =
        QDBusMessage::createMethodCall(service, QString::fromLatin1(HelperNames::path), service, message.member);
    call.setArguments(message.arguments);
    auto *const watcher = new QDBusPendingCallWatcher(bus_->asyncCall(call, noTimeout));
    pending_.emplace(watcher, message);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &HelperSession::finished);
}

void HelperSession::finished(QDBusPendingCallWatcher *watcher)
{
    const auto found = pending_.extract(watcher);
    watcher->deleteLater();
    const Message &message = found.mapped();
    const MessageError error{watcher->error().name(), watcher->error().message()};
    if (!watcher->isError()) {
        message.onReply(watcher->reply().arguments());
    } else if (error.name == QLatin1String(HelperNames::leaving)) {
        send(message); // the bus starts the next helper
    } else {
        message.onError(error);
        if (invalidates(error.name))
            invalidate(error);
    }
    endWhenIdle();
}

void HelperSession::busLost()
{
    invalidate({u"org.freedesktop.DBus.Error.Disconnected"_s, u"The connection to the system bus is lost."_s});
}

void HelperSession::invalidate(const MessageError &cause)
{
    if (invalid_)
        return;
    invalid_ = cause;
    for (const auto &[watcher, message] : std::exchange(pending_, {})) {
        delete watcher;
        message.onError(cause);
    }
    std::unique_lock lock(guard_);
    const auto handler = std::exchange(invalidationHandler_, nullptr);
    lock.unlock();
    if (handler)
        handler();
    endWhenIdle();
}

namespace {

class Proxy final : public HelperProtocol {
public:
    Proxy(std::shared_ptr<HelperSession> session, HelperConnection::ErrorHandler errorHandler)
        : session_(std::move(session)), errorHandler_(std::move(errorHandler))
    {
    }

    void getVersionWithResponseHandler(std::function<void(const QString &)> responseHandler) override
    {
        send<QString>("getVersion", {}, std::move(responseHandler));
    }

    void runOpenVPNWithConfig(const QString &config, const QString &client_up, const QString &client_down,
                              std::function<void(qint32)> terminationHandler) override
    {
        send<qint32>("runOpenVPN", {config, client_up, client_down}, std::move(terminationHandler));
    }

    void killOpenVPN() override
    {
        session_->enqueue({u"killOpenVPN"_s, {}, [](const QVariantList &) {}, errorHandler_});
    }

private:
    /// A reply of exactly one `Value` goes to the handler; any other is a failure like an error of the bus.
    template <typename Value, typename Handler>
    void send(const char *member, const QVariantList &arguments, Handler handler)
    {
        const auto onReply = [handler = std::move(handler), onError = errorHandler_](const QVariantList &reply) {
            if (reply.size() == 1 && reply.first().metaType() == QMetaType::fromType<Value>())
                handler(reply.first().value<Value>());
            else
                onError({u"org.freedesktop.DBus.Error.InvalidSignature"_s, u"The helper's reply cannot be read."_s});
        };
        session_->enqueue({QString::fromLatin1(member), arguments, onReply, errorHandler_});
    }

    const std::shared_ptr<HelperSession> session_;
    const HelperConnection::ErrorHandler errorHandler_;
};

} // namespace

HelperConnection::HelperConnection() : session_(HelperSession::make()) {}

HelperConnection::~HelperConnection() = default;

void HelperConnection::setInvalidationHandler(std::function<void()> handler)
{
    session_->setInvalidationHandler(std::move(handler));
}

void HelperConnection::resume()
{
    PrivateThread::shared().start();
}

void HelperConnection::finish()
{
    PrivateThread::shared().quit();
    PrivateThread::shared().wait();
}

std::shared_ptr<HelperProtocol> HelperConnection::remoteObjectProxyWithErrorHandler(ErrorHandler errorHandler)
{
    return std::make_shared<Proxy>(session_, std::move(errorHandler));
}
