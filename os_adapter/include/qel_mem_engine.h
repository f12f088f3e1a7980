/*
 * qel_mem_engine.h - the tracked allocator behind the memory entry points, and its reports.
 *
 * Applications switch it on with ZEPO_MemInitMemMange and read it through the report
 * wrappers of qel_memory.h; this header is for tools and tests that look inside, and for
 * applications that want the engine's functions themselves.  Every function here is
 * exported and may be called from any thread.  The engine's functions need the
 * bookkeeping of MemInitManage (ZEPO_MemInitMemMange calls it): before it, only the
 * reports may be called.
 *
 * A tracked block.  A request of size bytes with alignment a (4 for ordinary blocks, 128
 * for aligned ones) is rounded up to a multiple of a; its region is page-aligned and
 * holds, from its base:
 *
 *   base                             base + span - rounded           base + span      + 4096
 *   | untouched ... | slot | guard |  user block (rounded bytes)    | guard page (read-only) |
 *                   -8     -4      ^ address handed to the caller
 *
 *   rounded = ((size + a - 1) / a) * a
 *   span    = (rounded + 8) rounded up to a multiple of 4096
 *   length  = span + 4096                        (all three unsigned 32-bit)
 *
 * The block ends exactly on the page boundary, so any write past its rounded size faults
 * at once on the read-only guard page.  The slot word (address - 8) names the block's
 * record; the guard word 0xABBADEED stands at address - 4 (head guard) and again at
 * address + size (tail guard, at whatever alignment that gives, written before the guard
 * page turns read-only, so for most blocks in the guard page itself).  A write over the
 * four bytes after size or before the block is found when the block is checked.  An
 * ordinary block is therefore aligned to 4 only, and for an aligned block the slack
 * between size + 4 and the rounded size is not watched.  Each live block costs at least
 * two pages of address space and two kernel mappings (see the README for the number of
 * live blocks after which the kernel's vm.max_map_count stops guard pages from holding).
 *
 * Records.  A table of 2000000 MemRec slots, a position array of 2000000 slot numbers
 * (entries 0 to count - 1 name the live records; a record's position field is its index
 * there), an error log of the first 600 events, and the counters below.  Release swaps
 * the record's position entry with the last live one, so allocation and release are O(1)
 * and a freed slot is reused by the next allocation.  Counters and the out-of-memory
 * flag are never reset, not even by MemUnInitManage.
 *
 * Locks: the table lock (records, positions, count, high-water mark, user total) before
 * the error-log lock (error log, error count); mprotect is never called under either.
 * Report output functions never run under a lock.  The counters are read without a lock
 * by MemGetMemStats and sysMemGetErrMemLog and may then show a mixed picture.
 */
#ifndef QEL_MEM_ENGINE_H
#define QEL_MEM_ENGINE_H

#include <stdint.h>

#include "qel_memory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Live blocks the record table holds ("Max mem record limit"). */
#define QEL_MEM_MAX_RECORDS 2000000u
/* Events the error log keeps: the first 600; later ones are lost. */
#define QEL_MEM_MAX_ERRORS 600u
/* The page size of the region layout: fixed, never asked of the system. */
#define QEL_MEM_PAGE_SIZE 4096u
/* The guard word, in host byte order. */
#define QEL_MEM_GUARD_WORD 0xABBADEEDu
/* Alignment of ordinary blocks and of aligned blocks (MemAlignMem). */
#define QEL_MEM_ALIGN_ORDINARY 4u
#define QEL_MEM_ALIGN_BLOCK 128u

/*
 * Status codes (names printed by the reports, kept exactly, misspellings included):
 *   0 "Good"      the check passed
 *   1 "Down"      the tail guard was overwritten ("down overflow")
 *   2 "Up"        the head guard was overwritten, the tail guard intact ("up overflow")
 *   3 "Updown"    never given: the check tests the tail guard first and stops there
 *   4 "Nofound"   an address released or reallocated that is not a live tracked block
 *   5 "Fix", 6 "Invaid", 7 "Length", 9 and 10 "Realloc"   never given; kept as vocabulary
 *   8 "NoMem"     the region could not be obtained, or the record table was full
 *   11 "InvaidMem"  MemSelfCheck found a live record whose slot word no longer leads to it
 * Values outside the table print "Unknown".
 */
