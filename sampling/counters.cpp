#include "counters.h"

#include "records.h"

#include <linux/if.h>

namespace sampling
{

namespace
{

constexpr std::uint32_t ethernet_csmacd = 6; // ifType of RFC 2863
constexpr std::uint32_t promiscuous_true = 1;
constexpr std::uint32_t promiscuous_false = 2;
constexpr std::uint32_t admin_up = 1;
constexpr std::uint32_t oper_up = 2;

std::uint64_t minus(std::uint64_t total, std::uint64_t part)
{
    // The two are read at different moments, and may come from different counters.
    return part < total ? total - part : 0;
}

std::uint32_t known(MacCounters::Value value)
{
    return value ? counter32(*value) : unknown_counter;
}

std::uint32_t known_or(MacCounters::Value value, std::uint64_t otherwise)
{
    return counter32(value.value_or(otherwise));
}

std::uint32_t status_of(const Link &link)
{
    return ((link.flags & IFF_UP) != 0 ? admin_up : 0U) | (link.oper_up ? oper_up : 0U);
}

constexpr std::uint32_t sflow_generic_counter_t::*generic_fields[] = {
    &sflow_generic_counter_t::ifInUcastPkts,      &sflow_generic_counter_t::ifInMulticastPkts,
    &sflow_generic_counter_t::ifInBroadcastPkts,  &sflow_generic_counter_t::ifInDiscards,
    &sflow_generic_counter_t::ifInErrors,         &sflow_generic_counter_t::ifInUnknownProtos,
    &sflow_generic_counter_t::ifOutUcastPkts,     &sflow_generic_counter_t::ifOutMulticastPkts,
    &sflow_generic_counter_t::ifOutBroadcastPkts, &sflow_generic_counter_t::ifOutDiscards,
    &sflow_generic_counter_t::ifOutErrors,
};

constexpr std::uint32_t sflow_ether_counter_t::*ether_fields[] = {
    &sflow_ether_counter_t::dot3StatsAlignmentErrors,
    &sflow_ether_counter_t::dot3StatsFCSErrors,
    &sflow_ether_counter_t::dot3StatsSingleCollisionFrames,
    &sflow_ether_counter_t::dot3StatsMultipleCollisionFrames,
    &sflow_ether_counter_t::dot3StatsSQETestErrors,
    &sflow_ether_counter_t::dot3StatsDeferredTransmissions,
    &sflow_ether_counter_t::dot3StatsLateCollisions,
    &sflow_ether_counter_t::dot3StatsExcessiveCollisions,
    &sflow_ether_counter_t::dot3StatsInternalMacTransmitErrors,
    &sflow_ether_counter_t::dot3StatsCarrierSenseErrors,
    &sflow_ether_counter_t::dot3StatsFrameTooLongs,
    &sflow_ether_counter_t::dot3StatsInternalMacReceiveErrors,
    &sflow_ether_counter_t::dot3StatsSymbolErrors,
};

/// What was lost of one counter: its last value when it has fallen. An unknown value would make the daemon's whole
/// base unknown, so it counts as nothing lost.
template <typename Counter>
Counter lost(Counter last, Counter now)
{
    constexpr auto unknown = static_cast<Counter>(~Counter{0});
    return last != unknown && now < last ? last : Counter{0};
}

} // namespace

sflow_generic_counter_t generic_counters(IFINDEX ifindex, const Link *link, const LinkCounters &counters)
{
    const rtnl_link_stats64 &kernel = counters.link;
    const MacCounters &mac = counters.mac;
    sflow_generic_counter_t generic = {};
    generic.ifIndex = ifindex;
    generic.ifType = ethernet_csmacd;
    generic.ifStatus = link != nullptr ? status_of(*link) : 0;
    generic.ifPromiscuousMode = link != nullptr && link->promiscuous ? promiscuous_true : promiscuous_false;

    // rx_packets counts every packet; multicast, of which drivers know, is among them.
    const std::uint64_t rx_multicast = mac.rx_multicast.value_or(kernel.multicast);
    generic.ifInOctets = kernel.rx_bytes;
    generic.ifInMulticastPkts = counter32(rx_multicast);
    generic.ifInBroadcastPkts = known(mac.rx_broadcast);
    generic.ifInUcastPkts = counter32(minus(kernel.rx_packets, rx_multicast + mac.rx_broadcast.value_or(0)));
    generic.ifInDiscards = counter32(kernel.rx_dropped + kernel.rx_missed_errors);
    generic.ifInErrors = counter32(kernel.rx_errors);
    generic.ifInUnknownProtos = unknown_counter;
    generic.ifOutOctets = kernel.tx_bytes;
    generic.ifOutMulticastPkts = known(mac.tx_multicast);
    generic.ifOutBroadcastPkts = known(mac.tx_broadcast);
    generic.ifOutUcastPkts =
        counter32(minus(kernel.tx_packets, mac.tx_multicast.value_or(0) + mac.tx_broadcast.value_or(0)));
    generic.ifOutDiscards = counter32(kernel.tx_dropped);
    generic.ifOutErrors = counter32(kernel.tx_errors);
    return generic;
}

sflow_ether_counter_t ether_counters(const LinkCounters &counters)
{
    const rtnl_link_stats64 &kernel = counters.link;
    const MacCounters &mac = counters.mac;
    // The kernel counts collisions, not frames that had one or several; only "none" means the same in all three.
    const MacCounters::Value no_collision = kernel.collisions == 0 ? MacCounters::Value(0) : std::nullopt;
    sflow_ether_counter_t ether = {};
    ether.dot3StatsAlignmentErrors = known_or(mac.alignment_errors, kernel.rx_frame_errors);
    ether.dot3StatsFCSErrors = known_or(mac.fcs_errors, kernel.rx_crc_errors);
    ether.dot3StatsSingleCollisionFrames =
        known(mac.single_collisions ? mac.single_collisions : no_collision);
    ether.dot3StatsMultipleCollisionFrames =
        known(mac.multiple_collisions ? mac.multiple_collisions : no_collision);
    ether.dot3StatsSQETestErrors = unknown_counter;
    ether.dot3StatsDeferredTransmissions = known(mac.deferred);
    ether.dot3StatsLateCollisions = known_or(mac.late_collisions, kernel.tx_window_errors);
    ether.dot3StatsExcessiveCollisions = known_or(mac.excessive_collisions, kernel.tx_aborted_errors);
    ether.dot3StatsInternalMacTransmitErrors = known_or(mac.internal_tx_errors, kernel.tx_fifo_errors);
    ether.dot3StatsCarrierSenseErrors = known_or(mac.carrier_sense_errors, kernel.tx_carrier_errors);
    ether.dot3StatsFrameTooLongs = known(mac.frame_too_long);
    ether.dot3StatsInternalMacReceiveErrors = known_or(mac.internal_rx_errors, kernel.rx_fifo_errors);
    ether.dot3StatsSymbolErrors = known(mac.symbol_errors);
    return ether;
}

sflow_counter_ret_t counter_report(const sflow_counter_t &request, const Link *link,
                                   const LinkCounters &counters)
{
    sflow_counter_ret_t report = {};
    report.head = head_of<sflow_counter_ret_t>(SFLOW_CMD_GET_COUNTER_RET);
    report.ifx = request.ifx;
    report.ifx_type = request.ifx_type;
    report.generic = generic_counters(request.ifx, link, counters);
    report.ether = ether_counters(counters);
    return report;
}

std::optional<sflow_counter_ret_t> CounterHistory::compare(const sflow_counter_ret_t &report,
                                                           const LinkCounters &counters)
{
    const Last now = {.report = report,
                      .totals = {counters.link.rx_bytes, counters.link.rx_packets, counters.link.tx_bytes,
                                 counters.link.tx_packets}};
    const auto [entry, first_time] = last_.try_emplace(report.ifx, now);
    if (first_time)
        return std::nullopt;
    const Last last = std::exchange(entry->second, now);
    bool fell = false;
    for (std::size_t i = 0; i < now.totals.size(); ++i)
        fell = fell || now.totals[i] < last.totals[i];
    if (!fell)
        return std::nullopt;

    sflow_counter_ret_t update = {};
    update.head = head_of<sflow_counter_ret_t>(SFLOW_CMD_UPDATE_COUNTER);
    update.ifx = report.ifx;
    update.ifx_type = report.ifx_type;
    update.generic.ifIndex = report.ifx;
    update.generic.ifInOctets = lost(last.report.generic.ifInOctets, report.generic.ifInOctets);
    update.generic.ifOutOctets = lost(last.report.generic.ifOutOctets, report.generic.ifOutOctets);
    for (const auto field : generic_fields)
        update.generic.*field = lost(last.report.generic.*field, report.generic.*field);
    for (const auto field : ether_fields)
        update.ether.*field = lost(last.report.ether.*field, report.ether.*field);
    return update;
}

} // namespace sampling
