// The public timer functions: the engine started on demand and stopped in its four steps, the
// limits on the number of timers, calendar patterns in the caller's convention, the forwards
// to the engine; the periodic waitable timer; the system-control slot.
//
// Engine tests run on the scripted clock (timer_harness.h) and number the driver's cycles
// 1, 2, 3, ...: a request made while the driver is parked before cycle N is carried out in
// cycle N, a one-shot timer of k ticks so started fires in cycle N + k, and a periodic one
// every k + 1 cycles after that.  One test watches a periodic timer on the real clock; the
// waitable timer is measured on CLOCK_MONOTONIC.
//
// Several engine functions get a test-only definition here, in front of the library's own
// (the library calls them through the dynamic linker).  Each forwards to the next definition
// until a test switches it on: then it records its arguments and, for the request functions,
// returns a marker instead of forwarding, so that a public function can be seen handing its
// arguments and the engine's result through unchanged.  The stop of the engine can also be
// held half-way.  A few thread-library functions can be made to fail on the test's thread,
// for the set-up of the waitable timer.

#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "timer_harness.h"

namespace {

using namespace timer_harness;
using qel_test::kSentinel;

constexpr uint32_t kMarker = 77;    // what a switched-on engine function returns
constexpr int kMarkerErrno = 4343;  // and the errno it leaves
constexpr const char *kCreator = "pump_ctrl.c";
constexpr uint32_t kCreatorLine = 4711;

void *tag(uintptr_t value) { return reinterpret_cast<void *>(value); }

// ---- Calls of the engine functions defined below --------------------------------------------

std::atomic<bool> g_recording{false};     // the engine functions below record their calls
std::atomic<bool> g_fakeRequests{false};  // the request functions return kMarker
std::atomic<bool> g_fakeStart{false};     // petimer_start returns kMarker

std::mutex g_callsLock;
std::vector<std::string> g_calls;

template <typename T>
uint64_t word(T value) {
    if constexpr (std::is_null_pointer_v<T>)
        return 0;
    else if constexpr (std::is_pointer_v<T>)
        return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value));
    else
        return static_cast<uint64_t>(value);
}

// "name(0x1, 0x2)": a call as recorded, every argument as a 64-bit word.
template <typename... Args>
std::string describe(const char *name, Args... args) {
    std::string text = std::string(name) + "(";
    const uint64_t words[] = {word(args)..., 0};
    for (size_t i = 0; i + 1 < sizeof words / sizeof words[0]; ++i) {
        char hex[24];
        std::snprintf(hex, sizeof hex, "%s0x%llx", i == 0 ? "" : ", ",
                      static_cast<unsigned long long>(words[i]));
        text += hex;
    }
    return text + ")";
}

template <typename... Args>
void note_call(const char *name, Args... args) {
    if (!g_recording.load()) return;
    std::lock_guard<std::mutex> hold(g_callsLock);
    g_calls.push_back(describe(name, args...));
}

void start_recording() {
    {
        std::lock_guard<std::mutex> hold(g_callsLock);
        g_calls.clear();
    }
    g_recording = true;
}

std::vector<std::string> recorded() {
    std::lock_guard<std::mutex> hold(g_callsLock);
    return g_calls;
}

// The copy of the pattern that reached petimer_start_abstimer.
std::mutex g_patternLock;
struct tm g_enginePattern {};
const struct tm *g_enginePatternAt = nullptr;

// What petimer_stop saw.
std::atomic<uint32_t> g_flagAtStop{0xFFFFFFFFu};
std::atomic<int32_t> g_stopResult{-12345};

// ---- A gate that holds a thread until the test opens it -------------------------------------

class Gate {
public:
    // Called by the held thread: reports that it arrived and waits for the opening.
    void pass() {
        std::unique_lock<std::mutex> hold(lock_);
        ++arrivals_;
        changed_.notify_all();
        changed_.wait(hold, [&] { return open_; });
    }
    bool wait_arrival(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> hold(lock_);
        return changed_.wait_for(hold, limit, [&] { return arrivals_ > 0; });
    }
    void open() {
        std::lock_guard<std::mutex> hold(lock_);
        open_ = true;
        changed_.notify_all();
    }
    int arrivals() {
        std::lock_guard<std::mutex> hold(lock_);
        return arrivals_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    int arrivals_ = 0;
    bool open_ = false;
};

Gate g_stopGate;  // holds petimer_stop before its join while armed
std::atomic<bool> g_holdStop{false};

// Opens a gate and joins a thread on every way out of a test.
struct OpenAndJoin {
    Gate &gate;
    std::thread &thread;
    ~OpenAndJoin() {
        gate.open();
        if (thread.joinable()) thread.join();
    }
};

// ---- The waitable timer's thread-library calls ----------------------------------------------

enum class Failing { None, MutexInit, SetClock, CondInit };

// Only calls made on a thread that switched watching on are recorded or failed.
thread_local bool t_watch = false;
thread_local Failing t_failing = Failing::None;

struct LibCall {
    std::string name;
    const void *object;
};
std::vector<LibCall> g_libCalls;  // written only by the watching test thread

clockid_t g_condClock = -1;  // the clock last asked for by the watching thread

void note_lib_call(const char *name, const void *object) {
    if (t_watch) g_libCalls.push_back({name, object});
}

// The library's definition of a function that this file defines again (named twice: the
// function gives the type, the name finds the next definition).
template <typename Fn>
Fn *next_of(Fn &, const char *name) {
    return qel_test::next_definition<Fn *>(name);
}

// A request function switched on records its call and answers with the marker; otherwise
// it hands the call to the library.
template <typename Next, typename... Args>
uint32_t fake_or_forward(const char *name, Next next, Args... args) {
    note_call(name, args...);
    if (g_fakeRequests.load()) {
        errno = kMarkerErrno;
        return kMarker;
    }
    return next(args...);
}

}  // namespace

// ---- Definitions in front of the library's --------------------------------------------------

extern "C" {

int32_t petimer_start(uint64_t *threadIdOut, const pthread_attr_t *threadAttr) {
    static const auto next = next_of(petimer_start, "petimer_start");
    note_call("petimer_start", threadIdOut, threadAttr);
    if (g_fakeStart.load()) {
        errno = kMarkerErrno;
        return static_cast<int32_t>(kMarker);
    }
    return next(threadIdOut, threadAttr);
}

int32_t petimer_stop(uint64_t threadId) {
    static const auto next = next_of(petimer_stop, "petimer_stop");
    note_call("petimer_stop", threadId);
    g_flagAtStop = petimer_isQuiting();
    if (g_holdStop.load()) g_stopGate.pass();
    const int32_t result = next(threadId);
    g_stopResult = result;
    return result;
}

void petimer_setQuitingFlag(uint32_t value, uint32_t takeLocks) {
    static const auto next = next_of(petimer_setQuitingFlag, "petimer_setQuitingFlag");
    note_call("petimer_setQuitingFlag", value, takeLocks);
    next(value, takeLocks);
}

uint32_t petimer_start_abstimer(void *handle, const struct tm *pattern, void *arg) {
    static const auto next = next_of(petimer_start_abstimer, "petimer_start_abstimer");
    note_call("petimer_start_abstimer", handle, arg);
    if (g_fakeRequests.load()) {
        std::lock_guard<std::mutex> hold(g_patternLock);
        g_enginePatternAt = pattern;
        if (pattern != nullptr) g_enginePattern = *pattern;
        errno = kMarkerErrno;
        return kMarker;
    }
    return next(handle, pattern, arg);
}

// The request functions behind the one-to-one forwards.
uint32_t petimer_start_reltimer(void *handle, uint32_t intervalMs, void *arg) {
    static const auto next = next_of(petimer_start_reltimer, "petimer_start_reltimer");
    return fake_or_forward("petimer_start_reltimer", next, handle, intervalMs, arg);
}

uint32_t petimer_stop_abstimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    static const auto next = next_of(petimer_stop_abstimer_safe, "petimer_stop_abstimer_safe");
    return fake_or_forward("petimer_stop_abstimer_safe", next, handle, pfnDone, doneArg);
}

