// SPDX-License-Identifier: MIT
#include "root_file.h"

#include "descriptor.h"
#include "write_all.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

bool RootFile::makeFolder(const QByteArray &path)
{
    ::mkdir(path.constData(), S_IRWXU);
    struct stat status {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           ::chmod(path.constData(), S_IRWXU) == 0;
}

bool RootFile::write(const QByteArray &path, const QByteArray &bytes)
{
    const QByteArray fresh = path + ".new";
    ::unlink(fresh.constData());
    const Descriptor file(::open(fresh.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file && writeAll(file.get(), bytes) == 0 && ::rename(fresh.constData(), path.constData()) == 0)
        return true;
    ::unlink(fresh.constData());
    return false;
}
