// Calendar (absolute) timers: the pattern match and its wildcards, the seconds each check
// examines (the first check, the catch-up of up to 60 s, the clock set forwards and
// backwards), the three modes, the order of the timer list, stop and free with their
// deferred effects, the handle table and its free list, refusals and allocation failures,
// the tear-down of the engine, the calendar conversion of ZEPO_StartAbsTimer, and one run
// on the real clocks.
//
// The driver runs on the scripted clock: run_cycle(1000) is one cycle that slept a whole
// second, so it dispatches 100 ticks at once and calls the calendar check (period 100)
// exactly once; the check reads the scripted calendar.  Local times are always taken from
// localtime_r of the fake seconds, so the tests hold in whatever time zone the machine
// has; the fake seconds lie in mid-January 2030, far from any change of daylight saving
// time.  Patterns given to petimer_start_abstimer are in the C library's convention
// (years since 1900, months 0 to 11), those given to ZEPO_StartAbsTimer in the caller's
// (full year, months 1 to 12).
//
// Timer records are looked at through a view of their layout (links, call-back, mode,
// pattern, argument, cell index), only while the driver is parked.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "timer_harness.h"

namespace {

using namespace timer_harness;
using namespace std::chrono_literals;

// 2030-01-15 12:00:00 UTC: January 15th or 16th 2030 in every time zone.
constexpr time_t kBase = 1894708800;
constexpr uint32_t kDefaultLimit = 2000;

// ---- The layout of a timer record -------------------------------------------------------

struct AbsTimerView {
    AbsTimerView *next;  // the timer list; the record itself when in no list
    AbsTimerView *prev;
    ZEPO_TIMEOUT_FUNC pfnTimeout;
    uint32_t mode;
    struct tm stTime;
    void *arg;
    int32_t index;
};
static_assert(offsetof(AbsTimerView, mode) == 24 && offsetof(AbsTimerView, stTime) == 32);
static_assert(offsetof(AbsTimerView, arg) == 88 && offsetof(AbsTimerView, index) == 96);

AbsTimerView *record_of(void *handle) {
    return static_cast<AbsTimerView *>(*static_cast<void **>(handle));
}

bool in_list(const AbsTimerView *record) { return record->next != record; }

// The free cells from g_pAbsHead on (at most limit + 1 of them, so a loop shows).
std::vector<void **> free_cells(size_t limit) {
    std::vector<void **> cells;
    for (void **cell = g_pAbsHead; cell != nullptr && cells.size() <= limit;
         cell = static_cast<void **>(*cell))
        cells.push_back(cell);
    return cells;
}

// ---- Calls recorded ----------------------------------------------------------------------

struct CallLog {
    std::mutex lock;
    std::vector<void *> fired;  // arguments of timer call-backs, in call order
    std::vector<void *> done;   // arguments of stop completion functions
    bool offDriver = false;     // a call came on another thread than the driver
};

CallLog &calls() {
    static CallLog log;
    return log;
}

bool on_driver() { return static_cast<uint64_t>(pthread_self()) == petimer_getTreadId(); }

void on_fire(void *arg) {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    log.fired.push_back(arg);
    if (!on_driver()) log.offDriver = true;
}

void on_done(void *arg) {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    log.done.push_back(arg);
    if (!on_driver()) log.offDriver = true;
}

void reset_calls() {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    log.fired.clear();
    log.done.clear();
    log.offDriver = false;
}

std::vector<void *> fired() {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    return log.fired;
}

size_t fires() { return fired().size(); }

size_t fires_of(void *arg) {
    size_t n = 0;
    for (void *a : fired()) n += a == arg ? 1 : 0;
    return n;
}

std::vector<void *> done_calls() {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    return log.done;
}

bool all_on_driver() {
    CallLog &log = calls();
    std::lock_guard<std::mutex> hold(log.lock);
    return !log.offDriver;
}

void *arg_n(uintptr_t n) { return reinterpret_cast<void *>(n); }

// ---- Calendar -----------------------------------------------------------------------------

struct tm local_of(time_t second) {
    struct tm local {};
    EXPECT_NE(localtime_r(&second, &local), nullptr);
    return local;
}

// The second whose local time of day is hour:minute:second, on the local day of kBase.
time_t local_second(int hour, int minute, int second) {
    const struct tm base = local_of(kBase);
    const time_t at = kBase + (hour * 3600 + minute * 60 + second) -
                      (base.tm_hour * 3600 + base.tm_min * 60 + base.tm_sec);
    const struct tm local = local_of(at);
    EXPECT_EQ(local.tm_hour, hour);
    EXPECT_EQ(local.tm_min, minute);
    EXPECT_EQ(local.tm_sec, second);
    return at;
}

// Every field a wildcard.
struct tm any_time() {
    struct tm pattern;
    std::memset(&pattern, 0, sizeof pattern);
    pattern.tm_sec = pattern.tm_min = pattern.tm_hour = -1;
    pattern.tm_mday = pattern.tm_mon = pattern.tm_year = -1;
    return pattern;
}

// 08:30:00 on every day.
struct tm daily_0830() {
    struct tm pattern = any_time();
    pattern.tm_sec = 0;
    pattern.tm_min = 30;
    pattern.tm_hour = 8;
    return pattern;
}

// The six compared fields, and a value of each that differs from a given one.
using TmField = int tm::*;
const TmField kFields[] = {&tm::tm_sec,  &tm::tm_min, &tm::tm_hour,
                           &tm::tm_mday, &tm::tm_mon, &tm::tm_year};
const char *const kFieldNames[] = {"tm_sec", "tm_min", "tm_hour", "tm_mday", "tm_mon", "tm_year"};

int other_value(size_t field, int value) {
    switch (field) {
        case 0:
        case 1: return (value + 1) % 60;
        case 2: return (value + 1) % 24;
        case 3: return value % 28 + 1;
        case 4: return (value + 1) % 12;
        default: return value + 1;
    }
}

// ---- Driving the engine --------------------------------------------------------------------

void start_engine() {
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
}

// One calendar check with the calendar at second (the pending requests run first).
void check_at(time_t second) {
    set_calendar(static_cast<uint32_t>(second));
    run_cycle(1000);
}

// A timer created through the public API (counted) and started with pattern and arg.
void *started_timer(uint32_t mode, const struct tm &pattern, void *arg,
                    ZEPO_TIMEOUT_FUNC callback = on_fire) {
    void *handle = ZEPO_CreateAbsTimerM(callback, mode);
    EXPECT_NE(handle, nullptr);
    if (handle != nullptr) {
        EXPECT_EQ(petimer_start_abstimer(handle, &pattern, arg), 0u);
    }
    return handle;
}

class AbsTimers : public ::testing::Test {
protected:
    void SetUp() override {
        use_scripted_clock();
        use_scripted_calendar(static_cast<uint32_t>(kBase));
        reset_calls();
    }
    void TearDown() override {
        stop_engine();
        ZEPO_TMRSetMaxAbstmNum(kDefaultLimit);
        EXPECT_TRUE(all_on_driver()) << "a call-back ran on another thread than the driver";
    }
};

class StartAbsTimer : public AbsTimers {};

// ---- Seconds examined ---------------------------------------------------------------------

TEST_F(AbsTimers, AllWildcardsFireOnceForEachNewSecond) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u);
    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u) << "a check without a new second examines nothing";
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 3u);
    EXPECT_EQ(fires_of(arg_n(1)), 3u);
}

