// SPDX-License-Identifier: MIT
#pragma once

#include <QStringView>

/// The system's log: /dev/log in the manner of syslog(3), user facility, level notice, and the same line on standard
/// error unless that leads to the log, too.
namespace SystemLog {

/// Whether what is written to `descriptor` becomes lines of the system's log: systemd gives services, and a desktop's
/// programs, the journal's stream socket (systemd-journald.service(8)). Any thread; does not block.
bool isAt(int descriptor);

/// Writes one line. Any thread; never waits for the log daemon: what that does not take at once is on standard error
/// alone, for whose reader it does wait. A line end at the end of `text` is the line's own; one inside it is written as
/// the two characters \n, so that a call never makes two entries.
void write(QStringView text);

} // namespace SystemLog
