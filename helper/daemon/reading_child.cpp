// SPDX-License-Identifier: MIT
#include "reading_child.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace ReadingChild;

namespace {

// What runs in the child: only calls that are safe after a fork of a process with threads. The system calls are made
// directly where the C library would have all threads take part in a change of user.

bool becomeCaller(const Caller &caller)
{
    // A change of user resets the signal at the parent's death and may make the memory dumpable. The caller must not
    // get a core dump of the helper's memory.
    return ::syscall(SYS_setgroups, caller.groups.size(), caller.groups.data()) == 0 &&
           ::syscall(SYS_setresgid, caller.gid, caller.gid, caller.gid) == 0 &&
           ::syscall(SYS_setresuid, caller.uid, caller.uid, caller.uid) == 0 &&
           ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::prctl(PR_SET_DUMPABLE, 0) == 0;
}

Found judge(const struct stat &status, const Wanted &wanted, uid_t caller)
{
    if (!S_ISREG(status.st_mode))
        return Found::NotRegular;
    if (wanted.ownership == Ownership::Own) {
        if (status.st_uid != caller)
            return Found::NotOwn;
        if (status.st_nlink != 1)
            return Found::Linked;
        if (status.st_mode & (S_IWGRP | S_IWOTH))
            return Found::WritableByOthers;
    }
    return status.st_size > wanted.maxSize ? Found::TooLarge : Found::File;
}

/// `buffer` has room for one byte more than is wanted.
Header readInto(char *buffer, const Wanted &wanted, uid_t caller)
{
    if (!wanted.path.startsWith('/'))
        return {Found::NotAbsolute, 0};
    const int file = ::open(wanted.path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || ::fstat(file, &status) != 0)
        return {Found::Nothing, 0};
    if (const Found found = judge(status, wanted, caller); found != Found::File)
        return {found, 0};
    const auto maxSize = static_cast<size_t>(wanted.maxSize);
    for (size_t length = 0; length <= maxSize;) {
        const ssize_t got = ::read(file, buffer + length, maxSize + 1 - length);
        if (got < 0)
            return {Found::Broken, 0};
        if (got == 0)
            return {Found::File, length};
        length += static_cast<size_t>(got);
    }
    return {Found::TooLarge, 0};
}

bool tell(int pipe, const void *bytes, size_t length)
{
    for (size_t sent = 0; sent < length;) {
        const ssize_t written = ::write(pipe, static_cast<const char *>(bytes) + sent, length - sent);
        if (written < 0)
            return false;
        sent += static_cast<size_t>(written);
    }
    return true;
}

[[noreturn]] void childMain(const Caller &caller, const std::vector<Wanted> &wanted, char *buffer, int pipe)
{
    // The child may hang in the caller's file system for ever. With a copy of the bus's socket it would look to the bus
    // like a helper that still lives.
    constexpr int kept = 3;
    if (::dup2(pipe, kept) < 0 || ::close_range(kept + 1, ~0U, 0) != 0)
        ::_exit(1);
    // As the caller's process it takes signals from the caller. Only SIGSTOP and SIGKILL cannot be blocked.
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    const bool isCaller = becomeCaller(caller);
    for (const Wanted &file : wanted) {
        const Header header = isCaller ? readInto(buffer, file, caller.uid) : Header{Found::NoRights, 0};
        if (!tell(kept, &header, sizeof header) || !tell(kept, buffer, header.length))
            ::_exit(1);
    }
    ::_exit(0);
}

} // namespace

pid_t ReadingChild::fork(const Caller &caller, const std::vector<Wanted> &wanted, int pipe)
{
    qsizetype maxSize = 0;
    for (const Wanted &file : wanted)
        maxSize = std::max(maxSize, file.maxSize);
    QByteArray buffer(maxSize + 1, Qt::Uninitialized);
    const pid_t child = ::fork();
    if (child == 0)
        childMain(caller, wanted, buffer.data(), pipe);
    return child;
}
