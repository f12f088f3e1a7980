/*
 * qel_thread.h - condition variables, thread attributes, threads and identity,
 * priorities, processes, sleeps, dynamic loading and the system name.
 *
 * Every function returns a 32-bit signed status unless stated otherwise.  Pointer
 * arguments named "checked" are refused with -1 when null, before any platform call;
 * nothing else is checked and nothing is printed.  After the checks the platform's
 * result comes back unchanged: 0 or an error number from the pthread functions, the C
 * library's result (-1 and errno) from the others - except the mappings stated below.
 *
 * The mutex argument of the condition functions is the platform mutex at the front of
 * a ZEPO_MUTEX (pass &record->mutexSpace) or any platform mutex.
 *
 * Thread safety: as that of the wrapped platform calls.
 */
#ifndef QEL_THREAD_H
#define QEL_THREAD_H

#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <sys/utsname.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of a timed wait that expired. */
#define ZEPO_WAIT_TIMEDOUT 110

/* ---- Condition variables ------------------------------------------------------------ */

/* pthread_condattr_init(attr).  Unchecked. */
int32_t ZEPO_PthreadCondInitAttr(pthread_condattr_t *attr);

/* Always 0 and sets no clock: the attribute is left as it is, so a condition made with
 * it keeps the real-time clock.  Callers that need monotonic waits set the clock with
 * pthread_condattr_setclock themselves. */
int32_t ZEPO_PthreadCondAttr_SetClockMonotic(pthread_condattr_t *attr);

/* pthread_condattr_destroy(attr).  Unchecked. */
int32_t ZEPO_PthreadCondAttr_Destroy(pthread_condattr_t *attr);

/* pthread_cond_init(cond, attr): 0; on failure the last error is set to 0 and -1 is
 * returned.  cond checked. */
int32_t ZEPO_PthreadCondInit(pthread_cond_t *cond, const pthread_condattr_t *attr);

/* pthread_cond_signal / pthread_cond_broadcast.  cond checked. */
int32_t ZEPO_PthreadCondSignal(pthread_cond_t *cond);
int32_t ZEPO_PthreadCondBroadcast(pthread_cond_t *cond);

/* pthread_cond_wait(cond, mutex).  cond and mutex checked. */
int32_t ZEPO_PthreadCondWait(pthread_cond_t *cond, pthread_mutex_t *mutex);

/*
 * Waits on cond until it is signalled or timeoutUs microseconds have passed, with a
 * deadline on CLOCK_REALTIME.  Returns 0 when signalled, 110 when the wait expired, and
 * -1 for a null cond or mutex, a time-out of 0 (refused, not a poll) or any other
 * failure.  The deadline's nanoseconds (the time-out's rest plus the current ones, in
 * 32-bit arithmetic) are carried into the seconds only when strictly above 1000000000:
 * a sum of exactly one second is left as it is, the platform rejects that deadline and
 * the result is -1.  Setting the wall clock moves the deadline.
 */
int32_t ZEPO_PthreadCondTimedWait(pthread_cond_t *cond, pthread_mutex_t *mutex, uint32_t timeoutUs);

/*
 * As ZEPO_PthreadCondTimedWait with a deadline on CLOCK_MONOTONIC, for a condition whose
 * attribute clock was set to CLOCK_MONOTONIC.  The current time is truncated to whole
 * microseconds before the time-out is added, and the deadline is always normalised.
 * Returns 0, 110 or -1 as above.
 */
int32_t ZEPO_PthreadCondTimedWait_Clock(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                        uint32_t timeoutUs);

/* pthread_cond_destroy(cond): 0 on success, 1 (not -1) when the platform call fails
 * (for example while threads wait on it); -1 only for a null cond. */
int32_t ZEPO_PthreadCondDestroy(pthread_cond_t *cond);

/* ---- Thread attributes and scheduling -------------------------------------------- */

/* Each wraps the pthread_attr_* call of the same name; attr is checked, and so is the
 * output pointer of each Get function. */
