#include "interpreter.h"

#include <algorithm>

namespace cli
{
namespace
{

struct_command_data_block start_record(Mode mode, const Place &place, bool negated)
{
    struct_command_data_block record{};
    record.mode_name = mode_name(mode);
    record.mode_intidx = mode == place.mode ? place.intidx : 0;
    record.flag_nd_prefix = negated ? 1 : 0;
    return record;
}

Outcome::Kind kind_of(Match::Result result)
{
    switch (result) {
    case Match::Result::run:
        return Outcome::Kind::run;
    case Match::Result::ambiguous:
        return Outcome::Kind::ambiguous;
    case Match::Result::incomplete:
        return Outcome::Kind::incomplete;
    case Match::Result::invalid:
        break;
    }
    return Outcome::Kind::invalid;
}

/// How much of the line an outcome has understood.
std::size_t reach(const Outcome &outcome)
{
    return outcome.kind == Outcome::Kind::incomplete ? LINE_LIMIT + 1 : outcome.column;
}

/// Only what `show` prints can be modified.
bool takes_modifier(std::span<const Word> words)
{
    return !words.empty() && is_prefix(words[0].text, "show");
}

} // namespace

/// A line taken apart.
struct Interpreter::Request {
    std::vector<Word> words; ///< of the command, without `do`, `no` and the modifier
    bool exec = false;       ///< exec command: typed in exec mode, or after `do`
    bool done_do = false;
    bool negated = false;
    std::size_t end = 0;            ///< column behind the last word taken off
    std::optional<std::size_t> bar; ///< column of the modifier's bar
};

Interpreter::Request Interpreter::read(std::string_view line, const Place &place) const
{
    Request request;
    request.words = split_words(line);
    request.exec = place.mode == Mode::exec;
    const auto take = [&](std::string_view word) {
        if (request.words.empty() || !same_word(request.words.front().text, word))
            return false;
        request.end = request.words.front().column + request.words.front().text.size();
        request.words.erase(request.words.begin());
        return true;
    };
    if (!request.exec && take("do"))
        request.exec = request.done_do = true;
    request.negated = take("no");
    if (request.exec) {
        const auto bar = std::find_if(request.words.begin(), request.words.end(),
                                      [](const Word &w) { return w.text.front() == '|'; });
        if (bar != request.words.end() && takes_modifier(request.words)) {
            request.bar = bar->column;
            request.words.erase(bar, request.words.end());
        }
    }
    return request;
}

Outcome Interpreter::in_mode(const Request &request, Mode mode, const Place &place, Guards guards) const
{
    Matcher matcher(grammar_, interfaces_, place.level, guards);
    const Match match =
        matcher.match(mode_root(mode), start_record(mode, place, request.negated), request.words);
    Outcome outcome;
    outcome.kind = kind_of(match.result);
    outcome.mode = mode;
    outcome.handler = match.handler;
    outcome.record = match.record;
    if (match.word < request.words.size())
        outcome.column = request.words[match.word].column;
    return outcome;
}

Outcome Interpreter::interpret(std::string_view line, const Place &place) const
{
    Outcome outcome;
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string_view::npos || line[first] == '!')
        return outcome;
    if (const auto control = find_control_character(line)) {
        outcome.kind = Outcome::Kind::invalid;
        outcome.column = *control;
        return outcome;
    }
    const Request request = read(line, place);
    if (request.words.empty()) {
        outcome.kind = Outcome::Kind::incomplete;
        return outcome;
    }
    outcome = in_mode(request, request.exec ? Mode::exec : place.mode, place);
    // A word that is ambiguous here must not mean something unique, and leave the mode, elsewhere.
    const bool settled = outcome.kind == Outcome::Kind::run || outcome.kind == Outcome::Kind::ambiguous;
    if (!settled && !request.exec && is_submode(place.mode)) {
        const Outcome global = in_mode(request, Mode::config, place);
        if (global.kind == Outcome::Kind::run || reach(global) > reach(outcome))
            outcome = global;
        outcome.withheld = outcome.kind == Outcome::Kind::invalid &&
                           in_mode(request, place.mode, place, Guards::passed).kind == Outcome::Kind::run;
    }
    if (outcome.kind == Outcome::Kind::run && request.bar) {
        const std::string_view text = line.substr(*request.bar + 1);
        ModifierParse parsed = parse_modifier(text);
        outcome.modifier = std::move(parsed.modifier);
        if (!outcome.modifier) {
            outcome.kind = kind_of(parsed.error);
            outcome.column = *request.bar + 1 + parsed.column;
        }
    }
    return outcome;
}

