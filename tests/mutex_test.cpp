// The library's mutex record and the read-write lock wrappers.
//
// Some tests need the platform to fail or need to see which mutexes the library sets up: the
// executable interposes pthread_mutex_init, pthread_mutex_destroy, pthread_mutexattr_init and
// pthread_mutexattr_settype in front of the C library (the library calls them through the dynamic
// linker).  The interposers only count and fail calls while a test arms them, and forward every
// call otherwise.
//
// A few tests misuse a mutex on purpose (unlock by a thread that does not hold it, destroy while
// locked) to see the platform's error come back.  ThreadSanitizer reports such misuse; those calls
// are made from helpers whose names start with "deliberate_", and only their reports are
// suppressed.  Threads never wait for one another with fixed sleeps: they wait for flags, with a
// generous deadline.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "qel_mutex.h"

#include "test_support.h"

// ---- Layout of the record --------------------------------------------------------------------

static_assert(sizeof(ZEPO_MUTEX) == 72, "the record is 64 bytes of mutex space and two markers");
static_assert(offsetof(ZEPO_MUTEX, mutexSpace) == 0, "the mutex space opens the record");
static_assert(sizeof(ZEPO_MUTEX::mutexSpace) == 64, "the mutex space is 64 bytes");
static_assert(offsetof(ZEPO_MUTEX, marker1) == 64, "marker 1 follows the mutex space");
static_assert(offsetof(ZEPO_MUTEX, marker2) == 68, "marker 2 follows marker 1");
static_assert(sizeof(ZEPO_MUTEX::marker1) == 4 && sizeof(ZEPO_MUTEX::marker2) == 4,
              "the markers are 32-bit words");
static_assert(sizeof(pthread_mutex_t) <= sizeof(ZEPO_MUTEX::mutexSpace),
              "the platform mutex fits the mutex space");
static_assert(ZEPO_MUTEX_MARKER1 == 0xABBABEEFu && ZEPO_MUTEX_MARKER2 == 0xCDDCCDCFu,
              "marker values of a record not yet locked");
static_assert(EBUSY == 16 && EPERM == 1 && EDEADLK == 35, "Linux error numbers");

namespace {

constexpr ZEPO_MUTEX kStaticRecord = ZEPO_MUTEX_INITIALIZER;
static_assert(kStaticRecord.marker1 == 0xABBABEEFu, "initialiser sets marker 1");
static_assert(kStaticRecord.marker2 == 0xCDDCCDCFu, "initialiser sets marker 2");
static_assert(kStaticRecord.mutexSpace[0] == 0 && kStaticRecord.mutexSpace[1] == 0 &&
                  kStaticRecord.mutexSpace[2] == 0 && kStaticRecord.mutexSpace[3] == 0 &&
                  kStaticRecord.mutexSpace[4] == 0 && kStaticRecord.mutexSpace[5] == 0 &&
                  kStaticRecord.mutexSpace[6] == 0 && kStaticRecord.mutexSpace[7] == 0,
              "initialiser zeroes the mutex space");

using qel_test::kSentinel;
constexpr uint32_t kAllOnes = 0xFFFFFFFFu;
constexpr auto kPatience = std::chrono::seconds(30);

// ---- Interposed platform calls ---------------------------------------------------------------

// The record whose pthread_mutex_init / pthread_mutex_destroy calls are counted and, while
// failures are armed, failed.  Set and cleared by Watch.
std::atomic<const void *> g_watched{nullptr};
std::atomic<int> g_initCalls{0};
std::atomic<int> g_initFailures{0};
std::atomic<int> g_initFailureCode{0};
std::atomic<int> g_destroyFailures{0};
std::atomic<int> g_destroyFailureCode{0};
// Attribute calls are failed only on the thread that armed them.
thread_local int t_attrInitFailures = 0;
thread_local int t_setTypeFailures = 0;

}  // namespace

extern "C" int pthread_mutex_init(pthread_mutex_t *mutex,
                                  const pthread_mutexattr_t *attr) noexcept {
    using Entry = int (*)(pthread_mutex_t *, const pthread_mutexattr_t *);
    static const auto next = qel_test::next_definition<Entry>("pthread_mutex_init");
    if (static_cast<const void *>(mutex) == g_watched.load()) {
        ++g_initCalls;
        if (g_initFailures.load() > 0) {
            --g_initFailures;
            return g_initFailureCode.load();
        }
    }
    return next(mutex, attr);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t *mutex) noexcept {
    using Entry = int (*)(pthread_mutex_t *);
    static const auto next = qel_test::next_definition<Entry>("pthread_mutex_destroy");
    if (static_cast<const void *>(mutex) == g_watched.load() && g_destroyFailures.load() > 0) {
        --g_destroyFailures;
        return g_destroyFailureCode.load();
    }
    return next(mutex);
}

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t *attr) noexcept {
    using Entry = int (*)(pthread_mutexattr_t *);
    static const auto next = qel_test::next_definition<Entry>("pthread_mutexattr_init");
    if (t_attrInitFailures > 0) {
        --t_attrInitFailures;
        return ENOMEM;
    }
    return next(attr);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int kind) noexcept {
    using Entry = int (*)(pthread_mutexattr_t *, int);
    static const auto next = qel_test::next_definition<Entry>("pthread_mutexattr_settype");
    if (t_setTypeFailures > 0) {
        --t_setTypeFailures;
        return EINVAL;
    }
    return next(attr, kind);
}

