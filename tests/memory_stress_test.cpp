// The tracked allocator under pressure: eight threads obtaining, reallocating and releasing
// a million blocks while another thread keeps reading the reports; two threads releasing
// one block at once; reallocation chains side by side; region failures racing successful
// allocations; and the number of live guarded blocks after which the kernel's limit on
// mappings (vm.max_map_count) stops the guard pages from holding.
//
// Who may touch a block.  A block belongs to the thread that holds it in its working set;
// a block handed over goes through a locked queue, and whoever takes it out verifies and
// releases it (never the thread that put it in, so that blocks are also released on
// threads other than their allocator's).  Every block carries a pattern that depends on a
// seed of its own, so that a block that lost its bytes, or got another's, is seen before
// it is released.
//
// Each test runs in a process of its own: the tracked mode is switched on once per
// process and its counters (live count, high-water mark, user total, error log) start at
// zero there.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "memory_harness.h"

namespace {

using namespace mem_test;
using namespace std::chrono_literals;

// ---- Blocks and their patterns ---------------------------------------------------------------

constexpr uint32_t kOrdinary = 4;    // alignment of ordinary, zeroed and reallocated blocks
constexpr uint32_t kAligned = 128;   // alignment of every aligned block
constexpr uint32_t kLargest = 6000;  // "a few KiB": the largest block the tests ask for

// Pattern bytes: the pattern of seed s is the table from byte s on, so blocks of different
// seeds hold different bytes, and filling or checking a block is one memcpy or memcmp
// (which ThreadSanitizer checks as one range instead of byte by byte).
struct PatternTable {
    unsigned char bytes[kLargest + 256];
    unsigned char zeros[kLargest];
    PatternTable() {
        std::minstd_rand rng(20240611);
        for (unsigned char &b : bytes) b = static_cast<unsigned char>(rng() >> 7);
        std::memset(zeros, 0, sizeof zeros);
    }
};

const PatternTable &patterns() {
    static const PatternTable table;
    return table;
}

struct Block {
    void *p = nullptr;
    uint32_t size = 0;
    uint32_t alignment = kOrdinary;
    uint8_t seed = 0;
};

uint32_t rounded(const Block &b) { return layout_of(b.size, b.alignment).rounded; }

void fill(Block &b, uint8_t seed) {
    b.seed = seed;
    std::memcpy(b.p, patterns().bytes + seed, b.size);
}

// Whether the first n bytes of a block still hold its pattern.
bool holds_pattern(const Block &b, uint32_t n) {
    return std::memcmp(b.p, patterns().bytes + b.seed, n) == 0;
}

bool all_zero(const void *p, uint32_t n) { return std::memcmp(p, patterns().zeros, n) == 0; }

// A size from 1 byte to a few KiB, mostly small as the library's own blocks are.
uint32_t mixed_size(std::minstd_rand &rng) {
    const uint32_t pick = rng() % 10;
    if (pick < 6) return 1 + rng() % 128;
    if (pick < 9) return 129 + rng() % 896;
    return 1025 + rng() % (kLargest - 1024);
}

// ---- Counters and reports --------------------------------------------------------------------

struct Stats {
    unsigned count = 0, highWater = 0, limit = 0, userTotal = 0;
};

constexpr const char *kStatsFormat =
    "Current mem record cnt: %u\n\rMax mem record cnt: %u\n\rMax mem record limit : %u\n\r"
    "User malloc mem:   %u (Bytes)\n\r";

bool parse_stats(const char *text, Stats *out) {
    Stats s;
    if (std::sscanf(text, kStatsFormat, &s.count, &s.highWater, &s.limit, &s.userTotal) != 4)
        return false;
    *out = s;
    return true;
}

// The statistics as the report gives them (on the calling thread, through capture).
Stats stats() {
    (void)take_chunks();
    EXPECT_EQ(MemGetMemStats(capture), 0u);
    const std::vector<Chunk> chunks = take_chunks();
    Stats s;
    EXPECT_EQ(chunks.size(), 1u);
    if (!chunks.empty()) {
        EXPECT_TRUE(parse_stats(chunks[0].text.c_str(), &s)) << chunks[0].text;
    }
    return s;
}

// The records of the live blocks by the address handed out, copied in one pass.
std::map<void *, MemRec> records_by_address() {
    MemRec *list = nullptr;
    const uint32_t n = sysMemSortMemInfo(&list, nullptr, 2);
    std::map<void *, MemRec> records;
    for (uint32_t i = 0; i < n; ++i) records[address_of(list[i])] = list[i];
    std::free(list);
    return records;
}

// What the reporting thread saw.  Its output functions do little: they count, and check
// that the texts are the ones expected while blocks come and go.
struct ReportTally {
    std::atomic<unsigned> rounds{0};
    std::atomic<unsigned> statsSeen{0};
    std::atomic<unsigned> statsUnparsed{0};
    std::atomic<unsigned> listingCalls{0};
    std::atomic<unsigned> listingEnds{0};
    std::atomic<unsigned> listingBadLength{0};
    std::atomic<unsigned> scanEnds{0};
    std::atomic<unsigned> scanNotClean{0};  // a damaged block or an error entry was shown
};

ReportTally g_reports;

void stats_output(const char *text, uint32_t length) {
    Stats s;
    g_reports.statsSeen++;
    // The counters are read without the lock: any mix of figures will do, if they parse.
    if (!parse_stats(text, &s) || length != std::strlen(text)) g_reports.statsUnparsed++;
}

void listing_output(const char *text, uint32_t length) {
    g_reports.listingCalls++;
    if (length != std::strlen(text)) g_reports.listingBadLength++;
    if (std::strncmp(text, "\r\nTotal malloc mem: ", 20) == 0) g_reports.listingEnds++;
}

void scan_output(const char *text, uint32_t) {
    unsigned exceptions = 1;
    if (std::sscanf(text, "\n\rCurrent mem exception record cnt:       %u", &exceptions) == 1) {
        g_reports.scanEnds++;
        if (exceptions != 0) g_reports.scanNotClean++;
    } else {
        g_reports.scanNotClean++;  // a chunk of damaged blocks or of the error log
    }
}

// One round of every report, through the engine's own functions.
void report_round(unsigned round) {
    (void)MemGetMemStats(stats_output);
    (void)MemGetMemRec(1, round % 3, "Stress", listing_output);
    (void)MemGetMemScan(scan_output);
    (void)MemSelfCheck();
    g_reports.rounds++;
}

// Runs report rounds on a thread of its own until stopped (at least one whole round).
class Reporter {
public:
    Reporter()
        : thread_([this] {
              unsigned round = 0;
              do report_round(round++);
              while (!stop_.load());
          }) {}
    ~Reporter() { stop(); }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Waits for a condition, polling, for at most the given time.
template <typename Condition>
bool wait_for(Condition condition, std::chrono::milliseconds most) {
    const auto deadline = std::chrono::steady_clock::now() + most;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

// ---- The million blocks ----------------------------------------------------------------------

constexpr int kThreads = 8;
// Blocks each thread holds at most, counting those it handed over that nobody has released
// yet; a reallocation (which holds the old and the new block for a moment) is only made
// below the bound, so the bound holds at every instant.
constexpr uint32_t kWorkingSet = 64;
// Blocks a thread may have waiting in the hand-over queue: it always keeps some of its own
// to release, so no thread ever waits for another.
constexpr uint32_t kMostHandedOver = 16;
// Blocks the main thread holds from before the threads start to after they end.
constexpr uint32_t kMainBlocks = 16;

// The kernel's share of a guard page, one mprotect to make it read-only and one to make it
// writable again, costs about 100 us a block on a virtual machine whose page-table changes
// go through the hypervisor (measured on the build machine: some 75 us for the first and
// 15 us for the second, whatever the number of threads).  With real guard pages for every
// block, a million blocks took 76 to 190 s, and 295 s under the address sanitizer.  So
// the million blocks go through every step of the allocator - records, positions, guard
// words, counters, the calls to protect and unprotect - while the harness counts those
// two calls instead of passing them to the kernel (g_protect.skip), and a second round of
// the same threads, with real guard pages, ends with the working sets whose guard pages
// are checked.  The main thread's blocks have real guard pages throughout.
//
// Blocks obtained in the first round (allocations, zeroed, aligned, reallocations).
// ThreadSanitizer runs every memory access and every lock through its own bookkeeping:
// a million blocks took it 25 s on the two-core build machine under moderate load, and
// twice that is to be expected when the machine is busy, too close to the test's limit of
// 60 s; so that build alone runs 300000 of them (the same mix, threads and bounds, hence
// the same kinds of interleavings).  The plain and address builds run the full million.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kTotalBlocks = 300000;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr uint32_t kTotalBlocks = 300000;
#else
constexpr uint32_t kTotalBlocks = 1000000;
#endif
#else
constexpr uint32_t kTotalBlocks = 1000000;
#endif
constexpr uint32_t kPerThread = kTotalBlocks / kThreads;
static_assert(kPerThread * kThreads == kTotalBlocks);
// Blocks each thread obtains in the second round, with real guard pages.
constexpr uint32_t kGuardedPerThread = 1500;

struct HandedOver {
    Block block;
    int owner;  // the thread that put it in (and counts it in its working set)
};

// The hand-over queue: blocks put in by one thread, released by another.
class HandOver {
public:
    void put(const Block &b, int owner) {
        std::lock_guard<std::mutex> hold(lock_);
        items_.push_back(HandedOver{b, owner});
    }

    // The oldest block that another thread put in.
    bool take_foreign(int self, HandedOver *out) {
        std::lock_guard<std::mutex> hold(lock_);
        for (auto it = items_.begin(); it != items_.end(); ++it) {
            if (it->owner != self) {
                *out = *it;
                items_.erase(it);
                return true;
            }
        }
        return false;
    }

private:
    std::mutex lock_;
    std::deque<HandedOver> items_;
};

struct Shared {
    HandOver queue;
    std::atomic<uint32_t> handedOut[kThreads] = {};  // per owner, waiting or being released
    std::atomic<uint64_t> released{0};               // blocks released, by anyone
    std::atomic<uint64_t> releasedElsewhere{0};      // ... by a thread other than the owner
    std::atomic<uint64_t> failures{0};               // null results, broken patterns, misalignments
    std::atomic<int> firstRoundDone{0};              // threads that have ended the first round
    std::atomic<bool> secondRound{false};  // set by the main thread once guard pages are real
};

struct WorkerResult {
    std::vector<Block> left;  // still live at the end
    uint32_t obtained = 0;
    uint32_t reallocated = 0;
    uint32_t zeroed = 0;
    uint32_t aligned = 0;
    uint32_t handed = 0;
    uint32_t mostHeld = 0;  // the largest number of blocks held at once
};

// Verifies a block taken from the queue and releases it; the owner's share drops after
// the release, so the live count never exceeds the bounds.
void release_handed_over(Shared &shared, const HandedOver &item) {
    if (!holds_pattern(item.block, item.block.size)) shared.failures++;
    ZEPO_MemTypeFreeD(item.block.p, 0, __LINE__, __FILE__);
    shared.released++;
    shared.releasedElsewhere++;
    shared.handedOut[item.owner].fetch_sub(1, std::memory_order_release);
}

// The blocks of one thread and what it does with them: a seeded mix of allocations, zeroed
// and aligned blocks, reallocations, releases and hand-overs, within its working set.
class Worker {
public:
    Worker(int self, Shared &shared, WorkerResult &out)
        : self_(self), shared_(shared), out_(out), rng_(7919u * static_cast<unsigned>(self + 1)) {
        held_.reserve(kWorkingSet);
    }

    // Steps until the thread has obtained quota more blocks.
    void run(uint32_t quota) {
        const uint32_t goal = out_.obtained + quota;
        while (out_.obtained < goal) {
            HandedOver item;
            if (shared_.queue.take_foreign(self_, &item)) release_handed_over(shared_, item);
            const uint32_t live = static_cast<uint32_t>(held_.size()) +
                                  shared_.handedOut[self_].load(std::memory_order_acquire);
            if (!held_.empty() && (live >= kWorkingSet || rng_() % 100 < 45))
                release_one();
            else
                obtain_one();
        }
    }

    // Releases every block held.
    void release_all() {
        for (const Block &b : held_) {
            if (!holds_pattern(b, b.size)) fail();
            ZEPO_MemTypeFreeD(b.p, 0, __LINE__, __FILE__);
            shared_.released++;
        }
        held_.clear();
    }

    // Releases what others handed over while this thread can still help; the main thread
    // releases whatever is left after all have ended.
    void help() {
        HandedOver item;
        while (shared_.queue.take_foreign(self_, &item)) release_handed_over(shared_, item);
    }

    const std::vector<Block> &held() const { return held_; }

private:
    void fail() { shared_.failures++; }

    Block take_held(size_t at) {
        const Block b = held_[at];
        held_[at] = held_.back();
        held_.pop_back();
        return b;
    }

    void release_one() {
        const Block b = take_held(rng_() % held_.size());
        if (!holds_pattern(b, b.size)) fail();
        const uint32_t how = rng_() % 100;
        if (how < 25 && shared_.handedOut[self_].load() < kMostHandedOver) {
            shared_.handedOut[self_].fetch_add(1);
            shared_.queue.put(b, self_);
            out_.handed++;
        } else if (how < 33) {
            // A reallocation to size 0 releases the block and gives nothing back.
            if (MemReAllocMem(__FILE__, __LINE__, b.p, 0) != nullptr) fail();
            shared_.released++;
        } else {
            ZEPO_MemTypeFreeD(b.p, 0, __LINE__, __FILE__);
            shared_.released++;
        }
    }

    // A new block, or a reallocation of a held one.
    void obtain_one() {
        Block b;
        b.size = mixed_size(rng_);
        const uint32_t how = rng_() % 100;
        if (how < 35 && !held_.empty()) {
            const size_t at = rng_() % held_.size();
            const Block old = held_[at];
            b.p = MemReAllocMem(__FILE__, __LINE__, old.p, b.size);
            if (b.p == nullptr) {
                fail();
                return;
            }
            // The smaller of the two sizes is kept, with the old block's pattern.
            b.seed = old.seed;
            if (!holds_pattern(b, std::min(old.size, b.size))) fail();
            (void)take_held(at);
            shared_.released++;
            out_.reallocated++;
        } else if (how < 55) {
            const uint32_t count = 1 + rng_() % 8;
            const uint32_t each = 1 + rng_() % (kLargest / 8);
            b.size = count * each;
            b.p = ZEPO_MemCallocD(count, each, __LINE__, __FILE__);
            if (b.p == nullptr || !all_zero(b.p, b.size)) fail();
            out_.zeroed++;
        } else if (how < 75) {
            static constexpr uint32_t kAsked[] = {16, 64, 128, 4096};
            b.alignment = kAligned;
            b.p = ZEPO_MemAlignD(kAsked[rng_() % 4], b.size, __LINE__, __FILE__);
            if (reinterpret_cast<uintptr_t>(b.p) % kAligned != 0) fail();
            out_.aligned++;
        } else {
            b.p = ZEPO_MemTypeMallocD(b.size, rng_() % 6, __LINE__, __FILE__);
        }
        if (b.p == nullptr) {
            fail();
            return;
        }
        fill(b, static_cast<uint8_t>(rng_()));
        held_.push_back(b);
        out_.obtained++;
        out_.mostHeld = std::max(out_.mostHeld, static_cast<uint32_t>(held_.size()));
    }

    const int self_;
    Shared &shared_;
    WorkerResult &out_;
    std::minstd_rand rng_;
    std::vector<Block> held_;
};

// One thread of the stress test: the first round, a wait for the main thread to make
// guard pages real, then the blocks of the first round released and the second round.
void work(int self, Shared &shared, WorkerResult &out) {
    Worker worker(self, shared, out);
    worker.run(kPerThread);
    shared.firstRoundDone++;
    while (!shared.secondRound.load()) std::this_thread::yield();
    worker.release_all();
    worker.run(kGuardedPerThread);
    worker.help();
    out.left = worker.held();
}

TEST(TrackedStress, EightThreadsKeepCountsGuardsAndBytesOfAMillionBlocks) {
    ASSERT_NO_FATAL_FAILURE(track());
    std::minstd_rand rng(4711);

    // The main thread's blocks, live from before the threads start to the end.
    std::vector<Block> mainBlocks;
    for (uint32_t i = 0; i < kMainBlocks; ++i) {
        Block b;
        b.size = mixed_size(rng);
        b.p = ZEPO_MemTypeMallocD(b.size, 0, __LINE__, __FILE__);
        ASSERT_NE(b.p, nullptr);
        fill(b, static_cast<uint8_t>(i));
        mainBlocks.push_back(b);
    }

    Shared shared;
    std::vector<WorkerResult> results(kThreads);
    const auto started = std::chrono::steady_clock::now();
    double firstRound = 0;
    bool allArrived = false;
    {
        Reporter reporter;
        g_protect.skip = true;  // the first round: protections counted, not made
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back(work, t, std::ref(shared), std::ref(results[t]));
        allArrived = wait_for([&] { return shared.firstRoundDone.load() == kThreads; }, 120s);
        firstRound =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        // No thread is in the allocator now: from here on every guard page is real.
        g_protect.skip = false;
        shared.secondRound = true;
        for (std::thread &t : threads) t.join();
        reporter.stop();
    }
    ASSERT_TRUE(allArrived);
    // Blocks handed over late, by threads that had nobody left to take them: released here,
    // on a thread that did not allocate them either.
    HandedOver item;
    while (shared.queue.take_foreign(-1, &item)) release_handed_over(shared, item);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    uint64_t obtained = 0, reallocated = 0, zeroed = 0, aligned = 0, handed = 0;
    uint32_t mostHeld = 0;
    std::vector<Block> live = mainBlocks;
    for (const WorkerResult &r : results) {
        obtained += r.obtained;
        reallocated += r.reallocated;
        zeroed += r.zeroed;
        aligned += r.aligned;
        handed += r.handed;
        mostHeld = std::max(mostHeld, r.mostHeld);
        live.insert(live.end(), r.left.begin(), r.left.end());
    }
    std::printf("%" PRIu64 " blocks (%" PRIu64 " reallocated, %" PRIu64 " zeroed, %" PRIu64
                " aligned), %" PRIu64
                " released elsewhere, %u report rounds; %.1f s, of which %.1f s "
                "with real guard pages\n",
                obtained, reallocated, zeroed, aligned, shared.releasedElsewhere.load(),
                g_reports.rounds.load(), seconds, seconds - firstRound);

    // What the threads did.
    const uint64_t total = kTotalBlocks + kThreads * kGuardedPerThread;
    EXPECT_EQ(obtained, total);
    EXPECT_EQ(shared.failures.load(), 0u);
    EXPECT_EQ(handed, shared.releasedElsewhere.load());
    EXPECT_GT(shared.releasedElsewhere.load(), total / 1000);
    EXPECT_GT(reallocated, total / 10);
    EXPECT_GT(zeroed, total / 10);
    EXPECT_GT(aligned, total / 10);
    EXPECT_EQ(obtained + kMainBlocks, shared.released.load() + live.size());
    EXPECT_GE(mostHeld, kWorkingSet / 2);
    // Every block had its guard page protected once, and every release unprotected it.
    EXPECT_EQ(g_protect.protects.load(), obtained + kMainBlocks);
    EXPECT_EQ(g_protect.unprotects.load(), shared.released.load());

    // What the reports said meanwhile: texts that parse, no damaged block, no error.
    EXPECT_GE(g_reports.rounds.load(), 1u);
    EXPECT_EQ(g_reports.statsSeen.load(), g_reports.rounds.load());
    EXPECT_EQ(g_reports.statsUnparsed.load(), 0u);
    EXPECT_EQ(g_reports.listingEnds.load(), g_reports.rounds.load());
    EXPECT_GT(g_reports.listingCalls.load(), g_reports.listingEnds.load());
    EXPECT_EQ(g_reports.listingBadLength.load(), 0u);
    EXPECT_EQ(g_reports.scanEnds.load(), g_reports.rounds.load());
    EXPECT_EQ(g_reports.scanNotClean.load(), 0u);

    // The counters agree with the blocks still live.
    uint32_t userTotal = 0;
    for (const Block &b : live) userTotal += rounded(b);
    const Stats end = stats();
    EXPECT_EQ(end.count, live.size());
    EXPECT_EQ(end.userTotal, userTotal);
    EXPECT_EQ(end.limit, 2000000u);
    EXPECT_GE(end.highWater, kMainBlocks + mostHeld);
    EXPECT_LE(end.highWater, kMainBlocks + kThreads * kWorkingSet);
    const std::map<void *, MemRec> records = records_by_address();
    EXPECT_EQ(records.size(), live.size());
    EXPECT_TRUE(error_log().empty());

    // Every live block: its bytes, its record, and a guard page that still holds.
    for (const Block &b : live) {
        EXPECT_TRUE(holds_pattern(b, b.size)) << b.p;
        EXPECT_FALSE(writable(guard_page(b.p, b.size, b.alignment))) << b.p << " " << b.size;
        const auto found = records.find(b.p);
        ASSERT_NE(found, records.end()) << b.p;
        const MemRec &r = found->second;
        EXPECT_EQ(r.size, b.size);
        EXPECT_EQ(r.roundedSize, rounded(b));
        EXPECT_EQ(r.status, 0u);
    }
    MemRec *damaged = nullptr;
    EXPECT_EQ(sysMemScanErrMemInfo(&damaged), 0u);
    std::free(damaged);

    for (const Block &b : live) ZEPO_MemTypeFreeD(b.p, 0, __LINE__, __FILE__);
    const Stats after = stats();
    EXPECT_EQ(after.count, 0u);
    EXPECT_EQ(after.userTotal, 0u);
    EXPECT_EQ(after.highWater, end.highWater);
    EXPECT_EQ(g_protect.unprotects.load(), g_protect.protects.load());
    EXPECT_TRUE(error_log().empty());
}

// ---- Smaller races ---------------------------------------------------------------------------

constexpr uint32_t kFirstLine = 1001;
constexpr uint32_t kSecondLine = 1002;

// The slot word of a released block is read again by the losing release (the allocator
// reads the word before anything is known about the address, as it does for any foreign
// pointer): the region must still be readable memory, which a small block's region of the
// C heap is.
TEST(TrackedStress, BlockReleasedByTwoThreadsAtOnceIsReleasedOnceAndLoggedOnce) {
    ASSERT_NO_FATAL_FAILURE(track());
    constexpr unsigned kRounds = 200;  // within the 600 entries of the error log
    std::atomic<void *> target{nullptr};
    std::atomic<unsigned> round{0};
    std::atomic<unsigned> done{0};
    auto releaser = [&](uint32_t line) {
        for (unsigned r = 1; r <= kRounds; ++r) {
            while (round.load() < r) std::this_thread::yield();
            ZEPO_MemTypeFreeD(target.load(), 0, line, __FILE__);
            done++;
        }
    };
    std::thread first(releaser, kFirstLine);
    std::thread second(releaser, kSecondLine);

    unsigned firstLost = 0, secondLost = 0;
    for (unsigned r = 1; r <= kRounds; ++r) {
        void *p = ZEPO_MemTypeMallocD(100, 0, __LINE__, __FILE__);
        EXPECT_NE(p, nullptr);
        target = p;
        round = r;
        const bool bothDone = wait_for([&] { return done.load() == 2 * r; }, 20s);
        const std::vector<MemRec> log = error_log();
        if (p == nullptr || !bothDone || log.size() != r) {
            ADD_FAILURE() << "round " << r << ": both done " << bothDone << ", " << log.size()
                          << " error entries";
            // The remaining rounds release nothing (a NULL release does nothing).
            target = nullptr;
            round = kRounds;
            break;
        }
        const MemRec &e = log.back();
        EXPECT_EQ(e.base, p);
        EXPECT_EQ(e.size, 0u);
        EXPECT_EQ(e.status, 4u);
        EXPECT_STREQ(e.file, "memory_stress_test.cpp");
        EXPECT_TRUE(e.line == kFirstLine || e.line == kSecondLine) << e.line;
        (e.line == kFirstLine ? firstLost : secondLost)++;
        EXPECT_TRUE(records_by_address().empty()) << "round " << r;
    }
    first.join();
    second.join();
    std::printf("the first thread lost %u rounds, the second %u\n", firstLost, secondLost);
    const Stats s = stats();
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.userTotal, 0u);
    EXPECT_EQ(s.highWater, 1u);
}

// Four threads move their blocks through chains of reallocations at once; each step keeps
// the smaller size's bytes, and the counters see at most one extra block per thread.
TEST(TrackedStress, ReallocationChainsOfFourThreadsKeepTheirBytes) {
    ASSERT_NO_FATAL_FAILURE(track());
    constexpr int kChains = 4;
    constexpr unsigned kSteps = 3000;
    constexpr uint32_t kChainLine = 777;
    struct Chain {
        Block block;
        uint64_t thread = 0;
        unsigned lost = 0;  // steps that failed or did not keep the bytes
    };
    std::vector<Chain> chains(kChains);
    // The chains start from blocks of the main thread, so each first step moves a block
    // that another thread obtained.
    for (int c = 0; c < kChains; ++c) {
        Block &b = chains[c].block;
        b.size = 16;
        b.p = ZEPO_MemTypeMallocD(b.size, 1, __LINE__, __FILE__);
        ASSERT_NE(b.p, nullptr);
        fill(b, static_cast<uint8_t>(c));
    }
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int c = 0; c < kChains; ++c) {
        threads.emplace_back([&, c] {
            Chain &chain = chains[c];
            std::minstd_rand rng(31u + static_cast<unsigned>(c));
            chain.thread = ZEPO_PthreadSelf();
            while (!go.load()) std::this_thread::yield();
            for (unsigned step = 0; step < kSteps; ++step) {
                const Block old = chain.block;
                Block b;
                b.size = mixed_size(rng);
                b.p = MemReAllocMem(__FILE__, kChainLine, old.p, b.size);
                if (b.p == nullptr) {
                    chain.lost++;
                    continue;
                }
                b.seed = old.seed;
                if (!holds_pattern(b, std::min(old.size, b.size))) chain.lost++;
                fill(b, static_cast<uint8_t>(rng()));
                chain.block = b;
            }
        });
    }
    go = true;
    for (std::thread &t : threads) t.join();

