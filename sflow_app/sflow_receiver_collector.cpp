// Collector configuration: sets, identifies and removes the collectors that the operator configures.
//
// Runs on the CLI thread, which alone configures collectors. Setting and deleting expect `config_lock` held
// by the command handler; the other operations take it themselves. Never checks ranges: the command line has
// done so.
#include "sflow_receiver.h"

#include "sflow_agent.h"
#include "sflow_bytes.h"
#include "sflow_dbg.h"
#include "sflow_receiver_internal.h"

#include "platform/lsm.h"

#include <cstring>

/// Records are copied and compared as bytes: padding included, they are part of a collector's identity.
static void copy_address(sfladdress_t *to, const sfladdress_t *from)
{
    std::memcpy(to, from, sizeof(*to));
}

int sflow_is_collector_addr_same(const sfladdress_t *lhs, const sfladdress_t *rhs)
{
    if (rhs->src_type == SFLOW_SOURCE_TYPE_ADDRESS)
        return sflow_same_bytes(*lhs, *rhs) ? 1 : 0;

    const bool same_collector =
        lhs->type == rhs->type && lhs->vrf_index == rhs->vrf_index && lhs->mgmt_index == rhs->mgmt_index &&
        sflow_same_bytes(lhs->address, rhs->address) && sflow_same_bytes(lhs->desc, rhs->desc);
    const bool same_source = rhs->src_type != SFLOW_SOURCE_TYPE_INTERFACE ||
                             (lhs->src_type == rhs->src_type && lhs->ifindex == rhs->ifindex);
    return same_collector && same_source ? 1 : 0;
}

int sflow_receiver_set_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port)
{
    sflreceiver_t *receiver = sflow_receiver_get_receiver(cid);
    if (addr->vrf_index != receiver->address.vrf_index || addr->type != receiver->address.type) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d address type changed\n", static_cast<int>(cid));
        if (receiver->is_enable) {
            SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d enable before\n", static_cast<int>(cid));
            sflow_receiver_send_all_sample(receiver);
        }
        sflow_close_socket(receiver);
    }
    copy_address(&receiver->address, addr);
    receiver->collector_port = port;
    receiver->is_enable = true;
    sflow_receiver_reset_buf(receiver);
    return 0;
}

/// False, with nothing changed, when `addr` and `port` are not the collector's.
static bool forget_collector(sflreceiver_t *receiver, const sfladdress_t *addr, u_int16_t port)
    SFLOW_REQUIRES(sflow_receiver_lock)
{
    if (sflow_is_collector_addr_same(&receiver->address, addr) != 1 || receiver->collector_port != port)
        return false;
    SFLOW_LOG_CONF("[SFLOW-CONF]del collector %d dest find success\n", static_cast<int>(receiver->cid));
    sflow_receiver_send_all_sample(receiver);
    sflow_close_socket(receiver);
    std::memset(&sflow_agent.source_ip.used_address[receiver->cid - 1], 0, sizeof(sfladdress_value_t));
    // `addr` may be the record itself: it is not to be read from here on.
    std::memset(&receiver->address, 0, sizeof(receiver->address));
    receiver->collector_port = 0;
    receiver->is_enable = false;
    return true;
}

void sflow_receiver_del_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port)
{
    sflow_config_held();
    sflow_receiver_enter();
    const bool found = forget_collector(sflow_receiver_get_receiver(cid), addr, port);
    sflow_receiver_leave();
    if (found)
        sflow_intf_del_receiver(cid);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s fail.\n", "sflow_receiver_del_collector");
}

int sflow_receiver_get_collector(u_int32_t cid, sfladdress_t *addr, u_int16_t *port)
{
    int ret = -1;
    sflow_config_rdlock();
    const sflreceiver_t *receiver = sflow_receiver_get_receiver(cid);
    if (receiver->is_enable) {
        copy_address(addr, &receiver->address);
        *port = receiver->collector_port;
        ret = 0;
    } else {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s fail.\n", "sflow_receiver_get_collector");
    }
    sflow_config_rdunlock();
    return ret;
}

void sflow_receiver_set_max_datagramsize(u_int32_t cid, u_int32_t size)
{
    sflow_config_wrlock();
    sflreceiver_t *receiver = sflow_receiver_get_receiver(cid);
    if (receiver->maxdatagramsize > size) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set maxlen old:%d, new:%d\n", static_cast<int>(receiver->maxdatagramsize),
                       static_cast<int>(size));
        sflow_receiver_send_all_sample(receiver);
    }
    receiver->maxdatagramsize = size;
    sflow_config_wrunlock();
}

u_int32_t sflow_receiver_get_datagramsize(u_int32_t cid)
{
    sflow_config_rdlock();
    const u_int32_t size = sflow_receiver_get_receiver(cid)->maxdatagramsize;
    sflow_config_rdunlock();
    return size;
}

void sflow_receiver_vrf_no_exist_del_receiver(const intf_msg_vrf_t *msg)
{
    const int32_t vrf = msg->vrf_chg.vrf_id;
    sflow_config_wrlock();
    for (u_int32_t cid = 1; cid <= SFLOW_RECEIVER_NUM; cid++) {
        const sflreceiver_t *receiver = sflow_receiver_get_receiver(cid);
        if (receiver->is_enable && receiver->address.vrf_index != 0 && receiver->address.vrf_index == vrf)
            sflow_receiver_del_collector(cid, &receiver->address, receiver->collector_port);
    }
    sflow_config_wrunlock();
}
