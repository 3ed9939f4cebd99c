// Counter poller: asks the sampling service for the counters of every polled interface once per interval, and
// turns its answers into counters samples.
//
// The countdown runs on the one-second timer, queueing on the receive thread, updates and exports on the
// dispatcher, removal of an interface on the CLI thread. Never reads counters itself and never waits for an
// answer.
#include "sflow_poller.h"

#include "sflow_acl.h"
#include "sflow_binding.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_counter_fields.h"
#include "sflow_dbg.h"

#include <cstdlib>
#include <cstring>
#include <limits>

void sflow_poller_countdown()
{
    static constexpr char name[] = "sflow_poller_countdown";

    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [](sflow_intf_config_t *intf) {
        sflow_config_held();
        if (intf->cid == 0 || intf->enable == 0)
            return;
        intf->countdown--;
        if (intf->countdown != 0)
            return;
        if (sflow_get_counter_msg(intf->ifx, intf->ifx_type) == 0) {
            SFLOW_LOG_EVENT("[SFLOW-EVENT]%s get counter success.\n", name);
        } else {
            SFLOW_LOG_EVENT("[SFLOW-EVENT]%s get counter fail.\n", name);
            sflow_count(sflow_statis.sflow_get_counter_fail_num);
        }
        intf->countdown = sflow_agent.g_config.interval;
    });
}

// ---- Queueing ---------------------------------------------------------------------------------------------

template <typename T>
static T *zeroed()
{
    return static_cast<T *>(std::calloc(1, sizeof(T)));
}

/// The event for `ret`, or null when memory is short.
static sflow_msg_t *make_counter_event(const sflow_counter_ret_t *ret, int type)
{
    sflow_msg_t *event = zeroed<sflow_msg_t>();
    sflow_msg_counter_t *counters = zeroed<sflow_msg_counter_t>();
    if (event == nullptr || counters == nullptr) {
        std::free(counters);
        std::free(event);
        return nullptr;
    }
    counters->generic_counter = ret->generic;
    counters->ether_counter = ret->ether;
    event->ifx = ret->ifx;
    event->type = static_cast<sflow_msg_type_t>(type);
    event->msg = counters;
    return event;
}

static int enqueue(const sflow_counter_ret_t *ret, int type) SFLOW_REQUIRES(sflow_agent.msg_lock)
{
    sflow_agent.msg_list_len++;
    if (sflow_agent.msg_list_len > SFLOW_MSG_LIST_MAX) {
        sflow_count(sflow_statis.sflow_drop_counter_num);
        sflow_agent.msg_list_len--;
        return -1;
    }
    sflow_msg_t *event = make_counter_event(ret, type);
    if (event == nullptr) {
        // The length stays one too high: a process that is out of memory takes in fewer events from here on.
        sflow_count(sflow_statis.sflow_malloc_fail_num);
        return -1;
    }
    sflow_count(sflow_statis.sflow_recv_counter_num);
    sflow_list_insert_before(&sflow_agent.msg_list, &event->list);
    pthread_cond_signal(&sflow_agent.msg_send_ready);
    return 0;
}

int sflow_pi_counter_msg_enqueue(const sflow_counter_ret_t *ret, int type)
{
    sflow_msg_lock();
    const int result = enqueue(ret, type);
    sflow_msg_unlock();
    return result;
}

// ---- Accumulation -----------------------------------------------------------------------------------------

/// A counter at its maximum is one that the service does not know, and makes the sum unknown as well.
template <typename T>
static void accumulate(T *dst, T src)
{
    constexpr T maximum = std::numeric_limits<T>::max();
    *dst = src == maximum ? maximum : static_cast<T>(*dst + src);
}

void sflow_poller_update_generic_counter(sflow_generic_counter_t *dst, const sflow_generic_counter_t *src)
{
    for (const sflow_counter_field_t &field : sflow_counter_fields) {
        if (field.octets != nullptr)
            accumulate(&(dst->*field.octets), src->*field.octets);
        else if (field.generic != nullptr)
            accumulate(&(dst->*field.generic), src->*field.generic);
    }
}

void sflow_poller_update_ether_counter(sflow_ether_counter_t *dst, const sflow_ether_counter_t *src)
{
    for (const sflow_counter_field_t &field : sflow_counter_fields) {
        if (field.ether != nullptr)
            accumulate(&(dst->*field.ether), src->*field.ether);
    }
}

// ---- Events, applied by the dispatcher --------------------------------------------------------------------