    uint32_t userTotal = 0;
    const std::map<void *, MemRec> records = records_by_address();
    for (const Chain &chain : chains) {
        EXPECT_EQ(chain.lost, 0u);
        EXPECT_TRUE(holds_pattern(chain.block, chain.block.size));
        userTotal += rounded(chain.block);
        const auto found = records.find(chain.block.p);
        ASSERT_NE(found, records.end());
        const MemRec &r = found->second;
        EXPECT_EQ(r.thread, chain.thread);
        EXPECT_EQ(r.size, chain.block.size);
        EXPECT_EQ(r.type, 0u);  // a reallocated block is "Dyn", whatever the first was
        EXPECT_EQ(r.line, kChainLine);
        EXPECT_FALSE(writable(guard_page(chain.block.p, chain.block.size)));
    }
    const Stats s = stats();
    EXPECT_EQ(s.count, static_cast<unsigned>(kChains));
    EXPECT_EQ(s.userTotal, userTotal);
    // Each reallocation holds the old and the new block for a moment: one more per thread.
    EXPECT_GT(s.highWater, static_cast<unsigned>(kChains));
    EXPECT_LE(s.highWater, static_cast<unsigned>(2 * kChains));
    EXPECT_TRUE(error_log().empty());

    for (const Chain &chain : chains) ZEPO_MemTypeFreeD(chain.block.p, 0, __LINE__, __FILE__);
    EXPECT_EQ(stats().count, 0u);
    EXPECT_TRUE(error_log().empty());
}

// Region requests fail in bursts while four threads allocate and release: every failure
// is a null result logged with status 8, the successes are unaffected, and only the first
// failure of the process writes the out-of-memory dump.
TEST(TrackedStress, FailuresRacingSuccessesWriteTheOutOfMemoryDumpOnce) {
    ASSERT_NO_FATAL_FAILURE(track());
    constexpr int kWorkers = 4;
    constexpr int kBursts = 10;
    constexpr int kPerBurst = 5;
    constexpr uint32_t kHeld = 16;
    constexpr uint32_t kLine = 4242;
    std::atomic<bool> stop{false};
    std::atomic<unsigned> successes{0};
    std::atomic<unsigned> nulls{0};
    std::vector<std::vector<Block>> held(kWorkers);
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            std::minstd_rand rng(101u + static_cast<unsigned>(w));
            std::vector<Block> &mine = held[w];
            while (!stop.load()) {
                Block b;
                b.size = 1 + rng() % 2000;
                b.p = ZEPO_MemTypeMallocD(b.size, 0, kLine, __FILE__);
                if (b.p == nullptr) {
                    nulls++;
                    continue;
                }
                fill(b, static_cast<uint8_t>(rng()));
                successes++;
                mine.push_back(b);
                if (mine.size() > kHeld) {
                    const Block old = mine.front();
                    mine.erase(mine.begin());
                    EXPECT_TRUE(holds_pattern(old, old.size));
                    ZEPO_MemTypeFreeD(old.p, 0, __LINE__, __FILE__);
                }
            }
        });
    }
    bool burstsDone = true;
    for (int burst = 0; burst < kBursts && burstsDone; ++burst) {
        // Some successes between the bursts, then a burst of failing region requests.
        const unsigned before = successes.load();
        burstsDone = wait_for([&] { return successes.load() >= before + 50; }, 20s);
        if (!burstsDone) break;
        fail_regions(kPerBurst);
        burstsDone = wait_for([] { return g_regions.failNext.load() == 0; }, 20s);
    }
    stop = true;
    for (std::thread &t : threads) t.join();
    ASSERT_TRUE(burstsDone);

    EXPECT_EQ(nulls.load(), static_cast<unsigned>(kBursts * kPerBurst));
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), static_cast<size_t>(kBursts * kPerBurst));
    for (const MemRec &e : log) {
        EXPECT_EQ(e.base, nullptr);
        EXPECT_EQ(e.status, 8u);
        EXPECT_EQ(e.type, kOrdinary);  // the alignment, not the memory type
        EXPECT_EQ(e.line, kLine);
        EXPECT_GE(e.size, 1u);
        EXPECT_LE(e.size, 2000u);
    }
    const std::vector<std::string> opens = data_opens();
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0], "/data/out_of_memery.txt|a+");
    const std::vector<std::string> lines = file_lines(data_path("out_of_memery.txt"));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "\r\n");
    EXPECT_EQ(lines[1].rfind("-------MemInfo ", 0), 0u) << lines[1];

    uint32_t userTotal = 0;
    size_t live = 0;
    for (const std::vector<Block> &mine : held) {
        for (const Block &b : mine) {
            EXPECT_TRUE(holds_pattern(b, b.size));
            EXPECT_FALSE(writable(guard_page(b.p, b.size)));
            userTotal += rounded(b);
            ++live;
        }
    }
    const Stats s = stats();
    EXPECT_EQ(s.count, live);
    EXPECT_EQ(s.userTotal, userTotal);
    for (const std::vector<Block> &mine : held)
        for (const Block &b : mine) ZEPO_MemTypeFreeD(b.p, 0, __LINE__, __FILE__);
    EXPECT_EQ(stats().count, 0u);
    EXPECT_EQ(error_log().size(), static_cast<size_t>(kBursts * kPerBurst));
    EXPECT_EQ(data_opens().size(), 1u);
}

