// Messages to and from the sampling service: the records that the daemon sends, the handlers of those it receives,
// their registration with the server and the replay of the configuration to a service that has just connected.
//
// Senders run on whatever thread needs them, put one record into the server's queue and take no lock of their own.
// Handlers run on the server's receive thread, one at a time. The answers to configuration requests are in
// sflow_cli_msg_config.cpp. Nothing here waits for the service: what a request achieved is known when its answer
// arrives, and only then does the configuration change.
//
// Records in a packet follow one another at any alignment, and the service decides their length: a handler copies
// what it reads, and drops a record that is shorter than its kind.
#include "sflow_cli_msg.h"

#include "sflow_agent.h"
#include "sflow_atomic.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_poller.h"
#include "sflow_process.h"

#include <cstring>

u_int32_t sflow_intf_support_flag = SFLOW_INTF_NONE;
u_int32_t sflow_hw_support_is_set = 0;

namespace
{

void sflow_msg_log(const char *text, int line = __builtin_LINE())
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_cli_msg.c", line, text);
}

/// Completes the header of a record and queues it; the queue's answer.
template <typename Record>
int sflow_msg_send(Record *record, sflow_cmd_t type)
{
    record->head = {type, sizeof(Record)};
    return sflow_lib_server_send_msg(reinterpret_cast<const char *>(record), sizeof(Record));
}

struct sflow_bare_msg_t {
    sflow_msg_head_t head;
};

int sflow_msg_send_bare(sflow_cmd_t type)
{
    sflow_bare_msg_t record = {};
    return sflow_msg_send(&record, type);
}

/// Whether `msg` is a whole record of `size` bytes and type `type`; otherwise `function`, its handler, says why not.
bool sflow_event_msg_is_valid(const char *msg, sflow_cmd_t type, size_t size, const char *function)
{
    if (msg == nullptr) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s msg is NULL\n", function);
        return false;
    }
    sflow_msg_head_t head;
    memcpy(&head, msg, sizeof(head));
    if (head.type != type) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s type is invalid:0x%x\n", function, head.type);
        return false;
    }
    if (head.len < size) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s len is invalid:%d\n", function, head.len);
        return false;
    }
    return true;
}

/// Sends one direction's setting; what limits sampling to part of the traffic exists for ingress only.
int sflow_send_spl_msg(IFINDEX ifx, int rate, sflow_direct_t direct, int ifx_type, int acl_id,
                       const char *acl_name, int snoop)
{
    sflow_spl_t record = {};
    record.ifx = ifx;
    record.rate = rate;
    record.direct = direct;
    record.ifx_type = ifx_type;
    if (direct == SFLOW_INGRESS) {
        record.snoop = snoop;
        record.acl_id = acl_id;
        if (acl_name != nullptr)
            memcpy(record.acl_name, acl_name, strnlen(acl_name, sizeof(record.acl_name)));
    }
    const int result = sflow_msg_send(&record, SFLOW_CMD_SET_SAMPLING_RATE);
    if (result != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]send set sampling rate fail:ifx:%d, rate:%d\n", ifx, rate);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]send set sampling rate success:ifx:%d, rate:%d\n", ifx, rate);
    return result;
}

/// Everything a freshly connected service must know of the interfaces and the global settings.
void sflow_replay_config()
{
    sflow_config_rdlock();
    sflow_reflush_intf_config(sflow_agent.g_config.samplingrate);
    if (sflow_flow_header_len_msg(static_cast<int>(sflow_agent.g_config.sslen)) == 0)
        sflow_msg_log("send flow len success");
    else
        sflow_msg_log("send flow len fail");
    sflow_config_rdunlock();
}

void sflow_set_ss_ready()
{
    const bool held = pthread_mutex_lock(&sflow_agent.cli_lock.mutex) == 0;
    if (!held)
        sflow_msg_log("lock fail");
    sflow_set_bits(sflow_agent.cli_ready_flag, static_cast<u_int32_t>(SFLOW_CLI_SS_READY_FLAG));
    if (held)
        pthread_mutex_unlock(&sflow_agent.cli_lock.mutex);
    sflow_msg_log("ss ready");
}

struct sflow_msg_handler_t {
    sflow_cmd_t cmd;
    sflow_deal_msg_t handler;
};

constexpr sflow_msg_handler_t sflow_msg_handlers[] = {
    {SFLOW_CMD_GET_COUNTER_RET, sflow_get_counter_ret_msg},
    {SFLOW_CMD_SET_SAMPLING_RATE_RET, sflow_set_sampling_rate_ret_msg},
    {SFLOW_CMD_FLOW_SAMPLING, sflow_flow_sampler_msg},
    {SFLOW_CMD_UPDATE_COUNTER, sflow_update_counter_msg},
    {SFLOW_CMD_CONFIG_REQUEST, sflow_request_msg},
    {SFLOW_CMD_IFX_IS_CONF_RET, sflow_ifx_is_conf_ret_msg},
    {SFLOW_CMD_HD_CAPACITY, sflow_hd_capacity_msg},
};

} // namespace

int sflow_config_register()
{
    for (const auto &[cmd, handler] : sflow_msg_handlers) {
        if (sflow_lib_server_cmd_register(cmd, handler) != 0) {
            sflow_config_unregister();
            return -1;
        }
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]%s:ok\n", __func__);
    return 0;
}

void sflow_config_unregister()
{
    for (const auto &row : sflow_msg_handlers)
        sflow_lib_server_cmd_unregister(row.cmd);
    SFLOW_LOG_CONF("[SFLOW-CONF]%s:ok!\n", __func__);
}

// ---- Senders -------------------------------------------------------------------------------------------------------

