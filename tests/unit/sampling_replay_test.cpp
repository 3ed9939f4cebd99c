#include "replay_backend.h"

#include "acl_frames.h"
#include "sampling_fakes.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <memory>
#include <pcap/pcap.h>

namespace sampling
{
namespace
{

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr IFINDEX loopback = 1;
constexpr SamplerKey lo_ingress = {.ifindex = loopback, .hook = Hook::ingress};
constexpr SamplerKey lo_egress = {.ifindex = loopback, .hook = Hook::egress};

/// A capture file that goes with the test.
class Capture
{
public:
    explicit Capture(int link_type = DLT_EN10MB)
        : path_(std::filesystem::temp_directory_path() / "samplingXXXXXX")
    {
        std::string name = path_.string();
        const int fd = ::mkstemp(name.data());
        EXPECT_GE(fd, 0);
        ::close(fd);
        path_ = name;
        dead_.reset(pcap_open_dead(link_type, 65535));
        dumper_.reset(pcap_dump_open(dead_.get(), name.c_str()));
        EXPECT_NE(dumper_, nullptr);
    }
    ~Capture()
    {
        dumper_.reset();
        std::filesystem::remove(path_);
    }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    void add(const std::vector<std::uint8_t> &frame)
    {
        pcap_pkthdr header = {};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        pcap_dump(reinterpret_cast<u_char *>(dumper_.get()), &header, frame.data());
    }

    /// @param mark  last octet of the captured bytes, to tell frames apart
    void add(std::int64_t at_us, std::uint32_t frame_len, std::uint32_t captured,
             std::uint8_t first_octet = 2, std::uint8_t mark = 0)
    {
        std::vector<std::uint8_t> bytes(captured, first_octet);
        if (!bytes.empty())
            bytes.back() = mark;
        pcap_pkthdr header = {};
        header.ts.tv_sec = at_us / 1'000'000;
        header.ts.tv_usec = at_us % 1'000'000;
        header.caplen = captured;
        header.len = frame_len;
        pcap_dump(reinterpret_cast<u_char *>(dumper_.get()), &header, bytes.data());
    }

    [[nodiscard]] std::string close()
    {
        dumper_.reset();
        return path_.string();
    }

private:
    struct Deleter {
        void operator()(pcap_t *file) const { pcap_close(file); }
        void operator()(pcap_dumper_t *dumper) const { pcap_dump_close(dumper); }
    };
    std::filesystem::path path_;
    std::unique_ptr<pcap_t, Deleter> dead_;
    std::unique_ptr<pcap_dumper_t, Deleter> dumper_;
};

struct TakenSample {
    SamplerKey sampler;
    IFINDEX input;
    std::uint32_t frame_len;
    std::uint64_t pool;
    std::vector<std::uint8_t> header;
};

/// Takes `room` samples, then refuses.
class Sink final : public SampleSink
{
public:
    [[nodiscard]] bool take(const Sample &sample) override
    {
        EXPECT_GT(room, 0) << "brought a sample to a sink that had refused more";
        samples.push_back({.sampler = sample.sampler,
                           .input = sample.input,
                           .frame_len = sample.frame_len,
                           .pool = sample.pool,
                           .header = {sample.header.begin(), sample.header.end()}});
        return --room > 0;
    }
    void drained() override { ++drains; }

    int room = 1 << 30;
    int drains = 0;
    std::vector<TakenSample> samples;
};

struct Player {
    EventLoop loop;
    LogLines log;
    LinkTable links{loop, log.log};
    Sink sink;
    std::unique_ptr<ReplayBackend> backend;

    void open(ReplayOptions options)
    {
        if (options.ingress.empty() && options.egress.empty())
            options.ingress = {"lo"};
        backend = std::make_unique<ReplayBackend>(loop, log.log, links, sink, std::move(options));
    }

