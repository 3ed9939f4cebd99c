// Interface events that change addresses: what follows them, what stays, and which sockets are closed.
#include "channel_lsm_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>

using namespace channel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const sfladdress_value_t NOTHING = ipv4("0.0.0.0");

// ---- Addresses -----------------------------------------------------------------------------------------------------

/// Interface 7 with addresses of both families, and everything that can be learnt from an interface.
class Addresses : public Lsm
{
protected:
    Addresses()
    {
        registered();
        set_addresses({"192.0.2.7", "192.0.2.8"}, {"2001:db8::7", "2001:db8::8"});
        open_sockets();
    }

    ~Addresses() override
    {
        for (sflreceiver_t &receiver : sflow_agent.receivers)
            sflow_close_socket(&receiver);
    }

    static void set_addresses(std::vector<std::string> v4, std::vector<std::string> v6)
    {
        fake::set_interface(7, {.name = "eth7", .ipv4 = std::move(v4), .ipv6 = std::move(v6)});
    }

    static void open_sockets()
    {
        for (sflreceiver_t &receiver : sflow_agent.receivers) {
            sflow_close_socket(&receiver);
            receiver.sd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        }
    }

    /// Which of the receivers' sockets are open, by index.
    static std::vector<bool> open_now()
    {
        return {sflow_agent.receivers[0].sd != -1, sflow_agent.receivers[1].sd != -1};
    }

    static void set_agent(sflow_address_type_t type, IFINDEX ifx = 7,
                          sflow_agent_cfg_type_t cfg_type = SFLOW_AGENT_TYPE_INTERFACE)
    {
        agent_ip() = {cfg_type, ifx, type, ipv6("2001:db8::bad")};
    }

    static void set_source(u_int32_t families, IFINDEX ifx = 7,
                           sflow_source_cfg_type_t cfg_type = SFLOW_SOURCE_TYPE_INTERFACE)
    {
        sflow_agent.source_ip = {};
        sflow_agent.source_ip.cfg_type = cfg_type;
        sflow_agent.source_ip.ifindex = ifx;
        sflow_agent.source_ip.type = families;
        sflow_agent.source_ip.v4_address = ipv4("10.0.0.1");
        sflow_agent.source_ip.v6_address = ipv6("2001:db8::bad");
    }

    static void set_receiver(int index, sflow_address_type_t type, IFINDEX ifx = 7,
                             sflow_source_cfg_type_t src_type = SFLOW_SOURCE_TYPE_INTERFACE)
    {
        sfladdress_t &address = sflow_agent.receivers[index].address;
        address.type = type;
        address.src_type = src_type;
        address.ifindex = ifx;
        address.src_address = ipv6("2001:db8::bad");
    }

    static Bytes agent_address() { return bytes_of(agent_ip().address); }
    static Bytes source_v4() { return bytes_of(sflow_agent.source_ip.v4_address); }
    static Bytes source_v6() { return bytes_of(sflow_agent.source_ip.v6_address); }
    static Bytes receiver_source(int index)
    {
        return bytes_of(sflow_agent.receivers[index].address.src_address);
    }

    static void ipv4_event(int sub_type = INTF_EVENT_IP_ADDR, IFINDEX ifx = 7)
    {
        intf_msg_ip_t msg = {};
        msg.sub_type = sub_type;
        msg.addr.ifindex = ifx;
        EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_IPV4, msg));
    }

    static void ipv6_event(int sub_type = INTF_EVENT_IPV6_ADDR, IFINDEX ifx = 7)
    {
        intf_msg_ipv6_t msg = {};
        msg.sub_type = sub_type;
        msg.addr.ifindex = ifx;
        EXPECT_TRUE(fake::deliver_lsm(TCPIP, INTF_EVENT_IPV6, msg));
    }

    static void link_event(int state, IFINDEX ifx = 7, int stack = TCPIP)
    {
        EXPECT_TRUE(fake::deliver_lsm(stack, INTF_EVENT_LINK_STATE_INDEX, intf_msg_state_t{ifx, state}));
    }
};

using Lsm_ipv4_address_change = Addresses;
using Lsm_ipv6_address_change = Addresses;
using Lsm_address_change = Addresses;
using Lsm_intf_status_chang = Addresses;

const Bytes OLD = bytes_of(ipv6("2001:db8::bad"));

TEST_F(Lsm_ipv4_address_change, ipv4_change_refreshes_the_agent_address)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV4);
    ipv4_event();
    EXPECT_EQ(agent_address(), bytes_of(ipv4("192.0.2.7"))); // whole: what was beyond it is zero
    EXPECT_THAT(open_now(), ElementsAre(true, true));
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()"));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_IPV4 msg"),
                                                  log("sflow_ipv4_address_change ifx :7"),
                                                  log("sflow_ipv4_address_change c2p reform success.")));
}

