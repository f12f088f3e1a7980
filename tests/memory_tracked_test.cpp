// The tracked allocator's engine (memory_tracked.cpp) and the tracked mode of the memory
// entry points (memory.cpp).
//
// Every test runs in its own process and switches the tracked mode on itself (track()), so
// the counters, the slots and the error log start empty: the first block of a test takes
// slot 0.  The harness (memory_harness.h) stands in front of the library's region
// allocation, guard-page protection and dump files; this file adds an mprotect of its own
// (below) to see whether the table lock is held when a guard page changes.
#include <dirent.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "memory_harness.h"

namespace {

// ---- Watching the table lock from mprotect -----------------------------------------------

// While armed, each mprotect of one page asks another thread to take the table lock
// (MemSelfCheck takes it) and waits for it.  The lock is recursive, so only another thread
// can tell whether the caller holds it: a prober that cannot finish in time means the lock
// was held.  A prober that is late is joined after the call that started it has returned.
struct LockProbe {
    std::atomic<bool> armed{false};
    std::atomic<int> probes{0};
    std::atomic<int> heldAtProbe{0};
    std::vector<std::thread> late;
};

LockProbe g_probe;

void probe_table_lock() {
    std::atomic<bool> done{false};
    std::thread prober([&done] {
        (void)MemSelfCheck();
        done = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_probe.probes++;
    if (done) {
        prober.join();
    } else {
        g_probe.heldAtProbe++;
        g_probe.late.push_back(std::move(prober));  // it ends once the lock is released
    }
}

}  // namespace

extern "C" int mprotect(void *address, size_t length, int protection) noexcept {
    static auto next = qel_test::next_definition<int (*)(void *, size_t, int)>("mprotect");
    if (length == 4096 && g_probe.armed.exchange(false)) {
        probe_table_lock();
        g_probe.armed = true;
    }
    return next(address, length, protection);
}

namespace {

using namespace mem_test;

// A caller's source-file name as __FILE__ gives it; records keep a pointer to its part after
// the last separator.
constexpr char kFile[] = "src/modules/owner.cpp";
const char *const kFilePart = kFile + 12;  // "owner.cpp"
constexpr uint32_t kGuard = 0xABBADEEDu;

// An ordinary block of the engine, charged to kFile.
void *block(uint32_t size, uint32_t line = 1, uint32_t type = 0) {
    return MemAllocMem(kFile, line, size, type);
}

unsigned char *bytes(void *p) { return static_cast<unsigned char *>(p); }

std::string stats_now() {
    take_chunks();
    EXPECT_EQ(MemGetMemStats(capture), 0u);
    const std::vector<Chunk> chunks = take_chunks();
    if (chunks.size() != 1) {
        ADD_FAILURE() << chunks.size() << " calls of the output function";
        return "";
    }
    return chunks[0].text;
}

// An error-log entry's logged fields, comparable as a whole.
struct Entry {
    const void *address;
    uint32_t length;
    std::string file;
    uint32_t line;
    uint32_t type;
    uint32_t status;
    bool operator==(const Entry &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Entry &e) {
    return out << "{" << e.address << ", " << e.length << ", \"" << e.file << "\", " << e.line
               << ", type " << e.type << ", status " << e.status << "}";
}

Entry entry(const MemRec &e) {
    return Entry{e.base, e.size, e.file ? e.file : "(null)", e.line, e.type, e.status};
}

// Overwrites the head guard (the 4 bytes before the block).
void break_head(void *p) { std::memset(bytes(p) - 4, 0x11, 4); }

// Overwrites the first byte of the tail guard; it must lie inside the rounded size.
void break_tail(void *p, uint32_t size) { bytes(p)[size] = 0x22; }

}  // namespace

// ---- The region of a block ---------------------------------------------------------------

TEST(Tracked, HundredByteBlockEndsOnItsGuardPage) {
    track();
    void *p = block(100, 7);
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(r.roundedSize, 100u);
    EXPECT_EQ(r.size, 100u);
    EXPECT_EQ(r.offset, 3996u);  // span 4096 - rounded 100
    EXPECT_EQ(reinterpret_cast<uintptr_t>(r.base) % 4096, 0u);
    EXPECT_EQ(static_cast<char *>(r.base) + 3996, p);
    EXPECT_EQ(g_regions.calls, 1u);
    EXPECT_EQ(g_regions.lastLength, 8192u);
    EXPECT_EQ(g_regions.lastAlignment, 4096u);
    char *guard = static_cast<char *>(p) + 100;
    EXPECT_EQ(guard, static_cast<char *>(r.base) + 4096);
    EXPECT_EQ(word_at(p, 100), kGuard);  // the first word of the guard page
    EXPECT_FALSE(writable(guard));
    EXPECT_TRUE(writable(p));
    EXPECT_TRUE(writable(static_cast<char *>(p) + 99));
}

TEST(Tracked, WriteToByte100OfAHundredByteBlockFaults) {
    track();
    auto *p = static_cast<volatile unsigned char *>(block(100));
    ASSERT_NE(p, nullptr);
    p[99] = 1;  // the last byte of the block is the caller's
    EXPECT_DEATH(p[100] = 1, "");
}

TEST(Tracked, SlotNumberAndHeadGuardStandBeforeTheBlock) {
    track();
    void *first = block(24);
    void *second = block(24);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(word_at(first, -8), 0u);
    EXPECT_EQ(word_at(second, -8), 1u);
    EXPECT_EQ(word_at(first, -4), kGuard);
    EXPECT_EQ(word_at(second, -4), kGuard);
    EXPECT_EQ(word_at(first, 24), kGuard);
}

TEST(Tracked, ThreeByteBlockHasItsTailGuardUnalignedAtByteThree) {
    track();
    void *p = block(3);
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(r.roundedSize, 4u);
    EXPECT_EQ(r.offset, 4092u);
    EXPECT_EQ(word_at(p, 3), kGuard);  // bytes 3 to 6: one in the block, three in the page
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 4, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 4u);  // aligned to 4 only
    EXPECT_TRUE(writable(bytes(p) + 3));
    EXPECT_FALSE(writable(bytes(p) + 4));
}

TEST(Tracked, OverwritingByteThreeOfAThreeByteBlockGivesDownAndKeepsTheRegion) {
    track();
    void *p = ZEPO_MemTypeMallocD(3, 1, 31, kFile);
    ASSERT_NE(p, nullptr);
    std::memcpy(p, "abc", 3);
    break_tail(p, 3);
    ZEPO_MemTypeFreeD(p, 4, 32, kFile);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 3, "owner.cpp", 31, 1, 1}));
    // Kept: not freed (still readable, which the address sanitizer would report after a
    // free), not unprotected.
    EXPECT_EQ(std::memcmp(p, "abc", 3), 0);
    EXPECT_EQ(bytes(p)[3], 0x22);
    EXPECT_FALSE(writable(bytes(p) + 4));
    EXPECT_EQ(g_protect.unprotects, 0u);
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
}

