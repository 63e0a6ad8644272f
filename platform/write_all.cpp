// SPDX-License-Identifier: MIT
#include "write_all.h"

#include <cerrno>
#include <unistd.h>

int writeAll(int descriptor, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), static_cast<size_t>(bytes.size()));
        if (written < 0 && errno != EINTR)
            return errno;
        if (written > 0)
            bytes = bytes.sliced(written);
    }
    return 0;
}
