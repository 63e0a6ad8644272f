// SPDX-License-Identifier: MIT
#pragma once

#include "buffer.h"

/// What OpenVPN has said and the client has yet to take. Every byte passes at once and unchanged, unless more than a
/// megabyte waits: then lines of less importance are left out, whole.
class ToClient {
public:
    [[nodiscard]] bool isEmpty() const { return waiting_.isEmpty(); }
    [[nodiscard]] QByteArrayView bytes() const { return waiting_.bytes(); }
    void drop(size_t count) { waiting_.drop(count); }

    /// More than four megabytes wait, and nothing may be added.
    [[nodiscard]] bool isTooMuch() const { return waiting_.size() > maxWaiting; }

    /// Whether the client was told of any state.
    [[nodiscard]] bool hasState() const { return hasState_; }

    /// Adds a part of a line, no more than 64 KiB of it; the last part has the LF.
    void add(QByteArrayView part);

    /// For the next client.
    void clear();

private:
    enum class Fate { Open, Passes, Dropped };
    static constexpr size_t maxWaiting = 4 << 20;

    Buffer<(5 << 20)> waiting_;
    char beginning_[10]; ///< of the present line
    size_t known_ = 0;   ///< how much of that is
    Fate fate_ = Fate::Open;
    bool hasState_ = false;
};
