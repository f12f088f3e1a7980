/*
 * qel_stats.h - system statistics: processor busy rates, memory figures, processes and
 * their threads, read from the Linux process file system (/proc).
 *
 * Results.  Every function returns a small unsigned code instead of -1 and errno:
 *   0  success;
 *   1  nothing to report, or no memory;
 *   2  a file of /proc could not be opened or read, or did not hold what was looked for
 *      (for ZEPO_OS_GetProcThread also: the process was not found);
 *   3  a bad argument (or, in ZEPO_OS_GetProcThread, a path that could not be
 *      formatted).
 * On any other result than 0 the outputs hold the zeros (and the null list) stored once
 * the arguments were accepted; a refused call (3 for a bad argument) touches none.
 *
 * Reading.  Every file is opened with "rb" and read with one read of at most 512 bytes:
 * a /proc/stat or /proc/meminfo whose wanted line lies beyond its first 512 bytes gives 2.
 * The files and folders are reached through ZEPO_Fopen, ZEPO_OpenDir, ZEPO_ReadDir_S and
 * ZEPO_ScanDir, and the one-second pause through ZEPO_Sleep.
 *
 * Arrays.  The lists handed back are obtained through ZEPO_MemTypeMallocD (memory type 0,
 * charged to the library's source) and belong to the caller, who releases each with
 * ZEPO_MemTypeFreeD(list, 0, __LINE__, __FILE__) in the memory mode in which it was
 * obtained.  Nothing else stays allocated after a call, whatever its result (but see
 * result 3 of ZEPO_OS_GetProcThread).
 *
 * Trace.  Some failures print a line "<message>,<text> \n" to standard output through
 * ZEPO_Printf; a missing part prints as "(null)".  The messages are "Open proc file system
 * failed" and "Can not find this process: "; see each function.
 *
 * Threads.  No state is kept between calls and no lock is taken: any thread may call any
 * function, also at the same time.  Each result is a snapshot; processes come and go
 * while /proc is walked.
 */
#ifndef QEL_STATS_H
#define QEL_STATS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One process in the lists of ZEPO_OS_GetCPUBusyRate and ZEPO_OS_GetMEMAllocRate,
 * 24 bytes: name at offset 0, value at offset 20.
 */
typedef struct ZEPO_OS_PROC_INFO {
    /* The command name from /proc/<pid>/stat (the text between the first "(" and the
     * first ")"), cut to at most 17 characters, NUL-terminated. */
    char name[20];
    /* ZEPO_OS_GetCPUBusyRate: the busy share in hundredths of a percent;
     * ZEPO_OS_GetMEMAllocRate: the memory figure (see there). */
    uint32_t value;
} ZEPO_OS_PROC_INFO;

/* One thread in the list of ZEPO_OS_GetProcThread, 8 bytes: id at 0, state at 4. */
typedef struct ZEPO_OS_THREAD_INFO {
    int32_t id;    /* the thread's identifier (or, on the old model, the process number) */
    int32_t state; /* one of the ZEPO_OS_THREAD_* codes below */
} ZEPO_OS_THREAD_INFO;

