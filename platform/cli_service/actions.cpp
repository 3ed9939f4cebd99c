// The actions that parse graphs name: each hands its node to the walker that is under way.
#include "walker.h"

const struct_transtion Tno_alt = {nop_action, nullptr, nullptr, nullptr};
const struct_transtion Tno_acc = {nop_action, nullptr, nullptr, nullptr};

namespace
{

constexpr int give_up = -1;

template <typename Node>
const Node &node_of(const struct_transtion &t)
{
    return *static_cast<const Node *>(t.argument);
}

int take_argument(struct_command_data_block *record, const struct_transtion *t, cli::Argument kind)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->argument(*record, *t, kind);
}

} // namespace

int common_keyword_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::keyword);
}

int common_number_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::number);
}

int ipaddr_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::ipv4);
}

int ipaddr_v6_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::ipv6);
}

int string_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::string);
}

int prefix_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::prefix);
}

int mac_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::mac);
}

int text_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::text);
}

int interface_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::interface);
}

int cli::rest_action(struct_command_data_block *record, const struct_transtion *t)
{
    return take_argument(record, t, cli::Argument::rest);
}

int set_cdb_var_action(struct_command_data_block *record, const struct_transtion *t)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->set(*record, *t, node_of<struct_set_cdb_var>(*t));
}

int test_expression_action(struct_command_data_block *record, const struct_transtion *t)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->test(*record, *t, node_of<struct_test_expression>(*t));
}

int c2p_action(struct_command_data_block *record, const struct_transtion *t)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->c2p(*record, *t, node_of<struct_c2p>(*t));
}

int eol_action(struct_command_data_block *record, const struct_transtion *t)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->eol(*record, *t, node_of<struct_eol>(*t));
}

int noprefix_action(struct_command_data_block *record, const struct_transtion *t)
{
    return record->parser == nullptr ? give_up : record->parser->noprefix(*record, *t);
}

int nop_action(struct_command_data_block *record, const struct_transtion *t)
{
    return record->parser == nullptr ? give_up : record->parser->either(*record, *t);
}

int append_point_action(struct_command_data_block *record, const struct_transtion *t)
{
    return record->parser == nullptr ? give_up : record->parser->append_point(*record, *t);
}

int cli::attach_action(struct_command_data_block *record, const struct_transtion *t)
{
    if (record->parser == nullptr || t->argument == nullptr)
        return give_up;
    return record->parser->attach(*record, *t, node_of<AttachNode>(*t));
}
