#include "acl_list/acl_list.h"

#include <algorithm>

namespace acl
{

namespace
{

constexpr std::uint16_t least_ether_type = 0x0600; // below it the field is an 802.3 length

bool is_sound(const Address &address, Family family)
{
    for (std::size_t i = 0; i < address.value.size(); ++i) {
        const bool counts = i < address_size(family);
        if ((address.value[i] & ~address.mask[i]) != 0 || (!counts && address.mask[i] != 0))
            return false;
    }
    return true;
}

bool is_sound(const std::optional<Ports> &ports)
{
    return !ports || ports->first <= ports->last;
}

const char *fault_of_layer_4(const Entry &entry)
{
    const std::uint8_t protocol = entry.protocol.value_or(0);
    const bool has_ports = protocol == PROTOCOL_TCP || protocol == PROTOCOL_UDP;
    if (!has_ports && (entry.source_ports || entry.destination_ports))
        return "ports without TCP or UDP";
    if (!is_sound(entry.source_ports) || !is_sound(entry.destination_ports))
        return "a range of ports that ends before it begins";
    if (entry.established && protocol != PROTOCOL_TCP)
        return "established without TCP";
    return nullptr;
}

const char *fault_of(const Entry &entry, Family family)
{
    if (!is_sound(entry.source, family) || !is_sound(entry.destination, family))
        return "an address with bits that its mask leaves out";
    if (entry.dscp && *entry.dscp > MAX_DSCP)
        return "a DSCP above 63";
    if (entry.ether_type && *entry.ether_type < least_ether_type)
        return "an EtherType below 0x0600";
    const bool asks_for_ip = entry.protocol || entry.dscp || entry.established;
    if (family == Family::mac && asks_for_ip)
        return "IP conditions in a MAC list";
    if (family != Family::mac && entry.ether_type)
        return "an EtherType in an IP list";
    return fault_of_layer_4(entry);
}

bool is_name(const std::string &name)
{
    return !name.empty() && name.size() <= MAX_NAME &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; });
}

} // namespace

std::optional<std::string> find_fault(const List &list)
{
    if (list.id < 1)
        return "id " + std::to_string(list.id);
    if (!is_name(list.name))
        return "an unusable name";
    if (list.family != Family::ipv4 && list.family != Family::ipv6 && list.family != Family::mac)
        return "an unknown family";
    if (list.entries.size() > MAX_ENTRIES)
        return std::to_string(list.entries.size()) + " entries";
    std::uint32_t last = 0;
    for (const Entry &entry : list.entries) {
        if (entry.sequence <= last || entry.sequence > MAX_SEQUENCE)
            return "sequence number " + std::to_string(entry.sequence) + " behind " + std::to_string(last);
        last = entry.sequence;
        if (const char *const fault = fault_of(entry, list.family))
            return "entry " + std::to_string(last) + ": " + fault;
    }
    return std::nullopt;
}

bool is_older(const List &candidate, const List &current)
{
    return candidate.instance == current.instance && candidate.version < current.version;
}

} // namespace acl
