// Interface events: registration, and what each event changes in the agent record.
#include "channel_lsm_fixture.h"

#include "sflow_atomic.h"
#include "sflow_dbg.h"
#include "sflow_process.h"

#include <array>
#include <gmock/gmock.h>
#include <unistd.h>

using namespace channel;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

// Suites are named after what they test.
using Lsm_init = Lsm;
using Lsm_callback = Lsm;
using Lsm_recv_lsm_msg = Lsm;
using Lsm_intf_destroy = Lsm;
using Lsm_intf_default = Lsm;
using Lsm_agg_chang = Lsm;
using Lsm_sync_over = Lsm;

// ---- Registration --------------------------------------------------------------------------------------------------

TEST_F(Lsm_init, registers_in_order)
{
    EXPECT_EQ(sflow_lsm_init(master_), 0);
    std::vector<std::string> order = fake::call_order();
    order.resize(std::min<std::size_t>(order.size(), 7)); // what the client does by itself comes after
    EXPECT_THAT(order, ElementsAre("lsm_agent_set_connect_callback", "lsm_client_set_mode",
                                   "lsm_client_reg_event_ex", "lsm_reg_msg_handler_ex",
                                   "lsm_client_reg_event_ex", "lsm_reg_msg_handler_ex", "lsm_agent_init"));
    EXPECT_EQ(fake::lsm_mode(), 2);
    EXPECT_THAT(fake::calls("lsm_client_reg_event_ex"), ElementsAre("stack=7", "stack=3"));
    EXPECT_THAT(fake::calls("lsm_reg_msg_handler_ex"), ElementsAre("stack=7", "stack=3"));
    EXPECT_THAT(fake::calls("lsm_agent_init"), ElementsAre("name=sflow_lsm"));
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lsm.c", "lsm client init success"}));
}

TEST_F(Lsm_init, subscribes_to_every_interface_type)
{
    registered();
    const std::array<std::pair<int, std::vector<int>>, 2> expected{
        {{TCPIP, {0, 1, 2, 3, 4, 11, 15, 16, 23, 27}}, {PHYSICAL, {0, 1, 2, 3, 4, 11, 27}}}};
    for (const auto &[stack, events] : expected) {
        for (int event = 0; event < 64; ++event) {
            const bool wanted = std::find(events.begin(), events.end(), event) != events.end();
            EXPECT_EQ(fake::lsm_subscribed(stack, event), wanted) << "stack " << stack << " event " << event;
        }
    }
}

TEST_F(Lsm_init, goes_on_without_duplicator_mode)
{
    fake::fail_next("lsm_client_set_mode");
    EXPECT_EQ(sflow_lsm_init(master_), 0);
    EXPECT_THAT(debug_texts(), ElementsAre("lsm set duplicator mode fail", "lsm client init success"));
}

struct InitStep {
    const char *name;
    const char *function;
    int skip; ///< calls of the function that succeed before
    const char *text;
    std::size_t calls; ///< made in all, the failing one included
};

class LsmInit : public Lsm, public testing::WithParamInterface<InitStep>
{
};

