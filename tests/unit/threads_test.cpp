// threads_test.cpp: the thread table, starting, parking and ending threads, the recursive mutex, identity, virtual
// mutex.
#include "corvex/corvex.h"

#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// It adds room of its own to stacks, and cannot start threads in a forked child.
#ifdef __SANITIZE_THREAD__
constexpr bool under_tsan = true;
#else
constexpr bool under_tsan = false;
#endif

// A lock of AddressSanitizer's allocator that a thread holds at a fork stays held in the child.
#ifdef __SANITIZE_ADDRESS__
constexpr int threads_beside_forks = 0;
#else
constexpr int threads_beside_forks = 2;
#endif

class Threads : public testing::Test {
protected:
    void SetUp() override { OS_Init(); }
    void TearDown() override { OS_Fini(); }
};

an_os_walker_rc count_walker(p_os_thread, void* parm)
{
    ++*static_cast<int*>(parm);
    return OS_THREAD_CONTINUE;
}

int table_size()
{
    int count = 0;
    OS_ThreadWalk(count_walker, &count);
    return count;
}

// A thread of the library that parks until it is woken, then ends as told.
struct a_worker {
    std::atomic<void*> got{nullptr};
    size_t stack = 0;
    char name[32] = "";
    int attachments = 1;
};

void parked_body(void* arg)
{
    a_worker* worker = static_cast<a_worker*>(arg);
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &worker->stack);
    pthread_attr_destroy(&attributes);
    pthread_getname_np(pthread_self(), worker->name, sizeof worker->name);
    for (int i = 1; i < worker->attachments; i++)
        OS_Attach_Thread();
    worker->got = OS_Wait();
}

p_os_thread start(a_worker& worker, unsigned stack = 0, const char* name = nullptr, a_bool attachable = TRUE)
{
    return OS_Begin_Thread_Attachable(parked_body, nullptr, stack, &worker, name, attachable);
}

void finish(p_os_thread thread, void* value)
{
    OS_Wakeup(thread, value);
    EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
}

bool wait_for_table(int size)
{
    for (int i = 0; i < 20000 && table_size() != size; i++)
        usleep(1000);
    return table_size() == size;
}

}  // namespace

