#include "probability.h"

#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace sampling
{
namespace
{

TEST(Probability_threshold_of, rate_1_takes_all_and_rate_0_takes_nothing)
{
    const auto never_asked = []() -> std::uint32_t {
        ADD_FAILURE() << "a draw for rate 1";
        return 0;
    };
    EXPECT_TRUE(selected(threshold_of(1), never_asked));
    EXPECT_FALSE(selected(threshold_of(0), [] { return 0U; }));
}

TEST(Probability_threshold_of, both_draws_together_give_exactly_one_in_n)
{
    for (const std::uint32_t rate :
         {2U, 3U, 7U, 10U, 16U, 1000U, 4096U, 8192U, 65537U, 1'000'003U, 16'777'215U, 2'147'483'647U}) {
        const Threshold threshold = threshold_of(rate);
        ASSERT_FALSE(threshold.take_all);
        // P = t / 2^32 + 2^-32 * e / 2^32; times N * 2^64 it must be 2^64 to within N
        const auto total =
            (static_cast<unsigned __int128>(threshold.threshold) << 32) + threshold.equal_threshold;
        const auto product = total * rate;
        const auto one = static_cast<unsigned __int128>(1) << 64;
        EXPECT_LE(product, one) << rate;
        EXPECT_LT(static_cast<std::uint64_t>(one - product), std::uint64_t{rate}) << rate;
    }
}

TEST(Probability_selected, only_a_draw_equal_to_the_threshold_needs_a_second_one)
{
    const Threshold threshold = threshold_of(3); // 1431655765, remainder one third
    struct Row {
        const char *name;
        std::array<std::uint32_t, 2> draws;
        bool taken;
        int used;
    };
    const Row rows[] = {
        {"below", {threshold.threshold - 1, 0}, true, 1},
        {"above", {threshold.threshold + 1, 0}, false, 1},
        {"equal, second below", {threshold.threshold, threshold.equal_threshold - 1}, true, 2},
        {"equal, second equal", {threshold.threshold, threshold.equal_threshold}, false, 2},
        {"equal, second above", {threshold.threshold, 0xFFFFFFFF}, false, 2},
    };
    for (const Row &row : rows) {
        int used = 0;
        const auto draw = [&] { return row.draws[static_cast<std::size_t>(used++)]; };
        EXPECT_EQ(selected(threshold, draw), row.taken) << row.name;
        EXPECT_EQ(used, row.used) << row.name;
    }
}

TEST(Probability_selected, a_power_of_two_never_takes_on_the_second_draw)
{
    const Threshold threshold = threshold_of(4096);
    EXPECT_EQ(threshold.threshold, 1U << 20);
    EXPECT_EQ(threshold.equal_threshold, 0U);
}

TEST(Probability_selected, frequency_is_within_three_standard_errors)
{
    std::mt19937 random(20240101);
    for (const std::uint32_t rate : {2U, 10U, 100U, 1000U}) {
        const Threshold threshold = threshold_of(rate);
        constexpr int trials = 200'000;
        int taken = 0;
        for (int i = 0; i < trials; ++i)
            taken += selected(threshold, [&] { return static_cast<std::uint32_t>(random()); }) ? 1 : 0;
        const double p = 1.0 / rate;
        EXPECT_NEAR(taken, trials * p, 3 * std::sqrt(trials * p * (1 - p))) << rate;
    }
}

} // namespace
} // namespace sampling
