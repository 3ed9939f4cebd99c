// command-reference: writes the command reference of the daemon on standard output.
//
// It is linked like the daemon and registers the same trees, but serves nobody: no session, no export, no sampling
// service. Defaults come from the daemon's own `show running-config all`.
#include "acl_service/acl_commands.h"
#include "core.h"
#include "interpreter.h"
#include "own_commands.h"
#include "redundancy/rdnd_commands.h"
#include "reference.h"

#include "sflow_agent.h"
#include "sflow_cli.h"
#include "sflow_dbg.h"
#include "sflow_receiver.h"
#include "sflow_tech_sup.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace
{

/// What the running configuration prints with the values that are defaults, by the handler of the command.
std::vector<cli::ReferenceDefault> defaults(cli::Core &core)
{
    std::vector<cli::ReferenceDefault> list;
    const auto grammar = core.grammar();
    const cli::Interpreter interpreter(*grammar, core.interfaces());
    const std::string config = core.running_config(true);
    for (std::size_t begin = 0, end = 0; (end = config.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        const std::string line = config.substr(begin, end - begin);
        const cli::Outcome outcome =
            interpreter.interpret(line, {cli::Mode::config, cli::Level::privileged, 0});
        if (outcome.kind == cli::Outcome::Kind::run)
            list.push_back({outcome.handler, line});
    }
    // Not printed while it is the default.
    list.push_back({cfg_sflow_collector_maxlen_cmd, std::to_string(SFLOW_DEFAULT_DATAGRAM_SIZE)});
    return list;
}

} // namespace

int main()
try {
    if (sflow_agent_init(&sflow_agent) != 0) {
        std::fputs("command-reference: the agent record could not be initialised\n", stderr);
        return EXIT_FAILURE;
    }
    cli::Core &core = cli::Core::instance();
    cli::add_own_commands(core);
    if (platform::add_acl_commands() != 0) {
        std::fputs("command-reference: the commands of access lists are refused\n", stderr);
        return EXIT_FAILURE;
    }
    platform::add_redundancy_commands();
    sflow_cli_cmd_init();
    sflow_debug_init();
    sflow_tech_cmd_init();
    const std::string text = cli::format_reference(*core.grammar(), defaults(core));
    const bool written =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    // The one-second thread of the agent is still there.
    std::_Exit(written ? EXIT_SUCCESS : EXIT_FAILURE);
} catch (const std::exception &error) {
    std::fprintf(stderr, "command-reference: %s\n", error.what());
    return EXIT_FAILURE;
}
