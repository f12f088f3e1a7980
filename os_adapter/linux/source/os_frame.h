// os_frame.h - the frame every wrapper family stands on (internal, never installed).
//
// A wrapper reads as three lines: check, call, return.
//
//   if (!qel::accepted(qel::text(path), record)) return qel::kRefused;
//   return mkdir(path, mode);
//
// Checks: a text argument (path, name, mode) is wrapped in qel::text() and refused when
// null or empty, as measured by ZEPO_StrLen; any other pointer is refused when null;
// integers are never checked.  A refusal calls nothing and leaves errno alone.
//
// Failure trace: qel::traced(status) prints "Operate fail[%d]: File: %s Line: %d \n"
// for a non-zero status of a bounds-checked call, naming the caller's source file and
// line, and hands the status back; the caller carries on.
//
// Heap: qel::heap_alloc / heap_zalloc / heap_free and qel::HeapPtr go through the
// memory entry points with memory type 0 and the caller's source position, so the
// tracked allocator sees every block of the library.
#ifndef QEL_OS_FRAME_H
#define QEL_OS_FRAME_H

#include <cstdarg>
#include <cstdint>
#include <source_location>

#include "qel_file.h"
#include "qel_frame.h"
#include "qel_memory.h"
#include "qel_mutex.h"
#include "qel_string.h"

namespace qel {

using Where = std::source_location;

// ---- Refusal values --------------------------------------------------------------

// Functions returning a signed 32-bit status or count.
inline constexpr int32_t kRefused = -1;
// Bytes or items moved by ZEPO_Fread, ZEPO_Fwrite, ZEPO_Sendto, ZEPO_Recvfrom.
inline constexpr uint32_t kRefusedMoved = 0;
// The 64-bit results of ZEPO_TellDir, ZEPO_Ftell, ZEPO_Read, ZEPO_Write, ZEPO_Send and
// ZEPO_Recv: all ones in the low 32 bits and zero above, not -1.  Callers compare the
// low 32 bits with -1; one that compares the whole value does not see the refusal.
// Kept exactly so for the applications built against it.
inline constexpr int64_t kRefused64 = 0xFFFFFFFFLL;

// ---- Argument checks -------------------------------------------------------------

// A text argument, refused when null or empty.
struct Text {
    const char *s;
};
constexpr Text text(const char *s) { return Text{s}; }

inline bool passes(Text t) { return ZEPO_StrLen(t.s) != 0; }

// A handle, stream, buffer or output-record argument, refused when null only.
template <typename T>
constexpr bool passes(T *p) {
    return p != nullptr;
}

// True when every argument passes its check; evaluated left to right, stopping at the
// first refusal.
template <typename... Args>
bool accepted(Args... args) {
    return (passes(args) && ...);
}

// ---- Failure trace ---------------------------------------------------------------

// Prints the failure trace line through ZEPO_Printf when status is non-zero and returns
// status unchanged: qel::traced(memcpy_s(dst, n, src, n)).
int traced(int status, Where where = Where::current());

// ---- Heap ------------------------------------------------------------------------

inline void *heap_alloc(uint32_t size, Where w = Where::current()) {
    return ZEPO_MemTypeMallocD(size, 0, w.line(), w.file_name());
}

// A block filled with zero bytes.
inline void *heap_zalloc(uint32_t size, Where w = Where::current()) {
    return ZEPO_MemTypeMallocS(size, 0, 0, w.line(), w.file_name());
}

inline void heap_free(void *p, Where w = Where::current()) {
    ZEPO_MemTypeFreeD(p, 0, w.line(), w.file_name());
}

// Owns one block of the entry points and releases it on every path out of the scope,
// unless release() hands it on.
template <typename T>
class HeapPtr {
public:
    explicit HeapPtr(T *p, Where w = Where::current()) : p_(p), where_(w) {}
    ~HeapPtr() {
        if (p_ != nullptr) heap_free(p_, where_);
    }
    HeapPtr(const HeapPtr &) = delete;
    HeapPtr &operator=(const HeapPtr &) = delete;

    T *get() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    // Releases the block held, if any, and holds p instead.
    void reset(T *p) {
        if (p_ != nullptr) heap_free(p_, where_);
        p_ = p;
    }
    T *release() {
        T *p = p_;
        p_ = nullptr;
        return p;
    }

private:
    T *p_;
    Where where_;
};

// ---- Locks -----------------------------------------------------------------------

// Holds a ZEPO_MUTEX record for the life of the object (lock results are not tested).
class MutexHold {
public:
    explicit MutexHold(ZEPO_MUTEX *mutex) : mutex_(mutex) { ZEPO_MutexLock(mutex_); }
    ~MutexHold() { ZEPO_MutexUnLock(mutex_); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

private:
    ZEPO_MUTEX *mutex_;
};

// ---- Descriptors -----------------------------------------------------------------

// Owns a descriptor (or a socket) and closes it through ZEPO_Close on every path out of
// the scope; a negative value owns nothing.
class Descriptor {
public:
    explicit Descriptor(int32_t fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ZEPO_Close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int32_t get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int32_t fd_;
};

// ---- Variable arguments ----------------------------------------------------------

// A va_list that is ended on every path out of its scope; start or copy it into ap.
struct VaList {
    va_list ap;
    VaList() = default;
    VaList(const VaList &) = delete;
    VaList &operator=(const VaList &) = delete;
    ~VaList() { va_end(ap); }
};

}  // namespace qel

#endif  // QEL_OS_FRAME_H
