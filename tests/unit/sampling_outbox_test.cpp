#include "outbox.h"

#include "sampling_fakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using testing::ElementsAre;

struct Box {
    SocketPair pair;
    Outbox box;

    Box() { box.reset(pair.service.get()); }

    Outbox::State sample(std::uint32_t pool)
    {
        sflow_flow_spl_t &record = box.next_sample();
        record = {};
        record.head = head_of<sflow_flow_spl_t>(SFLOW_CMD_FLOW_SAMPLING);
        record.info.sample_pool = pool;
        return box.commit_sample();
    }

    void answer(IFINDEX ifx)
    {
        sflow_ifx_is_conf_t request = {};
        request.ifx = ifx;
        const sflow_ifx_is_conf_ret_t record = answer_to(request, Answer::ok);
        box.add_answer(bytes_of(record));
    }

    /// Shrinks the socket and fills it, so that the next send is refused.
    void fill()
    {
        const int least = 1;
        ::setsockopt(pair.service.get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof(least));
        const std::array<std::byte, 900> filler = {};
        while (::send(pair.service.get(), filler.data(), filler.size(), MSG_DONTWAIT) > 0)
            ++fillers;
    }

    /// Reads what fill() wrote.
    void drain()
    {
        for (; fillers > 0; --fillers)
            ASSERT_EQ(pair.receive().size(), 900U);
    }

    int fillers = 0;
};

TEST(Outbox_commit_sample, three_samples_make_a_packet)
{
    Box b;
    EXPECT_EQ(b.sample(1), Outbox::State::clear);
    EXPECT_EQ(b.sample(2), Outbox::State::clear);
    EXPECT_TRUE(b.pair.receive().empty());
    EXPECT_EQ(b.sample(3), Outbox::State::clear);
    EXPECT_EQ(b.pair.receive().size(), 3 * sizeof(sflow_flow_spl_t));
    EXPECT_EQ(b.box.statistics().packets, 1U);
    EXPECT_EQ(b.box.statistics().samples, 3U);
}

TEST(Outbox_flush, sends_a_packet_that_is_not_full)
{
    Box b;
    ASSERT_EQ(b.sample(1), Outbox::State::clear);
    EXPECT_EQ(b.box.flush(), Outbox::State::clear);
    EXPECT_EQ(b.pair.receive().size(), sizeof(sflow_flow_spl_t));
    EXPECT_EQ(b.box.flush(), Outbox::State::clear);
    EXPECT_TRUE(b.pair.receive().empty());
}

TEST(Outbox_flush, answers_go_ahead_of_samples)
{
    Box b;
    ASSERT_EQ(b.sample(1), Outbox::State::clear);
    b.answer(4);
    ASSERT_EQ(b.box.flush(), Outbox::State::clear);
    const auto records = receive_all(b.pair);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].type, 517U);
    EXPECT_EQ(records[1].type, 515U);
}

TEST(Outbox_add_answer, answers_share_packets_of_at_most_1000_bytes_in_order)
{
    Box b;
    for (IFINDEX ifx = 1; ifx <= 100; ++ifx)
        b.answer(ifx);
    EXPECT_EQ(b.box.waiting_answers(), 3U); // 41 of 24 bytes fit
    ASSERT_EQ(b.box.flush(), Outbox::State::clear);
    const auto records = receive_all(b.pair);
    ASSERT_EQ(records.size(), 100U);
    for (IFINDEX ifx = 1; ifx <= 100; ++ifx)
        EXPECT_EQ(records[ifx - 1].as<sflow_ifx_is_conf_ret_t>().ifx, ifx);
}

TEST(Outbox_commit_sample, a_full_socket_keeps_the_packet_until_it_takes_more)
{
    Box b;
    b.fill();
    ASSERT_EQ(b.sample(1), Outbox::State::clear);
    ASSERT_EQ(b.sample(2), Outbox::State::clear);
    EXPECT_EQ(b.sample(3), Outbox::State::blocked);
    EXPECT_TRUE(b.box.blocked());
    EXPECT_EQ(b.box.flush(), Outbox::State::blocked);
    b.drain();
    EXPECT_EQ(b.box.flush(), Outbox::State::clear);
    EXPECT_FALSE(b.box.blocked());
    const auto records = receive_all(b.pair);
    ASSERT_EQ(records.size(), 3U);
    for (std::uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(records[i].as<sflow_flow_spl_t>().info.sample_pool, i + 1);
}

TEST(Outbox_add_answer, none_is_lost_while_the_socket_is_full)
{
    Box b;
    b.fill();
    for (IFINDEX ifx = 1; ifx <= 500; ++ifx)
        b.answer(ifx);
    EXPECT_EQ(b.box.flush(), Outbox::State::blocked);
    b.drain();
    std::vector<ReceivedRecord> records;
    while (b.box.flush() == Outbox::State::blocked) {
        const auto some = receive_all(b.pair);
        records.insert(records.end(), some.begin(), some.end());
    }
    const auto rest = receive_all(b.pair);
    records.insert(records.end(), rest.begin(), rest.end());
    ASSERT_EQ(records.size(), 500U);
    for (IFINDEX ifx = 1; ifx <= 500; ++ifx)
        EXPECT_EQ(records[ifx - 1].as<sflow_ifx_is_conf_ret_t>().ifx, ifx);
}

TEST(Outbox_commit_sample, a_sample_has_room_while_answers_block)
{
    Box b;
    b.fill();
    b.answer(1);
    ASSERT_EQ(b.box.flush(), Outbox::State::blocked);
    EXPECT_EQ(b.sample(7), Outbox::State::blocked);
    b.drain();
    ASSERT_EQ(b.box.flush(), Outbox::State::clear);
    const auto records = receive_all(b.pair);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[1].as<sflow_flow_spl_t>().info.sample_pool, 7U);
}

TEST(Outbox_flush, the_daemons_end_breaks_the_connection)
{
    Box b;
    b.pair.daemon.reset();
    b.answer(1);
    EXPECT_EQ(b.box.flush(), Outbox::State::broken);
}

TEST(Outbox_reset, discards_everything_that_waits)
{
    Box b;
    ASSERT_EQ(b.sample(1), Outbox::State::clear);
    b.answer(1);
    b.box.reset(b.pair.service.get());
    EXPECT_EQ(b.box.flush(), Outbox::State::clear);
    EXPECT_TRUE(b.pair.receive().empty());
}

TEST(Outbox_add_answer, without_a_connection_nothing_is_kept)
{
    Box b;
    b.box.reset(-1);
    b.answer(1);
    EXPECT_EQ(b.box.waiting_answers(), 0U);
    EXPECT_EQ(b.box.flush(), Outbox::State::clear);
}

} // namespace
} // namespace sampling
