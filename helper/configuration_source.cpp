#include "configuration_source.h"

#include "descriptor.h"
#include "pidfd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr uid_t nobody = 65534;

/// What the child found; the first byte of its answer.
enum class Found : char { File, Nothing, NoRights, NotRegular, NotOwn, Linked, WritableByOthers, TooLarge, Broken };

const char *sentenceOf(Found found)
{
    switch (found) {
    case Found::Nothing: return "cannot be opened in the caller's name.";
    case Found::NotRegular: return "is not a regular file.";
    case Found::NotOwn: return "does not belong to the caller.";
    case Found::Linked: return "has more than one link.";
    case Found::WritableByOthers: return "can be written by other users.";
    case Found::TooLarge: return "is too large.";
    case Found::File:
    case Found::NoRights:
    case Found::Broken: break;
    }
    return "cannot be read.";
}

struct Job {
    const ConfigurationSource::Caller &caller;
    const char *path;
    ConfigurationSource::Ownership ownership;
    char *buffer; ///< holds one byte more than allowed
    size_t most;
};

// Below, what runs in the child: only calls that are safe after a fork of a process with threads. The system calls are
// made directly because the C library would have all threads take part in a change of user.

bool becomeCaller(const ConfigurationSource::Caller &caller)
{
    return ::syscall(SYS_setgroups, caller.groups.size(), caller.groups.data()) == 0 &&
           ::syscall(SYS_setresgid, caller.gid, caller.gid, caller.gid) == 0 &&
           ::syscall(SYS_setresuid, caller.uid, caller.uid, caller.uid) == 0;
}

Found judge(const struct stat &status, const Job &job)
{
    if (!S_ISREG(status.st_mode))
        return Found::NotRegular;
    if (job.ownership == ConfigurationSource::Ownership::Own) {
        if (status.st_uid != job.caller.uid)
            return Found::NotOwn;
        if (status.st_nlink != 1)
            return Found::Linked;
        if (status.st_mode & (S_IWGRP | S_IWOTH))
            return Found::WritableByOthers;
    }
    return static_cast<size_t>(status.st_size) > job.most ? Found::TooLarge : Found::File;
}

Found readInto(const Job &job, size_t &length)
{
    // The wish to die with the helper ends with a change of user, so it comes after it.
    if (!becomeCaller(job.caller) || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        return Found::NoRights;
    const int file = ::open(job.path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || ::fstat(file, &status) != 0)
        return Found::Nothing;
    if (const Found found = judge(status, job); found != Found::File)
        return found;
    while (length <= job.most) {
        const ssize_t got = ::read(file, job.buffer + length, job.most + 1 - length);
        if (got < 0)
            return Found::Broken;
        if (got == 0)
            return Found::File;
        length += static_cast<size_t>(got);
    }
    return Found::TooLarge;
}

[[noreturn]] void childMain(const Job &job, int answer)
{
    // A child that hangs in a caller's file system must hold nothing of the helper's: the bus would take its copy of
    // the socket for a helper that still lives.
    constexpr int kept = 3;
    if (::dup2(answer, kept) < 0 || ::close_range(kept + 1, ~0U, 0) != 0)
        ::_exit(1);
    answer = kept;
    size_t length = 0;
    const auto found = static_cast<char>(readInto(job, length));
    if (::write(answer, &found, 1) != 1)
        ::_exit(1);
    for (size_t sent = 0; found == static_cast<char>(Found::File) && sent < length;) {
        const ssize_t written = ::write(answer, job.buffer + sent, length - sent);
        if (written < 0)
            ::_exit(1);
        sent += static_cast<size_t>(written);
    }
    ::_exit(0);
}

// Above, what runs in the child.

/// Everything up to the end of the pipe, or nothing when that does not come in time.
std::optional<QByteArray> collect(int pipe, Clock::time_point deadline)
{
    QByteArray all;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        pollfd watched{pipe, POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(std::max<milliseconds::rep>(left, 0)));
        if (ready == 0 || (ready < 0 && errno != EINTR))
            return std::nullopt;
        char piece[16384];
        const ssize_t got = ready < 0 ? 1 : ::read(pipe, piece, sizeof piece);
        if (got <= 0)
            return got == 0 ? std::optional(all) : std::nullopt;
        if (ready > 0)
            all.append(piece, got);
    }
}

/// Ends and buries the child. One that hangs in its file system is left for a later call: it must not hang the helper.
void bury(pid_t child)
{
    static std::vector<pid_t> dying;
    ::kill(child, SIGKILL);
    const Descriptor process(::pidfd_open(child, 0));
    pollfd watched{process.get(), POLLIN, 0};
    constexpr int deathLasts = 100; // ms
    ::poll(&watched, 1, deathLasts);
    dying.push_back(child);
    std::erase_if(dying, [](pid_t one) { return ::waitpid(one, nullptr, WNOHANG) != 0; });
}

} // namespace

ConfigurationSource::Caller ConfigurationSource::callerOf(uid_t uid)
{
    const passwd *const entry = ::getpwuid(uid); // the helper has one thread that asks
    if (!entry)
        return {uid, nobody, {}};
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    while (::getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0)
        groups.resize(static_cast<size_t>(count));
    groups.resize(static_cast<size_t>(count));
    return {uid, entry->pw_gid, groups};
}

std::variant<QByteArray, ConfigurationSource::Unreadable>
ConfigurationSource::read(const Caller &caller, const QByteArray &path, Ownership ownership, qsizetype most)
{
    if (!path.startsWith('/') || path.contains('\0'))
        return Unreadable{"is not named by an absolute path."};
    QByteArray buffer(most + 1, Qt::Uninitialized);
    const Job job{caller, path.constData(), ownership, buffer.data(), static_cast<size_t>(most)};
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return Unreadable{sentenceOf(Found::Broken)};
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const auto deadline = Clock::now() + limit;
    const pid_t child = ::fork();
    if (child == 0)
        childMain(job, writing.get());
    writing.close();
    if (child < 0)
        return Unreadable{sentenceOf(Found::Broken)};
    const auto answer = collect(reading.get(), deadline);
    bury(child);
    if (!answer)
        return Unreadable{"was not read in time."};
    if (answer->isEmpty() || answer->front() != static_cast<char>(Found::File))
        return Unreadable{sentenceOf(answer->isEmpty() ? Found::Broken : static_cast<Found>(answer->front()))};
    return answer->sliced(1);
}
