// hist_clock.cpp: the table of offsets from UTC (hist_clock.h says why there is one) and what is formatted
// from it.
//
// Two tables: `published` counts the publications, and its parity names the table in force. A refresh fills
// the other one and publishes it; refreshes are serialised by their callers (start-up, and the
// one dump that runs). A lookup that was overtaken by a publication may have read a table that the next refresh fills, sees
// that in the count, and looks again.
#include "utils/etc/uthist/hist_clock.h"

namespace {

constexpr int64_t day = 24 * 60 * 60;
constexpr int64_t days_to_1970 = 719162;          // from the first of January of year 1
constexpr int64_t table_past = 400 * day;         // a clock that is set back a year still finds its offset
constexpr int64_t table_future = 10 * 366 * day;  // a server that never dumps outside a handler for ten years
constexpr int64_t table_renewal = 366 * day;      // renewed when less than this is left
constexpr int64_t probe_step = 14 * day;          // no zone changes and changes back within two weeks
constexpr uint32 max_changes = 64;

struct a_change {
    int64_t from;
    int64_t offset;  // seconds east of UTC from then on
};

struct a_zone_table {
    uint32 count;
    int64_t until;
    a_change changes[max_changes];
};

a_zone_table zones[2];
uint32 published;

// How far local time is ahead. From the fields, not from tm_gmtoff, which leaves out what a zone with leap seconds
// counts.
// Not signal-safe: localtime_r locks.
int64_t offset_at(int64_t seconds)
{
    const time_t t = time_t(seconds);
    struct tm local;
    if (localtime_r(&t, &local) == nullptr)
        return 0;
    const int64_t past = local.tm_year + 1900 - 1;  // years
    const int64_t days = past * 365 + past / 4 - past / 100 + past / 400 - days_to_1970 + local.tm_yday;
    return days * day + local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec - seconds;
}

// The first second in (before, after] that has the offset of `after`.
// Not signal-safe: localtime_r locks.
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
// Signal-safe.
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

// Signal-safe.
int64_t look_up(const a_zone_table& zone, int64_t seconds)
{
    uint32 i = __atomic_load_n(&zone.count, __ATOMIC_ACQUIRE);
    while (i > 1 && __atomic_load_n(&zone.changes[i - 1].from, __ATOMIC_ACQUIRE) > seconds)
        i--;
    return i == 0 ? 0 : __atomic_load_n(&zone.changes[i - 1].offset, __ATOMIC_ACQUIRE);
}

// Signal-safe.
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

// Signal-safe.
void put_digits(char*& at, int64_t value, int width)
{
    for (int i = width; i-- > 0; value /= 10)
        at[i] = char('0' + value % 10);
    at += width;
}

// Signal-safe.
void put_time(char*& at, const a_hist_civil& local)
{
    put_digits(at, local.hr, 2);
    *at++ = ':';
    put_digits(at, local.mi, 2);
    *at++ = ':';
    put_digits(at, local.se, 2);
}

}  // namespace

// Makes the table again when there is none, when its end comes near, or when the zone of the process has changed. A
// forked child keeps its parent's table: localtime_r's lock may be held by a thread that the child does not have.
// Not signal-safe: localtime_r locks. Its callers are serialised.
void hist_zone_refresh()
{
    if (__atomic_load_n(&hist.fork_count, __ATOMIC_RELAXED) != 0 && published != 0)
        return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    const uint32 current = __atomic_load_n(&published, __ATOMIC_RELAXED);
    const a_zone_table& zone = zones[current % 2];
    const int64_t first = zone.changes[0].from;
    if (zone.count > 0 && first <= now.tv_sec && now.tv_sec < zone.until - table_renewal &&
        look_up(zone, now.tv_sec) == offset_at(now.tv_sec))
        return;
    fill_table(zones[(current + 1) % 2], now.tv_sec);
    __atomic_store_n(&published, current + 1, __ATOMIC_RELEASE);
}

// Local date and time, as localtime_r gives them.
// Signal-safe.
a_hist_civil hist_local(time_t seconds)
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
    a_hist_civil c;
    c.da = int32(day_of_year - (153 * month + 2) / 5 + 1);
    c.mo = int32(month < 10 ? month + 3 : month - 9);
    c.yr = int32(year_of_era + era * 400 + (c.mo <= 2 ? 1 : 0));
    c.hr = int32(rest / 3600);
    c.mi = int32(rest / 60 % 60);
    c.se = int32(rest % 60);
    return c;
}

// Signal-safe.
void ut_hist_now(int32* yr, int32* mo, int32* da, int32* hr, int32* mi, int32* se, int32* us)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    const a_hist_civil local = hist_local(now.tv_sec);
    *yr = local.yr;
    *mo = local.mo;
    *da = local.da;
    *hr = local.hr;
    *mi = local.mi;
    *se = local.se;
    *us = int32(now.tv_usec);
}

// The current local time as year/month/day hour:minute:second; buf holds hist_timestamp_size bytes.
// Signal-safe.
char* ut_hist_cur_timestamp_str(char* buf)
{
    a_hist_civil now;
    int32 us;
    ut_hist_now(&now.yr, &now.mo, &now.da, &now.hr, &now.mi, &now.se, &us);
    char* at = buf;
    put_digits(at, now.yr, 4);
    *at++ = '/';
    put_digits(at, now.mo, 2);
    *at++ = '/';
    put_digits(at, now.da, 2);
    *at++ = ' ';
    put_time(at, now);
    *at = '\0';
    return buf;
}

// A record's local time as hour:minute:second.microseconds; buf holds hist_timestamp_size bytes.
// Signal-safe.
void ut_hist_timestamp_str(char* buf, const struct timeval& time_of_day)
{
    char* at = buf;
    put_time(at, hist_local(time_of_day.tv_sec));
    *at++ = '.';
    put_digits(at, time_of_day.tv_usec, 6);
    *at = '\0';
}

// Signal-safe.
void hist_put_timestamp(a_hist_text& out)
{
    char buf[hist_timestamp_size];
    out.str(ut_hist_cur_timestamp_str(buf));
}
