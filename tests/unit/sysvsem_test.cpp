// sysvsem_test.cpp: System V semaphores: packing into sets, order, values, and what is left in the kernel. Each case
// runs in a child with a namespace of its own where that is allowed, since the set size is fixed once per process.
#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvex/corvex.h"
#include "utils/unix/sysvsemo.h"

namespace {

int setvals = 0, semops = 0;  // calls

int kernel_sets()
{
    int count = -1;  // the heading
    FILE* list = fopen("/proc/sysvipc/sem", "r");
    for (int c; (c = fgetc(list)) != EOF;)
        count += c == '\n';
    fclose(list);
    return count;
}

int own_sets(int before) { return kernel_sets() - before; }

// Runs the piece in a child with TBX_MAX_NSEMS set; its failures are the child's status.
void in_child(const char* max_nsems, const std::function<void()>& piece)
{
    const pid_t child = fork();
    if (child == 0) {
        unshare(CLONE_NEWIPC);  // without the right to, the machine's own sets are counted along
        setenv("TBX_MAX_NSEMS", max_nsems, 1);
        UnixForkProtection_Reset();
        piece();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

a_sysv_semaphore open_one(int value = 1)
{
    a_sysv_semaphore s = {-7, -7};
    EXPECT_TRUE(sysv_open_semaphore(&s, value));
    EXPECT_GT(s.ident, 0);
    return s;
}

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

extern "C" int semop(int id, sembuf* operations, size_t n) noexcept
{
    __atomic_add_fetch(&semops, 1, __ATOMIC_RELAXED);
    return int(syscall(SYS_semop, id, operations, n));
}

TEST(SysvSemaphores, PackIntoSetsLowestMemberFirst)
{
    in_child("8", [] {
        const int before = kernel_sets();
        EXPECT_TRUE(sysv_list_is_empty());
        std::vector<a_sysv_semaphore> open;
        for (int i = 0; i < 9; i++) {
            open.push_back(open_one(5));
            EXPECT_EQ(open[size_t(i)].offset, i % 8);
            EXPECT_EQ(semctl(open.back().ident, open.back().offset, GETVAL), 5);
        }
        EXPECT_EQ(own_sets(before), 2);
        EXPECT_NE(open[8].ident, open[0].ident);
        sysv_close_semaphore(&open[3]);
        EXPECT_EQ(open_one().offset, 3) << "the full set came to the front with its free member";
        a_sysv_semaphore refused = {0, 0};
        EXPECT_FALSE(sysv_open_semaphore(&refused, -1)) << "the kernel refuses the value";
        EXPECT_EQ(open_one().offset, 1) << "the refused member was given back";
        sysv_close_semaphore(&open[8]);
        EXPECT_EQ(own_sets(before), 2) << "one member of the second set is left";
        a_sysv_semaphore stale = {open[8].ident + 12345, 0}, none = {0, 0};
        sysv_close_semaphore(&stale);
        sysv_close_semaphore(&none);
        sysv_close_semaphore(nullptr);
        EXPECT_FALSE(sysv_list_is_empty());
        sysv_sig_handler(SIGTERM, nullptr, FALSE, TRUE, FALSE, nullptr, nullptr);
        EXPECT_EQ(own_sets(before), 2) << "no cleanup while another handler gets the signal";
        ut_onsig_call_now(SIGTERM, FALSE, FALSE, TRUE, nullptr, nullptr);
        EXPECT_EQ(own_sets(before), 0);
        EXPECT_TRUE(sysv_list_is_empty());
        sysv_close_semaphore(&open[0]);
        EXPECT_EQ(open_one().offset, 0) << "the list is usable after a cleanup";
        sysv_list_fini_semaphore();
        EXPECT_EQ(own_sets(before), 0);
        EXPECT_FALSE(sysv_list_is_empty()) << "there is no list";
        EXPECT_FALSE(sysv_open_semaphore(&stale, 0));
    });
}

TEST(SysvSemaphores, SetsOfOneComeAndGoWithTheirMember)
{
    // One that the kernel refuses makes sets of one, too.
    for (const char* size : {"1", "2000000000"})
        in_child(size, [] {
            const int before = kernel_sets();
            std::vector<a_sysv_semaphore> open;
            for (int i = 0; i < 300; i++)
                open.push_back(open_one());
            EXPECT_EQ(own_sets(before), 300);
            EXPECT_EQ(c_sysv_semaphore_set::MAX_NSEMS, 1);
            a_sysv_semaphore wrong = {open[7].ident, 1};
            sysv_close_semaphore(&wrong);
            EXPECT_EQ(own_sets(before), 300) << "no such member";
            for (a_sysv_semaphore& s : open)
                sysv_close_semaphore(&s);
            EXPECT_EQ(own_sets(before), 0);
        });
}

TEST(SysvSemaphores, SizeComesFromTheKernelUnlessANumberIsGiven)
{
    for (const char* size : {"0", "-3", "abc", ""})
        in_child(size, [] {
            const int before = kernel_sets();
            a_sysv_semaphore s = open_one();
            EXPECT_EQ(own_sets(before), 1) << "neither the probe nor a set numbered 0 is left";
            seminfo info = {};
            semctl(0, 0, SEM_INFO, &info);
            EXPECT_EQ(c_sysv_semaphore_set::MAX_NSEMS, info.semmsl);
            sysv_close_semaphore(&s);
            EXPECT_EQ(own_sets(before), 0);
        });
}

TEST(SysvSemaphores, ForkedChildLeavesItsParentsSetsAlone)
{
    in_child("4", [] {
        const int before = kernel_sets();
        a_sysv_semaphore parents = open_one();
        const pid_t child = fork();
        if (child == 0) {
            a_sysv_semaphore own = open_one();
            EXPECT_NE(own.ident, parents.ident) << "members of the parent's set are the parent's to hand out";
            sysv_close_semaphore(&parents);
            EXPECT_EQ(own_sets(before), 2);
            ut_onsig_call_now(SIGTERM, FALSE, FALSE, TRUE, nullptr, nullptr);
            EXPECT_EQ(own_sets(before), 1) << "its own set is gone, its parent's is not";
            own = open_one();
            sysv_close_semaphore(&own);
            exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(own_sets(before), 1);
        EXPECT_EQ(semctl(parents.ident, parents.offset, GETVAL), 1);
        const long unmarked = syscall(SYS_fork);  // as a child is before its fork handlers have run
        if (unmarked == 0) {
            ut_onsig_call_now(SIGTERM, FALSE, FALSE, TRUE, nullptr, nullptr);
            _exit(0);
        }
        waitpid(pid_t(unmarked), &status, 0);
        EXPECT_EQ(own_sets(before), 1);
        const pid_t heir = fork();
        if (heir == 0) {
            UnixForkProtection_Reset();
            ut_onsig_call_now(SIGTERM, FALSE, FALSE, TRUE, nullptr, nullptr);
            _exit(0);
        }
        waitpid(heir, &status, 0);
        EXPECT_EQ(own_sets(before), 0) << "after a reset they are the child's";
        sysv_close_semaphore(&parents);
        EXPECT_EQ(own_sets(before), 0);
    });
}

TEST(SysvSemaphores, ASetThatSomebodyElseRemovedIsReplaced)
{
    in_child("4", [] {
        const int before = kernel_sets();
        a_sysv_semaphore lost = open_one(), refused = {0, 0};
        semctl(lost.ident, 0, IPC_RMID);
        EXPECT_FALSE(sysv_open_semaphore(&refused, 1)) << "its set is gone";
        a_sysv_semaphore fresh = open_one();
        EXPECT_EQ(semctl(fresh.ident, fresh.offset, GETVAL), 1);
        sysv_close_semaphore(&lost);
        EXPECT_EQ(own_sets(before), 1);
        sysv_close_semaphore(&fresh);
        EXPECT_EQ(own_sets(before), 0);
        EXPECT_TRUE(sysv_list_is_empty());
    });
}

TEST(SysvSemaphores, MembersOfLargeSetsGetTheirFirstValueBySemop)
{
    in_child("65", [] {
        const int values[] = {5, 0, 32767};
        a_sysv_semaphore open[3], refused;
        for (int i = 0; i < 3; i++) {
            open[i] = open_one(values[i]);
            EXPECT_EQ(semctl(open[i].ident, open[i].offset, GETVAL), values[i]);
        }
        EXPECT_EQ(semops, 2) << "none for 0";
        EXPECT_EQ(setvals, 0);
        for (int value : {-1, 32768, 65537})
            EXPECT_FALSE(sysv_open_semaphore(&refused, value)) << value;
        EXPECT_EQ(open_one(7).offset, 3) << "refused values gave the member back";
        EXPECT_EQ(semctl(open[0].ident, 3, GETVAL), 7);
        EXPECT_EQ(setvals, 4) << "a member is fresh once";
        // Whoever dies takes back only what it did to the member's earlier life.
        int ready[2], go[2];
        char c = 0;
        ASSERT_EQ(pipe(ready) + pipe(go), 0);
        const pid_t other = fork();
        if (other == 0) {
            sembuf add = {0, 3, SEM_UNDO};
            _exit(semop(open[0].ident, &add, 1) != 0 || write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1);
        }
        EXPECT_EQ(read(ready[0], &c, 1), 1);
        sysv_close_semaphore(&open[0]);
        EXPECT_EQ(open_one(1).offset, 0);
        EXPECT_EQ(write(go[1], &c, 1), 1);
        waitpid(other, nullptr, 0);
        EXPECT_EQ(semctl(open[0].ident, 0, GETVAL), 1);
        const pid_t heir = fork();
        if (heir == 0) {
            UnixForkProtection_Reset();
            setvals = 0;
            EXPECT_EQ(open_one(2).offset, 4);
            EXPECT_EQ(setvals, 1) << "the parent may have handed it out meanwhile";
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status;
        waitpid(heir, &status, 0);
        EXPECT_EQ(status, 0);
    });
    in_child("64", [] {
        open_one();
        EXPECT_EQ(setvals, 1) << "cheap in a small set";
        EXPECT_EQ(semops, 0);
    });
}

TEST(SysvSemaphores, ThreadsNeverShareAMember)
{
    in_child("16", [] {
        const int before = kernel_sets();
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; i++)
            threads.emplace_back([i] {
                std::vector<a_sysv_semaphore> mine;
                for (int n = 0; n < 400; n++) {
                    a_sysv_semaphore s;
                    ASSERT_TRUE(sysv_open_semaphore(&s, i));
                    mine.push_back(s);
                    if (mine.size() < 20)
                        continue;
                    EXPECT_EQ(semctl(mine.front().ident, mine.front().offset, GETVAL), i);
                    sysv_close_semaphore(&mine.front());
                    mine.erase(mine.begin());
                }
                for (a_sysv_semaphore& s : mine)
                    sysv_close_semaphore(&s);
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(own_sets(before), 0);
    });
}

TEST(BitArray, FindsAndCountsByWords)
{
    c_bit_array bits(70, TRUE), none(0, TRUE);
    EXPECT_EQ(none.get_first(FALSE), -1);
    for (int i = 0; i < 70; i++) {
        EXPECT_EQ(bits.get_first(FALSE), i);
        EXPECT_FALSE(bits.set(uint32(i)));
    }
    EXPECT_EQ(bits.get_first(FALSE), -1);
    EXPECT_EQ(bits.get_last(TRUE), 69);
    EXPECT_TRUE(bits.clear(3));
    EXPECT_TRUE(bits.clear(68));
    EXPECT_FALSE(bits.clear(70)) << "beyond the end";
    EXPECT_EQ(bits.get_first(FALSE), 3);
    EXPECT_EQ(bits.get_last(FALSE), 68);
    EXPECT_EQ(bits.count_bits(TRUE), 68);
    bits.set_all();
    EXPECT_EQ(bits.count_bits(FALSE), 0);
    bits.clear_all();
    EXPECT_EQ(bits.get_first(FALSE), 0);
    EXPECT_EQ(bits.get_first(TRUE), -1);
}
