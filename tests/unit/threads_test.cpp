// The thread table; starting, parking and ending threads; the mutexes; the identity of the process.
#include "corvex/corvex.h"
#include "tests/child.h"

namespace {

class Threads : public testing::Test {
protected:
    void SetUp() override { OS_Init(); }
    void TearDown() override { OS_Fini(); }
};

int table_size()
{
    int size = 0;
    OS_ThreadWalk([](p_os_thread, void* of) { return ++*static_cast<int*>(of), OS_THREAD_CONTINUE; }, &size);
    return size;
}

bool wait_for_table(int size)
{
    for (int i = 0; i < 20000 && table_size() != size; i++)
        usleep(1000);
    return table_size() == size;
}

p_os_thread begin(an_os_thread_start_address body, void* arg, a_bool attachable = TRUE, unsigned stack = 0,
                  const char* name = nullptr)
{
    return OS_Begin_Thread_Attachable(body, nullptr, stack, arg, name, attachable);
}

void start_and_wake(void* value)
{
    void* got = nullptr;
    p_os_thread thread = begin([](void* to) { *static_cast<void**>(to) = OS_Wait(); }, &got);
    OS_Wakeup(thread, value);
    EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
    EXPECT_EQ(got, value);
}

TEST_F(Threads, DescriptorLivesAsLongAsItsReferences)
{
    p_os_thread main_thread = OS_Me();
    int a, b;
    OS_Wakeup(main_thread, &a);
    OS_Wakeup(main_thread, &b);
    EXPECT_EQ(OS_Wait(), &b) << "two wake-ups are one, with the last value";
    EXPECT_EQ(ut_pthread_test_semaphore(&main_thread->wait), 0u);
    std::thread([&] {
        OS_Detach_Thread();  // without a descriptor: nothing happens
        p_os_thread me = OS_Me(), seen = nullptr;
        EXPECT_EQ(OS_Attach_Thread(), me);
        OS_SetTLS(me, &main_thread);
        OS_Detach_Thread();
        EXPECT_EQ(OS_GetTLS(OS_Me()), &main_thread) << "one reference is left";
        const auto stop_at_first = [](p_os_thread thread, void* to) {
            *static_cast<p_os_thread*>(to) = thread;
            return OS_THREAD_STOP;
        };
        OS_ThreadWalk(stop_at_first, &seen);
        EXPECT_EQ(seen, me) << "newest first";
        OS_Detach_Thread();
    }).join();
    EXPECT_EQ(table_size(), 1);
    OS_Init();
    OS_Fini();
    EXPECT_EQ(OS_Me(), main_thread) << "a nested start only counts";
}

TEST_F(Threads, FiniWakesParkedThreadsAndWaitsForEndingOnes)
{
    static std::atomic<int> parked, woken;
    for (int round = 0; round < 100; round++) {
        parked = woken = 0;
        {
            a_crowd foreign;
            foreign.repeat([me = p_os_thread()]() mutable {  // comes back again and again
                if (me == nullptr)
                    me = OS_Me(), parked++;
                woken += OS_Wait() == nullptr;
            });
            for (int i = 0; i < 4; i++)
                begin([](void*) { parked++, OS_Wait(); }, nullptr, i % 2 == 0);
            for (int i = 0; i < 3; i++)
                begin([](void*) { OS_End_Thread(); }, nullptr, FALSE);
            while (parked != 5)
                usleep(10);
            OS_Fini();
        }
        EXPECT_GE(woken, 1);
        EXPECT_EQ(OS_Wait(), nullptr) << "nothing to wait on";
        OS_Init();
        EXPECT_EQ(table_size(), 1);
    }
}

// Each kind of operation in a thread of its own, against all others.
TEST_F(Threads, OperationsOfAllKindsRunSideBySide)
{
    p_os_thread main_thread = OS_Me();
    long values[100] = {}, last = 0;
    const auto stop_at_tls = [](p_os_thread thread, void*) {
        return OS_GetTLS(thread) ? OS_THREAD_STOP : OS_THREAD_CONTINUE;
    };
    {
        a_crowd crowd;
        crowd.repeat([] { OS_Init(), OS_Fini(); });
        crowd.repeat([&] { OS_Attach_Thread(), OS_ThreadWalk(stop_at_tls, nullptr), OS_Detach_Thread(); });
        crowd.repeat([&] {
            OS_Attach_Thread();
            start_and_wake(&last);
            begin([](void*) { OS_Attach_Thread(); }, nullptr, FALSE);
            OS_Detach_Thread();
        });
        crowd.repeat([&, i = 0L]() mutable {  // the value, and what it points to, reach the sleeper
            long& value = values[i % 100];
            __atomic_store_n(&value, ++i, __ATOMIC_RELAXED);
            OS_SetTLS(main_thread, &value);
            OS_Wakeup(main_thread, &value);
        });
        for (int i = 0; i < 2000; i++) {
            const long seen = __atomic_load_n(static_cast<long*>(OS_Wait()), __ATOMIC_RELAXED);
            EXPECT_GE(seen, last) << "a stale value";
            last = seen;
        }
    }
    EXPECT_TRUE(wait_for_table(1));
}

TEST_F(Threads, StartNamesTheThreadAndGivesTheStackAskedFor)
{
    static size_t stack;
    static char name[32];
    const auto look = [](void*) {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
        pthread_getname_np(pthread_self(), name, sizeof name);
        OS_Wait();
    };
    const struct {
        unsigned asked, given;
        const char *name, *seen;
    } cases[] = {{1000, 0x80000, "exactly15chars!", "exactly15chars!"},
                 {0x100000, 0x100000, "thirteen char\xc3\xa9\xc3\xa9", "thirteen char\xc3\xa9"},
                 {0x80000, 0x80000, "fourteen chars\xc3\xa9", "fourteen chars"}};
    for (const auto& c : cases) {
        p_os_thread thread = begin(look, nullptr, TRUE, c.asked, c.name);
        EXPECT_EQ(table_size(), 2);
        OS_Wakeup(thread, nullptr);
        EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
        EXPECT_TRUE(stack == c.given || (under_tsan && stack > c.given)) << stack;  // it adds room of its own
        EXPECT_STREQ(name, c.seen);
        EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0) << "not in the table any more";
    }
}

