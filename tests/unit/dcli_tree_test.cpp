// The command trees: which lines are commands, which handler each reaches, and what it finds in its record.
#include "dcli_tree_doubles.h"

#include <algorithm>
#include <string>
#include <vector>

using namespace dcli;

// ---- Global configuration ------------------------------------------------------------------------------------

TEST_F(Command_tree, agent_address)
{
    const std::string cmd = "cfg_sflow_agent_address_cmd";
    check({
        {"sflow agent address 10.0.0.1", cmd + ": flag_1=1 addr0=10.0.0.1"},
        {"sflow agent address ipv6 2001:db8::1", cmd + ": flag_1=2 addr0=2001:db8::1"},
        {"no sflow agent address", cmd + ": no"},
        {"no sflow agent address 10.0.0.1", "invalid"},
        {"sflow agent address", "incomplete"},
        {"sflow agent address ipv6", "incomplete"},
        {"sflow agent address ipv6 10.0.0.1", "invalid"},
        {"sflow agent address 2001:db8::1", "invalid"},
        {"sflow agent address 10.0.0", "invalid"},
        {"sflow agent address 10.0.0.1 x", "invalid"},
    });
}

TEST_F(Command_tree, agent_interface_stands_after_the_interfaces)
{
    const std::string cmd = "cfg_sflow_agent_interface_cmd";
    check({
        {"sflow agent interface eth0", cmd + ": flag_1=1 int0=7"},
        {"sflow agent interface ipv6 eth0", cmd + ": flag_1=2 int0=7"},
        {"no sflow agent interface", cmd + ": no"},
        {"no sflow agent interface eth0", "invalid"},
        {"sflow agent interface mgmt0", cmd + ": flag_1=1 int0=9"},
        {"sflow agent interface other0", "invalid"},
        {"sflow agent interface nowhere", "invalid"},
        {"sflow agent interface", "incomplete"},
    });
}

TEST_F(Command_tree, source_address)
{
    const std::string cmd = "cfg_sflow_source_address_cmd";
    check({
        {"sflow source address 10.0.0.1", cmd + ": flag_1=1 addr0=10.0.0.1"},
        {"sflow source address ipv6 2001:db8::1", cmd + ": flag_1=2 addr0=2001:db8::1"},
        {"no sflow source address", cmd + ": no"},
        {"no sflow source address ipv6 2001:db8::1", cmd + ": no flag_1=2 addr0=2001:db8::1"},
        {"no sflow source address 10.0.0.1", "invalid"},
        {"no sflow source address ipv6", "incomplete"},
        {"sflow source address", "incomplete"},
    });
}

TEST_F(Command_tree, source_interface)
{
    const std::string cmd = "cfg_sflow_source_interface_cmd";
    check({
        {"sflow source interface eth0", cmd + ": flag_1=1 int0=7"},
        {"sflow source interface ipv6 eth0", cmd + ": flag_1=2 int0=7"},
        {"no sflow source interface", cmd + ": no"},
        {"no sflow source interface ipv6 eth0", cmd + ": no flag_1=2 int0=7"},
        {"no sflow source interface eth0", "invalid"},
        {"no sflow source interface ipv6", "incomplete"},
        {"sflow source interface other0", "invalid"},
        {"sflow source interface", "incomplete"},
    });
}

