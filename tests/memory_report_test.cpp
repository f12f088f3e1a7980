// Tests of the tracked allocator's reports: the statistics, the listings of live blocks, the
// scan with the error log, the self-check, the dump files, the report wrappers and the text
// primitives under them.  Texts are compared byte for byte, together with the lengths that
// reach the output function.
//
// Each test runs in its own process; a test of the tracked mode switches it on once with
// track(), so the counters and the error log start empty.  The dump files of "/data" go to a
// folder of the process (memory_harness.h) unless a test holds RealData.

#include "memory_harness.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <memory>
#include <set>
#include <thread>

namespace {

using namespace mem_test;

// ---- Expected texts ------------------------------------------------------------------------

const char *const kStatusNames[] = {"Good",   "Down",   "Up",    "Updown",  "Nofound", "Fix",
                                    "Invaid", "Length", "NoMem", "Realloc", "Realloc", "InvaidMem"};
const char *const kTypeNames[] = {"Dyn", "Fixed", "Cache", "Aln", "SD", "IS"};

const char *status_name(uint32_t status) { return status < 12 ? kStatusNames[status] : "Unknown"; }
const char *type_name(uint32_t type) { return type < 6 ? kTypeNames[type] : "Unknown"; }

std::string format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *pattern, ...) {
    char text[1024];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

std::string listing_end(uint32_t records, uint32_t bytes) {
    return format("\r\nTotal malloc mem: %u\r\nThis User malloc mem : %u (bytes)\r\n", records,
                  bytes);
}

std::string scan_end(uint32_t count) {
    return format(
        "\n\rCurrent mem exception record cnt:       %u\n\rError info ID introduction:\n\r1: down "
        "overflow 2: up overflow 3: down/up overflow 4: release mem addr not from malloc 5: "
        "release local mem addr\n\r6: release err mem of mem space 7: malloc erro size mem 8: "
        "malloc mem fail\n\r9: realloc err params\t  10: search ReAlloc old buffer fail\n\r",
        count);
}

const char *const kSaved = "Save to /data/mem_rec.txt";

// The line a listing prints for a record.
std::string line_of(const MemRec &r) {
    return listing_line(r.position, address_of(r), r.size, r.line, type_name(r.type),
                        status_name(r.status), static_cast<uint32_t>(r.thread));
}

// A chunk as a listing or a scan outputs it: the header, then a line per record.
std::string chunk_of(const std::vector<MemRec> &records, size_t first, size_t n) {
    std::string text = kHeader;
    for (size_t i = first; i < first + n; ++i) text += line_of(records[i]);
    return text;
}

// The dump file of the given tables.
std::string dump_of(const std::vector<MemRec> &live, const std::vector<MemRec> &errors) {
    std::string text = format("\r\n-------MemInfo %u----\r\n", static_cast<unsigned>(live.size()));
    text += kHeader;
    for (const MemRec &r : live) text += line_of(r);
    text += format("\r\n-------ErrMem %u----\r\n", static_cast<unsigned>(errors.size()));
    text += kHeader;
    for (const MemRec &r : errors) text += line_of(r);
    return text;
}

// A call of the output function carries the text and the length of what was appended.
void expect_chunk(const Chunk &chunk, const std::string &text) {
    EXPECT_EQ(chunk.text, text);
    EXPECT_EQ(chunk.length, text.size());
}

uint32_t rounded_total(const std::vector<MemRec> &records) {
    uint32_t total = 0;
    for (const MemRec &r : records) total += r.roundedSize;
    return total;
}

uint32_t my_thread() { return static_cast<uint32_t>(ZEPO_PthreadSelf()); }

// ---- Blocks --------------------------------------------------------------------------------

const char *const kFile = "tests/report/reports.c";
const char *const kFileName = "reports.c";

void *block(uint32_t size, uint32_t line = 100, const char *file = kFile) {
    void *p = ZEPO_MemTypeMallocD(size, 0, line, file);
    EXPECT_NE(p, nullptr);
    return p;
}

void release(void *p) { ZEPO_MemTypeFreeD(p, 0, 900, kFile); }

// Overwrites the first byte of a block's tail guard (inside the block for a size that is
// not a multiple of 4) or the last byte of its head guard.
void damage_tail(void *p, uint32_t size) { static_cast<unsigned char *>(p)[size] ^= 0xFF; }
void damage_head(void *p) { static_cast<unsigned char *>(p)[-1] ^= 0xFF; }

void set_slot_word(void *p, uint32_t slot) {
    std::memcpy(static_cast<char *>(p) - 8, &slot, sizeof slot);
}

// ---- An output function that allocates on another thread ------------------------------------

// Each call starts a thread that allocates and releases a tracked block and waits (10 s at
// most) for it: were an allocator lock held around the call, the thread could not finish.
struct LockProbe {
    std::mutex lock;
    unsigned calls = 0;
    unsigned finished = 0;
    std::vector<std::thread> stuck;
};

LockProbe g_probe;

void probing_output(const char *text, uint32_t length) {
    capture(text, length);
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread other([done] {
        void *p = ZEPO_MemTypeMallocD(24, 0, 31, "probe.c");
        ZEPO_MemTypeFreeD(p, 0, 32, "probe.c");
        *done = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!*done && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::lock_guard<std::mutex> hold(g_probe.lock);
    g_probe.calls++;
    if (*done) {
        g_probe.finished++;
        other.join();
    } else {
        g_probe.stuck.push_back(std::move(other));
    }
}

// Joins the threads that could not finish during their call (they finish once the report
// lets go of its lock) and gives the number of calls.
unsigned probe_calls_all_free() {
    std::lock_guard<std::mutex> hold(g_probe.lock);
    for (std::thread &t : g_probe.stuck) t.join();
    EXPECT_TRUE(g_probe.stuck.empty()) << g_probe.stuck.size() << " calls ran under a lock";
    EXPECT_EQ(g_probe.finished, g_probe.calls);
    const unsigned calls = g_probe.calls;
    g_probe.calls = 0;
    g_probe.finished = 0;
    g_probe.stuck.clear();
    return calls;
}

}  // namespace

// ============================================================================================
// The report wrappers
// ============================================================================================

TEST(MemReport, WrappersBeforeTheTrackedModeGiveOneAndCallNothing) {
    EXPECT_EQ(ZEPO_MemGetMemStatus(capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemRec(1, 1, "x", capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemScan(capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemStatus(nullptr), 1u);
    EXPECT_EQ(ZEPO_MemGetMemScan(nullptr), 1u);
    EXPECT_TRUE(take_chunks().empty());
    EXPECT_TRUE(data_opens().empty());
    EXPECT_EQ(g_regions.calls, 0u);
}

TEST(MemReport, StatusWrapperForwardsToTheStatistics) {
    track();
    void *p = block(10);
    ASSERT_EQ(ZEPO_MemGetMemStatus(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], statistics(1, 1, 12));
    release(p);
}

TEST(MemReport, RecWrapperForwardsToTheListing) {
    track();
    void *p = block(10);
    ASSERT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + line_of(record(p)));
    expect_chunk(chunks[1], listing_end(1, 12));
}

TEST(MemReport, ScanWrapperForwardsToTheScan) {
    track();
    sysMemLogMemErr(reinterpret_cast<void *>(0x5000), 7, "logged.c", 12, 0, 4);
    ASSERT_EQ(ZEPO_MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + listing_line(0, reinterpret_cast<void *>(0x5000), 7, 12,
                                                   "Dyn", "Nofound", 0));
    expect_chunk(chunks[1], scan_end(1));
}

TEST(MemReport, MonitorWrapperForwardsToTheMonitor) {
    track();
    ASSERT_EQ(ZEPO_MemGetMemoryUseMonitor(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], kSaved);
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/mem_rec.txt|a+"});
}

TEST(MemReport, NullOutputFunctionIsRefusedAndNothingRuns) {
    track();
    void *p = block(3);
    damage_tail(p, 3);  // a check would store "Down"
    EXPECT_EQ(ZEPO_MemGetMemStatus(nullptr), 4294967295u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, nullptr), 4294967295u);
    EXPECT_EQ(ZEPO_MemGetMemScan(nullptr), 4294967295u);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(nullptr), 4294967295u);
    EXPECT_EQ(MemGetMemStats(nullptr), 4294967295u);
    EXPECT_EQ(MemGetMemRec(1, 1, "reports", nullptr), 4294967295u);
    EXPECT_EQ(MemGetMemScan(nullptr), 4294967295u);
    EXPECT_EQ(MemGetMemoryUseMonitor(nullptr), 4294967295u);
    EXPECT_TRUE(data_opens().empty());  // no dump
    EXPECT_EQ(record(p).status, 0u);    // neither the scan nor the self-check ran
    EXPECT_TRUE(error_log().empty());
}

// ============================================================================================
// Statistics
// ============================================================================================

TEST(MemReport, StatisticsOfNothingLiveAreExact) {
    track();
    ASSERT_EQ(MemGetMemStats(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    const std::string text =
        "Current mem record cnt: 0\n\rMax mem record cnt: 0\n\rMax mem record limit : "
        "2000000\n\rUser malloc mem:   0 (Bytes)\n\r";
    expect_chunk(chunks[0], text);
    EXPECT_EQ(chunks[0].length, 112u);
}

TEST(MemReport, StatisticsCountLiveBlocksHighWaterMarkAndRoundedBytes) {
    track();
    void *a = block(3);                              // 4
    void *b = block(100);                            // 100
    void *c = block(5);                              // 8
    void *d = ZEPO_MemAlignD(4096, 10, 200, kFile);  // 128
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(MemGetMemStats(capture), 0u);
    release(b);
    ASSERT_EQ(MemGetMemStats(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0],
                 "Current mem record cnt: 4\n\rMax mem record cnt: 4\n\rMax mem record limit : "
                 "2000000\n\rUser malloc mem:   240 (Bytes)\n\r");
    expect_chunk(chunks[1], statistics(3, 4, 140));
    release(a);
    release(c);
    release(d);
}

TEST(MemReport, StatisticsUserTotalIsTheSumOfRoundedSizesOfLiveRecords) {
    track();
    std::vector<void *> blocks;
    for (uint32_t size = 1; size <= 30; ++size) blocks.push_back(block(size * 7));
    for (size_t i = 0; i < blocks.size(); i += 3) release(blocks[i]);
    const auto live = live_records();
    ASSERT_EQ(live.size(), 20u);
    ASSERT_EQ(MemGetMemStats(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], statistics(20, 30, rounded_total(live)));
}

// ============================================================================================
// Listings
// ============================================================================================

TEST(MemReport, ListingOfNothingIsOneCallWithZeroAndZero) {
    track();
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], "\r\nTotal malloc mem: 0\r\nThis User malloc mem : 0 (bytes)\r\n");
    EXPECT_EQ(chunks[0].length, 57u);
}

TEST(MemReport, FortyNineBlocksAreListedInChunksOf24And24And1ThenTheEnd) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 52; ++i) blocks.push_back(block(i * 5 + 1, 1000 + i));
    // Releases move the last live entries into the freed positions.
    release(blocks[3]);
    release(blocks[17]);
    release(blocks[40]);
    const auto live = live_records();
    ASSERT_EQ(live.size(), 49u);
    ASSERT_EQ(MemGetMemRec(0, 2, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 4u);
    expect_chunk(chunks[0], chunk_of(live, 0, 24));
    expect_chunk(chunks[1], chunk_of(live, 24, 24));
    expect_chunk(chunks[2], chunk_of(live, 48, 1));
    expect_chunk(chunks[3], listing_end(49, rounded_total(live)));
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(chunks[i].text.rfind(kHeader, 0), 0u) << i;
    EXPECT_EQ(chunks[2].length, std::strlen(kHeader) + line_of(live[48]).size());
}

TEST(MemReport, TwentyFourBlocksFillOneChunk) {
    track();
    for (uint32_t i = 0; i < 24; ++i) block(8);
    const auto live = live_records();
    ASSERT_EQ(MemGetMemRec(0, 5, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], chunk_of(live, 0, 24));
    expect_chunk(chunks[1], listing_end(24, 24 * 8));
}

TEST(MemReport, ListingLineHasTheColumnsOfTheHeader) {
    track();
    char *p = static_cast<char *>(block(100, 4321));
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    char address[32];
    std::snprintf(address, sizeof address, "%-13p", static_cast<void *>(p));
    const std::string line = std::string("0        ") + address +
                             " 100        4321  Dyn    Good      " + std::to_string(my_thread()) +
                             "\r\n";
    expect_chunk(
        chunks[0],
        "\r\nRecID    Address       Length     Line File                            Type   "
        "Status     Thread\r\n" +
            line);
    expect_chunk(chunks[1], listing_end(1, 100));
}

TEST(MemReport, ListingKeyZeroIsInAscendingAddress) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 12; ++i) blocks.push_back(block(40 - i * 3, 10 + i));
    release(blocks[0]);
    release(blocks[5]);
    auto live = live_records();
    std::sort(live.begin(), live.end(),
              [](const MemRec &a, const MemRec &b) { return a.base < b.base; });
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], chunk_of(live, 0, live.size()));
    expect_chunk(chunks[1], listing_end(10, rounded_total(live)));
}

