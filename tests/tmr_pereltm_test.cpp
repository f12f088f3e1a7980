// Relative timers: how an interval becomes ticks, when and in which order timers fire, the
// requests (start, stop, free) and their refusals, call-backs that change timers, the
// long-call-back warning, failed allocations and the engine's tear-down.
//
// The engine runs on the scripted clock.  advance(n) lets the driver run n cycles of one
// 10 ms tick each and numbers them: the cycles of a test are 1, 2, 3, ...  In every cycle the
// wheel's hook first carries out the requests queued since the cycle before, then processes
// the current slot and moves on by one.  A request made while the driver is parked before
// cycle N is therefore carried out in cycle N, and a one-shot timer of k ticks started so
// fires in cycle N + k.  A periodic timer is re-armed in the cycle after it fired, so it
// fires every k + 1 cycles.
//
// Some tests look into a timer record through its handle (the cell holds the record's
// address).  They do so only while the driver is parked, or on the driver thread itself.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "timer_harness.h"

namespace {

using namespace timer_harness;
using qel_test::kSentinel;

constexpr uint32_t kSlots = 1024;
constexpr uint32_t kNoCreatorLine = 0xDEADDEADu;
constexpr const char *kCreator = "rel_sensor.c";

// ---- A look into a timer record ------------------------------------------------------------

uint32_t slot_of(const RelTimerView &record) { return record.due & (kSlots - 1); }
uint32_t turns_of(const RelTimerView &record) { return record.due / kSlots; }
bool in_no_list(const RelTimerView &record) {
    return record.next == &record && record.prev == &record;
}

void *content_of(void *cell) { return *static_cast<void **>(cell); }

void *cell(uint32_t index) { return &g_szRelTimer[index]; }

void *tag(uintptr_t value) { return reinterpret_cast<void *>(value); }

bool is_live(void *block) {
    MemoryState &m = memory_state();
    std::lock_guard<std::mutex> hold(m.lock);
    return m.live.count(block) != 0;
}

void *new_block() { return ZEPO_MemTypeMallocD(48, 0, __LINE__, __FILE__); }
void release_block(void *block) { ZEPO_MemTypeFreeD(block, 0, __LINE__, __FILE__); }

// ---- Cycles and firings ------------------------------------------------------------------

// The tick counter while that cycle runs its requests.
uint32_t counter_at(uint32_t cycle) { return cycle - 1; }

// ---- Stop completion functions -------------------------------------------------------------

struct DoneCall {
    void *arg;
    uint64_t thread;
    bool unlinked;  // the watched timer was in no list during the call
    uint32_t cycle;
};

std::mutex g_doneLock;
std::vector<DoneCall> g_doneCalls;
std::atomic<void *> g_watched{nullptr};

void note_done(void *arg) {
    void *watched = g_watched.load();
    const bool unlinked = watched != nullptr && in_no_list(rel_timer(watched));
    std::lock_guard<std::mutex> hold(g_doneLock);
    g_doneCalls.push_back({arg, static_cast<uint64_t>(pthread_self()), unlinked, g_cycle.load()});
}

std::vector<DoneCall> done_calls() {
    std::lock_guard<std::mutex> hold(g_doneLock);
    return g_doneCalls;
}

// ---- Call-backs that act on timers ---------------------------------------------------------

// What a call-back saw of its own request, for the test thread to check.
struct Seen {
    std::atomic<int> calls{0};
    std::atomic<uint32_t> result{0};
    std::atomic<uint32_t> after{0};  // a second request, made after the first
};
Seen g_seen;

// Frees the timer whose handle is its argument (its own, or another's), then tries to start
// it again.
void free_timer_of_arg(void *handle) {
    g_seen.result = petimer_free_reltimer(handle);
    g_seen.after = petimer_start_reltimer(handle, 10, nullptr);
    g_seen.calls.fetch_add(1);
    note_firing(handle);
}

// Stops the timer whose handle is its argument.
void stop_timer_of_arg(void *handle) {
    g_seen.result = petimer_stop_reltimer_safe(handle, nullptr, nullptr);
    g_seen.calls.fetch_add(1);
    note_firing(handle);
}

// Works as many milliseconds as its argument says, on the scripted clock.
void work_for(void *ms) {
    advance_clock(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ms)));
    note_firing(ms);
}

// ---- Fixtures ------------------------------------------------------------------------------

// Forgets what an earlier test in the same process saw.
void forget_calls() {
    forget_cycles_and_firings();
    {
        std::lock_guard<std::mutex> hold(g_doneLock);
        g_doneCalls.clear();
    }
    g_watched = nullptr;
    g_seen.calls = 0;
    g_seen.result = 0;
    g_seen.after = 0;
}

// The engine runs on the scripted clock, its driver parked before cycle 1.  Every timer and
// request is gone once the engine has stopped.
class RelTimers : public testing::Test {
protected:
    void SetUp() override {
        forget_calls();
        blocksBefore_ = live_blocks();
        countBefore_ = g_reltmNum;
        use_scripted_clock();
        ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
        wait_parked();
    }

    void TearDown() override {
        fail_allocation(0);
        stop_engine();
        EXPECT_EQ(live_blocks(), blocksBefore_) << "blocks left after the engine stopped";
    }

    // A timer created through the public layer (counted, named).
    void *create(int32_t mode, ZEPO_TIMEOUT_FUNC callback = note_firing) {
        void *handle = ZEPO_CreateRelTimerM(callback, mode, 4321, kCreator);
        EXPECT_NE(handle, nullptr);
        return handle;
    }

    // A one-shot timer started now: it fires `ticks` cycles after the cycle that carries
    // the start out.
    void *start_one_shot(uint32_t intervalMs, void *arg) {
        void *handle = create(ZEPO_TIMER_ONESHOT);
        EXPECT_EQ(petimer_start_reltimer(handle, intervalMs, arg), 0u);
        return handle;
    }

    size_t blocksBefore_ = 0;
    int32_t countBefore_ = 0;
};

// A handle table of five cells.
class SmallTable : public RelTimers {
protected:
    void SetUp() override {
        ZEPO_TMRSetMaxReltmNum(5);
        RelTimers::SetUp();
    }
    void TearDown() override {
        RelTimers::TearDown();
        ZEPO_TMRSetMaxReltmNum(2000);
    }
};

// ---- How intervals become ticks -------------------------------------------------------------

TEST_F(RelTimers, IntervalsBelowFiveMsFireAtTheNextTick) {
    advance(3);
    const uint32_t start = next_cycle();
    for (uint32_t ms : {0u, 1u, 4u}) start_one_shot(ms, tag(100 + ms));
    advance(4);
    for (uint32_t ms : {0u, 1u, 4u})
        EXPECT_EQ(cycles_of(tag(100 + ms)), std::vector<uint32_t>{start + 1}) << ms << " ms";
}

TEST_F(RelTimers, IntervalsOfFiveToFourteenMsTakeOneTickAndFifteenTakesTwo) {
    advance(2);
    const uint32_t start = next_cycle();
    for (uint32_t ms : {5u, 9u, 10u, 14u, 15u}) start_one_shot(ms, tag(100 + ms));
    advance(4);
    for (uint32_t ms : {5u, 9u, 10u, 14u})
        EXPECT_EQ(cycles_of(tag(100 + ms)), std::vector<uint32_t>{start + 1}) << ms << " ms";
    EXPECT_EQ(cycles_of(tag(115)), std::vector<uint32_t>{start + 2});
}

TEST_F(RelTimers, IntervalsRoundToTheNearestTickWithHalvesGoingUp) {
    const struct {
        uint32_t ms;
        uint32_t ticks;
    } cases[] = {{24, 2},    {25, 3},     {34, 3},     {35, 4},    {994, 99},
                 {995, 100}, {1000, 100}, {1004, 100}, {1005, 101}};
    const uint32_t start = next_cycle();
    for (const auto &c : cases) start_one_shot(c.ms, tag(c.ms));
    run_through(start + 102);
    for (const auto &c : cases)
        EXPECT_EQ(cycles_of(tag(c.ms)), std::vector<uint32_t>{start + c.ticks}) << c.ms << " ms";
}

