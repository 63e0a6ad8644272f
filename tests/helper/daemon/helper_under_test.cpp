// SPDX-License-Identifier: MIT
// The helper with the folder and timeouts (milliseconds) of its command line in the place of the system's. One word
// more makes something go wrong: "unwatched", the kernel has no watches for it; "halves", its reading child breaks off.

#include "gate_main.h"
#include "helper_program.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
const char *mishap = "";
}

/// In the place of the C library's.
int inotify_init1(int flags) noexcept
{
    if (std::strcmp(mishap, "unwatched") != 0)
        return static_cast<int>(::syscall(SYS_inotify_init1, flags));
    errno = EMFILE;
    return -1;
}

/// Likewise. The child writes the content of a file to descriptor 3.
ssize_t write(int descriptor, const void *bytes, size_t size)
{
    constexpr int pipe = 3;
    constexpr size_t headersSize = 32;
    const bool breaksOff = descriptor == pipe && size > headersSize && std::strcmp(mishap, "halves") == 0;
    const long written = ::syscall(SYS_write, descriptor, bytes, breaksOff ? size / 2 : size);
    if (breaksOff)
        ::_exit(1);
    return written;
}

int main(int argc, char *argv[])
{
    if (isGate(argc, argv))
        return gateMain(argc, argv);
    if (argc < 4)
        return EXIT_FAILURE;
    if (argc > 4)
        mishap = argv[4];
    constexpr unsigned testTimeout = 100; // seconds; what a test that was itself killed leaves ends then
    ::alarm(testTimeout);
    const auto span = [argv](int number) { return std::chrono::milliseconds(std::atoi(argv[number])); };
    const QByteArray in = QByteArray(argv[1]) + '/';
    return helperMain(argc, argv, {in + "openvpn", in + "client.up", in + "client.down", in + "run", in + "kept"},
                      {span(2), {span(3), span(3), std::chrono::milliseconds(100)}});
}
