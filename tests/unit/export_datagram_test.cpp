// Datagrams byte by byte: what the receivers make of flow and counters samples.
#include "export_samples.h"

#include "../../sflow_app/sflow_wire.h"

#include <cstring>
#include <limits>
#include <optional>

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

using Receiver_write_flowsample = Collecting;
using Receiver_write_countersample = Collecting;
using Receiver_get_interface_info = Export;

} // namespace

// ---- Writer -----------------------------------------------------------------------------------------------

TEST(Wire_fields, are_big_endian_wherever_they_lie)
{
    std::uint8_t bytes[14] = {};
    sflow_wire_t wire = sflow_wire_begin(bytes, sizeof(bytes));
    sflow_wire_bytes(&wire, "\x01", 1);
    sflow_wire_u64(&wire, 0x0203040506070809);
    sflow_wire_u32(&wire, 0x0a0b0c0d);
    EXPECT_FALSE(wire.overflow);
    EXPECT_THAT(bytes, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0));
}

TEST(Wire_fields, that_do_not_fit_and_all_after_them_are_not_written)
{
    std::uint8_t bytes[8] = {};
    sflow_wire_t wire = sflow_wire_begin(bytes, 6);
    sflow_wire_u32(&wire, 0x01010101);
    sflow_wire_u32(&wire, 0x02020202);
    EXPECT_TRUE(wire.overflow);
    sflow_wire_bytes(&wire, "\x03", 1);
    EXPECT_EQ(sflow_wire_take(&wire, 0), nullptr);
    EXPECT_THAT(bytes, ElementsAre(1, 1, 1, 1, 0, 0, 0, 0));
}

TEST(Wire_fields, may_fill_the_buffer_to_its_last_byte)
{
    std::uint8_t bytes[4] = {};
    sflow_wire_t wire = sflow_wire_begin(bytes, sizeof(bytes));
    sflow_wire_u32(&wire, 0xffffffff);
    EXPECT_NE(sflow_wire_take(&wire, 0), nullptr);
    sflow_wire_bytes(&wire, nullptr, 0);
    EXPECT_FALSE(wire.overflow);
}

// ---- Golden datagrams -------------------------------------------------------------------------------------

TEST_F(Receiver_write_flowsample, golden_datagram_of_an_ipv4_agent)
{
    world().uptime_sec = 0x1234;
    port->flow_seqno = 0x31;
    port->total_pkt = 0x32;
    set_rate(0x2000);
    write_flow(frame(5), port);
    flush();
    const Field fields[] = {
        {"version", "00000005"},
        {"agent address type IPv4", "00000001"},
        {"agent address", "c0000201"},
        {"sub-agent id", "00000000"},
        {"datagram sequence number", "00000001"},
        {"uptime in ms", "00471b20"},
        {"number of samples", "00000001"},
        // expanded flow sample
        {"sample tag", "00000003"},
        {"sample length", "00000064"},
        {"sequence number", "00000031"},
        {"source id type", "00000000"},
        {"source id index", "00000007"},
        {"sampling rate", "00002000"},
        {"sample pool", "00000032"},
        {"drops", "00000104"},
        {"input format", "00000000"},
        {"input value", "00000101"},
        {"output format", "00000000"},
        {"output value", "00000102"},
        {"number of records", "00000002"},
        // extended switch data
        {"record tag", "000003e9"},
        {"record length", "00000010"},
        {"source vlan", "00000107"},
        {"source priority", "00000108"},
        {"destination vlan", "00000109"},
        {"destination priority", "0000010a"},
        // raw packet header
        {"record tag", "00000001"},
        {"record length", "00000018"},
        {"header protocol Ethernet", "00000001"},
        {"frame length", "00000105"},
        {"stripped", "00000106"},
        {"header length, padded", "00000008"},
        {"header", "0102030405"},
        {"pad", "000000"},
    };
    expect_datagram(only_datagram(), fields);
    EXPECT_EQ(sent()[0].to, "198.51.100.9:6343");
}

TEST_F(Receiver_write_flowsample, golden_header_of_an_ipv6_agent)
{
    set_agent_address("2001:db8:1:2:3:4:5:6");
    world().uptime_sec = 1;
    write_flow("", port);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    ASSERT_EQ(datagram.size(), 140U);
    const Field fields[] = {
        {"version", "00000005"},
        {"agent address type IPv6", "00000002"},
        {"agent address", "20010db8 00010002 00030004 00050006"},
        {"sub-agent id", "00000000"},
        {"datagram sequence number", "00000001"},
        {"uptime in ms", "000003e8"},
        {"number of samples", "00000001"},
        {"sample tag", "00000003"},
        {"sample length", "0000005c"},
        {"sequence number", "00000001"},
    };
    expect_datagram({datagram.begin(), datagram.begin() + 52}, fields);
}

