// Tests of libqel_bounds.so: the bounds-checked memory, string, format, scan and
// tokenizer functions.  Every destination is filled with 'X' before a call and compared
// afterwards byte for byte, so a stray write or a missing reset shows up as a failure.
#include "qel_bounds.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <sys/types.h>

namespace {

constexpr size_t kLimit = 0x7fffffff;       // largest accepted destination size
constexpr size_t kAboveLimit = 0x80000000;  // smallest refused destination size
const char S[] = "ABCDEFGH";

// Unterminated sources kept away from the stack buffers, so that no overlap rule can apply.
const char kUnterminatedAbc[3] = {'a', 'b', 'c'};
const char kUnterminatedCd[2] = {'c', 'd'};

// A string literal as bytes, embedded NULs included, without the literal's own terminator.
template <size_t N>
std::string Lit(const char (&s)[N]) {
    return std::string(s, N - 1);
}

// The whole of a buffer as bytes.
template <size_t N>
std::string Bytes(const char (&b)[N]) {
    return std::string(b, N);
}

std::string Xs(size_t n) { return std::string(n, 'X'); }
std::string Nuls(size_t n) { return std::string(n, '\0'); }

// Fills the buffer with 'X', then writes `start` (which may contain NULs) at its beginning.
template <size_t N>
void Prepare(char (&b)[N], const std::string &start = std::string()) {
    memset(b, 'X', N);
    memcpy(b, start.data(), start.size());
}

// The v-forms, called through a variadic front of their own.
int CallVsprintf(char *dest, size_t destMax, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vsprintf_s(dest, destMax, format, ap);
    va_end(ap);
    return r;
}

int CallVsnprintf(char *dest, size_t destMax, size_t count, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vsnprintf_s(dest, destMax, count, format, ap);
    va_end(ap);
    return r;
}

int CallVsscanf(const char *buffer, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vsscanf_s(buffer, format, ap);
    va_end(ap);
    return r;
}

// sprintf_s output and result must equal glibc snprintf's for the same directive.
template <typename... A>
void ExpectSameAsGlibc(const char *format, A... args) {
    SCOPED_TRACE(format);
    char want[1024];
    int wantLen = snprintf(want, sizeof want, format, args...);
    ASSERT_GE(wantLen, 0);
    ASSERT_LT(static_cast<size_t>(wantLen), sizeof want);
    char got[1024];
    memset(got, 'X', sizeof got);
    EXPECT_EQ(wantLen, sprintf_s(got, sizeof got, format, args...));
    EXPECT_EQ(std::string(want, static_cast<size_t>(wantLen) + 1),
              std::string(got, static_cast<size_t>(wantLen) + 1));
    EXPECT_EQ(Xs(sizeof got - static_cast<size_t>(wantLen) - 1),
              std::string(got + wantLen + 1, sizeof got - static_cast<size_t>(wantLen) - 1));
}

// A format error: -1, byte 0 set to NUL, nothing written after the `prefixLen` characters
// the format emits before the bad directive.  Checked through both sprintf_s and vsprintf_s.
template <typename... A>
void ExpectFormatError(const char *format, size_t prefixLen, A... args) {
    SCOPED_TRACE(format);
    char b[32];
    Prepare(b);
    EXPECT_EQ(-1, sprintf_s(b, sizeof b, format, args...));
    EXPECT_EQ('\0', b[0]);
    EXPECT_EQ(Xs(sizeof b - prefixLen - 1),
              std::string(b + prefixLen + 1, sizeof b - prefixLen - 1));
    Prepare(b);
    EXPECT_EQ(-1, CallVsprintf(b, sizeof b, format, args...));
    EXPECT_EQ('\0', b[0]);
    EXPECT_EQ(Xs(sizeof b - prefixLen - 1),
              std::string(b + prefixLen + 1, sizeof b - prefixLen - 1));
}

// Runs sprintf_s and vsprintf_s on two fresh buffers and expects identical results.
template <typename... A>
void ExpectSprintfFormsAgree(size_t destMax, const char *format, A... args) {
    SCOPED_TRACE(format ? format : "(null format)");
    char a[16];
    char b[16];
    Prepare(a);
    Prepare(b);
    int ra = sprintf_s(a, destMax, format, args...);
    int rb = CallVsprintf(b, destMax, format, args...);
    EXPECT_EQ(ra, rb);
    EXPECT_EQ(Bytes(a), Bytes(b));
}

template <typename... A>
void ExpectSnprintfFormsAgree(size_t destMax, size_t count, const char *format, A... args) {
    SCOPED_TRACE(format ? format : "(null format)");
    char a[16];
    char b[16];
    Prepare(a);
    Prepare(b);
    int ra = snprintf_s(a, destMax, count, format, args...);
    int rb = CallVsnprintf(b, destMax, count, format, args...);
    EXPECT_EQ(ra, rb);
    EXPECT_EQ(Bytes(a), Bytes(b));
}

// Scans one integer with sscanf_s and with glibc sscanf into objects pre-filled with the
// same pattern; result and every byte of the object must agree.
template <typename T>
void ExpectScanSameAsGlibc(const char *input, const char *format) {
    SCOPED_TRACE(std::string(format) + " on \"" + input + "\"");
    T want;
    T got;
    memset(&want, 0x5a, sizeof want);
    memset(&got, 0x5a, sizeof got);
    int wantRet = sscanf(input, format, &want);
    EXPECT_EQ(wantRet, sscanf_s(input, format, &got));
    EXPECT_EQ(0, memcmp(&want, &got, sizeof want));
}

}  // namespace

// ---------------------------------------------------------------------------------------
// memcpy_s
// ---------------------------------------------------------------------------------------

TEST(BoundsMemcpy, CountEqualToDestMaxCopiesEveryByte) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, 8, S, 8));
    EXPECT_EQ(Lit("ABCDEFGH"), Bytes(d8));
}

TEST(BoundsMemcpy, CopiesOnlyCountBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, 8, S, 3));
    EXPECT_EQ(Lit("ABCXXXXX"), Bytes(d8));
}

TEST(BoundsMemcpy, NullDestIsInvalid) {
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, 8, S, 4));
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, 8, nullptr, 4));
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, 8, S, 9));
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, kLimit, S, 4));
}

TEST(BoundsMemcpy, ZeroDestMaxIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE, memcpy_s(d8, 0, S, 0));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(ERANGE, memcpy_s(d8, 0, S, 4));
    EXPECT_EQ(ERANGE, memcpy_s(d8, 0, nullptr, 0));
    EXPECT_EQ(ERANGE, memcpy_s(d8, 0, nullptr, 4));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemcpy, ZeroDestMaxIsRangeErrorWhateverThePointers) {
    EXPECT_EQ(ERANGE, memcpy_s(nullptr, 0, S, 4));
    EXPECT_EQ(ERANGE, memcpy_s(nullptr, 0, nullptr, 0));
}

TEST(BoundsMemcpy, DestMaxAboveLimitIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE, memcpy_s(d8, kAboveLimit, S, 4));
    EXPECT_EQ(ERANGE, memcpy_s(d8, SIZE_MAX, S, 4));
    EXPECT_EQ(ERANGE, memcpy_s(d8, kAboveLimit, nullptr, 4));
    EXPECT_EQ(ERANGE, memcpy_s(nullptr, kAboveLimit, S, 4));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemcpy, DestMaxAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, kLimit, S, 4));
    EXPECT_EQ(Lit("ABCDXXXX"), Bytes(d8));
}

TEST(BoundsMemcpy, NullSourceWithCountZeroZeroesWholeDest) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, memcpy_s(d8, 8, nullptr, 0));
    EXPECT_EQ(Nuls(8), Bytes(d8));
}

TEST(BoundsMemcpy, NullSourceZeroesOnlyDestMaxBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, memcpy_s(d8, 5, nullptr, 4));
    EXPECT_EQ(Nuls(5) + Xs(3), Bytes(d8));
}

TEST(BoundsMemcpy, NullSourceIsReportedBeforeTooLargeCount) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, memcpy_s(d8, 8, nullptr, 9));
    EXPECT_EQ(Nuls(8), Bytes(d8));
}

TEST(BoundsMemcpy, CountAboveDestMaxZeroesWholeDest) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, memcpy_s(d8, 8, S, 9));
    EXPECT_EQ(Nuls(8), Bytes(d8));
}

TEST(BoundsMemcpy, CountAboveSmallerDestMaxZeroesOnlyDestMaxBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, memcpy_s(d8, 3, S, SIZE_MAX));
    EXPECT_EQ(Nuls(3) + Xs(5), Bytes(d8));
}

TEST(BoundsMemcpy, CountZeroSucceedsAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, 8, S, 0));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemcpy, SourceOverlappingDestFromBelowZeroesDestMaxBytes) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(EOVERLAP_AND_RESET, memcpy_s(b16 + 2, 8, b16, 4));
    EXPECT_EQ(Lit("01") + Nuls(8) + Xs(6), Bytes(b16));
}

TEST(BoundsMemcpy, SourceOverlappingDestFromAboveZeroesDestMaxBytes) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(EOVERLAP_AND_RESET, memcpy_s(b16, 8, b16 + 2, 4));
    EXPECT_EQ(Nuls(8) + Lit("89XXXXXX"), Bytes(b16));
}

TEST(BoundsMemcpy, SourceEndingWhereDestStartsIsNotOverlap) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(EOK, memcpy_s(b16 + 4, 4, b16, 4));
    EXPECT_EQ(Lit("0123012389XXXXXX"), Bytes(b16));
}

TEST(BoundsMemcpy, DestEndingWhereSourceStartsIsNotOverlap) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(EOK, memcpy_s(b16, 4, b16 + 4, 4));
    EXPECT_EQ(Lit("4567456789XXXXXX"), Bytes(b16));
}

TEST(BoundsMemcpy, SourceEqualToDestSucceedsWithoutChange) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(EOK, memcpy_s(b16, 8, b16, 4));
    EXPECT_EQ(Lit("0123456789XXXXXX"), Bytes(b16));
}

TEST(BoundsMemcpy, TooLargeCountIsReportedBeforeOverlap) {
    char b16[16];
    Prepare(b16, "0123456789");
    EXPECT_EQ(ERANGE_AND_RESET, memcpy_s(b16 + 2, 4, b16, 5));
    EXPECT_EQ(Lit("01") + Nuls(4) + Lit("6789XXXXXX"), Bytes(b16));
}

// ---------------------------------------------------------------------------------------
// memset_s
// ---------------------------------------------------------------------------------------

TEST(BoundsMemset, FillsCountBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, 8, 'a', 4));
    EXPECT_EQ(Lit("aaaaXXXX"), Bytes(d8));
}

TEST(BoundsMemset, CountAboveDestMaxFillsWholeDestWithTheCharacter) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, memset_s(d8, 8, 'a', 9));
    EXPECT_EQ(Lit("aaaaaaaa"), Bytes(d8));
}

TEST(BoundsMemset, CountAboveSmallerDestMaxFillsOnlyDestMaxBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, memset_s(d8, 3, 0x141, SIZE_MAX));
    EXPECT_EQ(Lit("AAAXXXXX"), Bytes(d8));
}

TEST(BoundsMemset, NullDestIsInvalid) {
    EXPECT_EQ(EINVAL, memset_s(nullptr, 8, 0, 4));
    EXPECT_EQ(EINVAL, memset_s(nullptr, 8, 0, 0));
    EXPECT_EQ(EINVAL, memset_s(nullptr, 8, 0, 9));
}

TEST(BoundsMemset, ZeroDestMaxWithZeroCountSucceedsWithoutWriting) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, 0, 'a', 0));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemset, ZeroDestMaxWithNonZeroCountIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE, memset_s(d8, 0, 'a', 1));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemset, NullDestWithZeroDestMaxIsRangeError) {
    EXPECT_EQ(ERANGE, memset_s(nullptr, 0, 0, 0));
    EXPECT_EQ(ERANGE, memset_s(nullptr, 0, 0, 4));
}

TEST(BoundsMemset, DestMaxAboveLimitIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE, memset_s(d8, kAboveLimit, 'a', 4));
    EXPECT_EQ(ERANGE, memset_s(d8, kAboveLimit, 'a', 0));
    EXPECT_EQ(ERANGE, memset_s(d8, SIZE_MAX, 'a', 4));
    EXPECT_EQ(ERANGE, memset_s(nullptr, kAboveLimit, 'a', 4));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsMemset, DestMaxAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, kLimit, 'a', 4));
    EXPECT_EQ(Lit("aaaaXXXX"), Bytes(d8));
}

