// The running configuration as text: what c2p handlers print, in the order in which it can be read back.
#pragma once

#include "grammar.h"

#include <string>
#include <string_view>
#include <vector>

namespace cli
{

class RunningConfig
{
public:
    /// Adds what one c2p_printf printed. Newlines at its end are dropped; an empty text adds nothing.
    /// @param non_default  false: only text(true) shows the line
    /// @param mode         of the record that printed; lines of submodes are indented by one blank
    void add(bool non_default, std::string_view mode, std::string_view text);

    /// Ends a section with "!".
    void separate();

    /// All lines, each ending in a newline. Separators do not stand first, nor two in a row.
    /// @param all  with the lines whose value is the default
    [[nodiscard]] std::string text(bool all) const;

private:
    struct Line {
        bool non_default;
        std::string text;
    };
    std::vector<Line> lines_;
};

/// Runs the c2p handlers of everything registered in configuration mode: global trees, then those that print the
/// interface sections, then the trees that come after the interfaces. `separate` is called behind the first and the
/// last of these.
///
/// @param record  what each tree's walk starts from, with its session and CLI_PARSER_C2P or CLI_PARSER_C2P_REFORM
/// @return false when a walk was given up; the rest has been run all the same
[[nodiscard]] bool collect_config(const Grammar &grammar, const struct_command_data_block &record,
                                  RunningConfig &config);

} // namespace cli
