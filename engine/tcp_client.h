// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

/// One TCP connection to one numeric IPv4 address, connected anew as often as asked. One thread may read while another
/// sends or connects: a descriptor is closed only after the last operation that uses it has returned, so none is ever
/// used after it was replaced. SIGPIPE is never raised.
class TCPClient {
public:
    struct Error {
        int number;           ///< an errno value
        QString text() const; ///< the system's own words for it
    };
    struct Chunk {
        QByteArray bytes;       ///< what has arrived, at most as much as asked for; empty when nothing has
        quint64 connection = 0; ///< which successful `connect` the bytes came over: 1, 2, …; 0 for none
    };

    /// Whom a new connection's other end must belong to; asked with its descriptor before a byte is sent or read.
    using PeerCheck = bool (*)(int descriptor);

    TCPClient(const char *address, quint16 port, PeerCheck isTrusted = nullptr);
    ~TCPClient();
    TCPClient(const TCPClient &) = delete;
    TCPClient &operator=(const TCPClient &) = delete;

    /// Closes what an earlier call connected, then connects. Any one thread at a time; blocks for `limit` at the most.
    /// A peer that is not to be trusted is EPERM.
    std::optional<Error> connect(std::chrono::milliseconds limit);

    /// Sends all of it or fails. Any thread; blocks while the peer does not take it, three seconds at the most. A
    /// peer that has closed its end counts as gone (EPIPE); without a connection the answer is ENOTCONN.
    std::optional<Error> send(QByteArrayView bytes);

    /// Any one thread at a time; never blocks. Nothing pending, closed, broken and never connected all look the same.
    Chunk read(int most);

private:
    struct Socket;
    std::shared_ptr<Socket> current() const;

    const QByteArray address_;
    const quint16 port_;
    const PeerCheck isTrusted_;
    mutable std::mutex guard_; ///< of `socket_` and `connections_`, held only to copy or to replace them
    std::shared_ptr<Socket> socket_;
    quint64 connections_ = 0;
};