TEST_F(Command_tree, collector_destination)
{
    const std::string dest = "sflow collector 1 destination ";
    const std::string cmd = "cfg_sflow_collector_dest_cmd: ";
    const std::string v4 = cmd + "flag_1=1";
    const std::string at = " int0=1 int1=6343";
    check({
        {dest + "10.0.0.1 6343", v4 + at + " addr0=10.0.0.1"},
        {dest + "ipv6 2001:db8::1 6343", cmd + "flag_1=2" + at + " addr0=2001:db8::1"},
        {"sflow collector 2 destination 10.0.0.1 1", v4 + " int0=2 int1=1 addr0=10.0.0.1"},
        {dest + "10.0.0.1 6343 vrf red", v4 + " flag_2=1" + at + " addr0=10.0.0.1 string0=red"},
        {dest + "10.0.0.1 6343 oob", v4 + " flag_2=2" + at + " addr0=10.0.0.1"},
        {dest + "10.0.0.1 6343 oob via mgmt0", v4 + " flag_2=2 flag_5=1" + at + " int3=9 addr0=10.0.0.1"},
        {dest + "10.0.0.1 6343 description rack-4", v4 + at + " addr0=10.0.0.1 string1=rack-4"},
        {dest + "10.0.0.1 6343 source address 10.0.0.2",
         v4 + " flag_3=1" + at + " addr0=10.0.0.1 addr1=10.0.0.2"},
        {dest + "ipv6 2001:db8::1 6343 source address 2001:db8::2",
         cmd + "flag_1=2 flag_3=1" + at + " addr0=2001:db8::1 addr1=2001:db8::2"},
        {dest + "10.0.0.1 6343 source interface eth0", v4 + " flag_3=2" + at + " int4=7 addr0=10.0.0.1"},
        {dest + "10.0.0.1 6343 vrf red description rack-4 source interface eth0",
         v4 + " flag_2=1 flag_3=2" + at + " int4=7 addr0=10.0.0.1 string0=red string1=rack-4"},
        {dest + "10.0.0.1 6343 oob via mgmt0 description rack-4 source address 10.0.0.2",
         v4 + " flag_2=2 flag_3=1 flag_5=1" + at + " int3=9 addr0=10.0.0.1 addr1=10.0.0.2 string1=rack-4"},
        {dest + "10.0.0.1 6343 oob description via", v4 + " flag_2=2" + at + " addr0=10.0.0.1 string1=via"},
    });
}

TEST_F(Command_tree, collector_destination_no_form_takes_the_whole_syntax)
{
    const std::string cmd = "cfg_sflow_collector_dest_cmd: no flag_1=1";
    check({
        {"no sflow collector 1 destination 10.0.0.1 6343", cmd + " int0=1 int1=6343 addr0=10.0.0.1"},
        {"no sflow collector 1 destination 10.0.0.1 6343 vrf red description rack-4 source interface eth0",
         cmd + " flag_2=1 flag_3=2 int0=1 int1=6343 int4=7 addr0=10.0.0.1 string0=red string1=rack-4"},
        {"no sflow collector 1 destination", "incomplete"},
        {"no sflow collector 1", "incomplete"},
    });
}

TEST_F(Command_tree, collector_destination_refused_forms)
{
    const std::string dest = "sflow collector 1 destination ";
    check({
        {"sflow collector 0 destination 10.0.0.1 6343", "invalid"},
        {"sflow collector 3 destination 10.0.0.1 6343", "invalid"},
        {dest + "10.0.0.1", "incomplete"},
        {dest + "10.0.0.1 0", "invalid"},
        {dest + "10.0.0.1 65536", "invalid"},
        {dest + "10.0.0.1 6343 vrf red oob", "invalid"},
        {dest + "10.0.0.1 6343 oob via eth0", "invalid"},
        {dest + "10.0.0.1 6343 oob via", "incomplete"},
        {dest + "10.0.0.1 6343 via mgmt0", "invalid"},
        {dest + "10.0.0.1 6343 description rack-4 vrf red", "invalid"},
        {dest + "10.0.0.1 6343 source address 10.0.0.2 description rack-4", "invalid"},
        {dest + "10.0.0.1 6343 source", "incomplete"},
        {dest + "10.0.0.1 6343 source interface other0", "invalid"},
    });
}

TEST_F(Command_tree, collector_source_address_is_of_the_destinations_family)
{
    check({
        {"sflow collector 1 destination ipv6 2001::1 6343 source address 10.0.0.1", "invalid"},
        {"sflow collector 1 destination 10.0.0.1 6343 source address 2001::1", "invalid"},
    });
}

TEST_F(Command_tree, collector_datagram_size)
{
    const std::string cmd = "cfg_sflow_collector_maxlen_cmd: ";
    check({
        {"sflow collector 1 max-datagram-size 200", cmd + "int0=1 int1=200"},
        {"sflow collector 2 max-datagram-size 9000", cmd + "int0=2 int1=9000"},
        {"no sflow collector 2 max-datagram-size", cmd + "no int0=2"},
        {"no sflow collector 2 max-datagram-size 1400", "invalid"},
        {"sflow collector 1 max-datagram-size", "incomplete"},
        {"sflow collector 3 max-datagram-size 1400", "invalid"},
    });
}

