// SPDX-License-Identifier: MIT
#include "background_queue.h"

#include "wait_for.h"

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/resource.h>

using namespace std::chrono_literals;

// The queue cannot be used again after its end, which therefore happens in a process of its own.
TEST(BackgroundQueueDeathTest, RunsWorkAtALowerPriorityAndAtTheEndWakesItWaitsForItAndTakesNoMore)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        static std::atomic<int> niceness = -1;
        static std::atomic<int> laps = 0;
        BackgroundQueue::async([] {
            niceness = getpriority(PRIO_PROCESS, 0);
            do
                ++laps;
            while (BackgroundQueue::pause(1h));
            std::this_thread::sleep_for(50ms);
            ++laps;
        });
        const bool lapping = waitFor([] { return laps == 1; });
        const bool isLower = niceness > getpriority(PRIO_PROCESS, 0);
        BackgroundQueue::finish();
        const bool waited = laps == 2;
        BackgroundQueue::async([] { laps += 100; });
        std::exit(lapping && isLower && waited && !waitFor([] { return laps > 2; }, 50ms) ? 0 : 1);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}
