/*
 * system_stats.c - what the machine is doing: how busy its processors are, the five
 * busiest processes, its memory, and the threads of this very program.
 *
 * Build and run: bash scripts/run-example.sh
 *
 * Things to know before reading on:
 * - The two busy-rate functions compare two samples taken one second apart: each call
 *   blocks for one second.  Rates are in hundredths of a percent (2550 is 25.50 %).
 * - The lists they hand back belong to the caller, who releases them with
 *   ZEPO_MemTypeFreeD.
 * - Processes are found by their command name, the name the kernel shows in
 *   /proc/<pid>/stat (at most 15 characters).
 */
#include <stdint.h>
#include <stdlib.h>

#include "qel_frame.h"
#include "qel_memory.h"
#include "qel_stats.h"
#include "qel_thread.h"

/* The name this program gives itself, so that it can look itself up. */
#define PROGRAM_NAME "system_stats"

/* A second thread, so that the thread list has more than one entry.  It sleeps until
 * main cancels it (a sleep is a cancellation point). */
static void *worker(void *arg) {
    (void)arg;
    ZEPO_PthreadSetName("stats_worker");
    for (;;) ZEPO_Sleep(60);
    return NULL;
}

static int busiest_first(const void *a, const void *b) {
    const ZEPO_OS_PROC_INFO *x = a;
    const ZEPO_OS_PROC_INFO *y = b;
    return (y->value > x->value) - (y->value < x->value);
}

static const char *state_text(int32_t state) {
    switch (state) {
        case ZEPO_OS_THREAD_RUNNING: return "running";
        case ZEPO_OS_THREAD_SLEEPING: return "sleeping";
        case ZEPO_OS_THREAD_DISK: return "waiting for the disk";
        case ZEPO_OS_THREAD_STOPPED: return "stopped";
        case ZEPO_OS_THREAD_PAGING: return "paging";
        default: return "other (zombie, idle ...)";
    }
}

int main(void) {
    int failed = 0;

    /* The whole machine, over one second. */
    uint32_t rate = 0;
    if (ZEPO_OS_GetCPUBusyRateAll(&rate) == 0) {
        ZEPO_Printf("machine busy: %u.%02u %%\n", rate / 100, rate % 100);
    } else {
        failed = 1;
    }

    /* Every process, over one second; the list is sorted here, busiest first.  The two
     * samples are paired by command name, so processes of one name that start or end
     * during that second can show odd figures. */
    uint32_t count = 0;
    ZEPO_OS_PROC_INFO *procs = NULL;
    uint32_t result = ZEPO_OS_GetCPUBusyRate(&count, &procs);
    if (result == 0) {
        qsort(procs, count, sizeof *procs, busiest_first);
        ZEPO_Printf("the five busiest of %u processes:\n", count);
        for (uint32_t i = 0; i < count && i < 5; ++i) {
            ZEPO_Printf("  %-17s %3u.%02u %%\n", procs[i].name, procs[i].value / 100,
                        procs[i].value % 100);
        }
        ZEPO_MemTypeFreeD(procs, 0, __LINE__, __FILE__);
    } else if (result == 1) {
        /* A process that ends between the listing of /proc and the reading of its file
         * spoils the whole call: on a busy machine, simply ask again later. */
        ZEPO_Printf("no busy rates this time: a process ended while /proc was read\n");
    } else {
        failed = 1;
    }

    /* Memory: the machine's figures in kilobytes, and one figure per process. */
    uint32_t total = 0;
    uint32_t free_kb = 0;
    ZEPO_OS_PROC_INFO *memory = NULL; /* must be null on entry */
    if (ZEPO_OS_GetMEMAllocRate(&total, &free_kb, &count, &memory) == 0) {
        ZEPO_Printf("memory: %u MiB in all, %u MiB free; %u processes measured\n", total / 1024,
                    free_kb / 1024, count);
        ZEPO_MemTypeFreeD(memory, 0, __LINE__, __FILE__);
    } else {
        failed = 1;
    }

    /* This program's threads: the main thread and a sleeping worker. */
    ZEPO_PthreadSetName(PROGRAM_NAME);
    pthread_t thread;
    if (ZEPO_PthreadCreate(&thread, NULL, worker, NULL) != 0) return 1;
    ZEPO_SleepMs(50); /* let the worker name itself and fall asleep */
    ZEPO_OS_THREAD_INFO *threads = NULL;
    if (ZEPO_OS_GetProcThread(PROGRAM_NAME, &count, &threads) == 0) {
        ZEPO_Printf("threads of %s (process %d):\n", PROGRAM_NAME, ZEPO_GetPID());
        for (uint32_t i = 0; i < count; ++i) {
            ZEPO_Printf("  thread %d: %s\n", threads[i].id, state_text(threads[i].state));
        }
        ZEPO_MemTypeFreeD(threads, 0, __LINE__, __FILE__);
    } else {
        failed = 1;
    }
    ZEPO_PthreadCancel(thread);
    ZEPO_PthreadJoin(thread, NULL);
    return failed;
}