uint32_t petimer_stop_reltimer_safe(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg) {
    static const auto next = next_of(petimer_stop_reltimer_safe, "petimer_stop_reltimer_safe");
    return fake_or_forward("petimer_stop_reltimer_safe", next, handle, pfnDone, doneArg);
}

uint32_t petimer_stop_abstimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut) {
    static const auto next = next_of(petimer_stop_abstimer_safeEx, "petimer_stop_abstimer_safeEx");
    return fake_or_forward("petimer_stop_abstimer_safeEx", next, handle, pfnDone, doneArg, argOut);
}

uint32_t petimer_stop_reltimer_safeEx(void *handle, ZEPO_TIMER_DONE_FUNC pfnDone, void *doneArg,
                                      void **argOut) {
    static const auto next = next_of(petimer_stop_reltimer_safeEx, "petimer_stop_reltimer_safeEx");
    return fake_or_forward("petimer_stop_reltimer_safeEx", next, handle, pfnDone, doneArg, argOut);
}

uint32_t petimer_free_abstimer(void *handle) {
    static const auto next = next_of(petimer_free_abstimer, "petimer_free_abstimer");
    return fake_or_forward("petimer_free_abstimer", next, handle);
}

uint32_t petimer_free_reltimer(void *handle) {
    static const auto next = next_of(petimer_free_reltimer, "petimer_free_reltimer");
    return fake_or_forward("petimer_free_reltimer", next, handle);
}

uint32_t petimer_free_reltimerarg_safe(void *block) {
    static const auto next =
        next_of(petimer_free_reltimerarg_safe, "petimer_free_reltimerarg_safe");
    return fake_or_forward("petimer_free_reltimerarg_safe", next, block);
}

uint32_t petimer_start_reltimer_simple(uint32_t intervalMs, ZEPO_TIMEOUT_FUNC pfnTimeout,
                                       void *arg) {
    static const auto next =
        next_of(petimer_start_reltimer_simple, "petimer_start_reltimer_simple");
    return fake_or_forward("petimer_start_reltimer_simple", next, intervalMs, pfnTimeout, arg);
}

int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) noexcept {
    using Fn = int (*)(pthread_mutex_t *, const pthread_mutexattr_t *);
    static const auto next = qel_test::next_definition<Fn>("pthread_mutex_init");
    note_lib_call("pthread_mutex_init", mutex);
    if (t_watch && t_failing == Failing::MutexInit) return EAGAIN;
    return next(mutex, attr);
}

int pthread_mutex_destroy(pthread_mutex_t *mutex) noexcept {
    using Fn = int (*)(pthread_mutex_t *);
    static const auto next = qel_test::next_definition<Fn>("pthread_mutex_destroy");
    note_lib_call("pthread_mutex_destroy", mutex);
    return next(mutex);
}

int pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock) noexcept {
    using Fn = int (*)(pthread_condattr_t *, clockid_t);
    static const auto next = qel_test::next_definition<Fn>("pthread_condattr_setclock");
    note_lib_call("pthread_condattr_setclock", attr);
    if (t_watch) g_condClock = clock;
    if (t_watch && t_failing == Failing::SetClock) return EINVAL;
    return next(attr, clock);
}

int pthread_condattr_destroy(pthread_condattr_t *attr) noexcept {
    using Fn = int (*)(pthread_condattr_t *);
    static const auto next = qel_test::next_definition<Fn>("pthread_condattr_destroy");
    note_lib_call("pthread_condattr_destroy", attr);
    return next(attr);
}

int pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr) noexcept {
    using Fn = int (*)(pthread_cond_t *, const pthread_condattr_t *);
    // The current version: the oldest one of this name is a different implementation.
    static const auto next = [] {
        const int saved = errno;
        auto found = reinterpret_cast<Fn>(dlvsym(RTLD_NEXT, "pthread_cond_init", "GLIBC_2.3.2"));
        if (found == nullptr) found = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "pthread_cond_init"));
        errno = saved;
        return found;
    }();
    note_lib_call("pthread_cond_init", cond);
    if (t_watch && t_failing == Failing::CondInit) return EAGAIN;
    return next(cond, attr);
}

}  // extern "C"

namespace {

// ---- Cycles and firings ---------------------------------------------------------------------

std::mutex g_doneLock;
std::vector<void *> g_doneArgs;

void note_done(void *arg) {
    std::lock_guard<std::mutex> hold(g_doneLock);
    g_doneArgs.push_back(arg);
}

std::vector<void *> done_args() {
    std::lock_guard<std::mutex> hold(g_doneLock);
    return g_doneArgs;
}

// Starts the engine on the scripted clock; the driver is parked before cycle 1 afterwards.
void start_scripted(uint64_t *threadIdOut = nullptr) {
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(threadIdOut, nullptr), 0);
    wait_parked();
}

void *create_rel(int32_t mode, ZEPO_TIMEOUT_FUNC callback = note_firing) {
    return ZEPO_CreateRelTimerM(callback, mode, kCreatorLine, kCreator);
}

// ---- Engine control -------------------------------------------------------------------------

TEST(TimerTask, StartIsRefusedWhileTheEngineQuits) {
    const size_t blocks = live_blocks();
    petimer_setQuitingFlag(1, 0);
    start_recording();
    uint64_t id = 0x5A5A;
    EXPECT_EQ(ZEPO_StartTimerTask(&id, nullptr), -1);
    g_recording = false;
    EXPECT_EQ(recorded(), std::vector<std::string>{}) << "the engine is not asked";
    EXPECT_EQ(id, 0x5A5Au);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(live_blocks(), blocks);
    petimer_setQuitingFlag(0, 0);
    use_scripted_clock();
    EXPECT_EQ(ZEPO_StartTimerTask(&id, nullptr), 0);
    EXPECT_NE(id, 0x5A5Au);
    stop_engine();
}

TEST(TimerTask, StartHandsItsArgumentsToTheEngineAndReturnsItsResult) {
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    uint64_t id = 0;
    g_fakeStart = true;
    start_recording();
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StartTimerTask(&id, &attr), static_cast<int32_t>(kMarker));
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), static_cast<int32_t>(kMarker));
    g_recording = false;
    g_fakeStart = false;
    EXPECT_EQ(recorded(), (std::vector<std::string>{describe("petimer_start", &id, &attr),
                                                    describe("petimer_start", nullptr, nullptr)}));
    pthread_attr_destroy(&attr);
}

