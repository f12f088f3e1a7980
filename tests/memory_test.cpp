// Memory entry points: the plain mode, where the C heap serves them, then the switch to the
// tracked mode and the calls it forwards (each test runs in its own process, so a test that
// switches the tracked mode on starts from the plain mode and leaves nothing behind).

#include <gtest/gtest.h>

#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qel_mem_engine.h"
#include "qel_memory.h"

#include "test_support.h"

namespace {

using qel_test::kSentinel;
constexpr uint32_t kTypePlain = 0;
constexpr uint32_t kTypeAligned = 2;

bool aligned_to(const void *p, uintptr_t alignment) {
    return reinterpret_cast<uintptr_t>(p) % alignment == 0;
}

void release(void *block) { ZEPO_MemTypeFreeD(block, kTypePlain, __LINE__, __FILE__); }

}  // namespace

TEST(Memory, MallocOfZeroBytesGivesNull) {
    EXPECT_EQ(ZEPO_MemTypeMallocD(0, kTypePlain, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(ZEPO_MemTypeMallocD(0, kTypeAligned, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(ZEPO_MemTypeMallocD(0, 7, __LINE__, __FILE__), nullptr);
}

TEST(Memory, MallocGivesAWritableBlockOfTheSize) {
    auto *block =
        static_cast<unsigned char *>(ZEPO_MemTypeMallocD(100, kTypePlain, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    EXPECT_GE(malloc_usable_size(block), 100u);
    memset(block, 0xA5, 100);
    EXPECT_EQ(block[99], 0xA5);
    release(block);
}

TEST(Memory, AlignedTypeObtainsSizePlus256BytesAlignedTo128) {
    for (uint32_t size : {1u, 100u, 4096u}) {
        void *block = ZEPO_MemTypeMallocD(size, kTypeAligned, __LINE__, __FILE__);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(aligned_to(block, 128)) << block;
        EXPECT_GE(malloc_usable_size(block), size + 256u);
        memset(block, 0, size + 256u);  // the spare bytes are ours too
        release(block);
    }
}

TEST(Memory, AlignIgnoresTheAlignmentAndGivesBlocksAlignedTo128Only) {
    constexpr int kBlocks = 64;
    void *blocks[kBlocks];
    int page_aligned = 0;
    for (void *&block : blocks) {
        block = ZEPO_MemAlignD(4096, 200, __LINE__, __FILE__);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(aligned_to(block, 128)) << block;
        page_aligned += aligned_to(block, 4096) ? 1 : 0;
    }
    // Honouring 4096 would align every block to it; 128 leaves most of them off a page.
    EXPECT_LT(page_aligned, kBlocks);
    for (void *block : blocks) release(block);
}

TEST(Memory, AlignWithSmallAlignmentStillAlignsTo128) {
    constexpr int kBlocks = 64;
    void *blocks[kBlocks];
    for (void *&block : blocks) {
        block = ZEPO_MemAlignD(8, 24, __LINE__, __FILE__);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(aligned_to(block, 128)) << block;
    }
    for (void *block : blocks) release(block);
}

TEST(Memory, AlignOfZeroBytesIsNotRefused) {
    void *block = ZEPO_MemAlignD(128, 0, __LINE__, __FILE__);
    EXPECT_NE(block, nullptr);  // memalign's answer
    release(block);
}

TEST(Memory, AlignedTypeSumOfSizeAndSpareIsTakenIn32Bits) {
    // 0xFFFFFFFF + 256 wraps to 255: a small block, not a failed 4 GiB one.
    void *block = ZEPO_MemTypeMallocD(0xFFFFFFFFu, kTypeAligned, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(aligned_to(block, 128));
    EXPECT_GE(malloc_usable_size(block), 255u);
    EXPECT_LT(malloc_usable_size(block), 4096u);
    release(block);
}

// ZEPO_MemTypeMallocS(8, 0x1FF, …) fills with 0xFF bytes: the low byte of the fill.
void expect_filled_with_low_byte_of_fill() {
    auto *block =
        static_cast<unsigned char *>(ZEPO_MemTypeMallocS(8, 0x1FF, kTypePlain, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(block[i], 0xFF) << i;
    release(block);
}

TEST(Memory, MallocSFillsWithTheLowByteOfTheFill) { expect_filled_with_low_byte_of_fill(); }

TEST(Memory, MallocSFillsWithZeroAndWithACharacter) {
    auto *zeroed =
        static_cast<unsigned char *>(ZEPO_MemTypeMallocS(32, 0, kTypePlain, __LINE__, __FILE__));
    auto *letters =
        static_cast<unsigned char *>(ZEPO_MemTypeMallocS(32, 'A', kTypePlain, __LINE__, __FILE__));
    ASSERT_NE(zeroed, nullptr);
    ASSERT_NE(letters, nullptr);
    for (int i = 0; i < 32; ++i) {
        EXPECT_EQ(zeroed[i], 0) << i;
        EXPECT_EQ(letters[i], 'A') << i;
    }
    release(zeroed);
    release(letters);
}

TEST(Memory, MallocSOfAlignedTypeIsAlignedAndFilled) {
    auto *block = static_cast<unsigned char *>(
        ZEPO_MemTypeMallocS(64, 0x5A, kTypeAligned, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(aligned_to(block, 128));
    for (int i = 0; i < 64; ++i) EXPECT_EQ(block[i], 0x5A) << i;
    release(block);
}

TEST(Memory, MallocSOfZeroBytesGivesNull) {
    EXPECT_EQ(ZEPO_MemTypeMallocS(0, 0x11, kTypePlain, __LINE__, __FILE__), nullptr);
}

TEST(Memory, CallocGivesAZeroedBlock) {
    auto *block = static_cast<unsigned char *>(ZEPO_MemCallocD(10, 12, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    EXPECT_GE(malloc_usable_size(block), 120u);
    for (int i = 0; i < 120; ++i) EXPECT_EQ(block[i], 0) << i;
    release(block);
}

TEST(Memory, CallocOfZeroIsNotRefused) {
    void *block = ZEPO_MemCallocD(0, 8, __LINE__, __FILE__);
    EXPECT_NE(block, nullptr);  // calloc's answer
    release(block);
}

TEST(Memory, CallocWhoseProductOverflowsGivesNull) {
    // 2^32 - 1 elements of 2^32 - 1 bytes cannot be had.
    errno = 0;
    EXPECT_EQ(ZEPO_MemCallocD(0xFFFFFFFFu, 0xFFFFFFFFu, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(errno, ENOMEM);  // what the C heap leaves stays
}

TEST(Memory, FreeOfNullDoesNothing) {
    errno = kSentinel;
    ZEPO_MemTypeFreeD(nullptr, kTypePlain, __LINE__, __FILE__);
    ZEPO_MemTypeFreeD(nullptr, kTypeAligned, __LINE__, __FILE__);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Memory, EveryKindOfBlockIsReleasedByFree) {
    void *blocks[] = {
        ZEPO_MemTypeMallocD(16, kTypePlain, __LINE__, __FILE__),
        ZEPO_MemTypeMallocD(16, kTypeAligned, __LINE__, __FILE__),
        ZEPO_MemTypeMallocS(16, 1, kTypePlain, __LINE__, __FILE__),
        ZEPO_MemCallocD(2, 8, __LINE__, __FILE__),
        ZEPO_MemAlignD(64, 16, __LINE__, __FILE__),
    };
    for (void *block : blocks) {
        EXPECT_NE(block, nullptr);
        ZEPO_MemTypeFreeD(block, kTypePlain, __LINE__, __FILE__);
    }
}

TEST(Memory, SuccessfulCallsLeaveErrnoAlone) {
    errno = kSentinel;
    void *block = ZEPO_MemTypeMallocS(48, 0, kTypePlain, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    release(block);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Memory, MemCmpOrdersAsMemcmp) {
    const unsigned char a[] = {1, 2, 3, 0x80};
    const unsigned char b[] = {1, 2, 4, 0x00};
    EXPECT_EQ(ZEPO_MemCmp(a, a, 4), 0);
    EXPECT_LT(ZEPO_MemCmp(a, b, 4), 0);
    EXPECT_GT(ZEPO_MemCmp(b, a, 4), 0);
    EXPECT_EQ(ZEPO_MemCmp(a, b, 2), 0);
    EXPECT_EQ(ZEPO_MemCmp(a, b, 0), 0);
}

TEST(Memory, MemCmpComparesBytesAsUnsigned) {
    const unsigned char high[] = {0x80};
    const unsigned char low[] = {0x7F};
    EXPECT_GT(ZEPO_MemCmp(high, low, 1), 0);
}

// ---- The switch and the tracked mode ------------------------------------------------------

namespace {

unsigned g_outputs = 0;
void count_output(const char *, uint32_t) { ++g_outputs; }

// The live records, copied in position order.
std::vector<MemRec> live() {
    MemRec *list = nullptr;
    const uint32_t n = sysMemSortMemInfo(&list, nullptr, 2);
    std::vector<MemRec> out(list, list + n);
    free(list);
    return out;
}

std::vector<MemRec> errors() {
    MemRec *list = nullptr;
    const uint32_t n = sysMemGetErrMemLog(&list);
    std::vector<MemRec> out(list, list + n);
    free(list);
    return out;
}

void *address_of(const MemRec &r) { return static_cast<char *>(r.base) + r.offset; }

}  // namespace

TEST(Memory, ReportsReturnOneAndCallNothingWhileTheTrackedModeIsOff) {
    EXPECT_EQ(ZEPO_MemGetMemStatus(count_output), 1u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, count_output), 1u);
    EXPECT_EQ(ZEPO_MemGetMemScan(count_output), 1u);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(count_output), 1u);
    EXPECT_EQ(g_outputs, 0u);
}

TEST(Memory, SwitchingOnMakesTheReportsAnswer) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemGetMemStatus(count_output), 0u);
    EXPECT_EQ(g_outputs, 1u);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, count_output), 0u);
    EXPECT_EQ(g_outputs, 2u);  // no live block: the listing end only
    EXPECT_EQ(ZEPO_MemGetMemScan(count_output), 0u);
    EXPECT_EQ(g_outputs, 3u);  // nothing damaged, nothing logged: the scan end only
}

TEST(Memory, ANullOutputFunctionIsRefusedOnlyWhileOn) {
    EXPECT_EQ(ZEPO_MemGetMemStatus(nullptr), 1u);
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemGetMemStatus(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(ZEPO_MemGetMemRec(0, 0, nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(ZEPO_MemGetMemScan(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(ZEPO_MemGetMemoryUseMonitor(nullptr), 0xFFFFFFFFu);
}

TEST(Memory, SwitchingOnASecondTimeDoesNothing) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *block = ZEPO_MemTypeMallocD(10, kTypePlain, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(ZEPO_MemInitMemMange(), 0u);
    // The same tables: the block is still known and releases cleanly.
    ASSERT_EQ(live().size(), 1u);
    release(block);
    EXPECT_TRUE(live().empty());
    EXPECT_TRUE(errors().empty());
}

TEST(Memory, SwitchingOffGivesTheCHeapBack) {
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);  // off already: nothing happens
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *tracked = ZEPO_MemTypeMallocD(100, kTypePlain, __LINE__, __FILE__);
    ASSERT_NE(tracked, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(tracked) % 4096, 3996u);  // ends on its guard page
    release(tracked);
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemGetMemStatus(count_output), 1u);
    void *plain = ZEPO_MemTypeMallocD(100, kTypePlain, __LINE__, __FILE__);
    ASSERT_NE(plain, nullptr);
    EXPECT_GE(malloc_usable_size(plain), 100u);  // a block of the C heap again
    release(plain);
}

TEST(Memory, TrackedMallocOfZeroBytesGivesNullWithoutARecord) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemTypeMallocD(0, kTypePlain, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(ZEPO_MemTypeMallocS(0, 0, kTypePlain, __LINE__, __FILE__), nullptr);
    EXPECT_TRUE(live().empty());
    EXPECT_TRUE(errors().empty());
}

TEST(Memory, TrackedMallocChargesTheBlockToItsSourcePositionAndType) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *block = ZEPO_MemTypeMallocD(30, 4, 1234, "app/net/link.c");
    ASSERT_NE(block, nullptr);
    const std::vector<MemRec> records = live();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(address_of(records[0]), block);
    EXPECT_EQ(records[0].size, 30u);
    EXPECT_EQ(records[0].roundedSize, 32u);
    EXPECT_EQ(records[0].line, 1234u);
    EXPECT_STREQ(records[0].file, "link.c");
    EXPECT_EQ(records[0].type, 4u);
    release(block);
}

TEST(Memory, TrackedMallocSFillsWithTheLowByteOfTheFill) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    expect_filled_with_low_byte_of_fill();
}

TEST(Memory, TrackedAlignedTypeIsAnOrdinaryBlockOfTypeCache) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *block = ZEPO_MemTypeMallocD(10, kTypeAligned, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    const std::vector<MemRec> records = live();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].size, 10u);         // no spare bytes in this mode
    EXPECT_EQ(records[0].roundedSize, 12u);  // aligned to 4 only
    EXPECT_EQ(records[0].type, 2u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 4096u - 12u);
    release(block);
}

TEST(Memory, TrackedAlignIgnoresTheAlignmentAndGivesBlocksAlignedTo128Only) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *block = ZEPO_MemAlignD(4096, 100, __LINE__, __FILE__);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(aligned_to(block, 128));
    EXPECT_FALSE(aligned_to(block, 4096));  // the block ends on its guard page: 128 short of it
    const std::vector<MemRec> records = live();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, 3u);  // "Aln"
    EXPECT_EQ(records[0].roundedSize, 128u);
    release(block);
}

TEST(Memory, TrackedCallocGivesAZeroedBlockAndRefusesCountsAbove2147483647) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    EXPECT_EQ(ZEPO_MemCallocD(0x80000000u, 1, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(ZEPO_MemCallocD(1, 0x80000000u, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(ZEPO_MemCallocD(0, 8, __LINE__, __FILE__), nullptr);
    auto *block = static_cast<unsigned char *>(ZEPO_MemCallocD(3, 5, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 15; ++i) EXPECT_EQ(block[i], 0) << i;
    const std::vector<MemRec> records = live();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].size, 15u);
    EXPECT_EQ(records[0].type, 0u);
    EXPECT_TRUE(errors().empty());  // refusals log nothing
    release(block);
}

TEST(Memory, TrackedFreeOfNullDoesNothing) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    ZEPO_MemTypeFreeD(nullptr, kTypePlain, __LINE__, __FILE__);
    EXPECT_TRUE(errors().empty());
}

TEST(Memory, TrackedFreeOfABlockOfTheCHeapIsLoggedWithItsTypeAndLeftAlone) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    auto *foreign = static_cast<unsigned char *>(malloc(64));
    ASSERT_NE(foreign, nullptr);
    memset(foreign, 0x5A, 64);
    ZEPO_MemTypeFreeD(foreign, 5, 77, "dir/owner.c");
    const std::vector<MemRec> logged = errors();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].base, foreign);
    EXPECT_EQ(logged[0].size, 0u);
    EXPECT_EQ(logged[0].type, 5u);
    EXPECT_EQ(logged[0].line, 77u);
    EXPECT_STREQ(logged[0].file, "owner.c");
    EXPECT_EQ(logged[0].status, 4u);
    EXPECT_EQ(foreign[63], 0x5A);  // not released: still ours, still intact
    free(foreign);
}

TEST(Memory, ConvenienceMacrosWorkInThePlainMode) {
    auto *zeroed = static_cast<unsigned char *>(QEL_MEM_ZALLOC(8));
    ASSERT_NE(zeroed, nullptr);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(zeroed[i], 0) << i;
    void *aligned = QEL_MEM_ALIGNED(10);
    EXPECT_TRUE(aligned_to(aligned, 128));
    void *blocks[] = {QEL_MEM_ALLOC(10), QEL_MEM_CALLOC(2, 5), aligned, zeroed};
    for (void *block : blocks) {
        EXPECT_NE(block, nullptr);
        QEL_MEM_FREE(block);
    }
}

TEST(Memory, ConvenienceMacrosChargeBlocksToTheCallersLineAndFile) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    void *blocks[4];
    const uint32_t first = __LINE__ + 1;
    blocks[0] = QEL_MEM_ALLOC(10);
    blocks[1] = QEL_MEM_ZALLOC(11);
    blocks[2] = QEL_MEM_CALLOC(3, 4);
    blocks[3] = QEL_MEM_ALIGNED(13);
    const std::vector<MemRec> records = live();  // in the order of allocation
    ASSERT_EQ(records.size(), 4u);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(records[i].line, first + i) << i;
        EXPECT_STREQ(records[i].file, "memory_test.cpp") << i;
    }
    EXPECT_EQ(records[3].type, 3u);  // the aligned block
    EXPECT_EQ(records[3].size, 13u);
    for (void *block : blocks) QEL_MEM_FREE(block);
    EXPECT_TRUE(live().empty());
    EXPECT_TRUE(errors().empty());  // each released as a tracked block
}
