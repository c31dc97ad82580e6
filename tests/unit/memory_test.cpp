// The allocation wrappers, the fatal-error report and the pools; print channels.
#include <malloc.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool own_allocator = false;  // a sanitizer's: unknown to mallinfo2, and it ends the process on a failure
#else
constexpr bool own_allocator = true;
#endif

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
                  for (void* none :
                       {ut_malloc(0), ut_alloc(0), ut_calloc(0), uicalloc(SIZE_MAX / 2, 3), ut_memdup(nullptr, 5),
                        ut_memdup(text, 0), ut_realloc(nullptr, 0), ut_realloc(ut_malloc(9), 0), ut_malloc(huge),
                        ut_calloc(huge), ut_realloc(nullptr, huge), ut_memdup(text, huge)})
                      EXPECT_EQ(nullptr, none);
              }));
    if (own_allocator) {
        EXPECT_EQ("Tessaline 0 8 3 Out of memory (ut_alloc); Out of memory (ut_alloc)\n",
                  printed([&] { ut_alloc(huge); }));
        EXPECT_EQ("Tessaline 0 8 3 Out of memory; Out of memory\n", printed([&] { ut_realloc(block, huge); }));
    }
    EXPECT_STREQ("old", static_cast<char*>(block));
    ut_free(block);
    EXPECT_EQ("Tessaline 0 8 3 100%s%n; 100%s%n\n", printed([] { ut_fatal("100%s%n"); }));
    EXPECT_EQ("Tessaline 0 8 3 Unknown error; Unknown error\n", printed([] { ut_fatal(nullptr); }));
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
    for (T& handle : handles) {
        EXPECT_EQ(0, init(&handle, nullptr));
        EXPECT_NEAR(&handle == &handles[50] ? 100 : 50, entries(), slack);
    }
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
                  ut_ErrPrint_Register(receive, &got);
                  ut_MsgPrintf("%s", longest.c_str());
                  ut_ErrPrintf("%s%d", longest.c_str(), 12);
                  ut_MsgPrint_Register(nullptr, &got);
                  ut_ErrPrint_Register(nullptr, nullptr);
                  ut_MsgPrintf("+%s", "back");
              }));
    EXPECT_EQ("a%sb", testing::internal::GetCapturedStderr());
    EXPECT_EQ(longest + "|" + longest + "|", got);
}

}  // namespace
