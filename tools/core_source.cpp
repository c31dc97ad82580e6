// core_source.cpp: reads a core of Linux on x86-64, written by the kernel or by a debugger. What comes from a pipe, or
// is compressed by zstd, goes into a file without a name before.
//
// A core holds memory by segments (PT_LOAD). Of memory that stands in files as well, such as code and constants, it has
// only the first page of each file; the note NT_FILE says which files were mapped where. What the core lacks comes from
// those files, if the build-id in the core's page says that they are still the same.
//
// Nothing in a core is trusted: numbers are checked where they are used, and what is wrong reads as absent.
#include "tools/core_source.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/procfs.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string_view>
#include <utility>

#include "tools/image.h"
#include "utils/etc/uthist/hist_process.h"

namespace {

constexpr uint64 page = 4096;
constexpr uint64 max_table = 256 << 20;       // bytes of a table, so 4.7 million mappings; of a core's notes
constexpr uint64 max_file_notes = 256 << 10;  // bytes of the notes of a program or library

// ---- files -------------------------------------------------------------------------------------------------

class a_descriptor {
public:
    explicit a_descriptor(int opened = -1) : fd(opened) {}
    a_descriptor(a_descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    a_descriptor& operator=(a_descriptor&& other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~a_descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
    int get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }

private:
    int fd;
};

// Reads a range of a file, or of memory that holds one.
using a_reader = std::function<bool(uint64 offset, void* to, size_t length)>;

a_reader reader_of(const a_descriptor& file)
{
    return [fd = file.get()](uint64 offset, void* to, size_t length) {
        for (char* next = static_cast<char*>(to); length != 0;) {
            const ssize_t got = offset > INT64_MAX ? 0 : pread(fd, next, length, off_t(offset));
            if (got == 0 || (got < 0 && errno != EINTR))
                return false;
            const size_t n = got > 0 ? size_t(got) : 0;
            next += n, offset += n, length -= n;
        }
        return true;
    };
}

bool is_regular(int fd)
{
    struct stat file;
    return fstat(fd, &file) == 0 && S_ISREG(file.st_mode);
}

// Not a device or a FIFO, which a core may name: opening one may do something, or wait for ever.
a_descriptor open_regular(const std::string& path)
{
    struct stat file;
    if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode))
        return a_descriptor();
    return a_descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

template <typename T>
bool read_one(const a_reader& file, uint64 offset, T& to)
{
    return file(offset, &to, sizeof to);
}

// Entries of a table in a file; none when they cannot be read.
template <typename T>
T read_table(const a_reader& file, uint64 offset, uint64 entries)
{
    constexpr uint64 bytes = sizeof(typename T::value_type);
    T table;
    if (entries > max_table / bytes)
        return table;
    table.resize(entries);
    if (!file(offset, table.data(), entries * bytes))
        table.clear();
    return table;
}

// ---- ELF ---------------------------------------------------------------------------------------------------

bool read_header(const a_reader& file, Elf64_Ehdr& header)
{
    return read_one(file, 0, header) && memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
           header.e_machine == EM_X86_64;
}

std::vector<Elf64_Phdr> segments_of(const a_reader& file)
{
    Elf64_Ehdr header;
    Elf64_Shdr first;
    if (!read_header(file, header) || header.e_phentsize != sizeof(Elf64_Phdr))
        return {};
    uint64 count = header.e_phnum;
    if (count == PN_XNUM && read_one(file, header.e_shoff, first))
        count = first.sh_info;  // the core of a process with very many mappings
    return read_table<std::vector<Elf64_Phdr>>(file, header.e_phoff, count);
}

// Calls each(type, name, description) for the notes of the kind that `owner` gives.
template <typename F>
void for_each_note(std::string_view notes, std::string_view owner, F each)
{
    Elf64_Nhdr note;
    while (notes.size() >= sizeof note) {
        memcpy(&note, notes.data(), sizeof note);
        notes.remove_prefix(sizeof note);
        const uint64 description_at = (uint64(note.n_namesz) + 3) & ~uint64(3);
        if (description_at > notes.size() || note.n_descsz > notes.size() - description_at)
            return;
        if (notes.substr(0, note.n_namesz) == std::string(owner) + '\0')
            each(note.n_type, notes.substr(description_at, note.n_descsz));
        notes.remove_prefix(
            std::min<uint64>(description_at + ((uint64(note.n_descsz) + 3) & ~uint64(3)), notes.size()));
    }
}

template <typename F>
void for_each_note(const a_reader& file, uint64 max_bytes, std::string_view owner, F each)
{
    for (const Elf64_Phdr& segment : segments_of(file)) {
        if (segment.p_type != PT_NOTE || segment.p_filesz > max_bytes)
            continue;
        max_bytes -= segment.p_filesz;
        for_each_note(read_table<std::string>(file, segment.p_offset, segment.p_filesz), owner, each);
    }
}

std::string build_id(const a_reader& file)
{
    std::string id;
    for_each_note(file, max_file_notes, "GNU", [&](uint32 type, std::string_view bytes) {
        if (type == NT_GNU_BUILD_ID)
            id = bytes;
    });
    return id;
}

// The value of a dynamic symbol that a program or library defines.
std::optional<uint64> symbol(const a_reader& file, const char* name)
{
    Elf64_Ehdr header;
    if (!read_header(file, header) || header.e_shentsize != sizeof(Elf64_Shdr))
        return {};
    const auto sections = read_table<std::vector<Elf64_Shdr>>(file, header.e_shoff, header.e_shnum);
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_DYNSYM || section.sh_link >= sections.size())
            continue;
        const Elf64_Shdr& strings = sections[section.sh_link];
        const auto names = read_table<std::string>(file, strings.sh_offset, strings.sh_size);
        for (const Elf64_Sym& entry :
             read_table<std::vector<Elf64_Sym>>(file, section.sh_offset, section.sh_size / sizeof(Elf64_Sym)))
            if (entry.st_shndx != SHN_UNDEF && entry.st_name < names.size() &&
                names.c_str() + entry.st_name == std::string_view(name))
                return entry.st_value;
    }
    return {};
}

