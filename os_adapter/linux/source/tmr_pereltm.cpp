// tmr_pereltm.cpp - relative timers: the handle table, the timing wheel and the requests
// that change it.
//
// Records and the invariants they keep:
//
// - A cell of g_szRelTimer holds a live RelTimerRecord, or - while free - the address of
//   the next free cell (NULL for the last).  g_pRelHead/g_pRelTail are the first and last
//   free cells; a released cell is appended at the tail, so handle values come back as
//   late as possible.  A handle is a cell's address.  The table, its free list and
//   g_reltmNum change only under the index lock.
// - The wheel has 1024 slots of one 10 ms tick; the tick counter selects the current
//   slot (counter & 1023) and wraps at 2^32, which 1024 divides.  Each slot holds a near
//   list (due at the slot's next visit) and a turn list (due after one or more further
//   turns).
// - A record's due word holds its slot in the low 10 bits and its turns x 1024 above.  In
//   a turn list the turns are a delta list: each entry's turns count from its
//   predecessor's, so only the first entry of a slot is counted down, one turn per visit.
//   Whenever an entry leaves a turn list its turns are handed over to its successor,
//   whose absolute position therefore never moves.
// - A record in no list points at itself.  Only the driver thread touches the wheel, the
//   records in it and the call-backs: every change arrives as a tasklet on the relative
//   queue, which the wheel hook runs before it advances the wheel.  That is what lets a
//   call-back stop or free any timer, its own included.
//
// A timer lives: created (cell, no list) -> running (in a list, after its start tasklet)
// -> fired (mode 1: created again; mode 2: freed; periodic: running again after its
// re-arm tasklet) -> stopped (created) -> freed (cell released at once, record freed by
// its tasklet).

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_mutex.h"
#include "qel_time.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

using namespace qel::timer;

extern "C" {
void **g_szRelTimer = nullptr;
void **g_pRelHead = nullptr;
void **g_pRelTail = nullptr;
int32_t g_reltmNum = 0;
}

