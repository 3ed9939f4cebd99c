// Sampling limited to access lists, in the kernel.
#include "acl_frames.h"
#include "acl_matcher.h"
#include "acl_traffic.h"
#include "sampling_bpf_fixture.h"

#include <cmath>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using BpfBackend_acl = BpfBackendTest;

constexpr FrameBuilder::Ip inside = {.source = "192.0.2.7", .destination = "198.51.100.1", .protocol = 17};
constexpr FrameBuilder::Ip outside = {.source = "203.0.113.7", .destination = "198.51.100.1", .protocol = 17};
constexpr Hook all_hooks[] = {Hook::ingress, Hook::egress, Hook::snoop};

/// Permits one /24, in IPv4.
acl::List net_list(std::int32_t id, const char *net)
{
    return list_of(acl::Family::ipv4, {{.action = acl::Action::permit, .source = prefix(net, 24)}}, id);
}

TEST_F(BpfBackend_acl, only_what_the_list_permits_is_taken_and_counted)
{
    const std::vector<std::uint8_t> good = FrameBuilder().ipv4(inside).udp(1, 2).bytes();
    const std::vector<std::uint8_t> bad = FrameBuilder().ipv4(outside).udp(1, 2).bytes();
    for (const Hook hook : all_hooks) {
        Kernel kernel;
        ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
        ASSERT_EQ(kernel.start_limited(hook, {5, 0}), Answer::ok);
        EXPECT_EQ(kernel.run(hook, bad, 100), hook == Hook::snoop ? 0 : tc_unspec);
        EXPECT_EQ(kernel.pool(hook), 0U);
        EXPECT_EQ(kernel.run(hook, good, 3), hook == Hook::snoop ? 0 : tc_unspec);
        EXPECT_EQ(kernel.pool(hook), 3U);
        kernel.backend.consume();
        ASSERT_EQ(kernel.sink.samples.size(), 3U);
        EXPECT_EQ(kernel.sink.samples[2].pool, 3U);
        EXPECT_EQ(kernel.sink.samples[2].header, good);
    }
}

TEST_F(BpfBackend_acl, samples_times_rate_estimate_the_permitted_traffic)
{
    constexpr int packets = 400'000;
    constexpr std::uint32_t rate = 16;
    const std::vector<std::uint8_t> good = FrameBuilder().ipv4(inside).udp(1, 2).bytes();
    const std::vector<std::uint8_t> bad = FrameBuilder().ipv4(outside).udp(1, 2).bytes();
    Kernel kernel;
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    bool within = false;
    // a right sampler misses three standard errors once in 370 times; twice in a row hardly ever
    for (int attempt = 0; attempt < 2 && !within; ++attempt) {
        const SamplerTotals before = kernel.backend.totals(key_of(Hook::ingress));
        ASSERT_EQ(
            kernel.backend.start(key_of(Hook::ingress), {.rate = rate, .header_len = 64, .acls = {5, 0}}),
            Answer::ok);
        kernel.run(Hook::ingress, bad, 2 * packets);
        kernel.run(Hook::ingress, good, packets);
        const SamplerTotals after = kernel.backend.totals(key_of(Hook::ingress));
        EXPECT_EQ(after.pool - before.pool, static_cast<std::uint64_t>(packets));
        const auto selected =
            static_cast<double>(after.taken + after.dropped - before.taken - before.dropped);
        const double p = 1.0 / rate;
        within = std::abs(selected - packets * p) <= 3 * std::sqrt(packets * p * (1 - p));
    }
    EXPECT_TRUE(within);
}

TEST_F(BpfBackend_acl, two_lists_permit_what_either_permits_and_count_it_once)
{
    Kernel kernel;
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    acl::List any_ipv4 = list_of(acl::Family::ipv4, {{.action = acl::Action::permit}}, 6);
    ASSERT_TRUE(kernel.backend.install_acl(any_ipv4));
    ASSERT_TRUE(kernel.backend.install_acl(
        list_of(acl::Family::mac, {{.action = acl::Action::permit, .ether_type = 0x0806}}, 7)));
    const std::vector<std::uint8_t> good = FrameBuilder().ipv4(inside).udp(1, 2).bytes();
    const std::vector<std::uint8_t> arp = FrameBuilder().u16(0x0806).zeros(46).bytes();
    const std::vector<std::uint8_t> lldp = FrameBuilder().u16(0x88CC).zeros(46).bytes();
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {5, 7}), Answer::ok);
    EXPECT_EQ(kernel.passed(Hook::ingress, good), 1U);
    EXPECT_EQ(kernel.passed(Hook::ingress, arp), 1U);
    EXPECT_EQ(kernel.passed(Hook::ingress, lldp), 0U);
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {0, 7}), Answer::ok); // the second place alone
    EXPECT_EQ(kernel.passed(Hook::ingress, good), 0U);
    EXPECT_EQ(kernel.passed(Hook::ingress, arp), 1U);
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {5, 6}), Answer::ok); // both permit it
    EXPECT_EQ(kernel.passed(Hook::ingress, good), 1U);
}

