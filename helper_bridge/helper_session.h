// SPDX-License-Identifier: MIT
#pragma once

#include "helper_connection.h"

#include <QDBusConnection>
#include <QObject>

#include <map>
#include <mutex>
#include <optional>
#include <vector>

class QDBusPendingCallWatcher;

/// What a connection and its proxies share: the bus, and the messages that await their reply. It lives on the private
/// thread, where it ends itself once both are gone and the last reply is there. Only what is marked may be called on
/// another thread.
class HelperSession final : public QObject {
    Q_OBJECT
public:
    struct Message {
        QString member;
        QVariantList arguments;
        std::function<void(const QVariantList &)> onReply;
        HelperConnection::ErrorHandler onError;
    };

    static std::shared_ptr<HelperSession> make();               ///< any thread
    void enqueue(Message message);                              ///< any thread
    void setInvalidationHandler(std::function<void()> handler); ///< any thread
    void close();

private:
    HelperSession();

    Q_SLOT void busLost();
    void sendQueued();
    void send(const Message &message);
    std::optional<MessageError> connectToBus();
    void finished(QDBusPendingCallWatcher *watcher);
    void invalidate(const MessageError &cause);
    void endWhenIdle();

    const QString name_; ///< of this connection among the process's bus connections
    std::optional<QDBusConnection> bus_;
    std::map<QDBusPendingCallWatcher *, Message> pending_;
    std::optional<MessageError> invalid_;
    bool isReleased_ = false;
    std::mutex guard_; ///< of the next two, which other threads hand over
    std::vector<Message> queued_;
    std::function<void()> invalidationHandler_;
};
