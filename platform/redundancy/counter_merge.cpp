#include "redundancy/counter_merge.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace platform
{

namespace
{

// Interface counters of the sFlow agent: a record of type, cache node (links, interface, generic and Ethernet
// counters). The unit test compares these numbers with the record itself.
constexpr std::array<std::size_t, 2> sflow_octets{56, 88};
constexpr std::array<std::size_t, 24> sflow_counts{
    64,  68,  72,  76,  80,  84, // in: packets, discards, errors, unknown protocols
    96,  100, 104, 108, 112,     // out
    120, 124, 128, 132, 136, 140, 144, 148, 152, 156, 160, 164, 168 // Ethernet
};

constexpr std::array shapes{
    CounterShape{.client = "SFLOW_RDND",
                 .size = 176,
                 .kind = 0,
                 .state = 1,
                 .key = 24,
                 .counters64 = sflow_octets,
                 .counters32 = sflow_counts},
};

template <typename Integer>
Integer load(std::span<const std::byte> message, std::size_t offset)
{
    Integer value = 0;
    std::memcpy(&value, message.data() + offset, sizeof(value));
    return value;
}

template <typename Integer>
void raise(Bytes &message, std::span<const std::byte> other, std::size_t offset)
{
    const Integer higher = std::max(load<Integer>(message, offset), load<Integer>(other, offset));
    std::memcpy(message.data() + offset, &higher, sizeof(higher));
}

} // namespace

const CounterShape *counter_shape(std::string_view client)
{
    const auto *found =
        std::find_if(shapes.begin(), shapes.end(), [&](const CounterShape &s) { return s.client == client; });
    return found == shapes.end() ? nullptr : &*found;
}

std::optional<std::uint32_t> counter_key(const CounterShape &shape, std::span<const std::byte> message)
{
    if (message.size() != shape.size || load<std::uint32_t>(message, shape.kind) != shape.state)
        return std::nullopt;
    return load<std::uint32_t>(message, shape.key);
}

Bytes higher_counters(const CounterShape &shape, std::span<const std::byte> one,
                      std::span<const std::byte> other)
{
    Bytes merged(one.begin(), one.end());
    for (const std::size_t offset : shape.counters64)
        raise<std::uint64_t>(merged, other, offset);
    for (const std::size_t offset : shape.counters32)
        raise<std::uint32_t>(merged, other, offset);
    return merged;
}

} // namespace platform
