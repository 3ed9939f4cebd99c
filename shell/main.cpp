// sflow-cli: the command line of sflowd.
//
//   sflow-cli                        an operator's session; commands from standard input when that is no terminal
//   sflow-cli -c COMMAND ...         runs commands in one privileged session
#include "batch.h"
#include "interactive.h"
#include "reach.h"

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <getopt.h>
#include <iostream>
#include <unistd.h>

namespace
{

constexpr std::string_view usage =
    "Usage: sflow-cli [--wait SECONDS] [--format text|json] [-c COMMAND]...\n"
    "\n"
    "The command line of sflowd. Without -c: interactive at a terminal, otherwise the\n"
    "commands are read from standard input, one a line.\n"
    "\n"
    "  -c, --command COMMAND  run COMMAND in a privileged session; may be repeated\n"
    "      --wait SECONDS     wait until sflowd takes configuration\n"
    "      --format json      print JSON, a line for each command; for the show commands\n"
    "                         that have such a form, the others are not run\n"
    "  -h, --help             show this text\n"
    "      --version          show the version\n"
    "\n"
    "TMPDIR must be the one that sflowd was started with; without it, /run.\n"
    "\n"
    "Exit status: 0 when every command succeeded; 1 when one was refused or failed, the\n"
    "others being run all the same; 2 when sflowd cannot be reached or does not take\n"
    "configuration yet; 64 for a mistake in these options.\n";

struct Options {
    std::vector<std::string> commands;
    std::optional<std::chrono::milliseconds> wait;
    shell::Format format = shell::Format::text;
};

enum class Parsed { run, done, mistake };

bool parse_seconds(std::string_view text, std::optional<std::chrono::milliseconds> &wait)
{
    constexpr long most_seconds = 86400;
    long seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() || seconds < 0 ||
        seconds > most_seconds)
        return false;
    wait = std::chrono::seconds(seconds);
    return true;
}

bool parse_format(std::string_view text, shell::Format &format)
{
    format = text == "json" ? shell::Format::json : shell::Format::text;
    return text == "json" || text == "text";
}

Parsed parse(int argc, char *argv[], Options &options)
{
    enum LongOnly { wait_option = 256, version_option, format_option };
    static const option long_options[] = {{"command", required_argument, nullptr, 'c'},
                                          {"wait", required_argument, nullptr, wait_option},
                                          {"format", required_argument, nullptr, format_option},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"version", no_argument, nullptr, version_option},
                                          {nullptr, 0, nullptr, 0}};
    for (int chosen = 0; (chosen = getopt_long(argc, argv, "c:h", long_options, nullptr)) != -1;) {
        switch (chosen) {
        case 'c':
            options.commands.emplace_back(optarg);
            break;
        case 'h':
            std::cout << usage;
            return Parsed::done;
        case version_option:
            std::cout << "sflow-cli " SFLOW_VERSION "\n";
            return Parsed::done;
        case wait_option:
            if (parse_seconds(optarg, options.wait))
                break;
            std::cerr << "sflow-cli: --wait: \"" << optarg << "\" is no number of seconds from 0 to 86400\n";
            return Parsed::mistake;
        case format_option:
            if (parse_format(optarg, options.format))
                break;
            std::cerr << "sflow-cli: --format: \"" << optarg << "\" is neither text nor json\n";
            return Parsed::mistake;
        default:
            std::cerr << "Try 'sflow-cli --help'.\n";
            return Parsed::mistake;
        }
    }
    if (optind == argc)
        return Parsed::run;
    std::cerr << "sflow-cli: unexpected argument \"" << argv[optind] << "\"; give commands with -c\n";
    return Parsed::mistake;
}

void to_stdout(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void complain(std::string_view text)
{
    std::cerr << "sflow-cli: " << text << "\n";
}

/// What a full disk or a closed descriptor makes of the exit status.
int output_status()
{
    if (std::ferror(stdout) == 0)
        return shell::EXIT_OK;
    complain("the output could not be written");
    return shell::EXIT_COMMAND;
}

} // namespace

int main(int argc, char *argv[])
{
    std::setlocale(LC_ALL, "");
    Options options;
    const Parsed parsed = parse(argc, argv, options);
    if (parsed != Parsed::run)
        return parsed == Parsed::done ? shell::EXIT_OK : shell::EXIT_USAGE;

    const bool interactive = options.commands.empty() && isatty(STDIN_FILENO) != 0;
    if (interactive && options.format == shell::Format::json) {
        complain("--format json needs a command: give it with -c, or commands on standard input");
        return shell::EXIT_USAGE;
    }
    shell::Reached reached = shell::reach(shell::runtime_directory(), interactive, options.wait);
    if (!reached.state) {
        complain(reached.reason);
        return shell::EXIT_UNREACHABLE;
    }
    if (interactive) {
        if (!reached.reason.empty())
            std::cout << "% " << reached.reason << std::endl;
        return shell::interact(reached.client);
    }
    shell::Batch batch(reached.client, to_stdout, complain, options.format);
    if (options.commands.empty())
        batch.run(std::cin);
    for (const std::string &command : options.commands)
        if (!batch.run(command))
            break;
    if (batch.exit_status() == shell::EXIT_UNREACHABLE && !reached.reason.empty())
        complain(reached.reason);
    return std::max(batch.exit_status(), output_status());
}