#define QEL_MEM_STATUS_GOOD 0u
#define QEL_MEM_STATUS_DOWN 1u
#define QEL_MEM_STATUS_UP 2u
#define QEL_MEM_STATUS_UPDOWN 3u
#define QEL_MEM_STATUS_NOFOUND 4u
#define QEL_MEM_STATUS_FIX 5u
#define QEL_MEM_STATUS_INVALID 6u
#define QEL_MEM_STATUS_LENGTH 7u
#define QEL_MEM_STATUS_NOMEM 8u
#define QEL_MEM_STATUS_REALLOC_PARAMS 9u
#define QEL_MEM_STATUS_REALLOC_SEARCH 10u
#define QEL_MEM_STATUS_INVALID_MEM 11u

/* Memory types: 0 "Dyn", 1 "Fixed", 2 "Cache", 3 "Aln", 4 "SD", 5 "IS"; values outside
 * the table print "Unknown" (an allocation failure logs its alignment, 4 or 128, as the
 * type, so it prints "SD" or "Unknown"). */
#define QEL_MEM_TYPE_DYN 0u
#define QEL_MEM_TYPE_FIXED 1u
#define QEL_MEM_TYPE_CACHE 2u
#define QEL_MEM_TYPE_ALN 3u
#define QEL_MEM_TYPE_SD 4u
#define QEL_MEM_TYPE_IS 5u

/*
 * One live block, or one error-log entry; 64 bytes, fields in this order.
 *   base         start of the block's region; NULL while the slot is free.  In an error
 *                entry: the address concerned (NULL for an allocation failure).
 *   roundedSize  the requested size rounded up to the alignment.
 *   size         the size asked for.  In an error entry: the block's size, the size
 *                asked for (allocation failure) or 0 (release of a foreign address).
 *   offset       from base to the address handed to the caller.
 *   thread       ZEPO_PthreadSelf() of the allocating thread (reports print its low 32
 *                bits).
 *   position     the record's index in the position array ("RecID").
 *   status       the status code the last check stored (allocation leaves it as it is:
 *                a reused slot shows the previous block's last status until checked).
 *   type         the memory type.
 *   time         ZEPO_GetSysTimeSec() at allocation.
 *   line         the caller's source line.
 *   file         points into the caller's file-name string, after its last '/' or '\'
 *                (not a copy: pass string literals such as __FILE__).
 * Logging fills base, size, file, line, type and status of an error entry only; the
 * other fields read 0 (the tables are obtained cleared).
 */
typedef struct MemRec {
    void *base;
    uint32_t roundedSize;
    uint32_t size;
    uint32_t offset;
    uint64_t thread;
    uint32_t position;
    uint32_t status;
    uint32_t type;
    uint32_t time;
    uint32_t line;
    const char *file;
} MemRec;

/* ---- The allocator ------------------------------------------------------------------ */

/*
 * Obtains the error log (38400 bytes), the position array (8000000 bytes) and the record
 * table (128000000 bytes), in that order and cleared, from the C heap, then sets up the
 * error-log lock and the table lock.  Returns 0, or 1 when a table cannot be obtained
 * (those already obtained are released).  Counters are not reset.  Called once, by
 * ZEPO_MemInitMemMange; a second direct call would lose the first tables.
 */
uint32_t MemInitManage(void);

/* Releases the three tables and destroys both locks; returns 0.  Live blocks are not
 * touched: their regions stay with the process, their guard pages read-only. */
uint32_t MemUnInitManage(void);

