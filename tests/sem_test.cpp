// Semaphores (the library record, named and unnamed), the millisecond and multiple waits,
// System V semaphores and shared memory, keys and memory mappings.
//
// A few C library functions and two of the library's memory entry points get a test-only
// definition here.  The library calls them through the dynamic linker, so it meets these
// definitions; each forwards to the next one (dlsym(RTLD_NEXT)) and changes or records
// nothing until a test switches it on for its own duration.
//
// Every named semaphore, System V object, mapping and file a test makes is removed by guard
// objects, also when the test fails; files live in a mkdtemp folder under /tmp.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qel_memory.h"
#include "qel_sem.h"

#include "test_support.h"

// ---- Layout of the record ----------------------------------------------------------------

static_assert(offsetof(ZEPO_SEM, kind) == 0, "the kind marker opens the record");
static_assert(sizeof(ZEPO_SEM::kind) == 4, "the kind marker is 32-bit");
static_assert(offsetof(ZEPO_SEM, handle) == 8, "the semaphore sits at offset 8");
static_assert(offsetof(ZEPO_SEM, handle.sem) == 8, "an unnamed semaphore is held at offset 8");
static_assert(offsetof(ZEPO_SEM, handle.named) == 8, "a named one's pointer is at offset 8");
static_assert(sizeof(ZEPO_SEM) == 8 + sizeof(sem_t), "marker, padding, then the semaphore");

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

using qel_test::kSentinel;
constexpr const char *kSemSource = "os_adapter/linux/source/os_sem_config.cpp";
constexpr time_t kPast = 1000000;  // a wall-clock second long gone (January 1970)

// ---- Interposition state -------------------------------------------------------------------

using qel_test::next_definition;

// clock_gettime: CLOCK_REALTIME reads fake_realtime while switched on.
std::atomic<bool> fake_realtime_on{false};
timespec fake_realtime{};

// sem_timedwait: counts the calls and keeps the last semaphore and deadline while on.
std::atomic<bool> capture_timedwait{false};
std::atomic<int> timedwait_calls{0};
sem_t *timedwait_sem = nullptr;
timespec timedwait_deadline{-1, -1};

// sem_trywait: counted while on.
std::atomic<bool> count_trywait{false};
std::atomic<int> trywait_calls{0};

// nanosleep: the requests are kept while on.
std::atomic<bool> record_sleeps{false};
std::mutex sleeps_lock;
std::vector<timespec> sleeps;

// sem_destroy / sem_close: fail with -1 and EINVAL, without calling the platform, while on.
std::atomic<bool> fail_sem_destroy{false};
std::atomic<bool> fail_sem_close{false};
std::atomic<sem_t *> destroyed_sem{nullptr};
std::atomic<int> sem_close_calls{0};

// shmat: the last address the platform gave, always.
std::atomic<void *> last_shmat{nullptr};

// Memory entry points: requests and releases kept while on; allocations fail while on.
struct Allocation {
    void *block;
    uint32_t size;
    uint32_t type;
    std::string file;
};
struct Release {
    void *block;
    uint32_t type;
    std::string file;
};
std::atomic<bool> record_memory{false};
std::atomic<bool> fail_allocation{false};
std::mutex memory_lock;
std::vector<Allocation> allocations;
std::vector<Release> releases;

// Switches one of the flags above on for the life of the object.
class SwitchOn {
public:
    explicit SwitchOn(std::atomic<bool> &flag) : flag_(flag) { flag_ = true; }
    ~SwitchOn() { flag_ = false; }
    SwitchOn(const SwitchOn &) = delete;
    SwitchOn &operator=(const SwitchOn &) = delete;

private:
    std::atomic<bool> &flag_;
};

std::vector<Allocation> allocations_made() {
    std::lock_guard<std::mutex> hold(memory_lock);
    return allocations;
}

std::vector<Release> releases_made() {
    std::lock_guard<std::mutex> hold(memory_lock);
    return releases;
}

// The releases as text, for failure messages.
std::string describe(const std::vector<Release> &list) {
    std::string text;
    for (const Release &r : list) {
        char line[64];
        std::snprintf(line, sizeof line, "%p type %u ", r.block, static_cast<unsigned>(r.type));
        text += line + r.file + "\n";
    }
    return text;
}

bool released(const void *block) {
    for (const Release &r : releases_made())
        if (r.block == block) return true;
    return false;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec *now) noexcept {
    using Fn = int (*)(clockid_t, struct timespec *);
    static const auto next = next_definition<Fn>("clock_gettime");
    if (clock == CLOCK_REALTIME && fake_realtime_on.load()) {
        *now = fake_realtime;
        return 0;
    }
    return next(clock, now);
}

extern "C" int sem_timedwait(sem_t *__restrict sem, const struct timespec *__restrict deadline) {
    using Fn = int (*)(sem_t *, const struct timespec *);
    static const auto next = next_definition<Fn>("sem_timedwait");
    if (capture_timedwait.load()) {
        timedwait_sem = sem;
        timedwait_deadline = *deadline;
        ++timedwait_calls;
    }
    return next(sem, deadline);
}

extern "C" int sem_trywait(sem_t *sem) noexcept {
    using Fn = int (*)(sem_t *);
    static const auto next = next_definition<Fn>("sem_trywait");
    if (count_trywait.load()) ++trywait_calls;
    return next(sem);
}

extern "C" int nanosleep(const struct timespec *request, struct timespec *remain) {
    using Fn = int (*)(const struct timespec *, struct timespec *);
    static const auto next = next_definition<Fn>("nanosleep");
    if (record_sleeps.load() && request != nullptr) {
        std::lock_guard<std::mutex> hold(sleeps_lock);
        sleeps.push_back(*request);
    }
    return next(request, remain);
}

extern "C" int sem_destroy(sem_t *sem) noexcept {
    using Fn = int (*)(sem_t *);
    static const auto next = next_definition<Fn>("sem_destroy");
    destroyed_sem = sem;
    if (fail_sem_destroy.load()) {
        errno = EINVAL;
        return -1;
    }
    return next(sem);
}

extern "C" int sem_close(sem_t *sem) noexcept {
    using Fn = int (*)(sem_t *);
    static const auto next = next_definition<Fn>("sem_close");
    ++sem_close_calls;
    if (fail_sem_close.load()) {
        errno = EINVAL;
        return -1;
    }
    return next(sem);
}

extern "C" void *shmat(int shmid, const void *addr, int flags) noexcept {
    using Fn = void *(*)(int, const void *, int);
    static const auto next = next_definition<Fn>("shmat");
    void *attached = next(shmid, addr, flags);
    last_shmat = attached;
    return attached;
}

extern "C" void *ZEPO_MemTypeMallocD(uint32_t size, uint32_t type, uint32_t line,
                                     const char *file) {
    using Fn = void *(*)(uint32_t, uint32_t, uint32_t, const char *);
    static const auto next = next_definition<Fn>("ZEPO_MemTypeMallocD");
    if (fail_allocation.load()) {
        if (record_memory.load()) {
            std::lock_guard<std::mutex> hold(memory_lock);
            allocations.push_back({nullptr, size, type, file != nullptr ? file : ""});
        }
        return nullptr;
    }
    void *block = next(size, type, line, file);
    if (record_memory.load()) {
        std::lock_guard<std::mutex> hold(memory_lock);
        allocations.push_back({block, size, type, file != nullptr ? file : ""});
    }
    return block;
}

extern "C" void ZEPO_MemTypeFreeD(void *block, uint32_t type, uint32_t line, const char *file) {
    using Fn = void (*)(void *, uint32_t, uint32_t, const char *);
    static const auto next = next_definition<Fn>("ZEPO_MemTypeFreeD");
    // A release of null does nothing, so only real blocks are kept.
    if (record_memory.load() && block != nullptr) {
        std::lock_guard<std::mutex> hold(memory_lock);
        releases.push_back({block, type, file != nullptr ? file : ""});
    }
    next(block, type, line, file);
}

