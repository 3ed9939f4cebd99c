// Checkpoints of a pair: batches, single messages, versions, flow control, and what is refused.
#include "pair_world.h"

#include "redundancy/counter_merge.h"
#include "sflow_poller.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace pair_test;
using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using Cache = std::map<std::uint32_t, std::uint64_t>;

namespace
{

struct Pair_sync : testing::Test {
    void start_both()
    {
        world.start(1);
        world.run(milliseconds(500));
        world.start(2);
        world.run(milliseconds(500));
    }

    World world;
    Unit &one = world.unit(1);
    Unit &two = world.unit(2);
};
using Pair_version = Pair_sync;
using Pair_flow_control = Pair_sync;
using Pair_messages = Pair_sync;

Bytes encode(const Frame &frame)
{
    return encode_frame(frame);
}

} // namespace

// ---- Batch and single messages ------------------------------------------------------------------------------------

TEST_F(Pair_sync, a_joining_standby_gets_everything_and_then_every_change)
{
    world.start(1);
    world.run(milliseconds(500));
    one.cache = {{1, 10}, {2, 20}};
    world.start(2);
    world.run(milliseconds(500));
    EXPECT_EQ(two.cache, one.cache);
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
    EXPECT_EQ(two.pair->state(), RDND_STAT_REALTIME);
    one.count(2, 5);
    one.count(7, 70);
    one.remove(1);
    world.run(milliseconds(50));
    EXPECT_EQ(two.cache, (Cache{{2, 25}, {7, 70}}));
    EXPECT_EQ(one.shown("Checkpoints of SFLOW_RDND"), "5 sent, 0 received, 0 refused");
    EXPECT_EQ(two.shown("Checkpoints of SFLOW_RDND"), "0 sent, 5 received, 0 refused");
}

TEST_F(Pair_sync, without_a_standby_the_sender_is_told_to_stop)
{
    world.start(1);
    world.run(milliseconds(500));
    EXPECT_EQ(one.pair->enqueue(CLIENT, record(1, 1)), RDND_ENQUEUE_STOP);
    EXPECT_EQ(one.pair->enqueue("nobody", record(1, 1)), RDND_ENQUEUE_FAILED);
    EXPECT_EQ(one.pair->enqueue(CLIENT, Bytes(CHECKPOINT_MAX + 1)), RDND_ENQUEUE_FAILED);
    EXPECT_EQ(one.pair->enqueue(CLIENT, {}), RDND_ENQUEUE_FAILED);
}

TEST_F(Pair_sync, ends_with_the_standby)
{
    start_both();
    one.count(1, 1);
    EXPECT_TRUE(one.can_backup);
    world.kill(2);
    world.run(milliseconds(50));
    one.count(1, 1);
    EXPECT_FALSE(one.can_backup);
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
    world.start(2);
    world.run(milliseconds(500));
    EXPECT_EQ(two.cache, (Cache{{1, 2}}));
}

TEST_F(Pair_sync, the_standbys_own_changes_go_nowhere)
{
    start_both();
    two.can_backup = true;
    two.count(5, 5);
    EXPECT_FALSE(two.can_backup);
    world.run(milliseconds(100));
    EXPECT_EQ(one.cache, Cache());
}

TEST_F(Pair_sync, a_batch_that_the_client_does_not_complete_is_no_completed_one)
{
    world.start(1);
    world.run(milliseconds(500));
    one.handles = false;
    world.start(2);
    world.run(milliseconds(500));
    one.pair->handled(CLIENT, RDND_E_VERSION_CHECK, RDND_VERCHK_PASS);
    world.run(milliseconds(1000));
    EXPECT_EQ(one.pair->state(), RDND_STAT_BATCH);
    EXPECT_EQ(two.pair->state(), RDND_STAT_BATCH);
    one.handles = true;
    world.run(milliseconds(4000));
    EXPECT_EQ(two.pair->state(), RDND_STAT_REALTIME) << "the request is put again";
}

