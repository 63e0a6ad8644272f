// SPDX-License-Identifier: MIT
#include "child_process.h"

#include "pidfd.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace {

constexpr int firstGiven = 3;

// Below, what runs in the child until it is another program: only calls that are safe after a fork of a process with
// threads.

void resetSignals()
{
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        ::sigaction(number, &standard, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Leaves the standard descriptors, then the given ones, then `failure`, and nothing else. Each number in `given` is
/// overwritten.
bool replaceDescriptors(std::vector<int> &given, int &failure)
{
    const int last = firstGiven + static_cast<int>(given.size());
    // Above every number that is taken below, so that none overwrites another.
    for (int &each : given)
        each = ::fcntl(each, F_DUPFD_CLOEXEC, last + 1);
    const int kept = ::fcntl(failure, F_DUPFD_CLOEXEC, last + 1);
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (kept < 0 || nothing < 0)
        return false;
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
        // dup2 onto itself would leave the close-on-exec mark.
        if (nothing == standard ? ::fcntl(standard, F_SETFD, 0) < 0 : ::dup2(nothing, standard) < 0)
            return false;
    }
    if (::dup3(kept, last, O_CLOEXEC) < 0)
        return false;
    failure = last;
    for (int next = firstGiven; next < last; ++next)
        if (::dup2(given[static_cast<size_t>(next - firstGiven)], next) < 0)
            return false;
    return ::close_range(static_cast<unsigned>(last) + 1, ~0U, 0) == 0;
}

[[noreturn]] void childMain(char *const *arguments, char *const *environment, pid_t parent, std::vector<int> &given,
                            int failure)
{
    resetSignals();
    ::umask(S_IRWXG | S_IRWXO);
    // To end with the helper, and in good order: killed, OpenVPN would leave its routes behind. The parent may have
    // died before the request was made.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && ::getppid() == parent && ::setsid() > 0 && ::chdir("/") == 0 &&
        replaceDescriptors(given, failure))
        ::execve(arguments[0], arguments, environment);
    const int error = errno;
    const ssize_t told = ::write(failure, &error, sizeof error);
    ::_exit(told == sizeof error ? 126 : 127);
}

// Above, what runs in the child.

} // namespace

Result<std::unique_ptr<ChildProcess>> ChildProcess::start(const QList<QByteArray> &command, std::vector<int> given)
{
    // Only read by execve, whose type says otherwise for the sake of old C.
    std::vector<char *> arguments;
    for (const QByteArray &word : command)
        arguments.push_back(const_cast<char *>(word.constData()));
    arguments.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char *const environment[] = {path, locale, nullptr};

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return systemFailure(errno);
    const Descriptor failed(ends[0]);
    Descriptor failing(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0)
        childMain(arguments.data(), environment, parent, given, failing.get());
    if (child < 0)
        return systemFailure(errno);
    failing.close();
    Descriptor handle(::pidfd_open(child, 0));
    int error = handle ? 0 : errno;
    if (!handle)
        ::kill(child, SIGKILL);
    // The end of the pipe is the program's beginning.
    else if (::read(failed.get(), &error, sizeof error) != sizeof error)
        error = 0;
    if (error == 0)
        return std::unique_ptr<ChildProcess>(new ChildProcess(child, std::move(handle)));
    ::waitpid(child, nullptr, 0);
    return systemFailure(error);
}

ChildProcess::ChildProcess(pid_t pid, Descriptor handle) : pid_(pid), handle_(std::move(handle))
{
    auto *const notifier = new QSocketNotifier(handle_.get(), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
        notifier->setEnabled(false);
        reap();
    });
}

ChildProcess::~ChildProcess()
{
    if (reaped_)
        return;
    killAll();
    ::waitpid(pid_, nullptr, 0);
}

void ChildProcess::signal(int number) const
{
    ::pidfd_send_signal(handle_.get(), number, nullptr, 0);
}

void ChildProcess::killAll() const
{
    // Safe by number: until it is reaped, the number is nobody else's.
    if (!reaped_)
        ::kill(-pid_, SIGKILL);
}

void ChildProcess::reap()
{
    // A script of a killed OpenVPN must not go on beside the one that cleans up.
    killAll();
    int status = 0;
    ::waitpid(pid_, &status, 0);
    reaped_ = true;
    constexpr int signalBase = 128;
    emit ended(WIFSIGNALED(status) ? signalBase + WTERMSIG(status) : WEXITSTATUS(status));
}