namespace {

// ---- Helpers -------------------------------------------------------------------------------

int value_of(sem_t *sem) {
    int value = INT_MIN;
    if (sem_getvalue(sem, &value) != 0) return INT_MIN;
    return value;
}

// Polls cond every millisecond for up to limit; true once it holds.
bool wait_until(const std::function<bool()> &cond, std::chrono::milliseconds limit = 10s) {
    const auto end = Clock::now() + limit;
    while (!cond()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

long long ms_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

timespec realtime_in(std::chrono::milliseconds from_now) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    long long ns = now.tv_nsec + static_cast<long long>(from_now.count()) * 1000000LL;
    now.tv_sec += static_cast<time_t>(ns / 1000000000LL);
    now.tv_nsec = static_cast<long>(ns % 1000000000LL);
    return now;
}

// A library record holding an unnamed semaphore, made without the functions under test.
class Unnamed {
public:
    explicit Unnamed(unsigned value, int pshared = 0) {
        std::memset(&rec_, 0, sizeof rec_);
        EXPECT_EQ(::sem_init(&rec_.handle.sem, pshared, value), 0);
        rec_.kind = ZEPO_SEM_UNNAMED;
    }
    ~Unnamed() { ::sem_destroy(&rec_.handle.sem); }
    Unnamed(const Unnamed &) = delete;
    Unnamed &operator=(const Unnamed &) = delete;

    ZEPO_SEM *get() { return &rec_; }
    sem_t *sem() { return &rec_.handle.sem; }
    int value() { return value_of(&rec_.handle.sem); }

private:
    ZEPO_SEM rec_;
};

// Three platform semaphores for the multiple wait.
class ThreeSems {
public:
    ThreeSems(unsigned a, unsigned b, unsigned c) {
        const unsigned values[3] = {a, b, c};
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(::sem_init(&sems_[i], 0, values[i]), 0);
            ptrs_[i] = &sems_[i];
        }
    }
    ~ThreeSems() {
        for (sem_t &s : sems_) ::sem_destroy(&s);
    }
    ThreeSems(const ThreeSems &) = delete;
    ThreeSems &operator=(const ThreeSems &) = delete;

    sem_t **ptrs() { return ptrs_; }
    sem_t *at(int i) { return &sems_[i]; }
    int value(int i) { return value_of(&sems_[i]); }

private:
    sem_t sems_[3];
    sem_t *ptrs_[3];
};

// A unique name for a named semaphore, unlinked on construction and destruction.
class SemName {
public:
    SemName() {
        static int serial = 0;
        name_ = "/qel_sem_test_" + std::to_string(::getpid()) + "_" + std::to_string(++serial);
        ::sem_unlink(name_.c_str());
    }
    ~SemName() { ::sem_unlink(name_.c_str()); }
    SemName(const SemName &) = delete;
    SemName &operator=(const SemName &) = delete;

    const char *c_str() const { return name_.c_str(); }
    bool exists() const {
        struct stat st;
        return ::stat(("/dev/shm/sem." + name_.substr(1)).c_str(), &st) == 0;
    }

private:
    std::string name_;
};

// Closes a record that ZEPO_SemOpen gave, unless the test has released it itself.
class OpenedRecord {
public:
    explicit OpenedRecord(ZEPO_SEM *rec) : rec_(rec) {}
    ~OpenedRecord() {
        if (rec_ == nullptr) return;
        if (rec_->handle.named != nullptr && rec_->handle.named != SEM_FAILED)
            ::sem_close(rec_->handle.named);
        ZEPO_MemTypeFreeD(rec_, 0, __LINE__, __FILE__);
    }
    OpenedRecord(const OpenedRecord &) = delete;
    OpenedRecord &operator=(const OpenedRecord &) = delete;

    ZEPO_SEM *get() const { return rec_; }
    void forget() { rec_ = nullptr; }

private:
    ZEPO_SEM *rec_;
};

// A System V semaphore set, removed on destruction.
class SemSetGuard {
public:
    explicit SemSetGuard(int id) : id_(id) {}
    ~SemSetGuard() {
        if (id_ >= 0) ::semctl(id_, 0, IPC_RMID);
    }
    SemSetGuard(const SemSetGuard &) = delete;
    SemSetGuard &operator=(const SemSetGuard &) = delete;

private:
    int id_;
};

// A System V shared memory segment, removed on destruction.
class ShmGuard {
public:
    explicit ShmGuard(int id) : id_(id) {}
    ~ShmGuard() {
        if (id_ >= 0) ::shmctl(id_, IPC_RMID, nullptr);
    }
    ShmGuard(const ShmGuard &) = delete;
    ShmGuard &operator=(const ShmGuard &) = delete;

private:
    int id_;
};

// An attachment by its real address, detached on destruction unless already detached.
class Attached {
public:
    explicit Attached(void *real) : real_(real) {}
    ~Attached() {
        if (real_ != nullptr && real_ != reinterpret_cast<void *>(-1)) ::shmdt(real_);
    }
    Attached(const Attached &) = delete;
    Attached &operator=(const Attached &) = delete;

    void *get() const { return real_; }
    void forget() { real_ = nullptr; }

private:
    void *real_;
};

// A mapping, unmapped on destruction unless already unmapped.
class Mapped {
public:
    Mapped(void *addr, size_t length) : addr_(addr), length_(length) {}
    ~Mapped() {
        if (addr_ != nullptr && addr_ != MAP_FAILED) ::munmap(addr_, length_);
    }
    Mapped(const Mapped &) = delete;
    Mapped &operator=(const Mapped &) = delete;

    void forget() { addr_ = nullptr; }

private:
    void *addr_;
    size_t length_;
};

using qel_test::TempDir;

// An open descriptor, closed on destruction.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }

private:
    int fd_;
};

// What ZEPO_ShmAt must return for an attachment at real.
void *cut_and_sign_extended(const void *real) {
    return reinterpret_cast<void *>(
        static_cast<intptr_t>(static_cast<int32_t>(reinterpret_cast<uintptr_t>(real))));
}

// The first of the candidate addresses where one page can be placed, or null.
void *free_address(const std::vector<uintptr_t> &candidates) {
    const long page = ::sysconf(_SC_PAGESIZE);
    for (uintptr_t candidate : candidates) {
        void *want = reinterpret_cast<void *>(candidate);
        void *got = ::mmap(want, static_cast<size_t>(page), PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (got == MAP_FAILED) continue;
        ::munmap(got, static_cast<size_t>(page));
        if (got == want) return want;
    }
    return nullptr;
}

bool is_mapped(void *addr, size_t length) {
    // msync reports ENOMEM for a range that is not mapped.
    return ::msync(addr, length, MS_ASYNC) == 0;
}

// System V semaphore control argument, which the caller defines.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// The deadline ZEPO_SemWaitTimeOut hands to sem_timedwait when the wall clock reads now.
struct TimeOutCall {
    int result;
    int error;
    int calls;
    timespec deadline;
    bool on_the_record;
};

TimeOutCall wait_time_out_at(timespec now, uint32_t timeout_ms) {
    Unnamed sem(0);
    fake_realtime = now;
    timedwait_calls = 0;
    timedwait_sem = nullptr;
    timedwait_deadline = timespec{-1, -1};
    TimeOutCall call{};
    {
        SwitchOn fake(fake_realtime_on);
        SwitchOn capture(capture_timedwait);
        errno = 0;
        call.result = ZEPO_SemWaitTimeOut(sem.get(), timeout_ms);
        call.error = errno;
    }
    call.calls = timedwait_calls.load();
    call.deadline = timedwait_deadline;
    call.on_the_record = timedwait_sem == sem.sem();
    return call;
}

}  // namespace

// ---- The record and its markers ------------------------------------------------------------

TEST(Sem, KindMarkersHaveTheirFixedValues) {
    EXPECT_EQ(ZEPO_SEM_UNNAMED, 0x03213102u);
    EXPECT_EQ(ZEPO_SEM_NAMED, 0x20131230u);
    EXPECT_EQ(ZEPO_SEM_DESTROYED, 0xFFFFFFFFu);
}

TEST(Sem, InitWritesTheMarkerAtOffsetZeroAndTheSemaphoreAtOffsetEight) {
    alignas(ZEPO_SEM) unsigned char bytes[sizeof(ZEPO_SEM)];
    std::memset(bytes, 0xA5, sizeof bytes);
    auto *rec = reinterpret_cast<ZEPO_SEM *>(bytes);
    ASSERT_EQ(ZEPO_SemInit(rec, 0, 6), 0);
    uint32_t marker = 0;
    std::memcpy(&marker, bytes, sizeof marker);
    EXPECT_EQ(marker, 0x03213102u);
    EXPECT_EQ(value_of(reinterpret_cast<sem_t *>(bytes + 8)), 6);
    ::sem_destroy(reinterpret_cast<sem_t *>(bytes + 8));
}

// ---- Unnamed semaphores: initialisation and destruction -------------------------------------

