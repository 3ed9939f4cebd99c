// Global commands: agent address, global source, sampling parameters.
#include "dcli_doubles.h"
#include "sflow_dbg.h"

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

constexpr IFINDEX ETH0 = 7;
constexpr IFINDEX ETH1 = 8;
constexpr IFINDEX BARE0 = 9;

struct Global : Case {
    void SetUp() override
    {
        Case::SetUp();
        fake::set_interface(ETH0,
                            {.name = "eth0", .ipv4 = {"10.0.0.7", "10.0.0.77"}, .ipv6 = {"2001:db8::7"}});
        fake::set_interface(ETH1, {.name = "eth1", .ipv4 = {"10.0.0.8"}, .ipv6 = {"2001:db8::8"}});
        fake::set_interface(BARE0, {.name = "bare0"});
    }
};

using Agent_address = Global;
using Agent_interface = Global;
using Source_address = Global;
using Source_interface = Global;
using Sampling_parameters = Global;

void set_source(sflow_source_cfg_type_t kind, u_int32_t type, const char *v4, const char *v6, IFINDEX ifx = 0)
{
    sflow_source_address_t &source = sflow_agent.source_ip;
    source.cfg_type = kind;
    source.type = type;
    source.ifindex = ifx;
    if (v4 != nullptr)
        source.v4_address = ipv4(v4);
    if (v6 != nullptr)
        source.v6_address = ipv6(v6);
}

} // namespace

// ---- Agent address -------------------------------------------------------------------------------------------

TEST_F(Agent_address, a_host_address_is_handed_to_the_core)
{
    EXPECT_EQ(run("sflow agent address 10.0.0.1"), SILENT);
    EXPECT_EQ(run("sflow agent address ipv6 2001:db8::1"), SILENT);
    EXPECT_EQ(calls("sflow_agent_set_address"), (Lines{"cfg_type=1 ifindex=0 type=1 address=10.0.0.1",
                                                       "cfg_type=1 ifindex=0 type=2 address=2001:db8::1"}));
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_agent_address_cmd cfg\n", "set agent ip address:10.0.0.1\n",
                                 "set agent address success\n", "cfg_sflow_agent_address_cmd cfg\n",
                                 "set agent ipv6 address:2001:db8::1\n",
                                 "sflow_is_valid_ipv6\xA3\xBA"
                                 "addr type = 1\n",
                                 "set agent address success\n"}));
}

TEST_F(Agent_address, what_is_no_host_address_is_refused)
{
    for (const char *address : {"127.0.0.1", "0.0.0.0", "224.0.0.1", "255.255.255.255"})
        EXPECT_EQ(run(std::string("sflow agent address ") + address), (Ran{true, "invalid host address.\n"}))
            << address;
    for (const char *address : {"::1", "::", "ff02::1"})
        EXPECT_EQ(run(std::string("sflow agent address ipv6 ") + address),
                  (Ran{true, "invalid ipv6 host address.\n"}))
            << address;
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(run("sflow agent address ipv6 fe80::1"), SILENT);
}

TEST_F(Agent_address, a_refusal_of_the_core_fails_the_command_without_a_word)
{
    results["sflow_agent_set_address"] = -1;
    EXPECT_EQ(run("sflow agent address 10.0.0.1"), (Ran{true, ""}));
    EXPECT_EQ(conf_log().back(), "set agent address fail\n");
}

TEST_F(Agent_address, no_form_deletes_an_explicit_address_only)
{
    EXPECT_EQ(run("no sflow agent address"), SILENT);
    EXPECT_EQ(calls(), Lines{"sflow_agent_del_address type=1"});
    EXPECT_EQ(conf_log(), Lines{"del agent address success\n"});
}

TEST_F(Agent_address, nothing_is_logged_with_the_switches_off)
{
    sflow_debug_conf = false;
    EXPECT_EQ(run("sflow agent address ipv6 2001:db8::1"), SILENT);
    EXPECT_EQ(conf_log(), Lines{});
    sflow_debug_all = true;
    EXPECT_EQ(run("sflow agent address ipv6 2001:db8::1"), SILENT);
    EXPECT_EQ(conf_log().size(), 4U);
}