TEST(Tracked, OverwritingTheFourBytesBeforeTheBlockGivesUp) {
    track();
    void *p = block(3, 41);
    ASSERT_NE(p, nullptr);
    break_head(p);
    EXPECT_EQ(sysMemDeleteUserMem(p), 2u);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 3, "owner.cpp", 41, 0, 2}));
    EXPECT_FALSE(writable(bytes(p) + 4));
}

TEST(Tracked, OverwritingBothGuardsGivesDownNeverUpdown) {
    track();
    void *p = block(3, 51);
    ASSERT_NE(p, nullptr);
    break_head(p);
    break_tail(p, 3);
    EXPECT_EQ(sysMemDeleteUserMem(p), 1u);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].status, 1u);
}

TEST(Tracked, SecondReleaseOfABlockLogsNofoundWithLengthZero) {
    track();
    void *p = ZEPO_MemTypeMallocD(100, 0, 61, kFile);
    ASSERT_NE(p, nullptr);
    ZEPO_MemTypeFreeD(p, 0, 62, kFile);
    EXPECT_TRUE(error_log().empty());
    ZEPO_MemTypeFreeD(p, 5, 63, "other/second.c");
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 0, "second.c", 63, 5, 4}));
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
}

TEST(Tracked, AlignOf4096GivesABlockAlignedTo128Only) {
    track();
    void *p = ZEPO_MemAlignD(4096, 200, 71, kFile);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 128, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 4096, 3840u);  // 4096 - 256: not a page start
    const MemRec r = record(p);
    EXPECT_EQ(r.type, 3u);
    EXPECT_EQ(r.size, 200u);
    EXPECT_EQ(r.roundedSize, 256u);
    EXPECT_EQ(r.offset, 3840u);
    EXPECT_EQ(r.line, 71u);
    EXPECT_EQ(g_regions.lastLength, 8192u);
    EXPECT_FALSE(writable(bytes(p) + 256));
}

TEST(Tracked, AlignedBlockLeavesItsSlackBeyondTheTailGuardUnwatched) {
    track();
    void *p = MemAlignMem(kFile, 81, 16, 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).roundedSize, 128u);
    EXPECT_EQ(word_at(p, 100), kGuard);  // inside the block's own page
    EXPECT_TRUE(writable(bytes(p) + 127));
    bytes(p)[104] = 0x33;  // past the tail guard, inside the rounded size
    bytes(p)[127] = 0x33;
    EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, AlignedBlockOverwrittenJustPastItsSizeGivesDown) {
    track();
    void *p = MemAlignMem(kFile, 82, 128, 100);
    ASSERT_NE(p, nullptr);
    break_tail(p, 100);
    EXPECT_EQ(sysMemDeleteUserMem(p), 1u);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 100, "owner.cpp", 82, 3, 1}));
}

// ---- Zeroed blocks ----------------------------------------------------------------------

TEST(Tracked, CallocWithCountOrSizeZeroGivesNull) {
    track();
    EXPECT_EQ(MemCallocMem(kFile, 1, 0, 8), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, 1, 8, 0), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
}

TEST(Tracked, CallocWithNegativeCountOrSizeGivesNull) {
    track();
    EXPECT_EQ(MemCallocMem(kFile, 1, -1, 8), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, 1, 8, -1), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, 1, INT32_MIN, INT32_MIN), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, CallocDWithCountAbove2147483647GivesNull) {
    track();
    EXPECT_EQ(ZEPO_MemCallocD(2147483648u, 1, 1, kFile), nullptr);
    EXPECT_EQ(ZEPO_MemCallocD(0xFFFFFFFFu, 4, 1, kFile), nullptr);
    EXPECT_EQ(ZEPO_MemCallocD(1, 2147483648u, 1, kFile), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_TRUE(data_opens().empty());
}

TEST(Tracked, CallocDGivesAZeroedTrackedBlockOfCountTimesSize) {
    track();
    void *p = ZEPO_MemCallocD(5, 6, 91, kFile);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 30; ++i) EXPECT_EQ(bytes(p)[i], 0) << i;
    const MemRec r = record(p);
    EXPECT_EQ(r.size, 30u);
    EXPECT_EQ(r.roundedSize, 32u);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(r.line, 91u);
    EXPECT_EQ(r.file, kFilePart);
    EXPECT_EQ(word_at(p, 30), kGuard);  // the zeroing stops at the size
}

TEST(Tracked, CallocProductIsTakenIn32Bits) {
    track();
    // 65537 * 65536 = 0x1_0001_0000, which keeps 0x10000 in 32 bits.
    void *p = MemCallocMem(kFile, 92, 65537, 65536);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).size, 65536u);
    EXPECT_EQ(bytes(p)[0], 0);
    EXPECT_EQ(bytes(p)[65535], 0);
}

TEST(Tracked, CallocRegionFailureIsLoggedWithoutADump) {
    track();
    fail_regions(1);
    EXPECT_EQ(MemCallocMem(kFile, 93, 2, 8), nullptr);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 16, "owner.cpp", 93, 4, 8}));
    EXPECT_TRUE(data_opens().empty());
}

// ---- Reallocation -----------------------------------------------------------------------

TEST(Tracked, ReallocOfNullToZeroGivesALiveBlockOfSizeZero) {
    track();
    void *p = MemReAllocMem(kFile, 101, nullptr, 0);
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(r.size, 0u);
    EXPECT_EQ(r.roundedSize, 0u);
    EXPECT_EQ(r.offset, 4096u);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 4096, 0u);  // the guard page itself
    EXPECT_EQ(word_at(p, 0), kGuard);
    EXPECT_FALSE(writable(p));
    EXPECT_EQ(stats_now(), statistics(1, 1, 0));
}

TEST(Tracked, ReallocToZeroReleasesTheBlockAndGivesNull) {
    track();
    void *p = block(40);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(MemReAllocMem(kFile, 102, p, 0), nullptr);
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
    EXPECT_EQ(g_regions.calls, 1u);  // no new block
    EXPECT_EQ(g_protect.unprotects, 1u);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, ReallocOfAForeignPointerToZeroLogsNofound) {
    track();
    void *p = foreign(0xFFFFFFFFu);
    EXPECT_EQ(MemReAllocMem("lib\\mod.c", 103, p, 0), nullptr);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 0, "mod.c", 103, 0, 4}));
}

