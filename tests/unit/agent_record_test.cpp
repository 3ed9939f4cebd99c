// The agent record: defaults, creation and undoing of the locks, the lock helpers.
#include "agent_doubles.h"

#include <cerrno>
#include <cstring>
#include <ctime>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Agent_record : public agent_test
{
protected:
    /// Undoes the fixture's own initialisation.
    Agent_record()
    {
        pthread_rwlock_destroy(&sflow_agent.config_lock.rwlock);
        pthread_mutex_destroy(&sflow_agent.msg_lock.mutex);
        pthread_cond_destroy(&sflow_agent.msg_send_ready);
        pthread_condattr_destroy(&sflow_agent.condattr);
        pthread_mutex_destroy(&sflow_agent.cli_lock.mutex);
        pthread_mutex_destroy(&familyid_lock);
        std::memset(&sflow_agent, 0x5a, sizeof(sflow_agent));
    }

    static int init()
    {
        capture_threads();
        return sflow_agent_init(&sflow_agent);
    }
};

bool is_zero(const void *object, size_t bytes)
{
    const std::string zeros(bytes, '\0');
    return std::memcmp(object, zeros.data(), bytes) == 0;
}

TEST_F(Agent_record, starts_with_the_defaults_and_nothing_configured)
{
    ASSERT_EQ(init(), 0);

    sflow_config_wrlock();
    EXPECT_TRUE(sflow_list_empty(&sflow_agent.intf_config));
    EXPECT_EQ(sflow_agent.g_config.samplingrate, 8192U);
    EXPECT_EQ(sflow_agent.g_config.maxhlen, 64U);
    EXPECT_EQ(sflow_agent.g_config.sslen, 64U);
    EXPECT_EQ(sflow_agent.g_config.interval, 30U);
    EXPECT_TRUE(is_zero(&sflow_agent.agent_ip, sizeof(sflow_agent.agent_ip)));
    EXPECT_TRUE(is_zero(&sflow_agent.source_ip, sizeof(sflow_agent.source_ip)));
    sflow_config_wrunlock();
    for (const sflreceiver_t &receiver : sflow_agent.receivers)
        EXPECT_FALSE(receiver.is_enable);
    EXPECT_EQ(sflow_agent.sub_id, 0U);
    EXPECT_EQ(sflow_agent.reciver_num, 0);
    sflow_msg_lock();
    EXPECT_TRUE(sflow_list_empty(&sflow_agent.msg_list));
    EXPECT_EQ(sflow_agent.msg_list_len, 0);
    sflow_msg_unlock();
    EXPECT_EQ(sflow_agent.timer_flag, 1);
    EXPECT_EQ(sflow_agent.cli_ready_flag, 0U);
    EXPECT_EQ(sflow_agent.drop_packet_num, 0U);
    EXPECT_EQ(sflow_agent.drop_counter_num, 0U);
}

TEST_F(Agent_record, init_makes_every_lock_and_a_condition_on_the_monotonic_clock)
{
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(alive(), (strings{"config_lock", "msg_lock", "condattr", "msg_send_ready", "cli_lock",
                                "familyid_lock"}));
    clockid_t clock = CLOCK_REALTIME;
    pthread_condattr_getclock(&sflow_agent.condattr, &clock);
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
}

