// Roles of a pair: who becomes master when, and what the clients are told of it.
#include "pair_world.h"

#include "redundancy/lease.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace pair_test;
using platform::Frame;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Nodes = std::vector<std::uint32_t>;

namespace
{

/// Two units, node 1 master and node 2 its standby.
struct Pair_of_two : testing::Test {
    Pair_of_two()
    {
        world.start(1);
        world.run(milliseconds(500));
        world.start(2);
        EXPECT_TRUE(world.run_until([&] { return two.pair->state() == RDND_STAT_REALTIME; }));
        EXPECT_THAT(world.masters(), ElementsAre(1));
        EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE);
        one.take_events();
        two.take_events();
    }

    World world;
    Unit &one = world.unit(1);
    Unit &two = world.unit(2);
};
using Pair_takeover = Pair_of_two;
using Pair_quorum = Pair_of_two;
using Pair_life = Pair_of_two;
using Pair_split = Pair_of_two;
using Pair_force_switchover = Pair_of_two;
using Pair_engine = Pair_of_two;

} // namespace

// ---- Start --------------------------------------------------------------------------------------------------------

TEST(Pair_start, a_unit_alone_with_quorum_becomes_master_and_says_that_it_is_ready)
{
    World world;
    world.start(1);
    EXPECT_EQ(world.unit(1).pair->role(), RDND_ROLE_CANDIDATE);
    EXPECT_EQ(world.unit(1).pair->state(), RDND_STAT_INIT);
    world.run(milliseconds(200));
    EXPECT_EQ(world.unit(1).pair->role(), RDND_ROLE_MASTER);
    EXPECT_EQ(world.unit(1).pair->state(), RDND_STAT_ALONE);
    EXPECT_EQ(world.unit(1).take_events(), "R");
}

TEST(Pair_start, without_quorum_there_is_no_master_and_nobody_is_ready)
{
    World world;
    world.set_quorum_rule(two_nodes_needed);
    world.unit(2).engine = false;
    world.start(1);
    world.run(milliseconds(5000));
    EXPECT_THAT(world.masters(), IsEmpty());
    EXPECT_EQ(world.unit(1).take_events(), "");
    EXPECT_EQ(world.unit(1).shown("Quorum"), "no");
}

TEST(Pair_start, the_older_of_two_that_wait_for_quorum_becomes_master)
{
    World world;
    world.set_quorum_rule(two_nodes_needed);
    world.unit(1).engine = false;
    world.start(2);
    world.run(milliseconds(3000));
    world.unit(1).engine = true;
    world.start(1);
    world.run(milliseconds(500));
    EXPECT_THAT(world.masters(), ElementsAre(2));
}

TEST(Pair_start, two_at_once_agree_on_one)
{
    World world;
    world.start(1);
    world.start(2);
    world.run(milliseconds(500));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(world.unit(2).pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(world.unit(2).take_events().substr(0, 1), "R");
}

TEST(Pair_start, a_member_that_never_says_what_it_is_is_not_waited_for)
{
    World world;
    world.start(1);
    world.start(2);
    world.stop(2);
    EXPECT_TRUE(world.run_until([&] { return !world.masters().empty(); }, milliseconds(3000)));
    EXPECT_EQ(world.unit(1).shown("Peer"), "node 2, says nothing");
}

TEST(Pair_start, a_client_that_registers_later_is_told_that_roles_are_known)
{
    World world;
    world.start(1);
    world.run(milliseconds(200));
    world.unit(1).take_events();
    EXPECT_TRUE(world.unit(1).pair->add_client("later", 1));
    world.run(milliseconds(50));
    EXPECT_EQ(world.unit(1).take_events(), "R");
}

TEST(Pair_start, more_clients_than_a_unit_can_have_are_refused)
{
    World world;
    world.start(1);
    for (std::size_t n = 1; n < platform::CLIENTS_MAX; ++n)
        EXPECT_TRUE(world.unit(1).pair->add_client("client" + std::to_string(n), 1));
    EXPECT_FALSE(world.unit(1).pair->add_client("one more", 1));
}

// ---- Takeover -----------------------------------------------------------------------------------------------------

TEST_F(Pair_takeover, when_the_masters_process_ends)
{
    world.kill(1);
    world.run(milliseconds(100));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.take_events(), "FSE") << "fast switch-over, switch-over, end";
    EXPECT_EQ(two.pair->state(), RDND_STAT_ALONE);
    EXPECT_THAT(two.shown("Last switchover"),
                HasSubstr("became the active one: the agent of node 1 (unit1) ended"));
}

