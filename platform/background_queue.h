// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>

/// Work beside the main thread: each item gets a thread of its own with low priority.
namespace BackgroundQueue {

/// Starts `work` on a thread of its own and returns at once. Any thread. Work that comes after `finish` began is
/// dropped.
void async(std::function<void()> work);

/// For the work itself: sleeps, and says whether to go on. False, at once, when the process is ending: return then.
[[nodiscard]] bool pause(std::chrono::milliseconds span);

/// Main thread, after the event loop: wakes every sleeper and returns when all work has. Blocks for as long as that
/// takes.
void finish();

} // namespace BackgroundQueue