// What is added to a file's own addresses where its first page lies at `begin`.
uint64 bias(const a_reader& file, uint64 begin)
{
    for (const Elf64_Phdr& segment : segments_of(file))
        if (segment.p_type == PT_LOAD && segment.p_offset < page)
            return begin - (segment.p_vaddr - segment.p_offset);
    return begin;
}

// ---- the core ----------------------------------------------------------------------------------------------

struct a_segment {
    uint64 begin, end, dumped_end;  // the core holds the memory from `begin` to `dumped_end`
    uint64 offset;                  // in the core
    bool writable;
};

// A file that the process had mapped.
struct a_mapped_file {
    std::vector<a_range> beginnings;  // where its first page was
    a_descriptor opened;              // when it is the same as in the core
    std::string problem;              // why it is not used
    bool tried = false, told = false;
};
using a_mapped_files = std::map<std::string, a_mapped_file>;

struct a_mapping {
    uint64 begin, end, offset;
    a_mapped_files::value_type* file;
};

// The last element that begins at or before an address, when it holds that address.
template <typename T>
const T* find(const std::vector<T>& ascending, uint64 address)
{
    auto next = std::upper_bound(ascending.begin(), ascending.end(), address,
                                 [](uint64 at, const T& element) { return at < element.begin; });
    return next != ascending.begin() && address < (--next)->end ? &*next : nullptr;
}

template <typename T>
void sort_by_address(std::vector<T>& elements)
{
    std::sort(elements.begin(), elements.end(), [](const T& a, const T& b) { return a.begin < b.begin; });
}

class a_core final : public a_core_source {
public:
    a_core(a_descriptor file, std::string shown_name)
        : core(std::move(file)), core_reader(reader_of(core)), shown(std::move(shown_name))
    {
        for (const Elf64_Phdr& segment : segments_of(core_reader))
            if (segment.p_type == PT_LOAD && segment.p_vaddr + segment.p_memsz > segment.p_vaddr)
                segments.push_back({segment.p_vaddr, segment.p_vaddr + segment.p_memsz,
                                    segment.p_vaddr + std::min(segment.p_filesz, segment.p_memsz), segment.p_offset,
                                    (segment.p_flags & PF_W) != 0});
        sort_by_address(segments);
        for_each_note(core_reader, max_table, "CORE", [this](uint32 type, std::string_view note) {
            if (type == NT_FILE)
                add_mappings(note);
            if (prpsinfo_t process; type == NT_PRPSINFO && note.size() == sizeof process) {
                memcpy(&process, note.data(), sizeof process);
                pid = process.pr_pid;
            }
        });
        sort_by_address(mappings);
        tell_when_cut();
    }

