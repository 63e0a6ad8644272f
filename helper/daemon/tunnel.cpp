// SPDX-License-Identifier: MIT
#include "tunnel.h"

#include "openvpn_command.h"
#include "placed_file.h"
#include "process_record.h"
#include "remote_addresses.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr size_t maxWaiting = 16;
constexpr auto reloadInterval = 100ms;

/// Makes the folder with mode 0700 if it is missing. False unless it is then a real folder of this user's own with that
/// mode.
bool makeFolder(const QByteArray &path)
{
    ::mkdir(path.constData(), S_IRWXU);
    struct stat status {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           ::chmod(path.constData(), S_IRWXU) == 0;
}

} // namespace

Tunnel::Tunnel(HelperPaths paths, const Timeouts &timeouts) : paths_(std::move(paths)), timeouts_(timeouts)
{
    end_.setSingleShot(true);
    end_.setInterval(timeouts.end);
    connect(&end_, &QTimer::timeout, this, [this] { process_->killAll(); });
    reloading_.setInterval(reloadInterval);
    connect(&reloading_, &QTimer::timeout, this, [this] { process_->signal(SIGHUP); });
    retry_.setSingleShot(true);
    retry_.setInterval(timeouts.retry);
    connect(&retry_, &QTimer::timeout, this, &Tunnel::restore);
}

Tunnel::~Tunnel() = default;

void Tunnel::begin()
{
    if (QDir(QFile::decodeName(paths_.runFolder)).isEmpty() && !isLeft())
        return;
    ProcessRecord::killLeftover(paths_.processRecord(), timeouts_.leftover);
    restore();
}

void Tunnel::run(uid_t uid, const QByteArray &configuration, Handler handler)
{
    const bool idle = phase_ == Phase::Idle;
    if (!makeFolder(paths_.runFolder) || !PlacedFile::write(paths_.configuration(), configuration, 0600)) {
        handler(failure("The configuration cannot be stored.", ErrorCode::Internal));
        return;
    }
    looksUpNames_ = !configuration.startsWith(RemoteAddresses::beforehand);
    retry_.stop(); // client.up begins by restoring, too
    owner_ = uid;
    waiting_.push_back(std::move(handler));
    dropOldest();
    if (idle) {
        start();
        return;
    }
    ++unread_;
    if (phase_ == Phase::Running) {
        recover();
        reload();
    }
}

/// Most clients that asked have quit since. Their number must not grow for as long as a tunnel lives.
void Tunnel::dropOldest()
{
    if (waiting_.size() <= maxWaiting)
        return;
    const Handler oldest = std::move(waiting_.front());
    waiting_.erase(waiting_.begin());
    unread_ = std::min(unread_, waiting_.size() - 1); // the newest is counted by the caller
    oldest(failure("Too many requests wait for the end of this tunnel.", ErrorCode::Busy));
}

void Tunnel::start()
{
    unread_ = 0;
    wasRead_ = false;
    reloadWhenRead_ = false;
    auto gate = GateProcess::start(*owner_, paths_.management());
    if (!gate) {
        fail(gate.error());
        return;
    }
    gate_.reset(gate->release());
    connect(gate_.get(), &GateProcess::ended, this, &Tunnel::gateEnded);
    watch_ = std::make_unique<ReadWatch>(paths_.runFolder, HelperPaths::configurationName);
    connect(watch_.get(), &ReadWatch::wasRead, this, &Tunnel::configurationWasRead);
    auto started = ChildProcess::start(openvpnCommand(paths_));
    if (!started) {
        fail({ErrorCode::Internal, "OpenVPN cannot be started: " + started.error().detail});
        return;
    }
    process_.reset(started->release());
    phase_ = Phase::Running;
    connect(process_.get(), &ChildProcess::ended, this, &Tunnel::openvpnEnded);
    recover();
    // Without the note OpenVPN still dies with the helper: the kernel sees to it.
    ProcessRecord::write(paths_.processRecord(), process_->pid());
}

/// From now on the tunnel comes back by itself after a change of network or a sleep.
void Tunnel::recover()
{
    recovery_.reset(new Recovery(paths_.clientUp, looksUpNames_));
    connect(gate_.get(), &GateProcess::stateChanged, recovery_.get(), &Recovery::stateChanged);
    connect(gate_.get(), &GateProcess::remoteChanged, recovery_.get(), &Recovery::remoteChanged);
    connect(recovery_.get(), &Recovery::restartNeeded, this, [this] {
        if (phase_ == Phase::Running)
            process_->signal(SIGUSR1);
    });
    connect(recovery_.get(), &Recovery::reloadNeeded, this, [this] {
        if (phase_ == Phase::Running)
            reload();
    });
}

