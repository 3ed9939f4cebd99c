// Which interface type, kind and layer the kernel's devices become.
#include "lsm_test_events.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>

namespace
{

using namespace platform::lsm;
using namespace lsm_test;

struct KindCase {
    const char *name;
    const char *kind;
    unsigned hw_type;
    int type;
    u_int32_t kind_bits;
    bool physical;
};

constexpr KindCase KIND_CASES[] = {
    {"network card", "", ARPHRD_ETHER, 6, 0x1, true},
    {"switch port", "dsa", ARPHRD_ETHER, 6, 0x1, true},
    {"veth", "veth", ARPHRD_ETHER, 12, 0x2, true},
    {"macvlan", "macvlan", ARPHRD_ETHER, 12, 0x2, true},
    {"tap", "tun", ARPHRD_ETHER, 12, 0x2, true},
    {"netdevsim", "netdevsim", ARPHRD_ETHER, 12, 0x2, true},
    {"unheard-of Ethernet kind", "frobnet", ARPHRD_ETHER, 12, 0x2, true},
    {"bond", "bond", ARPHRD_ETHER, 24, 0x20000, true},
    {"team", "team", ARPHRD_ETHER, 24, 0x20000, true},
    {"VLAN", "vlan", ARPHRD_ETHER, 6, 0x800, false},
    {"bridge", "bridge", ARPHRD_ETHER, 60, 0x80, false},
    {"VRF", "vrf", ARPHRD_ETHER, 62, 0x100, false},
    {"VXLAN", "vxlan", ARPHRD_ETHER, 63, 0x200, false},
    {"GRE", "gre", ARPHRD_IPGRE, 63, 0x200, false},
    {"tun", "tun", ARPHRD_NONE, 63, 0x200, false},
    {"old tunnel driver", "", ARPHRD_TUNNEL, 63, 0x200, false},
    {"WireGuard", "wireguard", ARPHRD_NONE, 63, 0x200, false},
    {"ifb", "ifb", ARPHRD_ETHER, 64, 0x400, false},
    {"CAN bus", "", ARPHRD_CAN, 64, 0x400, false},
};

TEST(Lsm_model, device_kinds_become_interface_types)
{
    for (const KindCase &row : KIND_CASES) {
        SCOPED_TRACE(row.name);
        Link link = device(5, "x", row.kind);
        link.hw_type = row.hw_type;
        EXPECT_EQ(type_of(link), row.type);
        EXPECT_EQ(kind_of(link), row.kind_bits);
        EXPECT_EQ(exists_on(link, LSM_IF_STACK_PHYSICAL), row.physical);
        EXPECT_TRUE(exists_on(link, LSM_IF_STACK_TCPIP));
        EXPECT_FALSE(exists_on(link, LSM_IF_STACK_BRIDGE));
        EXPECT_EQ(is_subinterface(link), std::string(row.kind) == "vlan");
    }
}

TEST(Lsm_model, loopback_is_told_by_its_flag)
{
    Link lo = port(1, "lo");
    lo.hw_type = ARPHRD_LOOPBACK;
    lo.flags = IFF_LOOPBACK;
    EXPECT_EQ(type_of(lo), LSM_IF_TYPE_LOOPBACK);
    EXPECT_EQ(kind_of(lo), 0x40u);
}

TEST(Lsm_model, every_kind_fits_the_masks_of_the_command_line)
{
    constexpr u_int32_t ORDINARY = 0xFFDFEFEF;
    constexpr u_int32_t PORTS = 0xF801000B;
    for (const KindCase &row : KIND_CASES) {
        SCOPED_TRACE(row.name);
        Link link = device(5, "x", row.kind);
        link.hw_type = row.hw_type;
        EXPECT_NE(kind_of(link) & ORDINARY, 0u);
        EXPECT_EQ((kind_of(link) & PORTS) != 0, (row.type == 6 || row.type == 12) && row.kind_bits != 0x800);
    }
    EXPECT_EQ(u_int32_t{LSM_IF_KIND_MANAGEMENT}, 0x100000u);
}

TEST(Lsm_model, members_leave_the_tcpip_layer)
{
    struct Case {
        const char *slave_kind;
        bool tcpip;
        IFINDEX aggregate;
        IFINDEX bridge;
        IFINDEX vrf;
    };
    constexpr Case CASES[] = {
        {"bond", false, 9, 0, 0},        {"team", false, 9, 0, 0}, {"bridge", false, 0, 9, 0},
        {"openvswitch", false, 0, 9, 0}, {"vrf", true, 0, 0, 9},   {"hsr", true, 0, 0, 0},
    };
    for (const Case &row : CASES) {
        SCOPED_TRACE(row.slave_kind);
        const Link link = member_of(port(5, "eth0"), 9, row.slave_kind);
        EXPECT_EQ(exists_on(link, LSM_IF_STACK_TCPIP), row.tcpip);
        EXPECT_TRUE(exists_on(link, LSM_IF_STACK_PHYSICAL));
        EXPECT_EQ(aggregate_of(link), row.aggregate);
        EXPECT_EQ(bridge_of(link), row.bridge);
        EXPECT_EQ(vrf_of(link), row.vrf);
    }
    EXPECT_EQ(vrf_of(device(9, "blue", "vrf")), 9u);
}

TEST(Lsm_model, devices_the_system_makes_for_itself_are_internal)
{
    EXPECT_EQ(flags_of(device(4, "sit0", "sit")), LSM_IF_FLAG_INTERNAL);
    EXPECT_EQ(flags_of(device(4, "sit1", "sit")), 0u);
    EXPECT_EQ(flags_of(port(4, "eth0")), 0u);
}

TEST(Lsm_model, absent_device_is_transient)
{
    Link link = port(4, "eth0");
    link.oper_state = IF_OPER_NOTPRESENT;
    EXPECT_EQ(flags_of(link), LSM_IF_FLAG_TRANSIENT);
    link.oper_state = IF_OPER_DOWN;
    EXPECT_EQ(flags_of(link), 0u);
}

TEST(Lsm_model, line_is_up_only_with_admin_state_and_carrier)
{
    EXPECT_FALSE(is_line_up(with_flags(port(4, "eth0"), IFF_RUNNING)));
    EXPECT_FALSE(is_line_up(with_flags(port(4, "eth0"), IFF_UP)));
    EXPECT_TRUE(is_admin_up(with_flags(port(4, "eth0"), IFF_UP)));
    EXPECT_TRUE(is_line_up(with_flags(port(4, "eth0"), IFF_UP | IFF_RUNNING)));
}

TEST(Lsm_model, addresses_under_duplicate_detection_are_not_usable)
{
    EXPECT_TRUE(is_usable(address("2001:db8::1/64")));
    EXPECT_TRUE(is_usable(address("2001:db8::1/64", IFA_F_PERMANENT | IFA_F_DEPRECATED)));
    EXPECT_FALSE(is_usable(address("2001:db8::1/64", IFA_F_TENTATIVE)));
    EXPECT_TRUE(is_usable(address("2001:db8::1/64", IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)));
    EXPECT_FALSE(is_usable(address("2001:db8::1/64", IFA_F_DADFAILED)));
    EXPECT_FALSE(is_usable(address("2001:db8::1/64", IFA_F_DADFAILED | IFA_F_OPTIMISTIC)));
}

} // namespace
