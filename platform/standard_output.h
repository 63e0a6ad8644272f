#pragma once

#include <QByteArrayView>

/// The process's standard output, one `write` a message, so that lines of different threads never mix.
namespace StandardOutput {

/// Writes `text` and a line end. Any thread; blocks while the reader of a pipe or terminal does not take it.
/// A failure is not reported: a closed pipe (no SIGPIPE), a full disk and a missing descriptor lose the message.
void writeLine(QByteArrayView text);

/// Whether standard output leads to the system's log, which others may read: systemd gives a desktop's programs the
/// journal's stream socket (systemd-journald.service(8)). Any thread; does not block.
bool isSystemLog();

} // namespace StandardOutput
