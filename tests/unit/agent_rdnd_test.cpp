// Redundancy: the thread, the events, the batch, received records.
#include "agent_doubles.h"

#include "sflow_rdnd.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Redundancy : public agent_test
{
protected:
    ~Redundancy() override
    {
        sflow_rndn_ready = 0;
        g_can_backup = false;
    }

    static int handle(RDND_EVENT event, int data_len = 0, void *data = nullptr,
                      std::string name = "SFLOW_RDND")
    {
        return sflow_rdnd_handle_process(name.data(), event, data_len, data, nullptr);
    }
    static sflow_counter_node_t *cache(IFINDEX ifx, u_int32_t errors = 0)
    {
        sflow_config_wrlock();
        sflow_counter_node_t *node = sflow_poller_add_counter(ifx);
        node->generic.ifInErrors = errors;
        sflow_config_wrunlock();
        return node;
    }
    static std::vector<IFINDEX> cached()
    {
        std::vector<IFINDEX> order;
        sflow_config_rdlock();
        sflow_list_for_each<sflow_counter_node_t>(
            &sflow_counter_list, [&](const sflow_counter_node_t *node) { order.push_back(node->ifx); });
        sflow_config_rdunlock();
        return order;
    }
    static bool is_unlocked()
    {
        if (pthread_rwlock_trywrlock(&sflow_agent.config_lock.rwlock) != 0)
            return false;
        pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
        return true;
    }
};

using ifindexes = std::vector<IFINDEX>;

// ---- Thread ------------------------------------------------------------------------------------------------------

TEST_F(Redundancy, init_starts_a_detached_thread)
{
    const captured_thread_t &thread = capture_threads();
    EXPECT_EQ(sflow_rdnd_init(), 0);
    EXPECT_EQ(thread.created, 1);
    EXPECT_TRUE(thread.detached);
    EXPECT_EQ(debug_lines(), strings{"create rdnd thread success."});
}

TEST_F(Redundancy, init_without_a_thread_writes_both_lines)
{
    fail("pthread_create", EAGAIN);
    EXPECT_NE(sflow_rdnd_init(), 0);
    EXPECT_EQ(debug_lines(), (strings{"create rdnd thread failure.", "create rdnd thread success."}));
}

class Redundancy_thread : public Redundancy
{
protected:
    static void run()
    {
        char own_name[16] = {};
        pthread_getname_np(pthread_self(), own_name, sizeof(own_name));
        const captured_thread_t &thread = capture_threads();
        ASSERT_EQ(sflow_rdnd_init(), 0);
        thread.start(thread.arg);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        pthread_setname_np(pthread_self(), own_name);
        EXPECT_STREQ(name, "sflow_rdnd");
    }
};

TEST_F(Redundancy_thread, attaches_registers_and_proves_that_it_lives)
{
    run();
    EXPECT_EQ(fake::call_order(),
              (strings{"kx_thread_master_create", "rdnd_kx_thread_init", "rdnd_callback_register",
                       "ham_client_reg_thread_notify", "kx_thread_add_timer"}));
    EXPECT_EQ(fake::rdnd_registered_version(), 1UL);
    EXPECT_EQ(fake::rdnd_registered_arg(), nullptr);
    EXPECT_EQ(fake::armed_count("sflow-ham"), 1U);
}

TEST_F(Redundancy_thread, registers_the_event_handler)
{
    run();
    fake::set_role(RDND_ROLE_MASTER);
    EXPECT_EQ(fake::deliver_rdnd(RDND_E_STAT_READY), 0);
    EXPECT_EQ(sflow_rndn_ready, 1);
    EXPECT_EQ(fake::deliver_version_check(1), RDND_VERCHK_PASS);
}

TEST_F(Redundancy_thread, serves_its_master)
{
    static int served;
    served = 0;
    fake::set_idle_hook([] {
        if (served > 0)
            return false;
        kx_thread_add_event(
            fake::armed().front().master,
            [](kx_thread_t *) {
                served++;
                return 0;
            },
            nullptr);
        return true;
    });
    run();
    EXPECT_EQ(served, 1);
}

struct attach_failure_t {
    const char *name;
    const char *function;
    const char *text;
};

class Redundancy_attach : public Redundancy_thread, public ::testing::WithParamInterface<attach_failure_t>
{
};

