// Timer groups: the result codes of creation, start, stop and free in the order they are
// checked, what the records hold after each step, members firing with their index and
// argument, the deferred releases of a group, and the limits that members count against.
//
// Engine tests run on the scripted clock (timer_harness.h) and number the driver's cycles
// 1, 2, 3, ...: a member started while the driver is parked before cycle N has its timer
// started in cycle N; a member of k ticks then fires in cycle N + k and every k + 1 cycles
// after that (a 30 ms member every 4 cycles).
//
// Two functions get a test-only definition in front of the library's, which records the
// call and forwards it: petimer_stop_reltimer_safe (to see which timers were asked to
// stop) and ZEPO_FreeRelTimerArg_safe (to see which blocks a group hands over for release,
// and in which order).
//
// Some tests look into a member's timer through its handle (the cell holds the timer
// record's address while the timer lives); they do so only while the driver is parked.

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

// ---- Calls seen by the definitions below ----------------------------------------------------

std::mutex g_seenLock;
std::vector<void *> g_stopRequests;  // handles given to petimer_stop_reltimer_safe
std::vector<void *> g_releases;      // blocks given to ZEPO_FreeRelTimerArg_safe

std::vector<void *> stop_requests() {
    std::lock_guard<std::mutex> hold(g_seenLock);
    return g_stopRequests;
}

std::vector<void *> releases() {
    std::lock_guard<std::mutex> hold(g_seenLock);
    return g_releases;
}

void forget_calls() {
    std::lock_guard<std::mutex> hold(g_seenLock);
    g_stopRequests.clear();
    g_releases.clear();
}

}  // namespace

extern "C" uint32_t petimer_stop_reltimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone,
                                               void *doneArg) {
    using Fn = uint32_t (*)(void *, ZEPO_TIMER_DONE_FUNC, void *);
    static const auto next = qel_test::next_definition<Fn>("petimer_stop_reltimer_safe");
    {
        std::lock_guard<std::mutex> hold(g_seenLock);
        g_stopRequests.push_back(handle);
    }
    return next(handle, pfnDone, doneArg);
}

extern "C" uint32_t ZEPO_FreeRelTimerArg_safe(void *block) {
    using Fn = uint32_t (*)(void *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_FreeRelTimerArg_safe");
    {
        std::lock_guard<std::mutex> hold(g_seenLock);
        g_releases.push_back(block);
    }
    return next(block);
}

namespace {

constexpr uint32_t kNullOut = 0x20160032u;
constexpr uint32_t kTooMany = 0x20160034u;
constexpr uint32_t kNoMemory = 0x20160036u;
constexpr uint32_t kNullCallback = 0x20160037u;
constexpr uint32_t kStartBadGroup = 0x20160039u;
constexpr uint32_t kStartBadIndex = 0x2016003Bu;
constexpr uint32_t kStartBadMode = 0x2016003Cu;
constexpr uint32_t kStartFailed = 0x2016003Du;
constexpr uint32_t kStopNullGroup = 0x20160040u;
constexpr uint32_t kStopInvalidGroup = 0x20160041u;
constexpr uint32_t kStopBadIndex = 0x20160042u;
constexpr uint32_t kStopFailed = 0x20160043u;
constexpr uint32_t kStopNotActive = 0x20160044u;
constexpr uint32_t kFreeNullGroup = 0x20160046u;
constexpr uint32_t kFreeInvalidGroup = 0x20160047u;
constexpr uint32_t kFreeFailed = 0x20160048u;

// ---- Cycles and firings ---------------------------------------------------------------------

struct Firing {
    uint32_t index;
    uint32_t arg;
    uint32_t cycle;
    uint64_t thread;
};

std::mutex g_firingsLock;
std::vector<Firing> g_firings;

void note_member(uint32_t index, uint32_t arg) {
    std::lock_guard<std::mutex> hold(g_firingsLock);
    g_firings.push_back({index, arg, g_cycle.load(), static_cast<uint64_t>(pthread_self())});
}

// The cycles in which the call-back received (index, arg).
std::vector<uint32_t> cycles_of(uint32_t index, uint32_t arg) {
    std::lock_guard<std::mutex> hold(g_firingsLock);
    std::vector<uint32_t> cycles;
    for (const Firing &f : g_firings)
        if (f.index == index && f.arg == arg) cycles.push_back(f.cycle);
    return cycles;
}

std::vector<Firing> firings() {
    std::lock_guard<std::mutex> hold(g_firingsLock);
    return g_firings;
}

// ---- Looking at timers and blocks -----------------------------------------------------------

bool is_live(const void *block) {
    MemoryState &m = memory_state();
    std::lock_guard<std::mutex> hold(m.lock);
    return m.live.count(const_cast<void *>(block)) != 0;
}

void release_block(void *block) { ZEPO_MemTypeFreeD(block, 0, __LINE__, __FILE__); }

// A member as just created: zero but for the group's call-back.
void expect_untouched(const ZEPO_RELTIMER_GRP_MEMBER &member, ZEPO_GRP_TIMEOUT_FUNC callback) {
    EXPECT_EQ(member.arg, 0u);
    EXPECT_EQ(member.index, 0u);
    EXPECT_EQ(member.mode, 0u);
    EXPECT_EQ(member.interval, 0u);
    EXPECT_EQ(member.pfnGroupTimeout, callback);
    EXPECT_EQ(member.handle, nullptr);
    EXPECT_EQ(member.active, 0u);
}

ZEPO_RELTIMER_GRP *make_group(uint32_t count, ZEPO_GRP_TIMEOUT_FUNC callback = note_member) {
    ZEPO_RELTIMER_GRP *group = nullptr;
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, count, callback), 0u);
    return group;
}

