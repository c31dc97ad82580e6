// image.h: an image of a history in a source, found and with its header checked. The library itself computes the layout
// that the header's settings make, and the header's is compared with that: what passes has no offset, size or count of
// its own.
#ifndef TOOLS_IMAGE_H
#define TOOLS_IMAGE_H

#include <string>

#include "corvex/hist_image.h"
#include "tools/image_source.h"

struct an_image {
    an_image_source* source = nullptr;
    uint64 readable = 0;  // bytes from its beginning on that the source may have
    a_ut_hist_image header = {};
    std::string why_not;  // the image cannot be read whole; empty when it may be

    const a_ut_hist_image_section& section(uint32 s) const { return header.sections[s]; }
    uint64 readable_of(uint32 s) const;  // the section's bytes
    bool read(uint32 s, uint64 offset, void* to, size_t length) const;
};

bool begins_with_magic(const void* bytes);

// False with the problem in one line when there is none that can be read. The settings of the library are the image's
// then.
bool find_image(an_image_source& source, an_image& image, std::string& problem);

// Makes the library's settings those of the image, with so many records a queue, ids and bytes of a data ring.
void use_settings(const a_ut_hist_image& header, uint64 events, uint64 ids, uint64 data_size);

#endif