TEST_F(RelTimers, LongestNearIntervalIs10234MsAnd10235MsIsTheFirstInATurnList) {
    advance(5);
    const uint32_t start = next_cycle();
    const uint32_t counter = counter_at(start);
    void *nearTimer = start_one_shot(10234, tag(1));
    void *turnTimer = start_one_shot(10235, tag(2));
    advance();
    const RelTimerView &nearRecord = rel_timer(nearTimer);
    EXPECT_EQ(nearRecord.list, 0u);
    EXPECT_EQ(nearRecord.due, (counter + 1023) & (kSlots - 1));
    const RelTimerView &turnRecord = rel_timer(turnTimer);
    EXPECT_EQ(turnRecord.list, 1u);
    // 1024 ticks lead to the current slot, processed right after the start: its turn is gone.
    EXPECT_EQ(turnRecord.due, counter & (kSlots - 1));
    run_through(start + 1025);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 1023});
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 1024});
}

TEST_F(RelTimers, TenSecondTimerLandsInTheCurrentSlotAndFires1024TicksLater) {
    advance(7);
    const uint32_t start = next_cycle();
    void *handle = start_one_shot(10240, tag(1));
    advance();
    const RelTimerView &record = rel_timer(handle);
    EXPECT_EQ(record.list, 1u);
    EXPECT_EQ(slot_of(record), counter_at(start) & (kSlots - 1));
    EXPECT_EQ(turns_of(record), 0u) << "its one turn passes in the cycle that starts it";
    run_through(start + 1023);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    run_through(start + 1030);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 1024});
}

TEST_F(RelTimers, TimerOfOneTurnAndATickWaitsItsTurnInTheNextSlot) {
    advance(3);
    const uint32_t start = next_cycle();
    void *handle = start_one_shot(10250, tag(1));
    advance();
    const RelTimerView &record = rel_timer(handle);
    EXPECT_EQ(record.list, 1u);
    EXPECT_EQ(slot_of(record), (counter_at(start) + 1) & (kSlots - 1));
    EXPECT_EQ(turns_of(record), 1u);
    advance();
    EXPECT_EQ(turns_of(rel_timer(handle)), 0u) << "the slot's first visit takes the turn";
    run_through(start + 1027);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 1025});
}

TEST_F(RelTimers, TwentyAndThirtySecondTimersWaitTwoAndThreeTurns) {
    advance(4);
    const uint32_t start = next_cycle();
    void *twenty = start_one_shot(20480, tag(20));
    void *thirty = start_one_shot(30720, tag(30));
    advance();
    // Both in the current slot's turn list, the later one's turns counted from the first.
    EXPECT_EQ(rel_timer(twenty).list, 1u);
    EXPECT_EQ(rel_timer(twenty).due, kSlots * 1 + (counter_at(start) & (kSlots - 1)));
    EXPECT_EQ(rel_timer(thirty).list, 1u);
    EXPECT_EQ(rel_timer(thirty).due, kSlots * 1 + (counter_at(start) & (kSlots - 1)));
    run_through(start + 3075);
    EXPECT_EQ(cycles_of(tag(20)), std::vector<uint32_t>{start + 2048});
    EXPECT_EQ(cycles_of(tag(30)), std::vector<uint32_t>{start + 3072});
}

// interval + 5 is taken in 32 bits: the last five intervals below 2^32 wrap to 0 to 4 ms and
// fire at the next tick; 2^32 - 6 ms is the longest interval there is, 429496729 ticks.
TEST_F(RelTimers, IntervalsNearTwoToThe32WrapWhenRoundedAndTheLongestWaitsItsTurns) {
    advance(2);
    const uint32_t start = next_cycle();
    for (uint32_t ms : {0xFFFFFFFBu, 0xFFFFFFFCu, 0xFFFFFFFFu}) start_one_shot(ms, tag(ms));
    void *longest = start_one_shot(0xFFFFFFFAu, tag(1));
    advance();
    const uint32_t ticks = 429496729u;  // (2^32 - 1) / 10
    const RelTimerView &record = rel_timer(longest);
    EXPECT_EQ(record.list, 1u);
    EXPECT_EQ(slot_of(record), (counter_at(start) + ticks) & (kSlots - 1));
    EXPECT_EQ(turns_of(record), ticks / kSlots);
    run_through(start + (ticks & (kSlots - 1)) + 1);  // past its slot's first visit
    for (uint32_t ms : {0xFFFFFFFBu, 0xFFFFFFFCu, 0xFFFFFFFFu})
        EXPECT_EQ(cycles_of(tag(ms)), std::vector<uint32_t>{start + 1}) << ms << " ms";
    EXPECT_EQ(turns_of(rel_timer(longest)), ticks / kSlots - 1);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
}

// ---- One-shot and periodic timers -------------------------------------------------------

TEST_F(RelTimers, OneShotTimerFiresOnceAfterItsTicksAndStaysCreated) {
    const uint32_t start = next_cycle();
    void *handle = start_one_shot(50, tag(1));
    run_through(start + 20);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 5});
    ASSERT_TRUE(holds_rel_timer(handle)) << "a one-shot timer of mode 1 stays allocated";
    EXPECT_TRUE(in_no_list(rel_timer(handle)));
    const uint32_t again = next_cycle();
    EXPECT_EQ(petimer_start_reltimer(handle, 30, tag(2)), 0u);
    run_through(again + 10);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{again + 3});
    EXPECT_EQ(cycles_of(tag(1)).size(), 1u);
}

TEST_F(RelTimers, AutoFreeTimerFiresOnceAndFreesItself) {
    const size_t blocks = live_blocks();
    void *handle = create(ZEPO_TIMER_AUTOFREE);
    EXPECT_EQ(g_reltmNum, countBefore_ + 1);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(1)), 0u);
    run_through(start + 2);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 2});
    // The cell is released at once; the record goes at the next tick.
    EXPECT_EQ(g_reltmNum, countBefore_);
    EXPECT_EQ(static_cast<void *>(g_pRelTail), handle);
    EXPECT_EQ(content_of(handle), nullptr);
    EXPECT_REFUSED(petimer_start_reltimer(handle, 20, tag(2)), 22u);
    EXPECT_EQ(live_blocks(), blocks + 2) << "the record and its free request";
    advance();
    EXPECT_EQ(live_blocks(), blocks);
    run_through(start + 10);
    EXPECT_EQ(cycles_of(tag(1)).size(), 1u);
    EXPECT_TRUE(cycles_of(tag(2)).empty());
}

TEST_F(RelTimers, ModeThreeFreesItselfLikeModeTwo) {
    const size_t blocks = live_blocks();
    void *handle = create(3);
    EXPECT_EQ(rel_timer(handle).mode, 3u);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 30, tag(1)), 0u);
    run_through(start + 3);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 3});
    EXPECT_FALSE(holds_rel_timer(handle));
    EXPECT_EQ(g_reltmNum, countBefore_);
    advance();
    EXPECT_EQ(live_blocks(), blocks);
    run_through(start + 10);
    EXPECT_EQ(cycles_of(tag(1)).size(), 1u);
}

TEST_F(RelTimers, OnlyTheLowEightBitsOfTheModeCount) {
    void *periodic = create(256);
    void *autoFree = create(0x102);
    void *allBits = create(-1);
    EXPECT_EQ(rel_timer(periodic).mode, 0u);
    EXPECT_EQ(rel_timer(autoFree).mode, 2u);
    EXPECT_EQ(rel_timer(allBits).mode, 0xFFu);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(periodic, 20, tag(1)), 0u);
    ASSERT_EQ(petimer_start_reltimer(autoFree, 20, tag(2)), 0u);
    ASSERT_EQ(petimer_start_reltimer(allBits, 20, tag(3)), 0u);
    run_through(start + 9);
    EXPECT_EQ(cycles_of(tag(1)), every(start + 2, 3, 3)) << "256 is periodic";
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 2});
    EXPECT_FALSE(holds_rel_timer(autoFree)) << "0x102 frees itself";
    EXPECT_EQ(cycles_of(tag(3)), std::vector<uint32_t>{start + 2});
    EXPECT_FALSE(holds_rel_timer(allBits)) << "0xFF has bit value 2: it frees itself";
}

