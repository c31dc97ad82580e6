// System V semaphores: packing into sets, order, values, and what is left in the kernel. Each case runs in a child with
// a namespace of its own where that is allowed, since the set size is fixed once per process.
#include <signal.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <algorithm>
#include <fstream>

#include "corvex/corvex.h"
#include "tests/child.h"
#include "utils/unix/sysvsemo.h"

namespace {

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

int sets_after_closing(a_sysv_semaphore s) { return sysv_close_semaphore(&s), own_sets(); }

int sets_after_signal(a_bool cleanup)
{
    ut_onsig_call_now(SIGTERM, FALSE, !cleanup, cleanup, nullptr, nullptr);
    return own_sets();
}

TEST(SysvSemaphores, PackIntoSetsLowestMemberFirst)
{
    with_sets_of("8", [] {
        std::vector<a_sysv_semaphore> open;
        for (int i = 0; i < 9; i++) {
            open.push_back(open_one(5));
            EXPECT_EQ(open.back().offset, i % 8);
        }
        EXPECT_EQ(sets_after_closing(open[3]), 2);
        EXPECT_EQ(open_one().offset, 3) << "the full set came to the front with its free member";
        a_sysv_semaphore refused = {0, 0};
        EXPECT_FALSE(sysv_open_semaphore(&refused, -1)) << "the kernel refuses the value";
        EXPECT_EQ(open_one().offset, 1) << "the refused member was given back";
        EXPECT_EQ(sets_after_closing(open[8]), 2) << "one member of the second set is left";
        EXPECT_EQ(sets_after_closing({open[8].ident + 12345, 0}), 2) << "nobody's";
        sysv_close_semaphore(nullptr);
        EXPECT_EQ(sets_after_signal(FALSE), 2) << "no cleanup while another handler gets the signal";
        EXPECT_EQ(sets_after_signal(TRUE), 0);
        EXPECT_EQ(sets_after_closing(open[0]), 0);
        EXPECT_EQ(open_one().offset, 0) << "the list is usable after a cleanup";
        sysv_list_fini_semaphore();
        EXPECT_EQ(own_sets(), 0);
        EXPECT_FALSE(sysv_list_is_empty() || sysv_open_semaphore(&refused, 0)) << "there is no list";
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
            EXPECT_EQ(of_one ? sets_after_closing({open[7].ident, 1}) : 300, 300) << "no such member";
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
            EXPECT_NE(open_one().ident, parents.ident) << "members of the parent's set are the parent's to hand out";
            EXPECT_EQ(sets_after_closing(parents), 2);
            EXPECT_EQ(sets_after_signal(TRUE), 1) << "its own set is gone, its parent's is not";
            sets_after_closing(open_one());
            exit(testing::Test::HasFailure());
        };
        EXPECT_EQ(0, in_child(use_and_exit).status);
        EXPECT_EQ(semctl(parents.ident, parents.offset, GETVAL), 1);
        const long unmarked = syscall(SYS_fork);  // as a child is before its fork handlers have run
        if (unmarked == 0)
            sets_after_signal(TRUE), _exit(0);
        waitpid(pid_t(unmarked), nullptr, 0);
        EXPECT_EQ(own_sets(), 1);
        in_child([] { UnixForkProtection_Reset(), sets_after_signal(TRUE); });
        EXPECT_EQ(own_sets(), 0) << "after a reset they are the child's";
        a_sysv_semaphore refused = {0, 0};
        EXPECT_FALSE(sysv_open_semaphore(&refused, 1)) << "its set is gone";
        a_sysv_semaphore fresh = open_one();
        EXPECT_EQ(sets_after_closing(parents), 1);
        EXPECT_EQ(sets_after_closing(fresh), 0);
    });
}

TEST(SysvSemaphores, MembersOfLargeSetsStartWithTheirValueAlone)
{
    with_sets_of("65", [] {
        a_sysv_semaphore first = open_one(5), refused;
        open_one(0);
        open_one(32767);
        for (int value : {-1, 32768, 65537})
            EXPECT_FALSE(sysv_open_semaphore(&refused, value)) << value;
        EXPECT_EQ(open_one(7).offset, 3) << "refused values gave the member back";
        // Whoever dies takes back only what it did to the member's earlier life.
        const pid_t other = fork();
        sembuf add = {0, 3, SEM_UNDO};
        if (other == 0)
            _exit(semop(first.ident, &add, 1) + raise(SIGSTOP));
        waitpid(other, nullptr, WUNTRACED);
        EXPECT_EQ(semctl(first.ident, 0, GETVAL), 8);
        sysv_close_semaphore(&first);
        EXPECT_EQ(open_one(1).offset, 0);
        kill(other, SIGKILL);
        waitpid(other, nullptr, 0);
        EXPECT_EQ(semctl(first.ident, 0, GETVAL), 1);
        for (int i = 4; i < 64; i++)
            EXPECT_EQ(open_one().offset, i);
        const auto open_as_heir = [&] {
            UnixForkProtection_Reset();
            semctl(first.ident, 64, SETVAL, 9);  // the parent has handed it out meanwhile
            EXPECT_EQ(open_one(2).offset, 64);
        };
        EXPECT_EQ(0, in_child(open_as_heir).status);
        EXPECT_EQ(sets_after_closing({first.ident, 3}), 1);
        EXPECT_EQ(open_one().offset, 3);
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
        const std::jthread one(open_and_close, 1), two(open_and_close, 2), three(open_and_close, 3);
    });
}

}  // namespace