TEST(BoundsMemset, StoresValueConvertedToUnsignedChar) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, 8, 0x141, 8));
    EXPECT_EQ(Lit("AAAAAAAA"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, 8, -1, 3));
    EXPECT_EQ(std::string(3, '\xff') + Xs(5), Bytes(d8));
}

TEST(BoundsMemset, CountZeroSucceedsWithoutWriting) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, memset_s(d8, 8, 'a', 0));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

// ---------------------------------------------------------------------------------------
// strncpy_s
// ---------------------------------------------------------------------------------------

TEST(BoundsStrncpy, CopiesSourceAndTerminatorLeavingRestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "hello", 5));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountBelowSourceLengthCutsSilently) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "hello", 3));
    EXPECT_EQ(Lit("hel\0XXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountAboveSourceLengthCopiesWholeSource) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "hello", 7));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
}

TEST(BoundsStrncpy, SourceWithoutRoomForTerminatorIsRangeErrorResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, strncpy_s(d8, 5, "hello", 5));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, strncpy_s(d8, 5, "hello", 10));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountAtLeastDestMaxAcceptsSourceOfDestMaxMinusOne) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 6, "hello", 10));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 6, "hello", 6));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountBelowDestMaxKeepsCountCharacters) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 5, "hello", 4));
    EXPECT_EQ(Lit("hell\0XXX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountZeroGivesEmptyString) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "hello", 0));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, NullSourceIsInvalidResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strncpy_s(d8, 8, nullptr, 3));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, NullSourceIsReportedBeforeTooLargeCount) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strncpy_s(d8, 8, nullptr, SIZE_MAX));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, NullDestIsInvalid) {
    EXPECT_EQ(EINVAL, strncpy_s(nullptr, 8, "a", 1));
    EXPECT_EQ(EINVAL, strncpy_s(nullptr, 8, nullptr, 1));
}

TEST(BoundsStrncpy, ZeroOrTooLargeDestMaxIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE, strncpy_s(d8, 0, "a", 1));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(ERANGE, strncpy_s(d8, kAboveLimit, "a", 1));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(ERANGE, strncpy_s(d8, 0, nullptr, 1));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(ERANGE, strncpy_s(nullptr, 0, "a", 1));
    EXPECT_EQ(ERANGE, strncpy_s(nullptr, kAboveLimit, "a", 1));
}

TEST(BoundsStrncpy, CountAboveLimitIsRangeErrorResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, strncpy_s(d8, 8, "a", kAboveLimit));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, strncpy_s(d8, 8, "a", SIZE_MAX));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, CountAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "a", kLimit));
    EXPECT_EQ(Lit("a\0XXXXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, DestMaxAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, kLimit, "abc", 3));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, kLimit, "abc", kLimit));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, UnterminatedSourceIsReadOnlyUpToCount) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EOK, strncpy_s(d8, 8, kUnterminatedAbc, 3));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
}

TEST(BoundsStrncpy, SourceOverlappingDestFromBelowResetsDestByteZero) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncpy_s(b16 + 1, 8, b16, 3));
    EXPECT_EQ(Lit("a\0cdef\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncpy, SourceTerminatorPositionAtDestCountsAsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncpy_s(b16 + 3, 8, b16, 3));
    EXPECT_EQ(Lit("abc\0") + Xs(12), Bytes(b16));
}

TEST(BoundsStrncpy, SourceWithTerminatorBeforeDestIsCopied) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOK, strncpy_s(b16 + 4, 8, b16, 3));
    EXPECT_EQ(Lit("abc\0abc\0") + Xs(8), Bytes(b16));
}

TEST(BoundsStrncpy, DestOverlappingSourceFromBelowResetsDestByteZero) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncpy_s(b16, 8, b16 + 2, 8));
    EXPECT_EQ(Lit("\0bcdef\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncpy, DestPlusLengthReachingSourceCountsAsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncpy_s(b16, 8, b16 + 3, 8));
    EXPECT_EQ(Lit("\0bcdef\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncpy, DestPlusLengthBelowSourceIsCopied) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOK, strncpy_s(b16, 8, b16 + 4, 8));
    EXPECT_EQ(Lit("ef\0def\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncpy, SourceEqualToDestIsAllowed) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOK, strncpy_s(b16, 16, b16, 15));
    EXPECT_EQ(Lit("abc\0") + Xs(12), Bytes(b16));
}

TEST(BoundsStrncpy, CountZeroIsCheckedBeforeOverlap) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOK, strncpy_s(b16 + 1, 8, b16, 0));
    EXPECT_EQ(Lit("a\0cdef\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncpy, TooLongSourceIsReportedBeforeOverlap) {
    char b16[16];
    Prepare(b16, Lit("abcdefghij\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strncpy_s(b16 + 1, 4, b16, 10));
    EXPECT_EQ(Lit("a\0cdefghij\0") + Xs(5), Bytes(b16));
}

// ---------------------------------------------------------------------------------------
// strcat_s
// ---------------------------------------------------------------------------------------

TEST(BoundsStrcat, AppendsSourceAndTerminatorLeavingRestUntouched) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strcat_s(d8, 8, "cde"));
    EXPECT_EQ(Lit("abcde\0XX"), Bytes(d8));
}

TEST(BoundsStrcat, NoRoomForTerminatorIsRangeErrorResettingOnlyByteZero) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strcat_s(d8, 5, "cde"));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, ExactFitSucceeds) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strcat_s(d8, 6, "cde"));
    EXPECT_EQ(Lit("abcde\0XX"), Bytes(d8));
}

TEST(BoundsStrcat, SourceIsScannedOnlyAsFarAsTheFreeSpace) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    // No terminator: reading past the two free characters would be a fault.
    EXPECT_EQ(ERANGE_AND_RESET, strcat_s(d8, 4, kUnterminatedCd));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, UnterminatedDestIsInvalidResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strcat_s(d8, 8, "a"));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, UnterminatedDestWithEmptySourceIsInvalid) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strcat_s(d8, 8, ""));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, NullSourceIsInvalidResettingOnlyByteZero) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EINVAL_AND_RESET, strcat_s(d8, 8, nullptr));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, NullDestIsInvalid) {
    EXPECT_EQ(EINVAL, strcat_s(nullptr, 8, "a"));
    EXPECT_EQ(EINVAL, strcat_s(nullptr, 8, nullptr));
}

TEST(BoundsStrcat, ZeroOrTooLargeDestMaxIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE, strcat_s(d8, 0, "a"));
    EXPECT_EQ(ERANGE, strcat_s(d8, kAboveLimit, "a"));
    EXPECT_EQ(ERANGE, strcat_s(d8, 0, nullptr));
    EXPECT_EQ(ERANGE, strcat_s(nullptr, 0, "a"));
    EXPECT_EQ(ERANGE, strcat_s(nullptr, kAboveLimit, "a"));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, DestMaxAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strcat_s(d8, kLimit, "cd"));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsStrcat, AppendingDestToItselfIsRangeError) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strcat_s(d8, 8, d8));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, AppendingUnterminatedDestToItselfIsInvalid) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strcat_s(d8, 8, d8));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, SourceInsideDestStringIsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strcat_s(b16, 16, b16 + 1));
    EXPECT_EQ(Lit("\0bc\0") + Xs(12), Bytes(b16));
}

TEST(BoundsStrcat, SourceBeyondUnterminatedDestIsInvalid) {
    char b16[16];
    Prepare(b16, Xs(15) + Nuls(1));
    EXPECT_EQ(EINVAL_AND_RESET, strcat_s(b16, 8, b16 + 8));
    EXPECT_EQ(Nuls(1) + Xs(14) + Nuls(1), Bytes(b16));
}

TEST(BoundsStrcat, SourceInsideUnterminatedDestIsOverlap) {
    char b16[16];
    Prepare(b16, Xs(15) + Nuls(1));
    EXPECT_EQ(EOVERLAP_AND_RESET, strcat_s(b16, 8, b16 + 4));
    EXPECT_EQ(Nuls(1) + Xs(14) + Nuls(1), Bytes(b16));
}

TEST(BoundsStrcat, SourceStartingWhereResultWouldEndIsOverlap) {
    char b16[16];
    Prepare(b16, Lit("ab\0Xcd\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strcat_s(b16, 16, b16 + 4));
    EXPECT_EQ(Lit("\0b\0Xcd\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrcat, SourceBeyondResultInSameBufferIsAppended) {
    char b16[16];
    Prepare(b16, Lit("ab\0XXXcd\0"));
    EXPECT_EQ(EOK, strcat_s(b16, 5, b16 + 6));
    EXPECT_EQ(Lit("abcd\0Xcd\0") + Xs(7), Bytes(b16));
}

TEST(BoundsStrcat, SourceBelowDestReachingItIsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strcat_s(b16 + 1, 8, b16));
    EXPECT_EQ(Lit("a\0c\0") + Xs(12), Bytes(b16));
}

TEST(BoundsStrcat, SourceTerminatorAtDestCountsAsOverlap) {
    char b16[16];
    Prepare(b16, Lit("ab\0cd\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strcat_s(b16 + 2, 8, b16));
    EXPECT_EQ(Lit("ab\0cd\0") + Xs(10), Bytes(b16));
}

TEST(BoundsStrcat, SourceWhollyBelowDestIsAppended) {
    char b16[16];
    Prepare(b16, Lit("ab\0cd\0"));
    EXPECT_EQ(EOK, strcat_s(b16 + 3, 8, b16));
    EXPECT_EQ(Lit("ab\0cdab\0") + Xs(8), Bytes(b16));
}

TEST(BoundsStrcat, EmptySourceLeavesTerminatedDestAsItWas) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strcat_s(d8, 8, ""));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrcat, EmptyDestReceivesSource) {
    char d8[8];
    Prepare(d8, Lit("\0"));
    EXPECT_EQ(EOK, strcat_s(d8, 8, "abc"));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
}

// ---------------------------------------------------------------------------------------
// strncat_s
// ---------------------------------------------------------------------------------------

TEST(BoundsStrncat, AppendsAtMostCountCharactersAndTerminator) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 5, "cdef", 2));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountBoundedSourceWithoutRoomIsRangeError) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strncat_s(d8, 5, "cdef", 3));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountAboveSourceLengthAppendsWholeSource) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 5, "cd", 10));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountZeroAppendsNothing) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 8, "cdef", 0));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountZeroWithSourceInsideDestStringIsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abcdef\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncat_s(b16, 16, b16 + 2, 0));
    EXPECT_EQ(Lit("\0bcdef\0") + Xs(9), Bytes(b16));
}

TEST(BoundsStrncat, CountZeroWithUnterminatedDestIsInvalid) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strncat_s(d8, 8, "x", 0));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountAboveLimitIsRangeErrorResettingByteZero) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strncat_s(d8, 8, "x", kAboveLimit));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strncat_s(d8, 8, "x", SIZE_MAX));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, CountAboveLimitIsCheckedBeforeUnterminatedDest) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(ERANGE_AND_RESET, strncat_s(d8, 8, "x", kAboveLimit));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, NullChecksComeBeforeCountLimit) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EINVAL_AND_RESET, strncat_s(d8, 8, nullptr, kAboveLimit));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
    EXPECT_EQ(EINVAL, strncat_s(nullptr, 8, "x", SIZE_MAX));
}

TEST(BoundsStrncat, CountAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 8, "cd", kLimit));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsStrncat, UnterminatedDestIsInvalidResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(EINVAL_AND_RESET, strncat_s(d8, 8, "x", 1));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, NullSourceIsInvalidResettingOnlyByteZero) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EINVAL_AND_RESET, strncat_s(d8, 8, nullptr, 1));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, NullDestIsInvalid) { EXPECT_EQ(EINVAL, strncat_s(nullptr, 8, "x", 1)); }

