// SPDX-License-Identifier: MIT
#include "strangers.h"

#include <cerrno>
#include <ctime>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr size_t most = 16;
constexpr size_t maxHeard = 64 << 10;

/// False when nothing more will come that is worth waiting for.
bool hear(int client, size_t &heard)
{
    char forgotten[4096];
    for (;;) {
        const ssize_t got = ::recv(client, forgotten, sizeof forgotten, MSG_DONTWAIT);
        if (got <= 0)
            return got < 0 && errno == EAGAIN;
        heard += static_cast<size_t>(got);
        if (heard > maxHeard)
            return false;
    }
}

} // namespace

QByteArray Strangers::endLine(const char *why)
{
    return ">STATE:" + QByteArray::number(static_cast<qint64>(std::time(nullptr))) + ",EXITING," + why + ",,,,,\r\n";
}

void Strangers::tellEnd(int client, const char *why)
{
    size_t heard = 0;
    hear(client, heard);
    const QByteArray line = endLine(why);
    // A fresh connection has room for it.
    (void)::send(client, line.constData(), static_cast<size_t>(line.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    ::shutdown(client, SHUT_WR);
}

void Strangers::turnAway(Descriptor client)
{
    tellEnd(client.get(), "another-user");
    if (told_.size() == most)
        told_.pop_front();
    // Closed now, with bytes that were not read, it would be reset, and the client might never see the line.
    told_.push_back({std::move(client), Clock::now() + std::chrono::seconds(1)});
}

void Strangers::watch(std::vector<pollfd> &watched) const
{
    for (const Told &each : told_)
        watched.push_back({each.client.get(), POLLIN, 0});
}

void Strangers::read(const pollfd *shown)
{
    const auto now = Clock::now();
    std::deque<Told> stay;
    for (Told &each : told_) {
        const bool silent = (shown++)->revents == 0;
        if (each.until > now && (silent || hear(each.client.get(), each.heard)))
            stay.push_back(std::move(each));
    }
    told_.swap(stay);
}

Strangers::Clock::time_point Strangers::due() const
{
    return told_.empty() ? Clock::time_point::max() : told_.front().until;
}
