/*
 * qel_timer.h - timers: relative and calendar timers, timer groups, the periodic waitable
 * timer and the system-control slot.
 *
 * The engine.  Every timer of the process lives in one engine with one background thread,
 * the driver, which wakes every 10 ms tick.  Relative timers fire after an interval in
 * milliseconds, once or periodically; calendar (absolute) timers fire when the local time
 * matches a pattern and are examined once a second.  The engine starts on demand at the
 * first creation (or at ZEPO_StartTimerTask) and runs until ZEPO_StopTimerTask.
 *
 * Threads.  Every call-back - timer call-backs, stop completion functions, group
 * call-backs - runs on the driver thread, one at a time, never on the caller's thread.
 * Start, stop and free never change a timer on the caller's thread: they queue a request
 * that the driver carries out at its next tick (at most about 10 ms later), and return at
 * once.  A call that returns 0 has queued its request, not carried it out.
 *
 * Timing of relative timers.  An interval of I ms becomes (I + 5) / 10 ticks of 10 ms,
 * the nearest whole tick (I of 0 to 4 ms fires at the next tick).  A one-shot timer fires
 * that many ticks after its start request is carried out.  A periodic timer of k ticks
 * fires every k + 1 ticks: a 1000 ms timer every 1010 ms, a 10 ms timer every 20 ms.  This
 * extra tick per period is how the engine has always behaved and applications rely on it.
 *
 * Call-backs.  A timer call-back runs outside every lock and may call any function of this
 * header for any timer, its own included (a timer freed inside its own call-back is freed
 * once, and its handle is invalid at once).  A relative call-back that takes more than
 * 100 ms is reported through the trace function (ZEPO_TimerRegDebugTrace) as
 * "warning: timer_timeout_proc execution time is too long! timer[<name>:<line>] takes
 * time <ms>" with the creator's name and line.  No call-back may call ZEPO_StopTimerTask
 * (it is refused there with -1).
 *
 * Stop completion functions (pfnDone) run while the driver holds the request queue lock
 * of their kind of timer, and must not block.  A relative one must call no relative
 * timer function at all - no creation, request, ZEPO_FreeRelTimerArg_safe,
 * ZEPO_StartRelTimer_Simple or group function: each takes the relative index lock, which
 * an application thread may hold while it waits for the queue lock, and both would wait
 * for ever.  It may release memory directly (ZEPO_MemTypeFreeD): its timer has already
 * left the wheel.  An absolute one may make absolute requests; they are carried out at
 * the next check.
 *
 * Handles.  A handle is the address of a cell of the engine's handle table (see
 * qel_timer_engine.h); it stays the same for the life of the timer, and a freed cell is
 * reused as late as possible.  Relative requests test a handle: null, outside the table,
 * a cell that holds no timer (freed), or an engine that is stopping all give 22 and queue
 * nothing; its alignment is not tested, so an address between two cells is taken for
 * the mixture of both.  Absolute
 * requests test only for a null handle or an empty cell (stop and free also for a
 * stopping engine): starting, stopping or freeing a freed absolute handle is the caller's
 * error and corrupts the engine.  After
 * ZEPO_StopTimerTask every handle of both kinds is gone.
 *
 * Results of the engine are errno values: 0 success, 22 (EINVAL) bad handle, bad argument
 * or engine stopping, 12 (ENOMEM) no memory, with errno set to ENOMEM.  Creations give a
 * null handle on failure.  The engine prints nothing on standard output; its two messages
 * ("Timer initialize success.\n" and the warning above) go only to the trace function.
 *
 * Limits.  At most ulMaxReltmNum relative and ulMaxAbstmNum absolute timers (default 2000
 * each, set with ZEPO_TMRSetMaxReltmNum/ZEPO_TMRSetMaxAbstmNum while the engine is
 * stopped), and never more than 2000 of each through the creation functions below,
 * whatever the limits say.  The limit tests are made without a lock: threads creating at
 * the same moment may exceed a limit by their number (the handle table itself never
 * overflows).  A limit of 0 is accepted by the setters and then makes every engine start
 * fail with 22, so every creation gives a null handle.
 */
