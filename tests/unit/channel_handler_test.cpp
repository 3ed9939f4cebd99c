// Records from the sampling service: the handlers of counters, flow samples and the capacity report, and what every
// handler refuses.
#include "channel_support.h"

#include "sflow_cli_msg.h"
#include "sflow_lib_server.h"

#include <gmock/gmock.h>
#include <memory>

using namespace channel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

char *data(Bytes &record)
{
    return reinterpret_cast<char *>(record.data());
}

class Handlers : public AgentTest
{
protected:
    Handlers()
    {
        sflow_intf_support_flag = 0;
        sflow_hw_support_is_set = 0;
    }
};

// Suites are named after what they test.
using CliMsg_get_counter_ret_msg = Handlers;
using CliMsg_update_counter_msg = Handlers;
using CliMsg_flow_sampler_msg = Handlers;
using CliMsg_hd_capacity_msg = Handlers;

// ---- Counter reports -----------------------------------------------------------------------------------------------

/// A counter report whose word at offset n is 0x1000 + n, but for the header.
Bytes counter_report(std::uint32_t type)
{
    Bytes record(160);
    for (std::size_t offset = 8; offset < record.size(); offset += 4)
        put(record, offset, static_cast<std::uint32_t>(0x1000 + offset));
    put(record, 0, type);
    put(record, 4, 160);
    return record;
}

u_int64_t double_word(std::size_t offset)
{
    const Bytes bytes =
        words({static_cast<std::uint32_t>(0x1000 + offset), static_cast<std::uint32_t>(0x1004 + offset)});
    u_int64_t value = 0;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

TEST_F(CliMsg_get_counter_ret_msg, queues_every_field)
{
    Bytes report = counter_report(513);
    sflow_get_counter_ret_msg(data(report));
    ASSERT_EQ(queued_counters().size(), 1U);
    EXPECT_EQ(queued_counters()[0].type, SFLOW_MSG_GET_COUNTER_RSP);
    const sflow_counter_ret_t record = queued_counters()[0].record;
    EXPECT_EQ(bytes_of(record), report);

    const std::pair<u_int32_t, std::uint32_t> fields[] = {
        {record.ifx, 8},
        {static_cast<u_int32_t>(record.ifx_type), 12},
        {record.generic.ifIndex, 16},
        {record.generic.ifType, 20},
        {record.generic.ifDirection, 32},
        {record.generic.ifStatus, 36},
        {record.generic.ifInUcastPkts, 48},
        {record.generic.ifInMulticastPkts, 52},
        {record.generic.ifInBroadcastPkts, 56},
        {record.generic.ifInDiscards, 60},
        {record.generic.ifInErrors, 64},
        {record.generic.ifInUnknownProtos, 68},
        {record.generic.ifOutUcastPkts, 80},
        {record.generic.ifOutMulticastPkts, 84},
        {record.generic.ifOutBroadcastPkts, 88},
        {record.generic.ifOutDiscards, 92},
        {record.generic.ifOutErrors, 96},
        {record.generic.ifPromiscuousMode, 100},
        {record.ether.dot3StatsAlignmentErrors, 104},
        {record.ether.dot3StatsFCSErrors, 108},
        {record.ether.dot3StatsSingleCollisionFrames, 112},
        {record.ether.dot3StatsMultipleCollisionFrames, 116},
        {record.ether.dot3StatsSQETestErrors, 120},
        {record.ether.dot3StatsDeferredTransmissions, 124},
        {record.ether.dot3StatsLateCollisions, 128},
        {record.ether.dot3StatsExcessiveCollisions, 132},
        {record.ether.dot3StatsInternalMacTransmitErrors, 136},
        {record.ether.dot3StatsCarrierSenseErrors, 140},
        {record.ether.dot3StatsFrameTooLongs, 144},
        {record.ether.dot3StatsInternalMacReceiveErrors, 148},
        {record.ether.dot3StatsSymbolErrors, 152},
    };
    for (const auto &[value, offset] : fields)
        EXPECT_EQ(value, 0x1000 + offset) << "field at " << offset;
    EXPECT_EQ(record.generic.ifSpeed, double_word(24));
    EXPECT_EQ(record.generic.ifInOctets, double_word(40));
    EXPECT_EQ(record.generic.ifOutOctets, double_word(72));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-EVENT]recv counter msg\n"));
}

