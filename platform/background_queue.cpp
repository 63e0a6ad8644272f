// SPDX-License-Identifier: MIT
#include "background_queue.h"

#include <condition_variable>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

struct Queue {
    std::mutex guard; ///< of everything below
    std::condition_variable ends;
    std::vector<std::thread> threads;
    bool ending = false;
};

Queue &queue()
{
    // Leaked on purpose: a thread that outlives main() must still find it.
    static auto *const one = new Queue;
    return *one;
}

void lowerPriority()
{
    constexpr int background = 10;
    // On Linux a nice value belongs to the thread, and 0 means the calling one.
    setpriority(PRIO_PROCESS, 0, background);
}

} // namespace

void BackgroundQueue::async(std::function<void()> work)
{
    const std::scoped_lock lock(queue().guard);
    if (queue().ending)
        return;
    queue().threads.emplace_back([work = std::move(work)] {
        lowerPriority();
        work();
    });
}

bool BackgroundQueue::pause(std::chrono::milliseconds span)
{
    std::unique_lock lock(queue().guard);
    return !queue().ends.wait_for(lock, span, [] { return queue().ending; });
}

void BackgroundQueue::finish()
{
    std::unique_lock lock(queue().guard);
    queue().ending = true;
    auto threads = std::exchange(queue().threads, {});
    lock.unlock();
    queue().ends.notify_all();
    for (std::thread &thread : threads)
        thread.join();
}
