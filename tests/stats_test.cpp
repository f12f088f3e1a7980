// System statistics: processor busy rates, memory figures, processes and their threads.
//
// Two kinds of test.
//
// Against the real /proc the tests start child processes and threads of their own, name
// them (prctl) and put them in the states they assert: stopped, zombie, sleeping,
// spinning.  Every name holds this test process's number, so that two test processes
// running side by side never find each other's children.  Children are killed and reaped
// on every path out of a test, and die with the test process if it dies.
//
// Against a fake /proc the tests write the kernel's files into a temporary folder.  The
// library reaches /proc only through its own entry points, so this executable defines
// ZEPO_Fopen, ZEPO_OpenDir and ZEPO_ScanDir in front of the library to send "/proc" paths
// there, and ZEPO_Sleep to return at once after running a step of the test (the change
// that the second sample sees).  ZEPO_MemTypeMallocD and ZEPO_MemTypeFreeD are defined in
// front as well: they keep the library's live blocks (every test ends with none) and fail
// an allocation on demand; sprintf_s fails a path formatting on demand.

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qel_bounds.h"
#include "qel_file.h"
#include "qel_memory.h"
#include "qel_stats.h"
#include "qel_thread.h"

#include "test_support.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr const char *kStatsSource = "os_adapter/linux/source/os_run_config.cpp";
constexpr const char *kOpenFailedTrace = "Open proc file system failed,(null) \n";
constexpr const char *kNullTrace = "(null),(null) \n";
constexpr uint32_t kUntouched = 0xDEADBEEF;

// ---- Interposition state -------------------------------------------------------------

struct Seams {
    std::string fakeRoot;  // empty: the real /proc
    bool instantSleep = false;
    std::function<void()> onSleep;  // run by an instant sleep
    std::vector<uint32_t> sleeps;
    std::vector<std::string> openModes;  // modes of the /proc files opened
    int failAllocationAt = 0;            // the n-th allocation from now fails (1: the next)
    std::vector<uint32_t> allocationSizes;
    std::set<std::string> allocationFiles;
    std::set<void *> liveBlocks;  // blocks of ZEPO_MemTypeMallocD not yet released
    int failOpenDirAt = 0;        // the n-th ZEPO_OpenDir from now fails
    std::string emptyScanOf;      // a path that ZEPO_ScanDir lists as empty
    std::string failFormat;       // a sprintf_s format ...
    int failFormatAt = 0;         // ... whose n-th use from now fails
};

Seams g;

bool countdown_hits(int &at) { return at > 0 && --at == 0; }

bool is_proc_path(const char *path) {
    return path != nullptr && std::strncmp(path, "/proc", 5) == 0 &&
           (path[5] == '\0' || path[5] == '/');
}

std::string redirected(const char *path) {
    if (g.fakeRoot.empty() || !is_proc_path(path)) return path;
    return g.fakeRoot + (path + 5);
}

}  // namespace

extern "C" FILE *ZEPO_Fopen(const char *path, const char *mode) {
    using Fn = FILE *(*)(const char *, const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_Fopen");
    if (!is_proc_path(path)) return next(path, mode);
    g.openModes.push_back(mode != nullptr ? mode : "(null)");
    return next(redirected(path).c_str(), mode);
}

extern "C" DIR *ZEPO_OpenDir(const char *path) {
    using Fn = DIR *(*)(const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_OpenDir");
    if (countdown_hits(g.failOpenDirAt)) {
        errno = EACCES;
        return nullptr;
    }
    if (!is_proc_path(path)) return next(path);
    return next(redirected(path).c_str());
}

extern "C" int32_t ZEPO_ScanDir(const char *dir, struct dirent ***namelist,
                                int (*filter)(const struct dirent *),
                                int (*compare)(const struct dirent **, const struct dirent **)) {
    using Fn = int32_t (*)(const char *, struct dirent ***, int (*)(const struct dirent *),
                           int (*)(const struct dirent **, const struct dirent **));
    static const auto next = qel_test::next_definition<Fn>("ZEPO_ScanDir");
    if (dir != nullptr && !g.emptyScanOf.empty() && g.emptyScanOf == dir) {
        *namelist = nullptr;
        return 0;
    }
    if (!is_proc_path(dir)) return next(dir, namelist, filter, compare);
    return next(redirected(dir).c_str(), namelist, filter, compare);
}

extern "C" uint32_t ZEPO_Sleep(uint32_t seconds) {
    using Fn = uint32_t (*)(uint32_t);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_Sleep");
    g.sleeps.push_back(seconds);
    if (!g.instantSleep) return next(seconds);
    if (g.onSleep) g.onSleep();
    return 0;
}

extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Fn = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MemTypeMallocD");
    g.allocationSizes.push_back(size);
    g.allocationFiles.insert(file != nullptr ? file : "(null)");
    if (countdown_hits(g.failAllocationAt)) return nullptr;
    void *block = next(size, type, line, file);
    if (block != nullptr) g.liveBlocks.insert(block);
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *block, uint32_t type, uint32_t line, const char *file) {
    using Fn = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = qel_test::next_definition<Fn>("ZEPO_MemTypeFreeD");
    g.liveBlocks.erase(block);
    next(block, type, line, file);
}

extern "C" int sprintf_s(char *dest, size_t destMax, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int result = -1;
    if (format != nullptr && g.failFormat == format && countdown_hits(g.failFormatAt)) {
        if (dest != nullptr && destMax > 0) dest[0] = '\0';
    } else {
        result = vsprintf_s(dest, destMax, format, ap);
    }
    va_end(ap);
    return result;
}

namespace {

// ---- Fixture ---------------------------------------------------------------------------

class Stats : public ::testing::Test {
protected:
    void SetUp() override { g = Seams{}; }
    void TearDown() override {
        EXPECT_TRUE(g.liveBlocks.empty())
            << g.liveBlocks.size() << " block(s) of the library were not released";
        for (const std::string &file : g.allocationFiles) {
            EXPECT_TRUE(file == kStatsSource || file == __FILE__) << "a block charged to " << file;
        }
        g = Seams{};
    }
};

// Allocations of the library since the last clear, in bytes.
std::vector<uint32_t> take_sizes() {
    std::vector<uint32_t> sizes;
    sizes.swap(g.allocationSizes);
    return sizes;
}

void release(void *list) { ZEPO_MemTypeFreeD(list, 0, __LINE__, __FILE__); }

// Allocations made in the scope are not reported as leaks: for the paths that keep a
// block on purpose.
class LeaksIgnored {
public:
#if defined(__SANITIZE_ADDRESS__)
    LeaksIgnored() { __lsan_disable(); }
    ~LeaksIgnored() { __lsan_enable(); }
#else
    LeaksIgnored() {}
    ~LeaksIgnored() {}
#endif
    LeaksIgnored(const LeaksIgnored &) = delete;
    LeaksIgnored &operator=(const LeaksIgnored &) = delete;
};

// ---- Fake /proc ------------------------------------------------------------------------

// A stat line as the kernel writes it.  Field k (4 and up) holds fields[k] when given, else
// k * 100, so that a test can tell which fields were read; field 4 (the parent) is 1
// unless given.
std::string stat_text(int pid, const std::string &comm, char state,
                      const std::map<int, uint64_t> &fields = {}) {
    std::string text = std::to_string(pid) + " (" + comm + ") " + state;
    for (int k = 4; k <= 44; ++k) {
        const auto it = fields.find(k);
        const uint64_t value = it != fields.end() ? it->second : (k == 4 ? 1 : k * 100);
        text += " " + std::to_string(value);
    }
    return text + "\n";
}

// The user and system ticks (fields 14 and 15).
std::map<int, uint64_t> ticks(uint64_t user, uint64_t system) { return {{14, user}, {15, system}}; }

// The virtual size in bytes and the resident pages (fields 23 and 24).
std::map<int, uint64_t> memory(uint64_t vsize, uint64_t rss) { return {{23, vsize}, {24, rss}}; }

std::map<int, uint64_t> parent(int ppid) { return {{4, static_cast<uint64_t>(ppid)}}; }

std::string cpu_text(uint32_t user, uint32_t nice, uint32_t system, uint32_t idle) {
    std::ostringstream text;
    text << "cpu  " << user << ' ' << nice << ' ' << system << ' ' << idle << " 7 0 3 0 0 0\n"
         << "cpu0 1 2 3 4 5 6 7 0 0 0\ncpu1 8 9 10 11 12 13 14 0 0 0\n"
         << "intr 12345 0 0\nctxt 999\n";
    return text.str();
}

// A /proc in a temporary folder, in use while the object lives; sleeps are instant.
class FakeProc {
public:
    FakeProc() : root_(dir_ / "proc") {
        EXPECT_EQ(::mkdir(root_.c_str(), 0755), 0) << std::strerror(errno);
        g.fakeRoot = root_;
        g.instantSleep = true;
    }
    ~FakeProc() {
        g.fakeRoot.clear();
        g.instantSleep = false;
        g.onSleep = nullptr;
    }
    FakeProc(const FakeProc &) = delete;
    FakeProc &operator=(const FakeProc &) = delete;

    const std::string &root() const { return root_; }

    // Writes text into root/relative, making the folders on the way.
    void put(const std::string &relative, const std::string &text) {
        size_t slash = 0;
        while ((slash = relative.find('/', slash)) != std::string::npos) {
            ::mkdir((root_ + "/" + relative.substr(0, slash)).c_str(), 0755);
            ++slash;
        }
        std::ofstream out(root_ + "/" + relative, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        EXPECT_TRUE(out) << "could not write " << relative;
    }
    void folder(const std::string &relative) {
        size_t slash = 0;
        const std::string path = relative + "/";
        while ((slash = path.find('/', slash)) != std::string::npos) {
            ::mkdir((root_ + "/" + path.substr(0, slash)).c_str(), 0755);
            ++slash;
        }
    }
    void process(int pid, const std::string &text) { put(std::to_string(pid) + "/stat", text); }
    void cpu(uint32_t user, uint32_t nice, uint32_t system, uint32_t idle) {
        put("stat", cpu_text(user, nice, system, idle));
    }
    void meminfo(const std::string &text) { put("meminfo", text); }
    void remove_file(const std::string &relative) {
        EXPECT_EQ(::unlink((root_ + "/" + relative).c_str()), 0) << relative;
    }
    // A process that ended: its folder and its stat file go.
    void end_process(int pid) {
        remove_file(std::to_string(pid) + "/stat");
        EXPECT_EQ(::rmdir((root_ + "/" + std::to_string(pid)).c_str()), 0);
    }

    // The numeric entries of root/relative in the folder's own order, as readdir gives
    // them to the library.
    std::vector<int> listed(const std::string &relative = "") const {
        std::vector<int> numbers;
        DIR *dir = ::opendir((root_ + "/" + relative).c_str());
        EXPECT_NE(dir, nullptr);
        if (dir == nullptr) return numbers;
        while (const struct dirent *entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos) {
                numbers.push_back(std::stoi(name));
            }
        }
        ::closedir(dir);
        return numbers;
    }

private:
    qel_test::TempDir dir_;
    std::string root_;
};

std::vector<std::string> names_of(const ZEPO_OS_PROC_INFO *list, uint32_t count) {
    std::vector<std::string> names;
    for (uint32_t i = 0; i < count; ++i) names.emplace_back(list[i].name);
    return names;
}

const ZEPO_OS_PROC_INFO *find_named(const ZEPO_OS_PROC_INFO *list, uint32_t count,
                                    const std::string &name) {
    for (uint32_t i = 0; i < count; ++i) {
        if (name == list[i].name) return &list[i];
    }
    return nullptr;
}

// busy * 10000 / total in 32-bit unsigned arithmetic, as the rates are computed.
uint32_t rate(uint32_t busy, uint32_t total) { return busy * 10000u / total; }

struct Threads {
    uint32_t result;
    std::vector<std::pair<int32_t, int32_t>> entries;  // (id, state)
    std::string printed;
};

Threads proc_threads(const char *name) {
    uint32_t count = kUntouched;
    ZEPO_OS_THREAD_INFO *list = nullptr;
    CaptureStdout();
    const uint32_t result = ZEPO_OS_GetProcThread(name, &count, &list);
    Threads t{result, {}, GetCapturedStdout()};
    if (result == 0) {
        for (uint32_t i = 0; i < count; ++i) t.entries.emplace_back(list[i].id, list[i].state);
        release(list);
    } else {
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(list, nullptr);
    }
    return t;
}

using Entries = std::vector<std::pair<int32_t, int32_t>>;

struct ProcList {
    uint32_t result;
    std::vector<ZEPO_OS_PROC_INFO> entries;
    std::string printed;
};

ProcList busy_rates() {
    uint32_t count = kUntouched;
    ZEPO_OS_PROC_INFO *list = nullptr;
    CaptureStdout();
    const uint32_t result = ZEPO_OS_GetCPUBusyRate(&count, &list);
    ProcList p{result, {}, GetCapturedStdout()};
    if (result == 0) {
        p.entries.assign(list, list + count);
        release(list);
    } else {
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(list, nullptr);
    }
    return p;
}

struct MemFigures {
    uint32_t result;
    uint32_t total;
    uint32_t free;
    std::vector<ZEPO_OS_PROC_INFO> entries;
    std::string printed;
};

MemFigures memory_figures() {
    MemFigures m{0, kUntouched, kUntouched, {}, {}};
    uint32_t count = kUntouched;
    ZEPO_OS_PROC_INFO *list = nullptr;
    CaptureStdout();
    m.result = ZEPO_OS_GetMEMAllocRate(&m.total, &m.free, &count, &list);
    m.printed = GetCapturedStdout();
    if (m.result == 0) {
        m.entries.assign(list, list + count);
        release(list);
    } else {
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(list, nullptr);
    }
    return m;
}

std::vector<std::string> entry_names(const std::vector<ZEPO_OS_PROC_INFO> &entries) {
    return names_of(entries.data(), static_cast<uint32_t>(entries.size()));
}

// ---- Real processes ----------------------------------------------------------------------

// A name for a child of this test process: the given word and this process's number,
// within the kernel's 15 characters.
std::string own_name(const std::string &word) {
    return (word + "_" + std::to_string(::getpid())).substr(0, 15);
}

// Field k (3 and up) of /proc/<pid>/stat as text, read by the test itself.
std::string proc_field(pid_t pid, int k) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return "";
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    for (int i = 3; i <= k && fields >> field; ++i) {
    }
    return field;
}

// The text without the trace lines of processes that ended while /proc was walked.
std::string without_vanished(const std::string &printed) {
    std::istringstream lines(printed);
    std::string kept;
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("Open proc file system failed,/proc/", 0) != 0) kept += line + "\n";
    }
    return kept;
}

