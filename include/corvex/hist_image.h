/* hist_image.h: how the event history lies in memory, for what reads it from outside: a running process, a core, a
 * history file (UT_HIST_EXT=file=...). For C99 and C++11; x86-64 and its byte order. The program corvex-hist is such a
 * reader.
 *
 * The image is one mapping. It begins on a page with the header below, and all else lies at offsets from there:
 *
 *     |a_ut_hist_image|section 0|section 1|...            each section begins on a line of 64 bytes
 *
 * A reader finds the header by the exported pointer ut_hist_image_now or by its magic at the beginning of a page,
 * compares version and sizes, and then trusts no value that it reads: the process may be writing, or have died in the
 * middle of it. Pointers in the image are addresses of its process: those that point into the image have `base` as its
 * beginning.
 *
 * Records: a queue is a ring of `events` records. ring_pos holds in its high half how often the ring has come back to
 * its first record (laps), in its low half the record that is written next; from 2^32 - 1 laps it goes on at 2^31. The
 * record's sequence word is 2 * laps + 1 while it is written and 2 * laps + 2 when it is whole (modulo 2^32): whoever
 * reads the word, the fields and the word again, and finds the same even word, has one whole record. Once the ring has
 * come back (laps > 0), the record that is written next does not count any more.
 *
 * Texts: with UT_HIST_IMAGE_COPY record n of queue q has its texts at (q * events + n) * text_stride in the section of
 * texts: the file's, the id's from id_text_at on, the event's from ev_text_at on. Each ends at its NUL or, without one,
 * after max_file_len, max_id_len or max_ev_len characters. Without that flag `file`, `id` and `ev` are addresses of the
 * process; an id below 65536 is a number, and one of all ones is none.
 *
 * Data: queue q's ring of data_size bytes begins at q * (bytes / queues) of its section. data_pos holds its generation
 * in the high half and where the next block goes in the low half. A record of class 5 names generation and offset of
 * its block, whose length is its second parameter, at most data_size. The block stands while the generation is the
 * ring's, or one less and the offset is not below the ring's. */
#pragma once

#include "corvex/crash.h"
#include "corvex/hist.h"
#include "corvex/ptmutex.h"

CORVEX_C_BEGIN

#define UT_HIST_IMAGE_VERSION 2
#define UT_HIST_IMAGE_HEADER  4096 /* bytes, the header's page */
#define UT_HIST_IMAGE_MAGIC                                                                                            \
    {                                                                                                                  \
        'c', 'v', 'x', 0xF1, 'h', 'i', 's', 't', 0xA6, 'i', 'm', 'a', 'g', 'e', 0x0D, 0x0A                             \
    }
#define UT_HIST_IMAGE_LINE __attribute__((aligned(64)))

/* The sections, by their place in the header's table. */
enum {
    UT_HIST_QUEUES,   /* a_ut_hist_event_list: one for each queue */
    UT_HIST_RINGS,    /* a_ut_hist_event: `events` for each queue */
    UT_HIST_TEXTS,    /* of text_stride bytes: one for each record; empty without UT_HIST_IMAGE_COPY */
    UT_HIST_DATA,     /* bytes: a ring for each queue; empty without data capture */
    UT_HIST_REGISTRY, /* a_ut_hist_id_data: live.ids of them count */
    UT_HIST_ID_TEXTS, /* bytes: the registry's texts that are longer than their places */
    UT_HIST_TIMERS,   /* a_ut_hist_timer_list: 4 for each registered id, by class of the earlier event */
    UT_HIST_ZONE,     /* a_ut_hist_zone_change: of the local time; live.zone_changes of them count */
    UT_HIST_SETTINGS, /* the library's own */
    UT_HIST_DUMP,     /* the library's own: the buffers of a dump */
    UT_HIST_ANCHORS,  /* the library's own: of the processor's counter; empty without UT_HIST_IMAGE_TSC */
    UT_HIST_LIVE,     /* a_ut_hist_live: one */
    UT_HIST_TAKEN, /* uint64: bit t % 64 of word t / 64 is set while a thread has slot t; unused without dense slots */
    UT_HIST_THREADS, /* a_ut_hist_thread: one for each slot */
    UT_HIST_VIEWS,   /* a_hist_view, and its texts: one for each slot; empty without thread tables */
    UT_HIST_SECTIONS
};

typedef struct {
    int64_t tv_sec; /* since 1970, UTC */
    int64_t tv_usec;
} a_ut_hist_time;

typedef struct {
    uint64 at, bytes;   /* at: offset from the header */
    uint64 entry_bytes; /* distance from one entry to the next */
    uint64 entries;
} a_ut_hist_image_section;

