// What `show sflow` and `show sflow status` print, and the diagnostic requests to the sampling service.
#include "dcli_doubles.h"
#include "sflow_cli_msg.h"

#include <cstring>
#include <sstream>

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

constexpr int RED = 20;
constexpr int MGMT_VRF = 30;

struct Show : Case {
    void SetUp() override
    {
        Case::SetUp();
        fake::set_interface(7, {.name = "eth0"});
        fake::set_interface(8, {.name = "bond0"});
        fake::set_vrf(RED, "red");
        fake::set_vrf(MGMT_VRF, LSM_VRF_MGMT_NAME);
    }
};

using Show_sflow = Show;
using Show_status = Show;
using Show_diagnostics = Show;

std::string show(const std::string &line = "show sflow")
{
    const Ran ran = run(line, CLI_MODE_EXEC);
    EXPECT_FALSE(ran.failed);
    return ran.text;
}

Lines lines_between(const std::string &text, const std::string &first, const std::string &last)
{
    Lines lines;
    std::istringstream in(text);
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(last))
            inside = false;
        if (inside)
            lines.push_back(line);
        if (line.starts_with(first))
            inside = true;
    }
    return lines;
}

Lines collector_rows()
{
    return lines_between(show(), "ID ", "Port information");
}
Lines port_rows()
{
    return lines_between(show(), "Interface ", "(none)");
}
Lines source_rows()
{
    return lines_between(show(), "Agent IP", "sflow counter interval");
}

std::string column(const std::string &text, std::size_t width)
{
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string collector_row(const char *id, const char *ip, const char *port, const char *size, const char *vrf)
{
    return column(id, 5) + column(ip, 45) + column(port, 6) + column(size, 5) + column(vrf, 32);
}

sfladdress_t with_source(sfladdress_t record, const char *address)
{
    record.src_type = SFLOW_SOURCE_TYPE_ADDRESS;
    record.src_address = record.type == SFLOW_ADDRESS_TYPE_IPV4 ? ipv4(address) : ipv6(address);
    return record;
}

sfladdress_t in_vrf(sfladdress_t record, int vrf, int mgmt = -1)
{
    record.vrf_index = vrf;
    record.mgmt_index = mgmt;
    return record;
}

} // namespace

TEST_F(Show_sflow, an_unconfigured_agent)
{
    const std::string spaces(32, ' ');
    EXPECT_EQ(
        show(),
        "sflow datagram version 5\n"
        "Global information:\n"
        "Agent IP: NULL\n"
        "sflow counter interval:30\n"
        "sflow flow max-header:64\n"
        "sflow sampling-rate:8192\n"
        "Collector information:\n"
        "ID   IP                                           Port  Size VRF                             \n"
        "1    NULL                                         0     1400 " +
            spaces +
            "\n"
            "2    NULL                                         0     1400 " +
            spaces +
            "\n"
            "Port information\n"
            "Interface                       CID       FID       Enable         \n");
}

TEST_F(Show_sflow, a_configured_agent)
{
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV4, "192.0.2.1");
    sflow_agent.source_ip.is_src_cfg = 1;
    sflow_agent.source_ip.type = 3;
    sflow_agent.source_ip.v4_address = ipv4("192.0.2.2");
    sflow_agent.source_ip.v6_address = ipv6("2001:db8::2");
    sflow_agent.source_ip.used_address[0] = ipv4("192.0.2.2");
    sflow_agent.source_ip.used_address[1] = ipv6("2001:db8::22");
    config() = {4096, 128, 128, 10};
    enable_receiver(1, in_vrf(collector("198.51.100.255"), RED), 6343);
    enable_receiver(2, collector("2001:db8:1111:2222:3333:4444:5555:6666"), 65535);
    sflow_agent.receivers[1].maxdatagramsize = 9000;
    sflow_intf_config_t *intf = add_intf(7);
    intf->cid = 1;
    intf->fid = 2;
    intf->enable = SFLOW_BOTH;
    const std::string spaces(32, ' ');
    EXPECT_EQ(
        show(),
        "sflow datagram version 5\n"
        "Global information:\n"
        "Agent IP: 192.0.2.1\n"
        "Source IP[1]: 192.0.2.2(used: 192.0.2.2)\n"
        "Source IP[2]: 2001:db8::2(used: 2001:db8::22)\n"
        "sflow counter interval:10\n"
        "sflow flow max-header:128\n"
        "sflow sampling-rate:4096\n"
        "Collector information:\n"
        "ID   IP                                           Port  Size VRF                             \n"
        "1    198.51.100.255                               6343  1400 red                             \n"
        "2    2001:db8:1111:2222:3333:4444:5555:6666       65535 9000 " +
            spaces +
            "\n"
            "Port information\n"
            "Interface                       CID       FID       Enable         \n"
            "eth0                            1         2         B              \n");
}

