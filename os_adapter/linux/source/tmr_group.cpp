// tmr_group.cpp - timer groups: an array of periodic relative timers sharing one call-back,
// addressed by index.
//
// A member is idle (no timer) -> active (its timer created and started) -> idle again after
// a stop, which frees its timer.  Each member's timer is an ordinary relative timer made
// through ZEPO_CreateRelTimerM, so it counts against the limits; its call-back is
// ZEPO_TimeoutFuncOfGrp with the member record as argument.  The group and member records
// are released through ZEPO_FreeRelTimerArg_safe, on the driver thread, after any member
// call-back still under way.  No lock of its own.

#include <cstddef>
#include <cstdint>

#include "os_frame.h"
#include "qel_timer.h"
#include "qel_timer_engine.h"
#include "tmr_engine.h"

static_assert(sizeof(ZEPO_RELTIMER_GRP_MEMBER) == 40);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, index) == 4);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, mode) == 8);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, interval) == 12);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, pfnGroupTimeout) == 16);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, handle) == 24);
static_assert(offsetof(ZEPO_RELTIMER_GRP_MEMBER, active) == 32);
static_assert(sizeof(ZEPO_RELTIMER_GRP) == 24);
static_assert(offsetof(ZEPO_RELTIMER_GRP, valid) == 4);
static_assert(offsetof(ZEPO_RELTIMER_GRP, pfnGroupTimeout) == 8);
static_assert(offsetof(ZEPO_RELTIMER_GRP, members) == 16);

namespace {

constexpr uint32_t kValid = 1;
constexpr uint32_t kModeKept = 0xFF;
constexpr uint32_t kFirstBadMode = 2;
constexpr int32_t kPeriodic = 0;

bool usable(const ZEPO_RELTIMER_GRP *group) { return group != nullptr && group->valid == kValid; }

// The index test of start and stop, on 32-bit unsigned numbers: a group of 0 members
// would take every index (none can be made: see ZEPO_InitReltimerGrp).
bool out_of_range(const ZEPO_RELTIMER_GRP *group, uint32_t index) {
    return index > group->count - 1;
}

// The largest block memset_s clears.
constexpr uint64_t kLargestZeroed = 0x7FFFFFFF;

// count zero-filled records; null when they cannot be had, and for 0 bytes or more than
// can be cleared.
template <typename T>
T *zeroed(uint64_t count) {
    const uint64_t bytes = count * sizeof(T);
    if (bytes == 0 || bytes > kLargestZeroed) return nullptr;
    return static_cast<T *>(qel::heap_zalloc(static_cast<uint32_t>(bytes)));
}

}  // namespace

extern "C" {

uint32_t ZEPO_InitReltimerGrp(ZEPO_RELTIMER_GRP **groupOut, uint32_t count,
                              ZEPO_GRP_TIMEOUT_FUNC pfnGroupTimeout) {
    if (groupOut == nullptr) return ZEPO_GRP_INIT_NULL_OUT;
    if (pfnGroupTimeout == nullptr) return ZEPO_GRP_INIT_NULL_FUNC;
    if (count > qel::timer::load(ulMaxReltmNum)) return ZEPO_GRP_INIT_TOO_MANY;
    qel::HeapPtr<ZEPO_RELTIMER_GRP> group(zeroed<ZEPO_RELTIMER_GRP>(1));
    if (!group) return ZEPO_GRP_INIT_NO_MEMORY;
    group.get()->count = count;
    group.get()->valid = kValid;
    group.get()->pfnGroupTimeout = pfnGroupTimeout;
    // A group of no members has nothing to allocate and is refused with the same code.
    ZEPO_RELTIMER_GRP_MEMBER *members = zeroed<ZEPO_RELTIMER_GRP_MEMBER>(count);
    if (members == nullptr) return ZEPO_GRP_INIT_NO_MEMORY;
    for (uint32_t i = 0; i < count; ++i) members[i].pfnGroupTimeout = pfnGroupTimeout;
    group.get()->members = members;
    *groupOut = group.release();
    return 0;
}

uint32_t ZEPO_StartRelTimerofGrp(ZEPO_RELTIMER_GRP *group, uint32_t index, uint32_t interval,
                                 uint32_t arg, uint32_t mode) {
    if (!usable(group)) return ZEPO_GRP_START_BAD_GROUP;
    if (out_of_range(group, index)) return ZEPO_GRP_START_BAD_INDEX;
    if ((mode & kModeKept) >= kFirstBadMode) return ZEPO_GRP_START_BAD_MODE;
    ZEPO_RELTIMER_GRP_MEMBER *member = &group->members[index];
    if (member->active != 0) return 0;  // running: not restarted with the new interval
    member->arg = arg;
    member->index = index;
    member->mode = mode & kModeKept;
    member->interval = interval;
    member->handle = ZEPO_CreateRelTimerM(ZEPO_TimeoutFuncOfGrp, kPeriodic, __LINE__, __FILE__);
    if (member->handle == nullptr) return ZEPO_GRP_START_FAILED;
    // A timer that does not start stays in the member, which stays idle.
    if (ZEPO_StartRelTimer(member->handle, interval, member) != 0) return ZEPO_GRP_START_FAILED;
    member->active = 1;
    return 0;
}

uint32_t ZEPO_StopRelTimerofGrp(ZEPO_RELTIMER_GRP *group, uint32_t index) {
    if (group == nullptr) return ZEPO_GRP_STOP_NULL_GROUP;
    if (group->valid != kValid) return ZEPO_GRP_STOP_INVALID_GROUP;
    if (out_of_range(group, index)) return ZEPO_GRP_STOP_BAD_INDEX;
    ZEPO_RELTIMER_GRP_MEMBER *member = &group->members[index];
    if (member->active == 0) return ZEPO_GRP_STOP_NOT_ACTIVE;
    if (ZEPO_StopRelTimer_Safe(member->handle, nullptr, nullptr) != 0) return ZEPO_GRP_STOP_FAILED;
    if (ZEPO_FreeRelTimer(member->handle) != 0) return ZEPO_GRP_STOP_FAILED;
    member->handle = nullptr;
    member->active = 0;
    return 0;
}

uint32_t ZEPO_FreeRelTimerGrp(ZEPO_RELTIMER_GRP *group) {
    if (group == nullptr) return ZEPO_GRP_FREE_NULL_GROUP;
    if (group->valid != kValid) return ZEPO_GRP_FREE_INVALID_GROUP;
    // The releases' results are not checked: refused while the engine stops, the memory
    // then stays allocated.
    if (group->members == nullptr) {
        (void)ZEPO_FreeRelTimerArg_safe(group);
        return 0;
    }
    for (uint32_t i = 0; i < group->count; ++i) {
        ZEPO_RELTIMER_GRP_MEMBER *member = &group->members[i];
        if (member->handle == nullptr) continue;
        if (ZEPO_FreeRelTimer(member->handle) != 0) return ZEPO_GRP_FREE_FAILED;
    }
    (void)ZEPO_FreeRelTimerArg_safe(group->members);
    group->members = nullptr;
    (void)ZEPO_FreeRelTimerArg_safe(group);
    return 0;
}

void ZEPO_TimeoutFuncOfGrp(void *member) {
    auto *fired = static_cast<ZEPO_RELTIMER_GRP_MEMBER *>(member);
    if (fired != nullptr && fired->pfnGroupTimeout != nullptr)
        fired->pfnGroupTimeout(fired->index, fired->arg);
}

}  // extern "C"