TEST_P(Redundancy_attach, failure_ends_the_process_with_status_0)
{
    fake::fail_next(GetParam().function);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), std::string("redundancy service: ") + GetParam().text);
    EXPECT_EQ(debug_lines(), (strings{"create rdnd thread success.", GetParam().text}));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, Redundancy_attach,
    ::testing::Values(attach_failure_t{"master", "kx_thread_master_create", "create thread failure."},
                      attach_failure_t{"service", "rdnd_kx_thread_init", "rdnd thread init failure."},
                      attach_failure_t{"handler", "rdnd_callback_register", "rdnd callback failure."}),
    [](const auto &info) { return info.param.name; });

// ---- Events ------------------------------------------------------------------------------------------------------

TEST_F(Redundancy, event_under_another_name_is_refused)
{
    EXPECT_EQ(handle(RDND_E_STAT_READY, 0, nullptr, "OTHER"), -1);
    EXPECT_EQ(handle(RDND_E_STAT_READY, 0, nullptr, "SFLOW_RDND2"), -1);
    EXPECT_EQ(sflow_rdnd_handle_process(nullptr, RDND_E_STAT_READY, 0, nullptr, nullptr), -1);
    EXPECT_EQ(sflow_rndn_ready, 0);
    EXPECT_EQ(debug_lines(), strings(3, "rdnd name compare error."));
}

struct event_t {
    const char *name;
    RDND_EVENT event;
    strings lines;
    strings done; ///< calls of the other modules
};

constexpr char PENDING_SENT[] = "send(agent 0, source 0)";

const event_t events[] = {
    {"ready", RDND_E_STAT_READY, {"rdnd RDND_E_STAT_READY", "rdnd master."}, {}},
    {"batch", RDND_E_BATCH_SYN_REQ, {"rdnd RDND_E_BATCH_SYN_REQ"}, {}},
    {"will_switchover", RDND_E_WILL_SWITCHOVER, {"rdnd RDND_E_WILL_SWITCHOVER"}, {}},
    {"fast_switchover", RDND_E_FAST_SWITCHOVER, {"rdnd unknown"}, {}},
    {"switchover", RDND_E_SWITCHOVER, {"rdnd RDND_E_SWITCHOVER"}, {PENDING_SENT}},
    {"switchover_end",
     RDND_E_SWITCHOVER_END,
     {"rdnd RDND_E_SWITCHOVER_END", "create one second thread success."},
     {"save_counter"}},
    {"backup_msg", RDND_E_BACKUP_MSG, {}, {}},
    {"unknown", static_cast<RDND_EVENT>(99), {"rdnd unknown"}, {}},
};

class Redundancy_event : public Redundancy, public ::testing::WithParamInterface<event_t>
{
};

TEST_P(Redundancy_event, is_written_down_and_answered_with_0)
{
    capture_threads();
    fake::set_role(RDND_ROLE_MASTER);
    EXPECT_EQ(handle(GetParam().event), 0);
    EXPECT_EQ(debug_lines(), GetParam().lines);
    EXPECT_EQ(calls(), GetParam().done);
    EXPECT_TRUE(is_unlocked());
}

INSTANTIATE_TEST_SUITE_P(Events, Redundancy_event, ::testing::ValuesIn(events),
                         [](const auto &info) { return info.param.name; });

struct ready_t {
    const char *name;
    rdnd_role role;
    strings lines;
};

class Redundancy_ready : public Redundancy, public ::testing::WithParamInterface<ready_t>
{
};

TEST_P(Redundancy_ready, lets_the_timer_go_and_names_the_role)
{
    sflow_debug_event = true;
    fake::set_role(GetParam().role);
    fake::set_state(RDND_STAT_REALTIME);
    rdnd_sflow_event_ready();
    EXPECT_EQ(sflow_rndn_ready, 1);
    EXPECT_EQ(debug_lines(), GetParam().lines);
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-EVENT]RDND sflow current role " +
                                            std::to_string(GetParam().role) + " state 3.\n"});
}

INSTANTIATE_TEST_SUITE_P(Roles, Redundancy_ready,
                         ::testing::Values(ready_t{"none", RDND_ROLE_NONE, {}},
                                           ready_t{"alone", RDND_ROLE_ALONE, {}},
                                           ready_t{"master", RDND_ROLE_MASTER, {"rdnd master."}},
                                           ready_t{"slave", RDND_ROLE_SLAVE, {"rdnd slave."}},
                                           ready_t{"candidate", RDND_ROLE_CANDIDATE, {}}),
                         [](const auto &info) { return info.param.name; });

