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

enum class Format {
    text, ///< what the daemon prints
    json, ///< documents of the commands that have one (show_json.h); the others are not run
};

/// Runs commands in order, whatever becomes of those before, and collects the exit status.
class Batch
{
public:
    Batch(Client &client, Client::Output output, Client::Output complain, Format format = Format::text)
        : client_(client), output_(std::move(output)), complain_(std::move(complain)), format_(format)
    {
    }

    /// Each line of `commands` is one command.
    /// @return false when the session is over and nothing more can be run
    bool run(std::string_view commands);
    bool run(std::istream &script);
    [[nodiscard]] int exit_status() const { return exit_status_; }

private:
    bool run_line(std::string_view line);
    Status run_as_json(std::string_view line);
    void fail_with(std::string_view reason);

    Client &client_;
    Client::Output output_;
    Client::Output complain_;
    Format format_;
    int exit_status_ = EXIT_OK;
};

/// The words of a line, with every abbreviation that the daemon completes to one word in full.
[[nodiscard]] std::vector<std::string> full_words(Client &client, std::string_view line);

} // namespace shell
