// Binding of an interface's samples to a collector: what the flow sampler (`fid`) and the counter poller (`cid`) do
// alike, each with its own field of the interface's configuration.
//
// Runs on the receive thread (answers of the sampling service) and on the CLI thread. Never looks at what a bound
// interface exports.
#pragma once

#include "sflow_agent.h"

/// The field of an interface's configuration that names the collector; 0 in it means none.
using sflow_binding_t = u_int32_t sflow_intf_config_t::*;

/// Binds `ifx` to collector `cid`, making a configuration for `ifx` when it has none: 0, or -1 when collector `cid`
/// is not configured or memory is short. Takes `config_lock` for writing.
inline int sflow_binding_set(sflow_binding_t field, IFINDEX ifx, u_int32_t cid)
{
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_check_intf(ifx, cid);
    if (intf != nullptr)
        intf->*field = cid;
    sflow_config_wrunlock();
    return intf != nullptr ? 0 : -1;
}

/// The collector of `ifx`, 0 for none and for an interface without configuration.
inline u_int32_t sflow_binding_get(sflow_binding_t field, IFINDEX ifx)
    SFLOW_REQUIRES_SHARED(sflow_agent.config_lock)
{
    const sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    return intf != nullptr ? intf->*field : 0;
}

/// Unbinds `ifx`; a configuration that then serves nothing is freed. Takes `config_lock` for writing.
inline void sflow_binding_clear(sflow_binding_t field, IFINDEX ifx)
{
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    if (intf != nullptr) {
        intf->*field = 0;
        sflow_del_intf_config(intf);
    }
    sflow_config_wrunlock();
}
