// Tasklets, the limits of the timer engine and its trace hook.
//
// The tasklet tests use queues of their own, set up with tsklet_init; no driver runs for
// them.  The limit tests start and stop the engine on the scripted clock and look at the
// handle tables it builds.  The trace tests register capturing functions; vsprintf_s, which
// the library reaches through the dynamic linker, is defined here to count the formats
// made.

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "timer_harness.h"

// ---- Counting the formats --------------------------------------------------------------

namespace {
std::atomic<int> formats_made{0};
}

extern "C" int vsprintf_s(char *strDest, size_t destMax, const char *format, va_list argList) {
    using Fn = int (*)(char *, size_t, const char *, va_list);
    static const auto next = qel_test::next_definition<Fn>("vsprintf_s");
    ++formats_made;
    return next(strDest, destMax, format, argList);
}

namespace {

using namespace timer_harness;
using namespace std::chrono_literals;

// ---- Tasklet helpers -------------------------------------------------------------------

std::mutex ran_lock;
std::vector<intptr_t> ran;

void record_task(void *arg) {
    std::lock_guard<std::mutex> hold(ran_lock);
    ran.push_back(reinterpret_cast<intptr_t>(arg));
}

std::vector<intptr_t> take_ran() {
    std::lock_guard<std::mutex> hold(ran_lock);
    std::vector<intptr_t> out;
    out.swap(ran);
    return out;
}

void *tag(intptr_t id) { return reinterpret_cast<void *>(id); }

TaskletEntry *sentinel_of(TaskletQueue &queue) { return reinterpret_cast<TaskletEntry *>(&queue); }

bool queue_is_empty(TaskletQueue &queue) {
    return queue.next == sentinel_of(queue) && queue.prev == sentinel_of(queue);
}

// Runs work on a thread of its own and waits up to limit for it; false when it did not
// finish (a deadlock), the thread is then left behind.
bool finishes_within(std::chrono::milliseconds limit, std::function<void()> work) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([done, work = std::move(work)] {
        work();
        done->set_value();
    }).detach();
    return finished.wait_for(limit) == std::future_status::ready;
}

// A queue of the test's own, set up before and torn down after each test (unless the
// test tore it down itself).
class Tasklets : public ::testing::Test {
protected:
    void SetUp() override {
        take_ran();
        ASSERT_EQ(tsklet_init(&queue), 0);
        baseline = live_blocks();
    }
    void TearDown() override {
        if (!tornDown) {
            EXPECT_EQ(tsklet_delinit(&queue), 0);
        }
    }

    TaskletQueue queue{};
    size_t baseline = 0;
    bool tornDown = false;
};

TEST_F(Tasklets, QueuedFirstRunBeforeQueuedLaterAndNewestFirst) {
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag('A')), 0);
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag('B')), 0);
    ASSERT_EQ(tsklet_invokefirst(&queue, record_task, tag('C')), 0);
    ASSERT_EQ(tsklet_invokefirst(&queue, record_task, tag('D')), 0);
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(take_ran(), (std::vector<intptr_t>{'D', 'C', 'A', 'B'}));
    EXPECT_TRUE(queue_is_empty(queue));
}

TEST_F(Tasklets, InitLeavesAnEmptyListPointingAtTheQueue) {
    EXPECT_TRUE(queue_is_empty(queue));
    TaskletQueue other;
    std::memset(&other, 0x5A, sizeof other);
    ASSERT_EQ(tsklet_init(&other), 0);
    EXPECT_TRUE(queue_is_empty(other));
    EXPECT_EQ(tsklet_delinit(&other), 0);
}

TEST_F(Tasklets, InitGivesTheResultOfTheLockSetUp) {
    TaskletQueue other;
    std::memset(&other, 0x5A, sizeof other);
    fail_mutex_init(1);
    EXPECT_EQ(tsklet_init(&other), EAGAIN);
    EXPECT_TRUE(queue_is_empty(other));
}

