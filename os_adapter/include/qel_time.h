/*
 * qel_time.h - clocks, calendar and random numbers.
 *
 * Calendar records given to the library (GUX_IsSysTimeValid, ZEPO_SetSysTime) use the
 * caller's convention: tm_year the full year (1970 or later), tm_mon 1 to 12, tm_mday 1
 * to 31, tm_hour 0 to 23, tm_min and tm_sec 0 to 59, each of them -1 for "any".  Calendar
 * results keep the C library's convention (years since 1900, months 0 to 11).
 *
 * Each function reports only by its result, and the results are not uniform on purpose
 * (ZEPO_MkTime gives 0 for a null argument, ZEPO_GetTimeOfDay 0 for a null tv,
 * ZEPO_RealRandom 1 for failure).  Nothing is printed and no last error is set.
 *
 * All functions are re-entrant.  ZEPO_SetSysTime and ZEPO_SetTimezone change the
 * system's state and need the privileges the platform demands.
 */
#ifndef QEL_TIME_H
#define QEL_TIME_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The current time in UTC, filled by ZEPO_GetTimeEx. */
typedef struct ZEPO_TIME_EX {
    uint32_t millisecond; /* tv_usec / 1000 */
    int32_t second;
    int32_t minute;
    int32_t hour;
    int32_t day;   /* tm_mday */
    int32_t month; /* 0 to 11, as the C library counts */
    int32_t year;  /* years since 1900, as the C library counts */
} ZEPO_TIME_EX;

/* ---- Clocks -------------------------------------------------------------------------- */

/* Milliseconds since 1970 (gettimeofday): the seconds cut to 32-bit unsigned, times
 * 1000, plus the microseconds / 1000; 0 if either part is negative. */
uint64_t ZEPO_GetSystemTime(void);

/* Seconds since 1970 (gettimeofday), cut to 32-bit unsigned. */
uint32_t ZEPO_GetSysTimeSec(void);

/*
 * Milliseconds of CLOCK_MONOTONIC as 32-bit unsigned: seconds times 1000 in 32-bit
 * arithmetic, plus the milliseconds.  It wraps every 2^32 ms (about 49.7 days) and does
 * not move when the wall clock is set: the steady clock of timers and queues.
 */
uint32_t ZEPO_GetSysRunTime(void);

/* Seconds of CLOCK_MONOTONIC, cut to 32-bit unsigned. */
uint32_t ZEPO_GetSysRunTimeSec(void);

/* gettimeofday(tv, tz): 0 or -1.  A null tv gives 0 without any call (success, on
 * purpose). */
int32_t ZEPO_GetTimeOfDay(struct timeval *tv, void *tz);

/* The time zone's minutes west of Greenwich, as gettimeofday reports it. */
int32_t ZEPO_GetTimezone(void);

/* Reads the time and zone with gettimeofday, replaces the minutes west and writes both
 * back with settimeofday: 0 or -1 (EPERM without the privilege). */
int32_t ZEPO_SetTimezone(int32_t minutesWest);

/* ---- Calendar ------------------------------------------------------------------------ */

/* localtime_r(timer, result) / gmtime_r(timer, result): 0, or -1 for a null argument or
 * when the platform gives null. */
int32_t ZEPO_LocalTime_S(struct tm *result, const time_t *timer);
int32_t ZEPO_GmTime_S(struct tm *result, const time_t *timer);

/* asctime_r(tm, buffer) / ctime_r(timer, buffer) into a buffer of at least 26 bytes:
 * 0, or -1 for a null argument or when the platform gives null. */
int32_t ZEPO_AscTime_S(const struct tm *tm, char *buffer);
int32_t ZEPO_CTime_S(const time_t *timer, char *buffer);

/* mktime(tm): seconds since 1970 as local time, or -1.  A null tm gives 0, not -1. */
int64_t ZEPO_MkTime(struct tm *tm);

/* strftime(buffer, size, format, tm): the characters written, or 0.  A null buffer, a
 * null tm or a null or empty format gives 0 without any call. */
uint32_t ZEPO_StrFtime(char *buffer, uint32_t size, const char *format, const struct tm *tm);

/* The current time (time()) broken down in UTC into *tm when tm is not null. */
void ZEPO_GetTime(struct tm *tm);

/* Fills *record with the current time in UTC.  Unchecked: record must be valid. */
void ZEPO_GetTimeEx(ZEPO_TIME_EX *record);

/*
 * Sets the system time to tm, given in the caller's convention as local time: 0, or -1
 * when GUX_IsSysTimeValid(tm) is 0, mktime fails or settimeofday fails (EPERM without
 * the privilege).  Wildcard fields (-1) reach mktime as they are (after the year and
 * month are shifted to the C library's convention), which normalises them.
 */
int32_t ZEPO_SetSysTime(const struct tm *tm);

/*
 * 1 when tm is a valid calendar time in the caller's convention, else 0.  Checked in
 * this order: null; tm_year below 1970 unless -1; tm_mday above 31 or below 1 unless -1;
 * tm_mon above 12 or below 1 unless -1; tm_hour, tm_min, tm_sec out of range (-1 passes,
 * any other negative value fails); tm_mday beyond Max_date(tm_year, tm_mon).  So 29
 * February passes for leap years and year -1 only, and with tm_mon -1 every day up to
 * the 31st passes.  The one validity test of the library.
 */
int32_t GUX_IsSysTimeValid(const struct tm *tm);

/*
 * Days in month (1 to 12) of year: 31 for month 0 and for any month above 11 taken as
 * unsigned (12, and -1), 30 for April, June, September and November, and for February
 * 29 in Gregorian leap years and in year -1, else 28.
 */
int32_t Max_date(int32_t year, uint32_t month);

/* ---- Random numbers ------------------------------------------------------------------ */

/* random(), as a 64-bit signed value. */
int64_t ZEPO_Random(void);

/*
 * Fills up to 4 bytes of buffer from /dev/urandom: 0 on success (a short read is
 * accepted, leaving the other bytes as they were); 1 for a null buffer, a device that
 * cannot be opened, or when the reads give nothing: after 61 fruitless reads a 62nd
 * is made, its result ignored, and 1 returned.
 */
int32_t ZEPO_RealRandom(void *buffer);

#ifdef __cplusplus
}
#endif

#endif /* QEL_TIME_H */
