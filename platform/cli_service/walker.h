// What a walk of a parse graph has to answer, node by node. The actions of platform/cli.h pass the record and the
// transition on to the walker that record->parser names; matching a line, offering help, checking a tree and
// collecting the running configuration are four walkers.
//
// A walker does not recurse: a hook notes where to go on, and the walk's own loop calls the next action. So the depth
// of a graph costs no stack.
#pragma once

#include "platform/cli.h"

#include <span>

namespace cli
{

/// Nodes that take input.
enum class Argument { keyword, number, ipv4, ipv6, string, interface, rest, prefix, mac, text };

/// Argument of attach_action: everything registered at these attach points, in this order.
struct AttachNode {
    const cli_attach_t *points;
    std::size_t count;
};

/// Argument of rest_action: takes the remaining words of the line, whatever they are. They are meant to be interface
/// names, between blanks or commas.
struct RestNode {
    const char *placeholder;
    const char *help;
};

/// The service's own actions.
int attach_action(struct_command_data_block *record, const struct_transtion *t);
int rest_action(struct_command_data_block *record, const struct_transtion *t);

} // namespace cli

struct cli_parser_t {
    using record_t = struct_command_data_block;
    using transition_t = struct_transtion;

    cli_parser_t() = default;
    cli_parser_t(const cli_parser_t &) = delete;
    cli_parser_t &operator=(const cli_parser_t &) = delete;
    virtual ~cli_parser_t() = default;

    virtual int argument(record_t &record, const transition_t &t, cli::Argument kind) = 0;
    virtual int set(record_t &record, const transition_t &t, const struct_set_cdb_var &node) = 0;
    virtual int test(record_t &record, const transition_t &t, const struct_test_expression &node) = 0;
    virtual int c2p(record_t &record, const transition_t &t, const struct_c2p &node) = 0;
    virtual int eol(record_t &record, const transition_t &t, const struct_eol &node) = 0;
    virtual int noprefix(record_t &record, const transition_t &t) = 0;
    virtual int either(record_t &record, const transition_t &t) = 0;
    virtual int append_point(record_t &record, const transition_t &t) = 0;
    virtual int attach(record_t &record, const transition_t &t, const cli::AttachNode &node) = 0;
};
