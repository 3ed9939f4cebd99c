#include "modifier.h"

#include <array>

namespace cli
{
namespace
{

struct Row {
    std::string_view keyword;
    Modifier::Kind kind;
    std::string_view help;
};
constexpr std::array<Row, 3> rows{{
    {"begin", Modifier::Kind::begin, "Begin with the line that contains the text"},
    {"exclude", Modifier::Kind::exclude, "Leave out lines that contain the text"},
    {"include", Modifier::Kind::include, "Show only lines that contain the text"},
}};

} // namespace

ModifierParse parse_modifier(std::string_view text)
{
    ModifierParse result;
    const std::vector<Word> words = split_words(text);
    if (words.empty()) {
        result.error = Match::Result::incomplete;
        return result;
    }
    result.column = words[0].column;
    for (const Row &row : rows) {
        if (!is_prefix(words[0].text, row.keyword))
            continue;
        if (words.size() == 1) {
            result.error = Match::Result::incomplete;
            return result;
        }
        std::string_view wanted = text.substr(words[1].column);
        wanted = wanted.substr(0, wanted.find_last_not_of(" \t") + 1);
        result.modifier = Modifier{row.kind, std::string(wanted)};
        return result;
    }
    return result;
}

std::vector<Choice> modifier_choices(std::string_view partial)
{
    std::vector<Choice> list;
    for (const Row &row : rows)
        if (is_prefix(partial, row.keyword))
            list.push_back({std::string(row.keyword), std::string(row.help), true});
    return list;
}

bool LineFilter::passes(std::string_view line)
{
    const bool found = line.find(modifier_.text) != std::string_view::npos;
    switch (modifier_.kind) {
    case Modifier::Kind::include:
        return found;
    case Modifier::Kind::exclude:
        return !found;
    case Modifier::Kind::begin:
        begun_ = begun_ || found;
        return begun_;
    }
    return false;
}

std::string LineFilter::write(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const std::size_t newline = text.find('\n');
        line_ += text.substr(0, newline);
        if (newline == std::string_view::npos)
            break;
        if (passes(line_))
            out.append(line_).push_back('\n');
        line_.clear();
        text.remove_prefix(newline + 1);
    }
    return out;
}

std::string LineFilter::finish()
{
    std::string last;
    if (!line_.empty() && passes(line_))
        last = line_;
    line_.clear();
    return last;
}

} // namespace cli