TEST_F(Show_sflow, the_agent_address_of_either_family)
{
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV4, "0.0.0.0", 7);
    EXPECT_NE(show().find("\nAgent IP: 0.0.0.0\n"), std::string::npos);
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV6, "2001:db8::1");
    EXPECT_NE(show().find("\nAgent IP: 2001:db8::1\n"), std::string::npos);
}

TEST_F(Show_sflow, source_lines)
{
    sflow_source_address_t &source = sflow_agent.source_ip;
    source.v4_address = ipv4("192.0.2.2");
    source.v6_address = ipv6("2001:db8::2");
    source.used_address[0] = ipv4("192.0.2.9");
    source.used_address[1] = ipv6("2001:db8::9");
    enable_receiver(1, collector("198.51.100.1"), 1);
    enable_receiver(2, collector("2001:db8::1"), 1);

    struct Row {
        const char *name;
        u_int32_t is_src_cfg;
        u_int32_t type;
        Lines lines;
    };
    const std::vector<Row> rows = {
        {"both families",
         1,
         3,
         {"Source IP[1]: 192.0.2.2(used: 192.0.2.9)", "Source IP[2]: 2001:db8::2(used: 2001:db8::9)"}},
        {"IPv4 only",
         1,
         1,
         {"Source IP[1]: 192.0.2.2(used: 192.0.2.9)", "Source IP[2]: - (used: 2001:db8::9)"}},
        {"IPv6 only",
         1,
         2,
         {"Source IP[1]: - (used: 192.0.2.9)", "Source IP[2]: 2001:db8::2(used: 2001:db8::9)"}},
        {"none, two empty strings", 0, 0, {}},
        {"types of a source that is not configured", 0, 3, {}},
    };
    for (const Row &row : rows) {
        source.is_src_cfg = row.is_src_cfg;
        source.type = row.type;
        EXPECT_EQ(source_rows(), row.lines) << row.name;
    }
}

TEST_F(Show_sflow, a_collectors_own_source_comes_before_the_global_one)
{
    sflow_source_address_t &source = sflow_agent.source_ip;
    source.is_src_cfg = 1;
    source.type = 3;
    source.v4_address = ipv4("192.0.2.2");
    enable_receiver(1, with_source(collector("198.51.100.1"), "192.0.2.7"), 1);
    enable_receiver(2, with_source(collector("2001:db8::1"), "2001:db8::7"), 1);
    EXPECT_EQ(source_rows(),
              (Lines{"Source IP[1]: 192.0.2.7(used: 0.0.0.0)", "Source IP[2]: 2001:db8::7(used: ::)"}));
}

TEST_F(Show_sflow, a_receiver_without_source_repeats_the_line_before)
{
    enable_receiver(1, with_source(collector("198.51.100.1"), "192.0.2.7"), 1);
    enable_receiver(2, collector("198.51.100.2"), 1);
    const std::string line = "Source IP[1]: 192.0.2.7(used: 0.0.0.0)";
    EXPECT_EQ(source_rows(), (Lines{line, line}));
}

TEST_F(Show_sflow, a_disabled_receiver_has_no_source_line)
{
    sflow_agent.source_ip.is_src_cfg = 1;
    sflow_agent.source_ip.type = 1;
    sflow_agent.receivers[0].address = collector("198.51.100.1");
    enable_receiver(2, collector("198.51.100.2"), 1);
    EXPECT_EQ(source_rows(), Lines{"Source IP[2]: 0.0.0.0(used: 0.0.0.0)"});
}

TEST_F(Show_sflow, the_vrf_column_never_shows_the_management_network)
{
    enable_receiver(1, in_vrf(collector("198.51.100.1"), MGMT_VRF), 1);
    enable_receiver(2, in_vrf(collector("198.51.100.2"), RED, 7), 1);
    EXPECT_EQ(collector_rows(), (Lines{collector_row("1", "198.51.100.1", "1", "1400", ""),
                                       collector_row("2", "198.51.100.2", "1", "1400", "")}));
    enable_receiver(2, in_vrf(collector("198.51.100.2"), RED, 0), 1);
    EXPECT_EQ(collector_rows()[1], collector_row("2", "198.51.100.2", "1", "1400", "red"));
}

