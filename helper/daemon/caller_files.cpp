// SPDX-License-Identifier: MIT
#include "caller_files.h"

#include "pidfd.h"

#include <QSocketNotifier>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <utility>

using namespace std::chrono_literals;
using ReadingChild::Found;
using ReadingChild::Header;

namespace {

constexpr uid_t nobody = 65534;
constexpr auto readTimeout = 2s;
constexpr auto endTimeout = 100ms;

const char *sentenceOf(Found found)
{
    switch (found) {
    case Found::NotAbsolute: return "is not named by an absolute path.";
    case Found::Nothing: return "cannot be opened in the caller's name.";
    case Found::NotRegular: return "is not a regular file.";
    case Found::NotOwn: return "does not belong to the caller.";
    case Found::Linked: return "has more than one link.";
    case Found::WritableByOthers: return "can be written by other users.";
    case Found::TooLarge: return "is too large.";
    case Found::File:
    case Found::NoRights:
    case Found::Broken:
    case Found::Missing: break;
    }
    return "cannot be read.";
}

} // namespace

ReadingChild::Caller CallerFiles::callerOf(uid_t uid)
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

CallerFiles::CallerFiles(const ReadingChild::Caller &caller, std::vector<ReadingChild::Wanted> wanted)
    : wanted_(std::move(wanted))
{
    for (const ReadingChild::Wanted &file : wanted_)
        maxBytes_ += file.maxSize + static_cast<qsizetype>(sizeof(Header));
    timeout_.setSingleShot(true);
    connect(&timeout_, &QTimer::timeout, this, &CallerFiles::tooLate);
    startChild(caller);
    if (child_ > 0)
        timeout_.start(readTimeout);
    else // later, because nobody is connected to the signal yet
        QMetaObject::invokeMethod(this, &CallerFiles::finish, Qt::QueuedConnection);
}

/// Leaves a child that hangs to the machine's first process. The child holds nothing of the helper's.
CallerFiles::~CallerFiles()
{
    if (child_ <= 0)
        return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, WNOHANG);
}

void CallerFiles::startChild(const ReadingChild::Caller &caller)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return;
    pipe_ = Descriptor(ends[0]);
    const Descriptor writing(ends[1]);
    ::fcntl(pipe_.get(), F_SETFL, O_NONBLOCK);
    child_ = ReadingChild::fork(caller, wanted_, writing.get());
    if (child_ < 0)
        return;
    process_ = Descriptor(::pidfd_open(child_, 0));
    if (!process_) {
        ::kill(child_, SIGKILL);
        ::waitpid(std::exchange(child_, -1), nullptr, 0);
        return;
    }
    auto *const readable = new QSocketNotifier(pipe_.get(), QSocketNotifier::Read, this);
    connect(readable, &QSocketNotifier::activated, this, [this, readable] {
        takeBytes();
        readable->setEnabled(!ended_);
    });
}

void CallerFiles::takeBytes()
{
    char piece[16384];
    ssize_t got = 0;
    while (bytes_.size() <= maxBytes_ && (got = ::read(pipe_.get(), piece, sizeof piece)) > 0)
        bytes_.append(piece, got);
    if (bytes_.size() > maxBytes_)
        got = 0; // the child never says so much
    if (!ended_ && (got == 0 || (errno != EAGAIN && errno != EINTR)))
        finish();
}

void CallerFiles::tooLate()
{
    if (ended_) {
        emit hangs();
        return;
    }
    late_ = true;
    finish();
}

/// Reports what has arrived. `reap` follows when the child has ended.
void CallerFiles::finish()
{
    ended_ = true;
    if (child_ > 0) {
        ::kill(child_, SIGKILL);
        timeout_.start(endTimeout);
        auto *const dead = new QSocketNotifier(process_.get(), QSocketNotifier::Read, this);
        connect(dead, &QSocketNotifier::activated, this, [this, dead] {
            dead->setEnabled(false);
            reap();
        });
    }
    emit read(results());
    if (child_ <= 0)
        emit gone();
}

void CallerFiles::reap()
{
    timeout_.stop();
    ::waitpid(std::exchange(child_, -1), nullptr, 0);
    emit gone();
}

std::vector<CallerFiles::File> CallerFiles::results() const
{
    const char *const missing = late_ ? "was not read in time." : sentenceOf(Found::Broken);
    std::vector<File> files;
    QByteArrayView left = bytes_;
    while (files.size() < wanted_.size()) {
        Header header{Found::Missing, 0};
        if (left.size() >= static_cast<qsizetype>(sizeof header)) {
            std::memcpy(&header, left.data(), sizeof header);
            left = left.sliced(sizeof header);
        }
        const bool whole = header.length <= static_cast<size_t>(left.size());
        const auto length = whole ? static_cast<qsizetype>(header.length) : left.size();
        if (header.found == Found::File && whole)
            files.emplace_back(left.first(length).toByteArray());
        else
            files.emplace_back(failure(header.found == Found::Missing || !whole ? missing : sentenceOf(header.found)));
        left = left.sliced(length);
    }
    return files;
}