TEST(TimerTask, OnlyAQuittingFlagOfOneRefusesTheStart) {
    petimer_setQuitingFlag(2, 0);
    g_fakeStart = true;
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), static_cast<int32_t>(kMarker));
    g_fakeStart = false;
    petimer_setQuitingFlag(0, 0);
}

std::atomic<uint64_t> g_callbackThread{0};
void note_thread(void *) { g_callbackThread = static_cast<uint64_t>(pthread_self()); }

TEST(TimerTask, StartFillsTheDriversThreadIdAndGivesZeroAgainWhileRunning) {
    capture_trace();
    uint64_t id = 0;
    start_scripted(&id);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(id, petimer_getTreadId());
    uint64_t again = 0x5A5A;
    EXPECT_EQ(ZEPO_StartTimerTask(&again, nullptr), 0);
    EXPECT_EQ(again, 0x5A5Au) << "nothing is stored when the engine already runs";
    EXPECT_EQ(petimer_getTreadId(), id);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"})
        << "one start, one message";
    void *handle = create_rel(ZEPO_TIMER_ONESHOT, note_thread);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 10, nullptr), 0u);
    advance(2);
    EXPECT_EQ(g_callbackThread.load(), id) << "call-backs run on the driver thread";
    stop_engine();
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTask, StopWithoutARunningEngineIsRefused) {
    start_recording();
    EXPECT_EQ(ZEPO_StopTimerTask(), -1);
    g_recording = false;
    EXPECT_EQ(recorded(), std::vector<std::string>{}) << "neither the flag nor a join";
    EXPECT_EQ(petimer_isQuiting(), 0u);
}

Gate g_callbackGate;
void wait_at_gate(void *arg) {
    note_firing(arg);
    g_callbackGate.pass();
}

TEST(TimerTask, StopIsRefusedWhileTheQuittingFlagIsRaised) {
    start_scripted();
    void *handle = create_rel(ZEPO_TIMER_ONESHOT, wait_at_gate);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 10, tag(1)), 0u);
    advance();
    // Cycle 2 fires the timer, whose call-back holds the driver: it cannot see the flag.
    std::thread cycle([] { advance(); });
    {
        OpenAndJoin release{g_callbackGate, cycle};
        ASSERT_TRUE(g_callbackGate.wait_arrival());
        petimer_setQuitingFlag(1, 0);
        start_recording();
        EXPECT_EQ(ZEPO_StopTimerTask(), -1);
        EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), -1);
        g_recording = false;
        EXPECT_EQ(recorded(), std::vector<std::string>{}) << "no step of a stop was taken";
        EXPECT_NE(petimer_getTreadId(), 0u);
        petimer_setQuitingFlag(0, 0);
    }
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{2});
    EXPECT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
}

TEST(TimerTask, StopRaisesTheFlagUnderTheLocksJoinsTheDriverAndClearsTheFlag) {
    const size_t blocks = live_blocks();
    uint64_t id = 0;
    start_scripted(&id);
    ASSERT_NE(id, 0u);
    void *idle = create_rel(ZEPO_TIMER_ONESHOT);
    void *running = create_rel(ZEPO_TIMER_PERIODIC);
    ASSERT_NE(idle, nullptr);
    ASSERT_NE(running, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(running, 20, tag(1)), 0u);
    advance(3);
    EXPECT_EQ(g_reltmNum, 2);
    // Queued before the stop: carried out by the leaving driver.
    ASSERT_EQ(ZEPO_StopRelTimer_Safe(idle, note_done, tag(5)), 0u);

    start_recording();
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    g_recording = false;
    EXPECT_EQ(recorded(), (std::vector<std::string>{describe("petimer_setQuitingFlag", 1, 1),
                                                    describe("petimer_stop", id),
                                                    describe("petimer_setQuitingFlag", 0, 0)}));
    EXPECT_EQ(g_flagAtStop.load(), 1u) << "the driver is joined with the flag raised";
    EXPECT_EQ(g_stopResult.load(), 0) << "the join succeeded";
    EXPECT_EQ(petimer_isQuiting(), 0u);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    // The driver finished its way out before the stop returned.
    EXPECT_EQ(done_args(), std::vector<void *>{tag(5)});
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    EXPECT_EQ(live_blocks(), blocks);
}

std::atomic<int32_t> g_stopInCallback{12345};
void stop_from_callback(void *arg) {
    g_stopInCallback = ZEPO_StopTimerTask();
    note_firing(arg);
}

TEST(TimerTask, StopFromATimerCallbackIsRefusedAndTheEngineKeepsRunning) {
    start_scripted();
    void *handle = create_rel(ZEPO_TIMER_PERIODIC, stop_from_callback);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 10, tag(1)), 0u);
    advance(2);
    EXPECT_EQ(g_stopInCallback.load(), -1);
    EXPECT_EQ(petimer_isQuiting(), 0u);
    EXPECT_NE(petimer_getTreadId(), 0u);
    advance(4);
    EXPECT_EQ(cycles_of(tag(1)), (std::vector<uint32_t>{2, 4, 6})) << "it goes on firing";
    EXPECT_EQ(ZEPO_StopTimerTask(), 0);
}

TEST(TimerTask, StopWhileAnotherStopIsUnderWayIsRefused) {
    start_scripted();
    g_holdStop = true;
    std::atomic<int32_t> first{12345};
    std::thread stopper([&] { first = ZEPO_StopTimerTask(); });
    {
        OpenAndJoin release{g_stopGate, stopper};
        ASSERT_TRUE(g_stopGate.wait_arrival()) << "the first stop reached its join";
        EXPECT_EQ(ZEPO_StopTimerTask(), -1);
    }
    g_holdStop = false;
    EXPECT_EQ(first.load(), 0);
    EXPECT_EQ(g_stopGate.arrivals(), 1) << "one join only";
    EXPECT_EQ(petimer_isQuiting(), 0u);
    EXPECT_EQ(petimer_getTreadId(), 0u);
}

TEST(TimerTask, OfTwoThreadsStoppingAtOnceOneGetsZeroAndTheOtherMinusOne) {
    use_scripted_clock();
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
        wait_parked();
        std::atomic<int> ready{0};
        int32_t results[2] = {12345, 12345};
        auto stop = [&](int which) {
            ready.fetch_add(1);
            while (ready.load() < 2) std::this_thread::yield();
            results[which] = ZEPO_StopTimerTask();
        };
        std::thread a(stop, 0);
        std::thread b(stop, 1);
        a.join();
        b.join();
        EXPECT_EQ(std::min(results[0], results[1]), -1);
        EXPECT_EQ(std::max(results[0], results[1]), 0);
        EXPECT_EQ(petimer_getTreadId(), 0u);
        EXPECT_EQ(petimer_isQuiting(), 0u);
    }
}

TEST(TimerTask, EngineStartsAgainAfterAStop) {
    const size_t blocks = live_blocks();
    start_scripted();
    void *first = create_rel(ZEPO_TIMER_ONESHOT);
    ASSERT_NE(first, nullptr);
    uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimer(first, 20, tag(1)), 0u);
    run_through(start + 3);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 2});
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(live_blocks(), blocks);

    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    EXPECT_NE(petimer_getTreadId(), 0u);
    void *second = create_rel(ZEPO_TIMER_ONESHOT);
    ASSERT_NE(second, nullptr);
    start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimer(second, 30, tag(2)), 0u);
    run_through(start + 4);
    EXPECT_EQ(cycles_of(tag(2)), std::vector<uint32_t>{start + 3});
    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
}

