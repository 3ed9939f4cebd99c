// The interface table and the counters against made-up and real answers of the kernel; needs no privilege.
#include "kernel_counters.h"
#include "links.h"
#include "sampling_fakes.h"

#include <arpa/inet.h>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_vlan.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>

namespace sampling
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

constexpr IFINDEX made_up = 0x7FFFFF00;

struct Fields {
    int type = RTM_NEWLINK;
    unsigned char family = AF_UNSPEC;
    const char *name = "made0";
    const char *kind = nullptr;
    std::uint16_t arp_type = ARPHRD_ETHER;
    std::uint32_t flags = IFF_UP;
    int oper_state = 6; // up
    std::uint32_t promiscuity = 0;
    std::optional<std::uint64_t> received_bytes = std::nullopt;
};

NlMsg link_message(const Fields &fields)
{
    NlMsg message(nlmsg_alloc_simple(fields.type, 0));
    ifinfomsg info = {};
    info.ifi_family = fields.family;
    info.ifi_index = static_cast<int>(made_up);
    info.ifi_type = fields.arp_type;
    info.ifi_flags = fields.flags;
    nlmsg_append(message.get(), &info, sizeof(info), NLMSG_ALIGNTO);
    nla_put_string(message.get(), IFLA_IFNAME, fields.name);
    nla_put_u8(message.get(), IFLA_OPERSTATE, static_cast<std::uint8_t>(fields.oper_state));
    nla_put_u32(message.get(), IFLA_PROMISCUITY, fields.promiscuity);
    if (fields.received_bytes) {
        rtnl_link_stats64 statistics = {};
        statistics.rx_bytes = *fields.received_bytes;
        nla_put(message.get(), IFLA_STATS64, sizeof(statistics), &statistics);
    }
    if (fields.kind != nullptr) {
        nlattr *link_info = nla_nest_start(message.get(), IFLA_LINKINFO);
        nla_put_string(message.get(), IFLA_INFO_KIND, fields.kind);
        nla_nest_end(message.get(), link_info);
    }
    return message;
}

struct Links {
    EventLoop loop;
    LogLines log;
    LinkTable table{loop, log.log};
    std::vector<IFINDEX> removed;
    std::vector<std::optional<std::uint64_t>> farewells; ///< received bytes

    Links()
    {
        table.on_farewell([this](IFINDEX, const rtnl_link_stats64 *last) {
            farewells.push_back(last == nullptr ? std::nullopt
                                                : std::optional<std::uint64_t>(last->rx_bytes));
        });
        table.on_removal([this](IFINDEX ifindex) { removed.push_back(ifindex); });
    }
    void take(const Fields &fields) { table.take(link_message(fields).get()); }
};

TEST(LinkTable_find, knows_the_loopback_interface)
{
    Links links;
    const IFINDEX lo = links.table.index_of("lo");
    ASSERT_NE(lo, 0U);
    const Link *link = links.table.find(lo);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->name, "lo");
    EXPECT_EQ(link->arp_type, ARPHRD_LOOPBACK);
    EXPECT_TRUE(can_be_sampled(*link));
    EXPECT_EQ(links.table.name_of(lo), "lo");
}

TEST(LinkTable_find, an_unknown_index_is_nobody)
{
    Links links;
    EXPECT_EQ(links.table.find(made_up), nullptr);
    EXPECT_EQ(links.table.find(0), nullptr);
    EXPECT_EQ(links.table.name_of(made_up), "#2147483392");
    EXPECT_EQ(links.table.index_of("no such name"), 0U);
}

TEST(LinkTable_take, keeps_what_a_notice_tells)
{
    Links links;
    links.take({.kind = "vlan", .promiscuity = 2});
    const Link *link = links.table.find(made_up);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->name, "made0");
    EXPECT_EQ(link->kind, "vlan");
    EXPECT_TRUE(link->oper_up);
    EXPECT_TRUE(link->promiscuous);
    links.take({.name = "renamed", .oper_state = 2});
    EXPECT_EQ(links.table.index_of("renamed"), made_up);
    EXPECT_FALSE(links.table.find(made_up)->oper_up);
    EXPECT_FALSE(links.table.find(made_up)->promiscuous);
}