ZEPO_RELTIMER_GRP *const kUntouched = reinterpret_cast<ZEPO_RELTIMER_GRP *>(0x5A5A5A5A);

// ---- Fixture --------------------------------------------------------------------------------

// The engine runs on the scripted clock, its driver parked before cycle 1.  Everything a
// test made is gone once the engine has stopped.
class TimerGroups : public testing::Test {
protected:
    void SetUp() override {
        blocksBefore_ = live_blocks();
        use_scripted_clock();
        ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
        wait_parked();
        forget_calls();
    }

    void TearDown() override {
        fail_allocation(0);
        stop_engine();
        EXPECT_EQ(live_blocks(), blocksBefore_) << "blocks left after the engine stopped";
        EXPECT_EQ(g_reltmNum, 0);
    }

    size_t blocksBefore_ = 0;
};

// ---- Creation -------------------------------------------------------------------------------

TEST(GroupInit, NullOutputIsCheckedFirst) {
    const size_t blocks = live_blocks();
    EXPECT_EQ(ZEPO_InitReltimerGrp(nullptr, 0xFFFFFFFFu, nullptr), kNullOut);
    EXPECT_EQ(ZEPO_InitReltimerGrp(nullptr, 3, note_member), kNullOut);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, NullCallbackIsCheckedBeforeTheCount) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = kUntouched;
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 0xFFFFFFFFu, nullptr), kNullCallback);
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 3, nullptr), kNullCallback);
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, CountAboveTheRelativeLimitIsRefused) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = kUntouched;
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 2001, note_member), kTooMany);
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 0xFFFFFFFFu, note_member), kTooMany);
    ZEPO_TMRSetMaxReltmNum(5);
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 6, note_member), kTooMany);
    ZEPO_TMRSetMaxReltmNum(2000);
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, GroupOfAsManyMembersAsTheLimitCanBeCreated) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = make_group(2000);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->count, 2000u);
    EXPECT_EQ(group->members[1999].pfnGroupTimeout, note_member);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    ZEPO_TMRSetMaxReltmNum(5);
    group = make_group(5);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->count, 5u);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    ZEPO_TMRSetMaxReltmNum(2000);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, NewGroupIsZeroedAndEveryMemberCarriesTheCallback) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = make_group(4);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(live_blocks(), blocks + 2) << "the group and one array of members";
    EXPECT_TRUE(is_live(group));
    EXPECT_TRUE(is_live(group->members));
    EXPECT_EQ(group->count, 4u);
    EXPECT_EQ(group->valid, 1u);
    EXPECT_EQ(group->pfnGroupTimeout, note_member);
    for (uint32_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        expect_untouched(group->members[i], note_member);
    }
    EXPECT_EQ(petimer_getTreadId(), 0u) << "creating a group starts no engine";
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, GroupWithoutMemoryGives0x20160036) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = kUntouched;
    fail_allocation(1);
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 3, note_member), kNoMemory);
    fail_allocation(0);
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, MembersWithoutMemoryGive0x20160036AndTheGroupIsReleased) {
    const size_t blocks = live_blocks();
    const uint64_t made = allocation_count();
    ZEPO_RELTIMER_GRP *group = kUntouched;
    fail_allocation(2);
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 3, note_member), kNoMemory);
    fail_allocation(0);
    EXPECT_EQ(allocation_count(), made + 1) << "the group was made";
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks) << "and released again";
}

