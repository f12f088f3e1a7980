// Signals and descriptor sets.
//
// Every test runs in its own process (gtest_discover_tests); still, each one puts back the
// dispositions and the mask it changes.  Signals go only to this process, to its own threads
// or to a child it forked.  Waits for another thread or a child are bounded by generous
// limits, never by fixed sleeps.
//
// The waits with signal information are watched through test-only definitions of the heap
// entry points, which record each request of the library and forward it (or, on demand,
// fail it).

#include <gtest/gtest.h>
#include <dlfcn.h>

#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qel_memory.h"
#include "qel_signal.h"

#include "test_support.h"

namespace {

using qel_test::kSentinel;
constexpr unsigned char kPattern = 0xA5;
constexpr const char *kSignalSource = "os_adapter/linux/source/os_sig_config.cpp";
constexpr uint32_t kRecordSize = 128;
constexpr auto kLimit = std::chrono::seconds(20);

// ---- Heap watch --------------------------------------------------------------------------

struct HeapCall {
    void *block = nullptr;
    uint32_t size = 0;  // requests only
    uint32_t type = 0;
    uint32_t line = 0;
    const char *file = nullptr;
    int signo_held = 0;  // releases only: the si_signo the record held when it was released
};

constexpr int kMaxCalls = 8;

struct HeapWatch {
    std::atomic<bool> on{false};
    std::atomic<bool> fail{false};
    std::atomic<int> requests{0};
    std::atomic<int> releases{0};
    HeapCall request[kMaxCalls];
    HeapCall release[kMaxCalls];
};
HeapWatch watch;

// Records the library's heap calls for the life of the object; with fail set, every request
// gives null without reaching the heap.
class HeapWatchScope {
public:
    explicit HeapWatchScope(bool fail = false) {
        watch.requests = 0;
        watch.releases = 0;
        watch.fail = fail;
        watch.on = true;
    }
    ~HeapWatchScope() { stop(); }
    HeapWatchScope(const HeapWatchScope &) = delete;
    HeapWatchScope &operator=(const HeapWatchScope &) = delete;
    void stop() {
        watch.on = false;
        watch.fail = false;
    }
};

std::string text_of(const char *file) { return file != nullptr ? file : ""; }

int non_null_releases() {
    int n = 0;
    for (int i = 0; i < watch.releases && i < kMaxCalls; ++i)
        n += watch.release[i].block != nullptr;
    return n;
}

}  // namespace

// Interposed in front of the library's own entry points, which the signal functions call
// through the dynamic linker.
extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Entry = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Entry>("ZEPO_MemTypeMallocD");
    if (!watch.on) return next(size, type, line, file);
    void *block = watch.fail ? nullptr : next(size, type, line, file);
    const int i = watch.requests;
    if (i < kMaxCalls) watch.request[i] = HeapCall{block, size, type, line, file, 0};
    watch.requests = i + 1;
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *ptr, uint32_t type, uint32_t line, const char *file) {
    using Entry = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Entry>("ZEPO_MemTypeFreeD");
    if (watch.on) {
        int signo = 0;
        if (ptr != nullptr) std::memcpy(&signo, ptr, sizeof signo);  // still alive here
        const int i = watch.releases;
        if (i < kMaxCalls) watch.release[i] = HeapCall{ptr, 0, type, line, file, signo};
        watch.releases = i + 1;
    }
    next(ptr, type, line, file);
}

namespace {

// ---- Dispositions, masks and handlers ----------------------------------------------------

// Puts a signal's disposition back on destruction.
class DispositionGuard {
public:
    explicit DispositionGuard(int sig) : sig_(sig) {
        saved_ok_ = sigaction(sig, nullptr, &saved_) == 0;
    }
    ~DispositionGuard() {
        if (saved_ok_) sigaction(sig_, &saved_, nullptr);
    }
    DispositionGuard(const DispositionGuard &) = delete;
    DispositionGuard &operator=(const DispositionGuard &) = delete;

private:
    int sig_;
    struct sigaction saved_ {};
    bool saved_ok_ = false;
};

// Puts the calling thread's mask back on destruction.  Signals that the test left pending
// and that the old mask would let through are taken first, so that none of them reaches a
// disposition being restored.  Declare it after the DispositionGuards, so that it runs first.
class MaskGuard {
public:
    MaskGuard() { pthread_sigmask(SIG_SETMASK, nullptr, &saved_); }
    ~MaskGuard() {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        const timespec zero{0, 0};
        for (int s = 1; s < NSIG; ++s) {
            if (sigismember(&pending, s) != 1 || sigismember(&saved_, s) == 1) continue;
            sigset_t one;
            sigemptyset(&one);
            sigaddset(&one, s);
            while (sigtimedwait(&one, nullptr, &zero) == s) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    MaskGuard(const MaskGuard &) = delete;
    MaskGuard &operator=(const MaskGuard &) = delete;

private:
    sigset_t saved_{};
};

sigset_t set_of(int sig) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    return set;
}

bool block(int sig) {
    const sigset_t set = set_of(sig);
    return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
}

bool unblock(int sig) {
    const sigset_t set = set_of(sig);
    return pthread_sigmask(SIG_UNBLOCK, &set, nullptr) == 0;
}

bool is_blocked(int sig) {
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, sig) == 1;
}

bool is_pending(int sig) {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, sig) == 1;
}

