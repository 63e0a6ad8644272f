// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArrayView>

/// Files that only the user may read. Any thread; blocks for the file system. An error's detail is the system's own
/// words for it.
namespace PrivateFile {

/// Makes the file `path` with mode 0600, or gives that mode to the one that is there. Its content stays. Refuses a
/// symbolic link, anything but a regular file, another owner's file and one with further hard links.
Result<void> ensure(const char *path);

/// `ensure`, then replaces the content, in place. Content that cannot be written whole leaves the file empty.
Result<void> write(const char *path, QByteArrayView content);

} // namespace PrivateFile
