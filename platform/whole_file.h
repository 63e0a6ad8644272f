// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <optional>

/// Everything in the opened regular file, from its beginning. Nothing when it is no regular file, holds more than
/// `maxSize` bytes or none, or cannot be read. Any thread; blocks for the file system. What another process writes
/// meanwhile cannot make it read more, or twice.
std::optional<QByteArray> wholeFile(int descriptor, qsizetype maxSize);
