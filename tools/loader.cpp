// loader.cpp: reads the sections of an image and makes a store of the library's own of them, as large as what is whole.
//
// No value of the image gets into that store as an index, a length or an address: records are copied into rings that
// have not come back yet, texts by pointer become texts of the reader, counts are cut to what their tables hold.
//
// The image may be written while it is read. What a sequence word guards is read between two looks at that word, as
// hist_ring.h and hist_threads.h say of readers in the process. A look is a call of its own: one call copies in no
// order that is told.
#include "tools/loader.h"

#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <deque>
#include <unordered_map>

#include "utils/etc/utclock.h"
#include "utils/etc/uthist/hist_log.h"
#include "utils/etc/uthist/hist_ring.h"
#include "utils/etc/uthist/hist_slots.h"
#include "utils/etc/uthist/hist_threads.h"

namespace {

constexpr uint64 page = 4096;
constexpr size_t chunk = 256;                       // records that are read at once
constexpr size_t longest_text = 65536;              // by pointer
constexpr int looks = 100;                          // at a view that changes
constexpr int64_t most_seconds = int64_t(1) << 40;  // from 1970, of a time that is one
constexpr int64_t most_ahead = 2 * int64_t(86400);  // of UTC
constexpr uint64 own_bytes = 8 << 20;               // of a store beside what the image has
constexpr uint64 most_unread = 1 << 30;             // bytes of an image that is cut, as far as its header tells

bool is_time(const a_ut_hist_time& t)
{
    return t.tv_sec > -most_seconds && t.tv_sec < most_seconds && t.tv_usec >= 0 && t.tv_usec < 1000000;
}

bool is_later(const a_ut_hist_time& t, const a_ut_hist_time& than)
{
    return t.tv_sec != than.tv_sec ? t.tv_sec > than.tv_sec : t.tv_usec > than.tv_usec;
}

// Texts at addresses of the process.
class a_texts {
public:
    explicit a_texts(an_image_source& of) : source(of) {}

    // The text, or null where it cannot be read whole.
    const std::string* find(uint64 address)
    {
        const auto [known, is_new] = texts.try_emplace(address, nullptr);
        if (!is_new)
            return known->second;
        std::string text;
        for (uint64 at = address; text.size() < longest_text;) {
            const std::string* const from = page_of(at);
            if (from == nullptr)
                return nullptr;
            const size_t offset = at % page, end = from->find('\0', offset);
            text.append(*from, offset, end - offset);
            if (end != std::string::npos)
                break;
            at += page - offset;
        }
        text.resize(std::min(text.size(), longest_text));
        return known->second = &kept.emplace_back(std::move(text));
    }

    // For a field of the store, "?" for what cannot be read.
    char* pointer(const char* text)
    {
        const std::string* const found = text != nullptr ? find(a_ptrint(text)) : nullptr;
        return text == nullptr ? nullptr : const_cast<char*>(found != nullptr ? found->c_str() : hist_no_ev);
    }

private:
    // Null for one that cannot be read.
    const std::string* page_of(uint64 address)
    {
        const auto [known, is_new] = pages.try_emplace(address / page);
        if (is_new) {
            known->second.resize(page);
            if (!source.read(address / page * page, known->second.data(), page))
                known->second.clear();
        }
        return known->second.empty() ? nullptr : &known->second;
    }

    an_image_source& source;
    std::unordered_map<uint64, std::string> pages;
    std::unordered_map<uint64, const std::string*> texts;
    std::deque<std::string> kept;
};

// What a queue's ring has whole, oldest first.
struct a_queue_rows {
    std::vector<a_ut_hist_event> records;
    std::vector<char> texts;  // copy mode
};

// Reads the rings.
class a_ring_reader {
public:
    a_ring_reader(const an_image& of, const a_ut_hist_event_list& queue, uint32 q)
        : image(of), pos(unpack_ring(queue.ring_pos)), first(uint64(q) * of.header.events)
    {
    }

    uint64 damaged = 0, unread = 0, without_texts = 0;  // records

