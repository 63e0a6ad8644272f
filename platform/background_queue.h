// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>

/// Work beside the main thread: each item gets a detached thread of low priority. Every thread that Corvale starts
/// itself is counted here, so that the end of the process can end them all.
namespace BackgroundQueue {

/// Starts `work` on a thread of its own and returns at once. Any thread. Work that is asked for after `finish` began
/// is dropped.
void async(std::function<void()> work);

/// For the work itself: sleeps, and says whether to go on. False, at once, when the process is ending: return then.
[[nodiscard]] bool pause(std::chrono::milliseconds span);

/// Main thread, after the event loop: wakes every sleeper and waits at most `limit` until all work has returned.
/// False when some has not: the process must then end without running destructors under that work's feet.
[[nodiscard]] bool finish(std::chrono::milliseconds limit);

/// Enters a thread that lives elsewhere (one with an event loop of its own) among those that `finish` waits for.
/// `end` is called by `finish`, on its thread, with the queue's guard held so that the member cannot go away meanwhile:
/// it must only ask the thread to end and never call back into the queue. Keep the token until the thread's last step.
class Member {
public:
    explicit Member(std::function<void()> end);
    ~Member();
    Member(const Member &) = delete;
    Member &operator=(const Member &) = delete;
};

} // namespace BackgroundQueue
