/* unicode_files.cpp: reading one line of a Unicode table. Pure functions: they touch nothing but their
 * argument. */
#include "unicode_files.h"

#include <charconv>

namespace {

/* Cuts the text up to the separator off the front of rest; takes all of it when there is none. */
std::string_view cut(std::string_view& rest, std::string_view separator)
{
    size_t end = rest.find(separator);
    std::string_view field = rest.substr(0, end);
    rest.remove_prefix(end == rest.npos ? rest.size() : end + separator.size());
    return field;
}

std::string_view trimmed(std::string_view text)
{
    size_t first = text.find_first_not_of(" \t\r");
    if (first == text.npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::optional<long> hex_number(std::string_view digits)
{
    long value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

}  // namespace

/* 0041;LATIN CAPITAL LETTER A;Lu;... */
std::optional<a_character> read_character(std::string_view line)
{
    std::optional<long> code = hex_number(cut(line, ";"));
    if (!code)
        return std::nullopt;
    std::string_view name = cut(line, ";");
    return a_character{*code, name, cut(line, ";")};
}

/* 0041..005A ; Latin # a comment */
std::optional<a_range> read_range(std::string_view line)
{
    std::string_view value = cut(line, "#");
    std::string_view codes = trimmed(cut(value, ";"));
    std::optional<long> first = hex_number(cut(codes, ".."));
    std::optional<long> last = codes.empty() ? first : hex_number(codes);
    if (!first || !last)
        return std::nullopt;
    return a_range{*first, *last, trimmed(value)};
}
