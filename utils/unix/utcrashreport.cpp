// utcrashreport.cpp: the record and the report (see utcrashreport.h).
//
// One process, one record, one report: who changes the record's state from none to being written writes both; a second
// crashing thread, the abort of a crash-only installation and a forked child come later. So what is large is static,
// and the handler may run on a small stack. No locks, no allocation. Signal-safe: all of it, but what says otherwise.
#include "utils/unix/utcrashreport.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include "utils/etc/utclock.h"
#include "utils/etc/utenv.h"
#include "utils/etc/utline.h"
#include "utils/unix/unixaltstack.h"
#include "utils/unix/unixfork.h"

constinit a_ut_crash_record ut_crash_record = {
    UT_CRASH_MAGIC, UT_CRASH_VERSION, sizeof(a_ut_crash_record), UT_CRASH_NONE, 0, 0, 0, 0, -1, 0, 0, 0, 0, 0, {}};

namespace {

constexpr size_t max_path = 1024;  // as unix_open_output takes
constexpr const char* line_begin = "********** ";

enum a_destination { unset, off, to_stderr, to_file };

a_destination destination = unset;
char pattern[max_path];  // of the file

// What a code of a signal (0: of any) means.
struct a_code_name {
    int sig, code;
    const char* text;
};
constexpr a_code_name code_names[] = {
    {SIGSEGV, SEGV_MAPERR, "address not mapped"},
    {SIGSEGV, SEGV_ACCERR, "access not permitted"},
    {SIGSEGV, SEGV_BNDERR, "bound check failed"},
    {SIGSEGV, SEGV_PKUERR, "protection key"},
    {SIGSEGV, SI_KERNEL, "general protection"},
    {SIGBUS, BUS_ADRALN, "address not aligned"},
    {SIGBUS, BUS_ADRERR, "no such memory"},  // beyond the end of a mapped file, or no room for it
    {SIGBUS, BUS_OBJERR, "hardware error"},
    {SIGBUS, BUS_MCEERR_AR, "memory error"},
    {SIGBUS, BUS_MCEERR_AO, "memory error elsewhere"},
    {SIGFPE, FPE_INTDIV, "integer division by zero"},
    {SIGFPE, FPE_INTOVF, "integer overflow"},
    {SIGFPE, FPE_FLTDIV, "division by zero"},
    {SIGFPE, FPE_FLTOVF, "overflow"},
    {SIGFPE, FPE_FLTUND, "underflow"},
    {SIGFPE, FPE_FLTRES, "inexact result"},
    {SIGFPE, FPE_FLTINV, "invalid operation"},
    {SIGFPE, FPE_FLTSUB, "subscript out of range"},
    {SIGILL, ILL_ILLOPC, "illegal opcode"},
    {SIGILL, ILL_ILLOPN, "illegal operand"},
    {SIGILL, ILL_ILLADR, "illegal addressing mode"},
    {SIGILL, ILL_ILLTRP, "illegal trap"},
    {SIGILL, ILL_PRVOPC, "privileged opcode"},
    {SIGILL, ILL_PRVREG, "privileged register"},
    {SIGILL, ILL_COPROC, "coprocessor error"},
    {SIGILL, ILL_BADSTK, "internal stack error"},
    {0, SI_USER, "kill"},
    {0, SI_QUEUE, "sigqueue"},
    {0, SI_TKILL, "tgkill"},
    {0, SI_MESGQ, "message queue"},
    {0, SI_TIMER, "timer"},
    {0, SI_ASYNCIO, "asynchronous input or output"},
    {0, SI_SIGIO, "input or output"},
    {0, SI_KERNEL, "kernel"},
};

struct a_file_name {
    char text[max_path];
    size_t size;
};

// Of the one report.
struct {
    int fd = STDERR_FILENO;
    int open_error = 0;
    a_file_name file;
    char program[max_path];  // its path; empty: who knows
    a_caller_list callers;
    uint64 caller;                       // that is looked up
    uint64 offsets[ut_max_callers + 1];  // those in the program
    uint32 offset_count = 0;
    char buffer[2048];
    a_text text;
    an_output out;
} report;

bool has_sender(int code) { return code == SI_USER || code == SI_QUEUE || code == SI_TKILL || code == SI_MESGQ; }

void look_up_callback(a_crash& crash) { ut_find_place(crash.place, reinterpret_cast<uint64>(crash.callback)); }
void look_up_fault(a_crash& crash) { ut_find_place(crash.place, crash.fault_pc); }
void look_up_pc(a_crash& crash) { ut_find_place(crash.place, ut_crash_record.pc); }
void look_up_build_id(a_crash& crash) { ut_find_build_id(crash.place); }

const char* code_text(int sig, int code)
{
    for (const a_code_name& row : code_names)
        if ((row.sig == sig || row.sig == 0) && row.code == code)
            return row.text;
    return nullptr;
}

void put_hex(a_text& text, uint64 value)
{
    text.str("0x");
    text.hex(value);
}

void put_signal(a_text& text, const a_cause& what)
{
    const char* const name = sigabbrev_np(what.sig);
    const char* const code = code_text(what.sig, what.code);
    text.put("signal ", what.sig);
    if (name != nullptr)
        text.put(" SIG", name);
    text.put(" code ", what.code);
    if (code != nullptr)
        text.put(" (", code, ")");
    if (ut_has_address(what.sig, what.code)) {
        text.str(" address ");
        put_hex(text, what.address);
    }
}

const char* program_name()
{
    const char* const slash = strrchr(report.program, '/');
    return slash != nullptr ? slash + 1 : report.program;
}

// Module and offset; outside modules the address alone.
void put_place(a_text& text, const a_place& place)
{
    if (place.module == nullptr)
        return put_hex(text, place.pc);
    if (place.module_size > 0)
        text.printable(place.module, place.module_size);
    else
        text.printable(program_name(), strlen(program_name()));
    text.chr('+');
    put_hex(text, place.offset);
}

void put_running(a_text& text, a_crash& crash)
{
    if (crash.callback == nullptr)
        return text.str(crash.part);
    text.str("callback ");
    ut_guarded(crash, look_up_callback);
    put_place(text, crash.place);
}

void put_fault(a_text& text, a_crash& crash)
{
    ut_guarded(crash, look_up_fault);
    put_place(text, crash.place);
    text.str(": ");
    put_signal(text, crash.fault);
}

// A child that a callback has forked says nothing.
int fd_for(const a_crash& crash) { return crash.process == getpid() ? report.fd : -1; }

void append(void* to, const char* text, size_t len)
{
    a_file_name& name = *static_cast<a_file_name*>(to);
    const size_t room = sizeof name.text - 1 - name.size;
    report.open_error = len > room ? ENAMETOOLONG : report.open_error;
    memcpy(name.text + name.size, text, len < room ? len : room);
    name.size += len < room ? len : room;
}

// The pattern, with what its letters stand for.
void make_file_name()
{
    char buffer[128];
    a_text text;
    text.use(buffer, sizeof buffer, "");
    text.direct(append, &report.file);
    for (const char* at = pattern; *at != '\0'; at++) {
        const char letter = *at == '%' ? at[1] : '\0';
        if (letter == 'p')
            text.sdec(ut_crash_record.pid);
        else if (letter == 'e')
            text.str(program_name());
        else if (letter == 't')
            text.sdec(ut_crash_record.seconds);
        else
            text.chr(*at);
        at += letter == 'p' || letter == 'e' || letter == 't' || letter == '%' ? 1 : 0;
    }
    text.flush();
}

// A file that cannot be opened sends the report to the standard error stream.
void open_report()
{
    if (destination != to_file)
        return;
    make_file_name();
    if (report.open_error != 0)
        return;
    const int fd = unix_open_output(report.file.text, O_APPEND, 0600);
    if (fd >= 0)
        report.fd = fd;
    else
        report.open_error = errno;
}

void put_head(a_text& text, const a_crash& crash)
{
    char thread[16] = "";
    const int32 slot = crash.hooks != nullptr ? crash.hooks->slot() : -1;
    text.put(line_begin, "CRASH @ ");
    ut_put_stamp(text, {ut_crash_record.seconds, suseconds_t(ut_crash_record.microseconds)});
    text.put(" pid=", ut_crash_record.pid);
    if (report.program[0] != '\0') {
        text.str(" prog=");
        text.printable(report.program, strlen(report.program));
    }
    text.put(" tid=", ut_crash_record.tid, " thread=");
    prctl(PR_GET_NAME, thread);
    text.printable(thread, strnlen(thread, sizeof thread));
    text.str(" slot=");
    if (slot >= 0)
        text.sdec(slot);
    else
        text.chr('-');
    text.eol();
}

void put_cause(a_text& text)
{
    const a_ut_crash_record& r = ut_crash_record;
    text.str(line_begin);
    put_signal(text, {r.sig, r.code, r.address});
    text.eol();
    if (r.sender_pid < 0)
        return;
    text.put(line_begin, "sent by pid ", r.sender_pid, " uid ", r.sender_uid);
    text.eol();
}

void keep_offset(const a_place& place)
{
    if (place.module != nullptr && place.module_size == 0)
        report.offsets[report.offset_count++] = place.offset;
}

void put_pc(a_text& text, a_crash& crash)
{
    text.put(line_begin, "pc ");
    put_hex(text, ut_crash_record.pc);
    if (ut_guarded(crash, look_up_pc) && crash.place.module != nullptr) {
        text.chr(' ');
        put_place(text, crash.place);
        ut_guarded(crash, look_up_build_id);
    }
    if (crash.place.build_id_size > 0)
        text.str(" build-id ");
    for (size_t i = 0; i < crash.place.build_id_size; i++)
        text.hex(crash.place.build_id[i], 2);
    text.eol();
    keep_offset(crash.place);
}

void find_callers(a_crash& crash)
{
    const a_ut_crash_record& r = ut_crash_record;
    const bool nowhere = ut_has_address(r.sig, r.code) && r.address == r.pc;
    ut_find_callers(report.callers, *static_cast<ucontext_t*>(crash.call.context), nowhere);
}

void look_up_caller(a_crash& crash) { ut_find_place(crash.place, report.caller); }

void put_fault_line(a_text& text, const char* what, a_crash& crash)
{
    text.put(line_begin, what, " ends here: fault at ");
    put_fault(text, crash);
    text.eol();
}

void put_callers(a_crash& crash)
{
    a_text& text = report.text;
    const bool whole = ut_guarded(crash, find_callers);
    auto& registers = static_cast<ucontext_t*>(crash.call.context)->uc_mcontext.gregs;
    memcpy(registers, ut_crash_record.registers, sizeof registers);
    const a_caller_list& callers = report.callers;
    for (uint32 i = 0; i < callers.count; i++) {
        text.put(line_begin, '#', i + 1, ' ');
        report.caller = callers.pcs[i];
        ut_guarded(crash, look_up_caller);
        put_place(text, crash.place);
        text.eol();
        keep_offset(crash.place);
    }
    if (!whole)
        put_fault_line(text, "backtrace", crash);
    if (callers.more) {
        text.put(line_begin, "backtrace ends here: more than ", ut_max_callers, " callers");
        text.eol();
    }
}

void put_symbols(a_text& text)
{
    if (report.offset_count == 0 || report.program[0] == '\0')
        return;
    text.put(line_begin, "symbols: addr2line -Cfpe ");
    text.printable(report.program, strlen(report.program));
    for (uint32 i = 0; i < report.offset_count; i++) {
        text.chr(' ');
        put_hex(text, report.offsets[i]);
    }
    text.eol();
}

void put_open_error(a_text& text)
{
    if (report.open_error == 0)
        return;
    text.put(line_begin, "cannot open ");
    text.printable(report.file.text, report.file.size);
    text.put(": ", strerrordesc_np(report.open_error));
    text.eol();
}

// A pattern that is too long sends reports to the standard error stream. Not signal-safe: it changes what the handler
// reads.
a_destination read_destination(const char* value)
{
    if (value == nullptr)
        return unset;
    if (*value == '\0' || strcmp(value, "off") == 0)
        return off;
    const size_t size = strlen(value) + 1;
    if (strcmp(value, "stderr") == 0 || size > sizeof pattern)
        return to_stderr;
    memcpy(pattern, value, size);
    return to_file;
}

// The history's start and end may be what switches reports on and off. Not signal-safe: the zone is looked up.
void prepare_reports()
{
    const bool wanted = ut_reports(unix_get_crash_hooks());
    unix_want_signal_stacks(wanted);
    if (!wanted)
        return;
    ut_zone_refresh();
    ut_prepare_callers();
    unix_give_signal_stack();
}

}  // namespace

