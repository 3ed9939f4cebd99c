#include "acl_matcher.h"

#include <algorithm>
#include <netinet/tcp.h>
#include <span>

namespace sampling
{

namespace
{

bool holds(const acl::Address &wanted, std::span<const std::uint8_t> address)
{
    for (std::size_t i = 0; i < address.size(); ++i) {
        if ((address[i] & wanted.mask[i]) != wanted.value[i])
            return false;
    }
    return true;
}

template <typename T>
bool holds(const std::optional<T> &wanted, const std::optional<T> &found)
{
    return !wanted || wanted == found;
}

bool holds(const acl::Ports &wanted, std::uint16_t port)
{
    return (port >= wanted.first && port <= wanted.last) != wanted.inverted;
}

bool ports_hold(const acl::Entry &entry, const PacketFields &packet)
{
    if (!entry.source_ports && !entry.destination_ports)
        return true;
    return packet.ports && (!entry.source_ports || holds(*entry.source_ports, packet.ports->source)) &&
           (!entry.destination_ports || holds(*entry.destination_ports, packet.ports->destination));
}

bool is_established(const PacketFields &packet)
{
    return packet.tcp_flags && (*packet.tcp_flags & (TH_ACK | TH_RST)) != 0;
}

bool ip_matches(const acl::Entry &entry, std::size_t address_size, const PacketFields &packet)
{
    if (!holds(entry.protocol, packet.protocol) || (entry.dscp && *entry.dscp != packet.dscp) ||
        !holds(entry.source, std::span(packet.source).first(address_size)) ||
        !holds(entry.destination, std::span(packet.destination).first(address_size)))
        return false;
    // a later fragment does not have what these ask for
    return packet.later_fragment ||
           (ports_hold(entry, packet) && (!entry.established || is_established(packet)));
}

bool mac_matches(const acl::Entry &entry, const PacketFields &packet)
{
    return holds(entry.source, packet.source_mac) && holds(entry.destination, packet.destination_mac) &&
           holds(entry.ether_type, packet.ether_type);
}

} // namespace

bool matches(const acl::Entry &entry, acl::Family family, const PacketFields &packet)
{
    switch (family) {
    case acl::Family::mac:
        return mac_matches(entry, packet);
    case acl::Family::ipv4:
        return packet.network == PacketFields::Network::ipv4 &&
               ip_matches(entry, acl::address_size(family), packet);
    case acl::Family::ipv6:
        return packet.network == PacketFields::Network::ipv6 &&
               ip_matches(entry, acl::address_size(family), packet);
    }
    return false;
}

bool permits(const acl::List &list, const PacketFields &packet)
{
    const auto entry =
        std::find_if(list.entries.begin(), list.entries.end(), [&list, &packet](const acl::Entry &candidate) {
            return matches(candidate, list.family, packet);
        });
    return entry != list.entries.end() && entry->action == acl::Action::permit;
}

} // namespace sampling
