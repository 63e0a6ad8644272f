// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class QDBusMessage;

/// The question of whether somebody may do something, as polkit's CheckAuthorization takes and answers it. Any thread;
/// no I/O: whoever asks sends the message, without a timeout, since a person may be asked for a password meanwhile.
namespace Polkit {

/// Whether the process with this unique bus name may do `action`. By bus name, because a process number could be
/// another process's by the time polkit looks.
QDBusMessage question(const QString &busName, const QString &action, bool mayAskPerson);

enum class Answer {
    Yes,
    No,
    NobodyToAsk, ///< somebody would have to be asked for a password, and nobody can be
    Dismissed,   ///< the person who was asked cancelled
    Unreadable,  ///< an error, or no answer of polkit's
};

Answer answer(const QDBusMessage &reply);

} // namespace Polkit