#ifndef QEL_TIMER_H
#define QEL_TIMER_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A timer call-back: receives the argument given at the timer's last start. */
typedef void (*ZEPO_TIMEOUT_FUNC)(void *arg);
/* A stop completion function: receives the argument given with the stop request. */
typedef void (*ZEPO_TIMER_DONE_FUNC)(void *arg);
/* The trace function: receives one NUL-terminated message of at most 511 characters. */
typedef void (*ZEPO_TIMER_TRACE_FUNC)(const char *text);
/* The system-control call-back: receives the two values of ZEPO_SysCtrlRegTaskTid. */
typedef void (*ZEPO_SYSCTRL_TID_FUNC)(uint64_t first, uint64_t second);
/* A timer group's call-back: receives the member's index and the member's argument. */
typedef void (*ZEPO_GRP_TIMEOUT_FUNC)(uint32_t index, uint32_t arg);

/* Relative timer modes (only the low 8 bits count). */
#define ZEPO_TIMER_PERIODIC 0u /* fires every period until stopped */
#define ZEPO_TIMER_ONESHOT 1u  /* fires once, then stays created and can be started again */
#define ZEPO_TIMER_AUTOFREE 2u /* fires once, then is freed (its handle becomes invalid) */

/* ---- Engine control ---------------------------------------------------------------- */

/*
 * Starts the engine (nothing to do when it already runs): builds both handle tables,
 * starts the driver thread with the attributes attr (NULL: the defaults; they must leave
 * the thread joinable, or ZEPO_StopTimerTask cannot wait for it) and sends
 * "Timer initialize success.\n" to the trace function.  When threadIdOut is not null and
 * a thread was made, its id is stored there (0 when pthread_create failed; nothing is
 * stored when the engine already runs or fails before that).  Returns 0 (also when the
 * engine already runs); -1 while the engine is stopping; 22 when a timer limit is 0;
 * 12 (errno ENOMEM) when a table cannot be allocated; 1 when an index lock cannot be set
 * up; the error number of pthread_mutex_init (or -1) when a queue lock cannot; or the
 * error number of pthread_create.  A failed start may leave tables behind, which the
 * next start replaces.
 */
int32_t ZEPO_StartTimerTask(uint64_t *threadIdOut, const pthread_attr_t *attr);

/*
 * Stops the engine: refuses new requests, waits for the driver thread, which carries out
 * the requests queued before the stop, then frees every timer of both kinds (running or
 * not, without calling them) and leaves.  Returns 0, or -1 when no driver thread runs,
 * when another stop is under way, or when called on the driver thread (from a call-back).
 * Waits up to one tick plus the time the call-backs of that tick take.  The engine can be
 * started again afterwards, with new tables and the limits then in force.  Call it only
 * when no other thread is still using timer handles: requests that arrive while the
 * engine stops are refused (22, or a null handle), but handles of the stopped engine are
 * dangling.
 */
int32_t ZEPO_StopTimerTask(void);

/* ---- Relative timers --------------------------------------------------------------- */

/*
 * Creates a relative timer (not running) with call-back pfnTimeout and mode (0 periodic,
 * 1 one-shot, 2 one-shot freed after its call-back; only the low 8 bits are kept; a mode
 * with bit value 1 or 2 set, mode & 3 not 0, is one-shot, so 4 is periodic and 3 frees
 * itself).  line and name are the creator's source
 * position (name must outlive the timer); they are printed in the long-call-back warning.
 * Starts the engine first if it does not run.  Returns the handle, or NULL when the
 * engine cannot start or is stopping, when 2000 relative timers or ulMaxReltmNum exist,
 * when pfnTimeout is NULL (errno EINVAL), when no memory is left (errno ENOMEM), or when
 * the handle table is full.  Counts in g_reltmNum.
 */
