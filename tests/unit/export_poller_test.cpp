// Counter poller: countdown, queueing, accumulation, export, binding, removal of an interface.
#include "export_fixture.h"

#include <cstddef>
#include <cstring>
#include <ctime>
#include <thread>

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr std::uint32_t MAX_32 = 0xffffffff;
constexpr std::uint64_t MAX_64 = 0xffffffffffffffff;

class Polling : public Export
{
protected:
    Polling() { log_everything(); }

    static void countdown()
    {
        sflow_config_wrlock();
        sflow_poller_countdown();
        sflow_config_wrunlock();
    }
    static void make_ready()
    {
        set_agent_address("192.0.2.1");
        set_collector(1, "198.51.100.9");
        fake::forget_syslog();
    }
    /// An event as the dispatcher hands it over.
    static sflow_msg_t event(sflow_msg_counter_t *counters, IFINDEX ifx = 7)
    {
        return {.list = {}, .ifx = ifx, .type = SFLOW_MSG_GET_COUNTER_RSP, .msg = counters};
    }
    static void update(IFINDEX ifx, sflow_msg_counter_t counters)
    {
        const sflow_msg_t node = event(&counters, ifx);
        sflow_poller_update_counter(&node);
    }
    static sflow_counter_node_t *cached(IFINDEX ifx)
    {
        sflow_config_rdlock();
        sflow_counter_node_t *node = sflow_poller_get_counter(ifx);
        sflow_config_rdunlock();
        return node;
    }
    static std::int32_t queue_len()
    {
        sflow_msg_lock();
        const std::int32_t len = sflow_agent.msg_list_len;
        sflow_msg_unlock();
        return len;
    }
    static void set_queue_len(std::int32_t len)
    {
        sflow_msg_lock();
        sflow_agent.msg_list_len = len;
        sflow_msg_unlock();
    }
    static std::vector<const sflow_msg_t *> queued()
    {
        std::vector<const sflow_msg_t *> events;
        sflow_msg_lock();
        sflow_list_for_each<sflow_msg_t>(&sflow_agent.msg_list,
                                         [&events](const sflow_msg_t *each) { events.push_back(each); });
        sflow_msg_unlock();
        return events;
    }
};

using Poller_countdown = Polling;
using Poller_counter_msg_enqueue = Polling;
using Poller_update_counter = Polling;
using Poller_write_countersample = Polling;
using Poller_set_cid = Polling;
using Poller_clear_cid = Polling;
using Poller_intf_del_notify = Polling;

} // namespace

// ---- Countdown --------------------------------------------------------------------------------------------

TEST_F(Poller_countdown, asks_at_zero_and_reloads_the_interval)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 0);
    intf->ifx_type = SFLOW_IFX_TYPE_AGGREGATE;
    intf->countdown = 2;
    countdown();
    EXPECT_THAT(world().counter_requests, IsEmpty());
    EXPECT_EQ(intf->countdown, 1U);
    countdown();
    EXPECT_THAT(world().counter_requests, ElementsAre(std::pair<IFINDEX, int>(7, SFLOW_IFX_TYPE_AGGREGATE)));
    EXPECT_EQ(intf->countdown, 30U);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EVENT]sflow_poller_countdown get counter success.\n"));
    EXPECT_EQ(sflow_statis.sflow_get_counter_fail_num, 0U);
}

TEST_F(Poller_countdown, counts_a_failed_request_and_reloads_all_the_same)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 0);
    intf->countdown = 1;
    world().get_counter_result = -1;
    countdown();
    EXPECT_EQ(intf->countdown, 30U);
    EXPECT_EQ(sflow_statis.sflow_get_counter_fail_num, 1U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-EVENT]sflow_poller_countdown get counter fail.\n"));
}