TEST_F(RelTimers, TenMillisecondPeriodicTimerFiresEveryTwoTicks) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(1)), 0u);
    run_through(start + 100);
    EXPECT_EQ(cycles_of(tag(1)), every(start + 1, 2, 50));
}

TEST_F(RelTimers, HundredMillisecondPeriodicTimerFiresEveryElevenTicks) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 100, tag(1)), 0u);
    run_through(start + 10 + 11 * 29 + 5);
    EXPECT_EQ(cycles_of(tag(1)), every(start + 10, 11, 30));
}

TEST_F(RelTimers, PeriodicTimerBelowFiveMsFiresEveryTwoTicks) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 0, tag(1)), 0u);
    run_through(start + 10);
    EXPECT_EQ(cycles_of(tag(1)), every(start + 1, 2, 5));
}

// ---- Several ticks in one cycle, requests made by call-backs -----------------------------

TEST_F(RelTimers, CycleOfThreeTicksProcessesThreeSlotsInOrder) {
    const uint32_t start = next_cycle();
    start_one_shot(30, tag(3));
    start_one_shot(10, tag(1));
    start_one_shot(20, tag(2));
    start_one_shot(40, tag(4));
    advance();  // the starts, and the slot of the start's own tick
    g_cycle.fetch_add(1);
    run_cycle(30);  // a sleep of 30 ms: 3 ticks in one call of the wheel's hook
    EXPECT_EQ(fired_in(start + 1), (std::vector<void *>{tag(1), tag(2), tag(3)}));
    advance();
    EXPECT_EQ(cycles_of(tag(4)), std::vector<uint32_t>{start + 2});
    EXPECT_EQ(firing_count(), 4u);
}

// Starts the timer whose handle is its argument, for 0 ms.
void start_timer_of_arg(void *handle) {
    g_seen.result = petimer_start_reltimer(handle, 0, tag(2));
    g_seen.calls.fetch_add(1);
    note_firing(handle);
}

TEST_F(RelTimers, StartFromACallbackIsCarriedOutAtTheNextTick) {
    void *other = create(ZEPO_TIMER_ONESHOT);
    void *starter = create(ZEPO_TIMER_ONESHOT, start_timer_of_arg);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(starter, 20, other), 0u);
    run_through(start + 6);
    EXPECT_EQ(g_seen.result.load(), 0u);
    EXPECT_EQ(cycles_of(other), std::vector<uint32_t>{start + 2});
    // Carried out at the beginning of the next cycle, it fires at the tick after that.
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 4});
}

// ---- Order of firing ------------------------------------------------------------------------

TEST_F(RelTimers, TimersOfOneIntervalStartedInOneTickFireInStartOrder) {
    void *first = create(ZEPO_TIMER_ONESHOT);
    void *second = create(ZEPO_TIMER_ONESHOT);
    void *third = create(ZEPO_TIMER_ONESHOT);
    const uint32_t start = next_cycle();
    // Started in another order than created.
    ASSERT_EQ(petimer_start_reltimer(third, 40, tag(3)), 0u);
    ASSERT_EQ(petimer_start_reltimer(first, 40, tag(1)), 0u);
    ASSERT_EQ(petimer_start_reltimer(second, 40, tag(2)), 0u);
    run_through(start + 5);
    EXPECT_EQ(fired_in(start + 4), (std::vector<void *>{tag(3), tag(1), tag(2)}));
    EXPECT_EQ(firing_count(), 3u);
}

TEST_F(RelTimers, FewerTurnsStartedLaterIntoTheSameSlotGoFirstAndShortenTheNextDelta) {
    const uint32_t start = next_cycle();
    // 2068 ticks: two turns, to the slot of counter start + 19.
    void *a = start_one_shot(20680, tag(1));
    void *b = start_one_shot(20680, tag(2));
    void *c = start_one_shot(20680, tag(3));
    advance(2);
    const uint32_t slot = (counter_at(start) + 2068) & (kSlots - 1);
    EXPECT_EQ(rel_timer(a).due, 2 * kSlots + slot);
    EXPECT_EQ(rel_timer(b).due, slot) << "the same turns as the entry before it";
    EXPECT_EQ(rel_timer(c).due, slot);
    const uint32_t later = next_cycle();
    // 1042 ticks from two cycles later: one turn, the same slot.
    void *d = start_one_shot(10420, tag(4));
    advance();
    EXPECT_EQ(slot_of(rel_timer(d)), slot);
    EXPECT_EQ(rel_timer(d).due, kSlots + slot);
    EXPECT_EQ(rel_timer(a).due, kSlots + slot) << "a's turns now count from d";
    EXPECT_EQ(rel_timer(b).due, slot);
    EXPECT_EQ(rel_timer(c).due, slot);
    run_through(start + 2070);
    EXPECT_EQ(cycles_of(tag(4)), std::vector<uint32_t>{later + 1042});
    EXPECT_EQ(fired_in(start + 2068), (std::vector<void *>{tag(1), tag(2), tag(3)}));
    EXPECT_EQ(firing_count(), 4u);
}

TEST_F(RelTimers, NearListFiresBeforeTheTurnListOfTheSameSlot) {
    const uint32_t start = next_cycle();
    start_one_shot(10290, tag(1));  // 1029 ticks, in a turn list
    run_through(start + 28);
    const uint32_t later = next_cycle();
    start_one_shot(10000, tag(2));  // 1000 ticks, in the near list, due in the same tick
    run_through(start + 1030);
    EXPECT_EQ(later + 1000, start + 1029);
    EXPECT_EQ(fired_in(start + 1029), (std::vector<void *>{tag(2), tag(1)}));
    EXPECT_EQ(firing_count(), 2u);
}

// Three timers in one slot's turn list: first one turn, middle two, last two (a delta of 0
// behind the middle).  Taking the middle out hands its turn to the last.
class TurnHandOver : public RelTimers {
protected:
    void start_three() {
        start_ = next_cycle();
        first_ = start_one_shot(10340, tag(1));   // 1034 ticks
        middle_ = start_one_shot(20580, tag(2));  // 2058 ticks
        last_ = start_one_shot(20580, tag(3));
        advance();
        slot_ = (counter_at(start_) + 1034) & (kSlots - 1);
        EXPECT_EQ(rel_timer(first_).due, kSlots + slot_);
        EXPECT_EQ(rel_timer(middle_).due, kSlots + slot_);
        EXPECT_EQ(rel_timer(last_).due, slot_);
    }

    uint32_t start_ = 0;
    uint32_t slot_ = 0;
    void *first_ = nullptr;
    void *middle_ = nullptr;
    void *last_ = nullptr;
};

TEST_F(TurnHandOver, StoppingTheMiddleEntryKeepsTheNextEntrysFiringTick) {
    start_three();
    ASSERT_EQ(petimer_stop_reltimer_safe(middle_, nullptr, nullptr), 0u);
    advance();
    EXPECT_EQ(rel_timer(last_).due, kSlots + slot_);
    EXPECT_TRUE(in_no_list(rel_timer(middle_)));
    run_through(start_ + 2060);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start_ + 1034});
    EXPECT_TRUE(cycles_of(tag(2)).empty());
    EXPECT_EQ(cycles_of(tag(3)), std::vector<uint32_t>{start_ + 2058});
}

TEST_F(TurnHandOver, FreeingTheMiddleEntryKeepsTheNextEntrysFiringTick) {
    start_three();
    ASSERT_EQ(petimer_free_reltimer(middle_), 0u);
    advance();
    EXPECT_EQ(rel_timer(last_).due, kSlots + slot_);
    run_through(start_ + 2060);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start_ + 1034});
    EXPECT_TRUE(cycles_of(tag(2)).empty());
    EXPECT_EQ(cycles_of(tag(3)), std::vector<uint32_t>{start_ + 2058});
}

