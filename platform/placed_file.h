// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArray>
#include <QByteArrayView>

#include <sys/types.h>

/// Files that are replaced whole or not at all. Any thread; blocks for the file system. A failure names the path and
/// the system's reason.
namespace PlacedFile {

/// Puts a file with these bytes and this mode at `path`, whose folder must exist. Returns once the file would survive
/// a power cut. Until then `path` is what it was. Sweeps what an earlier attempt left beside it.
Result<void> write(const QByteArray &path, QByteArrayView bytes, mode_t mode);

/// Removes `path`, and what an attempt to write it left. Succeeds when neither is there.
Result<void> remove(const QByteArray &path);

} // namespace PlacedFile
