/*
 * qel_memory.h - memory entry points.
 *
 * Every block of the library and of its callers is obtained and released here, naming
 * the caller's source position (line, and a file name that must outlive the block).
 * A process-wide mode chooses what serves the calls: until the tracked allocator is
 * switched on they are a thin layer over the C heap, which is the mode described
 * below.  A block must be released in the mode in which it was obtained.
 *
 * The entry points set no error of their own and print nothing; errno is what the C
 * heap leaves.  Any thread may call them.
 *
 * Memory types: callers inside the library pass 0.  Type 2 asks for a block aligned to
 * 128 bytes with 256 spare bytes.
 */
#ifndef QEL_MEMORY_H
#define QEL_MEMORY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Allocates size bytes of memory type type for the source position (line, file).
 * Returns NULL for size 0 (without any call) or when the heap is exhausted.
 * Type 2 gives ZEPO_MemAlignD(128, size + 256, line, file), the sum taken in 32 bits
 * (a size above 0xFFFFFEFF wraps to a small block); any other type malloc(size).
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

/* calloc(count, size) for the source position (line, file): zeroed block or NULL.
 * A count or size of 0 is not refused: the C heap's answer comes back. */
void *ZEPO_MemCallocD(uint32_t count, uint32_t size, uint32_t line, const char *file);

/*
 * Allocates size bytes aligned to 128 bytes.  The alignment argument is ignored on
 * purpose: the block is aligned to 128 whatever is asked, so a request for 4096
 * gives a block aligned to 128 only.  Size 0 is not refused.  Returns NULL on failure.
 */
void *ZEPO_MemAlignD(uint32_t alignment, uint32_t size, uint32_t line, const char *file);

/* Releases a block of any of the functions above; a null pointer does nothing.  The
 * type and the source position are not used while the C heap serves the calls. */
void ZEPO_MemTypeFreeD(void *ptr, uint32_t type, uint32_t line, const char *file);

/* memcmp(lhs, rhs, length): <0, 0 or >0.  Unchecked. */
int32_t ZEPO_MemCmp(const void *lhs, const void *rhs, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* QEL_MEMORY_H */
