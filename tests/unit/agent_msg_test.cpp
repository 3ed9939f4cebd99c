// The event queue and its dispatcher, and the short road of flow samples.
#include "agent_doubles.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Queue : public agent_test
{
protected:
    ~Queue() override
    {
        sflow_msg_lock();
        sflow_agent.msg_list_len = 1000;
        while (sflow_msg_t *node = sflow_get_msg())
            sflow_free_msg(node);
        sflow_msg_unlock();
    }

    /// Appends an event as the producer does.
    static void queue(IFINDEX ifx, int type, bool payload = true)
    {
        auto *node = static_cast<sflow_msg_t *>(std::calloc(1, sizeof(sflow_msg_t)));
        node->ifx = ifx;
        node->type = static_cast<sflow_msg_type_t>(type);
        node->msg = payload ? std::calloc(1, sizeof(sflow_msg_counter_t)) : nullptr;
        sflow_msg_lock();
        sflow_list_insert_before(&sflow_agent.msg_list, &node->list);
        sflow_agent.msg_list_len++;
        sflow_msg_unlock();
    }

    static int length()
    {
        sflow_msg_lock();
        const int len = sflow_agent.msg_list_len;
        sflow_msg_unlock();
        return len;
    }

    static bool is_locked()
    {
        if (pthread_mutex_trylock(&sflow_agent.msg_lock.mutex) != 0)
            return true;
        pthread_mutex_unlock(&sflow_agent.msg_lock.mutex);
        return false;
    }
};

/// Takes one event off the queue and frees it: its interface, 0 for none.
IFINDEX take()
{
    sflow_msg_lock();
    sflow_msg_t *node = sflow_get_msg();
    sflow_msg_unlock();
    if (node == nullptr)
        return 0;
    const IFINDEX ifx = node->ifx;
    sflow_free_msg(node);
    return ifx;
}

TEST_F(Queue, is_first_in_first_out)
{
    queue(3, SFLOW_MSG_UPDATE_COUNTER);
    queue(1, SFLOW_MSG_UPDATE_COUNTER);
    queue(2, SFLOW_MSG_UPDATE_COUNTER);
    EXPECT_EQ(take(), 3U);
    EXPECT_EQ(length(), 2);
    EXPECT_EQ(take(), 1U);
    EXPECT_EQ(take(), 2U);
    EXPECT_EQ(take(), 0U);
    EXPECT_EQ(length(), 0);
}

TEST_F(Queue, gives_nothing_while_its_length_is_below_one)
{
    queue(3, SFLOW_MSG_UPDATE_COUNTER);
    sflow_msg_lock();
    sflow_agent.msg_list_len = 0;
    EXPECT_EQ(sflow_get_msg(), nullptr);
    sflow_agent.msg_list_len = 1;
    sflow_msg_unlock();
    EXPECT_EQ(take(), 3U);
}

TEST_F(Queue, whose_length_is_too_high_after_failed_allocations_is_still_empty)
{
    sflow_msg_lock();
    sflow_agent.msg_list_len = 2;
    EXPECT_EQ(sflow_get_msg(), nullptr);
    EXPECT_EQ(sflow_agent.msg_list_len, 2);
    sflow_msg_unlock();
}

class Dispatcher : public Queue
{
};

TEST_F(Dispatcher, applies_all_events_in_order_by_type)
{
    queue(5, SFLOW_MSG_UPDATE_COUNTER);
    queue(6, SFLOW_MSG_GET_COUNTER_RSP);
    queue(7, SFLOW_MSG_UPDATE_COUNTER);
    sflow_msg_dispatch();
    EXPECT_EQ(calls(),
              (strings{"update(5)", "forget_if_gone(5)", "export(6)", "update(7)", "forget_if_gone(7)"}));
    EXPECT_EQ(length(), 0);
    EXPECT_FALSE(is_locked());
}

TEST_F(Dispatcher, frees_events_of_other_types_without_applying_them)
{
    queue(5, SFLOW_MSG_FLOW_SAMPLING);
    queue(6, 99);
    queue(7, 0, false);
    sflow_msg_dispatch();
    EXPECT_EQ(calls(), strings{});
    EXPECT_EQ(length(), 0);
}

TEST_F(Dispatcher, logs_the_type_of_each_event_under_the_event_switch)
{
    sflow_debug_event = true;
    queue(5, SFLOW_MSG_UPDATE_COUNTER);
    queue(6, 99);
    sflow_msg_dispatch();
    EXPECT_EQ(fake::syslog_texts(), (strings{"[SFLOW-EVENT]msg type:2\n", "[SFLOW-EVENT]msg type:99\n"}));
    sflow_debug_event = false;
    queue(6, 99);
    sflow_msg_dispatch();
    EXPECT_EQ(fake::syslog_texts().size(), 2U);
}

