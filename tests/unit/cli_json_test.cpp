// Show commands as JSON: what the daemon prints is read whole, and nothing else is.
#include "show_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

using shell::json_form;
using shell::JsonText;
using shell::to_json;
using testing::HasSubstr;

namespace
{

std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> list;
    for (std::string word; in >> word;)
        list.push_back(word);
    return list;
}

JsonText read(const std::string &command, std::string_view text)
{
    const shell::JsonForm *const form = json_form(words(command));
    return form == nullptr ? JsonText{std::nullopt, "no form"} : to_json(*form, text);
}

std::string cell(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string collector(const std::string &id, const std::string &address, const std::string &port,
                      const std::string &size, const std::string &vrf)
{
    return cell(id, 5) + cell(address, 45) + cell(port, 6) + cell(size, 5) + cell(vrf, 32) + "\n";
}

std::string port(const std::string &name, const std::string &cid, const std::string &fid,
                 const std::string &enable)
{
    return cell(name, 32) + cell(cid, 10) + cell(fid, 10) + cell(enable, 15) + "\n";
}

struct Sflow {
    std::string agent = "192.0.2.1";
    std::string sources{};
    std::string collectors =
        collector("1", "NULL", "0", "1400", "") + collector("2", "NULL", "0", "1400", "");
    std::string ports{};

    [[nodiscard]] std::string text() const
    {
        return "sflow datagram version 5\nGlobal information:\nAgent IP: " + agent + "\n" + sources +
               "sflow counter interval:30\nsflow flow max-header:64\nsflow sampling-rate:8192\n" +
               "Collector information:\n" + collector("ID", "IP", "Port", "Size", "VRF") + collectors +
               "Port information\n" + port("Interface", "CID", "FID", "Enable") + ports;
    }
};

const std::string stats = "sflow drop flow num:1\nsflow drop invalid flow num:2\nsflow receive flow num:3\n"
                          "sflow drop counter num:4\nsflow receive counter num:5\nsflow malloc fail num:6\n"
                          "sflow get counter fail num:7\nsflow export packet num:8\n"
                          "sflow export fail num:9\nsflow export flow num:10\nsflow export counter num:11\n"
                          "sflow export sampler fail num:12\nsflow current msg list len:4294967295\n";

const std::string eth0 = "eth0 is up, line protocol is up\n"
                         "  Index 2, type ethernet, address 02:00:00:00:00:01\n"
                         "  MTU 1500 bytes, speed 10000 Mb/s, full duplex\n"
                         "  VRF default, member of br0\n"
                         "  Internet address is 10.0.0.1/24\n"
                         "  Internet address is 10.0.0.9/24 secondary\n"
                         "  IPv6 address is 2001:db8::1/64\n";

} // namespace

TEST(ShowJson_sflow, every_value_has_a_key)
{
    const Sflow sflow{
        .agent = "2001:db8::7",
        .sources = "Source IP[1]: 10.0.0.5(used: 10.0.0.6)\nSource IP[2]: - (used: ::)\n",
        .collectors = collector("1", "192.0.2.10", "6343", "1400", "blue") +
                      collector("2", "2001:db8::2", "65535", "9000", ""),
        .ports = port("eth0", "1", "2", "B") + port("eth1", "0", "0", "N") + port("a,b\"c", "2", "0", "I") +
                 port("bond0", "0", "1", "E"),
    };
    EXPECT_EQ(
        read("show sflow", sflow.text()).document,
        R"({"datagram_version":5,"agent_address":"2001:db8::7",)"
        R"("sources":[{"collector":1,"configured_address":"10.0.0.5","used_address":"10.0.0.6"},)"
        R"({"collector":2,"configured_address":null,"used_address":"::"}],)"
        R"("counter_interval_seconds":30,"max_header_bytes":64,"sampling_rate":8192,)"
        R"("collectors":[{"id":1,"address":"192.0.2.10","port":6343,"max_datagram_bytes":1400,"vrf":"blue"},)"
        R"({"id":2,"address":"2001:db8::2","port":65535,"max_datagram_bytes":9000,"vrf":null}],)"
        R"("interfaces":[{"name":"eth0","counter_collector":1,"flow_collector":2,"enable":"both"},)"
        R"({"name":"eth1","counter_collector":null,"flow_collector":null,"enable":"none"},)"
        R"({"name":"a,b\"c","counter_collector":2,"flow_collector":null,"enable":"ingress"},)"
        R"({"name":"bond0","counter_collector":null,"flow_collector":1,"enable":"egress"}]})");
}

