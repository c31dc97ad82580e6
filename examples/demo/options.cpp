/* options.cpp: parses the command line with getopt_long; one row of the table per option. */
#include "options.h"

#include <cstdio>
#include <cstdlib>
#include <getopt.h>

namespace {

constexpr option long_options[] = {
    {"dir", required_argument, nullptr, 'd'},     {"data", required_argument, nullptr, 'f'},
    {"workers", required_argument, nullptr, 'w'}, {"seconds", required_argument, nullptr, 's'},
    {"lines", required_argument, nullptr, 'n'},   {"load-only", optional_argument, nullptr, 'l'},
    {"dump-midway", no_argument, nullptr, 'm'},   {"no-trace", no_argument, nullptr, 't'},
    {"hang", required_argument, nullptr, 'g'},    {"crash-after", required_argument, nullptr, 'c'},
    {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
};

constexpr char usage[] = "usage: demo_server [options]\n"
                         "  --dir DIR      where to make the database (default .)\n"
                         "  --data DIR     where the Unicode files are (default /usr/share/unicode)\n"
                         "  --workers N    worker threads (default 4)\n"
                         "  --seconds S    how long to serve requests after the load (default 3)\n"
                         "  --lines N      load at most N lines of each file (default all)\n"
                         "  --load-only[=N]  only load, N times (default 1), and print the shortest time in seconds\n"
                         "  --dump-midway  send SIGUSR1 to itself once while it serves\n"
                         "  --hang S       one statement takes S seconds, from the first second of serving on\n"
                         "  --crash-after S  after S seconds of serving a statement follows a null pointer\n"
                         "  --no-trace     do not install the trace hook\n"
                         "Set UT_HIST to switch the event history on.\n";

}  // namespace

std::optional<a_options> read_options(int argc, char** argv)
{
    a_options options;
    for (;;) {
        switch (getopt_long(argc, argv, "", long_options, nullptr)) {
        case -1:
            if (optind == argc && options.workers >= 1)
                return options;
            [[fallthrough]];
        default:
            std::fputs(usage, stderr);
            return std::nullopt;
        case 'h':
            std::fputs(usage, stdout);
            std::exit(0);
        case 'd':
            options.directory = optarg;
            break;
        case 'f':
            options.data = optarg;
            break;
        case 'w':
            options.workers = std::strtol(optarg, nullptr, 10);
            break;
        case 's':
            options.seconds = std::strtod(optarg, nullptr);
            break;
        case 'n':
            options.lines = std::strtol(optarg, nullptr, 10);
            break;
        case 'l':
            options.loads = optarg ? std::strtol(optarg, nullptr, 10) : 1;
            break;
        case 'm':
            options.dump_midway = true;
            break;
        case 'g':
            options.hang = std::strtod(optarg, nullptr);
            break;
        case 'c':
            options.crash_after = std::strtod(optarg, nullptr);
            break;
        case 't':
            options.traced = false;
            break;
        }
    }
}