TEST(GroupInit, GroupOfNoMembersGives0x20160036) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = kUntouched;
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 0, note_member), kNoMemory);
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(GroupInit, MemberArrayBeyond32BitsGives0x20160036) {
    const size_t blocks = live_blocks();
    ZEPO_TMRSetMaxReltmNum(0xFFFFFFFFu);
    ZEPO_RELTIMER_GRP *group = kUntouched;
    // 107374183 members of 40 bytes are 2^32 + 24 bytes.
    EXPECT_EQ(ZEPO_InitReltimerGrp(&group, 107374183u, note_member), kNoMemory);
    ZEPO_TMRSetMaxReltmNum(2000);
    EXPECT_EQ(group, kUntouched);
    EXPECT_EQ(live_blocks(), blocks);
}

// ---- Start ----------------------------------------------------------------------------------

TEST_F(TimerGroups, StartOfANullOrInvalidGroupGives0x20160039BeforeAnyOtherCheck) {
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(nullptr, 0, 10, 1, 0), kStartBadGroup);
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    for (uint32_t valid : {0u, 2u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(valid);
        group->valid = valid;
        EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 1, 0), kStartBadGroup);
        EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 7, 10, 1, 2), kStartBadGroup);
    }
    group->valid = 1;
    expect_untouched(group->members[0], note_member);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, IndexAtOrAboveTheCountGives0x2016003BBeforeTheModeIsChecked) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 3, 10, 1, 0), kStartBadIndex);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 0xFFFFFFFFu, 10, 1, 0), kStartBadIndex);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 3, 10, 1, 2), kStartBadIndex);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, ModeWhoseLowByteIsTwoOrMoreGives0x2016003C) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    for (uint32_t mode : {2u, 3u, 0xFFu, 0x102u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 10, 1, mode), kStartBadMode);
    }
    expect_untouched(group->members[1], note_member);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

// The index test is made on 32-bit unsigned numbers: count - 1 of no members is the
// largest index there is.
TEST_F(TimerGroups, GroupOfNoMembersPassesEveryIndex) {
    ZEPO_RELTIMER_GRP empty{0, 1, note_member, nullptr};
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(&empty, 7, 10, 1, 2), kStartBadMode);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(&empty, 0xFFFFFFFFu, 10, 1, 2), kStartBadMode);
}

TEST_F(TimerGroups, OnlyTheLowEightBitsOfTheModeAreKept) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 20, 1, 0x100), 0u);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 20, 2, 0x101), 0u);
    EXPECT_EQ(group->members[0].mode, 0u);
    EXPECT_EQ(group->members[1].mode, 1u);
    EXPECT_EQ(group->members[0].active, 1u);
    EXPECT_EQ(group->members[1].active, 1u);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, StartStoresTheMembersSettingsAndStartsItsTimer) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 30, 0xA1, 1), 0u);
    const ZEPO_RELTIMER_GRP_MEMBER &member = group->members[1];
    EXPECT_EQ(member.arg, 0xA1u);
    EXPECT_EQ(member.index, 1u);
    EXPECT_EQ(member.mode, 1u);
    EXPECT_EQ(member.interval, 30u);
    EXPECT_EQ(member.pfnGroupTimeout, note_member);
    EXPECT_TRUE(holds_rel_timer(member.handle));
    EXPECT_EQ(member.active, 1u);
    EXPECT_EQ(g_reltmNum, 1) << "a member's timer is counted like any other";
    const RelTimerView &timer = rel_timer(member.handle);
    EXPECT_EQ(timer.pfnTimeout, ZEPO_TimeoutFuncOfGrp);
    EXPECT_EQ(timer.mode, 0u) << "periodic, whatever the member's mode";
    ASSERT_NE(timer.name, nullptr);
    EXPECT_NE(std::string(timer.name).find("tmr_group"), std::string::npos) << timer.name;
    EXPECT_NE(timer.line, 0xDEADDEADu) << "the creator's line is the group source's";
    EXPECT_NE(timer.line, 0u);
    expect_untouched(group->members[0], note_member);
    expect_untouched(group->members[2], note_member);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, MemberRecordIsTheArgumentOfItsTimer) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 2, 500, 9, 0), 0u);
    advance();  // the start is carried out
    void *argument = nullptr;
    ASSERT_EQ(ZEPO_StopRelTimer_SafeEx(group->members[2].handle, nullptr, nullptr, &argument), 0u);
    EXPECT_EQ(argument, &group->members[2]);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, StartingAnActiveMemberAgainReturnsZeroAndChangesNothing) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 20, 1, 0), 0u);
    void *const handle = group->members[0].handle;
    advance();
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 50, 2, 1), 0u);
    const ZEPO_RELTIMER_GRP_MEMBER &member = group->members[0];
    EXPECT_EQ(member.interval, 20u);
    EXPECT_EQ(member.arg, 1u);
    EXPECT_EQ(member.mode, 0u);
    EXPECT_EQ(member.handle, handle);
    EXPECT_EQ(member.active, 1u);
    EXPECT_EQ(g_reltmNum, 1) << "no second timer";
    run_through(start + 10);
    EXPECT_EQ(cycles_of(0, 1), every(start + 2, 3, 3)) << "still every 20 ms";
    EXPECT_TRUE(cycles_of(0, 2).empty());
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST(GroupStartOnDemand, FirstMemberStartStartsTheEngine) {
    const size_t blocks = live_blocks();
    use_scripted_clock();
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    ASSERT_EQ(petimer_getTreadId(), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 20, 6, 0), 0u);
    EXPECT_NE(petimer_getTreadId(), 0u);
    wait_parked();
    advance(3);
    EXPECT_EQ(cycles_of(1, 6), std::vector<uint32_t>{3});
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    stop_engine();
    EXPECT_EQ(live_blocks(), blocks);
}

