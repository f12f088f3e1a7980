// timer_harness.h - what the timer test files share: a scripted clock that drives the timer
// engine's driver thread one cycle at a time, a scripted calendar clock, accounting and
// failure injection for the memory entry points and a few other seams, and a captured
// trace function.
//
// The library reaches its clock (ZEPO_GetSysRunTime), its sleep (ZEPO_Select), its calendar
// clock (ZEPO_GetSysTimeSec), its memory (ZEPO_MemTypeMallocD/ZEPO_MemTypeFreeD), its mutex
// set-up (ZEPO_MutexInit) and its thread creation (ZEPO_PthreadCreate) through the dynamic
// linker, so the definitions below, made in the test executable, come first.  Each
// forwards to the library's own definition until a test switches it on.
//
// Include this header in exactly one source file of a test executable: it defines those
// functions.
//
// The scripted clock.  With use_scripted_clock(), ZEPO_GetSysRunTime hands out a fake time
// that moves only when a test (or a hook or call-back of a test) advances it, and the
// driver's sleep parks until the test lets it go:
//
//     use_scripted_clock();
//     ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
//     wait_parked();          // the driver sleeps for the first time
//     run_cycle(10);          // it wakes 10 ms later, dispatches, and parks again
//
// A cycle that "works" 35 ms is made by advancing the clock from a tick hook or a timer
// call-back.  Stopping the engine releases a parked driver.
#ifndef QEL_TIMER_HARNESS_H
#define QEL_TIMER_HARNESS_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "qel_memory.h"
#include "qel_mutex.h"
#include "qel_socket.h"
#include "qel_thread.h"
#include "qel_time.h"
#include "qel_timer.h"
#include "qel_timer_engine.h"
#include "test_support.h"

namespace timer_harness {

using namespace std::chrono_literals;

// ---- State behind the seams (internal) -------------------------------------------------------

struct ClockState {
    std::mutex lock;
    std::condition_variable changed;
    bool scripted = false;
    uint32_t now = 0;              // the fake run-time clock, ms
    bool parked = false;           // the driver sleeps in ZEPO_Select
    uint64_t parks = 0;            // sleeps begun so far
    uint32_t requestedUs = 0;      // the sleep the driver asked for last
    bool granted = false;          // the test let the parked driver go
    uint32_t grantMs = 0;          // fake time the sleep lasts
    std::vector<uint32_t> sleeps;  // every requested sleep, in us
};

inline ClockState &clock_state() {
    static ClockState state;
    return state;
}

struct CalendarState {
    std::atomic<bool> scripted{false};
    std::atomic<uint32_t> seconds{0};
};

inline CalendarState &calendar_state() {
    static CalendarState state;
    return state;
}

struct MemoryState {
    std::mutex lock;
    std::unordered_set<void *> live;  // blocks handed out and not yet released
    std::atomic<int> failAt{0};       // n > 0: the n-th allocation from now fails
    std::atomic<bool> failAll{false};
    std::string failFile;  // when not empty, only allocations from a source
                           // path ending so count and fail
    std::atomic<uint64_t> allocations{0};
    std::atomic<uint64_t> releases{0};
};

inline MemoryState &memory_state() {
    static MemoryState state;
    return state;
}

struct SeamState {
    std::atomic<int> failMutexInitAt{0};
    std::atomic<int> threadCreateError{0};
};

inline SeamState &seam_state() {
    static SeamState state;
    return state;
}

// True when the countdown reaches this call.
inline bool countdown_hits(std::atomic<int> &counter) {
    int left = counter.load();
    while (left > 0) {
        if (counter.compare_exchange_weak(left, left - 1)) return left == 1;
    }
    return false;
}

inline bool ends_with(const char *text, const std::string &suffix) {
    if (text == nullptr) return false;
    const size_t length = std::strlen(text);
    return length >= suffix.size() &&
           std::strcmp(text + length - suffix.size(), suffix.c_str()) == 0;
}

// ---- Scripted run-time clock and sleep ----------------------------------------------------

// From now on the run-time clock hands out fake time starting at startMs, and the driver's
// sleeps park until run_cycle lets them go.
inline void use_scripted_clock(uint32_t startMs = 1000000) {
    ClockState &c = clock_state();
    std::lock_guard<std::mutex> hold(c.lock);
    c.scripted = true;
    c.now = startMs;
}

// Back to the real clock; a parked driver is let go.
inline void use_real_clock() {
    ClockState &c = clock_state();
    std::lock_guard<std::mutex> hold(c.lock);
    c.scripted = false;
    c.changed.notify_all();
}

inline uint32_t fake_now() {
    ClockState &c = clock_state();
    std::lock_guard<std::mutex> hold(c.lock);
    return c.now;
}

// Moves the fake clock forward (the run-time clock wraps like the real one).
inline void advance_clock(uint32_t ms) {
    ClockState &c = clock_state();
    std::lock_guard<std::mutex> hold(c.lock);
    c.now += ms;
}

// Waits until the driver is parked in its sleep; returns the sleep it asked for, in us.
inline uint32_t wait_parked(std::chrono::milliseconds limit = 10s) {
    ClockState &c = clock_state();
    std::unique_lock<std::mutex> hold(c.lock);
    const bool parked = c.changed.wait_for(hold, limit, [&] { return c.parked && !c.granted; });
    EXPECT_TRUE(parked) << "the driver did not reach its sleep";
    return c.requestedUs;
}

// Lets the parked driver wake after sleptMs of fake time and waits until it has dispatched
// and parked again.  Returns the next sleep it asks for, in us.
inline uint32_t run_cycle(uint32_t sleptMs) {
    wait_parked();
    ClockState &c = clock_state();
    std::unique_lock<std::mutex> hold(c.lock);
    const uint64_t parks = c.parks;
    c.granted = true;
    c.grantMs = sleptMs;
    c.changed.notify_all();
    const bool again =
        c.changed.wait_for(hold, 10s, [&] { return c.parks > parks && c.parked && !c.granted; });
    EXPECT_TRUE(again) << "the driver did not come back to its sleep";
    return c.requestedUs;
}

// n cycles of exactly one 10 ms tick each (no work, no drift): one tick dispatched each.
inline void run_ticks(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) run_cycle(10);
}

