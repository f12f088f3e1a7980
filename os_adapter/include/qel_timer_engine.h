/*
 * qel_timer_engine.h - the timer engine under qel_timer.h: the driver thread and its tick
 * hooks, the deferred-call queues (tasklets), the relative and absolute timer modules, the
 * limits and the trace hook.
 *
 * Applications use qel_timer.h; this header is for tools and tests that look inside, and
 * for the few applications that drive the engine themselves.
 *
 * The driver.  petimer_start builds the absolute side (handle table of ulMaxAbstmNum
 * cells, a tick hook of period 100), then the relative side (a tick hook of period 1, a
 * handle table of ulMaxReltmNum cells, a wheel of 1024 slots of one tick), then starts
 * the driver thread.  The driver sleeps (ZEPO_Select) for the rest of each 10 ms tick,
 * measures on the run-time clock (ZEPO_GetSysRunTime) how many ticks really passed -
 * balancing oversleeping and early wake-ups in a drift account - and hands that count to
 * every tick hook, newest first; a hook is called once its accumulated ticks reach its
 * period, with the whole accumulated count.  Lost time is made up by dispatching several
 * ticks at once, never by calling a hook more often.
 *
 * Requests.  Start, stop and free of a timer, and the re-arm of a periodic relative
 * timer, travel as tasklets through one queue per module, so that the timer structures
 * are touched only by the driver thread.  The driver runs the pending tasklets of a
 * module at the beginning of that module's tick hook.
 *
 * Locks, in the order they are taken: the start lock (petimer_start only); the relative
 * index lock (reltmr_idxLock) before the absolute index lock (abstmr_indexLock), both
 * only in petimer_setQuitingFlag(1, 1); an index lock before its module's tasklet queue
 * lock.  The driver holds a queue's lock while that queue's tasklets run, so a stop
 * completion function runs under it.  All are ZEPO_MUTEX records, recursive once set up:
 * a tasklet that queues onto its own queue does not deadlock, its entry runs at the next
 * tsklet_invokeall.  (The absolute index lock is a plain mutex until the first start sets
 * it up, and is left destroyed by a stop; the relative index lock goes back to its static
 * state at a stop and sets itself up again, unguarded, at its next lock - so requests on
 * a stopped engine should not come from several threads at once.)
 *
 * Stopping.  petimer_setQuitingFlag(1, 1), petimer_stop(thread id),
 * petimer_setQuitingFlag(0, 0) - which is ZEPO_StopTimerTask.  The raised flag refuses
 * every request; the driver runs the pending tasklets of both modules, frees every timer
 * (g_reltmNum and g_abstmNum drop by one each), releases both tables, removes its hooks
 * and leaves.
 */
#ifndef QEL_TIMER_ENGINE_H
#define QEL_TIMER_ENGINE_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "qel_mutex.h"
#include "qel_timer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A tick hook: receives the ticks accumulated since its last call (at least its period). */
typedef void (*PETIMER_TICKHOOK_FUNC)(int64_t ticks);
/* A deferred call: receives the argument it was queued with. */
typedef void (*TSKLET_FUNC)(void *arg);

/* ---- Tasklet queues ---------------------------------------------------------------- */

/*
 * One queued call, allocated through the memory entry points when it is queued and
 * freed after it ran (or, unrun, by tsklet_delinit).
 */
typedef struct TaskletEntry {
    struct TaskletEntry *next;
    struct TaskletEntry *prev;
    TSKLET_FUNC pfnTask;
    void *arg;
} TaskletEntry;

/*
 * A queue: the sentinel of a circular doubly linked list of entries (next is the first
 * entry, prev the last; both point to the queue itself when it is empty), and its lock.
 * Set it up with tsklet_init before any other use.
 */
typedef struct TaskletQueue {
    struct TaskletEntry *next;
    struct TaskletEntry *prev;
    ZEPO_MUTEX lock;
} TaskletQueue;

/* Makes the queue empty and sets its lock up with ZEPO_MutexInit(lock, NULL); returns
 * that call's result (0, or an error number or -1 - then the queue must not be used).
 * Entries still queued are forgotten, not freed. */
