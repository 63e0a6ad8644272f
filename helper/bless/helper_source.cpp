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

using BlessSource::Refusal;

constexpr qsizetype largestHelper = 64LL * 1024 * 1024;
constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

struct stat statusOf(const Descriptor &file)
{
    struct stat status {};
    // All zero after a failure: of no type, which nobody takes for a folder or a file.
    (void)::fstat(file.get(), &status);
    return status;
}

bool isTheirs(const struct stat &status, uid_t caller)
{
    return status.st_uid == 0 || status.st_uid == caller;
}

/// A file system that a user's program makes can call anybody the owner of anything.
bool saysWhatItsOwnerLikes(const Descriptor &file)
{
    struct statfs system {};
    return ::fstatfs(file.get(), &system) != 0 || system.f_type == FUSE_SUPER_MAGIC;
}

/// Whether the entries of the folder are such as root or the caller put there. In a sticky one each is its owner's to
/// move; the owner of the entry itself is looked at when its turn comes.
bool isSafeFolder(const struct stat &status, uid_t caller)
{
    return S_ISDIR(status.st_mode) && isTheirs(status, caller) &&
           ((status.st_mode & othersWrite) == 0 || (status.st_mode & S_ISVTX) != 0);
}

/// Goes down the path entry by entry, each from the folder opened before, so that no entry is looked up twice.
std::variant<Descriptor, Refusal> walk(const QByteArray &path, uid_t caller)
{
    if (!path.startsWith('/') || path.contains('\0'))
        return Refusal{"The helper's path is not an absolute one."};
    Descriptor at(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const QByteArray &entry : path.mid(1).split('/')) {
        if (saysWhatItsOwnerLikes(at))
            return Refusal{"The helper lies in a file system that a user makes."};
        if (entry.isEmpty() || entry == "." || entry == "..")
            return Refusal{"The helper's path takes turns."};
        if (!isSafeFolder(statusOf(at), caller))
            return Refusal{"The helper lies in a folder that is not yours alone."};
        // A link is opened as what it is, and then is neither folder nor file.
        at = Descriptor(::openat(at.get(), entry.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!at)
            return Refusal{QByteArray("The helper cannot be opened: ") + std::strerror(errno) + '.'};
    }
    if (saysWhatItsOwnerLikes(at))
        return Refusal{"The helper lies in a file system that a user makes."};
    return at;
}

QByteArray flawOfFile(const struct stat &status, uid_t caller)
{
    if (!S_ISREG(status.st_mode))
        return "The helper is not a regular file.";
    if (!isTheirs(status, caller))
        return "The helper is somebody else's file.";
    if ((status.st_mode & othersWrite) != 0)
        return "Others can write to the helper.";
    if (status.st_nlink != 1 && status.st_uid != 0) // some systems link equal files of root's to each other
        return "The helper's file has further names.";
    return {};
}

bool isSame(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

} // namespace

std::variant<QByteArray, Refusal> BlessSource::read(const QByteArray &path, uid_t caller)
{
    const auto walked = walk(path, caller);
    if (const auto *refusal = std::get_if<Refusal>(&walked))
        return *refusal;
    const auto &found = std::get<Descriptor>(walked);
    const struct stat before = statusOf(found);
    if (const QByteArray flaw = flawOfFile(before, caller); !flaw.isEmpty())
        return Refusal{flaw};
    // Only now is it opened for what it holds, and by no name that could mean another file.
    const QByteArray itself = "/proc/self/fd/" + QByteArray::number(found.get());
    const Descriptor file(::open(itself.constData(), O_RDONLY | O_CLOEXEC));
    const auto bytes = wholeFile(file.get(), largestHelper);
    if (!bytes)
        return Refusal{"The helper cannot be read, or is empty or too large."};
    if (const struct stat after = statusOf(file); !isSame(before.st_ctim, after.st_ctim))
        return Refusal{"The helper changed while it was read."};
    return *bytes;
}

QByteArray BlessSource::flaw(const QByteArray &helper)
{
    ElfW(Ehdr) header{};
    std::memcpy(&header, helper.constData(), std::min(sizeof header, static_cast<size_t>(helper.size())));
    // Up to the version: width and byte order.
    if (std::memcmp(header.e_ident, ownHeader.e_ident, EI_OSABI) != 0 || header.e_machine != ownHeader.e_machine ||
        (header.e_type != ET_DYN && header.e_type != ET_EXEC))
        return "The file is not a program for this machine.";
    const auto identifier = InfoDictionary::text(helper, "CFBundleIdentifier");
    if (identifier != QLatin1String(HelperNames::service))
        return "The file is not this product's helper.";
    if (InfoDictionary::text(helper, "CFBundleVersion").value_or(QString()).isEmpty())
        return "The helper has no version.";
    return {};
}
