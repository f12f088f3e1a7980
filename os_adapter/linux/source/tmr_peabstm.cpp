// tmr_peabstm.cpp - absolute (calendar) timers: a handle table, one list of started
// timers and the calendar hook that examines them once a second.
//
// Records and the invariants they keep:
//
// - The handle table g_szAbsTimer is built like the relative one: a cell holds its
//   record, or while free the address of the next free cell; released cells go to the
//   tail of the free list (g_pAbsHead .. g_pAbsTail).  The index lock guards the free
//   list; the cells are read without it by start, stop and free, which test a handle
//   for null only (deliberately lighter than the relative module: a freed handle is the
//   caller's error).
// - The timer list is circular with a sentinel and holds every started timer; a timer
//   started while in no list goes right after the sentinel, so the newest is examined
//   first.  A record in no list points at itself.  Only the driver thread changes the
//   list, through tasklets on the absolute queue, run at the start of each calendar hook.
// - The pattern is a struct tm in the C library's convention (years since 1900, months 0
//   to 11); six fields take part, each -1 for any value.
// - g_abstmNum counts live timers; it drops when the free tasklet runs, not when the free
//   is requested.
//
// A timer lives: created (cell, no list) -> started (in the list) -> fired (mode 0 stays;
// mode 1 leaves the list; mode 2: cell released, record freed by its tasklet) ->
// stopped (out of the list) -> freed.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "os_frame.h"
#include "qel_mutex.h"
#include "qel_time.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

using namespace qel::timer;

extern "C" {
void **g_szAbsTimer = nullptr;
void **g_pAbsHead = nullptr;
void **g_pAbsTail = nullptr;
int32_t g_abstmNum = 0;
}

