// The thread table; starting, parking and ending threads; the mutexes; the identity of the process.
#include <atomic>
#include <thread>
#include <vector>

#include "corvex/corvex.h"
#include "tests/child.h"

namespace {

class Threads : public testing::Test {
protected:
    void SetUp() override { OS_Init(); }
    void TearDown() override { OS_Fini(); }
};

an_os_walker_rc count(p_os_thread, void* of)
{
    ++*static_cast<int*>(of);
    return OS_THREAD_CONTINUE;
}

int table_size()
{
    int threads = 0;
    OS_ThreadWalk(count, &threads);
    return threads;
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

// Parks until it is woken with a value, and ends.
void park(void* got) { *static_cast<void**>(got) = OS_Wait(); }

void expect_value_to_arrive(void* value)
{
    void* got = nullptr;
    p_os_thread thread = begin(park, &got);
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
        EXPECT_EQ(me->table_next, main_thread) << "newest first";
        EXPECT_EQ(OS_Attach_Thread(), me);
        OS_SetTLS(me, &main_thread);
        OS_Detach_Thread();
        EXPECT_EQ(OS_GetTLS(OS_Me()), &main_thread) << "one reference is left";
        const auto stop_at_first = [](p_os_thread thread, void* to) {
            *static_cast<p_os_thread*>(to) = thread;
            return OS_THREAD_STOP;
        };
        OS_ThreadWalk(stop_at_first, &seen);
        EXPECT_EQ(seen, me);
        OS_Detach_Thread();
    }).join();
    EXPECT_EQ(table_size(), 1);
    OS_Init();
    OS_Fini();
    EXPECT_EQ(OS_Me(), main_thread) << "a nested start only counts";
}

TEST_F(Threads, FiniWakesParkedThreadsAndWaitsForEndingOnes)
{
    for (int round = 0; round < 100; round++) {
        std::atomic<int> parked{0}, woken{0};
        std::atomic<bool> over{false};
        std::thread foreign([&] {
            OS_Me();
            parked++;
            while (!over)  // comes back again and again
                woken += OS_Wait() == nullptr;
        });
        const auto count_and_park = [](void* of) {
            ++*static_cast<std::atomic<int>*>(of);
            OS_Wait();
        };
        for (int i = 0; i < 4; i++)
            begin(count_and_park, &parked, i % 2 == 0);
        for (int i = 0; i < 3; i++)
            begin([](void*) { OS_End_Thread(); }, nullptr, FALSE);
        while (parked != 5)
            usleep(10);
        OS_Fini();
        over = true;
        foreign.join();
        EXPECT_GE(woken, 1);
        EXPECT_EQ(OS_Wait(), nullptr) << "nothing to wait on";
        OS_Init();
        EXPECT_EQ(table_size(), 1);
    }
}

// Each kind of operation in a thread of its own, against all others.
TEST_F(Threads, OperationsOfAllKindsRunSideBySide)
{
    std::atomic<bool> stop{false};
    p_os_thread main_thread = OS_Me();
    long values[100] = {}, last = 0;
    std::vector<std::thread> threads;
    const auto repeat = [&](auto operation) {
        threads.emplace_back([&stop, operation]() mutable {
            OS_Attach_Thread();
            while (!stop)
                operation();
            OS_Detach_Thread();
        });
    };
    repeat([] { OS_Init(), OS_Fini(); });
    repeat([] {
        OS_Attach_Thread();
        OS_ThreadWalk([](p_os_thread thread, void*) { return OS_GetTLS(thread) ? OS_THREAD_STOP : OS_THREAD_CONTINUE; },
                      nullptr);
        OS_Detach_Thread();
    });
    repeat([&] {
        expect_value_to_arrive(&stop);
        begin([](void*) { OS_Attach_Thread(); }, nullptr, FALSE);
    });
    repeat([&, i = 0L]() mutable {  // the value, and what it points to, reach the sleeper
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
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(wait_for_table(1));
}

TEST_F(Threads, StartNamesTheThreadAndGivesTheStackAskedFor)
{
    struct a_case {
        unsigned asked;
        size_t given;
        const char *name, *seen_name;
        size_t seen;
        char read[32];
    } cases[] = {{1000, 0x80000, "exactly15chars!", "exactly15chars!", 0, ""},
                 {0x100000, 0x100000, "thirteen char\xc3\xa9\xc3\xa9", "thirteen char\xc3\xa9", 0, ""},
                 {0x80000, 0x80000, "fourteen chars\xc3\xa9", "fourteen chars", 0, ""}};
    const auto look = [](void* arg) {
        a_case* of = static_cast<a_case*>(arg);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &of->seen);
        pthread_attr_destroy(&attributes);
        pthread_getname_np(pthread_self(), of->read, sizeof of->read);
        OS_Wait();
    };
    for (a_case& c : cases) {
        p_os_thread thread = begin(look, &c, TRUE, c.asked, c.name);
        EXPECT_EQ(table_size(), 2);
        OS_Wakeup(thread, nullptr);
        EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
        EXPECT_TRUE(c.seen == c.given || (under_tsan && c.seen > c.given)) << c.seen;
        EXPECT_STREQ(c.read, c.seen_name);
        EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0) << "not in the table any more";
    }
}

