#pragma once

#include <QStringView>

/// The system's log: /dev/log in the manner of syslog(3), user facility, level notice, and the same line on standard
/// error.
namespace SystemLog {

/// Writes one line. Any thread; never waits for the log daemon: what that does not take at once is on standard error
/// alone, for whose reader it does wait. A line end at the end of `text` is the line's own; one inside it is written as
/// the two characters \n, so that a call never makes two entries.
void write(QStringView text);

} // namespace SystemLog
