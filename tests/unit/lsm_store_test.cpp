// What changes of the kernel's data mean as events, and what the data then say.
#include "lsm_test_events.h"

#include "interface_manager/lsm_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>

namespace
{

using namespace platform::lsm;
using namespace lsm_test;
using testing::ElementsAre;
using testing::IsEmpty;

std::string first_text(const Store &store, IFINDEX ifx, int family)
{
    const Address *first = store.find(ifx)->first(family);
    if (first == nullptr) {
        return "none";
    }
    Events events;
    Event event;
    event.number = INTF_EVENT_CREATE_INDEX;
    if (family == AF_INET) {
        return std::to_string(first->local[0]) + "." + std::to_string(first->local[1]) + "." +
               std::to_string(first->local[2]) + "." + std::to_string(first->local[3]);
    }
    return "::" + std::to_string(first->local[15]);
}

// ---- Links

TEST(Lsm_store_apply, new_port_appears_on_both_layers)
{
    Store store;
    EXPECT_THAT(describe(store.apply(port(5, "eth0"))), ElementsAre("3+7 create 5"));
    EXPECT_THAT(describe(store.apply(port(5, "eth0"))), IsEmpty());
    EXPECT_EQ(store.size(), 1u);
}

TEST(Lsm_store_apply, new_device_that_is_up_is_announced_with_its_state)
{
    Store store;
    EXPECT_THAT(describe(store.apply(device(5, "v0", "veth"))),
                ElementsAre("3+7 create 5", "3+7 admin 5 up", "3+7 link 5 up"));
    EXPECT_THAT(describe(store.apply(device(6, "v0.10", "vlan"))),
                ElementsAre("7 create 6", "7 admin 6 up", "7 link 6 up"));
}

TEST(Lsm_store_apply, state_changes_are_announced_one_by_one)
{
    Store store;
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(with_flags(port(5, "eth0"), 0x1))), ElementsAre("3+7 admin 5 up"));
    EXPECT_THAT(describe(store.apply(with_flags(port(5, "eth0"), UP))), ElementsAre("3+7 link 5 up"));
    EXPECT_THAT(describe(store.apply(with_flags(port(5, "eth0"), UP | 0x100))), IsEmpty()); // promiscuous
    EXPECT_THAT(describe(store.apply(with_flags(port(5, "eth0"), 0))),
                ElementsAre("3+7 link 5 down", "3+7 admin 5 down"));
}

TEST(Lsm_store_apply, rename_keeps_the_interface)
{
    Store store;
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(port(5, "wan"))), IsEmpty());
    EXPECT_EQ(store.find("eth0"), nullptr);
    ASSERT_NE(store.find("wan"), nullptr);
    EXPECT_EQ(store.find("wan")->link.ifx, 5u);
}

TEST(Lsm_store_apply, names_can_be_swapped)
{
    Store store;
    store.apply(port(5, "a"));
    store.apply(port(6, "b"));
    store.apply(port(5, "tmp"));
    store.apply(port(6, "a"));
    store.apply(port(5, "b"));
    EXPECT_EQ(store.find("a")->link.ifx, 6u);
    EXPECT_EQ(store.find("b")->link.ifx, 5u);
    EXPECT_EQ(store.find("tmp"), nullptr);
}

TEST(Lsm_store_apply, reused_index_of_another_kind_is_another_interface)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(5, address("10.0.0.1/24"));
    EXPECT_THAT(describe(store.apply(with_flags(device(5, "eth0", "veth"), 0))),
                ElementsAre("7 ipv4 5 del 10.0.0.1/24", "3+7 destroy 5", "3+7 create 5"));
    EXPECT_EQ(first_text(store, 5, AF_INET), "none");
}

TEST(Lsm_store_apply, joining_an_aggregate_leaves_the_tcpip_layer)
{
    Store store;
    store.apply(device(8, "bond0", "bond"));
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(member_of(port(5, "eth0"), 8, "bond"))),
                ElementsAre("3+7 agg 5 join 8", "7 destroy 5"));
    EXPECT_NE(store.find(5)->physical_version, 0u);
    EXPECT_EQ(store.find(5)->tcpip_version, 0u);
    EXPECT_THAT(describe(store.apply(port(5, "eth0"))), ElementsAre("3+7 agg 5 leave 8", "7 create 5"));
}