TEST_F(AbsTimers, CheckCoveringFiveNewSecondsFiresFiveTimesAtOnce) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 5);
    EXPECT_EQ(fires(), 6u);
    EXPECT_EQ(fires_of(arg_n(1)), 6u);
}

TEST_F(AbsTimers, CheckComesEveryHundredTicks) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);

    run_ticks(99);
    EXPECT_EQ(fires(), 0u);
    EXPECT_FALSE(in_list(record_of(handle))) << "the start was carried out before the check";
    run_ticks(1);
    EXPECT_EQ(fires(), 1u);
    EXPECT_TRUE(in_list(record_of(handle)));

    set_calendar(static_cast<uint32_t>(kBase + 1));
    run_ticks(99);
    EXPECT_EQ(fires(), 1u);
    run_ticks(1);
    EXPECT_EQ(fires(), 2u);
}

TEST_F(AbsTimers, FirstCheckExaminesOnlyTheCurrentSecond) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);

    check_at(kBase + 30);
    EXPECT_EQ(fires(), 1u);
}

TEST_F(AbsTimers, RestartedEngineExaminesOnlyTheCurrentSecondFirst) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);
    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);

    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(2)), nullptr);
    check_at(kBase + 10);
    EXPECT_EQ(fires_of(arg_n(2)), 1u) << "the seconds before the restart were examined";
}

TEST_F(AbsTimers, SecondsSinceThePreviousCheckCountEvenWhenNoTimerWasStarted) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    check_at(kBase);  // no timer yet
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);

    check_at(kBase + 3);
    EXPECT_EQ(fires(), 3u);
}

TEST_F(AbsTimers, CatchUpCoversSixtySecondsAndNoMore) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 60);
    EXPECT_EQ(fires(), 61u) << "a step of 60 s examines 60 seconds";
    check_at(kBase + 121);
    EXPECT_EQ(fires(), 62u) << "a step of 61 s examines only the current second";
    check_at(kBase + 181);
    EXPECT_EQ(fires(), 122u);
}

TEST_F(AbsTimers, ClockSetBackExaminesOnlyTheNewCurrentSecond) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);

    check_at(kBase);
    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u);
    check_at(kBase - 9);
    EXPECT_EQ(fires(), 3u);
    check_at(kBase - 8);
    EXPECT_EQ(fires(), 4u);
}

// ---- A daily pattern and the clock ------------------------------------------------------------

TEST_F(AbsTimers, DailyPatternFiresOnceInItsSecond) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = local_second(8, 30, 0);
    ASSERT_NE(started_timer(0, daily_0830(), arg_n(1)), nullptr);

    for (time_t second = at - 5; second <= at + 5; ++second) {
        check_at(second);
        EXPECT_EQ(fires(), second < at ? 0u : 1u) << "at " << second - at << " s";
    }
}

TEST_F(AbsTimers, DailyPatternFiresWhenTheClockJumpsOverItWithinAMinute) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = local_second(8, 30, 0);
    ASSERT_NE(started_timer(0, daily_0830(), arg_n(1)), nullptr);

    check_at(at - 10);  // 08:29:50
    EXPECT_EQ(fires(), 0u);
    check_at(at + 40);  // 08:30:40
    EXPECT_EQ(fires(), 1u);
    check_at(at + 41);
    EXPECT_EQ(fires(), 1u);
}

TEST_F(AbsTimers, DailyPatternIsMissedWhenTheClockJumpsTwoMinutesOverIt) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = local_second(8, 30, 0);
    ASSERT_NE(started_timer(0, daily_0830(), arg_n(1)), nullptr);

    check_at(at - 10);   // 08:29:50
    check_at(at + 110);  // 08:31:50
    check_at(at + 111);
    EXPECT_EQ(fires(), 0u);
}

TEST_F(AbsTimers, DailyPatternFiresAgainWhenTheClockIsSetBackOverIt) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = local_second(8, 30, 0);
    ASSERT_NE(started_timer(0, daily_0830(), arg_n(1)), nullptr);
    ASSERT_NE(started_timer(0, any_time(), arg_n(2)), nullptr);

    check_at(at - 1);
    check_at(at);
    check_at(at + 5);
    EXPECT_EQ(fires_of(arg_n(1)), 1u);
    EXPECT_EQ(fires_of(arg_n(2)), 7u);

    check_at(at - 5);  // set back by 10 s
    EXPECT_EQ(fires_of(arg_n(1)), 1u);
    EXPECT_EQ(fires_of(arg_n(2)), 8u) << "only the new current second is examined";

    for (time_t second = at - 4; second <= at; ++second) check_at(second);
    EXPECT_EQ(fires_of(arg_n(1)), 2u) << "08:30:00 came again";
    EXPECT_EQ(fires_of(arg_n(2)), 13u);
}

// ---- Matching ----------------------------------------------------------------------------------

TEST_F(AbsTimers, EverySixFieldsMustMatchUnlessWildcard) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = kBase + 37;
    const struct tm local = local_of(at);
    struct tm exact = any_time();
    for (auto field : kFields) exact.*field = local.*field;

    ASSERT_NE(started_timer(0, exact, arg_n(100)), nullptr);
    for (size_t i = 0; i < 6; ++i) {
        struct tm wrong = exact;
        wrong.*kFields[i] = other_value(i, local.*kFields[i]);
        ASSERT_NE(started_timer(0, wrong, arg_n(200 + i)), nullptr);
        struct tm onlyOne = any_time();
        onlyOne.*kFields[i] = local.*kFields[i];
        ASSERT_NE(started_timer(0, onlyOne, arg_n(300 + i)), nullptr);
    }

    check_at(at);
    EXPECT_EQ(fires_of(arg_n(100)), 1u) << "all six fields given";
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(fires_of(arg_n(200 + i)), 0u) << kFieldNames[i] << " differs";
        EXPECT_EQ(fires_of(arg_n(300 + i)), 1u) << "only " << kFieldNames[i] << " given";
    }
    EXPECT_EQ(fires(), 7u);
}