TEST_F(Agent_address, running_configuration)
{
    EXPECT_EQ(lines_of(cfg_sflow_agent_address_cmd), Lines{});
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.1");
    EXPECT_EQ(lines_of(cfg_sflow_agent_address_cmd), Lines{"sflow agent address 10.0.0.1"});
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV6, "2001:db8::1");
    EXPECT_EQ(lines_of(cfg_sflow_agent_address_cmd), Lines{"sflow agent address ipv6 2001:db8::1"});
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.1", ETH0);
    EXPECT_EQ(lines_of(cfg_sflow_agent_address_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{});
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_INVALID, "0.0.0.0");
    EXPECT_EQ(lines_of(cfg_sflow_agent_address_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{"cfg_sflow_agent_address_cmd invalid type\n"});
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Agent_interface, the_first_address_of_the_family_is_taken)
{
    EXPECT_EQ(run("sflow agent interface eth0"), SILENT);
    EXPECT_EQ(run("sflow agent interface ipv6 eth0"), SILENT);
    EXPECT_EQ(calls("sflow_agent_set_address"), (Lines{"cfg_type=2 ifindex=7 type=1 address=10.0.0.7",
                                                       "cfg_type=2 ifindex=7 type=2 address=2001:db8::7"}));
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_agent_interface_cmd cfg\n", "set agent address success\n",
                                 "cfg_sflow_agent_interface_cmd cfg\n", "set agent address success\n"}));
}

TEST_F(Agent_interface, an_interface_without_address_is_accepted_with_a_zero_address)
{
    EXPECT_EQ(run("sflow agent interface bare0"), SILENT);
    EXPECT_EQ(run("sflow agent interface ipv6 bare0"), SILENT);
    EXPECT_EQ(calls("sflow_agent_set_address"), (Lines{"cfg_type=2 ifindex=9 type=1 address=0.0.0.0",
                                                       "cfg_type=2 ifindex=9 type=2 address=::"}));
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_agent_interface_cmd cfg\n", "Get ip address fail:9\n",
                                 "set agent address success\n", "cfg_sflow_agent_interface_cmd cfg\n",
                                 "Get ipv6 address fail:9\n", "set agent address success\n"}));
}

TEST_F(Agent_interface, a_refusal_of_the_core_is_not_a_failure_of_the_command)
{
    results["sflow_agent_set_address"] = -1;
    EXPECT_EQ(run("sflow agent interface eth0"), SILENT);
    EXPECT_EQ(conf_log().back(), "set agent address success\n");
}

TEST_F(Agent_interface, no_form_deletes_an_interface_address_only)
{
    EXPECT_EQ(run("no sflow agent interface"), SILENT);
    EXPECT_EQ(calls(), Lines{"sflow_agent_del_address type=2"});
    EXPECT_EQ(conf_log(), Lines{"del agent address success\n"});
}

TEST_F(Agent_interface, running_configuration)
{
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{});
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.7", ETH0);
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{"sflow agent interface eth0"});
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV6, "::", ETH0);
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{"sflow agent interface ipv6 eth0"});
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.7");
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{});
}

TEST_F(Agent_interface, running_configuration_leaves_out_what_it_cannot_name)
{
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_INVALID, "0.0.0.0", ETH0);
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{"cfg_sflow_agent_interface_cmd invalid type\n"});
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.7", 99);
    EXPECT_EQ(lines_of(cfg_sflow_agent_interface_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{"cfg_sflow_agent_interface_cmd get interface name fail\n"});
}

// ---- Global source -------------------------------------------------------------------------------------------

TEST_F(Source_address, families_coexist)
{
    set_source(SFLOW_SOURCE_TYPE_ADDRESS, SFLOW_FAMILY_IPV6, nullptr, "2001:db8::1");
    EXPECT_EQ(run("sflow source address 10.0.0.1"), SILENT);
    set_source(SFLOW_SOURCE_TYPE_ADDRESS, SFLOW_FAMILY_IPV4, "10.0.0.1", nullptr);
    sflow_agent.source_ip.v6_address = {};
    EXPECT_EQ(run("sflow source address ipv6 2001:db8::2"), SILENT);
    EXPECT_EQ(calls("sflow_source_set_address"),
              (Lines{"cfg_type=1 ifindex=0 type=3 v4=10.0.0.1 v6=2001:db8::1",
                     "cfg_type=1 ifindex=0 type=3 v4=10.0.0.1 v6=2001:db8::2"}));
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_source_address_cmd cfg\n", "source ip address:10.0.0.1\n",
                                 "set source address success\n", "cfg_sflow_source_address_cmd cfg\n",
                                 "source ipv6 address:2001:db8::2\n",
                                 "sflow_is_valid_ipv6\xA3\xBA"
                                 "addr type = 1\n",
                                 "set source address success\n"}));
}

