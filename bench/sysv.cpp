// sysv.cpp: opening and closing a System V semaphore, with 1 to 31999 others open, beside the one semctl(SETVAL) inside
// it, a kernel set per semaphore, and sem_init. TBX_MAX_NSEMS is read once: by default a set has the kernel's 32000
// members. The report runs this once more with sets of one.
#include <semaphore.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "corvex/onsig.h"
#include "corvex/sysvsem.h"

namespace {

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

// A full set; of sets of one, fewer than the 32000 that the kernel keeps for all processes.
void others_open(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(1)->Arg(1000)->Arg(getenv("TBX_MAX_NSEMS") ? 31000 : 31999);
}
BENCHMARK(sysv_open_close)->Name("sysv/open_close")->Apply(others_open);

// In a set of 32000 members too, as the kernel's cost may depend on it.
void sysv_setval(benchmark::State& state)
{
    const int ident = semget(IPC_PRIVATE, 32000, IPC_CREAT | 0600);
    for (auto _ : state)
        benchmark::DoNotOptimize(semctl(ident, 1, SETVAL, 1));
    semctl(ident, 0, IPC_RMID);
}
BENCHMARK(sysv_setval)->Name("sysv/setval");

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