TEST_F(Poller_countdown, passes_over_interfaces_without_collector_or_sampling)
{
    sflow_intf_config_t *no_collector = add_interface(7, 0, 1);
    sflow_intf_config_t *not_enabled = add_interface(8, 1, 1);
    not_enabled->enable = 0;
    sflow_intf_config_t *polled = add_interface(9, 1, 1);
    for (sflow_intf_config_t *intf : {no_collector, not_enabled, polled})
        intf->countdown = 1;
    countdown();
    EXPECT_EQ(no_collector->countdown, 1U);
    EXPECT_EQ(not_enabled->countdown, 1U);
    EXPECT_THAT(world().counter_requests, ElementsAre(std::pair<IFINDEX, int>(9, SFLOW_IFX_TYPE_PORT)));
}

TEST_F(Poller_countdown, of_0_wraps_to_the_largest_value)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 0);
    intf->countdown = 0;
    countdown();
    EXPECT_EQ(intf->countdown, MAX_32);
    EXPECT_THAT(world().counter_requests, IsEmpty());
}

// ---- Queueing ---------------------------------------------------------------------------------------------

TEST_F(Poller_counter_msg_enqueue, copies_the_report_to_the_end_of_the_queue)
{
    sflow_counter_ret_t ret = {};
    ret.ifx = 7;
    ret.generic.ifIndex = 99;
    ret.generic.ifInOctets = 100;
    ret.ether.dot3StatsSymbolErrors = 5;
    EXPECT_EQ(sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_GET_COUNTER_RSP), 0);
    ret.ifx = 8;
    EXPECT_EQ(sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_UPDATE_COUNTER), 0);

    EXPECT_EQ(queue_len(), 2);
    const std::vector<const sflow_msg_t *> events = queued();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]->ifx, 7U);
    EXPECT_EQ(events[0]->type, SFLOW_MSG_GET_COUNTER_RSP);
    EXPECT_EQ(events[1]->ifx, 8U);
    EXPECT_EQ(events[1]->type, SFLOW_MSG_UPDATE_COUNTER);
    const auto *counters = static_cast<const sflow_msg_counter_t *>(events[0]->msg);
    EXPECT_EQ(std::memcmp(&counters->generic_counter, &ret.generic, sizeof(ret.generic)), 0);
    EXPECT_EQ(std::memcmp(&counters->ether_counter, &ret.ether, sizeof(ret.ether)), 0);
    EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 2U);
}

TEST_F(Poller_counter_msg_enqueue, takes_the_8192nd_event_and_drops_the_8193rd)
{
    const sflow_counter_ret_t ret = {};
    for (int i = 0; i < 8192; i++)
        ASSERT_EQ(sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_UPDATE_COUNTER), 0) << i;
    EXPECT_EQ(sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_UPDATE_COUNTER), -1);
    EXPECT_EQ(queue_len(), 8192);
    EXPECT_EQ(queued().size(), 8192U);
    EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 8192U);
    EXPECT_EQ(sflow_statis.sflow_drop_counter_num, 1U);
}

TEST_F(Poller_counter_msg_enqueue, without_memory_leaves_the_length_one_too_high)
{
    const sflow_counter_ret_t ret = {};
    for (const int nth : {1, 2}) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        reset_syscalls();
        set_queue_len(5);
        sflow_statis = {};
        fail_call("calloc", nth, 0);
        EXPECT_EQ(sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_UPDATE_COUNTER), -1);
        EXPECT_EQ(queue_len(), 6);
        EXPECT_THAT(queued(), IsEmpty());
        EXPECT_EQ(sflow_statis.sflow_malloc_fail_num, 1U);
        EXPECT_EQ(sflow_statis.sflow_recv_counter_num, 0U);
    }
}

TEST_F(Poller_counter_msg_enqueue, wakes_the_dispatcher)
{
    // The producer cannot get in before this thread waits, so that only the signal or the deadline ends the wait.
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 120;
    sflow_msg_lock();
    std::thread producer([] {
        const sflow_counter_ret_t ret = {};
        sflow_pi_counter_msg_enqueue(&ret, SFLOW_MSG_UPDATE_COUNTER);
    });
    int result = 0;
    while (sflow_agent.msg_list_len == 0 && result == 0)
        result = pthread_cond_timedwait(&sflow_agent.msg_send_ready, &sflow_agent.msg_lock.mutex, &deadline);
    sflow_msg_unlock();
    producer.join();
    EXPECT_EQ(result, 0);
}

