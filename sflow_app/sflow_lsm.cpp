// Reaction to the interface manager's events: an interface that disappears, returns to its defaults or joins an
// aggregate loses its sampling; VRF bindings reach the collectors; the end of the initial data opens the way for the
// configuration. Address and link events are in sflow_lsm_address.cpp.
//
// Everything runs on the CLI thread, whose thread master the client is given. Nothing here sends a datagram or talks
// to the sampling service by itself.
#include "sflow_lsm.h"

#include "sflow_agent.h"
#include "sflow_atomic.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"
#include "sflow_process.h"

#include "platform/lsm.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <unistd.h>

namespace
{

void sflow_lsm_log(const char *text, int line = __builtin_LINE())
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_lsm.c", line, text);
}

/// Copies the payload of an event; false when there is none, in the name of the handler `function`.
template <typename Record>
bool sflow_lsm_read(const char *data, Record *record, const char *function)
{
    if (data == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is NULL\n", function);
        return false;
    }
    memcpy(record, data, sizeof(Record));
    return true;
}

// ---- Handlers ------------------------------------------------------------------------------------------------------

/// An interface leaves its layers one by one; it is gone when none of them has it.
bool sflow_lsm_is_gone(IFINDEX ifx)
{
    return lsm_get_realtime_version(ifx, LSM_IF_STACK_TCPIP) == 0 &&
           lsm_get_realtime_version(ifx, LSM_IF_STACK_PHYSICAL) == 0;
}

void sflow_intf_destroy(const char *data)
{
    intf_msg_destroy_t record;
    if (!sflow_lsm_read(data, &record, __func__))
        return;
    if (!sflow_lsm_is_gone(record.ifx)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s interface is exist\n", __func__);
        return;
    }
    sflow_intf_del_notify(record.ifx);
    sflow_agent_del_intf_notify(record.ifx);
    sflow_source_del_intf_notify(record.ifx);
}

void sflow_intf_default(const char *data)
{
    intf_msg_destroy_t record;
    if (sflow_lsm_read(data, &record, __func__))
        sflow_intf_del_notify(record.ifx);
}

/// The members of an aggregate are not sampled, the aggregate is. A port that leaves it starts without sampling.
void sflow_lsm_agg_chang(const char *data)
{
    intf_msg_ap_t record;
    if (!sflow_lsm_read(data, &record, __func__))
        return;
    SFLOW_LOG_CONF("[SFLOW-CONF]%s ifx :%d, agg:%d\n", __func__, record.ifindex, record.ap_ifx);
    switch (record.type) {
    case INTF_MSG_ADD_TO_AP:
        sflow_intf_del_notify(record.ifindex);
        break;
    case INTF_MSG_RM_FROM_AP:
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is INTF_MSG_RM_FROM_AP\n", __func__);
        break;
    default:
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is unknown\n", __func__);
        break;
    }
}

/// An interface is bound to a VRF or released: the out-of-band collectors behind it are reached there from now on.
/// The sockets stay, every datagram opens its own.
void sflow_lsm_intf_vrf_bind(const intf_msg_vrf_bind_t &bind)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]%s msg ifx(%d) vrf(%d)\n", __func__, bind.ifindex, bind.vrf_id);
    sflow_config_wrlock();
    for (sflreceiver_t &receiver : sflow_agent.receivers) {
        const int32_t mgmt_index = receiver.address.mgmt_index;
        SFLOW_LOG_CONF("[SFLOW-CONF]%s is_enable(%d) mgmt_index(%d)\n", __func__, receiver.is_enable ? 1 : 0,
                       mgmt_index);
        if (receiver.is_enable && mgmt_index != 0 && static_cast<IFINDEX>(mgmt_index) == bind.ifindex)
            receiver.address.vrf_index = bind.vrf_id;
    }
    sflow_config_wrunlock();
}

void sflow_lsm_intf_vrf_chang(const char *data)
{
    intf_msg_vrf_t record;
    if (!sflow_lsm_read(data, &record, __func__))
        return;
    const bool bind = record.sub_type == INTF_EVENT_VRF_BIND;
    SFLOW_LOG_CONF("[SFLOW-CONF]%s msg type is %d\n", __func__, record.sub_type);
    SFLOW_LOG_CONF("[SFLOW-CONF]%s msg vrf is %d\n", __func__,
                   bind ? record.vrf_bind.vrf_id : record.vrf_chg.vrf_id);
    if (bind)
        sflow_lsm_intf_vrf_bind(record.vrf_bind);
    else if (record.sub_type == INTF_EVENT_VRF_CHG)
        sflow_receiver_vrf_no_exist_del_receiver(&record);
}

/// The interface manager has delivered all that exists: names and VRFs in a configuration can be resolved.
void sflow_lsm_recv_over(const char *)
{
    sflow_lsm_log("lsm recv over");
    const bool held = pthread_mutex_lock(&sflow_agent.cli_lock.mutex) == 0;
    if (!held)
        sflow_lsm_log("lsm lock fail");
    sflow_set_bits(sflow_agent.cli_ready_flag, static_cast<u_int32_t>(SFLOW_CLI_VRF_READY_FLAG));
    if (held)
        pthread_mutex_unlock(&sflow_agent.cli_lock.mutex);
}

// ---- Dispatch ------------------------------------------------------------------------------------------------------

