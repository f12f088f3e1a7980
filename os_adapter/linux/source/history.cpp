// history.cpp - the ring of the 512 most recent operations and its dump.
//
// The ring is an exported global whose layout applications read directly, so the
// records are laid out by hand and checked here.  No lock is taken: the ring is a
// diagnostic, and callers that need exact histories serialise their adds.

#include <cstddef>

#include "qel_bounds.h"
#include "qel_history.h"
#include "qel_string.h"

static_assert(sizeof(OperateRec) == 64);
static_assert(offsetof(OperateRec, ulOperate) == 0);
static_assert(offsetof(OperateRec, ulTime) == 4);
static_assert(offsetof(OperateRec, ulTid) == 8);
static_assert(offsetof(OperateRec, szTName) == 12);
static_assert(offsetof(OperateRec, ulParam1) == 48);
static_assert(offsetof(OperateRec, ulParam2) == 56);
static_assert(offsetof(OperateHistory, lIndex) == 512 * sizeof(OperateRec));
static_assert(sizeof(OperateHistory) == 512 * sizeof(OperateRec) + 8);  // index + padding

namespace {

constexpr int32_t kSlots = ZEPO_OPERATE_HISTORY_SLOTS;

// Time stamps are in hundredths of a second.
constexpr int32_t kPerSecond = 100;
constexpr int32_t kPerHour = 360000;
constexpr int32_t kSecondsPerHour = 3600;

const char *kind_text(uint32_t kind) {
    switch (kind) {
        case ZEPO_OPERATE_NONE: return "None";
        case ZEPO_OPERATE_CREATE_TIMER: return "CreateTm";
        case ZEPO_OPERATE_DELETE_TIMER: return "DeleteTm";
        default: return "undefined";
    }
}

// Appends one record's line at the end of the text in buffer.  False when the dump must
// stop: the buffer is full, or the line did not fit (it is then left truncated).
bool append_line(char *buffer, uint32_t size, const OperateRec &rec) {
    const uint32_t len = ZEPO_StrLen(buffer);
    if (len >= size - 1) return false;
    // Signed division truncating towards zero, as the time column has always been
    // computed: a negative stamp prints negative fields, and hours are not reduced.
    const int32_t t = rec.ulTime;
    const int32_t inHour = t / kPerSecond % kSecondsPerHour;
    // The '#' on %s is part of the table's format as it has always been written; it has
    // no effect on the text.
    return snprintf_s(buffer + len, size - len, size - len - 1,
                      "  %04d:%02d:%02d(%03d) %#10s 0x%08x 0x%08x %5d %s\n", t / kPerHour,
                      inHour / 60, inHour % 60, (t % kPerSecond) * 10, kind_text(rec.ulOperate),
                      static_cast<uint32_t>(rec.ulParam1), static_cast<uint32_t>(rec.ulParam2),
                      rec.ulTid, rec.szTName) >= 0;
}

}  // namespace

extern "C" {

// Zero at load, without any initialiser code: a plain global of static storage.
OperateHistory s_stOperateHistory;

int32_t ZEPO_InitOperateHistory(void) {
    (void)memset_s(&s_stOperateHistory, sizeof s_stOperateHistory, 0, sizeof s_stOperateHistory);
    return 0;
}

void ZEPO_AddOperateRec(const OperateRec *record) {
    // Compared unsigned, so an index no add makes (a negative one written by a caller)
    // goes to slot 0 like a full ring, instead of outside the ring.
    const uint32_t index = static_cast<uint32_t>(s_stOperateHistory.lIndex);
    const uint32_t slot = index < static_cast<uint32_t>(kSlots) ? index : 0;
    // A null record is not refused: the copy clears the slot and the index moves on.
    (void)memcpy_s(&s_stOperateHistory.astRec[slot], sizeof(OperateRec), record,
                   sizeof(OperateRec));
    s_stOperateHistory.lIndex = static_cast<int32_t>(slot + 1);
}

void ZEPO_DumpOperateHistory(char *buffer, uint32_t size) {
    // A null buffer or a bad size makes both calls refuse without writing.
    (void)memset_s(buffer, size, 0, size);
    if (snprintf_s(buffer, size, size - 1,
                   "iTrove Operate History: \n  %#14s  %#10s %#10s %#10s %#5s %s\n", "Time",
                   "Operate", "Param1", "Param2", "Tid", "TName") < 0)
        return;

    // The index is 1 to 512 once the ring has wrapped, so w + 511 down to w names the
    // newest slot first and the oldest last.  The arithmetic is unsigned (it wraps for an
    // index no add makes); k and its remainder are signed.
    const uint32_t w = static_cast<uint32_t>(s_stOperateHistory.lIndex);
    for (uint32_t step = 0; step < static_cast<uint32_t>(kSlots); ++step) {
        const int32_t k = static_cast<int32_t>(w + (kSlots - 1) - step);
        int32_t slot = k % kSlots;
        if (slot < 0) slot += kSlots;  // only for an index no add makes
        const OperateRec &rec = s_stOperateHistory.astRec[slot];
        if (rec.ulOperate == ZEPO_OPERATE_NONE) continue;
        if (!append_line(buffer, size, rec)) return;
    }
}

}  // extern "C"