// ---- Accumulation -----------------------------------------------------------------------------------------

TEST(Poller_accumulation, adds_modulo_the_width_and_keeps_the_maximum_as_a_value_of_its_own)
{
    const struct {
        std::uint32_t dst, src, want;
    } rows[] = {{10, 5, 15},         {10, 0, 10},          {MAX_32 - 1, 1, MAX_32},
                {MAX_32 - 1, 3, 1},  {10, MAX_32, MAX_32}, {0, MAX_32, MAX_32},
                {MAX_32, 0, MAX_32}, {MAX_32, 2, 1},       {MAX_32, MAX_32, MAX_32}};
    for (const auto &row : rows) {
        sflow_generic_counter_t dst = {.ifInErrors = row.dst};
        const sflow_generic_counter_t src = {.ifInErrors = row.src};
        sflow_poller_update_generic_counter(&dst, &src);
        EXPECT_EQ(dst.ifInErrors, row.want) << row.dst << " + " << row.src;
    }
    const struct {
        std::uint64_t dst, src, want;
    } wide_rows[] = {{1000, 100, 1100},  {MAX_32, 1, 0x100000000}, {10, MAX_32, 0x100000009},
                     {MAX_64 - 1, 3, 1}, {10, MAX_64, MAX_64},     {MAX_64, 2, 1}};
    for (const auto &row : wide_rows) {
        sflow_generic_counter_t dst = {.ifInOctets = row.dst, .ifOutOctets = row.dst};
        const sflow_generic_counter_t src = {.ifInOctets = row.src, .ifOutOctets = row.src};
        sflow_poller_update_generic_counter(&dst, &src);
        EXPECT_EQ(dst.ifInOctets, row.want) << row.dst << " + " << row.src;
        EXPECT_EQ(dst.ifOutOctets, row.want) << row.dst << " + " << row.src;
    }
}

TEST(Poller_accumulation, reaches_every_generic_counter_and_nothing_else)
{
    sflow_generic_counter_t dst;
    sflow_generic_counter_t src;
    std::memset(&dst, 0, sizeof(dst));
    std::memset(&src, 1, sizeof(src));
    sflow_poller_update_generic_counter(&dst, &src);

    sflow_generic_counter_t want = src;
    want.ifIndex = want.ifType = want.ifDirection = want.ifStatus = want.ifPromiscuousMode = 0;
    want.ifSpeed = 0;
    EXPECT_EQ(std::memcmp(&dst, &want, sizeof(dst)), 0);
}

TEST(Poller_accumulation, reaches_every_ethernet_counter)
{
    std::uint32_t values[13];
    for (std::uint32_t i = 0; i < 13; i++)
        values[i] = i + 1;
    sflow_ether_counter_t src;
    std::memcpy(&src, values, sizeof(src));
    sflow_ether_counter_t dst = src;
    sflow_poller_update_ether_counter(&dst, &src);
    std::memcpy(values, &dst, sizeof(values));
    for (std::uint32_t i = 0; i < 13; i++)
        EXPECT_EQ(values[i], 2 * (i + 1)) << i;
}

// ---- Update -----------------------------------------------------------------------------------------------

TEST_F(Poller_update_counter, makes_a_node_and_adds_to_it)
{
    sflow_msg_counter_t counters = {};
    counters.generic_counter.ifInOctets = 1000;
    counters.ether_counter.dot3StatsFCSErrors = 3;
    update(7, counters);
    update(7, counters);
    const sflow_counter_node_t *node = cached(7);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->ifx, 7U);
    EXPECT_EQ(node->generic.ifInOctets, 2000U);
    EXPECT_EQ(node->ether.dot3StatsFCSErrors, 6U);
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Poller_update_counter, does_not_keep_what_is_no_counter)
{
    sflow_msg_counter_t counters;
    std::memset(&counters, 1, sizeof(counters));
    update(7, counters);
    const sflow_generic_counter_t &base = cached(7)->generic;
    EXPECT_EQ(base.ifIndex + base.ifType + base.ifDirection + base.ifStatus + base.ifPromiscuousMode, 0U);
    EXPECT_EQ(base.ifSpeed, 0U);
}

