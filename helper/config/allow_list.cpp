// SPDX-License-Identifier: MIT
#include "allow_list.h"

#include "value_grammar.h"

#include <QByteArrayView>

#include <algorithm>
#include <iterator>

namespace {

/// A directive with several rows may follow any of them.
struct Rule {
    const char *name;
    const char *values;        ///< see ConfigValues::follow()
    bool inConnection = false; ///< OPT_P_CONNECTION of options.c, add_option()
};

constexpr bool both = true;

constexpr Rule rules[] = {
    // The server and the way to it
    {"client", ""},
    {"tls-client", ""},
    {"pull", ""},
    {"dev", "$tun"},
    {"dev-type", "tun"},
    {"proto", "$proto", both},
    {"remote", "$host [$port] [$proto]", both},
    {"rport", "$port", both},
    {"nobind", "", both},
    {"float", "", both},
    {"remote-random", ""},
    {"remote-random-hostname", ""},
    {"resolv-retry", "infinite|$number"},
    {"connect-retry-max", "$number", both},
    {"http-proxy", "$host $port", both},
    {"socks-proxy", "$host [$port]", both},
    {"explicit-exit-notify", "[$number]", both},

    // Who may be at either end
    {"auth-user-pass", ""},
    {"auth-retry", "none|nointeract"},
    {"remote-cert-tls", "server|client"},
    {"remote-cert-ku", "[$hex]..."},
    {"remote-cert-eku", "$text"},
    {"verify-x509-name", "$text [subject|name|name-prefix]"},
    {"ns-cert-type", "server|client"},
    {"peer-fingerprint", "$fingerprint"},
    {"push-peer-info", ""},

    // Ciphers and keys
    {"auth", "$name"},
    {"cipher", "$name"},
    {"data-ciphers", "$list"},
    {"data-ciphers-fallback", "$name"},
    {"ncp-ciphers", "$list"},
    {"tls-version-min", "1.0|1.1|1.2|1.3 [or-highest]"},
    {"tls-version-max", "1.0|1.1|1.2|1.3"},
    {"tls-cipher", "$list"},
    {"tls-ciphersuites", "$list"},
    {"tls-groups", "$list"},
    {"ecdh-curve", "$name"},
    {"tls-cert-profile", "legacy|preferred|suiteb|insecure"},
    {"key-direction", "0|1", both},
    {"replay-window", "0..65536 [0..600]"},
    {"mute-replay-warnings", ""},

    // Times and amounts
    {"reneg-sec", "$number [$number]"},
    {"reneg-bytes", "$number"},
    {"reneg-pkts", "$number"},
    {"hand-window", "$number"},
    {"tran-window", "$number"},
    {"tls-timeout", "$number"},
    {"keepalive", "$number $number"},
    {"ping", "$number"},
    {"ping-restart", "$number"},
    {"ping-exit", "$number"},
    {"ping-timer-rem", ""},
    {"inactive", "$number [$number]"},
    {"session-timeout", "$number"},

    // The tunnel's packets
    {"tun-mtu", "68..65535 [68..65535]", both},
    {"tun-mtu-extra", "0..1500", both},
    {"mssfix", "[0..65535] [mtu|fixed]", both},
    {"fragment", "68..65535 [mtu]", both},
    {"mtu-disc", "no|maybe|yes", both},
    {"sndbuf", "$number"},
    {"rcvbuf", "$number"},
    {"socket-flags", "[TCP_NODELAY]..."},
    {"comp-lzo", "[yes|no|adaptive]"},
    {"compress", "[stub|stub-v2|migrate|lzo|lz4|lz4-v2]"},
    {"allow-compression", "no|asym"},
    {"disable-dco", "", both},

    // Addresses, routes, names
    {"topology", "subnet|net30|p2p"},
    {"route", "$host [$ipv4|default] [$host] [$number]"},
    {"route-ipv6", "$ipv6net [$ipv6|default] [$number]"},
    {"route-gateway", "$ipv4|dhcp|vpn_gateway|net_gateway|remote_host"},
    {"route-metric", "$number"},
    {"route-delay", "[$number] [$number]"},
    {"route-nopull", ""},
    {"redirect-gateway", "[local|autolocal|def1|bypass-dhcp|bypass-dns|block-local|ipv6|!ipv4]..."},
    {"redirect-private", "[local|autolocal|def1|bypass-dhcp|bypass-dns|block-local|ipv6|!ipv4]..."},
    {"block-ipv6", ""},
    {"dhcp-option", "DNS $ipv4|$ipv6"},
    {"dhcp-option", "DNS6 $ipv6"},
    {"dhcp-option", "DOMAIN|DOMAIN-SEARCH $host"},
    {"pull-filter", "ignore|reject $text"}, // "accept" would come before the helper's own list
    {"ifconfig-nowarn", ""},

    // The rest
    {"persist-key", ""},
    {"verb", "0..4"}, // above, keys and packets are in the log
    {"mute", "$number"},
    {"setenv", "CLIENT_CERT 0|1"},
    {"setenv", "FORWARD_COMPATIBLE 0|1"},
    {"setenv", "PUSH_PEER_INFO"},
    {"setenv", "SERVER_POLL_TIMEOUT $number"},
    {"setenv", "$uv [$text]"},
};

// With `auth-nocache` OpenVPN would ask for the password again at every renegotiation, and nobody would answer. How
// long it waits for a server and where it finds one again is for the helper to say.
constexpr QByteArrayView dropped[] = {
    "auth-nocache",
    "block-outside-dns",
    "connect-retry",
    "connect-timeout",
    "fast-io",
    "group",
    "http-proxy-retry",
    "ip-win32",
    "max-routes",
    "mlock",
    "nice",
    "persist-remote-ip",
    "persist-tun",
    "preresolve",
    "ignore-unknown-option",
    "http-proxy-timeout",
    "register-dns",
    "route-method",
    "script-security",
    "server-poll-timeout",
    "socks-proxy-retry",
    "tap-sleep",
    "tcp-nodelay",
    "tun-ipv6",
    "user",
};

} // namespace

bool ConfigRules::isDropped(const QByteArray &name)
{
    return std::ranges::find(dropped, QByteArrayView(name)) != std::end(dropped);
}

Result<void> ConfigRules::check(const QByteArray &name, const QList<QByteArray> &values, Scope scope)
{
    const char *cause = "has a directive that is not allowed";
    for (const Rule &rule : rules) {
        if (name != rule.name)
            continue;
        if (scope == Scope::Connection && !rule.inConnection)
            return failure("has a directive that may not stand in a connection block", ErrorCode::ConfigRejected);
        if (ConfigValues::follow(values, rule.values))
            return {};
        cause = "gives a directive a value that is not allowed";
    }
    return failure(cause, ErrorCode::ConfigRejected);
}