    bool read(uint64 address, void* to, size_t length) override
    {
        for (char* next = static_cast<char*>(to); length != 0;) {
            size_t got = read_dumped(address, next, length);
            if (got == 0)
                got = read_mapped(address, next, length);
            if (got == 0)
                return false;
            next += got, address += got, length -= got;
        }
        return true;
    }

    std::vector<a_range> ranges() override
    {
        std::vector<a_range> all;
        for (const a_segment& segment : segments)
            if (segment.writable && segment.dumped_end > segment.begin)
                all.push_back({segment.begin, segment.dumped_end});
        return all;
    }

    std::optional<uint64> image_pointer() override
    {
        for (const a_mapping& mapping : mappings) {
            if (mapping.offset != 0 || !is_same(*mapping.file))
                continue;
            const a_reader file = reader_of(mapping.file->second.opened);
            const auto value = symbol(file, "ut_hist_image_now");
            uint64 image;
            if (value && is_dumped(bias(file, mapping.begin) + *value, &image, sizeof image) && is_image(image))
                return image;
        }
        return {};
    }

    std::optional<std::string> history_file() override
    {
        for (const a_mapping& mapping : mappings) {
            const a_segment* const segment = find(segments, mapping.begin);
            char first;
            if (mapping.offset != 0 || segment == nullptr || !segment->writable ||
                read_dumped(mapping.begin, &first, 1) != 0)
                continue;
            const std::string& path = mapping.file->first;
            const char* const problem = why_not_file(path, mapping.begin);
            if (problem == nullptr)
                return path;
            missed += "; perhaps it was in " + path + ": " + problem;
        }
        return {};
    }

    bool is_live() const override { return false; }
    std::string name() const override { return shown; }
    std::string hint() const override { return missed; }
    std::string loss() const override
    {
        return lost_files != 0 ? "texts of " + std::to_string(lost_files) + " files are missing" : "";
    }

private:
    // Why a file is not the history that the process had mapped there; null when it is. In another container the
    // process had another pid.
    const char* why_not_file(const std::string& path, uint64 begin)
    {
        const a_descriptor file = open_regular(path);
        a_ut_hist_image image;
        a_hist_system here;
        hist_find_system(here);
        if (!file)
            return "it cannot be opened";
        if (!read_one(reader_of(file), 0, image) || !begins_with_magic(&image))
            return "it is no history file";
        const bool is_same = pid == 0 || image.pid == pid || image.pid_namespace != here.pid_namespace;
        return is_same && image.base == begin ? nullptr : "it is another process's now";
    }

    bool is_image(uint64 address)
    {
        unsigned char magic[sizeof a_ut_hist_image::magic];
        return address % page == 0 && is_dumped(address, magic, sizeof magic) && begins_with_magic(magic);
    }

    // The note: how many mappings, the unit of their offsets, for each its addresses and its offset, then their names.
    void add_mappings(std::string_view note)
    {
        uint64 head[2], row[3];
        if (note.size() < sizeof head)
            return;
        memcpy(head, note.data(), sizeof head);
        note.remove_prefix(sizeof head);
        if (head[0] > note.size() / sizeof row)
            return;
        std::string_view names = note.substr(head[0] * sizeof row);
        for (; head[0] > 0 && !names.empty(); head[0]--) {
            memcpy(row, note.data(), sizeof row);
            const std::string file(names.substr(0, names.find('\0')));
            auto& entry = *files.try_emplace(file).first;
            if (row[0] < row[1])
                mappings.push_back({row[0], row[1], row[2] * head[1], &entry});
            if (row[0] < row[1] && row[2] == 0)
                entry.second.beginnings.push_back({row[0], row[1]});
            note.remove_prefix(sizeof row);
            names.remove_prefix(std::min(file.size() + 1, names.size()));
        }
    }

