// image_fuzz.cpp: whatever an image says, corvex-hist reads it to an end and inside its bounds. An input is a history
// file without the section of the dump's buffers, which no reader looks at; of an odd length it is one that is being
// written. Built with FUZZER it fuzzes, else it replays the files of the directory that is its argument, or makes an
// input of a history file: image_fuzz FILE INPUT.
#include <string.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tools/loader.h"

namespace {

class an_input : public an_image_source {
public:
    explicit an_input(std::string given) : bytes(std::move(given))
    {
        bytes.copy(reinterpret_cast<char*>(&header), sizeof header);
    }

    bool read(uint64 address, void* to, size_t length) override
    {
        const a_ut_hist_image_section& dump = header.sections[UT_HIST_DUMP];
        uint64 at = address - header.base;
        at -= at >= dump.at && at - dump.at >= dump.bytes ? dump.bytes : 0;
        if (at > bytes.size() || length > bytes.size() - at)
            return false;
        memcpy(to, bytes.data() + at, length);
        return true;
    }
    std::vector<a_range> ranges() override
    {
        return {{header.base, header.base + bytes.size() + header.sections[UT_HIST_DUMP].bytes}};
    }
    std::optional<uint64> image_pointer() override { return header.base; }
    bool is_live() const override { return bytes.size() % 2 != 0; }
    std::string name() const override { return "input"; }

    const std::string bytes;
    a_ut_hist_image header = {};
};

size_t written = 0;  // so that the text is not left out

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    an_input input(std::string(reinterpret_cast<const char*>(data), size));
    an_image image;
    std::string problem;
    // As a file is refused.
    if (input.header.base == 0 || input.header.base >> 47 != 0 || input.header.sections[UT_HIST_DUMP].bytes >> 40 != 0)
        return 0;
    if (!find_image(input, image, problem))
        return 0;
    read_state(image);
    a_loaded_history history(image);
    if (size % 4 == 3)
        history.leave_living({{image.header.pid, "alone"}});
    history.dump([](void*, const char*, size_t length) { written += length; }, nullptr, true);
    return 0;
}

#ifndef FUZZER
namespace {

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3) {
        std::string bytes = read_file(argv[1]);
        const a_ut_hist_image_section dump = an_input(bytes).header.sections[UT_HIST_DUMP];
        std::ofstream(argv[2], std::ios::binary) << bytes.erase(dump.at, dump.bytes);
        return 0;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        const std::string input = read_file(entry.path());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
}
#endif