TEST_F(Tasklets, EntriesAreLinkedWithTheirFunctionAndArgument) {
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag(1)), 0);
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag(2)), 0);
    EXPECT_EQ(live_blocks(), baseline + 2);
    TaskletEntry *first = queue.next;
    TaskletEntry *last = queue.prev;
    ASSERT_NE(first, sentinel_of(queue));
    ASSERT_NE(first, last);
    EXPECT_EQ(first->pfnTask, record_task);
    EXPECT_EQ(first->arg, tag(1));
    EXPECT_EQ(last->arg, tag(2));
    EXPECT_EQ(first->next, last);
    EXPECT_EQ(last->prev, first);
    EXPECT_EQ(first->prev, sentinel_of(queue));
    EXPECT_EQ(last->next, sentinel_of(queue));

    ASSERT_EQ(tsklet_invokefirst(&queue, record_task, tag(3)), 0);
    EXPECT_EQ(queue.next->arg, tag(3));
    EXPECT_EQ(queue.next->next, first);
    EXPECT_EQ(first->prev, queue.next);
    EXPECT_EQ(queue.prev, last);
}

// What each tasklet of the run below saw while it ran.
struct Observed {
    TaskletQueue *queue = nullptr;
    size_t baseline = 0;
    int total = 0;
    std::vector<size_t> liveDuringCall;
    std::vector<bool> stillFirst;
    std::vector<intptr_t> order;
};
Observed observed;

void observing_task(void *arg) {
    const auto id = reinterpret_cast<intptr_t>(arg);
    observed.order.push_back(id);
    observed.liveDuringCall.push_back(live_blocks());
    // The running entry is still linked, at the head: the ones before it are gone.
    observed.stillFirst.push_back(observed.queue->next->arg == arg);
}

TEST_F(Tasklets, RunCallsEachEntryOnceAndFreesItAfterItsCall) {
    observed = Observed{};
    observed.queue = &queue;
    for (intptr_t id = 1; id <= 4; ++id)
        ASSERT_EQ(tsklet_invokelater(&queue, observing_task, tag(id)), 0);
    EXPECT_EQ(live_blocks(), baseline + 4);
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(observed.order, (std::vector<intptr_t>{1, 2, 3, 4}));
    // Entry k is freed after its call, not before: 4, 3, 2, 1 blocks while they run.
    EXPECT_EQ(observed.liveDuringCall,
              (std::vector<size_t>{baseline + 4, baseline + 3, baseline + 2, baseline + 1}));
    EXPECT_EQ(observed.stillFirst, (std::vector<bool>{true, true, true, true}));
    EXPECT_EQ(live_blocks(), baseline);
    EXPECT_TRUE(queue_is_empty(queue));
    // Nothing left for a second run.
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(observed.order.size(), 4u);
}

TEST_F(Tasklets, RunOfAnEmptyQueueReturnsZero) {
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_TRUE(take_ran().empty());
    EXPECT_TRUE(queue_is_empty(queue));
}

TEST_F(Tasklets, DelinitFreesPendingEntriesWithoutRunningThem) {
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag(1)), 0);
    ASSERT_EQ(tsklet_invokefirst(&queue, record_task, tag(2)), 0);
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag(3)), 0);
    EXPECT_EQ(live_blocks(), baseline + 3);
    EXPECT_EQ(tsklet_delinit(&queue), 0);
    tornDown = true;
    EXPECT_EQ(live_blocks(), baseline);
    EXPECT_TRUE(take_ran().empty());
    EXPECT_TRUE(queue_is_empty(queue));
}

TEST_F(Tasklets, DelinitOfAnEmptyQueueReturnsZero) {
    EXPECT_EQ(tsklet_delinit(&queue), 0);
    tornDown = true;
    EXPECT_EQ(live_blocks(), baseline);
}

TEST_F(Tasklets, QueuingLaterWithoutMemoryQueuesNothing) {
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag(1)), 0);
    const size_t before = live_blocks();
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(tsklet_invokelater(&queue, record_task, tag(2)), 12, ENOMEM);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_EQ(queue.next, queue.prev);
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(take_ran(), std::vector<intptr_t>{1});
}

