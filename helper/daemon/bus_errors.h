// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

class QDBusMessage;

/// The bus error that tells the sender of `message` why the helper does not do what it asks. The detail must not
/// quote a file's contents.
QDBusMessage errorReply(const QDBusMessage &message, const Error &error);
