// format_s.cpp - bounds-checked vsprintf_s, sprintf_s, vsnprintf_s and snprintf_s.
//
// The formatter is our own: it walks the format left to right and writes into a sink
// of fixed capacity.  Formatting stops at the first character that has no room, so a
// bad directive that lies beyond that point is never looked at and the call reports
// truncation instead of a format error.  A directive that is reached while all output
// so far still fits (even when not even the terminator has room left) is checked, and
// a bad one makes the whole call fail.
//
// Accepted directives:
//   flags      - + space # 0   (also after width digits: "%5-3d" is left-justified width 3)
//   width      digits or *     (a negative * value left-justifies)
//   precision  .digits or .*   (a negative * value means no precision)
//   length     hh h l ll L q j z Z t w I I32 I64
//   conversion d i u o x X c s p e E f F g G C S, and %%
// Widths and precisions above kMaxWidth are refused.  "%I" not followed by 64, 32 or
// one of d i o u x X is not a directive: it prints a literal 'I'.
//
// Integers, strings, characters and pointers are formatted here with glibc's rules,
// except that integer precision is clipped to kMaxIntPrecision digits and "%s" of NULL
// prints "(null)" cut by the precision.  Floating-point directives are rebuilt and
// handed to the C library's snprintf, so their text is glibc's.
//
// Wide characters: %C, %lc and %wc print one wint_t, %S, %ls and %ws print a wchar_t
// string (is_wide() lists every length that makes c and s wide, as glibc does; "%hS"
// stays wide, as in glibc).  As with glibc's %lc and %ls, each character is converted
// with wcrtomb() in the current locale, width and precision count bytes, the precision
// never cuts a multibyte character in half and conversion stops once it is reached,
// and a character the locale cannot represent fails the call like a format error.  A
// NULL wide string prints "(null)" under the same rule as "%s".

#include "qel_bounds.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>

#include "bounds_internal.h"

namespace {

// Largest count vsnprintf_s accepts: count + 1 must still be a valid size.
constexpr size_t kMaxCount = 0x7ffffffe;
// Largest width or precision, whether written as digits or passed through '*'.
constexpr int kMaxWidth = 214748360;
// Integer conversions never produce more digits than this, whatever the precision.
constexpr int kMaxIntPrecision = 512;

// Restores errno on scope exit: the C library routines used for floats and wide
// characters may set it, and these functions leave errno alone.
class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};

// Output buffer of fixed capacity.  Every byte of the capacity may hold output; the
// caller decides afterwards where the terminator goes.  Once a character finds no
// room the sink is full and refuses everything after it.
struct Sink {
    char *buf;
    size_t cap;
    size_t len = 0;
    bool full = false;

    size_t room() const { return cap - len; }

    bool put(char c) {
        if (len == cap) {
            full = true;
            return false;
        }
        buf[len++] = c;
        return true;
    }

    bool write(const char *s, size_t n) {
        const size_t take = n <= room() ? n : room();
        memcpy(buf + len, s, take);
        len += take;
        if (take < n) {
            full = true;
            return false;
        }
        return true;
    }

    bool fill(char c, size_t n) {
        const size_t take = n <= room() ? n : room();
        memset(buf + len, c, take);
        len += take;
        if (take < n) {
            full = true;
            return false;
        }
        return true;
    }
};

// What formatting a piece of output came to.
enum class Status { ok, truncated, bad_format };

enum class Length : unsigned char { none, hh, h, l, ll, L, q, j, z, Z, t, w, I, I32, I64 };

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alt = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // -1: none given
    Length length = Length::none;
    char conv = '\0';
};

// The variable arguments, kept in a struct so helpers can share one va_list.
struct Args {
    va_list ap;
};

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

constexpr bool is_flag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }

constexpr bool is_conversion(char c) {
    constexpr char kConversions[] = "diuoxXcspeEfFgGCS";
    for (char k : kConversions) {
        if (k != '\0' && k == c) {
            return true;
        }
    }
    return false;
}

constexpr bool is_int_conversion_after_I(char c) {
    return c == 'd' || c == 'i' || c == 'o' || c == 'u' || c == 'x' || c == 'X';
}

void set_flag(Directive &d, char c) {
    switch (c) {
        case '-': d.left = true; break;
        case '+': d.plus = true; break;
        case ' ': d.space = true; break;
        case '#': d.alt = true; break;
        default: d.zero = true; break;
    }
}

