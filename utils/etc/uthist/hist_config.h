// hist_config.h: the settings of the event history and what reads UT_HIST into them.
//
// The settings change only during start-up (and by ut_hist_setting, atomically), before any other thread uses
// the history; afterwards everybody reads them without a lock. What every event reads stands first, in one
// cache line.
#ifndef UTHIST_HIST_CONFIG_H
#define UTHIST_HIST_CONFIG_H

#include "corvex/hist.h"
#include "utils/etc/uthist/hist_store.h"

inline constexpr int32 default_num = 2000;         // events per queue
inline constexpr int32 default_knum = 100;         // registry of a bare `k`
inline constexpr int32 default_num_q = 3;          // queues
inline constexpr int32 default_data_size = 16384;  // bytes of a data ring
inline constexpr int32 default_file_len = 23;
inline constexpr int32 default_id_len = 15;
inline constexpr int32 default_ev_len = 31;
inline constexpr const char* stderr_str = "stderr";
inline constexpr const char* errout_str = "ut_hist.out";
inline constexpr const char* logout_str = "ut_hist.log";
inline constexpr size_t env_buf_size = 150;  // of UT_HIST's value, the terminating NUL included

struct alignas(cache_line) a_ut_hist_settings {
    int32 ut_hist_debug_num = default_num;
    int32 ut_hist_dump_on_fini = 1;
    int32 ut_hist_dump_on_sig = 1;
    int32 ut_hist_z_messages = 0;
    int32 ut_hist_inc_sigmask = 0;
    int32 hist_max_file_len = default_file_len;
    int32 hist_max_id_len = default_id_len;
    int32 hist_max_ev_len = default_ev_len;
    int32 dense_slots = 0;  // UT_HIST_THREAD_SLOT is "dense"
    uint32 file_fits = 0;   // bit i: a file text that ends at character i is kept whole
    // Copy mode: where a slot's id and event text stand behind its file text, and how long all three are, in bytes.
    size_t id_text_at = 0;
    size_t ev_text_at = 0;
    size_t text_stride = 0;

    int32 hist_num_q = default_num_q;
    int32 ut_hist_debug_q_by_thr = 0;
    int32 ut_hist_debug_data_size = default_data_size;
    int32 ut_hist_debug_rec_stats = 0;
    int32 ut_hist_debug_knum = 0;
    int32 ut_hist_debug_data = 1;
    int32 ut_hist_dump_append = 1;
    int32 ut_hist_dump_report = 1;
    int32 ut_hist_exit_cleanup = 1;
    int32 ut_hist_inc_tod = 1;
    int32 ut_hist_inc_class = 1;
    int32 ut_hist_inc_dur = 1;
    int32 ut_hist_inc_event = 1;
    int32 ut_hist_inc_id = 1;
    int32 ut_hist_inc_line = 1;
    int32 ut_hist_inc_num = 1;
    int32 ut_hist_inc_parms = 1;
    int32 ut_hist_inc_queue = 0;
    int32 ut_hist_inc_prio = 0;
    int32 ut_hist_inc_file = 1;
    int32 ut_hist_inc_thread = 1;
    const char* ut_hist_eol = "\n";
    const char* ut_hist_dump_log_name = nullptr;     // null, logout_str, or log_name below
    const char* ut_hist_dump_err_name = stderr_str;  // stderr_str, errout_str, or err_name below
    FILE* ut_hist_dump_err_file = nullptr;           // the errout stream, standard error from load on
    int32 need_to_open_errout = 1;                   // 1 while err_name has not been opened yet

    // Names given by options outlive the option string: a second start-up overwrites that.
    char log_name[env_buf_size] = "";
    char err_name[env_buf_size] = "";
};
static_assert(offsetof(a_ut_hist_settings, hist_num_q) == cache_line);
extern a_ut_hist_settings hist_cfg;

void ut_hist_static_defaults();
bool hist_is_wanted();
void hist_read_options();
void hist_write_settings();
char* ut_hist_arg(char* s, int* on_off, int* num, const char** str, const char* def);
void hist_parse_options(char* s);
void hist_parse_thread_slot(const char* value);

#endif
