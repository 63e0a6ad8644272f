// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

/// Files that only the user may read. Any thread; blocks for the file system. Each returns 0 or an errno.
namespace PrivateFile {

/// Makes the file `path` with mode 0600, or gives that mode to the one that is there. Its content stays. Refused are a
/// symbolic link, what is no regular file, another owner's file and one with further hard links.
int ensure(const char *path);

/// `ensure`, then replaces the content, in place. Content that cannot be written whole leaves the file empty.
int write(const char *path, QByteArrayView content);

} // namespace PrivateFile