TEST_F(AbsTimers, WeekdayYeardayAndDaylightSavingOfThePatternAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const time_t at = kBase + 5;
    struct tm pattern = local_of(at);
    pattern.tm_wday = (pattern.tm_wday + 3) % 7;
    pattern.tm_yday = (pattern.tm_yday + 100) % 365;
    pattern.tm_isdst = pattern.tm_isdst > 0 ? 0 : 1;
    pattern.tm_gmtoff += 3600;
    pattern.tm_zone = "XYZ";
    ASSERT_NE(started_timer(0, pattern, arg_n(1)), nullptr);

    check_at(at - 1);
    EXPECT_EQ(fires(), 0u);
    check_at(at);
    EXPECT_EQ(fires(), 1u);
    check_at(at + 1);
    EXPECT_EQ(fires(), 1u);
}

TEST_F(AbsTimers, YearOrMonthMismatchNeverFires) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const struct tm local = local_of(kBase);
    struct tm nextYear = any_time();
    nextYear.tm_year = local.tm_year + 1;
    struct tm lastYear = any_time();
    lastYear.tm_year = local.tm_year - 1;
    struct tm nextMonth = any_time();
    nextMonth.tm_mon = (local.tm_mon + 1) % 12;
    ASSERT_NE(started_timer(0, nextYear, arg_n(1)), nullptr);
    ASSERT_NE(started_timer(0, lastYear, arg_n(2)), nullptr);
    ASSERT_NE(started_timer(0, nextMonth, arg_n(3)), nullptr);
    ASSERT_NE(started_timer(0, any_time(), arg_n(4)), nullptr);

    for (time_t second = kBase; second <= kBase + 300; second += 60) check_at(second);
    EXPECT_EQ(fires_of(arg_n(4)), 301u) << "301 seconds examined";
    EXPECT_EQ(fires(), 301u);
}

// ---- Modes
// ---------------------------------------------------------------------------------------

TEST_F(AbsTimers, ModeZeroFiresAtEveryMatchingSecondWhileStarted) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    struct tm everyMinute = any_time();
    everyMinute.tm_sec = local_of(kBase).tm_sec;
    void *handle = started_timer(0, everyMinute, arg_n(1));
    ASSERT_NE(handle, nullptr);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 59);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 60);
    EXPECT_EQ(fires(), 2u);
    check_at(kBase + 120);
    check_at(kBase + 180);
    EXPECT_EQ(fires(), 4u);
    EXPECT_TRUE(in_list(record_of(handle)));
    EXPECT_EQ(g_abstmNum, 1);
}

TEST_F(AbsTimers, ModeOneFiresOnceStaysCreatedAndCanBeStartedAgain) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(1, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    AbsTimerView *record = record_of(handle);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    check_at(kBase + 1);
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 1u);
    EXPECT_EQ(record_of(handle), record) << "the cell still holds the timer";
    EXPECT_FALSE(in_list(record));
    EXPECT_EQ(g_abstmNum, 1);

    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(handle, &any, arg_n(2)), 0u);
    check_at(kBase + 3);
    check_at(kBase + 4);
    EXPECT_EQ(fires_of(arg_n(2)), 1u);
    EXPECT_EQ(fires(), 2u);
}

TEST_F(AbsTimers, ModeOneCatchingUpFiresAtEachMatchingSecondOfThatCheck) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    check_at(kBase);
    void *handle = started_timer(1, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);

    check_at(kBase + 4);
    EXPECT_EQ(fires(), 4u) << "the seconds of one check are all examined";
    EXPECT_FALSE(in_list(record_of(handle)));
    check_at(kBase + 5);
    EXPECT_EQ(fires(), 4u);
}

void *g_watchedCell = nullptr;
std::atomic<int> g_watchedContent{-1};  // 0: the watched cell held nothing, 1: something

void watch_cell(void *arg) {
    g_watchedContent = *static_cast<void **>(g_watchedCell) == nullptr ? 0 : 1;
    on_fire(arg);
}

TEST_F(AbsTimers, ModeTwoReleasesTheCellAtOnceAndTheRecordAtTheNextCheck) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const size_t before = live_blocks();
    // Started first, so examined after the mode-2 timer in the same check.
    void *watcher = started_timer(0, any_time(), arg_n(9), watch_cell);
    ASSERT_NE(watcher, nullptr);
    void *handle = started_timer(2, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    g_watchedCell = handle;
    EXPECT_EQ(g_abstmNum, 2);

    check_at(kBase);
    EXPECT_EQ(fires_of(arg_n(1)), 1u);
    EXPECT_EQ(g_watchedContent.load(), 0) << "the cell was not released right after the call";
    EXPECT_EQ(*static_cast<void **>(handle), nullptr);
    EXPECT_EQ(g_pAbsTail, handle);
    EXPECT_EQ(g_abstmNum, 2) << "the record goes only at the next check";
    EXPECT_EQ(live_blocks(), before + 3) << "two records and the queued release";

    check_at(kBase + 1);
    EXPECT_EQ(fires_of(arg_n(1)), 1u);
    EXPECT_EQ(g_abstmNum, 1);
    EXPECT_EQ(live_blocks(), before + 1);
    EXPECT_EQ(g_pAbsTail, handle);
    EXPECT_EQ(free_cells(kDefaultLimit).size(), kDefaultLimit - 1);
}

TEST_F(AbsTimers, ModeTwoCatchingUpFiresAtEachMatchingSecondOfThatCheck) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const size_t before = live_blocks();
    check_at(kBase);
    void *handle = started_timer(2, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);

    check_at(kBase + 5);
    EXPECT_EQ(fires_of(arg_n(1)), 5u);
    EXPECT_EQ(g_abstmNum, 1) << "the record lives until the next check";
    EXPECT_EQ(*static_cast<void **>(handle), nullptr);
    const std::vector<void **> cells = free_cells(kDefaultLimit);
    EXPECT_EQ(cells.size(), kDefaultLimit) << "the cell was released more than once";
    EXPECT_EQ(cells.back(), handle);

    check_at(kBase + 6);
    EXPECT_EQ(fires(), 5u);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), before);
}

