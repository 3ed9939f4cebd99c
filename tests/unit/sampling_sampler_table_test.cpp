#include "sampler_table.h"

#include "sampling_fakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Clock::time_point start_time{};
constexpr IFINDEX port = 5;

struct Table {
    FakeBackend backend;
    FakeAcls acls;
    SamplerTable table{backend, acls};
    Clock::time_point now = start_time;

    Answer set(std::int32_t rate, std::int32_t direct, std::int32_t snoop = 0)
    {
        return table.set(setting(port, rate, direct, snoop), now);
    }
    /// Ingress limited to a list.
    Answer set_acl(std::int32_t rate, std::int32_t acl)
    {
        return table.set(setting(port, rate, SFLOW_INGRESS, 0, acl), now);
    }
};

TEST(SamplerTable_set, switches_each_direction_on_by_its_own_hook)
{
    Table t;
    EXPECT_EQ(t.set(4096, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.set(16, SFLOW_EGRESS), Answer::ok);
    EXPECT_THAT(t.backend.calls, ElementsAre("start 5 ingress 4096/64", "start 5 egress 16/64"));
}

TEST(SamplerTable_set, bad_requests_reach_no_backend)
{
    struct Row {
        const char *name;
        std::int32_t rate, direct, snoop;
    };
    const Row rows[] = {
        {"no direction", 16, 0, 0},           {"both directions", 16, 3, 0},
        {"negative direction", 16, -1, 0},    {"negative rate", -1, 1, 0},
        {"unknown flag", 16, 1, 2},           {"snooping egress", 16, 2, 1},
        {"unknown flag beside", 16, 1, 0x11},
    };
    for (const Row &row : rows) {
        Table t;
        EXPECT_EQ(t.set(row.rate, row.direct, row.snoop), Answer::bad_request) << row.name;
        EXPECT_THAT(t.backend.calls, IsEmpty()) << row.name;
    }
}

TEST(SamplerTable_set, a_list_is_looked_up_by_id_and_name_and_limits_the_sampler)
{
    Table t;
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_INGRESS, 0, 2900, "web"), t.now), Answer::ok);
    EXPECT_THAT(t.acls.calls, ElementsAre("use 2900 web"));
    EXPECT_THAT(t.backend.calls, ElementsAre("start 5 ingress 16/64 acl 2900"));
    // a name that fills its field has no NUL
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_INGRESS, 0, 7, std::string(100, 'x')), t.now), Answer::ok);
    EXPECT_EQ(t.acls.calls.back(), "use 7 " + std::string(100, 'x'));
}

TEST(SamplerTable_set, two_lists_limit_one_sampler_and_a_third_is_refused)
{
    Table t;
    EXPECT_EQ(t.set_acl(16, 1), Answer::ok);
    EXPECT_EQ(t.set_acl(16, 2), Answer::ok);
    EXPECT_EQ(t.set_acl(16, 3), Answer::too_many_acls);
    EXPECT_EQ(t.set_acl(32, 2), Answer::ok); // there already: a new rate
    EXPECT_THAT(t.backend.calls,
                ElementsAre("start 5 ingress 16/64 acl 1", "start 5 ingress 16/64 acl 1 acl 2",
                            "start 5 ingress 32/64 acl 1 acl 2"));
}

TEST(SamplerTable_set, a_list_in_snooping_limits_the_snooping)
{
    Table t;
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP, 4), t.now), Answer::ok);
    EXPECT_THAT(t.backend.calls, ElementsAre("start 5 snoop 16/64 acl 4"));
}

TEST(SamplerTable_set, a_list_that_cannot_be_used_refuses_its_sampler_and_nothing_is_sampled)
{
    for (const Answer refusal : {Answer::acl_missing, Answer::acl_corrupt, Answer::acl_stale,
                                 Answer::acl_unreadable, Answer::acl_refused}) {
        Table t;
        t.acls.refusals[1] = refusal;
        EXPECT_EQ(t.set_acl(16, 1), refusal);
        EXPECT_THAT(t.backend.calls, IsEmpty());
        EXPECT_THAT(t.table.rows(), IsEmpty());
        // beside a list that is in force, that one goes on alone
        EXPECT_EQ(t.set_acl(16, 2), Answer::ok);
        EXPECT_EQ(t.set_acl(16, 1), refusal);
        EXPECT_THAT(t.backend.calls, ElementsAre("start 5 ingress 16/64 acl 2"));
    }
}

TEST(SamplerTable_set, only_ingress_can_be_limited_and_only_by_a_list_with_an_id)
{
    Table t;
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_EGRESS, 0, 1), t.now), Answer::acl_unsupported);
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_INGRESS, 0, 0, "web"), t.now), Answer::bad_request);
    EXPECT_EQ(t.table.set(setting(port, 16, SFLOW_INGRESS, 0, -1), t.now), Answer::bad_request);
    EXPECT_THAT(t.backend.calls, IsEmpty());
    EXPECT_THAT(t.acls.calls, IsEmpty());
}

