// memory.cpp - memory entry points and the switch of the tracked allocator.
//
// Every block of the library and of its callers is obtained and released here.  A
// process-wide mode decides what serves the calls: the C heap until the tracked
// allocator is switched on, then the tracked allocator (memory_tracked.cpp), whose
// reports the four report wrappers reach only while it is on.  The mode is read without
// a lock by every entry point; switching while other threads allocate is not supported,
// so it needs none.

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "os_frame.h"
#include "qel_mem_engine.h"
#include "qel_bounds.h"

namespace {

// Memory type asking for a block aligned to 128 bytes with 256 spare bytes.
constexpr uint32_t kTypeAligned = 2;
constexpr uint32_t kAlignedSpare = 256;
// Alignment of every aligned block of the C heap, whatever the caller asks for.
constexpr size_t kHeapAlignment = 128;

// The calls that serve the entry points in one mode.
struct HeapMode {
    void *(*alloc)(uint32_t size, uint32_t type, uint32_t line, const char *file);
    void *(*zeroed)(uint32_t count, uint32_t size, uint32_t line, const char *file);
    void *(*aligned)(uint32_t alignment, uint32_t size, uint32_t line, const char *file);
    void (*release)(void *ptr, uint32_t type, uint32_t line, const char *file);
};

// C heap mode: the source position is not kept.
void *plain_alloc(uint32_t size, uint32_t type, uint32_t line, const char *file) {
    if (type == kTypeAligned)
        return ZEPO_MemAlignD(kHeapAlignment, size + kAlignedSpare, line, file);
    return malloc(size);
}

void *plain_calloc(uint32_t count, uint32_t size, uint32_t, const char *) {
    return calloc(count, size);
}

// The alignment argument is ignored on purpose: 128 is what the callers rely on.
void *plain_align(uint32_t, uint32_t size, uint32_t, const char *) {
    return memalign(kHeapAlignment, size);
}

void plain_free(void *ptr, uint32_t, uint32_t, const char *) { free(ptr); }

constexpr HeapMode kPlainHeap = {plain_alloc, plain_calloc, plain_align, plain_free};

// Tracked mode: the engine's calls, which take the source position first.  The C heap
// mode's unsigned count and size are signed there, so values above 2147483647 are refused.
void *tracked_alloc(uint32_t size, uint32_t type, uint32_t line, const char *file) {
    return MemAllocMem(file, line, size, type);
}

void *tracked_calloc(uint32_t count, uint32_t size, uint32_t line, const char *file) {
    return MemCallocMem(file, line, static_cast<int32_t>(count), static_cast<int32_t>(size));
}

void *tracked_align(uint32_t alignment, uint32_t size, uint32_t line, const char *file) {
    return MemAlignMem(file, line, alignment, size);
}

void tracked_free(void *ptr, uint32_t type, uint32_t line, const char *file) {
    MemFreeMem(file, line, ptr, type);
}

constexpr HeapMode kTrackedHeap = {tracked_alloc, tracked_calloc, tracked_align, tracked_free};

// 0: the C heap serves the entry points (the initial mode); 1: the tracked allocator.
// Set only by the allocator's switch.
std::atomic<int> s_memEnabled{0};

bool tracking() { return s_memEnabled.load(std::memory_order_relaxed) != 0; }

const HeapMode &heap() { return tracking() ? kTrackedHeap : kPlainHeap; }

// Result of a report wrapper while the tracked allocator is off.
constexpr uint32_t kReportsOff = 1;

}  // namespace

extern "C" {

void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line, const char *file) {
    if (size == 0) return nullptr;  // in both modes, without any call
    return heap().alloc(size, type, line, file);
}

void *ZEPO_MemTypeMallocS(uint32_t size, int32_t fill, uint32_t type, uint32_t line,
                          const char *file) {
    void *block = ZEPO_MemTypeMallocD(size, type, line, file);
    // The fill is the low byte, sign-extended; its result is not tested.
    if (block != nullptr) (void)memset_s(block, size, static_cast<int8_t>(fill), size);
    return block;
}

void *ZEPO_MemCallocD(uint32_t count, uint32_t size, uint32_t line, const char *file) {
    return heap().zeroed(count, size, line, file);
}

void *ZEPO_MemAlignD(uint32_t alignment, uint32_t size, uint32_t line, const char *file) {
    return heap().aligned(alignment, size, line, file);
}

void ZEPO_MemTypeFreeD(void *ptr, uint32_t type, uint32_t line, const char *file) {
    if (ptr == nullptr) return;
    heap().release(ptr, type, line, file);
}

int32_t ZEPO_MemCmp(const void *lhs, const void *rhs, uint32_t length) {
    return memcmp(lhs, rhs, length);
}

// ---- The tracked mode's switch and reports ----------------------------------------------

uint32_t ZEPO_MemInitMemMange(void) {
    if (tracking()) return 0;  // on already: nothing to do
    if (MemInitManage() != 0) return 1;
    s_memEnabled.store(1, std::memory_order_relaxed);
    return 0;
}

uint32_t ZEPO_MemUnInitMemMange(void) {
    if (!tracking()) return 0;
    (void)MemUnInitManage();
    s_memEnabled.store(0, std::memory_order_relaxed);
    return 0;
}

uint32_t ZEPO_MemGetMemStatus(ZEPO_MEM_OUTPUT_FUNC output) {
    return tracking() ? MemGetMemStats(output) : kReportsOff;
}

uint32_t ZEPO_MemGetMemRec(int32_t mode, uint32_t key, const char *filter,
                           ZEPO_MEM_OUTPUT_FUNC output) {
    return tracking() ? MemGetMemRec(mode, key, filter, output) : kReportsOff;
}

uint32_t ZEPO_MemGetMemScan(ZEPO_MEM_OUTPUT_FUNC output) {
    return tracking() ? MemGetMemScan(output) : kReportsOff;
}

uint32_t ZEPO_MemGetMemoryUseMonitor(ZEPO_MEM_OUTPUT_FUNC output) {
    return tracking() ? MemGetMemoryUseMonitor(output) : kReportsOff;
}

}  // extern "C"
