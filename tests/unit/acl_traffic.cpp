#include "acl_traffic.h"

#include <algorithm>
#include <span>

namespace sampling
{

namespace
{

constexpr std::uint16_t ether_ipv4 = 0x0800;
constexpr std::uint16_t ether_ipv6 = 0x86DD;
constexpr std::uint16_t ether_arp = 0x0806;
constexpr std::array<std::uint16_t, 3> other_types = {0x88CC, 0x8847, 0x8863};
constexpr std::array<std::uint16_t, 2> tag_types = {0x8100, 0x88A8};
constexpr std::array<std::uint8_t, 8> extension_kinds = {0, 43, 44, 51, 60, 135, 139, 140};
constexpr std::uint8_t fragment_kind = 44;

void put16(std::vector<std::uint8_t> &frame, std::uint64_t value)
{
    frame.push_back(static_cast<std::uint8_t>(value >> 8 & 0xFF));
    frame.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

void put(std::vector<std::uint8_t> &frame, std::span<const std::uint8_t> bytes)
{
    frame.insert(frame.end(), bytes.begin(), bytes.end());
}

} // namespace

void AclTraffic::renew()
{
    for (Address &address : addresses_)
        std::generate(address.begin(), address.end(),
                      [this] { return static_cast<std::uint8_t>(draw(0, 255)); });
    std::generate(ports_.begin(), ports_.end(),
                  [this] { return static_cast<std::uint16_t>(draw(0, 65535)); });
    ports_[0] = 0;
    ports_[1] = 65535;
    std::generate(dscps_.begin(), dscps_.end(), [this] { return static_cast<std::uint8_t>(draw(0, 63)); });
}

AclTraffic::Address AclTraffic::address()
{
    Address address = one_of(addresses_);
    if (chance(30))
        address[draw(0, 15)] ^= static_cast<std::uint8_t>(1U << draw(0, 7));
    if (chance(10))
        address[draw(0, 3)] = static_cast<std::uint8_t>(draw(0, 255));
    return address;
}

std::uint16_t AclTraffic::port()
{
    // at a limit of some range, and beside it
    return static_cast<std::uint16_t>(one_of(ports_) + draw(0, 2) - 1);
}

std::uint8_t AclTraffic::protocol()
{
    constexpr std::array<std::uint8_t, 8> usual = {6, 6, 6, 17, 17, 1, 58, 47};
    return chance(95) ? one_of(usual) : static_cast<std::uint8_t>(draw(0, 255));
}

acl::Address AclTraffic::condition(std::size_t size)
{
    acl::Address condition;
    const std::uint64_t kind = draw(1, 100);
    if (kind <= 35)
        return condition; // any
    const std::size_t prefix = kind <= 55 ? size * 8 : draw(1, size * 8);
    const Address value = one_of(addresses_);
    for (std::size_t i = 0; i < size; ++i) {
        if (kind <= 90) {
            const std::size_t left = prefix > i * 8 ? std::min<std::size_t>(8, prefix - i * 8) : 0;
            condition.mask[i] = static_cast<std::uint8_t>(0xFF00U >> left & 0xFF);
        } else {
            condition.mask[i] = static_cast<std::uint8_t>(draw(0, 255) & draw(0, 255));
        }
        condition.value[i] = value[i] & condition.mask[i];
    }
    return condition;
}

std::optional<acl::Ports> AclTraffic::port_condition()
{
    if (chance(50))
        return std::nullopt;
    const std::uint16_t one = one_of(ports_);
    const std::uint16_t other = chance(50) ? one : one_of(ports_);
    return acl::Ports{.first = std::min(one, other), .last = std::max(one, other), .inverted = chance(20)};
}

acl::Entry AclTraffic::entry(acl::Family family)
{
    acl::Entry entry;
    entry.action = chance(50) ? acl::Action::permit : acl::Action::deny;
    entry.source = condition(acl::address_size(family));
    entry.destination = condition(acl::address_size(family));
    if (family == acl::Family::mac) {
        if (chance(60))
            entry.ether_type = chance(70) ? (chance(50) ? ether_ipv4 : ether_ipv6)
                                          : (chance(50) ? ether_arp : one_of(other_types));
        return entry;
    }
    if (chance(70))
        entry.protocol = protocol();
    if (entry.protocol == acl::PROTOCOL_TCP || entry.protocol == acl::PROTOCOL_UDP) {
        entry.source_ports = port_condition();
        entry.destination_ports = port_condition();
        entry.established = entry.protocol == acl::PROTOCOL_TCP && chance(25);
    }
    if (chance(15))
        entry.dscp = one_of(dscps_);
    return entry;
}

acl::Family AclTraffic::family()
{
    constexpr std::array<acl::Family, 3> families = {acl::Family::ipv4, acl::Family::ipv6, acl::Family::mac};
    return one_of(families);
}

acl::List AclTraffic::list(acl::Family family, std::size_t most_entries)
{
    acl::List list;
    list.family = family;
    list.id = 1;
    list.name = "1";
    // as often short as long, and now and then full
    const std::size_t size = chance(5) ? most_entries : draw(0, draw(0, most_entries));
    for (std::size_t i = 0; i < size; ++i) {
        list.entries.push_back(entry(family));
        list.entries.back().sequence = static_cast<std::uint32_t>(10 * (i + 1));
    }
    return list;
}

void AclTraffic::put_random(Frame &frame, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i)
        frame.push_back(static_cast<std::uint8_t>(draw(0, 255)));
}

void AclTraffic::put_address(Frame &frame, std::size_t bytes)
{
    const Address some = address();
    put(frame, std::span(some).first(bytes));
}

void AclTraffic::put_tags(Frame &frame, Traffic &traffic)
{
    unsigned tags = 0;
    if (chance(20)) {
        traffic.tag_beside =
            static_cast<std::uint32_t>(one_of(tag_types)) << 16 | static_cast<std::uint32_t>(draw(0, 65535));
        ++counts_.tags_beside;
        ++tags;
    }
    for (; chance(20) && tags < 3; ++tags) {
        put16(frame, one_of(tag_types));
        put16(frame, draw(0, 65535));
        ++counts_.tags_inside;
    }
    counts_.three_tags += tags == 3 ? 1 : 0;
}

void AclTraffic::put_transport(Frame &frame, std::uint8_t protocol)
{
    const std::size_t start = frame.size();
    if (protocol == acl::PROTOCOL_TCP || protocol == acl::PROTOCOL_UDP) {
        put16(frame, port());
        put16(frame, port());
    }
    put_random(frame, 20 - (frame.size() - start));
    if (protocol == acl::PROTOCOL_TCP && chance(50))
        frame[start + 13] = static_cast<std::uint8_t>(1U << draw(0, 5)); // one flag alone
}

std::uint64_t AclTraffic::fragment_offset()
{
    return chance(50) ? std::uint64_t{1} << draw(0, 12) : draw(1, 0x1FFF);
}

void AclTraffic::put_ipv4(Frame &frame)
{
    ++counts_.ipv4;
    std::size_t words = 5;
    if (chance(15)) {
        words = draw(6, 15);
        ++counts_.options;
    }
    unsigned version = 4;
    if (chance(2)) {
        ++counts_.malformed;
        if (chance(50))
            version = static_cast<unsigned>(draw(0, 15));
        else
            words = draw(0, 4);
    }
    std::uint64_t fragment = chance(20) ? 0x4000 : 0; // do not fragment
    if (chance(20)) {
        const bool later = chance(70);
        fragment = later ? draw(0, 1) << 13 | fragment_offset() : 0x2000;
        ++(later ? counts_.later_fragments : counts_.first_fragments);
    }
    const std::uint8_t next = protocol();
    frame.push_back(static_cast<std::uint8_t>(version << 4 | words));
    frame.push_back(static_cast<std::uint8_t>(one_of(dscps_) << 2 | draw(0, 3)));
    put_random(frame, 4);
    put16(frame, fragment);
    frame.push_back(64);
    frame.push_back(next);
    put_random(frame, 2);
    put_address(frame, 4);
    put_address(frame, 4);
    put_random(frame, words > 5 ? 4 * (words - 5) : 0);
    put_transport(frame, next);
}

std::uint8_t AclTraffic::put_extension(Frame &frame, std::uint8_t next)
{
    const std::uint8_t kind = one_of(extension_kinds);
    const std::size_t start = frame.size();
    frame.push_back(next);
    if (kind == fragment_kind) {
        const bool later = chance(40);
        frame.push_back(0);
        put16(frame, (later ? fragment_offset() << 3 : 0) | draw(0, 1));
        put_random(frame, 4);
        ++(later ? counts_.later_fragments : counts_.first_fragments);
        return kind;
    }
    const std::uint64_t length = draw(0, 2);
    frame.push_back(static_cast<std::uint8_t>(length));
    const bool authentication = kind == 51;
    put_random(frame, (authentication ? 4 * (length + 2) : 8 * (length + 1)) - (frame.size() - start));
    return kind;
}

void AclTraffic::put_ipv6(Frame &frame)
{
    ++counts_.ipv6;
    std::size_t extensions = 0;
    if (chance(35)) {
        extensions = chance(85) ? draw(1, 3) : draw(7, 10);
        ++counts_.extensions;
        counts_.too_many_extensions += extensions > 8 ? 1 : 0;
    }
    const std::uint8_t last = protocol();
    // made from the last header to the first
    Frame rest;
    put_transport(rest, last);
    std::uint8_t next = last;
    for (std::size_t i = 0; i < extensions; ++i) {
        Frame extension;
        next = put_extension(extension, next);
        rest.insert(rest.begin(), extension.begin(), extension.end());
    }
    unsigned version = 6;
    if (chance(2)) {
        version = static_cast<unsigned>(draw(0, 15));
        ++counts_.malformed;
    }
    const unsigned traffic_class =
        static_cast<unsigned>(one_of(dscps_)) << 2 | static_cast<unsigned>(draw(0, 3));
    put16(frame, version << 12 | traffic_class << 4 | draw(0, 15));
    put_random(frame, 2);
    put16(frame, rest.size());
    frame.push_back(next);
    frame.push_back(64);
    put_address(frame, 16);
    put_address(frame, 16);
    put(frame, rest);
}

Traffic AclTraffic::frame()
{
    Traffic traffic;
    Frame &frame = traffic.frame;
    put_address(frame, 6);
    put_address(frame, 6);
    put_tags(frame, traffic);
    const std::uint64_t kind = draw(1, 100);
    if (kind <= 45) {
        put16(frame, ether_ipv4);
        put_ipv4(frame);
    } else if (kind <= 85) {
        put16(frame, ether_ipv6);
        put_ipv6(frame);
    } else if (kind <= 90) {
        put16(frame, ether_arp);
        put_random(frame, 28);
        ++counts_.arp;
    } else if (kind <= 96) {
        put16(frame, one_of(other_types));
        put_random(frame, 46);
        ++counts_.other;
    } else {
        put16(frame, draw(0, 1500));
        put_random(frame, 46);
        ++counts_.length_field;
    }
    if (chance(12)) {
        frame.resize(draw(14, frame.size()));
        ++counts_.cut;
    }
    return traffic;
}

} // namespace sampling
