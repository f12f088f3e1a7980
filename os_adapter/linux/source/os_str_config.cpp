// os_str_config.cpp - string utilities.
//
// Most of these wrap one C library function and check nothing: they behave exactly as a
// direct call of the C library would, a null pointer faulting there.

#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <strings.h>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_text.h"

namespace {

// The caller buffer of ZEPO_IntToStr and ZEPO_FloatToStr is assumed to hold 11 bytes:
// ten characters and the terminator, so a ten-digit negative value does not fit.
constexpr size_t kNumberTextSize = 11;

// ZEPO_Ultostr writes at most 11 characters: an unsigned 32-bit value in octal.
constexpr uint32_t kUltostrMaxSize = 12;

// The case tables are indexed with the character as a signed 8-bit value, so bytes 0x80
// to 0xFF read the tables' negative entries (which glibc fills for such callers).
char case_entry(const int32_t *table, char c) {
    return static_cast<char>(table[static_cast<int8_t>(c)]);
}

char *convert_case(char *str, char (*convert)(char)) {
    const uint32_t length = ZEPO_StrLen(str);
    if (length == 0) return str;
    for (uint32_t i = 0; i < length; ++i) str[i] = convert(str[i]);
    str[length] = '\0';
    return str;
}

// The list of ZEPO_StrConcat ends at a null pointer or an empty text.
const char *next_part(va_list *parts) {
    const char *part = va_arg(*parts, const char *);
    return ZEPO_StrLen(part) == 0 ? nullptr : part;
}

}  // namespace

