// Loading and unloading: the version record, forked children, and what dlclose leaves behind. This program is not
// linked with the library: each case loads it in a process of its own.
#include <dlfcn.h>
#include <fnmatch.h>
#include <malloc.h>
#include <signal.h>

#include "tests/child.h"
#include "tests/process/hist_played.h"

namespace {

template <typename F>
a_child in_child_with(const char* name, const char* value, F body)
{
    return in_child([&] {
        setenv("UT_HIST_THREAD_SLOT", "dense", 1);
        setenv(name, value, 1);
        body();
    });
}

// The entries of the version record in the library file, from its marker on.
a_text_list version_record()
{
    const std::string bytes = read_file(LIBRARY_FILE), marker = "@@==Version==@1@";
    size_t at = bytes.find(marker);
    EXPECT_EQ(at, bytes.rfind(marker)) << "tools find the record by the one marker";
    a_text_list entries;
    for (at += marker.size(); bytes[at] != '\0'; at += entries.back().size() + 1)
        entries.emplace_back(bytes.c_str() + at);
    EXPECT_EQ('\0', bytes[at + 9]) << "eight bytes and a zero byte close the record";
    return entries;
}

TEST(VersionRecord, HoldsEighteenEntriesAndPrintsItsSystemLineOnRequest)
{
    std::istringstream patterns(expected("version_record.txt"));  // for fnmatch, a line each; "|" is a line end
    const a_text_list entries = version_record();
    size_t i = 0;
    for (std::string pattern; std::getline(patterns, pattern); i++)
        EXPECT_EQ(0, fnmatch(replaced(pattern, "|", "\n").c_str(), entries.at(i).c_str(), FNM_EXTMATCH)) << pattern;
    ASSERT_EQ(i, entries.size());
    for (const char* value : {"1", ""})
        EXPECT_EQ(entries[14] + "\n", in_child_with("VORNE_VERSION_INFO", value, [] {
                                          dup2(child_pipe[1], STDOUT_FILENO);
                                          dlopen(LIBRARY_FILE, RTLD_NOW);
                                      }).said);
#ifndef __SANITIZE_THREAD__  // which writes a file of its own at start-up
    EXPECT_TRUE(
        run("/bin/sh", {"VORNE_VERSION_INFO="}, {"-c", "ulimit -f 0; exec " PROGRAM_DIR "/hist_play"}).exited_well())
        << "a line that finds no room does not end the process";
#endif
}

TEST(VersionRecord, IsTheSameInEveryBuildOfOneSourceDate)
{
    const auto make = [](const a_text_list& env) {
        return run("/bin/sh", env,
                   {"-c", "cmake -DOUTPUT=v -DBUILD_NUMBER=77 -DVERSION=16.0.0 -P " SOURCE_DIR
                          "/cmake/version_record.cmake && cat v"})
            .out;
    };
    const std::string first = make({"SOURCE_DATE_EPOCH=86399", "TZ=UTC"});
    EXPECT_EQ(first, make({"SOURCE_DATE_EPOCH=86399", "TZ=Asia/Tokyo"}));
    for (const char* text :
         {"\"1970/01/01\"", "\"23:59:59\"", "Linux-reproducible/77/OPT/1970-01-01 23:59:59\"", "HOST \"reproducible\""})
        EXPECT_NE(std::string::npos, first.find(text)) << text << " in\n" << first;
}

TEST(PrivilegedProgram, HasNoSettingsFromItsCallersEnvironment)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root makes a set-uid program";
    namespace fs = std::filesystem;
    const a_scratch_dir dir;
    const std::string program = dir.path + "/play", log = dir.path + "/log";
    fs::copy(PROGRAM_DIR "/hist_play", program);
    fs::permissions(dir.path, fs::perms::all);
    for (const bool privileged : {false, true}) {
        fs::permissions(program, fs::perms(privileged ? 04755 : 0755));
        const a_run result = run("/usr/bin/setpriv", {"UT_HIST=zl=" + log, "VORNE_VERSION_INFO=", "TBX_MAX_NSEMS=16"},
                                 {"--reuid=65534", "--clear-groups", program, "ev - - a"}, dir.path);
        EXPECT_TRUE(result.exited_well()) << result.err;
        EXPECT_EQ(privileged, result.out + result.err == "") << result.out << result.err;
        EXPECT_NE(privileged, fs::remove(log));
    }
}

