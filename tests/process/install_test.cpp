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
    shell("grep -o '^ *[A-Za-z_0-9]*;' " EXPORT_MAP " | tr -d ' ;' | sort >mapped\n"
          "nm -D --defined-only " LIBRARY_FILE " | cut -d' ' -f3 | sort | diff mapped -\n"
          "grep -hv '^#' " SOURCE_DIR "/include/corvex/*.h | tr '\\n' ' ' | grep -o 'CORVEX_API [^(;]*' |\\\n"
          " sed 's/.*[ *]//' | sort | diff mapped -\n"
          "readelf -dsW " LIBRARY_FILE " >file\n"
          "grep -qF 'Library soname: [libcorvex16_r.so.1]' file\n"
          "grep -q BIND_NOW file\n"
          "if grep -E 'NODELETE| UNIQUE ' file; then exit 1; fi",
          dir.path);
}

TEST(Installation, ServesPkgConfigAndFindPackage)
{
    const a_scratch_dir dir;
    std::ofstream(dir.path + "/p.c")
        << "#include <corvex/corvex.h>\n"
           "int main(void) { UT_HIST_EV(UT_HIST_ID_NONE, \"x\", 1L); ut_MsgPrint(\"it runs\"); }\n";
    std::ofstream(dir.path + "/CMakeLists.txt") << "cmake_minimum_required(VERSION 3.25)\n"
                                                   "project(p LANGUAGES CXX)\n"
                                                   "find_package(corvex16_r 16 REQUIRED)\n"
                                                   "add_executable(p p.cpp)\n"
                                                   "target_link_libraries(p corvex16_r::corvex16_r)\n";
    shell("cp p.c p.cpp; cmake --install " BUILD_DIR " --prefix $PWD/tree", dir.path);
    EXPECT_EQ("it runs", shell("export PKG_CONFIG_PATH=$(dirname $(find tree -name corvex16_r.pc))\n" C_COMPILER
                               " $FLAGS p.c $(pkg-config --cflags --libs corvex16_r) -o p\n"
                               "LD_LIBRARY_PATH=$PKG_CONFIG_PATH/.. ./p",
                               dir.path));
    EXPECT_EQ("it runs", shell("cmake -S . -B b -DCMAKE_PREFIX_PATH=$PWD/tree -DCMAKE_CXX_COMPILER=" CXX_COMPILER
                               " -DCMAKE_CXX_FLAGS=$FLAGS >log; cmake --build b >>log; b/p",
                               dir.path));
}

TEST(Headers, EachCompilesAloneInCAndCxxWithoutAWarning)
{
    const a_scratch_dir dir;
    shell("for header in " SOURCE_DIR "/include/corvex/*.h; do\n"
          "    flags=\"-Wall -Wextra -pedantic -Werror -fsyntax-only -I" SOURCE_DIR "/include -include $header\"\n"
          "    for cxx in g++ clang++-14; do $cxx -std=c++20 $flags -x c++ /dev/null; done\n"
          "    if [ ${header##*/} = vmutex.h ]; then continue; fi  # an abstract class\n"
          "    for c in gcc clang-14; do $c -std=c11 $flags -x c /dev/null; done\n"
          "done",
          dir.path);
}

}  // namespace
