// minivurmo_queue.cpp - named, bounded message queues between threads.
//
// Lock order: the registry mutex is never held while a queue's lock is taken (look-ups
// release it first), and a queue's lock is never held while waiting on a semaphore.

#include <atomic>
#include <cstring>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_mutex.h"
#include "qel_queue.h"
#include "qel_sem.h"
#include "qel_thread.h"
#include "qel_time.h"

namespace {

constexpr size_t kNameSize = 32;
constexpr uint32_t kLastMode = 1;

// One message: a node and a private copy of its bytes, allocated separately.
struct MessageNode {
    MessageNode *next;
    uint32_t length;
    uint8_t *data;
};

// A queue, and (with only next used) the anchor of the registry list.
struct QueueRecord {
    QueueRecord *next;
    uint32_t id;
    char name[kNameSize];  // without terminator
    uint32_t capacity;
    uint32_t count;  // read without a lock by QEL_QueueGetMsgNum: accessed atomically
    uint32_t maxMsgLen;
    uint32_t mode;  // stored, never read
    MessageNode *head;
    MessageNode *tail;
    ZEPO_MUTEX lock;    // guards count, head, tail and the nodes
    ZEPO_SEM readSem;   // one token per message written
    ZEPO_SEM writeSem;  // posted when a read takes from a full queue
};

// The registry: the anchor is tested without a lock before the registry mutex exists,
// so it is an atomic; the id counter is changed under the registry mutex only.
std::atomic<QueueRecord *> s_anchor{nullptr};
ZEPO_MUTEX s_registryLock;
uint32_t s_idCounter = 0;

uint32_t count_of(const QueueRecord *q) { return __atomic_load_n(&q->count, __ATOMIC_RELAXED); }

void set_count(QueueRecord *q, uint32_t count) {
    __atomic_store_n(&q->count, count, __ATOMIC_RELAXED);
}

QueueRecord *new_zeroed_record() {
    auto *record = static_cast<QueueRecord *>(qel::heap_alloc(sizeof(QueueRecord)));
    if (record != nullptr) (void)memset_s(record, sizeof *record, 0, sizeof *record);
    return record;
}

// Finds a queue under the registry mutex and releases the mutex again.
QueueRecord *look_up(uint32_t queueId) {
    ZEPO_MutexLock(&s_registryLock);
    QueueRecord *found = s_anchor.load()->next;
    while (found != nullptr && found->id != queueId) found = found->next;
    ZEPO_MutexUnLock(&s_registryLock);
    return found;
}

// Appends a copy of the message (queue lock held).  A failed allocation leaves the queue
// unchanged.
uint32_t append(QueueRecord *q, const void *message, uint32_t length) {
    qel::HeapPtr<MessageNode> node(
        static_cast<MessageNode *>(qel::heap_zalloc(sizeof(MessageNode))));
    if (!node) return QEL_QUEUE_NO_MEMORY;
    auto *data = static_cast<uint8_t *>(qel::heap_alloc(length));
    if (data == nullptr) return QEL_QUEUE_NO_MEMORY;
    (void)memcpy_s(data, length, message, length);
    node.get()->data = data;
    node.get()->length = length;
    if (q->head == nullptr && q->tail == nullptr) {
        q->head = q->tail = node.get();
    } else {
        q->tail->next = node.get();
        q->tail = node.get();
    }
    node.release();
    ZEPO_SemPost(&q->readSem);
    set_count(q, count_of(q) + 1);
    return QEL_QUEUE_OK;
}

// Takes the oldest message into buffer (queue lock held): the bytes copied, at most
// size; the rest of a longer message is dropped.
uint32_t take(QueueRecord *q, void *buffer, uint32_t size) {
    MessageNode *node = q->head;
    q->head = node->next;
    const uint32_t copied = node->length < size ? node->length : size;
    qel::traced(memcpy_s(buffer, size, node->data, copied));
    const uint32_t oldCount = count_of(q);
    set_count(q, oldCount - 1);
    if (oldCount == q->capacity) ZEPO_SemPost(&q->writeSem);  // the queue was full
    if (q->tail == node) q->tail = nullptr;
    qel::heap_free(node->data);
    qel::heap_free(node);
    return copied;
}

// The blocking part of a write (sem = writeSem, ready = room) and of a read (sem =
// readSem, ready = a message): wait for a token, then act under the queue lock if ready.
// A fruitless wake-up hands the token on and sleeps 1 ms before trying again.  With a
// time-out the remaining time is kept on the 32-bit millisecond clock; the clock running
// backwards (its wrap) ends the wait as well.
template <typename Ready, typename Act>
uint32_t wait_then(QueueRecord *q, ZEPO_SEM *sem, uint32_t timeoutMs, Ready ready, Act act,
                   uint32_t waitFailed, uint32_t timeRanOut) {
    // One wake-up: act under the queue lock if ready; otherwise hand the token on to
    // another waiter and pause for 1 ms.
    uint32_t result = 0;
    const auto attempt = [&]() {
        {
            qel::MutexHold locked(&q->lock);
            if (ready(q)) {
                result = act(q);
                return true;
            }
        }
        ZEPO_SemPost(sem);
        ZEPO_SleepMs(1);
        return false;
    };
    if (timeoutMs == 0) {
        for (;;) {
            // Only a wait that took a token counts: one ended by a signal waits again,
            // so the tokens keep matching the messages (or the room).
            while (ZEPO_SemWait(sem) != 0) {
            }
            if (attempt()) return result;
        }
    }
    uint32_t remaining = timeoutMs;
    for (;;) {
        const uint32_t t0 = ZEPO_GetSysRunTime();
        if (ZEPO_SemWaitTimeOut(sem, remaining) != 0) return waitFailed;
        if (attempt()) return result;
        const uint32_t t1 = ZEPO_GetSysRunTime();
        if (t0 > t1 || remaining <= t1 - t0) return timeRanOut;
        remaining -= t1 - t0;
    }
}

// Destroys what a queue set up and releases it with every message it holds.
void release_queue(QueueRecord *q) {
    for (MessageNode *node = q->head; node != nullptr;) {
        MessageNode *next = node->next;
        qel::heap_free(node->data);
        qel::heap_free(node);
        node = next;
    }
    ZEPO_SemDestroy(&q->readSem);
    ZEPO_SemDestroy(&q->writeSem);
    ZEPO_MutexDestroy(&q->lock);
    qel::heap_free(q);
}

// Sets up the lock and both semaphores of a new queue; on a failure undoes what was made,
// in reverse order.
bool set_up_queue_locks(QueueRecord *q) {
    if (ZEPO_MutexInit(&q->lock, nullptr) != 0) return false;
    if (ZEPO_SemInit(&q->readSem, 0, 0) == -1) {
        ZEPO_MutexDestroy(&q->lock);
        return false;
    }
    if (ZEPO_SemInit(&q->writeSem, 0, 0) == -1) {
        ZEPO_SemDestroy(&q->readSem);
        ZEPO_MutexDestroy(&q->lock);
        return false;
    }
    return true;
}

// Builds the registry: the anchor and its mutex.
uint32_t build_registry() {
    QueueRecord *anchor = new_zeroed_record();
    if (anchor == nullptr) return QEL_QUEUE_NO_MEMORY;
    if (ZEPO_MutexInit(&s_registryLock, nullptr) != 0) {
        qel::heap_free(anchor);
        return QEL_QUEUE_CREATE_NO_LOCK;
    }
    s_anchor.store(anchor);
    return QEL_QUEUE_OK;
}

}  // namespace

