// dump.cpp: the cost of one dump row: the history's dump, the same rows by fprintf, and the same rows by hand-written
// digits into one buffer. The peers get it easy: column widths are known to them and the local time of a second is
// worked out once.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <vector>

#include "bench/floor.h"
#include "bench/history.h"

namespace {

constexpr int rows = int(ring_size) - 1;  // a full ring shows all but its oldest event

a_hand_ring ring;

class a_null_stream {
public:
    a_null_stream() : file(fopen("/dev/null", "w")) {}
    ~a_null_stream() { fclose(file); }
    a_null_stream(const a_null_stream&) = delete;
    a_null_stream& operator=(const a_null_stream&) = delete;

    FILE* file;
};

void fill_ring(const benchmark::State&)
{
    hand_ring_init(ring, 0, true);
    for (uint32 n = 0; n < 2 * ring_size; n++)
        hand_add<true, true>(ring, payload::file_end, payload::line, UT_HIST_CL_EV, payload::id, payload::text, 4,
                             payload::parms[0], payload::parms[1], payload::parms[2], payload::parms[3]);
}

void fill_history(const benchmark::State& state)
{
    shared_queue_copy(state);
    for (uint32 n = 0; n < 2 * ring_size; n++)
        history_event();
}

class a_local_time {
public:
    const struct tm& of(time_t second)
    {
        if (second != known) {
            known = second;
            localtime_r(&known, &broken_down);
        }
        return broken_down;
    }

private:
    time_t known = -1;
    struct tm broken_down = {};
};

void history(benchmark::State& state)
{
    a_null_stream out;
    for (auto _ : state)
        ut_hist_dump_to_file(out.file);
    state.SetItemsProcessed(state.iterations() * rows);
    expect_recorded(state);
}
BENCHMARK(history)->Name("dump/history")->Setup(fill_history);

// In pointer mode, with event texts on so many pages in turn, four on each.
void fill_pointers(const benchmark::State& state)
{
    constexpr size_t page = 4096;
    static std::vector<char> texts(64 * page, '\0');
    shared_queue_pointer(state);
    for (uint32 n = 0; n < 2 * ring_size; n++) {
        char* const text = &texts[n % size_t(state.range(0)) * page + n / 64 % 4 * 1000];
        memcpy(text, payload::text, sizeof payload::text);
        ut_hist_add(payload::file, payload::line, nullptr, UT_HIST_CL_EV, UT_HIST_ID_TEXT(payload::id), text, 4,
                    payload::parms[0], payload::parms[1], payload::parms[2], payload::parms[3], nullptr, nullptr,
                    nullptr, nullptr);
    }
}
BENCHMARK(history)->Name("dump/pointer")->Arg(1)->Arg(60)->Setup(fill_pointers);

void print_row(FILE* out, const a_ut_hist_event& r, a_local_time& local)
{
    const struct tm& at = local.of(r.time_of_day.tv_sec);
    fprintf(out, "%.2d:%.2d:%.2d.%.6ld", at.tm_hour, at.tm_min, at.tm_sec, long(r.time_of_day.tv_usec));
    if (r.dur == hist_no_dur)
        fprintf(out, "   -.-     ");
    else
        fprintf(out, "%4d.%.6d", r.dur / 1000000, r.dur % 1000000);
    fprintf(out, "%8u%4u%6s%19s%s%9p%9p%9p%9p%5u %s\n", r.num, r.thread, static_cast<const char*>(r.id), r.ev,
            hist_cl_strs[r.cl], r.p[0], r.p[1], r.p[2], r.p[3], r.line, r.file);
}

void by_fprintf(benchmark::State& state)
{
    a_null_stream out;
    a_local_time local;
    for (auto _ : state)
        for (int n = 0; n < rows; n++)
            print_row(out.file, ring.events[size_t(n)], local);
    state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(by_fprintf)->Name("dump/fprintf")->Setup(fill_ring);

// Digits right-aligned in width, filled up with fill; a longer number takes what it needs.
template <unsigned base>
char* put_number(char* at, uint64 value, int width, char fill, const char* prefix = "")
{
    char digits[24];
    char* first = digits + sizeof digits;
    do
        *--first = "0123456789abcdef"[value % base];
    while ((value /= base) != 0);
    const size_t prefix_len = strlen(prefix);
    first -= prefix_len;
    memcpy(first, prefix, prefix_len);
    const int len = int(digits + sizeof digits - first);
    for (int i = len; i < width; i++)
        *at++ = fill;
    memcpy(at, first, size_t(len));
    return at + len;
}

char* put_text(char* at, const char* text, size_t width)
{
    const size_t len = strlen(text);
    for (size_t i = len; i < width; i++)
        *at++ = ' ';
    memcpy(at, text, len);
    return at + len;
}

char* put_row(char* at, const a_ut_hist_event& r, a_local_time& local)
{
    const struct tm& time = local.of(r.time_of_day.tv_sec);
    at = put_number<10>(at, uint64(time.tm_hour), 2, '0');
    *at++ = ':';
    at = put_number<10>(at, uint64(time.tm_min), 2, '0');
    *at++ = ':';
    at = put_number<10>(at, uint64(time.tm_sec), 2, '0');
    *at++ = '.';
    at = put_number<10>(at, uint64(r.time_of_day.tv_usec), 6, '0');
    if (r.dur == hist_no_dur) {
        at = put_text(at, "   -.-     ", 0);
    } else {
        at = put_number<10>(at, r.dur / 1000000, 4, ' ');
        *at++ = '.';
        at = put_number<10>(at, r.dur % 1000000, 6, '0');
    }
    at = put_number<10>(at, r.num, 8, ' ');
    at = put_number<10>(at, r.thread, 4, ' ');
    at = put_text(at, static_cast<const char*>(r.id), 6);
    at = put_text(at, r.ev, 19);
    at = put_text(at, hist_cl_strs[r.cl], 2);
    for (int i = 0; i < 4; i++)
        at = put_number<16>(at, a_ptrint(r.p[i]), 9, ' ', "0x");
    at = put_number<10>(at, r.line, 5, ' ');
    *at++ = ' ';
    at = put_text(at, r.file, 0);
    *at++ = '\n';
    return at;
}

void by_hand(benchmark::State& state)
{
    constexpr size_t longest_row = 256;
    a_null_stream out;
    a_local_time local;
    std::vector<char> buffer(65536);
    char* const full = buffer.data() + buffer.size() - longest_row;
    for (auto _ : state) {
        char* at = buffer.data();
        for (int n = 0; n < rows; n++) {
            at = put_row(at, ring.events[size_t(n)], local);
            if (at >= full || n + 1 == rows) {
                fwrite(buffer.data(), 1, size_t(at - buffer.data()), out.file);
                at = buffer.data();
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(by_hand)->Name("dump/digits")->Setup(fill_ring);

}  // namespace
