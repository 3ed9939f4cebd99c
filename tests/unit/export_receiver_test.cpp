// Receivers: their start-up state, when a datagram leaves, and what becomes of samples that cannot leave.
#include "export_samples.h"

#include <cerrno>
#include <cstring>

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

using Receiver_init = Export;
using Receiver_reset_buf = Export;
using Receiver_reset_all_buf = Export;
using Receiver_get_enable_receiver = Export;
using Receiver_is_enable_receiver = Export;
using Receiver_write_flowsample = Collecting;
using Receiver_write_countersample = Collecting;
using Receiver_send_sample = Collecting;
using Receiver_send_all_receiver_sample = Collecting;

} // namespace

// ---- Start-up and buffer ----------------------------------------------------------------------------------

TEST_F(Receiver_init, leaves_both_receivers_idle_with_their_defaults)
{
    for (std::uint32_t cid = 1; cid <= 2; cid++) {
        std::memset(receiver(cid), 0xff, sizeof(sflreceiver_t));
    }
    sflow_receiver_init();
    for (std::uint32_t cid = 1; cid <= 2; cid++) {
        const sflreceiver_t *each = receiver(cid);
        EXPECT_EQ(each->cid, cid);
        EXPECT_EQ(each->maxdatagramsize, 1400U);
        EXPECT_EQ(each->version, 5U);
        EXPECT_EQ(each->sd, -1);
        EXPECT_FALSE(each->is_enable);
        EXPECT_EQ(each->collector_port, 0);
        EXPECT_EQ(each->seqno, 0U);
        EXPECT_EQ(each->pktlen, 0U);
        const sfladdress_t zero = {};
        EXPECT_EQ(std::memcmp(&each->address, &zero, sizeof(zero)), 0);
    }
}

TEST_F(Receiver_reset_buf, does_nothing_without_an_agent_address)
{
    sflreceiver_t *one = receiver(1);
    one->data[3] = 0x55;
    one->seqno = 9;
    sflow_config_wrlock();
    sflow_receiver_reset_buf(one);
    sflow_config_wrunlock();
    EXPECT_EQ(one->data[3], 0x55U);
    EXPECT_EQ(one->seqno, 9U);
    EXPECT_EQ(one->pktlen, 0U);
}

TEST_F(Receiver_reset_buf, reserves_the_header_of_the_agent_addresss_family)
{
    const struct {
        const char *agent;
        std::uint32_t pktlen;
    } rows[] = {{"192.0.2.1", 28}, {"2001:db8::1", 40}};
    for (const auto &row : rows) {
        set_agent_address(row.agent);
        sflreceiver_t *one = receiver(1);
        std::memset(one->data, 0xee, sizeof(one->data));
        one->seqno = 9;
        one->flow_sample_num = 2;
        one->counter_sample_num = 3;
        sflow_config_wrlock();
        sflow_receiver_reset_buf(one);
        sflow_config_wrunlock();
        EXPECT_EQ(one->pktlen, row.pktlen) << row.agent;
        EXPECT_EQ(one->datap, one->data + row.pktlen / 4) << row.agent;
        EXPECT_EQ(one->seqno, 1U) << row.agent;
        EXPECT_EQ(one->flow_sample_num, 2U) << "counts stay";
        EXPECT_EQ(one->counter_sample_num, 3U) << "counts stay";
        for (const std::uint32_t word : one->data)
            ASSERT_EQ(word, 0U) << row.agent;
    }
}

TEST_F(Receiver_reset_all_buf, leaves_a_receiver_without_collector_alone)
{
    set_agent_address("192.0.2.1");
    set_collector(2, "198.51.100.9");
    receiver(1)->seqno = 5;
    receiver(2)->seqno = 6;
    sflow_config_wrlock();
    sflow_receiver_reset_all_buf();
    sflow_config_wrunlock();
    EXPECT_EQ(receiver(1)->seqno, 5U);
    EXPECT_EQ(receiver(2)->seqno, 1U);
}

TEST_F(Receiver_get_enable_receiver, prefers_collector_1)
{
    EXPECT_EQ(sflow_receiver_get_enable_receiver(), nullptr);
    set_collector(2, "198.51.100.9");
    EXPECT_EQ(sflow_receiver_get_enable_receiver(), receiver(2));
    set_collector(1, "198.51.100.8");
    EXPECT_EQ(sflow_receiver_get_enable_receiver(), receiver(1));
}