// Polls until the state letter of a thread of this process is letter (10 s at most).
bool wait_for_state(pid_t tid, char letter) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (proc_field(tid, 3) == std::string(1, letter)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// What a child does once named.  ready is the descriptor to write one byte to when the
// child is set up; only async-signal-safe calls are made.
using ChildBody = void (*)(int ready);

void signal_ready(int ready) {
    const char byte = 'r';
    (void)!::write(ready, &byte, 1);
    ::close(ready);
}

void pause_forever(int ready) {
    signal_ready(ready);
    for (;;) ::pause();
}

void spin_forever(int ready) {
    signal_ready(ready);
    volatile uint64_t turns = 0;
    for (;;) turns = turns + 1;
}

void exit_at_once(int ready) { signal_ready(ready); }

// Forks two workers, which keep the server's name, waits until both are set up, then
// sleeps like them.  A worker dies with the server; one that finds the server gone
// already leaves at once, so that none outlives the test.
void serve_with_workers(int ready) {
    const pid_t server = ::getpid();
    int workersReady[2];
    if (::pipe(workersReady) != 0) ::_exit(1);
    for (int i = 0; i < 2; ++i) {
        if (::fork() == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != server) ::_exit(1);
            ::close(ready);
            ::close(workersReady[0]);
            ::close(STDOUT_FILENO);
            ::close(STDERR_FILENO);
            pause_forever(workersReady[1]);
        }
    }
    ::close(workersReady[1]);
    char bytes[2];
    ssize_t got = 0;
    while (got < 2) {
        const ssize_t n = ::read(workersReady[0], bytes + got, static_cast<size_t>(2 - got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ::_exit(1);
        got += n;
    }
    ::close(workersReady[0]);
    pause_forever(ready);
}

// A child process of the test, named name, killed and reaped on every path out.
class Child {
public:
    Child(const std::string &name, ChildBody body) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2: " << std::strerror(errno);
            return;
        }
        const pid_t parentPid = ::getpid();
        const std::string childName = name;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(fds[0]);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parentPid) ::_exit(1);
            ::prctl(PR_SET_NAME, childName.c_str());
            body(fds[1]);
            ::_exit(0);
        }
        ::close(fds[1]);
        if (pid_ < 0) {
            ADD_FAILURE() << "fork: " << std::strerror(errno);
            ::close(fds[0]);
            return;
        }
        char byte = 0;
        ssize_t got = 0;
        do {
            got = ::read(fds[0], &byte, 1);
        } while (got < 0 && errno == EINTR);
        ::close(fds[0]);
        EXPECT_EQ(got, 1) << "the child did not start";
    }
    ~Child() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }

    // Stops the child and waits until it is stopped.
    void stop() {
        ASSERT_EQ(::kill(pid_, SIGSTOP), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid_, &status, WUNTRACED), pid_);
        ASSERT_TRUE(WIFSTOPPED(status));
    }

    // Waits until the child has ended, leaving it unreaped: a zombie.
    void await_zombie() {
        siginfo_t info{};
        ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT), 0);
    }

private:
    pid_t pid_ = -1;
};

// ===========================================================================================
// ZEPO_OS_GetCPUBusyRateAll
// ===========================================================================================

TEST_F(Stats, MachineRateNullPointerGives3AndTouchesNothing) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    CaptureStdout();
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(nullptr), 3u);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(g.openModes.empty());
    EXPECT_TRUE(g.sleeps.empty());
}

