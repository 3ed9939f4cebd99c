#include "own_commands.h"

#include "config_file.h"
#include "console.h"
#include "platform/lsm.h"

#include <algorithm>
#include <array>

namespace cli
{
namespace
{

/// Interfaces that an error message lists.
constexpr std::size_t names_shown = 32;

cli_session_t &command_of(const struct_command_data_block *record)
{
    return *record->session;
}

Console &console_of(const struct_command_data_block *record)
{
    return *record->session->console();
}

// Configuration entered now would be overwritten by the startup configuration, and a configuration saved now would
// lack it.
bool accepts_configuration(const struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    if (!command.core().ready()) {
        command.write("% " + command.core().starting() + "\n");
        command.set_status(Status::not_ready);
        return false;
    }
    const std::string refusal = ConfigMirror::refusal();
    if (refusal.empty())
        return true;
    command.write("% " + refusal + "\n");
    command.fail();
    return false;
}

void enable(struct_command_data_block *record)
{
    console_of(record).set_level(Level::privileged);
}

void disable(struct_command_data_block *record)
{
    console_of(record).set_level(Level::user);
}

// Everybody who configures works on the one running configuration, command by command. Who comes second is told.
void configure(struct_command_data_block *record)
{
    if (!accepts_configuration(record))
        return;
    Console &console = console_of(record);
    cli_session_t &command = command_of(record);
    for (const std::string &owner : command.core().others_configuring(console))
        command.write("% The session of " + owner + " is in configuration mode too\n");
    console.enter(Mode::config);
}

void leave(struct_command_data_block *record)
{
    Console &console = console_of(record);
    switch (console.mode()) {
    case Mode::exec:
        console.close();
        break;
    case Mode::config:
        console.enter(Mode::exec);
        break;
    case Mode::interface:
    case Mode::ifrange:
    case Mode::acl_standard:
    case Mode::acl_extended:
    case Mode::acl_ipv6:
    case Mode::acl_mac:
        console.enter(Mode::config);
        break;
    }
}

void end(struct_command_data_block *record)
{
    console_of(record).enter(Mode::exec);
}

void terminal_length(struct_command_data_block *record)
{
    console_of(record).set_terminal_length(static_cast<int>(record->int_var[0]));
}

void write_memory(struct_command_data_block *record)
{
    if (!accepts_configuration(record))
        return;
    cli_session_t &command = command_of(record);
    command.write("Building configuration...\n");
    command.hold();
    command.core().when_settled([command = command.shared_from_this()] {
        const std::string error = command->core().save_config();
        if (!error.empty())
            command->fail();
        command->write(error.empty() ? "[OK]\n" : "% " + error + "\n");
        command->release();
    });
}

void no_such_interface(cli_session_t &command, std::string_view name)
{
    std::vector<std::string> names = command.core().interfaces().names();
    std::sort(names.begin(), names.end());
    std::string text = "% Interface " + std::string(name) + " does not exist";
    const std::size_t shown = std::min(names.size(), names_shown);
    for (std::size_t i = 0; i < shown; ++i)
        text += (i == 0 ? "; there is " : ", ") + names[i];
    if (shown < names.size())
        text += " and " + std::to_string(names.size() - shown) + " more";
    command.write(text + "\n");
    command.fail();
}

// What follows an `interface` line that fails is meant for that interface: it must not reach the one before.
void enter_interface(struct_command_data_block *record)
{
    Console &console = console_of(record);
    cli_session_t &command = command_of(record);
    const std::string name = record->string_var[0];
    console.enter(Mode::config);
    const IFINDEX ifindex = command.core().interfaces().index_of(name);
    if (ifindex == 0)
        no_such_interface(command, name);
    else
        console.enter_interface(ifindex, name);
}

/// What an operator has written behind `interface range`.
std::string_view range_text(std::string_view line)
{
    const std::vector<Word> words = split_words(line);
    return line.substr(words.at(2).column);
}

void enter_range(struct_command_data_block *record)
{
    Console &console = console_of(record);
    cli_session_t &command = command_of(record);
    console.enter(Mode::config);
    std::string text(range_text(console.line()));
    std::replace(text.begin(), text.end(), ',', ' ');
    std::vector<IFINDEX> members;
    for (const Word &name : split_words(text)) {
        const IFINDEX ifindex = command.core().interfaces().index_of(name.text);
        if (ifindex == 0) {
            no_such_interface(command, name.text);
            return;
        }
        if (std::find(members.begin(), members.end(), ifindex) == members.end())
            members.push_back(ifindex);
    }
    if (members.empty()) {
        command.write("% The range names no interface\n");
        command.fail();
        return;
    }
    console.enter_range(std::move(members));
}

// What the sampling service has yet to confirm would come after the defaults and outlive them.
void default_interface(struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    const std::string name = record->string_var[0];
    const IFINDEX ifindex = command.core().interfaces().index_of(name);
    if (ifindex == 0) {
        no_such_interface(command, name);
        return;
    }
    command.hold();
    command.core().when_settled([command = command.shared_from_this(), name, ifindex] {
        if (lsm_raise_default_event(ifindex) != 0) {
            command->write("% Interface " + name + " could not be returned to its defaults\n");
            command->fail();
        }
        command->release();
    });
}

constexpr u_int64_t USER = CLI_PRIV_USER;
constexpr u_int64_t PRIVILEGED = CLI_PRIV_PRIVILEGED;

// A "no" in front of these means nothing: each tree begins with a test for it.

// exec: enable, disable, configure terminal, exit, write [memory], copy running-config startup-config,
// terminal length N
CLI_NODES(exec_top, exec, en, en_end, dis, dis_end, conf, conf_term, conf_end, ex, leave_end);
CLI_APPEND_POINT(exec_top, exec);
CLI_NOPREFIX(exec, Tno_alt, en);
CLI_KEYWORD(en, "enable", "Turn on privileged commands", USER, en_end, dis);
CLI_EOL(en_end, enable);
CLI_KEYWORD(dis, "disable", "Turn off privileged commands", USER, dis_end, conf);
CLI_EOL(dis_end, disable);
CLI_NODES(wr, wr_end, wr_memory, save_end, cp, cp_run, cp_start, term, term_length, term_lines, term_end);
CLI_KEYWORD(conf, "configure", "Enter configuration mode", PRIVILEGED, conf_term, ex);
CLI_KEYWORD(conf_term, "terminal", "Configure from the terminal", PRIVILEGED, conf_end, Tno_alt);
CLI_EOL(conf_end, configure);
CLI_KEYWORD(ex, "exit", "Leave this mode; in exec mode, end the session", USER, leave_end, wr);
CLI_EOL(leave_end, leave);
CLI_KEYWORD(wr, "write", "Save the running configuration", PRIVILEGED, wr_end, cp);
CLI_EOL_OR(wr_end, write_memory, wr_memory);
CLI_KEYWORD(wr_memory, "memory", "To the startup configuration", PRIVILEGED, save_end, Tno_alt);
CLI_EOL(save_end, write_memory);
CLI_KEYWORD(cp, "copy", "Copy a configuration", PRIVILEGED, cp_run, term);
CLI_KEYWORD(cp_run, "running-config", "From the running configuration", PRIVILEGED, cp_start, Tno_alt);
CLI_KEYWORD(cp_start, "startup-config", "To the startup configuration", PRIVILEGED, save_end, Tno_alt);
CLI_KEYWORD(term, "terminal", "Set terminal parameters", USER, term_length, Tno_alt);
CLI_KEYWORD(term_length, "length", "Lines of a page", USER, term_lines, Tno_alt);
CLI_NUMBER(term_lines, "lines, 0 for no pauses", 0, 512, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), term_end,
           Tno_alt);
CLI_EOL(term_end, terminal_length);

// configuration: interface NAME, interface range LIST, default interface NAME, exit, end
constexpr u_int64_t every_kind = ~u_int64_t{0};
CLI_NODES(config_top, config, intf, intf_range, intf_list, range_end, intf_name, intf_unknown, intf_end, def,
          def_intf, def_name, def_unknown, def_end, config_exit, config_end, config_end_end);
CLI_APPEND_POINT(config_top, config);
CLI_NOPREFIX(config, Tno_alt, intf);
CLI_KEYWORD(intf, "interface", "Configure an interface", USER, intf_range, def);
CLI_KEYWORD(intf_range, "range", "Configure several interfaces at once", USER, intf_list, intf_name);
constinit const RestNode intf_list_arg = {"NAME[, NAME...]", "Interface names"};
constinit const struct_transtion intf_list = {rest_action, &intf_list_arg, &range_end, &Tno_alt};
CLI_EOL(range_end, enter_range);
// The interface node is there for help and completion; the string also takes names that do not exist, so that the
// handler can say what does.
CLI_INTERFACE(intf_name, every_kind, CLI_SLOT(int_var[0]), Tno_alt, intf_unknown);
CLI_STRING(intf_unknown, "", CLI_SLOT(string_var[0]), intf_end, Tno_alt);
CLI_EOL(intf_end, enter_interface);
CLI_KEYWORD(def, "default", "Return to defaults", USER, def_intf, config_exit);
CLI_KEYWORD(def_intf, "interface", "An interface", USER, def_name, Tno_alt);
CLI_INTERFACE(def_name, every_kind, CLI_SLOT(int_var[0]), Tno_alt, def_unknown);
CLI_STRING(def_unknown, "", CLI_SLOT(string_var[0]), def_end, Tno_alt);
CLI_EOL(def_end, default_interface);
CLI_KEYWORD(config_exit, "exit", "Leave this mode", USER, leave_end, config_end);
CLI_KEYWORD(config_end, "end", "Return to exec mode", USER, config_end_end, Tno_alt);
CLI_EOL(config_end_end, end);

// modes below configuration mode: exit, end
CLI_NODES(submode_top, submode_first, submode_exit);
CLI_APPEND_POINT(submode_top, submode_first);
CLI_NOPREFIX(submode_first, Tno_alt, submode_exit);
CLI_KEYWORD(submode_exit, "exit", "Leave this mode", CLI_PRIV_INTERFACE, leave_end, config_end);

// show: running-config [all], startup-config, interfaces [brief | NAME], debugging, version,
// tech-support [file PATH]
CLI_NODES(show_top, run, run_end, run_all, run_all_end, start, start_end, ifs, ifs_end, ifs_brief,
          ifs_brief_end, ifs_name, ifs_name_end, deb, deb_end, ver, ver_end, tech, tech_end, tech_file,
          tech_path, tech_path_end);
CLI_APPEND_POINT(show_top, run);
CLI_KEYWORD(run, "running-config", "Running configuration", PRIVILEGED, run_end, start);
CLI_EOL_OR(run_end, show_running_config, run_all);
CLI_KEYWORD(run_all, "all", "With the values that are defaults", PRIVILEGED, run_all_end, Tno_alt);
CLI_EOL(run_all_end, show_running_config_all);
CLI_KEYWORD(start, "startup-config", "Startup configuration", PRIVILEGED, start_end, ifs);
CLI_EOL(start_end, show_startup_config);
CLI_KEYWORD(ifs, "interfaces", "Interface states and addresses", USER, ifs_end, deb);
CLI_EOL_OR(ifs_end, show_interfaces, ifs_brief);
CLI_KEYWORD(ifs_brief, "brief", "One line for each interface", USER, ifs_brief_end, ifs_name);
CLI_EOL(ifs_brief_end, show_interfaces_brief);
CLI_INTERFACE(ifs_name, every_kind, CLI_SLOT(int_var[0]), ifs_name_end, Tno_alt);
CLI_EOL(ifs_name_end, show_one_interface);
CLI_KEYWORD(deb, "debugging", "Debug switches that are on", USER, deb_end, ver);
CLI_EOL(deb_end, show_debugging);
CLI_KEYWORD(ver, "version", "Version of the software", USER, ver_end, tech);
CLI_EOL(ver_end, show_version);
CLI_KEYWORD(tech, "tech-support", "System information for the support", USER, tech_end, Tno_alt);
CLI_EOL_OR(tech_end, show_tech_support, tech_file);
CLI_KEYWORD(tech_file, "file", "Write it to a file", PRIVILEGED, tech_path, Tno_alt);
CLI_STRING(tech_path, "Name or path of a file that does not exist yet", CLI_SLOT(string_var[0]),
           tech_path_end, Tno_alt);
CLI_EOL(tech_path_end, show_tech_support_file);

struct Tree {
    cli_attach_t attach;
    const struct_transtion *root;
    std::string_view name;
};
constexpr std::array<Tree, 8> trees{{
    {PARSE_ADD_EXEC_TOP_CMD, &exec_top, "service exec commands"},
    {PARSE_ADD_CFG_CMD, &config_top, "service configuration commands"},
    {PARSE_ADD_INTERFACE_CMD, &submode_top, "service interface commands"},
    {PARSE_ADD_ACL_STANDARD_CMD, &submode_top, "service list commands"},
    {PARSE_ADD_ACL_EXTENDED_CMD, &submode_top, "service list commands"},
    {PARSE_ADD_ACL_IPV6_CMD, &submode_top, "service list commands"},
    {PARSE_ADD_ACL_MAC_CMD, &submode_top, "service list commands"},
    {PARSE_ADD_SHOW_CMD, &show_top, "service show commands"},
}};

} // namespace

bool only_changes_mode(cli_handler_t handler)
{
    return handler == leave || handler == end;
}

void add_own_commands(Core &core)
{
    for (const Tree &tree : trees)
        if (!core.add(tree.attach, tree.root, tree.name))
            std::abort();
}

} // namespace cli
