// Clocks, calendar, the validity test of a calendar time, and the random numbers.
//
// The clocks are never set for real.  The test executable defines its own gettimeofday,
// settimeofday, clock_gettime, time, mktime, gmtime_r and strftime, and its own ZEPO_Open,
// ZEPO_Read and ZEPO_Close: the library reaches all of them through the dynamic linker, so
// these definitions come first.  Each records its calls and, when a test switches it on,
// answers what the test chose; otherwise it forwards to the next definition
// (dlsym(RTLD_NEXT, ...)), which under AddressSanitizer is the sanitizer's own interceptor.
// settimeofday never forwards, and every test drops the privilege to set the clock first,
// so that even a call that escaped the stand-in could not change the machine's time.
//
// The process's time zone is set to "ABC-3" (three hours east of Greenwich, no summer time)
// with setenv and tzset: that changes this process only, and it tells local time from UTC.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qel_file.h"
#include "qel_time.h"

#include "test_support.h"

namespace {

constexpr const char *kZone = "ABC-3";  // local time is UTC + 3 hours
constexpr int64_t kZoneEast = 3 * 3600;
constexpr time_t kMonday20240115At102030Utc = 1705314030;  // 2024-01-15T10:20:30Z

// ---- What the stand-ins record and answer ------------------------------------------------

struct WallClock {
    bool fixed = false;  // gettimeofday answers tv, zone and result below
    timeval tv{};
    bool fill_zone = false;
    struct timezone zone {};
    int result = 0;
    int64_t shift = 0;  // seconds added to the forwarded wall clock: a jump of the clock
    int gettimeofday_calls = 0;
    void *last_zone = nullptr;
    bool time_fixed = false;  // time() answers time_value
    time_t time_value = 0;
    int time_calls = 0;
};

struct RunClock {
    bool fixed = false;  // clock_gettime(CLOCK_MONOTONIC) answers ts
    timespec ts{};
    int monotonic_calls = 0;
};

struct ClockSetting {
    int result = -1;
    bool apply = false;  // a successful call moves the simulated wall clock
    int calls = 0;
    bool had_tv = false;
    timeval tv{};
    bool had_zone = false;
    struct timezone zone {};
};

struct CalendarCalls {
    int mktime_calls = 0;
    bool mktime_fails = false;
    struct tm mktime_arg {};
    int gmtime_r_calls = 0;
    int strftime_calls = 0;
    size_t strftime_size = 0;
};

struct Device {
    bool on = false;
    bool open_fails = false;
    int open_calls = 0;
    std::string path;
    int32_t flags = -1;
    uint32_t mode = 0;
    int32_t fd = -1;
    int read_calls = 0;
    int succeed_on = 0;     // the read (counted from 1) that gives bytes; 0: none does
    int64_t fruitless = 0;  // what the other reads give
    int64_t bytes = 4;      // how many bytes the successful read gives
    unsigned char pattern[4] = {0xA1, 0xB2, 0xC3, 0xD4};
    int32_t read_fd = -2;
    void *read_buf = nullptr;
    uint32_t read_len = 0;
    int close_calls = 0;
    int32_t closed_fd = -2;
};

struct State {
    WallClock wall;
    RunClock run;
    ClockSetting setting;
    CalendarCalls calendar;
    Device device;
};
State state;

using qel_test::next_definition;

using GettimeofdayFn = int (*)(timeval *, void *);
using ClockGettimeFn = int (*)(clockid_t, timespec *);

GettimeofdayFn real_gettimeofday() {
    static const auto next = next_definition<GettimeofdayFn>("gettimeofday");
    return next;
}

ClockGettimeFn real_clock_gettime() {
    static const auto next = next_definition<ClockGettimeFn>("clock_gettime");
    return next;
}

// The real wall clock's seconds, whatever the stand-ins are told to answer.
int64_t real_wall_seconds() {
    timespec ts{};
    real_clock_gettime()(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

}  // namespace

// ---- The stand-ins -----------------------------------------------------------------------

extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict tz) __THROW {
    ++state.wall.gettimeofday_calls;
    state.wall.last_zone = tz;
    if (state.wall.fixed) {
        *tv = state.wall.tv;
        if (tz != nullptr && state.wall.fill_zone) {
            *static_cast<struct timezone *>(tz) = state.wall.zone;
        }
        return state.wall.result;
    }
    const int result = real_gettimeofday()(tv, tz);
    if (result == 0) {
        tv->tv_sec += state.wall.shift;
    }
    return result;
}

extern "C" int clock_gettime(clockid_t clock, struct timespec *ts) __THROW {
    if (clock == CLOCK_MONOTONIC) {
        ++state.run.monotonic_calls;
        if (state.run.fixed) {
            *ts = state.run.ts;
            return 0;
        }
    }
    const int result = real_clock_gettime()(clock, ts);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        ts->tv_sec += state.wall.shift;
    }
    return result;
}

extern "C" time_t time(time_t *out) __THROW {
    static const auto next = next_definition<time_t (*)(time_t *)>("time");
    ++state.wall.time_calls;
    const time_t now =
        state.wall.time_fixed ? state.wall.time_value : next(nullptr) + state.wall.shift;
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

// Never forwarded: the machine's clock is not to be touched.
extern "C" int settimeofday(const struct timeval *tv, const struct timezone *tz) __THROW {
    ++state.setting.calls;
    state.setting.had_tv = tv != nullptr;
    state.setting.had_zone = tz != nullptr;
    if (tv != nullptr) {
        state.setting.tv = *tv;
    }
    if (tz != nullptr) {
        state.setting.zone = *tz;
    }
    if (state.setting.result != 0) {
        errno = EPERM;
        return state.setting.result;
    }
    if (state.setting.apply && tv != nullptr) {
        state.wall.shift = tv->tv_sec - real_wall_seconds();
    }
    return 0;
}

extern "C" time_t mktime(struct tm *tm) __THROW {
    static const auto next = next_definition<time_t (*)(struct tm *)>("mktime");
    ++state.calendar.mktime_calls;
    state.calendar.mktime_arg = *tm;
    if (state.calendar.mktime_fails) {
        errno = EOVERFLOW;
        return -1;
    }
    return next(tm);
}

extern "C" struct tm *gmtime_r(const time_t *__restrict timer,
                               struct tm *__restrict result) __THROW {
    static const auto next =
        next_definition<struct tm *(*)(const time_t *, struct tm *)>("gmtime_r");
    ++state.calendar.gmtime_r_calls;
    return next(timer, result);
}

extern "C" size_t strftime(char *__restrict buffer, size_t size, const char *__restrict format,
                           const struct tm *__restrict tm) __THROW {
    using Fn = size_t (*)(char *, size_t, const char *, const struct tm *);
    static const auto next = next_definition<Fn>("strftime");
    ++state.calendar.strftime_calls;
    state.calendar.strftime_size = size;
    return next(buffer, size, format, tm);
}

// The library's own descriptor entry points, which ZEPO_RealRandom calls.
extern "C" int32_t ZEPO_Open(const char *path, int32_t flags, uint32_t mode) {
    static const auto next =
        next_definition<int32_t (*)(const char *, int32_t, uint32_t)>("ZEPO_Open");
    if (!state.device.on) {
        return next(path, flags, mode);
    }
    ++state.device.open_calls;
    state.device.path = path != nullptr ? path : "(null)";
    state.device.flags = flags;
    state.device.mode = mode;
    if (state.device.open_fails) {
        errno = ENOENT;
        return -1;
    }
    state.device.fd = next(path, flags, mode);  // the real device: the descriptor is real
    return state.device.fd;
}

extern "C" int64_t ZEPO_Read(int32_t fd, void *buf, uint32_t len) {
    static const auto next = next_definition<int64_t (*)(int32_t, void *, uint32_t)>("ZEPO_Read");
    if (!state.device.on) {
        return next(fd, buf, len);
    }
    ++state.device.read_calls;
    state.device.read_fd = fd;
    state.device.read_buf = buf;
    state.device.read_len = len;
    if (state.device.read_calls != state.device.succeed_on) {
        return state.device.fruitless;
    }
    std::memcpy(buf, state.device.pattern, static_cast<size_t>(state.device.bytes));
    return state.device.bytes;
}

extern "C" int32_t ZEPO_Close(int32_t fd) {
    static const auto next = next_definition<int32_t (*)(int32_t)>("ZEPO_Close");
    if (state.device.on) {
        ++state.device.close_calls;
        state.device.closed_fd = fd;
    }
    return next(fd);
}

namespace {

// ---- Helpers -----------------------------------------------------------------------------

// Drops CAP_SYS_TIME from this process (its only thread), so no call can set the clock.
void drop_the_privilege_to_set_the_clock() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0) << std::strerror(errno);
    const uint32_t bit = 1u << (CAP_SYS_TIME % 32);
    auto &word = data[CAP_SYS_TIME / 32];
    word.effective &= ~bit;
    word.permitted &= ~bit;
    word.inheritable &= ~bit;
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0) << std::strerror(errno);
    __user_cap_data_struct now[2]{};
    ASSERT_EQ(syscall(SYS_capget, &header, now), 0);
    ASSERT_EQ(now[CAP_SYS_TIME / 32].effective & bit, 0u);
}