TEST(MemReport, ListingKeyOneIsInAscendingRequestedSize) {
    track();
    const uint32_t sizes[] = {50, 3, 700, 21, 9, 4000, 1, 64};
    for (uint32_t size : sizes) block(size);
    auto live = live_records();
    std::sort(live.begin(), live.end(),
              [](const MemRec &a, const MemRec &b) { return a.size < b.size; });
    ASSERT_EQ(MemGetMemRec(0, 1, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], chunk_of(live, 0, live.size()));
    expect_chunk(chunks[1], listing_end(8, 52 + 4 + 700 + 24 + 12 + 4000 + 4 + 64));
}

TEST(MemReport, ListingOtherKeyKeepsPositionOrder) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 6; ++i) blocks.push_back(block(60 - i * 10));
    release(blocks[1]);  // the last block takes position 1
    const auto live = live_records();
    ASSERT_EQ(live.size(), 5u);
    EXPECT_EQ(address_of(live[1]), blocks[5]);
    for (uint32_t key : {2u, 3u, 0xFFFFFFFFu}) {
        ASSERT_EQ(MemGetMemRec(0, key, nullptr, capture), 0u);
        const auto chunks = take_chunks();
        ASSERT_EQ(chunks.size(), 2u) << key;
        expect_chunk(chunks[0], chunk_of(live, 0, 5));
        expect_chunk(chunks[1], listing_end(5, 60 + 12 + 40 + 32 + 20));
    }
}

