// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <sys/types.h>
#include <variant>

/// The file that somebody wants to have run as root from now on. What cannot be told to be theirs, and ours, is
/// refused.
namespace BlessSource {

/// One sentence for a person; it quotes nothing of the file.
struct Refusal {
    QByteArray reason;
};

/// The bytes of the file at the absolute `path`, read once. Refused are a path with a link in it or through a folder in
/// which others than root and `caller` could have put another entry, and all but a regular file of one of the two,
/// with one name, that nobody else can write to and that does not change meanwhile. Blocks for the file system.
std::variant<QByteArray, Refusal> read(const QByteArray &path, uid_t caller);

/// Nothing when the bytes are a helper for this machine with our identifier and a version; else why not.
QByteArray flaw(const QByteArray &helper);

} // namespace BlessSource
