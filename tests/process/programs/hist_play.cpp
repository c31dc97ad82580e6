// hist_play.cpp: plays a script on the event history, one command per argument (the table at the end lists them), under
// a clock that only the script moves and with thread handles that the script chooses.
//
// An event command is its class and then: location, id, text, [@file:line], [pn=count], parameters. "-" stands for null
// or none; ids are those registered by `id`, SIG, Q2, a number behind '#', else texts. At address 0x100000 stand the
// bytes 0, 1, 2, ...
#include <errno.h>
#include <sched.h>
#include <semaphore.h>
#include <setjmp.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "corvex/corvex.h"
#include "streams.h"

namespace {

using an_arg_list = std::vector<std::string>;

struct timeval now = {1700000000, 0};  // 2023/11/14 22:13:20 UTC
std::string trap;                      // played in the trap_after-th look at the clock or at the signal mask from now
int trap_after = 0;
thread_local a_ptrint slot = 0;   // the handle's low bits; 0: the real handle
thread_local bool shown = false;  // the history is being called: it gets to see `slot`
bool in_child = false;
std::map<std::string, a_ut_hist_id> ids;
std::map<std::string, a_ut_hist_loc> locs;
std::deque<std::string> texts;

void play(const std::string& line);

const char* text(const std::string& s) { return s == "-" ? nullptr : texts.emplace_back(s).c_str(); }

a_ut_hist_id id_of(const std::string& name)
{
    if (name[0] == '#')
        return a_ut_hist_id(a_ptrint(std::stoul(name.substr(1))));
    if (name == "-" || name == "SIG" || name == "Q2")
        return name == "-" ? UT_HIST_ID_NONE : name == "Q2" ? UT_HIST_ID_Q2 : UT_HIST_ID_SIGHANDLER;
    return ids.count(name) != 0 ? ids[name] : UT_HIST_ID_TEXT(text(name));
}

void add(int cl, const an_arg_list& args)
{
    const char* file = "play.c";
    uint32 line = 1;
    int32 pn = 0, forced = -99;
    void* p[8] = {};
    for (size_t i = 4; i < args.size(); i++) {
        if (args[i][0] == '@') {
            const size_t colon = args[i].find(':');
            file = text(args[i].substr(1, colon - 1));
            line = uint32(std::stoul(args[i].substr(colon + 1)));
        } else if (args[i].compare(0, 3, "pn=") == 0) {
            forced = std::stoi(args[i].substr(3));
        } else {
            p[pn++] = reinterpret_cast<void*>(std::stoull(args[i], nullptr, 0));
        }
    }
    a_ut_hist_loc* loc =
        args[1] == "-" ? nullptr : &locs.emplace(args[1], a_ut_hist_loc UT_HIST_LOC_INIT).first->second;
    ut_hist_add(file, line, loc, a_ut_hist_cl(cl), id_of(args[2]), text(args[3]), forced != -99 ? forced : pn, p[0],
                p[1], p[2], p[3], p[4], p[5], p[6], p[7]);
}

// A thread that plays commands one by one while the script waits.
struct a_player {
    sem_t go, done;
    std::string line;
    std::thread thread;
    a_player()
    {
        sem_init(&go, 0, 0);
        sem_init(&done, 0, 0);
        thread = std::thread([this] {
            for (;; sem_post(&done)) {
                sem_wait(&go);
                if (line.empty())
                    return;
                play(line);
            }
        });
    }
    void begin(const std::string& command)
    {
        line = command;
        sem_post(&go);
    }
    void hand(const std::string& command)
    {
        begin(command);
        command.empty() ? thread.join() : void(sem_wait(&done));
    }
};
std::map<std::string, a_player>& players =
    *new std::map<std::string, a_player>;  // never destroyed: forked children exit

std::string rest(const an_arg_list& args, size_t from)
{
    std::string line;
    for (size_t i = from; i < args.size(); i++)
        line += (i > from ? " " : "") + args[i];
    return line;
}

void mine(int) { (void)!write(STDOUT_FILENO, "mine\n", 5); }

void raise_usr1(const an_arg_list&)
{
    const bool kept = shown;
    shown = false;  // raise itself asks for the real handle
    errno = 4242;
    raise(SIGUSR1);
    if (errno != 4242)
        printf("errno changed\n");
    shown = kept;
}

void show_handler(const an_arg_list&)
{
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    printf("SIGUSR1 %s\n", action.sa_handler == SIG_DFL   ? "default"
                           : action.sa_handler == SIG_IGN ? "ignored"
                           : action.sa_handler == mine    ? "mine"
                                                          : "history");
}

void fork_child(const an_arg_list& args)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        in_child = true;
        std::istringstream steps(rest(args, 1));
        for (std::string step; std::getline(steps, step, ';');)
            play(step);
        exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    if (status != 0)
        printf("child %x\n", status & ~0x80);  // without a core
}