TEST(MemReport, FilterTmrListsOnlyMatchingFileNamesInAnyCaseInAscendingSize) {
    track();
    void *wheel = block(40, 1, "src/timer/tmr_wheel.c");
    void *upper = block(8, 2, "lib/Tmr.cpp");
    void *mixed = block(24, 3, "x\\ABCtMrX.h");
    block(4, 4, "tmr/other.c");  // only the folder matches: not listed
    block(16, 5, "plain.c");
    void *last = block(100, 6, "TMR_last.c");
    block(12, 7, "t_m_r.c");
    ASSERT_EQ(MemGetMemRec(1, 1, "TMR", capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + line_of(record(upper)) + line_of(record(mixed)) +
                                line_of(record(wheel)) + line_of(record(last)));
    expect_chunk(chunks[1], listing_end(4, 8 + 24 + 40 + 100));
}

TEST(MemReport, FilterThatMatchesNothingGivesOnlyTheEndWithZeroAndZero) {
    track();
    block(40, 1, "src/timer/tmr_wheel.c");
    block(8, 2, "reports.c");
    ASSERT_EQ(MemGetMemRec(1, 0, "nothing_like_it", capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], listing_end(0, 0));
}

TEST(MemReport, ModeTwoAndOtherModesGiveOnlyTheEndWithZeroAndZero) {
    track();
    block(40);
    block(8);
    for (int32_t mode : {2, -1, 77}) {
        ASSERT_EQ(MemGetMemRec(mode, 0, nullptr, capture), 0u);
        ASSERT_EQ(MemGetMemRec(mode, 1, "reports", capture), 0u);
        const auto chunks = take_chunks();
        ASSERT_EQ(chunks.size(), 2u) << mode;
        expect_chunk(chunks[0], listing_end(0, 0));
        expect_chunk(chunks[1], listing_end(0, 0));
    }
}

TEST(MemReport, ModeOneWithoutAFilterListsEveryBlock) {
    track();
    block(40, 1, "a/one.c");
    block(8, 2, "b/two.c");
    const auto live = live_records();
    for (const char *filter : {static_cast<const char *>(nullptr), ""}) {
        ASSERT_EQ(MemGetMemRec(1, 2, filter, capture), 0u);
        const auto chunks = take_chunks();
        ASSERT_EQ(chunks.size(), 2u);
        expect_chunk(chunks[0], chunk_of(live, 0, 2));
        expect_chunk(chunks[1], listing_end(2, 48));
    }
}

TEST(MemReport, ModeZeroIgnoresTheFilter) {
    track();
    block(40, 1, "a/one.c");
    block(8, 2, "b/two.c");
    const auto live = live_records();
    ASSERT_EQ(MemGetMemRec(0, 2, "no_such_file", capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], chunk_of(live, 0, 2));
    expect_chunk(chunks[1], listing_end(2, 48));
}

TEST(MemReport, BlocksOfEqualSizeAreListedTogetherInSomeOrder) {
    track();
    const uint32_t sizes[] = {8, 4, 8, 12, 8, 4, 30};
    std::set<std::string> expected;
    for (uint32_t size : sizes) expected.insert(line_of(record(block(size))));
    ASSERT_EQ(MemGetMemRec(0, 1, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    ASSERT_EQ(chunks[0].text.rfind(kHeader, 0), 0u);
    const auto lines = lines_of(chunks[0].text.substr(std::strlen(kHeader)));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()), expected);
    std::vector<uint32_t> listedSizes;
    for (const std::string &line : lines) {
        std::istringstream columns(line);
        std::string recId, address;
        uint32_t size = 0;
        columns >> recId >> address >> size;
        listedSizes.push_back(size);
    }
    EXPECT_EQ(listedSizes, (std::vector<uint32_t>{4, 4, 8, 8, 8, 12, 30}));
    EXPECT_EQ(chunks[0].length, chunks[0].text.size());
    expect_chunk(chunks[1], listing_end(7, 8 + 4 + 8 + 12 + 8 + 4 + 32));
}

TEST(MemReport, ListingNamesEveryMemoryTypeOfLiveBlocks) {
    track();
    std::vector<void *> blocks;
    for (uint32_t type = 0; type <= 6; ++type) {
        blocks.push_back(MemAllocMem(kFile, 50 + type, 16, type));
        ASSERT_NE(blocks.back(), nullptr);
    }
    blocks.push_back(ZEPO_MemAlignD(64, 16, 60, kFile));
    blocks.push_back(ZEPO_MemCallocD(2, 8, 61, kFile));
    ASSERT_EQ(MemGetMemRec(0, 2, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    const char *const names[] = {"Dyn", "Fixed",   "Cache", "Aln", "SD",
                                 "IS",  "Unknown", "Aln",   "Dyn"};
    const uint32_t lines[] = {50, 51, 52, 53, 54, 55, 56, 60, 61};
    std::string expected = kHeader;
    for (size_t i = 0; i < blocks.size(); ++i)
        expected += listing_line(static_cast<uint32_t>(i), blocks[i], 16, lines[i], names[i],
                                 "Good", my_thread());
    expect_chunk(chunks[0], expected);
    expect_chunk(chunks[1], listing_end(9, 7 * 16 + 128 + 16));
}

TEST(MemReport, ListingPrintsTheLowThirtyTwoBitsOfTheAllocatingThread) {
    track();
    void *p = nullptr;
    uint64_t thread = 0;
    std::thread other([&] {
        p = ZEPO_MemTypeMallocD(20, 0, 77, kFile);
        thread = ZEPO_PthreadSelf();
    });
    other.join();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).thread, thread);
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + listing_line(0, p, 20, 77, "Dyn", "Good",
                                                   static_cast<uint32_t>(thread)));
}

TEST(MemReport, ListingShowsTheStatusLastStoredWithoutChecking) {
    track();
    void *p = block(3, 11);
    damage_tail(p, 3);
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);  // no check yet: as stored
    MemRec *damaged = nullptr;
    ASSERT_EQ(sysMemScanErrMemInfo(&damaged), 1u);  // stores "Down"
    std::free(damaged);
    damage_tail(p, 3);                                    // the guard is whole again
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);  // still "Down"
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 4u);
    expect_chunk(chunks[0], kHeader + listing_line(0, p, 3, 11, "Dyn", "Good", my_thread()));
    expect_chunk(chunks[2], kHeader + listing_line(0, p, 3, 11, "Dyn", "Down", my_thread()));
    expect_chunk(chunks[3], listing_end(1, 4));
    release(p);
}

