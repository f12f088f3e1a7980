/* A tiny application built against an installed copy of the library. */
#include <qel_bounds.h>
#include <qel_os_adapter.h>

int main(void) {
    char buf[32];
    char *text = ZEPO_StrConcat("installed", " ", "copy", (char *)0);
    if (text == 0) return 1;
    if (snprintf_s(buf, sizeof buf, sizeof buf - 1, "%s:%u", text, ZEPO_StrLen(text)) < 0) return 2;
    ZEPO_MemTypeFreeD(text, 0, __LINE__, __FILE__);
    return ZEPO_Printf("%s\n", buf) > 0 ? 0 : 3;
}
