// Memory entry points, in the mode where the C heap serves them.

#include <gtest/gtest.h>

#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

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

TEST(Memory, MallocSFillsWithTheLowByteOfTheFill) {
    auto *block =
        static_cast<unsigned char *>(ZEPO_MemTypeMallocS(8, 0x1FF, kTypePlain, __LINE__, __FILE__));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(block[i], 0xFF) << i;
    release(block);
}

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
