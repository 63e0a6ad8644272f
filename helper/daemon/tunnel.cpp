// SPDX-License-Identifier: MIT
#include "tunnel.h"

#include "openvpn_command.h"
#include "placed_file.h"
#include "process_record.h"
#include "root_file.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr size_t mostAnswers = 16;
constexpr auto reloadAgain = 100ms;

HelperError internal(const QByteArray &sentence)
{
    return {HelperError::Kind::Internal, sentence};
}

} // namespace

Tunnel::Tunnel(HelperPaths paths, const HelperLimits &limits) : paths_(std::move(paths)), status_(128 + SIGTERM)
{
    patience_.setSingleShot(true);
    patience_.setInterval(limits.ending);
    connect(&patience_, &QTimer::timeout, this, [this] { process_->killAll(); });
    reloading_.setInterval(reloadAgain);
    connect(&reloading_, &QTimer::timeout, this, [this] { process_->signal(SIGHUP); });
    again_.setSingleShot(true);
    again_.setInterval(limits.again);
    connect(&again_, &QTimer::timeout, this, &Tunnel::restore);
}

Tunnel::~Tunnel() = default;

void Tunnel::begin()
{
    if (QDir(QFile::decodeName(paths_.runFolder)).isEmpty() && !isLeft())
        return;
    ProcessRecord::killLeftover(paths_.processRecord());
    restore();
}

void Tunnel::run(uid_t uid, const QByteArray &configuration, Answer answer)
{
    const bool idle = phase_ == Phase::Idle;
    if (idle && !managementPortIsFree()) {
        answer(HelperError{HelperError::Kind::PortBusy, "Another program uses port 1337 on 127.0.0.1."});
        return;
    }
    if (!RootFile::makeFolder(paths_.runFolder) || !PlacedFile::write(paths_.configuration(), configuration, 0600)) {
        answer(internal("The configuration cannot be stored."));
        return;
    }
    again_.stop(); // client.up begins by restoring, too
    owner_ = uid;
    answers_.push_back(std::move(answer));
    dropOldest();
    if (idle) {
        start();
        return;
    }
    ++unread_;
    if (phase_ == Phase::Running)
        reload();
}

/// The clients that asked have mostly quit since; their number must not grow for as long as a tunnel lives.
void Tunnel::dropOldest()
{
    if (answers_.size() <= mostAnswers)
        return;
    const Answer oldest = std::move(answers_.front());
    answers_.erase(answers_.begin());
    unread_ = std::min(unread_, answers_.size() - 1); // the newest is counted by the caller
    oldest(HelperError{HelperError::Kind::Busy, "Too many requests wait for the end of this tunnel."});
}

void Tunnel::start()
{
    unread_ = 0;
    wasRead_ = false;
    reloadWhenRead_ = false;
    if (!managementPortIsFree()) {
        fail({HelperError::Kind::PortBusy, "Another program uses port 1337 on 127.0.0.1."});
        return;
    }
    watch_ = std::make_unique<ReadWatch>(paths_.runFolder, HelperPaths::configurationName);
    connect(watch_.get(), &ReadWatch::wasRead, this, &Tunnel::configurationWasRead);
    process_ = ChildProcess::start(openvpnCommand(paths_));
    if (!process_) {
        fail(internal("OpenVPN cannot be started: " +
                      QByteArray::fromStdString(std::generic_category().message(errno))));
        return;
    }
    phase_ = Phase::Running;
    connect(process_.get(), &ChildProcess::ended, this, &Tunnel::openvpnEnded);
    // Without the note OpenVPN still dies with the helper: the kernel sees to it.
    ProcessRecord::write(paths_.processRecord(), process_->pid());
}

/// Has OpenVPN read its file again. It must have read what it is reading: before its first file it would die of the
/// signal, and whether it saw the old file or the new one could not be told.
void Tunnel::reload()
{
    if (!watch_->isWatching()) {
        // The kernel has no watches left, so nobody would learn what OpenVPN reads: another one takes its place.
        phase_ = Phase::Stopping;
        process_->signal(SIGTERM);
        patience_.start();
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

void Tunnel::openvpnEnded(int status)
{
    patience_.stop();
    reloading_.stop();
    status_ = status;
    watch_.reset();
    restore();
}

/// Whether the name servers are still the tunnel's, such as those in a file on a full disk.
bool Tunnel::isLeft() const
{
    return QFile::exists(QFile::decodeName(paths_.dnsNote())) || QFile::exists(QFile::decodeName(paths_.keptResolver));
}

/// OpenVPN has run the script itself unless it was killed; a second run finds nothing to do.
void Tunnel::restore()
{
    phase_ = Phase::Restoring;
    // Deferred because this may be called from a signal of that very object.
    if (process_)
        process_.release()->deleteLater();
    process_ = ChildProcess::start({paths_.clientDown});
    if (!process_) {
        restored();
        return;
    }
    connect(process_.get(), &ChildProcess::ended, this, &Tunnel::restored);
    patience_.start();
}

void Tunnel::restored()
{
    patience_.stop();
    if (process_)
        process_.release()->deleteLater();
    QFile::remove(QFile::decodeName(paths_.processRecord()));
    // Whoever gets an answer finds everything cleaned up.
    if (unread_ == 0)
        becomeIdle();
    answerServed();
    // A request that came after the one to stop is served too, but nobody waits for its end.
    const auto stops = std::exchange(stops_, {});
    if (unread_ > 0)
        start();
    for (const auto &done : stops)
        done();
}

void Tunnel::answerServed()
{
    const auto served = static_cast<std::ptrdiff_t>(answers_.size() - unread_);
    std::vector<Answer> now(answers_.begin(), answers_.begin() + served);
    answers_.erase(answers_.begin(), answers_.begin() + served);
    for (const Answer &answer : now)
        answer(status_);
}

void Tunnel::fail(const HelperError &error)
{
    process_.reset();
    watch_.reset();
    becomeIdle();
    for (const Answer &answer : std::exchange(answers_, {}))
        answer(error);
    tellStopped();
}

void Tunnel::becomeIdle()
{
    phase_ = Phase::Idle;
    owner_.reset();
    QFile::remove(QFile::decodeName(paths_.configuration()));
    if (isLeft())
        again_.start();
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
    // Whoever waits for a tunnel that was to follow gets the end of this one.
    unread_ = 0;
    reloadWhenRead_ = false;
    reloading_.stop();
    if (phase_ != Phase::Running)
        return;
    phase_ = Phase::Stopping;
    // What it reads from now on serves nobody: a later request's file is for the next one.
    watch_.reset();
    process_->signal(SIGTERM);
    patience_.start();
}
