// The 26 counter fields of a counter report, in the order of its two blocks: the daemon adds them to its bases, the
// sampling service fills them in. What else the generic block holds are facts of the interface, which nobody adds up.
#pragma once

#include "sflow_domain_msg.h"

/// One counter field; exactly one member is set.
struct sflow_counter_field_t {
    u_int64_t sflow_generic_counter_t::*octets = nullptr;
    u_int32_t sflow_generic_counter_t::*generic = nullptr;
    u_int32_t sflow_ether_counter_t::*ether = nullptr;
};

inline constexpr sflow_counter_field_t sflow_counter_fields[] = {
    {.octets = &sflow_generic_counter_t::ifInOctets},
    {.generic = &sflow_generic_counter_t::ifInUcastPkts},
    {.generic = &sflow_generic_counter_t::ifInMulticastPkts},
    {.generic = &sflow_generic_counter_t::ifInBroadcastPkts},
    {.generic = &sflow_generic_counter_t::ifInDiscards},
    {.generic = &sflow_generic_counter_t::ifInErrors},
    {.generic = &sflow_generic_counter_t::ifInUnknownProtos},
    {.octets = &sflow_generic_counter_t::ifOutOctets},
    {.generic = &sflow_generic_counter_t::ifOutUcastPkts},
    {.generic = &sflow_generic_counter_t::ifOutMulticastPkts},
    {.generic = &sflow_generic_counter_t::ifOutBroadcastPkts},
    {.generic = &sflow_generic_counter_t::ifOutDiscards},
    {.generic = &sflow_generic_counter_t::ifOutErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsAlignmentErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsFCSErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsSingleCollisionFrames},
    {.ether = &sflow_ether_counter_t::dot3StatsMultipleCollisionFrames},
    {.ether = &sflow_ether_counter_t::dot3StatsSQETestErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsDeferredTransmissions},
    {.ether = &sflow_ether_counter_t::dot3StatsLateCollisions},
    {.ether = &sflow_ether_counter_t::dot3StatsExcessiveCollisions},
    {.ether = &sflow_ether_counter_t::dot3StatsInternalMacTransmitErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsCarrierSenseErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsFrameTooLongs},
    {.ether = &sflow_ether_counter_t::dot3StatsInternalMacReceiveErrors},
    {.ether = &sflow_ether_counter_t::dot3StatsSymbolErrors},
};
static_assert(sizeof(sflow_counter_fields) / sizeof(sflow_counter_fields[0]) == 26);