namespace {

constexpr uint32_t kFreeAfterFiring = 2;
constexpr uint32_t kOneShot = 1;
constexpr int32_t kAnyValue = -1;
// Seconds the calendar hook makes up when it comes late; a larger step of the clock, and
// any step backwards, examines only the current second.
constexpr uint64_t kCatchUpSeconds = 60;
// The hook's period: 100 ticks, one second.
constexpr int64_t kHookPeriod = 100;
constexpr uint64_t kNeverExamined = ~0ULL;

struct AbsTimerRecord {
    Link link;  // next, prev: the timer list, or the record itself
    ZEPO_TIMEOUT_FUNC pfnTimeout;
    uint32_t mode;
    struct tm stTime;
    void *arg;  // replaced by the driver, read by stop-Ex on other threads: atomic access
    int32_t index;
};
static_assert(sizeof(struct tm) == 56);
static_assert(offsetof(AbsTimerRecord, link) == 0);
static_assert(offsetof(AbsTimerRecord, pfnTimeout) == 16 && offsetof(AbsTimerRecord, mode) == 24);
static_assert(offsetof(AbsTimerRecord, stTime) == 32 && offsetof(AbsTimerRecord, arg) == 88);
static_assert(offsetof(AbsTimerRecord, index) == 96 && sizeof(AbsTimerRecord) == 104);

struct StartRequest {
    AbsTimerRecord *record;
    struct tm pattern;
    void *arg;
};
struct StopRequest {
    AbsTimerRecord *record;
    ZEPO_TIMER_DONE_FUNC pfnDone;
    void *doneArg;
};

// Zero at load; set up at every engine start.
TaskletQueue s_queue;
// Zero at load, which is a valid plain mutex: locking it before the first start needs no
// set-up.  Left destroyed by the tear-down.
ZEPO_MUTEX s_indexLock{};
Link s_list;
HandleTable s_table{g_szAbsTimer, g_pAbsHead, g_pAbsTail, 0};
// The driver's: the last second examined, and the current one.
uint64_t s_lastSecond = kNeverExamined;
uint64_t s_currentSecond = 0;

struct IndexLock : qel::MutexHold {
    IndexLock() : MutexHold(&s_indexLock) {}
};

AbsTimerRecord *record_at(Link *link) { return reinterpret_cast<AbsTimerRecord *>(link); }

// The record a handle's cell holds, or null for a null handle or an empty cell.  A free
// cell's link is taken for a record: callers must not use a freed handle.
AbsTimerRecord *record_in(void *handle) {
    if (handle == nullptr) return nullptr;
    return static_cast<AbsTimerRecord *>(load(*static_cast<void **>(handle)));
}

bool quitting() { return petimer_isQuiting() == 1; }

void **cell_of(const AbsTimerRecord *record) { return &g_szAbsTimer[record->index]; }

// ---- Tasklets (driver thread) ---------------------------------------------------------------

void start_tasklet(void *argument) {
    qel::HeapPtr<StartRequest> request(static_cast<StartRequest *>(argument));
    AbsTimerRecord *record = request.get()->record;
    record->stTime = request.get()->pattern;
    store(record->arg, request.get()->arg);
    if (!in_list(link_of(record))) insert_after(&s_list, link_of(record));
}

void stop_tasklet(void *argument) {
    qel::HeapPtr<StopRequest> request(static_cast<StopRequest *>(argument));
    Link *link = link_of(request.get()->record);
    if (in_list(link)) unlink(link);
    if (request.get()->pfnDone != nullptr) request.get()->pfnDone(request.get()->doneArg);
}

void free_tasklet(void *timer) {
    auto *record = static_cast<AbsTimerRecord *>(timer);
    if (in_list(link_of(record))) unlink(link_of(record));
    qel::heap_free(record);
    count_down(g_abstmNum);
}

// ---- The calendar hook (driver thread) ---------------------------------------------------

bool field_matches(int pattern, int value) { return pattern == kAnyValue || pattern == value; }

bool matches(const struct tm &pattern, const struct tm &local) {
    return field_matches(pattern.tm_sec, local.tm_sec) &&
           field_matches(pattern.tm_min, local.tm_min) &&
           field_matches(pattern.tm_hour, local.tm_hour) &&
           field_matches(pattern.tm_mday, local.tm_mday) &&
           field_matches(pattern.tm_mon, local.tm_mon) &&
           field_matches(pattern.tm_year, local.tm_year);
}

// After a mode-2 timer fired: unless its cell holds nothing (its call-back freed it), the
// cell goes to the tail of the free list under the index lock and the record's release is
// queued.  Only nothing is tested, not a free-list link, as the absolute module always
// did: the header says what a mode-2 call-back may free because of it.  Returns false
// when the cell held nothing.  Without memory for the tasklet the timer is taken out of
// the list instead, and stays created until the engine stops.
bool release_fired(AbsTimerRecord *record) {
    TaskletEntry *entry = nullptr;
    {
        IndexLock locked;
        void **cell = cell_of(record);
        if (load(*cell) == nullptr) return false;
        entry = new_tasklet(free_tasklet, record);
        if (entry != nullptr) s_table.release_cell(cell);
    }
    if (entry != nullptr)
        queue_last(&s_queue, entry);
    else if (in_list(link_of(record)))
        unlink(link_of(record));
    return true;
}

// Examines the seconds after last up to now for one record, firing at each match.
void examine(AbsTimerRecord *record, uint64_t last, uint64_t now) {
    for (int64_t second = static_cast<int64_t>(last + 1); second <= static_cast<int64_t>(now);
         ++second) {
        const time_t at = static_cast<time_t>(second);
        struct tm local;
        if (ZEPO_LocalTime_S(&local, &at) != 0) continue;
        if (!matches(record->stTime, local)) continue;
        record->pfnTimeout(load(record->arg));
        // The walk over the remaining seconds goes on either way.
        const bool released = (record->mode & kFreeAfterFiring) != 0 && release_fired(record);
        if (!released && (record->mode & kOneShot) != 0 && in_list(link_of(record)))
            unlink(link_of(record));
    }
}

// The tick hook, period 100: the requests first, then every started timer over the
// seconds since the last examined one.
void calendar_hook(int64_t ticks) {
    if (ticks < kHookPeriod) return;
    abstmr_post_tasklet();
    const uint64_t now = ZEPO_GetSysTimeSec();
    s_currentSecond = now;
    uint64_t last = s_lastSecond;
    // The first call, a step forward beyond the catch-up, and any step backwards (the
    // difference wraps): only the current second.
    if (now - last > kCatchUpSeconds) last = now - 1;
    Link *entry = s_list.next;
    while (entry != &s_list) {
        Link *const successor = entry->next;  // the record may leave the list
        examine(record_at(entry), last, now);
        entry = successor;
    }
    s_lastSecond = now;
}

}  // namespace

