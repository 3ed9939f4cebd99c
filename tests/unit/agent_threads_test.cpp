// The daemon's threads around the agent record, all at once; worth most under the thread sanitizer.
#include "agent_doubles.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <thread>

using namespace doubles;

namespace
{

/// Waits, without a time-out: the test driver has one.
void wait_until(const std::function<bool()> &condition)
{
    while (!condition())
        sched_yield();
}

/// Delivers an event on the redundancy thread and waits until it has been handled.
void deliver(kx_thread_master_t *master, RDND_EVENT event)
{
    struct delivery_t {
        RDND_EVENT event;
        std::atomic<bool> done;
    } delivery = {event, false};
    kx_thread_add_event(
        master,
        [](kx_thread_t *task) {
            auto *that = static_cast<delivery_t *>(task->arg);
            EXPECT_EQ(fake::deliver_rdnd(that->event), 0);
            that->done = true;
            return 0;
        },
        &delivery);
    wait_until([&] { return delivery.done.load(); });
}

void change_configuration(const std::atomic<bool> &stop)
{
    for (IFINDEX ifx = 1; !stop; ifx = ifx % 50 + 1) {
        sflow_config_wrlock();
        sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
        if (intf == nullptr)
            sflow_add_intf_config(ifx);
        else
            sflow_del_intf_config(intf);
        sflow_config_wrunlock();
        sflow_agent_address_t addr;
        std::memset(&addr, 0, sizeof(addr));
        addr.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
        addr.type = SFLOW_ADDRESS_TYPE_IPV4;
        addr.address.ip_v4 = ifx;
        sflow_agent_set_address(&addr);
        sflow_enable_intf_config(ifx, SFLOW_BOTH, 1, 0, nullptr, 0);
        sflow_agent_del_intf_notify(ifx);
        forget_calls();
    }
}

void read_configuration(const std::atomic<bool> &stop)
{
    while (!stop) {
        sflow_config_rdlock();
        for (IFINDEX ifx = 1; ifx <= 50; ifx++)
            sflow_get_intf_config(ifx);
        sflow_config_rdunlock();
        sflow_agent_address_t addr;
        sflow_agent_get_address(&addr);
        sflow_get_current_status();
    }
}

void queue_event(IFINDEX ifx)
{
    auto *node = static_cast<sflow_msg_t *>(std::calloc(1, sizeof(sflow_msg_t)));
    node->ifx = ifx;
    node->type = SFLOW_MSG_UPDATE_COUNTER;
    sflow_msg_lock();
    sflow_list_insert_before(&sflow_agent.msg_list, &node->list);
    sflow_agent.msg_list_len++;
    pthread_cond_signal(&sflow_agent.msg_send_ready);
    sflow_msg_unlock();
}

class Threads : public agent_test
{
};

TEST_F(Threads, work_together_from_start_up_through_a_switchover)
{
    std::atomic<int> ticks{0};
    behaviour.select = [](const timeval *) {
        pthread_testcancel();
        return sched_yield();
    };
    behaviour.sleep = [](unsigned) { return sched_yield(), 0U; };
    behaviour.countdown = [&] { ticks++; };
    fake::set_fetch(fake::Fetch::waits);
    fake::set_role(RDND_ROLE_MASTER);

    // As in main: the redundancy thread exists before the record, and reports ready as soon as it can.
    capture_threads();
    fail("pthread_rwlockattr_init", ENOMEM);
    ASSERT_EQ(sflow_agent_init(&sflow_agent), -1);
    behaviour.pthread_create = nullptr;
    ASSERT_EQ(sflow_rdnd_init(), 0);
    wait_until([] { return fake::armed_count("sflow-ham") == 1; });
    kx_thread_master_t *master = fake::armed().front().master;
    std::thread ready([master] { deliver(master, RDND_E_STAT_READY); });
    EXPECT_EQ(sflow_load(sflow_rndn_ready), 0) << "no event is handled before the record is complete";
    ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
    ready.join();

    std::atomic<bool> stop{false};
    std::thread writer([&] { change_configuration(stop); });
    std::thread reader([&] { read_configuration(stop); });
    std::thread dispatcher([&] {
        while (!stop)
            sflow_msg_dispatch();
    });
    for (int round = 0; round < 3; round++) {
        const int before = ticks;
        wait_until([&] { return ticks > before + 2; });
        queue_event(static_cast<IFINDEX>(round) + 1);
        sflow_pi_flow_sampling("x", 1, {});
        deliver(master, RDND_E_BATCH_SYN_REQ);
        deliver(master, RDND_E_SWITCHOVER);
        EXPECT_EQ(sflow_load(sflow_agent.timer_flag), 0);
        deliver(master, RDND_E_SWITCHOVER_END);
        EXPECT_EQ(sflow_load(sflow_agent.timer_flag), 1);
    }
    const int before = ticks;
    wait_until([&] { return ticks > before; });

    // A slave's timer ends by itself.
    fake::set_role(RDND_ROLE_SLAVE);
    wait_until([] { return sflow_load(sflow_agent.timer_flag) == 0 && fake::ham_threads().size() == 1; });
    stop = true;
    queue_event(1);
    writer.join();
    reader.join();
    dispatcher.join();
    fake::end_fetch();
    EXPECT_TRUE(g_can_backup);
}

} // namespace