TEST_F(Stats, MachineRateOfTheTwoSamplesIs1578) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.put("uptime", "1.0 1.0\n");
    g.onSleep = [&] { proc.cpu(200, 0, 100, 1650); };
    uint32_t value = kUntouched;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 0u);
    EXPECT_EQ(value, 1578u);  // busy 150, total 950
    EXPECT_EQ(g.sleeps, std::vector<uint32_t>{1});
    EXPECT_EQ(g.openModes, (std::vector<std::string>{"rb", "rb"}));
}

TEST_F(Stats, MachineRateCountsNiceAsBusyAndReadsNoLaterColumn) {
    FakeProc proc;
    proc.put("stat", "cpu  10 20 30 40 1000 1000 1000\n");
    g.onSleep = [&] { proc.put("stat", "cpu  20 30 40 110 9000 9000 9000\n"); };
    uint32_t value = 0;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 0u);
    EXPECT_EQ(value, 3000u);  // busy 30 of 100; iowait and the rest are not read
}

TEST_F(Stats, MachineRateTakesTheAggregateLineOnly) {
    FakeProc proc;
    proc.put("stat", "cpu0 1 2 3 4\ncpu1 5 6 7 8\nintr 1\n");
    uint32_t value = kUntouched;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 2u);
    EXPECT_EQ(value, 0u);
    EXPECT_TRUE(g.sleeps.empty());
}

TEST_F(Stats, MachineRateLineBeyondTheFirst512BytesGives2) {
    FakeProc proc;
    const std::string filler = "intr" + std::string(600, ' ') + "0\n";
    proc.put("stat", filler + cpu_text(100, 0, 50, 850));
    uint32_t value = kUntouched;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 2u);
    EXPECT_EQ(value, 0u);

    // The same line within the first 512 bytes is found.
    const std::string shortFiller = "intr" + std::string(300, ' ') + "0\n";
    proc.put("stat", shortFiller + cpu_text(100, 0, 50, 850));
    g.onSleep = [&] { proc.put("stat", shortFiller + cpu_text(200, 0, 100, 1650)); };
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 0u);
    EXPECT_EQ(value, 1578u);
}

TEST_F(Stats, MachineRateAcceptsALineWithFewerThanFourNumbers) {
    FakeProc proc;
    proc.put("stat", "cpu  5 6\n");
    g.onSleep = [&] { proc.put("stat", "cpu  15 6 0 10\n"); };
    uint32_t value = 0;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 0u);
    EXPECT_EQ(value, 5000u);  // the missing counters count 0: busy 10 of 20
}

TEST_F(Stats, MachineRateLabelWithNothingAfterItGives2) {
    FakeProc proc;
    proc.put("stat", "intr 5\ncpu ");
    uint32_t value = kUntouched;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 2u);
    EXPECT_EQ(value, 0u);
}

TEST_F(Stats, MachineRateWithoutStatFileGives2) {
    FakeProc proc;
    uint32_t value = kUntouched;
    CaptureStdout();
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 2u);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(value, 0u);
}

TEST_F(Stats, MachineRateSecondSampleFailureGives2) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    g.onSleep = [&] { proc.remove_file("stat"); };
    uint32_t value = kUntouched;
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 2u);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(g.sleeps, std::vector<uint32_t>{1});
}

#if defined(__SANITIZE_ADDRESS__)
// The undefined-behaviour sanitizer stops the process at the division itself.
#define EXPECT_DIVISION_BY_ZERO_ENDS(statement) EXPECT_DEATH(statement, "division by zero")
#else
#define EXPECT_DIVISION_BY_ZERO_ENDS(statement) \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGFPE), "")
#endif

TEST_F(Stats, MachineRateIdenticalSamplesEndTheProcess) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);  // the instant sleep leaves the counters where they were
    uint32_t value = 0;
    EXPECT_DIVISION_BY_ZERO_ENDS(ZEPO_OS_GetCPUBusyRateAll(&value));
}

TEST_F(Stats, MachineRateOfTheRealMachineAfterOneSecond) {
    Child spinner(own_name("spin"), spin_forever);
    uint32_t value = kUntouched;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRateAll(&value), 0u);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(999));
    EXPECT_LT(elapsed, std::chrono::seconds(30));
    EXPECT_GT(value, 0u) << "a spinning child keeps the machine busy";
    EXPECT_LE(value, 10000u);
    EXPECT_EQ(g.sleeps, std::vector<uint32_t>{1});
}

// ===========================================================================================
// ZEPO_OS_GetCPUBusyRate
// ===========================================================================================

TEST_F(Stats, ProcessRatesNullArgumentsGive3AndTouchNothing) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.process(10, stat_text(10, "a", 'S'));
    uint32_t count = kUntouched;
    ZEPO_OS_PROC_INFO *list = nullptr;
    CaptureStdout();
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRate(nullptr, &list), 3u);
    EXPECT_EQ(ZEPO_OS_GetCPUBusyRate(&count, nullptr), 3u);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(count, kUntouched);
    EXPECT_TRUE(g.openModes.empty());
    EXPECT_TRUE(g.sleeps.empty());
}

TEST_F(Stats, ProcessRatesAreSharesOfAllProcessorsTime) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.process(10, stat_text(10, "alpha", 'S', ticks(10, 0)));
    proc.process(20, stat_text(20, "beta", 'R', ticks(300, 200)));
    proc.process(30, stat_text(30, "gamma", 'S', ticks(7, 7)));
    proc.put("self/stat", stat_text(99, "self", 'R'));  // not a process number
    g.onSleep = [&] {
        proc.cpu(200, 0, 100, 1650);  // total 950
        proc.process(10, stat_text(10, "alpha", 'S', ticks(100, 5)));
        proc.process(20, stat_text(20, "beta", 'R', ticks(600, 390)));
        proc.process(30, stat_text(30, "gamma", 'S', ticks(7, 7)));
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    EXPECT_EQ(p.printed, "");
    ASSERT_EQ(p.entries.size(), 3u);
    const std::map<std::string, uint32_t> expected = {
        {"alpha", rate(95, 950)}, {"beta", rate(490, 950)}, {"gamma", 0}};
    for (const ZEPO_OS_PROC_INFO &e : p.entries) EXPECT_EQ(e.value, expected.at(e.name)) << e.name;
    EXPECT_EQ(find_named(p.entries.data(), 3, "alpha")->value, 1000u);
    // Matched entries keep the order of the second listing.
    std::vector<std::string> order;
    for (int pid : proc.listed())
        order.push_back(pid == 10 ? "alpha" : pid == 20 ? "beta" : "gamma");
    EXPECT_EQ(entry_names(p.entries), order);
    EXPECT_EQ(g.sleeps, std::vector<uint32_t>{1});
    for (const std::string &mode : g.openModes) EXPECT_EQ(mode, "rb");
    // A work array of 20 entries, then the result of exactly 3.
    EXPECT_EQ(take_sizes(), (std::vector<uint32_t>{20 * 24, 3 * 24}));
}

TEST_F(Stats, ProcessRatesEntryBeginningWithADigitCounts) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "plain", 'S', ticks(0, 0)));
    proc.put("7x/stat", stat_text(7, "oddly", 'S', ticks(0, 0)));
    g.onSleep = [&] {
        proc.cpu(10, 0, 0, 0);
        proc.put("7x/stat", stat_text(7, "oddly", 'S', ticks(5, 0)));
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    ASSERT_EQ(p.entries.size(), 2u);
    EXPECT_EQ(find_named(p.entries.data(), 2, "oddly")->value, 5000u);
}

TEST_F(Stats, ProcessRatesNameOf20CharactersIsStoredAsItsFirst17) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.process(10, stat_text(10, "abcdefghijklmnopqrst", 'S', ticks(1, 1)));
    g.onSleep = [&] {
        proc.cpu(200, 0, 100, 1650);
        proc.process(10, stat_text(10, "abcdefghijklmnopqrst", 'S', ticks(1, 96)));
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    ASSERT_EQ(p.entries.size(), 1u);
    EXPECT_STREQ(p.entries[0].name, "abcdefghijklmnopq");
    EXPECT_EQ(p.entries[0].value, 1000u);
}

TEST_F(Stats, ProcessRatesNameWithOneBlankShiftsTheTicksReadByOneField) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    // Fields 13 (cmajflt), 14 (utime), 15 (stime).
    proc.process(10, stat_text(10, "my proc", 'S', {{13, 1000}, {14, 2000}, {15, 4000}}));
    proc.process(20, stat_text(20, "myproc", 'S', {{13, 1000}, {14, 2000}, {15, 4000}}));
    g.onSleep = [&] {
        proc.cpu(500, 0, 500, 0);  // total 1000
        proc.process(10, stat_text(10, "my proc", 'S', {{13, 1100}, {14, 2300}, {15, 4900}}));
        proc.process(20, stat_text(20, "myproc", 'S', {{13, 1100}, {14, 2300}, {15, 4900}}));
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    ASSERT_EQ(p.entries.size(), 2u);
    EXPECT_EQ(find_named(p.entries.data(), 2, "myproc")->value, rate(1200, 1000));  // 14 + 15
    EXPECT_EQ(find_named(p.entries.data(), 2, "my proc")->value, rate(400, 1000));  // 13 + 14
}

