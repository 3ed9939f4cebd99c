// An access list in the form in which it is matched: what an entry demands of a frame, and in which order.
//
// The ACL service compiles what operators enter into these records and publishes them (acl_file.h); the sampling
// service reads them and matches packets. Remarks, the words of the command line and reference counts are the ACL
// service's own and not here. Plain values; nothing here does I/O or keeps state.
//
// How a list is meant
// - Entries are tried by ascending sequence number; the first that matches decides. A frame that no entry matches is
//   denied, so a list without entries permits nothing.
// - An entry matches when all of its conditions hold. A condition that is absent (`std::nullopt`, false, a mask of
//   zeros) holds for every frame of the list's family.
// - A list of family ipv4 or ipv6 matches packets of that version only, whatever VLAN tags (802.1Q, 802.1ad) stand in
//   front of them; every other frame finds no entry and is denied. A list of family mac sees every Ethernet frame:
//   IPv4, IPv6, ARP and all others.
// - `protocol` is the IPv4 protocol number or, in IPv6, the next header behind the extension headers.
// - Fragments: `protocol`, addresses and `dscp` stand in, or are true of, every fragment. Ports and `established`
//   belong to the layer-4 header, which only the first fragment has: of a later fragment they are not asked, it is
//   matched by its layer 3 alone.
// - A condition on bytes that the packet does not have (a header cut short) does not hold.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace acl
{

/// Most entries of a list, and the longest name in bytes.
constexpr std::size_t MAX_ENTRIES = 512;
constexpr std::size_t MAX_NAME = 99;
/// Sequence numbers of entries: 1 … MAX_SEQUENCE.
constexpr std::uint32_t MAX_SEQUENCE = 2147483647;

constexpr std::uint8_t PROTOCOL_ICMP = 1;
constexpr std::uint8_t PROTOCOL_TCP = 6;
constexpr std::uint8_t PROTOCOL_UDP = 17;
constexpr std::uint8_t PROTOCOL_ICMPV6 = 58;
constexpr std::uint8_t MAX_DSCP = 63;

/// Numbers as acl_class_t of platform/acl.h has them.
enum class Family : std::uint8_t { ipv4 = 1, ipv6 = 2, mac = 3 };

enum class Action : std::uint8_t { deny = 0, permit = 1 };

/// Bytes of an address of a family: 4, 16, 6.
[[nodiscard]] constexpr std::size_t address_size(Family family)
{
    return family == Family::ipv4 ? 4 : family == Family::ipv6 ? 16 : 6;
}

/// An address and the bits of it that count. IPv4 or IPv6 in a list of those families, Ethernet in a MAC list.
struct Address {
    /// Network order; the first address_size() bytes count, the others are 0. Bits that `mask` leaves out are 0.
    std::array<std::uint8_t, 16> value{};
    /// 1: the bit must be equal. That is the complement of an operator's wildcard. Any pattern of bits is allowed.
    std::array<std::uint8_t, 16> mask{};
    bool operator==(const Address &) const = default;
};

/// TCP or UDP ports, host byte order.
struct Ports {
    std::uint16_t first = 0;
    std::uint16_t last = 65535; ///< `first` or more; belongs to the range
    bool inverted = false;      ///< ports outside of the range match, those within do not
    bool operator==(const Ports &) const = default;
};

struct Entry {
    std::uint32_t sequence = 0;
    Action action = Action::deny;
    Address source;
    Address destination;
    // Families ipv4 and ipv6.
    std::optional<std::uint8_t> protocol;
    std::optional<Ports> source_ports; ///< only with protocol TCP or UDP
    std::optional<Ports> destination_ports;
    std::optional<std::uint8_t> dscp; ///< 0 … 63, the upper six bits of TOS or traffic class
    bool established = false;         ///< TCP only: ACK or RST is set
    // Family mac.
    /// Behind the VLAN tags, host byte order; 0x0600 or more. A frame with an 802.3 length field has none.
    std::optional<std::uint16_t> ether_type;
    bool operator==(const Entry &) const = default;
};

struct List {
    Family family = Family::ipv4;
    std::int32_t id =
        0; ///< as the daemon names the list to the sampling service (sflow_spl_t::acl_id); 1 or more
    std::string name; ///< of a numbered list: its number
    /// Random number of the ACL service's run that published the list.
    std::uint64_t instance = 0;
    /// Grows with every publication of any list in a run.
    std::uint64_t version = 0;
    std::vector<Entry> entries; ///< ascending by `sequence`, none twice
    bool operator==(const List &) const = default;
};

/// What contradicts the invariants above, in a few words for the log; nothing when the list is sound. A list that was
/// read from a file is.
[[nodiscard]] std::optional<std::string> find_fault(const List &list);

/// Whether `candidate` was published before `current` in the same run of the ACL service: it must not take its place.
[[nodiscard]] bool is_older(const List &candidate, const List &current);

} // namespace acl