// Appends one decimal digit to a width or precision; false once it exceeds kMaxWidth.
bool add_digit(int &value, char c) {
    const int digit = c - '0';
    if (value > (kMaxWidth - digit) / 10) {
        return false;
    }
    value = value * 10 + digit;
    return true;
}

enum class Parsed { directive, percent, literal_i, bad_format };

// Where the parser stands inside a directive.
enum class Stage { start, flags, width_digits, width_star, dot, precision_digits, precision_star };

// Reads the length modifier at p, if any.  Returns false for "%I" that is not a
// length modifier (the caller prints it as a literal 'I').
bool parse_length(const char *&p, Length &length) {
    switch (*p) {
        case 'h':
            if (p[1] == 'h') {
                length = Length::hh;
                p += 2;
            } else {
                length = Length::h;
                ++p;
            }
            return true;
        case 'l':
            if (p[1] == 'l') {
                length = Length::ll;
                p += 2;
            } else {
                length = Length::l;
                ++p;
            }
            return true;
        case 'L':
            length = Length::L;
            ++p;
            return true;
        case 'q':
            length = Length::q;
            ++p;
            return true;
        case 'j':
            length = Length::j;
            ++p;
            return true;
        case 'z':
            length = Length::z;
            ++p;
            return true;
        case 'Z':
            length = Length::Z;
            ++p;
            return true;
        case 't':
            length = Length::t;
            ++p;
            return true;
        case 'w':
            length = Length::w;
            ++p;
            return true;
        case 'I':
            if (p[1] == '6' && p[2] == '4') {
                length = Length::I64;
                p += 3;
                return true;
            }
            if (p[1] == '3' && p[2] == '2') {
                length = Length::I32;
                p += 3;
                return true;
            }
            if (is_int_conversion_after_I(p[1])) {
                length = Length::I;
                ++p;
                return true;
            }
            ++p;
            return false;
        default: return true;
    }
}

constexpr bool is_length_start(char c) {
    return c == 'h' || c == 'l' || c == 'L' || c == 'q' || c == 'j' || c == 'z' || c == 'Z' ||
           c == 't' || c == 'w' || c == 'I';
}

// Parses the directive that follows a '%'; p is left after it.  '*' arguments are
// taken from args as they are met.
Parsed parse_directive(const char *&p, Directive &d, Args &args) {
    Stage stage = Stage::start;
    for (;;) {
        const char c = *p;
        if (c == '\0') {
            return Parsed::bad_format;  // the format ends inside the directive
        }
        if (c == '%') {
            if (stage != Stage::start) {
                return Parsed::bad_format;  // "%5%", "%-%"
            }
            ++p;
            return Parsed::percent;
        }

        const bool zeroIsDigit =
            stage == Stage::width_digits || stage == Stage::dot || stage == Stage::precision_digits;
        if (is_flag(c) && !(c == '0' && zeroIsDigit)) {
            if (stage == Stage::dot || stage == Stage::precision_digits ||
                stage == Stage::precision_star) {
                return Parsed::bad_format;  // no flags once the precision has begun
            }
            set_flag(d, c);
            stage = Stage::flags;
            ++p;
            continue;
        }

        if (is_digit(c)) {
            switch (stage) {
                case Stage::start:
                case Stage::flags:
                    d.width = 0;  // digits after a flag start a new width
                    stage = Stage::width_digits;
                    break;
                case Stage::dot: stage = Stage::precision_digits; break;
                case Stage::width_digits:
                case Stage::precision_digits: break;
                case Stage::width_star:
                case Stage::precision_star: return Parsed::bad_format;  // digits after '*'
            }
            int &target = stage == Stage::width_digits ? d.width : d.precision;
            if (!add_digit(target, c)) {
                return Parsed::bad_format;  // width or precision too large
            }
            ++p;
            continue;
        }

        if (c == '*') {
            if (stage == Stage::start || stage == Stage::flags) {
                const long long value = va_arg(args.ap, int);
                const long long magnitude = value < 0 ? -value : value;
                if (magnitude > kMaxWidth) {
                    return Parsed::bad_format;
                }
                if (value < 0) {
                    d.left = true;
                }
                d.width = static_cast<int>(magnitude);
                stage = Stage::width_star;
            } else if (stage == Stage::dot) {
                const int value = va_arg(args.ap, int);
                if (value > kMaxWidth) {
                    return Parsed::bad_format;
                }
                d.precision = value < 0 ? -1 : value;
                stage = Stage::precision_star;
            } else {
                return Parsed::bad_format;  // '*' after width or precision digits, or twice
            }
            ++p;
            continue;
        }

        if (c == '.') {
            if (stage == Stage::dot || stage == Stage::precision_digits ||
                stage == Stage::precision_star) {
                return Parsed::bad_format;  // a second '.'
            }
            d.precision = 0;
            stage = Stage::dot;
            ++p;
            continue;
        }

        if (is_length_start(c)) {
            if (!parse_length(p, d.length)) {
                return Parsed::literal_i;
            }
            // After a length modifier only a conversion letter may follow.
            if (!is_conversion(*p)) {
                return Parsed::bad_format;
            }
        } else if (!is_conversion(c)) {
            return Parsed::bad_format;  // %n, %a, %m, positional "%1$d", the ' flag, ...
        }
        d.conv = *p++;
        return Parsed::directive;
    }
}