TEST(SamplerTable_set, a_list_limits_what_ran_without_one)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set_acl(16, 1), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("start 5 ingress 16/64 acl 1"));
    // with the list the sampling ends: what ran before does not come back
    EXPECT_EQ(t.set_acl(0, 1), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("pause 5 ingress"));
}

TEST(SamplerTable_set, a_plain_start_or_stop_changes_nothing_about_lists)
{
    Table t;
    ASSERT_EQ(t.set_acl(16, 1), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set(32, SFLOW_INGRESS), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("start 5 ingress 32/64 acl 1"));
    EXPECT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), IsEmpty());
    EXPECT_TRUE(t.table.rows().at(0).on);
}

TEST(SamplerTable_set, stopping_one_of_two_lists_leaves_the_other)
{
    Table t;
    ASSERT_EQ(t.set_acl(16, 1), Answer::ok);
    ASSERT_EQ(t.set_acl(16, 2), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set_acl(0, 1), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("start 5 ingress 16/64 acl 2"));
    EXPECT_EQ(t.set_acl(0, 9), Answer::ok); // not there
    EXPECT_EQ(t.set_acl(16, 3), Answer::ok);
    EXPECT_EQ(t.set_acl(0, 2), Answer::ok);
    EXPECT_EQ(t.set_acl(0, 3), Answer::ok);
    EXPECT_EQ(t.backend.calls.back(), "pause 5 ingress");
}

TEST(SamplerTable_set, stop_of_a_list_ends_plain_sampling_as_the_daemon_takes_it)
{
    // The daemon clears the direction when no list is left after such a stop.
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.set_acl(0, 1), Answer::ok);
    EXPECT_FALSE(t.table.rows().at(0).on);
}

TEST(SamplerTable_set, a_start_after_the_last_list_is_not_limited_any_more)
{
    Table t;
    ASSERT_EQ(t.set_acl(16, 1), Answer::ok);
    ASSERT_EQ(t.set_acl(0, 1), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    EXPECT_THAT(t.backend.calls, ElementsAre("start 5 ingress 16/64"));
}

TEST(SamplerTable_expire, lists_are_kept_as_long_as_a_sampler_has_them)
{
    Table t;
    ASSERT_EQ(t.set_acl(16, 1), Answer::ok);
    ASSERT_EQ(t.set_acl(16, 2), Answer::ok);
    ASSERT_EQ(t.set_acl(0, 1), Answer::ok);
    t.table.expire(t.now);
    EXPECT_THAT(t.acls.kept, testing::UnorderedElementsAre(0, 2));
    ASSERT_EQ(t.set_acl(0, 2), Answer::ok);
    t.table.expire(t.now);
    EXPECT_TRUE(t.acls.kept.contains(2)); // paused: it may go on in a moment
    t.table.expire(t.now + SamplerTable::linger);
    EXPECT_FALSE(t.acls.kept.contains(2));
}

TEST(SamplerTable_set_header_len, leaves_a_limited_sampler_limited)
{
    Table t;
    ASSERT_EQ(t.set_acl(16, 1), Answer::ok);
    t.backend.take_calls();
    t.table.set_header_len(128);
    EXPECT_THAT(t.backend.calls, ElementsAre("start 5 ingress 16/128 acl 1"));
}

TEST(SamplerTable_set, stop_of_what_is_not_sampled_succeeds)
{
    Table t;
    EXPECT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.set(0, SFLOW_EGRESS), Answer::ok);
    EXPECT_EQ(t.set(0, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP), Answer::ok);
    EXPECT_THAT(t.backend.calls, IsEmpty());
    EXPECT_FALSE(t.table.next_expiry());
}

TEST(SamplerTable_set, refusal_of_the_backend_is_passed_on_and_leaves_no_sampler)
{
    Table t;
    t.backend.refusals[{.ifindex = port, .hook = Hook::egress}] = Answer::hook_refused;
    EXPECT_EQ(t.set(16, SFLOW_EGRESS), Answer::hook_refused);
    EXPECT_THAT(t.table.rows(), IsEmpty());
}