class TimeFixture : public ::testing::Test {
protected:
    void SetUp() override {
        state = State{};
        drop_the_privilege_to_set_the_clock();
        ASSERT_EQ(setenv("TZ", kZone, 1), 0);
        tzset();
    }
    void TearDown() override { state = State{}; }
};

class TimeClock : public TimeFixture {};
class TimeRunClock : public TimeFixture {};
class TimeOfDay : public TimeFixture {};
class TimeZone : public TimeFixture {};
class TimeCalendar : public TimeFixture {};
class TimeValid : public TimeFixture {};
class TimeMaxDate : public TimeFixture {};
class TimeSetSysTime : public TimeFixture {};
class TimeRandom : public TimeFixture {};

// The wall clock in the library's milliseconds, read from the real clock.
uint64_t wall_milliseconds() {
    timeval tv{};
    real_gettimeofday()(&tv, nullptr);
    return static_cast<uint64_t>(static_cast<uint32_t>(tv.tv_sec)) * 1000u +
           static_cast<uint64_t>(tv.tv_usec / 1000);
}

// The monotonic clock in the library's run-time milliseconds, read from the real clock.
uint32_t monotonic_milliseconds() {
    timespec ts{};
    real_clock_gettime()(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint32_t>(ts.tv_sec) * 1000u +
                                 static_cast<uint32_t>(ts.tv_nsec / 1000000));
}

uint32_t monotonic_seconds() {
    timespec ts{};
    real_clock_gettime()(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec);
}

void fix_wall_clock(int64_t seconds, int64_t microseconds) {
    state.wall.fixed = true;
    state.wall.tv.tv_sec = static_cast<time_t>(seconds);
    state.wall.tv.tv_usec = static_cast<suseconds_t>(microseconds);
}

void fix_run_clock(int64_t seconds, int64_t nanoseconds) {
    state.run.fixed = true;
    state.run.ts.tv_sec = static_cast<time_t>(seconds);
    state.run.ts.tv_nsec = static_cast<long>(nanoseconds);
}

// A calendar time in the caller's convention (full year, months 1 to 12).
struct tm caller_time(int year, int month, int day, int hour = 12, int minute = 30,
                      int second = 45) {
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    tm.tm_year = year;
    tm.tm_mon = month;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = 0;
    return tm;
}

struct tm utc_of(time_t when) {
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    EXPECT_NE(::gmtime_r(&when, &tm), nullptr);
    return tm;
}

void expect_same_tm(const struct tm &got, const struct tm &want) {
    EXPECT_EQ(got.tm_sec, want.tm_sec);
    EXPECT_EQ(got.tm_min, want.tm_min);
    EXPECT_EQ(got.tm_hour, want.tm_hour);
    EXPECT_EQ(got.tm_mday, want.tm_mday);
    EXPECT_EQ(got.tm_mon, want.tm_mon);
    EXPECT_EQ(got.tm_year, want.tm_year);
    EXPECT_EQ(got.tm_wday, want.tm_wday);
    EXPECT_EQ(got.tm_yday, want.tm_yday);
    EXPECT_EQ(got.tm_isdst, want.tm_isdst);
    EXPECT_EQ(got.tm_gmtoff, want.tm_gmtoff);
    ASSERT_NE(got.tm_zone, nullptr);
    ASSERT_NE(want.tm_zone, nullptr);
    EXPECT_STREQ(got.tm_zone, want.tm_zone);
}

// A record whose every field is a recognisable value no conversion would produce.
struct tm marked_tm() {
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    tm.tm_sec = tm.tm_min = tm.tm_hour = tm.tm_mday = tm.tm_mon = tm.tm_year = 4242;
    tm.tm_wday = tm.tm_yday = tm.tm_isdst = 4242;
    tm.tm_gmtoff = 4242;
    tm.tm_zone = "marked";
    return tm;
}

void expect_marked(const struct tm &tm) { expect_same_tm(tm, marked_tm()); }

const time_t kSampleTimes[] = {0,          1,          kMonday20240115At102030Utc,
                               951782400,               // 2000-02-29T00:00:00Z
                               1709164799,              // 2024-02-28T23:59:59Z
                               2147483647, 4102444800,  // 2100-01-01T00:00:00Z
                               -86400,     -1};

// ---- Wall clock --------------------------------------------------------------------------

TEST_F(TimeClock, SystemTimeIsTheWallClockInMilliseconds) {
    const uint64_t before = wall_milliseconds();
    const uint64_t got = ZEPO_GetSystemTime();
    const uint64_t after = wall_milliseconds();
    EXPECT_GE(got, before);
    EXPECT_LE(got, after);
    const uint64_t seconds = static_cast<uint64_t>(::time(nullptr)) * 1000u;
    EXPECT_LT(got > seconds ? got - seconds : seconds - got, 3000u);
}

TEST_F(TimeClock, SystemTimeCutsTheSecondsTo32BitsBeforeMultiplying) {
    fix_wall_clock(INT64_C(4294967296) + 5, 678901);
    EXPECT_EQ(ZEPO_GetSystemTime(), UINT64_C(5678));
    EXPECT_EQ(state.wall.gettimeofday_calls, 1);
}

TEST_F(TimeClock, SystemTimeMultipliesTheSecondsInSixtyFourBits) {
    fix_wall_clock(INT64_C(4294967295), 999999);
    EXPECT_EQ(ZEPO_GetSystemTime(), UINT64_C(4294967295999));
    fix_wall_clock(INT64_C(1705314030), 456789);
    EXPECT_EQ(ZEPO_GetSystemTime(), UINT64_C(1705314030456));
}

TEST_F(TimeClock, SystemTimeDropsTheSubMillisecondMicroseconds) {
    fix_wall_clock(10, 999);
    EXPECT_EQ(ZEPO_GetSystemTime(), UINT64_C(10000));
    fix_wall_clock(10, 1000);
    EXPECT_EQ(ZEPO_GetSystemTime(), UINT64_C(10001));
}

TEST_F(TimeClock, SystemTimeOfNegativeSecondsIsZero) {
    fix_wall_clock(-1, 500000);
    EXPECT_EQ(ZEPO_GetSystemTime(), 0u);
    fix_wall_clock(-3600, 0);
    EXPECT_EQ(ZEPO_GetSystemTime(), 0u);
}

TEST_F(TimeClock, SystemTimeOfNegativeMicrosecondsIsZero) {
    fix_wall_clock(1700000000, -1);
    EXPECT_EQ(ZEPO_GetSystemTime(), 0u);
    fix_wall_clock(1700000000, -999999);
    EXPECT_EQ(ZEPO_GetSystemTime(), 0u);
}

TEST_F(TimeClock, SysTimeSecIsTheWallClockInSeconds) {
    const uint32_t before = static_cast<uint32_t>(real_wall_seconds());
    const uint32_t got = ZEPO_GetSysTimeSec();
    const uint32_t after = static_cast<uint32_t>(real_wall_seconds());
    EXPECT_GE(got, before);
    EXPECT_LE(got, after);
}

TEST_F(TimeClock, SysTimeSecCutsTheSecondsTo32Bits) {
    fix_wall_clock(INT64_C(4294967296) + 5, 999999);
    EXPECT_EQ(ZEPO_GetSysTimeSec(), 5u);
    fix_wall_clock(1705314030, 999999);
    EXPECT_EQ(ZEPO_GetSysTimeSec(), 1705314030u);
    EXPECT_EQ(state.wall.gettimeofday_calls, 2);
}

