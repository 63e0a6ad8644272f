// SPDX-License-Identifier: MIT
#include "private_file.h"

#include "descriptor.h"
#include "write_all.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t ownerOnly = 0600;

/// An errno, or 0 for a file that is the caller's own.
int refusal(int descriptor)
{
    struct stat found {};
    if (::fstat(descriptor, &found) != 0)
        return errno;
    if (!S_ISREG(found.st_mode))
        return EINVAL;
    if (found.st_uid != ::geteuid())
        return EPERM;
    return found.st_nlink == 1 ? 0 : EMLINK;
}

/// Runs `use`, which returns 0 or an errno, on the opened file once that is known to be the caller's own.
template <typename Use>
Result<void> withFile(const char *path, Use use)
{
    // Nothing is truncated, and a pipe's missing reader not waited for, before it is known what was opened.
    Descriptor file(::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, ownerOnly));
    int error = file ? refusal(file.get()) : errno;
    if (error == 0 && ::fchmod(file.get(), ownerOnly) != 0)
        error = errno;
    if (error == 0)
        error = use(file.get());
    if (!file.close() && error == 0)
        error = errno;
    if (error != 0)
        return systemFailure(error);
    return {};
}

} // namespace

Result<void> PrivateFile::ensure(const char *path)
{
    return withFile(path, [](int) { return 0; });
}

Result<void> PrivateFile::write(const char *path, QByteArrayView content)
{
    return withFile(path, [content](int descriptor) {
        const int error = ::ftruncate(descriptor, 0) == 0 ? writeAll(descriptor, content) : errno;
        // Half a content may pass for a whole one: of a configuration, what says whom to trust could be missing.
        return error != 0 && ::ftruncate(descriptor, 0) != 0 ? errno : error;
    });
}