TEST_F(Threads, DescriptorLivesAsLongAsItsReferences)
{
    p_os_thread main_thread = OS_Me();
    EXPECT_EQ(table_size(), 1);
    int a, b;
    OS_Wakeup(main_thread, &a);
    OS_Wakeup(main_thread, &b);
    EXPECT_EQ(OS_Wait(), &b) << "two wake-ups are one, with the last value";
    EXPECT_EQ(ut_pthread_test_semaphore(&main_thread->wait), 0u);
    std::thread([&] {
        OS_Detach_Thread();  // without a descriptor: nothing happens
        p_os_thread me = OS_Me();
        EXPECT_EQ(me, OS_Me());
        EXPECT_EQ(me->refCount, 1u);
        EXPECT_EQ(me->tid, pthread_self());
        EXPECT_EQ(me->table_next, main_thread) << "newest first";
        EXPECT_EQ(OS_Attach_Thread(), me);
        OS_SetTLS(me, &main_thread);
        OS_Detach_Thread();
        EXPECT_EQ(OS_GetTLS(OS_Me()), &main_thread) << "one reference is left";
        OS_ThreadWalk(
            [](p_os_thread thread, void* seen) {
                *static_cast<p_os_thread*>(seen) = thread;
                return OS_THREAD_STOP;
            },
            &me);
        EXPECT_EQ(me, OS_Me()) << "a walk stops where it is told";
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
        const auto park = [&](void* of) {
            static_cast<std::atomic<int>*>(of)[0]++;
            OS_Wait();
        };
        static decltype(park)* body = nullptr;
        body = &park;
        for (int i = 0; i < 4; i++)
            OS_Begin_Thread_Attachable([](void* of) { (*body)(of); }, nullptr, 0, &parked, nullptr, i % 2 == 0);
        for (int i = 0; i < 3; i++)
            OS_Begin_Thread_Attachable([](void*) { OS_End_Thread(); }, nullptr, 0, nullptr, nullptr, FALSE);
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
    static std::atomic<bool> stop;
    stop = false;
    p_os_thread main_thread = OS_Me();
    long values[100] = {};
    std::vector<std::thread> threads;
    const auto repeat = [&](auto operation) {
        threads.emplace_back([operation]() mutable {
            OS_Attach_Thread();
            while (!stop)
                operation();
            OS_Detach_Thread();
        });
    };
    repeat([] {
        OS_Init();
        OS_Fini();
    });
    repeat([] {
        OS_Attach_Thread();
        OS_ThreadWalk([](p_os_thread thread, void*) { return OS_GetTLS(thread) ? OS_THREAD_STOP : OS_THREAD_CONTINUE; },
                      nullptr);
        OS_Detach_Thread();
    });
    repeat([] {
        a_worker worker;
        p_os_thread thread = start(worker, 0, "worker", TRUE);
        finish(thread, &worker);
        EXPECT_EQ(worker.got, &worker);
        OS_Begin_Thread_Attachable([](void*) { OS_Attach_Thread(); }, nullptr, 0, nullptr, nullptr, FALSE);
    });
    repeat([&, i = 0L]() mutable {  // the value, and what it points to, reach the sleeper
        long& value = values[i % 100];
        __atomic_store_n(&value, ++i, __ATOMIC_RELAXED);
        OS_SetTLS(main_thread, &value);
        OS_Wakeup(main_thread, &value);
    });
    long last = 0;
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

TEST_F(Threads, StartRegistersNamesAndGivesTheStackAskedFor)
{
    struct a_case {
        unsigned asked;
        size_t given;
        const char* name;
        const char* seen;
    };
    const a_case cases[] = {{1000, 0x80000, "short", "short"},
                            {0x80000 - 1, 0x80000, "exactly15chars!", "exactly15chars!"},
                            {0x100000, 0x100000, "thirteen char\xc3\xa9\xc3\xa9", "thirteen char\xc3\xa9"},
                            {0x80000, 0x80000, "fourteen chars\xc3\xa9", "fourteen chars"}};
    for (const a_case& c : cases) {
        a_worker worker;
        p_os_thread thread = start(worker, c.asked, c.name);
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(table_size(), 2);
        finish(thread, &worker);
        EXPECT_EQ(worker.got, &worker);
        EXPECT_TRUE(worker.stack == c.given || (under_tsan && worker.stack > c.given)) << worker.stack;
        EXPECT_STREQ(worker.name, c.seen);
        EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0) << "not in the table any more";
    }
    a_worker unnamed;
    unnamed.attachments = 3;
    p_os_thread thread = start(unnamed, 0, "", FALSE);
    OS_Wakeup(thread, nullptr);
    EXPECT_TRUE(wait_for_table(1)) << "a body that returns gives its descriptor up, whatever its references";
}

TEST_F(Threads, ThoseThatLeaveEarlyGiveTheirDescriptorUp)
{
    static std::atomic<int> destroyed;
    struct a_local {
        ~a_local() { destroyed++; }
    };
    const an_os_thread_start_address bodies[] = {[](void*) {
                                                     const a_local local;
                                                     pthread_exit(nullptr);
                                                 },
                                                 [](void*) {
                                                     const a_local local;
                                                     OS_Attach_Thread();
                                                     OS_End_Thread();
                                                 },
                                                 [](void*) {
                                                     const a_local local;
                                                     for (;;)
                                                         pthread_testcancel();  // the thread sanitizer knows it
                                                 }};
    for (const a_bool attachable : {FALSE, TRUE})
        for (const auto& body : bodies) {
            p_os_thread thread = OS_Begin_Thread_Attachable(body, nullptr, 0, nullptr, nullptr, attachable);
            if (&body == std::end(bodies) - 1)
                pthread_cancel(thread->tid);
            if (attachable) {
                EXPECT_EQ(table_size(), 2);
                EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
            }
            EXPECT_TRUE(wait_for_table(1)) << attachable << (&body - bodies);
        }
    EXPECT_EQ(destroyed, 6) << "what the bodies hold goes as well";
}

// The sanitizers' own start of a thread cannot do without memory.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Threads, RefusedStartGivesNullAndLosesNothing)
{
    struct rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    const struct rlimit nothing = {1, limit.rlim_max};
    a_worker worker;
    setrlimit(RLIMIT_AS, &nothing);
    p_os_thread refused = start(worker, 0x40000000);
    setrlimit(RLIMIT_AS, &limit);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(table_size(), 1);
    p_os_thread thread = start(worker);
    ASSERT_NE(thread, nullptr) << "the layer stays usable";
    finish(thread, nullptr);
}
#endif

TEST_F(Threads, EndWakeupComesAfterTheDescriptorIsGone)
{
    struct a_pair {
        p_os_thread waiter;
        int value;
    } pair = {OS_Me(), 0};
    for (int i = 0; i < 50; i++) {
        ASSERT_NE(OS_Begin_Thread_Attachable(
                      [](void* arg) {
                          a_pair* of = static_cast<a_pair*>(arg);
                          OS_End_Thread_Wakeup(of->waiter, &of->value);
                      },
                      nullptr, 0, &pair, "ender", FALSE),
                  nullptr);
        EXPECT_EQ(OS_Wait(), &pair.value);
        EXPECT_EQ(table_size(), 1);
    }
}

TEST_F(Threads, MutexIsRecursiveByOwner)
{
    a_mutex mutex;
    OS_MutexInit(&mutex);
    EXPECT_EQ(OS_MutexGet(&mutex), 0u);
    EXPECT_EQ(OS_MutexTryGet(&mutex), 1u);
    OS_MutexGive(&mutex);
    std::thread([&] { EXPECT_EQ(OS_MutexTryGet(&mutex), 0u); }).join();
    EXPECT_EQ(mutex.owner, pthread_self());
    OS_MutexGive(&mutex);
    EXPECT_EQ(mutex.owner, 0u);
    long shared = 0;
    const auto add = [&] {
        for (int n = 0; n < 5000; n++) {
            if (n % 3 != 0 || OS_MutexTryGet(&mutex) == 0)
                OS_MutexGet(&mutex);
            OS_MutexGet(&mutex);
            shared++;
            OS_MutexGive(&mutex);
            OS_MutexGive(&mutex);
        }
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(shared, 10000);
    OS_MutexFini(&mutex);
}

// Threads attach, walk and detach while the main thread forks; every child uses the layer at once and shuts it down.
TEST_F(Threads, LocksAreFreeInAForkedChild)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < threads_beside_forks; i++)
        threads.emplace_back([&] {
            while (!stop) {
                OS_Attach_Thread();
                table_size();
                OS_Detach_Thread();
            }
        });
    p_os_thread me = OS_Me();
    for (int i = 0; i < 100; i++) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            a_worker worker;
            bool good = OS_Me() == me && table_size() > 0;
            if (!under_tsan) {
                p_os_thread thread = start(worker, 0, nullptr, TRUE);
                OS_Wakeup(thread, me);
                good = OS_WaitOnThreadTermination(thread) == 0 && worker.got == me && good;
            }
            OS_Fini();
            _exit(good ? 0 : 1);
        }
        int status;
        waitpid(child, &status, 0);
        ASSERT_EQ(status, 0) << "child " << i;
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Identity, KeepsTheFirstRootPidAndTheEngineName)
{
    EXPECT_EQ(OS_GetRootPid(), getpid());
    OS_SetRootPid(100);
    OS_SetRootPid(200);
    EXPECT_EQ(OS_GetRootPid(), 100);
    OS_ResetRootPid();
    EXPECT_EQ(OS_GetRootPid(), getpid());
    EXPECT_FALSE(OS_IsEngineName(""));
    const std::string longest(300, 'e');
    OS_SetEngineName(longest.c_str());
    EXPECT_TRUE(OS_IsEngineName(longest.substr(0, 250).c_str()));
    EXPECT_FALSE(OS_IsEngineName(longest.c_str()));
    OS_SetEngineName("Engine");
    EXPECT_TRUE(OS_IsEngineName("Engine"));
    EXPECT_FALSE(OS_IsEngineName(nullptr));
    OS_SetEngineName(nullptr);
    EXPECT_FALSE(OS_IsEngineName("Engine"));
    EXPECT_FALSE(OS_IsEngineName(""));
}

TEST(Identity, TemporaryFileMutexExistsInEngineModeOnly)
{
    OS_GetTmpCleanerMutex();  // nothing happens
    OS_GiveTmpCleanerMutex();
    OS_SetRunningAsEngine(1);
    OS_GetTmpCleanerMutex();
    OS_SetRunningAsEngine(2);  // the same truth: the held mutex stays
    OS_GetTmpCleanerMutex();
    OS_GiveTmpCleanerMutex();
    std::atomic<bool> got{false};
    std::thread other([&] {
        OS_GetTmpCleanerMutex();
        got = true;
        OS_GiveTmpCleanerMutex();
    });
    usleep(20000);
    EXPECT_FALSE(got) << "taken twice, given back once";
    OS_GiveTmpCleanerMutex();
    other.join();
    OS_SetRunningAsEngine(0);
}

TEST(VirtualMutex, ExcludesAndGoesByDestroy)
{
    a_ut_vmutex* mutex = UT_Vmutex_Create();
    bool given = false;
    mutex->get();
    std::thread other([&] {
        mutex->get();
        EXPECT_TRUE(given);
        mutex->give();
    });
    usleep(10000);
    given = true;
    mutex->give();
    other.join();
    mutex->destroy();
}