TEST_F(TimeClock, SysTimeSecKeepsTheLow32BitsOfANegativeSecondCount) {
    fix_wall_clock(-1, 0);
    EXPECT_EQ(ZEPO_GetSysTimeSec(), 4294967295u);
}

// ---- Run-time clock ----------------------------------------------------------------------

TEST_F(TimeRunClock, RunTimeIsTheMonotonicClockInMilliseconds) {
    for (int i = 0; i < 100; ++i) {
        const uint32_t before = monotonic_milliseconds();
        const uint32_t got = ZEPO_GetSysRunTime();
        const uint32_t after = monotonic_milliseconds();
        ASSERT_LE(static_cast<uint32_t>(got - before), static_cast<uint32_t>(after - before))
            << "before " << before << " got " << got << " after " << after;
    }
}

TEST_F(TimeRunClock, RunTimeAdvancesWithTheMonotonicClock) {
    const uint32_t before = monotonic_milliseconds();
    const uint32_t first = ZEPO_GetSysRunTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    const uint32_t second = ZEPO_GetSysRunTime();
    const uint32_t after = monotonic_milliseconds();
    EXPECT_GE(static_cast<uint32_t>(second - first), 60u);
    EXPECT_LE(static_cast<uint32_t>(second - first), static_cast<uint32_t>(after - before));
}

TEST_F(TimeRunClock, RunTimeSecIsTheMonotonicClockInSeconds) {
    const uint32_t before = monotonic_seconds();
    const uint32_t got = ZEPO_GetSysRunTimeSec();
    const uint32_t after = monotonic_seconds();
    EXPECT_GE(got, before);
    EXPECT_LE(got, after);
}

TEST_F(TimeRunClock, RunTimeReadsTheMonotonicClock) {
    fix_run_clock(12, 345678901);
    EXPECT_EQ(ZEPO_GetSysRunTime(), 12345u);
    EXPECT_GE(state.run.monotonic_calls, 1);
}

TEST_F(TimeRunClock, RunTimeMultipliesTheSecondsIn32BitsAndWraps) {
    fix_run_clock(4294968, 5000000);  // 4294968000 ms is 704 after the wrap
    EXPECT_EQ(ZEPO_GetSysRunTime(), 709u);
    fix_run_clock(4294967, 296000000);  // exactly 2^32 ms
    EXPECT_EQ(ZEPO_GetSysRunTime(), 0u);
    fix_run_clock(4294967, 295999999);
    EXPECT_EQ(ZEPO_GetSysRunTime(), 4294967295u);
}

TEST_F(TimeRunClock, RunTimeDropsTheSubMillisecondNanoseconds) {
    fix_run_clock(1, 999999999);
    EXPECT_EQ(ZEPO_GetSysRunTime(), 1999u);
    fix_run_clock(0, 999999);
    EXPECT_EQ(ZEPO_GetSysRunTime(), 0u);
}

TEST_F(TimeRunClock, RunTimeSecCutsTheSecondsTo32Bits) {
    fix_run_clock(INT64_C(4294967296) + 7, 999999999);
    EXPECT_EQ(ZEPO_GetSysRunTimeSec(), 7u);
    fix_run_clock(4294968, 5000000);
    EXPECT_EQ(ZEPO_GetSysRunTimeSec(), 4294968u);
    EXPECT_GE(state.run.monotonic_calls, 2);
}

// A jump of the wall clock by `hours`: gettimeofday, CLOCK_REALTIME and time() move, the
// monotonic clock goes on.  The run-time clocks must stay within the monotonic bracket.
void expect_run_clocks_ignore_a_wall_clock_jump(int64_t hours) {
    state.wall.shift = hours * 3600;
    const int64_t wall = static_cast<int64_t>(ZEPO_GetSysTimeSec());
    const int64_t real = real_wall_seconds();
    EXPECT_LT(std::llabs(wall - (real + hours * 3600)), 5) << "the simulated jump is not seen";

    for (int i = 0; i < 20; ++i) {
        const uint32_t before = monotonic_milliseconds();
        const uint32_t got = ZEPO_GetSysRunTime();
        const uint32_t after = monotonic_milliseconds();
        ASSERT_LE(static_cast<uint32_t>(got - before), static_cast<uint32_t>(after - before));
        const uint32_t seconds_before = monotonic_seconds();
        const uint32_t seconds = ZEPO_GetSysRunTimeSec();
        const uint32_t seconds_after = monotonic_seconds();
        ASSERT_GE(seconds, seconds_before);
        ASSERT_LE(seconds, seconds_after);
        state.wall.shift += (i % 2 == 0 ? 1 : -1) * 7200;  // the clock keeps being set
    }
}

TEST_F(TimeRunClock, RunTimeDoesNotMoveWhenTheWallClockJumpsForward) {
    expect_run_clocks_ignore_a_wall_clock_jump(5);
}

TEST_F(TimeRunClock, RunTimeDoesNotMoveWhenTheWallClockJumpsBack) {
    expect_run_clocks_ignore_a_wall_clock_jump(-5);
}

TEST_F(TimeRunClock, RunTimeDoesNotMoveWhenTheWallClockJumpsByYears) {
    expect_run_clocks_ignore_a_wall_clock_jump(24 * 365 * 3);
}

TEST_F(TimeRunClock, RunTimeDoesNotMoveWhenSetSysTimeSetsTheClock) {
    state.setting.result = 0;
    state.setting.apply = true;
    const uint32_t run_before = monotonic_milliseconds();
    const uint32_t run_seconds_before = monotonic_seconds();

    struct tm target = caller_time(2031, 7, 1, 8, 0, 0);  // years ahead of the real clock
    ASSERT_EQ(ZEPO_SetSysTime(&target), 0);
    ASSERT_EQ(state.setting.calls, 1);
    ASSERT_TRUE(state.setting.had_tv);
    // The simulated wall clock now reads the time just set.
    EXPECT_LT(std::llabs(static_cast<int64_t>(ZEPO_GetSysTimeSec()) -
                         static_cast<int64_t>(state.setting.tv.tv_sec)),
              5);

    const uint32_t got = ZEPO_GetSysRunTime();
    const uint32_t seconds = ZEPO_GetSysRunTimeSec();
    const uint32_t run_after = monotonic_milliseconds();
    const uint32_t run_seconds_after = monotonic_seconds();
    EXPECT_LE(static_cast<uint32_t>(got - run_before),
              static_cast<uint32_t>(run_after - run_before));
    EXPECT_GE(seconds, run_seconds_before);
    EXPECT_LE(seconds, run_seconds_after);

    // And back to 1970.
    struct tm early = caller_time(1970, 1, 2, 0, 0, 0);
    ASSERT_EQ(ZEPO_SetSysTime(&early), 0);
    EXPECT_LT(ZEPO_GetSysTimeSec(), 200000u);
    const uint32_t before_again = monotonic_milliseconds();
    const uint32_t again = ZEPO_GetSysRunTime();
    const uint32_t after_again = monotonic_milliseconds();
    EXPECT_LE(static_cast<uint32_t>(again - before_again),
              static_cast<uint32_t>(after_again - before_again));
}

// ---- gettimeofday and the time zone ------------------------------------------------------

TEST_F(TimeOfDay, GetTimeOfDayOfNullTvGivesZeroWithoutACall) {
    fix_wall_clock(1, 2);
    state.wall.result = -1;  // a call would be seen as a failure
    struct timezone zone {};
    EXPECT_EQ(ZEPO_GetTimeOfDay(nullptr, &zone), 0);
    EXPECT_EQ(ZEPO_GetTimeOfDay(nullptr, nullptr), 0);
    EXPECT_EQ(state.wall.gettimeofday_calls, 0);
}

TEST_F(TimeOfDay, GetTimeOfDayGivesTheValuesOfGettimeofday) {
    fix_wall_clock(1234567890, 123456);
    timeval tv{};
    EXPECT_EQ(ZEPO_GetTimeOfDay(&tv, nullptr), 0);
    EXPECT_EQ(tv.tv_sec, 1234567890);
    EXPECT_EQ(tv.tv_usec, 123456);
    EXPECT_EQ(state.wall.gettimeofday_calls, 1);
}

