/*
 * qel_text.h - UTF-8, UCS and locale text conversion.
 *
 * Two families that share nothing:
 *
 *  - A UTF-8 codec of the library's own between UTF-8 and 32-bit code points in host
 *    order (utf8_to_unicode and the lower-case functions after it).  It knows the 1- to
 *    6-byte forms of the first UTF-8 definition (RFC 2279), so code points of up to 31
 *    bits, and it never validates: the low 6 bits of every following byte are taken as
 *    they are, and the following bytes are read without looking for the terminator.
 *  - Converters on the C library's iconv and on wcstombs/mbstowcs (the QEL_ functions).
 *    Conversion errors are not reported: a result holds what was converted before the
 *    error, or nothing.
 *
 * Every string a converter returns is a new zero-filled block of the memory entry
 * points (qel_memory.h) and belongs to the caller: release the QEL_ results with
 * QEL_StrMemFree, those of the codec with ZEPO_MemTypeFreeD.  A converter returns NULL
 * for a null argument or a failed allocation, and has then released all it allocated.
 * Nothing here sets errno on purpose or prints, except the trace line of
 * unicodeStr_to_utf8Str.
 *
 * Thread safety: no state is kept between calls; each iconv converter opens and closes
 * its own descriptor.  QEL_UnicodeToLocale, QEL_LocaleToUnicodeW and the two functions
 * built on them set the process's LC_CTYPE locale to the environment's, which affects
 * every thread.
 */
#ifndef QEL_TEXT_H
#define QEL_TEXT_H

#include <stdint.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- UTF-8 codec ---------------------------------------------------------------- */

/*
 * Decodes the character at src into *out and returns the number of bytes it takes,
 * 1 to 6; returns 0, storing nothing, when src or out is null.  The lead byte b
 * chooses the form:
 *   0xFC-0xFF  6 bytes: bit 0 of b (as bit 30), then 5 x 6 bits
 *   0xF8-0xFB  5 bytes: low 2 bits of b, then 4 x 6 bits
 *   0xF0-0xF7  4 bytes: low 3 bits of b, then 3 x 6 bits
 *   0xE0-0xEF  3 bytes: low 4 bits of b, then 2 x 6 bits
 *   0xC0-0xDF  2 bytes: low 5 bits of b, then 6 bits
 *   0x00-0xBF  1 byte:  b itself
 * Each following byte gives its low 6 bits, unchecked.  So a stray continuation byte
 * (0x80-0xBF) decodes as the code point of the same value, and 0xFE and 0xFF lead
 * 6-byte forms.  The following bytes are read whatever they are, the terminator
 * included: a lead byte near the end of a text reads past it.
 */
int32_t utf8_to_unicode(const char *src, uint32_t *out);

/*
 * Encodes cp at dst and returns the position just past the bytes written; returns
 * NULL when dst is null.  No terminator is written.  The form follows cp: 1 byte below
 * 128, 2 up to 2047, 3 up to 65535, 4 up to 0x1FFFFF, 5 up to 0x3FFFFFF, 6 above;
 * dst must have room for 6 bytes.  The 6-byte form has room for 31 bits only: its lead
 * byte is 0xFD when bit 30 of cp is set, else 0xFC, and bit 31 is dropped without
 * notice (0x80000000 gives 0xFC 0x80 0x80 0x80 0x80 0x80, and decodes as 0).
 */
char *unicode_to_utf8(uint32_t cp, char *dst);

/*
 * The number of code-point units to allocate for the conversion of utf8, not its
 * number of characters: each lead byte below 0x80 counts 1 and steps 1 byte;
 * 0xC0-0xDF count 1 and step 2; 0xE0-0xEF count 2 and step 3; 0xF0-0xF7 count 2 and
 * step 4; any other byte (0x80-0xBF, 0xF8-0xFF) counts 1 and steps 1.  The 3- and
 * 4-byte forms are counted twice on purpose, so the count is generous ("\xE2\x82\xAC",
 * one character, counts 2).  The walk stops at the text's length.  Returns 0 for a
 * null or empty text.
 */
uint32_t get_unicode_strlen(const char *utf8);

/*
 * Decodes utf8 with utf8_to_unicode into a new code-point string of
 * get_unicode_strlen(utf8) units and a zero unit, zero-filled, decoding until the byte
 * at the current position is zero.  Returns NULL for a null or empty text or a failed
 * allocation.  The position steps by each character's form, so a lead byte promising
 * more bytes than remain steps over the terminator and decoding goes on with whatever
 * follows it ("\xC3" then the terminator decodes as 0xC0 and carries on): the text must
 * be followed by readable bytes up to the end of its last form.  Decoding stops when
 * the units are full, so the result is never overrun.  Release with ZEPO_MemTypeFreeD.
 */
uint32_t *utf8Str_to_unicodeStr(const char *utf8);

/*
 * The number of UTF-8 bytes the encoding of ucs needs, without a terminator: per unit
 * 1 (up to 127), 2 (up to 2047), 3 (up to 65535), 4 (up to 0x1FFFFF), 5 (up to
 * 0x3FFFFFF) or 6.  Returns 0 for a null or empty string.
 */
uint32_t get_utf8_strlen(const uint32_t *ucs);

/*
 * Encodes ucs with unicode_to_utf8 into a new, terminated UTF-8 text of
 * get_utf8_strlen(ucs) bytes.  Returns NULL for a null or empty string (an empty one
 * needs 0 bytes) or a failed allocation.  A character that would not fit ends the text
 * there: it is cut, never overrun.  Each character's copy is bounds-checked; a failed
 * one prints the failure trace line ("Operate fail[%d]: File: %s Line: %d \n") and the
 * conversion carries on.  Release with ZEPO_MemTypeFreeD.
 */