TEST(Tracked, ReallocToALargerSizeKeepsTheOldBytes) {
    track();
    void *p = block(16, 104, 5);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 16; ++i) bytes(p)[i] = static_cast<unsigned char>(0xA0 + i);
    void *q = MemReAllocMem(kFile, 105, p, 64);
    ASSERT_NE(q, nullptr);
    EXPECT_NE(q, p);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(bytes(q)[i], 0xA0 + i) << i;
    const MemRec r = record(q);
    EXPECT_EQ(r.size, 64u);
    EXPECT_EQ(r.type, 0u);  // reallocated blocks are "Dyn"
    EXPECT_EQ(r.line, 105u);
    EXPECT_EQ(stats_now(), statistics(1, 2, 64));
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(g_protect.unprotects, 1u);  // the old block went back
}

TEST(Tracked, ReallocToASmallerSizeKeepsTheFirstBytesOnly) {
    track();
    void *p = block(64);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; ++i) bytes(p)[i] = static_cast<unsigned char>(i + 1);
    void *q = MemReAllocMem(kFile, 106, p, 10);
    ASSERT_NE(q, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(bytes(q)[i], i + 1) << i;
    EXPECT_EQ(record(q).size, 10u);
    EXPECT_EQ(word_at(q, 10), kGuard);  // nothing copied past the new size
    EXPECT_EQ(stats_now(), statistics(1, 2, 12));
    EXPECT_EQ(sysMemDeleteUserMem(q), 0u);
}

TEST(Tracked, ReallocOfAForeignPointerReleasesTheNewBlockAndGivesNull) {
    track();
    void *p = foreign(0xFFFFFFFFu);
    EXPECT_EQ(MemReAllocMem(kFile, 107, p, 32), nullptr);
    EXPECT_EQ(g_regions.calls, 1u);       // the new block was made
    EXPECT_EQ(g_protect.unprotects, 1u);  // and released again
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, ReallocOfADamagedBlockKeepsItLiveAndGivesNull) {
    track();
    void *p = block(3, 108);
    ASSERT_NE(p, nullptr);
    break_tail(p, 3);
    EXPECT_EQ(MemReAllocMem(kFile, 109, p, 32), nullptr);
    EXPECT_EQ(stats_now(), statistics(1, 2, 4));
    const MemRec r = record(p);
    EXPECT_EQ(r.status, 1u);  // stored by the copy's check
    EXPECT_EQ(r.line, 108u);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, ReallocWhoseRegionFailsLeavesTheOldBlockUntouched) {
    track();
    void *p = block(8, 110);
    ASSERT_NE(p, nullptr);
    std::memcpy(p, "12345678", 8);
    fail_regions(1);
    EXPECT_EQ(MemReAllocMem(kFile, 111, p, 100), nullptr);
    EXPECT_EQ(std::memcmp(p, "12345678", 8), 0);
    EXPECT_EQ(record(p).line, 110u);
    EXPECT_EQ(stats_now(), statistics(1, 1, 8));
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 100, "owner.cpp", 111, 4, 8}));
    EXPECT_TRUE(data_opens().empty());  // no dump for reallocations
}

// ---- The record limit and the error log's limit -------------------------------------------

TEST(Tracked, FullTableRefusesTheNextBlockLogsNoMemAndDumpsOnce) {
    track();
    // 2000000 real blocks would take 16 GB of address space and 4000000 kernel mappings:
    // the harness serves their regions from a pool without memory of its own, which holds
    // for blocks of 4 bytes or fewer that are never released.  The dump of the first failure
    // would write 2000000 lines: it goes to a folder that does not exist, so only its
    // opening is seen.
    data_folder_missing();
    serve_from_pool(2000000);
    for (uint32_t i = 0; i < 2000000; ++i) {
        if (ZEPO_MemTypeMallocD(1 + i % 4, 1, i, kFile) == nullptr) {
            FAIL() << "block " << i << " refused";
        }
    }
    // Sizes 1 to 4 all round to 4.
    EXPECT_EQ(stats_now(), statistics(2000000, 2000000, 8000000));
    EXPECT_TRUE(error_log().empty());
    EXPECT_TRUE(data_opens().empty());

    EXPECT_EQ(ZEPO_MemTypeMallocD(3, 2, 4242, kFile), nullptr);
    EXPECT_EQ(g_regions.calls,
              2000001u);  // obtained (from the heap) before the table was found full
    std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 3, "owner.cpp", 4242, 4, 8}));
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/out_of_memery.txt|a+"});

    EXPECT_EQ(ZEPO_MemTypeMallocD(2, 0, 4243, kFile), nullptr);
    log = error_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(entry(log[1]), (Entry{nullptr, 2, "owner.cpp", 4243, 4, 8}));
    EXPECT_EQ(data_opens().size(), 1u);  // written once per process
    EXPECT_EQ(stats_now(), statistics(2000000, 2000000, 8000000));
}

TEST(Tracked, ErrorLogKeepsTheFirst600EventsOnly) {
    track();
    void *p = foreign(2000000);  // a slot word beyond the table
    for (uint32_t i = 0; i < 700; ++i) MemFreeMem(kFile, i, p, 0);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 600u);
    for (uint32_t i = 0; i < 600; ++i) {
        EXPECT_EQ(entry(log[i]), (Entry{p, 0, "owner.cpp", i, 0, 4})) << i;
    }
}

TEST(Tracked, LogMemErrFillsOnlyTheFieldsItIsGiven) {
    track();
    int somewhere = 0;
    const char *file = "no/part/taken.c";
    sysMemLogMemErr(&somewhere, 77, file, 5, 9, 3);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    expect_entry(log[0], &somewhere, 77, file /* stored as given */, 5, 9, 3);
}

TEST(Tracked, LogMemErrAppendsInOrderAndDropsThe601st) {
    track();
    for (uint32_t i = 0; i < 601; ++i) sysMemLogMemErr(nullptr, i, "x.c", i, 0, 8);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 600u);
    EXPECT_EQ(log[0].size, 0u);
    EXPECT_EQ(log[599].size, 599u);
    EXPECT_EQ(log[599].line, 599u);
}

// ---- Allocation, step by step ------------------------------------------------------------

