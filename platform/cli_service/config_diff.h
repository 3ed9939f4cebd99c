// What has to be entered to turn one configuration into another.
#pragma once

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace cli
{

struct ConfigChange {
    std::string section; ///< the line that it is indented under: "interface NAME"; empty: global
    std::string line;    ///< as the configuration prints it, without indentation
    bool remove = false; ///< to be negated
    bool operator==(const ConfigChange &) const = default;
    bool operator<(const ConfigChange &other) const
    {
        return std::tie(section, line, remove) < std::tie(other.section, other.line, other.remove);
    }
};

/// Removals first, from the end of `actual` to its beginning, then additions in the order of `desired`; so a line is
/// there before another one that names what it sets up. Both are texts of a running configuration.
[[nodiscard]] std::vector<ConfigChange> config_changes(std::string_view actual, std::string_view desired);

/// The same without the removals of lines of which an added one differs in the last word only: most commands exchange
/// their value, and forgetting the old one first would have effects that nobody asked for.
[[nodiscard]] std::vector<ConfigChange> exchanging_values(std::vector<ConfigChange> changes);

/// "no LINE", and then with fewer and fewer of its last words, down to two: commands that take a value forget it without
/// naming it. The first one that is a command is meant.
[[nodiscard]] std::vector<std::string> negations(std::string_view line);

} // namespace cli
