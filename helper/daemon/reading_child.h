// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <sys/types.h>
#include <vector>

/// The process that opens a caller's files: forked from the helper, it gives up root for good and then lives for these
/// files alone. It tells what it found through a pipe, one `Header` and the file's bytes for each.
namespace ReadingChild {

struct Caller {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

enum class Ownership {
    Own, ///< the caller's own file: one link, writable by nobody else
    Any, ///< whatever the caller may read
};

struct Wanted {
    QByteArray path;
    Ownership ownership;
    qsizetype maxSize; ///< bytes
};

enum class Found : int {
    File,
    NotAbsolute,
    Nothing,
    NoRights,
    NotRegular,
    NotOwn,
    Linked,
    WritableByOthers,
    TooLarge,
    Broken,
    Missing ///< never told by the child, which ended before
};

struct Header {
    Found found;
    size_t length; ///< of the bytes that follow; none unless `found` is a file
};

/// Starts the process, which writes to `pipe`. Returns its number, or -1.
pid_t fork(const Caller &caller, const std::vector<Wanted> &wanted, int pipe);

} // namespace ReadingChild