    void play()
    {
        for (int round = 0; round < 1'000'000 && !backend->finished(); ++round)
            loop.run_once(milliseconds(50));
        EXPECT_TRUE(backend->finished());
    }
};

ReplayOptions fast(std::string file)
{
    ReplayOptions options;
    options.file = std::move(file);
    options.speed = 0;
    options.seed = 42;
    return options;
}

TEST(ReplayBackend_start, rate_1_takes_every_packet_with_its_pool)
{
    Capture capture;
    for (std::uint8_t i = 0; i < 100; ++i)
        capture.add(i, 1000U + i, 64, 2, i);
    Player player;
    player.open(fast(capture.close()));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    ASSERT_EQ(player.sink.samples.size(), 100U);
    for (std::uint8_t i = 0; i < 100; ++i) {
        const TakenSample &sample = player.sink.samples[i];
        EXPECT_EQ(sample.sampler, lo_ingress);
        EXPECT_EQ(sample.input, loopback);
        EXPECT_EQ(sample.frame_len, 1000U + i);
        EXPECT_EQ(sample.header.size(), 64U);
        EXPECT_EQ(sample.header.back(), i);
        EXPECT_EQ(sample.pool, i + 1U);
    }
    EXPECT_GE(player.sink.drains, 1);
    EXPECT_EQ(
        player.log.containing("ended after 1 pass: 100 packets, 104950 octets, 100 samples, still serving"),
        1U);
}

TEST(ReplayBackend_start, estimates_lie_within_three_standard_errors)
{
    for (const std::uint32_t rate : {2U, 16U, 128U}) {
        Capture capture;
        constexpr int packets = 20'000;
        for (int i = 0; i < packets; ++i)
            capture.add(i, 60, 14);
        Player player;
        player.open(fast(capture.close()));
        ASSERT_EQ(player.backend->start(lo_ingress, {.rate = rate, .header_len = 64}), Answer::ok);
        player.play();
        const double p = 1.0 / rate;
        EXPECT_NEAR(static_cast<double>(player.sink.samples.size()), packets * p,
                    3 * std::sqrt(packets * p * (1 - p)))
            << rate;
        const SamplerTotals totals = player.backend->totals(lo_ingress);
        EXPECT_EQ(totals.pool, static_cast<std::uint64_t>(packets));
        EXPECT_EQ(totals.taken, player.sink.samples.size());
        EXPECT_EQ(totals.dropped, 0U);
    }
}

TEST(ReplayBackend_start, the_same_seed_takes_the_same_packets)
{
    Capture capture;
    for (int i = 0; i < 1000; ++i)
        capture.add(i, 60, 14, 2, static_cast<std::uint8_t>(i % 251));
    const std::string file = capture.close();
    std::vector<std::uint64_t> pools[2];
    for (auto &row : pools) {
        Player player;
        player.open(fast(file));
        ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 10, .header_len = 64}), Answer::ok);
        player.play();
        for (const TakenSample &sample : player.sink.samples)
            row.push_back(sample.pool);
    }
    EXPECT_FALSE(pools[0].empty());
    EXPECT_EQ(pools[0], pools[1]);
}

TEST(ReplayBackend_start, nothing_passes_before_a_sampler_is_on)
{
    Capture capture;
    capture.add(0, 60, 60);
    Player player;
    player.open(fast(capture.close()));
    settle(player.loop);
    EXPECT_EQ(player.backend->packets(), 0U);
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    EXPECT_EQ(player.sink.samples.size(), 1U);
}

TEST(ReplayBackend_pause, a_paused_sampler_counts_and_takes_nothing_and_goes_on_later)
{
    Capture capture;
    for (int i = 0; i < 1000; ++i)
        capture.add(i, 60, 14);
    Player player;
    player.open(fast(capture.close()));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.loop.run_once(milliseconds(5)); // one slice
    const std::size_t first = player.sink.samples.size();
    ASSERT_GT(first, 0U);
    ASSERT_LT(first, 1000U);
    player.backend->pause(lo_ingress);
    player.loop.run_once(milliseconds(5));
    EXPECT_EQ(player.sink.samples.size(), first);
    const std::uint64_t missed = player.backend->packets() - first;
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    EXPECT_EQ(player.sink.samples.size(), 1000U - missed);
    EXPECT_EQ(player.backend->totals(lo_ingress).pool, 1000U - missed);
}

