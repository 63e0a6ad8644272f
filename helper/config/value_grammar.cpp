// SPDX-License-Identifier: MIT
#include "value_grammar.h"

#include <QByteArrayView>

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>
#include <limits>

namespace {

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

/// Whether `value` has 1 to `maxSize` bytes, each a letter, a digit or one of `others`.
bool isMadeOf(const QByteArray &value, QByteArrayView others, qsizetype maxSize)
{
    return !value.isEmpty() && value.size() <= maxSize &&
           std::ranges::all_of(value, [others](char c) { return isLetterOrDigit(c) || others.contains(c); });
}

bool isInRange(const QByteArray &value, qint64 min, qint64 max)
{
    constexpr qsizetype maxDigits = 10;
    if (value.isEmpty() || value.size() > maxDigits || !std::ranges::all_of(value, isDigit))
        return false;
    const qint64 number = value.toLongLong();
    return number >= min && number <= max;
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
    {"$fingerprint", ConfigValues::isFingerprint},
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

} // namespace

bool ConfigValues::isFingerprint(const QByteArray &value)
{
    constexpr qsizetype length = 32 * 3 - 1;
    for (qsizetype at = 0; at < value.size(); ++at)
        if (at % 3 == 2 ? value[at] != ':' : !isHexDigit(value[at]))
            return false;
    return value.size() == length;
}

bool ConfigValues::follow(const QList<QByteArray> &values, const QByteArray &usage)
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