/// A notice of a VLAN device above `parent`. Protocol 0: the kernel does not say; no flags: it does not either.
NlMsg vlan_message(IFINDEX index, IFINDEX parent, std::uint16_t id, std::uint16_t protocol,
                   std::optional<std::uint32_t> flags, bool elsewhere = false)
{
    NlMsg message(nlmsg_alloc_simple(RTM_NEWLINK, 0));
    ifinfomsg info = {};
    info.ifi_index = static_cast<int>(index);
    info.ifi_type = ARPHRD_ETHER;
    nlmsg_append(message.get(), &info, sizeof(info), NLMSG_ALIGNTO);
    nla_put_u32(message.get(), IFLA_LINK, parent);
    if (elsewhere)
        nla_put_s32(message.get(), IFLA_LINK_NETNSID, 1);
    nlattr *const link_info = nla_nest_start(message.get(), IFLA_LINKINFO);
    nla_put_string(message.get(), IFLA_INFO_KIND, "vlan");
    nlattr *const data = nla_nest_start(message.get(), IFLA_INFO_DATA);
    nla_put_u16(message.get(), IFLA_VLAN_ID, id);
    if (protocol != 0)
        nla_put_u16(message.get(), IFLA_VLAN_PROTOCOL, htons(protocol));
    if (flags) {
        const ifla_vlan_flags value = {.flags = *flags, .mask = ~0U};
        nla_put(message.get(), IFLA_VLAN_FLAGS, sizeof(value), &value);
    }
    nla_nest_end(message.get(), data);
    nla_nest_end(message.get(), link_info);
    return message;
}

TEST(LinkTable_device_tags, are_those_of_the_vlan_devices_the_lowest_one_in_front)
{
    constexpr IFINDEX lower = made_up + 1;
    constexpr IFINDEX upper = made_up + 2;
    Links links;
    links.take({}); // the port
    links.table.take(vlan_message(lower, made_up, 200, ETH_P_8021AD, VLAN_FLAG_REORDER_HDR).get());
    links.table.take(vlan_message(upper, lower, 100, 0, std::nullopt).get());
    const VlanTag outer = {.protocol = ETH_P_8021AD, .tci = 200};
    const VlanTag inner = {.protocol = ETH_P_8021Q, .tci = 100};
    EXPECT_THAT(links.table.device_tags(made_up), IsEmpty());
    EXPECT_THAT(links.table.device_tags(lower), ElementsAre(outer));
    EXPECT_THAT(links.table.device_tags(upper), ElementsAre(outer, inner));
    EXPECT_THAT(links.table.device_tags(made_up + 3), IsEmpty());
}

TEST(LinkTable_device_tags, do_not_reach_into_another_namespace)
{
    constexpr IFINDEX lower = made_up + 1;
    constexpr IFINDEX upper = made_up + 2;
    Links links;
    links.table.take(vlan_message(lower, made_up, 200, ETH_P_8021Q, VLAN_FLAG_REORDER_HDR).get());
    links.table.take(vlan_message(upper, lower, 100, ETH_P_8021Q, VLAN_FLAG_REORDER_HDR, true).get());
    EXPECT_THAT(links.table.device_tags(upper), ElementsAre(VlanTag{.protocol = ETH_P_8021Q, .tci = 100}));
}

TEST(LinkTable_device_tags, are_left_out_where_the_kernel_leaves_them_in_the_frame)
{
    Links links;
    links.table.take(vlan_message(made_up, 1, 100, ETH_P_8021Q, 0).get());
    EXPECT_THAT(links.table.device_tags(made_up), IsEmpty());
}

TEST(LinkTable_device_tags, of_devices_that_form_a_circle_come_to_an_end)
{
    Links links;
    links.table.take(vlan_message(made_up, made_up, 100, ETH_P_8021Q, VLAN_FLAG_REORDER_HDR).get());
    EXPECT_EQ(links.table.device_tags(made_up).size(), 8U);
}

TEST(LinkTable_take, an_unknown_operational_state_is_up_with_a_running_carrier)
{
    Links links;
    links.take({.flags = IFF_UP | IFF_RUNNING, .oper_state = 0});
    EXPECT_TRUE(links.table.find(made_up)->oper_up);
    links.take({.flags = IFF_UP, .oper_state = 0});
    EXPECT_FALSE(links.table.find(made_up)->oper_up);
}