TEST(Sem, InitGivesTheAskedValueAndTheUnnamedMarker) {
    ZEPO_SEM rec;
    rec.kind = 0xDEADBEEFu;
    ASSERT_EQ(ZEPO_SemInit(&rec, 0, 3), 0);
    EXPECT_EQ(rec.kind, ZEPO_SEM_UNNAMED);
    EXPECT_EQ(value_of(&rec.handle.sem), 3);
    ::sem_destroy(&rec.handle.sem);
}

TEST(Sem, InitWinIgnoresTheMaximumCount) {
    ZEPO_SEM rec;
    ASSERT_EQ(ZEPO_SemInitWin(&rec, 0, 5, 1), 0);
    EXPECT_EQ(rec.kind, ZEPO_SEM_UNNAMED);
    EXPECT_EQ(value_of(&rec.handle.sem), 5);
    EXPECT_EQ(ZEPO_SemPost(&rec), 0);  // above the ignored maximum
    EXPECT_EQ(value_of(&rec.handle.sem), 6);
    ::sem_destroy(&rec.handle.sem);
}

TEST(Sem, InitWinWhoseSemInitFailsStillWritesTheUnnamedMarker) {
    ZEPO_SEM rec;
    rec.kind = 0xDEADBEEFu;
    errno = 0;
    const uint32_t above_max = static_cast<uint32_t>(SEM_VALUE_MAX) + 1u;
    EXPECT_EQ(ZEPO_SemInitWin(&rec, 0, above_max, 0x7FFFFFFF), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rec.kind, 0x03213102u);
}

TEST(Sem, InitWhoseSemInitFailsStillWritesTheUnnamedMarker) {
    ZEPO_SEM rec;
    rec.kind = 0u;
    errno = 0;
    EXPECT_EQ(ZEPO_SemInit(&rec, 0, 0xFFFFFFFFu), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rec.kind, 0x03213102u);
}

TEST(Sem, InitOfNullIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemInit(nullptr, 0, 1), -1);
    EXPECT_EQ(ZEPO_SemInitWin(nullptr, 0, 1, 1), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Sem, ProcessSharedSemaphoreInASharedMappingIsPostedByAChildProcess) {
    void *shared = ::mmap(nullptr, sizeof(ZEPO_SEM), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    Mapped unmap(shared, sizeof(ZEPO_SEM));
    auto *rec = static_cast<ZEPO_SEM *>(shared);
    ASSERT_EQ(ZEPO_SemInit(rec, 1, 0), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(ZEPO_SemPost(rec) == 0 ? 0 : 1);
    EXPECT_EQ(ZEPO_SemWaitTimeOut(rec, 20000), 0);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ::sem_destroy(&rec->handle.sem);
}

TEST(Sem, DestroyWritesTheDestroyedMarkerOnSuccess) {
    ZEPO_SEM rec;
    ASSERT_EQ(::sem_init(&rec.handle.sem, 0, 1), 0);
    rec.kind = ZEPO_SEM_UNNAMED;
    EXPECT_EQ(ZEPO_SemDestroy(&rec), 0);
    EXPECT_EQ(rec.kind, 0xFFFFFFFFu);
}

TEST(Sem, DestroyUsesTheHeldSemaphoreWhateverTheMarker) {
    ZEPO_SEM rec;
    ASSERT_EQ(::sem_init(&rec.handle.sem, 0, 0), 0);
    rec.kind = ZEPO_SEM_NAMED;
    destroyed_sem = nullptr;
    EXPECT_EQ(ZEPO_SemDestroy(&rec), 0);
    EXPECT_EQ(destroyed_sem.load(), &rec.handle.sem);
    EXPECT_EQ(rec.kind, ZEPO_SEM_DESTROYED);
}

TEST(Sem, DestroyWhoseSemDestroyFailsGivesMinusOneAndKeepsTheMarker) {
    Unnamed sem(1);
    {
        SwitchOn fail(fail_sem_destroy);
        errno = 0;
        EXPECT_EQ(ZEPO_SemDestroy(sem.get()), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(destroyed_sem.load(), sem.sem());
    EXPECT_EQ(sem.get()->kind, ZEPO_SEM_UNNAMED);
}

TEST(Sem, DestroyOfNullIsRefusedWithErrnoUntouched) {
    destroyed_sem = nullptr;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemDestroy(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(destroyed_sem.load(), nullptr);
}

// ---- Unnamed semaphores: waits and posts ----------------------------------------------------

TEST(Sem, PostRaisesTheValueByOne) {
    Unnamed sem(0);
    EXPECT_EQ(ZEPO_SemPost(sem.get()), 0);
    EXPECT_EQ(sem.value(), 1);
    EXPECT_EQ(ZEPO_SemPost(sem.get()), 0);
    EXPECT_EQ(sem.value(), 2);
}

TEST(Sem, PostWinOfFiveRaisesTheValueByOneOnly) {
    Unnamed sem(2);
    EXPECT_EQ(ZEPO_SemPostWin(sem.get(), 5), 0);
    EXPECT_EQ(sem.value(), 3);
}

TEST(Sem, PostWinIgnoresAZeroOrNegativeCount) {
    Unnamed sem(0);
    EXPECT_EQ(ZEPO_SemPostWin(sem.get(), 0), 0);
    EXPECT_EQ(sem.value(), 1);
    EXPECT_EQ(ZEPO_SemPostWin(sem.get(), -3), 0);
    EXPECT_EQ(sem.value(), 2);
}

TEST(Sem, PostAtTheLargestValueGivesTheOverflowOfThePlatform) {
    Unnamed sem(SEM_VALUE_MAX);
    errno = 0;
    EXPECT_EQ(ZEPO_SemPost(sem.get()), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_EQ(sem.value(), SEM_VALUE_MAX);
}

TEST(Sem, PostOfNullIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemPost(nullptr), -1);
    EXPECT_EQ(ZEPO_SemPostWin(nullptr, 1), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Sem, WaitTakesOne) {
    Unnamed sem(2);
    EXPECT_EQ(ZEPO_SemWait(sem.get()), 0);
    EXPECT_EQ(sem.value(), 1);
}

TEST(Sem, WaitIsReleasedByAPostFromAnotherThread) {
    Unnamed sem(0);
    std::atomic<bool> returned{false};
    std::jthread waiter([&] {
        EXPECT_EQ(ZEPO_SemWait(sem.get()), 0);
        returned = true;
    });
    ASSERT_EQ(::sem_post(sem.sem()), 0);
    EXPECT_TRUE(wait_until([&] { return returned.load(); }));
    waiter.join();
    EXPECT_EQ(sem.value(), 0);
}

TEST(Sem, WaitOfNullIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemWait(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Sem, TryWaitTakesOneWhenAvailable) {
    Unnamed sem(1);
    EXPECT_EQ(ZEPO_SemTryWait(sem.get()), 0);
    EXPECT_EQ(sem.value(), 0);
}

TEST(Sem, TryWaitOnZeroGivesEagain) {
    Unnamed sem(0);
    errno = 0;
    EXPECT_EQ(ZEPO_SemTryWait(sem.get()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(sem.value(), 0);
}

TEST(Sem, TryWaitOfNullIsRefusedBeforeAnyPlatformCall) {
    trywait_calls = 0;
    SwitchOn count(count_trywait);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemTryWait(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(trywait_calls.load(), 0);
}

TEST(Sem, RecordMarkedAnythingButNamedUsesTheSemaphoreHeldInIt) {
    for (uint32_t marker : {0xFFFFFFFFu, 0u, 0x20131231u, 0x03213102u, 0x12345678u}) {
        SCOPED_TRACE(testing::Message() << "marker 0x" << std::hex << marker);
        Unnamed sem(0);
        sem.get()->kind = marker;
        EXPECT_EQ(ZEPO_SemPost(sem.get()), 0);
        EXPECT_EQ(ZEPO_SemPostWin(sem.get(), 3), 0);
        EXPECT_EQ(sem.value(), 2);
        EXPECT_EQ(ZEPO_SemWait(sem.get()), 0);
        EXPECT_EQ(ZEPO_SemTryWait(sem.get()), 0);
        EXPECT_EQ(sem.value(), 0);
        EXPECT_EQ(::sem_post(sem.sem()), 0);
        const timespec later = realtime_in(10s);
        EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), &later), 0);
        EXPECT_EQ(::sem_post(sem.sem()), 0);
        EXPECT_EQ(ZEPO_SemWaitTimeOut(sem.get(), 0), 0);
        EXPECT_EQ(sem.value(), 0);
        EXPECT_EQ(sem.get()->kind, marker);
    }
}

// ---- Timed wait on an absolute deadline -----------------------------------------------------

TEST(Sem, TimedWaitTakesOneBeforeTheDeadline) {
    Unnamed sem(1);
    const timespec later = realtime_in(10s);
    EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), &later), 0);
    EXPECT_EQ(sem.value(), 0);
}

TEST(Sem, TimedWaitWithAnExpiredDeadlineGivesEtimedout) {
    Unnamed sem(0);
    const timespec past{kPast, 0};
    errno = 0;
    EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), &past), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(Sem, TimedWaitWithNanosecondsOfAWholeSecondGivesEinval) {
    Unnamed sem(0);
    timespec bad = realtime_in(10s);
    bad.tv_nsec = 1000000000;
    errno = 0;
    EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), &bad), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Sem, TimedWaitIsReleasedByAPostFromAnotherThread) {
    Unnamed sem(0);
    timedwait_calls = 0;
    SwitchOn capture(capture_timedwait);
    std::jthread poster([&] {
        wait_until([] { return timedwait_calls.load() > 0; });
        ::sem_post(sem.sem());
    });
    const timespec later = realtime_in(20s);
    const auto start = Clock::now();
    EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), &later), 0);
    EXPECT_LT(ms_since(start), 15000);
    poster.join();
    EXPECT_EQ(sem.value(), 0);
}

