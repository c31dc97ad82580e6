// What the library file shows to the linker and the loader; programs built against the installed tree; the headers.
#include "tests/process/run.h"

namespace {

// What a shell script that succeeds writes in `dir`.
std::string shell(const std::string& script, const std::string& dir)
{
    const std::string flags = CORVEX_SANITIZE[0] != '\0' ? "FLAGS=-fsanitize=" CORVEX_SANITIZE : "FLAGS=";
    const a_run ran = run("/bin/sh", {flags}, {"-ec", script}, dir);
    EXPECT_TRUE(ran.exited_well()) << script << "\n" << ran.out << ran.err;
    return ran.out;
}

TEST(Library, ExportsTheDocumentedSymbolsAndCanBeBoundAtLoadAndUnloaded)
{
    const a_scratch_dir dir;
    shell("grep -oE '[A-Za-z_0-9]+;' " EXPORT_MAP " | tr -d ' ;' | sort >mapped\n"
          "nm -D --defined-only " LIBRARY_FILE " | cut -d' ' -f3 | sort | diff mapped -\n"
          "grep -hv '^#' " SOURCE_DIR "/include/corvex/*.h | tr '\\n' ' ' | grep -o 'CORVEX_API [^(;]*' |\\\n"
          " sed 's/.*[ *]//' | sort | diff mapped -\n"
          "readelf -dsW " LIBRARY_FILE " >file\n"
          "grep -qF 'Library soname: [libcorvex16_r.so.1]' file\n"
          "grep -q BIND_NOW file\n"
          "if grep -E 'NODELETE| UNIQUE ' file; then exit 1; fi",
          dir.path);
}

// Valid in C99 and C++11, and without a warning however strict the program is.
const char* const program = R"(#include <corvex/corvex.h>
static void use(a_ut_hist_id id, const char* text, double number)
{
    char array[] = "abc";
    UT_HIST_LOC(at);
    UT_HIST_LOC(other);
    UT_HIST_EV(id, "no parameter");
    UT_HIST_EV(UT_HIST_ID_TEXT("text"), text, 1L, number, text, array, &at, 6UL, 7L, &other);
    UT_HIST_DATA(UT_HIST_ID_Q2, "data", array, 4L);
    UT_HIST_BEG(&at, UT_HIST_ID_SIGHANDLER, "begin", 1L);
    UT_HIST_END(&at, UT_HIST_ID_TEXT(array), "end");
    at = UT_HIST_LOC_NONE;
#ifdef __cplusplus
    UT_HIST_SCOPE(UT_HIST_ID_TEXT(text), "scope");
#endif
}
int main(void)
{
    use(UT_HIST_ID_NONE, "text", 1.0);
    ut_MsgPrintf("%d runs", CORVEX_VERSION);
    return 0;
}
)";

TEST(Installation, ServesPkgConfigAndFindPackage)
{
    const a_scratch_dir dir;
    std::ofstream(dir.path + "/p.c") << program;
    std::ofstream(dir.path + "/CMakeLists.txt") << "cmake_minimum_required(VERSION 3.25)\n"
                                                   "project(p LANGUAGES CXX)\n"
                                                   "find_package(corvex16_r 16 REQUIRED)\n"
                                                   "add_executable(p p.cpp)\n"
                                                   "target_link_libraries(p corvex16_r::corvex16_r)\n";
    shell("cp p.c p.cpp; cmake --install " BUILD_DIR " --prefix $PWD/tree", dir.path);
    EXPECT_EQ("160000 runs", shell("export PKG_CONFIG_PATH=$(dirname $(find tree -name corvex16_r.pc))\n" C_COMPILER
                                   " $FLAGS p.c $(pkg-config --cflags --libs corvex16_r) -o p\n"
                                   "LD_LIBRARY_PATH=$PKG_CONFIG_PATH/.. ./p",
                                   dir.path));
    EXPECT_EQ("160000 runs", shell("cmake -S . -B b -DCMAKE_PREFIX_PATH=$PWD/tree -DCMAKE_CXX_COMPILER=" CXX_COMPILER
                                   " -DCMAKE_CXX_FLAGS=$FLAGS >log; cmake --build b >>log; b/p",
                                   dir.path));
}