struct version_t {
    const char *name;
    rdnd_role role;
    unsigned long version;
    rdnd_issu_result answer;
};

class Redundancy_version : public Redundancy, public ::testing::WithParamInterface<version_t>
{
};

TEST_P(Redundancy_version, is_judged_by_role_and_number)
{
    fake::set_role(GetParam().role);
    EXPECT_EQ(sflow_version_check(GetParam().version), GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, Redundancy_version,
    ::testing::Values(version_t{"master_1", RDND_ROLE_MASTER, 1, RDND_VERCHK_PASS},
                      version_t{"slave_1", RDND_ROLE_SLAVE, 1, RDND_VERCHK_PASS},
                      version_t{"master_2", RDND_ROLE_MASTER, 2, RDND_VERCHK_NG},
                      version_t{"slave_0", RDND_ROLE_SLAVE, 0, RDND_VERCHK_NG},
                      version_t{"master_1_and_32_more_bits", RDND_ROLE_MASTER, 0x100000001, RDND_VERCHK_NG},
                      version_t{"alone_1", RDND_ROLE_ALONE, 1, RDND_VERCHK_ERROR},
                      version_t{"none_1", RDND_ROLE_NONE, 1, RDND_VERCHK_ERROR},
                      version_t{"candidate_2", RDND_ROLE_CANDIDATE, 2, RDND_VERCHK_ERROR}),
    [](const auto &info) { return info.param.name; });

TEST_F(Redundancy, version_check_answers_with_the_judgement_of_the_peers_version)
{
    capture_threads();
    ASSERT_EQ(sflow_rdnd_init(), 0);
    rdnd_kx_thread_init(kx_thread_master_create(), 0, 0);
    rdnd_callback_register("SFLOW_RDND", 1, sflow_rdnd_handle_process, 0, nullptr);
    sflow_debug_event = true;
    fake::set_role(RDND_ROLE_SLAVE);
    EXPECT_EQ(fake::deliver_version_check(1), RDND_VERCHK_PASS);
    EXPECT_EQ(fake::deliver_version_check(2), RDND_VERCHK_NG);
    fake::set_role(RDND_ROLE_ALONE);
    EXPECT_EQ(fake::deliver_version_check(2), RDND_VERCHK_ERROR);
    EXPECT_EQ(fake::syslog_texts(), strings(3, "[SFLOW-EVENT]rdnd sflow RDND_E_VERSION_CHECK\n"));
    EXPECT_EQ(debug_lines().back(), "rdnd RDND_E_VERSION_CHECK");
}

TEST_F(Redundancy, switchover_cancels_a_running_timer_and_acknowledges)
{
    behaviour.cancel = false;
    capture_threads();
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    EXPECT_EQ(handle(RDND_E_SWITCHOVER), 0);
    EXPECT_EQ(calls(), (strings{"cancel", PENDING_SENT})) << "a datagram is not left for the next time";
    EXPECT_TRUE(is_unlocked());
    EXPECT_EQ(sflow_agent.timer_flag, 0);
    ASSERT_EQ(fake::call_count("rdnd_notify_completion"), 1U);
    EXPECT_NE(fake::calls("rdnd_notify_completion")[0].find("SFLOW_RDND"), std::string::npos);
    EXPECT_NE(fake::calls("rdnd_notify_completion")[0].find("1"), std::string::npos);
}

TEST_F(Redundancy, switchover_without_a_timer_sends_what_is_pending_and_acknowledges)
{
    EXPECT_EQ(handle(RDND_E_SWITCHOVER), 0);
    EXPECT_EQ(calls(), strings{PENDING_SENT});
    EXPECT_EQ(fake::call_count("rdnd_notify_completion"), 1U);
}

TEST_F(Redundancy, end_of_switchover_starts_the_timer_and_saves_the_cache)
{
    const captured_thread_t &thread = capture_threads();
    EXPECT_EQ(handle(RDND_E_SWITCHOVER_END), 0);
    EXPECT_EQ(thread.created, 1);
    EXPECT_EQ(thread.arg, &sflow_agent);
    EXPECT_EQ(sflow_agent.timer_flag, 1);
    EXPECT_EQ(calls(), strings{"save_counter"});
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Redundancy, end_of_switchover_keeps_a_running_timer)
{
    capture_threads();
    ASSERT_EQ(sflow_agent_timer_init(&sflow_agent), 0);
    const captured_thread_t &thread = capture_threads();
    EXPECT_EQ(handle(RDND_E_SWITCHOVER_END), 0);
    EXPECT_EQ(thread.created, 0);
    EXPECT_EQ(calls(), strings{"save_counter"});
}

// ---- Batch -------------------------------------------------------------------------------------------------------

constexpr char BATCH_START[] = "[SFLOW-EVENT]RDND sflow batch sync start.\n";

TEST_F(Redundancy, batch_sends_the_whole_cache_in_order_and_completes)
{
    sflow_debug_event = true;
    cache(9, 90);
    cache(3, 30);
    rdnd_sflow_batch_sync();
    ASSERT_EQ(fake::checkpoints().size(), 2U);
    const std::pair<IFINDEX, u_int32_t> expected[] = {{9, 90}, {3, 30}};
    for (size_t i = 0; i < 2; i++) {
        const fake::Checkpoint checkpoint = fake::checkpoints()[i];
        EXPECT_EQ(checkpoint.name, "SFLOW_RDND");
        ASSERT_EQ(checkpoint.data.size(), 176U);
        rdnd_sflow_counter_t record = {};
        std::memcpy(&record, checkpoint.data.data(), sizeof(record));
        EXPECT_EQ(record.rdnd_type, 1);
        EXPECT_EQ(record.counter.ifx, expected[i].first);
        EXPECT_EQ(record.counter.generic.ifInErrors, expected[i].second);
    }
    EXPECT_EQ(fake::call_count("rdnd_notify_completion"), 1U);
    EXPECT_NE(fake::calls("rdnd_notify_completion")[0].find("0"), std::string::npos);
    EXPECT_TRUE(g_can_backup);
    EXPECT_EQ(fake::syslog_texts(), (strings{BATCH_START, "[SFLOW-EVENT]RDND sflow batch sync finish.\n"}));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Redundancy, batch_of_an_empty_cache_completes_at_once)
{
    rdnd_sflow_batch_sync();
    EXPECT_TRUE(fake::checkpoints().empty());
    EXPECT_EQ(fake::call_count("rdnd_notify_completion"), 1U);
    EXPECT_TRUE(g_can_backup);
}

TEST_F(Redundancy, batch_that_is_told_to_stop_sends_no_completion_and_forbids_messages)
{
    sflow_debug_event = true;
    cache(1);
    cache(2);
    cache(3);
    fake::fail_next("rdnd_chkpnt_enqueue", 0);
    fake::fail_next("rdnd_chkpnt_enqueue", 2);
    rdnd_sflow_batch_sync();
    EXPECT_EQ(fake::call_count("rdnd_chkpnt_enqueue"), 2U) << "the walk ends there";
    EXPECT_EQ(fake::call_count("rdnd_notify_completion"), 0U);
    EXPECT_FALSE(g_can_backup);
    EXPECT_EQ(fake::syslog_texts(),
              (strings{BATCH_START, "[SFLOW-EVENT]RDND stop sending sflow backup msg.\n"}));
    EXPECT_TRUE(is_unlocked());

    rdnd_sflow_batch_sync();
    EXPECT_TRUE(g_can_backup) << "the next request allows them again";
}

class Redundancy_batch_failure : public Redundancy, public ::testing::WithParamInterface<int>
{
};

TEST_P(Redundancy_batch_failure, still_completes_and_still_allows_messages)
{
    sflow_debug_event = true;
    cache(1);
    cache(2);
    fake::fail_next("rdnd_chkpnt_enqueue", GetParam());
    rdnd_sflow_batch_sync();
    EXPECT_EQ(fake::call_count("rdnd_chkpnt_enqueue"), 1U);
    EXPECT_EQ(fake::call_count("rdnd_notify_completion"), 1U);
    EXPECT_TRUE(g_can_backup);
    EXPECT_EQ(fake::syslog_texts(), (strings{BATCH_START, "[SFLOW-EVENT]RDND sflow batch sync failed.\n"}));
}

INSTANTIATE_TEST_SUITE_P(Results, Redundancy_batch_failure, ::testing::Values(-1, 1, 3));

// ---- Received records --------------------------------------------------------------------------------------------

class Redundancy_record : public Redundancy
{
protected:
    /// The record of a peer, as bytes, with rubbish wherever nothing is read.
    static std::vector<std::byte> bytes(int32_t rdnd_type, IFINDEX ifx, u_int32_t errors)
    {
        rdnd_sflow_counter_t record;
        std::memset(&record, 0xee, sizeof(record));
        record.rdnd_type = rdnd_type;
        record.counter.ifx = ifx;
        record.counter.generic = {};
        record.counter.generic.ifInErrors = errors;
        record.counter.ether = {};
        record.counter.ether.dot3StatsSymbolErrors = errors + 1;
        std::vector<std::byte> data(sizeof(record));
        std::memcpy(data.data(), &record, sizeof(record));
        return data;
    }
    static void receive(std::vector<std::byte> data)
    {
        EXPECT_EQ(handle(RDND_E_BACKUP_MSG, static_cast<int>(data.size()), data.data()), 0);
        EXPECT_TRUE(is_unlocked());
    }
};

TEST_F(Redundancy_record, adds_an_interface)
{
    cache(2);
    receive(bytes(1, 5, 50));
    EXPECT_EQ(cached(), (ifindexes{2, 5}));
    sflow_config_rdlock();
    const sflow_counter_node_t *node = sflow_poller_get_counter(5);
    EXPECT_EQ(node->generic.ifInErrors, 50U);
    EXPECT_EQ(node->ether.dot3StatsSymbolErrors, 51U);
    sflow_config_rdunlock();
    EXPECT_EQ(calls(), strings{}) << "the file waits for the end of a switch-over";
    EXPECT_EQ(debug_lines(), strings{});
}

TEST_F(Redundancy_record, updates_an_interface_in_its_place)
{
    const sflow_counter_node_t *node = cache(5, 1);
    cache(6);
    const sflow_list_t links = node->list;
    receive(bytes(1, 5, 50));
    EXPECT_EQ(cached(), (ifindexes{5, 6}));
    EXPECT_EQ(node->generic.ifInErrors, 50U);
    EXPECT_EQ(node->ifx, 5U);
    EXPECT_EQ(node->list.next, links.next);
    EXPECT_EQ(node->list.prev, links.prev);
}

TEST_F(Redundancy_record, of_any_type_but_1_deletes)
{
    for (const int32_t type : {0, 2, -1}) {
        cache(5);
        cache(6);
        receive(bytes(type, 5, 0));
        EXPECT_EQ(cached(), ifindexes{6}) << type;
        receive(bytes(type, 6, 0));
        EXPECT_EQ(cached(), ifindexes{});
    }
}

TEST_F(Redundancy_record, that_deletes_an_unknown_interface_does_nothing)
{
    cache(5);
    receive(bytes(0, 6, 0));
    EXPECT_EQ(cached(), ifindexes{5});
}

TEST_F(Redundancy_record, is_lost_without_memory)
{
    behaviour.node_memory = false;
    receive(bytes(1, 5, 50));
    EXPECT_EQ(cached(), ifindexes{});
}

TEST_F(Redundancy_record, may_lie_at_any_address)
{
    std::vector<std::byte> data = bytes(1, 5, 50);
    data.insert(data.begin(), std::byte{0});
    EXPECT_EQ(handle(RDND_E_BACKUP_MSG, 176, data.data() + 1), 0);
    EXPECT_EQ(cached(), ifindexes{5});
}

class Redundancy_record_length : public Redundancy_record, public ::testing::WithParamInterface<int>
{
};

TEST_P(Redundancy_record_length, other_than_176_is_refused)
{
    sflow_debug_event = true;
    cache(5, 1);
    std::vector<std::byte> data = bytes(1, 5, 50);
    data.resize(200);
    EXPECT_EQ(handle(RDND_E_BACKUP_MSG, GetParam(), data.data()), 0);
    const std::vector<std::byte> deletion = bytes(0, 5, 0);
    std::memcpy(data.data(), deletion.data(), deletion.size());
    EXPECT_EQ(handle(RDND_E_BACKUP_MSG, GetParam(), data.data()), 0);
    EXPECT_EQ(cached(), ifindexes{5});
    sflow_config_rdlock();
    EXPECT_EQ(sflow_poller_get_counter(5)->generic.ifInErrors, 1U);
    sflow_config_rdunlock();
    const std::string line =
        "[SFLOW-EVENT]rdnd_sflow_proc_backup_msg data_len is error:data_len = " + std::to_string(GetParam()) +
        "\n";
    EXPECT_EQ(fake::syslog_texts(), strings(2, line));
}

INSTANTIATE_TEST_SUITE_P(Lengths, Redundancy_record_length, ::testing::Values(-1, 0, 175, 177, 352));

} // namespace
