// hist_config.cpp: reads UT_HIST into the settings: the option table, its help, and the listing of the
// settings.
//
// A new option, column switch or setting is one new row of a table. Nothing stops start-up: what cannot be
// read is reported on the errout stream and passed over. Runs in start-up only, on one thread; nothing
// here but ut_hist_setting and the letters' case is signal-safe.
#include "utils/etc/uthist/hist_config.h"

#include <limits.h>
#include <stdarg.h>
#include <string.h>

#include "utils/etc/utenv.h"
#include "utils/etc/uthist/hist_clock.h"
#include "utils/etc/uthist/hist_log.h"

int32 ut_hist_debug = 0;
a_ut_hist_settings hist_cfg;

namespace {

char env_buf[env_buf_size];

// ---- tables ----

// The include switches of option `i`: sub-letter, variable, help, label of the listing (null: not listed).
struct an_include_switch {
    char letter;
    int32* variable;
    const char* help;
    const char* label;
};
constexpr an_include_switch include_switches[] = {
    {'a', &hist_cfg.ut_hist_inc_tod, "absolute time of day", "(a)ut_hist_inc_tod      "},
    {'c', &hist_cfg.ut_hist_inc_class, "class of event", "(c)ut_hist_inc_class    "},
    {'d', &hist_cfg.ut_hist_inc_dur, "duration between beg & end", "(d)ut_hist_inc_dur      "},
    {'e', &hist_cfg.ut_hist_inc_event, "event description", "(e)ut_hist_inc_event    "},
    {'i', &hist_cfg.ut_hist_inc_id, "event id", "(i)ut_hist_inc_id       "},
    {'l', &hist_cfg.ut_hist_inc_line, "source line number", "(l)ut_hist_inc_line     "},
    {'m', &hist_cfg.ut_hist_inc_sigmask, "sig mask", nullptr},
    {'n', &hist_cfg.ut_hist_inc_num, "index number of event", "(n)ut_hist_inc_num      "},
    {'p', &hist_cfg.ut_hist_inc_parms, "parms", "(p)ut_hist_inc_parms    "},
    {'q', &hist_cfg.ut_hist_inc_queue, "queue number", "(q)ut_hist_inc_queue    "},
    {'r', &hist_cfg.ut_hist_inc_prio, "thread priority", "(q)ut_hist_inc_prio     "},
    {'s', &hist_cfg.ut_hist_inc_file, "source file name", "(s)ut_hist_inc_file     "},
    {'t', &hist_cfg.ut_hist_inc_thread, "thread", "(t)ut_hist_inc_thread   "},
};

// The lengths of option `m`: sub-letter, variable, value that repairs 0 and below.
struct a_max_length {
    char letter;
    int32* variable;
    int32 repaired;
};
constexpr a_max_length max_lengths[] = {
    {'e', &hist_cfg.hist_max_ev_len, default_ev_len},
    {'f', &hist_cfg.hist_max_file_len, default_file_len},
    {'i', &hist_cfg.hist_max_id_len, default_id_len},
};

// What stands behind an option letter.
enum an_arg_kind : unsigned { ARG_FLAG = 1, ARG_NUMBER = 2, ARG_NAME = 4 };
struct an_argument {
    char letter;       // the option letter as it was written
    int flag;          // 1 unless a '-' came last
    const char* name;  // null when none was given
};

struct an_option {
    char letter;
    unsigned kinds;
    int32* number;  // where a number goes
    void (*apply)(const an_argument& arg);
};

// Signal-safe.
constexpr bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
// Signal-safe.
constexpr char lower(char c) { return is_upper(c) ? char(c - 'A' + 'a') : c; }

// A name from the option string, kept where a second start-up does not overwrite it.
// Not signal-safe: used while nobody else reads it.
const char* keep_name(char (&kept)[env_buf_size], const char* name)
{
    snprintf(kept, sizeof kept, "%s", name);
    return kept;
}

void apply_errout(const an_argument& arg)
{
    hist_cfg.need_to_open_errout = 1;
    hist_cfg.ut_hist_dump_err_name = arg.name != nullptr ? keep_name(hist_cfg.err_name, arg.name) : errout_str;
    if (arg.flag == 0)
        hist_cfg.ut_hist_dump_err_name = stderr_str;
}

void apply_log(const an_argument& arg)
{
    hist_cfg.ut_hist_dump_log_name = arg.name != nullptr ? keep_name(hist_cfg.log_name, arg.name) : logout_str;
    if (arg.flag == 0)
        hist_cfg.ut_hist_dump_log_name = nullptr;
}

void apply_registry(const an_argument& arg)
{
    if (arg.flag == 0)
        hist_cfg.ut_hist_debug_knum = 0;
    else if (hist_cfg.ut_hist_debug_knum <= 0)
        hist_cfg.ut_hist_debug_knum = default_knum;
}

void apply_queues(const an_argument& arg)
{
    hist_cfg.ut_hist_debug_q_by_thr = arg.flag;
    if (hist_cfg.hist_num_q < default_num_q || arg.flag == 0)
        hist_cfg.hist_num_q = default_num_q;
    if (hist_cfg.hist_num_q > int32(hist_max_queues))
        hist_cfg.hist_num_q = hist_max_queues;
}

void apply_num(const an_argument&)
{
    if (hist_cfg.ut_hist_debug_num <= 0)
        hist_cfg.ut_hist_debug_num = 1;
}

// Of three letters one case means 1 and the other 2.
int32 raised(const an_argument& arg, bool upper_raises)
{
    return arg.flag != 0 && is_upper(arg.letter) == upper_raises ? 2 : arg.flag;
}

// The options that take an argument right behind their letter. `h`, and `i`, `m`, `y` with their sub-letters, are read
// by read_option.
constexpr an_option options[] = {
    {'a', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_dump_append = arg.flag; }},
    {'c', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_eol = arg.flag != 0 ? "\r\n" : "\n"; }},
    {'d', ARG_FLAG | ARG_NUMBER, &hist_cfg.ut_hist_debug_data_size,
     [](const an_argument& arg) { hist_cfg.ut_hist_debug_data = arg.flag; }},
    {'e', ARG_FLAG | ARG_NAME, nullptr, apply_errout},
    {'f', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_dump_on_fini = arg.flag; }},
    {'k', ARG_FLAG | ARG_NUMBER, &hist_cfg.ut_hist_debug_knum, apply_registry},
    {'l', ARG_FLAG | ARG_NAME, nullptr, apply_log},
    {'n', ARG_NUMBER, &hist_cfg.ut_hist_debug_num, apply_num},
    {'q', ARG_FLAG | ARG_NUMBER, &hist_cfg.hist_num_q, apply_queues},
    {'r', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_dump_report = arg.flag; }},
    {'s', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_dump_on_sig = raised(arg, true); }},
    {'x', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_exit_cleanup = raised(arg, false); }},
    {'z', ARG_FLAG, nullptr, [](const an_argument& arg) { hist_cfg.ut_hist_z_messages = raised(arg, true); }},
};

