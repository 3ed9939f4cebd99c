// Samples for the tests of datagrams, and where their fields are found.
#pragma once

#include "export_fixture.h"

#include <cstdint>
#include <string>

namespace export_test
{

/// Offsets within a datagram whose agent address is IPv4 and whose first sample is a flow sample.
enum FlowOffset : std::size_t {
    DATAGRAM_SUB_AGENT = 12,
    DATAGRAM_SEQNO = 16,
    DATAGRAM_UPTIME = 20,
    DATAGRAM_SAMPLES = 24,
    FLOW = 28,
    FLOW_LENGTH = FLOW + 4,
    FLOW_SEQNO = FLOW + 8,
    FLOW_SOURCE = FLOW + 16,
    FLOW_RATE = FLOW + 20,
    FLOW_POOL = FLOW + 24,
    RAW_LENGTH = FLOW + 80,
    RAW_HEADER_LENGTH = FLOW + 96,
    RAW_HEADER = FLOW + 100,
};

inline sflow_flow_info_t flow_info(std::uint32_t source = 7)
{
    return {.source_id = source,
            .ingress_ifx = 0x101,
            .egress_ifx = 0x102,
            .sample_pool = 0x103,
            .drops_num = 0x104,
            .frame_len = 0x105,
            .strip_len = 0x106,
            .src_vlan = 0x107,
            .src_priority = 0x108,
            .dest_vlan = 0x109,
            .dest_prority = 0x10a};
}

inline void write_flow(const std::string &header, sflow_intf_config_t *intf,
                       const sflow_flow_info_t &info = flow_info())
{
    sflow_config_wrlock();
    sflow_receiver_write_flowsample(header.data(), static_cast<int>(header.size()), info, intf);
    sflow_config_wrunlock();
}

inline void write_flow_of_length(int buf_len, const std::string &header, sflow_intf_config_t *intf)
{
    sflow_config_wrlock();
    sflow_receiver_write_flowsample(header.data(), buf_len, flow_info(), intf);
    sflow_config_wrunlock();
}

inline void set_maxhlen(std::uint32_t maxhlen)
{
    sflow_config_wrlock();
    sflow_agent.g_config.maxhlen = maxhlen;
    sflow_config_wrunlock();
}

inline void set_rate(std::uint32_t rate)
{
    sflow_config_wrlock();
    sflow_agent.g_config.samplingrate = rate;
    sflow_config_wrunlock();
}

/// Counters whose values are their positions in the sample.
inline sflow_msg_counter_t counters()
{
    sflow_msg_counter_t msg = {};
    msg.generic_counter = {.ifIndex = 0xbad00001,
                           .ifType = 0xbad00002,
                           .ifSpeed = 0xbad00003,
                           .ifDirection = 0xbad00004,
                           .ifStatus = 0xbad00005,
                           .ifInOctets = 0x0102030405060708,
                           .ifInUcastPkts = 0x11,
                           .ifInMulticastPkts = 0x12,
                           .ifInBroadcastPkts = 0x13,
                           .ifInDiscards = 0x14,
                           .ifInErrors = 0x15,
                           .ifInUnknownProtos = 0x16,
                           .ifOutOctets = 0x1112131415161718,
                           .ifOutUcastPkts = 0x17,
                           .ifOutMulticastPkts = 0x18,
                           .ifOutBroadcastPkts = 0x19,
                           .ifOutDiscards = 0x1a,
                           .ifOutErrors = 0x1b,
                           .ifPromiscuousMode = 0xbad00006};
    msg.ether_counter = {.dot3StatsAlignmentErrors = 0x21,
                         .dot3StatsFCSErrors = 0x22,
                         .dot3StatsSingleCollisionFrames = 0x23,
                         .dot3StatsMultipleCollisionFrames = 0x24,
                         .dot3StatsSQETestErrors = 0x25,
                         .dot3StatsDeferredTransmissions = 0x26,
                         .dot3StatsLateCollisions = 0x27,
                         .dot3StatsExcessiveCollisions = 0x28,
                         .dot3StatsInternalMacTransmitErrors = 0x29,
                         .dot3StatsCarrierSenseErrors = 0x2a,
                         .dot3StatsFrameTooLongs = 0x2b,
                         .dot3StatsInternalMacReceiveErrors = 0x2c,
                         .dot3StatsSymbolErrors = 0x2d};
    return msg;
}

inline void write_counters(sflow_intf_config_t *intf)
{
    const sflow_msg_counter_t msg = counters();
    sflow_config_rdlock();
    sflow_receiver_write_countersample(&msg, intf);
    sflow_config_rdunlock();
}

class Collecting : public Export
{
protected:
    Collecting()
    {
        set_agent_address("192.0.2.1");
        set_collector(1, "198.51.100.9");
        port = add_interface(7, 1, 1);
    }
    sflow_intf_config_t *port;
};

} // namespace export_test
