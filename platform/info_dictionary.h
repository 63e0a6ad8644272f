// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>
#include <QString>

#include <optional>

/// The information property list that an executable carries in itself, in its section `.info_plist`. The file is read,
/// never run.
namespace InfoDictionary {

/// The text under `key`, exactly as it stands there, in the list of the executable with these bytes. Nothing when they
/// are no executable, or one without such a list, or the key is missing or holds no text. Any thread; no I/O; made for
/// hostile bytes, of which it allocates no more than a few copies of a small section.
std::optional<QString> text(QByteArrayView executable, const char *key);

/// The same for the file `path`, which must be a regular one of a helper's size: a pipe or a device is not waited for.
/// Any thread; blocks for the file system.
std::optional<QString> textInFile(const QString &path, const char *key);

} // namespace InfoDictionary
