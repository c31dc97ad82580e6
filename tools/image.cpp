// image.cpp: finds an image and checks its header (image.h).
#include "tools/image.h"

#include <string.h>

#include <algorithm>

#include "utils/etc/uthist/hist_store.h"
#include "utils/etc/uthist/hist_texts.h"

namespace {

constexpr uint64 page = UT_HIST_IMAGE_HEADER;
constexpr uint64 max_image = uint64(1) << 46;

// Of memory without a gap from there on.
uint64 bytes_from(const std::vector<a_range>& ranges, uint64 address)
{
    uint64 end = address;
    for (const a_range& range : ranges)
        if (range.begin <= end && end < range.end)
            end = range.end;
    return end - address;
}

bool is_image_at(an_image_source& source, uint64 address)
{
    unsigned char begin[offsetof(a_ut_hist_image, sections)];
    uint64 base;
    if (!source.read(address, begin, sizeof begin) || !begins_with_magic(begin))
        return false;
    memcpy(&base, begin + offsetof(a_ut_hist_image, base), sizeof base);
    return base == address;
}

// Where the image begins; 0 with the problem when there is none.
uint64 find_beginning(an_image_source& source, const std::vector<a_range>& ranges, std::string& problem)
{
    // Null in a core: perhaps it was another's that the symbol's name has told.
    const std::optional<uint64> pointer = source.image_pointer();
    if (pointer && (*pointer != 0 || source.is_live())) {
        problem = *pointer == 0 ? "its history is off" : "its history is just starting or ending";
        return *pointer != 0 && is_image_at(source, *pointer) ? *pointer : 0;
    }
    for (const a_range& range : ranges)
        for (uint64 at = (range.begin + page - 1) / page * page; at < range.end && range.end - at >= page; at += page)
            if (is_image_at(source, at))
                return at;
    problem = "there is no image of a history in it";
    return 0;
}

// NUL in its place in a text of a header.
template <size_t size>
void end_text(char (&text)[size])
{
    text[size - 1] = '\0';
}

bool settings_are_in_range(const a_ut_hist_image& h)
{
    const auto is_number = [](uint64 value) { return value >= 1 && value <= INT32_MAX; };
    const uint64 slots = h.sections[UT_HIST_THREADS].entries;
    const bool dense = (h.flags & UT_HIST_IMAGE_DENSE) != 0;
    return h.queues >= uint32(default_num_q) && h.queues <= hist_max_queues && is_number(h.events) &&
           is_number(h.max_file_len) && is_number(h.max_id_len) && is_number(h.max_ev_len) &&
           h.data_size <= INT32_MAX && h.sections[UT_HIST_REGISTRY].entries <= INT32_MAX && slots >= 1 &&
           slots <= hist_most_slots && (dense || slots == hist_handle_slots) && h.build_id_bytes <= sizeof h.build_id;
}

// The name of what is wrong; null for nothing. The library's own two sections may have any size.
const char* wrong_in_header(const a_ut_hist_image& h)
{
    if (h.header_bytes != UT_HIST_IMAGE_HEADER)
        return "size of the header";
    if (!settings_are_in_range(h))
        return "settings";
    use_settings(h, h.events, h.sections[UT_HIST_REGISTRY].entries, h.data_size);
    if (h.id_text_at != hist_cfg.id_text_at || h.ev_text_at != hist_cfg.ev_text_at ||
        h.text_stride != hist_cfg.text_stride)
        return "layout of texts";
    const a_layout layout = hist_layout(1);
    uint64 end = UT_HIST_IMAGE_HEADER;
    for (uint32 s = 0; s < UT_HIST_SECTIONS; s++) {
        const a_ut_hist_image_section &found = h.sections[s], &wanted = layout.sections[s];
        const bool own = s == UT_HIST_SETTINGS || s == UT_HIST_DUMP;
        uint64 bytes;
        if (found.at != end || found.entries != wanted.entries || (!own && found.entry_bytes != wanted.entry_bytes) ||
            __builtin_mul_overflow(found.entries, found.entry_bytes, &bytes) || found.bytes != bytes ||
            bytes > max_image)
            return "table of sections";
        end += (bytes + cache_line - 1) / cache_line * cache_line;
    }
    return h.image_bytes == end && end <= max_image ? nullptr : "size of the image";
}

}  // namespace

bool begins_with_magic(const void* bytes)
{
    static constexpr unsigned char magic[] = UT_HIST_IMAGE_MAGIC;
    return memcmp(bytes, magic, sizeof magic) == 0;
}

uint64 an_image::readable_of(uint32 s) const
{
    const a_ut_hist_image_section& of = section(s);
    return readable > of.at ? std::min(readable - of.at, of.bytes) : 0;
}

bool an_image::read(uint32 s, uint64 offset, void* to, size_t length) const
{
    const uint64 bytes = readable_of(s);
    return offset <= bytes && length <= bytes - offset &&
           source->read(header.base + section(s).at + offset, to, length);
}

bool find_image(an_image_source& source, an_image& image, std::string& problem)
{
    const std::vector<a_range> ranges = source.ranges();
    const uint64 at = find_beginning(source, ranges, problem);
    if (at == 0)
        return false;
    image.source = &source;
    a_ut_hist_image& h = image.header;
    problem = "its header is cut off";
    if (!source.read(at, &h, sizeof h))
        return false;
    problem = "its layout has version " + std::to_string(h.version) + ", this corvex-hist reads version " +
              std::to_string(UT_HIST_IMAGE_VERSION);
    if (h.version != UT_HIST_IMAGE_VERSION)
        return false;
    if (const char* const wrong = h.base == at ? wrong_in_header(h) : "address") {
        problem = std::string("its header is damaged: ") + wrong;
        return false;
    }
    end_text(h.boot_id);
    end_text(h.program);
    end_text(h.host);
    end_text(h.ut_hist);
    end_text(h.ut_hist_ext);
    end_text(h.file);
    image.readable = bytes_from(ranges, at);
    if (image.readable < h.image_bytes)
        image.why_not =
            "cut off: " + std::to_string(image.readable) + " of " + std::to_string(h.image_bytes) + " bytes";
    problem.clear();
    return true;
}

void use_settings(const a_ut_hist_image& header, uint64 events, uint64 ids, uint64 data_size)
{
    hist_cfg = a_ut_hist_settings();
    hist_cfg.ut_hist_debug_num = int32(events);
    hist_cfg.hist_num_q = int32(header.queues);
    hist_cfg.copies = (header.flags & UT_HIST_IMAGE_COPY) != 0;
    hist_cfg.tables = (header.flags & UT_HIST_IMAGE_TABLES) != 0;
    hist_cfg.tsc = (header.flags & UT_HIST_IMAGE_TSC) != 0;
    hist_cfg.dense_slots =
        (header.flags & UT_HIST_IMAGE_DENSE) != 0 ? uint32(header.sections[UT_HIST_THREADS].entries) : 0;
    hist_cfg.hist_max_file_len = int32(header.max_file_len);
    hist_cfg.hist_max_id_len = int32(header.max_id_len);
    hist_cfg.hist_max_ev_len = int32(header.max_ev_len);
    hist_cfg.ut_hist_debug_knum = int32(ids);
    hist_cfg.ut_hist_debug_data = data_size != 0 ? 1 : 0;
    hist_cfg.ut_hist_debug_data_size = int32(data_size);
    hist_cfg.dump_signal = header.dump_signal;
    for (uint32 i = 0; i < sizeof hist_cfg.include / sizeof *hist_cfg.include; i++)
        hist_cfg.include[i] = int32(header.columns >> i & 1);
    hist_lay_out_texts();
}
