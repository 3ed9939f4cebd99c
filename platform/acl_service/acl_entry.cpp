// From the slots of a command record to the entry that was typed.
#include "acl_service/acl_commands.h"
#include "acl_service/acl_slots.h"

#include <algorithm>
#include <span>

namespace platform
{

namespace
{

using Bytes = std::array<std::uint8_t, 16>;

Bytes bytes_of(const u_int8_t (&address)[16], std::size_t size)
{
    Bytes bytes{};
    std::copy_n(std::begin(address), size, bytes.begin());
    return bytes;
}

/// `length` ones, then zeros.
Bytes prefix_mask(int64_t length)
{
    Bytes mask{};
    for (std::uint8_t &byte : mask) {
        const auto ones = static_cast<int>(std::clamp<int64_t>(length, 0, 8));
        byte = static_cast<std::uint8_t>(0xff00 >> ones);
        length -= ones;
    }
    return mask;
}

/// @param end  0 the source, 1 the destination
acl::Address address_of(const struct_command_data_block &record, int end, acl::Family family)
{
    const std::size_t size = acl::address_size(family);
    const int64_t form = record.int_var[VAR_FORM + end * END_SLOTS];
    acl::Address address;
    if (form == FORM_ANY)
        return address;
    const int slot = 2 * end;
    address.value = bytes_of(record.paddr_var[slot], size);
    if (form == FORM_HOST)
        address.mask = prefix_mask(static_cast<int64_t>(size) * 8);
    if (form == FORM_PREFIX)
        address.mask = prefix_mask(record.int_var[VAR_LENGTH + end * END_SLOTS]);
    if (form == FORM_WILDCARD)
        std::transform(std::begin(record.paddr_var[slot + 1]), std::begin(record.paddr_var[slot + 1]) + size,
                       address.mask.begin(),
                       [](u_int8_t wildcard) { return static_cast<std::uint8_t>(~wildcard); });
    for (std::size_t i = 0; i < size; ++i)
        address.value[i] &= address.mask[i];
    return address;
}

std::optional<acl::Ports> ports_of(const struct_command_data_block &record, int end)
{
    const auto port = static_cast<std::uint16_t>(record.int_var[VAR_PORT + end * END_SLOTS]);
    const auto last = static_cast<std::uint16_t>(record.int_var[VAR_PORT_LAST + end * END_SLOTS]);
    switch (record.int_var[VAR_PORT_TEST + end * END_SLOTS]) {
    case PORT_EQ:
        return acl::Ports{.first = port, .last = port};
    case PORT_NEQ:
        return acl::Ports{.first = port, .last = port, .inverted = true};
    case PORT_GT:
        return acl::Ports{.first = static_cast<std::uint16_t>(port + 1), .last = UINT16_MAX};
    case PORT_LT:
        return acl::Ports{.first = 0, .last = static_cast<std::uint16_t>(port - 1)};
    case PORT_RANGE:
        return acl::Ports{.first = port, .last = last};
    default:
        return std::nullopt;
    }
}

} // namespace

acl::Entry entry_of(const struct_command_data_block &record, acl::Family family)
{
    acl::Entry entry;
    entry.action = static_cast<acl::Action>(record.int_var[VAR_ACTION]);
    entry.source = address_of(record, 0, family);
    entry.destination = address_of(record, 1, family);
    if (family == acl::Family::mac) {
        const int64_t type = record.int_var[VAR_ETHER_TYPE];
        if (type != 0)
            entry.ether_type = static_cast<std::uint16_t>(type);
        return entry;
    }
    if (record.int_var[VAR_PROTOCOL] != PROTOCOL_ANY)
        entry.protocol = static_cast<std::uint8_t>(record.int_var[VAR_PROTOCOL]);
    entry.source_ports = ports_of(record, 0);
    entry.destination_ports = ports_of(record, 1);
    if (record.flag_2 != 0)
        entry.dscp = static_cast<std::uint8_t>(record.int_var[VAR_DSCP]);
    entry.established = record.flag_3 != 0;
    return entry;
}

} // namespace platform
