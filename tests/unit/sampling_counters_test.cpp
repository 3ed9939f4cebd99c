#include "counters.h"

#include "records.h"

#include <gtest/gtest.h>
#include <linux/if.h>

namespace sampling
{
namespace
{

constexpr std::uint32_t unknown = 0xFFFFFFFF;

sflow_counter_t request(IFINDEX ifx)
{
    return {.head = head_of<sflow_counter_t>(257), .ifx = ifx, .ifx_type = 3};
}

TEST(Counters_counter32, keeps_the_low_word_and_never_reads_as_unknown)
{
    EXPECT_EQ(counter32(0), 0U);
    EXPECT_EQ(counter32(0xFFFFFFFE), 0xFFFFFFFEU);
    EXPECT_EQ(counter32(0xFFFFFFFF), 0xFFFFFFFEU);
    EXPECT_EQ(counter32(0x1'0000'0000), 0U);
    EXPECT_EQ(counter32(0x5'FFFF'FFFF), 0xFFFFFFFEU);
}

TEST(Counters_generic_counters, of_an_interface_without_mac_statistics)
{
    LinkCounters counters;
    counters.link.rx_bytes = 0x1'0000'0001;
    counters.link.rx_packets = 100;
    counters.link.multicast = 30;
    counters.link.rx_dropped = 4;
    counters.link.rx_missed_errors = 5;
    counters.link.rx_errors = 6;
    counters.link.rx_nohandler = 77;
    counters.link.tx_bytes = 0x2'0000'0002;
    counters.link.tx_packets = 200;
    counters.link.tx_dropped = 8;
    counters.link.tx_errors = 9;
    const sflow_generic_counter_t generic = generic_counters(12, nullptr, counters);
    EXPECT_EQ(generic.ifIndex, 12U);
    EXPECT_EQ(generic.ifType, 6U);
    EXPECT_EQ(generic.ifSpeed, 0U);
    EXPECT_EQ(generic.ifDirection, 0U);
    EXPECT_EQ(generic.ifStatus, 0U);
    EXPECT_EQ(generic.ifInOctets, 0x1'0000'0001U);
    EXPECT_EQ(generic.ifInUcastPkts, 70U);
    EXPECT_EQ(generic.ifInMulticastPkts, 30U);
    EXPECT_EQ(generic.ifInBroadcastPkts, unknown);
    EXPECT_EQ(generic.ifInDiscards, 9U);
    EXPECT_EQ(generic.ifInErrors, 6U);
    EXPECT_EQ(generic.ifInUnknownProtos, unknown);
    EXPECT_EQ(generic.ifOutOctets, 0x2'0000'0002U);
    EXPECT_EQ(generic.ifOutUcastPkts, 200U);
    EXPECT_EQ(generic.ifOutMulticastPkts, unknown);
    EXPECT_EQ(generic.ifOutBroadcastPkts, unknown);
    EXPECT_EQ(generic.ifOutDiscards, 8U);
    EXPECT_EQ(generic.ifOutErrors, 9U);
    EXPECT_EQ(generic.ifPromiscuousMode, 2U);
}

TEST(Counters_generic_counters, mac_statistics_split_the_packets)
{
    LinkCounters counters;
    counters.link.rx_packets = 100;
    counters.link.multicast = 99; // the MAC knows better
    counters.link.tx_packets = 200;
    counters.mac.rx_multicast = 20;
    counters.mac.rx_broadcast = 10;
    counters.mac.tx_multicast = 40;
    counters.mac.tx_broadcast = 50;
    const sflow_generic_counter_t generic = generic_counters(1, nullptr, counters);
    EXPECT_EQ(generic.ifInUcastPkts, 70U);
    EXPECT_EQ(generic.ifInMulticastPkts, 20U);
    EXPECT_EQ(generic.ifInBroadcastPkts, 10U);
    EXPECT_EQ(generic.ifOutUcastPkts, 110U);
    EXPECT_EQ(generic.ifOutMulticastPkts, 40U);
    EXPECT_EQ(generic.ifOutBroadcastPkts, 50U);
}

TEST(Counters_generic_counters, more_multicast_than_packets_gives_no_unicast)
{
    LinkCounters counters;
    counters.link.rx_packets = 10;
    counters.link.multicast = 11;
    EXPECT_EQ(generic_counters(1, nullptr, counters).ifInUcastPkts, 0U);
}

TEST(Counters_generic_counters, status_and_promiscuity_come_from_the_interface)
{
    struct Row {
        std::uint32_t flags;
        bool oper_up, promiscuous;
        std::uint32_t status, mode;
    };
    for (const Row &row :
         {Row{0, false, false, 0, 2}, Row{IFF_UP, false, false, 1, 2}, Row{IFF_UP, true, true, 3, 1}}) {
        Link link;
        link.flags = row.flags;
        link.oper_up = row.oper_up;
        link.promiscuous = row.promiscuous;
        const sflow_generic_counter_t generic = generic_counters(1, &link, {});
        EXPECT_EQ(generic.ifStatus, row.status);
        EXPECT_EQ(generic.ifPromiscuousMode, row.mode);
    }
}

TEST(Counters_ether_counters, come_from_rtnetlink_where_the_mac_tells_nothing)
{
    LinkCounters counters;
    counters.link.rx_frame_errors = 1;
    counters.link.rx_crc_errors = 2;
    counters.link.tx_window_errors = 3;
    counters.link.tx_aborted_errors = 4;
    counters.link.tx_fifo_errors = 5;
    counters.link.tx_carrier_errors = 6;
    counters.link.rx_fifo_errors = 7;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsAlignmentErrors, 1U);
    EXPECT_EQ(ether.dot3StatsFCSErrors, 2U);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, 0U); // no collision at all
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, 0U);
    EXPECT_EQ(ether.dot3StatsSQETestErrors, unknown);
    EXPECT_EQ(ether.dot3StatsDeferredTransmissions, unknown);
    EXPECT_EQ(ether.dot3StatsLateCollisions, 3U);
    EXPECT_EQ(ether.dot3StatsExcessiveCollisions, 4U);
    EXPECT_EQ(ether.dot3StatsInternalMacTransmitErrors, 5U);
    EXPECT_EQ(ether.dot3StatsCarrierSenseErrors, 6U);
    EXPECT_EQ(ether.dot3StatsFrameTooLongs, unknown);
    EXPECT_EQ(ether.dot3StatsInternalMacReceiveErrors, 7U);
    EXPECT_EQ(ether.dot3StatsSymbolErrors, unknown);
}