void *ZEPO_CreateRelTimerM(ZEPO_TIMEOUT_FUNC pfnTimeout, int32_t mode, uint32_t line,
                           const char *name);

/*
 * Queues a (re)start of the timer: interval intervalMs milliseconds from the moment the
 * driver carries the request out, call-back argument arg (replacing the earlier one).
 * A running timer restarts with the new interval.  The rounding intervalMs + 5 is taken
 * in 32 bits, so 4294967291 ms and more wrap to the next tick.  Returns 0, 22 (bad
 * handle, engine stopping) or 12 (errno ENOMEM).
 */
uint32_t ZEPO_StartRelTimer(void *handle, uint32_t intervalMs, void *arg);

/*
 * Queues a stop: the timer leaves the wheel on the driver thread, which then calls
 * pfnDone(doneArg) when pfnDone is not NULL (under the request queue lock: see above for
 * what it must not call).
 * The timer stays created and can be started again.  Returns 0, 22 or 12.
 */
uint32_t ZEPO_StopRelTimer_Safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg);

/*
 * As ZEPO_StopRelTimer_Safe, and stores the timer's current call-back argument in
 * *argOut first, so that the caller learns what it may have to release (with
 * ZEPO_FreeRelTimerArg_safe).  argOut is not tested: it must not be NULL (the absolute
 * variant tests it; this one does not, deliberately).  Returns 0, 22 or 12.
 */
uint32_t ZEPO_StopRelTimer_SafeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                  void **argOut);

/*
 * Frees the timer: its handle is invalid when the call returns (a second free gives 22),
 * and the driver releases the timer at its next tick, after any call-back already under
 * way.  A running timer need not be stopped first.  Returns 0, 22 or 12 (errno ENOMEM:
 * then nothing has changed and the handle is still valid).
 */
uint32_t ZEPO_FreeRelTimer(void *handle);

/*
 * Releases block (obtained from the memory entry points) on the driver thread, after
 * every call-back that was due before this call - for the argument of a timer that may
 * still be running.  When the engine does not run, no call-back can use the block and it
 * is released at once.  Returns 0, 22 (engine stopping: the block stays allocated) or 12
 * (errno ENOMEM: the block stays allocated).
 */
uint32_t ZEPO_FreeRelTimerArg_safe(void *block);

/*
 * Starts a one-shot timer that frees itself after its call-back pfnTimeout(arg), intervalMs
 * from now; no handle is given out.  Starts the engine first if it does not run (its
 * result is returned when not 0).  Not counted against the limits or in g_reltmNum, yet
 * its automatic free decrements g_reltmNum, which can therefore drop below 0 (kept so).
 * Returns 0; ZEPO_StartTimerTask's failure as an unsigned number (4294967295 while the
 * engine stops, 22 for a limit of 0, ...); 12 when no timer could be created (errno
 * EINVAL for a NULL pfnTimeout, ENOMEM for no memory, unchanged for a full table); or the
 * start's 22/12 - in that case the created timer is left in the table until the engine
 * stops.
 */
uint32_t ZEPO_StartRelTimer_Simple(uint32_t intervalMs, ZEPO_TIMEOUT_FUNC pfnTimeout, void *arg);

/* ---- Calendar (absolute) timers ---------------------------------------------------- */