TEST_F(TurnHandOver, StoppingTheFirstEntryKeepsTheNextEntrysFiringTick) {
    start_three();
    ASSERT_EQ(petimer_stop_reltimer_safe(first_, nullptr, nullptr), 0u);
    advance();
    EXPECT_EQ(rel_timer(middle_).due, 2 * kSlots + slot_);
    run_through(start_ + 2060);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    EXPECT_EQ(fired_in(start_ + 2058), (std::vector<void *>{tag(2), tag(3)}));
    EXPECT_EQ(firing_count(), 2u);
}

TEST_F(TurnHandOver, FreeingTheFirstEntryKeepsTheNextEntrysFiringTick) {
    start_three();
    ASSERT_EQ(petimer_free_reltimer(first_), 0u);
    advance();
    EXPECT_EQ(rel_timer(middle_).due, 2 * kSlots + slot_);
    run_through(start_ + 2060);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    EXPECT_EQ(fired_in(start_ + 2058), (std::vector<void *>{tag(2), tag(3)}));
    EXPECT_EQ(firing_count(), 2u);
}

TEST_F(TurnHandOver, StoppingTheFirstEntryAfterItsTurnPassedKeepsTheNextEntrysFiringTick) {
    start_three();
    run_through(start_ + 12);  // the slot's first visit: the first entry has no turns left
    EXPECT_EQ(rel_timer(first_).due, slot_);
    ASSERT_EQ(petimer_stop_reltimer_safe(first_, nullptr, nullptr), 0u);
    advance();
    EXPECT_EQ(rel_timer(middle_).due, kSlots + slot_);
    run_through(start_ + 2060);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    EXPECT_EQ(fired_in(start_ + 2058), (std::vector<void *>{tag(2), tag(3)}));
}

// ---- Restart ----------------------------------------------------------------------------------

TEST_F(RelTimers, StartingARunningOneShotTimerRestartsItWithTheNewIntervalAndArgument) {
    const uint32_t start = next_cycle();
    void *handle = start_one_shot(100, tag(1));
    run_through(start + 3);
    const uint32_t restart = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 30, tag(2)), 0u);
    run_through(start + 15);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{restart + 3});
    EXPECT_EQ(rel_timer(handle).interval, 30u);
    EXPECT_EQ(rel_timer(handle).arg, tag(2));
}

TEST_F(RelTimers, StartingARunningPeriodicTimerRestartsItsPeriod) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 50, tag(1)), 0u);
    run_through(start + 7);  // fired in start + 5, due again in start + 11
    const uint32_t restart = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(2)), 0u);
    run_through(restart + 11);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 5});
    EXPECT_EQ(cycles_of(tag(2)), every(restart + 2, 3, 4));
}

// ---- Stop -------------------------------------------------------------------------------------

TEST_F(RelTimers, StopTakesTheTimerOutAndCallsTheDoneFunctionOnTheDriverThread) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    g_watched = handle;
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 30, tag(1)), 0u);
    run_through(start + 3);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 3});
    const uint32_t stop = next_cycle();
    ASSERT_EQ(petimer_stop_reltimer_safe(handle, note_done, tag(77)), 0u);
    EXPECT_TRUE(done_calls().empty()) << "the stop is carried out by the driver";
    const uint64_t driver = petimer_getTreadId();
    run_through(start + 20);
    const std::vector<DoneCall> calls = done_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arg, tag(77));
    EXPECT_EQ(calls[0].thread, driver);
    EXPECT_NE(calls[0].thread, static_cast<uint64_t>(pthread_self()));
    EXPECT_TRUE(calls[0].unlinked) << "the done function runs after the timer left the wheel";
    EXPECT_EQ(calls[0].cycle, stop);
    EXPECT_EQ(cycles_of(tag(1)).size(), 1u) << "a stopped timer does not fire";
    EXPECT_TRUE(holds_rel_timer(handle)) << "a stopped timer stays created";
}

TEST_F(RelTimers, StoppedTimerCanBeStartedAgain) {
    void *handle = create(ZEPO_TIMER_ONESHOT);
    ASSERT_EQ(petimer_start_reltimer(handle, 50, tag(1)), 0u);
    advance(2);
    ASSERT_EQ(petimer_stop_reltimer_safe(handle, nullptr, nullptr), 0u);
    advance(10);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    const uint32_t again = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 40, tag(2)), 0u);
    run_through(again + 8);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{again + 4});
}

TEST_F(RelTimers, StopWithoutDoneFunctionAndStopOfAnIdleTimerAreCarriedOut) {
    void *running = create(ZEPO_TIMER_PERIODIC);
    void *idle = create(ZEPO_TIMER_ONESHOT);
    ASSERT_EQ(petimer_start_reltimer(running, 20, tag(1)), 0u);
    advance();
    ASSERT_EQ(petimer_stop_reltimer_safe(running, nullptr, tag(5)), 0u);
    ASSERT_EQ(petimer_stop_reltimer_safe(idle, note_done, tag(6)), 0u);
    advance(8);
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    const std::vector<DoneCall> calls = done_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arg, tag(6));
    EXPECT_TRUE(holds_rel_timer(running));
    EXPECT_TRUE(holds_rel_timer(idle));
}

TEST_F(RelTimers, StopExGivesTheArgumentOfTheLastCarriedOutStart) {
    void *handle = create(ZEPO_TIMER_ONESHOT);
    void *out = tag(99);
    ASSERT_EQ(petimer_stop_reltimer_safeEx(handle, nullptr, nullptr, &out), 0u);
    EXPECT_EQ(out, nullptr) << "a timer never started has no argument";
    ASSERT_EQ(petimer_start_reltimer(handle, 1000, tag(1)), 0u);
    advance();
    ASSERT_EQ(petimer_start_reltimer(handle, 1000, tag(2)), 0u);  // queued, not carried out
    ASSERT_EQ(petimer_stop_reltimer_safeEx(handle, note_done, tag(8), &out), 0u);
    EXPECT_EQ(out, tag(1));
    advance();
    // The start, then the stop.
    EXPECT_TRUE(in_no_list(rel_timer(handle)));
    EXPECT_EQ(rel_timer(handle).arg, tag(2));
    ASSERT_EQ(done_calls().size(), 1u);
    EXPECT_EQ(done_calls()[0].arg, tag(8));
    ASSERT_EQ(petimer_stop_reltimer_safeEx(handle, nullptr, nullptr, &out), 0u);
    EXPECT_EQ(out, tag(2));
    run_through(110);
    EXPECT_EQ(firing_count(), 0u);
}

// ---- Free ---------------------------------------------------------------------------------------

TEST_F(RelTimers, FreeInvalidatesTheHandleAtOnceAndReleasesTheRecordAtTheNextTick) {
    const size_t blocks = live_blocks();
    void *handle = create(ZEPO_TIMER_PERIODIC);
    EXPECT_EQ(g_reltmNum, countBefore_ + 1);
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(1)), 0u);
    advance();
    errno = kSentinel;
    ASSERT_EQ(petimer_free_reltimer(handle), 0u);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(g_reltmNum, countBefore_) << "counted down at once";
    EXPECT_EQ(static_cast<void *>(g_pRelTail), handle) << "appended at the tail";
    EXPECT_EQ(content_of(handle), nullptr);
    EXPECT_REFUSED(petimer_free_reltimer(handle), 22u);
    EXPECT_REFUSED(petimer_start_reltimer(handle, 20, tag(2)), 22u);
    EXPECT_EQ(g_reltmNum, countBefore_);
    EXPECT_EQ(live_blocks(), blocks + 2) << "the record and its free request";
    advance();
    EXPECT_EQ(live_blocks(), blocks);
    advance(10);
    EXPECT_EQ(firing_count(), 0u) << "freed before it was due";
}

