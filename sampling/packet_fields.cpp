#include "packet_fields.h"

#include <algorithm>
#include <cstddef>
#include <linux/if_ether.h>
#include <netinet/in.h>

namespace sampling
{

namespace
{

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t tag_bytes = 4;
constexpr std::size_t least_ipv4_header = 20;
constexpr std::size_t ipv6_header = 40;
constexpr std::size_t extension_unit = 8; // also the least size of an extension header
constexpr std::size_t port_bytes = 4;
constexpr std::size_t tcp_flags_at = 13;

// Extension headers that <netinet/in.h> does not name.
constexpr std::uint8_t next_header_hip = 139;
constexpr std::uint8_t next_header_shim6 = 140;

std::uint16_t word_at(Bytes bytes, std::size_t at)
{
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

template <std::size_t Size>
void copy(Bytes from, std::array<std::uint8_t, Size> &to)
{
    std::copy(from.begin(), from.end(), to.begin());
}

/// What follows `count` bytes; empty when there are not that many.
Bytes behind(Bytes bytes, std::size_t count)
{
    return bytes.size() < count ? Bytes() : bytes.subspan(count);
}

bool is_tag(std::uint16_t ether_type)
{
    return ether_type == ETH_P_8021Q || ether_type == ETH_P_8021AD;
}

bool is_extension(std::uint8_t next_header)
{
    switch (next_header) {
    case IPPROTO_HOPOPTS:
    case IPPROTO_ROUTING:
    case IPPROTO_FRAGMENT:
    case IPPROTO_AH:
    case IPPROTO_DSTOPTS:
    case IPPROTO_MH:
    case next_header_hip:
    case next_header_shim6:
        return true;
    default:
        return false;
    }
}

/// @param rest  what follows the network header and its options
void read_transport(Bytes rest, PacketFields &fields)
{
    const std::uint8_t protocol = fields.protocol.value_or(IPPROTO_NONE);
    if (fields.later_fragment || (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP))
        return;
    if (rest.size() >= port_bytes)
        fields.ports = {.source = word_at(rest, 0), .destination = word_at(rest, 2)};
    if (protocol == IPPROTO_TCP && rest.size() > tcp_flags_at)
        fields.tcp_flags = rest[tcp_flags_at];
}

void read_ipv4(Bytes packet, PacketFields &fields)
{
    if (packet.size() < least_ipv4_header || packet[0] >> 4 != 4)
        return;
    const std::size_t header = std::size_t{4} * (packet[0] & 0xFU);
    if (header < least_ipv4_header)
        return;
    fields.network = PacketFields::Network::ipv4;
    fields.dscp = static_cast<std::uint8_t>(packet[1] >> 2);
    fields.later_fragment = (word_at(packet, 6) & 0x1FFFU) != 0;
    fields.protocol = packet[9];
    copy(packet.subspan(12, 4), fields.source);
    copy(packet.subspan(16, 4), fields.destination);
    read_transport(behind(packet, header), fields);
}

/// Walks the extension headers; returns what follows them.
Bytes read_extensions(std::uint8_t next_header, Bytes rest, PacketFields &fields)
{
    for (unsigned passed = 0; is_extension(next_header); ++passed) {
        if (passed == most_extension_headers || rest.size() < extension_unit)
            return {};
        const std::uint8_t kind = next_header;
        next_header = rest[0];
        if (kind == IPPROTO_FRAGMENT) {
            fields.later_fragment = (word_at(rest, 2) & 0xFFF8U) != 0;
            rest = rest.subspan(extension_unit);
            if (fields.later_fragment)
                break; // what stands here is the middle of something
        } else if (kind == IPPROTO_AH) {
            rest = behind(rest, (rest[1] + std::size_t{2}) * 4);
        } else {
            rest = behind(rest, (rest[1] + std::size_t{1}) * extension_unit);
        }
    }
    fields.protocol = next_header;
    return rest;
}

void read_ipv6(Bytes packet, PacketFields &fields)
{
    if (packet.size() < ipv6_header || packet[0] >> 4 != 6)
        return;
    fields.network = PacketFields::Network::ipv6;
    fields.dscp = static_cast<std::uint8_t>((word_at(packet, 0) >> 6) & 0x3FU);
    copy(packet.subspan(8, 16), fields.source);
    copy(packet.subspan(24, 16), fields.destination);
    read_transport(read_extensions(packet[6], packet.subspan(ipv6_header), fields), fields);
}

} // namespace

std::optional<PacketFields> packet_fields(Bytes frame, bool tag_beside)
{
    if (frame.size() < ETH_HLEN)
        return std::nullopt;
    PacketFields fields;
    copy(frame.first(6), fields.destination_mac);
    copy(frame.subspan(6, 6), fields.source_mac);
    std::uint16_t ether_type = word_at(frame, 12);
    Bytes rest = frame.subspan(ETH_HLEN);
    for (unsigned tags = tag_beside ? 1 : 0; tags < most_vlan_tags && is_tag(ether_type); ++tags) {
        if (rest.size() < tag_bytes)
            return fields;
        ether_type = word_at(rest, 2);
        rest = rest.subspan(tag_bytes);
    }
    fields.ether_type = ether_type;
    if (ether_type == ETH_P_IP)
        read_ipv4(rest, fields);
    else if (ether_type == ETH_P_IPV6)
        read_ipv6(rest, fields);
    return fields;
}

} // namespace sampling
