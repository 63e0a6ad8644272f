// SPDX-License-Identifier: MIT
#include "bless_program.h"

#include "carried_files.h"
#include "descriptor.h"
#include "helper_source.h"
#include "placed_files.h"
#include "system_services.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <vector>

namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int wrongUse = 2;
constexpr unsigned longest = 180; // s; more than all the patience with bus and helper together
constexpr mode_t program = 0755;
constexpr mode_t data = 0644;

struct Placed {
    QByteArray path;
    QByteArrayView bytes;
    mode_t mode;
};

/// All that goes with the helper but what lets the bus start it.
std::vector<Placed> companions(const BlessPaths &paths)
{
    return {
        {paths.programs + "/client.up", BlessContents::clientUp(), program},
        {paths.programs + "/client.down", BlessContents::clientDown(), program},
        {paths.units + "/com.corvale.macos.helper.service", BlessContents::unit(), data},
        {paths.units + "/corvale-restore.service", BlessContents::restoringUnit(), data},
        {paths.units + "/sysinit.target.d/corvale.conf", BlessContents::restoringAtBoot(), data},
        {paths.busPolicies + "/com.corvale.macos.helper.conf", BlessContents::busPolicy(), data},
    };
}

Placed activation(const BlessPaths &paths)
{
    return {paths.busServices + "/com.corvale.macos.helper.service", BlessContents::busService(), data};
}

/// For a status: says on standard error what went wrong, if anything did.
int report(const std::vector<QByteArray> &errors)
{
    int status = done;
    for (const QByteArray &error : errors) {
        if (error.isEmpty())
            continue;
        (void)std::fprintf(stderr, "%s\n", error.constData());
        status = failed;
    }
    return status;
}

/// Whom pkexec works for, else root. Nothing for a number that is none.
std::optional<uid_t> callerInEnvironment()
{
    const char *const given = std::getenv("PKEXEC_UID");
    if (!given)
        return 0;
    bool isNumber = false;
    const uint uid = QByteArray(given).toUInt(&isNumber);
    return isNumber ? std::optional<uid_t>(uid) : std::nullopt;
}

/// Whatever hangs, a file system, a bus, whoever reads the complaints, the others wait for the lock. To be killed at
/// any point is safe.
void limitTime()
{
    const itimerval never{};
    ::setitimer(ITIMER_VIRTUAL, &never, nullptr);
    ::setitimer(ITIMER_PROF, &never, nullptr);
    (void)::signal(SIGALRM, SIG_DFL);
    ::alarm(longest);
}

/// The caller's limits would have the libraries fail in places where nobody expects it. What cannot be lifted stays.
void liftLimits()
{
    for (const auto which : {RLIMIT_AS, RLIMIT_DATA, RLIMIT_FSIZE, RLIMIT_CPU, RLIMIT_STACK}) {
        const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
        ::setrlimit(which, &none);
    }
    const rlimit files{1024, 1024};
    ::setrlimit(RLIMIT_NOFILE, &files);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
}

/// Leaves nothing of what the caller gave this process but its arguments and standard error.
bool startAfresh()
{
    // A file opened for writing must never take the place of a closed standard error.
    int descriptor = -1;
    do
        descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGPIPE, SIGXFSZ, SIGHUP, SIGINT, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU})
        (void)::signal(number, SIG_IGN);
    ::umask(S_IWGRP | S_IWOTH);
    limitTime();
    liftLimits();
    return descriptor > STDERR_FILENO && ::close_range(STDERR_FILENO + 1, ~0U, 0) == 0 && ::clearenv() == 0 &&
           ::setenv("LC_ALL", "C.UTF-8", 1) == 0 && ::chdir("/") == 0;
}

