// time.cpp - clocks, calendar and random numbers.

#include <fcntl.h>
#include <sys/time.h>
#include <time.h>

#include <cstddef>
#include <cstdlib>

#include "os_frame.h"
#include "qel_time.h"

static_assert(sizeof(ZEPO_TIME_EX) == 28);
static_assert(offsetof(ZEPO_TIME_EX, millisecond) == 0);
static_assert(offsetof(ZEPO_TIME_EX, second) == 4);
static_assert(offsetof(ZEPO_TIME_EX, year) == 24);

namespace {

constexpr uint32_t kMillisPerSecond = 1000;
constexpr long kMicrosPerMilli = 1000;
constexpr long kNanosPerMilli = 1000000;

// Calendar values given to the library: the full year, months 1 to 12, -1 for "any".
constexpr int kAny = -1;
constexpr int kFirstYear = 1970;
constexpr int kTmYearBase = 1900;
constexpr int kLastMonthDay = 31;
constexpr int kLastMonth = 12;
constexpr uint32_t kHours = 24;
constexpr uint32_t kMinutes = 60;
constexpr uint32_t kSeconds = 60;
constexpr uint32_t kFebruary = 2;
// Bits 4, 6, 9 and 11: the months of 30 days.
constexpr uint32_t kThirtyDayMonths = 0xA50;

constexpr char kRandomDevice[] = "/dev/urandom";
constexpr uint32_t kRandomDeviceMode = 0700;
constexpr uint32_t kRandomBytes = 4;
// Retries of a read that gave nothing; the result of the last one is not looked at.
constexpr int kRandomRetries = 61;

bool leap_year(int32_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// A field of 0 to limit - 1, or -1: the sum is taken as 32-bit unsigned, so -1 passes
// and any other negative value fails.
bool within(int value, uint32_t limit) { return static_cast<uint32_t>(value) + 1U <= limit; }

}  // namespace

extern "C" {

// ---- Clocks ---------------------------------------------------------------------------

uint64_t ZEPO_GetSystemTime(void) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    if (now.tv_sec < 0 || now.tv_usec < 0) return 0;
    return static_cast<uint64_t>(static_cast<uint32_t>(now.tv_sec)) * kMillisPerSecond +
           static_cast<uint64_t>(now.tv_usec / kMicrosPerMilli);
}

uint32_t ZEPO_GetSysTimeSec(void) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec);
}

uint32_t ZEPO_GetSysRunTime(void) {
    // 32-bit milliseconds: wraps every 2^32 ms, which its users tolerate.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * kMillisPerSecond +
           static_cast<uint32_t>(now.tv_nsec / kNanosPerMilli);
}

