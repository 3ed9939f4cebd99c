// Exact one-in-N selection with 32-bit random draws, shared by the BPF programs' configuration and the replay.
//
// One draw of 32 bits selects with a probability of floor(2^32 / N) / 2^32, which for large N is wrong by up to one
// part in 2^32 / N. When the draw equals the threshold itself, a second draw decides with the probability of the
// remainder; together that is 1 / N, but for less than 2^-64.
#pragma once

#include <cstdint>

namespace sampling
{

struct Threshold {
    bool take_all = false;       ///< rate 1: no draw at all
    std::uint32_t threshold = 0; ///< take when a draw is below this
    std::uint32_t equal_threshold =
        0; ///< on a draw equal to `threshold`: take when a second draw is below this
};

/// @param rate  N of "one in N"; 0 selects nothing
[[nodiscard]] constexpr Threshold threshold_of(std::uint32_t rate)
{
    if (rate <= 1)
        return {.take_all = rate == 1};
    const std::uint64_t range = std::uint64_t{1} << 32;
    return {.take_all = false,
            .threshold = static_cast<std::uint32_t>(range / rate),
            .equal_threshold = static_cast<std::uint32_t>(((range % rate) << 32) / rate)};
}

/// One decision. `draw()` gives independent, uniform 32-bit numbers.
template <typename Draw>
[[nodiscard]] bool selected(const Threshold &threshold, Draw &&draw)
{
    if (threshold.take_all)
        return true;
    const std::uint32_t first = draw();
    if (first != threshold.threshold)
        return first < threshold.threshold;
    return draw() < threshold.equal_threshold;
}

} // namespace sampling
