// SPDX-License-Identifier: MIT
#include "write_all.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <unistd.h>

namespace {

/// Holds SIGPIPE back from this thread: a write into a closed pipe raises it for the writing thread alone, so taking
/// the pending signal away again leaves every other use of SIGPIPE in the process as it was.
class PipeSignalHeldBack {
public:
    PipeSignalHeldBack()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~PipeSignalHeldBack()
    {
        const timespec atOnce{};
        if (!wasPending_)
            while (sigtimedwait(&pipe_, nullptr, &atOnce) == -1 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    PipeSignalHeldBack(const PipeSignalHeldBack &) = delete;
    PipeSignalHeldBack &operator=(const PipeSignalHeldBack &) = delete;

private:
    sigset_t pipe_{};
    sigset_t before_{};
    bool wasPending_ = false;
};

} // namespace

int writeAll(int descriptor, QByteArrayView bytes)
{
    const PipeSignalHeldBack heldBack;
    while (!bytes.isEmpty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), static_cast<size_t>(bytes.size()));
        if (written < 0 && errno != EINTR)
            return errno;
        if (written > 0)
            bytes = bytes.sliced(written);
    }
    return 0;
}