/* State codes of ZEPO_OS_THREAD_INFO.state, from the state letter of the stat file. */
#define ZEPO_OS_THREAD_RUNNING 0  /* R */
#define ZEPO_OS_THREAD_SLEEPING 1 /* S */
#define ZEPO_OS_THREAD_DISK 2     /* D: uninterruptible wait */
#define ZEPO_OS_THREAD_OTHER 3    /* any other letter: Z (zombie), I (idle), X, t ... */
#define ZEPO_OS_THREAD_STOPPED 4  /* T */
#define ZEPO_OS_THREAD_PAGING 5   /* W */

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(ZEPO_OS_PROC_INFO) == 24, "ZEPO_OS_PROC_INFO is 24 bytes");
static_assert(offsetof(ZEPO_OS_PROC_INFO, value) == 20, "value follows the 20-byte name");
static_assert(sizeof(ZEPO_OS_THREAD_INFO) == 8, "ZEPO_OS_THREAD_INFO is 8 bytes");
static_assert(offsetof(ZEPO_OS_THREAD_INFO, state) == 4, "state follows id");
#elif !defined(__cplusplus) && defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(ZEPO_OS_PROC_INFO) == 24, "ZEPO_OS_PROC_INFO is 24 bytes");
_Static_assert(offsetof(ZEPO_OS_PROC_INFO, value) == 20, "value follows the 20-byte name");
_Static_assert(sizeof(ZEPO_OS_THREAD_INFO) == 8, "ZEPO_OS_THREAD_INFO is 8 bytes");
_Static_assert(offsetof(ZEPO_OS_THREAD_INFO, state) == 4, "state follows id");
#endif

/*
 * The machine's busy share over one second: reads the first line "cpu " of /proc/stat
 * (user, nice, system, idle ticks; later columns are not read), sleeps one second with
 * ZEPO_Sleep(1) in the calling thread, reads it again, and stores
 * busy * 10000 / total, in hundredths of a percent (0 to 10000), where busy is the
 * growth of user + nice + system and total the growth of all four.  The arithmetic is
 * unsigned 32-bit, the product included.
 *
 * Returns 0; 2 when /proc/stat cannot be opened, holds no "cpu " line in its first 512
 * bytes, or holds "cpu " with nothing after it; 3 for a null rate (nothing touched, no
 * trace).  A line with fewer than four numbers is accepted: the missing ones count 0.
 * *rate is set to 0 before the first read.
 *
 * Blocks the caller for one second.  Two identical samples (total 0) are not guarded
 * against: the division by zero ends the process with SIGFPE.  On a running system one
 * second always advances the counters.
 */
uint32_t ZEPO_OS_GetCPUBusyRateAll(uint32_t *rate);

/*
 * The busy share of every process over one second, in hundredths of a percent of all
 * processors' time: the user and system ticks of each /proc/<pid>/stat are read, the
 * aggregate of /proc/stat with them, then again one second later (ZEPO_Sleep(1) in the
 * calling thread), and each process gets its ticks' growth * 10000 / the growth of all
 * four aggregate counters (unsigned 32-bit).
 *
 * On 0, *list is an array of *count entries; release it with ZEPO_MemTypeFreeD.
 * Returns:
 *   1  /proc lists no process; a process listed in the first pass could not be read
 *      (it ended between the listing and the reading, or its stat file holds no "(",
 *      no ")", too few fields or an empty name: the whole call fails); no process of
 *      the first pass was found again; or no memory for the result;
 *   2  /proc/stat or the /proc folder cannot be read (the folder failure traces
 *      "Open proc file system failed,(null) \n");
 *   3  count or list is null (nothing touched, no trace).
 * *count is set to 0 and *list to null first.  A failed growth of the work array traces
 * "(null),(null) \n" and ends the first pass with the processes gathered so far.
 *
 * Deliberate oddities:
 *  - The two passes are matched by command name, not by process number: two processes
 *    of the same name are paired in the order in which /proc lists them.  A process that
 *    ended between the passes is left out; one that appears in the second pass only, or
 *    one whose stat file cannot be read in the second pass, ends the matching there,
 *    with what was matched so far.
 *  - The ticks are found by walking twelve blank-separated gaps from just after "(",
 *    inside the command name: a name holding one blank shifts the walk by one field, so
 *    the figure of such a process is cmajflt + utime instead of utime + stime.
 *  - Blocks the caller for one second.  Identical aggregate samples (total 0) make the
 *    unguarded division end the process with SIGFPE as soon as one process is matched.
 */
uint32_t ZEPO_OS_GetCPUBusyRate(uint32_t *count, ZEPO_OS_PROC_INFO **list);

