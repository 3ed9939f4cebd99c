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

using Value = std::optional<std::uint64_t>;
constexpr Value unknown = std::nullopt;

std::uint64_t minus(std::uint64_t total, std::uint64_t part)
{
    // The two are read at different moments, and may come from different counters.
    return part < total ? total - part : 0;
}

std::uint32_t status_of(const Link &link)
{
    return ((link.flags & IFF_UP) != 0 ? admin_up : 0U) | (link.oper_up ? oper_up : 0U);
}

} // namespace

FieldValues field_values(const LinkCounters &counters)
{
    const rtnl_link_stats64 &kernel = counters.link;
    const MacCounters &mac = counters.mac;
    // rx_packets counts every packet; multicast, of which drivers know, is among them.
    const std::uint64_t rx_multicast = mac.rx_multicast.value_or(kernel.multicast);
    // The kernel counts collisions, not frames that had one or several; only "none" means the same in all three.
    const Value no_collision = kernel.collisions == 0 ? Value(0) : unknown;
    return {
        kernel.rx_bytes,
        minus(kernel.rx_packets, rx_multicast + mac.rx_broadcast.value_or(0)),
        rx_multicast,
        mac.rx_broadcast,
        kernel.rx_dropped + kernel.rx_missed_errors,
        kernel.rx_errors,
        unknown,
        kernel.tx_bytes,
        minus(kernel.tx_packets, mac.tx_multicast.value_or(0) + mac.tx_broadcast.value_or(0)),
        mac.tx_multicast,
        mac.tx_broadcast,
        kernel.tx_dropped,
        kernel.tx_errors,
        mac.alignment_errors.value_or(kernel.rx_frame_errors),
        mac.fcs_errors.value_or(kernel.rx_crc_errors),
        mac.single_collisions ? mac.single_collisions : no_collision,
        mac.multiple_collisions ? mac.multiple_collisions : no_collision,
        unknown,
        mac.deferred,
        mac.late_collisions.value_or(kernel.tx_window_errors),
        mac.excessive_collisions.value_or(kernel.tx_aborted_errors),
        mac.internal_tx_errors.value_or(kernel.tx_fifo_errors),
        mac.carrier_sense_errors.value_or(kernel.tx_carrier_errors),
        mac.frame_too_long,
        mac.internal_rx_errors.value_or(kernel.rx_fifo_errors),
        mac.symbol_errors,
    };
}

std::uint64_t word_of(const CounterField &field, std::optional<std::uint64_t> value, std::uint64_t base)
{
    const std::uint64_t mask = field.mask();
    if (!value)
        return mask;
    const std::uint64_t word = *value & mask;
    return word == mask || ((word + base) & mask) == mask ? word - 1 : word;
}

sflow_counter_ret_t counter_report(const sflow_counter_t &request, const Link *link)
{
    sflow_counter_ret_t report = {};
    report.head = head_of<sflow_counter_ret_t>(SFLOW_CMD_GET_COUNTER_RET);
    report.ifx = request.ifx;
    report.ifx_type = request.ifx_type;
    report.generic.ifIndex = request.ifx;
    report.generic.ifType = ethernet_csmacd;
    report.generic.ifStatus = link != nullptr ? status_of(*link) : 0;
    report.generic.ifPromiscuousMode =
        link != nullptr && link->promiscuous ? promiscuous_true : promiscuous_false;
    return report;
}

} // namespace sampling