// ---- The kernel's limit on mappings ----------------------------------------------------------

long number_in(const char *path) {
    std::ifstream in(path);
    long n = -1;
    in >> n;
    return n;
}

long mappings() {
    std::ifstream in("/proc/self/maps");
    long n = 0;
    std::string line;
    while (std::getline(in, line)) ++n;
    return n;
}

// Blocks the measurement may keep live at once: each costs two pages of address space and
// about 8 KiB of memory, so a machine whose mapping limit lies beyond this is only shown
// to hold all of them.
constexpr long kMostGuardedBlocks = 100000;

// Each live block splits its region's mapping in three (block, read-only guard page,
// rest), adding about two mappings; once the process has vm.max_map_count of them,
// mprotect fails (ENOMEM) and the guard page of every further block stays writable.  The
// allocator ignores that failure, so the block itself still works.  Aligned blocks of 100
// bytes are used: their tail guard lies in the block's own page, so the guard page is
// never written and the probe sees only what mprotect made of it.
TEST(GuardPageLimit, GuardPagesHoldUntilTheKernelMappingLimit) {
    const long maxMaps = number_in("/proc/sys/vm/max_map_count");
    ASSERT_GT(maxMaps, 0);
    ASSERT_NO_FATAL_FAILURE(track());
    std::vector<void *> blocks;
    blocks.reserve(kMostGuardedBlocks + 16);
    const long before = mappings();
    const long expected = (maxMaps - before) / 2;
    const long most = std::min(expected + 2000, kMostGuardedBlocks);

    // Blocks one by one until a guard page does not hold.  Once the process has all the
    // mappings it may have, nothing else may need a new one (the address sanitizer's
    // allocator, for one, then dies), so the loop allocates nothing but blocks.
    long ceiling = -1;  // blocks whose guard page held before the first that did not
    for (long i = 0; i < most; ++i) {
        void *p = ZEPO_MemAlignD(128, 100, __LINE__, __FILE__);
        ASSERT_NE(p, nullptr) << "block " << i;
        blocks.push_back(p);
        if (writable(guard_page(p, 100, kAligned))) {
            ceiling = i;
            break;
        }
    }

    if (ceiling >= 0) {
        // At the limit.  The earlier blocks keep their guard pages; the block past the
        // limit is still a block, usable and releasable, and nothing is logged.
        const bool firstHolds = !writable(guard_page(blocks.front(), 100, kAligned));
        const bool lastHolds =
            ceiling == 0 || !writable(guard_page(blocks[ceiling - 1], 100, kAligned));
        char *past = static_cast<char *>(blocks.back());
        std::memset(past, 0x5A, 100);
        const long kept = std::count(past, past + 100, 0x5A);
        ZEPO_MemTypeFreeD(past, 0, __LINE__, __FILE__);
        blocks.pop_back();
        // Releasing blocks gives mappings back (two each): then the test may allocate.
        constexpr long kGivenBack = 100;
        const long givenBack = std::min(kGivenBack, ceiling);
        for (long i = 0; i < givenBack; ++i) ZEPO_MemTypeFreeD(blocks[i], 0, __LINE__, __FILE__);
        blocks.erase(blocks.begin(), blocks.begin() + givenBack);

        std::printf(
            "guard pages hold for %ld live blocks (vm.max_map_count %ld, mappings "
            "before %ld)\n",
            ceiling, maxMaps, before);
        RecordProperty("live_guarded_blocks", static_cast<int>(ceiling));
        EXPECT_TRUE(firstHolds);
        EXPECT_TRUE(lastHolds);
        EXPECT_EQ(kept, 100);
        EXPECT_EQ(stats().count, static_cast<unsigned>(ceiling - givenBack));
        EXPECT_TRUE(error_log().empty());
    } else {
        std::printf(
            "guard pages hold for all %ld live blocks tried (vm.max_map_count %ld, "
            "mappings before %ld)\n",
            most, maxMaps, before);
    }
    RecordProperty("max_map_count", static_cast<int>(maxMaps));
    RecordProperty("mappings_before", static_cast<int>(before));

    if (expected <= kMostGuardedBlocks) {
        // Each block adds two mappings to those the process had before (its guard page
        // and the rest of the region's mapping after it); what else the process maps
        // meanwhile (its allocators' growth) lowers the ceiling a little.
        EXPECT_GE(ceiling, expected - expected / 50);
        EXPECT_LE(ceiling, expected + 100);
    } else {
        // A limit beyond what the test may hold: every guard page held.
        EXPECT_EQ(ceiling, -1);
        EXPECT_EQ(static_cast<long>(blocks.size()), most);
    }

    for (void *p : blocks) ZEPO_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    const Stats s = stats();
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.userTotal, 0u);
    EXPECT_TRUE(error_log().empty());
}

}  // namespace