TEST_F(Receiver_write_countersample, golden_datagram)
{
    fake::set_interface(7,
                        {.name = "eth7", .eth = lsm_eth_info_t{.duplex = LSM_DUPLEX_FULL, .speed = 100000}});
    port->counter_seqno = 0x41;
    write_counters(port);
    flush();
    const Field fields[] = {
        {"version", "00000005"},
        {"agent address type IPv4", "00000001"},
        {"agent address", "c0000201"},
        {"sub-agent id", "00000000"},
        {"datagram sequence number", "00000001"},
        {"uptime in ms", "00000000"},
        {"number of samples", "00000001"},
        // counters sample, the compact form
        {"sample tag", "00000002"},
        {"sample length", "000000a8"},
        {"sequence number", "00000041"},
        {"source id: class 0, index", "00000007"},
        {"number of records", "00000002"},
        // generic interface counters
        {"record tag", "00000001"},
        {"record length", "00000058"},
        {"ifIndex", "00000007"},
        {"ifType", "00000006"},
        {"ifSpeed", "000000174876e800"},
        {"ifDirection", "00000001"},
        {"ifStatus", "00000003"},
        {"ifInOctets", "0102030405060708"},
        {"ifInUcastPkts", "00000011"},
        {"ifInMulticastPkts", "00000012"},
        {"ifInBroadcastPkts", "00000013"},
        {"ifInDiscards", "00000014"},
        {"ifInErrors", "00000015"},
        {"ifInUnknownProtos", "00000016"},
        {"ifOutOctets", "1112131415161718"},
        {"ifOutUcastPkts", "00000017"},
        {"ifOutMulticastPkts", "00000018"},
        {"ifOutBroadcastPkts", "00000019"},
        {"ifOutDiscards", "0000001a"},
        {"ifOutErrors", "0000001b"},
        {"ifPromiscuousMode", "00000002"},
        // Ethernet interface counters
        {"record tag", "00000002"},
        {"record length", "00000034"},
        {"dot3StatsAlignmentErrors", "00000021"},
        {"dot3StatsFCSErrors", "00000022"},
        {"dot3StatsSingleCollisionFrames", "00000023"},
        {"dot3StatsMultipleCollisionFrames", "00000024"},
        {"dot3StatsSQETestErrors", "00000025"},
        {"dot3StatsDeferredTransmissions", "00000026"},
        {"dot3StatsLateCollisions", "00000027"},
        {"dot3StatsExcessiveCollisions", "00000028"},
        {"dot3StatsInternalMacTransmitErrors", "00000029"},
        {"dot3StatsCarrierSenseErrors", "0000002a"},
        {"dot3StatsFrameTooLongs", "0000002b"},
        {"dot3StatsInternalMacReceiveErrors", "0000002c"},
        {"dot3StatsSymbolErrors", "0000002d"},
    };
    expect_datagram(only_datagram(), fields);
}

// ---- Flow samples -----------------------------------------------------------------------------------------

TEST_F(Receiver_write_flowsample, header_length_is_cut_at_maxhlen_and_padded_to_words)
{
    const struct {
        std::uint32_t maxhlen;
        std::size_t captured;
        std::size_t copied;
        std::uint32_t padded;
    } rows[] = {
        {128, 60, 60, 60}, {128, 61, 61, 64}, {128, 128, 128, 128}, {128, 200, 128, 128},
        {64, 63, 63, 64},  {62, 200, 64, 64}, {62, 63, 63, 64},     {61, 64, 64, 64},
        {65, 200, 68, 68}, {0, 200, 0, 0},    {128, 0, 0, 0},       {0xffffffff, 5, 5, 8},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("maxhlen " + std::to_string(row.maxhlen) + ", captured " + std::to_string(row.captured));
        reset_syscalls();
        set_maxhlen(row.maxhlen);
        set_collector(1, "198.51.100.9");
        const std::string header = frame(row.captured);
        write_flow(header, port);
        flush();
        const std::vector<std::uint8_t> datagram = only_datagram();
        ASSERT_EQ(datagram.size(), 128 + row.padded);
        EXPECT_EQ(field(datagram, FLOW_LENGTH), 92 + row.padded);
        EXPECT_EQ(field(datagram, RAW_LENGTH), 16 + row.padded);
        EXPECT_EQ(field(datagram, RAW_HEADER_LENGTH), row.padded);
        EXPECT_EQ(std::memcmp(datagram.data() + RAW_HEADER, header.data(), row.copied), 0);
        for (std::size_t pad = row.copied; pad < row.padded; pad++)
            EXPECT_EQ(datagram[RAW_HEADER + pad], 0) << "pad of a fresh buffer";
    }
}