TEST(Tracked, AlignmentZeroGivesNullAndLogsNothing) {
    track();
    EXPECT_EQ(sysMemAddUserMem(100, 0, kFile, 1, 0), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
}

TEST(Tracked, RegionLengthThatWraps32BitsGivesNullWithoutARequest) {
    track();
    // Lengths: 8192 (rounded wraps to 0), 4096, 0, 0 (span wraps), and for 128: 8192, 0.
    const struct {
        uint32_t size, alignment;
    } cases[] = {{0xFFFFFFFFu, 4}, {0xFFFFFFFDu, 4},   {0xFFFFF000u, 4},   {0xFFFFE000u, 4},
                 {0xFFFFDFF9u, 4}, {0xFFFFFF81u, 128}, {0xFFFFDF81u, 128}, {0xFFFFFFFFu, 128}};
    for (const auto &c : cases) {
        EXPECT_LT(layout_of(c.size, c.alignment).length, c.size) << c.size;
        EXPECT_EQ(sysMemAddUserMem(c.size, c.alignment, kFile, 1, 0), nullptr) << c.size;
    }
    EXPECT_EQ(MemAlignMem(kFile, 1, 128, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, 1, 0x7FFFFFFF, 2), nullptr);  // 0xFFFFFFFE
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
}

TEST(Tracked, LargestSizeThatDoesNotWrapAsksForItsRegion) {
    track();
    // 0xFFFFDFF8 + 8 rounds to the span 0xFFFFE000: the region is 0xFFFFF000 bytes.
    fail_regions(1);
    EXPECT_EQ(sysMemAddUserMem(0xFFFFDFF8u, 4, kFile, 121, 0), nullptr);
    EXPECT_EQ(g_regions.calls, 1u);
    EXPECT_EQ(g_regions.lastLength, 0xFFFFF000u);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 0xFFFFDFF8u, "owner.cpp", 121, 4, 8}));
}

TEST(Tracked, WrappedSizeThroughMallocStillTriggersTheOutOfMemoryDump) {
    track();
    EXPECT_EQ(MemAllocMem(kFile, 122, 0xFFFFFFFFu, 0), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/out_of_memery.txt|a+"});
}

TEST(Tracked, RegionFailureLogsNoMemWithTheAlignmentAsType) {
    track();
    fail_regions(1);
    EXPECT_EQ(sysMemAddUserMem(100, 4, kFile, 33, 5), nullptr);
    EXPECT_EQ(g_regions.calls, 1u);
    EXPECT_EQ(g_regions.lastLength, 8192u);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 100, "owner.cpp", 33, 4, 8}));
    EXPECT_EQ(g_protect.protects, 0u);
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
}

TEST(Tracked, AlignRegionFailureLogsType128) {
    track();
    fail_regions(1);
    EXPECT_EQ(MemAlignMem(kFile, 34, 4096, 300), nullptr);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 300, "owner.cpp", 34, 128, 8}));
    EXPECT_TRUE(data_opens().empty());  // no dump for aligned blocks
}

TEST(Tracked, FirstFailedMallocDumpsEveryRecordIntoOutOfMemeryOnce) {
    track();
    void *p = ZEPO_MemTypeMallocD(100, 1, 21, kFile);
    ASSERT_NE(p, nullptr);
    fail_regions(2);
    EXPECT_EQ(ZEPO_MemTypeMallocD(50, 0, 22, kFile), nullptr);
    const std::string path = data_path("out_of_memery.txt");
    const std::string expected =
        std::string("\r\n-------MemInfo 1----\r\n") + kHeader +
        listing_line(0, p, 100, 21, "Fixed", "Good", static_cast<uint32_t>(ZEPO_PthreadSelf())) +
        "\r\n-------ErrMem 1----\r\n" + kHeader +
        listing_line(0, nullptr, 50, 22, "SD", "NoMem", 0);
    EXPECT_EQ(file_text(path), expected);
    EXPECT_EQ(ZEPO_MemTypeMallocD(60, 0, 23, kFile), nullptr);
    EXPECT_EQ(data_opens(), std::vector<std::string>{"/data/out_of_memery.txt|a+"});
    EXPECT_EQ(file_text(path), expected);  // not written again
    EXPECT_EQ(error_log().size(), 2u);
}

TEST(Tracked, RecordHoldsTheBlockAndItsOwner) {
    track();
    const uint32_t before = ZEPO_GetSysTimeSec();
    void *p = block(100, 131, 4);
    const uint32_t after = ZEPO_GetSysTimeSec();
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(static_cast<char *>(r.base) + r.offset, p);
    EXPECT_EQ(r.roundedSize, 100u);
    EXPECT_EQ(r.size, 100u);
    EXPECT_EQ(r.offset, 3996u);
    EXPECT_EQ(r.thread, ZEPO_PthreadSelf());
    EXPECT_EQ(r.position, 0u);
    EXPECT_EQ(r.status, 0u);  // never checked: the fresh table's zero
    EXPECT_EQ(r.type, 4u);
    EXPECT_GE(r.time, before);
    EXPECT_LE(r.time, after);
    EXPECT_EQ(r.line, 131u);
    EXPECT_EQ(r.file, kFilePart);  // a pointer into the caller's string, not a copy
}

TEST(Tracked, RecordOfABlockOfAnotherThreadNamesThatThread) {
    track();
    void *p = nullptr;
    uint64_t other = 0;
    std::thread worker([&] {
        other = ZEPO_PthreadSelf();
        p = block(10, 132);
    });
    worker.join();
    ASSERT_NE(p, nullptr);
    EXPECT_NE(other, ZEPO_PthreadSelf());
    EXPECT_EQ(record(p).thread, other);
}

TEST(Tracked, FileNameIsThePartAfterTheLastBackslash) {
    track();
    static const char file[] = "C:\\src\\mod.c";
    void *p = MemAllocMem(file, 1, 8, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).file, file + 7);
    EXPECT_STREQ(record(p).file, "mod.c");
}

TEST(Tracked, FileNameIsThePartAfterTheLastOfMixedSeparators) {
    track();
    static const char first[] = "a\\b/c\\d.c";
    static const char second[] = "a/b\\c.c";
    void *p = MemAllocMem(first, 1, 8, 0);
    void *q = MemAllocMem(second, 1, 8, 0);
    ASSERT_NE(p, nullptr);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(record(p).file, first + 6);
    EXPECT_EQ(record(q).file, second + 4);
}

TEST(Tracked, FileNameWithoutSeparatorIsTheWholeString) {
    track();
    static const char file[] = "plain.c";
    void *p = MemAllocMem(file, 1, 8, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).file, file);
}

