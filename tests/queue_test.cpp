// Message queues: the checks of creation and their order, ids and the registry, messages in
// and out, the blocking, timed and retry paths of reads and writes, and many threads at once.
//
// Several of the library's own entry points get a test-only definition here: the memory
// entry points, the set-up and tear-down of mutexes and semaphores, the semaphore waits, the
// sleep and the millisecond run-time clock, and the mutex unlock.  The library calls them
// through the dynamic linker, so it meets these definitions; each forwards to the next one
// (dlsym(RTLD_NEXT)) and records, fails or fakes nothing until a test switches it on.
//
// The registry and the id counter are process state: every test runs in a process of its
// own (gtest_discover_tests), so ids start at 1 in each.  The queue's lock and semaphores
// are found through the records the set-up calls were given while a test was recording.

#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>

#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qel_memory.h"
#include "qel_mutex.h"
#include "qel_queue.h"
#include "qel_sem.h"
#include "qel_thread.h"
#include "qel_time.h"

#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC
using qel_test::next_definition;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr const char *kQueueSource = "os_adapter/linux/source/minivurmo_queue.cpp";

// ---- Interposition state -------------------------------------------------------------------

enum class Call {
    Malloc,          // ptr: the block (null when failed), value: size
    Free,            // ptr: the block
    MutexInit,       // ptr: the record, value: the result
    MutexDestroy,    // ptr: the record
    SemInit,         // ptr: the record, value: the result, extra: pshared << 32 | initial value
    SemDestroy,      // ptr: the record
    SemWait,         // ptr: the record (logged on entry)
    SemWaitTimeOut,  // ptr: the record, value: the time-out (logged on entry)
    SleepMs,         // value: milliseconds
    RunTime,         // value: the time handed out
};

struct Event {
    Call call;
    const void *ptr;
    uint64_t value;
    uint64_t extra;
    uint32_t type;
    std::string file;
};

std::atomic<bool> recording{false};
std::mutex log_lock;
std::vector<Event> log_entries;

void note(Call call, const void *ptr, uint64_t value, uint64_t extra = 0, uint32_t type = 0,
          const char *file = nullptr) {
    if (!recording.load()) return;
    std::lock_guard<std::mutex> hold(log_lock);
    log_entries.push_back({call, ptr, value, extra, type, file != nullptr ? file : ""});
}

// Countdowns: n > 0 makes the n-th call from now fail (1: the next one).
std::atomic<int> fail_malloc_at{0};
std::atomic<int> fail_mutex_init_at{0};
std::atomic<int> fail_sem_init_at{0};

// Timed semaphore waits: the next fake_wakeups of them return 0 at once without taking a
// token; while fail_timed_waits is on they return -1 (EINVAL) without waiting.
std::atomic<int> fake_wakeups{0};
std::atomic<bool> fail_timed_waits{false};

// The run-time clock hands out these values first, then the real time again.
std::mutex clock_lock;
std::deque<uint32_t> clock_script;

// Delete during a delete: the first unlock of vanish_mutex after arming deletes
// vanish_queue on the same thread, right after the unlock.
std::atomic<bool> vanish_armed{false};
std::atomic<const void *> vanish_mutex{nullptr};
std::atomic<uint32_t> vanish_queue{0};
std::atomic<bool> vanish_fired{false};
std::atomic<uint32_t> vanish_result{0};

// True when the countdown reaches this call.
bool countdown_hits(std::atomic<int> &counter) {
    int left = counter.load();
    while (left > 0) {
        if (counter.compare_exchange_weak(left, left - 1)) return left == 1;
    }
    return false;
}

// True for each of the next n calls, n being the counter's value.
bool take_one(std::atomic<int> &counter) {
    int left = counter.load();
    while (left > 0) {
        if (counter.compare_exchange_weak(left, left - 1)) return true;
    }
    return false;
}

}  // namespace

extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Fn = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = next_definition<Fn>("ZEPO_MemTypeMallocD");
    if (countdown_hits(fail_malloc_at)) {
        note(Call::Malloc, nullptr, size, 0, type, file);
        return nullptr;
    }
    void *block = next(size, type, line, file);
    note(Call::Malloc, block, size, 0, type, file);
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *block, uint32_t type, uint32_t line, const char *file) {
    using Fn = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = next_definition<Fn>("ZEPO_MemTypeFreeD");
    // A release of null does nothing, so only real blocks are kept.
    if (block != nullptr) note(Call::Free, block, 0, 0, type, file);
    next(block, type, line, file);
}

extern "C" int32_t ZEPO_MutexInit(void *mutex, const void *attr) {
    using Fn = int32_t (*)(void *, const void *);
    static const auto next = next_definition<Fn>("ZEPO_MutexInit");
    if (countdown_hits(fail_mutex_init_at)) {
        note(Call::MutexInit, mutex, EAGAIN);
        return EAGAIN;  // what pthread_mutex_init gives when resources run out
    }
    const int32_t result = next(mutex, attr);
    note(Call::MutexInit, mutex, static_cast<uint32_t>(result));
    return result;
}

extern "C" int32_t ZEPO_MutexDestroy(void *mutex) {
    using Fn = int32_t (*)(void *);
    static const auto next = next_definition<Fn>("ZEPO_MutexDestroy");
    note(Call::MutexDestroy, mutex, 0);
    return next(mutex);
}

extern "C" int32_t ZEPO_MutexUnLock(void *mutex) {
    using Fn = int32_t (*)(void *);
    static const auto next = next_definition<Fn>("ZEPO_MutexUnLock");
    const int32_t result = next(mutex);
    if (mutex != nullptr && mutex == vanish_mutex.load() && vanish_armed.exchange(false)) {
        vanish_result = QEL_QueueDelete(vanish_queue.load());
        vanish_fired = true;
    }
    return result;
}

extern "C" int32_t ZEPO_SemInit(ZEPO_SEM *sem, int32_t pshared, uint32_t value) {
    using Fn = int32_t (*)(ZEPO_SEM *, int32_t, uint32_t);
    static const auto next = next_definition<Fn>("ZEPO_SemInit");
    const uint64_t args = (static_cast<uint64_t>(static_cast<uint32_t>(pshared)) << 32) | value;
    if (countdown_hits(fail_sem_init_at)) {
        note(Call::SemInit, sem, static_cast<uint32_t>(-1), args);
        return -1;
    }
    const int32_t result = next(sem, pshared, value);
    note(Call::SemInit, sem, static_cast<uint32_t>(result), args);
    return result;
}

extern "C" int32_t ZEPO_SemDestroy(ZEPO_SEM *sem) {
    using Fn = int32_t (*)(ZEPO_SEM *);
    static const auto next = next_definition<Fn>("ZEPO_SemDestroy");
    note(Call::SemDestroy, sem, 0);
    return next(sem);
}

extern "C" int32_t ZEPO_SemWait(ZEPO_SEM *sem) {
    using Fn = int32_t (*)(ZEPO_SEM *);
    static const auto next = next_definition<Fn>("ZEPO_SemWait");
    note(Call::SemWait, sem, 0);
    return next(sem);
}

extern "C" int32_t ZEPO_SemWaitTimeOut(ZEPO_SEM *sem, uint32_t timeoutMs) {
    using Fn = int32_t (*)(ZEPO_SEM *, uint32_t);
    static const auto next = next_definition<Fn>("ZEPO_SemWaitTimeOut");
    note(Call::SemWaitTimeOut, sem, timeoutMs);
    if (fail_timed_waits.load()) {
        errno = EINVAL;
        return -1;
    }
    if (take_one(fake_wakeups)) return 0;  // woken, no token taken
    return next(sem, timeoutMs);
}

extern "C" int32_t ZEPO_SleepMs(uint32_t ms) {
    using Fn = int32_t (*)(uint32_t);
    static const auto next = next_definition<Fn>("ZEPO_SleepMs");
    note(Call::SleepMs, nullptr, ms);
    return next(ms);
}

extern "C" uint32_t ZEPO_GetSysRunTime(void) {
    using Fn = uint32_t (*)(void);
    static const auto next = next_definition<Fn>("ZEPO_GetSysRunTime");
    uint32_t now = 0;
    bool scripted = false;
    {
        std::lock_guard<std::mutex> hold(clock_lock);
        if (!clock_script.empty()) {
            now = clock_script.front();
            clock_script.pop_front();
            scripted = true;
        }
    }
    if (!scripted) now = next();
    note(Call::RunTime, nullptr, now);
    return now;
}

