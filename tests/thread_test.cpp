// Threads, condition variables, thread attributes, identity, priorities, processes, sleeps,
// dynamic loading and the system name.
//
// A few C library functions are given test-only definitions in this executable.  The library
// calls the C library through the dynamic linker, so it reaches these definitions first; each
// one forwards to the C library's own (dlsym(RTLD_NEXT, ...)) unless a test switches its
// stand-in behaviour on, and switches it off again before it ends (see the Scoped* guards).
// They let the tests fix the clock a timed wait reads, see the deadline it computes, choose
// what the platform answers, and make calls fail that cannot be made to fail otherwise.
// `reboot` is never forwarded: it only records its argument and refuses.
//
// Every test runs in its own process under ctest; the tests that change process-wide state
// (priorities, exit handlers) do it in a forked child.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "qel_mutex.h"
#include "qel_thread.h"

#include "test_support.h"

namespace {

using qel_test::kSentinel;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;

using qel_test::next_definition;

// ---- State of the interposed functions ---------------------------------------------------
// Plain constant-initialised data only: some of these functions may be called before any
// constructor of this file has run.

// clock_gettime: while fixed, every call returns g_clock_now and is counted.
std::atomic<bool> g_clock_fixed{false};
timespec g_clock_now{};
std::atomic<int> g_clock_reads{0};
std::atomic<int> g_clock_last_id{-1};

// pthread_cond_timedwait: every call is recorded; while stubbed, nothing waits and
// g_wait_result is returned.
std::mutex g_wait_lock;
std::atomic<bool> g_wait_stubbed{false};
std::atomic<int> g_wait_result{0};
int g_wait_calls = 0;
timespec g_wait_deadline{};
pthread_cond_t *g_wait_cond = nullptr;
pthread_mutex_t *g_wait_mutex = nullptr;

// pthread_cond_init / pthread_cond_destroy / pthread_create: while failing, return the
// chosen error number without calling the platform.
std::atomic<int> g_cond_init_fail{0};
std::atomic<int> g_cond_init_calls{0};
std::atomic<pthread_cond_t *> g_cond_init_cond{nullptr};
std::atomic<const pthread_condattr_t *> g_cond_init_attr{nullptr};
std::atomic<int> g_cond_destroy_fail{0};
std::atomic<int> g_cond_destroy_calls{0};
std::atomic<pthread_cond_t *> g_cond_destroy_cond{nullptr};
std::atomic<int> g_create_fail{0};
std::atomic<int> g_create_calls{0};

// usleep: every call is recorded; while stubbed, nothing sleeps, g_usleep_result is returned
// and, when it is -1, errno is set to g_usleep_errno.
std::atomic<bool> g_usleep_stubbed{false};
std::atomic<int> g_usleep_result{0};
std::atomic<int> g_usleep_errno{0};
std::atomic<int> g_usleep_calls{0};
std::atomic<uint64_t> g_usleep_arg{0};

// reboot: never forwarded.
std::atomic<int> g_reboot_calls{0};
std::atomic<int> g_reboot_arg{0};

// uname: records the buffer and what it held on entry; while failing, returns -1 with
// EFAULT and writes nothing.
std::atomic<bool> g_uname_fail{false};
std::atomic<int> g_uname_calls{0};
std::atomic<struct utsname *> g_uname_buffer{nullptr};
std::atomic<bool> g_uname_front_clear_on_entry{false};
std::atomic<bool> g_uname_tail_untouched_on_entry{false};

// dlopen / dlclose: dlopen records its file and mode; while failing, dlclose returns -1
// without closing.
std::atomic<int> g_dlopen_calls{0};
std::atomic<int> g_dlopen_mode{-1};
char g_dlopen_file[256] = {};
std::atomic<bool> g_dlclose_fail{false};
std::atomic<int> g_dlclose_calls{0};
std::atomic<void *> g_dlclose_handle{nullptr};

// The size of struct utsname that ZEPO_GetOsVersion clears: its first five fields.
constexpr std::size_t kClearedUtsBytes = 325;

}  // namespace

// ---- Interposed C library functions ----------------------------------------------------

extern "C" int clock_gettime(clockid_t id, struct timespec *now) __THROW {
    using Fn = int (*)(clockid_t, struct timespec *);
    static const Fn next = next_definition<Fn>("clock_gettime");
    if (g_clock_fixed.load()) {
        g_clock_reads.fetch_add(1);
        g_clock_last_id.store(static_cast<int>(id));
        *now = g_clock_now;
        return 0;
    }
    return next(id, now);
}

extern "C" int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                      const struct timespec *deadline) {
    using Fn = int (*)(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
    static const Fn next = next_definition<Fn>("pthread_cond_timedwait");
    {
        std::lock_guard<std::mutex> hold(g_wait_lock);
        ++g_wait_calls;
        g_wait_deadline = *deadline;
        g_wait_cond = cond;
        g_wait_mutex = mutex;
    }
    if (g_wait_stubbed.load()) return g_wait_result.load();
    return next(cond, mutex, deadline);
}

extern "C" int pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr) __THROW {
    using Fn = int (*)(pthread_cond_t *, const pthread_condattr_t *);
    static const Fn next = next_definition<Fn>("pthread_cond_init");
    g_cond_init_calls.fetch_add(1);
    g_cond_init_cond.store(cond);
    g_cond_init_attr.store(attr);
    if (const int error = g_cond_init_fail.load(); error != 0) return error;
    return next(cond, attr);
}

extern "C" int pthread_cond_destroy(pthread_cond_t *cond) __THROW {
    using Fn = int (*)(pthread_cond_t *);
    static const Fn next = next_definition<Fn>("pthread_cond_destroy");
    g_cond_destroy_calls.fetch_add(1);
    g_cond_destroy_cond.store(cond);
    if (const int error = g_cond_destroy_fail.load(); error != 0) return error;
    return next(cond);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *),
                              void *arg) __THROWNL {
    using Fn = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const Fn next = next_definition<Fn>("pthread_create");
    g_create_calls.fetch_add(1);
    if (const int error = g_create_fail.load(); error != 0) return error;
    return next(thread, attr, start, arg);
}

extern "C" int usleep(useconds_t us) {
    using Fn = int (*)(useconds_t);
    static const Fn next = next_definition<Fn>("usleep");
    g_usleep_calls.fetch_add(1);
    g_usleep_arg.store(us);
    if (g_usleep_stubbed.load()) {
        const int result = g_usleep_result.load();
        if (result == -1) errno = g_usleep_errno.load();
        return result;
    }
    return next(us);
}

extern "C" int reboot(int howTo) __THROW {
    g_reboot_calls.fetch_add(1);
    g_reboot_arg.store(howTo);
    errno = EPERM;
    return -1;
}

extern "C" int uname(struct utsname *buffer) __THROW {
    using Fn = int (*)(struct utsname *);
    static const Fn next = next_definition<Fn>("uname");
    g_uname_calls.fetch_add(1);
    g_uname_buffer.store(buffer);
    const auto *bytes = reinterpret_cast<const unsigned char *>(buffer);
    bool front_clear = true;
    for (std::size_t i = 0; i < kClearedUtsBytes; ++i) front_clear = front_clear && bytes[i] == 0;
    bool tail_untouched = true;
    for (std::size_t i = kClearedUtsBytes; i < sizeof(struct utsname); ++i)
        tail_untouched = tail_untouched && bytes[i] == 'X';
    g_uname_front_clear_on_entry.store(front_clear);
    g_uname_tail_untouched_on_entry.store(tail_untouched);
    if (g_uname_fail.load()) {
        errno = EFAULT;
        return -1;
    }
    return next(buffer);
}

extern "C" void *dlopen(const char *file, int mode) __THROWNL {
    using Fn = void *(*)(const char *, int);
    static const Fn next = next_definition<Fn>("dlopen");
    g_dlopen_calls.fetch_add(1);
    g_dlopen_mode.store(mode);
    std::size_t i = 0;
    for (; file != nullptr && file[i] != '\0' && i + 1 < sizeof g_dlopen_file; ++i)
        g_dlopen_file[i] = file[i];
    g_dlopen_file[i] = '\0';
    return next(file, mode);
}

extern "C" int dlclose(void *handle) __THROWNL {
    using Fn = int (*)(void *);
    static const Fn next = next_definition<Fn>("dlclose");
    g_dlclose_calls.fetch_add(1);
    g_dlclose_handle.store(handle);
    if (g_dlclose_fail.load()) return -1;
    return next(handle);
}