TEST_F(Agent_record, config_lock_prefers_writers_and_is_shared_between_processes)
{
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(config_lock_attr().kind, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    EXPECT_EQ(config_lock_attr().shared, PTHREAD_PROCESS_SHARED);
}

TEST_F(Agent_record, init_puts_the_receivers_up_before_the_timer_and_the_timer_before_the_locks)
{
    strings locks_at_timer_start = {"unset"};
    behaviour.pthread_create = [&](pthread_t *, void *(*)(void *), void *) {
        record("timer");
        locks_at_timer_start = alive();
        return 0;
    };
    ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
    EXPECT_EQ(calls(), (strings{"receiver_init", "timer"}));
    EXPECT_EQ(locks_at_timer_start, strings{});
}

TEST_F(Agent_record, init_fails_without_the_timer_thread_and_makes_no_lock)
{
    fail("pthread_create", EAGAIN);
    EXPECT_EQ(sflow_agent_init(&sflow_agent), -1);
    EXPECT_EQ(alive(), strings{});
    EXPECT_EQ(sflow_agent.timer_flag, 0);
    EXPECT_FALSE(sflow_agent_is_complete());
    EXPECT_EQ(debug_lines(), strings{"create one second thread failure."});
}

struct failure_t {
    const char *name;
    const char *function;
    int nth;
    const char *text;
};

/// Every step that can fail, in the order of creation. All that was made before is undone.
const failure_t failures[] = {
    {"rwlock_attribute", "pthread_rwlockattr_init", 0, "config lock attr failure."},
    {"process_shared", "pthread_rwlockattr_setpshared", 0, "config lock attr pshared failure."},
    {"config_lock", "pthread_rwlock_init", 0, "config lock failure."},
    {"msg_lock", "pthread_mutex_init", 0, "msg lock failure."},
    {"condition_attribute", "pthread_condattr_init", 0, "cond_attr failure."},
    {"monotonic_clock", "pthread_condattr_setclock", 0, "cond_attr set clock failure."},
    {"condition", "pthread_cond_init", 0, "msg send ready init failure."},
    {"cli_lock", "pthread_mutex_init", 1, "cli lock failure."},
    {"familyid_lock", "pthread_mutex_init", 2, "family id lock init failure."},
};

class Agent_record_failure : public Agent_record, public ::testing::WithParamInterface<failure_t>
{
};

TEST_P(Agent_record_failure, says_why_and_leaves_no_lock_alive)
{
    capture_threads();
    fail(GetParam().function, ENOMEM, GetParam().nth);
    EXPECT_EQ(sflow_agent_init(&sflow_agent), -1);
    EXPECT_EQ(debug_lines(), (strings{"create one second thread success.", GetParam().text}));
    EXPECT_EQ(alive(), strings{});
    EXPECT_FALSE(sflow_agent_is_complete());
}

TEST_P(Agent_record_failure, leaves_the_timer_thread_alone)
{
    const captured_thread_t &thread = capture_threads();
    fail(GetParam().function, ENOMEM, GetParam().nth);
    EXPECT_EQ(sflow_agent_init(&sflow_agent), -1);
    EXPECT_EQ(thread.created, 1);
    EXPECT_EQ(calls_of("cancel"), strings{});
    EXPECT_EQ(sflow_agent.timer_flag, 1);
}

INSTANTIATE_TEST_SUITE_P(Steps, Agent_record_failure, ::testing::ValuesIn(failures),
                         [](const auto &info) { return info.param.name; });

TEST_F(Agent_record, the_writer_preference_is_not_essential)
{
    fail("pthread_rwlockattr_setkind_np", EINVAL);
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(sflow_agent_is_complete());
}

TEST_F(Agent_record, is_complete_only_after_initialisation)
{
    bool complete_at_timer_start = true;
    behaviour.pthread_create = [&](pthread_t *, void *(*)(void *), void *) {
        complete_at_timer_start = sflow_agent_is_complete();
        return 0;
    };
    ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
    EXPECT_FALSE(complete_at_timer_start);
    EXPECT_TRUE(sflow_agent_is_complete());
    sflow_agent_wait_complete();
}

class Agent_config_lock : public agent_test
{
};

TEST_F(Agent_config_lock, lets_readers_share_and_keeps_writers_out)
{
    pthread_rwlock_t *lock = &sflow_agent.config_lock.rwlock;
    sflow_config_rdlock();
    EXPECT_EQ(pthread_rwlock_trywrlock(lock), EBUSY);
    sflow_config_rdunlock();
    sflow_config_wrlock();
    EXPECT_EQ(pthread_rwlock_tryrdlock(lock), EBUSY);
    EXPECT_EQ(pthread_rwlock_trywrlock(lock), EBUSY);
    sflow_config_wrunlock();
    EXPECT_EQ(pthread_rwlock_trywrlock(lock), 0);
    pthread_rwlock_unlock(lock);
}

struct lock_failure_t {
    const char *name;
    void (*provoke)();
    const char *line;
};

const lock_failure_t lock_failures[] = {
    {"write_lock",
     []() SFLOW_NO_THREAD_SAFETY_ANALYSIS {
         fail("pthread_rwlock_wrlock", EDEADLK);
         sflow_config_wrlock();
     },
     "[SFLOW-CONF]sflow WR lock cfg fail.\n"},
    {"read_lock",
     []() SFLOW_NO_THREAD_SAFETY_ANALYSIS {
         fail("pthread_rwlock_rdlock", EAGAIN);
         sflow_config_rdlock();
     },
     "[SFLOW-CONF]sflow RD lock cfg fail.\n"},
    {"write_unlock",
     [] {
         sflow_config_wrlock();
         fail("pthread_rwlock_unlock", EPERM);
         sflow_config_wrunlock();
         pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
     },
     "[SFLOW-CONF]sflow unlock cfg fail.\n"},
    {"read_unlock",
     [] {
         sflow_config_rdlock();
         fail("pthread_rwlock_unlock", EPERM);
         sflow_config_rdunlock();
         pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
     },
     "[SFLOW-CONF]sflow unlock cfg fail.\n"},
    {"msg_lock",
     []() SFLOW_NO_THREAD_SAFETY_ANALYSIS {
         fail("pthread_mutex_lock", EINVAL);
         sflow_msg_lock();
     },
     "[SFLOW-CONF]sflow lock msg fail.\n"},
    {"msg_unlock",
     [] {
         sflow_msg_lock();
         fail("pthread_mutex_unlock", EPERM);
         sflow_msg_unlock();
         pthread_mutex_unlock(&sflow_agent.msg_lock.mutex);
     },
     "[SFLOW-CONF]sflow unlock msg fail.\n"},
};

class Agent_lock_failure : public agent_test, public ::testing::WithParamInterface<lock_failure_t>
{
};

TEST_P(Agent_lock_failure, is_logged_under_the_configuration_switch)
{
    sflow_debug_conf = true;
    GetParam().provoke();
    EXPECT_EQ(fake::syslog_texts(), strings{GetParam().line});
}

TEST_P(Agent_lock_failure, is_logged_under_the_all_switch)
{
    sflow_debug_all = true;
    GetParam().provoke();
    EXPECT_EQ(fake::syslog_texts(), strings{GetParam().line});
}

TEST_P(Agent_lock_failure, is_silent_without_a_switch)
{
    sflow_debug_event = true;
    GetParam().provoke();
    EXPECT_EQ(fake::syslog_texts(), strings{});
}

INSTANTIATE_TEST_SUITE_P(Locks, Agent_lock_failure, ::testing::ValuesIn(lock_failures),
                         [](const auto &info) { return info.param.name; });

} // namespace
