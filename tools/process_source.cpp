// process_source.cpp: reads a running process by process_vm_readv. Where the system forbids that, its history file is
// taken, which is among its mappings.
#include "tools/process_source.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

#include "tools/image.h"
#include "utils/etc/uthist/hist_process.h"

namespace {

constexpr uint64 most_symbols = 100000;

std::string proc(int pid, const std::string& what) { return "/proc/" + std::to_string(pid) + "/" + what; }

std::string first_line(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// One's own name of a thread: the last number of the line.
uint32 own_id(const std::filesystem::path& task)
{
    std::ifstream status(task / "status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("NSpid:"))
            return uint32(strtoul(line.c_str() + line.find_last_of(" \t"), nullptr, 10));
    return uint32(strtoul(task.filename().c_str(), nullptr, 10));
}

// In clock ticks since boot; 0 for none. The second field is a name in parentheses, and may hold anything.
uint64 start_of(int pid)
{
    const std::string line = first_line(proc(pid, "stat"));
    std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
    std::string field;
    for (int i = 3; i <= 22; i++)
        fields >> field;
    return strtoull(field.c_str(), nullptr, 10);
}

class a_process_source : public an_image_source {
public:
    a_process_source(int of, std::vector<a_mapping> all) : pid(of), memory(memory_id(of)), maps(std::move(all)) {}

    bool read(uint64 address, void* to, size_t length) override
    {
        const struct iovec local = {to, length}, remote = {reinterpret_cast<void*>(address), length};
        return process_vm_readv(memory, &local, 1, &remote, 1, 0) == ssize_t(length);
    }

    // Not of devices, whose memory may have side effects.
    std::vector<a_range> ranges() override
    {
        std::vector<a_range> found;
        for (const a_mapping& m : maps)
            if (m.access.starts_with("rw") && (!m.path.starts_with("/dev/") || m.path.starts_with("/dev/shm/")))
                found.push_back({m.begin, m.end});
        return found;
    }

    // By the tables of symbols, as the loader has mapped them: a program that names the pointer has it in its own
    // memory.
    std::optional<uint64> image_pointer() override
    {
        std::error_code error;
        const std::string program = std::filesystem::read_symlink(proc(memory, "exe"), error);
        std::optional<uint64> found;
        for (const a_mapping& m : maps) {
            uint64 symbol, value;
            const bool may_have_it = m.offset == 0 && (m.path == program || is_library(m));
            if (found.value_or(0) == 0 && may_have_it && (symbol = find_symbol(m.begin, "ut_hist_image_now")) != 0 &&
                read(symbol, &value, sizeof value))
                found = value;
        }
        return found;
    }

    bool is_live() const override { return true; }
    bool is_process() const override { return true; }
    std::string name() const override { return "process " + std::to_string(pid); }

private:
    template <typename T>
    bool read_one(uint64 address, T& to)
    {
        return read(address, &to, sizeof to);
    }

    // The address of a symbol of the program or shared library that is mapped from there on; 0 for none.
    uint64 find_symbol(uint64 begin, std::string_view wanted)
    {
        Elf64_Ehdr header;
        Elf64_Phdr part;
        if (!read_one(begin, header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
            return 0;
        const uint64 base = header.e_type == ET_DYN ? begin : 0;
        for (uint32 i = 0; i < header.e_phnum; i++)
            if (read_one(begin + header.e_phoff + i * sizeof part, part) && part.p_type == PT_DYNAMIC)
                return find_symbol(base, base + part.p_vaddr, part.p_memsz / sizeof(Elf64_Dyn), wanted);
        return 0;
    }

    // The table of symbols ends where that of their names begins.
    uint64 find_symbol(uint64 base, uint64 dynamic, uint64 entries, std::string_view wanted)
    {
        uint64 symbols = 0, names = 0;
        Elf64_Dyn entry;
        for (uint64 i = 0; i < entries && read_one(dynamic + i * sizeof entry, entry) && entry.d_tag != DT_NULL; i++) {
            const uint64 address = entry.d_un.d_ptr < base ? base + entry.d_un.d_ptr : entry.d_un.d_ptr;
            symbols = entry.d_tag == DT_SYMTAB ? address : symbols;
            names = entry.d_tag == DT_STRTAB ? address : names;
        }
        Elf64_Sym symbol;
        std::string name(wanted.size() + 1, '\0');
        const uint64 count = names > symbols ? std::min((names - symbols) / sizeof symbol, most_symbols) : 0;
        for (uint64 i = 0; i < count && read_one(symbols + i * sizeof symbol, symbol); i++)
            if (symbol.st_shndx != SHN_UNDEF && read(names + symbol.st_name, name.data(), name.size()) &&
                std::string_view(name.c_str()) == wanted)
                return base + symbol.st_value;
        return 0;
    }

    const int pid, memory;
    const std::vector<a_mapping> maps;
};

// As the library keeps it.
std::string own_host()
{
    char host[sizeof a_ut_hist_image::host] = "";
    gethostname(host, sizeof host - 1);
    return host;
}

// By exec: nothing is where the image was. Not when that may not be looked at.
bool runs_another_program(const a_ut_hist_image& header)
{
    const std::vector<a_mapping> maps = mappings_of(header.pid);
    return !maps.empty() && std::none_of(maps.begin(), maps.end(), [&](const a_mapping& m) {
        return m.begin <= header.base && header.base < m.end;
    });
}

// The history file among the mappings; null for none.
std::unique_ptr<an_image_source> open_mapped_file(int pid, const std::vector<a_mapping>& maps)
{
    for (const a_mapping& m : maps) {
        std::string ignored;
        if (m.offset != 0 || !m.path.starts_with("/") || !m.access.starts_with("rw"))
            continue;
        for (const std::string& path : {m.path, proc(pid, "root") + m.path})
            if (std::unique_ptr<an_image_source> file = open_file(path, ignored))
                return file;
    }
    return nullptr;
}

}  // namespace

bool is_library(const a_mapping& m) { return m.offset == 0 && m.path.find("/libcorvex16_r.so") != std::string::npos; }

int memory_id(int pid)
{
    const auto has_memory = [](int id) { return !first_line(proc(id, "maps")).empty(); };
    std::error_code gone;
    if (!has_memory(pid))
        for (const auto& task : std::filesystem::directory_iterator(proc(pid, "task"), gone))
            if (const int id = atoi(task.path().filename().c_str()); has_memory(id))
                return id;
    return pid;
}

std::vector<a_mapping> mappings_of(int pid)
{
    std::vector<a_mapping> all;
    std::ifstream file(proc(memory_id(pid), "maps"));
    for (std::string line; std::getline(file, line);) {
        a_mapping m;
        char access[8] = "";
        int path_at = 0;
        unsigned long begin, end, offset;
        if (sscanf(line.c_str(), "%lx-%lx %7s %lx %*s %*s %n", &begin, &end, access, &offset, &path_at) < 4)
            continue;
        all.push_back({begin, end, offset, access, line.substr(std::min(size_t(path_at), line.size()))});
    }
    return all;
}

std::map<uint32, std::string> threads_of(int pid)
{
    std::map<uint32, std::string> names;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator(proc(pid, "task"), gone))
        names[own_id(task.path())] = first_line(task.path() / "comm");
    return names;
}

a_life life_of(const a_ut_hist_image& header)
{
    a_hist_system here;
    hist_find_system(here);
    if (std::string_view(here.boot_id) != header.boot_id)
        return own_host() == header.host ? GONE : ELSEWHERE;
    if (here.pid_namespace == 0 || here.pid_namespace != header.pid_namespace)
        return ELSEWHERE;
    const uint64 start = header.pid > 0 ? start_of(header.pid) : 0;
    if (start == 0 && header.pid > 0 && (kill(header.pid, 0) == 0 || errno == EPERM))
        return ELSEWHERE;
    return start != 0 && start == header.process_start && !runs_another_program(header) ? ALIVE : GONE;
}

std::unique_ptr<an_image_source> open_process(int pid, std::string& problem)
{
    problem = "there is no such process";
    if (access(proc(pid, "maps").c_str(), F_OK) != 0)
        return nullptr;
    std::vector<a_mapping> maps = mappings_of(pid);
    auto source = std::make_unique<a_process_source>(pid, maps);
    const auto readable = std::find_if(maps.begin(), maps.end(), [](const a_mapping& m) { return m.access[0] == 'r'; });
    char byte;
    if (readable != maps.end() && source->read(readable->begin, &byte, sizeof byte))
        return source;
    const int error = errno;
    if (std::unique_ptr<an_image_source> file = open_mapped_file(pid, maps))
        return file;
    if (maps.empty() && std::ifstream(proc(pid, "maps")).is_open())
        problem = "it has no memory: it has ended, or is the kernel's";
    else if (!maps.empty() && error == ENOSYS)
        problem = "this system cannot read another process's memory (process_vm_readv)";
    else
        problem = "its memory may not be read: be its user or root or have CAP_SYS_PTRACE, and see "
                  "/proc/sys/kernel/yama/ptrace_scope: from 1 on only root may, or its debugger; or name its history "
                  "file, if it has one";
    return nullptr;
}