TEST_F(Command_tree, number_ranges_end_where_they_should)
{
    struct Range {
        std::string before;
        int64_t minimum;
        int64_t maximum;
    };
    const std::vector<Range> ranges = {
        {"sflow collector 1 max-datagram-size ", 200, 9000},
        {"sflow collector 1 destination 10.0.0.1 ", 1, 65535},
        {"sflow flow max-header ", 18, 256},
        {"sflow counter interval ", 3, 2147483647},
        {"sflow sampling-rate ", 4096, 16777215},
    };
    for (const Range &range : ranges) {
        const auto is_command = [&](int64_t number) {
            return fake::cli_match(range.before + std::to_string(number)).kind == Kind::run;
        };
        EXPECT_FALSE(is_command(range.minimum - 1)) << range.before;
        EXPECT_TRUE(is_command(range.minimum)) << range.before;
        EXPECT_TRUE(is_command(range.maximum)) << range.before;
        EXPECT_FALSE(is_command(range.maximum + 1)) << range.before;
    }
}

TEST_F(Command_tree, sampling_parameters)
{
    check({
        {"sflow flow max-header 61", "cfg_sflow_flow_maxheader_cmd: int0=61"},
        {"no sflow flow max-header", "cfg_sflow_flow_maxheader_cmd: no"},
        {"no sflow flow max-header 61", "invalid"},
        {"sflow counter interval 3", "cfg_sflow_counter_interval_cmd: int0=3"},
        {"no sflow counter interval", "cfg_sflow_counter_interval_cmd: no"},
        {"no sflow counter interval 3", "invalid"},
        {"sflow sampling-rate 16777215", "cfg_sflow_sampling_rate_cmd: int0=16777215"},
        {"no sflow sampling-rate", "cfg_sflow_sampling_rate_cmd: no"},
        {"no sflow sampling-rate 8192", "invalid"},
        {"sflow", "incomplete"},
        {"no sflow", "incomplete"},
    });
}

TEST_F(Command_tree, global_keywords_abbreviate_to_one_character)
{
    check({
        {"s a a 10.0.0.1", "cfg_sflow_agent_address_cmd: flag_1=1 addr0=10.0.0.1"},
        {"s f m 61", "cfg_sflow_flow_maxheader_cmd: int0=61"},
        {"s s 4096", "ambiguous"},
        {"s c i 3", "ambiguous"},
    });
}

TEST_F(Command_tree, running_configuration_calls_each_handler_once_in_order_of_the_trees)
{
    std::vector<std::string> lines;
    fake::running_config();
    for (const fake::ConfigLine &line : fake::take_config_lines())
        lines.push_back(line.text);
    const std::vector<std::string> expected = {
        "cfg_sflow_agent_address_cmd",
        "cfg_sflow_collector_c2p",
        "cfg_sflow_flow_maxheader_cmd",
        "cfg_sflow_counter_interval_cmd",
        "cfg_sflow_sampling_rate_cmd",
        "cfg_sflow_source_address_cmd",
        "cfg_sflow_source_interface_cmd",
        "interface section",
        "intf_sflow_counter_collector_cmd",
        "intf_sflow_flow_collector_cmd",
        "intf_sflow_enable_acl_cmd",
        "intf_sflow_enable_snoop_cmd",
        "intf_sflow_enable_cmd",
        "cfg_sflow_agent_interface_cmd",
    };
    EXPECT_EQ(lines, expected);
}

// ---- Interface mode ------------------------------------------------------------------------------------------