struct sflow_lsm_event_t {
    int event;
    const char *name; ///< null: no log line
    void (*handler)(const char *data);
};

#define SFLOW_LSM_EVENT(event, handler)                                                                      \
    {                                                                                                        \
        event, #event, handler                                                                               \
    }
constexpr sflow_lsm_event_t sflow_lsm_events[] = {
    SFLOW_LSM_EVENT(INTF_EVENT_DESTROY_INDEX, sflow_intf_destroy),
    SFLOW_LSM_EVENT(INTF_EVENT_DEFAULT_INDEX, sflow_intf_default),
    SFLOW_LSM_EVENT(INTF_EVENT_LINK_STATE_INDEX, sflow_lsm_intf_status_chang),
    SFLOW_LSM_EVENT(INTF_EVENT_AGG_INDEX, sflow_lsm_agg_chang),
    SFLOW_LSM_EVENT(INTF_EVENT_IPV4, sflow_ipv4_address_change),
    SFLOW_LSM_EVENT(INTF_EVENT_IPV6, sflow_ipv6_address_change),
    SFLOW_LSM_EVENT(INTF_EVENT_VRF, sflow_lsm_intf_vrf_chang),
    {INTF_EVENT_SYNC_DATA_OVER, nullptr, sflow_lsm_recv_over},
};

// ---- Registration --------------------------------------------------------------------------------------------------

void sflow_lsm_callback()
{
    if (lsm_client_reg_event_over() == 0)
        return;
    sflow_lsm_log("lsm reg event over fail");
    // Other threads are at work: no destructors, no exit handlers.
    _exit(EXIT_SUCCESS);
}

struct sflow_lsm_stack_t {
    int stack;
    std::initializer_list<int> events;
    const char *event_failure;
    const char *handler_failure;
};

/// Registers for one layer: every interface type, the given events.
int sflow_lsm_reg_stack(const sflow_lsm_stack_t &layer)
{
    lsm_iftype_filter filter;
    memset(filter.bits, 0xFF, sizeof(filter.bits));
    lsm_msg_set set;
    lsm_msgset_zero(&set);
    for (const int event : layer.events)
        lsm_msgset_set(event, &set);

    int result = lsm_client_reg_event_ex(layer.stack, &filter, &set);
    if (result != 0) {
        sflow_lsm_log(layer.event_failure);
        return result;
    }
    result = lsm_reg_msg_handler_ex(layer.stack, sflow_recv_lsm_msg);
    if (result != 0)
        sflow_lsm_log(layer.handler_failure);
    return result;
}

} // namespace

// The interface manager changes its data before it announces the change: an interface that is still there now will have
// its end announced after this, and what was learnt goes with that.
void sflow_lsm_forget_if_gone(IFINDEX ifx)
{
    if ((sflow_load(sflow_agent.cli_ready_flag) & SFLOW_CLI_VRF_READY_FLAG) != 0 && sflow_lsm_is_gone(ifx))
        sflow_intf_del_notify(ifx);
}

int sflow_recv_lsm_msg(int event, char *data, int)
{
    const auto *row =
        std::find_if(std::begin(sflow_lsm_events), std::end(sflow_lsm_events),
                     [event](const sflow_lsm_event_t &candidate) { return candidate.event == event; });
    if (row == std::end(sflow_lsm_events))
        return 0;
    if (row->name != nullptr)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s get %s msg\n", __func__, row->name);
    row->handler(data);
    return 0;
}

int sflow_lsm_init(kx_thread_master_t *master)
{
    lsm_agent_set_connect_callback(sflow_lsm_callback);
    if (lsm_client_set_mode(LSM_CLIENT_MODE_DUPLICATOR) < 0)
        sflow_lsm_log("lsm set duplicator mode fail");

    int result = sflow_lsm_reg_stack(
        {.stack = LSM_IF_STACK_TCPIP,
         .events = {INTF_EVENT_DESTROY_INDEX, INTF_EVENT_CREATE_INDEX, INTF_EVENT_ADMIN_STATE_INDEX,
                    INTF_EVENT_LINK_STATE_INDEX, INTF_EVENT_IF_ETH_INFO, INTF_EVENT_VRF,
                    INTF_EVENT_DEFAULT_INDEX, INTF_EVENT_AGG_INDEX, INTF_EVENT_IPV4, INTF_EVENT_IPV6},
         .event_failure = "lsm reg tcpip event fail",
         .handler_failure = "lsm reg tcpip handler fail"});
    if (result != 0)
        return result;
    result = sflow_lsm_reg_stack(
        {.stack = LSM_IF_STACK_PHYSICAL,
         .events = {INTF_EVENT_DESTROY_INDEX, INTF_EVENT_CREATE_INDEX, INTF_EVENT_ADMIN_STATE_INDEX,
                    INTF_EVENT_LINK_STATE_INDEX, INTF_EVENT_IF_ETH_INFO, INTF_EVENT_DEFAULT_INDEX,
                    INTF_EVENT_AGG_INDEX},
         .event_failure = "lsm reg phy event fail",
         .handler_failure = "lsm reg phy handler fail"});
    if (result != 0)
        return result;
    result = lsm_agent_init("sflow_lsm", master);
    sflow_lsm_log(result != 0 ? "lsm client init fail" : "lsm client init success");
    return result;
}
