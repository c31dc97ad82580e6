// System V semaphores: packing into sets, order, values, and what is left in the kernel. Each case runs in a child with
// a namespace of its own where that is allowed, since the set size is fixed once per process.
#include <sched.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <algorithm>
#include <fstream>

#include "corvex/corvex.h"
#include "tests/child.h"
#include "utils/unix/sysvsemo.h"

namespace {

int setvals = 0;  // calls
int sets_before = 0;

int kernel_sets()
{
    std::ifstream list("/proc/sysvipc/sem");  // under a heading
    return int(std::count(std::istreambuf_iterator<char>(list), {}, '\n')) - 1;
}

int own_sets() { return kernel_sets() - sets_before; }

template <typename F>
void with_sets_of(const char* max_nsems, F piece)
{
    const auto in_own_namespace = [&] {
        unshare(CLONE_NEWIPC);  // without the right to, the machine's own sets are counted along
        setenv("TBX_MAX_NSEMS", max_nsems, 1);
        UnixForkProtection_Reset();
        sets_before = kernel_sets();
        piece();
    };
    EXPECT_EQ(0, in_child(in_own_namespace).status) << max_nsems;
}

a_sysv_semaphore open_one(int value = 1)
{
    a_sysv_semaphore s = {-7, -7};
    EXPECT_TRUE(sysv_open_semaphore(&s, value));
    EXPECT_GT(s.ident, 0);
    EXPECT_EQ(semctl(s.ident, s.offset, GETVAL), value);
    return s;
}

void clean_up() { ut_onsig_call_now(SIGTERM, FALSE, FALSE, TRUE, nullptr, nullptr); }

}  // namespace

extern "C" int semctl(int id, int n, int command, ...) noexcept
{
    va_list args;
    va_start(args, command);
    void* arg = va_arg(args, void*);
    va_end(args);
    __atomic_add_fetch(&setvals, command == SETVAL, __ATOMIC_RELAXED);
    return int(syscall(SYS_semctl, id, n, command, arg));
}