TEST_F(Command_tree, interface_collectors)
{
    const std::string counter = "intf_sflow_counter_collector_cmd";
    const std::string flow = "intf_sflow_flow_collector_cmd";
    check(
        {
            {"sflow counter collector 1", counter + ": int0=1"},
            {"sflow counter collector 2", counter + ": int0=2"},
            {"no sflow counter collector", counter + ": no"},
            {"no sflow counter collector 1", "invalid"},
            {"sflow counter collector 0", "invalid"},
            {"sflow counter collector 3", "invalid"},
            {"sflow counter collector", "incomplete"},
            {"sflow flow collector 1", flow + ": int0=1"},
            {"sflow flow collector 2", flow + ": int0=2"},
            {"no sflow flow collector", flow + ": no"},
            {"no sflow flow collector 1", "invalid"},
            {"sflow flow collector 3", "invalid"},
        },
        fake::interface(ETH0));
}

TEST_F(Command_tree, interface_enable_where_everything_can_be_sampled)
{
    check(
        {
            {"sflow enable", "intf_sflow_enable_cmd: int0=3"},
            {"no sflow enable", "intf_sflow_enable_cmd: no int0=3"},
            {"sflow enable ingress", "intf_sflow_enable_cmd: int0=1"},
            {"no sflow enable ingress", "intf_sflow_enable_cmd: no int0=1"},
            {"sflow enable egress", "intf_sflow_enable_cmd: int0=2"},
            {"no sflow enable egress", "intf_sflow_enable_cmd: no int0=2"},
            {"sflow enable ingress by-snoop", "intf_sflow_enable_snoop_cmd: flag_1=1 int0=1"},
            {"no sflow enable ingress by-snoop", "intf_sflow_enable_snoop_cmd: no flag_1=1 int0=1"},
            {"sflow enable ingress acl 5", "intf_sflow_enable_acl_cmd: flag_2=1 int0=1 int3=5"},
            {"no sflow enable ingress acl 5", "intf_sflow_enable_acl_cmd: no flag_2=1 int0=1 int3=5"},
            {"sflow enable ingress acl web", "intf_sflow_enable_acl_cmd: flag_2=1 int0=1 string2=web"},
            {"no sflow enable ingress acl web", "intf_sflow_enable_acl_cmd: no flag_2=1 int0=1 string2=web"},
            {"sflow enable ingress acl", "incomplete"},
            {"sflow enable egress acl 5", "invalid"},
            {"sflow enable egress by-snoop", "invalid"},
            {"sflow enable ingress egress", "invalid"},
        },
        fake::interface(ETH0));
}

TEST_F(Command_tree, acl_argument_is_a_number_when_it_can_be_one)
{
    const std::string cmd = "intf_sflow_enable_acl_cmd: flag_2=1 int0=1 ";
    check(
        {
            {"sflow enable ingress acl 1", cmd + "int3=1"},
            {"sflow enable ingress acl 2899", cmd + "int3=2899"},
            {"sflow enable ingress acl 2900", cmd + "string2=2900"},
            {"sflow enable ingress acl 0", cmd + "string2=0"},
        },
        fake::interface(ETH0));
}

TEST_F(Command_tree, interface_commands_are_offered_as_the_guards_say)
{
    struct GuardRow {
        std::string absent; ///< guards that fail, by blanks
        std::vector<Row> lines;
    };
    const std::string plain = "intf_sflow_enable_cmd: int0=";
    const std::vector<GuardRow> rows = {
        {"any",
         {{"sflow counter collector 1", "invalid"}, {"sflow enable", "invalid"}, {"sflow", "incomplete"}}},
        {"egress both",
         {{"sflow enable", "incomplete"},
          {"sflow enable ingress", plain + "1"},
          {"sflow enable egress", "invalid"}}},
        {"ingress both",
         {{"sflow enable ingress", "invalid"},
          {"sflow enable egress", plain + "2"},
          {"sflow enable", "incomplete"}}},
        {"both", {{"sflow enable", "incomplete"}, {"sflow enable egress", plain + "2"}}},
        {"acl",
         {{"sflow enable ingress acl 5", "invalid"},
          {"no sflow enable ingress acl 5", "invalid"},
          {"sflow enable ingress by-snoop", "intf_sflow_enable_snoop_cmd: flag_1=1 int0=1"},
          {"sflow enable ingress", plain + "1"}}},
        {"snoop",
         {{"sflow enable ingress by-snoop", "invalid"},
          {"no sflow enable ingress by-snoop", "invalid"},
          {"sflow enable ingress acl 5", "intf_sflow_enable_acl_cmd: flag_2=1 int0=1 int3=5"}}},
        {"acl snoop",
         {{"sflow enable ingress", plain + "1"},
          {"sflow enable ingress acl 5", "invalid"},
          {"sflow enable ingress by-snoop", "invalid"}}},
        {"ingress egress both",
         {{"sflow enable ingress", "invalid"},
          {"sflow enable", "invalid"},
          {"sflow flow collector 1", "intf_sflow_flow_collector_cmd: int0=1"}}},
    };
    for (const GuardRow &row : rows) {
        SCOPED_TRACE(row.absent);
        for (auto &[name, answer] : guard_answers)
            answer = (" " + row.absent + " ").find(" " + name + " ") == std::string::npos ? 1 : 0;
        check(row.lines, fake::interface(ETH0));
    }
}

