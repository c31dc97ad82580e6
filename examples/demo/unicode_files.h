/* unicode_files: the text files that are loaded, and how their lines are read.
 *
 * They are the tables of Unicode characters that Debian's package unicode-data installs. Two formats are
 * enough: one character per line (UnicodeData.txt), and a range of characters with a value per line (all
 * others). */
#ifndef DEMO_UNICODE_FILES_H
#define DEMO_UNICODE_FILES_H

#include <optional>
#include <string_view>

enum class a_format { characters, ranges };

struct a_source {
    const char* file;
    a_format format;
};

inline constexpr a_source sources[] = {
    {"UnicodeData.txt", a_format::characters}, {"Blocks.txt", a_format::ranges},
    {"Scripts.txt", a_format::ranges},         {"DerivedAge.txt", a_format::ranges},
    {"EastAsianWidth.txt", a_format::ranges},  {"LineBreak.txt", a_format::ranges},
    {"PropList.txt", a_format::ranges},        {"DerivedCoreProperties.txt", a_format::ranges},
};

struct a_character {
    long code;
    std::string_view name;
    std::string_view category;
};

struct a_range {
    long first;
    long last;
    std::string_view value;
};

/* Both return nothing for a comment, an empty line or a line of another shape. The texts point into line. */
std::optional<a_character> read_character(std::string_view line);
std::optional<a_range> read_range(std::string_view line);

#endif