/*
 * Creates a calendar timer (not started) with call-back pfnTimeout and mode: 0 fires at
 * every matching second while started, 1 fires and is then stopped (still created), 2
 * fires and is then freed (mode is kept whole; bit value 2 wins over bit value 1).  When
 * a check makes up several seconds at once, modes 1, 2 and 3 fire at each matching
 * second of that check.
 *
 * A mode-2 timer's handle becomes invalid when it fires, on the driver thread: other
 * threads must not use it around that time.  After firing, the engine releases its cell
 * unless the cell holds nothing; it does not recognise a cell that has become a free-list
 * link.  The released cell holds nothing only while it is the last free cell, so once
 * another absolute cell is released after it - by the call-back, or by another thread -
 * a later match of the same timer in the same check releases the cell a second time and
 * corrupts the engine.  Hence: a mode-2 call-back that frees its own timer must free no
 * further absolute timer, and no absolute timer may be freed while a mode-2 timer whose
 * pattern matches several seconds can be firing in a check that makes up time.
 * Starts the engine first if it does not run.  Returns the handle, or NULL when the
 * engine cannot start or is stopping, when 2000 absolute timers or ulMaxAbstmNum exist,
 * when the handle table is full (errno unchanged), for a NULL pfnTimeout (errno EINVAL)
 * or with no memory (errno ENOMEM).  Counts in g_abstmNum.
 */
void *ZEPO_CreateAbsTimerM(ZEPO_TIMEOUT_FUNC pfnTimeout, uint32_t mode);

/*
 * Queues a start of the calendar timer with the pattern *pattern and argument arg.  The
 * pattern uses the caller's convention: tm_year the full year, tm_mon 1 to 12; each of
 * tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year may be -1 for any value; the other
 * fields are ignored.  The timer fires on the driver thread in each second whose local
 * time matches the six fields, examined once a second; when the engine's check comes
 * late, the seconds missed (up to 60) are examined too, so a wildcard pattern can fire
 * several times in one go.  When the clock is set forward by more than 60 s the skipped
 * seconds are not examined, and when it is set back only the new second is, so a
 * pattern can fire again in the repeated seconds.  Starting a started timer replaces its
 * pattern and argument.  The caller's structure is not changed.  Returns 22 when
 * GUX_IsSysTimeValid(pattern) is 0 (a null pattern among them), for a null handle or a
 * cell that holds nothing; otherwise 0 or 12 (errno ENOMEM).  Deliberately lighter than
 * the relative start: neither the handle's range, nor a freed handle, nor a stopping
 * engine is tested (see Handles above).
 */
uint32_t ZEPO_StartAbsTimer(void *handle, const struct tm *pattern, void *arg);

/*
 * Queues a stop of the calendar timer; the driver then calls pfnDone(doneArg) when it is
 * not NULL (under the request queue lock).  The timer stays created.  Returns 0, 22 (null
 * handle or cell, engine stopping) or 12.
 */
uint32_t ZEPO_StopAbsTimer_Safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg);

/* As ZEPO_StopAbsTimer_Safe, storing the timer's current argument in *argOut first;
 * a NULL argOut gives 22. */
uint32_t ZEPO_StopAbsTimer_SafeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                  void **argOut);

/*
 * Frees the calendar timer: the handle's cell is released at once and the driver frees
 * the timer at its next check (g_abstmNum drops then, not now).  Returns 0, 22 (null
 * handle or cell, engine stopping) or 12 (errno ENOMEM: nothing changed).
 */
uint32_t ZEPO_FreeAbsTimer(void *handle);

/* ---- Periodic waitable timer (independent of the engine) --------------------------- */

/*
 * A waitable timer.  Its schedule starts at the first ZEPO_TimerProcess and its deadlines
 * stay on the grid start + n x period, so a caller that is late does not drift.  The
 * layout is fixed; read, do not write.
 */
typedef struct ZEPO_PERIODIC_TIMER {
    uint32_t tickCount;          /* periods waited so far */
    uint32_t period;             /* milliseconds */
    pthread_condattr_t condAttr; /* used only while creating */
    pthread_cond_t cond;         /* on CLOCK_MONOTONIC, never signalled */
    pthread_mutex_t mutex;       /* default attributes */
    int64_t startSec;            /* CLOCK_MONOTONIC time of the first wait, 0 until then */
    int64_t startNsec;
} ZEPO_PERIODIC_TIMER;

/*
 * Creates a waitable timer of periodMs milliseconds; context is ignored.  Returns the
 * timer, owned by the caller until ZEPO_TimerDestroy, or NULL when memory, the mutex or
 * the condition cannot be set up (nothing is left behind).
 */
