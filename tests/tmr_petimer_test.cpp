// The timer driver: start and stop, the cycle's arithmetic on a scripted clock, tick hooks,
// the quitting flag and the thread id, and one check against the real clock.
//
// A cycle of the driver, as the scripted clock shows it: run_cycle(s) lets the parked
// driver wake s ms later; it counts the ticks, calls the hooks, and asks for its next
// sleep, which run_cycle returns.  A hook that advances the clock makes the cycle "work":
// the next cycle measures that time as elapsed.

#include <gtest/gtest.h>
#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "timer_harness.h"

// ---- Which thread locks what ---------------------------------------------------------------
//
// The library takes its locks through ZEPO_MutexLock, reached through the dynamic linker:
// while recording, every call is noted with its thread before it waits.

namespace {

struct LockCall {
    pthread_t thread;
    void *mutex;
    bool unlock;
};

std::atomic<bool> recording_locks{false};
std::mutex lock_calls_lock;
std::vector<LockCall> lock_calls;

}  // namespace

extern "C" int32_t ZEPO_MutexLock(void *mutex) {
    using Fn = int32_t (*)(void *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MutexLock");
    if (recording_locks.load()) {
        std::lock_guard<std::mutex> hold(lock_calls_lock);
        lock_calls.push_back({pthread_self(), mutex, false});
    }
    return next(mutex);
}

extern "C" int32_t ZEPO_MutexUnLock(void *mutex) {
    using Fn = int32_t (*)(void *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MutexUnLock");
    if (recording_locks.load()) {
        std::lock_guard<std::mutex> hold(lock_calls_lock);
        lock_calls.push_back({pthread_self(), mutex, true});
    }
    return next(mutex);
}

namespace {

using namespace timer_harness;
using namespace std::chrono_literals;

CallLog<int64_t> dispatched;

void counting_hook(int64_t ticks) { dispatched.note(ticks); }

std::vector<int64_t> take_dispatched() { return dispatched.take(); }

// Starts the engine on the scripted clock and adds the counting hook while the driver is
// parked in its first sleep.
void start_scripted(uint32_t startMs = 1000000) {
    use_scripted_clock(startMs);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(wait_parked(), 10000u);
    ASSERT_EQ(petimer_register_tickhook(counting_hook, 1), 0u);
}

// Advances the clock by work_ms during the next dispatch: the cycle after it measures that
// much elapsed time.
std::atomic<uint32_t> work_ms{0};
void working_hook(int64_t) {
    const uint32_t ms = work_ms.exchange(0);
    if (ms != 0) advance_clock(ms);
}

// The threads of this process.
size_t thread_count() {
    size_t count = 0;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (const dirent *entry = readdir(dir))
            if (entry->d_name[0] != '.') ++count;
        closedir(dir);
    }
    return count;
}

// ---- The cycle -----------------------------------------------------------------------------

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

TEST(Driver, SleepIsTheRestOfTheCurrentTick) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(working_hook, 1), 0u);
    // No work: a whole tick.
    EXPECT_EQ(run_cycle(10), 10000u);
    // Each sleep lasts what was asked, so the drift stays 0.
    const struct {
        uint32_t work;
        uint32_t sleepUs;
    } cases[] = {{7, 3000}, {10, 10000}, {35, 5000}, {1, 9000}, {9, 1000}, {99, 1000}, {0, 10000}};
    for (const auto &c : cases) {
        work_ms = c.work;
        const uint32_t planned = run_cycle(10);
        EXPECT_EQ(planned, c.sleepUs) << "after " << c.work << " ms of work";
        EXPECT_GE(planned, 1u);
        EXPECT_LE(planned, 10000u);
        run_cycle(planned / 1000);
    }
    for (uint32_t us : sleeps()) {
        EXPECT_GE(us, 1u);
        EXPECT_LE(us, 10000u);
    }
    stop_engine();
}

TEST(Driver, SleepOfAVeryLongCycleIsReckonedInThirtyTwoBits) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(working_hook, 1), 0u);
    // 4294968 ms x 1000 wraps to 704: the rest of the tick is 10000 - 704 us.
    work_ms = 4294968;
    EXPECT_EQ(run_cycle(10), 9296u);
    take_dispatched();
    run_cycle(9);  // 9 ms planned, 9 ms slept: drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{429496 + 1});
    stop_engine();
}

