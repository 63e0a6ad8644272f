// SPDX-License-Identifier: MIT
#include "background_queue.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

struct Threads {
    std::mutex guard; ///< of everything below
    std::condition_variable changed;
    std::map<const BackgroundQueue::Member *, std::function<void()>> ends;
    int running = 0;
    bool ending = false;
};

Threads &threads()
{
    // Leaked on purpose: a thread that outlives main() must still find it.
    static auto *const all = new Threads;
    return *all;
}

void lowerPriority()
{
    constexpr int background = 10;
    // On Linux a nice value belongs to the thread, and 0 means the calling one.
    setpriority(PRIO_PROCESS, 0, background);
}

void leave()
{
    Threads &all = threads();
    const std::scoped_lock lock(all.guard);
    --all.running;
    all.changed.notify_all();
}

} // namespace

void BackgroundQueue::async(std::function<void()> work)
{
    Threads &all = threads();
    {
        const std::scoped_lock lock(all.guard);
        if (all.ending)
            return;
        ++all.running;
    }
    std::thread([work = std::move(work)]() mutable {
        lowerPriority();
        work();
        work = nullptr; // what the work holds is let go before the end of the process may go on
        leave();
    }).detach();
}

bool BackgroundQueue::pause(std::chrono::milliseconds span)
{
    Threads &all = threads();
    std::unique_lock lock(all.guard);
    return !all.changed.wait_for(lock, span, [&all] { return all.ending; });
}

bool BackgroundQueue::finish(std::chrono::milliseconds limit)
{
    Threads &all = threads();
    std::unique_lock lock(all.guard);
    all.ending = true;
    for (const auto &[member, end] : all.ends)
        end();
    all.changed.notify_all();
    return all.changed.wait_for(lock, limit, [&all] { return all.running == 0; });
}

BackgroundQueue::Member::Member(std::function<void()> end)
{
    Threads &all = threads();
    const std::scoped_lock lock(all.guard);
    ++all.running;
    if (all.ending)
        end();
    all.ends.emplace(this, std::move(end));
}

BackgroundQueue::Member::~Member()
{
    {
        Threads &all = threads();
        const std::scoped_lock lock(all.guard);
        all.ends.erase(this);
    }
    leave();
}