// Every sleep the driver asked for so far, in us.
inline std::vector<uint32_t> sleeps() {
    ClockState &c = clock_state();
    std::lock_guard<std::mutex> hold(c.lock);
    return c.sleeps;
}

// ---- A look into relative timers --------------------------------------------------------------

// The fields of a relative timer record, in their order.
struct RelTimerView {
    RelTimerView *next;  // the wheel list holding it, or the record itself
    RelTimerView *prev;
    uint32_t interval;
    uint32_t due;  // slot in the low 10 bits, turns x 1024 above
    ZEPO_TIMEOUT_FUNC pfnTimeout;
    void *arg;
    uint32_t mode;
    uint32_t list;  // 0 near list, 1 turn list
    uint32_t index;
    uint32_t line;
    const char *name;
};

// The record a relative handle's cell holds.
inline const RelTimerView &rel_timer(void *handle) {
    return **static_cast<RelTimerView **>(handle);
}

// An address from the first to the last cell of the relative handle table.
inline bool in_rel_table(const void *address) {
    if (g_szRelTimer == nullptr) return false;
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto first = reinterpret_cast<uintptr_t>(g_szRelTimer);
    return at >= first && at < first + uintptr_t{ulMaxReltmNum} * sizeof(void *);
}

// The handle's cell holds a live timer (not nothing, not a link of the free list).
inline bool holds_rel_timer(void *handle) {
    if (!in_rel_table(handle)) return false;
    void *content = *static_cast<void **>(handle);
    return content != nullptr && !in_rel_table(content);
}

// ---- Numbered cycles and the firings seen in them --------------------------------------------
//
// Tests that count firings number the driver's cycles: advance() runs one cycle of one tick
// and counts it, so a request made now is carried out in next_cycle(), and a call-back
// noted with note_firing is stamped with the cycle it ran in.

// The number of the cycle the driver runs (or ran last).
inline std::atomic<uint32_t> g_cycle{0};

inline void advance(uint32_t cycles = 1) {
    for (uint32_t i = 0; i < cycles; ++i) {
        g_cycle.fetch_add(1);
        run_cycle(10);
    }
}

// Runs cycles up to and including cycle last.
inline void run_through(uint32_t last) {
    while (g_cycle.load() < last) advance();
}

// The cycle that carries out a request made now.
inline uint32_t next_cycle() { return g_cycle.load() + 1; }

// Every period cycles from first, count times.
inline std::vector<uint32_t> every(uint32_t first, uint32_t period, uint32_t count) {
    std::vector<uint32_t> cycles;
    for (uint32_t i = 0; i < count; ++i) cycles.push_back(first + i * period);
    return cycles;
}