/*
 * An ordinary block (alignment 4) of size bytes of memory type type, charged to (file,
 * line): sysMemAddUserMem(size, 4, file, line, type).  On failure NULL, logged with
 * status 8; the first failure of the process also writes every record into
 * "/data/out_of_memery.txt" (MemRecordMemRecFun; the misspelt name is intended), and no
 * later one does.  Size 0 gives a live block of size 0.
 */
void *MemAllocMem(const char *file, uint32_t line, uint32_t size, uint32_t type);

/* A zeroed ordinary block of count * size bytes (product in 32 bits, unchecked), type 0.
 * count or size not positive (as signed numbers) gives NULL, nothing logged.  No
 * out-of-memory dump. */
void *MemCallocMem(const char *file, uint32_t line, int32_t count, int32_t size);

/* An aligned block (alignment 128, type 3 "Aln") of size bytes.  The alignment argument
 * is ignored on purpose: blocks are aligned to 128 whatever is asked.  No dump. */
void *MemAlignMem(const char *file, uint32_t line, uint32_t alignment, uint32_t size);

/*
 * Moves a block to a new ordinary block of size bytes (type 0):
 *   size 0 and old not NULL: old is released (MemFreeMem) and NULL comes back;
 *   otherwise a new block is made (NULL on failure, old untouched); with old NULL it
 *   comes back as is (so (NULL, 0) gives a live block of size 0);
 *   the smaller of the two sizes is copied (sysMemCopyUserMem) and old is released;
 *   when the copy is refused (old is not a live, undamaged tracked block) the new block
 *   is released again, NULL comes back and old stays live.
 * A release that finds no block logs status 4 with length 0.
 */
void *MemReAllocMem(const char *file, uint32_t line, void *old, uint32_t size);

/*
 * Releases a tracked block (sysMemDeleteUserMem).  An address that is not a live tracked
 * block (NULL, a block of the C heap, a block released already) is logged with status
 * 4, length 0 and (file, line, type), and nothing else happens.  A damaged block is
 * logged with status 1 or 2 and kept (quarantine).  The word at ptr - 8 is read before
 * anything is known about ptr: a foreign pointer must point into readable memory.
 */
void MemFreeMem(const char *file, uint32_t line, void *ptr, uint32_t type);

/*
 * Makes a tracked block: NULL for alignment 0 or when the region length wraps 32 bits
 * (nothing logged); NULL, logged as (address 0, length size, file, line, type field =
 * alignment, status 8), when the region cannot be obtained or 2000000 blocks are live.
 * Otherwise fills a record (the status field is left as the slot holds it), writes slot
 * word and guards, counts the block, and makes the guard page read-only after releasing
 * the table lock.  Returns the block's address.
 */
void *sysMemAddUserMem(uint32_t size, uint32_t alignment, const char *file, uint32_t line,
                       uint32_t type);

/*
 * The integrity check; the caller holds the table lock.  Returns the block's record, or
 * NULL when ptr is not a live tracked block: a NULL ptr, a slot word above 1999999, a
 * free slot, an address that is not the record's block, a record beyond the live count.
 * For a block found, stores its status in the record: 1 when the tail guard is not
 * intact, else 2 when the head guard is not, else 0 (so never 3).  The slot word at
 * ptr - 8 is read first: ptr must point into readable memory.
 */
MemRec *sysMemCheckUserAddr(void *ptr);

/*
 * Releases a block: 0 when it was released (guard page made writable again after the
 * lock, region freed); 1 or 2 when it was damaged: logged, taken off the live records
 * and kept - neither freed nor unprotected - for inspection; 4 when ptr is not a live
 * tracked block (not logged here).
 */
uint32_t sysMemDeleteUserMem(void *ptr);

/* Under the table lock checks destination, then source; both live and undamaged: copies
 * the smaller of their sizes from source to destination and returns 0; otherwise 1. */
uint32_t sysMemCopyUserMem(void *destination, void *source);

