// Real-time checkpoints: mirrors each change of the counter cache to the standby control CPU.
//
// Runs inside the change's own `config_lock`, on the thread that makes it. Never retries: what is lost is
// repaired by the next update of the same interface or by the next batch synchronisation.
#include "sflow_poller.h"

#include "sflow_dbg.h"

#include <cstring>

rdnd_sflow_counter_t sflow_rdnd_counter_record(int32_t rdnd_type, const sflow_counter_node_t *counter)
{
    rdnd_sflow_counter_t record = {};
    record.rdnd_type = rdnd_type;
    std::memcpy(&record.counter, counter, sizeof(record.counter));
    record.counter.list = {};
    return record;
}

static void send_record(int32_t rdnd_type, const sflow_counter_node_t *counter)
{
    if (!sflow_load(g_can_backup))
        return;
    const rdnd_sflow_counter_t record = sflow_rdnd_counter_record(rdnd_type, counter);
    switch (rdnd_chkpnt_enqueue(SFLOW_RDND_NAME, static_cast<int>(sizeof(record)), &record, 0)) {
    case RDND_ENQUEUE_OK:
        SFLOW_LOG_EVENT("[SFLOW-EVENT]rdnd sflow send msg success\n");
        break;
    case RDND_ENQUEUE_STOP:
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND stop send sflow backup msg.\n");
        sflow_store(g_can_backup, false);
        break;
    case RDND_ENQUEUE_FAILED:
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow send backup msg failed.\n");
        break;
    default:
        SFLOW_LOG_EVENT("[SFLOW-EVENT]RDND sflow send backup msg return unknown.\n");
        break;
    }
}

void sflow_rdnd_realtime_add_msg(const sflow_counter_node_t *counter)
{
    send_record(SFLOW_RDND_ADD_COUNTER, counter);
}

void sflow_rdnd_realtime_del_msg(const sflow_counter_node_t *counter)
{
    send_record(SFLOW_RDND_DEL_COUNTER, counter);
}