namespace {

// ---- Helpers -------------------------------------------------------------------------------

// Starts a fresh log.
void start_recording() {
    std::lock_guard<std::mutex> hold(log_lock);
    log_entries.clear();
    recording = true;
}

std::vector<Event> events() {
    std::lock_guard<std::mutex> hold(log_lock);
    return log_entries;
}

std::vector<Event> events_of(Call call) {
    std::vector<Event> found;
    for (const Event &e : events())
        if (e.call == call) found.push_back(e);
    return found;
}

size_t count_of(Call call, const void *ptr = nullptr) {
    size_t n = 0;
    for (const Event &e : events())
        if (e.call == call && (ptr == nullptr || e.ptr == ptr)) ++n;
    return n;
}

// Position of the first event of this kind on this record in the log, or npos.
size_t position_of(Call call, const void *ptr) {
    const std::vector<Event> all = events();
    for (size_t i = 0; i < all.size(); ++i)
        if (all[i].call == call && all[i].ptr == ptr) return i;
    return std::string::npos;
}

const char *name_of(Call call) {
    switch (call) {
        case Call::Malloc: return "Malloc";
        case Call::Free: return "Free";
        case Call::MutexInit: return "MutexInit";
        case Call::MutexDestroy: return "MutexDestroy";
        case Call::SemInit: return "SemInit";
        case Call::SemDestroy: return "SemDestroy";
        case Call::SemWait: return "SemWait";
        case Call::SemWaitTimeOut: return "SemWaitTimeOut";
        case Call::SleepMs: return "SleepMs";
        case Call::RunTime: return "RunTime";
    }
    return "?";
}

// The log as text, for failure messages.
std::string describe() {
    std::string text;
    for (const Event &e : events()) {
        char line[160];
        std::snprintf(line, sizeof line, "%s %p value %llu type %u %s\n", name_of(e.call), e.ptr,
                      static_cast<unsigned long long>(e.value), static_cast<unsigned>(e.type),
                      e.file.c_str());
        text += line;
    }
    return text;
}

// Exactly one failure trace line of this source: the status, the file, a line number, one
// blank and a newline.
bool is_trace_line(const std::string &text, int status) {
    const std::string head =
        "Operate fail[" + std::to_string(status) + "]: File: " + kQueueSource + " Line: ";
    if (text.compare(0, head.size(), head) != 0) return false;
    size_t i = head.size();
    if (i >= text.size() || text[i] < '1' || text[i] > '9') return false;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    return text.substr(i) == " \n";
}

void script_clock(std::initializer_list<uint32_t> values) {
    std::lock_guard<std::mutex> hold(clock_lock);
    clock_script.assign(values.begin(), values.end());
}

size_t clock_values_left() {
    std::lock_guard<std::mutex> hold(clock_lock);
    return clock_script.size();
}

// The value of a queue's semaphore (an unnamed library record).
int sem_value(const void *record) {
    auto *sem = static_cast<ZEPO_SEM *>(const_cast<void *>(record));
    int value = INT_MIN;
    if (::sem_getvalue(&sem->handle.sem, &value) != 0) return INT_MIN;
    return value;
}

void post(const void *record) {
    ASSERT_EQ(ZEPO_SemPost(static_cast<ZEPO_SEM *>(const_cast<void *>(record))), 0);
}

// Polls cond every millisecond for up to limit; true once it holds.
bool wait_until(const std::function<bool()> &cond, std::chrono::milliseconds limit = 10s) {
    const auto end = Clock::now() + limit;
    while (!cond()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

long long us_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

// A queue made while recording, with the records of its lock and semaphores.
struct Made {
    uint32_t result = 0xDEADBEEFu;
    uint32_t id = 0xDEADBEEFu;
    const void *lock = nullptr;
    const void *readSem = nullptr;
    const void *writeSem = nullptr;
    const void *record = nullptr;  // the last block allocated by the creation
    uint32_t recordSize = 0;
};

Made create_recorded(uint32_t capacity, uint32_t maxMsgLen, const char *name = "queue",
                     uint32_t mode = 0) {
    start_recording();
    Made made;
    made.result = QEL_QueueCreate(name, capacity, &made.id, mode, maxMsgLen);
    const auto mutexes = events_of(Call::MutexInit);
    const auto sems = events_of(Call::SemInit);
    const auto blocks = events_of(Call::Malloc);
    if (!mutexes.empty()) made.lock = mutexes.back().ptr;
    if (sems.size() >= 1) made.readSem = sems[0].ptr;
    if (sems.size() >= 2) made.writeSem = sems[1].ptr;
    if (!blocks.empty()) {
        made.record = blocks.back().ptr;
        made.recordSize = static_cast<uint32_t>(blocks.back().value);
    }
    return made;
}

uint32_t create(uint32_t capacity, uint32_t maxMsgLen, const char *name = "queue") {
    uint32_t id = 0xDEADBEEFu;
    EXPECT_EQ(QEL_QueueCreate(name, capacity, &id, 0, maxMsgLen), QEL_QUEUE_OK);
    return id;
}

uint32_t put(uint32_t id, const std::string &text, uint32_t timeoutMs = 0) {
    return QEL_QueueWrite(id, text.data(), static_cast<uint32_t>(text.size()), timeoutMs);
}

// Reads one message into a buffer of size bytes; the bytes read, or the code as text.
struct Got {
    uint32_t result;
    std::string text;
};

Got take(uint32_t id, uint32_t size = 256, uint32_t timeoutMs = 1000) {
    std::vector<char> buffer(size == 0 ? 1 : size, '\x7f');
    const uint32_t result = QEL_QueueRead(id, timeoutMs, buffer.data(), size);
    Got got{result, ""};
    if (result >= 1 && result <= size) got.text.assign(buffer.data(), result);
    return got;
}

// A thread running one call; its result once done.  A thread still blocked when the test
// ends is left behind (detached), so a failing test does not hang on it.
class Worker {
public:
    explicit Worker(std::function<uint32_t()> call)
        : state_(std::make_shared<State>()), thread_([state = state_, call = std::move(call)] {
              const uint32_t result = call();
              std::lock_guard<std::mutex> hold(state->lock);
              state->result = result;
              state->done = true;
              state->cv.notify_all();
          }) {}
    ~Worker() {
        if (!thread_.joinable()) return;
        if (done())
            thread_.join();
        else
            thread_.detach();
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    bool done() {
        std::lock_guard<std::mutex> hold(state_->lock);
        return state_->done;
    }
    // The result, waiting up to limit for it.
    std::optional<uint32_t> result(std::chrono::milliseconds limit = 10s) {
        std::unique_lock<std::mutex> hold(state_->lock);
        if (!state_->cv.wait_for(hold, limit, [&] { return state_->done; })) return std::nullopt;
        return state_->result;
    }

private:
    struct State {
        std::mutex lock;
        std::condition_variable cv;
        bool done = false;
        uint32_t result = 0;
    };
    std::shared_ptr<State> state_;
    std::thread thread_;
};

// Every switch off and the log empty at both ends of each test.
class QueueTest : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        recording = false;
        fail_malloc_at = 0;
        fail_mutex_init_at = 0;
        fail_sem_init_at = 0;
        fake_wakeups = 0;
        fail_timed_waits = false;
        vanish_armed = false;
        vanish_mutex = nullptr;
        {
            std::lock_guard<std::mutex> hold(clock_lock);
            clock_script.clear();
        }
        std::lock_guard<std::mutex> hold(log_lock);
        log_entries.clear();
    }
};

using QueueCreate = QueueTest;
using QueueIds = QueueTest;
using QueueRegistry = QueueTest;
using QueueMessages = QueueTest;
using QueueCount = QueueTest;
using QueueRead = QueueTest;
using QueueWrite = QueueTest;
using QueueDelete = QueueTest;
using QueueNames = QueueTest;
using QueueThreads = QueueTest;

// ---- Creation: checks and their order ----------------------------------------------------

TEST_F(QueueCreate, ModeTwoGivesBadModeEvenWhenEveryOtherArgumentIsAlsoBad) {
    uint32_t id = 77;
    start_recording();
    EXPECT_EQ(QEL_QueueCreate(nullptr, 0, nullptr, 2, 0), QEL_QUEUE_CREATE_BAD_MODE);
    EXPECT_EQ(QEL_QueueCreate("q", 4, &id, 2, 8), QEL_QUEUE_CREATE_BAD_MODE);
    EXPECT_EQ(QEL_QueueCreate("q", 4, &id, 0xFFFFFFFFu, 8), QEL_QUEUE_CREATE_BAD_MODE);
    EXPECT_EQ(id, 77u);
    EXPECT_TRUE(events().empty()) << describe();
}

TEST_F(QueueCreate, ZeroMessageLengthIsCheckedAfterTheModeAndBeforeTheRest) {
    start_recording();
    EXPECT_EQ(QEL_QueueCreate(nullptr, 0, nullptr, 1, 0), QEL_QUEUE_CREATE_MSGLEN_ZERO);
    EXPECT_EQ(QEL_QueueCreate(nullptr, 0, nullptr, 0, 0), QEL_QUEUE_CREATE_MSGLEN_ZERO);
    EXPECT_TRUE(events().empty()) << describe();
}

TEST_F(QueueCreate, NullNameIsCheckedBeforeTheIdPlace) {
    start_recording();
    EXPECT_EQ(QEL_QueueCreate(nullptr, 0, nullptr, 1, 1), QEL_QUEUE_CREATE_NULL_NAME);
    EXPECT_TRUE(events().empty()) << describe();
}

TEST_F(QueueCreate, NullIdPlaceGivesNoIdAndMakesNothing) {
    start_recording();
    EXPECT_EQ(QEL_QueueCreate("q", 1, nullptr, 1, 1), QEL_QUEUE_CREATE_NO_ID);
    EXPECT_TRUE(events().empty()) << describe();
    EXPECT_EQ(QEL_QueueGetMsgNum(1), QEL_QUEUE_COUNT_NO_QUEUE) << "no registry was built";
}

TEST_F(QueueCreate, ModesZeroAndOneBothMakeWorkingQueues) {
    uint32_t a = 0, b = 0;
    ASSERT_EQ(QEL_QueueCreate("zero", 2, &a, 0, 8), QEL_QUEUE_OK);
    ASSERT_EQ(QEL_QueueCreate("one", 2, &b, 1, 8), QEL_QUEUE_OK);
    EXPECT_NE(a, b);
    EXPECT_EQ(put(a, "to-a"), QEL_QUEUE_OK);
    EXPECT_EQ(put(b, "to-b"), QEL_QUEUE_OK);
    EXPECT_EQ(take(b).text, "to-b");
    EXPECT_EQ(take(a).text, "to-a");
    EXPECT_EQ(QEL_QueueDelete(a), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(b), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, EmptyNameIsAccepted) {
    uint32_t id = 0;
    CaptureStdout();
    const uint32_t result = QEL_QueueCreate("", 1, &id, 0, 4);
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(result, QEL_QUEUE_OK);
    EXPECT_EQ(put(id, "x"), QEL_QUEUE_OK);
    EXPECT_EQ(take(id).text, "x");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FirstCreationAllocatesAnAnchorOfTheRecordsSizeThenTheRecord) {
    const Made made = create_recorded(3, 16);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 2u) << describe();
    for (const Event &b : blocks) {
        EXPECT_NE(b.ptr, nullptr);
        EXPECT_EQ(b.type, 0u);
        EXPECT_EQ(b.file, kQueueSource);
    }
    EXPECT_EQ(blocks[0].value, blocks[1].value) << "the anchor has the layout of a record";
    // next, id, name[32], four counters, head, tail, the lock and two semaphores
    EXPECT_GE(blocks[1].value, 8 + 4 + 32 + 16 + 16 + sizeof(ZEPO_MUTEX) + 2 * sizeof(ZEPO_SEM));

    // The registry mutex first, then the queue's lock and semaphores, inside the record.
    const auto mutexes = events_of(Call::MutexInit);
    ASSERT_EQ(mutexes.size(), 2u) << describe();
    EXPECT_LT(position_of(Call::Malloc, blocks[0].ptr),
              position_of(Call::MutexInit, mutexes[0].ptr));
    EXPECT_LT(position_of(Call::MutexInit, mutexes[0].ptr),
              position_of(Call::Malloc, blocks[1].ptr));
    const auto sems = events_of(Call::SemInit);
    ASSERT_EQ(sems.size(), 2u) << describe();
    const auto *record = static_cast<const char *>(blocks[1].ptr);
    const auto inside = [&](const void *p, size_t size) {
        const auto *c = static_cast<const char *>(p);
        return c >= record && c + size <= record + blocks[1].value;
    };
    EXPECT_TRUE(inside(mutexes[1].ptr, sizeof(ZEPO_MUTEX)));
    EXPECT_TRUE(inside(sems[0].ptr, sizeof(ZEPO_SEM)));
    EXPECT_TRUE(inside(sems[1].ptr, sizeof(ZEPO_SEM)));
    EXPECT_NE(sems[0].ptr, sems[1].ptr);
    EXPECT_LT(position_of(Call::MutexInit, mutexes[1].ptr),
              position_of(Call::SemInit, sems[0].ptr));
    for (const Event &s : sems) EXPECT_EQ(s.extra, 0u) << "not shared, initial value 0";
    EXPECT_EQ(sem_value(made.readSem), 0);
    EXPECT_EQ(sem_value(made.writeSem), 0);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, LaterCreationAllocatesOnlyTheRecord) {
    const uint32_t first = create(1, 4);
    const Made second = create_recorded(1, 4);
    ASSERT_EQ(second.result, QEL_QUEUE_OK);
    EXPECT_EQ(count_of(Call::Malloc), 1u) << describe();
    EXPECT_EQ(count_of(Call::MutexInit), 1u) << describe();
    EXPECT_EQ(count_of(Call::SemInit), 2u) << describe();
    EXPECT_EQ(QEL_QueueDelete(first), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(second.id), QEL_QUEUE_OK);
}

// ---- Creation: allocation and set-up failures ----------------------------------------------

TEST_F(QueueCreate, FailedAnchorAllocationGivesNoMemoryAndTheNextCreationSucceeds) {
    uint32_t id = 77;
    start_recording();
    fail_malloc_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_NO_MEMORY);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(count_of(Call::Malloc), 1u) << describe();
    EXPECT_EQ(count_of(Call::MutexInit), 0u) << describe();
    EXPECT_EQ(QEL_QueueGetMsgNum(1), QEL_QUEUE_COUNT_NO_QUEUE);

    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    EXPECT_EQ(made.id, 1u) << "the failure took no id";
    EXPECT_EQ(count_of(Call::Malloc), 2u) << "anchor and record: " << describe();
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedRecordAllocationGivesNoMemoryAndReleasesTheRegistryLock) {
    uint32_t id = 77;
    start_recording();
    fail_malloc_at = 2;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_NO_MEMORY);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(count_of(Call::Malloc), 2u) << describe();
    EXPECT_EQ(count_of(Call::MutexInit), 1u) << "the registry mutex only: " << describe();
    EXPECT_EQ(count_of(Call::SemInit), 0u) << describe();