bool install(int sig, void (*handler)(int)) {
    struct sigaction act {};
    act.sa_handler = handler;
    sigemptyset(&act.sa_mask);
    return sigaction(sig, &act, nullptr) == 0;
}

bool install_info(int sig, void (*handler)(int, siginfo_t *, void *)) {
    struct sigaction act {};
    act.sa_sigaction = handler;
    act.sa_flags = SA_SIGINFO;
    sigemptyset(&act.sa_mask);
    return sigaction(sig, &act, nullptr) == 0;
}

void (*current_handler(int sig))(int) {
    struct sigaction now {};
    sigaction(sig, nullptr, &now);
    return now.sa_handler;
}

long thread_id() { return syscall(SYS_gettid); }

// What the counting handler saw.
std::atomic<int> handled{0};
std::atomic<int> handled_signo{0};
std::atomic<long> handler_tid{0};

void counting_handler(int sig) {
    handled_signo = sig;
    handler_tid = thread_id();
    handled.fetch_add(1);
}

void other_handler(int) {}

// What the SA_SIGINFO handler saw, in order of delivery.
struct Seen {
    int signo;
    int code;
    uintptr_t value;
    pid_t pid;
};
Seen seen[kMaxCalls];
std::atomic<int> seen_count{0};

void info_handler(int sig, siginfo_t *info, void *) {
    const int i = seen_count;
    if (i < kMaxCalls) {
        seen[i] = Seen{sig, info->si_code, reinterpret_cast<uintptr_t>(info->si_value.sival_ptr),
                       info->si_pid};
    }
    seen_count = i + 1;
}

// Waits until condition holds or the limit passes; true if it held.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Every signal a set can hold: the classic ones and the real-time ones (glibc keeps 32 and
// 33 for itself).
std::vector<int> every_signal() {
    std::vector<int> all;
    for (int s = 1; s < 32; ++s) all.push_back(s);
    for (int s = SIGRTMIN; s <= SIGRTMAX; ++s) all.push_back(s);
    return all;
}

bool all_bytes_are(const void *p, size_t n, unsigned char value) {
    const auto *bytes = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i)
        if (bytes[i] != value) return false;
    return true;
}

// ---- Descriptor sets ---------------------------------------------------------------------

using Words = std::array<uint64_t, 16>;
static_assert(sizeof(fd_set) == sizeof(Words), "a descriptor set is sixteen 64-bit words");

Words words_of(const fd_set &set) {
    Words words;
    std::memcpy(words.data(), &set, sizeof words);
    return words;
}

fd_set set_from(const Words &words) {
    fd_set set;
    std::memcpy(&set, words.data(), sizeof set);
    return set;
}

Words only_bit(int fd) {
    Words words{};
    words[static_cast<size_t>(fd / 64)] = uint64_t{1} << (fd % 64);
    return words;
}

const int kDescriptors[] = {0, 5, 63, 64, 1023};

}  // namespace

// ---- Signal sets -------------------------------------------------------------------------

TEST(Signal, SetFunctionsRefuseANullSetWithMinusOneAndLeaveErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigEmptySet(nullptr), -1);
    EXPECT_EQ(ZEPO_SigFillSet(nullptr), -1);
    EXPECT_EQ(ZEPO_SigAddSet(nullptr, SIGUSR1), -1);
    EXPECT_EQ(ZEPO_SigDelSet(nullptr, SIGUSR1), -1);
    EXPECT_EQ(ZEPO_SigIsMember(nullptr, SIGUSR1), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, EmptySetHoldsNoSignal) {
    sigset_t set;
    std::memset(&set, 0xFF, sizeof set);
    EXPECT_EQ(ZEPO_SigEmptySet(&set), 0);
    for (int s : every_signal()) {
        EXPECT_EQ(ZEPO_SigIsMember(&set, s), 0) << "signal " << s;
        EXPECT_EQ(sigismember(&set, s), 0) << "signal " << s;
    }
}

TEST(Signal, FilledSetHoldsEveryClassicAndRealTimeSignal) {
    sigset_t set;
    std::memset(&set, 0, sizeof set);
    EXPECT_EQ(ZEPO_SigFillSet(&set), 0);
    for (int s : every_signal()) {
        EXPECT_EQ(ZEPO_SigIsMember(&set, s), 1) << "signal " << s;
        EXPECT_EQ(sigismember(&set, s), 1) << "signal " << s;
    }
}

TEST(Signal, AddAndDelChangeOnlyTheirSignal) {
    sigset_t set;
    ASSERT_EQ(ZEPO_SigEmptySet(&set), 0);
    EXPECT_EQ(ZEPO_SigAddSet(&set, SIGUSR1), 0);
    EXPECT_EQ(ZEPO_SigAddSet(&set, SIGRTMAX), 0);
    EXPECT_EQ(ZEPO_SigIsMember(&set, SIGUSR1), 1);
    EXPECT_EQ(ZEPO_SigIsMember(&set, SIGRTMAX), 1);
    EXPECT_EQ(ZEPO_SigIsMember(&set, SIGUSR2), 0);
    EXPECT_EQ(sigismember(&set, SIGUSR1), 1);

    EXPECT_EQ(ZEPO_SigDelSet(&set, SIGUSR1), 0);
    EXPECT_EQ(ZEPO_SigIsMember(&set, SIGUSR1), 0);
    EXPECT_EQ(ZEPO_SigIsMember(&set, SIGRTMAX), 1);
    EXPECT_EQ(sigismember(&set, SIGUSR1), 0);

    ASSERT_EQ(ZEPO_SigFillSet(&set), 0);
    EXPECT_EQ(ZEPO_SigDelSet(&set, SIGTERM), 0);
    for (int s : every_signal()) EXPECT_EQ(ZEPO_SigIsMember(&set, s), s == SIGTERM ? 0 : 1) << s;
}