TEST(BoundsStrncat, ZeroOrTooLargeDestMaxIsRangeErrorAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE, strncat_s(d8, 0, "x", 1));
    EXPECT_EQ(ERANGE, strncat_s(d8, kAboveLimit, "x", 1));
    EXPECT_EQ(ERANGE, strncat_s(d8, 0, "x", SIZE_MAX));
    EXPECT_EQ(ERANGE, strncat_s(nullptr, 0, "x", 1));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, UnterminatedSourceIsReadOnlyUpToCount) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 8, kUnterminatedCd, 2));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsStrncat, AppendingDestToItselfIsRangeError) {
    char d8[8];
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(ERANGE_AND_RESET, strncat_s(d8, 8, d8, 1));
    EXPECT_EQ(Lit("\0b\0XXXXX"), Bytes(d8));
}

TEST(BoundsStrncat, SourceBelowDestReachingItIsOverlap) {
    char b16[16];
    Prepare(b16, Lit("abc\0"));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncat_s(b16 + 1, 8, b16, 2));
    EXPECT_EQ(Lit("a\0c\0") + Xs(12), Bytes(b16));
}

TEST(BoundsStrncat, SourceBeyondUnterminatedDestIsInvalid) {
    char b16[16];
    Prepare(b16, Xs(15) + Nuls(1));
    EXPECT_EQ(EINVAL_AND_RESET, strncat_s(b16, 8, b16 + 8, 4));
    EXPECT_EQ(Nuls(1) + Xs(14) + Nuls(1), Bytes(b16));
}

TEST(BoundsStrncat, SourceInsideUnterminatedDestIsOverlap) {
    char b16[16];
    Prepare(b16, Xs(15) + Nuls(1));
    EXPECT_EQ(EOVERLAP_AND_RESET, strncat_s(b16, 8, b16 + 4, 4));
    EXPECT_EQ(Nuls(1) + Xs(14) + Nuls(1), Bytes(b16));
}

TEST(BoundsStrncat, SourceBeyondResultInSameBufferIsAppended) {
    char b16[16];
    Prepare(b16, Lit("ab\0XXXcdef\0"));
    EXPECT_EQ(EOK, strncat_s(b16, 5, b16 + 6, 2));
    EXPECT_EQ(Lit("abcd\0Xcdef\0") + Xs(5), Bytes(b16));
}

// ---------------------------------------------------------------------------------------
// sprintf_s / vsprintf_s
// ---------------------------------------------------------------------------------------

TEST(BoundsSprintf, FormatsIntegerAndReturnsLength) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(4, sprintf_s(d8, 8, "%d", 1234));
    EXPECT_EQ(Lit("1234\0XXX"), Bytes(d8));
}

TEST(BoundsSprintf, OutputWithoutRoomForTerminatorGivesMinusOneWithFilledBytes) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 4, "%s", "abcd"));
    EXPECT_EQ(Lit("\0bc\0XXXX"), Bytes(d8));
}

TEST(BoundsSprintf, OutputFillingDestMaxMinusOneFits) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(4, sprintf_s(d8, 5, "%s", "abcd"));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsSprintf, LongOutputLeavesGlibcTruncationWithByteZeroCleared) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, sprintf_s(b10, 6, "%d", 1234567));
    EXPECT_EQ(Lit("\0"
                  "2345\0XXXX"),
              Bytes(b10));
}

TEST(BoundsSprintf, DestMaxOneFitsOnlyEmptyOutput) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sprintf_s(d8, 1, "%s", ""));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 1, "a"));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, NullDestOrBadDestMaxGivesMinusOneAndLeavesDestUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(nullptr, 8, "x"));
    EXPECT_EQ(-1, sprintf_s(d8, 0, "x"));
    EXPECT_EQ(-1, sprintf_s(d8, kAboveLimit, "x"));
    EXPECT_EQ(-1, sprintf_s(d8, 0, nullptr));
    EXPECT_EQ(-1, sprintf_s(d8, kAboveLimit, nullptr));
    EXPECT_EQ(-1, sprintf_s(nullptr, 8, nullptr));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSprintf, DestMaxAtLimitIsAccepted) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sprintf_s(d8, kLimit, "%d", 5));
    EXPECT_EQ(Lit("5\0XXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, NullFormatGivesMinusOneResettingByteZero) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, nullptr));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, PercentNIsRefusedAndStoresNothing) {
    char d8[8];
    Prepare(d8);
    int n = 77;
    EXPECT_EQ(-1, sprintf_s(d8, 8, "ab%n", &n));
    EXPECT_EQ('\0', d8[0]);
    EXPECT_EQ(Xs(5), std::string(d8 + 3, 5));
    EXPECT_EQ(77, n);
}

TEST(BoundsSprintf, PercentNInAnyFormIsAFormatError) {
    int n = 77;
    short hn = 77;
    signed char hhn = 77;
    long ln = 77;
    long long lln = 77;
    ExpectFormatError("%n", 0, &n);
    ExpectFormatError("%hn", 0, &hn);
    ExpectFormatError("%hhn", 0, &hhn);
    ExpectFormatError("%ln", 0, &ln);
    ExpectFormatError("%lln", 0, &lln);
    ExpectFormatError("%5n", 0, &n);
    ExpectFormatError("%d%n", 1, 7, &n);
    EXPECT_EQ(77, n);
    EXPECT_EQ(77, hn);
    EXPECT_EQ(77, hhn);
    EXPECT_EQ(77, ln);
    EXPECT_EQ(77, lln);
}

TEST(BoundsSprintf, FormatEndingAfterPercentIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "abc%"));
    EXPECT_EQ('\0', d8[0]);
    EXPECT_EQ(Xs(4), std::string(d8 + 4, 4));
}

TEST(BoundsSprintf, PercentAfterWidthIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%5%"));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, PositionalArgumentIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%1$d", 5));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, HexFloatConversionIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%a", 1.0));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, ErrnoMessageConversionIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%m"));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, ThousandsGroupingFlagIsAFormatError) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%'d", 1000));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, UnlistedConversionLettersAreFormatErrors) {
    const char *const formats[] = {"%a", "%A", "%b", "%B", "%m", "%y", "%k", "%r",
                                   "%v", "%H", "%N", "%O", "%P", "%T", "%U", "%W"};
    for (const char *f : formats) ExpectFormatError(f, 0, 1);
    ExpectFormatError("ab%y", 2);
    ExpectFormatError("%1$d", 0, 5);
    ExpectFormatError("%2$s %1$s", 0, "a", "b");
    ExpectFormatError("%'d", 0, 1000);
    ExpectFormatError("%'.2f", 0, 1000.0);
}

TEST(BoundsSprintf, PercentAfterFlagWidthPrecisionOrLengthIsAFormatError) {
    const char *const formats[] = {"%5%", "%-%", "%+%", "% %", "%#%", "%0%", "%.2%", "%l%", "%h%"};
    for (const char *f : formats) ExpectFormatError(f, 0);
    ExpectFormatError("ab%5%", 2);
}

TEST(BoundsSprintf, SecondPrecisionDotIsAFormatError) {
    ExpectFormatError("%.2.3d", 0, 5);
    ExpectFormatError("%5..3d", 0, 5);
}

TEST(BoundsSprintf, StarAfterWidthDigitsIsAFormatError) { ExpectFormatError("%5*d", 0, 3, 5); }

TEST(BoundsSprintf, FlagAfterPrecisionDotIsAFormatError) {
    ExpectFormatError("%.-3d", 0, 5);
    ExpectFormatError("%.+3d", 0, 5);
    ExpectFormatError("%.#3x", 0, 5);
    ExpectFormatError("%. 3d", 0, 5);
}

TEST(BoundsSprintf, FlagDigitDotOrStarAfterLengthModifierIsAFormatError) {
    ExpectFormatError("%l5d", 0, 5L);
    ExpectFormatError("%l-d", 0, 5L);
    ExpectFormatError("%l+d", 0, 5L);
    ExpectFormatError("%l.2d", 0, 5L);
    ExpectFormatError("%l*d", 0, 3, 5L);
    ExpectFormatError("%h0d", 0, 5);
    ExpectFormatError("%hh#x", 0, 5);
    ExpectFormatError("%ll d", 0, 5LL);
}

TEST(BoundsSprintf, FormatEndingInsideDirectiveIsAFormatError) {
    ExpectFormatError("abc%", 3);
    ExpectFormatError("%5", 0);
    ExpectFormatError("%l", 0);
    ExpectFormatError("%ll", 0);
    ExpectFormatError("%-", 0);
    ExpectFormatError("%.", 0);
    ExpectFormatError("%.5", 0);
    ExpectFormatError("%*", 0, 3);
    ExpectFormatError("%d%", 1, 7);
}

TEST(BoundsSprintf, OverflowingWidthOrPrecisionIsAFormatError) {
    ExpectFormatError("%99999999999d", 0, 1);
    ExpectFormatError("%.99999999999d", 0, 1);
}

TEST(BoundsSprintf, StarWidthAbove214748360IsAFormatError) {
    ExpectFormatError("%*d", 0, 214748361, 1);
    ExpectFormatError("%*d", 0, INT_MAX, 1);
    ExpectFormatError("%.*d", 0, 214748361, 1);
}

