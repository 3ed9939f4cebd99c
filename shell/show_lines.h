// A show command's output, line by line, for readers that know what stands there. Whatever they find different is
// refused: NotUnderstood is thrown with the number of the line.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace shell
{

struct NotUnderstood {
    int line; ///< from 1; the one behind the last when the text ends too early
};

class ShowLines
{
public:
    explicit ShowLines(std::string_view text) : rest_(text) {}

    [[nodiscard]] bool more() const { return !rest_.empty(); }
    /// The next line without its newline; empty at the end.
    [[nodiscard]] std::string_view peek() const { return rest_.substr(0, rest_.find('\n')); }
    /// Goes on to the line behind it. Refuses the end, a line without a newline and control characters.
    std::string_view take();
    /// Takes a line that must be `text`.
    void expect(std::string_view text);
    /// Takes a line that must begin with `label`; the rest of it.
    std::string_view behind(std::string_view label);
    [[noreturn]] void refuse() const { throw NotUnderstood{line_}; }

private:
    std::string_view rest_;
    int line_ = 0; ///< the last one taken
};

/// A part of a line. Each member takes what it names from the front, or refuses the line.
class LinePart
{
public:
    LinePart(const ShowLines &lines, std::string_view text) : lines_(lines), rest_(text) {}

    void literal(std::string_view text);
    /// Whether `text` stood there.
    [[nodiscard]] bool optional(std::string_view text);
    /// Decimal, without sign or leading zeros.
    [[nodiscard]] std::uint64_t number(std::uint64_t most = UINT32_MAX);
    /// What stands before the next blank or the end of the line. It ends with `suffix`, which does not belong to it, and
    /// has at least one character before that.
    [[nodiscard]] std::string word(std::string_view suffix = {});
    [[nodiscard]] bool at_end() const { return rest_.empty(); }
    void end();

private:
    const ShowLines &lines_;
    std::string_view rest_;
};

/// Refuses what is neither an IPv4 nor an IPv6 address as the system prints it.
void check_address(const ShowLines &lines, const std::string &text);

/// The cells of a row printed with these column widths, each left-aligned and padded with blanks, the last one too. A
/// row that printing its cells anew would not give is refused.
[[nodiscard]] std::vector<std::string> cells(ShowLines &lines, std::span<const std::size_t> widths);

} // namespace shell