TEST_F(Pair_takeover, the_one_that_returns_becomes_standby_although_its_number_is_lower)
{
    world.kill(1);
    world.run(milliseconds(300));
    two.take_events();
    world.start(1);
    world.run(milliseconds(3000));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(one.take_events(), "RV");
    EXPECT_EQ(two.take_events(), "VB") << "a version check and a batch, no change of roles";
}

TEST_F(Pair_takeover, waits_until_the_client_has_stopped_its_old_role)
{
    two.acknowledges = false;
    world.kill(1);
    world.run(milliseconds(900));
    EXPECT_EQ(two.take_events(), "FS");
    EXPECT_THAT(world.masters(), IsEmpty());
    EXPECT_EQ(two.pair->state(), RDND_STAT_SWITCHOVER);
    two.pair->completed(CLIENT, RDND_NOTIFY_SWITCHOVER);
    world.run(milliseconds(50));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.take_events(), "E");
}

TEST_F(Pair_takeover, does_not_wait_for_ever)
{
    two.acknowledges = false;
    world.kill(1);
    world.run(milliseconds(1500));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.take_events(), "FSE");
}

TEST_F(Pair_takeover, with_three_units_the_oldest_standby_takes_over_and_the_next_moves_up)
{
    World three(3);
    for (std::uint32_t node = 1; node <= 3; ++node) {
        three.start(node);
        three.run(milliseconds(1000));
    }
    EXPECT_THAT(three.masters(), ElementsAre(1));
    EXPECT_EQ(three.unit(2).pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(three.unit(3).pair->role(), RDND_ROLE_CANDIDATE);
    three.unit(1).count(5, 50);
    three.run(milliseconds(100));
    EXPECT_EQ(three.unit(2).cache[5], 50U);
    EXPECT_EQ(three.unit(3).cache.count(5), 0U);
    EXPECT_EQ(three.unit(3).shown("Messages refused"), "0") << "what is meant for the standby is no offence";
    three.kill(1);
    three.run(milliseconds(1000));
    EXPECT_THAT(three.masters(), ElementsAre(2));
    EXPECT_EQ(three.unit(3).pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(three.unit(3).cache[5], 50U);
}

// ---- Quorum -------------------------------------------------------------------------------------------------------

TEST_F(Pair_quorum, a_master_that_loses_it_stops_and_the_clients_are_told)
{
    world.set_quorum_rule(nobody_has_quorum);
    world.run(milliseconds(50));
    EXPECT_THAT(world.masters(), IsEmpty());
    EXPECT_EQ(one.take_events(), "SE");
    EXPECT_EQ(one.pair->role(), RDND_ROLE_CANDIDATE);
    EXPECT_EQ(two.pair->role(), RDND_ROLE_CANDIDATE);
    EXPECT_THAT(one.shown("Last switchover"), HasSubstr("stopped being the active one: no quorum"));
    world.run(milliseconds(10000));
    EXPECT_THAT(world.masters(), IsEmpty());
    world.set_quorum_rule(every_part_has_quorum);
    world.run(milliseconds(500));
    EXPECT_EQ(world.masters().size(), 1U);
}

TEST_F(Pair_quorum, is_not_assumed_from_before_a_node_was_lost)
{
    // The group tells that node 1 is gone, the quorum's answer does not come.
    two.pair->view({.members = {two.id}, .left = {{one.id, GroupView::Cause::node_down}}, .joined = {}});
    one.part = 7;
    world.run(milliseconds(5000));
    EXPECT_NE(two.pair->role(), RDND_ROLE_MASTER);
    EXPECT_EQ(two.shown("Quorum"), "no");
    const std::uint32_t nodes[] = {2};
    two.pair->quorum(true, nodes);
    world.run(milliseconds(500));
    EXPECT_EQ(two.pair->role(), RDND_ROLE_MASTER);
}

TEST_F(Pair_quorum, a_master_waits_a_moment_for_the_answer_after_a_node_was_lost)
{
    one.pair->view({.members = {one.id}, .left = {{two.id, GroupView::Cause::node_down}}, .joined = {}});
    two.part = 7;
    world.run(milliseconds(500));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_MASTER);
    EXPECT_EQ(one.shown("Quorum"), "not known");
    const std::uint32_t nodes[] = {1};
    one.pair->quorum(true, nodes);
    world.run(milliseconds(5000));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_MASTER);
    EXPECT_EQ(one.take_events(), "") << "nothing has changed for its clients";
}

