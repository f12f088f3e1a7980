/*
 * qel_string.h - string utilities.
 *
 * Most functions here check nothing: a null pointer reaches the C library and faults
 * there, as it would in a direct call.  Only ZEPO_StrLen, ZEPO_StrToUper,
 * ZEPO_StrToLower, ZEPO_StrDupEx and ZEPO_Ultostr guard their arguments.
 * ZEPO_StrLen is the library's test for a null-or-empty text.
 *
 * Thread safety: every function is safe to call from any thread on distinct buffers;
 * the case functions read the calling thread's locale.
 */
#ifndef QEL_STRING_H
#define QEL_STRING_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Length of str (strlen); 0 for a null pointer. */
uint32_t ZEPO_StrLen(const char *str);

/* strcmp(a, b): <0, 0 or >0.  Unchecked: a null argument faults as in strcmp. */
int32_t ZEPO_StrCmp(const char *a, const char *b);

/* strncmp(a, b, n).  Unchecked. */
int32_t ZEPO_StrNCmp(const char *a, const char *b, uint32_t n);

/* strcasecmp(a, b): ordering with case ignored.  Unchecked. */
int32_t ZEPO_StriCmp(const char *a, const char *b);

/* strncasecmp(a, b, n).  Unchecked. */
int32_t ZEPO_StriNCmp(const char *a, const char *b, uint32_t n);

/* strstr(hay, needle): first occurrence or NULL.  Unchecked. */
char *ZEPO_StrStr(const char *hay, const char *needle);

/* strchr(str, ch) with ch narrowed to a signed 8-bit character: first occurrence or
 * NULL (ch 0 finds the terminator).  Unchecked. */
char *ZEPO_StrChr(const char *str, int32_t ch);

/* strrchr(str, ch), ch narrowed as in ZEPO_StrChr: last occurrence or NULL.  Unchecked. */
char *ZEPO_StrrChr(const char *str, int32_t ch);

/* strtol(str, end, base) as a signed 64-bit value; errno as strtol leaves it. */
int64_t ZEPO_Strtol(const char *str, char **end, int32_t base);

/* strtoul(str, end, base) as an unsigned 64-bit value; errno as strtoul leaves it. */
uint64_t ZEPO_Strtoul(const char *str, char **end, int32_t base);

/* strtol(str, NULL, 10), cut to its low 32 bits: "4294967297" gives 1, and ERANGE is set
 * only beyond the 64-bit range ("99999999999" gives 1215752191, no error).  Unchecked. */
int32_t ZEPO_StrToInt(const char *str);

/* strtod(str, NULL) narrowed to single precision.  Unchecked. */
float ZEPO_StrToFloat(const char *str);

/*
 * The C library's lower-case (upper-case) table entry for c in the calling thread's
 * locale.  The character is taken as a signed 8-bit value, so bytes 0x80 to 0xFF use
 * the table's negative entries.
 */
char ZEPO_CharToLower(char c);
char ZEPO_CharToUpper(char c);

/*
 * Converts str to upper (lower) case in place through the same tables, byte by byte up
 * to its length, and rewrites the terminator.  Returns str; a null or empty str is
 * returned unchanged.  (The name ZEPO_StrToUper is spelled so on purpose.)
 */
char *ZEPO_StrToUper(char *str);
char *ZEPO_StrToLower(char *str);

/*
 * Formats value as "%d" into buf, which must hold 11 bytes (sprintf_s with size 11).
 * Returns buf.  The format result is not tested and nothing is printed: a value of
 * -1000000000 or below needs twelve bytes and leaves the empty text the failed format
 * leaves (byte 0 NUL, the rest as filled).
 */
char *ZEPO_IntToStr(int32_t value, char *buf);

/*
 * Formats value as "%f" into buf, which must hold 11 bytes.  Returns buf.  The format
 * result is not tested and nothing is printed: since "%f" prints six decimals, a text
 * that does not fit - any value of 1000 or more, anything that rounds up to 1000, and
 * any value of -100 or less - leaves the empty text the failed format leaves.
 */
char *ZEPO_FloatToStr(char *buf, float value);

/*
 * Formats value into buf in base 8 ("%o"), 16 ("%x") or, for any other base, 10
 * ("%u"), writing at most min(size, 12) - 1 characters and a terminator.
 * Returns the number of characters written; -1 when size is 0 or when the text does not
 * fit (buf then holds the cut text).
 */
int32_t ZEPO_Ultostr(char *buf, uint32_t size, uint32_t value, uint32_t base);

/*
 * Concatenates first and the texts that follow it into a new string.  The list ends
 * at a null pointer or at an empty text (which ends it early: "a", "", "b", NULL gives
 * "a").  first is mandatory and not refused: a null first text fails its append and
 * gives NULL.  Returns the new string, to be released with ZEPO_MemTypeFreeD, or NULL
 * when the allocation or an append fails; nothing is printed.
 */
char *ZEPO_StrConcat(const char *first, ...);

/*
 * Duplicates str into a new string charged to the caller's source position (line,
 * file: file must outlive the block).  A null str gives a new empty string, not NULL.
 * Returns NULL only when the allocation fails.  Release with ZEPO_MemTypeFreeD.
 */
char *ZEPO_StrDupEx(const char *str, uint32_t line, const char *file);

/*
 * Converts str with strtol in base 0 (0x: hexadecimal, leading 0: octal) and stores the
 * result, cut to 32 bits, into *out - also when the conversion fails.  Returns 0 on
 * success; 1 when no digit was read or errno is ERANGE afterwards, and then sets errno
 * to 0.  errno is deliberately not cleared before the conversion: a stale ERANGE makes
 * a valid conversion report 1 (and clears it).  Unchecked: out must be valid.
 */
int32_t ZEPO_StrToInt32(const char *str, int32_t *out);

#ifdef __cplusplus
}
#endif

#endif /* QEL_STRING_H */
