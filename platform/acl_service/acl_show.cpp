// `show access-lists`: lists with their lines, the references that clients hold, and the configuration that names them.
#include "acl_service/acl_commands.h"
#include "acl_service/acl_service.h"
#include "cli_service/config_file.h"
#include "cli_service/core.h"
#include "cli_service/words.h"

#include <algorithm>

namespace platform
{

namespace
{

/// A line of the running configuration that names a list, and the section it stands in.
struct Use {
    std::string list;
    std::string text;
};

/// Every `… acl NAME` of the running configuration.
std::vector<Use> uses_of_lists()
{
    std::vector<Use> uses;
    std::string section;
    const std::string config = cli::Core::instance().running_config(false);
    cli::for_each_line(config, [&](int /*number*/, std::string_view line) {
        const std::vector<cli::Word> words = cli::split_words(line);
        if (words.empty())
            return;
        if (words.front().column == 0)
            section = line;
        for (std::size_t i = 0; i + 1 < words.size(); ++i)
            if (words[i].text == "acl")
                uses.push_back({std::string(words[i + 1].text),
                                section + ": " + std::string(line.substr(words.front().column))});
    });
    return uses;
}

std::string clients_text()
{
    std::string text;
    for (const std::string &name : acl_service().client_names())
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

void show(const AclService::Snapshot &entry, const std::vector<Use> &uses, const std::string &clients)
{
    const AccessList &list = entry.list;
    const std::size_t entries = list.entries().size();
    cli_printf("%s %s, id %d, %zu %s\n", std::string(info_of(list.kind()).command).c_str(),
               list.name().c_str(), list.id(), entries, entries == 1 ? "entry" : "entries");
    for (const auto &[number, line] : list.lines())
        cli_printf("  %u %s\n", number, line_text(line, list.kind()).c_str());
    if (entry.references == 0)
        cli_printf("  References: none\n");
    else
        cli_printf("  References: %d (%s)\n", entry.references, clients.c_str());
    for (const Use &use : uses)
        if (use.list == list.name())
            cli_printf("  Used by %s\n", use.text.c_str());
}

} // namespace

bool acl_is_named(const std::string &list)
{
    const std::vector<Use> uses = uses_of_lists();
    return std::any_of(uses.begin(), uses.end(), [&list](const Use &use) { return use.list == list; });
}

void acl_show_cmd(struct_command_data_block *record)
{
    const std::string name = record->string_var[0];
    const std::vector<Use> uses = uses_of_lists();
    const std::string clients = clients_text();
    if (name.empty()) {
        for (const AclService::Snapshot &entry : acl_service().all())
            show(entry, uses, clients);
        return;
    }
    const auto present = acl_service().find(name);
    if (present) {
        show(*present, uses, clients);
        return;
    }
    cli_printf("%% Access list %s does not exist\n", name.c_str());
    cli_client_execmd_fail(record);
}

} // namespace platform
