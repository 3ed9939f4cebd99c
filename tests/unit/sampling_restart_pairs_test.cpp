#include "restart_pairs.h"

#include "sampling_fakes.h"

#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using Action = RestartPairs::Decision::Action;

constexpr SamplerKey key = {.ifindex = 5, .hook = Hook::ingress};
constexpr std::int32_t none = 0;

struct Pairs {
    RestartPairs pairs;
    Clock::time_point now{};

    RestartPairs::Decision arrived(std::int32_t rate, std::int32_t acl)
    {
        return pairs.arrived(key, setting_of(rate, acl), now);
    }
    std::optional<sflow_spl_t> settled(std::int32_t acl, Answer answer)
    {
        return pairs.settled(key, setting_of(16, acl), answer, now);
    }
    void stops(std::int32_t one, std::int32_t other)
    {
        EXPECT_EQ(arrived(0, one).action, Action::carry_out);
        EXPECT_EQ(arrived(0, other).action, Action::carry_out);
    }
    static sflow_spl_t setting_of(std::int32_t rate, std::int32_t acl)
    {
        sflow_spl_t request = setting(key.ifindex, rate, SFLOW_INGRESS);
        request.acl_id = acl;
        return request;
    }
};

TEST(RestartPairs_arrived, the_empty_place_behind_a_refused_list_is_refused_alike)
{
    Pairs p;
    p.stops(7, none);
    EXPECT_EQ(p.arrived(16, 7).action, Action::carry_out);
    EXPECT_FALSE(p.settled(7, Answer::acl_missing));
    const auto decision = p.arrived(16, none);
    EXPECT_EQ(decision.action, Action::refuse);
    EXPECT_EQ(decision.refusal, Answer::acl_missing);
    // that was the pair: what comes now is somebody's wish
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
    EXPECT_TRUE(p.pairs.idle());
}

TEST(RestartPairs_arrived, the_empty_place_behind_a_list_in_force_is_carried_out)
{
    Pairs p;
    p.stops(7, none);
    EXPECT_EQ(p.arrived(16, 7).action, Action::carry_out);
    EXPECT_FALSE(p.settled(7, Answer::ok));
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
    EXPECT_TRUE(p.pairs.idle());
}

TEST(RestartPairs_arrived, the_empty_place_in_front_of_a_list_waits_for_it)
{
    for (const Answer answer : {Answer::ok, Answer::acl_corrupt}) {
        Pairs p;
        p.stops(none, 7);
        EXPECT_EQ(p.arrived(16, none).action, Action::hold);
        EXPECT_EQ(p.arrived(16, 7).action, Action::carry_out);
        const auto held = p.settled(7, answer);
        ASSERT_TRUE(held);
        EXPECT_EQ(held->acl_id, none);
        EXPECT_EQ(held->rate, 16);
        EXPECT_TRUE(p.pairs.idle());
    }
}

TEST(RestartPairs_arrived, starts_speak_for_themselves_unless_a_list_and_an_empty_place_were_stopped)
{
    struct Row {
        const char *name;
        std::vector<std::int32_t> stops;
    };
    const Row rows[] = {
        {"nothing was stopped", {}},
        {"from a list to plain sampling", {7}},
        {"from two lists to plain sampling", {7, 8}},
        {"two empty places", {none, none}},
    };
    for (const Row &row : rows) {
        Pairs p;
        for (const std::int32_t acl : row.stops)
            EXPECT_EQ(p.arrived(0, acl).action, Action::carry_out) << row.name;
        EXPECT_EQ(p.arrived(16, none).action, Action::carry_out) << row.name;
        EXPECT_TRUE(p.pairs.idle()) << row.name;
    }
}

TEST(RestartPairs_arrived, a_plain_start_first_waits_only_when_its_stop_came_first)
{
    Pairs p;
    p.stops(7, none);
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
    EXPECT_TRUE(p.pairs.idle());
}

TEST(RestartPairs_arrived, two_lists_restart_without_an_empty_place)
{
    Pairs p;
    p.stops(7, 8);
    EXPECT_EQ(p.arrived(16, 7).action, Action::carry_out);
    EXPECT_FALSE(p.settled(7, Answer::acl_missing));
    EXPECT_EQ(p.arrived(16, 8).action, Action::carry_out);
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
}

TEST(RestartPairs_arrived, each_sampler_has_a_course_of_its_own)
{
    Pairs p;
    p.stops(none, 7);
    const SamplerKey other = {.ifindex = 6, .hook = Hook::ingress};
    EXPECT_EQ(p.pairs.arrived(other, Pairs::setting_of(16, none), p.now).action, Action::carry_out);
    EXPECT_EQ(p.arrived(16, none).action, Action::hold);
}

TEST(RestartPairs_arrived, a_stop_releases_what_is_held_first)
{
    Pairs p;
    p.stops(none, 7);
    EXPECT_EQ(p.arrived(16, none).action, Action::hold);
    const auto decision = p.arrived(0, 7);
    EXPECT_EQ(decision.action, Action::carry_out);
    ASSERT_TRUE(decision.first);
    EXPECT_EQ(decision.first->rate, 16);
    // that start has been: only the list was stopped since
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
}

TEST(RestartPairs_overdue, a_plain_start_whose_list_never_comes_is_let_go_after_a_while)
{
    Pairs p;
    p.stops(none, 7);
    EXPECT_EQ(p.arrived(16, none).action, Action::hold);
    p.now += RestartPairs::patience - std::chrono::milliseconds(1);
    EXPECT_TRUE(p.pairs.overdue(p.now).empty());
    p.now += std::chrono::milliseconds(1);
    const auto settings = p.pairs.overdue(p.now);
    ASSERT_EQ(settings.size(), 1U);
    EXPECT_EQ(settings[0].rate, 16);
    EXPECT_TRUE(p.pairs.idle());
}

TEST(RestartPairs_overdue, stops_are_forgotten_when_no_start_follows)
{
    Pairs p;
    p.stops(none, 7);
    p.now += RestartPairs::longest_restart - std::chrono::milliseconds(1);
    EXPECT_TRUE(p.pairs.overdue(p.now).empty());
    EXPECT_FALSE(p.pairs.idle());
    p.now += std::chrono::milliseconds(1);
    EXPECT_TRUE(p.pairs.overdue(p.now).empty());
    EXPECT_TRUE(p.pairs.idle());
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
}

TEST(RestartPairs_arrived, a_plain_start_long_after_a_refused_list_is_carried_out)
{
    Pairs p;
    p.stops(7, none);
    EXPECT_EQ(p.arrived(16, 7).action, Action::carry_out);
    EXPECT_FALSE(p.settled(7, Answer::acl_missing));
    p.now += RestartPairs::patience + std::chrono::milliseconds(1);
    EXPECT_EQ(p.arrived(16, none).action, Action::carry_out);
}

} // namespace
} // namespace sampling