TEST(Sem, TimedWaitOfNullDeadlineOrNullSemIsRefusedBeforeAnyPlatformCall) {
    Unnamed sem(1);
    const timespec later = realtime_in(10s);
    timedwait_calls = 0;
    SwitchOn capture(capture_timedwait);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemTimedWait(sem.get(), nullptr), -1);
    EXPECT_EQ(ZEPO_SemTimedWait(nullptr, &later), -1);
    EXPECT_EQ(ZEPO_SemTimedWait(nullptr, nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(timedwait_calls.load(), 0);
    EXPECT_EQ(sem.value(), 1);
}

// ---- Wait with a time-out in milliseconds ---------------------------------------------------

TEST(SemTimeOut, ZeroOnAnEmptySemaphoreTimesOutAtOnce) {
    Unnamed sem(0);
    errno = 0;
    const auto start = Clock::now();
    EXPECT_EQ(ZEPO_SemWaitTimeOut(sem.get(), 0), -1);
    EXPECT_LT(ms_since(start), 100);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(SemTimeOut, ZeroOnAnAvailableSemaphoreTakesIt) {
    Unnamed sem(1);
    EXPECT_EQ(ZEPO_SemWaitTimeOut(sem.get(), 0), 0);
    EXPECT_EQ(sem.value(), 0);
}

TEST(SemTimeOut, RealWaitExpiresNoEarlierThanTheTimeOut) {
    Unnamed sem(0);
    errno = 0;
    const auto start = Clock::now();
    EXPECT_EQ(ZEPO_SemWaitTimeOut(sem.get(), 150), -1);
    const long long waited = ms_since(start);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(waited, 150);
    EXPECT_LT(waited, 5000);
}

TEST(SemTimeOut, IsReleasedEarlyByAPostFromAnotherThread) {
    Unnamed sem(0);
    timedwait_calls = 0;
    SwitchOn capture(capture_timedwait);
    std::jthread poster([&] {
        wait_until([] { return timedwait_calls.load() > 0; });
        ::sem_post(sem.sem());
    });
    const auto start = Clock::now();
    EXPECT_EQ(ZEPO_SemWaitTimeOut(sem.get(), 20000), 0);
    EXPECT_LT(ms_since(start), 15000);
    poster.join();
    EXPECT_EQ(sem.value(), 0);
}

TEST(SemTimeOut, OfNullIsRefusedBeforeAnyPlatformCall) {
    timedwait_calls = 0;
    SwitchOn capture(capture_timedwait);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemWaitTimeOut(nullptr, 10), -1);
    EXPECT_EQ(ZEPO_SemWaitTimeOut(nullptr, 0), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(timedwait_calls.load(), 0);
}

TEST(SemTimeOut, DeadlineIsTheWallClockPlusTheTimeOutOnTheRecordsSemaphore) {
    const TimeOutCall call = wait_time_out_at({kPast, 100000000}, 250);
    EXPECT_EQ(call.calls, 1);
    EXPECT_TRUE(call.on_the_record);
    EXPECT_EQ(call.deadline.tv_sec, kPast);
    EXPECT_EQ(call.deadline.tv_nsec, 350000000);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

TEST(SemTimeOut, ZeroMillisecondsMakesTheDeadlineNow) {
    const TimeOutCall call = wait_time_out_at({kPast, 123}, 0);
    EXPECT_EQ(call.calls, 1);
    EXPECT_EQ(call.deadline.tv_sec, kPast);
    EXPECT_EQ(call.deadline.tv_nsec, 123);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

TEST(SemTimeOut, NanosecondsSummingToExactlyOneSecondAreLeftUncarriedAndGiveEinval) {
    const TimeOutCall call = wait_time_out_at({kPast, 999000000}, 1);
    EXPECT_EQ(call.calls, 1);
    EXPECT_EQ(call.deadline.tv_sec, kPast);
    EXPECT_EQ(call.deadline.tv_nsec, 1000000000);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, EINVAL);
}

TEST(SemTimeOut, HalfSecondOnAHalfSecondIsLeftUncarriedAndGivesEinval) {
    const TimeOutCall call = wait_time_out_at({kPast, 500000000}, 500);
    EXPECT_EQ(call.deadline.tv_sec, kPast);
    EXPECT_EQ(call.deadline.tv_nsec, 1000000000);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, EINVAL);
}

TEST(SemTimeOut, NanosecondsAboveOneSecondAreCarried) {
    const TimeOutCall call = wait_time_out_at({kPast, 999000001}, 1);
    EXPECT_EQ(call.calls, 1);
    EXPECT_EQ(call.deadline.tv_sec, kPast + 1);
    EXPECT_EQ(call.deadline.tv_nsec, 1);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

TEST(SemTimeOut, WholeSecondsGoToTheSecondsAndTheRestToTheNanoseconds) {
    const TimeOutCall call = wait_time_out_at({kPast, 0}, 2500);
    EXPECT_EQ(call.deadline.tv_sec, kPast + 2);
    EXPECT_EQ(call.deadline.tv_nsec, 500000000);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

TEST(SemTimeOut, WholeSecondsAndACarryAddUp) {
    const TimeOutCall call = wait_time_out_at({kPast, 600000000}, 2500);
    EXPECT_EQ(call.deadline.tv_sec, kPast + 3);
    EXPECT_EQ(call.deadline.tv_nsec, 100000000);
}

TEST(SemTimeOut, OneSecondExactlyFromAWholeSecondAddsOneSecond) {
    const TimeOutCall call = wait_time_out_at({kPast, 0}, 1000);
    EXPECT_EQ(call.deadline.tv_sec, kPast + 1);
    EXPECT_EQ(call.deadline.tv_nsec, 0);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

TEST(SemTimeOut, LargestTimeOutIsAddedWithoutOverflow) {
    const TimeOutCall call = wait_time_out_at({kPast, 800000000}, 4294967295u);
    EXPECT_EQ(call.deadline.tv_sec, kPast + 4294967 + 1);
    EXPECT_EQ(call.deadline.tv_nsec, 95000000);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, ETIMEDOUT);
}

// ---- Named semaphores -----------------------------------------------------------------------

TEST(SemNamed, OpenCreatesTheSemaphoreAndStoresItsPointerUnderTheNamedMarker) {
    SemName name;
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 2));
    ASSERT_NE(rec.get(), nullptr);
    EXPECT_TRUE(name.exists());
    EXPECT_EQ(rec.get()->kind, 0x20131230u);
    ASSERT_NE(rec.get()->handle.named, nullptr);
    ASSERT_NE(rec.get()->handle.named, SEM_FAILED);
    EXPECT_EQ(value_of(rec.get()->handle.named), 2);

    // The stored pointer reaches the semaphore known by the name.
    sem_t *other = ::sem_open(name.c_str(), 0);
    ASSERT_NE(other, SEM_FAILED);
    EXPECT_EQ(::sem_post(other), 0);
    EXPECT_EQ(value_of(rec.get()->handle.named), 3);
    ::sem_close(other);
}

TEST(SemNamed, OpenWinIgnoresTheMaximumCount) {
    SemName name;
    OpenedRecord rec(ZEPO_SemOpenWin(name.c_str(), O_CREAT | O_EXCL, 0600, 4, 1));
    ASSERT_NE(rec.get(), nullptr);
    EXPECT_EQ(rec.get()->kind, ZEPO_SEM_NAMED);
    EXPECT_EQ(value_of(rec.get()->handle.named), 4);
    EXPECT_EQ(ZEPO_SemPost(rec.get()), 0);
    EXPECT_EQ(value_of(rec.get()->handle.named), 5);
}

TEST(SemNamed, OpenGivesTheModeToTheCreatedSemaphore) {
    SemName name;
    const mode_t old_mask = ::umask(0);
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0640, 0));
    ::umask(old_mask);
    ASSERT_NE(rec.get(), nullptr);
    struct stat st;
    ASSERT_EQ(::stat((std::string("/dev/shm/sem.") + (name.c_str() + 1)).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST(SemNamed, OpenOfAnExistingSemaphoreWithoutCreateReachesIt) {
    SemName name;
    sem_t *made = ::sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 7);
    ASSERT_NE(made, SEM_FAILED);
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), 0, 0, 0));
    ASSERT_NE(rec.get(), nullptr);
    EXPECT_EQ(rec.get()->kind, ZEPO_SEM_NAMED);
    EXPECT_EQ(value_of(rec.get()->handle.named), 7);
    EXPECT_EQ(ZEPO_SemTryWait(rec.get()), 0);
    EXPECT_EQ(value_of(made), 6);
    ::sem_close(made);
}

