// What the tests of the command line put in the place of the daemon's other modules: each double writes down its call
// and answers as the test wants. The agent record is the test's to fill; its locks are watched, since half of what a
// command may do depends on which of them is held. The platform is tests/fake_platform.
#pragma once

#include "fake_platform.h"
#include "sflow_agent.h"
#include "sflow_cli.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace dcli
{

/// Results of the doubles that return one, by function; 0 where nothing is set.
extern std::map<std::string, int> results;

/// Calls since the last reset or forget: "function name=value ...", oldest first.
std::vector<std::string> calls();
/// Those of one function, without its name.
std::vector<std::string> calls(std::string_view function);
void forget_calls();
/// Names of these calls and of the platform's (fake::calls), in the order in which they were made since the case began.
std::vector<std::string> order();

/// Texts written to the daemon's debug file, as "file: text". Death tests find them on standard error.
std::vector<std::string> debug_lines();

/// Called in the place of sleep(3).
extern std::function<void(unsigned seconds)> on_sleep;

/// Locks taken and released wrongly, and doubles called with or without `config_lock` against their contract.
std::vector<std::string> lock_violations();

/// Threads that were asked for, not started. Unless results says that sflow_create_depatch_thread fails.
struct Thread {
    void *(*start)(void *);
    void *arg;
};
std::vector<Thread> threads();

/// Directory that stands for TMPDIR; empty for an environment without it.
extern std::string tmpdir;

/// The agent's global values, for a test that is alone with them.
sflow_global_config_t &config();
void set_msg_list_len(int32_t len);
/// The agent address, as the core would leave it.
void set_agent(sflow_agent_cfg_type_t kind, sflow_address_type_t type, const char *address, IFINDEX ifx = 0);
sfladdress_value_t ipv4(const char *text);
sfladdress_value_t ipv6(const char *text);
/// A collector as it is after `sflow collector N destination ...`; IPv4 or IPv6 by its text.
sfladdress_t collector(const char *address);
void enable_receiver(u_int32_t cid, const sfladdress_t &address, u_int16_t port);
/// Adds an interface configuration at the end of the agent's list; the fixture frees it.
sflow_intf_config_t *add_intf(IFINDEX ifx);

/// Texts of the configuration log since the last time, without the lines of other categories.
std::vector<std::string> conf_log();

/// Starts every case afresh, with configuration debugging on and every tree registered.
class Case : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
};

/// Runs a configuration-mode line that has to be a command; whether it was marked failed, and what it printed.
struct Ran {
    bool failed;
    std::string text;

    bool operator==(const Ran &) const = default;
};
Ran run(std::string_view line, const fake::Place &place = {});
void PrintTo(const Ran &ran, std::ostream *out);

/// The command succeeded without a word.
inline const Ran SILENT{false, ""};

/// Lines of the running configuration that one handler prints; `mode_intidx` for those of interface mode, which run
/// with `config_lock` held for reading.
std::vector<std::string> lines_of(cli_handler_t handler, IFINDEX mode_intidx = 0);

} // namespace dcli