TEST_F(AbsTimers, ModeThreeCatchingUpFiresAtEachMatchingSecondThenLeavesTheList) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const size_t before = live_blocks();
    check_at(kBase);
    void *handle = started_timer(3, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    AbsTimerView *record = record_of(handle);

    check_at(kBase + 5);
    EXPECT_EQ(fires(), 5u) << "the seconds of one check are all examined";
    EXPECT_EQ(*static_cast<void **>(handle), nullptr);
    EXPECT_EQ(g_pAbsTail, handle);
    EXPECT_FALSE(in_list(record)) << "a freed one-shot timer stays in the list";
    EXPECT_EQ(g_abstmNum, 1);
    EXPECT_EQ(free_cells(kDefaultLimit).size(), kDefaultLimit);

    check_at(kBase + 6);
    EXPECT_EQ(fires(), 5u);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), before);
}

// ---- Order of the list ---------------------------------------------------------------------

TEST_F(AbsTimers, NewestStartedTimerIsCalledFirst) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(started_timer(0, any_time(), arg_n(1)), nullptr);
    ASSERT_NE(started_timer(0, any_time(), arg_n(2)), nullptr);

    check_at(kBase);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2), arg_n(1)}));

    ASSERT_NE(started_timer(0, any_time(), arg_n(3)), nullptr);
    reset_calls();
    check_at(kBase + 1);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(3), arg_n(2), arg_n(1)}));
}

TEST_F(AbsTimers, StartingAStartedTimerReplacesPatternAndArgumentButKeepsItsPlace) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *first = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(started_timer(0, any_time(), arg_n(2)), nullptr);
    check_at(kBase);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2), arg_n(1)}));

    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(first, &any, arg_n(11)), 0u);
    reset_calls();
    check_at(kBase + 1);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2), arg_n(11)})) << "moved to the front";
    EXPECT_EQ(record_of(first)->arg, arg_n(11));

    struct tm nextYear = any_time();
    nextYear.tm_year = local_of(kBase).tm_year + 1;
    ASSERT_EQ(petimer_start_abstimer(first, &nextYear, arg_n(12)), 0u);
    reset_calls();
    check_at(kBase + 2);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2)})) << "the pattern was not replaced";
    EXPECT_EQ(record_of(first)->stTime.tm_year, nextYear.tm_year);
    EXPECT_TRUE(in_list(record_of(first)));

    ASSERT_EQ(petimer_start_abstimer(first, &any, arg_n(13)), 0u);
    reset_calls();
    check_at(kBase + 3);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2), arg_n(13)}));
}

// ---- Stop ------------------------------------------------------------------------------------

TEST_F(AbsTimers, StopTakesTheTimerOutOfTheListAndCallsDoneOnTheDriver) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);
    ASSERT_EQ(fires(), 1u);
    AbsTimerView *record = record_of(handle);

    EXPECT_EQ(petimer_stop_abstimer_safe(handle, on_done, arg_n(77)), 0u);
    EXPECT_TRUE(done_calls().empty()) << "the stop is carried out by the driver";
    EXPECT_TRUE(in_list(record));

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 1u) << "the stop runs before the seconds are examined";
    EXPECT_EQ(done_calls(), (std::vector<void *>{arg_n(77)}));
    EXPECT_EQ(record_of(handle), record) << "a stopped timer stays created";
    EXPECT_FALSE(in_list(record));
    EXPECT_EQ(g_abstmNum, 1);
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 1u);

    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(handle, &any, arg_n(2)), 0u);
    check_at(kBase + 3);
    EXPECT_EQ(fires_of(arg_n(2)), 1u);

    // Through the public name, without a completion function.
    EXPECT_EQ(ZEPO_StopAbsTimer_Safe(handle, nullptr, nullptr), 0u);
    check_at(kBase + 4);
    EXPECT_EQ(fires(), 2u);
    EXPECT_EQ(done_calls().size(), 1u);
}

TEST_F(AbsTimers, StopOfATimerNotStartedStillCallsDone) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);

    EXPECT_EQ(ZEPO_StopAbsTimer_Safe(handle, on_done, arg_n(5)), 0u);
    check_at(kBase);
    EXPECT_EQ(done_calls(), (std::vector<void *>{arg_n(5)}));
    EXPECT_FALSE(in_list(record_of(handle)));
    EXPECT_EQ(fires(), 0u);
}

TEST_F(AbsTimers, StopExStoresTheCurrentArgument) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);

    // A start still queued has not replaced the argument yet.
    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(handle, &any, arg_n(2)), 0u);
    void *argument = nullptr;
    EXPECT_EQ(petimer_stop_abstimer_safeEx(handle, on_done, arg_n(50), &argument), 0u);
    EXPECT_EQ(argument, arg_n(1));

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 1u) << "start then stop, in the order queued";
    EXPECT_EQ(done_calls(), (std::vector<void *>{arg_n(50)}));
    EXPECT_EQ(record_of(handle)->arg, arg_n(2));

    argument = nullptr;
    EXPECT_EQ(ZEPO_StopAbsTimer_SafeEx(handle, nullptr, nullptr, &argument), 0u);
    EXPECT_EQ(argument, arg_n(2));
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 1u);
}

TEST_F(AbsTimers, StopExWithoutArgOutIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);
    const size_t before = live_blocks();

    EXPECT_REFUSED(petimer_stop_abstimer_safeEx(handle, on_done, arg_n(50), nullptr), 22u);
    EXPECT_REFUSED(ZEPO_StopAbsTimer_SafeEx(handle, on_done, arg_n(50), nullptr), 22u);
    EXPECT_EQ(live_blocks(), before) << "something was queued";

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u) << "the timer was stopped";
    EXPECT_TRUE(done_calls().empty());
}

// ---- Free and the handle table ------------------------------------------------------------

TEST_F(AbsTimers, FreeReleasesTheCellAtOnceAndTheRecordAtTheNextCheck) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);
    ASSERT_EQ(fires(), 1u);
    ASSERT_EQ(g_abstmNum, 1);
    const size_t before = live_blocks();

    EXPECT_EQ(ZEPO_FreeAbsTimer(handle), 0u);
    EXPECT_EQ(*static_cast<void **>(handle), nullptr);
    EXPECT_EQ(g_pAbsTail, handle);
    EXPECT_EQ(g_abstmNum, 1) << "the count drops when the driver frees the timer";

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 1u) << "a freed timer fired";
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), before - 1) << "the record was not released";
    EXPECT_EQ(free_cells(kDefaultLimit).size(), kDefaultLimit);
}

