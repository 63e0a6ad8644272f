// SPDX-License-Identifier: MIT
#include "gate_process.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr quint16 managementPort = 1337;
constexpr auto killTimeout = 4s;

/// Nothing when the port is taken.
Descriptor listenerOnPort()
{
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Old connections that the kernel has yet to forget are no obstacle.
    const int on = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(managementPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), SOMAXCONN) != 0)
        return Descriptor();
    return listener;
}

bool isAddress(const QByteArray &text)
{
    in6_addr address{};
    return ::inet_pton(AF_INET, text.constData(), &address) == 1 ||
           ::inet_pton(AF_INET6, text.constData(), &address) == 1;
}

} // namespace

Result<std::unique_ptr<GateProcess>> GateProcess::start(uid_t owner, const QByteArray &socketPath)
{
    const Descriptor listener = listenerOnPort();
    if (!listener)
        return failure("Another program uses port 1337 on 127.0.0.1.", ErrorCode::PortBusy);
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return systemFailure(errno);
    Descriptor ours(ends[0]);
    const Descriptor gates(ends[1]);
    auto process = ChildProcess::start({"/proc/self/exe", "gate", QByteArray::number(owner), socketPath},
                                       {listener.get(), gates.get()});
    if (!process)
        return tl::make_unexpected(process.error());
    return std::unique_ptr<GateProcess>(new GateProcess(std::move(*process), std::move(ours)));
}

GateProcess::GateProcess(std::unique_ptr<ChildProcess> process, Descriptor control)
    : process_(std::move(process)), control_(std::move(control)), notifier_(control_.get(), QSocketNotifier::Read)
{
    kill_.setSingleShot(true);
    kill_.setInterval(killTimeout);
    connect(&kill_, &QTimer::timeout, process_.get(), &ChildProcess::killAll);
    connect(process_.get(), &ChildProcess::ended, this, &GateProcess::ended);
    connect(&notifier_, &QSocketNotifier::activated, this, &GateProcess::hear);
}

void GateProcess::hear()
{
    constexpr size_t maxMessage = 2048;
    char bytes[maxMessage];
    const ssize_t got = ::recv(control_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got <= 0) {
        notifier_.setEnabled(got < 0 && (errno == EAGAIN || errno == EINTR)); // its end is told by the process
        return;
    }
    const QByteArray message(bytes, got);
    const qsizetype blank = message.indexOf(' ');
    const QByteArray value = message.mid(blank + 1);
    if (message.startsWith("state "))
        emit stateChanged(value);
    else if (message.startsWith("remote ") && isAddress(value))
        emit remoteChanged(value);
}

void GateProcess::finish()
{
    notifier_.setEnabled(false); // before its descriptor goes
    control_.close();
    kill_.start();
}
