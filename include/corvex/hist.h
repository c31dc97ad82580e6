/* hist.h: the event history, for C99 and C++11.
 *
 * The history keeps the newest trace events of the process in rings in memory and writes them out as a text report at
 * exit, on request, or on SIGUSR1. It is configured once, at load, by the environment variable UT_HIST (see the user's
 * guide for its options) and costs one load and one predicted branch per call site while off.
 *
 * Instrumented code uses the macros below: they test ut_hist_debug first, pass the call site's file and line, and take
 * up to eight parameters. The functions are for tools and for callers that build their own macros.
 *
 *     static a_ut_hist_id query;                        // once, after load:
 *     query = ut_hist_id_alloc(__FILE__, __LINE__, "query");
 *
 *     UT_HIST_LOC(at);                                  // around the work:
 *     UT_HIST_BEG(&at, query, "select", connection);
 *     ...
 *     UT_HIST_END(&at, query, "rows", row_count);       // its duration column is the time since BEG
 *
 * Signal handlers record with UT_HIST_ID_SIGHANDLER only: such an event takes no lock. Every other id may need the
 * queue lock that the interrupted thread holds. An unlocked queue wants one writer at a time: queue 1 of the signal
 * handlers too, which is also the own queue of thread slot 0 when queues are by thread (option q). When two write it at
 * once nothing breaks, but their records may be lost.
 *
 * A handler that leaves an event by a jump leaves its queue locked. Under UT_HIST_THREAD_SLOT=handle, the default,
 * threads share slots and drop each other's events; servers set dense.
 *
 * Nothing here reports failure: lost events and samples are counted and shown by the dump. What goes wrong in writing
 * is told by notes, lines of their own on the message stream: "** HISTORY note ** <text>". No write of the library
 * raises SIGPIPE or SIGXFSZ, and a stream that takes nothing for a second is given up for that dump; while the process
 * ends, all waits together stay under two seconds. */
#pragma once

#include <stdio.h>

#include "corvex/types.h"

CORVEX_C_BEGIN

/* Class of an event; stored as a 32-bit int. */
typedef enum a_ut_hist_cl {
    UT_HIST_CL_NULL = 0, /* no class */
    UT_HIST_CL_EV = 1,   /* plain event */
    UT_HIST_CL_DATA = 2, /* carries a block of bytes: parameter 1 is its address, parameter 2 its length in bytes */
    UT_HIST_CL_BEG = 3,  /* begin marker */
    UT_HIST_CL_END = 4,  /* end marker */
    UT_HIST_CL_LAST = 5  /* number of classes, not one of its own */
} a_ut_hist_cl;
CORVEX_LAYOUT(sizeof(a_ut_hist_cl) == 4);

/* Identifier of an event: an index from ut_hist_id_alloc, the address of a NUL-terminated text that names it,
 * or one of the three special values. Only registered ids take part in the timing statistics. A value below 65536 that
 * is not registered, say an index from before a restart, is never followed: 7 is shown as "#7", 0 as no id. */
typedef void* a_ut_hist_id;
#define UT_HIST_ID_NONE       UT_HIST_ID_(-1) /* no id */
#define UT_HIST_ID_Q2         UT_HIST_ID_(-2) /* queue 2 without a lock: one writer only */
#define UT_HIST_ID_SIGHANDLER UT_HIST_ID_(-3) /* queue 1 without a lock: for signal handlers */
/* A text as an id; it must stay valid until the last dump unless option f is on (as it is by default). */
#define UT_HIST_ID_TEXT(text) UT_HIST_TEXT_(text)

/* Names the record that an event was written to, so that a later event can be timed against it. Owned by the
 * caller, who may share one between threads; the history reads and rewrites it, one atomic word at a time. */
typedef struct a_ut_hist_loc {
    int32 q;    /* queue index; -1 names nothing */
    uint32 n;   /* slot in the queue's ring */
    uint32 num; /* event number found there */
} a_ut_hist_loc;
CORVEX_LAYOUT(sizeof(a_ut_hist_loc) == 12 && offsetof(a_ut_hist_loc, n) == 4 && offsetof(a_ut_hist_loc, num) == 8);
/* The value that names nothing: INIT to begin a location with, NONE to assign. {0, 0, 0} does not: it names event 0 of
 * slot 0, live until the slot is written. */