TEST(MemReport, ReusedSlotIsListedWithThePreviousBlocksStatus) {
    track();
    void *old = block(3, 11);
    damage_tail(old, 3);
    release(old);  // kept in quarantine, its slot freed with status "Down"
    void *fresh = block(20, 12);
    ASSERT_EQ(MemGetMemRec(0, 0, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + listing_line(0, fresh, 20, 12, "Dyn", "Down", my_thread()));
    expect_chunk(chunks[1], listing_end(1, 20));
}

namespace {

// The first call of this output function allocates a block that stays live.
void *g_grown = nullptr;
void growing_output(const char *text, uint32_t length) {
    capture(text, length);
    if (g_grown == nullptr) g_grown = ZEPO_MemTypeMallocD(1000, 0, 55, "grown.c");
}

}  // namespace

TEST(MemReport, ListingCountsOnlyTheRecordsCopiedBeforeItsOutput) {
    track();
    void *a = block(16);
    void *b = block(32);
    ASSERT_EQ(MemGetMemRec(0, 2, nullptr, growing_output), 0u);
    ASSERT_NE(g_grown, nullptr);
    EXPECT_EQ(live_records().size(), 3u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + listing_line(0, a, 16, 100, "Dyn", "Good", my_thread()) +
                                listing_line(1, b, 32, 100, "Dyn", "Good", my_thread()));
    expect_chunk(chunks[1], listing_end(2, 48));
}

// ============================================================================================
// Names of statuses and types, through the error log
// ============================================================================================

TEST(MemReport, EveryStatusNameIsPrintedAndValuesBeyondTheTablePrintUnknown) {
    track();
    const uint32_t statuses[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0xFFFFFFFFu};
    const char *const names[] = {"Good",    "Down",      "Up",      "Updown", "Nofound",
                                 "Fix",     "Invaid",    "Length",  "NoMem",  "Realloc",
                                 "Realloc", "InvaidMem", "Unknown", "Unknown"};
    std::string expected = kHeader;
    for (uint32_t i = 0; i < 14; ++i) {
        void *address = reinterpret_cast<void *>(0x10000 + 0x100 * i);
        sysMemLogMemErr(address, i, "names.c", 300 + i, 1, statuses[i]);
        expected += listing_line(0, address, i, 300 + i, "Fixed", names[i], 0);
    }
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], expected);
    expect_chunk(chunks[1], scan_end(14));
}

TEST(MemReport, EveryTypeNameIsPrintedAndValuesBeyondTheTablePrintUnknown) {
    track();
    const uint32_t types[] = {0, 1, 2, 3, 4, 5, 6, 128, 0xFFFFFFFFu};
    const char *const names[] = {"Dyn", "Fixed",   "Cache",   "Aln",    "SD",
                                 "IS",  "Unknown", "Unknown", "Unknown"};
    std::string expected = kHeader;
    for (uint32_t i = 0; i < 9; ++i) {
        void *address = reinterpret_cast<void *>(0x20000 + 0x100 * i);
        sysMemLogMemErr(address, 10 + i, "types.c", 400 + i, types[i], 4);
        expected += listing_line(0, address, 10 + i, 400 + i, names[i], "Nofound", 0);
    }
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], expected);
    expect_chunk(chunks[1], scan_end(9));
}

TEST(MemReport, AllocationFailureEntryPrintsItsAlignmentAsTheType) {
    track();
    fail_regions(2);
    EXPECT_EQ(sysMemAddUserMem(10, 4, "fail/ordinary.c", 501, 0), nullptr);
    EXPECT_EQ(MemAlignMem("fail/aligned.c", 502, 64, 20), nullptr);
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0],
                 std::string(kHeader) +
                     "0        (nil)         10         501   SD    NoMem     0\r\n" +
                     "0        (nil)         20         502   Unknown    NoMem     0\r\n");
    expect_chunk(chunks[1], scan_end(2));
}

// ============================================================================================
// Scans
// ============================================================================================

TEST(MemReport, ScanOfUndamagedTablesGivesOnlyTheEndWithZero) {
    track();
    block(40);
    block(3);
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0],
                 "\n\rCurrent mem exception record cnt:       0\n\rError info ID "
                 "introduction:\n\r1: down overflow 2: up overflow 3: down/up overflow 4: "
                 "release mem addr not from malloc 5: release local mem addr\n\r6: release err "
                 "mem of mem space 7: malloc erro size mem 8: malloc mem fail\n\r9: realloc err "
                 "params\t  10: search ReAlloc old buffer fail\n\r");
    EXPECT_EQ(chunks[0].length, 325u);
}

TEST(MemReport, OverwrittenTailGuardIsScannedAsDownAndCounted) {
    track();
    block(40, 20);
    void *p = block(3, 21);
    block(7, 22);
    damage_tail(p, 3);
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kHeader + listing_line(1, p, 3, 21, "Dyn", "Down", my_thread()));
    expect_chunk(chunks[1], scan_end(1));
    EXPECT_EQ(record(p).status, 1u);
}

TEST(MemReport, ReleasedDamagedBlockIsScannedFromTheErrorLogOnly) {
    track();
    void *p = block(3, 21);
    damage_tail(p, 3);
    release(p);
    EXPECT_TRUE(live_records().empty());
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    // RecID and thread are not written by logging; the address is the block's.
    expect_chunk(chunks[0], kHeader + listing_line(0, p, 3, 21, "Dyn", "Down", 0));
    expect_chunk(chunks[1], scan_end(1));
}

TEST(MemReport, ScanEndCountsDamagedLiveBlocksPlusErrorLogEntries) {
    track();
    void *down = block(5, 30);
    void *fine = block(8, 31);
    void *up = block(12, 32);
    damage_tail(down, 5);
    damage_head(up);
    void *gone = foreign();
    release(gone);  // not found: logged
    sysMemLogMemErr(reinterpret_cast<void *>(0x7000), 1, "x.c", 34, 5, 7);
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 3u);
    expect_chunk(chunks[0], kHeader + listing_line(0, down, 5, 30, "Dyn", "Down", my_thread()) +
                                listing_line(2, up, 12, 32, "Dyn", "Up", my_thread()));
    expect_chunk(chunks[1],
                 kHeader + listing_line(0, gone, 0, 900, "Dyn", "Nofound", 0) +
                     listing_line(0, reinterpret_cast<void *>(0x7000), 1, 34, "IS", "Length", 0));
    expect_chunk(chunks[2], scan_end(4));
    EXPECT_EQ(record(fine).status, 0u);
}

TEST(MemReport, ScanPrintsTheErrorLogInChunksOf24) {
    track();
    std::string first = kHeader, second = kHeader;
    for (uint32_t i = 0; i < 30; ++i) {
        void *address = reinterpret_cast<void *>(0x40000 + 0x10 * i);
        sysMemLogMemErr(address, i, "many.c", i, 0, 4);
        (i < 24 ? first : second) += listing_line(0, address, i, i, "Dyn", "Nofound", 0);
    }
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 3u);
    expect_chunk(chunks[0], first);
    expect_chunk(chunks[1], second);
    expect_chunk(chunks[2], scan_end(30));
}