extern "C" {

uint32_t ZEPO_StrLen(const char *str) {
    return str == nullptr ? 0 : static_cast<uint32_t>(strlen(str));
}

int32_t ZEPO_StrCmp(const char *a, const char *b) { return strcmp(a, b); }

int32_t ZEPO_StrNCmp(const char *a, const char *b, uint32_t n) { return strncmp(a, b, n); }

int32_t ZEPO_StriCmp(const char *a, const char *b) { return strcasecmp(a, b); }

int32_t ZEPO_StriNCmp(const char *a, const char *b, uint32_t n) { return strncasecmp(a, b, n); }

char *ZEPO_StrStr(const char *hay, const char *needle) {
    return const_cast<char *>(strstr(hay, needle));
}

char *ZEPO_StrChr(const char *str, int32_t ch) {
    return const_cast<char *>(strchr(str, static_cast<int8_t>(ch)));
}

char *ZEPO_StrrChr(const char *str, int32_t ch) {
    return const_cast<char *>(strrchr(str, static_cast<int8_t>(ch)));
}

int64_t ZEPO_Strtol(const char *str, char **end, int32_t base) { return strtol(str, end, base); }

uint64_t ZEPO_Strtoul(const char *str, char **end, int32_t base) { return strtoul(str, end, base); }

int32_t ZEPO_StrToInt(const char *str) { return static_cast<int32_t>(strtol(str, nullptr, 10)); }

float ZEPO_StrToFloat(const char *str) { return static_cast<float>(strtod(str, nullptr)); }

char ZEPO_CharToLower(char c) { return case_entry(*__ctype_tolower_loc(), c); }

char ZEPO_CharToUpper(char c) { return case_entry(*__ctype_toupper_loc(), c); }

char *ZEPO_StrToUper(char *str) { return convert_case(str, ZEPO_CharToUpper); }

char *ZEPO_StrToLower(char *str) { return convert_case(str, ZEPO_CharToLower); }

char *ZEPO_IntToStr(int32_t value, char *buf) {
    // The format result is not tested: a failure leaves buf as sprintf_s leaves it.
    (void)sprintf_s(buf, kNumberTextSize, "%d", value);
    return buf;
}

char *ZEPO_FloatToStr(char *buf, float value) {
    // "%f" prints six decimals, so 1000 and above (and -100 and below) do not fit the
    // 11 bytes; the result is not tested and buf is then the empty text the failed
    // sprintf_s leaves.
    (void)sprintf_s(buf, kNumberTextSize, "%f", static_cast<double>(value));
    return buf;
}

int32_t ZEPO_Ultostr(char *buf, uint32_t size, uint32_t value, uint32_t base) {
    if (size == 0) return qel::kRefused;
    const char conversion = base == 8 ? 'o' : base == 16 ? 'x' : 'u';
    const char format[3] = {'%', conversion, '\0'};
    const uint32_t n = size < kUltostrMaxSize ? size : kUltostrMaxSize;
    const int written = snprintf_s(buf, n, n - 1, format, value);
    // A truncation comes back as -1, which is passed on as it is.
    return written > static_cast<int>(n) ? qel::kRefused : written;
}

char *ZEPO_StrConcat(const char *first, ...) {
    // first is mandatory and not checked; every size is kept in 32 bits.
    qel::VaList parts;
    va_start(parts.ap, first);
    qel::VaList again;
    va_copy(again.ap, parts.ap);

    uint32_t size = ZEPO_StrLen(first) + 1;
    for (const char *part = next_part(&parts.ap); part != nullptr; part = next_part(&parts.ap)) {
        size += ZEPO_StrLen(part);
    }
    qel::HeapPtr<char> buffer(static_cast<char *>(qel::heap_zalloc(size)));
    if (!buffer) return nullptr;

    int failures = strcat_s(buffer.get(), size, first);
    for (const char *part = next_part(&again.ap); part != nullptr; part = next_part(&again.ap)) {
        failures += strcat_s(buffer.get(), size, part);
    }
    // A failed append gives null; no trace line is printed here.
    return failures != 0 ? nullptr : buffer.release();
}

char *ZEPO_StrDupEx(const char *str, uint32_t line, const char *file) {
    const uint32_t length = ZEPO_StrLen(str);
    // Charged to the caller's position; the zero fill supplies the terminator.
    char *copy = static_cast<char *>(ZEPO_MemTypeMallocS(length + 1, 0, 0, line, file));
    if (copy == nullptr) return nullptr;
    // Not tested: for a null str the copy fails and resets the one byte, the empty text.
    (void)memcpy_s(copy, length + 1, str, length);
    return copy;
}

int32_t ZEPO_StrToInt32(const char *str, int32_t *out) {
    // errno is deliberately not cleared first: a stale ERANGE fails a valid conversion.
    char *end = nullptr;
    const long value = strtol(str, &end, 0);
    *out = static_cast<int32_t>(value);  // stored even when the conversion fails
    if (errno != ERANGE && end != str) return 0;
    ZEPO_SetLastErr(0);
    return 1;
}

}  // extern "C"

// ---- Text conversion ------------------------------------------------------------------
//
// The converters return blocks of the memory entry points, zero-filled before use.
// Conversion errors of iconv, wcstombs and mbstowcs are not reported: what was
// converted before the error is what comes back.

namespace {

// Wide characters are handed to iconv and sized as 4 bytes each.
constexpr uint32_t kWideSize = 4;
static_assert(sizeof(wchar_t) == kWideSize);

// QEL_Utf8ToUnicodeW gives iconv 8 bytes of output room per input byte.
constexpr uint32_t kUtf16Room = 8;
// QEL_UnicodeToUtf8 gives iconv 24 bytes of output room per wide character.
constexpr uint32_t kUtf8Room = 24;

// One iconv descriptor, closed on every path out of the scope.  A failed open is not
// tested: the conversion then fails and converts nothing, and the close fails too.
class Converter {
public:
    Converter(const char *to, const char *from) : cd_(iconv_open(to, from)) {}
    ~Converter() { close(); }
    Converter(const Converter &) = delete;
    Converter &operator=(const Converter &) = delete;

    // One call over the whole input; returns the output room left free.  The result of
    // iconv itself is not tested.
    size_t convert(char *in, size_t inSize, char *out, size_t outSize) {
        size_t inLeft = inSize;
        size_t outLeft = outSize;
        (void)iconv(cd_, &in, &inLeft, &out, &outLeft);
        return outLeft;
    }

