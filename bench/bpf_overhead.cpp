// bpf_overhead: what the sampling program costs each packet on a tc hook.
//
// Runs the service's ingress program and an empty program through bpf_prog_test_run, in turns, on the same frame, and
// prints for each setting the median time a packet and its ratio to the empty program of the same run. The kernel
// measures the time itself, around the program alone: no forwarding, no interface. Needs the privileges of the service
// and a network namespace of its own.
#include "bpf_backend.h"
#include "bpf_overhead.skel.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <vector>

namespace
{

using namespace sampling;

constexpr IFINDEX loopback = 1;
constexpr SamplerKey key = {.ifindex = loopback, .hook = Hook::ingress};
constexpr int rounds = 11;
constexpr std::uint32_t ring_bytes = 64 * 1024 * 1024;

class NoSink final : public SampleSink
{
public:
    [[nodiscard]] bool take(const Sample &) override { return true; }
    void drained() override {}
};

struct EmptyDeleter {
    void operator()(bpf_overhead_bpf *skeleton) const { bpf_overhead_bpf__destroy(skeleton); }
};

/// Average nanoseconds a packet over `repeat` runs, as the kernel measures them.
double run(int program, int repeat)
{
    std::vector<std::uint8_t> frame(1514, 0);
    frame[12] = 0x08;
    __sk_buff context = {};
    context.ifindex = loopback;
    bpf_test_run_opts options = {};
    options.sz = sizeof(options);
    options.data_in = frame.data();
    options.data_size_in = static_cast<std::uint32_t>(frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof(context);
    options.repeat = repeat;
    if (bpf_prog_test_run_opts(program, &options) != 0)
        throw std::runtime_error(std::string("bpf_prog_test_run: ") + std::strerror(errno));
    return options.duration;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Case {
    const char *name;
    std::uint32_t rate; ///< 0: no sampler on the interface
    int repeat;         ///< few enough that the ring buffer never fills
};

constexpr Case cases[] = {
    {"hook without a sampler", 0, 1'000'000},
    {"one in 2^31-1", 2'147'483'647, 1'000'000},
    {"one in 8192", 8192, 1'000'000},
    {"one in 4096", 4096, 1'000'000},
    {"one in 256", 256, 1'000'000},
    {"one in 16", 16, 500'000},
    {"every packet", 1, 50'000},
};

void measure(const Case &row, int empty_program, EventLoop &loop, Log &log, LinkTable &links)
{
    std::vector<double> empty;
    std::vector<double> sampled;
    for (int round = 0; round < rounds; ++round) {
        NoSink sink;
        BpfBackend backend(loop, log, links, sink, {.ring_bytes = ring_bytes, .max_samplers = 64});
        if (row.rate != 0 && backend.start(key, {.rate = row.rate, .header_len = 128}) != Answer::ok)
            throw std::runtime_error("the sampler does not start");
        empty.push_back(run(empty_program, row.repeat));
        sampled.push_back(run(backend.program_fd(key.hook), row.repeat));
        if (backend.totals(key).dropped != 0)
            throw std::runtime_error("the ring buffer filled up: the measurement is void");
    }
    const double limit = median(empty);
    const double cost = median(sampled);
    std::printf("%-24s %10.0f ns %10.0f ns %9.2f %+10.0f ns\n", row.name, limit, cost,
                cost / std::max(limit, 1.0), cost - limit);
}

} // namespace

int main()
{
    try {
        if (::unshare(CLONE_NEWNET) != 0)
            throw std::runtime_error(std::string("network namespace: ") + std::strerror(errno));
        const std::unique_ptr<bpf_overhead_bpf, EmptyDeleter> empty(bpf_overhead_bpf__open_and_load());
        if (!empty)
            throw std::runtime_error(std::string("empty program: ") + std::strerror(errno));
        Log log(false);
        EventLoop loop;
        LinkTable links(loop, log);
        std::printf("%-24s %13s %13s %9s %13s\n", "tc ingress, a packet", "empty", "sampling", "ratio",
                    "difference");
        for (const Case &row : cases)
            measure(row, bpf_program__fd(empty->progs.pass), loop, log, links);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bpf_overhead: %s\n", error.what());
        return 1;
    }
}
