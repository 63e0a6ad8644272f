// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <sys/types.h>

/// Root's files, each replaced whole or not at all. Each operation returns nothing when it is done, else why not, in
/// one sentence; all block for the file system.
namespace BlessFiles {

/// Puts a file with these bytes and this mode in the place of `path`, and returns once that would outlast a power cut.
/// Folders that are missing are made. What an earlier attempt left beside it is swept away.
QByteArray place(const QByteArray &path, QByteArrayView bytes, mode_t mode);

/// Removes `path`, and what an attempt to place it left. That it is not there is as good.
QByteArray remove(const QByteArray &path);

} // namespace BlessFiles
