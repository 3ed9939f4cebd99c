// The one-second timer: its thread's life, its ticks, its end by role and by cancellation.
#include "agent_doubles.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sched.h>
#include <semaphore>
#include <unistd.h>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Timer : public agent_test
{
protected:
    Timer()
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        own_name = name;
        behaviour.sysinfo = [this](struct sysinfo *info) {
            info->uptime = uptime;
            return 0;
        };
        behaviour.select = [this](const timeval *timeout) {
            record("select(" + std::to_string(timeout->tv_sec) + "." + std::to_string(timeout->tv_usec) +
                   ")");
            end_after(ticks_left);
            return select_result;
        };
        behaviour.sleep = [this](unsigned seconds) {
            record("sleep(" + std::to_string(seconds) + ")");
            if (on_sleep)
                on_sleep();
            return 0U;
        };
        sflow_rndn_ready = 1;
        fake::set_role(RDND_ROLE_MASTER);
    }
    ~Timer() override
    {
        pthread_setname_np(pthread_self(), own_name.c_str());
        sflow_rndn_ready = 0;
    }

    /// Makes the unit a slave when nothing is left of `count`.
    static void end_after(int &count)
    {
        if (--count <= 0)
            fake::set_role(RDND_ROLE_SLAVE);
    }

    /// Runs the thread's body on this thread until its role ends it.
    static void run()
    {
        const captured_thread_t &thread = capture_threads();
        ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
        thread.start(thread.arg);
    }

    std::string own_name;
    long uptime = 1000;
    int ticks_left = 1;
    int select_result = 0;
    std::function<void()> on_sleep;
};

const std::string FLUSH = "send(agent 0, source 0)";

// ---- Starting ----------------------------------------------------------------------------------------------------

TEST_F(Timer, init_starts_a_detached_thread_and_says_so)
{
    const captured_thread_t &thread = capture_threads();
    EXPECT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    EXPECT_EQ(thread.created, 1);
    EXPECT_TRUE(thread.detached);
    EXPECT_EQ(sflow_agent.timer_flag, 1);
    EXPECT_TRUE(pthread_equal(sflow_agent.timer_tid, pthread_self()))
        << "the handle that pthread_create gave";
    EXPECT_EQ(debug_lines(), strings{"create one second thread success."});
}

TEST_F(Timer, init_without_a_thread_leaves_the_flag_clear)
{
    fail("pthread_create", EAGAIN);
    EXPECT_NE(sflow_agent_timer_init(&sflow_agent), 0);
    EXPECT_EQ(sflow_agent.timer_flag, 0);
    EXPECT_EQ(debug_lines(), strings{"create one second thread failure."});
}

/// Until no thread is registered with the health monitor.
void wait_for_no_thread()
{
    while (!fake::ham_threads().empty())
        sched_yield();
}

TEST_F(Timer, flag_stays_clear_after_a_thread_that_ended_at_once)
{
    fake::set_role(RDND_ROLE_SLAVE);
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
        while (fake::call_count("ham_client_unreg_thread_notify") <= static_cast<size_t>(i))
            sched_yield();
        ASSERT_EQ(sflow_agent.timer_flag, 0);
    }
}

// ---- Ticking -----------------------------------------------------------------------------------------------------

TEST_F(Timer, names_and_registers_its_thread)
{
    behaviour.select = [](const timeval *) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        EXPECT_STREQ(name, "sflow_timer");
        EXPECT_EQ(fake::ham_threads().count(gettid()), 1U);
        fake::set_role(RDND_ROLE_SLAVE);
        return 0;
    };
    run();
}

TEST_F(Timer, sleeps_one_second_then_counts_down_then_flushes)
{
    ticks_left = 2;
    run();
    EXPECT_EQ(calls(), (strings{"select(1.0)", "countdown", FLUSH, "select(1.0)", "countdown", FLUSH}));
}

TEST_F(Timer, one_second_holds_config_lock_for_writing_and_releases_it)
{
    int while_ticking = 0;
    behaviour.countdown = [&] { while_ticking = pthread_rwlock_tryrdlock(&sflow_agent.config_lock.rwlock); };
    sflow_one_second();
    EXPECT_EQ(calls(), (strings{"countdown", FLUSH}));
    EXPECT_EQ(while_ticking, EBUSY);
    EXPECT_EQ(pthread_rwlock_trywrlock(&sflow_agent.config_lock.rwlock), 0);
    pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
}

TEST_F(Timer, one_second_ticks_without_the_lock_too)
{
    sflow_debug_conf = true;
    fail("pthread_rwlock_wrlock", EDEADLK);
    fail("pthread_rwlock_unlock", EPERM);
    sflow_one_second();
    EXPECT_EQ(calls(), (strings{"countdown", FLUSH}));
    EXPECT_EQ(fake::syslog_texts(),
              (strings{"[SFLOW-CONF]sflow WR lock cfg fail.\n", "[SFLOW-CONF]sflow unlock cfg fail.\n"}));
}