TEST(Driver, OversleepOfSeveralTicksIsMadeUpAtOnce) {
    start_scripted();
    run_cycle(47);  // drift -37: extra 3, ticks 0 + 4, drift -7
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{4});
    run_cycle(10);  // drift -7
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(13);  // drift -10: extra 1, ticks 2, drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    run_cycle(10);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, DriftOfUpToNineMsEitherWayCountsTheSleptTick) {
    start_scripted();
    run_cycle(19);  // drift -9: within the balance
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(11);  // drift -10: one extra tick, drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    run_cycle(1);  // drift 9: within the balance
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(10);  // drift 9
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(9);  // drift 10, no work: nothing
    EXPECT_TRUE(take_dispatched().empty());
    run_cycle(10);  // drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, EarlyWakeBeyondNineMsAfterWorkDropsOnlyTheSleptTick) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(working_hook, 1), 0u);
    work_ms = 20;
    EXPECT_EQ(run_cycle(1), 10000u);  // drift 9; this cycle works 20 ms
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(9);  // elapsed 20: 2 ticks; drift 10: the slept tick is dropped, drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    run_cycle(10);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, SmallOversleepsAccumulateIntoAnExtraTick) {
    start_scripted();
    std::vector<int64_t> all;
    for (int i = 0; i < 5; ++i) {
        run_cycle(12);  // drift -2, -4, -6, -8, then -10
        for (int64_t t : take_dispatched()) all.push_back(t);
    }
    EXPECT_EQ(all, (std::vector<int64_t>{1, 1, 1, 1, 2}));  // 60 ms, 6 ticks
    run_cycle(10);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, SmallEarlyWakesAccumulateIntoADroppedTick) {
    start_scripted();
    std::vector<int64_t> all;
    for (int i = 0; i < 5; ++i) {
        run_cycle(8);  // drift 2, 4, 6, 8, then 10
        for (int64_t t : take_dispatched()) all.push_back(t);
    }
    EXPECT_EQ(all, (std::vector<int64_t>{1, 1, 1, 1}));  // 40 ms, 4 ticks
    run_cycle(10);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, TicksFollowTheClockWhenASleepCrossesItsWrap) {
    start_scripted(0xFFFFFFF0u);  // 16 ms before the wrap
    EXPECT_EQ(run_cycle(10), 10000u);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    EXPECT_EQ(run_cycle(10), 10000u);  // across the wrap
    EXPECT_EQ(fake_now(), 4u);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

TEST(Driver, OversleepAcrossTheWrapIsMadeUp) {
    start_scripted(0xFFFFFFF0u);
    run_cycle(10);
    take_dispatched();
    run_cycle(25);  // from 2^32 - 6 to 19: drift -15
    EXPECT_EQ(fake_now(), 19u);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    run_cycle(5);  // drift 0
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_ticks(2);
    EXPECT_EQ(take_dispatched(), (std::vector<int64_t>{1, 1}));
    stop_engine();
}

TEST(Driver, WorkAcrossTheWrapIsCounted) {
    start_scripted(0xFFFFFFE2u);  // 30 ms before the wrap
    ASSERT_EQ(petimer_register_tickhook(working_hook, 1), 0u);
    work_ms = 35;
    EXPECT_EQ(run_cycle(10), 5000u);  // woken 20 ms before the wrap, worked 35 ms: 15
    EXPECT_EQ(fake_now(), 15u);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    run_cycle(5);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{4});
    run_ticks(3);
    EXPECT_EQ(take_dispatched(), (std::vector<int64_t>{1, 1, 1}));
    stop_engine();
}

// ---- What a hook is given --------------------------------------------------------------

CallLog<int64_t> periodic_calls;

void periodic_hook(int64_t ticks) { periodic_calls.note(ticks); }

std::vector<int64_t> take_periodic() { return periodic_calls.take(); }

TEST(TickHooks, HundredTickHookIsCalledOnTheHundredthTickAndThenWithAllTicksOfALongCycle) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, 100), 0u);
    run_ticks(99);
    EXPECT_TRUE(take_periodic().empty());
    run_ticks(1);
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{100});
    take_dispatched();
    run_cycle(1500);  // one cycle of 150 ticks
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{150});
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{150});
    // Counted from 0 again.
    run_ticks(99);
    EXPECT_TRUE(take_periodic().empty());
    run_ticks(1);
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{100});
    stop_engine();
}

TEST(TickHooks, LongCycleAfterPartialCountGivesTheHookEverythingAccumulated) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, 100), 0u);
    run_ticks(30);
    run_cycle(1500);
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{180});
    stop_engine();
}

TEST(TickHooks, ThreeTickHookGetsThreeFromSingleTicksAndFourFromDoubleTicks) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, 3), 0u);
    run_ticks(2);
    EXPECT_TRUE(take_periodic().empty());
    run_ticks(1);
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{3});
    take_dispatched();
    run_cycle(20);  // 2 ticks
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    EXPECT_TRUE(take_periodic().empty());
    run_cycle(20);  // 2 more: 4
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{2});
    EXPECT_EQ(take_periodic(), std::vector<int64_t>{4});
    stop_engine();
}

// ---- Registration -------------------------------------------------------------------------

std::mutex order_lock;
std::vector<std::string> call_order;

