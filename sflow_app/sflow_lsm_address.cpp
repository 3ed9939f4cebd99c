// Interface events that change addresses: what was learnt from an interface (the agent address, the global source,
// a collector's own source) follows the interface's first address, and sockets that are bound to an old source are
// closed so that the next datagram opens a new one.
//
// CLI thread, `config_lock` held for writing while something changes. An address that is gone is replaced by zeros;
// the configuration that names the interface stays.
#include "sflow_lsm.h"

#include "sflow_agent.h"
#include "sflow_cli.h"
#include "sflow_dbg.h"

#include "platform/lsm.h"

#include <cstring>

namespace
{

/// The interface's first address of one family, the rest of the value zero.
sfladdress_value_t sflow_lsm_first_address(IFINDEX ifx, sflow_address_type_t family)
{
    sfladdress_value_t value = {};
    memset(&value, 0, sizeof(value));
    if (family == SFLOW_ADDRESS_TYPE_IPV4) {
        value.ip_v4 = lsm_netif_get_first_ip_by_index(ifx);
        return value;
    }
    u_int8_t address[16];
    if (lsm_ipv6_get_first_addr(ifx, address) == 1)
        memcpy(value.ip_v6, address, sizeof(address));
    return value;
}

bool sflow_lsm_refresh_agent(IFINDEX ifx, sflow_address_type_t family) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_agent_address_t &agent = sflow_agent.agent_ip;
    if (agent.cfg_type != SFLOW_AGENT_TYPE_INTERFACE || agent.ifindex != ifx || agent.type != family)
        return false;
    agent.address = sflow_lsm_first_address(ifx, family);
    return true;
}

/// Takes over the address of one family if the global source, which is learnt from `ifx`, has that family.
bool sflow_lsm_refresh_source_family(IFINDEX ifx, sflow_address_type_t family)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_source_address_t &source = sflow_agent.source_ip;
    const bool v4 = family == SFLOW_ADDRESS_TYPE_IPV4;
    if ((source.type & (v4 ? SFLOW_FAMILY_IPV4 : SFLOW_FAMILY_IPV6)) == 0)
        return false;
    (v4 ? source.v4_address : source.v6_address) = sflow_lsm_first_address(ifx, family);
    return true;
}

bool sflow_lsm_is_source_of(IFINDEX ifx) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_source_address_t &source = sflow_agent.source_ip;
    return source.cfg_type == SFLOW_SOURCE_TYPE_INTERFACE && source.ifindex == ifx;
}

bool sflow_lsm_is_source_of(const sflreceiver_t &receiver, IFINDEX ifx)
{
    return receiver.address.src_type == SFLOW_SOURCE_TYPE_INTERFACE && receiver.address.ifindex == ifx;
}

/// Any collector may send from the global source.
void sflow_lsm_close_sockets()
{
    for (sflreceiver_t &receiver : sflow_agent.receivers)
        sflow_close_socket(&receiver);
}

bool sflow_lsm_refresh_source(IFINDEX ifx, sflow_address_type_t family)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    if (!sflow_lsm_is_source_of(ifx) || !sflow_lsm_refresh_source_family(ifx, family))
        return false;
    sflow_lsm_close_sockets();
    return true;
}

/// Takes over the address of the collector's own family.
void sflow_lsm_refresh_receiver(sflreceiver_t *receiver, IFINDEX ifx)
{
    receiver->address.src_address = sflow_lsm_first_address(ifx, receiver->address.type);
    sflow_close_socket(receiver);
}

bool sflow_lsm_refresh_receivers(IFINDEX ifx, sflow_address_type_t family)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    bool changed = false;
    for (sflreceiver_t &receiver : sflow_agent.receivers) {
        if (!sflow_lsm_is_source_of(receiver, ifx) || receiver.address.type != family)
            continue;
        sflow_lsm_refresh_receiver(&receiver, ifx);
        changed = true;
    }
    return changed;
}

/// One family's addresses of `ifx` changed. `function` is the event's handler.
void sflow_lsm_address_change(IFINDEX ifx, sflow_address_type_t family, const char *function)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]%s ifx :%d\n", function, ifx);
    sflow_config_wrlock();
    const bool agent = sflow_lsm_refresh_agent(ifx, family);
    const bool source = sflow_lsm_refresh_source(ifx, family);
    const bool receivers = sflow_lsm_refresh_receivers(ifx, family);
    sflow_config_wrunlock();
    if (!agent && !source && !receivers)
        return;
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", function);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", function);
}

} // namespace

void sflow_ipv4_address_change(const char *data)
{
    if (data == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is NULL\n", __func__);
        return;
    }
    intf_msg_ip_t record;
    memcpy(&record, data, sizeof(record));
    if (record.sub_type != INTF_EVENT_IP_ADDR && record.sub_type != INTF_EVENT_IP_STATE) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg type is %d\n", __func__, record.sub_type);
        return;
    }
    sflow_lsm_address_change(record.ifindex, SFLOW_ADDRESS_TYPE_IPV4, __func__);
}

void sflow_ipv6_address_change(const char *data)
{
    if (data == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is NULL\n", __func__);
        return;
    }
    intf_msg_ipv6_t record;
    memcpy(&record, data, sizeof(record));
    if (record.sub_type != INTF_EVENT_IPV6_ADDR && record.sub_type != INTF_EVENT_IPV6_STATE) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg type is %d\n", __func__, record.sub_type);
        return;
    }
    sflow_lsm_address_change(record.ifindex, SFLOW_ADDRESS_TYPE_IPV6, __func__);
}

void sflow_lsm_intf_status_chang(const char *data)
{
    if (data == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is NULL\n", __func__);
        return;
    }
    intf_msg_state_t record;
    memcpy(&record, data, sizeof(record));
    sflow_config_wrlock();
    SFLOW_LOG_CONF("[SFLOW-CONF]%s source interface status changed\n", __func__);
    // One family of the global source only, IPv4 when both are set.
    if (sflow_lsm_is_source_of(record.ifx)) {
        if (!sflow_lsm_refresh_source_family(record.ifx, SFLOW_ADDRESS_TYPE_IPV4))
            sflow_lsm_refresh_source_family(record.ifx, SFLOW_ADDRESS_TYPE_IPV6);
        sflow_lsm_close_sockets();
    }
    for (sflreceiver_t &receiver : sflow_agent.receivers) {
        if (sflow_lsm_is_source_of(receiver, record.ifx))
            sflow_lsm_refresh_receiver(&receiver, record.ifx);
    }
    sflow_config_wrunlock();
}
