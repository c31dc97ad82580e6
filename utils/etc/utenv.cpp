// utenv.cpp: environment lookup (see utenv.h). No state, no locks. Signal-safe: all of it.
#include "utils/etc/utenv.h"

#include <stdlib.h>
#include <string.h>

char* ut_getenv(const char* name, char* buf, size_t bufsize)
{
    const char* value = ut_getenv2(name);
    if (value == nullptr)
        return nullptr;
    const size_t len = strnlen(value, bufsize - 1);
    memcpy(buf, value, len);
    memset(buf + len, 0, bufsize - len);
    return buf;
}

char* ut_getenv2(const char* name) { return secure_getenv(name); }

unsigned ut_seconds_of(const char* text, unsigned max)
{
    unsigned seconds = 0;
    for (; *text >= '0' && *text <= '9' && seconds < max; text++)
        seconds = seconds * 10 + unsigned(*text - '0');
    return seconds < max ? seconds : max;
}
