// Image of one interface in the counter cache file $TMPDIR/sflow/tmp_file, which the daemon writes and the sampling
// service reads to see that an update has arrived. The file is a bare sequence of images; integers are in host byte
// order. This file is the only definition of the image.
#pragma once

#include "sflow_domain_msg.h"
#include "sflow_list.h"

/// Base of one interface's counters, added to every report before export. Saved to the cache file as it
/// stands in memory; the links are meaningless there.
struct sflow_counter_node_t {
    sflow_list_t list;
    IFINDEX ifx;
    u_int32_t pad;
    sflow_generic_counter_t generic; ///< counters only; the other fields stay 0
    sflow_ether_counter_t ether;
    u_int32_t pad_end;
};
static_assert(sizeof(sflow_counter_node_t) == 168);
static_assert(offsetof(sflow_counter_node_t, ifx) == 16);
static_assert(offsetof(sflow_counter_node_t, generic) == 24);
static_assert(offsetof(sflow_counter_node_t, ether) == 112);
static_assert(std::is_trivially_copyable_v<sflow_counter_node_t>);

/// Name of the file in the directory of the domain socket.
constexpr char SFLOW_COUNTER_CACHE_NAME[] = "tmp_file";