namespace {

// ---- Helpers -----------------------------------------------------------------------------

// The platform's clock, whatever the interposed clock_gettime is set to.
timespec real_now(clockid_t id) {
    using Fn = int (*)(clockid_t, struct timespec *);
    static const Fn next = next_definition<Fn>("clock_gettime");
    timespec now{};
    next(id, &now);
    return now;
}

int64_t to_ns(const timespec &t) { return int64_t{t.tv_sec} * kNsPerSecond + t.tv_nsec; }

int64_t monotonic_ns() { return to_ns(real_now(CLOCK_MONOTONIC)); }

// Fixes the clock every clock_gettime call reads while it lives, and counts those calls.
class ScopedFixedClock {
public:
    explicit ScopedFixedClock(timespec now) {
        g_clock_now = now;
        g_clock_reads.store(0);
        g_clock_last_id.store(-1);
        g_clock_fixed.store(true);
    }
    ~ScopedFixedClock() { g_clock_fixed.store(false); }
    ScopedFixedClock(const ScopedFixedClock &) = delete;
    ScopedFixedClock &operator=(const ScopedFixedClock &) = delete;
};

// Makes pthread_cond_timedwait return `result` at once, without waiting, while it lives.
class ScopedStubbedWait {
public:
    explicit ScopedStubbedWait(int result) {
        g_wait_result.store(result);
        g_wait_stubbed.store(true);
    }
    ~ScopedStubbedWait() { g_wait_stubbed.store(false); }
    ScopedStubbedWait(const ScopedStubbedWait &) = delete;
    ScopedStubbedWait &operator=(const ScopedStubbedWait &) = delete;
};

// Sets an atomic switch while it lives and clears it after.
template <typename T>
class ScopedSwitch {
public:
    ScopedSwitch(std::atomic<T> &target, T value) : target_(target) { target_.store(value); }
    ~ScopedSwitch() { target_.store(T{}); }
    ScopedSwitch(const ScopedSwitch &) = delete;
    ScopedSwitch &operator=(const ScopedSwitch &) = delete;

private:
    std::atomic<T> &target_;
};

struct WaitRecord {
    int calls;
    timespec deadline;
    pthread_cond_t *cond;
    pthread_mutex_t *mutex;
};

void reset_wait_record() {
    std::lock_guard<std::mutex> hold(g_wait_lock);
    g_wait_calls = 0;
    g_wait_deadline = timespec{-1, -1};
    g_wait_cond = nullptr;
    g_wait_mutex = nullptr;
}

WaitRecord wait_record() {
    std::lock_guard<std::mutex> hold(g_wait_lock);
    return WaitRecord{g_wait_calls, g_wait_deadline, g_wait_cond, g_wait_mutex};
}

enum class Clock { Real, Monotonic };

void PrintTo(Clock clock, std::ostream *out) {
    *out << (clock == Clock::Real ? "real-time" : "monotonic");
}

int timed_wait(Clock clock, pthread_cond_t *cond, pthread_mutex_t *mutex, uint32_t timeoutUs) {
    return clock == Clock::Real ? ZEPO_PthreadCondTimedWait(cond, mutex, timeoutUs)
                                : ZEPO_PthreadCondTimedWait_Clock(cond, mutex, timeoutUs);
}

// What one timed wait did with the clock fixed at `now` and the platform wait stubbed to
// answer `platform_result`.
struct Outcome {
    int result;
    int clock_reads;
    int clock_id;
    WaitRecord wait;
};

Outcome stubbed_wait(Clock clock, timespec now, uint32_t timeoutUs, int platform_result = 0) {
    static pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    reset_wait_record();
    Outcome outcome{};
    {
        ScopedStubbedWait stub(platform_result);
        ScopedFixedClock fixed(now);
        outcome.result = timed_wait(clock, &cond, &mutex, timeoutUs);
        outcome.clock_reads = g_clock_reads.load();
        outcome.clock_id = g_clock_last_id.load();
    }
    outcome.wait = wait_record();
    EXPECT_EQ(outcome.wait.cond, &cond);
    EXPECT_EQ(outcome.wait.mutex, &mutex);
    return outcome;
}

void expect_deadline(const Outcome &outcome, time_t seconds, long nanoseconds) {
    EXPECT_EQ(outcome.wait.calls, 1);
    EXPECT_EQ(outcome.wait.deadline.tv_sec, seconds);
    EXPECT_EQ(outcome.wait.deadline.tv_nsec, nanoseconds);
}

// Polls `done` every millisecond for at most `limit_ms`; true when it came true.
template <typename Predicate>
bool eventually(Predicate done, int64_t limit_ms = 10000) {
    const int64_t end = monotonic_ns() + limit_ms * kNsPerMs;
    while (!done()) {
        if (monotonic_ns() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs `wait(cond, mutex)` on `waiters` threads, each under `mutex` until released; once all
// are known to be inside their wait (a waiter announces itself under the mutex and gives it up
// only inside the wait), sets the release flag under the mutex and calls `wake(cond)`.  A
// waiter that is not woken within 10 s is freed with a broadcast and reported.  Returns the
// results of every wait of every waiter.
template <typename Wait, typename Wake>
std::vector<int> woken_waits(pthread_cond_t *cond, pthread_mutex_t *mutex, int waiters, Wait wait,
                             Wake wake) {
    int waiting = 0;
    bool released = false;
    std::atomic<int> finished{0};
    std::vector<int> results;
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i) {
        threads.emplace_back([&] {
            pthread_mutex_lock(mutex);
            ++waiting;
            while (!released) {
                const int result = wait(cond, mutex);
                results.push_back(result);
                if (result != 0) break;
            }
            pthread_mutex_unlock(mutex);
            finished.fetch_add(1);
        });
    }
    const bool all_waiting = eventually([&] {
        pthread_mutex_lock(mutex);
        const bool all = waiting == waiters;
        pthread_mutex_unlock(mutex);
        return all;
    });
    EXPECT_TRUE(all_waiting);
    pthread_mutex_lock(mutex);
    released = true;
    const int woke = wake(cond);
    pthread_mutex_unlock(mutex);
    EXPECT_EQ(woke, 0);
    if (!eventually([&] { return finished.load() == waiters; })) {
        ADD_FAILURE() << "a waiter was not woken";
        while (finished.load() != waiters) {
            pthread_mutex_lock(mutex);
            pthread_cond_broadcast(cond);
            pthread_mutex_unlock(mutex);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    for (auto &thread : threads) thread.join();
    return results;
}

void expect_all_zero(const std::vector<int> &results, std::size_t at_least) {
    EXPECT_GE(results.size(), at_least);
    for (const int result : results) EXPECT_EQ(result, 0);
}

// A condition variable whose attribute clock is CLOCK_MONOTONIC.
void init_monotonic_cond(pthread_cond_t *cond) {
    pthread_condattr_t attr;
    ASSERT_EQ(pthread_condattr_init(&attr), 0);
    ASSERT_EQ(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC), 0);
    ASSERT_EQ(pthread_cond_init(cond, &attr), 0);
    pthread_condattr_destroy(&attr);
}

// Runs `body` in a forked child that ends with its result through _exit; returns the
// child's wait status, or -1 when the fork failed.
template <typename Body>
int status_of_child(Body body) {
    const pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) ::_exit(body());
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return status;
}

void expect_exited_with(int status, int code) {
    ASSERT_NE(status, -1) << "fork or waitpid failed";
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), code);
}

uint64_t handle_of(pthread_t thread) { return static_cast<uint64_t>(thread); }

}  // namespace

// ---- Timed waits: refusals -----------------------------------------------------------------

class ThreadCondTimedWaitBothClocks : public testing::TestWithParam<Clock> {};

INSTANTIATE_TEST_SUITE_P(, ThreadCondTimedWaitBothClocks,
                         testing::Values(Clock::Real, Clock::Monotonic),
                         [](const testing::TestParamInfo<Clock> &info) {
                             return std::string(info.param == Clock::Real ? "RealTime"
                                                                          : "Monotonic");
                         });

TEST_P(ThreadCondTimedWaitBothClocks, ZeroTimeoutGivesMinusOneAtOnceWithoutReadingClockOrWaiting) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    reset_wait_record();
    const int64_t start = monotonic_ns();
    int result = 0;
    int reads = 0;
    errno = kSentinel;
    {
        ScopedFixedClock fixed(real_now(CLOCK_REALTIME));
        result = timed_wait(GetParam(), &cond, &mutex, 0);
        reads = g_clock_reads.load();
    }
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(result, -1);
    EXPECT_LT(monotonic_ns() - start, 5 * kNsPerSecond);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(wait_record().calls, 0);
    pthread_mutex_unlock(&mutex);
}

TEST_P(ThreadCondTimedWaitBothClocks, NullConditionGivesMinusOneWithoutWaiting) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    reset_wait_record();
    int reads = 0;
    errno = kSentinel;
    {
        ScopedFixedClock fixed(timespec{100, 0});
        EXPECT_EQ(timed_wait(GetParam(), nullptr, &mutex, 1000), -1);
        reads = g_clock_reads.load();
    }
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(wait_record().calls, 0);
}

TEST_P(ThreadCondTimedWaitBothClocks, NullMutexGivesMinusOneWithoutWaiting) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    reset_wait_record();
    int reads = 0;
    errno = kSentinel;
    {
        ScopedFixedClock fixed(timespec{100, 0});
        EXPECT_EQ(timed_wait(GetParam(), &cond, nullptr, 1000), -1);
        reads = g_clock_reads.load();
    }
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(wait_record().calls, 0);
}

// ---- Timed waits: result mapping -----------------------------------------------------------

TEST_P(ThreadCondTimedWaitBothClocks, PlatformZeroGivesZero) {
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, 0).result, 0);
}

TEST_P(ThreadCondTimedWaitBothClocks, PlatformEtimedoutGives110) {
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, ETIMEDOUT).result, 110);
    EXPECT_EQ(ZEPO_WAIT_TIMEDOUT, 110);
}

TEST_P(ThreadCondTimedWaitBothClocks, PlatformEinvalGivesMinusOne) {
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, EINVAL).result, -1);
}

TEST_P(ThreadCondTimedWaitBothClocks, PlatformEpermGivesMinusOne) {
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, EPERM).result, -1);
}

TEST_P(ThreadCondTimedWaitBothClocks, OtherPlatformErrorsGiveMinusOne) {
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, EINTR).result, -1);
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, EOWNERDEAD).result, -1);
    EXPECT_EQ(stubbed_wait(GetParam(), timespec{100, 0}, 1000, -1).result, -1);
}

// ---- Real-time deadline --------------------------------------------------------------------