TEST(Lsm_store_apply, moving_to_another_aggregate_leaves_the_first)
{
    Store store;
    store.apply(member_of(port(5, "eth0"), 8, "bond"));
    EXPECT_THAT(describe(store.apply(member_of(port(5, "eth0"), 9, "team"))),
                ElementsAre("3 agg 5 leave 8", "3 agg 5 join 9"));
}

TEST(Lsm_store_apply, bridge_member_stays_on_the_physical_layer)
{
    Store store;
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(member_of(port(5, "eth0"), 8, "bridge"))), ElementsAre("7 destroy 5"));
    EXPECT_NE(store.find(5)->physical_version, 0u);
}

TEST(Lsm_store_apply, subinterface_in_a_bridge_is_gone_from_both_layers)
{
    Store store;
    store.apply(device(5, "v0.10", "vlan"));
    store.apply(member_of(device(5, "v0.10", "vlan"), 8, "bridge"));
    EXPECT_EQ(store.find(5)->physical_version, 0u);
    EXPECT_EQ(store.find(5)->tcpip_version, 0u);
}

TEST(Lsm_store_apply, vrf_binding_is_announced)
{
    Store store;
    EXPECT_THAT(describe(store.apply(device(9, "blue", "vrf"))),
                ElementsAre("7 create 9", "7 admin 9 up", "7 link 9 up"));
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(member_of(port(5, "eth0"), 9, "vrf"))), ElementsAre("7 vrf 5 bind 9"));
    EXPECT_THAT(describe(store.apply(member_of(port(5, "eth0"), 10, "vrf"))), ElementsAre("7 vrf 5 bind 10"));
    EXPECT_THAT(describe(store.apply(port(5, "eth0"))), ElementsAre("7 vrf 5 release 0"));
}

TEST(Lsm_store_remove, everything_ends_before_the_interface_does)
{
    Store store;
    store.apply(member_of(device(5, "v0", "veth"), 9, "vrf"));
    store.apply(5, address("10.0.0.1/24"));
    store.apply(5, address("2001:db8::1/64"));
    EXPECT_THAT(describe(store.remove(5)),
                ElementsAre("7 ipv4 5 del 10.0.0.1/24", "7 ipv6 5 del 2001:db8::1/64", "3+7 link 5 down",
                            "3+7 admin 5 down", "7 vrf 5 release 0", "3+7 destroy 5"));
    EXPECT_EQ(store.find(5), nullptr);
    EXPECT_EQ(store.find("v0"), nullptr);
    EXPECT_THAT(describe(store.remove(5)), IsEmpty());
}

TEST(Lsm_store_remove, removed_vrf_releases_its_members_first)
{
    Store store;
    store.apply(with_flags(device(9, "blue", "vrf"), 0));
    store.apply(member_of(port(5, "eth0"), 9, "vrf"));
    store.apply(member_of(port(4, "eth1"), 9, "vrf"));
    EXPECT_THAT(describe(store.remove(9)),
                ElementsAre("7 vrf 4 release 0", "7 vrf 5 release 0", "7 vrf gone 9", "7 destroy 9"));
    EXPECT_EQ(store.find(5)->link.master, 0u);
}

TEST(Lsm_store_remove, removed_aggregate_releases_its_members_first)
{
    Store store;
    store.apply(with_flags(device(8, "bond0", "bond"), 0));
    store.apply(member_of(port(5, "eth0"), 8, "bond"));
    EXPECT_THAT(describe(store.remove(8)), ElementsAre("3+7 agg 5 leave 8", "7 create 5", "3+7 destroy 8"));
}

// ---- Addresses