TEST_F(TimeOfDay, GetTimeOfDayHandsTheZoneRecordOn) {
    fix_wall_clock(1234567890, 123456);
    state.wall.fill_zone = true;
    state.wall.zone.tz_minuteswest = -90;
    state.wall.zone.tz_dsttime = 1;
    timeval tv{};
    struct timezone zone {};
    EXPECT_EQ(ZEPO_GetTimeOfDay(&tv, &zone), 0);
    EXPECT_EQ(state.wall.last_zone, static_cast<void *>(&zone));
    EXPECT_EQ(zone.tz_minuteswest, -90);
    EXPECT_EQ(zone.tz_dsttime, 1);
}

TEST_F(TimeOfDay, GetTimeOfDayGivesTheFailureOfGettimeofday) {
    fix_wall_clock(0, 0);
    state.wall.result = -1;
    timeval tv{};
    EXPECT_EQ(ZEPO_GetTimeOfDay(&tv, nullptr), -1);
    EXPECT_EQ(state.wall.gettimeofday_calls, 1);
}

TEST_F(TimeOfDay, GetTimeOfDayReadsTheRealClock) {
    timeval before{}, got{}, after{};
    real_gettimeofday()(&before, nullptr);
    ASSERT_EQ(ZEPO_GetTimeOfDay(&got, nullptr), 0);
    real_gettimeofday()(&after, nullptr);
    const auto micro = [](const timeval &tv) { return int64_t{tv.tv_sec} * 1000000 + tv.tv_usec; };
    EXPECT_GE(micro(got), micro(before));
    EXPECT_LE(micro(got), micro(after));
}

TEST_F(TimeZone, GetTimezoneIsTheMinutesWestOfGettimeofday) {
    fix_wall_clock(1700000000, 0);
    state.wall.fill_zone = true;
    state.wall.zone.tz_minuteswest = -330;
    EXPECT_EQ(ZEPO_GetTimezone(), -330);
    EXPECT_NE(state.wall.last_zone, nullptr);
    state.wall.zone.tz_minuteswest = 480;
    EXPECT_EQ(ZEPO_GetTimezone(), 480);
    EXPECT_EQ(state.wall.gettimeofday_calls, 2);
}

TEST_F(TimeZone, GetTimezoneMatchesTheRealZone) {
    timeval tv{};
    struct timezone zone {};
    zone.tz_minuteswest = 4242;
    ASSERT_EQ(real_gettimeofday()(&tv, &zone), 0);
    EXPECT_EQ(ZEPO_GetTimezone(), zone.tz_minuteswest);
}

TEST_F(TimeZone, SetTimezoneWritesBackTheTimeWithTheNewMinutesWest) {
    fix_wall_clock(1700000000, 250000);
    state.wall.fill_zone = true;
    state.wall.zone.tz_minuteswest = -60;
    state.wall.zone.tz_dsttime = 1;
    state.setting.result = 0;
    EXPECT_EQ(ZEPO_SetTimezone(120), 0);
    EXPECT_EQ(state.wall.gettimeofday_calls, 1);
    EXPECT_NE(state.wall.last_zone, nullptr);
    ASSERT_EQ(state.setting.calls, 1);
    ASSERT_TRUE(state.setting.had_tv);
    EXPECT_EQ(state.setting.tv.tv_sec, 1700000000);
    EXPECT_EQ(state.setting.tv.tv_usec, 250000);
    ASSERT_TRUE(state.setting.had_zone);
    EXPECT_EQ(state.setting.zone.tz_minuteswest, 120);
    EXPECT_EQ(state.setting.zone.tz_dsttime, 1);
}

TEST_F(TimeZone, SetTimezoneTakesNegativeMinutesWest) {
    fix_wall_clock(1700000000, 0);
    state.wall.fill_zone = true;
    state.wall.zone.tz_minuteswest = 0;
    state.setting.result = 0;
    EXPECT_EQ(ZEPO_SetTimezone(-540), 0);
    ASSERT_TRUE(state.setting.had_zone);
    EXPECT_EQ(state.setting.zone.tz_minuteswest, -540);
}

TEST_F(TimeZone, SetTimezoneGivesTheFailureOfSettimeofday) {
    fix_wall_clock(1700000000, 0);
    state.wall.fill_zone = true;
    state.setting.result = -1;
    EXPECT_EQ(ZEPO_SetTimezone(60), -1);
    EXPECT_EQ(state.setting.calls, 1);
}

// ---- Calendar ----------------------------------------------------------------------------

TEST_F(TimeCalendar, LocalTimeMatchesLocaltimeR) {
    for (const time_t when : kSampleTimes) {
        SCOPED_TRACE(when);
        struct tm got = marked_tm();
        struct tm want {};
        ASSERT_NE(::localtime_r(&when, &want), nullptr);
        EXPECT_EQ(ZEPO_LocalTime_S(&got, &when), 0);
        expect_same_tm(got, want);
    }
}

TEST_F(TimeCalendar, LocalTimeIsInTheProcessTimeZone) {
    struct tm got {};
    ASSERT_EQ(ZEPO_LocalTime_S(&got, &kMonday20240115At102030Utc), 0);
    EXPECT_EQ(got.tm_hour, 13);
    EXPECT_EQ(got.tm_gmtoff, kZoneEast);
}

TEST_F(TimeCalendar, LocalTimeRefusesANullArgument) {
    struct tm got = marked_tm();
    const time_t when = kMonday20240115At102030Utc;
    EXPECT_EQ(ZEPO_LocalTime_S(nullptr, &when), -1);
    EXPECT_EQ(ZEPO_LocalTime_S(&got, nullptr), -1);
    EXPECT_EQ(ZEPO_LocalTime_S(nullptr, nullptr), -1);
    expect_marked(got);
}

TEST_F(TimeCalendar, LocalTimeGivesMinusOneWhenTheCLibraryGivesNull) {
    const time_t huge = INT64_MAX;
    struct tm scratch {};
    ASSERT_EQ(::localtime_r(&huge, &scratch), nullptr);
    struct tm got {};
    EXPECT_EQ(ZEPO_LocalTime_S(&got, &huge), -1);
}

TEST_F(TimeCalendar, GmTimeMatchesGmtimeR) {
    for (const time_t when : kSampleTimes) {
        SCOPED_TRACE(when);
        struct tm got = marked_tm();
        struct tm want {};
        ASSERT_NE(::gmtime_r(&when, &want), nullptr);
        EXPECT_EQ(ZEPO_GmTime_S(&got, &when), 0);
        expect_same_tm(got, want);
    }
}

TEST_F(TimeCalendar, GmTimeIsUtc) {
    struct tm got {};
    ASSERT_EQ(ZEPO_GmTime_S(&got, &kMonday20240115At102030Utc), 0);
    EXPECT_EQ(got.tm_year, 124);
    EXPECT_EQ(got.tm_mon, 0);
    EXPECT_EQ(got.tm_mday, 15);
    EXPECT_EQ(got.tm_hour, 10);
    EXPECT_EQ(got.tm_min, 20);
    EXPECT_EQ(got.tm_sec, 30);
    EXPECT_EQ(got.tm_wday, 1);
    EXPECT_EQ(got.tm_gmtoff, 0);
}

TEST_F(TimeCalendar, GmTimeRefusesANullArgument) {
    struct tm got = marked_tm();
    const time_t when = kMonday20240115At102030Utc;
    const int before = state.calendar.gmtime_r_calls;
    EXPECT_EQ(ZEPO_GmTime_S(nullptr, &when), -1);
    EXPECT_EQ(ZEPO_GmTime_S(&got, nullptr), -1);
    EXPECT_EQ(ZEPO_GmTime_S(nullptr, nullptr), -1);
    EXPECT_EQ(state.calendar.gmtime_r_calls, before);
    expect_marked(got);
}

TEST_F(TimeCalendar, GmTimeGivesMinusOneWhenTheCLibraryGivesNull) {
    const time_t huge = INT64_MAX;
    struct tm scratch {};
    ASSERT_EQ(::gmtime_r(&huge, &scratch), nullptr);
    struct tm got {};
    EXPECT_EQ(ZEPO_GmTime_S(&got, &huge), -1);
}