// ---- Creation and its limits ----------------------------------------------------------------

TEST(TimerCreation, RelativeCreationStartsTheEngineOnDemand) {
    const size_t blocks = live_blocks();
    capture_trace();
    use_scripted_clock();
    ASSERT_EQ(petimer_getTreadId(), 0u);
    void *handle = create_rel(ZEPO_TIMER_ONESHOT);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(petimer_getTreadId(), 0u);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    EXPECT_EQ(g_reltmNum, 1);
    wait_parked();
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 30, tag(1)), 0u);
    run_through(start + 8);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 3}) << "mode 1 reached the engine";
    stop_engine();
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerCreation, AbsoluteCreationStartsTheEngineOnDemand) {
    const size_t blocks = live_blocks();
    capture_trace();
    use_scripted_clock();
    ASSERT_EQ(petimer_getTreadId(), 0u);
    void *handle = ZEPO_CreateAbsTimerM(note_firing, 0);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(petimer_getTreadId(), 0u);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    EXPECT_EQ(g_abstmNum, 1);
    EXPECT_EQ(g_reltmNum, 0);
    wait_parked();
    stop_engine();
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerCreation, RelativeTimersAreLimitedByTheConfiguredMaximum) {
    ZEPO_TMRSetMaxReltmNum(3);
    use_scripted_clock();
    void *handles[3];
    for (int i = 0; i < 3; ++i) {
        handles[i] = create_rel(ZEPO_TIMER_ONESHOT);
        ASSERT_NE(handles[i], nullptr) << i;
        EXPECT_EQ(g_reltmNum, i + 1);
    }
    wait_parked();
    EXPECT_REFUSED(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(g_reltmNum, 3);
    ASSERT_EQ(ZEPO_FreeRelTimer(handles[1]), 0u);
    EXPECT_EQ(g_reltmNum, 2);
    EXPECT_NE(create_rel(ZEPO_TIMER_ONESHOT), nullptr) << "room again after a free";
    EXPECT_EQ(g_reltmNum, 3);
    stop_engine();
    EXPECT_EQ(g_reltmNum, 0);
    ZEPO_TMRSetMaxReltmNum(2000);
}

TEST(TimerCreation, AbsoluteTimersAreLimitedByTheConfiguredMaximum) {
    ZEPO_TMRSetMaxAbstmNum(3);
    use_scripted_clock();
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr) << i;
        EXPECT_EQ(g_abstmNum, i + 1);
    }
    wait_parked();
    EXPECT_REFUSED(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(g_abstmNum, 3);
    EXPECT_NE(create_rel(ZEPO_TIMER_ONESHOT), nullptr) << "relative timers count apart";
    stop_engine();
    EXPECT_EQ(g_abstmNum, 0);
    ZEPO_TMRSetMaxAbstmNum(2000);
}

