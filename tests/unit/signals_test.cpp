// The library's signal handlers, each case in a forked process that may die of its signal.
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include "corvex/onsig.h"
#include "tests/child.h"
#include "utils/unix/unixsigs.h"
#include "utils/unix/utcore.h"
#include "utils/unix/utending.h"

// Stands in for the delay before the abort.
extern "C" unsigned sleep(unsigned seconds)
{
    say("sleep %u\n", seconds);
    return 0;
}

namespace {

constexpr int handled[] = {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGHUP, SIGINT, SIGQUIT, SIGTERM};
struct sigaction passed_to;

void callback(int sig, void*, a_bool chained, a_bool chaining, a_bool cleanup, void* siginfo, void* context)
{
    const bool whole = static_cast<siginfo_t*>(siginfo)->si_signo == sig && context != nullptr;
    say("chain %d%s%s%s will %d\n", whole ? sig : -1, chained ? " chained" : "", chaining ? " chaining" : "",
        cleanup ? " cleanup" : "", ut_onsig_will_do_cleanup());
}
void earlier(int sig, siginfo_t* siginfo, void*) { say("earlier %d\n", siginfo->si_signo == sig ? sig : -1); }
void later(int sig, siginfo_t* siginfo, void* context) { passed_to.sa_sigaction(sig, siginfo, context); }
void say_core_limit(int)
{
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    say("core %lu of %lu\n", limit.rlim_cur, limit.rlim_max);
}

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
    const bool foreign = now.sa_sigaction == earlier || now.sa_sigaction == later;
    say("%d %s%s%s%s", sig,
        now.sa_handler == SIG_DFL ? "default"
        : foreign                 ? "foreign"
                                  : "library",
        now.sa_flags & SA_RESTART ? " restart" : "", now.sa_flags & SA_NODEFER ? " nodefer" : "",
        now.sa_flags & SA_ONSTACK ? " onstack" : "");
    for (int i = 1; i < NSIG && now.sa_handler != SIG_DFL; i++)
        if (sigismember(&now.sa_mask, i) == 1)
            say(" blocks %d", i);
    say("\n");
}

void alternate_stack(int flags)
{
    static char bytes[65536];
    const stack_t stack = {bytes, flags, sizeof bytes};
    sigaltstack(&stack, nullptr);
}

// A child with one callback, default dispositions, no alternate stack (sanitizers leave both) and one variable.
template <typename F>
a_child in_fresh_child(const char* name, const char* value, F body)
{
    return in_child([&] {
        for (int sig : handled)
            signal(sig, SIG_DFL);
        alternate_stack(SS_DISABLE);
        setenv(name, value, 1);
        ut_onsig_call_add(0, callback, nullptr);
        body();
    });
}

TEST(SignalHandlers, AreInstalledAsTheModeSays)
{
    const std::string none, crash = "4 6 7 8 11 ", all = "1 2 3 " + crash + "15 ";
    const std::pair<const char*, std::string> modes[] = {
        {"no", none}, {"N", none},     {"crash", crash},
        {"C", crash}, {"Safe", crash}, {"s", crash},
        {"", all},    {"yes", all},    {"longer than its buffer", all}};
    for (const auto& [mode, installed] : modes)
        EXPECT_EQ(installed, in_fresh_child("ZT_INSTALL_SIG_HANDLERS", mode,
                                            [] {
                                                ut_onsig_install_signal_handlers(TRUE);
                                                for (int sig = 1; sig < NSIG; sig++)
                                                    if (unix_current_handler(sig) != nullptr)
                                                        say("%d ", sig);
                                            })
                                 .said)
            << mode;
}

