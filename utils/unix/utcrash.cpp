// utcrash.cpp: the crash report, and a chain of callbacks that comes to its end (see utcrash.h).
//
// One process, one record, one report: who changes the record's state from none to being written writes both; a second
// crashing thread, the abort of a crash-only installation and a forked child come later. What runs here may fault:
// while a_crash says what runs, crash signals are unblocked, and a fault on the same thread jumps back to the guard
// around it; one of another thread finds no a_crash of its own and goes the usual way. What is large is static: only
// the reporting thread uses it, perhaps on a small signal stack. No locks, no allocation. Signal-safe: all of it, but
// what says otherwise.
#include "utils/unix/utcrash.h"

#include <errno.h>
#include <fcntl.h>
#include <setjmp.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "utils/etc/utclock.h"
#include "utils/etc/utenv.h"
#include "utils/etc/utline.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utcallers.h"
#include "utils/unix/utending.h"

constinit a_ut_crash_record ut_crash_record = {
    UT_CRASH_MAGIC, UT_CRASH_VERSION, sizeof(a_ut_crash_record), UT_CRASH_NONE, 0, 0, 0, 0, -1, 0, 0, 0, 0, 0, {}};

namespace {

constexpr int crash_signals[] = {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV};

constexpr unsigned default_limit = 30;  // seconds, when crashes are reported
constexpr unsigned max_limit = 3600;
constexpr unsigned last_resort = 5;    // seconds from the limit to SIGKILL
constexpr int usual_patience = 10000;  // milliseconds
constexpr size_t max_path = 1024;      // as unix_open_output takes
constexpr const char* line_begin = "********** ";

enum a_destination { unset, off, to_stderr, to_file };

struct {
    a_destination destination = unset;
    bool limited = false;  // ZT_CRASH_TIMEOUT is set
    unsigned limit = 0;    // to so many seconds; 0: for ever
    char pattern[max_path];
} settings;

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

struct a_signal_text {
    int sig, code;
    uint64 address;
};

// What the thread's handler is at. It lies on the handler's stack.
struct a_crash {
    const an_onsig_call& call;
    const a_crash_hooks* const hooks;
    const unsigned limit;
    const pid_t process = getpid();
    const char* part = "";                  // what runs; or
    a_sig_handler_func callback = nullptr;  // this callback,
    void* callback_arg = nullptr;           // with this argument
    sigjmp_buf* guard = nullptr;            // where a fault goes
    a_signal_text fault = {};               // the last one, and where it was
    uint64 fault_pc = 0;
    int timers[2] = {-1, -1};  // the kernel's: the limit, the last resort
    a_place place = {};        // what was looked up last
};

// initial-exec: no first touch allocates.
constinit __attribute__((tls_model("initial-exec"))) thread_local a_crash* crash_now = nullptr;

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

bool is_crash_signal(int sig)
{
    for (const int crash : crash_signals)
        if (crash == sig)
            return true;
    return false;
}

bool has_address(int sig, int code) { return is_crash_signal(sig) && sig != SIGABRT && code > 0 && code != SI_KERNEL; }
bool has_sender(int code) { return code == SI_USER || code == SI_QUEUE || code == SI_TKILL || code == SI_MESGQ; }

uint64 pc_of(const void* context)
{
    return uint64(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
}

bool reports(const a_crash_hooks* hooks)
{
    return settings.destination >= to_stderr || (settings.destination == unset && hooks != nullptr);
}

unsigned limit_for(const a_crash_hooks* hooks)
{
    return settings.limited ? settings.limit : hooks != nullptr || reports(hooks) ? default_limit : 0;
}

// ---- the record --------------------------------------------------------------------------------------------

// True for the first signal that ends the process.
bool keep_record(const an_onsig_call& call)
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
    if (has_address(call.sig, info.si_code))
        r.address = uint64(info.si_addr);
    r.pc = pc_of(call.context);
    memcpy(r.registers, registers, sizeof r.registers);
    __atomic_store_n(&r.state, UT_CRASH_WHOLE, __ATOMIC_RELEASE);
    return true;
}

// ---- guards ------------------------------------------------------------------------------------------------

// False when the body has faulted. A fault jumps over what the body was in: there nothing needs its destructors.
__attribute__((noinline)) bool guarded(a_crash& crash, void (*body)(a_crash&))
{
    sigjmp_buf guard;
    sigjmp_buf* const outer = crash.guard;
    const bool whole = sigsetjmp(guard, 1) == 0;
    if (whole) {
        crash.guard = &guard;
        body(crash);
    }
    crash.guard = outer;
    return whole;
}

void look_up_callback(a_crash& crash) { ut_find_place(crash.place, reinterpret_cast<uint64>(crash.callback)); }
void look_up_fault(a_crash& crash) { ut_find_place(crash.place, crash.fault_pc); }
void look_up_pc(a_crash& crash) { ut_find_place(crash.place, ut_crash_record.pc); }
void look_up_build_id(a_crash& crash) { ut_find_build_id(crash.place); }

// ---- texts -------------------------------------------------------------------------------------------------

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

void put_signal(a_text& text, const a_signal_text& what)
{
    const char* const name = sigabbrev_np(what.sig);
    const char* const code = code_text(what.sig, what.code);
    text.put("signal ", what.sig);
    if (name != nullptr)
        text.put(" SIG", name);
    text.put(" code ", what.code);
    if (code != nullptr)
        text.put(" (", code, ")");
    if (has_address(what.sig, what.code)) {
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
    guarded(crash, look_up_callback);
    put_place(text, crash.place);
}

void put_fault(a_text& text, a_crash& crash)
{
    guarded(crash, look_up_fault);
    put_place(text, crash.place);
    text.str(": ");
    put_signal(text, crash.fault);
}

// A child that a callback has forked says nothing.
int fd_for(const a_crash& crash) { return crash.process == getpid() ? report.fd : -1; }

void note_fault(a_crash& crash)
{
    an_output out;
    a_line line(out, fd_for(crash), "\n", line_begin);
    put_running(line.text, crash);
    line.text.str(" is skipped, fault at ");
    put_fault(line.text, crash);
}

void note_limit(a_crash& crash)
{
    an_output out;
    a_line line(out, fd_for(crash), "\n", line_begin);
    put_running(line.text, crash);
    line.text.put(" has not ended within ", crash.limit, " s: the process ends");
}

// ---- the report --------------------------------------------------------------------------------------------

void append(void* to, const char* text, size_t len)
{
    a_file_name& name = *static_cast<a_file_name*>(to);
    const size_t room = sizeof name.text - 1 - name.size;
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
    for (const char* at = settings.pattern; *at != '\0'; at++) {
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

// In the thread's own folder: the process's has no link when the main thread has ended.
void read_program()
{
    const ssize_t len = readlink("/proc/thread-self/exe", report.program, sizeof report.program - 1);
    report.program[len > 0 ? len : 0] = '\0';
}

// A file that cannot be opened sends the report to the standard error stream.
void open_report()
{
    if (settings.destination != to_file)
        return;
    make_file_name();
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
    if (guarded(crash, look_up_pc) && crash.place.module != nullptr) {
        text.chr(' ');
        put_place(text, crash.place);
        guarded(crash, look_up_build_id);
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
    const bool nowhere = has_address(r.sig, r.code) && r.address == r.pc;
    ut_find_callers(report.callers, *static_cast<ucontext_t*>(crash.call.context), nowhere);
}

void look_up_caller(a_crash& crash) { ut_find_place(crash.place, report.caller); }

void put_callers(a_text& text, a_crash& crash)
{
    const bool whole = guarded(crash, find_callers);
    auto& registers = static_cast<ucontext_t*>(crash.call.context)->uc_mcontext.gregs;
    memcpy(registers, ut_crash_record.registers, sizeof registers);
    const a_caller_list& callers = report.callers;
    for (uint32 i = 0; i < callers.count; i++) {
        text.put(line_begin, '#', i + 1, ' ');
        report.caller = callers.pcs[i];
        guarded(crash, look_up_caller);
        put_place(text, crash.place);
        text.eol();
        keep_offset(crash.place);
    }
    if (whole && !callers.more)
        return;
    text.put(line_begin, "backtrace ends here: ");
    if (whole) {
        text.put("more than ", ut_max_callers, " callers");
    } else {
        text.str("fault at ");
        put_fault(text, crash);
    }
    text.eol();
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

// What tells the cause is written before the unwinder begins.
void write_report(a_crash& crash)
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
    put_callers(text, crash);
    put_symbols(text);
    text.put(line_begin, "CRASH END");
    text.eol();
    put_open_error(text);
    text.flush();
    report.out.close();
}

// ---- the parts of a crash, each in a guard -----------------------------------------------------------------

void call_began(a_crash& crash)
{
    crash.hooks->began(ut_crash_record.sig, ut_crash_record.code, reinterpret_cast<void*>(ut_crash_record.address));
}

void call_dump(a_crash& crash) { crash.hooks->dump(); }

void call_callback(a_crash& crash)
{
    const an_onsig_call& call = crash.call;
    crash.callback(call.sig, crash.callback_arg, call.chained, call.chaining, call.cleanup, call.siginfo, call.context);
}

void run_part(a_crash& crash, const char* name, void (*body)(a_crash&))
{
    crash.part = name;
    if (!guarded(crash, body))
        note_fault(crash);
}

void run_callback(a_sig_handler_func func, void* arg, const an_onsig_call&)
{
    a_crash& crash = *crash_now;
    const a_sig_handler_func outer = crash.callback;
    crash.callback = func;
    crash.callback_arg = arg;
    run_part(crash, "", call_callback);
    crash.callback = outer;
}

// ---- the limit ---------------------------------------------------------------------------------------------

// One that the limit has interrupted is not run again.
void run_another(a_sig_handler_func func, void* arg, const an_onsig_call& call)
{
    if (func != crash_now->callback || arg != crash_now->callback_arg)
        run_callback(func, arg, call);
}

// By plain system calls: the C library's timers may make a thread.
int start_timer(int notify, int sig, unsigned seconds)
{
    struct sigevent event = {};
    event.sigev_notify = notify;
    event.sigev_signo = sig;
    event._sigev_un._tid = gettid();
    const struct itimerspec time = {{}, {time_t(seconds), 0}};
    int timer = -1;
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0)
        return -1;
    syscall(SYS_timer_settime, timer, 0, &time, nullptr);
    return timer;
}

void stop_timers(const a_crash& crash)
{
    for (const int timer : crash.timers)
        if (timer >= 0)
            syscall(SYS_timer_delete, timer);
}

// The part that was running never goes on. Without the timers: writing a core may take its time.
ENDS_THE_PROCESS void limit_is_over(int, siginfo_t*, void*)
{
    if (crash_now == nullptr)
        return;
    a_crash& crash = *crash_now;
    ut_onsig_call_range(onsig_cleanup_priority, onsig_cleanup_priority, crash.call, run_another);
    note_limit(crash);
    stop_timers(crash);
    if (!is_crash_signal(crash.call.sig))
        ut_want_no_core();
    unix_abort_by_default();
}

// Lets faults, and the end of the limit, through.
void enter(a_crash& crash, sigset_t& kept)
{
    const int limit_signal = SIGRTMAX - 1;
    sigset_t through;
    sigemptyset(&through);
    for (const int sig : crash_signals)
        sigaddset(&through, sig);
    sigaddset(&through, limit_signal);
    crash_now = &crash;
    if (crash.limit > 0 && unix_handle_signal_keeping(limit_signal, limit_is_over, nullptr)) {
        crash.timers[0] = start_timer(SIGEV_THREAD_ID, limit_signal, crash.limit);
        crash.timers[1] = start_timer(SIGEV_SIGNAL, SIGKILL, crash.limit + last_resort);
    }
    pthread_sigmask(SIG_UNBLOCK, &through, &kept);
}

void leave(const a_crash& crash, const sigset_t& kept)
{
    stop_timers(crash);
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
    crash_now = nullptr;
}

unsigned seconds_of(const char* text)
{
    unsigned seconds = 0;
    for (; *text >= '0' && *text <= '9' && seconds < max_limit; text++)
        seconds = seconds * 10 + unsigned(*text - '0');
    return seconds < max_limit ? seconds : max_limit;
}

// A pattern that is too long sends reports to the standard error stream. Not signal-safe: it changes what the handler
// reads.
a_destination set_destination(const char* value)
{
    if (value == nullptr)
        return unset;
    if (*value == '\0' || strcmp(value, "off") == 0)
        return off;
    const size_t size = strlen(value) + 1;
    if (strcmp(value, "stderr") == 0 || size > sizeof settings.pattern)
        return to_stderr;
    memcpy(settings.pattern, value, size);
    return to_file;
}

}  // namespace

void ut_crash_configure()
{
    const char* const limit = ut_getenv2("ZT_CRASH_TIMEOUT");
    settings.limited = limit != nullptr && *limit >= '0' && *limit <= '9';
    settings.limit = settings.limited ? seconds_of(limit) : 0;
    settings.destination = set_destination(ut_getenv2("ZT_CRASH_REPORT"));
    if (!ut_crash_reports())
        return;
    ut_zone_refresh();
    ut_prepare_callers();
}

bool ut_crash_reports() { return reports(unix_get_crash_hooks()); }

int ut_crash_patience_ms()
{
    const unsigned limit = limit_for(unix_get_crash_hooks());
    return usual_patience + (limit > 0 ? int(limit + last_resort) * 1000 : 0);
}

// In a child that a callback has forked the signal has its default action: no callback runs, and forks, again. An abort
// on this thread counts as a fault of what it is in.
bool ut_crash_interrupted(int sig, const siginfo_t* info, const void* context)
{
    a_crash* const crash = crash_now;
    if (crash == nullptr)
        return false;
    if (crash->process != getpid()) {
        unix_raise_by_default(sig);
        return true;
    }
    const bool aborts = sig == SIGABRT && info->si_code == SI_TKILL && info->si_pid == crash->process;
    if (!aborts && !(is_crash_signal(sig) && info->si_code > 0))
        return true;
    if (crash->guard == nullptr)
        unix_abort_by_default();
    crash->fault = {sig, info->si_code, has_address(sig, info->si_code) ? uint64(info->si_addr) : 0};
    crash->fault_pc = pc_of(context);
    siglongjmp(*crash->guard, 1);
}

void ut_crash_run(const an_onsig_call& call)
{
    const bool first = keep_record(call);
    const a_crash_hooks* const hooks = unix_get_crash_hooks();
    const unsigned limit = limit_for(hooks);
    if (!reports(hooks) && hooks == nullptr && limit == 0) {
        ut_onsig_call_now(call.sig, call.chained, call.chaining, call.cleanup, call.siginfo, call.context);
        return;
    }
    sigset_t kept;
    a_crash crash = {call, hooks, limit};
    read_program();
    enter(crash, kept);
    if (first && reports(hooks))
        run_part(crash, "the crash report", write_report);
    if (first && hooks != nullptr)
        run_part(crash, "the history's event", call_began);
    ut_onsig_call_range(0, onsig_cleanup_priority - 1, call, run_callback);
    if (first && hooks != nullptr && crash.process == getpid())
        run_part(crash, "the history's dump", call_dump);
    ut_onsig_call_range(onsig_cleanup_priority, onsig_last_priority, call, run_callback);
    leave(crash, kept);
}