TEST_F(CliMsg_get_counter_ret_msg, logs_a_full_queue)
{
    answer("sflow_pi_counter_msg_enqueue", -1);
    Bytes report = counter_report(513);
    sflow_get_counter_ret_msg(data(report));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EVENT]recv counter msg\n", "[SFLOW-CONF]sflow_get_counter_ret_msg "
                                                               "sflow_pi_counter_msg_enqueue fail"));
}

TEST_F(CliMsg_update_counter_msg, is_for_the_interface_of_its_counters)
{
    Bytes report = counter_report(516);
    put(report, 8, 0);
    put(report, 16, 12);
    answer("sflow_pi_counter_msg_enqueue", -1); // ignored
    sflow_update_counter_msg(data(report));
    ASSERT_EQ(queued_counters().size(), 1U);
    EXPECT_EQ(queued_counters()[0].type, SFLOW_MSG_UPDATE_COUNTER);
    put(report, 8, 12);
    EXPECT_EQ(bytes_of(queued_counters()[0].record), report);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-EVENT]recv update counter msg\n"));
}

// ---- Flow samples --------------------------------------------------------------------------------------------------

Bytes flow_record(std::uint32_t buf_len = 64)
{
    Bytes record(312);
    for (std::size_t i = 0; i < 256; ++i)
        record[8 + i] = static_cast<std::uint8_t>(i);
    put(record, 0, 515);
    put(record, 4, 312);
    put(record, 264, buf_len);
    for (std::size_t i = 0; i < 11; ++i)
        put(record, 268 + 4 * i, static_cast<std::uint32_t>(100 + i));
    return record;
}

TEST_F(CliMsg_flow_sampler_msg, hands_on_every_field)
{
    Bytes record = flow_record();
    sflow_flow_sampler_msg(data(record));
    ASSERT_EQ(flow_samples().size(), 1U);
    const FlowSample sample = flow_samples()[0];
    EXPECT_EQ(sample.buf, Bytes(record.begin() + 8, record.begin() + 264));
    EXPECT_EQ(sample.buf_len, 64);
    EXPECT_EQ(sample.info.source_id, 100U);
    EXPECT_EQ(sample.info.ingress_ifx, 101U);
    EXPECT_EQ(sample.info.egress_ifx, 102U);
    EXPECT_EQ(sample.info.sample_pool, 103U);
    EXPECT_EQ(sample.info.drops_num, 104U);
    EXPECT_EQ(sample.info.frame_len, 105U);
    EXPECT_EQ(sample.info.strip_len, 106U);
    EXPECT_EQ(sample.info.src_vlan, 107U);
    EXPECT_EQ(sample.info.src_priority, 108U);
    EXPECT_EQ(sample.info.dest_vlan, 109U);
    EXPECT_EQ(sample.info.dest_prority, 110U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-EVENT]recv flow sampling msg\n"));
}

TEST_F(CliMsg_flow_sampler_msg, does_not_check_the_frame_length)
{
    for (const std::uint32_t buf_len : {0U, 257U, 0xFFFFFFFFU}) {
        Bytes record = flow_record(buf_len);
        sflow_flow_sampler_msg(data(record));
        EXPECT_EQ(flow_samples().back().buf_len, static_cast<int>(buf_len));
    }
    EXPECT_EQ(flow_samples().size(), 3U);
}

// ---- What handlers refuse ------------------------------------------------------------------------------------------

struct Handler {
    const char *name;
    sflow_deal_msg_t handler;
    const char *category;
    const char *heading;
    std::uint32_t type;
    std::size_t size;
};

constexpr Handler HANDLERS[] = {
    {"sflow_get_counter_ret_msg", sflow_get_counter_ret_msg, "[SFLOW-EVENT]", "recv counter msg", 513, 160},
    {"sflow_set_sampling_rate_ret_msg", sflow_set_sampling_rate_ret_msg, "[SFLOW-CONF]",
     "recv set sampling rate return msg", 514, 136},
    {"sflow_flow_sampler_msg", sflow_flow_sampler_msg, "[SFLOW-EVENT]", "recv flow sampling msg", 515, 312},
    {"sflow_update_counter_msg", sflow_update_counter_msg, "[SFLOW-EVENT]", "recv update counter msg", 516,
     160},
    {"sflow_ifx_is_conf_ret_msg", sflow_ifx_is_conf_ret_msg, "[SFLOW-CONF]", "recv ifx configure msg", 517,
     24},
};

class HandlerRefusal : public Handlers, public testing::WithParamInterface<Handler>
{
protected:
    static std::string log(const std::string &reason)
    {
        return std::string(GetParam().category) + GetParam().name + reason;
    }
    static std::string heading() { return std::string(GetParam().category) + GetParam().heading + "\n"; }