int32_t tsklet_init(TaskletQueue *queue);

/* Under the lock, frees every pending entry without running it; then destroys the
 * lock.  Returns 0. */
int32_t tsklet_delinit(TaskletQueue *queue);

/*
 * Queues pfnTask(arg) at the tail: entries queued this way run in the order queued.
 * Returns 0, or 12 with errno ENOMEM when the entry cannot be allocated (nothing is
 * queued; arg stays the caller's).  Any thread; neither argument is tested.
 */
int32_t tsklet_invokelater(TaskletQueue *queue, TSKLET_FUNC pfnTask, void *arg);

/* As tsklet_invokelater, but at the head: before every pending entry, so several such
 * entries run newest first. */
int32_t tsklet_invokefirst(TaskletQueue *queue, TSKLET_FUNC pfnTask, void *arg);

/*
 * Runs and removes the pending entries in list order, taking each entry's successor
 * before calling it, and holding the queue's lock throughout: entries queued by other
 * threads meanwhile wait and run at the next call.  An entry queued onto this queue by a
 * running entry also runs at the next call, not in this one.  Returns the result of the
 * final unlock (0).
 */
int32_t tsklet_invokeall(TaskletQueue *queue);

/* ---- Limits and tracing ------------------------------------------------------------ */

/* Sizes of the handle tables, read when the engine starts (default 2000 each).  A value
 * of 0 makes the engine refuse to start (22). */
extern uint32_t ulMaxAbstmNum;
extern uint32_t ulMaxReltmNum;

/* Set ulMaxAbstmNum / ulMaxReltmNum to count - unless the engine runs, in which case the
 * call is silently ignored.  0 is accepted (see above). */
void ZEPO_TMRSetMaxAbstmNum(uint32_t count);
void ZEPO_TMRSetMaxReltmNum(uint32_t count);

/* The trace function, NULL at load (then the engine formats nothing). */
extern ZEPO_TIMER_TRACE_FUNC g_pfnTimerDebug;

/* Stores pfnTrace as the trace function, replacing any earlier one; NULL switches
 * tracing off.  Any thread, at any time. */
void ZEPO_TimerRegDebugTrace(ZEPO_TIMER_TRACE_FUNC pfnTrace);

/*
 * Formats format and its arguments with vsprintf_s into a zeroed 512-byte buffer and
 * passes the text to the trace function, on the calling thread.  Does nothing - not even
 * format - when no trace function is registered; sends nothing when the text is empty
 * or the format fails (a text of more than 511 characters among them).
 */
void zepo_timer_debug(const char *format, ...)
#ifdef __GNUC__
    __attribute__((format(printf, 1, 2)))
#endif
    ;

/* ---- Driver ------------------------------------------------------------------------ */

/*
 * Starts the engine: under the start lock, returns 0 at once when it runs; else
 * init_abstm, init_reltm (a failure of either is returned, and what was built is left for
 * the next start to replace), then the driver thread with ZEPO_PthreadCreate(&id,
 * threadAttr, ...).  The id (0 when no thread was made) is stored in *threadIdOut when
 * threadIdOut is not null and with petimer_setTreadId.  On success the started flag is
 * set and "Timer initialize success.\n" goes to the trace function.  Returns 0, 22 when
 * ulMaxAbstmNum or ulMaxReltmNum is 0 (nothing is built), or the first failure.
 */
int32_t petimer_start(uint64_t *threadIdOut, const pthread_attr_t *threadAttr);

/*
 * Waits for the driver thread threadId (ZEPO_PthreadJoin) and clears the started flag;
 * returns the join's result.  It does not raise the quitting flag: without it raised the
 * call never returns.
 */
int32_t petimer_stop(uint64_t threadId);

/* The quitting flag: non-zero while the engine stops (every request is then refused). */
uint32_t petimer_isQuiting(void);

/*
 * Stores value as the quitting flag.  With takeLocks non-zero, under the relative index
 * lock and then the absolute one (released in the reverse order), so that no request is
 * half-way through when the flag changes; with 0, without any lock.
 */