TEST_F(Pair_sync, clients_that_only_one_side_has_do_not_hold_up_the_others)
{
    world.start(1);
    EXPECT_TRUE(one.pair->add_client("other", 1));
    world.run(milliseconds(500));
    world.start(2);
    world.run(milliseconds(500));
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
    EXPECT_EQ(one.pair->enqueue("other", record(1, 1)), RDND_ENQUEUE_STOP);
}

TEST_F(Pair_sync, a_standby_that_falls_behind_asks_again_when_it_has_caught_up)
{
    start_both();
    two.handles = false;
    for (std::uint32_t n = 0; n < 20001; ++n)
        one.count(n % 100, 1);
    world.run(milliseconds(1000));
    EXPECT_EQ(two.pair->state(), RDND_STAT_BATCH);
    two.handles = true;
    world.run(milliseconds(1000));
    EXPECT_EQ(two.pair->state(), RDND_STAT_REALTIME);
    EXPECT_EQ(two.cache, one.cache);
}

TEST_F(Pair_sync, a_standby_that_was_taken_for_dead_is_brought_up_to_date_again)
{
    start_both();
    world.stop(2);
    world.run(milliseconds(3000));
    one.count(1, 1);
    EXPECT_FALSE(one.can_backup);
    world.resume(2);
    world.run(milliseconds(4000));
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
    EXPECT_EQ(two.cache, (Cache{{1, 1}}));
}

// ---- Versions -----------------------------------------------------------------------------------------------------