TEST_F(TimeCalendar, AscTimeMatchesAsctimeRInA26ByteBuffer) {
    for (const time_t when : kSampleTimes) {
        SCOPED_TRACE(when);
        const struct tm tm = utc_of(when);
        char want[26];
        ASSERT_NE(::asctime_r(&tm, want), nullptr);
        std::vector<char> got(26, 'X');  // exactly 26 bytes on the heap
        EXPECT_EQ(ZEPO_AscTime_S(&tm, got.data()), 0);
        EXPECT_STREQ(got.data(), want);
    }
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    std::vector<char> got(26, 'X');
    ASSERT_EQ(ZEPO_AscTime_S(&tm, got.data()), 0);
    EXPECT_STREQ(got.data(), "Mon Jan 15 10:20:30 2024\n");
}

TEST_F(TimeCalendar, AscTimeRefusesANullArgument) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    char buffer[26];
    std::memset(buffer, 'X', sizeof buffer);
    EXPECT_EQ(ZEPO_AscTime_S(nullptr, buffer), -1);
    EXPECT_EQ(ZEPO_AscTime_S(&tm, nullptr), -1);
    EXPECT_EQ(ZEPO_AscTime_S(nullptr, nullptr), -1);
    for (const char c : buffer) {
        EXPECT_EQ(c, 'X');
    }
}

TEST_F(TimeCalendar, AscTimeGivesMinusOneWhenTheCLibraryGivesNull) {
    struct tm tm = utc_of(kMonday20240115At102030Utc);
    tm.tm_year = INT_MAX;  // the year does not fit the text
    char scratch[26];
    ASSERT_EQ(::asctime_r(&tm, scratch), nullptr);
    char buffer[26];
    EXPECT_EQ(ZEPO_AscTime_S(&tm, buffer), -1);
}

TEST_F(TimeCalendar, CTimeMatchesCtimeRInLocalTime) {
    for (const time_t when : kSampleTimes) {
        SCOPED_TRACE(when);
        char want[26];
        ASSERT_NE(::ctime_r(&when, want), nullptr);
        std::vector<char> got(26, 'X');
        EXPECT_EQ(ZEPO_CTime_S(&when, got.data()), 0);
        EXPECT_STREQ(got.data(), want);
    }
    std::vector<char> got(26, 'X');
    ASSERT_EQ(ZEPO_CTime_S(&kMonday20240115At102030Utc, got.data()), 0);
    EXPECT_STREQ(got.data(), "Mon Jan 15 13:20:30 2024\n");
}

TEST_F(TimeCalendar, CTimeRefusesANullArgument) {
    const time_t when = kMonday20240115At102030Utc;
    char buffer[26];
    std::memset(buffer, 'X', sizeof buffer);
    EXPECT_EQ(ZEPO_CTime_S(nullptr, buffer), -1);
    EXPECT_EQ(ZEPO_CTime_S(&when, nullptr), -1);
    EXPECT_EQ(ZEPO_CTime_S(nullptr, nullptr), -1);
    for (const char c : buffer) {
        EXPECT_EQ(c, 'X');
    }
}

TEST_F(TimeCalendar, CTimeGivesMinusOneWhenTheCLibraryGivesNull) {
    const time_t huge = INT64_MAX;
    char scratch[26];
    ASSERT_EQ(::ctime_r(&huge, scratch), nullptr);
    char buffer[26];
    EXPECT_EQ(ZEPO_CTime_S(&huge, buffer), -1);
}

TEST_F(TimeCalendar, MkTimeOfNullIsZeroNotMinusOne) {
    const int before = state.calendar.mktime_calls;
    EXPECT_EQ(ZEPO_MkTime(nullptr), 0);
    EXPECT_EQ(state.calendar.mktime_calls, before);
}

TEST_F(TimeCalendar, MkTimeIsMktimeOfLocalTime) {
    struct tm got {};
    got.tm_year = 124;
    got.tm_mon = 0;
    got.tm_mday = 15;
    got.tm_hour = 10;
    got.tm_min = 20;
    got.tm_sec = 30;
    got.tm_isdst = -1;
    struct tm want = got;
    const time_t expected = ::mktime(&want);
    EXPECT_EQ(expected, kMonday20240115At102030Utc - kZoneEast);
    EXPECT_EQ(ZEPO_MkTime(&got), static_cast<int64_t>(expected));
    expect_same_tm(got, want);  // the record is normalised as mktime does it
}

TEST_F(TimeCalendar, MkTimeNormalisesTheRecordLikeMktime) {
    struct tm got {};
    got.tm_year = 124;
    got.tm_mon = 0;
    got.tm_mday = 32;  // 1 February
    got.tm_hour = 25;  // 1 o'clock the next day
    got.tm_min = -1;
    got.tm_isdst = 0;
    struct tm want = got;
    const time_t expected = ::mktime(&want);
    EXPECT_EQ(ZEPO_MkTime(&got), static_cast<int64_t>(expected));
    expect_same_tm(got, want);
    EXPECT_EQ(got.tm_mon, 1);
    EXPECT_EQ(got.tm_mday, 2);
    EXPECT_EQ(got.tm_hour, 0);
    EXPECT_EQ(got.tm_min, 59);
}

TEST_F(TimeCalendar, MkTimeGivesSixtyFourBitSecondsBeyond2038) {
    struct tm got {};
    got.tm_year = 200;  // 2100-01-01T03:00:00 local is midnight UTC
    got.tm_mday = 1;
    got.tm_hour = 3;
    got.tm_isdst = 0;
    EXPECT_EQ(ZEPO_MkTime(&got), INT64_C(4102444800));
}

TEST_F(TimeCalendar, MkTimeGivesMinusOneWhenMktimeFails) {
    struct tm got {};
    got.tm_year = 124;
    got.tm_mday = 1;
    state.calendar.mktime_fails = true;
    EXPECT_EQ(ZEPO_MkTime(&got), -1);
    EXPECT_EQ(state.calendar.mktime_calls, 1);
}

TEST_F(TimeCalendar, StrFtimeGivesTheCharactersWritten) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    char buffer[64];
    EXPECT_EQ(ZEPO_StrFtime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm), 19u);
    EXPECT_STREQ(buffer, "2024-01-15 10:20:30");
    EXPECT_EQ(state.calendar.strftime_calls, 1);
    EXPECT_EQ(state.calendar.strftime_size, sizeof buffer);
    EXPECT_EQ(ZEPO_StrFtime(buffer, sizeof buffer, "%A %j", &tm), 10u);
    EXPECT_STREQ(buffer, "Monday 015");
}

TEST_F(TimeCalendar, StrFtimeGivesZeroWhenTheTextDoesNotFit) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    char buffer[16];
    EXPECT_EQ(ZEPO_StrFtime(buffer, 11, "%Y-%m-%d", &tm), 10u);
    EXPECT_STREQ(buffer, "2024-01-15");
    EXPECT_EQ(ZEPO_StrFtime(buffer, 10, "%Y-%m-%d", &tm), 0u);
    EXPECT_EQ(state.calendar.strftime_size, 10u);
    EXPECT_EQ(ZEPO_StrFtime(buffer, 0, "%Y", &tm), 0u);
    EXPECT_EQ(state.calendar.strftime_calls, 3);
}

void expect_strftime_refused(char *buffer, const char *format, const struct tm *tm) {
    char sample[8];
    std::memset(sample, 'X', sizeof sample);
    if (buffer != nullptr) {
        std::memset(buffer, 'X', 8);
    }
    EXPECT_EQ(ZEPO_StrFtime(buffer, 8, format, tm), 0u);
    EXPECT_EQ(state.calendar.strftime_calls, 0);
    if (buffer != nullptr) {
        EXPECT_EQ(std::memcmp(buffer, sample, sizeof sample), 0);
    }
}

TEST_F(TimeCalendar, StrFtimeOfAnEmptyFormatIsZeroWithoutCallingStrftime) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    char buffer[8];
    expect_strftime_refused(buffer, "", &tm);
}

TEST_F(TimeCalendar, StrFtimeOfANullFormatIsZeroWithoutCallingStrftime) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    char buffer[8];
    expect_strftime_refused(buffer, nullptr, &tm);
}

TEST_F(TimeCalendar, StrFtimeOfANullBufferIsZeroWithoutCallingStrftime) {
    const struct tm tm = utc_of(kMonday20240115At102030Utc);
    expect_strftime_refused(nullptr, "%Y", &tm);
}

