// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <sys/types.h>

/// The file that somebody wants to run as root from now on. A failure is one sentence for a person; it quotes nothing
/// of the file.
namespace HelperSource {

/// The bytes of the helper at the absolute `path`, read once: a program for this machine with our identifier and a
/// version. Blocks for the file system. Accepts only a regular file of root or `caller` that has one name, that nobody
/// else can write to, and that does not change meanwhile. Refuses a path that contains a link, or a folder in which
/// anybody but root and `caller` could have put another entry.
Result<QByteArray> read(const QByteArray &path, uid_t caller);

} // namespace HelperSource
