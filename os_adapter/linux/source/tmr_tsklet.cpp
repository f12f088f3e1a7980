// tmr_tsklet.cpp - deferred calls (tasklets), the limits of the timer engine and its trace
// hook.
//
// A TaskletQueue is the sentinel of a circular doubly linked list of TaskletEntry records:
// next is the oldest entry to run, prev the newest; an empty queue points at itself.  Any
// thread queues; the timer driver thread runs a queue with tsklet_invokeall, holding the
// queue's lock while the entries run.
//
// The lock is a ZEPO_MUTEX and therefore recursive, like every lock of the library.  A
// tasklet that queues onto its own queue is thus not a deadlock: the walk of
// tsklet_invokeall ends at the entry that was last when it began, so the new entry runs
// at the next tsklet_invokeall, as an entry queued by another thread would.

#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_mutex.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

static_assert(sizeof(TaskletEntry) == 32);
static_assert(offsetof(TaskletEntry, pfnTask) == 16 && offsetof(TaskletEntry, arg) == 24);
static_assert(sizeof(TaskletQueue) == 88);
static_assert(offsetof(TaskletQueue, lock) == 16);

extern "C" {
// Initialised data: the sizes of the handle tables until a setter changes them.
uint32_t ulMaxAbstmNum = 2000;
uint32_t ulMaxReltmNum = 2000;
ZEPO_TIMER_TRACE_FUNC g_pfnTimerDebug = nullptr;
}

namespace qel::timer {

namespace {

constexpr size_t kTraceBufferSize = 512;

void release(TaskletEntry *entry) { qel::heap_free(entry); }

}  // namespace

uint32_t no_memory() {
    errno = ENOMEM;
    return ENOMEM;
}

TaskletEntry *new_tasklet(TSKLET_FUNC pfnTask, void *arg) {
    auto *entry = static_cast<TaskletEntry *>(qel::heap_alloc(sizeof(TaskletEntry)));
    if (entry == nullptr) return nullptr;
    entry->pfnTask = pfnTask;
    entry->arg = arg;
    make_empty(link_of(entry));
    return entry;
}

void queue_last(TaskletQueue *queue, TaskletEntry *entry) {
    qel::MutexHold locked(&queue->lock);
    insert_before(link_of(queue), link_of(entry));
}

void queue_first(TaskletQueue *queue, TaskletEntry *entry) {
    qel::MutexHold locked(&queue->lock);
    insert_after(link_of(queue), link_of(entry));
}

}  // namespace qel::timer

using namespace qel::timer;

extern "C" {

int32_t tsklet_init(TaskletQueue *queue) {
    make_empty(link_of(queue));
    return ZEPO_MutexInit(&queue->lock, nullptr);
}

int32_t tsklet_delinit(TaskletQueue *queue) {
    {
        qel::MutexHold locked(&queue->lock);
        Link *const sentinel = link_of(queue);
        while (!is_empty(sentinel)) {
            Link *entry = sentinel->next;
            unlink(entry);
            release(reinterpret_cast<TaskletEntry *>(entry));
        }
    }
    ZEPO_MutexDestroy(&queue->lock);
    return 0;
}

int32_t tsklet_invokelater(TaskletQueue *queue, TSKLET_FUNC pfnTask, void *arg) {
    TaskletEntry *entry = new_tasklet(pfnTask, arg);
    if (entry == nullptr) return static_cast<int32_t>(no_memory());
    queue_last(queue, entry);
    return 0;
}

int32_t tsklet_invokefirst(TaskletQueue *queue, TSKLET_FUNC pfnTask, void *arg) {
    TaskletEntry *entry = new_tasklet(pfnTask, arg);
    if (entry == nullptr) return static_cast<int32_t>(no_memory());
    queue_first(queue, entry);
    return 0;
}

int32_t tsklet_invokeall(TaskletQueue *queue) {
    ZEPO_MutexLock(&queue->lock);
    Link *const sentinel = link_of(queue);
    // The walk ends at the entry that is last now: whatever a running entry queues at the
    // tail waits for the next call.
    Link *const last = sentinel->prev;
    Link *entry = sentinel->next;
    while (entry != sentinel) {
        Link *const successor = entry->next;
        auto *tasklet = reinterpret_cast<TaskletEntry *>(entry);
        tasklet->pfnTask(tasklet->arg);
        unlink(entry);
        release(tasklet);
        if (entry == last) break;
        entry = successor;
    }
    return ZEPO_MutexUnLock(&queue->lock);
}

void ZEPO_TMRSetMaxAbstmNum(uint32_t count) {
    if (!engine_started()) store(ulMaxAbstmNum, count);
}

void ZEPO_TMRSetMaxReltmNum(uint32_t count) {
    if (!engine_started()) store(ulMaxReltmNum, count);
}

void ZEPO_TimerRegDebugTrace(ZEPO_TIMER_TRACE_FUNC pfnTrace) { store(g_pfnTimerDebug, pfnTrace); }

void zepo_timer_debug(const char *format, ...) {
    const ZEPO_TIMER_TRACE_FUNC trace = load(g_pfnTimerDebug);
    if (trace == nullptr) return;
    char text[kTraceBufferSize];
    (void)memset_s(text, sizeof text, 0, sizeof text);
    qel::VaList args;
    va_start(args.ap, format);
    // A text that does not fit, or a format error, gives -1: nothing is sent.  The engine
    // writes nothing to standard output, so no failure trace either.
    if (vsprintf_s(text, sizeof text, format, args.ap) > 0) trace(text);
}

}  // extern "C"