TEST(ForkedChild, StopsNothingAtItsExitUnlessReset)
{
    for (const bool reset : {false, true}) {
        const a_scratch_dir dir;
        in_child_with("UT_HIST", ("r-l=" + dir.path + "/log").c_str(), [&] {
            void* library = dlopen(LIBRARY_FILE, RTLD_NOW);
            const pid_t child = fork();
            if (child == 0 && reset)
                reinterpret_cast<void (*)()>(dlsym(library, "UnixForkProtection_Reset"))();
            child == 0 ? exit(0) : void(waitpid(child, nullptr, 0));
        });
        EXPECT_EQ(reset, std::filesystem::exists(dir.path + "/log")) << "the child's exit dumps only after a reset";
    }
}

// One life of the library in this process: handlers are installed, a timed pair of events is recorded, and a thread of
// the library runs.
void load_and_unload()
{
    void* library = dlopen(LIBRARY_FILE, RTLD_NOW);
    ASSERT_NE(nullptr, library) << dlerror();
    reinterpret_cast<void (*)(uint32_t)>(dlsym(library, "ut_onsig_install_signal_handlers"))(0);
    using an_id_alloc = void* (*)(const char*, uint32_t, const char*);
    using an_add = void (*)(const char*, uint32_t, void*, int, void*, const char*, int32_t, void*, void*, void*, void*,
                            void*, void*, void*, void*);
    const auto id_alloc = reinterpret_cast<an_id_alloc>(dlsym(library, "ut_hist_id_alloc"));
    const auto add = reinterpret_cast<an_add>(dlsym(library, "ut_hist_add"));
    void* id = id_alloc("file.c", 1, "work");
    for (int cl : {3, 4})
        add("file.c", 2, nullptr, cl, id, "event", 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const auto call = [library](const char* name) { reinterpret_cast<void (*)()>(dlsym(library, name))(); };
    using a_begin = void* (*)(void (*)(void*), void*, unsigned, void*, const char*, uint32_t);
    call("OS_Init");
    int ran = 0;
    void* thread = reinterpret_cast<a_begin>(dlsym(library, "OS_Begin_Thread_Attachable"))(
        [](void* done) { *static_cast<int*>(done) = 1; }, nullptr, 0, &ran, "loaded", 1);
    reinterpret_cast<int (*)(void*)>(dlsym(library, "OS_WaitOnThreadTermination"))(thread);
    EXPECT_EQ(ran, 1);
    call("OS_Fini");
    dlclose(library);
}

TEST(Unload, LeavesNeitherTheLibraryNorAHandler)
{
    const auto body = [] {
        const int signals[] = {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1};
        for (int sig : signals)
            signal(sig, SIG_DFL);
        load_and_unload();
        EXPECT_EQ(std::string::npos, read_file("/proc/self/maps").find("libcorvex16_r"));
        for (int sig : signals) {
            struct sigaction now;
            sigaction(sig, nullptr, &now);
            EXPECT_TRUE(now.sa_handler == SIG_DFL || (sig == SIGUSR1 && now.sa_handler == SIG_IGN)) << sig;
        }
        if (fork() == 0)  // through whatever fork handlers are left
            _exit(0);
    };
    EXPECT_EQ(0, in_child_with("ZT_INSTALL_SIG_HANDLERS", "all", body).status);
    EXPECT_EQ(0, in_child_with("ZT_INSTALL_SIG_HANDLERS", "crash", body).status);
    EXPECT_EQ(0, in_child_with("UT_HIST", "Sr-l=/dev/null", body).status) << "where option S keeps the SIGUSR1 handler";
}

TEST(Unload, LeaksNothingInAThousandRounds)
{
    const auto body = [] {
        for (int i = 0; i < 20; i++)
            load_and_unload();
        const size_t used = mallinfo2().uordblks;
        pthread_key_t before, after;
        pthread_key_create(&before, nullptr);
        for (int i = 0; i < 1000; i++)
            load_and_unload();
        EXPECT_NEAR(double(used), double(mallinfo2().uordblks), 500);
        EXPECT_EQ(0, pthread_key_create(&after, nullptr));
        EXPECT_EQ(before + 1, after) << "no key is left behind";
    };
    if (CORVEX_SANITIZE[0] != '\0')
        return;  // mallinfo2 does not know the sanitizers' allocators
    EXPECT_EQ(0, in_child_with("UT_HIST", "", body).status);
    EXPECT_EQ(0, in_child_with("UT_HIST", "n10k5xr-l=/dev/null", body).status);
}

}  // namespace
