// os_run_config.cpp - system statistics read from /proc: processor busy rates, memory
// figures, and a process's threads.
//
// Every file is read the same way: opened with "rb" through ZEPO_Fopen, one read of at
// most 512 bytes into a cleared buffer, closed.  Folders are walked through ZEPO_OpenDir
// and ZEPO_ReadDir_S (the rates) or listed with ZEPO_ScanDir (the threads).  Going through
// the library's own entry points, never the C library, keeps one door to the file system.
//
// Nothing is kept between calls and no lock is taken.  Every block comes from the memory
// entry points with this file's source position; the work arrays are released on every
// path out, and the lists handed back belong to the caller.

#include <dirent.h>

#include <cstddef>
#include <cstdint>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_file.h"
#include "qel_frame.h"
#include "qel_memory.h"
#include "qel_stats.h"
#include "qel_string.h"
#include "qel_thread.h"

static_assert(sizeof(ZEPO_OS_PROC_INFO) == 24);
static_assert(offsetof(ZEPO_OS_PROC_INFO, value) == 20);
static_assert(sizeof(ZEPO_OS_THREAD_INFO) == 8);
static_assert(offsetof(ZEPO_OS_THREAD_INFO, state) == 4);

namespace {

// ---- Result codes and texts ----------------------------------------------------------

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kNothing = 1;  // nothing to report, or no memory
constexpr uint32_t kProcFailed = 2;
constexpr uint32_t kBadArgument = 3;

constexpr const char *kTraceFormat = "%s,%s \n";
constexpr const char *kOpenFailed = "Open proc file system failed";
constexpr const char *kNotFound = "Can not find this process: ";

// The trace line with a message (or null) and a null second part.
void trace(const char *message) { ZEPO_Printf(kTraceFormat, message, nullptr); }

// ---- Reading one file ----------------------------------------------------------------

constexpr uint32_t kReadSize = 512;
constexpr uint32_t kPathSize = 512;

// The longest command name kept: the kernel's 15 characters and its two parentheses.
constexpr uint32_t kNameMax = 17;
constexpr uint32_t kNameSize = kNameMax + 1;

// One read of at most 512 bytes.  The buffer is larger than the read and cleared first,
// so the text is always terminated and a name of 17 characters copied from just after a
// "(" near the end of the text stays inside the buffer.
struct FileText {
    char text[kReadSize + kNameSize + 1];
};

// Reads path into file.  False when the file cannot be opened.
bool read_file(const char *path, FileText &file) {
    (void)memset_s(file.text, sizeof file.text, 0, sizeof file.text);
    FILE *stream = ZEPO_Fopen(path, "rb");
    if (stream == nullptr) return false;
    (void)ZEPO_Fread(file.text, 1, kReadSize, stream);
    (void)ZEPO_Fclose(stream);
    return true;
}

// The command name: the text between the first "(" and the first ")", at most 17
// characters.  The length is unsigned 32-bit, so a ")" that comes before the "(" gives a
// huge length that is cut to 17.  The copy goes through memcpy_s with the destination's
// size equal to the length, so an empty name "()" fails the copy; name is terminated
// whatever the copy did.  Returns the copy's status.
int copy_name(const char *open, const char *close, char *name) {
    uint32_t length = static_cast<uint32_t>(close - open - 1);
    if (length > kNameMax) length = kNameMax;
    const int status = memcpy_s(name, length, open + 1, length);
    name[length] = '\0';
    return status;
}

bool is_gap(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Steps over count gaps from p: each gap begins at the next blank and runs over the
// whitespace that follows it.  Null when a blank is missing.  The walks start just after
// "(", inside the command name, so a name holding a blank takes one gap of the count.
const char *skip_gaps(const char *p, int count) {
    for (int i = 0; i < count; ++i) {
        p = ZEPO_StrStr(p, " ");
        if (p == nullptr) return nullptr;
        while (is_gap(*p)) ++p;
    }
    return p;
}

// Two decimal numbers, the second read from where the first ended, added and cut to 32
// bits.
uint32_t sum_of_two_numbers(const char *p) {
    char *end = nullptr;
    const uint64_t first = ZEPO_Strtoul(p, &end, 10);
    const uint64_t second = ZEPO_Strtoul(end, nullptr, 10);
    return static_cast<uint32_t>(first + second);
}

// ---- Processor samples ---------------------------------------------------------------

// The first four counters of the aggregate "cpu " line of /proc/stat.  Sums wrap in 32
// bits, as the differences of two samples expect.
struct ProcessorSample {
    uint32_t user = 0;
    uint32_t nice = 0;
    uint32_t system = 0;
    uint32_t idle = 0;

    uint32_t busy() const { return user + nice + system; }
    uint32_t all() const { return user + nice + system + idle; }
};

// 0, 1 when nothing follows "cpu ", or 2.  "cpu " with its blank, so that the lines of the
// single processors (cpu0, cpu1 ...) are never taken.  A line with fewer than four
// numbers is accepted: the counters not read keep their zeros.
uint32_t sample_processors(ProcessorSample &sample) {
    FileText file;
    if (!read_file("/proc/stat", file)) return kProcFailed;
    const char *line = ZEPO_StrStr(file.text, "cpu ");
    if (line == nullptr) return kProcFailed;
    if (sscanf_s(line, "cpu %u %u %u %u", &sample.user, &sample.nice, &sample.system,
                 &sample.idle) < 0) {
        return kNothing;
    }
    return kSuccess;
}

// busy * 10000 / total, hundredths of a percent, all in unsigned 32-bit arithmetic.  A
// total of zero is not guarded: on a running system one second always advances the
// counters, and a caller that sees a stopped clock is better stopped with it (SIGFPE).
constexpr uint32_t kRateScale = 10000;
uint32_t rate_of(uint32_t busy, uint32_t total) { return busy * kRateScale / total; }

// ---- Processes ----------------------------------------------------------------------

// Gaps from inside the command name to field 14 (user ticks; system ticks follow) and to
// field 23 (virtual size in bytes; resident pages follow) of /proc/<pid>/stat.
constexpr int kGapsToTicks = 12;
constexpr int kGapsToMemory = 21;

// Reads the command name and the processor ticks (user + system) of process pid.
// 0, 2 when the file cannot be formatted, opened or walked, 3 when the name cannot be
// copied.
uint32_t read_process(const char *pid, char *name, uint32_t *ticks) {
    char path[kPathSize];
    if (sprintf_s(path, sizeof path, "/proc/%s/stat", pid) < 0) return kProcFailed;
    FileText file;
    if (!read_file(path, file)) return kProcFailed;
    const char *open = ZEPO_StrStr(file.text, "(");
    const char *close = ZEPO_StrStr(file.text, ")");
    if (open == nullptr || close == nullptr) return kProcFailed;
    if (copy_name(open, close, name) != 0) return kBadArgument;
    const char *field = skip_gaps(open + 1, kGapsToTicks);
    if (field == nullptr) return kProcFailed;
    *ticks = sum_of_two_numbers(field);
    return kSuccess;
}

// Walks /proc through ZEPO_OpenDir and ZEPO_ReadDir_S; closed on every path out.
class ProcFolder {
public:
    ProcFolder() = default;
    ~ProcFolder() { close(); }
    ProcFolder(const ProcFolder &) = delete;
    ProcFolder &operator=(const ProcFolder &) = delete;

    bool open() {
        dir_ = ZEPO_OpenDir("/proc");
        return dir_ != nullptr;
    }
    void close() {
        if (dir_ != nullptr) (void)ZEPO_CloseDir(dir_);
        dir_ = nullptr;
    }
    // The next entry's name, or null at the end.
    const char *next() {
        struct dirent *entry = nullptr;
        if (ZEPO_ReadDir_S(dir_, sizeof(struct dirent), &entry) != 0 || entry == nullptr) {
            return nullptr;
        }
        return entry->d_name;
    }

private:
    DIR *dir_ = nullptr;
};

// The rates take every entry whose name begins with a digit for a process.
bool begins_with_digit(const char *name) { return name[0] >= '0' && name[0] <= '9'; }

// An array of the memory entry points, released on every path out unless handed on.
template <typename T>
class Array {
public:
    T &operator[](uint32_t i) { return items_.get()[i]; }
    T *release() { return items_.release(); }

    // Replaces the block by a new one of capacity entries that starts with the first kept
    // entries of the old one.  False, with the old block kept, when no memory is left or
    // the copy fails; a capacity of 0 asks for nothing and so fails too.
    bool resize(uint32_t capacity, uint32_t kept) {
        const uint32_t bytes = capacity * static_cast<uint32_t>(sizeof(T));
        qel::HeapPtr<T> items(static_cast<T *>(qel::heap_alloc(bytes)));
        if (!items) return false;
        if (kept > 0 && memcpy_s(items.get(), bytes, items_.get(),
                                 kept * static_cast<uint32_t>(sizeof(T))) != 0)
            return false;
        items_.reset(items.release());
        return true;
    }

private:
    qel::HeapPtr<T> items_{nullptr};
};

// The per-process work arrays grow by 20 entries at a time.
constexpr uint32_t kGrowStep = 20;

bool grow_processes(Array<ZEPO_OS_PROC_INFO> &work, uint32_t gathered) {
    return work.resize((gathered / kGrowStep + 1) * kGrowStep, gathered);
}

// Hands the first n entries of work to the caller in an array of exactly n entries.
// 1 when n is 0 or no memory is left.
uint32_t hand_over(Array<ZEPO_OS_PROC_INFO> &work, uint32_t n, uint32_t *count,
                   ZEPO_OS_PROC_INFO **list) {
    Array<ZEPO_OS_PROC_INFO> result;
    if (!result.resize(n, 0)) return kNothing;
    const uint32_t bytes = n * static_cast<uint32_t>(sizeof(ZEPO_OS_PROC_INFO));
    (void)memcpy_s(&result[0], bytes, &work[0], bytes);
    *list = result.release();
    *count = n;
    return kSuccess;
}

void swap_entries(ZEPO_OS_PROC_INFO &a, ZEPO_OS_PROC_INFO &b) {
    ZEPO_OS_PROC_INFO scratch;
    (void)memcpy_s(&scratch, sizeof scratch, &a, sizeof a);
    (void)memcpy_s(&a, sizeof a, &b, sizeof b);
    (void)memcpy_s(&b, sizeof b, &scratch, sizeof scratch);
}

// ---- Process and thread enumeration --------------------------------------------------

// A listing of ZEPO_ScanDir (no filter, no sorting), released through
// ZEPO_DestoryNameList on every path out unless kept on purpose.
class Listing {
public:
    Listing() = default;
    ~Listing() { release(); }
    Listing(const Listing &) = delete;
    Listing &operator=(const Listing &) = delete;

    int32_t scan(const char *path) {
        count_ = ZEPO_ScanDir(path, &entries_, nullptr, nullptr);
        if (count_ < 0) entries_ = nullptr;
        return count_;
    }
    uint32_t size() const { return count_ > 0 ? static_cast<uint32_t>(count_) : 0; }
    const char *name(uint32_t i) const { return entries_[i]->d_name; }
    void release() {
        if (entries_ != nullptr) ZEPO_DestoryNameList(entries_, size());
        entries_ = nullptr;
    }
    // Leaves the listing to the process: see the parent's path in find_target.
    void abandon() { entries_ = nullptr; }

private:
    struct dirent **entries_ = nullptr;
    int32_t count_ = 0;
};

// A process-number entry: its name is all decimal digits (the run of digits from the
// first character is as long as the name).
bool is_process_number(const char *name) {
    uint32_t digits = 0;
    while (name[digits] >= '0' && name[digits] <= '9') ++digits;
    return digits == ZEPO_StrLen(name);
}

// The fields of a stat file as "%d %s %c %d %d" reads them: the command word keeps its
// parentheses and holds no blank; a longer word does not fit and ends the scan.
struct StatFields {
    int32_t pid = 0;
    char command[kNameSize] = {};
    char letter = '\0';
    int32_t parent = 0;
    int32_t group = 0;
};

enum class StatFile { kUnformatted, kUnopened, kRead };

// Reads /proc/<pid>/stat into file; path receives the path.
StatFile read_stat_file(int32_t pid, char (&path)[kPathSize], FileText &file) {
    if (sprintf_s(path, sizeof path, "/proc/%d/stat", pid) < 1) return StatFile::kUnformatted;
    if (!read_file(path, file)) return StatFile::kUnopened;
    return StatFile::kRead;
}

// The number of fields read, as sscanf_s counts them (below 1: nothing usable).
int scan_process(const FileText &file, StatFields &f) {
    return sscanf_s(file.text, "%d %s %c %d %d", &f.pid, f.command, sizeof f.command, &f.letter,
                    sizeof f.letter, &f.parent, &f.group);
}

int scan_thread(const FileText &file, StatFields &f) {
    return sscanf_s(file.text, "%d %s %c %d", &f.pid, f.command, sizeof f.command, &f.letter,
                    sizeof f.letter, &f.parent);
}

int scan_parent(const FileText &file, StatFields &f) {
    return sscanf_s(file.text, "%d %s", &f.pid, f.command, sizeof f.command);
}

// Reads and scans the stat file of a process-number entry for the searches: false when
// the path cannot be formatted, the file cannot be opened (traced with the path) or
// nothing can be scanned.
bool read_process_fields(int32_t pid, StatFields &f) {
    char path[kPathSize];
    FileText file;
    switch (read_stat_file(pid, path, file)) {
        case StatFile::kUnformatted: return false;
        case StatFile::kUnopened: ZEPO_Printf(kTraceFormat, kOpenFailed, path); return false;
        case StatFile::kRead: break;
    }
    return scan_process(file, f) >= 1;
}

// name matches the command word "(C)" when it is C, or when C has the kernel's maximum of
// 15 characters and name begins with them.
constexpr uint32_t kKernelNameMax = 15;
bool name_matches(const char *name, const char *command) {
    const uint32_t nameLength = ZEPO_StrLen(name);
    const uint32_t commandLength = ZEPO_StrLen(command);
    if (nameLength + 2 == commandLength && ZEPO_StrNCmp(name, command + 1, nameLength) == 0) {
        return true;
    }
    return commandLength == kKernelNameMax + 2 &&
           ZEPO_StrNCmp(name, command + 1, kKernelNameMax) == 0;
}

int32_t state_code(char letter) {
    switch (letter) {
        case 'R': return ZEPO_OS_THREAD_RUNNING;
        case 'S': return ZEPO_OS_THREAD_SLEEPING;
        case 'D': return ZEPO_OS_THREAD_DISK;
        case 'T': return ZEPO_OS_THREAD_STOPPED;
        case 'W': return ZEPO_OS_THREAD_PAGING;
        default: return ZEPO_OS_THREAD_OTHER;
    }
}

// How the search for the process ended.
enum class Search {
    kFound,
    kNotFound,           // traced by the caller, result 2
    kParentUnreadable,   // result 2, no trace
    kParentUnformatted,  // result 3
};

struct Target {
    Search outcome;
    int32_t pid;
    char letter;
};

// The first process of that name, in listing order, whose parent has another name.
Target find_target(Listing &procs, const char *name) {
    for (uint32_t i = 0; i < procs.size(); ++i) {
        if (!is_process_number(procs.name(i))) continue;
        const int32_t pid = ZEPO_StrToInt(procs.name(i));
        StatFields candidate;
        if (!read_process_fields(pid, candidate)) continue;
        if (!name_matches(name, candidate.command)) continue;

        char path[kPathSize];
        FileText file;
        switch (read_stat_file(candidate.parent, path, file)) {
            case StatFile::kUnformatted:
                // The listing is deliberately left unreleased on this path, as it always has
                // been; formatting a number into 512 bytes does not fail in practice.
                procs.abandon();
                return Target{Search::kParentUnformatted, 0, '\0'};
            case StatFile::kUnopened:
                // A parent that cannot be read ends the search, also for a process whose
                // parent number is 0 (the first process of the system).
                return Target{Search::kParentUnreadable, 0, '\0'};
            case StatFile::kRead: break;
        }
        StatFields parent;
        if (scan_parent(file, parent) < 1) break;
        // A worker forked by a server of the same name: the server is the one reported.
        if (name_matches(name, parent.command)) continue;
        return Target{Search::kFound, pid, candidate.letter};
    }
    return Target{Search::kNotFound, 0, '\0'};
}

// The task folder's way: one entry per thread, each read from its own top-level stat
// file.  Returns 1 when the listing cannot be turned into an array (an empty one asks
// for nothing and gets nothing).
uint32_t list_tasks(const Listing &tasks, uint32_t *count, ZEPO_OS_THREAD_INFO **list) {
    Array<ZEPO_OS_THREAD_INFO> threads;
    if (!threads.resize(tasks.size(), 0)) return kNothing;
    uint32_t n = 0;
    for (uint32_t i = 0; i < tasks.size(); ++i) {
        if (!is_process_number(tasks.name(i))) continue;
        const int32_t tid = ZEPO_StrToInt(tasks.name(i));
        char path[kPathSize];
        FileText file;
        const StatFile read = read_stat_file(tid, path, file);
        if (read == StatFile::kUnformatted) continue;
        if (read == StatFile::kUnopened) {
            trace(kOpenFailed);  // a thread that ended after the listing
            continue;
        }
        StatFields f;
        if (scan_thread(file, f) < 1) continue;
        threads[n] = ZEPO_OS_THREAD_INFO{tid, state_code(f.letter)};
        ++n;
    }
    *list = threads.release();
    *count = n;
    return kSuccess;
}

// The old model without task folders, where threads are processes of the same name.
// The array grows by one entry per match, a copy each time: the path serves only such
// old systems.
class ThreadProcesses {
public:
    bool start(int32_t pid, char letter) { return append(pid, letter); }

    // Appends every process of the listing named name whose parent is parent; the last
    // one appended is remembered in *last.  False when the array cannot grow.
    bool append_children(const Listing &procs, const char *name, int32_t parent, int32_t *last) {
        for (uint32_t i = 0; i < procs.size(); ++i) {
            if (!is_process_number(procs.name(i))) continue;
            const int32_t pid = ZEPO_StrToInt(procs.name(i));
            StatFields f;
            if (!read_process_fields(pid, f)) continue;
            if (f.parent != parent || !name_matches(name, f.command)) continue;
            if (!append(pid, f.letter)) return false;
            *last = pid;
        }
        return true;
    }

    void hand_over(uint32_t *count, ZEPO_OS_THREAD_INFO **list) {
        *list = items_.release();
        *count = n_;
    }

private:
    bool append(int32_t pid, char letter) {
        if (!items_.resize(n_ + 1, n_)) return false;
        items_[n_] = ZEPO_OS_THREAD_INFO{pid, state_code(letter)};
        ++n_;
        return true;
    }

    Array<ZEPO_OS_THREAD_INFO> items_;
    uint32_t n_ = 0;
};

// The target itself, then the thread manager (the last process of the same name whose
// parent is the target), then the manager's children of the same name.
uint32_t list_thread_processes(const Listing &procs, const char *name, const Target &target,
                               uint32_t *count, ZEPO_OS_THREAD_INFO **list) {
    ThreadProcesses threads;
    if (!threads.start(target.pid, target.letter)) return kNothing;
    int32_t manager = 0;  // no process number is 0: none found while it stays so
    if (!threads.append_children(procs, name, target.pid, &manager)) return kNothing;
    int32_t unused = 0;
    if (manager != 0 && !threads.append_children(procs, name, manager, &unused)) {
        return kNothing;
    }
    threads.hand_over(count, list);
    return kSuccess;
}

}  // namespace

extern "C" {

// ---- CPU and memory rates -----------------------------------------------------------

uint32_t ZEPO_OS_GetCPUBusyRateAll(uint32_t *rate) {
    ProcessorSample before;
    ProcessorSample after;
    if (!qel::accepted(rate)) return kBadArgument;
    *rate = 0;
    if (sample_processors(before) != kSuccess) return kProcFailed;
    (void)ZEPO_Sleep(1);
    if (sample_processors(after) != kSuccess) return kProcFailed;
    *rate = rate_of(after.busy() - before.busy(), after.all() - before.all());
    return kSuccess;
}

uint32_t ZEPO_OS_GetCPUBusyRate(uint32_t *count, ZEPO_OS_PROC_INFO **list) {
    char name[kNameSize] = {};
    ProcessorSample before;
    ProcessorSample after;
    if (!qel::accepted(count, list)) return kBadArgument;
    *count = 0;
    *list = nullptr;
    if (sample_processors(before) != kSuccess) return kProcFailed;

    // First pass: every process's name and ticks; each entry's value holds its ticks
    // until the second pass turns it into a rate.
    ProcFolder folder;
    if (!folder.open()) {
        trace(kOpenFailed);
        return kProcFailed;
    }
    const char *entry = folder.next();
    if (entry == nullptr) return kNothing;
    Array<ZEPO_OS_PROC_INFO> work;
    uint32_t n = 0;
    for (; entry != nullptr; entry = folder.next()) {
        if (!begins_with_digit(entry)) continue;
        if (n % kGrowStep == 0 && !grow_processes(work, n)) {
            trace(nullptr);
            break;
        }
        // A process that ended between the listing and the reading fails the whole call.
        if (read_process(entry, work[n].name, &work[n].value) != kSuccess) return kNothing;
        ++n;
    }
    folder.close();
    if (n == 0) return kNothing;

    (void)ZEPO_Sleep(1);
    if (sample_processors(after) != kSuccess) return kProcFailed;
    const uint32_t total = after.all() - before.all();

    // Second pass: processes are matched by command name, not by number, in the order of
    // the folder: entries 0 to m - 1 are matched, the rest wait for a namesake.  A process
    // that cannot be read now ends the pass with what has been matched.
    if (!folder.open()) {
        trace(kOpenFailed);
        return kProcFailed;
    }
    uint32_t m = 0;
    for (entry = folder.next(); entry != nullptr; entry = folder.next()) {
        if (!begins_with_digit(entry)) continue;
        uint32_t ticks = 0;
        if (read_process(entry, name, &ticks) != kSuccess) break;
        for (uint32_t i = m; i < n; ++i) {
            if (ZEPO_StrCmp(work[i].name, name) != 0) continue;
            work[i].value = rate_of(ticks - work[i].value, total);
            swap_entries(work[i], work[m]);
            ++m;
            break;
        }
    }
    folder.close();
    return hand_over(work, m, count, list);
}

uint32_t ZEPO_OS_GetMEMAllocRate(uint32_t *total, uint32_t *free, uint32_t *count,
                                 ZEPO_OS_PROC_INFO **list) {
    if (!qel::accepted(total, free, count, list) || *list != nullptr) {
        trace(nullptr);
        return kBadArgument;
    }
    FileText file;
    *total = 0;
    *free = 0;
    *count = 0;
    if (!read_file("/proc/meminfo", file)) {
        trace(kOpenFailed);
        return kProcFailed;
    }
    // Each number is read from one character past its label; the kernel's padding
    // blanks in front of the number absorb it.
    const char *label = ZEPO_StrStr(file.text, "MemTotal: ");
    if (label == nullptr) return kProcFailed;
    *total = static_cast<uint32_t>(ZEPO_Strtoul(label + 11, nullptr, 10));
    label = ZEPO_StrStr(file.text, "MemFree: ");
    if (label == nullptr) return kProcFailed;
    *free = static_cast<uint32_t>(ZEPO_Strtoul(label + 10, nullptr, 10));

    ProcFolder folder;
    if (!folder.open()) {
        trace(kOpenFailed);
        return kProcFailed;
    }
    Array<ZEPO_OS_PROC_INFO> work;
    if (!grow_processes(work, 0)) {
        trace(nullptr);
        return kNothing;
    }
    uint32_t n = 0;
    for (const char *entry = folder.next(); entry != nullptr; entry = folder.next()) {
        if (!begins_with_digit(entry)) continue;
        // A failed growth, or a process that ended after the listing, ends the walk with
        // the entries gathered so far.
        if (n > 0 && n % kGrowStep == 0 && !grow_processes(work, n)) {
            trace(nullptr);
            break;
        }
        char path[kPathSize];
        if (sprintf_s(path, sizeof path, "/proc/%s/stat", entry) < 1) break;
        if (!read_file(path, file)) {
            trace(kOpenFailed);
            break;
        }
        const char *open = ZEPO_StrStr(file.text, "(");
        const char *close = ZEPO_StrStr(file.text, ")");
        if (open == nullptr || close == nullptr) return kProcFailed;
        // The copy's status is not tested here: an empty name "()" stays empty.
        (void)copy_name(open, close, work[n].name);
        const char *field = skip_gaps(open + 1, kGapsToMemory);
        if (field == nullptr) return kProcFailed;
        // Virtual size in bytes plus resident size in pages: two units added as they
        // are, a figure to compare processes with, as applications have always read it.
        work[n].value = sum_of_two_numbers(field);
        ++n;
    }
    folder.close();
    return hand_over(work, n, count, list);
}

// ---- Process and thread enumeration --------------------------------------------------

uint32_t ZEPO_OS_GetProcThread(const char *name, uint32_t *count, ZEPO_OS_THREAD_INFO **list) {
    // Only a null name is refused: an empty one is looked for like any other and matches
    // only an empty command "()".
    if (!qel::accepted(name, count, list)) {
        trace(nullptr);
        return kBadArgument;
    }
    *count = 0;
    *list = nullptr;

    Listing procs;
    if (procs.scan("/proc") == -1) {
        char error[64];
        (void)ZEPO_StrError_S(error, sizeof error, ZEPO_GetLastErr());
        ZEPO_Printf("ZEPO_ScanDir ERROR: %s\n", error);
        return kProcFailed;
    }
    const Target target =
        procs.size() < 1 ? Target{Search::kNotFound, 0, '\0'} : find_target(procs, name);
    switch (target.outcome) {
        case Search::kFound: break;
        case Search::kNotFound:
            procs.release();
            ZEPO_Printf(kTraceFormat, kNotFound, name);
            return kProcFailed;
        case Search::kParentUnreadable: return kProcFailed;
        case Search::kParentUnformatted: return kBadArgument;
    }

    char taskPath[kPathSize];
    // Formatting a number into 512 bytes does not fail in practice; if it did, the call
    // would end with 3 as for the parent's path, but with the listing released.
    if (sprintf_s(taskPath, sizeof taskPath, "/proc/%d/task", target.pid) < 1) {
        return kBadArgument;
    }
    Listing tasks;
    if (tasks.scan(taskPath) >= 0) return list_tasks(tasks, count, list);
    return list_thread_processes(procs, name, target, count, list);
}

}  // extern "C"