// ---------------------------------------------------------------------------------
// Output of the single conversions.

// Writes text of n bytes padded to the directive's width with spaces (glibc ignores
// the '0' flag for strings and characters).
bool emit_padded_text(Sink &out, const Directive &d, const char *text, size_t n) {
    const size_t width = static_cast<size_t>(d.width);
    const size_t pad = width > n ? width - n : 0;
    if (!d.left && !out.fill(' ', pad)) {
        return false;
    }
    if (!out.write(text, n)) {
        return false;
    }
    return !d.left || out.fill(' ', pad);
}

constexpr char kNullString[] = "(null)";
constexpr size_t kNullStringLen = sizeof(kNullString) - 1;

// "(null)" as "%s" prints it: the precision applies to it like to any string.
bool emit_null_string(Sink &out, const Directive &d) {
    size_t n = kNullStringLen;
    if (d.precision >= 0 && static_cast<size_t>(d.precision) < n) {
        n = static_cast<size_t>(d.precision);
    }
    return emit_padded_text(out, d, kNullString, n);
}

struct IntValue {
    std::uint64_t magnitude;
    bool negative;
};

IntValue fetch_signed(Args &args, Length length) {
    long long v = 0;
    switch (length) {
        case Length::hh: v = static_cast<signed char>(va_arg(args.ap, int)); break;
        case Length::h: v = static_cast<short>(va_arg(args.ap, int)); break;
        case Length::none:
        case Length::w:
        case Length::I32: v = va_arg(args.ap, int); break;
        case Length::l: v = va_arg(args.ap, long); break;
        case Length::ll:
        case Length::L:
        case Length::q: v = va_arg(args.ap, long long); break;
        case Length::j: v = va_arg(args.ap, intmax_t); break;
        case Length::z:
        case Length::Z:
        case Length::t: v = va_arg(args.ap, ptrdiff_t); break;
        case Length::I: v = va_arg(args.ap, intptr_t); break;
        case Length::I64: v = va_arg(args.ap, int64_t); break;
    }
    if (v < 0) {
        // Negate in unsigned arithmetic so LLONG_MIN has a magnitude too.
        return {0 - static_cast<std::uint64_t>(v), true};
    }
    return {static_cast<std::uint64_t>(v), false};
}

std::uint64_t fetch_unsigned(Args &args, Length length) {
    switch (length) {
        case Length::hh: return static_cast<unsigned char>(va_arg(args.ap, unsigned int));
        case Length::h: return static_cast<unsigned short>(va_arg(args.ap, unsigned int));
        case Length::none:
        case Length::w:
        case Length::I32: return va_arg(args.ap, unsigned int);
        case Length::l: return va_arg(args.ap, unsigned long);
        case Length::ll:
        case Length::L:
        case Length::q: return va_arg(args.ap, unsigned long long);
        case Length::j: return va_arg(args.ap, uintmax_t);
        case Length::z:
        case Length::Z:
        case Length::t: return va_arg(args.ap, size_t);
        case Length::I: return va_arg(args.ap, uintptr_t);
        case Length::I64: return va_arg(args.ap, uint64_t);
    }
    return 0;
}

