// file_source.cpp: reads a history file (UT_HIST_EXT=file=...), which holds the bytes of the image from its beginning
// on. The file of a process that lives may be written meanwhile.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/image.h"
#include "tools/process_source.h"

namespace {

constexpr uint64 addresses = uint64(1) << 47;  // of a process

class a_file_source : public an_image_source {
public:
    a_file_source(std::string of, int opened) : path(std::move(of)), fd(opened) {}
    ~a_file_source() override { close(fd); }
    a_file_source(a_file_source&&) = delete;

    // Why it is none; empty when it is one.
    std::string look()
    {
        struct stat file;
        a_ut_hist_image header;
        if (fstat(fd, &file) != 0 || !S_ISREG(file.st_mode))
            return "no regular file";
        const ssize_t length = pread(fd, &header, sizeof header, 0);
        if (length < ssize_t(sizeof header.magic) || !begins_with_magic(&header))
            return "no history file: it does not begin with the magic of one";
        if (length < ssize_t(sizeof header))
            return "its header is cut off";
        base = header.base;
        size = uint64(file.st_size);
        live = life_of(header) != GONE;
        const bool stands = base != 0 && base % UT_HIST_IMAGE_HEADER == 0 && base < addresses && size < addresses;
        return stands ? "" : "its header is damaged: address";
    }

    bool read(uint64 address, void* to, size_t length) override
    {
        const uint64 at = address - base;
        if (address < base || at > size || length > size - at)
            return false;
        for (size_t done = 0; done < length;) {
            const ssize_t got = pread(fd, static_cast<char*>(to) + done, length - done, off_t(at + done));
            if (got <= 0)
                return false;
            done += size_t(got);
        }
        return true;
    }

    std::vector<a_range> ranges() override { return {{base, base + size}}; }
    std::optional<uint64> image_pointer() override { return base; }
    bool is_live() const override { return live; }
    std::string name() const override { return path; }

private:
    const std::string path;
    const int fd;
    uint64 base = 0, size = 0;
    bool live = false;
};

}  // namespace

std::unique_ptr<an_image_source> open_file(const std::string& path, std::string& problem)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        problem = strerror(errno);
        return nullptr;
    }
    auto source = std::make_unique<a_file_source>(path, fd);
    problem = source->look();
    if (!problem.empty())
        return nullptr;
    return source;
}