TEST(ThreadCondTimedWait, RealTimeWaitReadsTheRealTimeClockOnce) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 0}, 1);
    EXPECT_EQ(outcome.clock_reads, 1);
    EXPECT_EQ(outcome.clock_id, CLOCK_REALTIME);
}

TEST(ThreadCondTimedWait, RealTimeDeadlineIsNowPlusTheTimeout) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 123456789}, 2500);
    expect_deadline(outcome, 1000, 125956789);
}

TEST(ThreadCondTimedWait, RealTimeDeadlineKeepsTheSubMicrosecondNanoseconds) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 7}, 1);
    expect_deadline(outcome, 1000, 1007);
}

TEST(ThreadCondTimedWait, RealTimeNanosecondSumOfExactlyOneSecondIsLeftUncarried) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 999000000}, 1000);
    expect_deadline(outcome, 1000, 1000000000);
}

TEST(ThreadCondTimedWait, RealTimeNanosecondSumOneAboveOneSecondIsCarried) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 999000001}, 1000);
    expect_deadline(outcome, 1001, 1);
}

TEST(ThreadCondTimedWait, RealTimeLargestNanosecondSumIsCarried) {
    const Outcome outcome = stubbed_wait(Clock::Real, timespec{1000, 999999999}, 999999);
    expect_deadline(outcome, 1001, 999998999);
}

TEST(ThreadCondTimedWait, RealTimeTimeoutOfWholeSecondsAddsSeconds) {
    expect_deadline(stubbed_wait(Clock::Real, timespec{1000, 100}, 1000000), 1001, 100);
    expect_deadline(stubbed_wait(Clock::Real, timespec{1000, 100}, 3000005), 1003, 5100);
}

TEST(ThreadCondTimedWait, RealTimeLargestTimeoutIsUnsigned) {
    expect_deadline(stubbed_wait(Clock::Real, timespec{1000, 0}, UINT32_MAX), 1000 + 4294,
                    967295000);
}

TEST(ThreadCondTimedWait, RealTimeNanosecondSumOfExactlyOneSecondGivesMinusOneFromThePlatform) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const timespec now = real_now(CLOCK_REALTIME);
    reset_wait_record();
    int result = 0;
    {
        ScopedFixedClock fixed(timespec{now.tv_sec - 2, 999000000});
        result = ZEPO_PthreadCondTimedWait(&cond, &mutex, 1000);
    }
    EXPECT_EQ(result, -1);
    const WaitRecord record = wait_record();
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.deadline.tv_nsec, 1000000000);
    pthread_mutex_unlock(&mutex);
}

TEST(ThreadCondTimedWait, RealTimeNanosecondSumOneAboveOneSecondWaitsNormally) {
    // The deadline lies in the past, so the platform's wait expires at once.
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const timespec now = real_now(CLOCK_REALTIME);
    reset_wait_record();
    int result = 0;
    {
        ScopedFixedClock fixed(timespec{now.tv_sec - 2, 999000001});
        result = ZEPO_PthreadCondTimedWait(&cond, &mutex, 1000);
    }
    EXPECT_EQ(result, 110);
    const WaitRecord record = wait_record();
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.deadline.tv_sec, now.tv_sec - 1);
    EXPECT_EQ(record.deadline.tv_nsec, 1);
    pthread_mutex_unlock(&mutex);
}

// ---- Monotonic deadline --------------------------------------------------------------------

TEST(ThreadCondTimedWait, MonotonicWaitReadsTheMonotonicClockOnce) {
    const Outcome outcome = stubbed_wait(Clock::Monotonic, timespec{1000, 0}, 1);
    EXPECT_EQ(outcome.clock_reads, 1);
    EXPECT_EQ(outcome.clock_id, CLOCK_MONOTONIC);
}

TEST(ThreadCondTimedWait,
     MonotonicWaitOf1500000UsFromLastNanosecondOfASecondEndsTwoSecondsAnd499999000NsLater) {
    const Outcome outcome = stubbed_wait(Clock::Monotonic, timespec{5000, 999999999}, 1500000);
    expect_deadline(outcome, 5002, 499999000);
}

TEST(ThreadCondTimedWait, MonotonicDeadlineDropsTheSubMicrosecondRestOfNow) {
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 123456789}, 1), 1000, 123457000);
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 999}, 2500), 1000, 2500000);
}

TEST(ThreadCondTimedWait, MonotonicSumOfExactlyOneSecondIsCarried) {
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 999000000}, 1000), 1001, 0);
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 999000999}, 1000), 1001, 0);
}

TEST(ThreadCondTimedWait, MonotonicLargestSumIsCarried) {
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 999999999}, 999999), 1001,
                    999998000);
}

TEST(ThreadCondTimedWait, MonotonicTimeoutOfWholeSecondsAddsSeconds) {
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 100}, 1000000), 1001, 0);
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 100}, 3000005), 1003, 5000);
}

TEST(ThreadCondTimedWait, MonotonicLargestTimeoutIsUnsigned) {
    expect_deadline(stubbed_wait(Clock::Monotonic, timespec{1000, 0}, UINT32_MAX), 1000 + 4294,
                    967295000);
}

// ---- Timed waits on the real platform ----------------------------------------------------

TEST(ThreadCondTimedWait, RealTimeWaitNobodySignalsGives110AfterTheTimeout) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const int64_t start = monotonic_ns();
    const int result = ZEPO_PthreadCondTimedWait(&cond, &mutex, 200000);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_EQ(result, 110);
    EXPECT_GE(elapsed, 200 * kNsPerMs);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
    // The mutex is held again after the wait.
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    pthread_mutex_unlock(&mutex);
}

TEST(ThreadCondTimedWait, MonotonicWaitNobodySignalsGives110AfterTheTimeout) {
    pthread_cond_t cond;
    init_monotonic_cond(&cond);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const int64_t start = monotonic_ns();
    const int result = ZEPO_PthreadCondTimedWait_Clock(&cond, &mutex, 200000);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_EQ(result, 110);
    // The deadline starts from the current time cut to whole microseconds.
    EXPECT_GE(elapsed, 200 * kNsPerMs - 1000);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
    pthread_mutex_unlock(&mutex);
    pthread_cond_destroy(&cond);
}

TEST(ThreadCondTimedWait, MonotonicWaitOnTheLibrarysZepoMutexGives110AfterTheTimeout) {
    pthread_cond_t cond;
    init_monotonic_cond(&cond);
    ZEPO_MUTEX record{};
    ASSERT_EQ(ZEPO_MutexInit(&record, nullptr), 0);
    auto *mutex = reinterpret_cast<pthread_mutex_t *>(&record.mutexSpace);
    ASSERT_EQ(ZEPO_MutexLock(&record), 0);
    const int64_t start = monotonic_ns();
    const int result = ZEPO_PthreadCondTimedWait_Clock(&cond, mutex, 50000);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_EQ(result, 110);
    EXPECT_GE(elapsed, 50 * kNsPerMs - 1000);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
    EXPECT_EQ(ZEPO_MutexUnLock(&record), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&record), 0);
    pthread_cond_destroy(&cond);
}

TEST(ThreadCondTimedWait, RealTimeWaitSignalledGivesZero) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const auto results = woken_waits(
        &cond, &mutex, 1,
        [](pthread_cond_t *c, pthread_mutex_t *m) {
            return ZEPO_PthreadCondTimedWait(c, m, 30000000);
        },
        [](pthread_cond_t *c) { return pthread_cond_signal(c); });
    expect_all_zero(results, 1);
}

TEST(ThreadCondTimedWait, MonotonicWaitSignalledGivesZero) {
    pthread_cond_t cond;
    init_monotonic_cond(&cond);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const auto results = woken_waits(
        &cond, &mutex, 1,
        [](pthread_cond_t *c, pthread_mutex_t *m) {
            return ZEPO_PthreadCondTimedWait_Clock(c, m, 30000000);
        },
        [](pthread_cond_t *c) { return pthread_cond_signal(c); });
    expect_all_zero(results, 1);
    pthread_cond_destroy(&cond);
}

// ---- Condition attributes, creation, destruction -------------------------------------

TEST(ThreadCond, InitAttrGivesAnAttributeWithTheRealTimeClock) {
    pthread_condattr_t attr;
    EXPECT_EQ(ZEPO_PthreadCondInitAttr(&attr), 0);
    clockid_t clock = -1;
    EXPECT_EQ(pthread_condattr_getclock(&attr, &clock), 0);
    EXPECT_EQ(clock, CLOCK_REALTIME);
    EXPECT_EQ(ZEPO_PthreadCondAttr_Destroy(&attr), 0);
}

TEST(ThreadCond, SetClockMonoticGivesZeroAndLeavesTheRealTimeClock) {
    pthread_condattr_t attr;
    ASSERT_EQ(ZEPO_PthreadCondInitAttr(&attr), 0);
    EXPECT_EQ(ZEPO_PthreadCondAttr_SetClockMonotic(&attr), 0);
    clockid_t clock = -1;
    EXPECT_EQ(pthread_condattr_getclock(&attr, &clock), 0);
    EXPECT_EQ(clock, CLOCK_REALTIME);
    EXPECT_EQ(ZEPO_PthreadCondAttr_Destroy(&attr), 0);
}

TEST(ThreadCond, SetClockMonoticLeavesAMonotonicClockAsItIs) {
    pthread_condattr_t attr;
    ASSERT_EQ(pthread_condattr_init(&attr), 0);
    ASSERT_EQ(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC), 0);
    EXPECT_EQ(ZEPO_PthreadCondAttr_SetClockMonotic(&attr), 0);
    clockid_t clock = -1;
    EXPECT_EQ(pthread_condattr_getclock(&attr, &clock), 0);
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    pthread_condattr_destroy(&attr);
}