TEST_F(Stats, ProcessRatesPairNamesakesInDirectoryOrder) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(40, stat_text(40, "twin", 'S', ticks(100, 0)));
    proc.process(41, stat_text(41, "twin", 'S', ticks(200, 0)));
    const std::vector<int> first = proc.listed();
    ASSERT_EQ(first.size(), 2u);
    const std::map<int, uint32_t> before = {{40, 100}, {41, 200}};
    // Between the passes the first-listed twin ends and a new one (42) starts.
    const int survivor = first[1];
    std::map<int, uint32_t> after = {{survivor, 700}, {42, 400}};
    std::vector<int> second;
    g.onSleep = [&] {
        proc.cpu(500, 0, 500, 0);  // total 1000
        proc.end_process(first[0]);
        proc.process(survivor, stat_text(survivor, "twin", 'S', ticks(700, 0)));
        proc.process(42, stat_text(42, "twin", 'S', ticks(400, 0)));
        second = proc.listed();
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    ASSERT_EQ(second.size(), 2u);
    ASSERT_EQ(p.entries.size(), 2u);
    // The k-th twin of the second listing is paired with the k-th of the first, whatever
    // their numbers.
    EXPECT_STREQ(p.entries[0].name, "twin");
    EXPECT_STREQ(p.entries[1].name, "twin");
    EXPECT_EQ(p.entries[0].value, rate(after[second[0]] - before.at(first[0]), 1000));
    EXPECT_EQ(p.entries[1].value, rate(after[second[1]] - before.at(first[1]), 1000));
}

TEST_F(Stats, ProcessRatesLeaveOutAProcessThatEndedBetweenThePasses) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "stays", 'S', ticks(0, 0)));
    proc.process(20, stat_text(20, "leaves", 'S', ticks(0, 0)));
    proc.process(30, stat_text(30, "remains", 'S', ticks(0, 0)));
    g.onSleep = [&] {
        proc.cpu(10, 0, 0, 0);
        proc.end_process(20);
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    std::vector<std::string> names = entry_names(p.entries);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"remains", "stays"}));
}

TEST_F(Stats, ProcessRatesWithoutAnyMatchGive1) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "before", 'S'));
    g.onSleep = [&] {
        proc.cpu(10, 0, 0, 0);
        proc.process(10, stat_text(10, "after", 'S'));
    };
    const ProcList p = busy_rates();
    EXPECT_EQ(p.result, 1u);
    EXPECT_EQ(p.printed, "");
}

TEST_F(Stats, ProcessRatesWithoutProcessEntriesGive1) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.put("self/stat", stat_text(1, "self", 'S'));
    proc.put("sys/kernel/pid_max", "32768\n");
    const ProcList p = busy_rates();
    EXPECT_EQ(p.result, 1u);
    EXPECT_TRUE(g.sleeps.empty());
}

TEST_F(Stats, ProcessRatesProcessGoneBeforeItsFileIsReadGive1) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.process(10, stat_text(10, "alive", 'S'));
    proc.folder("777");  // listed, but its stat file is gone
    const ProcList p = busy_rates();
    EXPECT_EQ(p.result, 1u);
    EXPECT_TRUE(g.sleeps.empty()) << "the first pass fails before the pause";
}

TEST_F(Stats, ProcessRatesStatFileThatCannotBeWalkedGives1) {
    const std::vector<std::string> broken = {
        "10 alpha S 1 2 3 4 5 6 7 8 9 10 11 12 13 14\n",   // no parentheses
        "10 (alpha S 1 2 3 4 5 6 7 8 9 10 11 12 13 14\n",  // no ")"
        "10 () S 1 2 3 4 5 6 7 8 9 10 11 12 13 14\n",      // an empty name cannot be copied
        "10 (alpha) S 1 2 3 4 5 6 7 8 9 10\n",             // too few fields
    };
    for (const std::string &text : broken) {
        FakeProc proc;
        proc.cpu(100, 0, 50, 850);
        proc.process(10, text);
        const ProcList p = busy_rates();
        EXPECT_EQ(p.result, 1u) << text;
        EXPECT_TRUE(g.sleeps.empty()) << text;
    }
}

TEST_F(Stats, ProcessRatesSecondPassEndsAtAProcessThatCannotBeRead) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "p10", 'S', ticks(0, 0)));
    proc.process(20, stat_text(20, "p20", 'S', ticks(0, 0)));
    proc.process(30, stat_text(30, "p30", 'S', ticks(0, 0)));
    std::vector<int> order;
    g.onSleep = [&] {
        proc.cpu(10, 0, 0, 0);
        order = proc.listed();
        proc.remove_file(std::to_string(order[1]) + "/stat");  // the folder stays listed
    };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    ASSERT_EQ(order.size(), 3u);
    EXPECT_EQ(entry_names(p.entries), std::vector<std::string>{"p" + std::to_string(order[0])});
}

TEST_F(Stats, ProcessRatesSecondPassEndingAtTheFirstProcessGives1) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "p10", 'S', ticks(0, 0)));
    proc.process(20, stat_text(20, "p20", 'S', ticks(0, 0)));
    g.onSleep = [&] {
        proc.cpu(10, 0, 0, 0);
        proc.remove_file(std::to_string(proc.listed()[0]) + "/stat");
    };
    EXPECT_EQ(busy_rates().result, 1u);
}

TEST_F(Stats, ProcessRatesFolderThatCannotBeOpenedGives2WithTrace) {
    for (int failing = 1; failing <= 2; ++failing) {
        FakeProc proc;
        proc.cpu(0, 0, 0, 0);
        proc.process(10, stat_text(10, "p10", 'S', ticks(0, 0)));
        g.onSleep = [&] { proc.cpu(10, 0, 0, 0); };
        g.failOpenDirAt = failing;
        const ProcList p = busy_rates();
        EXPECT_EQ(p.result, 2u) << "open " << failing;
        EXPECT_EQ(p.printed, kOpenFailedTrace) << "open " << failing;
        EXPECT_EQ(g.sleeps.size(), static_cast<size_t>(failing - 1));
        g.sleeps.clear();
    }
}

TEST_F(Stats, ProcessRatesStatFileFailuresGive2) {
    {
        FakeProc proc;
        proc.process(10, stat_text(10, "p10", 'S'));
        const ProcList p = busy_rates();
        EXPECT_EQ(p.result, 2u);
        EXPECT_EQ(p.printed, "");
    }
    {
        FakeProc proc;
        proc.cpu(0, 0, 0, 0);
        proc.process(10, stat_text(10, "p10", 'S'));
        g.onSleep = [&] { proc.remove_file("stat"); };
        const ProcList p = busy_rates();
        EXPECT_EQ(p.result, 2u);
        EXPECT_EQ(g.sleeps, std::vector<uint32_t>{1});
    }
}

TEST_F(Stats, ProcessRatesGrowTheWorkArrayBy20EntriesAndReturnExactlyAsMany) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    for (int pid = 100; pid < 145; ++pid) {
        proc.process(pid, stat_text(pid, "n" + std::to_string(pid), 'S', ticks(0, 0)));
    }
    g.onSleep = [&] { proc.cpu(10, 0, 0, 0); };
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    EXPECT_EQ(p.entries.size(), 45u);
    EXPECT_EQ(take_sizes(), (std::vector<uint32_t>{20 * 24, 40 * 24, 60 * 24, 45 * 24}));
}

TEST_F(Stats, ProcessRatesFailedGrowthTracesAndKeepsTheFirst20) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    for (int pid = 100; pid < 125; ++pid) {
        proc.process(pid, stat_text(pid, "n" + std::to_string(pid), 'S', ticks(0, 0)));
    }
    std::vector<std::string> first20;
    for (int pid : proc.listed()) {
        if (first20.size() < 20) first20.push_back("n" + std::to_string(pid));
    }
    g.onSleep = [&] { proc.cpu(10, 0, 0, 0); };
    g.failAllocationAt = 2;
    const ProcList p = busy_rates();
    ASSERT_EQ(p.result, 0u);
    EXPECT_EQ(p.printed, kNullTrace);
    EXPECT_EQ(entry_names(p.entries), first20);
}

TEST_F(Stats, ProcessRatesOutOfMemoryGives1) {
    for (int failing = 1; failing <= 2; ++failing) {
        FakeProc proc;
        proc.cpu(0, 0, 0, 0);
        proc.process(10, stat_text(10, "p10", 'S', ticks(0, 0)));
        proc.process(20, stat_text(20, "p20", 'S', ticks(0, 0)));
        g.onSleep = [&] { proc.cpu(10, 0, 0, 0); };
        g.failAllocationAt = failing;  // 1: the work array (traced); 2: the result
        const ProcList p = busy_rates();
        EXPECT_EQ(p.result, 1u) << failing;
        EXPECT_EQ(p.printed, failing == 1 ? kNullTrace : "") << failing;
    }
}

