// image_source.h: where an image is read from: a process, a history file, a core.
#ifndef TOOLS_IMAGE_SOURCE_H
#define TOOLS_IMAGE_SOURCE_H

#include <stddef.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvex/types.h"

struct a_range {
    uint64 begin, end;  // addresses
};

class an_image_source {
public:
    virtual ~an_image_source() = default;

    // Reads the whole length, or says false.
    virtual bool read(uint64 address, void* to, size_t length) = 0;

    // Where an image may begin: readable and writable memory, ascending.
    virtual std::vector<a_range> ranges() = 0;

    // The value of ut_hist_image_now, when symbols tell it; else the search by the magic at page starts finds it.
    virtual std::optional<uint64> image_pointer() = 0;

    virtual bool is_live() const = 0;  // it may change while it is read
    virtual bool is_process() const { return false; }
    virtual std::string name() const = 0;            // as messages show it
    virtual std::string loss() const { return {}; }  // what could not be given so far; empty for nothing
    virtual std::string hint() const { return {}; }  // where an image that is not there may be
};

// On failure they return null and say why, and what to do, in one line.
std::unique_ptr<an_image_source> open_process(int pid, std::string& problem);
std::unique_ptr<an_image_source> open_file(const std::string& path, std::string& problem);  // a history file
std::unique_ptr<an_image_source> open_core(const std::string& path_or_dash, std::string& problem);

#endif
