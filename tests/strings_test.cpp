// String utilities.

#include <gtest/gtest.h>
#include <dlfcn.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "qel_memory.h"
#include "qel_string.h"

#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using qel_test::kSentinel;
constexpr const char *kStringSource = "os_adapter/linux/source/os_str_config.cpp";

void release(void *block) { ZEPO_MemTypeFreeD(block, 0, __LINE__, __FILE__); }

// What the last zero-filled allocation asked for (see ZEPO_MemTypeMallocS below).
struct Request {
    uint32_t size = 0;
    uint32_t line = 0;
    std::string file;
};
Request last_request;

}  // namespace

// Interposed in front of the library's own entry point, which the string functions call
// through the dynamic linker: records each request, then forwards it.
extern "C" void *ZEPO_MemTypeMallocS(uint32_t size, int32_t fill, uint32_t type, uint32_t line,
                                     const char *file) {
    using Entry = void *(*)(uint32_t, int32_t, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Entry>("ZEPO_MemTypeMallocS");
    last_request = Request{size, line, file != nullptr ? file : ""};
    return next(size, fill, type, line, file);
}

// ---- Length and comparison -------------------------------------------------------------

TEST(Strings, StrLenOfNullIsZero) { EXPECT_EQ(ZEPO_StrLen(nullptr), 0u); }

TEST(Strings, StrLenOfEmptyIsZeroAndOfTextIsItsLength) {
    EXPECT_EQ(ZEPO_StrLen(""), 0u);
    EXPECT_EQ(ZEPO_StrLen("abc"), 3u);
}

TEST(StringsDeathTest, StrCmpOfNullFaultsAsStrcmpDoes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *none = nullptr;
    EXPECT_DEATH(ZEPO_StrCmp(none, "a"), "");
}

TEST(Strings, StrCmpOrdersAsStrcmp) {
    EXPECT_EQ(ZEPO_StrCmp("abc", "abc"), 0);
    EXPECT_LT(ZEPO_StrCmp("abc", "abd"), 0);
    EXPECT_GT(ZEPO_StrCmp("b", "a"), 0);
    EXPECT_LT(ZEPO_StrCmp("A", "a"), 0);
}

TEST(Strings, StrNCmpComparesAtMostNCharacters) {
    EXPECT_EQ(ZEPO_StrNCmp("abcX", "abcY", 3), 0);
    EXPECT_LT(ZEPO_StrNCmp("abcX", "abcY", 4), 0);
    EXPECT_EQ(ZEPO_StrNCmp("a", "b", 0), 0);
}

TEST(Strings, StriCmpIgnoresCase) {
    EXPECT_EQ(ZEPO_StriCmp("HeLLo", "hello"), 0);
    EXPECT_LT(ZEPO_StriCmp("ABC", "abd"), 0);
}

TEST(Strings, StriNCmpIgnoresCaseUpToN) {
    EXPECT_EQ(ZEPO_StriNCmp("ABCx", "abcy", 3), 0);
    EXPECT_NE(ZEPO_StriNCmp("ABCx", "abcy", 4), 0);
}

// ---- Search ----------------------------------------------------------------------------

TEST(Strings, StrStrFindsTheFirstOccurrenceOrNull) {
    const char *hay = "one two two";
    EXPECT_EQ(ZEPO_StrStr(hay, "two"), hay + 4);
    EXPECT_EQ(ZEPO_StrStr(hay, "three"), nullptr);
    EXPECT_EQ(ZEPO_StrStr(hay, ""), hay);
}

TEST(Strings, StrChrFindsTheFirstAndStrrChrTheLastOccurrence) {
    const char *text = "a/b/c";
    EXPECT_EQ(ZEPO_StrChr(text, '/'), text + 1);
    EXPECT_EQ(ZEPO_StrrChr(text, '/'), text + 3);
    EXPECT_EQ(ZEPO_StrChr(text, 'z'), nullptr);
    EXPECT_EQ(ZEPO_StrrChr(text, 'z'), nullptr);
}

TEST(Strings, StrChrNarrowsTheCharacterToEightBits) {
    const char *text = "xAy";
    EXPECT_EQ(ZEPO_StrChr(text, 0x141), text + 1);   // 0x141 narrows to 'A'
    EXPECT_EQ(ZEPO_StrrChr(text, 0x179), text + 2);  // 0x179 narrows to 'y'
}

TEST(Strings, StrChrFindsHighBytes) {
    const char text[] = {'a', static_cast<char>(0xE9), 'b', '\0'};
    EXPECT_EQ(ZEPO_StrChr(text, 0xE9), text + 1);
    EXPECT_EQ(ZEPO_StrChr(text, -23), text + 1);  // the same byte as a signed value
}

TEST(Strings, StrChrOfZeroFindsTheTerminator) {
    const char *text = "abc";
    EXPECT_EQ(ZEPO_StrChr(text, 0), text + 3);
    EXPECT_EQ(ZEPO_StrrChr(text, 0x100), text + 3);
}

// ---- Number conversion -----------------------------------------------------------------

TEST(Strings, StrtolReturnsSigned64BitValueAndEnd) {
    char *end = nullptr;
    const char *text = "  -42xyz";
    EXPECT_EQ(ZEPO_Strtol(text, &end, 10), -42);
    EXPECT_EQ(end, text + 5);
    EXPECT_EQ(ZEPO_Strtol("9223372036854775807", nullptr, 10), INT64_MAX);
    EXPECT_EQ(ZEPO_Strtol("ff", nullptr, 16), 255);
    EXPECT_EQ(ZEPO_Strtol("0x10", nullptr, 0), 16);
}

TEST(Strings, StrtolLeavesErangeOnOverflow) {
    errno = 0;
    EXPECT_EQ(ZEPO_Strtol("99999999999999999999", nullptr, 10), INT64_MAX);
    EXPECT_EQ(errno, ERANGE);
}

TEST(Strings, StrtoulReturnsUnsigned64BitValue) {
    char *end = nullptr;
    const char *text = "18446744073709551615!";
    EXPECT_EQ(ZEPO_Strtoul(text, &end, 10), UINT64_MAX);
    EXPECT_EQ(*end, '!');
    EXPECT_EQ(ZEPO_Strtoul("777", nullptr, 8), 511u);
}

TEST(Strings, StrToIntConvertsInBaseTen) {
    EXPECT_EQ(ZEPO_StrToInt("123abc"), 123);
    EXPECT_EQ(ZEPO_StrToInt("-17"), -17);
    EXPECT_EQ(ZEPO_StrToInt("0x1F"), 0);  // base 10: stops at the x
    EXPECT_EQ(ZEPO_StrToInt("010"), 10);
}

TEST(Strings, StrToIntKeepsTheLow32BitsOfTheValue) { EXPECT_EQ(ZEPO_StrToInt("4294967297"), 1); }

TEST(Strings, StrToFloatNarrowsToSinglePrecision) {
    EXPECT_EQ(ZEPO_StrToFloat("1.5"), 1.5f);
    EXPECT_EQ(ZEPO_StrToFloat("0.1"), 0.1f);
    EXPECT_EQ(ZEPO_StrToFloat("abc"), 0.0f);
}

// ---- ZEPO_StrToInt32 -------------------------------------------------------------------

TEST(StringsStrToInt32, HexTextGivesZeroWith31Stored) {
    int32_t out = -7;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("0x1F", &out), 0);
    EXPECT_EQ(out, 31);
}

