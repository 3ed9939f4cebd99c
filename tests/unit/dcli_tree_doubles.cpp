#include "dcli_tree_doubles.h"

#include <arpa/inet.h>

#include <algorithm>

namespace dcli
{

std::map<std::string, int> guard_answers;

namespace
{

/// Kinds of interfaces that no argument takes.
constexpr u_int32_t NEVER_ACCEPTED = 0x201010;

std::string address_text(const u_int8_t *bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    const bool is_ipv4 = std::all_of(bytes + 4, bytes + 16, [](u_int8_t b) { return b == 0; });
    inet_ntop(is_ipv4 ? AF_INET : AF_INET6, bytes, text, sizeof(text));
    return text;
}

/// Everything a tree may write, but for what is zero.
std::string slots(const struct_command_data_block &record)
{
    std::vector<std::string> parts;
    const auto number = [&](const std::string &name, int64_t value) {
        if (value != 0)
            parts.push_back(name + "=" + std::to_string(value));
    };
    if (record.flag_nd_prefix != 0)
        parts.emplace_back("no");
    number("flag_1", record.flag_1);
    number("flag_2", record.flag_2);
    number("flag_3", record.flag_3);
    number("flag_5", record.flag_5);
    number("flag_subcmd", record.flag_subcmd);
    for (int i = 0; i < CLI_INT_VARS; i++)
        number("int" + std::to_string(i), record.int_var[i]);
    for (int i = 0; i < CLI_ADDR_VARS; i++) {
        if (std::any_of(record.paddr_var[i], record.paddr_var[i] + 16, [](u_int8_t b) { return b != 0; }))
            parts.push_back("addr" + std::to_string(i) + "=" + address_text(record.paddr_var[i]));
    }
    for (int i = 0; i < CLI_STRING_VARS; i++) {
        if (record.string_var[i][0] != '\0')
            parts.push_back("string" + std::to_string(i) + "=" + record.string_var[i]);
    }
    std::string text;
    for (const std::string &part : parts)
        text += (text.empty() ? "" : " ") + part;
    return text;
}

std::string called; ///< handler of the last line
std::string found;  ///< and what it found

void note(const char *handler, struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        c2p_printf(1, record, "%s", handler);
        return;
    }
    called = handler;
    found = slots(*record);
}

} // namespace

void Command_tree::SetUp()
{
    fake::reset();
    guard_answers = {
        {"any", 1}, {"ingress", 1}, {"egress", 1}, {"both", 1}, {"acl", 1}, {"snoop", 1},
    };
    fake::set_interface(ETH0, {.name = "eth0"});
    fake::set_interface(MGMT0, {.name = "mgmt0", .kind = LSM_IF_KIND_PORT | LSM_IF_KIND_MANAGEMENT});
    fake::set_interface(OTHER0, {.name = "other0", .kind = NEVER_ACCEPTED});
    cli_add_command(PARSE_ADD_CFG_CMD, &sflow_tree_show_run_interface, "interface sflow show run");
    cli_add_command(PARSE_ADD_INTERFACE_CMD, &sflow_tree_interface, "interface sflow config");
    cli_add_command(PARSE_ADD_SHOW_CMD, &sflow_tree_show, "sflow show");
    cli_add_command(PARSE_ADD_CFG_CMD, &sflow_tree_global, "sflow config");
    cli_add_command(PARSE_ADD_CFG_AFT_INTF_CMD, &sflow_tree_after_interfaces, "ipfix after interface");
    cli_add_command(PARSE_ADD_SHOW_CMD, &sflow_tree_service_info, "show sflow ss debug info");
    cli_add_command(PARSE_ADD_EXEC_TOP_CMD, &sflow_tree_service_debug, "debug sflow switch");
}

std::string run_line(const std::string &line, const fake::Place &place)
{
    called.clear();
    found.clear();
    switch (fake::cli_run(line, place).kind) {
    case Kind::run:
        return found.empty() ? called : called + ": " + found;
    case Kind::invalid:
        return "invalid";
    case Kind::ambiguous:
        return "ambiguous";
    case Kind::incomplete:
        return "incomplete";
    default:
        return "empty";
    }
}

void check(const std::vector<Row> &rows, const fake::Place &place)
{
    for (const Row &row : rows)
        EXPECT_EQ(run_line(row.line, place), row.result) << row.line;
}

} // namespace dcli

using namespace dcli;

#define HANDLER(name)                                                                                        \
    void name(struct_command_data_block *record)                                                             \
    {                                                                                                        \
        note(#name, record);                                                                                 \
    }

HANDLER(cfg_sflow_agent_address_cmd)
HANDLER(cfg_sflow_agent_interface_cmd)
HANDLER(cfg_sflow_source_address_cmd)
HANDLER(cfg_sflow_source_interface_cmd)
HANDLER(cfg_sflow_collector_dest_cmd)
HANDLER(cfg_sflow_collector_maxlen_cmd)
HANDLER(cfg_sflow_collector_c2p)
HANDLER(cfg_sflow_counter_interval_cmd)
HANDLER(cfg_sflow_flow_maxheader_cmd)
HANDLER(cfg_sflow_sampling_rate_cmd)
HANDLER(intf_sflow_enable_cmd)
HANDLER(intf_sflow_enable_snoop_cmd)
HANDLER(intf_sflow_enable_acl_cmd)
HANDLER(intf_sflow_counter_collector_cmd)
HANDLER(intf_sflow_flow_collector_cmd)
HANDLER(show_sflow_cmd)
HANDLER(show_sflow_status_cmd)
HANDLER(show_sflow_lib_info_cmd)
HANDLER(show_sflow_lib_cmd_cmd)
HANDLER(debug_sflow_lib_switch_cmd)
HANDLER(sflow_debug_statis_cmd)

void cfg_sflow_show_run_interface_cmd(struct_command_data_block *record)
{
    c2p_printf(1, record, "interface section");
    cli_change_mode(record, CLI_MODE_INTERFACE, 1);
    cli_walkthrought_node(record, CLI_MODE_INTERFACE, cli_get_mode_root(CLI_MODE_INTERFACE));
    cli_change_mode(record, CLI_MODE_CONFIG, 1);
}

// The value 2 shows that a guard passes on what is not zero as 1.
#define GUARD(name, key)                                                                                     \
    int name(struct_command_data_block *)                                                                    \
    {                                                                                                        \
        return guard_answers[key] != 0 ? 2 : 0;                                                              \
    }

GUARD(sflow_interface_test, "any")
GUARD(sflow_interface_ingress_test, "ingress")
GUARD(sflow_interface_egress_test, "egress")
GUARD(sflow_interface_both_test, "both")
GUARD(sflow_interface_acl_test, "acl")
GUARD(sflow_interface_snoop_test, "snoop")
