// The allocation wrappers, the fatal-error report and the pools, which forked children find free; print channels.
#include <malloc.h>
#include <syslog.h>

#include "corvex/print.h"
#include "corvex/ptcondvar.h"
#include "tests/child.h"
#include "utils/etc/utfatal.h"
#include "utils/unix/utptmutex.h"

// Stand-ins for the system log.
extern "C" void openlog(const char* identity, int options, int facility)
{
    printf("%s %d %d ", identity, options, facility);
}
extern "C" void syslog(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    printf("%d ", priority);
    vprintf(format, args);
    va_end(args);
}
extern "C" void closelog() { printf("; "); }

namespace {

// A sanitizer's is unknown to mallinfo2, and ends the process on a failure.
constexpr bool own_allocator = !under_asan && !under_tsan;

template <typename F>
std::string printed(F body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

TEST(Memory, OnlyAllocAndAResizeReportAFailureAndTheOldBlockStays)
{
    char text[] = "old";
    void* block = ut_memdup(text, 4);
    volatile size_t huge = own_allocator ? SIZE_MAX / 4 : 0;
    EXPECT_EQ("", printed([&] {
                  for (void* none : {ut_malloc(0), ut_calloc(0), uicalloc(SIZE_MAX / 2, 3), ut_memdup(nullptr, 5),
                                     ut_realloc(ut_malloc(9), 0), ut_malloc(huge), ut_calloc(huge),
                                     ut_realloc(nullptr, huge), ut_memdup(text, huge)})
                      EXPECT_EQ(nullptr, none);
              }));
    const std::string of_alloc = "Tessaline 0 8 3 Out of memory (ut_alloc); Out of memory (ut_alloc)\n",
                      of_resize = "Tessaline 0 8 3 Out of memory; Out of memory\n";
    EXPECT_EQ(own_allocator ? of_alloc + of_resize : "",
              printed([&] { own_allocator ? (ut_alloc(huge), ut_realloc(block, huge)) : nullptr; }));
    EXPECT_STREQ("old", static_cast<char*>(block));
    ut_free(block);
    EXPECT_EQ("Tessaline 0 8 3 100%s%n; 100%s%n\nTessaline 0 8 3 Unknown error; Unknown error\n",
              printed([] { ut_fatal("100%s%n"), ut_fatal(nullptr); }));
}

// The pool's size is seen in the allocator's, but for the freed entries that this keeps for the thread.
template <typename T, typename A>
void use_pool(int (*init)(T*, const A*), int (*destroy)(T*), void (*allocate)(unsigned int))
{
    constexpr int slack = 8;
    const size_t start = mallinfo2().uordblks;
    const auto entries = [&] { return double(mallinfo2().uordblks - start) / 64; };
    T handles[51];
    void*& object = reinterpret_cast<void*&>(handles[7]);
    for (T& handle : handles)
        EXPECT_EQ(0, init(&handle, nullptr));
    EXPECT_NEAR(100, entries(), slack) << "fifty at a time";
    void* const given = object;
    destroy(&handles[7]);
    EXPECT_EQ(nullptr, object);
    init(&handles[7], nullptr);
    EXPECT_EQ(given, object) << "the entry given back last is taken next";
    for (T& handle : handles)
        destroy(&handle);
    destroy(&handles[7]);
    EXPECT_NEAR(0, entries(), slack) << "the last give-back frees all; that of a null handle does nothing";
    allocate(20);
    init(&handles[7], nullptr);
    EXPECT_NEAR(20, entries(), slack) << "pre-allocated entries serve a take";
    destroy(&handles[7]);
}

TEST(SafePools, MakeFiftyAtATimeAndFreeAllWithTheLastHandle)
{
    const auto use_both = [] {
        use_pool(ut_safe_pthread_mutex_init, ut_safe_pthread_mutex_destroy, ut_safe_pthread_mutex_alloc);
        use_pool(ut_safe_pthread_cond_init, ut_safe_pthread_cond_destroy, ut_safe_pthread_cond_alloc);
    };
    EXPECT_EQ(0, own_allocator ? in_child(use_both).status : 0);
}

struct a_pair {
    a_pair() { EXPECT_EQ(0, ut_safe_pthread_mutex_init(&mutex, nullptr) + ut_safe_pthread_cond_init(&cond, nullptr)); }
    ~a_pair() { ut_safe_pthread_cond_destroy(&cond), ut_safe_pthread_mutex_destroy(&mutex); }
    void lock() { ut_safe_pthread_mutex_lock(&mutex); }
    void unlock() { ut_safe_pthread_mutex_unlock(&mutex); }
    a_ut_safe_pthread_mutex_t mutex;
    a_ut_safe_pthread_cond_t cond;
};

void use_pools()
{
    a_pair pair;
    pair.lock();
    pair.unlock();
}

// In the child no other thread exists: none that would give a lock back, and none to wait for behind a condition.
TEST(SafePools, AreFreeInAForkedChildWhileThreadsOfTheParentUseThemAndWait)
{
    a_pair pair;
    std::atomic<int> stage = 0;
    std::thread waiter([&] {
        pair.lock();
        for (stage = 1; stage < 2;)
            ut_safe_pthread_cond_wait(&pair.cond, &pair.mutex);
        pair.unlock();
    });
    while (stage == 0)
        std::this_thread::yield();
    pair.lock();  // held by the waiter until it waits
    EXPECT_EQ(0, in_child([&] { ut_safe_pthread_cond_destroy(&pair.cond); }).status) << "it frees the pool";
    pair.unlock();
    {
        a_crowd crowd;
        crowd.repeat(use_pools);
        crowd.repeat(use_pools);
        int status = 0;
        for (int i = 0; i < (under_asan ? 0 : 300) && status == 0; i++)  // its allocator's locks stay held in a child
            status = in_child(use_pools).status;
        EXPECT_EQ(0, status);
    }
    pair.lock();
    stage = 2;
    ut_safe_pthread_cond_broadcast(&pair.cond);
    pair.unlock();
    waiter.join();
}

TEST(PrintChannels, WriteToTheirStreamsUnlessRedirectedAndCutLongTexts)
{
    std::string got;
    const std::string longest(4095, 'x');
    const auto receive = [](void* data, const char* msg) {
        *static_cast<std::string*>(data) += std::string(msg) + "|";
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ("one %d+back", printed([&] {
                  ut_MsgPrint("one %d");
                  ut_ErrPrint("a%sb");
                  ut_MsgPrint_Register(receive, &got);
                  ut_MsgPrintf("%s%d", longest.c_str(), 12);
                  ut_MsgPrint_Register(nullptr, &got);
                  ut_MsgPrintf("+%s", "back");
              }));
    EXPECT_EQ("a%sb", testing::internal::GetCapturedStderr());
    EXPECT_EQ(longest + "|", got);
}

}  // namespace