void note(const char *name) {
    std::lock_guard<std::mutex> hold(order_lock);
    call_order.emplace_back(name);
}
void hook_a(int64_t) { note("a"); }
void hook_b(int64_t) { note("b"); }
void hook_c(int64_t) { note("c"); }

std::vector<std::string> take_order() {
    std::lock_guard<std::mutex> hold(order_lock);
    std::vector<std::string> out;
    out.swap(call_order);
    return out;
}

TEST(TickHooks, NegativePeriodIsComparedSignedSoTheHookRunsEveryCycle) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, -5), 0u);
    run_ticks(2);
    run_cycle(30);  // 3 ticks
    EXPECT_EQ(take_periodic(), (std::vector<int64_t>{1, 1, 3}));
    stop_engine();
}

TEST(TickHooks, NewestHookIsCalledFirst) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(hook_a, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook_b, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook_c, 1), 0u);
    run_ticks(2);
    EXPECT_EQ(take_order(), (std::vector<std::string>{"c", "b", "a", "c", "b", "a"}));
    stop_engine();
}

TEST(TickHooks, HookRegisteredTwiceRunsTwiceAndOneRemovalTakesTheNewerRegistration) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, 2), 0u);
    ASSERT_EQ(petimer_register_tickhook(periodic_hook, 3), 0u);  // the newer
    run_ticks(6);
    // Tick 2: the older; 3: the newer; 4: the older; 6: the newer first, then the older.
    EXPECT_EQ(take_periodic(), (std::vector<int64_t>{2, 3, 2, 3, 2}));

    const size_t before = live_blocks();
    EXPECT_EQ(petimer_deregister_tickhook(periodic_hook), 0u);
    EXPECT_EQ(live_blocks(), before - 1);
    run_ticks(6);
    EXPECT_EQ(take_periodic(), (std::vector<int64_t>{2, 2, 2}));

    EXPECT_EQ(petimer_deregister_tickhook(periodic_hook), 0u);
    run_ticks(4);
    EXPECT_TRUE(take_periodic().empty());
    EXPECT_EQ(take_dispatched().size(), 16u);  // the other hooks go on
    stop_engine();
}

TEST(TickHooks, RemovalKeepsTheOrderOfTheOthers) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(hook_a, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook_b, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook_c, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook_b, 1), 0u);
    run_ticks(1);
    EXPECT_EQ(take_order(), (std::vector<std::string>{"b", "c", "b", "a"}));
    EXPECT_EQ(petimer_deregister_tickhook(hook_b), 0u);
    run_ticks(1);
    EXPECT_EQ(take_order(), (std::vector<std::string>{"c", "b", "a"}));
    EXPECT_EQ(petimer_deregister_tickhook(hook_a), 0u);
    run_ticks(1);
    EXPECT_EQ(take_order(), (std::vector<std::string>{"c", "b"}));
    stop_engine();
}

TEST(TickHooks, RegisteringANullHookOrAZeroPeriodGives22) {
    const size_t before = live_blocks();
    EXPECT_EQ(petimer_register_tickhook(nullptr, 1), 22u);
    EXPECT_EQ(petimer_register_tickhook(hook_a, 0), 22u);
    EXPECT_EQ(petimer_register_tickhook(nullptr, 0), 22u);
    EXPECT_EQ(live_blocks(), before);
    start_scripted();
    run_ticks(1);
    EXPECT_TRUE(take_order().empty());
    stop_engine();
}

TEST(TickHooks, RegisteringWithoutMemoryGives12AndLeavesTheListAsItWas) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(hook_a, 1), 0u);
    const size_t before = live_blocks();
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_register_tickhook(hook_b, 1), 12u, ENOMEM);
    EXPECT_EQ(live_blocks(), before);
    run_ticks(2);
    EXPECT_EQ(take_order(), (std::vector<std::string>{"a", "a"}));
    EXPECT_EQ(take_dispatched(), (std::vector<int64_t>{1, 1}));
    stop_engine();
}

TEST(TickHooks, RemovingANullHookGives22) { EXPECT_EQ(petimer_deregister_tickhook(nullptr), 22u); }

TEST(TickHooks, RemovingFromAnEmptyListGivesZero) {
    const size_t before = live_blocks();
    EXPECT_EQ(petimer_deregister_tickhook(hook_a), 0u);
    EXPECT_EQ(live_blocks(), before);
}

