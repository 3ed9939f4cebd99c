// A small client of the CLI service: a fan controller whose trees use every kind of node.
#pragma once

#include "platform/cli.h"

#include "matcher.h"

#include <string>
#include <vector>

namespace sample
{

/// What the handlers have been called with, and what they shall do.
struct Calls {
    std::string handler; ///< the last one, empty when none was called
    struct_command_data_block record{};
    std::vector<u_int64_t> interfaces; ///< mode_intidx of each call of fan_enable
    bool turbo_possible = true;
    bool fail = false;
    /// Interface for which fan_enable fails, 0 none.
    u_int64_t failing_interface = 0;
    int speed = 5;           ///< printed in the running configuration; 5 is the default
    std::vector<int> speeds; ///< each that was set, the default included
    std::string name;
};

extern Calls calls;

/// The trees, with the attach points and the order in which a client would register them.
struct Tree {
    cli_attach_t attach;
    const struct_transtion *root;
    const char *name;
};
[[nodiscard]] const std::vector<Tree> &trees();

/// eth0 (index 2, port), eth1 (3, port), bond0 (10, aggregate), mgmt0 (20, port of the management network).
[[nodiscard]] cli::InterfaceDirectory interfaces();
[[nodiscard]] cli::Grammar grammar();

/// Bytes of an address slot, as the handler sees it.
[[nodiscard]] std::string ipv4_slot(const struct_command_data_block &record, int slot);

} // namespace sample