    bool has_position() const { return pos.next < image.header.events; }

    // All that count: those from the next but one on, which are of the lap before, and those before the next.
    a_queue_rows read()
    {
        if (pos.wrapped())
            read_range(pos.next + 1, image.header.events, pos.laps - 1);
        read_range(0, pos.next, pos.laps);
        return std::move(rows);
    }

    // The record in a slot if it is whole.
    bool read_one(uint64 n, a_ut_hist_event& record, std::vector<char>& text)
    {
        const uint32 seq = look(n);
        text.resize(text_bytes());
        return seq % 2 == 0 && image.read(UT_HIST_RINGS, at(n), &record, sizeof record) && record.seq == seq &&
               (text.empty() || image.read(UT_HIST_TEXTS, (first + n) * text.size(), text.data(), text.size())) &&
               look(n) == seq && is_time(record.time_of_day);
    }

    size_t text_bytes() const { return image.section(UT_HIST_TEXTS).bytes != 0 ? image.header.text_stride : 0; }

private:
    uint64 at(uint64 n) const { return (first + n) * sizeof(a_ut_hist_event); }

    uint32 look(uint64 n)
    {
        uint32 seq;
        return image.read(UT_HIST_RINGS, at(n), &seq, sizeof seq) ? seq : 1;
    }

    void read_range(uint64 n, uint64 end, uint32 laps)
    {
        const uint64 readable = image.readable_of(UT_HIST_RINGS) / sizeof(a_ut_hist_event);
        const uint64 to = std::min(end, readable > first ? readable - first : 0);
        for (uint64 next; n < to; n = next) {
            next = std::min(to, n + chunk);
            if (!read_chunk(n, next - n, laps))
                for (uint64 one = n; one < next; one++)
                    unread += read_chunk(one, 1, laps) ? 0 : 1;
        }
        unread += end > n ? end - n : 0;
    }

    bool read_records(uint64 n, std::vector<a_ut_hist_event>& to)
    {
        return image.read(UT_HIST_RINGS, at(n), to.data(), to.size() * sizeof(a_ut_hist_event));
    }

    bool read_chunk(uint64 n, uint64 count, uint32 laps)
    {
        const bool live = image.source->is_live();
        before.resize(count);
        records.resize(count);
        texts.resize(count * text_bytes());
        if ((live && !read_records(n, before)) || !read_records(n, records))
            return false;
        const bool has_texts =
            texts.empty() || image.read(UT_HIST_TEXTS, (first + n) * text_bytes(), texts.data(), texts.size());
        without_texts += has_texts ? 0 : count;
        after.resize(count);
        if (live && !read_records(n, after))
            return false;
        for (uint64 i = 0; i < count; i++)
            if (is_whole(i, seq_whole(laps), live))
                keep(i, has_texts);
        return true;
    }

    // What is of a later lap has been overwritten meanwhile; what is odd is being written or was left unfinished.
    bool is_whole(uint64 i, uint32 seq, bool live)
    {
        const uint32 found = records[i].seq;
        const bool stands = found == seq && (!live || (before[i].seq == seq && after[i].seq == seq));
        const bool is_wrong = stands ? !is_time(records[i].time_of_day) : found % 2 == 0 && !live && found != seq;
        damaged += is_wrong ? 1 : 0;
        return stands && !is_wrong;
    }

    void keep(uint64 i, bool has_texts)
    {
        const size_t bytes = text_bytes();
        rows.records.push_back(records[i]);
        rows.texts.insert(rows.texts.end(), texts.begin() + ptrdiff_t(i * bytes),
                          texts.begin() + ptrdiff_t((i + 1) * bytes));
        if (!has_texts && bytes != 0)
            for (const size_t place : {size_t(0), hist_cfg.id_text_at, hist_cfg.ev_text_at})
                memcpy(&rows.texts[rows.texts.size() - bytes + place], hist_no_ev, text_block);
    }

    const an_image& image;
    const a_ring_pos pos;
    const uint64 first;  // of the queue's records in their section
    a_queue_rows rows;
    std::vector<a_ut_hist_event> before, records, after;
    std::vector<char> texts;
};

}  // namespace