uint32_t ZEPO_GetSysRunTimeSec(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

int32_t ZEPO_GetTimeOfDay(struct timeval *tv, void *tz) {
    if (!qel::accepted(tv)) return 0;  // success, on purpose
    return gettimeofday(tv, tz);
}

int32_t ZEPO_GetTimezone(void) {
    struct timeval now;
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    return zone.tz_minuteswest;
}

int32_t ZEPO_SetTimezone(int32_t minutesWest) {
    struct timeval now;
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    zone.tz_minuteswest = minutesWest;
    return settimeofday(&now, &zone);
}

// ---- Calendar -------------------------------------------------------------------------

int32_t ZEPO_LocalTime_S(struct tm *result, const time_t *timer) {
    if (!qel::accepted(result, timer)) return qel::kRefused;
    return localtime_r(timer, result) == nullptr ? qel::kRefused : 0;
}

int32_t ZEPO_GmTime_S(struct tm *result, const time_t *timer) {
    if (!qel::accepted(result, timer)) return qel::kRefused;
    return gmtime_r(timer, result) == nullptr ? qel::kRefused : 0;
}

int32_t ZEPO_AscTime_S(const struct tm *tm, char *buffer) {
    if (!qel::accepted(tm, buffer)) return qel::kRefused;
    return asctime_r(tm, buffer) == nullptr ? qel::kRefused : 0;
}

int32_t ZEPO_CTime_S(const time_t *timer, char *buffer) {
    if (!qel::accepted(timer, buffer)) return qel::kRefused;
    return ctime_r(timer, buffer) == nullptr ? qel::kRefused : 0;
}

int64_t ZEPO_MkTime(struct tm *tm) {
    if (!qel::accepted(tm)) return 0;  // 0, not -1: kept so
    return mktime(tm);
}

uint32_t ZEPO_StrFtime(char *buffer, uint32_t size, const char *format, const struct tm *tm) {
    if (!qel::accepted(buffer, qel::text(format), tm)) return 0;
    return static_cast<uint32_t>(strftime(buffer, size, format, tm));
}

void ZEPO_GetTime(struct tm *tm) {
    const time_t now = time(nullptr);
    if (tm != nullptr) ZEPO_GmTime_S(tm, &now);
}

void ZEPO_GetTimeEx(ZEPO_TIME_EX *record) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm parts = {};
    const time_t seconds = now.tv_sec;
    ZEPO_GmTime_S(&parts, &seconds);
    record->millisecond = static_cast<uint32_t>(now.tv_usec / kMicrosPerMilli);
    record->second = parts.tm_sec;
    record->minute = parts.tm_min;
    record->hour = parts.tm_hour;
    record->day = parts.tm_mday;
    record->month = parts.tm_mon;  // 0 to 11, as the C library counts
    record->year = parts.tm_year;  // years since 1900
}

int32_t ZEPO_SetSysTime(const struct tm *tm) {
    if (GUX_IsSysTimeValid(tm) == 0) return qel::kRefused;
    // Wildcards (-1) are shifted like any value and left to mktime to normalise.
    struct tm local = *tm;
    local.tm_year -= kTmYearBase;
    local.tm_mon -= 1;
    const int64_t seconds = ZEPO_MkTime(&local);
    if (seconds == -1) return qel::kRefused;
    const struct timeval value = {static_cast<time_t>(seconds), 0};
    return settimeofday(&value, nullptr) == 0 ? 0 : qel::kRefused;
}

int32_t GUX_IsSysTimeValid(const struct tm *tm) {
    if (tm == nullptr) return 0;
    if (tm->tm_year < kFirstYear && tm->tm_year != kAny) return 0;
    if (tm->tm_mday > kLastMonthDay || (tm->tm_mday < 1 && tm->tm_mday != kAny)) return 0;
    if (tm->tm_mon > kLastMonth || (tm->tm_mon < 1 && tm->tm_mon != kAny)) return 0;
    if (!within(tm->tm_hour, kHours) || !within(tm->tm_min, kMinutes) ||
        !within(tm->tm_sec, kSeconds)) {
        return 0;
    }
    if (tm->tm_mday > Max_date(tm->tm_year, static_cast<uint32_t>(tm->tm_mon))) return 0;
    return 1;
}

int32_t Max_date(int32_t year, uint32_t month) {
    // Month 12 and -1 (any) fall here, as unsigned numbers above 11.
    if (month > 11) return 31;
    if ((kThirtyDayMonths >> month) & 1U) return 30;
    if (month == kFebruary) return year == kAny || leap_year(year) ? 29 : 28;
    return 31;
}

// ---- Random numbers -------------------------------------------------------------------

int64_t ZEPO_Random(void) { return random(); }

int32_t ZEPO_RealRandom(void *buffer) {
    if (!qel::accepted(buffer)) return 1;
    qel::Descriptor device(ZEPO_Open(kRandomDevice, O_RDONLY | O_NONBLOCK, kRandomDeviceMode));
    if (!device.valid()) return 1;
    int64_t got = ZEPO_Read(device.get(), buffer, kRandomBytes);
    for (int retries = 0; got < 1;) {
        got = ZEPO_Read(device.get(), buffer, kRandomBytes);
        if (++retries == kRandomRetries) return 1;  // this last read is not looked at
    }
    // 1 to 4 bytes: a short read leaves the other bytes as they were.
    return 0;
}

}  // extern "C"
