// vmutex.h: a mutex behind a virtual interface, for C++11. Nothing of the implementing class shows; the lock is a
// pooled mutex with default attributes, so it is not recursive. The library carries no type information: typeid and
// dynamic_cast do not work on one, and a caller under UndefinedBehaviorSanitizer needs -fno-sanitize=vptr.
#pragma once

#include "corvex/types.h"

class a_ut_vmutex {
public:
    virtual void get() = 0;      // blocks until the caller holds the mutex; not twice by one thread
    virtual void give() = 0;     // releases it; by its holder
    virtual void destroy() = 0;  // releases the object; by then no thread holds the mutex or waits for it

protected:
    ~a_ut_vmutex() = default;  // objects go by destroy, never by delete
};

CORVEX_C_BEGIN

// A new mutex, to be released with destroy; null when there is no memory, which is also reported on
// standard output and in the system log. Thread-safe; not signal-safe: it allocates.
CORVEX_API a_ut_vmutex* UT_Vmutex_Create(void);

CORVEX_C_END

static_assert(sizeof(a_ut_vmutex) == sizeof(void*), "the layout is part of the binary interface");
