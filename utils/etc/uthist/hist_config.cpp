// hist_config.cpp: reads UT_HIST into the settings: the option table, its help, and the listing of the settings.
//
// An option is one row: its letter, what it takes, what it does, its lines of the help and of the listing. A column is
// one row of hist_columns, which stands for a sub-letter of option i here. Nothing stops start-up: what cannot be read
// is reported on the message stream and passed over. Runs in start-up only, on one thread. Not signal-safe, but
// ut_hist_setting.
#include "utils/etc/uthist/hist_config.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "utils/etc/utenv.h"
#include "utils/etc/uthist/hist_errout.h"

int32 ut_hist_debug = 0;
a_ut_hist_settings hist_cfg;

namespace {

an_output out;  // of all lines of start-up

char env_buf[env_buf_size];
char env_next = '\0';  // of UT_HIST's value, what the buffer has no room for

// ---- the options ----

enum a_taking : unsigned { SUB_LETTER = 1, FLAG = 2, NUMBER = 4, NAME = 8, RAISED = 16, UPPER_RAISED = 32 };

struct an_argument {
    int flag;          // 1 unless a '-' came last; 2 where the letter's case raises it
    const char* name;  // null when none was given
    bool cut;          // the name is not whole
};

// The letter, and its sub-letter if it has one, are lower case here. A row with a sub-letter stands behind the row of
// its letter that takes sub-letters. Of three letters one case raises the flag from 1 to 2.
struct an_option {
    const char* letters;  // empty: a line of the listing alone
    unsigned takes;
    int32* flag;       // where a flag goes, or null
    int32* number;     // where a number goes, or null
    const char* help;  // null for no line
    int place = 0;     // in the listing, from 1; 0 for no line
    const char* label = nullptr;
    void (*apply)(const an_argument& arg) = nullptr;  // what else there is to do
    void (*show)(a_text& text) = nullptr;             // what the listing shows instead of the flag or else the number
    int32 otherwise = 0;                              // the number for 0 and below; 0: such a number stays
};

constexpr bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr char lower(char c) { return is_upper(c) ? char(c - 'A' + 'a') : c; }

// The file that the option names, null for none; kept where a second start-up does not overwrite it.
const char* name_of(const an_argument& arg, char (&kept)[env_buf_size], const char* by_default)
{
    if (arg.flag == 0 || arg.name == nullptr)
        return arg.flag != 0 ? by_default : nullptr;
    return static_cast<const char*>(memcpy(kept, arg.name, strlen(arg.name) + 1));
}

void apply_eol(const an_argument& arg) { hist_streams.ut_hist_eol = arg.flag != 0 ? "\r\n" : "\n"; }

void apply_errout(const an_argument& arg)
{
    const char* const file = name_of(arg, hist_cfg.err_name, "ut_hist.out");
    hist_streams.ut_hist_dump_err_name = file != nullptr ? file : stderr_str;
    hist_streams.err_name_cut = arg.cut;
    hist_errout_rename();
}

void apply_log(const an_argument& arg)
{
    hist_cfg.ut_hist_dump_log_name = name_of(arg, hist_cfg.log_name, "ut_hist.log");
    hist_cfg.log_name_cut = arg.cut;
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
    if (hist_cfg.hist_num_q < default_num_q || arg.flag == 0)
        hist_cfg.hist_num_q = default_num_q;
    if (hist_cfg.hist_num_q > int32(hist_max_queues))
        hist_cfg.hist_num_q = hist_max_queues;
}

void show_errout(a_text& text) { text.str(hist_streams.ut_hist_dump_err_name); }

void show_log(a_text& text)
{
    text.str(hist_cfg.ut_hist_dump_log_name != nullptr ? hist_cfg.ut_hist_dump_log_name : "<errout>");
}

void show_queues(a_text& text) { text.put(hist_cfg.ut_hist_debug_q_by_thr, " (num_q=", hist_cfg.hist_num_q, ')'); }

constexpr a_ut_hist_settings& cfg = hist_cfg;
constexpr int32* const none = nullptr;

// In the order of the help, whose numbers are the built-in defaults, whatever the settings are now.
constexpr an_option options[] = {
    {"a", FLAG, &hist_streams.ut_hist_dump_append, none, "a[+|-]       append to log on|off (default on)", 9,
     "ut_hist_dump_append     "},
    {"c", FLAG, none, none, "c[+|-]       set EOL to \\r\\n (default off \\n)", 0, nullptr, apply_eol},
    {"d", FLAG | NUMBER, &cfg.ut_hist_debug_data, &cfg.ut_hist_debug_data_size,
     "d[+|-]<num>  debug data on|off (default off 16384)", 4, "ut_hist_debug_data      "},
    {"", 0, none, &cfg.ut_hist_debug_data_size, nullptr, 5, "ut_hist_debug_data_size "},
    {"e", FLAG | NAME, none, none, "e[-|<file>]  errout is stderr(-) or <file> (default ut_hist.out)", 11,
     "ut_hist_dump_err_name   ", apply_errout, show_errout},
    {"f", FLAG, &cfg.ut_hist_dump_on_fini, none, "f[+|-]       dump on fini on|off (default on)", 8,
     "ut_hist_dump_on_fini    "},
    {"h", 0, none, none, "h            this help/usage information"},
    {"i", SUB_LETTER, none, none, "i<>[+|-]     include <> in output history dump"},
    {"k", FLAG | NUMBER, none, &cfg.ut_hist_debug_knum, "k[+|-]<num>  keep stats on <num> markers (default off 100)", 0,
     nullptr, apply_registry},
    {"l", FLAG | NAME, none, none, "l[-|<file>]  dump to errout(-) or <file> (default ut_hist.log)", 12,
     "ut_hist_dump_log_name   ", apply_log, show_log},
    {"m", SUB_LETTER, none, none, "m[efi]<num>  max event/file/id length (default e=31/f=23/i=15)"},
    {"me", NUMBER, none, &cfg.hist_max_ev_len, nullptr, 0, nullptr, nullptr, nullptr, default_ev_len},
    {"mf", NUMBER, none, &cfg.hist_max_file_len, nullptr, 0, nullptr, nullptr, nullptr, default_file_len},
    {"mi", NUMBER, none, &cfg.hist_max_id_len, nullptr, 0, nullptr, nullptr, nullptr, default_id_len},
    {"n", NUMBER, none, &cfg.ut_hist_debug_num, "n<num>       number of events to log (default 2000)", 3,
     "ut_hist_debug_num       ", nullptr, nullptr, 1},
    {"q", FLAG | NUMBER, &cfg.ut_hist_debug_q_by_thr, &cfg.hist_num_q,
     "q[+|-]<num>  queue by thread + number of queues (default 3)", 6, "ut_hist_debug_q_by_thr  ", apply_queues,
     show_queues},
    {"r", FLAG, &cfg.ut_hist_dump_report, none, "r[+|-]       dump report on|off (default on)", 10,
     "ut_hist_dump_report     "},
    {"s", FLAG | UPPER_RAISED, &cfg.ut_hist_dump_on_sig, none,
     "s[+|-]       dump on signal on|off (default on)\n             - S means sighandler is NOT uninstalled on fini", 7,
     "ut_hist_dump_on_sig     "},
    {"x", FLAG | RAISED, &cfg.ut_hist_exit_cleanup, none,
     "x[+|-]       clean up on exit (default on)\n             - X means don't need to delete critical sects on exit",
     13, "ut_hist_exit_cleanup    "},
    {"y", SUB_LETTER, none, none, "y<>[+|-]     set <> initially on/off (default on)"},
    {"ye", FLAG, &ut_hist_debug, none, "             e - events", 1, "ut_hist_debug           "},
    {"ys", FLAG, &cfg.ut_hist_debug_rec_stats, none, "             s - statistics", 2, "ut_hist_debug_rec_stats "},
    {"z", FLAG | UPPER_RAISED, &cfg.ut_hist_z_messages, none,
     "z[+|-]       z(diagnostic) messages on|off (default off)\n             - Z will give even more diagnostics", 14,
     "ut_hist_z_messages      "},
};

// ---- help and listing ----

const a_hist_column* find_column(char letter)
{
    for (const a_hist_column* column = hist_columns; column->letter != '\0'; column++)
        if (column->letter == letter)
            return column;
    return nullptr;
}

void write_help_lines(const char* at)
{
    while (at != nullptr && *at != '\0') {
        const size_t len = strcspn(at, "\n");
        a_line line = hist_message(out);
        line.text.chr('\t');
        line.text.mem(at, len);
        at += len + (at[len] == '\n' ? 1 : 0);
    }
}

void write_help()
{
    hist_message(out).text.str("********** UT_HIST options:");
    for (const an_option& option : options) {
        write_help_lines(option.help);
        for (char letter = 'a'; option.letters[0] == 'i' && letter <= 'z'; letter++) {
            const a_hist_column* const column = find_column(letter);
            if (column != nullptr)
                hist_message(out).text.put("\t             ", letter, " - ", column->help);
        }
    }
}

void list(const char* label, const int32* number, void (*show)(a_text& text))
{
    a_line line = hist_message(out);
    line.text.put(label, "= ");
    if (show != nullptr)
        show(line.text);
    else
        line.text.sdec(*number);
}

// False when no line has that place.
bool list_place(int place)
{
    for (const an_option& option : options)
        if (option.place == place) {
            list(option.label, option.flag != nullptr ? option.flag : option.number, option.show);
            return true;
        }
    return false;
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

const an_option* find_option(char letter, char sub)
{
    for (const an_option& option : options)
        if (option.letters[0] == letter && option.letters[1] == sub)
            return &option;
    return nullptr;
}

// Reads what the option takes, from s on; gives the position behind it.
char* read_argument(char letter, char* s, const an_option& option)
{
    an_argument arg = {1, nullptr, false};
    // `q` counts its queues from the default again, whatever an earlier start-up left.
    if (option.apply == apply_queues)
        hist_cfg.hist_num_q = default_num_q;
    s = ut_hist_arg(s, (option.takes & FLAG) != 0 ? &arg.flag : nullptr, option.number,
                    (option.takes & NAME) != 0 ? &arg.name : nullptr, nullptr);
    const bool at_end = arg.name != nullptr && arg.name + strlen(arg.name) == env_buf + env_buf_size - 1;
    arg.cut = at_end && env_next != '\0' && env_next != (arg.name[-1] == '{' ? '}' : ',');
    if (arg.flag != 0 && (option.takes & (is_upper(letter) ? UPPER_RAISED : RAISED)) != 0)
        arg.flag = 2;
    if (option.flag != nullptr)
        __atomic_store_n(option.flag, arg.flag, __ATOMIC_RELAXED);  // one of them is read by all threads
    if (option.otherwise != 0 && *option.number <= 0)
        *option.number = option.otherwise;
    if (option.apply != nullptr)
        option.apply(arg);
    return s;
}

// The option at s with its sub-letter, at s + 1; null when that is none. Gives the position behind it.
char* read_sub_option(char* s)
{
    const a_hist_column* const column = lower(*s) == 'i' ? find_column(lower(s[1])) : nullptr;
    if (column != nullptr) {
        int32& shown = hist_include(hist_cfg, column->letter);
        shown = 1;
        return ut_hist_arg(s + 2, &shown, nullptr, nullptr, nullptr);
    }
    const an_option* const option = s[1] != '\0' ? find_option(lower(*s), lower(s[1])) : nullptr;
    return option != nullptr ? read_argument(*s, s + 2, *option) : nullptr;
}

// Reads the option at s; gives the position behind what it consumed.
char* read_option(char* s)
{
    const an_option* const option = find_option(lower(*s), '\0');
    if (option != nullptr && option->takes == 0) {
        hist_begin_message(out);
        write_help();
        return s + 1;
    }
    if (option != nullptr && option->takes != SUB_LETTER)
        return read_argument(*s, s + 1, *option);
    char* const behind = option != nullptr ? read_sub_option(s) : nullptr;
    if (behind != nullptr)
        return behind;
    hist_begin_message(out);
    hist_message(out).text.put("unknown UT_HIST option char '", *s, "' in ", const_cast<const char*>(s));
    write_help();
    return s + 1;
}

// dense, or dense:<max>; 0 for anything else.
uint32 dense_slots_of(const char* value)
{
    if (strcmp(value, "dense") == 0)
        return hist_dense_slots;
    return strncmp(value, "dense:", 6) == 0 ? hist_dense_slots_of(value + 6) : 0;
}

}  // namespace

// A short way: slots by number, and nothing to do but to record.
uint32 hist_way(int32 own_q)
{
    const bool is_plain = cfg.ut_hist_z_messages <= 1 && cfg.ut_hist_inc_sigmask == 0 && cfg.ut_hist_dump_on_sig < 2,
               is_long = cfg.hist_max_file_len >= 32 || cfg.hist_max_id_len >= 16 || cfg.hist_max_ev_len >= 32 ||
                         cfg.hist_max_ev_len < 16;
    if (!is_plain || cfg.dense_slots == 0)
        return ANY_WAY;
    return SHORT_WAY | (own_q != 0 ? OWN_QUEUE : 0) | (cfg.copies ? is_long ? LONG_TEXTS : 0 : POINTERS) |
           (cfg.tables ? TABLES : 0);
}

uint32 hist_dense_slots_of(const char* digits)
{
    const bool is_number = digits[strspn(digits, "0123456789")] == '\0';
    const unsigned long max = is_number ? strtoul(digits, nullptr, 10) : 0;
    return max <= hist_most_slots ? uint32(max) : 0;
}

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
    hist_cfg.ut_hist_inc_sigmask = hist_include(hist_cfg, 'm');
}

