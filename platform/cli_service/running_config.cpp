#include "running_config.h"

#include "graph_walk.h"

namespace cli
{
namespace
{

constexpr std::string_view separator = "!";

} // namespace

void RunningConfig::add(bool non_default, std::string_view mode, std::string_view text)
{
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    if (text.empty())
        return;
    const auto known = mode_by_name(mode);
    const bool indented = known && is_submode(*known);
    lines_.push_back({non_default, (indented ? " " : "") + std::string(text)});
}

void RunningConfig::separate()
{
    lines_.push_back({true, std::string(separator)});
}

std::string RunningConfig::text(bool all) const
{
    std::string text;
    bool separated = true;
    for (const Line &line : lines_) {
        const bool separates = line.text == separator;
        if ((!line.non_default && !all) || (separates && separated))
            continue;
        text += line.text + '\n';
        separated = separates;
    }
    return text;
}

bool collect_config(const Grammar &grammar, const struct_command_data_block &record, RunningConfig &config)
{
    bool complete = true;
    const auto walk = [&](cli_attach_t point, bool only_c2p) {
        for (const Grammar::Registration &tree : grammar.at(point)) {
            if (tree.only_c2p != only_c2p && point == PARSE_ADD_CFG_CMD)
                continue;
            struct_command_data_block of_tree = record;
            of_tree.mode_name = CLI_MODE_CONFIG;
            ConfigWalk config_walk(grammar);
            complete = config_walk.walk(tree.root, of_tree) && complete;
        }
    };
    walk(PARSE_ADD_CFG_CMD, false);
    config.separate();
    walk(PARSE_ADD_CFG_CMD, true);
    walk(PARSE_ADD_CFG_AFT_INTF_CMD, false);
    config.separate();
    return complete;
}

} // namespace cli
