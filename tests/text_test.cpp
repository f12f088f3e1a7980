// Text conversion: the UTF-8 codec between bytes and 32-bit code points with its string
// converters, the iconv- and locale-based converters, their release function, the
// tokenizer and the UTF-8 end check.

#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "qel_memory.h"
#include "qel_text.h"

#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr const char *kCodecSource = "os_adapter/linux/source/os_fil_config.cpp";
constexpr const char *kConverterSource = "os_adapter/linux/source/os_str_config.cpp";

using Bytes = std::vector<unsigned char>;
using Units = std::vector<uint32_t>;

// ---- What the entry points see (see the interposed definitions below) -------------------

struct HeapCall {
    void *block;
    uint32_t size;
    uint32_t type;
    uint32_t line;
    std::string file;
    int matched = -1;  // a request: how often it was released (0 while live); a release:
                       // the request it released, -1 for a block not handed out here
};

struct Watch {
    bool on = false;
    int fail_at = 0;  // the request (counted from 1) that is refused; 0: none
    std::vector<HeapCall> requests;
    std::vector<HeapCall> releases;  // releases of real blocks only
};
Watch watch;

// Records the requests and releases made while it lives; refuses the fail_at-th request.
class Recording {
public:
    explicit Recording(int fail_at = 0) {
        watch = Watch{};
        watch.fail_at = fail_at;
        watch.on = true;
    }
    ~Recording() { watch.on = false; }
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;
};

}  // namespace

// Interposed in front of the library's own entry points, which the converters call through
// the dynamic linker: records each request and release, then forwards it.
extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Entry = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Entry>("ZEPO_MemTypeMallocD");
    if (!watch.on) return next(size, type, line, file);
    const bool refuse = watch.fail_at == static_cast<int>(watch.requests.size()) + 1;
    void *block = refuse ? nullptr : next(size, type, line, file);
    watch.requests.push_back(
        HeapCall{block, size, type, line, file != nullptr ? file : "", block != nullptr ? 0 : -1});
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *ptr, uint32_t type, uint32_t line, const char *file) {
    using Entry = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Entry>("ZEPO_MemTypeFreeD");
    if (watch.on && ptr != nullptr) {
        // The block is matched with the latest request that handed it out: a block
        // released earlier may come back from the heap for a later request.
        int matched = -1;
        for (int i = static_cast<int>(watch.requests.size()) - 1; i >= 0; --i) {
            if (watch.requests[i].block == ptr) {
                matched = i;
                ++watch.requests[i].matched;
                break;
            }
        }
        watch.releases.push_back(
            HeapCall{ptr, 0, type, line, file != nullptr ? file : "", matched});
    }
    next(ptr, type, line, file);
}