TEST(Subproject, BringsTheLibraryAloneAndIsBuiltAnewOnlyWhenItChanged)
{
    const a_scratch_dir dir;
    std::ofstream(dir.path + "/p.cpp") << program << "int thrown() { try { throw 1; } catch (int i) { return i; } }\n"
                                       << "static_assert(__cplusplus == 201103L, \"the standard of the program\");\n";
    std::ofstream(dir.path + "/CMakeLists.txt")
        << "cmake_minimum_required(VERSION 3.25)\n"
           "project(p LANGUAGES CXX)\n"
           "set(CMAKE_CXX_STANDARD 11)\n"
           "set(BUILD_SHARED_LIBS OFF)\n"
           "enable_testing()\n"
           "add_subdirectory(library)\n"
           "get_property(targets DIRECTORY library PROPERTY BUILDSYSTEM_TARGETS)\n"
           "get_property(below DIRECTORY library PROPERTY SUBDIRECTORIES)\n"
           "file(WRITE ${PROJECT_BINARY_DIR}/brought \"${targets} ${below}|${CMAKE_BUILD_TYPE}|\")\n"
           "add_executable(p p.cpp)\n"
           "target_link_libraries(p corvex16_r::corvex16_r)\n";
    shell("mkdir library; for part in CMakeLists.txt cmake include tasks utils; do\n"
          "    cp -r " SOURCE_DIR "/$part library\n"
          "done\n"
          "cmake -G Ninja -S . -B b -DCMAKE_CXX_COMPILER=" CXX_COMPILER " -DCMAKE_CXX_FLAGS='-O0 -Werror' >log",
          dir.path);
    EXPECT_EQ("corvex_warnings;corvex_objects;corvex_version_record;corvex16_r ||", shell("cat b/brought", dir.path));
    EXPECT_EQ("160000 runs", shell("cmake --build b -- -j2 >log; b/p", dir.path));
    EXPECT_EQ("ninja: no work to do.\n", shell("cmake --build b | tail -n 1", dir.path));
    shell("touch library/utils/utmem/utmem.cpp; cmake --build b >log\n"
          "[ b/library/generated/version_record.inc -nt library/utils/utmem/utmem.cpp ]\n"
          "if cmake -S library -B s -DBUILD_SHARED_LIBS=OFF >log 2>&1; then exit 1; fi\n"
          "grep -q 'shared library only' log",
          dir.path);
}

TEST(Headers, CompileWithoutAWarningAloneAndInStrictPrograms)
{
    const a_scratch_dir dir;
    std::ofstream(dir.path + "/p.c") << program;
    shell("flags='-Wall -Wextra -Wpedantic -Wconversion -Werror -fsyntax-only -I" SOURCE_DIR "/include'\n"
          "cxxflags=\"$flags -Wold-style-cast -Wzero-as-null-pointer-constant -x c++\"\n"
          "for cxx in g++ clang++-14; do\n"
          "    for header in " SOURCE_DIR "/include/corvex/*.h; do\n"
          "        $cxx -std=c++11 -include $header $cxxflags /dev/null\n"
          "    done\n"
          "    for std in c++11 c++17 c++20; do $cxx -std=$std $cxxflags p.c; done\n"
          "done\n"
          "for c in gcc clang-14; do\n"
          "    for header in " SOURCE_DIR "/include/corvex/*.h; do\n"
          "        if [ ${header##*/} = vmutex.h ]; then continue; fi  # an abstract class\n"
          "        $c -std=c99 -include $header $flags -x c /dev/null\n"
          "    done\n"
          "    for std in c99 c11; do $c -std=$std $flags p.c; done\n"
          "done",
          dir.path);
}

}  // namespace
