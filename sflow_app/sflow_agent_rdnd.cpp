// Redundancy: follows the role of this control CPU and keeps the standby's counter cache equal to the
// master's.
//
// Thread "sflow_rdnd" runs a master loop in which the redundancy service delivers its events, one at a time.
// Without the service a unit cannot know whether it may export, so that a failure to attach ends the process.

#include "sflow_rdnd.h"

#include "sflow_agent_internal.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

bool g_can_backup = false;

namespace
{

pthread_t sflow_rdnd_tid;

/// What an event does, and its line in the debug file. Events without `text` come too often to be written
/// down.
struct rdnd_action_t {
    RDND_EVENT event;
    const char *text;
    int (*act)(int data_len, void *data_buf);
};

int act_ready(int, void *)
{
    rdnd_sflow_event_ready();
    return 0;
}

int act_version_check(int data_len, void *data_buf)
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]rdnd sflow RDND_E_VERSION_CHECK\n");
    return sflow_version_check(rdnd_get_version(data_len, data_buf));
}

int act_batch_sync(int, void *)
{
    rdnd_sflow_batch_sync();
    return 0;
}

int act_nothing(int, void *)
{
    return 0;
}

int act_switchover(int, void *)
{
    sflow_agent_timer_cancel(&sflow_agent);
    // What is pending leaves while this unit is still the active one, and is dropped when it is not.
    sflow_config_wrlock();
    sflow_receiver_send_all_receiver_sample();
    sflow_config_wrunlock();
    rdnd_notify_completion(SFLOW_RDND_NAME, RDND_NOTIFY_SWITCHOVER);
    return 0;
}

int act_switchover_end(int, void *)
{
    if (sflow_load(sflow_agent.timer_flag) == 0)
        sflow_agent_timer_init(&sflow_agent);
    sflow_config_wrlock();
    sflow_poller_save_counter();
    sflow_config_wrunlock();
    return 0;
}

int act_backup_msg(int data_len, void *data_buf)
{
    rdnd_sflow_proc_backup_msg(data_len, data_buf);
    return 0;
}

const rdnd_action_t actions[] = {
    {RDND_E_STAT_READY, "rdnd RDND_E_STAT_READY", act_ready},
    {RDND_E_VERSION_CHECK, "rdnd RDND_E_VERSION_CHECK", act_version_check},
    {RDND_E_BATCH_SYN_REQ, "rdnd RDND_E_BATCH_SYN_REQ", act_batch_sync},
    {RDND_E_WILL_SWITCHOVER, "rdnd RDND_E_WILL_SWITCHOVER", act_nothing},
    {RDND_E_SWITCHOVER, "rdnd RDND_E_SWITCHOVER", act_switchover},
    {RDND_E_SWITCHOVER_END, "rdnd RDND_E_SWITCHOVER_END", act_switchover_end},
    {RDND_E_BACKUP_MSG, nullptr, act_backup_msg},
};

/// A take-over without notice has no work of its own: the switch-over's end follows it.
constexpr rdnd_action_t other_action = {RDND_E_FAST_SWITCHOVER, "rdnd unknown", act_nothing};

const rdnd_action_t &find_action(RDND_EVENT event)
{
    for (const rdnd_action_t &action : actions) {
        if (action.event == event)
            return action;
    }
    return other_action;
}

[[noreturn]] void end_process(kx_thread_master_t *master, int line, const char *text)
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_agent.c", line, text);
    sflow_tell_starter("cannot use the redundancy service: %s The platform's log may say more.", text);
    if (master != nullptr)
        kx_thread_master_finish(master);
    std::exit(0);
}

kx_thread_master_t *attach()
{
    kx_thread_master_t *master = kx_thread_master_create();
    if (master == nullptr)
        end_process(master, __LINE__, "create thread failure.");
    if (rdnd_kx_thread_init(master, 0, 0) < 0)
        end_process(master, __LINE__, "rdnd thread init failure.");
    if (rdnd_callback_register(SFLOW_RDND_NAME, SFLOW_RDND_VERSION, sflow_rdnd_handle_process, 0, nullptr) !=
        0)
        end_process(master, __LINE__, "rdnd callback failure.");
    return master;
}

void *sflow_rdnd_proc(void *)
{
    pthread_setname_np(pthread_self(), "sflow_rdnd");
    kx_thread_master_t *master = attach();
    sflow_init_dead_detection(master);
    // main starts this thread before it completes the record that the handlers work on.
    sflow_agent_wait_complete();
    kx_thread_t task = {};
    while (kx_thread_fetch(master, &task) != nullptr)
        kx_thread_call(&task);
    return nullptr;
}