namespace {

constexpr uint32_t kSlots = 1024;
constexpr uint32_t kSlotMask = kSlots - 1;
constexpr uint32_t kTurnMask = ~kSlotMask;  // the turns x 1024 of a due word
constexpr uint32_t kTickMs = 10;
// Added before the division by the tick, so that it rounds to the nearest tick, halves up.
constexpr uint32_t kRoundingMs = 5;
// Rounded intervals up to this value are due within one turn of the wheel.
constexpr uint32_t kLastNearInterval = kSlots * kTickMs - 1;
constexpr uint32_t kModeKept = 0xFF;
constexpr uint32_t kOneShotBits = 3;
constexpr uint32_t kAutoFreeBit = 2;
// A call-back running longer than this many milliseconds is reported.
constexpr uint32_t kLongCallbackMs = 100;
// The line a timer has until its creating layer names it.
constexpr uint32_t kNoCreatorLine = 0xDEADDEAD;

enum ListKind : uint32_t { kNearList = 0, kTurnList = 1 };

struct RelTimerRecord {
    Link link;  // next, prev: the wheel list holding the record, or the record itself
    uint32_t interval;
    uint32_t due;
    ZEPO_TIMEOUT_FUNC pfnTimeout;
    void *arg;  // replaced by the driver, read by stop-Ex on other threads: atomic access
    uint32_t mode;
    uint32_t list;
    uint32_t index;
    uint32_t line;
    const char *name;
};
static_assert(sizeof(RelTimerRecord) == 64);
static_assert(offsetof(RelTimerRecord, link) == 0);
static_assert(offsetof(RelTimerRecord, interval) == 16 && offsetof(RelTimerRecord, due) == 20);
static_assert(offsetof(RelTimerRecord, pfnTimeout) == 24 && offsetof(RelTimerRecord, arg) == 32);
static_assert(offsetof(RelTimerRecord, mode) == 40 && offsetof(RelTimerRecord, list) == 44);
static_assert(offsetof(RelTimerRecord, index) == 48 && offsetof(RelTimerRecord, line) == 52);
static_assert(offsetof(RelTimerRecord, name) == 56);

struct WheelSlot {
    Link nearList;
    Link turnList;
};
struct TimerWheel {
    WheelSlot slots[kSlots];
};
static_assert(sizeof(TimerWheel) == kSlots * 4 * sizeof(void *));

// Requests: three pointer-sized words, freed by the tasklet that consumes them.
struct StartRequest {
    RelTimerRecord *record;
    uintptr_t intervalMs;
    void *arg;
};
struct StopRequest {
    RelTimerRecord *record;
    ZEPO_TIMER_DONE_FUNC pfnDone;
    void *doneArg;
};
static_assert(sizeof(StartRequest) == 24 && sizeof(StopRequest) == 24);

// Zero at load: tsklet_init sets it up at every engine start.
TaskletQueue s_queue;
// Static at load and again after every tear-down, so that a request made while no engine
// runs sets it up lazily and is refused cleanly.
ZEPO_MUTEX s_indexLock = ZEPO_MUTEX_INITIALIZER;
// The driver's: the wheel and its tick counter.
TimerWheel *s_wheel = nullptr;
uint32_t s_counter = 0;
HandleTable s_table{g_szRelTimer, g_pRelHead, g_pRelTail, 0};

struct IndexLock : qel::MutexHold {
    IndexLock() : MutexHold(&s_indexLock) {}
};

RelTimerRecord *record_at(Link *link) { return reinterpret_cast<RelTimerRecord *>(link); }

void *load_arg(const RelTimerRecord *record) { return load(record->arg); }

// ---- Handle table (index lock held) --------------------------------------------------------

// The record the cell at handle holds, or null when handle lies outside the table or its
// cell holds nothing or a free-list link.  Its alignment is not tested: an address
// between two cells reads parts of both (copied bytewise, so that the read itself is
// sound) - callers pass the handles the engine gave them.
RelTimerRecord *record_in_cell(void *handle) {
    if (!s_table.contains(handle)) return nullptr;
    void *content = nullptr;
    std::memcpy(&content, handle, sizeof content);
    if (content == nullptr || s_table.contains(content)) return nullptr;
    return static_cast<RelTimerRecord *>(content);
}

// The record of a valid handle, or null: one whose cell holds a record while the engine
// is not quitting.
RelTimerRecord *record_of(void *handle) {
    if (petimer_isQuiting() != 0) return nullptr;
    return record_in_cell(handle);
}

// True while the record's cell still holds it.
bool holds(const RelTimerRecord *record) {
    return record->index < s_table.count && g_szRelTimer[record->index] == record;
}

// Releases the cell of a live record and queues the release of the record; 12 when the
// tasklet cannot be allocated, and then nothing changes.
uint32_t free_timer(RelTimerRecord *record);

// ---- The wheel (driver thread) -----------------------------------------------------------

Link *turn_sentinel(const RelTimerRecord *record) {
    return &s_wheel->slots[record->due & kSlotMask].turnList;
}

// Takes the record out of its list, handing its turns over to its successor in a turn
// list; nothing happens to a record in no list.
void unlink_with_handover(RelTimerRecord *record) {
    Link *link = link_of(record);
    if (!in_list(link)) return;
    if (record->list == kTurnList && link->next != turn_sentinel(record))
        record_at(link->next)->due += record->due & kTurnMask;
    unlink(link);
}

// Inserts into the slot's turn list, kept as a delta list ordered by turns; among equal
// turns the newest goes last.
void insert_turn(Link *sentinel, RelTimerRecord *record) {
    uint32_t due = record->due;
    Link *position = sentinel->next;
    while (position != sentinel && record_at(position)->due <= due) {
        due -= record_at(position)->due & kTurnMask;
        position = position->next;
    }
    record->due = due;
    insert_before(position, link_of(record));
    if (position != sentinel) record_at(position)->due -= due & kTurnMask;
}

// Links the record into the wheel for its interval, counted from the current tick.
void insert(RelTimerRecord *record) {
    const uint32_t rounded = record->interval + kRoundingMs;
    if (rounded < kTickMs) {
        // Below 5 ms: due at the next tick.
        const uint32_t slot = (s_counter + 1) & kSlotMask;
        record->due = slot;
        record->list = kNearList;
        insert_before(&s_wheel->slots[slot].nearList, link_of(record));
        return;
    }
    const uint32_t ticks = rounded / kTickMs;
    const uint32_t slot = (s_counter + ticks) & kSlotMask;
    record->due = (ticks & kTurnMask) | slot;
    if (rounded <= kLastNearInterval) {
        record->list = kNearList;
        insert_before(&s_wheel->slots[slot].nearList, link_of(record));
    } else {
        record->list = kTurnList;
        insert_turn(&s_wheel->slots[slot].turnList, record);
    }
}

// Re-inserts a periodic timer with its interval, from the tick at which the tasklet runs.
// The record is in no list then; it is unlinked first all the same, so that nothing can
// ever link it twice.
void rearm_tasklet(void *timer) {
    auto *record = static_cast<RelTimerRecord *>(timer);
    unlink_with_handover(record);
    insert(record);
}

// Fires one record: the re-arm of a periodic timer is queued first, at the front of the
// queue, so that it precedes a stop or free the call-back may request.
void fire(RelTimerRecord *record) {
    unlink(link_of(record));
    if ((record->mode & kOneShotBits) == 0) {
        IndexLock locked;
        // Freed meanwhile (by an earlier call-back of this tick) or quitting: not called.
        if (!holds(record) || petimer_isQuiting() != 0) return;
        (void)tsklet_invokefirst(&s_queue, rearm_tasklet, record);
    }
    const uint32_t started = ZEPO_GetSysRunTime();
    record->pfnTimeout(load_arg(record));
    const uint32_t took = ZEPO_GetSysRunTime() - started;
    if (took > kLongCallbackMs)
        zepo_timer_debug(
            "warning: timer_timeout_proc execution time is too long! timer[%s:%d] takes time %d\n",
            record->name, static_cast<int>(record->line), static_cast<int>(took));
    if ((record->mode & kAutoFreeBit) != 0) {
        IndexLock locked;
        // Not when the call-back freed its own timer: the cell no longer holds it.  Without
        // memory for the tasklet the timer stays, as a created one-shot timer.
        if (holds(record) && petimer_isQuiting() == 0) (void)free_timer(record);
    }
}

// The near list first, then the turn list: its entries with no turns left fire, and the
// first entry with turns left loses one.
void advance_one_tick() {
    WheelSlot &slot = s_wheel->slots[s_counter & kSlotMask];
    Link *const nearList = &slot.nearList;
    while (!is_empty(nearList)) fire(record_at(nearList->next));
    Link *const turnList = &slot.turnList;
    Link *entry = turnList->next;
    while (entry != turnList && record_at(entry)->due < kSlots) {
        Link *const successor = entry->next;
        fire(record_at(entry));
        entry = successor;
    }
    if (entry != turnList) record_at(entry)->due -= kSlots;
    s_counter += 1;
}

// The tick hook, period 1: the requests first, whatever the tick count, then the ticks.
void wheel_hook(int64_t ticks) {
    reltmr_post_tasklet();
    for (int64_t done = 0; done < ticks; ++done) advance_one_tick();
}

// ---- Tasklets (driver thread) ---------------------------------------------------------------

void start_tasklet(void *argument) {
    qel::HeapPtr<StartRequest> request(static_cast<StartRequest *>(argument));
    RelTimerRecord *record = request.get()->record;
    unlink_with_handover(record);
    record->interval = static_cast<uint32_t>(request.get()->intervalMs);
    store(record->arg, request.get()->arg);
    insert(record);
}

void stop_tasklet(void *argument) {
    qel::HeapPtr<StopRequest> request(static_cast<StopRequest *>(argument));
    unlink_with_handover(request.get()->record);
    if (request.get()->pfnDone != nullptr) request.get()->pfnDone(request.get()->doneArg);
}

void free_tasklet(void *timer) {
    auto *record = static_cast<RelTimerRecord *>(timer);
    unlink_with_handover(record);
    qel::heap_free(record);
}

void free_arg_tasklet(void *block) { qel::heap_free(block); }

uint32_t free_timer(RelTimerRecord *record) {
    TaskletEntry *entry = new_tasklet(free_tasklet, record);
    if (entry == nullptr) return no_memory();
    s_table.release_cell(&g_szRelTimer[record->index]);
    queue_last(&s_queue, entry);
    count_down(g_reltmNum);
    return 0;
}

// Allocates a request, then under the index lock tests the handle, fills the request
// through fill and queues it at the back; the request is freed unless it was queued.
template <typename Request, typename Fill>
uint32_t request_for(void *handle, TSKLET_FUNC tasklet, Fill fill) {
    qel::HeapPtr<Request> request(static_cast<Request *>(qel::heap_alloc(sizeof(Request))));
    if (!request) return no_memory();
    IndexLock locked;
    RelTimerRecord *record = record_of(handle);
    if (record == nullptr) return EINVAL;
    request.get()->record = record;
    fill(*request.get(), record);
    return queue_request(&s_queue, tasklet, request);
}

// Empties the wheel at tear-down: every record's cell is released and the record freed.
void free_wheel_records() {
    for (WheelSlot &slot : s_wheel->slots) {
        Link *const lists[] = {&slot.nearList, &slot.turnList};
        for (Link *list : lists) {
            while (!is_empty(list)) {
                RelTimerRecord *record = record_at(list->next);
                unlink(link_of(record));
                s_table.release_cell(&g_szRelTimer[record->index]);
                qel::heap_free(record);
                count_down(g_reltmNum);
            }
        }
    }
}

// Forgets the table and its free list.
void forget_table() {
    s_table.discard();
    g_pRelHead = g_pRelTail = nullptr;
}

}  // namespace