TEST(TickHooks, RemovingAHookThatIsNotRegisteredGivesZeroAndChangesNothing) {
    start_scripted();
    ASSERT_EQ(petimer_register_tickhook(hook_a, 1), 0u);
    const size_t before = live_blocks();
    EXPECT_EQ(petimer_deregister_tickhook(hook_c), 0u);
    EXPECT_EQ(live_blocks(), before);
    run_ticks(1);
    EXPECT_EQ(take_order(), std::vector<std::string>{"a"});
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

// ---- Start ----------------------------------------------------------------------------------

std::atomic<int> fired{0};
void count_fire(void *) { ++fired; }

// A periodic 10 ms timer fires every second tick; with the engine's hooks doubled it
// would fire every tick.
void expect_single_hooks() {
    void *handle = ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_PERIODIC, __LINE__, "ten_ms");
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 10, nullptr), 0u);
    wait_parked();
    fired = 0;
    std::vector<int> seen;
    for (int i = 0; i < 8; ++i) {
        run_ticks(1);
        seen.push_back(fired.load());
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 1, 2, 2, 3, 3, 4}));
    EXPECT_EQ(ZEPO_FreeRelTimer(handle), 0u);
}

std::atomic<pthread_t> hook_thread{};
void thread_noting_hook(int64_t) { hook_thread = pthread_self(); }

TEST(Start, StoresTheDriverThreadIdInTheCallerAndTheEngine) {
    use_scripted_clock();
    uint64_t id = 0xBADBADu;
    ASSERT_EQ(petimer_start(&id, nullptr), 0);
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, 0xBADBADu);
    EXPECT_EQ(petimer_getTreadId(), id);
    ASSERT_EQ(petimer_register_tickhook(thread_noting_hook, 1), 0u);
    run_ticks(1);
    EXPECT_TRUE(pthread_equal(hook_thread.load(), static_cast<pthread_t>(id)));
    EXPECT_FALSE(pthread_equal(hook_thread.load(), pthread_self()));
    stop_engine();
    EXPECT_EQ(petimer_getTreadId(), 0u);
}

TEST(Start, SecondStartReturnsZeroAndMakesNoSecondThread) {
    use_scripted_clock();
    capture_trace();
    const size_t threadsBefore = thread_count();
    uint64_t first = 0;
    ASSERT_EQ(petimer_start(&first, nullptr), 0);
    wait_parked();
    // (A sanitizer may start a helper thread of its own with the first thread.)
    const size_t running = thread_count();
    EXPECT_GE(running, threadsBefore + 1);

    uint64_t second = 0xBADBADu;
    EXPECT_EQ(petimer_start(&second, nullptr), 0);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    // Nothing is done at all: not even the id is written.
    EXPECT_EQ(second, 0xBADBADu);
    EXPECT_EQ(petimer_getTreadId(), first);
    EXPECT_EQ(thread_count(), running);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    expect_single_hooks();
    stop_engine();
    EXPECT_TRUE(wait_until([&] { return thread_count() == running - 1; }));
}

