/*
 * qel_memory.h - memory entry points and the switch of the tracked allocator.
 *
 * Every block of the library and of its callers is obtained and released here, naming
 * the caller's source position (line, and a file name that must outlive the block: pass
 * __LINE__ and __FILE__).  A process-wide mode chooses what serves the calls:
 *
 *   plain mode (initial)  a thin layer over the C heap, as each function below says;
 *   tracked mode          after ZEPO_MemInitMemMange: every block is charged to its
 *                         source position, fenced by guard words and a read-only guard
 *                         page, checked at release and shown by the reports below; the
 *                         engine and its exact behaviour are in qel_mem_engine.h.
 *
 * A block must be released in the mode in which it was obtained: the entry points do not
 * tell the two kinds apart.  Switch the tracked mode on first, before other threads
 * allocate, and off last, after they have stopped; switching while other threads
 * allocate is not supported.  The mode is read without a lock.
 *
 * The entry points set no error of their own and print nothing; errno is what the C
 * heap leaves.  Any thread may call them.
 *
 * Memory types (names used by the reports): 0 "Dyn" (callers inside the library always
 * pass 0), 1 "Fixed", 2 "Cache", 3 "Aln" (aligned blocks of the tracked mode), 4 "SD",
 * 5 "IS".  In the plain mode type 2 asks for a block aligned to 128 bytes with 256 spare
 * bytes; the other types only label the block in the tracked mode.
 */
#ifndef QEL_MEMORY_H
#define QEL_MEMORY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Allocates size bytes of memory type type for the source position (line, file).
 * Returns NULL for size 0 (without any call, in both modes) or when no memory is left.
 * Plain mode: type 2 gives ZEPO_MemAlignD(128, size + 256, line, file), the sum taken in
 * 32 bits (a size above 0xFFFFFEFF wraps to a small block); any other type malloc(size).
 * Tracked mode: MemAllocMem(file, line, size, type), a block aligned to 4 only whose end
 * touches its guard page; the first failure also writes "/data/out_of_memery.txt".
 */
void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line, const char *file);

/*
 * As ZEPO_MemTypeMallocD, then fills size bytes of the block with the low byte of fill
 * (0x1FF fills with 0xFF bytes; the 256 spare bytes of type 2 are not filled).  The
 * fill's result is not tested: a block of more than 0x7FFFFFFF bytes comes back
 * unfilled.  Returns NULL for size 0 or a failed allocation.
 */
void *ZEPO_MemTypeMallocS(uint32_t size, int32_t fill, uint32_t type, uint32_t line,
                          const char *file);

/*
 * A zeroed block of count * size bytes for the source position (line, file), or NULL.
 * Plain mode: calloc(count, size); a count or size of 0 is not refused, the C heap's
 * answer comes back.  Tracked mode: MemCallocMem, which takes both as signed 32-bit
 * numbers: a count or size of 0 or above 2147483647 gives NULL, and the product is taken
 * in 32 bits without an overflow test.
 */
void *ZEPO_MemCallocD(uint32_t count, uint32_t size, uint32_t line, const char *file);

/*
 * Allocates size bytes aligned to 128 bytes.  The alignment argument is ignored on
 * purpose, in both modes: the block is aligned to 128 whatever is asked, so a request
 * for 4096 gives a block aligned to 128 only.  Size 0 is not refused.  Returns NULL on
 * failure.  Tracked mode: MemAlignMem, memory type 3 ("Aln").
 */
void *ZEPO_MemAlignD(uint32_t alignment, uint32_t size, uint32_t line, const char *file);

/* Releases a block of any of the functions above; a null pointer does nothing.  The
 * type and the source position are not used in the plain mode.  In the tracked mode an
 * address that is not a live tracked block (a block of the C heap, a block released
 * already) is logged with status 4 and left alone, and a damaged block is logged and kept
 * (see MemFreeMem). */
void ZEPO_MemTypeFreeD(void *ptr, uint32_t type, uint32_t line, const char *file);

/* memcmp(lhs, rhs, length): <0, 0 or >0.  Unchecked. */
int32_t ZEPO_MemCmp(const void *lhs, const void *rhs, uint32_t length);