// ---- the store ----

class a_loader {
public:
    explicit a_loader(const an_image& of) : image(of), texts(*of.source) {}

    bool load()
    {
        if (!image.why_not.empty())
            lost.push_back(image.why_not);
        if (!has_room() || (read_rings(), !make_store())) {
            lost.push_back("no memory for it, or its header is damaged: its settings are larger than it is");
            return false;
        }
        put_process();
        for (uint32 q = 0; q < image.header.queues; q++)
            put_queue(q);
        put_registry();
        put_zone();
        put_threads();
        hist.hist_ok_to_dump = true;
        return true;
    }

    std::vector<std::string> lost;
    a_ut_hist_time newest = {};  // of all records

private:
    void lose(bool is_lost, const std::string& what)
    {
        if (is_lost)
            lost.push_back(what);
    }

    // A store may be as large as the image is said to be, but for a little file that says much.
    uint64 most_bytes() const
    {
        return std::max(image.readable, std::min(image.header.image_bytes, most_unread)) + own_bytes;
    }

    // For the texts of all records that can be read, which may themselves be missing.
    bool has_room() const
    {
        const uint64 records = image.readable_of(UT_HIST_RINGS) / sizeof(a_ut_hist_event);
        const uint64 each = image.section(UT_HIST_TEXTS).bytes != 0 ? image.header.text_stride : 0;
        return each == 0 || std::max<uint64>(records, chunk) <= most_bytes() / each;
    }

    void read_rings()
    {
        // The positions first, all at one moment: no queue then shows what is later than the others' newest.
        queues.resize(image.header.queues);
        rows.resize(queues.size());
        if (!image.read(UT_HIST_QUEUES, 0, queues.data(), queues.size() * sizeof queues[0])) {
            queues.assign(queues.size(), {});
            lost.push_back("the queues cannot be read");
        }
        has_live = image.read(UT_HIST_LIVE, 0, &live, sizeof live);
        lose(!has_live, "losses, registered ids and threads cannot be read");
        for (uint32 q = 0; q < queues.size(); q++)
            read_ring(q);
    }

    void read_ring(uint32 q)
    {
        const std::string name = "queue " + std::to_string(q) + ": ";
        a_ring_reader reader(image, queues[q], q);
        if (!reader.has_position())
            return lost.push_back(name + "its position is damaged");
        rows[q] = reader.read();
        lose(reader.unread != 0, name + std::to_string(reader.unread) + " records cannot be read");
        lose(reader.damaged != 0, name + std::to_string(reader.damaged) + " records are damaged");
        lose(reader.without_texts != 0,
             name + "texts of " + std::to_string(reader.without_texts) + " records cannot be read");
        for (const a_ut_hist_event& r : rows[q].records)
            if (is_later(r.time_of_day, newest))
                newest = r.time_of_day;
    }

    bool make_store()
    {
        size_t most = 0;
        for (const a_queue_rows& of : rows)
            most = std::max(most, of.records.size());
        const a_ut_hist_image& h = image.header;
        const uint64 registered = has_live ? std::min<uint64>(live.ids, image.section(UT_HIST_REGISTRY).entries) : 0;
        has_data = image.readable_of(UT_HIST_DATA) == image.section(UT_HIST_DATA).bytes;
        lose(!has_data, "data blocks cannot be read");
        ids = uint32(image.readable_of(UT_HIST_TIMERS) == image.section(UT_HIST_TIMERS).bytes ? registered : 0);
        lose(ids != registered, "statistics cannot be read");
        const bool has_ids = image.section(UT_HIST_REGISTRY).entries != 0;
        use_settings(h, most + 1, has_ids ? std::max<uint64>(ids, 1) : 0,
                     has_data || h.data_size == 0 ? h.data_size : 8);
        const a_layout layout = hist_layout(hist_dump_bytes());
        const uint64 touched =
            layout.sections[UT_HIST_VIEWS].at +
            std::min<uint64>(hist_handle_slots, layout.sections[UT_HIST_VIEWS].entries) * hist_view_bytes();
        if (touched > most_bytes() || !hist_store_alloc(hist_dump_bytes))
            return false;
        if ((h.data_size != 0) != (hist.hist_evs[0].data_buf != nullptr) || has_ids != (hist.hist_ids != nullptr)) {
            hist_store_free(true);
            return false;
        }
        hist_dump_lay_out((h.flags & UT_HIST_IMAGE_CRLF) != 0 ? "\r\n" : "\n");
        return true;
    }