int32_t ZEPO_PthreadAttrInit(pthread_attr_t *attr);
int32_t ZEPO_PthreadAttrDestroy(pthread_attr_t *attr);
int32_t ZEPO_PthreadAttrSetdetachstate(pthread_attr_t *attr, int32_t state);
int32_t ZEPO_PthreadAttrGetInheritsched(const pthread_attr_t *attr, int32_t *inherit);
int32_t ZEPO_PthreadAttrSetInheritsched(pthread_attr_t *attr, int32_t inherit);
int32_t ZEPO_PthreadAttrGetSchedpolicy(const pthread_attr_t *attr, int32_t *policy);
int32_t ZEPO_PthreadAttrSetSchedpolicy(pthread_attr_t *attr, int32_t policy);
int32_t ZEPO_PthreadAttrGetSchedparam(const pthread_attr_t *attr, struct sched_param *param);
/* param is not checked. */
int32_t ZEPO_PthreadAttrSetSchedparam(pthread_attr_t *attr, const struct sched_param *param);
int32_t ZEPO_PthreadAttrGetscope(const pthread_attr_t *attr, int32_t *scope);
int32_t ZEPO_PthreadAttrSetscope(pthread_attr_t *attr, int32_t scope);
int32_t ZEPO_PthreadAttrGetStacksize(const pthread_attr_t *attr, size_t *size);
/* size: an unsigned 32-bit count of bytes, widened. */
int32_t ZEPO_PthreadAttrSetStacksize(pthread_attr_t *attr, uint32_t size);
int32_t ZEPO_PthreadAttrGetStackAddr(const pthread_attr_t *attr, void **addr);
/* attr and addr checked. */
int32_t ZEPO_PthreadAttrSetStackAddr(pthread_attr_t *attr, void *addr);

/* pthread_getschedparam(thread, policy, param).  policy and param checked. */
int32_t ZEPO_PthreadGetSchedparam(pthread_t thread, int32_t *policy, struct sched_param *param);

/* sched_get_priority_max / sched_get_priority_min(policy).  Unchecked. */
int32_t ZEPO_SchedGetPriorityMax(int32_t policy);
int32_t ZEPO_SchedGetPriorityMin(int32_t policy);

/* pthread_setcancelstate / pthread_setcanceltype.  The old-value pointer is checked. */
int32_t ZEPO_PthreadSetCancelState(int32_t state, int32_t *oldState);
int32_t ZEPO_PthreadSetCancelType(int32_t type, int32_t *oldType);

/* ---- Threads ------------------------------------------------------------------------ */

/*
 * pthread_create(thread, attr, start, arg); thread checked.  On success, when idOut is
 * not null, the address thread itself - not the handle stored there - is written to
 * *idOut (kept so for the callers that use it as an identifier).
 */
int32_t ZEPO_PthreadCreateID(pthread_t *thread, uint64_t *idOut, const pthread_attr_t *attr,
                             void *(*start)(void *), void *arg);

/* ZEPO_PthreadCreateID(thread, NULL, attr, start, arg). */
int32_t ZEPO_PthreadCreate(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *),
                           void *arg);

/* pthread_self(), as a 64-bit handle (three names for the same). */
uint64_t ZEPO_PthreadSelf(void);
uint64_t ZEPO_PthreadSelfId(void);
uint64_t qel_PthreadSelf(void);

/* Stores qel_PthreadSelf() into *out when out is not null; returns ZEPO_PthreadSelf(). */
uint64_t QEL_GetPthreadSelf(uint64_t *out);

/* pthread_detach / pthread_cancel / pthread_join.  Unchecked. */
int32_t ZEPO_PthreadDetach(pthread_t thread);
int32_t ZEPO_PthreadCancel(pthread_t thread);
int32_t ZEPO_PthreadJoin(pthread_t thread, void **retval);

/* Names the calling thread: prctl(PR_SET_NAME, name) (16 bytes with the terminator are
 * kept).  Unchecked. */
