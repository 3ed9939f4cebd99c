// The trees that are registered, by attach point, and the modes that they make up.
//
// A grammar starts out with the keywords under which clients hook in: `show`, `show tech-support` and `debug`. Reading
// one is safe from any number of threads as long as nobody adds to it.
#pragma once

#include "platform/cli.h"

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace cli
{

enum class Mode { exec, config, interface, ifrange, acl_standard, acl_extended, acl_ipv6, acl_mac };

/// Modes of one object below configuration mode: configuration commands are understood there too, and its lines are
/// indented in the running configuration.
[[nodiscard]] constexpr bool is_submode(Mode mode)
{
    return mode != Mode::exec && mode != Mode::config;
}

/// Submodes whose object is a list.
[[nodiscard]] constexpr bool is_list_mode(Mode mode)
{
    return is_submode(mode) && mode != Mode::interface && mode != Mode::ifrange;
}

[[nodiscard]] std::span<const Mode> all_modes();

/// CLI_MODE_* of a mode, and back.
[[nodiscard]] const char *mode_name(Mode mode);
[[nodiscard]] std::optional<Mode> mode_by_name(std::string_view name);

/// Root of everything that can be typed in a mode, as one graph. It resolves its attach points in the grammar of the
/// walk, so it does not change when trees are added.
[[nodiscard]] const struct_transtion *mode_root(Mode mode);

class Grammar
{
public:
    struct Registration {
        std::string name;
        const struct_transtion *root;
        bool only_c2p; ///< prints sections of the running configuration, offers no command
    };

    Grammar();

    /// See cli_add_command. A tree that is not sound is refused: a node without record, action, text or handler, or a
    /// slot outside the command record.
    [[nodiscard]] bool add(cli_attach_t attach, const struct_transtion *root, std::string_view name);

    /// In the order of registration.
    [[nodiscard]] std::span<const Registration> at(cli_attach_t attach) const;

private:
    std::map<cli_attach_t, std::vector<Registration>> trees_;
};

} // namespace cli
