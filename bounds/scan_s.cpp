/*
 * scan_s.cpp - vsscanf_s and sscanf_s: bounds-checked scanning of a string.
 *
 * Every non-suppressed %c, %s and %[ takes the destination and its size in characters
 * (read as size_t, low 32 bits used).  A string that does not fit clears the first byte
 * of its destination and ends the scan.
 *
 * How a scan ends decides the result:
 *   - when a read met the end of the input, the number of stored conversions is returned,
 *     or -1 when nothing at all was converted (not even a suppressed one or a %n);
 *   - otherwise a format error or a NULL destination gives -1;
 *   - otherwise the number of stored conversions.
 * String conversions take their pointer before reading input; number and float
 * conversions read first and take their pointer only to store, so a NULL pointer met
 * after the input ran out is reported as end of input, not as a bad argument.
 */
#include "qel_bounds.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bounds_internal.h"

namespace {

// Longest buffer scanned; a longer (or empty) one is refused.
constexpr std::size_t kMaxInputLength = qel_bounds::kMaxSize;

// Values returned by the input cursor besides characters 0..255.
constexpr int kEndOfInput = -1;   // a read met the end of the buffer
constexpr int kWidthUsedUp = -2;  // the field width allowed no further read

constexpr bool isSpace(int c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

constexpr bool isDecimalDigit(int c) { return c >= '0' && c <= '9'; }

// Value of c as a digit of any base up to 36, or 36 when c is no digit at all.
constexpr unsigned digitValue(int c) {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'z') {
        return static_cast<unsigned>(c - 'a' + 10);
    }
    if (c >= 'A' && c <= 'Z') {
        return static_cast<unsigned>(c - 'A' + 10);
    }
    return 36;
}

// Read position in the scanned buffer.  Remembers whether any read met the end: once
// it has, every later read meets it too.
struct Input {
    const char *begin;
    const char *pos;
    const char *end;
    bool hitEnd = false;

    int get() {
        if (pos == end) {
            hitEnd = true;
            return kEndOfInput;
        }
        return static_cast<unsigned char>(*pos++);
    }

    // Gives back a character obtained from get(); the end marker needs no giving back.
    void unget(int c) {
        if (c >= 0) {
            --pos;
        }
    }

    void skipSpace() {
        int c;
        do {
            c = get();
        } while (isSpace(c));
        unget(c);
    }

    int consumed() const { return static_cast<int>(pos - begin); }
};

// Reads of one conversion, limited by its field width.
struct Field {
    Input &in;
    long left;  // characters the width still allows

    int next() {
        if (left == 0) {
            return kWidthUsedUp;
        }
        --left;
        return in.get();
    }
};

// The variable arguments, copied so that helpers can share one position in them.
struct Args {
    va_list list;

    template <typename T>
    T take() {
        return va_arg(list, T);
    }

    // The size argument of %c %s %[: passed as size_t or unsigned int, only the low
    // 32 bits count.
    std::uint32_t takeSize() { return static_cast<std::uint32_t>(va_arg(list, std::size_t)); }
};

enum class Length { None, Char, Short, Long, LongLong, LongDouble, IntMax, Size, PtrDiff };

// One parsed %-directive.
struct Directive {
    bool suppress = false;
    bool hasWidth = false;
    bool badWidth = false;  // width beyond the largest int
    long width = 0;
    Length length = Length::None;
    char conversion = '\0';       // '\0' when the format ends inside the directive
    const char *after = nullptr;  // format position just past the conversion letter
};

// Parses the directive starting at the character after '%'.
constexpr Directive parseDirective(const char *f) {
    Directive d;
    if (*f == '*') {
        d.suppress = true;
        ++f;
    }
    while (isDecimalDigit(*f)) {
        d.hasWidth = true;
        if (!d.badWidth) {
            d.width = d.width * 10 + (*f - '0');
            if (d.width > 0x7fffffffL) {
                d.badWidth = true;
            }
        }
        ++f;
    }
    switch (*f) {
        case 'h':
            ++f;
            d.length = Length::Short;
            if (*f == 'h') {
                ++f;
                d.length = Length::Char;
            }
            break;
        case 'l':
            ++f;
            d.length = Length::Long;
            if (*f == 'l') {
                ++f;
                d.length = Length::LongLong;
            }
            break;
        case 'q':
            ++f;
            d.length = Length::LongLong;
            break;
        case 'L':
            ++f;
            d.length = Length::LongDouble;
            break;
        case 'j':
            ++f;
            d.length = Length::IntMax;
            break;
        case 'z':
            ++f;
            d.length = Length::Size;
            break;
        case 't':
            ++f;
            d.length = Length::PtrDiff;
            break;
        default: break;
    }
    d.conversion = *f;
    d.after = (*f != '\0') ? f + 1 : f;
    return d;
}

// The members of a %[ set.
struct CharSet {
    std::uint64_t bits[4] = {};
    bool negated = false;

