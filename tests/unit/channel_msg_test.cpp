// Messages to the sampling service: layouts byte by byte, registration of the handlers, the replay of the configuration.
#include "channel_support.h"

#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"

#include <gmock/gmock.h>

using namespace channel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

char *data(Bytes &record)
{
    return reinterpret_cast<char *>(record.data());
}

/// Stops printing what the code under test logs when no debug switch is on.
void switches_off()
{
    sflow_debug_conf = sflow_debug_event = false;
}

class Messages : public AgentTest
{
protected:
    Messages()
    {
        sflow_intf_support_flag = 0;
        sflow_hw_support_is_set = 0;
    }

    static void refuse_sends()
    {
        answer_sends([](int) { return -1; });
    }
};

// Suites are named after what they test.
using CliMsg_get_counter_msg = Messages;
using CliMsg_flow_header_len_msg = Messages;
using CliMsg_ifx_is_conf_msg = Messages;
using CliMsg_send_debug_msg = Messages;
using CliMsg_set_sampling_rate_msg = Messages;
using CliMsg_senders = Messages;

// ---- Senders -------------------------------------------------------------------------------------------------------

TEST_F(CliMsg_get_counter_msg, asks_for_one_interface)
{
    EXPECT_EQ(sflow_get_counter_msg(0x01020304, 2), 0);
    EXPECT_THAT(sent_records(), ElementsAre(words({257, 16, 0x01020304, 2})));
    refuse_sends();
    EXPECT_EQ(sflow_get_counter_msg(9, 1), -1);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-EVENT]send get counter success:ifx:16909060\n",
                                                  "[SFLOW-EVENT]send get counter fail:ifx:9\n"));
}

TEST_F(CliMsg_flow_header_len_msg, carries_the_length)
{
    EXPECT_EQ(sflow_flow_header_len_msg(200), 0);
    EXPECT_THAT(sent_records(), ElementsAre(words({262, 12, 200})));
    refuse_sends();
    EXPECT_EQ(sflow_flow_header_len_msg(18), -1);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]send flow header len success:len:200\n",
                                                  "[SFLOW-CONF]send flow header len fail:len:18\n"));
}

TEST_F(CliMsg_ifx_is_conf_msg, carries_flag_before_collector)
{
    EXPECT_EQ(sflow_ifx_is_conf_msg(7, 2, SFLOW_CONF_FLAG_FLOW), 0);
    EXPECT_EQ(sflow_ifx_is_conf_msg(7, 1, SFLOW_CONF_FLAG_COUNTER), 0);
    EXPECT_THAT(sent_records(), ElementsAre(words({261, 20, 7, 1, 2}), words({261, 20, 7, 2, 1})));
    refuse_sends();
    EXPECT_EQ(sflow_ifx_is_conf_msg(7, 2, 1), -1);
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]send ifx configure fail:ifx:7, cid:2, flag:1\n");
}

TEST_F(CliMsg_send_debug_msg, carries_type_and_flag)
{
    sflow_send_debug_msg(SFLOW_DEBUG_SHOW_CMD, 0);
    sflow_send_debug_msg(SFLOW_DEBUG_SHOW_INFO, 0);
    sflow_send_debug_msg(SFLOW_DEBUG_SWITCH, 1);
    EXPECT_THAT(sent_records(),
                ElementsAre(words({8193, 16, 1, 0}), words({8193, 16, 2, 0}), words({8193, 16, 3, 1})));
    refuse_sends();
    sflow_send_debug_msg(SFLOW_DEBUG_SWITCH, 0);
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]send debug fail:type:3, flag:0\n");
}

/// A sampling setting by hand: 33 words, the list's name from byte 28.
Bytes setting(IFINDEX ifx, std::uint32_t rate, std::uint32_t direct, std::uint32_t ifx_type,
              std::uint32_t acl_id = 0, std::string_view acl_name = {}, std::uint32_t snoop = 0)
{
    Bytes record(132);
    put(record, 0, 258);
    put(record, 4, 132);
    put(record, 8, ifx);
    put(record, 12, rate);
    put(record, 16, direct);
    put(record, 20, ifx_type);
    put(record, 24, acl_id);
    put(record, 28, acl_name);
    put(record, 128, snoop);
    return record;
}