TEST(StringsStrToInt32, LeadingZeroMeansOctal) {
    int32_t out = 0;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("010", &out), 0);
    EXPECT_EQ(out, 8);
}

TEST(StringsStrToInt32, NegativeDecimalConverts) {
    int32_t out = 0;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("-123", &out), 0);
    EXPECT_EQ(out, -123);
}

TEST(StringsStrToInt32, TextWithoutDigitsGivesOneWithZeroStored) {
    int32_t out = -7;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StrToInt32("abc", &out), 1);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(errno, 0);  // cleared on failure
}

TEST(StringsStrToInt32, EmptyTextGivesOne) {
    int32_t out = -7;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("", &out), 1);
    EXPECT_EQ(out, 0);
}

TEST(StringsStrToInt32, BeyondSigned64BitRangeGivesOneWithLow32BitsOfClampedValue) {
    int32_t out = 0;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("99999999999999999999", &out), 1);
    EXPECT_EQ(out, -1);  // low 32 bits of 0x7FFFFFFFFFFFFFFF
    EXPECT_EQ(errno, 0);

    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("-99999999999999999999", &out), 1);
    EXPECT_EQ(out, 0);  // low 32 bits of 0x8000000000000000
}

TEST(StringsStrToInt32, Value4294967296GivesZeroWithZeroStored) {
    int32_t out = -7;
    errno = 0;
    EXPECT_EQ(ZEPO_StrToInt32("4294967296", &out), 0);
    EXPECT_EQ(out, 0);
}

