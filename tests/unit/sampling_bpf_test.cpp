// The BPF programs under bpf_prog_test_run and the backend around them.
#include "sampling_bpf_fixture.h"

#include <bpf/libbpf.h>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>

namespace sampling
{
namespace
{

std::vector<std::uint8_t> frame_of(std::size_t size, std::uint16_t ether_type = 0x0800)
{
    std::vector<std::uint8_t> frame(size);
    std::iota(frame.begin(), frame.end(), std::uint8_t{0});
    frame[12] = static_cast<std::uint8_t>(ether_type >> 8);
    frame[13] = static_cast<std::uint8_t>(ether_type & 0xFF);
    return frame;
}

using Bpf_program = BpfBackendTest;
using BpfBackend_start = BpfBackendTest;
using BpfBackend_consume = BpfBackendTest;
using BpfBackend_construction = BpfBackendTest;

TEST_F(Bpf_program, rate_1_takes_every_packet_and_lets_it_pass)
{
    for (const Hook hook : {Hook::ingress, Hook::egress}) {
        Kernel kernel;
        ASSERT_EQ(kernel.start(hook, 1), Answer::ok);
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(kernel.run(hook, frame_of(60)), tc_unspec);
        kernel.backend.consume();
        ASSERT_EQ(kernel.sink.samples.size(), 10U);
        for (std::uint64_t i = 0; i < 10; ++i)
            EXPECT_EQ(kernel.sink.samples[i].pool, i + 1);
    }
}

TEST_F(Bpf_program, the_snoop_filter_keeps_nothing_on_its_socket)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::snoop, 1), Answer::ok);
    EXPECT_EQ(kernel.run(Hook::snoop, frame_of(60)), 0);
    kernel.backend.consume();
    ASSERT_EQ(kernel.sink.samples.size(), 1U);
    EXPECT_EQ(kernel.sink.samples[0].sampler, key_of(Hook::snoop));
    EXPECT_EQ(kernel.sink.samples[0].input, loopback);
}

TEST_F(Bpf_program, without_a_sampler_packets_pass_uncounted)
{
    Kernel kernel;
    for (const Hook hook : {Hook::ingress, Hook::egress})
        EXPECT_EQ(kernel.run(hook, frame_of(60)), tc_unspec);
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    EXPECT_EQ(kernel.run(Hook::egress, frame_of(60)), tc_unspec);
    kernel.backend.consume();
    EXPECT_TRUE(kernel.sink.samples.empty());
    EXPECT_EQ(kernel.backend.totals(key_of(Hook::ingress)).pool, 0U);
}

TEST_F(Bpf_program, estimates_lie_within_three_standard_errors)
{
    constexpr int packets = 1'000'000;
    for (const std::uint32_t rate : {3U, 16U, 4096U}) {
        Kernel kernel;
        bool inside = false;
        // a right sampler misses three standard errors once in 370 times; twice in a row hardly ever
        for (int attempt = 0; attempt < 2 && !inside; ++attempt) {
            const SamplerTotals before = kernel.backend.totals(key_of(Hook::ingress));
            ASSERT_EQ(kernel.start(Hook::ingress, rate), Answer::ok);
            kernel.run(Hook::ingress, frame_of(60), packets);
            const SamplerTotals after = kernel.backend.totals(key_of(Hook::ingress));
            EXPECT_EQ(after.pool - before.pool, static_cast<std::uint64_t>(packets));
            const auto selected =
                static_cast<double>(after.taken + after.dropped - before.taken - before.dropped);
            const double p = 1.0 / rate;
            inside = std::abs(selected - packets * p) <= 3 * std::sqrt(packets * p * (1 - p));
        }
        EXPECT_TRUE(inside) << rate;
    }
}

TEST_F(Bpf_program, header_is_cut_at_the_samplers_length_and_the_frames)
{
    struct Row {
        std::uint32_t header_len;
        std::size_t frame_len, expected;
    };
    Kernel kernel;
    for (const Row &row :
         {Row{1, 60, 1}, Row{64, 60, 60}, Row{64, 64, 64}, Row{64, 65, 64}, Row{128, 1514, 128},
          Row{255, 1514, 255}, Row{256, 1514, 256}, Row{256, 256, 256}, Row{256, 257, 256}}) {
        ASSERT_EQ(kernel.start(Hook::ingress, 1, row.header_len), Answer::ok);
        const std::vector<std::uint8_t> frame = frame_of(row.frame_len);
        kernel.run(Hook::ingress, frame);
        kernel.sink.samples.clear();
        kernel.backend.consume();
        ASSERT_EQ(kernel.sink.samples.size(), 1U);
        const KeptSample &sample = kernel.sink.samples[0];
        EXPECT_EQ(sample.frame_len, row.frame_len);
        EXPECT_EQ(sample.header.size(), row.expected) << row.header_len << " of " << row.frame_len;
        EXPECT_TRUE(std::equal(sample.header.begin(), sample.header.end(), frame.begin()));
    }
}

