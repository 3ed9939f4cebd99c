// Collector commands and the collectors' running configuration.
#include "dcli_doubles.h"

#include <cstring>

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

constexpr IFINDEX ETH0 = 7;
constexpr IFINDEX BARE0 = 9;
constexpr IFINDEX MGMT0 = 11;
constexpr IFINDEX LOST0 = 12;
constexpr int RED = 20;
constexpr int MGMT_VRF = 30;

struct Collector : Case {
    void SetUp() override
    {
        Case::SetUp();
        fake::set_interface(ETH0, {.name = "eth0", .ipv4 = {"10.0.0.7"}, .ipv6 = {"2001:db8::7"}});
        fake::set_interface(BARE0, {.name = "bare0"});
        fake::set_interface(MGMT0, {.name = "mgmt0", .kind = LSM_IF_KIND_MANAGEMENT, .vrf = MGMT_VRF});
        fake::set_interface(LOST0, {.name = "lost0", .kind = LSM_IF_KIND_MANAGEMENT, .vrf = -1});
        fake::set_vrf(RED, "red");
    }
};

using Collector_destination = Collector;
using Collector_datagram_size = Collector;
using Collector_configuration = Collector;

void set_mgmt_vrf()
{
    fake::set_vrf(MGMT_VRF, LSM_VRF_MGMT_NAME);
}

/// What the last accepted destination command handed to the receiver.
std::string set_by(const std::string &line)
{
    forget_calls();
    EXPECT_EQ(run(line), SILENT) << line;
    const Lines sets = calls("sflow_receiver_set_collector");
    return sets.size() == 1 ? sets[0] : "not set";
}

std::string dest(const std::string &rest)
{
    return "sflow collector 1 destination " + rest;
}

} // namespace

// ---- Destination: the record that is built -------------------------------------------------------------------

TEST_F(Collector_destination, the_record_says_what_the_line_says)
{
    set_mgmt_vrf();
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"10.0.0.1 6343", "cid=1 port=6343 type=1 vrf=0 mgmt=-1 address=10.0.0.1"},
        {"ipv6 2001:db8::1 65535", "cid=1 port=65535 type=2 vrf=0 mgmt=-1 address=2001:db8::1"},
        {"10.0.0.1 1 vrf red", "cid=1 port=1 type=1 vrf=20 mgmt=-1 address=10.0.0.1"},
        {"10.0.0.1 1 oob", "cid=1 port=1 type=1 vrf=30 mgmt=-1 address=10.0.0.1"},
        {"10.0.0.1 1 oob via mgmt0", "cid=1 port=1 type=1 vrf=30 mgmt=11 address=10.0.0.1"},
        {"10.0.0.1 1 description rack-4", "cid=1 port=1 type=1 vrf=0 mgmt=-1 address=10.0.0.1 desc=rack-4"},
        {"10.0.0.1 1 source address 10.0.0.2",
         "cid=1 port=1 type=1 vrf=0 mgmt=-1 address=10.0.0.1 src_type=1 src=10.0.0.2 ifindex=0"},
        {"ipv6 2001:db8::1 1 source address 2001:db8::2",
         "cid=1 port=1 type=2 vrf=0 mgmt=-1 address=2001:db8::1 src_type=1 src=2001:db8::2 ifindex=0"},
        {"10.0.0.1 1 source interface eth0",
         "cid=1 port=1 type=1 vrf=0 mgmt=-1 address=10.0.0.1 src_type=2 src=10.0.0.7 ifindex=7"},
        {"ipv6 2001:db8::1 1 source interface eth0",
         "cid=1 port=1 type=2 vrf=0 mgmt=-1 address=2001:db8::1 src_type=2 src=2001:db8::7 ifindex=7"},
        {"10.0.0.1 1 source interface bare0",
         "cid=1 port=1 type=1 vrf=0 mgmt=-1 address=10.0.0.1 src_type=2 src=0.0.0.0 ifindex=9"},
        {"ipv6 2001:db8::1 1 source interface bare0",
         "cid=1 port=1 type=2 vrf=0 mgmt=-1 address=2001:db8::1 src_type=2 src=:: ifindex=9"},
    };
    for (const auto &[rest, record] : rows)
        EXPECT_EQ(set_by(dest(rest)), record) << rest;
}