#if defined(__SANITIZE_THREAD__)
// Only the reports raised inside the deliberate_ helpers below are suppressed.
extern "C" const char *__tsan_default_suppressions() { return "mutex:deliberate_\n"; }
#endif

namespace {

// ---- Helpers ---------------------------------------------------------------------------------

// Counts the set-up calls made on one record, and arms platform failures on it, for the life
// of the object.
class Watch {
public:
    explicit Watch(const ZEPO_MUTEX *record) {
        g_initCalls = 0;
        g_initFailures = 0;
        g_destroyFailures = 0;
        g_watched = record;
    }
    ~Watch() {
        g_watched = nullptr;
        g_initFailures = 0;
        g_destroyFailures = 0;
        t_attrInitFailures = 0;
        t_setTypeFailures = 0;
    }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    int initCalls() const { return g_initCalls.load(); }
    void failInit(int times, int code) {
        g_initFailureCode = code;
        g_initFailures = times;
    }
    void failDestroy(int times, int code) {
        g_destroyFailureCode = code;
        g_destroyFailures = times;
    }
};

pthread_mutex_t *platform(ZEPO_MUTEX *record) {
    return reinterpret_cast<pthread_mutex_t *>(&record->mutexSpace);
}

uint64_t marker_word(const ZEPO_MUTEX &record) {
    uint64_t word = 0;
    std::memcpy(&word, reinterpret_cast<const unsigned char *>(&record) + 64, sizeof word);
    return word;
}

bool mutex_space_is_zero(const ZEPO_MUTEX &record) {
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&record);
    for (size_t i = 0; i < 64; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

// A record from ZEPO_MutexInit whose markers hold neither the static values nor all ones.
struct InitRecord {
    ZEPO_MUTEX record{};
    int initResult = -100;
    InitRecord() {
        record.marker1 = 0x11111111u;
        record.marker2 = 0x22222222u;
        initResult = ZEPO_MutexInit(&record, nullptr);
    }
};

// Spins (yielding) until flag is set or the deadline passes.
bool wait_for(const std::atomic<bool> &flag) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!flag.load()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

// ZEPO_MutexTryLock from a thread of its own; a lock it gets is released again.
int try_lock_from_other_thread(ZEPO_MUTEX *record) {
    int result = -100;
    std::thread([&] {
        result = ZEPO_MutexTryLock(record);
        if (result == 0) ZEPO_MutexUnLock(record);
    }).join();
    return result;
}

// ZEPO_MutexLock from a thread of its own; the lock is released again.
int lock_from_other_thread(ZEPO_MUTEX *record) {
    int result = -100;
    std::thread([&] {
        result = ZEPO_MutexLock(record);
        if (result == 0) ZEPO_MutexUnLock(record);
    }).join();
    return result;
}

// Calls made on purpose that ThreadSanitizer would report (see the top of the file); kept out of
// line so that their names are on the reported stacks.
__attribute__((noinline)) int deliberate_unlock_not_held(ZEPO_MUTEX *record) {
    return ZEPO_MutexUnLock(record);
}

__attribute__((noinline)) int deliberate_destroy_locked(ZEPO_MUTEX *record) {
    return ZEPO_MutexDestroy(record);
}

// After a refused destroy of a locked mutex, ThreadSanitizer has forgotten the lock.
__attribute__((noinline)) int deliberate_unlock_after_refused_destroy(ZEPO_MUTEX *record) {
    return ZEPO_MutexUnLock(record);
}

// Locks depth times from this thread, then unlocks as often; after every unlock but the last
// another thread must find the mutex busy, after the last it must get it.
void expect_nests_to_depth(ZEPO_MUTEX *record, int depth) {
    for (int i = 0; i < depth; ++i) ASSERT_EQ(ZEPO_MutexLock(record), 0) << "lock " << i + 1;
    EXPECT_EQ(try_lock_from_other_thread(record), EBUSY) << "at depth " << depth;
    for (int i = 1; i <= depth; ++i) {
        ASSERT_EQ(ZEPO_MutexUnLock(record), 0) << "unlock " << i;
        if (i < depth) {
            ASSERT_EQ(try_lock_from_other_thread(record), EBUSY) << "after " << i << " unlocks";
        }
    }
    EXPECT_EQ(try_lock_from_other_thread(record), 0);
    EXPECT_EQ(lock_from_other_thread(record), 0);
}

// How a child process ended: its exit code, or the signal that ended it.
struct Ending {
    bool signalled = false;
    int value = -1;
    bool operator==(const Ending &other) const = default;
};

std::ostream &operator<<(std::ostream &out, const Ending &ending) {
    return out << (ending.signalled ? "signal " : "exit ") << ending.value;
}

// Runs call in a forked child, which exits with the low byte of its result.
Ending ending_in_child(int (*call)()) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) _exit(call() & 0xFF);
    Ending ending;
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return ending;
    if (WIFSIGNALED(status)) {
        ending.signalled = true;
        ending.value = WTERMSIG(status);
    } else if (WIFEXITED(status)) {
        ending.value = WEXITSTATUS(status);
    }
    return ending;
}