TEST_F(Source_address, what_is_no_host_address_is_refused)
{
    EXPECT_EQ(run("sflow source address 127.0.0.1"), (Ran{true, "invalid host address.\n"}));
    EXPECT_EQ(run("sflow source address ipv6 ::1"), (Ran{true, "invalid ipv6 host address.\n"}));
    EXPECT_EQ(run("no sflow source address ipv6 ff02::1"), (Ran{true, "invalid ipv6 host address.\n"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Source_address, a_refusal_of_the_core_fails_the_command_without_a_word)
{
    results["sflow_source_set_address"] = -1;
    EXPECT_EQ(run("sflow source address 10.0.0.1"), (Ran{true, ""}));
    EXPECT_EQ(conf_log().back(), "set source address fail\n");
}

TEST_F(Source_address, no_form_removes_a_family_or_everything)
{
    set_source(SFLOW_SOURCE_TYPE_ADDRESS, 3, "10.0.0.1", "2001:db8::1");
    EXPECT_EQ(run("no sflow source address ipv6 2001:db8::1"), SILENT);
    EXPECT_EQ(run("no sflow source address"), SILENT);
    EXPECT_EQ(calls(),
              (Lines{"sflow_source_del_address cfg_type=1 ifindex=0 type=2 v4=0.0.0.0 v6=2001:db8::1",
                     "sflow_source_del_address cfg_type=1 ifindex=0 type=0 v4=0.0.0.0 v6=::"}));
    EXPECT_EQ(conf_log().back(), "del source address success\n");
}

TEST_F(Source_address, running_configuration)
{
    EXPECT_EQ(lines_of(cfg_sflow_source_address_cmd), Lines{});
    set_source(SFLOW_SOURCE_TYPE_ADDRESS, 3, "10.0.0.1", "2001:db8::1");
    EXPECT_EQ(lines_of(cfg_sflow_source_address_cmd),
              (Lines{"sflow source address 10.0.0.1", "sflow source address ipv6 2001:db8::1"}));
    sflow_agent.source_ip.type = SFLOW_FAMILY_IPV4;
    EXPECT_EQ(lines_of(cfg_sflow_source_address_cmd), Lines{"sflow source address 10.0.0.1"});
    sflow_agent.source_ip.type = SFLOW_FAMILY_IPV6;
    EXPECT_EQ(lines_of(cfg_sflow_source_address_cmd), Lines{"sflow source address ipv6 2001:db8::1"});
    sflow_agent.source_ip.cfg_type = SFLOW_SOURCE_TYPE_INTERFACE;
    EXPECT_EQ(lines_of(cfg_sflow_source_address_cmd), Lines{});
}

TEST_F(Source_interface, the_same_interface_gains_a_family)
{
    set_source(SFLOW_SOURCE_TYPE_INTERFACE, SFLOW_FAMILY_IPV4, "10.0.0.7", nullptr, ETH0);
    EXPECT_EQ(run("sflow source interface ipv6 eth0"), SILENT);
    EXPECT_EQ(calls(),
              Lines{"sflow_source_set_address cfg_type=2 ifindex=7 type=3 v4=10.0.0.7 v6=2001:db8::7"});
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_source_interface_cmd cfg\n", "set source interface success\n"}));
}

TEST_F(Source_interface, another_interface_drops_the_first_ones_settings)
{
    set_source(SFLOW_SOURCE_TYPE_INTERFACE, 3, "10.0.0.7", "2001:db8::7", ETH0);
    EXPECT_EQ(run("sflow source interface eth1"), SILENT);
    EXPECT_EQ(calls(), (Lines{"sflow_source_clear",
                              "sflow_source_set_address cfg_type=2 ifindex=8 type=1 v4=10.0.0.8 v6=::"}));
}

TEST_F(Source_interface, an_explicit_source_is_left_to_the_core_to_refuse)
{
    set_source(SFLOW_SOURCE_TYPE_ADDRESS, SFLOW_FAMILY_IPV4, "10.0.0.1", nullptr);
    results["sflow_source_set_address"] = -1;
    EXPECT_EQ(run("sflow source interface eth0"), SILENT);
    EXPECT_EQ(calls("sflow_source_clear"), Lines{});
    EXPECT_EQ(conf_log().back(), "set source interface failed\n");
}

TEST_F(Source_interface, an_interface_without_address_is_taken_with_zeros)
{
    EXPECT_EQ(run("sflow source interface bare0"), SILENT);
    EXPECT_EQ(run("sflow source interface ipv6 bare0"), SILENT);
    EXPECT_EQ(calls("sflow_source_set_address"), (Lines{"cfg_type=2 ifindex=9 type=1 v4=0.0.0.0 v6=::",
                                                        "cfg_type=2 ifindex=9 type=2 v4=0.0.0.0 v6=::"}));
    EXPECT_EQ(conf_log(), (Lines{"cfg_sflow_source_interface_cmd cfg\n", "Get ip address fail:9\n",
                                 "set source interface success\n", "cfg_sflow_source_interface_cmd cfg\n",
                                 "Get ipv6 address fail:9\n", "set source interface success\n"}));
}

TEST_F(Source_interface, no_form_names_a_family_of_the_interface_or_everything)
{
    EXPECT_EQ(run("no sflow source interface ipv6 eth0"), SILENT);
    EXPECT_EQ(run("no sflow source interface"), SILENT);
    EXPECT_EQ(calls(),
              (Lines{"sflow_source_del_address cfg_type=2 ifindex=7 type=2 v4=0.0.0.0 v6=2001:db8::7",
                     "sflow_source_del_address cfg_type=2 ifindex=0 type=0 v4=0.0.0.0 v6=::"}));
    EXPECT_EQ(conf_log(), (Lines{"del source interface success\n", "del source interface success\n"}));
}

TEST_F(Source_interface, running_configuration)
{
    EXPECT_EQ(lines_of(cfg_sflow_source_interface_cmd), Lines{});
    set_source(SFLOW_SOURCE_TYPE_INTERFACE, 3, "10.0.0.7", "2001:db8::7", ETH0);
    EXPECT_EQ(lines_of(cfg_sflow_source_interface_cmd),
              (Lines{"sflow source interface eth0", "sflow source interface ipv6 eth0"}));
    sflow_agent.source_ip.type = SFLOW_FAMILY_IPV6;
    EXPECT_EQ(lines_of(cfg_sflow_source_interface_cmd), Lines{"sflow source interface ipv6 eth0"});
    sflow_agent.source_ip.cfg_type = SFLOW_SOURCE_TYPE_ADDRESS;
    EXPECT_EQ(lines_of(cfg_sflow_source_interface_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{});
    set_source(SFLOW_SOURCE_TYPE_INTERFACE, 3, "10.0.0.7", "2001:db8::7", 99);
    EXPECT_EQ(lines_of(cfg_sflow_source_interface_cmd), Lines{});
    EXPECT_EQ(conf_log(), Lines{"cfg_sflow_source_interface_cmd get interface name fail\n"});
}

// ---- Sampling parameters -------------------------------------------------------------------------------------

TEST_F(Sampling_parameters, a_change_is_stored_and_passed_on)
{
    EXPECT_EQ(run("sflow counter interval 3"), SILENT);
    EXPECT_EQ(run("sflow flow max-header 61"), SILENT);
    EXPECT_EQ(run("sflow sampling-rate 4096"), SILENT);
    EXPECT_EQ(config().interval, 3U);
    EXPECT_EQ(config().maxhlen, 61U);
    EXPECT_EQ(config().sslen, 64U);
    EXPECT_EQ(config().samplingrate, 4096U);
    EXPECT_EQ(calls(), (Lines{"sflow_reset_intf_countdown countdown=3", "sflow_flow_header_len_msg len=64",
                              "sflow_reflush_intf_config rate=4096"}));
}

TEST_F(Sampling_parameters, the_header_length_is_sent_in_whole_words)
{
    const std::vector<std::pair<int, int>> rows = {{18, 20}, {60, 60}, {61, 64}, {253, 256}, {256, 256}};
    for (const auto &[entered, sent] : rows) {
        EXPECT_EQ(run("sflow flow max-header " + std::to_string(entered)), SILENT);
        EXPECT_EQ(calls("sflow_flow_header_len_msg").back(), "len=" + std::to_string(sent)) << entered;
        EXPECT_EQ(config().sslen, static_cast<u_int32_t>(sent)) << entered;
    }
}

TEST_F(Sampling_parameters, a_value_in_effect_changes_and_sends_nothing)
{
    for (const char *line :
         {"sflow counter interval 30", "sflow flow max-header 64", "sflow sampling-rate 8192",
          "no sflow counter interval", "no sflow flow max-header", "no sflow sampling-rate"})
        EXPECT_EQ(run(line), SILENT) << line;
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(config().samplingrate, 8192U);
}

TEST_F(Sampling_parameters, no_form_restores_the_defaults)
{
    config() = {16777215, 256, 256, 2147483647};
    EXPECT_EQ(run("no sflow counter interval"), SILENT);
    EXPECT_EQ(run("no sflow flow max-header"), SILENT);
    EXPECT_EQ(run("no sflow sampling-rate"), SILENT);
    EXPECT_EQ(config().interval, 30U);
    EXPECT_EQ(config().maxhlen, 64U);
    EXPECT_EQ(config().sslen, 64U);
    EXPECT_EQ(config().samplingrate, 8192U);
    EXPECT_EQ(calls(), (Lines{"sflow_reset_intf_countdown countdown=30", "sflow_flow_header_len_msg len=64",
                              "sflow_reflush_intf_config rate=8192"}));
}

TEST_F(Sampling_parameters, running_configuration_marks_what_is_not_the_default)
{
    const auto print = [](cli_handler_t handler) {
        const fake::ConfigLine line = fake::print_config(handler).at(0);
        return (line.non_default ? "" : "default: ") + line.text;
    };
    EXPECT_EQ(print(cfg_sflow_counter_interval_cmd), "default: sflow counter interval 30");
    EXPECT_EQ(print(cfg_sflow_flow_maxheader_cmd), "default: sflow flow max-header 64");
    EXPECT_EQ(print(cfg_sflow_sampling_rate_cmd), "default: sflow sampling-rate 8192");
    config() = {16777215, 18, 20, 2147483647};
    EXPECT_EQ(print(cfg_sflow_counter_interval_cmd), "sflow counter interval 2147483647");
    EXPECT_EQ(print(cfg_sflow_flow_maxheader_cmd), "sflow flow max-header 18");
    EXPECT_EQ(print(cfg_sflow_sampling_rate_cmd), "sflow sampling-rate 16777215");
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Sampling_parameters, the_running_configuration_pass_changes_nothing)
{
    struct_command_data_block record{};
    record.int_var[0] = 5000;
    record.flag_nd_prefix = 1;
    fake::print_config(cfg_sflow_sampling_rate_cmd, record);
    fake::print_config(cfg_sflow_flow_maxheader_cmd, record);
    fake::print_config(cfg_sflow_counter_interval_cmd, record);
    fake::print_config(cfg_sflow_agent_address_cmd, record);
    fake::print_config(cfg_sflow_agent_interface_cmd, record);
    fake::print_config(cfg_sflow_source_address_cmd, record);
    fake::print_config(cfg_sflow_source_interface_cmd, record);
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(config().samplingrate, 8192U);
}

TEST_F(Sampling_parameters, commands_print_no_line_of_configuration)
{
    for (const char *line :
         {"sflow counter interval 5", "sflow flow max-header 100", "sflow sampling-rate 5000",
          "sflow agent address 10.0.0.1", "sflow source address 10.0.0.1"})
        run(line);
    EXPECT_TRUE(fake::config_lines().empty());
}