static void update_counter(const sflow_msg_t *msg_node) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_counter_node_t *node = sflow_poller_get_counter(msg_node->ifx);
    if (node == nullptr)
        node = sflow_poller_add_counter(msg_node->ifx);
    if (node == nullptr)
        return;
    const sflow_msg_counter_t *update = static_cast<const sflow_msg_counter_t *>(msg_node->msg);
    sflow_poller_update_generic_counter(&node->generic, &update->generic_counter);
    sflow_poller_update_ether_counter(&node->ether, &update->ether_counter);
    sflow_poller_save_node(node);
    sflow_rdnd_realtime_add_msg(node);
}

void sflow_poller_update_counter(const sflow_msg_t *msg_node)
{
    sflow_config_wrlock();
    update_counter(msg_node);
    sflow_config_wrunlock();
}

static int write_countersample(const sflow_msg_t *msg_node) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock)
{
    static constexpr char name[] = "sflow_poller_write_countersample";

    sflow_intf_config_t *intf = sflow_get_intf_config(msg_node->ifx);
    if (intf == nullptr) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s get poller fail.\n", name);
        return -1;
    }
    if (sflow_load(intf->cid) == 0) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s receiver is null.\n", name);
        return 0;
    }
    if (sflow_agent.agent_ip.type == SFLOW_ADDRESS_INVALID) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s agent is no config.\n", name);
        return 0;
    }
    sflow_msg_counter_t *report = static_cast<sflow_msg_counter_t *>(msg_node->msg);
    if (const sflow_counter_node_t *base = sflow_poller_get_counter(msg_node->ifx); base != nullptr) {
        sflow_poller_update_generic_counter(&report->generic_counter, &base->generic);
        sflow_poller_update_ether_counter(&report->ether_counter, &base->ether);
    }
    sflow_receiver_write_countersample(report, intf);
    return 0;
}

int sflow_poller_write_countersample(sflow_msg_t *msg_node)
{
    sflow_config_rdlock();
    const int ret = write_countersample(msg_node);
    sflow_config_rdunlock();
    return ret;
}

// ---- Binding to a collector -------------------------------------------------------------------------------

int sflow_poller_set_cid(IFINDEX ifx, u_int32_t cid)
{
    return sflow_binding_set(&sflow_intf_config_t::cid, ifx, cid);
}

u_int32_t sflow_poller_get_cid(IFINDEX ifx)
{
    return sflow_binding_get(&sflow_intf_config_t::cid, ifx);
}

void sflow_poller_clear_cid(IFINDEX ifx)
{
    sflow_binding_clear(&sflow_intf_config_t::cid, ifx);
}

// ---- Removal of an interface ------------------------------------------------------------------------------

/// The stop goes out for a slot without an access list as well: it ends sampling that no list limits.
static void release_acl_slot(const sflow_intf_config_t *intf, acl_info_t *slot)
{
    sflow_set_sampling_rate_msg(intf->ifx, 0, static_cast<int>(intf->enable), intf->ifx_type,
                                slot->enable_acl_id, slot->enable_acl_name, intf->snoop);
    slot->enable = false;
    if (sflow_acl_unref(slot->enable_acl_id, slot->enable_acl_name) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF][%s] Failed to de-reference the ACL(%d) rule\n", "sflow_intf_del_notify",
                       slot->enable_acl_id);
    slot->enable_acl_id = 0;
    std::memset(slot->enable_acl_name, 0, sizeof(slot->enable_acl_name));
}

/// True when `ifx` had a configuration.
static bool forget_interface(IFINDEX ifx) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    if (sflow_counter_node_t *node = sflow_poller_get_counter(ifx); node != nullptr)
        sflow_poller_del_counter(node);

    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    if (intf == nullptr)
        return false;
    for (acl_info_t &slot : intf->acl)
        release_acl_slot(intf, &slot);
    intf->acl_enable = false;
    intf->enable = 0;
    intf->snoop = 0;
    intf->cid = 0;
    intf->fid = 0;
    sflow_del_intf_config(intf);
    return true;
}

void sflow_intf_del_notify(IFINDEX ifx)
{
    static constexpr char name[] = "sflow_intf_del_notify";

    SFLOW_LOG_CONF("[SFLOW-CONF]receive intf event:%d\n", static_cast<int>(ifx));
    sflow_config_wrlock();
    const bool was_configured = forget_interface(ifx);
    sflow_config_wrunlock();
    if (!was_configured)
        return;
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", name);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", name);
}