// Records a text of some length three times over, as file, id and event; behind its NUL no byte can be read.
void add_at_page_end(const an_arg_list& args)
{
    constexpr size_t page = 4096;
    const size_t len = std::stoul(args[1]);
    char* pages =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + page, page, PROT_NONE);
    char* at = pages + page - len - 1;
    for (size_t i = 0; i < len; i++)
        at[i] = char('a' + i % 26);
    ut_hist_add(at, 1, nullptr, UT_HIST_CL_EV, UT_HIST_ID_TEXT(at), at, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr);
}

void show_file(const an_arg_list& args)
{
    FILE* const f = fopen(args[1].c_str(), "r");
    if (f == nullptr)
        printf("no %s\n", args[1].c_str());
    for (int c; f != nullptr && (c = getc(f)) != EOF;)
        putchar(c);
    if (f != nullptr)
        fclose(f);
}

// A link to a file that another user has put into a folder where all may write.
void plant_link(const an_arg_list& args)
{
    if (mkdir("shared", 0700) != 0 || chmod("shared", 01777) != 0 || symlink(args[2].c_str(), args[1].c_str()) != 0 ||
        lchown(args[1].c_str(), uid_t(std::stoul(args[3])), 0) != 0)
        printf("no link\n");
}

// The library's handlers, with a callback that saves the history; kernel sets apart from those of other programs.
void install_handlers(const an_arg_list&)
{
    const struct rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    unshare(CLONE_NEWIPC);
    ut_onsig_call_add(
        1, [](int, void*, a_bool, a_bool, a_bool, void*, void*) { raise(SIGUSR1); }, nullptr);
    ut_onsig_install_signal_handlers(FALSE);
}

void count_sets(const an_arg_list&)
{
    struct seminfo info = {};
    semctl(0, 0, SEM_INFO, &info);
    printf("sets %d\n", info.semusz);
}

sigjmp_buf before_event;

// An event that a trap may leave by a jump.
void leap(const an_arg_list&)
{
    if (sigsetjmp(before_event, 1) == 0)
        UT_HIST_EV(UT_HIST_ID_NONE, "left");
}

std::atomic<bool> storming{true};
void storm(const an_arg_list&)
{
    while (storming)
        raise(SIGUSR1);
}

void dump_to_file(const an_arg_list& args)
{
    FILE* f = fopen(args[1].c_str(), "a");
    ut_hist_dump_to_file(f);
    fclose(f);
}

const std::map<std::string, void (*)(const an_arg_list& args)> commands = {
    {"null", [](const an_arg_list& args) { add(UT_HIST_CL_NULL, args); }},
    {"ev", [](const an_arg_list& args) { add(UT_HIST_CL_EV, args); }},
    {"data", [](const an_arg_list& args) { add(UT_HIST_CL_DATA, args); }},
    {"beg", [](const an_arg_list& args) { add(UT_HIST_CL_BEG, args); }},
    {"end", [](const an_arg_list& args) { add(UT_HIST_CL_END, args); }},
    {"odd", [](const an_arg_list& args) { add(9, args); }},
    {"id",  // name, line, file, description: prints the index
     [](const an_arg_list& args) {
         const char* desc = text(args[4]);
         const a_ut_hist_id id = ids[args[1]] = ut_hist_id_alloc(text(args[3]), uint32(std::stoul(args[2])), desc);
         printf("%s=%s\n", args[1].c_str(), id == desc ? "text" : std::to_string(a_ptrint(id)).c_str());
     }},
    {"at",  // location, queue, slot, number
     [](const an_arg_list& args) {
         locs[args[1]] = {std::stoi(args[2]), uint32(std::stoul(args[3])), uint32(std::stoul(args[4]))};
     }},
    {"where",
     [](const an_arg_list& args) {
         printf("%s %d %u %u\n", args[1].c_str(), locs[args[1]].q, locs[args[1]].n, locs[args[1]].num);
     }},
    {"repeat",
     [](const an_arg_list& args) {
         for (int i = std::stoi(args[1]); i > 0; i--)
             play(rest(args, 2));
     }},
    {"clock", [](const an_arg_list& args) { now.tv_sec = std::stol(args[1]); }},
    {"tick",
     [](const an_arg_list& args) {
         now.tv_usec += std::stol(args[1]);
         now.tv_sec += now.tv_usec / 1000000;
         now.tv_usec %= 1000000;
     }},
    {"trap",
     [](const an_arg_list& args) {
         trap_after = std::stoi(args[1]);
         trap = rest(args, 2);
     }},
    {"slot", [](const an_arg_list& args) { slot = std::stoul(args[1]); }},
    {"on", [](const an_arg_list& args) { players[args[1]].hand(rest(args, 2)); }},
    {"begin", [](const an_arg_list& args) { players[args[1]].begin(rest(args, 2)); }},
    {"wait", [](const an_arg_list& args) { sem_wait(&players[args[1]].done); }},
    {"stop",
     [](const an_arg_list& args) {
         players[args[1]].hand("");
         players.erase(args[1]);
     }},
    {"mask",
     [](const an_arg_list& args) {
         sigset_t set;
         sigemptyset(&set);
         sigaddset(&set, std::stoi(args[1]));
         pthread_sigmask(SIG_BLOCK, &set, nullptr);
     }},
    {"env",
     [](const an_arg_list& args) {
         setenv(args[1].c_str(), args[2].c_str(), 1);
         tzset();
     }},
    {"within", [](const an_arg_list& args) { alarm(unsigned(std::stoul(args[1]))); }},
    {"pause", [](const an_arg_list& args) { usleep(useconds_t(std::stoul(args[1]))); }},
    {"say", [](const an_arg_list& args) { printf("%s\n", args[1].c_str()); }},
    {"show", show_file},
    {"plant", plant_link},
    {"fifo", [](const an_arg_list& args) { make_fifo(args[1].c_str(), args.size() > 2); }},
    {"pipe", [](const an_arg_list& args) { pipe_stderr(args[1].c_str()); }},
    {"pace", [](const an_arg_list& args) { pace = unsigned(std::stoul(args[1])); }},
    {"err", [](const an_arg_list& args) { reopen_stderr(args[2].c_str(), args[1] == "rw" ? O_RDWR : O_WRONLY); }},
    {"lock", [](const an_arg_list&) { flockfile(stderr); }},
    {"unlock", [](const an_arg_list&) { funlockfile(stderr); }},
    {"limit",
     [](const an_arg_list& args) {
         const rlim_t bytes = std::stoul(args[1]);
         const struct rlimit limit = {bytes, bytes};
         setrlimit(RLIMIT_FSIZE, &limit);
     }},
    {"install", install_handlers},
    {"set",
     [](const an_arg_list&) {
         static a_sysv_semaphore semaphore;
         sysv_open_semaphore(&semaphore, 1);
     }},
    {"sets", count_sets},
    {"leap", leap},
    {"storm", storm},
    {"calm", [](const an_arg_list&) { storming = false; }},
    {"raise", [](const an_arg_list& args) { raise(std::stoi(args[1])); }},
    {"exit", [](const an_arg_list&) { exit(0); }},
    {"init", [](const an_arg_list&) { ut_hist_init(); }},
    {"fini", [](const an_arg_list&) { ut_hist_fini(); }},
    {"setting", [](const an_arg_list& args) { ut_hist_setting(a_ut_hist_setting(std::stoi(args[1]))); }},
    {"debug", [](const an_arg_list&) { printf("debug %d\n", ut_hist_debug); }},
    {"dump", [](const an_arg_list&) { ut_hist_dump_to_log(); }},
    {"file", dump_to_file},
    {"page-end", add_at_page_end},
    {"usr1", raise_usr1},
    {"mine", [](const an_arg_list&) { signal(SIGUSR1, mine); }},
    {"handler", show_handler},
    {"child", fork_child},
    {"vfork",
     [](const an_arg_list& args) {
         const pid_t child = vfork();
         if (child == 0) {
             play(rest(args, 1));
             _exit(0);
         }
         waitpid(child, nullptr, 0);
     }},
};

