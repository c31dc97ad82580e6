// utclock.cpp: the table of offsets from UTC (utclock.h says why there is one) and what is formatted from it.
//
// Two tables: `published` counts the publications, and its parity names the table in force. A refresh fills the other
// one and publishes it; one refresh runs at a time. A lookup that was overtaken by a publication may have read a table
// that the next refresh fills, sees that in the count, and looks again. Signal-safe: all of it, but what says
// otherwise.
#include "utils/etc/utclock.h"

#include <stdlib.h>

#include "utils/unix/unixfork.h"

namespace {

constexpr int64_t day = 86400;
constexpr int64_t days_to_1970 = 719162;      // from the first of January of year 1
constexpr int64_t table_past = 400 * day;     // a clock that is set back a year still finds its offset
constexpr int64_t table_future = 3660 * day;  // a server that never dumps outside a handler for ten years
constexpr int64_t table_renewal = 366 * day;  // renewed when less than this is left
constexpr int64_t probe_step = 14 * day;      // no zone changes and changes back within two weeks
constexpr uint32 max_changes = ut_zone_changes;

struct a_zone_table {
    uint32 count;
    int64_t until;
    a_zone_change changes[max_changes];
};

a_zone_table zones[2];
uint32 published;
uint32 refreshing;      // one more than the forks behind who does so, which a child is not by its parent; 0: nobody
const char* zone_name;  // TZ's value when the table was made; only compared, as an address: a new value has another

// How far local time is ahead. From the fields, not from tm_gmtoff, which leaves out what a zone with leap seconds
// counts. Not signal-safe: localtime_r locks.
int64_t offset_at(int64_t seconds)
{
    const time_t t = time_t(seconds);
    struct tm local;
    if (localtime_r(&t, &local) == nullptr)
        return 0;
    const int64_t past = local.tm_year + 1900 - 1;  // years
    const int64_t days = past * 365 + past / 4 - past / 100 + past / 400 - days_to_1970 + local.tm_yday;
    return days * day + local.tm_hour * int64_t(3600) + local.tm_min * int64_t(60) + local.tm_sec - seconds;
}

// The first second in (before, after] that has the offset of `after`. Not signal-safe: localtime_r locks.
int64_t find_change(int64_t before, int64_t after)
{
    const int64_t offset = offset_at(after);
    while (after - before > 1) {
        const int64_t middle = before + (after - before) / 2;
        (offset_at(middle) == offset ? after : before) = middle;
    }
    return after;
}

// Release here and below: a lookup that finds anything of it finds the publication before, too.
void put_change(a_zone_table& zone, uint32 i, int64_t from, int64_t offset)
{
    __atomic_store_n(&zone.changes[i].from, from, __ATOMIC_RELEASE);
    __atomic_store_n(&zone.changes[i].offset, offset, __ATOMIC_RELEASE);
}

// Not signal-safe: localtime_r locks.
void fill_table(a_zone_table& zone, int64_t now)
{
    int64_t at = now - table_past;
    int64_t offset = offset_at(at);
    uint32 count = 0;
    put_change(zone, count++, at, offset);
    for (; at < now + table_future && count < max_changes; at += probe_step) {
        const int64_t next = offset_at(at + probe_step);
        if (next != offset)
            put_change(zone, count++, find_change(at, at + probe_step), next);
        offset = next;
    }
    zone.until = at;
    __atomic_store_n(&zone.count, count, __ATOMIC_RELEASE);
}

int64_t look_up(const a_zone_table& zone, int64_t seconds)
{
    uint32 i = __atomic_load_n(&zone.count, __ATOMIC_ACQUIRE);
    while (i > 1 && __atomic_load_n(&zone.changes[i - 1].from, __ATOMIC_ACQUIRE) > seconds)
        i--;
    return i == 0 ? 0 : __atomic_load_n(&zone.changes[i - 1].offset, __ATOMIC_ACQUIRE);
}

int64_t zone_offset(int64_t seconds)
{
    for (;;) {
        const uint32 before = __atomic_load_n(&published, __ATOMIC_ACQUIRE);
        const int64_t offset = look_up(zones[before % 2], seconds);
        // Relaxed: the acquire loads of the table keep this one behind them.
        if (__atomic_load_n(&published, __ATOMIC_RELAXED) == before)
            return offset;
    }
}

// Makes the table again when there is none, when its end comes near, or when the zone of the process has changed. A
// forked child keeps its parent's table: localtime_r's lock may be held by a thread that the child does not have. Where
// there was none, in a daemon, a new TZ counts; not without one, since the child may be of a handler that interrupted
// localtime_r. Nor does a process that exits ask while the table serves: what called exit may be such a handler.
// Not signal-safe: localtime_r locks.
void refresh(bool exits)
{
    const bool same_name = getenv("TZ") == zone_name;
    if (unix_fork_count() != 0 && published != 0 && (!unix_forked_alone() || same_name))
        return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    const uint32 current = __atomic_load_n(&published, __ATOMIC_RELAXED);
    const a_zone_table& zone = zones[current % 2];
    const int64_t until = exits ? zone.until : zone.until - table_renewal;
    if (zone.count > 0 && zone.changes[0].from <= now.tv_sec && now.tv_sec < until &&
        ((exits && same_name) || look_up(zone, now.tv_sec) == offset_at(now.tv_sec)))
        return;
    zone_name = getenv("TZ");
    fill_table(zones[(current + 1) % 2], now.tv_sec);
    __atomic_store_n(&published, current + 1, __ATOMIC_RELEASE);
}

void put_time(a_text& out, const a_civil_time& local)
{
    out.dec(uint32(local.hr), 2, '0');
    out.chr(':');
    out.dec(uint32(local.mi), 2, '0');
    out.chr(':');
    out.dec(uint32(local.se), 2, '0');
}

void put_date_and_time(a_text& out, time_t seconds)
{
    const a_civil_time local = ut_local_time(seconds);
    out.dec(uint32(local.yr), 4, '0');
    out.chr('/');
    out.dec(uint32(local.mo), 2, '0');
    out.chr('/');
    out.dec(uint32(local.da), 2, '0');
    out.chr(' ');
    put_time(out, local);
}

}  // namespace

