// SPDX-License-Identifier: MIT
#include "network_watch.h"

#include <QDBusConnection>
#include <QSocketNotifier>

#include <cerrno>
#include <chrono>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto quiet = 200ms;
constexpr auto limit = 1s;
constexpr auto later = 3s;

Descriptor listenToKernel()
{
    Descriptor events(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    if (::bind(events.get(), reinterpret_cast<const sockaddr *>(&groups), sizeof groups) != 0)
        events.close();
    return events;
}

} // namespace

NetworkWatch::NetworkWatch() : events_(listenToKernel())
{
    for (const auto &[timer, interval] : {std::pair{&quiet_, quiet}, {&limit_, limit}}) {
        timer->setSingleShot(true);
        timer->setInterval(interval);
        connect(timer, &QTimer::timeout, this, &NetworkWatch::tell);
    }
    later_.setSingleShot(true);
    later_.setInterval(later);
    connect(&later_, &QTimer::timeout, this, &NetworkWatch::changed);
    if (events_) {
        auto *const notifier = new QSocketNotifier(events_.get(), QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, &NetworkWatch::take);
    }
    // By its name, so that the bus passes no other sender's signal on.
    QDBusConnection::systemBus().connect(u"org.freedesktop.login1"_s, u"/org/freedesktop/login1"_s,
                                         u"org.freedesktop.login1.Manager"_s, u"PrepareForSleep"_s, this,
                                         SLOT(sleepChanged(bool)));
}

/// What the messages say does not matter, nor that the kernel has dropped some (ENOBUFS): whoever is told looks.
void NetworkWatch::take()
{
    constexpr size_t size = 8192;
    char buffer[size];
    while (::recv(events_.get(), buffer, size, 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
    }
    quiet_.start();
    later_.start();
    if (!limit_.isActive())
        limit_.start();
}

void NetworkWatch::tell()
{
    quiet_.stop();
    limit_.stop();
    emit changed();
}

void NetworkWatch::sleepChanged(bool begins)
{
    if (!begins)
        emit woke();
}