// The number settings of the listing, around those that need more than a number.
struct a_listed_setting {
    const char* label;
    const int32* variable;
};
constexpr a_listed_setting listed_sizes[] = {
    {"ut_hist_debug           ", &ut_hist_debug},
    {"ut_hist_debug_rec_stats ", &hist_cfg.ut_hist_debug_rec_stats},
    {"ut_hist_debug_num       ", &hist_cfg.ut_hist_debug_num},
    {"ut_hist_debug_data      ", &hist_cfg.ut_hist_debug_data},
    {"ut_hist_debug_data_size ", &hist_cfg.ut_hist_debug_data_size},
};
constexpr a_listed_setting listed_dump_switches[] = {
    {"ut_hist_dump_on_sig     ", &hist_cfg.ut_hist_dump_on_sig},
    {"ut_hist_dump_on_fini    ", &hist_cfg.ut_hist_dump_on_fini},
    {"ut_hist_dump_append     ", &hist_cfg.ut_hist_dump_append},
    {"ut_hist_dump_report     ", &hist_cfg.ut_hist_dump_report},
};
constexpr a_listed_setting listed_at_end[] = {
    {"ut_hist_exit_cleanup    ", &hist_cfg.ut_hist_exit_cleanup},
    {"ut_hist_z_messages      ", &hist_cfg.ut_hist_z_messages},
};

// ---- help ----

constexpr size_t max_line = 2 * env_buf_size;  // holds every line; a longer value of UT_HIST_THREAD_SLOT is cut off

// A line and its end in one piece, as the stream may be unbuffered and shared with other processes.
__attribute__((format(printf, 1, 2))) void line(const char* format, ...)
{
    char text[max_line];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fprintf(hist_cfg.ut_hist_dump_err_file, "%s%s", text, hist_cfg.ut_hist_eol);
}

