// SPDX-License-Identifier: MIT
#include "placed_file.h"

#include "descriptor.h"
#include "write_all.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

/// In the same folder, so that it can be renamed. Its ending is one that neither the bus nor systemd reads.
QByteArray freshName(const QByteArray &path)
{
    return path + ".new";
}

// The following return 0 or an errno.

int unlinkIfThere(const QByteArray &path)
{
    return ::unlink(path.constData()) == 0 || errno == ENOENT ? 0 : errno;
}

int writeFresh(const QByteArray &path, QByteArrayView bytes, mode_t mode)
{
    const Descriptor file(::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IWUSR));
    if (!file)
        return errno;
    if (const int error = writeAll(file.get(), bytes); error != 0)
        return error;
    return ::fchmod(file.get(), mode) == 0 && ::fsync(file.get()) == 0 ? 0 : errno;
}

int syncFolderOf(const QByteArray &path)
{
    const QByteArray name = path.left(path.lastIndexOf('/'));
    const Descriptor folder(::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::fsync(folder.get()) == 0 ? 0 : errno;
}

Result<void> outcome(int error, const QByteArray &path)
{
    if (error != 0)
        return systemFailure(error, path);
    return {};
}

} // namespace

Result<void> PlacedFile::write(const QByteArray &path, QByteArrayView bytes, mode_t mode)
{
    const QByteArray fresh = freshName(path);
    int error = unlinkIfThere(fresh);
    if (error == 0)
        error = writeFresh(fresh, bytes, mode);
    if (error == 0 && ::rename(fresh.constData(), path.constData()) != 0)
        error = errno;
    if (error == 0)
        return outcome(syncFolderOf(path), path);
    (void)unlinkIfThere(fresh);
    return outcome(error, path);
}

Result<void> PlacedFile::remove(const QByteArray &path)
{
    const int left = unlinkIfThere(freshName(path));
    const int error = unlinkIfThere(path);
    return outcome(error != 0 ? error : left, path);
}