TEST_F(Pair_quorum, a_master_that_gets_no_answer_stops)
{
    one.pair->view({.members = {one.id}, .left = {{two.id, GroupView::Cause::node_down}}, .joined = {}});
    two.part = 7;
    world.run(milliseconds(1200));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_CANDIDATE);
}

TEST_F(Pair_quorum, an_ended_process_is_no_lost_node)
{
    two.pair->view({.members = {two.id}, .left = {{one.id, GroupView::Cause::process_ended}}, .joined = {}});
    one.part = 7;
    world.run(milliseconds(100));
    EXPECT_EQ(two.pair->role(), RDND_ROLE_MASTER);
}

// ---- Signs of life ------------------------------------------------------------------------------------------------

TEST_F(Pair_life, a_master_that_stands_still_is_replaced_and_is_none_when_it_wakes_up)
{
    world.stop(1);
    ASSERT_TRUE(world.run_until([&] { return two.is_master(); }, milliseconds(3000)));
    EXPECT_EQ(two.take_events(), "FSE");
    EXPECT_THAT(two.shown("Last switchover"), HasSubstr("no sign of life from node 1 (unit1)"));
    world.run(milliseconds(5000));
    world.resume(1);
    world.run(milliseconds(3000));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_THAT(one.shown("Last switchover"), HasSubstr("stood still for"));
    EXPECT_EQ(one.take_events().substr(0, 2), "SE");
}

TEST_F(Pair_life, a_master_is_none_before_another_one_takes_over)
{
    // World::check_always() holds at every step: the lease of a unit that does not run ends first.
    for (int round = 0; round < 20; ++round) {
        const std::uint32_t master = world.masters().at(0);
        world.run(milliseconds(10 * round));
        world.stop(master);
        ASSERT_TRUE(world.run_until([&] { return world.unit(3 - master).is_master(); }));
        world.resume(master);
        world.run(milliseconds(2000));
        ASSERT_THAT(world.masters(), ElementsAre(3 - master));
    }
}

TEST(Lease, holds_until_its_end_and_tells_that_it_was_over)
{
    platform::PairTime now{};
    platform::Lease lease(milliseconds(100), [&] { return now; });
    now += milliseconds(500);
    lease.begin(now);
    now += milliseconds(100);
    EXPECT_TRUE(lease.holds());
    EXPECT_LE(lease.take_gap().count(), 0);
    now += milliseconds(5);
    EXPECT_FALSE(lease.holds());
    EXPECT_EQ(lease.take_gap(), milliseconds(5));
    lease.renew(now);
    EXPECT_EQ(lease.take_gap(), milliseconds(5));
    EXPECT_TRUE(lease.holds());
    EXPECT_LE(lease.take_gap().count(), 0);
}