TEST_F(Collector_destination, the_record_is_zero_beyond_what_the_line_says)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343 description ab")), SILENT);
    sfladdress_t expected = collector("10.0.0.1");
    std::memcpy(expected.desc, "ab", 2);
    EXPECT_EQ(std::memcmp(&sflow_agent.receivers[0].address, &expected, sizeof(expected)), 0);
}

TEST_F(Collector_destination, the_log_follows_the_parts_of_the_line)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343 vrf red description ab source address 10.0.0.2")), SILENT);
    const Lines expected = {
        "set collect 1 dest:10.0.0.1\n",
        "set collect 1 source address:10.0.0.2\n",
        "set collect 1 vrf 20\n",
        "set collect 1 description\n",
        "set collect 1 dest success\n",
        "[sflow_cli_c2p_reform] No enough memory available for create sflow cli reform timer.\n",
        "cfg_sflow_collector_dest_cmd c2p reform failure.\n",
    };
    EXPECT_EQ(conf_log(), expected);
}

TEST_F(Collector_destination, a_description_has_at_most_64_characters)
{
    const std::string longest(64, 'd');
    EXPECT_EQ(set_by(dest("10.0.0.1 1 description " + longest)),
              "cid=1 port=1 type=1 vrf=0 mgmt=-1 address=10.0.0.1 desc=" + longest);
    forget_calls();
    // Judged before everything else.
    EXPECT_EQ(run(dest("127.0.0.1 1 description d" + longest)),
              (Ran{true, "Invalid sflow collector description.\n"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Collector_destination, what_is_no_host_address_is_refused)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"127.0.0.1 1", "invalid host address.\n"},
        {"ipv6 ::1 1", "invalid ipv6 host address.\n"},
        {"10.0.0.1 1 source address 224.0.0.1", "invalid host address.\n"},
        {"ipv6 2001:db8::1 1 source address ff02::1", "invalid ipv6 host address.\n"},
    };
    for (const auto &[rest, text] : rows) {
        EXPECT_EQ(run(dest(rest)), (Ran{true, text})) << rest;
        EXPECT_EQ(run("no " + dest(rest)), (Ran{true, text})) << rest;
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 0U);
}

TEST_F(Collector_destination, a_vrf_that_does_not_exist_is_refused)
{
    EXPECT_EQ(run(dest("10.0.0.1 1 vrf blue")), (Ran{true, "VRF blue is not configured\n"}));
    EXPECT_EQ(conf_log().back(), "set collect 1 vrf is not existed\n");
    EXPECT_EQ(run(dest("10.0.0.1 1 oob")), (Ran{true, "VRF &#~_hidden_vrf_mgmt_0_@^$ is not configured\n"}));
    EXPECT_EQ(run(dest("10.0.0.1 1 oob via lost0")), (Ran{true, "mgmt 12 vrf is not existed\n"}));
    EXPECT_EQ(conf_log().back(), "set collect 1 oob mgmt 12 vrf is not exist\n");
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Collector_destination, via_logs_the_management_interface)
{
    EXPECT_EQ(run(dest("10.0.0.1 1 oob via mgmt0")), SILENT);
    const Lines log = conf_log();
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(log[1], "set collect 1 oob mgmt 11 \n");
    EXPECT_EQ(log[2], "set collect 1 vrf 30\n");
}

TEST_F(Collector_destination, sources_are_logged_by_family)
{
    run(dest("ipv6 2001:db8::1 1 source address 2001:db8::2"));
    Lines log = conf_log();
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(log[0], "set collect 1 dest:2001:db8::1\n");
    EXPECT_EQ(log[2], "set collect 1 source ipv6 address:2001:db8::2\n");
    run(dest("10.0.0.1 1 source interface bare0"));
    log = conf_log();
    ASSERT_GE(log.size(), 2U);
    EXPECT_EQ(log[1], "Get ip address fail:9\n");
    run(dest("ipv6 2001:db8::1 1 source interface bare0"));
    log = conf_log();
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(log[2], "Get ipv6 address fail:9\n");
}

// ---- Destination: what becomes of it -------------------------------------------------------------------------

TEST_F(Collector_destination, a_change_asks_for_a_new_running_configuration)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343")), SILENT);
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 1U);
    const Lines log = conf_log();
    ASSERT_GE(log.size(), 2U);
    EXPECT_EQ(log[log.size() - 3], "set collect 1 dest success\n");
    // No thread master here: the timer cannot be armed.
    EXPECT_EQ(log.back(), "cfg_sflow_collector_dest_cmd c2p reform failure.\n");
}

