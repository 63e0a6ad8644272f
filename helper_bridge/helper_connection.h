// SPDX-License-Identifier: MIT
#pragma once

#include "helper_protocol.h"

#include <QString>

#include <functional>
#include <memory>

class HelperSession;

/// Why a message got no reply.
struct MessageError {
    QString name; ///< the bus's error name, such as "org.freedesktop.DBus.Error.ServiceUnknown"
    QString text; ///< one sentence for a person
};

/// The client's connection to the privileged helper on the system bus. Every handler runs on a private thread, which
/// also sends, so that messages go out while the main thread is blocked. No reply has a timeout.
class HelperConnection {
public:
    using ErrorHandler = std::function<void(const MessageError &)>;

    HelperConnection(); ///< not yet started
    /// Any thread, the private one included. Replies under way still reach their handlers.
    ~HelperConnection();
    HelperConnection(const HelperConnection &) = delete;
    HelperConnection &operator=(const HelperConnection &) = delete;

    /// Any thread. The handler runs at most once, after the error handler of the message that showed it: when the bus
    /// is lost or cannot be reached, when nothing can be activated under the helper's name, or when the helper refuses
    /// this client. None removes it. A helper that merely died invalidates nothing: the next message starts it again.
    void setInvalidationHandler(std::function<void()> handler);

    /// Starts the private thread. Any thread; does not block. Nothing is sent before the first message.
    void resume();

    /// An object on which messages are sent, in the order of the calls. Exactly one handler is called for each message,
    /// once, unless the process ends first: the message's own with the reply, or `errorHandler`. A message that is sent
    /// after the invalidation gets its error like any other; one that a leaving helper has not begun to serve is sent
    /// again to the next one. Any thread; does not block. The proxy may outlive the connection.
    std::shared_ptr<HelperProtocol> remoteObjectProxyWithErrorHandler(ErrorHandler errorHandler);

    /// Ends the private thread of all connections. Messages without a reply get none of their handlers called. Main
    /// thread, after the event loop; blocks until the handler that is running has returned.
    static void finish();

private:
    std::shared_ptr<HelperSession> session_;
};