TEST_F(Lsm_ipv6_address_change, ipv6_change_refreshes_the_agent_address)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV6);
    answer("sflow_cli_c2p_reform", -1);
    ipv6_event();
    EXPECT_EQ(agent_address(), bytes_of(ipv6("2001:db8::7")));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_IPV6 msg"),
                                                  log("sflow_ipv6_address_change ifx :7"),
                                                  log("sflow_ipv6_address_change c2p reform failure.")));
}

TEST_F(Lsm_address_change, agent_address_of_another_kind_interface_or_family_stays)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV4, 7, SFLOW_AGENT_TYPE_ADDRESS);
    ipv4_event();
    EXPECT_EQ(agent_address(), OLD);
    set_agent(SFLOW_ADDRESS_TYPE_IPV4, 8);
    ipv4_event();
    EXPECT_EQ(agent_address(), OLD);
    set_agent(SFLOW_ADDRESS_TYPE_IPV6);
    ipv4_event();
    EXPECT_EQ(agent_address(), OLD);
    set_agent(SFLOW_ADDRESS_TYPE_IPV4);
    ipv6_event();
    EXPECT_EQ(agent_address(), OLD);
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_ipv4_address_change, ipv4_change_refreshes_the_source_and_closes_both_sockets)
{
    set_source(SFLOW_FAMILY_IPV4 | SFLOW_FAMILY_IPV6);
    ipv4_event(INTF_EVENT_IP_STATE);
    EXPECT_EQ(source_v4(), bytes_of(ipv4("192.0.2.7")));
    EXPECT_EQ(source_v6(), OLD);
    EXPECT_THAT(open_now(), ElementsAre(false, false));
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()"));
}

TEST_F(Lsm_ipv6_address_change, ipv6_change_refreshes_the_source_and_closes_both_sockets)
{
    set_source(SFLOW_FAMILY_IPV6);
    ipv6_event(INTF_EVENT_IPV6_STATE);
    EXPECT_EQ(source_v6(), bytes_of(ipv6("2001:db8::7")));
    EXPECT_EQ(source_v4(), bytes_of(ipv4("10.0.0.1")));
    EXPECT_THAT(open_now(), ElementsAre(false, false));
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()"));
}

TEST_F(Lsm_ipv6_address_change, ipv6_removal_zeroes_the_source_and_closes_both_sockets)
{
    set_source(SFLOW_FAMILY_IPV6);
    set_agent(SFLOW_ADDRESS_TYPE_IPV6);
    sflow_agent.source_ip.v6_address.ip_v6[16] = 0xFF; // the whole value is replaced
    set_addresses({"192.0.2.7"}, {});
    ipv6_event();
    EXPECT_EQ(source_v6(), bytes_of(NOTHING));
    EXPECT_EQ(agent_address(), bytes_of(NOTHING));
    EXPECT_THAT(open_now(), ElementsAre(false, false));
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()")); // a change all the same
}

TEST_F(Lsm_ipv4_address_change, ipv4_removal_leaves_a_zero_source)
{
    set_source(SFLOW_FAMILY_IPV4);
    set_addresses({}, {});
    ipv4_event();
    EXPECT_EQ(source_v4(), bytes_of(NOTHING));
    EXPECT_EQ(sflow_agent.source_ip.cfg_type, SFLOW_SOURCE_TYPE_INTERFACE);
}

TEST_F(Lsm_address_change, source_of_another_kind_interface_or_family_stays)
{
    set_source(SFLOW_FAMILY_IPV4, 7, SFLOW_SOURCE_TYPE_ADDRESS);
    ipv4_event();
    set_source(SFLOW_FAMILY_IPV4, 8);
    ipv4_event();
    set_source(SFLOW_FAMILY_IPV6);
    ipv4_event();
    set_source(SFLOW_FAMILY_IPV4);
    ipv6_event();
    EXPECT_EQ(source_v4(), bytes_of(ipv4("10.0.0.1")));
    EXPECT_EQ(source_v6(), OLD);
    EXPECT_THAT(open_now(), ElementsAre(true, true));
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_address_change, change_refreshes_collectors_with_a_source_of_their_own)
{
    set_receiver(0, SFLOW_ADDRESS_TYPE_IPV6);
    set_receiver(1, SFLOW_ADDRESS_TYPE_IPV4);
    ipv4_event();
    EXPECT_EQ(receiver_source(0), OLD);
    EXPECT_EQ(receiver_source(1), bytes_of(ipv4("192.0.2.7")));
    EXPECT_THAT(open_now(), ElementsAre(true, false));
    open_sockets();
    ipv6_event();
    EXPECT_EQ(receiver_source(0), bytes_of(ipv6("2001:db8::7")));
    EXPECT_THAT(open_now(), ElementsAre(false, true));
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()", "sflow_cli_c2p_reform()"));
}

