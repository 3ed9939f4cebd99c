// A command line as words with their places. Any thread; no state.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace cli
{

/// Longest command line, in bytes. Longer than any line of the running configuration, which must be readable again.
constexpr std::size_t LINE_LIMIT = 1500;

struct Word {
    std::string_view text;
    std::size_t column; ///< of its first byte, in bytes from the start of the line
};

/// Words separated by blanks and tabs. The views point into `line`.
[[nodiscard]] std::vector<Word> split_words(std::string_view line);

/// Column of the first control character other than a tab.
[[nodiscard]] std::optional<std::size_t> find_control_character(std::string_view line);

/// ASCII case is ignored.
[[nodiscard]] bool same_word(std::string_view a, std::string_view b);
[[nodiscard]] bool is_prefix(std::string_view abbreviation, std::string_view word);

/// Characters that the first `column` bytes of the UTF-8 text `line` take on a terminal; a tab counts as one.
[[nodiscard]] std::size_t display_column(std::string_view line, std::size_t column);

} // namespace cli