int32_t ZEPO_PthreadSetName(const char *name);

/* The kernel's id of the calling thread (the gettid system call), 64-bit signed. */
int64_t ZEPO_GetTID(void);

/* ZEPO_GetTID() cut to 32-bit unsigned. */
uint32_t ZEPO_GetTIDEx(void);

/* Atomically replaces *target with value (sequentially consistent) and returns the
 * value replaced.  Unchecked. */
int32_t ZEPO_Interlocked_Exchange(volatile int32_t *target, int32_t value);

/* ---- Priorities (passed through; no mapping of priority values) ----------------------- */

/* getpriority(which, who): the priority, or -1 with errno (-1 is also a priority: clear
 * errno first to tell them apart). */
int32_t ZEPO_GetPriority(int32_t which, uint32_t who);

/* setpriority(which, who, prio): 0 or -1.  ZEPO_SetPriorityEx is the same call. */
int32_t ZEPO_SetPriority(int32_t which, uint32_t who, int32_t prio);
int32_t ZEPO_SetPriorityEx(int32_t which, uint32_t who, int32_t prio);

/* A stub on this platform: ignores its arguments and always returns 1. */
int32_t ZEPO_SetPriorityWin(uint64_t thread, int32_t priority);

/* ZEPO_GetPriority / ZEPO_SetPriority under their other names. */
int32_t QEL_GetPriority(int32_t which, uint32_t who);
int32_t QEL_SetPriority(int32_t which, uint32_t who, int32_t prio);

/* ---- Processes, sleeps, libraries and system (unchecked) ------------------------------ */

/* execv / execvp: only return on failure, with -1. */
int32_t ZEPO_Execv(const char *path, char *const argv[]);
int32_t ZEPO_Execvp(const char *file, char *const argv[]);

/* fork(): the child's id in the parent, 0 in the child, -1 on failure; 64-bit signed. */
int64_t ZEPO_Fork(void);

/* wait(status): the id of the child that ended, or -1; 64-bit signed. */
int64_t ZEPO_Wait(int32_t *status);

/* waitpid(pid, status, options). */
int32_t ZEPO_Waitpid(int32_t pid, int32_t *status, int32_t options);

/* A stub: ignores its arguments, starts nothing and always returns 0. */
int32_t ZEPO_CreateProcess(const char *command, void *info);

/* reboot(howTo). */
int32_t ZEPO_Reboot(int32_t howTo);

/* kill(pid, sig). */
int32_t ZEPO_Kill(int32_t pid, int32_t sig);

/* system(command). */
int32_t ZEPO_System(const char *command);

/* getpid(). */
int32_t ZEPO_GetPID(void);

/* _exit(status): ends the process at once, without running exit handlers or flushing
 * streams. */
void ZEPO_Exit(int32_t status);

/* sleep(seconds): the seconds left when a signal ended the sleep early, else 0. */
uint32_t ZEPO_Sleep(uint32_t seconds);

/* usleep(ms * 1000) with the product in 32-bit unsigned arithmetic: from 4294968 ms on
 * it wraps around to a much shorter sleep.  0 or -1. */
int32_t ZEPO_SleepMs(uint32_t ms);

/* usleep(us): 0 or -1. */
int32_t ZEPO_USleep(uint32_t us);

/* dlopen(file, RTLD_LAZY): the handle or NULL. */
void *ZEPO_LoadLibrary(const char *file);

/* dlsym(handle, symbol): the address or NULL. */
void *ZEPO_GetProcAddress(void *handle, const char *symbol);

/* dlclose(handle) as a truth value: 1 when it succeeded, 0 when it failed. */
int32_t ZEPO_FreeLibrary(void *handle);

/* Clears the first 325 bytes of *buffer, then uname(buffer): 0 or -1.  (Those are the
 * first five fields of struct utsname; the domain name is filled by uname.) */
int32_t ZEPO_GetOsVersion(struct utsname *buffer);

#ifdef __cplusplus
}
#endif

#endif /* QEL_THREAD_H */
