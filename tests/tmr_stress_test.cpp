// The timer engine under pressure: threads and call-backs creating, starting, stopping and
// freeing thousands of timers at once; the engine started and stopped over and over; every
// allocation of every request path failing in turn; request functions racing a running
// driver.
//
// Who may touch a handle.  A relative handle is tested fully by the engine, yet a freed
// cell comes back to another timer later, so a handle must be freed exactly once, by its
// owner.  An absolute handle is tested for null only: any request on a freed one is the
// caller's error.  The stress test therefore keeps every shared timer in a registry under
// one lock; whoever takes an entry out of it frees the timer (and its argument), and
// requests on an entry still in it are made while holding the lock.  A timer that frees
// itself after its call-back (mode 2) is taken out only on the driver thread, where its
// own call-back always runs before its automatic free and takes its entry first.
//
// Each test runs in a process of its own, so the engine, its counters and the hooks start
// fresh in every one.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "timer_harness.h"

namespace {

using namespace std::chrono_literals;
using namespace timer_harness;
using qel_test::kSentinel;

// ThreadSanitizer makes every call several times slower on the two cores of a build
// machine; the threads then do fewer rounds of the same mix.
#if defined(__SANITIZE_THREAD__)
constexpr int kSlowdown = 2;
#else
constexpr int kSlowdown = 1;
#endif

// Any second of any day: every field of the pattern is a wildcard.
struct tm every_second() {
    struct tm pattern {};
    pattern.tm_sec = pattern.tm_min = pattern.tm_hour = -1;
    pattern.tm_mday = pattern.tm_mon = pattern.tm_year = -1;
    return pattern;
}

// The counters are exported words that the engine changes atomically.
int32_t rel_count() { return __atomic_load_n(&g_reltmNum, __ATOMIC_RELAXED); }
int32_t abs_count() { return __atomic_load_n(&g_abstmNum, __ATOMIC_RELAXED); }

// Lengths of the free lists, walked under the index locks.
size_t free_rel_cells() {
    reltmr_idxLock();
    size_t cells = 0;
    for (void **cell = g_pRelHead; cell != nullptr && cells <= ulMaxReltmNum;
         cell = static_cast<void **>(*cell))
        ++cells;
    reltmr_idxUnLock();
    return cells;
}

size_t free_abs_cells() {
    abstmr_indexLock();
    size_t cells = 0;
    for (void **cell = g_pAbsHead; cell != nullptr && cells <= ulMaxAbstmNum;
         cell = static_cast<void **>(*cell))
        ++cells;
    abstmr_indexUnLock();
    return cells;
}

// True while an absolute handle's cell holds a timer (neither nothing nor a free-list link).
bool abs_cell_holds_timer(void *handle) {
    abstmr_indexLock();
    void *content = __atomic_load_n(static_cast<void **>(handle), __ATOMIC_RELAXED);
    const auto at = reinterpret_cast<uintptr_t>(content);
    const auto first = reinterpret_cast<uintptr_t>(g_szAbsTimer);
    const auto last = reinterpret_cast<uintptr_t>(g_szAbsTimer + (ulMaxAbstmNum - 1));
    const bool holds = content != nullptr && (at < first || at > last);
    abstmr_indexUnLock();
    return holds;
}

// The engine's tables and counts after a stop: nothing is left.
void expect_engine_gone(int32_t relCount, int32_t absCount) {
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(petimer_isQuiting(), 0u);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_pRelHead, nullptr);
    EXPECT_EQ(g_pRelTail, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    EXPECT_EQ(rel_count(), relCount);
    EXPECT_EQ(abs_count(), absCount);
}

// ---- The stress test -------------------------------------------------------------------------

enum class Kind { Periodic, OneShot, AutoFree, AbsPeriodic, AbsOneShot };

bool is_relative(Kind kind) {
    return kind == Kind::Periodic || kind == Kind::OneShot || kind == Kind::AutoFree;
}

// The argument of every timer of the stress test.  A relative timer's is a block of the
// memory entry points, released with ZEPO_FreeRelTimerArg_safe by whoever frees the timer;
// an absolute timer's belongs to the test and lives to its end.
struct Context {
    Context(uint64_t i, Kind k) : id(i), kind(k) {}
    const uint64_t id;
    const Kind kind;
    std::atomic<uint32_t> fired{0};
};

struct Entry {
    uint64_t id;
    Kind kind;
    void *handle;
    Context *context;
};

// The shared timers.  An entry in it belongs to the registry; taking it out makes the taker
// the owner, who frees it.  Requests on an entry still in it are made under the lock, so
// that nobody can free the timer meanwhile.
class Registry {
public:
    std::mutex lock;

    void add_locked(const Entry &entry) {
        position_[entry.id] = entries_.size();
        entries_.push_back(entry);
    }

    void add(const Entry &entry) {
        std::lock_guard<std::mutex> hold(lock);
        add_locked(entry);
    }

    std::optional<Entry> take(uint64_t id) {
        std::lock_guard<std::mutex> hold(lock);
        const auto found = position_.find(id);
        if (found == position_.end()) return std::nullopt;
        return remove_at(found->second);
    }

    // A random entry, or with withAutoFree false a random one that is not a timer that
    // frees itself.
    std::optional<size_t> pick_locked(std::minstd_rand &rng, bool withAutoFree) const {
        if (entries_.empty()) return std::nullopt;
        const size_t start = rng() % entries_.size();
        for (size_t step = 0; step < entries_.size(); ++step) {
            const size_t at = (start + step) % entries_.size();
            if (withAutoFree || entries_[at].kind != Kind::AutoFree) return at;
        }
        return std::nullopt;
    }

    // A random entry the caller may free: on the driver thread any, elsewhere any but a
    // timer that frees itself (it may be freeing itself right now).
    std::optional<Entry> take_any(std::minstd_rand &rng, bool onDriver) {
        std::lock_guard<std::mutex> hold(lock);
        const auto at = pick_locked(rng, onDriver);
        if (!at) return std::nullopt;
        return remove_at(*at);
    }

    const Entry &at_locked(size_t at) const { return entries_[at]; }

    size_t size() {
        std::lock_guard<std::mutex> hold(lock);
        return entries_.size();
    }

private:
    Entry remove_at(size_t at) {
        const Entry entry = entries_[at];
        entries_[at] = entries_.back();
        position_[entries_[at].id] = at;
        entries_.pop_back();
        position_.erase(entry.id);
        return entry;
    }

    std::vector<Entry> entries_;
    std::unordered_map<uint64_t, size_t> position_;
};

struct StressState {
    Registry registry;
    std::atomic<uint64_t> nextId{1};
    std::atomic<uint64_t> relCreated{0};
    std::atomic<uint64_t> absCreated{0};
    std::atomic<uint64_t> callbacks{0};
    std::atomic<uint64_t> freedInCallbacks{0};
    std::atomic<uint64_t> stopsWithDone{0};
    std::atomic<uint64_t> doneCalls{0};
    std::atomic<uint64_t> simpleStarted{0};
    std::atomic<uint64_t> simpleFired{0};
};

StressState &stress() {
    static StressState state;
    return state;
}

uint32_t interval(std::minstd_rand &rng) { return static_cast<uint32_t>(rng() % 51); }

void count_done(void *) { stress().doneCalls.fetch_add(1); }

Context *new_relative_context(Kind kind) {
    void *block = ZEPO_MemTypeMallocD(sizeof(Context), 0, __LINE__, __FILE__);
    if (block == nullptr) return nullptr;
    return new (block) Context(stress().nextId.fetch_add(1), kind);
}

// Frees a timer just taken out of the registry, with its argument when it has one of the
// memory entry points.
void free_entry(const Entry &entry) {
    if (is_relative(entry.kind)) {
        EXPECT_EQ(ZEPO_FreeRelTimer(entry.handle), 0u);
        // Released on the driver thread after every call-back due before this call.
        EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(entry.context), 0u);
    } else {
        EXPECT_EQ(ZEPO_FreeAbsTimer(entry.handle), 0u);
    }
}