void petimer_setQuitingFlag(uint32_t value, uint32_t takeLocks);

/* The stored driver thread id (0 when no thread runs), and its setter.  ("Tread" is the
 * name the interface has always had.) */
uint64_t petimer_getTreadId(void);
void petimer_setTreadId(uint64_t threadId);

/*
 * Adds hook, called every period ticks, at the head of the hook list (the newest hook is
 * called first).  No duplicate check: a hook registered twice is called twice.  Returns
 * 0, 22 for a NULL hook or a period of 0, or 12 with errno ENOMEM.  A hook added while
 * the driver runs joins at its next cycle; the driver must not be running when hooks are
 * removed.
 */
uint32_t petimer_register_tickhook(PETIMER_TICKHOOK_FUNC hook, int64_t period);

/* Removes and frees the newest registration of hook.  Returns 22 for a NULL hook, else 0
 * (also when hook is not registered).  Not while the driver runs (except on it, from
 * the engine's own tear-down). */
uint32_t petimer_deregister_tickhook(PETIMER_TICKHOOK_FUNC hook);

/* ---- Relative timers --------------------------------------------------------------- */

/*
 * The handle table: ulMaxReltmNum cells from the engine's start.  A cell holds its
 * timer, or - while free - the address of the next free cell (NULL for the last).
 * g_pRelHead and g_pRelTail are the first and last free cells (NULL when none is free);
 * freed cells are appended at the tail.  All three are NULL after a stop (a failed start
 * may leave a table).  g_reltmNum counts live relative timers (see
 * ZEPO_StartRelTimer_Simple for why it can be negative).  The index lock guards the table
 * and its free list; g_reltmNum is changed atomically, under the lock by the engine and
 * without it by ZEPO_CreateRelTimerM.
 */
extern void **g_szRelTimer;
extern void **g_pRelHead;
extern void **g_pRelTail;
extern int32_t g_reltmNum;

/* Lock and unlock the relative index lock; the ZEPO_MutexLock/ZEPO_MutexUnLock result. */
int32_t reltmr_idxLock(void);
int32_t reltmr_idxUnLock(void);

/* Sets the index lock up (1 on failure) and allocates and chains the handle table (12,
 * errno ENOMEM, on failure; a table left from before is freed first).  Returns 0. */
uint32_t init_RelIndex(void);

/* Registers the wheel's tick hook (period 1; one left by a failed start is replaced),
 * sets the queue and the index up, resets the tick count and allocates the wheel.
 * Returns 0 or the first failure (what was built stays). */
uint32_t init_reltm(void);

/* On the driver thread as it leaves: discards the pending requests, frees every relative
 * timer, the table and the wheel, puts the index lock back into its static state and
 * removes the hook.  Returns 0. */
uint32_t delinit_reltm(void);

/*
 * Creates a relative timer (not running) and returns its handle: NULL with errno EINVAL
 * for a NULL pfnTimeout, NULL with errno ENOMEM without memory, NULL with errno unchanged
 * when no cell is free.  Only the low 8 bits of mode are kept.  line and name are
 * ignored: the timer gets line 0xDEADDEAD and no name (ZEPO_CreateRelTimerM sets them).
 * Neither tests the quitting flag nor counts in g_reltmNum.
 */
void *petimer_create_reltimer(ZEPO_TIMEOUT_FUNC pfnTimeout, int32_t mode, uint32_t line,
                              const char *name);

/* The request functions behind ZEPO_StartRelTimer, ZEPO_StopRelTimer_Safe,
 * ZEPO_StopRelTimer_SafeEx, ZEPO_FreeRelTimer, ZEPO_FreeRelTimerArg_safe and
 * ZEPO_StartRelTimer_Simple (see qel_timer.h): 0, 22 or 12. */
