// Frames and access lists for tests, spelt out.
#pragma once

#include "acl_list/acl_list.h"

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sampling
{

/// Builds the headers that the test asks for, one behind the other.
class FrameBuilder
{
public:
    explicit FrameBuilder(std::array<std::uint8_t, 6> destination = {2, 0, 0, 0, 0, 1},
                          std::array<std::uint8_t, 6> source = {2, 0, 0, 0, 0, 2})
    {
        bytes_.insert(bytes_.end(), destination.begin(), destination.end());
        bytes_.insert(bytes_.end(), source.begin(), source.end());
    }

    FrameBuilder &u8(unsigned value)
    {
        bytes_.push_back(static_cast<std::uint8_t>(value & 0xFF));
        return *this;
    }
    FrameBuilder &u16(unsigned value) { return u8(value >> 8).u8(value); }
    FrameBuilder &zeros(std::size_t count)
    {
        bytes_.resize(bytes_.size() + count);
        return *this;
    }
    FrameBuilder &address(const char *text)
    {
        std::array<std::uint8_t, 16> address{};
        const bool v6 = ::inet_pton(AF_INET6, text, address.data()) == 1;
        if (!v6 && ::inet_pton(AF_INET, text, address.data()) != 1)
            throw std::invalid_argument(text);
        bytes_.insert(bytes_.end(), address.begin(), address.begin() + (v6 ? 16 : 4));
        return *this;
    }
    FrameBuilder &tag(unsigned ether_type, unsigned tci) { return u16(ether_type).u16(tci); }

    struct Ip {
        const char *source;
        const char *destination;
        unsigned protocol;
        unsigned dscp = 0;
        unsigned fragment = 0; ///< the header's 16 bits: flags and offset
        unsigned option_words = 0;
    };
    /// EtherType and header.
    FrameBuilder &ipv4(const Ip &ip)
    {
        u16(0x0800).u8(0x45 + ip.option_words).u8(ip.dscp << 2).u16(0).u16(0).u16(ip.fragment).u8(64);
        return u8(ip.protocol).u16(0).address(ip.source).address(ip.destination).zeros(4 * ip.option_words);
    }
    /// EtherType and header; `protocol` is the next header.
    FrameBuilder &ipv6(const Ip &ip)
    {
        u16(0x86DD).u16(0x6000U | ip.dscp << 6).u16(0).u16(0).u8(ip.protocol).u8(64);
        return address(ip.source).address(ip.destination);
    }
    /// IPv6 extension header of (units + 1) * 8 bytes.
    FrameBuilder &extension(unsigned next, unsigned units = 0)
    {
        return u8(next).u8(units).zeros(6 + 8 * units);
    }
    FrameBuilder &ipv6_fragment(unsigned next, unsigned offset, bool more = true)
    {
        return u8(next).u8(0).u16(offset << 3 | (more ? 1U : 0U)).zeros(4);
    }
    FrameBuilder &udp(unsigned source, unsigned destination) { return u16(source).u16(destination).zeros(4); }
    FrameBuilder &tcp(unsigned source, unsigned destination, unsigned flags)
    {
        return u16(source).u16(destination).zeros(9).u8(flags).zeros(6);
    }
    FrameBuilder &cut(std::size_t bytes)
    {
        bytes_.resize(bytes);
        return *this;
    }

    [[nodiscard]] const std::vector<std::uint8_t> &bytes() const { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

/// An IP address and how many of its leading bits count.
inline acl::Address prefix(const char *text, unsigned bits)
{
    acl::Address address;
    if (::inet_pton(AF_INET6, text, address.value.data()) != 1 &&
        ::inet_pton(AF_INET, text, address.value.data()) != 1)
        throw std::invalid_argument(text);
    for (unsigned bit = 0; bit < bits; ++bit)
        address.mask[bit / 8] = static_cast<std::uint8_t>(address.mask[bit / 8] | 0x80U >> bit % 8);
    for (std::size_t i = 0; i < address.value.size(); ++i)
        address.value[i] &= address.mask[i];
    return address;
}

inline acl::List list_of(acl::Family family, std::vector<acl::Entry> entries, std::int32_t id = 5)
{
    acl::List list;
    list.family = family;
    list.id = id;
    list.name = std::to_string(id);
    list.instance = 1;
    list.version = 1;
    for (acl::Entry &entry : entries)
        entry.sequence = static_cast<std::uint32_t>(10 * (&entry - entries.data() + 1));
    list.entries = std::move(entries);
    return list;
}

} // namespace sampling