// Stops (with or without a completion function, or with the -Ex form) or restarts an entry
// still in the registry; the registry's lock is held.  A timer that frees itself is only
// ever restarted: stopped, it would never free itself.
void act_on_locked(const Entry &entry, std::minstd_rand &rng) {
    static const struct tm pattern = every_second();
    const unsigned choice = entry.kind == Kind::AutoFree ? 0 : rng() % 4;
    void *argument = &rng;  // overwritten by the -Ex forms
    if (is_relative(entry.kind)) {
        switch (choice) {
            case 0:
                EXPECT_EQ(ZEPO_StartRelTimer(entry.handle, interval(rng), entry.context), 0u);
                break;
            case 1: EXPECT_EQ(ZEPO_StopRelTimer_Safe(entry.handle, nullptr, nullptr), 0u); break;
            case 2:
                EXPECT_EQ(ZEPO_StopRelTimer_Safe(entry.handle, count_done, nullptr), 0u);
                stress().stopsWithDone.fetch_add(1);
                break;
            default:
                EXPECT_EQ(ZEPO_StopRelTimer_SafeEx(entry.handle, count_done, nullptr, &argument),
                          0u);
                stress().stopsWithDone.fetch_add(1);
                // Until its first start has been carried out a timer has no argument.
                EXPECT_TRUE(argument == nullptr || argument == entry.context);
                break;
        }
        return;
    }
    switch (choice) {
        case 0: EXPECT_EQ(ZEPO_StartAbsTimer(entry.handle, &pattern, entry.context), 0u); break;
        case 1: EXPECT_EQ(ZEPO_StopAbsTimer_Safe(entry.handle, nullptr, nullptr), 0u); break;
        case 2:
            EXPECT_EQ(ZEPO_StopAbsTimer_Safe(entry.handle, count_done, nullptr), 0u);
            stress().stopsWithDone.fetch_add(1);
            break;
        default:
            EXPECT_EQ(ZEPO_StopAbsTimer_SafeEx(entry.handle, count_done, nullptr, &argument), 0u);
            stress().stopsWithDone.fetch_add(1);
            EXPECT_TRUE(argument == nullptr || argument == entry.context);
            break;
    }
}

// Any thread may act on any entry: while the lock is held, even a timer that frees itself
// is still there, its call-back (which takes its entry first) not yet past the lock.
bool act_on_any(std::minstd_rand &rng) {
    Registry &registry = stress().registry;
    std::lock_guard<std::mutex> hold(registry.lock);
    const auto at = registry.pick_locked(rng, true);
    if (!at) return false;
    act_on_locked(registry.at_locked(*at), rng);
    return true;
}

bool free_any(std::minstd_rand &rng, bool onDriver) {
    const auto entry = stress().registry.take_any(rng, onDriver);
    if (!entry) return false;
    free_entry(*entry);
    return true;
}

std::minstd_rand &driver_rng() {
    thread_local std::minstd_rand rng(20240611);
    return rng;
}

// What a call-back does besides counting: free its own timer (when the registry holds it),
// free another timer, or stop or restart another one.
void callback_work(Context *context) {
    std::minstd_rand &rng = driver_rng();
    const unsigned roll = rng() % 100;
    if (roll < 10) {
        if (const auto own = stress().registry.take(context->id)) {
            free_entry(*own);
            stress().freedInCallbacks.fetch_add(1);
        }
    } else if (roll < 20) {
        if (free_any(rng, true)) stress().freedInCallbacks.fetch_add(1);
    } else if (roll < 30) {
        act_on_any(rng);
    }
}

void relative_timeout(void *arg) {
    auto *context = static_cast<Context *>(arg);
    context->fired.fetch_add(1);
    stress().callbacks.fetch_add(1);
    if (context->kind == Kind::AutoFree) {
        // It takes its own entry, unless another call-back took it and freed the timer
        // earlier in this tick.  Half of them free themselves here; the automatic free after
        // this call-back then finds the cell released and does nothing.
        if (const auto own = stress().registry.take(context->id)) {
            if (driver_rng()() % 2 == 0) {
                EXPECT_EQ(ZEPO_FreeRelTimer(own->handle), 0u);
            }
            EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(context), 0u);
        }
    }
    callback_work(context);
}

void absolute_timeout(void *arg) {
    auto *context = static_cast<Context *>(arg);
    context->fired.fetch_add(1);
    stress().callbacks.fetch_add(1);
    callback_work(context);
}

void simple_timeout(void *) { stress().simpleFired.fetch_add(1); }

struct Witness {
    void *handle = nullptr;
    std::atomic<uint32_t> fired{0};
};

void witness_timeout(void *arg) { static_cast<Witness *>(arg)->fired.fetch_add(1); }

// One application thread of the stress test.
class Worker {
public:
    explicit Worker(unsigned seed) : rng_(seed) {}

