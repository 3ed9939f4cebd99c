// What an access list can ask of a frame, read from the frame's leading bytes.
//
// The plain form of what the BPF programs read for themselves (acl_match.bpf.h): the replay samples with it, and the
// tests hold the programs against it. Pure functions; every length is checked, nothing is allocated.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

namespace sampling
{

struct PacketFields {
    enum class Network { none, ipv4, ipv6 };

    std::array<std::uint8_t, 6> destination_mac{};
    std::array<std::uint8_t, 6> source_mac{};
    /// Behind the VLAN tags, host byte order; below 0x0600 it is an 802.3 length. Nothing when the frame ends within
    /// a tag.
    std::optional<std::uint16_t> ether_type;

    /// `none` also for a header that is cut short, has the version of another EtherType or an impossible length.
    Network network = Network::none;
    // What follows has a meaning only with a network header.
    std::array<std::uint8_t, 16> source{}; ///< an IPv4 address in the first four bytes
    std::array<std::uint8_t, 16> destination{};
    std::uint8_t dscp = 0;
    /// IPv4 protocol, or the next header behind the IPv6 extension headers. Nothing when an extension header is cut
    /// short, or when there are more than `most_extension_headers` of them.
    std::optional<std::uint8_t> protocol;
    /// A fragment behind the first: it has no layer-4 header of its own.
    bool later_fragment = false;

    struct Ports {
        std::uint16_t source = 0; ///< host byte order
        std::uint16_t destination = 0;
    };
    std::optional<Ports> ports;            ///< of TCP and UDP, when the frame has them
    std::optional<std::uint8_t> tcp_flags; ///< when the frame has them
};

/// VLAN tags (802.1Q, 802.1ad) that are passed over; what stands behind is the EtherType, even if it is a third tag's.
constexpr unsigned most_vlan_tags = 2;
/// IPv6 extension headers that are passed over.
constexpr unsigned most_extension_headers = 8;

/// @param frame       leading bytes of an Ethernet frame; what is not there counts as cut short
/// @param tag_beside  the kernel holds the outermost VLAN tag beside the frame
/// @return nothing when there is not even an Ethernet header
[[nodiscard]] std::optional<PacketFields> packet_fields(std::span<const std::uint8_t> frame, bool tag_beside);

} // namespace sampling
