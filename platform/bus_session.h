#pragma once

#include "message_connection.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QObject>
#include <QStringList>

#include <map>
#include <optional>

/// The half of a message connection that belongs to its private thread: the bus itself and the messages that await
/// their reply. Made, used and destroyed there, so that nothing in it needs a guard.
class BusSession final : public QObject {
    Q_OBJECT
public:
    struct Peer {
        QString service;
        QString path;
        QString interface;
        QStringList refusals; ///< error names by which the service says that it does not serve this client
        QString leaving;      ///< error name by which it says that it ends and leaves the message to its successor
    };
    struct Message {
        QString member;
        QVariantList arguments;
        MessageConnection::ReplyHandler onReply;
        MessageConnection::ErrorHandler onError;
    };

    /// `onInvalidation` is called once, after the error handlers of all messages that the invalidation ends.
    BusSession(Peer peer, std::function<void()> onInvalidation);
    /// Gives up the bus connection; messages that still await a reply get none of their handlers called.
    ~BusSession() override;

    /// Sends, after connecting to the bus if this is the first message, which blocks while the bus lets one in. One of
    /// the message's two handlers is called later, or at once when it cannot be sent.
    void send(const Message &message);

    [[nodiscard]] bool isIdle() const { return pending_.empty(); }

private:
    Q_SLOT void busLost();
    std::optional<MessageError> connectToBus();
    void finished(QDBusPendingCallWatcher *watcher);
    [[nodiscard]] bool invalidates(const QString &error) const;
    void invalidate(const MessageError &cause);

    const Peer peer_;
    std::function<void()> onInvalidation_;
    const QString name_; ///< of this connection among the process's bus connections
    std::optional<QDBusConnection> bus_;
    std::map<QDBusPendingCallWatcher *, Message> pending_;
    std::optional<MessageError> invalid_;
};
