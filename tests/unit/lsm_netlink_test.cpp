// Decoding of rtnetlink messages.
#include "interface_manager/lsm_netlink.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

#include <cstring>
#include <memory>

namespace
{

using namespace platform::lsm;

struct FreeMessage {
    void operator()(nl_msg *msg) const { nlmsg_free(msg); }
};
using Message = std::unique_ptr<nl_msg, FreeMessage>;

template <typename Header>
Message message(int type, const Header &header)
{
    Message msg(nlmsg_alloc_simple(type, 0));
    nlmsg_set_proto(msg.get(), NETLINK_ROUTE);
    Header copy = header;
    nlmsg_append(msg.get(), &copy, sizeof copy, NLMSG_ALIGNTO);
    return msg;
}

ifinfomsg link_header(int index, unsigned flags)
{
    ifinfomsg header{};
    header.ifi_index = index;
    header.ifi_type = ARPHRD_ETHER;
    header.ifi_flags = flags;
    return header;
}

Message link_message(int type, const ifinfomsg &header, const char *name)
{
    Message msg = message(type, header);
    if (name != nullptr) {
        nla_put_string(msg.get(), IFLA_IFNAME, name);
    }
    return msg;
}

Message address_message(int type, unsigned char family, int index, const void *local, int len,
                        u_int32_t flags)
{
    ifaddrmsg header{};
    header.ifa_family = family;
    header.ifa_prefixlen = 24;
    header.ifa_flags = static_cast<unsigned char>(flags);
    header.ifa_index = static_cast<unsigned>(index);
    header.ifa_scope = RT_SCOPE_LINK;
    Message msg = message(type, header);
    nla_put(msg.get(), IFA_ADDRESS, len, local);
    nla_put(msg.get(), IFA_LOCAL, len, local);
    nla_put_u32(msg.get(), IFA_FLAGS, flags);
    return msg;
}

TEST(Lsm_netlink_parse_change, link_with_everything)
{
    const Message msg = link_message(RTM_NEWLINK, link_header(7, IFF_UP | IFF_RUNNING), "v0");
    constexpr u_int8_t MAC[] = {2, 0, 0, 1, 2, 3};
    nla_put(msg.get(), IFLA_ADDRESS, sizeof MAC, MAC);
    nla_put_u32(msg.get(), IFLA_MTU, 9000);
    nla_put_u32(msg.get(), IFLA_MASTER, 12);
    nla_put_u32(msg.get(), IFLA_LINK, 3);
    nla_put_s32(msg.get(), IFLA_LINK_NETNSID, 0);
    nla_put_u8(msg.get(), IFLA_OPERSTATE, IF_OPER_UP);
    nlattr *info = nla_nest_start(msg.get(), IFLA_LINKINFO);
    nla_put_string(msg.get(), IFLA_INFO_KIND, "veth");
    nla_put_string(msg.get(), IFLA_INFO_SLAVE_KIND, "vrf");
    nla_nest_end(msg.get(), info);

    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    const Link *link = std::get_if<Link>(&*change);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->ifx, 7u);
    EXPECT_EQ(link->name, "v0");
    EXPECT_EQ(link->kind, "veth");
    EXPECT_EQ(link->slave_kind, "vrf");
    EXPECT_EQ(link->hw_type, unsigned{ARPHRD_ETHER});
    EXPECT_EQ(link->flags & (IFF_UP | IFF_RUNNING), unsigned{IFF_UP | IFF_RUNNING});
    EXPECT_EQ(link->oper_state, unsigned{IF_OPER_UP});
    EXPECT_EQ(link->mtu, 9000u);
    EXPECT_EQ(link->mac[5], 3);
    EXPECT_EQ(link->master, 12u);
    EXPECT_EQ(link->parent, 3u);
    EXPECT_TRUE(link->parent_elsewhere);
}

TEST(Lsm_netlink_parse_change, bare_link)
{
    const Message msg = link_message(RTM_NEWLINK, link_header(1, IFF_LOOPBACK), "lo");
    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    const Link &link = std::get<Link>(*change);
    EXPECT_EQ(link.kind, "");
    EXPECT_EQ(link.slave_kind, "");
    EXPECT_EQ(link.master, 0u);
    EXPECT_EQ(link.parent, 0u);
    EXPECT_FALSE(link.parent_elsewhere);
    EXPECT_EQ(link.flags, unsigned{IFF_LOOPBACK});
}

TEST(Lsm_netlink_parse_change, link_that_goes)
{
    const Message msg = link_message(RTM_DELLINK, link_header(7, 0), "v0");
    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    EXPECT_EQ(std::get<LinkGone>(*change).ifx, 7u);
}

TEST(Lsm_netlink_parse_change, port_leaving_a_bridge_is_no_link_that_goes)
{
    ifinfomsg header = link_header(7, 0);
    header.ifi_family = AF_BRIDGE;
    EXPECT_FALSE(parse_change(link_message(RTM_DELLINK, header, "v0").get()).has_value());
    EXPECT_FALSE(parse_change(link_message(RTM_NEWLINK, header, "v0").get()).has_value());
}