TEST(MemReport, ScanErrMemInfoRefreshesStatusesAndCopiesDamagedInPositionOrder) {
    track();
    void *a = block(6, 1);
    void *b = block(9, 2);
    void *c = block(14, 3);
    void *d = block(1, 4);
    damage_head(a);
    damage_tail(c, 14);
    damage_tail(d, 1);
    damage_head(d);  // both guards: the tail is tested first
    MemRec *list = reinterpret_cast<MemRec *>(0x1);
    ASSERT_EQ(sysMemScanErrMemInfo(&list), 3u);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(address_of(list[0]), a);
    EXPECT_EQ(list[0].status, 2u);
    EXPECT_EQ(address_of(list[1]), c);
    EXPECT_EQ(list[1].status, 1u);
    EXPECT_EQ(address_of(list[2]), d);
    EXPECT_EQ(list[2].status, 1u);
    EXPECT_EQ(list[2].position, 3u);
    EXPECT_EQ(list[2].line, 4u);
    EXPECT_STREQ(list[2].file, kFileName);
    std::free(list);
    EXPECT_EQ(record(a).status, 2u);
    EXPECT_EQ(record(b).status, 0u);
    EXPECT_EQ(record(c).status, 1u);
}

TEST(MemReport, ScanErrMemInfoWithoutDamageGivesZeroAndNull) {
    track();
    MemRec *list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemScanErrMemInfo(&list), 0u);  // nothing live
    EXPECT_EQ(list, nullptr);
    block(10);
    block(3);
    list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemScanErrMemInfo(&list), 0u);
    EXPECT_EQ(list, nullptr);
}

// 601 damaged live blocks are real blocks (two pages each, about 5 MB): affordable.
TEST(MemReport, ScanErrMemInfoStopsAfter600Copies) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 601; ++i) {
        blocks.push_back(block(3, i));
        damage_tail(blocks.back(), 3);
    }
    MemRec *list = nullptr;
    ASSERT_EQ(sysMemScanErrMemInfo(&list), 600u);
    ASSERT_NE(list, nullptr);
    for (uint32_t i = 0; i < 600; ++i) {
        EXPECT_EQ(list[i].position, i);
        EXPECT_EQ(address_of(list[i]), blocks[i]);
        EXPECT_EQ(list[i].status, 1u);
    }
    std::free(list);
    // The scan stopped before checking the last block: its status is still the stored one.
    EXPECT_EQ(record(blocks[600]).status, 0u);
}

TEST(MemReport, ScanOf601DamagedBlocksLists600In25Chunks) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 601; ++i) {
        blocks.push_back(block(3, i));
        damage_tail(blocks.back(), 3);
    }
    ASSERT_EQ(MemGetMemScan(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 26u);
    for (uint32_t c = 0; c < 25; ++c) {
        std::string expected = kHeader;
        for (uint32_t i = c * 24; i < c * 24 + 24; ++i)
            expected += listing_line(i, blocks[i], 3, i, "Dyn", "Down", my_thread());
        expect_chunk(chunks[c], expected);
    }
    expect_chunk(chunks[25], scan_end(600));
}

TEST(MemReport, ErrorLogCopyHoldsTheEntriesAsLogged) {
    track();
    MemRec *list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemGetErrMemLog(&list), 0u);
    EXPECT_EQ(list, nullptr);
    static const char kName[] = "logged.c";
    sysMemLogMemErr(reinterpret_cast<void *>(0x1234), 77, kName, 88, 3, 9);
    void *p = foreign();
    release(p);
    ASSERT_EQ(sysMemGetErrMemLog(&list), 2u);
    ASSERT_NE(list, nullptr);
    expect_entry(list[0], reinterpret_cast<void *>(0x1234), 77, kName, 88, 3, 9);
    EXPECT_EQ(list[1].base, p);
    EXPECT_EQ(list[1].size, 0u);
    EXPECT_EQ(list[1].line, 900u);
    EXPECT_EQ(list[1].status, 4u);
    EXPECT_STREQ(list[1].file, kFileName);
    std::free(list);
}

// ============================================================================================
// Self-check
// ============================================================================================

TEST(MemReport, SelfCheckGivesInvaidMemWhereTheSlotWordNoLongerLeadsBack) {
    track();
    void *good = block(8, 1);
    void *down = block(3, 2);
    void *up = block(16, 3);
    void *lost = block(20, 4);
    void *moved = block(24, 5);
    damage_tail(down, 3);
    damage_head(up);
    set_slot_word(lost, 0xFFFFFFFFu);
    set_slot_word(moved, word_at(good, -8));  // a live slot, but not this block's
    EXPECT_EQ(MemSelfCheck(), 0u);
    damage_tail(down, 3);  // whole again: the listing shows what was stored
    ASSERT_EQ(MemGetMemRec(0, 2, nullptr, capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    const uint32_t t = my_thread();
    expect_chunk(chunks[0], kHeader + listing_line(0, good, 8, 1, "Dyn", "Good", t) +
                                listing_line(1, down, 3, 2, "Dyn", "Down", t) +
                                listing_line(2, up, 16, 3, "Dyn", "Up", t) +
                                listing_line(3, lost, 20, 4, "Dyn", "InvaidMem", t) +
                                listing_line(4, moved, 24, 5, "Dyn", "InvaidMem", t));
    expect_chunk(chunks[1], listing_end(5, 8 + 4 + 16 + 20 + 24));
}

TEST(MemReport, SelfCheckStoresGoodAgainForARepairedBlock) {
    track();
    void *p = block(3, 2);
    damage_tail(p, 3);
    MemSelfCheck();
    EXPECT_EQ(record(p).status, 1u);
    damage_tail(p, 3);
    MemSelfCheck();
    EXPECT_EQ(record(p).status, 0u);
    release(p);
    EXPECT_TRUE(error_log().empty());
}

// ============================================================================================
// Sorted copies and their comparators
// ============================================================================================

TEST(MemReport, SortMemInfoOfNothingLiveGivesZeroAndNull) {
    track();
    MemRec *list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemSortMemInfo(&list, nullptr, 0), 0u);
    EXPECT_EQ(list, nullptr);
    list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemSortMemInfo(&list, "x", 1), 0u);
    EXPECT_EQ(list, nullptr);
}

TEST(MemReport, SortMemInfoKeyZeroSortsByAscendingAddress) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 10; ++i) blocks.push_back(block(10 + i));
    release(blocks[2]);
    release(blocks[6]);
    blocks.erase(blocks.begin() + 6);
    blocks.erase(blocks.begin() + 2);
    MemRec *list = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&list, nullptr, 0), 8u);
    std::vector<void *> sorted = blocks;
    std::sort(sorted.begin(), sorted.end(), [](void *a, void *b) {
        return reinterpret_cast<uintptr_t>(a) < reinterpret_cast<uintptr_t>(b);
    });
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(address_of(list[i]), sorted[i]) << i;
    std::free(list);
}

TEST(MemReport, SortMemInfoKeyOneSortsByAscendingRequestedSize) {
    track();
    const uint32_t sizes[] = {90, 2, 41, 40, 7, 300};
    for (uint32_t size : sizes) block(size);
    MemRec *list = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&list, nullptr, 1), 6u);
    std::vector<uint32_t> listed;
    for (size_t i = 0; i < 6; ++i) listed.push_back(list[i].size);
    EXPECT_EQ(listed, (std::vector<uint32_t>{2, 7, 40, 41, 90, 300}));
    std::free(list);
}

