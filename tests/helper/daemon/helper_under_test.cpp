// SPDX-License-Identifier: MIT
// The helper with the paths and timeouts (milliseconds) of its command line in the place of the system's. With one word
// more the kernel has no watches for it.

#include "helper_program.h"

#include <cerrno>
#include <cstdlib>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
bool watchesAreUsedUp = false;
}

/// In the place of the C library's.
int inotify_init1(int flags) noexcept
{
    if (!watchesAreUsedUp)
        return static_cast<int>(::syscall(SYS_inotify_init1, flags));
    errno = EMFILE;
    return -1;
}

int main(int argc, char *argv[])
{
    if (argc < 9)
        return 2;
    watchesAreUsedUp = argc > 9;
    const auto span = [argv](int number) { return std::chrono::milliseconds(std::atoi(argv[number])); };
    return helperMain(argc, argv, {argv[1], argv[2], argv[3], argv[4], argv[5]},
                      {span(6), {span(7), span(8), span(8)}});
}