TEST_F(AbsTimers, FreedCellsAreReusedLast) {
    ZEPO_TMRSetMaxAbstmNum(4);
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *a = ZEPO_CreateAbsTimerM(on_fire, 0);
    void *b = ZEPO_CreateAbsTimerM(on_fire, 0);
    void *c = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(a, static_cast<void *>(&g_szAbsTimer[0]));
    EXPECT_EQ(b, static_cast<void *>(&g_szAbsTimer[1]));
    EXPECT_EQ(c, static_cast<void *>(&g_szAbsTimer[2]));

    ASSERT_EQ(ZEPO_FreeAbsTimer(b), 0u);
    ASSERT_EQ(ZEPO_FreeAbsTimer(a), 0u);
    EXPECT_EQ(free_cells(4),
              (std::vector<void **>{&g_szAbsTimer[3], &g_szAbsTimer[1], &g_szAbsTimer[0]}));
    check_at(kBase);
    ASSERT_EQ(g_abstmNum, 1);

    void *d = ZEPO_CreateAbsTimerM(on_fire, 0);
    void *e = ZEPO_CreateAbsTimerM(on_fire, 0);
    void *f = ZEPO_CreateAbsTimerM(on_fire, 0);
    EXPECT_EQ(d, static_cast<void *>(&g_szAbsTimer[3]));
    EXPECT_EQ(e, b);
    EXPECT_EQ(f, a);
    EXPECT_EQ(g_pAbsHead, nullptr);
    EXPECT_EQ(g_pAbsTail, nullptr);
    EXPECT_EQ(g_abstmNum, 4);
}

TEST_F(AbsTimers, ModeTwoCallBackFreeingItsOwnTimerReleasesItOnce) {
    ZEPO_TMRSetMaxAbstmNum(4);
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const size_t before = live_blocks();
    static void *s_handle = nullptr;
    static std::atomic<uint32_t> s_result{99};
    s_handle = ZEPO_CreateAbsTimerM(
        [](void *arg) {
            s_result = ZEPO_FreeAbsTimer(s_handle);
            on_fire(arg);
        },
        2);
    ASSERT_NE(s_handle, nullptr);
    ASSERT_EQ(s_handle, static_cast<void *>(&g_szAbsTimer[0]));
    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(s_handle, &any, arg_n(1)), 0u);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    EXPECT_EQ(s_result.load(), 0u);
    EXPECT_EQ(*static_cast<void **>(s_handle), nullptr);
    EXPECT_EQ(g_pAbsTail, s_handle);
    EXPECT_EQ(free_cells(4), (std::vector<void **>{&g_szAbsTimer[1], &g_szAbsTimer[2],
                                                   &g_szAbsTimer[3], &g_szAbsTimer[0]}));
    EXPECT_EQ(g_abstmNum, 1);

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 1u);
    EXPECT_EQ(g_abstmNum, 0) << "the timer was freed twice";
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(free_cells(4).size(), 4u);
}

TEST_F(AbsTimers, NullHandleOrEmptyCellIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const struct tm any = any_time();
    void *empty = nullptr;
    void *argument = arg_n(3);
    const size_t before = live_blocks();

    for (void *handle : {static_cast<void *>(nullptr), static_cast<void *>(&empty)}) {
        EXPECT_REFUSED(petimer_start_abstimer(handle, &any, arg_n(1)), 22u);
        EXPECT_REFUSED(petimer_stop_abstimer_safe(handle, on_done, nullptr), 22u);
        EXPECT_REFUSED(petimer_stop_abstimer_safeEx(handle, on_done, nullptr, &argument), 22u);
        EXPECT_REFUSED(petimer_free_abstimer(handle), 22u);
        EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &any, arg_n(1)), 22u);
        EXPECT_REFUSED(ZEPO_StopAbsTimer_Safe(handle, on_done, nullptr), 22u);
        EXPECT_REFUSED(ZEPO_StopAbsTimer_SafeEx(handle, on_done, nullptr, &argument), 22u);
        EXPECT_REFUSED(ZEPO_FreeAbsTimer(handle), 22u);
    }
    EXPECT_EQ(argument, arg_n(3));
    EXPECT_EQ(live_blocks(), before) << "a refused request was queued";
    check_at(kBase);
    EXPECT_TRUE(done_calls().empty());
}

TEST_F(AbsTimers, NullPatternIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    const size_t before = live_blocks();

    EXPECT_REFUSED(petimer_start_abstimer(handle, nullptr, arg_n(1)), 22u);
    EXPECT_EQ(live_blocks(), before);
}

TEST_F(AbsTimers, FreedHandleIsRefusedWhileItsCellIsTheLastFreeOne) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_FreeAbsTimer(handle), 0u);
    const size_t before = live_blocks();
    const struct tm any = any_time();
    void *argument = nullptr;

    EXPECT_REFUSED(ZEPO_FreeAbsTimer(handle), 22u);
    EXPECT_REFUSED(petimer_start_abstimer(handle, &any, arg_n(2)), 22u);
    EXPECT_REFUSED(petimer_stop_abstimer_safe(handle, on_done, nullptr), 22u);
    EXPECT_REFUSED(petimer_stop_abstimer_safeEx(handle, on_done, nullptr, &argument), 22u);
    EXPECT_EQ(live_blocks(), before);

    check_at(kBase);
    EXPECT_EQ(fires(), 0u);
    EXPECT_EQ(g_abstmNum, 0) << "freed twice";
    EXPECT_EQ(free_cells(kDefaultLimit).size(), kDefaultLimit);
}

// What the requests made from a call-back while the quitting flag was up gave.
struct QuittingProbe {
    void *other = nullptr;  // a created timer, started with any_time() and arg_n(1)
    uint32_t stop = 0, stopEx = 0, freed = 0, start = 0;
    uint32_t publicStop = 0, publicStopEx = 0, publicFree = 0;
    void *argument = nullptr;
    void *created = arg_n(1);
    void *publicCreated = arg_n(1);
    size_t liveBefore = 0, liveAfter = 0;
    void **headBefore = nullptr, **headAfter = nullptr;
    int32_t countBefore = 0, countAfter = 0;
    bool ran = false;
};
QuittingProbe g_probe;