TEST_F(Stats, ProcessRatesFailedPathFormattingGives1) {
    FakeProc proc;
    proc.cpu(0, 0, 0, 0);
    proc.process(10, stat_text(10, "p10", 'S', ticks(0, 0)));
    g.failFormat = "/proc/%s/stat";
    g.failFormatAt = 1;
    EXPECT_EQ(busy_rates().result, 1u);
}

TEST_F(Stats, ProcessRatesIdenticalSamplesEndTheProcess) {
    FakeProc proc;
    proc.cpu(100, 0, 50, 850);
    proc.process(10, stat_text(10, "p10", 'S', ticks(5, 5)));
    uint32_t count = 0;
    ZEPO_OS_PROC_INFO *list = nullptr;
    EXPECT_DIVISION_BY_ZERO_ENDS(ZEPO_OS_GetCPUBusyRate(&count, &list));
}

// On the real machine a process may end between the listing and the reading of its file,
// which fails the call or ends the second pass early; the call is repeated then.
TEST_F(Stats, ProcessRatesOfRealChildrenShowTheSpinnerBusyAndTheSleeperIdle) {
    const std::string spinName = own_name("spin");
    const std::string sleepName = own_name("idle");
    Child spinner(spinName, spin_forever);
    Child sleeper(sleepName, pause_forever);
    bool seen = false;
    for (int attempt = 0; attempt < 5 && !seen; ++attempt) {
        const ProcList p = busy_rates();
        if (p.result != 0) continue;
        const ZEPO_OS_PROC_INFO *spin =
            find_named(p.entries.data(), static_cast<uint32_t>(p.entries.size()), spinName);
        const ZEPO_OS_PROC_INFO *idle =
            find_named(p.entries.data(), static_cast<uint32_t>(p.entries.size()), sleepName);
        if (spin == nullptr || idle == nullptr) continue;
        seen = true;
        EXPECT_GT(spin->value, 0u);
        EXPECT_LE(spin->value, 10000u);
        EXPECT_EQ(idle->value, 0u);
    }
    EXPECT_TRUE(seen) << "the children were never listed in both passes";
}

// ===========================================================================================
// ZEPO_OS_GetMEMAllocRate
// ===========================================================================================

TEST_F(Stats, MemoryNullArgumentsGive3WithTraceAndTouchNothing) {
    FakeProc proc;
    proc.meminfo("MemTotal:       1000 kB\nMemFree:         500 kB\n");
    uint32_t total = kUntouched;
    uint32_t free = kUntouched;
    uint32_t count = kUntouched;
    ZEPO_OS_PROC_INFO *list = nullptr;
    const auto expect_refused = [&](uint32_t *t, uint32_t *f, uint32_t *c, ZEPO_OS_PROC_INFO **l) {
        CaptureStdout();
        EXPECT_EQ(ZEPO_OS_GetMEMAllocRate(t, f, c, l), 3u);
        EXPECT_EQ(GetCapturedStdout(), kNullTrace);
        EXPECT_EQ(total, kUntouched);
        EXPECT_EQ(free, kUntouched);
        EXPECT_EQ(count, kUntouched);
    };
    expect_refused(nullptr, &free, &count, &list);
    expect_refused(&total, nullptr, &count, &list);
    expect_refused(&total, &free, nullptr, &list);
    expect_refused(&total, &free, &count, nullptr);
    EXPECT_TRUE(g.openModes.empty());
}

TEST_F(Stats, MemoryListNotNullOnEntryGives3WithTrace) {
    FakeProc proc;
    proc.meminfo("MemTotal:       1000 kB\nMemFree:         500 kB\n");
    uint32_t total = kUntouched;
    uint32_t free = kUntouched;
    uint32_t count = kUntouched;
    ZEPO_OS_PROC_INFO held{};
    ZEPO_OS_PROC_INFO *list = &held;
    CaptureStdout();
    EXPECT_EQ(ZEPO_OS_GetMEMAllocRate(&total, &free, &count, &list), 3u);
    EXPECT_EQ(GetCapturedStdout(), kNullTrace);
    EXPECT_EQ(list, &held);
    EXPECT_EQ(total, kUntouched);
    EXPECT_EQ(count, kUntouched);
    EXPECT_TRUE(g.openModes.empty());
}

TEST_F(Stats, MemoryFiguresOfMeminfoAndOfEachProcess) {
    FakeProc proc;
    proc.meminfo(
        "MemTotal:       16308852 kB\nMemFree:         8123456 kB\nMemAvailable:   12000000 kB\n");
    proc.process(10, stat_text(10, "alpha", 'S', memory(4096000, 250)));
    proc.process(20, stat_text(20, "beta", 'S', memory(1000, 3)));
    proc.put("9x/stat", stat_text(9, "oddly", 'S', memory(70, 7)));  // begins with a digit
    proc.put("self/stat", stat_text(1, "self", 'S'));
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    EXPECT_EQ(m.printed, "");
    EXPECT_EQ(m.total, 16308852u);
    EXPECT_EQ(m.free, 8123456u);
    ASSERT_EQ(m.entries.size(), 3u);
    // Bytes and pages added as they are.
    EXPECT_EQ(find_named(m.entries.data(), 3, "alpha")->value, 4096250u);
    EXPECT_EQ(find_named(m.entries.data(), 3, "beta")->value, 1003u);
    EXPECT_EQ(find_named(m.entries.data(), 3, "oddly")->value, 77u);
    EXPECT_TRUE(g.sleeps.empty()) << "the memory figures take no pause";
    for (const std::string &mode : g.openModes) EXPECT_EQ(mode, "rb");
    EXPECT_EQ(take_sizes(), (std::vector<uint32_t>{20 * 24, 3 * 24}));
}

TEST_F(Stats, MemoryFigureIsCutTo32Bits) {
    FakeProc proc;
    proc.meminfo("MemTotal:       1000 kB\nMemFree:         500 kB\n");
    proc.process(10, stat_text(10, "huge", 'S', memory(4294967296ull + 10, 5)));
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    ASSERT_EQ(m.entries.size(), 1u);
    EXPECT_EQ(m.entries[0].value, 15u);
}

TEST_F(Stats, MemoryNumbersAreReadFromOneCharacterPastTheLabel) {
    FakeProc proc;
    proc.process(10, stat_text(10, "p", 'S'));
    proc.meminfo("MemTotal: 123 kB\nMemFree: 456 kB\n");
    MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    EXPECT_EQ(m.total, 23u);  // the character after the label's blank is skipped
    EXPECT_EQ(m.free, 56u);
    proc.meminfo("MemTotal:  123 kB\nMemFree:  456 kB\n");
    m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    EXPECT_EQ(m.total, 123u);
    EXPECT_EQ(m.free, 456u);
}

TEST_F(Stats, MemoryMeminfoFailuresGive2) {
    struct Case {
        const char *text;  // null: no file
        const char *printed;
    };
    const std::string far = std::string(600, '#') + "\nMemTotal:  1 kB\nMemFree:  1 kB\n";
    const Case cases[] = {
        {nullptr, kOpenFailedTrace},
        {"MemFree:  500 kB\n", ""},
        {"MemTotal:  500 kB\n", ""},
        {far.c_str(), ""},
    };
    for (const Case &c : cases) {
        FakeProc proc;
        proc.process(10, stat_text(10, "p", 'S'));
        if (c.text != nullptr) proc.meminfo(c.text);
        const MemFigures m = memory_figures();
        EXPECT_EQ(m.result, 2u) << (c.text ? c.text : "no file");
        EXPECT_EQ(m.printed, c.printed);
        if (c.text == nullptr) {
            EXPECT_EQ(m.total, 0u);
        }
    }
}

TEST_F(Stats, MemoryFolderThatCannotBeOpenedGives2WithTrace) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    g.failOpenDirAt = 1;
    const MemFigures m = memory_figures();
    EXPECT_EQ(m.result, 2u);
    EXPECT_EQ(m.printed, kOpenFailedTrace);
    EXPECT_EQ(m.total, 1000u);  // read before the folder
    EXPECT_EQ(m.free, 500u);
}

TEST_F(Stats, MemoryNameWithOneBlankShiftsTheFiguresByOneField) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    const std::map<int, uint64_t> fields = {{22, 100000}, {23, 20000}, {24, 3000}};
    proc.process(10, stat_text(10, "my proc", 'S', fields));
    proc.process(20, stat_text(20, "myproc", 'S', fields));
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    ASSERT_EQ(m.entries.size(), 2u);
    EXPECT_EQ(find_named(m.entries.data(), 2, "myproc")->value, 23000u);    // 23 + 24
    EXPECT_EQ(find_named(m.entries.data(), 2, "my proc")->value, 120000u);  // 22 + 23
}

TEST_F(Stats, MemoryNameOf20CharactersIsStoredAsItsFirst17) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    proc.process(10, stat_text(10, "abcdefghijklmnopqrst", 'S'));
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    ASSERT_EQ(m.entries.size(), 1u);
    EXPECT_STREQ(m.entries[0].name, "abcdefghijklmnopq");
}

