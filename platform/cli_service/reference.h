// The command reference: every command of a grammar, with its words, ranges and modes, as text for people.
//
// Read off the parse graph alone, so that it says what the parser takes. No state, no I/O; no handler and no predicate is
// called.
#pragma once

#include "grammar.h"

#include <span>
#include <string>
#include <vector>

namespace cli
{

/// What holds while a command has not been used.
struct ReferenceDefault {
    cli_handler_t handler; ///< of the command
    std::string text;
};

/// A word or argument of a command.
struct ReferenceWord {
    std::string text;
    std::string help;

    friend bool operator==(const ReferenceWord &, const ReferenceWord &) = default;
};

struct ReferenceCommand {
    std::string syntax;               ///< alternatives in braces, what may be left out in brackets
    std::vector<std::string> negated; ///< the same for its forms with "no", without the "no"
    std::vector<ReferenceWord> words; ///< in the order of the syntax, each once
    cli_handler_t handler = nullptr;
    bool privileged = false;
    bool hidden = false;      ///< has a word that help does not list
    bool conditional = false; ///< offered only when a test expression says so
};

/// Commands of a mode in the order of their first words, then of the graph.
[[nodiscard]] std::vector<ReferenceCommand> reference_commands(const Grammar &grammar, Mode mode);

/// The reference as Markdown.
[[nodiscard]] std::string format_reference(const Grammar &grammar,
                                           std::span<const ReferenceDefault> defaults);

} // namespace cli