TEST(MemReport, SortMemInfoOtherKeysKeepPositionOrder) {
    track();
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 5; ++i) blocks.push_back(block(50 - i));
    release(blocks[0]);  // the last block moves to position 0
    const std::vector<void *> order = {blocks[4], blocks[1], blocks[2], blocks[3]};
    for (int32_t key : {2, -1, 100}) {
        MemRec *list = nullptr;
        ASSERT_EQ(sysMemSortMemInfo(&list, nullptr, key), 4u);
        for (uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(address_of(list[i]), order[i]) << key << " " << i;
            EXPECT_EQ(list[i].position, i);
        }
        std::free(list);
    }
}

TEST(MemReport, SortMemInfoFiltersByFileNameIgnoringCase) {
    track();
    void *a = block(10, 1, "dir/Alpha.c");
    void *b = block(20, 2, "dir/beta.c");
    void *c = block(30, 3, "alphabet/ALPHA2.c");
    MemRec *list = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&list, nullptr, 2), 3u);
    std::free(list);
    list = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&list, "", 2), 3u);
    std::free(list);
    list = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&list, "aLpHa", 2), 2u);
    EXPECT_EQ(address_of(list[0]), a);
    EXPECT_EQ(address_of(list[1]), c);
    EXPECT_STREQ(list[1].file, "ALPHA2.c");
    std::free(list);
    list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemSortMemInfo(&list, "gamma", 0), 0u);
    EXPECT_EQ(list, nullptr);
    list = reinterpret_cast<MemRec *>(0x1);
    EXPECT_EQ(sysMemSortMemInfo(&list, "dir", 1), 0u);  // folders are not part of the name
    EXPECT_EQ(list, nullptr);
    (void)b;
}

TEST(MemReport, ComparatorsOrderSlotsAndNeverReturnZero) {
    track();
    void *small = block(8);
    void *big = block(200);
    void *same = block(8);
    uint32_t sSmall = word_at(small, -8), sBig = word_at(big, -8), sSame = word_at(same, -8);
    const bool smallFirst = reinterpret_cast<uintptr_t>(small) < reinterpret_cast<uintptr_t>(big);
    uint32_t lower = smallFirst ? sSmall : sBig, higher = smallFirst ? sBig : sSmall;
    EXPECT_EQ(sysMemSortByAddr(&lower, &higher), -1);
    EXPECT_EQ(sysMemSortByAddr(&higher, &lower), 1);
    EXPECT_EQ(sysMemSortByAddr(&lower, &lower), 1);
    EXPECT_EQ(sysMemSortBySize(&sSmall, &sBig), -1);
    EXPECT_EQ(sysMemSortBySize(&sBig, &sSmall), 1);
    EXPECT_EQ(sysMemSortBySize(&sSmall, &sSame), 1);
    EXPECT_EQ(sysMemSortBySize(&sSame, &sSmall), 1);
    EXPECT_EQ(sysMemSortBySize(&sBig, &sBig), 1);
}

// ============================================================================================
// Case-insensitive search
// ============================================================================================

TEST(MemReport, StrcasestrOfNullGivesNull) {
    EXPECT_EQ(sysMemStrcasestr(nullptr, "a"), nullptr);
    EXPECT_EQ(sysMemStrcasestr("a", nullptr), nullptr);
    EXPECT_EQ(sysMemStrcasestr(nullptr, nullptr), nullptr);
    EXPECT_EQ(sysMemStrcasestr(nullptr, ""), nullptr);
}

TEST(MemReport, StrcasestrOfALongerNeedleGivesNull) {
    EXPECT_EQ(sysMemStrcasestr("ab", "abc"), nullptr);
    EXPECT_EQ(sysMemStrcasestr("", "a"), nullptr);
}

TEST(MemReport, StrcasestrOfAnEmptyNeedleGivesTheHaystack) {
    const char *haystack = "text";
    EXPECT_EQ(sysMemStrcasestr(haystack, ""), haystack);
    const char *empty = "";
    EXPECT_EQ(sysMemStrcasestr(empty, ""), empty);
}

TEST(MemReport, StrcasestrFindsTheNeedleAnywhereIgnoringCase) {
    const char *haystack = "TmR_wheel.C";
    EXPECT_EQ(sysMemStrcasestr(haystack, "tmr"), haystack);
    EXPECT_EQ(sysMemStrcasestr(haystack, "WHEEL"), haystack + 4);
    EXPECT_EQ(sysMemStrcasestr(haystack, "l.c"), haystack + 8);
    EXPECT_EQ(sysMemStrcasestr(haystack, "tMr_WhEeL.c"), haystack);
    EXPECT_EQ(sysMemStrcasestr(haystack, "_"), haystack + 3);
}

TEST(MemReport, StrcasestrGivesTheFirstMatch) {
    const char *haystack = "xxAbCabcABC";
    EXPECT_EQ(sysMemStrcasestr(haystack, "abc"), haystack + 2);
    const char *overlap = "aaaa";
    EXPECT_EQ(sysMemStrcasestr(overlap, "AA"), overlap);
}

TEST(MemReport, StrcasestrWithoutAMatchGivesNull) {
    EXPECT_EQ(sysMemStrcasestr("reports.c", "tmr"), nullptr);
    EXPECT_EQ(sysMemStrcasestr("abc", "abd"), nullptr);
    EXPECT_EQ(sysMemStrcasestr("abc", "bcd"), nullptr);  // would run past the end
}

// ============================================================================================
// The text primitives
// ============================================================================================

TEST(MemReport, LogStringCatAppendsThePieceAndGivesItsLength) {
    char text[64] = "ab";
    EXPECT_EQ(sysMemLogStringCat(text, 64, "%s-%u", "cd", 42u), 5u);
    EXPECT_STREQ(text, "abcd-42");
    EXPECT_EQ(sysMemLogStringCat(text, 64, "!"), 1u);
    EXPECT_STREQ(text, "abcd-42!");
}

TEST(MemReport, LogStringCatOfTextFillingTheCapacityGivesZero) {
    char text[16] = "abcdef";
    EXPECT_EQ(sysMemLogStringCat(text, 6, "x"), 0u);  // length equal to the capacity
    EXPECT_EQ(sysMemLogStringCat(text, 3, "x"), 0u);  // length above it
    EXPECT_EQ(sysMemLogStringCat(text, 7, "x"), 0u);  // the last byte is never used
    EXPECT_STREQ(text, "abcdef");
}

TEST(MemReport, LogStringCatLeavesTheLastByteOfTheCapacityUnused) {
    char text[16];
    std::memset(text, 'X', sizeof text);
    std::memcpy(text, "abc", 4);
    // Capacity 10: the text may grow to 8 characters, its NUL at index 8; index 9 stays.
    EXPECT_EQ(sysMemLogStringCat(text, 10, "%s", "defgh"), 5u);
    EXPECT_STREQ(text, "abcdefgh");
    EXPECT_EQ(text[9], 'X');
    std::memset(text, 'X', sizeof text);
    std::memcpy(text, "abc", 4);
    // One more character would need index 9: the piece is dropped whole.
    EXPECT_EQ(sysMemLogStringCat(text, 10, "%s", "defghi"), 0u);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(text[9], 'X');
}