    // Another thread gets the registry lock: it was released.
    start_recording();
    uint32_t next_id = 0;
    Worker other([&next_id] { return QEL_QueueCreate("q", 2, &next_id, 0, 8); });
    ASSERT_EQ(other.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(next_id, 1u) << "the failure took no id";
    EXPECT_EQ(count_of(Call::Malloc), 1u) << "the anchor was kept: " << describe();
    EXPECT_EQ(QEL_QueueDelete(next_id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedRecordAllocationLeavesExistingQueuesAlone) {
    const uint32_t first = create(2, 8);
    ASSERT_EQ(put(first, "kept"), QEL_QUEUE_OK);
    uint32_t id = 77;
    fail_malloc_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_NO_MEMORY);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(QEL_QueueGetMsgNum(first), 1u);
    EXPECT_EQ(take(first).text, "kept");
    EXPECT_EQ(create(2, 8), first + 1);
    EXPECT_EQ(QEL_QueueDelete(first), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(first + 1), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedRegistryMutexFreesTheAnchorAndTheNextCreationBuildsItAgain) {
    uint32_t id = 77;
    start_recording();
    fail_mutex_init_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_CREATE_NO_LOCK);
    EXPECT_EQ(id, 77u);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 1u) << describe();
    const auto freed = events_of(Call::Free);
    ASSERT_EQ(freed.size(), 1u) << describe();
    EXPECT_EQ(freed[0].ptr, blocks[0].ptr) << "the anchor is freed";
    EXPECT_EQ(freed[0].file, kQueueSource);
    EXPECT_EQ(count_of(Call::MutexDestroy), 0u) << "nothing was made to destroy";
    EXPECT_EQ(count_of(Call::SemInit), 0u);

    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    EXPECT_EQ(made.id, 1u);
    EXPECT_EQ(count_of(Call::Malloc), 2u) << "a new anchor and the record: " << describe();
    EXPECT_EQ(count_of(Call::MutexInit), 2u) << describe();
    EXPECT_EQ(put(made.id, "works"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "works");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedQueueLockFreesTheRecordAndReleasesTheRegistryLock) {
    const uint32_t first = create(2, 8);
    uint32_t id = 77;
    start_recording();
    fail_mutex_init_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_CREATE_NO_LOCK);
    EXPECT_EQ(id, 77u);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 1u) << describe();
    const auto freed = events_of(Call::Free);
    ASSERT_EQ(freed.size(), 1u) << describe();
    EXPECT_EQ(freed[0].ptr, blocks[0].ptr) << "the record is freed";
    EXPECT_EQ(count_of(Call::SemInit), 0u) << describe();
    EXPECT_EQ(count_of(Call::MutexDestroy), 0u) << describe();
    EXPECT_EQ(count_of(Call::SemDestroy), 0u) << describe();