#define UT_HIST_LOC_INIT                                                                                               \
    {                                                                                                                  \
        -1, 0, 0                                                                                                       \
    }
#ifdef __cplusplus
#define UT_HIST_LOC_NONE    (a_ut_hist_loc UT_HIST_LOC_INIT)
#define UT_HIST_ID_(number) reinterpret_cast<a_ut_hist_id>(static_cast<a_ptrint>(number))
#define UT_HIST_TEXT_(text) static_cast<a_ut_hist_id>(const_cast<char*>(static_cast<const char*>(text)))
#define UT_HIST_NO_LOC_     nullptr
#else
#define UT_HIST_LOC_NONE    ((a_ut_hist_loc)UT_HIST_LOC_INIT)
#define UT_HIST_ID_(number) ((a_ut_hist_id)(a_ptrint)(number))
#define UT_HIST_TEXT_(text) ((a_ut_hist_id)(a_ptrint)(const char*)(text))
#define UT_HIST_NO_LOC_     ((a_ut_hist_loc*)0)
#endif

/* The master switch, and one that only the settings listing shows, for ut_hist_setting. */
typedef enum a_ut_hist_setting {
    UT_HIST_SET_EVENTS_OFF = 0,
    UT_HIST_SET_EVENTS_ON = 1,
    UT_HIST_SET_STATS_OFF = 2,
    UT_HIST_SET_STATS_ON = 3
} a_ut_hist_setting;
CORVEX_LAYOUT(sizeof(a_ut_hist_setting) == 4);

/* 1 while instrumented code should record, else 0. Read it as the macros do, with a relaxed atomic load; change it with
 * ut_hist_setting only. It reads 0 when UT_HIST is unset, empty or "off", and when the store could not be allocated. */
extern CORVEX_API int32 ut_hist_debug;

/* Records one event. It does not test ut_hist_debug.
 *   file, line  the call site; file may be null
 *   loc         null, or the location that this event's duration is measured from; afterwards it names this event
 *   cl          the class; for UT_HIST_CL_DATA p1 is the block's address and p2 its length in bytes (signed 64-bit; 0
 *               and below store nothing; cut to the size of the queue's data ring)
 *   id          see a_ut_hist_id
 *   ev          the event's text, may be null
 *   pn          how many of p1..p8 count, 0..8; a larger value is stored as 8; a negative one is stored as it is and
 *               shows every parameter column of the dump
 * Texts are copied when option f is on or the history has a file, else only their addresses are kept and the texts must
 * stay valid until the last dump. Of an id 15 characters are kept, of an event text 31, of a file text shorter than 23
 * all and of any other one the last 22 (option m changes the numbers). Thread-safe. Signal-safe with
 * UT_HIST_ID_SIGHANDLER only, and not under option Z, which prints each event. Does nothing while the history is not
 * running. An event is dropped silently when a signal handler records on the thread and queue that it interrupted in
 * this function, and counted as missed when the thread has no slot (see UT_HIST_THREAD_SLOT in the user's guide).
 * Allocates nothing, never blocks but for the queue's lock, for a registered id those of its statistics, and with
 * option S what the first event prints while it installs the handler. */
CORVEX_API void ut_hist_add(const char* file, uint32 line, a_ut_hist_loc* loc, a_ut_hist_cl cl, a_ut_hist_id id,
                            const char* ev, int32 pn, void* p1, void* p2, void* p3, void* p4, void* p5, void* p6,
                            void* p7, void* p8);

/* Registers an id for the call site file:line under the description desc (NUL-terminated, not null; file may be null).
 * Both texts are copied. Every call makes a new id: call it once per kind of event and keep the result. Returns the
 * index of the new entry, or desc itself when there is no registry (option k), when it is full, when memory is short,
 * or when the history is not running: events of that id are then recorded under the text, without statistics, so desc
 * must stay valid as long as the id is used. Thread-safe. Not signal-safe: it allocates and locks. */
CORVEX_API a_ut_hist_id ut_hist_id_alloc(const char* file, uint32 line, const char* desc);