TEST_F(TimerGroups, MemberWhoseTimerCannotStartGives0x2016003DAndKeepsTheCreatedTimer) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    fail_allocation(2);  // the timer comes first, then its start request
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 20, 6, 0), kStartFailed);
    fail_allocation(0);
    void *const orphan = group->members[1].handle;
    EXPECT_TRUE(holds_rel_timer(orphan)) << "the created timer is left in the member";
    EXPECT_EQ(group->members[1].active, 0u);
    EXPECT_EQ(group->members[1].interval, 20u);
    EXPECT_EQ(g_reltmNum, 1);
    advance(5);
    EXPECT_TRUE(firings().empty());

    // A later start makes another timer and forgets the first.
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 20, 7, 0), 0u);
    EXPECT_NE(group->members[1].handle, orphan);
    EXPECT_EQ(group->members[1].active, 1u);
    EXPECT_EQ(g_reltmNum, 2);
    run_through(start + 2);
    EXPECT_EQ(cycles_of(1, 7), std::vector<uint32_t>{start + 2});
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    EXPECT_EQ(g_reltmNum, 1) << "the group frees only the timer it still knows";
    EXPECT_TRUE(holds_rel_timer(orphan));
    // The engine's stop frees the forgotten one (checked by the fixture).
}

void slow_member(uint32_t index, uint32_t ms) {
    advance_clock(ms);
    note_member(index, ms);
}

TEST_F(TimerGroups, MemberTimersAreNamedAfterTheGroupsSourceInTheLongCallbackWarning) {
    ZEPO_RELTIMER_GRP *group = make_group(1, slow_member);
    ASSERT_NE(group, nullptr);
    capture_trace();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 150, 0), 0u);
    advance(2);
    ASSERT_EQ(cycles_of(0, 150).size(), 1u);
    const std::vector<std::string> lines = traces();
    ASSERT_EQ(lines.size(), 1u);
    const std::string &line = lines[0];
    const std::string head = "warning: timer_timeout_proc execution time is too long! timer[";
    const std::string tail = "] takes time 150\n";
    EXPECT_EQ(line.compare(0, head.size(), head), 0) << line;
    EXPECT_NE(line.find("tmr_group"), std::string::npos) << line;
    ASSERT_GE(line.size(), tail.size());
    EXPECT_EQ(line.compare(line.size() - tail.size(), tail.size(), tail), 0) << line;
    ZEPO_TimerRegDebugTrace(nullptr);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

// ---- Firing ---------------------------------------------------------------------------------

