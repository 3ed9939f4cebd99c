// Flow sampler: binds an interface's flow sampling to a collector and hands sampled packets to its datagram
// (module sflow_sampler). Keeps no state of its own.
#pragma once

#include "sflow_agent.h"

/// Hands one sampled packet to the collector of its data source: 0, or -1 when it is refused (no agent
/// address, no configuration for the source, no collector bound).
///
/// @param buf      leading bytes of the frame: the `buf` of a sflow_flow_spl_t record
/// @param buf_len  valid bytes in `buf` as the service says; never believed beyond SFLOW_FLOW_BUF_LEN
/// @param info     facts of the sample; a `source_id` of 0 hands it to the first configured collector
///
/// Receive thread; takes `config_lock` for writing.
int sflow_sampler_write_flowsample(const char *buf, int buf_len, sflow_flow_info_t info);

/// Binds the flow samples of `ifx` to collector `cid`, making a configuration for `ifx` when it has none: 0,
/// or -1 when collector `cid` is not configured or memory is short. Takes `config_lock` for writing.
int sflow_sampler_set_cid(IFINDEX ifx, u_int32_t cid);
/// The collector of `ifx`'s flow samples, 0 none.
u_int32_t sflow_sampler_get_cid(IFINDEX ifx) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// Unbinds them; a configuration that then serves nothing is freed. Takes `config_lock` for writing.
void sflow_sampler_clear_cid(IFINDEX ifx);