namespace {

TEST(SysvSemaphores, PackIntoSetsLowestMemberFirst)
{
    with_sets_of("8", [] {
        EXPECT_TRUE(sysv_list_is_empty());
        std::vector<a_sysv_semaphore> open;
        for (int i = 0; i < 9; i++) {
            open.push_back(open_one(5));
            EXPECT_EQ(open.back().offset, i % 8);
        }
        EXPECT_EQ(own_sets(), 2);
        EXPECT_NE(open[8].ident, open[0].ident);
        sysv_close_semaphore(&open[3]);
        EXPECT_EQ(open_one().offset, 3) << "the full set came to the front with its free member";
        a_sysv_semaphore refused = {0, 0};
        EXPECT_FALSE(sysv_open_semaphore(&refused, -1)) << "the kernel refuses the value";
        EXPECT_EQ(open_one().offset, 1) << "the refused member was given back";
        sysv_close_semaphore(&open[8]);
        EXPECT_EQ(own_sets(), 2) << "one member of the second set is left";
        a_sysv_semaphore stale = {open[8].ident + 12345, 0}, none = {0, 0};
        for (a_sysv_semaphore* nothing : {&stale, &none, static_cast<a_sysv_semaphore*>(nullptr)})
            sysv_close_semaphore(nothing);
        EXPECT_FALSE(sysv_list_is_empty());
        ut_onsig_call_now(SIGTERM, FALSE, TRUE, FALSE, nullptr, nullptr);
        EXPECT_EQ(own_sets(), 2) << "no cleanup while another handler gets the signal";
        clean_up();
        EXPECT_EQ(own_sets(), 0);
        EXPECT_TRUE(sysv_list_is_empty());
        sysv_close_semaphore(&open[0]);
        EXPECT_EQ(open_one().offset, 0) << "the list is usable after a cleanup";
        sysv_list_fini_semaphore();
        EXPECT_EQ(own_sets(), 0);
        EXPECT_FALSE(sysv_list_is_empty() || sysv_open_semaphore(&stale, 0)) << "there is no list";
    });
}

TEST(SysvSemaphores, SizeComesFromTheKernelUnlessANumberIsGivenAndSetsGoWithTheirLastMember)
{
    for (const char* size : {"0", "-3", "abc", "", "1", "2000000000"})  // the kernel refuses the last: sets of one
        with_sets_of(size, [&] {
            const bool of_one = size[0] == '1' || size[0] == '2';
            seminfo info = {};
            semctl(0, 0, SEM_INFO, &info);
            std::vector<a_sysv_semaphore> open;
            for (int i = 0; i < 300; i++)
                open.push_back(open_one());
            EXPECT_EQ(own_sets(), of_one ? 300 : 1) << "neither the probe nor a set numbered 0 is left";
            EXPECT_EQ(c_sysv_semaphore_set::MAX_NSEMS, of_one ? 1 : info.semmsl);
            a_sysv_semaphore wrong = {open[7].ident, 31999};
            sysv_close_semaphore(&wrong);  // no such member
            for (a_sysv_semaphore& s : open)
                sysv_close_semaphore(&s);
            EXPECT_EQ(own_sets(), 0);
        });
}

TEST(SysvSemaphores, ForkedChildLeavesItsParentsSetsAloneAndARemovedSetIsReplaced)
{
    with_sets_of("4", [] {
        a_sysv_semaphore parents = open_one();
        const auto use_and_exit = [&] {
            a_sysv_semaphore own = open_one();
            EXPECT_NE(own.ident, parents.ident) << "members of the parent's set are the parent's to hand out";
            sysv_close_semaphore(&parents);
            EXPECT_EQ(own_sets(), 2);
            clean_up();
            EXPECT_EQ(own_sets(), 1) << "its own set is gone, its parent's is not";
            own = open_one();
            sysv_close_semaphore(&own);
            exit(testing::Test::HasFailure());
        };
        EXPECT_EQ(0, in_child(use_and_exit).status);
        EXPECT_EQ(own_sets(), 1);
        EXPECT_EQ(semctl(parents.ident, parents.offset, GETVAL), 1);
        const long unmarked = syscall(SYS_fork);  // as a child is before its fork handlers have run
        if (unmarked == 0)
            clean_up(), _exit(0);
        waitpid(pid_t(unmarked), nullptr, 0);
        EXPECT_EQ(own_sets(), 1);
        in_child([] { UnixForkProtection_Reset(), clean_up(); });
        EXPECT_EQ(own_sets(), 0) << "after a reset they are the child's";
        a_sysv_semaphore refused = {0, 0};
        EXPECT_FALSE(sysv_open_semaphore(&refused, 1)) << "its set is gone";
        a_sysv_semaphore fresh = open_one();
        sysv_close_semaphore(&parents);
        EXPECT_EQ(own_sets(), 1);
        sysv_close_semaphore(&fresh);
        EXPECT_EQ(own_sets(), 0);
        EXPECT_TRUE(sysv_list_is_empty());
    });
}

TEST(SysvSemaphores, MembersOfLargeSetsGetTheirFirstValueBySemop)
{
    with_sets_of("65", [] {
        a_sysv_semaphore first = open_one(5), refused;
        open_one(0);
        open_one(32767);
        EXPECT_EQ(setvals, 0);
        for (int value : {-1, 32768, 65537})
            EXPECT_FALSE(sysv_open_semaphore(&refused, value)) << value;
        EXPECT_EQ(open_one(7).offset, 3) << "refused values gave the member back";
        EXPECT_EQ(setvals, 4) << "a member is fresh once";
        // Whoever dies takes back only what it did to the member's earlier life.
        int ready[2], go[2];
        char c = 0;
        ASSERT_EQ(pipe(ready) + pipe(go), 0);
        const pid_t other = fork();
        if (other == 0) {
            sembuf add = {0, 3, SEM_UNDO};
            _exit(semop(first.ident, &add, 1) != 0 || write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1);
        }
        EXPECT_EQ(read(ready[0], &c, 1), 1);
        sysv_close_semaphore(&first);
        EXPECT_EQ(open_one(1).offset, 0);
        EXPECT_EQ(write(go[1], &c, 1), 1);
        waitpid(other, nullptr, 0);
        EXPECT_EQ(semctl(first.ident, 0, GETVAL), 1);
        for (int i = 4; i < 65; i++)
            EXPECT_EQ(open_one().offset, i);
        EXPECT_EQ(own_sets(), 1);
        EXPECT_EQ(open_one().offset, 0) << "of the next set";
        const auto open_as_heir = [] {
            UnixForkProtection_Reset();
            setvals = 0;
            EXPECT_EQ(open_one(2).offset, 1);
            EXPECT_EQ(setvals, 1) << "the parent may have handed it out meanwhile";
        };
        EXPECT_EQ(0, in_child(open_as_heir).status);
    });
    with_sets_of("64", [] {
        open_one();
        EXPECT_EQ(setvals, 1) << "cheap in a small set";
    });
}

TEST(SysvSemaphores, ThreadsNeverShareAMember)
{
    with_sets_of("16", [] {
        const auto open_and_close = [](int value) {
            for (int round = 0; round < 30; round++) {
                a_sysv_semaphore mine[20];
                for (a_sysv_semaphore& s : mine)
                    s = open_one(value);
                for (a_sysv_semaphore& s : mine) {
                    EXPECT_EQ(semctl(s.ident, s.offset, GETVAL), value);
                    sysv_close_semaphore(&s);
                }
            }
        };
        std::thread one(open_and_close, 1), two(open_and_close, 2), three(open_and_close, 3);
        open_and_close(4);
        for (std::thread* thread : {&one, &two, &three})
            thread->join();
        EXPECT_EQ(own_sets(), 0);
    });
}

}  // namespace
