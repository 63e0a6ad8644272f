// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/// Files for root's eyes alone.
namespace RootFile {

/// Makes the folder with mode 0700 if it is missing. False unless it is then a real folder of this user's own with
/// that mode.
bool makeFolder(const QByteArray &path);

} // namespace RootFile