// Who comes while another refresh runs, or from an exit in a handler that interrupted one, leaves it to that.
// Not signal-safe: localtime_r locks.
void ut_zone_refresh(bool exits)
{
    const uint32 mine = unix_fork_count() + 1;
    uint32 other = __atomic_load_n(&refreshing, __ATOMIC_RELAXED);
    // Acquire and release: the tables are the last one's who refreshed them.
    if (other == mine ||
        !__atomic_compare_exchange_n(&refreshing, &other, mine, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return;
    refresh(exits);
    __atomic_store_n(&refreshing, 0u, __ATOMIC_RELEASE);
}

uint32 ut_zone_get(a_zone_change (&changes)[ut_zone_changes])
{
    for (;;) {
        const uint32 before = __atomic_load_n(&published, __ATOMIC_ACQUIRE);
        const a_zone_table& zone = zones[before % 2];
        const uint32 count = __atomic_load_n(&zone.count, __ATOMIC_ACQUIRE);
        for (uint32 i = 0; i < count; i++)
            changes[i] = {__atomic_load_n(&zone.changes[i].from, __ATOMIC_ACQUIRE),
                          __atomic_load_n(&zone.changes[i].offset, __ATOMIC_ACQUIRE)};
        // Relaxed: the acquire loads of the table keep this one behind them.
        if (__atomic_load_n(&published, __ATOMIC_RELAXED) == before)
            return count;
    }
}

void ut_zone_set(const a_zone_change* changes, uint32 count)
{
    const uint32 current = __atomic_load_n(&published, __ATOMIC_RELAXED);
    a_zone_table& zone = zones[(current + 1) % 2];
    for (uint32 i = 0; i < count && i < max_changes; i++)
        put_change(zone, i, changes[i].from, changes[i].offset);
    __atomic_store_n(&zone.count, count < max_changes ? count : max_changes, __ATOMIC_RELEASE);
    __atomic_store_n(&published, current + 1, __ATOMIC_RELEASE);
}

// Local date and time, as localtime_r gives them.
a_civil_time ut_local_time(time_t seconds)
{
    const int64_t local = int64_t(seconds) + zone_offset(seconds);
    const int64_t days = local / day - (local % day < 0 ? 1 : 0);
    const int64_t rest = local - days * day;
    // Counted in eras of 400 years that begin on the first of March, so that the leap day comes last.
    const int64_t from_march = days + 719468;
    const int64_t era = (from_march >= 0 ? from_march : from_march - 146096) / 146097;
    const int64_t day_of_era = from_march - era * 146097;
    const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month = (5 * day_of_year + 2) / 153;
    a_civil_time c;
    c.da = int32(day_of_year - (153 * month + 2) / 5 + 1);
    c.mo = int32(month < 10 ? month + 3 : month - 9);
    c.yr = int32(year_of_era + era * 400 + (c.mo <= 2 ? 1 : 0));
    c.hr = int32(rest / 3600);
    c.mi = int32(rest / 60 % 60);
    c.se = int32(rest % 60);
    return c;
}

// The current local time as year/month/day hour:minute:second.
void ut_hist_cur_timestamp_str(a_text& out)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    put_date_and_time(out, now.tv_sec);
}

// A record's local time as hour:minute:second.microseconds.
void ut_hist_timestamp_str(a_text& out, const struct timeval& time_of_day)
{
    put_time(out, ut_local_time(time_of_day.tv_sec));
    out.chr('.');
    out.dec(uint64(time_of_day.tv_usec), 6, '0');
}

void ut_put_stamp(a_text& out, const struct timeval& time_of_day)
{
    put_date_and_time(out, time_of_day.tv_sec);
    out.chr('.');
    out.dec(uint64(time_of_day.tv_usec), 6, '0');
    const int64_t offset = zone_offset(time_of_day.tv_sec), minutes = (offset < 0 ? -offset : offset) / 60;
    out.put(' ', offset < 0 ? '-' : '+');
    out.dec(uint64(minutes / 60), 2, '0');
    out.chr(':');
    out.dec(uint64(minutes % 60), 2, '0');
}

void ut_put_begin(a_text& out, const char* what)
{
    out.put("********** ", what, " DUMP BIGIN @ ");
    ut_hist_cur_timestamp_str(out);
    out.str(" (res=0) **********");
    out.eol();
}

void ut_put_seconds(a_text& out, uint64 microseconds, size_t width)
{
    out.dec(microseconds / 1000000, width);
    out.chr('.');
    out.dec(microseconds % 1000000, 6, '0');
}