TEST_F(Receiver_is_enable_receiver, refuses_ids_that_no_collector_has)
{
    set_collector(1, "198.51.100.9");
    EXPECT_TRUE(sflow_is_enable_receiver(1));
    for (const std::uint32_t cid : {0U, 2U, 3U, 0x7fffffffU, 0xffffffffU})
        EXPECT_FALSE(sflow_is_enable_receiver(cid)) << cid;
}

TEST(Receiver_cal_flowsample_size, is_100_bytes_and_the_padded_header)
{
    EXPECT_EQ(sflow_receiver_cal_flowsample_size(0), 100U);
    EXPECT_EQ(sflow_receiver_cal_flowsample_size(64), 164U);
}

TEST(Receiver_cal_countersample_size, is_176_bytes)
{
    EXPECT_EQ(sflow_receiver_cal_countersample_size(), 176U);
}

// ---- The fit rule -----------------------------------------------------------------------------------------

TEST_F(Receiver_write_flowsample, that_exactly_fills_the_datagram_stays_in_it)
{
    receiver(1)->maxdatagramsize = 28 + 2 * 164;
    write_flow(frame(64), port);
    write_flow(frame(64), port);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(receiver(1)->pktlen, 356U);
}

TEST_F(Receiver_write_flowsample, that_is_a_byte_too_long_sends_first)
{
    receiver(1)->maxdatagramsize = 28 + 2 * 164 - 1;
    write_flow(frame(64), port);
    write_flow(frame(64), port);
    EXPECT_EQ(only_datagram().size(), 192U);
    EXPECT_EQ(receiver(1)->pktlen, 192U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    EXPECT_EQ(receiver(1)->seqno, 2U);
}

TEST_F(Receiver_write_flowsample, larger_than_the_maximum_goes_into_a_datagram_of_its_own)
{
    receiver(1)->maxdatagramsize = 150;
    write_flow(frame(64), port);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    write_flow(frame(64), port);
    EXPECT_EQ(only_datagram().size(), 192U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
}

TEST_F(Receiver_write_flowsample, fills_no_datagram_beyond_the_buffer_under_a_maximum_beyond_it)
{
    receiver(1)->maxdatagramsize = 65535;
    for (int i = 0; i < 55; i++)
        write_flow(frame(64), port);
    // 54 samples of 164 bytes and the header take 8884 bytes.
    EXPECT_EQ(only_datagram().size(), 8884U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_drop_invalid_num, 0U);
}

TEST_F(Receiver_write_flowsample, for_which_no_room_can_be_made_is_discarded)
{
    receiver(1)->maxdatagramsize = 200;
    write_flow(frame(64), port);
    fail_call("socket", 1, EMFILE);
    write_flow(frame(64), port);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U) << "the pending sample is lost as well";
    EXPECT_EQ(receiver(1)->pktlen, 28U);
    EXPECT_EQ(port->flow_seqno, 2U);
    EXPECT_EQ(port->total_pkt, SFLOW_DEFAULT_SAMPLING_RATE);
}

TEST_F(Receiver_write_countersample, follows_the_same_fit_rule)
{
    receiver(1)->maxdatagramsize = 28 + 164 + 176;
    write_flow(frame(64), port);
    write_counters(port);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(receiver(1)->pktlen, 368U);
    write_counters(port);
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(datagram.size(), 368U);
    EXPECT_EQ(field(datagram, DATAGRAM_SAMPLES), 2U);
    EXPECT_EQ(receiver(1)->counter_sample_num, 1U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
}

TEST_F(Receiver_write_countersample, for_which_no_room_can_be_made_is_discarded)
{
    receiver(1)->maxdatagramsize = 28 + 176;
    write_counters(port);
    fail_call("socket", 1, EMFILE);
    write_counters(port);
    EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
    EXPECT_EQ(port->counter_seqno, 2U);
}

TEST_F(Receiver_write_countersample, without_a_collector_is_dropped_silently)
{
    log_everything();
    for (const std::uint32_t cid : {0U, 2U, 3U}) {
        port->cid = cid;
        write_counters(port);
    }
    EXPECT_EQ(port->counter_seqno, 1U);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Receiver_write_countersample, takes_the_collector_of_the_counters_not_of_the_flows)
{
    set_collector(2, "198.51.100.10", 6344);
    port->cid = 2;
    write_counters(port);
    write_flow(frame(4), port);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
    EXPECT_EQ(receiver(2)->counter_sample_num, 1U);
}

TEST_F(Receiver_write_countersample, has_type_6_and_promiscuous_mode_2_for_every_interface)
{
    fake::set_interface(9, {.name = "bond9", .type = LSM_IF_TYPE_AGGREGATE, .eth = std::nullopt});
    write_counters(add_interface(9, 1, 0));
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(field(datagram, 28 + 20 + 8 + 4), 6U) << "ifType";
    EXPECT_EQ(field(datagram, 28 + 20 + 8 + 84), 2U) << "ifPromiscuousMode";
    EXPECT_EQ(field(datagram, 28 + 20 + 8 + 8), 0U) << "ifSpeed, upper half";
    EXPECT_EQ(field(datagram, 28 + 20 + 8 + 12), 0U) << "ifSpeed, lower half";
    EXPECT_EQ(field(datagram, 28 + 20 + 8 + 16), 0U) << "ifDirection";
}

// ---- Sending ----------------------------------------------------------------------------------------------

TEST_F(Receiver_send_sample, of_an_empty_datagram_touches_nothing)
{
    EXPECT_EQ(sflow_receiver_send_sample(receiver(1)), 0);
    EXPECT_THAT(socket_calls(), IsEmpty());
    EXPECT_EQ(receiver(1)->seqno, 1U);
}

TEST_F(Receiver_send_sample, numbers_datagrams_from_1_and_starts_the_next_behind_the_header)
{
    write_flow(frame(64), port);
    flush();
    write_flow(frame(64), port);
    flush();
    ASSERT_EQ(sent().size(), 2U);
    EXPECT_EQ(field(sent()[0].bytes, DATAGRAM_SEQNO), 1U);
    EXPECT_EQ(field(sent()[1].bytes, DATAGRAM_SEQNO), 2U);
    EXPECT_EQ(receiver(1)->pktlen, 28U);
    EXPECT_EQ(receiver(1)->datap, receiver(1)->data + 7);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_NE(receiver(1)->data[7], 0U) << "the buffer is not cleared";
}

TEST_F(Receiver_send_sample, counts_what_it_sent)
{
    write_flow(frame(64), port);
    write_flow(frame(64), port);
    write_counters(port);
    flush();
    EXPECT_EQ(sflow_statis.sflow_export_pkt_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_export_flow_num, 2U);
    EXPECT_EQ(sflow_statis.sflow_export_counter_num, 1U);
    EXPECT_EQ(sflow_statis.sflow_export_fail_num, 0U);
    EXPECT_EQ(sflow_statis.sflow_export_spl_fail_num, 0U);
    EXPECT_EQ(field(only_datagram(), DATAGRAM_SAMPLES), 3U);
}

TEST_F(Receiver_send_sample, that_the_kernel_refuses_or_cuts_short_is_counted_and_uses_up_its_number)
{
    const struct {
        const char *name;
        int error;
    } rows[] = {{"refused", ENETUNREACH}, {"cut short", 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        reset_syscalls();
        sflow_statis = {};
        set_collector(1, "198.51.100.9");
        write_flow(frame(64), port);
        write_counters(port);
        fail_call("sendmsg", 1, row.error);
        EXPECT_EQ(sflow_receiver_send_sample(receiver(1)), 0);
        EXPECT_EQ(sflow_statis.sflow_export_pkt_num, 0U);
        EXPECT_EQ(sflow_statis.sflow_export_flow_num, 0U);
        EXPECT_EQ(sflow_statis.sflow_export_counter_num, 0U);
        EXPECT_EQ(sflow_statis.sflow_export_fail_num, 1U);
        EXPECT_EQ(sflow_statis.sflow_export_spl_fail_num, 2U);
        EXPECT_EQ(receiver(1)->seqno, 2U);
        EXPECT_EQ(receiver(1)->pktlen, 28U);
        EXPECT_EQ(receiver(1)->flow_sample_num + receiver(1)->counter_sample_num, 0U);
        flush();
        EXPECT_EQ(sent().size(), 1U) << "no retry";
    }
}

TEST_F(Receiver_send_sample, without_a_socket_discards_the_samples_and_reuses_the_number)
{
    write_flow(frame(64), port);
    write_counters(port);
    const std::uint32_t first_word = receiver(1)->data[7];
    fail_call("socket", 1, EMFILE);
    EXPECT_EQ(sflow_receiver_send_sample(receiver(1)), -1);
    EXPECT_EQ(receiver(1)->seqno, 1U);
    EXPECT_EQ(receiver(1)->pktlen, 28U);
    EXPECT_EQ(receiver(1)->datap, receiver(1)->data + 7);
    EXPECT_EQ(receiver(1)->flow_sample_num + receiver(1)->counter_sample_num, 0U);
    EXPECT_EQ(receiver(1)->data[7], first_word) << "the buffer is not cleared";
    const sflow_debug_statis_t none = {};
    EXPECT_EQ(std::memcmp(&sflow_statis, &none, sizeof(none)), 0);

    write_flow(frame(64), port);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(field(datagram, DATAGRAM_SEQNO), 1U);
    EXPECT_EQ(field(datagram, DATAGRAM_SAMPLES), 1U);
}

TEST_F(Receiver_send_sample, of_a_passive_unit_discards_the_samples_and_reuses_the_number)
{
    for (const rdnd_role passive : {RDND_ROLE_SLAVE, RDND_ROLE_CANDIDATE}) {
        SCOPED_TRACE(passive);
        reset_syscalls();
        sflow_statis = {};
        set_collector(1, "198.51.100.9");
        const u_int32_t seqno = receiver(1)->seqno;
        fake::set_role(passive);
        write_flow(frame(64), port);
        write_counters(port);
        EXPECT_EQ(sflow_receiver_send_sample(receiver(1)), 0);
        EXPECT_THAT(sent(), IsEmpty());
        EXPECT_EQ(receiver(1)->pktlen, 28U);
        EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
        EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
        EXPECT_EQ(sflow_statis.sflow_export_pkt_num, 0U);
        EXPECT_EQ(sflow_statis.sflow_export_spl_fail_num, 0U);

        fake::set_role(RDND_ROLE_MASTER);
        write_flow(frame(64), port);
        flush();
        EXPECT_EQ(field(only_datagram(), DATAGRAM_SEQNO), seqno);
        EXPECT_EQ(field(only_datagram(), DATAGRAM_SAMPLES), 1U);
    }
}

TEST_F(Receiver_send_sample, of_a_unit_without_a_managed_role_exports)
{
    for (const rdnd_role active : {RDND_ROLE_NONE, RDND_ROLE_ALONE, RDND_ROLE_MASTER}) {
        fake::set_role(active);
        reset_syscalls();
        write_flow(frame(64), port);
        flush();
        EXPECT_EQ(sent().size(), 1U) << active;
    }
}

TEST_F(Receiver_send_sample, uptime_is_milliseconds_modulo_32_bits)
{
    const struct {
        std::uint64_t uptime_sec;
        std::uint32_t wire;
    } rows[] = {{0, 0}, {4294967, 4294967000}, {4294968, 704}, {0xffffffffffffffff, 4294966296}};
    for (const auto &row : rows) {
        reset_syscalls();
        world().uptime_sec = row.uptime_sec;
        write_flow(frame(4), port);
        flush();
        EXPECT_EQ(field(only_datagram(), DATAGRAM_UPTIME), row.wire) << row.uptime_sec;
    }
}

TEST_F(Receiver_send_sample, announces_sub_agent_0_whatever_the_agent_record_says)
{
    sflow_agent.sub_id = 0x5a;
    write_flow(frame(4), port);
    flush();
    EXPECT_EQ(field(only_datagram(), DATAGRAM_SUB_AGENT), 0U);
}

TEST_F(Receiver_send_sample, reaches_an_ipv6_collector)
{
    play_local_address("2001:db8::99");
    set_collector(1, "2001:db8::9", 6399);
    write_flow(frame(4), port);
    flush();
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_EQ(sent()[0].to, "[2001:db8::9]:6399");
    EXPECT_EQ(field(sent()[0].bytes, 4), 1U) << "the agent address stays IPv4";
}

TEST_F(Receiver_send_sample, header_room_follows_the_agent_address_at_the_moment_of_sending)
{
    write_flow(frame(4), port);
    set_agent_address("2001:db8::1");
    EXPECT_EQ(receiver(1)->pktlen, 40U);
    write_flow(frame(4), port);
    flush();
    EXPECT_EQ(receiver(1)->pktlen, 40U);
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(datagram.size(), 144U);
    EXPECT_EQ(field(datagram, 36), 2U) << "the count of the sample that the reset dropped is announced";
}

TEST_F(Receiver_send_all_receiver_sample, sends_for_every_collector_the_first_one_first)
{
    set_collector(2, "198.51.100.10", 6344);
    sflow_intf_config_t *other = add_interface(8, 0, 2);
    write_flow(frame(4), other);
    write_flow(frame(4), port);
    flush();
    ASSERT_EQ(sent().size(), 2U);
    EXPECT_EQ(sent()[0].to, "198.51.100.9:6343");
    EXPECT_EQ(sent()[1].to, "198.51.100.10:6344");
}

TEST_F(Receiver_send_all_receiver_sample, passes_over_a_receiver_without_collector)
{
    write_flow(frame(4), port);
    receiver(1)->is_enable = false;
    flush();
    EXPECT_THAT(sent(), IsEmpty());
}
