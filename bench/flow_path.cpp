// Cost of a flow sample, from the sampled header to the datagram on the wire, as a ratio to a limit program that makes
// the same system calls for the same datagrams and copies the same bytes, and does nothing else.
//
// Both send to a socket on loopback that nobody reads from. They take turns of a few milliseconds, measured in processor
// time, and the ratio is the median over the pairs of turns, so that what the machine does meanwhile counts for little.
// Usage: flow_path [DATAGRAMS [PAIRS]]
#include "../tests/unit/export_doubles.h"
#include "bench_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace bench;
using namespace export_test;

namespace
{

constexpr IFINDEX IFX = 7;
constexpr int HEADER_LEN = 64;
/// A datagram of 1400 bytes takes 8 samples of 164 bytes behind its header of 28.
constexpr int SAMPLES_PER_DATAGRAM = 8;
constexpr std::size_t SAMPLE_LEN = 164;
constexpr std::size_t DATAGRAM_LEN = 28 + SAMPLES_PER_DATAGRAM * SAMPLE_LEN;

char header[HEADER_LEN];

/// The limit: per datagram the system calls that a fresh, connected socket costs, per sample one copy.
void limit(const Sink &sink, int datagrams)
{
    static char datagram[DATAGRAM_LEN];
    Descriptor fd;
    for (int i = 0; i < datagrams; i++) {
        for (std::size_t sample = 0; sample < SAMPLES_PER_DATAGRAM; sample++) {
            std::memcpy(datagram + 28 + sample * SAMPLE_LEN + 100, header, sizeof(header));
            // Or the copies are merged into one.
            asm volatile("" : : "r"(datagram) : "memory");
        }
        send_on_fresh_socket(fd, sink, datagram);
    }
}

/// The daemon's path with the lock that the flow sampler takes for each sample. One sample more than the datagrams
/// hold, since the sample that does not fit any more is what sends.
void flow_path(sflow_intf_config_t *intf, int datagrams)
{
    const sflow_flow_info_t info = {.source_id = IFX, .ingress_ifx = IFX, .egress_ifx = 8, .frame_len = 1500};
    for (int i = 0; i < datagrams * SAMPLES_PER_DATAGRAM; i++) {
        sflow_config_wrlock();
        sflow_receiver_write_flowsample(header, sizeof(header), info, intf);
        sflow_config_wrunlock();
    }
    sflow_config_wrlock();
    sflow_receiver_send_all_receiver_sample();
    sflow_config_wrunlock();
}

/// Encoding alone: the datagram is forgotten instead of sent.
void encode(sflow_intf_config_t *intf, int datagrams)
{
    const sflow_flow_info_t info = {.source_id = IFX, .ingress_ifx = IFX, .egress_ifx = 8, .frame_len = 1500};
    for (int i = 0; i < datagrams; i++) {
        for (int sample = 0; sample < SAMPLES_PER_DATAGRAM; sample++)
            sflow_receiver_write_flowsample(header, sizeof(header), info, intf);
        sflreceiver_t *one = receiver(1);
        one->pktlen = 28;
        one->datap = one->data + 7;
        one->flow_sample_num = 0;
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int datagrams = argc > 1 ? std::atoi(argv[1]) : 200;
    const int pairs = argc > 2 ? std::atoi(argv[2]) : 301;
    if (datagrams <= 0 || pairs <= 0) {
        std::fprintf(stderr, "usage: flow_path [DATAGRAMS [PAIRS]]\n");
        return 2;
    }
    const Sink sink;
    reset_world();
    set_agent_address("192.0.2.1");
    set_collector(1, "127.0.0.1", static_cast<std::uint16_t>(sink.port()));
    sflow_intf_config_t *intf = add_interface(IFX, 0, 1);

    flow_path(intf, datagrams);
    limit(sink, datagrams);
    sflow_statis = {};
    std::vector<double> ours;
    std::vector<double> limits;
    std::vector<double> encoding;
    std::vector<double> ratios;
    for (int i = 0; i < pairs; i++) {
        ours.push_back(nanoseconds_of([&] { flow_path(intf, datagrams); }));
        limits.push_back(nanoseconds_of([&] { limit(sink, datagrams); }));
        ratios.push_back(ours.back() / limits.back());
        encoding.push_back(nanoseconds_of([&] { encode(intf, datagrams); }));
    }
    const auto wanted = static_cast<std::uint32_t>(datagrams * pairs);
    if (sflow_statis.sflow_export_pkt_num != wanted || sflow_statis.sflow_export_fail_num != 0) {
        std::fprintf(stderr, "%u datagrams left instead of %u\n", sflow_statis.sflow_export_pkt_num, wanted);
        return 1;
    }
    const double samples = static_cast<double>(datagrams) * SAMPLES_PER_DATAGRAM;
    std::printf("flow path     %8.1f ns per sample\n", median(ours) / samples);
    std::printf("limit program %8.1f ns per sample\n", median(limits) / samples);
    std::printf("encoding      %8.1f ns per sample\n", median(encoding) / samples);
    std::printf("ratio         %8.3f\n", median(ratios));
    clear_world();
    return 0;
}