TEST_F(Stats, MemoryEmptyNameStaysEmpty) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    proc.process(10, stat_text(10, "", 'S', memory(40, 2)));
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    ASSERT_EQ(m.entries.size(), 1u);
    EXPECT_STREQ(m.entries[0].name, "");
    EXPECT_EQ(m.entries[0].value, 42u);
}

TEST_F(Stats, MemoryProcessGoneDuringTheWalkKeepsThoseBeforeIt) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    for (int pid = 10; pid <= 40; pid += 10) {
        proc.process(pid, stat_text(pid, "p" + std::to_string(pid), 'S'));
    }
    const std::vector<int> order = proc.listed();
    ASSERT_EQ(order.size(), 4u);
    proc.remove_file(std::to_string(order[2]) + "/stat");  // listed, then gone
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    EXPECT_EQ(m.printed, kOpenFailedTrace);
    EXPECT_EQ(entry_names(m.entries), (std::vector<std::string>{"p" + std::to_string(order[0]),
                                                                "p" + std::to_string(order[1])}));
}

TEST_F(Stats, MemoryFirstProcessGoneGives1) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    proc.process(10, stat_text(10, "p10", 'S'));
    proc.process(20, stat_text(20, "p20", 'S'));
    proc.remove_file(std::to_string(proc.listed()[0]) + "/stat");
    const MemFigures m = memory_figures();
    EXPECT_EQ(m.result, 1u);
    EXPECT_EQ(m.printed, kOpenFailedTrace);
    EXPECT_EQ(m.total, 1000u);
}

TEST_F(Stats, MemoryStatFileThatCannotBeWalkedGives2) {
    const std::vector<std::string> broken = {
        "10 alpha S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24\n",
        "10 (alpha S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24\n",
        "10 (alpha) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19\n",
    };
    for (const std::string &text : broken) {
        FakeProc proc;
        proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
        proc.process(10, text);
        const MemFigures m = memory_figures();
        EXPECT_EQ(m.result, 2u) << text;
        EXPECT_EQ(m.printed, "") << text;
        EXPECT_EQ(m.total, 1000u);
    }
}

TEST_F(Stats, MemoryWithoutProcessEntriesGives1) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    proc.put("self/stat", stat_text(1, "self", 'S'));
    const MemFigures m = memory_figures();
    EXPECT_EQ(m.result, 1u);
    EXPECT_EQ(m.total, 1000u);
    EXPECT_EQ(m.free, 500u);
}

TEST_F(Stats, MemoryOutOfMemory) {
    for (int failing = 1; failing <= 3; ++failing) {
        FakeProc proc;
        proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
        for (int pid = 100; pid < 125; ++pid) {
            proc.process(pid, stat_text(pid, "n" + std::to_string(pid), 'S'));
        }
        g.failAllocationAt = failing;  // 1: the work array; 2: its growth; 3: the result
        const MemFigures m = memory_figures();
        switch (failing) {
            case 1:
                EXPECT_EQ(m.result, 1u);
                EXPECT_EQ(m.printed, kNullTrace);
                break;
            case 2:
                EXPECT_EQ(m.result, 0u);  // the walk ends with the 20 gathered
                EXPECT_EQ(m.printed, kNullTrace);
                EXPECT_EQ(m.entries.size(), 20u);
                break;
            default:
                EXPECT_EQ(m.result, 1u);
                EXPECT_EQ(m.printed, "");
                break;
        }
    }
}

TEST_F(Stats, MemoryFailedPathFormattingEndsTheWalk) {
    FakeProc proc;
    proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
    proc.process(10, stat_text(10, "p10", 'S'));
    proc.process(20, stat_text(20, "p20", 'S'));
    g.failFormat = "/proc/%s/stat";
    g.failFormatAt = 2;
    const MemFigures m = memory_figures();
    ASSERT_EQ(m.result, 0u);
    EXPECT_EQ(m.printed, "");
    EXPECT_EQ(entry_names(m.entries),
              std::vector<std::string>{"p" + std::to_string(proc.listed()[0])});
}

TEST_F(Stats, MemoryOfTheRealMachineAndOfAStoppedChild) {
    const std::string name = own_name("mem");
    Child child(name, pause_forever);
    child.stop();  // its figures stay put
    const uint64_t vsize = std::stoull(proc_field(child.pid(), 23));
    const uint64_t rss = std::stoull(proc_field(child.pid(), 24));
    uint64_t memTotal = 0;
    {
        std::ifstream in("/proc/meminfo");
        std::string label;
        in >> label >> memTotal;
        ASSERT_EQ(label, "MemTotal:");
    }
    bool seen = false;
    for (int attempt = 0; attempt < 5 && !seen; ++attempt) {
        const MemFigures m = memory_figures();
        ASSERT_EQ(m.result, 0u);
        EXPECT_EQ(m.total, static_cast<uint32_t>(memTotal));
        EXPECT_LE(m.free, m.total);
        EXPECT_GT(m.free, 0u);
        const ZEPO_OS_PROC_INFO *e =
            find_named(m.entries.data(), static_cast<uint32_t>(m.entries.size()), name);
        if (e == nullptr) continue;  // a process that ended during the walk ended it early
        seen = true;
        EXPECT_EQ(e->value, static_cast<uint32_t>(vsize + rss));
    }
    EXPECT_TRUE(seen) << "the child was never listed";
}

// ===========================================================================================
// ZEPO_OS_GetProcThread
// ===========================================================================================

TEST_F(Stats, ThreadsNullArgumentsGive3WithTraceAndTouchNothing) {
    uint32_t count = kUntouched;
    ZEPO_OS_THREAD_INFO held{};
    ZEPO_OS_THREAD_INFO *list = &held;
    CaptureStdout();
    EXPECT_EQ(ZEPO_OS_GetProcThread(nullptr, &count, &list), 3u);
    EXPECT_EQ(ZEPO_OS_GetProcThread("init", nullptr, &list), 3u);
    EXPECT_EQ(ZEPO_OS_GetProcThread("init", &count, nullptr), 3u);
    EXPECT_EQ(GetCapturedStdout(), std::string(kNullTrace) + kNullTrace + kNullTrace);
    EXPECT_EQ(count, kUntouched);
    EXPECT_EQ(list, &held);
}

TEST_F(Stats, ThreadsUnknownNameGives2WithTrace) {
    const std::string name = own_name("none") + "_nobody";
    const Threads t = proc_threads(name.c_str());
    EXPECT_EQ(t.result, 2u);
    // Processes that end during the walk add their own trace lines before it.
    EXPECT_EQ(without_vanished(t.printed), "Can not find this process: ," + name + " \n");
}

TEST_F(Stats, ThreadsListingFailureGives2WithTheErrorText) {
    FakeProc proc;
    g.fakeRoot = proc.root() + "/missing";
    const Threads t = proc_threads("init");
    EXPECT_EQ(t.result, 2u);
    EXPECT_EQ(t.printed, "ZEPO_ScanDir ERROR: No such file or directory\n");
}

TEST_F(Stats, ThreadsEmptyListingGives2WithTrace) {
    g.emptyScanOf = "/proc";
    const Threads t = proc_threads("init");
    EXPECT_EQ(t.result, 2u);
    EXPECT_EQ(t.printed, "Can not find this process: ,init \n");
}

// A fake system: init (1, parent 0) and a server "srv" (500) with threads 500, 501, 502.
void fake_server(FakeProc &proc) {
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.process(500, stat_text(500, "srv", 'S', parent(1)));
    for (int tid : {500, 501, 502}) proc.folder("500/task/" + std::to_string(tid));
}

TEST_F(Stats, ThreadsAreReadFromEachThreadsTopLevelStatFileInTaskOrder) {
    FakeProc proc;
    fake_server(proc);
    // Threads of the fake show the server as parent, so the search passes them by.
    proc.process(501, stat_text(501, "srv", 'D', parent(500)));
    proc.process(502, stat_text(502, "worker", 'T', parent(500)));  // names are not checked
    proc.put("500/task/501/stat", stat_text(501, "srv", 'R', parent(500)));  // not read
    const Threads t = proc_threads("srv");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.printed, "");
    const std::map<int32_t, int32_t> state = {{500, 1}, {501, 2}, {502, 4}};
    Entries expected;
    for (int tid : proc.listed("500/task")) expected.emplace_back(tid, state.at(tid));
    EXPECT_EQ(t.entries, expected);
    // One array, sized by the task listing with its two dot entries.
    EXPECT_EQ(take_sizes(), std::vector<uint32_t>{5 * 8});
}

TEST_F(Stats, ThreadsStateCodesFollowTheLetter) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.process(600, stat_text(600, "states", 'R', parent(1)));
    const std::map<char, int32_t> codes = {{'R', 0}, {'S', 1}, {'D', 2}, {'T', 4}, {'W', 5},
                                           {'Z', 3}, {'I', 3}, {'X', 3}, {'t', 3}, {'P', 3}};
    proc.folder("600/task/600");
    std::map<int32_t, int32_t> expected = {{600, 0}};
    int tid = 601;
    for (const auto &[letter, code] : codes) {
        proc.folder("600/task/" + std::to_string(tid));
        // Parent 600: a thread is no candidate for the search.
        proc.process(tid, stat_text(tid, "states", letter, parent(600)));
        expected[tid] = code;
        ++tid;
    }
    const Threads t = proc_threads("states");
    ASSERT_EQ(t.result, 0u);
    ASSERT_EQ(t.entries.size(), codes.size() + 1);
    for (const auto &[id, state] : t.entries) EXPECT_EQ(state, expected.at(id)) << id;
}