/*
 * The machine's memory and a memory figure of every process, without any pause.
 * *total and *free are the "MemTotal: " and "MemFree: " figures of /proc/meminfo in
 * kilobytes, as the file gives them.  *list holds *count entries, one per process, whose
 * value is the process's virtual size in bytes plus its resident size in pages (fields
 * 23 and 24 of /proc/<pid>/stat), added as they are and cut to 32 bits: the sum of two
 * different units is deliberate, a figure for comparing processes with one another.
 * Release the list with ZEPO_MemTypeFreeD.
 *
 * *list must be null on entry.  Returns:
 *   0  success, also when a process ended during the walk: its stat file cannot be
 *      opened, which traces "Open proc file system failed,(null) \n" and ends the walk
 *      with the processes gathered before it;
 *   1  no process gathered, or no memory for the work array or the result (traced
 *      "(null),(null) \n"; a failed growth ends the walk with what was gathered);
 *   2  /proc/meminfo cannot be opened (traced) or lacks either label in its first 512
 *      bytes; the /proc folder cannot be opened (traced); a stat file without "(" and
 *      ")" or with too few fields;
 *   3  any null argument, or *list not null: traces "(null),(null) \n", touches nothing.
 * *total, *free and *count are set to 0 before /proc/meminfo is read.
 *
 * Each number is read from one character past its label, so the label's first blank
 * and the next character are skipped; the kernel's padding blanks absorb that.  As in
 * ZEPO_OS_GetCPUBusyRate the fields are found by walking from inside the command name,
 * so a name with one blank gives fields 22 and 23 instead.  A command name that cannot
 * be copied (an empty one) leaves the entry's name empty.
 */
uint32_t ZEPO_OS_GetMEMAllocRate(uint32_t *total, uint32_t *free, uint32_t *count,
                                 ZEPO_OS_PROC_INFO **list);

/*
 * Finds the process called name and lists its threads with their states.
 *
 * The process: the first one in the order of the /proc listing whose command matches
 * name and whose parent's command does not (so a server that forks workers of its own
 * name is reported, not a worker).  A name matches the command word "(C)" when it
 * equals C, or when C holds the kernel's maximum of 15 characters and the first 15
 * characters of name equal C: a name longer than 15 characters finds the process
 * through its first 15.  Only names without blanks can match.  The name is refused when
 * null only: an empty name matches only an empty command.
 *
 * The threads: one entry per numeric entry of /proc/<pid>/task, in that listing's order
 * (the main thread is not necessarily first), with the state read from the thread's
 * /proc/<tid>/stat; a thread that ended meanwhile is left out (traced "Open proc file
 * system failed,(null) \n").  Without a task folder (kernels without thread groups) the
 * list is the process itself, then the processes of the same name whose parent it is
 * (the last of them is taken for the thread manager), then those of the same name whose
 * parent is that manager.
 *
 * On 0, *list is an array of *count entries; release it with ZEPO_MemTypeFreeD.
 * Returns:
 *   1  no memory, or the task folder could not be listed into an array (an empty
 *      listing);
 *   2  /proc cannot be listed (traces "ZEPO_ScanDir ERROR: <error text>\n"); no process
 *      of that name (traces "Can not find this process: ,<name> \n"); the parent of the
 *      found process cannot be read - notably a process whose parent number is 0, such
 *      as the first process of the system;
 *   3  name, count or list is null (traces "(null),(null) \n"), or a path that cannot
 *      be formatted (a number always fits into the 512-byte path buffer; were the
 *      parent's path ever to fail, the listing of /proc would stay allocated).
 * *count is set to 0 and *list to null first.  A stat file that cannot be opened during
 * the search traces "Open proc file system failed,/proc/<pid>/stat \n" and is skipped.
 */
uint32_t ZEPO_OS_GetProcThread(const char *name, uint32_t *count, ZEPO_OS_THREAD_INFO **list);

#ifdef __cplusplus
}
#endif

#endif /* QEL_STATS_H */