TEST(Lsm_netlink_parse_change, partial_link_messages_are_ignored)
{
    const Message wireless = link_message(RTM_NEWLINK, link_header(7, 0), "wlan0");
    nla_put_u32(wireless.get(), IFLA_WIRELESS, 0);
    EXPECT_FALSE(parse_change(wireless.get()).has_value());
    EXPECT_FALSE(parse_change(link_message(RTM_NEWLINK, link_header(7, 0), nullptr).get()).has_value());
    EXPECT_FALSE(parse_change(link_message(RTM_NEWLINK, link_header(0, 0), "x").get()).has_value());
    const u_int32_t half = 0;
    EXPECT_FALSE(parse_change(message(RTM_NEWLINK, half).get()).has_value());
}

TEST(Lsm_netlink_parse_change, ipv4_address)
{
    constexpr u_int8_t LOCAL[] = {10, 0, 0, 1};
    const Message msg = address_message(RTM_NEWADDR, AF_INET, 7, LOCAL, sizeof LOCAL, IFA_F_SECONDARY);
    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    const AddressChange &added = std::get<AddressChange>(*change);
    EXPECT_EQ(added.ifx, 7u);
    EXPECT_EQ(added.address.family, AF_INET);
    EXPECT_EQ(std::memcmp(added.address.local.data(), LOCAL, sizeof LOCAL), 0);
    EXPECT_EQ(added.address.prefix_len, 24u);
    EXPECT_EQ(added.address.scope, unsigned{RT_SCOPE_LINK});
    EXPECT_TRUE(is_secondary(added.address));
}

TEST(Lsm_netlink_parse_change, point_to_point_address_is_the_local_end)
{
    constexpr u_int8_t LOCAL[] = {10, 0, 0, 1};
    constexpr u_int8_t PEER[] = {10, 0, 0, 2};
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = 32;
    header.ifa_index = 7;
    const Message msg = message(RTM_NEWADDR, header);
    nla_put(msg.get(), IFA_ADDRESS, sizeof PEER, PEER);
    nla_put(msg.get(), IFA_LOCAL, sizeof LOCAL, LOCAL);
    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    const Address &address = std::get<AddressChange>(*change).address;
    EXPECT_EQ(std::memcmp(address.local.data(), LOCAL, sizeof LOCAL), 0);
    EXPECT_EQ(std::memcmp(address.peer.data(), PEER, sizeof PEER), 0);
}

TEST(Lsm_netlink_parse_change, ipv6_address_comes_without_a_local_attribute)
{
    constexpr u_int8_t ADDRESS[16] = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = 64;
    header.ifa_index = 7;
    const Message msg = message(RTM_DELADDR, header);
    nla_put(msg.get(), IFA_ADDRESS, sizeof ADDRESS, ADDRESS);
    nla_put_u32(msg.get(), IFA_FLAGS, IFA_F_TENTATIVE | IFA_F_NOPREFIXROUTE);
    const auto change = parse_change(msg.get());
    ASSERT_TRUE(change.has_value());
    const AddressGone &gone = std::get<AddressGone>(*change);
    EXPECT_EQ(gone.ifx, 7u);
    EXPECT_EQ(std::memcmp(gone.address.local.data(), ADDRESS, sizeof ADDRESS), 0);
    EXPECT_FALSE(is_usable(gone.address));
    EXPECT_EQ(gone.address.flags, unsigned{IFA_F_TENTATIVE | IFA_F_NOPREFIXROUTE});
}

TEST(Lsm_netlink_parse_change, other_messages_are_ignored)
{
    EXPECT_FALSE(parse_change(message(RTM_NEWROUTE, rtmsg{}).get()).has_value());
    EXPECT_FALSE(parse_change(message(NLMSG_DONE, int{0}).get()).has_value());
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_index = 7;
    EXPECT_FALSE(parse_change(message(RTM_NEWADDR, header).get()).has_value());
    header.ifa_family = AF_BRIDGE;
    EXPECT_FALSE(parse_change(message(RTM_NEWADDR, header).get()).has_value());
}

/// What the kernel sends is trusted to be well-formed, but no length of it may make the reader step outside.
TEST(Lsm_netlink_parse_change, truncated_messages_do_no_harm)
{
    const Message whole = link_message(RTM_NEWLINK, link_header(7, IFF_UP), "v0");
    nla_put_u32(whole.get(), IFLA_MTU, 1500);
    nlattr *info = nla_nest_start(whole.get(), IFLA_LINKINFO);
    nla_put_string(whole.get(), IFLA_INFO_KIND, "veth");
    nla_nest_end(whole.get(), info);
    const auto *bytes = reinterpret_cast<const char *>(nlmsg_hdr(whole.get()));
    const std::size_t length = nlmsg_hdr(whole.get())->nlmsg_len;
    int understood = 0;
    for (std::size_t cut = NLMSG_HDRLEN; cut <= length; ++cut) {
        // A buffer of exactly this size, so that the address sanitizer sees a read beyond it.
        const std::unique_ptr<char[]> copy = std::make_unique<char[]>(cut);
        std::memcpy(copy.get(), bytes, cut);
        auto *header = reinterpret_cast<nlmsghdr *>(copy.get());
        header->nlmsg_len = static_cast<u_int32_t>(cut);
        const Message msg(nlmsg_convert(header));
        nlmsg_set_proto(msg.get(), NETLINK_ROUTE);
        understood += parse_change(msg.get()).has_value() ? 1 : 0;
    }
    EXPECT_GT(understood, 0);
    EXPECT_LT(understood, static_cast<int>(length));
}

} // namespace