TEST_F(Stats, ThreadsThatEndedAreLeftOutWithTrace) {
    FakeProc proc;
    fake_server(proc);
    proc.process(502, stat_text(502, "srv", 'S', parent(500)));
    proc.put("501/stat", "");     // nothing to scan: left out silently
    proc.folder("500/task/503");  // no stat file at all: left out with a trace
    const Threads t = proc_threads("srv");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.printed, kOpenFailedTrace);
    std::vector<int32_t> ids;
    for (const auto &[id, state] : t.entries) ids.push_back(id);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<int32_t>{500, 502}));
}

TEST_F(Stats, ThreadsOfAWorkerListedBeforeItsServerAreThoseOfTheServer) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.folder("700");
    proc.folder("701");
    const std::vector<int> order = proc.listed();
    ASSERT_EQ(order.size(), 3u);
    std::vector<int> pair;
    for (int pid : order) {
        if (pid != 1) pair.push_back(pid);
    }
    const int worker = pair[0];  // listed first, child of the server
    const int server = pair[1];
    proc.process(worker, stat_text(worker, "forker", 'S', parent(server)));
    proc.process(server, stat_text(server, "forker", 'R', parent(1)));
    proc.folder(std::to_string(worker) + "/task/" + std::to_string(worker));
    proc.folder(std::to_string(server) + "/task/" + std::to_string(server));
    const Threads t = proc_threads("forker");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.entries, (Entries{{server, 0}}));
}

TEST_F(Stats, ThreadsNameRuleMatchesTheWholeNameOrTheKernelsFirst15) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.process(800, stat_text(800, "abcdefghijklmno", 'S', parent(1)));  // 15: the limit
    proc.folder("800/task/800");
    proc.process(810, stat_text(810, "short", 'S', parent(1)));
    proc.folder("810/task/810");
    proc.put("81x/stat", stat_text(81, "ignored", 'S', parent(1)));  // not all digits
    proc.process(820, stat_text(820, "my proc", 'S', parent(1)));    // read as "(my"
    proc.folder("820/task/820");
    EXPECT_EQ(proc_threads("abcdefghijklmnopqrst").entries, (Entries{{800, 1}}));
    EXPECT_EQ(proc_threads("abcdefghijklmnoZZ").entries, (Entries{{800, 1}}));
    EXPECT_EQ(proc_threads("abcdefghijklmno").entries, (Entries{{800, 1}}));
    EXPECT_EQ(proc_threads("short").entries, (Entries{{810, 1}}));
    EXPECT_EQ(proc_threads("abcdefghijklmnX").result, 2u);
    EXPECT_EQ(proc_threads("abcdefghijklmn").result, 2u);  // 14 of the 15
    EXPECT_EQ(proc_threads("shor").result, 2u);
    EXPECT_EQ(proc_threads("shorter").result, 2u);
    EXPECT_EQ(proc_threads("ignored").result, 2u);
    EXPECT_EQ(proc_threads("my proc").result, 2u);
    EXPECT_EQ(proc_threads("my").result, 2u);
}

TEST_F(Stats, ThreadsStatFileThatCannotBeOpenedIsSkippedWithTrace) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    for (int pid = 900; pid < 904; ++pid) proc.folder(std::to_string(pid));
    // The last-listed folder becomes the process; those listed before it have lost their
    // stat files, and each is passed by with a trace naming its path.
    const std::vector<int> order = proc.listed();
    int target = 0;
    for (int pid : order) {
        if (pid != 1) target = pid;
    }
    proc.process(target, stat_text(target, "srv", 'S', parent(1)));
    proc.folder(std::to_string(target) + "/task/" + std::to_string(target));
    std::string expected;
    for (int pid : order) {
        if (pid == target) break;
        if (pid != 1) {
            expected += "Open proc file system failed,/proc/" + std::to_string(pid) + "/stat \n";
        }
    }
    const Threads t = proc_threads("srv");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.printed, expected);
    EXPECT_EQ(t.entries, (Entries{{target, 1}}));
}

TEST_F(Stats, ThreadsParentThatCannotBeReadGives2WithoutTrace) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.folder("1/task/1");
    const Threads t = proc_threads("init");  // its parent 0 has no stat file
    EXPECT_EQ(t.result, 2u);
    EXPECT_EQ(t.printed, "");
}

TEST_F(Stats, ThreadsParentWithoutFieldsEndsTheSearch) {
    FakeProc proc;
    proc.put("1/stat", "");
    proc.process(500, stat_text(500, "srv", 'S', parent(1)));
    proc.folder("500/task/500");
    const Threads t = proc_threads("srv");
    EXPECT_EQ(t.result, 2u);
    EXPECT_EQ(t.printed, "Can not find this process: ,srv \n");
}

TEST_F(Stats, ThreadsEmptyTaskListingGives1) {
    FakeProc proc;
    fake_server(proc);
    g.emptyScanOf = "/proc/500/task";
    EXPECT_EQ(proc_threads("srv").result, 1u);
}

TEST_F(Stats, ThreadsOutOfMemoryForTheTaskArrayGives1) {
    FakeProc proc;
    fake_server(proc);
    g.failAllocationAt = 1;
    EXPECT_EQ(proc_threads("srv").result, 1u);
}

TEST_F(Stats, ThreadsFailedPathFormattingGives3) {
    {
        FakeProc proc;
        fake_server(proc);
        g.failFormat = "/proc/%d/task";
        g.failFormatAt = 1;
        EXPECT_EQ(proc_threads("srv").result, 3u);
    }
    {
        FakeProc proc;
        fake_server(proc);
        // The second "/proc/%d/stat" is the parent's of the first process named srv.
        g.failFormat = "/proc/%d/stat";
        int candidates = 0;
        for (int pid : proc.listed()) {
            ++candidates;
            if (pid == 500) break;
        }
        g.failFormatAt = candidates + 1;
        LeaksIgnored leaks;  // the listing is kept on this path, as it always has been
        EXPECT_EQ(proc_threads("srv").result, 3u);
    }
}

TEST_F(Stats, ThreadsCandidateWhosePathCannotBeFormattedIsSkipped) {
    FakeProc proc;
    fake_server(proc);
    g.failFormat = "/proc/%d/stat";
    int position = 0;
    for (int pid : proc.listed()) {
        ++position;
        if (pid == 500) break;
    }
    g.failFormatAt = position;  // the server's own stat path
    const Threads t = proc_threads("srv");
    EXPECT_EQ(t.result, 2u);
    EXPECT_EQ(t.printed, "Can not find this process: ,srv \n");
}

// The old model without task folders: threads are processes of the same name.
// 1000 is the process, 1001 and 1002 its children (thread managers; the later-listed one
// counts), their children of the same name are the threads.
TEST_F(Stats, ThreadsWithoutTaskFoldersFollowTheManagerModel) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.process(1000, stat_text(1000, "oldsrv", 'R', parent(1)));
    proc.process(1001, stat_text(1001, "oldsrv", 'S', parent(1000)));
    proc.process(1002, stat_text(1002, "oldsrv", 'D', parent(1000)));
    for (int pid = 1010; pid <= 1014; ++pid) proc.folder(std::to_string(pid));
    const std::vector<int> order = proc.listed();
    const int manager =
        std::find(order.begin(), order.end(), 1001) > std::find(order.begin(), order.end(), 1002)
            ? 1001
            : 1002;
    const int other = manager == 1001 ? 1002 : 1001;
    proc.process(1010, stat_text(1010, "oldsrv", 'T', parent(manager)));
    proc.process(1011, stat_text(1011, "oldsrv", 'S', parent(manager)));
    proc.process(1012, stat_text(1012, "helper", 'S', parent(manager)));  // another name
    proc.process(1013, stat_text(1013, "oldsrv", 'S', parent(other)));    // not the manager's
    proc.process(1014, stat_text(1014, "oldsrv", 'S', parent(1010)));     // a grandchild
    const std::map<int, int32_t> state = {{1000, 0}, {1001, 1}, {1002, 2}, {1010, 4}, {1011, 1}};
    Entries expected = {{1000, 0}};
    const std::vector<int> listed = proc.listed();
    for (int pid : listed) {
        if (pid == 1001 || pid == 1002) expected.emplace_back(pid, state.at(pid));
    }
    for (int pid : listed) {
        if (pid == 1010 || pid == 1011) expected.emplace_back(pid, state.at(pid));
    }
    const Threads t = proc_threads("oldsrv");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.entries, expected);
    // One entry, then one more per match, a copy each time.
    EXPECT_EQ(take_sizes(), (std::vector<uint32_t>{8, 16, 24, 32, 40}));
}

