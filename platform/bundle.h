// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// The application's bundle, `…/Corvale.app`, found from where the running executable lies
/// (`Contents/MacOS/Corvale`), whatever the working folder and through links. Any thread; reads the file system.
namespace Bundle {

/// The bundle's folder without a trailing slash, or the empty text when the executable lies in no bundle.
QString location();

/// The path of the file `name` in `Contents/Resources`, or the empty text when there is none.
QString pathForResource(const QString &name);

} // namespace Bundle
