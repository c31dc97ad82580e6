// report.h: what corvex-hist says of histories without dumping them.
#ifndef TOOLS_REPORT_H
#define TOOLS_REPORT_H

#include <string>
#include <vector>

#include "tools/loader.h"

// "alive", or how it ended.
std::string end_of(const an_image& image, const a_state& state);

void put_info(const an_image& image, const a_state& state);  // to standard output, a line "name: value" each

// A table of the histories of living processes and of the files in the folders; false when there is none.
bool put_list(const std::vector<std::string>& folders);

#endif
