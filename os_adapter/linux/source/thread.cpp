// thread.cpp - condition variables, thread attributes, threads and identity,
// priorities, processes, sleeps, dynamic loading and the system name.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "os_deadline.h"
#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_thread.h"

static_assert(ZEPO_WAIT_TIMEDOUT == ETIMEDOUT);

namespace {

constexpr uint32_t kMicrosPerSecond = 1000000;
constexpr int32_t kNanosPerMicro = 1000;

// ZEPO_GetOsVersion clears this many bytes of the caller's record before uname: the
// first five fields of struct utsname (65 bytes each).
constexpr size_t kOsVersionClear = 325;

// ZEPO_SetPriorityWin has no meaning on this platform and answers this.
constexpr int32_t kPriorityWinStub = 1;

// The result of a timed wait: signalled, expired, or anything else.
int32_t wait_result(int platform) {
    if (platform == 0) return 0;
    if (platform == ETIMEDOUT) return ZEPO_WAIT_TIMEDOUT;
    return qel::kRefused;
}

// The refusals both timed waits share, in this order: no mutex, a zero time-out (not
// a poll), no condition.
bool timed_wait_accepted(pthread_cond_t *cond, pthread_mutex_t *mutex, uint32_t timeoutUs) {
    return qel::accepted(mutex) && timeoutUs != 0 && qel::accepted(cond);
}

// The stack-address calls are obsolescent in POSIX but are what these two wrap.  They are
// looked up when first used rather than referenced: a reference makes every link of the
// library print glibc's deprecation notice, and the calls behave the same either way.
using GetStackAddr = int (*)(const pthread_attr_t *, void **);
using SetStackAddr = int (*)(pthread_attr_t *, void *);

template <typename Fn>
Fn c_library_call(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

}  // namespace

extern "C" {

// ---- Condition variables --------------------------------------------------------------

int32_t ZEPO_PthreadCondInitAttr(pthread_condattr_t *attr) { return pthread_condattr_init(attr); }

int32_t ZEPO_PthreadCondAttr_SetClockMonotic(pthread_condattr_t * /*attr: left as it is*/) {
    // Deliberately sets no clock; callers that need monotonic waits set it themselves.
    return 0;
}

int32_t ZEPO_PthreadCondAttr_Destroy(pthread_condattr_t *attr) {
    return pthread_condattr_destroy(attr);
}

int32_t ZEPO_PthreadCondInit(pthread_cond_t *cond, const pthread_condattr_t *attr) {
    if (!qel::accepted(cond)) return qel::kRefused;
    if (pthread_cond_init(cond, attr) != 0) {
        ZEPO_SetLastErr(0);
        return qel::kRefused;
    }
    return 0;
}

int32_t ZEPO_PthreadCondSignal(pthread_cond_t *cond) {
    if (!qel::accepted(cond)) return qel::kRefused;
    return pthread_cond_signal(cond);
}

int32_t ZEPO_PthreadCondBroadcast(pthread_cond_t *cond) {
    if (!qel::accepted(cond)) return qel::kRefused;
    return pthread_cond_broadcast(cond);
}

int32_t ZEPO_PthreadCondWait(pthread_cond_t *cond, pthread_mutex_t *mutex) {
    if (!qel::accepted(cond, mutex)) return qel::kRefused;
    return pthread_cond_wait(cond, mutex);
}

int32_t ZEPO_PthreadCondTimedWait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  uint32_t timeoutUs) {
    if (!timed_wait_accepted(cond, mutex, timeoutUs)) return qel::kRefused;
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    // The sum of the nanoseconds (at most 1999998999) fits the 32-bit arithmetic callers
    // rely on; an exact second is left uncarried and the wait then gives -1.
    qel::advance_deadline(&deadline, timeoutUs / kMicrosPerSecond,
                          static_cast<int64_t>(timeoutUs % kMicrosPerSecond) * kNanosPerMicro);
    return wait_result(pthread_cond_timedwait(cond, mutex, &deadline));
}

int32_t ZEPO_PthreadCondTimedWait_Clock(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                        uint32_t timeoutUs) {
    if (!timed_wait_accepted(cond, mutex, timeoutUs)) return qel::kRefused;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // Whole microseconds: the sub-microsecond rest of the current time is dropped.
    const int32_t micros = static_cast<int32_t>(now.tv_nsec / kNanosPerMicro) +
                           static_cast<int32_t>(timeoutUs % kMicrosPerSecond);
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + timeoutUs / kMicrosPerSecond + micros / kMicrosPerSecond;
    deadline.tv_nsec = static_cast<long>(micros % kMicrosPerSecond) * kNanosPerMicro;
    return wait_result(pthread_cond_timedwait(cond, mutex, &deadline));
}

int32_t ZEPO_PthreadCondDestroy(pthread_cond_t *cond) {
    if (!qel::accepted(cond)) return qel::kRefused;
    return pthread_cond_destroy(cond) == 0 ? 0 : 1;  // 1, not -1, for a platform failure
}

// ---- Thread attributes and scheduling -------------------------------------------------

int32_t ZEPO_PthreadAttrInit(pthread_attr_t *attr) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_init(attr);
}