ZEPO_PERIODIC_TIMER *ZEPO_TimerCreate(void *context, uint32_t periodMs);

/*
 * Waits until the next deadline start + n x period (n = number of calls so far; the
 * offset n x period wraps at 2^32 ms, about 49.7 days), measured on CLOCK_MONOTONIC.  A
 * deadline already past returns at once, so after a long pause the calls return at once
 * until they have caught up with the grid.  Returns 0 (also on a time-out or an
 * interrupted wait), or -1 for a NULL timer, a failed lock, or an invalid deadline.
 * Meant for one waiting thread.
 */
int32_t ZEPO_TimerProcess(ZEPO_PERIODIC_TIMER *timer);

/* Destroys the condition and the mutex, clears the record and frees it; NULL is
 * ignored.  No thread may be waiting on it. */
void ZEPO_TimerDestroy(ZEPO_PERIODIC_TIMER *timer);

/* ---- System-control slot ----------------------------------------------------------- */

/* The registered system-control call-back, or NULL. */
extern ZEPO_SYSCTRL_TID_FUNC g_pfnSysCtrlRegTaskTidFunc;

/* Stores callback (NULL clears the slot), replacing any earlier one.  Returns 0. */
int32_t ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(ZEPO_SYSCTRL_TID_FUNC callback);

/* Calls the registered call-back with (first, second) on the caller's thread; does
 * nothing when none is registered.  The library itself never calls it. */
void ZEPO_SysCtrlRegTaskTid(uint64_t first, uint64_t second);

/* ---- Timer groups ------------------------------------------------------------------ */

/*
 * A group of periodic relative timers that share one call-back and are addressed by
 * their index.  Both records are allocated by ZEPO_InitReltimerGrp; read, do not write.
 * Calls on one group from several threads at once are not guarded.  A member's call-back
 * may still run (or be due in the current tick) on the driver thread right after
 * ZEPO_StopRelTimerofGrp returned; a restart of that member rewrites the fields it reads.
 * Free every group before ZEPO_StopTimerTask: afterwards the members' handles are
 * dangling, and ZEPO_StopRelTimerofGrp / ZEPO_FreeRelTimerGrp refuse them (0x20160043,
 * 0x20160048), leaving the group allocated.
 */
typedef struct ZEPO_RELTIMER_GRP_MEMBER {
    uint32_t arg;                          /* passed to the call-back */
    uint32_t index;                        /* the member's own index */
    uint32_t mode;                         /* 0 or 1, as started; not used further */
    uint32_t interval;                     /* milliseconds, as started */
    ZEPO_GRP_TIMEOUT_FUNC pfnGroupTimeout; /* the group's call-back */
    void *handle;                          /* the member's timer, or NULL */
    uint32_t active;                       /* 1 while started */
} ZEPO_RELTIMER_GRP_MEMBER;

typedef struct ZEPO_RELTIMER_GRP {
    uint32_t count; /* number of members */
    uint32_t valid; /* 1 once set up */
    ZEPO_GRP_TIMEOUT_FUNC pfnGroupTimeout;
    ZEPO_RELTIMER_GRP_MEMBER *members; /* count members, or NULL once released */
} ZEPO_RELTIMER_GRP;