TEST_F(Lsm_address_change, collectors_of_another_source_stay)
{
    set_receiver(0, SFLOW_ADDRESS_TYPE_IPV4, 8);
    set_receiver(1, SFLOW_ADDRESS_TYPE_IPV4, 7, SFLOW_SOURCE_TYPE_ADDRESS);
    ipv4_event();
    EXPECT_EQ(receiver_source(0), OLD);
    EXPECT_EQ(receiver_source(1), OLD);
    EXPECT_THAT(open_now(), ElementsAre(true, true));
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_ipv4_address_change, ipv4_events_of_other_sub_types_change_nothing)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV4);
    set_source(SFLOW_FAMILY_IPV4);
    for (const int sub_type : {1, 3, -1}) { // 1: a virtual address
        fake::forget_syslog();
        ipv4_event(sub_type);
        EXPECT_THAT(fake::syslog_texts(),
                    ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_IPV4 msg"),
                                log("sflow_ipv4_address_change msg type is " + std::to_string(sub_type))));
    }
    EXPECT_EQ(agent_address(), OLD);
    EXPECT_EQ(source_v4(), bytes_of(ipv4("10.0.0.1")));
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_ipv6_address_change, ipv6_events_of_other_sub_types_change_nothing)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV6);
    for (const int sub_type : {0, 16, 18, 22}) {
        ipv6_event(sub_type);
        EXPECT_EQ(fake::syslog_texts().back(),
                  log("sflow_ipv6_address_change msg type is " + std::to_string(sub_type)));
    }
    EXPECT_EQ(agent_address(), OLD);
    EXPECT_THAT(module_calls(), IsEmpty());
}

TEST_F(Lsm_address_change, lock_failures_are_logged)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV4);
    fail_lock(&sflow_agent.config_lock.rwlock);
    fail_unlock(&sflow_agent.config_lock.rwlock);
    ipv4_event();
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow WR lock cfg fail.\n"), 1U);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow unlock cfg fail.\n"), 1U);
    EXPECT_EQ(agent_address(), bytes_of(ipv4("192.0.2.7")));
}

// ---- Link state ----------------------------------------------------------------------------------------------------

TEST_F(Lsm_intf_status_chang, refreshes_sources_whatever_the_state)
{
    for (const int state : {INTF_DOWN, INTF_UP}) {
        for (const int stack : {TCPIP, PHYSICAL}) {
            set_source(SFLOW_FAMILY_IPV4);
            open_sockets();
            fake::forget_syslog();
            link_event(state, 7, stack);
            EXPECT_EQ(source_v4(), bytes_of(ipv4("192.0.2.7")));
            EXPECT_THAT(open_now(), ElementsAre(false, false));
            EXPECT_THAT(fake::syslog_texts(),
                        ElementsAre(log("sflow_recv_lsm_msg get INTF_EVENT_LINK_STATE_INDEX msg"),
                                    log("sflow_lsm_intf_status_chang source interface status changed")));
        }
    }
    EXPECT_THAT(module_calls(), IsEmpty()); // no reform
}

TEST_F(Lsm_intf_status_chang, refreshes_ipv4_alone_when_both_families_are_set)
{
    set_source(SFLOW_FAMILY_IPV4 | SFLOW_FAMILY_IPV6);
    link_event(INTF_UP);
    EXPECT_EQ(source_v4(), bytes_of(ipv4("192.0.2.7")));
    EXPECT_EQ(source_v6(), OLD);
    set_source(SFLOW_FAMILY_IPV6);
    link_event(INTF_UP);
    EXPECT_EQ(source_v6(), bytes_of(ipv6("2001:db8::7")));
}

TEST_F(Lsm_intf_status_chang, closes_both_sockets_of_a_source_without_a_family_too)
{
    set_source(0);
    link_event(INTF_DOWN);
    EXPECT_EQ(source_v4(), bytes_of(ipv4("10.0.0.1")));
    EXPECT_EQ(source_v6(), OLD);
    EXPECT_THAT(open_now(), ElementsAre(false, false));
}

TEST_F(Lsm_intf_status_chang, keeps_the_agent_address)
{
    set_agent(SFLOW_ADDRESS_TYPE_IPV4);
    link_event(INTF_DOWN);
    EXPECT_EQ(agent_address(), OLD);
    EXPECT_THAT(open_now(), ElementsAre(true, true));
}

TEST_F(Lsm_intf_status_chang, refreshes_collectors_by_their_family)
{
    set_receiver(0, SFLOW_ADDRESS_TYPE_IPV6);
    set_receiver(1, SFLOW_ADDRESS_TYPE_IPV4);
    link_event(INTF_UP);
    EXPECT_EQ(receiver_source(0), bytes_of(ipv6("2001:db8::7")));
    EXPECT_EQ(receiver_source(1), bytes_of(ipv4("192.0.2.7")));
    EXPECT_THAT(open_now(), ElementsAre(false, false));
    open_sockets();
    link_event(INTF_UP, 8);
    EXPECT_THAT(open_now(), ElementsAre(true, true));
}

} // namespace
