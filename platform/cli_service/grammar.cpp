#include "grammar.h"

#include "graph_walk.h"

#include <algorithm>
#include <array>

namespace cli
{
namespace
{

// Roots of the modes and the keywords that carry attach points.

constexpr cli_attach_t exec_points[] = {PARSE_ADD_EXEC_TOP_CMD};
constexpr cli_attach_t show_points[] = {PARSE_ADD_SHOW_CMD};
constexpr cli_attach_t debug_points[] = {PARSE_ADD_EXEC_DEBUG_CMD};
constexpr cli_attach_t tech_points[] = {PARSE_ADD_DEBUG_SUPPORT_SHOW_TECH_CMD};
constexpr cli_attach_t config_points[] = {PARSE_ADD_CFG_CMD, PARSE_ADD_CFG_AFT_INTF_CMD};
constexpr cli_attach_t interface_points[] = {PARSE_ADD_INTERFACE_CMD};
constexpr cli_attach_t acl_standard_points[] = {PARSE_ADD_ACL_STANDARD_CMD};
constexpr cli_attach_t acl_extended_points[] = {PARSE_ADD_ACL_EXTENDED_CMD};
constexpr cli_attach_t acl_ipv6_points[] = {PARSE_ADD_ACL_IPV6_CMD};
constexpr cli_attach_t acl_mac_points[] = {PARSE_ADD_ACL_MAC_CMD};

#define CLI_ATTACH(node, points)                                                                             \
    constinit const AttachNode node##_arg = {points, std::size(points)};                                     \
    constinit const struct_transtion node = {attach_action, &node##_arg, &Tno_alt, &Tno_alt}

CLI_ATTACH(exec_root, exec_points);
CLI_ATTACH(config_root, config_points);
CLI_ATTACH(interface_root, interface_points);
CLI_ATTACH(acl_standard_root, acl_standard_points);
CLI_ATTACH(acl_extended_root, acl_extended_points);
CLI_ATTACH(acl_ipv6_root, acl_ipv6_points);
CLI_ATTACH(acl_mac_root, acl_mac_points);

CLI_NODES(show_top, show_plain, show, show_trees, tech_top, tech, tech_trees);
CLI_APPEND_POINT(show_top, show_plain);
CLI_NOPREFIX(show_plain, Tno_alt, show);
CLI_KEYWORD(show, "show", "Show running system information", CLI_PRIV_USER, show_trees, Tno_alt);
CLI_ATTACH(show_trees, show_points);

CLI_APPEND_POINT(tech_top, tech);
CLI_KEYWORD(tech, "tech-support", "System information for the support", CLI_PRIV_USER, tech_trees, Tno_alt);
CLI_ATTACH(tech_trees, tech_points);

// The clients' handlers learn from flag_1 whether to switch on or off.
constexpr int debug_on = 1;
constexpr int debug_off = 2;
CLI_NODES(debug_top, debug, debug_no, debug_set_off, debug_set_on, debug_trees);
CLI_APPEND_POINT(debug_top, debug);
CLI_KEYWORD(debug, "debug", "Debugging functions", CLI_PRIV_DEBUG, debug_no, Tno_alt);
CLI_NOPREFIX(debug_no, debug_set_off, debug_set_on);
CLI_SET(debug_set_off, CLI_SLOT(flag_1), debug_off, debug_trees);
CLI_SET(debug_set_on, CLI_SLOT(flag_1), debug_on, debug_trees);
CLI_ATTACH(debug_trees, debug_points);

struct ModeRow {
    Mode mode;
    const char *name;
    const struct_transtion *root;
};
constexpr std::array<ModeRow, 8> modes{{
    {Mode::exec, CLI_MODE_EXEC, &exec_root},
    {Mode::config, CLI_MODE_CONFIG, &config_root},
    {Mode::interface, CLI_MODE_INTERFACE, &interface_root},
    {Mode::ifrange, CLI_MODE_IFRANGE, &interface_root},
    {Mode::acl_standard, CLI_MODE_ACL_STANDARD, &acl_standard_root},
    {Mode::acl_extended, CLI_MODE_ACL_EXTENDED, &acl_extended_root},
    {Mode::acl_ipv6, CLI_MODE_ACL_IPV6, &acl_ipv6_root},
    {Mode::acl_mac, CLI_MODE_ACL_MAC, &acl_mac_root},
}};

constexpr std::array attach_points{
    PARSE_ADD_EXEC_TOP_CMD,
    PARSE_ADD_SHOW_CMD,
    PARSE_ADD_EXEC_DEBUG_CMD,
    PARSE_ADD_CFG_CMD,
    PARSE_ADD_CFG_AFT_INTF_CMD,
    PARSE_ADD_INTERFACE_CMD,
    PARSE_ADD_DEBUG_SUPPORT_SHOW_TECH_CMD,
    PARSE_ADD_ACL_STANDARD_CMD,
    PARSE_ADD_ACL_EXTENDED_CMD,
    PARSE_ADD_ACL_IPV6_CMD,
    PARSE_ADD_ACL_MAC_CMD,
};

} // namespace

std::span<const Mode> all_modes()
{
    static const auto list = [] {
        std::array<Mode, modes.size()> all{};
        std::transform(modes.begin(), modes.end(), all.begin(), [](const ModeRow &row) { return row.mode; });
        return all;
    }();
    return list;
}

const char *mode_name(Mode mode)
{
    return modes[static_cast<std::size_t>(mode)].name;
}

std::optional<Mode> mode_by_name(std::string_view name)
{
    const auto row =
        std::find_if(modes.begin(), modes.end(), [&](const ModeRow &r) { return name == r.name; });
    return row == modes.end() ? std::nullopt : std::optional(row->mode);
}

const struct_transtion *mode_root(Mode mode)
{
    return modes[static_cast<std::size_t>(mode)].root;
}

Grammar::Grammar()
{
    trees_[PARSE_ADD_EXEC_TOP_CMD] = {{"service show", &show_top, false},
                                      {"service debug", &debug_top, false}};
    trees_[PARSE_ADD_SHOW_CMD] = {{"service show tech-support", &tech_top, false}};
}

bool Grammar::add(cli_attach_t attach, const struct_transtion *root, std::string_view name)
{
    if (root == nullptr ||
        std::find(attach_points.begin(), attach_points.end(), attach) == attach_points.end())
        return false;
    TreeCheck check;
    if (!check.sound(root))
        return false;
    std::vector<Registration> &trees = trees_[attach];
    Registration entry{std::string(name), root, check.only_c2p()};
    const auto same =
        std::find_if(trees.begin(), trees.end(), [&](const Registration &r) { return r.root == root; });
    if (same != trees.end())
        *same = std::move(entry);
    else
        trees.push_back(std::move(entry));
    return true;
}

std::span<const Grammar::Registration> Grammar::at(cli_attach_t attach) const
{
    const auto found = trees_.find(attach);
    return found == trees_.end() ? std::span<const Registration>{}
                                 : std::span<const Registration>(found->second);
}

} // namespace cli