TEST_P(LsmInit, failure_is_returned_and_told)
{
    fake::fail_next(GetParam().function, 0, GetParam().skip); // these succeed, without effect
    fake::fail_next(GetParam().function, -5);
    EXPECT_EQ(sflow_lsm_init(master_), -5);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lsm.c", GetParam().text}));
    EXPECT_EQ(fake::call_order().size(), GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    sflow_lsm_init, LsmInit,
    testing::Values(InitStep{"tcpip_event", "lsm_client_reg_event_ex", 0, "lsm reg tcpip event fail", 3},
                    InitStep{"tcpip_handler", "lsm_reg_msg_handler_ex", 0, "lsm reg tcpip handler fail", 4},
                    InitStep{"phy_event", "lsm_client_reg_event_ex", 1, "lsm reg phy event fail", 5},
                    InitStep{"phy_handler", "lsm_reg_msg_handler_ex", 1, "lsm reg phy handler fail", 6},
                    InitStep{"client", "lsm_agent_init", 0, "lsm client init fail", 7}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(Lsm_callback, declares_the_registration_complete)
{
    ASSERT_EQ(sflow_lsm_init(master_), 0);
    EXPECT_EQ(fake::call_count("lsm_client_reg_event_over"), 0U);
    fake::run_due();
    EXPECT_EQ(fake::call_count("lsm_client_reg_event_over"), 1U);
}

TEST_F(Lsm_callback, failure_ends_the_process_with_status_0)
{
    ASSERT_EQ(sflow_lsm_init(master_), 0);
    fake::fail_next("lsm_client_reg_event_over");
    EXPECT_EXIT(
        {
            fake::run_due();
            std::_Exit(7);
        },
        testing::ExitedWithCode(0), "");
    fake::succeed("lsm_client_reg_event_over");
}

TEST_F(Lsm_callback, failure_is_told)
{
    ASSERT_EQ(sflow_lsm_init(master_), 0);
    fake::fail_next("lsm_client_reg_event_over");
    EXPECT_EXIT(
        {
            std::atexit([] { std::_Exit(7); }); // handlers are not run while other threads are at work
            sflow_store(sflow_app_debug_fd, STDERR_FILENO);
            fake::run_due();
        },
        testing::ExitedWithCode(0), "sflow_lsm.c,[0-9]+,lsm reg event over fail");
    fake::succeed("lsm_client_reg_event_over");
}

// ---- Dispatch ------------------------------------------------------------------------------------------------------

TEST_F(Lsm_recv_lsm_msg, ignores_other_events)
{
    const std::array<char, 64> payload{};
    for (int event = -1; event < 70; ++event) {
        if (event == 1 || event == 2 || event == 4 || event == 11 || event == 15 || event == 16 ||
            event == 23 || event == 48)
            continue;
        std::array<char, 64> copy = payload;
        sflow_recv_lsm_msg(event, copy.data(), static_cast<int>(copy.size()));
        sflow_recv_lsm_msg(event, nullptr, 0);
    }
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
    EXPECT_THAT(debug_lines(), IsEmpty());
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_recv_lsm_msg, receives_and_ignores_create_admin_and_ethernet_events)
{
    registered();
    add_interface(7)->enable = SFLOW_INGRESS;
    for (const int stack : {TCPIP, PHYSICAL}) {
        EXPECT_TRUE(fake::deliver_lsm(stack, INTF_EVENT_CREATE_INDEX, intf_msg_create_t{7, 6}));
        EXPECT_TRUE(fake::deliver_lsm(stack, INTF_EVENT_ADMIN_STATE_INDEX, intf_msg_state_t{7, 0}));
        EXPECT_TRUE(fake::deliver_lsm(stack, INTF_EVENT_IF_ETH_INFO, intf_msg_eth_info_t{7, 1, 1000}));
    }
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
    EXPECT_THAT(module_calls(), IsEmpty());
    EXPECT_NE(interface(7), nullptr);
}

struct NullEvent {
    int event;
    const char *name;
    const char *handler;
};

TEST_F(Lsm_recv_lsm_msg, without_data)
{
    registered();
    const NullEvent events[] = {
        {1, "INTF_EVENT_DESTROY_INDEX", "sflow_intf_destroy"},
        {2, "INTF_EVENT_DEFAULT_INDEX", "sflow_intf_default"},
        {4, "INTF_EVENT_LINK_STATE_INDEX", "sflow_lsm_intf_status_chang"},
        {11, "INTF_EVENT_AGG_INDEX", "sflow_lsm_agg_chang"},
        {15, "INTF_EVENT_IPV4", "sflow_ipv4_address_change"},
        {16, "INTF_EVENT_IPV6", "sflow_ipv6_address_change"},
        {23, "INTF_EVENT_VRF", "sflow_lsm_intf_vrf_chang"},
    };
    for (const NullEvent &event : events) {
        fake::forget_syslog();
        EXPECT_TRUE(fake::deliver_lsm_null(TCPIP, event.event));
        EXPECT_THAT(fake::syslog_texts(),
                    ElementsAre(log(std::string("sflow_recv_lsm_msg get ") + event.name + " msg"),
                                log(std::string(event.handler) + " msg is NULL")));
    }
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_recv_lsm_msg, is_silent_without_debug_switch)
{
    registered();
    sflow_debug_conf = false;
    fake::deliver_lsm(TCPIP, INTF_EVENT_DESTROY_INDEX, intf_msg_destroy_t{7, 6});
    fake::deliver_lsm(TCPIP, INTF_EVENT_LINK_STATE_INDEX, intf_msg_state_t{7, 0});
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

// ---- Interfaces that go --------------------------------------------------------------------------------------------

TEST_F(Lsm_intf_destroy, of_an_interface_that_is_gone_forgets_it)
{
    registered();
    add_interface(7)->enable = SFLOW_INGRESS;
    add_interface(8)->enable = SFLOW_INGRESS;
    agent_ip() = {SFLOW_AGENT_TYPE_INTERFACE, 7, SFLOW_ADDRESS_TYPE_IPV4, ipv4("192.0.2.1")};
    sflow_agent.source_ip.cfg_type = SFLOW_SOURCE_TYPE_INTERFACE;
    sflow_agent.source_ip.ifindex = 7;
    EXPECT_TRUE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_DESTROY_INDEX, intf_msg_destroy_t{7, 6}));
    std::vector<std::string> calls = module_calls();
    calls.erase(std::remove(calls.begin(), calls.end(), "sflow_cli_c2p_reform()"), calls.end());
    EXPECT_THAT(calls, ElementsAre("sflow_intf_del_notify(7)", "sflow_agent_del_intf_notify(7)",
                                   "sflow_source_del_intf_notify(7)"));
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_NE(interface(8), nullptr);
    EXPECT_EQ(agent_ip().cfg_type, SFLOW_AGENT_TYPE_INVALID);
    EXPECT_EQ(sflow_agent.source_ip.cfg_type, SFLOW_SOURCE_TYPE_INVALID);
    EXPECT_THAT(fake::syslog_texts(), Contains(log("sflow_recv_lsm_msg get INTF_EVENT_DESTROY_INDEX msg")));
}

TEST_F(Lsm_intf_destroy, on_one_stack_keeps_an_interface_that_the_other_holds)
{
    registered();
    add_interface(7)->enable = SFLOW_INGRESS;
    const std::pair<u_int32_t, u_int32_t> versions[] = {{1, 0}, {0, 1}, {4, 9}};
    for (const auto &[physical, tcpip] : versions) {
        fake::set_interface(7, {.name = "eth7", .physical_version = physical, .tcpip_version = tcpip});
        fake::forget_syslog();
        fake::deliver_lsm(TCPIP, INTF_EVENT_DESTROY_INDEX, intf_msg_destroy_t{7, 6});
        EXPECT_THAT(fake::syslog_texts(),
                    ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_DESTROY_INDEX msg"),
                                log("sflow_intf_destroy interface is exist")));
    }
    EXPECT_NE(interface(7), nullptr);
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_intf_default, forgets_sampling_and_keeps_addresses)
{
    registered();
    fake::set_interface(7, {.name = "eth7"});
    add_interface(7)->enable = SFLOW_INGRESS;
    agent_ip() = {SFLOW_AGENT_TYPE_INTERFACE, 7, SFLOW_ADDRESS_TYPE_IPV4, ipv4("192.0.2.1")};
    EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_DEFAULT_INDEX, intf_msg_destroy_t{7, 6}));
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_EQ(agent_ip().cfg_type, SFLOW_AGENT_TYPE_INTERFACE);
    EXPECT_EQ(module_calls().front(), "sflow_intf_del_notify(7)");
    EXPECT_THAT(module_calls(), Not(Contains("sflow_agent_del_intf_notify(7)")));
    EXPECT_THAT(module_calls(), Not(Contains("sflow_source_del_intf_notify(7)")));
}

