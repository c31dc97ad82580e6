// report.cpp: info and list (report.h).
#include "tools/report.h"

#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ucontext.h>
#include <time.h>

#include <algorithm>
#include <filesystem>

#include "tools/process_source.h"
#include "utils/etc/uthist/hist_store.h"

namespace {

constexpr const char* section_names[UT_HIST_SECTIONS] = {
    "queues",   "records",      "texts",   "data",       "registry",    "long texts of ids", "timers",      "zone",
    "settings", "dump buffers", "anchors", "live words", "slots taken", "thread slots",      "thread views"};
static_assert(section_names[UT_HIST_SECTIONS - 1] != nullptr);

// In the order of gregs.
constexpr const char* register_names[UT_CRASH_REGISTERS] = {
    "r8",  "r9",  "r10", "r11", "r12", "r13",    "r14",    "r15", "rdi",    "rsi",     "rbp", "rbx",
    "rdx", "rax", "rcx", "rsp", "rip", "eflags", "csgsfs", "err", "trapno", "oldmask", "cr2"};
static_assert(REG_CR2 == UT_CRASH_REGISTERS - 1 && REG_RIP == 16);

std::string local(const a_ut_hist_time& t)
{
    const time_t seconds = t.tv_sec;
    struct tm fields;
    char text[64];
    if ((t.tv_sec == 0 && t.tv_usec == 0) || localtime_r(&seconds, &fields) == nullptr)
        return "-";
    const size_t len = strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &fields);
    snprintf(text + len, sizeof text - len, ".%06" PRId64, t.tv_usec % 1000000);
    return text;
}

std::string signal_name(int32 sig)
{
    const char* const name = sigabbrev_np(sig);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(sig);
}

// What a terminal or a reader of lines would take amiss becomes a point.
std::string printable(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return uint8_t(c) < ' ' || c == 0x7F; }, '.');
    return text;
}

void line(const char* name, const std::string& value) { printf("%s: %s\n", name, printable(value).c_str()); }
void line(const char* name, uint64 value) { printf("%s: %" PRIu64 "\n", name, value); }
void line_hex(const char* name, uint64 value) { printf("%s: 0x%" PRIx64 "\n", name, value); }

uint64 sum(const std::vector<uint64>& numbers)
{
    uint64 all = 0;
    for (const uint64 number : numbers)
        all += number;
    return all;
}

void put_crash(const a_ut_crash_record& crash)
{
    if (crash.state == UT_CRASH_NONE)
        return line("crash", "none");
    line("crash", signal_name(crash.sig) + (crash.state == UT_CRASH_WHOLE ? "" : " (its record is not whole)"));
    line("crash code", std::to_string(crash.code));
    line("crash thread", std::to_string(crash.tid));
    line("crash time", local({crash.seconds, crash.microseconds}));
    if (crash.sender_pid >= 0)
        line("crash sender", "pid " + std::to_string(crash.sender_pid) + " uid " + std::to_string(crash.sender_uid));
    line_hex("crash address", crash.address);
    line_hex("crash pc", crash.pc);
    for (uint32 i = 0; i < UT_CRASH_REGISTERS; i++)
        line_hex((std::string("crash ") + register_names[i]).c_str(), crash.registers[i]);
}

void put_process(const an_image& image, const a_state& state)
{
    const a_ut_hist_image& h = image.header;
    std::string build_id;
    for (uint32 i = 0; i < h.build_id_bytes; i++) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", h.build_id[i]);
        build_id += hex;
    }
    line("program", h.program);
    line("host", h.host);
    line("pid", std::to_string(h.pid));
    line("state", end_of(image, state));
    line("history began", local(h.start_time));
    line("boot id", h.boot_id);
    line("pid namespace", h.pid_namespace);
    line("library build-id", build_id.empty() ? "-" : build_id);
    line("UT_HIST", h.ut_hist);
    line("UT_HIST_EXT", h.ut_hist_ext);
    line("history file", *h.file != '\0' ? h.file : "-");
}

