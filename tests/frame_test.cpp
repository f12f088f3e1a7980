// Last error, error text, printing, the failure trace and the shared argument checks.
// Linked with the library's objects, so the internal frame can be exercised directly.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "os_frame.h"
#include "qel_frame.h"

#include "test_support.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

using qel_test::kSentinel;

// Reads back what was written to a temporary stream.
std::string contents(FILE *stream) {
    std::string text;
    rewind(stream);
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) text.push_back(static_cast<char>(c));
    return text;
}

}  // namespace

// ---- Last error ----------------------------------------------------------------------

TEST(FrameLastError, GetLastErrReturnsTheThreadsErrno) {
    errno = EACCES;
    EXPECT_EQ(ZEPO_GetLastErr(), 13u);
}

TEST(FrameLastError, GetLastErrReturnsErrnoAsUnsigned32Bit) {
    errno = -5;
    EXPECT_EQ(ZEPO_GetLastErr(), 0xFFFFFFFBu);
}

TEST(FrameLastError, SetLastErrStoresIntoErrno) {
    ZEPO_SetLastErr(ENOENT);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ZEPO_GetLastErr(), static_cast<uint32_t>(ENOENT));
}

TEST(FrameLastError, SetLastErrIsNotSeenOnAnotherThread) {
    ZEPO_SetLastErr(EPERM);
    uint32_t seen = 0;
    std::thread other([&seen] {
        ZEPO_SetLastErr(0);
        seen = ZEPO_GetLastErr();
        ZEPO_SetLastErr(EBUSY);
    });
    other.join();
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(ZEPO_GetLastErr(), static_cast<uint32_t>(EPERM));
}

TEST(FrameLastError, GetLastSocketErrIsTheSameErrno) {
    ZEPO_SetLastErr(ECONNREFUSED);
    EXPECT_EQ(ZEPO_GetLastSocketErr(), static_cast<uint32_t>(ECONNREFUSED));
    EXPECT_EQ(ZEPO_GetLastSocketErr(), ZEPO_GetLastErr());
}

// ---- Error text ----------------------------------------------------------------------

TEST(FrameStrError, WritesTheTextAndReturnsZero) {
    char buf[128];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_StrError_S(buf, sizeof buf, EACCES), 0);
    EXPECT_STREQ(buf, strerror(EACCES));
}

TEST(FrameStrError, TooShortBufferGivesRangeErrorAndTruncatedText) {
    char buf[8];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_StrError_S(buf, 5, EACCES), ERANGE);
    EXPECT_STREQ(buf, "Perm");
    EXPECT_EQ(buf[5], 'X');  // nothing beyond the given length
}

TEST(FrameStrError, BufferOneByteLongerThanTheTextSucceeds) {
    const size_t length = strlen(strerror(ENOENT));
    char buf[128];
    EXPECT_EQ(ZEPO_StrError_S(buf, static_cast<uint32_t>(length + 1), ENOENT), 0);
    EXPECT_STREQ(buf, strerror(ENOENT));
    EXPECT_EQ(ZEPO_StrError_S(buf, static_cast<uint32_t>(length), ENOENT), ERANGE);
}

TEST(FrameStrError, UnknownNumberGivesInvalidArgument) {
    char buf[64];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_StrError_S(buf, sizeof buf, 100000), EINVAL);
    EXPECT_NE(memchr(buf, '\0', sizeof buf), nullptr);  // some terminated text
}

TEST(FrameStrError, NullBufferIsPassedThroughToStrerror) {
    EXPECT_EQ(ZEPO_StrError_S(nullptr, 0, EACCES), ERANGE);
}

// ---- Printing --------------------------------------------------------------------------

TEST(FramePrintf, EmptyFormatReturnsZeroAndPrintsNothing) {
    CaptureStdout();
    const int32_t result = ZEPO_Printf("");
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(result, 0);
}

