// os_sem_config.cpp - the library's semaphore, System V semaphores and shared memory,
// keys and memory mappings.

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#include <cstddef>

#include "os_deadline.h"
#include "os_frame.h"
#include "qel_sem.h"

static_assert(offsetof(ZEPO_SEM, kind) == 0);
static_assert(offsetof(ZEPO_SEM, handle) == 8);
static_assert(sizeof(ZEPO_SEM) == 8 + sizeof(sem_t));

namespace {

// The count the short forms pass for the ignored maximum.
constexpr uint32_t kDefaultMaxCount = 0x7FFFFFFF;

constexpr uint32_t kMillisPerSecond = 1000;
constexpr int64_t kNanosPerMilli = 1000000;

// ZEPO_SemWaitMultiple sleeps this long between two fruitless passes: 1 ms.
constexpr struct timespec kPassPause = {0, 1000000};
constexpr int32_t kTriesWithoutLimit = -1;

// Every wait and post decides by the marker alone.
sem_t *semaphore_of(ZEPO_SEM *sem) {
    return sem->kind == ZEPO_SEM_NAMED ? sem->handle.named : &sem->handle.sem;
}

}  // namespace

extern "C" {

// ---- The library's semaphore ----------------------------------------------------------

int32_t ZEPO_SemInitWin(ZEPO_SEM *sem, int32_t pshared, uint32_t value, uint32_t /*maxCount*/) {
    if (!qel::accepted(sem)) return qel::kRefused;
    const int result = sem_init(&sem->handle.sem, pshared, value);
    sem->kind = ZEPO_SEM_UNNAMED;  // whatever sem_init returned
    return result;
}

int32_t ZEPO_SemInit(ZEPO_SEM *sem, int32_t pshared, uint32_t value) {
    return ZEPO_SemInitWin(sem, pshared, value, kDefaultMaxCount);
}

int32_t ZEPO_SemDestroy(ZEPO_SEM *sem) {
    if (!qel::accepted(sem)) return qel::kRefused;
    // The semaphore held in the record, whatever the marker says.
    if (sem_destroy(&sem->handle.sem) != 0) return qel::kRefused;
    sem->kind = ZEPO_SEM_DESTROYED;
    return 0;
}

ZEPO_SEM *ZEPO_SemOpenWin(const char *name, int32_t oflag, uint32_t mode, uint32_t value,
                          uint32_t /*maxCount*/) {
    qel::HeapPtr<ZEPO_SEM> record(static_cast<ZEPO_SEM *>(qel::heap_alloc(sizeof(ZEPO_SEM))));
    if (!record) return nullptr;
    sem_t *named = sem_open(name, oflag, mode, value);
    if (named == SEM_FAILED) return nullptr;
    record.get()->handle.named = named;
    record.get()->kind = ZEPO_SEM_NAMED;
    return record.release();
}

ZEPO_SEM *ZEPO_SemOpen(const char *name, int32_t oflag, uint32_t mode, uint32_t value) {
    return ZEPO_SemOpenWin(name, oflag, mode, value, kDefaultMaxCount);
}

int32_t ZEPO_SemClose(ZEPO_SEM *sem) {
    if (!qel::accepted(sem) || !qel::accepted(sem->handle.named)) return qel::kRefused;
    if (sem_close(sem->handle.named) != 0) return qel::kRefused;  // the record is kept
    qel::heap_free(sem);
    return 0;
}

int32_t ZEPO_SemUnLink(const char *name) {
    if (!qel::accepted(qel::text(name))) return qel::kRefused;
    return sem_unlink(name);
}

int32_t ZEPO_SemWait(ZEPO_SEM *sem) {
    if (!qel::accepted(sem)) return qel::kRefused;
    return sem_wait(semaphore_of(sem));
}

int32_t ZEPO_SemTryWait(ZEPO_SEM *sem) {
    if (!qel::accepted(sem)) return qel::kRefused;
    return sem_trywait(semaphore_of(sem));
}

int32_t ZEPO_SemPostWin(ZEPO_SEM *sem, int32_t /*count: one post whatever it says*/) {
    if (!qel::accepted(sem)) return qel::kRefused;
    return sem_post(semaphore_of(sem));
}

int32_t ZEPO_SemPost(ZEPO_SEM *sem) { return ZEPO_SemPostWin(sem, 1); }

int32_t ZEPO_SemTimedWait(ZEPO_SEM *sem, const struct timespec *deadline) {
    if (!qel::accepted(deadline, sem)) return qel::kRefused;
    return sem_timedwait(semaphore_of(sem), deadline);
}

int32_t ZEPO_SemWaitTimeOut(ZEPO_SEM *sem, uint32_t timeoutMs) {
    if (!qel::accepted(sem)) return qel::kRefused;
    // On the real-time clock: setting the wall clock moves the deadline.  A time-out of
    // 0 is an immediate deadline, not a refusal.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    qel::advance_deadline(&deadline, timeoutMs / kMillisPerSecond,
                          static_cast<int64_t>(timeoutMs % kMillisPerSecond) * kNanosPerMilli);
    return ZEPO_SemTimedWait(sem, &deadline);
}