TEST(StringsStrToInt32, StaleRangeErrorFailsAValidConversionAndIsCleared) {
    int32_t out = 0;
    errno = ERANGE;
    EXPECT_EQ(ZEPO_StrToInt32("12", &out), 1);
    EXPECT_EQ(out, 12);  // stored all the same
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(ZEPO_StrToInt32("12", &out), 0);  // the next call succeeds
}

TEST(StringsStrToInt32, OtherStaleErrnoIsLeftOnSuccess) {
    int32_t out = 0;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_StrToInt32("5", &out), 0);
    EXPECT_EQ(errno, kSentinel);
}

// ---- Case conversion -------------------------------------------------------------------

TEST(StringsCase, CharToLowerAndUpperUseTheLocaleTables) {
    EXPECT_EQ(ZEPO_CharToLower('A'), 'a');
    EXPECT_EQ(ZEPO_CharToLower('a'), 'a');
    EXPECT_EQ(ZEPO_CharToUpper('z'), 'Z');
    EXPECT_EQ(ZEPO_CharToUpper('1'), '1');
}

TEST(StringsCase, HighBytesConvertWithoutFaultAndStayThemselvesInTheCLocale) {
    // The tables' negative entries are read for these bytes; in the C locale they hold
    // every byte itself, as the positive ones do, so this shows the lookup is in range.
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(ZEPO_CharToLower(c), c) << byte;
        EXPECT_EQ(ZEPO_CharToUpper(c), c) << byte;
    }
}

TEST(StringsCase, StrToUperConvertsInPlaceAndReturnsTheText) {
    char text[] = "Hello, World 42";
    EXPECT_EQ(ZEPO_StrToUper(text), text);
    EXPECT_STREQ(text, "HELLO, WORLD 42");
}

TEST(StringsCase, StrToLowerConvertsInPlaceAndReturnsTheText) {
    char text[] = "Hello, World 42";
    EXPECT_EQ(ZEPO_StrToLower(text), text);
    EXPECT_STREQ(text, "hello, world 42");
}

TEST(StringsCase, NullOrEmptyTextIsReturnedUnchanged) {
    EXPECT_EQ(ZEPO_StrToUper(nullptr), nullptr);
    EXPECT_EQ(ZEPO_StrToLower(nullptr), nullptr);
    char empty[2] = {'\0', 'x'};
    EXPECT_EQ(ZEPO_StrToUper(empty), empty);
    EXPECT_EQ(ZEPO_StrToLower(empty), empty);
    EXPECT_EQ(empty[1], 'x');
}

TEST(StringsCase, ConversionStopsAtTheTerminator) {
    char text[] = {'a', 'b', '\0', 'c', '\0'};
    ZEPO_StrToUper(text);
    EXPECT_EQ(std::string(text, sizeof text), std::string("AB\0c\0", 5));
}

// ---- Number to text --------------------------------------------------------------------

TEST(StringsNumberText, IntToStrFormatsDecimal) {
    char buf[11];
    EXPECT_EQ(ZEPO_IntToStr(-42, buf), buf);
    EXPECT_STREQ(buf, "-42");
    EXPECT_STREQ(ZEPO_IntToStr(2147483647, buf), "2147483647");
}

TEST(StringsNumberText, IntToStrOfMostNegativeValueDoesNotFitElevenBytes) {
    // "-2147483648" needs twelve bytes; the failed format leaves an empty text.
    char buf[11];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_IntToStr(INT32_MIN, buf), buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("\0"
                                                        "214748364\0",
                                                        11));
}

