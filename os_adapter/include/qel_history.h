/*
 * qel_history.h - the ring of the 512 most recent operations, for post-mortem dumps.
 *
 * Callers fill an operation record (a timer creation or deletion, by the kinds below)
 * and add it; the ring keeps the last 512 and can be written out as a text table.  The
 * library keeps the ring and formats it but never adds records itself.  The ring is the
 * exported global s_stOperateHistory, so its layout below is part of the interface; it
 * is all zero at load (no code runs to set it up).
 *
 * Thread safety: no lock is taken.  Two threads adding at once may write the same slot
 * or lose a step of the index, and a dump running beside an add may show a record half
 * written.  Callers that need an exact history serialise their adds themselves.
 */
#ifndef QEL_HISTORY_H
#define QEL_HISTORY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Slots of the ring. */
#define ZEPO_OPERATE_HISTORY_SLOTS 512

/* Record kinds (OperateRec.ulOperate) and the text the dump prints for them. */
#define ZEPO_OPERATE_NONE 0u         /* "None": an empty slot, never printed */
#define ZEPO_OPERATE_CREATE_TIMER 1u /* "CreateTm" */
#define ZEPO_OPERATE_DELETE_TIMER 2u /* "DeleteTm" */
/* Any other kind is printed as "undefined". */

/* One operation, 64 bytes, copied into the ring as a whole.  Byte offsets: ulOperate 0,
 * ulTime 4, ulTid 8, szTName 12, ulParam1 48, ulParam2 56.  ulTime and ulTid are
 * signed despite their prefix. */
typedef struct OperateRec {
    uint32_t ulOperate; /* record kind, see above */
    int32_t ulTime;     /* time stamp in hundredths of a second */
    int32_t ulTid;      /* thread id of the actor */
    char szTName[36];   /* the actor's thread name, NUL-terminated within the field */
    uint64_t ulParam1;  /* first parameter, e.g. a timer handle; low 32 bits printed */
    uint64_t ulParam2;  /* second parameter; low 32 bits printed */
} OperateRec;

/* The ring: 512 records, then the write index (32768 bytes in), then the compiler's
 * padding to the records' 8-byte alignment (32776 bytes in all).  The index is 0 before
 * the first add, counts 1 to 512 as the ring fills and, once the ring has wrapped,
 * stays in 1 to 512: after an add to the last slot it is 512, never 0. */
typedef struct OperateHistory {
    OperateRec astRec[ZEPO_OPERATE_HISTORY_SLOTS];
    int32_t lIndex;
} OperateHistory;

/* The ring itself, exported.  Callers may read it; whoever writes it directly keeps
 * lIndex within 0 to 512 (see ZEPO_AddOperateRec and ZEPO_DumpOperateHistory for what
 * an index outside that range does). */
extern OperateHistory s_stOperateHistory;

/* Sets all of s_stOperateHistory, records and index, to zero bytes.  Returns 0, always. */
int32_t ZEPO_InitOperateHistory(void);

/*
 * Copies the 64-byte record into the slot the index names and advances the index:
 * an index i of 0 to 511 stores into slot i and makes the index i + 1; any other index
 * (512 once the ring is full, or a value no add makes) stores into slot 0 and makes it 1.
 * So the index runs 1 to 512 once the ring has wrapped, not 0 to 511, which is what the
 * dump's walk expects.
 *
 * record is not checked: a null record clears the slot to zero bytes (the copy's answer
 * to a null source), which leaves an empty record that the dump skips, and the index
 * advances as for any add.  The copy's status is not tested and nothing is printed.
 */
void ZEPO_AddOperateRec(const OperateRec *record);

/*
 * Writes the ring into buffer as a text table of at most size - 1 characters and a
 * terminating NUL.  All size bytes are set to zero first, so whatever the text leaves
 * over stays zero.  The text is the header
 *
 *   "iTrove Operate History: \n"
 *   "            Time     Operate     Param1     Param2   Tid TName\n"
 *
 * (formatted as "  %#14s  %#10s %#10s %#10s %#5s %s\n"; the '#' on %s does nothing),
 * then one line per non-empty slot, newest first, formatted as
 *
 *   "  %04d:%02d:%02d(%03d) %#10s 0x%08x 0x%08x %5d %s\n"
 *
 * with hours, minutes, seconds, milliseconds, the kind's text right-aligned ("CreateTm",
 * "DeleteTm" or "undefined"), the low 32 bits of ulParam1 and of ulParam2, ulTid and
 * szTName.  The time comes from ulTime = t with C's signed division, which truncates
 * towards zero: hours t / 360000 (not reduced modulo 24), minutes (t / 100 % 3600) / 60,
 * seconds (t / 100 % 3600) % 60, milliseconds (t % 100) * 10; a negative t therefore
 * prints negative fields, such as "  0000:00:00(-10)" for t = -1.  Slots of kind 0 are
 * skipped.
 *
 * The walk: with w the index read as unsigned, slot k % 512 is visited for k = w + 511
 * down to w (k signed), 512 slots from the newest record to the oldest.  A remainder
 * below zero, which only an index no add makes can produce, is taken 512 higher, so the
 * walk never leaves the ring.
 *
 * Truncation: a buffer too small for the header holds the header's first size - 1
 * characters and nothing else.  Otherwise lines are appended while they fit; the first
 * line that does not fit is kept truncated to the space left, and nothing follows it.
 * A buffer filled exactly by a line (or by the header) ends there.
 *
 * buffer is not checked: a null buffer, a size of 0 or a size above 0x7FFFFFFF makes
 * the bounds-checked fill and format refuse, so nothing is written.  Nothing is printed.
 */
void ZEPO_DumpOperateHistory(char *buffer, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* QEL_HISTORY_H */