TEST(ShowJson_sflow, what_is_not_configured_is_null)
{
    const JsonText json = read("show sflow", Sflow{.agent = "NULL"}.text());
    ASSERT_TRUE(json.document) << json.error;
    EXPECT_THAT(*json.document, HasSubstr(R"("agent_address":null,"sources":[])"));
    EXPECT_THAT(*json.document,
                HasSubstr(R"({"id":1,"address":null,"port":0,"max_datagram_bytes":1400,"vrf":null})"));
}

TEST(ShowJson_sflow, repeated_source_line_is_one_source)
{
    const std::string line = "Source IP[1]: - (used: 10.0.0.6)\n";
    const JsonText json = read("show sflow", Sflow{.sources = line + line}.text());
    EXPECT_THAT(
        json.document.value_or(json.error),
        HasSubstr(R"("sources":[{"collector":1,"configured_address":null,"used_address":"10.0.0.6"}])"));
}

TEST(ShowJson_sflow, collectors_that_are_left_out_are_missing)
{
    // A collector whose VRF has gone has no row.
    const JsonText json = read("show sflow", Sflow{.collectors = ""}.text());
    EXPECT_THAT(json.document.value_or(json.error), HasSubstr(R"("collectors":[])"));
}

TEST(ShowJson_status, facts_are_true_or_false)
{
    EXPECT_EQ(read("show sflow status", "sflow cannot rdnd\n").document,
              R"({"interface_data":false,"sampling_service":false,"access_lists":false,"ready":false,)"
              R"("redundancy":false})");
    EXPECT_EQ(read("show sflow status", "sflow lsm data over\nsflow ss connect success\nsflow acl data over\n"
                                        "sflow cli ready\nsflow can rdnd\n")
                  .document,
              R"({"interface_data":true,"sampling_service":true,"access_lists":true,"ready":true,)"
              R"("redundancy":true})");
    EXPECT_EQ(read("show sflow status", "sflow ss connect success\nsflow cannot rdnd\n").document,
              R"({"interface_data":false,"sampling_service":true,"access_lists":false,"ready":false,)"
              R"("redundancy":false})");
}

TEST(ShowJson_stats, keys_are_the_words_of_the_lines)
{
    EXPECT_EQ(
        read("show sflow stats", stats).document,
        R"({"drop_flow_num":1,"drop_invalid_flow_num":2,"receive_flow_num":3,"drop_counter_num":4,)"
        R"("receive_counter_num":5,"malloc_fail_num":6,"get_counter_fail_num":7,"export_packet_num":8,)"
        R"("export_fail_num":9,"export_flow_num":10,"export_counter_num":11,"export_sampler_fail_num":12,)"
        R"("current_msg_list_len":4294967295})");
}

TEST(ShowJson_interfaces, every_value_has_a_key)
{
    const std::string others = "x, is administratively down, line protocol is down\n"
                               "  Index 12, type vlan of eth0,, address 00:00:00:00:00:00\n"
                               "  MTU 9000 bytes, speed -\n"
                               "  VRF blue,\n"
                               "v is up, line protocol is down\n"
                               "  Index 13, type virtual, address 00:00:00:00:00:00\n"
                               "  MTU 1500 bytes, speed 100 Mb/s, half duplex\n"
                               "  VRF mgmt\n";
    EXPECT_EQ(read("show interfaces", eth0 + others).document,
              R"({"interfaces":[{"name":"eth0","admin_up":true,"oper_up":true,"index":2,"type":"ethernet",)"
              R"("parent":null,"mac_address":"02:00:00:00:00:01","mtu_bytes":1500,"speed_mbps":10000,)"
              R"("duplex":"full","master":"br0","vrf":"default","addresses":[)"
              R"({"family":"ipv4","address":"10.0.0.1","prefix_length":24,"secondary":false},)"
              R"({"family":"ipv4","address":"10.0.0.9","prefix_length":24,"secondary":true},)"
              R"({"family":"ipv6","address":"2001:db8::1","prefix_length":64,"secondary":false}]},)"
              R"({"name":"x,","admin_up":false,"oper_up":false,"index":12,"type":"vlan","parent":"eth0,",)"
              R"("mac_address":"00:00:00:00:00:00","mtu_bytes":9000,"speed_mbps":null,"duplex":null,)"
              R"("master":null,"vrf":"blue,","addresses":[]},)"
              R"({"name":"v","admin_up":true,"oper_up":false,"index":13,"type":"virtual","parent":null,)"
              R"("mac_address":"00:00:00:00:00:00","mtu_bytes":1500,"speed_mbps":100,"duplex":"half",)"
              R"("master":null,"vrf":"mgmt","addresses":[]}]})");
    EXPECT_EQ(read("show interfaces", "").document, R"({"interfaces":[]})");
}

