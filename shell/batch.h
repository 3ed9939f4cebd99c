// Commands without an operator: from the command line or from a script.
#pragma once

#include "client.h"

#include <functional>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace shell
{

/// Exit statuses of sflow-cli.
constexpr int EXIT_OK = 0;
constexpr int EXIT_COMMAND = 1;     ///< a command was refused or failed
constexpr int EXIT_UNREACHABLE = 2; ///< the daemon cannot be reached, or does not take configuration yet
constexpr int EXIT_USAGE = 64;

/// Runs commands in order, whatever becomes of those before, and collects the exit status.
class Batch
{
public:
    Batch(Client &client, Client::Output output, Client::Output complain)
        : client_(client), output_(std::move(output)), complain_(std::move(complain))
    {
    }

    /// Each line of `commands` is one command.
    /// @return false when the session is over and nothing more can be run
    bool run(std::string_view commands);
    bool run(std::istream &script);
    [[nodiscard]] int exit_status() const { return exit_status_; }

private:
    bool run_line(std::string_view line);

    Client &client_;
    Client::Output output_;
    Client::Output complain_;
    int exit_status_ = EXIT_OK;
};

} // namespace shell