// How threads get their slots: the literal rule unless the value is dense or dense:<max>.
void hist_parse_thread_slot(const char* value)
{
    hist_cfg.slots_set = value != nullptr && *value != '\0';
    hist_cfg.dense_slots = value != nullptr ? dense_slots_of(value) : 0;
    if (value == nullptr || *value == '\0' || strcmp(value, "handle") == 0 || hist_cfg.dense_slots != 0)
        return;
    hist_begin_message(out);
    hist_message(out).text.put("unknown UT_HIST_THREAD_SLOT value '", value, "', using 'handle'");
}

// The settings as they are when the library is loaded.
void hist_reset_settings()
{
    hist_cfg = {};
    hist_streams = {};
    for (const a_hist_column* column = hist_columns; column->letter != '\0'; column++)
        hist_include(hist_cfg, column->letter) = column->by_default;
}

// Reads UT_HIST; false when it leaves the history off.
bool hist_is_wanted()
{
    ut_hist_setting(UT_HIST_SET_EVENTS_OFF);
    const char* const value = ut_getenv2("UT_HIST");
    env_next = value != nullptr && strlen(value) >= env_buf_size ? value[env_buf_size - 1] : '\0';
    return ut_getenv("UT_HIST", env_buf, env_buf_size) != nullptr && env_buf[0] != '\0' && strcmp(env_buf, "off") != 0;
}

