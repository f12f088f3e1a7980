// memory_harness.h - what the tests of the tracked allocator share.
//
// The allocator obtains regions, protects guard pages and writes its dump files through
// exported functions (sysMemAlignAlloc, sysMemProtect, sysMemUnProtect, ZEPO_Fopen,
// ZEPO_Remove), which the library calls through the dynamic linker.  A test executable
// that includes this header defines them again in front of the library, so that a test
// can make regions fail, serve them from a pool of its own, count protections and send
// the "/data" dump files into a folder of its own.  By default every call goes on to the
// library, except the dump files: they go to a fresh folder of the process (see
// DataFiles), so that no test writes into the real /data unless it asks to (RealData).
//
// Include it in one test file per executable: it defines functions.
#ifndef QEL_MEMORY_HARNESS_H
#define QEL_MEMORY_HARNESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "qel_os_adapter.h"
#include "test_support.h"

namespace mem_test {

// ---- Regions and guard pages ---------------------------------------------------------------

struct RegionScript {
    std::atomic<int> failNext{0};      // the next n region requests fail
    std::atomic<bool> failAll{false};  // every region request fails
    std::atomic<unsigned> calls{0};    // region requests seen
    std::atomic<uint32_t> lastLength{0};
    std::atomic<uint32_t> lastAlignment{0};
    // Pool: while poolLeft > 0, requests are served from one reserved area, 16 bytes
    // apart, without memory of their own (see serve_from_pool).
    std::atomic<long> poolLeft{0};
    char *pool = nullptr;
    std::atomic<size_t> poolNext{0};
};

inline RegionScript g_regions;

struct ProtectScript {
    std::atomic<unsigned> protects{0};
    std::atomic<unsigned> unprotects{0};
    std::atomic<bool> skip{false};  // count only, call nothing
    std::atomic<void *> lastProtected{nullptr};
    std::atomic<void *> lastUnprotected{nullptr};
};

inline ProtectScript g_protect;

// Makes the next n region requests fail (sysMemAlignAlloc gives NULL).
inline void fail_regions(int n) { g_regions.failNext = n; }
inline void fail_all_regions(bool on = true) { g_regions.failAll = on; }

// Serves the next n region requests from a pool, for reaching the record limit without
// 2000000 real regions: region k starts at pool + 16 k, so a block of 4 bytes or fewer
// (whose slot word, guards and address lie in the 16 bytes from base + 4084) touches only
// its own 16 bytes.  Guard pages are then not protected (the addresses are not page
// boundaries) and such blocks must never be released: their regions are not the heap's.
// The pool is reserved without backing: only the touched pages cost memory.
inline void serve_from_pool(long n) {
    const size_t bytes = static_cast<size_t>(n) * 16 + 2 * 4096;
    void *area = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(area, MAP_FAILED);
    g_regions.pool = static_cast<char *>(area);
    g_regions.poolNext = 0;
    g_regions.poolLeft = n;
    g_protect.skip = true;
}

// Whether a page can be written, probed without writing anything new: the kernel copies
// the byte that is already there into it from a pipe, or refuses with EFAULT.
inline bool writable(const void *address) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    const unsigned char current = *static_cast<const volatile unsigned char *>(address);
    bool result = false;
    if (write(fds[1], &current, 1) == 1) result = read(fds[0], const_cast<void *>(address), 1) == 1;
    close(fds[0]);
    close(fds[1]);
    return result;
}

// ---- Layout ----------------------------------------------------------------------------------

struct Layout {
    uint32_t rounded, span, length;
};

inline Layout layout_of(uint32_t size, uint32_t alignment) {
    const uint32_t rounded = ((size + alignment - 1) / alignment) * alignment;
    const uint32_t span = (rounded + 4103u) & ~4095u;
    return Layout{rounded, span, span + 4096u};
}

inline uint32_t word_at(const void *p, long offset) {
    uint32_t w;
    std::memcpy(&w, static_cast<const char *>(p) + offset, sizeof w);
    return w;
}

// The guard page of a live block of size bytes with the given alignment.
inline char *guard_page(void *p, uint32_t size, uint32_t alignment = 4) {
    return static_cast<char *>(p) + layout_of(size, alignment).rounded;
}

// ---- Dump files ------------------------------------------------------------------------------

// Where "/data/..." paths of ZEPO_Fopen and ZEPO_Remove go.  Off: to /data itself.
struct DataRedirect {
    std::mutex lock;
    bool on = true;
    std::string folder;               // empty: a fresh folder is made at first use
    std::vector<std::string> opened;  // "path|mode" of every /data open
    std::vector<std::string> removed;
};

inline DataRedirect g_data;

