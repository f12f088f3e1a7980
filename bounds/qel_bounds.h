/*
 * qel_bounds.h - bounds-checked memory, string, format and scan functions.
 *
 * Every function takes the size of its destination beside the usual arguments and
 * returns a status (or, for the format and scan functions, a count or -1).  None of
 * them reads or sets errno (float scanning calls strtod, which may).
 *
 * Both limits, the largest string size and the largest memory size, are
 * QEL_SECUREC_MAX (0x7fffffff) inclusive: a destination size of 0x7fffffff is
 * accepted and 0x80000000 refused.
 *
 * Status values:
 *   EOK                 0    success
 *   EINVAL              22   bad argument, destination could not be reset
 *   ERANGE              34   bad destination size, destination not touched
 *   EINVAL_AND_RESET    150  bad argument, destination was reset
 *   ERANGE_AND_RESET    162  does not fit, destination was reset
 *   EOVERLAP_AND_RESET  182  source and destination overlap, destination was reset
 *
 * The printf-style prototypes deliberately carry no format attribute: callers use
 * formats such as "%#14s" that gcc's -Wformat would reject under -Werror.
 */
#ifndef QEL_BOUNDS_H
#define QEL_BOUNDS_H

#include <stdarg.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int errno_t;

#ifndef EOK
#define EOK 0
#endif
#ifndef EINVAL
#define EINVAL 22
#endif
#ifndef ERANGE
#define ERANGE 34
#endif
#ifndef EINVAL_AND_RESET
#define EINVAL_AND_RESET (22 | 128)
#endif
#ifndef ERANGE_AND_RESET
#define ERANGE_AND_RESET (34 | 128)
#endif
#ifndef EOVERLAP_AND_RESET
#define EOVERLAP_AND_RESET (54 | 128)
#endif

/* Largest accepted destination size of the string and memory functions. */
#define QEL_SECUREC_MAX 0x7fffffffUL

/*
 * Copies count bytes from src to dest.
 * Checks, first match decides: destMax 0 or above the limit -> ERANGE (dest untouched);
 * dest NULL -> EINVAL; src NULL (even with count 0) -> EINVAL_AND_RESET; count > destMax
 * -> ERANGE_AND_RESET; overlapping regions -> EOVERLAP_AND_RESET (the three reset cases
 * zero all destMax bytes); count 0 or dest == src -> EOK with nothing written.
 * Touching regions are not an overlap.  memcpy_s(p, 0, q, 0) is ERANGE.
 */
errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);

/*
 * Fills count bytes of dest with (unsigned char)c.
 * destMax 0 or above the limit -> ERANGE (untouched; but destMax 0 with count 0 and a
 * non-NULL dest is EOK); dest NULL -> EINVAL; count > destMax -> ERANGE_AND_RESET with
 * all destMax bytes filled with c.
 */
errno_t memset_s(void *dest, size_t destMax, int c, size_t count);

/*
 * Copies at most count characters of strSrc and a terminator.
 * destMax 0 or above the limit -> ERANGE; strDest NULL -> EINVAL; strSrc NULL ->
 * EINVAL_AND_RESET; count above the limit -> ERANGE_AND_RESET; count 0 -> EOK with an
 * empty string; with count >= destMax a source of destMax characters or more ->
 * ERANGE_AND_RESET; overlap -> EOVERLAP_AND_RESET.  Every reset sets only byte 0.
 * With count < destMax a longer source is cut to count characters (EOK).
 */
errno_t strncpy_s(char *strDest, size_t destMax, const char *strSrc, size_t count);

/*
 * Appends strSrc to the string in strDest.
 * destMax 0 or above the limit -> ERANGE; strDest NULL -> EINVAL; strSrc NULL ->
 * EINVAL_AND_RESET; overlap -> EOVERLAP_AND_RESET (EINVAL_AND_RESET for an unterminated
 * dest with the source beyond it); no room, or strDest == strSrc -> ERANGE_AND_RESET
 * (EINVAL_AND_RESET for an unterminated dest).  Every reset sets only byte 0.
 */
errno_t strcat_s(char *strDest, size_t destMax, const char *strSrc);

/*
 * As strcat_s, appending at most count characters; count above the limit ->
 * ERANGE_AND_RESET after the NULL checks.  count 0 appends nothing (EOK).
 */
errno_t strncat_s(char *strDest, size_t destMax, const char *strSrc, size_t count);

/*
 * Formats into strDest of destMax bytes (terminator included).
 * Returns the length of the output, or -1 when: format or strDest is NULL, destMax is 0
 * or above the limit (dest untouched, except byte 0 set when only format is NULL); the
 * output does not fit (byte 0 set to NUL, the rest as filled); the format is invalid
 * (%n, positional arguments, unknown conversions, ...; byte 0 set to NUL).
 */
int sprintf_s(char *strDest, size_t destMax, const char *format, ...);
int vsprintf_s(char *strDest, size_t destMax, const char *format, va_list argList);

/*
 * Formats at most count characters into strDest of destMax bytes.
 * Refused (-1) as sprintf_s, and also for count above 0x7ffffffe.  With count < destMax
 * an output longer than count is truncated to count characters, terminated, and -1 is
 * returned; with count >= destMax it behaves exactly as vsprintf_s.
 */
int snprintf_s(char *strDest, size_t destMax, size_t count, const char *format, ...);
int vsnprintf_s(char *strDest, size_t destMax, size_t count, const char *format, va_list argList);

/*
 * Scans buffer under format.  Every non-suppressed %c, %s and %[ takes two arguments:
 * the destination and its size in characters (read as size_t, low 32 bits used; for %s
 * and %[ the size includes the terminator).  Returns the number of stored conversions,
 * or -1 for NULL arguments, empty input, input exhausted before any conversion, a format
 * error or a NULL destination.  A string that does not fit sets the destination's first
 * byte to NUL and stops the scan.
 */
int sscanf_s(const char *buffer, const char *format, ...);
int vsscanf_s(const char *buffer, const char *format, va_list argList);

/*
 * Splits a string into tokens, re-entrantly.  Returns the next token or NULL.
 * context NULL or strDelimit NULL -> NULL with nothing written; strToken NULL with
 * *context NULL -> NULL.  One delimiter is overwritten with NUL per call; once the
 * string is exhausted *context rests on its terminator.
 */
char *strtok_s(char *strToken, const char *strDelimit, char **context);

#ifdef __cplusplus
}
#endif

#endif /* QEL_BOUNDS_H */
