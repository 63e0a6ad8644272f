// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArray>

#include <chrono>
#include <memory>
#include <mutex>

/// One TCP connection to one numeric IPv4 address, connected anew as often as asked. One thread may read while another
/// sends or connects: a descriptor is closed only after the last operation that uses it has returned, so none is ever
/// used after it was replaced. An error's detail is the system's own words for it.
class TCPClient {
public:
    struct Chunk {
        QByteArray bytes;       ///< empty when nothing has arrived
        quint64 connection = 0; ///< which successful `connect` the bytes came over: 1, 2, …; 0 for none
    };

    /// Judges the other end of a new connection by its descriptor, before a byte is sent or read.
    using PeerCheck = bool (*)(int descriptor);

    TCPClient(const char *address, quint16 port, PeerCheck isTrusted = nullptr);
    ~TCPClient();
    TCPClient(const TCPClient &) = delete;
    TCPClient &operator=(const TCPClient &) = delete;

    /// Closes what an earlier call connected, then connects. Any one thread at a time; blocks for `timeout` at most.
    /// Fails with EPERM when the peer is not trusted.
    Result<void> connect(std::chrono::milliseconds timeout);

    /// Sends all of it or fails. Any thread; blocks while the peer does not take it, three seconds at most. Fails with
    /// EPIPE when the peer has closed its end, and with ENOTCONN without a connection. SIGPIPE must be ignored.
    Result<void> send(QByteArrayView bytes);

    /// Up to `maxSize` bytes that have arrived. Any one thread at a time; never blocks. Nothing pending, closed, broken
    /// and never connected all look the same.
    Chunk read(int maxSize);

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
