// The timer driver: start and stop, the cycle's arithmetic on a scripted clock, tick hooks.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "timer_harness.h"

namespace {

using namespace timer_harness;

std::mutex dispatched_lock;
std::vector<int64_t> dispatched;

void counting_hook(int64_t ticks) {
    std::lock_guard<std::mutex> hold(dispatched_lock);
    dispatched.push_back(ticks);
}

std::vector<int64_t> take_dispatched() {
    std::lock_guard<std::mutex> hold(dispatched_lock);
    std::vector<int64_t> out;
    out.swap(dispatched);
    return out;
}

// Starts the engine on the scripted clock and adds the counting hook while the driver is
// parked in its first sleep.
void start_scripted() {
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(wait_parked(), 10000u);
    ASSERT_EQ(petimer_register_tickhook(counting_hook, 1), 0u);
}

uint32_t work_ms = 0;
void working_hook(int64_t) {
    if (work_ms != 0) advance_clock(work_ms);
    work_ms = 0;
}

TEST(Driver, CycleWorkingThirtyFiveMsSleepsFiveAndDispatchesFourTicks) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(working_hook, 1), 0u);
    work_ms = 35;
    EXPECT_EQ(run_cycle(10), 5000u);  // elapsed 35: the rest of the tick is 5 ms
    take_dispatched();
    run_cycle(5);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{4});
    stop_engine();
}

TEST(Driver, SleepOfTwentyFiveMsDispatchesTwoExtraTicks) {
    start_scripted();
    run_cycle(25);  // drift -15: extra 1, ticks 0 + 2, drift -5
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    run_cycle(10);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(5);  // drift -5 + 5 = 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, EarlyWakeBeyondNineMsWithNoWorkDispatchesNothing) {
    start_scripted();
    run_cycle(0);  // drift 10
    EXPECT_TRUE(take_dispatched().empty());
    run_cycle(10);  // drift 0 again
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

}  // namespace
