// memory_tracked.h - the state of the tracked allocator, shared by the engine
// (memory_tracked.cpp) and its reports (memory_report.cpp).  Internal, never installed.
//
// Invariants, kept under the table lock:
//   - records[s].base is null exactly when slot s is free;
//   - positions[0 .. count-1] name the live slots; records[positions[p]].position == p;
//   - for count <= p < highWater, positions[p] names a free slot whose position is p,
//     so the next allocation takes positions[count] without a search;
//   - userTotal is the sum of the rounded sizes of the live records.
// The error log's entries 0 .. errorCount-1 are filled; errorCount only grows, to 600.
#ifndef QEL_MEMORY_TRACKED_H
#define QEL_MEMORY_TRACKED_H

#include <atomic>
#include <cstdint>

#include "qel_mem_engine.h"
#include "qel_mutex.h"

namespace qel::mem {

inline constexpr uint32_t kMaxRecords = QEL_MEM_MAX_RECORDS;
inline constexpr uint32_t kMaxErrors = QEL_MEM_MAX_ERRORS;
inline constexpr uint32_t kPage = QEL_MEM_PAGE_SIZE;
inline constexpr uint32_t kGuard = QEL_MEM_GUARD_WORD;
inline constexpr uint32_t kAlignOrdinary = QEL_MEM_ALIGN_ORDINARY;
inline constexpr uint32_t kAlignBlock = QEL_MEM_ALIGN_BLOCK;

struct Tracked {
    MemRec *errorLog = nullptr;     // kMaxErrors entries
    uint32_t *positions = nullptr;  // kMaxRecords slot numbers
    MemRec *records = nullptr;      // kMaxRecords slots
    // Written under their lock; atomic because the statistics and the error-log copy
    // read them without it (a mixed picture is accepted there).
    std::atomic<uint32_t> count{0};
    std::atomic<uint32_t> highWater{0};
    std::atomic<uint32_t> userTotal{0};
    std::atomic<uint32_t> errorCount{0};
    ZEPO_MUTEX tableLock{};
    ZEPO_MUTEX errorLock{};

    MemRec &live(uint32_t position) const { return records[positions[position]]; }
};

// The one instance; its counters are never reset.
extern Tracked g_tracked;

// The address handed to the caller for a record (for an error entry: its address).
inline void *user_address(const MemRec &r) {
    return reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(r.base) + r.offset);
}

}  // namespace qel::mem

#endif  // QEL_MEMORY_TRACKED_H