TEST(SemNamed, OpenAllocatesTheRecordThroughTheMemoryEntryPoint) {
    SemName name;
    SwitchOn record(record_memory);
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 1));
    ASSERT_NE(rec.get(), nullptr);
    const std::vector<Allocation> made = allocations_made();
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0].block, rec.get());
    EXPECT_GE(made[0].size, sizeof(ZEPO_SEM));
    EXPECT_EQ(made[0].type, 0u);
    EXPECT_EQ(made[0].file, kSemSource);
    EXPECT_TRUE(releases_made().empty()) << describe(releases_made());
}

TEST(SemNamed, CloseClosesTheSemaphoreAndReleasesTheRecord) {
    SemName name;
    SwitchOn record(record_memory);
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 1));
    ASSERT_NE(rec.get(), nullptr);
    sem_close_calls = 0;
    ZEPO_SEM *block = rec.get();
    rec.forget();
    EXPECT_EQ(ZEPO_SemClose(block), 0);
    EXPECT_EQ(sem_close_calls.load(), 1);
    const std::vector<Release> freed = releases_made();
    ASSERT_EQ(freed.size(), 1u) << describe(freed);
    EXPECT_EQ(freed[0].block, block);
    EXPECT_EQ(freed[0].type, 0u);
    EXPECT_EQ(freed[0].file, kSemSource);
    EXPECT_TRUE(name.exists());  // closing does not unlink
}

TEST(SemNamed, CloseWhoseSemCloseFailsGivesMinusOneAndKeepsTheRecord) {
    SemName name;
    SwitchOn record(record_memory);
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 1));
    ASSERT_NE(rec.get(), nullptr);
    sem_t *named = rec.get()->handle.named;
    {
        SwitchOn fail(fail_sem_close);
        errno = 0;
        EXPECT_EQ(ZEPO_SemClose(rec.get()), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(released(rec.get()));
    EXPECT_EQ(rec.get()->kind, ZEPO_SEM_NAMED);
    EXPECT_EQ(rec.get()->handle.named, named);
    EXPECT_EQ(ZEPO_SemPost(rec.get()), 0);  // the record still works
    EXPECT_EQ(value_of(named), 2);

    // Once sem_close succeeds the same record is closed and released.
    ZEPO_SEM *block = rec.get();
    rec.forget();
    EXPECT_EQ(ZEPO_SemClose(block), 0);
    EXPECT_TRUE(released(block));
}

TEST(SemNamed, CloseOfNullIsRefusedWithErrnoUntouched) {
    sem_close_calls = 0;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemClose(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(sem_close_calls.load(), 0);
}

TEST(SemNamed, CloseOfARecordWithoutASemaphoreIsRefusedAndReleasesNothing) {
    SwitchOn record(record_memory);
    sem_close_calls = 0;
    ZEPO_SEM rec;
    std::memset(&rec, 0, sizeof rec);
    rec.kind = ZEPO_SEM_NAMED;
    rec.handle.named = nullptr;
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemClose(&rec), -1);
    EXPECT_EQ(errno, kSentinel);
    EXPECT_EQ(sem_close_calls.load(), 0);
    EXPECT_TRUE(releases_made().empty());
}

TEST(SemNamed, OpenWithExclusiveCreateOfAnExistingNameGivesNullAndReleasesTheRecord) {
    SemName name;
    sem_t *made = ::sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 0);
    ASSERT_NE(made, SEM_FAILED);
    SwitchOn record(record_memory);
    errno = 0;
    ZEPO_SEM *rec = ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 0);
    const int error = errno;
    OpenedRecord keep(rec);
    EXPECT_EQ(rec, nullptr);
    EXPECT_EQ(error, EEXIST);
    const std::vector<Allocation> made_blocks = allocations_made();
    ASSERT_EQ(made_blocks.size(), 1u);
    ASSERT_NE(made_blocks[0].block, nullptr);
    EXPECT_TRUE(released(made_blocks[0].block));
    ::sem_close(made);
}

TEST(SemNamed, OpenOfAMissingNameWithoutCreateGivesNullAndEnoent) {
    SemName name;
    SwitchOn record(record_memory);
    errno = 0;
    ZEPO_SEM *rec = ZEPO_SemOpenWin(name.c_str(), 0, 0, 0, 0x7FFFFFFF);
    const int error = errno;
    OpenedRecord keep(rec);
    EXPECT_EQ(rec, nullptr);
    EXPECT_EQ(error, ENOENT);
    EXPECT_FALSE(name.exists());
    const std::vector<Allocation> made_blocks = allocations_made();
    ASSERT_EQ(made_blocks.size(), 1u);
    EXPECT_TRUE(released(made_blocks[0].block));
}

TEST(SemNamed, OpenWhoseAllocationFailsGivesNullAndOpensNothing) {
    SemName name;
    SwitchOn record(record_memory);
    SwitchOn fail(fail_allocation);
    ZEPO_SEM *rec = ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 0);
    OpenedRecord keep(rec);
    EXPECT_EQ(rec, nullptr);
    EXPECT_EQ(allocations_made().size(), 1u);
    EXPECT_FALSE(name.exists());
}

