// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

class QDBusMessage;

/// Why the helper does not do what a message asks.
struct HelperError {
    enum class Kind { NotAuthorized, Busy, ConfigUnsafe, ConfigRejected, ScriptRejected, PortBusy, Internal, Leaving };
    Kind kind;
    QByteArray sentence; ///< for a person; never anything that stands in a file
};

/// The bus error that tells the sender of `message`.
QDBusMessage errorReply(const QDBusMessage &message, const HelperError &error);
