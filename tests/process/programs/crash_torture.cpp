// crash_torture.cpp: crash_torture ROUNDS [SEED]: processes crash at random instants, in whatever their threads do, and
// must end in time by SIGABRT, with one whole report, one whole dump and no kernel set left. What is wrong is told with
// the seed that repeats it; the files are in the directory of that name.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>

#include "corvex/corvex.h"

namespace {

FILE* null;
volatile int *no_address, *no_page;

const an_os_thread_start_address occupations[] = {
    [](void*) { free(malloc(size_t(random()) % 3000)); },
    [](void*) { fprintf(null, "%s %f %ld\n", "printed", 1e100, random()); },
    [](void*) { dlclose(dlopen("libBrokenLocale.so.1", RTLD_NOW)); },
    [](void*) {
        OS_WaitOnThreadTermination(OS_Begin_Thread_Attachable([](void*) {}, nullptr, 1, nullptr, "new", TRUE));
    },
    [](void*) {
        UT_HIST_SCOPE(UT_HIST_ID_TEXT("torture"), "span");
        UT_HIST_EV(UT_HIST_ID_TEXT("torture"), "event", random());
    },
    [](void*) { random() % 2 ? ut_hist_dump_to_log() : ut_hist_dump_to_file(null); },
    [](void*) {
        a_sysv_semaphore s = {};
        if (sysv_open_semaphore(&s, 1))
            sysv_close_semaphore(&s);
    },
};
enum a_victim { MAIN = std::size(occupations), ANYONE, VICTIMS };

int overflow(int depth)
{
    volatile char frame[1000] = {char(depth)};
    return depth == 0 ? 0 : overflow(depth - 1) + frame[0];
}

// A signal sent to the thread, or raised by a fault inside a handler of the program, on top of whatever it was in.
struct a_crash {
    int signal;
    void (*fault)();
};
void to_no_address() { *no_address = 1; }
void to_no_page() { *no_page = 1; }
void to_no_stack() { overflow(1 << 30); }
const a_crash crashes[] = {{SIGTERM, nullptr}, {SIGABRT, nullptr},       {SIGSEGV, nullptr},   {SIGBUS, nullptr},
                           {SIGABRT, abort},   {SIGSEGV, to_no_address}, {SIGBUS, to_no_page}, {SIGSEGV, to_no_stack}};

// One crash, or those of two threads at once: in one thread the kernel may begin two handlers together, and a fault in
// the second whose signal the first has blocked ends the process.
struct a_plan {
    explicit a_plan(long seed)
    {
        std::mt19937 next{unsigned(seed)};
        delay = next() % 20000;
        for (int i = 0; i < 2; i++) {
            victim[i] = next() % (VICTIMS - i);
            // A thread which is just starting has no second stack yet.
            crash[i] = crashes[next() % (victim[i] == ANYONE ? 4 : std::size(crashes))];
        }
        count = next() % 4 > 0 || victim[0] == ANYONE || victim[0] == victim[1] ? 1 : 2;
    }
    unsigned delay, count, victim[2];
    a_crash crash[2];
};

int crash_as_planned(const a_plan& plan)
{
    prctl(PR_SET_DUMPABLE, 0);  // no core
    null = fopen("/dev/null", "w");
    no_page = static_cast<int*>(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, memfd_create("empty", 0), 0));
    struct sigaction upon = {};
    upon.sa_sigaction = [](int, siginfo_t* info, void*) { reinterpret_cast<void (*)()>(info->si_ptr)(); };
    upon.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR2, &upon, nullptr);
    OS_Init();
    ut_onsig_install_signal_handlers(FALSE);
    pthread_t threads[VICTIMS] = {};
    threads[MAIN] = pthread_self();
    const auto body = [](void* number) {
        for (;;)
            occupations[a_ptrint(number)](nullptr);
    };
    for (a_ptrint i = 0; i < MAIN; i++)
        threads[i] = OS_Begin_Thread_Attachable(body, nullptr, 1, reinterpret_cast<void*>(i), "busy", TRUE)->tid;
    usleep(plan.delay);
    for (unsigned i = 0; i < plan.count; i++) {
        const auto [signal, fault] = plan.crash[i];
        if (plan.victim[i] == ANYONE) {  // but this one
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            kill(getpid(), signal);
        } else {
            pthread_sigqueue(threads[plan.victim[i]], fault != nullptr ? SIGUSR2 : signal,
                             {.sival_ptr = reinterpret_cast<void*>(fault)});
        }
    }
    return pause();
}

std::string read_file(const char* name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What is wrong with the end of the process, whose files are here; nothing when all is well.
std::string faults(pid_t pid, const a_plan& plan)
{
    int status = -1;
    waitpid(pid, &status, 0);
    const int sig = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    const int first = plan.crash[0].signal, last = plan.crash[plan.count - 1].signal;
    // Of two signals one may come when the handlers are gone.
    const bool ended = sig == SIGABRT || (plan.count == 2 && (sig == first || sig == last));
    char reports[200];
    snprintf(reports, sizeof reports,
             "(.* CRASH @ .* pid=%d .*\n.* signal (%d|%d) .*\n(.*[^D]\n)+.* CRASH END\n){1,%u}", pid, first, last,
             plan.count);
    const bool reported = std::regex_match(read_file("crash.txt"), std::regex(reports));
    // Each dump begins the file anew.
    const std::string dump = read_file("dump.txt"), end = "\n********** HISTORY THREADS END **********\n";
    const bool dumped = dump.starts_with("********** HISTORY DUMP BIGIN ") && dump.ends_with(end) &&
                        dump.find("\n********** HISTORY DUMP END ") < dump.find(end);
    const bool removed = read_file("/proc/sysvipc/sem").ends_with("ctime\n");
    return (ended ? "" : " status " + std::to_string(status)) + (reported ? "" : " report") + (dumped ? "" : " dump") +
           (removed ? "" : " sets");
}

}  // namespace

int main(int argc, char** argv)
{
    const long rounds = atol(argv[1]), begin = argc > 2 ? atol(argv[2]) : time(nullptr);
    if (rounds == 0)  // "crash"
        return crash_as_planned(a_plan(begin));
    for (const char* variable : {"UT_HIST=n50l=dump.txt", "UT_HIST_EXT=all", "ZT_CRASH_REPORT=crash.txt"})
        putenv(const_cast<char*>(variable));
    for (long seed = begin; seed < begin + rounds; seed++) {
        const std::string dir = std::to_string(seed);
        std::filesystem::create_directory(dir);
        std::filesystem::current_path(dir);
        unshare(CLONE_NEWIPC);  // without the right to, there must be no sets at all
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);  // which the program inherits: less than ZT_CRASH_TIMEOUT
            dup2(open("stderr.txt", O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
            execl("/proc/self/exe", argv[0], "crash", dir.c_str(), nullptr);
        }
        const std::string wrong = faults(child, a_plan(seed));
        std::filesystem::current_path("..");
        if (wrong.empty())
            std::filesystem::remove_all(dir);
        else
            dprintf(STDOUT_FILENO, "%s:%s\n", dir.c_str(), wrong.c_str());
    }
    return 0;
}