    void close() {
        if (open_) (void)iconv_close(cd_);
        open_ = false;
    }

private:
    iconv_t cd_;
    bool open_ = true;
};

// Appends the non-zero bytes of from[0, size) to to, in order; returns how many.
uint32_t keep_nonzero_bytes(const char *from, size_t size, char *to) {
    uint32_t kept = 0;
    for (size_t i = 0; i < size; ++i) {
        if (from[i] != '\0') to[kept++] = from[i];
    }
    return kept;
}

// The length a lead byte promises, in the 1- to 6-byte forms; any other byte stands
// alone.  The bytes that follow are not looked at.
int32_t promised_length(uint8_t lead) {
    if (lead >= 0xFC) return 6;
    if (lead >= 0xF8) return 5;
    if (lead >= 0xF0) return 4;
    if (lead >= 0xE0) return 3;
    if (lead >= 0xC0) return 2;
    return 1;
}

// The three blocks of a conversion through iconv - a copy of the input, the output and
// the result - allocated in this order and zero-filled.  An allocation that fails stops
// the rest; ok() is then false, and the blocks already made are released with the
// holder, as are those not handed on.
struct ConversionBlocks {
    ConversionBlocks(uint32_t inSize, uint32_t outSize)
        : input(zeroed_block(inSize)),
          output(input ? zeroed_block(outSize) : nullptr),
          result(output ? zeroed_block(outSize) : nullptr) {}
    bool ok() const { return static_cast<bool>(result); }

    static char *zeroed_block(uint32_t size) {
        auto *block = static_cast<char *>(qel::heap_alloc(size));
        if (block != nullptr) (void)memset_s(block, size, 0, size);
        return block;
    }

    qel::HeapPtr<char> input;
    qel::HeapPtr<char> output;
    qel::HeapPtr<char> result;
};

}  // namespace