TEST_F(SmallTable, FreedCellsAreReusedLastInTheOrderTheyWereFreed) {
    ASSERT_EQ(ulMaxReltmNum, 5u);
    void *a = create(ZEPO_TIMER_ONESHOT);
    void *b = create(ZEPO_TIMER_ONESHOT);
    EXPECT_EQ(a, cell(0));
    EXPECT_EQ(b, cell(1));
    ASSERT_EQ(petimer_free_reltimer(a), 0u);
    ASSERT_EQ(petimer_free_reltimer(b), 0u);
    EXPECT_EQ(static_cast<void *>(g_pRelHead), cell(2));
    EXPECT_EQ(static_cast<void *>(g_pRelTail), b);
    EXPECT_EQ(content_of(a), b) << "a links to b";
    EXPECT_EQ(content_of(b), nullptr);
    EXPECT_EQ(g_reltmNum, countBefore_);
    std::vector<void *> handles;
    for (int i = 0; i < 5; ++i) handles.push_back(create(ZEPO_TIMER_ONESHOT));
    EXPECT_EQ(handles, (std::vector<void *>{cell(2), cell(3), cell(4), a, b}));
    EXPECT_EQ(g_pRelHead, nullptr);
    EXPECT_EQ(g_pRelTail, nullptr);
    EXPECT_EQ(g_reltmNum, countBefore_ + 5);
    advance();
}

TEST_F(SmallTable, ReleasedCellOfAFullTableBecomesHeadAndTail) {
    std::vector<void *> handles;
    for (int i = 0; i < 5; ++i)
        handles.push_back(petimer_create_reltimer(note_firing, 1, 0, nullptr));
    ASSERT_EQ(g_pRelHead, nullptr);
    ASSERT_EQ(petimer_free_reltimer(handles[3]), 0u);
    EXPECT_EQ(static_cast<void *>(g_pRelHead), handles[3]);
    EXPECT_EQ(static_cast<void *>(g_pRelTail), handles[3]);
    EXPECT_EQ(petimer_create_reltimer(note_firing, 1, 0, nullptr), handles[3]);
}

// ---- Call-backs that free or stop timers --------------------------------------------------

// A timer that frees itself in its call-back: freed once, its handle invalid at once.
void expect_freed_once_in_own_callback(uint32_t mode, int32_t countBefore) {
    const size_t blocks = live_blocks();
    void *handle = ZEPO_CreateRelTimerM(free_timer_of_arg, static_cast<int32_t>(mode), 1, "own");
    ASSERT_NE(handle, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, handle), 0u);
    run_through(start + 2);
    EXPECT_EQ(g_seen.calls.load(), 1);
    EXPECT_EQ(g_seen.result.load(), 0u);
    EXPECT_EQ(g_seen.after.load(), 22u) << "invalid at once";
    EXPECT_EQ(g_reltmNum, countBefore) << "counted down once";
    EXPECT_FALSE(holds_rel_timer(handle));
    run_through(start + 12);
    EXPECT_EQ(g_seen.calls.load(), 1);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(g_reltmNum, countBefore);
}

TEST_F(RelTimers, AutoFreeTimerFreedInItsOwnCallbackIsFreedOnce) {
    expect_freed_once_in_own_callback(ZEPO_TIMER_AUTOFREE, countBefore_);
}

TEST_F(RelTimers, OneShotTimerFreedInItsOwnCallbackIsFreedOnce) {
    expect_freed_once_in_own_callback(ZEPO_TIMER_ONESHOT, countBefore_);
}

TEST_F(RelTimers, PeriodicTimerFreedInItsOwnCallbackStopsAndIsFreedOnce) {
    expect_freed_once_in_own_callback(ZEPO_TIMER_PERIODIC, countBefore_);
}

// The first timer's call-back frees the second, due in the same tick right after it.
void free_the_next_in_the_same_tick(uint32_t victimMode, uint32_t &start, void *&victim) {
    void *killer = ZEPO_CreateRelTimerM(free_timer_of_arg, ZEPO_TIMER_ONESHOT, 1, "killer");
    victim = ZEPO_CreateRelTimerM(note_firing, static_cast<int32_t>(victimMode), 2, "victim");
    ASSERT_NE(killer, nullptr);
    ASSERT_NE(victim, nullptr);
    start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(killer, 30, victim), 0u);
    ASSERT_EQ(petimer_start_reltimer(victim, 30, tag(2)), 0u);
    run_through(start + 3);
    ASSERT_EQ(g_seen.calls.load(), 1);
    EXPECT_EQ(g_seen.result.load(), 0u);
}

TEST_F(RelTimers, PeriodicTimerFreedByAnEarlierCallbackOfTheSameTickIsNotCalled) {
    const size_t blocks = live_blocks();
    uint32_t start = 0;
    void *victim = nullptr;
    free_the_next_in_the_same_tick(ZEPO_TIMER_PERIODIC, start, victim);
    run_through(start + 12);
    EXPECT_TRUE(cycles_of(tag(2)).empty());
    EXPECT_EQ(g_reltmNum, countBefore_ + 1) << "the killer stays";
    EXPECT_EQ(live_blocks(), blocks + 1);
}

TEST_F(RelTimers, OneShotTimerFreedByAnEarlierCallbackOfTheSameTickIsStillCalledOnce) {
    const size_t blocks = live_blocks();
    uint32_t start = 0;
    void *victim = nullptr;
    free_the_next_in_the_same_tick(ZEPO_TIMER_ONESHOT, start, victim);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 3});
    run_through(start + 12);
    EXPECT_EQ(cycles_of(tag(2)).size(), 1u);
    EXPECT_EQ(live_blocks(), blocks + 1);
}

TEST_F(RelTimers, AutoFreeTimerFreedByAnEarlierCallbackOfTheSameTickIsCalledAndFreedOnce) {
    const size_t blocks = live_blocks();
    uint32_t start = 0;
    void *victim = nullptr;
    free_the_next_in_the_same_tick(ZEPO_TIMER_AUTOFREE, start, victim);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 3});
    EXPECT_EQ(g_reltmNum, countBefore_ + 1) << "counted down once, by the explicit free";
    run_through(start + 12);
    EXPECT_EQ(cycles_of(tag(2)).size(), 1u);
    EXPECT_EQ(live_blocks(), blocks + 1);
    EXPECT_EQ(g_reltmNum, countBefore_ + 1);
}

TEST_F(RelTimers, StopInsideAPeriodicCallbackTakesEffect) {
    void *handle = ZEPO_CreateRelTimerM(stop_timer_of_arg, ZEPO_TIMER_PERIODIC, 1, "stopper");
    ASSERT_NE(handle, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, handle), 0u);
    run_through(start + 20);
    EXPECT_EQ(g_seen.calls.load(), 1);
    EXPECT_EQ(g_seen.result.load(), 0u);
    EXPECT_EQ(cycles_of(handle), std::vector<uint32_t>{start + 2});
    ASSERT_TRUE(holds_rel_timer(handle));
    EXPECT_TRUE(in_no_list(rel_timer(handle)));
}

// ---- The long-call-back warning --------------------------------------------------------------

