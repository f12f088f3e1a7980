// memory.cpp - memory entry points.
//
// Every block of the library and of its callers is obtained and released here.  A
// process-wide mode decides what serves the calls: the C heap until the tracked
// allocator is switched on.  The mode is read without a lock by every entry point;
// switching while other threads allocate is not supported, so it needs none.

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "os_frame.h"
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

// 0: the C heap serves the entry points (the initial mode); 1: the tracked allocator,
// whose calls are then in s_trackedHeap.  Both are set only by the allocator's switch.
std::atomic<int> s_memEnabled{0};
const HeapMode *s_trackedHeap = nullptr;

const HeapMode &heap() {
    return s_memEnabled.load(std::memory_order_relaxed) != 0 ? *s_trackedHeap : kPlainHeap;
}

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

}  // extern "C"
