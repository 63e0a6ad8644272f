#include "config_rules.h"

#include <QByteArrayView>

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>
#include <limits>

using ConfigRules::Place;
using ConfigRules::Verdict;

namespace {

/// `values` reads like a usage line: one item for each value, "[…]" where it may be missing, "…..." where it may
/// repeat. An item is a list of alternatives: a literal, a range of numbers, or the "$name" of a class below. A
/// directive with several rows may follow any of them.
struct Rule {
    const char *name;
    const char *values;
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
    {"port", "$port", both},
    {"rport", "$port", both},
    {"lport", "0..65535", both},
    {"nobind", "", both},
    {"float", "", both},
    {"remote-random", ""},
    {"remote-random-hostname", ""},
    {"resolv-retry", "infinite|$number"},
    {"connect-retry", "$number [$number]", both},
    {"connect-retry-max", "$number", both},
    {"connect-timeout", "$number", both},
    {"server-poll-timeout", "$number", both},
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
    {"route-gateway", "$host"},
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
    {"persist-tun", ""},
    {"verb", "0..4"}, // above, keys and packets are in the log
    {"mute", "$number"},
    {"setenv", "CLIENT_CERT 0|1"},
    {"setenv", "PUSH_PEER_INFO"},
    {"setenv", "SERVER_POLL_TIMEOUT $number"},
    {"setenv", "$uv [$text]"},
};

// Of no use on this system, or the helper's own to decide. Without `auth-nocache` dropped, OpenVPN would ask for the
// password again at every renegotiation, and nobody would answer.
constexpr QByteArrayView unwanted[] = {
    "auth-nocache",
    "block-outside-dns",
    "fast-io",
    "group",
    "http-proxy-retry",
    "ip-win32",
    "max-routes",
    "mlock",
    "nice",
    "ignore-unknown-option",
    "http-proxy-timeout",
    "register-dns",
    "route-method",
    "script-security",
    "socks-proxy-retry",
    "tap-sleep",
    "tcp-nodelay",
    "tun-ipv6",
    "user",
};

constexpr qsizetype maxHost = 253;
constexpr qsizetype maxName = 64;
constexpr qsizetype maxText = 200; // leaves room for a whole directive in a line of 254

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}
bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isLetterOrDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// 1 to `most` letters, digits and bytes of `others`.
bool isMadeOf(const QByteArray &value, QByteArrayView others, qsizetype most)
{
    return !value.isEmpty() && value.size() <= most &&
           std::ranges::all_of(value, [others](char c) { return isLetterOrDigit(c) || others.contains(c); });
}

bool isInRange(const QByteArray &value, qint64 least, qint64 most)
{
    constexpr qsizetype maxDigits = 10;
    if (value.isEmpty() || value.size() > maxDigits || !std::ranges::all_of(value, isDigit))
        return false;
    const qint64 number = value.toLongLong();
    return number >= least && number <= most;
}

bool isAddress(const QByteArray &value, int family)
{
    in6_addr address{};
    return inet_pton(family, value.constData(), &address) == 1;
}

bool isIPv4(const QByteArray &value)
{
    return isAddress(value, AF_INET);
}
bool isIPv6(const QByteArray &value)
{
    return isAddress(value, AF_INET6);
}

bool isIPv6Net(const QByteArray &value)
{
    constexpr int maxPrefix = 128;
    const qsizetype slash = value.indexOf('/');
    return slash < 0 ? isIPv6(value) : isIPv6(value.first(slash)) && isInRange(value.sliced(slash + 1), 0, maxPrefix);
}

bool isHost(const QByteArray &value)
{
    return isIPv6(value) || (isMadeOf(value, "._-", maxHost) && isLetterOrDigit(value.front()));
}

bool isPort(const QByteArray &value)
{
    return isInRange(value, 1, 65535);
}

// OpenVPN reads its numbers with atoi().
bool isNumber(const QByteArray &value)
{
    return isInRange(value, 0, std::numeric_limits<int>::max());
}