// ---- Layout and the static initialiser -------------------------------------------------------

ZEPO_MUTEX g_staticUntouched = ZEPO_MUTEX_INITIALIZER;

TEST(MutexRecord, InitializerGivesSixtyFourZeroBytesThenBothMarkers) {
    ZEPO_MUTEX local = ZEPO_MUTEX_INITIALIZER;
    for (const ZEPO_MUTEX *record : {&local, &g_staticUntouched}) {
        unsigned char bytes[sizeof(ZEPO_MUTEX)];
        std::memcpy(bytes, record, sizeof bytes);
        for (size_t i = 0; i < 64; ++i) ASSERT_EQ(bytes[i], 0) << "byte " << i;
        uint32_t marker1 = 0;
        uint32_t marker2 = 0;
        std::memcpy(&marker1, bytes + 64, 4);
        std::memcpy(&marker2, bytes + 68, 4);
        EXPECT_EQ(marker1, 0xABBABEEFu);
        EXPECT_EQ(marker2, 0xCDDCCDCFu);
        // Little-endian words: the lowest byte first.
        EXPECT_EQ(bytes[64], 0xEF);
        EXPECT_EQ(bytes[67], 0xAB);
        EXPECT_EQ(bytes[68], 0xCF);
        EXPECT_EQ(bytes[71], 0xCD);
    }
}

// ---- Lazy set-up of a static record ----------------------------------------------------------

TEST(MutexLazySetUp, StaticRecordLocksTwiceAndMarkersReadAllOnesAfterFirstLock) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(m.marker1, kAllOnes);
    EXPECT_EQ(m.marker2, kAllOnes);
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(watch.initCalls(), 1);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 1) << "the second lock sets nothing up";
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(m.marker1, kAllOnes);
    EXPECT_EQ(m.marker2, kAllOnes);
    EXPECT_EQ(lock_from_other_thread(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexLazySetUp, TryLockSetsUpAStaticRecordAsARecursiveMutex) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    ASSERT_EQ(ZEPO_MutexTryLock(&m), 0);
    EXPECT_EQ(m.marker1, kAllOnes);
    EXPECT_EQ(m.marker2, kAllOnes);
    EXPECT_EQ(watch.initCalls(), 1);
    EXPECT_EQ(ZEPO_MutexTryLock(&m), 0) << "the holder may take it again";
    EXPECT_EQ(watch.initCalls(), 1);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(try_lock_from_other_thread(&m), EBUSY) << "still held once";
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(try_lock_from_other_thread(&m), 0);
}

TEST(MutexLazySetUp, GlobalStaticRecordIsSetUpByItsFirstLock) {
    static ZEPO_MUTEX s_global = ZEPO_MUTEX_INITIALIZER;
    EXPECT_EQ(s_global.marker1, 0xABBABEEFu);
    ASSERT_EQ(ZEPO_MutexLock(&s_global), 0);
    EXPECT_EQ(marker_word(s_global), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexLock(&s_global), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&s_global), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&s_global), 0);
}

TEST(MutexLazySetUp, RecordWithOnlyMarkerOneSetLocksAsAZeroedNormalPlatformMutex) {
    ZEPO_MUTEX m{};
    m.marker1 = ZEPO_MUTEX_MARKER1;
    m.marker2 = 0;
    Watch watch(&m);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 0) << "no set-up";
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, 0u);
    // A zeroed glibc mutex is a normal one: the holder's try-lock finds it busy.
    EXPECT_EQ(ZEPO_MutexTryLock(&m), EBUSY);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, 0u);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(try_lock_from_other_thread(&m), 0);
}