extern "C" {

wchar_t *QEL_Utf8ToUnicodeW(const char *utf8) {
    if (!qel::accepted(utf8)) return nullptr;
    Converter converter("UTF-16LE", "utf-8");
    // The terminator is converted too.  Sizes are kept in 32 bits.
    const uint32_t inSize = ZEPO_StrLen(utf8) + 1;
    const uint32_t outSize = inSize * kUtf16Room;
    ConversionBlocks blocks(inSize, outSize);
    if (!blocks.ok()) return nullptr;
    (void)memcpy_s(blocks.input.get(), inSize, utf8, inSize);

    const size_t left = converter.convert(blocks.input.get(), inSize, blocks.output.get(), outSize);
    converter.close();

    // A quarter of the room left free is what is handed back, from the start of the
    // output: the three-quarters cut is what callers have always received (ASCII text
    // keeps 1.5 bytes per input byte of its 2).  A count of 0 copies nothing.
    const size_t kept = left >> 2;
    (void)memcpy_s(blocks.result.get(), kept, blocks.output.get(), kept);
    return reinterpret_cast<wchar_t *>(blocks.result.release());
}

char *QEL_Utf8ToUnicodeA(const char *utf8) {
    if (!qel::accepted(utf8)) return nullptr;
    qel::HeapPtr<wchar_t> wide(QEL_Utf8ToUnicodeW(utf8));
    if (!wide) return nullptr;
    // The UTF-16LE buffer is measured as 32-bit wide characters, so its units pair up.
    const uint32_t units = static_cast<uint32_t>(wcslen(wide.get()));
    const uint32_t size = units * kWideSize + kWideSize;
    qel::HeapPtr<char> copy(static_cast<char *>(qel::heap_alloc(size)));
    if (!copy) return nullptr;
    qel::HeapPtr<char> text(static_cast<char *>(qel::heap_alloc(size)));
    if (!text) return nullptr;
    (void)memset_s(copy.get(), size, 0, size);
    (void)memset_s(text.get(), size, 0, size);
    (void)memcpy_s(copy.get(), size, wide.get(), units * kWideSize);
    // The zeros left behind terminate the text.
    (void)keep_nonzero_bytes(copy.get(), size, text.get());
    return text.release();
}

char *QEL_UnicodeToUtf8(const wchar_t *wide) {
    if (!qel::accepted(wide)) return nullptr;
    Converter converter("utf-8", "unicode");
    const uint32_t units = static_cast<uint32_t>(wcslen(wide));
    const uint32_t inSize = (units + 1) * kWideSize;
    const uint32_t outSize = (units + 1) * kUtf8Room;
    ConversionBlocks blocks(inSize, outSize);
    if (!blocks.ok()) return nullptr;
    (void)memcpy_s(blocks.input.get(), inSize, wide, units * kWideSize);

    const size_t left = converter.convert(blocks.input.get(), inSize, blocks.output.get(), outSize);
    converter.close();

    // As many bytes as iconv left free are scanned from the start of the output; the
    // room is ample, so that covers all it wrote.  The zeros it wrote are dropped.
    (void)keep_nonzero_bytes(blocks.output.get(), left, blocks.result.get());
    return blocks.result.release();
}

char *QEL_UnicodeToLocale(const wchar_t *wide) {
    if (!qel::accepted(wide)) return nullptr;
    (void)setlocale(LC_CTYPE, "");
    // An unconvertible character counts as all ones, and the size wraps to 0: the
    // zero-byte block that is asked for then holds nothing.
    const uint32_t size = static_cast<uint32_t>(wcstombs(nullptr, wide, 0) + 1);
    auto *text = static_cast<char *>(qel::heap_alloc(size));
    if (text == nullptr) return nullptr;
    (void)memset_s(text, size, 0, size);
    (void)wcstombs(text, wide, size);
    return text;
}

wchar_t *QEL_LocaleToUnicodeW(const char *text) {
    if (!qel::accepted(text)) return nullptr;
    // Counted before the locale is set, the reverse of QEL_UnicodeToLocale: the first
    // call in a process counts in the locale in force before it.  A rejected sequence
    // wraps the count to 0, as there.
    const uint32_t units = static_cast<uint32_t>(mbstowcs(nullptr, text, 0) + 1);
    (void)setlocale(LC_CTYPE, "");
    auto *wide = static_cast<wchar_t *>(qel::heap_alloc(units * kWideSize));
    if (wide == nullptr) return nullptr;
    (void)wmemset(wide, L'\0', units);
    (void)mbstowcs(wide, text, units);
    return wide;
}

char *QEL_LocaleToUtf8(const char *text) {
    qel::HeapPtr<wchar_t> wide(QEL_LocaleToUnicodeW(text));
    if (!wide) return nullptr;
    return QEL_UnicodeToUtf8(wide.get());
}

char *QEL_Utf8ToLocale(const char *utf8) {
    // The UTF-16LE buffer goes on as 32-bit wide characters, two units to each.
    qel::HeapPtr<wchar_t> wide(QEL_Utf8ToUnicodeW(utf8));
    if (!wide) return nullptr;
    return QEL_UnicodeToLocale(wide.get());
}

void QEL_StrMemFree(void *p) { qel::heap_free(p); }

char *ZEPO_StrTok_S(char *str, const char *delim, char **context) {
    return strtok_s(str, delim, context);
}

int32_t QEL_Utf8Check(char *text, int32_t len) {
    if (!qel::accepted(text) || len == 0) return 1;
    if (len < 0) {
        text[0] = '\0';
        return 1;
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    int32_t at = 0;
    int32_t last = 0;
    do {
        if (bytes[at] == 0) return 0;
        last = at;
        at += promised_length(bytes[at]);
    } while (at < len);
    // Not ended within len bytes: the last character looked at is cut off, complete or
    // not, so that no partial sequence can remain.
    text[last] = '\0';
    return 1;
}

}  // extern "C"
