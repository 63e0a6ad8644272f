// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"

#include <QByteArray>

#include <chrono>
#include <deque>
#include <poll.h>
#include <vector>

/// Connections of users whose tunnel this is not: each is told so in OpenVPN's manner, and listened to no further. At
/// most sixteen are there at a time; the oldest gives way.
class Strangers {
public:
    using Clock = std::chrono::steady_clock;

    /// Tells the client, and that nothing will follow.
    void turnAway(Descriptor client);

    /// Adds what poll(2) is to look at, one entry each.
    void watch(std::vector<pollfd> &watched) const;
    /// Takes and forgets what they say; `shown` is the first of their entries. Lets go of those that have been told for
    /// a second, say too much or have left.
    void read(const pollfd *shown);
    /// When the first one is to be let go of.
    [[nodiscard]] Clock::time_point due() const;
    void clear() { told_.clear(); }

    /// The state line that has a client's form offer a connection again, with the reason.
    static QByteArray endLine(const char *why);
    /// Tells the client, whatever it has said, and that nothing will follow.
    static void tellEnd(int client, const char *why);

private:
    struct Told {
        Descriptor client;
        Clock::time_point until;
        size_t heard = 0;
    };
    std::deque<Told> told_;
};