bool isProtocol(const QByteArray &value)
{
    constexpr QByteArrayView protocols[] = {"udp",  "udp4",       "udp6",        "tcp",        "tcp4",
                                            "tcp6", "tcp-client", "tcp4-client", "tcp6-client"};
    return std::ranges::find(protocols, QByteArrayView(value)) != std::end(protocols);
}

bool isTun(const QByteArray &value)
{
    constexpr qint64 maxUnit = 255;
    return value == "tun" || (value.startsWith("tun") && isInRange(value.sliced(3), 0, maxUnit));
}

bool isHex(const QByteArray &value)
{
    return !value.isEmpty() && value.size() <= 4 && std::ranges::all_of(value, isHexDigit);
}

bool isName(const QByteArray &value)
{
    return isMadeOf(value, "._-", maxName);
}
bool isList(const QByteArray &value)
{
    return isMadeOf(value, "._:@=!+?-", maxText);
}

bool isText(const QByteArray &value)
{
    return !value.isEmpty() && value.size() <= maxText &&
           std::ranges::all_of(value, [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
}

bool isUserVariable(const QByteArray &value)
{
    return value.startsWith("UV_") && isMadeOf(value, "_", maxName);
}

struct Class {
    QByteArrayView name;
    bool (*holds)(const QByteArray &);
};

constexpr Class classes[] = {
    {"$fingerprint", ConfigRules::isFingerprint},
    {"$hex", isHex},
    {"$host", isHost},
    {"$ipv4", isIPv4},
    {"$ipv6", isIPv6},
    {"$ipv6net", isIPv6Net},
    {"$list", isList},
    {"$name", isName},
    {"$number", isNumber},
    {"$port", isPort},
    {"$proto", isProtocol},
    {"$text", isText},
    {"$tun", isTun},
    {"$uv", isUserVariable},
};

bool isOf(const QByteArray &alternative, const QByteArray &value)
{
    if (alternative.startsWith('$'))
        return std::ranges::find(classes, QByteArrayView(alternative), &Class::name)->holds(value);
    const qsizetype dots = alternative.indexOf("..");
    if (dots > 0)
        return isInRange(value, alternative.first(dots).toLongLong(), alternative.sliced(dots + 2).toLongLong());
    return alternative == value;
}

bool follows(const QList<QByteArray> &values, const QByteArray &usage)
{
    qsizetype at = 0;
    for (QByteArray item : usage.isEmpty() ? QList<QByteArray>() : usage.split(' ')) {
        const bool repeats = item.endsWith("...");
        const bool optional = item.startsWith('[');
        if (optional)
            item = item.sliced(1, item.indexOf(']') - 1);
        const QList<QByteArray> alternatives = item.split('|');
        const auto fits = [&](const QByteArray &value) {
            return std::ranges::any_of(alternatives, [&](const QByteArray &each) { return isOf(each, value); });
        };
        if (at == values.size())
            return optional;
        do {
            if (!fits(values[at]))
                return false;
            ++at;
        } while (repeats && at < values.size());
    }
    return at == values.size();
}

} // namespace

bool ConfigRules::isFingerprint(const QByteArray &value)
{
    constexpr qsizetype length = 32 * 3 - 1;
    for (qsizetype at = 0; at < value.size(); ++at)
        if (at % 3 == 2 ? value[at] != ':' : !isHexDigit(value[at]))
            return false;
    return value.size() == length;
}

Verdict ConfigRules::judge(const QByteArray &name, const QList<QByteArray> &values, Place place)
{
    if (std::ranges::find(unwanted, QByteArrayView(name)) != std::end(unwanted))
        return Verdict::Dropped;
    Verdict verdict = Verdict::NotAllowed;
    for (const Rule &rule : rules) {
        if (name != rule.name)
            continue;
        if (place == Place::Connection && !rule.inConnection)
            return Verdict::NotInConnection;
        if (follows(values, rule.values))
            return Verdict::Allowed;
        verdict = Verdict::BadValue;
    }
    return verdict;
}