TEST_F(Collector_destination, entering_it_twice_changes_and_says_nothing)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343")), SILENT);
    forget_calls();
    fake::forget_calls();
    EXPECT_EQ(run(dest("10.0.0.1 6343")), SILENT);
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 0U);
    EXPECT_EQ(set_by(dest("10.0.0.1 6344")), "cid=1 port=6344 type=1 vrf=0 mgmt=-1 address=10.0.0.1");
    EXPECT_EQ(set_by(dest("10.0.0.1 6344 description x")),
              "cid=1 port=6344 type=1 vrf=0 mgmt=-1 address=10.0.0.1 desc=x");
}

TEST_F(Collector_destination, the_other_collectors_place_is_taken_whatever_the_port)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343")), SILENT);
    forget_calls();
    fake::forget_calls();
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.1 9999"),
              (Ran{false, "The same ip address is already configured!\n"}));
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.1 9999 source interface eth0"),
              (Ran{false, "The same ip address is already configured!\n"}));
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 0U);
}

TEST_F(Collector_destination, another_description_network_or_address_is_another_place)
{
    set_mgmt_vrf();
    for (const char *rest : {"10.0.0.1 6343 description second", "10.0.0.1 6343 vrf red",
                             "10.0.0.1 6343 oob via mgmt0", "10.0.0.2 6343", "ipv6 2001:db8::1 6343"}) {
        sflow_agent.receivers[1].is_enable = false;
        sflow_agent.receivers[1].address = {};
        enable_receiver(1, collector("10.0.0.1"), 6343);
        forget_calls();
        EXPECT_EQ(run(std::string("sflow collector 2 destination ") + rest), SILENT) << rest;
        EXPECT_EQ(calls("sflow_receiver_set_collector").size(), 1U) << rest;
    }
}

TEST_F(Collector_destination, through_another_management_interface_is_another_place)
{
    fake::set_interface(13, {.name = "mgmt1", .kind = LSM_IF_KIND_MANAGEMENT, .vrf = MGMT_VRF});
    EXPECT_EQ(run(dest("10.0.0.1 1 oob via mgmt0")), SILENT);
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.1 1 oob via mgmt1"), SILENT);
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.1 1 oob via mgmt0"),
              (Ran{false, "The same ip address is already configured!\n"}));
}

TEST_F(Collector_destination, the_agent_address_is_refused)
{
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.1");
    const Ran refused = {true, "% Sflow collector destination address is same as sflow agent address.\n"};
    EXPECT_EQ(run(dest("10.0.0.1 6343")), refused);
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 0U);
    set_agent(SFLOW_AGENT_TYPE_INTERFACE, SFLOW_ADDRESS_TYPE_IPV6, "2001:db8::1", ETH0);
    EXPECT_EQ(run(dest("ipv6 2001:db8::1 6343")), refused);
    EXPECT_EQ(run(dest("10.0.0.1 6343")), SILENT);
}

TEST_F(Collector_destination, a_failure_of_the_receiver_fails_the_command_without_a_word)
{
    results["sflow_receiver_set_collector"] = -1;
    EXPECT_EQ(run(dest("10.0.0.1 6343")), (Ran{true, ""}));
    const Lines log = conf_log();
    EXPECT_EQ(log.at(log.size() - 3), "set collect 1 dest fail\n");
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 1U);
}

TEST_F(Collector_destination, no_form_removes_what_the_arguments_identify)
{
    EXPECT_EQ(run("no " + dest("10.0.0.1 6343 vrf red description x source interface eth0")), SILENT);
    EXPECT_EQ(calls(),
              Lines{"sflow_receiver_del_collector cid=1 port=6343 type=1 vrf=20 mgmt=-1 address=10.0.0.1 "
                    "src_type=2 src=10.0.0.7 ifindex=7 desc=x"});
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 1U);
    const Lines log = conf_log();
    EXPECT_EQ(log.at(log.size() - 3), "del collect 1 dest success\n");
    EXPECT_EQ(log.back(), "cfg_sflow_collector_dest_cmd c2p reform failure.\n");
}

TEST_F(Collector_destination, no_form_asks_neither_the_other_collector_nor_the_agent_address)
{
    enable_receiver(2, collector("10.0.0.1"), 6343);
    set_agent(SFLOW_AGENT_TYPE_ADDRESS, SFLOW_ADDRESS_TYPE_IPV4, "10.0.0.1");
    EXPECT_EQ(run("no " + dest("10.0.0.1 6343")), SILENT);
    EXPECT_EQ(calls("sflow_receiver_del_collector").size(), 1U);
}