TEST_F(CliMsg_set_sampling_rate_msg, ingress_carries_list_and_snoop)
{
    EXPECT_EQ(sflow_set_sampling_rate_msg(5, 4096, SFLOW_INGRESS, 3, 77, "web", 1), 0);
    EXPECT_THAT(sent_records(), ElementsAre(setting(5, 4096, 1, 3, 77, "web", 1)));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]send set sampling rate success:ifx:5, rate:4096\n"));
}

TEST_F(CliMsg_set_sampling_rate_msg, egress_carries_neither)
{
    EXPECT_EQ(sflow_set_sampling_rate_msg(5, 4096, SFLOW_EGRESS, 3, 77, "web", 1), 0);
    EXPECT_THAT(sent_records(), ElementsAre(setting(5, 4096, 2, 3)));
}

TEST_F(CliMsg_set_sampling_rate_msg, both_sends_ingress_first)
{
    EXPECT_EQ(sflow_set_sampling_rate_msg(5, 4096, SFLOW_BOTH, 3, 77, "web", 1), 0);
    EXPECT_THAT(sent_records(), ElementsAre(setting(5, 4096, 1, 3, 77, "web", 1), setting(5, 4096, 2, 3)));
}

TEST_F(CliMsg_set_sampling_rate_msg, both_answers_for_the_second)
{
    answer_sends([](int nth) { return nth == 0 ? -1 : 0; });
    EXPECT_EQ(sflow_set_sampling_rate_msg(5, 0, SFLOW_BOTH, 3, 0, nullptr, 0), 0);
    EXPECT_EQ(sent_records().size(), 2U);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]send set sampling rate fail:ifx:5, rate:0\n",
                            "[SFLOW-CONF]send set sampling rate success:ifx:5, rate:0\n"));
    forget_sent();
    answer_sends([](int nth) { return nth == 0 ? 0 : -1; });
    EXPECT_EQ(sflow_set_sampling_rate_msg(5, 0, SFLOW_BOTH, 3, 0, nullptr, 0), -1);
    EXPECT_EQ(sent_records().size(), 2U);
}