TEST(Counters_ether_counters, collisions_that_cannot_be_told_apart_are_unknown)
{
    LinkCounters counters;
    counters.link.collisions = 1;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, unknown);
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, unknown);
}

TEST(Counters_ether_counters, mac_statistics_win)
{
    LinkCounters counters;
    counters.link.collisions = 1000;
    counters.link.rx_crc_errors = 1000;
    counters.mac.alignment_errors = 1;
    counters.mac.fcs_errors = 2;
    counters.mac.single_collisions = 3;
    counters.mac.multiple_collisions = 4;
    counters.mac.deferred = 5;
    counters.mac.late_collisions = 6;
    counters.mac.excessive_collisions = 7;
    counters.mac.internal_tx_errors = 8;
    counters.mac.carrier_sense_errors = 9;
    counters.mac.frame_too_long = 10;
    counters.mac.internal_rx_errors = 11;
    counters.mac.symbol_errors = 12;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsAlignmentErrors, 1U);
    EXPECT_EQ(ether.dot3StatsFCSErrors, 2U);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, 3U);
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, 4U);
    EXPECT_EQ(ether.dot3StatsSQETestErrors, unknown);
    EXPECT_EQ(ether.dot3StatsDeferredTransmissions, 5U);
    EXPECT_EQ(ether.dot3StatsLateCollisions, 6U);
    EXPECT_EQ(ether.dot3StatsExcessiveCollisions, 7U);
    EXPECT_EQ(ether.dot3StatsInternalMacTransmitErrors, 8U);
    EXPECT_EQ(ether.dot3StatsCarrierSenseErrors, 9U);
    EXPECT_EQ(ether.dot3StatsFrameTooLongs, 10U);
    EXPECT_EQ(ether.dot3StatsInternalMacReceiveErrors, 11U);
    EXPECT_EQ(ether.dot3StatsSymbolErrors, 12U);
}