TEST(Lsm_store_addresses, added_and_removed_addresses_are_announced)
{
    Store store;
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(5, address("10.0.0.1/24"))), ElementsAre("7 ipv4 5 add 10.0.0.1/24"));
    EXPECT_THAT(describe(store.apply(5, address("10.0.0.1/24"))), IsEmpty()); // lifetimes only
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::1/64"))),
                ElementsAre("7 ipv6 5 add 2001:db8::1/64"));
    EXPECT_THAT(describe(store.remove(5, address("10.0.0.1/16"))), IsEmpty());
    EXPECT_THAT(describe(store.remove(5, address("10.0.0.1/24"))), ElementsAre("7 ipv4 5 del 10.0.0.1/24"));
    EXPECT_THAT(describe(store.remove(5, address("10.0.0.1/24"))), IsEmpty());
    EXPECT_EQ(first_text(store, 5, AF_INET), "none");
    EXPECT_EQ(first_text(store, 5, AF_INET6), "::1");
}

TEST(Lsm_store_addresses, addresses_of_unknown_interfaces_are_ignored)
{
    Store store;
    EXPECT_THAT(describe(store.apply(5, address("10.0.0.1/24"))), IsEmpty());
    EXPECT_THAT(describe(store.remove(5, address("10.0.0.1/24"))), IsEmpty());
    EXPECT_EQ(store.size(), 0u);
}

TEST(Lsm_store_addresses, tentative_address_counts_from_the_moment_it_is_usable)
{
    Store store;
    store.apply(port(5, "eth0"));
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::1/64", IFA_F_TENTATIVE))), IsEmpty());
    EXPECT_EQ(first_text(store, 5, AF_INET6), "none");
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::1/64", IFA_F_PERMANENT))),
                ElementsAre("7 ipv6 5 add 2001:db8::1/64"));
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::1/64", IFA_F_DADFAILED))),
                ElementsAre("7 ipv6 5 del 2001:db8::1/64"));
}

TEST(Lsm_store_addresses, removing_an_unusable_address_says_nothing)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(5, address("2001:db8::1/64", IFA_F_DADFAILED));
    EXPECT_THAT(describe(store.remove(5, address("2001:db8::1/64"))), IsEmpty());
}

struct FirstCase {
    const char *name;
    std::vector<Address> added; ///< in this order
    int family;
    const char *first;
};

TEST(Lsm_store_addresses, first_address_follows_the_kernels_order_and_the_addresses_rank)
{
    const FirstCase CASES[] = {
        {"oldest IPv4", {address("10.0.0.1/24"), address("10.0.1.2/24")}, AF_INET, "10.0.0.1"},
        {"primary IPv4 before secondary",
         {address("10.0.0.1/24", IFA_F_SECONDARY), address("10.0.0.2/24")},
         AF_INET,
         "10.0.0.2"},
        {"wider IPv4 scope before link scope",
         {address("169.254.0.1/16"), address("10.0.0.2/24")},
         AF_INET,
         "10.0.0.2"},
        {"newest IPv6", {address("2001:db8::1/64"), address("2001:db8::2/64")}, AF_INET6, "::2"},
        {"global before link-local", {address("2001:db8::1/64"), address("fe80::2/64")}, AF_INET6, "::1"},
        {"link-local when there is nothing else",
         {address("2001:db8::1/64", IFA_F_TENTATIVE), address("fe80::2/64")},
         AF_INET6,
         "::2"},
        {"duplicate skipped",
         {address("2001:db8::1/64"), address("2001:db8::2/64", IFA_F_DADFAILED)},
         AF_INET6,
         "::1"},
        {"temporary last",
         {address("2001:db8::1/64"), address("2001:db8::2/64", IFA_F_TEMPORARY)},
         AF_INET6,
         "::1"},
        {"deprecated after preferred",
         {address("2001:db8::1/64"), address("2001:db8::2/64", IFA_F_DEPRECATED)},
         AF_INET6,
         "::1"},
        {"deprecated global before link-local",
         {address("2001:db8::1/64", IFA_F_DEPRECATED), address("fe80::2/64")},
         AF_INET6,
         "::1"},
        {"none usable", {address("fe80::2/64", IFA_F_TENTATIVE)}, AF_INET6, "none"},
    };
    for (const FirstCase &row : CASES) {
        SCOPED_TRACE(row.name);
        Store store;
        store.apply(port(5, "eth0"));
        for (const Address &added : row.added) {
            store.apply(5, added);
        }
        EXPECT_EQ(first_text(store, 5, row.family), row.first);
    }
}

