// Where the command trees of access lists leave what was typed, and what the words mean. Shared by the trees
// (acl_tree.cpp) and the handlers that read the command record.
#pragma once

#include "platform/cli.h"

namespace platform
{

/// How an address was typed. FORM_ANY is what a record holds that no address was stored in.
constexpr int64_t FORM_ANY = 0;
constexpr int64_t FORM_HOST = 1;
constexpr int64_t FORM_PREFIX = 2;
constexpr int64_t FORM_WILDCARD = 3;

/// The comparison of ports; 0: none typed.
constexpr int64_t PORT_EQ = 1;
constexpr int64_t PORT_NEQ = 2;
constexpr int64_t PORT_GT = 3;
constexpr int64_t PORT_LT = 4;
constexpr int64_t PORT_RANGE = 5;

/// The protocol of an entry that asks for none.
constexpr int64_t PROTOCOL_ANY = 256;

/// Indices into int_var. A source's slots are followed by those of the destination, `END_SLOTS` further on; addresses
/// and wildcards are paddr_var[0] and [1] of the source, [2] and [3] of the destination.
enum EntryVar : int {
    VAR_SEQUENCE = 0, ///< 0: none typed. In `resequence`: the first number
    VAR_STEP = 1,     ///< in `resequence`
    VAR_ACTION = 1,   ///< acl::Action
    VAR_PROTOCOL = 2,
    VAR_FORM = 3, ///< FORM_*
    VAR_LENGTH = 4,
    VAR_PORT_TEST = 5, ///< PORT_*
    VAR_PORT = 6,
    VAR_PORT_LAST = 7,
    VAR_DSCP = 13,
    VAR_ETHER_TYPE = 14, ///< 0: none typed
};
constexpr int END_SLOTS = 5;
static_assert(VAR_PORT_LAST + END_SLOTS < VAR_DSCP && VAR_ETHER_TYPE < CLI_INT_VARS);

} // namespace platform