TEST_F(Poller_update_counter, without_memory_is_lost_and_logged)
{
    fail_call("calloc", 1, 0);
    update(7, {});
    EXPECT_EQ(cached(7), nullptr);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_poller_add_counter malloc counter fail.\n"));
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Poller_update_counter, without_memory_for_the_index_is_lost_as_well)
{
    fail_call("new", 1, 0);
    update(7, {});
    EXPECT_EQ(cached(7), nullptr);
    EXPECT_TRUE(sflow_list_empty(&sflow_counter_list));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_poller_add_counter malloc counter fail.\n"));
}

TEST_F(Poller_update_counter, is_mirrored_to_the_standby_with_its_sum)
{
    g_can_backup = true;
    sflow_msg_counter_t counters = {};
    counters.generic_counter.ifOutErrors = 4;
    update(7, counters);
    update(7, counters);
    const std::vector<fake::Checkpoint> checkpoints = fake::checkpoints();
    ASSERT_EQ(checkpoints.size(), 2U);
    rdnd_sflow_counter_t record;
    ASSERT_EQ(checkpoints[1].data.size(), sizeof(record));
    std::memcpy(&record, checkpoints[1].data.data(), sizeof(record));
    EXPECT_EQ(record.rdnd_type, 1);
    EXPECT_EQ(record.counter.ifx, 7U);
    EXPECT_EQ(record.counter.generic.ifOutErrors, 8U);
}

// ---- Export -----------------------------------------------------------------------------------------------

TEST_F(Poller_write_countersample, adds_the_base_and_leaves_it_alone)
{
    make_ready();
    add_interface(7, 1, 0);
    sflow_msg_counter_t base = {};
    base.generic_counter.ifInOctets = 1000;
    base.ether_counter.dot3StatsFCSErrors = 10;
    update(7, base);
    sflow_msg_counter_t report = {};
    report.generic_counter.ifInOctets = 100;
    report.ether_counter.dot3StatsFCSErrors = 1;
    sflow_msg_t node = event(&report);
    EXPECT_EQ(sflow_poller_write_countersample(&node), 0);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(field(datagram, 28 + 28 + 28), 1100U) << "ifInOctets, lower half";
    EXPECT_EQ(field(datagram, 28 + 20 + 96 + 8 + 4), 11U) << "dot3StatsFCSErrors";
    EXPECT_EQ(cached(7)->generic.ifInOctets, 1000U);
    EXPECT_EQ(cached(7)->ether.dot3StatsFCSErrors, 10U);
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Poller_write_countersample, exports_the_report_when_there_is_no_base)
{
    make_ready();
    add_interface(7, 1, 0);
    sflow_msg_counter_t report = {};
    report.generic_counter.ifInOctets = 100;
    sflow_msg_t node = event(&report);
    EXPECT_EQ(sflow_poller_write_countersample(&node), 0);
    flush();
    EXPECT_EQ(field(only_datagram(), 28 + 28 + 28), 100U);
}

TEST_F(Poller_write_countersample, a_base_at_the_maximum_is_exported_as_the_maximum_every_time)
{
    make_ready();
    add_interface(7, 1, 0);
    sflow_msg_counter_t unknown = {};
    unknown.generic_counter.ifInErrors = MAX_32;
    update(7, unknown);
    EXPECT_EQ(cached(7)->generic.ifInErrors, MAX_32);
    for (const std::uint32_t reported : {0U, 5U, MAX_32}) {
        sflow_msg_counter_t report = {};
        report.generic_counter.ifInErrors = reported;
        sflow_msg_t node = event(&report);
        EXPECT_EQ(sflow_poller_write_countersample(&node), 0);
        EXPECT_EQ(report.generic_counter.ifInErrors, MAX_32) << reported;
    }
}