/// Has OpenVPN read its file again, as soon as it has read the present one: SIGHUP would kill an OpenVPN that has not
/// read its first file, and nobody could tell whether a read begun before saw the old file or the new one.
void Tunnel::reload()
{
    if (!watch_->isWatching()) {
        // The kernel has no watches left, so nobody would learn what OpenVPN has read. A fresh one replaces it.
        endOpenVPN();
        return;
    }
    if (!wasRead_ || reloading_.isActive()) {
        reloadWhenRead_ = true;
        return;
    }
    // OpenVPN ignores the signal while it reads its file and for some milliseconds after, so one may be lost.
    process_->signal(SIGHUP);
    reloading_.start();
}

void Tunnel::configurationWasRead()
{
    wasRead_ = true;
    reloading_.stop();
    if (std::exchange(reloadWhenRead_, false))
        reload();
    else
        unread_ = 0;
}

void Tunnel::endOpenVPN()
{
    phase_ = Phase::Stopping;
    reloading_.stop();
    reloadWhenRead_ = false;
    // A file that OpenVPN reads from now on serves no request: it is for the next OpenVPN.
    watch_.reset();
    recovery_.reset();
    process_->signal(SIGTERM);
    end_.start();
}

void Tunnel::openvpnEnded(int status)
{
    if (gate_)
        gate_->finish();
    end_.stop();
    reloading_.stop();
    status_ = status;
    watch_.reset();
    recovery_.reset();
    restore();
}

/// Whether the name servers are still the tunnel's, such as those in a file on a full disk.
bool Tunnel::isLeft() const
{
    return QFile::exists(QFile::decodeName(paths_.dnsNote())) || QFile::exists(QFile::decodeName(paths_.keptResolver));
}

/// OpenVPN has run the script itself unless it was killed. A second run then finds nothing to do.
void Tunnel::restore()
{
    phase_ = Phase::Restoring;
    process_.reset();
    auto started = ChildProcess::start({paths_.clientDown});
    if (!started) {
        restored();
        return;
    }
    process_.reset(started->release());
    connect(process_.get(), &ChildProcess::ended, this, &Tunnel::restored);
    end_.start();
}

void Tunnel::restored()
{
    end_.stop();
    process_.reset();
    QFile::remove(QFile::decodeName(paths_.processRecord()));
    QFile::remove(QFile::decodeName(paths_.management())); // a killed OpenVPN leaves its socket
    if (!gate_)
        complete();
}

/// A tunnel without its gate could neither be watched nor ended by its client.
void Tunnel::gateEnded()
{
    gate_.reset();
    if (phase_ == Phase::Running)
        endOpenVPN();
    else if (phase_ == Phase::Restoring && !process_)
        complete();
}

/// The script has run, the gate has ended, and the port is free.
void Tunnel::complete()
{
    // Whoever gets an answer finds everything cleaned up.
    if (unread_ == 0)
        becomeIdle();
    answerServed();
    // A request that came after the one to stop is served now; who asked to stop does not wait for its end.
    if (unread_ > 0)
        start();
    tellStopped();
}

void Tunnel::answerServed()
{
    const auto served = static_cast<std::ptrdiff_t>(waiting_.size() - unread_);
    std::vector<Handler> now(waiting_.begin(), waiting_.begin() + served);
    waiting_.erase(waiting_.begin(), waiting_.begin() + served);
    for (const Handler &handler : now)
        handler(status_);
}

void Tunnel::fail(const Error &error)
{
    process_.reset();
    if (gate_)
        gate_->disconnect(this); // it is killed now, which is no news
    gate_.reset();
    watch_.reset();
    becomeIdle();
    for (const Handler &handler : std::exchange(waiting_, {}))
        handler(tl::make_unexpected(error));
    tellStopped();
}

void Tunnel::becomeIdle()
{
    phase_ = Phase::Idle;
    owner_.reset();
    QFile::remove(QFile::decodeName(paths_.configuration()));
    if (isLeft())
        retry_.start();
}

void Tunnel::tellStopped()
{
    for (const auto &done : std::exchange(stops_, {}))
        done();
}

void Tunnel::stop(std::function<void()> done)
{
    if (phase_ == Phase::Idle) {
        done();
        return;
    }
    stops_.push_back(std::move(done));
    // Requests that wait for a fresh OpenVPN get this one's end.
    unread_ = 0;
    if (phase_ == Phase::Running)
        endOpenVPN();
}