// Writes an integer: [spaces] sign/prefix [zeros] digits [spaces].
// base is 8, 10 or 16; prefix is "", "0x" or "0X".
bool emit_integer(Sink &out, const Directive &d, IntValue value, unsigned base, bool upper,
                  bool showSign, const char *prefix) {
    // 64 bits in octal take 22 digits.
    char digits[24];
    size_t nd = 0;
    const int precision =
        d.precision < 0 ? 1 : (d.precision > kMaxIntPrecision ? kMaxIntPrecision : d.precision);
    if (value.magnitude != 0 || precision != 0) {
        const char *const set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        char reversed[24];
        std::uint64_t m = value.magnitude;
        do {
            reversed[nd++] = set[m % base];
            m /= base;
        } while (m != 0);
        for (size_t i = 0; i < nd; ++i) {
            digits[i] = reversed[nd - 1 - i];
        }
    }

    size_t zeros = static_cast<size_t>(precision) > nd ? static_cast<size_t>(precision) - nd : 0;
    if (base == 8 && d.alt && zeros == 0 && (nd == 0 || digits[0] != '0')) {
        zeros = 1;  // '#' makes the first octal digit a 0
    }

    char head[3];
    size_t headLen = 0;
    if (value.negative) {
        head[headLen++] = '-';
    } else if (showSign && d.plus) {
        head[headLen++] = '+';
    } else if (showSign && d.space) {
        head[headLen++] = ' ';
    }
    for (const char *p = prefix; *p != '\0'; ++p) {
        head[headLen++] = *p;
    }

    const size_t total = headLen + zeros + nd;
    const size_t width = static_cast<size_t>(d.width);
    size_t pad = width > total ? width - total : 0;

    if (!d.left) {
        if (d.zero && d.precision < 0) {
            zeros += pad;  // zero padding goes between the sign/prefix and the digits
        } else if (!out.fill(' ', pad)) {
            return false;
        }
        pad = 0;
    }
    return out.write(head, headLen) && out.fill('0', zeros) && out.write(digits, nd) &&
           out.fill(' ', pad);
}

bool emit_pointer(Sink &out, const Directive &d, const void *ptr) {
    if (ptr == nullptr) {
        // Printed whole whatever the precision, padded with spaces.
        constexpr char kNil[] = "(nil)";
        return emit_padded_text(out, d, kNil, sizeof(kNil) - 1);
    }
    const IntValue value{reinterpret_cast<std::uintptr_t>(ptr), false};
    // Like glibc, '+' and ' ' apply to pointers and 0x is always there.
    return emit_integer(out, d, value, 16, false, true, "0x");
}

bool emit_string(Sink &out, const Directive &d, const char *s) {
    if (s == nullptr) {
        return emit_null_string(out, d);
    }
    const size_t n = d.precision >= 0 ? strnlen(s, static_cast<size_t>(d.precision)) : strlen(s);
    return emit_padded_text(out, d, s, n);
}

// Wide output.  The result tells whether the characters could be converted; the sink
// itself records running out of room.
enum class WideResult { ok, stopped, unconvertible };

WideResult emit_wide_char(Sink &out, const Directive &d, wint_t wc) {
    char mb[MB_LEN_MAX];
    mbstate_t state{};
    const size_t n = wcrtomb(mb, static_cast<wchar_t>(wc), &state);
    if (n == static_cast<size_t>(-1)) {
        return WideResult::unconvertible;
    }
    return emit_padded_text(out, d, mb, n) ? WideResult::ok : WideResult::stopped;
}

WideResult emit_wide_string(Sink &out, const Directive &d, const wchar_t *ws) {
    if (ws == nullptr) {
        return emit_null_string(out, d) ? WideResult::ok : WideResult::stopped;
    }

    // First pass: how many characters and bytes go out.  The precision limits the
    // bytes and a character that does not fit whole is left out.
    const bool limited = d.precision >= 0;
    const size_t limit = limited ? static_cast<size_t>(d.precision) : 0;
    char mb[MB_LEN_MAX];
    mbstate_t state{};
    size_t bytes = 0;
    size_t chars = 0;
    for (; ws[chars] != L'\0'; ++chars) {
        if (limited && bytes >= limit) {
            break;
        }
        const size_t n = wcrtomb(mb, ws[chars], &state);
        if (n == static_cast<size_t>(-1)) {
            return WideResult::unconvertible;
        }
        if (limited && bytes + n > limit) {
            break;
        }
        bytes += n;
    }

    const size_t width = static_cast<size_t>(d.width);
    const size_t pad = width > bytes ? width - bytes : 0;
    if (!d.left && !out.fill(' ', pad)) {
        return WideResult::stopped;
    }
    state = mbstate_t{};
    for (size_t i = 0; i < chars; ++i) {
        const size_t n = wcrtomb(mb, ws[i], &state);
        if (!out.write(mb, n)) {
            return WideResult::stopped;
        }
    }
    if (d.left && !out.fill(' ', pad)) {
        return WideResult::stopped;
    }
    return WideResult::ok;
}

