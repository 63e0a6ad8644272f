// SPDX-License-Identifier: MIT
#include "remote_addresses.h"

#include <QSet>

#include <algorithm>
#include <arpa/inet.h>

namespace {

bool isAddress(const QByteArray &host)
{
    in6_addr address{};
    return ::inet_pton(AF_INET, host.constData(), &address) == 1 ||
           ::inet_pton(AF_INET6, host.constData(), &address) == 1;
}

QSet<QByteArray> hostsOf(const QList<Directive> &directives)
{
    QSet<QByteArray> hosts;
    for (const Directive &each : directives) {
        if (each.name == "remote" || each.name == "http-proxy" || each.name == "socks-proxy")
            hosts << each.values.first();
        hosts += hostsOf(each.inner);
    }
    return hosts;
}

} // namespace

QByteArray RemoteAddresses::lineFor(const QList<Directive> &directives)
{
    const QSet<QByteArray> hosts = hostsOf(directives);
    const bool waitsForNoName = hosts.size() <= 1 || std::ranges::all_of(hosts, isAddress);
    return waitsForNoName ? beforehand : "";
}
