// SPDX-License-Identifier: MIT
#include "pushed_options.h"

namespace {

/// What a pushed option must begin with. OpenVPN compares text: without the blank at its end, a name would accept every
/// longer name too. Names without a blank are options that may stand without a value.
constexpr const char *accepted[] = {
    "route ",
    "route-ipv6 ",
    "route-gateway ",
    "route-metric ",
    "redirect-gateway",
    "redirect-private",
    "block-ipv6",
    "ifconfig ",
    "ifconfig-ipv6 ",
    "topology ",
    "dhcp-option DNS ",
    "dhcp-option DNS6 ",
    "dhcp-option DOMAIN ",
    "dhcp-option DOMAIN-SEARCH ",
    "dns server ",
    "dns search-domains ",
    "ping ",
    "ping-restart ",
    "ping-exit ",
    "inactive ",
    "session-timeout ",
    "explicit-exit-notify",
    "peer-id ",
    "cipher ",
    "protocol-flags ",
    "key-derivation ",
    "auth-token ",
    "auth-token-user ",
    "tun-mtu ",
    "sndbuf ",
    "rcvbuf ",
    "push-continuation ",
};

} // namespace

QList<QByteArray> pushedOptionFilters()
{
    QList<QByteArray> filters;
    for (const char *beginning : accepted)
        filters << "--pull-filter"
                << "accept" << beginning;
    // Every option begins with the empty text: this refuses all that were not accepted above.
    return filters << "--pull-filter"
                   << "ignore"
                   << "";
}