std::atomic<int> destroyed;
struct a_local {
    ~a_local() { destroyed++; }
};

void leave(void* how)
{
    const a_local local;
    OS_Attach_Thread();
    if (how == nullptr)
        OS_End_Thread();
    else if (*static_cast<int*>(how) == 1)
        pthread_exit(nullptr);
    while (*static_cast<int*>(how) == 2)
        pthread_testcancel();  // the thread sanitizer knows it
}

TEST_F(Threads, ThoseThatLeaveGiveTheirDescriptorUpWhateverItsReferences)
{
    int exits = 1, is_cancelled = 2, returns = 3;
    for (const a_bool attachable : {FALSE, TRUE})
        for (int* how : {static_cast<int*>(nullptr), &exits, &is_cancelled, &returns}) {
            p_os_thread thread = begin(leave, how, attachable);
            if (how == &is_cancelled)
                pthread_cancel(thread->tid);
            if (attachable) {
                EXPECT_EQ(table_size(), 2);
                EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
            }
            EXPECT_TRUE(wait_for_table(1)) << attachable << (how == nullptr ? 0 : *how);
        }
    EXPECT_EQ(destroyed, 8) << "what the bodies hold goes as well";
    for (int i = 0; i < 50; i++) {
        begin([](void* waiter) { OS_End_Thread_Wakeup(static_cast<p_os_thread>(waiter), waiter); }, OS_Me(), FALSE);
        EXPECT_EQ(OS_Wait(), OS_Me());
        EXPECT_EQ(table_size(), 1) << "the wake-up comes after the descriptor is gone";
    }
}

// Threads attach, walk and detach while the main thread forks; every child uses the layer at once and shuts it down.
TEST_F(Threads, LocksAreFreeInAForkedChild)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < (under_asan ? 0 : 2); i++)  // AddressSanitizer's allocator keeps its locks in a child
        threads.emplace_back([&] {
            while (!stop) {
                OS_Attach_Thread();
                table_size();
                OS_Detach_Thread();
            }
        });
    p_os_thread me = OS_Me();
    const auto use_the_layer = [&] {
        EXPECT_EQ(OS_Me(), me);
        EXPECT_GT(table_size(), 0);
        if (!under_tsan)  // which starts no thread in a child
            expect_value_to_arrive(me);
        OS_Fini();
    };
    int status = 0;
    for (int i = 0; i < 100 && status == 0; i++)
        status = in_child(use_the_layer).status;
    EXPECT_EQ(status, 0);
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
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
    const auto get_twice = [&] {
        if (OS_MutexTryGet(&mutex) == 0)
            OS_MutexGet(&mutex);
        OS_MutexGet(&mutex);
    };
    expect_exclusion(get_twice, [&] { OS_MutexGive(&mutex), OS_MutexGive(&mutex); });
    OS_MutexFini(&mutex);

    a_ut_vmutex* virtual_one = UT_Vmutex_Create();
    expect_exclusion([=] { virtual_one->get(); }, [=] { virtual_one->give(); });
    virtual_one->destroy();

    OS_GetTmpCleanerMutex();  // nothing happens but in engine mode
    OS_SetRunningAsEngine(1);
    const auto get_and_set_again = [] {
        OS_GetTmpCleanerMutex();
        OS_SetRunningAsEngine(2);  // the same truth: the held mutex stays
    };
    expect_exclusion(get_and_set_again, OS_GiveTmpCleanerMutex);
    OS_SetRunningAsEngine(0);
}

TEST(Identity, KeepsTheFirstRootPidAndTheEngineName)
{
    OS_SetRootPid(100);
    OS_SetRootPid(200);
    EXPECT_EQ(OS_GetRootPid(), 100);
    OS_ResetRootPid();
    EXPECT_EQ(OS_GetRootPid(), getpid());
    const std::string longest(300, 'e');
    OS_SetEngineName(longest.c_str());
    EXPECT_TRUE(OS_IsEngineName(longest.substr(0, 250).c_str()));
    EXPECT_FALSE(OS_IsEngineName(nullptr));
    OS_SetEngineName(nullptr);
    EXPECT_FALSE(OS_IsEngineName(""));
}

}  // namespace