enum a_leaving : intptr_t { ENDS, EXITS, IS_CANCELLED, RETURNS, LEAVINGS };
std::atomic<int> destroyed;

void leave(void* how)
{
    const struct a_local {
        ~a_local() { destroyed++; }
    } local;
    OS_Attach_Thread();
    if (how == nullptr)
        OS_End_Thread();
    if (intptr_t(how) == EXITS)
        pthread_exit(nullptr);
    while (intptr_t(how) == IS_CANCELLED)
        pthread_testcancel();  // the thread sanitizer knows it
}

TEST_F(Threads, ThoseThatLeaveGiveTheirDescriptorUpWhateverItsReferences)
{
    for (intptr_t i = 0; i < 2 * LEAVINGS; i++) {
        const a_bool attachable = i < LEAVINGS;
        p_os_thread thread = begin(leave, reinterpret_cast<void*>(i % LEAVINGS), attachable);
        if (i % LEAVINGS == IS_CANCELLED)
            pthread_cancel(thread->tid);
        EXPECT_EQ(attachable ? OS_WaitOnThreadTermination(thread) : 0, 0);
        EXPECT_TRUE(wait_for_table(1)) << i;
    }
    EXPECT_EQ(destroyed, 2 * LEAVINGS) << "what the bodies hold goes as well";
    for (int i = 0; i < 50; i++) {
        begin([](void* waiter) { OS_End_Thread_Wakeup(static_cast<p_os_thread>(waiter), waiter); }, OS_Me(), FALSE);
        EXPECT_EQ(OS_Wait(), OS_Me());
        EXPECT_EQ(table_size(), 1) << "the wake-up comes after the descriptor is gone";
    }
}

// Threads attach, walk and detach while the main thread forks; every child uses the layer at once and shuts it down.
TEST_F(Threads, LocksAreFreeInAForkedChild)
{
    a_crowd crowd;
    for (int i = 0; i < (under_asan ? 0 : 2); i++)  // AddressSanitizer's allocator keeps its locks in a child
        crowd.repeat([&] { OS_Attach_Thread(), table_size(), OS_Detach_Thread(); });
    p_os_thread me = OS_Me();
    const auto use_the_layer = [&] {
        EXPECT_EQ(OS_Me(), me);
        EXPECT_GT(table_size(), 0);
        if (!under_tsan)  // which starts no thread in a child
            start_and_wake(me);
        OS_Fini();
    };
    int status = 0;
    for (int i = 0; i < 100 && status == 0; i++)
        status = in_child(use_the_layer).status;
    EXPECT_EQ(status, 0);
}

template <typename L, typename U>
void expect_exclusion(L lock, U unlock)
{
    long shared = 0;
    const auto add = [&] {
        for (int n = 0; n < 50000; n++) {
            lock();
            shared++;
            unlock();
        }
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(shared, 100000);
}

TEST(Mutexes, ExcludeOtherThreadsAndTakeTheirOwnerTwice)
{
    a_mutex mutex;
    OS_MutexInit(&mutex);
    EXPECT_EQ(OS_MutexGet(&mutex), 0u);
    EXPECT_EQ(OS_MutexTryGet(&mutex), 1u);
    OS_MutexGive(&mutex);
    std::thread([&] { EXPECT_EQ(OS_MutexTryGet(&mutex), 0u); }).join();
    OS_MutexGive(&mutex);
    const auto get_twice = [&] { (OS_MutexTryGet(&mutex) || OS_MutexGet(&mutex)), OS_MutexGet(&mutex); };
    expect_exclusion(get_twice, [&] { OS_MutexGive(&mutex), OS_MutexGive(&mutex); });
    OS_MutexFini(&mutex);
    a_ut_vmutex* virtual_one = UT_Vmutex_Create();
    expect_exclusion([=] { virtual_one->get(); }, [=] { virtual_one->give(); });
    virtual_one->destroy();
    OS_GetTmpCleanerMutex();  // nothing happens but in engine mode
    OS_SetRunningAsEngine(1);
    // Setting the same truth leaves the held mutex alone.
    expect_exclusion([] { OS_GetTmpCleanerMutex(), OS_SetRunningAsEngine(2); }, OS_GiveTmpCleanerMutex);
    OS_SetRunningAsEngine(0);
}

TEST(Identity, KeepsTheFirstRootPidAndTheEngineName)
{
    OS_SetRootPid(100);
    OS_SetRootPid(200);
    EXPECT_EQ(OS_GetRootPid(), 100);
    OS_ResetRootPid();
    EXPECT_EQ(OS_GetRootPid(), getpid());
    OS_SetEngineName(std::string(300, 'e').c_str());
    EXPECT_TRUE(OS_IsEngineName(std::string(250, 'e').c_str()));
    EXPECT_FALSE(OS_IsEngineName(nullptr));
    OS_SetEngineName(nullptr);
    EXPECT_FALSE(OS_IsEngineName(""));
}

}  // namespace
