// bounds_internal.h - what the bounds-checked functions share (never installed).
#ifndef QEL_BOUNDS_INTERNAL_H
#define QEL_BOUNDS_INTERNAL_H

#include <cstddef>

#include "qel_bounds.h"

namespace qel_bounds {

// The largest string size and the largest memory size alike; both limits are inclusive.
constexpr size_t kMaxSize = QEL_SECUREC_MAX;

// A destination size the functions refuse before looking at anything else.
constexpr bool dest_size_invalid(size_t destMax) { return destMax == 0 || destMax > kMaxSize; }

}  // namespace qel_bounds

#endif  // QEL_BOUNDS_INTERNAL_H
