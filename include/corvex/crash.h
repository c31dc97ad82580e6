/* crash.h: what the process died of, for debuggers, tools and callbacks, for C99 and C++11.
 *
 * A process that the library's handler ends (onsig.h) ends by SIGABRT, and its core shows the abort. So the handler
 * keeps the first signal that ended the process here, before anything else, whether crash reports are on or not. One
 * record a process: a second crashing thread, a callback that crashes and a forked child of a callback leave it alone.
 * It stands in each core that the process writes, at the symbol ut_crash_record or found by its magic number. */
#pragma once

#include "corvex/types.h"

CORVEX_C_BEGIN

#define UT_CRASH_MAGIC     0x3168736172637475ull /* "utcrash1" in memory */
#define UT_CRASH_VERSION   1
#define UT_CRASH_REGISTERS 23

/* What the record holds by now. */
#define UT_CRASH_NONE    0
#define UT_CRASH_WRITING 1
#define UT_CRASH_WHOLE   2

/* Constant size: what later versions add takes another size and version. */
typedef struct {
    uint64 magic;
    uint32 version, size; /* size: of this record, 256 */
    uint32 state;         /* UT_CRASH_NONE, ..._WRITING, ..._WHOLE; read it first, with acquire order */
    int32 sig, code;      /* si_signo, si_code */
    int32 pid, tid;       /* of the thread that the signal hit */
    int32 sender_pid;     /* of who sent the signal; -1: nobody did, or nobody knows */
    uint32 sender_uid;
    uint32 microseconds;                  /* of the time */
    int64_t seconds;                      /* since 1970, UTC */
    uint64 address;                       /* si_addr of a fault; 0 for a signal that was sent */
    uint64 pc;                            /* the interrupted instruction */
    uint64 registers[UT_CRASH_REGISTERS]; /* in the order of gregs in <sys/ucontext.h>: r8 to r15, rdi, rsi, rbp, ... */
} a_ut_crash_record;

CORVEX_LAYOUT(sizeof(a_ut_crash_record) == 256 && offsetof(a_ut_crash_record, state) == 16);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, sig) == 20 && offsetof(a_ut_crash_record, code) == 24);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, pid) == 28 && offsetof(a_ut_crash_record, tid) == 32);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, sender_pid) == 36 && offsetof(a_ut_crash_record, sender_uid) == 40);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, microseconds) == 44 && offsetof(a_ut_crash_record, seconds) == 48);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, address) == 56 && offsetof(a_ut_crash_record, pc) == 64);
CORVEX_LAYOUT(offsetof(a_ut_crash_record, registers) == 72);

extern CORVEX_API a_ut_crash_record ut_crash_record; /* not to be written */

CORVEX_C_END
