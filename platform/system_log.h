#pragma once

#include <QStringView>

/// The system's log: syslog(3), user facility, level notice, and the same line on standard error.
namespace SystemLog {

/// Writes one line. Any thread; may block while the log daemon does not take it. A line end at the end of `text` is
/// the line's own; one inside it is written as the two characters \n, so that a call never makes two entries.
void write(QStringView text);

} // namespace SystemLog