/* The record of an event. Its first and its last two lines are all that most events touch. */
typedef struct {
    uint32 seq;
    uint32 newest; /* in queue 0, with thread tables: 0 only when a later event of its thread is there */
    uint32 unused[4];
    a_ut_hist_time time_of_day;
    char* file; /* file, id and ev: of the caller, when texts are not copied */
    uint32 line;
    uint32 num; /* of the event, from 1 on in the order of recording; wraps */
    uint32 thread;
    int32 got_sigs;    /* 0: sigset was not recorded */
    uint64 sigset[16]; /* blocked signals: bit s - 1 of the first word for signal s */
    int32 prio;
    uint32 dur; /* microseconds since the earlier event; 0xFFFFFFFF for none */
    int32 cl;   /* a_ut_hist_cl */
    a_ut_hist_id id;
    char* ev;
    int32 pn;   /* how many of p count; negative: all */
    void* p[8]; /* those that do not count are left from earlier records */
    uint32 data_gen;
    uint32 data_idx;
} UT_HIST_IMAGE_LINE a_ut_hist_event;
CORVEX_LAYOUT(sizeof(a_ut_hist_event) == 320 && offsetof(a_ut_hist_event, time_of_day) == 24);
CORVEX_LAYOUT(offsetof(a_ut_hist_event, file) == 40 && offsetof(a_ut_hist_event, num) == 52);
CORVEX_LAYOUT(offsetof(a_ut_hist_event, sigset) == 64 && offsetof(a_ut_hist_event, dur) == 196);
CORVEX_LAYOUT(offsetof(a_ut_hist_event, id) == 208 && offsetof(a_ut_hist_event, pn) == 224);
CORVEX_LAYOUT(offsetof(a_ut_hist_event, p) == 232 && offsetof(a_ut_hist_event, data_idx) == 300);

/* What several writers pass one by one. */
typedef struct {
    uint32 shut;
    uint32 wanted; /* somebody sleeps until it opens */
} a_ut_hist_gate;

/* A queue. */
typedef struct {
    a_critical_sect mutex;
    uint64 ring_pos;
    a_ut_hist_event* evs;
    uint64 data_pos;
    char* data_buf;
    char* texts;
    a_ut_hist_gate gate;
} UT_HIST_IMAGE_LINE a_ut_hist_event_list;
CORVEX_LAYOUT(sizeof(a_ut_hist_event_list) == 64 && offsetof(a_ut_hist_event_list, ring_pos) == 8);
CORVEX_LAYOUT(offsetof(a_ut_hist_event_list, data_pos) == 24 && offsetof(a_ut_hist_event_list, gate) == 48);

/* A registered id. A text stands in its place, or elsewhere when it is longer; the place then holds its beginning,
 * without a NUL. */
typedef struct {
    char* desc;
    char desc_place[56];
    char* file; /* null for none */
    char file_place[44];
    uint32 line;
} a_ut_hist_id_data;
CORVEX_LAYOUT(sizeof(a_ut_hist_id_data) == 120 && offsetof(a_ut_hist_id_data, line) == 116);

/* Times from an event of one id and class to one of another. */
typedef struct {
    int32 id;
    int32 id_key; /* class of the later event: 0 EV, 1 BEG, 2 END, 3 another */
    uint32 count;
    uint32 min, max; /* microseconds */
    uint64 total;
} a_ut_hist_timer;

#define UT_HIST_TIMERS_OF_LIST 32

typedef struct {
    a_critical_sect mutex;
    int32 missed; /* pairs for which there was no timer */
    int32 num;
    a_ut_hist_timer ids[UT_HIST_TIMERS_OF_LIST];
} a_ut_hist_timer_list;
CORVEX_LAYOUT(sizeof(a_ut_hist_timer) == 32 && sizeof(a_ut_hist_timer_list) == 16 + 32 * 32);

/* Local time is ahead of UTC by so many seconds from then on; ascending. */
typedef struct {
    int64_t from;   /* seconds since 1970, UTC */
    int64_t offset; /* seconds */
} a_ut_hist_zone_change;

/* A thread slot. */
typedef struct {
    uint64 owner; /* dense slots: kernel thread id in the low half, 0 for none */
    int32 own_q;  /* the queue that only this thread writes, 0 when it has none */
    int32 last_marker_ii;
    a_ut_hist_loc last_marker_loc;
    uint8_t recursing[32]; /* 1 while the thread is recording in that queue */
} UT_HIST_IMAGE_LINE a_ut_hist_thread;
CORVEX_LAYOUT(sizeof(a_ut_hist_thread) == 64);

/* A BEG without its END. */
typedef struct {
    a_ut_hist_loc* loc; /* null where none was given; only compared */
    a_ut_hist_id id;    /* as the caller gave it; only compared */
    const char* text;   /* of the id; counts when texts are not copied */
    a_ut_hist_time begun;
} a_hist_span;