TEST(ThreadCond, ConditionMadeWithSetClockMonoticKeepsRealTimeSoAMonotonicDeadlineHasPassed) {
    // A monotonic deadline read on the real-time clock lies decades in the past.
    pthread_condattr_t attr;
    ASSERT_EQ(ZEPO_PthreadCondInitAttr(&attr), 0);
    ASSERT_EQ(ZEPO_PthreadCondAttr_SetClockMonotic(&attr), 0);
    pthread_cond_t cond;
    ASSERT_EQ(ZEPO_PthreadCondInit(&cond, &attr), 0);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_PthreadCondTimedWait_Clock(&cond, &mutex, 20000000), 110);
    EXPECT_LT(monotonic_ns() - start, 10 * kNsPerSecond);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
    EXPECT_EQ(ZEPO_PthreadCondAttr_Destroy(&attr), 0);
}

TEST(ThreadCond, InitAttrAndDestroyPassTheAttributeToThePlatform) {
    // Unchecked: the platform's own results come back.
    pthread_condattr_t attr;
    ASSERT_EQ(ZEPO_PthreadCondInitAttr(&attr), 0);
    EXPECT_EQ(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC), 0);
    EXPECT_EQ(ZEPO_PthreadCondAttr_Destroy(&attr), 0);
}

TEST(ThreadCond, InitGivesZeroAndAWorkingCondition) {
    pthread_cond_t cond;
    g_cond_init_calls.store(0);
    EXPECT_EQ(ZEPO_PthreadCondInit(&cond, nullptr), 0);
    EXPECT_EQ(g_cond_init_calls.load(), 1);
    EXPECT_EQ(g_cond_init_cond.load(), &cond);
    EXPECT_EQ(g_cond_init_attr.load(), nullptr);
    EXPECT_EQ(ZEPO_PthreadCondSignal(&cond), 0);
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
}

TEST(ThreadCond, InitPassesTheAttributeSoAMonotonicConditionWaitsOnTheMonotonicClock) {
    pthread_condattr_t attr;
    ASSERT_EQ(ZEPO_PthreadCondInitAttr(&attr), 0);
    ASSERT_EQ(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC), 0);
    pthread_cond_t cond;
    EXPECT_EQ(ZEPO_PthreadCondInit(&cond, &attr), 0);
    EXPECT_EQ(g_cond_init_attr.load(), &attr);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_PthreadCondTimedWait_Clock(&cond, &mutex, 30000), 110);
    EXPECT_GE(monotonic_ns() - start, 30 * kNsPerMs - 1000);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
    ZEPO_PthreadCondAttr_Destroy(&attr);
}

TEST(ThreadCond, InitFailureSetsLastErrorToZeroAndGivesMinusOne) {
    pthread_cond_t cond;
    pthread_condattr_t attr;
    ASSERT_EQ(pthread_condattr_init(&attr), 0);
    g_cond_init_calls.store(0);
    int result = 0;
    errno = kSentinel;
    {
        ScopedSwitch<int> fail(g_cond_init_fail, EAGAIN);
        result = ZEPO_PthreadCondInit(&cond, &attr);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(g_cond_init_calls.load(), 1);
    EXPECT_EQ(g_cond_init_cond.load(), &cond);
    EXPECT_EQ(g_cond_init_attr.load(), &attr);
    pthread_condattr_destroy(&attr);
}

TEST(ThreadCond, InitFailureWithAnyErrorGivesMinusOne) {
    pthread_cond_t cond;
    ScopedSwitch<int> fail(g_cond_init_fail, ENOMEM);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCondInit(&cond, nullptr), -1);
    EXPECT_EQ(errno, 0);
}

TEST(ThreadCond, InitOfNullConditionGivesMinusOneWithoutCallingThePlatform) {
    g_cond_init_calls.store(0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCondInit(nullptr, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(g_cond_init_calls.load(), 0);
}

TEST(ThreadCond, DestroyGivesZeroOnSuccess) {
    pthread_cond_t cond;
    ASSERT_EQ(pthread_cond_init(&cond, nullptr), 0);
    g_cond_destroy_calls.store(0);
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
    EXPECT_EQ(g_cond_destroy_calls.load(), 1);
    EXPECT_EQ(g_cond_destroy_cond.load(), &cond);
}

TEST(ThreadCond, DestroyOfConditionWithWaitersGivesOne) {
    // The platform's refusal (EBUSY) is stood in for: glibc may block instead of refusing.
    pthread_cond_t cond;
    ASSERT_EQ(pthread_cond_init(&cond, nullptr), 0);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int result = 0;
    const auto results = woken_waits(
        &cond, &mutex, 1,
        [](pthread_cond_t *c, pthread_mutex_t *m) { return ZEPO_PthreadCondWait(c, m); },
        [&](pthread_cond_t *c) {
            ScopedSwitch<int> busy(g_cond_destroy_fail, EBUSY);
            g_cond_destroy_calls.store(0);
            result = ZEPO_PthreadCondDestroy(c);
            EXPECT_EQ(g_cond_destroy_calls.load(), 1);
            EXPECT_EQ(g_cond_destroy_cond.load(), c);
            return pthread_cond_signal(c);
        });
    EXPECT_EQ(result, 1);
    expect_all_zero(results, 1);
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
}

TEST(ThreadCond, DestroyPlatformFailureOfAnyKindGivesOneNotMinusOne) {
    pthread_cond_t cond;
    ASSERT_EQ(pthread_cond_init(&cond, nullptr), 0);
    {
        ScopedSwitch<int> fail(g_cond_destroy_fail, EINVAL);
        EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 1);
    }
    EXPECT_EQ(ZEPO_PthreadCondDestroy(&cond), 0);
}

TEST(ThreadCond, DestroyOfNullGivesMinusOneWithoutCallingThePlatform) {
    g_cond_destroy_calls.store(0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCondDestroy(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(g_cond_destroy_calls.load(), 0);
}

// ---- Signal, broadcast, wait ---------------------------------------------------------------

TEST(ThreadCond, SignalWithoutWaitersGivesZero) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    EXPECT_EQ(ZEPO_PthreadCondSignal(&cond), 0);
    EXPECT_EQ(ZEPO_PthreadCondBroadcast(&cond), 0);
}

TEST(ThreadCond, SignalAndBroadcastOfNullGiveMinusOne) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCondSignal(nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadCondBroadcast(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(ThreadCond, WaitWithNullConditionOrMutexGivesMinusOne) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCondWait(nullptr, &mutex), -1);
    EXPECT_EQ(ZEPO_PthreadCondWait(&cond, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadCondWait(nullptr, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(ThreadCond, WaitWokenBySignalGivesZero) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const auto results = woken_waits(
        &cond, &mutex, 1,
        [](pthread_cond_t *c, pthread_mutex_t *m) { return ZEPO_PthreadCondWait(c, m); },
        [](pthread_cond_t *c) { return ZEPO_PthreadCondSignal(c); });
    expect_all_zero(results, 1);
}

TEST(ThreadCond, WaitOnTheLibrarysZepoMutexWokenBySignalGivesZero) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    ZEPO_MUTEX record{};
    ASSERT_EQ(ZEPO_MutexInit(&record, nullptr), 0);
    const auto results = woken_waits(
        &cond, reinterpret_cast<pthread_mutex_t *>(&record.mutexSpace), 1,
        [](pthread_cond_t *c, pthread_mutex_t *m) { return ZEPO_PthreadCondWait(c, m); },
        [](pthread_cond_t *c) { return ZEPO_PthreadCondSignal(c); });
    expect_all_zero(results, 1);
    EXPECT_EQ(ZEPO_MutexDestroy(&record), 0);
}

TEST(ThreadCond, BroadcastWakesEveryWaiter) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const auto results = woken_waits(
        &cond, &mutex, 3,
        [](pthread_cond_t *c, pthread_mutex_t *m) { return ZEPO_PthreadCondWait(c, m); },
        [](pthread_cond_t *c) { return ZEPO_PthreadCondBroadcast(c); });
    expect_all_zero(results, 3);
}

// ---- Thread attributes ---------------------------------------------------------------------

class ThreadAttr : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ZEPO_PthreadAttrInit(&attr_), 0); }
    void TearDown() override { EXPECT_EQ(ZEPO_PthreadAttrDestroy(&attr_), 0); }
    pthread_attr_t attr_{};
};

TEST_F(ThreadAttr, InitGivesTheDefaults) {
    int state = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&attr_, &state), 0);
    EXPECT_EQ(state, PTHREAD_CREATE_JOINABLE);
    int32_t inherit = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetInheritsched(&attr_, &inherit), 0);
    EXPECT_EQ(inherit, PTHREAD_INHERIT_SCHED);
}

TEST_F(ThreadAttr, SetDetachstateIsStored) {
    EXPECT_EQ(ZEPO_PthreadAttrSetdetachstate(&attr_, PTHREAD_CREATE_DETACHED), 0);
    int state = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&attr_, &state), 0);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(ZEPO_PthreadAttrSetdetachstate(&attr_, 77), EINVAL);
}

TEST_F(ThreadAttr, InheritschedRoundTrips) {
    EXPECT_EQ(ZEPO_PthreadAttrSetInheritsched(&attr_, PTHREAD_EXPLICIT_SCHED), 0);
    int32_t inherit = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetInheritsched(&attr_, &inherit), 0);
    EXPECT_EQ(inherit, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(ZEPO_PthreadAttrSetInheritsched(&attr_, PTHREAD_INHERIT_SCHED), 0);
    EXPECT_EQ(ZEPO_PthreadAttrGetInheritsched(&attr_, &inherit), 0);
    EXPECT_EQ(inherit, PTHREAD_INHERIT_SCHED);
    EXPECT_EQ(ZEPO_PthreadAttrSetInheritsched(&attr_, 77), EINVAL);
}

