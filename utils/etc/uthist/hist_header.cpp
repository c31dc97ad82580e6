// hist_header.cpp: fills the header of the store (see hist_header.h). Not signal-safe, but what says otherwise.
#include "utils/etc/uthist/hist_header.h"

#include <errno.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>

#include "utils/etc/utclock.h"
#include "utils/etc/utenv.h"
#include "utils/etc/uthist/hist_errout.h"
#include "utils/etc/uthist/hist_file.h"
#include "utils/etc/uthist/hist_process.h"
#include "utils/etc/uthist/hist_store.h"
#include "utils/unix/unixcrash.h"
#include "utils/unix/utcallers.h"

namespace {

void fill_times(a_ut_hist_image& image)
{
    struct timespec wall, boot;
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_BOOTTIME, &boot);
    image.start_time = {wall.tv_sec, wall.tv_nsec / 1000};
    image.since_boot = uint64(boot.tv_sec) * 1000000000 + uint64(boot.tv_nsec);
}

void fill_names(a_ut_hist_image& image)
{
    struct utsname host;
    strncpy(image.program, program_invocation_short_name, sizeof image.program - 1);
    strncpy(image.host, uname(&host) == 0 ? host.nodename : "?", sizeof image.host - 1);
    a_place place;
    ut_find_place(place, uint64(reinterpret_cast<a_ptrint>(&hist_header_fill)));
    ut_find_build_id(place);
    image.build_id_bytes = place.build_id_size < sizeof image.build_id ? uint32(place.build_id_size) : 0;
    if (image.build_id_bytes != 0)
        memcpy(image.build_id, place.build_id, image.build_id_bytes);
}

void fill_settings(a_ut_hist_image& image)
{
    const a_ut_hist_settings& cfg = hist_cfg;
    image.flags = (cfg.copies ? UT_HIST_IMAGE_COPY : 0) | (cfg.tables ? UT_HIST_IMAGE_TABLES : 0) |
                  (cfg.dense_slots != 0 ? UT_HIST_IMAGE_DENSE : 0) | (cfg.tsc ? UT_HIST_IMAGE_TSC : 0) |
                  (strcmp(hist_streams.ut_hist_eol, "\n") != 0 ? UT_HIST_IMAGE_CRLF : 0);
    image.events = uint32(cfg.ut_hist_debug_num);
    image.queues = uint32(cfg.hist_num_q);
    image.max_file_len = uint32(cfg.hist_max_file_len);
    image.max_id_len = uint32(cfg.hist_max_id_len);
    image.max_ev_len = uint32(cfg.hist_max_ev_len);
    image.id_text_at = uint32(cfg.id_text_at);
    image.ev_text_at = uint32(cfg.ev_text_at);
    image.text_stride = uint32(cfg.text_stride);
    image.data_size = image.sections[UT_HIST_DATA].bytes != 0 ? uint32(cfg.ut_hist_debug_data_size) : 0;
    for (uint32 i = 0; i < sizeof cfg.include / sizeof *cfg.include; i++)
        image.columns |= cfg.include[i] != 0 ? 1u << i : 0;
    image.dump_signal = cfg.dump_signal;
    ut_getenv("UT_HIST", image.ut_hist, env_buf_size);
    ut_getenv("UT_HIST_EXT", image.ut_hist_ext, sizeof image.ut_hist_ext);
    strncpy(image.file, hist_file_name(), sizeof image.file - 1);
}

}  // namespace

void hist_header_fill()
{
    a_ut_hist_image& image = *hist.image;
    image.version = UT_HIST_IMAGE_VERSION;
    image.header_bytes = UT_HIST_IMAGE_HEADER;
    image.base = uint64(reinterpret_cast<a_ptrint>(&image));
    a_hist_system here;
    hist_find_system(here);
    memcpy(image.boot_id, here.boot_id, sizeof image.boot_id);
    hist_process_fill(image);
    fill_times(image);
    fill_names(image);
    fill_settings(image);
    hist_header_zone();
}

// Release: who finds the magic or the pointer finds a whole store. Signal-safe.
void hist_header_publish()
{
    hist_put_magic(*hist.image);
    __atomic_store_n(&ut_hist_image_now, hist.image, __ATOMIC_RELEASE);
    unix_set_crash_copy(&hist.live->crash);
}

// Release: who sees the count sees the table. A reader meanwhile may see a change's offset with another's beginning: a
// table is made anew once a year, or by a new TZ.
// Signal-safe.
void hist_header_zone()
{
    char* const section = reinterpret_cast<char*>(hist.image) + hist.image->sections[UT_HIST_ZONE].at;
    a_ut_hist_zone_change* const changes = reinterpret_cast<a_ut_hist_zone_change*>(section);
    a_zone_change now[ut_zone_changes];
    const uint32 count = ut_zone_get(now);
    for (uint32 i = 0; i < count; i++) {
        __atomic_store_n(&changes[i].from, now[i].from, __ATOMIC_RELAXED);
        __atomic_store_n(&changes[i].offset, now[i].offset, __ATOMIC_RELAXED);
    }
    __atomic_store_n(&hist.live->zone_changes, count, __ATOMIC_RELEASE);
}

// Nothing else of the header ever changes. Signal-safe.
void hist_header_fork_child()
{
    if (hist.image == nullptr)
        return;
    hist_process_fill(*hist.image);
    strncpy(hist.image->file, hist_file_name(), sizeof hist.image->file - 1);
    hist_header_publish();
}
