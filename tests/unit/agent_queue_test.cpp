// The event queue between its real producer and its consumer: admission, loss and delivery.
#include "agent_doubles.h"

#include <cerrno>
#include <thread>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Admission : public agent_test
{
protected:
    ~Admission() override
    {
        sflow_msg_lock();
        sflow_agent.msg_list_len = SFLOW_MSG_LIST_MAX + 1;
        while (sflow_msg_t *node = sflow_get_msg())
            sflow_free_msg(node);
        sflow_msg_unlock();
    }

    static int enqueue(IFINDEX ifx, int type = SFLOW_MSG_GET_COUNTER_RSP)
    {
        sflow_counter_ret_t report = {};
        report.ifx = ifx;
        report.generic.ifInOctets = ifx * 10U;
        report.ether.dot3StatsFCSErrors = ifx;
        return sflow_pi_counter_msg_enqueue(&report, type);
    }
    static int length()
    {
        sflow_msg_lock();
        const int len = sflow_agent.msg_list_len;
        sflow_msg_unlock();
        return len;
    }
    static void fill()
    {
        for (IFINDEX ifx = 1; ifx <= 8192; ifx++)
            ASSERT_EQ(enqueue(ifx), 0) << ifx;
    }
};

TEST_F(Admission, accepts_the_8192nd_event_and_drops_and_counts_the_8193rd)
{
    fill();
    EXPECT_EQ(length(), 8192);
    EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 8192U);
    EXPECT_EQ(sflow_statis.sflow_drop_counter_num, 0U);

    EXPECT_EQ(enqueue(9000), -1);
    EXPECT_EQ(enqueue(9001), -1);
    EXPECT_EQ(length(), 8192);
    EXPECT_EQ(sflow_statis.sflow_drop_counter_num, 2U);
    EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 8192U);
}

TEST_F(Admission, drops_the_newest_and_has_room_again_after_one_is_taken)
{
    fill();
    EXPECT_EQ(enqueue(9000), -1);
    sflow_msg_lock();
    sflow_msg_t *oldest = sflow_get_msg();
    sflow_msg_unlock();
    ASSERT_NE(oldest, nullptr);
    EXPECT_EQ(oldest->ifx, 1U);
    sflow_free_msg(oldest);
    EXPECT_EQ(enqueue(9001), 0);
    EXPECT_EQ(enqueue(9002), -1);
}

TEST_F(Admission, copies_the_report)
{
    ASSERT_EQ(enqueue(7, SFLOW_MSG_UPDATE_COUNTER), 0);
    sflow_msg_lock();
    sflow_msg_t *node = sflow_get_msg();
    sflow_msg_unlock();
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->ifx, 7U);
    EXPECT_EQ(node->type, SFLOW_MSG_UPDATE_COUNTER);
    const auto *payload = static_cast<const sflow_msg_counter_t *>(node->msg);
    EXPECT_EQ(payload->generic_counter.ifInOctets, 70U);
    EXPECT_EQ(payload->ether_counter.dot3StatsFCSErrors, 7U);
    sflow_free_msg(node);
}

class Admission_memory : public Admission, public ::testing::WithParamInterface<int>
{
};

TEST_P(Admission_memory, shortage_is_counted_and_leaves_the_length_one_too_high)
{
    ASSERT_EQ(enqueue(1), 0);
    fail("calloc", ENOMEM, GetParam());
    EXPECT_EQ(enqueue(2), -1);
    EXPECT_EQ(sflow_statis.sflow_malloc_fail_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 1U);
    EXPECT_EQ(length(), 2);

    sflow_msg_dispatch();
    EXPECT_EQ(length(), 1) << "the dispatcher is safe with it";
    EXPECT_EQ(enqueue(3), 0);
}

INSTANTIATE_TEST_SUITE_P(Allocations, Admission_memory, ::testing::Values(0, 1));

TEST_F(Admission, wakes_the_waiting_dispatcher)
{
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_add_intf_config(5);
    intf->cid = 1;
    sflow_agent.agent_ip.type = SFLOW_ADDRESS_TYPE_IPV4;
    sflow_config_wrunlock();

    std::thread dispatcher([] {
        while (calls_of("countersample").empty())
            sflow_msg_dispatch();
    });
    ASSERT_EQ(enqueue(5), 0);
    dispatcher.join();
    EXPECT_EQ(calls_of("countersample"), strings{"countersample(5)"});
    EXPECT_EQ(length(), 0);
}

} // namespace