    void run(int iterations) {
        for (int i = 0; i < iterations && !::testing::Test::HasFatalFailure(); ++i) {
            step();
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        settle_witnesses();
    }

    const std::vector<void *> &relative_handles() const { return relHandles_; }
    const std::vector<void *> &absolute_handles() const { return absHandles_; }

private:
    static constexpr size_t kRegistryCap = 150;
    // An absolute timer is counted down only at the driver's next second; with the driver
    // starved on a busy machine the count must not reach the limit of 2000.
    static constexpr int32_t kAbsoluteCap = 1000;

    void step() {
        const unsigned roll = rng_() % 100;
        if (roll < 60 && stress().registry.size() > kRegistryCap) {
            free_any(rng_, false);
            return;
        }
        if (roll < 25)
            relative_round();
        else if (roll < 37)
            autofree_round();
        else if (roll < 52 && abs_count() < kAbsoluteCap)
            absolute_round();
        else if (roll < 52)
            free_any(rng_, false);
        else if (roll < 67)
            free_any(rng_, false);
        else if (roll < 82)
            act_on_any(rng_);
        else if (roll < 88)
            simple_round();
        else if (roll < 93)
            witness_round();
    }

    bool coin() { return rng_() % 2 == 0; }

    // A periodic or one-shot relative timer: started, restarted, stopped in one of the three
    // ways, perhaps started again, then freed here or handed to the registry.
    void relative_round() {
        const int mode = static_cast<int>(rng_() % 2);
        Context *context = new_relative_context(mode == 0 ? Kind::Periodic : Kind::OneShot);
        ASSERT_NE(context, nullptr);
        void *handle = ZEPO_CreateRelTimerM(relative_timeout, mode, __LINE__, "stress");
        ASSERT_NE(handle, nullptr);
        stress().relCreated.fetch_add(1);
        relHandles_.push_back(handle);
        EXPECT_EQ(ZEPO_StartRelTimer(handle, interval(rng_), context), 0u);
        if (coin()) {
            EXPECT_EQ(ZEPO_StartRelTimer(handle, interval(rng_), context), 0u);
        }
        void *argument = &rng_;
        switch (rng_() % 4) {
            case 0: EXPECT_EQ(ZEPO_StopRelTimer_Safe(handle, nullptr, nullptr), 0u); break;
            case 1:
                EXPECT_EQ(ZEPO_StopRelTimer_Safe(handle, count_done, nullptr), 0u);
                stress().stopsWithDone.fetch_add(1);
                break;
            case 2:
                EXPECT_EQ(ZEPO_StopRelTimer_SafeEx(handle, nullptr, nullptr, &argument), 0u);
                EXPECT_TRUE(argument == nullptr || argument == context);
                break;
            default: break;
        }
        if (coin()) {
            EXPECT_EQ(ZEPO_StartRelTimer(handle, interval(rng_), context), 0u);
        }
        if (coin()) {
            EXPECT_EQ(ZEPO_FreeRelTimer(handle), 0u);
            EXPECT_EQ(ZEPO_FreeRelTimer(handle), 22u) << "freed twice";
            EXPECT_EQ(ZEPO_FreeRelTimerArg_safe(context), 0u);
            return;
        }
        stress().registry.add({context->id, context->kind, handle, context});
    }

    // A timer that frees itself after its call-back: started and handed to the registry in
    // one step, so that its call-back finds its entry.
    void autofree_round() {
        Context *context = new_relative_context(Kind::AutoFree);
        ASSERT_NE(context, nullptr);
        void *handle = ZEPO_CreateRelTimerM(relative_timeout, 2, __LINE__, "stress");
        ASSERT_NE(handle, nullptr);
        stress().relCreated.fetch_add(1);
        relHandles_.push_back(handle);
        // Not running yet: a stop changes nothing.
        if (coin()) {
            EXPECT_EQ(ZEPO_StopRelTimer_Safe(handle, nullptr, nullptr), 0u);
        }
        Registry &registry = stress().registry;
        std::lock_guard<std::mutex> hold(registry.lock);
        EXPECT_EQ(ZEPO_StartRelTimer(handle, interval(rng_), context), 0u);
        registry.add_locked({context->id, Kind::AutoFree, handle, context});
    }

    void absolute_round() {
        static const struct tm pattern = every_second();
        const uint32_t mode = rng_() % 2;
        absContexts_.push_back(std::make_unique<Context>(
            stress().nextId.fetch_add(1), mode == 0 ? Kind::AbsPeriodic : Kind::AbsOneShot));
        Context *context = absContexts_.back().get();
        void *handle = ZEPO_CreateAbsTimerM(absolute_timeout, mode);
        ASSERT_NE(handle, nullptr);
        stress().absCreated.fetch_add(1);
        absHandles_.push_back(handle);
        EXPECT_EQ(ZEPO_StartAbsTimer(handle, &pattern, context), 0u);
        if (coin()) {
            EXPECT_EQ(ZEPO_StartAbsTimer(handle, &pattern, context), 0u);
        }
        void *argument = &rng_;
        switch (rng_() % 4) {
            case 0: EXPECT_EQ(ZEPO_StopAbsTimer_Safe(handle, nullptr, nullptr), 0u); break;
            case 1:
                EXPECT_EQ(ZEPO_StopAbsTimer_Safe(handle, count_done, nullptr), 0u);
                stress().stopsWithDone.fetch_add(1);
                break;
            case 2:
                EXPECT_EQ(ZEPO_StopAbsTimer_SafeEx(handle, nullptr, nullptr, &argument), 0u);
                EXPECT_TRUE(argument == nullptr || argument == context);
                break;
            default: break;
        }
        if (coin()) {
            EXPECT_EQ(ZEPO_StartAbsTimer(handle, &pattern, context), 0u);
        }
        if (coin()) {
            EXPECT_EQ(ZEPO_FreeAbsTimer(handle), 0u);
            return;
        }
        stress().registry.add({context->id, context->kind, handle, context});
    }

    void simple_round() {
        stress().simpleStarted.fetch_add(1);
        EXPECT_EQ(ZEPO_StartRelTimer_Simple(interval(rng_), simple_timeout, nullptr), 0u);
    }

    // A one-shot timer nobody else touches: it must fire exactly once.  Those that have
    // fired are checked and freed first.
    void witness_round() {
        const auto fired = std::partition(pending_.begin(), pending_.end(),
                                          [](const Witness *w) { return w->fired.load() == 0; });
        for (auto it = fired; it != pending_.end(); ++it) {
            EXPECT_EQ((*it)->fired.load(), 1u) << "a one-shot timer fired more than once";
            EXPECT_EQ(ZEPO_FreeRelTimer((*it)->handle), 0u);
        }
        pending_.erase(fired, pending_.end());
        witnesses_.push_back(std::make_unique<Witness>());
        Witness *witness = witnesses_.back().get();
        pending_.push_back(witness);
        witness->handle = ZEPO_CreateRelTimerM(witness_timeout, 1, __LINE__, "witness");
        ASSERT_NE(witness->handle, nullptr);
        stress().relCreated.fetch_add(1);
        relHandles_.push_back(witness->handle);
        EXPECT_EQ(ZEPO_StartRelTimer(witness->handle, interval(rng_), witness), 0u);
    }

    void settle_witnesses() {
        EXPECT_TRUE(wait_until(
            [&] {
                return std::all_of(pending_.begin(), pending_.end(),
                                   [](const Witness *w) { return w->fired.load() >= 1; });
            },
            30s))
            << "a one-shot timer did not fire";
        for (const Witness *witness : pending_) {
            EXPECT_EQ(witness->fired.load(), 1u) << "a one-shot timer fired more than once";
            EXPECT_EQ(ZEPO_FreeRelTimer(witness->handle), 0u);
        }
    }

    std::minstd_rand rng_;
    std::vector<void *> relHandles_;
    std::vector<void *> absHandles_;
    std::vector<std::unique_ptr<Context>> absContexts_;
    std::vector<std::unique_ptr<Witness>> witnesses_;  // to the end: call-backs may run late
    std::vector<Witness *> pending_;                   // started, not yet freed
};

TEST(TimerStress, FourThreadsAndTheirCallBacksCreateStartStopAndFreeThousandsOfTimers) {
    constexpr int kThreads = 4;
    const int iterations = 4000 / kSlowdown;
    const size_t liveBefore = live_blocks();
    const int32_t relBefore = rel_count();
    const int32_t absBefore = abs_count();
    ASSERT_EQ(petimer_getTreadId(), 0u) << "the first creations start the engine";

    std::vector<std::unique_ptr<Worker>> workers;
    for (int t = 0; t < kThreads; ++t) workers.push_back(std::make_unique<Worker>(1000 + t));
    std::vector<std::thread> threads;
    for (auto &worker : workers)
        threads.emplace_back([&worker, iterations] { worker->run(iterations); });
    for (auto &thread : threads) thread.join();

    // Only the test thread is left: it frees whatever the registry still holds, except the
    // timers that free themselves, which go as they fire.
    std::minstd_rand rng(7);
    while (free_any(rng, false)) {
    }
    EXPECT_TRUE(wait_until([] { return stress().registry.size() == 0; }, 30s));
    StressState &s = stress();
    EXPECT_TRUE(wait_until([&] { return s.simpleFired.load() == s.simpleStarted.load(); }, 30s));
    // Timers of ZEPO_StartRelTimer_Simple are not counted when made, yet counted down when
    // they free themselves.
    const auto simple = static_cast<int32_t>(s.simpleStarted.load());
    EXPECT_TRUE(wait_until([&] { return rel_count() == relBefore - simple; }, 30s))
        << rel_count() << " relative timers left";
    // An absolute timer is counted down when the driver frees it, at its next second.
    EXPECT_TRUE(wait_until([&] { return abs_count() == absBefore; }, 30s))
        << abs_count() << " absolute timers left";

    // Every cell is free again, and every handle the test ever had is refused.
    EXPECT_EQ(free_rel_cells(), ulMaxReltmNum);
    EXPECT_EQ(free_abs_cells(), ulMaxAbstmNum);
    std::set<void *> relHandles;
    std::set<void *> absHandles;
    for (const auto &worker : workers) {
        relHandles.insert(worker->relative_handles().begin(), worker->relative_handles().end());
        absHandles.insert(worker->absolute_handles().begin(), worker->absolute_handles().end());
    }
    for (void *handle : relHandles) EXPECT_EQ(petimer_start_reltimer(handle, 0, nullptr), 22u);
    for (void *handle : absHandles) EXPECT_FALSE(abs_cell_holds_timer(handle));

    ASSERT_EQ(ZEPO_StopTimerTask(), 0);
    expect_engine_gone(relBefore - simple, absBefore);
    for (void *handle : relHandles) EXPECT_EQ(petimer_start_reltimer(handle, 0, nullptr), 22u);
    // Every stop queued with a completion function was carried out, at the latest by the
    // driver's last run of the queues before it left.
    EXPECT_EQ(s.doneCalls.load(), s.stopsWithDone.load());
    EXPECT_EQ(live_blocks(), liveBefore) << "blocks of the engine or timer arguments left";

    EXPECT_GE(s.relCreated.load() + s.absCreated.load(), 1000u / kSlowdown);
    EXPECT_GT(s.callbacks.load(), 0u);
    RecordProperty("relative_timers", std::to_string(s.relCreated.load()));
    RecordProperty("absolute_timers", std::to_string(s.absCreated.load()));
    RecordProperty("simple_timers", std::to_string(s.simpleStarted.load()));
    RecordProperty("callbacks", std::to_string(s.callbacks.load()));
    RecordProperty("freed_in_callbacks", std::to_string(s.freedInCallbacks.load()));
}

// ---- Engine start and stop cycles -------------------------------------------------------------

struct Tally {
    std::atomic<uint32_t> fired{0};
};

void tally_timeout(void *arg) { static_cast<Tally *>(arg)->fired.fetch_add(1); }

size_t count_traces(const std::string &text) {
    const auto lines = traces();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
}

TEST(EngineCycles, TwoHundredScriptedStartsAndStopsLeaveNothingBehind) {
    const int cycles = 200 / kSlowdown;
    const size_t liveBefore = live_blocks();
    const int32_t relBefore = rel_count();
    const int32_t absBefore = abs_count();
    const struct tm pattern = every_second();
    capture_trace();
    use_scripted_clock();
    use_scripted_calendar(1700000000);
    for (int round = 0; round < cycles && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Tally periodic, oneShot, autoFree, calendar, idle;
        // The first creation starts the engine.
        void *p = ZEPO_CreateRelTimerM(tally_timeout, 0, __LINE__, "cycle");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(wait_parked(), 10000u);
        void *o = ZEPO_CreateRelTimerM(tally_timeout, 1, __LINE__, "cycle");
        void *a = ZEPO_CreateRelTimerM(tally_timeout, 2, __LINE__, "cycle");
        void *never = ZEPO_CreateRelTimerM(tally_timeout, 0, __LINE__, "cycle");
        void *c = ZEPO_CreateAbsTimerM(tally_timeout, 0);
        void *cIdle = ZEPO_CreateAbsTimerM(tally_timeout, 1);
        ASSERT_TRUE(o != nullptr && a != nullptr && never != nullptr && c != nullptr &&
                    cIdle != nullptr);
        EXPECT_EQ(rel_count(), relBefore + 4);
        EXPECT_EQ(abs_count(), absBefore + 2);
        EXPECT_EQ(ZEPO_StartRelTimer(p, 0, &periodic), 0u);
        EXPECT_EQ(ZEPO_StartRelTimer(o, 20, &oneShot), 0u);
        EXPECT_EQ(ZEPO_StartRelTimer(a, 30, &autoFree), 0u);
        EXPECT_EQ(ZEPO_StartAbsTimer(c, &pattern, &calendar), 0u);
        run_ticks(4);
        EXPECT_EQ(periodic.fired.load(), 2u);
        EXPECT_EQ(oneShot.fired.load(), 1u);
        EXPECT_EQ(autoFree.fired.load(), 1u);
        EXPECT_EQ(rel_count(), relBefore + 3) << "the mode-2 timer freed itself";
        set_calendar(1700000000 + static_cast<uint32_t>(round));
        run_cycle(1000);  // 100 ticks: the calendar hook examines the current second
        EXPECT_EQ(calendar.fired.load(), 1u);
        // Requests left for the driver's last run of the queues, in turn.
        switch (round % 4) {
            case 0:
                EXPECT_EQ(ZEPO_FreeRelTimer(p), 0u);
                EXPECT_EQ(ZEPO_FreeAbsTimer(c), 0u);
                break;
            case 1:
                EXPECT_EQ(ZEPO_StartRelTimer(never, 10, &idle), 0u);
                EXPECT_EQ(ZEPO_StartAbsTimer(cIdle, &pattern, &idle), 0u);
                break;
            case 2:
                EXPECT_EQ(ZEPO_StopRelTimer_Safe(p, nullptr, nullptr), 0u);
                EXPECT_EQ(ZEPO_StopAbsTimer_Safe(c, nullptr, nullptr), 0u);
                break;
            default: break;
        }
        ASSERT_EQ(ZEPO_StopTimerTask(), 0);
        expect_engine_gone(relBefore, absBefore);
        EXPECT_EQ(idle.fired.load(), 0u) << "a stopping engine calls nothing";
        EXPECT_EQ(live_blocks(), liveBefore);
        EXPECT_EQ(ZEPO_StopTimerTask(), -1);
        EXPECT_EQ(petimer_start_reltimer(p, 0, &periodic), 22u);
        EXPECT_EQ(ZEPO_FreeRelTimer(o), 22u);
    }
    EXPECT_EQ(count_traces("Timer initialize success.\n"), static_cast<size_t>(cycles));
}

TEST(EngineCycles, StopsRacingRealTimeCallBacksLeaveNothingBehind) {
    const int cycles = 60 / kSlowdown;
    use_real_clock();
    use_real_calendar();
    const size_t liveBefore = live_blocks();
    const int32_t relBefore = rel_count();
    const int32_t absBefore = abs_count();
    const struct tm pattern = every_second();
    for (int round = 0; round < cycles && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Tally fast, slow, calendar;
        std::vector<void *> handles;
        for (int i = 0; i < 20; ++i) {
            void *h = ZEPO_CreateRelTimerM(tally_timeout, i % 3, __LINE__, "cycle");
            ASSERT_NE(h, nullptr);
            handles.push_back(h);
            EXPECT_EQ(
                ZEPO_StartRelTimer(h, static_cast<uint32_t>(i % 3) * 10, i < 10 ? &fast : &slow),
                0u);
        }
        void *c = ZEPO_CreateAbsTimerM(tally_timeout, 0);
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(ZEPO_StartAbsTimer(c, &pattern, &calendar), 0u);
        EXPECT_TRUE(wait_until([&] { return fast.fired.load() >= 1; }));
        // Requests still queued when the stop comes, and call-backs under way.
        EXPECT_EQ(ZEPO_FreeRelTimer(handles[0]), 0u);
        EXPECT_EQ(ZEPO_StartRelTimer(handles[1], 0, &slow), 0u);
        ASSERT_EQ(ZEPO_StopTimerTask(), 0);
        expect_engine_gone(relBefore, absBefore);
        EXPECT_EQ(live_blocks(), liveBefore);
    }
}

// ---- Allocation failures --------------------------------------------------------------------
//
// Each request path is called with its 1st, 2nd, ... allocation failing until the call
// succeeds.  The driver is parked on the scripted clock during each call, so the count of
// allocations is the call's own.

// Calls attempt(n) for n = 1, 2, ... until it reports success; returns the number of failed
// attempts (each one failed the n-th allocation of the call).
int sweep_allocations(const std::function<bool(int)> &attempt) {
    for (int n = 1; n <= 16; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        if (attempt(n)) return n - 1;
        if (::testing::Test::HasFatalFailure()) return -1;
    }
    ADD_FAILURE() << "the call never succeeded";
    return -1;
}

// Makes call() with the n-th allocation from now failing; errno right after it goes to err.
template <typename Call>
auto failing_nth(int n, int &err, Call call) {
    errno = kSentinel;
    fail_allocation(n);
    const auto result = call();
    err = errno;
    fail_allocation(0);
    return result;
}

std::atomic<int> hook_calls{0};
void counting_hook(int64_t) { hook_calls.fetch_add(1); }

std::atomic<int> done_calls{0};
void done(void *) { done_calls.fetch_add(1); }

std::vector<int> tasklet_order;
void note_tasklet(void *arg) { tasklet_order.push_back(*static_cast<int *>(arg)); }

std::mutex group_lock;
std::vector<std::pair<uint32_t, uint32_t>> group_calls;
void group_timeout(uint32_t index, uint32_t arg) {
    std::lock_guard<std::mutex> hold(group_lock);
    group_calls.emplace_back(index, arg);
}
size_t group_call_count() {
    std::lock_guard<std::mutex> hold(group_lock);
    return group_calls.size();
}

class AllocationFailure : public ::testing::Test {
protected:
    static constexpr uint32_t kFirstSecond = 1700000000;