TEST(ReplayBackend_resume, a_full_sink_stops_the_replay_and_loses_nothing)
{
    Capture capture;
    for (int i = 0; i < 500; ++i)
        capture.add(i, 60, 14);
    ReplayOptions options = fast(capture.close());
    options.ingress = {"lo"};
    options.egress = {"lo"};
    Player player;
    player.sink.room = 7;
    player.open(std::move(options));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    ASSERT_EQ(player.backend->start(lo_egress, {.rate = 1, .header_len = 64}), Answer::ok);
    settle(player.loop);
    EXPECT_EQ(player.sink.samples.size(), 7U);
    while (!player.backend->finished()) {
        player.sink.room = 7;
        player.backend->resume();
        settle(player.loop);
    }
    EXPECT_EQ(player.sink.samples.size(), 1000U);
    EXPECT_EQ(player.backend->packets(), 500U);
    EXPECT_EQ(player.backend->totals(lo_ingress).taken, 500U);
    EXPECT_EQ(player.backend->totals(lo_egress).taken, 500U);
}

TEST(ReplayBackend_start, egress_interface_gets_unknown_input)
{
    Capture capture;
    capture.add(0, 60, 60);
    ReplayOptions options = fast(capture.close());
    options.egress = {"lo"};
    Player player;
    player.open(std::move(options));
    EXPECT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::hook_refused);
    ASSERT_EQ(player.backend->start(lo_egress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    ASSERT_EQ(player.sink.samples.size(), 1U);
    EXPECT_EQ(player.sink.samples[0].sampler, lo_egress);
    EXPECT_EQ(player.sink.samples[0].input, 0U);
}

TEST(ReplayBackend_start, loops_play_the_file_again)
{
    Capture capture;
    for (int i = 0; i < 10; ++i)
        capture.add(i, 60, 14);
    ReplayOptions options = fast(capture.close());
    options.loops = 3;
    Player player;
    player.open(std::move(options));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    EXPECT_EQ(player.sink.samples.size(), 30U);
    EXPECT_EQ(player.log.containing("ended after 3 passes: 30 packets"), 1U);
}

TEST(ReplayBackend_start, timing_is_the_captures_scaled)
{
    Capture capture;
    capture.add(1'000'000, 60, 14);
    capture.add(1'040'000, 60, 14);
    ReplayOptions options = fast(capture.close());
    options.speed = 2;
    Player player;
    player.open(std::move(options));
    const auto start = Clock::now();
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.loop.run_once(milliseconds(5));
    EXPECT_TRUE(player.sink.samples.size() == 1 || Clock::now() - start >= milliseconds(20));
    EXPECT_GE(player.sink.drains, 1); // the first does not wait for the second
    player.play();
    EXPECT_EQ(player.sink.samples.size(), 2U);
    EXPECT_GE(Clock::now() - start, milliseconds(20));
}

TEST(ReplayBackend_own_counters, are_those_of_the_replayed_packets)
{
    Capture capture;
    capture.add(0, 100, 60, 0x02);
    capture.add(1, 200, 60, 0x01); // multicast
    capture.add(2, 300, 60, 0xFF); // broadcast
    ReplayOptions options = fast(capture.close());
    options.ingress = {"lo"};
    options.egress = {"lo"};
    Player player;
    player.open(std::move(options));
    EXPECT_FALSE(player.backend->own_counters(loopback + 1));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1000, .header_len = 64}), Answer::ok);
    player.play();
    const auto counters = player.backend->own_counters(loopback);
    ASSERT_TRUE(counters);
    EXPECT_EQ(counters->rx_packets, 3U);
    EXPECT_EQ(counters->rx_bytes, 600U);
    EXPECT_EQ(counters->multicast, 1U);
    EXPECT_EQ(counters->tx_packets, 3U);
    EXPECT_EQ(counters->tx_bytes, 600U);
}

TEST(ReplayBackend_start, refusals)
{
    Capture capture;
    capture.add(0, 60, 60);
    Player player;
    player.open(fast(capture.close()));
    EXPECT_EQ(player.backend->start({.ifindex = 0x7FFFFFF0, .hook = Hook::ingress}, {}),
              Answer::no_interface);
    EXPECT_EQ(player.backend->start({.ifindex = loopback, .hook = Hook::snoop}, {}), Answer::hook_refused);
    EXPECT_EQ(player.backend->start(lo_egress, {}), Answer::hook_refused);
    EXPECT_EQ(player.backend->packets(), 0U);
}