TEST(LinkTable_take, removal_is_told_in_a_later_round)
{
    Links links;
    links.take({});
    links.take({.type = RTM_DELLINK});
    EXPECT_EQ(links.table.find(made_up), nullptr);
    EXPECT_THAT(links.removed, IsEmpty());
    settle(links.loop);
    EXPECT_THAT(links.removed, ElementsAre(made_up));
}

TEST(LinkTable_take, the_last_statistics_of_an_interface_are_told_at_once)
{
    Links links;
    links.take({});
    links.take({.type = RTM_DELLINK, .received_bytes = 4711});
    EXPECT_THAT(links.farewells, ElementsAre(4711U));
    links.take({.type = RTM_DELLINK, .received_bytes = 4712}); // nobody's
    EXPECT_THAT(links.farewells, ElementsAre(4711U));
    links.take({});
    links.take({.type = RTM_DELLINK});
    EXPECT_THAT(links.farewells, ElementsAre(4711U, std::nullopt));
}

TEST(LinkTable_take, notices_of_a_bridge_port_say_nothing_about_the_interface)
{
    Links links;
    links.take({});
    links.take({.type = RTM_DELLINK, .family = AF_BRIDGE});
    EXPECT_NE(links.table.find(made_up), nullptr);
    settle(links.loop);
    EXPECT_THAT(links.removed, IsEmpty());
}

TEST(LinkTable_can_be_sampled, only_where_frames_have_an_ethernet_header)
{
    struct Row {
        std::uint16_t arp_type;
        const char *kind;
        bool sampled;
    };
    for (const Row &row : {Row{ARPHRD_ETHER, nullptr, true}, Row{ARPHRD_ETHER, "bond", true},
                           Row{ARPHRD_ETHER, "vlan", true}, Row{ARPHRD_LOOPBACK, nullptr, true},
                           Row{ARPHRD_ETHER, "vrf", false}, Row{ARPHRD_NONE, "wireguard", false},
                           Row{ARPHRD_TUNNEL, "ipip", false}, Row{ARPHRD_PPP, nullptr, false}}) {
        Links links;
        links.take({.kind = row.kind, .arp_type = row.arp_type});
        EXPECT_EQ(can_be_sampled(*links.table.find(made_up)), row.sampled)
            << row.arp_type << " " << (row.kind != nullptr ? row.kind : "");
    }
}

TEST(LinkTable_is_vrf, by_its_kind)
{
    Links links;
    links.take({.kind = "vrf"});
    EXPECT_TRUE(links.table.is_vrf(made_up));
    EXPECT_FALSE(links.table.is_vrf(links.table.index_of("lo")));
    EXPECT_FALSE(links.table.is_vrf(made_up - 1));
}

TEST(KernelCounters_read_link, agrees_with_the_dump_of_all_interfaces)
{
    LogLines log;
    KernelCounters counters(log.log);
    Links links;
    const IFINDEX lo = links.table.index_of("lo");
    const auto before = counters.read_link(lo);
    const auto all = counters.read_all_links();
    const auto after = counters.read_link(lo);
    ASSERT_TRUE(before && after && all.contains(lo));
    // the loopback may be busy: each number lies between two single reads
    EXPECT_LE(before->rx_packets, all.at(lo).rx_packets);
    EXPECT_LE(all.at(lo).rx_packets, after->rx_packets);
    EXPECT_LE(before->rx_bytes, all.at(lo).rx_bytes);
    EXPECT_LE(all.at(lo).rx_bytes, after->rx_bytes);
}

TEST(KernelCounters_read_link, an_unknown_index_has_none_and_the_next_read_works)
{
    LogLines log;
    KernelCounters counters(log.log);
    Links links;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(counters.read_link(made_up));
        EXPECT_TRUE(counters.read_link(links.table.index_of("lo")));
    }
}

TEST(KernelCounters_read_mac, an_interface_without_a_mac_counts_nothing)
{
    LogLines log;
    KernelCounters counters(log.log);
    Links links;
    for (const IFINDEX ifindex : {links.table.index_of("lo"), made_up}) {
        const MacCounters mac = counters.read_mac(ifindex);
        EXPECT_FALSE(mac.fcs_errors);
        EXPECT_FALSE(mac.rx_broadcast);
        EXPECT_FALSE(mac.symbol_errors);
    }
}

} // namespace
} // namespace sampling
