/*
 * qel_queue.h - named, bounded message queues between the threads of one process.
 *
 * A queue holds up to its capacity of messages of 1 to maxMsgLen bytes each, in the
 * order written.  A writer copies its message in; a reader takes the oldest one out into
 * its own buffer.  Writers wait while the queue is full, readers while it is empty -
 * without limit (time-out 0) or up to a time-out in milliseconds.  Each timed wait on a
 * semaphore has a deadline on the wall clock (setting the clock moves it); the time left
 * between wake-ups is kept on the 32-bit run-time clock.  Every message costs two allocations from
 * the memory entry points.  A waiter that wakes and loses the race hands its token on and polls
 * every 1 ms until it succeeds or its time runs out.
 *
 * A read wakes a blocked writer only when it takes from a full queue, one writer per
 * such read.  With several writers waiting without limit, a writer can therefore stay
 * blocked while there is room (and, once all are blocked, for good): give writers a
 * time-out and retry on QEL_QUEUE_WRITE_TIMEOUT when several share a queue.
 *
 * All queues hang in one process-wide registry, built by the first QEL_QueueCreate and
 * released with the last QEL_QueueDelete.  Ids count up from 1 and are not reused until
 * the 32-bit counter wraps.  Threads may use queues concurrently, with these limits: the
 * registry is built and released without a guard, so the first QEL_QueueCreate and the
 * delete of the last queue must not overlap any other queue call; and no call on a queue
 * may overlap its delete - stop its readers and writers first (nobody blocked on a
 * deleted queue is woken).
 *
 * Results are the codes below (0 for success); QEL_QueueRead returns the bytes read
 * instead, and QEL_QueueGetMsgNum the number of messages held.  Nothing is printed,
 * except the failure trace of a failed copy of the name or of a message being read.
 */
#ifndef QEL_QUEUE_H
#define QEL_QUEUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define QEL_QUEUE_OK 0x00000000u
#define QEL_QUEUE_CREATE_MSGLEN_ZERO 0x20050006u      /* maxMsgLen is 0 */
#define QEL_QUEUE_CREATE_BAD_MODE 0x20050007u         /* mode is greater than 1 */
#define QEL_QUEUE_CREATE_NULL_NAME 0x20050008u        /* name is null */
#define QEL_QUEUE_CREATE_NO_ID 0x20050009u            /* null id place, or the id counter wrapped */
#define QEL_QUEUE_NO_MEMORY 0x2005000Bu               /* an allocation failed (create, write) */
#define QEL_QUEUE_CREATE_NO_LOCK 0x2005000Cu          /* a mutex or semaphore could not be set up */
#define QEL_QUEUE_READ_NO_QUEUE 0x20050014u           /* no queue with this id */
#define QEL_QUEUE_READ_NULL_BUFFER 0x20050015u        /* buffer is null */
#define QEL_QUEUE_READ_ZERO_SIZE 0x20050016u          /* buffer size is 0 */
#define QEL_QUEUE_READ_TIMEOUT 0x20050018u            /* the wait failed or expired */
#define QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE 0xFFFFFFFFu /* time ran out after a fruitless wake-up */
#define QEL_QUEUE_WRITE_NO_QUEUE 0x20050028u          /* no queue with this id */
#define QEL_QUEUE_WRITE_NULL_MESSAGE 0x20050029u      /* message is null */
#define QEL_QUEUE_WRITE_BAD_LENGTH 0x2005002Au        /* length 0 or above maxMsgLen */
#define QEL_QUEUE_DELETE_NO_QUEUE 0x20050050u         /* no queue with this id */
#define QEL_QUEUE_DELETE_VANISHED 0x20050051u         /* the queue went away during the delete */
#define QEL_QUEUE_COUNT_NO_QUEUE 0x20050054u          /* no queue with this id */
#define QEL_QUEUE_WRITE_TIMEOUT \
    0x20050065u /* the wait failed or expired, or the queue stayed full */

