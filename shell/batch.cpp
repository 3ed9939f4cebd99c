#include "batch.h"

#include "show_json.h"
#include "words.h"

#include <algorithm>

namespace shell
{
namespace
{

bool is_comment(std::string_view line)
{
    const std::size_t first = line.find_first_not_of(" \t");
    return first == std::string_view::npos || line[first] == '!';
}

/// What `typed` stands for among the words of `listing`, a line each: itself, or the only one.
std::string full_word(std::string_view listing, std::string_view typed)
{
    std::string_view only;
    std::size_t candidates = 0;
    for (std::size_t end = 0; (end = listing.find('\n')) != std::string_view::npos; ++candidates) {
        only = listing.substr(0, end);
        if (cli::same_word(only, typed))
            return std::string(only);
        listing.remove_prefix(end + 1);
    }
    return std::string(candidates == 1 ? only : typed);
}

} // namespace

std::vector<std::string> full_words(Client &client, std::string_view line)
{
    std::vector<std::string> words;
    std::string so_far;
    for (const cli::Word &typed : cli::split_words(line)) {
        const std::string listing = client.complete(so_far + std::string(typed.text));
        words.push_back(full_word(listing, typed.text));
        so_far += words.back() + " ";
    }
    return words;
}

bool Batch::run_line(std::string_view line)
{
    if (!client_) { // an `exit` came before
        complain_("the session has ended before: " + std::string(line));
        exit_status_ = std::max(exit_status_, EXIT_COMMAND);
        return false;
    }
    switch (format_ == Format::json ? run_as_json(line) : client_.run(line, output_)) {
    case Status::ok:
    case Status::ended:
        return true;
    case Status::failed:
    case Status::cancelled:
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

void Batch::fail_with(std::string_view reason)
{
    complain_(reason);
    exit_status_ = std::max(exit_status_, EXIT_COMMAND);
}

Status Batch::run_as_json(std::string_view line)
{
    if (is_comment(line))
        return Status::ok;
    const std::vector<std::string> words = full_words(client_, line);
    const JsonForm *const form = json_form(words);
    if (form == nullptr) {
        if (!client_)
            return Status::lost;
        fail_with("not run, it has no JSON form: " + std::string(line) + "; there are " + json_commands());
        return Status::ok;
    }
    std::string text;
    const Status status = client_.run(line, [&](std::string_view piece) { text += piece; });
    if (status != Status::ok) {
        complain_(text.substr(0, text.find_last_not_of('\n') + 1));
        return status;
    }
    const JsonText json = to_json(*form, text);
    if (json.document)
        output_(*json.document + "\n");
    else
        fail_with(std::string(line) + ": " + json.error);
    return Status::ok;
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