namespace {

// ---- Calls through the declared types ----------------------------------------------------

// The parameter types of a function, so that the tests pass their bytes and units in
// whatever pointer type the header declares.
template <typename R, typename... P>
std::tuple<P...> params_of(R (*)(P...));
template <std::size_t I, auto Fn>
using param_t = std::tuple_element_t<I, decltype(params_of(Fn))>;

uint32_t decode(const unsigned char *src, uint32_t *cp) {
    return static_cast<uint32_t>(
        utf8_to_unicode((param_t<0, utf8_to_unicode>)(src), (param_t<1, utf8_to_unicode>)(cp)));
}
unsigned char *encode(uint32_t cp, unsigned char *dst) {
    return (unsigned char *)(unicode_to_utf8(cp, (param_t<1, unicode_to_utf8>)(dst)));
}
uint32_t unicode_count(const unsigned char *utf8) {
    return static_cast<uint32_t>(get_unicode_strlen((param_t<0, get_unicode_strlen>)(utf8)));
}
uint32_t *to_units(const unsigned char *utf8) {
    return (uint32_t *)(utf8Str_to_unicodeStr((param_t<0, utf8Str_to_unicodeStr>)(utf8)));
}
uint32_t utf8_length(const uint32_t *ucs) {
    return static_cast<uint32_t>(get_utf8_strlen((param_t<0, get_utf8_strlen>)(ucs)));
}
unsigned char *to_utf8(const uint32_t *ucs) {
    return (unsigned char *)(unicodeStr_to_utf8Str((param_t<0, unicodeStr_to_utf8Str>)(ucs)));
}
unsigned char *utf16_of(const char *utf8) {
    return (unsigned char *)(QEL_Utf8ToUnicodeW((param_t<0, QEL_Utf8ToUnicodeW>)(utf8)));
}
char *utf16_bytes_of(const char *utf8) {
    return (char *)(QEL_Utf8ToUnicodeA((param_t<0, QEL_Utf8ToUnicodeA>)(utf8)));
}
char *wide_to_utf8(const wchar_t *wide) {
    return (char *)(QEL_UnicodeToUtf8((param_t<0, QEL_UnicodeToUtf8>)(wide)));
}
char *wide_to_locale(const wchar_t *wide) {
    return (char *)(QEL_UnicodeToLocale((param_t<0, QEL_UnicodeToLocale>)(wide)));
}
wchar_t *locale_to_wide(const char *text) {
    return (wchar_t *)(QEL_LocaleToUnicodeW((param_t<0, QEL_LocaleToUnicodeW>)(text)));
}
char *locale_to_utf8(const char *text) {
    return (char *)(QEL_LocaleToUtf8((param_t<0, QEL_LocaleToUtf8>)(text)));
}
char *utf8_to_locale(const char *utf8) {
    return (char *)(QEL_Utf8ToLocale((param_t<0, QEL_Utf8ToLocale>)(utf8)));
}
char *tokenize(char *text, const char *delim, char **context) {
    return (char *)(ZEPO_StrTok_S((param_t<0, ZEPO_StrTok_S>)(text),
                                  (param_t<1, ZEPO_StrTok_S>)(delim),
                                  (param_t<2, ZEPO_StrTok_S>)(context)));
}
int check_end(void *text, int32_t len) {
    return static_cast<int>(QEL_Utf8Check((param_t<0, QEL_Utf8Check>)(text), len));
}

// ---- Helpers -----------------------------------------------------------------------------

void release(void *block) { ZEPO_MemTypeFreeD(block, 0, __LINE__, __FILE__); }

// A result of the QEL_ converters, released with QEL_StrMemFree.
class QelText {
public:
    explicit QelText(void *p) : p_(p) {}
    ~QelText() { QEL_StrMemFree(p_); }
    QelText(const QelText &) = delete;
    QelText &operator=(const QelText &) = delete;

private:
    void *p_;
};

// A result of the codec, released with ZEPO_MemTypeFreeD.
class CodecText {
public:
    explicit CodecText(void *p) : p_(p) {}
    ~CodecText() { release(p_); }
    CodecText(const CodecText &) = delete;
    CodecText &operator=(const CodecText &) = delete;

private:
    void *p_;
};

Bytes bytes_of(const void *p, std::size_t n) {
    const auto *b = static_cast<const unsigned char *>(p);
    return Bytes(b, b + n);
}

Bytes with_zeros(Bytes b, std::size_t total) {
    b.resize(total, 0);
    return b;
}

std::string text_of(const Bytes &b) { return std::string(b.begin(), b.end()); }

Units units_of(const uint32_t *p, std::size_t n) { return Units(p, p + n); }

// Every request and release named file and memory type 0; every block handed out was
// released exactly once, except the last one handed out at kept (the converter's
// result, or null), which is still live; nothing that was not handed out was released.
void expect_only_kept(const void *kept, const char *file) {
    int kept_index = -1;
    for (int i = 0; i < static_cast<int>(watch.requests.size()); ++i) {
        if (kept != nullptr && watch.requests[i].block == kept) kept_index = i;
    }
    if (kept != nullptr) {
        EXPECT_GE(kept_index, 0) << "result not from the entry point";
    }
    for (int i = 0; i < static_cast<int>(watch.requests.size()); ++i) {
        const HeapCall &r = watch.requests[i];
        EXPECT_EQ(r.file, file) << "request " << i + 1 << " of " << r.size << " bytes";
        EXPECT_EQ(r.type, 0u) << "request " << i + 1;
        EXPECT_GT(r.line, 0u) << "request " << i + 1;
        if (r.block == nullptr) continue;
        const int expected_releases = i == kept_index ? 0 : 1;
        EXPECT_EQ(r.matched, expected_releases)
            << (i == kept_index ? "the result" : "an intermediate") << ", request " << i + 1
            << " of " << r.size << " bytes";
    }
    for (const auto &r : watch.releases) {
        EXPECT_EQ(r.file, file);
        EXPECT_EQ(r.type, 0u);
        EXPECT_GE(r.matched, 0) << "released a block it did not obtain";
    }
}

std::vector<uint32_t> request_sizes() {
    std::vector<uint32_t> sizes;
    for (const auto &r : watch.requests) sizes.push_back(r.size);
    return sizes;
}

// The UTF-16LE bytes of an ASCII text with its terminator unit.
Bytes ascii_utf16(const std::string &text) {
    Bytes b;
    for (char c : text) {
        b.push_back(static_cast<unsigned char>(c));
        b.push_back(0);
    }
    b.push_back(0);
    b.push_back(0);
    return b;
}

// Bytes of the UTF-16LE conversion that QEL_Utf8ToUnicodeW keeps: one quarter of the
// free output space, the output being 8 bytes per input byte (terminator included).
std::size_t kept_bytes(std::size_t input_with_terminator, std::size_t produced) {
    return (input_with_terminator * 8 - produced) >> 2;
}

// What the C library's "unicode" source converter makes of 4-byte wide characters, in
// the way QEL_UnicodeToUtf8 uses it: (n + 1) × 4 input bytes, one iconv call, the
// non-zero bytes of its output.
std::string unicode_converter_keeps(const std::wstring &wide) {
    iconv_t cd = iconv_open("utf-8", "unicode");
    if (cd == reinterpret_cast<iconv_t>(-1)) return "";
    std::vector<wchar_t> in(wide.begin(), wide.end());
    in.push_back(0);
    std::vector<char> out(in.size() * 24, 0);
    char *ip = reinterpret_cast<char *>(in.data());
    std::size_t il = in.size() * sizeof(wchar_t);
    char *op = out.data();
    std::size_t ol = out.size();
    iconv(cd, &ip, &il, &op, &ol);
    iconv_close(cd);
    std::string kept;
    for (std::size_t i = 0; i < out.size() - ol; ++i)
        if (out[i] != 0) kept.push_back(out[i]);
    return kept;
}

// wcstombs in the locale now in force, or nothing when it reports an error.
std::optional<std::string> wcstombs_of(const std::vector<wchar_t> &wide_with_zero) {
    const std::size_t n = std::wcstombs(nullptr, wide_with_zero.data(), 0);
    if (n == static_cast<std::size_t>(-1)) return std::nullopt;
    std::string out(n + 1, '\0');
    std::wcstombs(out.data(), wide_with_zero.data(), n + 1);
    out.resize(n);
    return out;
}

// ---- Code-point range boundaries ---------------------------------------------------------

struct Form {
    uint32_t cp;
    Bytes bytes;
};

const std::vector<Form> &boundary_forms() {
    static const std::vector<Form> forms = {
        {0x0, {0x00}},
        {0x7F, {0x7F}},
        {0x80, {0xC2, 0x80}},
        {0x7FF, {0xDF, 0xBF}},
        {0x800, {0xE0, 0xA0, 0x80}},
        {0xFFFF, {0xEF, 0xBF, 0xBF}},
        {0x10000, {0xF0, 0x90, 0x80, 0x80}},
        {0x1FFFFF, {0xF7, 0xBF, 0xBF, 0xBF}},
        {0x200000, {0xF8, 0x88, 0x80, 0x80, 0x80}},
        {0x3FFFFFF, {0xFB, 0xBF, 0xBF, 0xBF, 0xBF}},
        {0x4000000, {0xFC, 0x84, 0x80, 0x80, 0x80, 0x80}},
        {0x3FFFFFFF, {0xFC, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}},
        {0x40000000, {0xFD, 0x80, 0x80, 0x80, 0x80, 0x80}},
        {0x7FFFFFFF, {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}},
    };
    return forms;
}

// Bytes followed by zeros, inside a larger zeroed buffer, so that a read past the
// terminator stays within the test's own memory.
struct Padded {
    explicit Padded(const Bytes &b) {
        for (std::size_t i = 0; i < b.size(); ++i) data[i] = b[i];
    }
    unsigned char data[64] = {};
};

// ==== utf8_to_unicode ====================================================================

TEST(TextCodec, TwoByteFormC3A9DecodesToE9InTwoBytes) {
    Padded in({0xC3, 0xA9});
    uint32_t cp = 0xDEADBEEF;
    EXPECT_EQ(decode(in.data, &cp), 2u);
    EXPECT_EQ(cp, 0xE9u);
}

TEST(TextCodec, LoneContinuationByteDecodesToItsOwnValueInOneByte) {
    Padded bf({0xBF});
    uint32_t cp = 0;
    EXPECT_EQ(decode(bf.data, &cp), 1u);
    EXPECT_EQ(cp, 0xBFu);
    Padded lowest({0x80, 0x41});
    EXPECT_EQ(decode(lowest.data, &cp), 1u);
    EXPECT_EQ(cp, 0x80u);
}

TEST(TextCodec, AsciiAndZeroDecodeToThemselvesInOneByte) {
    Padded a({'A', 'B'});
    uint32_t cp = 0xDEADBEEF;
    EXPECT_EQ(decode(a.data, &cp), 1u);
    EXPECT_EQ(cp, 0x41u);
    Padded zero({0x00});
    EXPECT_EQ(decode(zero.data, &cp), 1u);
    EXPECT_EQ(cp, 0u);
}

TEST(TextCodec, LeadBytesFEAndFFDecodeAsSixByteForms) {
    uint32_t cp = 0;
    Padded fe({0xFE, 0x80, 0x80, 0x80, 0x80, 0x81});
    EXPECT_EQ(decode(fe.data, &cp), 6u);
    EXPECT_EQ(cp, 1u);  // bit 0 of 0xFE is clear
    Padded ff({0xFF, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF});
    EXPECT_EQ(decode(ff.data, &cp), 6u);
    EXPECT_EQ(cp, 0x7FFFFFFFu);  // bit 0 of 0xFF lands at bit 30
    Padded fc({0xFC, 0x84, 0x80, 0x80, 0x80, 0x80});
    EXPECT_EQ(decode(fc.data, &cp), 6u);
    EXPECT_EQ(cp, 0x4000000u);
}

TEST(TextCodec, FollowingBytesAreNotCheckedOnlyTheirLowSixBitsTaken) {
    uint32_t cp = 0;
    Padded ascii_after({0xC3, 0x41});
    EXPECT_EQ(decode(ascii_after.data, &cp), 2u);
    EXPECT_EQ(cp, (0x03u << 6) | 0x01u);
    Padded overlong({0xC0, 0x80});
    EXPECT_EQ(decode(overlong.data, &cp), 2u);
    EXPECT_EQ(cp, 0u);
    Padded high_bits({0xE2, 0xC2, 0xEC});  // 0xC2 and 0xEC give 0x02 and 0x2C
    EXPECT_EQ(decode(high_bits.data, &cp), 3u);
    EXPECT_EQ(cp, 0x20ACu);
}

TEST(TextCodec, DecodingReadsFollowingBytesPastATerminator) {
    uint32_t cp = 0;
    Padded cut({0xE2, 0x00, 0x00});
    EXPECT_EQ(decode(cut.data, &cp), 3u);
    EXPECT_EQ(cp, 0x2000u);
    Padded four({0xF4, 0x00, 0x41, 0x42});
    EXPECT_EQ(decode(four.data, &cp), 4u);
    EXPECT_EQ(cp, (0x4u << 18) | (0x01u << 6) | 0x02u);
}

TEST(TextCodec, DecodingWithANullPointerConsumesNothing) {
    Padded in({0xC3, 0xA9});
    uint32_t cp = 0;
    EXPECT_EQ(decode(nullptr, &cp), 0u);
    EXPECT_EQ(decode(in.data, nullptr), 0u);
    EXPECT_EQ(decode(nullptr, nullptr), 0u);
}

// ==== unicode_to_utf8 ====================================================================

TEST(TextCodec, EachRangeBoundaryEncodesToItsExactBytesAndReturnsTheirEnd) {
    for (const auto &form : boundary_forms()) {
        unsigned char out[16];
        std::memset(out, 0xAA, sizeof out);
        unsigned char *end = encode(form.cp, out);
        ASSERT_NE(end, nullptr) << std::hex << form.cp;
        EXPECT_EQ(end - out, static_cast<std::ptrdiff_t>(form.bytes.size())) << std::hex << form.cp;
        EXPECT_EQ(bytes_of(out, form.bytes.size()), form.bytes) << std::hex << form.cp;
        EXPECT_EQ(out[form.bytes.size()], 0xAA) << "terminator written for " << std::hex << form.cp;
    }
}

TEST(TextCodec, EachRangeBoundaryRoundTripsThroughDecoding) {
    for (const auto &form : boundary_forms()) {
        unsigned char out[16] = {};
        unsigned char *end = encode(form.cp, out);
        ASSERT_NE(end, nullptr);
        uint32_t cp = 0xDEADBEEF;
        EXPECT_EQ(decode(out, &cp), static_cast<uint32_t>(end - out)) << std::hex << form.cp;
        EXPECT_EQ(cp, form.cp);
    }
}

TEST(TextCodec, TopCodePointEncodesAsFDAndFiveBFBytes) {
    unsigned char out[8] = {};
    EXPECT_EQ(encode(0x7FFFFFFF, out), out + 6);
    EXPECT_EQ(bytes_of(out, 7), (Bytes{0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0x00}));
}

TEST(TextCodec, Bit31IsDroppedWithoutNotice) {
    unsigned char out[8] = {};
    EXPECT_EQ(encode(0x80000000u, out), out + 6);
    EXPECT_EQ(bytes_of(out, 6), (Bytes{0xFC, 0x80, 0x80, 0x80, 0x80, 0x80}));
    uint32_t cp = 0xDEADBEEF;
    EXPECT_EQ(decode(out, &cp), 6u);
    EXPECT_EQ(cp, 0u);

    EXPECT_EQ(encode(0xFFFFFFFFu, out), out + 6);
    EXPECT_EQ(bytes_of(out, 6), (Bytes{0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}));
    EXPECT_EQ(decode(out, &cp), 6u);
    EXPECT_EQ(cp, 0x7FFFFFFFu);

    EXPECT_EQ(encode(0xC0000000u, out), out + 6);
    EXPECT_EQ(bytes_of(out, 6), (Bytes{0xFD, 0x80, 0x80, 0x80, 0x80, 0x80}));
}

TEST(TextCodec, EncodingIntoNullGivesNull) {
    EXPECT_EQ(encode(0x41, nullptr), nullptr);
    EXPECT_EQ(encode(0x7FFFFFFF, nullptr), nullptr);
}

TEST(TextCodec, EncodingWritesNoTerminator) {
    unsigned char out[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(encode(0xE9, out), out + 2);
    EXPECT_EQ(bytes_of(out, 4), (Bytes{0xC3, 0xA9, 0x33, 0x44}));
}

// ==== get_unicode_strlen =================================================================

TEST(TextCodecSizing, NullOrEmptyTextNeedsNoUnits) {
    EXPECT_EQ(unicode_count(nullptr), 0u);
    const unsigned char empty[1] = {0};
    EXPECT_EQ(unicode_count(empty), 0u);
}

TEST(TextCodecSizing, EachAsciiByteAndEachTwoByteFormCountsOne) {
    Padded ascii({'a', 'b', 'c'});
    EXPECT_EQ(unicode_count(ascii.data), 3u);
    Padded two({0xC3, 0xA9});
    EXPECT_EQ(unicode_count(two.data), 1u);
    Padded mixed({'a', 0xC3, 0xA9, 'b', 0xDF, 0xBF});
    EXPECT_EQ(unicode_count(mixed.data), 4u);
}

TEST(TextCodecSizing, ThreeBytesOfTheEuroSignCountTwo) {
    Padded euro({0xE2, 0x82, 0xAC});
    EXPECT_EQ(unicode_count(euro.data), 2u);
}

TEST(TextCodecSizing, FourByteFormsCountTwo) {
    Padded four({0xF0, 0x9F, 0x98, 0x80});
    EXPECT_EQ(unicode_count(four.data), 2u);
    Padded top({0xF7, 0xBF, 0xBF, 0xBF, 'x'});
    EXPECT_EQ(unicode_count(top.data), 3u);
}

TEST(TextCodecSizing, StrayBytesAndFiveAndSixByteLeadsCountOneByteAtATime) {
    Padded stray({0x80, 0xBF});
    EXPECT_EQ(unicode_count(stray.data), 2u);
    Padded five({0xF8, 0x88, 0x80, 0x80, 0x80});
    EXPECT_EQ(unicode_count(five.data), 5u);
    Padded six({0xFC, 0x84, 0x80, 0x80, 0x80, 0x80});
    EXPECT_EQ(unicode_count(six.data), 6u);
    Padded high({0xFE, 0xFF});
    EXPECT_EQ(unicode_count(high.data), 2u);
}

TEST(TextCodecSizing, WalkStopsAtTheTextLength) {
    Padded three({0xE2});
    EXPECT_EQ(unicode_count(three.data), 2u);
    Padded four({'a', 0xF0, 0x9F});
    EXPECT_EQ(unicode_count(four.data), 3u);
    Padded two({0xC3});
    EXPECT_EQ(unicode_count(two.data), 1u);
}

TEST(TextCodecSizing, MixedTextCountsGenerously) {
    // a, é, €, U+1F600: 1 + 1 + 2 + 2 although there are four characters.
    Padded mixed({'a', 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80});
    EXPECT_EQ(unicode_count(mixed.data), 6u);
}

// ==== utf8Str_to_unicodeStr ==============================================================

TEST(TextCodecDecode, NullOrEmptyTextGivesNullWithoutAllocating) {
    Recording rec;
    EXPECT_EQ(to_units(nullptr), nullptr);
    const unsigned char empty[1] = {0};
    EXPECT_EQ(to_units(empty), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST(TextCodecDecode, MixedTextGivesItsCodePointsThenZeroUnits) {
    Padded mixed({'a', 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80});
    Recording rec;
    uint32_t *units = to_units(mixed.data);
    CodecText hold(units);
    ASSERT_NE(units, nullptr);
    ASSERT_EQ(watch.requests.size(), 1u);
    EXPECT_EQ(watch.requests[0].size, 6u * 4 + 4);
    EXPECT_EQ(units_of(units, 7), (Units{0x61, 0xE9, 0x20AC, 0x1F600, 0, 0, 0}));
    expect_only_kept(units, kCodecSource);
}

TEST(TextCodecDecode, AllocatesFourBytesPerCountedUnitAndFourMore) {
    struct Case {
        Bytes text;
        uint32_t count;
    };
    const Case cases[] = {
        {{'a', 'b', 'c'}, 3},
        {{0xC3, 0xA9}, 1},
        {{0xE2, 0x82, 0xAC}, 2},
        {{0xF0, 0x9F, 0x98, 0x80}, 2},
        {{0xFC, 0x84, 0x80, 0x80, 0x80, 0x80}, 6},
    };
    for (const auto &c : cases) {
        Padded in(c.text);
        Recording rec;
        uint32_t *units = to_units(in.data);
        CodecText hold(units);
        ASSERT_NE(units, nullptr);
        ASSERT_EQ(watch.requests.size(), 1u);
        EXPECT_EQ(watch.requests[0].size, c.count * 4 + 4) << text_of(c.text);
        EXPECT_EQ(watch.requests[0].file, kCodecSource);
    }
}

TEST(TextCodecDecode, SixByteLeadDecodesToItsCodePointAndZeroUnits) {
    Padded in({0xFC, 0x84, 0x80, 0x80, 0x80, 0x80});
    uint32_t *units = to_units(in.data);
    CodecText hold(units);
    ASSERT_NE(units, nullptr);
    // Count 6 sizes seven units: the code point and six zero units.
    EXPECT_EQ(units_of(units, 7), (Units{0x4000000, 0, 0, 0, 0, 0, 0}));
}

TEST(TextCodecDecode, StrayContinuationBytesBecomeCodePointsOfTheirValue) {
    Padded in({0x80, 'x', 0xBF});
    uint32_t *units = to_units(in.data);
    CodecText hold(units);
    ASSERT_NE(units, nullptr);
    EXPECT_EQ(units_of(units, 4), (Units{0x80, 0x78, 0xBF, 0}));
}

TEST(TextCodecDecode, LeadPromisingMoreBytesThanRemainSkipsOverTheTerminator) {
    {
        // E2 takes the terminator and 'x' as its following bytes; decoding goes on at 'y'.
        Padded in({0xE2, 0x00, 'x', 'y'});
        Recording rec;
        uint32_t *units = to_units(in.data);
        CodecText hold(units);
        ASSERT_NE(units, nullptr);
        ASSERT_EQ(watch.requests.size(), 1u);
        EXPECT_EQ(watch.requests[0].size, 2u * 4 + 4);
        EXPECT_EQ(units_of(units, 3), (Units{(0x2u << 12) | 0x38u, 0x79, 0}));
    }
    {
        Padded in({0xF0, 0x00, 'a', 'b', 'c'});
        uint32_t *units = to_units(in.data);
        CodecText hold(units);
        ASSERT_NE(units, nullptr);
        EXPECT_EQ(units_of(units, 3), (Units{(0x21u << 6) | 0x22u, 0x63, 0}));
    }
}

TEST(TextCodecDecode, LeadPromisingMoreBytesThanRemainEndsAtTheNextZeroByte) {
    Padded in({'a', 0xE2});
    uint32_t *units = to_units(in.data);
    CodecText hold(units);
    ASSERT_NE(units, nullptr);
    EXPECT_EQ(units_of(units, 4), (Units{0x61, 0x2000, 0, 0}));
}

TEST(TextCodecDecode, FailedAllocationGivesNull) {
    Padded in({'a', 'b'});
    Recording rec(1);
    EXPECT_EQ(to_units(in.data), nullptr);
    ASSERT_EQ(watch.requests.size(), 1u);
    EXPECT_EQ(watch.requests[0].size, 12u);
    expect_only_kept(nullptr, kCodecSource);
}

// ==== get_utf8_strlen ====================================================================

TEST(TextCodecEncode, NullOrEmptyCodePointStringNeedsNoBytes) {
    EXPECT_EQ(utf8_length(nullptr), 0u);
    const uint32_t empty[1] = {0};
    EXPECT_EQ(utf8_length(empty), 0u);
}

TEST(TextCodecEncode, EachRangeNeedsItsNumberOfBytes) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0x1, 1},       {0x7F, 1},       {0x80, 2},       {0x7FF, 2},      {0x800, 3},
        {0xFFFF, 3},    {0x10000, 4},    {0x1FFFFF, 4},   {0x200000, 5},   {0x3FFFFFF, 5},
        {0x4000000, 6}, {0x40000000, 6}, {0x7FFFFFFF, 6}, {0x80000000, 6}, {0xFFFFFFFF, 6},
    };
    for (const auto &[cp, n] : cases) {
        const uint32_t ucs[2] = {cp, 0};
        EXPECT_EQ(utf8_length(ucs), n) << std::hex << cp;
    }
}

TEST(TextCodecEncode, LengthSumsAllUnits) {
    const uint32_t ucs[] = {0x41, 0xE9, 0x20AC, 0x1F600, 0x200000, 0x4000000, 0};
    EXPECT_EQ(utf8_length(ucs), 1u + 2 + 3 + 4 + 5 + 6);
}

// ==== unicodeStr_to_utf8Str ==============================================================

TEST(TextCodecEncode, EmptyOrNullCodePointStringGivesNullWithoutAllocating) {
    Recording rec;
    const uint32_t empty[1] = {0};
    EXPECT_EQ(to_utf8(empty), nullptr);
    EXPECT_EQ(to_utf8(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST(TextCodecEncode, MixedCodePointsGiveTheirExactBytesInLengthPlusOneBytes) {
    const uint32_t ucs[] = {0x41, 0xE9, 0x20AC, 0x1F600, 0};
    Recording rec;
    unsigned char *text = to_utf8(ucs);
    CodecText hold(text);
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(watch.requests.size(), 1u);
    EXPECT_EQ(watch.requests[0].size, 11u);
    EXPECT_EQ(bytes_of(text, 11),
              (Bytes{0x41, 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80, 0x00}));
    expect_only_kept(text, kCodecSource);
}

TEST(TextCodecEncode, SixByteCodePointsFillTheTextExactlyWithoutOverrun) {
    const uint32_t ucs[] = {0x7FFFFFFF, 0x80000000, 0x4000000, 0};
    Recording rec;
    unsigned char *text = to_utf8(ucs);
    CodecText hold(text);
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(watch.requests.size(), 1u);
    EXPECT_EQ(watch.requests[0].size, 19u);
    EXPECT_EQ(bytes_of(text, 19), (Bytes{0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0xFC, 0x80, 0x80, 0x80,
                                         0x80, 0x80, 0xFC, 0x84, 0x80, 0x80, 0x80, 0x80, 0x00}));
}

TEST(TextCodecEncode, BoundaryCodePointStringsRoundTripThroughUtf8) {
    Units ucs;
    Bytes expected;
    for (const auto &form : boundary_forms()) {
        if (form.cp == 0) continue;
        ucs.push_back(form.cp);
        expected.insert(expected.end(), form.bytes.begin(), form.bytes.end());
    }
    ucs.push_back(0);
    unsigned char *text = to_utf8(ucs.data());
    CodecText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(bytes_of(text, expected.size() + 1), with_zeros(expected, expected.size() + 1));
    uint32_t *back = to_units(text);
    CodecText hold_back(back);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(units_of(back, ucs.size()), ucs);
}

TEST(TextCodecEncode, NormalTextPrintsNoFailureTrace) {
    const uint32_t ucs[] = {0x41, 0xE9, 0x20AC, 0x1F600, 0x4000000, 0};
    CaptureStdout();
    unsigned char *text = to_utf8(ucs);
    const std::string printed = GetCapturedStdout();
    CodecText hold(text);
    EXPECT_NE(text, nullptr);
    EXPECT_EQ(printed, "");
}

TEST(TextCodecEncode, FailedAllocationGivesNull) {
    const uint32_t ucs[] = {0x41, 0xE9, 0};
    Recording rec(1);
    EXPECT_EQ(to_utf8(ucs), nullptr);
    ASSERT_EQ(watch.requests.size(), 1u);
    EXPECT_EQ(watch.requests[0].size, 4u);
    expect_only_kept(nullptr, kCodecSource);
}

// ==== QEL_Utf8ToUnicodeW =================================================================

TEST(TextUtf16, NullTextGivesNullWithoutAllocating) {
    Recording rec;
    EXPECT_EQ(utf16_of(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST(TextUtf16, AsciiTextsKeepOneAndAHalfBytesPerCharacterWithTerminator) {
    const std::string letters = "abcdefghijkl";
    for (std::size_t len = 1; len <= 12; ++len) {
        const std::string text = letters.substr(0, len);
        Recording rec;
        unsigned char *w = utf16_of(text.c_str());
        QelText hold(w);
        ASSERT_NE(w, nullptr) << text;
        const std::size_t total = 8 * (len + 1);
        const std::size_t kept = 6 * (len + 1) / 4;  // a quarter of 6(L+1) free bytes
        ASSERT_EQ(kept_bytes(len + 1, 2 * (len + 1)), kept);
        Bytes expected = ascii_utf16(text);
        expected.resize(kept);
        EXPECT_EQ(bytes_of(w, total), with_zeros(expected, total)) << text;
    }
}

TEST(TextUtf16, TenLetterTextKeepsOnlyItsFirstEightLettersAsUtf16) {
    unsigned char *w = utf16_of("abcdefghij");
    QelText hold(w);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(bytes_of(w, 88), with_zeros(ascii_utf16("abcdefgh"), 88));
    // The eight letters' units only: no terminator unit follows them in the output.
    const Bytes eight = ascii_utf16("abcdefgh");
    EXPECT_EQ(bytes_of(w, 16), Bytes(eight.begin(), eight.begin() + 16));
}

TEST(TextUtf16, AllocatesTheTextWithTerminatorThenEightTimesItTwice) {
    Recording rec;
    unsigned char *w = utf16_of("abcdefghij");
    QelText hold(w);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{11, 88, 88}));
    ASSERT_EQ(watch.requests.size(), 3u);
    EXPECT_EQ(watch.requests[2].block, w);
    EXPECT_EQ(watch.releases.size(), 2u);
    expect_only_kept(w, kConverterSource);
}

TEST(TextUtf16, EmptyTextGivesAZeroFilledBuffer) {
    Recording rec;
    unsigned char *w = utf16_of("");
    QelText hold(w);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{1, 8, 8}));
    EXPECT_EQ(bytes_of(w, 8), Bytes(8, 0));
    expect_only_kept(w, kConverterSource);
}

TEST(TextUtf16, NonAsciiCharactersBecomeUtf16LEUnitsAndSurrogatePairs) {
    {
        // é: 3 input bytes, 24 output bytes, 4 produced, 5 kept.
        Recording rec;
        unsigned char *w = utf16_of("\xC3\xA9");
        QelText hold(w);
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{3, 24, 24}));
        EXPECT_EQ(kept_bytes(3, 4), 5u);
        EXPECT_EQ(bytes_of(w, 24), with_zeros({0xE9, 0x00}, 24));
    }
    {
        unsigned char *w = utf16_of("\xE2\x82\xAC");
        QelText hold(w);
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(bytes_of(w, 32), with_zeros({0xAC, 0x20}, 32));
    }
    {
        unsigned char *w = utf16_of("\xF0\x9F\x98\x80");
        QelText hold(w);
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(bytes_of(w, 40), with_zeros({0x3D, 0xD8, 0x00, 0xDE}, 40));
    }
    {
        // Four euro signs: 13 input bytes, 104 output bytes, 10 produced, 23 kept.
        unsigned char *w = utf16_of("\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC");
        QelText hold(w);
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(bytes_of(w, 104),
                  with_zeros({0xAC, 0x20, 0xAC, 0x20, 0xAC, 0x20, 0xAC, 0x20}, 104));
    }
}

TEST(TextUtf16, ConversionKeepsWhatPrecedesAnInvalidByte) {
    Recording rec;
    unsigned char *w = utf16_of(
        "a\xFF"
        "bcdef");
    QelText hold(w);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{8, 64, 64}));
    EXPECT_EQ(bytes_of(w, 64), with_zeros({'a', 0x00}, 64));
    expect_only_kept(w, kConverterSource);
}

