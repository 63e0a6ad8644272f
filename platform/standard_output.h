// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

/// The process's standard output, one `write` a message, so that lines of different threads never mix.
namespace StandardOutput {

/// Writes `text` and a line end. Any thread; blocks while the reader of a pipe or terminal does not take it.
/// A failure is not reported: a closed pipe (no SIGPIPE), a full disk and a missing descriptor lose the message.
void writeLine(QByteArrayView text);

/// Lets standard output lead nowhere from now on where it leads to the system's log: others may read that, and the
/// commands that are echoed have the person's password. Main thread, before anything is written; does not block.
void keepOutOfSystemLog();

} // namespace StandardOutput