// The defaults shown are the built-in ones, whatever the settings are now.
void write_help()
{
    line("********** %s options:", "UT_HIST");
    line("\ta[+|-]       append to log on|off (default on)");
    line("\tc[+|-]       set EOL to \\r\\n (default off \\n)");
    line("\td[+|-]<num>  debug data on|off (default off %d)", default_data_size);
    line("\te[-|<file>]  errout is %s(-) or <file> (default %s)", stderr_str, errout_str);
    line("\tf[+|-]       dump on fini on|off (default on)");
    line("\th            this help/usage information");
    line("\ti<>[+|-]     include <> in output history dump");
    for (const an_include_switch& s : include_switches)
        line("\t             %c - %s", s.letter, s.help);
    line("\tk[+|-]<num>  keep stats on <num> markers (default off %d)", default_knum);
    line("\tl[-|<file>]  dump to errout(-) or <file> (default %s)", logout_str);
    line("\tm[efi]<num>  max event/file/id length (default e=%d/f=%d/i=%d)", default_ev_len, default_file_len,
         default_id_len);
    line("\tn<num>       number of events to log (default %d)", default_num);
    line("\tq[+|-]<num>  queue by thread + number of queues (default %d)", default_num_q);
    line("\tr[+|-]       dump report on|off (default on)");
    line("\ts[+|-]       dump on signal on|off (default on)");
    line("\t             - S means sighandler is NOT uninstalled on fini");
    line("\tx[+|-]       clean up on exit (default on)");
    line("\t             - X means don't need to delete critical sects on exit");
    line("\ty<>[+|-]     set <> initially on/off (default on)");
    line("\t             e - events");
    line("\t             s - statistics");
    line("\tz[+|-]       z(diagnostic) messages on|off (default off)");
    line("\t             - Z will give even more diagnostics");
    fflush(hist_cfg.ut_hist_dump_err_file);
}

void report_unknown(char c, const char* rest)
{
    hist_begin_message();
    line("unknown %s option char '%c' in %s", "UT_HIST", c, rest);
    write_help();
}

// ---- reading ----

// A run of decimal digits; beyond the range it counts as the largest number.
char* read_number(char* s, int* num)
{
    int64_t value = 0;
    for (; *s >= '0' && *s <= '9'; s++)
        value = value * 10 + (*s - '0') > INT32_MAX ? INT32_MAX : value * 10 + (*s - '0');
    *num = int(value);
    return s;
}

// A name up to `end` or the end of the string; an `end` found becomes the terminating NUL.
char* read_name(char* s, char end, const char** str)
{
    *str = s;
    while (*s != '\0' && *s != end)
        s++;
    if (*s == end)
        *s++ = '\0';
    return s;
}

char* read_sub_switch(char* s, int32& variable)
{
    int flag = 1;
    s = ut_hist_arg(s, &flag, nullptr, nullptr, nullptr);
    variable = flag;
    return s;
}

// Options whose letter is followed by a sub-letter, at s + 1. Null when that is none.
char* read_sub_option(char* s)
{
    const char option = lower(*s), sub = lower(s[1]);
    if (option == 'i')
        for (const an_include_switch& entry : include_switches)
            if (entry.letter == sub)
                return read_sub_switch(s + 2, *entry.variable);
    if (option == 'm')
        for (const a_max_length& entry : max_lengths)
            if (entry.letter == sub) {
                s = ut_hist_arg(s + 2, nullptr, entry.variable, nullptr, nullptr);
                if (*entry.variable <= 0)
                    *entry.variable = entry.repaired;
                return s;
            }
    if (option == 'y' && sub == 'e')
        return read_sub_switch(s + 2, ut_hist_debug);
    if (option == 'y' && sub == 's')
        return read_sub_switch(s + 2, hist_cfg.ut_hist_debug_rec_stats);
    return nullptr;
}

char* read_plain_option(char* s, const an_option& option)
{
    an_argument arg = {*s, 1, nullptr};
    // `q` counts its queues from the default again, whatever an earlier start-up left.
    if (option.letter == 'q')
        hist_cfg.hist_num_q = default_num_q;
    s = ut_hist_arg(s + 1, (option.kinds & ARG_FLAG) != 0 ? &arg.flag : nullptr, option.number,
                    (option.kinds & ARG_NAME) != 0 ? &arg.name : nullptr, nullptr);
    option.apply(arg);
    return s;
}

// Reads the option at s; gives the position behind what it consumed.
char* read_option(char* s)
{
    if (lower(*s) == 'h') {
        hist_begin_message();
        write_help();
        return s + 1;
    }
    for (const an_option& option : options)
        if (option.letter == lower(*s))
            return read_plain_option(s, option);
    char* behind = read_sub_option(s);
    if (behind != nullptr)
        return behind;
    report_unknown(*s, s);
    return s + 1;
}