TEST_F(Command_tree, test_expressions_leave_their_name_in_the_record)
{
    const auto swap_of = [](const char *line) -> std::string {
        const char *name = fake::cli_match(line, fake::interface(ETH0)).record.contex_swap;
        return name == nullptr ? "" : name;
    };
    EXPECT_EQ(swap_of("sflow counter collector 1"), "testexp_intf_sflow_test");
    EXPECT_EQ(swap_of("sflow enable ingress by-snoop"), "testexp_intf_sflow_enable_ingress_snoop_test");
    EXPECT_EQ(swap_of("sflow enable"), "testexp_intf_sflow_enable_both_test");
    guard_answers["both"] = 0;
    guard_answers["egress"] = 0;
    guard_answers["snoop"] = 0;
    EXPECT_EQ(swap_of("sflow enable ingress acl 5"), "testexp_intf_sflow_enable_ingress_snoop_test");
    const char *name =
        fake::cli_match("sflow collector 1 destination 1.1.1.1 1 source address 2.2.2.2").record.contex_swap;
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "testexp_cfg_sflow_collector_src_addr_test");
}

// ---- Exec mode -----------------------------------------------------------------------------------------------

TEST_F(Command_tree, show_commands)
{
    check(
        {
            {"show sflow", "show_sflow_cmd"},
            {"show sflow stats", "sflow_debug_statis_cmd"},
            {"show sflow status", "show_sflow_status_cmd"},
            {"show sflow sta", "ambiguous"},
            {"show sflow x", "invalid"},
            {"show sflow_lib_info", "show_sflow_lib_info_cmd"},
            {"show sflow_lib_cmd_list", "show_sflow_lib_cmd_cmd"},
            {"debug_sflow_lib on", "debug_sflow_lib_switch_cmd: int0=1"},
            {"debug_sflow_lib off", "debug_sflow_lib_switch_cmd"},
            {"debug_sflow_lib", "incomplete"},
        },
        CLI_MODE_EXEC);
}

TEST_F(Command_tree, hidden_keywords_need_their_first_characters_and_are_not_listed)
{
    check(
        {
            {"show sflow_l", "invalid"},
            {"show sflow_li", "show_sflow_lib_info_cmd"},
            {"show sflow_lib_c", "show_sflow_lib_cmd_cmd"},
            {"debug on", "invalid"},
            {"debug_ on", "debug_sflow_lib_switch_cmd: int0=1"},
        },
        CLI_MODE_EXEC);
    for (const fake::Help &choice : fake::cli_help("show sf", CLI_MODE_EXEC))
        EXPECT_EQ(choice.text, "sflow");
    for (const fake::Help &choice : fake::cli_help("debug_", CLI_MODE_EXEC))
        EXPECT_EQ(choice.text.find("debug_"), std::string::npos);
}

TEST_F(Command_tree, status_and_diagnostics_are_for_privileged_operators)
{
    fake::Place user(CLI_MODE_EXEC);
    user.privileged = false;
    check(
        {
            {"show sflow", "show_sflow_cmd"},
            {"show sflow stats", "sflow_debug_statis_cmd"},
            {"show sflow status", "invalid"},
            {"show sflow_lib_info", "invalid"},
            {"debug_sflow_lib on", "invalid"},
        },
        user);
}