struct Firing {
    void *arg;
    uint32_t cycle;
    uint64_t thread;
};

struct FiringLog {
    std::mutex lock;
    std::vector<Firing> firings;
};

inline FiringLog &firing_log() {
    static FiringLog log;
    return log;
}

// A timer call-back that notes its argument, cycle and thread.
inline void note_firing(void *arg) {
    FiringLog &log = firing_log();
    std::lock_guard<std::mutex> hold(log.lock);
    log.firings.push_back({arg, g_cycle.load(), static_cast<uint64_t>(pthread_self())});
}

inline std::vector<Firing> firings() {
    FiringLog &log = firing_log();
    std::lock_guard<std::mutex> hold(log.lock);
    return log.firings;
}

// The cycles in which arg was fired.
inline std::vector<uint32_t> cycles_of(void *arg) {
    std::vector<uint32_t> cycles;
    for (const Firing &f : firings())
        if (f.arg == arg) cycles.push_back(f.cycle);
    return cycles;
}

// The arguments fired in a cycle, in firing order.
inline std::vector<void *> fired_in(uint32_t cycle) {
    std::vector<void *> args;
    for (const Firing &f : firings())
        if (f.cycle == cycle) args.push_back(f.arg);
    return args;
}

inline size_t firing_count() { return firings().size(); }

// Forgets the cycle count and the firings (for a test that follows another in one process).
inline void forget_cycles_and_firings() {
    g_cycle = 0;
    FiringLog &log = firing_log();
    std::lock_guard<std::mutex> hold(log.lock);
    log.firings.clear();
}

// ---- Scripted calendar clock -------------------------------------------------------------

// ZEPO_GetSysTimeSec hands out seconds (settable) instead of the real time.
inline void use_scripted_calendar(uint32_t seconds) {
    calendar_state().seconds = seconds;
    calendar_state().scripted = true;
}
inline void set_calendar(uint32_t seconds) { calendar_state().seconds = seconds; }
inline void use_real_calendar() { calendar_state().scripted = false; }

// ---- Memory accounting and failures ----------------------------------------------------------

// Blocks of the memory entry points handed out and not released (whoever asked).
inline size_t live_blocks() {
    MemoryState &m = memory_state();
    std::lock_guard<std::mutex> hold(m.lock);
    return m.live.size();
}

// True while block, handed out by the memory entry points, has not been released.
inline bool is_live(const void *block) {
    MemoryState &m = memory_state();
    std::lock_guard<std::mutex> hold(m.lock);
    return m.live.count(const_cast<void *>(block)) != 0;
}

// The n-th allocation from now fails (1: the next one); with a file suffix, only
// allocations charged to a source path ending so are counted.
inline void fail_allocation(int nth, const std::string &fileSuffix = "") {
    MemoryState &m = memory_state();
    {
        std::lock_guard<std::mutex> hold(m.lock);
        m.failFile = fileSuffix;
    }
    m.failAt = nth;
}

// Every allocation fails while on.
inline void fail_all_allocations(bool on) { memory_state().failAll = on; }

inline uint64_t allocation_count() { return memory_state().allocations.load(); }

// ---- Other seams -------------------------------------------------------------------------------

// The n-th ZEPO_MutexInit from now returns EAGAIN.
inline void fail_mutex_init(int nth) { seam_state().failMutexInitAt = nth; }

// ZEPO_PthreadCreate returns error without making a thread while error is not 0.
inline void fail_thread_create(int error) { seam_state().threadCreateError = error; }

// ---- Trace capture ---------------------------------------------------------------------------

struct TraceState {
    std::mutex lock;
    std::vector<std::string> lines;
};

inline TraceState &trace_state() {
    static TraceState state;
    return state;
}

inline void record_trace(const char *text) {
    TraceState &t = trace_state();
    std::lock_guard<std::mutex> hold(t.lock);
    t.lines.emplace_back(text);
}

// Registers a trace function that keeps every message.
inline void capture_trace() {
    {
        std::lock_guard<std::mutex> hold(trace_state().lock);
        trace_state().lines.clear();
    }
    ZEPO_TimerRegDebugTrace(record_trace);
}

inline std::vector<std::string> traces() {
    TraceState &t = trace_state();
    std::lock_guard<std::mutex> hold(t.lock);
    return t.lines;
}

// ---- Logs of calls ------------------------------------------------------------------------------