TEST(MutexLazySetUp, RecordWithOnlyMarkerTwoSetTryLocksAsAZeroedNormalPlatformMutex) {
    ZEPO_MUTEX m{};
    m.marker1 = 0;
    m.marker2 = ZEPO_MUTEX_MARKER2;
    Watch watch(&m);
    ASSERT_EQ(ZEPO_MutexTryLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 0) << "no set-up";
    EXPECT_EQ(m.marker1, 0u);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    EXPECT_EQ(ZEPO_MutexTryLock(&m), EBUSY);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(m.marker1, 0u);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
}

TEST(MutexLazySetUp, RecordWithOneMarkerGivesThePlatformLockErrorUnchanged) {
    // An error-checking platform mutex put in by hand: a second lock by its holder fails with
    // EDEADLK, which comes back as it is.
    ZEPO_MUTEX m{};
    m.marker1 = ZEPO_MUTEX_MARKER1;
    m.marker2 = 0x12345678u;
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK), 0);
    ASSERT_EQ(pthread_mutex_init(platform(&m), &attr), 0);
    pthread_mutexattr_destroy(&attr);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexLock(&m), EDEADLK);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, 0x12345678u);
    EXPECT_EQ(pthread_mutex_destroy(platform(&m)), 0);
}

TEST(MutexLazySetUp, FailedSetUpOfLockGivesMinusOneLeavesMarkersAndNextLockRetries) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    watch.failInit(1, EAGAIN);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexLock(&m), -1);
    EXPECT_EQ(watch.initCalls(), 1);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 2) << "the next lock set the record up";
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexTryLock(&m), 0) << "recursive once set up";
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
}

TEST(MutexLazySetUp, FailedSetUpOfTryLockGivesMinusOneLeavesMarkersAndNextTryLockRetries) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    watch.failInit(1, ENOMEM);
    EXPECT_EQ(ZEPO_MutexTryLock(&m), -1);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    ASSERT_EQ(ZEPO_MutexTryLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 2);
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
}

TEST(MutexLazySetUp, FailedAttributeSetUpDuringFirstLockGivesMinusOneAndLeavesMarkers) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    t_setTypeFailures = 1;
    EXPECT_EQ(ZEPO_MutexLock(&m), -1);
    EXPECT_EQ(watch.initCalls(), 0);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    EXPECT_TRUE(mutex_space_is_zero(m));
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
}

TEST(MutexLazySetUp, InitLeavesTheMarkersAlone) {
    ZEPO_MUTEX m;
    std::memset(&m, 0x5A, sizeof m);
    m.marker1 = 0x0BADF00Du;
    m.marker2 = 0xFEEDFACEu;
    ASSERT_EQ(ZEPO_MutexInit(&m, nullptr), 0);
    EXPECT_EQ(m.marker1, 0x0BADF00Du);
    EXPECT_EQ(m.marker2, 0xFEEDFACEu);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(m.marker1, 0x0BADF00Du) << "not static: the lock sets nothing up";
    EXPECT_EQ(m.marker2, 0xFEEDFACEu);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexLazySetUp, InitRecursiveLeavesTheMarkersAlone) {
    ZEPO_MUTEX m{};
    m.marker1 = 0x01020304u;
    m.marker2 = kAllOnes;
    ASSERT_EQ(ZEPO_MutexInitRecursive(&m), 0);
    EXPECT_EQ(m.marker1, 0x01020304u);
    EXPECT_EQ(m.marker2, kAllOnes);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexLazySetUp, InitThatLeavesStaticMarkersInPlaceIsSetUpAgainByTheFirstLock) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    ASSERT_EQ(ZEPO_MutexInit(&m, nullptr), 0);
    EXPECT_EQ(watch.initCalls(), 1);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 2);
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexLazySetUp, UnlockOfAStaticRecordSetsNothingUp) {
    // A platform mutex locked by hand behind the static markers: the unlock must reach it as it
    // is.  A set-up here would replace it with a fresh recursive mutex that this thread does
    // not hold, and the unlock would fail.
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(platform(&m)), 0);
    Watch watch(&m);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(watch.initCalls(), 0);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
    EXPECT_EQ(pthread_mutex_trylock(platform(&m)), 0) << "the hand-made lock was released";
    EXPECT_EQ(pthread_mutex_unlock(platform(&m)), 0);
}

TEST(MutexLazySetUp, DestroyOfAStaticRecordSetsNothingUp) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    Watch watch(&m);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0) << "glibc destroys a zeroed, unlocked mutex";
    EXPECT_EQ(watch.initCalls(), 0);
    EXPECT_EQ(m.marker1, ZEPO_MUTEX_MARKER1);
    EXPECT_EQ(m.marker2, ZEPO_MUTEX_MARKER2);
}

// ---- Every mutex is recursive ----------------------------------------------------------------

