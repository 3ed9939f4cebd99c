// What stands in the nodes of a command tree, for the words that no line shows.
#pragma once

#include "platform/cli.h"

#include <set>

namespace dcli
{

inline void collect_nodes(const struct_transtion *t, std::set<const struct_transtion *> &seen)
{
    if (t == nullptr || t == &Tno_alt || t == &Tno_acc || !seen.insert(t).second)
        return;
    collect_nodes(t->accept, seen);
    collect_nodes(t->alternate, seen);
}

/// Shows every node record of a tree with this action; how many there are.
template <typename Node, typename Check>
int for_each_node(const struct_transtion &root, cli_action_t action, Check look)
{
    std::set<const struct_transtion *> seen;
    collect_nodes(&root, seen);
    int count = 0;
    for (const struct_transtion *t : seen) {
        if (t->pfn == action) {
            look(*static_cast<const Node *>(t->argument));
            count++;
        }
    }
    return count;
}

} // namespace dcli
