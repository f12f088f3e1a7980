/*
 * qel_mutex.h - the library's mutex and the read-write lock wrappers.
 *
 * ZEPO_MUTEX is the lock of every engine of the library and of its callers.  Every
 * mutex made here is recursive: the holder may lock it again and must unlock it as
 * often.  A record may be set up at compile time with ZEPO_MUTEX_INITIALIZER; it then
 * turns itself into a working recursive mutex on its first ZEPO_MutexLock or
 * ZEPO_MutexTryLock.  That first lock is not guarded: lock a static record once before
 * other threads use it (two threads locking it first at the same moment may both set it
 * up).  A static record must not be unlocked or destroyed before its first lock.
 *
 * Results are not normalised: the lock functions and ZEPO_MutexInit return the
 * platform's error number on failure (test for non-zero); ZEPO_MutexDestroy folds every
 * failure into -1.  Only a null record is checked (-1).  Nothing is printed.
 */
#ifndef QEL_MUTEX_H
#define QEL_MUTEX_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Marker values of a record set up at compile time and not yet locked. */
#define ZEPO_MUTEX_MARKER1 0xABBABEEFu
#define ZEPO_MUTEX_MARKER2 0xCDDCCDCFu

/*
 * The mutex record.  Its layout is part of the interface, because the static
 * initialiser writes it: 64 bytes of mutex space holding the platform mutex at its
 * front (the rest reserved), then the two markers.  Both markers read 0xFFFFFFFF once
 * a static record has been set up by its first lock.
 */
typedef struct ZEPO_MUTEX {
    uint64_t mutexSpace[8];
    uint32_t marker1;
    uint32_t marker2;
} ZEPO_MUTEX;

/* A record set up at compile time: zeroed mutex space and the two markers. */
#define ZEPO_MUTEX_INITIALIZER \
    { {0, 0, 0, 0, 0, 0, 0, 0}, ZEPO_MUTEX_MARKER1, ZEPO_MUTEX_MARKER2 }

/*
 * Initialises mutex (a ZEPO_MUTEX *) as a recursive mutex.  attr is ignored on purpose:
 * every mutex is recursive, whatever attribute is passed.  The markers are not touched.
 * Returns -1 for a null mutex or when the recursive attribute cannot be set up,
 * otherwise the result of pthread_mutex_init (0 or its error number).
 */
int32_t ZEPO_MutexInit(void *mutex, const void *attr);

/* ZEPO_MutexInit with a recursive attribute of its own (which ZEPO_MutexInit ignores):
 * the same recursive mutex.  -1 for a null mutex or a failed attribute set-up. */
int32_t ZEPO_MutexInitRecursive(void *mutex);

/* pthread_mutex_destroy: 0, or -1 for a null mutex or any failure (the error number
 * is not passed on). */
int32_t ZEPO_MutexDestroy(void *mutex);

/*
 * Locks mutex, setting a static record up first (markers 0xABBABEEF/0xCDDCCDCF:
 * ZEPO_MutexInit, then both markers overwritten with all ones in one 64-bit store; a
 * record whose markers match in one word only counts as set up).  Returns -1 for a
 * null mutex or when that set-up fails (the markers then stay, and the next lock tries
 * again), otherwise the result of pthread_mutex_lock (0 or its error number).
 */
int32_t ZEPO_MutexLock(void *mutex);

/* As ZEPO_MutexLock with pthread_mutex_trylock: a mutex held by another thread gives
 * EBUSY, not -1. */
int32_t ZEPO_MutexTryLock(void *mutex);

/* pthread_mutex_unlock: 0 or its error number; -1 for a null mutex.  No set-up of a
 * static record here. */
int32_t ZEPO_MutexUnLock(void *mutex);

/* Read-write locks: each passes its arguments unchecked to the platform call and
 * returns its result (0 or an error number); a null lock goes to the platform too. */
int32_t QEL_Pthread_RWLock_Init(pthread_rwlock_t *rwlock, const pthread_rwlockattr_t *attr);
int32_t QEL_Pthread_RWLock_Destroy(pthread_rwlock_t *rwlock);
int32_t QEL_Pthread_RWLock_RDLock(pthread_rwlock_t *rwlock);
int32_t QEL_Pthread_RWLock_TryRDLock(pthread_rwlock_t *rwlock);
int32_t QEL_Pthread_RWLock_WRLock(pthread_rwlock_t *rwlock);
int32_t QEL_Pthread_RWLock_TryWRLock(pthread_rwlock_t *rwlock);
int32_t QEL_Pthread_RWLock_UnLock(pthread_rwlock_t *rwlock);

#ifdef __cplusplus
}
#endif

#endif /* QEL_MUTEX_H */
