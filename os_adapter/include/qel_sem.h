/*
 * qel_sem.h - the library's semaphore, System V semaphores and shared memory, keys
 * and memory mappings.
 *
 * ZEPO_SEM holds either an unnamed POSIX semaphore (in the record, which belongs to the
 * caller) or a pointer to a named one (the record is then allocated by
 * ZEPO_SemOpenWin and released by ZEPO_SemClose).  Waits and posts decide by the kind
 * marker alone: exactly ZEPO_SEM_NAMED means a named semaphore.
 *
 * Refused arguments give -1 (NULL from the open functions) before any platform call;
 * platform failures come back as the platform reports them (-1 and errno).  Nothing is
 * printed.  The semaphores are safe across threads, and across processes when shared.
 */
#ifndef QEL_SEM_H
#define QEL_SEM_H

#include <semaphore.h>
#include <stdint.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Kind markers of a ZEPO_SEM. */
#define ZEPO_SEM_UNNAMED 0x03213102u   /* written by ZEPO_SemInitWin */
#define ZEPO_SEM_NAMED 0x20131230u     /* written by ZEPO_SemOpenWin */
#define ZEPO_SEM_DESTROYED 0xFFFFFFFFu /* written by ZEPO_SemDestroy */

typedef struct ZEPO_SEM {
    uint32_t kind;
    union {
        sem_t sem;    /* unnamed: the semaphore itself */
        sem_t *named; /* named: the semaphore sem_open gave */
    } handle;
} ZEPO_SEM;

/*
 * sem_init on the record's semaphore, then marker ZEPO_SEM_UNNAMED - written whatever
 * sem_init returned.  maxCount is ignored.  Returns sem_init's result; -1 for a null sem.
 */
int32_t ZEPO_SemInitWin(ZEPO_SEM *sem, int32_t pshared, uint32_t value, uint32_t maxCount);

/* ZEPO_SemInitWin(sem, pshared, value, 0x7FFFFFFF). */
int32_t ZEPO_SemInit(ZEPO_SEM *sem, int32_t pshared, uint32_t value);

/* sem_destroy on the record's semaphore, whatever its marker; on success the marker
 * becomes ZEPO_SEM_DESTROYED.  0, or -1 for a null sem or a failure (marker kept). */
int32_t ZEPO_SemDestroy(ZEPO_SEM *sem);

/*
 * Allocates a record and opens the named semaphore sem_open(name, oflag, mode, value)
 * into it, marker ZEPO_SEM_NAMED.  maxCount is ignored; nothing is checked.  Returns
 * the record, or NULL when the allocation or sem_open fails (the record is released).
 */
ZEPO_SEM *ZEPO_SemOpenWin(const char *name, int32_t oflag, uint32_t mode, uint32_t value,
                          uint32_t maxCount);

/* ZEPO_SemOpenWin(name, oflag, mode, value, 0x7FFFFFFF). */
ZEPO_SEM *ZEPO_SemOpen(const char *name, int32_t oflag, uint32_t mode, uint32_t value);

/* sem_close on the named semaphore, then releases the record.  0; -1 for a null sem or
 * a record without a semaphore, or when sem_close fails (the record is then kept). */
int32_t ZEPO_SemClose(ZEPO_SEM *sem);

/* sem_unlink(name).  A null or empty name gives -1. */
int32_t ZEPO_SemUnLink(const char *name);

/* sem_wait / sem_trywait on the record's semaphore: 0 or -1 (EAGAIN when trywait finds
 * none).  -1 for a null sem. */
int32_t ZEPO_SemWait(ZEPO_SEM *sem);
int32_t ZEPO_SemTryWait(ZEPO_SEM *sem);

/* One sem_post whatever count says: the value rises by one only.  -1 for a null sem. */
int32_t ZEPO_SemPostWin(ZEPO_SEM *sem, int32_t count);

/* ZEPO_SemPostWin(sem, 1). */
int32_t ZEPO_SemPost(ZEPO_SEM *sem);

