// SPDX-License-Identifier: MIT
#include "root_file.h"

#include <sys/stat.h>
#include <unistd.h>

bool RootFile::makeFolder(const QByteArray &path)
{
    ::mkdir(path.constData(), S_IRWXU);
    struct stat status {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           ::chmod(path.constData(), S_IRWXU) == 0;
}