TEST(Start, ThreadCreationFailureIsPassedThroughAndLeavesTheEngineStopped) {
    use_scripted_clock();
    capture_trace();
    const size_t before = live_blocks();
    const size_t threadsBefore = thread_count();
    fail_thread_create(EAGAIN);
    uint64_t id = 0xBADBADu;
    EXPECT_EQ(petimer_start(&id, nullptr), EAGAIN);
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(thread_count(), threadsBefore);
    EXPECT_TRUE(traces().empty());
    EXPECT_EQ(ZEPO_StopTimerTask(), -1);
    // Not started: the limits can still be set.
    ZEPO_TMRSetMaxReltmNum(31);
    EXPECT_EQ(ulMaxReltmNum, 31u);
    ZEPO_TMRSetMaxReltmNum(2000);
    EXPECT_EQ(ulMaxReltmNum, 2000u);

    // A second failure, then a start that works: the hooks are there once.
    EXPECT_EQ(ZEPO_StartTimerTask(&id, nullptr), EAGAIN);
    fail_thread_create(0);
    ASSERT_EQ(ZEPO_StartTimerTask(&id, nullptr), 0);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(petimer_getTreadId(), id);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    expect_single_hooks();
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

// A start and stop, so that the start lock is set up and every lock set-up that follows
// belongs to the engine's tables and queues.
void start_and_stop_once() {
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    stop_engine();
}

TEST(Start, LockSetUpFailuresArePassedThrough) {
    start_and_stop_once();
    const size_t before = live_blocks();
    // Absolute queue, absolute index, relative queue, relative index.
    const int32_t expected[] = {EAGAIN, 1, EAGAIN, 1};
    for (int nth = 1; nth <= 4; ++nth) {
        fail_mutex_init(nth);
        uint64_t id = 0xBADBADu;
        EXPECT_EQ(petimer_start(&id, nullptr), expected[nth - 1]) << "lock set-up " << nth;
        EXPECT_EQ(petimer_getTreadId(), 0u);
        ZEPO_TMRSetMaxAbstmNum(2000 + nth);
        EXPECT_EQ(ulMaxAbstmNum, 2000u + nth) << "the engine counts as started";
    }
    fail_mutex_init(0);
    ZEPO_TMRSetMaxAbstmNum(2000);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    expect_single_hooks();
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

TEST(Start, AllocationFailuresArePassedThrough) {
    start_and_stop_once();
    const size_t before = live_blocks();
    // Absolute table, calendar hook, wheel hook, relative table, wheel.
    for (int nth = 1; nth <= 5; ++nth) {
        fail_allocation(nth);
        errno = 0;
        uint64_t id = 0xBADBADu;
        EXPECT_EQ(petimer_start(&id, nullptr), 12) << "allocation " << nth;
        EXPECT_EQ(errno, ENOMEM) << "allocation " << nth;
        EXPECT_EQ(petimer_getTreadId(), 0u);
        ZEPO_TMRSetMaxReltmNum(2000 + nth);
        EXPECT_EQ(ulMaxReltmNum, 2000u + nth) << "the engine counts as started";
        ZEPO_TMRSetMaxReltmNum(2000);
    }
    fail_allocation(0);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    expect_single_hooks();
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

// ---- Quitting flag and thread id --------------------------------------------------------

TEST(QuittingFlag, StoresAnyValueAndReadsItBack) {
    EXPECT_EQ(petimer_isQuiting(), 0u);
    petimer_setQuitingFlag(5, 0);
    EXPECT_EQ(petimer_isQuiting(), 5u);
    petimer_setQuitingFlag(0, 0);
    EXPECT_EQ(petimer_isQuiting(), 0u);
}

TEST(QuittingFlag, StoresUnderBothIndexLocksWhenAsked) {
    start_scripted();
    petimer_setQuitingFlag(2, 1);
    EXPECT_EQ(petimer_isQuiting(), 2u);
    petimer_setQuitingFlag(0, 1);
    EXPECT_EQ(petimer_isQuiting(), 0u);
    // The locks were given back.
    std::thread other([] {
        EXPECT_EQ(reltmr_idxLock(), 0);
        EXPECT_EQ(abstmr_indexLock(), 0);
        EXPECT_EQ(abstmr_indexUnLock(), 0);
        EXPECT_EQ(reltmr_idxUnLock(), 0);
    });
    other.join();
    run_ticks(1);
    EXPECT_EQ(take_dispatched(), std::vector<int64_t>{1});
    stop_engine();
}

// Holds one index lock on a thread of its own until released.
class LockHolder {
public:
    LockHolder(int32_t (*lock)(), int32_t (*unlock)()) {
        thread_ = std::thread([this, lock, unlock] {
            lock();
            std::unique_lock<std::mutex> hold(m_);
            held_ = true;
            cv_.notify_all();
            cv_.wait(hold, [this] { return released_; });
            unlock();
        });
        std::unique_lock<std::mutex> hold(m_);
        cv_.wait(hold, [this] { return held_; });
    }
    void release() {
        {
            std::lock_guard<std::mutex> hold(m_);
            released_ = true;
            cv_.notify_all();
        }
        if (thread_.joinable()) thread_.join();
    }
    ~LockHolder() { release(); }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool held_ = false;
    bool released_ = false;
    std::thread thread_;
};

// Raises the flag on a thread of its own; done tells when the call returned.
struct Raiser {
    explicit Raiser(uint32_t value) {
        thread = std::thread([this, value] {
            petimer_setQuitingFlag(value, 1);
            done = true;
        });
    }
    ~Raiser() {
        if (thread.joinable()) thread.join();
    }
    std::atomic<bool> done{false};
    std::thread thread;
};

// Ends a stop begun by raising the flag by hand, as the stopping sequence does.
void finish_stop(uint64_t id) {
    EXPECT_EQ(petimer_stop(id), 0);
    petimer_setQuitingFlag(0, 0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
}

TEST(QuittingFlag, RaisingItWaitsForTheRelativeIndexLock) {
    start_scripted();
    const uint64_t id = petimer_getTreadId();
    LockHolder holder(reltmr_idxLock, reltmr_idxUnLock);
    Raiser raiser(1);
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(raiser.done.load());
    EXPECT_EQ(petimer_isQuiting(), 0u);
    holder.release();
    ASSERT_TRUE(wait_until([&] { return raiser.done.load(); }));
    EXPECT_EQ(petimer_isQuiting(), 1u);
    finish_stop(id);
}

TEST(QuittingFlag, RaisingItWaitsForTheAbsoluteIndexLock) {
    start_scripted();
    const uint64_t id = petimer_getTreadId();
    LockHolder holder(abstmr_indexLock, abstmr_indexUnLock);
    Raiser raiser(1);
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(raiser.done.load());
    EXPECT_EQ(petimer_isQuiting(), 0u);
    holder.release();
    ASSERT_TRUE(wait_until([&] { return raiser.done.load(); }));
    EXPECT_EQ(petimer_isQuiting(), 1u);
    finish_stop(id);
}

// The locks a thread has asked for since recording began, in order.
std::vector<void *> locks_asked_by(pthread_t thread) {
    std::lock_guard<std::mutex> hold(lock_calls_lock);
    std::vector<void *> out;
    for (const LockCall &call : lock_calls)
        if (!call.unlock && pthread_equal(call.thread, thread)) out.push_back(call.mutex);
    return out;
}

// The unlocks of a thread since recording began, in order.
std::vector<void *> unlocks_by(pthread_t thread) {
    std::lock_guard<std::mutex> hold(lock_calls_lock);
    std::vector<void *> out;
    for (const LockCall &call : lock_calls)
        if (call.unlock && pthread_equal(call.thread, thread)) out.push_back(call.mutex);
    return out;
}

// The record behind an index lock function, as the calling thread's lock call shows it.
void *mutex_behind(int32_t (*lock)(), int32_t (*unlock)()) {
    {
        std::lock_guard<std::mutex> hold(lock_calls_lock);
        lock_calls.clear();
    }
    recording_locks = true;
    lock();
    recording_locks = false;
    unlock();
    const std::vector<void *> asked = locks_asked_by(pthread_self());
    return asked.empty() ? nullptr : asked.back();
}

TEST(QuittingFlag, RaisingItTakesTheRelativeLockBeforeTheAbsoluteOne) {
    start_scripted();
    void *const relative = mutex_behind(reltmr_idxLock, reltmr_idxUnLock);
    void *const absolute = mutex_behind(abstmr_indexLock, abstmr_indexUnLock);
    ASSERT_NE(relative, nullptr);
    ASSERT_NE(absolute, nullptr);
    ASSERT_NE(relative, absolute);
    {
        std::lock_guard<std::mutex> hold(lock_calls_lock);
        lock_calls.clear();
    }
    recording_locks = true;

    LockHolder holder(abstmr_indexLock, abstmr_indexUnLock);
    // A value other than 1 keeps the driver in its loop, so that its tear-down does not
    // meet the threads waiting below.
    Raiser raiser(2);
    const pthread_t raiserThread = raiser.thread.native_handle();
    ASSERT_TRUE(wait_until([&] { return locks_asked_by(raiserThread).size() >= 2; }));
    EXPECT_EQ(locks_asked_by(raiserThread), (std::vector<void *>{relative, absolute}));

    // It waits for the absolute lock while holding the relative one.
    std::atomic<bool> gotRelative{false};
    std::thread other([&] {
        reltmr_idxLock();
        gotRelative = true;
        reltmr_idxUnLock();
    });
    ASSERT_TRUE(wait_until([&] { return !locks_asked_by(other.native_handle()).empty(); }));
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(raiser.done.load());
    EXPECT_FALSE(gotRelative.load())
        << "the relative lock was free while the absolute one was awaited";
    EXPECT_EQ(petimer_isQuiting(), 0u);
    holder.release();
    other.join();
    ASSERT_TRUE(wait_until([&] { return raiser.done.load(); }));
    recording_locks = false;
    EXPECT_TRUE(gotRelative.load());
    // Given back in the reverse order.
    EXPECT_EQ(locks_asked_by(raiserThread), (std::vector<void *>{relative, absolute}));
    EXPECT_EQ(unlocks_by(raiserThread), (std::vector<void *>{absolute, relative}));
    EXPECT_EQ(petimer_isQuiting(), 2u);
    petimer_setQuitingFlag(0, 1);
    stop_engine();
}

// A hook that holds the driver in its dispatch until the test lets it go.
struct HookGate {
    std::mutex lock;
    std::condition_variable changed;
    bool armed = false;
    bool entered = false;
    bool open = false;
};
HookGate hook_gate;

void gated_hook(int64_t) {
    std::unique_lock<std::mutex> hold(hook_gate.lock);
    if (!hook_gate.armed) return;
    hook_gate.entered = true;
    hook_gate.changed.notify_all();
    hook_gate.changed.wait(hold, [] { return hook_gate.open; });
    hook_gate.armed = false;
}

void done_noted(void *arg) { static_cast<std::atomic<int> *>(arg)->fetch_add(1); }

TEST(QuittingFlag, RequestsAreRefusedWhileItIsRaised) {
    start_scripted();
    void *rel = ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_ONESHOT, __LINE__, "refused");
    void *abs = ZEPO_CreateAbsTimerM(count_fire, 0);
    ASSERT_NE(rel, nullptr);
    ASSERT_NE(abs, nullptr);
    ASSERT_EQ(petimer_register_tickhook(gated_hook, 1), 0u);
    {
        std::lock_guard<std::mutex> hold(hook_gate.lock);
        hook_gate.armed = true;
    }
    // The driver is kept inside its dispatch, so that the raised flag does not end it.
    std::thread cycle([] { run_cycle(10); });
    {
        std::unique_lock<std::mutex> hold(hook_gate.lock);
        ASSERT_TRUE(hook_gate.changed.wait_for(hold, 10s, [] { return hook_gate.entered; }));
    }
    petimer_setQuitingFlag(1, 1);
    EXPECT_EQ(petimer_isQuiting(), 1u);
    std::atomic<int> done{0};
    void *kept = nullptr;
    EXPECT_EQ(ZEPO_StartRelTimer(rel, 100, nullptr), 22u);
    EXPECT_EQ(ZEPO_StopRelTimer_Safe(rel, done_noted, &done), 22u);
    EXPECT_EQ(ZEPO_StopRelTimer_SafeEx(rel, done_noted, &done, &kept), 22u);
    EXPECT_EQ(ZEPO_FreeRelTimer(rel), 22u);
    EXPECT_EQ(ZEPO_StopAbsTimer_Safe(abs, done_noted, &done), 22u);
    EXPECT_EQ(ZEPO_StopAbsTimer_SafeEx(abs, done_noted, &done, &kept), 22u);
    EXPECT_EQ(ZEPO_FreeAbsTimer(abs), 22u);
    EXPECT_EQ(ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_ONESHOT, __LINE__, "late"), nullptr);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(count_fire, 0), nullptr);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), -1);
    EXPECT_EQ(ZEPO_StopTimerTask(), -1);
    petimer_setQuitingFlag(0, 1);
    {
        std::lock_guard<std::mutex> hold(hook_gate.lock);
        hook_gate.open = true;
        hook_gate.changed.notify_all();
    }
    cycle.join();
    // Accepted again once the flag is down.
    EXPECT_EQ(ZEPO_StartRelTimer(rel, 100, nullptr), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimer(rel), 0u);
    EXPECT_EQ(ZEPO_FreeAbsTimer(abs), 0u);
    run_ticks(1);
    EXPECT_EQ(done.load(), 0);
    stop_engine();
}