// The choices at the end of `text`, unsorted; `partial` becomes the word under way.
std::vector<Choice> Interpreter::choices_at(std::string_view text, const Place &place,
                                            std::string_view &partial) const
{
    partial = {};
    const std::size_t first = text.find_first_not_of(" \t");
    if (find_control_character(text) || (first != std::string_view::npos && text[first] == '!'))
        return {};
    const std::size_t blank = text.find_last_of(" \t");
    partial = text.substr(blank == std::string_view::npos ? 0 : blank + 1);
    Request request = read(text.substr(0, text.size() - partial.size()), place);

    if (request.bar) {
        // `| inc`: the keyword is still to come, or is the word under way.
        const std::string_view after =
            text.substr(*request.bar + 1, text.size() - partial.size() - *request.bar - 1);
        if (split_words(after).empty())
            return modifier_choices(partial);
        return {{"LINE", "Text to look for", false}};
    }
    if (!partial.empty() && partial.front() == '|' && request.exec && takes_modifier(request.words)) {
        partial.remove_prefix(1);
        return modifier_choices(partial);
    }

    const Mode mode = request.exec ? Mode::exec : place.mode;
    Matcher matcher(grammar_, interfaces_, place.level);
    std::vector<Choice> list =
        matcher.choices(mode_root(mode), start_record(mode, place, request.negated), request.words, partial);
    if (list.empty() && !request.words.empty() && is_submode(mode))
        list = matcher.choices(mode_root(Mode::config), start_record(Mode::config, place, request.negated),
                               request.words, partial);
    if (request.words.empty() && !request.negated) {
        if (is_prefix(partial, "no") && place.level == Level::privileged)
            list.push_back({"no", "Negate a command or restore its default", true});
        if (is_prefix(partial, "do") && !request.exec)
            list.push_back({"do", "Run an exec command", true});
    }
    const bool can_end =
        std::any_of(list.begin(), list.end(), [](const Choice &c) { return c.text == "<cr>"; });
    if (can_end && request.exec && takes_modifier(request.words))
        list.push_back({"|", "Output modifiers", false});
    return list;
}

std::vector<Choice> Interpreter::help(std::string_view text, const Place &place) const
{
    std::string_view partial;
    std::vector<Choice> list = choices_at(text, place, partial);
    const auto rank = [](const Choice &c) {
        return c.literal ? 0 : c.text == "<cr>" ? 3 : c.text == "|" ? 2 : 1;
    };
    std::stable_sort(list.begin(), list.end(), [&](const Choice &a, const Choice &b) {
        return rank(a) != rank(b) ? rank(a) < rank(b) : rank(a) == 0 && a.text < b.text;
    });
    return list;
}

std::vector<std::string> Interpreter::complete(std::string_view text, const Place &place) const
{
    std::string_view partial;
    std::vector<std::string> words;
    for (Choice &choice : choices_at(text, place, partial))
        if (choice.literal)
            words.push_back(std::move(choice.text));
    std::sort(words.begin(), words.end());
    return words;
}

std::string format_help(const std::vector<Choice> &choices)
{
    std::size_t width = 0;
    for (const Choice &choice : choices)
        width = std::max(width, choice.text.size());
    std::string text;
    for (const Choice &choice : choices) {
        text += "  " + choice.text;
        if (!choice.help.empty())
            text += std::string(width - choice.text.size() + 2, ' ') + choice.help;
        text += '\n';
    }
    return text;
}

std::string format_error(const Outcome &outcome, std::string_view line, std::optional<std::size_t> indent)
{
    const std::string marker = (indent ? "" : std::string(line) + "\n") +
                               std::string(indent.value_or(0) + display_column(line, outcome.column), ' ') +
                               "^\n";
    switch (outcome.kind) {
    case Outcome::Kind::invalid:
        return marker + "% Invalid input detected at '^' marker.\n";
    case Outcome::Kind::ambiguous:
        return marker + "% Ambiguous command\n";
    case Outcome::Kind::incomplete:
        return "% Incomplete command\n";
    case Outcome::Kind::empty:
    case Outcome::Kind::run:
        break;
    }
    return {};
}

} // namespace cli