TEST_F(Poller_write_countersample, of_an_interface_without_configuration_is_refused)
{
    make_ready();
    sflow_msg_counter_t report = {};
    sflow_msg_t node = event(&report);
    EXPECT_EQ(sflow_poller_write_countersample(&node), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_poller_write_countersample get poller fail.\n"));
}

TEST_F(Poller_write_countersample, writes_nothing_without_a_counter_collector)
{
    make_ready();
    add_interface(7, 0, 1);
    sflow_msg_counter_t report = {};
    sflow_msg_t node = event(&report);
    EXPECT_EQ(sflow_poller_write_countersample(&node), 0);
    EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_poller_write_countersample receiver is null.\n"));
}

TEST_F(Poller_write_countersample, writes_nothing_without_an_agent_address)
{
    set_collector(1, "198.51.100.9");
    fake::forget_syslog();
    add_interface(7, 1, 0);
    update(7, {.generic_counter = {.ifInOctets = 1}});
    fake::forget_syslog();
    sflow_msg_counter_t report = {};
    sflow_msg_t node = event(&report);
    EXPECT_EQ(sflow_poller_write_countersample(&node), 0);
    EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
    EXPECT_EQ(report.generic_counter.ifInOctets, 0U) << "the base is not added";
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_poller_write_countersample agent is no config.\n"));
}

// ---- Binding ----------------------------------------------------------------------------------------------

TEST_F(Poller_set_cid, binds_counters_only)
{
    make_ready();
    EXPECT_EQ(sflow_poller_set_cid(7, 1), 0);
    ASSERT_NE(find_interface(7), nullptr);
    EXPECT_EQ(find_interface(7)->cid, 1U);
    EXPECT_EQ(find_interface(7)->fid, 0U);
    sflow_config_rdlock();
    EXPECT_EQ(sflow_poller_get_cid(7), 1U);
    EXPECT_EQ(sflow_poller_get_cid(8), 0U);
    sflow_config_rdunlock();
}

TEST_F(Poller_set_cid, fails_for_a_collector_that_is_not_configured)
{
    make_ready();
    for (const std::uint32_t cid : {0U, 2U, 3U})
        EXPECT_EQ(sflow_poller_set_cid(7, cid), -1) << cid;
    EXPECT_EQ(find_interface(7), nullptr);
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Poller_clear_cid, frees_a_configuration_that_serves_nothing_more)
{
    add_interface(7, 1, 0)->enable = 0;
    add_interface(8, 1, 2)->enable = 0;
    for (const IFINDEX ifx : {7U, 8U, 9U})
        sflow_poller_clear_cid(ifx);
    EXPECT_EQ(find_interface(7), nullptr);
    ASSERT_NE(find_interface(8), nullptr);
    EXPECT_EQ(find_interface(8)->cid, 0U);
    EXPECT_EQ(find_interface(8)->fid, 2U);
}

// ---- Removal of an interface ------------------------------------------------------------------------------

TEST_F(Poller_intf_del_notify, stops_sampling_once_per_slot_even_when_no_list_is_bound)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 2);
    intf->enable = SFLOW_INGRESS | SFLOW_EGRESS;
    intf->ifx_type = SFLOW_IFX_TYPE_SUBINTERFACE;
    sflow_intf_del_notify(7);
    const RateRequest stop = {7, 0, 3, SFLOW_IFX_TYPE_SUBINTERFACE, 0, "", 0};
    EXPECT_THAT(world().rate_requests, ElementsAre(stop, stop));
    EXPECT_THAT(world().acl_releases, ElementsAre(AclRelease{0, ""}, AclRelease{0, ""}));
    EXPECT_EQ(find_interface(7), nullptr);
}

