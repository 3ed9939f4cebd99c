// The sampling programs in a network namespace of their own, run packet by packet. Needs CAP_NET_ADMIN, CAP_NET_RAW,
// CAP_BPF, CAP_PERFMON and CAP_SYS_ADMIN (for the namespace); without them every test skips itself.
#pragma once

#include "bpf_backend.h"
#include "privileges.h"
#include "sampling_fakes.h"

#include <bpf/bpf.h>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/pkt_cls.h>
#include <sched.h>

namespace sampling
{

// The loopback of a fresh namespace: always 1, down, so that no packet passes but those of the test.
constexpr IFINDEX loopback = 1;
constexpr int tc_unspec = -1;

constexpr SamplerKey key_of(Hook hook)
{
    return {.ifindex = loopback, .hook = hook};
}

struct KeptSample {
    SamplerKey sampler;
    IFINDEX input = 0;
    std::uint32_t frame_len = 0;
    std::uint64_t pool = 0;
    std::uint64_t drops = 0;
    bool tagged = false;
    std::vector<std::uint8_t> header;
};

class Sink final : public SampleSink
{
public:
    [[nodiscard]] bool take(const Sample &sample) override
    {
        samples.push_back({.sampler = sample.sampler,
                           .input = sample.input,
                           .frame_len = sample.frame_len,
                           .pool = sample.pool,
                           .drops = sample.drops,
                           .tagged = sample.tag.has_value(),
                           .header = {sample.header.begin(), sample.header.end()}});
        return --room > 0;
    }
    void drained() override { ++drains; }

    int room = 1 << 30;
    int drains = 0;
    std::vector<KeptSample> samples;
};

struct Kernel {
    EventLoop loop;
    LogLines log;
    LinkTable links{loop, log.log};
    Sink sink;
    BpfBackend backend;

    explicit Kernel(BpfOptions options = {}) : backend(loop, log.log, links, sink, options) {}

    /// Runs the hook's program `repeat` times on the frame; returns its verdict.
    int run(Hook hook, std::vector<std::uint8_t> frame, int repeat = 1,
            std::uint32_t ingress_ifindex = 0) const
    {
        if (hook ==
            Hook::snoop) // test runs take the Ethernet header off for a socket filter, packet sockets do not
            frame.insert(frame.begin(), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x88, 0xB5});
        __sk_buff context = {};
        context.ifindex = loopback;
        context.ingress_ifindex = ingress_ifindex;
        bpf_test_run_opts options = {};
        options.sz = sizeof(options);
        options.data_in = frame.data();
        options.data_size_in = static_cast<std::uint32_t>(frame.size());
        options.ctx_in = &context;
        options.ctx_size_in = sizeof(context);
        options.repeat = repeat;
        EXPECT_EQ(bpf_prog_test_run_opts(backend.program_fd(hook), &options), 0) << std::strerror(errno);
        return static_cast<int>(options.retval);
    }

    Answer start(Hook hook, std::uint32_t rate, std::uint32_t header_len = 128)
    {
        return backend.start(key_of(hook), {.rate = rate, .header_len = header_len});
    }
    /// Rate 1, limited to one or two lists.
    Answer start_limited(Hook hook, AclIds acls)
    {
        return backend.start(key_of(hook), {.rate = 1, .header_len = 128, .acls = acls});
    }
    std::uint64_t pool(Hook hook) const { return backend.totals(key_of(hook)).pool; }
    /// How many of `repeat` runs on the frame the sampler lets pass.
    std::uint64_t passed(Hook hook, const std::vector<std::uint8_t> &frame, int repeat = 1) const
    {
        const std::uint64_t before = pool(hook);
        run(hook, frame, repeat);
        return pool(hook) - before;
    }
};

class BpfBackendTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string missing =
            missing_capabilities(effective_capabilities(), {Capability::net_admin, Capability::bpf,
                                                            Capability::perfmon, Capability::net_raw});
        if (!missing.empty())
            GTEST_SKIP() << "needs " << missing;
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace of its own: " << std::strerror(errno);
    }
};

} // namespace sampling
