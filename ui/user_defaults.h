// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

/// The user's defaults: text entries in `Corvale/Corvale.conf` in the user's configuration folder. Only the user can
/// read the file. Main thread; each operation blocks for the file system.
namespace UserDefaults {

/// The text under `key`, or none.
std::optional<QString> stringForKey(const QString &key);

/// Stores all entries. When the file cannot be written it stores none, and the system log gets one line.
void setStrings(const QMap<QString, QString> &entries);

/// Removes the entries with these keys, and fails like `setStrings`. A key without an entry is no failure.
void removeKeys(const QStringList &keys);

} // namespace UserDefaults