TEST_F(Bpf_program, egress_tells_where_the_packet_came_in)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::egress, 1), Answer::ok);
    kernel.run(Hook::egress, frame_of(60), 1, 0);        // made here
    kernel.run(Hook::egress, frame_of(60), 1, loopback); // forwarded
    kernel.backend.consume();
    ASSERT_EQ(kernel.sink.samples.size(), 2U);
    EXPECT_EQ(kernel.sink.samples[0].input, 0xFFFFFFFFU);
    EXPECT_EQ(kernel.sink.samples[1].input, loopback);
}

TEST_F(Bpf_program, a_full_ring_buffer_is_counted_and_told)
{
    Kernel kernel({.ring_bytes = 4096, .max_samplers = 16});
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 100);
    const SamplerTotals totals = kernel.backend.totals(key_of(Hook::ingress));
    EXPECT_EQ(totals.pool, 100U);
    EXPECT_GT(totals.taken, 0U);
    EXPECT_EQ(totals.taken + totals.dropped, 100U);
    kernel.backend.consume();
    EXPECT_EQ(kernel.sink.samples.size(), totals.taken);
    EXPECT_EQ(kernel.sink.samples.back().drops, 0U);
    kernel.run(Hook::ingress, frame_of(60));
    kernel.backend.consume();
    EXPECT_EQ(kernel.sink.samples.back().drops, totals.dropped);
    EXPECT_EQ(kernel.sink.samples.back().pool, 101U);
}

TEST_F(Bpf_program, drops_count_for_the_interface_and_pool_for_the_hook)
{
    Kernel kernel({.ring_bytes = 4096, .max_samplers = 16});
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    ASSERT_EQ(kernel.start(Hook::egress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 100);
    kernel.backend.consume();
    kernel.run(Hook::ingress, frame_of(60));
    kernel.run(Hook::egress, frame_of(60));
    kernel.backend.consume();
    const KeptSample &last = kernel.sink.samples.back();
    EXPECT_EQ(last.sampler, key_of(Hook::egress));
    EXPECT_EQ(last.pool, 1U);
    EXPECT_EQ(last.drops, kernel.backend.totals(key_of(Hook::ingress)).dropped);
    EXPECT_GT(last.drops, 0U);
}

TEST_F(BpfBackend_start, a_paused_sampler_counts_nothing_and_goes_on_with_its_totals)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 5);
    kernel.backend.pause(key_of(Hook::ingress));
    EXPECT_EQ(kernel.run(Hook::ingress, frame_of(60), 100), tc_unspec);
    EXPECT_EQ(kernel.backend.totals(key_of(Hook::ingress)).pool, 5U);
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60));
    kernel.backend.consume();
    ASSERT_EQ(kernel.sink.samples.size(), 6U);
    EXPECT_EQ(kernel.sink.samples.back().pool, 6U);
}

TEST_F(BpfBackend_start, samples_of_a_removed_sampler_are_discarded)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 3);
    kernel.backend.remove(key_of(Hook::ingress));
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok); // takes the same slot
    kernel.run(Hook::ingress, frame_of(60));
    kernel.backend.consume();
    ASSERT_EQ(kernel.sink.samples.size(), 1U);
    EXPECT_EQ(kernel.sink.samples[0].pool, 1U);
    EXPECT_EQ(kernel.backend.totals(key_of(Hook::ingress)).pool, 1U);
}

TEST_F(BpfBackend_start, refuses_what_cannot_be_sampled)
{
    Kernel kernel({.ring_bytes = 4096, .max_samplers = 1});
    EXPECT_EQ(kernel.backend.start({.ifindex = 999, .hook = Hook::ingress}, {}), Answer::no_interface);
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    EXPECT_EQ(kernel.start(Hook::egress, 1), Answer::too_many_samplers);
    kernel.backend.remove(key_of(Hook::ingress));
    EXPECT_EQ(kernel.start(Hook::egress, 1), Answer::ok);
}

