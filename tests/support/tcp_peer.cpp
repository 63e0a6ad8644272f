// SPDX-License-Identifier: MIT
#include "tcp_peer.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

TCPPeer::TCPPeer(quint16 port)
{
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr *>(&address), size) != 0 || ::listen(listener_, 4) != 0) {
        std::perror("the peer's port");
        std::abort();
    }
    ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

TCPPeer::~TCPPeer()
{
    ::shutdown(listener_, SHUT_RDWR);
    closeClient();
    thread_.join();
    ::close(listener_);
}

void TCPPeer::serve()
{
    for (;;) {
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            return;
        {
            const std::scoped_lock lock(guard_);
            client_ = client;
            left_ = false;
            received_.clear();
            ++clients_;
        }
        readAll(client);
        const std::scoped_lock lock(guard_);
        left_ = true;
        client_ = -1;
        ::close(client);
    }
}

void TCPPeer::readAll(int client)
{
    char bytes[4096];
    for (;;) {
        const ssize_t got = ::recv(client, bytes, sizeof bytes, 0);
        if (got <= 0)
            return;
        const std::scoped_lock lock(guard_);
        received_.append(bytes, got);
    }
}

int TCPPeer::clients() const
{
    const std::scoped_lock lock(guard_);
    return clients_;
}

QByteArray TCPPeer::received() const
{
    const std::scoped_lock lock(guard_);
    return received_;
}

bool TCPPeer::clientLeft() const
{
    const std::scoped_lock lock(guard_);
    return left_;
}

void TCPPeer::send(const QByteArray &bytes) const
{
    const std::scoped_lock lock(guard_);
    if (client_ >= 0)
        ::send(client_, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
}

void TCPPeer::closeClient()
{
    const std::scoped_lock lock(guard_);
    if (client_ >= 0)
        ::shutdown(client_, SHUT_RDWR);
}