TEST(MutexRecursion, InitWithNormalAttributeStillGivesARecursiveMutex) {
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_NORMAL), 0);
    ZEPO_MUTEX m{};
    ASSERT_EQ(ZEPO_MutexInit(&m, &attr), 0);
    pthread_mutexattr_destroy(&attr);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    // A normal mutex would be busy for its holder.
    EXPECT_EQ(ZEPO_MutexTryLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitWithErrorCheckingAttributeStillGivesARecursiveMutex) {
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK), 0);
    ZEPO_MUTEX m{};
    ASSERT_EQ(ZEPO_MutexInit(&m, &attr), 0);
    pthread_mutexattr_destroy(&attr);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    // An error-checking mutex would refuse its holder with EDEADLK.
    EXPECT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitNeverReadsItsAttributeArgument) {
    const long page = ::sysconf(_SC_PAGESIZE);
    void *unreadable =
        ::mmap(nullptr, static_cast<size_t>(page), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    ZEPO_MUTEX m{};
    EXPECT_EQ(ZEPO_MutexInit(&m, unreadable), 0);
    EXPECT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexTryLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
    ::munmap(unreadable, static_cast<size_t>(page));
}

TEST(MutexRecursion, InitWithNormalAttributeNestsAHundredDeepAndFreesOnTheLastUnlock) {
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_NORMAL), 0);
    ZEPO_MUTEX m{};
    ASSERT_EQ(ZEPO_MutexInit(&m, &attr), 0);
    pthread_mutexattr_destroy(&attr);
    expect_nests_to_depth(&m, 100);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitWithErrorCheckingAttributeNestsAHundredDeepAndFreesOnTheLastUnlock) {
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK), 0);
    ZEPO_MUTEX m{};
    ASSERT_EQ(ZEPO_MutexInit(&m, &attr), 0);
    pthread_mutexattr_destroy(&attr);
    expect_nests_to_depth(&m, 100);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitRecursiveNestsAHundredDeepAndFreesOnTheLastUnlock) {
    ZEPO_MUTEX m{};
    ASSERT_EQ(ZEPO_MutexInitRecursive(&m), 0);
    expect_nests_to_depth(&m, 100);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, StaticRecordNestsAHundredDeepAndFreesOnTheLastUnlock) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    expect_nests_to_depth(&m, 100);
    EXPECT_EQ(marker_word(m), UINT64_MAX);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitPassesOnThePlatformErrorOfMutexInit) {
    ZEPO_MUTEX m{};
    Watch watch(&m);
    watch.failInit(1, EAGAIN);
    EXPECT_EQ(ZEPO_MutexInit(&m, nullptr), EAGAIN) << "the error number, not -1";
    EXPECT_EQ(watch.initCalls(), 1);
    EXPECT_EQ(ZEPO_MutexInit(&m, nullptr), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitRecursivePassesOnThePlatformErrorOfMutexInit) {
    ZEPO_MUTEX m{};
    Watch watch(&m);
    watch.failInit(1, ENOMEM);
    EXPECT_EQ(ZEPO_MutexInitRecursive(&m), ENOMEM);
    EXPECT_EQ(ZEPO_MutexInitRecursive(&m), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexRecursion, InitGivesMinusOneWhenTheAttributeCannotBeInitialised) {
    ZEPO_MUTEX m{};
    Watch watch(&m);
    t_attrInitFailures = 1;
    EXPECT_EQ(ZEPO_MutexInit(&m, nullptr), -1);
    EXPECT_EQ(watch.initCalls(), 0) << "no mutex is made without the attribute";
}

TEST(MutexRecursion, InitGivesMinusOneWhenTheRecursiveTypeCannotBeSet) {
    ZEPO_MUTEX m{};
    Watch watch(&m);
    t_setTypeFailures = 1;
    EXPECT_EQ(ZEPO_MutexInit(&m, nullptr), -1);
    EXPECT_EQ(watch.initCalls(), 0);
}

TEST(MutexRecursion, InitRecursiveGivesMinusOneWhenItsAttributeSetUpFails) {
    {
        ZEPO_MUTEX m{};
        Watch watch(&m);
        t_attrInitFailures = 1;
        EXPECT_EQ(ZEPO_MutexInitRecursive(&m), -1);
        EXPECT_EQ(watch.initCalls(), 0);
    }
    {
        ZEPO_MUTEX m{};
        Watch watch(&m);
        t_setTypeFailures = 1;
        EXPECT_EQ(ZEPO_MutexInitRecursive(&m), -1);
        EXPECT_EQ(watch.initCalls(), 0);
    }
}

// ---- Results of lock, try-lock, unlock and destroy -------------------------------------------

TEST(Mutex, TryLockOfAMutexHeldByAnotherThreadGivesEbusyNotMinusOne) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    const int busy = try_lock_from_other_thread(&m);
    EXPECT_EQ(busy, EBUSY);
    EXPECT_EQ(busy, 16);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(try_lock_from_other_thread(&m), 0);
}

TEST(Mutex, TryLockOfAnInitialisedMutexHeldByAnotherThreadGivesEbusy) {
    InitRecord r;
    ASSERT_EQ(r.initResult, 0);
    ASSERT_EQ(ZEPO_MutexTryLock(&r.record), 0);
    EXPECT_EQ(try_lock_from_other_thread(&r.record), EBUSY);
    EXPECT_EQ(ZEPO_MutexUnLock(&r.record), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&r.record), 0);
}

