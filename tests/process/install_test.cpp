// What the library file shows to the linker and the loader; programs built against the installed tree; the headers; the
// check of what signal handlers call.
#include "tests/process/run.h"

namespace {

// What a script that succeeds writes.
std::string shell(const std::string& script)
{
    const std::string flags = CORVEX_SANITIZE[0] != '\0' ? "FLAGS=-fsanitize=" CORVEX_SANITIZE : "FLAGS=";
    const a_run ran =
        run("/bin/sh", {flags, "UT_HIST=xf-", "UT_HIST_THREAD_SLOT=dense", "SOURCE=" SOURCE_DIR}, {"-ec", script});
    EXPECT_TRUE(ran.exited_well()) << script << "\n" << ran.out << ran.err;
    return ran.out;
}

TEST(Library, ExportsTheDocumentedSymbolsAndCanBeBoundAtLoadAndUnloaded)
{
    shell("grep -oE '[A-Za-z_0-9]+;' " EXPORT_MAP " | tr -d ' ;' | sort >mapped\n"
          "nm -D --defined-only " LIBRARY_FILE " | cut -d' ' -f3 | sort | diff mapped -\n"
          "grep -hv '^#' $SOURCE/include/corvex/*.h | tr '\\n' ' ' | grep -o 'CORVEX_API [^(;]*' |\\\n"
          " sed 's/.*[ *]//' | sort | diff mapped -\n"
          "readelf -dsW " LIBRARY_FILE " >file\n"
          "grep -qF 'Library soname: [libcorvex16_r.so.1]' file; grep -q BIND_NOW file\n"
          "if grep -E 'NODELETE| UNIQUE ' file; then exit 1; fi");
}

// Makes a project of the example in C++11; where there is a directory `library`, this is a part of it.
const std::string make_project = R"(
cat >p.cpp <<END
#include "$SOURCE/examples/minimal.c"
static_assert(__cplusplus == 201103L, "the program's own standard");
int thrown() { try { throw 1; } catch (int i) { return i; } }
void scoped() { UT_HIST_SCOPE(UT_HIST_ID_TEXT("text"), "scope"); }
END
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(p LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 11)
set(BUILD_SHARED_LIBS OFF)
if(EXISTS ${PROJECT_SOURCE_DIR}/library)
    add_subdirectory(library)
else()
    find_package(corvex16_r 16 REQUIRED)
endif()
add_executable(p p.cpp)
target_link_libraries(p corvex16_r::corvex16_r)
END
)";

TEST(Installation, ServesPkgConfigAndFindPackage)
{
    EXPECT_EQ("3\n3\n", shell(make_project +
                              "cmake --install " BUILD_DIR " --prefix $PWD/tree >log\n"
                              "export PKG_CONFIG_PATH=$(dirname $(find tree -name corvex16_r.pc))\n" C_COMPILER
                              " $FLAGS $SOURCE/examples/minimal.c $(pkg-config --cflags --libs corvex16_r) -o p\n"
                              "LD_LIBRARY_PATH=$PKG_CONFIG_PATH/.. ./p | grep -c 'round done'\n"
                              "cmake -S . -B b -DCMAKE_PREFIX_PATH=$PWD/tree -DCMAKE_CXX_COMPILER=" CXX_COMPILER
                              " -DCMAKE_CXX_FLAGS=$FLAGS >log; cmake --build b >>log; b/p | grep -c 'round done'"));
}

// The parts that are copied are all that it may build.
TEST(Subproject, BringsTheLibraryAloneAndIsBuiltAnewOnlyWhenItChanged)
{
    EXPECT_EQ("3\nninja: no work to do.\n",
              shell(make_project +
                    "mkdir library; for part in CMakeLists.txt cmake include tasks utils; do\n"
                    "    cp -r $SOURCE/$part library\n"
                    "done\n"
                    "cmake -G Ninja -S . -B b -DCMAKE_CXX_COMPILER=" CXX_COMPILER
                    " -DCMAKE_CXX_FLAGS='-O0 -Werror' >log\n"
                    "cmake --build b -- -j2 >log; b/p | grep -c 'round done'; cmake --build b | tail -n 1\n"
                    "touch library/utils/utmem/utmem.cpp; cmake --build b >log\n"
                    "[ b/library/generated/version_record.inc -nt library/utils/utmem/utmem.cpp ]\n"
                    "if cmake -S library -B s -DBUILD_SHARED_LIBS=OFF >log 2>&1; then exit 1; fi\n"
                    "grep -q 'shared library only' log"));
}

TEST(Headers, CompileWithoutAWarningAloneInStrictProgramsAndAsTheGuideShows)
{
    shell("awk '/^```$/ { file = \"\" } file { print >file } /^```(c|cpp)$/ {\n"
          "    file = \"guide-\" NR \".\" substr($0, 4); print \"#line \" NR + 1 \" \\\"guide.md\\\"\" >file }' \\\n"
          "    $SOURCE/docs/guide.md\n"
          "for file in $SOURCE/include/corvex/*.h; do echo \"#include \\\"$file\\\"\" >${file##*/}.cpp; done\n"
          "for file in *.h.cpp; do [ $file = vmutex.h.cpp ] || cp $file ${file%pp}; done  # an abstract class\n"
          "flags=\"-Wall -Wextra -Wshadow -Wpedantic -Werror -fsyntax-only -I $SOURCE/include\"\n"
          "strict=\"$flags -Wconversion -Wold-style-cast -Wzero-as-null-pointer-constant -x c++ -std=c++11\"\n"
          "for cc in gcc clang-14; do\n"
          "    $cc -std=c99 $flags -Wconversion *.h.c $SOURCE/examples/minimal.c\n"
          "    $cc -std=c11 $flags guide-*.c\n"
          "    $cc $strict *.h.cpp $SOURCE/examples/minimal.c\n"
          "    $cc -std=c++20 $flags guide-*.cpp\n"
          "done");
}

TEST(SignalSafety, CheckNamesWhatIsPlantedInACopy)
{
    shell("cp -r $SOURCE/tasks $SOURCE/utils $SOURCE/include .\n"
          "plant() {  # FILE FUNCTION TEXT\n"
          "    sed -i \"/^void $2(/,/{/ s/{/{ $3/; 0,/^#include/ s//#include <stdlib.h>\\n"
          "static void deep() { free(malloc(10)); }\\nstatic void planted() { deep(); }\\n&/\" utils/$1\n"
          "}\n"
          "plant unix/sysvregistry.cpp sysv_sig_handler 'free(nullptr);'\n"
          "plant unix/unixfork.cpp atfork_child 'malloc(10);'\n"
          "plant etc/uthist/hist_log.cpp ut_hist_signal_handler 'planted();'\n"
          "if $SOURCE/scripts/check_signal_safety . >said; then exit 1; fi\n"
          "for said in 'sysv_sig_handler -> free' 'atfork_child -> malloc' \\\n"
          "    'ut_hist_signal_handler -> planted -> deep -> free'; do\n"
          "    grep \"^utils/.*:[0-9]*: .*$said: not async-signal-safe\" said\n"
          "done");
}

}  // namespace
