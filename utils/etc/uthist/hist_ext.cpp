// hist_ext.cpp: reads UT_HIST_EXT. A word is one row: its name, what it takes, what it does. Nothing stops start-up:
// what is no word and no value of one is told by a note, and the rest counts. Runs in start-up only, on one thread.
// Not signal-safe.
#include "utils/etc/uthist/hist_ext.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include "utils/etc/utenv.h"
#include "utils/etc/uthist/hist_config.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_file.h"
#include "utils/unix/unixsigs.h"

namespace {

constexpr size_t value_size = 1024;  // of the variable, the terminating NUL included

struct a_word {
    const char* name;
    char before_value;  // what stands between the name and a value; NUL: the word takes none
    const char* shown;
    bool dense;                        // it implies dense slots: else hardly a thread records
    bool (*apply)(const char* value);  // null for no value; false: the value is none
};

bool apply_dense(const char* value)
{
    const uint32 slots = value != nullptr ? hist_dense_slots_of(value) : hist_dense_slots;
    if (slots != 0 && !hist_cfg.slots_set)
        hist_cfg.dense_slots = slots;
    return slots != 0;
}

// A file without its name would be another one.
bool apply_file(const char* value)
{
    if (value == nullptr || !hist_file_is_pattern(value))
        return false;
    strcpy(hist_cfg.file_pattern, value);
    return true;
}

// The clean exit's file is kept, and a number of those of dead processes.
bool apply_keep(const char* value)
{
    char* end = nullptr;
    const unsigned long most = value != nullptr ? strtoul(value, &end, 10) : default_dead;
    if (value != nullptr && (*value < '0' || *value > '9' || *end != '\0' || most > hist_most_dead))
        return false;
    hist_cfg.keep_dead = uint32(most);
    return hist_cfg.keep_file = true;
}

bool apply_tables(const char*) { return hist_cfg.tables = true; }
bool apply_crash(const char*) { return hist_cfg.crash = true; }
bool apply_tsc(const char*) { return hist_cfg.tsc = true; }
bool apply_all(const char*) { return apply_tables(nullptr) && apply_crash(nullptr); }

// The number that a name of a signal stands for: USR2, SIGUSR2, RTMIN+3, RTMAX-1, 12; 0 for none.
int signal_of(const char* name)
{
    char* end = nullptr;
    const long number = strtol(name, &end, 10);
    if (*name >= '0' && *name <= '9')
        return *end == '\0' && number < NSIG ? int(number) : 0;
    name += strncmp(name, "SIG", 3) == 0 ? 3 : 0;
    for (int sig = 1; sig < NSIG; sig++)
        if (sigabbrev_np(sig) != nullptr && strcmp(sigabbrev_np(sig), name) == 0)
            return sig;
    const bool min = strncmp(name, "RTMIN", 5) == 0, max = strncmp(name, "RTMAX", 5) == 0;
    if (!(min && (name[5] == '+' || name[5] == '\0')) && !(max && (name[5] == '-' || name[5] == '\0')))
        return 0;
    const long distance = name[5] != '\0' ? strtol(name + 5, &end, 10) : 0;
    const long sig = (min ? SIGRTMIN : SIGRTMAX) + distance;
    const bool whole = name[5] == '\0' || (*end == '\0' && name[6] >= '0' && name[6] <= '9');
    return whole && sig >= SIGRTMIN && sig <= SIGRTMAX ? int(sig) : 0;
}

// Not those that end the process, here or by default beyond help, nor those whose handler is somebody else's.
bool may_dump(int sig)
{
    constexpr int refused[] = {SIGKILL, SIGSTOP, SIGPIPE, SIGXFSZ, SIGCHLD};
    for (const int other : refused)
        if (sig == other)
            return false;
    const bool the_c_librarys = sig >= 32 && sig < SIGRTMIN;
    return sig > 0 && !the_c_librarys && !unix_is_ending_signal(sig) && sig != unix_limit_signal();
}

bool apply_signal(const char* value)
{
    const int sig = value != nullptr ? signal_of(value) : 0;
    if (may_dump(sig))
        hist_cfg.dump_signal = sig;
    return may_dump(sig);
}

constexpr a_word words[] = {
    {"all", '\0', "all", true, apply_all},
    {"crash", '\0', "crash", true, apply_crash},
    {"dense", ':', "dense[:<max>]", false, apply_dense},  // by itself
    {"file", '=', "file=<pattern>", true, apply_file},
    {"keep", '=', "keep[=<n>]", false, apply_keep},
    {"signal", '=', "signal=<name>", false, apply_signal},
    {"tables", '\0', "tables", true, apply_tables},
    {"tsc", '\0', "tsc", true, apply_tsc},
};

// Whether `at` is the word, with a value or without; `value` is where the value begins, null for none.
bool is_word(const char* at, const a_word& word, const char*& value)
{
    const size_t len = strlen(word.name);
    if (strncmp(at, word.name, len) != 0)
        return false;
    value = word.before_value != '\0' && at[len] == word.before_value ? at + len + 1 : nullptr;
    return at[len] == '\0' || value != nullptr;
}

bool apply(const char* at)
{
    const char* value;
    for (const a_word& word : words)
        if (is_word(at, word, value)) {
            if (word.dense && hist_cfg.dense_slots == 0)
                apply_dense(nullptr);
            return word.apply(value);
        }
    return false;
}

// The word at `at`, which it ends, and moves `at` behind it; null at the end. A comma behind '%' is of a file's name.
char* next_word(char*& at)
{
    while (*at == ',')
        at++;
    char* const word = at;
    while (*at != '\0' && *at != ',')
        at += at[0] == '%' && at[1] != '\0' ? 2 : 1;
    if (*at != '\0')
        *at++ = '\0';
    return *word != '\0' ? word : nullptr;
}

void note_unknown(const char* at)
{
    an_output out;
    a_line note = hist_note(out, hist_errout_as_it_is());
    note.text.put("UT_HIST_EXT: no word (", at, "), only");
    for (const a_word& word : words)
        note.text.put(&word == words ? " " : ", ", word.shown);
}

void read_words()
{
    const char* const given = ut_getenv2("UT_HIST_EXT");
    if (given == nullptr)
        return;
    char value[value_size];
    ut_getenv("UT_HIST_EXT", value, sizeof value);
    const bool cut = strlen(given) >= sizeof value;
    char* rest = value;
    while (char* const word = next_word(rest)) {
        const bool whole = !cut || *rest != '\0' || given[value_size - 1] == ',';
        if (whole && !apply(word))
            note_unknown(word);
    }
    if (cut) {
        an_output out;
        hist_note(out, hist_errout_as_it_is())
            .text.put("UT_HIST_EXT is too long: only its first ", value_size - 1, " characters count");
    }
}

}  // namespace

void hist_read_ext()
{
    hist_cfg.tables = hist_cfg.crash = hist_cfg.tsc = hist_cfg.keep_file = false;
    hist_cfg.dump_signal = SIGUSR1;
    hist_cfg.keep_dead = default_dead;
    hist_cfg.file_pattern[0] = '\0';
    read_words();
    hist_cfg.copies = hist_cfg.ut_hist_dump_on_fini != 0 || hist_cfg.file_pattern[0] != '\0';
}
