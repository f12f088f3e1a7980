// os_str_config.cpp - string utilities.
//
// Most of these wrap one C library function and check nothing: they behave exactly as a
// direct call of the C library would, a null pointer faulting there.

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "os_frame.h"
#include "qel_bounds.h"

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