    void tell_when_cut() const
    {
        struct stat file;
        uint64 whole = 0;
        for (const a_segment& segment : segments)
            whole = std::max(whole, segment.offset + (segment.dumped_end - segment.begin));
        if (fstat(core.get(), &file) == 0 && uint64(file.st_size) < whole)
            tell("the core is cut: it has " + std::to_string(file.st_size) + " of " + std::to_string(whole) + " bytes");
    }

    // The names of files come from the core: nothing in them is to move a terminal's cursor.
    void tell(const std::string& what) const
    {
        std::string line = shown + ": " + what;
        std::replace_if(
            line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '.');
        fprintf(stderr, "corvex-hist: %s\n", line.c_str());
    }

    // How many bytes of memory from an address on the core holds and were read, up to length.
    size_t read_dumped(uint64 address, void* to, size_t length)
    {
        const a_segment* const segment = find(segments, address);
        if (segment == nullptr || address >= segment->dumped_end)
            return 0;
        length = size_t(std::min<uint64>(length, segment->dumped_end - address));
        return core_reader(segment->offset + (address - segment->begin), to, length) ? length : 0;
    }

    bool is_dumped(uint64 address, void* to, size_t length) { return read_dumped(address, to, length) == length; }

    // The same from a file. What the process could write is not what stands there.
    size_t read_mapped(uint64 address, void* to, size_t length)
    {
        const a_segment* const segment = find(segments, address);
        const a_mapping* const mapping = find(mappings, address);
        if (mapping == nullptr || (segment != nullptr && segment->writable))
            return 0;
        a_mapped_file& file = mapping->file->second;
        if (!is_same(*mapping->file)) {
            if (!std::exchange(file.told, true) && ++lost_files != 0)
                tell("texts from " + mapping->file->first + " are not shown: " + file.problem);
            return 0;
        }
        length = size_t(std::min<uint64>(length, mapping->end - address));
        return reader_of(file.opened)(mapping->offset + (address - mapping->begin), to, length) ? length : 0;
    }

    // Whether a file is the one that was mapped.
    bool is_same(a_mapped_files::value_type& named)
    {
        auto& [path, file] = named;
        if (!std::exchange(file.tried, true)) {
            const std::string id = build_id_of(file);
            a_descriptor opened = id.empty() ? a_descriptor() : open_regular(path);
            if (id.empty())
                file.problem = "the core has no build-id of it";
            else if (!opened)
                file.problem = "it cannot be opened";
            else if (build_id(reader_of(opened)) != id)
                file.problem = "its build-id is not the one in the core";
            else
                file.opened = std::move(opened);
        }
        return bool(file.opened);
    }

    // By the pages of the file that the core holds.
    std::string build_id_of(const a_mapped_file& file)
    {
        std::string id;
        for (const a_range& place : file.beginnings) {
            id = build_id([&](uint64 offset, void* to, size_t length) {
                return offset < place.end - place.begin && is_dumped(place.begin + offset, to, length);
            });
            if (!id.empty())
                break;
        }
        return id;
    }

    a_descriptor core;
    a_reader core_reader;
    std::string shown;
    std::string missed;               // files that may be the history
    pid_t pid = 0;                    // as the process knew it; 0 when the core does not say
    uint32 lost_files = 0;            // whose texts could not be given
    std::vector<a_segment> segments;  // these two ascending
    std::vector<a_mapping> mappings;
    a_mapped_files files;  // by path
};

// ---- compressed cores and pipes ----------------------------------------------------------------------------

constexpr unsigned char zstd_magic[] = {0x28, 0xB5, 0x2F, 0xFD};

// Writes a file from its beginning, with holes for pages of zeros, of which cores have many.
class a_sparse_file {
public:
    // The file has no name. Where that fails `problem` is set.
    a_sparse_file()
    {
        const char* const chosen = getenv("TMPDIR");
        folder = chosen != nullptr && *chosen != '\0' ? chosen : "/var/tmp";
        std::string path = folder + "/corvex-hist-XXXXXX";
        file = a_descriptor(mkostemp(path.data(), O_CLOEXEC));
        if (file)
            unlink(path.c_str());
        else
            fail();
    }

