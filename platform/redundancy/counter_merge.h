// Keeps the higher of two sets of counters.
//
// A checkpoint message is the client's own affair, with one exception: after a split both units have counted on, and
// what they export must not run backwards when one of them yields. For the registrations of the table in
// counter_merge.cpp the service therefore knows where a message has its key and its counters. Both units are alike, so
// everything is in host byte order.
#pragma once

#include "redundancy/pair_frame.h"

#include <optional>
#include <span>
#include <string_view>

namespace platform
{

/// Where the messages of one registration have what a merge needs; offsets and sizes in bytes.
struct CounterShape {
    std::string_view client;
    std::size_t size;
    std::size_t kind; ///< 32 bits: a message is a state of its key when it is `state`, its removal otherwise
    std::uint32_t state;
    std::size_t key; ///< 32 bits
    std::span<const std::size_t> counters64;
    std::span<const std::size_t> counters32;
};

/// The shape of a registration's messages; nullptr: they cannot be merged.
[[nodiscard]] const CounterShape *counter_shape(std::string_view client);

/// The key of a message that is a state; nothing for a removal or for what is not of this shape.
[[nodiscard]] std::optional<std::uint32_t> counter_key(const CounterShape &shape,
                                                       std::span<const std::byte> message);

/// `one` with every counter that is lower than its like in `other` raised to it. Both have a key.
[[nodiscard]] Bytes higher_counters(const CounterShape &shape, std::span<const std::byte> one,
                                    std::span<const std::byte> other);

} // namespace platform