void ut_report_configure()
{
    destination = read_destination(ut_getenv2("ZT_CRASH_REPORT"));
    prepare_reports();
    unix_prepare_reports = prepare_reports;
}

bool ut_reports(const a_crash_hooks* hooks)
{
    return destination >= to_stderr || (destination == unset && hooks != nullptr);
}

bool ut_keep_record(const an_onsig_call& call)
{
    a_ut_crash_record& r = ut_crash_record;
    uint32 none = UT_CRASH_NONE;
    if (!__atomic_compare_exchange_n(&r.state, &none, UT_CRASH_WRITING, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return false;
    const siginfo_t& info = *static_cast<const siginfo_t*>(call.siginfo);
    const auto& registers = static_cast<const ucontext_t*>(call.context)->uc_mcontext.gregs;
    static_assert(sizeof registers == sizeof r.registers);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    r.seconds = now.tv_sec;
    r.microseconds = uint32(now.tv_nsec / 1000);
    r.sig = call.sig;
    r.code = info.si_code;
    r.pid = getpid();
    r.tid = gettid();
    if (has_sender(info.si_code)) {
        r.sender_pid = info.si_pid;
        r.sender_uid = info.si_uid;
    }
    if (ut_has_address(call.sig, info.si_code))
        r.address = uint64(info.si_addr);
    r.pc = ut_pc_of(call.context);
    memcpy(r.registers, registers, sizeof r.registers);
    __atomic_store_n(&r.state, UT_CRASH_WHOLE, __ATOMIC_RELEASE);
    // A child that has run no fork handlers may share the place with its parent.
    if (a_ut_crash_record* const copy = unix_get_crash_copy(); copy != nullptr && unix_is_home_process())
        *copy = r;
    return true;
}

// In the thread's own folder: the process's has no link when the main thread has ended.
void ut_report_program()
{
    if (report.program[0] != '\0')
        return;
    const ssize_t len = readlink("/proc/thread-self/exe", report.program, sizeof report.program - 1);
    report.program[len > 0 ? len : 0] = '\0';
    // The kernel's words for a file that has been replaced.
    constexpr char gone[] = " (deleted)";
    constexpr ssize_t gone_size = sizeof gone - 1;
    if (len > gone_size && strcmp(report.program + len - gone_size, gone) == 0)
        report.program[len - gone_size] = '\0';
}

// What tells the cause is written before the unwinder begins.
void ut_write_report(a_crash& crash)
{
    open_report();
    report.out.open(report.fd);
    a_text& text = report.text;
    text.use(report.buffer, sizeof report.buffer, "\n");
    text.direct(ut_write_out, &report.out);
    put_head(text, crash);
    put_cause(text);
    put_pc(text, crash);
    text.flush();
    if (!ut_guarded(crash, put_callers))
        put_fault_line(text, "report", crash);
    put_symbols(text);
    text.put(line_begin, "CRASH END");
    text.eol();
    put_open_error(text);
    text.flush();
    report.out.close();
}

void ut_note_fault(a_crash& crash)
{
    an_output out;
    a_line line(out, fd_for(crash), "\n", line_begin);
    put_running(line.text, crash);
    line.text.str(" is skipped, fault at ");
    put_fault(line.text, crash);
}

void ut_note_limit(a_crash& crash)
{
    an_output out;
    a_line line(out, fd_for(crash), "\n", line_begin);
    put_running(line.text, crash);
    line.text.put(" has not ended within ", crash.limit, " s: the process ends");
}