TEST_F(RelTimers, CallbackLongerThan100MsIsReportedWithTheCreatorsNameAndLine) {
    capture_trace();
    void *handle = ZEPO_CreateRelTimerM(work_for, ZEPO_TIMER_ONESHOT, 4321, kCreator);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(101)), 0u);
    advance(5);
    ASSERT_EQ(cycles_of(tag(101)).size(), 1u);
    EXPECT_EQ(traces(),
              std::vector<std::string>{"warning: timer_timeout_proc execution time is too long! "
                                       "timer[rel_sensor.c:4321] takes time 101\n"});
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST_F(RelTimers, CallbackOf100MsIsNotReported) {
    capture_trace();
    void *handle = ZEPO_CreateRelTimerM(work_for, ZEPO_TIMER_ONESHOT, 4321, kCreator);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(100)), 0u);
    advance(5);
    ASSERT_EQ(cycles_of(tag(100)).size(), 1u);
    EXPECT_TRUE(traces().empty());
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST_F(RelTimers, LongCallbackOfAnEngineCreatedTimerIsReportedWithoutNameAndWithTheMarkerLine) {
    capture_trace();
    void *handle = petimer_create_reltimer(work_for, ZEPO_TIMER_ONESHOT, 4321, kCreator);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(150)), 0u);
    advance(5);
    ASSERT_EQ(cycles_of(tag(150)).size(), 1u);
    // 0xDEADDEAD printed with %d.
    EXPECT_EQ(static_cast<int32_t>(kNoCreatorLine), -559030611);
    EXPECT_EQ(traces(),
              std::vector<std::string>{"warning: timer_timeout_proc execution time is too long! "
                                       "timer[(null):-559030611] takes time 150\n"});
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST_F(RelTimers, LongCallbackWithoutATraceFunctionSendsNothing) {
    capture_trace();
    ZEPO_TimerRegDebugTrace(nullptr);
    void *handle = ZEPO_CreateRelTimerM(work_for, ZEPO_TIMER_PERIODIC, 4321, kCreator);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(300)), 0u);
    advance(6);
    EXPECT_GE(cycles_of(tag(300)).size(), 2u);
    EXPECT_TRUE(traces().empty());
}

// ---- Handles that are refused --------------------------------------------------------------

// Every request on the handle is refused with 22, leaves errno alone, allocates nothing and
// queues nothing.
void expect_every_request_refused(void *handle, const char *what) {
    SCOPED_TRACE(what);
    const size_t blocks = live_blocks();
    void **const head = g_pRelHead;
    void **const tail = g_pRelTail;
    EXPECT_REFUSED(petimer_start_reltimer(handle, 10, tag(1)), 22u);
    EXPECT_REFUSED(petimer_stop_reltimer_safe(handle, note_done, tag(2)), 22u);
    void *out = tag(3);
    EXPECT_REFUSED(petimer_stop_reltimer_safeEx(handle, note_done, tag(4), &out), 22u);
    EXPECT_EQ(out, tag(3)) << "nothing stored for a refused handle";
    EXPECT_REFUSED(petimer_free_reltimer(handle), 22u);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(g_pRelHead, head);
    EXPECT_EQ(g_pRelTail, tail);
}

TEST_F(RelTimers, RequestsOnHandlesOutsideTheTableAreRefused) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(9)), 0u);
    const int32_t count = g_reltmNum;
    const auto first = reinterpret_cast<uintptr_t>(g_szRelTimer);
    expect_every_request_refused(nullptr, "null");
    expect_every_request_refused(reinterpret_cast<void *>(first - sizeof(void *)),
                                 "the cell before the table");
    expect_every_request_refused(
        reinterpret_cast<void *>(first + uintptr_t{ulMaxReltmNum} * sizeof(void *)),
        "the cell past the last");
    EXPECT_EQ(g_reltmNum, count);
    run_through(start + 8);
    EXPECT_TRUE(done_calls().empty());
    EXPECT_EQ(cycles_of(tag(9)), every(start + 2, 3, 3)) << "the live timer goes on unchanged";
    EXPECT_TRUE(cycles_of(tag(1)).empty());
}

TEST_F(RelTimers, RequestsOnFreeCellsAreRefused) {
    void *handle = create(ZEPO_TIMER_ONESHOT);
    ASSERT_NE(g_pRelHead, g_pRelTail);
    expect_every_request_refused(g_pRelHead, "the first free cell (a link)");
    expect_every_request_refused(g_pRelTail, "the last free cell (holding nothing)");
    ASSERT_EQ(petimer_free_reltimer(handle), 0u);
    expect_every_request_refused(handle, "a freed timer's cell");
    void *other = create(ZEPO_TIMER_ONESHOT);
    ASSERT_EQ(petimer_free_reltimer(other), 0u);
    EXPECT_EQ(content_of(handle), other) << "the freed cell now links to the next freed one";
    expect_every_request_refused(handle, "a freed cell that links to another");
    advance(3);
    EXPECT_TRUE(done_calls().empty());
    EXPECT_EQ(firing_count(), 0u);
}

// What the probe saw while the engine was quitting.
struct QuitProbe {
    void *victim = nullptr;
    void *block = nullptr;
    uint32_t start = 0, stop = 0, stopEx = 0, freeResult = 0, freeArg = 0;
    int errnoAfter = 0;
    void *out = nullptr;
    size_t blocksBefore = 0, blocksAfter = 0;
    bool quitting = false;
    void *createdWhileQuitting = nullptr;
};
QuitProbe g_probe;

// Raises the quitting flag, tries every request on the victim, and lowers the flag again
// before the driver looks at it.
void probe_while_quitting(void *) {
    QuitProbe &p = g_probe;
    petimer_setQuitingFlag(1, 1);
    p.quitting = petimer_isQuiting() != 0;
    p.blocksBefore = live_blocks();
    p.out = tag(55);
    errno = kSentinel;
    p.start = petimer_start_reltimer(p.victim, 10, tag(1));
    p.stop = petimer_stop_reltimer_safe(p.victim, note_done, tag(2));
    p.stopEx = petimer_stop_reltimer_safeEx(p.victim, note_done, tag(3), &p.out);
    p.freeResult = petimer_free_reltimer(p.victim);
    p.freeArg = petimer_free_reltimerarg_safe(p.block);
    p.errnoAfter = errno;
    p.blocksAfter = live_blocks();
    // The engine's own creation does not look at the flag.
    p.createdWhileQuitting = petimer_create_reltimer(note_firing, 1, 0, nullptr);
    petimer_setQuitingFlag(0, 0);
}

TEST_F(RelTimers, EveryRequestIsRefusedWhileTheEngineQuits) {
    QuitProbe &p = g_probe;
    p.victim = create(ZEPO_TIMER_PERIODIC);
    p.block = new_block();
    ASSERT_NE(p.block, nullptr);
    void *prober = create(ZEPO_TIMER_ONESHOT, probe_while_quitting);
    const int32_t count = g_reltmNum;
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(p.victim, 20, tag(9)), 0u);
    ASSERT_EQ(petimer_start_reltimer(prober, 10, nullptr), 0u);
    run_through(start + 8);
    EXPECT_TRUE(p.quitting);
    EXPECT_EQ(p.start, 22u);
    EXPECT_EQ(p.stop, 22u);
    EXPECT_EQ(p.stopEx, 22u);
    EXPECT_EQ(p.freeResult, 22u);
    EXPECT_EQ(p.freeArg, 22u);
    EXPECT_EQ(p.errnoAfter, kSentinel);
    EXPECT_EQ(p.out, tag(55));
    EXPECT_EQ(p.blocksAfter, p.blocksBefore);
    EXPECT_TRUE(is_live(p.block)) << "a refused block stays the caller's";
    EXPECT_NE(p.createdWhileQuitting, nullptr);
    EXPECT_EQ(g_reltmNum, count);
    EXPECT_TRUE(holds_rel_timer(p.victim));
    EXPECT_TRUE(done_calls().empty());
    EXPECT_EQ(cycles_of(tag(9)), every(start + 2, 3, 3)) << "the victim goes on unchanged";
    EXPECT_TRUE(cycles_of(tag(1)).empty());
    release_block(p.block);
}

// ---- Creation --------------------------------------------------------------------------------

TEST_F(RelTimers, CreateWithoutCallbackGivesNullAndEinval) {
    const size_t blocks = live_blocks();
    void **const head = g_pRelHead;
    EXPECT_SERVICE_FAILS(petimer_create_reltimer(nullptr, 1, 0, nullptr), nullptr, EINVAL);
    EXPECT_SERVICE_FAILS(ZEPO_CreateRelTimerM(nullptr, 1, 7, kCreator), nullptr, EINVAL);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(g_pRelHead, head);
    EXPECT_EQ(g_reltmNum, countBefore_);
}

TEST_F(RelTimers, CreateWithoutMemoryGivesNullAndEnomem) {
    const size_t blocks = live_blocks();
    void **const head = g_pRelHead;
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_create_reltimer(note_firing, 1, 0, nullptr), nullptr, ENOMEM);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(ZEPO_CreateRelTimerM(note_firing, 1, 7, kCreator), nullptr, ENOMEM);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(g_pRelHead, head);
    EXPECT_EQ(g_reltmNum, countBefore_);
}