TEST_F(Timer, failing_sleep_is_written_down_and_the_tick_goes_on)
{
    select_result = -1;
    run();
    EXPECT_EQ(calls(), (strings{"select(1.0)", "countdown", FLUSH}));
    EXPECT_EQ(debug_lines(), (strings{"create one second thread success.", "select return error"}));
}

// ---- Before it may tick ------------------------------------------------------------------------------------------

TEST_F(Timer, only_sleeps_and_keeps_its_registration_fresh_before_redundancy_is_ready)
{
    sflow_rndn_ready = 0;
    int sleeps = 0;
    on_sleep = [&] {
        uptime += 30;
        if (++sleeps == 5) {
            sflow_rndn_ready = 1;
            fake::set_role(RDND_ROLE_SLAVE);
        }
    };
    run();
    EXPECT_EQ(calls(), strings(5, "sleep(1)"));
    EXPECT_EQ(fake::call_count("ham_client_reset_thread_notify"), 2U) << "at 60 and at 120 of 150 seconds";
}

TEST_F(Timer, does_not_tick_before_the_record_is_complete)
{
    capture_threads();
    fail("pthread_rwlockattr_init", ENOMEM);
    ASSERT_EQ(sflow_agent_init(&sflow_agent), -1);
    sflow_agent.timer_flag = 0;
    forget_calls();
    int sleeps = 0;
    on_sleep = [&] {
        if (++sleeps == 2)
            ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
    };
    run();
    EXPECT_EQ(calls(), (strings{"sleep(1)", "sleep(1)", "receiver_init", "select(1.0)", "countdown", FLUSH}));
}

TEST_F(Timer, failing_sysinfo_blocks_without_ticking_and_is_logged_each_second)
{
    sflow_debug_event = true;
    int failures = 3;
    behaviour.sysinfo = [&](struct sysinfo *info) {
        if (failures-- > 0) {
            errno = EFAULT;
            return -1;
        }
        info->uptime = 5;
        return 0;
    };
    fake::set_role(RDND_ROLE_SLAVE);
    run();
    EXPECT_EQ(calls(), strings(3, "sleep(1)"));
    EXPECT_EQ(fake::syslog_texts(), strings(3, "[SFLOW-EVENT]sflow get sysinfo fail:Bad address\n"));
}

TEST_F(Timer, failing_sysinfo_is_silent_without_the_event_switch)
{
    bool failed = false;
    behaviour.sysinfo = [&](struct sysinfo *info) {
        info->uptime = 7;
        const int result = failed ? 0 : -1;
        failed = true;
        return result;
    };
    EXPECT_EQ(sflow_uptime_sec(), 7U);
    EXPECT_EQ(fake::syslog_texts(), strings{});
}

// ---- Proof of life -----------------------------------------------------------------------------------------------

struct renewal_t {
    const char *name;
    std::vector<long> uptimes; ///< as read: at the start, then once a round
    size_t renewals;
};

class Timer_renewal : public Timer, public ::testing::WithParamInterface<renewal_t>
{
};

TEST_P(Timer_renewal, happens_when_more_than_59_seconds_have_passed)
{
    size_t reading = 0;
    const std::vector<long> &uptimes = GetParam().uptimes;
    behaviour.sysinfo = [&](struct sysinfo *info) {
        info->uptime = uptimes.at(reading++);
        return 0;
    };
    ticks_left = static_cast<int>(uptimes.size()) - 2;
    run();
    EXPECT_EQ(reading, uptimes.size());
    EXPECT_EQ(fake::call_count("ham_client_reset_thread_notify"), GetParam().renewals);
}

INSTANTIATE_TEST_SUITE_P(Uptimes, Timer_renewal,
                         ::testing::Values(renewal_t{"not_at_59", {100, 159, 159}, 0},
                                           renewal_t{"at_60", {100, 160, 160}, 1},
                                           renewal_t{"counted_from_the_last_one", {100, 160, 219, 220}, 2},
                                           renewal_t{"backwards_too", {100, 40, 40}, 1}),
                         [](const auto &info) { return info.param.name; });

TEST_F(Timer, refused_renewal_is_tried_again_in_the_next_round)
{
    std::vector<long> uptimes = {100, 160, 161, 162};
    size_t reading = 0;
    behaviour.sysinfo = [&](struct sysinfo *info) {
        info->uptime = uptimes.at(reading++);
        return 0;
    };
    fake::fail_next("ham_client_reset_thread_notify");
    ticks_left = 2;
    run();
    EXPECT_EQ(fake::call_count("ham_client_reset_thread_notify"), 2U);
    EXPECT_EQ(debug_lines(),
              (strings{"create one second thread success.", "sflow_reset_ham_client_notify fail."}));
}