TEST(MemReport, LogStringCatDropsAPieceThatDoesNotFitWhole) {
    char text[32] = "12345";
    EXPECT_EQ(sysMemLogStringCat(text, 12, "%s", "abcdefghij"), 0u);
    EXPECT_STREQ(text, "12345");
    EXPECT_EQ(sysMemLogStringCat(text, 12, "%s", "abc"), 3u);  // a smaller one still goes
    EXPECT_STREQ(text, "12345abc");
}

TEST(MemReport, LogStringCatOfARefusedFormatGivesZero) {
    char text[64] = "keep";
    int stored = 17;
    EXPECT_EQ(sysMemLogStringCat(text, 64, "ab%n", &stored), 0u);
    EXPECT_STREQ(text, "keep");
    EXPECT_EQ(stored, 17);
}

TEST(MemReport, PrintMemInfoWritesTheHeaderAndALinePerRecord) {
    MemRec records[2] = {};
    records[0].base = reinterpret_cast<void *>(0x1000);
    records[0].offset = 0x10;
    records[0].size = 100;
    records[0].position = 5;
    records[0].line = 42;
    records[0].type = 1;
    records[0].status = 1;
    records[0].thread = 0x1234567800000007ull;
    records[1].base = nullptr;
    records[1].size = 9;
    records[1].position = 1234567;
    records[1].line = 7;
    records[1].type = 5;
    records[1].status = 11;
    const std::string first = "5        0x1010        100        42    Fixed    Down      7\r\n";
    const std::string second = "1234567  (nil)         9          7     IS    InvaidMem 0\r\n";
    EXPECT_EQ(first, line_of(records[0]));
    EXPECT_EQ(second, line_of(records[1]));
    char text[1024];
    std::strcpy(text, "old text");
    EXPECT_EQ(sysMemPrintMemInfo(1, text, sizeof text, records, 2),
              std::strlen(kHeader) + first.size() + second.size());
    EXPECT_EQ(std::string(text), kHeader + first + second);
}

TEST(MemReport, PrintMemInfoWithoutHeaderEmptiesTheBufferFirst) {
    MemRec r{};
    r.base = reinterpret_cast<void *>(0xabc000);
    r.offset = 4;
    r.size = 3;
    r.line = 1;
    char text[256];
    std::strcpy(text, "earlier text that must go");
    const std::string line = line_of(r);
    EXPECT_EQ(sysMemPrintMemInfo(0, text, sizeof text, &r, 1), line.size());
    EXPECT_EQ(std::string(text), line);
    EXPECT_EQ(sysMemPrintMemInfo(1, text, sizeof text, &r, 0), std::strlen(kHeader));
    EXPECT_STREQ(text, kHeader);
    EXPECT_EQ(sysMemPrintMemInfo(0, text, sizeof text, &r, 0), 0u);
    EXPECT_STREQ(text, "");
}

TEST(MemReport, PrintMemInfoOfANullBufferGivesZero) {
    MemRec r{};
    EXPECT_EQ(sysMemPrintMemInfo(1, nullptr, 100, &r, 1), 0u);
}

TEST(MemReport, PrintMemInfoDropsALineThatDoesNotFitAndGoesOn) {
    MemRec records[3] = {};
    for (uint32_t i = 0; i < 3; ++i) {
        records[i].base = reinterpret_cast<void *>(0x10000 * (i + 1));
        records[i].size = 10;
        records[i].line = i == 1 ? 123456789 : 12;  // the second line is 4 characters longer
        records[i].position = i;
    }
    const std::string l0 = line_of(records[0]), l1 = line_of(records[1]), l2 = line_of(records[2]);
    ASSERT_EQ(l1.size(), l0.size() + 4);
    ASSERT_EQ(l2.size(), l0.size());
    const uint32_t capacity =
        static_cast<uint32_t>(std::strlen(kHeader) + l0.size() + l2.size() + 2);
    char text[1024];
    EXPECT_EQ(sysMemPrintMemInfo(1, text, capacity, records, 3),
              std::strlen(kHeader) + l0.size() + l2.size());
    EXPECT_EQ(std::string(text), kHeader + l0 + l2);
}

// ============================================================================================
// Dump files
// ============================================================================================

TEST(MemReport, RecordDumpWritesEveryRecordLineByLine) {
    track();
    qel_test::TempDir dir;
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < 5; ++i) blocks.push_back(block(10 * i + 3, 600 + i));
    release(blocks[1]);          // the last block moves to position 1
    damage_tail(blocks[2], 23);  // no check runs for the dump: still "Good"
    sysMemLogMemErr(reinterpret_cast<void *>(0x9000), 5, "dump.c", 700, 2, 6);
    const std::string path = dir / "records.txt";
    MemRecordMemRecFun(path.c_str());
    const uint32_t t = my_thread();
    const std::string expected =
        "\r\n-------MemInfo 4----\r\n" + std::string(kHeader) +
        listing_line(0, blocks[0], 3, 600, "Dyn", "Good", t) +
        listing_line(1, blocks[4], 43, 604, "Dyn", "Good", t) +
        listing_line(2, blocks[2], 23, 602, "Dyn", "Good", t) +
        listing_line(3, blocks[3], 33, 603, "Dyn", "Good", t) + "\r\n-------ErrMem 1----\r\n" +
        kHeader + listing_line(0, reinterpret_cast<void *>(0x9000), 5, 700, "Cache", "Invaid", 0);
    EXPECT_EQ(file_lines(path), lines_of(expected));
    EXPECT_EQ(file_text(path), expected);
    EXPECT_EQ(expected, dump_of(live_records(), error_log()));
}

TEST(MemReport, RecordDumpOfEmptyTablesHoldsTheHeadsAndHeadersOnly) {
    track();
    qel_test::TempDir dir;
    const std::string path = dir / "empty.txt";
    MemRecordMemRecFun(path.c_str());
    EXPECT_EQ(file_lines(path),
              (std::vector<std::string>{"\r\n", "-------MemInfo 0----\r\n", "\r\n",
                                        "RecID    Address       Length     Line File          "
                                        "                  Type   Status     Thread\r\n",
                                        "\r\n", "-------ErrMem 0----\r\n", "\r\n",
                                        "RecID    Address       Length     Line File          "
                                        "                  Type   Status     Thread\r\n"}));
}

TEST(MemReport, RecordDumpReplacesTheFileSoItNeverGrows) {
    track();
    qel_test::TempDir dir;
    const std::string path = dir / "again.txt";
    {
        std::FILE *old = std::fopen(path.c_str(), "w");
        ASSERT_NE(old, nullptr);
        std::fputs("an older file\r\n", old);
        std::fclose(old);
    }
    block(12, 1);
    block(40, 2);
    sysMemLogMemErr(nullptr, 1, "x.c", 3, 4, 8);
    const std::string expected = dump_of(live_records(), error_log());
    MemRecordMemRecFun(path.c_str());
    const std::string first = file_text(path);
    MemRecordMemRecFun(path.c_str());
    EXPECT_EQ(first, expected);
    EXPECT_EQ(file_text(path), expected);
}