    void SetUp() override {
        hook_calls = 0;
        done_calls = 0;
        tasklet_order.clear();
        {
            std::lock_guard<std::mutex> hold(group_lock);
            group_calls.clear();
        }
        liveBefore_ = live_blocks();
        relBefore_ = rel_count();
        absBefore_ = abs_count();
        use_scripted_clock();
        use_scripted_calendar(second_);
    }

    void TearDown() override { stop_engine(); }

    void start_engine() {
        ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
        EXPECT_EQ(wait_parked(), 10000u);
    }

    // One calendar second later, examined by the calendar hook (a cycle of 100 ticks).
    void step_second() {
        set_calendar(++second_);
        run_cycle(1000);
    }

    // Stops the engine; then nothing of the test is left.
    void expect_all_released(int32_t relDrop = 0) {
        stop_engine();
        EXPECT_EQ(live_blocks(), liveBefore_);
        EXPECT_EQ(rel_count(), relBefore_ - relDrop);
        EXPECT_EQ(abs_count(), absBefore_);
    }

    size_t liveBefore_ = 0;
    int32_t relBefore_ = 0;
    int32_t absBefore_ = 0;
    uint32_t second_ = kFirstSecond;
};

TEST_F(AllocationFailure, TickHookRegistrationFailsWithEnomemAndLinksNothing) {
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [] { return petimer_register_tickhook(counting_hook, 1); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        return false;
    });
    EXPECT_EQ(failures, 1);
    start_engine();
    run_ticks(3);
    EXPECT_EQ(hook_calls.load(), 3) << "registered once";
    stop_engine();
    EXPECT_EQ(petimer_deregister_tickhook(counting_hook), 0u);
    expect_all_released();
}

