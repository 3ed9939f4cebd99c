// The command trees alone, for tests of which lines are commands: the handlers and the guards are replaced by ones that
// write down that they were called.
#pragma once

#include "sflow_cli_internal.h"

#include "fake_platform.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace dcli
{

using Kind = fake::CliResult::Kind;

/// Interfaces that exist: a port, a port of the management network, and one of kinds that no argument takes.
constexpr IFINDEX ETH0 = 7;    ///< "eth0"
constexpr IFINDEX MGMT0 = 9;   ///< "mgmt0"
constexpr IFINDEX OTHER0 = 11; ///< "other0"

/// What the guards answer: "any", "ingress", "egress", "both", "acl", "snoop".
extern std::map<std::string, int> guard_answers;

/// Runs the line; "HANDLER: SLOTS", what was not zero in the record, or what is wrong with the line.
std::string run_line(const std::string &line, const fake::Place &place = {});

struct Row {
    std::string line;
    std::string result; ///< of run_line
};
void check(const std::vector<Row> &rows, const fake::Place &place = {});

/// Registers the trees; every guard passes.
class Command_tree : public ::testing::Test
{
protected:
    void SetUp() override;
};

} // namespace dcli