void play(const std::string& line)
{
    std::istringstream words(line);
    an_arg_list args;
    for (std::string word; words >> word;)
        args.push_back(word);
    const bool kept = shown;
    const bool thread_command =
        args[0] == "on" || args[0] == "begin" || args[0] == "stop" || args[0] == "child" || args[0] == "file";
    shown = !thread_command;
    commands.at(args[0])(args);
    shown = kept;
}

}  // namespace

static void spring_trap()
{
    if (trap_after == 0 || --trap_after > 0)
        return;
    if (trap == "jump")
        siglongjmp(before_event, 1);  // from here: nothing is left behind
    play(trap);
}

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    *tv = now;
    spring_trap();
    return 0;
}

// ThreadSanitizer calls this one and pthread_self too, before it can run code of its own making.
extern "C" __attribute__((no_sanitize("thread"))) int pthread_sigmask(int how, const sigset_t* set,
                                                                      sigset_t* old) noexcept
{
    if (trap_after > 0)
        spring_trap();
    return syscall(SYS_rt_sigprocmask, how, set, old, 8) == 0 ? 0 : errno;
}

// Unless option x is given, the queues' locks stay at exit.
extern "C" const char* __lsan_default_suppressions() { return "leak:a_pool\n"; }
extern "C" int __lsan_is_turned_off()  // in a child it cannot look at the stacks of the parent's threads
{
    return in_child ? 1 : 0;
}
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }

extern "C" __attribute__((no_sanitize("thread"))) pthread_t pthread_self() noexcept
{
    pthread_t self;
    __asm__("mov %%fs:16, %0" : "=r"(self));
    return shown && slot != 0 ? pthread_t(slot) : self;
}

int main(int argc, char** argv)
{
    auto* bytes = static_cast<unsigned char*>(mmap(reinterpret_cast<void*>(0x100000), 65536, PROT_READ | PROT_WRITE,
                                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0));
    for (int i = 0; i < 65536; i++)
        bytes[i] = static_cast<unsigned char>(i);
    setvbuf(stdout, nullptr, _IONBF, 0);
    slot = 7;
    for (int i = 1; i < argc; i++)
        play(argv[i]);
    while (!players.empty())
        play("stop " + players.begin()->first);
    return 0;
}