    constexpr void add(unsigned char c) { bits[c >> 6] |= std::uint64_t{1} << (c & 63); }

    constexpr bool has(unsigned char c) const { return (bits[c >> 6] >> (c & 63)) & 1U; }

    constexpr bool matches(int c) const { return has(static_cast<unsigned char>(c)) != negated; }
};

// Parses a set starting at the character after '['.  Returns the format position past
// the closing ']', or nullptr when the set is never closed.
constexpr const char *parseSet(const char *f, CharSet &set) {
    if (*f == '^') {
        set.negated = true;
        ++f;
    }
    if (*f == ']') {  // directly after '[' or '[^' a ']' is a member
        set.add(']');
        ++f;
    }
    while (*f != ']') {
        if (*f == '\0') {
            return nullptr;
        }
        const auto first = static_cast<unsigned char>(f[0]);
        if (f[1] == '-' && f[2] != ']' && f[2] != '\0') {
            const auto last = static_cast<unsigned char>(f[2]);
            if (first <= last) {
                for (unsigned c = first; c <= last; ++c) {
                    set.add(static_cast<unsigned char>(c));
                }
            } else {  // a reversed range stands for its three characters
                set.add(first);
                set.add('-');
                set.add(last);
            }
            f += 3;
        } else {  // a '-' first or last in the set is an ordinary member
            set.add(first);
            ++f;
        }
    }
    return f + 1;
}

// How a directive ended.
enum class Step {
    Completed,  // finished, nothing stored (suppressed conversion, %n)
    Assigned,   // finished and stored
    Stopped,    // no match, string does not fit, bad size: the scan ends
    NullArg,    // a NULL destination ends the scan
    FormatError,
};

class Scanner {
public:
    Scanner(Input &in, Args &args) : in_(in), args_(args) {}

    Step scanString(const Directive &d, const CharSet *set = nullptr, bool setClosed = true);
    Step scanInteger(const Directive &d);
    Step scanFloat(const Directive &d);
    Step storeCount(const Directive &d);

private:
    Step fillString(const Directive &d, char *dest, std::uint32_t size, const CharSet *set);

