#include "graph_walk.h"

#include "grammar.h"
#include "slots.h"

#include <algorithm>

namespace cli
{

bool GraphWalk::walk(const struct_transtion *root, struct_command_data_block &record)
{
    cli_parser_t *const outer = std::exchange(record.parser, this);
    open_.assign(1, root);
    visited_.clear();
    bool complete = true;
    while (complete && !open_.empty()) {
        const transition_t *const t = open_.back();
        open_.pop_back();
        if (t == nullptr || !visited_.insert(t).second)
            continue;
        complete = t->pfn != nullptr && t->pfn(&record, t) == 0;
    }
    record.parser = outer;
    return complete;
}

int GraphWalk::go_on(const transition_t *first, const transition_t *second)
{
    open_.push_back(second);
    open_.push_back(first);
    return 0;
}

int GraphWalk::argument(record_t & /*record*/, const transition_t &t, Argument /*kind*/)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::set(record_t & /*record*/, const transition_t &t, const struct_set_cdb_var & /*node*/)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::test(record_t & /*record*/, const transition_t & /*t*/, const struct_test_expression &node)
{
    return go_on(node.ptrue, node.pfalse);
}

int GraphWalk::c2p(record_t & /*record*/, const transition_t &t, const struct_c2p & /*node*/)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::eol(record_t & /*record*/, const transition_t &t, const struct_eol & /*node*/)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::noprefix(record_t & /*record*/, const transition_t &t)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::either(record_t & /*record*/, const transition_t &t)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::append_point(record_t & /*record*/, const transition_t &t)
{
    return go_on(t.accept, t.alternate);
}

int GraphWalk::attach(record_t & /*record*/, const transition_t &t, const AttachNode &node)
{
    open_.push_back(t.alternate);
    if (grammar_ == nullptr)
        return 0;
    for (std::size_t i = node.count; i-- > 0;) {
        const auto trees = grammar_->at(node.points[i]);
        for (auto tree = trees.rbegin(); tree != trees.rend(); ++tree)
            open_.push_back(tree->root);
    }
    return 0;
}

int ConfigWalk::c2p(record_t &record, const transition_t &t, const struct_c2p &node)
{
    const std::pair call{node.pfn, node.subcmd};
    if (std::find(called_.begin(), called_.end(), call) == called_.end()) {
        called_.push_back(call);
        if (node.subcmd != 0)
            record.flag_subcmd = static_cast<int64_t>(node.subcmd);
        node.pfn(&record);
    }
    return go_on(t.accept, t.alternate);
}

bool TreeCheck::sound(const struct_transtion *root)
{
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_CONFIG;
    return walk(root, record) && sound_;
}

int TreeCheck::argument(record_t & /*record*/, const transition_t &t, Argument kind)
{
    ++command_nodes_;
    switch (kind) {
    case Argument::keyword: {
        const auto &node = *static_cast<const struct_common_keyword *>(t.argument);
        sound_ = sound_ && node.pname != nullptr && node.pname[0] != '\0' && node.phelp != nullptr &&
                 ((node.flag & CLI_KEYWORD_FLAG_VALUE) == 0 || is_int_slot(node.var_pos));
        break;
    }
    case Argument::number: {
        const auto &node = *static_cast<const struct_common_number *>(t.argument);
        sound_ = sound_ && node.pHelp != nullptr && is_int_slot(node.nVarPos);
        break;
    }
    case Argument::ipv4:
    case Argument::ipv6: {
        const auto &node = *static_cast<const struct_common_ipaddr *>(t.argument);
        sound_ = sound_ && node.pHelp != nullptr && is_address_slot(node.nVarPos) &&
                 (node.nFlagVarPos == 0 || is_int_slot(node.nFlagVarPos));
        break;
    }
    case Argument::string: {
        const auto &node = *static_cast<const struct_common_string *>(t.argument);
        sound_ = sound_ && node.pHelp != nullptr && is_string_slot(node.nVarPos);
        break;
    }
    case Argument::prefix: {
        const auto &node = *static_cast<const struct_common_prefix *>(t.argument);
        sound_ =
            sound_ && node.pHelp != nullptr && is_address_slot(node.nVarPos) && is_int_slot(node.nLenPos);
        break;
    }
    case Argument::mac: {
        const auto &node = *static_cast<const struct_common_mac *>(t.argument);
        sound_ = sound_ && node.pHelp != nullptr && is_address_slot(node.nVarPos);
        break;
    }
    case Argument::text: {
        const auto &node = *static_cast<const struct_common_text *>(t.argument);
        sound_ = sound_ && node.pHelp != nullptr && is_string_slot(node.nVarPos);
        break;
    }
    case Argument::interface: {
        const auto &node = *static_cast<const struct_common_interface *>(t.argument);
        sound_ = sound_ && is_int_slot(node.nVarPos) && (node.nFlagPos == 0 || is_int_slot(node.nFlagPos)) &&
                 (node.nTypePos == 0 || is_int_slot(node.nTypePos));
        break;
    }
    case Argument::rest:
        break;
    }
    return go_on(t.accept, t.alternate);
}

int TreeCheck::set(record_t & /*record*/, const transition_t &t, const struct_set_cdb_var &node)
{
    sound_ = sound_ && is_int_slot(node.nVarPos);
    return go_on(t.accept, t.alternate);
}

int TreeCheck::test(record_t & /*record*/, const transition_t & /*t*/, const struct_test_expression &node)
{
    sound_ = sound_ && node.ptestfun != nullptr;
    return go_on(node.ptrue, node.pfalse);
}

int TreeCheck::c2p(record_t & /*record*/, const transition_t &t, const struct_c2p &node)
{
    ++c2p_nodes_;
    sound_ = sound_ && node.pfn != nullptr;
    return go_on(t.accept, t.alternate);
}

int TreeCheck::eol(record_t & /*record*/, const transition_t &t, const struct_eol &node)
{
    ++command_nodes_;
    sound_ = sound_ && node.exec_func != nullptr;
    return go_on(t.accept, t.alternate);
}

} // namespace cli