void put_settings(const a_ut_hist_image& h)
{
    const std::string lengths = ", at most " + std::to_string(h.max_file_len) + " of files, " +
                                std::to_string(h.max_id_len) + " of ids, " + std::to_string(h.max_ev_len) +
                                " of events";
    line("layout version", h.version);
    line_hex("address", h.base);
    line("bytes", h.image_bytes);
    line("queues", h.queues);
    line("records of a queue", h.events);
    line("texts", ((h.flags & UT_HIST_IMAGE_COPY) != 0 ? "copied" : "addresses") + lengths);
    line("bytes of a data ring", h.data_size);
    line("thread slots", std::to_string(h.sections[UT_HIST_THREADS].entries) +
                             ((h.flags & UT_HIST_IMAGE_DENSE) != 0 ? ", dense" : ", by handle"));
    line("thread tables", (h.flags & UT_HIST_IMAGE_TABLES) != 0 ? "yes" : "no");
    line("dump signal", signal_name(h.dump_signal));
    for (uint32 s = 0; s < UT_HIST_SECTIONS; s++)
        line((std::string("bytes of ") + section_names[s]).c_str(), h.sections[s].bytes);
}

// ---- the list ----

void put_row(const an_image& image, const std::string& name)
{
    const a_state state = read_state(image);
    const std::string newest = local(state.newest), end = end_of(image, state);
    printf("%-15s %7d %-24s %12" PRIu64 " %-26s %s\n", printable(image.header.program).c_str(), image.header.pid,
           end.c_str(), sum(state.recorded), newest.c_str(), printable(name).c_str());
}

// Nothing for a process without a history.
void put_row_of(std::unique_ptr<an_image_source> source, const std::string& name, bool& headed)
{
    an_image image;
    std::string problem;
    if (source == nullptr)
        return;
    if (!find_image(*source, image, problem)) {
        if (!source->is_process())
            fprintf(stderr, "corvex-hist: %s: %s\n", name.c_str(), problem.c_str());
        return;
    }
    if (!headed)
        printf("%-15s %7s %-24s %12s %-26s %s\n", "PROGRAM", "PID", "STATE", "EVENTS", "NEWEST", "SOURCE");
    headed = true;
    put_row(image, name);
}

std::vector<int> processes()
{
    std::vector<int> all;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", gone))
        if (const int pid = atoi(entry.path().filename().c_str()); pid > 0)
            all.push_back(pid);
    std::sort(all.begin(), all.end());
    return all;
}

}  // namespace

std::string end_of(const an_image& image, const a_state& state)
{
    const a_ut_crash_record& crash = state.live.crash;
    const bool ended = state.known && state.live.state == UT_HIST_IMAGE_ENDED;
    const a_life life = image.source->is_process() ? ALIVE : life_of(image.header);
    std::string crashed = crash.state != UT_CRASH_NONE ? "crashed: " + signal_name(crash.sig) : "";
    if (life == ALIVE && image.source->is_live() && !ended)
        return crashed.empty() ? "alive" : "ending: " + signal_name(crash.sig);
    if (!crashed.empty())
        return crashed;
    if (!state.known)
        return "unknown";
    if (ended)
        return "ended cleanly";
    return life == GONE ? "gone: killed, _exit, exec" : "not known here";
}

void put_info(const an_image& image, const a_state& state)
{
    line("source", image.source->name());
    put_process(image, state);
    put_settings(image.header);
    line("events", sum(state.recorded));
    for (size_t q = 0; q < state.recorded.size(); q++)
        line(("events of queue " + std::to_string(q)).c_str(), state.recorded[q]);
    line("newest event", local(state.newest));
    if (!state.known)
        return;
    line("events lost for want of a slot", state.live.events_missed);
    line("slot of the last one lost", state.live.last_missed_thread);
    line("registered ids", state.live.ids);
    put_crash(state.live.crash);
}

bool put_list(const std::vector<std::string>& folders)
{
    bool headed = false;
    std::string ignored;
    for (const int pid : processes())
        if (const auto maps = mappings_of(pid); std::any_of(maps.begin(), maps.end(), is_library))
            put_row_of(open_process(pid, ignored), std::to_string(pid), headed);
    for (const std::string& folder : folders) {
        std::error_code error;
        std::vector<std::string> paths;
        for (const auto& entry : std::filesystem::directory_iterator(folder, error))
            paths.push_back(entry.path());
        if (error)
            fprintf(stderr, "corvex-hist: %s: %s\n", folder.c_str(), error.message().c_str());
        std::sort(paths.begin(), paths.end());
        for (const std::string& path : paths)
            put_row_of(open_file(path, ignored), path, headed);
    }
    return headed;
}