TEST(TextUtf16, EachFailedAllocationGivesNullAndReleasesTheOthers) {
    for (int n = 1; n <= 3; ++n) {
        Recording rec(n);
        EXPECT_EQ(utf16_of("abcdef"), nullptr) << "allocation " << n << " refused";
        ASSERT_GE(watch.requests.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(watch.requests[n - 1].block, nullptr);
        expect_only_kept(nullptr, kConverterSource);
    }
}

// ==== QEL_Utf8ToUnicodeA =================================================================

TEST(TextUtf16Bytes, NullTextGivesNullWithoutAllocating) {
    Recording rec;
    EXPECT_EQ(utf16_bytes_of(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST(TextUtf16Bytes, TenLetterTextGivesItsFirstEightLettersAsBytes) {
    char *a = utf16_bytes_of("abcdefghij");
    QelText hold(a);
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(a, "abcdefgh");
}

TEST(TextUtf16Bytes, AsciiTextsKeepTheLettersWhoseLowByteWasKept) {
    const std::string letters = "abcdefghijkl";
    for (std::size_t len = 1; len <= 12; ++len) {
        const std::string text = letters.substr(0, len);
        const std::size_t kept = 6 * (len + 1) / 4;
        const std::size_t letters_kept = std::min(len, (kept + 1) / 2);
        char *a = utf16_bytes_of(text.c_str());
        QelText hold(a);
        ASSERT_NE(a, nullptr) << text;
        EXPECT_EQ(std::string(a), text.substr(0, letters_kept)) << text;
    }
}

TEST(TextUtf16Bytes, AllocatesThreeBuffersThenTwoOfFourBytesPerWideCharacterAndFour) {
    // The UTF-16LE result of the ten letters, read as 32-bit characters, has 4 of them.
    Recording rec;
    char *a = utf16_bytes_of("abcdefghij");
    QelText hold(a);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{11, 88, 88, 20, 20}));
    ASSERT_EQ(watch.requests.size(), 5u);
    EXPECT_EQ(watch.requests[4].block, a);
    EXPECT_EQ(watch.releases.size(), 4u);
    expect_only_kept(a, kConverterSource);
    EXPECT_EQ(bytes_of(a, 20), with_zeros({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}, 20));
}

TEST(TextUtf16Bytes, NonAsciiCharactersKeepOnlyTheirNonZeroUtf16Bytes) {
    char *e = utf16_bytes_of("\xC3\xA9");
    QelText hold_e(e);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e, "\xE9");
    char *euro = utf16_bytes_of("\xE2\x82\xAC");
    QelText hold_euro(euro);
    ASSERT_NE(euro, nullptr);
    EXPECT_STREQ(euro, "\xAC\x20");
}

TEST(TextUtf16Bytes, EachFailedAllocationGivesNullAndReleasesTheOthers) {
    for (int n = 1; n <= 5; ++n) {
        Recording rec(n);
        EXPECT_EQ(utf16_bytes_of("abcdefghij"), nullptr) << "allocation " << n << " refused";
        ASSERT_GE(watch.requests.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(watch.requests[n - 1].block, nullptr);
        expect_only_kept(nullptr, kConverterSource);
    }
}

// ==== QEL_UnicodeToUtf8 ==================================================================

TEST(TextWideToUtf8, NullGivesNullWithoutAllocating) {
    Recording rec;
    EXPECT_EQ(wide_to_utf8(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST(TextWideToUtf8, AsciiWideTextSurvives) {
    char *text = wide_to_utf8(L"Hello, world");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "Hello, world");
}

TEST(TextWideToUtf8, EmptyWideTextGivesAnEmptyText) {
    Recording rec;
    char *text = wide_to_utf8(L"");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{4, 24, 24}));
    EXPECT_EQ(bytes_of(text, 24), Bytes(24, 0));
}

TEST(TextWideToUtf8, NonAsciiWideTextGivesTheNonZeroBytesOfTheUnicodeConverter) {
    const std::wstring texts[] = {
        L"caf\u00E9",
        L"\u20AC 5",
        L"a\U0001F600b",
        L"\u00E9\u00E8\u00EA\u4E2D\u6587",
    };
    for (const auto &wide : texts) {
        const std::string expected = unicode_converter_keeps(wide);
        char *text = wide_to_utf8(wide.c_str());
        QelText hold(text);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), expected);
        EXPECT_FALSE(std::string(text).empty());  // at least the first character came out
    }
}

