// sysv.cpp: opening and closing a System V semaphore, with 1 to 31999 others open and for the first time, beside the
// one semctl(SETVAL) or semop inside it, a kernel set per semaphore, and sem_init. TBX_MAX_NSEMS is read once: by
// default a set has the kernel's 32000 members. The report runs this again with sets of one and of 16.
#include <semaphore.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "corvex/onsig.h"
#include "corvex/sysvsem.h"

namespace {

constexpr size_t many = 31000;  // a set of the default size, not full; sets of one, all that a machine has or nearly

int members()
{
    const char* wanted = getenv("TBX_MAX_NSEMS");
    return wanted != nullptr ? atoi(wanted) : 32000;
}

void sysv_open_close(benchmark::State& state)
{
    ut_onsig_install_signal_handlers(FALSE);  // an interrupted run leaves no sets in the kernel
    std::vector<a_sysv_semaphore> others(static_cast<size_t>(state.range(0)));
    for (a_sysv_semaphore& s : others)
        if (!sysv_open_semaphore(&s, 1))
            state.SkipWithError("no semaphore");
    for (auto _ : state) {
        a_sysv_semaphore s;
        benchmark::DoNotOptimize(sysv_open_semaphore(&s, 1));
        sysv_close_semaphore(&s);
    }
    for (a_sysv_semaphore& s : others)
        sysv_close_semaphore(&s);
}

// A full set; of smaller ones, fewer than the 32000 that the kernel keeps for all processes.
void others_open(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(1)->Arg(1000)->Arg(getenv("TBX_MAX_NSEMS") ? many : 31999);
}
BENCHMARK(sysv_open_close)->Name("sysv/open_close")->Apply(others_open);

// No member twice: the making and removing of the sets is spread over them.
void sysv_first_use(benchmark::State& state)
{
    std::vector<a_sysv_semaphore> all(many);
    while (state.KeepRunningBatch(many)) {
        for (a_sysv_semaphore& s : all)
            if (!sysv_open_semaphore(&s, 1))
                state.SkipWithError("no semaphore");
        for (a_sysv_semaphore& s : all)
            sysv_close_semaphore(&s);
    }
}
BENCHMARK(sysv_first_use)->Name("sysv/first_use");

// In a set of the library's size too, as the kernel's cost depends on it.
void sysv_setval(benchmark::State& state)
{
    const int ident = semget(IPC_PRIVATE, members(), IPC_CREAT | 0600);
    for (auto _ : state)
        benchmark::DoNotOptimize(semctl(ident, 0, SETVAL, 1));
    semctl(ident, 0, IPC_RMID);
}
BENCHMARK(sysv_setval)->Name("sysv/setval");

void sysv_semop(benchmark::State& state)
{
    const int ident = semget(IPC_PRIVATE, members(), IPC_CREAT | 0600);
    sembuf change = {0, 1, 0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(semop(ident, &change, 1));
        change.sem_op = static_cast<short>(-change.sem_op);
    }
    semctl(ident, 0, IPC_RMID);
}
BENCHMARK(sysv_semop)->Name("sysv/semop");

void sysv_raw_set(benchmark::State& state)
{
    for (auto _ : state) {
        const int ident = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
        semctl(ident, 0, SETVAL, 1);
        semctl(ident, 0, IPC_RMID);
    }
}
BENCHMARK(sysv_raw_set)->Name("sysv/semget");

void posix_sem(benchmark::State& state)
{
    for (auto _ : state) {
        sem_t s;
        sem_init(&s, 1, 1);
        benchmark::DoNotOptimize(s);
        sem_destroy(&s);
    }
}
BENCHMARK(posix_sem)->Name("sysv/sem_init");

}  // namespace
