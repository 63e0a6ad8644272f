// SPDX-License-Identifier: MIT
#include "silent_bus.h"

#include "descriptor.h"

#include <QByteArray>
#include <QList>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int timeout = 500; // ms

QByteArray address()
{
    const QByteArray given = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    return given.isEmpty() ? "unix:path=" + qgetenv("XDG_RUNTIME_DIR") + "/bus" : given;
}

/// The value of `key` in the first of the addresses; empty when it has none.
QByteArray value(const QByteArray &addresses, const QByteArray &key)
{
    const QByteArray first = addresses.split(';').constFirst();
    if (!first.startsWith("unix:"))
        return {};
    for (const QByteArray &pair : first.mid(5).split(','))
        if (pair.startsWith(key + '='))
            return QByteArray::fromPercentEncoding(pair.mid(key.size() + 1));
    return {};
}

/// Whether the bus takes the connection `socket` and then does not answer the greeting. A bus that cannot be reached
/// at all is no concern here: whoever asks it fails at once.
bool isSilent(int socket, const sockaddr_un &name, socklen_t size)
{
    if (connect(socket, reinterpret_cast<const sockaddr *>(&name), size) != 0)
        return errno == EAGAIN; // so many are waiting already
    const QByteArray greeting = QByteArray("\0AUTH EXTERNAL ", 15) + QByteArray::number(getuid()).toHex() + "\r\n";
    if (send(socket, greeting.constData(), static_cast<size_t>(greeting.size()), 0) < 0)
        return false;
    pollfd answer{socket, POLLIN, 0};
    return poll(&answer, 1, timeout) == 0;
}

} // namespace

void SilentBus::leaveWhenSilent()
{
    const QByteArray path = value(address(), "path");
    const QByteArray socketName = path.isEmpty() ? '\0' + value(address(), "abstract") : path;
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    if (socketName.size() < 2 || static_cast<size_t>(socketName.size()) >= sizeof name.sun_path)
        return;
    memcpy(name.sun_path, socketName.constData(), static_cast<size_t>(socketName.size()));
    // A name in the abstract space ends where its length says, a path at its zero.
    const auto size =
        offsetof(sockaddr_un, sun_path) + static_cast<size_t>(socketName.size()) + (path.isEmpty() ? 0 : 1);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket && isSilent(socket.get(), name, static_cast<socklen_t>(size)))
        qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:");
}