    uint32_t next_id = 0;
    Worker other([&next_id] { return QEL_QueueCreate("q", 2, &next_id, 0, 8); });
    ASSERT_EQ(other.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(next_id, first + 1) << "the failure took no id";
    EXPECT_EQ(put(first, "still"), QEL_QUEUE_OK);
    EXPECT_EQ(take(first).text, "still");
    EXPECT_EQ(QEL_QueueDelete(first), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(next_id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedReadSemaphoreDestroysTheLockAndFreesTheRecord) {
    const uint32_t first = create(2, 8);
    uint32_t id = 77;
    start_recording();
    fail_sem_init_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_CREATE_NO_LOCK);
    EXPECT_EQ(id, 77u);
    const auto blocks = events_of(Call::Malloc);
    const auto mutexes = events_of(Call::MutexInit);
    ASSERT_EQ(blocks.size(), 1u) << describe();
    ASSERT_EQ(mutexes.size(), 1u) << describe();
    EXPECT_EQ(count_of(Call::SemInit), 1u) << "writeSem is not tried: " << describe();
    EXPECT_EQ(count_of(Call::SemDestroy), 0u) << describe();
    ASSERT_EQ(count_of(Call::MutexDestroy), 1u) << describe();
    EXPECT_EQ(count_of(Call::MutexDestroy, mutexes[0].ptr), 1u) << describe();
    ASSERT_EQ(count_of(Call::Free), 1u) << describe();
    EXPECT_LT(position_of(Call::MutexDestroy, mutexes[0].ptr),
              position_of(Call::Free, blocks[0].ptr));

    uint32_t next_id = 0;
    Worker other([&next_id] { return QEL_QueueCreate("q", 2, &next_id, 0, 8); });
    ASSERT_EQ(other.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(next_id, first + 1);
    EXPECT_EQ(QEL_QueueDelete(first), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(next_id), QEL_QUEUE_OK);
}

TEST_F(QueueCreate, FailedWriteSemaphoreUndoesTheReadSemaphoreThenTheLockThenFreesTheRecord) {
    const uint32_t first = create(2, 8);
    uint32_t id = 77;
    start_recording();
    fail_sem_init_at = 2;
    EXPECT_EQ(QEL_QueueCreate("q", 2, &id, 0, 8), QEL_QUEUE_CREATE_NO_LOCK);
    EXPECT_EQ(id, 77u);
    const auto blocks = events_of(Call::Malloc);
    const auto mutexes = events_of(Call::MutexInit);
    const auto sems = events_of(Call::SemInit);
    ASSERT_EQ(blocks.size(), 1u) << describe();
    ASSERT_EQ(mutexes.size(), 1u) << describe();
    ASSERT_EQ(sems.size(), 2u) << describe();
    ASSERT_EQ(count_of(Call::SemDestroy), 1u) << describe();
    ASSERT_EQ(count_of(Call::MutexDestroy), 1u) << describe();
    ASSERT_EQ(count_of(Call::Free), 1u) << describe();
    const size_t sem_gone = position_of(Call::SemDestroy, sems[0].ptr);
    const size_t lock_gone = position_of(Call::MutexDestroy, mutexes[0].ptr);
    const size_t record_gone = position_of(Call::Free, blocks[0].ptr);
    ASSERT_NE(sem_gone, std::string::npos) << "the read semaphore is destroyed: " << describe();
    ASSERT_NE(lock_gone, std::string::npos) << describe();
    ASSERT_NE(record_gone, std::string::npos) << describe();
    EXPECT_LT(sem_gone, lock_gone);
    EXPECT_LT(lock_gone, record_gone);

    uint32_t next_id = 0;
    Worker other([&next_id] { return QEL_QueueCreate("q", 2, &next_id, 0, 8); });
    ASSERT_EQ(other.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(next_id, first + 1);
    EXPECT_EQ(QEL_QueueDelete(first), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(next_id), QEL_QUEUE_OK);
}

// ---- Ids and the registry ------------------------------------------------------------------

TEST_F(QueueIds, StartAtOneAndIncrease) {
    EXPECT_EQ(create(1, 1), 1u);
    EXPECT_EQ(create(1, 1), 2u);
    EXPECT_EQ(create(1, 1), 3u);
    for (uint32_t id = 1; id <= 3; ++id) EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueIds, AreNotRestartedAfterTheLastDelete) {
    EXPECT_EQ(create(1, 1), 1u);
    EXPECT_EQ(create(1, 1), 2u);
    EXPECT_EQ(QEL_QueueDelete(1), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(2), QEL_QUEUE_OK);
    EXPECT_EQ(create(1, 1), 3u);
    EXPECT_EQ(QEL_QueueDelete(3), QEL_QUEUE_OK);
}

TEST_F(QueueIds, OfDeletedQueuesAreNotReused) {
    EXPECT_EQ(create(1, 1), 1u);
    EXPECT_EQ(create(1, 1), 2u);
    EXPECT_EQ(create(1, 1), 3u);
    EXPECT_EQ(QEL_QueueDelete(2), QEL_QUEUE_OK);
    EXPECT_EQ(create(1, 1), 4u);
    EXPECT_EQ(QEL_QueueGetMsgNum(2), QEL_QUEUE_COUNT_NO_QUEUE);
    for (uint32_t id : {1u, 3u, 4u}) EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueIds, RefusedAndFailedCreationsTakeNoId) {
    uint32_t id = 0;
    EXPECT_EQ(QEL_QueueCreate("q", 1, &id, 2, 1), QEL_QUEUE_CREATE_BAD_MODE);
    EXPECT_EQ(QEL_QueueCreate("q", 1, &id, 0, 0), QEL_QUEUE_CREATE_MSGLEN_ZERO);
    EXPECT_EQ(QEL_QueueCreate(nullptr, 1, &id, 0, 1), QEL_QUEUE_CREATE_NULL_NAME);
    EXPECT_EQ(QEL_QueueCreate("q", 1, nullptr, 0, 1), QEL_QUEUE_CREATE_NO_ID);
    fail_malloc_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 1, &id, 0, 1), QEL_QUEUE_NO_MEMORY);
    fail_mutex_init_at = 1;
    EXPECT_EQ(QEL_QueueCreate("q", 1, &id, 0, 1), QEL_QUEUE_CREATE_NO_LOCK);
    fail_sem_init_at = 2;
    EXPECT_EQ(QEL_QueueCreate("q", 1, &id, 0, 1), QEL_QUEUE_CREATE_NO_LOCK);
    EXPECT_EQ(create(1, 1), 1u);
    EXPECT_EQ(QEL_QueueDelete(1), QEL_QUEUE_OK);
}

TEST_F(QueueRegistry, LastDeleteFreesTheAnchorThenDestroysTheRegistryMutex) {
    const Made first = create_recorded(1, 4);
    ASSERT_EQ(first.result, QEL_QUEUE_OK);
    const auto blocks = events_of(Call::Malloc);
    const auto mutexes = events_of(Call::MutexInit);
    ASSERT_EQ(blocks.size(), 2u) << describe();
    ASSERT_EQ(mutexes.size(), 2u) << describe();
    const void *anchor = blocks[0].ptr;
    const void *registry = mutexes[0].ptr;
    const uint32_t second = create(1, 4);

    start_recording();
    EXPECT_EQ(QEL_QueueDelete(first.id), QEL_QUEUE_OK);
    EXPECT_EQ(count_of(Call::Free, anchor), 0u) << "other queues remain: " << describe();
    EXPECT_EQ(count_of(Call::MutexDestroy, registry), 0u) << describe();

    start_recording();
    EXPECT_EQ(QEL_QueueDelete(second), QEL_QUEUE_OK);
    const size_t anchor_gone = position_of(Call::Free, anchor);
    const size_t registry_gone = position_of(Call::MutexDestroy, registry);
    ASSERT_NE(anchor_gone, std::string::npos) << describe();
    ASSERT_NE(registry_gone, std::string::npos) << describe();
    EXPECT_LT(anchor_gone, registry_gone);
    EXPECT_EQ(count_of(Call::Free), 2u) << "the record and the anchor: " << describe();

    // Nothing is left to find.
    char buffer[8];
    EXPECT_EQ(QEL_QueueGetMsgNum(second), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueRead(second, 10, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    EXPECT_EQ(QEL_QueueWrite(second, "x", 1, 10), QEL_QUEUE_WRITE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueDelete(second), QEL_QUEUE_DELETE_NO_QUEUE);

    // The next creation builds the registry again.
    const Made again = create_recorded(1, 4);
    ASSERT_EQ(again.result, QEL_QUEUE_OK);
    EXPECT_EQ(again.id, 3u);
    EXPECT_EQ(count_of(Call::Malloc), 2u) << "a new anchor and the record: " << describe();
    EXPECT_EQ(count_of(Call::MutexInit), 2u) << "the registry mutex and the lock: " << describe();
    EXPECT_EQ(put(again.id, "ok"), QEL_QUEUE_OK);
    EXPECT_EQ(take(again.id).text, "ok");
    EXPECT_EQ(QEL_QueueDelete(again.id), QEL_QUEUE_OK);
}

TEST_F(QueueRegistry, RegistryWithoutQueuesFindsNoId) {
    // A failed record allocation leaves a registry that holds no queue.
    uint32_t id = 0;
    fail_malloc_at = 2;
    ASSERT_EQ(QEL_QueueCreate("q", 1, &id, 0, 4), QEL_QUEUE_NO_MEMORY);
    char buffer[4];
    EXPECT_EQ(QEL_QueueGetMsgNum(1), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueRead(1, 10, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    EXPECT_EQ(QEL_QueueWrite(1, "x", 1, 10), QEL_QUEUE_WRITE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueDelete(1), QEL_QUEUE_DELETE_NO_QUEUE);
}

// ---- Messages -----------------------------------------------------------------------------

TEST_F(QueueMessages, AreReadInTheOrderWritten) {
    constexpr uint32_t kCount = 500;
    const uint32_t id = create(kCount, 64);
    std::vector<std::string> sent;
    for (uint32_t i = 0; i < kCount; ++i) {
        std::string text = "m" + std::to_string(i) + ":";
        text.resize(1 + (i * 7) % 64, static_cast<char>('a' + i % 26));
        sent.push_back(text);
        ASSERT_EQ(put(id, text), QEL_QUEUE_OK) << i;
    }
    EXPECT_EQ(QEL_QueueGetMsgNum(id), kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        const Got got = take(id, 64);
        ASSERT_EQ(got.result, sent[i].size()) << i;
        ASSERT_EQ(got.text, sent[i]) << i;
    }
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, WriteOfExactlyMaxLengthSucceedsOneMoreOrZeroIsRefused) {
    const uint32_t id = create(4, 5);
    start_recording();
    EXPECT_EQ(put(id, "12345"), QEL_QUEUE_OK);
    EXPECT_EQ(put(id, "123456"), QEL_QUEUE_WRITE_BAD_LENGTH);
    EXPECT_EQ(QEL_QueueWrite(id, "x", 0, 0), QEL_QUEUE_WRITE_BAD_LENGTH);
    EXPECT_EQ(QEL_QueueWrite(id, "x", 0xFFFFFFFFu, 0), QEL_QUEUE_WRITE_BAD_LENGTH);
    EXPECT_EQ(count_of(Call::Malloc), 2u) << "only the accepted write allocates: " << describe();
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 1u);
    const Got got = take(id, 16);
    EXPECT_EQ(got.result, 5u);
    EXPECT_EQ(got.text, "12345");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, ReadIntoAShorterBufferReturnsTheBufferSizeAndTheRestIsLost) {
    const uint32_t id = create(4, 16);
    ASSERT_EQ(put(id, "abcdefgh"), QEL_QUEUE_OK);
    ASSERT_EQ(put(id, "second"), QEL_QUEUE_OK);
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    CaptureStdout();
    const uint32_t result = QEL_QueueRead(id, 0, buffer, 3);
    EXPECT_EQ(GetCapturedStdout(), "") << "a cut message is not a failure";
    EXPECT_EQ(result, 3u);
    EXPECT_EQ(std::string(buffer, 8), "abc#####");
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 1u);
    const Got next = take(id, 16);
    EXPECT_EQ(next.result, 6u);
    EXPECT_EQ(next.text, "second");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, ReadIntoALargerBufferReturnsTheLengthAndLeavesTheRestOfTheBuffer) {
    const uint32_t id = create(2, 16);
    ASSERT_EQ(put(id, "abc"), QEL_QUEUE_OK);
    ASSERT_EQ(put(id, "exact"), QEL_QUEUE_OK);
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(QEL_QueueRead(id, 0, buffer, sizeof buffer), 3u);
    EXPECT_EQ(std::string(buffer, 8), "abc#####");
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(QEL_QueueRead(id, 0, buffer, 5), 5u) << "a buffer of exactly the length";
    EXPECT_EQ(std::string(buffer, 8), "exact###");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, WriteKeepsAPrivateCopyOfTheMessage) {
    const uint32_t id = create(2, 16);
    char message[] = "original";
    ASSERT_EQ(QEL_QueueWrite(id, message, 8, 0), QEL_QUEUE_OK);
    std::memset(message, 'X', 8);
    EXPECT_EQ(take(id).text, "original");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, LargeMessageRoundTrips) {
    constexpr uint32_t kSize = 1u << 20;
    const uint32_t id = create(1, kSize);
    std::string big(kSize, '\0');
    for (uint32_t i = 0; i < kSize; ++i) big[i] = static_cast<char>(i * 31 + 7);
    ASSERT_EQ(put(id, big), QEL_QUEUE_OK);
    const Got got = take(id, kSize);
    EXPECT_EQ(got.result, kSize);
    EXPECT_TRUE(got.text == big);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, QueuesKeepTheirMessagesApart) {
    const uint32_t a = create(4, 8);
    const uint32_t b = create(4, 8);
    ASSERT_EQ(put(a, "a1"), QEL_QUEUE_OK);
    ASSERT_EQ(put(b, "b1"), QEL_QUEUE_OK);
    ASSERT_EQ(put(a, "a2"), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueGetMsgNum(a), 2u);
    EXPECT_EQ(QEL_QueueGetMsgNum(b), 1u);
    EXPECT_EQ(take(b).text, "b1");
    EXPECT_EQ(take(a).text, "a1");
    EXPECT_EQ(take(a).text, "a2");
    EXPECT_EQ(QEL_QueueDelete(a), QEL_QUEUE_OK);
    EXPECT_EQ(take(b, 8, 20).result, QEL_QUEUE_READ_TIMEOUT) << "b is empty and still there";
    EXPECT_EQ(QEL_QueueDelete(b), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, WriteAllocatesANodeThenExactlyTheMessageLengthAndPostsOneToken) {
    const Made made = create_recorded(4, 32);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    const std::string message = "seventeen bytes!!";
    ASSERT_EQ(put(made.id, message), QEL_QUEUE_OK);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 2u) << describe();
    for (const Event &b : blocks) {
        EXPECT_NE(b.ptr, nullptr);
        EXPECT_EQ(b.type, 0u);
        EXPECT_EQ(b.file, kQueueSource);
    }
    EXPECT_GE(blocks[0].value, 2 * sizeof(void *) + sizeof(uint32_t)) << "next, length, data";
    EXPECT_EQ(blocks[1].value, message.size());
    EXPECT_EQ(std::memcmp(blocks[1].ptr, message.data(), message.size()), 0)
        << "the data block holds the copy";
    EXPECT_EQ(count_of(Call::SemWait) + count_of(Call::SemWaitTimeOut), 0u) << "no wait with room";
    EXPECT_EQ(count_of(Call::RunTime), 0u);
    EXPECT_EQ(count_of(Call::Free), 0u);
    EXPECT_EQ(sem_value(made.readSem), 1) << "one token per message";
    EXPECT_EQ(sem_value(made.writeSem), 0);
    ASSERT_EQ(put(made.id, "x"), QEL_QUEUE_OK);
    EXPECT_EQ(sem_value(made.readSem), 2);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, ReadFreesTheDataThenTheNode) {
    const Made made = create_recorded(4, 32);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    ASSERT_EQ(put(made.id, "payload"), QEL_QUEUE_OK);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 2u) << describe();
    start_recording();
    EXPECT_EQ(take(made.id, 32, 0).text, "payload");
    const auto freed = events_of(Call::Free);
    ASSERT_EQ(freed.size(), 2u) << describe();
    EXPECT_EQ(freed[0].ptr, blocks[1].ptr) << "the data first";
    EXPECT_EQ(freed[1].ptr, blocks[0].ptr) << "then the node";
    for (const Event &f : freed) {
        EXPECT_EQ(f.type, 0u);
        EXPECT_EQ(f.file, kQueueSource);
    }
    EXPECT_EQ(count_of(Call::Malloc), 0u);
    EXPECT_EQ(sem_value(made.readSem), 0);
    EXPECT_EQ(sem_value(made.writeSem), 0) << "the queue was not full";
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, ReadWaitsForItsTokenEvenWhenMessagesAreWaiting) {
    const Made made = create_recorded(4, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "one"), QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "two"), QEL_QUEUE_OK);
    start_recording();
    EXPECT_EQ(take(made.id, 8, 0).text, "one");
    EXPECT_EQ(count_of(Call::SemWait, made.readSem), 1u) << describe();
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 0u) << describe();
    start_recording();
    EXPECT_EQ(take(made.id, 8, 250).text, "two");
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 1u) << describe();
    EXPECT_EQ(waits[0].ptr, made.readSem);
    EXPECT_EQ(waits[0].value, 250u);
    EXPECT_EQ(count_of(Call::SemWait), 0u);
    EXPECT_EQ(count_of(Call::SleepMs), 0u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, ReadFromAFullQueuePostsTheWriteSemaphoreAndTokensAccumulate) {
    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "a"), QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "b"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "a");
    EXPECT_EQ(sem_value(made.writeSem), 1) << "taken from a full queue";
    EXPECT_EQ(take(made.id).text, "b");
    EXPECT_EQ(sem_value(made.writeSem), 1) << "the queue was not full";
    ASSERT_EQ(put(made.id, "c"), QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "d"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "c");
    EXPECT_EQ(sem_value(made.writeSem), 2) << "nobody waited: the tokens pile up";
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, FailedNodeAllocationGivesNoMemoryAndLeavesTheQueueUnchanged) {
    const Made made = create_recorded(4, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "earlier"), QEL_QUEUE_OK);
    start_recording();
    fail_malloc_at = 1;
    EXPECT_EQ(put(made.id, "later"), QEL_QUEUE_NO_MEMORY);
    EXPECT_EQ(count_of(Call::Malloc), 1u) << "no data block without a node: " << describe();
    EXPECT_EQ(count_of(Call::Free), 0u) << describe();
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 1u);
    EXPECT_EQ(sem_value(made.readSem), 1) << "no token for the failed write";
    EXPECT_EQ(take(made.id).text, "earlier");
    EXPECT_EQ(take(made.id, 8, 30).result, QEL_QUEUE_READ_TIMEOUT) << "nothing else came in";
    EXPECT_EQ(put(made.id, "after"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "after");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueMessages, FailedDataAllocationFreesTheNodeAndLeavesTheQueueUnchanged) {
    const Made made = create_recorded(4, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "earlier"), QEL_QUEUE_OK);
    start_recording();
    fail_malloc_at = 2;
    EXPECT_EQ(put(made.id, "later"), QEL_QUEUE_NO_MEMORY);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 2u) << describe();
    EXPECT_EQ(blocks[1].value, 5u);
    const auto freed = events_of(Call::Free);
    ASSERT_EQ(freed.size(), 1u) << describe();
    EXPECT_EQ(freed[0].ptr, blocks[0].ptr) << "the node is freed";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 1u);
    EXPECT_EQ(sem_value(made.readSem), 1) << "no token for the failed write";
    EXPECT_EQ(take(made.id).text, "earlier");
    EXPECT_EQ(take(made.id, 8, 30).result, QEL_QUEUE_READ_TIMEOUT) << "nothing else came in";
    EXPECT_EQ(put(made.id, "after"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "after");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

// ---- Message count -------------------------------------------------------------------------

TEST_F(QueueCount, FollowsWritesAndReads) {
    const uint32_t id = create(3, 4);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    ASSERT_EQ(put(id, "1"), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 1u);
    ASSERT_EQ(put(id, "2"), QEL_QUEUE_OK);
    ASSERT_EQ(put(id, "3"), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 3u);
    EXPECT_EQ(put(id, "4", 10), QEL_QUEUE_WRITE_TIMEOUT);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 3u) << "a full queue holds its capacity";
    EXPECT_EQ(take(id).text, "1");
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 2u);
    EXPECT_EQ(take(id).text, "2");
    EXPECT_EQ(take(id).text, "3");
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueCount, UnknownIdGivesTheNoQueueCodeWhichLooksLikeACount) {
    const uint32_t id = create(2, 4);
    EXPECT_EQ(QEL_QueueGetMsgNum(id + 1), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueGetMsgNum(0), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), QEL_QUEUE_COUNT_NO_QUEUE);
}