TEST_F(Receiver_write_flowsample, header_of_60_bytes_makes_a_datagram_of_188)
{
    set_maxhlen(128);
    write_flow(frame(60), port);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(datagram.size(), 188U);
    EXPECT_EQ(field(datagram, RAW_HEADER_LENGTH), 60U);
    EXPECT_EQ(field(datagram, FLOW_LENGTH), 152U);
}

TEST_F(Receiver_write_flowsample, pad_bytes_are_not_written)
{
    set_maxhlen(128);
    write_flow(std::string(128, '\xee'), port);
    flush();
    write_flow(frame(61), port);
    flush();
    ASSERT_EQ(sent().size(), 2U);
    const std::vector<std::uint8_t> &datagram = sent()[1].bytes;
    ASSERT_EQ(datagram.size(), 192U);
    EXPECT_EQ(datagram[RAW_HEADER + 60], 61);
    for (std::size_t pad = 61; pad < 64; pad++)
        EXPECT_EQ(datagram[RAW_HEADER + pad], 0xee) << "byte of the datagram before, at " << pad;
}

TEST_F(Receiver_write_flowsample, logs_the_bytes_copied)
{
    log_everything();
    set_maxhlen(128);
    write_flow(frame(61), port);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_receiver_write_flowsample header len:61\n"));
}

TEST_F(Receiver_write_flowsample, samples_of_an_interface_count_on_and_their_pools_by_the_global_rate)
{
    set_rate(4096);
    port->total_pkt = 0xfffff800;
    for (int i = 0; i < 3; i++)
        write_flow(frame(4), port);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    const std::uint32_t pools[] = {0xfffff800, 0x800, 0x1800};
    for (std::size_t i = 0; i < 3; i++) {
        EXPECT_EQ(field(datagram, FLOW_SEQNO + i * 104), i + 1);
        EXPECT_EQ(field(datagram, FLOW_POOL + i * 104), pools[i]);
        EXPECT_EQ(field(datagram, FLOW_RATE + i * 104), 4096U);
    }
    EXPECT_EQ(field(datagram, DATAGRAM_SAMPLES), 3U);
}

TEST_F(Receiver_write_flowsample, without_interface_shares_one_sequence_and_takes_the_pool_reported)
{
    for (std::uint32_t i = 0; i < 2; i++) {
        sflow_flow_info_t info = flow_info(0);
        info.sample_pool = 500 + i;
        write_flow(frame(4), nullptr, info);
    }
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    for (std::size_t i = 0; i < 2; i++) {
        EXPECT_EQ(field(datagram, FLOW_SEQNO + i * 104), i + 1);
        EXPECT_EQ(field(datagram, FLOW_SOURCE + i * 104), 0U);
        EXPECT_EQ(field(datagram, FLOW_POOL + i * 104), 500 + i);
        EXPECT_EQ(field(datagram, FLOW_RATE + i * 104), SFLOW_DEFAULT_SAMPLING_RATE);
    }
    EXPECT_EQ(sflow_unkown_flow_seqno, 3U);
    EXPECT_EQ(port->flow_seqno, 1U);
}

TEST_F(Receiver_write_flowsample, without_a_collector_is_dropped_silently)
{
    log_everything();
    const std::uint32_t ids[] = {0, 2, 3, 0xffffffff};
    for (const std::uint32_t fid : ids) {
        port->fid = fid;
        write_flow(frame(4), port);
    }
    EXPECT_EQ(port->flow_seqno, 1U);
    EXPECT_EQ(port->total_pkt, 0U);

    receiver(1)->is_enable = false;
    write_flow(frame(4), nullptr);
    EXPECT_EQ(sflow_unkown_flow_seqno, 1U);
    EXPECT_EQ(receiver(1)->flow_sample_num + receiver(2)->flow_sample_num, 0U);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
    EXPECT_EQ(sflow_statis.sflow_drop_invalid_num, 0U);
}

TEST_F(Receiver_write_flowsample, of_a_negative_length_is_dropped_and_counted)
{
    log_everything();
    for (const int buf_len : {-1, std::numeric_limits<int>::min()})
        write_flow_of_length(buf_len, "", port);
    EXPECT_EQ(sflow_statis.sflow_drop_invalid_num, 2U);
    EXPECT_EQ(port->flow_seqno, 1U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-EXPT]sflow_receiver_write_flowsample drop sample, header len:-1\n",
                    "[SFLOW-EXPT]sflow_receiver_write_flowsample drop sample, header len:-2147483648\n"));
}