TEST_F(Tasklets, QueuingFirstWithoutMemoryQueuesNothing) {
    fail_allocation(1);
    EXPECT_SERVICE_FAILS(tsklet_invokefirst(&queue, record_task, tag(2)), 12, ENOMEM);
    EXPECT_EQ(live_blocks(), baseline);
    EXPECT_TRUE(queue_is_empty(queue));
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_TRUE(take_ran().empty());
}

// A tasklet that queues a further entry onto the queue it runs from.
struct Requeue {
    TaskletQueue *queue;
    intptr_t self;
    intptr_t follower;
    bool atHead;
    int result = -1;
};

void requeuing_task(void *arg) {
    auto *r = static_cast<Requeue *>(arg);
    record_task(tag(r->self));
    r->result = r->atHead ? tsklet_invokefirst(r->queue, record_task, tag(r->follower))
                          : tsklet_invokelater(r->queue, record_task, tag(r->follower));
}

TEST_F(Tasklets, EntryQueuedLaterByARunningTaskletRunsAtTheNextRun) {
    // The middle entry and the last entry each queue one at the tail.
    Requeue middle{&queue, 'A', 'X', false};
    Requeue last{&queue, 'B', 'Y', false};
    ASSERT_EQ(tsklet_invokelater(&queue, requeuing_task, &middle), 0);
    ASSERT_EQ(tsklet_invokelater(&queue, requeuing_task, &last), 0);
    int32_t result = -1;
    ASSERT_TRUE(finishes_within(10s, [&] { result = tsklet_invokeall(&queue); }))
        << "a tasklet queuing onto its own queue deadlocked";
    EXPECT_EQ(result, 0);
    EXPECT_EQ(middle.result, 0);
    EXPECT_EQ(last.result, 0);
    EXPECT_EQ(take_ran(), (std::vector<intptr_t>{'A', 'B'}));
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(take_ran(), (std::vector<intptr_t>{'X', 'Y'}));
    EXPECT_EQ(live_blocks(), baseline);
}

TEST_F(Tasklets, EntryQueuedFirstByARunningTaskletRunsAtTheNextRun) {
    Requeue first{&queue, 'A', 'Z', true};
    ASSERT_EQ(tsklet_invokelater(&queue, requeuing_task, &first), 0);
    ASSERT_EQ(tsklet_invokelater(&queue, record_task, tag('B')), 0);
    int32_t result = -1;
    ASSERT_TRUE(finishes_within(10s, [&] { result = tsklet_invokeall(&queue); }))
        << "a tasklet queuing onto its own queue deadlocked";
    EXPECT_EQ(result, 0);
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(take_ran(), (std::vector<intptr_t>{'A', 'B'}));
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(take_ran(), std::vector<intptr_t>{'Z'});
    EXPECT_EQ(live_blocks(), baseline);
}

// A tasklet that holds the run until the test lets it go.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
};
Gate gate;

void gated_task(void *arg) {
    std::unique_lock<std::mutex> hold(gate.lock);
    gate.entered = true;
    gate.changed.notify_all();
    gate.changed.wait(hold, [] { return gate.open; });
    hold.unlock();
    record_task(arg);
}

TEST_F(Tasklets, RunHoldsTheLockAndEntriesQueuedMeanwhileWaitForTheNextRun) {
    ASSERT_EQ(tsklet_invokelater(&queue, gated_task, tag('A')), 0);
    std::thread runner([&] { EXPECT_EQ(tsklet_invokeall(&queue), 0); });
    {
        std::unique_lock<std::mutex> hold(gate.lock);
        ASSERT_TRUE(gate.changed.wait_for(hold, 10s, [] { return gate.entered; }));
    }
    // The runner holds the queue's lock while the tasklet runs.
    const int32_t tried = ZEPO_MutexTryLock(&queue.lock);
    EXPECT_EQ(tried, EBUSY);
    if (tried == 0) ZEPO_MutexUnLock(&queue.lock);

    std::atomic<bool> calling{false};
    std::atomic<bool> returned{false};
    std::thread other([&] {
        calling = true;
        EXPECT_EQ(tsklet_invokelater(&queue, record_task, tag('B')), 0);
        returned = true;
    });
    ASSERT_TRUE(wait_until([&] { return calling.load(); }));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(returned.load()) << "queuing did not wait for the running tasklets";

    {
        std::lock_guard<std::mutex> hold(gate.lock);
        gate.open = true;
        gate.changed.notify_all();
    }
    runner.join();
    other.join();
    EXPECT_TRUE(returned.load());
    EXPECT_EQ(take_ran(), std::vector<intptr_t>{'A'});
    EXPECT_EQ(tsklet_invokeall(&queue), 0);
    EXPECT_EQ(take_ran(), std::vector<intptr_t>{'B'});
}