template <size_t count>
void list(const a_listed_setting (&settings)[count])
{
    for (const a_listed_setting& setting : settings)
        line("%s= %d", setting.label, *setting.variable);
}

}  // namespace

// The argument scanner: flag, number and name in any order, the last of each kind wins; null for a kind that the option
// does not take. `def` is the name in force when none is given. Gives the position behind the argument. A '=' or '{'
// where no name is taken ends the argument.
char* ut_hist_arg(char* s, int* on_off, int* num, const char** str, const char* def)
{
    if (str != nullptr)
        *str = def;
    for (;;) {
        if (*s == '+' || *s == '-') {
            if (on_off != nullptr)
                *on_off = *s == '+';
            s++;
        } else if (*s >= '0' && *s <= '9' && num != nullptr) {
            s = read_number(s, num);
        } else if (*s == '=' && str != nullptr) {
            s = read_name(s + 1, ',', str);
        } else if (*s == '{' && str != nullptr) {
            s = read_name(s + 1, '}', str);
        } else {
            return s;
        }
    }
}

void hist_parse_options(char* s)
{
    while (*s != '\0')
        s = *s == ',' ? s + 1 : read_option(s);
}

// How threads get their slots: the literal rule unless the value is "dense".
void hist_parse_thread_slot(const char* value)
{
    hist_cfg.dense_slots = value != nullptr && strcmp(value, "dense") == 0;
    if (value == nullptr || *value == '\0' || strcmp(value, "handle") == 0 || hist_cfg.dense_slots != 0)
        return;
    hist_begin_message();
    line("unknown UT_HIST_THREAD_SLOT value '%s', using 'handle'", value);
    fflush(hist_cfg.ut_hist_dump_err_file);
}

// What must hold before anything else of the history runs.
void ut_hist_static_defaults()
{
    hist_cfg.ut_hist_dump_err_name = stderr_str;
    hist_cfg.ut_hist_dump_err_file = stderr;
}

// Reads UT_HIST; false when it leaves the history off.
bool hist_is_wanted()
{
    ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    return ut_getenv("UT_HIST", env_buf, env_buf_size) != nullptr && env_buf[0] != '\0' && strcmp(env_buf, "off") != 0;
}

// Takes the options that were read, and UT_HIST_THREAD_SLOT, into the settings.
void hist_read_options()
{
    hist_zone_refresh();  // before the first message, which begins with the local time
    ut_hist_setting(UT_HIST_SET_EVENTS_ON);
    ut_hist_setting(UT_HIST_SET_STATS_ON);
    hist_cfg.ut_hist_dump_err_name = stderr_str;
    hist_parse_options(env_buf);
    hist_parse_thread_slot(ut_getenv2("UT_HIST_THREAD_SLOT"));
}

// The settings listing, when diagnostic messages are on.
void hist_write_settings()
{
    if (hist_cfg.ut_hist_z_messages <= 0)
        return;
    hist_begin_message();
    line("********** HISTORY z-messages settings begin **********");
    list(listed_sizes);
    line("ut_hist_debug_q_by_thr  = %d (num_q=%d)", hist_cfg.ut_hist_debug_q_by_thr, hist_cfg.hist_num_q);
    list(listed_dump_switches);
    line("ut_hist_dump_err_name   = %s", hist_cfg.ut_hist_dump_err_name);
    line("ut_hist_dump_log_name   = %s",
         hist_cfg.ut_hist_dump_log_name != nullptr ? hist_cfg.ut_hist_dump_log_name : "<errout>");
    list(listed_at_end);
    for (const an_include_switch& entry : include_switches)
        if (entry.label != nullptr)
            line("%s= %d", entry.label, *entry.variable);
    line("********** HISTORY z-messages settings end **********");
    fflush(hist_cfg.ut_hist_dump_err_file);
}

// Relaxed: each is one word that orders nothing else.
// Signal-safe.
void ut_hist_setting(a_ut_hist_setting s)
{
    switch (int(s)) {
    case UT_HIST_SET_EVENTS_OFF:
    case UT_HIST_SET_EVENTS_ON:
        __atomic_store_n(&ut_hist_debug, s == UT_HIST_SET_EVENTS_ON ? 1 : 0, __ATOMIC_RELAXED);
        break;
    case UT_HIST_SET_STATS_OFF:
    case UT_HIST_SET_STATS_ON:
        __atomic_store_n(&hist_cfg.ut_hist_debug_rec_stats, s == UT_HIST_SET_STATS_ON ? 1 : 0, __ATOMIC_RELAXED);
        break;
    default:
        break;
    }
}