TEST(StringsNumberText, IntToStrOfATenDigitNegativeValueDoesNotFit) {
    char buf[11];
    memset(buf, 'X', sizeof buf);
    CaptureStdout();
    ZEPO_IntToStr(-1000000000, buf);
    EXPECT_EQ(GetCapturedStdout(), "");  // the failed format is not traced
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("\0"
                                                        "100000000\0",
                                                        11));
    EXPECT_STREQ(ZEPO_IntToStr(-999999999, buf), "-999999999");
}

TEST(StringsNumberText, FloatToStrPrintsSixDecimals) {
    char buf[11];
    EXPECT_EQ(ZEPO_FloatToStr(buf, 1.5f), buf);
    EXPECT_STREQ(buf, "1.500000");
    EXPECT_STREQ(ZEPO_FloatToStr(buf, 999.5f), "999.500000");
    EXPECT_STREQ(ZEPO_FloatToStr(buf, -2.25f), "-2.250000");
}

TEST(StringsNumberText, FloatToStrOfOneThousandOrMoreLeavesAnEmptyText) {
    char buf[11];
    memset(buf, 'X', sizeof buf);
    CaptureStdout();
    ZEPO_FloatToStr(buf, 1000.0f);
    EXPECT_EQ(GetCapturedStdout(), "");  // the failed format is not traced
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("\0"
                                                        "000.00000\0",
                                                        11));
}

TEST(StringsNumberText, FloatToStrOfWhatRoundsUpToOneThousandLeavesAnEmptyText) {
    char buf[11];
    EXPECT_EQ(ZEPO_FloatToStr(buf, 999.9999999f)[0], '\0');
}

TEST(StringsNumberText, FloatToStrOfMinusOneHundredOrLessLeavesAnEmptyText) {
    char buf[11];
    EXPECT_EQ(ZEPO_FloatToStr(buf, -100.0f)[0], '\0');
    EXPECT_STREQ(ZEPO_FloatToStr(buf, -99.5f), "-99.500000");
}

TEST(StringsUltostr, Size20Value255Base16WritesFfAndGivesTwo) {
    char buf[20];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 255, 16), 2);
    EXPECT_STREQ(buf, "ff");
}

TEST(StringsUltostr, Size20Value255Base10WritesThreeDigitsAndGivesThree) {
    char buf[20];
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 255, 10), 3);
    EXPECT_STREQ(buf, "255");
}

TEST(StringsUltostr, Base8IsOctalAndEveryOtherBaseIsDecimal) {
    char buf[20];
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 255, 8), 3);
    EXPECT_STREQ(buf, "377");
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 255, 2), 3);
    EXPECT_STREQ(buf, "255");
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 255, 0), 3);
    EXPECT_STREQ(buf, "255");
}

TEST(StringsUltostr, SizeZeroGivesMinusOneAndWritesNothing) {
    char buf[4] = {'X', 'X', 'X', 'X'};
    EXPECT_EQ(ZEPO_Ultostr(buf, 0, 255, 10), -1);
    EXPECT_EQ(std::string(buf, 4), "XXXX");
}

TEST(StringsUltostr, TextThatDoesNotFitGivesMinusOneAndKeepsTheCutText) {
    char buf[8];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_Ultostr(buf, 3, 255, 10), -1);
    EXPECT_EQ(std::string(buf, 4), std::string("25\0X", 4));
}

TEST(StringsUltostr, SizeOneLeavesAnEmptyTextAndGivesMinusOne) {
    char buf[4] = {'X', 'X', 'X', 'X'};
    EXPECT_EQ(ZEPO_Ultostr(buf, 1, 7, 10), -1);
    EXPECT_EQ(std::string(buf, 4), std::string("\0XXX", 4));
}

TEST(StringsUltostr, NullBufferIsLeftToTheFormatterWhichRefusesIt) {
    EXPECT_EQ(ZEPO_Ultostr(nullptr, 5, 7, 10), -1);
}