// ---- Limits ----------------------------------------------------------------------------

uint32_t relative_cells() { return static_cast<uint32_t>(g_pRelTail - g_szRelTimer) + 1; }

uint32_t absolute_cells() { return static_cast<uint32_t>(g_pAbsTail - g_szAbsTimer) + 1; }

void never_called(void *) { ADD_FAILURE() << "a timer fired"; }

// Creates relative timers until the table is full; their count.
uint32_t creatable_relative_timers() {
    uint32_t made = 0;
    while (made < 10000 && petimer_create_reltimer(never_called, 1, 0, nullptr) != nullptr) ++made;
    return made;
}

uint32_t creatable_absolute_timers() {
    uint32_t made = 0;
    while (made < 10000 && petimer_create_abstimer(never_called, 0) != nullptr) ++made;
    return made;
}

TEST(TimerLimits, BothAreTwoThousandAtLoad) {
    EXPECT_EQ(ulMaxAbstmNum, 2000u);
    EXPECT_EQ(ulMaxReltmNum, 2000u);
}

TEST(TimerLimits, SettersChangeTheLimitsWhileStopped) {
    ZEPO_TMRSetMaxReltmNum(17);
    EXPECT_EQ(ulMaxReltmNum, 17u);
    EXPECT_EQ(ulMaxAbstmNum, 2000u);
    ZEPO_TMRSetMaxAbstmNum(23);
    EXPECT_EQ(ulMaxAbstmNum, 23u);
    EXPECT_EQ(ulMaxReltmNum, 17u);
    ZEPO_TMRSetMaxReltmNum(4000000);
    EXPECT_EQ(ulMaxReltmNum, 4000000u);
}

TEST(TimerLimits, TablesHaveTheSizeSetBeforeTheStart) {
    use_scripted_clock();
    ZEPO_TMRSetMaxReltmNum(5);
    ZEPO_TMRSetMaxAbstmNum(4);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    ASSERT_NE(g_szRelTimer, nullptr);
    ASSERT_NE(g_szAbsTimer, nullptr);
    EXPECT_EQ(relative_cells(), 5u);
    EXPECT_EQ(absolute_cells(), 4u);
    EXPECT_EQ(creatable_relative_timers(), 5u);
    EXPECT_EQ(creatable_absolute_timers(), 4u);
    stop_engine();
}

TEST(TimerLimits, SettingWhileRunningIsIgnoredAndAfterARestartTheTablesKeepTheirSize) {
    use_scripted_clock();
    ZEPO_TMRSetMaxReltmNum(5);
    ZEPO_TMRSetMaxAbstmNum(4);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    ZEPO_TMRSetMaxReltmNum(100);
    ZEPO_TMRSetMaxAbstmNum(100);
    EXPECT_EQ(ulMaxReltmNum, 5u);
    EXPECT_EQ(ulMaxAbstmNum, 4u);
    stop_engine();

    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(relative_cells(), 5u);
    EXPECT_EQ(absolute_cells(), 4u);
    EXPECT_EQ(creatable_relative_timers(), 5u);
    EXPECT_EQ(creatable_absolute_timers(), 4u);
    stop_engine();

    // Set while stopped, the new sizes take effect at the next start.
    ZEPO_TMRSetMaxReltmNum(7);
    ZEPO_TMRSetMaxAbstmNum(6);
    EXPECT_EQ(ulMaxReltmNum, 7u);
    EXPECT_EQ(ulMaxAbstmNum, 6u);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(relative_cells(), 7u);
    EXPECT_EQ(absolute_cells(), 6u);
    EXPECT_EQ(creatable_relative_timers(), 7u);
    EXPECT_EQ(creatable_absolute_timers(), 6u);
    stop_engine();
}