TEST_F(Lsm_agg_chang, joining_an_aggregate_loses_the_sampling)
{
    registered();
    add_interface(7)->enable = SFLOW_INGRESS;
    add_interface(50)->enable = SFLOW_INGRESS;
    EXPECT_TRUE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_AGG_INDEX, intf_msg_ap_t{INTF_MSG_ADD_TO_AP, 50, 7}));
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_NE(interface(50), nullptr);
    EXPECT_THAT(fake::syslog_texts(), Contains(log("sflow_lsm_agg_chang ifx :7, agg:50")));
}

TEST_F(Lsm_agg_chang, leaving_an_aggregate_restores_nothing)
{
    registered();
    EXPECT_TRUE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_AGG_INDEX, intf_msg_ap_t{INTF_MSG_RM_FROM_AP, 50, 7}));
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_THAT(module_calls(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_AGG_INDEX msg"),
                                                  log("sflow_lsm_agg_chang ifx :7, agg:50"),
                                                  log("sflow_lsm_agg_chang msg is INTF_MSG_RM_FROM_AP")));
}

TEST_F(Lsm_agg_chang, unknown_aggregate_change_is_logged)
{
    registered();
    add_interface(7)->enable = SFLOW_INGRESS;
    fake::deliver_lsm(PHYSICAL, INTF_EVENT_AGG_INDEX, intf_msg_ap_t{2, 50, 7});
    EXPECT_NE(interface(7), nullptr);
    EXPECT_EQ(fake::syslog_texts().back(), log("sflow_lsm_agg_chang msg is unknown"));
}