TEST(SemNamed, WaitsAndPostsGoThroughTheStoredPointer) {
    SemName name;
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 0));
    ASSERT_NE(rec.get(), nullptr);
    sem_t *named = rec.get()->handle.named;

    EXPECT_EQ(ZEPO_SemPost(rec.get()), 0);
    EXPECT_EQ(value_of(named), 1);
    EXPECT_EQ(ZEPO_SemPostWin(rec.get(), 5), 0);
    EXPECT_EQ(value_of(named), 2);
    EXPECT_EQ(ZEPO_SemWait(rec.get()), 0);
    EXPECT_EQ(value_of(named), 1);
    EXPECT_EQ(ZEPO_SemTryWait(rec.get()), 0);
    EXPECT_EQ(value_of(named), 0);
    errno = 0;
    EXPECT_EQ(ZEPO_SemTryWait(rec.get()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(rec.get()->kind, ZEPO_SEM_NAMED);
    EXPECT_EQ(rec.get()->handle.named, named);
}

TEST(SemNamed, TimedWaitsGoThroughTheStoredPointer) {
    SemName name;
    OpenedRecord rec(ZEPO_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 2));
    ASSERT_NE(rec.get(), nullptr);
    sem_t *named = rec.get()->handle.named;
    timedwait_calls = 0;
    SwitchOn capture(capture_timedwait);

    const timespec later = realtime_in(10s);
    EXPECT_EQ(ZEPO_SemTimedWait(rec.get(), &later), 0);
    EXPECT_EQ(timedwait_sem, named);
    EXPECT_EQ(value_of(named), 1);

    timedwait_sem = nullptr;
    EXPECT_EQ(ZEPO_SemWaitTimeOut(rec.get(), 0), 0);
    EXPECT_EQ(timedwait_sem, named);
    EXPECT_EQ(value_of(named), 0);

    errno = 0;
    EXPECT_EQ(ZEPO_SemWaitTimeOut(rec.get(), 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    const timespec past{kPast, 0};
    errno = 0;
    EXPECT_EQ(ZEPO_SemTimedWait(rec.get(), &past), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(timedwait_calls.load(), 4);
}

TEST(SemNamed, UnLinkRemovesTheNameAndASecondUnLinkGivesEnoent) {
    SemName name;
    sem_t *made = ::sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 0);
    ASSERT_NE(made, SEM_FAILED);
    ::sem_close(made);
    ASSERT_TRUE(name.exists());
    EXPECT_EQ(ZEPO_SemUnLink(name.c_str()), 0);
    EXPECT_FALSE(name.exists());
    errno = 0;
    EXPECT_EQ(ZEPO_SemUnLink(name.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SemNamed, UnLinkOfNullOrEmptyIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemUnLink(nullptr), -1);
    EXPECT_EQ(ZEPO_SemUnLink(""), -1);
    EXPECT_EQ(errno, kSentinel);
}

// ---- Wait on the first of several semaphores ------------------------------------------------

TEST(SemMultiple, CountZeroGivesMinusOneAndTakesNothing) {
    ThreeSems sems(1, 1, 1);
    trywait_calls = 0;
    SwitchOn count(count_trywait);
    EXPECT_EQ(ZEPO_SemWaitMultiple(0, sems.ptrs(), 1), -1);
    EXPECT_EQ(ZEPO_SemWaitMultiple(0, sems.ptrs(), -1), -1);  // does not wait for ever
    EXPECT_EQ(ZEPO_SemWaitMultiple(0, nullptr, 3), -1);
    EXPECT_EQ(trywait_calls.load(), 0);
    EXPECT_EQ(sems.value(0), 1);
    EXPECT_EQ(sems.value(1), 1);
    EXPECT_EQ(sems.value(2), 1);
}

TEST(SemMultiple, TriesZeroGivesMinusOneAtOnceWithoutTakingAny) {
    ThreeSems sems(1, 1, 1);
    trywait_calls = 0;
    {
        std::lock_guard<std::mutex> hold(sleeps_lock);
        sleeps.clear();
    }
    SwitchOn count(count_trywait);
    SwitchOn sleeping(record_sleeps);
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 0), -1);
    EXPECT_EQ(trywait_calls.load(), 0);
    {
        std::lock_guard<std::mutex> hold(sleeps_lock);
        EXPECT_TRUE(sleeps.empty());
    }
    EXPECT_EQ(sems.value(0), 1);
    EXPECT_EQ(sems.value(1), 1);
    EXPECT_EQ(sems.value(2), 1);
}

TEST(SemMultiple, NoneAvailableGivesMinusOneAfterAboutFiveMilliseconds) {
    ThreeSems sems(0, 0, 0);
    const auto start = Clock::now();
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 5), -1);
    const auto waited =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 5000000);  // five sleeps of 1 ms at least
    EXPECT_LT(waited, 3000000000LL);
    EXPECT_EQ(sems.value(0), 0);
    EXPECT_EQ(sems.value(1), 0);
    EXPECT_EQ(sems.value(2), 0);
}

TEST(SemMultiple, EachFruitlessPassTriesAllInOrderAndSleepsOneMillisecond) {
    ThreeSems sems(0, 0, 0);
    trywait_calls = 0;
    {
        std::lock_guard<std::mutex> hold(sleeps_lock);
        sleeps.clear();
    }
    {
        SwitchOn count(count_trywait);
        SwitchOn sleeping(record_sleeps);
        EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 5), -1);
    }
    EXPECT_EQ(trywait_calls.load(), 15);
    std::lock_guard<std::mutex> hold(sleeps_lock);
    ASSERT_EQ(sleeps.size(), 5u);
    for (const timespec &s : sleeps) {
        EXPECT_EQ(s.tv_sec, 0);
        EXPECT_EQ(s.tv_nsec, 1000000);
    }
}

TEST(SemMultiple, SecondAndThirdAvailableGivesOneAndLeavesTheThirdUntouched) {
    ThreeSems sems(0, 1, 1);
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 5), 1);
    EXPECT_EQ(sems.value(0), 0);
    EXPECT_EQ(sems.value(1), 0);
    EXPECT_EQ(sems.value(2), 1);
}

TEST(SemMultiple, LowestAvailableIndexWinsAndOnlyOneIsTaken) {
    ThreeSems sems(2, 1, 1);
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 1), 0);
    EXPECT_EQ(sems.value(0), 1);
    EXPECT_EQ(sems.value(1), 1);
    EXPECT_EQ(sems.value(2), 1);
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), -1), 0);
    EXPECT_EQ(sems.value(0), 0);
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), -1), 1);
    EXPECT_EQ(sems.value(1), 0);
    EXPECT_EQ(sems.value(2), 1);
}

TEST(SemMultiple, OnlyTheLastAvailableIsFoundInTheFirstPass) {
    ThreeSems sems(0, 0, 1);
    trywait_calls = 0;
    {
        SwitchOn count(count_trywait);
        EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 1), 2);
    }
    EXPECT_EQ(trywait_calls.load(), 3);
    EXPECT_EQ(sems.value(2), 0);
}

TEST(SemMultiple, UnlimitedTriesWaitUntilAnotherThreadPostsOne) {
    ThreeSems sems(0, 0, 0);
    trywait_calls = 0;
    SwitchOn count(count_trywait);
    std::atomic<bool> polled_before_post{false};
    std::jthread poster([&] {
        // Two full fruitless passes first, so that the call is really waiting.
        polled_before_post = wait_until([] { return trywait_calls.load() >= 6; });
        ::sem_post(sems.at(2));
    });
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), -1), 2);
    poster.join();
    EXPECT_TRUE(polled_before_post.load());
    EXPECT_EQ(sems.value(0), 0);
    EXPECT_EQ(sems.value(1), 0);
    EXPECT_EQ(sems.value(2), 0);
}

TEST(SemMultiple, LimitedTriesFindOnePostedDuringTheWait) {
    ThreeSems sems(0, 0, 0);
    trywait_calls = 0;
    SwitchOn count(count_trywait);
    std::atomic<bool> polled_before_post{false};
    std::jthread poster([&] {
        polled_before_post = wait_until([] { return trywait_calls.load() >= 6; });
        ::sem_post(sems.at(1));
        ::sem_post(sems.at(2));
    });
    // Up to about 100 s of passes; the post comes after the second.
    EXPECT_EQ(ZEPO_SemWaitMultiple(3, sems.ptrs(), 100000), 1);
    poster.join();
    EXPECT_TRUE(polled_before_post.load());
    EXPECT_EQ(sems.value(1), 0);
    EXPECT_EQ(sems.value(2), 1);
}

// ---- System V semaphores and keys -----------------------------------------------------------

TEST(SemSystemV, SemGetCreatesAPrivateSetWhoseValueSemCtlSetsAndReads) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    semun arg{};
    arg.val = 5;
    EXPECT_EQ(ZEPO_SemCtl(id, 0, SETVAL, arg), 0);
    EXPECT_EQ(ZEPO_SemCtl(id, 0, GETVAL), 5);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 5);
}

TEST(SemSystemV, SemCtlPassesTheStatusBufferOn) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 3, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    struct semid_ds ds;
    std::memset(&ds, 0, sizeof ds);
    semun arg{};
    arg.buf = &ds;
    EXPECT_EQ(ZEPO_SemCtl(id, 0, IPC_STAT, arg), 0);
    EXPECT_EQ(ds.sem_nsems, 3u);
    EXPECT_EQ(ds.sem_perm.mode & 0777, 0600u);
    EXPECT_EQ(ds.sem_perm.uid, ::geteuid());
}

TEST(SemSystemV, SemCtlPassesTheValueArrayOnForSetAllAndGetAll) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 3, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    unsigned short in[3] = {4, 0, 9};
    semun arg{};
    arg.array = in;
    EXPECT_EQ(ZEPO_SemCtl(id, 0, SETALL, arg), 0);
    EXPECT_EQ(::semctl(id, 2, GETVAL), 9);
    unsigned short out[3] = {77, 77, 77};
    arg.array = out;
    EXPECT_EQ(ZEPO_SemCtl(id, 0, GETALL, arg), 0);
    EXPECT_EQ(out[0], 4);
    EXPECT_EQ(out[1], 0);
    EXPECT_EQ(out[2], 9);
}