TEST_F(AllocationFailure, TaskletQueuingFailsWithEnomemAndQueuesNothing) {
    TaskletQueue queue;
    ASSERT_EQ(tsklet_init(&queue), 0);
    const auto pending = [&] {
        size_t entries = 0;
        for (TaskletEntry *e = queue.next; e != reinterpret_cast<TaskletEntry *>(&queue);
             e = e->next)
            ++entries;
        return entries;
    };
    int later = 1, first = 2;
    const auto queue_by = [&](auto invoke, int *tag) {
        return sweep_allocations([&](int n) {
            const size_t before = live_blocks();
            const size_t entries = pending();
            int err = 0;
            const int32_t result =
                failing_nth(n, err, [&] { return invoke(&queue, note_tasklet, tag); });
            if (result == 0) return true;
            EXPECT_EQ(result, 12);
            EXPECT_EQ(err, ENOMEM);
            EXPECT_EQ(live_blocks(), before);
            EXPECT_EQ(pending(), entries) << "nothing was queued";
            return false;
        });
    };
    EXPECT_EQ(queue_by(tsklet_invokelater, &later), 1);
    EXPECT_EQ(pending(), 1u);
    EXPECT_EQ(queue_by(tsklet_invokefirst, &first), 1);
    EXPECT_EQ(pending(), 2u);
    // The queue delivers both, the one queued first-in-line before the other.
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(tasklet_order, (std::vector<int>{2, 1}));
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(tsklet_delinit(&queue), 0);
    expect_all_released();
}