TEST(BoundsSnprintf, StarWidthOf214748360IsAcceptedAndTruncated) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 3, "%*d", 214748360, 1));
    EXPECT_EQ(Lit("   \0XXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, StarWidthAbove214748360IsAFormatErrorNotTruncation) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 3, "%*d", 214748361, 1));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSprintf, DoublePercentPrintsOnePercent) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(2, sprintf_s(d8, 8, "1%%"));
    EXPECT_EQ(Lit("1%\0XXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, NullStringPrintsNullInParentheses) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(6, sprintf_s(d8, 8, "%s", static_cast<const char *>(nullptr)));
    EXPECT_EQ(Lit("(null)\0X"), Bytes(d8));
}

TEST(BoundsSprintf, NullPointerPrintsNil) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(5, sprintf_s(d8, 8, "%p", static_cast<void *>(nullptr)));
    EXPECT_EQ(Lit("(nil)\0XX"), Bytes(d8));
}

TEST(BoundsSprintf, PrecisionAppliesToNullString) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(3, sprintf_s(d8, 8, "%.3s", static_cast<const char *>(nullptr)));
    EXPECT_EQ(Lit("(nu\0XXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(0, sprintf_s(d8, 8, "%.0s", static_cast<const char *>(nullptr)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSprintf, WidthAppliesToNullString) {
    char b16[16];
    Prepare(b16);
    EXPECT_EQ(8, sprintf_s(b16, 16, "%8s", static_cast<const char *>(nullptr)));
    EXPECT_EQ(Lit("  (null)\0XXXXXXX"), Bytes(b16));
    Prepare(b16);
    EXPECT_EQ(9, sprintf_s(b16, 16, "%-8s|", static_cast<const char *>(nullptr)));
    EXPECT_EQ(Lit("(null)  |\0XXXXXX"), Bytes(b16));
}

TEST(BoundsSprintf, PointerPrintsZeroXAndLowercaseHex) {
    char b16[16];
    Prepare(b16);
    EXPECT_EQ(9, sprintf_s(b16, 16, "%p", reinterpret_cast<void *>(0xabc123fULL)));
    EXPECT_EQ(Lit("0xabc123f\0XXXXXX"), Bytes(b16));
}

TEST(BoundsSprintf, FloatNeedingNineBytesDoesNotFitInEight) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sprintf_s(d8, 8, "%f", 1.5));
    EXPECT_EQ('\0', d8[0]);
    EXPECT_EQ(Lit("\0.50000\0"), Bytes(d8));
}

TEST(BoundsSprintf, HashFlagIsIgnoredForStrings) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(8, sprintf_s(b10, 10, "%#8s", "ab"));
    EXPECT_EQ(Lit("      ab\0X"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(2, sprintf_s(b10, 10, "%#s", "ab"));
    EXPECT_EQ(Lit("ab\0XXXXXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(6, sprintf_s(b10, 10, "%-#5s|", "ab"));
    EXPECT_EQ(Lit("ab   |\0XXX"), Bytes(b10));
}

TEST(BoundsSprintf, IntegerPrecisionIsClippedTo512Digits) {
    char big[1024];
    memset(big, 'X', sizeof big);
    EXPECT_EQ(512, sprintf_s(big, sizeof big, "%.600d", 1));
    EXPECT_EQ(std::string(511, '0') + "1" + Nuls(1) + Xs(sizeof big - 513),
              std::string(big, sizeof big));
    memset(big, 'X', sizeof big);
    EXPECT_EQ(513, sprintf_s(big, sizeof big, "%.600d", -1));
    EXPECT_EQ("-" + std::string(511, '0') + "1" + Nuls(1), std::string(big, 514));
    memset(big, 'X', sizeof big);
    EXPECT_EQ(512, sprintf_s(big, sizeof big, "%.600x", 255u));
    EXPECT_EQ(std::string(510, '0') + "ff" + Nuls(1), std::string(big, 513));
}

TEST(BoundsSprintf, IntegerPrecisionUpTo512IsKept) {
    char big[1024];
    memset(big, 'X', sizeof big);
    EXPECT_EQ(512, sprintf_s(big, sizeof big, "%.512d", 7));
    EXPECT_EQ(std::string(511, '0') + "7" + Nuls(1), std::string(big, 513));
    memset(big, 'X', sizeof big);
    EXPECT_EQ(511, sprintf_s(big, sizeof big, "%.511d", 7));
    EXPECT_EQ(std::string(510, '0') + "7" + Nuls(1), std::string(big, 512));
    memset(big, 'X', sizeof big);
    EXPECT_EQ(512, sprintf_s(big, sizeof big, "%.513d", 7));
    EXPECT_EQ(std::string(511, '0') + "7" + Nuls(1), std::string(big, 513));
}

TEST(BoundsSprintf, FloatsMatchGlibc) {
    ExpectSameAsGlibc("%f", 3.14159);
    ExpectSameAsGlibc("%.2f", 2.675);
    ExpectSameAsGlibc("%10.3f|", -1.5);
    ExpectSameAsGlibc("%-10.2f|", 1.005);
    ExpectSameAsGlibc("%+f", 2.0);
    ExpectSameAsGlibc("% f", 2.0);
    ExpectSameAsGlibc("%010.2f", -3.25);
    ExpectSameAsGlibc("%e", 12345.678);
    ExpectSameAsGlibc("%.3E", 0.000123);
    ExpectSameAsGlibc("%g", 1e-5);
    ExpectSameAsGlibc("%G", 1e20);
    ExpectSameAsGlibc("%g", 100000.0);
    ExpectSameAsGlibc("%g", 1000000.0);
    ExpectSameAsGlibc("%#g", 1.0);
    ExpectSameAsGlibc("%#.0f", 3.0);
    ExpectSameAsGlibc("%#.0e", 3.0);
    ExpectSameAsGlibc("%.0f", 2.5);
    ExpectSameAsGlibc("%.0f", 3.5);
    ExpectSameAsGlibc("%f", 1e300);
    ExpectSameAsGlibc("%F", HUGE_VAL);
    ExpectSameAsGlibc("%f", -HUGE_VAL);
    ExpectSameAsGlibc("%f", std::nan(""));
    ExpectSameAsGlibc("%E", HUGE_VAL);
    ExpectSameAsGlibc("%e", 0.0);
    ExpectSameAsGlibc("%f", -0.0);
    ExpectSameAsGlibc("%.10g", 1.0 / 3);
    ExpectSameAsGlibc("%lf", 2.5);
    ExpectSameAsGlibc("%*.*f", 12, 4, 3.14159);
    ExpectSameAsGlibc("%-*.*e|", 14, 2, 3.14159);
    ExpectSameAsGlibc("%.600f", 1.0);
    ExpectSameAsGlibc("%Lf", 1.5L);
    ExpectSameAsGlibc("%.20Lf", 0.1L);
    ExpectSameAsGlibc("%Le", 1e-300L);
    ExpectSameAsGlibc("%LG", 123456789.0L);
    ExpectSameAsGlibc("[%8.3f|%-8.3e|%+g]", 1.0, 2.0, 3.0);
}

TEST(BoundsSprintf, IntegerLengthModifiersMatchGlibc) {
    ExpectSameAsGlibc("%hhd", 300);
    ExpectSameAsGlibc("%hhd", 200);
    ExpectSameAsGlibc("%hhu", -1);
    ExpectSameAsGlibc("%hhx", 0x1ff);
    ExpectSameAsGlibc("%hd", 70000);
    ExpectSameAsGlibc("%hd", 40000);
    ExpectSameAsGlibc("%hu", -1);
    ExpectSameAsGlibc("%hX", 0x12345);
    ExpectSameAsGlibc("%d", INT_MIN);
    ExpectSameAsGlibc("%i", INT_MAX);
    ExpectSameAsGlibc("%u", UINT_MAX);
    ExpectSameAsGlibc("%ld", LONG_MIN);
    ExpectSameAsGlibc("%lu", ULONG_MAX);
    ExpectSameAsGlibc("%lx", 0x123456789abcdefL);
    ExpectSameAsGlibc("%lld", LLONG_MIN);
    ExpectSameAsGlibc("%lli", LLONG_MAX);
    ExpectSameAsGlibc("%llu", ULLONG_MAX);
    ExpectSameAsGlibc("%llo", ULLONG_MAX);
    ExpectSameAsGlibc("%llX", 0xfedcba9876543210ULL);
    ExpectSameAsGlibc("%zu", SIZE_MAX);
    ExpectSameAsGlibc("%zd", static_cast<ssize_t>(-1));
    ExpectSameAsGlibc("%zx", static_cast<size_t>(0xdeadbeefcafeULL));
    ExpectSameAsGlibc("%jd", INTMAX_MIN);
    ExpectSameAsGlibc("%ju", UINTMAX_MAX);
    ExpectSameAsGlibc("%td", static_cast<ptrdiff_t>(-123456789012LL));
    ExpectSameAsGlibc("%tx", static_cast<ptrdiff_t>(0x1234567890LL));
    ExpectSameAsGlibc("%qd", -1234567890123LL);
    ExpectSameAsGlibc("%Zu", static_cast<size_t>(9876543210ULL));
    ExpectSameAsGlibc("%Ld", -1234567890123LL);
}

TEST(BoundsSprintf, IntegerFlagsWidthAndPrecisionMatchGlibc) {
    ExpectSameAsGlibc("%o", 8);
    ExpectSameAsGlibc("%x|%X", 0xabcdef, 0xabcdef);
    ExpectSameAsGlibc("%#o", 8);
    ExpectSameAsGlibc("%#o", 0);
    ExpectSameAsGlibc("%#x", 255);
    ExpectSameAsGlibc("%#X", 255);
    ExpectSameAsGlibc("%#x", 0);
    ExpectSameAsGlibc("%+d", 5);
    ExpectSameAsGlibc("% d", 5);
    ExpectSameAsGlibc("% d", -5);
    ExpectSameAsGlibc("%+ d", 5);
    ExpectSameAsGlibc("%05d", -42);
    ExpectSameAsGlibc("%-5d|", 42);
    ExpectSameAsGlibc("%-05d|", 42);
    ExpectSameAsGlibc("%.3d", 7);
    ExpectSameAsGlibc("%.0d", 0);
    ExpectSameAsGlibc("%+.0d", 0);
    ExpectSameAsGlibc("%5.0d|", 0);
    ExpectSameAsGlibc("%8.3d", -7);
    ExpectSameAsGlibc("%-8.3x|", 10);
    ExpectSameAsGlibc("%08.3d", 7);
    ExpectSameAsGlibc("%+05d", -3);
    ExpectSameAsGlibc("% 05d", 3);
    ExpectSameAsGlibc("%#08x", 255);
    ExpectSameAsGlibc("%#.5o", 8);
    ExpectSameAsGlibc("%*d", 6, 42);
    ExpectSameAsGlibc("%-*d|", 6, 42);
    ExpectSameAsGlibc("%*d|", -6, 42);
    ExpectSameAsGlibc("%.*d", 4, 7);
    ExpectSameAsGlibc("%.*d", -1, 7);
    ExpectSameAsGlibc("%*.*d|", -8, 3, 7);
    ExpectSameAsGlibc("%c", 'A');
    ExpectSameAsGlibc("%5c|%-3c|", 'B', 'C');
    ExpectSameAsGlibc("%s", "abc");
    ExpectSameAsGlibc("%10s|%-10s|", "right", "left");
    ExpectSameAsGlibc("%.2s|%10.2s|", "abcdef", "abcdef");
    ExpectSameAsGlibc("%*.*s|", 6, 2, "abcdef");
    ExpectSameAsGlibc("%p", reinterpret_cast<void *>(0x1234abcdULL));
    ExpectSameAsGlibc("%20p|%-20p|", reinterpret_cast<void *>(0xbeefULL),
                      reinterpret_cast<void *>(0xbeefULL));
    ExpectSameAsGlibc("%8p|", static_cast<void *>(nullptr));
    ExpectSameAsGlibc("<%d|%s|%c|%x>", -1, "mid", 'z', 0xfeu);
}

TEST(BoundsSprintf, WideCharacterAndStringConversionsMatchGlibc) {
    ExpectSameAsGlibc("%lc", static_cast<wint_t>(L'A'));
    ExpectSameAsGlibc("%C", static_cast<wint_t>(L'B'));
    ExpectSameAsGlibc("%ls", L"wide");
    ExpectSameAsGlibc("%S", L"wide");
    ExpectSameAsGlibc("%6ls|%.2ls|", L"ab", L"abcd");
}

TEST(BoundsSprintf, FlagAfterWidthDigitsRestartsWidthLeftJustified) {
    char b16[16];
    Prepare(b16);
    EXPECT_EQ(5, sprintf_s(b16, 16, "[%5-3d]", 7));
    EXPECT_EQ(Lit("[7  ]\0XXXXXXXXXX"), Bytes(b16));
}

TEST(BoundsSprintf, NegativeStarWidthLeftJustifies) {
    char b16[16];
    Prepare(b16);
    EXPECT_EQ(6, sprintf_s(b16, 16, "[%*d]", -4, 7));
    EXPECT_EQ(Lit("[7   ]\0XXXXXXXXX"), Bytes(b16));
}

TEST(BoundsSprintf, CapitalIWithoutSizeOrConversionPrintsLiteralI) {
    char b16[16];
    Prepare(b16);
    EXPECT_EQ(4, sprintf_s(b16, 16, "<%Iv>"));
    EXPECT_EQ(Lit("<Iv>\0XXXXXXXXXXX"), Bytes(b16));
}

TEST(BoundsSprintf, CapitalI64ReadsSixtyFourBitIntegers) {
    char b32[32];
    Prepare(b32);
    EXPECT_EQ(13, sprintf_s(b32, 32, "%I64d", 1LL << 40));
    EXPECT_EQ("1099511627776", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(20, sprintf_s(b32, 32, "%I64u", ULLONG_MAX));
    EXPECT_EQ("18446744073709551615", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(12, sprintf_s(b32, 32, "%I64x", 0xdeadbeefcafeULL));
    EXPECT_EQ("deadbeefcafe", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(20, sprintf_s(b32, 32, "%I64d", LLONG_MIN));
    EXPECT_EQ("-9223372036854775808", std::string(b32));
}

TEST(BoundsSprintf, CapitalI32ReadsThirtyTwoBitIntegers) {
    char b32[32];
    Prepare(b32);
    EXPECT_EQ(11, sprintf_s(b32, 32, "%I32d", INT_MIN));
    EXPECT_EQ("-2147483648", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(10, sprintf_s(b32, 32, "%I32u", UINT_MAX));
    EXPECT_EQ("4294967295", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(6, sprintf_s(b32, 32, "%I32X", 0xabcdefu));
    EXPECT_EQ("ABCDEF", std::string(b32));
}

TEST(BoundsSprintf, CapitalIBeforeConversionLetterFormatsInteger) {
    char b32[32];
    Prepare(b32);
    EXPECT_EQ(2, sprintf_s(b32, 32, "%Id", static_cast<ptrdiff_t>(-5)));
    EXPECT_EQ("-5", std::string(b32));
    Prepare(b32);
    EXPECT_EQ(2, sprintf_s(b32, 32, "%Ix", static_cast<size_t>(0x2a)));
    EXPECT_EQ("2a", std::string(b32));
}

TEST(BoundsSprintf, OutputReachingCapacityBeforeBadDirectiveIsTruncation) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, sprintf_s(b10, 2, "abc%y"));
    EXPECT_EQ(Nuls(2) + Xs(8), Bytes(b10));
}

TEST(BoundsSprintf, BadDirectiveReachedWithOutputFittingCapacityIsFormatError) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, sprintf_s(b10, 3, "abc%y"));
    EXPECT_EQ('\0', b10[0]);
    EXPECT_EQ(Xs(7), std::string(b10 + 3, 7));
    Prepare(b10);
    EXPECT_EQ(-1, sprintf_s(b10, 4, "abc%y"));
    EXPECT_EQ('\0', b10[0]);
    EXPECT_EQ(Xs(6), std::string(b10 + 4, 6));
}

TEST(BoundsSprintf, SprintfAndVsprintfGiveIdenticalResults) {
    ExpectSprintfFormsAgree(16, "%d|%s|%c", -42, "ab", 'z');
    ExpectSprintfFormsAgree(16, "%5.2f", 3.14159);
    ExpectSprintfFormsAgree(16, "%lld %p", 1LL << 40, static_cast<void *>(nullptr));
    ExpectSprintfFormsAgree(4, "%s", "abcd");
    ExpectSprintfFormsAgree(16, "ab%n", static_cast<int *>(nullptr));
    ExpectSprintfFormsAgree(16, "abc%y");
    ExpectSprintfFormsAgree(16, nullptr);
    ExpectSprintfFormsAgree(0, "x");

    char b16[16];
    Prepare(b16);
    EXPECT_EQ(10, CallVsprintf(b16, 16, "%d|%5s|", -42, "x"));
    EXPECT_EQ(Lit("-42|    x|\0XXXXX"), Bytes(b16));
    Prepare(b16);
    EXPECT_EQ(-1, CallVsprintf(b16, 16, nullptr));
    EXPECT_EQ(Lit("\0") + Xs(15), Bytes(b16));
    Prepare(b16);
    EXPECT_EQ(-1, CallVsprintf(b16, 0, "x"));
    EXPECT_EQ(Xs(16), Bytes(b16));
}

// ---------------------------------------------------------------------------------------
// snprintf_s / vsnprintf_s
// ---------------------------------------------------------------------------------------

TEST(BoundsSnprintf, TruncationKeepsCountCharactersWhenCountBelowDestMax) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 5, "%s", "abcdefgh"));
    EXPECT_EQ(Lit("abcde\0XXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, OutputWithinCountReturnsLength) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(3, snprintf_s(b10, 10, 9, "%s", "abc"));
    EXPECT_EQ(Lit("abc\0XXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountAboveDestMaxBehavesLikeSprintfDroppingText) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 5, 10, "%s", "abcdefgh"));
    EXPECT_EQ(Lit("\0bcd\0XXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, OutputOfExactlyCountBelowDestMaxFits) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(4, snprintf_s(b10, 5, 4, "%s", "abcd"));
    EXPECT_EQ(Lit("abcd\0XXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, OutputOneAboveCountBelowDestMaxIsTruncated) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 5, 4, "%s", "abcde"));
    EXPECT_EQ(Lit("abcd\0XXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountEqualToDestMaxFitsDestMaxMinusOne) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(4, snprintf_s(b10, 5, 5, "%s", "abcd"));
    EXPECT_EQ(Lit("abcd\0XXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountEqualToDestMaxDropsTooLongText) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 5, 5, "%s", "abcde"));
    EXPECT_EQ(Lit("\0bcd\0XXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountZeroWithOutputGivesEmptyStringAndMinusOne) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 0, "%s", "abc"));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountZeroWithEmptyOutputReturnsZero) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(0, snprintf_s(b10, 10, 0, ""));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountAtOrAbove0x7fffffffIsRefusedResettingByteZero) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 0x7fffffff, "x"));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, SIZE_MAX, "x"));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, Count0x7ffffffeIsAccepted) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(1, snprintf_s(b10, 10, 0x7ffffffe, "x"));
    EXPECT_EQ(Lit("x\0XXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, NullDestOrBadDestMaxGivesMinusOneAndLeavesDestUntouched) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(nullptr, 10, 5, "x"));
    EXPECT_EQ(-1, snprintf_s(b10, 0, 0, "x"));
    EXPECT_EQ(-1, snprintf_s(b10, kAboveLimit, 5, "x"));
    EXPECT_EQ(-1, snprintf_s(b10, 0, 0, nullptr));
    EXPECT_EQ(-1, snprintf_s(b10, kAboveLimit, SIZE_MAX, "x"));
    EXPECT_EQ(Xs(10), Bytes(b10));
}

TEST(BoundsSnprintf, DestMaxAtLimitIsAccepted) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, kLimit, 3, "%s", "abcdef"));
    EXPECT_EQ(Lit("abc\0XXXXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(2, snprintf_s(b10, kLimit, 0x7ffffffe, "%d", 42));
    EXPECT_EQ(Lit("42\0XXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, NullFormatGivesMinusOneResettingByteZero) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 5, nullptr));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, OverflowBeforeBadDirectiveKeepsTruncatedText) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 1, "abc%y"));
    EXPECT_EQ(Lit("a\0XXXXXXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 2, "abcd%y"));
    EXPECT_EQ(Lit("ab\0XXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, BadDirectiveReachedWhileOutputFitsIsFormatError) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 2, "abc%y"));
    EXPECT_EQ('\0', b10[0]);
    EXPECT_EQ(Xs(7), std::string(b10 + 3, 7));
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 3, "abc%y"));
    EXPECT_EQ('\0', b10[0]);
    EXPECT_EQ(Xs(6), std::string(b10 + 4, 6));
}

TEST(BoundsSnprintf, FormatErrorAtFirstDirectiveResetsOnlyByteZero) {
    char b10[10];
    Prepare(b10);
    int n = 5;
    EXPECT_EQ(-1, snprintf_s(b10, 10, 5, "%n", &n));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
    EXPECT_EQ(5, n);
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 5, "%b", 1));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

TEST(BoundsSnprintf, CountAtLeastDestMaxFormatErrorResetsByteZero) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 4, 9, "abc%y"));
    EXPECT_EQ('\0', b10[0]);
    EXPECT_EQ(Xs(6), std::string(b10 + 4, 6));
}

TEST(BoundsSnprintf, TruncationAtCountDestMaxMinusOneKeepsTextFillingBuffer) {
    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 9, "%d|%5s|", -42, "x"));
    EXPECT_EQ(Lit("-42|    x\0"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(-1, snprintf_s(b10, 10, 9, "%s", "abcdefghijkl"));
    EXPECT_EQ(Lit("abcdefghi\0"), Bytes(b10));
}

TEST(BoundsSnprintf, SnprintfAndVsnprintfGiveIdenticalResults) {
    ExpectSnprintfFormsAgree(10, 5, "%s", "abcdefgh");
    ExpectSnprintfFormsAgree(10, 9, "%d|%5s|", -42, "x");
    ExpectSnprintfFormsAgree(5, 10, "%s", "abcdefgh");
    ExpectSnprintfFormsAgree(10, 0, "%s", "abc");
    ExpectSnprintfFormsAgree(10, 1, "abc%y");
    ExpectSnprintfFormsAgree(10, 2, "abc%y");
    ExpectSnprintfFormsAgree(10, SIZE_MAX, "x");
    ExpectSnprintfFormsAgree(10, 5, nullptr);
    ExpectSnprintfFormsAgree(10, 9, "%.2e", 12345.0);

    char b10[10];
    Prepare(b10);
    EXPECT_EQ(-1, CallVsnprintf(b10, 10, 5, "%s", "abcdefgh"));
    EXPECT_EQ(Lit("abcde\0XXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(3, CallVsnprintf(b10, 10, 9, "%s", "abc"));
    EXPECT_EQ(Lit("abc\0XXXXXX"), Bytes(b10));
    Prepare(b10);
    EXPECT_EQ(-1, CallVsnprintf(b10, 10, 0x7fffffff, "x"));
    EXPECT_EQ(Lit("\0XXXXXXXXX"), Bytes(b10));
}

// ---------------------------------------------------------------------------------------
// sscanf_s / vsscanf_s
// ---------------------------------------------------------------------------------------

TEST(BoundsSscanf, ScansDecimalInteger) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("123", "%d", &i));
    EXPECT_EQ(123, i);
}

TEST(BoundsSscanf, NonNumericInputGivesZeroAndLeavesTargetUnchanged) {
    int i = 77;
    EXPECT_EQ(0, sscanf_s("abc", "%d", &i));
    EXPECT_EQ(77, i);
}

TEST(BoundsSscanf, EmptyOrWhitespaceOnlyInputGivesMinusOne) {
    int i = 77;
    EXPECT_EQ(-1, sscanf_s("", "%d", &i));
    EXPECT_EQ(-1, sscanf_s("   ", "%d", &i));
    EXPECT_EQ(-1, sscanf_s(" \t\n", "%d", &i));
    EXPECT_EQ(77, i);
}

TEST(BoundsSscanf, EmptyInputClearsFirstByteOfFirstStringDestination) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputClearsFirstByteOfFirstCharacterDestination) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%c", d8, static_cast<size_t>(1)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%5c", d8, static_cast<size_t>(5)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputClearsFirstByteOfFirstSetDestination) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%[a-z]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%[]a]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputClearsFirstStringDestinationAfterLiteralText) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "key=%5s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputWithFirstDirectiveNumericClearsNothing) {
    char d8[8];
    Prepare(d8);
    int i = 77;
    EXPECT_EQ(-1, sscanf_s("", "%d%s", &i, d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(77, i);
}

TEST(BoundsSscanf, EmptyInputWithSuppressedFirstDirectiveClearsNothing) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%*s%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputWithUnclosedSetClearsNothing) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%[abc", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, EmptyInputWithZeroSizeOrNullDestinationClearsNothing) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("", "%s", d8, static_cast<size_t>(0)));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(-1, sscanf_s("", "%s", static_cast<char *>(nullptr), static_cast<size_t>(8)));
}

TEST(BoundsSscanf, WhitespaceOnlyInputLeavesStringDestinationUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s("  ", "%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, StringWithoutRoomForTerminatorDoesNotFit) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, static_cast<size_t>(5)));
    EXPECT_EQ(Lit("\0ellXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, StringWithRoomForTerminatorIsStored) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("hello", "%s", d8, static_cast<size_t>(6)));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
}

TEST(BoundsSscanf, SizeMayBePassedAsUnsignedInt) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("hello", "%s", d8, 6u));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
}

TEST(BoundsSscanf, UnsignedIntSizeIsFollowedCorrectlyByNextArgument) {
    char d8[8];
    char e8[8];
    int i = 0;
    Prepare(d8);
    Prepare(e8);
    EXPECT_EQ(3, sscanf_s("ab cd 5", "%s %s %d", d8, 8u, e8, 8u, &i));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
    EXPECT_EQ(Lit("cd\0XXXXX"), Bytes(e8));
    EXPECT_EQ(5, i);
}

TEST(BoundsSscanf, OnlyLow32BitsOfSizeAreUsed) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("hello", "%s", d8, static_cast<size_t>(0x100000006ULL)));
    EXPECT_EQ(Lit("hello\0XX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, static_cast<size_t>(0x100000000ULL)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, ZeroSizeStopsScanAndLeavesDestinationUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, static_cast<size_t>(0)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, SizeAboveLimitStopsScanAndLeavesDestinationUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, static_cast<size_t>(kAboveLimit)));
    EXPECT_EQ(Xs(8), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, 0x80000000u));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, ZeroSizeAfterOneConversionReturnsOne) {
    char d8[8];
    Prepare(d8);
    int i = 0;
    EXPECT_EQ(1, sscanf_s("5 hello", "%d %s", &i, d8, static_cast<size_t>(0)));
    EXPECT_EQ(5, i);
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, NullStringDestinationGivesMinusOne) {
    EXPECT_EQ(-1, sscanf_s("hello", "%s", static_cast<char *>(nullptr), static_cast<size_t>(8)));
}

TEST(BoundsSscanf, NullIntegerDestinationWithSingleNumberGivesMinusOne) {
    EXPECT_EQ(-1, sscanf_s("5", "%d", static_cast<int *>(nullptr)));
}

TEST(BoundsSscanf, NullStringDestinationAfterOneConversionGivesMinusOne) {
    int i = 0;
    EXPECT_EQ(-1,
              sscanf_s("5 ab", "%d %s", &i, static_cast<char *>(nullptr), static_cast<size_t>(8)));
    EXPECT_EQ(5, i);
}

TEST(BoundsSscanf, FixedWidthCharactersAreStoredWithoutTerminator) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("abc", "%3c", d8, static_cast<size_t>(3)));
    EXPECT_EQ(Lit("abcXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, CharactersBeyondSizeDoNotFit) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("abc", "%3c", d8, static_cast<size_t>(2)));
    EXPECT_EQ(Lit("\0bXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, CharacterConversionDoesNotSkipWhitespace) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s(" abc", "%c", d8, static_cast<size_t>(1)));
    EXPECT_EQ(Lit(" XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, CharacterConversionReadsWhitespaceBetweenCharacters) {
    char a = 'X';
    char b = 'X';
    char c = 'X';
    EXPECT_EQ(3, sscanf_s("a b", "%c%c%c", &a, static_cast<size_t>(1), &b, static_cast<size_t>(1),
                          &c, static_cast<size_t>(1)));
    EXPECT_EQ('a', a);
    EXPECT_EQ(' ', b);
    EXPECT_EQ('b', c);
}

TEST(BoundsSscanf, CharacterConversionEndingEarlyStillCounts) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("ab", "%5c", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("abXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetWithRangeStopsAtFirstNonMember) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("ab12", "%[a-z]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetMatchWithoutRoomDoesNotFit) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("abcdef", "%[a-z]", d8, static_cast<size_t>(4)));
    EXPECT_EQ(Lit("\0bcXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetWithoutClosingBracketClearsFirstByteAndStops) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("abc", "%[abc", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetWithoutClosingBracketAfterOneConversionReturnsOne) {
    char d8[8];
    Prepare(d8);
    int i = 0;
    EXPECT_EQ(1, sscanf_s("5 abc", "%d %[abc", &i, d8, static_cast<size_t>(8)));
    EXPECT_EQ(5, i);
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetWithClosingBracketFirstTreatsItAsMember) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("]]a]b", "%[]a]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("]]a]\0XXX"), Bytes(d8));
}

TEST(BoundsSscanf, NegatedSetWithClosingBracketFirstExcludesIt) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("ab]c", "%[^]]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SetWithSeveralRanges) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("az09Z", "%[a-z0-9]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("az09\0XXX"), Bytes(d8));
}

TEST(BoundsSscanf, ReversedRangeMeansThreeCharacters) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("z-am", "%[z-a]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("z-a\0XXXX"), Bytes(d8));
    int i = 77;
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("m", "%[z-a]%d", d8, static_cast<size_t>(8), &i));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, DashFirstOrLastInSetIsLiteral) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("-a-b", "%[-a]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("-a-\0XXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("a--ac", "%[a-]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("a--a\0XXX"), Bytes(d8));
}

TEST(BoundsSscanf, CaretNegatesSet) {
    char d8[8];
    char e8[8];
    Prepare(d8);
    Prepare(e8);
    EXPECT_EQ(
        2, sscanf_s("ab,cd", "%[^,],%s", d8, static_cast<size_t>(8), e8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
    EXPECT_EQ(Lit("cd\0XXXXX"), Bytes(e8));
}

TEST(BoundsSscanf, SetMatchingNothingFailsAndLeavesDestinationUntouched) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("123", "%[a-z]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
    EXPECT_EQ(0, sscanf_s("abc", "%[^a]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, SetDoesNotSkipLeadingWhitespace) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("  ab", "%[a-z]", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, SetWidthLimitsCharactersRead) {
    char d8[8];
    char e8[8];
    Prepare(d8);
    Prepare(e8);
    EXPECT_EQ(
        2, sscanf_s("abcdef", "%3[a-z]%s", d8, static_cast<size_t>(8), e8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
    EXPECT_EQ(Lit("def\0XXXX"), Bytes(e8));
}

TEST(BoundsSscanf, SetThatDoesNotFitAfterOneConversionReturnsOne) {
    char d8[8];
    Prepare(d8);
    int i = 0;
    EXPECT_EQ(1, sscanf_s("5 abcdef", "%d %[a-z]", &i, d8, static_cast<size_t>(3)));
    EXPECT_EQ(5, i);
    EXPECT_EQ(Lit("\0bXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, SecondNumberMissingReturnsOne) {
    int i = 0;
    int j = 77;
    EXPECT_EQ(1, sscanf_s("12", "%d %d", &i, &j));
    EXPECT_EQ(12, i);
    EXPECT_EQ(77, j);
    i = 0;
    EXPECT_EQ(1, sscanf_s("12 x", "%d %d", &i, &j));
    EXPECT_EQ(12, i);
    EXPECT_EQ(77, j);
}

TEST(BoundsSscanf, StringNotFittingAfterOneConversionReturnsOne) {
    char d8[8];
    Prepare(d8);
    int i = 0;
    EXPECT_EQ(1, sscanf_s("5 hello", "%d %s", &i, d8, static_cast<size_t>(3)));
    EXPECT_EQ(5, i);
    EXPECT_EQ(Lit("\0eXXXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, MixedNumberStringAndCharacter) {
    char d8[8];
    Prepare(d8);
    int i = 0;
    char c = 'X';
    EXPECT_EQ(3, sscanf_s("7 ab Z", "%d %s %c", &i, d8, static_cast<size_t>(8), &c,
                          static_cast<size_t>(1)));
    EXPECT_EQ(7, i);
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
    EXPECT_EQ('Z', c);
}

TEST(BoundsSscanf, UnknownConversionDifferentFromInputIsFormatError) {
    EXPECT_EQ(-1, sscanf_s("abc", "%y"));
}

TEST(BoundsSscanf, NullBufferGivesMinusOneAndWritesNothing) {
    int i = 77;
    EXPECT_EQ(-1, sscanf_s(nullptr, "%d", &i));
    EXPECT_EQ(77, i);
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, sscanf_s(nullptr, "%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, NullFormatGivesMinusOne) { EXPECT_EQ(-1, sscanf_s("1", nullptr)); }

TEST(BoundsSscanf, SuppressedStringConsumingAllInputReturnsZero) {
    EXPECT_EQ(0, sscanf_s("abc", "%*s"));
}

TEST(BoundsSscanf, LiteralOnlyFormatMatchingAllInputReturnsZero) {
    EXPECT_EQ(0, sscanf_s("abc", "abc"));
}

TEST(BoundsSscanf, LiteralOnlyFormatRunningPastInputGivesMinusOne) {
    EXPECT_EQ(-1, sscanf_s("abc", "abcd"));
}

TEST(BoundsSscanf, LiteralMismatchBeforeAnyConversionReturnsZero) {
    EXPECT_EQ(0, sscanf_s("abc", "abx"));
}

TEST(BoundsSscanf, PercentNCountsConsumedCharactersWithoutBeingCounted) {
    int i = 0;
    int n = 77;
    EXPECT_EQ(1, sscanf_s("12 ", "%d%n", &i, &n));
    EXPECT_EQ(12, i);
    EXPECT_EQ(2, n);
}

TEST(BoundsSscanf, PercentNAtSeveralPlaces) {
    char d8[8];
    char e8[8];
    Prepare(d8);
    Prepare(e8);
    int n0 = 77;
    int n1 = 77;
    int n2 = 77;
    EXPECT_EQ(2, sscanf_s("abc de", "%n%s%n %n%s", &n0, d8, static_cast<size_t>(8), &n1, &n2, e8,
                          static_cast<size_t>(8)));
    EXPECT_EQ(0, n0);
    EXPECT_EQ(3, n1);
    EXPECT_EQ(4, n2);
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
    EXPECT_EQ(Lit("de\0XXXXX"), Bytes(e8));
}

TEST(BoundsSscanf, PercentNStoresAnInt) {
    alignas(8) unsigned char raw[8];
    memset(raw, 0x5a, sizeof raw);
    int i = 0;
    EXPECT_EQ(1, sscanf_s("123", "%d%n", &i, raw));
    int n = 0;
    memcpy(&n, raw, sizeof n);
    EXPECT_EQ(3, n);
    for (size_t k = sizeof(int); k < sizeof raw; ++k) EXPECT_EQ(0x5a, raw[k]) << k;
}

TEST(BoundsSscanf, IntegerPrefixZeroXMakesPercentIHexadecimal) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("0x1A", "%i", &i));
    EXPECT_EQ(26, i);
    i = 0;
    EXPECT_EQ(1, sscanf_s("0X1a", "%i", &i));
    EXPECT_EQ(26, i);
}

TEST(BoundsSscanf, LeadingZeroMakesPercentIOctal) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("010", "%i", &i));
    EXPECT_EQ(8, i);
    i = 0;
    EXPECT_EQ(1, sscanf_s("-010", "%i", &i));
    EXPECT_EQ(-8, i);
}

TEST(BoundsSscanf, PercentDIsAlwaysDecimal) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("010", "%d", &i));
    EXPECT_EQ(10, i);
    int n = 77;
    i = 77;
    EXPECT_EQ(1, sscanf_s("0x10", "%d%n", &i, &n));
    EXPECT_EQ(0, i);
    EXPECT_EQ(1, n);
}

TEST(BoundsSscanf, HexadecimalConversionAcceptsOptionalPrefix) {
    unsigned x = 0;
    EXPECT_EQ(1, sscanf_s("0x1A", "%x", &x));
    EXPECT_EQ(26u, x);
    x = 0;
    EXPECT_EQ(1, sscanf_s("1a", "%x", &x));
    EXPECT_EQ(26u, x);
    x = 0;
    EXPECT_EQ(1, sscanf_s("FF", "%X", &x));
    EXPECT_EQ(255u, x);
}

TEST(BoundsSscanf, OctalConversion) {
    unsigned o = 0;
    EXPECT_EQ(1, sscanf_s("17", "%o", &o));
    EXPECT_EQ(15u, o);
}

TEST(BoundsSscanf, SignsAreAccepted) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("-12", "%d", &i));
    EXPECT_EQ(-12, i);
    EXPECT_EQ(1, sscanf_s("+12", "%d", &i));
    EXPECT_EQ(12, i);
}

TEST(BoundsSscanf, SignWithoutDigitsFails) {
    int i = 77;
    EXPECT_EQ(0, sscanf_s("-a", "%d", &i));
    EXPECT_EQ(77, i);
    unsigned x = 77;
    EXPECT_EQ(0, sscanf_s("g", "%x", &x));
    EXPECT_EQ(77u, x);
}

TEST(BoundsSscanf, IntegerOverflowNarrowsLikeGlibc) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("99999999999", "%d", &i));
    EXPECT_EQ(1215752191, i);
    i = 0;
    EXPECT_EQ(1, sscanf_s("99999999999999999999", "%d", &i));
    EXPECT_EQ(-1, i);
    unsigned u = 0;
    EXPECT_EQ(1, sscanf_s("-1", "%u", &u));
    EXPECT_EQ(4294967295u, u);
}

TEST(BoundsSscanf, IntegerConversionsMatchGlibc) {
    ExpectScanSameAsGlibc<int>("-2147483649", "%d");
    ExpectScanSameAsGlibc<int>("-99999999999999999999", "%d");
    ExpectScanSameAsGlibc<unsigned>("4294967296", "%u");
    ExpectScanSameAsGlibc<unsigned>("99999999999999999999", "%u");
    ExpectScanSameAsGlibc<signed char>("300", "%hhd");
    ExpectScanSameAsGlibc<signed char>("-129", "%hhd");
    ExpectScanSameAsGlibc<unsigned char>("300", "%hhu");
    ExpectScanSameAsGlibc<short>("70000", "%hd");
    ExpectScanSameAsGlibc<unsigned short>("65536", "%hu");
    ExpectScanSameAsGlibc<long>("9223372036854775808", "%ld");
    ExpectScanSameAsGlibc<long>("-9223372036854775809", "%ld");
    ExpectScanSameAsGlibc<unsigned long>("-1", "%lu");
    ExpectScanSameAsGlibc<long long>("-9223372036854775809", "%lld");
    ExpectScanSameAsGlibc<unsigned long long>("18446744073709551616", "%llu");
    ExpectScanSameAsGlibc<unsigned long long>("18446744073709551615", "%llu");
    ExpectScanSameAsGlibc<size_t>("18446744073709551615", "%zu");
    ExpectScanSameAsGlibc<ssize_t>("-5", "%zd");
    ExpectScanSameAsGlibc<ptrdiff_t>("-123456789012", "%td");
    ExpectScanSameAsGlibc<intmax_t>("-123456789012", "%jd");
    ExpectScanSameAsGlibc<uintmax_t>("123456789012", "%ju");
    ExpectScanSameAsGlibc<long long>("123456789012", "%qd");
    ExpectScanSameAsGlibc<long long>("-123456789012", "%Ld");
    ExpectScanSameAsGlibc<int>("077", "%i");
    ExpectScanSameAsGlibc<int>("-0x10", "%i");
    ExpectScanSameAsGlibc<unsigned>("-17", "%o");
    ExpectScanSameAsGlibc<unsigned>("-0x1f", "%x");
    ExpectScanSameAsGlibc<unsigned long>("ffffffffffffffff", "%lx");
    ExpectScanSameAsGlibc<int>("  +42", "%d");
}

TEST(BoundsSscanf, NarrowTargetsStoreOnlyTheirOwnBytes) {
    alignas(8) unsigned char raw[16];
    memset(raw, 0x5a, sizeof raw);
    EXPECT_EQ(1, sscanf_s("-2", "%hhd", raw));
    EXPECT_EQ(0xfe, raw[0]);
    for (size_t k = 1; k < sizeof raw; ++k) EXPECT_EQ(0x5a, raw[k]) << "hh byte " << k;

    memset(raw, 0x5a, sizeof raw);
    EXPECT_EQ(1, sscanf_s("-2", "%hd", raw));
    short h = 0;
    memcpy(&h, raw, sizeof h);
    EXPECT_EQ(-2, h);
    for (size_t k = sizeof(short); k < sizeof raw; ++k) EXPECT_EQ(0x5a, raw[k]) << "h byte " << k;

    memset(raw, 0x5a, sizeof raw);
    EXPECT_EQ(1, sscanf_s("-2", "%d", raw));
    int i = 0;
    memcpy(&i, raw, sizeof i);
    EXPECT_EQ(-2, i);
    for (size_t k = sizeof(int); k < sizeof raw; ++k) EXPECT_EQ(0x5a, raw[k]) << "int byte " << k;
}

TEST(BoundsSscanf, SixtyFourBitModifiersStoreEightBytes) {
    const char *const formats[] = {"%ld", "%lld", "%zd", "%td", "%jd", "%Ld", "%qd"};
    for (const char *f : formats) {
        SCOPED_TRACE(f);
        long long v = 0x5a5a5a5a5a5a5a5aLL;
        EXPECT_EQ(1, sscanf_s("-2", f, &v));
        EXPECT_EQ(-2LL, v);
        v = 0;
        EXPECT_EQ(1, sscanf_s("123456789012", f, &v));
        EXPECT_EQ(123456789012LL, v);
    }
}

TEST(BoundsSscanf, PointerReadsHexDigitsWithoutPrefix) {
    void *p = nullptr;
    EXPECT_EQ(1, sscanf_s("1f", "%p", &p));
    EXPECT_EQ(reinterpret_cast<void *>(0x1f), p);
}

TEST(BoundsSscanf, PointerStopsAtXOfPrefixStoringNull) {
    void *p = reinterpret_cast<void *>(0x1234);
    int n = 77;
    EXPECT_EQ(1, sscanf_s("0x1f", "%p%n", &p, &n));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(1, n);
}

TEST(BoundsSscanf, FloatConversions) {
    float f = 0;
    EXPECT_EQ(1, sscanf_s("3.5", "%f", &f));
    EXPECT_EQ(3.5f, f);
    double d = 0;
    EXPECT_EQ(1, sscanf_s("2.25", "%lf", &d));
    EXPECT_EQ(2.25, d);
    d = 0;
    EXPECT_EQ(1, sscanf_s("-1.5e3", "%le", &d));
    EXPECT_EQ(-1500.0, d);
    long double ld = 0;
    EXPECT_EQ(1, sscanf_s("1.5", "%Lf", &ld));
    EXPECT_EQ(1.5L, ld);
}

TEST(BoundsSscanf, FloatConversionsRoundLikeStrtodAndStrtold) {
    float f = 0;
    EXPECT_EQ(1, sscanf_s("0.1", "%f", &f));
    EXPECT_EQ(static_cast<float>(strtod("0.1", nullptr)), f);
    double d = 0;
    EXPECT_EQ(1, sscanf_s("0.1", "%lf", &d));
    EXPECT_EQ(strtod("0.1", nullptr), d);
    long double ld = 0;
    EXPECT_EQ(1, sscanf_s("0.1", "%Lf", &ld));
    EXPECT_EQ(strtold("0.1", nullptr), ld);
    EXPECT_EQ(1, sscanf_s("1e-3", "%Lg", &ld));
    EXPECT_EQ(strtold("1e-3", nullptr), ld);
}

TEST(BoundsSscanf, FloatLettersInAnyCase) {
    const char *const formats[] = {"%e", "%E", "%f", "%F", "%g", "%G"};
    for (const char *fmt : formats) {
        SCOPED_TRACE(fmt);
        float f = 0;
        EXPECT_EQ(1, sscanf_s("2.5", fmt, &f));
        EXPECT_EQ(2.5f, f);
    }
}

TEST(BoundsSscanf, FloatWithoutLeadingDigits) {
    float f = 0;
    EXPECT_EQ(1, sscanf_s(".5", "%f", &f));
    EXPECT_EQ(0.5f, f);
    double d = 0;
    EXPECT_EQ(1, sscanf_s("-.25e1", "%lf", &d));
    EXPECT_EQ(-2.5, d);
}

TEST(BoundsSscanf, FloatStoresOnlyFourBytes) {
    alignas(8) unsigned char raw[8];
    memset(raw, 0x5a, sizeof raw);
    EXPECT_EQ(1, sscanf_s("1.0", "%f", raw));
    float f = 0;
    memcpy(&f, raw, sizeof f);
    EXPECT_EQ(1.0f, f);
    for (size_t k = sizeof(float); k < sizeof raw; ++k) EXPECT_EQ(0x5a, raw[k]) << k;
}

TEST(BoundsSscanf, InfinityAndNanAreNotNumbers) {
    float f = 7.0f;
    EXPECT_EQ(0, sscanf_s("inf", "%f", &f));
    EXPECT_EQ(7.0f, f);
    double d = 7.0;
    EXPECT_EQ(0, sscanf_s("nan", "%lf", &d));
    EXPECT_EQ(7.0, d);
    EXPECT_EQ(0, sscanf_s("INFINITY", "%lf", &d));
    EXPECT_EQ(7.0, d);
}

TEST(BoundsSscanf, HexFloatStopsAfterLeadingZero) {
    double d = 7.0;
    int n = 77;
    EXPECT_EQ(1, sscanf_s("0x1p3", "%lf%n", &d, &n));
    EXPECT_EQ(0.0, d);
    EXPECT_EQ(1, n);
}

TEST(BoundsSscanf, TwoFloats) {
    float f = 0;
    double d = 0;
    EXPECT_EQ(2, sscanf_s("1.5 -2.5e-1", "%f %lf", &f, &d));
    EXPECT_EQ(1.5f, f);
    EXPECT_EQ(-0.25, d);
}

TEST(BoundsSscanf, WhitespaceInFormatMatchesAnyAmountIncludingNone) {
    int i = 0;
    int j = 0;
    EXPECT_EQ(2, sscanf_s("1,2", "%d ,%d", &i, &j));
    EXPECT_EQ(1, i);
    EXPECT_EQ(2, j);
    EXPECT_EQ(2, sscanf_s("3 \t\n\v\f\r ,  4", "%d , %d", &i, &j));
    EXPECT_EQ(3, i);
    EXPECT_EQ(4, j);
}

TEST(BoundsSscanf, NumbersSkipLeadingWhitespace) {
    int i = 0;
    int j = 0;
    EXPECT_EQ(2, sscanf_s("  1 \t\n 2", "%d%d", &i, &j));
    EXPECT_EQ(1, i);
    EXPECT_EQ(2, j);
}

TEST(BoundsSscanf, LiteralMismatchStopsScan) {
    int i = 0;
    int j = 77;
    EXPECT_EQ(1, sscanf_s("1,2", "%d;%d", &i, &j));
    EXPECT_EQ(1, i);
    EXPECT_EQ(77, j);
}

TEST(BoundsSscanf, LiteralAtEndOfInputStopsScan) {
    int i = 0;
    int j = 77;
    EXPECT_EQ(1, sscanf_s("1", "%d,%d", &i, &j));
    EXPECT_EQ(1, i);
    EXPECT_EQ(77, j);
}

TEST(BoundsSscanf, StringStopsAtEachWhitespaceCharacter) {
    const char *const inputs[] = {"ab cd", "ab\tcd", "ab\ncd", "ab\vcd", "ab\fcd", "ab\rcd"};
    for (const char *in : inputs) {
        char d8[8];
        Prepare(d8);
        EXPECT_EQ(1, sscanf_s(in, "%s", d8, static_cast<size_t>(8))) << static_cast<int>(in[2]);
        EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8)) << static_cast<int>(in[2]);
    }
}

TEST(BoundsSscanf, StringSkipsLeadingWhitespace) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s(" \t\nab", "%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("ab\0XXXXX"), Bytes(d8));
}

TEST(BoundsSscanf, StringWidthLimitsCharactersRead) {
    char d8[8];
    char e8[8];
    Prepare(d8);
    Prepare(e8);
    EXPECT_EQ(2,
              sscanf_s("abcdef", "%3s%s", d8, static_cast<size_t>(8), e8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("abc\0XXXX"), Bytes(d8));
    EXPECT_EQ(Lit("def\0XXXX"), Bytes(e8));
}

TEST(BoundsSscanf, WidthEqualToSizeLeavesNoRoomForTerminator) {
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(0, sscanf_s("abcd", "%4s", d8, static_cast<size_t>(4)));
    EXPECT_EQ(Lit("\0bcXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("abcd", "%4s", d8, static_cast<size_t>(5)));
    EXPECT_EQ(Lit("abcd\0XXX"), Bytes(d8));
}

TEST(BoundsSscanf, SuppressedDirectivesTakeNoArguments) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("abc 5", "%*s %d", &i));
    EXPECT_EQ(5, i);
    i = 0;
    EXPECT_EQ(1, sscanf_s("12 34", "%*d %d", &i));
    EXPECT_EQ(34, i);
    char c = 'X';
    EXPECT_EQ(1, sscanf_s("ab", "%*c%c", &c, static_cast<size_t>(1)));
    EXPECT_EQ('b', c);
    i = 0;
    EXPECT_EQ(1, sscanf_s("ab1", "%*[a-z]%d", &i));
    EXPECT_EQ(1, i);
    double d = 0;
    EXPECT_EQ(1, sscanf_s("1.5 2.5", "%*f %lf", &d));
    EXPECT_EQ(2.5, d);
}

TEST(BoundsSscanf, DoublePercentSkipsWhitespaceThenMatchesPercent) {
    int i = 0;
    int j = 0;
    EXPECT_EQ(2, sscanf_s("5  %7", "%d%%%d", &i, &j));
    EXPECT_EQ(5, i);
    EXPECT_EQ(7, j);
}

TEST(BoundsSscanf, DoublePercentMismatchStopsScan) {
    int i = 0;
    int j = 77;
    EXPECT_EQ(1, sscanf_s("5 x7", "%d%%%d", &i, &j));
    EXPECT_EQ(5, i);
    EXPECT_EQ(77, j);
}

TEST(BoundsSscanf, WidthZeroStopsScan) {
    int i = 0;
    int j = 77;
    int r = sscanf_s("5 12", "%d %0d", &i, &j);
    EXPECT_NE(2, r);
    EXPECT_EQ(5, i);
    EXPECT_EQ(77, j);
    char d8[8];
    Prepare(d8);
    EXPECT_NE(1, sscanf_s("ab", "%0s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Xs(8), Bytes(d8));
}

TEST(BoundsSscanf, UnknownConversionEqualToInputIsMatchedAsLiteral) {
    int i = 0;
    int j = 0;
    EXPECT_EQ(2, sscanf_s("5y7", "%d%y%d", &i, &j));
    EXPECT_EQ(5, i);
    EXPECT_EQ(7, j);
}

TEST(BoundsSscanf, UnknownConversionDifferentFromInputAfterConversionGivesMinusOne) {
    int i = 0;
    int j = 77;
    EXPECT_EQ(-1, sscanf_s("5z7", "%d%y%d", &i, &j));
    EXPECT_EQ(5, i);
    EXPECT_EQ(77, j);
}

TEST(BoundsSscanf, NumberReadToEndBeforeNullPointerReturnsAssignedCount) {
    int i = 0;
    EXPECT_EQ(1, sscanf_s("1 2", "%d %d", &i, static_cast<int *>(nullptr)));
    EXPECT_EQ(1, i);
}

TEST(BoundsSscanf, SuppressedStringThenNumberToEndWithNullPointerReturnsZero) {
    EXPECT_EQ(0, sscanf_s("ab 2", "%*s %d", static_cast<int *>(nullptr)));
}

TEST(BoundsSscanf, NullPointerForNumberFollowedByMoreInputGivesMinusOne) {
    int i = 0;
    EXPECT_EQ(-1, sscanf_s("1 2 ", "%d %d", &i, static_cast<int *>(nullptr)));
    EXPECT_EQ(1, i);
}

TEST(BoundsSscanf, InputRunningOutAfterTwoConversionsReturnsTwo) {
    int i = 0;
    int j = 0;
    int k = 77;
    EXPECT_EQ(2, sscanf_s("1 2", "%d %d %d", &i, &j, &k));
    EXPECT_EQ(1, i);
    EXPECT_EQ(2, j);
    EXPECT_EQ(77, k);
}

TEST(BoundsSscanf, SscanfAndVsscanfGiveIdenticalResults) {
    struct Outcome {
        int ret;
        int i;
        std::string d8;
    };
    auto viaSscanf = [](const char *in, const char *fmt) {
        char d8[8];
        Prepare(d8);
        int i = 77;
        int r = sscanf_s(in, fmt, &i, d8, static_cast<size_t>(4));
        return Outcome{r, i, Bytes(d8)};
    };
    auto viaVsscanf = [](const char *in, const char *fmt) {
        char d8[8];
        Prepare(d8);
        int i = 77;
        int r = CallVsscanf(in, fmt, &i, d8, static_cast<size_t>(4));
        return Outcome{r, i, Bytes(d8)};
    };
    const char *const cases[][2] = {{"5 abc", "%d %s"},    {"5 hello", "%d %s"}, {"", "%d %s"},
                                    {"x", "%d %s"},        {"5", "%d %s"},       {"5 ab", "%d %y"},
                                    {"5 ab", "%d %[a-z]"}, {"5 abcd", "%d %3c"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c[1]) + " on \"" + c[0] + "\"");
        Outcome a = viaSscanf(c[0], c[1]);
        Outcome b = viaVsscanf(c[0], c[1]);
        EXPECT_EQ(a.ret, b.ret);
        EXPECT_EQ(a.i, b.i);
        EXPECT_EQ(a.d8, b.d8);
    }

    int i = 0;
    EXPECT_EQ(1, CallVsscanf("123", "%d", &i));
    EXPECT_EQ(123, i);
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(-1, CallVsscanf("", "%s", d8, static_cast<size_t>(8)));
    EXPECT_EQ(Lit("\0XXXXXXX"), Bytes(d8));
    Prepare(d8);
    EXPECT_EQ(0, CallVsscanf("hello", "%s", d8, static_cast<size_t>(5)));
    EXPECT_EQ(Lit("\0ellXXXX"), Bytes(d8));
    EXPECT_EQ(-1, CallVsscanf(nullptr, "%d", &i));
    EXPECT_EQ(-1, CallVsscanf("1", nullptr));
}

// ---------------------------------------------------------------------------------------
// strtok_s
// ---------------------------------------------------------------------------------------

TEST(BoundsStrtok, SplitsOverwritingOneDelimiterPerCall) {
    char s[] = "a,b,,c";
    char *ctx = nullptr;
    EXPECT_STREQ("a", strtok_s(s, ",", &ctx));
    EXPECT_EQ(s + 2, ctx);
    EXPECT_STREQ("b", strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(s + 4, ctx);
    EXPECT_STREQ("c", strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(s + 6, ctx);
    EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(s + 6, ctx);
    EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(s + 6, ctx);
    EXPECT_EQ(Lit("a\0b\0,c\0"), Bytes(s));
}

TEST(BoundsStrtok, TokenStartIsInsideTheString) {
    char s[] = "a,b,,c";
    char *ctx = nullptr;
    EXPECT_EQ(s, strtok_s(s, ",", &ctx));
    EXPECT_EQ(s + 2, strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(s + 5, strtok_s(nullptr, ",", &ctx));
}

TEST(BoundsStrtok, NullStringWithNullContextGivesNull) {
    char *ctx = nullptr;
    EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &ctx));
    EXPECT_EQ(nullptr, ctx);
}

TEST(BoundsStrtok, NullContextPointerGivesNullAndWritesNothing) {
    char s[] = "a,b";
    EXPECT_EQ(nullptr, strtok_s(s, ",", nullptr));
    EXPECT_EQ(Lit("a,b\0"), Bytes(s));
}

TEST(BoundsStrtok, NullDelimitersGiveNullAndWriteNothing) {
    char s[] = "a,b";
    char *ctx = s + 1;
    EXPECT_EQ(nullptr, strtok_s(s, nullptr, &ctx));
    EXPECT_EQ(Lit("a,b\0"), Bytes(s));
    EXPECT_EQ(s + 1, ctx);
    EXPECT_EQ(nullptr, strtok_s(nullptr, nullptr, &ctx));
    EXPECT_EQ(s + 1, ctx);
}

TEST(BoundsStrtok, OnlyDelimitersGiveNullWithContextOnTerminator) {
    char s[] = ",,,";
    char *ctx = nullptr;
    EXPECT_EQ(nullptr, strtok_s(s, ",", &ctx));
    EXPECT_EQ(s + 3, ctx);
    EXPECT_EQ(Lit(",,,\0"), Bytes(s));
}

TEST(BoundsStrtok, EmptyDelimiterSetMakesWholeStringOneToken) {
    char s[] = "abc";
    char *ctx = nullptr;
    EXPECT_EQ(s, strtok_s(s, "", &ctx));
    EXPECT_EQ(s + 3, ctx);
    EXPECT_EQ(nullptr, strtok_s(nullptr, "", &ctx));
    EXPECT_EQ(s + 3, ctx);
    EXPECT_EQ(Lit("abc\0"), Bytes(s));
}

TEST(BoundsStrtok, SeveralDelimiterCharacters) {
    char s[] = "/a//b\\c";
    char *ctx = nullptr;
    EXPECT_STREQ("a", strtok_s(s, "/\\", &ctx));
    EXPECT_STREQ("b", strtok_s(nullptr, "/\\", &ctx));
    EXPECT_STREQ("c", strtok_s(nullptr, "/\\", &ctx));
    EXPECT_EQ(nullptr, strtok_s(nullptr, "/\\", &ctx));
    EXPECT_EQ(Lit("/a\0/b\0c\0"), Bytes(s));
}

TEST(BoundsStrtok, NonNullStringIgnoresOldContext) {
    char s[] = "x y";
    char *ctx = reinterpret_cast<char *>(static_cast<uintptr_t>(1));  // would fault if used
    EXPECT_EQ(s, strtok_s(s, " ", &ctx));
    EXPECT_EQ(s + 2, ctx);
}

TEST(BoundsStrtok, LeadingDelimitersAreSkipped) {
    char s[] = ",,ab";
    char *ctx = nullptr;
    EXPECT_EQ(s + 2, strtok_s(s, ",", &ctx));
    EXPECT_EQ(s + 4, ctx);
    EXPECT_EQ(Lit(",,ab\0"), Bytes(s));
}

TEST(BoundsStrtok, RestartingWithNewStringWorksAfterExhaustion) {
    char s[] = "a";
    char t[] = "b;c";
    char *ctx = nullptr;
    EXPECT_EQ(s, strtok_s(s, ";", &ctx));
    EXPECT_EQ(nullptr, strtok_s(nullptr, ";", &ctx));
    EXPECT_EQ(t, strtok_s(t, ";", &ctx));
    EXPECT_EQ(t + 2, ctx);
}

TEST(BoundsStrtok, EmptyStringGivesNullWithContextOnIt) {
    char s[] = "";
    char *ctx = nullptr;
    EXPECT_EQ(nullptr, strtok_s(s, ",", &ctx));
    EXPECT_EQ(s, ctx);
}

// ---------------------------------------------------------------------------------------
// errno is neither read nor written
// ---------------------------------------------------------------------------------------

TEST(BoundsErrno, MemoryAndStringFunctionsLeaveErrnoAlone) {
    char d8[8];
    char b16[16];
    Prepare(b16, "0123456789");
    errno = 4242;
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, 8, S, 8));
    EXPECT_EQ(ERANGE, memcpy_s(d8, 0, S, 0));
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, 8, S, 4));
    EXPECT_EQ(EOVERLAP_AND_RESET, memcpy_s(b16 + 2, 8, b16, 4));
    EXPECT_EQ(ERANGE_AND_RESET, memset_s(d8, 8, 'a', 9));
    EXPECT_EQ(EINVAL_AND_RESET, strncpy_s(d8, 8, nullptr, 3));
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "ab", 2));
    EXPECT_EQ(ERANGE_AND_RESET, strcat_s(d8, 3, "cde"));
    Prepare(d8, Lit("ab\0"));
    EXPECT_EQ(EOK, strncat_s(d8, 8, "cd", 2));
    EXPECT_EQ(4242, errno);
}

TEST(BoundsErrno, ErrnoValueDoesNotChangeResults) {
    char d8[8];
    errno = EINVAL;
    Prepare(d8);
    EXPECT_EQ(EOK, memcpy_s(d8, 8, S, 4));
    EXPECT_EQ(EOK, strncpy_s(d8, 8, "abc", 3));
    EXPECT_EQ(3, sprintf_s(d8, 8, "%d", 123));
    int i = 0;
    EXPECT_EQ(1, sscanf_s("7", "%d", &i));
    EXPECT_EQ(EINVAL, errno);
    errno = ERANGE;
    EXPECT_EQ(EOK, memset_s(d8, 8, 'a', 2));
    EXPECT_EQ(EOK, strcat_s(d8, 8, ""));
    EXPECT_EQ(ERANGE, errno);
}

TEST(BoundsErrno, FormatFunctionsLeaveErrnoAlone) {
    char b16[16];
    errno = 4242;
    Prepare(b16);
    EXPECT_EQ(4, sprintf_s(b16, 16, "%d", 1234));
    EXPECT_EQ(-1, sprintf_s(b16, 4, "%s", "abcd"));
    EXPECT_EQ(-1, sprintf_s(b16, 16, "%y"));
    EXPECT_EQ(-1, sprintf_s(nullptr, 16, "x"));
    EXPECT_EQ(-1, sprintf_s(b16, 16, "%m"));
    EXPECT_EQ(8, sprintf_s(b16, 16, "%f", 3.25));
    EXPECT_EQ(-1, snprintf_s(b16, 16, 3, "%s", "abcdef"));
    EXPECT_EQ(-1, snprintf_s(b16, 16, SIZE_MAX, "x"));
    EXPECT_EQ(6, sprintf_s(b16, 16, "%s", static_cast<const char *>(nullptr)));
    EXPECT_EQ(4242, errno);
}

TEST(BoundsErrno, NonFloatScanningAndTokenizingLeaveErrnoAlone) {
    errno = 4242;
    int i = 0;
    char d8[8];
    Prepare(d8);
    EXPECT_EQ(1, sscanf_s("99999999999999999999", "%d", &i));
    EXPECT_EQ(-1, sscanf_s("", "%d", &i));
    EXPECT_EQ(0, sscanf_s("abc", "%d", &i));
    EXPECT_EQ(0, sscanf_s("hello", "%s", d8, static_cast<size_t>(5)));
    EXPECT_EQ(-1, sscanf_s(nullptr, "%d", &i));
    EXPECT_EQ(-1, sscanf_s("abc", "%y"));
    char s[] = "a,b";
    char *ctx = nullptr;
    EXPECT_STREQ("a", strtok_s(s, ",", &ctx));
    EXPECT_EQ(nullptr, strtok_s(nullptr, nullptr, &ctx));
    EXPECT_EQ(4242, errno);
}
