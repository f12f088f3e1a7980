/*
 * timers.c - the timer engine in one short tour: a periodic and a one-shot timer, a
 * calendar timer, a timer group, the trace function and a clean stop.
 *
 * Build and run: bash scripts/run-example.sh
 *
 * Things to know before reading on:
 * - All timers of a process share one engine with one background thread, the driver,
 *   which ticks every 10 ms.  The first timer creation starts it; ZEPO_StopTimerTask
 *   stops it.
 * - Every call-back runs on the driver thread, not on the thread that made the timer.
 *   The counters below are shared between the call-backs and main, so they are atomic.
 * - Start, stop and free only queue a request; the driver carries it out at its next
 *   tick.  A call that returns 0 has been accepted, not yet carried out.
 *
 * The program runs for about 2.5 s, prints what fired and how often, and exits with 1
 * when something that should have happened did not.
 */
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include "qel_os_adapter.h"

/* Counters written on the driver thread and read by main. */
static atomic_uint periodic_fired;
static atomic_uint oneshot_fired;
static atomic_uint slow_fired;
static atomic_uint calendar_fired;
static atomic_uint member_fired[2];
static atomic_uint init_messages;
static atomic_uint long_callback_warnings;

/* The calendar timer's argument: any pointer-sized value the call-back understands. */
static char calendar_label[] = "calendar timer, every second";

/* The run-time clock (milliseconds of CLOCK_MONOTONIC) when main began. */
static uint32_t started_ms;

static uint32_t ms_since_start(void) {
    /* Differences of the 32-bit run-time clock are taken modulo 2^32: wrap-safe. */
    return ZEPO_GetSysRunTime() - started_ms;
}

/*
 * The trace function.  The engine never prints on standard output itself: it hands its
 * messages to the function registered with ZEPO_TimerRegDebugTrace.  Each message is one
 * NUL-terminated text that already ends with a newline.  It is called on the thread that
 * starts the engine ("Timer initialize success.") and on the driver thread (the warning
 * about a call-back that took more than 100 ms).
 */
static void print_trace(const char *text) {
    if (strstr(text, "initialize success") != NULL) atomic_fetch_add(&init_messages, 1);
    if (strstr(text, "too long") != NULL) atomic_fetch_add(&long_callback_warnings, 1);
    /* Never pass a message as a format: print it through "%s". */
    ZEPO_Printf("  [engine] %s", text);
}

/* A relative timer's call-back receives the argument given to ZEPO_StartRelTimer. */
static void on_periodic(void *arg) {
    atomic_uint *counter = arg;
    atomic_fetch_add(counter, 1);
}

static void on_oneshot(void *arg) {
    (void)arg;
    atomic_fetch_add(&oneshot_fired, 1);
    ZEPO_Printf("  one-shot timer fired at +%u ms\n", ms_since_start());
}

/*
 * A call-back that is too slow: it blocks the driver thread for 150 ms, so every other
 * timer of the process waits for it.  The engine measures each call-back and reports one
 * that takes more than 100 ms through the trace function, naming the line and file that
 * created the timer.  Keep real call-backs short; hand long work to a thread of your own.
 */
static void on_slow(void *arg) {
    (void)arg;
    atomic_fetch_add(&slow_fired, 1);
    ZEPO_SleepMs(150);
}

/* A calendar timer's call-back: called once for every matching second. */
static void on_calendar(void *arg) {
    const char *label = arg;
    char stamp[16] = "";
    time_t now = time(NULL);
    struct tm local;
    if (ZEPO_LocalTime_S(&local, &now) == 0) ZEPO_StrFtime(stamp, sizeof stamp, "%H:%M:%S", &local);
    atomic_fetch_add(&calendar_fired, 1);
    ZEPO_Printf("  %s: %s (at +%u ms)\n", label, stamp, ms_since_start());
}

/* A group's call-back: one function for every member, told which member fired and the
 * member's own argument. */
static void on_member(uint32_t index, uint32_t arg) {
    (void)arg;
    if (index < 2) atomic_fetch_add(&member_fired[index], 1);
}