// ---- VRF -----------------------------------------------------------------------------------------------------------

class Vrf : public Lsm
{
protected:
    Vrf() { registered(); }

    static void set_receiver(int index, bool enable, int mgmt_index, int vrf_index)
    {
        sflreceiver_t &receiver = sflow_agent.receivers[index];
        receiver.is_enable = enable;
        receiver.address.mgmt_index = mgmt_index;
        receiver.address.vrf_index = vrf_index;
        receiver.sd = -1;
    }

    static void bind_event(IFINDEX ifx, int vrf, int b_bind)
    {
        intf_msg_vrf_t msg = {};
        msg.sub_type = INTF_EVENT_VRF_BIND;
        msg.vrf_bind = {ifx, vrf, b_bind};
        EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_VRF, msg));
    }

    static std::vector<int> vrfs()
    {
        return {sflow_agent.receivers[0].address.vrf_index, sflow_agent.receivers[1].address.vrf_index};
    }
};

using Lsm_intf_vrf_bind = Vrf;
using Lsm_intf_vrf_chang = Vrf;

TEST_F(Lsm_intf_vrf_bind, moves_the_collectors_behind_the_interface)
{
    set_receiver(0, true, 7, 3);
    set_receiver(1, true, 7, 4);
    bind_event(7, 9, 1);
    EXPECT_THAT(vrfs(), ElementsAre(9, 9));
    bind_event(7, 0, 0); // released
    EXPECT_THAT(vrfs(), ElementsAre(0, 0));
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_intf_vrf_bind, logs_what_it_looks_at)
{
    set_receiver(0, true, 7, 3);
    set_receiver(1, false, 5, 4);
    bind_event(7, 9, 1);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_VRF msg"),
                                                  log("sflow_lsm_intf_vrf_chang msg type is 1"),
                                                  log("sflow_lsm_intf_vrf_chang msg vrf is 9"),
                                                  log("sflow_lsm_intf_vrf_bind msg ifx(7) vrf(9)"),
                                                  log("sflow_lsm_intf_vrf_bind is_enable(1) mgmt_index(7)"),
                                                  log("sflow_lsm_intf_vrf_bind is_enable(0) mgmt_index(5)")));
}