/* Appends an entry (base = address, size = length, file, line, type, status) to the
 * error log while it holds fewer than 600; a full log drops it silently. */
void sysMemLogMemErr(void *address, uint32_t length, const char *file, uint32_t line, uint32_t type,
                     uint32_t status);

/* posix_memalign(alignment, size): the block, or NULL on failure. */
void *sysMemAlignAlloc(uint32_t alignment, uint32_t size);

/* mprotect(address, 4096, PROT_READ) and mprotect(address, 4096, PROT_READ | PROT_WRITE):
 * 0 or -1 with errno.  The allocator ignores both results: a guard page that cannot be
 * protected (the kernel's mapping limit reached) simply does not hold. */
int32_t sysMemProtect(void *address);
int32_t sysMemUnProtect(void *address);

/* ---- Reports --------------------------------------------------------------------------
 *
 * Texts (C escapes; CR LF and LF CR kept as they are, with their spacing and spelling):
 *
 * statistics   "Current mem record cnt: %u\n\rMax mem record cnt: %u\n\r"
 *              "Max mem record limit : %u\n\rUser malloc mem:   %u (Bytes)\n\r"
 *              (live blocks, high-water mark, 2000000, bytes held: sum of rounded sizes)
 * header       "\r\nRecID    Address       Length     Line File"
 *              "                            Type   Status     Thread\r\n"
 * line         "%-7u  %-13p %-10u %-5u %s    %-9s %u\r\n"
 *              (RecID, address, size, line, TYPE name, status name, low 32 bits of the
 *              thread: under the header's File column stands the memory type's name, and
 *              the source file is not printed - kept so for the tools that read it)
 * listing end  "\r\nTotal malloc mem: %u\r\nThis User malloc mem : %u (bytes)\r\n"
 *              (number of records listed, sum of their rounded sizes)
 * scan end     "\n\rCurrent mem exception record cnt:       %u\n\rError info ID "
 *              "introduction:\n\r1: down overflow 2: up overflow 3: down/up overflow 4: "
 *              "release mem addr not from malloc 5: release local mem addr\n\r6: release "
 *              "err mem of mem space 7: malloc erro size mem 8: malloc mem fail\n\r9: "
 *              "realloc err params\t  10: search ReAlloc old buffer fail\n\r"
 *              (damaged live blocks plus error-log entries)
 * dump heads   "\r\n-------MemInfo %u----\r\n" (live blocks) and
 *              "\r\n-------ErrMem %u----\r\n" (error-log entries), each followed by the
 *              header and one line per record
 * monitor      "Save to %s" with "/data/mem_rec.txt"
 *
 * Listings and scans copy the records they need in one pass under the lock and format
 * the copies after releasing it, 24 records (each chunk with the header) to a call of
 * the output function.  A line that does not fit into the rest of a buffer is dropped,
 * not cut.  Error-log entries print 0 for the fields that logging leaves unwritten
 * (RecID, thread), their address as given (so "(nil)" for an allocation failure), and
 * an allocation failure's alignment through the type names.  Listings print the status
 * each record last stored: no check runs for them.  A NULL output function is refused:
 * 4294967295 (-1) and nothing else happens.  Record arrays that the functions below
 * hand out come from the C heap: release them with free().
 */

/* Formats the statistics text into a 256-byte buffer (255 used) without any lock and
 * calls output once.  Returns 0. */
uint32_t MemGetMemStats(ZEPO_MEM_OUTPUT_FUNC output);

/*
 * Lists live blocks: mode 0 all of them, mode 1 those whose file name contains filter,
 * case ignored (all of them for a NULL or empty filter), any other mode none; key 0
 * sorts by address, 1 by requested size (equal keys in no defined order), any other
 * key keeps position order.  Calls output once per 24 records, then once with the
 * listing end.  An empty list gives the listing end only, with 0 and 0.  Returns 0, also
 * when the 10240-byte text buffer cannot be obtained (then nothing is output).
 */