/* Reports one expectation; returns 1 when it failed. */
static int check(int ok, const char *what) {
    if (!ok) ZEPO_Printf("FAILED: %s\n", what);
    return ok ? 0 : 1;
}

int main(void) {
    int failures = 0;
    started_ms = ZEPO_GetSysRunTime();

    /* 1. Register the trace function first, so that the start message is seen too. */
    ZEPO_TimerRegDebugTrace(print_trace);

    /*
     * 2. Relative timers.  ZEPO_CreateRelTimerM takes the call-back, the mode and the
     * creator's source line and file (they name the timer in the engine's warnings).
     * The first creation starts the engine.  A new timer does not run until it is
     * started with an interval in milliseconds and the argument for its call-back.
     *
     * Intervals are rounded to the nearest 10 ms tick, and a periodic timer of k ticks
     * fires every k + 1 ticks: this 100 ms timer fires every 110 ms.
     */
    ZEPO_Printf("relative timers\n");
    void *periodic = ZEPO_CreateRelTimerM(on_periodic, ZEPO_TIMER_PERIODIC, __LINE__, __FILE__);
    void *oneshot = ZEPO_CreateRelTimerM(on_oneshot, ZEPO_TIMER_ONESHOT, __LINE__, __FILE__);
    /* ZEPO_TIMER_AUTOFREE: fires once and frees itself; its handle is invalid afterwards. */
    void *slow = ZEPO_CreateRelTimerM(on_slow, ZEPO_TIMER_AUTOFREE, __LINE__, __FILE__);
    if (periodic == NULL || oneshot == NULL || slow == NULL) {
        ZEPO_Printf("FAILED: a relative timer could not be created\n");
        ZEPO_StopTimerTask();
        return 1;
    }
    failures +=
        check(ZEPO_StartRelTimer(periodic, 100, &periodic_fired) == 0, "start the periodic timer");
    failures += check(ZEPO_StartRelTimer(oneshot, 250, NULL) == 0, "start the one-shot timer");
    failures += check(ZEPO_StartRelTimer(slow, 400, NULL) == 0, "start the slow timer");

    /*
     * 3. A calendar (absolute) timer fires in every second whose local time matches a
     * pattern of second, minute, hour, day, month and year.  The pattern uses the full
     * year and months 1 to 12, and -1 in a field matches any value: all six at -1 fire
     * once a second.  (tm_sec = 30 with the rest at -1 would fire once a minute, at
     * second 30.)  The engine examines the calendar once a second.
     */
    ZEPO_Printf("calendar timer\n");
    void *calendar = ZEPO_CreateAbsTimerM(on_calendar, 0);
    struct tm every_second;
    memset(&every_second, 0, sizeof every_second);
    every_second.tm_sec = -1;
    every_second.tm_min = -1;
    every_second.tm_hour = -1;
    every_second.tm_mday = -1;
    every_second.tm_mon = -1;
    every_second.tm_year = -1;
    failures += check(calendar != NULL, "create the calendar timer");
    if (calendar != NULL) {
        failures += check(ZEPO_StartAbsTimer(calendar, &every_second, calendar_label) == 0,
                          "start the calendar timer");
    }

    /*
     * 4. A timer group: periodic timers that share one call-back and are addressed by
     * index.  Member 0 fires every 200 ms (210 ms with the extra tick), member 1 every
     * 300 ms; the last argument of ZEPO_StartRelTimerofGrp is the mode (0 periodic).
     */
    ZEPO_Printf("timer group\n");
    ZEPO_RELTIMER_GRP *group = NULL;
    failures += check(ZEPO_InitReltimerGrp(&group, 2, on_member) == 0, "create the group");
    if (group != NULL) {
        failures += check(ZEPO_StartRelTimerofGrp(group, 0, 200, 1000, 0) == 0, "start member 0");
        failures += check(ZEPO_StartRelTimerofGrp(group, 1, 300, 1001, 0) == 0, "start member 1");
    }

    /* Let everything run for a while.  main is free to do other work meanwhile. */
    ZEPO_SleepMs(1200);

    /* Stop member 1; member 0 keeps running.  The stop takes effect at the next tick,
     * so wait a little before taking the count that must not grow any more. */
    unsigned member1_at_stop = 0;
    if (group != NULL) {
        failures += check(ZEPO_StopRelTimerofGrp(group, 1) == 0, "stop member 1");
        ZEPO_SleepMs(50);
        member1_at_stop = atomic_load(&member_fired[1]);
        ZEPO_Printf("  member 1 stopped at +%u ms after %u firings\n", ms_since_start(),
                    member1_at_stop);
    }

    ZEPO_SleepMs(1250);

    /*
     * 5. Clean up.  Freeing a timer makes its handle invalid at once; the driver releases
     * it at its next tick, after any call-back under way.  A running timer need not be
     * stopped first.  The slow timer freed itself after its call-back.
     */
    uint32_t elapsed = ms_since_start();
    failures += check(ZEPO_FreeRelTimer(periodic) == 0, "free the periodic timer");
    failures += check(ZEPO_FreeRelTimer(oneshot) == 0, "free the one-shot timer");
    failures +=
        check(ZEPO_FreeRelTimer(periodic) == 22, "a second free of the same handle is refused");
    if (calendar != NULL)
        failures += check(ZEPO_FreeAbsTimer(calendar) == 0, "free the calendar timer");
    if (group != NULL) failures += check(ZEPO_FreeRelTimerGrp(group) == 0, "free the group");

    /* Stopping the engine carries out the requests still queued, frees every timer that
     * is left and ends the driver thread.  A later creation would start it again. */
    failures += check(ZEPO_StopTimerTask() == 0, "stop the engine");
    ZEPO_TimerRegDebugTrace(NULL);

    /* 6. What fired, and how often, in about 2.5 s. */
    unsigned periodic_count = atomic_load(&periodic_fired);
    unsigned member0 = atomic_load(&member_fired[0]);
    unsigned member1 = atomic_load(&member_fired[1]);
    ZEPO_Printf("summary after %u ms\n", elapsed);
    ZEPO_Printf("  periodic 100 ms timer: %u firings (about one per 110 ms)\n", periodic_count);
    ZEPO_Printf("  one-shot 250 ms timer: %u firing\n", atomic_load(&oneshot_fired));
    ZEPO_Printf("  slow one-shot timer:   %u firing, %u long call-back warning\n",
                atomic_load(&slow_fired), atomic_load(&long_callback_warnings));
    ZEPO_Printf("  calendar timer:        %u firings (one per second)\n",
                atomic_load(&calendar_fired));
    ZEPO_Printf("  group member 0:        %u firings (about one per 210 ms)\n", member0);
    ZEPO_Printf("  group member 1:        %u firings before its stop, %u after\n", member1_at_stop,
                member1 - member1_at_stop);
    ZEPO_Printf("  relative timers left:  %d, calendar timers left: %d\n", g_reltmNum, g_abstmNum);

    /* Loose bounds: the machine may be busy, but none of these can be missed entirely. */
    failures += check(atomic_load(&init_messages) == 1, "the trace function saw the start message");
    failures += check(periodic_count >= 10 && periodic_count <= 2 * elapsed / 110 + 1,
                      "the periodic timer fired about every 110 ms");
    failures += check(atomic_load(&oneshot_fired) == 1, "the one-shot timer fired exactly once");
    failures += check(atomic_load(&slow_fired) == 1, "the slow timer fired exactly once");
    failures += check(atomic_load(&long_callback_warnings) == 1, "the slow call-back was reported");
    failures += check(atomic_load(&calendar_fired) >= 1, "the calendar timer fired");
    failures += check(member0 >= 5, "group member 0 kept firing");
    failures += check(member1_at_stop >= 2, "group member 1 fired before its stop");
    failures += check(member1 == member1_at_stop, "group member 1 did not fire after its stop");
    failures += check(g_reltmNum == 0 && g_abstmNum == 0, "the stop freed every timer");

    ZEPO_Printf("%s\n",
                failures == 0 ? "all timers behaved as expected" : "some timers misbehaved");
    return failures == 0 ? 0 : 1;
}