TEST_F(BpfBackend_consume, stops_when_the_sink_is_full_and_goes_on_without_loss)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 20);
    kernel.sink.room = 3;
    kernel.backend.consume();
    EXPECT_EQ(kernel.sink.samples.size(), 3U);
    EXPECT_EQ(kernel.sink.drains, 0);
    kernel.backend.consume(); // still refused
    EXPECT_EQ(kernel.sink.samples.size(), 3U);
    kernel.sink.room = 1 << 30;
    kernel.backend.resume();
    settle(kernel.loop);
    ASSERT_EQ(kernel.sink.samples.size(), 20U);
    for (std::uint64_t i = 0; i < 20; ++i)
        EXPECT_EQ(kernel.sink.samples[i].pool, i + 1);
    EXPECT_GE(kernel.sink.drains, 1);
}

TEST_F(BpfBackend_consume, works_in_slices_and_reads_everything_in_the_end)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60), 2000);
    kernel.backend.consume();
    EXPECT_GT(kernel.sink.samples.size(), 0U);
    EXPECT_LT(kernel.sink.samples.size(), 2000U);
    settle(kernel.loop);
    EXPECT_EQ(kernel.sink.samples.size(), 2000U);
}

TEST_F(BpfBackend_consume, samples_that_come_while_it_polls_need_no_wake_up)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    kernel.run(Hook::ingress, frame_of(60));
    kernel.backend.consume(); // polls from here on
    kernel.run(Hook::ingress, frame_of(60));
    for (int i = 0; i < 100 && kernel.sink.samples.size() < 2; ++i)
        kernel.loop.run_once(BpfBackend::poll_interval);
    EXPECT_EQ(kernel.sink.samples.size(), 2U);
    // back to sleep, and woken again
    for (int i = 0; i < 10; ++i)
        kernel.loop.run_once(BpfBackend::poll_interval);
    kernel.run(Hook::ingress, frame_of(60));
    kernel.loop.run_once(std::chrono::seconds(5));
    EXPECT_EQ(kernel.sink.samples.size(), 3U);
}

TEST_F(BpfBackend_construction, leftovers_of_an_earlier_run_are_removed)
{
    Kernel kernel;
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    ASSERT_EQ(kernel.start(Hook::egress, 1), Answer::ok);
    // a second instance takes the first one's hooks for leftovers
    Kernel second;
    EXPECT_EQ(second.log.containing("removed 2 filters that an earlier run had left"), 1U);
    ASSERT_EQ(second.start(Hook::ingress, 1), Answer::ok);
}

TEST_F(BpfBackend_construction, a_qdisc_of_another_kind_refuses_the_hook_with_its_reason)
{
    ASSERT_EQ(std::system("tc qdisc add dev lo ingress"), 0);
    LogLines log;
    EventLoop loop;
    LinkTable links(loop, log.log);
    TcControl tc(log.log);
    EXPECT_EQ(tc.attach(key_of(Hook::egress), -1), -EBUSY);
    EXPECT_EQ(tc.last_reason(), "the interface has a qdisc of kind \"ingress\" in the place of clsact");
}

TEST(TcHook_KernelWords, keeps_what_c_code_prints_to_standard_error)
{
    LogLines log;
    const LibbpfLog libbpf(log.log);
    testing::internal::CaptureStderr();
    {
        const KernelWords words;
        std::fprintf(stderr, "Kernel error message: %s\n", "Exclusivity flag on");
    }
    std::fprintf(stderr, "after\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "after\n");
    EXPECT_EQ(LibbpfLog::last_warning(), "Kernel error message: Exclusivity flag on");
    EXPECT_EQ(log.lines, std::vector<std::string>{"libbpf: Kernel error message: Exclusivity flag on"});
}

TEST(TcHook_KernelWords, silence_is_no_warning)
{
    LogLines log;
    const LibbpfLog libbpf(log.log);
    {
        const KernelWords words;
    }
    EXPECT_EQ(LibbpfLog::last_warning(), "");
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(BpfBackend_construction, both_hooks_of_an_interface_print_nothing_past_the_log)
{
    Kernel kernel;
    testing::internal::CaptureStderr();
    ASSERT_EQ(kernel.start(Hook::ingress, 1), Answer::ok);
    ASSERT_EQ(kernel.start(Hook::egress, 1), Answer::ok); // finds the qdisc there
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(BpfBackend_construction, capacity_has_everything)
{
    const Kernel kernel;
    EXPECT_EQ(kernel.backend.capacity(), 4095U);
}

} // namespace
} // namespace sampling
