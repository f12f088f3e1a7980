// tmr_petimer.cpp - the timer driver: the one background thread of the library, its
// 10 ms tick and the tick hooks it calls.
//
// The driver sleeps for the rest of the current tick, then counts how many ticks really
// passed and hands the count to every hook.  Its arithmetic keeps the widths of the
// run-time clock: times are 32-bit unsigned milliseconds and every difference is taken
// modulo 2^32, so the clock's wrap after 49.7 days is seamless; the drift account is a
// signed 32-bit balance of planned minus measured sleep, in whole milliseconds.  A cycle
// that slept too long is made up by extra ticks, one that woke early by a tick less, so
// that over time the ticks follow the clock.
//
// The clock and the sleep are the library's exported ZEPO_GetSysRunTime and ZEPO_Select,
// reached through the dynamic linker like every call between the library's layers.
//
// Engine state: the started flag, the quitting flag and the thread id are read without a
// lock (atomically).  The hook list is built newest first; its head is published
// atomically, so a hook registered while the driver runs joins at the next cycle, but
// removal is for the driver's own tear-down (or while no driver runs).

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <mutex>

#include "os_frame.h"
#include "qel_socket.h"
#include "qel_thread.h"
#include "qel_time.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

namespace {

using namespace qel::timer;

constexpr uint32_t kTickMs = 10;
constexpr uint32_t kTickUs = 10000;
// The drift account stays within one tick either way; beyond it the tick count is corrected.
constexpr int32_t kDriftLimit = 9;

// One registration of a tick hook.
struct PetimerTickHook {
    PetimerTickHook *next;
    PETIMER_TICKHOOK_FUNC pfnHook;
    int64_t period;
    int64_t accumulated;  // touched by the driver thread only
};
static_assert(sizeof(PetimerTickHook) == 32);
static_assert(offsetof(PetimerTickHook, period) == 16);

std::atomic<uint32_t> s_started{0};
std::atomic<uint32_t> s_quitting{0};
std::atomic<uint64_t> s_threadId{0};
std::atomic<PetimerTickHook *> s_hooks{nullptr};
ZEPO_MUTEX s_startLock = ZEPO_MUTEX_INITIALIZER;

// A static ZEPO_MUTEX sets itself up at its first lock, unguarded; the first timer
// creations of a process may well come from several threads at once, so that first
// set-up is made exactly once.
ZEPO_MUTEX *start_lock() {
    static std::once_flag setUp;
    std::call_once(setUp, [] {
        ZEPO_MutexLock(&s_startLock);
        ZEPO_MutexUnLock(&s_startLock);
    });
    return &s_startLock;
}

// ---- The cycle ---------------------------------------------------------------------------

// What one cycle measured and decided.
struct Cycle {
    uint32_t elapsed;  // ms of work since the last wake-up
    uint32_t ticks;    // ticks to dispatch
    uint32_t sleepUs;  // rest of the current tick, 1 to 10000 us
};

Cycle plan_cycle(uint32_t last, uint32_t before) {
    Cycle cycle;
    cycle.elapsed = before - last;
    cycle.ticks = cycle.elapsed / kTickMs;
    // elapsed x 1000 is taken in 32 bits, as the clock is.
    cycle.sleepUs = kTickUs - (cycle.elapsed * 1000u) % kTickUs;
    return cycle;
}

void sleep_for(uint32_t microseconds) {
    struct timeval timeout;
    timeout.tv_sec = 0;
    timeout.tv_usec = static_cast<suseconds_t>(microseconds);
    // An interrupted or failed sleep is absorbed by the measurement.
    (void)ZEPO_Select(0, nullptr, nullptr, nullptr, &timeout);
}

// Books the sleep into the drift account and corrects the tick count.  Returns false
// when the cycle dispatches nothing (woken early by a whole tick with no work to count).
bool correct_ticks(Cycle &cycle, int32_t &drift, uint32_t before, uint32_t last) {
    const uint32_t planned = cycle.sleepUs / 1000u;
    const uint32_t measured = last - before;
    drift = static_cast<int32_t>(static_cast<uint32_t>(drift) + planned - measured);
    if (drift < -kDriftLimit) {
        // Overslept by a tick or more in total: count the slept tick and the lost ones.
        const uint32_t extra = (0u - static_cast<uint32_t>(drift)) / kTickMs;
        cycle.ticks += extra + 1;
        drift = static_cast<int32_t>(static_cast<uint32_t>(drift) + extra * kTickMs);
    } else if (drift <= kDriftLimit) {
        cycle.ticks += 1;  // the tick that was slept
    } else {
        // Woke early by a tick or more in total: the slept tick is not counted.
        drift -= static_cast<int32_t>(kTickMs);
        if (cycle.elapsed < kTickMs) return false;
    }
    return true;
}

void dispatch(uint32_t ticks) {
    for (PetimerTickHook *hook = s_hooks.load(std::memory_order_acquire); hook != nullptr;
         hook = hook->next) {
        hook->accumulated += ticks;
        if (hook->accumulated >= hook->period) {
            hook->pfnHook(hook->accumulated);
            hook->accumulated = 0;
        }
    }
}

// The driver thread: cycles until the quitting flag is 1, then runs the requests still
// queued, tears both timer modules down and forgets its id.
void *driver(void *) {
    uint32_t last = ZEPO_GetSysRunTime();
    int32_t drift = 0;
    while (petimer_isQuiting() != 1) {
        const uint32_t before = ZEPO_GetSysRunTime();
        Cycle cycle = plan_cycle(last, before);
        sleep_for(cycle.sleepUs);
        last = ZEPO_GetSysRunTime();
        if (correct_ticks(cycle, drift, before, last)) dispatch(cycle.ticks);
    }
    reltmr_post_tasklet();
    abstmr_post_tasklet();
    delinit_reltm();
    delinit_abstm();
    petimer_setTreadId(0);
    return nullptr;
}

}  // namespace

