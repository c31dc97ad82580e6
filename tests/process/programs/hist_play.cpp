// hist_play.cpp: plays a script on the event history, one command per argument (the table at the end lists them), under
// a clock that only the script moves and with thread handles that the script chooses.
//
// An event command is its class and then: location, id, text, [@file:line], [pn=count], parameters. "-" stands for null
// or none; ids are those registered by `id`, SIG, Q2, a number behind '#', else texts. At address 0x100000 stand the
// bytes 0, 1, 2, ...
#include <errno.h>
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <map>
#include <semaphore>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "corvex/corvex.h"
#include "corvex/hist_image.h"

namespace {

struct an_arg_list : std::vector<std::string> {
    long number(size_t i) const { return std::stol(at(i)); }
    std::string rest(size_t i) const
    {
        std::string line = at(i);
        while (++i < size())
            line += " " + at(i);
        return line;
    }
};
using args_of = const an_arg_list&;

long now = 1700000000000000;  // 2023/11/14 22:13:20 UTC
an_arg_list trap;             // played in the trap_after-th look at the clock or at the signal mask from now
long trap_after = 0;
an_arg_list stepped;  // played when the next event has gone steps_left instructions, as a handler
long steps_left = 0;
thread_local a_ptrint slot = 0;   // the handle's low bits; 0: the real handle
thread_local bool shown = false;  // the history is being called: it gets to see `slot`
bool in_child = false;
std::map<std::string, a_ut_hist_id> ids = {
    {"-", UT_HIST_ID_NONE}, {"SIG", UT_HIST_ID_SIGHANDLER}, {"Q2", UT_HIST_ID_Q2}};
std::map<std::string, a_ut_hist_loc> locs;
std::deque<std::string> texts;
sigjmp_buf before_event;
std::atomic<bool> storming{true};
std::atomic<unsigned> pace{0};  // of a slow reader: microseconds a page
constexpr size_t page = 4096;
bool refuses = false;  // to read memory, as a sandbox may

void play(const std::string& line);

const char* text(const std::string& s) { return s == "-" ? nullptr : texts.emplace_back(s).c_str(); }

a_ut_hist_id id_of(const std::string& name)
{
    if (name[0] == '#')
        return a_ut_hist_id(a_ptrint(std::stoul(name.substr(1))));
    return ids.count(name) != 0 ? ids[name] : UT_HIST_ID_TEXT(text(name));
}

void take_step(int, siginfo_t*, void* context)
{
    if (--steps_left > 0)
        return;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~0x100;
    if (steps_left == 0)
        play(stepped.rest(2));
}

// The processor's trap flag: SIGTRAP after each instruction.
void step_on()
{
    struct sigaction action = {};
    action.sa_sigaction = take_step;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
    __asm__ volatile("lea -128(%%rsp), %%rsp; pushfq; orq $0x100, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::
                         : "memory", "cc");
}

template <int cl>
void add(args_of args)
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
    const a_ut_hist_id id = id_of(args[2]);
    const char* const ev = text(args[3]);
    const bool steps = steps_left > 0 && id != UT_HIST_ID_SIGHANDLER;
    if (steps)
        step_on();
    ut_hist_add(file, line, loc, a_ut_hist_cl(cl), id, ev, forced != -99 ? forced : pn, p[0], p[1], p[2], p[3], p[4],
                p[5], p[6], p[7]);
    if (steps)
        steps_left = 0;  // the next step is the last one
}

// Records a text of some length three times over, as file, id and event; behind its NUL no byte can be read.
void add_at_page_end(args_of args)
{
    const long len = args.number(1), behind = args.number(2);
    char* const end =
        page + static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(end, page, PROT_NONE);
    char* const at = end - behind - len - 1;
    for (long i = 0; i < len; i++)
        at[i] = char('a' + i % 26);
    ut_hist_add(at, 1, nullptr, UT_HIST_CL_EV, UT_HIST_ID_TEXT(at), at, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr);
}

