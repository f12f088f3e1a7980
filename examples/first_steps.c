/*
 * first_steps.c - the library's string, print, memory and queue functions in one short
 * tour.
 *
 * Build and run: bash scripts/run-example.sh
 */
#include <errno.h>
#include <stdio.h>

#include "qel_os_adapter.h"

int main(void) {
    /* Every block comes from the memory entry points and names its source position. */
    char *greeting = ZEPO_StrConcat("Hello", ", ", "adapter", (char *)NULL);
    if (greeting == NULL) return 1;
    ZEPO_Printf("%s (%u characters)\n", greeting, ZEPO_StrLen(greeting));

    /* Text checks: a null text and an empty one look alike to the library. */
    ZEPO_Printf("length of NULL: %u, of \"\": %u\n", ZEPO_StrLen(NULL), ZEPO_StrLen(""));

    /* Numbers to text and back. */
    char digits[20];
    int32_t value = 0;
    if (ZEPO_Ultostr(digits, sizeof digits, 48879, 16) > 0 &&
        ZEPO_StrToInt32("0x1F", &value) == 0) {
        ZEPO_Printf("48879 in hex: %s; \"0x1F\" reads as %d\n", digits, value);
    }

    /* A copy charged to this line of this file, converted in place. */
    char *loud = ZEPO_StrDupEx(greeting, __LINE__, __FILE__);
    if (loud != NULL) ZEPO_Printf("%s\n", ZEPO_StrToUper(loud));

    /* A zero-filled block, and a comparison.  QEL_MEM_ZALLOC passes this line and file. */
    unsigned char *block = QEL_MEM_ZALLOC(16);
    if (block != NULL) {
        static const unsigned char zeros[16];
        ZEPO_Printf("zero-filled block compares %s\n",
                    ZEPO_MemCmp(block, zeros, 16) == 0 ? "equal" : "different");
    }

    /* The last error is the thread's errno; a refused call leaves it as it was. */
    char text[64];
    ZEPO_SetLastErr(ENOENT);
    if (ZEPO_Fprintf(stdout, "") == -1 &&
        ZEPO_StrError_S(text, sizeof text, ZEPO_GetLastErr()) == 0) {
        ZEPO_Printf("empty format refused; last error still %u: %s\n", ZEPO_GetLastErr(), text);
    }

    /* The 64-bit results refuse with 4294967295, which "< 0" would miss: use its name. */
    if (ZEPO_Ftell(NULL) == QEL_REFUSED64) ZEPO_Printf("a null stream is refused by ZEPO_Ftell\n");

    /* A queue read returns a byte count or a code: QEL_QUEUE_READ_FAILED tells them apart. */
    uint32_t queue = 0;
    if (QEL_QueueCreate("first_steps", 4, &queue, 0, 64) == QEL_QUEUE_OK) {
        char message[64];
        QEL_QueueWrite(queue, "ping", 4, 0);
        uint32_t got = QEL_QueueRead(queue, 10, message, sizeof message);
        if (!QEL_QUEUE_READ_FAILED(got))
            ZEPO_Printf("read %u bytes: %.*s\n", got, (int)got, message);
        got = QEL_QueueRead(queue, 10, message, sizeof message); /* empty now: times out */
        if (QEL_QUEUE_READ_FAILED(got)) ZEPO_Printf("empty queue: code 0x%08X\n", got);
        QEL_QueueDelete(queue);
    }

    QEL_MEM_FREE(block);
    QEL_MEM_FREE(loud);
    QEL_MEM_FREE(greeting);
    return 0;
}
