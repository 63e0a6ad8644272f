// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

/// The user's defaults, text entries that outlive the process: `Corvale/Corvale.conf` in the user's configuration
/// folder, readable by the user alone. Main thread; each operation blocks for the file system.
namespace UserDefaults {

/// The text stored under `key`, or none.
std::optional<QString> stringForKey(const QString &key);

/// Stores all entries, or none when the file cannot be written: that is one line in the system log.
void setStrings(const QMap<QString, QString> &entries);

/// Removes the entries, all or none, likewise. A key without an entry is no failure.
void removeKeys(const QStringList &keys);

} // namespace UserDefaults