TEST_F(Pair_version, another_one_exchanges_nothing_and_says_so)
{
    world.start(1);
    world.run(milliseconds(500));
    one.cache = {{1, 10}};
    two.version = 2;
    world.start(2);
    world.run(milliseconds(1000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE) << "it is the standby all the same: never two masters";
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
    EXPECT_EQ(two.cache, Cache());
    EXPECT_EQ(one.take_events(), "RV");
    EXPECT_EQ(two.take_events(), "RV");
    EXPECT_TRUE(one.logged("VERSION: node 2 (unit2) sends checkpoint messages of version 2 under SFLOW_RDND, "
                           "this unit of version 1: they are not exchanged"));
    EXPECT_TRUE(two.logged("VERSION: node 1 (unit1) sends checkpoint messages of version 1"));
    world.kill(1);
    world.run(milliseconds(200));
    EXPECT_THAT(world.masters(), ElementsAre(2));
}

TEST_F(Pair_version, is_asked_again_while_the_client_cannot_judge)
{
    world.start(1);
    world.run(milliseconds(500));
    one.handles = false;
    world.start(2);
    world.run(milliseconds(200));
    one.pair->handled(CLIENT, RDND_E_VERSION_CHECK, RDND_VERCHK_ERROR);
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
    one.handles = true;
    world.run(milliseconds(1500));
    EXPECT_EQ(one.take_events(), "RVVB");
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
}

TEST_F(Pair_version, an_answer_about_a_partner_that_is_gone_does_not_count)
{
    world.start(1);
    world.run(milliseconds(500));
    one.handles = false;
    world.start(2);
    world.run(milliseconds(200));
    world.kill(2);
    two.version = 2;
    world.start(2);
    world.run(milliseconds(500));
    one.pair->handled(CLIENT, RDND_E_VERSION_CHECK, RDND_VERCHK_PASS); // about the one before
    one.pair->handled(CLIENT, RDND_E_VERSION_CHECK, RDND_VERCHK_NG);
    world.run(milliseconds(500));
    EXPECT_EQ(one.pair->state(), RDND_STAT_ALONE);
}

// ---- Flow control -------------------------------------------------------------------------------------------------

TEST_F(Pair_flow_control, a_group_that_is_blocked_stops_the_client_and_gets_a_batch_afterwards)
{
    start_both();
    one.blocked = two.blocked = true;
    one.count(1, 1);
    world.run(milliseconds(500));
    one.count(1, 1);
    EXPECT_TRUE(one.can_backup) << "a moment is bridged";
    world.run(milliseconds(1000));
    one.count(1, 1);
    EXPECT_FALSE(one.can_backup);
    EXPECT_EQ(one.results[1], 1);
    one.count(1, 1);
    one.take_events();
    one.blocked = two.blocked = false;
    world.run(milliseconds(500));
    EXPECT_EQ(one.take_events(), "B") << "by itself";
    EXPECT_EQ(two.cache, (Cache{{1, 4}}));
    EXPECT_EQ(one.pair->state(), RDND_STAT_REALTIME);
}

TEST_F(Pair_flow_control, what_may_wait_is_limited)
{
    start_both();
    one.blocked = true;
    const Bytes large(CHECKPOINT_MAX);
    int taken = 0;
    while (one.pair->enqueue(CLIENT, large) == RDND_ENQUEUE_OK)
        ++taken;
    EXPECT_EQ(taken, static_cast<int>(OUTBOX_LIMIT / (CHECKPOINT_MAX + 24)));
    EXPECT_EQ(one.pair->enqueue(CLIENT, record(1, 1)), RDND_ENQUEUE_STOP) << "not before a batch";
}

TEST_F(Pair_flow_control, signs_of_life_pass_what_waits)
{
    start_both();
    for (std::uint32_t n = 0; n < 2000; ++n)
        one.count(n, 1);
    const Bytes first = *one.pair->next_frame();
    EXPECT_TRUE(std::holds_alternative<DataFrame>(std::get<Frame>(decode_frame(first))));
    world.unit(1).pair->tick();
    world.run(milliseconds(3000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(two.cache, one.cache);
}

// ---- Messages that are refused ------------------------------------------------------------------------------------

TEST_F(Pair_messages, of_no_member_are_refused)
{
    start_both();
    world.inject({.node = 1, .pid = 1}, encode(DataFrame{.name = CLIENT, .data = record(1, 1)}));
    world.run(milliseconds(50));
    EXPECT_EQ(two.cache, Cache());
    EXPECT_EQ(two.shown("Messages refused"), "1");
    EXPECT_TRUE(two.logged("MESSAGE: a message of node 1, process 1, was refused: it is not a member"));
}

TEST_F(Pair_messages, that_are_cut_short_or_too_long_are_refused_and_change_nothing)
{
    start_both();
    one.count(1, 10);
    world.run(milliseconds(50));
    const Bytes whole = encode(DataFrame{.name = CLIENT, .data = record(1, 99)});
    std::uint64_t refused = 0;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        world.inject(one.id, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        ++refused;
    }
    Bytes longer = whole;
    longer.push_back(std::byte{0});
    world.inject(one.id, longer);
    ++refused;
    world.run(milliseconds(50));
    EXPECT_EQ(two.cache, (Cache{{1, 10}}));
    EXPECT_EQ(two.shown("Messages refused"), std::to_string(refused));
    EXPECT_EQ(std::count_if(two.logs.begin(), two.logs.end(),
                            [](const std::string &line) { return line.find("MESSAGE") == 0; }),
              1)
        << "a flood does not fill the log";
    world.inject(one.id, whole);
    world.run(milliseconds(50));
    EXPECT_EQ(two.cache, (Cache{{1, 99}}));
}

TEST_F(Pair_messages, of_a_member_that_is_not_the_master_are_refused)
{
    World three(3);
    for (std::uint32_t node = 1; node <= 3; ++node) {
        three.start(node);
        three.run(milliseconds(1000));
    }
    Unit &standby = three.unit(2);
    const MemberId intruder = three.unit(3).id;
    const Frame frames[] = {
        DataFrame{.name = CLIENT, .data = record(1, 99)},
        BatchFrame{.mark = BatchFrame::Mark::begin, .batch = 1, .name = CLIENT},
        BatchFrame{.mark = BatchFrame::Mark::end, .batch = 1, .name = CLIENT},
        WillFrame{.to = standby.id},
        YieldFrame{.to = standby.id},
        YieldFrame{.to = intruder},
    };
    standby.take_events();
    for (const Frame &frame : frames)
        three.inject(intruder, encode(frame));
    three.run(milliseconds(100));
    EXPECT_EQ(standby.shown("Messages refused"), "6");
    EXPECT_EQ(standby.shown("Checkpoints of SFLOW_RDND"), "0 sent, 0 received, 1 refused");
    EXPECT_EQ(standby.take_events(), "");
    EXPECT_EQ(standby.cache, Cache());
    EXPECT_EQ(standby.pair->role(), RDND_ROLE_SLAVE);
    EXPECT_THAT(three.masters(), ElementsAre(1));
}

TEST_F(Pair_messages, requests_of_others_than_the_standby_start_no_batch)
{
    World three(3);
    for (std::uint32_t node = 1; node <= 3; ++node) {
        three.start(node);
        three.run(milliseconds(1000));
    }
    three.unit(1).take_events();
    three.inject(three.unit(3).id, encode(SyncRequestFrame{.batch = 1, .name = CLIENT}));
    three.inject(three.unit(2).id, encode(SyncRequestFrame{.batch = 1, .name = "unknown"}));
    three.run(milliseconds(100));
    EXPECT_EQ(three.unit(1).take_events(), "");
}

TEST_F(Pair_messages, claims_that_do_not_hold_change_nothing)
{
    start_both();
    const std::uint64_t view = 12345;
    for (const std::uint64_t term : {0UL, 1UL, 2UL, 3UL, 1UL << 62}) {
        world.inject(two.id, encode(ClaimFrame{.view = view, .term = term, .deposed = one.id}));
        world.inject(two.id, encode(ClaimFrame{.view = view, .term = term, .deposed = {}}));
    }
    world.run(milliseconds(2000));
    EXPECT_THAT(world.masters(), ElementsAre(1));
    EXPECT_EQ(two.pair->role(), RDND_ROLE_SLAVE);
}

TEST_F(Pair_messages, contributions_that_are_no_counters_are_refused)
{
    start_both();
    Bytes odd = record(1, 99);
    odd.push_back(std::byte{0});
    world.inject(two.id,
                 encode(DataFrame{.kind = DataFrame::Kind::contribution, .name = CLIENT, .data = odd}));
    world.inject(two.id,
                 encode(DataFrame{
                     .kind = DataFrame::Kind::contribution, .name = CLIENT, .data = record(1, 99, true)}));
    world.run(milliseconds(50));
    EXPECT_EQ(one.shown("Messages refused"), "2");
    EXPECT_EQ(one.cache, Cache());
}

TEST_F(Pair_messages, a_checkpoint_that_no_batch_was_asked_for_is_left_alone)
{
    world.start(1);
    world.run(milliseconds(500));
    one.handles = false;
    world.start(2);
    world.run(milliseconds(500));
    world.inject(one.id, encode(DataFrame{.name = CLIENT, .data = record(1, 99)}));
    world.run(milliseconds(50));
    EXPECT_EQ(two.cache, Cache());
}

// ---- Frames -------------------------------------------------------------------------------------------------------

namespace
{

const Frame frames[] = {
    StateFrame{.instance = 0x0102030405060708,
               .term = 77,
               .quorate = true,
               .holds = true,
               .role = RDND_ROLE_MASTER,
               .state = RDND_STAT_REALTIME,
               .age_ms = 123456789,
               .master_age_ms = 9,
               .host = "alpha",
               .clients = {{"SFLOW_RDND", 1}, {"SFLOW_CONFIG", 2}}},
    StateFrame{},
    ClaimFrame{.view = 0xffffffffffffffff, .term = 1, .deposed = {.node = 1, .pid = 2}},
    WillFrame{.to = {.node = 1, .pid = 2}},
    YieldFrame{.to = {.node = 3, .pid = 4}},
    SyncRequestFrame{.batch = 5, .name = "x"},
    BatchFrame{.mark = BatchFrame::Mark::contribution_end, .batch = 6, .name = "x"},
    DataFrame{.kind = DataFrame::Kind::contribution, .name = "x", .data = Bytes(CHECKPOINT_MAX)},
};

} // namespace

TEST(Pair_frame, every_kind_survives_the_wire)
{
    for (const Frame &frame : frames) {
        const auto decoded = decode_frame(encode_frame(frame));
        ASSERT_TRUE(std::holds_alternative<Frame>(decoded)) << frame.index();
        EXPECT_EQ(std::get<Frame>(decoded), frame) << frame.index();
    }
}

TEST(Pair_frame, every_truncation_and_every_extension_is_refused)
{
    for (const Frame &frame : frames) {
        Bytes bytes = encode_frame(frame);
        if (bytes.size() > 1000)
            continue;
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            const Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
            ASSERT_TRUE(std::holds_alternative<Refusal>(decode_frame(cut))) << frame.index() << " " << length;
        }
        bytes.push_back(std::byte{0});
        EXPECT_TRUE(std::holds_alternative<Refusal>(decode_frame(bytes)));
    }
}

TEST(Pair_frame, a_payload_cut_short_under_a_fitting_length_is_refused)
{
    for (const Frame &frame : frames) {
        const Bytes bytes = encode_frame(frame);
        if (bytes.size() > 1000 || std::holds_alternative<DataFrame>(frame))
            continue;
        for (std::size_t length = 12; length < bytes.size(); ++length) {
            Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
            cut[11] = static_cast<std::byte>(length - 12);
            ASSERT_TRUE(std::holds_alternative<Refusal>(decode_frame(cut))) << frame.index() << " " << length;
        }
    }
}

TEST(Pair_frame, values_out_of_range_are_refused)
{
    const struct {
        const char *name;
        Frame frame;
        std::size_t offset; ///< in the whole frame
        unsigned char value;
    } rows[] = {
        {"magic", WillFrame{}, 0, 'x'},
        {"kind", WillFrame{}, 4, 7},
        {"reserved bytes", WillFrame{}, 5, 1},
        {"role", StateFrame{}, 12 + 18, 5},
        {"state", StateFrame{}, 12 + 19, 5},
        {"flag", StateFrame{}, 12 + 16, 2},
        {"term", StateFrame{}, 12 + 8, 0x80},
        {"host", StateFrame{.host = "a"}, 12 + 37, '\n'},
        {"mark", BatchFrame{.name = "x"}, 12, 3},
        {"empty name", BatchFrame{.name = "x"}, 12 + 5, 0},
        {"blank in a name", SyncRequestFrame{.name = "x"}, 12 + 5, ' '},
        {"kind of data", DataFrame{.name = "x", .data = Bytes(1)}, 12, 2},
    };
    for (const auto &row : rows) {
        Bytes bytes = encode_frame(row.frame);
        ASSERT_TRUE(std::holds_alternative<Frame>(decode_frame(bytes))) << row.name;
        bytes.at(row.offset) = std::byte{row.value};
        EXPECT_TRUE(std::holds_alternative<Refusal>(decode_frame(bytes))) << row.name;
    }
    EXPECT_TRUE(std::holds_alternative<Refusal>(
        decode_frame(encode_frame(DataFrame{.name = "x", .data = Bytes(CHECKPOINT_MAX + 1)}))));
    EXPECT_TRUE(
        std::holds_alternative<Refusal>(decode_frame(encode_frame(DataFrame{.name = "x", .data = {}}))));
    EXPECT_TRUE(std::holds_alternative<Refusal>(
        decode_frame(encode_frame(SyncRequestFrame{.name = std::string(CLIENT_NAME_MAX + 1, 'x')}))));
}

// ---- Counters -----------------------------------------------------------------------------------------------------

TEST(Counter_merge, knows_the_agents_record)
{
    const CounterShape *shape = counter_shape(SFLOW_RDND_NAME);
    ASSERT_NE(shape, nullptr);
    EXPECT_EQ(shape->size, sizeof(rdnd_sflow_counter_t));
    EXPECT_EQ(shape->kind, offsetof(rdnd_sflow_counter_t, rdnd_type));
    EXPECT_EQ(shape->state, static_cast<std::uint32_t>(SFLOW_RDND_ADD_COUNTER));
    constexpr std::size_t node = offsetof(rdnd_sflow_counter_t, counter);
    constexpr std::size_t generic = node + offsetof(sflow_counter_node_t, generic);
    constexpr std::size_t ether = node + offsetof(sflow_counter_node_t, ether);
    EXPECT_EQ(shape->key, node + offsetof(sflow_counter_node_t, ifx));
    EXPECT_THAT(shape->counters64, ElementsAre(generic + offsetof(sflow_generic_counter_t, ifInOctets),
                                               generic + offsetof(sflow_generic_counter_t, ifOutOctets)));
    std::vector<std::size_t> counts;
    for (std::size_t at = offsetof(sflow_generic_counter_t, ifInUcastPkts);
         at < offsetof(sflow_generic_counter_t, ifOutOctets); at += 4)
        counts.push_back(generic + at);
    for (std::size_t at = offsetof(sflow_generic_counter_t, ifOutUcastPkts);
         at < offsetof(sflow_generic_counter_t, ifPromiscuousMode); at += 4)
        counts.push_back(generic + at);
    for (std::size_t at = 0; at < sizeof(sflow_ether_counter_t); at += 4)
        counts.push_back(ether + at);
    EXPECT_THAT(std::vector<std::size_t>(shape->counters32.begin(), shape->counters32.end()),
                testing::ElementsAreArray(counts));
    EXPECT_EQ(counter_shape("SFLOW_CONFIG"), nullptr);
}

TEST(Counter_merge, takes_the_higher_of_each_counter_and_leaves_the_rest)
{
    rdnd_sflow_counter_t one = {};
    one.rdnd_type = SFLOW_RDND_ADD_COUNTER;
    one.counter.ifx = 3;
    rdnd_sflow_counter_t other = one;
    one.counter.generic.ifInOctets = 10;
    other.counter.generic.ifInOctets = 9;
    one.counter.generic.ifOutErrors = 1;
    other.counter.generic.ifOutErrors = 0xffffffff;
    other.counter.ether.dot3StatsSymbolErrors = 4;
    other.counter.generic.ifSpeed = 99;
    const auto bytes = [](const rdnd_sflow_counter_t &r) { return std::as_bytes(std::span(&r, 1)); };
    const CounterShape &shape = *counter_shape(SFLOW_RDND_NAME);
    EXPECT_EQ(counter_key(shape, bytes(one)), 3U);
    const Bytes merged = higher_counters(shape, bytes(one), bytes(other));
    rdnd_sflow_counter_t result;
    ASSERT_EQ(merged.size(), sizeof(result));
    std::memcpy(&result, merged.data(), sizeof(result));
    EXPECT_EQ(result.counter.generic.ifInOctets, 10U);
    EXPECT_EQ(result.counter.generic.ifOutErrors, 0xffffffffU) << "not known stays not known";
    EXPECT_EQ(result.counter.ether.dot3StatsSymbolErrors, 4U);
    EXPECT_EQ(result.counter.generic.ifSpeed, 0U);
    one.rdnd_type = SFLOW_RDND_DEL_COUNTER;
    EXPECT_EQ(counter_key(shape, bytes(one)), std::nullopt);
}