TEST(Signal, InvalidSignalNumbersGiveMinusOneWithEinvalFromTheSetFunctions) {
    sigset_t set;
    ASSERT_EQ(sigemptyset(&set), 0);
    for (int bad : {0, -1, NSIG, 9999}) {
        errno = 0;
        EXPECT_EQ(ZEPO_SigAddSet(&set, bad), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
        errno = 0;
        EXPECT_EQ(ZEPO_SigDelSet(&set, bad), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
        errno = 0;
        EXPECT_EQ(ZEPO_SigIsMember(&set, bad), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
    }
}

// ---- Dispositions ------------------------------------------------------------------------

TEST(Signal, SigActionInstallsAHandlerThatRunsOnRaise) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install(SIGUSR1, SIG_DFL));
    ASSERT_TRUE(unblock(SIGUSR1));

    struct sigaction act {};
    act.sa_handler = counting_handler;
    sigemptyset(&act.sa_mask);
    struct sigaction old;
    std::memset(&old, kPattern, sizeof old);
    EXPECT_EQ(ZEPO_SigAction(SIGUSR1, &act, &old), 0);
    EXPECT_EQ(old.sa_handler, SIG_DFL);
    EXPECT_EQ(current_handler(SIGUSR1), &counting_handler);

    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(handled.load(), 1);
    EXPECT_EQ(handled_signo.load(), SIGUSR1);
}

TEST(Signal, SigActionWithNullActionReportsTheCurrentOne) {
    DispositionGuard keep(SIGUSR1);
    ASSERT_TRUE(install(SIGUSR1, counting_handler));
    struct sigaction old;
    std::memset(&old, kPattern, sizeof old);
    EXPECT_EQ(ZEPO_SigAction(SIGUSR1, nullptr, &old), 0);
    EXPECT_EQ(old.sa_handler, &counting_handler);
    EXPECT_EQ(ZEPO_SigAction(SIGUSR1, nullptr, nullptr), 0);
    EXPECT_EQ(current_handler(SIGUSR1), &counting_handler);
}

TEST(Signal, SigActionOfAnInvalidOrUncatchableSignalGivesMinusOneWithEinval) {
    struct sigaction act {};
    act.sa_handler = other_handler;
    sigemptyset(&act.sa_mask);
    for (int bad : {0, -1, 9999, SIGKILL, SIGSTOP}) {
        errno = 0;
        EXPECT_EQ(ZEPO_SigAction(bad, &act, nullptr), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
    }
}

TEST(Signal, SignalInstallsTheHandlerOfAValidSignalAndGivesZero) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install(SIGUSR1, SIG_DFL));
    ASSERT_TRUE(unblock(SIGUSR1));

    EXPECT_EQ(ZEPO_Signal(SIGUSR1, counting_handler), 0);
    EXPECT_EQ(current_handler(SIGUSR1), &counting_handler);
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(handled.load(), 1);
}

TEST(Signal, SignalGivesZeroNotThePreviousHandler) {
    DispositionGuard keep(SIGUSR2);
    ASSERT_TRUE(install(SIGUSR2, counting_handler));
    EXPECT_EQ(ZEPO_Signal(SIGUSR2, other_handler), 0);  // signal() itself gives counting_handler
    EXPECT_EQ(current_handler(SIGUSR2), &other_handler);
    EXPECT_EQ(ZEPO_Signal(SIGUSR2, SIG_IGN), 0);
    EXPECT_EQ(current_handler(SIGUSR2), SIG_IGN);
}

TEST(Signal, SignalWithAnInvalidSignalNumberStillGivesZero) {
    EXPECT_EQ(ZEPO_Signal(0, counting_handler), 0);
    EXPECT_EQ(ZEPO_Signal(9999, counting_handler), 0);
    EXPECT_EQ(ZEPO_Signal(-1, counting_handler), 0);
    EXPECT_EQ(ZEPO_Signal(SIGKILL, counting_handler), 0);
    EXPECT_EQ(current_handler(SIGKILL), SIG_DFL);
}

// ---- Process mask and pending signals ----------------------------------------------------

TEST(Signal, ProcmaskWithNullNewSetIsRefusedAndDoesNotFillOld) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    for (int how : {SIG_BLOCK, SIG_UNBLOCK, SIG_SETMASK}) {
        sigset_t old;
        std::memset(&old, kPattern, sizeof old);
        errno = kSentinel;
        EXPECT_EQ(ZEPO_SigProcmask(how, nullptr, &old), -1) << how;
        EXPECT_EQ(errno, kSentinel) << how;
        EXPECT_TRUE(all_bytes_are(&old, sizeof old, kPattern)) << how;
        EXPECT_EQ(ZEPO_SigProcmask(how, nullptr, nullptr), -1) << how;
    }
    EXPECT_TRUE(is_blocked(SIGUSR2));
}