// Rebuilds a floating-point directive as C text for snprintf: "%" flags width
// .precision [L] conversion.
void build_float_format(const Directive &d, bool longDouble, char *cText, size_t size) {
    char flags[6];
    size_t nf = 0;
    if (d.left) flags[nf++] = '-';
    if (d.plus) flags[nf++] = '+';
    if (d.space) flags[nf++] = ' ';
    if (d.alt) flags[nf++] = '#';
    if (d.zero) flags[nf++] = '0';
    flags[nf] = '\0';

    char width[16] = "";
    if (d.width > 0) {
        snprintf(width, sizeof(width), "%d", d.width);
    }
    char precision[16] = "";
    if (d.precision >= 0) {
        snprintf(precision, sizeof(precision), ".%d", d.precision);
    }
    snprintf(cText, size, "%%%s%s%s%s%c", flags, width, precision, longDouble ? "L" : "", d.conv);
}

Status emit_float(Sink &out, const Directive &d, Args &args) {
    // glibc reads a long double for L, q and ll.
    const bool longDouble =
        d.length == Length::L || d.length == Length::q || d.length == Length::ll;
    long double ldValue = 0;
    double dValue = 0;
    if (longDouble) {
        ldValue = va_arg(args.ap, long double);
    } else {
        dValue = va_arg(args.ap, double);
    }
    char cText[48];
    build_float_format(d, longDouble, cText, sizeof(cText));

    auto render = [&](char *buf, size_t size) {
        return longDouble ? snprintf(buf, size, cText, ldValue)
                          : snprintf(buf, size, cText, dValue);
    };

    char local[512];
    const int produced = render(local, sizeof(local));
    if (produced < 0) {
        return Status::bad_format;
    }
    const size_t length = static_cast<size_t>(produced);
    if (length < sizeof(local)) {
        return out.write(local, length) ? Status::ok : Status::truncated;
    }

    // Longer than the local buffer: only the part that can reach the sink matters,
    // plus one character to learn that it overflows.
    const size_t wanted = length <= out.room() ? length : out.room() + 1;
    if (wanted < sizeof(local)) {
        return out.write(local, wanted) ? Status::ok : Status::truncated;
    }
    char *heap = static_cast<char *>(malloc(wanted + 1));
    if (heap == nullptr) {
        return Status::bad_format;  // no memory to produce the digits
    }
    render(heap, wanted + 1);
    const bool fits = out.write(heap, wanted);
    free(heap);
    return fits ? Status::ok : Status::truncated;
}

// Whether a c/s/C/S directive is wide.  %C and %S always are.  As in glibc, which
// reads every length of long size (l ll L q j z Z t) as "wide" for c and s, so do
// those and our own w, I and I64; none, h, hh and I32 leave %c and %s narrow.
bool is_wide(const Directive &d) {
    if (d.conv == 'C' || d.conv == 'S') {
        return true;
    }
    switch (d.length) {
        case Length::none:
        case Length::h:
        case Length::hh:
        case Length::I32: return false;
        default: return true;
    }
}

Status from_bool(bool written) { return written ? Status::ok : Status::truncated; }

Status from_wide(WideResult r) {
    switch (r) {
        case WideResult::ok: return Status::ok;
        case WideResult::stopped: return Status::truncated;
        case WideResult::unconvertible: break;
    }
    return Status::bad_format;
}