TEST_F(TimeCalendar, StrFtimeOfANullTmIsZeroWithoutCallingStrftime) {
    char buffer[8];
    expect_strftime_refused(buffer, "%Y", nullptr);
}

TEST_F(TimeCalendar, GetTimeOfNullDoesNothing) {
    state.wall.time_fixed = true;
    state.wall.time_value = kMonday20240115At102030Utc;
    ZEPO_GetTime(nullptr);
    EXPECT_EQ(state.calendar.gmtime_r_calls, 0);
}

TEST_F(TimeCalendar, GetTimeBreaksTheCurrentTimeDownInUtc) {
    state.wall.time_fixed = true;
    state.wall.time_value = kMonday20240115At102030Utc;
    struct tm got = marked_tm();
    ZEPO_GetTime(&got);
    EXPECT_GE(state.wall.time_calls, 1);
    expect_same_tm(got, utc_of(kMonday20240115At102030Utc));
    EXPECT_EQ(got.tm_hour, 10);  // not 13, the local hour
    EXPECT_EQ(got.tm_year, 124);
    EXPECT_EQ(got.tm_mon, 0);
}

TEST_F(TimeCalendar, GetTimeReadsTheRealClock) {
    const time_t before = real_wall_seconds();
    struct tm got = marked_tm();
    ZEPO_GetTime(&got);
    const time_t after = real_wall_seconds();
    EXPECT_EQ(got.tm_gmtoff, 0);
    const time_t when = ::timegm(&got);
    EXPECT_GE(when, before - 1);  // time() may lag the fine clock by a tick
    EXPECT_LE(when, after);
}

void expect_time_ex(const ZEPO_TIME_EX &got, uint32_t millisecond, int second, int minute, int hour,
                    int day, int month, int year) {
    EXPECT_EQ(got.millisecond, millisecond);
    EXPECT_EQ(got.second, second);
    EXPECT_EQ(got.minute, minute);
    EXPECT_EQ(got.hour, hour);
    EXPECT_EQ(got.day, day);
    EXPECT_EQ(got.month, month);
    EXPECT_EQ(got.year, year);
}

TEST_F(TimeCalendar, GetTimeExFillsMonthZeroForJanuaryAndYear124For2024) {
    fix_wall_clock(kMonday20240115At102030Utc, 456789);
    ZEPO_TIME_EX got;
    std::memset(&got, 0x5A, sizeof got);
    ZEPO_GetTimeEx(&got);
    expect_time_ex(got, 456, 30, 20, 10, 15, 0, 124);
    EXPECT_GE(state.wall.gettimeofday_calls, 1);
}

TEST_F(TimeCalendar, GetTimeExIsUtcNotLocalTime) {
    fix_wall_clock(1704067199, 999999);  // 2023-12-31T23:59:59.999Z, 02:59 next year locally
    ZEPO_TIME_EX got;
    std::memset(&got, 0x5A, sizeof got);
    ZEPO_GetTimeEx(&got);
    expect_time_ex(got, 999, 59, 59, 23, 31, 11, 123);
}

TEST_F(TimeCalendar, GetTimeExReadsTheRealClock) {
    const time_t before = real_wall_seconds();
    ZEPO_TIME_EX got;
    std::memset(&got, 0x5A, sizeof got);
    ZEPO_GetTimeEx(&got);
    const time_t after = real_wall_seconds();
    EXPECT_LT(got.millisecond, 1000u);
    struct tm tm {};
    tm.tm_year = got.year;
    tm.tm_mon = got.month;
    tm.tm_mday = got.day;
    tm.tm_hour = got.hour;
    tm.tm_min = got.minute;
    tm.tm_sec = got.second;
    const time_t when = ::timegm(&tm);
    EXPECT_GE(when, before);
    EXPECT_LE(when, after);
}

// ---- Days of a month ---------------------------------------------------------------------

const int32_t kCommonYear[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

void expect_months(int32_t year, int32_t february) {
    for (uint32_t month = 1; month <= 12; ++month) {
        SCOPED_TRACE(testing::Message() << "year " << year << " month " << month);
        EXPECT_EQ(Max_date(year, month), month == 2 ? february : kCommonYear[month]);
    }
}

TEST_F(TimeMaxDate, EveryMonthOfACommonYear) {
    expect_months(2023, 28);
    expect_months(1900, 28);
    expect_months(2100, 28);
    expect_months(1970, 28);
}

TEST_F(TimeMaxDate, EveryMonthOfALeapYear) {
    expect_months(2024, 29);
    expect_months(2000, 29);
    expect_months(1600, 29);
    expect_months(1972, 29);
}

TEST_F(TimeMaxDate, MonthZeroHas31Days) {
    EXPECT_EQ(Max_date(2023, 0), 31);
    EXPECT_EQ(Max_date(2024, 0), 31);
    EXPECT_EQ(Max_date(-1, 0), 31);
}

TEST_F(TimeMaxDate, MonthsAboveElevenTakenAsUnsignedHave31Days) {
    for (const uint32_t month : {12u, 13u, 14u, 16u, 100u, 0x80000002u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(month);
        EXPECT_EQ(Max_date(2023, month), 31);
        EXPECT_EQ(Max_date(2024, month), 31);
    }
    EXPECT_EQ(Max_date(2024, static_cast<uint32_t>(-1)), 31);
}

TEST_F(TimeMaxDate, YearMinusOneHas29DaysInFebruary) {
    EXPECT_EQ(Max_date(-1, 2), 29);
    expect_months(-1, 29);
}

TEST_F(TimeMaxDate, OtherYearsFollowTheGregorianRuleAsSignedNumbers) {
    EXPECT_EQ(Max_date(0, 2), 29);
    EXPECT_EQ(Max_date(4, 2), 29);
    EXPECT_EQ(Max_date(-2, 2), 28);
    EXPECT_EQ(Max_date(-4, 2), 29);
    EXPECT_EQ(Max_date(-100, 2), 28);
    EXPECT_EQ(Max_date(-400, 2), 29);
    EXPECT_EQ(Max_date(INT32_MAX, 2), 28);
    EXPECT_EQ(Max_date(INT32_MIN, 2), 29);  // divisible by 4, not by 100
}

// ---- Validity of a calendar time ---------------------------------------------------------

int32_t valid(int year, int month, int day, int hour = 12, int minute = 30, int second = 45) {
    const struct tm tm = caller_time(year, month, day, hour, minute, second);
    return GUX_IsSysTimeValid(&tm);
}

TEST_F(TimeValid, NullIsInvalid) { EXPECT_EQ(GUX_IsSysTimeValid(nullptr), 0); }

TEST_F(TimeValid, AcceptsAnOrdinaryTime) {
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, 45), 1);
    EXPECT_EQ(valid(1970, 1, 1, 0, 0, 0), 1);
    EXPECT_EQ(valid(2038, 1, 19, 3, 14, 8), 1);
}

TEST_F(TimeValid, AcceptsEveryWildcard) { EXPECT_EQ(valid(-1, -1, -1, -1, -1, -1), 1); }

TEST_F(TimeValid, RejectsYearsBefore1970ButAcceptsYearMinusOne) {
    EXPECT_EQ(valid(1969, 12, 31, 23, 59, 59), 0);
    EXPECT_EQ(valid(1969, 6, 15), 0);
    EXPECT_EQ(valid(1970, 6, 15), 1);
    EXPECT_EQ(valid(-1, 6, 15), 1);
    EXPECT_EQ(valid(-2, 6, 15), 0);
    EXPECT_EQ(valid(0, 6, 15), 0);
    EXPECT_EQ(valid(INT_MIN, 6, 15), 0);
    EXPECT_EQ(valid(INT_MAX, 6, 15), 1);
}

TEST_F(TimeValid, DayBoundaries) {
    EXPECT_EQ(valid(2023, 1, 0), 0);
    EXPECT_EQ(valid(2023, 1, 1), 1);
    EXPECT_EQ(valid(2023, 1, 31), 1);
    EXPECT_EQ(valid(2023, 1, 32), 0);
    EXPECT_EQ(valid(2023, 1, -1), 1);
    EXPECT_EQ(valid(2023, 1, -2), 0);
    EXPECT_EQ(valid(2023, 1, INT_MAX), 0);
    EXPECT_EQ(valid(2023, 1, INT_MIN), 0);
}