TEST_F(QueueCount, WithoutARegistryGivesTheNoQueueCode) {
    EXPECT_EQ(QEL_QueueGetMsgNum(1), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueGetMsgNum(0), QEL_QUEUE_COUNT_NO_QUEUE);
}

// ---- Read: checks, time-outs and the retry path ----------------------------------------------

TEST_F(QueueRead, ZeroBufferSizeIsCheckedFirst) {
    EXPECT_EQ(QEL_QueueRead(9, 0, nullptr, 0), QEL_QUEUE_READ_ZERO_SIZE) << "no registry";
    const uint32_t id = create(1, 4);
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(id + 1, 0, nullptr, 0), QEL_QUEUE_READ_ZERO_SIZE);
    EXPECT_EQ(QEL_QueueRead(id, 0, buffer, 0), QEL_QUEUE_READ_ZERO_SIZE);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, NullBufferIsCheckedBeforeTheQueue) {
    EXPECT_EQ(QEL_QueueRead(9, 0, nullptr, 4), QEL_QUEUE_READ_NULL_BUFFER) << "no registry";
    const uint32_t id = create(1, 4);
    EXPECT_EQ(QEL_QueueRead(id + 1, 0, nullptr, 4), QEL_QUEUE_READ_NULL_BUFFER);
    ASSERT_EQ(put(id, "m"), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueRead(id, 0, nullptr, 4), QEL_QUEUE_READ_NULL_BUFFER);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 1u) << "nothing was taken";
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, UnknownQueueOrNoRegistryGivesNoQueue) {
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(1, 0, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    const uint32_t id = create(1, 4);
    EXPECT_EQ(QEL_QueueRead(id + 1, 0, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    EXPECT_EQ(QEL_QueueRead(0, 0, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    const uint32_t other = create(1, 4);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueRead(id, 0, buffer, sizeof buffer), QEL_QUEUE_READ_NO_QUEUE);
    EXPECT_EQ(QEL_QueueDelete(other), QEL_QUEUE_OK);
}

TEST_F(QueueRead, TimedReadOnAnEmptyQueueTimesOut) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    char buffer[4];
    const auto start = Clock::now();
    EXPECT_EQ(QEL_QueueRead(made.id, 100, buffer, sizeof buffer), QEL_QUEUE_READ_TIMEOUT);
    const long long waited = us_since(start);
    EXPECT_GE(waited, 100000 - 500) << "at least the time-out";
    EXPECT_LT(waited, 5000000);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut, made.readSem), 1u) << describe();
    EXPECT_EQ(count_of(Call::SleepMs), 0u) << "no retry: " << describe();
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

void ignore_signal(int) {}

TEST_F(QueueRead, UntimedReadInterruptedByASignalWaitsAgainAndLeavesNoStrayToken) {
    // A handler without SA_RESTART makes the blocked semaphore wait end with EINTR.
    struct sigaction action = {};
    action.sa_handler = ignore_signal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const uint32_t id = create(4, 16);
    start_recording();
    std::atomic<bool> started{false};
    std::atomic<pthread_t> readerThread{};
    Worker reader([&] {
        readerThread.store(pthread_self());
        started = true;
        return take(id, 16, 0).result;
    });
    ASSERT_TRUE(wait_until([&] { return started.load(); }));
    // Signal until the reader has been back into its wait at least once.
    ASSERT_TRUE(wait_until([&] {
        pthread_kill(readerThread.load(), SIGUSR1);
        return count_of(Call::SemWait) >= 2;
    }));
    ASSERT_EQ(put(id, "abc"), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(3u));
    // No token was made up for the interrupted wait: a timed read of the empty queue
    // expires in its wait rather than after fruitless wake-ups.
    EXPECT_EQ(take(id, 16, 100).result, QEL_QUEUE_READ_TIMEOUT);
}

TEST_F(QueueRead, BufferSizeAboveTheLimitFailsTheTracedCopyAndTheMessageIsLost) {
    const uint32_t id = create(4, 16);
    ASSERT_EQ(put(id, "abc"), QEL_QUEUE_OK);
    char buffer[8];
    memset(buffer, 'Z', sizeof buffer);
    CaptureStdout();
    const uint32_t result = QEL_QueueRead(id, 100, buffer, 0x80000000u);
    const std::string printed = GetCapturedStdout();
    EXPECT_EQ(result, 3u);  // the bytes it would have copied
    EXPECT_TRUE(is_trace_line(printed, 34)) << printed;
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, 'Z'));
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
}

