// SPDX-License-Identifier: MIT
#pragma once

#include "buffer.h"
#include "credentials.h"
#include "descriptor.h"
#include "strangers.h"
#include "to_client.h"

#include <chrono>
#include <deque>
#include <poll.h>
#include <sys/types.h>
#include <sys/un.h>
#include <vector>

/// Serves OpenVPN's management interface to the tunnel's owner and root, one client at a time, and lets through only
/// what the client says. One thread; nothing blocks but poll(2).
class Gate {
public:
    /// Everything that a password passes through, so that it can be kept from being swapped out.
    struct Secrets {
        Buffer<(256 << 10)> fromClient; ///< lines yet to be judged; the longest that is heard to its end
        Buffer<(64 << 10)> toOpenVPN;   ///< lines that pass
        Credentials credentials;
    };

    /// What else takes much room, and is not for the stack.
    struct Rooms {
        Secrets &secrets;
        ToClient &toClient;
    };

    /// `listener` is the management port; `control` the helper, who is told of states and addresses; `openvpn` where
    /// OpenVPN listens, or will. Neither descriptor blocks.
    Gate(Descriptor listener, Descriptor control, uid_t owner, const sockaddr_un &openvpn, Rooms rooms);

    /// Returns when the helper has closed its end, and OpenVPN its own or 15 s have passed.
    void run();

private:
    using Clock = std::chrono::steady_clock;
    enum class Phase {
        Idle, ///< no client
        Served,
        Finishing, ///< OpenVPN has closed; the client has yet to take what it said
        Left,      ///< the client has closed; OpenVPN has yet to take what it said
    };

    [[nodiscard]] bool isDone() const;
    [[nodiscard]] int timeout() const;
    void step();
    void act(const std::vector<pollfd> &shown);
    void beOnTime();

    void hearHelper();
    void accept();
    void serve(Descriptor client);
    void endClient();

    void hearClient();
    void judgeLines();
    void sayOwn();

    void connect();
    void closeOpenVPN();
    void say(QByteArrayView line);
    void hearOpenVPN();
    void take(QByteArrayView bytes);
    void consider(QByteArrayView line);
    void openvpnEnded();
    void tellHelper(const char *what, QByteArrayView value);

    void sendToOpenVPN();
    void sendToClient();

    Descriptor listener_;
    Descriptor control_;
    const uid_t owner_;
    const sockaddr_un address_;
    Secrets &secrets_;
    ToClient &toClient_;
    Strangers strangers_;
    std::deque<Descriptor> waiting_; ///< for their turn

    Phase phase_ = Phase::Idle;
    Descriptor client_;
    Clock::time_point clientUntil_; ///< Finishing, Left: no longer than that
    bool clientAnswered_ = false;   ///< it has given a password
    size_t searched_ = 0;           ///< bytes of the client's that have no line end

    Descriptor openvpn_;
    Clock::time_point connectAt_ = Clock::time_point::max();
    std::chrono::milliseconds connectPause_{};
    char line_[1024]; ///< the beginning of what OpenVPN is saying
    size_t lineSize_ = 0;
    Clock::time_point leaveAt_ = Clock::time_point::max();
};
