// SPDX-License-Identifier: MIT
#include "management_lines.h"

using Action = ManagementLines::Action;
using Kind = Action::Kind;

namespace {

struct Keyword {
    QByteArrayView name;
    Action::Kind kind;
};

constexpr Keyword keywords[] = {
    {"INFO", Kind::None},    {"PASSWORD", Kind::None},  {"HOLD", Kind::None},
    {"NEED-OK", Kind::None}, {"BYTECOUNT", Kind::None}, {"STATE", Kind::State},
    {"PROXY", Kind::None},   {"LOG", Kind::Print},      {"RSA_SIGN", Kind::None},
};

Action notificationAction(QByteArrayView line, qsizetype colon)
{
    const QByteArrayView name = line.sliced(1, colon - 1);
    const QByteArrayView rest = line.sliced(colon + 1);
    for (const Keyword &keyword : keywords)
        if (keyword.name == name)
            return keyword.kind == Kind::None ? Action{} : Action{keyword.kind, rest};
    return {Kind::PrintUnknownCommand, line};
}

} // namespace

std::optional<QByteArrayView> ManagementLines::takeLine(QByteArrayView &buffer)
{
    if (!buffer.contains('\n'))
        return std::nullopt;
    const qsizetype end = buffer.indexOf("\r\n");
    const QByteArrayView line = end < 0 ? buffer : buffer.first(end);
    buffer = end < 0 ? QByteArrayView() : buffer.sliced(end + 2);
    return line;
}

Action ManagementLines::actionFor(QByteArrayView line)
{
    const qsizetype colon = line.startsWith('>') ? line.indexOf(':') : -1;
    if (colon >= 0)
        return notificationAction(line, colon);
    if (line.startsWith("SUCCESS:") || line.startsWith("PROTECTFD: "))
        return {};
    return {Kind::PrintUnknownLine, line};
}

std::optional<QByteArrayView> ManagementLines::stateName(QByteArrayView rest)
{
    const qsizetype first = rest.indexOf(',');
    const qsizetype second = first < 0 ? -1 : rest.indexOf(',', first + 1);
    if (second < 0)
        return std::nullopt;
    return rest.sliced(first + 1, second - first - 1);
}
