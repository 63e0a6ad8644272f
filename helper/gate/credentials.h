// SPDX-License-Identifier: MIT
#pragma once

#include "management_text.h"

#include <QByteArrayView>

#include <array>
#include <chrono>

/// User name and password as the client gave them to OpenVPN, to be given again when OpenVPN asks again: a VPN server
/// that is shut down in good order has it forget them. Holds them in itself, so that they are where the object is.
class Credentials {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto never = Clock::time_point::max();

    /// How long a client that has just come may take to answer for itself.
    static constexpr auto clientsTurn = std::chrono::seconds(1);

    /// A line that is on its way to OpenVPN. Others than user name and password are of no interest.
    void sent(QByteArrayView line);

    /// What OpenVPN says, replies to those lines included.
    void heard(const ManagementText::Meaning &meaning, Clock::time_point now);

    /// Nothing that was sent over the present connection to OpenVPN will be answered any more.
    void forgetConnection();

    /// When to give them again: from then on. `never` unless OpenVPN asks for them and has taken these before, for a
    /// connection that came about. At most three times a minute, and not before the client's turn if there is one.
    [[nodiscard]] Clock::time_point due(bool clientMayAnswer) const;

    /// Hands each of the two lines, with its line end, to `send`, and counts that as once.
    template <typename Send>
    void giveAgain(Clock::time_point now, Send send)
    {
        const std::array lines{username_.kept.bytes(), password_.kept.bytes()};
        again_[nextAgain_] = now + std::chrono::minutes(1);
        nextAgain_ = (nextAgain_ + 1) % again_.size();
        for (const QByteArrayView line : lines) {
            sent(line);
            send(line);
        }
    }

private:
    struct Line {
        char text[ManagementText::maxCredential + 1]; ///< with its LF
        size_t size = 0;

        [[nodiscard]] QByteArrayView bytes() const { return {text, static_cast<qsizetype>(size)}; }
        void set(QByteArrayView line);
    };
    struct Word {
        Line kept; ///< the one that OpenVPN has taken last
        Line sent; ///< the one whose reply is awaited
        bool needed = false;

        [[nodiscard]] bool taken(); ///< whether it is another one than before
    };

    Word username_;
    Word password_;
    bool accepted_ = false; ///< the kept ones made a connection
    Clock::time_point asked_;
    std::array<Clock::time_point, 3> again_{Clock::time_point::min(), Clock::time_point::min(),
                                            Clock::time_point::min()}; ///< when each of the last times is forgotten
    size_t nextAgain_ = 0;
};