// Takes the options that were read, and UT_HIST_THREAD_SLOT, into the settings.
void hist_read_options()
{
    out = {};
    ut_hist_setting(UT_HIST_SET_EVENTS_ON);
    ut_hist_setting(UT_HIST_SET_STATS_ON);
    hist_streams.ut_hist_dump_err_name = stderr_str;
    hist_parse_options(env_buf);
    hist_parse_thread_slot(ut_getenv2("UT_HIST_THREAD_SLOT"));
    if (env_next != '\0')
        hist_note(out, hist_errout_as_it_is())
            .text.put("UT_HIST is too long: only its first ", env_buf_size - 1, " characters count");
}

// The settings listing, when diagnostic messages are on.
void hist_write_settings(const char* clock)
{
    if (hist_cfg.ut_hist_z_messages <= 0)
        return;
    hist_begin_message(out);
    hist_message(out).text.str("********** HISTORY z-messages settings begin **********");
    for (int place = 1; list_place(place); place++)
        continue;
    for (char letter = 'a'; letter <= 'z'; letter++) {
        const a_hist_column* const column = find_column(letter);
        if (column != nullptr && column->listed != nullptr)
            list(column->listed, &hist_include(hist_cfg, letter), nullptr);
    }
    if (clock != nullptr)
        hist_message(out).text.put("clock                   = ", clock);
    hist_message(out).text.str("********** HISTORY z-messages settings end **********");
}

// Relaxed: each is one word that orders nothing else. Signal-safe.
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
