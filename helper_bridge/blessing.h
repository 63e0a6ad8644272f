// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QString>

/// Putting the bundle's helper into the system, which takes root's rights.
namespace Blessing {

struct Programs {
    QString pkexec = QStringLiteral("/usr/bin/pkexec");
    QString bless = QStringLiteral("/usr/libexec/corvale/bless");
};

/// Has the bless tool copy the file `helper` into the system and register it, through pkexec. pkexec asks polkit about
/// the process that started it, so a right that this process has just obtained and kept covers it. An error's detail is
/// one line that says why. Any thread, which it blocks until the tool has ended; there is no timeout.
Result<void> SMJobBless(const QString &helper, const Programs &programs = {});

} // namespace Blessing