TEST(SignalHandlers, PassTheSignalOnAndPutDispositionsBackWhole)
{
    const a_child child = in_fresh_child("-", "", [] {
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
        for (int sig : {SIGTERM, SIGHUP})
            say_disposition(sig);
        handle(SIGHUP, earlier);
        ut_onsig_install_signal_handlers(FALSE);
        raise(SIGHUP);
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("chain 15 chaining will 0\nearlier 15\n15 library restart onstack blocks 15\n"
              "chain 15 chained chaining will 0\nearlier 15\n15 foreign nodefer blocks 12\n"
              "15 foreign nodefer blocks 12\n1 default\n"
              "chain 1 chaining will 0\nearlier 1\n",
              child.said);
}

TEST(SignalHandlers, EndTheProcessOfATerminationSignalWithoutACore)
{
    const std::string no_core = "core 0 of 8192\n";
    const auto expect = [](const char* variable, const char* value, const std::string& end) {
        const a_child child = in_fresh_child(variable, value, [] {
            const rlimit limit = {4096, 8192};
            setrlimit(RLIMIT_CORE, &limit);
            signal(SIGABRT, say_core_limit);  // put back by the clean-up, so it sees the abort
            ut_onsig_install_signal_handlers(FALSE);
            raise(SIGTERM);
        });
        EXPECT_EQ(SIGABRT, child.status);
        EXPECT_EQ("chain 15 cleanup will 1\n" + end, child.said) << value;
    };
    expect("-", "", no_core);
    expect("ZT_ALWAYS_GEN_CORE", "", "core 4096 of 8192\n");
    const char* delays[][2] = {{"", "2"},
                               {"0", "0"},
                               {"7x", "7"},
                               {"-5", "0"},
                               {"none", "0"},
                               {"00000005", "5"},
                               {"3600", "3600"},
                               {"99999999999", "3600"},
                               {"42949672960", "3600"}};
    for (const auto& [value, seconds] : delays)
        expect("ZT_LINUX_COREDUMP_DELAY", value, std::string("sleep ") + seconds + "\n" + no_core);
}

void abort_again(int sig, void*, a_bool, a_bool, a_bool, void*, void*)
{
    if (sig == SIGABRT)
        raise(SIGABRT);  // as another process may: it is pending until the handler's own
}

// Removal leaves a crash-only installation in place, so the abort comes back to the handler: once.
TEST(SignalHandlers, EndByAbortAlsoAfterCrashOnlyInstallations)
{
    for (int sig : {SIGFPE, SIGABRT}) {
        const a_child child = in_fresh_child("ZT_INSTALL_SIG_HANDLERS", "crash", [&] {
            ut_onsig_call_add(1, abort_again, nullptr);
            ut_onsig_install_signal_handlers(FALSE);
            ut_onsig_install_signal_handlers(FALSE);
            ut_onsig_remove_signal_handlers();
            raise(sig);
        });
        EXPECT_EQ(SIGABRT, child.status);
        EXPECT_EQ("chain " + std::to_string(sig) + " cleanup will 1\nchain 6 cleanup will 1\n", child.said);
    }
}

// Whose signals' default action does nothing.
TEST(SignalHandlers, EndTheFirstProcessOfAContainer)
{
    for (const char* mode : {"crash", "all"}) {
        const a_child child = in_fresh_child("ZT_INSTALL_SIG_HANDLERS", mode, [] {
            if (unshare(CLONE_NEWPID) != 0)
                return say("no container");
            if (fork() == 0) {
                ut_onsig_install_signal_handlers(FALSE);
                raise(SIGABRT);
                _exit(0);
            }
            int status;
            wait(&status);
            say("status %d", status);
        });
        const std::string once = "chain 6 cleanup will 1\n", twice = once + once;
        if (child.said == "no container")
            GTEST_SKIP() << "only root makes containers";
        EXPECT_EQ(child.said, (*mode == 'c' ? twice : once) + "status 11");
    }
}

__attribute__((noinline)) int overflow(volatile char* above)
{
    volatile char frame[4096];
    frame[0] = *above;
    return frame[0] == 1 ? 0 : overflow(frame) + frame[0];
}

void fork_and_abort(int, void*, a_bool, a_bool, a_bool, void*, void*)
{
    const pid_t child = fork();
    if (child == 0)
        abort();
    waitpid(child, nullptr, 0);
}

TEST(SignalHandlers, EndForkingCallbacksAndSpareTheParentOfAVforkedChild)
{
    const a_child forking = in_fresh_child("-", "", [] {
        ut_onsig_call_add(1, fork_and_abort, nullptr);
        ut_onsig_install_signal_handlers(FALSE);
        raise(SIGSEGV);
    });
    EXPECT_EQ(forking.said, "chain 11 cleanup will 1\nchain 6 cleanup will 1\n")
        << "one core of a copy, not a chain of them";
    EXPECT_EQ(forking.status, SIGABRT);
#ifndef __SANITIZE_THREAD__  // which makes a vfork a fork
    const a_child parent = in_fresh_child("-", "", [] {
        handle(SIGHUP, earlier);
        ut_onsig_install_signal_handlers(FALSE);
        const pid_t child = vfork();
        if (child == 0) {
            raise(SIGHUP);
            raise(SIGINT);
            _exit(0);
        }
        int status;
        waitpid(child, &status, 0);
        say("died of %d, will %d\n", status, ut_onsig_will_do_cleanup());
        raise(SIGTERM);
    });
    EXPECT_EQ(parent.said, "earlier 1\ndied of 2, will 0\nchain 15 cleanup will 1\n");
    EXPECT_EQ(parent.status, SIGABRT);
#endif
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which have stacks and frames of their own
TEST(SignalHandlers, UseAnAlternateStackThatCameAfterTheirInstallation)
{
    const a_child overflown = in_fresh_child("-", "", [] {
        volatile char start = 0;
        ut_onsig_install_signal_handlers(FALSE);
        alternate_stack(0);
        overflow(&start);
    });
    EXPECT_EQ(SIGABRT, overflown.status);
    EXPECT_EQ("chain 11 cleanup will 1\n", overflown.said);
}
#endif

TEST(Ending, WaitsForStreamsShareTwoSeconds)
{
    const a_child child = in_child([] {
        say("%d ", unix_ending_wait_ms(5000));
        unix_process_ends();
        say("%d ", unix_ending_wait_ms(1000));
        unix_ending_wait_ms(-400);  // the wait was over sooner
        unix_process_ends();        // by a signal in the shut-down
        say("%d ", unix_ending_wait_ms(1000));
        for (const char* which : {"", "child "}) {
            if (*which != '\0' && fork() != 0)
                return void(wait(nullptr));
            say("%s%d, then %d ", which, unix_process_is_ending(), unix_ending_wait_ms(1000));
        }
    });
    EXPECT_EQ(child.said, "5000 1000 1000 1, then 300 child 0, then 1000 ");
}

}  // namespace