TEST(TextWideToUtf8, ConversionKeepsWhatPrecedesAnUnconvertibleCharacter) {
    // A lone surrogate half stops the C library's converter; what came before is kept.
    const std::wstring wide = {L'A', L'B', static_cast<wchar_t>(0xD800), L'C'};
    const std::string expected = unicode_converter_keeps(wide);
    char *text = wide_to_utf8(wide.c_str());
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), expected);
    EXPECT_EQ(std::string(text).substr(0, 2), "AB");
}

TEST(TextWideToUtf8, AllocatesFourAndTwiceTwentyFourBytesPerCharacterWithTerminator) {
    Recording rec;
    char *text = wide_to_utf8(L"abcde");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{24, 144, 144}));
    ASSERT_EQ(watch.requests.size(), 3u);
    EXPECT_EQ(watch.requests[2].block, text);
    EXPECT_EQ(watch.releases.size(), 2u);
    expect_only_kept(text, kConverterSource);
    EXPECT_EQ(bytes_of(text, 144), with_zeros({'a', 'b', 'c', 'd', 'e'}, 144));
}

TEST(TextWideToUtf8, EachFailedAllocationGivesNullAndReleasesTheOthers) {
    for (int n = 1; n <= 3; ++n) {
        Recording rec(n);
        EXPECT_EQ(wide_to_utf8(L"abcde"), nullptr) << "allocation " << n << " refused";
        ASSERT_GE(watch.requests.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(watch.requests[n - 1].block, nullptr);
        expect_only_kept(nullptr, kConverterSource);
    }
}

// ==== Locale converters ==================================================================

// Each test starts in the "C" locale with no locale variables of its own, and puts the
// environment and the locale back when it ends.
class TextLocale : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char *name : kNames) {
            const char *value = std::getenv(name);
            saved_.push_back(value != nullptr ? std::optional<std::string>(value) : std::nullopt);
            ::unsetenv(name);
        }
        ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    }
    void TearDown() override {
        for (std::size_t i = 0; i < saved_.size(); ++i) {
            if (saved_[i])
                ::setenv(kNames[i], saved_[i]->c_str(), 1);
            else
                ::unsetenv(kNames[i]);
        }
        std::setlocale(LC_ALL, "C");
    }
    // The locale that setlocale(LC_CTYPE, "") finds in the environment.
    static void environment_locale(const char *name) { ASSERT_EQ(::setenv("LC_ALL", name, 1), 0); }
    static std::string current_ctype() {
        const char *name = std::setlocale(LC_CTYPE, nullptr);
        return name != nullptr ? name : "";
    }