TEST(Signal, ProcmaskBlockKeepsARaisedSignalPendingAndUnblockDeliversIt) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install(SIGUSR1, counting_handler));
    ASSERT_TRUE(unblock(SIGUSR1));

    const sigset_t set = set_of(SIGUSR1);
    sigset_t old;
    std::memset(&old, kPattern, sizeof old);
    EXPECT_EQ(ZEPO_SigProcmask(SIG_BLOCK, &set, &old), 0);
    EXPECT_EQ(sigismember(&old, SIGUSR1), 0);
    EXPECT_TRUE(is_blocked(SIGUSR1));

    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(handled.load(), 0);
    sigset_t pending;
    std::memset(&pending, 0xFF, sizeof pending);
    EXPECT_EQ(ZEPO_SigPending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&pending, SIGUSR2), 0);

    EXPECT_EQ(ZEPO_SigProcmask(SIG_UNBLOCK, &set, &old), 0);
    EXPECT_EQ(sigismember(&old, SIGUSR1), 1);
    EXPECT_EQ(handled.load(),
              1);  // a pending signal unblocked is delivered before the call returns
    EXPECT_FALSE(is_pending(SIGUSR1));
    EXPECT_FALSE(is_blocked(SIGUSR1));
}

TEST(Signal, ProcmaskSetMaskReplacesTheMaskAndAcceptsANullOld) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR1));
    const sigset_t set = set_of(SIGUSR2);
    EXPECT_EQ(ZEPO_SigProcmask(SIG_SETMASK, &set, nullptr), 0);
    EXPECT_TRUE(is_blocked(SIGUSR2));
    EXPECT_FALSE(is_blocked(SIGUSR1));
}

TEST(Signal, ProcmaskWithAnUnknownHowGivesMinusOneWithEinval) {
    MaskGuard mask;
    const sigset_t set = set_of(SIGUSR2);
    errno = 0;
    EXPECT_EQ(ZEPO_SigProcmask(12345, &set, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(is_blocked(SIGUSR2));
}

TEST(Signal, PendingRefusesANullSet) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigPending(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, PendingFillsAnEmptySetWhenNothingIsPending) {
    sigset_t pending;
    std::memset(&pending, 0xFF, sizeof pending);
    EXPECT_EQ(ZEPO_SigPending(&pending), 0);
    for (int s : every_signal()) EXPECT_EQ(sigismember(&pending, s), 0) << s;
}

// ---- Suspension --------------------------------------------------------------------------

TEST(Signal, SigSuspendRefusesANullSet) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigSuspend(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, SigSuspendReturnsMinusOneWithEintrAfterAHandledSignal) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install(SIGUSR1, counting_handler));
    // Blocked first: the sender's signal waits, pending, until the suspension lets it in.
    ASSERT_TRUE(block(SIGUSR1));

    sigset_t during;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &during), 0);
    ASSERT_EQ(sigdelset(&during, SIGUSR1), 0);

    const pthread_t self = pthread_self();
    const long self_tid = thread_id();
    std::atomic<bool> suspending{false};
    std::atomic<int> sent{-1};
    std::thread sender([&] {  // inherits the blocked mask: the signal cannot land on it
        if (eventually([&] { return suspending.load(); })) sent = pthread_kill(self, SIGUSR1);
    });

    suspending = true;
    errno = 0;
    const int32_t result = ZEPO_SigSuspend(&during);
    const int error = errno;
    sender.join();

    EXPECT_EQ(sent.load(), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(handled.load(), 1);
    EXPECT_EQ(handler_tid.load(), self_tid);
    EXPECT_TRUE(is_blocked(SIGUSR1));  // the mask before the call is back
}

// ---- Thread mask and thread signals ------------------------------------------------------

TEST(Signal, PthreadSigmaskWithNullNewSetIsRefusedAndDoesNotFillOld) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    for (int how : {SIG_BLOCK, SIG_UNBLOCK, SIG_SETMASK}) {
        sigset_t old;
        std::memset(&old, kPattern, sizeof old);
        errno = kSentinel;
        EXPECT_EQ(ZEPO_PthreadSigmask(how, nullptr, &old), -1) << how;
        EXPECT_EQ(errno, kSentinel) << how;
        EXPECT_TRUE(all_bytes_are(&old, sizeof old, kPattern)) << how;
        EXPECT_EQ(ZEPO_PthreadSigmask(how, nullptr, nullptr), -1) << how;
    }
    EXPECT_TRUE(is_blocked(SIGUSR2));
}

TEST(Signal, PthreadSigmaskWithAnUnknownHowGivesTheErrorNumberEinval) {
    MaskGuard mask;
    const sigset_t set = set_of(SIGUSR2);
    sigset_t old;
    EXPECT_EQ(ZEPO_PthreadSigmask(12345, &set, &old), EINVAL);
    EXPECT_FALSE(is_blocked(SIGUSR2));
}