/*
 * Convenience forms: memory type 0 and the caller's own source position (__LINE__ and
 * __FILE__, a string literal that outlives every block, as the tracked mode needs).
 *   QEL_MEM_ALLOC(size)         ZEPO_MemTypeMallocD(size, 0, __LINE__, __FILE__)
 *   QEL_MEM_ZALLOC(size)        ZEPO_MemTypeMallocS(size, 0, 0, __LINE__, __FILE__): zeroed
 *   QEL_MEM_CALLOC(count, size) ZEPO_MemCallocD(count, size, __LINE__, __FILE__)
 *   QEL_MEM_ALIGNED(size)       ZEPO_MemAlignD(128, size, __LINE__, __FILE__)
 *   QEL_MEM_FREE(ptr)           ZEPO_MemTypeFreeD(ptr, 0, __LINE__, __FILE__)
 * Each argument is evaluated once.
 */
#define QEL_MEM_ALLOC(size) ZEPO_MemTypeMallocD((size), 0u, __LINE__, __FILE__)
#define QEL_MEM_ZALLOC(size) ZEPO_MemTypeMallocS((size), 0, 0u, __LINE__, __FILE__)
#define QEL_MEM_CALLOC(count, size) ZEPO_MemCallocD((count), (size), __LINE__, __FILE__)
#define QEL_MEM_ALIGNED(size) ZEPO_MemAlignD(128u, (size), __LINE__, __FILE__)
#define QEL_MEM_FREE(ptr) ZEPO_MemTypeFreeD((ptr), 0u, __LINE__, __FILE__)

/* ---- The tracked mode ---------------------------------------------------------------- */

/*
 * Receives the text of a report: text is NUL-terminated, owned by the report and valid
 * only during the call; length is the number of characters the report appended to it
 * for this call.  It runs on the thread that asked for the report, with no lock of the
 * allocator held, so it may allocate and release.
 */
typedef void (*ZEPO_MEM_OUTPUT_FUNC)(const char *text, uint32_t length);

/*
 * Switches the tracked mode on: MemInitManage sets up about 136 MB of bookkeeping
 * (128000000 bytes of records for 2000000 live blocks, 8000000 bytes of positions,
 * 38400 bytes of error log, from the C heap) and the mode changes when it succeeds.
 * Returns 0 when the tracked mode is on (also when it was on already: a second call
 * does nothing), 1 when the bookkeeping could not be obtained (the plain mode stays,
 * nothing is kept).  Counters, the error log's count and the out-of-memory dump are
 * never reset: the tracked mode is meant to be switched on once per process.
 */
uint32_t ZEPO_MemInitMemMange(void);

/*
 * Switches the tracked mode off: MemUnInitManage releases the bookkeeping and the plain
 * mode serves the next calls.  Blocks still live stay with the process (their guard
 * pages stay read-only) and must not be released afterwards.  Does nothing in the plain
 * mode.  Returns 0.
 */
uint32_t ZEPO_MemUnInitMemMange(void);

/*
 * The four reports (qel_mem_engine.h describes each text exactly).  In the plain mode
 * each returns 1 and calls nothing; in the tracked mode each forwards and returns the
 * report's result: 0, or 4294967295 (-1) for a null output function, which is refused.
 *
 *   ZEPO_MemGetMemStatus         MemGetMemStats: live blocks, their high-water mark, the
 *                                limit and the bytes held, in one call of output.
 *   ZEPO_MemGetMemRec            MemGetMemRec: the live blocks (mode 0 all, mode 1 those
 *                                whose source file name contains filter, case ignored;
 *                                key 0 by address, 1 by size), 24 to a call, then a
 *                                summary.
 *   ZEPO_MemGetMemScan           MemGetMemScan: damaged live blocks and the error log,
 *                                then a summary with their number.
 *   ZEPO_MemGetMemoryUseMonitor  MemGetMemoryUseMonitor: self-check, dump of every record
 *                                into "/data/mem_rec.txt", then "Save to /data/mem_rec.txt".
 */
uint32_t ZEPO_MemGetMemStatus(ZEPO_MEM_OUTPUT_FUNC output);
uint32_t ZEPO_MemGetMemRec(int32_t mode, uint32_t key, const char *filter,
                           ZEPO_MEM_OUTPUT_FUNC output);
uint32_t ZEPO_MemGetMemScan(ZEPO_MEM_OUTPUT_FUNC output);
uint32_t ZEPO_MemGetMemoryUseMonitor(ZEPO_MEM_OUTPUT_FUNC output);

#ifdef __cplusplus
}
#endif

#endif /* QEL_MEMORY_H */