/* sem_timedwait with an absolute CLOCK_REALTIME deadline: 0, or -1 with ETIMEDOUT or
 * EINVAL.  -1 for a null deadline or sem. */
int32_t ZEPO_SemTimedWait(ZEPO_SEM *sem, const struct timespec *deadline);

/*
 * Waits up to timeoutMs milliseconds, through ZEPO_SemTimedWait with a deadline of now
 * (CLOCK_REALTIME) plus the time-out.  A time-out of 0 is an immediate deadline: 0 when
 * the semaphore is available, else -1 with ETIMEDOUT at once.  The deadline's
 * nanoseconds are carried only when strictly above 1000000000: a sum of exactly one
 * second gives -1 with EINVAL.  Setting the wall clock moves the deadline.
 * -1 for a null sem.
 */
int32_t ZEPO_SemWaitTimeOut(ZEPO_SEM *sem, uint32_t timeoutMs);

/*
 * Takes the first available of count platform semaphores (sem_t, not ZEPO_SEM): each
 * pass tries sems[0], sems[1], ... in order and returns the index of the first it could
 * take, so the lowest index wins and at most one is taken.  After a fruitless pass it
 * sleeps 1 ms.  tries -1 passes without limit; otherwise after tries fruitless passes
 * -1 is returned, and tries 0 gives -1 at once.  count 0 gives -1.  Polls: it never
 * blocks in the platform.
 */
int32_t ZEPO_SemWaitMultiple(uint32_t count, sem_t **sems, int32_t tries);

/* semget(key, nsems, semflg). */
int32_t ZEPO_SemGet(int32_t key, int32_t nsems, int32_t semflg);

/* semctl(semid, semnum, cmd, arg): the optional fourth argument (a union semun) is
 * passed on as one word. */
int32_t ZEPO_SemCtl(int32_t semid, int32_t semnum, int32_t cmd, ...);

/* semop(semid, sops, nsops).  -1 for a null sops. */
int32_t ZEPO_SemOp(int32_t semid, struct sembuf *sops, uint32_t nsops);

/* ftok(path, projId).  -1 for a null path. */
int32_t ZEPO_Ftok(const char *path, int32_t projId);

/* shmget(key, size, shmflg). */
int32_t ZEPO_ShmGet(int32_t key, uint32_t size, int32_t shmflg);

/*
 * shmat(shmid, addr, shmflg), with the attached address cut to 32 bits and
 * sign-extended: an address above 2 GiB does not come back intact (kept so on purpose).
 * A failure still reads (void *)-1.
 */
void *ZEPO_ShmAt(int32_t shmid, const void *addr, int32_t shmflg);

/* shmdt(addr). */
int32_t ZEPO_ShmDt(const void *addr);

/* shmctl(shmid, cmd, buf). */
int32_t ZEPO_ShmCtl(int32_t shmid, int32_t cmd, struct shmid_ds *buf);

/* Not offered on this platform: ignore their arguments, do nothing, always -1. */
int32_t ZEPO_ShmOpen(const char *name, int32_t oflag, uint32_t mode);
int32_t ZEPO_ShmUnLink(const char *name);

/* mmap(addr, length, prot, flags, fd, offset), length unsigned 32-bit and offset signed
 * 32-bit, widened: the mapping or MAP_FAILED.  ZEPO_MMap is the same call. */
void *ZEPO_MMapWin(void *addr, uint32_t length, int32_t prot, int32_t flags, int32_t fd,
                   int32_t offset);
void *ZEPO_MMap(void *addr, uint32_t length, int32_t prot, int32_t flags, int32_t fd,
                int32_t offset);

/* munmap(addr, length), length unsigned 32-bit.  -1 for a null addr.  ZEPO_MUnMap is
 * the same call. */
int32_t ZEPO_MUnMapWin(void *addr, uint32_t length);
int32_t ZEPO_MUnMap(void *addr, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* QEL_SEM_H */