TEST(Lsm_store_addresses, promoted_secondary_becomes_the_last_primary)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(5, address("10.0.0.1/24"));
    store.apply(5, address("10.0.0.2/24", IFA_F_SECONDARY));
    store.apply(5, address("10.0.1.1/24"));
    EXPECT_THAT(describe(store.remove(5, address("10.0.0.1/24"))), ElementsAre("7 ipv4 5 del 10.0.0.1/24"));
    EXPECT_EQ(first_text(store, 5, AF_INET), "10.0.1.1");
    EXPECT_THAT(describe(store.apply(5, address("10.0.0.2/24"))), IsEmpty());
    EXPECT_EQ(first_text(store, 5, AF_INET), "10.0.1.1");
}

TEST(Lsm_store_addresses, another_first_address_is_announced_when_nothing_else_is)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(5, address("2001:db8::1/64"));
    store.apply(5, address("2001:db8::2/64"));
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::2/64", IFA_F_DEPRECATED))),
                ElementsAre("7 ipv6 5 first"));
    EXPECT_EQ(first_text(store, 5, AF_INET6), "::1");
    EXPECT_THAT(describe(store.apply(5, address("2001:db8::1/64", IFA_F_PERMANENT))), IsEmpty());

    store.apply(5, address("10.0.0.1/24"));
    store.apply(5, address("10.0.1.1/24"));
    EXPECT_THAT(describe(store.apply(5, address("10.0.0.1/24", IFA_F_SECONDARY))),
                ElementsAre("7 ipv4 5 first"));
}

TEST(Lsm_store_addresses, same_address_with_another_peer_is_another_address)
{
    Store store;
    store.apply(port(5, "ppp0"));
    Address one = address("10.0.0.1/32");
    one.peer = address("10.0.0.2/32").local;
    Address two = address("10.0.0.1/32");
    two.peer = address("10.0.0.3/32").local;
    store.apply(5, one);
    store.apply(5, two);
    store.remove(5, one);
    EXPECT_EQ(first_text(store, 5, AF_INET), "10.0.0.1");
    store.remove(5, two);
    EXPECT_EQ(first_text(store, 5, AF_INET), "none");
}

// ---- Ethernet facts and control blocks

TEST(Lsm_store_set_eth, change_is_announced_once)
{
    Store store;
    store.apply(port(5, "eth0"));
    const EthInfo gigabit{.duplex = LSM_DUPLEX_FULL, .speed = 1000};
    EXPECT_THAT(describe(store.set_eth(5, gigabit)), ElementsAre("3+7 eth 5 1000 1"));
    EXPECT_THAT(describe(store.set_eth(5, gigabit)), IsEmpty());
    EXPECT_THAT(describe(store.set_eth(5, std::nullopt)), ElementsAre("3+7 eth 5 0 0"));
    EXPECT_THAT(describe(store.set_eth(6, gigabit)), IsEmpty());
}

TEST(Lsm_store_block, block_is_a_picture_of_its_moment)
{
    Store store;
    store.apply(with_flags(port(5, "eth0"), UP));
    store.set_eth(5, EthInfo{.duplex = LSM_DUPLEX_HALF, .speed = 10});
    const ControlBlock *block = store.find(5)->block.get();
    block->acquire();
    store.apply(port(5, "eth0"));
    store.set_eth(5, std::nullopt);
    EXPECT_EQ(block->ifx, 5u);
    EXPECT_EQ(block->admin_state, INTF_ADMIN_UP);
    EXPECT_EQ(block->line_state, INTF_UP);
    ASSERT_NE(block->eth_info, nullptr);
    EXPECT_EQ(block->eth_info->speed, 10u);
    EXPECT_EQ(block->eth_info->duplex, LSM_DUPLEX_HALF);
    EXPECT_EQ(store.find(5)->block->line_state, INTF_DOWN);
    EXPECT_EQ(store.find(5)->block->eth_info, nullptr);
    store.remove(5);
    EXPECT_EQ(block->if_type, LSM_IF_TYPE_ETHERNET);
    block->release();
}