TEST_F(CliMsg_set_sampling_rate_msg, other_directions_send_nothing)
{
    for (const int direct : {0, 4, 5, -1})
        EXPECT_EQ(sflow_set_sampling_rate_msg(5, 4096, direct, 3, 77, "web", 1), -1) << direct;
    EXPECT_THAT(sent_records(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(CliMsg_set_sampling_rate_msg, copies_at_most_100_bytes_of_the_name)
{
    for (const std::size_t len : {99U, 100U, 255U}) {
        forget_sent();
        const std::string name(len, 'n');
        sflow_set_sampling_rate_msg(5, 1, SFLOW_INGRESS, 1, 8, name.c_str(), 0);
        EXPECT_THAT(sent_records(), ElementsAre(setting(5, 1, 1, 1, 8, name.substr(0, 100)))) << len;
    }
}

TEST_F(CliMsg_set_sampling_rate_msg, empty_or_missing_name_is_zero)
{
    sflow_set_sampling_rate_msg(5, 1, SFLOW_INGRESS, 1, 8, nullptr, 0);
    sflow_set_sampling_rate_msg(5, 1, SFLOW_INGRESS, 1, 8, "", 0);
    EXPECT_THAT(sent_records(), ElementsAre(setting(5, 1, 1, 1, 8), setting(5, 1, 1, 1, 8)));
}

TEST_F(CliMsg_senders, are_silent_without_debug_switches)
{
    switches_off();
    sflow_get_counter_msg(1, 1);
    sflow_set_sampling_rate_msg(5, 1, SFLOW_BOTH, 1, 8, "", 0);
    sflow_flow_header_len_msg(1);
    sflow_ifx_is_conf_msg(1, 1, 1);
    sflow_send_debug_msg(1, 0);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
    EXPECT_EQ(sent_records().size(), 6U);
}

// ---- Registration --------------------------------------------------------------------------------------------------

class Registration : public Messages
{
protected:
    Registration() { EXPECT_EQ(sflow_lib_server_init(), 0); }
    ~Registration() override { sflow_lib_server_cmd_clear(); }

    static std::vector<std::pair<u_int32_t, sflow_deal_msg_t>> table() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        std::vector<std::pair<u_int32_t, sflow_deal_msg_t>> rows;
        sflow_list_for_each<sflow_lib_cmd_t>(
            &sflow_lib_server_cb.cmd_list,
            [&](const sflow_lib_cmd_t *entry) { rows.emplace_back(entry->cmd, entry->sflow_deal_msg); });
        return rows;
    }
};

using CliMsg_config_register = Registration;
using CliMsg_config_unregister = Registration;
using CliMsg_records = Registration;

TEST_F(CliMsg_config_register, order)
{
    EXPECT_EQ(sflow_config_register(), 0);
    using Row = std::pair<u_int32_t, sflow_deal_msg_t>;
    EXPECT_THAT(table(),
                ElementsAre(Row{513, sflow_get_counter_ret_msg}, Row{514, sflow_set_sampling_rate_ret_msg},
                            Row{515, sflow_flow_sampler_msg}, Row{516, sflow_update_counter_msg},
                            Row{4099, sflow_request_msg}, Row{517, sflow_ifx_is_conf_ret_msg},
                            Row{1281, sflow_hd_capacity_msg}));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]sflow_config_register:ok\n"));
}

TEST_F(CliMsg_config_unregister, removes_all)
{
    sflow_config_register();
    fake::forget_syslog();
    forget_module_calls();
    sflow_config_unregister();
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(module_calls(),
                ElementsAre("sflow_lib_server_cmd_unregister(513)", "sflow_lib_server_cmd_unregister(514)",
                            "sflow_lib_server_cmd_unregister(515)", "sflow_lib_server_cmd_unregister(516)",
                            "sflow_lib_server_cmd_unregister(4099)", "sflow_lib_server_cmd_unregister(517)",
                            "sflow_lib_server_cmd_unregister(1281)"));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]sflow_config_unregister:ok!\n"));
}

class RegistrationFailure : public Registration, public testing::WithParamInterface<int>
{
};

TEST_P(RegistrationFailure, leaves_nothing_registered)
{
    answer("sflow_lib_server_cmd_register " + std::to_string(GetParam()), -1);
    EXPECT_EQ(sflow_config_register(), -1);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]sflow_config_unregister:ok!\n"));
}

INSTANTIATE_TEST_SUITE_P(sflow_config_register, RegistrationFailure,
                         testing::Values(513, 514, 515, 516, 4099, 517, 1281),
                         testing::PrintToStringParamName());

TEST_F(CliMsg_records, in_one_packet_reach_their_handlers)
{
    sflow_config_register();
    // A capacity report moves what follows it to an odd place for 64-bit counters.
    Bytes packet = words({1281, 12, 5});
    Bytes counter(160);
    put(counter, 0, 513);
    put(counter, 4, 160);
    put(counter, 8, 42);
    packet.insert(packet.end(), counter.begin(), counter.end());
    sflow_lib_server_deal_recv_msg(data(packet), static_cast<u_int32_t>(packet.size()));
    EXPECT_EQ(sflow_intf_support_flag, 5U);
    ASSERT_EQ(queued_counters().size(), 1U);
    EXPECT_EQ(queued_counters()[0].record.ifx, 42U);
}

// ---- Configuration request -----------------------------------------------------------------------------------------

class Request : public Messages
{
protected:
    Request() { switches_off(); }

    static void request()
    {
        Bytes record = words({4099, 8});
        sflow_request_msg(data(record));
    }

    static void set_rate(std::uint32_t rate, std::uint32_t header_len)
    {
        sflow_config_wrlock();
        sflow_agent.g_config.samplingrate = rate;
        sflow_agent.g_config.sslen = header_len;
        sflow_config_wrunlock();
    }
};