    bool add(std::string_view data)
    {
        while (!data.empty()) {
            const std::string_view piece = data.substr(0, page - size % page);
            if (piece.find_first_not_of('\0') != piece.npos && !write_whole(piece))
                return false;
            size += piece.size();
            data.remove_prefix(piece.size());
        }
        return true;
    }

    a_descriptor finished()
    {
        if (ftruncate(file.get(), off_t(size)) != 0)
            fail();
        return std::move(file);
    }

    std::string problem;

private:
    bool write_whole(std::string_view data)
    {
        for (size_t done = 0; done < data.size();) {
            const ssize_t n = pwrite(file.get(), data.data() + done, data.size() - done, off_t(size + done));
            if (n < 0 && errno != EINTR)
                return fail();
            done += n > 0 ? size_t(n) : 0;
        }
        return true;
    }

    bool fail()
    {
        problem =
            "there is no room for the core in " + folder + " (" + strerror(errno) + "): set TMPDIR to another folder";
        return false;
    }

    std::string folder;
    a_descriptor file;
    uint64 size = 0;
};

// Some bytes; none at the end.
std::string_view read_some(int fd, std::string& buffer)
{
    ssize_t n;
    do
        n = read(fd, buffer.data(), buffer.size());
    while (n < 0 && errno == EINTR);
    return std::string_view(buffer).substr(0, n > 0 ? size_t(n) : 0);
}

void copy(int fd, a_sparse_file& to, std::string_view begun)
{
    std::string buffer(1 << 16, '\0');
    for (std::string_view data = begun; !data.empty() && to.add(data);)
        data = read_some(fd, buffer);
}

// As far as it goes: of what is cut or damaged the beginning is taken.
void expand(int fd, a_sparse_file& to, std::string_view begun)
{
    const std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> stream(ZSTD_createDStream(), ZSTD_freeDStream);
    std::string buffer(ZSTD_DStreamInSize(), '\0'), expanded(ZSTD_DStreamOutSize(), '\0');
    for (std::string_view data = begun; !data.empty(); data = read_some(fd, buffer)) {
        ZSTD_inBuffer in = {data.data(), data.size(), 0};
        for (bool more = true; more;) {
            ZSTD_outBuffer out = {expanded.data(), expanded.size(), 0};
            const size_t left = ZSTD_decompressStream(stream.get(), &out, &in);
            if (!to.add(std::string_view(expanded).substr(0, out.pos)) || ZSTD_isError(left))
                return;
            more = in.pos < in.size || (left != 0 && out.pos == out.size);
        }
    }
}

// The same core in a file that can be read anywhere.
a_descriptor unpacked(a_descriptor file, std::string& problem)
{
    const bool regular = is_regular(file.get());
    std::string begun, buffer(sizeof zstd_magic, '\0');
    while (begun.size() < sizeof zstd_magic) {
        const std::string_view data = read_some(file.get(), buffer);
        if (data.empty())
            break;
        begun += data;
    }
    const bool compressed =
        begun.size() >= sizeof zstd_magic && memcmp(begun.data(), zstd_magic, sizeof zstd_magic) == 0;
    if (regular && !compressed)
        return file;
    a_sparse_file whole;
    if (whole.problem.empty())
        (compressed ? expand : copy)(file.get(), whole, begun);
    a_descriptor result = whole.problem.empty() ? whole.finished() : a_descriptor();
    problem = whole.problem;
    return result;
}

}  // namespace

std::unique_ptr<an_image_source> open_core(const std::string& path_or_dash, std::string& problem)
{
    const bool piped = path_or_dash == "-";
    const std::string name = piped ? "standard input" : path_or_dash;
    a_descriptor file(piped ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    problem.clear();
    if (file)
        file = unpacked(std::move(file), problem);
    else
        problem = strerror(errno);
    Elf64_Ehdr header;
    if (problem.empty() && (!read_header(reader_of(file), header) || header.e_type != ET_CORE))
        problem = "this is no core of Linux on x86-64, plain or compressed by zstd";
    if (!problem.empty()) {
        problem = name + ": " + problem;
        return nullptr;
    }
    return std::make_unique<a_core>(std::move(file), name);
}
