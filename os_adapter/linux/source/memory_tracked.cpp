// memory_tracked.cpp - the tracked allocator: one guarded, page-aligned region per block,
// an owner record per live block, quarantine of damaged blocks, a bounded error log.
//
// The region of a block (qel_mem_engine.h draws it): the block ends on a page boundary,
// followed by a read-only guard page; its slot number lies at address - 8, the guard word
// at address - 4 and again at address + size.  The records, the position array and the
// counters are described with their invariants in memory_tracked.h.
//
// Threads: any.  Locks: the table lock, then the error-log lock (a release logs a damaged
// block while it holds the table lock); allocation failures log without the table lock;
// mprotect always runs after the table lock is released.  Nothing here prints or sets
// errno: every failure is a null result or a status code.

#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "memory_tracked.h"
#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_thread.h"
#include "qel_time.h"

static_assert(sizeof(MemRec) == 64);
static_assert(offsetof(MemRec, base) == 0);
static_assert(offsetof(MemRec, roundedSize) == 8);
static_assert(offsetof(MemRec, size) == 12);
static_assert(offsetof(MemRec, offset) == 16);
static_assert(offsetof(MemRec, thread) == 24);
static_assert(offsetof(MemRec, position) == 32);
static_assert(offsetof(MemRec, status) == 36);
static_assert(offsetof(MemRec, type) == 40);
static_assert(offsetof(MemRec, time) == 44);
static_assert(offsetof(MemRec, line) == 48);
static_assert(offsetof(MemRec, file) == 56);
static_assert(sizeof(MemRec) * QEL_MEM_MAX_RECORDS == 128000000);
static_assert(sizeof(MemRec) * QEL_MEM_MAX_ERRORS == 38400);
static_assert(sizeof(uint32_t) * QEL_MEM_MAX_RECORDS == 8000000);

namespace qel::mem {
Tracked g_tracked;
}  // namespace qel::mem

