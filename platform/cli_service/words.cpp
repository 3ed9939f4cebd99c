#include "words.h"

#include <algorithm>

namespace cli
{
namespace
{

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::vector<Word> split_words(std::string_view line)
{
    constexpr std::string_view blanks = " \t";
    std::vector<Word> words;
    std::size_t begin = line.find_first_not_of(blanks);
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back({line.substr(begin, end - begin), begin});
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}

std::optional<std::size_t> find_control_character(std::string_view line)
{
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f)
            return i;
    }
    return std::nullopt;
}

bool is_prefix(std::string_view abbreviation, std::string_view word)
{
    return abbreviation.size() <= word.size() &&
           std::equal(abbreviation.begin(), abbreviation.end(), word.begin(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

bool same_word(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && is_prefix(a, b);
}

std::size_t display_column(std::string_view line, std::size_t column)
{
    const std::string_view before = line.substr(0, column);
    return static_cast<std::size_t>(std::count_if(
        before.begin(), before.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

} // namespace cli
