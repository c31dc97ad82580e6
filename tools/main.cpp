// main.cpp: the command line of corvex-hist: dump, list, info.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <CLI/CLI.hpp>

#include "tools/core_source.h"
#include "tools/process_source.h"
#include "tools/report.h"

namespace {

enum an_exit { ALL_READ = 0, NOTHING = 1, IN_PART = 2, USAGE = 64 };

void tell(const std::string& name, const std::string& what)
{
    fprintf(stderr, "corvex-hist: %s: %s\n", name.c_str(), what.c_str());
}

bool is_pid(const std::string& source)
{
    return !source.empty() && source.size() < 10 && source.find_first_not_of("0123456789") == std::string::npos;
}

std::unique_ptr<an_image_source> open_any_core(const std::string& path, std::string& problem)
{
    std::unique_ptr<an_image_source> core = open_core(path, problem);
    const std::optional<std::string> file =
        core != nullptr ? static_cast<a_core_source&>(*core).history_file() : std::nullopt;
    if (!file)
        return core;
    std::unique_ptr<an_image_source> history = open_file(*file, problem);
    if (history == nullptr)
        problem = "its history is in the file " + *file + ": " + problem;
    return history;
}

// The first bytes of a file decide what it is.
std::unique_ptr<an_image_source> open_source(const std::string& source, std::string& problem)
{
    if (is_pid(source))
        return open_process(atoi(source.c_str()), problem);
    char begin[4] = "";
    std::error_code ignored;
    const bool is_pipe = source == "-" || std::filesystem::is_fifo(source, ignored);
    if (!is_pipe)
        std::ifstream(source, std::ios::binary).read(begin, sizeof begin);
    const bool is_core = memcmp(begin, "\177ELF", 4) == 0 || memcmp(begin, "\x28\xB5\x2F\xFD", 4) == 0;
    return is_pipe || is_core ? open_any_core(source, problem) : open_file(source, problem);
}

an_exit dump(const an_image& image, const std::string& name, const std::string& source, bool tables)
{
    a_loaded_history history(image);
    // Asked for after the image: a thread that it knows has either ended or is among them.
    if (is_pid(source))
        history.leave_living(threads_of(atoi(source.c_str())));
    else if (image.source->is_live() && life_of(image.header) == ALIVE)
        history.leave_living(threads_of(image.header.pid));
    if (tables && (image.header.flags & UT_HIST_IMAGE_TABLES) == 0)
        tell(name, "no thread tables: its process had no UT_HIST_EXT=tables");
    const auto sink = [](void* to, const char* text, size_t length) {
        fwrite(text, 1, length, static_cast<FILE*>(to));
    };
    history.dump(sink, stdout, tables);
    std::string all;
    for (const std::string& loss : history.losses())
        all += (all.empty() ? "" : "; ") + loss;
    if (const std::string loss = image.source->loss(); !loss.empty())
        all += (all.empty() ? "" : "; ") + loss;
    if (!all.empty())
        tell(name, all);
    return !history.is_there() ? NOTHING : all.empty() ? ALL_READ : IN_PART;
}

an_exit info(const an_image& image, const std::string& name)
{
    const a_state state = read_state(image);
    put_info(image, state);
    if (!image.why_not.empty())
        tell(name, image.why_not);
    const bool all = image.why_not.empty() && state.known && state.recorded.size() == image.header.queues;
    return all ? ALL_READ : IN_PART;
}

an_exit read_source(const std::string& named, bool wants_info, bool tables)
{
    std::string problem;
    const std::unique_ptr<an_image_source> source = open_source(named, problem);
    an_image image;
    if (source == nullptr || !find_image(*source, image, problem)) {
        tell(source != nullptr ? source->name() : named, problem + (source != nullptr ? source->hint() : ""));
        return NOTHING;
    }
    return wants_info ? info(image, source->name()) : dump(image, source->name(), named, tables);
}

an_exit dump_all(const std::vector<std::string>& sources, bool tables)
{
    bool some = false, all = true;
    for (const std::string& source : sources) {
        if (sources.size() > 1)
            fprintf(stderr, "corvex-hist: %s\n", source.c_str());
        const an_exit read = read_source(source, false, tables);
        fflush(stdout);
        some = some || read != NOTHING;
        all = all && read == ALL_READ;
    }
    return all ? ALL_READ : some ? IN_PART : NOTHING;
}

// The folder of the pattern of this environment's history files; none where it has placeholders itself.
std::vector<std::string> default_folders()
{
    const char* const ext = getenv("UT_HIST_EXT");
    const std::string words = std::string(",") + (ext != nullptr ? ext : "");
    const size_t at = words.find(",file=");
    const std::string word = at != std::string::npos ? words.substr(at + 6) : "";
    std::string pattern;
    for (const char* next = word.c_str(); *next != '\0' && *next != ','; next++) {
        next += next[0] == '%' && next[1] == ',' ? 1 : 0;
        pattern += *next;
    }
    const bool is_folder = std::filesystem::is_directory(pattern);
    const std::string folder = is_folder ? pattern : std::filesystem::path(pattern).parent_path().string();
    const bool is_one = !pattern.empty() && folder.find('%') == std::string::npos;
    return is_one ? std::vector<std::string>{folder.empty() ? "." : folder} : std::vector<std::string>();
}

int run(int argc, char** argv)
{
    CLI::App app("reads event histories of libcorvex16_r from outside their processes", "corvex-hist");
    app.set_version_flag("--version", CORVEX_TOOL_VERSION);
    app.require_subcommand(1);
    std::vector<std::string> sources;
    std::string source, folder;
    bool tables = false;
    CLI::App* const dumps = app.add_subcommand("dump", "writes histories as their processes would");
    dumps->add_option("SOURCE", sources, "a process id, a history file, a core (- for one on standard input)")
        ->required();
    dumps->add_flag("--tables", tables, "what each thread does, too");
    CLI::App* const lists = app.add_subcommand("list", "lists the histories that can be read here");
    lists->add_option("FOLDER", folder, "where history files are");
    CLI::App* const infos = app.add_subcommand("info", "header, settings, losses, crash record");
    infos->add_option("SOURCE", source, "as of dump")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? ALL_READ : USAGE;
    }
    an_exit code = NOTHING;
    if (dumps->parsed())
        code = dump_all(sources, tables);
    else if (infos->parsed())
        code = read_source(source, true, false);
    else if (put_list(folder.empty() ? default_folders() : std::vector<std::string>{folder}))
        code = ALL_READ;
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        tell("standard output", strerror(errno));
        return code == ALL_READ ? IN_PART : code;
    }
    return code;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        fprintf(stderr, "corvex-hist: %s\n", e.what());  // no memory
        return NOTHING;
    }
}
