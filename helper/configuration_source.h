#pragma once

#include <QByteArray>

#include <chrono>
#include <sys/types.h>
#include <variant>
#include <vector>

/// Files that a caller names, read with no more rights than the caller has.
namespace ConfigurationSource {

struct Caller {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

/// The user with the system's groups for it; without an entry in the user database, one that is in no group.
Caller callerOf(uid_t uid);

enum class Ownership {
    Own, ///< the caller's own file: one link, writable by nobody else
    Any, ///< whatever the caller may read
};

/// Why a file was not read: the end of a sentence that begins with what the file is.
struct Unreadable {
    QByteArray why;
};

constexpr qsizetype maxConfiguration = 256 * 1024; ///< bytes
constexpr std::chrono::seconds limit{2};           ///< a file system of the caller's own may never answer

/// The bytes of the regular file at `path`, read once, at most `most` of them, by a child process that has the caller's
/// user and groups. Follows no link in the last step of the path. Blocks for `limit` at the most.
std::variant<QByteArray, Unreadable> read(const Caller &caller, const QByteArray &path, Ownership ownership,
                                          qsizetype most);

} // namespace ConfigurationSource
