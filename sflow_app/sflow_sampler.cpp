// Flow sampler: binds the flow samples of an interface to a collector and hands sampled packets to its
// datagram.
//
// Sampled packets come on the receive thread, bindings on the receive thread (answers of the sampling
// service) and on the CLI thread. Keeps no state of its own: the binding, the sequence number and the sample
// pool live in the interface's configuration. Never queues: a packet is encoded before the call returns.
#include "sflow_sampler.h"

#include "sflow_binding.h"
#include "sflow_dbg.h"

#include <algorithm>

static int write_flowsample(const char *buf, int buf_len, const sflow_flow_info_t &info)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    static constexpr char name[] = "sflow_sampler_write_flowsample";

    if (sflow_agent.agent_ip.type == SFLOW_ADDRESS_INVALID) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s agent is no config.\n", name);
        return -1;
    }
    if (info.source_id == 0) {
        sflow_receiver_write_flowsample(buf, buf_len, info, nullptr);
        return 0;
    }
    sflow_intf_config_t *intf = sflow_get_intf_config(info.source_id);
    if (intf == nullptr) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s source_id %d get sampler fail.\n", name,
                       static_cast<int>(info.source_id));
        return -1;
    }
    if (intf->fid == 0) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s intf->fid == 0 receiver is null.\n", name);
        return -1;
    }
    sflow_receiver_write_flowsample(buf, buf_len, info, intf);
    return 0;
}

int sflow_sampler_write_flowsample(const char *buf, int buf_len, sflow_flow_info_t info)
{
    // The length is the service's word for a field of fixed size; nobody before this has looked at it.
    const int valid_len = std::min(buf_len, SFLOW_FLOW_BUF_LEN);

    sflow_config_wrlock();
    const int ret = write_flowsample(buf, valid_len, info);
    sflow_config_wrunlock();
    return ret;
}

int sflow_sampler_set_cid(IFINDEX ifx, u_int32_t cid)
{
    return sflow_binding_set(&sflow_intf_config_t::fid, ifx, cid);
}

u_int32_t sflow_sampler_get_cid(IFINDEX ifx)
{
    return sflow_binding_get(&sflow_intf_config_t::fid, ifx);
}

void sflow_sampler_clear_cid(IFINDEX ifx)
{
    sflow_binding_clear(&sflow_intf_config_t::fid, ifx);
}