TEST_F(Show_sflow, a_collector_whose_vrf_has_no_name_is_left_out)
{
    enable_receiver(1, in_vrf(collector("198.51.100.1"), 77), 1);
    enable_receiver(2, collector("198.51.100.2"), 2);
    EXPECT_EQ(collector_rows(), Lines{collector_row("2", "198.51.100.2", "2", "1400", "")});
}

TEST_F(Show_sflow, the_direction_letter_of_a_port)
{
    sflow_intf_config_t *intf = add_intf(7);
    const std::vector<std::pair<u_int32_t, Lines>> rows = {
        {0, {"eth0                            0         0         N              "}},
        {1, {"eth0                            0         0         I              "}},
        {2, {"eth0                            0         0         E              "}},
        {3, {"eth0                            0         0         B              "}},
        {4, {}},
    };
    for (const auto &[enable, lines] : rows) {
        intf->enable = enable;
        EXPECT_EQ(port_rows(), lines) << enable;
    }
}

TEST_F(Show_sflow, a_port_whose_name_is_not_to_be_had_is_skipped)
{
    add_intf(99)->enable = 1;
    add_intf(8)->enable = 1;
    EXPECT_EQ(port_rows(), Lines{"bond0                           0         0         I              "});
    EXPECT_EQ(conf_log(), Lines{"show_sflow_handle: lsm_if_get_name fail\n"});
}

TEST_F(Show_sflow, the_print_flag_chooses_the_output)
{
    add_intf(7)->enable = 1;
    enable_receiver(1, with_source(collector("198.51.100.1"), "192.0.2.7"), 1);
    const std::string printed = show();
    fake::take_cli_text();
    show_sflow(1);
    EXPECT_EQ(fake::take_tech_text(), printed);
    EXPECT_EQ(fake::take_cli_text(), "");
}

TEST_F(Show_sflow, nothing_in_the_running_configuration_pass_or_a_no_form)
{
    struct_command_data_block record{};
    EXPECT_TRUE(fake::print_config(show_sflow_cmd, record).empty());
    record.flag_nd_prefix = 1;
    show_sflow_cmd(&record);
    EXPECT_EQ(fake::take_cli_text(), "");
}

// ---- Status --------------------------------------------------------------------------------------------------

TEST_F(Show_status, a_line_for_everything_that_has_reported)
{
    const std::string lsm = "sflow lsm data over\n";
    const std::string ss = "sflow ss connect success\n";
    const std::string acl = "sflow acl data over\n";
    const std::string ready = "sflow cli ready\n";
    const std::vector<std::pair<u_int32_t, std::string>> rows = {
        {0, ""},       {1, lsm},       {2, ss},       {4, acl},
        {3, lsm + ss}, {5, lsm + acl}, {6, ss + acl}, {7, lsm + ss + acl + ready},
    };
    for (const auto &[flags, text] : rows) {
        sflow_agent.cli_ready_flag = flags;
        g_can_backup = false;
        EXPECT_EQ(show("show sflow status"), text + "sflow cannot rdnd\n") << flags;
        g_can_backup = true;
        EXPECT_EQ(show("show sflow status"), text + "sflow can rdnd\n") << flags;
    }
}

TEST_F(Show_status, the_print_flag_chooses_the_output)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_SS_READY_FLAG;
    show_sflow_status(1);
    EXPECT_EQ(fake::take_tech_text(), "sflow ss connect success\nsflow cannot rdnd\n");
    EXPECT_EQ(fake::take_cli_text(), "");
}

// ---- Diagnostics ---------------------------------------------------------------------------------------------

TEST_F(Show_diagnostics, are_requests_to_the_sampling_service)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"show sflow_lib_info", "type=2 flag=0"},
        {"show sflow_lib_cmd_list", "type=1 flag=0"},
        {"debug_sflow_lib on", "type=3 flag=1"},
        {"debug_sflow_lib off", "type=3 flag=0"},
    };
    for (const auto &[line, request] : rows) {
        forget_calls();
        EXPECT_EQ(run(line, CLI_MODE_EXEC), SILENT) << line;
        EXPECT_EQ(calls("sflow_send_debug_msg"), Lines{request}) << line;
    }
    forget_calls();
    for (const cli_handler_t handler :
         {show_sflow_lib_info_cmd, show_sflow_lib_cmd_cmd, debug_sflow_lib_switch_cmd, show_sflow_status_cmd})
        EXPECT_TRUE(fake::print_config(handler).empty());
    EXPECT_EQ(calls(), Lines{});
}