TEST_F(AllocationFailure, EngineStartFailsWithEnomemAndTheNextStartReplacesWhatWasBuilt) {
    capture_trace();
    const int failures = sweep_allocations([&](int n) {
        int err = 0;
        uint64_t id = 77;
        const int32_t result =
            failing_nth(n, err, [&] { return ZEPO_StartTimerTask(&id, nullptr); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(id, 77u) << "no thread, no id";
        EXPECT_EQ(petimer_getTreadId(), 0u);
        EXPECT_EQ(ZEPO_StopTimerTask(), -1) << "nothing runs";
        return false;
    });
    // Two tables, two tick hooks and the wheel.
    EXPECT_EQ(failures, 5);
    EXPECT_EQ(wait_parked(), 10000u);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    // One wheel hook, not one per failed start: a 100 ms timer fires on the tenth tick
    // after the one that started it.
    Tally tally;
    void *handle = ZEPO_CreateRelTimerM(tally_timeout, 1, __LINE__, "sweep");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(ZEPO_StartRelTimer(handle, 100, &tally), 0u);
    run_ticks(10);
    EXPECT_EQ(tally.fired.load(), 0u);
    run_ticks(1);
    EXPECT_EQ(tally.fired.load(), 1u);
    // One calendar hook: a timer of every second fires once per second.
    Tally calendar;
    const struct tm pattern = every_second();
    void *abs = ZEPO_CreateAbsTimerM(tally_timeout, 0);
    ASSERT_NE(abs, nullptr);
    EXPECT_EQ(ZEPO_StartAbsTimer(abs, &pattern, &calendar), 0u);
    step_second();
    step_second();
    EXPECT_EQ(calendar.fired.load(), 2u);
    expect_all_released();
}

TEST_F(AllocationFailure, CreateRelTimerFailsWithEnomemAndTakesNoCell) {
    start_engine();
    const size_t cells = free_rel_cells();
    void *handle = nullptr;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        handle = failing_nth(
            n, err, [] { return ZEPO_CreateRelTimerM(tally_timeout, 1, __LINE__, "sweep"); });
        if (handle != nullptr) return true;
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        EXPECT_EQ(rel_count(), relBefore_);
        EXPECT_EQ(free_rel_cells(), cells);
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(rel_count(), relBefore_ + 1);
    Tally tally;
    EXPECT_EQ(ZEPO_StartRelTimer(handle, 0, &tally), 0u);
    run_ticks(2);
    EXPECT_EQ(tally.fired.load(), 1u);
    EXPECT_EQ(ZEPO_FreeRelTimer(handle), 0u);
    expect_all_released();
}

TEST_F(AllocationFailure, CreateAbsTimerFailsWithEnomemAndTakesNoCell) {
    start_engine();
    const size_t cells = free_abs_cells();
    void *handle = nullptr;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        handle = failing_nth(n, err, [] { return ZEPO_CreateAbsTimerM(tally_timeout, 0); });
        if (handle != nullptr) return true;
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        EXPECT_EQ(abs_count(), absBefore_);
        EXPECT_EQ(free_abs_cells(), cells);
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(abs_count(), absBefore_ + 1);
    Tally tally;
    const struct tm pattern = every_second();
    EXPECT_EQ(ZEPO_StartAbsTimer(handle, &pattern, &tally), 0u);
    step_second();
    EXPECT_EQ(tally.fired.load(), 1u);
    EXPECT_EQ(ZEPO_FreeAbsTimer(handle), 0u);
    expect_all_released();
}

TEST_F(AllocationFailure, StartRelTimerFailsWithEnomemAndQueuesNothing) {
    start_engine();
    void *handle = ZEPO_CreateRelTimerM(tally_timeout, 1, __LINE__, "sweep");
    ASSERT_NE(handle, nullptr);
    Tally tally;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StartRelTimer(handle, 0, &tally); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        run_ticks(2);
        EXPECT_EQ(tally.fired.load(), 0u) << "not started";
        return false;
    });
    EXPECT_EQ(failures, 2);  // the request and its tasklet
    run_ticks(2);
    EXPECT_EQ(tally.fired.load(), 1u);
    expect_all_released();
}

// A periodic 0 ms timer fires at every second tick: two ticks show it one call more.
void expect_still_periodic(const Tally &tally) {
    const uint32_t before = tally.fired.load();
    run_ticks(2);
    EXPECT_EQ(tally.fired.load(), before + 1) << "the timer still runs";
}

TEST_F(AllocationFailure, StopRelTimerFailsWithEnomemAndTheTimerRunsOn) {
    start_engine();
    void *handle = ZEPO_CreateRelTimerM(tally_timeout, 0, __LINE__, "sweep");
    ASSERT_NE(handle, nullptr);
    Tally tally;
    EXPECT_EQ(ZEPO_StartRelTimer(handle, 0, &tally), 0u);
    run_ticks(2);
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StopRelTimer_Safe(handle, done, nullptr); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        expect_still_periodic(tally);
        EXPECT_EQ(done_calls.load(), 0);
        return false;
    });
    EXPECT_EQ(failures, 2);
    run_ticks(1);
    EXPECT_EQ(done_calls.load(), 1);
    const uint32_t stoppedAt = tally.fired.load();
    run_ticks(4);
    EXPECT_EQ(tally.fired.load(), stoppedAt) << "stopped";
    expect_all_released();
}

TEST_F(AllocationFailure, StopRelTimerExFailsWithEnomemAndTheTimerRunsOn) {
    start_engine();
    void *handle = ZEPO_CreateRelTimerM(tally_timeout, 0, __LINE__, "sweep");
    ASSERT_NE(handle, nullptr);
    Tally tally;
    EXPECT_EQ(ZEPO_StartRelTimer(handle, 0, &tally), 0u);
    run_ticks(2);
    void *argument = nullptr;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        argument = &argument;
        int err = 0;
        const uint32_t result = failing_nth(
            n, err, [&] { return ZEPO_StopRelTimer_SafeEx(handle, done, nullptr, &argument); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        // The argument is read under the index lock, after the request was allocated and
        // before its tasklet is.
        if (n == 1) {
            EXPECT_EQ(argument, &argument) << "no request, nothing read";
        }
        if (n == 2) {
            EXPECT_EQ(argument, &tally);
        }
        expect_still_periodic(tally);
        EXPECT_EQ(done_calls.load(), 0);
        return false;
    });
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(argument, &tally);
    run_ticks(1);
    EXPECT_EQ(done_calls.load(), 1);
    const uint32_t stoppedAt = tally.fired.load();
    run_ticks(4);
    EXPECT_EQ(tally.fired.load(), stoppedAt) << "stopped";
    expect_all_released();
}

