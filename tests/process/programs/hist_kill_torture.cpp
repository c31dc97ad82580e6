// hist_kill_torture.cpp: hist_kill_torture ROUNDS SEED READER: processes are killed by SIGKILL at random instants while
// their threads record into a history file, which READER (corvex-hist) then dumps: every row must be whole, and the
// newest event of each thread whose recording had returned must be there. What is wrong is told with its round; the
// files are in the directory that is named then.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "corvex/hist.h"

namespace {

constexpr int threads = 4, rings = 8;
constexpr unsigned long factor = 0x9e3779b97f4a7c15;

// Shared with the process that is killed: how many events each thread has recorded.
struct a_shared {
    volatile unsigned long returned[threads];
    volatile bool recording;
};
a_shared& shared()
{
    static void* const memory =
        mmap(nullptr, sizeof(a_shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<a_shared*>(memory);
}

// So short that a blank stands before it in the table.
unsigned long sum_of(unsigned long thread, unsigned long n) { return ((n * factor) >> 40) ^ (thread * 0x1001); }

void record(int thread)
{
    for (unsigned long n = 1;; n++) {
        UT_HIST_LOC(at);
        if (n % 16 == 0)
            UT_HIST_BEG(&at, UT_HIST_ID_TEXT("span"), "begins");
        UT_HIST_EV(UT_HIST_ID_TEXT("kill"), "event", long{thread}, n, sum_of(unsigned(thread), n));
        shared().returned[thread] = n;
        shared().recording = true;
        if (n % 16 == 0)
            UT_HIST_END(&at, UT_HIST_ID_TEXT("span"), "ends");
    }
}

[[noreturn]] void be_killed(const std::string& folder)
{
    const std::string ext = "tables,file=" + folder + "/x.hist";
    setenv("UT_HIST", ("q" + std::to_string(rings) + "n500l=/dev/null,r-").c_str(), 1);
    setenv("UT_HIST_EXT", ext.c_str(), 1);
    ut_hist_init();
    std::vector<std::thread> others;
    for (int i = 1; i < threads; i++)
        others.emplace_back(record, i);
    record(0);
    abort();
}

std::string output_of(const std::string& command, int& status)
{
    std::string text;
    FILE* const pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t len; (len = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        text.append(buffer, len);
    status = pclose(pipe);
    return text;
}

// What is wrong with a dump; empty for nothing.
std::string fault_of(const std::string& dump)
{
    unsigned long newest[threads] = {}, rows = 0;
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream row(line);
        std::string time, duration, number, slot, id, event, kind, parms[3];
        row >> time >> duration >> number >> slot >> id >> event >> kind >> parms[0] >> parms[1] >> parms[2];
        if (id != "kill" || time.find(':') != 2)
            continue;
        const unsigned long thread = std::stoul(parms[0] == "(nil)" ? "0" : parms[0], nullptr, 16),
                            n = std::stoul(parms[1], nullptr, 16), sum = std::stoul(parms[2], nullptr, 16);
        if (event != "event" || thread >= threads || sum != sum_of(thread, n))
            return "a row that is not whole: " + line;
        newest[thread] = std::max(newest[thread], n);
        rows++;
    }
    for (int i = 0; i < threads; i++)
        if (newest[i] < shared().returned[i])
            return "thread " + std::to_string(i) + " lacks its newest event";
    return rows == 0 || dump.find("HISTORY DUMP END") == std::string::npos ? "no whole dump" : "";
}

std::string round(const std::string& folder, const std::string& reader, int delay_us)
{
    std::filesystem::create_directories(folder);
    shared() = {};
    const pid_t child = fork();
    if (child == 0)
        be_killed(folder);
    while (!shared().recording && waitpid(child, nullptr, WNOHANG) == 0)
        usleep(50);
    usleep(useconds_t(delay_us));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    int status = 0;
    const std::string dump = output_of(reader + " dump --tables " + folder + "/x.hist 2>&1", status);
    std::ofstream(folder + "/dump.txt") << dump;
    return status != 0 ? "the reader ended with status " + std::to_string(status) : fault_of(dump);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return fprintf(stderr, "usage: hist_kill_torture ROUNDS SEED READER\n"), 64;
    std::mt19937 random(unsigned(atoi(argv[2])));
    shared();
    int bad = 0;
    const int rounds = atoi(argv[1]);
    for (int i = 0; i < rounds; i++) {
        const std::string folder = "kill." + std::to_string(getpid()) + "." + std::to_string(i);
        const std::string fault = round(folder, argv[3], int(random() % 3000));
        if (!fault.empty())
            printf("round %d, in %s: %s\n", i, folder.c_str(), fault.c_str());
        else
            std::filesystem::remove_all(folder);
        bad += fault.empty() ? 0 : 1;
    }
    printf("%d rounds, %d bad\n", rounds, bad);
    return bad != 0;
}
