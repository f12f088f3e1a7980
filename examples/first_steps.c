/*
 * first_steps.c - the library's string, print and memory functions in one short tour.
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

    /* A zero-filled block, and a comparison. */
    unsigned char *block = ZEPO_MemTypeMallocS(16, 0, 0, __LINE__, __FILE__);
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

    ZEPO_MemTypeFreeD(block, 0, __LINE__, __FILE__);
    ZEPO_MemTypeFreeD(loud, 0, __LINE__, __FILE__);
    ZEPO_MemTypeFreeD(greeting, 0, __LINE__, __FILE__);
    return 0;
}