extern "C" {

uint32_t QEL_QueueCreate(const char *name, uint32_t capacity, uint32_t *queueIdOut, uint32_t mode,
                         uint32_t maxMsgLen) {
    if (mode > kLastMode) return QEL_QUEUE_CREATE_BAD_MODE;
    if (maxMsgLen == 0) return QEL_QUEUE_CREATE_MSGLEN_ZERO;
    if (name == nullptr) return QEL_QUEUE_CREATE_NULL_NAME;
    if (queueIdOut == nullptr) return QEL_QUEUE_CREATE_NO_ID;
    if (s_anchor.load() == nullptr) {
        const uint32_t built = build_registry();
        if (built != QEL_QUEUE_OK) return built;
    }

    ZEPO_MutexLock(&s_registryLock);
    QueueRecord *q = new_zeroed_record();
    if (q == nullptr) {
        ZEPO_MutexUnLock(&s_registryLock);
        return QEL_QUEUE_NO_MEMORY;
    }
    q->maxMsgLen = maxMsgLen;
    q->capacity = capacity;
    const uint32_t nameLength = ZEPO_StrLen(name);
    // Bounded by the 32-byte field: a longer name fails the copy, which is traced and
    // leaves the field empty; creation goes on.
    if (nameLength != 0) qel::traced(memcpy_s(q->name, sizeof q->name, name, nameLength));
    q->mode = mode;
    if (!set_up_queue_locks(q)) {
        qel::heap_free(q);
        ZEPO_MutexUnLock(&s_registryLock);
        return QEL_QUEUE_CREATE_NO_LOCK;
    }
    q->id = ++s_idCounter;
    if (q->id == 0) {
        // The counter wrapped; it stays at 0, so the next creation gets id 1 again.
        release_queue(q);
        ZEPO_MutexUnLock(&s_registryLock);
        return QEL_QUEUE_CREATE_NO_ID;
    }
    QueueRecord *anchor = s_anchor.load();
    q->next = anchor->next;
    anchor->next = q;
    *queueIdOut = q->id;
    ZEPO_MutexUnLock(&s_registryLock);
    return QEL_QUEUE_OK;
}

uint32_t QEL_QueueDelete(uint32_t queueId) {
    if (s_anchor.load() == nullptr) return QEL_QUEUE_DELETE_NO_QUEUE;
    QueueRecord *q = look_up(queueId);
    if (q == nullptr) return QEL_QUEUE_DELETE_NO_QUEUE;
    QueueRecord *anchor = s_anchor.load();
    if (anchor == nullptr) return QEL_QUEUE_DELETE_VANISHED;

    ZEPO_MutexLock(&s_registryLock);
    if (anchor->next != nullptr) {
        QueueRecord *before = anchor;
        while (before->next != nullptr && before->next != q) before = before->next;
        if (before->next == nullptr) {
            ZEPO_MutexUnLock(&s_registryLock);
            return QEL_QUEUE_DELETE_VANISHED;
        }
        before->next = q->next;
        release_queue(q);
        if (anchor->next != nullptr) {
            ZEPO_MutexUnLock(&s_registryLock);
            return QEL_QUEUE_OK;
        }
    }
    // The last queue is gone: release the registry.
    qel::heap_free(anchor);
    s_anchor.store(nullptr);
    ZEPO_MutexUnLock(&s_registryLock);
    ZEPO_MutexDestroy(&s_registryLock);
    return QEL_QUEUE_OK;
}

uint32_t QEL_QueueWrite(uint32_t queueId, const void *message, uint32_t length,
                        uint32_t timeoutMs) {
    if (message == nullptr) return QEL_QUEUE_WRITE_NULL_MESSAGE;
    if (s_anchor.load() == nullptr) return QEL_QUEUE_WRITE_NO_QUEUE;
    QueueRecord *q = look_up(queueId);
    if (q == nullptr) return QEL_QUEUE_WRITE_NO_QUEUE;
    if (length == 0 || length > q->maxMsgLen) return QEL_QUEUE_WRITE_BAD_LENGTH;

    const auto write = [message, length](QueueRecord *queue) {
        return append(queue, message, length);
    };
    {
        qel::MutexHold locked(&q->lock);
        if (count_of(q) != q->capacity) return write(q);
    }
    // Full: wait for room.  Both time-out paths give the same code.
    return wait_then(
        q, &q->writeSem, timeoutMs,
        [](const QueueRecord *queue) { return count_of(queue) < queue->capacity; }, write,
        QEL_QUEUE_WRITE_TIMEOUT, QEL_QUEUE_WRITE_TIMEOUT);
}

uint32_t QEL_QueueRead(uint32_t queueId, uint32_t timeoutMs, void *buffer, uint32_t bufferSize) {
    if (bufferSize == 0) return QEL_QUEUE_READ_ZERO_SIZE;
    if (buffer == nullptr) return QEL_QUEUE_READ_NULL_BUFFER;
    if (s_anchor.load() == nullptr) return QEL_QUEUE_READ_NO_QUEUE;
    QueueRecord *q = look_up(queueId);
    if (q == nullptr) return QEL_QUEUE_READ_NO_QUEUE;

    // A reader always waits for a token first: each message carries one.  The two
    // time-out codes differ on purpose.
    return wait_then(
        q, &q->readSem, timeoutMs, [](const QueueRecord *queue) { return count_of(queue) != 0; },
        [buffer, bufferSize](QueueRecord *queue) { return take(queue, buffer, bufferSize); },
        QEL_QUEUE_READ_TIMEOUT, QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE);
}

uint32_t QEL_QueueGetMsgNum(uint32_t queueId) {
    if (s_anchor.load() == nullptr) return QEL_QUEUE_COUNT_NO_QUEUE;
    const QueueRecord *q = look_up(queueId);
    if (q == nullptr) return QEL_QUEUE_COUNT_NO_QUEUE;
    return count_of(q);  // without a lock
}

}  // extern "C"