TEST(FramePrintf, NullFormatIsRefusedWithoutTouchingErrno) {
    errno = kSentinel;
    CaptureStdout();
    const int32_t result = ZEPO_Printf(nullptr);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(FramePrintf, FormatsToStandardOutputAndReturnsTheCount) {
    CaptureStdout();
    const int32_t result = ZEPO_Printf("%d-%s|%5.1f", 42, "ab", 2.25);
    EXPECT_EQ(GetCapturedStdout(), "42-ab|  2.2");
    EXPECT_EQ(result, 11);
}

TEST(FramePrintf, OutputErrorGivesANegativeResult) {
    // In a child process: standard output is reopened read-only there.
    EXPECT_EXIT(
        {
            if (freopen("/dev/null", "r", stdout) == nullptr) _exit(2);
            _exit(ZEPO_Printf("x") < 0 && errno == EBADF ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(FramePrintf, AcceptsHashFlagWithString) {
    CaptureStdout();
    const int32_t result = ZEPO_Printf("%#6s", "ab");
    EXPECT_EQ(GetCapturedStdout(), "    ab");
    EXPECT_EQ(result, 6);
}

TEST(FramePrintf, WritesNothingToStandardError) {
    CaptureStderr();
    CaptureStdout();
    ZEPO_Printf("to stdout\n");
    EXPECT_EQ(GetCapturedStdout(), "to stdout\n");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(FramePrintf, PercentNInLiteralFormatStoresTheCount) {
    int count = -1;
    CaptureStdout();
    ZEPO_Printf("abc%n", &count);
    EXPECT_EQ(GetCapturedStdout(), "abc");
    EXPECT_EQ(count, 3);
}

TEST(FramePrintfDeathTest, PercentNInWritableFormatEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char format[] = "ab%n\n";
            int count = 0;
            ZEPO_Printf(format, &count);
        },
        "%n in writable segment detected");
}

TEST(FrameFprintf, EmptyFormatIsRefusedAndWritesNothing) {
    FILE *stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_Fprintf(stream, ""), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(contents(stream), "");
    fclose(stream);
}

TEST(FrameFprintf, NullFormatIsRefusedWithoutTouchingErrno) {
    FILE *stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_Fprintf(stream, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(contents(stream), "");
    fclose(stream);
}

TEST(FrameFprintf, NullStreamIsRefusedWithoutTouchingErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_Fprintf(nullptr, "text"), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(FrameFprintf, FormatsToTheStreamAndReturnsTheCount) {
    FILE *stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ZEPO_Fprintf(stream, "%s=%u;%x", "k", 7u, 255u), 6);
    EXPECT_EQ(contents(stream), "k=7;ff");
    fclose(stream);
}

TEST(FrameFprintf, OutputErrorOfTheStreamGivesNegativeResultAndErrno) {
    FILE *stream = fopen("/dev/null", "r");
    ASSERT_NE(stream, nullptr);
    errno = 0;
    EXPECT_LT(ZEPO_Fprintf(stream, "x"), 0);
    EXPECT_EQ(errno, EBADF);
    fclose(stream);
}

// ---- Failure trace ---------------------------------------------------------------------

TEST(FrameTrace, LineEndsWithTheLineNumberOneBlankAndANewline) {
    CaptureStdout();
    const int line = __LINE__ + 1;
    const int status = qel::traced(150);
    const std::string printed = GetCapturedStdout();
    EXPECT_EQ(status, 150);
    EXPECT_EQ(printed, "Operate fail[150]: File: tests/frame_test.cpp Line: " +
                           std::to_string(line) + " \n");
}

TEST(FrameTrace, NamesTheCallersRepositoryRelativeSourcePath) {
    CaptureStdout();
    qel::traced(ERANGE);
    const std::string printed = GetCapturedStdout();
    EXPECT_NE(printed.find("File: tests/frame_test.cpp Line: "), std::string::npos) << printed;
}

TEST(FrameTrace, StatusIsPrintedAsSignedDecimal) {
    CaptureStdout();
    qel::traced(-1);
    const std::string printed = GetCapturedStdout();
    EXPECT_EQ(printed.rfind("Operate fail[-1]: File: ", 0), 0u) << printed;
}

TEST(FrameTrace, SuccessPrintsNothing) {
    CaptureStdout();
    EXPECT_EQ(qel::traced(0), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(FrameTrace, GoesToStandardOutputNotStandardError) {
    CaptureStderr();
    CaptureStdout();
    qel::traced(162);
    EXPECT_NE(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(FrameTrace, LeavesErrnoAlone) {
    errno = kSentinel;
    CaptureStdout();
    qel::traced(182);
    GetCapturedStdout();
    EXPECT_EQ(errno, kSentinel);
}

// ---- Argument checks and refusal values ------------------------------------------------

TEST(FrameChecks, NullTextIsRefused) { EXPECT_FALSE(qel::accepted(qel::text(nullptr))); }

TEST(FrameChecks, EmptyTextIsRefused) { EXPECT_FALSE(qel::accepted(qel::text(""))); }

TEST(FrameChecks, NonEmptyTextPasses) { EXPECT_TRUE(qel::accepted(qel::text("a"))); }

TEST(FrameChecks, NullPointerIsRefusedButAnEmptyBufferIsNot) {
    char empty[1] = {'\0'};
    int *none = nullptr;
    EXPECT_FALSE(qel::accepted(none));
    EXPECT_TRUE(qel::accepted(empty));  // only text() measures the length
}

TEST(FrameChecks, EveryArgumentMustPass) {
    int value = 0;
    int *none = nullptr;
    EXPECT_TRUE(qel::accepted(qel::text("p"), &value));
    EXPECT_FALSE(qel::accepted(qel::text("p"), none));
    EXPECT_FALSE(qel::accepted(qel::text(""), &value));
}

TEST(FrameChecks, RefusalValues) {
    EXPECT_EQ(qel::kRefused, -1);
    EXPECT_EQ(qel::kRefusedMoved, 0u);
    EXPECT_EQ(qel::kRefused64, 4294967295LL);
    EXPECT_NE(qel::kRefused64, -1LL);
    EXPECT_EQ(static_cast<int32_t>(qel::kRefused64), -1);  // the low 32 bits are all ones
}

// ---- Heap helpers ----------------------------------------------------------------------

TEST(FrameHeap, HeapPtrHandsTheBlockOnWhenReleased) {
    char *kept = nullptr;
    {
        qel::HeapPtr<char> block(static_cast<char *>(qel::heap_zalloc(16)));
        ASSERT_TRUE(block);
        EXPECT_EQ(block.get()[15], '\0');
        kept = block.release();
        EXPECT_FALSE(block);
    }
    kept[0] = 'k';  // still ours
    qel::heap_free(kept);
}

TEST(FrameHeap, HeapPtrOfNullIsEmpty) {
    qel::HeapPtr<char> block(nullptr);
    EXPECT_FALSE(block);
    EXPECT_EQ(block.get(), nullptr);
}