TEST(Signal, PthreadSigmaskChangesOnlyTheCallingThread) {
    MaskGuard mask;
    ASSERT_TRUE(unblock(SIGUSR2));
    std::atomic<int> masked{-100}, old_member{-100}, blocked_in_thread{-100}, unblocked{-100};
    std::thread worker([&] {
        const sigset_t set = set_of(SIGUSR2);
        sigset_t old;
        std::memset(&old, kPattern, sizeof old);
        masked = ZEPO_PthreadSigmask(SIG_BLOCK, &set, &old);
        old_member = sigismember(&old, SIGUSR2);
        blocked_in_thread = is_blocked(SIGUSR2) ? 1 : 0;
        unblocked = ZEPO_PthreadSigmask(SIG_UNBLOCK, &set, nullptr) == 0 && !is_blocked(SIGUSR2);
    });
    worker.join();
    EXPECT_EQ(masked.load(), 0);
    EXPECT_EQ(old_member.load(), 0);
    EXPECT_EQ(blocked_in_thread.load(), 1);
    EXPECT_EQ(unblocked.load(), 1);
    EXPECT_FALSE(is_blocked(SIGUSR2));
}

TEST(Signal, PthreadKillDeliversTheSignalToTheNamedThread) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install(SIGUSR1, counting_handler));
    ASSERT_TRUE(block(SIGUSR1));  // only the worker lets it in

    std::atomic<long> worker_tid{0};
    std::thread worker([&] {
        unblock(SIGUSR1);
        worker_tid = thread_id();
        eventually([] { return handled.load() > 0; });
    });
    ASSERT_TRUE(eventually([&] { return worker_tid.load() != 0; }));
    const int32_t result = ZEPO_PthreadKill(worker.native_handle(), SIGUSR1);
    worker.join();

    EXPECT_EQ(result, 0);
    EXPECT_EQ(handled.load(), 1);
    EXPECT_EQ(handler_tid.load(), worker_tid.load());
    EXPECT_FALSE(is_pending(SIGUSR1));
}

TEST(Signal, PthreadKillWithSignalZeroChecksTheThreadAndAnInvalidSignalGivesEinval) {
    EXPECT_EQ(ZEPO_PthreadKill(pthread_self(), 0), 0);
    EXPECT_EQ(ZEPO_PthreadKill(pthread_self(), 9999), EINVAL);
    EXPECT_EQ(ZEPO_PthreadKill(pthread_self(), -1), EINVAL);
}

// ---- Waiting for signals -----------------------------------------------------------------

TEST(Signal, SigWaitRefusesANullSetAndLeavesSigAlone) {
    int32_t sig = kSentinel;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigWait(nullptr, &sig), -1);
    EXPECT_EQ(sig, kSentinel);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, SigWaitReceivesABlockedRaisedSignal) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    ASSERT_TRUE(is_pending(SIGUSR2));

    const sigset_t set = set_of(SIGUSR2);
    int32_t sig = kSentinel;
    EXPECT_EQ(ZEPO_SigWait(&set, &sig), 0);
    EXPECT_EQ(sig, SIGUSR2);
    EXPECT_FALSE(is_pending(SIGUSR2));
}

TEST(Signal, SigWaitInfoRefusesANullSetOrInfoWithoutAllocating) {
    const sigset_t set = set_of(SIGUSR2);
    siginfo_t untouched;
    siginfo_t *info = &untouched;
    HeapWatchScope heap;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigWaitInfo(nullptr, &info), -1);
    EXPECT_EQ(info, &untouched);
    EXPECT_EQ(ZEPO_SigWaitInfo(&set, nullptr), -1);
    EXPECT_EQ(ZEPO_SigWaitInfo(nullptr, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(watch.requests.load(), 0);
    EXPECT_EQ(non_null_releases(), 0);
}

TEST(Signal, SigWaitInfoGivesTheNumberOfABlockedPendingSignal) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    siginfo_t *info = nullptr;
    EXPECT_EQ(ZEPO_SigWaitInfo(&set, &info), SIGUSR2);
    EXPECT_FALSE(is_pending(SIGUSR2));
}

TEST(Signal, SigWaitInfoStoresTheAddressOfA128ByteRecordReleasedBeforeItReturns) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    siginfo_t *info = nullptr;

    HeapWatchScope heap;
    const int32_t result = ZEPO_SigWaitInfo(&set, &info);
    heap.stop();

    EXPECT_EQ(result, SIGUSR2);
    ASSERT_EQ(watch.requests.load(), 1);
    ASSERT_EQ(watch.releases.load(), 1);
    const HeapCall &made = watch.request[0];
    const HeapCall &freed = watch.release[0];
    ASSERT_NE(made.block, nullptr);
    EXPECT_EQ(made.size, kRecordSize);
    EXPECT_EQ(made.type, 0u);
    EXPECT_EQ(text_of(made.file), kSignalSource);
    EXPECT_GT(made.line, 0u);
    // Only the address is compared: the record is gone, and nothing reads through it.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info), reinterpret_cast<uintptr_t>(made.block));
    EXPECT_EQ(freed.block, made.block);
    EXPECT_EQ(freed.type, 0u);
    EXPECT_EQ(text_of(freed.file), kSignalSource);
    EXPECT_EQ(freed.signo_held, SIGUSR2);  // the wait filled that very record
}

TEST(Signal, SigWaitInfoAllocationFailureGivesMinusOneStoresNullAndDoesNotWait) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    siginfo_t untouched;
    siginfo_t *info = &untouched;

    HeapWatchScope heap(/*fail=*/true);
    const int32_t result = ZEPO_SigWaitInfo(&set, &info);
    heap.stop();

    EXPECT_EQ(result, -1);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(watch.requests.load(), 1);
    EXPECT_EQ(non_null_releases(), 0);
    EXPECT_TRUE(is_pending(SIGUSR2));  // a wait would have taken it
}