/* Result codes of the group functions (0 is success). */
#define ZEPO_GRP_INIT_NULL_OUT 0x20160032u      /* groupOut is NULL */
#define ZEPO_GRP_INIT_TOO_MANY 0x20160034u      /* count above ulMaxReltmNum */
#define ZEPO_GRP_INIT_NO_MEMORY 0x20160036u     /* allocation failed, or count is 0 */
#define ZEPO_GRP_INIT_NULL_FUNC 0x20160037u     /* pfnGroupTimeout is NULL */
#define ZEPO_GRP_START_BAD_GROUP 0x20160039u    /* group NULL or not valid */
#define ZEPO_GRP_START_BAD_INDEX 0x2016003Bu    /* index out of range */
#define ZEPO_GRP_START_BAD_MODE 0x2016003Cu     /* low 8 bits of mode 2 or more */
#define ZEPO_GRP_START_FAILED 0x2016003Du       /* the member's timer not created/started */
#define ZEPO_GRP_STOP_NULL_GROUP 0x20160040u    /* group NULL */
#define ZEPO_GRP_STOP_INVALID_GROUP 0x20160041u /* group not valid */
#define ZEPO_GRP_STOP_BAD_INDEX 0x20160042u     /* index out of range */
#define ZEPO_GRP_STOP_FAILED 0x20160043u        /* stopping or freeing the timer failed */
#define ZEPO_GRP_STOP_NOT_ACTIVE 0x20160044u    /* the member is not started */
#define ZEPO_GRP_FREE_NULL_GROUP 0x20160046u    /* group NULL */
#define ZEPO_GRP_FREE_INVALID_GROUP 0x20160047u /* group not valid */
#define ZEPO_GRP_FREE_FAILED 0x20160048u        /* freeing a member's timer failed */

/*
 * Creates a group of count members sharing pfnGroupTimeout and stores it in *groupOut.
 * Checks in this order: NULL groupOut 0x20160032, NULL pfnGroupTimeout 0x20160037, count
 * above ulMaxReltmNum 0x20160034 (equal is accepted), then 0x20160036 when memory runs
 * out - and for a count of 0, which has no members to allocate.  Returns 0.  The engine
 * is not started here.
 */
uint32_t ZEPO_InitReltimerGrp(ZEPO_RELTIMER_GRP **groupOut, uint32_t count,
                              ZEPO_GRP_TIMEOUT_FUNC pfnGroupTimeout);

/*
 * Starts member index as a periodic timer of interval ms whose call-back receives
 * (index, arg).  mode 0 and 1 both give a periodic timer.  Checks: group NULL or not
 * valid 0x20160039, index >= count 0x2016003B, low 8 bits of mode 2 or more 0x2016003C.
 * A member already started returns 0 and keeps its first interval and argument.  The
 * member's timer is created through ZEPO_CreateRelTimerM (counted against the limits)
 * and started; 0x2016003D when either fails (a created timer is then left in the member,
 * which stays inactive).  Returns 0.
 */
uint32_t ZEPO_StartRelTimerofGrp(ZEPO_RELTIMER_GRP *group, uint32_t index, uint32_t interval,
                                 uint32_t arg, uint32_t mode);

/*
 * Stops and frees member index's timer.  Checks: group NULL 0x20160040, not valid
 * 0x20160041, index >= count 0x20160042, member not started 0x20160044; 0x20160043 when
 * the stop or the free is refused.  The member keeps its arg, index, mode and interval.
 * Returns 0.
 */
uint32_t ZEPO_StopRelTimerofGrp(ZEPO_RELTIMER_GRP *group, uint32_t index);

/*
 * Frees every member's timer (without stopping them first), then releases the members
 * and the group through ZEPO_FreeRelTimerArg_safe, so that the memory goes only after any
 * member call-back under way.  Checks: group NULL 0x20160046, not valid 0x20160047;
 * 0x20160048 at the first member whose free is refused, leaving the group and the members
 * after it as they are.  Returns 0; the group must not be used again.  While the engine
 * stops, the releases are refused and the memory stays allocated.
 */
uint32_t ZEPO_FreeRelTimerGrp(ZEPO_RELTIMER_GRP *group);

/* The engine call-back of every member timer: calls member->pfnGroupTimeout(index, arg)
 * when member (a ZEPO_RELTIMER_GRP_MEMBER *) and its call-back are not NULL. */
void ZEPO_TimeoutFuncOfGrp(void *member);

#ifdef __cplusplus
}
#endif

#endif /* QEL_TIMER_H */