// ---- Handle tables of both modules -------------------------------------------------------------

namespace qel::timer {

bool HandleTable::contains(const void *address) const {
    if (cells == nullptr || count == 0) return false;
    const auto at = reinterpret_cast<uintptr_t>(address);
    return at >= reinterpret_cast<uintptr_t>(cells) &&
           at <= reinterpret_cast<uintptr_t>(cells + (count - 1));
}

uint32_t HandleTable::build(uint32_t wanted) {
    discard();
    const uint64_t bytes = static_cast<uint64_t>(wanted) * sizeof(void *);
    auto **table = bytes != 0 && bytes <= UINT32_MAX
                       ? static_cast<void **>(qel::heap_alloc(static_cast<uint32_t>(bytes)))
                       : nullptr;
    if (table == nullptr) return no_memory();
    for (uint32_t i = 0; i + 1 < wanted; ++i) table[i] = &table[i + 1];
    table[wanted - 1] = nullptr;
    store(head, &table[0]);
    store(tail, &table[wanted - 1]);
    cells = table;
    count = wanted;
    return 0;
}

// Cells are written atomically: the absolute module reads them without its lock.
void HandleTable::release_cell(void **cell) {
    void **const oldTail = load(tail);
    if (oldTail == nullptr)
        store(head, cell);
    else
        store(*oldTail, static_cast<void *>(cell));
    store(tail, cell);
    store(*cell, static_cast<void *>(nullptr));
}

void HandleTable::free_records(int32_t &counter) {
    for (uint32_t i = 0; i < count; ++i) {
        void *content = cells[i];
        if (content == nullptr || contains(content)) continue;
        qel::heap_free(content);
        count_down(counter);
    }
}

void HandleTable::discard() {
    if (cells != nullptr) {
        (void)memset_s(cells, count * sizeof(void *), 0, count * sizeof(void *));
        qel::heap_free(cells);
    }
    cells = nullptr;
    count = 0;
}

void name_creator(void *handle, uint32_t line, const char *name) {
    IndexLock locked;
    // Whatever the quitting flag says; a creation that raced with a stop finds its record
    // freed and its cell released, and names nothing.
    RelTimerRecord *record = record_in_cell(handle);
    if (record == nullptr) return;
    record->line = line;
    record->name = name;
}

}  // namespace qel::timer