TEST(ThreadId, IsStoredAndReadBack) {
    EXPECT_EQ(petimer_getTreadId(), 0u);
    petimer_setTreadId(0x123456789ABCull);
    EXPECT_EQ(petimer_getTreadId(), 0x123456789ABCull);
    petimer_setTreadId(0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
}

// ---- Stop -------------------------------------------------------------------------------------

TEST(Stop, JoinsTheDriverAndFreesEverything) {
    const size_t before = live_blocks();
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    const size_t threadsRunning = thread_count();
    void *running = ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_PERIODIC, __LINE__, "running");
    void *idle = ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_ONESHOT, __LINE__, "idle");
    void *calendar = ZEPO_CreateAbsTimerM(count_fire, 0);
    ASSERT_NE(running, nullptr);
    ASSERT_NE(idle, nullptr);
    ASSERT_NE(calendar, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(running, 1000, nullptr), 0u);
    run_ticks(2);
    EXPECT_EQ(g_reltmNum, 2);
    EXPECT_EQ(g_abstmNum, 1);
    fired = 0;

    EXPECT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(petimer_isQuiting(), 0u);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_pRelHead, nullptr);
    EXPECT_EQ(g_pRelTail, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(fired.load(), 0);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_TRUE(wait_until([&] { return thread_count() == threadsRunning - 1; }));
    // Stopped: the limits can be set, and there is nothing left to stop.
    ZEPO_TMRSetMaxAbstmNum(9);
    EXPECT_EQ(ulMaxAbstmNum, 9u);
    EXPECT_EQ(ZEPO_StopTimerTask(), -1);
}

