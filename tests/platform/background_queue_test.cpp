// SPDX-License-Identifier: MIT
#include "background_queue.h"

#include "wait_for.h"

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/resource.h>

using namespace std::chrono_literals;

namespace {

std::atomic<int> laps = 0;

void lapUntilTheEnd()
{
    do
        ++laps;
    while (BackgroundQueue::pause(1h));
    ++laps;
}

} // namespace

TEST(BackgroundQueue, RunsWorkAtALowerPriorityAndLeavesTheCallersAlone)
{
    std::atomic<int> niceness = -1;
    BackgroundQueue::async([&] { niceness = getpriority(PRIO_PROCESS, 0); });
    ASSERT_TRUE(waitFor([&] { return niceness >= 0; }));
    EXPECT_GT(niceness, getpriority(PRIO_PROCESS, 0));
}

// The queue cannot be used again after its end, so each end happens in a process of its own.
TEST(BackgroundQueueDeathTest, WakesSleepersAtTheEndAndTakesNoMoreWork)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        BackgroundQueue::async(lapUntilTheEnd);
        const BackgroundQueue::Member member([] { ++laps; });
        const bool lapping = waitFor([] { return laps == 1; });
        const bool memberStillThere = !BackgroundQueue::finish(100ms);
        const bool bothWoke = waitFor([] { return laps == 3; });
        BackgroundQueue::async([] { laps += 100; });
        std::exit(lapping && memberStillThere && bothWoke && laps == 3 ? 0 : 1);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST(BackgroundQueueDeathTest, SaysWhetherAllWorkHasReturned)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto ended = [] {
        BackgroundQueue::async(lapUntilTheEnd);
        std::exit(waitFor([] { return laps == 1; }) && BackgroundQueue::finish(10s) ? 0 : 1);
    };
    EXPECT_EXIT(ended(), testing::ExitedWithCode(0), "");
    const auto stuck = [] {
        BackgroundQueue::async([] { std::this_thread::sleep_for(1h); });
        std::_Exit(BackgroundQueue::finish(20ms) ? 1 : 0);
    };
    EXPECT_EXIT(stuck(), testing::ExitedWithCode(0), "");
}