/// Held until the process ends. Root's alone: a file that others could open they could lock.
Descriptor takeLock(const BlessPaths &paths)
{
    Descriptor lock(::open(paths.lock.constData(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return lock && ::flock(lock.get(), LOCK_EX) == 0 ? std::move(lock) : Descriptor();
}

/// In an order that has the bus start a whole helper at every moment, the old one or the new one, with what it needs.
QByteArray placeAll(const BlessPaths &paths, const QByteArray &helper)
{
    std::vector<Placed> all = companions(paths);
    all.push_back({paths.helper(), helper, program});
    all.push_back(activation(paths));
    for (const Placed &file : all)
        if (QByteArray error = BlessFiles::place(file.path, file.bytes, file.mode); !error.isEmpty())
            return error;
    return {};
}

bool systemdRuns(const BlessPaths &paths)
{
    return ::access(paths.systemd.constData(), F_OK) == 0;
}

int install(const BlessPaths &paths, const QByteArray &source, uid_t caller)
{
    const auto read = BlessSource::read(source, caller);
    if (const auto *refusal = std::get_if<BlessSource::Refusal>(&read))
        return report({refusal->reason});
    const auto &helper = std::get<QByteArray>(read);
    if (const QByteArray flaw = BlessSource::flaw(helper); !flaw.isEmpty())
        return report({flaw});
    const Descriptor lock = takeLock(paths);
    if (!lock)
        return report({paths.lock + ": cannot be locked."});
    if (const QByteArray error = placeAll(paths, helper); !error.isEmpty())
        return report({error});
    BlessBus bus(paths.busAddress);
    return report({bus.reload(systemdRuns(paths)), bus.stopHelper(paths.helper())});
}

int stop(const BlessPaths &paths)
{
    const Descriptor lock = takeLock(paths);
    if (!lock)
        return report({paths.lock + ": cannot be locked."});
    return report({BlessBus(paths.busAddress).stopHelper(paths.helper())});
}

/// What was left by a helper that was killed, or by a machine that ended with the tunnel up, only the next one takes
/// back, so there has to be one more.
QByteArray cleanUp(const BlessPaths &paths, BlessBus &bus)
{
    QByteArray error = bus.stopHelper(paths.helper());
    const bool left =
        !QDir(QFile::decodeName(paths.runFolder)).isEmpty() || QFile::exists(QFile::decodeName(paths.keptResolver));
    if (error.isEmpty() && left)
        error = bus.startHelper();
    return error;
}

int remove(const BlessPaths &paths)
{
    const Descriptor lock = takeLock(paths);
    if (!lock)
        return report({paths.lock + ": cannot be locked."});
    BlessBus bus(paths.busAddress);
    // Nothing starts it any more, then it ends with the help of its script, and only then the rest may go: without them
    // name servers and routes of a tunnel could not be restored.
    std::vector<QByteArray> errors{cleanUp(paths, bus), BlessFiles::remove(activation(paths).path), bus.reload(false),
                                   bus.stopHelper(paths.helper())};
    if (const int status = report(errors); status != done)
        return status;
    errors = {BlessFiles::remove(paths.helper())};
    for (const Placed &file : companions(paths))
        errors.push_back(BlessFiles::remove(file.path));
    QDir().rmdir(QFile::decodeName(paths.units + "/sysinit.target.d")); // when nobody else has something there
    errors.push_back(bus.reload(systemdRuns(paths)));
    return report(errors);
}

} // namespace

int blessMain(int argc, char *argv[], const BlessPaths &paths)
{
    const auto caller = callerInEnvironment();
    const QByteArray argument = argc == 2 ? argv[1] : "";
    if (!startAfresh())
        return report({"The tool cannot rid itself of what it was started with."});
    // Whom pkexec lets in has agreed to an installation, and to nothing else.
    const bool isRoots = argument == "--remove" || argument == "--stop";
    if (!caller || (isRoots ? *caller != 0 : !argument.startsWith('/'))) {
        (void)std::fputs("usage: bless /PATH/OF/THE/HELPER | --remove | --stop\n", stderr);
        return wrongUse;
    }
    int words = 1;
    const QCoreApplication application(words, argv); // the bus needs it
    if (argument == "--remove")
        return remove(paths);
    return argument == "--stop" ? stop(paths) : install(paths, argument, *caller);
}