TEST(Stop, StartAfterAStopBuildsEverythingAfresh) {
    const size_t before = live_blocks();
    use_scripted_clock();
    capture_trace();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_ONESHOT, __LINE__, "old"), nullptr);
    ASSERT_NE(ZEPO_CreateAbsTimerM(count_fire, 0), nullptr);
    stop_engine();

    uint64_t id = 0;
    ASSERT_EQ(ZEPO_StartTimerTask(&id, nullptr), 0);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(petimer_getTreadId(), id);
    ASSERT_NE(g_szRelTimer, nullptr);
    ASSERT_NE(g_szAbsTimer, nullptr);
    EXPECT_EQ(g_pRelHead, g_szRelTimer);
    EXPECT_EQ(g_pRelTail, g_szRelTimer + (ulMaxReltmNum - 1));
    EXPECT_EQ(g_pAbsHead, g_szAbsTimer);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(traces(), (std::vector<std::string>{"Timer initialize success.\n",
                                                  "Timer initialize success.\n"}));
    expect_single_hooks();
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

TEST(Stop, WithoutTheQuittingFlagNeverReturns) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        if (ZEPO_StartTimerTask(nullptr, nullptr) != 0) _exit(2);
        const char started = 'S';
        if (write(fds[1], &started, 1) != 1) _exit(3);
        petimer_stop(petimer_getTreadId());
        const char returned = 'R';
        (void)!write(fds[1], &returned, 1);
        _exit(1);
    }
    close(fds[1]);
    pollfd reader{fds[0], POLLIN, 0};
    char got = 0;
    ASSERT_EQ(poll(&reader, 1, 10000), 1);
    ASSERT_EQ(read(fds[0], &got, 1), 1);
    EXPECT_EQ(got, 'S');
    // The child waits in the join; nothing more comes, and it is still there.
    EXPECT_EQ(poll(&reader, 1, 300), 0) << "petimer_stop returned";
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    close(fds[0]);
}

