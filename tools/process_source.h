// process_source.h: what the system tells of a process whose history is read.
#ifndef TOOLS_PROCESS_SOURCE_H
#define TOOLS_PROCESS_SOURCE_H

#include <map>
#include <string>
#include <vector>

#include "corvex/hist_image.h"

struct a_mapping {
    uint64 begin, end, offset;
    std::string access;  // as "rw-p"
    std::string path;    // empty for none
};
bool is_library(const a_mapping& m);          // the first of its mappings
std::vector<a_mapping> mappings_of(int pid);  // none when the process has gone or may not be looked at
int memory_id(int pid);                       // under which its memory is found: a main thread may have left it

// The names of a process's threads by their ids as the process itself sees them.
std::map<uint32, std::string> threads_of(int pid);

enum a_life { ALIVE, GONE, ELSEWHERE };  // elsewhere: in another pid namespace, or out of sight; it may live
a_life life_of(const a_ut_hist_image& header);

#endif