TEST_F(TimeValid, MonthBoundaries) {
    EXPECT_EQ(valid(2023, 0, 15), 0);
    EXPECT_EQ(valid(2023, 1, 15), 1);
    EXPECT_EQ(valid(2023, 12, 15), 1);
    EXPECT_EQ(valid(2023, 12, 31), 1);
    EXPECT_EQ(valid(2023, 13, 15), 0);
    EXPECT_EQ(valid(2023, -1, 15), 1);
    EXPECT_EQ(valid(2023, -2, 15), 0);
    EXPECT_EQ(valid(2023, INT_MAX, 15), 0);
    EXPECT_EQ(valid(2023, INT_MIN, 15), 0);
}

TEST_F(TimeValid, AcceptsHourWildcardAndRejectsHour24AndMinusTwo) {
    EXPECT_EQ(valid(2023, 6, 15, -1), 1);
    EXPECT_EQ(valid(2023, 6, 15, 0), 1);
    EXPECT_EQ(valid(2023, 6, 15, 23), 1);
    EXPECT_EQ(valid(2023, 6, 15, 24), 0);
    EXPECT_EQ(valid(2023, 6, 15, -2), 0);
    EXPECT_EQ(valid(2023, 6, 15, INT_MAX), 0);
    EXPECT_EQ(valid(2023, 6, 15, INT_MIN), 0);
}

TEST_F(TimeValid, MinuteBoundaries) {
    EXPECT_EQ(valid(2023, 6, 15, 12, -1), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 0), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 59), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 60), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, -2), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, INT_MAX), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, INT_MIN), 0);
}

TEST_F(TimeValid, SecondBoundariesRejectALeapSecond) {
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, -1), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, 0), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, 59), 1);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, 60), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, -2), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, INT_MAX), 0);
    EXPECT_EQ(valid(2023, 6, 15, 12, 30, INT_MIN), 0);
}

TEST_F(TimeValid, AcceptsTheTwentyNinthOfFebruaryOfALeapYear) {
    EXPECT_EQ(valid(2000, 2, 29), 1);
    EXPECT_EQ(valid(2024, 2, 29), 1);
    EXPECT_EQ(valid(2024, 2, 30), 0);
}

TEST_F(TimeValid, RejectsTheTwentyNinthOfFebruaryOfACommonYear) {
    EXPECT_EQ(valid(2023, 2, 28), 1);
    EXPECT_EQ(valid(2023, 2, 29), 0);
    EXPECT_EQ(valid(2100, 2, 29), 0);
    EXPECT_EQ(valid(1900, 2, 29), 0);
}

TEST_F(TimeValid, AcceptsTheThirtiethAndRejectsTheThirtyFirstOfShortMonths) {
    for (const int month : {4, 6, 9, 11}) {
        SCOPED_TRACE(month);
        EXPECT_EQ(valid(2023, month, 30), 1);
        EXPECT_EQ(valid(2023, month, 31), 0);
    }
    for (const int month : {1, 3, 5, 7, 8, 10, 12}) {
        SCOPED_TRACE(month);
        EXPECT_EQ(valid(2023, month, 31), 1);
    }
}

TEST_F(TimeValid, AcceptsTheTwentyNinthOfFebruaryOfYearMinusOne) {
    EXPECT_EQ(valid(-1, 2, 29), 1);
    EXPECT_EQ(valid(-1, 2, 30), 0);
    EXPECT_EQ(valid(-1, 4, 31), 0);
}

TEST_F(TimeValid, AcceptsEveryDayUpTo31WhenTheMonthIsAWildcard) {
    for (int day = 1; day <= 31; ++day) {
        SCOPED_TRACE(day);
        EXPECT_EQ(valid(2023, -1, day), 1);
    }
    EXPECT_EQ(valid(2023, -1, 32), 0);
}

TEST_F(TimeValid, AcceptsTheDayWildcardInFebruary) {
    EXPECT_EQ(valid(2023, 2, -1), 1);
    EXPECT_EQ(valid(-1, 2, -1), 1);
}

TEST_F(TimeValid, IgnoresTheOtherFields) {
    struct tm tm = caller_time(2023, 6, 15);
    tm.tm_wday = 99;
    tm.tm_yday = -5;
    tm.tm_isdst = 7;
    tm.tm_gmtoff = 123456;
    EXPECT_EQ(GUX_IsSysTimeValid(&tm), 1);
}

// ---- Setting the system time -------------------------------------------------------------

TEST_F(TimeSetSysTime, RefusesAnInvalidTimeWithoutSettingTheClock) {
    state.setting.result = 0;
    const struct tm invalid[] = {caller_time(2023, 2, 29),
                                 caller_time(1969, 12, 31),
                                 caller_time(2023, 6, 15, 24),
                                 caller_time(2023, 13, 1),
                                 caller_time(2023, 4, 31),
                                 caller_time(2023, 6, 15, 12, 60),
                                 caller_time(2023, 6, 15, 12, 30, -2)};
    for (const struct tm &tm : invalid) {
        EXPECT_EQ(ZEPO_SetSysTime(&tm), -1);
    }
    EXPECT_EQ(ZEPO_SetSysTime(nullptr), -1);
    EXPECT_EQ(state.setting.calls, 0);
    EXPECT_EQ(state.calendar.mktime_calls, 0);
}

TEST_F(TimeSetSysTime, SetsTheClockToTheLocalTimeGiven) {
    state.setting.result = 0;
    const struct tm tm = caller_time(2024, 1, 15, 10, 20, 30);
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);
    ASSERT_EQ(state.setting.calls, 1);
    ASSERT_TRUE(state.setting.had_tv);
    EXPECT_EQ(state.setting.tv.tv_sec, kMonday20240115At102030Utc - kZoneEast);
    EXPECT_EQ(state.setting.tv.tv_usec, 0);
    EXPECT_FALSE(state.setting.had_zone);
}

TEST_F(TimeSetSysTime, SetsTheSecondsMktimeGivesForTheConvertedCopy) {
    state.setting.result = 0;
    const struct tm tm = caller_time(2031, 7, 1, 8, 5, 9);
    struct tm converted = tm;
    converted.tm_year -= 1900;
    converted.tm_mon -= 1;
    const time_t expected = ::mktime(&converted);
    state.calendar = CalendarCalls{};
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);
    EXPECT_EQ(state.calendar.mktime_calls, 1);
    ASSERT_EQ(state.setting.calls, 1);
    EXPECT_EQ(state.setting.tv.tv_sec, expected);
    EXPECT_EQ(state.setting.tv.tv_usec, 0);
    EXPECT_FALSE(state.setting.had_zone);
}

TEST_F(TimeSetSysTime, HandsMktimeACopyInTheCLibrarysConvention) {
    state.setting.result = 0;
    struct tm tm = caller_time(2024, 1, 15, 10, 20, 30);
    tm.tm_isdst = 0;
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);
    ASSERT_EQ(state.calendar.mktime_calls, 1);
    const struct tm &arg = state.calendar.mktime_arg;
    EXPECT_EQ(arg.tm_year, 124);
    EXPECT_EQ(arg.tm_mon, 0);
    EXPECT_EQ(arg.tm_mday, 15);
    EXPECT_EQ(arg.tm_hour, 10);
    EXPECT_EQ(arg.tm_min, 20);
    EXPECT_EQ(arg.tm_sec, 30);
    EXPECT_EQ(arg.tm_isdst, 0);
}

TEST_F(TimeSetSysTime, HandsWildcardsToMktimeShiftedButOtherwiseUnchanged) {
    state.setting.result = 0;
    const struct tm tm = caller_time(2024, -1, 15, 10, -1, -1);
    struct tm converted = tm;
    converted.tm_year = 124;
    converted.tm_mon = -2;
    const time_t expected = ::mktime(&converted);  // normalised: 15 November 2023, 09:58:59
    state.calendar = CalendarCalls{};
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);
    ASSERT_EQ(state.calendar.mktime_calls, 1);
    EXPECT_EQ(state.calendar.mktime_arg.tm_year, 124);
    EXPECT_EQ(state.calendar.mktime_arg.tm_mon, -2);
    EXPECT_EQ(state.calendar.mktime_arg.tm_min, -1);
    EXPECT_EQ(state.calendar.mktime_arg.tm_sec, -1);
    ASSERT_EQ(state.setting.calls, 1);
    EXPECT_EQ(state.setting.tv.tv_sec, expected);
    EXPECT_EQ(converted.tm_year, 123);
    EXPECT_EQ(converted.tm_mon, 10);
    EXPECT_EQ(converted.tm_hour, 9);
}

