// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

#include <optional>
#include <sys/types.h>

/// Who is at the other end of a TCP connection that does not leave this machine.
namespace LocalPeer {

/// The two ends of such a connection on 127.0.0.1.
struct Ports {
    quint16 ours;
    quint16 peers;
};

/// The user whose program holds the peer's end, by the kernel's table of sockets (/proc/net/tcp, see proc(5)); nothing
/// when the table does not tell. While the peer has yet to accept the connection, it is the user who listens. No I/O.
std::optional<uid_t> ownerIn(QByteArrayView table, Ports ports);

/// Stricter: the user of a peer that has its end open now. A peer that has closed it would show as root's. No I/O.
std::optional<uid_t> holderIn(QByteArrayView table, Ports ports);

/// Whether root or this process's own user is at the other end of a connected socket. False in every doubt. Any
/// thread; reads the table.
bool isTrusted(int descriptor);

/// `holderIn` for a connected socket. Any thread; reads the table.
std::optional<uid_t> holder(int descriptor);

} // namespace LocalPeer