int32_t ZEPO_PthreadAttrDestroy(pthread_attr_t *attr) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_destroy(attr);
}

int32_t ZEPO_PthreadAttrSetdetachstate(pthread_attr_t *attr, int32_t state) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setdetachstate(attr, state);
}

int32_t ZEPO_PthreadAttrGetInheritsched(const pthread_attr_t *attr, int32_t *inherit) {
    if (!qel::accepted(attr, inherit)) return qel::kRefused;
    return pthread_attr_getinheritsched(attr, inherit);
}

int32_t ZEPO_PthreadAttrSetInheritsched(pthread_attr_t *attr, int32_t inherit) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setinheritsched(attr, inherit);
}

int32_t ZEPO_PthreadAttrGetSchedpolicy(const pthread_attr_t *attr, int32_t *policy) {
    if (!qel::accepted(attr, policy)) return qel::kRefused;
    return pthread_attr_getschedpolicy(attr, policy);
}

int32_t ZEPO_PthreadAttrSetSchedpolicy(pthread_attr_t *attr, int32_t policy) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setschedpolicy(attr, policy);
}

int32_t ZEPO_PthreadAttrGetSchedparam(const pthread_attr_t *attr, struct sched_param *param) {
    if (!qel::accepted(attr, param)) return qel::kRefused;
    return pthread_attr_getschedparam(attr, param);
}

int32_t ZEPO_PthreadAttrSetSchedparam(pthread_attr_t *attr, const struct sched_param *param) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setschedparam(attr, param);
}

int32_t ZEPO_PthreadAttrGetscope(const pthread_attr_t *attr, int32_t *scope) {
    if (!qel::accepted(attr, scope)) return qel::kRefused;
    return pthread_attr_getscope(attr, scope);
}

int32_t ZEPO_PthreadAttrSetscope(pthread_attr_t *attr, int32_t scope) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setscope(attr, scope);
}

int32_t ZEPO_PthreadAttrGetStacksize(const pthread_attr_t *attr, size_t *size) {
    if (!qel::accepted(attr, size)) return qel::kRefused;
    return pthread_attr_getstacksize(attr, size);
}

int32_t ZEPO_PthreadAttrSetStacksize(pthread_attr_t *attr, uint32_t size) {
    if (!qel::accepted(attr)) return qel::kRefused;
    return pthread_attr_setstacksize(attr, size);
}

int32_t ZEPO_PthreadAttrGetStackAddr(const pthread_attr_t *attr, void **addr) {
    if (!qel::accepted(attr, addr)) return qel::kRefused;
    static const auto call = c_library_call<GetStackAddr>("pthread_attr_getstackaddr");
    return call(attr, addr);
}

int32_t ZEPO_PthreadAttrSetStackAddr(pthread_attr_t *attr, void *addr) {
    if (!qel::accepted(attr, addr)) return qel::kRefused;
    static const auto call = c_library_call<SetStackAddr>("pthread_attr_setstackaddr");
    return call(attr, addr);
}

int32_t ZEPO_PthreadGetSchedparam(pthread_t thread, int32_t *policy, struct sched_param *param) {
    if (!qel::accepted(policy, param)) return qel::kRefused;
    return pthread_getschedparam(thread, policy, param);
}

int32_t ZEPO_SchedGetPriorityMax(int32_t policy) { return sched_get_priority_max(policy); }

int32_t ZEPO_SchedGetPriorityMin(int32_t policy) { return sched_get_priority_min(policy); }

int32_t ZEPO_PthreadSetCancelState(int32_t state, int32_t *oldState) {
    if (!qel::accepted(oldState)) return qel::kRefused;
    return pthread_setcancelstate(state, oldState);
}

int32_t ZEPO_PthreadSetCancelType(int32_t type, int32_t *oldType) {
    if (!qel::accepted(oldType)) return qel::kRefused;
    return pthread_setcanceltype(type, oldType);
}

// ---- Threads --------------------------------------------------------------------------

int32_t ZEPO_PthreadCreateID(pthread_t *thread, uint64_t *idOut, const pthread_attr_t *attr,
                             void *(*start)(void *), void *arg) {
    if (!qel::accepted(thread)) return qel::kRefused;
    const int result = pthread_create(thread, attr, start, arg);
    // The identifier handed out is the address of the caller's handle, not the handle:
    // callers have always used it so.
    if (result == 0 && idOut != nullptr) *idOut = reinterpret_cast<uintptr_t>(thread);
    return result;
}