TEST(Mutex, UnlockByAThreadThatDoesNotHoldTheMutexGivesEperm) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    int result = -100;
    std::thread([&] { result = deliberate_unlock_not_held(&m); }).join();
    EXPECT_EQ(result, EPERM) << "the platform's error number, not -1";
    EXPECT_EQ(try_lock_from_other_thread(&m), EBUSY) << "the holder still holds it";
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(try_lock_from_other_thread(&m), 0);
}

TEST(Mutex, UnlockOfAnInitialisedMutexByANonHolderGivesEperm) {
    InitRecord r;
    ASSERT_EQ(r.initResult, 0);
    ASSERT_EQ(ZEPO_MutexLock(&r.record), 0);
    int result = -100;
    std::thread([&] { result = deliberate_unlock_not_held(&r.record); }).join();
    EXPECT_EQ(result, EPERM);
    EXPECT_EQ(ZEPO_MutexUnLock(&r.record), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&r.record), 0);
}

TEST(Mutex, UnlockOnceMoreThanLockedGivesEperm) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_EQ(deliberate_unlock_not_held(&m), EPERM);
}

TEST(Mutex, DestroyOfAnUnlockedMutexGivesZero) {
    InitRecord r;
    ASSERT_EQ(r.initResult, 0);
    ASSERT_EQ(ZEPO_MutexLock(&r.record), 0);
    ASSERT_EQ(ZEPO_MutexUnLock(&r.record), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&r.record), 0);
    ZEPO_MUTEX fresh{};
    ASSERT_EQ(ZEPO_MutexInitRecursive(&fresh), 0);
    EXPECT_EQ(ZEPO_MutexDestroy(&fresh), 0);
}

TEST(Mutex, DestroyOfALockedMutexGivesMinusOneNotEbusyAndSucceedsAfterUnlock) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    // glibc refuses to destroy a locked mutex with EBUSY; the wrapper folds that into -1.
    errno = kSentinel;
    EXPECT_EQ(deliberate_destroy_locked(&m), -1);
    EXPECT_EQ(deliberate_unlock_after_refused_destroy(&m), 0) << "the mutex survived";
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(Mutex, DestroyFoldsAnyPlatformErrorIntoMinusOne) {
    InitRecord r;
    ASSERT_EQ(r.initResult, 0);
    {
        Watch watch(&r.record);
        watch.failDestroy(1, EINVAL);
        EXPECT_EQ(ZEPO_MutexDestroy(&r.record), -1);
    }
    EXPECT_EQ(ZEPO_MutexDestroy(&r.record), 0);
}

// ---- Null records and null read-write locks --------------------------------------------------

TEST(Mutex, InitOfNullGivesMinusOneAndLeavesErrno) {
    pthread_mutexattr_t attr;
    ASSERT_EQ(pthread_mutexattr_init(&attr), 0);
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexInit(nullptr, nullptr), -1);
    EXPECT_EQ(ZEPO_MutexInit(nullptr, &attr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
    pthread_mutexattr_destroy(&attr);
}

TEST(Mutex, InitRecursiveOfNullGivesMinusOne) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexInitRecursive(nullptr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
}

TEST(Mutex, DestroyOfNullGivesMinusOneAndLeavesErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexDestroy(nullptr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
}

TEST(Mutex, LockOfNullGivesMinusOneAndLeavesErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexLock(nullptr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
}

TEST(Mutex, TryLockOfNullGivesMinusOneAndLeavesErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexTryLock(nullptr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
}

TEST(Mutex, UnlockOfNullGivesMinusOneAndLeavesErrno) {
    errno = kSentinel;
    EXPECT_EQ(ZEPO_MutexUnLock(nullptr), -1);
    const int err = errno;
    EXPECT_EQ(err, kSentinel);
}

TEST(MutexRWLockDeathTest, InitOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_Init(nullptr, nullptr), "");
}

TEST(MutexRWLockDeathTest, ReadLockOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_RDLock(nullptr), "");
}

TEST(MutexRWLockDeathTest, TryReadLockOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_TryRDLock(nullptr), "");
}

TEST(MutexRWLockDeathTest, WriteLockOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_WRLock(nullptr), "");
}

TEST(MutexRWLockDeathTest, TryWriteLockOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_TryWRLock(nullptr), "");
}