#define UT_HIST_SPANS 16

/* What a thread does. Behind it the id's text of each span, and, when texts are copied, id and event text of the kept
 * event, each as long as in the section of texts. */
typedef struct {
    /* Changed by every event of the thread. */
    uint64 events;
    a_ut_hist_event* newest; /* its record; null before the first */
    uint32 newest_num;       /* found there, while the record stands */
    uint32 tid;              /* kernel thread id; 0 before the slot is claimed */
    /* The newest event when its record has been overwritten, kept by the thread that did. When texts are not copied the
     * addresses. kept_seq is odd meanwhile. */
    uint32 kept_seq, kept_num;
    a_ut_hist_time kept_time;
    const char *kept_id, *kept_ev;
    /* Changed by begins and ends: the low half counts the open spans, also those for which there is no room; the high
     * half steps whenever one is closed. */
    uint64 open UT_HIST_IMAGE_LINE;
    char name[16]; /* when the thread claimed the slot */
    a_hist_span spans[UT_HIST_SPANS];
} UT_HIST_IMAGE_LINE a_hist_view;
CORVEX_LAYOUT(offsetof(a_hist_view, open) == 64 && offsetof(a_hist_view, name) == 72);
CORVEX_LAYOUT(offsetof(a_hist_view, spans) == 88 && sizeof(a_hist_view) == 768);

/* The flags of an image. */
#define UT_HIST_IMAGE_COPY   1u  /* texts are copied */
#define UT_HIST_IMAGE_TABLES 2u  /* dumps are followed by the thread table */
#define UT_HIST_IMAGE_DENSE  4u  /* slots are given by number; else by the thread's handle, and all count as taken */
#define UT_HIST_IMAGE_CRLF   8u  /* lines of a dump end in "\r\n" */
#define UT_HIST_IMAGE_TSC    16u /* times come from the processor's counter */

/* Its states. */
#define UT_HIST_IMAGE_RUNS  1u
#define UT_HIST_IMAGE_ENDED 2u /* the history was shut down */

/* What changes while the history runs, beside events. */
typedef struct {
    uint32 state;
    uint32 ids;       /* registered */
    uint32 slots_end; /* no slot from this one on has been claimed */
    uint32 zone_changes;
    uint32 events_missed;
    uint32 last_missed_thread;
    uint32 unused[2];
    a_ut_crash_record crash; /* as ut_crash_record */
} UT_HIST_IMAGE_LINE a_ut_hist_live;
CORVEX_LAYOUT(sizeof(a_ut_hist_live) == 320 && offsetof(a_ut_hist_live, crash) == 32);

typedef struct {
    unsigned char magic[16]; /* UT_HIST_IMAGE_MAGIC, written last */
    uint32 version;
    uint32 header_bytes; /* UT_HIST_IMAGE_HEADER */
    uint64 image_bytes;
    uint64 base; /* where the image lies in its process */
    a_ut_hist_image_section sections[UT_HIST_SECTIONS];

    /* The process, and when the history began in it. */
    int32 pid;
    uint32 build_id_bytes;
    uint64 pid_namespace;      /* inode of /proc/self/ns/pid; 0 when it is not known */
    uint64 process_start;      /* clock ticks since boot, as in /proc/<pid>/stat */
    uint64 since_boot;         /* nanoseconds of CLOCK_BOOTTIME */
    a_ut_hist_time start_time; /* wall clock */
    char boot_id[40];          /* as in /proc/sys/kernel/random/boot_id */
    char program[64];          /* its short name */
    char host[72];
    unsigned char build_id[64]; /* of the library */

    /* The settings. */
    uint32 flags;
    uint32 events; /* records of a queue */
    uint32 queues;
    uint32 max_file_len, max_id_len, max_ev_len;
    uint32 id_text_at, ev_text_at, text_stride;
    uint32 data_size; /* of a data ring; 0 without data capture */
    uint32 columns;   /* of a dump: bit 0 for sub-letter a of option i, and so on */
    int32 dump_signal;
    char ut_hist[152]; /* the variables, as far as they count */
    char ut_hist_ext[1024];
    char file[512]; /* the name of the history file; empty for none */
} a_ut_hist_image;
CORVEX_LAYOUT(sizeof(a_ut_hist_image_section) == 32 && offsetof(a_ut_hist_image, sections) == 40);
CORVEX_LAYOUT(sizeof(a_ut_hist_image) <= UT_HIST_IMAGE_HEADER);

/* The image of this process's history, null while there is none. Not to be written. It stands in that data of the
 * library which has a value from the beginning, where debuggers without symbols find it. */
extern CORVEX_API a_ut_hist_image* ut_hist_image_now;

CORVEX_C_END