TEST(Lsm_store_speed_followers, aggregate_and_subinterfaces_follow)
{
    Store store;
    store.apply(device(8, "bond0", "bond"));
    store.apply(member_of(port(5, "eth0"), 8, "bond"));
    Link vlan = device(6, "bond0.10", "vlan");
    vlan.parent = 8;
    store.apply(vlan);
    Link foreign = device(7, "v1", "vlan");
    foreign.parent = 8;
    foreign.parent_elsewhere = true;
    store.apply(foreign);
    EXPECT_THAT(store.speed_followers(5), ElementsAre(8u));
    EXPECT_THAT(store.speed_followers(8), ElementsAre(6u));
    EXPECT_THAT(store.speed_followers(99), IsEmpty());
}

TEST(Lsm_store_versions, version_changes_with_the_state_of_the_layer)
{
    Store store;
    store.apply(port(5, "eth0"));
    const u_int32_t physical = store.find(5)->physical_version;
    const u_int32_t tcpip = store.find(5)->tcpip_version;
    EXPECT_NE(physical, 0u);
    EXPECT_NE(tcpip, 0u);
    store.apply(5, address("10.0.0.1/24"));
    EXPECT_EQ(store.find(5)->physical_version, physical);
    EXPECT_NE(store.find(5)->tcpip_version, tcpip);
    store.apply(with_flags(port(5, "eth0"), UP));
    EXPECT_NE(store.find(5)->physical_version, physical);
}

TEST(Lsm_store_management, kind_follows_the_name_and_the_vrf)
{
    Store store({"eth0"});
    store.apply(device(10, "mgmt", "vrf"));
    store.apply(port(5, "eth0"));
    EXPECT_EQ(store.find(5)->kind, 0x1u) << "in the default VRF";
    store.apply(member_of(port(5, "eth0"), 10, "vrf"));
    EXPECT_EQ(store.find(5)->kind, 0x100001u);
    store.apply(member_of(port(5, "wan"), 10, "vrf"));
    EXPECT_EQ(store.find(5)->kind, 0x1u) << "not on the list";
    store.apply(member_of(port(5, "eth0"), 8, "bridge"));
    EXPECT_EQ(store.find(5)->kind, 0x1u) << "a member of something else";
}

// ---- Recovery from lost notifications

TEST(Lsm_store_replace, dump_yields_exactly_what_was_missed)
{
    Store store;
    store.apply(with_flags(device(9, "blue", "vrf"), 0));
    store.apply(member_of(with_flags(port(3, "eth3"), UP), 9, "vrf"));
    store.apply(with_flags(port(4, "eth4"), UP));
    store.apply(port(5, "eth5"));
    store.apply(3, address("10.0.0.3/24"));
    store.apply(4, address("10.0.0.4/24"));
    store.set_eth(4, EthInfo{.duplex = LSM_DUPLEX_FULL, .speed = 1000});

    // Meanwhile: VRF 9 and port 5 vanished, port 3 was released, port 4 lost its link and changed its
    // address, bond 8 appeared with member 6, whose record comes first.
    const std::vector<LinkState> dump = {
        {.link = with_flags(port(3, "eth3"), UP), .addresses = {address("10.0.0.3/24")}, .eth = {}},
        {.link = with_flags(port(4, "eth4"), 0x1),
         .addresses = {address("10.0.9.4/24")},
         .eth = EthInfo{.duplex = LSM_DUPLEX_FULL, .speed = 1000}},
        {.link = member_of(port(6, "eth6"), 8, "bond"), .addresses = {}, .eth = {}},
        {.link = with_flags(device(8, "bond0", "bond"), 0), .addresses = {}, .eth = {}},
    };
    EXPECT_THAT(describe(store.replace(dump)),
                ElementsAre("3+7 destroy 5", "7 vrf 3 release 0", "7 vrf gone 9", "7 destroy 9",
                            "3+7 create 8", "3+7 link 4 down", "7 ipv4 4 del 10.0.0.4/24",
                            "7 ipv4 4 add 10.0.9.4/24", "3 create 6", "3 agg 6 join 8"));
    EXPECT_THAT(describe(store.replace(dump)), IsEmpty());
    EXPECT_EQ(store.size(), 4u);
}

