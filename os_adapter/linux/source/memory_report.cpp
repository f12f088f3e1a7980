// memory_report.cpp - what the tracked allocator shows: statistics, listings of live
// blocks, the scan for damaged blocks with the error log, the self-check and the dump file.
//
// Listings and scans copy what they need in one pass under the lock and format the copies
// after releasing it, so an allocation waits only for the copy; the output function never
// runs under an allocator lock.  The dump is the exception: it formats and writes under
// the locks (the table lock, released before the error-log lock is taken) so that the
// file is one consistent picture.  Text buffers and record copies come from the C heap:
// reports must not change the tables they show.
//
// A report that meets a full buffer drops the line and carries on; nothing is traced,
// since the allocator writes to no trace of its own.

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "memory_tracked.h"
#include "os_frame.h"
#include "qel_bounds.h"

namespace {

using namespace qel::mem;

// ---- Texts -------------------------------------------------------------------------------

constexpr const char *kStatistics =
    "Current mem record cnt: %u\n\rMax mem record cnt: %u\n\rMax mem record limit : %u\n\rUser "
    "malloc mem:   %u (Bytes)\n\r";
constexpr const char *kHeader =
    "\r\nRecID    Address       Length     Line File                            Type   Status     "
    "Thread\r\n";
constexpr const char *kLine = "%-7u  %-13p %-10u %-5u %s    %-9s %u\r\n";
constexpr const char *kScanEnd =
    "\n\rCurrent mem exception record cnt:       %u\n\rError info ID introduction:\n\r1: down "
    "overflow 2: up overflow 3: down/up overflow 4: release mem addr not from malloc 5: release "
    "local mem addr\n\r6: release err mem of mem space 7: malloc erro size mem 8: malloc mem "
    "fail\n\r9: realloc err params\t  10: search ReAlloc old buffer fail\n\r";
constexpr const char *kListingEnd =
    "\r\nTotal malloc mem: %u\r\nThis User malloc mem : %u (bytes)\r\n";
constexpr const char *kMemInfoHead = "\r\n-------MemInfo %u----\r\n";
constexpr const char *kErrMemHead = "\r\n-------ErrMem %u----\r\n";
constexpr const char *kMonitorDump = "/data/mem_rec.txt";
constexpr const char *kMonitorAnswer = "Save to %s";

// Status names by code: the spelling and the repeated "Realloc" are the vocabulary of the
// tools that read these reports.
constexpr const char *kStatusNames[] = {"Good",    "Down",    "Up",      "Updown",
                                        "Nofound", "Fix",     "Invaid",  "Length",
                                        "NoMem",   "Realloc", "Realloc", "InvaidMem"};
constexpr const char *kTypeNames[] = {"Dyn", "Fixed", "Cache", "Aln", "SD", "IS"};
// Printed for a value beyond a table (an allocation failure logs its alignment, 4 or
// 128, as the type): the tables are never read out of bounds.
constexpr const char *kUnknownName = "Unknown";

template <size_t N>
const char *name_in(const char *const (&names)[N], uint32_t value) {
    return value < N ? names[value] : kUnknownName;
}

// ---- Buffers and chunks ------------------------------------------------------------------

constexpr uint32_t kTextSize = 10240;
constexpr uint32_t kSummarySize = 512;
constexpr uint32_t kStatisticsSize = 256;
constexpr uint32_t kChunk = 24;

// A C-heap block (not the tracked allocator's), released on every path out of the scope.
struct CHeapFree {
    void operator()(void *p) const { std::free(p); }
};
template <typename T>
using CHeap = std::unique_ptr<T, CHeapFree>;

// The cleared text buffer of a listing, a scan or the dump; null when it cannot be had.
char *new_text_buffer() {
    char *text = static_cast<char *>(std::malloc(kTextSize));
    if (text != nullptr) (void)memset_s(text, kTextSize, 0, kTextSize);
    return text;
}

// Outputs n records, 24 to a call, each chunk with the header.  The last byte of the
// buffer is left out of the capacity.
void output_in_chunks(ZEPO_MEM_OUTPUT_FUNC output, char *text, const MemRec *records, uint32_t n) {
    for (uint32_t first = 0; first < n; first += kChunk) {
        const uint32_t k = n - first < kChunk ? n - first : kChunk;
        output(text, sysMemPrintMemInfo(1, text, kTextSize - 1, records + first, k));
    }
}

// One line for one record, formatted alone into text (the dump's way).
void print_line(char *text, const MemRec &record) {
    (void)sysMemPrintMemInfo(0, text, kTextSize - 1, &record, 1);
}

// A section of the dump: its head with the number of records, then the header.
void print_section_head(char *text, const char *head, uint32_t n) {
    text[0] = '\0';
    (void)sysMemLogStringCat(text, kTextSize, head, n);
    (void)sysMemLogStringCat(text, kTextSize, "%s", kHeader);
}

// Refusal of a null output function (reports give unsigned results).
constexpr uint32_t kRefusedReport = static_cast<uint32_t>(qel::kRefused);

}  // namespace