uint32_t petimer_start_reltimer(void *handle, uint32_t intervalMs, void *arg);
uint32_t petimer_stop_reltimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg);
uint32_t petimer_stop_reltimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut);
uint32_t petimer_free_reltimer(void *handle);
uint32_t petimer_free_reltimerarg_safe(void *block);
/* Creates a timer of mode 2 with petimer_create_reltimer (12 when that gives NULL) and
 * starts it; the engine must run.  The line and name it passes are ignored by the create,
 * so a long call-back of such a timer is reported as timer[(null):-559030611]. */
uint32_t petimer_start_reltimer_simple(uint32_t intervalMs, ZEPO_TIMEOUT_FUNC pfnTimeout,
                                       void *arg);

/* Runs the pending relative requests (tsklet_invokeall); its result. */
int32_t reltmr_post_tasklet(void);

/* ---- Absolute timers --------------------------------------------------------------- */

/*
 * The handle table, as the relative one, with ulMaxAbstmNum cells.  After the engine
 * stops g_szAbsTimer is NULL while g_pAbsHead and g_pAbsTail keep their last values
 * (rebuilt at the next start): use the creation of qel_timer.h, which starts the engine
 * first.  g_abstmNum counts live absolute timers; it drops when the driver frees one, not
 * when its free is requested.
 */
extern void **g_szAbsTimer;
extern void **g_pAbsHead;
extern void **g_pAbsTail;
extern int32_t g_abstmNum;

/* Lock and unlock the absolute index lock; the ZEPO_MutexLock/ZEPO_MutexUnLock result. */
int32_t abstmr_indexLock(void);
int32_t abstmr_indexUnLock(void);

/* Sets the index lock up (1 on failure), frees a table left from before and allocates
 * and chains a new one (12, errno ENOMEM, on failure).  Returns 0. */
uint32_t init_AbsIndex(void);

/* Releases the table (zeroed first) and destroys the index lock; returns
 * ZEPO_MutexDestroy's result (0, or -1 as an unsigned number).  The lock is left
 * destroyed, not put back into a static state. */
uint32_t delinit_AbsIndex(void);

/* Empties the timer list, sets the queue and the index up and registers the calendar
 * hook (period 100; one left by a failed start is replaced).  Returns 0 or the first
 * failure (what was built stays). */
uint32_t init_abstm(void);

/* On the driver thread as it leaves: discards the pending requests, frees every absolute
 * timer and the table and removes the hook.  Returns 0, or delinit_AbsIndex's failure
 * (the hook then stays). */
uint32_t delinit_abstm(void);

/* Appends cell at the tail of the free list and stores NULL in it, under the index lock.
 * Returns 0. */
uint32_t petimer_relAbsIndex(void *cell);

/*
 * Creates a calendar timer (not started): NULL with errno unchanged when no cell is
 * free (also when the table is gone: after a stop g_pAbsHead is stale, which is tested), NULL with
 * errno EINVAL for a NULL pfnTimeout, NULL with errno ENOMEM without memory, NULL while the engine
 * stops.  Not counted in g_abstmNum.
 */
void *petimer_create_abstimer(ZEPO_TIMEOUT_FUNC pfnTimeout, uint32_t mode);

/*
 * Queues a start with a copy of *pattern (the C library's convention: years since 1900,
 * months 0 to 11, -1 for any value) and arg.  22 for a NULL handle, a cell that holds
 * nothing or a NULL pattern; else 0 or 12.  Neither the range, nor a freed handle, nor
 * the quitting flag is tested.
 */
uint32_t petimer_start_abstimer(void *handle, const struct tm *pattern, void *arg);

/* Behind ZEPO_StopAbsTimer_Safe, ZEPO_StopAbsTimer_SafeEx and ZEPO_FreeAbsTimer: 22 for a
 * NULL handle, a cell that holds nothing, the quitting flag (and a NULL argOut); else 0
 * or 12. */
uint32_t petimer_stop_abstimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg);
uint32_t petimer_stop_abstimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut);
uint32_t petimer_free_abstimer(void *handle);

/* Runs the pending absolute requests (tsklet_invokeall); its result. */
int32_t abstmr_post_tasklet(void);

#ifdef __cplusplus
}
#endif

#endif /* QEL_TIMER_ENGINE_H */
