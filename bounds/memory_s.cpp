// memory_s.cpp - bounds-checked memcpy_s and memset_s.
//
// Both functions refuse a destination size of 0 or above QEL_SECUREC_MAX without
// touching the destination, and report every other problem through the status
// value after resetting the destination as documented in qel_bounds.h.

#include "qel_bounds.h"

#include <cstdint>

#include "bounds_internal.h"

using qel_bounds::dest_size_invalid;
using qel_bounds::kMaxSize;

namespace {

// True when [dest, dest + count) and [src, src + count) share a byte.  Compared as
// integers because the two pointers usually belong to different objects.
// A touching region (src + count == dest) is not an overlap.
bool regions_overlap(const void *dest, const void *src, size_t count) {
    const auto d = reinterpret_cast<std::uintptr_t>(dest);
    const auto s = reinterpret_cast<std::uintptr_t>(src);
    return (s < d && s + count > d) || (d < s && d + count > s);
}

}  // namespace

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest_size_invalid(destMax)) {
        return ERANGE;
    }
    if (dest == nullptr) {
        return EINVAL;
    }
    if (src == nullptr) {
        memset(dest, 0, destMax);
        return EINVAL_AND_RESET;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return ERANGE_AND_RESET;
    }
    if (regions_overlap(dest, src, count)) {
        // The reset may wipe part of the source; the caller asked for an invalid copy.
        memset(dest, 0, destMax);
        return EOVERLAP_AND_RESET;
    }
    if (count != 0 && dest != src) {
        memcpy(dest, src, count);
    }
    return EOK;
}

errno_t memset_s(void *dest, size_t destMax, int c, size_t count) {
    // A zero-sized fill of a real buffer is accepted even with destMax == 0.
    if (destMax <= kMaxSize && dest != nullptr && count <= destMax) {
        if (count != 0) {
            memset(dest, static_cast<unsigned char>(c), count);
        }
        return EOK;
    }
    if (dest_size_invalid(destMax)) {
        return ERANGE;
    }
    if (dest == nullptr) {
        return EINVAL;
    }
    // Only count > destMax is left: the whole destination gets the fill byte.
    memset(dest, static_cast<unsigned char>(c), destMax);
    return ERANGE_AND_RESET;
}