private:
    static constexpr const char *kNames[] = {"LC_ALL", "LC_CTYPE", "LANG"};
    std::vector<std::optional<std::string>> saved_;
};

TEST_F(TextLocale, WideToLocaleConvertsInTheEnvironmentLocale) {
    environment_locale("C.UTF-8");
    Recording rec;
    char *text = wide_to_locale(L"caf\u00E9 \u20AC");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{10}));
    expect_only_kept(text, kConverterSource);
    EXPECT_NE(current_ctype().find("UTF-8"), std::string::npos) << current_ctype();
}

TEST_F(TextLocale, WideToLocaleFollowsLangWhenNoOtherVariableIsSet) {
    ASSERT_EQ(::setenv("LANG", "C.UTF-8", 1), 0);
    char *text = wide_to_locale(L"\u00E9\u00E8");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "\xC3\xA9\xC3\xA8");
    EXPECT_NE(current_ctype().find("UTF-8"), std::string::npos) << current_ctype();
}

TEST_F(TextLocale, WideToLocaleOfAsciiInTheCLocale) {
    environment_locale("C");
    Recording rec;
    char *text = wide_to_locale(L"plain");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "plain");
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{6}));
    expect_only_kept(text, kConverterSource);
}

TEST_F(TextLocale, WideToLocaleOfEmptyTextGivesAnEmptyText) {
    environment_locale("C.UTF-8");
    Recording rec;
    char *text = wide_to_locale(L"");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{1}));
}