    void put_process()
    {
        hist.image->pid = image.header.pid;
        memcpy(hist.image->program, image.header.program, sizeof image.header.program);
        memcpy(hist.image->host, image.header.host, sizeof image.header.host);
        hist.live->events_missed = live.events_missed;
        hist.live->last_missed_thread = live.last_missed_thread;
    }

    void put_queue(uint32 q)
    {
        a_ut_hist_event_list& queue = hist.hist_evs[q];
        const a_queue_rows& from = rows[q];
        const bool lost_data = !put_data(q, queue);
        for (size_t n = 0; n < from.records.size(); n++) {
            a_ut_hist_event& r = queue.evs[n];
            r = from.records[n];
            r.seq = seq_whole(0);
            r.file = text_of(r.file);
            r.id = id_of(r.id);
            r.ev = text_of(r.ev);
            if (lost_data)
                r.data_gen = unpack_data(queue.data_pos).data_gen + 1;  // of no block
        }
        if (!from.texts.empty())
            memcpy(queue.texts, from.texts.data(), from.texts.size());
        queue.ring_pos = pack_ring({0, uint32(from.records.size())});
    }

    // The ring before its position: a block that is overwritten meanwhile is then known to be gone. False when it
    // cannot be read.
    bool put_data(uint32 q, a_ut_hist_event_list& queue)
    {
        if (queue.data_buf == nullptr)
            return true;
        const uint64 share = image.section(UT_HIST_DATA).bytes / image.header.queues;
        a_ut_hist_event_list now = queues[q];
        const bool has_ring = has_data && image.read(UT_HIST_DATA, q * share, queue.data_buf, share) &&
                              image.read(UT_HIST_QUEUES, q * sizeof now, &now, sizeof now);
        lose(has_data && !has_ring, "queue " + std::to_string(q) + ": data blocks cannot be read");
        queue.data_pos = now.data_pos;
        return has_ring;
    }

    // A text in its place, or the one that the pointer says.
    template <size_t size>
    char* registry_text(char* text, const char (&place)[size])
    {
        const std::string in_place(place, strnlen(place, size));
        const std::string* const found = in_place.size() == size ? texts.find(a_ptrint(text)) : nullptr;
        cut_texts += in_place.size() == size && found == nullptr ? 1 : 0;
        return registry.emplace_back(found != nullptr ? *found : in_place).data();
    }

    void put_registry()
    {
        for (uint32 i = 0; i < ids; i++) {
            a_ut_hist_id_data entry;
            a_ut_hist_timer_list lists[K_LAST];
            if (!image.read(UT_HIST_REGISTRY, i * sizeof entry, &entry, sizeof entry) ||
                !image.read(UT_HIST_TIMERS, i * sizeof lists, lists, sizeof lists))
                return lost.push_back("statistics from id " + std::to_string(i) + " on cannot be read");
            a_ut_hist_id_data& to = hist.hist_ids[i];
            to.desc = registry_text(entry.desc, entry.desc_place);
            to.file = entry.file != nullptr ? registry_text(entry.file, entry.file_place) : nullptr;
            to.line = entry.line;
            for (int32 key = 0; key < K_LAST; key++)
                put_timers(lists[key], hist_by_key(int32(i), key));
            hist.hist_num_ids = int32(i) + 1;
        }
        drop_timers_of_others();
        lose(cut_texts != 0,
             std::to_string(cut_texts) + " texts of registered ids are cut: the image has no room for them");
    }