TEST_F(TimerGroups, MembersFireWithTheirIndexAndArgumentEachAtItsOwnInterval) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 30, 0xA0, 0), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 2, 50, 0xA2, 0), 0u);
    run_through(start + 20);
    EXPECT_EQ(cycles_of(0, 0xA0), every(start + 3, 4, 5)) << "30 ms: 3 ticks, every 4";
    EXPECT_EQ(cycles_of(2, 0xA2), every(start + 5, 6, 3)) << "50 ms: 5 ticks, every 6";
    const std::vector<Firing> all = firings();
    EXPECT_EQ(all.size(), 8u) << "member 1 never fires";
    for (const Firing &f : all) EXPECT_EQ(f.thread, petimer_getTreadId());
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, ModeOneMemberIsPeriodicLikeModeZero) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 20, 10, 0), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 20, 11, 1), 0u);
    run_through(start + 12);
    EXPECT_EQ(cycles_of(0, 10), every(start + 2, 3, 4));
    EXPECT_EQ(cycles_of(1, 11), every(start + 2, 3, 4));
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST(GroupTimeout, TimeoutFunctionIgnoresANullMemberAndANullCallback) {
    ZEPO_TimeoutFuncOfGrp(nullptr);
    ZEPO_RELTIMER_GRP_MEMBER member{};
    member.index = 7;
    member.arg = 9;
    ZEPO_TimeoutFuncOfGrp(&member);
    EXPECT_TRUE(firings().empty());
    member.pfnGroupTimeout = note_member;
    ZEPO_TimeoutFuncOfGrp(&member);
    const std::vector<Firing> all = firings();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].index, 7u);
    EXPECT_EQ(all[0].arg, 9u);
    EXPECT_EQ(all[0].thread, static_cast<uint64_t>(pthread_self())) << "on the caller's thread";
}

// ---- Stop -----------------------------------------------------------------------------------

TEST_F(TimerGroups, StopChecksTheGroupTheIndexAndTheMemberInThisOrder) {
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(nullptr, 0), kStopNullGroup);
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    group->valid = 0;
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 7), kStopInvalidGroup);
    group->valid = 2;
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0), kStopInvalidGroup);
    group->valid = 1;
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 3), kStopBadIndex);
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0xFFFFFFFFu), kStopBadIndex);
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 1), kStopNotActive);
    EXPECT_TRUE(stop_requests().empty());
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, StopStopsAndFreesTheTimerAndTheMemberKeepsItsSettings) {
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 30, 5, 1), 0u);
    void *const handle = group->members[1].handle;
    run_through(start + 3);
    ASSERT_EQ(cycles_of(1, 5), std::vector<uint32_t>{start + 3});
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 1), 0u);
    const ZEPO_RELTIMER_GRP_MEMBER &member = group->members[1];
    EXPECT_EQ(member.handle, nullptr);
    EXPECT_EQ(member.active, 0u);
    EXPECT_EQ(member.arg, 5u);
    EXPECT_EQ(member.index, 1u);
    EXPECT_EQ(member.mode, 1u);
    EXPECT_EQ(member.interval, 30u);
    EXPECT_EQ(stop_requests(), std::vector<void *>{handle});
    EXPECT_FALSE(holds_rel_timer(handle)) << "freed: its handle is invalid at once";
    EXPECT_EQ(g_reltmNum, 0);
    run_through(start + 20);
    EXPECT_EQ(cycles_of(1, 5).size(), 1u);
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 1), kStopNotActive);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, StoppedMemberCanBeStartedAgainWithNewSettings) {
    ZEPO_RELTIMER_GRP *group = make_group(1);
    ASSERT_NE(group, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 30, 5, 0), 0u);
    advance(2);
    ASSERT_EQ(ZEPO_StopRelTimerofGrp(group, 0), 0u);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 6, 1), 0u);
    EXPECT_EQ(group->members[0].interval, 10u);
    EXPECT_EQ(group->members[0].arg, 6u);
    EXPECT_EQ(group->members[0].mode, 1u);
    run_through(start + 6);
    EXPECT_TRUE(cycles_of(0, 5).empty());
    EXPECT_EQ(cycles_of(0, 6), every(start + 1, 2, 3));
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, RefusedStopGives0x20160043AndLeavesTheMemberRunning) {
    ZEPO_RELTIMER_GRP *group = make_group(1);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 5, 0), 0u);
    void *const handle = group->members[0].handle;
    fail_allocation(1);  // no stop request
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0), kStopFailed);
    fail_allocation(0);
    EXPECT_EQ(group->members[0].handle, handle);
    EXPECT_EQ(group->members[0].active, 1u);
    EXPECT_TRUE(holds_rel_timer(handle));
    run_through(start + 4);
    EXPECT_EQ(cycles_of(0, 5), every(start + 1, 2, 2));
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, RefusedFreeGives0x20160043AndLeavesTheMemberActive) {
    ZEPO_RELTIMER_GRP *group = make_group(1);
    ASSERT_NE(group, nullptr);
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 5, 0), 0u);
    void *const handle = group->members[0].handle;
    run_through(start + 1);
    // The stop takes a request and a queue entry; the free's queue entry fails.
    fail_allocation(3);
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0), kStopFailed);
    fail_allocation(0);
    EXPECT_EQ(stop_requests(), std::vector<void *>{handle});
    EXPECT_EQ(group->members[0].handle, handle);
    EXPECT_EQ(group->members[0].active, 1u);
    EXPECT_TRUE(holds_rel_timer(handle));
    EXPECT_EQ(g_reltmNum, 1);
    run_through(start + 6);
    EXPECT_EQ(cycles_of(0, 5), std::vector<uint32_t>{start + 1}) << "its stop went through";
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 0), 0u);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