TEST(Signal, SigTimedWaitRefusesANullSetOrInfoWithoutAllocating) {
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{0, 1000000};
    siginfo_t untouched;
    siginfo_t *info = &untouched;
    HeapWatchScope heap;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SigTimedWait(nullptr, &info, &timeout), -1);
    EXPECT_EQ(info, &untouched);
    EXPECT_EQ(ZEPO_SigTimedWait(&set, nullptr, &timeout), -1);
    EXPECT_EQ(ZEPO_SigTimedWait(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(watch.requests.load(), 0);
    EXPECT_EQ(non_null_releases(), 0);
}

TEST(Signal, SigTimedWaitGivesTheNumberOfABlockedPendingSignal) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{20, 0};
    siginfo_t *info = nullptr;
    EXPECT_EQ(ZEPO_SigTimedWait(&set, &info, &timeout), SIGUSR2);
    EXPECT_FALSE(is_pending(SIGUSR2));
}

TEST(Signal, SigTimedWaitPassesANullTimeoutOnAndWaitsWithoutLimit) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    siginfo_t *info = nullptr;
    EXPECT_EQ(ZEPO_SigTimedWait(&set, &info, nullptr), SIGUSR2);
    EXPECT_FALSE(is_pending(SIGUSR2));
}

TEST(Signal, SigTimedWaitStoresTheAddressOfA128ByteRecordReleasedBeforeItReturns) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{20, 0};
    siginfo_t *info = nullptr;

    HeapWatchScope heap;
    const int32_t result = ZEPO_SigTimedWait(&set, &info, &timeout);
    heap.stop();

    EXPECT_EQ(result, SIGUSR2);
    ASSERT_EQ(watch.requests.load(), 1);
    ASSERT_EQ(watch.releases.load(), 1);
    const HeapCall &made = watch.request[0];
    const HeapCall &freed = watch.release[0];
    ASSERT_NE(made.block, nullptr);
    EXPECT_EQ(made.size, kRecordSize);
    EXPECT_EQ(made.type, 0u);
    EXPECT_EQ(text_of(made.file), kSignalSource);
    EXPECT_GT(made.line, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info), reinterpret_cast<uintptr_t>(made.block));
    EXPECT_EQ(freed.block, made.block);
    EXPECT_EQ(freed.type, 0u);
    EXPECT_EQ(text_of(freed.file), kSignalSource);
    EXPECT_EQ(freed.signo_held, SIGUSR2);
}

TEST(Signal, SigTimedWaitAllocationFailureGivesMinusOneStoresNullAndDoesNotWait) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_EQ(raise(SIGUSR2), 0);
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{20, 0};
    siginfo_t untouched;
    siginfo_t *info = &untouched;

    HeapWatchScope heap(/*fail=*/true);
    const int32_t result = ZEPO_SigTimedWait(&set, &info, &timeout);
    heap.stop();

    EXPECT_EQ(result, -1);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(watch.requests.load(), 1);
    EXPECT_EQ(non_null_releases(), 0);
    EXPECT_TRUE(is_pending(SIGUSR2));
}

TEST(Signal, SigTimedWaitWithoutASignalGivesMinusOneWithEagainAfterTheTimeout) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    ASSERT_FALSE(is_pending(SIGUSR2));
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{0, 200 * 1000 * 1000};
    siginfo_t *info = nullptr;

    HeapWatchScope heap;
    errno = 0;
    const auto start = std::chrono::steady_clock::now();
    const int32_t result = ZEPO_SigTimedWait(&set, &info, &timeout);
    const int error = errno;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    heap.stop();

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EAGAIN);
    EXPECT_GE(elapsed, std::chrono::milliseconds(200));
    EXPECT_LT(elapsed, kLimit);
    ASSERT_EQ(watch.requests.load(), 1);
    ASSERT_EQ(watch.releases.load(), 1);
    EXPECT_EQ(watch.request[0].size, kRecordSize);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info),
              reinterpret_cast<uintptr_t>(watch.request[0].block));
    EXPECT_EQ(watch.release[0].block, watch.request[0].block);
}

TEST(Signal, SigTimedWaitGivesTheServiceErrorOfAnInvalidTimeout) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR2));
    const sigset_t set = set_of(SIGUSR2);
    const timespec timeout{0, 2000000000};  // nanoseconds out of range: not checked here
    siginfo_t *info = nullptr;

    HeapWatchScope heap;
    errno = 0;
    const int32_t result = ZEPO_SigTimedWait(&set, &info, &timeout);
    const int error = errno;
    heap.stop();

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINVAL);
    ASSERT_EQ(watch.releases.load(), 1);
    EXPECT_EQ(watch.release[0].block, watch.request[0].block);
}

// ---- Queued signals ----------------------------------------------------------------------

