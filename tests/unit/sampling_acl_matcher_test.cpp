#include "acl_matcher.h"

#include "acl_compiler.h"
#include "acl_frames.h"

#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using acl::Action;
using acl::Entry;
using acl::Family;

constexpr unsigned tcp = 6;
constexpr unsigned udp = 17;
constexpr unsigned ack = 0x10;
constexpr unsigned rst = 0x04;
constexpr unsigned syn = 0x02;
constexpr FrameBuilder::Ip v4_tcp = {.source = "192.0.2.7", .destination = "198.51.100.1", .protocol = tcp};
constexpr FrameBuilder::Ip v4_udp = {.source = "192.0.2.7", .destination = "198.51.100.1", .protocol = udp};
constexpr FrameBuilder::Ip v6_tcp = {
    .source = "2001:db8::7", .destination = "2001:db8:1::1", .protocol = tcp};

bool permits(const acl::List &list, const FrameBuilder &frame, bool tag_beside = false)
{
    const auto fields = packet_fields(frame.bytes(), tag_beside);
    return fields && sampling::permits(list, *fields);
}

acl::List permit_v4(Entry entry)
{
    entry.action = Action::permit;
    return list_of(Family::ipv4, {entry});
}

acl::List permit_v6(Entry entry)
{
    entry.action = Action::permit;
    return list_of(Family::ipv6, {entry});
}

acl::List permit_mac(Entry entry)
{
    entry.action = Action::permit;
    return list_of(Family::mac, {entry});
}

Entry https()
{
    return {.protocol = tcp, .destination_ports = acl::Ports{.first = 443, .last = 443}};
}

TEST(Acl_permits, the_first_entry_that_matches_decides)
{
    const Entry deny_host = {.action = Action::deny, .source = prefix("192.0.2.7", 32)};
    const Entry permit_net = {.action = Action::permit, .source = prefix("192.0.2.0", 24)};
    const FrameBuilder frame = FrameBuilder().ipv4(v4_udp).udp(1, 2);
    EXPECT_FALSE(permits(list_of(Family::ipv4, {deny_host, permit_net}), frame));
    EXPECT_TRUE(permits(list_of(Family::ipv4, {permit_net, deny_host}), frame));
}

TEST(Acl_permits, what_no_entry_matches_is_denied)
{
    const FrameBuilder frame = FrameBuilder().ipv4(v4_udp).udp(1, 2);
    EXPECT_FALSE(permits(list_of(Family::ipv4, {}), frame));
    EXPECT_FALSE(permits(permit_v4({.source = prefix("203.0.113.0", 24)}), frame));
}

TEST(Acl_permits, a_list_sees_its_own_family_and_a_mac_list_every_frame)
{
    struct Row {
        const char *name;
        FrameBuilder frame;
        bool ipv4, ipv6;
    };
    const Row rows[] = {
        {"IPv4", FrameBuilder().ipv4(v4_tcp).tcp(1, 2, ack), true, false},
        {"IPv6", FrameBuilder().ipv6(v6_tcp).tcp(1, 2, ack), false, true},
        {"ARP", FrameBuilder().u16(0x0806).zeros(28), false, false},
        {"LLDP", FrameBuilder().u16(0x88CC).zeros(46), false, false},
        {"802.3", FrameBuilder().u16(38).zeros(46), false, false},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(permits(permit_v4({}), row.frame), row.ipv4) << row.name;
        EXPECT_EQ(permits(permit_v6({}), row.frame), row.ipv6) << row.name;
        EXPECT_TRUE(permits(permit_mac({}), row.frame)) << row.name;
    }
}

