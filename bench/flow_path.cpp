// Cost of a flow sample, from the sampled header to the datagram on the wire, as a ratio to a limit program that makes
// the same system calls for the same datagrams and copies the same bytes, and does nothing else.
//
// Both send to a socket on loopback that nobody reads from. They take turns of a few milliseconds, and the ratio is the
// median over the pairs of turns, so that what the machine does meanwhile hits both or counts for little.
// Usage: flow_path [DATAGRAMS [PAIRS]]
#include "../tests/unit/export_doubles.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

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

[[noreturn]] void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

/// A bound UDP socket on loopback with a small buffer: datagrams beyond it are dropped by the kernel.
class Sink
{
public:
    Sink() : fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *any = reinterpret_cast<sockaddr *>(&address);
        socklen_t len = sizeof(address);
        const int small = 4096;
        if (fd_ < 0 || bind(fd_, any, len) != 0 || getsockname(fd_, any, &len) != 0 ||
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)) != 0)
            fail("sink");
    }
    ~Sink() { close(fd_); }
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    sockaddr_in address = {};

private:
    int fd_;
};

using Nanoseconds = std::chrono::duration<double, std::nano>;

template <typename Work>
double nanoseconds_of(Work work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return Nanoseconds(std::chrono::steady_clock::now() - start).count();
}

/// The limit: per datagram the system calls that a fresh, connected socket costs, per sample one copy.
void limit(const Sink &sink, int datagrams)
{
    static char datagram[DATAGRAM_LEN];
    const auto *collector = reinterpret_cast<const sockaddr *>(&sink.address);
    int fd = -1;
    for (int i = 0; i < datagrams; i++) {
        for (std::size_t sample = 0; sample < SAMPLES_PER_DATAGRAM; sample++) {
            std::memcpy(datagram + 28 + sample * SAMPLE_LEN + 100, header, sizeof(header));
            // Or the copies are merged into one.
            asm volatile("" : : "r"(datagram) : "memory");
        }
        if (fd != -1)
            close(fd);
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        const int on = 1;
        sockaddr_in local = {};
        local.sin_family = AF_INET;
        socklen_t len = sizeof(local);
        iovec part = {.iov_base = datagram, .iov_len = sizeof(datagram)};
        msghdr message = {};
        message.msg_name = const_cast<sockaddr_in *>(&sink.address);
        message.msg_namelen = sizeof(sink.address);
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
            bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof(local)) != 0 ||
            connect(fd, collector, sizeof(sink.address)) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len) != 0 ||
            sendmsg(fd, &message, 0) != static_cast<ssize_t>(sizeof(datagram)))
            fail("limit program");
    }
    close(fd);
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

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
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
    set_collector(1, "127.0.0.1", ntohs(sink.address.sin_port));
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