Status emit_directive(Sink &out, const Directive &d, Args &args) {
    switch (d.conv) {
        case 'd':
        case 'i':
            return from_bool(
                emit_integer(out, d, fetch_signed(args, d.length), 10, false, true, ""));
        case 'u':
            return from_bool(emit_integer(out, d, {fetch_unsigned(args, d.length), false}, 10,
                                          false, false, ""));
        case 'o':
            return from_bool(
                emit_integer(out, d, {fetch_unsigned(args, d.length), false}, 8, false, false, ""));
        case 'x':
        case 'X': {
            const IntValue value{fetch_unsigned(args, d.length), false};
            const bool upper = d.conv == 'X';
            // "%#x" of zero has no 0x, as in C.
            const char *prefix = d.alt && value.magnitude != 0 ? (upper ? "0X" : "0x") : "";
            return from_bool(emit_integer(out, d, value, 16, upper, false, prefix));
        }
        case 'p': return from_bool(emit_pointer(out, d, va_arg(args.ap, void *)));
        case 'c':
        case 'C':
            if (is_wide(d)) {
                return from_wide(emit_wide_char(out, d, va_arg(args.ap, wint_t)));
            } else {
                const char ch = static_cast<char>(va_arg(args.ap, int));
                return from_bool(emit_padded_text(out, d, &ch, 1));
            }
        case 's':
        case 'S':
            // '#' has no meaning for strings and is ignored.
            if (is_wide(d)) {
                return from_wide(emit_wide_string(out, d, va_arg(args.ap, const wchar_t *)));
            }
            return from_bool(emit_string(out, d, va_arg(args.ap, const char *)));
        default: return emit_float(out, d, args);  // e E f F g G
    }
}

// Formats the whole format into out.  truncated: a character found no room;
// bad_format: a directive reached before that point is invalid.
Status format_into(Sink &out, const char *format, Args &args) {
    const ErrnoKeeper keepErrno;
    const char *p = format;
    while (*p != '\0') {
        if (*p != '%') {
            // Copy the literal run up to the next directive in one go.
            const char *next = strchr(p, '%');
            const size_t n = next != nullptr ? static_cast<size_t>(next - p) : strlen(p);
            if (!out.write(p, n)) {
                return Status::truncated;
            }
            p += n;
            continue;
        }
        ++p;
        Directive d;
        Status status = Status::ok;
        switch (parse_directive(p, d, args)) {
            case Parsed::percent: status = from_bool(out.put('%')); break;
            case Parsed::literal_i: status = from_bool(out.put('I')); break;
            case Parsed::bad_format: return Status::bad_format;
            case Parsed::directive: status = emit_directive(out, d, args); break;
        }
        if (status != Status::ok) {
            return status;
        }
    }
    // Output that fills the whole capacity leaves no room for the terminator.
    return out.len < out.cap ? Status::ok : Status::truncated;
}

// Formats with the given capacity (at most destMax).  keepTruncated: a truncated text
// is kept, terminated at the end of the capacity; otherwise it is cut to an empty
// string after the bytes were written.
int format_checked(char *strDest, size_t capacity, bool keepTruncated, const char *format,
                   va_list argList) {
    Sink out{strDest, capacity};
    Args args;
    va_copy(args.ap, argList);
    const Status status = format_into(out, format, args);
    va_end(args.ap);

    switch (status) {
        case Status::ok: strDest[out.len] = '\0'; return static_cast<int>(out.len);
        case Status::truncated:
            strDest[capacity - 1] = '\0';
            if (!keepTruncated) {
                strDest[0] = '\0';
            }
            return -1;
        case Status::bad_format: break;
    }
    strDest[0] = '\0';
    return -1;
}

bool dest_usable(const char *strDest, size_t destMax) {
    return strDest != nullptr && !qel_bounds::dest_size_invalid(destMax);
}

}  // namespace

int vsprintf_s(char *strDest, size_t destMax, const char *format, va_list argList) {
    if (!dest_usable(strDest, destMax)) {
        return -1;
    }
    if (format == nullptr) {
        strDest[0] = '\0';
        return -1;
    }
    return format_checked(strDest, destMax, false, format, argList);
}

int sprintf_s(char *strDest, size_t destMax, const char *format, ...) {
    va_list argList;
    va_start(argList, format);
    const int result = vsprintf_s(strDest, destMax, format, argList);
    va_end(argList);
    return result;
}

int vsnprintf_s(char *strDest, size_t destMax, size_t count, const char *format, va_list argList) {
    if (!dest_usable(strDest, destMax)) {
        return -1;
    }
    if (format == nullptr || count > kMaxCount) {
        strDest[0] = '\0';
        return -1;
    }
    if (count < destMax) {
        // Room for count characters and the terminator; a longer text is cut and kept.
        return format_checked(strDest, count + 1, true, format, argList);
    }
    // The destination itself is the limit: as vsprintf_s, a text that does not fit
    // is not kept.
    return format_checked(strDest, destMax, false, format, argList);
}

int snprintf_s(char *strDest, size_t destMax, size_t count, const char *format, ...) {
    va_list argList;
    va_start(argList, format);
    const int result = vsnprintf_s(strDest, destMax, count, format, argList);
    va_end(argList);
    return result;
}