TEST(Tracked, FileNameEndingInASeparatorIsEmpty) {
    track();
    static const char file[] = "folder/";
    void *p = MemAllocMem(file, 1, 8, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(record(p).file, file + 7);
    EXPECT_STREQ(record(p).file, "");
}

TEST(Tracked, ReleasedMiddleSlotIsTakenByTheNextBlock) {
    track();
    void *a = block(8);
    void *b = block(8);
    void *c = block(8);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(sysMemDeleteUserMem(b), 0u);
    // b's position 1 went to c, the last live record; b's slot waits at position 2.
    EXPECT_EQ(record(c).position, 1u);
    void *d = block(8);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(word_at(d, -8), 1u);  // b's slot
    EXPECT_EQ(record(a).position, 0u);
    EXPECT_EQ(record(c).position, 1u);
    EXPECT_EQ(record(d).position, 2u);
    const std::vector<MemRec> live = live_records();
    ASSERT_EQ(live.size(), 3u);
    EXPECT_EQ(static_cast<char *>(live[0].base) + live[0].offset, a);
    EXPECT_EQ(static_cast<char *>(live[1].base) + live[1].offset, c);
    EXPECT_EQ(static_cast<char *>(live[2].base) + live[2].offset, d);
}

TEST(Tracked, FreedSlotsAreTakenLastFreedFirst) {
    track();
    void *a = block(8);  // slot 0
    void *b = block(8);  // slot 1
    void *c = block(8);  // slot 2
    void *d = block(8);  // slot 3
    ASSERT_TRUE(a && b && c && d);
    EXPECT_EQ(sysMemDeleteUserMem(b), 0u);  // positions 0 3 2 | 1
    EXPECT_EQ(sysMemDeleteUserMem(a), 0u);  // positions 2 3 | 0 1
    EXPECT_EQ(record(c).position, 0u);
    EXPECT_EQ(record(d).position, 1u);
    void *e = block(8);
    void *f = block(8);
    void *g = block(8);
    ASSERT_TRUE(e && f && g);
    EXPECT_EQ(word_at(e, -8), 0u);
    EXPECT_EQ(word_at(f, -8), 1u);
    EXPECT_EQ(word_at(g, -8), 4u);  // the high-water mark reached: a fresh slot
    EXPECT_EQ(record(e).position, 2u);
    EXPECT_EQ(record(f).position, 3u);
    EXPECT_EQ(record(g).position, 4u);
    EXPECT_EQ(stats_now(), statistics(5, 5, 40));
}

TEST(Tracked, ReleasingTheLastBlockKeepsTheOtherPositions) {
    track();
    void *a = block(8);
    void *b = block(8);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(sysMemDeleteUserMem(b), 0u);
    EXPECT_EQ(record(a).position, 0u);
    void *c = block(8);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(word_at(c, -8), 1u);
    EXPECT_EQ(record(c).position, 1u);
}

TEST(Tracked, ReusedSlotShowsThePreviousBlocksStatusUntilChecked) {
    track();
    void *damaged = block(3);
    ASSERT_NE(damaged, nullptr);
    break_tail(damaged, 3);
    EXPECT_EQ(sysMemDeleteUserMem(damaged), 1u);  // the check stored 1 in slot 0
    void *fresh = block(8);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(word_at(fresh, -8), 0u);
    EXPECT_EQ(word_at(fresh, 8), kGuard);
    EXPECT_EQ(record(fresh).status, 1u);  // "Down", though nothing is wrong with it
    MemSelfCheck();
    EXPECT_EQ(record(fresh).status, 0u);
}

TEST(Tracked, ScanMarksStayUntilTheNextCheck) {
    track();
    void *p = block(3);
    ASSERT_NE(p, nullptr);
    const unsigned char kept = bytes(p)[3];
    break_tail(p, 3);
    MemSelfCheck();
    bytes(p)[3] = kept;  // repaired, but not checked yet
    EXPECT_EQ(record(p).status, 1u);
    MemSelfCheck();
    EXPECT_EQ(record(p).status, 0u);
}

// ---- Guard pages ----------------------------------------------------------------------------

TEST(Tracked, GuardPageIsProtectedAtItsAddressWhileTheBlockLives) {
    track();
    void *p = block(1000);
    ASSERT_NE(p, nullptr);
    char *guard = guard_page(p, 1000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(guard) % 4096, 0u);
    EXPECT_EQ(g_protect.protects, 1u);
    EXPECT_EQ(g_protect.lastProtected, guard);
    EXPECT_EQ(g_protect.unprotects, 0u);
    EXPECT_FALSE(writable(guard));
    EXPECT_FALSE(writable(guard + 4095));
}

TEST(Tracked, ReleaseMakesTheGuardPageWritableBeforeFreeingTheRegion) {
    track();
    void *p = block(1000);
    ASSERT_NE(p, nullptr);
    char *guard = guard_page(p, 1000);
    EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
    EXPECT_EQ(g_protect.unprotects, 1u);
    EXPECT_EQ(g_protect.lastUnprotected, guard);
    EXPECT_EQ(g_protect.protects, 1u);
}

TEST(Tracked, GuardPageOfALargeBlockFollowsItsLastPage) {
    track();
    void *p = block(10000, 141);
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(r.offset, 12288u - 10000u);  // span: 10008 rounded up to 3 pages
    EXPECT_EQ(g_regions.lastLength, 16384u);
    EXPECT_EQ(g_protect.lastProtected, static_cast<char *>(r.base) + 12288);
    EXPECT_TRUE(writable(p));
    EXPECT_TRUE(writable(bytes(p) + 9999));
    EXPECT_FALSE(writable(bytes(p) + 10000));
}

TEST(Tracked, GuardPagesChangeOnlyWithoutTheTableLock) {
    track();
    g_probe.armed = true;
    void *p = block(64);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
    g_probe.armed = false;
    for (std::thread &late : g_probe.late) late.join();
    EXPECT_EQ(g_probe.probes, 2);  // once protected, once unprotected
    EXPECT_EQ(g_probe.heldAtProbe, 0);
}

// ---- The integrity check --------------------------------------------------------------------
// Called bare: its callers hold the table lock, which a single-threaded test need not take.

TEST(Tracked, CheckRefusesASlotWordAbove1999999) {
    track();
    void *p = block(8);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sysMemCheckUserAddr(foreign(2000000)), nullptr);
    EXPECT_EQ(sysMemCheckUserAddr(foreign(0xFFFFFFFFu)), nullptr);
    // Inside a live block, 4 bytes in: the word 8 bytes before is the head guard.
    EXPECT_EQ(sysMemCheckUserAddr(bytes(p) + 4), nullptr);
}

TEST(Tracked, CheckRefusesAFreeSlot) {
    track();
    void *p = block(8);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sysMemCheckUserAddr(foreign(1)), nullptr);
    EXPECT_EQ(sysMemCheckUserAddr(foreign(1999999)), nullptr);
}

