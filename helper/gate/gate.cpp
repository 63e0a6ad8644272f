// SPDX-License-Identifier: MIT
#include "gate.h"

#include "local_peer.h"
#include "management_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <utility>

using namespace std::chrono_literals;
using ManagementText::Verdict;

namespace {

constexpr size_t maxWaiting = 8;
constexpr auto lastWords = 2s; // for a side that does not read
constexpr auto withoutHelper = 15s;
constexpr auto firstPause = 2ms; // OpenVPN listens some 10 ms after its start
constexpr auto longestPause = 100ms;

} // namespace

Gate::Gate(Descriptor listener, Descriptor control, uid_t owner, const sockaddr_un &openvpn, Rooms rooms)
    : listener_(std::move(listener)),
      control_(std::move(control)),
      owner_(owner),
      address_(openvpn),
      secrets_(rooms.secrets),
      toClient_(rooms.toClient)
{
}

void Gate::run()
{
    while (!isDone())
        step();
}

bool Gate::isDone() const
{
    return !control_ && (phase_ == Phase::Idle || Clock::now() >= leaveAt_);
}

int Gate::timeout() const
{
    const auto due =
        std::min({strangers_.due(), connectAt_, leaveAt_,
                  openvpn_ ? secrets_.credentials.due(phase_ == Phase::Served && !clientAnswered_) : Credentials::never,
                  phase_ == Phase::Finishing || phase_ == Phase::Left ? clientUntil_ : Clock::time_point::max()});
    if (due == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
    return static_cast<int>(std::clamp(left, 0ms, 60'000ms).count());
}

/// A descriptor that is closed has number -1, which poll(2) leaves alone.
void Gate::step()
{
    const bool room = secrets_.fromClient.left() > 0;
    const bool hears = phase_ == Phase::Served && room;
    const auto wish = [](bool in, bool out) { return static_cast<short>((in ? POLLIN : 0) | (out ? POLLOUT : 0)); };
    std::vector<pollfd> watched{
        {control_.get(), POLLIN, 0},
        {listener_.get(), POLLIN, 0},
        {openvpn_.get(), wish(true, !secrets_.toOpenVPN.isEmpty()), 0},
        {client_.get(), wish(hears, !toClient_.isEmpty()), 0},
    };
    strangers_.watch(watched);
    if (::poll(watched.data(), watched.size(), timeout()) < 0)
        return;
    act(watched);
    beOnTime();
}

void Gate::act(const std::vector<pollfd> &shown)
{
    // Whom each entry is about does not change before its turn: what replaces a client or OpenVPN comes last.
    constexpr short gone = POLLHUP | POLLERR;
    strangers_.read(&shown[4]);
    if (shown[2].revents & POLLOUT)
        sendToOpenVPN();
    if (shown[3].revents & POLLOUT)
        sendToClient();
    if (shown[3].revents & (POLLIN | gone) && phase_ == Phase::Served)
        hearClient();
    else if (shown[3].revents & gone && phase_ == Phase::Finishing)
        toClient_.clear();
    if (shown[2].revents & (POLLIN | gone))
        hearOpenVPN();
    if (shown[0].revents)
        hearHelper();
    if (shown[1].revents)
        accept();
}

void Gate::beOnTime()
{
    const auto now = Clock::now();
    judgeLines();
    if (now >= connectAt_)
        connect();
    if (openvpn_ && now >= secrets_.credentials.due(phase_ == Phase::Served && !clientAnswered_))
        secrets_.credentials.giveAgain(now, [this](QByteArrayView line) { secrets_.toOpenVPN.append(line); });
    const bool late = now >= clientUntil_;
    if (phase_ == Phase::Served && toClient_.isTooMuch())
        endClient();
    if (phase_ == Phase::Finishing && (toClient_.isEmpty() || late))
        endClient();
    if (phase_ == Phase::Left && ((secrets_.toOpenVPN.isEmpty() && secrets_.fromClient.isEmpty()) || late))
        endClient();
}

/// The helper says nothing; it closes its end, or has died.
void Gate::hearHelper()
{
    char nothing = 0;
    if (const ssize_t got = ::recv(control_.get(), &nothing, 1, MSG_DONTWAIT); got > 0 || (got < 0 && errno == EAGAIN))
        return;
    // Whoever has connected hears of the end, too.
    for (size_t i = 0; i < maxWaiting; ++i)
        accept();
    control_.close();
    listener_.close(); // the next helper may need the port at once
    leaveAt_ = Clock::now() + withoutHelper;
    strangers_.clear();
    for (const Descriptor &each : std::exchange(waiting_, {}))
        Strangers::tellEnd(each.get(), "ended");
    connectAt_ = Clock::time_point::max();
    if (!openvpn_)
        openvpnEnded();
}

void Gate::accept()
{
    Descriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client)
        return;
    const auto user = LocalPeer::holder(client.get());
    if (!user || (*user != owner_ && *user != 0))
        strangers_.turnAway(std::move(client));
    else if (phase_ == Phase::Idle)
        serve(std::move(client));
    else if (waiting_.size() < maxWaiting)
        waiting_.push_back(std::move(client));
}

/// A new connection of OpenVPN's for each client: its messages are off again, and what it asks for is asked once more.
void Gate::serve(Descriptor client)
{
    closeOpenVPN();
    client_ = std::move(client);
    phase_ = Phase::Served;
    clientAnswered_ = false;
    searched_ = 0;
    connect();
}

void Gate::endClient()
{
    client_.close();
    toClient_.clear();
    secrets_.fromClient.clear();
    closeOpenVPN();
    phase_ = Phase::Idle;
    if (!control_)
        return;
    if (waiting_.empty()) {
        sayOwn();
        connect();
        return;
    }
    Descriptor next = std::move(waiting_.front());
    waiting_.pop_front();
    serve(std::move(next));
}

/// Between two clients the helper is to hear of states, and the VPN server may ask for the password.
void Gate::sayOwn()
{
    say("state on\n");
    say("log on\n");
}

void Gate::hearClient()
{
    const std::span<char> room = secrets_.fromClient.room();
    const ssize_t got = ::recv(client_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (got > 0) {
        secrets_.fromClient.grow(static_cast<size_t>(got));
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        client_.close();
        toClient_.clear();
        phase_ = Phase::Left;
        clientUntil_ = Clock::now() + lastWords;
    }
}

void Gate::judgeLines()
{
    auto &from = secrets_.fromClient;
    constexpr size_t kept = 2 * (ManagementText::maxCredential + 1); // for what the gate says itself
    while (phase_ == Phase::Served || phase_ == Phase::Left) {
        const qsizetype end = from.bytes().indexOf('\n', static_cast<qsizetype>(searched_));
        if (end < 0) {
            searched_ = from.size();
            if (from.left() == 0)
                endClient();
            else if (phase_ == Phase::Left)
                from.clear();
            return;
        }
        searched_ = 0;
        const QByteArrayView line = from.bytes().first(end);
        const Verdict verdict = ManagementText::verdictOn(line);
        if (verdict == Verdict::Forbidden) {
            endClient();
            return;
        }
        if (verdict == Verdict::Pass) {
            if (secrets_.toOpenVPN.left() < static_cast<size_t>(end) + 1 + kept)
                return;
            clientAnswered_ = clientAnswered_ || ManagementText::isPassword(line);
            say(from.bytes().first(end + 1));
        }
        from.drop(static_cast<size_t>(end) + 1);
    }
}

void Gate::connect()
{
    Descriptor fresh(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (::connect(fresh.get(), reinterpret_cast<const sockaddr *>(&address_), sizeof address_) == 0) {
        openvpn_ = std::move(fresh);
        connectAt_ = Clock::time_point::max();
        return;
    }
    connectAt_ = Clock::now() + connectPause_;
    connectPause_ = std::min<std::chrono::milliseconds>(2 * connectPause_, longestPause);
}

void Gate::closeOpenVPN()
{
    openvpn_.close();
    connectAt_ = Clock::time_point::max();
    connectPause_ = firstPause;
    lineSize_ = 0;
    secrets_.toOpenVPN.clear();
    secrets_.credentials.forgetConnection();
}

void Gate::say(QByteArrayView line)
{
    secrets_.credentials.sent(line);
    secrets_.toOpenVPN.append(line);
}

void Gate::hearOpenVPN()
{
    char bytes[16 << 10];
    const ssize_t got = ::recv(openvpn_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0)
        take({bytes, got});
    else if (got == 0 || (errno != EAGAIN && errno != EINTR))
        openvpnEnded();
}

void Gate::take(QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const qsizetype end = bytes.indexOf('\n');
        const QByteArrayView part = end < 0 ? bytes : bytes.first(end + 1);
        bytes = bytes.sliced(part.size());
        if (phase_ == Phase::Served)
            toClient_.add(part);
        const size_t known = std::min(sizeof line_ - lineSize_, static_cast<size_t>(part.size()));
        std::memcpy(line_ + lineSize_, part.data(), known);
        lineSize_ += known;
        if (end < 0)
            continue;
        QByteArrayView line(line_, static_cast<qsizetype>(lineSize_));
        consider(line.endsWith('\n') ? line.chopped(1) : line);
        lineSize_ = 0;
    }
}

void Gate::consider(QByteArrayView line)
{
    using Kind = ManagementText::Meaning::Kind;
    const auto meaning = ManagementText::meaningOf(line);
    secrets_.credentials.heard(meaning, Clock::now());
    if (meaning.kind == Kind::State)
        tellHelper("state ", meaning.text);
    else if (meaning.kind == Kind::Remote)
        tellHelper("remote ", meaning.text);
}

/// A helper that does not listen misses it.
void Gate::tellHelper(const char *what, QByteArrayView value)
{
    const QByteArray message = what + value.toByteArray();
    (void)::send(control_.get(), message.constData(), static_cast<size_t>(message.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Gate::openvpnEnded()
{
    closeOpenVPN();
    if (phase_ == Phase::Served) {
        // Its form would wait for a first state for ever.
        if (!toClient_.hasState())
            toClient_.add(Strangers::endLine("ended"));
        phase_ = Phase::Finishing;
        clientUntil_ = Clock::now() + lastWords;
    } else if (phase_ == Phase::Left) {
        endClient();
    } else if (phase_ == Phase::Idle && control_) {
        sayOwn();
        connectAt_ = Clock::now() + longestPause;
    }
}

void Gate::sendToOpenVPN()
{
    const QByteArrayView bytes = secrets_.toOpenVPN.bytes();
    const ssize_t taken =
        ::send(openvpn_.get(), bytes.data(), static_cast<size_t>(bytes.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken > 0)
        secrets_.toOpenVPN.drop(static_cast<size_t>(taken));
}

void Gate::sendToClient()
{
    const QByteArrayView bytes = toClient_.bytes();
    const ssize_t taken =
        ::send(client_.get(), bytes.data(), static_cast<size_t>(bytes.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken > 0)
        toClient_.drop(static_cast<size_t>(taken));
}