TEST_F(TextLocale, WideToLocaleOfUnconvertibleTextRequestsZeroBytesAndGivesNull) {
    environment_locale("C");
    Recording rec;
    EXPECT_EQ(wide_to_locale(L"caf\u00E9"), nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{0}));
    expect_only_kept(nullptr, kConverterSource);
}

TEST_F(TextLocale, WideToLocaleSetsTheLocaleBeforeCounting) {
    // Started in "C", where é cannot be converted: the environment's UTF-8 is in force
    // before the count, so the first call succeeds.
    environment_locale("C.UTF-8");
    char *text = wide_to_locale(L"\u00E9");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "\xC3\xA9");
}

TEST_F(TextLocale, WideToLocaleOfNullGivesNull) {
    environment_locale("C.UTF-8");
    Recording rec;
    EXPECT_EQ(wide_to_locale(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST_F(TextLocale, WideToLocaleFailedAllocationGivesNull) {
    environment_locale("C.UTF-8");
    Recording rec(1);
    EXPECT_EQ(wide_to_locale(L"abc"), nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{4}));
    expect_only_kept(nullptr, kConverterSource);
}

TEST_F(TextLocale, LocaleToWideFirstCountsInThePreviousLocale) {
    environment_locale("C.UTF-8");
    {
        // Counted in "C", where the UTF-8 bytes of é are invalid: size 0, zero bytes asked.
        Recording rec;
        EXPECT_EQ(locale_to_wide("\xC3\xA9"), nullptr);
        EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{0}));
        expect_only_kept(nullptr, kConverterSource);
    }
    EXPECT_NE(current_ctype().find("UTF-8"), std::string::npos) << current_ctype();
    {
        // The environment's locale is now in force for the count as well.
        Recording rec;
        wchar_t *wide = locale_to_wide("\xC3\xA9");
        QelText hold(wide);
        ASSERT_NE(wide, nullptr);
        EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{8}));
        EXPECT_EQ(std::wstring(wide, 2), std::wstring(L"\u00E9\0", 2));
        expect_only_kept(wide, kConverterSource);
    }
}

