// loader.h: fills the library's own store with what an image has whole, so that the library's formatter prints it.
#ifndef TOOLS_LOADER_H
#define TOOLS_LOADER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/image.h"

// What is known of an image beside its header.
struct a_state {
    bool known = false;  // that of `live`
    a_ut_hist_live live = {};
    std::vector<uint64> recorded;  // events ever, of each queue that can be read
    a_ut_hist_time newest = {};    // of all records; zeros for none
};
a_state read_state(const an_image& image);

class a_loader;

// One at a time: it is the library's store. The image's process must not record into it.
class a_loaded_history {
public:
    explicit a_loaded_history(const an_image& image);
    ~a_loaded_history();
    a_loaded_history(a_loaded_history&&) = delete;

    bool is_there() const { return loaded; }
    const std::vector<std::string>& losses() const;  // what could not be read, a line each

    // The process lives: of its threads those remain which do, by the names that they have now, and ages count from
    // now, not from the newest record.
    void leave_living(const std::map<uint32, std::string>& living);

    // As the process itself would write it; the thread tables with `tables`.
    using a_sink = void (*)(void* to, const char* text, size_t length);
    void dump(a_sink sink, void* to, bool tables) const;

private:
    std::unique_ptr<a_loader> loader;  // which has the texts
    bool loaded = false;
};

#endif