TEST_F(SmallTable, CreateOnAFullTableGivesNullAndLeavesErrnoAlone) {
    for (int i = 0; i < 5; ++i)
        ASSERT_NE(petimer_create_reltimer(note_firing, 1, 0, nullptr), nullptr);
    EXPECT_EQ(g_pRelHead, nullptr);
    EXPECT_EQ(g_pRelTail, nullptr);
    const size_t blocks = live_blocks();
    EXPECT_REFUSED(petimer_create_reltimer(note_firing, 1, 0, nullptr), nullptr);
    EXPECT_EQ(live_blocks(), blocks) << "the record is released again";
    EXPECT_EQ(g_reltmNum, countBefore_) << "the engine's creation is not counted";
}

TEST_F(RelTimers, EngineCreatedTimerHasTheMarkerLineNoNameAndIsNotCounted) {
    void *handle = petimer_create_reltimer(note_firing, ZEPO_TIMER_ONESHOT, 1234, kCreator);
    ASSERT_EQ(handle, cell(0));
    const RelTimerView &record = rel_timer(handle);
    EXPECT_EQ(record.line, kNoCreatorLine);
    EXPECT_EQ(record.name, nullptr);
    EXPECT_EQ(record.mode, 1u);
    EXPECT_EQ(record.index, 0u);
    EXPECT_EQ(record.pfnTimeout, note_firing);
    EXPECT_TRUE(in_no_list(record)) << "not running after creation";
    EXPECT_EQ(g_reltmNum, countBefore_);
    EXPECT_EQ(static_cast<void *>(g_pRelHead), cell(1));
}

TEST_F(RelTimers, PublicCreationNamesTheTimerAndCountsIt) {
    void *first = petimer_create_reltimer(note_firing, ZEPO_TIMER_ONESHOT, 0, nullptr);
    void *handle = ZEPO_CreateRelTimerM(note_firing, ZEPO_TIMER_ONESHOT, 1234, kCreator);
    ASSERT_EQ(handle, cell(1));
    EXPECT_NE(first, handle);
    EXPECT_EQ(rel_timer(handle).line, 1234u);
    EXPECT_EQ(rel_timer(handle).name, kCreator);
    EXPECT_EQ(rel_timer(handle).index, 1u);
    EXPECT_EQ(g_reltmNum, countBefore_ + 1);
}

// ---- Requests without memory -----------------------------------------------------------------

constexpr const char *kTaskletSource = "tmr_tsklet.cpp";

// A running periodic timer of 20 ms (firing in start + 2, + 5, + 8) on which a request fails;
// it must go on as before.
class NoMemoryForARequest : public RelTimers {
protected:
    void SetUp() override {
        RelTimers::SetUp();
        handle_ = create(ZEPO_TIMER_PERIODIC);
        start_ = next_cycle();
        ASSERT_EQ(petimer_start_reltimer(handle_, 20, tag(1)), 0u);
        count_ = g_reltmNum;
        blocks_ = live_blocks();
        head_ = g_pRelHead;
        tail_ = g_pRelTail;
    }

    void expect_unchanged() {
        fail_allocation(0);
        EXPECT_EQ(live_blocks(), blocks_) << "nothing allocated, nothing queued";
        EXPECT_EQ(g_reltmNum, count_);
        EXPECT_EQ(g_pRelHead, head_);
        EXPECT_EQ(g_pRelTail, tail_);
        EXPECT_TRUE(holds_rel_timer(handle_));
        run_through(start_ + 9);
        EXPECT_EQ(cycles_of(tag(1)), every(start_ + 2, 3, 3));
        EXPECT_TRUE(cycles_of(tag(2)).empty());
        EXPECT_TRUE(done_calls().empty());
    }

    void *handle_ = nullptr;
    uint32_t start_ = 0;
    int32_t count_ = 0;
    size_t blocks_ = 0;
    void **head_ = nullptr;
    void **tail_ = nullptr;
};

TEST_F(NoMemoryForARequest, StartWithoutARequestRecordGivesEnomem) {
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_start_reltimer(handle_, 10, tag(2)), 12u, ENOMEM);
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, StartWithoutAQueueEntryGivesEnomem) {
    fail_allocation(1, kTaskletSource);
    EXPECT_SERVICE_FAILS(petimer_start_reltimer(handle_, 10, tag(2)), 12u, ENOMEM);
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, StopWithoutARequestRecordGivesEnomem) {
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_stop_reltimer_safe(handle_, note_done, tag(2)), 12u, ENOMEM);
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, StopWithoutAQueueEntryGivesEnomem) {
    fail_allocation(1, kTaskletSource);
    EXPECT_SERVICE_FAILS(petimer_stop_reltimer_safe(handle_, note_done, tag(2)), 12u, ENOMEM);
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, StopExWithoutARequestRecordGivesEnomemAndStoresNothing) {
    void *out = tag(3);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_stop_reltimer_safeEx(handle_, note_done, tag(2), &out), 12u,
                         ENOMEM);
    EXPECT_EQ(out, tag(3));
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, StopExWithoutAQueueEntryGivesEnomem) {
    void *out = tag(3);
    fail_allocation(1, kTaskletSource);
    EXPECT_SERVICE_FAILS(petimer_stop_reltimer_safeEx(handle_, note_done, tag(2), &out), 12u,
                         ENOMEM);
    expect_unchanged();
}

TEST_F(NoMemoryForARequest, FreeWithoutAQueueEntryGivesEnomemAndKeepsTheHandle) {
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_free_reltimer(handle_), 12u, ENOMEM);
    expect_unchanged();
    EXPECT_EQ(petimer_free_reltimer(handle_), 0u) << "the handle is still good";
}

TEST_F(NoMemoryForARequest, FreeArgWithoutAQueueEntryGivesEnomemAndKeepsTheBlock) {
    void *block = new_block();
    ASSERT_NE(block, nullptr);
    blocks_ = live_blocks();
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_free_reltimerarg_safe(block), 12u, ENOMEM);
    EXPECT_TRUE(is_live(block));
    expect_unchanged();
    EXPECT_TRUE(is_live(block));
    release_block(block);
}

TEST_F(RelTimers, PeriodicTimerWhoseRearmCannotBeQueuedStops) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(1)), 0u);
    run_through(start + 4);  // fired in start + 2, due again in start + 5
    fail_allocation(1, kTaskletSource);
    advance();  // fires; its re-arm finds no memory
    fail_allocation(0);
    run_through(start + 20);
    EXPECT_EQ(cycles_of(tag(1)), (std::vector<uint32_t>{start + 2, start + 5}));
    ASSERT_TRUE(holds_rel_timer(handle));
    EXPECT_TRUE(in_no_list(rel_timer(handle)));
    const uint32_t again = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(2)), 0u);
    run_through(again + 3);
    EXPECT_EQ(cycles_of(tag(2)), (std::vector<uint32_t>{again + 1, again + 3}));
}

TEST_F(RelTimers, AutoFreeWithoutMemoryLeavesTheTimerCreated) {
    void *handle = create(ZEPO_TIMER_AUTOFREE);
    const int32_t count = g_reltmNum;
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 30, tag(1)), 0u);
    run_through(start + 2);
    fail_allocation(1, kTaskletSource);
    advance();  // fires; the free that follows finds no memory
    fail_allocation(0);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 3});
    EXPECT_TRUE(holds_rel_timer(handle));
    EXPECT_EQ(g_reltmNum, count);
    const uint32_t again = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(handle, 10, tag(2)), 0u);
    run_through(again + 3);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{again + 1});
    EXPECT_FALSE(holds_rel_timer(handle)) << "this time it freed itself";
}

// ---- Fire-and-forget timers ------------------------------------------------------------------