TEST_F(ThreadAttr, SchedpolicyRoundTrips) {
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedpolicy(&attr_, SCHED_RR), 0);
    int32_t policy = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedpolicy(&attr_, &policy), 0);
    EXPECT_EQ(policy, SCHED_RR);
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedpolicy(&attr_, 77), EINVAL);
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedpolicy(&attr_, &policy), 0);
    EXPECT_EQ(policy, SCHED_RR);
}

TEST_F(ThreadAttr, SchedparamRoundTrips) {
    ASSERT_EQ(ZEPO_PthreadAttrSetSchedpolicy(&attr_, SCHED_FIFO), 0);
    sched_param param{};
    param.sched_priority = 10;
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedparam(&attr_, &param), 0);
    sched_param read{};
    read.sched_priority = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedparam(&attr_, &read), 0);
    EXPECT_EQ(read.sched_priority, 10);
}

TEST_F(ThreadAttr, ScopeRoundTripsAndProcessScopeIsThePlatformsRefusal) {
    EXPECT_EQ(ZEPO_PthreadAttrSetscope(&attr_, PTHREAD_SCOPE_SYSTEM), 0);
    int32_t scope = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetscope(&attr_, &scope), 0);
    EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
    EXPECT_EQ(ZEPO_PthreadAttrSetscope(&attr_, PTHREAD_SCOPE_PROCESS), ENOTSUP);
}

TEST_F(ThreadAttr, StacksizeRoundTrips) {
    EXPECT_EQ(ZEPO_PthreadAttrSetStacksize(&attr_, 1u << 20), 0);
    size_t size = 0;
    EXPECT_EQ(ZEPO_PthreadAttrGetStacksize(&attr_, &size), 0);
    EXPECT_EQ(size, size_t{1} << 20);
}

TEST_F(ThreadAttr, SetStacksizeWidensAnUnsigned32BitSize) {
    // Sign extension would give a size of 16 exabytes.
    EXPECT_EQ(ZEPO_PthreadAttrSetStacksize(&attr_, 0xFFFFF000u), 0);
    size_t size = 0;
    EXPECT_EQ(ZEPO_PthreadAttrGetStacksize(&attr_, &size), 0);
    EXPECT_EQ(size, size_t{0xFFFFF000u});
    EXPECT_EQ(ZEPO_PthreadAttrSetStacksize(&attr_, 0x80000000u), 0);
    EXPECT_EQ(ZEPO_PthreadAttrGetStacksize(&attr_, &size), 0);
    EXPECT_EQ(size, size_t{0x80000000u});
}

TEST_F(ThreadAttr, SetStacksizeBelowTheMinimumIsThePlatformsRefusal) {
    EXPECT_EQ(ZEPO_PthreadAttrSetStacksize(&attr_, 1), EINVAL);
}

TEST_F(ThreadAttr, StackAddrRoundTrips) {
    static char stack[1 << 16];
    EXPECT_EQ(ZEPO_PthreadAttrSetStackAddr(&attr_, stack + sizeof stack), 0);
    void *addr = nullptr;
    EXPECT_EQ(ZEPO_PthreadAttrGetStackAddr(&attr_, &addr), 0);
    EXPECT_EQ(addr, static_cast<void *>(stack + sizeof stack));
}