TEST(MutexRWLockDeathTest, UnlockOfNullFaultsInThePlatformCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QEL_Pthread_RWLock_UnLock(nullptr), "");
}

TEST(MutexRWLock, DestroyOfNullEndsAsThePlatformCallDoes) {
    // glibc's pthread_rwlock_destroy does not look at its argument; whatever the platform does
    // with a null lock (under a sanitizer too), the wrapper must do the same.
    const Ending platform_ending = ending_in_child([] { return pthread_rwlock_destroy(nullptr); });
    const Ending wrapper_ending =
        ending_in_child([] { return QEL_Pthread_RWLock_Destroy(nullptr); });
    EXPECT_EQ(wrapper_ending, platform_ending);
}

// ---- Read-write locks ------------------------------------------------------------------------

TEST(MutexRWLock, ReadLocksShareAndKeepWritersOutWithThePlatformResults) {
    pthread_rwlock_t rw;
    ASSERT_EQ(QEL_Pthread_RWLock_Init(&rw, nullptr), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_RDLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_RDLock(&rw), 0) << "a reader may read-lock again";
    EXPECT_EQ(QEL_Pthread_RWLock_TryRDLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_TryWRLock(&rw), EBUSY) << "busy while read-locked";

    int otherTryWrite = -100;
    int otherTryRead = -100;
    int otherReadUnlock = -100;
    std::thread([&] {
        otherTryWrite = QEL_Pthread_RWLock_TryWRLock(&rw);
        otherTryRead = QEL_Pthread_RWLock_TryRDLock(&rw);
        if (otherTryRead == 0) otherReadUnlock = QEL_Pthread_RWLock_UnLock(&rw);
    }).join();
    EXPECT_EQ(otherTryWrite, EBUSY);
    EXPECT_EQ(otherTryRead, 0);
    EXPECT_EQ(otherReadUnlock, 0);

    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);

    // Every read lock is gone: another thread takes the write lock, and this one is kept out.
    std::atomic<bool> held{false};
    std::atomic<bool> release{false};
    int otherWrite = -100;
    int otherWriteUnlock = -100;
    std::thread writer([&] {
        otherWrite = QEL_Pthread_RWLock_WRLock(&rw);
        held = true;
        wait_for(release);
        if (otherWrite == 0) otherWriteUnlock = QEL_Pthread_RWLock_UnLock(&rw);
    });
    EXPECT_TRUE(wait_for(held));
    EXPECT_EQ(QEL_Pthread_RWLock_TryRDLock(&rw), EBUSY);
    EXPECT_EQ(QEL_Pthread_RWLock_TryWRLock(&rw), EBUSY);
    release = true;
    writer.join();
    EXPECT_EQ(otherWrite, 0);
    EXPECT_EQ(otherWriteUnlock, 0);

    EXPECT_EQ(QEL_Pthread_RWLock_TryWRLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_Destroy(&rw), 0);
}

TEST(MutexRWLock, WriterAskingAgainGetsThePlatformDeadlockError) {
    pthread_rwlock_t rw;
    ASSERT_EQ(QEL_Pthread_RWLock_Init(&rw, nullptr), 0);
    ASSERT_EQ(QEL_Pthread_RWLock_WRLock(&rw), 0);
    // glibc detects a writer that asks for its own lock again, for writing or reading.
    EXPECT_EQ(QEL_Pthread_RWLock_WRLock(&rw), EDEADLK);
    EXPECT_EQ(QEL_Pthread_RWLock_RDLock(&rw), EDEADLK);
    EXPECT_EQ(QEL_Pthread_RWLock_TryWRLock(&rw), EBUSY);
    EXPECT_EQ(QEL_Pthread_RWLock_TryRDLock(&rw), EBUSY);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_Destroy(&rw), 0);
}

TEST(MutexRWLock, InitTakesAPlatformAttribute) {
    pthread_rwlockattr_t attr;
    ASSERT_EQ(pthread_rwlockattr_init(&attr), 0);
    ASSERT_EQ(pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP),
              0);
    pthread_rwlock_t rw;
    ASSERT_EQ(QEL_Pthread_RWLock_Init(&rw, &attr), 0);
    pthread_rwlockattr_destroy(&attr);
    EXPECT_EQ(QEL_Pthread_RWLock_WRLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_RDLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(QEL_Pthread_RWLock_Destroy(&rw), 0);
}

// ---- Threads -----------------------------------------------------------------------------------

ZEPO_MUTEX g_counterLock = ZEPO_MUTEX_INITIALIZER;
long g_counter = 0;

