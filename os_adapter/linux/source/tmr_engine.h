// tmr_engine.h - what the timer sources share inside the library (never installed): the
// intrusive list every engine list is made of, race-free access to the exported counters
// and pointers, the split form of tasklet queuing, and the driver's started flag.
#ifndef QEL_TMR_ENGINE_H
#define QEL_TMR_ENGINE_H

#include <cstdint>

#include "os_frame.h"
#include "qel_timer_engine.h"

namespace qel::timer {

// ---- Circular doubly linked lists ----------------------------------------------------
//
// Every list of the engine (tasklet queues, wheel slots, the calendar list) is circular
// with a sentinel, and every element starts with the two links.  A TaskletQueue is its
// own sentinel though it is not an entry, so the links are reached through a type that
// may alias any record beginning with two pointers.
struct __attribute__((may_alias)) Link {
    Link *next;
    Link *prev;
};

template <typename T>
Link *link_of(T *record) {
    return reinterpret_cast<Link *>(record);
}

inline void make_empty(Link *sentinel) { sentinel->next = sentinel->prev = sentinel; }

// A record in no list points at itself.
inline bool in_list(const Link *record) { return record->next != record; }

inline bool is_empty(const Link *sentinel) { return sentinel->next == sentinel; }

inline void insert_after(Link *position, Link *record) {
    record->prev = position;
    record->next = position->next;
    position->next->prev = record;
    position->next = record;
}

inline void insert_before(Link *position, Link *record) { insert_after(position->prev, record); }

// Takes the record out of its list and points both links at itself.
inline void unlink(Link *record) {
    record->prev->next = record->next;
    record->next->prev = record->prev;
    make_empty(record);
}

// ---- Shared words ---------------------------------------------------------------------
//
// The counters, free-list pointers and call-back slots are exported as plain C objects.
// Some are read without a lock (the creation limits, the trace hook, the free-list head
// of the absolute module), so every access inside the library is atomic; relaxed order
// suffices, since the records they lead to are published under the index locks.
template <typename T>
T load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <typename T>
void store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

inline void count_up(int32_t &counter) { __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED); }
inline void count_down(int32_t &counter) { __atomic_fetch_sub(&counter, 1, __ATOMIC_RELAXED); }

// ---- Handle tables ----------------------------------------------------------------------
//
// The handle table of a module: its exported table pointer and free-list ends, and the
// number of cells it was built with.  A cell holds a record, or while free the address of
// the next free cell (nothing for the last).  Every member runs under the module's index
// lock.
struct HandleTable {
    void **&cells;
    void **&head;
    void **&tail;
    uint32_t count;

    // True for an address from the first to the last cell.
    bool contains(const void *address) const;
    // Frees a table left from before, then allocates count cells and chains each to the
    // next; 0, or 12 with errno ENOMEM (also for 0 cells, or more than 32 bits of bytes).
    uint32_t build(uint32_t wanted);
    // Appends a cell at the tail of the free list and makes it the list's end.
    void release_cell(void **cell);
    // Frees the record every cell still holds, counting each down in counter.
    void free_records(int32_t &counter);
    // Overwrites the table with zero bytes, frees and forgets it; head and tail stay.
    void discard();
};

// ---- Tasklets -----------------------------------------------------------------------------
//
// tsklet_invokelater/invokefirst allocate and link in one call.  The engine's free paths
// need the entry before they change anything, so that a failed allocation leaves the
// timer as it was: they allocate first, then commit under their index lock.
TaskletEntry *new_tasklet(TSKLET_FUNC pfnTask, void *arg);
void queue_last(TaskletQueue *queue, TaskletEntry *entry);
void queue_first(TaskletQueue *queue, TaskletEntry *entry);

// Queues a filled request record at the back with tsklet_invokelater; the record passes to
// the tasklet when it was queued and stays the caller's (to be freed) when not.  Returns
// the queuing result.
template <typename Request>
uint32_t queue_request(TaskletQueue *queue, TSKLET_FUNC tasklet, qel::HeapPtr<Request> &request) {
    const int32_t queued = tsklet_invokelater(queue, tasklet, request.get());
    if (queued == 0) request.release();
    return static_cast<uint32_t>(queued);
}
// Sets errno to ENOMEM and gives 12: the result of every failed allocation of the engine.
uint32_t no_memory();

// ---- Relative timers -------------------------------------------------------------------

// Stores the creator's line and name into the timer a fresh handle holds (under the index
// lock; nothing happens when the handle no longer holds a timer).
void name_creator(void *handle, uint32_t line, const char *name);

// ---- Driver ------------------------------------------------------------------------------

// The started flag of the driver (1 from a successful petimer_start to petimer_stop).
bool engine_started();

// True on the driver thread.
bool on_driver_thread();

}  // namespace qel::timer

#endif  // QEL_TMR_ENGINE_H