TEST(TimerLimits, ZeroRelativeLimitIsAcceptedAndEveryStartThenFails) {
    use_scripted_clock();
    capture_trace();
    const size_t before = live_blocks();
    ZEPO_TMRSetMaxReltmNum(0);
    EXPECT_EQ(ulMaxReltmNum, 0u);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 22);
    EXPECT_EQ(ZEPO_CreateRelTimerM(never_called, 1, __LINE__, "zero"), nullptr);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(never_called, 0), nullptr);
    EXPECT_EQ(ZEPO_StartRelTimer_Simple(10, never_called, nullptr), 22u);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    EXPECT_EQ(live_blocks(), before);
    EXPECT_TRUE(traces().empty());
    // Still stopped: the setter works and a start succeeds again.
    ZEPO_TMRSetMaxReltmNum(3);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(relative_cells(), 3u);
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

TEST(TimerLimits, ZeroAbsoluteLimitIsAcceptedAndEveryStartThenFails) {
    use_scripted_clock();
    const size_t before = live_blocks();
    ZEPO_TMRSetMaxAbstmNum(0);
    EXPECT_EQ(ulMaxAbstmNum, 0u);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 22);
    EXPECT_EQ(ZEPO_CreateAbsTimerM(never_called, 0), nullptr);
    EXPECT_EQ(ZEPO_CreateRelTimerM(never_called, 1, __LINE__, "zero"), nullptr);
    EXPECT_EQ(petimer_getTreadId(), 0u);
    EXPECT_EQ(g_szRelTimer, nullptr);
    EXPECT_EQ(g_szAbsTimer, nullptr);
    EXPECT_EQ(live_blocks(), before);
    ZEPO_TMRSetMaxAbstmNum(2);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(absolute_cells(), 2u);
    stop_engine();
    EXPECT_EQ(live_blocks(), before);
}

// ---- Trace hook --------------------------------------------------------------------------

struct Message {
    std::string text;
    std::array<unsigned char, 512> buffer;
    pthread_t thread;
};

CallLog<Message> messages;

void keep_message(const char *text) {
    Message m;
    m.text = text;
    std::memcpy(m.buffer.data(), text, m.buffer.size());
    m.thread = pthread_self();
    messages.note(m);
}

std::vector<Message> take_messages() { return messages.take(); }

std::atomic<int> other_hook_calls{0};
void other_hook(const char *) { ++other_hook_calls; }

// A format that is not a literal, so that the compiler lets a bad one through.
const char *runtime_format(const char *text) {
    static std::string kept;
    kept = text;
    return kept.c_str();
}

TEST(TimerTrace, WithoutAHookNothingIsFormatted) {
    EXPECT_EQ(g_pfnTimerDebug, nullptr);
    const int before = formats_made.load();
    // Formatting either would crash or fail: neither happens, nothing is formatted.
    const char *unreadable = reinterpret_cast<const char *>(uintptr_t{8});
    zepo_timer_debug("%s", unreadable);
    int ignored = 0;
    zepo_timer_debug(runtime_format("%n"), &ignored);
    zepo_timer_debug(runtime_format("%y"), 1);
    zepo_timer_debug("plain text\n");
    EXPECT_EQ(formats_made.load(), before);
}