// What a stop completion function saw as the driver left.
struct SeenAtExit {
    std::mutex lock;
    std::vector<std::string> order;
    bool onDriver = true;
    bool quitting = true;
    bool tablesThere = true;
};
SeenAtExit seen_at_exit;
uint64_t driver_id = 0;

void note_exit(const char *kind) {
    std::lock_guard<std::mutex> hold(seen_at_exit.lock);
    seen_at_exit.order.emplace_back(kind);
    seen_at_exit.onDriver = seen_at_exit.onDriver && pthread_equal(pthread_self(), driver_id);
    seen_at_exit.quitting = seen_at_exit.quitting && petimer_isQuiting() == 1;
    seen_at_exit.tablesThere =
        seen_at_exit.tablesThere && g_szRelTimer != nullptr && g_szAbsTimer != nullptr;
}
void relative_done(void *) { note_exit("relative"); }
void absolute_done(void *) { note_exit("absolute"); }

TEST(Stop, PendingRequestsAreCarriedOutBeforeTheTearDown) {
    const size_t before = live_blocks();
    start_scripted();
    driver_id = petimer_getTreadId();
    void *rel = ZEPO_CreateRelTimerM(count_fire, ZEPO_TIMER_ONESHOT, __LINE__, "pending");
    void *abs = ZEPO_CreateAbsTimerM(count_fire, 0);
    ASSERT_NE(rel, nullptr);
    ASSERT_NE(abs, nullptr);
    void *block = ZEPO_MemTypeMallocD(64, 0, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    // Queued while the driver sleeps; it wakes only for the stop.
    EXPECT_EQ(ZEPO_StopAbsTimer_Safe(abs, absolute_done, nullptr), 0u);
    EXPECT_EQ(ZEPO_StartRelTimer(rel, 5000, nullptr), 0u);
    EXPECT_EQ(ZEPO_StopRelTimer_Safe(rel, relative_done, nullptr), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(block), 0u);
    EXPECT_EQ(ZEPO_StopTimerTask(), 0);
    // The relative requests first, then the absolute ones, both before the tables went.
    EXPECT_EQ(seen_at_exit.order, (std::vector<std::string>{"relative", "absolute"}));
    EXPECT_TRUE(seen_at_exit.onDriver);
    EXPECT_TRUE(seen_at_exit.quitting);
    EXPECT_TRUE(seen_at_exit.tablesThere);
    EXPECT_EQ(live_blocks(), before + 1);  // the counting hook; the block was released
    EXPECT_EQ(petimer_deregister_tickhook(counting_hook), 0u);
    EXPECT_EQ(live_blocks(), before);
}

// ---- The real clock ----------------------------------------------------------------------

struct TickRecord {
    std::chrono::steady_clock::time_point at;
    int64_t total;
};
std::mutex real_lock;
std::vector<TickRecord> real_ticks;
int64_t real_total = 0;

void real_hook(int64_t ticks) {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> hold(real_lock);
    real_total += ticks;
    real_ticks.push_back({now, real_total});
}

TEST(RealClock, PeriodOneHookCountsAHundredTicksASecond) {
    ASSERT_EQ(petimer_register_tickhook(real_hook, 1), 0u);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    // Waits until a call comes after one second of calls.
    size_t last = 0;
    const bool enough = wait_until(
        [&] {
            std::lock_guard<std::mutex> hold(real_lock);
            for (size_t k = 1; k < real_ticks.size(); ++k) {
                if (real_ticks[k - 1].at - real_ticks.front().at >= 1s) {
                    last = k;
                    return true;
                }
            }
            return false;
        },
        30s);
    stop_engine();
    ASSERT_TRUE(enough);
    std::lock_guard<std::mutex> hold(real_lock);
    // Call k counts the time up to its own wake-up, which came after call k - 1 had ended:
    // at least the span from the first call to call k - 1, less the drift balance.
    const int64_t ticks = real_ticks[last].total - real_ticks.front().total;
    const auto lower = std::chrono::duration_cast<std::chrono::milliseconds>(
        real_ticks[last - 1].at - real_ticks.front().at);
    const auto upper = std::chrono::duration_cast<std::chrono::milliseconds>(real_ticks[last].at -
                                                                             real_ticks.front().at);
    EXPECT_GE(ticks, 95);
    EXPECT_GE(ticks, lower.count() / 10 - 2) << "over " << lower.count() << " ms";
    EXPECT_LE(ticks, upper.count() / 10 + 50) << "over " << upper.count() << " ms";
}

}  // namespace