TEST(MutexThreads, StaticRecordKeepsFourThreadsOfTwentyThousandIncrementsExact) {
    constexpr int kThreads = 4;
    constexpr int kIncrements = 20000;
    // Set up once, before other threads use it.
    ASSERT_EQ(ZEPO_MutexLock(&g_counterLock), 0);
    ASSERT_EQ(marker_word(g_counterLock), UINT64_MAX);
    ASSERT_EQ(ZEPO_MutexUnLock(&g_counterLock), 0);

    std::atomic<bool> go{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            wait_for(go);
            for (int i = 0; i < kIncrements; ++i) {
                if (ZEPO_MutexLock(&g_counterLock) != 0) ++failures;
                // Read, maybe give the processor away, write: lost updates without the lock.
                const long seen = g_counter;
                if ((i & 255) == 0) std::this_thread::yield();
                if ((i & 1) == 0) {
                    // Nested once on every other round.
                    if (ZEPO_MutexLock(&g_counterLock) != 0) ++failures;
                    g_counter = seen + 1;
                    if (ZEPO_MutexUnLock(&g_counterLock) != 0) ++failures;
                } else {
                    g_counter = seen + 1;
                }
                if (ZEPO_MutexUnLock(&g_counterLock) != 0) ++failures;
            }
        });
    }
    go = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    ASSERT_EQ(ZEPO_MutexLock(&g_counterLock), 0);
    EXPECT_EQ(g_counter, static_cast<long>(kThreads) * kIncrements);
    EXPECT_EQ(ZEPO_MutexUnLock(&g_counterLock), 0);
}

// The waiter locks record, announces it, waits on the condition (which must release the mutex
// space at the front of the record), and unlocks after it wakes up holding the mutex again.
void expect_serves_a_condition_wait(ZEPO_MUTEX *record) {
    pthread_condattr_t condAttr;
    ASSERT_EQ(pthread_condattr_init(&condAttr), 0);
    ASSERT_EQ(pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC), 0);
    pthread_cond_t cond;
    ASSERT_EQ(pthread_cond_init(&cond, &condAttr), 0);
    pthread_condattr_destroy(&condAttr);

    bool ready = false;  // guarded by record
    std::atomic<bool> waiting{false};
    int lockResult = -100;
    int waitResult = -100;
    bool sawReady = false;
    int unlockResult = -100;
    std::thread waiter([&] {
        lockResult = ZEPO_MutexLock(record);
        if (lockResult != 0) {
            waiting = true;
            return;
        }
        waiting = true;
        timespec deadline{};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += std::chrono::seconds(kPatience).count();
        int rc = 0;
        while (!ready && rc == 0) rc = pthread_cond_timedwait(&cond, platform(record), &deadline);
        waitResult = rc;
        sawReady = ready;
        unlockResult = ZEPO_MutexUnLock(record);
    });
    EXPECT_TRUE(wait_for(waiting));
    // The waiter holds the mutex until its wait releases it.
    EXPECT_EQ(ZEPO_MutexLock(record), 0);
    ready = true;
    EXPECT_EQ(pthread_cond_signal(&cond), 0);
    EXPECT_EQ(ZEPO_MutexUnLock(record), 0);
    waiter.join();
    EXPECT_EQ(lockResult, 0);
    EXPECT_EQ(waitResult, 0);
    EXPECT_TRUE(sawReady);
    EXPECT_EQ(unlockResult, 0) << "the waiter held the mutex again after its wait";
    EXPECT_EQ(pthread_cond_destroy(&cond), 0);
}

TEST(MutexThreads, StaticRecordServesAsThePlatformMutexOfAConditionWait) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    ASSERT_EQ(ZEPO_MutexUnLock(&m), 0);
    expect_serves_a_condition_wait(&m);
    EXPECT_EQ(ZEPO_MutexDestroy(&m), 0);
}

TEST(MutexThreads, InitialisedRecordServesAsThePlatformMutexOfAConditionWait) {
    InitRecord r;
    ASSERT_EQ(r.initResult, 0);
    expect_serves_a_condition_wait(&r.record);
    EXPECT_EQ(ZEPO_MutexDestroy(&r.record), 0);
}

TEST(MutexThreads, BlockedLockGetsTheMutexWhenTheHolderUnlocksTheLastLevel) {
    ZEPO_MUTEX m = ZEPO_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    ASSERT_EQ(ZEPO_MutexLock(&m), 0);
    std::atomic<bool> started{false};
    std::atomic<bool> got{false};
    int otherLock = -100;
    int otherUnlock = -100;
    std::thread other([&] {
        started = true;
        otherLock = ZEPO_MutexLock(&m);
        got = true;
        if (otherLock == 0) otherUnlock = ZEPO_MutexUnLock(&m);
    });
    EXPECT_TRUE(wait_for(started));
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    EXPECT_FALSE(got.load()) << "one level is still held";
    EXPECT_EQ(ZEPO_MutexUnLock(&m), 0);
    other.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(otherLock, 0);
    EXPECT_EQ(otherUnlock, 0);
}

}  // namespace
