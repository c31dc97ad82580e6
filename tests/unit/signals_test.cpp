// The chain of on-signal callbacks, and the library's signal handlers, each case in a forked process that may die of
// its signal.
#include <signal.h>
#include <sys/resource.h>

#include "corvex/onsig.h"
#include "tests/child.h"
#include "utils/unix/sysvsemo.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utcore.h"

// Stands in for the delay before the abort.
extern "C" unsigned sleep(unsigned seconds)
{
    say("sleep %u\n", seconds);
    return 0;
}

namespace {

std::string ran;
std::atomic<int> steady_runs;

void note(int, void* arg, a_bool, a_bool, a_bool, void*, void*) { ran += static_cast<const char*>(arg); }
void remove_other(int, void* arg, a_bool, a_bool, a_bool, void*, void*) { ut_onsig_call_del(arg, note); }
void steady(int, void*, a_bool, a_bool, a_bool, void*, void*) { steady_runs++; }
void passing(int, void*, a_bool, a_bool, a_bool, void*, void*) {}

void* add(int priority, const char* name) { return ut_onsig_call_add(priority, note, const_cast<char*>(name)); }

std::string run_chain()
{
    ran.clear();
    return ut_onsig_call_now(15, FALSE, FALSE, TRUE, nullptr, nullptr), ran;
}

TEST(OnSignalChain, RunsEightSlotsByPriorityFrom0To32000AndReusesTheLowestFreedOne)
{
    sysv_list_fini_semaphore();  // it has a slot
    void* slots[] = {add(5, "a"),     add(1, "b"),     add(5, "c"),  add(0, "d"),
                     add(32000, "z"), add(32001, "!"), add(-1, "!"), add(5, "e")};
    EXPECT_EQ(nullptr, add(1, "!")) << "a ninth registration";
    ut_onsig_call_del(nullptr, note);
    ut_onsig_call_del(slots[2], passing);
    EXPECT_EQ("dbacez", run_chain()) << "a null handle and another's routine remove nothing";
    ut_onsig_call_del(slots[7], note);
    ut_onsig_call_del(slots[2], note);
    EXPECT_EQ(slots[2], ut_onsig_call_add(0, remove_other, slots[0]));
    ut_onsig_call_del(slots[2], note);
    EXPECT_EQ("dbz", run_chain())
        << "a stale handle leaves the slot's next owner alone; what that removes is not called";
    ut_onsig_call_del(slots[2], remove_other);
    for (void* slot : slots)
        ut_onsig_call_del(slot, note);
    sysv_list_init_semaphore();
}

TEST(OnSignalChain, NeitherLosesNorRepeatsACallbackBesideRegistrations)
{
    void* handles[] = {ut_onsig_call_add(10, steady, nullptr), ut_onsig_call_add(20, steady, nullptr)};
    const auto churn = [n = 0]() mutable {
        ut_onsig_call_del(ut_onsig_call_add(n++ % 2 == 0 ? 5 : 40, passing, nullptr), passing);
    };
    const std::jthread one = repeated(churn), two = repeated(churn);
    int wrong = 0;
    for (int round = 0; round < 200000; round++) {
        steady_runs = 0;
        ut_onsig_call_now(1, FALSE, FALSE, FALSE, nullptr, nullptr);
        wrong += steady_runs != 2;
    }
    EXPECT_EQ(0, wrong) << "each steady registration runs once per chain";
    for (void* handle : handles)
        ut_onsig_call_del(handle, steady);
}

struct sigaction passed_to;

void callback(int sig, void*, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo, void* context)
{
    const bool whole = static_cast<siginfo_t*>(siginfo)->si_signo == sig && context != nullptr;
    say("chain %d%s%s%s will %d\n", whole ? sig : -1, chained ? " chained" : "", chaining ? " chaining" : "",
        cleanup ? " cleanup" : "", ut_onsig_will_do_cleanup());
}
void earlier(int sig, siginfo_t* siginfo, void*) { say("earlier %d\n", siginfo->si_signo == sig ? sig : -1); }
void later(int sig, siginfo_t* siginfo, void* context) { passed_to.sa_sigaction(sig, siginfo, context); }

// Puts a handler with flags and a mask of its own in place.
void handle(int sig, void (*handler)(int, siginfo_t*, void*), struct sigaction* old = nullptr)
{
    struct sigaction disposition = {};
    disposition.sa_sigaction = handler;
    disposition.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaddset(&disposition.sa_mask, SIGUSR2);
    sigaction(sig, &disposition, old);
}

void say_disposition(int sig)
{
    struct sigaction now;
    sigaction(sig, nullptr, &now);
    const char* whose = now.sa_handler == SIG_DFL ? "default" : "library";
    if (now.sa_sigaction == earlier || now.sa_sigaction == later)
        whose = "foreign";
    say("%d %s flags %x mask %lx\n", sig, whose, unsigned(now.sa_flags & (SA_RESTART | SA_NODEFER | SA_ONSTACK)),
        now.sa_handler == SIG_DFL ? 0 : now.sa_mask.__val[0]);
}

// What a child with one callback, default dispositions (sanitizers leave theirs) and a variable says, and its end.
template <typename F>
std::string in_fresh_child(const std::string& variable, F body)
{
    const a_child child = in_child([&] {
        for (int sig : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            signal(sig, SIG_DFL);
        putenv(strdup(variable.c_str()));
        ut_onsig_call_add(0, callback, nullptr);
        body();
    });
    return child.said + "status " + std::to_string(child.status);
}

TEST(SignalHandlers, AreInstalledAsTheModeSays)
{
    const auto say_handled = [] {
        ut_onsig_install_signal_handlers(TRUE);
        for (int sig = 1; sig < NSIG; sig++)
            if (unix_current_handler(sig) != nullptr)
                say("%d ", sig);
    };
    const std::string none, crash = "4 6 7 8 11 ", all = "1 2 3 " + crash + "15 ";
    const std::pair<const char*, std::string> modes[] = {{"no", none}, {"N", none}, {"crash", crash},
                                                         {"S", crash}, {"", all},   {"longer than its buffer", all}};
    for (const auto& [mode, installed] : modes)
        EXPECT_EQ(installed + "status 0", in_fresh_child(std::string("ZT_INSTALL_SIG_HANDLERS=") + mode, say_handled));
}

TEST(SignalHandlers, PassTheSignalOnAndPutDispositionsBackWhole)
{
    EXPECT_EQ(
        "chain 15 chaining will 0\nearlier 15\n15 library flags 18000000 mask 4000\n"         // restart, on stack
        "chain 15 chained chaining will 0\nearlier 15\n15 foreign flags 40000000 mask 800\n"  // no defer
        "15 foreign flags 40000000 mask 800\n1 default flags 0 mask 0\nchain 1 chaining will 0\nearlier 1\nstatus 0",
        in_fresh_child("-=", [] {
            handle(SIGTERM, earlier);
            signal(SIGHUP, SIG_IGN);
            ut_onsig_install_signal_handlers(FALSE);
            ut_onsig_install_signal_handlers(FALSE);
            raise(SIGTERM);
            say_disposition(SIGTERM);
            handle(SIGTERM, later, &passed_to);
            raise(SIGTERM);
            say_disposition(SIGTERM);
            ut_onsig_remove_signal_handlers();
            say_disposition(SIGTERM), say_disposition(SIGHUP);
            handle(SIGHUP, earlier);
            ut_onsig_install_signal_handlers(FALSE);
            raise(SIGHUP);
        }));
}

TEST(SignalHandlers, EndTheProcessOfATerminationSignalWithoutACore)
{
    const std::string began = "chain 15 cleanup will 1\n", delay = "ZT_LINUX_COREDUMP_DELAY=";
    const auto terminate = [] {
        const rlimit limit = {4096, 8192};
        setrlimit(RLIMIT_CORE, &limit);
        signal(SIGABRT, [](int) {  // put back by the clean-up, so it sees the abort
            rlimit now;
            getrlimit(RLIMIT_CORE, &now);
            say("core %lu of %lu\n", now.rlim_cur, now.rlim_max);
        });
        ut_onsig_install_signal_handlers(FALSE);
        raise(SIGTERM);
    };
    const std::pair<std::string, const char*> cases[] = {{"-=", ""},
                                                         {delay, "sleep 2\n"},
                                                         {delay + "7x", "sleep 7\n"},
                                                         {delay + "-5", "sleep 0\n"},
                                                         {delay + "42949672960", "sleep 3600\n"}};
    for (const auto& [variable, slept] : cases)
        EXPECT_EQ(began + slept + "core 0 of 8192\nstatus 6", in_fresh_child(variable, terminate)) << variable;
    EXPECT_EQ(began + "core 4096 of 8192\nstatus 6", in_fresh_child("ZT_ALWAYS_GEN_CORE=", terminate));
}

volatile int* volatile unmapped = reinterpret_cast<int*>(0x10);

constexpr a_crash_hooks hooks = {
    [](int sig, int code, const void* address) { say("began %d %d %d, ", sig, code, address == unmapped); },
    [] {
        say("dump, ");
        raise(SIGSEGV);  // sent, not a fault: nothing
        *unmapped = 0;
    },
    [] { return int32(7); }};

void say_number(int, void* number, a_bool, a_bool, a_bool, void*, void*) { say("%ld, ", long(a_ptrint(number))); }

// Once, also where the abort comes back to the handler.
TEST(CrashHooks, RunBehindTheReportAndBeforeTheLibrarysCleanup)
{
    const std::string said = in_fresh_child("ZT_INSTALL_SIG_HANDLERS=crash", [] {
        dup2(child_pipe[1], STDERR_FILENO);
        for (const a_ptrint priority : {1, 999, 1000})
            ut_onsig_call_add(int(priority), say_number, reinterpret_cast<void*>(priority));
        unix_set_crash_hooks(&hooks);
        ut_onsig_install_signal_handlers(FALSE);
        *unmapped = 0;
    });
    EXPECT_NE(said.find(" slot=7\n"), std::string::npos) << said;
    const char* const callbacks =
        "CRASH END\nbegan 11 1 1, chain 11 cleanup will 1\n1, 999, dump, ********** the history";
    EXPECT_NE(said.find(callbacks), std::string::npos) << said;
    EXPECT_NE(said.find("address 0x10\n1000, chain 6 cleanup will 1\n1, 999, 1000, "), std::string::npos) << said;
}

// As another process may: it is pending until the handler's own.
void abort_again(int sig, void*, a_bool, a_bool, a_bool, void*, void*) { sig == SIGABRT ? raise(sig) : 0; }

void fork_and_abort(int, void*, a_bool, a_bool, a_bool, void*, void*) { fork() == 0 ? abort() : void(wait(nullptr)); }

TEST(SignalHandlers, EndByAbortOnceAlsoAfterCrashOnlyInstallationsAndWithForkingCallbacks)
{
    const std::string aborted = "chain 6 cleanup will 1\n";
    for (int sig : {SIGFPE, SIGABRT})
        EXPECT_EQ("chain " + std::to_string(sig) + " cleanup will 1\n" + aborted + "status 6",
                  in_fresh_child("ZT_INSTALL_SIG_HANDLERS=crash", [&] {
                      ut_onsig_call_add(1, abort_again, nullptr);
                      ut_onsig_install_signal_handlers(FALSE);
                      ut_onsig_install_signal_handlers(FALSE);
                      ut_onsig_remove_signal_handlers();  // which leaves a crash-only installation in place
                      raise(sig);
                  }));
    EXPECT_EQ("chain 11 cleanup will 1\n" + aborted + "status 6", in_fresh_child("-=", [] {
                  ut_onsig_call_add(1, fork_and_abort, nullptr);
                  ut_onsig_install_signal_handlers(FALSE);
                  raise(SIGSEGV);
              }));
    // The default action of SIGABRT does nothing to the first process of a container.
    const std::string said = in_fresh_child("-=", [] {
        int end = -unshare(CLONE_NEWPID);
        if (end == 0 && fork() == 0)
            ut_onsig_install_signal_handlers(FALSE), raise(SIGABRT), _exit(0);
        wait(&end);
        say("container %d ", end);
    });
    EXPECT_EQ(geteuid() != 0 ? said : aborted + "container 11 status 0", said);
}

TEST(SignalHandlers, SpareTheParentOfAVforkedChild)
{
    if (under_tsan)
        return;  // it makes a vfork a fork
    EXPECT_EQ("earlier 1\ndied of 2, will 0\nchain 15 cleanup will 1\nstatus 6", in_fresh_child("-=", [] {
                  handle(SIGHUP, earlier);
                  ut_onsig_install_signal_handlers(FALSE);
                  const pid_t child = vfork();
                  if (child == 0)
                      raise(SIGHUP), raise(SIGINT), _exit(0);
                  int status;
                  waitpid(child, &status, 0);
                  say("died of %d, will %d\n", status, ut_onsig_will_do_cleanup());
                  raise(SIGTERM);
              }));
}

}  // namespace