TEST(TimerCreation, NoMoreThan2000RelativeTimersWhateverTheConfiguredMaximum) {
    const size_t blocks = live_blocks();
    ZEPO_TMRSetMaxReltmNum(3000);
    use_scripted_clock();
    int refused = 0;
    for (int i = 0; i < 2000; ++i)
        if (create_rel(ZEPO_TIMER_ONESHOT) == nullptr) ++refused;
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(g_reltmNum, 2000);
    wait_parked();
    void **const head = g_pRelHead;
    ASSERT_NE(head, nullptr) << "the table still has free cells";
    EXPECT_REFUSED(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(g_pRelHead, head);
    EXPECT_EQ(g_reltmNum, 2000);
    stop_engine();
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
    ZEPO_TMRSetMaxReltmNum(2000);
}

TEST(TimerCreation, NoMoreThan2000AbsoluteTimersWhateverTheConfiguredMaximum) {
    const size_t blocks = live_blocks();
    ZEPO_TMRSetMaxAbstmNum(3000);
    use_scripted_clock();
    int refused = 0;
    for (int i = 0; i < 2000; ++i)
        if (ZEPO_CreateAbsTimerM(note_firing, 0) == nullptr) ++refused;
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(g_abstmNum, 2000);
    wait_parked();
    ASSERT_NE(g_pAbsHead, nullptr) << "the table still has free cells";
    EXPECT_REFUSED(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(g_abstmNum, 2000);
    stop_engine();
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
    ZEPO_TMRSetMaxAbstmNum(2000);
}

TEST(TimerCreation, NegativeCountIsBelowEveryLimit) {
    start_scripted();
    // Fire-and-forget timers are not counted when made, yet counted down when they free
    // themselves.
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(10, note_firing, tag(1)), 0u);
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(10, note_firing, tag(2)), 0u);
    advance(3);
    ASSERT_EQ(firings().size(), 2u);
    ASSERT_EQ(g_reltmNum, -2);
    EXPECT_NE(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(g_reltmNum, -1);
    EXPECT_NE(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(g_reltmNum, 0);
    stop_engine();
}

TEST(TimerCreation, LimitOfZeroKeepsTheEngineFromStartingAndEveryCreationFails) {
    const size_t blocks = live_blocks();
    use_scripted_clock();
    ZEPO_TMRSetMaxReltmNum(0);
    EXPECT_EQ(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    ZEPO_TMRSetMaxReltmNum(2000);
    ZEPO_TMRSetMaxAbstmNum(0);
    EXPECT_EQ(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    ZEPO_TMRSetMaxAbstmNum(2000);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), blocks) << "nothing was built";
}

TEST(TimerCreation, CreationFailsWhenTheDriverThreadCannotBeMade) {
    const size_t blocks = live_blocks();
    use_scripted_clock();
    fail_thread_create(EAGAIN);
    EXPECT_EQ(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), EAGAIN);
    fail_thread_create(0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
    // The next start replaces what the failed ones left behind.
    EXPECT_NE(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_NE(petimer_getTreadId(), 0u);
    wait_parked();
    stop_engine();
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(TimerCreation, CreationIsRefusedWhileTheEngineQuits) {
    petimer_setQuitingFlag(1, 0);
    EXPECT_REFUSED(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_REFUSED(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    petimer_setQuitingFlag(0, 0);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
}

TEST(TimerCreation, CreatorsLineAndNameAreWrittenIntoTheTimer) {
    start_scripted();
    void *handle = ZEPO_CreateRelTimerM(note_firing, 0x101, kCreatorLine, kCreator);
    ASSERT_NE(handle, nullptr);
    const RelTimerView &record = rel_timer(handle);
    EXPECT_EQ(record.line, kCreatorLine);
    EXPECT_EQ(record.name, kCreator);
    EXPECT_EQ(record.pfnTimeout, note_firing);
    EXPECT_EQ(record.mode, 1u) << "the mode reached the engine";
    stop_engine();
}

// Works as many milliseconds as its argument says, on the scripted clock.
void work_for(void *ms) {
    advance_clock(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ms)));
    note_firing(ms);
}

TEST(TimerCreation, CreatorsLineAndNameAppearInTheLongCallbackWarning) {
    start_scripted();
    capture_trace();
    void *handle = ZEPO_CreateRelTimerM(work_for, ZEPO_TIMER_ONESHOT, kCreatorLine, kCreator);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 10, tag(150)), 0u);
    advance(4);
    ASSERT_EQ(cycles_of(tag(150)).size(), 1u);
    EXPECT_EQ(traces(),
              std::vector<std::string>{"warning: timer_timeout_proc execution time is too long! "
                                       "timer[pump_ctrl.c:4711] takes time 150\n"});
    stop_engine();
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerCreation, FailedCreationLeavesTheEnginesErrno) {
    start_scripted();
    const size_t blocks = live_blocks();
    EXPECT_SERVICE_FAILS(ZEPO_CreateRelTimerM(nullptr, 1, kCreatorLine, kCreator), nullptr, EINVAL);
    EXPECT_SERVICE_FAILS(ZEPO_CreateAbsTimerM(nullptr, 0), nullptr, EINVAL);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(create_rel(ZEPO_TIMER_ONESHOT), nullptr, ENOMEM);
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(ZEPO_CreateAbsTimerM(note_firing, 0), nullptr, ENOMEM);
    fail_allocation(0);
    EXPECT_EQ(g_reltmNum, 0);
    EXPECT_EQ(g_abstmNum, 0);
    EXPECT_EQ(live_blocks(), blocks);
    stop_engine();
}

TEST(TimerCreation, CreationOnAFullTableGivesNullAndLeavesErrnoAlone) {
    ZEPO_TMRSetMaxReltmNum(3);
    start_scripted();
    // Fire-and-forget timers take cells without being counted.
    for (uintptr_t i = 1; i <= 3; ++i)
        ASSERT_EQ(ZEPO_StartRelTimer_Simple(5000, note_firing, tag(i)), 0u);
    ASSERT_EQ(g_pRelHead, nullptr);
    ASSERT_EQ(g_reltmNum, 0);
    EXPECT_REFUSED(create_rel(ZEPO_TIMER_ONESHOT), nullptr);
    EXPECT_EQ(g_reltmNum, 0);
    stop_engine();
    ZEPO_TMRSetMaxReltmNum(2000);
}

// ---- Calendar starts ------------------------------------------------------------------------

struct tm calendar(int year, int mon, int mday, int hour, int min, int sec) {
    struct tm t {};
    t.tm_year = year;
    t.tm_mon = mon;
    t.tm_mday = mday;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    return t;
}

// The request functions answer with the marker and keep what they were given.
class TimerForwards : public testing::Test {
protected:
    void SetUp() override {
        g_fakeRequests = true;
        start_recording();
    }
    void TearDown() override {
        g_recording = false;
        g_fakeRequests = false;
    }
    struct tm engine_pattern() {
        std::lock_guard<std::mutex> hold(g_patternLock);
        return g_enginePattern;
    }
    const struct tm *engine_pattern_at() {
        std::lock_guard<std::mutex> hold(g_patternLock);
        return g_enginePatternAt;
    }
};

using TimerCalendarStart = TimerForwards;

TEST_F(TimerCalendarStart, InvalidCalendarTimeGives22WithoutReachingTheEngine) {
    const struct tm invalid[] = {
        calendar(1969, 12, 31, 23, 59, 59), calendar(-2, 5, 8, 7, 6, 5),
        calendar(2024, 5, 32, 7, 6, 5),     calendar(2024, 5, 0, 7, 6, 5),
        calendar(2024, 13, 8, 7, 6, 5),     calendar(2024, 0, 8, 7, 6, 5),
        calendar(2024, 5, 8, 24, 6, 5),     calendar(2024, 5, 8, -2, 6, 5),
        calendar(2024, 5, 8, 7, 60, 5),     calendar(2024, 5, 8, 7, 6, 60),
        calendar(2024, 2, 30, 7, 6, 5),     calendar(2023, 2, 29, 7, 6, 5),
        calendar(2023, 4, 31, 7, 6, 5),
    };
    for (const struct tm &pattern : invalid) {
        SCOPED_TRACE(testing::Message()
                     << pattern.tm_year << "-" << pattern.tm_mon << "-" << pattern.tm_mday << " "
                     << pattern.tm_hour << ":" << pattern.tm_min << ":" << pattern.tm_sec);
        EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &pattern, tag(0x2000)), 22u);
    }
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), nullptr, tag(0x2000)), 22u);
    EXPECT_EQ(recorded(), std::vector<std::string>{});
}

TEST_F(TimerCalendarStart, PatternReachesTheEngineInTheCLibrarysConvention) {
    struct tm pattern = calendar(2024, 5, 8, 7, 6, 5);
    pattern.tm_wday = 3;
    pattern.tm_yday = 128;
    pattern.tm_isdst = 1;
    pattern.tm_gmtoff = 3600;
    pattern.tm_zone = "CET";
    const struct tm before = pattern;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &pattern, tag(0x2000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{
                              describe("petimer_start_abstimer", tag(0x1000), tag(0x2000))});
    const struct tm copy = engine_pattern();
    EXPECT_NE(engine_pattern_at(), &pattern) << "the engine gets a copy";
    EXPECT_EQ(copy.tm_year, 124);
    EXPECT_EQ(copy.tm_mon, 4);
    EXPECT_EQ(copy.tm_mday, 8);
    EXPECT_EQ(copy.tm_hour, 7);
    EXPECT_EQ(copy.tm_min, 6);
    EXPECT_EQ(copy.tm_sec, 5);
    EXPECT_EQ(copy.tm_wday, 3);
    EXPECT_EQ(copy.tm_yday, 128);
    EXPECT_EQ(copy.tm_isdst, 1);
    EXPECT_EQ(copy.tm_gmtoff, 3600);
    EXPECT_EQ(copy.tm_zone, before.tm_zone);
    EXPECT_EQ(std::memcmp(&pattern, &before, sizeof pattern), 0) << "the caller's is unchanged";
}

TEST_F(TimerCalendarStart, WildcardsStayMinusOne) {
    const struct tm any = calendar(-1, -1, -1, -1, -1, -1);
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &any, nullptr), kMarker);
    const struct tm copy = engine_pattern();
    EXPECT_EQ(copy.tm_year, -1);
    EXPECT_EQ(copy.tm_mon, -1);
    EXPECT_EQ(copy.tm_mday, -1);
    EXPECT_EQ(copy.tm_hour, -1);
    EXPECT_EQ(copy.tm_min, -1);
    EXPECT_EQ(copy.tm_sec, -1);
    EXPECT_EQ(any.tm_year, -1);
    EXPECT_EQ(any.tm_mon, -1);
}

TEST_F(TimerCalendarStart, FirstAndLastMonthsAndTheFirstYearAreShifted) {
    const struct tm january = calendar(1970, 1, 1, 0, 0, 0);
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &january, nullptr), kMarker);
    EXPECT_EQ(engine_pattern().tm_year, 70);
    EXPECT_EQ(engine_pattern().tm_mon, 0);
    const struct tm december = calendar(-1, 12, 31, 23, 59, 59);
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &december, nullptr), kMarker);
    EXPECT_EQ(engine_pattern().tm_year, -1);
    EXPECT_EQ(engine_pattern().tm_mon, 11);
    const struct tm leapDayAnyYear = calendar(-1, 2, 29, -1, -1, -1);
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &leapDayAnyYear, nullptr), kMarker);
    EXPECT_EQ(engine_pattern().tm_mon, 1);
    const struct tm leapDay = calendar(2024, 2, 29, 12, 0, 0);
    EXPECT_EQ(ZEPO_StartAbsTimer(tag(0x1000), &leapDay, nullptr), kMarker);
    EXPECT_EQ(engine_pattern().tm_year, 124);
}