TEST_F(Stats, ThreadsWithoutTaskFoldersOrManagerGiveTheProcessAlone) {
    FakeProc proc;
    proc.process(1, stat_text(1, "init", 'S', parent(0)));
    proc.process(1000, stat_text(1000, "lonely", 'W', parent(1)));
    proc.process(1001, stat_text(1001, "other", 'S', parent(1000)));
    const Threads t = proc_threads("lonely");
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.entries, (Entries{{1000, 5}}));
}

TEST_F(Stats, ThreadsWithoutTaskFoldersOutOfMemoryGives1) {
    for (int failing = 1; failing <= 3; ++failing) {
        FakeProc proc;
        proc.process(1, stat_text(1, "init", 'S', parent(0)));
        proc.process(1000, stat_text(1000, "oldsrv", 'R', parent(1)));
        proc.process(1001, stat_text(1001, "oldsrv", 'S', parent(1000)));
        proc.process(1010, stat_text(1010, "oldsrv", 'S', parent(1001)));
        g.failAllocationAt = failing;  // the first entry, the manager, the manager's child
        EXPECT_EQ(proc_threads("oldsrv").result, 1u) << failing;
    }
}

// The threads of a single-threaded child named name: the child alone, with state code.
void expect_only_thread(const std::string &name, const Child &child, int32_t code) {
    const Threads t = proc_threads(name.c_str());
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.entries, (Entries{{child.pid(), code}}));
}

TEST_F(Stats, ThreadsOfAStoppedChildGiveState4) {
    const std::string name = own_name("stop");
    Child child(name, pause_forever);
    child.stop();
    expect_only_thread(name, child, 4);
}

TEST_F(Stats, ThreadsOfAZombieChildGiveState3) {
    const std::string name = own_name("zomb");
    Child child(name, exit_at_once);
    child.await_zombie();
    expect_only_thread(name, child, 3);
}

TEST_F(Stats, ThreadsOfASleepingChildGiveState1) {
    const std::string name = own_name("nap");
    Child child(name, pause_forever);
    ASSERT_TRUE(wait_for_state(child.pid(), 'S'));
    expect_only_thread(name, child, 1);
}

TEST_F(Stats, ThreadsNameOf20CharactersFindsTheProcessThroughItsFirst15) {
    // The first 15 characters hold this process's number, so they are unique.
    std::string name = "t" + std::to_string(::getpid());
    name += std::string(15 - name.size(), '_') + "abcde";
    ASSERT_EQ(name.size(), 20u);
    Child child(name, pause_forever);
    const Threads found = proc_threads(name.c_str());
    ASSERT_EQ(found.result, 0u);
    ASSERT_EQ(found.entries.size(), 1u);
    EXPECT_EQ(found.entries[0].first, child.pid());
    // Another name with the same first 15 characters finds it too; a shorter one does not.
    EXPECT_EQ(proc_threads((name.substr(0, 15) + "zzzzz").c_str()).result, 0u);
    EXPECT_EQ(proc_threads(name.substr(0, 14).c_str()).result, 2u);
}

void expect_server_reported() {
    const std::string name = own_name("serv");
    Child server(name, serve_with_workers);
    ASSERT_TRUE(wait_for_state(server.pid(), 'S'));
    const Threads t = proc_threads(name.c_str());
    ASSERT_EQ(t.result, 0u);
    EXPECT_EQ(t.entries, (Entries{{server.pid(), 1}}));
}

TEST_F(Stats, ThreadsOfAForkingServerAreThoseOfTheServerNotOfAWorker) {
    // The workers, which die with the server, come to this process to be reaped.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    expect_server_reported();
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

TEST_F(Stats, ThreadsOfThisProcessAreListedWithTheirStates) {
    const std::string name = own_name("self");
    ASSERT_EQ(::prctl(PR_SET_NAME, name.c_str()), 0);
    std::mutex lock;
    std::condition_variable wake;
    bool done = false;
    std::vector<pid_t> tids(2, 0);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < tids.size(); ++i) {
        threads.emplace_back([&, i] {
            {
                std::lock_guard<std::mutex> hold(lock);
                tids[i] = static_cast<pid_t>(::syscall(SYS_gettid));
            }
            wake.notify_all();
            std::unique_lock<std::mutex> hold(lock);
            wake.wait(hold, [&] { return done; });
        });
    }
    {
        std::unique_lock<std::mutex> hold(lock);
        wake.wait(hold, [&] { return tids[0] != 0 && tids[1] != 0; });
    }
    for (pid_t tid : tids) EXPECT_TRUE(wait_for_state(tid, 'S')) << tid;

    const Threads t = proc_threads(name.c_str());
    size_t tasks = 0;  // the threads of this process, as the test reads them
    if (DIR *dir = ::opendir("/proc/self/task")) {
        while (const struct dirent *entry = ::readdir(dir)) tasks += entry->d_name[0] != '.';
        ::closedir(dir);
    }
    {
        std::lock_guard<std::mutex> hold(lock);
        done = true;
    }
    wake.notify_all();
    for (std::thread &thread : threads) thread.join();

    ASSERT_EQ(t.result, 0u);
    std::map<int32_t, int32_t> states(t.entries.begin(), t.entries.end());
    EXPECT_EQ(states.size(), t.entries.size());
    EXPECT_EQ(states.at(::getpid()), 0) << "the calling thread is running";
    EXPECT_EQ(states.at(tids[0]), 1);
    EXPECT_EQ(states.at(tids[1]), 1);
    EXPECT_EQ(t.entries.size(), tasks);
}

// ===========================================================================================
// Both memory modes
// ===========================================================================================

std::string g_report;
void collect_report(const char *text, uint32_t) { g_report += text; }

enum Report { kListStatsBlocks, kScan };

// A report of the tracked allocator as one text.
std::string tracked_report(Report which) {
    g_report.clear();
    const uint32_t result = which == kScan
                                ? ZEPO_MemGetMemScan(collect_report)
                                : ZEPO_MemGetMemRec(1, 0, "os_run_config", collect_report);
    EXPECT_EQ(result, 0u);
    return g_report;
}

TEST_F(Stats, ListsComeFromTheTrackedAllocatorWhenItIsOn) {
    ASSERT_EQ(ZEPO_MemInitMemMange(), 0u);
    {
        // The name lists of ZEPO_ScanDir come from the C library: the tracked release logs
        // them as foreign blocks and keeps them.
        LeaksIgnored leaks;
        FakeProc proc;
        proc.cpu(100, 0, 50, 850);
        proc.meminfo("MemTotal:  1000 kB\nMemFree:  500 kB\n");
        proc.process(1, stat_text(1, "init", 'S', parent(0)));
        proc.process(10,
                     stat_text(10, "alpha", 'S', {{4, 1}, {14, 10}, {15, 0}, {23, 40}, {24, 2}}));
        proc.folder("10/task/10");
        proc.process(1000, stat_text(1000, "oldsrv", 'R', parent(1)));
        proc.process(1001, stat_text(1001, "oldsrv", 'S', parent(1000)));
        g.onSleep = [&] {
            proc.cpu(200, 0, 100, 1650);
            proc.process(
                10, stat_text(10, "alpha", 'S', {{4, 1}, {14, 105}, {15, 0}, {23, 40}, {24, 2}}));
        };
        const ProcList rates = busy_rates();
        ASSERT_EQ(rates.result, 0u);
        EXPECT_EQ(
            find_named(rates.entries.data(), static_cast<uint32_t>(rates.entries.size()), "alpha")
                ->value,
            1000u);

        const MemFigures m = memory_figures();
        ASSERT_EQ(m.result, 0u);
        EXPECT_EQ(m.total, 1000u);
        EXPECT_EQ(
            find_named(m.entries.data(), static_cast<uint32_t>(m.entries.size()), "alpha")->value,
            42u);

        EXPECT_EQ(proc_threads("alpha").entries, (Entries{{10, 1}}));
        EXPECT_EQ(proc_threads("oldsrv").entries, (Entries{{1000, 0}, {1001, 1}}));

        // A list handed out is a live block of the tracked allocator, charged to the
        // statistics' source, until the caller releases it.
        uint32_t count = 0;
        ZEPO_OS_THREAD_INFO *list = nullptr;
        ASSERT_EQ(ZEPO_OS_GetProcThread("alpha", &count, &list), 0u);
        EXPECT_NE(tracked_report(kListStatsBlocks).find("Total malloc mem: 1\r\n"),
                  std::string::npos);
        release(list);
        EXPECT_NE(tracked_report(kListStatsBlocks).find("Total malloc mem: 0\r\n"),
                  std::string::npos);
        // The releases of the name lists were logged as foreign addresses.
        const std::string scan = tracked_report(kScan);
        const std::string label = "Current mem exception record cnt:";
        const size_t at = scan.find(label);
        ASSERT_NE(at, std::string::npos) << scan;
        EXPECT_GT(std::stoul(scan.substr(at + label.size())), 0u);
    }
    EXPECT_EQ(ZEPO_MemUnInitMemMange(), 0u);
}

}  // namespace