// What call-backs or hooks saw, kept under a lock: note() from any thread, take() hands
// the entries over and empties the log.
template <typename T>
class CallLog {
public:
    void note(T entry) {
        std::lock_guard<std::mutex> hold(lock_);
        entries_.push_back(std::move(entry));
    }
    std::vector<T> take() {
        std::lock_guard<std::mutex> hold(lock_);
        std::vector<T> out;
        out.swap(entries_);
        return out;
    }

private:
    std::mutex lock_;
    std::vector<T> entries_;
};

// ---- Waiting ------------------------------------------------------------------------------------

// Polls until done() is true or the limit passes; returns done().
inline bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit = 10s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return done();
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Stops the engine when a driver thread runs (for the end of a test).
inline void stop_engine() {
    if (petimer_getTreadId() != 0) {
        EXPECT_EQ(ZEPO_StopTimerTask(), 0);
    }
}

}  // namespace timer_harness

// ---- The seams
// -------------------------------------------------------------------------------------

extern "C" uint32_t ZEPO_GetSysRunTime(void) {
    using Fn = uint32_t (*)(void);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_GetSysRunTime");
    timer_harness::ClockState &c = timer_harness::clock_state();
    {
        std::lock_guard<std::mutex> hold(c.lock);
        if (c.scripted) return c.now;
    }
    return next();
}

extern "C" int32_t ZEPO_Select(int32_t nfds, fd_set *readSet, fd_set *writeSet, fd_set *exceptSet,
                               struct timeval *timeout) {
    using Fn = int32_t (*)(int32_t, fd_set *, fd_set *, fd_set *, struct timeval *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_Select");
    const bool driverSleep = nfds == 0 && readSet == nullptr && writeSet == nullptr &&
                             exceptSet == nullptr && timeout != nullptr;
    timer_harness::ClockState &c = timer_harness::clock_state();
    if (driverSleep) {
        std::unique_lock<std::mutex> hold(c.lock);
        if (c.scripted) {
            c.requestedUs = static_cast<uint32_t>(timeout->tv_usec);
            c.sleeps.push_back(c.requestedUs);
            c.parked = true;
            c.granted = false;
            ++c.parks;
            c.changed.notify_all();
            // Parked until the test lets it go, the clock turns real, or the engine stops.
            while (!c.granted && c.scripted) {
                if (petimer_isQuiting() != 0) break;
                c.changed.wait_for(hold, std::chrono::milliseconds(1));
            }
            if (c.granted) c.now += c.grantMs;
            c.granted = false;
            c.parked = false;
            c.changed.notify_all();
            return 0;
        }
    }
    return next(nfds, readSet, writeSet, exceptSet, timeout);
}

extern "C" uint32_t ZEPO_GetSysTimeSec(void) {
    using Fn = uint32_t (*)(void);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_GetSysTimeSec");
    timer_harness::CalendarState &s = timer_harness::calendar_state();
    if (s.scripted.load()) return s.seconds.load();
    return next();
}

extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Fn = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MemTypeMallocD");
    timer_harness::MemoryState &m = timer_harness::memory_state();
    bool counted = true;
    {
        std::lock_guard<std::mutex> hold(m.lock);
        if (!m.failFile.empty()) counted = timer_harness::ends_with(file, m.failFile);
    }
    if (m.failAll.load() || (counted && timer_harness::countdown_hits(m.failAt))) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = next(size, type, line, file);
    if (block != nullptr) {
        std::lock_guard<std::mutex> hold(m.lock);
        m.live.insert(block);
        ++m.allocations;
    }
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *block, uint32_t type, uint32_t line, const char *file) {
    using Fn = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MemTypeFreeD");
    if (block != nullptr) {
        timer_harness::MemoryState &m = timer_harness::memory_state();
        std::lock_guard<std::mutex> hold(m.lock);
        m.live.erase(block);
        ++m.releases;
    }
    next(block, type, line, file);
}

extern "C" int32_t ZEPO_MutexInit(void *mutex, const void *attr) {
    using Fn = int32_t (*)(void *, const void *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MutexInit");
    if (timer_harness::countdown_hits(timer_harness::seam_state().failMutexInitAt)) return EAGAIN;
    return next(mutex, attr);
}

extern "C" int32_t ZEPO_PthreadCreate(pthread_t *thread, const pthread_attr_t *attr,
                                      void *(*start)(void *), void *arg) {
    using Fn = int32_t (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_PthreadCreate");
    const int error = timer_harness::seam_state().threadCreateError.load();
    if (error != 0) return error;
    return next(thread, attr, start, arg);
}

#endif  // QEL_TIMER_HARNESS_H
