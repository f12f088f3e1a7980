// os_fil_config.cpp - last error, error text, printing and the failure trace.
// (The file and directory wrappers join this source.)

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "os_frame.h"

// The C library's fortified formatter and its XSI strerror_r.  Neither is declared by the
// headers in a C++ build: g++ defines _GNU_SOURCE, which selects the GNU strerror_r, and
// __vfprintf_chk is only declared under _FORTIFY_SOURCE.
extern "C" int __vfprintf_chk(FILE *stream, int flag, const char *format, va_list ap);
extern "C" int __xpg_strerror_r(int errnum, char *buf, size_t buflen);

namespace {

// Check level of the fortified formatter, as a _FORTIFY_SOURCE build of the application's
// own printf would use: among its checks, a %n in a format held in writable memory ends
// the process ("*** %n in writable segment detected ***").
constexpr int kFortifyLevel = 1;

}  // namespace

namespace qel {

int traced(int status, Where where) {
    if (status != 0) {
        ZEPO_Printf("Operate fail[%d]: File: %s Line: %d \n", status, where.file_name(),
                    static_cast<int>(where.line()));
    }
    return status;
}

}  // namespace qel

extern "C" {

uint32_t ZEPO_GetLastErr(void) { return static_cast<uint32_t>(errno); }

void ZEPO_SetLastErr(int32_t err) { errno = err; }

uint32_t ZEPO_GetLastSocketErr(void) { return static_cast<uint32_t>(errno); }

int32_t ZEPO_StrError_S(char *buf, uint32_t buflen, uint32_t errnum) {
    // Deliberately unchecked: a null buffer is strerror_r's to judge.
    return __xpg_strerror_r(static_cast<int>(errnum), buf, buflen);
}

int32_t ZEPO_Printf(const char *format, ...) {
    // Only a null format is refused; an empty one prints nothing and gives 0.
    if (!qel::accepted(format)) return qel::kRefused;
    qel::VaList args;
    va_start(args.ap, format);
    return __vfprintf_chk(stdout, kFortifyLevel, format, args.ap);
}

int32_t ZEPO_Fprintf(FILE *stream, const char *format, ...) {
    if (!qel::accepted(stream, qel::text(format))) return qel::kRefused;
    qel::VaList args;
    va_start(args.ap, format);
    return __vfprintf_chk(stream, kFortifyLevel, format, args.ap);
}

}  // extern "C"