TEST(Acl_permits, up_to_two_vlan_tags_stand_in_front_wherever_they_are)
{
    const acl::List list = permit_v4(https());
    struct Row {
        const char *name;
        std::vector<unsigned> tags; ///< inside the frame
        bool beside, expected;
    };
    const Row rows[] = {
        {"none", {}, false, true},
        {"802.1Q", {0x8100}, false, true},
        {"802.1ad", {0x88A8}, false, true},
        {"two inside", {0x88A8, 0x8100}, false, true},
        {"one beside", {}, true, true},
        {"one beside and one inside", {0x8100}, true, true},
        {"three inside", {0x88A8, 0x8100, 0x8100}, false, false},
        {"one beside and two inside", {0x8100, 0x8100}, true, false},
    };
    for (const Row &row : rows) {
        FrameBuilder frame;
        for (const unsigned tag : row.tags)
            frame.tag(tag, 0x6005);
        frame.ipv4(v4_tcp).tcp(1024, 443, ack);
        EXPECT_EQ(permits(list, frame, row.beside), row.expected) << row.name;
    }
    // behind two tags a third one's type is what the frame is
    const FrameBuilder frame = FrameBuilder().tag(0x88A8, 1).tag(0x8100, 2).tag(0x8100, 3).ipv4(v4_tcp);
    EXPECT_TRUE(permits(permit_mac({.ether_type = 0x8100}), frame));
    EXPECT_FALSE(permits(permit_mac({.ether_type = 0x0800}), frame));
}