TEST_F(AllocationFailure, FreeRelTimerFailsWithEnomemAndTheHandleStaysValid) {
    start_engine();
    void *handle = ZEPO_CreateRelTimerM(tally_timeout, 0, __LINE__, "sweep");
    ASSERT_NE(handle, nullptr);
    Tally tally;
    EXPECT_EQ(ZEPO_StartRelTimer(handle, 0, &tally), 0u);
    run_ticks(2);
    const size_t cells = free_rel_cells();
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result = failing_nth(n, err, [&] { return ZEPO_FreeRelTimer(handle); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        EXPECT_EQ(rel_count(), relBefore_ + 1);
        EXPECT_EQ(free_rel_cells(), cells) << "the cell stays taken";
        expect_still_periodic(tally);
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(rel_count(), relBefore_) << "counted down at once";
    EXPECT_EQ(free_rel_cells(), cells + 1);
    EXPECT_EQ(ZEPO_FreeRelTimer(handle), 22u);
    const uint32_t freedAt = tally.fired.load();
    run_ticks(4);
    EXPECT_EQ(tally.fired.load(), freedAt) << "freed";
    expect_all_released();
}

TEST_F(AllocationFailure, FreeRelTimerArgFailsWithEnomemAndKeepsTheBlock) {
    start_engine();
    void *block = ZEPO_MemTypeMallocD(48, 0, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    const size_t withBlock = live_blocks();
    const int failures = sweep_allocations([&](int n) {
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_FreeRelTimerArg_safe(block); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), withBlock) << "the block stays the caller's";
        run_ticks(1);
        EXPECT_EQ(live_blocks(), withBlock);
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(live_blocks(), withBlock + 1) << "the block and its queued release";
    run_ticks(1);
    EXPECT_EQ(live_blocks(), withBlock - 1) << "released by the driver";
    expect_all_released();
}

TEST_F(AllocationFailure, StartRelTimerSimpleFailsWithEnomemAndKeepsATimerWhoseStartFailed) {
    start_engine();
    Tally tally;
    const size_t startLive = live_blocks();
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result = failing_nth(
            n, err, [&] { return ZEPO_StartRelTimer_Simple(0, tally_timeout, &tally); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        // Without a record nothing is left; with a record whose start failed, the record
        // stays in the table until the engine stops.
        EXPECT_EQ(live_blocks(), before + (n == 1 ? 0 : 1));
        run_ticks(2);
        EXPECT_EQ(tally.fired.load(), 0u);
        return false;
    });
    EXPECT_EQ(failures, 3);  // the record, the request, the tasklet
    EXPECT_EQ(live_blocks(), startLive + 2 + 3)
        << "two records left; a record, its request and its tasklet queued";
    run_ticks(2);
    EXPECT_EQ(tally.fired.load(), 1u);
    EXPECT_EQ(rel_count(), relBefore_ - 1) << "uncounted, yet counted down when it freed itself";
    run_ticks(4);
    EXPECT_EQ(tally.fired.load(), 1u);
    // The tear-down frees the two records left behind, counting each down too.
    expect_all_released(3);
}

TEST_F(AllocationFailure, StartAbsTimerFailsWithEnomemAndQueuesNothing) {
    start_engine();
    void *handle = ZEPO_CreateAbsTimerM(tally_timeout, 0);
    ASSERT_NE(handle, nullptr);
    Tally tally;
    const struct tm pattern = every_second();
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StartAbsTimer(handle, &pattern, &tally); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        step_second();
        EXPECT_EQ(tally.fired.load(), 0u) << "not started";
        return false;
    });
    EXPECT_EQ(failures, 2);
    step_second();
    EXPECT_EQ(tally.fired.load(), 1u);
    step_second();
    EXPECT_EQ(tally.fired.load(), 2u);
    expect_all_released();
}

class AbsoluteStopFailure : public AllocationFailure {
protected:
    void start_running_timer() {
        start_engine();
        handle_ = ZEPO_CreateAbsTimerM(tally_timeout, 0);
        ASSERT_NE(handle_, nullptr);
        const struct tm pattern = every_second();
        EXPECT_EQ(ZEPO_StartAbsTimer(handle_, &pattern, &tally_), 0u);
        step_second();
        EXPECT_EQ(tally_.fired.load(), 1u);
    }

    void expect_still_firing() {
        const uint32_t before = tally_.fired.load();
        step_second();
        EXPECT_EQ(tally_.fired.load(), before + 1) << "the timer still runs";
    }

    void expect_stopped() {
        const uint32_t before = tally_.fired.load();
        step_second();
        step_second();
        EXPECT_EQ(tally_.fired.load(), before) << "stopped";
    }

    void *handle_ = nullptr;
    Tally tally_;
};

TEST_F(AbsoluteStopFailure, StopAbsTimerFailsWithEnomemAndTheTimerRunsOn) {
    start_running_timer();
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StopAbsTimer_Safe(handle_, done, nullptr); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        expect_still_firing();
        EXPECT_EQ(done_calls.load(), 0);
        return false;
    });
    EXPECT_EQ(failures, 2);
    expect_stopped();
    EXPECT_EQ(done_calls.load(), 1);
    expect_all_released();
}

TEST_F(AbsoluteStopFailure, StopAbsTimerExFailsWithEnomemAndTheTimerRunsOn) {
    start_running_timer();
    void *argument = nullptr;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result = failing_nth(
            n, err, [&] { return ZEPO_StopAbsTimer_SafeEx(handle_, done, nullptr, &argument); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        expect_still_firing();
        EXPECT_EQ(done_calls.load(), 0);
        return false;
    });
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(argument, &tally_);
    expect_stopped();
    EXPECT_EQ(done_calls.load(), 1);
    expect_all_released();
}

TEST_F(AbsoluteStopFailure, FreeAbsTimerFailsWithEnomemAndTheHandleStaysValid) {
    start_running_timer();
    const size_t cells = free_abs_cells();
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result = failing_nth(n, err, [&] { return ZEPO_FreeAbsTimer(handle_); });
        if (result == 0) return true;
        EXPECT_EQ(result, 12u);
        EXPECT_EQ(err, ENOMEM);
        EXPECT_EQ(live_blocks(), before);
        EXPECT_TRUE(abs_cell_holds_timer(handle_));
        EXPECT_EQ(free_abs_cells(), cells);
        EXPECT_EQ(abs_count(), absBefore_ + 1);
        expect_still_firing();
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_FALSE(abs_cell_holds_timer(handle_));
    EXPECT_EQ(free_abs_cells(), cells + 1);
    expect_stopped();
    EXPECT_EQ(abs_count(), absBefore_) << "counted down by the driver";
    expect_all_released();
}

TEST_F(AllocationFailure, PeriodicWaitableTimerCreationFailsAndLeavesNothing) {
    ZEPO_PERIODIC_TIMER *timer = nullptr;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        timer = failing_nth(n, err, [] { return ZEPO_TimerCreate(nullptr, 1); });
        if (timer != nullptr) return true;
        EXPECT_EQ(live_blocks(), before);
        return false;
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(ZEPO_TimerProcess(timer), 0);
    EXPECT_EQ(ZEPO_TimerProcess(timer), 0);
    ZEPO_TimerDestroy(timer);
    expect_all_released();
}

TEST_F(AllocationFailure, GroupCreationFailsWithItsCodeAndLeavesNothing) {
    start_engine();
    auto *const untouched = reinterpret_cast<ZEPO_RELTIMER_GRP *>(&group_calls);
    ZEPO_RELTIMER_GRP *group = untouched;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_InitReltimerGrp(&group, 3, group_timeout); });
        if (result == 0) return true;
        EXPECT_EQ(result, 0x20160036u);
        EXPECT_EQ(group, untouched);
        EXPECT_EQ(live_blocks(), before);
        return false;
    });
    EXPECT_EQ(failures, 2);  // the group, its members
    ASSERT_NE(group, untouched);
    EXPECT_EQ(ZEPO_StartRelTimerofGrp(group, 1, 0, 41, 0), 0u);
    run_ticks(2);
    {
        std::lock_guard<std::mutex> hold(group_lock);
        EXPECT_EQ(group_calls, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 41}}));
    }
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    run_ticks(1);
    expect_all_released();
}