// The answer was asked for in time and came late: what others saw in between has happened.
TEST(Lease, an_end_that_somebody_can_have_seen_is_told_although_it_was_renewed)
{
    platform::PairTime now{};
    platform::Lease lease(milliseconds(100), [&] { return now; });
    lease.begin(now);
    const auto asked = now + milliseconds(90);
    now += milliseconds(110);
    EXPECT_FALSE(lease.holds());
    lease.renew(asked);
    EXPECT_TRUE(lease.holds());
    EXPECT_EQ(lease.take_gap(), milliseconds(10));
    EXPECT_LE(lease.take_gap().count(), 0);
}

TEST_F(Pair_life, operators_are_shown_the_role_that_clients_are_told)
{
    const auto lines = one.pair->report(RDND_ROLE_CANDIDATE);
    EXPECT_EQ(lines.at(0).heading, "Role");
    EXPECT_EQ(lines.at(0).value, "candidate");
}

TEST_F(Pair_life, a_short_pause_changes_nothing)
{
    world.stop(1);
    world.run(milliseconds(900));
    world.resume(1);
    world.run(milliseconds(2000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(one.take_events() + two.take_events(), "");
}

TEST_F(Pair_life, a_pause_beyond_the_lease_alone_lets_the_master_go_on_after_asking_the_group)
{
    world.stop(1);
    world.run(milliseconds(1100));
    EXPECT_THAT(world.masters(), IsEmpty());
    world.resume(1);
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(one.take_events(), "SEFSEVB") << "demoted, elected again, the standby brought up to date";
}

TEST_F(Pair_life, nobody_is_deposed_while_the_group_itself_stands_still)
{
    one.blocked = two.blocked = true;
    world.run(milliseconds(10000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    one.blocked = two.blocked = false;
    world.run(milliseconds(5000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(one.shown("Last switchover").find("stopped"), std::string::npos);
}

TEST_F(Pair_life, a_standby_that_stands_still_is_no_partner_for_a_switchover)
{
    world.stop(2);
    world.run(milliseconds(3000));
    EXPECT_EQ(one.shown("Peer"), "node 2 (unit2), no sign of life");
    EXPECT_EQ(one.pair->force_switchover(), "there is no standby");
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
}

// ---- Splits and merges --------------------------------------------------------------------------------------------

TEST_F(Pair_split, with_a_third_vote_never_makes_two_masters)
{
    for (const int winner : {0, 1}) {
        world.set_quorum_rule(third_vote_decides);
        world.third_vote = winner;
        world.split();
        world.run(milliseconds(100));
        EXPECT_THAT(world.masters(), ElementsAre(winner + 1));
        world.run(milliseconds(3000));
        EXPECT_THAT(world.masters(), ElementsAre(winner + 1));
        world.merge();
        world.run(milliseconds(3000));
        EXPECT_THAT(world.masters(), ElementsAre(winner + 1)) << "the one that comes back is the standby";
        EXPECT_EQ(world.unit(2 - winner).pair->role(), RDND_ROLE_SLAVE);
    }
}

TEST_F(Pair_split, with_quorum_on_both_sides_makes_two_masters_and_the_merge_one)
{
    world.split();
    world.run(milliseconds(2000));
    EXPECT_THAT(world.masters(), ElementsAre(1, 2));
    EXPECT_EQ(two.take_events(), "FSE");
    EXPECT_EQ(one.take_events(), "");
    world.two_masters_allowed = milliseconds(1000);
    world.merge();
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(1)) << "it has been master for longer";
    EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(two.take_events().substr(0, 2), "SE");
    EXPECT_THAT(two.shown("Last switchover"), HasSubstr("node 1 (unit1) is the active unit"));
}

TEST_F(Pair_split, the_longer_in_office_stays_whatever_its_number)
{
    world.kill(1);
    world.run(milliseconds(3000));
    world.start(1);
    world.run(milliseconds(3000));
    ASSERT_THAT(world.masters(), ElementsAre(2));
    world.split();
    world.run(milliseconds(1000));
    world.two_masters_allowed = milliseconds(1000);
    world.merge();
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(2));
}

TEST_F(Pair_split, the_one_that_stays_goes_on_whoever_is_heard_first)
{
    for (const std::uint32_t late : {1U, 2U}) {
        world.unit(late).latency = milliseconds(50);
        world.split();
        world.run(milliseconds(2000));
        ASSERT_THAT(world.masters(), ElementsAre(1, 2));
        one.take_events();
        world.two_masters_allowed = milliseconds(1000);
        world.merge();
        world.run(milliseconds(1000));
        EXPECT_THAT(world.masters(), ElementsAre(1)) << "it has been master for longer";
        EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE);
        EXPECT_EQ(one.take_events().find('S'), std::string::npos) << "its clients stop nothing";
        world.unit(late).latency = {};
    }
}

TEST_F(Pair_split, masters_of_nearly_the_same_age_agree_on_one)
{
    world.set_quorum_rule(nobody_has_quorum);
    world.run(milliseconds(100));
    ASSERT_TRUE(world.masters().empty());
    two.latency = milliseconds(70);
    world.split();
    world.set_quorum_rule(every_part_has_quorum);
    world.run(milliseconds(3000));
    ASSERT_THAT(world.masters(), ElementsAre(1, 2)) << "within a few heartbeats of each other";
    one.take_events();
    two.take_events();
    world.two_masters_allowed = milliseconds(1000);
    world.merge();
    world.run(milliseconds(2000));
    ASSERT_EQ(world.masters().size(), 1U);
    Unit &stays = world.unit(world.masters().front());
    EXPECT_FALSE(stays.logged("stopped being the active one: node"));
}

TEST_F(Pair_split, both_keep_the_higher_counters)
{
    one.count(1, 100);
    one.count(2, 200);
    world.run(milliseconds(100));
    world.split();
    world.run(milliseconds(500));
    one.count(1, 5);
    two.count(2, 7);
    two.count(3, 9);
    two.count(1, 1);
    world.two_masters_allowed = milliseconds(1000);
    world.merge();
    world.run(milliseconds(3000));
    const std::map<std::uint32_t, std::uint64_t> expected{{1, 105}, {2, 207}, {3, 9}};
    EXPECT_EQ(one.cache, expected);
    EXPECT_EQ(two.cache, expected);
    EXPECT_EQ(one.shown("Messages refused"), "0");
    EXPECT_EQ(two.shown("Messages refused"), "0");
}

TEST_F(Pair_split, what_a_master_counted_before_it_lost_quorum_is_not_lost)
{
    world.set_quorum_rule(third_vote_decides);
    world.third_vote = 1;
    one.count(4, 40);
    world.run(milliseconds(100));
    one.part = 5; // its link is cut: what it counts now reaches nobody
    one.count(4, 2);
    world.run(milliseconds(200));
    world.split();
    world.run(milliseconds(1000));
    ASSERT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.cache[4], 40U);
    world.merge();
    world.run(milliseconds(3000));
    ASSERT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.cache[4], 42U);
    EXPECT_EQ(one.cache[4], 42U);
}

// ---- Forced switch-over -------------------------------------------------------------------------------------------

TEST_F(Pair_force_switchover, tells_both_sides_and_never_has_two_masters)
{
    one.count(3, 30);
    EXPECT_EQ(one.pair->force_switchover(), "");
    world.run(milliseconds(500));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(one.take_events(), "WSEV") << "the old master's standby is judged anew";
    EXPECT_EQ(two.take_events(), "WSEVB");
    EXPECT_EQ(two.cache[3], 30U) << "what was counted before has arrived";
    EXPECT_THAT(one.shown("Last switchover"),
                HasSubstr("handed over to node 2 (unit2): an operator's command"));
    EXPECT_THAT(two.shown("Last switchover"),
                HasSubstr("became the active one: an operator's command at node 1"));
}

TEST_F(Pair_force_switchover, works_back_and_forth)
{
    for (int round = 0; round < 10; ++round) {
        const std::uint32_t master = world.masters().at(0);
        world.unit(master).count(9, 1);
        ASSERT_EQ(world.unit(master).pair->force_switchover(), "");
        ASSERT_TRUE(world.run_until([&] {
            return world.unit(3 - master).is_master() &&
                   world.unit(master).pair->state() == RDND_STAT_REALTIME;
        }));
        EXPECT_EQ(world.unit(3 - master).cache[9], static_cast<std::uint64_t>(round) + 1);
    }
}

TEST_F(Pair_force_switchover, sends_the_yield_behind_everything_that_was_counted)
{
    one.acknowledges = false;
    EXPECT_EQ(one.pair->force_switchover(), "");
    world.run(milliseconds(100));
    EXPECT_THAT(world.masters(), ElementsAre(1)) << "until its clients have stopped";
    for (std::uint32_t ifx = 100; ifx < 300; ++ifx)
        one.count(ifx, ifx);
    one.pair->completed(CLIENT, RDND_NOTIFY_SWITCHOVER);
    EXPECT_THAT(world.masters(), IsEmpty());
    one.count(400, 1);
    world.run(milliseconds(500));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(two.cache[299], 299U);
    EXPECT_EQ(two.cache.count(400), 0U) << "counted by a unit that was none any more";
}

TEST_F(Pair_force_switchover, gives_up_waiting_for_clients)
{
    one.acknowledges = false;
    EXPECT_EQ(one.pair->force_switchover(), "");
    world.run(milliseconds(4000));
    EXPECT_THAT(world.masters(), ElementsAre(2));
}

TEST_F(Pair_force_switchover, is_refused_with_the_reason)
{
    EXPECT_EQ(two.pair->force_switchover(), "this unit is not the active one");
    one.acknowledges = false;
    EXPECT_EQ(one.pair->force_switchover(), "");
    EXPECT_EQ(one.pair->force_switchover(), "the roles are changing already");
    world.run(milliseconds(5000));
    world.kill(1);
    world.run(milliseconds(100));
    EXPECT_EQ(two.pair->force_switchover(), "there is no standby");
    two.handles = false;
    world.start(1);
    world.run(milliseconds(1000));
    EXPECT_EQ(two.pair->force_switchover(), "") << "a standby that exchanges nothing is better than none";
}

TEST_F(Pair_force_switchover, waits_for_a_standby_that_is_being_brought_up_to_date)
{
    world.kill(2);
    world.run(milliseconds(100));
    one.handles = false;
    world.start(2);
    world.run(milliseconds(300));
    one.pair->handled(CLIENT, RDND_E_VERSION_CHECK, RDND_VERCHK_PASS);
    EXPECT_EQ(one.pair->force_switchover(), "the standby is not up to date yet");
}

TEST_F(Pair_force_switchover, to_a_unit_that_dies_meanwhile_leaves_the_old_master_in_office)
{
    one.acknowledges = false;
    EXPECT_EQ(one.pair->force_switchover(), "");
    world.run(milliseconds(100));
    world.kill(2);
    world.run(milliseconds(5000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
}

// ---- The cluster engine -------------------------------------------------------------------------------------------

TEST_F(Pair_engine, without_it_a_master_stops_at_once_and_comes_back_as_standby)
{
    world.kill_engine(1);
    EXPECT_THAT(world.masters(), IsEmpty());
    EXPECT_EQ(one.shown("This unit"), "not in the group");
    EXPECT_EQ(one.shown("Quorum"), "no");
    world.run(milliseconds(500));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(one.take_events(), "SE");
    EXPECT_THAT(one.shown("Last switchover"), HasSubstr("corosync has ended"));
    world.start_engine(1);
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(2));
    EXPECT_EQ(one.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
}

TEST_F(Pair_engine, of_the_standby_may_end_without_the_masters_clients_noticing)
{
    world.kill_engine(2);
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(two.pair->role(), RDND_ROLE_CANDIDATE);
    world.start_engine(2);
    world.run(milliseconds(1000));
    EXPECT_EQ(one.take_events(), "VB");
    EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE);
}
