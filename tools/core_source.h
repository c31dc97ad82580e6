// core_source.h: what only a core can tell. Each that open_core returns is one.
#ifndef TOOLS_CORE_SOURCE_H
#define TOOLS_CORE_SOURCE_H

#include "tools/image_source.h"

class a_core_source : public an_image_source {
public:
    // The history file that the process had mapped (UT_HIST_EXT=file=...) when the core does not hold that memory: then
    // the history is to be read from the file, by open_file.
    virtual std::optional<std::string> history_file() = 0;
};

#endif
