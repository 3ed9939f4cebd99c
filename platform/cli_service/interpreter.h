// From a line as typed to the handler to run: comments, `do`, `no`, modes and output modifiers around the matcher.
//
// Configuration commands are understood in the modes below configuration mode too, so that a saved configuration, in
// which global lines follow the sections of lists and interfaces, can be read back line by line. No state, no I/O; handlers are not
// called here.
#pragma once

#include "matcher.h"
#include "modifier.h"

#include <optional>
#include <string>
#include <string_view>

namespace cli
{

/// Where a line is typed.
struct Place {
    Mode mode = Mode::exec;
    Level level = Level::user;
    /// Mode interface: the interface's index; ifrange: the kinds of all interfaces of the range; modes of lists: the
    /// list's index; otherwise 0.
    u_int64_t intidx = 0;
};

struct Outcome {
    enum class Kind { empty, run, invalid, ambiguous, incomplete };

    Kind kind = Kind::empty;
    std::size_t column = 0; ///< invalid, ambiguous: byte of the line where the word at fault begins
    /// run: the mode whose command this is: the one of the place, Mode::config for a configuration command typed in
    /// a submode, Mode::exec after `do`.
    Mode mode = Mode::exec;
    cli_handler_t handler = nullptr;
    struct_command_data_block record{}; ///< run: ready for the handler but for its session
    std::optional<Modifier> modifier;
    /// invalid, typed in an interface mode: it is a command, but not on offer for this interface or range.
    bool withheld = false;
};

class Interpreter
{
public:
    Interpreter(const Grammar &grammar, const InterfaceDirectory &interfaces)
        : grammar_(grammar), interfaces_(interfaces)
    {
    }

    /// Leading blanks do not count; a line that begins with "!" is a comment.
    [[nodiscard]] Outcome interpret(std::string_view line, const Place &place) const;

    /// What may be typed at the end of `text`: the words that complete its last word, or, when it ends with a blank
    /// or is empty, the next ones. Keywords in alphabetical order, then arguments, "|" and "<cr>".
    [[nodiscard]] std::vector<Choice> help(std::string_view text, const Place &place) const;

    /// Words that complete the last word of `text`, sorted.
    [[nodiscard]] std::vector<std::string> complete(std::string_view text, const Place &place) const;

private:
    struct Request;

    [[nodiscard]] Request read(std::string_view line, const Place &place) const;
    [[nodiscard]] Outcome in_mode(const Request &request, Mode mode, const Place &place,
                                  Guards guards = Guards::asked) const;
    [[nodiscard]] std::vector<Choice> choices_at(std::string_view text, const Place &place,
                                                 std::string_view &partial) const;

    const Grammar &grammar_;
    const InterfaceDirectory &interfaces_;
};

/// The help listing of choices, a line each.
[[nodiscard]] std::string format_help(const std::vector<Choice> &choices);

/// The operator's text for an outcome that is not `run` or `empty`: the marker under the word at fault and the message.
///
/// @param indent  columns that precede the line on the terminal (the prompt); without: the line is not on one, and is
///                repeated above the marker
[[nodiscard]] std::string format_error(const Outcome &outcome, std::string_view line,
                                       std::optional<std::size_t> indent);

} // namespace cli