// Removes the process's folder of dump files when the process ends.
struct DataFolderCleanup {
    ~DataFolderCleanup() {
        const std::string folder = g_data.folder;
        if (folder.rfind("/tmp/qel_data_", 0) == 0 && folder.find("missing") == std::string::npos)
            ::nftw(folder.c_str(), qel_test::remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
};
inline DataFolderCleanup g_dataCleanup;

inline std::string redirected(const char *path) {
    std::lock_guard<std::mutex> hold(g_data.lock);
    if (path == nullptr || std::strncmp(path, "/data/", 6) != 0 || !g_data.on) return "";
    if (g_data.folder.empty()) {
        char name[] = "/tmp/qel_data_XXXXXX";
        if (mkdtemp(name) != nullptr) g_data.folder = name;
    }
    return g_data.folder + (path + 5);
}

// The path a "/data/..." file is written to in this process.
inline std::string data_path(const char *name) {
    const std::string full = std::string("/data/") + name;
    const std::string moved = redirected(full.c_str());
    return moved.empty() ? full : moved;
}

// Sends the dump files into a folder that does not exist: the dump is then skipped.
inline void data_folder_missing() {
    std::lock_guard<std::mutex> hold(g_data.lock);
    g_data.on = true;
    g_data.folder = "/tmp/qel_data_missing_folder_of_no_test/none";
}

inline std::vector<std::string> data_opens() {
    std::lock_guard<std::mutex> hold(g_data.lock);
    return g_data.opened;
}

inline std::string file_text(const std::string &path);

using qel_test::lines_of;

// The lines of a file; empty when the file cannot be read.
inline std::vector<std::string> file_lines(const std::string &path) {
    return lines_of(file_text(path));
}

inline std::string file_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// The real /data, for tests that must see the files where the tools look for them.  Tests
// of several processes take turns (an exclusive lock on a file of /tmp); /data is made
// when missing and removed again with what this test made in it.
class RealData {
public:
    RealData() {
        lockFd_ = ::open("/tmp/qel_real_data.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (lockFd_ >= 0) (void)flock(lockFd_, LOCK_EX);
        struct stat st;
        if (::stat("/data", &st) != 0) {
            madeFolder_ = ::mkdir("/data", 0755) == 0;
            if (!madeFolder_) ADD_FAILURE() << "cannot make /data: " << std::strerror(errno);
        }
        for (const char *name : {"/data/mem_rec.txt", "/data/out_of_memery.txt"}) {
            if (::stat(name, &st) == 0) {
                // Keep what was there before this test and put it back afterwards.
                const std::string keep = std::string(name) + ".qel_test_saved";
                if (::rename(name, keep.c_str()) == 0) saved_.push_back(name);
            }
        }
        std::lock_guard<std::mutex> hold(g_data.lock);
        g_data.on = false;
    }
    ~RealData() {
        {
            std::lock_guard<std::mutex> hold(g_data.lock);
            g_data.on = true;
        }
        ::unlink("/data/mem_rec.txt");
        ::unlink("/data/out_of_memery.txt");
        for (const std::string &name : saved_)
            (void)::rename((name + ".qel_test_saved").c_str(), name.c_str());
        if (madeFolder_) ::rmdir("/data");
        if (lockFd_ >= 0) ::close(lockFd_);
    }
    RealData(const RealData &) = delete;
    RealData &operator=(const RealData &) = delete;

private:
    int lockFd_ = -1;
    bool madeFolder_ = false;
    std::vector<std::string> saved_;
};

// ---- Report output ---------------------------------------------------------------------------

struct Chunk {
    std::string text;
    uint32_t length;
};

inline std::vector<Chunk> g_chunks;
inline std::mutex g_chunksLock;

// The output function of the tests: keeps every call's text and length.
inline void capture(const char *text, uint32_t length) {
    std::lock_guard<std::mutex> hold(g_chunksLock);
    g_chunks.push_back(Chunk{text, length});
}

// The calls captured since the last take, and forgets them.
inline std::vector<Chunk> take_chunks() {
    std::lock_guard<std::mutex> hold(g_chunksLock);
    std::vector<Chunk> out;
    out.swap(g_chunks);
    return out;
}

// ---- Tables ----------------------------------------------------------------------------------

// The error log's entries, copied.
inline std::vector<MemRec> error_log() {
    MemRec *list = nullptr;
    const uint32_t n = sysMemGetErrMemLog(&list);
    std::vector<MemRec> out(list, list + n);
    std::free(list);
    return out;
}

// An error-log entry: the six fields logging writes, then the ones it leaves as the cleared
// log holds them (zero).
inline void expect_entry(const MemRec &e, const void *address, uint32_t length, const char *file,
                         uint32_t line, uint32_t type, uint32_t status) {
    EXPECT_EQ(e.base, address);
    EXPECT_EQ(e.size, length);
    EXPECT_EQ(e.file, file);
    EXPECT_EQ(e.line, line);
    EXPECT_EQ(e.type, type);
    EXPECT_EQ(e.status, status);
    EXPECT_EQ(e.roundedSize, 0u);
    EXPECT_EQ(e.offset, 0u);
    EXPECT_EQ(e.thread, 0u);
    EXPECT_EQ(e.position, 0u);
    EXPECT_EQ(e.time, 0u);
}

// The live records in position order, copied.
inline std::vector<MemRec> live_records() {
    MemRec *list = nullptr;
    const uint32_t n = sysMemSortMemInfo(&list, nullptr, 2);
    std::vector<MemRec> out(list, list + n);
    std::free(list);
    return out;
}

// The address a record's block was handed out at (for an error entry: its address).
inline void *address_of(const MemRec &r) { return static_cast<char *>(r.base) + r.offset; }

// The record of a live block, copied as it stands (no check runs: its status is the one
// stored last).  A failure when p is not a live block's address.
inline MemRec record(void *p) {
    MemRec *list = nullptr;
    const uint32_t n = sysMemSortMemInfo(&list, nullptr, 2);
    MemRec found{};
    bool seen = false;
    for (uint32_t i = 0; i < n && !seen; ++i) {
        if (address_of(list[i]) == p) {
            found = list[i];
            seen = true;
        }
    }
    std::free(list);
    EXPECT_TRUE(seen) << p << " is not a live block";
    return found;
}

// Memory the allocator never handed out, with a chosen word where a block keeps its slot
// number (address - 8); by default one that names no slot.
inline void *foreign(uint32_t slotWord = 0xFFFFFFFFu) {
    alignas(16) static unsigned char area[64];
    std::memcpy(area + 8, &slotWord, sizeof slotWord);
    return area + 16;
}

// The statistics text of MemGetMemStats for these figures.
inline std::string statistics(uint32_t count, uint32_t highWater, uint32_t userTotal) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "Current mem record cnt: %u\n\rMax mem record cnt: %u\n\rMax mem record limit "
                  ": %u\n\rUser malloc mem:   %u (Bytes)\n\r",
                  count, highWater, 2000000u, userTotal);
    return text;
}

// The report line of a record, as the listing prints it.
inline std::string listing_line(uint32_t recId, const void *address, uint32_t size, uint32_t line,
                                const char *type, const char *status, uint32_t thread) {
    char text[256];
    std::snprintf(text, sizeof text, "%-7u  %-13p %-10u %-5u %s    %-9s %u\r\n", recId, address,
                  size, line, type, status, thread);
    return text;
}

inline const char *const kHeader =
    "\r\nRecID    Address       Length     Line File                            Type   "
    "Status     Thread\r\n";

// Switches the tracked mode on (once per process: each test runs in its own).
inline void track() { ASSERT_EQ(ZEPO_MemInitMemMange(), 0u); }

}  // namespace mem_test

