// SPDX-License-Identifier: MIT
#include "placed_files.h"

#include "descriptor.h"
#include "write_all.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

/// Beside it, and with an ending that neither the bus nor systemd reads.
QByteArray freshName(const QByteArray &path)
{
    return path + ".bless";
}

QByteArray folderOf(const QByteArray &path)
{
    return path.left(path.lastIndexOf('/'));
}

/// 0 or an errno, as for the rest of these.
int unlinkIfThere(const QByteArray &path)
{
    return ::unlink(path.constData()) == 0 || errno == ENOENT ? 0 : errno;
}

int syncFolder(const QByteArray &path)
{
    const Descriptor folder(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::fsync(folder.get()) == 0 ? 0 : errno;
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

QByteArray sentence(const QByteArray &path, int error)
{
    return error == 0 ? QByteArray() : path + ": " + std::strerror(error) + '.';
}

} // namespace

QByteArray BlessFiles::place(const QByteArray &path, QByteArrayView bytes, mode_t mode)
{
    const QByteArray fresh = freshName(path);
    QDir().mkpath(QFile::decodeName(folderOf(path)));
    int error = unlinkIfThere(fresh);
    if (error == 0)
        error = writeFresh(fresh, bytes, mode);
    if (error == 0 && ::rename(fresh.constData(), path.constData()) != 0)
        error = errno;
    if (error == 0)
        return sentence(path, syncFolder(folderOf(path)));
    (void)unlinkIfThere(fresh);
    return sentence(path, error);
}

QByteArray BlessFiles::remove(const QByteArray &path)
{
    const int left = unlinkIfThere(freshName(path));
    const int error = unlinkIfThere(path);
    return sentence(path, error != 0 ? error : left);
}