int sflow_get_counter_msg(IFINDEX ifx, int ifx_type)
{
    sflow_counter_t record = {};
    record.ifx = ifx;
    record.ifx_type = ifx_type;
    const int result = sflow_msg_send(&record, SFLOW_CMD_GET_COUNTER);
    if (result != 0)
        SFLOW_LOG_EVENT("[SFLOW-EVENT]send get counter fail:ifx:%d\n", ifx);
    else
        SFLOW_LOG_EVENT("[SFLOW-EVENT]send get counter success:ifx:%d\n", ifx);
    return result;
}

int sflow_set_sampling_rate_msg(IFINDEX ifx, int rate, int direct, int ifx_type, int acl_id,
                                const char *acl_name, int snoop)
{
    switch (direct) {
    case SFLOW_INGRESS:
        return sflow_send_spl_msg(ifx, rate, SFLOW_INGRESS, ifx_type, acl_id, acl_name, snoop);
    case SFLOW_EGRESS:
        return sflow_send_spl_msg(ifx, rate, SFLOW_EGRESS, ifx_type, acl_id, acl_name, snoop);
    case SFLOW_BOTH:
        // Egress is sent, and decides the result, whatever became of ingress, which is logged.
        sflow_send_spl_msg(ifx, rate, SFLOW_INGRESS, ifx_type, acl_id, acl_name, snoop);
        return sflow_send_spl_msg(ifx, rate, SFLOW_EGRESS, ifx_type, acl_id, acl_name, snoop);
    default:
        return -1;
    }
}

int sflow_flow_header_len_msg(int len)
{
    sflow_sample_header_len_t record = {};
    record.header_len = static_cast<u_int32_t>(len);
    const int result = sflow_msg_send(&record, SFLOW_CMD_SAMPLE_HEADER_LEN);
    if (result != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]send flow header len fail:len:%d\n", len);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]send flow header len success:len:%d\n", len);
    return result;
}

int sflow_ifx_is_conf_msg(IFINDEX ifx, int cid, int flag)
{
    sflow_ifx_is_conf_t record = {};
    record.ifx = ifx;
    record.flag = flag;
    record.cid = cid;
    const int result = sflow_msg_send(&record, SFLOW_CMD_IFX_IS_CONF);
    if (result != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]send ifx configure fail:ifx:%d, cid:%d, flag:%d\n", ifx, cid, flag);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]send ifx configure success:ifx:%d, cid:%d, flag:%d\n", ifx, cid, flag);
    return result;
}

void sflow_send_debug_msg(int type, int flag)
{
    sflow_debug_t record = {};
    record.type = type;
    record.flag = flag;
    if (sflow_msg_send(&record, SFLOW_CMD_DEBUG) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]send debug fail:type:%d, flag:%d\n", type, flag);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]send debug success:type:%d, flag:%d\n", type, flag);
}

// ---- Handlers ------------------------------------------------------------------------------------------------------

void sflow_get_counter_ret_msg(char *msg)
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]recv counter msg\n");
    sflow_counter_ret_t record;
    if (!sflow_event_msg_is_valid(msg, SFLOW_CMD_GET_COUNTER_RET, sizeof(record), __func__))
        return;
    memcpy(&record, msg, sizeof(record));
    if (sflow_pi_counter_msg_enqueue(&record, SFLOW_MSG_GET_COUNTER_RSP) < 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s sflow_pi_counter_msg_enqueue fail", __func__);
}

void sflow_update_counter_msg(char *msg)
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]recv update counter msg\n");
    sflow_counter_ret_t record;
    if (!sflow_event_msg_is_valid(msg, SFLOW_CMD_UPDATE_COUNTER, sizeof(record), __func__))
        return;
    memcpy(&record, msg, sizeof(record));
    record.ifx = record.generic.ifIndex; // an update names its interface there only
    sflow_pi_counter_msg_enqueue(&record, SFLOW_MSG_UPDATE_COUNTER);
}

void sflow_flow_sampler_msg(char *msg)
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]recv flow sampling msg\n");
    if (!sflow_event_msg_is_valid(msg, SFLOW_CMD_FLOW_SAMPLING, sizeof(sflow_flow_spl_t), __func__))
        return;
    // The frame's bytes are encoded from where they lie; only the numbers need a copy.
    int32_t buf_len;
    sflow_flow_info_t info;
    memcpy(&buf_len, msg + offsetof(sflow_flow_spl_t, buf_len), sizeof(buf_len));
    memcpy(&info, msg + offsetof(sflow_flow_spl_t, info), sizeof(info));
    sflow_pi_flow_sampling(msg + offsetof(sflow_flow_spl_t, buf), buf_len, info);
}

void sflow_hd_capacity_msg(char *msg)
{
    sflow_hardware_capacity_t record;
    sflow_msg_head_t head = {};
    if (msg != nullptr)
        memcpy(&head, msg, sizeof(head));
    if (head.len < sizeof(record)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s len is invalid:%d\n", __func__, head.len);
        return;
    }
    memcpy(&record, msg, sizeof(record));
    sflow_store(sflow_intf_support_flag, record.sflow_intf_support);
    sflow_store(sflow_hw_support_is_set, 1U);
    sflow_msg_log("recv sflow_hd_capacity_msg.");
}

void sflow_request_msg(char *)
{
    sflow_msg_log("recv request msg");
    if (sflow_msg_send_bare(SFLOW_CMD_CONFIG_START) != 0) {
        sflow_msg_log("send start fail");
        return;
    }
    sflow_msg_log("send start success");
    sflow_replay_config();
    if (sflow_msg_send_bare(SFLOW_CMD_CONFIG_END) == 0)
        sflow_msg_log("send end success");
    else
        sflow_msg_log("send end fail");
    sflow_set_ss_ready();
}