using CliMsg_request_msg = Request;

TEST_F(CliMsg_request_msg, replays_to_an_unconfigured_service)
{
    set_rate(5000, 128);
    request();
    EXPECT_THAT(sent_records(), ElementsAre(words({4097, 8}), words({262, 12, 128}), words({4098, 8})));
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_cli_msg.c", "recv request msg"},
                                           DebugLine{"sflow_cli_msg.c", "send start success"},
                                           DebugLine{"sflow_cli_msg.c", "send flow len success"},
                                           DebugLine{"sflow_cli_msg.c", "send end success"},
                                           DebugLine{"sflow_cli_msg.c", "ss ready"}));
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_SS_READY_FLAG);
}

TEST_F(CliMsg_request_msg, replays_every_direction_and_list)
{
    set_rate(5000, 64);
    sflow_intf_config_t *both = add_interface(3);
    both->enable = SFLOW_BOTH;
    both->ifx_type = 2;
    sflow_intf_config_t *limited = add_interface(9);
    limited->enable = SFLOW_INGRESS;
    limited->ifx_type = 1;
    limited->snoop = 1;
    limited->acl_enable = true;
    limited->acl[0] = {true, 77, "web"};
    add_interface(12); // polled only: nothing to replay
    request();

    std::vector<Bytes> expected{words({4097, 8})};
    for (const std::uint32_t rate : {0U, 5000U}) { // everything off, then on, per list slot
        for (int slot = 0; slot < 2; ++slot) {
            expected.push_back(setting(3, rate, 1, 2));
            expected.push_back(setting(3, rate, 2, 2));
        }
        expected.push_back(setting(9, rate, 1, 1, 77, "web", 1));
        expected.push_back(setting(9, rate, 1, 1, 0, "", 1));
    }
    expected.push_back(words({262, 12, 64}));
    expected.push_back(words({4098, 8}));
    EXPECT_EQ(sent_records(), expected);
}

TEST_F(CliMsg_request_msg, without_start_replays_nothing)
{
    add_interface(3)->enable = SFLOW_INGRESS;
    refuse_sends(); // the queue is full
    request();
    EXPECT_THAT(sent_records(), ElementsAre(words({4097, 8})));
    EXPECT_THAT(debug_texts(), ElementsAre("recv request msg", "send start fail"));
    EXPECT_EQ(sflow_agent.cli_ready_flag, 0U);
}

TEST_F(CliMsg_request_msg, goes_on_when_the_rest_is_refused)
{
    answer_sends([](int nth) { return nth == 0 ? 0 : -1; });
    request();
    EXPECT_THAT(debug_texts(), ElementsAre("recv request msg", "send start success", "send flow len fail",
                                           "send end fail", "ss ready"));
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_SS_READY_FLAG);
}

TEST_F(CliMsg_request_msg, keeps_the_other_ready_bits)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_VRF_READY_FLAG | SFLOW_CLI_ACL_READY_FLAG;
    request();
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_ALL_READY_FLAG);
}

TEST_F(CliMsg_request_msg, goes_on_without_cli_lock)
{
    fail_lock(&sflow_agent.cli_lock.mutex);
    request();
    EXPECT_THAT(debug_texts(), ElementsAre("recv request msg", "send start success", "send flow len success",
                                           "send end success", "lock fail", "ss ready"));
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_SS_READY_FLAG);
}

TEST_F(CliMsg_request_msg, logs_lock_failures)
{
    sflow_debug_conf = true;
    fail_lock(&sflow_agent.config_lock.rwlock);
    fail_unlock(&sflow_agent.config_lock.rwlock);
    request();
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow RD lock cfg fail.\n"), 1U);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow unlock cfg fail.\n"), 1U);
    EXPECT_EQ(sent_records().size(), 3U);
}

TEST_F(CliMsg_request_msg, needs_no_payload)
{
    sflow_request_msg(nullptr);
    EXPECT_EQ(sent_records().size(), 3U);
}

} // namespace
