// Lines of access lists as text, in the one form that the running configuration uses for each.
#include "acl_service/access_list.h"

#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cstdio>

namespace platform
{

namespace
{

using Bytes = std::array<std::uint8_t, 16>;

struct ProtocolWord {
    acl::Family family;
    std::uint8_t protocol;
    const char *word;
};
constexpr ProtocolWord protocol_words[] = {
    {acl::Family::ipv4, acl::PROTOCOL_ICMP, "icmp"}, {acl::Family::ipv4, acl::PROTOCOL_TCP, "tcp"},
    {acl::Family::ipv4, acl::PROTOCOL_UDP, "udp"},   {acl::Family::ipv6, acl::PROTOCOL_ICMPV6, "icmp"},
    {acl::Family::ipv6, acl::PROTOCOL_TCP, "tcp"},   {acl::Family::ipv6, acl::PROTOCOL_UDP, "udp"},
};

std::string bytes_text(const Bytes &bytes, acl::Family family)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (family == acl::Family::mac)
        std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                      bytes[3], bytes[4], bytes[5]);
    else
        inet_ntop(family == acl::Family::ipv4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
    return text.data();
}

/// Length of a mask that is a run of ones followed by zeros; -1 for any other.
int prefix_length(const Bytes &mask, std::size_t size)
{
    int length = 0;
    bool ended = false;
    for (std::size_t i = 0; i < size; ++i) {
        const int ones = std::countl_one(mask[i]);
        if ((ended && mask[i] != 0) || ones != std::popcount(mask[i]))
            return -1;
        ended = ended || ones < 8;
        length += ones;
    }
    return length;
}

std::string address_text(const acl::Address &address, acl::Family family)
{
    const std::size_t size = acl::address_size(family);
    const int length = prefix_length(address.mask, size);
    if (length == 0)
        return "any";
    const std::string value = bytes_text(address.value, family);
    if (length == static_cast<int>(size) * 8)
        return "host " + value;
    if (length > 0 && family != acl::Family::mac)
        return value + "/" + std::to_string(length);
    Bytes wildcard{};
    for (std::size_t i = 0; i < size; ++i)
        wildcard[i] = static_cast<std::uint8_t>(~address.mask[i]);
    return value + " " + bytes_text(wildcard, family);
}

std::string ports_text(const std::optional<acl::Ports> &ports)
{
    if (!ports)
        return {};
    const std::string first = std::to_string(ports->first);
    const std::string last = std::to_string(ports->last);
    if (ports->first == ports->last)
        return (ports->inverted ? " neq " : " eq ") + first;
    if (ports->first == 0 && ports->last != UINT16_MAX)
        return " lt " + std::to_string(ports->last + 1);
    if (ports->first != 0 && ports->last == UINT16_MAX)
        return " gt " + std::to_string(ports->first - 1);
    return " range " + first + " " + last;
}

std::string protocol_text(const std::optional<std::uint8_t> &protocol, acl::Family family)
{
    if (!protocol)
        return family == acl::Family::ipv4 ? "ip" : "ipv6";
    for (const ProtocolWord &row : protocol_words)
        if (row.family == family && row.protocol == *protocol)
            return row.word;
    return std::to_string(*protocol);
}

std::string ether_type_text(const std::optional<std::uint16_t> &type)
{
    if (!type)
        return {};
    for (const EtherTypeWord &row : ETHER_TYPE_WORDS)
        if (row.type == *type)
            return std::string(" ") + row.word;
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "0x%04x", *type);
    return std::string(" ") + text.data();
}

std::string entry_text(const acl::Entry &entry, ListKind kind)
{
    const acl::Family family = info_of(kind).family;
    const std::string source = address_text(entry.source, family);
    std::string text = entry.action == acl::Action::permit ? "permit " : "deny ";
    if (kind == ListKind::standard)
        return text + source;
    const std::string destination = " " + address_text(entry.destination, family);
    if (kind == ListKind::mac)
        return text + source + destination + ether_type_text(entry.ether_type);
    text += protocol_text(entry.protocol, family) + " " + source + ports_text(entry.source_ports) +
            destination + ports_text(entry.destination_ports);
    if (entry.dscp)
        text += " dscp " + std::to_string(*entry.dscp);
    if (entry.established)
        text += " established";
    return text;
}

} // namespace

std::string line_text(const Line &line, ListKind kind)
{
    const auto *const remark = std::get_if<std::string>(&line);
    return remark != nullptr ? "remark " + *remark : entry_text(std::get<acl::Entry>(line), kind);
}

} // namespace platform
