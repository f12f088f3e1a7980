/*
 * qel_frame.h - last error, error text and printing.
 *
 * Conventions shared by every wrapper of the library:
 *  - Text arguments (paths, names, modes) are refused when null or empty; pointer
 *    arguments when null; integers are never range-checked.
 *  - A refused call calls no service, leaves errno as it was (a refusal does not set
 *    EINVAL: ZEPO_GetLastErr then reports a stale value) and returns the family's
 *    refusal value: -1 for 32-bit statuses and counts, NULL for pointers, 0 for the
 *    byte counts of ZEPO_Fread, ZEPO_Fwrite, ZEPO_Sendto and ZEPO_Recvfrom, and
 *    4294967295 (low 32 bits all ones, NOT -1) for the 64-bit results of
 *    ZEPO_TellDir, ZEPO_Ftell, ZEPO_Read, ZEPO_Write, ZEPO_Send and ZEPO_Recv.
 *  - An accepted call makes one service call and returns its result and errno
 *    unchanged; no call is retried on EINTR.
 *  - Functions whose documentation says their checked copies or formats are traced
 *    print, when one fails, the failure trace
 *    "Operate fail[<status>]: File: <source path> Line: <line> \n" to standard output
 *    through ZEPO_Printf, and carry on unless their documentation says otherwise.
 *    Other checked calls are not traced.
 *
 * All functions here are safe to call from any thread.
 */
#ifndef QEL_FRAME_H
#define QEL_FRAME_H

#include <stdint.h>
#include <stdio.h>

/*
 * The refusal value of the 64-bit results of ZEPO_TellDir, ZEPO_Ftell, ZEPO_Read,
 * ZEPO_Write, ZEPO_Send and ZEPO_Recv: 4294967295, which is positive - a test "< 0"
 * misses it.  Compare with this name:  if (n == QEL_REFUSED64 || n < 0) ...
 */
#define QEL_REFUSED64 ((int64_t)0xFFFFFFFFu)

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the calling thread's errno as an unsigned 32-bit value. */
uint32_t ZEPO_GetLastErr(void);

/* Stores err into the calling thread's errno; other threads do not see it. */
void ZEPO_SetLastErr(int32_t err);

/* Returns the calling thread's errno: there is no separate socket error, so this is
 * identical to ZEPO_GetLastErr. */
uint32_t ZEPO_GetLastSocketErr(void);

/*
 * Writes the text of error number errnum into buf (buflen bytes, terminator included)
 * with the XSI strerror_r.  Note the argument order (buffer, length, number), which is
 * not that of strerror_r.  Returns 0 on success, EINVAL (22) for an unknown number, or
 * ERANGE (34) when the buffer is too short, in which case buf holds the truncated,
 * terminated text.  Nothing is checked: a null buffer goes to strerror_r as it is, which
 * gives ERANGE for length 0 and faults for any other length.
 */
int32_t ZEPO_StrError_S(char *buf, uint32_t buflen, uint32_t errnum);

/*
 * Formats to standard output with the C library's fortified formatter (check level 1),
 * without an intermediate buffer.  Returns the number of characters written or a
 * negative value on an output error; -1 for a null format.  An empty format is
 * printed (nothing appears) and gives 0 - unlike ZEPO_Fprintf, which refuses it.
 * The formatter's checks apply: a %n in a format held in writable memory ends the
 * process ("*** %n in writable segment detected ***").
 * No format attribute is attached on purpose.
 */
int32_t ZEPO_Printf(const char *format, ...);

/*
 * Formats to stream with the fortified formatter.  Returns the number of characters
 * written or a negative value; -1 without writing anything when stream is null or
 * format is null or empty.  As for ZEPO_Printf, a %n in a format held in writable
 * memory ends the process.
 */
int32_t ZEPO_Fprintf(FILE *stream, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif /* QEL_FRAME_H */