extern "C" {

// ---- Formatting --------------------------------------------------------------------------

uint32_t sysMemLogStringCat(char *buffer, uint32_t capacity, const char *format, ...) {
    const uint32_t len = ZEPO_StrLen(buffer);
    if (len >= capacity) return 0;
    qel::VaList args;
    va_start(args.ap, format);
    // A piece that does not fit is refused whole, and the text is left as it was.
    const int n = vsprintf_s(buffer + len, capacity - 1 - len, format, args.ap);
    return n < 0 ? 0 : static_cast<uint32_t>(n);
}

// The source file is not printed: under the header's File column stands the memory
// type's name, which is what the tools reading these lines expect.
uint32_t sysMemPrintMemInfo(uint32_t header, char *buffer, uint32_t capacity, const MemRec *records,
                            uint32_t n) {
    if (!qel::accepted(buffer)) return 0;
    buffer[0] = '\0';
    uint32_t appended = header != 0 ? sysMemLogStringCat(buffer, capacity, "%s", kHeader) : 0;
    for (uint32_t i = 0; i < n; ++i) {
        const MemRec &r = records[i];
        appended +=
            sysMemLogStringCat(buffer, capacity, kLine, r.position, user_address(r), r.size, r.line,
                               name_in(kTypeNames, r.type), name_in(kStatusNames, r.status),
                               static_cast<uint32_t>(r.thread));
    }
    return appended;
}

// ---- Copies ------------------------------------------------------------------------------

// Never 0: equal keys are left in whatever order qsort makes of them.
int sysMemSortByAddr(const void *a, const void *b) {
    const MemRec *records = g_tracked.records;
    const uint64_t x = reinterpret_cast<uintptr_t>(records[*static_cast<const uint32_t *>(a)].base);
    const uint64_t y = reinterpret_cast<uintptr_t>(records[*static_cast<const uint32_t *>(b)].base);
    return x < y ? -1 : 1;
}

int sysMemSortBySize(const void *a, const void *b) {
    const MemRec *records = g_tracked.records;
    const uint32_t x = records[*static_cast<const uint32_t *>(a)].size;
    const uint32_t y = records[*static_cast<const uint32_t *>(b)].size;
    return x < y ? -1 : 1;
}

char *sysMemStrcasestr(const char *haystack, const char *needle) {
    if (haystack == nullptr || needle == nullptr) return nullptr;
    const size_t haystackLength = strlen(haystack);
    const size_t needleLength = strlen(needle);
    const int32_t room = static_cast<int32_t>(haystackLength - needleLength);
    if (room < 0) return nullptr;
    if (needleLength == 0) return const_cast<char *>(haystack);
    for (int32_t start = 0; start <= room; ++start) {
        size_t i = 0;
        while (i < needleLength &&
               ZEPO_CharToUpper(haystack[start + i]) == ZEPO_CharToUpper(needle[i]))
            ++i;
        if (i == needleLength) return const_cast<char *>(haystack + start);
    }
    return nullptr;
}

uint32_t sysMemSortMemInfo(MemRec **list, const char *filter, int32_t key) {
    if (!qel::accepted(list)) return 0;
    *list = nullptr;
    Tracked &t = g_tracked;
    qel::MutexHold hold(&t.tableLock);
    const uint32_t n = t.count.load(std::memory_order_relaxed);
    if (n == 0) return 0;
    CHeap<MemRec> copies(static_cast<MemRec *>(std::malloc(sizeof(MemRec) * n)));
    CHeap<uint32_t> slots(static_cast<uint32_t *>(std::malloc(sizeof(uint32_t) * n)));
    if (copies.get() == nullptr || slots.get() == nullptr ||
        memcpy_s(slots.get(), sizeof(uint32_t) * n, t.positions, sizeof(uint32_t) * n) != 0)
        return 0;
    if (key == 0)
        qsort(slots.get(), n, sizeof(uint32_t), sysMemSortByAddr);
    else if (key == 1)
        qsort(slots.get(), n, sizeof(uint32_t), sysMemSortBySize);
    const bool filtered = ZEPO_StrLen(filter) != 0;
    uint32_t copied = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const MemRec &r = t.records[slots.get()[i]];
        if (!filtered || sysMemStrcasestr(r.file, filter) != nullptr) copies.get()[copied++] = r;
    }
    if (copied == 0) return 0;
    *list = copies.release();
    return copied;
}