// What a member's call-back got when it stopped and freed its own group while the engine
// was quitting.
std::atomic<ZEPO_RELTIMER_GRP *> g_group{nullptr};
std::atomic<uint32_t> g_stopWhileQuitting{0};
std::atomic<uint32_t> g_freeWhileQuitting{0};

void act_while_quitting(uint32_t index, uint32_t arg) {
    note_member(index, arg);
    if (cycles_of(index, arg).size() != 1) return;
    petimer_setQuitingFlag(1, 0);
    g_stopWhileQuitting = ZEPO_StopRelTimerofGrp(g_group.load(), index);
    g_freeWhileQuitting = ZEPO_FreeRelTimerGrp(g_group.load());
    petimer_setQuitingFlag(0, 0);
}

TEST_F(TimerGroups, StopAndFreeAreRefusedWhileTheEngineQuits) {
    ZEPO_RELTIMER_GRP *group = make_group(2, act_while_quitting);
    ASSERT_NE(group, nullptr);
    g_group = group;
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 10, 3, 0), 0u);
    void *const handle = group->members[1].handle;
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    advance(2);  // the call-back runs on the driver, which does not look at the flag meanwhile
    ASSERT_EQ(cycles_of(1, 3).size(), 1u);
    EXPECT_EQ(g_stopWhileQuitting.load(), kStopFailed);
    EXPECT_EQ(g_freeWhileQuitting.load(), kFreeFailed);
    EXPECT_EQ(group->valid, 1u);
    EXPECT_EQ(group->members, members);
    EXPECT_EQ(group->members[1].handle, handle);
    EXPECT_EQ(group->members[1].active, 1u);
    EXPECT_TRUE(releases().empty());
    advance(2);
    EXPECT_EQ(cycles_of(1, 3).size(), 2u) << "the member runs on";
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

// ---- Free -----------------------------------------------------------------------------------

TEST_F(TimerGroups, FreeOfANullOrInvalidGroupIsRefused) {
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(nullptr), kFreeNullGroup);
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 1, 0), 0u);
    group->valid = 0;
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), kFreeInvalidGroup);
    group->valid = 2;
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), kFreeInvalidGroup);
    EXPECT_TRUE(releases().empty());
    EXPECT_TRUE(holds_rel_timer(group->members[0].handle));
    group->valid = 1;
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, FreeFreesRunningMembersWithoutStoppingThemAndReleasesTheRecordsOnTheDriver) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 0xA0, 0), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 2, 20, 0xA2, 0), 0u);
    void *const first = members[0].handle;
    void *const third = members[2].handle;
    run_through(start + 3);
    ASSERT_EQ(g_reltmNum, 2);
    const size_t fired = firings().size();

    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    EXPECT_TRUE(stop_requests().empty()) << "members are freed without a stop";
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_FALSE(holds_rel_timer(first));
    EXPECT_FALSE(holds_rel_timer(third));
    EXPECT_EQ(releases(), (std::vector<void *>{members, group})) << "members first, then group";
    EXPECT_TRUE(is_live(group)) << "released on the driver, at its next tick";
    EXPECT_TRUE(is_live(members));
    advance();
    EXPECT_FALSE(is_live(group));
    EXPECT_FALSE(is_live(members));
    EXPECT_EQ(live_blocks(), blocks);
    run_through(start + 10);
    EXPECT_EQ(firings().size(), fired);
}