TEST(Tracked, CheckRefusesAnAddressThatIsNotTheRecordsBlock) {
    track();
    void *p = block(32);
    ASSERT_NE(p, nullptr);
    const uint32_t slot = word_at(p, -8);
    std::memcpy(p, &slot, sizeof slot);  // p + 8 now carries p's slot number
    EXPECT_EQ(sysMemCheckUserAddr(bytes(p) + 8), nullptr);
    EXPECT_EQ(sysMemCheckUserAddr(foreign(slot)), nullptr);
    EXPECT_NE(sysMemCheckUserAddr(p), nullptr);
}

TEST(Tracked, CheckRefusesARecordBeyondTheLiveCount) {
    track();
    void *p = block(8);
    ASSERT_NE(p, nullptr);
    MemRec *r = sysMemCheckUserAddr(p);
    ASSERT_NE(r, nullptr);
    r->position = 1;  // the count is 1
    EXPECT_EQ(sysMemCheckUserAddr(p), nullptr);
    r->position = 0;
    EXPECT_EQ(sysMemCheckUserAddr(p), r);
}

TEST(Tracked, CheckOfAnIntactBlockStoresGoodInItsRecord) {
    track();
    void *p = block(20, 151, 2);
    ASSERT_NE(p, nullptr);
    MemRec *r = sysMemCheckUserAddr(p);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(static_cast<char *>(r->base) + r->offset, p);
    EXPECT_EQ(r->line, 151u);
    EXPECT_EQ(r->status, 0u);
    r->status = 9;
    EXPECT_EQ(sysMemCheckUserAddr(p), r);
    EXPECT_EQ(r->status, 0u);  // stored again
}

TEST(Tracked, CheckOfABrokenTailStoresDown) {
    track();
    void *p = block(5);
    ASSERT_NE(p, nullptr);
    break_tail(p, 5);
    MemRec *r = sysMemCheckUserAddr(p);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->status, 1u);
    EXPECT_EQ(record(p).status, 1u);
}

TEST(Tracked, CheckOfABrokenHeadStoresUp) {
    track();
    void *p = block(5);
    ASSERT_NE(p, nullptr);
    break_head(p);
    MemRec *r = sysMemCheckUserAddr(p);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->status, 2u);
}

TEST(Tracked, CheckOfBothGuardsBrokenStoresDown) {
    track();
    void *p = block(5);
    ASSERT_NE(p, nullptr);
    break_head(p);
    break_tail(p, 5);
    MemRec *r = sysMemCheckUserAddr(p);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->status, 1u);
}

// ---- Release ---------------------------------------------------------------------------------

TEST(Tracked, DeleteOfAnIntactBlockGivesZeroAndTakesItOffTheRecords) {
    track();
    void *p = block(100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
    EXPECT_TRUE(live_records().empty());
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, DeleteOfABrokenTailGivesOneAndQuarantinesTheBlock) {
    track();
    void *keep = block(8);
    void *p = block(7, 161, 5);
    ASSERT_TRUE(keep && p);
    std::memset(p, 0x5A, 7);
    break_tail(p, 7);
    EXPECT_EQ(sysMemDeleteUserMem(p), 1u);
    EXPECT_EQ(stats_now(), statistics(1, 2, 8));
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 7, "owner.cpp", 161, 5, 1}));
    EXPECT_EQ(log[0].file, kFilePart);
    // Neither freed nor unprotected.
    EXPECT_EQ(bytes(p)[0], 0x5A);
    EXPECT_EQ(bytes(p)[6], 0x5A);
    EXPECT_FALSE(writable(bytes(p) + 8));
    EXPECT_EQ(g_protect.unprotects, 0u);
    const std::vector<MemRec> live = live_records();
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(static_cast<char *>(live[0].base) + live[0].offset, keep);
}

TEST(Tracked, DeleteOfABrokenHeadGivesTwoAndQuarantinesTheBlock) {
    track();
    void *p = block(12, 162, 1);
    ASSERT_NE(p, nullptr);
    break_head(p);
    EXPECT_EQ(sysMemDeleteUserMem(p), 2u);
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 12, "owner.cpp", 162, 1, 2}));
    EXPECT_FALSE(writable(bytes(p) + 12));
    EXPECT_EQ(g_protect.unprotects, 0u);
}

TEST(Tracked, DeleteOfAForeignPointerGivesFourAndLogsNothing) {
    track();
    EXPECT_EQ(sysMemDeleteUserMem(foreign(0xFFFFFFFFu)), 4u);
    EXPECT_EQ(sysMemDeleteUserMem(foreign(3)), 4u);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, QuarantinedBlockReleasedAgainIsNofound) {
    track();
    void *p = block(3, 163);
    ASSERT_NE(p, nullptr);
    break_tail(p, 3);
    ZEPO_MemTypeFreeD(p, 0, 164, kFile);
    ZEPO_MemTypeFreeD(p, 0, 165, kFile);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 3, "owner.cpp", 163, 0, 1}));
    EXPECT_EQ(entry(log[1]), (Entry{p, 0, "owner.cpp", 165, 0, 4}));
}

TEST(Tracked, DamagedBlockIsLoggedOnceWithItsOwnPosition) {
    track();
    void *p = ZEPO_MemTypeMallocD(6, 5, 166, kFile);
    ASSERT_NE(p, nullptr);
    break_tail(p, 6);
    ZEPO_MemTypeFreeD(p, 1, 167, "elsewhere/free.c");
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 6, "owner.cpp", 166, 5, 1}));
}

TEST(Tracked, ReleaseOfAnAddressInsideALiveBlockIsNofoundAndKeepsTheBlock) {
    track();
    void *p = block(16, 168);
    ASSERT_NE(p, nullptr);
    ZEPO_MemTypeFreeD(bytes(p) + 4, 0, 169, kFile);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{bytes(p) + 4, 0, "owner.cpp", 169, 0, 4}));
    EXPECT_EQ(stats_now(), statistics(1, 1, 16));
    EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
}

// ---- Copies ----------------------------------------------------------------------------------

