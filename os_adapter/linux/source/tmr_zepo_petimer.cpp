// tmr_zepo_petimer.cpp - the public timer functions: the engine started on demand, the
// limits on the number of timers, calendar patterns in the caller's convention, the
// stopping sequence; the periodic waitable timer and the system-control slot.

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_time.h"
#include "qel_timer.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

using namespace qel::timer;

static_assert(offsetof(ZEPO_PERIODIC_TIMER, period) == 4);
static_assert(offsetof(ZEPO_PERIODIC_TIMER, condAttr) == 8);
static_assert(offsetof(ZEPO_PERIODIC_TIMER, cond) == 16);
static_assert(offsetof(ZEPO_PERIODIC_TIMER, mutex) == 64);
static_assert(offsetof(ZEPO_PERIODIC_TIMER, startSec) == 104);
static_assert(offsetof(ZEPO_PERIODIC_TIMER, startNsec) == 112);
static_assert(sizeof(ZEPO_PERIODIC_TIMER) == 120);

extern "C" {
ZEPO_SYSCTRL_TID_FUNC g_pfnSysCtrlRegTaskTidFunc = nullptr;
}

namespace {

// Never more live timers of one kind through this layer, whatever the limits say.
constexpr int64_t kHardCap = 2000;
constexpr int32_t kAnyValue = -1;
constexpr int32_t kYearBase = 1900;
constexpr uint32_t kMsPerSecond = 1000;
constexpr long kNsPerMs = 1000000;
constexpr long kNsPerSecond = 1000000000;

// Set while a stop is under way, so that a second stop is refused instead of joining the
// driver thread twice.
std::atomic<bool> s_stopping{false};

// The counts are compared as numbers: g_reltmNum can be negative (see
// ZEPO_StartRelTimer_Simple), and a negative count is below every limit.
bool room_for_one_more(const int32_t &counter, const uint32_t &limit) {
    const int64_t live = load(counter);
    return live < static_cast<int64_t>(load(limit)) && live < kHardCap;
}

bool engine_ready() { return ZEPO_StartTimerTask(nullptr, nullptr) == 0; }

// The stopping sequence: quitting flag raised under both index locks, the driver joined
// (it runs the queued requests and frees every timer before it leaves), flag cleared.
int32_t stop_engine() {
    const uint64_t id = petimer_getTreadId();
    if (id == 0 || petimer_isQuiting() != 0) return -1;
    if (on_driver_thread()) return -1;  // a call-back would wait for its own thread
    petimer_setQuitingFlag(1, 1);
    petimer_stop(id);
    petimer_setQuitingFlag(0, 0);
    return 0;
}

// A field of the caller's convention moved to the C library's, keeping the wildcard.
int shifted(int value, int by) { return value == kAnyValue ? value : value - by; }

}  // namespace

extern "C" {

// ---- Engine control ----------------------------------------------------------------------

int32_t ZEPO_StartTimerTask(uint64_t *threadIdOut, const pthread_attr_t *attr) {
    if (petimer_isQuiting() == 1) return -1;
    return petimer_start(threadIdOut, attr);
}

int32_t ZEPO_StopTimerTask(void) {
    // One stop at a time: a second one would join the driver thread twice.
    if (s_stopping.exchange(true)) return -1;
    const int32_t result = stop_engine();
    s_stopping.store(false);
    return result;
}

// ---- Creation with limits ---------------------------------------------------------------

void *ZEPO_CreateAbsTimerM(ZEPO_TIMEOUT_FUNC pfnTimeout, uint32_t mode) {
    if (!engine_ready() || !room_for_one_more(g_abstmNum, ulMaxAbstmNum)) return nullptr;
    void *handle = petimer_create_abstimer(pfnTimeout, mode);
    if (handle != nullptr) count_up(g_abstmNum);
    return handle;
}

void *ZEPO_CreateRelTimerM(ZEPO_TIMEOUT_FUNC pfnTimeout, int32_t mode, uint32_t line,
                           const char *name) {
    if (!engine_ready() || !room_for_one_more(g_reltmNum, ulMaxReltmNum)) return nullptr;
    void *handle = petimer_create_reltimer(pfnTimeout, mode, line, name);
    if (handle == nullptr) return nullptr;
    count_up(g_reltmNum);
    name_creator(handle, line, name);
    return handle;
}

// ---- Requests ---------------------------------------------------------------------------

uint32_t ZEPO_StartAbsTimer(void *handle, const struct tm *pattern, void *arg) {
    if (GUX_IsSysTimeValid(pattern) == 0) return EINVAL;
    struct tm engine = *pattern;  // the caller's structure stays as it is
    engine.tm_year = shifted(engine.tm_year, kYearBase);
    engine.tm_mon = shifted(engine.tm_mon, 1);
    return petimer_start_abstimer(handle, &engine, arg);
}

uint32_t ZEPO_StartRelTimer(void *handle, uint32_t intervalMs, void *arg) {
    return petimer_start_reltimer(handle, intervalMs, arg);
}

uint32_t ZEPO_StopAbsTimer_Safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    return petimer_stop_abstimer_safe(handle, pfnDone, doneArg);
}