TEST(ReplayBackend_start, a_limited_sampler_takes_and_counts_what_its_lists_permit)
{
    Capture capture;
    const FrameBuilder::Ip inside = {.source = "192.0.2.7", .destination = "198.51.100.1", .protocol = 6};
    const FrameBuilder::Ip outside = {.source = "203.0.113.7", .destination = "198.51.100.1", .protocol = 6};
    for (int i = 0; i < 50; ++i) {
        capture.add(FrameBuilder().ipv4(inside).tcp(1, 2, 0).bytes());
        capture.add(FrameBuilder().ipv4(outside).tcp(1, 2, 0).bytes());
        capture.add(FrameBuilder().tag(0x8100, 5).u16(0x0806).zeros(28).bytes());
        capture.add(FrameBuilder().cut(10).bytes());
    }
    Player player;
    player.open(fast(capture.close()));
    const acl::Entry net = {.action = acl::Action::permit, .source = prefix("192.0.2.0", 24)};
    ASSERT_TRUE(player.backend->install_acl(list_of(acl::Family::ipv4, {net}, 5)));
    const acl::Entry arp = {.action = acl::Action::permit, .ether_type = 0x0806};
    ASSERT_TRUE(player.backend->install_acl(list_of(acl::Family::mac, {arp}, 6)));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64, .acls = {5, 6}}), Answer::ok);
    player.play();
    ASSERT_EQ(player.sink.samples.size(), 100U);
    for (std::size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(player.sink.samples[i].pool, i + 1);
        EXPECT_EQ(player.sink.samples[i].header[12], i % 2 == 0 ? 0x08 : 0x81);
    }
    EXPECT_EQ(player.backend->packets(), 200U);
}

TEST(ReplayBackend_start, a_withheld_list_permits_nothing)
{
    Capture capture;
    const FrameBuilder::Ip ip = {.source = "192.0.2.7", .destination = "198.51.100.1", .protocol = 6};
    capture.add(FrameBuilder().ipv4(ip).tcp(1, 2, 0).bytes());
    Player player;
    player.open(fast(capture.close()));
    ASSERT_TRUE(
        player.backend->install_acl(list_of(acl::Family::ipv4, {{.action = acl::Action::permit}}, 5)));
    player.backend->withhold_acl(5);
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64, .acls = {5, 0}}), Answer::ok);
    player.play();
    EXPECT_TRUE(player.sink.samples.empty());
    EXPECT_EQ(player.backend->totals(lo_ingress).pool, 0U);
}

TEST(ReplayBackend_capacity, egress_only_when_it_is_played_there)
{
    Capture capture;
    capture.add(0, 60, 60);
    const std::string file = capture.close();
    Player ingress;
    ingress.open(fast(file));
    EXPECT_EQ(ingress.backend->capacity(), 1U | 4U | 16U | 64U | 128U | 256U);
    ReplayOptions both = fast(file);
    both.egress = {"lo"};
    Player player;
    player.open(std::move(both));
    EXPECT_EQ(player.backend->capacity(), 1U | 2U | 4U | 8U | 16U | 32U | 64U | 128U | 256U);
}

std::string refusal(ReplayOptions options)
{
    Player player;
    try {
        player.open(std::move(options));
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "";
}

TEST(ReplayBackend_construction, names_what_is_wrong_with_the_capture_or_the_interface)
{
    EXPECT_THAT(refusal(fast("/nonexistent.pcap")), HasSubstr("capture /nonexistent.pcap"));
    Capture raw(DLT_RAW);
    EXPECT_THAT(refusal(fast(raw.close())), HasSubstr("not of Ethernet frames"));
    Capture good;
    ReplayOptions options = fast(good.close());
    options.ingress = {"no-such-if"};
    EXPECT_THAT(refusal(options), HasSubstr("interface no-such-if: no such interface"));
}

TEST(ReplayBackend_start, a_capture_cut_in_the_middle_ends_with_a_warning)
{
    Capture capture;
    capture.add(0, 60, 60);
    capture.add(1, 60, 60);
    const std::string file = capture.close();
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 10);
    Player player;
    player.open(fast(file));
    ASSERT_EQ(player.backend->start(lo_ingress, {.rate = 1, .header_len = 64}), Answer::ok);
    player.play();
    EXPECT_EQ(player.sink.samples.size(), 1U);
    EXPECT_EQ(player.log.containing("the rest is skipped"), 1U);
}

} // namespace
} // namespace sampling