TEST_F(Poller_intf_del_notify, names_and_releases_the_lists_of_both_slots_in_order)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 2);
    intf->snoop = SFLOW_INGRESS_BY_SNOOP;
    intf->acl_enable = true;
    intf->acl[0].enable = intf->acl[1].enable = true;
    intf->acl[0].enable_acl_id = 100;
    std::strcpy(intf->acl[0].enable_acl_name, "one");
    intf->acl[1].enable_acl_id = 200;
    std::strcpy(intf->acl[1].enable_acl_name, "two");
    sflow_intf_del_notify(7);
    EXPECT_THAT(world().rate_requests, ElementsAre(RateRequest{7, 0, 1, SFLOW_IFX_TYPE_PORT, 100, "one", 1},
                                                   RateRequest{7, 0, 1, SFLOW_IFX_TYPE_PORT, 200, "two", 1}));
    EXPECT_THAT(world().acl_releases, ElementsAre(AclRelease{100, "one"}, AclRelease{200, "two"}));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]receive intf event:7\n",
                                                  "[SFLOW-CONF]sflow_intf_del_notify c2p reform success.\n"));
}

TEST_F(Poller_intf_del_notify, clears_the_record_before_it_is_released)
{
    sflow_intf_config_t *intf = add_interface(7, 1, 2);
    intf->snoop = SFLOW_INGRESS_BY_SNOOP;
    intf->acl_enable = true;
    for (acl_info_t &slot : intf->acl) {
        slot.enable = true;
        slot.enable_acl_id = 100;
        std::memset(slot.enable_acl_name, 'x', sizeof(slot.enable_acl_name) - 1);
    }
    sflow_intf_del_notify(7);
    ASSERT_EQ(world().released.size(), 1U);
    const sflow_intf_config_t &record = world().released[0];
    EXPECT_EQ(record.enable + record.cid + record.fid, 0U);
    EXPECT_EQ(record.snoop, 0);
    EXPECT_FALSE(record.acl_enable);
    for (const acl_info_t &slot : record.acl) {
        EXPECT_FALSE(slot.enable);
        EXPECT_EQ(slot.enable_acl_id, 0);
        EXPECT_THAT(slot.enable_acl_name, ::testing::Each('\0'));
    }
}

TEST_F(Poller_intf_del_notify, logs_a_list_that_cannot_be_released_and_goes_on)
{
    add_interface(7, 1, 2)->acl[1].enable_acl_id = 200;
    world().acl_unref_result = -1;
    sflow_intf_del_notify(7);
    EXPECT_EQ(find_interface(7), nullptr);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]receive intf event:7\n",
                            "[SFLOW-CONF][sflow_intf_del_notify] Failed to de-reference the ACL(0) rule\n",
                            "[SFLOW-CONF][sflow_intf_del_notify] Failed to de-reference the ACL(200) rule\n",
                            "[SFLOW-CONF]sflow_intf_del_notify c2p reform success.\n"));
}

TEST_F(Poller_intf_del_notify, asks_for_the_running_configuration_after_the_lock_is_released)
{
    add_interface(7, 1, 2);
    world().c2p_result = -1;
    sflow_intf_del_notify(7);
    EXPECT_THAT(world().c2p_requests, ElementsAre(Held::none));
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]sflow_intf_del_notify c2p reform failure.\n");
}

TEST_F(Poller_intf_del_notify, of_an_interface_with_counters_only_removes_them_and_changes_no_configuration)
{
    g_can_backup = true;
    update(7, {});
    fake::forget_checkpoints();
    fake::forget_syslog();
    sflow_intf_del_notify(7);
    EXPECT_EQ(cached(7), nullptr);
    ASSERT_EQ(fake::checkpoints().size(), 1U);
    EXPECT_THAT(world().rate_requests, IsEmpty());
    EXPECT_THAT(world().c2p_requests, IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]receive intf event:7\n",
                                                  "[SFLOW-EVENT]rdnd sflow send msg success\n"));
}