TEST(SamplerTable_set, rate_change_by_off_off_on_on_keeps_the_hook)
{
    Table t;
    ASSERT_EQ(t.set(4096, SFLOW_INGRESS), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    t.now += SamplerTable::linger - milliseconds(1);
    t.table.expire(t.now);
    EXPECT_EQ(t.set(8192, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.set(8192, SFLOW_INGRESS), Answer::ok);
    t.now += SamplerTable::linger * 2;
    t.table.expire(t.now);
    EXPECT_THAT(t.backend.calls,
                ElementsAre("pause 5 ingress", "start 5 ingress 8192/64", "start 5 ingress 8192/64"));
    EXPECT_TRUE(t.table.rows().at(0).on);
}

TEST(SamplerTable_expire, paused_sampler_goes_after_the_linger_time)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    ASSERT_EQ(t.set(16, SFLOW_EGRESS), Answer::ok);
    ASSERT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.table.next_expiry(), start_time + SamplerTable::linger);
    t.backend.take_calls();
    t.table.expire(start_time + SamplerTable::linger - milliseconds(1));
    EXPECT_THAT(t.backend.calls, IsEmpty());
    t.table.expire(start_time + SamplerTable::linger);
    EXPECT_THAT(t.backend.calls, ElementsAre("remove 5 ingress"));
    EXPECT_FALSE(t.table.next_expiry());
    ASSERT_EQ(t.table.rows().size(), 1U);
    EXPECT_EQ(t.table.rows()[0].key.hook, Hook::egress);
}

TEST(SamplerTable_set, a_second_stop_does_not_lengthen_the_linger_time)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    ASSERT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    t.now += SamplerTable::linger / 2;
    ASSERT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_EQ(t.table.next_expiry(), start_time + SamplerTable::linger);
}

TEST(SamplerTable_set, snooping_and_plain_ingress_exclude_each_other_and_the_last_wins)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set(32, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("pause 5 ingress", "start 5 snoop 32/64"));
    EXPECT_EQ(t.set(64, SFLOW_INGRESS), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("pause 5 snoop", "start 5 ingress 64/64"));
}

TEST(SamplerTable_set, a_stop_carries_the_snoop_value_of_what_it_stops)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP), Answer::ok);
    t.backend.take_calls();
    EXPECT_EQ(t.set(0, SFLOW_INGRESS), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), IsEmpty());
    EXPECT_EQ(t.set(0, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("pause 5 snoop"));
}

TEST(SamplerTable_set, refused_snooping_leaves_plain_ingress_running)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    t.backend.refusals[{.ifindex = port, .hook = Hook::snoop}] = Answer::hook_refused;
    t.backend.take_calls();
    EXPECT_EQ(t.set(32, SFLOW_INGRESS, SFLOW_INGRESS_BY_SNOOP), Answer::hook_refused);
    EXPECT_THAT(t.backend.calls,
                ElementsAre("pause 5 ingress", "start 5 snoop 32/64", "start 5 ingress 16/64"));
    ASSERT_EQ(t.table.rows().size(), 1U);
    EXPECT_TRUE(t.table.rows()[0].on);
}

TEST(SamplerTable_set_header_len, reaches_running_and_future_samplers_but_not_paused_ones)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    ASSERT_EQ(t.set(16, SFLOW_EGRESS), Answer::ok);
    ASSERT_EQ(t.set(0, SFLOW_EGRESS), Answer::ok);
    t.backend.take_calls();
    t.table.set_header_len(128);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("start 5 ingress 16/128"));
    t.table.set_header_len(128);
    EXPECT_THAT(t.backend.take_calls(), IsEmpty());
    ASSERT_EQ(t.set(16, SFLOW_EGRESS), Answer::ok);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("start 5 egress 16/128"));
}

TEST(SamplerTable_set_header_len, is_clamped_to_what_a_record_holds)
{
    Table t;
    t.table.set_header_len(0);
    EXPECT_EQ(t.table.header_len(), 1U);
    t.table.set_header_len(0xFFFFFFFF);
    EXPECT_EQ(t.table.header_len(), 256U);
}

TEST(SamplerTable_pause_all, forgets_settings_but_keeps_hooks_for_the_replay)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    t.table.set_header_len(200);
    t.backend.take_calls();
    t.table.pause_all(t.now);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("pause 5 ingress"));
    EXPECT_EQ(t.table.header_len(), SamplerTable::default_header_len);
    EXPECT_EQ(t.table.next_expiry(), start_time + SamplerTable::linger);
}

TEST(SamplerTable_remove_all, removes_at_once)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    ASSERT_EQ(t.set(16, SFLOW_EGRESS), Answer::ok);
    t.backend.take_calls();
    t.table.remove_all();
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("remove 5 ingress", "remove 5 egress"));
    EXPECT_THAT(t.table.rows(), IsEmpty());
}

TEST(SamplerTable_forget_interface, leaves_other_interfaces_alone)
{
    Table t;
    ASSERT_EQ(t.set(16, SFLOW_INGRESS), Answer::ok);
    ASSERT_EQ(t.table.set(setting(6, 16, SFLOW_EGRESS), t.now), Answer::ok);
    t.backend.take_calls();
    t.table.forget_interface(port);
    EXPECT_THAT(t.backend.take_calls(), ElementsAre("forget 5"));
    ASSERT_EQ(t.table.rows().size(), 1U);
    EXPECT_EQ(t.table.rows()[0].key.ifindex, 6U);
}

} // namespace
} // namespace sampling
