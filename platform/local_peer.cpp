// SPDX-License-Identifier: MIT
#include "local_peer.h"

#include <QFile>
#include <QList>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// The columns of the table that matter here.
constexpr qsizetype localColumn = 1;
constexpr qsizetype remoteColumn = 2;
constexpr qsizetype stateColumn = 3;
constexpr qsizetype userColumn = 7;
constexpr qsizetype inodeColumn = 9;

/// An address as the table writes it: the bytes of the network order as one number of this machine's.
QByteArray written(in_addr_t address, quint16 port)
{
    return QByteArray::number(address, 16).toUpper().rightJustified(8, '0') + ':' +
           QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
}

std::optional<quint16> portOf(int descriptor, decltype(::getsockname) *which)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (which(descriptor, reinterpret_cast<sockaddr *>(&address), &size) != 0 ||
        address.sin_addr.s_addr != htonl(INADDR_LOOPBACK))
        return std::nullopt;
    return ntohs(address.sin_port);
}

/// The ends of the connection, if it is one on 127.0.0.1, and the kernel's table.
std::pair<std::optional<LocalPeer::Ports>, QByteArray> looked(int descriptor)
{
    const auto ours = portOf(descriptor, ::getsockname);
    const auto peers = portOf(descriptor, ::getpeername);
    QFile table(u"/proc/net/tcp"_s);
    if (!ours || !peers || !table.open(QIODevice::ReadOnly))
        return {};
    return {LocalPeer::Ports{*ours, *peers}, table.readAll()};
}

} // namespace

std::optional<uid_t> LocalPeer::ownerIn(QByteArrayView table, Ports ports)
{
    const QByteArray peers = written(htonl(INADDR_LOOPBACK), ports.peers);
    const QByteArray ours = written(htonl(INADDR_LOOPBACK), ports.ours);
    const QByteArray everywhere = written(INADDR_ANY, ports.peers);
    std::optional<uid_t> listener;
    // The kernel tells of listeners first: if another had been there when we connected, and closed since, the
    // connections that it had not accepted would be closed too.
    for (const QByteArray &line : table.toByteArray().split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() <= inodeColumn)
            continue;
        const uid_t user = words[userColumn].toUInt();
        const bool listens = words[stateColumn] == "0A";
        if (listens && (words[localColumn] == peers || words[localColumn] == everywhere))
            listener = user;
        if (words[localColumn] == peers && words[remoteColumn] == ours)
            // Until it is accepted it is nobody's: without a number, and root's for want of another user.
            return words[inodeColumn] == "0" ? listener : user;
    }
    return std::nullopt;
}

std::optional<uid_t> LocalPeer::holderIn(QByteArrayView table, Ports ports)
{
    const QByteArray established =
        ' ' + written(htonl(INADDR_LOOPBACK), ports.peers) + ' ' + written(htonl(INADDR_LOOPBACK), ports.ours) + " 01 ";
    // There may be thousands of rows, and whoever makes them must not make the search slow.
    const qsizetype found = table.indexOf(established);
    if (found < 0)
        return std::nullopt;
    const QByteArrayView rest = table.sliced(found);
    const qsizetype end = rest.indexOf('\n');
    const QList<QByteArray> words = (end < 0 ? rest : rest.first(end)).toByteArray().simplified().split(' ');
    constexpr qsizetype left = 1; // the column that the row began with
    if (words.size() <= inodeColumn - left || words[inodeColumn - left] == "0")
        return std::nullopt;
    return words[userColumn - left].toUInt();
}

bool LocalPeer::isTrusted(int descriptor)
{
    const auto [ports, table] = looked(descriptor);
    const auto owner = ports ? ownerIn(table, *ports) : std::nullopt;
    return owner && (*owner == 0 || *owner == ::getuid());
}

std::optional<uid_t> LocalPeer::holder(int descriptor)
{
    const auto [ports, table] = looked(descriptor);
    return ports ? holderIn(table, *ports) : std::nullopt;
}