extern "C" {

int32_t reltmr_idxLock(void) { return ZEPO_MutexLock(&s_indexLock); }

int32_t reltmr_idxUnLock(void) { return ZEPO_MutexUnLock(&s_indexLock); }

uint32_t init_RelIndex(void) {
    if (ZEPO_MutexInit(&s_indexLock, nullptr) != 0) return 1;
    s_indexLock.marker1 = s_indexLock.marker2 = 0xFFFFFFFFu;  // set up: no lazy set-up
    IndexLock locked;
    forget_table();
    return s_table.build(load(ulMaxReltmNum));
}

uint32_t init_reltm(void) {
    // A start that failed after this step left the hook registered; a second one would
    // run the wheel twice per tick.
    petimer_deregister_tickhook(wheel_hook);
    if (const uint32_t result = petimer_register_tickhook(wheel_hook, 1); result != 0)
        return result;
    if (const int32_t result = tsklet_init(&s_queue); result != 0)
        return static_cast<uint32_t>(result);
    if (const uint32_t result = init_RelIndex(); result != 0) return result;
    s_counter = 0;
    qel::heap_free(s_wheel);  // left by a start whose thread could not be created
    s_wheel = static_cast<TimerWheel *>(qel::heap_alloc(sizeof(TimerWheel)));
    if (s_wheel == nullptr) {
        IndexLock locked;
        forget_table();
        return no_memory();
    }
    for (WheelSlot &slot : s_wheel->slots) {
        make_empty(&slot.nearList);
        make_empty(&slot.turnList);
    }
    return 0;
}

uint32_t delinit_reltm(void) {
    const int32_t result = tsklet_delinit(&s_queue);
    {
        IndexLock locked;
        if (s_wheel != nullptr) free_wheel_records();
        // Then the timers created but not in the wheel.
        s_table.free_records(g_reltmNum);
        if (s_wheel != nullptr) {
            forget_table();
            qel::heap_free(s_wheel);
            s_wheel = nullptr;
        }
    }
    ZEPO_MutexDestroy(&s_indexLock);
    s_indexLock.marker1 = ZEPO_MUTEX_MARKER1;
    s_indexLock.marker2 = ZEPO_MUTEX_MARKER2;
    petimer_deregister_tickhook(wheel_hook);
    return static_cast<uint32_t>(result);
}

void *petimer_create_reltimer(ZEPO_TIMEOUT_FUNC pfnTimeout, int32_t mode, uint32_t /*line*/,
                              const char * /*name*/) {
    // line and name are the creating layer's to store: it writes them into the record.
    if (pfnTimeout == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    qel::HeapPtr<RelTimerRecord> record(
        static_cast<RelTimerRecord *>(qel::heap_zalloc(sizeof(RelTimerRecord))));
    if (!record) {
        errno = ENOMEM;
        return nullptr;
    }
    RelTimerRecord *timer = record.get();
    make_empty(link_of(timer));
    timer->pfnTimeout = pfnTimeout;
    timer->mode = static_cast<uint32_t>(mode) & kModeKept;
    timer->line = kNoCreatorLine;
    IndexLock locked;
    void **cell = g_pRelHead;
    if (cell == nullptr) return nullptr;  // no free cell; errno stays
    g_pRelHead = static_cast<void **>(*cell);
    if (g_pRelHead == nullptr) g_pRelTail = nullptr;
    timer->index = static_cast<uint32_t>(cell - g_szRelTimer);
    *cell = record.release();
    return cell;
}

uint32_t petimer_start_reltimer(void *handle, uint32_t intervalMs, void *arg) {
    return request_for<StartRequest>(handle, start_tasklet,
                                     [&](StartRequest &request, RelTimerRecord *) {
                                         request.intervalMs = intervalMs;
                                         request.arg = arg;
                                     });
}

uint32_t petimer_stop_reltimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    return request_for<StopRequest>(handle, stop_tasklet,
                                    [&](StopRequest &request, RelTimerRecord *) {
                                        request.pfnDone = pfnDone;
                                        request.doneArg = doneArg;
                                    });
}

uint32_t petimer_stop_reltimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut) {
    // argOut is not tested: the caller must give it.
    return request_for<StopRequest>(handle, stop_tasklet,
                                    [&](StopRequest &request, RelTimerRecord *record) {
                                        request.pfnDone = pfnDone;
                                        request.doneArg = doneArg;
                                        *argOut = load_arg(record);
                                    });
}