TEST(Signal, SigQueueToItselfCarriesThe64BitValueWithCodeSiQueue) {
    DispositionGuard keep(SIGUSR1);
    MaskGuard mask;
    ASSERT_TRUE(install_info(SIGUSR1, info_handler));
    ASSERT_TRUE(block(SIGUSR1));  // held until the test is ready to see it

    constexpr uint64_t kValue = UINT64_C(0x8877665544332211);
    EXPECT_EQ(ZEPO_SigQueue(static_cast<int32_t>(getpid()), SIGUSR1, kValue), 0);
    EXPECT_TRUE(is_pending(SIGUSR1));
    ASSERT_TRUE(unblock(SIGUSR1));
    ASSERT_TRUE(eventually([] { return seen_count.load() >= 1; }));

    EXPECT_EQ(seen_count.load(), 1);
    EXPECT_EQ(seen[0].signo, SIGUSR1);
    EXPECT_EQ(seen[0].code, SI_QUEUE);
    EXPECT_EQ(seen[0].value, kValue);
    EXPECT_EQ(seen[0].pid, getpid());
}

TEST(Signal, SigQueueOfARealTimeSignalQueuesEveryValueInOrder) {
    const int sig = SIGRTMIN + 1;
    DispositionGuard keep(sig);
    MaskGuard mask;
    ASSERT_TRUE(install_info(sig, info_handler));
    ASSERT_TRUE(block(sig));

    const uint64_t values[] = {1, UINT64_C(0xFFFFFFFF00000000), UINT64_MAX};
    for (uint64_t v : values) EXPECT_EQ(ZEPO_SigQueue(static_cast<int32_t>(getpid()), sig, v), 0);
    ASSERT_TRUE(unblock(sig));
    ASSERT_TRUE(eventually([] { return seen_count.load() >= 3; }));

    EXPECT_EQ(seen_count.load(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(seen[i].signo, sig) << i;
        EXPECT_EQ(seen[i].code, SI_QUEUE) << i;
        EXPECT_EQ(seen[i].value, values[i]) << i;
    }
}

TEST(Signal, SigQueueReachesAForkedChildWithItsValue) {
    MaskGuard mask;
    ASSERT_TRUE(block(SIGUSR1));  // the child inherits the mask and takes the signal by waiting
    constexpr uint64_t kValue = UINT64_C(0x0123456789ABCDEF);

    const pid_t child = fork();
    ASSERT_NE(child, -1) << std::strerror(errno);
    if (child == 0) {
        const sigset_t set = set_of(SIGUSR1);
        siginfo_t info;
        const timespec limit{30, 0};
        if (sigtimedwait(&set, &info, &limit) != SIGUSR1) _exit(10);
        if (info.si_code != SI_QUEUE) _exit(11);
        if (reinterpret_cast<uintptr_t>(info.si_value.sival_ptr) != kValue) _exit(12);
        if (info.si_pid != getppid()) _exit(13);
        _exit(0);
    }

    const int32_t result = ZEPO_SigQueue(static_cast<int32_t>(child), SIGUSR1, kValue);
    if (result != 0) kill(child, SIGKILL);  // our own child: do not let it wait for nothing
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_EQ(result, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no signal, 11: code, 12: value, 13: sender";
}

TEST(Signal, SigQueueOfAnInvalidSignalGivesMinusOneWithEinval) {
    for (int bad : {-1, 9999}) {
        errno = 0;
        EXPECT_EQ(ZEPO_SigQueue(static_cast<int32_t>(getpid()), bad, 1), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
    }
}

TEST(Signal, SigQueueOfSignalZeroOnlyChecksTheProcess) {
    EXPECT_EQ(ZEPO_SigQueue(static_cast<int32_t>(getpid()), 0, 7), 0);
    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    for (int s : every_signal()) EXPECT_EQ(sigismember(&pending, s), 0) << s;
}

// ---- Descriptor sets ---------------------------------------------------------------------

TEST(Signal, FdZeroClearsAllSixteenWords) {
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    ZEPO_FD_ZERO(&set);
    EXPECT_EQ(words_of(set), Words{});
}

TEST(Signal, FdSetSetsTheBitOfItsWordAndNothingElse) {
    Words all{};
    fd_set together;
    std::memset(&together, 0, sizeof together);
    for (int fd : kDescriptors) {
        fd_set set;
        std::memset(&set, 0, sizeof set);
        ZEPO_FD_SET(fd, &set);
        EXPECT_EQ(words_of(set), only_bit(fd)) << "fd " << fd;

        ZEPO_FD_SET(fd, &together);
        all[static_cast<size_t>(fd / 64)] |= uint64_t{1} << (fd % 64);
        EXPECT_EQ(words_of(together), all) << "fd " << fd;
    }
}

TEST(Signal, FdClrClearsTheBitOfItsWordAndNothingElse) {
    for (int fd : kDescriptors) {
        fd_set set;
        std::memset(&set, 0xFF, sizeof set);
        ZEPO_FD_CLR(fd, &set);
        Words expected;
        expected.fill(~uint64_t{0});
        expected[static_cast<size_t>(fd / 64)] &= ~(uint64_t{1} << (fd % 64));
        EXPECT_EQ(words_of(set), expected) << "fd " << fd;
    }
}

TEST(Signal, FdIsSetTestsTheBitOfItsWord) {
    for (int fd : kDescriptors) {
        const fd_set only = set_from(only_bit(fd));
        EXPECT_EQ(ZEPO_FD_ISSET(fd, &only), 1) << "fd " << fd;
        if (fd > 0) {
            EXPECT_EQ(ZEPO_FD_ISSET(fd - 1, &only), 0) << "fd " << fd;
        }
        if (fd < 1023) {
            EXPECT_EQ(ZEPO_FD_ISSET(fd + 1, &only), 0) << "fd " << fd;
        }

        Words rest;
        rest.fill(~uint64_t{0});
        rest[static_cast<size_t>(fd / 64)] &= ~(uint64_t{1} << (fd % 64));
        const fd_set all_but = set_from(rest);
        EXPECT_EQ(ZEPO_FD_ISSET(fd, &all_but), 0) << "fd " << fd;
    }
}

TEST(Signal, FdIsSetGivesExactlyOneNotTheRawBit) {
    Words full;
    full.fill(~uint64_t{0});
    const fd_set set = set_from(full);
    for (int fd = 0; fd < 1024; ++fd) ASSERT_EQ(ZEPO_FD_ISSET(fd, &set), 1) << "fd " << fd;
}

TEST(Signal, FdSetClrAndIsSetAgreeWithTheCLibraryForEveryDescriptor) {
    for (int fd = 0; fd < 1024; ++fd) {
        fd_set ours, theirs;
        std::memset(&ours, 0, sizeof ours);
        std::memset(&theirs, 0, sizeof theirs);
        ZEPO_FD_SET(fd, &ours);
        FD_SET(fd, &theirs);
        ASSERT_EQ(words_of(ours), words_of(theirs)) << "fd " << fd;
        ASSERT_EQ(ZEPO_FD_ISSET(fd, &ours), 1) << "fd " << fd;
        ZEPO_FD_CLR(fd, &ours);
        ASSERT_EQ(words_of(ours), Words{}) << "fd " << fd;
        ASSERT_EQ(ZEPO_FD_ISSET(fd, &ours), 0) << "fd " << fd;
    }
}

TEST(Signal, FdIsSetOfANullSetGivesZero) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_FD_ISSET(5, nullptr), 0);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, FdIsSetAfterZeroAndSetOfFiveGivesOneForFiveAndZeroForSix) {
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    ZEPO_FD_ZERO(&set);
    ZEPO_FD_SET(5, &set);
    EXPECT_EQ(ZEPO_FD_ISSET(5, &set), 1);
    EXPECT_EQ(ZEPO_FD_ISSET(6, &set), 0);
}

TEST(Signal, FdSetClrAndZeroOfANullSetDoNothing) {
    errno = kSentinel;
    ZEPO_FD_SET(5, nullptr);
    ZEPO_FD_CLR(5, nullptr);
    ZEPO_FD_ZERO(nullptr);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Signal, NullSetIsRefusedBeforeTheDescriptorIsChecked) {
    ZEPO_FD_SET(1024, nullptr);
    ZEPO_FD_CLR(-1, nullptr);
    EXPECT_EQ(ZEPO_FD_ISSET(1024, nullptr), 0);
    EXPECT_EQ(ZEPO_FD_ISSET(-1, nullptr), 0);
}

TEST(Signal, FdSetsWorkWithSelectOnAPipe) {
    int ready[2], idle[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(idle), 0);
    ASSERT_EQ(write(ready[1], "x", 1), 1);

    fd_set set;
    ZEPO_FD_ZERO(&set);
    ZEPO_FD_SET(ready[0], &set);
    ZEPO_FD_SET(idle[0], &set);
    timeval limit{20, 0};
    const int highest = ready[0] > idle[0] ? ready[0] : idle[0];
    EXPECT_EQ(select(highest + 1, &set, nullptr, nullptr, &limit), 1);
    EXPECT_EQ(ZEPO_FD_ISSET(ready[0], &set), 1);
    EXPECT_EQ(ZEPO_FD_ISSET(idle[0], &set), 0);

    for (int fd : {ready[0], ready[1], idle[0], idle[1]}) close(fd);
}

// The C library's fortified check ends the process with SIGABRT and this message.
constexpr const char *kOutOfRange = "bit out of range 0 - FD_SETSIZE on fd_set";

TEST(SignalDeathTest, FdSetOfDescriptor1024EndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0, sizeof set);
    EXPECT_EXIT(ZEPO_FD_SET(1024, &set), testing::KilledBySignal(SIGABRT), kOutOfRange);
}

TEST(SignalDeathTest, FdSetOfANegativeDescriptorEndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0, sizeof set);
    EXPECT_EXIT(ZEPO_FD_SET(-1, &set), testing::KilledBySignal(SIGABRT), kOutOfRange);
}

TEST(SignalDeathTest, FdClrOfDescriptor1024EndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    EXPECT_EXIT(ZEPO_FD_CLR(1024, &set), testing::KilledBySignal(SIGABRT), kOutOfRange);
}

TEST(SignalDeathTest, FdClrOfANegativeDescriptorEndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    EXPECT_EXIT(ZEPO_FD_CLR(-1, &set), testing::KilledBySignal(SIGABRT), kOutOfRange);
}

TEST(SignalDeathTest, FdIsSetOfDescriptor1024EndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    EXPECT_EXIT(static_cast<void>(ZEPO_FD_ISSET(1024, &set)), testing::KilledBySignal(SIGABRT),
                kOutOfRange);
}

TEST(SignalDeathTest, FdIsSetOfANegativeDescriptorEndsTheProcessThroughTheFortifiedCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    EXPECT_EXIT(static_cast<void>(ZEPO_FD_ISSET(-1, &set)), testing::KilledBySignal(SIGABRT),
                kOutOfRange);
}
