// SPDX-License-Identifier: MIT
#include "whole_file.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

std::optional<QByteArray> wholeFile(int descriptor, qsizetype maxSize)
{
    struct stat found {};
    if (::fstat(descriptor, &found) != 0 || !S_ISREG(found.st_mode) || found.st_size <= 0 || found.st_size > maxSize)
        return std::nullopt;
    QByteArray bytes(found.st_size, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got =
            ::pread(descriptor, bytes.data() + filled, static_cast<size_t>(bytes.size() - filled), filled);
        if (got == 0 || (got < 0 && errno != EINTR))
            return std::nullopt; // it became shorter, or cannot be read
        filled += got > 0 ? got : 0;
    }
    return bytes;
}