// ---- Datagram size -------------------------------------------------------------------------------------------

TEST_F(Collector_datagram_size, is_set_and_returned_to_its_default)
{
    EXPECT_EQ(run("sflow collector 2 max-datagram-size 500"), SILENT);
    EXPECT_EQ(run("no sflow collector 2 max-datagram-size"), SILENT);
    EXPECT_EQ(calls(), (Lines{"sflow_receiver_set_max_datagramsize cid=2 size=500",
                              "sflow_receiver_set_max_datagramsize cid=2 size=1400"}));
    EXPECT_EQ(conf_log(), (Lines{"set collector max datagram size success:500\n",
                                 "del collector max datagram size success\n"}));
}

// ---- Running configuration -----------------------------------------------------------------------------------

TEST_F(Collector_configuration, nothing_without_collectors)
{
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{});
}

TEST_F(Collector_configuration, every_form_of_the_destination_line_is_the_line_that_was_entered)
{
    set_mgmt_vrf();
    for (const char *rest : {
             "10.1.1.1 6343",
             "ipv6 2001:db8::1 6343",
             "10.1.1.1 6343 vrf red",
             "10.1.1.1 6343 oob",
             "10.1.1.1 6343 oob via mgmt0",
             "10.1.1.1 6343 description rack-4",
             "10.1.1.1 6343 source address 10.0.0.2",
             "ipv6 2001:db8::1 6343 source address 2001:db8::2",
             "10.1.1.1 6343 source interface eth0",
             "10.1.1.1 65535 vrf red description rack-4 source address 10.0.0.2",
             "ipv6 2001:db8::1 1 oob via mgmt0 description rack-4 source interface eth0",
         }) {
        EXPECT_EQ(run(dest(rest)), SILENT) << rest;
        EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{dest(rest)});
    }
}

TEST_F(Collector_configuration, collectors_come_in_order_with_their_sizes)
{
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.2 6343"), SILENT);
    sflow_agent.receivers[0].maxdatagramsize = 200;
    sflow_agent.receivers[1].maxdatagramsize = 9000;
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p),
              (Lines{"sflow collector 1 max-datagram-size 200", "sflow collector 2 destination 10.0.0.2 6343",
                     "sflow collector 2 max-datagram-size 9000"}));
}

TEST_F(Collector_configuration, a_collector_of_a_vanished_vrf_is_removed_on_the_way)
{
    EXPECT_EQ(run(dest("10.0.0.1 6343 vrf red")), SILENT);
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.2 6343"), SILENT);
    fake::remove_vrf(RED);
    forget_calls();
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{"sflow collector 2 destination 10.0.0.2 6343"});
    EXPECT_EQ(calls(),
              Lines{"sflow_receiver_del_collector cid=1 port=6343 type=1 vrf=20 mgmt=-1 address=10.0.0.1"});
    EXPECT_FALSE(sflow_agent.receivers[0].is_enable);
}

TEST_F(Collector_configuration, no_line_without_the_name_of_an_interface)
{
    set_mgmt_vrf();
    EXPECT_EQ(run(dest("10.0.0.1 6343 oob via mgmt0")), SILENT);
    EXPECT_EQ(run("sflow collector 2 destination 10.0.0.2 6343 source interface eth0"), SILENT);
    fake::remove_interface(MGMT0);
    fake::remove_interface(ETH0);
    conf_log();
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{});
    const std::string text = "cfg_sflow_collector_print_address get interface name fail\n";
    EXPECT_EQ(conf_log(), (Lines{text, text}));
}

TEST_F(Collector_configuration, an_oob_collector_in_the_default_vrf_shows_no_network)
{
    sfladdress_t record = collector("10.0.0.1");
    record.mgmt_index = MGMT0;
    enable_receiver(1, record, 6343);
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{dest("10.0.0.1 6343")});
}

TEST_F(Collector_configuration, the_longest_line_fits)
{
    const std::string description(64, 'd');
    const std::string name(63, 'i');
    fake::set_interface(14, {.name = name, .ipv6 = {"2001:db8::14"}});
    const std::string line = dest("ipv6 2001:db8:1111:2222:3333:4444:5555:6666 65535 vrf red description " +
                                  description + " source interface " + name);
    EXPECT_EQ(run(line), SILENT);
    EXPECT_EQ(lines_of(cfg_sflow_collector_c2p), Lines{line});
}
