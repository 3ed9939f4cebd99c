// `sflow-cli --format json`: the output of show commands as JSON documents; docs/json.md lists their keys.
//
// The daemon prints fixed texts, and this is the one place that reads them back. Every line, and every byte of it, must
// be what the daemon prints: text with anything else in it has no document. So nothing is lost on the way, and a text
// that changes shows in the tests rather than in an operator's script. No I/O.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace shell
{

class ShowLines;

/// A command whose output has a document.
struct JsonForm {
    std::string_view command;    ///< its words in full
    std::string_view argument{}; ///< what one more word may be, in words for operators; empty: nothing
    /// Reads the whole output.
    nlohmann::ordered_json (*read)(ShowLines &lines);
};

/// Every command that has a form, the way operators type it, for messages.
[[nodiscard]] std::string json_commands();

/// The form of a command line given as its words in full; nullptr when it has none.
[[nodiscard]] const JsonForm *json_form(std::span<const std::string> words);

struct JsonText {
    std::optional<std::string> document; ///< one line without its newline
    std::string error;                   ///< without a document: what was not understood
};

/// The document of what a command of this form has printed.
[[nodiscard]] JsonText to_json(const JsonForm &form, std::string_view text);

} // namespace shell