namespace {

using namespace qel::mem;

// Where the first failed allocation of the process dumps every record (the misspelt name
// is the one the tools that collect it look for).
constexpr const char *kOutOfMemoryDump = "/data/out_of_memery.txt";

// Set by the first failed MemAllocMem and never cleared: the dump is written once.  It is
// set before the dump is written, so two threads failing at once do not both write it.
std::atomic<int> s_outOfMemoryDumped{0};

// The region of a request: all three figures in unsigned 32-bit arithmetic, as the
// layout is defined; a region length below the size means the arithmetic wrapped.
struct Region {
    uint32_t rounded;  // size rounded up to the alignment
    uint32_t span;     // rounded + 8, rounded up to whole pages: where the guard page starts
    uint32_t length;   // span plus the guard page
};

constexpr Region region_of(uint32_t size, uint32_t alignment) {
    const uint32_t rounded = ((size + alignment - 1) / alignment) * alignment;
    const uint32_t span = (rounded + kPage + 7) & ~(kPage - 1);
    return Region{rounded, span, span + kPage};
}

static_assert(region_of(100, 4).rounded == 100 && region_of(100, 4).span == 4096 &&
              region_of(100, 4).length == 8192);
static_assert(region_of(4089, 4).span == 8192);

// The part of a source-file name after its last '/' or '\': the whole string when there
// is none, the terminating NUL when it ends with one.  Not a copy.
const char *file_name_part(const char *file) {
    for (uint32_t i = ZEPO_StrLen(file); i > 0; --i)
        if (file[i - 1] == '/' || file[i - 1] == '\\') return file + i;
    return file;
}

uintptr_t address_of(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// The 32-bit word at an address, at any alignment.
uint32_t word_at(uintptr_t at) {
    uint32_t word;
    std::memcpy(&word, reinterpret_cast<const void *>(at), sizeof word);
    return word;
}

void put_word(uintptr_t at, uint32_t word) {
    std::memcpy(reinterpret_cast<void *>(at), &word, sizeof word);
}

// The slot word of an address not yet known to be a live block.  The address may be
// foreign (a block of the C heap, whose chunk header lies there) or released already:
// readable memory is all that the allocator asks of a caller, so this one read is kept
// out of the address sanitizer's view.  Byte by byte, so that no library call is made.
__attribute__((no_sanitize("address"))) uint32_t unchecked_word_at(uintptr_t at) {
    const auto *bytes = reinterpret_cast<const volatile unsigned char *>(at);
    unsigned char copy[sizeof(uint32_t)];
    for (size_t i = 0; i < sizeof copy; ++i) copy[i] = bytes[i];
    uint32_t word;
    std::memcpy(&word, copy, sizeof word);
    return word;
}

// The entry of a failed allocation: no address, the size asked for, and the alignment in
// the type field (not the memory type: the reports show it so).
void log_no_memory(uint32_t size, const char *name, uint32_t line, uint32_t alignment) {
    sysMemLogMemErr(nullptr, size, name, line, alignment, QEL_MEM_STATUS_NOMEM);
}

// Table lock held: the slot for a new live record, and its position set.  A slot freed
// earlier waits at positions[count] with its position already equal to count.
MemRec &take_slot(Tracked &t) {
    const uint32_t count = t.count.load(std::memory_order_relaxed);
    if (count >= t.highWater.load(std::memory_order_relaxed)) {
        t.positions[count] = count;
        t.records[count].position = count;
    }
    return t.records[t.positions[count]];
}

// Table lock held: takes a record off the live ones.  Its position entry is swapped with
// the last live entry (and both records' positions with them), so the freed slot waits
// at positions[count] for the next allocation.
void retire(Tracked &t, MemRec &r) {
    const uint32_t last = t.count.load(std::memory_order_relaxed) - 1;
    const uint32_t position = r.position;
    const uint32_t slot = t.positions[position];
    const uint32_t lastSlot = t.positions[last];
    t.positions[position] = lastSlot;
    t.positions[last] = slot;
    t.records[lastSlot].position = position;
    r.position = last;
    t.count.store(last, std::memory_order_relaxed);
    t.userTotal.store(t.userTotal.load(std::memory_order_relaxed) - r.roundedSize,
                      std::memory_order_relaxed);
}

// Releases every table that is present.
void release_tables(Tracked &t) {
    std::free(t.errorLog);
    std::free(t.positions);
    std::free(t.records);
    t.errorLog = nullptr;
    t.positions = nullptr;
    t.records = nullptr;
}

}  // namespace

extern "C" {

// ---- Set-up and tear-down --------------------------------------------------------------

// The tables come from the C heap already cleared (calloc): a fresh large block costs
// nothing to clear, and the reports then show 0 for the fields that logging leaves
// unwritten and "Good" for never-checked slots, in every build.  The tracked allocator
// cannot keep its own bookkeeping.
uint32_t MemInitManage(void) {
    Tracked &t = g_tracked;
    t.errorLog = static_cast<MemRec *>(std::calloc(kMaxErrors, sizeof(MemRec)));
    if (t.errorLog != nullptr)
        t.positions = static_cast<uint32_t *>(std::calloc(kMaxRecords, sizeof(uint32_t)));
    if (t.positions != nullptr)
        t.records = static_cast<MemRec *>(std::calloc(kMaxRecords, sizeof(MemRec)));
    if (t.records == nullptr) {
        release_tables(t);
        return 1;
    }
    ZEPO_MutexInit(&t.errorLock, nullptr);
    ZEPO_MutexInit(&t.tableLock, nullptr);
    return 0;
}

// Counters and flags stay: the allocator is switched on once per process.
uint32_t MemUnInitManage(void) {
    Tracked &t = g_tracked;
    release_tables(t);
    ZEPO_MutexDestroy(&t.errorLock);
    ZEPO_MutexDestroy(&t.tableLock);
    return 0;
}

// ---- Blocks ------------------------------------------------------------------------------

void *sysMemAlignAlloc(uint32_t alignment, uint32_t size) {
    void *block = nullptr;
    return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}

int32_t sysMemProtect(void *address) { return mprotect(address, kPage, PROT_READ); }

int32_t sysMemUnProtect(void *address) { return mprotect(address, kPage, PROT_READ | PROT_WRITE); }

void *sysMemAddUserMem(uint32_t size, uint32_t alignment, const char *file, uint32_t line,
                       uint32_t type) {
    if (alignment == 0) return nullptr;
    const Region region = region_of(size, alignment);
    if (region.length < size) return nullptr;  // wrapped: nothing to log, nothing obtained
    const char *name = file_name_part(file);

    void *base = sysMemAlignAlloc(kPage, region.length);
    if (base == nullptr) {
        log_no_memory(size, name, line, alignment);
        return nullptr;
    }
    const uint32_t now = ZEPO_GetSysTimeSec();
    const uint64_t self = ZEPO_PthreadSelf();
    const uintptr_t user = address_of(base) + region.span - region.rounded;

    Tracked &t = g_tracked;
    bool full = false;
    {
        qel::MutexHold hold(&t.tableLock);
        const uint32_t count = t.count.load(std::memory_order_relaxed);
        if (count >= kMaxRecords) {
            full = true;
        } else {
            MemRec &r = take_slot(t);
            const uint32_t slot = static_cast<uint32_t>(&r - t.records);
            r.base = base;
            r.roundedSize = region.rounded;
            r.size = size;
            r.offset = region.span - region.rounded;
            r.type = type;
            r.time = now;
            r.line = line;
            r.file = name;
            r.thread = self;
            // r.status stays: only a check writes it.
            put_word(user - 4, kGuard);
            put_word(user - 8, slot);
            put_word(user + size, kGuard);  // before the guard page turns read-only
            t.userTotal.store(t.userTotal.load(std::memory_order_relaxed) + region.rounded,
                              std::memory_order_relaxed);
            t.count.store(count + 1, std::memory_order_relaxed);
            if (count + 1 > t.highWater.load(std::memory_order_relaxed))
                t.highWater.store(count + 1, std::memory_order_relaxed);
        }
    }
    if (full) {
        log_no_memory(size, name, line, alignment);
        std::free(base);
        return nullptr;
    }
    sysMemProtect(reinterpret_cast<void *>(user + region.rounded));
    return reinterpret_cast<void *>(user);
}

MemRec *sysMemCheckUserAddr(void *ptr) {
    if (!qel::accepted(ptr)) return nullptr;
    Tracked &t = g_tracked;
    const uintptr_t user = address_of(ptr);
    const uint32_t slot = unchecked_word_at(user - 8);
    if (slot >= kMaxRecords) return nullptr;
    MemRec &r = t.records[slot];
    if (r.base == nullptr) return nullptr;
    if (ptr != user_address(r)) return nullptr;
    if (r.position >= t.count.load(std::memory_order_relaxed)) return nullptr;
    // The tail guard first, and only then the head guard: a block damaged at both ends
    // reads "Down".
    if (word_at(user + r.size) != kGuard)
        r.status = QEL_MEM_STATUS_DOWN;
    else if (word_at(user - 4) != kGuard)
        r.status = QEL_MEM_STATUS_UP;
    else
        r.status = QEL_MEM_STATUS_GOOD;
    return &r;
}

uint32_t sysMemCopyUserMem(void *destination, void *source) {
    Tracked &t = g_tracked;
    qel::MutexHold hold(&t.tableLock);
    const MemRec *to = sysMemCheckUserAddr(destination);
    const MemRec *from = sysMemCheckUserAddr(source);
    if (to == nullptr || from == nullptr || to->status != QEL_MEM_STATUS_GOOD ||
        from->status != QEL_MEM_STATUS_GOOD)
        return 1;
    const uint32_t n = to->size < from->size ? to->size : from->size;
    return memcpy_s(destination, to->size, source, n) == 0 ? 0 : 1;
}

// A damaged block is logged and kept: its region is neither freed nor unprotected, so
// that the damage can still be inspected.
uint32_t sysMemDeleteUserMem(void *ptr) {
    Tracked &t = g_tracked;
    void *base = nullptr;
    void *guardPage = nullptr;
    {
        qel::MutexHold hold(&t.tableLock);
        MemRec *r = sysMemCheckUserAddr(ptr);
        if (r == nullptr) return QEL_MEM_STATUS_NOFOUND;
        retire(t, *r);
        const uint32_t status = r->status;
        if (status != QEL_MEM_STATUS_GOOD) {
            sysMemLogMemErr(ptr, r->size, r->file, r->line, r->type, status);
            r->base = nullptr;
            return status;
        }
        base = r->base;
        guardPage = reinterpret_cast<void *>(address_of(ptr) + r->roundedSize);
        r->base = nullptr;
    }
    sysMemUnProtect(guardPage);
    std::free(base);
    return QEL_MEM_STATUS_GOOD;
}

void sysMemLogMemErr(void *address, uint32_t length, const char *file, uint32_t line, uint32_t type,
                     uint32_t status) {
    Tracked &t = g_tracked;
    qel::MutexHold hold(&t.errorLock);
    const uint32_t n = t.errorCount.load(std::memory_order_relaxed);
    if (n >= kMaxErrors) return;  // the first events are the ones kept
    MemRec &e = t.errorLog[n];
    e.base = address;
    e.size = length;
    e.file = file;
    e.line = line;
    e.type = type;
    e.status = status;
    t.errorCount.store(n + 1, std::memory_order_relaxed);
}

// ---- The calls behind the entry points ---------------------------------------------------

void *MemAllocMem(const char *file, uint32_t line, uint32_t size, uint32_t type) {
    void *block = sysMemAddUserMem(size, kAlignOrdinary, file, line, type);
    if (block == nullptr && s_outOfMemoryDumped.exchange(1) == 0)
        MemRecordMemRecFun(kOutOfMemoryDump);
    return block;
}

// Count and size are signed here: a caller's unsigned count above 2147483647 is refused
// as negative.  The product is taken in 32 bits without an overflow test.
void *MemCallocMem(const char *file, uint32_t line, int32_t count, int32_t size) {
    if (count <= 0 || size <= 0) return nullptr;
    const uint32_t n = static_cast<uint32_t>(count) * static_cast<uint32_t>(size);
    void *block = sysMemAddUserMem(n, kAlignOrdinary, file, line, QEL_MEM_TYPE_DYN);
    if (block != nullptr) (void)memset_s(block, n, 0, n);
    return block;
}

// The alignment asked for is ignored on purpose: every aligned block is aligned to 128.
void *MemAlignMem(const char *file, uint32_t line, uint32_t, uint32_t size) {
    return sysMemAddUserMem(size, kAlignBlock, file, line, QEL_MEM_TYPE_ALN);
}

void MemFreeMem(const char *file, uint32_t line, void *ptr, uint32_t type) {
    // Damaged blocks (1, 2) were logged by the deletion itself.
    if (sysMemDeleteUserMem(ptr) == QEL_MEM_STATUS_NOFOUND)
        sysMemLogMemErr(ptr, 0, file_name_part(file), line, type, QEL_MEM_STATUS_NOFOUND);
}

void *MemReAllocMem(const char *file, uint32_t line, void *old, uint32_t size) {
    if (size == 0 && old != nullptr) {
        MemFreeMem(file, line, old, QEL_MEM_TYPE_DYN);
        return nullptr;
    }
    void *fresh = sysMemAddUserMem(size, kAlignOrdinary, file, line, QEL_MEM_TYPE_DYN);
    if (fresh == nullptr || old == nullptr) return fresh;
    // The old block goes once its bytes are in the new one; when the copy is refused the
    // new block goes instead and the old one stays live.  Either release logs a block it
    // does not find, as any release does.
    if (sysMemCopyUserMem(fresh, old) == 0) {
        MemFreeMem(file, line, old, QEL_MEM_TYPE_DYN);
        return fresh;
    }
    MemFreeMem(file, line, fresh, QEL_MEM_TYPE_DYN);
    return nullptr;
}

}  // extern "C"
