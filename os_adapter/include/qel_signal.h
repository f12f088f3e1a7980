/*
 * qel_signal.h - signals and descriptor sets.
 *
 * Pointer arguments named below are refused when null (-1 unless stated), integers are
 * never checked, and the service's result comes back unchanged.  A refusal calls
 * nothing and leaves errno alone.
 *
 * Thread safety: no state of the library's own.  ZEPO_Signal, ZEPO_SigAction and
 * ZEPO_SigProcmask act on the whole process, ZEPO_PthreadSigmask on the calling thread.
 */
#ifndef QEL_SIGNAL_H
#define QEL_SIGNAL_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <sys/select.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* sigemptyset / sigfillset / sigaddset / sigdelset: 0 or -1.  Null set: -1. */
int32_t ZEPO_SigEmptySet(sigset_t *set);
int32_t ZEPO_SigFillSet(sigset_t *set);
int32_t ZEPO_SigAddSet(sigset_t *set, int32_t signo);
int32_t ZEPO_SigDelSet(sigset_t *set, int32_t signo);

/* sigismember: 1, 0 or -1.  Null set: -1. */
int32_t ZEPO_SigIsMember(const sigset_t *set, int32_t signo);

/* sigaction(sig, act, oldact): 0 or -1.  Unchecked. */
int32_t ZEPO_SigAction(int32_t sig, const struct sigaction *act, struct sigaction *oldact);

/* sigprocmask(how, set, oldset): 0 or -1.  A null set is refused with -1 (oldset is not
 * filled) although the service accepts it to read the mask: deliberately. */
int32_t ZEPO_SigProcmask(int32_t how, const sigset_t *set, sigset_t *oldset);

/* sigpending(set): 0 or -1.  Null set: -1. */
int32_t ZEPO_SigPending(sigset_t *set);

/* sigsuspend(set): -1 with EINTR once a signal was handled.  Null set: -1. */
int32_t ZEPO_SigSuspend(const sigset_t *set);

/* pthread_sigmask(how, set, oldset): 0 or an error number.  A null set is refused with
 * -1, as in ZEPO_SigProcmask. */
int32_t ZEPO_PthreadSigmask(int32_t how, const sigset_t *set, sigset_t *oldset);

/* pthread_kill(thread, sig): 0 or an error number.  Unchecked. */
int32_t ZEPO_PthreadKill(pthread_t thread, int32_t sig);

/* sigwait(set, sig): 0 or an error number.  Null set: -1; sig is not checked. */
int32_t ZEPO_SigWait(const sigset_t *set, int32_t *sig);

/*
 * sigwaitinfo(set, record) / sigtimedwait(set, record, timeout) into a 128-byte record
 * from the memory entry points: the signal number, or -1.  The record's address is
 * stored into *info, but the record is released before the function returns: only the
 * signal number reaches the caller, who must not read through *info (kept so).  A null
 * set or info gives -1; a failed allocation gives -1 with NULL stored.  timeout is not
 * checked.
 */
int32_t ZEPO_SigWaitInfo(const sigset_t *set, siginfo_t **info);
int32_t ZEPO_SigTimedWait(const sigset_t *set, siginfo_t **info, const struct timespec *timeout);

/* sigqueue(pid, sig, value) with the 64-bit value as the signal's value: 0 or -1. */
int32_t ZEPO_SigQueue(int32_t pid, int32_t sig, uint64_t value);

/* signal(sig, handler): always 0 - the previous handler and any failure (an invalid
 * signal number, say) are discarded. */
int32_t ZEPO_Signal(int32_t sig, void (*handler)(int));

/*
 * Descriptor sets of 1024 bits.  SET, CLR and ISSET check the descriptor with the C
 * library's fortified index check, which ends the process ("*** bit out of range 0 -
 * FD_SETSIZE on fd_set ***") when fd is negative or not below 1024.  A null set:
 * nothing done, ISSET gives 0.  ISSET gives 1 when the bit is set, else 0.
 */
void ZEPO_FD_SET(int32_t fd, fd_set *set);
void ZEPO_FD_CLR(int32_t fd, fd_set *set);
int32_t ZEPO_FD_ISSET(int32_t fd, const fd_set *set);
void ZEPO_FD_ZERO(fd_set *set);

#ifdef __cplusplus
}
#endif

#endif /* QEL_SIGNAL_H */
