// hist_stats.cpp: the timer lists: adding a sample, and the statistics table of a dump.
//
// Locks: a sample takes the one timer list's mutex, inside the queue's if that is held; the table takes none.
// All fields that the table reads are therefore atomic; a timer that is updated meanwhile may show a count
// and a total one sample apart, never a value that was not stored. Signal-safe: all of it, but ut_hist_add_time.
#include "utils/etc/uthist/hist_stats.h"

#include "utils/etc/utclock.h"

namespace {

constexpr size_t timer_text_fixed = 15;  // "> EV  -  0 END " without the description
constexpr size_t min_desc_width = 12;

// Classes beyond the table count like those without a key of their own.
a_key key_of(int32 cl) { return uint32(cl) < UT_HIST_CL_LAST ? cl_to_key[cl] : K_OTHER; }

// Relaxed: the list's mutex orders the writers; readers without it take any value that was stored.
void add_sample(a_ut_hist_timer& timer, uint32 dur)
{
    __atomic_store_n(&timer.count, timer.count + 1, __ATOMIC_RELAXED);
    if (dur < timer.min)
        __atomic_store_n(&timer.min, dur, __ATOMIC_RELAXED);
    if (dur > timer.max)
        __atomic_store_n(&timer.max, dur, __ATOMIC_RELAXED);
    __atomic_store_n(&timer.total, timer.total + dur, __ATOMIC_RELAXED);
}

void append_timer(a_ut_hist_timer_list& list, int32 ti, a_key tk, uint32 dur)
{
    a_ut_hist_timer& timer = list.ids[list.num];
    __atomic_store_n(&timer.id, ti, __ATOMIC_RELAXED);
    __atomic_store_n(&timer.id_key, int32(tk), __ATOMIC_RELAXED);
    __atomic_store_n(&timer.min, UINT32_MAX, __ATOMIC_RELAXED);  // the rest is 0, as the store was mapped
    add_sample(timer, dur);
    // Release: who sees the new number sees the timer.
    __atomic_store_n(&list.num, list.num + 1, __ATOMIC_RELEASE);
}

void add_to_list(a_ut_hist_timer_list& list, int32 ti, a_key tk, uint32 dur)
{
    for (int32 i = 0; i < list.num; i++)
        if (list.ids[i].id == ti && list.ids[i].id_key == tk) {
            add_sample(list.ids[i], dur);
            return;
        }
    if (list.num < int32(hist_max_timers))
        append_timer(list, ti, tk, dur);
    else
        __atomic_store_n(&list.missed, list.missed + 1, __ATOMIC_RELAXED);
}

size_t description_width(int32 num_ids)
{
    if (num_ids < 1)
        return min_desc_width + timer_text_fixed;
    size_t longest = min_desc_width;
    for (int32 i = 0; i < num_ids; i++)
        if (strlen(hist.hist_ids[i].desc) > longest)
            longest = strlen(hist.hist_ids[i].desc);
    return longest + timer_text_fixed;
}

void put_head(a_text& out, size_t width)
{
    ut_put_begin(out, "STATISTICS");
    out.str("ID ");
    out.left("Description", width);
    out.str(" Count Min_s..milli Avg_s..milli Max_s..milli");
    if (hist.cfg->include['l' - 'a'] != 0)
        out.str(" Line");
    if (hist.cfg->include['s' - 'a'] != 0)
        out.str(" File....");
    out.eol();
}

void put_id_line(a_text& out, int32 i, size_t width)
{
    const a_ut_hist_id_data& id = hist.hist_ids[i];
    out.dec(uint32(i), 2);
    out.chr(' ');
    out.left(id.desc, width);
    out.str(" ----- -----.------ -----.------ -----.------");
    if (hist.cfg->include['l' - 'a'] != 0)
        out.dec(id.line, 5);
    if (hist.cfg->include['s' - 'a'] != 0 && id.file != nullptr)
        out.put(' ', id.file);
    out.eol();
}

void put_timer(a_text& out, int32 key, const a_ut_hist_timer& timer, size_t width)
{
    const int32 to = __atomic_load_n(&timer.id, __ATOMIC_RELAXED);
    const char* desc = hist.hist_ids[to].desc;
    out.put("   > ", key_names[key], " -");
    out.dec(uint32(to), 3);
    out.put(' ', key_names[__atomic_load_n(&timer.id_key, __ATOMIC_RELAXED)], ' ');
    size_t fixed = timer_text_fixed;
    for (int64_t widening = 1000; widening <= to && fixed < width; widening *= 10)
        fixed++;
    out.left(desc, width - fixed);
    const uint32 count = __atomic_load_n(&timer.count, __ATOMIC_RELAXED);
    out.dec(count, 6);
    ut_put_seconds(out, __atomic_load_n(&timer.min, __ATOMIC_RELAXED), 6);
    ut_put_seconds(out, uint32(__atomic_load_n(&timer.total, __ATOMIC_RELAXED) / (count != 0 ? count : 1)), 6);
    ut_put_seconds(out, __atomic_load_n(&timer.max, __ATOMIC_RELAXED), 6);
}

void put_timers(a_text& out, int32 i, size_t width)
{
    for (int32 key = K_EV; key < K_LAST; key++) {
        const a_ut_hist_timer_list& list = hist_by_key(i, key);
        const int32 num = __atomic_load_n(&list.num, __ATOMIC_ACQUIRE);
        for (int32 j = 0; j < num; j++) {
            put_timer(out, key, list.ids[j], width);
            const int32 missed = __atomic_load_n(&list.missed, __ATOMIC_RELAXED);
            if (j == 0 && missed > 0)
                out.put(" (", missed, " missed)");
            out.eol();
        }
    }
}

}  // namespace

// Adds one sample of dur microseconds, from an event of entry fi and class fc to one of entry ti and class tc.
// Not signal-safe: it locks.
void ut_hist_add_time(int32 fi, int32 fc, int32 ti, int32 tc, uint32 dur)
{
    a_ut_hist_timer_list& list = hist_by_key(fi, key_of(fc));
    const a_safe_lock lock(list.mutex);
    add_to_list(list, ti, key_of(tc), dur);
}

// The statistics section; nothing while there is no registry.
void ut_hist_dump_to_file_i_dur(a_text& f)
{
    if (hist.hist_ids == nullptr || !__atomic_load_n(&hist.hist_ok_to_dump, __ATOMIC_ACQUIRE))
        return;
    const int32 num_ids = __atomic_load_n(&hist.hist_num_ids, __ATOMIC_ACQUIRE);
    const size_t width = description_width(num_ids);
    put_head(f, width);
    for (int32 i = 0; i < num_ids; i++) {
        put_id_line(f, i, width);
        put_timers(f, i, width);
    }
}