/// The first result that is not 0 ends the walk.
int enqueue_cache() SFLOW_REQUIRES(sflow_agent.config_lock)
{
    int ret = RDND_ENQUEUE_OK;
    sflow_list_find<sflow_counter_node_t>(&sflow_counter_list, [&ret](const sflow_counter_node_t *node) {
        const rdnd_sflow_counter_t record = sflow_rdnd_counter_record(SFLOW_RDND_ADD_COUNTER, node);
        ret = rdnd_chkpnt_enqueue(SFLOW_RDND_NAME, static_cast<int>(sizeof(record)), &record, 0);
        return ret != RDND_ENQUEUE_OK;
    });
    return ret;
}

void apply_backup(const rdnd_sflow_counter_t &record) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_counter_node_t *node = sflow_poller_get_counter(record.counter.ifx);
    if (record.rdnd_type != SFLOW_RDND_ADD_COUNTER) {
        if (node != nullptr)
            sflow_poller_free_counter(node);
        return;
    }
    if (node == nullptr)
        node = sflow_poller_add_counter(record.counter.ifx);
    if (node == nullptr)
        return;
    sflow_poller_set_counter(node, record.counter.generic, record.counter.ether);
}

} // namespace

int sflow_rdnd_init()
{
    const int ret = sflow_create_depatch_thread(&sflow_rdnd_tid, sflow_rdnd_proc, nullptr);
    if (ret != 0)
        SFLOW_AGENT_DEBUG("create rdnd thread failure.");
    // Also after a failure: those who read the file go by the line before it.
    SFLOW_AGENT_DEBUG("create rdnd thread success.");
    return ret;
}

int sflow_rdnd_handle_process(char *name, RDND_EVENT event, int data_len, void *data_buf, void *)
{
    if (name == nullptr || std::strcmp(name, SFLOW_RDND_NAME) != 0) {
        SFLOW_AGENT_DEBUG("rdnd name compare error.");
        return -1;
    }
    const rdnd_action_t &action = find_action(event);
    if (action.text != nullptr)
        SFLOW_AGENT_DEBUG(action.text);
    return action.act(data_len, data_buf);
}

rdnd_issu_result sflow_version_check(unsigned long remote_ver)
{
    const rdnd_role role = rdnd_get_role();
    if (role != RDND_ROLE_MASTER && role != RDND_ROLE_SLAVE)
        return RDND_VERCHK_ERROR;
    return remote_ver == SFLOW_RDND_VERSION ? RDND_VERCHK_PASS : RDND_VERCHK_NG;
}

void rdnd_sflow_event_ready()
{
    const rdnd_role role = rdnd_get_role();
    const rdnd_stat state = rdnd_get_state();
    SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow current role %d state %d.\n", role, state);
    sflow_store(sflow_rndn_ready, 1);
    if (role == RDND_ROLE_MASTER)
        SFLOW_AGENT_DEBUG("rdnd master.");
    else if (role == RDND_ROLE_SLAVE)
        SFLOW_AGENT_DEBUG("rdnd slave.");
}

void rdnd_sflow_batch_sync()
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow batch sync start.\n");
    // Under one lock: no update slips between the copy of a record and the permission to send updates.
    sflow_config_wrlock();
    sflow_store(g_can_backup, true);
    const int ret = enqueue_cache();
    if (ret == RDND_ENQUEUE_STOP)
        sflow_store(g_can_backup, false);
    sflow_config_wrunlock();

    if (ret == RDND_ENQUEUE_STOP) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND stop sending sflow backup msg.\n");
        return;
    }
    if (ret == RDND_ENQUEUE_OK)
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow batch sync finish.\n");
    else
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow batch sync failed.\n");
    rdnd_notify_completion(SFLOW_RDND_NAME, RDND_NOTIFY_BATCH);
}

void rdnd_sflow_proc_backup_msg(int data_len, const void *data_buf)
{
    rdnd_sflow_counter_t record = {};
    if (data_len != static_cast<int>(sizeof(record))) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s data_len is error:data_len = %d\n", __func__, data_len);
        return;
    }
    std::memcpy(&record, data_buf, sizeof(record));
    sflow_config_wrlock();
    apply_backup(record);
    sflow_config_wrunlock();
}