TEST_F(ThreadAttr, SetStackAddrOfNullAddressIsRefusedAndLeavesTheAttribute) {
    static char stack[1 << 16];
    ASSERT_EQ(ZEPO_PthreadAttrSetStackAddr(&attr_, stack + sizeof stack), 0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadAttrSetStackAddr(&attr_, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    void *addr = nullptr;
    EXPECT_EQ(ZEPO_PthreadAttrGetStackAddr(&attr_, &addr), 0);
    EXPECT_EQ(addr, static_cast<void *>(stack + sizeof stack));
}

TEST_F(ThreadAttr, EachCheckedPointerIsRefusedWithMinusOneAndErrnoUntouched) {
    int32_t value = 0;
    size_t size = 0;
    void *addr = nullptr;
    sched_param param{};
    static char stack[64];
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadAttrInit(nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrDestroy(nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetdetachstate(nullptr, PTHREAD_CREATE_DETACHED), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetInheritsched(nullptr, &value), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetInheritsched(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetInheritsched(nullptr, PTHREAD_EXPLICIT_SCHED), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedpolicy(nullptr, &value), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedpolicy(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedpolicy(nullptr, SCHED_RR), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedparam(nullptr, &param), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedparam(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedparam(nullptr, &param), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetscope(nullptr, &value), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetscope(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetscope(nullptr, PTHREAD_SCOPE_SYSTEM), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetStacksize(nullptr, &size), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetStacksize(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetStacksize(nullptr, 1u << 20), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetStackAddr(nullptr, &addr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrGetStackAddr(&attr_, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadAttrSetStackAddr(nullptr, stack), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST_F(ThreadAttr, RefusedSettersLeaveTheAttributeAsItWas) {
    // A refusal must not have reached the platform with some other attribute.
    ASSERT_EQ(ZEPO_PthreadAttrSetSchedpolicy(&attr_, SCHED_FIFO), 0);
    EXPECT_EQ(ZEPO_PthreadAttrSetSchedpolicy(nullptr, SCHED_RR), -1);
    int32_t policy = -1;
    EXPECT_EQ(ZEPO_PthreadAttrGetSchedpolicy(&attr_, &policy), 0);
    EXPECT_EQ(policy, SCHED_FIFO);
}

TEST_F(ThreadAttr, ThreadMadeWithADetachedAttributeIsDetached) {
    ASSERT_EQ(ZEPO_PthreadAttrSetdetachstate(&attr_, PTHREAD_CREATE_DETACHED), 0);
    static std::atomic<bool> release{false};
    static std::atomic<bool> done{false};
    pthread_t thread{};
    ASSERT_EQ(ZEPO_PthreadCreate(
                  &thread, &attr_,
                  [](void *) -> void * {
                      while (!release.load())
                          std::this_thread::sleep_for(std::chrono::milliseconds(1));
                      done.store(true);
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_attr_t actual;
    ASSERT_EQ(pthread_getattr_np(thread, &actual), 0);
    int state = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&actual, &state), 0);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    pthread_attr_destroy(&actual);
    release.store(true);
    EXPECT_TRUE(eventually([] { return done.load(); }));
}

// ---- Scheduling and cancellation settings --------------------------------------------------

TEST(ThreadSched, GetSchedparamMatchesThePlatform) {
    int expected_policy = -1;
    sched_param expected{};
    ASSERT_EQ(pthread_getschedparam(pthread_self(), &expected_policy, &expected), 0);
    int32_t policy = -2;
    sched_param param{};
    param.sched_priority = -5;
    EXPECT_EQ(ZEPO_PthreadGetSchedparam(pthread_self(), &policy, &param), 0);
    EXPECT_EQ(policy, expected_policy);
    EXPECT_EQ(param.sched_priority, expected.sched_priority);
}

TEST(ThreadSched, GetSchedparamRefusesNullOutputs) {
    int32_t policy = 0;
    sched_param param{};
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadGetSchedparam(pthread_self(), nullptr, &param), -1);
    EXPECT_EQ(ZEPO_PthreadGetSchedparam(pthread_self(), &policy, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(ThreadSched, PriorityLimitsMatchThePlatform) {
    EXPECT_EQ(ZEPO_SchedGetPriorityMax(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO));
    EXPECT_EQ(ZEPO_SchedGetPriorityMin(SCHED_FIFO), sched_get_priority_min(SCHED_FIFO));
    EXPECT_EQ(ZEPO_SchedGetPriorityMax(SCHED_RR), 99);
    EXPECT_EQ(ZEPO_SchedGetPriorityMin(SCHED_RR), 1);
    EXPECT_EQ(ZEPO_SchedGetPriorityMax(SCHED_OTHER), 0);
}

TEST(ThreadSched, PriorityLimitOfAnUnknownPolicyIsMinusOneWithEinval) {
    errno = 0;
    EXPECT_EQ(ZEPO_SchedGetPriorityMax(77), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(ZEPO_SchedGetPriorityMin(77), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ThreadSched, SetCancelStateReturnsTheOldState) {
    int32_t old = -1;
    EXPECT_EQ(ZEPO_PthreadSetCancelState(PTHREAD_CANCEL_DISABLE, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(ZEPO_PthreadSetCancelState(PTHREAD_CANCEL_ENABLE, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(ZEPO_PthreadSetCancelState(77, &old), EINVAL);
}

TEST(ThreadSched, SetCancelTypeReturnsTheOldType) {
    int32_t old = -1;
    EXPECT_EQ(ZEPO_PthreadSetCancelType(PTHREAD_CANCEL_ASYNCHRONOUS, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_DEFERRED);
    EXPECT_EQ(ZEPO_PthreadSetCancelType(PTHREAD_CANCEL_DEFERRED, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_ASYNCHRONOUS);
    EXPECT_EQ(ZEPO_PthreadSetCancelType(77, &old), EINVAL);
}

TEST(ThreadSched, CancelSettersRefuseANullOldValueAndChangeNothing) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadSetCancelState(PTHREAD_CANCEL_DISABLE, nullptr), -1);
    EXPECT_EQ(ZEPO_PthreadSetCancelType(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    int old = -1;
    ASSERT_EQ(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_ENABLE);
    ASSERT_EQ(pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &old), 0);
    EXPECT_EQ(old, PTHREAD_CANCEL_DEFERRED);
}

// ---- Thread creation, joining, detaching, cancelling ------------------------------------

namespace {

struct Started {
    std::atomic<int> runs{0};
    std::atomic<uint64_t> self{0};
};

void *record_start(void *arg) {
    auto *started = static_cast<Started *>(arg);
    started->self.store(handle_of(pthread_self()));
    started->runs.fetch_add(1);
    return arg;
}

}  // namespace

TEST(Thread, CreateIdWritesTheAddressOfTheThreadArgumentItself) {
    Started started;
    pthread_t thread{};
    uint64_t id = 0;
    ASSERT_EQ(ZEPO_PthreadCreateID(&thread, &id, nullptr, record_start, &started), 0);
    EXPECT_EQ(id, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&thread)));
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &started);
    EXPECT_EQ(started.runs.load(), 1);
    // The handle itself still lands in *thread.
    EXPECT_EQ(started.self.load(), handle_of(thread));
    EXPECT_NE(id, handle_of(thread));
}

TEST(Thread, CreateIdWithNullIdOutStartsTheThread) {
    Started started;
    pthread_t thread{};
    ASSERT_EQ(ZEPO_PthreadCreateID(&thread, nullptr, nullptr, record_start, &started), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &started);
    EXPECT_EQ(started.self.load(), handle_of(thread));
}

TEST(Thread, CreateStartsTheThreadWithItsArgument) {
    Started started;
    pthread_t thread{};
    g_create_calls.store(0);
    ASSERT_EQ(ZEPO_PthreadCreate(&thread, nullptr, record_start, &started), 0);
    EXPECT_EQ(g_create_calls.load(), 1);
    void *result = nullptr;
    ASSERT_EQ(ZEPO_PthreadJoin(thread, &result), 0);
    EXPECT_EQ(result, &started);
    EXPECT_EQ(started.runs.load(), 1);
    EXPECT_EQ(started.self.load(), handle_of(thread));
}

TEST(Thread, CreateWithAnAttributeUsesIt) {
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 1u << 20), 0);
    static std::atomic<size_t> seen{0};
    pthread_t thread{};
    ASSERT_EQ(ZEPO_PthreadCreate(
                  &thread, &attr,
                  [](void *) -> void * {
                      pthread_attr_t own;
                      if (pthread_getattr_np(pthread_self(), &own) == 0) {
                          size_t size = 0;
                          pthread_attr_getstacksize(&own, &size);
                          seen.store(size);
                          pthread_attr_destroy(&own);
                      }
                      return nullptr;
                  },
                  nullptr),
              0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    // The platform reports the usable size, near the one asked for (the default is megabytes
    // larger).
    EXPECT_GE(seen.load(), (size_t{1} << 20) - (size_t{64} << 10));
    EXPECT_LE(seen.load(), (size_t{1} << 20) + (size_t{64} << 10));
    pthread_attr_destroy(&attr);
}

TEST(Thread, CreateOfNullThreadIsRefusedWithoutStartingOne) {
    Started started;
    uint64_t id = 77;
    g_create_calls.store(0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_PthreadCreateID(nullptr, &id, nullptr, record_start, &started), -1);
    EXPECT_EQ(ZEPO_PthreadCreate(nullptr, nullptr, record_start, &started), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(g_create_calls.load(), 0);
    EXPECT_EQ(id, 77u);
}

TEST(Thread, CreateFailureReturnsThePlatformErrorAndLeavesIdOut) {
    Started started;
    pthread_t thread{};
    uint64_t id = 77;
    ScopedSwitch<int> fail(g_create_fail, EAGAIN);
    EXPECT_EQ(ZEPO_PthreadCreateID(&thread, &id, nullptr, record_start, &started), EAGAIN);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(ZEPO_PthreadCreate(&thread, nullptr, record_start, &started), EAGAIN);
    EXPECT_EQ(started.runs.load(), 0);
}

TEST(Thread, JoinOfItselfIsThePlatformsDeadlockError) {
    EXPECT_EQ(ZEPO_PthreadJoin(pthread_self(), nullptr), EDEADLK);
}

TEST(Thread, DetachMakesARunningThreadDetached) {
    static std::atomic<bool> release{false};
    static std::atomic<bool> done{false};
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      while (!release.load())
                          std::this_thread::sleep_for(std::chrono::milliseconds(1));
                      done.store(true);
                      return nullptr;
                  },
                  nullptr),
              0);
    EXPECT_EQ(ZEPO_PthreadDetach(thread), 0);
    pthread_attr_t actual;
    ASSERT_EQ(pthread_getattr_np(thread, &actual), 0);
    int state = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&actual, &state), 0);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    pthread_attr_destroy(&actual);
    release.store(true);
    EXPECT_TRUE(eventually([] { return done.load(); }));
}

TEST(Thread, CancelledThreadJoinedGivesPthreadCanceled) {
    static std::atomic<bool> running{false};
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      running.store(true);
                      for (;;) ::pause();
                      return nullptr;
                  },
                  nullptr),
              0);
    ASSERT_TRUE(eventually([] { return running.load(); }));
    EXPECT_EQ(ZEPO_PthreadCancel(thread), 0);
    void *result = nullptr;
    EXPECT_EQ(ZEPO_PthreadJoin(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

// ---- Identity ------------------------------------------------------------------------------

TEST(ThreadIdentity, SelfFunctionsAgreeWithPthreadSelf) {
    const uint64_t self = handle_of(pthread_self());
    EXPECT_EQ(ZEPO_PthreadSelf(), self);
    EXPECT_EQ(ZEPO_PthreadSelfId(), self);
    EXPECT_EQ(qel_PthreadSelf(), self);
    uint64_t out = 0;
    EXPECT_EQ(QEL_GetPthreadSelf(&out), self);
    EXPECT_EQ(out, self);
    EXPECT_EQ(QEL_GetPthreadSelf(nullptr), self);
}

TEST(ThreadIdentity, SelfFunctionsGiveEachThreadItsOwnHandle) {
    const uint64_t main_self = ZEPO_PthreadSelf();
    uint64_t values[5] = {};
    uint64_t expected = 0;
    std::thread other([&] {
        expected = handle_of(pthread_self());
        values[0] = ZEPO_PthreadSelf();
        values[1] = ZEPO_PthreadSelfId();
        values[2] = qel_PthreadSelf();
        values[3] = QEL_GetPthreadSelf(&values[4]);
    });
    other.join();
    EXPECT_NE(expected, main_self);
    for (const uint64_t value : values) EXPECT_EQ(value, expected);
}

TEST(ThreadIdentity, SetNameNamesTheCallingThread) {
    char main_before[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, main_before), 0);
    int result = -1;
    char by_prctl[16] = {};
    char by_pthread[16] = {};
    std::thread other([&] {
        result = ZEPO_PthreadSetName("qel-worker");
        prctl(PR_GET_NAME, by_prctl);
        pthread_getname_np(pthread_self(), by_pthread, sizeof by_pthread);
    });
    other.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(by_prctl, "qel-worker");
    EXPECT_STREQ(by_pthread, "qel-worker");
    char main_after[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, main_after), 0);
    EXPECT_STREQ(main_after, main_before);
}

TEST(ThreadIdentity, SetNameCutsALongNameTo15Characters) {
    EXPECT_EQ(ZEPO_PthreadSetName("abcdefghijklmnopqrstuvwxyz"), 0);
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    EXPECT_STREQ(name, "abcdefghijklmno");
}

TEST(ThreadIdentity, GetTidIsTheKernelThreadIdAndTheProcessIdOnTheMainThread) {
    EXPECT_EQ(ZEPO_GetTID(), static_cast<int64_t>(syscall(SYS_gettid)));
    EXPECT_EQ(ZEPO_GetTID(), static_cast<int64_t>(getpid()));
}

TEST(ThreadIdentity, GetTidDiffersBetweenThreads) {
    int64_t tid = 0;
    int64_t expected = -1;
    std::thread other([&] {
        tid = ZEPO_GetTID();
        expected = static_cast<int64_t>(syscall(SYS_gettid));
    });
    other.join();
    EXPECT_EQ(tid, expected);
    EXPECT_NE(tid, ZEPO_GetTID());
}

TEST(ThreadIdentity, GetTidExIsTheLow32BitsOfGetTid) {
    EXPECT_EQ(ZEPO_GetTIDEx(), static_cast<uint32_t>(ZEPO_GetTID()));
    uint32_t ex = 0;
    int64_t tid = 0;
    std::thread other([&] {
        ex = ZEPO_GetTIDEx();
        tid = ZEPO_GetTID();
    });
    other.join();
    EXPECT_EQ(ex, static_cast<uint32_t>(tid));
}

// ---- Interlocked exchange ------------------------------------------------------------------

TEST(ThreadInterlocked, ExchangeReturnsThePreviousValueAndStoresTheNew) {
    volatile int32_t word = 5;
    EXPECT_EQ(ZEPO_Interlocked_Exchange(&word, 9), 5);
    EXPECT_EQ(word, 9);
    EXPECT_EQ(ZEPO_Interlocked_Exchange(&word, INT32_MIN), 9);
    EXPECT_EQ(word, INT32_MIN);
    EXPECT_EQ(ZEPO_Interlocked_Exchange(&word, -1), INT32_MIN);
    EXPECT_EQ(word, -1);
    EXPECT_EQ(ZEPO_Interlocked_Exchange(&word, -1), -1);
    EXPECT_EQ(word, -1);
}

TEST(ThreadInterlocked, ExchangeUnderContentionLosesAndDuplicatesNoToken) {
    // Five distinct tokens: one in the shared word, one held by each thread.  Every exchange
    // hands the held token in and takes the one found; a lost update would duplicate one.
    constexpr int kThreads = 4;
    constexpr int kRounds = 200000;
    volatile int32_t shared = 0;
    int32_t held[kThreads] = {};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            int32_t token = i + 1;
            while (!go.load()) std::this_thread::yield();
            for (int round = 0; round < kRounds; ++round)
                token = ZEPO_Interlocked_Exchange(&shared, token);
            held[i] = token;
        });
    }
    go.store(true);
    for (auto &thread : threads) thread.join();
    std::vector<int32_t> tokens(held, held + kThreads);
    tokens.push_back(static_cast<int32_t>(shared));
    std::sort(tokens.begin(), tokens.end());
    EXPECT_EQ(tokens, (std::vector<int32_t>{0, 1, 2, 3, 4}));
}

// ---- Priorities ----------------------------------------------------------------------------

TEST(ThreadPriority, GetPriorityIsThePlatformsValue) {
    errno = 0;
    const int expected = getpriority(PRIO_PROCESS, 0);
    ASSERT_EQ(errno, 0);
    EXPECT_EQ(ZEPO_GetPriority(PRIO_PROCESS, 0), expected);
    EXPECT_EQ(QEL_GetPriority(PRIO_PROCESS, 0), expected);
    EXPECT_EQ(ZEPO_GetPriority(PRIO_PROCESS, static_cast<uint32_t>(getpid())), expected);
}

TEST(ThreadPriority, GetPriorityOfAnUnknownKindIsMinusOneWithEinval) {
    errno = 0;
    EXPECT_EQ(ZEPO_GetPriority(77, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(QEL_GetPriority(77, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ThreadPriority, SetPriorityFunctionsRaiseTheNiceValue) {
    // In a child, so that the test process keeps its nice value.  Exit codes name the step.
    const int status = status_of_child([] {
        errno = 0;
        const int start = getpriority(PRIO_PROCESS, 0);
        if (errno != 0 || start > 16) return 10;
        if (ZEPO_SetPriority(PRIO_PROCESS, 0, 17) != 0) return 11;
        if (getpriority(PRIO_PROCESS, 0) != 17) return 12;
        if (ZEPO_SetPriorityEx(PRIO_PROCESS, 0, 18) != 0) return 13;
        if (getpriority(PRIO_PROCESS, 0) != 18) return 14;
        if (QEL_SetPriority(PRIO_PROCESS, static_cast<uint32_t>(getpid()), 19) != 0) return 15;
        if (getpriority(PRIO_PROCESS, 0) != 19) return 16;
        if (ZEPO_GetPriority(PRIO_PROCESS, 0) != 19) return 17;
        return 0;
    });
    expect_exited_with(status, 0);
}

TEST(ThreadPriority, SetPriorityOfAnUnknownKindIsMinusOneWithEinval) {
    const int before = getpriority(PRIO_PROCESS, 0);
    errno = 0;
    EXPECT_EQ(ZEPO_SetPriority(77, 0, 19), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(ZEPO_SetPriorityEx(77, 0, 19), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(QEL_SetPriority(77, 0, 19), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before);
}

TEST(ThreadPriority, SetPriorityWinGivesOneAndChangesNothing) {
    errno = 0;
    const int before = getpriority(PRIO_PROCESS, 0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SetPriorityWin(ZEPO_PthreadSelf(), 19), 1);
    EXPECT_EQ(ZEPO_SetPriorityWin(0, -20), 1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before);
    int policy = -1;
    sched_param param{};
    ASSERT_EQ(pthread_getschedparam(pthread_self(), &policy, &param), 0);
    EXPECT_EQ(policy, SCHED_OTHER);
}

TEST(ThreadProcess, CreateProcessGivesZeroAndStartsNothing) {
    char marker[] = "/tmp/qel_thread_create_process_XXXXXX";
    const int fd = mkstemp(marker);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(unlink(marker), 0);
    const std::string command = std::string("touch ") + marker;
    EXPECT_EQ(ZEPO_CreateProcess(command.c_str(), nullptr), 0);
    EXPECT_EQ(ZEPO_CreateProcess(nullptr, nullptr), 0);
    // No child was made (none is left to reap) and the command had no effect.
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_NE(access(marker, F_OK), 0);
}

// ---- Processes -----------------------------------------------------------------------------

TEST(ThreadProcess, ForkedChildExitCodeIsSeenByWaitpid) {
    const int64_t pid = ZEPO_Fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) ZEPO_Exit(7);
    int32_t status = 0;
    EXPECT_EQ(ZEPO_Waitpid(static_cast<int32_t>(pid), &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(ThreadProcess, ForkedChildExitCodeIsSeenByWait) {
    const int64_t pid = ZEPO_Fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) ZEPO_Exit(7);
    int32_t status = 0;
    EXPECT_EQ(ZEPO_Wait(&status), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(ThreadProcess, WaitWithoutChildrenIsMinusOneWithEchild) {
    errno = 0;
    EXPECT_EQ(ZEPO_Wait(nullptr), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ThreadProcess, WaitpidWithNohangOnARunningChildGivesZero) {
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    const int64_t pid = ZEPO_Fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(gate[1]);
        char byte;
        while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ZEPO_Exit(0);
    }
    close(gate[0]);
    int32_t status = 0;
    EXPECT_EQ(ZEPO_Waitpid(static_cast<int32_t>(pid), &status, WNOHANG), 0);
    close(gate[1]);
    EXPECT_EQ(ZEPO_Waitpid(static_cast<int32_t>(pid), &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
}

TEST(ThreadProcess, ExitRunsNoExitHandlersAndFlushesNoStreams) {
    static int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    const int64_t pid = ZEPO_Fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(channel[0]);
        std::atexit([] {
            const char text[] = "atexit";
            (void)!write(channel[1], text, sizeof text - 1);
        });
        FILE *stream = fdopen(dup(channel[1]), "w");
        if (stream != nullptr) {
            setvbuf(stream, nullptr, _IOFBF, 4096);
            fputs("buffered", stream);
        }
        ZEPO_Exit(7);
    }
    close(channel[1]);
    std::string received;
    char buffer[64];
    for (;;) {
        const ssize_t got = read(channel[0], buffer, sizeof buffer);
        if (got > 0) {
            received.append(buffer, static_cast<size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    close(channel[0]);
    int status = 0;
    ASSERT_EQ(waitpid(static_cast<pid_t>(pid), &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(received, "");
}

TEST(ThreadProcess, ExecvRunsTheProgramWithItsArguments) {
    const int status = status_of_child([] {
        char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                              const_cast<char *>("exit 5"), nullptr};
        ZEPO_Execv("/bin/sh", argv);
        return 99;
    });
    expect_exited_with(status, 5);
}

TEST(ThreadProcess, ExecvRunsBinTrue) {
    const int status = status_of_child([] {
        char *const argv[] = {const_cast<char *>("true"), nullptr};
        ZEPO_Execv("/bin/true", argv);
        return 99;
    });
    expect_exited_with(status, 0);
}

TEST(ThreadProcess, ExecvpSearchesThePath) {
    const int status = status_of_child([] {
        char *const argv[] = {const_cast<char *>("true"), nullptr};
        ZEPO_Execvp("true", argv);
        return 99;
    });
    expect_exited_with(status, 0);
    const int shell = status_of_child([] {
        char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                              const_cast<char *>("exit 6"), nullptr};
        ZEPO_Execvp("sh", argv);
        return 99;
    });
    expect_exited_with(shell, 6);
}

TEST(ThreadProcess, ExecvOfAMissingProgramGivesMinusOneWithEnoent) {
    char *const argv[] = {const_cast<char *>("missing"), nullptr};
    errno = 0;
    EXPECT_EQ(ZEPO_Execv("/nonexistent/qel-no-such-program", argv), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ThreadProcess, ExecvpOfAMissingProgramGivesMinusOneWithEnoent) {
    char *const argv[] = {const_cast<char *>("missing"), nullptr};
    errno = 0;
    EXPECT_EQ(ZEPO_Execvp("qel-no-such-program-on-the-path", argv), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ThreadProcess, KillEndsAChildWithTheSignal) {
    const int64_t pid = ZEPO_Fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        for (;;) ::pause();
    }
    EXPECT_EQ(ZEPO_Kill(static_cast<int32_t>(pid), 0), 0);
    errno = 0;
    EXPECT_EQ(ZEPO_Kill(static_cast<int32_t>(pid), 12345), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ZEPO_Kill(static_cast<int32_t>(pid), SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(static_cast<pid_t>(pid), &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(ThreadProcess, SystemGivesTheShellsWaitStatus) {
    const int status = ZEPO_System("exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(ZEPO_System("true"), 0);
}

TEST(ThreadProcess, SystemOfNullAsksWhetherAShellExists) { EXPECT_NE(ZEPO_System(nullptr), 0); }

TEST(ThreadProcess, GetPidIsTheProcessId) {
    EXPECT_EQ(ZEPO_GetPID(), getpid());
    const int status = status_of_child([] { return ZEPO_GetPID() == getpid() ? 0 : 1; });
    expect_exited_with(status, 0);
}

TEST(ThreadProcess, RebootPassesTheRequestToRebootAndReturnsItsResult) {
    // reboot is interposed here and never reaches the kernel; the request is not a valid one.
    g_reboot_calls.store(0);
    errno = 0;
    EXPECT_EQ(ZEPO_Reboot(0x0BADC0DE), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(g_reboot_calls.load(), 1);
    EXPECT_EQ(g_reboot_arg.load(), 0x0BADC0DE);
}

// ---- Sleeps --------------------------------------------------------------------------------

TEST(ThreadSleep, SleepOfZeroGivesZero) {
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_Sleep(0), 0u);
    EXPECT_LT(monotonic_ns() - start, 5 * kNsPerSecond);
}

TEST(ThreadSleep, SleepOfOneSecondSleepsAtLeastOneSecond) {
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_Sleep(1), 0u);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_GE(elapsed, kNsPerSecond);
    EXPECT_LT(elapsed, 10 * kNsPerSecond);
}

TEST(ThreadSleep, SleepMsSleepsAtLeastThatLong) {
    g_usleep_calls.store(0);
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_SleepMs(20), 0);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_EQ(g_usleep_calls.load(), 1);
    EXPECT_EQ(g_usleep_arg.load(), 20000u);
    EXPECT_GE(elapsed, 20 * kNsPerMs);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
}

TEST(ThreadSleep, SleepMsPassesMillisecondsTimesAThousandToUsleep) {
    ScopedSwitch<bool> stub(g_usleep_stubbed, true);
    g_usleep_result.store(0);
    g_usleep_calls.store(0);
    EXPECT_EQ(ZEPO_SleepMs(1000), 0);
    EXPECT_EQ(g_usleep_calls.load(), 1);
    EXPECT_EQ(g_usleep_arg.load(), 1000000u);
    EXPECT_EQ(ZEPO_SleepMs(4294967), 0);
    EXPECT_EQ(g_usleep_arg.load(), 4294967000u);
    EXPECT_EQ(ZEPO_SleepMs(0), 0);
    EXPECT_EQ(g_usleep_arg.load(), 0u);
}

TEST(ThreadSleep, SleepMsOf4294968WrapsAroundTo704Microseconds) {
    g_usleep_calls.store(0);
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_SleepMs(4294968), 0);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_EQ(g_usleep_calls.load(), 1);
    EXPECT_EQ(g_usleep_arg.load(), 704u);
    EXPECT_GE(elapsed, 704 * 1000);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
}

TEST(ThreadSleep, SleepMsOfTheLargestCountWrapsAround) {
    ScopedSwitch<bool> stub(g_usleep_stubbed, true);
    g_usleep_result.store(0);
    EXPECT_EQ(ZEPO_SleepMs(UINT32_MAX), 0);
    EXPECT_EQ(g_usleep_arg.load(), static_cast<uint32_t>(UINT64_C(4294967295) * 1000));
}

TEST(ThreadSleep, SleepMsAndUSleepReturnUsleepsFailure) {
    ScopedSwitch<bool> stub(g_usleep_stubbed, true);
    g_usleep_result.store(-1);
    g_usleep_errno.store(EINTR);
    errno = 0;
    EXPECT_EQ(ZEPO_SleepMs(5), -1);
    EXPECT_EQ(errno, EINTR);
    errno = 0;
    EXPECT_EQ(ZEPO_USleep(5), -1);
    EXPECT_EQ(errno, EINTR);
    g_usleep_result.store(0);
}

TEST(ThreadSleep, USleepPassesItsArgument) {
    {
        ScopedSwitch<bool> stub(g_usleep_stubbed, true);
        g_usleep_result.store(0);
        g_usleep_calls.store(0);
        EXPECT_EQ(ZEPO_USleep(12345), 0);
        EXPECT_EQ(g_usleep_calls.load(), 1);
        EXPECT_EQ(g_usleep_arg.load(), 12345u);
        EXPECT_EQ(ZEPO_USleep(UINT32_MAX), 0);
        EXPECT_EQ(g_usleep_arg.load(), UINT32_MAX);
    }
    const int64_t start = monotonic_ns();
    EXPECT_EQ(ZEPO_USleep(20000), 0);
    const int64_t elapsed = monotonic_ns() - start;
    EXPECT_GE(elapsed, 20 * kNsPerMs);
    EXPECT_LT(elapsed, 5 * kNsPerSecond);
}

// ---- Dynamic loading -----------------------------------------------------------------------

TEST(ThreadLibrary, LoadLibraryOpensLazilyAndGetProcAddressFindsASymbol) {
    g_dlopen_calls.store(0);
    void *handle = ZEPO_LoadLibrary("libm.so.6");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(g_dlopen_calls.load(), 1);
    EXPECT_EQ(g_dlopen_mode.load(), RTLD_LAZY);
    EXPECT_STREQ(g_dlopen_file, "libm.so.6");
    void *address = ZEPO_GetProcAddress(handle, "cos");
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(address, dlsym(handle, "cos"));
    const auto cosine = reinterpret_cast<double (*)(double)>(address);
    EXPECT_EQ(cosine(0.0), 1.0);
    g_dlclose_calls.store(0);
    EXPECT_EQ(ZEPO_FreeLibrary(handle), 1);
    EXPECT_EQ(g_dlclose_calls.load(), 1);
    EXPECT_EQ(g_dlclose_handle.load(), handle);
}

TEST(ThreadLibrary, GetProcAddressOfAMissingSymbolIsNull) {
    void *handle = ZEPO_LoadLibrary("libm.so.6");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(ZEPO_GetProcAddress(handle, "qel_no_such_symbol"), nullptr);
    EXPECT_NE(dlerror(), nullptr);
    EXPECT_EQ(ZEPO_FreeLibrary(handle), 1);
}

TEST(ThreadLibrary, GetProcAddressPassesSpecialHandles) {
    EXPECT_EQ(ZEPO_GetProcAddress(RTLD_DEFAULT, "getpid"), dlsym(RTLD_DEFAULT, "getpid"));
    EXPECT_NE(ZEPO_GetProcAddress(RTLD_DEFAULT, "getpid"), nullptr);
}

TEST(ThreadLibrary, LoadLibraryOfAMissingFileIsNull) {
    EXPECT_EQ(ZEPO_LoadLibrary("/nonexistent/libqel_no_such_library.so"), nullptr);
    EXPECT_NE(dlerror(), nullptr);
    EXPECT_EQ(ZEPO_LoadLibrary("libqel_no_such_library.so.9"), nullptr);
}

TEST(ThreadLibrary, FreeLibraryGivesZeroWhenDlcloseFails) {
    void *handle = dlopen("libm.so.6", RTLD_LAZY);
    ASSERT_NE(handle, nullptr);
    {
        ScopedSwitch<bool> fail(g_dlclose_fail, true);
        g_dlclose_calls.store(0);
        EXPECT_EQ(ZEPO_FreeLibrary(handle), 0);
        EXPECT_EQ(g_dlclose_calls.load(), 1);
        EXPECT_EQ(g_dlclose_handle.load(), handle);
    }
    EXPECT_EQ(ZEPO_FreeLibrary(handle), 1);
}

// ---- System name ---------------------------------------------------------------------------

static_assert(sizeof(struct utsname) == 390, "six fields of 65 bytes");
static_assert(offsetof(struct utsname, domainname) == kClearedUtsBytes,
              "the cleared bytes end where the domain name starts");

TEST(ThreadOsVersion, GetOsVersionFillsEveryFieldAsUname) {
    struct utsname expected;
    ASSERT_EQ(::uname(&expected), 0);
    struct utsname buffer;
    std::memset(&buffer, 'X', sizeof buffer);
    g_uname_calls.store(0);
    EXPECT_EQ(ZEPO_GetOsVersion(&buffer), 0);
    EXPECT_EQ(g_uname_calls.load(), 1);
    EXPECT_EQ(g_uname_buffer.load(), &buffer);
    EXPECT_STREQ(buffer.sysname, expected.sysname);
    EXPECT_STREQ(buffer.nodename, expected.nodename);
    EXPECT_STREQ(buffer.release, expected.release);
    EXPECT_STREQ(buffer.version, expected.version);
    EXPECT_STREQ(buffer.machine, expected.machine);
    EXPECT_STREQ(buffer.domainname, expected.domainname);
}

TEST(ThreadOsVersion, GetOsVersionClearsTheFirst325BytesBeforeUname) {
    struct utsname buffer;
    std::memset(&buffer, 'X', sizeof buffer);
    g_uname_calls.store(0);
    g_uname_front_clear_on_entry.store(false);
    g_uname_tail_untouched_on_entry.store(false);
    EXPECT_EQ(ZEPO_GetOsVersion(&buffer), 0);
    EXPECT_EQ(g_uname_calls.load(), 1);
    EXPECT_TRUE(g_uname_front_clear_on_entry.load());
    EXPECT_TRUE(g_uname_tail_untouched_on_entry.load());
}

TEST(ThreadOsVersion, GetOsVersionWhenUnameFailsLeavesTheFrontClearedAndTheDomainNameUntouched) {
    struct utsname buffer;
    std::memset(&buffer, 'X', sizeof buffer);
    int result = 0;
    errno = 0;
    {
        ScopedSwitch<bool> fail(g_uname_fail, true);
        result = ZEPO_GetOsVersion(&buffer);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EFAULT);
    const auto *bytes = reinterpret_cast<const unsigned char *>(&buffer);
    size_t cleared = 0;
    for (size_t i = 0; i < kClearedUtsBytes; ++i) cleared += bytes[i] == 0 ? 1 : 0;
    EXPECT_EQ(cleared, kClearedUtsBytes);
    size_t untouched = 0;
    for (size_t i = kClearedUtsBytes; i < sizeof buffer; ++i) untouched += bytes[i] == 'X' ? 1 : 0;
    EXPECT_EQ(untouched, sizeof buffer - kClearedUtsBytes);
}