TEST(Acl_permits, mac_lists_ask_for_addresses_and_the_type_behind_the_tags)
{
    const FrameBuilder frame =
        FrameBuilder({1, 2, 3, 4, 5, 6}, {10, 11, 12, 13, 14, 15}).tag(0x8100, 7).u16(0x0806).zeros(28);
    const acl::Address source = {.value = {10, 11, 12}, .mask = {0xFF, 0xFF, 0xFF}};
    const acl::Address other = {.value = {10, 11, 12, 13, 14, 16},
                                .mask = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    const acl::Address destination = {.value = {1, 2, 3, 4, 5, 6},
                                      .mask = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    EXPECT_TRUE(
        permits(permit_mac({.source = source, .destination = destination, .ether_type = 0x0806}), frame));
    EXPECT_FALSE(permits(permit_mac({.source = other}), frame));
    EXPECT_FALSE(permits(permit_mac({.source = destination}), frame));
    EXPECT_FALSE(permits(permit_mac({.ether_type = 0x8100}), frame));
}

TEST(Acl_permits, an_address_counts_in_the_bits_of_its_mask)
{
    const FrameBuilder frame = FrameBuilder().ipv4(v4_udp).udp(1, 2);
    EXPECT_TRUE(permits(permit_v4({.source = prefix("192.0.2.0", 29)}), frame));
    EXPECT_FALSE(permits(permit_v4({.source = prefix("192.0.2.8", 29)}), frame));
    EXPECT_FALSE(permits(permit_v4({.destination = prefix("192.0.2.7", 32)}), frame));
    // every third octet, odd hosts
    const acl::Address scattered = {.value = {192, 0, 0, 1}, .mask = {255, 255, 0, 1}};
    EXPECT_TRUE(permits(permit_v4({.source = scattered}), frame));
    const FrameBuilder v6 = FrameBuilder().ipv6(v6_tcp).tcp(1, 2, ack);
    EXPECT_TRUE(permits(permit_v6({.source = prefix("2001:db8::", 64)}), v6));
    EXPECT_TRUE(permits(permit_v6({.source = prefix("2001:db8::7", 128)}), v6));
    EXPECT_FALSE(permits(permit_v6({.source = prefix("2001:db8::6", 128)}), v6));
}

TEST(Acl_permits, ports_are_ranges_with_both_ends_and_may_be_inverted)
{
    struct Row {
        acl::Ports ports;
        unsigned port;
        bool expected;
    };
    for (const Row &row :
         {Row{{.first = 80, .last = 90}, 79, false}, Row{{.first = 80, .last = 90}, 80, true},
          Row{{.first = 80, .last = 90}, 90, true}, Row{{.first = 80, .last = 90}, 91, false},
          Row{{.first = 80, .last = 80, .inverted = true}, 80, false},
          Row{{.first = 80, .last = 80, .inverted = true}, 81, true},
          Row{{.first = 0, .last = 65535}, 65535, true},
          Row{{.first = 0, .last = 65535, .inverted = true}, 65535, false}}) {
        for (const unsigned protocol : {tcp, udp}) {
            FrameBuilder::Ip ip = v4_tcp;
            ip.protocol = protocol;
            Entry entry = {.protocol = static_cast<std::uint8_t>(protocol), .source_ports = row.ports};
            EXPECT_EQ(permits(permit_v4(entry), FrameBuilder().ipv4(ip).udp(row.port, 1).zeros(12)),
                      row.expected);
            std::swap(entry.source_ports, entry.destination_ports);
            EXPECT_EQ(permits(permit_v4(entry), FrameBuilder().ipv4(ip).udp(1, row.port).zeros(12)),
                      row.expected);
        }
    }
}

TEST(Acl_permits, established_is_ack_or_rst)
{
    const acl::List list = permit_v4({.protocol = tcp, .established = true});
    EXPECT_TRUE(permits(list, FrameBuilder().ipv4(v4_tcp).tcp(1, 2, ack)));
    EXPECT_TRUE(permits(list, FrameBuilder().ipv4(v4_tcp).tcp(1, 2, rst)));
    EXPECT_TRUE(permits(list, FrameBuilder().ipv4(v4_tcp).tcp(1, 2, syn | ack)));
    EXPECT_FALSE(permits(list, FrameBuilder().ipv4(v4_tcp).tcp(1, 2, syn)));
    EXPECT_FALSE(permits(list, FrameBuilder().ipv4(v4_tcp).tcp(1, 2, 0xEB)));
}

TEST(Acl_permits, the_dscp_is_the_upper_six_bits)
{
    FrameBuilder::Ip v4 = v4_udp;
    FrameBuilder::Ip v6 = v6_tcp;
    v4.dscp = v6.dscp = 46;
    EXPECT_TRUE(permits(permit_v4({.dscp = 46}), FrameBuilder().ipv4(v4).udp(1, 2)));
    EXPECT_FALSE(permits(permit_v4({.dscp = 45}), FrameBuilder().ipv4(v4).udp(1, 2)));
    EXPECT_TRUE(permits(permit_v6({.dscp = 46}), FrameBuilder().ipv6(v6).tcp(1, 2, ack)));
    EXPECT_FALSE(permits(permit_v6({.dscp = 0}), FrameBuilder().ipv6(v6).tcp(1, 2, ack)));
}

TEST(Acl_permits, ports_stand_behind_ip_options)
{
    FrameBuilder::Ip ip = v4_tcp;
    ip.option_words = 10;
    EXPECT_TRUE(permits(permit_v4(https()), FrameBuilder().ipv4(ip).tcp(1024, 443, ack)));
    EXPECT_FALSE(permits(permit_v4(https()), FrameBuilder().ipv4(ip).tcp(1024, 444, ack)));
}

TEST(Acl_permits, later_fragments_match_by_layer_3_alone)
{
    const acl::List list = permit_v4(https());
    FrameBuilder::Ip ip = v4_tcp;
    ip.fragment = 0x2000; // the first: has the ports
    EXPECT_TRUE(permits(list, FrameBuilder().ipv4(ip).tcp(1024, 443, ack)));
    EXPECT_FALSE(permits(list, FrameBuilder().ipv4(ip).tcp(1024, 80, ack)));
    for (const unsigned fragment : {0x2001U, 0x0001U, 0x1FFFU}) {
        ip.fragment = fragment;
        const FrameBuilder later = FrameBuilder().ipv4(ip).tcp(1024, 80, syn);
        EXPECT_TRUE(permits(list, later));
        EXPECT_TRUE(permits(permit_v4({.protocol = tcp, .established = true}), later));
        EXPECT_FALSE(permits(permit_v4({.protocol = udp}), later));
        EXPECT_FALSE(permits(permit_v4({.source = prefix("203.0.113.0", 24), .protocol = tcp}), later));
    }
    // a deny entry catches it as well
    Entry deny = https();
    deny.action = Action::deny;
    EXPECT_FALSE(permits(list_of(Family::ipv4, {deny, {.action = Action::permit}}),
                         FrameBuilder().ipv4(ip).tcp(1024, 80, syn)));
}

TEST(Acl_permits, ipv6_fragments_likewise)
{
    const acl::List list = permit_v6(https());
    FrameBuilder::Ip ip = v6_tcp;
    ip.protocol = 44;
    EXPECT_TRUE(permits(list, FrameBuilder().ipv6(ip).ipv6_fragment(tcp, 0).tcp(1024, 443, ack)));
    EXPECT_FALSE(permits(list, FrameBuilder().ipv6(ip).ipv6_fragment(tcp, 0).tcp(1024, 80, ack)));
    EXPECT_TRUE(permits(list, FrameBuilder().ipv6(ip).ipv6_fragment(tcp, 1).tcp(1024, 80, syn)));
    EXPECT_FALSE(permits(list, FrameBuilder().ipv6(ip).ipv6_fragment(udp, 1).tcp(1024, 443, ack)));
}

TEST(Acl_permits, extension_headers_are_passed_over_up_to_eight)
{
    const acl::List list = permit_v6(https());
    FrameBuilder::Ip ip = v6_tcp;
    ip.protocol = 0;
    EXPECT_TRUE(permits(
        list, FrameBuilder().ipv6(ip).extension(43).extension(60, 3).extension(tcp).tcp(1024, 443, ack)));
    // the authentication header counts its length in words of four bytes
    ip.protocol = 51;
    EXPECT_TRUE(permits(list, FrameBuilder().ipv6(ip).u8(tcp).u8(4).zeros(22).tcp(1024, 443, ack)));
    ip.protocol = 60;
    for (const unsigned headers : {7U, 8U, 9U}) {
        FrameBuilder frame = FrameBuilder().ipv6(ip);
        for (unsigned i = 1; i < headers; ++i)
            frame.extension(60);
        frame.extension(tcp).tcp(1024, 443, ack);
        EXPECT_EQ(permits(list, frame), headers <= 8) << headers;
        EXPECT_EQ(permits(permit_v6({.protocol = tcp}), frame), headers <= 8) << headers;
        EXPECT_FALSE(permits(permit_v6({.protocol = 60}), frame)) << headers;
        EXPECT_TRUE(permits(permit_v6({}), frame)) << headers;
    }
}

TEST(Acl_permits, a_condition_on_bytes_that_are_not_there_does_not_hold)
{
    const FrameBuilder whole = FrameBuilder().ipv4(v4_tcp).tcp(1024, 443, ack);
    const acl::List address = permit_v4({.source = prefix("192.0.2.7", 32), .protocol = tcp});
    const acl::List any_port =
        permit_v4({.protocol = tcp, .source_ports = acl::Ports{}, .destination_ports = acl::Ports{}});
    const acl::List established = permit_v4({.protocol = tcp, .established = true});
    struct Row {
        std::size_t bytes;
        bool mac, address, ports, established;
    };
    for (const Row &row : {Row{13, false, false, false, false}, Row{14, true, false, false, false},
                           Row{33, true, false, false, false}, Row{34, true, true, false, false},
                           Row{37, true, true, false, false}, Row{38, true, true, true, false},
                           Row{47, true, true, true, false}, Row{48, true, true, true, true}}) {
        FrameBuilder frame = whole;
        frame.cut(row.bytes);
        EXPECT_EQ(permits(permit_mac({}), frame), row.mac) << row.bytes;
        EXPECT_EQ(permits(address, frame), row.address) << row.bytes;
        EXPECT_EQ(permits(any_port, frame), row.ports) << row.bytes;
        EXPECT_EQ(permits(established, frame), row.established) << row.bytes;
    }
}

TEST(Acl_permits, a_frame_that_ends_within_a_tag_has_no_type)
{
    FrameBuilder frame = FrameBuilder().tag(0x8100, 7).ipv4(v4_tcp);
    frame.cut(17);
    EXPECT_TRUE(permits(permit_mac({}), frame));
    EXPECT_FALSE(permits(permit_mac({.ether_type = 0x8100}), frame));
    EXPECT_FALSE(permits(permit_mac({.ether_type = 0x0800}), frame));
    EXPECT_FALSE(permits(permit_v4({}), frame));
}

TEST(Acl_permits, a_cut_extension_header_hides_the_protocol)
{
    FrameBuilder::Ip ip = v6_tcp;
    ip.protocol = 60;
    FrameBuilder frame = FrameBuilder().ipv6(ip).extension(tcp);
    frame.cut(14 + 40 + 7);
    EXPECT_TRUE(permits(permit_v6({.source = prefix("2001:db8::", 32)}), frame));
    EXPECT_FALSE(permits(permit_v6({.protocol = tcp}), frame));
}

TEST(Acl_permits, malformed_headers_are_no_packets_of_their_family)
{
    for (const unsigned first_byte : {0x65U, 0x44U, 0x40U}) {
        std::vector<std::uint8_t> frame = FrameBuilder().ipv4(v4_tcp).tcp(1024, 443, ack).bytes();
        frame[14] = static_cast<std::uint8_t>(first_byte);
        const auto fields = packet_fields(frame, false);
        ASSERT_TRUE(fields);
        EXPECT_FALSE(sampling::permits(permit_v4({}), *fields)) << first_byte;
        EXPECT_FALSE(sampling::permits(permit_v6({}), *fields)) << first_byte;
        EXPECT_TRUE(sampling::permits(permit_mac({.ether_type = 0x0800}), *fields)) << first_byte;
    }
}

TEST(Acl_compile, uses_no_more_words_and_tests_than_the_list_needs)
{
    EXPECT_EQ(compile(list_of(Family::ipv4, {}))->words, 0U);
    EXPECT_EQ(compile(list_of(Family::ipv4, std::vector<Entry>(64)))->words, 1U);
    EXPECT_EQ(compile(list_of(Family::ipv4, std::vector<Entry>(65)))->words, 2U);
    EXPECT_EQ(compile(list_of(Family::ipv4, std::vector<Entry>(512)))->words, 8U);
    EXPECT_EQ(compile(permit_v4(https()))->tests, 0U);
    EXPECT_EQ(compile(permit_v4({.source = prefix("192.0.2.0", 24)}))->tests, 3U);
    EXPECT_EQ(compile(permit_v6({.source = prefix("::1", 128), .destination = prefix("::2", 128), .dscp = 1}))
                  ->tests,
              static_cast<std::uint32_t>(SFLOW_ACL_BYTE_TESTS));
}

TEST(Acl_compile, has_a_row_for_every_range_of_ports_that_512_entries_can_make)
{
    // no two ends fall together
    std::vector<Entry> entries(acl::MAX_ENTRIES);
    for (std::size_t i = 0; i < entries.size(); ++i)
        entries[i] = {.action = Action::permit,
                      .protocol = udp,
                      .source_ports = acl::Ports{.first = static_cast<std::uint16_t>(1 + 60 * i),
                                                 .last = static_cast<std::uint16_t>(31 + 60 * i),
                                                 .inverted = false}};
    const auto table = compile(list_of(Family::ipv4, entries));
    EXPECT_EQ(table->port_row[0][65535], SFLOW_ACL_PORT_ROWS - 1);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::uint16_t row = table->port_row[0][1 + 60 * i];
        ASSERT_EQ(table->port_row[0][31 + 60 * i], row);
        ASSERT_EQ(table->ports[0][row].word[i / 64], std::uint64_t{1} << i % 64);
        ASSERT_NE(table->port_row[0][60 * i], row);
        ASSERT_NE(table->port_row[0][32 + 60 * i], row);
    }
}

} // namespace
} // namespace sampling