int32_t ZEPO_PthreadCreate(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *),
                           void *arg) {
    return ZEPO_PthreadCreateID(thread, nullptr, attr, start, arg);
}

uint64_t ZEPO_PthreadSelf(void) { return pthread_self(); }

uint64_t ZEPO_PthreadSelfId(void) { return pthread_self(); }

uint64_t qel_PthreadSelf(void) { return pthread_self(); }

uint64_t QEL_GetPthreadSelf(uint64_t *out) {
    if (out != nullptr) *out = qel_PthreadSelf();
    return ZEPO_PthreadSelf();
}

int32_t ZEPO_PthreadDetach(pthread_t thread) { return pthread_detach(thread); }

int32_t ZEPO_PthreadCancel(pthread_t thread) { return pthread_cancel(thread); }

int32_t ZEPO_PthreadJoin(pthread_t thread, void **retval) { return pthread_join(thread, retval); }

int32_t ZEPO_PthreadSetName(const char *name) {
    return prctl(PR_SET_NAME, reinterpret_cast<unsigned long>(name), 0UL, 0UL, 0UL);
}

int64_t ZEPO_GetTID(void) { return syscall(SYS_gettid); }

uint32_t ZEPO_GetTIDEx(void) { return static_cast<uint32_t>(ZEPO_GetTID()); }

int32_t ZEPO_Interlocked_Exchange(volatile int32_t *target, int32_t value) {
    // Compare-and-swap until the word read is the word replaced; a failed swap reloads.
    int32_t current = __atomic_load_n(target, __ATOMIC_SEQ_CST);
    while (!__atomic_compare_exchange_n(target, &current, value, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
    }
    return current;
}

// ---- Priorities -----------------------------------------------------------------------

int32_t ZEPO_GetPriority(int32_t which, uint32_t who) {
    return getpriority(static_cast<__priority_which_t>(which), who);
}

int32_t ZEPO_SetPriority(int32_t which, uint32_t who, int32_t prio) {
    return setpriority(static_cast<__priority_which_t>(which), who, prio);
}

int32_t ZEPO_SetPriorityEx(int32_t which, uint32_t who, int32_t prio) {
    return ZEPO_SetPriority(which, who, prio);
}

int32_t ZEPO_SetPriorityWin(uint64_t /*thread*/, int32_t /*priority*/) { return kPriorityWinStub; }

int32_t QEL_GetPriority(int32_t which, uint32_t who) { return ZEPO_GetPriority(which, who); }

int32_t QEL_SetPriority(int32_t which, uint32_t who, int32_t prio) {
    return ZEPO_SetPriority(which, who, prio);
}

// ---- Processes, sleeps, libraries and system ------------------------------------------

int32_t ZEPO_Execv(const char *path, char *const argv[]) { return execv(path, argv); }

int32_t ZEPO_Execvp(const char *file, char *const argv[]) { return execvp(file, argv); }

int64_t ZEPO_Fork(void) { return fork(); }

int64_t ZEPO_Wait(int32_t *status) { return wait(status); }

int32_t ZEPO_Waitpid(int32_t pid, int32_t *status, int32_t options) {
    return waitpid(pid, status, options);
}

int32_t ZEPO_CreateProcess(const char * /*command*/, void * /*info*/) { return 0; }

int32_t ZEPO_Reboot(int32_t howTo) { return reboot(howTo); }

int32_t ZEPO_Kill(int32_t pid, int32_t sig) { return kill(pid, sig); }

int32_t ZEPO_System(const char *command) { return system(command); }

int32_t ZEPO_GetPID(void) { return getpid(); }

void ZEPO_Exit(int32_t status) { _exit(status); }

uint32_t ZEPO_Sleep(uint32_t seconds) { return sleep(seconds); }

int32_t ZEPO_SleepMs(uint32_t ms) {
    // The product is 32-bit: from 4294968 ms on it wraps to a much shorter sleep.
    return usleep(ms * 1000U);
}

int32_t ZEPO_USleep(uint32_t us) { return usleep(us); }

void *ZEPO_LoadLibrary(const char *file) { return dlopen(file, RTLD_LAZY); }

void *ZEPO_GetProcAddress(void *handle, const char *symbol) { return dlsym(handle, symbol); }

int32_t ZEPO_FreeLibrary(void *handle) { return dlclose(handle) == 0 ? 1 : 0; }

int32_t ZEPO_GetOsVersion(struct utsname *buffer) {
    (void)memset_s(buffer, kOsVersionClear, 0, kOsVersionClear);  // result not tested
    return uname(buffer);
}

}  // extern "C"
