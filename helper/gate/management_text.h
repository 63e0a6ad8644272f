// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

/// What client and OpenVPN say to each other, as pure functions. A line is given without its LF; a CR before that may
/// be there.
namespace ManagementText {

/// The longest credential line that OpenVPN gets. Its own buffer has 1,024 bytes, is filled by 256 at a time, and is
/// emptied when it is full: the end of a longer line would be a command of its own.
constexpr qsizetype maxCredential = 768;

enum class Verdict {
    Pass,
    TooLong, ///< a credential that OpenVPN could not take, either
    Forbidden,
};

/// Whether a line of the client's may reach OpenVPN.
Verdict verdictOn(QByteArrayView line);

bool isUsername(QByteArrayView line);
bool isPassword(QByteArrayView line);

/// What a line of OpenVPN's means to the gate.
struct Meaning {
    enum class Kind {
        None,
        State,         ///< `text` is the state's name
        Remote,        ///< `text` is the numeric address that OpenVPN turns to
        Needed,        ///< user name and password are asked for
        Failed,        ///< the VPN server has refused them
        UsernameTaken, ///< the reply to a user name
        PasswordTaken, ///< likewise
        UsernameNotTaken,
        PasswordNotTaken,
    };
    Kind kind = Kind::None;
    QByteArrayView text; ///< points into the line

    bool operator==(const Meaning &) const = default;
};

Meaning meaningOf(QByteArrayView line);

} // namespace ManagementText