TEST(ShowJson_to_json, every_truncation_is_refused)
{
    const Sflow sflow{.sources = "Source IP[1]: 10.0.0.5(used: 10.0.0.6)\n",
                      .ports = port("eth0", "1", "2", "B")};
    const std::pair<std::string, std::string> rows[] = {
        {"show sflow", sflow.text()}, {"show sflow stats", stats}, {"show interfaces", eth0}};
    for (const auto &[command, text] : rows) {
        ASSERT_TRUE(read(command, text).document) << command;
        for (std::size_t length = 1; length < text.size(); ++length) {
            const std::string_view cut = std::string_view(text).substr(0, length);
            // Lists may end behind any of their rows.
            const bool whole_row =
                cut.ends_with('\n') && (cut.find("Enable") != cut.npos || cut.find("VRF d") != cut.npos);
            if (!whole_row)
                EXPECT_FALSE(read(command, cut).document) << command << ": " << cut;
        }
    }
}

TEST(ShowJson_to_json, other_bytes_are_refused)
{
    const Sflow sflow{.sources = "Source IP[1]: 10.0.0.5(used: 10.0.0.6)\n",
                      .ports = port("eth0", "1", "2", "B")};
    const std::pair<std::string, std::string> rows[] = {{"show sflow", sflow.text()},
                                                        {"show sflow status", "sflow cannot rdnd\n"},
                                                        {"show sflow stats", stats},
                                                        {"show interfaces", eth0}};
    for (const auto &[command, text] : rows) {
        EXPECT_FALSE(read(command, text + "more\n").document) << command;
        EXPECT_FALSE(read(command, "\n" + text).document) << command;
        for (std::size_t i = 0; i < text.size(); ++i) {
            std::string other = text;
            other[i] = '\t'; // stands in no name and in no text
            EXPECT_FALSE(read(command, other).document) << command << ": " << other;
        }
    }
}

TEST(ShowJson_to_json, line_at_fault_is_named)
{
    EXPECT_EQ(read("show sflow", Sflow{.agent = "10.0.0.256"}.text()).error,
              "line 3 of the output is not what is known of it");
    struct Row {
        const char *command;
        std::string text;
    };
    const Row rows[] = {
        {"show sflow", Sflow{.ports = port("eth0", "1", "2", "X")}.text()},
        {"show sflow", Sflow{.ports = port("eth0", "1", "-2", "B")}.text()},
        {"show sflow", Sflow{.ports = port("", "1", "2", "B")}.text()},
        {"show sflow", Sflow{.ports = "eth0 1 2 B\n"}.text()},
        {"show sflow", Sflow{.sources = "Source IP[1]: 10.0.0.5 (used: 10.0.0.6)\n"}.text()},
        {"show sflow", Sflow{.sources = "Source IP[1]: 010.0.0.5(used: 10.0.0.6)\n"}.text()},
        {"show sflow stats", "sflow drop flow num:4294967296\n"},
        {"show sflow stats", "sflow drop flow num:+1\n"},
        {"show sflow stats", "sflow drop flow num:01\n"},
        {"show interfaces", "% Interface eth9 does not exist\n"},
    };
    for (const Row &row : rows)
        EXPECT_THAT(read(row.command, row.text).error, HasSubstr("is not what is known of it")) << row.text;
}

TEST(ShowJson_to_json, name_that_is_no_utf_8_is_refused)
{
    EXPECT_EQ(read("show sflow", Sflow{.ports = port("eth\xff", "1", "2", "B")}.text()).error,
              "the output has a name that is not UTF-8");
}

TEST(ShowJson_form, belongs_to_full_words)
{
    for (const char *const line :
         {"show sflow", "show sflow status", "show sflow stats", "show interfaces", "show interfaces eth0"})
        EXPECT_NE(json_form(words(line)), nullptr) << line;
    for (const char *const line :
         {"", "show", "sh sflow", "show sflow x", "show interfaces brief", "show interfaces eth0 x",
          "show version", "show interfaces |", "show sflow | include x", "configure terminal"})
        EXPECT_EQ(json_form(words(line)), nullptr) << line;
    EXPECT_EQ(shell::json_commands(),
              "show sflow, show sflow status, show sflow stats, show interfaces [NAME]");
}
