// mutex.cpp - the library's recursive mutex and the read-write lock wrappers.

#include <pthread.h>

#include <cstddef>
#include <cstring>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_mutex.h"

static_assert(sizeof(ZEPO_MUTEX) == 72);
static_assert(offsetof(ZEPO_MUTEX, mutexSpace) == 0);
static_assert(offsetof(ZEPO_MUTEX, marker1) == 64);
static_assert(offsetof(ZEPO_MUTEX, marker2) == 68);
static_assert(sizeof(pthread_mutex_t) <= sizeof(ZEPO_MUTEX::mutexSpace));
static_assert(alignof(ZEPO_MUTEX) >= alignof(pthread_mutex_t));

namespace {

// Both markers as one word, so that the end of the static state is one 64-bit store.
typedef uint64_t __attribute__((may_alias)) MarkerWord;
constexpr uint64_t kMarkersUsed = ~0ULL;

ZEPO_MUTEX *record(void *mutex) { return static_cast<ZEPO_MUTEX *>(mutex); }

pthread_mutex_t *platform(void *mutex) { return reinterpret_cast<pthread_mutex_t *>(mutex); }

bool statically_initialised(const ZEPO_MUTEX *m) {
    return m->marker1 == ZEPO_MUTEX_MARKER1 && m->marker2 == ZEPO_MUTEX_MARKER2;
}

// Sets a recursive type on a fresh attribute; false when either call fails.
bool recursive_attribute(pthread_mutexattr_t *attribute) {
    return pthread_mutexattr_init(attribute) == 0 &&
           pthread_mutexattr_settype(attribute, PTHREAD_MUTEX_RECURSIVE) == 0;
}

// The set-up of a static record on its first lock, not guarded by any other lock: a
// static record is meant to be locked first before other threads use it.  A failed
// set-up leaves the markers, so the next lock tries again.
bool set_up_if_static(ZEPO_MUTEX *m) {
    if (!statically_initialised(m)) return true;
    if (ZEPO_MutexInit(m, nullptr) != 0) return false;
    *reinterpret_cast<MarkerWord *>(&m->marker1) = kMarkersUsed;
    return true;
}

}  // namespace

extern "C" {

int32_t ZEPO_MutexInit(void *mutex, const void * /*attr: ignored, every mutex is recursive*/) {
    if (!qel::accepted(mutex)) return qel::kRefused;
    pthread_mutexattr_t attribute;
    (void)memset_s(&attribute, sizeof attribute, 0, sizeof attribute);
    if (!recursive_attribute(&attribute)) return qel::kRefused;
    // The attribute is not destroyed: glibc's holds no resources.
    return pthread_mutex_init(platform(mutex), &attribute);
}

int32_t ZEPO_MutexInitRecursive(void *mutex) {
    pthread_mutexattr_t attribute;
    if (!recursive_attribute(&attribute)) return qel::kRefused;
    return ZEPO_MutexInit(mutex, &attribute);
}

int32_t ZEPO_MutexDestroy(void *mutex) {
    if (!qel::accepted(mutex)) return qel::kRefused;
    // Every failure folds into -1: the error number is not passed on.
    return pthread_mutex_destroy(platform(mutex)) == 0 ? 0 : qel::kRefused;
}

int32_t ZEPO_MutexLock(void *mutex) {
    if (!qel::accepted(mutex)) return qel::kRefused;
    if (!set_up_if_static(record(mutex))) return qel::kRefused;
    return pthread_mutex_lock(platform(mutex));
}

int32_t ZEPO_MutexTryLock(void *mutex) {
    if (!qel::accepted(mutex)) return qel::kRefused;
    if (!set_up_if_static(record(mutex))) return qel::kRefused;
    return pthread_mutex_trylock(platform(mutex));
}

int32_t ZEPO_MutexUnLock(void *mutex) {
    // No set-up here: a static record must be locked before it is unlocked.
    if (!qel::accepted(mutex)) return qel::kRefused;
    return pthread_mutex_unlock(platform(mutex));
}

// The read-write locks check nothing: a null lock goes to the platform as it is.
int32_t QEL_Pthread_RWLock_Init(pthread_rwlock_t *rwlock, const pthread_rwlockattr_t *attr) {
    return pthread_rwlock_init(rwlock, attr);
}

int32_t QEL_Pthread_RWLock_Destroy(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_destroy(rwlock);
}

int32_t QEL_Pthread_RWLock_RDLock(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_rdlock(rwlock);
}

int32_t QEL_Pthread_RWLock_TryRDLock(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_tryrdlock(rwlock);
}

int32_t QEL_Pthread_RWLock_WRLock(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_wrlock(rwlock);
}

int32_t QEL_Pthread_RWLock_TryWRLock(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_trywrlock(rwlock);
}

int32_t QEL_Pthread_RWLock_UnLock(pthread_rwlock_t *rwlock) {
    return pthread_rwlock_unlock(rwlock);
}

}  // extern "C"
