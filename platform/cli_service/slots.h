// Access to the slots of a command record.
#pragma once

#include "platform/cli.h"

#include <cstring>
#include <span>
#include <string_view>

namespace cli
{

/// Where integers, addresses and strings may be stored.
[[nodiscard]] constexpr bool is_int_slot(u_int64_t slot)
{
    return slot >= CLI_SLOT(flag_1) && slot < CLI_SLOT(paddr_var) && slot % sizeof(int64_t) == 0;
}

[[nodiscard]] constexpr bool is_address_slot(u_int64_t slot)
{
    constexpr u_int64_t size = 16;
    return slot >= CLI_SLOT(paddr_var) && slot < CLI_SLOT(string_var) &&
           (slot - CLI_SLOT(paddr_var)) % size == 0;
}

[[nodiscard]] constexpr bool is_string_slot(u_int64_t slot)
{
    return slot >= CLI_SLOT(string_var) &&
           slot < CLI_SLOT(string_var) + sizeof(struct_command_data_block::string_var) &&
           (slot - CLI_SLOT(string_var)) % CLI_STRING_LEN == 0;
}

/// The bytes of a slot; the caller has checked it.
[[nodiscard]] inline std::byte *slot_bytes(struct_command_data_block &record, u_int64_t slot)
{
    return std::as_writable_bytes(std::span(&record, 1)).data() + slot;
}

/// Stores into a slot of the right kind; any other is left alone.
inline void store_int(struct_command_data_block &record, u_int64_t slot, int64_t value)
{
    if (is_int_slot(slot))
        std::memcpy(slot_bytes(record, slot), &value, sizeof value);
}

inline void store_address(struct_command_data_block &record, u_int64_t slot,
                          std::span<const u_int8_t> address)
{
    if (is_address_slot(slot) && address.size() <= 16)
        std::memcpy(slot_bytes(record, slot), address.data(), address.size());
}

inline void store_string(struct_command_data_block &record, u_int64_t slot, std::string_view text)
{
    if (!is_string_slot(slot) || text.size() >= CLI_STRING_LEN)
        return;
    std::memset(slot_bytes(record, slot), 0, CLI_STRING_LEN);
    std::memcpy(slot_bytes(record, slot), text.data(), text.size());
}

} // namespace cli