    void put_timers(const a_ut_hist_timer_list& from, a_ut_hist_timer_list& to)
    {
        to.missed = from.missed;
        for (int32 i = 0; i < from.num && i < int32(hist_max_timers); i++)
            to.ids[to.num++] = from.ids[i];
    }

    // Of ids that there are not.
    void drop_timers_of_others()
    {
        const auto is_wrong = [](const a_ut_hist_timer& t) {
            return t.id < 0 || t.id >= hist.hist_num_ids || t.id_key < 0 || t.id_key >= K_LAST;
        };
        for (int32 list = 0; list < hist.hist_num_ids * K_LAST; list++) {
            a_ut_hist_timer_list& of = hist.timers[list];
            of.num = int32(std::remove_if(of.ids, of.ids + of.num, is_wrong) - of.ids);
        }
    }

    void put_zone()
    {
        a_ut_hist_zone_change found[ut_zone_changes];
        a_zone_change changes[ut_zone_changes];
        const uint32 count = std::min(live.zone_changes, ut_zone_changes);
        bool is_zone = image.read(UT_HIST_ZONE, 0, found, sizeof found) && has_live;
        for (uint32 i = 0; i < count && is_zone; i++) {
            is_zone = found[i].from > -most_seconds && found[i].from < most_seconds && found[i].offset > -most_ahead &&
                      found[i].offset < most_ahead;
            changes[i] = {found[i].from, found[i].offset};
        }
        lose(!is_zone, "the local time cannot be read: times are UTC");
        ut_zone_set(changes, is_zone ? count : 0);
    }

    // ---- threads ----

    void put_threads()
    {
        const a_ut_hist_image_section& taken = image.section(UT_HIST_TAKEN);
        const bool has_slots = has_live && image.read(UT_HIST_TAKEN, 0, hist.taken_slots, taken.bytes);
        lose(has_live && !has_slots, "threads cannot be read");
        hist.live->slots_end = has_slots ? std::min(live.slots_end, hist.num_threads) : 0;
        if (hist.views == nullptr)
            return;
        for (uint32 t = 0; t < hist.live->slots_end; t++)
            if (hist_slot_is_taken(t) && !put_view(t))
                return lost.push_back("threads from slot " + std::to_string(t) + " on cannot be read");
    }

    // The first of its bytes, without the texts behind.
    bool look_at_view(uint32 t, a_hist_view& to)
    {
        return image.read(UT_HIST_VIEWS, t * hist.view_stride, &to, sizeof to);
    }

    // A thread's view, with its newest event as if that had been kept. What does not stand still is taken as it is.
    bool put_view(uint32 t)
    {
        a_hist_view &v = hist_view_of(t), before, after;
        bool whole = false, found = false;
        for (int i = 0; i < (image.source->is_live() ? looks : 1) && !(whole && found); i++) {
            if (!look_at_view(t, before) || !image.read(UT_HIST_VIEWS, t * hist.view_stride, &v, hist.view_stride) ||
                !look_at_view(t, after))
                return false;
            whole = before.open == after.open;
            const bool is_kept = before.kept_seq % 2 == 0 && before.kept_seq == after.kept_seq;
            found = v.newest == nullptr || (is_kept && v.kept_num == v.newest_num) || keep_newest(t, v);
        }
        clean(v);
        return true;
    }

    bool keep_newest(uint32 t, a_hist_view& v)
    {
        const uint64 rings = image.header.base + image.section(UT_HIST_RINGS).at;
        const uint64 at = a_ptrint(v.newest) - rings, n = at / sizeof(a_ut_hist_event), num = image.header.events;
        if (at >= image.section(UT_HIST_RINGS).bytes || at % sizeof(a_ut_hist_event) != 0)
            return false;
        a_ut_hist_event r;
        std::vector<char> text;
        a_ring_reader ring(image, queues[n / num], uint32(n / num));
        if (!ring.read_one(n % num, r, text) || r.num != v.newest_num || r.thread != t)
            return false;
        v.kept_num = r.num;
        v.kept_time = r.time_of_day;
        v.kept_id = static_cast<const char*>(r.id);
        v.kept_ev = r.ev;
        if (!text.empty())
            memcpy(hist_kept_texts(v, hist_cfg), text.data() + hist_cfg.id_text_at,
                   hist_cfg.text_stride - hist_cfg.id_text_at);
        return true;
    }