TEST(Tracked, CopyIntoASmallerBlockCopiesItsSize) {
    track();
    void *to = block(10);
    void *from = block(20);
    ASSERT_TRUE(to && from);
    for (int i = 0; i < 20; ++i) bytes(from)[i] = static_cast<unsigned char>(i + 1);
    EXPECT_EQ(sysMemCopyUserMem(to, from), 0u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(bytes(to)[i], i + 1) << i;
    EXPECT_EQ(word_at(to, 10), kGuard);
}

TEST(Tracked, CopyFromASmallerBlockCopiesItsSizeOnly) {
    track();
    void *to = block(20);
    void *from = block(10);
    ASSERT_TRUE(to && from);
    std::memset(to, 0xEE, 20);
    std::memset(from, 0x44, 10);
    EXPECT_EQ(sysMemCopyUserMem(to, from), 0u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(bytes(to)[i], 0x44) << i;
    for (int i = 10; i < 20; ++i) EXPECT_EQ(bytes(to)[i], 0xEE) << i;
}

TEST(Tracked, CopyFromADamagedSourceIsRefused) {
    track();
    void *to = block(8);
    void *from = block(3);
    ASSERT_TRUE(to && from);
    std::memset(to, 0xEE, 8);
    std::memset(from, 0x44, 3);
    break_tail(from, 3);
    EXPECT_EQ(sysMemCopyUserMem(to, from), 1u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(bytes(to)[i], 0xEE) << i;
    EXPECT_EQ(record(from).status, 1u);
}

TEST(Tracked, CopyIntoADamagedDestinationIsRefused) {
    track();
    void *to = block(8);
    void *from = block(8);
    ASSERT_TRUE(to && from);
    std::memset(to, 0xEE, 8);
    std::memset(from, 0x44, 8);
    break_head(to);
    EXPECT_EQ(sysMemCopyUserMem(to, from), 1u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(bytes(to)[i], 0xEE) << i;
    EXPECT_EQ(record(to).status, 2u);
}

TEST(Tracked, CopyWithAForeignPointerIsRefused) {
    track();
    void *p = block(8);
    ASSERT_NE(p, nullptr);
    std::memset(p, 0xEE, 8);
    void *other = foreign(0xFFFFFFFFu);
    EXPECT_EQ(sysMemCopyUserMem(p, other), 1u);
    EXPECT_EQ(sysMemCopyUserMem(other, p), 1u);
    EXPECT_EQ(bytes(p)[0], 0xEE);
    EXPECT_TRUE(error_log().empty());
}

// ---- Foreign pointers ------------------------------------------------------------------------

TEST(Tracked, FreeOfAForeignStaticBufferLogsNofoundWithTheFilePart) {
    track();
    static const char file[] = "x/y/z.c";
    void *p = foreign(0xFFFFFFFFu);
    MemFreeMem(file, 77, p, 3);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 0, "z.c", 77, 3, 4}));
    EXPECT_EQ(log[0].file, file + 4);
    EXPECT_EQ(word_at(p, -8), 0xFFFFFFFFu);  // left alone
}

TEST(Tracked, FreeOfACHeapBlockLogsNofoundAndLeavesItAlone) {
    track();
    auto *p = static_cast<unsigned char *>(std::malloc(64));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x77, 64);
    ZEPO_MemTypeFreeD(p, 0, 171, kFile);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 0, "owner.cpp", 171, 0, 4}));
    for (int i = 0; i < 64; ++i) EXPECT_EQ(p[i], 0x77) << i;
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
    std::free(p);  // still the C heap's
}

TEST(Tracked, FreeOfNullIsLoggedByTheEngine) {
    track();
    MemFreeMem(kFile, 172, nullptr, 0);
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{nullptr, 0, "owner.cpp", 172, 0, 4}));
}

TEST(Tracked, TypeFreeOfNullDoesNothing) {
    track();
    void *p = block(8);
    ASSERT_NE(p, nullptr);
    ZEPO_MemTypeFreeD(nullptr, 0, 173, kFile);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(stats_now(), statistics(1, 1, 8));
}

// ---- Counters --------------------------------------------------------------------------------

TEST(Tracked, CountersFollowAllocationsAndReleases) {
    track();
    void *a = block(1);     // rounded 4
    void *b = block(100);   // 100
    void *c = block(4097);  // 4100
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(stats_now(), statistics(3, 3, 4204));
    EXPECT_EQ(sysMemDeleteUserMem(b), 0u);
    EXPECT_EQ(stats_now(), statistics(2, 3, 4104));
    void *d = MemAlignMem(kFile, 1, 8, 100);  // 128
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(stats_now(), statistics(3, 3, 4232));
    void *e = block(0);  // rounded 0
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(stats_now(), statistics(4, 4, 4232));
}

TEST(Tracked, HighWaterMarkNeverDrops) {
    track();
    void *blocks[5];
    for (void *&p : blocks) {
        p = block(16);
        ASSERT_NE(p, nullptr);
    }
    for (void *p : blocks) EXPECT_EQ(sysMemDeleteUserMem(p), 0u);
    EXPECT_EQ(stats_now(), statistics(0, 5, 0));
    void *again = block(16);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(stats_now(), statistics(1, 5, 16));
}

// ---- The switch and the entry points in the tracked mode ---------------------------------------

TEST(Tracked, SecondInitDoesNothingAndKeepsTheTables) {
    track();
    void *p = ZEPO_MemTypeMallocD(40, 0, 181, kFile);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(record(p).line, 181u);
    EXPECT_EQ(stats_now(), statistics(1, 1, 40));
    ZEPO_MemTypeFreeD(p, 0, 182, kFile);
    EXPECT_TRUE(error_log().empty());
    EXPECT_EQ(stats_now(), statistics(0, 1, 0));
}

TEST(Tracked, ReportsAnswerWhileTracked) {
    track();
    EXPECT_EQ(ZEPO_MemGetMemStatus(capture), 0u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, capture), 0u);
    EXPECT_EQ(ZEPO_MemGetMemScan(capture), 0u);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(capture), 0u);
    // The statistics, the listing's end (nothing live), the scan's end (nothing damaged, an
    // empty log) and the monitor's answer.
    EXPECT_EQ(take_chunks().size(), 4u);
}

TEST(Tracked, UnInitReturnsToThePlainHeap) {
    track();
    void *tracked = ZEPO_MemTypeMallocD(40, 0, 1, kFile);
    ASSERT_NE(tracked, nullptr);
    ZEPO_MemTypeFreeD(tracked, 0, 1, kFile);
    const unsigned regions = g_regions.calls;
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);
    take_chunks();
    EXPECT_EQ(ZEPO_MemGetMemStatus(capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemScan(capture), 1u);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(capture), 1u);
    EXPECT_TRUE(take_chunks().empty());
    void *plain = ZEPO_MemTypeMallocD(100, 0, 1, kFile);
    ASSERT_NE(plain, nullptr);
    EXPECT_GE(malloc_usable_size(plain), 100u);
    void *aligned = ZEPO_MemTypeMallocD(100, 2, 1, kFile);  // 356 bytes aligned to 128
    ASSERT_NE(aligned, nullptr);
    EXPECT_GE(malloc_usable_size(aligned), 356u);
    EXPECT_EQ(g_regions.calls, regions);
    EXPECT_EQ(g_protect.protects, 1u);
    ZEPO_MemTypeFreeD(plain, 0, 1, kFile);
    ZEPO_MemTypeFreeD(aligned, 2, 1, kFile);
    EXPECT_EQ(g_regions.calls, regions);
}