TEST(StringsUltostr, TruncationIsNotTraced) {
    char buf[8];
    CaptureStdout();
    EXPECT_EQ(ZEPO_Ultostr(buf, 2, 255, 10), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(StringsUltostr, TextFillingAllButTheTerminatorFits) {
    char buf[8];
    EXPECT_EQ(ZEPO_Ultostr(buf, 4, 255, 10), 3);
    EXPECT_STREQ(buf, "255");
}

TEST(StringsUltostr, AtMostElevenCharactersAreWritten) {
    char buf[32];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_Ultostr(buf, 32, 4294967295u, 8), 11);
    EXPECT_STREQ(buf, "37777777777");
    EXPECT_EQ(buf[12], 'X');  // the size is cut to 12

    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(ZEPO_Ultostr(buf, 11, 4294967295u, 8), -1);
    EXPECT_EQ(std::string(buf, 12), std::string("3777777777\0X", 12));
}

TEST(StringsUltostr, ValueIsUnsigned32Bit) {
    char buf[20];
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 4294967295u, 10), 10);
    EXPECT_STREQ(buf, "4294967295");
    EXPECT_EQ(ZEPO_Ultostr(buf, 20, 4294967295u, 16), 8);
    EXPECT_STREQ(buf, "ffffffff");
}

// ---- New strings -----------------------------------------------------------------------

TEST(StringsConcat, JoinsTheTextsUpToTheNullPointer) {
    char *joined = ZEPO_StrConcat("ab", "cd", "e", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_STREQ(joined, "abcde");
    release(joined);
}

TEST(StringsConcat, EmptyTextEndsTheList) {
    char *joined = ZEPO_StrConcat("a", "", "b", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_STREQ(joined, "a");
    release(joined);
}

TEST(StringsConcat, FirstTextAloneIsCopied) {
    const char *first = "only";
    char *joined = ZEPO_StrConcat(first, static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_NE(joined, first);
    EXPECT_STREQ(joined, "only");
    release(joined);
}

TEST(StringsConcat, EmptyFirstTextStillTakesTheFollowingTexts) {
    char *joined = ZEPO_StrConcat("", "x", "y", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_STREQ(joined, "xy");
    release(joined);
}

TEST(StringsConcat, NullFirstTextFailsItsAppendAndGivesNullWithoutATrace) {
    CaptureStdout();
    EXPECT_EQ(ZEPO_StrConcat(nullptr, "x", static_cast<char *>(nullptr)), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(StringsConcat, AllocatesTheSumOfTheLengthsPlusOne) {
    char *joined = ZEPO_StrConcat("12345", "678", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_EQ(last_request.size, 9u);
    EXPECT_STREQ(joined, "12345678");
    release(joined);
}

TEST(StringsConcat, EmptyTextEndsTheSumToo) {
    char *joined = ZEPO_StrConcat("a", "", "bcdef", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_EQ(last_request.size, 2u);
    release(joined);
}

TEST(StringsConcat, AllocationIsChargedToTheStringSource) {
    char *joined = ZEPO_StrConcat("x", static_cast<char *>(nullptr));
    ASSERT_NE(joined, nullptr);
    EXPECT_EQ(last_request.file, kStringSource);
    EXPECT_GT(last_request.line, 0u);
    release(joined);
}

TEST(StringsDup, NullGivesANewEmptyTextNotNull) {
    CaptureStdout();
    char *copy = ZEPO_StrDupEx(nullptr, __LINE__, __FILE__);
    EXPECT_EQ(GetCapturedStdout(), "");  // the failed copy is not traced
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "");
    EXPECT_EQ(last_request.size, 1u);
    release(copy);
}

TEST(StringsDup, AllocationIsChargedToTheCallersPosition) {
    char *copy = ZEPO_StrDupEx("abc", 4321, "app/caller.c");
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(last_request.size, 4u);
    EXPECT_EQ(last_request.line, 4321u);
    EXPECT_EQ(last_request.file, "app/caller.c");
    release(copy);
}

TEST(StringsDup, CopiesTheTextIntoANewBlock) {
    const char *text = "duplicate me";
    char *copy = ZEPO_StrDupEx(text, __LINE__, __FILE__);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    release(copy);
}

TEST(StringsDup, EmptyTextGivesANewEmptyText) {
    char *copy = ZEPO_StrDupEx("", __LINE__, __FILE__);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "");
    release(copy);
}