TEST(Timer_interval, is_the_absolute_difference)
{
    EXPECT_EQ(sflow_time_interval(7, 5), 2);
    EXPECT_EQ(sflow_time_interval(5, 7), 2);
    EXPECT_EQ(sflow_time_interval(5, 5), 0);
    EXPECT_EQ(sflow_time_interval(0, 0x7fffffffffffffff), 0x7fffffffffffffff);
}

// ---- Ending ------------------------------------------------------------------------------------------------------

class Timer_role : public Timer, public ::testing::WithParamInterface<rdnd_role>
{
};

TEST_P(Timer_role, other_than_master_ends_the_thread_at_its_first_round)
{
    fake::set_role(GetParam());
    run();
    EXPECT_EQ(calls(), strings{}) << "neither a sleep nor a tick";
    EXPECT_EQ(sflow_agent.timer_flag, 0);
    EXPECT_EQ(fake::ham_threads().count(gettid()), 0U);
    EXPECT_EQ(fake::call_count("ham_client_unreg_thread_notify"), 1U);
}

INSTANTIATE_TEST_SUITE_P(Roles, Timer_role,
                         ::testing::Values(RDND_ROLE_NONE, RDND_ROLE_ALONE, RDND_ROLE_SLAVE,
                                           RDND_ROLE_CANDIDATE));

TEST_F(Timer, cancel_clears_the_flag_and_cancels_the_thread)
{
    behaviour.cancel = false;
    capture_threads();
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    sflow_agent_timer_cancel(&sflow_agent);
    EXPECT_EQ(calls(), strings{"cancel"});
    EXPECT_EQ(sflow_agent.timer_flag, 0);
}

TEST_F(Timer, cancel_leaves_a_thread_that_ended_itself_alone)
{
    sflow_agent.timer_flag = 0;
    sflow_agent_timer_cancel(&sflow_agent);
    EXPECT_EQ(calls(), strings{});
}

TEST_F(Timer, thread_whose_end_was_claimed_waits_for_the_cancellation)
{
    int pauses = 0;
    behaviour.pause = [&] {
        // What would be the cancellation; the test's thread goes on instead.
        if (++pauses == 3)
            sflow_agent.timer_flag = 1;
        return -1;
    };
    const captured_thread_t &thread = capture_threads();
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    behaviour.cancel = false;
    fake::set_role(RDND_ROLE_SLAVE);
    sflow_agent_timer_cancel(&sflow_agent);
    thread.start(thread.arg);
    EXPECT_EQ(pauses, 3);
}

/// Blocks until the calling thread is cancelled.
[[noreturn]] void block()
{
    for (;;) {
        pthread_testcancel();
        sched_yield();
    }
}

TEST_F(Timer, thread_that_was_cancelled_never_takes_its_successors_flag)
{
    // The old thread is about to end by its role when it is cancelled and the switch-over ends at once.
    int pauses = 0;
    behaviour.pause = [&]() -> int {
        // Instead of the cancellation that the thread waits for.
        throw ++pauses;
    };
    const captured_thread_t &old_thread = capture_threads();
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    void *(*const start)(void *) = old_thread.start;
    behaviour.cancel = false;
    sflow_agent_timer_cancel(&sflow_agent);
    static char other_thread;
    behaviour.pthread_create = [](pthread_t *tid, void *(*)(void *), void *) {
        *tid = reinterpret_cast<pthread_t>(&other_thread);
        return 0;
    };
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    fake::set_role(RDND_ROLE_SLAVE);
    EXPECT_THROW(start(&sflow_agent), int);
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(sflow_agent.timer_flag, 1) << "the successor's";
}

TEST_F(Timer, cancelled_thread_ends_in_its_sleep_and_leaves_the_health_monitor)
{
    std::binary_semaphore asleep{0};
    behaviour.select = [&](const timeval *) -> int {
        asleep.release();
        block();
    };
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    asleep.acquire();
    EXPECT_EQ(fake::ham_threads().size(), 1U);
    sflow_agent_timer_cancel(&sflow_agent);
    wait_for_no_thread();
    EXPECT_EQ(calls_of("countdown"), strings{});
}

TEST_F(Timer, cancellation_never_cuts_a_tick_short)
{
    std::binary_semaphore ticking{0};
    std::binary_semaphore cancelled{0};
    std::atomic<bool> tick_went_on{false};
    std::atomic<int> sleeps{0};
    behaviour.select = [&](const timeval *) {
        if (sleeps++ > 0)
            block();
        return 0;
    };
    behaviour.countdown = [&] {
        ticking.release();
        cancelled.acquire();
        pthread_testcancel();
        tick_went_on = true;
    };
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    ticking.acquire();
    sflow_agent_timer_cancel(&sflow_agent);
    cancelled.release();
    wait_for_no_thread();
    EXPECT_TRUE(tick_went_on);
    EXPECT_EQ(calls_of("send"), strings{FLUSH});
    EXPECT_EQ(pthread_rwlock_trywrlock(&sflow_agent.config_lock.rwlock), 0)
        << "the tick released config_lock";
    pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
}

} // namespace
