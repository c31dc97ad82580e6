// hist_config.h: the settings of the event history and what reads UT_HIST into them.
//
// The settings change only during start-up (and by ut_hist_setting, atomically), before any other thread uses
// the history; afterwards everybody reads them without a lock. What events read stands first, in one cache line; the
// ordinary event finds what it needs in the store. How lines end and where messages go stands in hist_errout.h.
#pragma once

#include <signal.h>
#include <stddef.h>

#include "corvex/hist_image.h"

struct a_ut_hist_dump;
struct a_hist_row;

inline constexpr size_t cache_line = 64;
inline constexpr uint32 hist_max_queues = 32;
inline constexpr uint32 hist_handle_slots = 256;  // thread slots that the literal rule gives
inline constexpr uint32 hist_dense_slots = 4096;  // that UT_HIST_THREAD_SLOT=dense gives
inline constexpr uint32 hist_most_slots = 65535;  // that dense:<max> may ask for

inline constexpr int32 default_num = 2000;         // events per queue
inline constexpr int32 default_knum = 100;         // registry of a bare `k`
inline constexpr int32 default_num_q = 3;          // queues
inline constexpr int32 default_data_size = 16384;  // bytes of a data ring
inline constexpr int32 default_file_len = 23;
inline constexpr int32 default_id_len = 15;
inline constexpr int32 default_ev_len = 31;
inline constexpr uint32 default_dead = 10;      // history files of dead processes that start-up leaves
inline constexpr uint32 hist_most_dead = 1000;  // that keep=<n> may ask for
inline constexpr size_t hist_file_size = sizeof a_ut_hist_image::file;  // of the file's name, its NUL included
inline constexpr size_t env_buf_size = 150;  // of UT_HIST's value, the terminating NUL included

// The ways of an event, of these bits. With slots by number almost all go a short one, where less is looked at: on the
// thread's own queue or the shared one, with addresses of texts or copies, of which the id's is kept in one block and
// each other in two unless they are long, with thread tables or without.
inline constexpr uint32 ANY_WAY = 0, SHORT_WAY = 1, OWN_QUEUE = 2, POINTERS = 4, LONG_TEXTS = 8, TABLES = 16,
                        num_ways = 32;

struct alignas(cache_line) a_ut_hist_settings {
    int32 ut_hist_debug_num = default_num;
    bool copies = true;  // texts are copied (copy mode): option f is on, or there is to be a history file
    int32 hist_max_file_len = default_file_len;
    int32 hist_max_id_len = default_id_len;
    int32 hist_max_ev_len = default_ev_len;
    // Copy mode: where a slot's id and event text stand behind its file text, and how long all three are, in bytes.
    size_t id_text_at = 0;
    size_t ev_text_at = 0;
    size_t text_stride = 0;

    int32 hist_num_q = default_num_q;
    int32 ut_hist_dump_on_sig = 1;
    int32 ut_hist_z_messages = 0;
    int32 ut_hist_inc_sigmask = 0;  // the switch of its column
    uint32 dense_slots = 0;         // how many slots the dense rule gives; 0: the literal rule
    int32 ut_hist_dump_on_fini = 1;
    int32 ut_hist_debug_q_by_thr = 0;
    int32 ut_hist_debug_data_size = default_data_size;
    int32 ut_hist_debug_rec_stats = 0;
    int32 ut_hist_debug_knum = 0;
    int32 ut_hist_debug_data = 1;
    int32 ut_hist_dump_report = 1;
    int32 ut_hist_exit_cleanup = 1;
    const char* ut_hist_dump_log_name = nullptr;  // null, a default name, or log_name below
    bool log_name_cut = false;                    // the name is not whole: no file is created under it
    bool slots_set = false;                       // UT_HIST_THREAD_SLOT is
    bool tables = false;                          // UT_HIST_EXT=tables: dumps are followed by what each thread does
    bool tsc = false;                             // UT_HIST_EXT=tsc: times come from the processor's counter
    bool crash = false;                           // UT_HIST_EXT=crash: the history is dumped when a signal ends all
    bool keep_file = false;                       // UT_HIST_EXT=keep: a clean exit leaves the history file
    int32 dump_signal = SIGUSR1;                  // on which the history is dumped
    uint32 keep_dead = default_dead;              // history files of dead processes, at most
    int32 include[26] = {};                       // the switches of the columns, by sub-letter

    // Names given by options outlive the option string: a second start-up overwrites that.
    char log_name[env_buf_size] = "";
    char err_name[env_buf_size] = "";
    char file_pattern[hist_file_size] = "";  // UT_HIST_EXT=file: of the history file's name; empty for none
};
static_assert(offsetof(a_ut_hist_settings, text_stride) + sizeof(size_t) <= cache_line);
extern a_ut_hist_settings hist_cfg;

// A column of the event table: its sub-letter of option i, whether it is there by default, its line of the help, its
// name in the listing of the settings (null: not listed), its header or what writes that, and what writes its cells.
struct a_hist_column {
    char letter;
    int32 by_default;
    const char* help;
    const char* listed;
    const char* header;
    void (*put_header)(a_ut_hist_dump& f);
    void (*put_cell)(a_ut_hist_dump& f, const a_hist_row& row);
};
extern const a_hist_column hist_columns[];  // in the order of the table; ends with a row without a letter

// Signal-safe.
inline int32& hist_include(a_ut_hist_settings& cfg, char letter) { return cfg.include[letter - 'a']; }

void hist_reset_settings();
uint32 hist_way(int32 own_q);  // of a thread with that queue of its own, 0 for none. Signal-safe.
bool hist_is_wanted();
void hist_read_options();
void hist_write_settings(const char* clock);  // null: the clock is not listed
char* ut_hist_arg(char* s, int* on_off, int* num, const char** str, const char* def);
void hist_parse_options(char* s);
void hist_parse_thread_slot(const char* value);
uint32 hist_dense_slots_of(const char* digits);  // <max> of dense:<max>; 0 for what is none