TEST(TimerCalendarFiring, TimerFiresInTheLocalSecondItsPatternNames) {
    const time_t base = 1717171717;  // any second will do
    use_scripted_calendar(static_cast<uint32_t>(base));
    start_scripted();
    void *handle = ZEPO_CreateAbsTimerM(note_firing, 0);
    ASSERT_NE(handle, nullptr);
    const time_t due = base + 2;
    struct tm local {};
    ASSERT_NE(localtime_r(&due, &local), nullptr);
    struct tm pattern = calendar(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                 local.tm_hour, local.tm_min, local.tm_sec);
    ASSERT_EQ(ZEPO_StartAbsTimer(handle, &pattern, tag(7)), 0u);
    // Each cycle of a second lets the calendar check run once.
    run_cycle(1000);
    set_calendar(static_cast<uint32_t>(base + 1));
    run_cycle(1000);
    EXPECT_TRUE(cycles_of(tag(7)).empty());
    set_calendar(static_cast<uint32_t>(due));
    run_cycle(1000);
    EXPECT_EQ(cycles_of(tag(7)).size(), 1u);
    set_calendar(static_cast<uint32_t>(due + 1));
    run_cycle(1000);
    EXPECT_EQ(cycles_of(tag(7)).size(), 1u);
    stop_engine();
    use_real_calendar();
}

// ---- One-to-one forwards --------------------------------------------------------------------

TEST_F(TimerForwards, StartRelTimerHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StartRelTimer(tag(0x1000), 0xFFFFFFFFu, tag(0x2000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_start_reltimer", tag(0x1000),
                                                            0xFFFFFFFFu, tag(0x2000))});
}

TEST_F(TimerForwards, StopAbsTimerSafeHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StopAbsTimer_Safe(tag(0x1000), note_done, tag(0x3000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_stop_abstimer_safe",
                                                            tag(0x1000), note_done, tag(0x3000))});
}

TEST_F(TimerForwards, StopRelTimerSafeHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StopRelTimer_Safe(tag(0x1000), note_done, tag(0x3000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_stop_reltimer_safe",
                                                            tag(0x1000), note_done, tag(0x3000))});
}

TEST_F(TimerForwards, StopAbsTimerSafeExHandsEverythingThrough) {
    void *out = nullptr;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StopAbsTimer_SafeEx(tag(0x1000), note_done, tag(0x3000), &out), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(),
              std::vector<std::string>{describe("petimer_stop_abstimer_safeEx", tag(0x1000),
                                                note_done, tag(0x3000), &out)});
}

TEST_F(TimerForwards, StopRelTimerSafeExHandsEverythingThrough) {
    void *out = nullptr;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StopRelTimer_SafeEx(tag(0x1000), nullptr, nullptr, &out), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_stop_reltimer_safeEx",
                                                            tag(0x1000), nullptr, nullptr, &out)});
}

TEST_F(TimerForwards, FreeAbsTimerHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_FreeAbsTimer(tag(0x1000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_free_abstimer", tag(0x1000))});
}

TEST_F(TimerForwards, FreeRelTimerHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_FreeRelTimer(tag(0x1000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), std::vector<std::string>{describe("petimer_free_reltimer", tag(0x1000))});
}

TEST_F(TimerForwards, FreeRelTimerArgSafeHandsEverythingThrough) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(tag(0x4000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(),
              std::vector<std::string>{describe("petimer_free_reltimerarg_safe", tag(0x4000))});
}

TEST_F(TimerForwards, SimpleStartStartsTheEngineThenHandsEverythingThrough) {
    use_scripted_clock();
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StartRelTimer_Simple(250, note_firing, tag(0x2000)), kMarker);
    EXPECT_EQ(errno, kMarkerErrno);
    EXPECT_EQ(recorded(), (std::vector<std::string>{describe("petimer_start", nullptr, nullptr),
                                                    describe("petimer_start_reltimer_simple", 250,
                                                             note_firing, tag(0x2000))}));
    EXPECT_NE(petimer_getTreadId(), 0u);
    g_recording = false;
    wait_parked();
    stop_engine();
}

// ---- Fire-and-forget timers -----------------------------------------------------------------

TEST(TimerSimpleStart, StartsTheEngineAndFiresOnceUncounted) {
    const size_t blocks = live_blocks();
    use_scripted_clock();
    ASSERT_EQ(petimer_getTreadId(), 0u);
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(30, note_firing, tag(1)), 0u);
    EXPECT_NE(petimer_getTreadId(), 0u);
    EXPECT_EQ(g_reltmNum, 0) << "not counted here";
    wait_parked();
    run_through(20);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{4}) << "carried out in cycle 1, 3 ticks";
    stop_engine();
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(TimerSimpleStart, FailedEngineStartIsReturnedAsItIs) {
    ZEPO_TMRSetMaxReltmNum(0);
    EXPECT_EQ(ZEPO_StartRelTimer_Simple(30, note_firing, tag(1)), 22u);
    ZEPO_TMRSetMaxReltmNum(2000);
    fail_thread_create(EAGAIN);
    EXPECT_EQ(ZEPO_StartRelTimer_Simple(30, note_firing, tag(1)), static_cast<uint32_t>(EAGAIN));
    fail_thread_create(0);
    petimer_setQuitingFlag(1, 0);
    EXPECT_EQ(ZEPO_StartRelTimer_Simple(30, note_firing, tag(1)), 0xFFFFFFFFu);
    petimer_setQuitingFlag(0, 0);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_TRUE(firings().empty());
    // Clears what the start of the failed thread creation left.
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    stop_engine();
}

TEST(TimerSimpleStart, IsNotHeldBackByTheCountLimit) {
    ZEPO_TMRSetMaxReltmNum(2001);
    use_scripted_clock();
    int refused = 0;
    for (int i = 0; i < 2000; ++i)
        if (create_rel(ZEPO_TIMER_ONESHOT) == nullptr) ++refused;
    ASSERT_EQ(refused, 0);
    wait_parked();
    ASSERT_EQ(create_rel(ZEPO_TIMER_ONESHOT), nullptr) << "the count is at its limit";
    const uint32_t start = next_cycle();
    ASSERT_EQ(ZEPO_StartRelTimer_Simple(20, note_firing, tag(1)), 0u);
    EXPECT_EQ(g_pRelHead, nullptr) << "it took the last cell";
    EXPECT_EQ(g_reltmNum, 2000);
    run_through(start + 6);
    EXPECT_EQ(cycles_of(tag(1)), std::vector<uint32_t>{start + 2});
    stop_engine();
    ZEPO_TMRSetMaxReltmNum(2000);
}

// ---- Real time ------------------------------------------------------------------------------

using SteadyClock = std::chrono::steady_clock;  // CLOCK_MONOTONIC, as the run-time clock

