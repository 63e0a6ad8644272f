// SPDX-License-Identifier: MIT
#include "blessing.h"

#include <QByteArray>
#include <QFile>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// pkexec's own; the tool that it starts ends with neither.
constexpr int dismissed = 126;
constexpr int notAuthorized = 127;

/// How a child is started that gets nothing of this process but a place for its complaints.
class Spawning {
public:
    explicit Spawning(int complaints)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, complaints, STDERR_FILENO);
        sigset_t set;
        posix_spawnattr_init(&attributes_);
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&attributes_, &set);
        sigfillset(&set);
        posix_spawnattr_setsigdefault(&attributes_, &set);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Spawning()
    {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Spawning(const Spawning &) = delete;
    Spawning &operator=(const Spawning &) = delete;

    /// 0 or an errno.
    int start(pid_t *child, char *const *arguments) const
    {
        // pkexec refuses to work where it finds an environment that it does not like.
        std::array<char, 32> path{"PATH=/usr/sbin:/usr/bin"};
        const std::array<char *, 2> environment{path.data(), nullptr};
        return posix_spawn(child, arguments[0], &actions_, &attributes_, arguments, environment.data());
    }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

/// What is written into the pipe until its last writer is gone; of a long text the beginning.
QByteArray everything(int pipe)
{
    constexpr qsizetype kept = 2000;
    QByteArray all;
    std::array<char, 1024> piece{};
    for (;;) {
        const ssize_t got = ::read(pipe, piece.data(), piece.size());
        if (got == 0 || (got < 0 && errno != EINTR))
            return all.left(kept).simplified();
        if (got > 0 && all.size() < kept)
            all.append(piece.data(), got);
    }
}

std::optional<QString> failure(int status, const QString &complaint)
{
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return std::nullopt;
    QString text = u"The tool that installs the helper ended with status %1."_s.arg(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        text = u"The tool that installs the helper was ended by signal %1."_s.arg(WTERMSIG(status));
    else if (WEXITSTATUS(status) == dismissed)
        text = u"pkexec: the person who was asked for a password cancelled."_s;
    else if (WEXITSTATUS(status) == notAuthorized)
        text = u"pkexec may not, or cannot, run the tool that installs the helper."_s;
    return complaint.isEmpty() ? text : text + u" It said: "_s + complaint;
}

} // namespace

std::optional<QString> Blessing::SMJobBless(const QString &helper, const Programs &programs)
{
    std::array<QByteArray, 4> words{QFile::encodeName(programs.pkexec), "--disable-internal-agent",
                                    QFile::encodeName(programs.bless), QFile::encodeName(helper)};
    std::array<char *, words.size() + 1> arguments{};
    for (size_t i = 0; i < words.size(); ++i)
        arguments[i] = words[i].data();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    pid_t child = -1;
    const int error = Spawning(ends[1]).start(&child, arguments.data());
    ::close(ends[1]);
    if (error != 0) {
        ::close(ends[0]);
        return programs.pkexec + u": "_s + QString::fromLocal8Bit(std::strerror(error));
    }
    const QString complaint = QString::fromUtf8(everything(ends[0]));
    ::close(ends[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return u"Whether the helper is installed is not known: "_s + QString::fromLocal8Bit(std::strerror(errno));
    return failure(status, complaint);
}