TEST_F(Lsm_intf_vrf_bind, leaves_a_disabled_receiver)
{
    set_receiver(0, false, 7, 3);
    set_receiver(1, true, 7, 3);
    bind_event(7, 9, 1);
    EXPECT_THAT(vrfs(), ElementsAre(3, 9));
}

TEST_F(Lsm_intf_vrf_bind, leaves_other_interfaces_and_collectors_that_are_not_out_of_band)
{
    set_receiver(0, true, 8, 3);
    set_receiver(1, true, 0, 4);
    bind_event(7, 9, 1);
    bind_event(0, 9, 1);
    EXPECT_THAT(vrfs(), ElementsAre(3, 4));
}

TEST_F(Lsm_intf_vrf_bind, keeps_the_sockets)
{
    set_receiver(0, true, 7, 3);
    sflow_agent.receivers[0].sd = 1000;
    bind_event(7, 9, 1);
    EXPECT_EQ(sflow_agent.receivers[0].sd, 1000);
    sflow_agent.receivers[0].sd = -1;
}

TEST_F(Lsm_intf_vrf_chang, change_is_handed_to_the_collectors)
{
    intf_msg_vrf_t msg = {};
    msg.sub_type = INTF_EVENT_VRF_CHG;
    msg.vrf_chg.vrf_id = 9;
    EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_VRF, msg));
    EXPECT_EQ(module_calls().front(), "sflow_receiver_vrf_no_exist_del_receiver(0,9)");
    EXPECT_THAT(fake::syslog_texts(), Contains(log("sflow_lsm_intf_vrf_chang msg type is 0")));
    EXPECT_THAT(fake::syslog_texts(), Contains(log("sflow_lsm_intf_vrf_chang msg vrf is 9")));
}

TEST_F(Lsm_intf_vrf_chang, other_sub_types_change_nothing)
{
    set_receiver(0, true, 9, 3);
    intf_msg_vrf_t msg = {};
    msg.sub_type = 2;
    msg.vrf_bind = {9, 5, 1};
    EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_VRF, msg));
    EXPECT_THAT(module_calls(), IsEmpty());
    EXPECT_EQ(vrfs()[0], 3);
    EXPECT_EQ(fake::syslog_texts().size(), 3U);
}

TEST_F(Lsm_intf_vrf_chang, events_of_the_physical_layer_are_not_subscribed_to)
{
    EXPECT_FALSE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_VRF, intf_msg_vrf_t{}));
    EXPECT_FALSE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_IPV4, intf_msg_ip_t{}));
    EXPECT_FALSE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_IPV6, intf_msg_ipv6_t{}));
}

// ---- End of the initial data ---------------------------------------------------------------------------------------

TEST_F(Lsm_sync_over, sets_the_vrf_bit)
{
    registered();
    sflow_agent.cli_ready_flag = SFLOW_CLI_SS_READY_FLAG;
    EXPECT_TRUE(fake::deliver_lsm(PHYSICAL, INTF_EVENT_SYNC_DATA_OVER, intf_msg_sync_t{3}));
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_SS_READY_FLAG | SFLOW_CLI_VRF_READY_FLAG);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lsm.c", "lsm recv over"}));
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Lsm_sync_over, comes_with_the_registration_and_needs_no_data)
{
    ASSERT_EQ(sflow_lsm_init(master_), 0);
    EXPECT_EQ(sflow_agent.cli_ready_flag, 0U);
    fake::deliver_lsm_null(TCPIP, INTF_EVENT_SYNC_DATA_OVER);
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_VRF_READY_FLAG);
}

TEST_F(Lsm_sync_over, goes_on_without_cli_lock)
{
    fail_lock(&sflow_agent.cli_lock.mutex);
    sflow_recv_lsm_msg(INTF_EVENT_SYNC_DATA_OVER, nullptr, 0);
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_VRF_READY_FLAG);
    EXPECT_THAT(debug_texts(), ElementsAre("lsm recv over", "lsm lock fail"));
}

} // namespace