TEST(Counters_counter_report, echoes_the_request)
{
    const sflow_counter_ret_t report = counter_report(request(9), nullptr, {});
    EXPECT_EQ(report.head.type, 513U);
    EXPECT_EQ(report.head.len, 160U);
    EXPECT_EQ(report.ifx, 9U);
    EXPECT_EQ(report.ifx_type, 3);
    EXPECT_EQ(report.pad, 0U);
}

struct History {
    CounterHistory history;
    LinkCounters counters;

    std::optional<sflow_counter_ret_t> poll(IFINDEX ifx = 5)
    {
        return history.compare(counter_report(request(ifx), nullptr, counters), counters);
    }
};

TEST(CounterHistory_compare, growing_counters_send_nothing)
{
    History h;
    EXPECT_FALSE(h.poll());
    h.counters.link.rx_bytes = 100;
    EXPECT_FALSE(h.poll());
    EXPECT_FALSE(h.poll());
}

TEST(CounterHistory_compare, a_restart_reports_what_was_lost_of_each_counter_that_fell)
{
    History h;
    h.counters.link.rx_bytes = 0x1'0000'0000;
    h.counters.link.rx_packets = 500;
    h.counters.link.tx_packets = 7;
    h.counters.link.rx_errors = 3;
    h.counters.link.rx_crc_errors = 2;
    EXPECT_FALSE(h.poll());
    h.counters.link = {};
    h.counters.link.rx_packets = 20;
    h.counters.link.tx_packets = 8; // did not fall
    const auto update = h.poll();
    ASSERT_TRUE(update);
    EXPECT_EQ(update->head.type, 516U);
    EXPECT_EQ(update->head.len, 160U);
    EXPECT_EQ(update->ifx, 5U);
    EXPECT_EQ(update->ifx_type, 3);
    EXPECT_EQ(update->generic.ifIndex, 5U);
    EXPECT_EQ(update->generic.ifInOctets, 0x1'0000'0000U);
    EXPECT_EQ(update->generic.ifInUcastPkts, 500U);
    EXPECT_EQ(update->generic.ifOutUcastPkts, 0U);
    EXPECT_EQ(update->generic.ifInErrors, 3U);
    EXPECT_EQ(update->ether.dot3StatsFCSErrors, 2U);
    EXPECT_FALSE(h.poll()); // told once
}

TEST(CounterHistory_compare, unknown_values_are_no_loss)
{
    History h;
    h.counters.link.rx_bytes = 10;
    h.counters.link.collisions = 1; // both collision fields unknown
    EXPECT_FALSE(h.poll());
    h.counters.link = {};
    const auto update = h.poll();
    ASSERT_TRUE(update);
    EXPECT_EQ(update->generic.ifInBroadcastPkts, 0U);
    EXPECT_EQ(update->ether.dot3StatsSingleCollisionFrames, 0U);
    EXPECT_EQ(update->ether.dot3StatsSQETestErrors, 0U);
}

TEST(CounterHistory_compare, a_derived_counter_that_jitters_is_no_restart)
{
    History h;
    h.counters.link.rx_packets = 100;
    EXPECT_FALSE(h.poll());
    h.counters.link.rx_packets = 101;
    h.counters.link.multicast = 5; // unicast falls from 100 to 96
    EXPECT_FALSE(h.poll());
}

TEST(CounterHistory_compare, a_wrap_of_the_exported_word_is_no_restart)
{
    History h;
    h.counters.link.rx_packets = 0xFFFFFFF0;
    EXPECT_FALSE(h.poll());
    h.counters.link.rx_packets = 0x1'0000'0010;
    EXPECT_FALSE(h.poll());
}

TEST(CounterHistory_forget, an_interface_that_went_starts_afresh)
{
    History h;
    h.counters.link.rx_bytes = 100;
    EXPECT_FALSE(h.poll());
    h.history.forget(5);
    h.counters.link.rx_bytes = 1;
    EXPECT_FALSE(h.poll());
}

TEST(CounterHistory_compare, interfaces_are_kept_apart)
{
    History h;
    h.counters.link.rx_bytes = 100;
    EXPECT_FALSE(h.poll(5));
    h.counters.link.rx_bytes = 1;
    EXPECT_FALSE(h.poll(6));
}

} // namespace
} // namespace sampling
