#include "batch.h"

#include <algorithm>

namespace shell
{

bool Batch::run_line(std::string_view line)
{
    if (!client_) { // an `exit` came before
        complain_("the session has ended before: " + std::string(line));
        exit_status_ = std::max(exit_status_, EXIT_COMMAND);
        return false;
    }
    switch (client_.run(line, output_)) {
    case Status::ok:
    case Status::ended:
        return true;
    case Status::failed:
        exit_status_ = std::max(exit_status_, EXIT_COMMAND);
        return true;
    case Status::starting:
        exit_status_ = EXIT_UNREACHABLE;
        return true;
    case Status::lost:
        break;
    }
    complain_(client_.reason());
    exit_status_ = EXIT_UNREACHABLE;
    return false;
}

bool Batch::run(std::string_view commands)
{
    for (;;) {
        const std::size_t newline = commands.find('\n');
        if (!run_line(commands.substr(0, newline)))
            return false;
        if (newline == std::string_view::npos)
            return true;
        commands.remove_prefix(newline + 1);
    }
}

bool Batch::run(std::istream &script)
{
    for (std::string line; std::getline(script, line);)
        if (!run_line(line))
            return false;
    return true;
}

} // namespace shell