TEST(Tracked, UnInitInThePlainModeDoesNothing) {
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemGetMemStatus(capture), 1u);
    void *plain = ZEPO_MemTypeMallocD(10, 0, 1, kFile);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    ZEPO_MemTypeFreeD(plain, 0, 1, kFile);
}

TEST(Tracked, CountersSurviveSwitchingOffAndOnAgain) {
    track();
    void *a = ZEPO_MemTypeMallocD(8, 0, 1, kFile);
    void *b = ZEPO_MemTypeMallocD(8, 0, 1, kFile);
    ASSERT_TRUE(a && b);
    ZEPO_MemTypeFreeD(a, 0, 1, kFile);
    ZEPO_MemTypeFreeD(b, 0, 1, kFile);
    MemFreeMem(kFile, 191, foreign(0xFFFFFFFFu), 0);  // one error entry
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(stats_now(), statistics(0, 2, 0));
    // The fresh error log is empty, but its count was kept.
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].base, nullptr);
}

namespace {

// VmData of this process, in kB; 0 when it cannot be read.
unsigned long data_size_kb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmData:", 0) == 0) return std::strtoul(line.c_str() + 7, nullptr, 10);
    }
    return 0;
}

// In a child: the tracked mode cannot get its 128000000 bytes of records.  Exit code 0 when
// the plain mode stays, another code naming the step that went wrong.
int init_without_room() {
    const unsigned long kb = data_size_kb();
    if (kb == 0) return 10;
    // 16 MB above what the process holds: room for the error log and the positions, not
    // for the records.
    const rlim_t limit = (static_cast<rlim_t>(kb) + 16384) * 1024;
    const struct rlimit room = {limit, limit};
    if (setrlimit(RLIMIT_DATA, &room) != 0) return 11;
    if (ZEPO_MemInitMemMange() != 1) return 12;
    if (ZEPO_MemGetMemStatus(capture) != 1) return 13;
    void *plain = ZEPO_MemTypeMallocD(100, 0, 1, kFile);
    if (plain == nullptr) return 14;
    if (g_regions.calls != 0) return 15;
    if (malloc_usable_size(plain) < 100) return 16;
    ZEPO_MemTypeFreeD(plain, 0, 1, kFile);
    if (ZEPO_MemInitMemMange() != 1) return 17;  // still off: it tries again, and fails again
    if (ZEPO_MemUnInitMemMange() != 0) return 18;
    if (g_regions.calls != 0) return 19;
    return 0;
}

}  // namespace

TEST(Tracked, InitFailureLeavesThePlainMode) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(init_without_room());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "step " << WEXITSTATUS(status) << " of the child failed";
}

TEST(Tracked, MallocSFillsATrackedBlock) {
    track();
    void *p = ZEPO_MemTypeMallocS(8, 0x1FF, 0, 201, kFile);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(bytes(p)[i], 0xFF) << i;
    const MemRec r = record(p);
    EXPECT_EQ(r.size, 8u);
    EXPECT_EQ(r.line, 201u);
    EXPECT_EQ(word_at(p, 8), kGuard);
    EXPECT_EQ(word_at(p, -4), kGuard);
    ZEPO_MemTypeFreeD(p, 0, 202, kFile);
    EXPECT_TRUE(error_log().empty());
}

TEST(Tracked, MallocSOfZeroGivesNullWithoutARequest) {
    track();
    EXPECT_EQ(ZEPO_MemTypeMallocS(0, 1, 0, 1, kFile), nullptr);
    EXPECT_EQ(ZEPO_MemTypeMallocD(0, 0, 1, kFile), nullptr);
    EXPECT_EQ(g_regions.calls, 0u);
    EXPECT_TRUE(error_log().empty());
    EXPECT_TRUE(data_opens().empty());  // not a failed allocation
}

TEST(Tracked, MallocDOfCacheTypeIsAnOrdinaryTrackedBlock) {
    track();
    void *p = ZEPO_MemTypeMallocD(100, 2, 211, kFile);
    ASSERT_NE(p, nullptr);
    const MemRec r = record(p);
    EXPECT_EQ(r.type, 2u);
    EXPECT_EQ(r.size, 100u);  // no spare bytes
    EXPECT_EQ(r.roundedSize, 100u);
    EXPECT_EQ(r.offset, 3996u);
    EXPECT_EQ(g_regions.calls, 1u);
    EXPECT_EQ(g_regions.lastLength, 8192u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 128, 3996u % 128);  // aligned to 4 only
    EXPECT_FALSE(writable(bytes(p) + 100));
}

TEST(Tracked, TypeFreeHandsItsTypeAndPositionToTheLog) {
    track();
    void *p = foreign(0xFFFFFFFFu);
    ZEPO_MemTypeFreeD(p, 5, 99, "a/b.c");
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(entry(log[0]), (Entry{p, 0, "b.c", 99, 5, 4}));
}

TEST(Tracked, DestroyingAScandirListLogsEveryEntryAsForeign) {
    track();
    qel_test::TempDir dir;
    for (const char *name : {"a", "b", "c"}) std::ofstream(dir / name) << name;
    struct dirent **list = nullptr;
    const int32_t n = ZEPO_ScanDir(dir.c_str(), &list, nullptr, nullptr);
    ASSERT_EQ(n, 5);  // ".", ".." and three files
    std::vector<struct dirent *> entries(list, list + n);
    ZEPO_DestoryNameList(list, static_cast<uint32_t>(n));
    // The C heap's blocks: each logged, none freed.
    const std::vector<MemRec> log = error_log();
    ASSERT_EQ(log.size(), 6u);
    for (int32_t i = 0; i < n; ++i) {
        EXPECT_EQ(entry(log[i]), (Entry{entries[i], 0, "os_fil_config.cpp", log[i].line, 0, 4}))
            << i;
        EXPECT_EQ(list[i], nullptr) << i;
    }
    EXPECT_EQ(entry(log[5]), (Entry{list, 0, "os_fil_config.cpp", log[5].line, 0, 4}));
    std::set<std::string> names;
    for (struct dirent *e : entries) names.insert(e->d_name);  // still readable
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b", "c"}));
    EXPECT_EQ(stats_now(), statistics(0, 0, 0));
    for (struct dirent *e : entries) std::free(e);  // the test's to release now
    std::free(list);
}
