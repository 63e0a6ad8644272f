// SPDX-License-Identifier: MIT
#include "tcp_client.h"

#include "descriptor.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

struct TCPClient::Socket {
    explicit Socket(int opened) : descriptor(opened) {}

    const Descriptor descriptor;
    quint64 connection = 0;
};

namespace {

constexpr milliseconds sendTimeout{3000};

/// Waits until `events` or a fault shows on the descriptor. Returns what shows, or 0 when `deadline` has passed.
int waitFor(int descriptor, int events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        pollfd watched{descriptor, static_cast<short>(events), 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (ready > 0)
            return watched.revents;
        if (ready == 0 || errno != EINTR)
            return 0;
    }
}

int pendingError(int descriptor)
{
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int connectWithin(int descriptor, const sockaddr_in &peer, milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0)
        return 0;
    // An interrupted connect goes on by itself, exactly like one that is in progress.
    if (errno != EINPROGRESS && errno != EINTR)
        return errno;
    return waitFor(descriptor, POLLOUT, deadline) == 0 ? ETIMEDOUT : pendingError(descriptor);
}

} // namespace

TCPClient::TCPClient(const char *address, quint16 port, PeerCheck isTrusted)
    : address_(address), port_(port), isTrusted_(isTrusted)
{
}

TCPClient::~TCPClient() = default;

std::shared_ptr<TCPClient::Socket> TCPClient::current() const
{
    const std::scoped_lock lock(guard_);
    return socket_;
}

Result<void> TCPClient::connect(milliseconds timeout)
{
    std::shared_ptr<Socket> earlier;
    {
        const std::scoped_lock lock(guard_);
        earlier.swap(socket_);
    }
    // The peer must see the end now, even while a reader still holds the descriptor: it serves one client at a time.
    if (earlier)
        ::shutdown(earlier->descriptor.get(), SHUT_RDWR);
    earlier.reset();

    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port_);
    if (::inet_pton(AF_INET, address_.constData(), &peer.sin_addr) != 1)
        return systemFailure(EAFNOSUPPORT);
    auto fresh = std::make_shared<Socket>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fresh->descriptor)
        return systemFailure(errno);
    if (const int failed = connectWithin(fresh->descriptor.get(), peer, timeout))
        return systemFailure(failed);
    if (isTrusted_ && !isTrusted_(fresh->descriptor.get()))
        return systemFailure(EPERM);

    const std::scoped_lock lock(guard_);
    fresh->connection = ++connections_;
    socket_ = std::move(fresh);
    return {};
}

Result<void> TCPClient::send(QByteArrayView bytes)
{
    const auto socket = current();
    if (!socket)
        return systemFailure(ENOTCONN);
    const auto deadline = Clock::now() + sendTimeout;
    while (!bytes.isEmpty()) {
        const int shown = waitFor(socket->descriptor.get(), POLLOUT | POLLRDHUP, deadline);
        if (shown == 0)
            return systemFailure(ETIMEDOUT);
        // The kernel takes the first bytes for a peer that has left without a word; the peer would never read them.
        if (shown & (POLLRDHUP | POLLHUP | POLLERR)) {
            const int error = pendingError(socket->descriptor.get());
            return systemFailure(error ? error : EPIPE);
        }
        const ssize_t sent =
            ::send(socket->descriptor.get(), bytes.data(), static_cast<size_t>(bytes.size()), MSG_DONTWAIT);
        if (sent < 0 && errno != EINTR && errno != EAGAIN)
            return systemFailure(errno);
        if (sent > 0)
            bytes = bytes.sliced(sent);
    }
    return {};
}

TCPClient::Chunk TCPClient::read(int maxSize)
{
    const auto socket = current();
    if (!socket)
        return {};
    QByteArray bytes(maxSize, Qt::Uninitialized);
    const ssize_t got = ::recv(socket->descriptor.get(), bytes.data(), static_cast<size_t>(maxSize), MSG_DONTWAIT);
    if (got <= 0)
        return {{}, socket->connection};
    bytes.truncate(got);
    return {bytes, socket->connection};
}
