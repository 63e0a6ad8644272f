// SPDX-License-Identifier: MIT
#include "management_text.h"

#include <QByteArray>

#include <algorithm>
#include <limits>

using ManagementText::Meaning;
using ManagementText::Verdict;
using Kind = Meaning::Kind;

namespace {

constexpr QByteArrayView username = "username 'Auth' ";
constexpr QByteArrayView password = "password 'Auth' ";
constexpr QByteArrayView byteCount = "bytecount ";
constexpr QByteArrayView commands[] = {
    "state on", "log on", "signal SIGINT", "signal SIGTERM", "signal SIGUSR1", "signal SIGHUP",
};

struct Fixed {
    QByteArrayView beginning;
    Kind kind;
    bool whole; ///< nothing may follow
};

constexpr Fixed fixed[] = {
    // With a challenge behind it a password alone would be no answer.
    {">PASSWORD:Need 'Auth' username/password", Kind::Needed, true},
    {">PASSWORD:Verification Failed: 'Auth'", Kind::Failed, false},
    {"SUCCESS: 'Auth' username entered", Kind::UsernameTaken, false},
    {"SUCCESS: 'Auth' password entered", Kind::PasswordTaken, false},
    {"ERROR: no username is", Kind::UsernameNotTaken, false},
    {"ERROR: no password is", Kind::PasswordNotTaken, false},
    {"ERROR: username of type", Kind::UsernameNotTaken, false},
    {"ERROR: password of type", Kind::PasswordNotTaken, false},
};

constexpr QByteArrayView turnsTo[] = {
    "UDPv4 link remote: ",
    "UDPv6 link remote: ",
    "Attempting to establish TCP connection with ",
};

bool isNumber(QByteArrayView text)
{
    return !text.isEmpty() &&
           std::all_of(text.begin(), text.end(), [](char each) { return each >= '0' && each <= '9'; });
}

bool isByteCount(QByteArrayView text)
{
    constexpr qsizetype maxDigits = 10;
    return isNumber(text) && text.size() <= maxDigits &&
           text.toByteArray().toLongLong() <= std::numeric_limits<qint32>::max();
}

QByteArrayView withoutReturn(QByteArrayView line)
{
    return line.endsWith('\r') ? line.chopped(1) : line;
}

/// What stands behind the comma of that number; empty when there are fewer.
QByteArrayView behindComma(QByteArrayView text, int number)
{
    for (; number > 0; --number) {
        const qsizetype comma = text.indexOf(',');
        if (comma < 0)
            return {};
        text = text.sliced(comma + 1);
    }
    return text;
}

/// The address in what OpenVPN writes as [AF_INET]203.0.113.20:1194 or [AF_INET6]2001:db8::1:1194.
QByteArrayView addressIn(QByteArrayView end)
{
    for (const QByteArrayView family : {QByteArrayView("[AF_INET]"), QByteArrayView("[AF_INET6]")}) {
        const qsizetype colon = end.lastIndexOf(':');
        if (end.startsWith(family) && colon > family.size() && isNumber(end.sliced(colon + 1)))
            return end.first(colon).sliced(family.size());
    }
    return {};
}

Meaning logMeaning(QByteArrayView message)
{
    for (const QByteArrayView each : turnsTo)
        if (message.startsWith(each))
            if (const QByteArrayView address = addressIn(message.sliced(each.size())); !address.isEmpty())
                return {Kind::Remote, address};
    return {};
}

} // namespace

bool ManagementText::isUsername(QByteArrayView line)
{
    return line.startsWith(username);
}

bool ManagementText::isPassword(QByteArrayView line)
{
    return line.startsWith(password);
}

Verdict ManagementText::verdictOn(QByteArrayView line)
{
    if (isUsername(line) || isPassword(line))
        return line.size() > maxCredential ? Verdict::TooLong : Verdict::Pass;
    const QByteArrayView command = withoutReturn(line);
    if (command.startsWith(byteCount) && isByteCount(command.sliced(byteCount.size())))
        return Verdict::Pass;
    return std::find(std::begin(commands), std::end(commands), command) == std::end(commands) ? Verdict::Forbidden
                                                                                              : Verdict::Pass;
}

Meaning ManagementText::meaningOf(QByteArrayView line)
{
    line = withoutReturn(line);
    for (const Fixed &each : fixed)
        if (each.whole ? line == each.beginning : line.startsWith(each.beginning))
            return {each.kind, {}};
    if (line.startsWith(">LOG:"))
        return logMeaning(behindComma(line, 2));
    if (!line.startsWith(">STATE:"))
        return {};
    const QByteArrayView name = behindComma(line, 1);
    const qsizetype end = name.indexOf(',');
    return end > 0 ? Meaning{Kind::State, name.first(end)} : Meaning{};
}
