// Which addresses may be used as a host's.
#include "sflow_cli.h"
#include "sflow_dbg.h"

#include "fake_platform.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace
{

u_int32_t network_order(const char *text)
{
    u_int32_t addr = 0;
    EXPECT_EQ(inet_pton(AF_INET, text, &addr), 1) << text;
    return addr;
}

std::array<u_int8_t, 16> bytes(const char *text)
{
    std::array<u_int8_t, 16> addr{};
    EXPECT_EQ(inet_pton(AF_INET6, text, addr.data()), 1) << text;
    return addr;
}

} // namespace

TEST(Sflow_is_valid_ip, host_addresses)
{
    for (const char *text : {"1.0.0.0", "10.0.0.1", "126.255.255.255", "128.0.0.0", "169.254.1.1",
                             "192.168.0.255", "223.255.255.255"})
        EXPECT_EQ(sflow_is_valid_ip(network_order(text)), 1) << text;
}

TEST(Sflow_is_valid_ip, everything_else)
{
    for (const char *text :
         {"0.0.0.0", "0.0.0.1", "0.255.255.255", "127.0.0.0", "127.0.0.1", "127.255.255.255", "224.0.0.0",
          "224.0.0.1", "239.255.255.255", "240.0.0.0", "255.255.255.254", "255.255.255.255"})
        EXPECT_EQ(sflow_is_valid_ip(network_order(text)), 0) << text;
}

TEST(Ip_chk_srcaddr, takes_host_byte_order)
{
    EXPECT_EQ(ip_chk_srcaddr(0x0A000001), 1);
    EXPECT_EQ(ip_chk_srcaddr(0x7F000001), 0);
    EXPECT_EQ(is_loopback_ip(0x7F123456), 1);
    EXPECT_EQ(is_loopback_ip(0x80000000), 0);
    EXPECT_EQ(is_loopback_ip(0x7EFFFFFF), 0);
}

TEST(Ipv6_addr_type, classes)
{
    const std::vector<std::pair<const char *, int>> rows = {
        {"::", 0},
        {"::1", 0x11},
        {"::2", 0x81},
        {"::10.0.0.1", 0x81},
        {"::ffff:10.0.0.1", 0x1000},
        {"::1:0:0:1", 0x1},
        {"100::1", 0x1},
        {"2001:db8::1", 0x1},
        {"3fff::1", 0x1},
        {"4000::1", 0x1},
        {"dfff::1", 0x1},
        {"fc00::1", 0x1},
        {"fdff::1", 0x1},
        {"fe7f::1", 0x1},
        {"fe80::1", 0x21},
        {"febf::1", 0x21},
        {"fec0::1", 0x41},
        {"feff::1", 0x41},
        {"ff00::1", 0x2},
        {"ff01::1", 0x12},
        {"ff02::1", 0x22},
        {"ff05::1", 0x42},
        {"ff0e::1", 0x2},
        {"ff12::1", 0x22},
    };
    for (const auto &[text, type] : rows)
        EXPECT_EQ(ipv6_addr_type(bytes(text).data()), type) << text;
}

TEST(Sflow_is_valid_ipv6, host_addresses)
{
    for (const char *text : {"2001:db8::1", "fe80::1", "fec0::1", "fc00::1", "::ffff:10.0.0.1", "::10.0.0.1"})
        EXPECT_EQ(sflow_is_valid_ipv6(bytes(text).data()), 1) << text;
}

TEST(Sflow_is_valid_ipv6, everything_else)
{
    for (const char *text : {"::", "::1", "ff01::1", "ff02::1", "ff05::1", "ff0e::1"})
        EXPECT_EQ(sflow_is_valid_ipv6(bytes(text).data()), 0) << text;
    EXPECT_EQ(sflow_is_valid_ipv6(nullptr), 0);
}

TEST(Sflow_is_valid_ipv6, logs_the_class_under_the_configuration_switch)
{
    fake::reset();
    sflow_debug_conf = false;
    sflow_is_valid_ipv6(bytes("fe80::1").data());
    EXPECT_TRUE(fake::syslog_texts().empty());
    sflow_debug_conf = true;
    sflow_is_valid_ipv6(bytes("fe80::1").data());
    sflow_is_valid_ipv6(nullptr);
    sflow_debug_conf = false;
    const std::vector<fake::SyslogLine> expected = {{7, "UNKNOW_MODULE", "DEBUG", 2,
                                                     "[SFLOW-CONF]sflow_is_valid_ipv6\xA3\xBA"
                                                     "addr type = 33\n"}};
    EXPECT_EQ(fake::syslog_lines(), expected);
}