    // Takes all that the table would follow out of a view.
    void clean(a_hist_view& v)
    {
        v.newest = v.newest != nullptr ? reinterpret_cast<a_ut_hist_event*>(&v) : nullptr;
        v.kept_seq = 0;
        v.kept_num = v.newest_num;
        v.kept_time = is_time(v.kept_time) ? v.kept_time : a_ut_hist_time();
        v.kept_id = id_of(v.kept_id);
        v.kept_ev = text_of(v.kept_ev);
        for (a_hist_span& span : v.spans) {
            span.begun = is_time(span.begun) ? span.begun : a_ut_hist_time();
            span.text = id_of(span.text);
        }
    }

    // Addresses count only where texts are not copied.
    char* text_of(const char* text) { return hist_cfg.copies ? nullptr : texts.pointer(text); }

    // An id may also be none or a number.
    char* id_of(const void* id)
    {
        const char* const text = static_cast<const char*>(id);
        return a_ptrint(id) < hist_first_address || id == hist_absent_id ? const_cast<char*>(text) : text_of(text);
    }

    const an_image& image;
    a_texts texts;
    std::deque<std::string> registry;
    std::vector<a_ut_hist_event_list> queues;
    std::vector<a_queue_rows> rows;
    a_ut_hist_live live = {};
    size_t cut_texts = 0;
    bool has_live = false, has_data = false;
    uint32 ids = 0;
};

a_state read_state(const an_image& image)
{
    a_state state;
    const uint64 num = image.header.events;
    state.known = image.read(UT_HIST_LIVE, 0, &state.live, sizeof state.live);
    for (uint32 q = 0; q < image.header.queues; q++) {
        a_ut_hist_event_list queue;
        if (!image.read(UT_HIST_QUEUES, q * sizeof queue, &queue, sizeof queue))
            break;
        const a_ring_pos at = unpack_ring(queue.ring_pos);
        state.recorded.push_back(at.laps * num + at.next);
        a_ut_hist_event r;
        std::vector<char> text;
        const uint64 last = at.next != 0 ? at.next - 1 : num - 1;
        a_ring_reader ring(image, queue, q);
        if (state.recorded.back() != 0 && at.next < num && ring.read_one(last, r, text) &&
            is_later(r.time_of_day, state.newest))
            state.newest = r.time_of_day;
    }
    return state;
}

a_loaded_history::a_loaded_history(const an_image& image) : loader(std::make_unique<a_loader>(image))
{
    loaded = loader->load();
}

a_loaded_history::~a_loaded_history()
{
    hist.hist_ok_to_dump = false;
    hist.hist_num_ids = 0;  // their texts are none of the library's
    if (loaded)
        hist_store_free(true);
}

const std::vector<std::string>& a_loaded_history::losses() const { return loader->lost; }

void a_loaded_history::leave_living(const std::map<uint32, std::string>& living)
{
    const bool has_tables = loaded && hist.views != nullptr;
    for (uint32 t = 0; has_tables && t < hist_slots_end(); t++) {
        a_hist_view& v = hist_view_of(t);
        const auto found = living.find(v.tid);
        if (found == living.end())
            v.newest = nullptr;  // which the table passes over
        else
            v.name[found->second.copy(v.name, sizeof v.name - 1)] = '\0';
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    loader->newest = {now.tv_sec, now.tv_usec};
}

void a_loaded_history::dump(a_sink sink, void* to, bool tables) const
{
    if (!loaded)
        return;
    a_ut_hist_dump& f = *hist.dump;
    f.out.direct(sink, to);
    hist_put_history(f);
    const struct timeval newest = {loader->newest.tv_sec, loader->newest.tv_usec};
    if (tables)
        hist_put_threads(f.out, f.view, f.pages, &newest);
    f.out.flush();
}