// A record counts as damaged when its status after the check is not 0; one whose slot
// word no longer leads to it keeps the status stored last (11 after a self-check).
uint32_t sysMemScanErrMemInfo(MemRec **list) {
    if (!qel::accepted(list)) return 0;
    *list = nullptr;
    CHeap<MemRec> copies(static_cast<MemRec *>(std::malloc(sizeof(MemRec) * kMaxErrors)));
    if (copies.get() == nullptr) return 0;
    Tracked &t = g_tracked;
    uint32_t copied = 0;
    {
        qel::MutexHold hold(&t.tableLock);
        const uint32_t n = t.count.load(std::memory_order_relaxed);
        for (uint32_t i = 0; i < n && copied < kMaxErrors; ++i) {
            MemRec &r = t.live(i);
            (void)sysMemCheckUserAddr(user_address(r));
            if (r.status != QEL_MEM_STATUS_GOOD) copies.get()[copied++] = r;
        }
    }
    if (copied == 0) return 0;
    *list = copies.release();
    return copied;
}

uint32_t sysMemGetErrMemLog(MemRec **list) {
    if (!qel::accepted(list)) return 0;
    *list = nullptr;
    Tracked &t = g_tracked;
    if (t.errorCount.load(std::memory_order_relaxed) == 0) return 0;
    qel::MutexHold hold(&t.errorLock);
    const uint32_t n = t.errorCount.load(std::memory_order_relaxed);
    CHeap<MemRec> copies(static_cast<MemRec *>(std::malloc(sizeof(MemRec) * n)));
    if (copies.get() == nullptr ||
        memcpy_s(copies.get(), sizeof(MemRec) * n, t.errorLog, sizeof(MemRec) * n) != 0)
        return 0;
    *list = copies.release();
    return n;
}

// ---- Reports -----------------------------------------------------------------------------

// The counters are read without a lock: the figures may be a mixed picture.
uint32_t MemGetMemStats(ZEPO_MEM_OUTPUT_FUNC output) {
    if (!qel::accepted(output)) return kRefusedReport;
    const Tracked &t = g_tracked;
    char text[kStatisticsSize] = {};
    output(text, sysMemLogStringCat(text, kStatisticsSize - 1, kStatistics,
                                    t.count.load(std::memory_order_relaxed),
                                    t.highWater.load(std::memory_order_relaxed), kMaxRecords,
                                    t.userTotal.load(std::memory_order_relaxed)));
    return 0;
}

