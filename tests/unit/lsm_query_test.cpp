// The queries of the interface manager, and what the client delivers when.
#include "lsm_test_events.h"

#include "interface_manager/lsm_client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace
{

using namespace platform::lsm;
using namespace lsm_test;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *MGMT_INTERNAL = "&#~_hidden_vrf_mgmt_0_@^$";

std::vector<LinkState> network()
{
    Link vlan = device(6, "eth0.10", "vlan");
    vlan.parent = 3;
    Link foreign = device(7, "far.10", "vlan");
    foreign.parent = 3;
    foreign.parent_elsewhere = true;
    return {
        {.link = with_flags(port(3, "eth0"), UP),
         .addresses = {address("10.0.0.3/24"), address("10.0.0.4/24"), address("2001:db8::3/64")},
         .eth = EthInfo{.duplex = LSM_DUPLEX_FULL, .speed = 10000}},
        {.link = member_of(port(4, "eth1"), 8, "bond"), .addresses = {}, .eth = {}},
        {.link = member_of(device(5, "v0", "veth"), 2, "bridge"), .addresses = {}, .eth = {}},
        {.link = vlan, .addresses = {}, .eth = {}},
        {.link = foreign, .addresses = {}, .eth = {}},
        {.link = device(8, "bond0", "bond"), .addresses = {}, .eth = {}},
        {.link = device(2, "br0", "bridge"), .addresses = {}, .eth = {}},
        {.link = device(9, "blue", "vrf"), .addresses = {}, .eth = {}},
        {.link = device(10, "mgmt", "vrf"), .addresses = {}, .eth = {}},
        {.link = member_of(port(11, "ma1"), 10, "vrf"), .addresses = {}, .eth = {}},
    };
}

class LsmQuery : public testing::Test
{
protected:
    void SetUp() override { client().start({"ma1"}, network()); }
    void TearDown() override { client().start({}, {}); }
};

struct QueryCase {
    IFINDEX ifx;
    int type;
    int subinterface;
    int top_stack;
    IFINDEX main_index;
    u_int32_t kind;
    int vrf;
};

TEST_F(LsmQuery, facts_of_each_kind_of_interface)
{
    constexpr QueryCase CASES[] = {
        {3, 6, 0, 7, 3, 0x1, 0},         {4, 6, 0, 3, 4, 0x1, 0},    {5, 12, 0, 5, 5, 0x2, 0},
        {6, 6, 1, 7, 3, 0x800, 0},       {7, 6, 1, 7, 7, 0x800, 0},  {8, 24, 0, 7, 8, 0x20000, 0},
        {2, 60, 0, 7, 2, 0x80, 0},       {9, 62, 0, 7, 9, 0x100, 9}, {10, 62, 0, 7, 10, 0x100, 10},
        {11, 6, 0, 7, 11, 0x100001, 10}, {99, 0, 0, 0, 0, 0, -1},
    };
    for (const QueryCase &row : CASES) {
        SCOPED_TRACE(row.ifx);
        EXPECT_EQ(lsm_if_get_type(row.ifx), row.type);
        EXPECT_EQ(lsm_if_is_subinterface(row.ifx), row.subinterface);
        EXPECT_EQ(lsm_if_get_top_stack(row.ifx), row.top_stack);
        EXPECT_EQ(lsm_if_get_main_index(row.ifx), row.main_index);
        EXPECT_EQ(lsm_if_get_kind_mask(row.ifx), row.kind);
        EXPECT_EQ(lsm_if_get_vrf(row.ifx), row.vrf);
        EXPECT_EQ(lsm_if_get_flags(row.ifx), 0u);
    }
}

TEST_F(LsmQuery, names_and_indexes)
{
    char name[65] = {};
    EXPECT_EQ(lsm_if_get_name(3, name, 64), 0);
    EXPECT_STREQ(name, "eth0");
    EXPECT_EQ(lsm_if_get_name(3, name, 3), 0);
    EXPECT_STREQ(name, "et");
    errno = 0;
    EXPECT_EQ(lsm_if_get_name(99, name, 64), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_STREQ(name, "et");
    EXPECT_EQ(lsm_if_get_name(3, name, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(lsm_if_get_index("bond0"), 8u);
    EXPECT_EQ(lsm_if_get_index("nosuch"), 0u);
    EXPECT_EQ(lsm_if_get_index(nullptr), 0u);
}

TEST_F(LsmQuery, only_a_vrf_can_take_a_socket)
{
    for (const int ifx : {3, 8, 99}) {
        EXPECT_EQ(lsm_vrf_bind_socket(-1, ifx), -1);
        EXPECT_EQ(errno, ENODEV) << ifx;
    }
    EXPECT_EQ(lsm_vrf_bind_socket(-1, 9), -1);
    EXPECT_EQ(errno, EBADF) << "the kernel has not been asked";
}

TEST_F(LsmQuery, vrf_names)
{
    char name[32] = {};
    EXPECT_EQ(lsm_vrf_name2index("blue"), 9);
    EXPECT_EQ(lsm_vrf_name2index("eth0"), -1);
    EXPECT_EQ(lsm_vrf_name2index("nosuch"), -1);
    EXPECT_EQ(lsm_vrf_name2index(nullptr), -1);
    EXPECT_EQ(lsm_vrf_index2name(9, name, 32), 0);
    EXPECT_STREQ(name, "blue");
    EXPECT_EQ(lsm_vrf_index2name(3, name, 32), -1);
    EXPECT_EQ(lsm_vrf_index2name(0, name, 32), -1);
    EXPECT_EQ(lsm_vrf_index2name(-1, name, 32), -1);
    EXPECT_STREQ(name, "blue");
}

TEST_F(LsmQuery, management_vrf_has_its_internal_name)
{
    char name[32] = {};
    EXPECT_EQ(lsm_vrf_name2index(MGMT_INTERNAL), 10);
    EXPECT_EQ(lsm_vrf_name2index("mgmt"), 10);
    EXPECT_EQ(lsm_vrf_index2name(10, name, 32), 0);
    EXPECT_STREQ(name, MGMT_INTERNAL);
}

TEST_F(LsmQuery, first_addresses)
{
    EXPECT_EQ(lsm_netif_get_first_ip_by_index(3), inet_addr("10.0.0.3"));
    EXPECT_EQ(lsm_netif_get_first_ip_by_index(4), 0u);
    EXPECT_EQ(lsm_netif_get_first_ip_by_index(99), 0u);
    u_int8_t v6[16] = {0xAA};
    EXPECT_EQ(lsm_ipv6_get_first_addr(4, v6), 0);
    EXPECT_EQ(v6[0], 0xAA);
    EXPECT_EQ(lsm_ipv6_get_first_addr(3, v6), 1);
    EXPECT_EQ(v6[0], 0x20);
    EXPECT_EQ(v6[15], 3);
}

TEST_F(LsmQuery, versions_are_zero_where_the_interface_is_not)
{
    EXPECT_NE(lsm_get_realtime_version(3, 3), 0u);
    EXPECT_NE(lsm_get_realtime_version(3, 7), 0u);
    EXPECT_EQ(lsm_get_realtime_version(3, 5), 0u);
    EXPECT_EQ(lsm_get_realtime_version(4, 7), 0u);
    EXPECT_NE(lsm_get_realtime_version(4, 3), 0u);
    EXPECT_EQ(lsm_get_realtime_version(6, 3), 0u);
    EXPECT_EQ(lsm_get_realtime_version(99, 3), 0u);
}

TEST_F(LsmQuery, control_block_outlives_the_interface)
{
    const lsm_intfcb_t *block = lsm_get_intfcb(3);
    ASSERT_NE(block, nullptr);
    client().change([](Store &store) { return store.remove(3); });
    EXPECT_EQ(lsm_get_intfcb(3), nullptr);
    EXPECT_EQ(block->admin_state, INTF_ADMIN_UP);
    EXPECT_EQ(block->line_state, INTF_UP);
    ASSERT_NE(block->eth_info, nullptr);
    EXPECT_EQ(block->eth_info->speed, 10000u);
    EXPECT_EQ(block->eth_info->duplex, LSM_DUPLEX_FULL);
    lsm_put_intfcb(block);
    lsm_put_intfcb(nullptr);
}

TEST_F(LsmQuery, control_block_without_ethernet_facts)
{
    const lsm_intfcb_t *block = lsm_get_intfcb(4);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->eth_info, nullptr);
    EXPECT_EQ(block->admin_state, INTF_ADMIN_DOWN);
    lsm_put_intfcb(block);
}

TEST_F(LsmQuery, walk_is_sorted_and_complete)
{
    const std::vector<lsm_if_record_t> records = lsm_if_walk();
    ASSERT_EQ(records.size(), network().size());
    EXPECT_TRUE(std::is_sorted(records.begin(), records.end(),
                               [](const auto &a, const auto &b) { return a.ifx < b.ifx; }));
    const lsm_if_record_t &eth0 = records[1];
    EXPECT_EQ(eth0.name, "eth0");
    EXPECT_EQ(eth0.type, LSM_IF_TYPE_ETHERNET);
    EXPECT_TRUE(eth0.admin_up);
    EXPECT_TRUE(eth0.oper_up);
    EXPECT_TRUE(eth0.has_eth_info);
    EXPECT_EQ(eth0.eth.speed, 10000u);
    EXPECT_EQ(eth0.mtu, 1500u);
    EXPECT_EQ(eth0.mac[5], 3);
    ASSERT_EQ(eth0.addrs.size(), 3u);
    EXPECT_EQ(eth0.addrs[0].family, AF_INET);
    EXPECT_EQ(eth0.addrs[0].prefix_len, 24u);
    EXPECT_EQ(eth0.addrs[2].family, AF_INET6);
    EXPECT_TRUE(eth0.addrs[2].usable);
    EXPECT_EQ(records[3].master, 2u);
    EXPECT_EQ(records[9].vrf, 10);
}

// ---- Delivery

std::vector<std::string> delivered;

int collect(int event, char *data, int)
{
    IFINDEX ifx = 0;
    std::memcpy(&ifx, data, sizeof ifx);
    delivered.push_back(std::to_string(event) + ":" + std::to_string(ifx));
    // A handler may ask, and sees the state that the event announces.
    if (event == INTF_EVENT_DESTROY_INDEX) {
        delivered.push_back(lsm_get_realtime_version(ifx, 7) == 0 ? "gone" : "there");
    }
    return 0;
}

class LsmDelivery : public testing::Test
{
protected:
    void SetUp() override
    {
        delivered.clear();
        lsm_iftype_filter filter{};
        std::fill(std::begin(filter.bits), std::end(filter.bits), u_int8_t{0xFF});
        lsm_msg_set set;
        lsm_msgset_zero(&set);
        for (const int event :
             {INTF_EVENT_CREATE_INDEX, INTF_EVENT_DESTROY_INDEX, INTF_EVENT_DEFAULT_INDEX}) {
            lsm_msgset_set(event, &set);
        }
        ASSERT_TRUE(client().subscriptions().subscribe(LSM_IF_STACK_TCPIP, filter, set));
        ASSERT_TRUE(client().subscriptions().set_handler(LSM_IF_STACK_TCPIP, collect));
        client().set_mode(LSM_CLIENT_MODE_DUPLICATOR);
        client().start({}, {{.link = port(3, "eth0"), .addresses = {}, .eth = {}}});
    }
    void TearDown() override
    {
        client().start({}, {});
        client().set_mode(LSM_CLIENT_MODE_NOTIFY);
    }
};

TEST_F(LsmDelivery, duplicator_gets_what_exists_and_then_the_end_of_it)
{
    client().change([](Store &store) { return store.apply(port(4, "eth1")); });
    EXPECT_THAT(delivered, IsEmpty());
    client().begin_delivery();
    EXPECT_THAT(delivered, ElementsAre("0:3", "0:4", "48:2"));
}

TEST_F(LsmDelivery, notify_mode_begins_with_the_end)
{
    client().set_mode(LSM_CLIENT_MODE_NOTIFY);
    client().begin_delivery();
    EXPECT_THAT(delivered, ElementsAre("48:1"));
    delivered.clear();
    client().change([](Store &store) { return store.apply(port(4, "eth1")); });
    EXPECT_THAT(delivered, ElementsAre("0:4"));
}

TEST_F(LsmDelivery, event_comes_after_the_change)
{
    client().begin_delivery();
    delivered.clear();
    client().change([](Store &store) { return store.remove(3); });
    EXPECT_THAT(delivered, ElementsAre("1:3", "gone"));
}

TEST_F(LsmDelivery, defaults_are_delivered_later_and_once)
{
    client().begin_delivery();
    delivered.clear();
    EXPECT_TRUE(client().note_default(3));
    EXPECT_FALSE(client().note_default(4));
    EXPECT_THAT(delivered, IsEmpty());
    client().deliver_defaults();
    client().deliver_defaults();
    EXPECT_THAT(delivered, ElementsAre("2:3"));
}

TEST_F(LsmDelivery, default_of_an_interface_that_vanished_is_dropped)
{
    client().begin_delivery();
    EXPECT_TRUE(client().note_default(3));
    client().change([](Store &store) { return store.remove(3); });
    delivered.clear();
    client().deliver_defaults();
    EXPECT_THAT(delivered, IsEmpty());
}

TEST_F(LsmDelivery, starting_over_is_silent_until_the_registration_is_over_again)
{
    client().begin_delivery();
    delivered.clear();
    client().start({}, {});
    client().change([](Store &store) { return store.apply(port(4, "eth1")); });
    EXPECT_THAT(delivered, IsEmpty());
}

TEST_F(LsmDelivery, queries_go_on_while_the_data_change)
{
    std::atomic<bool> stop = false;
    std::atomic<int> answers = 0;
    std::thread asker([&] {
        do {
            const lsm_intfcb_t *block = lsm_get_intfcb(3);
            if (block != nullptr) {
                answers += block->ifx == 3 ? 1 : 0;
                lsm_put_intfcb(block);
            }
            lsm_netif_get_first_ip_by_index(3);
            lsm_if_walk();
        } while (!stop);
    });
    for (int round = 0; round < 300; ++round) {
        client().change(
            [&](Store &store) { return store.apply(with_flags(port(3, "eth0"), round % 2 ? UP : 0)); });
        client().change([&](Store &store) { return store.apply(3, address("10.0.0.3/24")); });
        client().change([&](Store &store) { return store.remove(3, address("10.0.0.3/24")); });
    }
    stop = true;
    asker.join();
    EXPECT_GT(answers, 0);
}

} // namespace