TEST_F(QueueRead, FailedTimedWaitGivesTheTimeOutCodeAtOnce) {
    const uint32_t id = create(2, 4);
    ASSERT_EQ(put(id, "m"), QEL_QUEUE_OK);
    start_recording();
    fail_timed_waits = true;
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(id, 5000, buffer, sizeof buffer), QEL_QUEUE_READ_TIMEOUT);
    fail_timed_waits = false;
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 1u) << describe();
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 1u) << "the message stays";
    EXPECT_EQ(take(id).text, "m");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, StrayTokenOnAnEmptyQueueEndsInTheTimeOutAfterWake) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    post(made.readSem);  // a token without a message
    start_recording();
    char buffer[4];
    const auto start = Clock::now();
    EXPECT_EQ(QEL_QueueRead(made.id, 50, buffer, sizeof buffer), QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE);
    const long long waited = us_since(start);
    // The loop counts whole milliseconds of the run-time clock between reads of it.
    EXPECT_GE(waited, 49000);
    EXPECT_LT(waited, 5000000);
    const auto sleeps = events_of(Call::SleepMs);
    ASSERT_GE(sleeps.size(), 1u) << describe();
    for (const Event &s : sleeps) EXPECT_EQ(s.value, 1u);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut, made.readSem), sleeps.size()) << describe();
    EXPECT_EQ(sem_value(made.readSem), 1) << "the token is handed on each time";
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, FruitlessWakeUpThenAClockJumpGivesTheTimeOutAfterWake) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 1;
    script_clock({1000, 1100});
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(made.id, 100, buffer, sizeof buffer),
              QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE);
    EXPECT_EQ(clock_values_left(), 0u) << "t0 before the wait, t1 after the sleep";
    EXPECT_EQ(count_of(Call::RunTime), 2u) << describe();
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 1u) << describe();
    EXPECT_EQ(waits[0].ptr, made.readSem);
    EXPECT_EQ(waits[0].value, 100u);
    const auto sleeps = events_of(Call::SleepMs);
    ASSERT_EQ(sleeps.size(), 1u) << describe();
    EXPECT_EQ(sleeps[0].value, 1u);
    EXPECT_EQ(sem_value(made.readSem), 1) << "the token it did not take is posted again";
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, FruitlessWakeUpsSubtractTheElapsedTimeFromTheRemainingTime) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 3;
    // 30 ms, then 60 ms (remaining 70), then 10 ms (remaining 10: not greater, so over).
    script_clock({1000, 1030, 2000, 2060, 3000, 3010});
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(made.id, 100, buffer, sizeof buffer),
              QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE);
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 3u) << describe();
    EXPECT_EQ(waits[0].value, 100u);
    EXPECT_EQ(waits[1].value, 70u);
    EXPECT_EQ(waits[2].value, 10u);
    EXPECT_EQ(count_of(Call::SleepMs), 3u) << describe();
    EXPECT_EQ(clock_values_left(), 0u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, WrappedClockEndsTheWaitAfterAFruitlessWakeUp) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 1;
    script_clock({0xFFFFFFF0u, 5});  // t0 > t1, although t1 - t0 is only 21 ms modulo 2^32
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(made.id, 1000, buffer, sizeof buffer),
              QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 1u) << describe();
    EXPECT_EQ(count_of(Call::SleepMs), 1u) << describe();
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, FruitlessWakeUpWithTimeLeftWaitsAgainAndTakesTheMessage) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 1;
    script_clock({1000, 1001});
    Worker reader([&made] {
        char buffer[4] = {};
        const uint32_t n = QEL_QueueRead(made.id, 10000, buffer, sizeof buffer);
        return n == 3 && std::memcmp(buffer, "msg", 3) == 0 ? 0u : n;
    });
    ASSERT_TRUE(wait_until([] { return count_of(Call::SleepMs) >= 1; })) << describe();
    ASSERT_EQ(put(made.id, "msg", 0), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(0u)) << "got the message";
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_GE(waits.size(), 2u) << describe();
    EXPECT_EQ(waits[1].value, 9999u) << "the remaining time";
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueRead, UntimedReaderWithAStrayTokenPollsEveryMillisecondUntilAWrite) {
    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    post(made.readSem);  // a token without a message
    start_recording();
    std::atomic<bool> written{false};
    Worker reader([&] {
        char buffer[8] = {};
        const uint32_t n = QEL_QueueRead(made.id, 0, buffer, sizeof buffer);
        if (!written.load()) return 0xBADu;
        return n == 4 && std::memcmp(buffer, "late", 4) == 0 ? 0u : n;
    });
    ASSERT_TRUE(wait_until([] { return count_of(Call::SleepMs) >= 3; })) << describe();
    EXPECT_FALSE(reader.done());
    for (const Event &s : events_of(Call::SleepMs)) EXPECT_EQ(s.value, 1u);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 0u);
    written = true;
    ASSERT_EQ(put(made.id, "late"), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(0u));
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 0u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

// ---- Write: checks, time-outs and the retry path ---------------------------------------------

TEST_F(QueueWrite, NullMessageIsCheckedFirst) {
    EXPECT_EQ(QEL_QueueWrite(9, nullptr, 0, 0), QEL_QUEUE_WRITE_NULL_MESSAGE) << "no registry";
    const uint32_t id = create(1, 4);
    EXPECT_EQ(QEL_QueueWrite(id + 1, nullptr, 0, 0), QEL_QUEUE_WRITE_NULL_MESSAGE);
    EXPECT_EQ(QEL_QueueWrite(id, nullptr, 2, 0), QEL_QUEUE_WRITE_NULL_MESSAGE);
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, UnknownQueueIsCheckedBeforeTheLength) {
    EXPECT_EQ(QEL_QueueWrite(1, "x", 0, 0), QEL_QUEUE_WRITE_NO_QUEUE) << "no registry";
    const uint32_t id = create(1, 4);
    EXPECT_EQ(QEL_QueueWrite(id + 1, "x", 0, 0), QEL_QUEUE_WRITE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueWrite(id + 1, "xxxxxxxx", 8, 0), QEL_QUEUE_WRITE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueWrite(id + 1, "x", 1, 0), QEL_QUEUE_WRITE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueWrite(id, "x", 0, 0), QEL_QUEUE_WRITE_BAD_LENGTH);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueWrite(id, "x", 1, 0), QEL_QUEUE_WRITE_NO_QUEUE) << "deleted";
}

TEST_F(QueueWrite, CapacityZeroAcceptsNoMessageAndTimedWriteTimesOut) {
    const Made made = create_recorded(0, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    for (uint32_t timeout : {1u, 60u}) {
        start_recording();
        const auto start = Clock::now();
        EXPECT_EQ(put(made.id, "m", timeout), QEL_QUEUE_WRITE_TIMEOUT) << timeout;
        const long long waited = us_since(start);
        EXPECT_GE(waited, timeout * 1000LL - 500) << timeout;
        EXPECT_LT(waited, 5000000) << timeout;
        EXPECT_EQ(count_of(Call::SemWaitTimeOut, made.writeSem), 1u) << describe();
        EXPECT_EQ(count_of(Call::Malloc), 0u) << describe();
    }
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 0u);
    char buffer[4];
    EXPECT_EQ(QEL_QueueRead(made.id, 10, buffer, sizeof buffer), QEL_QUEUE_READ_TIMEOUT);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, UntimedWriteToACapacityZeroQueueKeepsWaiting) {
    const Made made = create_recorded(0, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    // The writer can never finish; it is left waiting when the process ends (the queue is
    // not deleted under it).
    auto writer = std::make_unique<Worker>([&made] { return put(made.id, "m", 0); });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWait, made.writeSem) >= 1; }))
        << describe();
    std::this_thread::sleep_for(50ms);  // a chance to return wrongly
    EXPECT_FALSE(writer->done());
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 0u);
    EXPECT_EQ(count_of(Call::Malloc), 0u) << describe();
}

TEST_F(QueueWrite, TimedWriteOnAFullQueueTimesOut) {
    const Made made = create_recorded(1, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "in"), QEL_QUEUE_OK);
    start_recording();
    const auto start = Clock::now();
    EXPECT_EQ(put(made.id, "out", 100), QEL_QUEUE_WRITE_TIMEOUT);
    const long long waited = us_since(start);
    EXPECT_GE(waited, 100000 - 500);
    EXPECT_LT(waited, 5000000);
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 1u) << describe();
    EXPECT_EQ(waits[0].ptr, made.writeSem);
    EXPECT_EQ(waits[0].value, 100u);
    EXPECT_EQ(count_of(Call::SleepMs), 0u) << "the wait itself expired: " << describe();
    EXPECT_EQ(count_of(Call::Malloc), 0u);
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 1u);
    EXPECT_EQ(take(made.id).text, "in");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, FailedTimedWaitGivesTheTimeOutCodeAtOnce) {
    const uint32_t id = create(1, 4);
    ASSERT_EQ(put(id, "in"), QEL_QUEUE_OK);
    start_recording();
    fail_timed_waits = true;
    EXPECT_EQ(put(id, "out", 5000), QEL_QUEUE_WRITE_TIMEOUT);
    fail_timed_waits = false;
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 1u) << describe();
    EXPECT_EQ(count_of(Call::SleepMs), 0u) << describe();
    EXPECT_EQ(take(id).text, "in");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, StaleTokenOnAFullQueueEndsInTheTimeOutAfterPolling) {
    const Made made = create_recorded(1, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "a"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "a");  // taken from a full queue: a token nobody waits for
    ASSERT_EQ(put(made.id, "b"), QEL_QUEUE_OK);
    ASSERT_EQ(sem_value(made.writeSem), 1);
    start_recording();
    const auto start = Clock::now();
    EXPECT_EQ(put(made.id, "c", 50), QEL_QUEUE_WRITE_TIMEOUT);
    const long long waited = us_since(start);
    EXPECT_GE(waited, 49000);
    EXPECT_LT(waited, 5000000);
    const auto sleeps = events_of(Call::SleepMs);
    ASSERT_GE(sleeps.size(), 1u) << "the clock test after a fruitless wake-up: " << describe();
    for (const Event &s : sleeps) EXPECT_EQ(s.value, 1u);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut, made.writeSem), sleeps.size()) << describe();
    EXPECT_EQ(sem_value(made.writeSem), 1) << "the token is handed on each time";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 1u);
    EXPECT_EQ(take(made.id).text, "b");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, FruitlessWakeUpThenAClockJumpTimesOut) {
    const Made made = create_recorded(1, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "in"), QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 1;
    script_clock({500, 600});
    EXPECT_EQ(put(made.id, "out", 100), QEL_QUEUE_WRITE_TIMEOUT);
    EXPECT_EQ(clock_values_left(), 0u);
    EXPECT_EQ(count_of(Call::RunTime), 2u) << describe();
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 1u) << describe();
    EXPECT_EQ(waits[0].ptr, made.writeSem);
    EXPECT_EQ(waits[0].value, 100u);
    const auto sleeps = events_of(Call::SleepMs);
    ASSERT_EQ(sleeps.size(), 1u) << describe();
    EXPECT_EQ(sleeps[0].value, 1u);
    EXPECT_EQ(sem_value(made.writeSem), 1) << "the token it did not take is posted again";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 1u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, FruitlessWakeUpsSubtractTheElapsedTimeFromTheRemainingTime) {
    const Made made = create_recorded(1, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "in"), QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 3;
    script_clock({1000, 1030, 2000, 2060, 3000, 3010});
    EXPECT_EQ(put(made.id, "out", 100), QEL_QUEUE_WRITE_TIMEOUT);
    const auto waits = events_of(Call::SemWaitTimeOut);
    ASSERT_EQ(waits.size(), 3u) << describe();
    EXPECT_EQ(waits[0].value, 100u);
    EXPECT_EQ(waits[1].value, 70u);
    EXPECT_EQ(waits[2].value, 10u);
    EXPECT_EQ(count_of(Call::SleepMs), 3u) << describe();
    EXPECT_EQ(clock_values_left(), 0u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, WrappedClockEndsTheWaitAfterAFruitlessWakeUp) {
    const Made made = create_recorded(1, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "in"), QEL_QUEUE_OK);
    start_recording();
    fake_wakeups = 1;
    script_clock({0xFFFFFFFEu, 3});
    EXPECT_EQ(put(made.id, "out", 1000), QEL_QUEUE_WRITE_TIMEOUT);
    EXPECT_EQ(count_of(Call::SemWaitTimeOut), 1u) << describe();
    EXPECT_EQ(count_of(Call::SleepMs), 1u) << describe();
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueWrite, UntimedWriterWithAStaleTokenPollsEveryMillisecondUntilARead) {
    const Made made = create_recorded(1, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "a"), QEL_QUEUE_OK);
    EXPECT_EQ(take(made.id).text, "a");  // leaves a token on the write semaphore
    ASSERT_EQ(put(made.id, "b"), QEL_QUEUE_OK);
    start_recording();
    Worker writer([&made] { return put(made.id, "c", 0); });
    ASSERT_TRUE(wait_until([] { return count_of(Call::SleepMs) >= 3; })) << describe();
    EXPECT_FALSE(writer.done());
    for (const Event &s : events_of(Call::SleepMs)) EXPECT_EQ(s.value, 1u);
    EXPECT_EQ(take(made.id).text, "b");
    EXPECT_EQ(writer.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(take(made.id).text, "c");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

// ---- Delete -------------------------------------------------------------------------------

TEST_F(QueueDelete, UnknownQueueOrNoRegistryGivesNoQueue) {
    EXPECT_EQ(QEL_QueueDelete(1), QEL_QUEUE_DELETE_NO_QUEUE);
    const uint32_t id = create(1, 4);
    EXPECT_EQ(QEL_QueueDelete(id + 1), QEL_QUEUE_DELETE_NO_QUEUE);
    EXPECT_EQ(QEL_QueueDelete(0), QEL_QUEUE_DELETE_NO_QUEUE);
    const uint32_t other = create(1, 4);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_DELETE_NO_QUEUE) << "twice";
    EXPECT_EQ(QEL_QueueDelete(other), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(other), QEL_QUEUE_DELETE_NO_QUEUE) << "twice, no registry";
}