    static void expect_nothing_done()
    {
        EXPECT_THAT(queued_counters(), IsEmpty());
        EXPECT_THAT(flow_samples(), IsEmpty());
        EXPECT_THAT(module_calls(), IsEmpty());
        EXPECT_THAT(sent_records(), IsEmpty());
    }
};

TEST_P(HandlerRefusal, missing_record)
{
    GetParam().handler(nullptr);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(heading(), log(" msg is NULL\n")));
    expect_nothing_done();
}

TEST_P(HandlerRefusal, wrong_type)
{
    Bytes record(GetParam().size);
    put(record, 0, 0xABC);
    put(record, 4, static_cast<std::uint32_t>(GetParam().size));
    GetParam().handler(data(record));
    EXPECT_EQ(fake::syslog_texts().front(), heading());
    EXPECT_EQ(fake::syslog_texts().back(), log(" type is invalid:0xabc\n"));
    expect_nothing_done();
    // Also when it is shorter than the handler's own record: the type comes first.
    Bytes header = words({0xABC, 8});
    GetParam().handler(data(header));
    EXPECT_EQ(fake::syslog_texts().back(), log(" type is invalid:0xabc\n"));
    expect_nothing_done();
}

TEST_P(HandlerRefusal, truncated_record)
{
    // Exactly as many bytes as the record claims: one read beyond them is an error.
    for (std::uint32_t len = 8; len < GetParam().size; ++len) {
        const auto record = std::make_unique<char[]>(len);
        std::memcpy(record.get(), words({GetParam().type, len}).data(), 8);
        fake::forget_syslog();
        GetParam().handler(record.get());
        EXPECT_THAT(fake::syslog_texts(),
                    ElementsAre(heading(), log(" len is invalid:" + std::to_string(len) + "\n")));
        expect_nothing_done();
    }
}

TEST_P(HandlerRefusal, longer_record_is_taken)
{
    Bytes record(GetParam().size + 40);
    put(record, 0, GetParam().type);
    put(record, 4, static_cast<std::uint32_t>(record.size()));
    GetParam().handler(data(record));
    EXPECT_THAT(fake::syslog_texts(), testing::Not(testing::Contains(testing::HasSubstr("invalid"))));
}

INSTANTIATE_TEST_SUITE_P(handlers, HandlerRefusal, testing::ValuesIn(HANDLERS),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- Capacity ------------------------------------------------------------------------------------------------------

TEST_F(CliMsg_hd_capacity_msg, stores_the_set)
{
    Bytes record = words({1281, 12, SFLOW_PORT_INGRESS | SFLOW_PORT_EGRESS | SFLOW_SUB_INGRESS_SNOOP});
    sflow_hd_capacity_msg(data(record));
    EXPECT_EQ(sflow_intf_support_flag, 0x803U);
    EXPECT_EQ(sflow_hw_support_is_set, 1U);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_cli_msg.c", "recv sflow_hd_capacity_msg."}));
}

TEST_F(CliMsg_hd_capacity_msg, empty_set_counts_as_a_report)
{
    sflow_intf_support_flag = 3;
    Bytes record = words({1281, 12, 0});
    sflow_hd_capacity_msg(data(record));
    EXPECT_EQ(sflow_intf_support_flag, 0U);
    EXPECT_EQ(sflow_hw_support_is_set, 1U);
}

TEST_F(CliMsg_hd_capacity_msg, does_not_check_the_type)
{
    Bytes record = words({9, 12, 4});
    sflow_hd_capacity_msg(data(record));
    EXPECT_EQ(sflow_intf_support_flag, 4U);
    EXPECT_EQ(sflow_hw_support_is_set, 1U);
}

TEST_F(CliMsg_hd_capacity_msg, drops_a_truncated_record)
{
    for (std::uint32_t len = 8; len < 12; ++len) {
        const auto record = std::make_unique<char[]>(len);
        std::memcpy(record.get(), words({1281, len}).data(), 8);
        sflow_hd_capacity_msg(record.get());
    }
    sflow_hd_capacity_msg(nullptr);
    EXPECT_EQ(sflow_hw_support_is_set, 0U);
    EXPECT_THAT(debug_lines(), IsEmpty());
    EXPECT_EQ(fake::syslog_texts().front(), "[SFLOW-CONF]sflow_hd_capacity_msg len is invalid:8\n");
    EXPECT_EQ(fake::syslog_texts().size(), 5U);
}

} // namespace