TEST_F(RelTimers, SimpleTimerFiresOnceFreesItselfAndCountsDownUncounted) {
    const size_t blocks = live_blocks();
    void **const head = g_pRelHead;
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer_simple(30, note_firing, tag(1)), 0u);
    EXPECT_EQ(g_reltmNum, countBefore_) << "not counted when created";
    EXPECT_NE(g_pRelHead, head) << "a cell is taken";
    EXPECT_TRUE(holds_rel_timer(head));
    EXPECT_EQ(rel_timer(head).mode, 2u);
    run_through(start + 3);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 3});
    EXPECT_EQ(g_reltmNum, countBefore_ - 1) << "yet counted down when it frees itself";
    EXPECT_FALSE(holds_rel_timer(head));
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(10, note_firing, tag(2)), 0u);
    run_through(start + 10);
    EXPECT_EQ(cycles_of(tag(1)).size(), 1u);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 5});
    EXPECT_EQ(g_reltmNum, countBefore_ - 2);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST_F(RelTimers, SimpleTimerWithoutCallbackGives12) {
    const size_t blocks = live_blocks();
    EXPECT_SERVICE_FAILS(petimer_start_reltimer_simple(30, nullptr, tag(1)), 12u, EINVAL);
    EXPECT_SERVICE_FAILS(ZEPO_StartRelTimer_Simple(30, nullptr, tag(1)), 12u, EINVAL);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST_F(RelTimers, SimpleTimerWhoseStartFailsStaysUntilTheEngineStops) {
    const size_t blocks = live_blocks();
    void **const head = g_pRelHead;
    fail_allocation(2);  // the record comes first, then the start request
    EXPECT_SERVICE_FAILS(petimer_start_reltimer_simple(30, note_firing, tag(1)), 12u, ENOMEM);
    fail_allocation(0);
    EXPECT_TRUE(holds_rel_timer(head)) << "the created timer is left in the table";
    EXPECT_EQ(live_blocks(), blocks + 1);
    advance(10);
    EXPECT_EQ(firing_count(), 0u);
    EXPECT_TRUE(holds_rel_timer(head));
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(live_blocks(), blocksBefore_);
    EXPECT_EQ(g_reltmNum, countBefore_ - 1) << "freed with the engine, and counted down";
}

TEST(RelTimersOnDemand, SimpleStartStartsTheEngine) {
    forget_calls();
    const size_t blocks = live_blocks();
    use_scripted_clock();
    ASSERT_EQ(petimer_getTreadId(), 0u);
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(20, note_firing, tag(1)), 0u);
    EXPECT_NE(petimer_getTreadId(), 0u);
    wait_parked();
    advance(4);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{3u});
    stop_engine();
    EXPECT_EQ(live_blocks(), blocks);
}

// ---- Releasing a call-back's argument --------------------------------------------------------

std::atomic<bool> g_blockLiveInDone{false};
std::atomic<void *> g_blockToCheck{nullptr};

void check_block_in_done(void *) { g_blockLiveInDone = is_live(g_blockToCheck.load()); }

TEST_F(RelTimers, FreeArgReleasesTheBlockOnTheDriverAfterTheRequestsBeforeIt) {
    void *block = new_block();
    ASSERT_NE(block, nullptr);
    g_blockToCheck = block;
    void *handle = create(ZEPO_TIMER_PERIODIC);
    ASSERT_EQ(petimer_start_reltimer(handle, 20, block), 0u);
    advance(3);
    EXPECT_EQ(cycles_of(block).size(), 1u);
    void *out = nullptr;
    ASSERT_EQ(petimer_stop_reltimer_safeEx(handle, check_block_in_done, nullptr, &out), 0u);
    ASSERT_EQ(out, block);
    errno = kSentinel;
    ASSERT_EQ(petimer_free_reltimerarg_safe(out), 0u);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_TRUE(is_live(block)) << "released by the driver, not at once";
    advance();
    EXPECT_TRUE(g_blockLiveInDone.load()) << "the stop queued before it ran first";
    EXPECT_FALSE(is_live(block));
    advance(5);
    EXPECT_EQ(cycles_of(block).size(), 1u);
}

TEST(RelTimersOnDemand, FreeArgWithoutAnEngineReleasesTheBlockAtOnce) {
    void *block = new_block();
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(petimer_free_reltimerarg_safe(block), 0u);
    EXPECT_FALSE(is_live(block));

    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    block = new_block();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(block), 0u);
    EXPECT_FALSE(is_live(block)) << "after a stop too";
}

// ---- Tear-down -------------------------------------------------------------------------------

TEST_F(RelTimers, StoppingTheEngineFreesEveryTimerWithoutCallingIt) {
    void *running = create(ZEPO_TIMER_PERIODIC);
    void *longRunning = create(ZEPO_TIMER_ONESHOT);
    void *stopped = create(ZEPO_TIMER_ONESHOT);
    void *idle = create(ZEPO_TIMER_ONESHOT);
    void *fired = create(ZEPO_TIMER_ONESHOT);
    void *autoFree = create(ZEPO_TIMER_AUTOFREE);
    void *pending = create(ZEPO_TIMER_ONESHOT);
    ASSERT_EQ(petimer_start_reltimer(running, 30, tag(1)), 0u);
    ASSERT_EQ(petimer_start_reltimer(longRunning, 25000, tag(2)), 0u);
    ASSERT_EQ(petimer_start_reltimer(stopped, 30, tag(3)), 0u);
    ASSERT_EQ(petimer_start_reltimer(fired, 10, tag(5)), 0u);
    ASSERT_EQ(petimer_start_reltimer(autoFree, 500, tag(6)), 0u);
    advance(2);
    ASSERT_EQ(petimer_stop_reltimer_safe(stopped, nullptr, nullptr), 0u);
    advance();
    EXPECT_EQ(cycles_of(tag(5)).size(), 1u);
    EXPECT_EQ(g_reltmNum, countBefore_ + 7);
    // Requests made before the stop are still carried out.
    ASSERT_EQ(petimer_start_reltimer(pending, 10, tag(7)), 0u);
    ASSERT_EQ(petimer_stop_reltimer_safe(idle, note_done, tag(8)), 0u);
    const size_t firings = firing_count();

    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(firing_count(), firings) << "no call-back while stopping";
    ASSERT_EQ(done_calls().size(), 1u);
    EXPECT_EQ(done_calls()[0].arg, tag(8));
    EXPECT_EQ(g_reltmNum, countBefore_);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_pRelHead, nullptr);
    EXPECT_EQ(g_pRelTail, nullptr);
    EXPECT_EQ(live_blocks(), blocksBefore_);
}

TEST_F(RelTimers, RequestsOnHandlesOfAStoppedEngineAreRefusedAndTheEngineStartsAgain) {
    void *handle = create(ZEPO_TIMER_PERIODIC);
    ASSERT_EQ(petimer_start_reltimer(handle, 20, tag(1)), 0u);
    advance();
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    const size_t blocks = live_blocks();
    void *out = tag(3);
    EXPECT_REFUSED(petimer_start_reltimer(handle, 10, tag(2)), 22u);
    EXPECT_REFUSED(petimer_stop_reltimer_safe(handle, note_done, tag(2)), 22u);
    EXPECT_REFUSED(petimer_stop_reltimer_safeEx(handle, note_done, tag(2), &out), 22u);
    EXPECT_REFUSED(petimer_free_reltimer(handle), 22u);
    EXPECT_REFUSED(petimer_start_reltimer(nullptr, 10, tag(2)), 22u);
    EXPECT_EQ(out, tag(3));
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(g_reltmNum, countBefore_);

    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    void *again = create(ZEPO_TIMER_PERIODIC);
    EXPECT_EQ(again, cell(0)) << "a new table";
    const uint32_t start = next_cycle();
    ASSERT_EQ(petimer_start_reltimer(again, 10, tag(4)), 0u);
    run_through(start + 4);
    EXPECT_EQ(cycles_of(tag(4)), (std::vector<uint32_t>{start + 1, start + 3}));
    EXPECT_TRUE(done_calls().empty());
}

}  // namespace