TEST_F(Dispatcher, does_not_wait_while_events_are_queued)
{
    behaviour.cond_timedwait = [](const timespec *) {
        ADD_FAILURE() << "waited";
        return ETIMEDOUT;
    };
    queue(5, SFLOW_MSG_UPDATE_COUNTER);
    sflow_msg_dispatch();
    EXPECT_EQ(calls(), (strings{"update(5)", "forget_if_gone(5)"}));
}

TEST_F(Dispatcher, waits_30_seconds_of_the_monotonic_clock_with_the_lock_held)
{
    timespec before = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    timespec deadline = {};
    bool locked = false;
    behaviour.cond_timedwait = [&](const timespec *until) {
        deadline = *until;
        locked = is_locked();
        return ETIMEDOUT;
    };
    sflow_msg_dispatch();
    timespec after = {};
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto ns = [](const timespec &t) { return t.tv_sec * 1'000'000'000 + t.tv_nsec; };
    EXPECT_GE(ns(deadline), ns(before) + 30'000'000'000);
    EXPECT_LE(ns(deadline), ns(after) + 30'000'000'000);
    EXPECT_TRUE(locked);
    EXPECT_FALSE(is_locked());
    EXPECT_EQ(calls(), strings{});
}

class Dispatcher_wait : public Dispatcher, public ::testing::WithParamInterface<int>
{
};

TEST_P(Dispatcher_wait, that_ends_with_an_error_starts_over_without_looking_at_the_queue)
{
    behaviour.cond_timedwait = [](const timespec *) {
        pthread_mutex_unlock(&sflow_agent.msg_lock.mutex);
        queue(5, SFLOW_MSG_UPDATE_COUNTER);
        pthread_mutex_lock(&sflow_agent.msg_lock.mutex);
        return GetParam();
    };
    sflow_msg_dispatch();
    EXPECT_EQ(calls(), strings{});
    EXPECT_EQ(length(), 1);
    EXPECT_FALSE(is_locked());
    sflow_msg_dispatch();
    EXPECT_EQ(calls(), (strings{"update(5)", "forget_if_gone(5)"}));
}

INSTANTIATE_TEST_SUITE_P(Results, Dispatcher_wait, ::testing::Values(ETIMEDOUT, EINVAL));

TEST_F(Dispatcher, drains_the_queue_when_it_is_signalled)
{
    behaviour.cond_timedwait = [](const timespec *) {
        pthread_mutex_unlock(&sflow_agent.msg_lock.mutex);
        queue(5, SFLOW_MSG_UPDATE_COUNTER);
        queue(6, SFLOW_MSG_GET_COUNTER_RSP);
        pthread_mutex_lock(&sflow_agent.msg_lock.mutex);
        return 0;
    };
    sflow_msg_dispatch();
    EXPECT_EQ(calls(), (strings{"update(5)", "forget_if_gone(5)", "export(6)"}));
}

// ---- Flow samples ------------------------------------------------------------------------------------------------

class Flow_sample : public Queue
{
protected:
    static sflow_flow_info_t info()
    {
        sflow_flow_info_t info = {};
        info.source_id = 12;
        return info;
    }
};

TEST_F(Flow_sample, is_encoded_at_once_and_never_queued)
{
    sflow_debug_event = true;
    EXPECT_EQ(sflow_pi_flow_sampling("header", 6, info()), 0);
    EXPECT_EQ(calls(), strings{"flowsample(header, 12)"});
    EXPECT_EQ(length(), 0);
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-EVENT]sflow_pi_flow_sampling:write flow sample ok\n"});
    EXPECT_EQ(sflow_statis.sflow_recv_flow_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_drop_flow_num, 0U);
    EXPECT_FALSE(is_locked());
}

TEST_F(Flow_sample, that_is_refused_still_counts_as_handled_and_as_one_drop)
{
    sflow_debug_event = true;
    behaviour.sampler = -1;
    EXPECT_EQ(sflow_pi_flow_sampling("header", 6, info()), 0);
    EXPECT_EQ(sflow_statis.sflow_recv_flow_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_drop_flow_num, 1U);
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-EVENT]sflow_pi_flow_sampling:write flow sample fail\n"});
    EXPECT_FALSE(is_locked());
}

TEST_F(Flow_sample, without_a_buffer_is_minus_one_and_writes_nothing)
{
    sflow_debug_all = true;
    EXPECT_EQ(sflow_pi_flow_sampling(nullptr, 6, info()), -1);
    EXPECT_EQ(calls(), strings{});
    EXPECT_EQ(sflow_statis.sflow_drop_flow_num, 0U);
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-EVENT]sflow_pi_flow_sampling:buf == NULL\n"});
    EXPECT_FALSE(is_locked());
}

TEST_F(Flow_sample, is_silent_without_the_event_switch)
{
    sflow_debug_conf = true;
    sflow_pi_flow_sampling("header", 6, info());
    sflow_pi_flow_sampling(nullptr, 0, info());
    EXPECT_EQ(fake::syslog_texts(), strings{});
}

} // namespace
