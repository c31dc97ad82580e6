// The allocation wrappers, the fatal-error report and the pools, which forked children find free; print channels.
#include <malloc.h>

#include "corvex/print.h"
#include "corvex/ptcondvar.h"
#include "tests/child.h"
#include "utils/etc/utfatal.h"
#include "utils/unix/utptmutex.h"

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
    EXPECT_EQ(own_allocator ? "Out of memory (ut_alloc)\nOut of memory\n" : "",
              printed([&] { own_allocator ? (ut_alloc(huge), ut_realloc(block, huge)) : nullptr; }));
    EXPECT_STREQ("old", static_cast<char*>(block));
    ut_free(block);
    EXPECT_EQ("100%s%n\nUnknown error\n", printed([] { ut_fatal("100%s%n"), ut_fatal(nullptr); }));
}

struct a_pair {
    a_pair() { EXPECT_EQ(0, ut_safe_pthread_mutex_init(&mutex, nullptr) + ut_safe_pthread_cond_init(&cond, nullptr)); }
    ~a_pair() { ut_safe_pthread_cond_destroy(&cond), ut_safe_pthread_mutex_destroy(&mutex); }
    void lock() { ut_safe_pthread_mutex_lock(&mutex); }
    void unlock() { ut_safe_pthread_mutex_unlock(&mutex); }
    a_ut_safe_pthread_mutex_t mutex;
    a_ut_safe_pthread_cond_t cond;
};

TEST(SafePools, FreeAllWithTheLastHandle)
{
    const auto use_many = [] {
        const size_t start = mallinfo2().uordblks;
        {
            a_pair pairs[51];
            EXPECT_NEAR(200 * 64, double(mallinfo2().uordblks - start), 1000) << "fifty at a time";
            ut_safe_pthread_mutex_destroy(&pairs[7].mutex);  // and once more at the end: nothing happens
        }
        EXPECT_NEAR(0, double(mallinfo2().uordblks - start), 1000);
    };
    EXPECT_EQ(0, own_allocator ? in_child(use_many).status : 0);
}

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
    const std::jthread waiter([&] {
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
        const std::jthread one = repeated(use_pools), two = repeated(use_pools);
        for (int i = 0; i < (under_asan ? 0 : 300) && !HasFailure(); i++)  // its allocator's locks stay in a child
            EXPECT_EQ(0, in_child(use_pools).status);
    }
    pair.lock();
    stage = 2;
    ut_safe_pthread_cond_broadcast(&pair.cond);
    pair.unlock();
}

TEST(PrintChannels, WriteToTheirStreamsUnlessRedirectedAndCutLongTexts)
{
    std::string got;
    const std::string longest(4095, 'x');
    const auto receive = [](void* data, const char* msg) { static_cast<std::string*>(data)->append(msg); };
    const auto print = [&] {
        ut_MsgPrint("one %d"), ut_MsgPrint_Register(receive, &got);
        ut_MsgPrintf("%s%d", longest.c_str(), 12);
        ut_MsgPrint_Register(nullptr, &got);
    };
    EXPECT_EQ("one %d", printed(print));
    EXPECT_EQ(longest, got);
}

}  // namespace
