// bpf_overhead: what the sampling program costs each packet on a tc hook.
//
// Runs the service's ingress program and an empty program through bpf_prog_test_run, in turns, on the same frame, and
// prints for each setting the median time a packet and its ratio to the empty program of the same run. A second table
// compares samplers that are limited to access lists with one that is not. The kernel measures the time itself, around
// the program alone: no forwarding, no interface. Needs the privileges of the service and a network namespace of its
// own.
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
#include <string>
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

using Frame = std::vector<std::uint8_t>;

constexpr std::size_t frame_bytes = 1514;

/// TCP to port 443 with ACK, from 10.0.0.1 to 10.0.0.2.
Frame ipv4_frame()
{
    Frame frame(frame_bytes, 0);
    frame[12] = 0x08;
    frame[14] = 0x45;
    frame[23] = acl::PROTOCOL_TCP;
    frame[26] = frame[30] = 10;
    frame[29] = 1;
    frame[33] = 2;
    frame[36] = 443 >> 8;
    frame[37] = 443 & 0xFF;
    frame[47] = 0x10;
    return frame;
}

/// The same in IPv6; every octet of the addresses is 0.
Frame ipv6_frame()
{
    Frame frame(frame_bytes, 0);
    frame[12] = 0x86;
    frame[13] = 0xDD;
    frame[14] = 0x60;
    frame[20] = acl::PROTOCOL_TCP;
    frame[56] = 443 >> 8;
    frame[57] = 443 & 0xFF;
    frame[67] = 0x10;
    return frame;
}

/// Average nanoseconds a packet over `repeat` runs, as the kernel measures them.
double run(int program, int repeat, const Frame &frame)
{
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
        empty.push_back(run(empty_program, row.repeat, ipv4_frame()));
        sampled.push_back(run(backend.program_fd(key.hook), row.repeat, ipv4_frame()));
        if (backend.totals(key).dropped != 0)
            throw std::runtime_error("the ring buffer filled up: the measurement is void");
    }
    const double limit = median(empty);
    const double cost = median(sampled);
    std::printf("%-24s %10.0f ns %10.0f ns %9.2f %+10.0f ns\n", row.name, limit, cost,
                cost / std::max(limit, 1.0), cost - limit);
}

/// Entries that deny other hosts and ports; the last one permits the packet, or nothing does.
acl::List list_of(acl::Family family, std::size_t entries, bool permits)
{
    acl::List list;
    list.family = family;
    list.id = 1;
    list.name = "1";
    const std::size_t size = acl::address_size(family);
    for (std::size_t i = 0; i < entries; ++i) {
        acl::Entry entry;
        entry.sequence = static_cast<std::uint32_t>(i + 1);
        entry.protocol = acl::PROTOCOL_TCP;
        entry.destination_ports = acl::Ports{.first = static_cast<std::uint16_t>(i % 7 == 0 ? 443 : 1000 + i),
                                             .last = static_cast<std::uint16_t>(2000 + i)};
        std::fill_n(entry.source.mask.begin(), size, std::uint8_t{0xFF});
        entry.source.value[size - 1] = static_cast<std::uint8_t>(i & 0xFF);
        entry.source.value[size - 2] = static_cast<std::uint8_t>(100 + (i >> 8));
        list.entries.push_back(entry);
    }
    if (permits)
        list.entries.back() = {.sequence = list.entries.back().sequence,
                               .action = acl::Action::permit,
                               .protocol = acl::PROTOCOL_TCP,
                               .destination_ports = acl::Ports{.first = 443, .last = 443}};
    return list;
}

/// The most expensive list there is: each word of entries stays undecided until its last byte has been looked at.
acl::List worst_list()
{
    acl::List list = list_of(acl::Family::ipv6, acl::MAX_ENTRIES, false);
    for (std::size_t i = 0; i < list.entries.size(); ++i) {
        acl::Entry &entry = list.entries[i];
        entry = {.sequence = entry.sequence, .dscp = std::uint8_t{0}};
        entry.source.mask.fill(0xFF);
        entry.destination.mask.fill(0xFF);
        // wrong in one byte only, another one for each entry of a word
        const std::size_t wrong = i % 33;
        if (wrong < 16)
            entry.source.value[wrong] = 1;
        else if (wrong < 32)
            entry.destination.value[wrong - 16] = 1;
        else
            entry.dscp = 1;
    }
    return list;
}

struct AclCase {
    std::string name;
    Frame frame;
    std::vector<acl::List> lists;
};

std::vector<AclCase> acl_cases()
{
    using acl::Family;
    std::vector<AclCase> made;
    for (const std::size_t entries : {std::size_t{1}, std::size_t{64}, acl::MAX_ENTRIES}) {
        const std::string text = ", " + std::to_string(entries) + " entries";
        made.push_back({"IPv4" + text, ipv4_frame(), {list_of(Family::ipv4, entries, true)}});
        made.push_back({"IPv6" + text, ipv6_frame(), {list_of(Family::ipv6, entries, true)}});
    }
    acl::List second = list_of(Family::ipv4, acl::MAX_ENTRIES, true);
    second.id = 2;
    made.push_back(
        {"IPv4, two lists of 512", ipv4_frame(), {list_of(Family::ipv4, acl::MAX_ENTRIES, false), second}});
    made.push_back({"IPv6, worst list of 512", ipv6_frame(), {worst_list()}});
    second = worst_list();
    second.id = 2;
    made.push_back({"IPv6, two of these", ipv6_frame(), {worst_list(), second}});
    return made;
}

void measure(const AclCase &row, EventLoop &loop, Log &log, LinkTable &links)
{
    constexpr int repeat = 100'000;
    constexpr SamplerSettings without = {.rate = 2'147'483'647, .header_len = 128};
    NoSink sink;
    BpfBackend backend(loop, log, links, sink, {.ring_bytes = 4096, .max_samplers = 64});
    SamplerSettings with = without;
    for (std::size_t i = 0; i < row.lists.size(); ++i) {
        with.acls.at(i) = row.lists[i].id;
        if (!backend.install_acl(row.lists[i]))
            throw std::runtime_error("the list is not taken");
    }
    const auto time = [&](const SamplerSettings &settings) {
        if (backend.start(key, settings) != Answer::ok)
            throw std::runtime_error("the sampler does not start");
        return run(backend.program_fd(key.hook), repeat, row.frame);
    };
    std::vector<double> plain;
    std::vector<double> limited;
    for (int round = 0; round < rounds; ++round) {
        plain.push_back(time(without));
        limited.push_back(time(with));
    }
    const double limit = median(plain);
    const double cost = median(limited);
    std::printf("%-24s %10.0f ns %10.0f ns %9.2f %+10.0f ns\n", row.name.c_str(), limit, cost,
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
        std::printf("\n%-24s %13s %13s %9s %13s\n", "limited to access lists", "no list", "with lists",
                    "ratio", "difference");
        for (const AclCase &row : acl_cases())
            measure(row, loop, log, links);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bpf_overhead: %s\n", error.what());
        return 1;
    }
}
