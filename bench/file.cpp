// file.cpp: what a history file costs beside a history in memory: an event, the first event after the file has been
// written back to its disk, and a fork. Events are also timed one by one in latency.cpp.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/floor.h"
#include "bench/history.h"
#include "corvex/hist_image.h"

namespace {

void history(benchmark::State& state)
{
    for (auto _ : state)
        history_event();
    expect_recorded(state);
}
BENCHMARK(history)->Name("file/event/memory")->Setup(own_queue_copy);
BENCHMARK(history)->Name("file/event/tmpfs")->Setup(own_queue_tmpfs);
BENCHMARK(history)->Name("file/event/disk")->Setup(own_queue_disk);

// The first store to a page that has been written back asks the file system. A sweep of the ring, an event a page.
void after_write_back(benchmark::State& state)
{
    constexpr int events = 8;  // some ten records stand in a page
    for (auto _ : state) {
        state.PauseTiming();
        const int fd = open(ut_hist_image_now->file, O_RDONLY | O_CLOEXEC);
        if (fd < 0 || fsync(fd) != 0)
            state.SkipWithError("no file");
        close(fd);
        state.ResumeTiming();
        for (int i = 0; i < events; i++)
            history_event();
    }
    state.SetItemsProcessed(state.iterations() * events);
}
BENCHMARK(after_write_back)->Name("file/after_write_back/tmpfs")->Setup(own_queue_tmpfs)->Iterations(200);
BENCHMARK(after_write_back)->Name("file/after_write_back/disk")->Setup(own_queue_disk)->Iterations(200);

void fork_child(benchmark::State& state)
{
    for (uint32 n = 0; n < ring_size; n++)
        history_event();
    for (auto _ : state) {
        const pid_t child = fork();
        if (child == 0) {
            history_event();
            _exit(0);
        }
        waitpid(child, nullptr, 0);
    }
}
BENCHMARK(fork_child)->Name("file/fork/memory")->Setup(own_queue_copy)->UseRealTime();
BENCHMARK(fork_child)->Name("file/fork/parent")->Setup(own_queue_parents_file)->UseRealTime();
BENCHMARK(fork_child)->Name("file/fork/own")->Setup(own_queue_tmpfs)->UseRealTime();

}  // namespace