uint32_t petimer_free_reltimer(void *handle) {
    IndexLock locked;
    RelTimerRecord *record = record_of(handle);
    if (record == nullptr) return EINVAL;
    return free_timer(record);
}

uint32_t petimer_free_reltimerarg_safe(void *block) {
    // Without a driver no call-back can still be using the block, and nobody would run
    // the tasklet: release it now (and without the index lock, which is in its static
    // state while no engine runs).
    if (!engine_started() && petimer_isQuiting() == 0) {
        qel::heap_free(block);
        return 0;
    }
    IndexLock locked;
    if (petimer_isQuiting() != 0) return EINVAL;
    return static_cast<uint32_t>(tsklet_invokelater(&s_queue, free_arg_tasklet, block));
}

uint32_t petimer_start_reltimer_simple(uint32_t intervalMs, ZEPO_TIMEOUT_FUNC pfnTimeout,
                                       void *arg) {
    void *handle =
        petimer_create_reltimer(pfnTimeout, kAutoFreeBit, 0, "petimer_start_reltimer_simple");
    if (handle == nullptr) return ENOMEM;
    // A failed start leaves the timer created; it goes when the engine stops.
    return petimer_start_reltimer(handle, intervalMs, arg);
}

int32_t reltmr_post_tasklet(void) { return tsklet_invokeall(&s_queue); }

}  // extern "C"