// A begin whose texts all are so many letters from some place in a fresh mapping (more: in the last one). The page that
// their NUL stands in is then unmapped (unmap), closed (none), cut off its file (cut) or kept.
void add_in_pages(args_of args)
{
    static char* base = reinterpret_cast<char*>(0x200000);
    static int file = -1;
    const std::string& how = args[1];
    if (how != "more") {
        base += 8 * page;
        file = memfd_create("pages", MFD_CLOEXEC);
        if (ftruncate(file, 4 * page) != 0 ||
            mmap(base, 4 * page, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED_NOREPLACE, file, 0) != base)
            printf("no pages\n");
    }
    char* const at = base + args.number(2);
    for (long i = 0; i < args.number(3); i++)
        at[i] = char('a' + i % 26);
    ut_hist_add(at, 1, nullptr, UT_HIST_CL_BEG, UT_HIST_ID_TEXT(at), at, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr);
    const size_t last = size_t(args.number(2) + args.number(3)) / page * page;
    if ((how == "unmap" && munmap(base + last, page) != 0) ||
        (how == "none" && mprotect(base + last, page, PROT_NONE) != 0) ||
        (how == "cut" && ftruncate(file, off_t(last)) != 0))
        printf("not %s\n", how.c_str());
}

// Name, line, file, description: prints the index.
void register_id(args_of args)
{
    const char* desc = text(args[4]);
    const a_ut_hist_id id = ids[args[1]] = ut_hist_id_alloc(text(args[3]), uint32(args.number(2)), desc);
    printf("%s=%s\n", args[1].c_str(), id == desc ? "text" : std::to_string(a_ptrint(id)).c_str());
}

// A thread that plays commands one by one while the script waits.
struct a_player {
    std::binary_semaphore go{0}, done{0};
    std::string line;
    std::thread thread{[this] {
        for (go.acquire(); !line.empty(); go.acquire()) {
            play(line);
            done.release();
        }
    }};
    ~a_player() { begin(""), thread.join(); }
    void begin(const std::string& command)
    {
        line = command;
        go.release();
    }
};
auto& players = *new std::map<std::string, a_player>;  // never destroyed: forked children exit

void play_in_thread(args_of args)
{
    players[args[1]].begin(args.rest(2));
    if (args[0] == "on")
        players[args[1]].done.acquire();
}

void mine(int) { (void)!write(STDOUT_FILENO, "mine\n", 5); }

void raise_usr1(args_of)
{
    errno = 4242;
    raise(SIGUSR1);
    if (errno != 4242)
        printf("errno changed\n");
}

void show_handler(args_of)
{
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    const auto handler = action.sa_handler;
    printf("SIGUSR1 %s\n", handler == SIG_DFL   ? "default"
                           : handler == SIG_IGN ? "ignored"
                           : handler == mine    ? "mine"
                                                : "history");
}

