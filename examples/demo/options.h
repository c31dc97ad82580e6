/* options: the command line of demo_server. */
#ifndef DEMO_OPTIONS_H
#define DEMO_OPTIONS_H

#include <optional>
#include <string>

struct a_options {
    std::string directory = ".";              // where the database is made
    std::string data = "/usr/share/unicode";  // where the files to load are
    long workers = 4;
    double seconds = 3;        // length of the serving phase
    long lines = 0;            // lines to load from each file, 0 = all
    long loads = 0;            // only load, so many times, and print the shortest time
    double hang = 0;           // a statement that takes so many seconds, at the start of the serving phase
    double crash_after = 0;    // seconds into the serving phase: a statement that follows a null pointer
    bool dump_midway = false;  // send SIGUSR1 to ourselves halfway through the serving phase
    bool traced = true;
};

/* Reads the command line; nothing, after a message on standard error, when it cannot be understood. */
std::optional<a_options> read_options(int argc, char** argv);

#endif