TEST_F(AllocationFailure, GroupMemberStartFailsWithItsCodeAndKeepsTheTimersItMade) {
    start_engine();
    ZEPO_RELTIMER_GRP *group = nullptr;
    ASSERT_EQ(ZEPO_InitReltimerGrp(&group, 2, group_timeout), 0u);
    ZEPO_RELTIMER_GRP_MEMBER &member = group->members[1];
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        const int32_t countBefore = rel_count();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StartRelTimerofGrp(group, 1, 0, 7, 0); });
        if (result == 0) return true;
        EXPECT_EQ(result, 0x2016003Du);
        EXPECT_EQ(member.active, 0u);
        // The timer's creation failed: nothing made.  Its start failed: the timer stays
        // in the member until a later start makes another.
        if (n == 1) {
            EXPECT_EQ(member.handle, nullptr);
            EXPECT_EQ(live_blocks(), before);
            EXPECT_EQ(rel_count(), countBefore);
        } else {
            EXPECT_NE(member.handle, nullptr);
            EXPECT_EQ(live_blocks(), before + 1);
            EXPECT_EQ(rel_count(), countBefore + 1);
        }
        run_ticks(2);
        EXPECT_EQ(group_call_count(), 0u);
        return false;
    });
    EXPECT_EQ(failures, 3);  // the timer, its start request, the request's tasklet
    EXPECT_EQ(member.active, 1u);
    run_ticks(2);
    EXPECT_EQ(group_call_count(), 1u);
    EXPECT_EQ(ZEPO_StopRelTimerofGrp(group, 1), 0u);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    run_ticks(1);
    EXPECT_EQ(rel_count(), relBefore_ + 2) << "the two timers whose start failed";
    // The tear-down frees them.
    expect_all_released();
}

TEST_F(AllocationFailure, GroupMemberStopFailsWithItsCodeAndKeepsTheMemberActive) {
    start_engine();
    ZEPO_RELTIMER_GRP *group = nullptr;
    ASSERT_EQ(ZEPO_InitReltimerGrp(&group, 1, group_timeout), 0u);
    ASSERT_EQ(ZEPO_StartRelTimerofGrp(group, 0, 0, 9, 0), 0u);
    run_ticks(2);
    void *const handle = group->members[0].handle;
    const int failures = sweep_allocations([&](int n) {
        const size_t before = live_blocks();
        int err = 0;
        const uint32_t result =
            failing_nth(n, err, [&] { return ZEPO_StopRelTimerofGrp(group, 0); });
        if (result == 0) return true;
        EXPECT_EQ(result, 0x20160043u);
        EXPECT_EQ(group->members[0].active, 1u);
        EXPECT_EQ(group->members[0].handle, handle);
        const size_t calls = group_call_count();
        run_ticks(2);
        if (n <= 2) {
            // The stop could not be queued: the member runs on.
            EXPECT_EQ(live_blocks(), before);
            EXPECT_EQ(group_call_count(), calls + 1);
        } else {
            // The stop was queued, its free was not: stopped, still active.
            EXPECT_EQ(group_call_count(), calls);
        }
        return false;
    });
    EXPECT_EQ(failures, 3);  // the stop request, its tasklet, the free's tasklet
    EXPECT_EQ(group->members[0].active, 0u);
    EXPECT_EQ(group->members[0].handle, nullptr);
    EXPECT_EQ(ZEPO_FreeRelTimerGrp(group), 0u);
    run_ticks(1);
    expect_all_released();
}

// ---- Requests racing a running driver ---------------------------------------------------------

struct RaceTimer {
    void *handle = nullptr;
    std::atomic<uint32_t> fired{0};
    std::atomic<uint32_t> done{0};
    uint32_t doneRequested = 0;  // the owning thread's
    uint32_t firedAtLastStop = 0;
};

void race_timeout(void *arg) { static_cast<RaceTimer *>(arg)->fired.fetch_add(1); }
void race_done(void *arg) { static_cast<RaceTimer *>(arg)->done.fetch_add(1); }

TEST(RequestRace, ThreadsStartAndStopTheirOwnPeriodicTimersWhileTheDriverFiresThem) {
    constexpr int kThreads = 4;
    constexpr int kTimersPerThread = 6;
    const int iterations = 5000 / kSlowdown;
    const size_t liveBefore = live_blocks();
    const int32_t relBefore = rel_count();
    use_scripted_clock();
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    wait_parked();
    std::vector<std::vector<std::unique_ptr<RaceTimer>>> owned(kThreads);
    for (auto &timers : owned) {
        for (int i = 0; i < kTimersPerThread; ++i) {
            timers.push_back(std::make_unique<RaceTimer>());
            timers.back()->handle = ZEPO_CreateRelTimerM(race_timeout, 0, __LINE__, "race");
            ASSERT_NE(timers.back()->handle, nullptr);
            EXPECT_EQ(ZEPO_StartRelTimer(timers.back()->handle, 0, timers.back().get()), 0u);
        }
    }
    EXPECT_EQ(rel_count(), relBefore + kThreads * kTimersPerThread);
    use_real_clock();  // the driver runs on its own from here

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::minstd_rand rng(500 + t);
            auto &timers = owned[t];
            for (int i = 0; i < iterations; ++i) {
                RaceTimer &timer = *timers[rng() % timers.size()];
                const unsigned roll = rng() % 100;
                void *argument = &rng;
                if (roll < 40) {
                    EXPECT_EQ(
                        ZEPO_StartRelTimer(timer.handle, static_cast<uint32_t>(rng() % 31), &timer),
                        0u);
                } else if (roll < 60) {
                    EXPECT_EQ(ZEPO_StopRelTimer_Safe(timer.handle, race_done, &timer), 0u);
                    ++timer.doneRequested;
                } else if (roll < 75) {
                    EXPECT_EQ(ZEPO_StopRelTimer_Safe(timer.handle, nullptr, nullptr), 0u);
                } else if (roll < 90) {
                    EXPECT_EQ(ZEPO_StopRelTimer_SafeEx(timer.handle, race_done, &timer, &argument),
                              0u);
                    ++timer.doneRequested;
                    EXPECT_TRUE(argument == &timer || argument == nullptr);
                } else {
                    std::this_thread::sleep_for(1ms);
                }
            }
            // The last request of each timer is a stop; once its completion has run, the
            // timer fires no more.
            for (auto &timer : timers) {
                EXPECT_EQ(ZEPO_StopRelTimer_Safe(timer->handle, race_done, timer.get()), 0u);
                ++timer->doneRequested;
            }
            for (auto &timer : timers) {
                EXPECT_TRUE(
                    wait_until([&] { return timer->done.load() == timer->doneRequested; }, 30s));
                timer->firedAtLastStop = timer->fired.load();
            }
        });
    }
    for (auto &thread : threads) thread.join();

    uint64_t fired = 0;
    for (auto &timers : owned)
        for (auto &timer : timers) fired += timer->fired.load();
    EXPECT_GT(fired, 0u) << "the driver fired the timers meanwhile";
    EXPECT_EQ(rel_count(), relBefore + kThreads * kTimersPerThread);
    // Ten ticks and more: a stopped timer stays silent.
    std::this_thread::sleep_for(100ms);
    for (auto &timers : owned) {
        for (auto &timer : timers) {
            EXPECT_EQ(timer->fired.load(), timer->firedAtLastStop) << "fired after its stop";
            EXPECT_EQ(timer->done.load(), timer->doneRequested) << "one completion per stop";
            EXPECT_EQ(ZEPO_FreeRelTimer(timer->handle), 0u);
            EXPECT_EQ(ZEPO_FreeRelTimer(timer->handle), 22u);
        }
    }
    EXPECT_EQ(rel_count(), relBefore);
    EXPECT_EQ(free_rel_cells(), ulMaxReltmNum);
    stop_engine();
    expect_engine_gone(relBefore, abs_count());
    EXPECT_EQ(live_blocks(), liveBefore);
}

}  // namespace