void probe_quitting(void *) {
    QuittingProbe &p = g_probe;
    petimer_setQuitingFlag(1, 1);
    p.stop = petimer_stop_abstimer_safe(p.other, on_done, arg_n(70));
    p.stopEx = petimer_stop_abstimer_safeEx(p.other, on_done, arg_n(71), &p.argument);
    p.freed = petimer_free_abstimer(p.other);
    p.publicStop = ZEPO_StopAbsTimer_Safe(p.other, on_done, arg_n(72));
    p.publicStopEx = ZEPO_StopAbsTimer_SafeEx(p.other, on_done, arg_n(73), &p.argument);
    p.publicFree = ZEPO_FreeAbsTimer(p.other);
    p.liveBefore = live_blocks();
    p.headBefore = g_pAbsHead;
    p.countBefore = g_abstmNum;
    p.created = petimer_create_abstimer(on_fire, 0);
    p.publicCreated = ZEPO_CreateAbsTimerM(on_fire, 0);
    p.liveAfter = live_blocks();
    p.headAfter = g_pAbsHead;
    p.countAfter = g_abstmNum;
    const struct tm any = any_time();
    p.start = petimer_start_abstimer(p.other, &any, arg_n(2));
    petimer_setQuitingFlag(0, 0);
    p.ran = true;
}

TEST_F(AbsTimers, QuittingFlagRefusesStopFreeAndCreateButNotStart) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    g_probe.other = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(g_probe.other, nullptr);
    check_at(kBase);
    ASSERT_EQ(fires_of(arg_n(1)), 1u);
    void *probe = started_timer(1, any_time(), arg_n(9), probe_quitting);
    ASSERT_NE(probe, nullptr);

    check_at(kBase + 1);  // the probe runs with the flag up, on the driver
    ASSERT_TRUE(g_probe.ran);
    EXPECT_EQ(g_probe.stop, 22u);
    EXPECT_EQ(g_probe.stopEx, 22u);
    EXPECT_EQ(g_probe.freed, 22u);
    EXPECT_EQ(g_probe.publicStop, 22u);
    EXPECT_EQ(g_probe.publicStopEx, 22u);
    EXPECT_EQ(g_probe.publicFree, 22u);
    EXPECT_EQ(g_probe.created, nullptr);
    EXPECT_EQ(g_probe.publicCreated, nullptr);
    EXPECT_EQ(g_probe.liveAfter, g_probe.liveBefore) << "a refused creation leaked its record";
    EXPECT_EQ(g_probe.headAfter, g_probe.headBefore) << "a refused creation took a cell";
    EXPECT_EQ(g_probe.countAfter, g_probe.countBefore);
    EXPECT_EQ(g_probe.start, 0u) << "a start is not refused by the quitting flag";
    EXPECT_EQ(fires_of(arg_n(1)), 2u);

    check_at(kBase + 2);
    EXPECT_EQ(fires_of(arg_n(2)), 1u) << "the start queued while quitting was not carried out";
    EXPECT_EQ(fires_of(arg_n(1)), 2u);
    EXPECT_TRUE(done_calls().empty()) << "a refused stop was carried out";
    EXPECT_NE(*static_cast<void **>(g_probe.other), nullptr);
    EXPECT_EQ(g_abstmNum, 2);
}

// ---- Creation ----------------------------------------------------------------------------------

TEST_F(AbsTimers, CreateWithoutAFreeCellGivesNullAndLeavesErrno) {
    ZEPO_TMRSetMaxAbstmNum(3);
    ASSERT_NO_FATAL_FAILURE(start_engine());
    for (int i = 0; i < 3; ++i) ASSERT_NE(ZEPO_CreateAbsTimerM(on_fire, 0), nullptr);
    EXPECT_EQ(g_pAbsHead, nullptr);
    EXPECT_EQ(g_pAbsTail, nullptr);
    const size_t before = live_blocks();

    EXPECT_REFUSED(petimer_create_abstimer(on_fire, 0), nullptr);
    EXPECT_REFUSED(petimer_create_abstimer(nullptr, 0), nullptr);  // no free cell comes first
    EXPECT_REFUSED(ZEPO_CreateAbsTimerM(on_fire, 0), nullptr);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(g_abstmNum, 3);
}

TEST_F(AbsTimers, CreateWithoutCallBackGivesNullWithEinval) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void **head = g_pAbsHead;
    const size_t before = live_blocks();

    EXPECT_SERVICE_FAILS(petimer_create_abstimer(nullptr, 0), nullptr, EINVAL);
    EXPECT_SERVICE_FAILS(ZEPO_CreateAbsTimerM(nullptr, 0), nullptr, EINVAL);
    EXPECT_EQ(g_pAbsHead, head);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(g_abstmNum, 0);
}

TEST_F(AbsTimers, CreateWithoutMemoryGivesNullWithEnomem) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void **head = g_pAbsHead;
    const size_t before = live_blocks();

    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_create_abstimer(on_fire, 0), nullptr, ENOMEM);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(ZEPO_CreateAbsTimerM(on_fire, 0), nullptr, ENOMEM);
    fail_allocation(0);
    EXPECT_EQ(g_pAbsHead, head);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(g_abstmNum, 0);
}

TEST_F(AbsTimers, CreateStoresTheWholeModeAndAFreshRecord) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0xABCD0004u);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, static_cast<void *>(&g_szAbsTimer[0]));
    EXPECT_EQ(g_pAbsHead, &g_szAbsTimer[1]);
    EXPECT_EQ(g_abstmNum, 1);
    AbsTimerView *record = record_of(handle);
    EXPECT_EQ(record->mode, 0xABCD0004u);
    EXPECT_EQ(record->pfnTimeout, &on_fire);
    EXPECT_EQ(record->index, 0);
    EXPECT_FALSE(in_list(record));
    EXPECT_EQ(record->prev, record);

    // Neither bit value 1 nor 2: fires at every matching second.
    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(handle, &any, arg_n(1)), 0u);
    check_at(kBase);
    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u);
    EXPECT_EQ(record_of(handle), record);

    // Bit value 2 among others: freed after firing.
    void *autoFree = started_timer(0xFF000002u, any_time(), arg_n(2));
    ASSERT_NE(autoFree, nullptr);
    EXPECT_EQ(record_of(autoFree)->mode, 0xFF000002u);
    check_at(kBase + 2);
    EXPECT_EQ(fires_of(arg_n(2)), 1u);
    EXPECT_EQ(*static_cast<void **>(autoFree), nullptr);
    check_at(kBase + 3);
    EXPECT_EQ(fires_of(arg_n(2)), 1u);
    EXPECT_EQ(g_abstmNum, 1);
}

// ---- Allocation failures of the requests ----------------------------------------------------