TEST_F(Receiver_write_flowsample, that_fills_the_buffer_is_sent_and_one_byte_more_is_dropped_and_counted)
{
    set_maxhlen(0xffffffff);
    write_flow(frame(8872), port);
    EXPECT_EQ(receiver(1)->pktlen, SFLOW_DATAGRAM_BYTES);
    flush();
    EXPECT_EQ(only_datagram().size(), 9000U);

    write_flow(frame(8873), port);
    write_flow_of_length(std::numeric_limits<int>::max(), frame(16), port);
    EXPECT_EQ(sflow_statis.sflow_drop_invalid_num, 2U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_EQ(port->flow_seqno, 2U);
    flush();
    EXPECT_EQ(sent().size(), 1U);
}

TEST_F(Receiver_write_flowsample, never_goes_beyond_the_buffer_whatever_the_bookkeeping_says)
{
    sflreceiver_t *one = receiver(1);
    one->maxdatagramsize = 0xffffffff;
    one->pktlen = SFLOW_DATAGRAM_BYTES - 8;
    one->datap = one->data + one->pktlen / 4;
    write_flow(frame(64), port);
    write_counters(port);
    EXPECT_EQ(one->pktlen, SFLOW_DATAGRAM_BYTES - 8);
    EXPECT_EQ(one->flow_sample_num + one->counter_sample_num, 0U);
    EXPECT_EQ(port->flow_seqno, 1U);
    EXPECT_EQ(port->counter_seqno, 1U);
}

// ---- Interface facts --------------------------------------------------------------------------------------

TEST_F(Receiver_get_interface_info, tells_what_the_interface_manager_knows)
{
    constexpr auto unknown_line = static_cast<lsm_line_state_t>(2);
    constexpr auto unknown_admin = static_cast<lsm_admin_state_t>(2);
    const struct {
        const char *name;
        lsm_admin_state_t admin;
        lsm_line_state_t line;
        std::optional<lsm_eth_info_t> eth;
        std::uint64_t speed;
        std::uint32_t direct;
        std::uint32_t status;
    } rows[] = {
        {"up, full duplex", INTF_ADMIN_UP, INTF_UP, lsm_eth_info_t{LSM_DUPLEX_FULL, 1000}, 1000000000, 1, 3},
        {"up, half duplex", INTF_ADMIN_UP, INTF_UP, lsm_eth_info_t{LSM_DUPLEX_HALF, 10}, 10000000, 2, 3},
        {"up, duplex unknown", INTF_ADMIN_UP, INTF_UP, lsm_eth_info_t{LSM_DUPLEX_AUTO, 0}, 0, 0, 3},
        {"line down", INTF_ADMIN_UP, INTF_DOWN, lsm_eth_info_t{LSM_DUPLEX_FULL, 800000}, 800000000000, 1, 1},
        {"line state unknown", INTF_ADMIN_UP, unknown_line, lsm_eth_info_t{LSM_DUPLEX_FULL, 1}, 1000000, 1,
         0},
        {"administratively down", INTF_ADMIN_DOWN, INTF_UP, lsm_eth_info_t{LSM_DUPLEX_FULL, 1}, 1000000, 1,
         0},
        {"administrative state unknown", unknown_admin, INTF_UP, std::nullopt, 0, 0, 0},
        {"no Ethernet information", INTF_ADMIN_UP, INTF_UP, std::nullopt, 0, 0, 3},
        {"largest speed", INTF_ADMIN_UP, INTF_UP, lsm_eth_info_t{LSM_DUPLEX_FULL, 0xffffffff},
         4294967295000000, 1, 3},
    };
    for (const auto &row : rows) {
        fake::set_interface(
            7, {.name = "eth7", .admin_state = row.admin, .line_state = row.line, .eth = row.eth});
        std::uint64_t speed = 99;
        std::uint32_t direct = 99;
        std::uint32_t status = 99;
        sflow_receiver_get_interface_info(7, &speed, &direct, &status);
        EXPECT_EQ(speed, row.speed) << row.name;
        EXPECT_EQ(direct, row.direct) << row.name;
        EXPECT_EQ(status, row.status) << row.name;
    }
}

TEST_F(Receiver_get_interface_info, logs_what_it_learns)
{
    log_everything();
    fake::set_interface(7,
                        {.name = "eth7", .eth = lsm_eth_info_t{.duplex = LSM_DUPLEX_HALF, .speed = 40000}});
    std::uint64_t speed;
    std::uint32_t direct;
    std::uint32_t status;
    sflow_receiver_get_interface_info(7, &speed, &direct, &status);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]intf admin status :3\n", "[SFLOW-EXPT]intf duplex :2\n",
                            "[SFLOW-EXPT]intf speed:40000\n"));
}

TEST_F(Receiver_get_interface_info, of_an_unknown_interface_is_all_zero)
{
    log_everything();
    std::uint64_t speed = 99;
    std::uint32_t direct = 99;
    std::uint32_t status = 99;
    sflow_receiver_get_interface_info(8, &speed, &direct, &status);
    EXPECT_EQ(speed, 0U);
    EXPECT_EQ(direct, 0U);
    EXPECT_EQ(status, 0U);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_receiver_get_interface_info get intfcb fail:8.\n"));
}
