// What logging costs a sampled packet: nothing is formatted and nothing logged while no debug switch is on, from the
// record of the sampling service to the datagram on its way.
#include "fake_platform.h"
#include "sflow_agent.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_receiver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

int formatted = 0; ///< calls of anything that puts text together, from the daemon and from what it calls

} // namespace

extern "C" {

int __real_vsnprintf(char *buffer, size_t size, const char *format, va_list args);
int __wrap_vsnprintf(char *buffer, size_t size, const char *format, va_list args)
{
    formatted++;
    return __real_vsnprintf(buffer, size, format, args);
}

int __wrap_snprintf(char *buffer, size_t size, const char *format, ...)
{
    formatted++;
    va_list args;
    va_start(args, format);
    const int length = __real_vsnprintf(buffer, size, format, args);
    va_end(args);
    return length;
}

char *__real_strerror(int error);
char *__wrap_strerror(int error)
{
    formatted++;
    return __real_strerror(error);
}

int __wrap_pthread_create(pthread_t *tid, const pthread_attr_t *, void *(*)(void *), void *)
{
    *tid = pthread_self(); // the test is the only thread
    return 0;
}
}

namespace
{

constexpr IFINDEX PORT = 7;
constexpr int PACKETS = 1000;

class Flow_path_log : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fake::reset();
        fake::set_interface(PORT, {.name = "port1"});
        ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
        sflow_statis = {};
        sfladdress_t collector{};
        collector.type = SFLOW_ADDRESS_TYPE_IPV4;
        collector.mgmt_index = -1;
        collector.address.ip_v4 = htonl(INADDR_LOOPBACK);
        sflow_config_wrlock();
        sflow_agent.agent_ip.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
        sflow_agent.agent_ip.type = SFLOW_ADDRESS_TYPE_IPV4;
        sflow_agent.agent_ip.address.ip_v4 = htonl(0xC0000201);
        sflow_receiver_set_collector(1, &collector, 9);
        sflow_intf_config_t *intf = sflow_add_intf_config(PORT);
        intf->enable = SFLOW_INGRESS;
        intf->fid = 1;
        sflow_config_wrunlock();
    }

    void TearDown() override { switch_everything(false); }

    static void switch_everything(bool on)
    {
        for (bool *flag : {&sflow_debug_event, &sflow_debug_export, &sflow_debug_conf, &sflow_debug_skt})
            *flag = on;
        sflow_debug_all = false;
    }

    /// Records as the sampling service sends them; `formatted` counts for them alone.
    static void sample(int packets)
    {
        sflow_flow_spl_t record{};
        record.head = {SFLOW_CMD_FLOW_SAMPLING, sizeof record};
        record.buf_len = 64;
        record.info.source_id = PORT;
        record.info.ingress_ifx = PORT;
        record.info.frame_len = 1000;
        record.info.strip_len = 4;
        formatted = 0;
        for (int i = 0; i < packets; i++) {
            record.info.sample_pool = static_cast<u_int32_t>(i);
            sflow_flow_sampler_msg(reinterpret_cast<char *>(&record));
        }
    }
};

} // namespace

TEST_F(Flow_path_log, nothing_is_formatted_with_all_switches_off)
{
    sample(PACKETS);
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(fake::syslog_lines().size(), 0U);
    EXPECT_EQ(sflow_statis.sflow_recv_flow_num, static_cast<u_int32_t>(PACKETS));
    EXPECT_EQ(sflow_statis.sflow_drop_flow_num, 0U);
    EXPECT_GT(sflow_statis.sflow_export_pkt_num, 10U) << "datagrams were built, sockets opened and bound";
}

TEST_F(Flow_path_log, nothing_is_formatted_for_packets_that_are_dropped)
{
    sflow_config_wrlock();
    sflow_agent.agent_ip.type = SFLOW_ADDRESS_INVALID;
    sflow_config_wrunlock();
    sample(PACKETS);
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(fake::syslog_lines().size(), 0U);
    EXPECT_EQ(sflow_statis.sflow_drop_flow_num, static_cast<u_int32_t>(PACKETS));
}

TEST_F(Flow_path_log, the_socket_switch_alone_formats_nothing)
{
    sflow_debug_skt = true;
    sample(PACKETS);
    EXPECT_EQ(formatted, 0);
}

TEST_F(Flow_path_log, every_packet_is_told_of_with_the_switches_on)
{
    switch_everything(true);
    sample(PACKETS);
    EXPECT_GE(formatted, 3 * PACKETS) << "received, encoded, written";
    EXPECT_EQ(fake::syslog_count("[SFLOW-EVENT]recv flow sampling msg\n"), static_cast<std::size_t>(PACKETS));
    EXPECT_EQ(fake::syslog_count("[SFLOW-EVENT]sflow_pi_flow_sampling:write flow sample ok\n"),
              static_cast<std::size_t>(PACKETS));
    EXPECT_EQ(fake::syslog_count("[SFLOW-EXPT]sflow_receiver_write_flowsample header len:64\n"),
              static_cast<std::size_t>(PACKETS));
}