TEST(Lsm_store_replace, dump_equals_the_notifications_it_replaces)
{
    const std::vector<Address> added = {address("2001:db8::1/64"), address("fe80::1/64"),
                                        address("2001:db8::2/64"), address("10.0.0.1/24"),
                                        address("10.0.1.1/24")};
    Store followed;
    followed.apply(port(5, "eth0"));
    for (const Address &one : added) {
        followed.apply(5, one);
    }
    // The kernel lists the IPv6 addresses by scope, the newest first.
    Store dumped;
    dumped.replace({{.link = port(5, "eth0"),
                     .addresses = {added[3], added[4], added[2], added[0], added[1]},
                     .eth = {}}});
    EXPECT_EQ(followed.find(5)->v4, dumped.find(5)->v4);
    EXPECT_EQ(followed.find(5)->v6, dumped.find(5)->v6);
    EXPECT_THAT(describe(followed.everything()), testing::ElementsAreArray(describe(dumped.everything())));
}

TEST(Lsm_store_replace, index_taken_over_during_the_gap_is_another_interface)
{
    Store store;
    store.apply(with_flags(device(5, "v0", "veth"), 0));
    Link other = with_flags(device(5, "v1", "veth"), 0);
    other.mac = {2, 0, 0, 0, 9, 9};
    EXPECT_THAT(describe(store.replace({{.link = other, .addresses = {}, .eth = {}}})),
                ElementsAre("3+7 destroy 5", "3+7 create 5"));
}

TEST(Lsm_store_replace, rename_during_the_gap_is_no_other_interface)
{
    Store store;
    store.apply(with_flags(device(5, "v0", "veth"), 0));
    store.apply(with_flags(device(6, "v1", "veth"), 0));
    const Link five = with_flags(device(5, "v1", "veth"), 0);
    const Link six = with_flags(device(6, "v0", "veth"), 0);
    EXPECT_THAT(describe(store.replace(
                    {{.link = five, .addresses = {}, .eth = {}}, {.link = six, .addresses = {}, .eth = {}}})),
                IsEmpty());
    EXPECT_EQ(store.find("v1")->link.ifx, 5u);
    EXPECT_EQ(store.find("v0")->link.ifx, 6u);
}

TEST(Lsm_store_replace, empty_dump_ends_everything)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(port(6, "eth1"));
    EXPECT_THAT(describe(store.replace({})), ElementsAre("3+7 destroy 5", "3+7 destroy 6"));
    EXPECT_EQ(store.size(), 0u);
}

TEST(Lsm_store_everything, builds_what_is_there_masters_first)
{
    Store store;
    store.apply(member_of(with_flags(port(3, "eth3"), UP), 9, "vrf"));
    store.apply(3, address("10.0.0.3/24"));
    store.set_eth(3, EthInfo{.duplex = LSM_DUPLEX_FULL, .speed = 1000});
    store.apply(with_flags(device(9, "blue", "vrf"), 0));
    EXPECT_THAT(describe(store.everything()),
                ElementsAre("7 create 9", "3+7 create 3", "7 vrf 3 bind 9", "3+7 admin 3 up", "3+7 link 3 up",
                            "7 ipv4 3 add 10.0.0.3/24", "3+7 eth 3 1000 1"));
}

TEST(Lsm_store_returned_to_default, is_announced_where_the_interface_exists)
{
    Store store;
    store.apply(port(5, "eth0"));
    store.apply(member_of(port(6, "eth1"), 8, "bond"));
    EXPECT_THAT(describe(store.returned_to_default(5)), ElementsAre("3+7 default 5"));
    EXPECT_THAT(describe(store.returned_to_default(6)), ElementsAre("3 default 6"));
    EXPECT_THAT(describe(store.returned_to_default(7)), IsEmpty());
}

} // namespace