TEST_F(TimerGroups, RefusedMemberFreeGives0x20160048AndLeavesTheGroupAsItIs) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 0xA0, 0), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 10, 0xA1, 0), 0u);
    void *const first = members[0].handle;
    void *const second = members[1].handle;
    fail_allocation(1);  // the first member's free cannot be queued
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), kFreeFailed);
    fail_allocation(0);
    EXPECT_EQ(group->valid, 1u);
    EXPECT_EQ(group->members, members);
    EXPECT_EQ(members[0].handle, first);
    EXPECT_EQ(members[1].handle, second);
    EXPECT_EQ(members[0].active, 1u);
    EXPECT_EQ(members[1].active, 1u);
    EXPECT_TRUE(holds_rel_timer(first));
    EXPECT_TRUE(holds_rel_timer(second));
    EXPECT_EQ(g_reltmNum, 2);
    EXPECT_TRUE(releases().empty());
    run_through(start + 3);
    EXPECT_EQ(cycles_of(0, 0xA0), every(start + 1, 2, 2));
    EXPECT_EQ(cycles_of(1, 0xA1), every(start + 1, 2, 2));
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
}

TEST_F(TimerGroups, RefusalAtALaterMemberReturnsAtOnceAndTheEarlierMemberStaysFreed) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 0xA0, 0), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 10, 0xA1, 0), 0u);
    void *const first = members[0].handle;
    void *const second = members[1].handle;
    fail_allocation(2);  // the second member's free cannot be queued
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), kFreeFailed);
    fail_allocation(0);
    EXPECT_FALSE(holds_rel_timer(first));
    EXPECT_TRUE(holds_rel_timer(second));
    EXPECT_EQ(members[0].handle, first) << "left as it was";
    EXPECT_EQ(group->members, members);
    EXPECT_EQ(g_reltmNum, 1);
    EXPECT_TRUE(releases().empty());
    run_through(start + 3);
    EXPECT_TRUE(cycles_of(0, 0xA0).empty());
    EXPECT_EQ(cycles_of(1, 0xA1), every(start + 1, 2, 2));
    // What the group still holds is given back by hand.
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 1), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(members), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(group), 0u);
}

TEST_F(TimerGroups, GroupWithoutMembersReleasesTheGroupOnly) {
    ZEPO_RELTIMER_GRP *group = make_group(2);
    ASSERT_NE(group, nullptr);
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    group->members = nullptr;
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    EXPECT_EQ(releases(), std::vector<void *>{group});
    advance();
    EXPECT_FALSE(is_live(group));
    EXPECT_TRUE(is_live(members));
    release_block(members);
}

TEST(GroupFreeWithoutEngine, ReleasesHappenAtOnceWhenNoEngineRuns) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    ZEPO_RELTIMER_GRP_MEMBER *const members = group->members;
    forget_calls();
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    EXPECT_EQ(releases(), (std::vector<void *>{members, group}));
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(petimer_getTreadId(), 0u);
}

// ---- Limits ---------------------------------------------------------------------------------

TEST(GroupLimits, MembersCountAgainstTheRelativeLimit) {
    const size_t blocks = live_blocks();
    ZEPO_RELTIMER_GRP *group = make_group(3);
    ASSERT_NE(group, nullptr);
    ZEPO_TMRSetMaxReltmNum(2);
    use_scripted_clock();
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 10, 1, 0), 0u);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 10, 2, 0), 0u);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 2, 30, 3, 1), kStartFailed);
    const ZEPO_RELTIMER_GRP_MEMBER &third = group->members[2];
    EXPECT_EQ(third.handle, nullptr);
    EXPECT_EQ(third.active, 0u);
    EXPECT_EQ(third.arg, 3u) << "the settings are stored before the timer is made";
    EXPECT_EQ(third.index, 2u);
    EXPECT_EQ(third.mode, 1u);
    EXPECT_EQ(third.interval, 30u);
    EXPECT_EQ(g_reltmNum, 2);
    wait_parked();
    ASSERT_EQ(ZEPO_StopRelTimerofGrp(group, 0), 0u);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 2, 30, 3, 1), 0u) << "room again after a stop";
    EXPECT_EQ(group->members[2].active, 1u);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    stop_engine();
    ZEPO_TMRSetMaxReltmNum(2000);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
}

}  // namespace
