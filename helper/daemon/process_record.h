// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <chrono>
#include <sys/types.h>

/// The note of which process is the tunnel, for the helper that comes after one that died.
namespace ProcessRecord {

/// Notes the running process `pid` in the file `path`; false when it cannot be written.
bool write(const QByteArray &path, pid_t pid);

/// Ends the process that the file names, if that very process still runs: SIGTERM, after `timeout` SIGKILL. Blocks
/// until it has ended, a second longer than `timeout` at most. A process that merely got the same number later is left
/// alone.
void killLeftover(const QByteArray &path, std::chrono::milliseconds timeout);

} // namespace ProcessRecord
