// The chain of on-signal callbacks: order, limits, removal, and registration beside a running chain.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "corvex/onsig.h"
#include "utils/unix/sysvsemo.h"

namespace {

std::string ran;
std::atomic<int> steady_runs;

void note(int, void* arg, a_bool, a_bool, a_bool, void*, void*) { ran += static_cast<const char*>(arg); }
void remove_other(int, void* arg, a_bool, a_bool, a_bool, void*, void*) { ut_onsig_call_del(arg, note); }
void steady(int, void*, a_bool, a_bool, a_bool, void*, void*) { steady_runs++; }
void passing(int, void*, a_bool, a_bool, a_bool, void*, void*) {}

void* add(int priority, const char* name) { return ut_onsig_call_add(priority, note, const_cast<char*>(name)); }

std::string run_chain()
{
    ran.clear();
    ut_onsig_call_now(15, FALSE, FALSE, TRUE, nullptr, nullptr);
    return ran;
}

TEST(OnSignalChain, RunsEightSlotsByPriorityFrom0To32000AndReusesTheLowestFreedOne)
{
    sysv_list_fini_semaphore();  // it has a slot
    void* slots[] = {add(5, "a"),     add(1, "b"),     add(5, "c"),  add(0, "d"),
                     add(32000, "z"), add(32001, "!"), add(-1, "!"), add(5, "e")};
    EXPECT_EQ(nullptr, add(1, "!")) << "a ninth registration";
    ut_onsig_call_del(nullptr, note);
    ut_onsig_call_del(slots[2], passing);
    EXPECT_EQ("dbacez", run_chain()) << "a null handle and another's routine remove nothing";
    ut_onsig_call_del(slots[7], note);
    ut_onsig_call_del(slots[2], note);
    EXPECT_EQ(slots[2], ut_onsig_call_add(0, remove_other, slots[0]));
    ut_onsig_call_del(slots[2], note);
    EXPECT_EQ("dbz", run_chain())
        << "a stale handle leaves the slot's next owner alone; what that removes is not called";
    ut_onsig_call_del(slots[2], remove_other);
    for (void* slot : slots)
        ut_onsig_call_del(slot, note);
    EXPECT_EQ("", run_chain());
    sysv_list_init_semaphore();
}

TEST(OnSignalChain, NeitherLosesNorRepeatsACallbackBesideRegistrations)
{
    std::atomic<bool> done = false;
    const auto churn = [&] {
        for (int i = 0; !done; i++)
            ut_onsig_call_del(ut_onsig_call_add(i % 2 == 0 ? 5 : 40, passing, nullptr), passing);
    };
    void* handles[] = {ut_onsig_call_add(10, steady, nullptr), ut_onsig_call_add(20, steady, nullptr)};
    std::thread one(churn), two(churn);
    int wrong = 0;
    for (int round = 0; round < 200000; round++) {
        steady_runs = 0;
        ut_onsig_call_now(1, FALSE, FALSE, FALSE, nullptr, nullptr);
        wrong += steady_runs != 2;
    }
    done = true;
    one.join();
    two.join();
    EXPECT_EQ(0, wrong) << "each steady registration runs once per chain";
    for (void* handle : handles)
        ut_onsig_call_del(handle, steady);
}

}  // namespace
