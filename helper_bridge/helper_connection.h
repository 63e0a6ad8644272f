#pragma once

#include "helper_protocol.h"

#include <functional>
#include <memory>

struct MessageError;
class MessageConnection;

/// The client's connection to the privileged helper: a message connection that speaks `HelperProtocol`.
class HelperConnection {
public:
    HelperConnection(); ///< not yet started
    ~HelperConnection();
    HelperConnection(const HelperConnection &) = delete;
    HelperConnection &operator=(const HelperConnection &) = delete;

    /// Any thread. The handler runs at most once, on the connection's private thread, when the connection has become
    /// unusable: no helper can be reached under its name, it refuses this client, or the bus is lost. None removes it.
    void setInvalidationHandler(std::function<void()> handler);
    void resume(); ///< starts it; nothing is sent before the first message

    /// An object on which messages are sent. `errorHandler` gets every message's failure, at most one for each
    /// message, on the private thread, instead of that message's reply. Any thread; does not block. The proxy keeps
    /// the connection's private thread alive, and so does every reply that is still awaited.
    std::shared_ptr<HelperProtocol>
    remoteObjectProxyWithErrorHandler(std::function<void(const MessageError &)> errorHandler);

private:
    std::shared_ptr<MessageConnection> messages_;
};