TEST_F(AbsTimers, StartWithoutMemoryQueuesNothing) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    const struct tm any = any_time();
    const size_t before = live_blocks();

    for (int nth = 1; nth <= 2; ++nth) {  // the request, then its queue entry
        fail_allocation(nth);
        EXPECT_SERVICE_FAILS(petimer_start_abstimer(handle, &any, arg_n(1)), 12u, ENOMEM);
        fail_allocation(0);
        EXPECT_EQ(live_blocks(), before) << "allocation " << nth;
    }
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(ZEPO_StartAbsTimer(handle, &any, arg_n(1)), 12u, ENOMEM);
    fail_allocation(0);
    EXPECT_EQ(live_blocks(), before);

    check_at(kBase);
    EXPECT_EQ(fires(), 0u) << "a failed start was carried out";
    ASSERT_EQ(petimer_start_abstimer(handle, &any, arg_n(2)), 0u);
    check_at(kBase + 1);
    EXPECT_EQ(fired(), (std::vector<void *>{arg_n(2)}));
}

TEST_F(AbsTimers, StopWithoutMemoryQueuesNothing) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);
    const size_t before = live_blocks();
    void *argument = nullptr;

    for (int nth = 1; nth <= 2; ++nth) {  // the request, then its queue entry
        fail_allocation(nth);
        EXPECT_SERVICE_FAILS(petimer_stop_abstimer_safe(handle, on_done, arg_n(5)), 12u, ENOMEM);
        fail_allocation(0);
        EXPECT_EQ(live_blocks(), before) << "allocation " << nth;
        fail_allocation(nth);
        EXPECT_SERVICE_FAILS(petimer_stop_abstimer_safeEx(handle, on_done, arg_n(6), &argument),
                             12u, ENOMEM);
        fail_allocation(0);
        EXPECT_EQ(live_blocks(), before) << "allocation " << nth;
    }

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u) << "a failed stop was carried out";
    EXPECT_TRUE(done_calls().empty());
    EXPECT_EQ(petimer_stop_abstimer_safe(handle, on_done, arg_n(7)), 0u);
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 2u);
    EXPECT_EQ(done_calls(), (std::vector<void *>{arg_n(7)}));
}

TEST_F(AbsTimers, FreeWithoutMemoryChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = started_timer(0, any_time(), arg_n(1));
    ASSERT_NE(handle, nullptr);
    check_at(kBase);
    AbsTimerView *record = record_of(handle);
    void **tail = g_pAbsTail;
    const size_t before = live_blocks();

    fail_allocation(1);
    EXPECT_SERVICE_FAILS(petimer_free_abstimer(handle), 12u, ENOMEM);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(ZEPO_FreeAbsTimer(handle), 12u, ENOMEM);
    fail_allocation(0);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(record_of(handle), record) << "the cell was released";
    EXPECT_EQ(g_pAbsTail, tail);

    check_at(kBase + 1);
    EXPECT_EQ(fires(), 2u);
    EXPECT_EQ(g_abstmNum, 1);
    EXPECT_EQ(ZEPO_FreeAbsTimer(handle), 0u);
    check_at(kBase + 2);
    EXPECT_EQ(fires(), 2u);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), before - 1);
}

// ---- Tear-down ------------------------------------------------------------------------------

TEST_F(AbsTimers, StoppingTheEngineFreesEveryTimer) {
    const size_t before = live_blocks();
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *running = started_timer(0, any_time(), arg_n(1));
    void *stopped = started_timer(0, any_time(), arg_n(2));
    void *idle = ZEPO_CreateAbsTimerM(on_fire, 0);
    void *autoFree = started_timer(2, any_time(), arg_n(3));
    void *freed = started_timer(0, any_time(), arg_n(4));
    ASSERT_NE(running, nullptr);
    ASSERT_NE(stopped, nullptr);
    ASSERT_NE(idle, nullptr);
    ASSERT_NE(autoFree, nullptr);
    ASSERT_NE(freed, nullptr);
    ASSERT_EQ(ZEPO_StopAbsTimer_Safe(stopped, nullptr, nullptr), 0u);
    check_at(kBase);
    EXPECT_EQ(fires(), 3u);
    EXPECT_EQ(*static_cast<void **>(autoFree), nullptr);

    // Requests still queued when the engine stops.
    void *late = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(late, nullptr);
    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(late, &any, arg_n(5)), 0u);
    ASSERT_EQ(ZEPO_FreeAbsTimer(freed), 0u);
    EXPECT_EQ(g_abstmNum, 6);
    void **head = g_pAbsHead;

    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(fires(), 3u) << "a call-back ran during the tear-down";
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    // The cells of the started timers went back to the free list, newest started first;
    // the ends of the list are left as they were then.
    EXPECT_EQ(g_pAbsHead, head);
    EXPECT_EQ(g_pAbsTail, running);
    EXPECT_EQ(petimer_getTreadId(), 0u);

    ASSERT_NO_FATAL_FAILURE(start_engine());
    ASSERT_NE(g_szAbsTimer, nullptr);
    EXPECT_EQ(g_pAbsHead, &g_szAbsTimer[0]);
    EXPECT_EQ(g_pAbsTail, &g_szAbsTimer[kDefaultLimit - 1]);
    EXPECT_EQ(free_cells(kDefaultLimit).size(), kDefaultLimit);
    void *again = started_timer(0, any_time(), arg_n(6));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again, static_cast<void *>(&g_szAbsTimer[0]));
    check_at(kBase + 1);
    EXPECT_EQ(fires_of(arg_n(6)), 1u);
    EXPECT_EQ(fires(), 4u);
}

// ---- ZEPO_StartAbsTimer: the caller's calendar -------------------------------------------

// A pattern in the caller's convention for second: every field of its local time, the
// full year and months 1 to 12.
struct tm callers_pattern(time_t second) {
    struct tm pattern = local_of(second);
    pattern.tm_year += 1900;
    pattern.tm_mon += 1;
    return pattern;
}

TEST_F(StartAbsTimer, YearBefore1970IsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    const size_t before = live_blocks();
    struct tm pattern = any_time();
    pattern.tm_year = 1969;

    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &pattern, arg_n(1)), 22u);
    pattern.tm_year = 1970;
    EXPECT_EQ(ZEPO_StartAbsTimer(handle, &pattern, arg_n(1)), 0u) << "1970 is a valid year";
    check_at(kBase);
    EXPECT_EQ(fires(), 0u);
    EXPECT_EQ(live_blocks(), before);
}

TEST_F(StartAbsTimer, InvalidDateOrTimeIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    const size_t before = live_blocks();

    struct tm february30 = any_time();
    february30.tm_year = 2030;
    february30.tm_mon = 2;
    february30.tm_mday = 30;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &february30, arg_n(1)), 22u);
    struct tm month13 = any_time();
    month13.tm_mon = 13;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &month13, arg_n(1)), 22u);
    struct tm month0 = any_time();
    month0.tm_mon = 0;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &month0, arg_n(1)), 22u);
    struct tm hour24 = any_time();
    hour24.tm_hour = 24;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &hour24, arg_n(1)), 22u);
    struct tm second60 = any_time();
    second60.tm_sec = 60;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &second60, arg_n(1)), 22u);
    struct tm day0 = any_time();
    day0.tm_mday = 0;
    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, &day0, arg_n(1)), 22u);
    EXPECT_EQ(live_blocks(), before) << "a refused start was queued";

    check_at(kBase);
    EXPECT_EQ(fires(), 0u);
}