void fork_child(args_of args)
{
    fflush(nullptr);
    const bool shares_memory = args[0] == "vfork";
    const pid_t child = shares_memory ? vfork() : args[0] == "bare" ? _Fork() : fork();
    if (child == 0 && shares_memory)
        play(args.rest(1)), _exit(0);
    if (child == 0) {
        in_child = true;
        alarm(20);
        std::istringstream steps(args.rest(1));
        for (std::string step; std::getline(steps, step, ';');)
            play(step);
        exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    if (status != 0)
        printf("child %x\n", status & ~0x80);  // without a core
}

void fill(int fd)
{
    static const char nothing[page] = {};
    if (fcntl(fd, F_SETPIPE_SZ, page) != page || write(fd, nothing, page) != page)
        printf("not filled\n");
}

// A FIFO without a reader, or a full one whose reader, this process, reads nothing.
void make_fifo(args_of args)
{
    mkfifo(args[1].c_str(), 0600);
    if (args.size() > 2)
        fill(open(args[1].c_str(), O_RDWR | O_CLOEXEC));
}

void read_slowly(int fd)
{
    sigset_t all;
    sigfillset(&all);  // a dump here would wait for its own reader
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (char bytes[page]; read(fd, bytes, page) > 0;)
        usleep(pace);
}

// Standard error becomes a pipe whose reader has gone (dead), reads nothing and is full (full) or reads slowly (slow).
void pipe_stderr(args_of args)
{
    int ends[2];
    if (pipe(ends) != 0 || fcntl(ends[1], F_SETPIPE_SZ, page) < 0 || dup2(ends[1], STDERR_FILENO) < 0 || close(ends[1]))
        printf("no pipe\n");
    if (args[1] == "dead")
        close(ends[0]);
    else if (args[1] == "full")
        fill(STDERR_FILENO);
    else
        std::thread(read_slowly, ends[0]).detach();
}

// Closes standard error and opens a file that gets its number.
void reopen_stderr(args_of args)
{
    close(STDERR_FILENO);
    open(args[2].c_str(), O_CREAT | (args[1] == "rw" ? O_RDWR : O_WRONLY), 0600);
}

void limit(__rlimit_resource resource, rlim_t bytes)
{
    const struct rlimit limits = {bytes, bytes};
    setrlimit(resource, &limits);
}

// The library's handlers, with a callback that saves the history; kernel sets apart from those of other programs.
void install_handlers(args_of)
{
    limit(RLIMIT_CORE, 0);
    unshare(CLONE_NEWIPC);
    ut_onsig_call_add(
        1, [](int, void*, a_bool, a_bool, a_bool, void*, void*) { raise(SIGUSR1); }, nullptr);
    ut_onsig_install_signal_handlers(FALSE);
}

void open_set(args_of)
{
    static a_sysv_semaphore semaphore;
    sysv_open_semaphore(&semaphore, 1);
}

void count_sets(args_of)
{
    struct seminfo info = {};
    semctl(0, 0, SEM_INFO, &info);
    printf("sets %d\n", info.semusz);
}

// An event that a trap may leave by a jump.
void leap(args_of)
{
    if (sigsetjmp(before_event, 1) == 0)
        UT_HIST_EV(UT_HIST_ID_NONE, "left");
}

void storm(args_of)
{
    while (storming)
        raise(SIGUSR1);
}

// Location, queue, slot, number.
void set_location(args_of a) { locs[a[1]] = {int32(a.number(2)), uint32(a.number(3)), uint32(a.number(4))}; }

void repeat(args_of args)
{
    for (long i = args.number(1); i > 0; i--)
        play(args.rest(2));
}

void block_signal(args_of args)
{
    const sigset_t set = {{1UL << (args.number(1) - 1)}};
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// A history file as it would be: the image's bytes.
void write_image(args_of args)
{
    FILE* const file = fopen(args[1].c_str(), "w");
    fwrite(ut_hist_image_now, 1, ut_hist_image_now->image_bytes, file);
    fclose(file);
}

// With the process's id in PID.
void run_shell(args_of args)
{
    setenv("PID", std::to_string(getpid()).c_str(), 1);
    fflush(stdout);
    if (system(args.rest(1).c_str()) != 0)
        printf("failed: %s\n", args.rest(1).c_str());
}

const std::map<std::string, void (*)(args_of args)> commands = {
    {"null", add<UT_HIST_CL_NULL>},
    {"ev", add<UT_HIST_CL_EV>},
    {"data", add<UT_HIST_CL_DATA>},
    {"beg", add<UT_HIST_CL_BEG>},
    {"end", add<UT_HIST_CL_END>},
    {"odd", add<9>},
    {"page-end", add_at_page_end},
    {"pages", add_in_pages},
    {"refuse", [](args_of) { refuses = true; }},
    {"id", register_id},
    {"at", set_location},
    {"repeat", repeat},
    {"clock", [](args_of a) { now = a.number(1) * 1000000; }},
    {"tick", [](args_of a) { now += a.number(1); }},
    {"trap", [](args_of a) { trap_after = (trap = a).number(1); }},
    {"step", [](args_of a) { steps_left = (stepped = a).number(1); }},
    {"slot", [](args_of a) { slot = a_ptrint(a.number(1)); }},
    {"on", play_in_thread},
    {"begin", play_in_thread},
    {"wait", [](args_of a) { players[a[1]].done.acquire(); }},
    {"stop", [](args_of a) { players.erase(a[1]); }},
    {"mask", block_signal},
    {"env", [](args_of a) { setenv(a[1].c_str(), a[2].c_str(), 1); }},
    {"within", [](args_of a) { alarm(unsigned(a.number(1))); }},
    {"pause", [](args_of a) { usleep(useconds_t(a.number(1))); }},
    {"say", [](args_of a) { printf("%s\n", a[1].c_str()); }},
    {"fifo", make_fifo},
    {"pipe", pipe_stderr},
    {"pace", [](args_of a) { pace = unsigned(a.number(1)); }},
    {"err", reopen_stderr},
    {"lock", [](args_of) { flockfile(stderr); }},
    {"unlock", [](args_of) { funlockfile(stderr); }},
    {"limit", [](args_of a) { limit(RLIMIT_FSIZE, rlim_t(a.number(1))); }},
    {"install", install_handlers},
    {"set", open_set},
    {"sets", count_sets},
    {"leap", leap},
    {"storm", storm},
    {"calm", [](args_of) { storming = false; }},
    {"raise", [](args_of a) { raise(int(a.number(1))); }},
    {"init", [](args_of) { ut_hist_init(); }},
    {"fini", [](args_of) { ut_hist_fini(); }},
    {"setting", [](args_of a) { ut_hist_setting(a_ut_hist_setting(a.number(1))); }},
    {"debug", [](args_of) { printf("debug %d\n", ut_hist_debug); }},
    {"dump", [](args_of) { ut_hist_dump_to_log(); }},
    {"file", [](args_of) { ut_hist_dump_to_file(stdout); }},
    {"image", write_image},
    {"shell", run_shell},
    {"usr1", raise_usr1},
    {"mine", [](args_of) { signal(SIGUSR1, mine); }},
    {"handler", show_handler},
    {"child", fork_child},
    {"vfork", fork_child},
    {"bare", fork_child},  // without fork handlers
};

void play(const std::string& line)
{
    std::istringstream words(line);
    an_arg_list args;
    for (std::string word; words >> word;)
        args.push_back(word);
    const bool kept = shown;
    shown = std::string(" on begin stop child bare usr1 ").find(" " + args[0] + " ") == std::string::npos;
    commands.at(args[0])(args);
    shown = kept;
}

void spring_trap()
{
    if (trap_after == 0 || --trap_after > 0)
        return;
    if (trap[2] == "jump")
        siglongjmp(before_event, 1);  // from here: nothing is left behind
    play(trap.rest(2));
}

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    *tv = {now / 1000000, now % 1000000};
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

extern "C" __attribute__((no_sanitize("thread"))) pthread_t pthread_self() noexcept
{
    pthread_t self;
    __asm__("mov %%fs:16, %0" : "=r"(self));
    return shown && slot != 0 ? pthread_t(slot) : self;
}

extern "C" ssize_t process_vm_readv(pid_t pid, const struct iovec* to, unsigned long to_count, const struct iovec* from,
                                    unsigned long from_count, unsigned long flags) noexcept
{
    errno = EPERM;
    return refuses ? -1 : syscall(SYS_process_vm_readv, pid, to, to_count, from, from_count, flags);
}

// Unless option x is given, the queues' locks stay at exit. In a child the leak checker cannot look at the stacks of
// the parent's threads. The crash handlers are the library's.
extern "C" const char* __lsan_default_suppressions() { return "leak:a_pool\n"; }
extern "C" int __lsan_is_turned_off() { return in_child ? 1 : 0; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
extern "C" const char* __asan_default_options() { return "handle_segv=0:handle_abort=0"; }
extern "C" const char* __tsan_default_options() { return "handle_segv=0:handle_abort=0:report_signal_unsafe=0"; }

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
    players.clear();
    return 0;
}
