// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

/// The text of OpenVPN's management interface, as pure functions: no descriptor, no service, no output.
/// The protocol is described in OpenVPN's doc/management-notes.txt.
namespace ManagementLines {

/// Takes the next complete line, without its CR LF, off the front of `buffer`; nothing when there is none yet. Lines
/// end in CR LF. A buffer that holds an LF but no CR LF at all is taken whole, LF included.
std::optional<QByteArrayView> takeLine(QByteArrayView &buffer);

/// What a line asks for. The views point into the line.
struct Action {
    enum class Kind {
        None,
        Print,               ///< write `text` to standard output
        PrintUnknownCommand, ///< report the notification `text`, whose keyword is not known
        PrintUnknownLine,    ///< report the line `text`, which is neither a notification nor a known answer
        State,               ///< `text` is the rest of a state notification
    };
    Kind kind = Kind::None;
    QByteArrayView text;

    bool operator==(const Action &) const = default;
};

/// Classifies one complete line. Never fails.
Action actionFor(QByteArrayView line);

/// The state name in the rest of a STATE notification (time stamp, name, description, …): what stands between its
/// first and its second comma, unchanged; nothing when it has fewer than two.
std::optional<QByteArrayView> stateName(QByteArrayView rest);

} // namespace ManagementLines