// The listing end gives the number of records listed and their bytes.  No check runs:
// each record shows the status it stored last.
uint32_t MemGetMemRec(int32_t mode, uint32_t key, const char *filter, ZEPO_MEM_OUTPUT_FUNC output) {
    if (!qel::accepted(output)) return kRefusedReport;
    MemRec *listed = nullptr;
    uint32_t n = 0;
    if (mode == 0)
        n = sysMemSortMemInfo(&listed, nullptr, static_cast<int32_t>(key));
    else if (mode == 1)
        n = sysMemSortMemInfo(&listed, filter, static_cast<int32_t>(key));
    const CHeap<MemRec> list(listed);
    CHeap<char> text(new_text_buffer());
    if (text.get() == nullptr) return 0;
    output_in_chunks(output, text.get(), list.get(), n);
    uint32_t bytes = 0;
    for (uint32_t i = 0; i < n; ++i) bytes += list.get()[i].roundedSize;
    char summary[kSummarySize] = {};
    output(summary, sysMemLogStringCat(summary, kSummarySize, kListingEnd, n, bytes));
    return 0;
}

uint32_t MemGetMemScan(ZEPO_MEM_OUTPUT_FUNC output) {
    if (!qel::accepted(output)) return kRefusedReport;
    CHeap<char> text(new_text_buffer());
    if (text.get() == nullptr) return 1;
    MemRec *damaged = nullptr;
    const uint32_t d = sysMemScanErrMemInfo(&damaged);
    const CHeap<MemRec> damagedHeld(damaged);
    output_in_chunks(output, text.get(), damaged, d);
    MemRec *logged = nullptr;
    const uint32_t e = sysMemGetErrMemLog(&logged);
    const CHeap<MemRec> loggedHeld(logged);
    output_in_chunks(output, text.get(), logged, e);
    text.get()[0] = '\0';
    output(text.get(), sysMemLogStringCat(text.get(), kTextSize, kScanEnd, d + e));
    return 0;
}

uint32_t MemSelfCheck(void) {
    Tracked &t = g_tracked;
    ZEPO_MutexLock(&t.tableLock);
    const uint32_t n = t.count.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < n; ++i) {
        MemRec &r = t.live(i);
        if (sysMemCheckUserAddr(user_address(r)) == nullptr) r.status = QEL_MEM_STATUS_INVALID_MEM;
    }
    return static_cast<uint32_t>(ZEPO_MutexUnLock(&t.tableLock));
}

void MemRecordMemRecFun(const char *path) {
    (void)ZEPO_Remove(path);
    FILE *file = ZEPO_Fopen(path, "a+");
    if (file == nullptr) return;  // no folder for the dump: skipped
    CHeap<char> text(new_text_buffer());
    if (text.get() != nullptr) {
        Tracked &t = g_tracked;
        {
            qel::MutexHold hold(&t.tableLock);
            const uint32_t n = t.count.load(std::memory_order_relaxed);
            print_section_head(text.get(), kMemInfoHead, n);
            (void)ZEPO_Fprintf(file, "%s", text.get());
            for (uint32_t i = 0; i < n; ++i) {
                print_line(text.get(), t.live(i));
                (void)ZEPO_Fprintf(file, "%s", text.get());
            }
        }
        {
            qel::MutexHold hold(&t.errorLock);
            const uint32_t n = t.errorCount.load(std::memory_order_relaxed);
            print_section_head(text.get(), kErrMemHead, n);
            (void)ZEPO_Fprintf(file, "%s", text.get());
            for (uint32_t i = 0; i < n; ++i) {
                print_line(text.get(), t.errorLog[i]);
                (void)ZEPO_Fprintf(file, "%s", text.get());
            }
        }
        (void)ZEPO_Fflush(file);
    }
    (void)ZEPO_Fclose(file);
}

uint32_t MemGetMemoryUseMonitor(ZEPO_MEM_OUTPUT_FUNC output) {
    if (!qel::accepted(output)) return kRefusedReport;
    (void)MemSelfCheck();
    MemRecordMemRecFun(kMonitorDump);
    char answer[kSummarySize] = {};
    output(answer, sysMemLogStringCat(answer, kSummarySize, kMonitorAnswer, kMonitorDump));
    return 0;
}

}  // extern "C"