TEST_F(TextLocale, LocaleToWideCountsInTheOldLocaleAndConvertsInTheNew) {
    // Counted in UTF-8 (two characters), converted in "C": x, then the error at é.
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    environment_locale("C");
    Recording rec;
    wchar_t *wide = locale_to_wide("x\xC3\xA9");
    QelText hold(wide);
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{12}));
    EXPECT_EQ(std::wstring(wide, 3), std::wstring(L"x\0\0", 3));
    EXPECT_EQ(current_ctype(), "C");
}

TEST_F(TextLocale, LocaleToWideOfAsciiGivesItsWideCharacters) {
    environment_locale("C");
    Recording rec;
    wchar_t *wide = locale_to_wide("abc");
    QelText hold(wide);
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{16}));
    EXPECT_EQ(std::wstring(wide, 4), std::wstring(L"abc\0", 4));
    expect_only_kept(wide, kConverterSource);
}

TEST_F(TextLocale, LocaleToWideOfNullGivesNull) {
    environment_locale("C.UTF-8");
    Recording rec;
    EXPECT_EQ(locale_to_wide(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST_F(TextLocale, LocaleToWideFailedAllocationGivesNull) {
    environment_locale("C");
    Recording rec(1);
    EXPECT_EQ(locale_to_wide("abc"), nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{16}));
    expect_only_kept(nullptr, kConverterSource);
}

TEST_F(TextLocale, LocaleToUtf8OfAsciiGivesTheSameTextAndReleasesTheWideString) {
    environment_locale("C");
    Recording rec;
    char *text = locale_to_utf8("abc");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{16, 16, 96, 96}));
    ASSERT_EQ(watch.requests.size(), 4u);
    EXPECT_EQ(watch.requests[3].block, text);
    EXPECT_EQ(watch.releases.size(), 3u);
    expect_only_kept(text, kConverterSource);
}

TEST_F(TextLocale, LocaleToUtf8OfNonAsciiTextInAUtf8Locale) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    environment_locale("C.UTF-8");
    char *text = locale_to_utf8("caf\xC3\xA9 \xE2\x82\xAC");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), unicode_converter_keeps(L"caf\u00E9 \u20AC"));
    EXPECT_EQ(std::string(text).substr(0, 3), "caf");
}

