// os_sig_config.cpp - signals and descriptor sets.

#include <pthread.h>
#include <signal.h>
#include <sys/select.h>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_signal.h"

// The C library's fortified index check of the descriptor-set macros: it ends the
// process when the descriptor is negative or not below FD_SETSIZE.
extern "C" long int __fdelt_chk(long int d);

namespace {

// The signal-information record the waits fill.
constexpr uint32_t kSignalInfoSize = 128;
static_assert(sizeof(siginfo_t) == kSignalInfoSize);

constexpr int kSetWords = FD_SETSIZE / (8 * sizeof(__fd_mask));
static_assert(kSetWords == 16 && sizeof(fd_set) == 16 * sizeof(uint64_t));
constexpr int kBitsPerWord = 8 * sizeof(__fd_mask);

// The word of fd in set, found through the fortified index check.  Callers take it
// before they compute the bit, so that a descriptor out of range ends the process in
// the check and never reaches the shift.
__fd_mask &word_of(int32_t fd, fd_set *set) { return set->fds_bits[__fdelt_chk(fd)]; }

__fd_mask bit_of(int32_t fd) {
    return static_cast<__fd_mask>(1UL << (static_cast<uint32_t>(fd) % kBitsPerWord));
}

// The shared steps of the waits with information: a 128-byte record from the memory
// entry points, its address stored into the caller's place, the wait, and the release
// of the record before the return.  Only the signal number reaches the caller; the
// address left in *info refers to the released record (callers must not read it).
template <typename Wait>
int32_t wait_with_information(const sigset_t *set, siginfo_t **info, Wait wait) {
    if (!qel::accepted(set, info)) return qel::kRefused;
    auto *record = static_cast<siginfo_t *>(qel::heap_alloc(kSignalInfoSize));
    *info = record;
    if (record == nullptr) return qel::kRefused;
    const int result = wait(record);
    qel::heap_free(record);
    return result;
}

}  // namespace

extern "C" {

int32_t ZEPO_SigEmptySet(sigset_t *set) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigemptyset(set);
}

int32_t ZEPO_SigFillSet(sigset_t *set) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigfillset(set);
}

int32_t ZEPO_SigAddSet(sigset_t *set, int32_t signo) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigaddset(set, signo);
}

int32_t ZEPO_SigDelSet(sigset_t *set, int32_t signo) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigdelset(set, signo);
}

int32_t ZEPO_SigIsMember(const sigset_t *set, int32_t signo) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigismember(set, signo);
}

int32_t ZEPO_SigAction(int32_t sig, const struct sigaction *act, struct sigaction *oldact) {
    return sigaction(sig, act, oldact);
}

// A null new set is refused, although the service would read the mask with it.
int32_t ZEPO_SigProcmask(int32_t how, const sigset_t *set, sigset_t *oldset) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigprocmask(how, set, oldset);
}

int32_t ZEPO_SigPending(sigset_t *set) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigpending(set);
}

int32_t ZEPO_SigSuspend(const sigset_t *set) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigsuspend(set);
}

int32_t ZEPO_PthreadSigmask(int32_t how, const sigset_t *set, sigset_t *oldset) {
    if (!qel::accepted(set)) return qel::kRefused;
    return pthread_sigmask(how, set, oldset);
}

int32_t ZEPO_PthreadKill(pthread_t thread, int32_t sig) { return pthread_kill(thread, sig); }

int32_t ZEPO_SigWait(const sigset_t *set, int32_t *sig) {
    if (!qel::accepted(set)) return qel::kRefused;
    return sigwait(set, sig);
}

int32_t ZEPO_SigWaitInfo(const sigset_t *set, siginfo_t **info) {
    return wait_with_information(set, info,
                                 [set](siginfo_t *record) { return sigwaitinfo(set, record); });
}

int32_t ZEPO_SigTimedWait(const sigset_t *set, siginfo_t **info, const struct timespec *timeout) {
    return wait_with_information(set, info, [set, timeout](siginfo_t *record) {
        return sigtimedwait(set, record, timeout);
    });
}

int32_t ZEPO_SigQueue(int32_t pid, int32_t sig, uint64_t value) {
    union sigval signalValue;
    (void)memset_s(&signalValue, sizeof signalValue, 0, sizeof signalValue);
    (void)memcpy_s(&signalValue, sizeof signalValue, &value, sizeof value);  // not tested
    return sigqueue(pid, sig, signalValue);
}

int32_t ZEPO_Signal(int32_t sig, void (*handler)(int)) {
    // The previous handler and any failure are discarded: always 0.
    (void)signal(sig, handler);
    return 0;
}

void ZEPO_FD_SET(int32_t fd, fd_set *set) {
    if (set == nullptr) return;
    __fd_mask &word = word_of(fd, set);
    word |= bit_of(fd);
}

void ZEPO_FD_CLR(int32_t fd, fd_set *set) {
    if (set == nullptr) return;
    __fd_mask &word = word_of(fd, set);
    word &= ~bit_of(fd);
}

int32_t ZEPO_FD_ISSET(int32_t fd, const fd_set *set) {
    if (set == nullptr) return 0;
    const __fd_mask word = word_of(fd, const_cast<fd_set *>(set));
    return (word & bit_of(fd)) != 0 ? 1 : 0;
}

void ZEPO_FD_ZERO(fd_set *set) {
    if (set == nullptr) return;
    for (__fd_mask &word : set->fds_bits) word = 0;
}

}  // extern "C"