std::mutex g_timesLock;
std::vector<SteadyClock::time_point> g_times;

void note_time(void *) {
    std::lock_guard<std::mutex> hold(g_timesLock);
    g_times.push_back(SteadyClock::now());
}

size_t times_noted() {
    std::lock_guard<std::mutex> hold(g_timesLock);
    return g_times.size();
}

// A periodic timer of k ticks fires every k + 1 ticks of 10 ms.  The driver counts ticks on
// a millisecond clock and makes up the oversleeping it has saved (less than a tick) by
// counting one tick more, so a span of ten ticks can be up to a tick short of 100 ms of real
// time; over 30 periods that tick spreads to a third of a millisecond.
TEST(TimerRealTime, HundredMillisecondPeriodicTimerFiresEvery110Ms) {
    constexpr size_t kPeriods = 30;
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    void *handle = create_rel(ZEPO_TIMER_PERIODIC, note_time);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(ZEPO_StartRelTimer(handle, 100, nullptr), 0u);
    const SteadyClock::time_point started = SteadyClock::now();
    const bool enough =
        wait_until([] { return times_noted() >= kPeriods + 1; }, std::chrono::seconds(20));
    stop_engine();
    ASSERT_TRUE(enough);
    std::vector<SteadyClock::time_point> times;
    {
        std::lock_guard<std::mutex> hold(g_timesLock);
        times = g_times;
    }
    // The period is the median of the slopes between every two firings: a firing that a
    // loaded machine delays moves only the slopes that involve it, so the median stays on
    // the timer's own rhythm.  Ten ticks would give 100 ms; ten plus one give 110, or a
    // little more when the driver hands several ticks to one cycle.  The first firing comes
    // about ten ticks after the start; a request queued while the driver was held up counts
    // from the last tick it handled, hence the margin below.
    using Ms = std::chrono::duration<double, std::milli>;
    std::vector<double> slopes;
    for (size_t i = 0; i <= kPeriods; ++i)
        for (size_t j = i + 1; j <= kPeriods; ++j)
            slopes.push_back(Ms(times[j] - times[i]).count() / static_cast<double>(j - i));
    std::nth_element(slopes.begin(), slopes.begin() + slopes.size() / 2, slopes.end());
    const double period = slopes[slopes.size() / 2];
    EXPECT_GE(period, 107.0);
    EXPECT_LT(period, 150.0);
    const double first = Ms(times[0] - started).count();
    EXPECT_GE(first, 30.0);
    EXPECT_LT(first, 2000.0);
}

// ---- Periodic waitable timer ----------------------------------------------------------------

int64_t mono_ns() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

int64_t start_ns(const ZEPO_PERIODIC_TIMER *timer) {
    return timer->startSec * 1000000000 + timer->startNsec;
}

// Deadline n of a timer whose schedule has begun.
int64_t grid_ns(const ZEPO_PERIODIC_TIMER *timer, uint32_t n) {
    return start_ns(timer) + int64_t{n} * timer->period * 1000000;
}

constexpr int64_t kMs = 1000000;

TEST(WaitableTimer, CreationIgnoresTheContextAndStartsAtTickZero) {
    ZEPO_PERIODIC_TIMER *plain = ZEPO_TimerCreate(nullptr, 100);
    ZEPO_PERIODIC_TIMER *withContext = ZEPO_TimerCreate(tag(0xDEAD), 250);
    ASSERT_NE(plain, nullptr);
    ASSERT_NE(withContext, nullptr);
    EXPECT_EQ(plain->period, 100u);
    EXPECT_EQ(withContext->period, 250u);
    for (ZEPO_PERIODIC_TIMER *timer : {plain, withContext}) {
        EXPECT_EQ(timer->tickCount, 0u);
        EXPECT_EQ(timer->startSec, 0);
        EXPECT_EQ(timer->startNsec, 0);
    }
    ZEPO_TimerDestroy(plain);
    ZEPO_TimerDestroy(withContext);
}

TEST(WaitableTimer, WaitOnNullGivesMinusOne) { EXPECT_REFUSED(ZEPO_TimerProcess(nullptr), -1); }

TEST(WaitableTimer, ScheduleBeginsAtTheFirstWaitNotAtCreation) {
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(timer->startSec, 0);
    const int64_t before = mono_ns();
    ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    const int64_t returned = mono_ns();
    EXPECT_GE(start_ns(timer), before);
    EXPECT_LE(start_ns(timer), returned);
    EXPECT_GE(returned, grid_ns(timer, 1));
    EXPECT_GE(returned - before, 100 * kMs);
    EXPECT_LT(returned - before, 400 * kMs);
    EXPECT_EQ(timer->tickCount, 1u);
    ZEPO_TimerDestroy(timer);
}

