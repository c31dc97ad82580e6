// The thread table; starting, parking and ending threads; the mutexes.
#include "corvex/corvex.h"
#include "tests/child.h"

namespace {

struct Threads : testing::Test {
    Threads() { OS_Init(); }
    ~Threads() override { OS_Fini(); }
};

int table_size()
{
    int size = 0;
    OS_ThreadWalk([](p_os_thread t, void* of) { return OS_GetTLS(t), ++*static_cast<int*>(of), OS_THREAD_CONTINUE; },
                  &size);
    return size;
}

void attach_and_walk() { OS_Attach_Thread(), table_size(), OS_Detach_Thread(); }

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
    int values[2];
    for (int& value : values)
        OS_Wakeup(main_thread, &value);
    EXPECT_EQ(OS_Wait(), &values[1]) << "two wake-ups are one, with the last value";
    std::thread([&] {
        OS_Detach_Thread();  // without a descriptor: nothing happens
        p_os_thread me = OS_Me();
        EXPECT_EQ(OS_Attach_Thread(), me);
        OS_SetTLS(me, &main_thread);
        OS_Detach_Thread();
        EXPECT_EQ(OS_GetTLS(OS_Me()), &main_thread) << "one reference is left";
        int seen = 0;
        OS_ThreadWalk([](p_os_thread, void* of) { return ++*static_cast<int*>(of), OS_THREAD_STOP; }, &seen);
        EXPECT_EQ(seen, 1);
        OS_Detach_Thread();
    }).join();
    EXPECT_EQ(table_size(), 1);
}

TEST_F(Threads, FiniWakesParkedThreadsAndWaitsForEndingOnes)
{
    static std::atomic<int> parked, woken;
    for (int round = 0; round < 100; round++) {
        parked = woken = 0;
        {
            const std::jthread foreign = repeated([me = p_os_thread()]() mutable {  // comes back again and again
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
    }
}

// Each kind of operation in a thread of its own, against all others.
TEST_F(Threads, OperationsOfAllKindsRunSideBySide)
{
    p_os_thread main_thread = OS_Me();
    long values[100] = {}, last = 0;
    {
        const std::jthread nesting = repeated([] { OS_Init(), OS_Fini(); });
        const std::jthread walking = repeated(attach_and_walk);
        const std::jthread starting = repeated([&] {
            OS_Attach_Thread();
            start_and_wake(&last);
            begin([](void*) { OS_Attach_Thread(); }, nullptr, FALSE);
            OS_Detach_Thread();
        });
        const std::jthread waking = repeated([&, i = 0L]() mutable {  // value and target reach the sleeper
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
    static char name[32];
    const auto look = [](void*) {
        volatile char frame[12 << 20];  // more than a thread usually has
        frame[0] = 1;
        pthread_getname_np(pthread_self(), name, sizeof name - size_t(frame[0]));
    };
    p_os_thread thread = begin(look, nullptr, TRUE, 16 << 20, "fourteen chars\xc3\xa9");
    EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0);
    EXPECT_STREQ(name, "fourteen chars");
    EXPECT_EQ(OS_WaitOnThreadTermination(thread), 0) << "not in the table any more";
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
    const std::jthread one = repeated(attach_and_walk), two = repeated(attach_and_walk);
    p_os_thread me = OS_Me();
    const auto use_the_layer = [&] {
        EXPECT_EQ(OS_Me(), me);
        EXPECT_GT(table_size(), 0);
        if (!under_tsan)  // which starts no thread in a child
            start_and_wake(me);
        OS_Fini();
    };
    for (int i = 0; i < (under_asan ? 0 : 100); i++)  // its allocator's locks stay held in a child
        ASSERT_EQ(in_child(use_the_layer).status, 0);
}

template <typename L, typename U>
void expect_exclusion(L lock, U unlock)
{
    long shared = 0;
    const auto add = [&] {
        for (int n = 0; n < 50000; n++)
            lock(), shared++, unlock();
    };
    std::jthread other(add);
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
    expect_exclusion([&] { (OS_MutexTryGet(&mutex) || OS_MutexGet(&mutex)), OS_MutexGet(&mutex); },
                     [&] { OS_MutexGive(&mutex), OS_MutexGive(&mutex); });
    OS_MutexFini(&mutex);
    OS_GetTmpCleanerMutex();  // nothing happens but in engine mode
    OS_SetRunningAsEngine(1);
    expect_exclusion([] { OS_GetTmpCleanerMutex(), OS_SetRunningAsEngine(2); }, OS_GiveTmpCleanerMutex);
    OS_SetRunningAsEngine(0);
}

}  // namespace