TEST_F(QueueDelete, FreesEveryHeldMessageAndDestroysTheSemaphoresAndTheLock) {
    const uint32_t keeper = create(1, 4);  // keeps the registry
    const Made made = create_recorded(4, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    for (const char *m : {"one", "two", "three"}) ASSERT_EQ(put(made.id, m), QEL_QUEUE_OK);
    const auto blocks = events_of(Call::Malloc);
    ASSERT_EQ(blocks.size(), 6u) << describe();
    start_recording();
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
    const auto freed = events_of(Call::Free);
    ASSERT_EQ(freed.size(), 7u) << "three nodes, three data blocks, the record: " << describe();
    for (size_t i = 0; i < 3; ++i) {
        const size_t data_gone = position_of(Call::Free, blocks[2 * i + 1].ptr);
        const size_t node_gone = position_of(Call::Free, blocks[2 * i].ptr);
        ASSERT_NE(data_gone, std::string::npos) << i << describe();
        ASSERT_NE(node_gone, std::string::npos) << i << describe();
        EXPECT_LT(data_gone, node_gone) << "data, then node: " << i;
    }
    for (const Event &f : freed) EXPECT_EQ(f.file, kQueueSource);
    const size_t record_gone = position_of(Call::Free, made.record);
    ASSERT_NE(record_gone, std::string::npos) << describe();
    EXPECT_EQ(record_gone, events().size() - 1) << "the record last: " << describe();
    EXPECT_EQ(count_of(Call::SemDestroy), 2u) << describe();
    EXPECT_EQ(count_of(Call::SemDestroy, made.readSem), 1u);
    EXPECT_EQ(count_of(Call::SemDestroy, made.writeSem), 1u);
    EXPECT_EQ(count_of(Call::MutexDestroy), 1u) << "the lock, not the registry: " << describe();
    EXPECT_EQ(count_of(Call::MutexDestroy, made.lock), 1u);
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), QEL_QUEUE_COUNT_NO_QUEUE);
    EXPECT_EQ(QEL_QueueDelete(keeper), QEL_QUEUE_OK);
}

TEST_F(QueueDelete, QueueDeletedMeanwhileByAnotherCallGivesVanishedWhenItWasTheLast) {
    const Made made = create_recorded(2, 4);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    const auto mutexes = events_of(Call::MutexInit);
    ASSERT_EQ(mutexes.size(), 2u) << describe();
    vanish_mutex = mutexes[0].ptr;  // the registry mutex
    vanish_queue = made.id;
    vanish_armed = true;
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_DELETE_VANISHED);
    ASSERT_TRUE(vanish_fired.load()) << "the look-up unlocks the registry mutex";
    EXPECT_EQ(vanish_result.load(), QEL_QUEUE_OK) << "the delete in between";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), QEL_QUEUE_COUNT_NO_QUEUE);
    const uint32_t next = create(1, 4);
    EXPECT_EQ(next, made.id + 1);
    EXPECT_EQ(QEL_QueueDelete(next), QEL_QUEUE_OK);
}

TEST_F(QueueDelete, QueueDeletedMeanwhileByAnotherCallGivesVanishedWhileOthersRemain) {
    const Made first = create_recorded(2, 4);
    ASSERT_EQ(first.result, QEL_QUEUE_OK);
    const auto mutexes = events_of(Call::MutexInit);
    ASSERT_EQ(mutexes.size(), 2u) << describe();
    const uint32_t other = create(2, 4);
    ASSERT_EQ(put(other, "kept"), QEL_QUEUE_OK);
    vanish_mutex = mutexes[0].ptr;  // the registry mutex
    vanish_queue = first.id;
    vanish_armed = true;
    EXPECT_EQ(QEL_QueueDelete(first.id), QEL_QUEUE_DELETE_VANISHED);
    ASSERT_TRUE(vanish_fired.load()) << "the look-up unlocks the registry mutex";
    EXPECT_EQ(vanish_result.load(), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueGetMsgNum(first.id), QEL_QUEUE_COUNT_NO_QUEUE);
    // The registry lock was released and the other queue is intact.
    Worker elsewhere([other] { return QEL_QueueGetMsgNum(other); });
    EXPECT_EQ(elsewhere.result(), std::optional<uint32_t>(1u));
    EXPECT_EQ(take(other).text, "kept");
    EXPECT_EQ(QEL_QueueDelete(other), QEL_QUEUE_OK);
}

// ---- Names and printing --------------------------------------------------------------------

TEST_F(QueueNames, NamesOf31And32CharactersAreAcceptedWithoutTrace) {
    const std::string name31(31, 'n');
    const std::string name32(32, 'm');
    uint32_t a = 0, b = 0;
    CaptureStdout();
    const uint32_t ra = QEL_QueueCreate(name31.c_str(), 2, &a, 0, 4);
    const uint32_t rb = QEL_QueueCreate(name32.c_str(), 2, &b, 0, 4);
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(ra, QEL_QUEUE_OK);
    ASSERT_EQ(rb, QEL_QUEUE_OK);
    EXPECT_EQ(put(b, "ok"), QEL_QUEUE_OK);
    EXPECT_EQ(take(b).text, "ok");
    EXPECT_EQ(QEL_QueueDelete(a), QEL_QUEUE_OK);
    EXPECT_EQ(QEL_QueueDelete(b), QEL_QUEUE_OK);
}

TEST_F(QueueNames, LongerNameStillCreatesTheQueueAndPrintsOneTraceLine) {
    const std::string name40(40, 'L');
    uint32_t id = 0;
    CaptureStdout();
    const uint32_t result = QEL_QueueCreate(name40.c_str(), 3, &id, 0, 4);
    const std::string printed = GetCapturedStdout();
    ASSERT_EQ(result, QEL_QUEUE_OK);
    EXPECT_TRUE(is_trace_line(printed, 162)) << printed;
    // Capacity and length limits are intact.
    for (const char *m : {"1", "22", "333"}) EXPECT_EQ(put(id, m), QEL_QUEUE_OK);
    EXPECT_EQ(put(id, "4444", 10), QEL_QUEUE_WRITE_TIMEOUT);
    EXPECT_EQ(put(id, "55555"), QEL_QUEUE_WRITE_BAD_LENGTH);
    EXPECT_EQ(take(id).text, "1");
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

TEST_F(QueueNames, OrdinaryUsePrintsNothing) {
    CaptureStdout();
    uint32_t id = 0;
    const uint32_t created = QEL_QueueCreate("ordinary", 2, &id, 1, 8);
    const uint32_t wrote = put(id, "text");
    const Got got = take(id, 2);
    char buffer[4];
    const uint32_t empty = QEL_QueueRead(id, 5, buffer, sizeof buffer);
    const uint32_t deleted = QEL_QueueDelete(id);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(created, QEL_QUEUE_OK);
    EXPECT_EQ(wrote, QEL_QUEUE_OK);
    EXPECT_EQ(got.result, 2u);
    EXPECT_EQ(empty, QEL_QUEUE_READ_TIMEOUT);
    EXPECT_EQ(deleted, QEL_QUEUE_OK);
}

// ---- Threads -------------------------------------------------------------------------------

TEST_F(QueueThreads, ReaderBlockedWithoutLimitReturnsAsSoonAsAWriterAppends) {
    const Made made = create_recorded(2, 16);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    std::atomic<bool> written{false};
    std::atomic<long long> returned_at_us{0};
    Worker reader([&] {
        char buffer[16] = {};
        const uint32_t n = QEL_QueueRead(made.id, 0, buffer, sizeof buffer);
        returned_at_us =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
                .count();
        if (!written.load()) return 0xEA21u;  // returned before the write
        return n == 5 && std::memcmp(buffer, "hello", 5) == 0 ? 0u : n;
    });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWait, made.readSem) >= 1; }))
        << describe();
    std::this_thread::sleep_for(20ms);  // a chance to return wrongly
    EXPECT_FALSE(reader.done());
    written = true;
    const auto write_time = Clock::now();
    ASSERT_EQ(put(made.id, "hello"), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(0u));
    const long long latency =
        returned_at_us.load() -
        std::chrono::duration_cast<std::chrono::microseconds>(write_time.time_since_epoch())
            .count();
    EXPECT_LT(latency, 5000000);
    EXPECT_EQ(count_of(Call::SleepMs), 0u) << "woken by the token, not by polling";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 0u);
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueThreads, TimedReaderGetsTheMessageWrittenWhileItWaits) {
    const Made made = create_recorded(2, 16);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    std::atomic<bool> written{false};
    Worker reader([&] {
        char buffer[16] = {};
        const uint32_t n = QEL_QueueRead(made.id, 20000, buffer, sizeof buffer);
        if (!written.load()) return 0xEA21u;
        return n == 3 && std::memcmp(buffer, "abc", 3) == 0 ? 0u : n;
    });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWaitTimeOut, made.readSem) >= 1; }))
        << describe();
    EXPECT_FALSE(reader.done());
    written = true;
    ASSERT_EQ(put(made.id, "abc"), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(0u));
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueThreads, WriterBlockedOnAFullQueueProceedsAfterOneRead) {
    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "a"), QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "b"), QEL_QUEUE_OK);
    start_recording();
    std::atomic<bool> read_one{false};
    Worker writer([&] {
        const uint32_t r = put(made.id, "c", 0);
        return read_one.load() ? r : 0xEA21u;
    });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWait, made.writeSem) >= 1; }))
        << describe();
    std::this_thread::sleep_for(20ms);  // a chance to return wrongly
    EXPECT_FALSE(writer.done());
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 2u);
    read_one = true;
    EXPECT_EQ(take(made.id).text, "a");
    EXPECT_EQ(writer.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(count_of(Call::SleepMs), 0u) << "woken by the token, not by polling";
    EXPECT_EQ(QEL_QueueGetMsgNum(made.id), 2u);
    EXPECT_EQ(take(made.id).text, "b");
    EXPECT_EQ(take(made.id).text, "c");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueThreads, TimedWriterBlockedOnAFullQueueProceedsAfterOneRead) {
    const Made made = create_recorded(1, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    ASSERT_EQ(put(made.id, "a"), QEL_QUEUE_OK);
    start_recording();
    std::atomic<bool> read_one{false};
    Worker writer([&] {
        const uint32_t r = put(made.id, "b", 20000);
        return read_one.load() ? r : 0xEA21u;
    });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWaitTimeOut, made.writeSem) >= 1; }))
        << describe();
    EXPECT_FALSE(writer.done());
    read_one = true;
    EXPECT_EQ(take(made.id).text, "a");
    EXPECT_EQ(writer.result(), std::optional<uint32_t>(QEL_QUEUE_OK));
    EXPECT_EQ(take(made.id).text, "b");
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