TEST_F(StartAbsTimer, NullPatternIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    const size_t before = live_blocks();

    EXPECT_REFUSED(ZEPO_StartAbsTimer(handle, nullptr, arg_n(1)), 22u);
    EXPECT_EQ(live_blocks(), before);
}

TEST_F(StartAbsTimer, FullYearAndMonthOneToTwelveAreConverted) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    const struct tm local = local_of(kBase);
    ASSERT_EQ(local.tm_year, 130);
    ASSERT_EQ(local.tm_mon, 0);

    struct tm january2030 = any_time();
    january2030.tm_year = 2030;
    january2030.tm_mon = 1;
    struct tm february2030 = january2030;
    february2030.tm_mon = 2;
    struct tm january2031 = january2030;
    january2031.tm_year = 2031;
    const time_t at = kBase + 20;
    const struct tm exact = callers_pattern(at);

    void *handles[4];
    const struct tm *patterns[4] = {&january2030, &february2030, &january2031, &exact};
    for (uintptr_t i = 0; i < 4; ++i) {
        handles[i] = ZEPO_CreateAbsTimerM(on_fire, 0);
        ASSERT_NE(handles[i], nullptr);
        ASSERT_EQ(ZEPO_StartAbsTimer(handles[i], patterns[i], arg_n(i + 1)), 0u);
    }

    check_at(at - 1);
    EXPECT_EQ(fires_of(arg_n(1)), 1u) << "January 2030";
    EXPECT_EQ(fires_of(arg_n(2)), 0u) << "February 2030";
    EXPECT_EQ(fires_of(arg_n(3)), 0u) << "January 2031";
    EXPECT_EQ(fires_of(arg_n(4)), 0u);
    check_at(at);
    check_at(at + 1);
    EXPECT_EQ(fires_of(arg_n(1)), 3u);
    EXPECT_EQ(fires_of(arg_n(4)), 1u) << "the exact second";
    EXPECT_EQ(fires(), 4u);

    EXPECT_EQ(record_of(handles[0])->stTime.tm_year, 130);
    EXPECT_EQ(record_of(handles[0])->stTime.tm_mon, 0);
    EXPECT_EQ(record_of(handles[1])->stTime.tm_mon, 1);
    EXPECT_EQ(record_of(handles[2])->stTime.tm_year, 131);
    EXPECT_EQ(record_of(handles[3])->stTime.tm_sec, local_of(at).tm_sec);
    EXPECT_EQ(record_of(handles[3])->stTime.tm_mday, local_of(at).tm_mday);
}

TEST_F(StartAbsTimer, WildcardYearAndMonthStayWildcards) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    struct tm pattern = any_time();
    pattern.tm_sec = local_of(kBase).tm_sec;
    ASSERT_EQ(ZEPO_StartAbsTimer(handle, &pattern, arg_n(1)), 0u);

    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    EXPECT_EQ(record_of(handle)->stTime.tm_year, -1);
    EXPECT_EQ(record_of(handle)->stTime.tm_mon, -1);
    EXPECT_EQ(record_of(handle)->stTime.tm_mday, -1);
    EXPECT_EQ(record_of(handle)->stTime.tm_sec, pattern.tm_sec);
}

TEST_F(StartAbsTimer, CallersPatternIsNotChanged) {
    ASSERT_NO_FATAL_FAILURE(start_engine());
    void *handle = ZEPO_CreateAbsTimerM(on_fire, 0);
    ASSERT_NE(handle, nullptr);
    struct tm pattern;
    std::memset(&pattern, 0, sizeof pattern);
    pattern = callers_pattern(kBase);
    struct tm copy;
    std::memcpy(&copy, &pattern, sizeof pattern);

    ASSERT_EQ(ZEPO_StartAbsTimer(handle, &pattern, arg_n(1)), 0u);
    EXPECT_EQ(std::memcmp(&copy, &pattern, sizeof pattern), 0);
    check_at(kBase);
    EXPECT_EQ(fires(), 1u);
    EXPECT_EQ(std::memcmp(&copy, &pattern, sizeof pattern), 0);
}

// ---- The real clocks ------------------------------------------------------------------------

std::atomic<int64_t> g_firedAtSecond{0};

time_t wall_seconds() {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

void on_timed_fire(void *arg) {
    if (g_firedAtSecond.load() == 0) g_firedAtSecond = wall_seconds();
    on_fire(arg);
}

class AbsTimersOnTheRealClocks : public ::testing::Test {
protected:
    void SetUp() override {
        use_real_clock();
        use_real_calendar();
        reset_calls();
        g_firedAtSecond = 0;
    }
    void TearDown() override { stop_engine(); }
};

TEST_F(AbsTimersOnTheRealClocks, ExactPatternTwoSecondsAheadFiresOnceInItsSecond) {
    // A one-shot probe shows that the calendar check has run once: from then on every
    // second is examined even when a check comes late.
    void *probe = ZEPO_CreateAbsTimerM(on_fire, 1);
    ASSERT_NE(probe, nullptr);
    const struct tm any = any_time();
    ASSERT_EQ(petimer_start_abstimer(probe, &any, arg_n(1)), 0u);
    ASSERT_TRUE(wait_until([] { return fires_of(arg_n(1)) == 1; }, 6s));

    const time_t target = wall_seconds() + 2;
    const struct tm pattern = local_of(target);
    void *handle = ZEPO_CreateAbsTimerM(on_timed_fire, 0);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(petimer_start_abstimer(handle, &pattern, arg_n(2)), 0u);

    EXPECT_TRUE(wait_until([] { return fires_of(arg_n(2)) >= 1; }, 6s));
    EXPECT_GE(g_firedAtSecond.load(), static_cast<int64_t>(target)) << "fired before its second";
    // Two more seconds pass: an exact pattern matches no other second.
    EXPECT_TRUE(wait_until([&] { return wall_seconds() >= target + 2; }, 6s));
    stop_engine();
    EXPECT_EQ(fires_of(arg_n(2)), 1u);
    EXPECT_EQ(fires_of(arg_n(1)), 1u);
    EXPECT_TRUE(all_on_driver());
}

}  // namespace