TEST_F(TextLocale, LocaleToUtf8OfNullGivesNull) {
    environment_locale("C");
    Recording rec;
    EXPECT_EQ(locale_to_utf8(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST_F(TextLocale, LocaleToUtf8EachFailedAllocationGivesNullAndReleasesTheOthers) {
    environment_locale("C");
    for (int n = 1; n <= 4; ++n) {
        Recording rec(n);
        EXPECT_EQ(locale_to_utf8("abc"), nullptr) << "allocation " << n << " refused";
        ASSERT_GE(watch.requests.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(watch.requests[n - 1].block, nullptr);
        expect_only_kept(nullptr, kConverterSource);
    }
}

TEST_F(TextLocale, Utf8ToLocaleOfOneLetterGivesThatLetter) {
    // The UTF-16LE buffer of "a" (a, 0, 0, ...) read as 32-bit characters is 'a' alone.
    environment_locale("C");
    Recording rec;
    char *text = utf8_to_locale("a");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "a");
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{2, 16, 16, 2}));
    ASSERT_EQ(watch.requests.size(), 4u);
    EXPECT_EQ(watch.requests[3].block, text);
    EXPECT_EQ(watch.releases.size(), 3u);
    expect_only_kept(text, kConverterSource);
}

TEST_F(TextLocale, Utf8ToLocaleReadsTheUtf16BufferAsWideCharacters) {
    // "abc" keeps a, b, c as UTF-16LE: a 32-bit character 0x00620061, then 0x63.
    environment_locale("C.UTF-8");
    char *text = utf8_to_locale("abc");
    QelText hold(text);
    ASSERT_NE(text, nullptr);
    const auto expected = wcstombs_of({static_cast<wchar_t>(0x00620061), L'c', 0});
    ASSERT_TRUE(expected.has_value());
    EXPECT_EQ(std::string(text), *expected);
    EXPECT_NE(std::string(text), "abc");
}

TEST_F(TextLocale, Utf8ToLocaleOfTwoLettersInTheCLocaleGivesNull) {
    // 0x00620061 is no character of the C locale: zero bytes are asked for.
    environment_locale("C");
    Recording rec;
    EXPECT_EQ(utf8_to_locale("ab"), nullptr);
    EXPECT_EQ(request_sizes(), (std::vector<uint32_t>{3, 24, 24, 0}));
    expect_only_kept(nullptr, kConverterSource);
}

TEST_F(TextLocale, Utf8ToLocaleOfNullGivesNull) {
    environment_locale("C");
    Recording rec;
    EXPECT_EQ(utf8_to_locale(nullptr), nullptr);
    EXPECT_TRUE(watch.requests.empty());
}

TEST_F(TextLocale, Utf8ToLocaleEachFailedAllocationGivesNullAndReleasesTheOthers) {
    environment_locale("C");
    for (int n = 1; n <= 4; ++n) {
        Recording rec(n);
        EXPECT_EQ(utf8_to_locale("a"), nullptr) << "allocation " << n << " refused";
        ASSERT_GE(watch.requests.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(watch.requests[n - 1].block, nullptr);
        expect_only_kept(nullptr, kConverterSource);
    }
}

// ==== QEL_StrMemFree =====================================================================

TEST(TextRelease, StrMemFreeOfNullIsHarmless) {
    Recording rec;
    errno = qel_test::kSentinel;
    QEL_StrMemFree(nullptr);
    EXPECT_EQ(errno, qel_test::kSentinel);
    EXPECT_TRUE(watch.releases.empty());
}

TEST(TextRelease, StrMemFreeReleasesThroughTheEntryPoint) {
    char *text = utf16_bytes_of("abc");
    ASSERT_NE(text, nullptr);
    Recording rec;
    QEL_StrMemFree(text);
    ASSERT_EQ(watch.releases.size(), 1u);
    EXPECT_EQ(watch.releases[0].block, text);
    EXPECT_EQ(watch.releases[0].type, 0u);
    EXPECT_EQ(watch.releases[0].file, kConverterSource);
}

// ==== ZEPO_StrTok_S ======================================================================

TEST(TextTokens, StrTokSplitsLikeTheBoundsCheckedTokenizer) {
    char text[] = "a,b,,c";
    char *context = nullptr;
    EXPECT_EQ(tokenize(text, ",", &context), text);
    EXPECT_EQ(context, text + 2);
    EXPECT_EQ(tokenize(nullptr, ",", &context), text + 2);
    EXPECT_EQ(context, text + 4);
    EXPECT_EQ(tokenize(nullptr, ",", &context), text + 5);
    EXPECT_EQ(context, text + 6);
    EXPECT_EQ(tokenize(nullptr, ",", &context), nullptr);
    EXPECT_EQ(tokenize(nullptr, ",", &context), nullptr);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a\0b\0,c\0", 7));
}

TEST(TextTokens, StrTokWithoutContextOrDelimitersGivesNullAndWritesNothing) {
    char text[] = "a,b";
    EXPECT_EQ(tokenize(text, ",", nullptr), nullptr);
    char *context = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(tokenize(text, nullptr, &context), nullptr);
    EXPECT_EQ(context, reinterpret_cast<char *>(0x1));
    EXPECT_STREQ(text, "a,b");
}

TEST(TextTokens, StrTokOfNullTextWithNullContextValueGivesNull) {
    char *context = nullptr;
    EXPECT_EQ(tokenize(nullptr, ",", &context), nullptr);
    EXPECT_EQ(context, nullptr);
}

TEST(TextTokens, StrTokWithEmptyDelimitersGivesTheWholeText) {
    char text[] = "abc";
    char *context = nullptr;
    EXPECT_EQ(tokenize(text, "", &context), text);
    EXPECT_EQ(context, text + 3);
    EXPECT_EQ(tokenize(nullptr, "", &context), nullptr);
}

TEST(TextTokens, StrTokOfOnlyDelimitersGivesNullAtTheEnd) {
    char text[] = ",,,";
    char *context = nullptr;
    EXPECT_EQ(tokenize(text, ",", &context), nullptr);
    EXPECT_EQ(context, text + 3);
}

// ==== QEL_Utf8Check ======================================================================

TEST(TextUtf8Check, NullTextOrZeroLengthGivesOneAndWritesNothing) {
    EXPECT_EQ(check_end(nullptr, 5), 1);
    EXPECT_EQ(check_end(nullptr, -1), 1);
    char text[] = "abc";
    EXPECT_EQ(check_end(text, 0), 1);
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc", 4));
}

TEST(TextUtf8Check, NegativeLengthWritesAZeroAtTheStartAndGivesOne) {
    char text[] = "abc";
    EXPECT_EQ(check_end(text, -1), 1);
    EXPECT_EQ(std::string(text, sizeof text), std::string("\0bc", 4));
    char other[] = "xyz";
    EXPECT_EQ(check_end(other, INT32_MIN), 1);
    EXPECT_EQ(std::string(other, sizeof other), std::string("\0yz", 4));
}

TEST(TextUtf8Check, ThreeLettersWithLengthThreeLoseTheLastLetter) {
    char text[] = "abc";
    EXPECT_EQ(check_end(text, 3), 1);
    EXPECT_EQ(std::string(text, sizeof text), std::string("ab\0", 4));
}

TEST(TextUtf8Check, TwoLettersWithinLengthFiveGiveZeroAndWriteNothing) {
    char text[8] = {'a', 'b', 0, 'x', 'y', 0, 0, 0};
    const std::string before(text, sizeof text);
    EXPECT_EQ(check_end(text, 5), 0);
    EXPECT_EQ(std::string(text, sizeof text), before);
}

TEST(TextUtf8Check, UnterminatedTextIsCutBeforeTheLastCharacterExamined) {
    char text[] = "abcdef";
    EXPECT_EQ(check_end(text, 4), 1);
    EXPECT_EQ(std::string(text, sizeof text), std::string("abc\0ef", 7));
}

TEST(TextUtf8Check, CompleteMultiByteCharacterAtTheEndIsCut) {
    unsigned char two[] = {'a', 0xC3, 0xA9, 'z'};
    EXPECT_EQ(check_end(two, 3), 1);
    EXPECT_EQ(bytes_of(two, 4), (Bytes{'a', 0x00, 0xA9, 'z'}));
    unsigned char three[] = {'a', 'b', 0xE2, 0x82, 0xAC, 'z'};
    EXPECT_EQ(check_end(three, 5), 1);
    EXPECT_EQ(bytes_of(three, 6), (Bytes{'a', 'b', 0x00, 0x82, 0xAC, 'z'}));
    unsigned char four[] = {0xF0, 0x9F, 0x98, 0x80, 'z'};
    EXPECT_EQ(check_end(four, 4), 1);
    EXPECT_EQ(bytes_of(four, 5), (Bytes{0x00, 0x9F, 0x98, 0x80, 'z'}));
}

TEST(TextUtf8Check, IncompleteMultiByteCharacterAtTheEndIsCut) {
    unsigned char three[] = {'a', 0xE2, 0x82, 'z'};
    EXPECT_EQ(check_end(three, 3), 1);
    EXPECT_EQ(bytes_of(three, 4), (Bytes{'a', 0x00, 0x82, 'z'}));
    unsigned char four[] = {'a', 'b', 0xF0, 'z', 'z'};
    EXPECT_EQ(check_end(four, 3), 1);
    EXPECT_EQ(bytes_of(four, 5), (Bytes{'a', 'b', 0x00, 'z', 'z'}));
}

TEST(TextUtf8Check, EachLeadByteAdvancesByItsFormLength) {
    struct Case {
        unsigned char lead;
        int length;
    };
    const Case cases[] = {{0xFC, 6}, {0xFF, 6}, {0xF8, 5}, {0xFB, 5}, {0xF0, 4}, {0xF7, 4},
                          {0xE0, 3}, {0xEF, 3}, {0xC0, 2}, {0xDF, 2}, {0xBF, 1}, {0x80, 1}};
    for (const auto &c : cases) {
        // The lead, its following bytes, then 'z' as the last character within len.
        unsigned char text[16];
        std::memset(text, 0x80, sizeof text);
        text[0] = c.lead;
        text[c.length] = 'z';
        EXPECT_EQ(check_end(text, c.length + 1), 1) << std::hex << int(c.lead);
        EXPECT_EQ(text[0], c.lead) << std::hex << int(c.lead);
        EXPECT_EQ(text[c.length], 0) << std::hex << int(c.lead);
        // With len equal to the form's length the lead is the last character examined.
        text[c.length] = 'z';
        EXPECT_EQ(check_end(text, c.length), 1) << std::hex << int(c.lead);
        EXPECT_EQ(text[0], 0) << std::hex << int(c.lead);
        EXPECT_EQ(text[c.length], 'z') << std::hex << int(c.lead);
    }
}

TEST(TextUtf8Check, ZeroByteSkippedByALeadByteIsNotSeen) {
    unsigned char text[] = {'a', 0xE2, 0x00, 'x', 'y', 'z', 0x00};
    EXPECT_EQ(check_end(text, 6), 1);
    EXPECT_EQ(bytes_of(text, 7), (Bytes{'a', 0xE2, 0x00, 'x', 'y', 0x00, 0x00}));
}

TEST(TextUtf8Check, ZeroByteAfterMultiByteCharactersGivesZeroAndWritesNothing) {
    unsigned char text[] = {0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0x00, 'x', 'y'};
    EXPECT_EQ(check_end(text, 8), 0);
    EXPECT_EQ(bytes_of(text, 8), (Bytes{0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0x00, 'x', 'y'}));
}

}  // namespace