TEST(MemReport, RecordDumpIntoAMissingFolderIsSkippedSilently) {
    track();
    qel_test::TempDir dir;
    block(12);
    const std::string path = dir / "absent/records.txt";
    MemRecordMemRecFun(path.c_str());
    struct stat st;
    EXPECT_NE(::stat(path.c_str(), &st), 0);
    EXPECT_NE(::stat((dir / "absent").c_str(), &st), 0);  // the folder is not made
    EXPECT_EQ(live_records().size(), 1u);
}

TEST(MemReport, MonitorWritesMemRecIntoTheRealDataFolder) {
    track();
    RealData data;
    void *a = block(30, 1);
    void *b = block(3, 2);
    block(7, 3);
    damage_tail(b, 3);
    release(a);
    release(foreign());
    ASSERT_EQ(MemGetMemoryUseMonitor(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], "Save to /data/mem_rec.txt");
    EXPECT_EQ(chunks[0].length, 25u);
    const auto live = live_records();
    ASSERT_EQ(live.size(), 2u);
    EXPECT_EQ(live[1].status, 1u);  // the self-check ran first
    EXPECT_EQ(file_lines("/data/mem_rec.txt"), lines_of(dump_of(live, error_log())));
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/mem_rec.txt|a+"});
}

TEST(MemReport, MonitorRewritesTheRedirectedDumpOnEveryCall) {
    track();
    void *p = block(16, 1);
    void *lost = block(20, 2);
    set_slot_word(lost, 0xFFFFFFFFu);
    ASSERT_EQ(MemGetMemoryUseMonitor(capture), 0u);
    const std::string path = data_path("mem_rec.txt");
    const std::string first = file_text(path);
    ASSERT_EQ(MemGetMemoryUseMonitor(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 2u);
    expect_chunk(chunks[0], kSaved);
    expect_chunk(chunks[1], kSaved);
    const uint32_t t = my_thread();
    const std::string expected = "\r\n-------MemInfo 2----\r\n" + std::string(kHeader) +
                                 listing_line(0, p, 16, 1, "Dyn", "Good", t) +
                                 listing_line(1, lost, 20, 2, "Dyn", "InvaidMem", t) +
                                 "\r\n-------ErrMem 0----\r\n" + kHeader;
    EXPECT_EQ(lines_of(first), lines_of(expected));
    EXPECT_EQ(file_lines(path), lines_of(expected));
    EXPECT_EQ(data_opens(),
              (std::vector<std::string>{"/data/mem_rec.txt|a+", "/data/mem_rec.txt|a+"}));
    std::lock_guard<std::mutex> hold(g_data.lock);
    EXPECT_EQ(g_data.removed, (std::vector<std::string>{"/data/mem_rec.txt", "/data/mem_rec.txt"}));
}

TEST(MemReport, MonitorWithoutTheDumpFolderStillAnswersSaveTo) {
    track();
    data_folder_missing();
    block(16);
    ASSERT_EQ(MemGetMemoryUseMonitor(capture), 0u);
    const auto chunks = take_chunks();
    ASSERT_EQ(chunks.size(), 1u);
    expect_chunk(chunks[0], kSaved);
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/mem_rec.txt|a+"});
    struct stat st;
    EXPECT_NE(::stat(data_path("mem_rec.txt").c_str(), &st), 0);
}

TEST(MemReport, FirstFailedAllocationDumpsIntoTheRealDataFolderOnce) {
    track();
    RealData data;
    void *a = block(30, 1);
    void *b = block(50, 2);
    fail_regions(1);
    EXPECT_EQ(ZEPO_MemTypeMallocD(10, 0, 77, "oom/place.c"), nullptr);
    const uint32_t t = my_thread();
    // The failure is logged before the dump is written: the ErrMem section holds it.
    const std::string expected = "\r\n-------MemInfo 2----\r\n" + std::string(kHeader) +
                                 listing_line(0, a, 30, 1, "Dyn", "Good", t) +
                                 listing_line(1, b, 50, 2, "Dyn", "Good", t) +
                                 "\r\n-------ErrMem 1----\r\n" + kHeader +
                                 "0        (nil)         10         77    SD    NoMem     0\r\n";
    EXPECT_EQ(file_lines("/data/out_of_memery.txt"), lines_of(expected));
    fail_regions(1);
    EXPECT_EQ(ZEPO_MemTypeMallocD(20, 0, 78, "oom/place.c"), nullptr);
    EXPECT_EQ(error_log().size(), 2u);
    EXPECT_EQ(file_lines("/data/out_of_memery.txt"), lines_of(expected));
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/out_of_memery.txt|a+"});
}

TEST(MemReport, FirstFailedAllocationDumpIsWrittenOnceIntoTheRedirectedFolder) {
    track();
    void *a = block(8, 1);
    fail_regions(1);
    EXPECT_EQ(ZEPO_MemTypeMallocD(4000, 5, 90, "oom.c"), nullptr);
    const std::string path = data_path("out_of_memery.txt");
    const std::string expected = dump_of(live_records(), error_log());
    EXPECT_EQ(file_text(path), expected);
    EXPECT_NE(expected.find("0        (nil)         4000       90    SD    NoMem     0\r\n"),
              std::string::npos);
    release(a);
    fail_regions(3);
    EXPECT_EQ(ZEPO_MemTypeMallocD(8, 0, 91, "oom.c"), nullptr);
    EXPECT_EQ(ZEPO_MemTypeMallocD(8, 0, 92, "oom.c"), nullptr);
    EXPECT_EQ(MemAllocMem("oom.c", 93, 8, 0), nullptr);
    EXPECT_EQ(error_log().size(), 4u);
    EXPECT_EQ(file_text(path), expected);
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/out_of_memery.txt|a+"});
}

// ============================================================================================
// No lock around the output function
// ============================================================================================

TEST(MemReport, StatisticsOutputRunsWithoutAnAllocatorLock) {
    track();
    block(10);
    ASSERT_EQ(MemGetMemStats(probing_output), 0u);
    EXPECT_EQ(probe_calls_all_free(), 1u);
}

TEST(MemReport, ListingOutputRunsWithoutAnAllocatorLock) {
    track();
    for (uint32_t i = 0; i < 30; ++i) block(10 + i);
    ASSERT_EQ(MemGetMemRec(0, 1, nullptr, probing_output), 0u);
    EXPECT_EQ(probe_calls_all_free(), 3u);
    ASSERT_EQ(ZEPO_MemGetMemRec(1, 0, "reports", probing_output), 0u);
    EXPECT_EQ(probe_calls_all_free(), 3u);
}

TEST(MemReport, ScanOutputRunsWithoutAnAllocatorLock) {
    track();
    void *p = block(3);
    damage_tail(p, 3);
    sysMemLogMemErr(nullptr, 1, "x.c", 2, 0, 8);
    ASSERT_EQ(MemGetMemScan(probing_output), 0u);
    EXPECT_EQ(probe_calls_all_free(), 3u);
}

TEST(MemReport, MonitorOutputRunsWithoutAnAllocatorLock) {
    track();
    block(10);
    sysMemLogMemErr(nullptr, 1, "x.c", 2, 0, 8);
    ASSERT_EQ(ZEPO_MemGetMemoryUseMonitor(probing_output), 0u);
    EXPECT_EQ(probe_calls_all_free(), 1u);
    EXPECT_EQ(take_chunks().size(), 1u);
}