extern "C" {

int32_t abstmr_indexLock(void) { return ZEPO_MutexLock(&s_indexLock); }

int32_t abstmr_indexUnLock(void) { return ZEPO_MutexUnLock(&s_indexLock); }

uint32_t init_AbsIndex(void) {
    if (ZEPO_MutexInit(&s_indexLock, nullptr) != 0) return 1;
    IndexLock locked;
    return s_table.build(load(ulMaxAbstmNum));
}

uint32_t delinit_AbsIndex(void) {
    {
        IndexLock locked;
        // g_pAbsHead and g_pAbsTail keep their values: the next start rebuilds them.
        s_table.discard();
    }
    return static_cast<uint32_t>(ZEPO_MutexDestroy(&s_indexLock));
}

uint32_t init_abstm(void) {
    make_empty(&s_list);
    s_lastSecond = kNeverExamined;  // a new engine starts with the current second
    if (const int32_t result = tsklet_init(&s_queue); result != 0)
        return static_cast<uint32_t>(result);
    if (const uint32_t result = init_AbsIndex(); result != 0) return result;
    // A start that failed after this step left the hook registered; a second one would
    // examine every second twice.
    petimer_deregister_tickhook(calendar_hook);
    return petimer_register_tickhook(calendar_hook, kHookPeriod);
}

uint32_t delinit_abstm(void) {
    (void)tsklet_delinit(&s_queue);
    Link *entry = s_list.next;
    while (entry != &s_list) {
        Link *const successor = entry->next;
        AbsTimerRecord *record = record_at(entry);
        petimer_relAbsIndex(cell_of(record));
        qel::heap_free(record);
        count_down(g_abstmNum);
        entry = successor;
    }
    make_empty(&s_list);
    {
        IndexLock locked;
        s_table.free_records(g_abstmNum);
    }
    if (const uint32_t result = delinit_AbsIndex(); result != 0) return result;
    petimer_deregister_tickhook(calendar_hook);
    return 0;
}

uint32_t petimer_relAbsIndex(void *cell) {
    IndexLock locked;
    s_table.release_cell(static_cast<void **>(cell));
    return 0;
}

void *petimer_create_abstimer(ZEPO_TIMEOUT_FUNC pfnTimeout, uint32_t mode) {
    if (load(g_pAbsHead) == nullptr) return nullptr;  // no free cell; errno stays
    if (pfnTimeout == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    qel::HeapPtr<AbsTimerRecord> record(
        static_cast<AbsTimerRecord *>(qel::heap_zalloc(sizeof(AbsTimerRecord))));
    if (!record) {
        errno = ENOMEM;
        return nullptr;
    }
    AbsTimerRecord *timer = record.get();
    timer->pfnTimeout = pfnTimeout;
    timer->mode = mode;
    make_empty(link_of(timer));
    IndexLock locked;
    if (quitting()) return nullptr;
    // Tested again under the lock: another creator may have taken the last cell, or the
    // engine may have stopped, leaving g_pAbsHead pointing into the released table.
    void **cell = load(g_pAbsHead);
    if (cell == nullptr || !s_table.contains(cell)) return nullptr;
    store(g_pAbsHead, static_cast<void **>(*cell));
    if (load(g_pAbsHead) == nullptr) store(g_pAbsTail, static_cast<void **>(nullptr));
    timer->index = static_cast<int32_t>(cell - g_szAbsTimer);
    store(*cell, static_cast<void *>(record.release()));
    return cell;
}

uint32_t petimer_start_abstimer(void *handle, const struct tm *pattern, void *arg) {
    AbsTimerRecord *record = record_in(handle);
    if (record == nullptr || pattern == nullptr) return EINVAL;
    qel::HeapPtr<StartRequest> request(
        static_cast<StartRequest *>(qel::heap_alloc(sizeof(StartRequest))));
    if (!request) return no_memory();
    request.get()->record = record;
    request.get()->pattern = *pattern;
    request.get()->arg = arg;
    return queue_request(&s_queue, start_tasklet, request);
}

uint32_t petimer_stop_abstimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    AbsTimerRecord *record = record_in(handle);
    if (record == nullptr || quitting()) return EINVAL;
    qel::HeapPtr<StopRequest> request(
        static_cast<StopRequest *>(qel::heap_alloc(sizeof(StopRequest))));
    if (!request) return no_memory();
    request.get()->record = record;
    request.get()->pfnDone = pfnDone;
    request.get()->doneArg = doneArg;
    return queue_request(&s_queue, stop_tasklet, request);
}

uint32_t petimer_stop_abstimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut) {
    AbsTimerRecord *record = record_in(handle);
    if (record == nullptr || quitting() || argOut == nullptr) return EINVAL;
    *argOut = load(record->arg);
    return petimer_stop_abstimer_safe(handle, pfnDone, doneArg);
}

uint32_t petimer_free_abstimer(void *handle) {
    AbsTimerRecord *record = record_in(handle);
    if (record == nullptr || quitting()) return EINVAL;
    // The tasklet first: without memory nothing changes.
    TaskletEntry *entry = new_tasklet(free_tasklet, record);
    if (entry == nullptr) return no_memory();
    petimer_relAbsIndex(handle);
    queue_last(&s_queue, entry);
    return 0;
}

int32_t abstmr_post_tasklet(void) { return tsklet_invokeall(&s_queue); }

}  // extern "C"