// ---- The definitions in front of the library ---------------------------------------------------

extern "C" {

void *sysMemAlignAlloc(uint32_t alignment, uint32_t size) {
    using mem_test::g_regions;
    g_regions.calls++;
    g_regions.lastLength = size;
    g_regions.lastAlignment = alignment;
    if (g_regions.failAll) return nullptr;
    int pending = g_regions.failNext.load();
    while (pending > 0 && !g_regions.failNext.compare_exchange_weak(pending, pending - 1)) {
    }
    if (pending > 0) return nullptr;
    if (g_regions.poolLeft.fetch_sub(1) > 0)
        return g_regions.pool + 16 * g_regions.poolNext.fetch_add(1);
    g_regions.poolLeft = 0;
    static auto next = qel_test::next_definition<void *(*)(uint32_t, uint32_t)>("sysMemAlignAlloc");
    return next(alignment, size);
}

int32_t sysMemProtect(void *address) {
    mem_test::g_protect.protects++;
    mem_test::g_protect.lastProtected = address;
    if (mem_test::g_protect.skip) return 0;
    static auto next = qel_test::next_definition<int32_t (*)(void *)>("sysMemProtect");
    return next(address);
}

int32_t sysMemUnProtect(void *address) {
    mem_test::g_protect.unprotects++;
    mem_test::g_protect.lastUnprotected = address;
    if (mem_test::g_protect.skip) return 0;
    static auto next = qel_test::next_definition<int32_t (*)(void *)>("sysMemUnProtect");
    return next(address);
}

FILE *ZEPO_Fopen(const char *path, const char *mode) {
    static auto next =
        qel_test::next_definition<FILE *(*)(const char *, const char *)>("ZEPO_Fopen");
    if (path != nullptr && std::strncmp(path, "/data/", 6) == 0) {
        std::lock_guard<std::mutex> hold(mem_test::g_data.lock);
        mem_test::g_data.opened.push_back(std::string(path) + "|" + (mode ? mode : ""));
    }
    const std::string moved = mem_test::redirected(path);
    return next(moved.empty() ? path : moved.c_str(), mode);
}

int32_t ZEPO_Remove(const char *path) {
    static auto next = qel_test::next_definition<int32_t (*)(const char *)>("ZEPO_Remove");
    if (path != nullptr && std::strncmp(path, "/data/", 6) == 0) {
        std::lock_guard<std::mutex> hold(mem_test::g_data.lock);
        mem_test::g_data.removed.push_back(path);
    }
    const std::string moved = mem_test::redirected(path);
    return next(moved.empty() ? path : moved.c_str());
}

}  // extern "C"

#endif  // QEL_MEMORY_HARNESS_H