TEST_F(TimeSetSysTime, HandsAWildcardYearToMktimeAsMinus1901) {
    state.setting.result = 0;
    const struct tm tm = caller_time(-1, 6, 15);
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);  // the C library takes the year 1 BC
    ASSERT_EQ(state.calendar.mktime_calls, 1);
    EXPECT_EQ(state.calendar.mktime_arg.tm_year, -1901);
    EXPECT_EQ(state.calendar.mktime_arg.tm_mon, 5);
    EXPECT_EQ(state.setting.calls, 1);
}

TEST_F(TimeSetSysTime, LeavesTheCallersRecordAsItWas) {
    state.setting.result = 0;
    struct tm tm = caller_time(2024, 2, 29, 23, 59, 59);
    tm.tm_wday = 77;
    tm.tm_yday = 88;
    tm.tm_isdst = -1;
    tm.tm_gmtoff = 99;
    tm.tm_zone = "caller";
    const struct tm before = tm;
    EXPECT_EQ(ZEPO_SetSysTime(&tm), 0);
    EXPECT_EQ(state.setting.calls, 1);
    expect_same_tm(tm, before);
}

TEST_F(TimeSetSysTime, GivesMinusOneWhenSettimeofdayFails) {
    state.setting.result = -1;
    const struct tm tm = caller_time(2024, 1, 15, 10, 20, 30);
    EXPECT_EQ(ZEPO_SetSysTime(&tm), -1);
    EXPECT_EQ(state.setting.calls, 1);
}

TEST_F(TimeSetSysTime, GivesMinusOneWhenMktimeFailsWithoutSettingTheClock) {
    state.setting.result = 0;
    state.calendar.mktime_fails = true;
    const struct tm tm = caller_time(2024, 1, 15, 10, 20, 30);
    EXPECT_EQ(ZEPO_SetSysTime(&tm), -1);
    EXPECT_EQ(state.calendar.mktime_calls, 1);
    EXPECT_EQ(state.setting.calls, 0);
}

// ---- Random numbers ----------------------------------------------------------------------

TEST_F(TimeRandom, RandomGivesTheValuesOfRandomAfterSrandom) {
    std::vector<int64_t> got;
    ::srandom(20240115u);
    for (int i = 0; i < 8; ++i) {
        got.push_back(ZEPO_Random());
    }
    ::srandom(20240115u);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(got[static_cast<size_t>(i)], static_cast<int64_t>(::random())) << i;
    }
    ::srandom(7u);
    const int64_t other = ZEPO_Random();
    ::srandom(7u);
    EXPECT_EQ(other, static_cast<int64_t>(::random()));
    EXPECT_NE(other, got[0]);
}

TEST_F(TimeRandom, RealRandomOfNullIsOneWithoutOpeningTheDevice) {
    state.device.on = true;
    EXPECT_EQ(ZEPO_RealRandom(nullptr), 1);
    EXPECT_EQ(state.device.open_calls, 0);
    EXPECT_EQ(state.device.read_calls, 0);
}

TEST_F(TimeRandom, RealRandomFillsFourBytesThatVary) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 6; ++i) {
        uint32_t value = 0;
        ASSERT_EQ(ZEPO_RealRandom(&value), 0);
        seen.insert(value);
    }
    // Six draws of 32 bits that are not all alike.
    EXPECT_GT(seen.size(), 1u);
}

TEST_F(TimeRandom, RealRandomOpensUrandomReadOnlyNonBlockingWithMode0700) {
    state.device.on = true;
    state.device.succeed_on = 1;
    unsigned char buffer[4] = {0, 0, 0, 0};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 0);
    EXPECT_EQ(state.device.open_calls, 1);
    EXPECT_EQ(state.device.path, "/dev/urandom");
    EXPECT_EQ(state.device.flags, O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(state.device.mode, 0700u);
    ASSERT_GE(state.device.fd, 0);
    EXPECT_EQ(state.device.read_calls, 1);
    EXPECT_EQ(state.device.read_fd, state.device.fd);
    EXPECT_EQ(state.device.read_buf, static_cast<void *>(buffer));
    EXPECT_EQ(state.device.read_len, 4u);
    EXPECT_EQ(state.device.close_calls, 1);
    EXPECT_EQ(state.device.closed_fd, state.device.fd);
    EXPECT_EQ(std::memcmp(buffer, state.device.pattern, 4), 0);
}

TEST_F(TimeRandom, RealRandomGivesOneWhenTheDeviceCannotBeOpened) {
    state.device.on = true;
    state.device.open_fails = true;
    state.device.succeed_on = 1;
    unsigned char buffer[4] = {1, 2, 3, 4};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 1);
    EXPECT_EQ(state.device.open_calls, 1);
    EXPECT_EQ(state.device.read_calls, 0);
    EXPECT_EQ(state.device.close_calls, 0);
    const unsigned char same[4] = {1, 2, 3, 4};
    EXPECT_EQ(std::memcmp(buffer, same, 4), 0);
}

TEST_F(TimeRandom, RealRandomGivesUpAfterSixtyOneFruitlessReadsAndOneMore) {
    state.device.on = true;
    state.device.succeed_on = 0;
    state.device.fruitless = 0;
    unsigned char buffer[4] = {};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 1);
    EXPECT_EQ(state.device.read_calls, 62);
    EXPECT_EQ(state.device.close_calls, 1);
    EXPECT_EQ(state.device.closed_fd, state.device.fd);
}

TEST_F(TimeRandom, RealRandomCountsFailedReadsAsFruitless) {
    state.device.on = true;
    state.device.succeed_on = 0;
    state.device.fruitless = -1;
    unsigned char buffer[4] = {};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 1);
    EXPECT_EQ(state.device.read_calls, 62);
    EXPECT_EQ(state.device.close_calls, 1);
}

TEST_F(TimeRandom, RealRandomIgnoresTheResultOfTheSixtySecondRead) {
    state.device.on = true;
    state.device.succeed_on = 62;
    unsigned char buffer[4] = {};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 1);
    EXPECT_EQ(state.device.read_calls, 62);
    EXPECT_EQ(state.device.close_calls, 1);
}

TEST_F(TimeRandom, RealRandomSucceedsWhenTheSixtyFirstReadGivesBytes) {
    state.device.on = true;
    state.device.succeed_on = 61;
    unsigned char buffer[4] = {};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 0);
    EXPECT_EQ(state.device.read_calls, 61);
    EXPECT_EQ(state.device.close_calls, 1);
    EXPECT_EQ(std::memcmp(buffer, state.device.pattern, 4), 0);
}

TEST_F(TimeRandom, RealRandomRetriesAfterAFailedRead) {
    state.device.on = true;
    state.device.succeed_on = 3;
    state.device.fruitless = -1;
    unsigned char buffer[4] = {};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 0);
    EXPECT_EQ(state.device.read_calls, 3);
    EXPECT_EQ(state.device.read_len, 4u);
    EXPECT_EQ(state.device.close_calls, 1);
}

TEST_F(TimeRandom, RealRandomAcceptsAShortReadAndLeavesTheOtherBytes) {
    state.device.on = true;
    state.device.succeed_on = 1;
    state.device.bytes = 2;
    unsigned char buffer[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 0);
    EXPECT_EQ(state.device.read_calls, 1);
    EXPECT_EQ(state.device.close_calls, 1);
    EXPECT_EQ(buffer[0], 0xA1);
    EXPECT_EQ(buffer[1], 0xB2);
    EXPECT_EQ(buffer[2], 0x33);
    EXPECT_EQ(buffer[3], 0x44);
}

TEST_F(TimeRandom, RealRandomAcceptsAOneByteRead) {
    state.device.on = true;
    state.device.succeed_on = 2;
    state.device.bytes = 1;
    unsigned char buffer[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(ZEPO_RealRandom(buffer), 0);
    EXPECT_EQ(state.device.read_calls, 2);
    EXPECT_EQ(buffer[0], 0xA1);
    EXPECT_EQ(buffer[1], 0x22);
    EXPECT_EQ(buffer[2], 0x33);
    EXPECT_EQ(buffer[3], 0x44);
}

}  // namespace