    Input &in_;
    Args &args_;
};

// %c, %s, %[ (with its parsed set): pointer and size come first, before any input is
// read.  An unclosed set clears the destination's first byte and ends the scan.
Step Scanner::scanString(const Directive &d, const CharSet *set, bool setClosed) {
    char *dest = nullptr;
    std::uint32_t size = 0;
    if (!d.suppress) {
        dest = args_.take<char *>();
        size = args_.takeSize();
        if (dest == nullptr) {
            return Step::NullArg;
        }
        if (qel_bounds::dest_size_invalid(size)) {
            return Step::Stopped;
        }
    }
    if (!setClosed) {
        if (dest != nullptr) {
            dest[0] = '\0';
        }
        return Step::Stopped;
    }
    if (d.conversion == 's') {
        in_.skipSpace();
    }
    return fillString(d, dest, size, set);
}

// Reads the characters of %c (set and space rule unused), %s (set nullptr) or %[ and
// stores them into dest when there is one.
Step Scanner::fillString(const Directive &d, char *dest, std::uint32_t size, const CharSet *set) {
    const bool isChar = d.conversion == 'c';
    Field field{in_, d.hasWidth ? d.width : (isChar ? 1L : -1L)};
    // %s and %[ always keep one slot for the terminator.
    const std::uint32_t room = isChar ? size : size - 1;
    std::uint32_t stored = 0;
    bool any = false;
    for (;;) {
        const int c = field.next();
        if (c < 0) {
            break;
        }
        const bool accepted = isChar || (set != nullptr ? set->matches(c) : !isSpace(c));
        if (!accepted) {
            in_.unget(c);
            break;
        }
        any = true;
        if (dest != nullptr) {
            if (stored == room) {  // does not fit
                dest[0] = '\0';
                return Step::Stopped;
            }
            dest[stored++] = static_cast<char>(c);
        }
    }
    if (!any) {
        return Step::Stopped;
    }
    if (dest == nullptr) {
        return Step::Completed;
    }
    if (!isChar) {
        dest[stored] = '\0';
    }
    return Step::Assigned;
}

// Integers accumulate as 64 bits, saturating as strtol (d i) or strtoul (u o x X p)
// would, then are narrowed to the destination's type.
Step Scanner::scanInteger(const Directive &d) {
    unsigned base = 10;
    bool isSigned = false;
    bool prefixAllowed = false;
    switch (d.conversion) {
        case 'd': isSigned = true; break;
        case 'i':
            isSigned = true;
            base = 0;  // decided by the prefix
            prefixAllowed = true;
            break;
        case 'o': base = 8; break;
        case 'x':
        case 'X':
            base = 16;
            prefixAllowed = true;
            break;
        case 'p':  // plain hexadecimal digits, no 0x
            base = 16;
            break;
        default:  // 'u'
            break;
    }

    in_.skipSpace();
    Field field{in_, d.hasWidth ? d.width : -1L};
    bool negative = false;
    bool anyDigit = false;
    int c = field.next();
    if (c == '+' || c == '-') {
        negative = c == '-';
        c = field.next();
    }
    if (prefixAllowed && c == '0') {
        anyDigit = true;
        c = field.next();
        if (c == 'x' || c == 'X') {
            // "0x" with no digit after it still reads as 0.
            base = 16;
            c = field.next();
        } else if (base == 0) {
            base = 8;
        }
    } else if (base == 0) {
        base = 10;
    }

    constexpr std::uint64_t kAll = ~std::uint64_t{0};
    std::uint64_t magnitude = 0;
    bool overflow = false;
    for (unsigned digit = digitValue(c); digit < base; digit = digitValue(c)) {
        anyDigit = true;
        if (magnitude > (kAll - digit) / base) {
            overflow = true;
        } else {
            magnitude = magnitude * base + digit;
        }
        c = field.next();
    }
    in_.unget(c);
    if (!anyDigit) {
        return Step::Stopped;
    }

    std::uint64_t value;
    if (isSigned) {
        constexpr std::uint64_t kLargest = 0x7fffffffffffffffULL;
        if (!negative) {
            value = (overflow || magnitude > kLargest) ? kLargest : magnitude;
        } else {
            value = (overflow || magnitude > kLargest + 1) ? kLargest + 1 : 0 - magnitude;
        }
    } else {
        value = overflow ? kAll : (negative ? 0 - magnitude : magnitude);
    }

    if (d.suppress) {
        return Step::Completed;
    }
    void *dest = args_.take<void *>();
    if (dest == nullptr) {
        return Step::NullArg;
    }
    if (d.conversion == 'p') {
        *static_cast<void **>(dest) = reinterpret_cast<void *>(static_cast<std::uintptr_t>(value));
        return Step::Assigned;
    }
    switch (d.length) {
        case Length::Char:
            *static_cast<unsigned char *>(dest) = static_cast<unsigned char>(value);
            break;
        case Length::Short:
            *static_cast<unsigned short *>(dest) = static_cast<unsigned short>(value);
            break;
        case Length::None:
            *static_cast<unsigned int *>(dest) = static_cast<unsigned int>(value);
            break;
        default: *static_cast<std::uint64_t *>(dest) = value; break;
    }
    return Step::Assigned;
}

// Floats: sign, digits, '.', digits, exponent are gathered, then converted by strtod
// (strtold for long double).  No inf, nan or hexadecimal forms.
Step Scanner::scanFloat(const Directive &d) {
    in_.skipSpace();
    const char *const start = in_.pos;
    Field field{in_, d.hasWidth ? d.width : -1L};
    bool anyDigit = false;
    int c = field.next();
    if (c == '+' || c == '-') {
        c = field.next();
    }
    while (isDecimalDigit(c)) {
        anyDigit = true;
        c = field.next();
    }
    if (c == '.') {
        c = field.next();
        while (isDecimalDigit(c)) {
            anyDigit = true;
            c = field.next();
        }
    }
    if (anyDigit && (c == 'e' || c == 'E')) {
        c = field.next();
        if (c == '+' || c == '-') {
            c = field.next();
        }
        while (isDecimalDigit(c)) {
            c = field.next();
        }
    }
    in_.unget(c);
    if (!anyDigit) {
        return Step::Stopped;
    }

    // The gathered text needs a terminator of its own: copy it.  Numbers longer than
    // the local buffer (hundreds of digits) go to the heap.
    const auto length = static_cast<std::size_t>(in_.pos - start);
    char local[256];
    char *text = local;
    if (length >= sizeof local) {
        text = static_cast<char *>(std::malloc(length + 1));
        if (text == nullptr) {
            return Step::Stopped;
        }
    }
    std::memcpy(text, start, length);
    text[length] = '\0';

    enum class Target { Float, Double, LongDouble };
    Target target = Target::Float;
    switch (d.length) {
        case Length::Long:
        case Length::IntMax:
        case Length::Size:
        case Length::PtrDiff: target = Target::Double; break;
        case Length::LongDouble:
        case Length::LongLong: target = Target::LongDouble; break;
        default: break;
    }
    long double wide = 0.0L;
    double value = 0.0;
    if (target == Target::LongDouble) {
        wide = std::strtold(text, nullptr);
    } else {
        value = std::strtod(text, nullptr);
    }
    if (text != local) {
        std::free(text);
    }

    if (d.suppress) {
        return Step::Completed;
    }
    void *dest = args_.take<void *>();
    if (dest == nullptr) {
        return Step::NullArg;
    }
    switch (target) {
        case Target::Float: *static_cast<float *>(dest) = static_cast<float>(value); break;
        case Target::Double: *static_cast<double *>(dest) = value; break;
        case Target::LongDouble: *static_cast<long double *>(dest) = wide; break;
    }
    return Step::Assigned;
}

// %n: characters consumed so far, as an int; counted as completed, never as stored.
Step Scanner::storeCount(const Directive &d) {
    if (d.suppress) {
        return Step::Completed;
    }
    int *dest = args_.take<int *>();
    if (dest == nullptr) {
        return Step::NullArg;
    }
    *dest = in_.consumed();
    return Step::Completed;
}

// On empty input nothing is scanned, but a first %c, %s or %[ still gets an empty
// destination: its first character is cleared when pointer and size allow it.
void clearFirstDestination(const char *format, Args &args) {
    const char *percent = std::strchr(format, '%');
    if (percent == nullptr) {
        return;
    }
    const Directive d = parseDirective(percent + 1);
    if (d.suppress) {
        return;
    }
    if (d.conversion == '[') {
        CharSet set;
        if (parseSet(d.after, set) == nullptr) {
            return;
        }
    } else if (d.conversion != 'c' && d.conversion != 's') {
        return;
    }
    char *dest = args.take<char *>();
    const std::uint32_t size = args.takeSize();
    if (dest != nullptr && size != 0) {
        dest[0] = '\0';
    }
}

int scan(const char *buffer, std::size_t length, const char *format, Args &args) {
    Input in{buffer, buffer, buffer + length};
    Scanner scanner(in, args);
    int assigned = 0;
    int completed = 0;
    Step last = Step::Completed;

    const char *f = format;
    while (*f != '\0') {
        if (isSpace(static_cast<unsigned char>(*f))) {
            while (isSpace(static_cast<unsigned char>(*f))) {
                ++f;
            }
            in.skipSpace();
            continue;
        }
        if (*f != '%') {
            const int c = in.get();
            if (c != static_cast<unsigned char>(*f)) {
                in.unget(c);
                last = Step::Stopped;
                break;
            }
            ++f;
            continue;
        }

        const Directive d = parseDirective(f + 1);
        if (d.badWidth || d.conversion == '\0') {
            last = Step::FormatError;
            break;
        }
        if (d.hasWidth && d.width == 0) {
            last = Step::Stopped;
            break;
        }
        f = d.after;

        switch (d.conversion) {
            case '%': {
                // "%%" is a literal that skips space first; it is not a conversion and
                // never counts.
                in.skipSpace();
                const int c = in.get();
                if (c == '%') {
                    continue;
                }
                in.unget(c);
                last = Step::Stopped;
                break;
            }
            case 'c':
            case 's': last = scanner.scanString(d); break;
            case '[': {
                CharSet set;
                const char *past = parseSet(d.after, set);
                last = scanner.scanString(d, &set, past != nullptr);
                if (past != nullptr) {
                    f = past;
                }
                break;
            }
            case 'd':
            case 'i':
            case 'u':
            case 'o':
            case 'x':
            case 'X':
            case 'p': last = scanner.scanInteger(d); break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G': last = scanner.scanFloat(d); break;
            case 'n': last = scanner.storeCount(d); break;
            default: {
                // An unknown conversion letter must equal the next input character, as a
                // literal would; anything else there is a format error.
                const int c = in.get();
                if (c == static_cast<unsigned char>(d.conversion)) {
                    continue;
                }
                in.unget(c);
                last = (c == kEndOfInput) ? Step::Stopped : Step::FormatError;
                break;
            }
        }

        if (last == Step::Assigned) {
            ++assigned;
            ++completed;
        } else if (last == Step::Completed) {
            ++completed;
        } else {
            break;
        }
    }

    if (in.hitEnd) {
        return (assigned == 0 && completed == 0) ? -1 : assigned;
    }
    if (last == Step::FormatError || last == Step::NullArg) {
        return -1;
    }
    return assigned;
}

}  // namespace

extern "C" {

int vsscanf_s(const char *buffer, const char *format, va_list argList) {
    if (buffer == nullptr || format == nullptr) {
        return -1;
    }
    Args args;
    va_copy(args.list, argList);
    const std::size_t length = strnlen(buffer, kMaxInputLength + 1);
    int result;
    if (length == 0 || length > kMaxInputLength) {
        clearFirstDestination(format, args);
        result = -1;
    } else {
        result = scan(buffer, length, format, args);
    }
    va_end(args.list);
    return result;
}

int sscanf_s(const char *buffer, const char *format, ...) {
    va_list argList;
    va_start(argList, format);
    const int result = vsscanf_s(buffer, format, argList);
    va_end(argList);
    return result;
}

}  // extern "C"