/* Writes a whole dump to f: event table, statistics, end banner. f is an open, writable stream and stays the caller's:
 * it is neither flushed nor closed, and write errors are not reported. Writes nothing while there is no store. Holds
 * every queue's lock meanwhile, so recorders that lock wait; a lock that it does not get within a second it goes
 * without. The writes to f are the caller's own: they wait, and raise signals, as f's descriptor does. A SIGUSR1
 * meanwhile is answered by a dump of its own at the end, by descriptor: where that goes to f's file too, f should be
 * unbuffered. Thread-safe. Not signal-safe: it locks. */
CORVEX_API void ut_hist_dump_to_file(FILE* f);

/* Writes a whole dump to the log file of option l, or to the errout stream (option e; standard error) when none is
 * named or it cannot be opened, and reports it on the errout stream (option r). Records one event "PROGRAM DUMP"
 * first, while events are on. Holds every queue's lock meanwhile, but gives the locks back when its streams have been
 * waited for for a second in all. Does nothing while there is no store. Thread-safe. Not signal-safe: raise SIGUSR1
 * there instead. */
CORVEX_API void ut_hist_dump_to_log(void);

/* Turns events on or off; the statistics values change only what the settings listing shows (option k alone decides).
 * Any other value changes nothing. May be called at any time; readers
 * in other threads see the old or the new value. Thread-safe and signal-safe. */
CORVEX_API void ut_hist_setting(a_ut_hist_setting s);

/* Start-up and shut-down; the library calls both as it is loaded and unloaded. Start-up reads UT_HIST,
 * UT_HIST_THREAD_SLOT and UT_HIST_EXT, maps the store and installs the SIGUSR1 handler; it does not guard against a
 * second call without a shut-down between, which loses the first store. A store that cannot be had leaves the history
 * off, with a note; SIGUSR1 is then answered by that note. With UT_HIST_EXT=file=<pattern> the store is a file, which
 * is there however the process ends (hist_image.h says what is in it); where no file can be had, a note says so and the
 * history goes on in memory. Shut-down dumps (option f), removes the handler and frees the store (option x) and the
 * file (unless the word keep is given); it does nothing unless the history is running. It waits up to a second for
 * other threads that are inside an event or a dump, never for what its own thread was doing. After a shut-down a new
 * start-up reads the environment again: options that it does not name keep their values, but for e, ye, ys and the slot
 * rule, which begin anew. A shut-down that had to leave the store to a thread, say one whose dump does not end, was the
 * last: a start-up then leaves the history off. Neither is thread-safe or signal-safe: no other thread may use the
 * history meanwhile. */
CORVEX_API void ut_hist_init(void);
CORVEX_API void ut_hist_fini(void);

CORVEX_C_END

/* ---- instrumentation ---- */

/* True while events are on. Relaxed: the switch orders nothing else, and a call site that reads an old value
 * records or skips one event more. */
static inline int ut_hist_is_on(void)
{
    return __builtin_expect(__atomic_load_n(&ut_hist_debug, __ATOMIC_RELAXED), 0) != 0;
}

/* One parameter: any value as wide as a pointer (pointers, long, size_t, int64_t, double ...). Narrower
 * values are refused at compile time: write 5L or (long)count. Arrays count as the pointers they decay to. */
#ifdef __cplusplus
template <typename T>
inline void* ut_hist_parm(T value)
{
    static_assert(sizeof(T) == sizeof(void*), "a parameter of an event is as wide as a pointer: cast it to long");
    void* parm;
    __builtin_memcpy(&parm, &value, sizeof parm);
    return parm;
}
#define UT_HIST_P_(x) ut_hist_parm(x)
#else
/* The conditional makes a pointer of an array. */
#define UT_HIST_P_(x)                                                                                                  \
    (__extension__({                                                                                                   \
        __typeof__(1 ? (x) : (x)) ut_hist_value_ = (x);                                                                \
        _Static_assert(sizeof ut_hist_value_ == sizeof(void*),                                                         \
                       "a parameter of an event is as wide as a pointer: cast it to long");                            \
        void* ut_hist_parm_;                                                                                           \
        __builtin_memcpy(&ut_hist_parm_, &ut_hist_value_, sizeof ut_hist_parm_);                                       \
        ut_hist_parm_;                                                                                                 \
    }))
#endif

