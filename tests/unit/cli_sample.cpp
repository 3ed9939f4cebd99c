#include "cli_sample.h"

#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <map>

namespace sample
{

Calls calls;

namespace
{

constexpr u_int64_t port_kind = 0x1;
constexpr u_int64_t aggregate_kind = 0x20000;
constexpr u_int64_t management_kind = 0x100000;

void note(const char *handler, struct_command_data_block *record)
{
    calls.handler = handler;
    calls.record = *record;
    if (calls.fail)
        cli_client_execmd_fail(record);
}

bool printing(const struct_command_data_block *record)
{
    return (record->parser_status & (CLI_PARSER_C2P | CLI_PARSER_C2P_REFORM)) != 0;
}

void fan_speed(struct_command_data_block *record)
{
    if (printing(record)) {
        c2p_printf(calls.speed != 5 ? 1 : 0, record, "fan speed %d", calls.speed);
        return;
    }
    note("fan_speed", record);
    if (calls.fail)
        return;
    calls.speed = record->flag_nd_prefix != 0 ? 5 : static_cast<int>(record->int_var[0]);
    calls.speeds.push_back(calls.speed);
}

void fan_name(struct_command_data_block *record)
{
    if (printing(record)) {
        if (!calls.name.empty())
            c2p_printf(1, record, "fan name %s\n", calls.name.c_str());
        return;
    }
    note("fan_name", record);
    calls.name = record->string_var[0];
}

void fan_controller(struct_command_data_block *record)
{
    note("fan_controller", record);
}

void fan_probe(struct_command_data_block *record)
{
    note("fan_probe", record);
}

void fan_turbo(struct_command_data_block *record)
{
    note("fan_turbo", record);
}

void fan_mode(struct_command_data_block *record)
{
    note("fan_mode", record);
}

void fan_blow(struct_command_data_block *record)
{
    note("fan_blow", record);
}

void fan_enable(struct_command_data_block *record)
{
    if (printing(record)) {
        c2p_printf(1, record, "fan enable");
        return;
    }
    note("fan_enable", record);
    calls.interfaces.push_back(record->mode_intidx);
    if (calls.failing_interface != 0 && record->mode_intidx == calls.failing_interface)
        cli_client_execmd_fail(record);
}

void fan_after(struct_command_data_block *record)
{
    if (printing(record))
        c2p_printf(1, record, "fan after");
    else
        note("fan_after", record);
}

void interface_sections(struct_command_data_block *record)
{
    for (const char *const name : {"eth0", "eth1"}) {
        c2p_printf(1, record, "interface %s", name);
        record->mode_intidx = name[3] == '0' ? 2 : 3;
        cli_change_mode(record, CLI_MODE_INTERFACE, 1);
        cli_walkthrought_node(record, CLI_MODE_INTERFACE, cli_get_mode_root(CLI_MODE_INTERFACE));
        cli_change_mode(record, CLI_MODE_CONFIG, 1);
        c2p_printf(1, record, "!");
    }
}

void show_fan(struct_command_data_block *record)
{
    note("show_fan", record);
    cli_printf("fan speed is %d\nfan is turning\nno alarm\n", calls.speed);
}

void show_fan_secret(struct_command_data_block *record)
{
    note("show_fan_secret", record);
}

void debug_fan(struct_command_data_block *record)
{
    note("debug_fan", record);
}

int testfunc_turbo(struct_command_data_block * /*record*/)
{
    return calls.turbo_possible ? 1 : 0;
}

int testexp_turbo(struct_command_data_block *record, const struct_transtion *t)
{
    record->contex_swap = "testexp_turbo";
    return test_expression_action(record, t);
}

int testfunc_v6(struct_command_data_block *record)
{
    return record->flag_1 == 2 ? 1 : 0;
}

int testexp_v6(struct_command_data_block *record, const struct_transtion *t)
{
    record->contex_swap = "testexp_v6";
    return test_expression_action(record, t);
}

// Narrows the range to what the controller can do.
void half_range(struct_command_data_block *record, int64_t *minimum, int64_t *maximum)
{
    if (record->flag_2 == 1)
        *maximum = *minimum + (*maximum - *minimum) / 2;
}

constexpr u_int64_t USER = CLI_PRIV_USER;

// fan speed <1-9>, no fan speed
CLI_NODES(config_top, fan, speed, speed_c2p, speed_no, speed_value, speed_end);
// fan name WORD
CLI_NODES(name, name_c2p, name_text, name_end);
// fan controller A.B.C.D | ipv6 X:X::X:X  [backup ADDRESS of the same family]
CLI_NODES(controller, v6_word, v6_set, v6_address, v4_set, v4_address, backup, backup_or_end, backup_test,
          backup_v6, backup_v4, controller_end);
// fan probe (hidden)
CLI_NODES(probe, probe_end);
// fan turbo, while it is possible
CLI_NODES(turbo_test, turbo, turbo_end);
// fan mode {automatic | auto}
CLI_NODES(mode, automatic, autos, mode_end);
// fan blow INTERFACE [half] [<0-100>], the interface not one of the management network
CLI_NODES(blow, blow_port, blow_choice, blow_half, blow_value, blow_end);

CLI_APPEND_POINT(config_top, fan);
CLI_KEYWORD(fan, "fan", "Configure the fan", USER, speed, Tno_alt);
CLI_KEYWORD(speed, "speed", "fan speed", USER, speed_c2p, name);
CLI_C2P(speed_c2p, fan_speed, speed_no, Tno_alt);
CLI_NOPREFIX(speed_no, speed_end, speed_value);
CLI_NUMBER(speed_value, "thousands of revolutions", 1, 9, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), speed_end,
           Tno_alt);
CLI_EOL(speed_end, fan_speed);

CLI_KEYWORD(name, "name", "fan name", USER, name_c2p, controller);
CLI_C2P(name_c2p, fan_name, name_text, Tno_alt);
CLI_STRING(name_text, "name", CLI_SLOT(string_var[0]), name_end, Tno_alt);
CLI_EOL(name_end, fan_name);

CLI_KEYWORD(controller, "controller", "fan controller", USER, v6_word, probe);
CLI_KEYWORD(v6_word, "ipv6", "ipv6", USER, v6_set, v4_set);
CLI_SET(v6_set, CLI_SLOT(flag_1), 2, v6_address);
CLI_IPV6(v6_address, "ipv6 address", CLI_SLOT(paddr_var[0]), backup_or_end, Tno_alt);
CLI_SET(v4_set, CLI_SLOT(flag_1), 1, v4_address);
CLI_IPV4(v4_address, "ip address", CLI_SLOT(paddr_var[0]), backup_or_end, Tno_alt);
CLI_EOL_OR(backup_or_end, fan_controller, backup);
CLI_KEYWORD(backup, "backup", "second controller", USER, backup_test, Tno_alt);
CLI_TEST(backup_test, testexp_v6, testfunc_v6, backup_v6, backup_v4);
CLI_IPV6(backup_v6, "ipv6 address", CLI_SLOT(paddr_var[1]), controller_end, Tno_alt);
CLI_IPV4(backup_v4, "ip address", CLI_SLOT(paddr_var[1]), controller_end, Tno_alt);
CLI_EOL(controller_end, fan_controller);

CLI_HIDDEN_KEYWORD(probe, "probe", "probe the fan", CLI_PRIV_PRIVILEGED, 4, probe_end, turbo_test);
CLI_EOL(probe_end, fan_probe);

CLI_TEST(turbo_test, testexp_turbo, testfunc_turbo, turbo, mode);
CLI_KEYWORD(turbo, "turbo", "more wind", USER, turbo_end, mode);
CLI_EOL(turbo_end, fan_turbo);

CLI_KEYWORD(mode, "mode", "who sets the speed", USER, automatic, blow);
CLI_VALUE_KEYWORD(automatic, "automatic", "the controller", USER, CLI_SLOT(int_var[1]), 7, mode_end, autos);
CLI_VALUE_KEYWORD(autos, "auto", "the driver", USER, CLI_SLOT(int_var[1]), &calls, mode_end, Tno_alt);
CLI_EOL(mode_end, fan_mode);

CLI_KEYWORD(blow, "blow", "cool an interface", USER, blow_port, Tno_alt);
CLI_INTERFACE(blow_port, 0xFFDFEFEF & ~management_kind, CLI_SLOT(int_var[3]), blow_choice, Tno_alt);
CLI_NOP(blow_choice, blow_half, blow_value);
CLI_VALUE_KEYWORD(blow_half, "half", "with half the range", USER, CLI_SLOT(flag_2), 1, blow_value, Tno_alt);
constinit const struct_common_number blow_value_arg = {
    "percent", 0, 100, half_range, CLI_NUMBER_FLAG, CLI_SLOT(int_var[2])};
constinit const struct_transtion blow_value = {common_number_action, &blow_value_arg, &blow_end, &blow_end};
CLI_EOL(blow_end, fan_blow);

// printed after the interfaces: fan after
CLI_NODES(after_top, after_fan, after, after_c2p, after_end);
CLI_APPEND_POINT(after_top, after_fan);
CLI_KEYWORD(after_fan, "fan", "Configure the fan", USER, after, Tno_alt);
CLI_KEYWORD(after, "after", "after the interfaces", USER, after_c2p, Tno_alt);
CLI_C2P(after_c2p, fan_after, after_end, Tno_alt);
CLI_EOL(after_end, fan_after);

CLI_NODES(sections_top, sections_c2p);
CLI_APPEND_POINT(sections_top, sections_c2p);
CLI_C2P(sections_c2p, interface_sections, Tno_alt, Tno_alt);

// interface mode: [no] fan enable; the handler is named by two c2p nodes
CLI_NODES(interface_top, interface_fan, enable, enable_c2p, enable_no, enable_no_c2p, enable_end);
CLI_APPEND_POINT(interface_top, interface_fan);
CLI_KEYWORD(interface_fan, "fan", "fan configure", CLI_PRIV_INTERFACE, enable, Tno_alt);
CLI_KEYWORD(enable, "enable", "enable the fan", CLI_PRIV_INTERFACE, enable_no, Tno_alt);
CLI_NOPREFIX(enable_no, enable_no_c2p, enable_c2p);
CLI_C2P(enable_no_c2p, fan_enable, enable_end, Tno_alt);
CLI_C2P(enable_c2p, fan_enable, enable_end, Tno_alt);
CLI_EOL(enable_end, fan_enable);

// show fan [secret], show fancy_internals (hidden)
CLI_NODES(show_top, show, show_end, secret, secret_end, internals, internals_end);
CLI_APPEND_POINT(show_top, show);
CLI_KEYWORD(show, "fan", "show the fan", USER, show_end, internals);
CLI_EOL_OR(show_end, show_fan, secret);
CLI_KEYWORD(secret, "secret", "show what users do not see", CLI_PRIV_PRIVILEGED, secret_end, Tno_alt);
CLI_EOL(secret_end, show_fan_secret);
CLI_HIDDEN_KEYWORD(internals, "fancy_internals", "internals", CLI_PRIV_PRIVILEGED, 5, internals_end, Tno_alt);
CLI_EOL(internals_end, show_fan_secret);

// debug fan
CLI_NODES(debug_top, debug, debug_end);
CLI_APPEND_POINT(debug_top, debug);
CLI_KEYWORD(debug, "fan", "fan debugging", CLI_PRIV_DEBUG, debug_end, Tno_alt);
CLI_EOL(debug_end, debug_fan);

struct Interface {
    u_int32_t index;
    u_int64_t kinds;
};
const std::map<std::string, Interface, std::less<>> known{{"eth0", {2, port_kind}},
                                                          {"eth1", {3, port_kind}},
                                                          {"bond0", {10, aggregate_kind}},
                                                          {"mgmt0", {20, management_kind}}};

} // namespace