uint32_t MemGetMemRec(int32_t mode, uint32_t key, const char *filter, ZEPO_MEM_OUTPUT_FUNC output);

/*
 * Checks every live block (refreshing its status) and lists the damaged ones (at most
 * 600), then lists the error log, each 24 records to a call with the header, then
 * outputs the scan end with the sum of both counts.  A released damaged block shows
 * from the error log only.  Returns 0, or 1 (nothing output) when the text buffer cannot
 * be obtained.
 */
uint32_t MemGetMemScan(ZEPO_MEM_OUTPUT_FUNC output);

/* MemSelfCheck, then MemRecordMemRecFun("/data/mem_rec.txt"), then outputs "Save to
 * /data/mem_rec.txt" - whether or not the file could be written.  Returns 0. */
uint32_t MemGetMemoryUseMonitor(ZEPO_MEM_OUTPUT_FUNC output);

/* Under the table lock, checks every live block: each gets the status the check stores
 * (0, 1 or 2), or 11 ("InvaidMem") when its slot word no longer leads back to it.
 * Returns the result of releasing the lock (0). */
uint32_t MemSelfCheck(void);

/*
 * Writes every record into path: removes the file, opens it "a+" (a missing folder or
 * any other failure skips the dump silently), writes the MemInfo head with the live
 * count, the header and one line per live block in position order under the table lock,
 * then - after releasing it - the ErrMem head, the header and one line per error-log
 * entry under the error-log lock.  Lines are written as they are formatted, under the
 * locks, so the file is one consistent picture.  No check runs.
 */
void MemRecordMemRecFun(const char *path);

/* Empties buffer and appends the header when header is not 0, then one line for each
 * of the n records (capacity as for sysMemLogStringCat).  Returns the characters
 * appended; 0 for a NULL buffer. */
uint32_t sysMemPrintMemInfo(uint32_t header, char *buffer, uint32_t capacity, const MemRec *records,
                            uint32_t n);

/* Appends a formatted piece to the NUL-terminated text in buffer, using at most capacity
 * - 1 bytes in all (the last byte of the capacity is never used).  Returns the characters
 * appended, or 0 when the text already fills the capacity, the piece does not fit (it is
 * dropped whole) or the format is refused (vsprintf_s). */
uint32_t sysMemLogStringCat(char *buffer, uint32_t capacity, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/*
 * Copies the live records into a new array stored in *list (release with free()):
 * sorted by address (key 0), by requested size (key 1) or in position order, and with a
 * non-empty filter only those whose file name contains it, case ignored.  Returns the
 * number copied; 0 with *list NULL when none is live, none matches or memory is short.
 */
uint32_t sysMemSortMemInfo(MemRec **list, const char *filter, int32_t key);

/* qsort comparators over slot numbers: by record address (unsigned 64-bit) and by
 * requested size (unsigned 32-bit).  They return -1 when the first is smaller and 1
 * otherwise, never 0, so equal keys end in whatever order qsort makes of them. */
int sysMemSortByAddr(const void *a, const void *b);
int sysMemSortBySize(const void *a, const void *b);

/* The first place in haystack where needle occurs, letters compared through
 * ZEPO_CharToUpper; haystack itself for an empty needle; NULL when either is NULL, the
 * needle is longer or there is no match. */
char *sysMemStrcasestr(const char *haystack, const char *needle);

/* Checks every live block in position order and copies the damaged ones (status not 0
 * after the check, at most 600) into a new array stored in *list (release with free()).
 * Returns the number; 0 with *list NULL when there is none or memory is short. */
uint32_t sysMemScanErrMemInfo(MemRec **list);

/* Copies the error log into a new array stored in *list (release with free()).  Returns
 * the number of entries; 0 with *list NULL when the log is empty or memory is short. */
uint32_t sysMemGetErrMemLog(MemRec **list);

#ifdef __cplusplus
}
#endif

#endif /* QEL_MEM_ENGINE_H */