TEST(SemSystemV, SemOpRaisesAndLowersTheValue) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    struct sembuf up = {0, 2, 0};
    EXPECT_EQ(ZEPO_SemOp(id, &up, 1), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 2);
    struct sembuf down = {0, -1, IPC_NOWAIT};
    EXPECT_EQ(ZEPO_SemOp(id, &down, 1), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
    struct sembuf both[2] = {{0, -1, 0}, {0, 3, 0}};
    EXPECT_EQ(ZEPO_SemOp(id, both, 2), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 3);
}

TEST(SemSystemV, SemOpDownWithoutWaitOnZeroGivesEagain) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    struct sembuf down = {0, -1, IPC_NOWAIT};
    errno = 0;
    EXPECT_EQ(ZEPO_SemOp(id, &down, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
}

TEST(SemSystemV, SemOpOfNullOperationsIsRefusedWithErrnoUntouched) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_SemOp(id, nullptr, 1), -1);
    EXPECT_EQ(ZEPO_SemOp(id, nullptr, 0), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(SemSystemV, SemCtlIpcRmidRemovesTheSet) {
    const int id = ZEPO_SemGet(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    EXPECT_EQ(ZEPO_SemCtl(id, 0, IPC_RMID), 0);
    errno = 0;
    EXPECT_EQ(::semctl(id, 0, GETVAL), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(ZEPO_SemCtl(id, 0, GETVAL), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SemSystemV, FtokGivesTheKeyOfThePlatformForAFile) {
    TempDir dir;
    const std::string path = dir / "key";
    Fd fd(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_GE(fd.get(), 0);
    const key_t expected = ::ftok(path.c_str(), 'q');
    ASSERT_NE(expected, -1);
    EXPECT_EQ(ZEPO_Ftok(path.c_str(), 'q'), expected);
    EXPECT_NE(ZEPO_Ftok(path.c_str(), 'r'), expected);
}

TEST(SemSystemV, FtokOfAMissingFileGivesEnoent) {
    TempDir dir;
    errno = 0;
    EXPECT_EQ(ZEPO_Ftok((dir / "missing").c_str(), 1), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SemSystemV, FtokOfNullPathIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_Ftok(nullptr, 1), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(SemSystemV, SemGetOfAKeyFindsTheSetAndExclusiveCreateGivesEexist) {
    TempDir dir;
    const std::string path = dir / "key";
    Fd fd(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_GE(fd.get(), 0);
    const int key = ZEPO_Ftok(path.c_str(), 'S');
    ASSERT_NE(key, -1);
    const int id = ZEPO_SemGet(key, 2, IPC_CREAT | IPC_EXCL | 0600);
    SemSetGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    EXPECT_EQ(ZEPO_SemGet(key, 2, 0), id);
    errno = 0;
    EXPECT_EQ(ZEPO_SemGet(key, 2, IPC_CREAT | IPC_EXCL | 0600), -1);
    EXPECT_EQ(errno, EEXIST);
}

// ---- System V shared memory -----------------------------------------------------------------

TEST(SemSharedMemory, ShmGetCreatesASegmentOfTheAskedSize) {
    const int id = ZEPO_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ShmGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    struct shmid_ds ds;
    std::memset(&ds, 0, sizeof ds);
    EXPECT_EQ(ZEPO_ShmCtl(id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, 4096u);
    EXPECT_EQ(ds.shm_perm.mode & 0777, 0600u);
    EXPECT_EQ(ds.shm_nattch, 0u);
}

TEST(SemSharedMemory, ShmAtReturnsTheAttachAddressCutTo32BitsAndSignExtended) {
    const int id = ZEPO_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ShmGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    last_shmat = nullptr;
    void *returned = ZEPO_ShmAt(id, nullptr, 0);
    Attached real(last_shmat.load());
    ASSERT_NE(real.get(), nullptr);
    ASSERT_NE(real.get(), reinterpret_cast<void *>(-1));
    EXPECT_EQ(returned, cut_and_sign_extended(real.get()));
    struct shmid_ds ds;
    EXPECT_EQ(ZEPO_ShmCtl(id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 1u);
    // The address above 4 GiB does not survive: detach by the real one.
    EXPECT_EQ(ZEPO_ShmDt(real.get()), 0);
    real.forget();
    EXPECT_EQ(ZEPO_ShmCtl(id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 0u);
}

TEST(SemSharedMemory, ShmAtBelow2GiBReturnsTheAddressIntact) {
    const int id = ZEPO_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ShmGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    void *low = free_address(
        {0x10000000u, 0x20000000u, 0x30000000u, 0x40000000u, 0x50000000u, 0x60000000u});
    ASSERT_NE(low, nullptr) << "no free page below 2 GiB";
    void *returned = ZEPO_ShmAt(id, low, 0);
    Attached real(last_shmat.load());
    ASSERT_EQ(real.get(), low);
    ASSERT_EQ(returned, low);

    // The segment is shared: what is written through the returned address shows in another
    // attachment.
    static_cast<char *>(returned)[0] = 'Q';
    static_cast<char *>(returned)[4095] = 'Z';
    void *second = ::shmat(id, nullptr, SHM_RDONLY);
    ASSERT_NE(second, reinterpret_cast<void *>(-1));
    Attached second_guard(second);
    EXPECT_EQ(static_cast<const char *>(second)[0], 'Q');
    EXPECT_EQ(static_cast<const char *>(second)[4095], 'Z');
    EXPECT_EQ(ZEPO_ShmDt(returned), 0);
    real.forget();
}

TEST(SemSharedMemory, ShmAtWhoseLow32BitsExceed2GiBReturnsThemSignExtended) {
    const int id = ZEPO_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ShmGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    void *high = free_address({UINT64_C(0x500080000000), UINT64_C(0x600080000000),
                               UINT64_C(0x300080000000), UINT64_C(0x400080000000)});
    ASSERT_NE(high, nullptr) << "no free page at the candidate addresses";
    void *returned = ZEPO_ShmAt(id, high, 0);
    Attached real(last_shmat.load());
    ASSERT_EQ(real.get(), high);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(returned), UINT64_C(0xFFFFFFFF80000000));
}

TEST(SemSharedMemory, ShmAtFailureStillReadsMinusOne) {
    errno = 0;
    EXPECT_EQ(ZEPO_ShmAt(-1, nullptr, 0), reinterpret_cast<void *>(-1));
    EXPECT_EQ(errno, EINVAL);
}

TEST(SemSharedMemory, ShmDtOfAnAddressNotAttachedGivesEinval) {
    const long page = ::sysconf(_SC_PAGESIZE);
    void *plain =
        ::mmap(nullptr, static_cast<size_t>(page), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(plain, MAP_FAILED);
    Mapped unmap(plain, static_cast<size_t>(page));
    errno = 0;
    EXPECT_EQ(ZEPO_ShmDt(plain), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SemSharedMemory, ShmCtlIpcRmidRemovesTheSegment) {
    const int id = ZEPO_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ShmGuard guard(id);
    ASSERT_GE(id, 0) << std::strerror(errno);
    EXPECT_EQ(ZEPO_ShmCtl(id, IPC_RMID, nullptr), 0);
    struct shmid_ds ds;
    errno = 0;
    EXPECT_EQ(::shmctl(id, IPC_STAT, &ds), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SemSharedMemory, ShmGetOfAMissingKeyWithoutCreateGivesEnoent) {
    TempDir dir;
    const std::string path = dir / "key";
    Fd fd(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_GE(fd.get(), 0);
    const key_t key = ::ftok(path.c_str(), 'M');
    ASSERT_NE(key, -1);
    errno = 0;
    const int id = ZEPO_ShmGet(key, 4096, 0600);
    ShmGuard guard(id);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SemSharedMemory, ShmOpenDoesNothingAndGivesMinusOne) {
    const std::string name = "/qel_sem_test_shm_" + std::to_string(::getpid());
    const std::string entry = "/dev/shm" + name;
    ::unlink(entry.c_str());
    errno = kSentinel;
    EXPECT_EQ(ZEPO_ShmOpen(name.c_str(), O_CREAT | O_RDWR, 0600), -1);
    EXPECT_EQ(ZEPO_ShmOpen(nullptr, 0, 0), -1);
    EXPECT_EQ(errno, kSentinel);
    struct stat st;
    EXPECT_NE(::stat(entry.c_str(), &st), 0);
    ::unlink(entry.c_str());
}

TEST(SemSharedMemory, ShmUnLinkDoesNothingAndGivesMinusOne) {
    const std::string name = "/qel_sem_test_shm_" + std::to_string(::getpid());
    const std::string entry = "/dev/shm" + name;
    Fd fd(::open(entry.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
    ASSERT_GE(fd.get(), 0) << std::strerror(errno);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_ShmUnLink(name.c_str()), -1);
    EXPECT_EQ(ZEPO_ShmUnLink(nullptr), -1);
    EXPECT_EQ(errno, kSentinel);
    struct stat st;
    EXPECT_EQ(::stat(entry.c_str(), &st), 0);
    ::unlink(entry.c_str());
}

// ---- Memory mappings ------------------------------------------------------------------------

TEST(SemMapping, MMapAnonymousGivesZeroedWritableMemoryThatMUnMapReleases) {
    const uint32_t length = 2 * static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    void *addr =
        ZEPO_MMap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(addr, MAP_FAILED) << std::strerror(errno);
    Mapped guard(addr, length);
    auto *bytes = static_cast<unsigned char *>(addr);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[length - 1], 0);
    bytes[0] = 1;
    bytes[length - 1] = 2;
    EXPECT_EQ(bytes[0] + bytes[length - 1], 3);
    EXPECT_EQ(ZEPO_MUnMap(addr, length), 0);
    guard.forget();
    errno = 0;
    EXPECT_FALSE(is_mapped(addr, length));
    EXPECT_EQ(errno, ENOMEM);
}

TEST(SemMapping, MMapWinAnonymousGivesZeroedWritableMemoryThatMUnMapWinReleases) {
    const uint32_t length = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    void *addr =
        ZEPO_MMapWin(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(addr, MAP_FAILED) << std::strerror(errno);
    Mapped guard(addr, length);
    auto *bytes = static_cast<unsigned char *>(addr);
    EXPECT_EQ(bytes[length / 2], 0);
    bytes[length / 2] = 9;
    EXPECT_EQ(bytes[length / 2], 9);
    EXPECT_EQ(ZEPO_MUnMapWin(addr, length), 0);
    guard.forget();
    EXPECT_FALSE(is_mapped(addr, length));
}

TEST(SemMapping, MMapOfAFileAtAPageOffsetShowsThatPage) {
    const long page = ::sysconf(_SC_PAGESIZE);
    TempDir dir;
    const std::string path = dir / "pages";
    Fd fd(::open(path.c_str(), O_CREAT | O_RDWR, 0600));
    ASSERT_GE(fd.get(), 0);
    std::string content;
    content.append(static_cast<size_t>(page), 'a');
    content.append(static_cast<size_t>(page), 'b');
    content.append(static_cast<size_t>(page), 'c');
    ASSERT_EQ(::write(fd.get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));

    const uint32_t length = static_cast<uint32_t>(page);
    void *second =
        ZEPO_MMap(nullptr, length, PROT_READ, MAP_SHARED, fd.get(), static_cast<int32_t>(page));
    ASSERT_NE(second, MAP_FAILED) << std::strerror(errno);
    Mapped second_guard(second, length);
    EXPECT_EQ(static_cast<const char *>(second)[0], 'b');
    EXPECT_EQ(static_cast<const char *>(second)[page - 1], 'b');

    void *third = ZEPO_MMapWin(nullptr, length, PROT_READ, MAP_PRIVATE, fd.get(),
                               static_cast<int32_t>(2 * page));
    ASSERT_NE(third, MAP_FAILED) << std::strerror(errno);
    Mapped third_guard(third, length);
    EXPECT_EQ(static_cast<const char *>(third)[0], 'c');
    EXPECT_EQ(static_cast<const char *>(third)[page - 1], 'c');
}

TEST(SemMapping, MMapWritesThroughASharedFileMapping) {
    const long page = ::sysconf(_SC_PAGESIZE);
    TempDir dir;
    const std::string path = dir / "shared";
    Fd fd(::open(path.c_str(), O_CREAT | O_RDWR, 0600));
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(::ftruncate(fd.get(), page), 0);
    void *addr = ZEPO_MMap(nullptr, static_cast<uint32_t>(page), PROT_READ | PROT_WRITE, MAP_SHARED,
                           fd.get(), 0);
    ASSERT_NE(addr, MAP_FAILED) << std::strerror(errno);
    Mapped guard(addr, static_cast<size_t>(page));
    std::memcpy(addr, "mapped", 6);
    char back[7] = {};
    ASSERT_EQ(::pread(fd.get(), back, 6, 0), 6);
    EXPECT_STREQ(back, "mapped");
}

TEST(SemMapping, NegativeOffsetIsSignExtendedAndRefusedAsThePlatformRefusesIt) {
    const long page = ::sysconf(_SC_PAGESIZE);
    TempDir dir;
    const std::string path = dir / "file";
    Fd fd(::open(path.c_str(), O_CREAT | O_RDWR, 0600));
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(::ftruncate(fd.get(), page), 0);
    const int32_t negative = -static_cast<int32_t>(page);  // 0xFFFFF000 if read unsigned

    // What the platform says to the sign-extended offset (EOVERFLOW or EINVAL by kernel);
    // read unsigned, the offset would be a valid one past the end of the file and succeed.
    errno = 0;
    void *direct = ::mmap(nullptr, static_cast<size_t>(page), PROT_READ, MAP_SHARED, fd.get(),
                          static_cast<off_t>(negative));
    const int platform_error = errno;
    Mapped direct_guard(direct, static_cast<size_t>(page));
    ASSERT_EQ(direct, MAP_FAILED);
    ASSERT_TRUE(platform_error == EINVAL || platform_error == EOVERFLOW) << platform_error;

    errno = 0;
    void *addr =
        ZEPO_MMap(nullptr, static_cast<uint32_t>(page), PROT_READ, MAP_SHARED, fd.get(), negative);
    const int error = errno;
    Mapped guard(addr, static_cast<size_t>(page));
    EXPECT_EQ(addr, MAP_FAILED);
    EXPECT_EQ(error, platform_error);

    errno = 0;
    void *addr_win = ZEPO_MMapWin(nullptr, static_cast<uint32_t>(page), PROT_READ, MAP_SHARED,
                                  fd.get(), negative);
    const int error_win = errno;
    Mapped guard_win(addr_win, static_cast<size_t>(page));
    EXPECT_EQ(addr_win, MAP_FAILED);
    EXPECT_EQ(error_win, platform_error);
}

TEST(SemMapping, NegativeUnalignedOffsetGivesEinval) {
    const long page = ::sysconf(_SC_PAGESIZE);
    errno = 0;
    void *addr = ZEPO_MMap(nullptr, static_cast<uint32_t>(page), PROT_READ,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, -1);
    const int error = errno;
    Mapped guard(addr, static_cast<size_t>(page));
    EXPECT_EQ(addr, MAP_FAILED);
    EXPECT_EQ(error, EINVAL);
}

TEST(SemMapping, LengthAbove2GiBIsWidenedUnsigned) {
    const uint32_t length = 0x80000000u;  // negative if read signed
    void *addr =
        ZEPO_MMap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(addr, MAP_FAILED) << std::strerror(errno);
    Mapped guard(addr, length);
    EXPECT_TRUE(is_mapped(static_cast<char *>(addr) + (length - 4096u), 4096));
    EXPECT_EQ(ZEPO_MUnMap(addr, length), 0);
    guard.forget();
    EXPECT_FALSE(is_mapped(static_cast<char *>(addr) + (length - 4096u), 4096));
}

TEST(SemMapping, MMapOfLengthZeroGivesMapFailedWithEinval) {
    errno = 0;
    EXPECT_EQ(ZEPO_MMap(nullptr, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SemMapping, MUnMapOfNullIsRefusedWithErrnoUntouched) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MUnMap(nullptr, 4096), -1);
    EXPECT_EQ(ZEPO_MUnMapWin(nullptr, 4096), -1);
    EXPECT_EQ(errno, kSentinel);
}

TEST(SemMapping, MUnMapOfAMisalignedAddressGivesEinval) {
    const uint32_t length = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    void *addr = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(addr, MAP_FAILED);
    Mapped guard(addr, length);
    errno = 0;
    EXPECT_EQ(ZEPO_MUnMapWin(static_cast<char *>(addr) + 1, length), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(is_mapped(addr, length));
}