const std::vector<Tree> &trees()
{
    static const std::vector<Tree> list{{PARSE_ADD_CFG_CMD, &sections_top, "interface fan show run"},
                                        {PARSE_ADD_INTERFACE_CMD, &interface_top, "interface fan"},
                                        {PARSE_ADD_SHOW_CMD, &show_top, "fan show"},
                                        {PARSE_ADD_CFG_CMD, &config_top, "fan config"},
                                        {PARSE_ADD_CFG_AFT_INTF_CMD, &after_top, "fan after interfaces"},
                                        {PARSE_ADD_EXEC_DEBUG_CMD, &debug_top, "fan debug"}};
    return list;
}

cli::InterfaceDirectory interfaces()
{
    return {.index_of =
                [](std::string_view wanted) {
                    const auto found = known.find(wanted);
                    return found == known.end() ? 0 : found->second.index;
                },
            .kinds_of =
                [](u_int32_t ifindex) {
                    for (const auto &[ignored, interface] : known)
                        if (interface.index == ifindex)
                            return interface.kinds;
                    return u_int64_t{0};
                },
            .names =
                [] {
                    std::vector<std::string> names;
                    for (const auto &[interface, ignored] : known)
                        names.push_back(interface);
                    return names;
                }};
}

cli::Grammar grammar()
{
    cli::Grammar grammar;
    for (const Tree &tree : trees())
        if (!grammar.add(tree.attach, tree.root, tree.name))
            std::abort();
    return grammar;
}

std::string ipv4_slot(const struct_command_data_block &record, int slot)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, record.paddr_var[slot], text.data(), text.size());
    return text.data();
}

} // namespace sample
