// Loading and unloading: the version record, and what dlclose leaves behind. This program is not linked with
// the library: each case loads it in a process of its own.
#include <dlfcn.h>
#include <fnmatch.h>
#include <malloc.h>

#include "corvex/corvex.h"
#include "tests/child.h"
#include "tests/process/run.h"

#define OF_LIBRARY(function) reinterpret_cast<decltype(&function)>(dlsym(library, #function))

namespace {

TEST(VersionRecord, StandsInTheFileAndPrintsItsSystemLineOnRequest)
{
    const std::string bytes = read_file(LIBRARY_FILE), marker = "@@==Version==@1@", close("\0\0\1\0\0\0\0\0\0\0\0", 11);
    const size_t at = bytes.find(marker) + marker.size();
    EXPECT_EQ(at, bytes.rfind(marker) + marker.size()) << "tools find the record by the one marker";
    std::string record = bytes.substr(at, bytes.find(close, at) - at);
    std::replace(record.begin(), record.end(), '\0', ';');
    const char* const pattern = "MODULE=libcorvex16_r.so.1;VERSION_CLASS=xx;VERSION_MAJOR=16;VERSION_MINOR=0;"
                                "VERSION_PATCH=0;BUILD_NUMBER=+([0-9]);POINTERSIZE=64;PLATFORM=linux;"
                                "DATE=?*/?*/?*;TIME=?*:?*:?*;HOST=?*;THREADS=posix;PRODUCTION=production;"
                                "COMPILER=gnu;UNAME=Linux ?* x86_64 GNU/Linux;"
                                "IDENT=libcorvex16_r.so.1/16.0.0/P/x86_64/Linux+([!/])/+([0-9])/OPT/+([!/]);"
                                "COPYRIGHT=?*\n?*\n?*;EXTENSIONS=A8";
    EXPECT_EQ(0, fnmatch(pattern, record.c_str(), FNM_EXTMATCH)) << record;
    const size_t uname = record.find("UNAME=");
    EXPECT_EQ(record.substr(uname, record.find(";IDENT") - uname) + "\n",
              run("hist_play", {"VORNE_VERSION_INFO="}).out);
}

TEST(VersionRecord, IsTheSameInEveryBuildOfOneSourceDate)
{
    const a_run made =
        run("/bin/sh", {"SOURCE_DATE_EPOCH=86399", "TZ=Asia/Tokyo"},
            {"-c", "cmake -DOUTPUT=v -DVERSION=16.0.0 -P $0/cmake/version_record.cmake; cat v", SOURCE_DIR});
    EXPECT_EQ(0, fnmatch("*DATE \"1970/01/01\"\n*TIME \"23:59:59\"\n*HOST \"reproducible\"\n*", made.out.c_str(), 0));
}

TEST(PrivilegedProgram, HasNoSettingsFromItsCallersEnvironment)
{
    if (geteuid() != 0)  // it gives the program to another user than the one who runs it
        GTEST_SKIP() << "only root makes a set-uid program";
    const a_run result = run("/bin/sh", {"UT_HIST=zl=log", "VORNE_VERSION_INFO="},
                             {"-c", "cp " PROGRAM_DIR "/hist_play play; chmod 777 .; for mode in 755 4755; do\n"
                                    "    chmod $mode play; echo $mode; rm -f log\n"
                                    "    setpriv --reuid=65534 --clear-groups ./play 'ev - - a' 2>&1; ls | grep log\n"
                                    "done"});
    EXPECT_EQ(0, fnmatch("755\nUNAME=*ut_hist_debug*\nlog\n4755\n", result.out.c_str(), 0)) << result.out << result.err;
}

// One life of the library: handlers are installed, a timed pair of events is recorded, and one of its threads runs.
void load_and_unload()
{
    void* library = dlopen(LIBRARY_FILE, RTLD_NOW);
    ASSERT_NE(nullptr, library) << dlerror();
    OF_LIBRARY(ut_onsig_install_signal_handlers)(FALSE);
    const a_ut_hist_id id = OF_LIBRARY(ut_hist_id_alloc)("file.c", 1, "work");
    for (const a_ut_hist_cl cl : {UT_HIST_CL_BEG, UT_HIST_CL_END})
        OF_LIBRARY(ut_hist_add)("file.c", 2, nullptr, cl, id, "event", 0, 0, 0, 0, 0, 0, 0, 0, 0);
    OF_LIBRARY(OS_Init)();
    p_os_thread thread = OF_LIBRARY(OS_Begin_Thread_Attachable)([](void*) {}, nullptr, 0, nullptr, "loaded", TRUE);
    EXPECT_EQ(0, OF_LIBRARY(OS_WaitOnThreadTermination)(thread));
    OF_LIBRARY(OS_Fini)();
    dlclose(library);
}

TEST(Unload, LeavesNeitherTheLibraryNorAHandlerNorABlockNorAKey)
{
    const auto body = [](const char* name, const char* value) {
        const int signals[] = {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1};
        for (int sig : signals)
            signal(sig, SIG_DFL);
        setenv("UT_HIST_THREAD_SLOT", "dense", 1);
        setenv(name, value, 1);
        size_t used[2];  // of which mallinfo2 does not know in the sanitizers' allocators
        pthread_key_t keys[2];
        for (int i = 0; i < 2; i++) {
            for (int rounds = CORVEX_SANITIZE[0] != '\0' ? 1 : i == 0 ? 20 : 500; rounds > 0; rounds--)
                load_and_unload();
            used[i] = mallinfo2().uordblks;
            pthread_key_create(&keys[i], nullptr);
        }
        EXPECT_NEAR(double(used[0]), double(used[1]), 500);
        EXPECT_EQ(keys[0] + 1, keys[1]);
        EXPECT_EQ(std::string::npos, read_file("/proc/self/maps").find("libcorvex16_r"));
        for (int sig : signals) {
            const sighandler_t now = signal(sig, SIG_DFL);
            EXPECT_TRUE(now == SIG_DFL || (sig == SIGUSR1 && now == SIG_IGN)) << sig;
        }
        if (fork() == 0)  // through whatever fork handlers are left
            _exit(0);
    };
    EXPECT_EQ(0, in_child([&] { body("ZT_INSTALL_SIG_HANDLERS", "all"); }).status);
    EXPECT_EQ(0, in_child([&] { body("ZT_INSTALL_SIG_HANDLERS", "crash"); }).status);
    EXPECT_EQ(0, in_child([&] { body("UT_HIST", "Sn10k5xr-l=/dev/null"); }).status) << "option S keeps its handler";
}

}  // namespace
