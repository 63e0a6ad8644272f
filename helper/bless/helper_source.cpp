// SPDX-License-Identifier: MIT
#include "helper_source.h"

#include "descriptor.h"
#include "helper_protocol.h"
#include "info_dictionary.h"
#include "whole_file.h"

#include <QList>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

/// This very program's own header, as it lies in memory.
extern const ElfW(Ehdr) ownHeader asm("__ehdr_start");

namespace {

constexpr qsizetype maxHelper = 64LL * 1024 * 1024;
constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

/// All zero after a failure: of no type, so that nobody takes it for a folder or a file.
struct stat statusOf(const Descriptor &file)
{
    struct stat status {};
    (void)::fstat(file.get(), &status);
    return status;
}

bool isTheirs(const struct stat &status, uid_t caller)
{
    return status.st_uid == 0 || status.st_uid == caller;
}

/// Whether a user's program makes the file system: it can name anybody as the owner of anything.
bool isMadeByUser(const Descriptor &file)
{
    struct statfs system {};
    return ::fstatfs(file.get(), &system) != 0 || system.f_type == FUSE_SUPER_MAGIC;
}

/// Whether only root or the caller could have put the next entry there. In a sticky folder only its owner can move an
/// entry, and the owner of that entry is checked when its turn comes.
bool isSafeFolder(const struct stat &status, uid_t caller)
{
    return S_ISDIR(status.st_mode) && isTheirs(status, caller) &&
           ((status.st_mode & othersWrite) == 0 || (status.st_mode & S_ISVTX) != 0);
}

/// Opens the path entry by entry, each from the folder opened before, so that no entry is looked up twice.
Result<Descriptor> walk(const QByteArray &path, uid_t caller)
{
    if (!path.startsWith('/') || path.contains('\0'))
        return failure("The helper's path is not an absolute one.");
    Descriptor at(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const QByteArray &entry : path.mid(1).split('/')) {
        if (isMadeByUser(at))
            return failure("The helper lies in a file system that a user makes.");
        if (entry.isEmpty() || entry == "." || entry == "..")
            return failure("The helper's path takes turns.");
        if (!isSafeFolder(statusOf(at), caller))
            return failure("The helper lies in a folder that is not yours alone.");
        // A link is opened itself, not followed, and then is neither a folder nor a file.
        at = Descriptor(::openat(at.get(), entry.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!at)
            return systemFailure(errno, "The helper cannot be opened");
    }
    if (isMadeByUser(at))
        return failure("The helper lies in a file system that a user makes.");
    return at;
}

Result<void> checkFile(const struct stat &status, uid_t caller)
{
    if (!S_ISREG(status.st_mode))
        return failure("The helper is not a regular file.");
    if (!isTheirs(status, caller))
        return failure("The helper is somebody else's file.");
    if ((status.st_mode & othersWrite) != 0)
        return failure("Others can write to the helper.");
    if (status.st_nlink != 1 && status.st_uid != 0) // some systems link equal files of root's to each other
        return failure("The helper's file has further names.");
    return {};
}

bool isSame(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// Whether the bytes are a helper for this machine, with our identifier and a version.
Result<void> checkHelper(const QByteArray &helper)
{
    ElfW(Ehdr) header{};
    std::memcpy(&header, helper.constData(), std::min(sizeof header, static_cast<size_t>(helper.size())));
    // Up to the version: width and byte order.
    if (std::memcmp(header.e_ident, ownHeader.e_ident, EI_OSABI) != 0 || header.e_machine != ownHeader.e_machine ||
        (header.e_type != ET_DYN && header.e_type != ET_EXEC))
        return failure("The file is not a program for this machine.");
    if (InfoDictionary::text(helper, "CFBundleIdentifier") != QLatin1String(HelperNames::service))
        return failure("The file is not this product's helper.");
    if (InfoDictionary::text(helper, "CFBundleVersion").value_or(QString()).isEmpty())
        return failure("The helper has no version.");
    return {};
}

} // namespace

Result<QByteArray> HelperSource::read(const QByteArray &path, uid_t caller)
{
    const auto found = walk(path, caller);
    if (!found)
        return tl::make_unexpected(found.error());
    const struct stat before = statusOf(*found);
    if (const auto checked = checkFile(before, caller); !checked)
        return tl::make_unexpected(checked.error());
    // It is opened for reading only now, and not by a name that could mean another file.
    const QByteArray itself = "/proc/self/fd/" + QByteArray::number(found->get());
    const Descriptor file(::open(itself.constData(), O_RDONLY | O_CLOEXEC));
    auto bytes = wholeFile(file.get(), maxHelper);
    if (!bytes)
        return failure("The helper cannot be read, or is empty or too large.");
    if (const struct stat after = statusOf(file); !isSame(before.st_ctim, after.st_ctim))
        return failure("The helper changed while it was read.");
    if (const auto checked = checkHelper(*bytes); !checked)
        return tl::make_unexpected(checked.error());
    return *std::move(bytes);
}