/*
 * Creates a queue of capacity messages (0 is accepted: such a queue takes no message) of
 * at most maxMsgLen bytes each, and stores its id in *queueIdOut.  mode (0 or 1) is
 * stored and not used.  name is copied without its terminator into a 32-byte field;
 * a name longer than 32 bytes fails that copy (the failure trace is printed and the field stays
 * empty) and the queue is created all the same.  Checks, in this order:
 * QEL_QUEUE_CREATE_BAD_MODE, QEL_QUEUE_CREATE_MSGLEN_ZERO, QEL_QUEUE_CREATE_NULL_NAME,
 * QEL_QUEUE_CREATE_NO_ID.  Then QEL_QUEUE_NO_MEMORY, QEL_QUEUE_CREATE_NO_LOCK, or
 * QEL_QUEUE_CREATE_NO_ID when the id counter wrapped to 0 (the next creation gets id 1).
 * Returns QEL_QUEUE_OK on success.
 */
uint32_t QEL_QueueCreate(const char *name, uint32_t capacity, uint32_t *queueIdOut, uint32_t mode,
                         uint32_t maxMsgLen);

/*
 * Deletes a queue and the messages it holds; the last delete releases the registry.
 * Returns QEL_QUEUE_OK, QEL_QUEUE_DELETE_NO_QUEUE, or QEL_QUEUE_DELETE_VANISHED when
 * another thread removed the queue meanwhile.  Threads blocked on the queue are not
 * woken.
 */
uint32_t QEL_QueueDelete(uint32_t queueId);

/*
 * Copies length bytes of message into the queue, waiting while it is full: without limit
 * for timeoutMs 0, else up to timeoutMs milliseconds.  Returns QEL_QUEUE_OK, or
 * QEL_QUEUE_WRITE_NULL_MESSAGE, QEL_QUEUE_WRITE_NO_QUEUE, QEL_QUEUE_WRITE_BAD_LENGTH
 * (checked in this order), QEL_QUEUE_NO_MEMORY (the queue is unchanged), or
 * QEL_QUEUE_WRITE_TIMEOUT.
 */
uint32_t QEL_QueueWrite(uint32_t queueId, const void *message, uint32_t length, uint32_t timeoutMs);

/*
 * Takes the oldest message into buffer, waiting while the queue is empty: without limit
 * for timeoutMs 0, else up to timeoutMs milliseconds.  Returns the number of bytes
 * copied (1 or more): a message longer than bufferSize is cut to it and its rest is
 * lost.  A bufferSize above 0x7FFFFFFF fails the checked copy (the failure trace is
 * printed, the buffer is left untouched) and the message is lost all the same, with the
 * count of bytes it would have given returned.  Otherwise QEL_QUEUE_READ_ZERO_SIZE,
 * QEL_QUEUE_READ_NULL_BUFFER, QEL_QUEUE_READ_NO_QUEUE (checked in this order),
 * QEL_QUEUE_READ_TIMEOUT when the wait itself failed or expired, or
 * QEL_QUEUE_READ_TIMEOUT_AFTER_WAKE when the time ran out after a wake-up that found no message -
 * two different codes, on purpose.
 */
uint32_t QEL_QueueRead(uint32_t queueId, uint32_t timeoutMs, void *buffer, uint32_t bufferSize);

/*
 * True when a result of QEL_QueueRead is one of the codes above rather than a byte count.
 * Every code is either 0xFFFFFFFF or lies between 0x20050000 and 0x2005FFFF, while a byte
 * count is at most the message's length, so the two cannot meet as long as maxMsgLen
 * stays below 0x20050000 (537 MB): messages that large are not worth queuing by copy.
 * The argument is evaluated twice.
 */
#define QEL_QUEUE_READ_FAILED(result) \
    ((result) == 0xFFFFFFFFu || ((result)&0xFFFF0000u) == 0x20050000u)

/*
 * The number of messages the queue holds, read without a lock, or
 * QEL_QUEUE_COUNT_NO_QUEUE for an unknown id - which a caller cannot tell from a count.
 */
uint32_t QEL_QueueGetMsgNum(uint32_t queueId);

#ifdef __cplusplus
}
#endif

#endif /* QEL_QUEUE_H */
