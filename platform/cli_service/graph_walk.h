// Walks that visit every transition of a graph once, whatever a test expression or the word "no" would choose.
#pragma once

#include "walker.h"

#include <unordered_set>
#include <utility>
#include <vector>

namespace cli
{

class Grammar;

/// Visits in depth-first order, accept before alternate. Derived walks look at the nodes they care about.
class GraphWalk : public cli_parser_t
{
public:
    /// Walks what is reachable from `root` with `record` in hand; record->parser is the same afterwards.
    /// @return false when an action gave the walk up
    bool walk(const struct_transtion *root, struct_command_data_block &record);

    int argument(record_t &record, const transition_t &t, Argument kind) override;
    int set(record_t &record, const transition_t &t, const struct_set_cdb_var &node) override;
    int test(record_t &record, const transition_t &t, const struct_test_expression &node) override;
    int c2p(record_t &record, const transition_t &t, const struct_c2p &node) override;
    int eol(record_t &record, const transition_t &t, const struct_eol &node) override;
    int noprefix(record_t &record, const transition_t &t) override;
    int either(record_t &record, const transition_t &t) override;
    int append_point(record_t &record, const transition_t &t) override;
    int attach(record_t &record, const transition_t &t, const AttachNode &node) override;

protected:
    /// Goes on at `first` and then at `second`; nullptr is nowhere.
    int go_on(const transition_t *first, const transition_t *second);

    const Grammar *grammar_ = nullptr; ///< resolves attach nodes; without it they lead nowhere

private:
    std::vector<const transition_t *> open_;
    std::unordered_set<const transition_t *> visited_;
};

/// Collects running configuration: calls the handler of every c2p node with the record as it stands. A handler that
/// several nodes of the walk name (with the same sub-command) is called for the first of them only, so that the
/// positive and the "no" form of a command may share it.
class ConfigWalk final : public GraphWalk
{
public:
    explicit ConfigWalk(const Grammar &grammar) { grammar_ = &grammar; }
    int c2p(record_t &record, const transition_t &t, const struct_c2p &node) override;

private:
    std::vector<std::pair<cli_handler_t, u_int64_t>> called_;
};

/// Looks a tree over before it is registered.
class TreeCheck final : public GraphWalk
{
public:
    /// Every node has its record, its action and slots that lie in the command record.
    [[nodiscard]] bool sound(const struct_transtion *root);
    /// Valid after sound(): there are c2p nodes, and nothing that an operator could type.
    [[nodiscard]] bool only_c2p() const { return c2p_nodes_ > 0 && command_nodes_ == 0; }

    int argument(record_t &record, const transition_t &t, Argument kind) override;
    int set(record_t &record, const transition_t &t, const struct_set_cdb_var &node) override;
    int test(record_t &record, const transition_t &t, const struct_test_expression &node) override;
    int c2p(record_t &record, const transition_t &t, const struct_c2p &node) override;
    int eol(record_t &record, const transition_t &t, const struct_eol &node) override;

private:
    int c2p_nodes_ = 0;
    int command_nodes_ = 0;
    bool sound_ = true;
};

} // namespace cli