uint32_t ZEPO_StopRelTimer_Safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    return petimer_stop_reltimer_safe(handle, pfnDone, doneArg);
}

uint32_t ZEPO_StopAbsTimer_SafeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                  void **argOut) {
    return petimer_stop_abstimer_safeEx(handle, pfnDone, doneArg, argOut);
}

uint32_t ZEPO_StopRelTimer_SafeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                  void **argOut) {
    return petimer_stop_reltimer_safeEx(handle, pfnDone, doneArg, argOut);
}

uint32_t ZEPO_FreeAbsTimer(void *handle) { return petimer_free_abstimer(handle); }

uint32_t ZEPO_FreeRelTimer(void *handle) { return petimer_free_reltimer(handle); }

uint32_t ZEPO_FreeRelTimerArg_safe(void *block) { return petimer_free_reltimerarg_safe(block); }

uint32_t ZEPO_StartRelTimer_Simple(uint32_t intervalMs, ZEPO_TIMEOUT_FUNC pfnTimeout, void *arg) {
    // Neither limited nor counted here.
    const int32_t started = ZEPO_StartTimerTask(nullptr, nullptr);
    if (started != 0) return static_cast<uint32_t>(started);
    return petimer_start_reltimer_simple(intervalMs, pfnTimeout, arg);
}

// ---- Periodic waitable timer ------------------------------------------------------------

ZEPO_PERIODIC_TIMER *ZEPO_TimerCreate(void * /*context: ignored*/, uint32_t periodMs) {
    qel::HeapPtr<ZEPO_PERIODIC_TIMER> timer(
        static_cast<ZEPO_PERIODIC_TIMER *>(qel::heap_zalloc(sizeof(ZEPO_PERIODIC_TIMER))));
    if (!timer) return nullptr;
    ZEPO_PERIODIC_TIMER *t = timer.get();
    if (pthread_mutex_init(&t->mutex, nullptr) != 0) return nullptr;
    if (pthread_condattr_init(&t->condAttr) != 0) {
        pthread_mutex_destroy(&t->mutex);
        return nullptr;
    }
    const bool made = pthread_condattr_setclock(&t->condAttr, CLOCK_MONOTONIC) == 0 &&
                      pthread_cond_init(&t->cond, &t->condAttr) == 0;
    pthread_condattr_destroy(&t->condAttr);
    if (!made) {
        pthread_mutex_destroy(&t->mutex);
        return nullptr;
    }
    t->tickCount = 0;
    t->period = periodMs;
    t->startSec = 0;
    t->startNsec = 0;
    return timer.release();
}

int32_t ZEPO_TimerProcess(ZEPO_PERIODIC_TIMER *timer) {
    if (timer == nullptr) return -1;
    if (timer->startSec == 0) {
        // The schedule begins at the first wait, not at creation.
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        timer->startSec = now.tv_sec;
        timer->startNsec = now.tv_nsec;
    }
    const uint32_t offsetMs = ++timer->tickCount * timer->period;  // wraps after 49.7 days
    struct timespec deadline;
    deadline.tv_sec = static_cast<time_t>(timer->startSec + offsetMs / kMsPerSecond);
    deadline.tv_nsec =
        static_cast<long>(offsetMs % kMsPerSecond) * kNsPerMs + static_cast<long>(timer->startNsec);
    if (deadline.tv_nsec >= kNsPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNsPerSecond;
    }
    if (pthread_mutex_lock(&timer->mutex) != 0) return -1;
    const int waited = pthread_cond_timedwait(&timer->cond, &timer->mutex, &deadline);
    pthread_mutex_unlock(&timer->mutex);
    // A time-out is the normal end; so is a deadline already past.
    return waited == EINVAL ? -1 : 0;
}

void ZEPO_TimerDestroy(ZEPO_PERIODIC_TIMER *timer) {
    if (timer == nullptr) return;
    pthread_cond_destroy(&timer->cond);
    pthread_mutex_destroy(&timer->mutex);
    (void)memset_s(timer, sizeof *timer, 0, sizeof *timer);
    qel::heap_free(timer);
}

// ---- System-control slot ---------------------------------------------------------------

int32_t ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(ZEPO_SYSCTRL_TID_FUNC callback) {
    store(g_pfnSysCtrlRegTaskTidFunc, callback);
    return 0;
}

void ZEPO_SysCtrlRegTaskTid(uint64_t first, uint64_t second) {
    const ZEPO_SYSCTRL_TID_FUNC callback = load(g_pfnSysCtrlRegTaskTidFunc);
    if (callback != nullptr) callback(first, second);
}

}  // extern "C"