TEST_F(BpfBackend_acl, a_new_version_reaches_every_sampler_of_the_list)
{
    const std::vector<std::uint8_t> first = FrameBuilder().ipv4(inside).udp(1, 2).bytes();
    const std::vector<std::uint8_t> second = FrameBuilder().ipv4(outside).udp(1, 2).bytes();
    Kernel kernel;
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    for (const Hook hook : all_hooks)
        ASSERT_EQ(kernel.start_limited(hook, {5, 0}), Answer::ok);
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "203.0.113.0")));
    for (const Hook hook : all_hooks) {
        EXPECT_EQ(kernel.passed(hook, first), 0U);
        EXPECT_EQ(kernel.passed(hook, second), 1U);
    }
}

TEST_F(BpfBackend_acl, a_withheld_list_permits_nothing_until_it_is_back)
{
    const std::vector<std::uint8_t> good = FrameBuilder().ipv4(inside).udp(1, 2).bytes();
    Kernel kernel;
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {5, 0}), Answer::ok);
    kernel.backend.withhold_acl(5);
    EXPECT_EQ(kernel.passed(Hook::ingress, good, 10), 0U);
    ASSERT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    EXPECT_EQ(kernel.passed(Hook::ingress, good, 10), 10U);
}

TEST_F(BpfBackend_acl, a_list_that_was_never_installed_permits_nothing)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {5, 0}), Answer::ok);
    EXPECT_EQ(kernel.passed(Hook::ingress, FrameBuilder().ipv4(inside).udp(1, 2).bytes(), 10), 0U);
}

TEST_F(BpfBackend_acl, places_for_lists_are_limited_and_used_again)
{
    Kernel kernel({.ring_bytes = 4096, .max_samplers = 4, .max_acls = 2});
    EXPECT_TRUE(kernel.backend.install_acl(net_list(5, "192.0.2.0")));
    EXPECT_TRUE(kernel.backend.install_acl(net_list(6, "192.0.2.0")));
    EXPECT_FALSE(kernel.backend.install_acl(net_list(7, "203.0.113.0")));
    EXPECT_EQ(kernel.log.containing("all 2 places for lists are taken"), 1U);
    EXPECT_TRUE(kernel.backend.install_acl(net_list(6, "192.0.2.0"))); // has its place
    kernel.backend.drop_acl(5);
    kernel.backend.drop_acl(5);
    EXPECT_TRUE(kernel.backend.install_acl(net_list(7, "203.0.113.0")));
    ASSERT_EQ(kernel.start_limited(Hook::ingress, {7, 0}), Answer::ok);
    EXPECT_EQ(kernel.passed(Hook::ingress, FrameBuilder().ipv4(outside).udp(1, 2).bytes()), 1U);
    EXPECT_EQ(kernel.passed(Hook::ingress, FrameBuilder().ipv4(inside).udp(1, 2).bytes()), 0U);
}

TEST_F(BpfBackend_acl, the_programs_agree_with_the_plain_matcher)
{
    // The matcher alone has its own, larger test; this one goes through the samplers of the three hooks.
    AclTraffic traffic(11);
    std::uint64_t permitted = 0;
    Kernel kernel({.ring_bytes = 4096, .max_samplers = 4});
    for (int round = 0; round < 30; ++round) {
        traffic.renew();
        const acl::List list = traffic.list(traffic.family(), acl::MAX_ENTRIES);
        ASSERT_TRUE(kernel.backend.install_acl(list));
        const Hook hook = all_hooks[round % 3];
        ASSERT_EQ(kernel.start_limited(hook, {list.id, 0}), Answer::ok);
        for (int i = 0; i < 100; ++i) {
            std::vector<std::uint8_t> frame = traffic.frame().frame;
            if (frame.size() < 60)
                continue; // the kernel does not run programs on every cut frame
            const auto fields = packet_fields(frame, false);
            const bool expected = fields && permits(list, *fields);
            ASSERT_EQ(kernel.passed(hook, frame), expected ? 1U : 0U) << round << " " << i;
            permitted += expected ? 1 : 0;
        }
    }
    EXPECT_GT(permitted, 300U);
}

} // namespace
} // namespace sampling