TEST(TimerTrace, HookReceivesTheFormattedText) {
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    EXPECT_EQ(g_pfnTimerDebug, keep_message);
    const int before = formats_made.load();
    zepo_timer_debug("timer[%s:%d] takes time %d\n", "poll", 42, 130);
    EXPECT_EQ(formats_made.load(), before + 1);
    const std::vector<Message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "timer[poll:42] takes time 130\n");
    EXPECT_TRUE(pthread_equal(sent[0].thread, pthread_self()));
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, EmptyTextIsNotSent) {
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    const int before = formats_made.load();
    zepo_timer_debug("%s", "");
    zepo_timer_debug("");
    EXPECT_EQ(formats_made.load(), before + 2);
    EXPECT_TRUE(take_messages().empty());
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, TextOf511CharactersIsSentAndOf512IsNot) {
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    const std::string fits(511, 'w');
    zepo_timer_debug("%s", fits.c_str());
    std::vector<Message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, fits);
    EXPECT_EQ(sent[0].buffer[511], 0);

    const std::string tooLong(512, 'w');
    zepo_timer_debug("%s", tooLong.c_str());
    zepo_timer_debug("%s!", fits.c_str());
    EXPECT_TRUE(take_messages().empty());
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, FormatErrorsAreNotSent) {
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    int stored = 77;
    const int before = formats_made.load();
    zepo_timer_debug(runtime_format("count %n"), &stored);
    zepo_timer_debug(runtime_format("year %y"), 2024);
    EXPECT_EQ(formats_made.load(), before + 2);
    EXPECT_TRUE(take_messages().empty());
    EXPECT_EQ(stored, 77);
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, TextArrivesInA512ByteBufferZeroedBeyondIt) {
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    // A long text first, so that a buffer not cleared would still hold its characters.
    zepo_timer_debug("%s", std::string(500, 'x').c_str());
    zepo_timer_debug("ab%d", 7);
    const std::vector<Message> sent = take_messages();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].text, "ab7");
    for (size_t i = 3; i < sent[1].buffer.size(); ++i)
        ASSERT_EQ(sent[1].buffer[i], 0) << "byte " << i << " after the text";
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, RegisteringReplacesTheHookAndNullSwitchesTracingOff) {
    take_messages();
    other_hook_calls = 0;
    ZEPO_TimerRegDebugTrace(other_hook);
    zepo_timer_debug("one\n");
    EXPECT_EQ(other_hook_calls.load(), 1);

    ZEPO_TimerRegDebugTrace(keep_message);
    EXPECT_EQ(g_pfnTimerDebug, keep_message);
    zepo_timer_debug("two\n");
    EXPECT_EQ(other_hook_calls.load(), 1);
    const std::vector<Message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "two\n");

    ZEPO_TimerRegDebugTrace(nullptr);
    EXPECT_EQ(g_pfnTimerDebug, nullptr);
    const int before = formats_made.load();
    zepo_timer_debug("three\n");
    EXPECT_EQ(formats_made.load(), before);
    EXPECT_TRUE(take_messages().empty());
    EXPECT_EQ(other_hook_calls.load(), 1);
}

TEST(TimerTrace, SuccessfulStartSendsTheInitialisationMessageOnceOnTheStartingThread) {
    use_scripted_clock();
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    std::vector<Message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "Timer initialize success.\n");
    EXPECT_TRUE(pthread_equal(sent[0].thread, pthread_self()));

    // A start while the engine runs sends nothing.
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(petimer_start(nullptr, nullptr), 0);
    wait_parked();
    EXPECT_TRUE(take_messages().empty());
    stop_engine();
    EXPECT_TRUE(take_messages().empty());

    // A new start after a stop sends it again.
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "Timer initialize success.\n");
    stop_engine();
    ZEPO_TimerRegDebugTrace(nullptr);
}

TEST(TimerTrace, FailedStartSendsNothing) {
    use_scripted_clock();
    take_messages();
    ZEPO_TimerRegDebugTrace(keep_message);
    fail_thread_create(EAGAIN);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), EAGAIN);
    fail_thread_create(0);
    EXPECT_TRUE(take_messages().empty());
    ZEPO_TMRSetMaxReltmNum(0);
    EXPECT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 22);
    EXPECT_TRUE(take_messages().empty());
    ZEPO_TMRSetMaxReltmNum(2000);
    ASSERT_EQ(ZEPO_StartTimerTask(nullptr, nullptr), 0);
    EXPECT_EQ(take_messages().size(), 1u);
    stop_engine();
    ZEPO_TimerRegDebugTrace(nullptr);
}

}  // namespace
