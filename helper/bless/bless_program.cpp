// SPDX-License-Identifier: MIT
#include "bless_program.h"

#include "descriptor.h"
#include "helper_source.h"
#include "placed_file.h"
#include "system_services.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QResource>

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

using namespace Qt::StringLiterals;

namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int wrongUse = 2;
constexpr unsigned timeout = 180; // s; longer than all the timeouts for bus and helper together
constexpr mode_t program = 0755;
constexpr mode_t data = 0644;

struct Target {
    QByteArray path;
    QByteArray bytes;
    mode_t mode;
};

/// A file that the tool carries inside itself: it reads no file but the helper.
QByteArray carried(const char *name)
{
    return QResource(u":/carried/"_s + QLatin1String(name)).uncompressedData();
}

/// Everything that goes with the helper, except the file that lets the bus start it.
std::vector<Target> companions(const TargetPaths &paths)
{
    return {
        {paths.programs + "/client.up", carried("client.up"), program},
        {paths.programs + "/client.down", carried("client.down"), program},
        {paths.units + "/com.corvale.macos.helper.service", carried("systemd.service"), data},
        {paths.units + "/corvale-restore.service", carried("corvale-restore.service"), data},
        {paths.units + "/sysinit.target.d/corvale.conf", carried("sysinit.target.conf"), data},
        {paths.busPolicies + "/com.corvale.macos.helper.conf", carried("bus-policy.conf"), data},
    };
}

Target activation(const TargetPaths &paths)
{
    return {paths.busServices + "/com.corvale.macos.helper.service", carried("bus.service"), data};
}

/// Says on standard error what went wrong. Returns the exit status.
int report(const std::vector<Result<void>> &results)
{
    int status = done;
    for (const auto &result : results) {
        if (result)
            continue;
        (void)std::fprintf(stderr, "%s\n", result.error().detail.constData());
        status = failed;
    }
    return status;
}

/// The user that pkexec works for, else root. Returns nothing when the variable is not a number.
std::optional<uid_t> callerInEnvironment()
{
    const char *const given = std::getenv("PKEXEC_UID");
    if (!given)
        return 0;
    bool isNumber = false;
    const uint uid = QByteArray(given).toUInt(&isNumber);
    return isNumber ? std::optional<uid_t>(uid) : std::nullopt;
}

/// Something may hang: a file system, the bus, the reader of standard error. Other runs wait for the lock meanwhile,
/// so this one is killed then, which is safe at any point.
void limitTime()
{
    const itimerval never{};
    ::setitimer(ITIMER_VIRTUAL, &never, nullptr);
    ::setitimer(ITIMER_PROF, &never, nullptr);
    (void)::signal(SIGALRM, SIG_DFL);
    ::alarm(timeout);
}

/// Under the caller's limits, libraries would fail in places where nobody expects it. A limit that cannot be lifted
/// stays.
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

/// Drops everything that the caller gave this process, except its arguments and standard error.
bool startAfresh()
{
    // A file that is opened later must never become standard error, if that was closed.
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

/// Blocks until no other tool works; held until the process ends. Only root may open the file, since whoever can open
/// it can lock it.
Result<Descriptor> takeLock(const TargetPaths &paths)
{
    Descriptor lock(::open(paths.lock.constData(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!lock || ::flock(lock.get(), LOCK_EX) != 0)
        return systemFailure(errno, paths.lock);
    return lock;
}

/// In an order such that the bus can start a whole helper, old or new, with what it needs, at every moment.
Result<void> placeAll(const TargetPaths &paths, const QByteArray &helper)
{
    std::vector<Target> all = companions(paths);
    all.push_back({paths.helper(), helper, program});
    all.push_back(activation(paths));
    for (const Target &file : all) {
        QDir().mkpath(QFile::decodeName(file.path.left(file.path.lastIndexOf('/'))));
        if (auto placed = PlacedFile::write(file.path, file.bytes, file.mode); !placed)
            return placed;
    }
    return {};
}

bool systemdRuns(const TargetPaths &paths)
{
    return ::access(paths.systemd.constData(), F_OK) == 0;
}

int install(const TargetPaths &paths, const QByteArray &helper)
{
    if (const auto placed = placeAll(paths, helper); !placed)
        return report({placed});
    SystemServices services(paths.busAddress);
    return report({services.reload(systemdRuns(paths)), services.stopHelper(paths.helper())});
}

/// Only a helper takes back what was left by one that was killed, or by a machine that ended with the tunnel up. So one
/// more has to start when something was left.
Result<void> restore(const TargetPaths &paths, SystemServices &services)
{
    auto stopped = services.stopHelper(paths.helper());
    const bool left =
        !QDir(QFile::decodeName(paths.runFolder)).isEmpty() || QFile::exists(QFile::decodeName(paths.keptResolver));
    return stopped && left ? services.startHelper() : stopped;
}

int remove(const TargetPaths &paths)
{
    SystemServices services(paths.busAddress);
    // First nothing may start the helper any more, then it ends with the help of its script. Only then the rest may go:
    // name servers and routes of a tunnel cannot be restored without it.
    if (const int status = report({restore(paths, services), PlacedFile::remove(activation(paths).path),
                                   services.reload(false), services.stopHelper(paths.helper())});
        status != done)
        return status;
    std::vector<Result<void>> results{PlacedFile::remove(paths.helper())};
    for (const Target &file : companions(paths))
        results.push_back(PlacedFile::remove(file.path));
    QDir().rmdir(QFile::decodeName(paths.units + "/sysinit.target.d")); // stays while it holds another file
    results.push_back(services.reload(systemdRuns(paths)));
    return report(results);
}

/// Reads the helper before it waits for the lock, so that a wrong one is refused at once.
int run(const TargetPaths &paths, const QByteArray &argument, uid_t caller)
{
    const bool installs = argument.startsWith('/');
    const auto helper = installs ? HelperSource::read(argument, caller) : QByteArray();
    if (!helper)
        return report({tl::make_unexpected(helper.error())});
    const auto lock = takeLock(paths);
    if (!lock)
        return report({tl::make_unexpected(lock.error())});
    if (installs)
        return install(paths, *helper);
    if (argument == "--remove")
        return remove(paths);
    return report({SystemServices(paths.busAddress).stopHelper(paths.helper())});
}

} // namespace

int blessMain(int argc, char *argv[], const TargetPaths &paths)
{
    const auto caller = callerInEnvironment();
    const QByteArray argument = argc == 2 ? argv[1] : "";
    if (!startAfresh())
        return report({failure("The tool cannot drop what its caller gave it.")});
    Q_INIT_RESOURCE(carried_files);
    // A person who typed a password for pkexec has agreed to an installation and to nothing else.
    const bool isRoots = argument == "--remove" || argument == "--stop";
    if (!caller || (isRoots ? *caller != 0 : !argument.startsWith('/'))) {
        (void)std::fputs("usage: bless /PATH/OF/THE/HELPER | --remove | --stop\n", stderr);
        return wrongUse;
    }
    int words = 1;
    const QCoreApplication application(words, argv); // the bus needs it
    return run(paths, argument, *caller);
}