char *unicodeStr_to_utf8Str(const uint32_t *ucs);

/* ---- iconv and locale converters ------------------------------------------------ */

/*
 * Converts utf8, its terminator included, to UTF-16LE with iconv into an output area
 * of 8 bytes per input byte, and returns a new buffer of that size holding only the
 * first quarter of the output space iconv left free (the fraction dropped), the rest
 * zero.  That three-quarters cut is what callers have always received: ASCII text of
 * length L converts to 2(L + 1) bytes and keeps 1.5(L + 1) of them, so "abcdefghij"
 * gives the UTF-16LE units of "abcdefgh" only; a unit cut in two keeps its low byte.
 * The buffer is typed wchar_t but holds 16-bit units; read as wide characters it pairs
 * them.  A failed iconv_open or conversion is not reported.  Returns NULL
 * for a null utf8 (an empty one gives a zeroed buffer) or a failed allocation.
 * Release with QEL_StrMemFree.
 */
wchar_t *QEL_Utf8ToUnicodeW(const char *utf8);

/*
 * QEL_Utf8ToUnicodeW(utf8) reduced to bytes: the buffer is read as wide characters up
 * to the first zero one (wcslen), and every non-zero byte of those characters is kept
 * in order.  For ASCII text this gives the letters that QEL_Utf8ToUnicodeW kept
 * ("abcdefghij" gives "abcdefgh"); other text comes back as the non-zero bytes of its
 * UTF-16LE units.  Returns a new terminated text, or NULL for a null utf8 or a failed
 * allocation.  Release with QEL_StrMemFree.
 */
char *QEL_Utf8ToUnicodeA(const char *utf8);

/*
 * Converts wide with iconv from the source set "unicode" to UTF-8: the wide characters
 * are handed over as 4 bytes each, however the C library reads that set, and every
 * non-zero byte that comes out is kept, in order (the output area is scanned for as
 * many bytes as iconv left free in it).  Returns a new terminated text, empty when
 * nothing came out, or NULL for a null wide or a failed allocation.  Release with
 * QEL_StrMemFree.
 */
char *QEL_UnicodeToUtf8(const wchar_t *wide);

/*
 * Sets LC_CTYPE to the environment's locale (setlocale(LC_CTYPE, "")), then converts
 * wide with wcstombs into a new terminated text of the counted size.  Returns NULL for
 * a null wide or a failed allocation.  A character the locale cannot represent makes
 * the count all ones, so the size is 0: a zero-byte block is asked for (NULL from the
 * memory entry points) and nothing is converted.  Release with QEL_StrMemFree.
 */
char *QEL_UnicodeToLocale(const wchar_t *wide);

/*
 * Converts the multibyte text with mbstowcs into a new wide string of the counted size,
 * zero-filled.  The count is made first and only then is LC_CTYPE set to the
 * environment's locale - the reverse of QEL_UnicodeToLocale - so the first call in a
 * process counts in the locale in force before it.  A sequence the counting locale
 * rejects makes the size 0: a zero-byte block is asked for (NULL from the memory entry
 * points) and nothing is converted.  Returns NULL for a null text or a failed
 * allocation.  Release with QEL_StrMemFree.
 */
wchar_t *QEL_LocaleToUnicodeW(const char *text);

/* QEL_UnicodeToUtf8(QEL_LocaleToUnicodeW(text)); the wide string between them is
 * released.  NULL when either step gives NULL.  Release with QEL_StrMemFree. */
char *QEL_LocaleToUtf8(const char *text);

/*
 * QEL_UnicodeToLocale(QEL_Utf8ToUnicodeW(utf8)); the buffer between them is released.
 * The UTF-16LE buffer is read there as 32-bit wide characters, so each pair of units
 * becomes one character ("ab" becomes 0x00620061): a single ASCII letter comes through
 * as itself, longer text as whatever the locale makes of such characters - NULL in the
 * C locale, which cannot represent them.  Returns NULL for a null utf8, as above, or a
 * failed allocation.  Release with QEL_StrMemFree.
 */
char *QEL_Utf8ToLocale(const char *utf8);

/* Releases a result of the QEL_ converters through ZEPO_MemTypeFreeD; NULL does
 * nothing. */
void QEL_StrMemFree(void *p);

/* strtok_s(str, delim, context) of qel_bounds.h, result unchanged; nothing is checked
 * here. */
char *ZEPO_StrTok_S(char *str, const char *delim, char **context);

/*
 * Whether text ends within len bytes, and if not, cuts it so that it does.  Returns 1
 * for a null text or a len of 0 (nothing written), and for a negative len after writing
 * a zero byte at text[0].  Otherwise walks the characters from index 0 by the length
 * their lead byte promises (6 for 0xFC and above, 5 for 0xF8-0xFB, 4 for 0xF0-0xF7,
 * 3 for 0xE0-0xEF, 2 for 0xC0-0xDF, else 1) while the index is below len: a zero byte
 * met on the way returns 0, with nothing written.  When the walk reaches or passes len,
 * a zero byte is written at the start of the last character looked at and 1 is
 * returned: that last character is always sacrificed, complete or not, so that no
 * partial sequence can remain ("abc" with len 3 becomes "ab").
 */
int32_t QEL_Utf8Check(char *text, int32_t len);

#ifdef __cplusplus
}
#endif

#endif /* QEL_TEXT_H */