/* Call-site plumbing: text and parameters -> the arguments of ut_hist_add from the event text on, filled up by 0. */
#define UT_HIST_CAT_(a, b)  UT_HIST_CAT2_(a, b)
#define UT_HIST_CAT2_(a, b) a##b
#define UT_HIST_ARGS_(...)  UT_HIST_FILL_(UT_HIST_COUNT_(__VA_ARGS__), __VA_ARGS__, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L)
#define UT_HIST_FILL_(...)  UT_HIST_FILL2_(__VA_ARGS__)
#define UT_HIST_FILL2_(pn, ev, a, b, c, d, e, f, g, h, ...)                                                            \
    ev, pn, UT_HIST_P_(a), UT_HIST_P_(b), UT_HIST_P_(c), UT_HIST_P_(d), UT_HIST_P_(e), UT_HIST_P_(f), UT_HIST_P_(g),   \
        UT_HIST_P_(h)
/* Nine to twelve parameters: the name that the compiler complains of says why. */
#define UT_HIST_COUNT_(...)                                                                                            \
    UT_HIST_NTH_(__VA_ARGS__, ut_hist_takes_at_most_8_parameters, ut_hist_takes_at_most_8_parameters,                  \
                 ut_hist_takes_at_most_8_parameters, ut_hist_takes_at_most_8_parameters, 8, 7, 6, 5, 4, 3, 2, 1, 0, 0)
#define UT_HIST_NTH_(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, n, ...) n

/* The file text of the macros' events: a program may define another before it includes this header, __FILE_NAME__
 * where the compiler has it, say. Of a text longer than UT_HIST's mf the end is kept. */
#ifndef UT_HIST_FILE
#define UT_HIST_FILE __FILE__
#endif

/* Declares a location that names nothing yet, private to this block. */
#define UT_HIST_LOC(name) a_ut_hist_loc name = UT_HIST_LOC_INIT

/* The one form that all others are: class, location or null, id, then the text and 0 to 8 parameters.
 * Arguments are evaluated only while events are on, each once. A statement, not an expression. */
#define UT_HIST_ADD(cl, loc, id, ...)                                                                                  \
    do {                                                                                                               \
        if (ut_hist_is_on())                                                                                           \
            ut_hist_add(UT_HIST_FILE, __LINE__, loc, cl, id, UT_HIST_ARGS_(__VA_ARGS__));                              \
    } while (0)

/* A plain event: id, text, 0 to 8 parameters. */
#define UT_HIST_EV(id, ...) UT_HIST_ADD(UT_HIST_CL_EV, UT_HIST_NO_LOC_, id, __VA_ARGS__)
/* A block of bytes: id, text, address, length as a long, up to 6 parameters more. */
#define UT_HIST_DATA(id, ...) UT_HIST_ADD(UT_HIST_CL_DATA, UT_HIST_NO_LOC_, id, __VA_ARGS__)
/* Begin and end of a piece of work, timed through one location: location, id, text, 0 to 8 parameters. */
#define UT_HIST_BEG(loc, id, ...) UT_HIST_ADD(UT_HIST_CL_BEG, loc, id, __VA_ARGS__)
#define UT_HIST_END(loc, id, ...) UT_HIST_ADD(UT_HIST_CL_END, loc, id, __VA_ARGS__)

#ifdef __cplusplus
/* Records BEG now and END when the scope is left, however that happens, both under one id and one location.
 * END is recorded exactly when BEG was, so that switching events on or off in between leaves no half pair. */
class a_ut_hist_scope {
public:
    a_ut_hist_scope(const char* at_file, uint32 at_line, a_ut_hist_id with_id, const char* text)
        : file(at_file), ev(text), id(with_id), line(at_line), on(ut_hist_is_on())
    {
        if (on)
            add(UT_HIST_CL_BEG);
    }
    ~a_ut_hist_scope()
    {
        if (on)
            add(UT_HIST_CL_END);
    }
    a_ut_hist_scope& operator=(a_ut_hist_scope&&) = delete; /* nor copies */

private:
    void add(a_ut_hist_cl cl) { ut_hist_add(file, line, &loc, cl, id, UT_HIST_ARGS_(ev)); }

    const char* file;
    const char* ev;
    a_ut_hist_id id;
    a_ut_hist_loc loc = UT_HIST_LOC_INIT;
    uint32 line;
    int on;
};
/* A scope object for the rest of this block: id, text. */
#define UT_HIST_SCOPE(id, text) a_ut_hist_scope UT_HIST_CAT_(ut_hist_scope_, __LINE__)(UT_HIST_FILE, __LINE__, id, text)
#endif
