// Output modifiers: `| include TEXT`, `| exclude TEXT`, `| begin TEXT`.
#pragma once

#include "matcher.h"

#include <optional>
#include <string>
#include <string_view>

namespace cli
{

struct Modifier {
    enum class Kind { include, exclude, begin };
    Kind kind;
    std::string text; ///< looked for as it is, case matters
};

struct ModifierParse {
    std::optional<Modifier> modifier;
    Match::Result error = Match::Result::invalid; ///< without a modifier: invalid, ambiguous or incomplete
    std::size_t column = 0;                       ///< invalid, ambiguous: where, from the start of `text`
};

/// Reads what follows the bar of a command line.
[[nodiscard]] ModifierParse parse_modifier(std::string_view text);

/// What may be typed after the bar; `partial` is the word under way.
[[nodiscard]] std::vector<Choice> modifier_choices(std::string_view partial);

/// Passes on the lines that a modifier lets through. Text may come in pieces; a line is judged when it is complete.
class LineFilter
{
public:
    explicit LineFilter(Modifier modifier) : modifier_(std::move(modifier)) {}

    /// @return the part of the output that is due after `text`
    [[nodiscard]] std::string write(std::string_view text);
    /// The last line, when it did not end in a newline.
    [[nodiscard]] std::string finish();

private:
    [[nodiscard]] bool passes(std::string_view line);

    Modifier modifier_;
    std::string line_;
    bool begun_ = false;
};

} // namespace cli