TEST_F(QueueThreads, BlockedReaderHoldsNeitherTheRegistryNorItsQueue) {
    const Made made = create_recorded(2, 8);
    ASSERT_EQ(made.result, QEL_QUEUE_OK);
    start_recording();
    Worker reader([&made] {
        char buffer[8];
        return QEL_QueueRead(made.id, 0, buffer, sizeof buffer);
    });
    ASSERT_TRUE(wait_until([&] { return count_of(Call::SemWait, made.readSem) >= 1; }));
    // Another thread creates, uses and deletes a queue, and counts the blocked one.
    Worker other([&made] {
        uint32_t id = 0;
        if (QEL_QueueCreate("other", 1, &id, 0, 4) != QEL_QUEUE_OK) return 1u;
        if (put(id, "x") != QEL_QUEUE_OK) return 2u;
        if (take(id).text != "x") return 3u;
        if (QEL_QueueDelete(id) != QEL_QUEUE_OK) return 4u;
        if (QEL_QueueGetMsgNum(made.id) != 0u) return 5u;
        return 0u;
    });
    EXPECT_EQ(other.result(), std::optional<uint32_t>(0u));
    EXPECT_FALSE(reader.done());
    ASSERT_EQ(put(made.id, "go"), QEL_QUEUE_OK);
    EXPECT_EQ(reader.result(), std::optional<uint32_t>(2u));
    EXPECT_EQ(QEL_QueueDelete(made.id), QEL_QUEUE_OK);
}

// Four writers and four readers move 100000 messages through a queue of 64: each message
// arrives exactly once, intact, and every reader sees each writer's messages in order.
//
// The writers use a short time-out and try again when it expires.  A read posts the write
// semaphore only when it takes from a full queue, so of several writers blocked on a full
// queue one read wakes one; when the readers drain the queue before that writer fills it
// again, the others stay blocked although there is room, and once every writer waits that
// way nothing fills the queue any more.  A time-out is the caller's way out.
TEST_F(QueueThreads, ManyWritersAndReadersDeliverEveryMessageOnceAndInOrder) {
    constexpr uint32_t kWriters = 4;
    constexpr uint32_t kReaders = 4;
    constexpr uint32_t kPerWriter = 25000;
    constexpr uint32_t kStop = 0xFFFFFFFFu;
    struct Message {
        uint32_t writer;
        uint32_t seq;
        uint32_t check;
    };
    const auto check_of = [](uint32_t writer, uint32_t seq) {
        return (writer * 0x9E3779B1u) ^ (seq * 0x85EBCA6Bu) ^ 0x5A5A5A5Au;
    };
    constexpr uint32_t kRetryMs = 5;
    const uint32_t id = create(64, sizeof(Message));
    std::atomic<uint32_t> time_outs{0};

    std::vector<std::vector<Message>> got(kReaders);
    std::vector<uint32_t> bad_results(kReaders, 0);
    std::vector<uint32_t> write_failures(kWriters, 0);
    const auto start = Clock::now();
    std::vector<std::thread> readers;
    for (uint32_t r = 0; r < kReaders; ++r) {
        got[r].reserve(kWriters * kPerWriter);
        readers.emplace_back([&, r] {
            for (;;) {
                Message m{};
                const uint32_t n = QEL_QueueRead(id, 0, &m, sizeof m);
                if (n != sizeof m) {
                    ++bad_results[r];
                    if (bad_results[r] > 100) return;
                    continue;
                }
                if (m.writer == kStop) return;
                got[r].push_back(m);
            }
        });
    }
    std::vector<std::thread> writers;
    for (uint32_t w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (uint32_t seq = 0; seq < kPerWriter; ++seq) {
                const Message m{w, seq, check_of(w, seq)};
                uint32_t result;
                while ((result = QEL_QueueWrite(id, &m, sizeof m, kRetryMs)) ==
                       QEL_QUEUE_WRITE_TIMEOUT)
                    ++time_outs;
                if (result != QEL_QUEUE_OK) ++write_failures[w];
            }
        });
    }
    for (std::thread &t : writers) t.join();
    for (uint32_t r = 0; r < kReaders; ++r) {
        const Message stop{kStop, 0, 0};
        ASSERT_EQ(QEL_QueueWrite(id, &stop, sizeof stop, 0), QEL_QUEUE_OK);
    }
    for (std::thread &t : readers) t.join();
    const long long elapsed_ms = us_since(start) / 1000;
    RecordProperty("elapsed_ms", std::to_string(elapsed_ms));
    RecordProperty("write_time_outs", std::to_string(time_outs.load()));
    std::printf("[ stress   ] %u messages in %lld ms, %u writes timed out and were repeated\n",
                kWriters * kPerWriter, elapsed_ms, time_outs.load());

    for (uint32_t w = 0; w < kWriters; ++w) EXPECT_EQ(write_failures[w], 0u) << "writer " << w;
    for (uint32_t r = 0; r < kReaders; ++r) EXPECT_EQ(bad_results[r], 0u) << "reader " << r;

    std::vector<std::vector<uint8_t>> seen(kWriters, std::vector<uint8_t>(kPerWriter, 0));
    size_t total = 0, corrupt = 0, out_of_order = 0, duplicates = 0;
    for (uint32_t r = 0; r < kReaders; ++r) {
        std::vector<int64_t> last(kWriters, -1);
        for (const Message &m : got[r]) {
            ++total;
            if (m.writer >= kWriters || m.seq >= kPerWriter ||
                m.check != check_of(m.writer, m.seq)) {
                ++corrupt;
                continue;
            }
            if (static_cast<int64_t>(m.seq) <= last[m.writer]) ++out_of_order;
            last[m.writer] = m.seq;
            if (seen[m.writer][m.seq]++ != 0) ++duplicates;
        }
    }
    size_t missing = 0;
    for (uint32_t w = 0; w < kWriters; ++w)
        missing += static_cast<size_t>(std::count(seen[w].begin(), seen[w].end(), 0));
    EXPECT_EQ(total, size_t{kWriters} * kPerWriter);
    EXPECT_EQ(corrupt, 0u);
    EXPECT_EQ(duplicates, 0u);
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(out_of_order, 0u) << "each reader sees a writer's messages in order";
    EXPECT_EQ(QEL_QueueGetMsgNum(id), 0u);
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}

}  // namespace

TEST(Queue, ReadFailedTellsEveryReadCodeFromAByteCount) {
    for (uint32_t code :
         {QEL_QUEUE_READ_NO_QUEUE, QEL_QUEUE_READ_NULL_BUFFER, QEL_QUEUE_READ_ZERO_SIZE,
          QEL_QUEUE_READ_TIMEOUT, QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE})
        EXPECT_TRUE(QEL_QUEUE_READ_FAILED(code)) << std::hex << code;
    for (uint32_t count : {1u, 4u, 65536u, 0x2004FFFFu, 0x20060000u})
        EXPECT_FALSE(QEL_QUEUE_READ_FAILED(count)) << std::hex << count;
}

TEST(Queue, ReadFailedSeparatesARealReadFromARealTimeOut) {
    uint32_t id = 0;
    ASSERT_EQ(QEL_QueueCreate("read_failed", 2, &id, 0, 16), QEL_QUEUE_OK);
    char buffer[16];
    ASSERT_EQ(QEL_QueueWrite(id, "abc", 3, 0), QEL_QUEUE_OK);
    const uint32_t got = QEL_QueueRead(id, 10, buffer, sizeof buffer);
    EXPECT_EQ(got, 3u);
    EXPECT_FALSE(QEL_QUEUE_READ_FAILED(got));
    EXPECT_TRUE(QEL_QUEUE_READ_FAILED(QEL_QueueRead(id, 10, buffer, sizeof buffer)));
    EXPECT_TRUE(QEL_QUEUE_READ_FAILED(QEL_QueueRead(id + 1000, 10, buffer, sizeof buffer)));
    EXPECT_EQ(QEL_QueueDelete(id), QEL_QUEUE_OK);
}