TEST(WaitableTimer, WaitsKeepAFixedPhaseWhateverTheCallerDoesBetweenThem) {
    constexpr uint32_t kWaits = 6;
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    int64_t returned = 0;
    for (uint32_t n = 1; n <= kWaits; ++n) {
        ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
        returned = mono_ns();
        EXPECT_GE(returned, grid_ns(timer, n)) << "wait " << n;
        EXPECT_EQ(timer->tickCount, n);
        // Work of 60 ms: a schedule counted from each return would slip by that much.
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    EXPECT_LT(returned, grid_ns(timer, kWaits) + 300 * kMs)
        << "a drifting schedule ends at or after " << kWaits * 160 << " ms";
    ZEPO_TimerDestroy(timer);
}

TEST(WaitableTimer, LateCallerReturnsAtOnceUntilItHasCaughtUpWithTheGrid) {
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    EXPECT_GE(mono_ns(), grid_ns(timer, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(350));  // past deadlines 2 to 4
    const int64_t late = mono_ns();
    ASSERT_GE(late, grid_ns(timer, 4));
    for (uint32_t n = 2; n <= 4; ++n) ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    const int64_t caughtUp = mono_ns();
    EXPECT_LT(caughtUp - late, 250 * kMs) << "three deadlines already past return at once";
    EXPECT_EQ(timer->tickCount, 4u);
    ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    EXPECT_GE(mono_ns(), grid_ns(timer, 5)) << "then it waits again";
    ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    const int64_t sixth = mono_ns();
    EXPECT_GE(sixth, grid_ns(timer, 6));
    EXPECT_LT(sixth, grid_ns(timer, 6) + 1000 * kMs);
    EXPECT_EQ(timer->tickCount, 6u);
    ZEPO_TimerDestroy(timer);
}

TEST(WaitableTimer, DeadlineOfExactlyOneSecondOfNanosecondsCarriesIntoTheSeconds) {
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    // A schedule that began 900 ms into a second long past: the first deadline's
    // nanoseconds add up to exactly 10^9.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    timer->startSec = now.tv_sec - 2;
    timer->startNsec = 900000000;
    EXPECT_EQ(ZEPO_TimerProcess(timer), 0);
    EXPECT_EQ(timer->tickCount, 1u);
    ZEPO_TimerDestroy(timer);
}

TEST(WaitableTimer, InvalidDeadlineGivesMinusOne) {
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    timer->startSec = now.tv_sec;
    timer->startNsec = 2000000000;  // more than one carry can mend
    EXPECT_EQ(ZEPO_TimerProcess(timer), -1);
    EXPECT_EQ(timer->tickCount, 1u);
    ZEPO_TimerDestroy(timer);
}

TEST(WaitableTimer, DestroyingNullDoesNothing) { EXPECT_VOID_REFUSED(ZEPO_TimerDestroy(nullptr)); }

TEST(WaitableTimer, DestroyReleasesTheRecord) {
    const size_t blocks = live_blocks();
    ZEPO_PERIODIC_TIMER *timer = ZEPO_TimerCreate(nullptr, 100);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(live_blocks(), blocks + 1);
    ASSERT_EQ(ZEPO_TimerProcess(timer), 0);
    ZEPO_TimerDestroy(timer);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(WaitableTimer, CreationWithoutMemoryGivesNull) {
    const size_t blocks = live_blocks();
    fail_allocation(1);
    EXPECT_EQ(ZEPO_TimerCreate(nullptr, 100), nullptr);
    fail_allocation(0);
    EXPECT_EQ(live_blocks(), blocks);
}

// Creates a timer while the thread-library call `failing` fails on this thread; returns the
// calls this thread made meanwhile.
std::vector<LibCall> create_failing(Failing failing, ZEPO_PERIODIC_TIMER **made) {
    g_libCalls.clear();
    t_failing = failing;
    t_watch = true;
    *made = ZEPO_TimerCreate(nullptr, 100);
    t_watch = false;
    t_failing = Failing::None;
    return g_libCalls;
}

std::vector<std::string> names_of(const std::vector<LibCall> &calls) {
    std::vector<std::string> names;
    for (const LibCall &call : calls) names.push_back(call.name);
    return names;
}

TEST(WaitableTimer, CreationWhoseMutexCannotBeMadeLeavesNothing) {
    const size_t blocks = live_blocks();
    auto *timer = static_cast<ZEPO_PERIODIC_TIMER *>(tag(1));
    const std::vector<LibCall> calls = create_failing(Failing::MutexInit, &timer);
    EXPECT_EQ(timer, nullptr);
    EXPECT_EQ(names_of(calls), std::vector<std::string>{"pthread_mutex_init"});
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(WaitableTimer, CreationWhoseClockCannotBeSetUndoesTheRestAndLeavesNothing) {
    const size_t blocks = live_blocks();
    ZEPO_PERIODIC_TIMER *timer = nullptr;
    const std::vector<LibCall> calls = create_failing(Failing::SetClock, &timer);
    EXPECT_EQ(timer, nullptr);
    ASSERT_EQ(names_of(calls),
              (std::vector<std::string>{"pthread_mutex_init", "pthread_condattr_setclock",
                                        "pthread_condattr_destroy", "pthread_mutex_destroy"}));
    EXPECT_EQ(calls[2].object, calls[1].object) << "the attribute is destroyed";
    EXPECT_EQ(calls[3].object, calls[0].object) << "the mutex is destroyed";
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(WaitableTimer, CreationWhoseConditionCannotBeMadeUndoesTheRestAndLeavesNothing) {
    const size_t blocks = live_blocks();
    ZEPO_PERIODIC_TIMER *timer = nullptr;
    const std::vector<LibCall> calls = create_failing(Failing::CondInit, &timer);
    EXPECT_EQ(timer, nullptr);
    ASSERT_EQ(names_of(calls),
              (std::vector<std::string>{"pthread_mutex_init", "pthread_condattr_setclock",
                                        "pthread_cond_init", "pthread_condattr_destroy",
                                        "pthread_mutex_destroy"}));
    EXPECT_EQ(calls[3].object, calls[1].object) << "the attribute is destroyed";
    EXPECT_EQ(calls[4].object, calls[0].object) << "the mutex is destroyed";
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(WaitableTimer, ConditionIsMadeOnTheMonotonicClockAndItsAttributeDestroyed) {
    ZEPO_PERIODIC_TIMER *timer = nullptr;
    const std::vector<LibCall> calls = create_failing(Failing::None, &timer);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(names_of(calls),
              (std::vector<std::string>{"pthread_mutex_init", "pthread_condattr_setclock",
                                        "pthread_cond_init", "pthread_condattr_destroy"}));
    EXPECT_EQ(g_condClock, CLOCK_MONOTONIC);
    EXPECT_EQ(calls[0].object, &timer->mutex);
    EXPECT_EQ(calls[1].object, &timer->condAttr);
    EXPECT_EQ(calls[2].object, &timer->cond);
    ZEPO_TimerDestroy(timer);
}

// ---- System-control slot --------------------------------------------------------------------

struct TidCall {
    int callback;
    uint64_t first;
    uint64_t second;
};
std::vector<TidCall> g_tidCalls;

void first_tid_callback(uint64_t a, uint64_t b) { g_tidCalls.push_back({1, a, b}); }
void second_tid_callback(uint64_t a, uint64_t b) { g_tidCalls.push_back({2, a, b}); }

TEST(SysCtrlSlot, ReportWithoutARegisteredCallbackDoesNothing) {
    ASSERT_EQ(g_pfnSysCtrlRegTaskTidFunc, nullptr);
    EXPECT_VOID_REFUSED(ZEPO_SysCtrlRegTaskTid(1, 2));
    EXPECT_TRUE(g_tidCalls.empty());
}

TEST(SysCtrlSlot, RegisteredCallbackReceivesBothValuesUnchanged) {
    EXPECT_EQ(ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(first_tid_callback), 0);
    EXPECT_EQ(g_pfnSysCtrlRegTaskTidFunc, first_tid_callback);
    ZEPO_SysCtrlRegTaskTid(0x123456789ABCDEF0ull, 0xFEDCBA9876543210ull);
    ASSERT_EQ(g_tidCalls.size(), 1u);
    EXPECT_EQ(g_tidCalls[0].callback, 1);
    EXPECT_EQ(g_tidCalls[0].first, 0x123456789ABCDEF0ull);
    EXPECT_EQ(g_tidCalls[0].second, 0xFEDCBA9876543210ull);
    ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(nullptr);
}

TEST(SysCtrlSlot, RegistrationReplacesTheEarlierCallback) {
    ASSERT_EQ(ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(first_tid_callback), 0);
    ASSERT_EQ(ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(second_tid_callback), 0);
    EXPECT_EQ(g_pfnSysCtrlRegTaskTidFunc, second_tid_callback);
    ZEPO_SysCtrlRegTaskTid(0x100000000ull, 0x200000001ull);
    ASSERT_EQ(g_tidCalls.size(), 1u);
    EXPECT_EQ(g_tidCalls[0].callback, 2);
    EXPECT_EQ(g_tidCalls[0].first, 0x100000000ull);
    EXPECT_EQ(g_tidCalls[0].second, 0x200000001ull);
    ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(nullptr);
}

TEST(SysCtrlSlot, RegisteringNullClearsTheSlot) {
    ASSERT_EQ(ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(first_tid_callback), 0);
    EXPECT_EQ(ZEPO_SYSCTRL_RegSysCtrlRegTaskTid(nullptr), 0);
    EXPECT_EQ(g_pfnSysCtrlRegTaskTidFunc, nullptr);
    ZEPO_SysCtrlRegTaskTid(0x100000000ull, 0x200000000ull);
    EXPECT_TRUE(g_tidCalls.empty());
}

}  // namespace
