// string_s.cpp - bounds-checked strncpy_s, strcat_s, strncat_s and strtok_s.
//
// A "reset" in this file only ever clears the first byte of the destination, so a
// refused call leaves an empty string behind and every other byte as it was.

#include "qel_bounds.h"

#include <cstdint>

#include "bounds_internal.h"

using qel_bounds::dest_size_invalid;
using qel_bounds::kMaxSize;

namespace {

std::uintptr_t addr(const char *p) { return reinterpret_cast<std::uintptr_t>(p); }

errno_t reset_first(char *strDest, errno_t status) {
    strDest[0] = '\0';
    return status;
}

// The checks strncpy_s, strcat_s and strncat_s make first, in this order: destination
// size, destination, source.  EOK when all pass.
errno_t check_string_args(char *strDest, size_t destMax, const char *strSrc) {
    if (dest_size_invalid(destMax)) {
        return ERANGE;
    }
    if (strDest == nullptr) {
        return EINVAL;
    }
    if (strSrc == nullptr) {
        return reset_first(strDest, EINVAL_AND_RESET);
    }
    return EOK;
}

// Appends srcLen characters of strSrc and a terminator to the string of length destLen
// in strDest, after the overlap and room checks shared by strcat_s and strncat_s.
// destLen == destMax means strDest holds no terminator within destMax bytes.
errno_t append_checked(char *strDest, size_t destMax, size_t destLen, const char *strSrc,
                       size_t srcLen) {
    const bool unterminated = destLen == destMax;
    const std::uintptr_t d = addr(strDest);
    const std::uintptr_t s = addr(strSrc);

    // The source may not reach into the destination's current string plus the
    // appended part, nor may the destination start inside the source string.
    const bool overlap = (d < s && d + destLen + srcLen >= s) || (s < d && s + srcLen >= d);
    if (overlap) {
        // With an unterminated destination a source beyond its end is a plain bad argument.
        const bool beyondDest = s >= d + destMax;
        return reset_first(strDest,
                           unterminated && beyondDest ? EINVAL_AND_RESET : EOVERLAP_AND_RESET);
    }
    if (destLen + srcLen >= destMax || strDest == strSrc) {
        return reset_first(strDest, unterminated ? EINVAL_AND_RESET : ERANGE_AND_RESET);
    }
    memcpy(strDest + destLen, strSrc, srcLen);
    strDest[destLen + srcLen] = '\0';
    return EOK;
}

}  // namespace

errno_t strncpy_s(char *strDest, size_t destMax, const char *strSrc, size_t count) {
    if (const errno_t bad = check_string_args(strDest, destMax, strSrc); bad != EOK) {
        return bad;
    }
    if (count > kMaxSize) {
        return reset_first(strDest, ERANGE_AND_RESET);
    }
    if (count == 0) {
        return reset_first(strDest, EOK);
    }

    size_t n = 0;
    if (count < destMax) {
        // A longer source is cut to count characters; that is not an error.
        n = strnlen(strSrc, count);
    } else {
        // The whole source must fit together with its terminator.
        n = strnlen(strSrc, destMax);
        if (n == destMax) {
            return reset_first(strDest, ERANGE_AND_RESET);
        }
    }

    if (strDest != strSrc) {
        // The terminator written at strDest[n] must not land on the source either,
        // so a source ending exactly where the destination starts is refused.
        const std::uintptr_t d = addr(strDest);
        const std::uintptr_t s = addr(strSrc);
        const bool separate = (s < d && s + n < d) || (d < s && d + n < s);
        if (!separate) {
            return reset_first(strDest, EOVERLAP_AND_RESET);
        }
        memcpy(strDest, strSrc, n);
    }
    strDest[n] = '\0';
    return EOK;
}

errno_t strcat_s(char *strDest, size_t destMax, const char *strSrc) {
    if (const errno_t bad = check_string_args(strDest, destMax, strSrc); bad != EOK) {
        return bad;
    }
    const size_t destLen = strnlen(strDest, destMax);
    // Never scan the source further than the free space could take.
    const size_t srcLen = strnlen(strSrc, destMax - destLen);
    return append_checked(strDest, destMax, destLen, strSrc, srcLen);
}

errno_t strncat_s(char *strDest, size_t destMax, const char *strSrc, size_t count) {
    if (const errno_t bad = check_string_args(strDest, destMax, strSrc); bad != EOK) {
        return bad;
    }
    if (count > kMaxSize) {
        return reset_first(strDest, ERANGE_AND_RESET);
    }
    const size_t destLen = strnlen(strDest, destMax);
    const size_t srcLen = strnlen(strSrc, count);
    // count == 0 still goes through the overlap and room checks below.
    return append_checked(strDest, destMax, destLen, strSrc, srcLen);
}

char *strtok_s(char *strToken, const char *strDelimit, char **context) {
    if (context == nullptr || strDelimit == nullptr) {
        return nullptr;
    }
    if (strToken == nullptr && *context == nullptr) {
        return nullptr;
    }
    // A new string makes the old context irrelevant (it may be uninitialised).
    char *p = strToken != nullptr ? strToken : *context;

    p += strspn(p, strDelimit);
    if (*p == '\0') {
        // Exhausted: rest on the terminator so later calls keep returning NULL.
        *context = p;
        return nullptr;
    }

    char *token = p;
    p += strcspn(p, strDelimit);
    if (*p != '\0') {
        // Only the one delimiter that ends this token is overwritten.
        *p = '\0';
        *context = p + 1;
    } else {
        *context = p;
    }
    return token;
}
