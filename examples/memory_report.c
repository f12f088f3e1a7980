/*
 * memory_report.c - the tracked allocator in one short tour: switch it on, allocate for
 * two "modules", overrun one block by a byte, release everything, and read the reports.
 *
 * Build and run: bash scripts/run-example.sh
 *
 * Things to know before reading on:
 * - Switch the tracked mode on first, before other threads allocate; a block must be
 *   released in the mode in which it was obtained.  It costs about 136 MB of bookkeeping
 *   and two pages of address space per live block: a debugging mode.
 * - Every block is charged to the source file and line its caller names.  The file name
 *   is kept as a pointer, not copied: pass string literals (__FILE__ does).
 * - A block ends exactly on a read-only guard page, so a write past its rounded size
 *   faults at once.  A small overrun inside the rounding (here 1 byte past a 10-byte
 *   block, rounded to 12) hits the guard word behind the block instead: it is found when
 *   the block is released or scanned, and the block is then kept, never reused.
 * - Reports are handed to an output function, a chunk of text at a time.
 *
 * The program prints the reports and exits with 1 when they do not show what it did.
 */
#include <stdio.h>
#include <string.h>

#include "qel_os_adapter.h"

/* The output function of every report: prints each chunk as it comes. */
static void print_report(const char *text, uint32_t length) { fwrite(text, 1, length, stdout); }

/* Counts the lines of a listing chunk that name a damaged block. */
static unsigned damaged_lines;
static void count_damaged(const char *text, uint32_t length) {
    const char *at = text;
    (void)length;
    while ((at = strstr(at, "Down")) != NULL) {
        ++damaged_lines;
        at += 4;
    }
    print_report(text, length);
}

/* Two "modules": each allocates in its own name, as a source file of its own would. */
static const char *const kNetModule = "net/tmr_link.c";
static const char *const kStoreModule = "db/store.c";

int main(void) {
    if (ZEPO_MemInitMemMange() != 0) {
        printf("the tracked mode could not be switched on (about 136 MB needed)\n");
        return 1;
    }

    /* The net module keeps three buffers, the store module two records. */
    char *packets[3];
    for (int i = 0; i < 3; ++i)
        packets[i] = ZEPO_MemTypeMallocD(100u * (uint32_t)(i + 1), 0, __LINE__, kNetModule);
    char *records[2];
    records[0] = ZEPO_MemTypeMallocS(10, 0, 1, __LINE__, kStoreModule);
    records[1] = ZEPO_MemAlignD(128, 256, __LINE__, kStoreModule);

    printf("== the net module's blocks, smallest first (mode 1, key 1, filter \"TMR\")");
    ZEPO_MemGetMemRec(1, 1, "TMR", print_report);

    /* One byte too many into the 10-byte record: the guard word behind it breaks. */
    memset(records[0], 'x', 11);

    printf("\n== the scan while the damaged block is still live");
    ZEPO_MemGetMemScan(count_damaged);
    const unsigned damaged_live = damaged_lines;

    for (int i = 0; i < 3; ++i) ZEPO_MemTypeFreeD(packets[i], 0, __LINE__, __FILE__);
    for (int i = 0; i < 2; ++i) ZEPO_MemTypeFreeD(records[i], 0, __LINE__, __FILE__);

    printf("\n== after every release: the damaged block shows from the error log");
    damaged_lines = 0;
    ZEPO_MemGetMemScan(count_damaged);
    const unsigned damaged_logged = damaged_lines;

    printf("\n== statistics\n");
    ZEPO_MemGetMemStatus(print_report);

    if (damaged_live != 1 || damaged_logged != 1) {
        printf("expected the overrun once in each scan, got %u and %u\n", damaged_live,
               damaged_logged);
        return 1;
    }
    printf("\nmemory_report: the overrun was found, the damaged block kept in quarantine\n");
    return 0;
}
