// Flow sampler: which sampled packets become flow samples, and the binding of interfaces to collectors.
#include "export_fixture.h"

#include "sflow_sampler.h"

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr std::size_t SEQNO = 28 + 8;
constexpr std::size_t SOURCE = 28 + 16;
constexpr std::size_t RATE = 28 + 20;
constexpr std::size_t POOL = 28 + 24;
constexpr std::size_t HEADER_LENGTH = 28 + 96;
constexpr std::size_t SAMPLE_OF_4_BYTES = 104;

class Sampling : public Export
{
protected:
    Sampling() { log_everything(); }

    static int sample(std::uint32_t source, std::uint32_t pool = 0)
    {
        return sflow_sampler_write_flowsample("abcd", 4, {.source_id = source, .sample_pool = pool});
    }
    static void make_ready()
    {
        set_agent_address("192.0.2.1");
        set_collector(1, "198.51.100.9");
        fake::forget_syslog();
    }
    static std::uint32_t cid_of(IFINDEX ifx)
    {
        sflow_config_rdlock();
        const std::uint32_t cid = sflow_sampler_get_cid(ifx);
        sflow_config_rdunlock();
        return cid;
    }
};

using Sampler_write_flowsample = Sampling;
using Sampler_set_cid = Sampling;
using Sampler_get_cid = Sampling;
using Sampler_clear_cid = Sampling;

} // namespace

TEST_F(Sampler_write_flowsample, without_an_agent_address_is_refused)
{
    set_collector(1, "198.51.100.9");
    fake::forget_syslog();
    EXPECT_EQ(sample(0), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_sampler_write_flowsample agent is no config.\n"));
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Sampler_write_flowsample, of_an_interface_without_configuration_changes_nothing)
{
    make_ready();
    EXPECT_EQ(sample(7), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_sampler_write_flowsample source_id 7 get sampler fail.\n"));
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_EQ(sflow_unkown_flow_seqno, 1U);
    EXPECT_EQ(find_interface(7), nullptr);
}

TEST_F(Sampler_write_flowsample, of_an_interface_without_flow_collector_is_refused)
{
    make_ready();
    add_interface(7, 1, 0);
    EXPECT_EQ(sample(7), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-EXPT]sflow_sampler_write_flowsample intf->fid == 0 receiver is null.\n"));
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
}

TEST_F(Sampler_write_flowsample, with_source_0_goes_to_collector_1_if_it_is_enabled)
{
    make_ready();
    set_collector(2, "198.51.100.10");
    for (std::uint32_t i = 1; i <= 3; i++)
        EXPECT_EQ(sample(0, 700 + i), 0);
    flush();
    EXPECT_EQ(sent()[0].to, "198.51.100.9:6343");
    const std::vector<std::uint8_t> datagram = only_datagram();
    for (std::uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(field(datagram, SEQNO + i * SAMPLE_OF_4_BYTES), i + 1);
        EXPECT_EQ(field(datagram, POOL + i * SAMPLE_OF_4_BYTES), 701 + i);
    }
}

TEST_F(Sampler_write_flowsample, with_source_0_goes_to_collector_2_otherwise_and_counts_on)
{
    set_agent_address("192.0.2.1");
    set_collector(2, "198.51.100.10");
    sflow_unkown_flow_seqno = 41;
    EXPECT_EQ(sample(0), 0);
    flush();
    EXPECT_EQ(sent()[0].to, "198.51.100.10:6343");
    EXPECT_EQ(field(only_datagram(), SEQNO), 41U);
}

TEST_F(Sampler_write_flowsample, pools_of_an_interface_differ_by_the_global_rate_whatever_was_reported)
{
    make_ready();
    add_interface(7, 0, 1);
    EXPECT_EQ(sample(7, 5), 0);
    EXPECT_EQ(sample(7, 4000000000), 0);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(field(datagram, SOURCE), 7U);
    EXPECT_EQ(field(datagram, RATE), 8192U);
    EXPECT_EQ(field(datagram, POOL + SAMPLE_OF_4_BYTES) - field(datagram, POOL), 8192U);
    EXPECT_EQ(field(datagram, SEQNO), 1U);
    EXPECT_EQ(field(datagram, SEQNO + SAMPLE_OF_4_BYTES), 2U);
}

TEST_F(Sampler_write_flowsample, never_reads_beyond_the_records_buffer)
{
    make_ready();
    sflow_config_wrlock();
    sflow_agent.g_config.maxhlen = 1024;
    sflow_config_wrunlock();
    // Exactly as large as the record's field, so that a sanitizer sees a read beyond it.
    const std::vector<char> buf(SFLOW_FLOW_BUF_LEN, 'x');
    for (const int buf_len : {256, 257, 1000, 0x7fffffff}) {
        reset_syscalls();
        EXPECT_EQ(sflow_sampler_write_flowsample(buf.data(), buf_len, {}), 0);
        flush();
        EXPECT_EQ(field(only_datagram(), HEADER_LENGTH), 256U) << buf_len;
    }
}

TEST_F(Sampler_write_flowsample, of_a_negative_length_is_dropped_and_counted)
{
    make_ready();
    EXPECT_EQ(sflow_sampler_write_flowsample("", -5, {}), 0);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_EQ(sflow_statis.sflow_drop_invalid_num, 1U);
}

TEST_F(Sampler_set_cid, configures_an_interface_for_an_enabled_collector)
{
    make_ready();
    EXPECT_EQ(sflow_sampler_set_cid(7, 1), 0);
    EXPECT_EQ(cid_of(7), 1U);
    EXPECT_EQ(find_interface(7)->cid, 0U);
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Sampler_set_cid, rebinds_a_configured_interface)
{
    make_ready();
    set_collector(2, "198.51.100.10");
    sflow_intf_config_t *intf = add_interface(7, 1, 1);
    EXPECT_EQ(sflow_sampler_set_cid(7, 2), 0);
    EXPECT_EQ(intf->fid, 2U);
    EXPECT_EQ(intf->cid, 1U);
}

TEST_F(Sampler_set_cid, fails_for_a_collector_that_is_not_configured)
{
    make_ready();
    for (const std::uint32_t cid : {0U, 2U, 3U, 0x80000000U})
        EXPECT_EQ(sflow_sampler_set_cid(7, cid), -1) << cid;
    EXPECT_EQ(find_interface(7), nullptr);
}

TEST_F(Sampler_get_cid, of_an_unknown_interface_is_0)
{
    EXPECT_EQ(cid_of(7), 0U);
}

TEST_F(Sampler_clear_cid, frees_a_configuration_that_serves_nothing_more)
{
    add_interface(7, 0, 1)->enable = 0;
    add_interface(8, 2, 1)->enable = 0;
    sflow_sampler_clear_cid(7);
    sflow_sampler_clear_cid(8);
    sflow_sampler_clear_cid(9);
    EXPECT_EQ(find_interface(7), nullptr);
    ASSERT_NE(find_interface(8), nullptr);
    EXPECT_EQ(find_interface(8)->fid, 0U);
    EXPECT_EQ(find_interface(8)->cid, 2U);
    EXPECT_EQ(held(), Held::none);
}
