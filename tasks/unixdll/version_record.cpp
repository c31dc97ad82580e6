// version_record.cpp: the version record: a marker by which tools find it in the library file, eighteen entries
// KEY=value each ended by a zero byte, an empty entry, and eight closing bytes (layout version 1, then zeros) with a
// last zero byte. The build makes the values (cmake/version_record.cmake). Read-only after load,
// but for tools that patch the file.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "corvex/types.h"
#include "tasks/unixdll/unixdll.h"
#include "utils/etc/utenv.h"
#include "utils/unix/unixout.h"
#include "version_record.inc"

static_assert(VERSION_RECORD_NUMBER == CORVEX_VERSION, "the build and types.h name the same version");

// Used: nothing refers to the marker, tools look for it. The literal's own zero byte is the last.
__attribute__((used)) char __DBVersionInfo_corvex16_r[] = "@@==Version==@1@"
                                                          "MODULE=libcorvex16_r.so.1\0"
                                                          "VERSION_CLASS=xx\0"
                                                          "VERSION_MAJOR=" VERSION_RECORD_MAJOR "\0"
                                                          "VERSION_MINOR=" VERSION_RECORD_MINOR "\0"
                                                          "VERSION_PATCH=" VERSION_RECORD_PATCH "\0"
                                                          "BUILD_NUMBER=" VERSION_RECORD_BUILD "\0"
                                                          "POINTERSIZE=64\0"
                                                          "PLATFORM=linux\0"
                                                          "DATE=" VERSION_RECORD_DATE "\0"
                                                          "TIME=" VERSION_RECORD_TIME "\0"
                                                          "HOST=" VERSION_RECORD_HOST "\0"
                                                          "THREADS=posix\0"
                                                          "PRODUCTION=production\0"
                                                          "COMPILER=gnu\0"
                                                          "UNAME=" VERSION_RECORD_UNAME "\0"
                                                          "IDENT=" VERSION_RECORD_IDENT "\0"
                                                          "COPYRIGHT=" VERSION_RECORD_COPYRIGHT "\0"
                                                          "EXTENSIONS=A8\0"
                                                          "\0"
                                                          "\1\0\0\0\0\0\0\0";

dbversion_info::dbversion_info()
{
    if (ut_getenv2("VORNE_VERSION_INFO") == nullptr)
        return;
    constexpr int entries_before_uname = 14;  // the marker with MODULE counts as the first
    const char* entry = __DBVersionInfo_corvex16_r;
    for (int i = 0; i < entries_before_uname; i++)
        entry += strlen(entry) + 1;
    fflush(stdout);  // what the program printed before the library was loaded
    an_output out;
    out.open(STDOUT_FILENO);
    out.write(entry, strlen(entry));
    out.write("\n", 1);
    out.close();
}
