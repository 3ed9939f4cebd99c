#include "show_lines.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>

namespace shell
{
namespace
{

bool is_control(char c)
{
    return (c >= '\0' && c < ' ') || c == '\x7f';
}

} // namespace

std::string_view ShowLines::take()
{
    ++line_;
    const std::size_t newline = rest_.find('\n');
    const std::string_view line = rest_.substr(0, newline);
    if (newline == std::string_view::npos || std::any_of(line.begin(), line.end(), is_control))
        refuse();
    rest_.remove_prefix(newline + 1);
    return line;
}

void ShowLines::expect(std::string_view text)
{
    if (take() != text)
        refuse();
}

std::string_view ShowLines::behind(std::string_view label)
{
    std::string_view line = take();
    if (!line.starts_with(label))
        refuse();
    line.remove_prefix(label.size());
    return line;
}

void LinePart::literal(std::string_view text)
{
    if (!optional(text))
        lines_.refuse();
}

bool LinePart::optional(std::string_view text)
{
    if (!rest_.starts_with(text))
        return false;
    rest_.remove_prefix(text.size());
    return true;
}

std::uint64_t LinePart::number(std::uint64_t most)
{
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    const std::string_view digits = rest_.substr(0, static_cast<std::size_t>(end - rest_.data()));
    if (error != std::errc{} || value > most || (digits.size() > 1 && digits.front() == '0'))
        lines_.refuse();
    rest_.remove_prefix(digits.size());
    return value;
}

std::string LinePart::word(std::string_view suffix)
{
    const std::string_view token = rest_.substr(0, rest_.find(' '));
    if (token.size() <= suffix.size() || !token.ends_with(suffix))
        lines_.refuse();
    rest_.remove_prefix(token.size());
    return std::string(token.substr(0, token.size() - suffix.size()));
}

void LinePart::end()
{
    if (!rest_.empty())
        lines_.refuse();
}

void check_address(const ShowLines &lines, const std::string &text)
{
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    std::array<char, INET6_ADDRSTRLEN> printed{};
    for (const int family : {AF_INET, AF_INET6})
        if (inet_pton(family, text.c_str(), bytes.data()) == 1 &&
            inet_ntop(family, bytes.data(), printed.data(), printed.size()) != nullptr &&
            text == printed.data())
            return;
    lines.refuse();
}

std::vector<std::string> cells(ShowLines &lines, std::span<const std::size_t> widths)
{
    const std::string_view line = lines.take();
    std::vector<std::string> row;
    std::string again;
    std::size_t begin = 0;
    for (const std::size_t width : widths) {
        // A cell that is wider than its column pushes the others to the right.
        const std::size_t blank = line.find(' ', begin);
        const std::size_t end = std::min(blank, line.size());
        row.emplace_back(line.substr(std::min(begin, line.size()), end - std::min(begin, end)));
        again.append(row.back());
        if (row.back().size() < width)
            again.append(width - row.back().size(), ' ');
        begin = again.size();
    }
    if (again != line)
        lines.refuse();
    return row;
}

} // namespace shell
