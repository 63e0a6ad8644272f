#pragma once

#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>
#include <memory>

/// Why a message got no reply.
struct MessageError {
    QString name; ///< the bus's error name, such as "org.freedesktop.DBus.Error.ServiceUnknown"
    QString text; ///< one sentence for a person
};

/// A connection to one service on the system bus. A private thread of its own runs every handler, and sends although
/// the main thread is blocked. No reply has a time limit.
class MessageConnection {
public:
    using ReplyHandler = std::function<void(const QVariantList &)>;
    using ErrorHandler = std::function<void(const MessageError &)>;

    /// `refusals` are the error names by which the service says that it does not serve this client at all; `leaving` is
    /// the one by which it says that it ends and leaves a message to its successor, to whom it is sent then.
    MessageConnection(const QString &service, const QString &path, const QString &interface,
                      const QStringList &refusals, const QString &leaving);
    /// Any thread, the private one included. Replies under way still reach their handlers; the private thread ends
    /// after the last of them, or with the process.
    ~MessageConnection();
    MessageConnection(const MessageConnection &) = delete;
    MessageConnection &operator=(const MessageConnection &) = delete;

    /// Any thread. The handler runs at most once, after the error handler of the message that showed it: when the bus
    /// is lost or cannot be reached, when nothing can be activated under the service's name, or when the service
    /// refuses this client. None removes it. A service that merely died invalidates nothing: the next message starts it
    /// again.
    void setInvalidationHandler(std::function<void()> handler);

    /// Starts the private thread. Any thread; does not block. Nothing is sent before the first message.
    void resume();

    /// Sends `member` with `arguments`, in the order of the calls; before `resume` it waits. Any thread; does not
    /// block. Exactly one of the two handlers is called, once, unless the process ends first. A message sent after the
    /// invalidation gets its error like any other.
    void send(const QString &member, const QVariantList &arguments, ReplyHandler onReply, ErrorHandler onError);

private:
    class Worker;
    std::shared_ptr<Worker> worker_;
};