namespace qel::timer {

bool engine_started() { return s_started.load() == 1; }

bool on_driver_thread() {
    const uint64_t id = s_threadId.load();
    return id != 0 && id == static_cast<uint64_t>(pthread_self());
}

}  // namespace qel::timer

extern "C" {

int32_t petimer_start(uint64_t *threadIdOut, const pthread_attr_t *threadAttr) {
    qel::MutexHold locked(start_lock());
    if (s_started.load() == 1) return 0;
    // The tables cannot be built without cells; refusing here leaves nothing half-built.
    if (load(ulMaxAbstmNum) == 0 || load(ulMaxReltmNum) == 0) return EINVAL;
    if (const uint32_t result = init_abstm(); result != 0) return static_cast<int32_t>(result);
    // A failure of the relative side leaves the absolute side built; the next start
    // replaces it.
    if (const uint32_t result = init_reltm(); result != 0) return static_cast<int32_t>(result);
    pthread_t id = 0;
    const int32_t created = ZEPO_PthreadCreate(&id, threadAttr, driver, nullptr);
    if (threadIdOut != nullptr) *threadIdOut = static_cast<uint64_t>(id);
    petimer_setTreadId(static_cast<uint64_t>(id));
    if (created == 0) {
        s_started.store(1);
        zepo_timer_debug("Timer initialize success.\n");
    }
    return created;
}

int32_t petimer_stop(uint64_t threadId) {
    const int32_t joined = ZEPO_PthreadJoin(static_cast<pthread_t>(threadId), nullptr);
    s_started.store(0);
    return joined;
}

uint32_t petimer_isQuiting(void) { return s_quitting.load(); }

void petimer_setQuitingFlag(uint32_t value, uint32_t takeLocks) {
    if (takeLocks == 0) {
        s_quitting.store(value);
        return;
    }
    reltmr_idxLock();
    abstmr_indexLock();
    s_quitting.store(value);
    abstmr_indexUnLock();
    reltmr_idxUnLock();
}

uint64_t petimer_getTreadId(void) { return s_threadId.load(); }

void petimer_setTreadId(uint64_t threadId) { s_threadId.store(threadId); }

uint32_t petimer_register_tickhook(PETIMER_TICKHOOK_FUNC hook, int64_t period) {
    if (hook == nullptr || period == 0) return EINVAL;
    auto *record = static_cast<PetimerTickHook *>(qel::heap_alloc(sizeof(PetimerTickHook)));
    if (record == nullptr) return no_memory();
    record->pfnHook = hook;
    record->period = period;
    record->accumulated = 0;
    PetimerTickHook *head = s_hooks.load(std::memory_order_relaxed);
    do {
        record->next = head;
    } while (!s_hooks.compare_exchange_weak(head, record, std::memory_order_release,
                                            std::memory_order_relaxed));
    return 0;
}

uint32_t petimer_deregister_tickhook(PETIMER_TICKHOOK_FUNC hook) {
    if (hook == nullptr) return EINVAL;
    PetimerTickHook *previous = nullptr;
    for (PetimerTickHook *record = s_hooks.load(); record != nullptr;
         previous = record, record = record->next) {
        if (record->pfnHook != hook) continue;
        if (previous == nullptr)
            s_hooks.store(record->next);
        else
            previous->next = record->next;
        qel::heap_free(record);
        break;
    }
    return 0;
}

}  // extern "C"
