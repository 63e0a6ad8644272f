// SPDX-License-Identifier: MIT
#include "recovery.h"

#include <utility>

namespace {

// What client.up ends with.
constexpr int changed = 3;
constexpr int noWay = 4;

} // namespace

Recovery::Recovery(QByteArray script, bool looksUpNames, std::chrono::milliseconds connectTimeout)
    : script_(std::move(script)), looksUpNames_(looksUpNames)
{
    connecting_.setSingleShot(true);
    connecting_.setInterval(connectTimeout);
    connect(&connecting_, &QTimer::timeout, this, &Recovery::startOver);
    connect(&watch_, &NetworkWatch::changed, this, &Recovery::networkChanged);
    connect(&watch_, &NetworkWatch::woke, this, [this] {
        restartAnyway_ = hasConnected_;
        networkChanged();
    });
}

void Recovery::stateChanged(const QByteArray &name)
{
    state_ = name;
    if (name == "CONNECTED") {
        hasConnected_ = true;
        restartAnyway_ = false;
        connecting_.stop();
        look();
    } else if (name == "EXITING") {
        hasConnected_ = false;
        connecting_.stop();
    } else if (hasConnected_ && looksUpNames_) {
        startOver();
    }
}

void Recovery::remoteChanged(const QByteArray &address)
{
    remote_ = address;
    if (hasConnected_ && state_ != "CONNECTED")
        look();
}

void Recovery::networkChanged()
{
    if (!hasConnected_)
        return;
    hasChanged_ = true;
    look();
}

void Recovery::look()
{
    if (looking_) {
        lookAgain_ = true;
        return;
    }
    auto started = ChildProcess::start({script_, "again", remote_});
    if (!started)
        return;
    looking_.reset(started->release());
    connect(looking_.get(), &ChildProcess::ended, this,
            [this, had = std::exchange(hasChanged_, false)](int verdict) { looked(verdict, had); });
}

void Recovery::looked(int verdict, bool networkHasChanged)
{
    looking_.reset();
    if (verdict == noWay) {
        connecting_.stop();
    } else if (hasConnected_) {
        // A TCP connection that was begun before its route was mended has the tunnel's address.
        const bool isOfNoUse = networkHasChanged || state_ == "TCP_CONNECT";
        if (std::exchange(restartAnyway_, false) || (verdict == changed && isOfNoUse))
            restart();
    }
    if (std::exchange(lookAgain_, false))
        look();
}

void Recovery::restart()
{
    if (looksUpNames_) {
        startOver();
        return;
    }
    connecting_.start();
    emit restartNeeded();
}

/// What comes is like the first start.
void Recovery::startOver()
{
    connecting_.stop();
    hasConnected_ = false;
    emit reloadNeeded();
}
