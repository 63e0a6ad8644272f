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

/// Whether some message tells of more than what a radio has scanned, which it does every few seconds.
bool isMoreThanRadio(const char *messages, size_t size)
{
    const auto *header = reinterpret_cast<const nlmsghdr *>(messages);
    for (; NLMSG_OK(header, size); header = NLMSG_NEXT(header, size)) {
        if (header->nlmsg_type != RTM_NEWLINK)
            return true;
        const auto *link = static_cast<const ifinfomsg *>(NLMSG_DATA(header));
        const rtattr *attribute = IFLA_RTA(link);
        auto left = IFLA_PAYLOAD(header);
        while (RTA_OK(attribute, left) && attribute->rta_type != IFLA_WIRELESS)
            attribute = RTA_NEXT(attribute, left);
        if (!RTA_OK(attribute, left))
            return true;
    }
    return false;
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

void NetworkWatch::take()
{
    constexpr size_t size = 16384;
    alignas(nlmsghdr) char buffer[size];
    bool matters = false;
    ssize_t got = 0;
    // What the kernel had no room for (ENOBUFS) may matter.
    while ((got = ::recv(events_.get(), buffer, size, 0)) >= 0 || errno == ENOBUFS || errno == EINTR)
        matters = got < 0 || isMoreThanRadio(buffer, static_cast<size_t>(got)) || matters;
    if (!matters)
        return;
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