int32_t ZEPO_SemWaitMultiple(uint32_t count, sem_t **sems, int32_t tries) {
    if (count == 0) return qel::kRefused;
    for (int64_t pass = 0; tries == kTriesWithoutLimit || pass < tries; ++pass) {
        // The lowest index that can be taken wins; at most one is taken.
        for (uint32_t i = 0; i < count; ++i) {
            if (sem_trywait(sems[i]) == 0) return static_cast<int32_t>(i);
        }
        nanosleep(&kPassPause, nullptr);
    }
    return qel::kRefused;
}

// ---- System V semaphores and shared memory, keys --------------------------------------

int32_t ZEPO_SemGet(int32_t key, int32_t nsems, int32_t semflg) {
    return semget(key, nsems, semflg);
}

int32_t ZEPO_SemCtl(int32_t semid, int32_t semnum, int32_t cmd, ...) {
    // The optional union semun travels as one word, as semctl itself reads it.
    qel::VaList args;
    va_start(args.ap, cmd);
    const unsigned long word = va_arg(args.ap, unsigned long);
    return semctl(semid, semnum, cmd, word);
}

int32_t ZEPO_SemOp(int32_t semid, struct sembuf *sops, uint32_t nsops) {
    if (!qel::accepted(sops)) return qel::kRefused;
    return semop(semid, sops, nsops);
}

int32_t ZEPO_Ftok(const char *path, int32_t projId) {
    if (!qel::accepted(path)) return qel::kRefused;
    return ftok(path, projId);
}

int32_t ZEPO_ShmGet(int32_t key, uint32_t size, int32_t shmflg) {
    return shmget(key, size, shmflg);
}

void *ZEPO_ShmAt(int32_t shmid, const void *addr, int32_t shmflg) {
    // The address is cut to 32 bits and sign-extended, as callers built for 32-bit
    // handles expect: an attachment above 2 GiB does not come back intact.  A failure,
    // (void *)-1, survives the cut.
    const auto attached = reinterpret_cast<uintptr_t>(shmat(shmid, addr, shmflg));
    return reinterpret_cast<void *>(static_cast<intptr_t>(static_cast<int32_t>(attached)));
}

int32_t ZEPO_ShmDt(const void *addr) { return shmdt(addr); }

int32_t ZEPO_ShmCtl(int32_t shmid, int32_t cmd, struct shmid_ds *buf) {
    return shmctl(shmid, cmd, buf);
}

// POSIX shared memory is not offered on this platform.
int32_t ZEPO_ShmOpen(const char * /*name*/, int32_t /*oflag*/, uint32_t /*mode*/) {
    return qel::kRefused;
}

int32_t ZEPO_ShmUnLink(const char * /*name*/) { return qel::kRefused; }

// ---- Mappings -------------------------------------------------------------------------

void *ZEPO_MMapWin(void *addr, uint32_t length, int32_t prot, int32_t flags, int32_t fd,
                   int32_t offset) {
    return mmap(addr, length, prot, flags, fd, offset);
}

void *ZEPO_MMap(void *addr, uint32_t length, int32_t prot, int32_t flags, int32_t fd,
                int32_t offset) {
    return ZEPO_MMapWin(addr, length, prot, flags, fd, offset);
}

int32_t ZEPO_MUnMapWin(void *addr, uint32_t length) {
    if (!qel::accepted(addr)) return qel::kRefused;
    return munmap(addr, length);
}

int32_t ZEPO_MUnMap(void *addr, uint32_t length) { return ZEPO_MUnMapWin(addr, length); }

}  // extern "C"
