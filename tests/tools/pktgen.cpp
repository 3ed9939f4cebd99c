// pktgen: sends exactly N Ethernet frames out of one interface, for tests that count them at the other end.
//
// Frames are IPv4 or IPv6 with TCP, UDP or ICMP in them, of varied sizes and flows, with valid checksums, from one
// seed: the same options give the same frames. They go through a packet socket in batches, past the interface's
// egress hooks like any other packet. Prints one line of JSON with what was sent. Needs CAP_NET_RAW.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Mac = std::array<std::uint8_t, 6>;

constexpr std::size_t batch_frames = 64;
constexpr std::size_t least_frame = 82;   // the largest headers of any kind, with a tag and some payload
constexpr std::size_t most_frame = 65535; // jumbo frames and what virtual interfaces take

struct Options {
    std::uint64_t count = 0;
    std::string interface;
    Mac dst_mac = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::uint64_t rate = 0; ///< frames a second, 0: as fast as possible
    std::uint64_t seed = 1;
    std::size_t least = least_frame;
    std::size_t most = 1514;
    std::optional<std::uint16_t> vlan;
    std::optional<unsigned> marked; ///< percent of the frames that are marked, by a network or by a port
};

enum Kind : std::size_t { ipv4_tcp, ipv4_udp, ipv4_icmp, ipv6_tcp, ipv6_udp, ipv6_icmp, kinds };

constexpr std::array<std::string_view, kinds> kind_names = {"ipv4_tcp", "ipv4_udp", "ipv4_icmp",
                                                            "ipv6_tcp", "ipv6_udp", "ipv6_icmp"};

constexpr std::uint32_t usual_net = 0xC0000200;  // 192.0.2.0/24
constexpr std::uint32_t marked_net = 0xCB007100; // 203.0.113.0/24
constexpr unsigned marked_port = 443;

/// What tells a frame from the others.
enum class Mark { none, net, port };

/// Appends octets and network-order numbers to a frame.
class Writer
{
public:
    explicit Writer(std::vector<std::uint8_t> &out) : out_(out) {}
    void u8(unsigned value) { out_.push_back(static_cast<std::uint8_t>(value & 0xFF)); }
    void u16(unsigned value)
    {
        u8(value >> 8);
        u8(value);
    }
    void u32(std::uint32_t value)
    {
        u16(value >> 16);
        u16(value & 0xFFFF);
    }
    void bytes(std::span<const std::uint8_t> bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }

private:
    std::vector<std::uint8_t> &out_;
};

/// Sum of 16-bit words as the Internet checksum adds them.
std::uint64_t add_words(std::span<const std::uint8_t> bytes, std::uint64_t sum = 0)
{
    for (std::size_t i = 0; i < bytes.size(); ++i)
        sum += i % 2 == 0 ? static_cast<std::uint64_t>(bytes[i]) << 8 : bytes[i];
    return sum;
}

std::uint16_t checksum_of(std::uint64_t sum)
{
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

void store16(std::vector<std::uint8_t> &frame, std::size_t at, std::uint16_t value)
{
    frame[at] = static_cast<std::uint8_t>(value >> 8);
    frame[at + 1] = static_cast<std::uint8_t>(value & 0xFF);
}

class FrameMaker
{
public:
    FrameMaker(const Options &options, const Mac &src_mac)
        : options_(options), src_mac_(src_mac), random_(options.seed)
    {
    }

    /// Builds the next frame into `frame` and returns its kind.
    Kind make(std::vector<std::uint8_t> &frame)
    {
        const Kind kind = next_kind();
        const std::size_t size = draw(options_.least, options_.most);
        const bool v6 = kind >= ipv6_tcp;
        frame.clear();
        Writer out(frame);
        out.bytes(options_.dst_mac);
        out.bytes(src_mac_);
        if (options_.vlan) {
            out.u16(ETH_P_8021Q);
            out.u16(*options_.vlan);
        }
        out.u16(v6 ? ETH_P_IPV6 : ETH_P_IP);
        const std::size_t packet = size - frame.size();
        std::uint64_t pseudo = 0;
        if (v6)
            pseudo = ipv6_header(frame, protocol_of(kind), packet - 40);
        else
            pseudo = ipv4_header(frame, protocol_of(kind), packet);
        transport(frame, kind, size, pseudo);
        return kind;
    }

    /// Of the frame made last.
    [[nodiscard]] Mark mark() const { return mark_; }

private:
    /// Marked frames are IPv4: half of them of any kind, half of them TCP.
    Kind next_kind()
    {
        mark_ = Mark::none;
        if (!options_.marked || draw(1, 100) > *options_.marked)
            return static_cast<Kind>(draw(0, kinds - 1));
        mark_ = draw(0, 1) == 0 ? Mark::net : Mark::port;
        return mark_ == Mark::port ? ipv4_tcp : static_cast<Kind>(draw(ipv4_tcp, ipv4_icmp));
    }

    std::size_t draw(std::size_t least, std::size_t most)
    {
        // not std::uniform_int_distribution: its results differ between libraries
        return least + static_cast<std::size_t>(random_() % (most - least + 1));
    }

    static unsigned protocol_of(Kind kind)
    {
        constexpr std::array<unsigned, kinds> protocols = {IPPROTO_TCP, IPPROTO_UDP, IPPROTO_ICMP,
                                                           IPPROTO_TCP, IPPROTO_UDP, IPPROTO_ICMPV6};
        return protocols[kind];
    }

    /// Returns the sum over the pseudo-header of the transport's checksum.
    std::uint64_t ipv4_header(std::vector<std::uint8_t> &frame, unsigned protocol, std::size_t length)
    {
        Writer out(frame);
        const std::size_t start = frame.size();
        out.u8(0x45);
        out.u8(static_cast<unsigned>(draw(0, 63) << 2));
        out.u16(static_cast<unsigned>(length));
        out.u16(static_cast<unsigned>(draw(0, 0xFFFF)));
        out.u16(0x4000); // do not fragment
        out.u8(64);
        out.u8(protocol);
        out.u16(0);
        out.u32((mark_ == Mark::net ? marked_net : usual_net) + static_cast<std::uint32_t>(draw(1, 100)));
        out.u32(0xC6336400U + static_cast<std::uint32_t>(draw(101, 200))); // 198.51.100.0/24
        const std::span<const std::uint8_t> header(frame.data() + start, 20);
        store16(frame, start + 10, checksum_of(add_words(header)));
        return add_words(header.subspan(12, 8)) + protocol + (length - 20);
    }

    std::uint64_t ipv6_header(std::vector<std::uint8_t> &frame, unsigned protocol, std::size_t payload)
    {
        Writer out(frame);
        const std::size_t start = frame.size();
        out.u32(0x60000000U | static_cast<std::uint32_t>(draw(0, 0xFFFFF)));
        out.u16(static_cast<unsigned>(payload));
        out.u8(protocol);
        out.u8(64);
        for (const unsigned net : {1U, 2U}) { // 2001:db8:1::/48 to 2001:db8:2::/48
            out.u32(0x20010DB8);
            out.u32(net << 16);
            out.u32(0);
            out.u32(static_cast<std::uint32_t>(draw(1, 100)));
        }
        return add_words(std::span(frame).subspan(start + 8, 32)) + protocol + payload;
    }

    void transport(std::vector<std::uint8_t> &frame, Kind kind, std::size_t size, std::uint64_t pseudo)
    {
        Writer out(frame);
        const std::size_t start = frame.size();
        std::size_t checksum_at = start + 2;
        if (kind == ipv4_tcp || kind == ipv6_tcp) {
            checksum_at = start + 16;
            ports(out);
            out.u32(static_cast<std::uint32_t>(random_()));
            out.u32(static_cast<std::uint32_t>(random_()));
            out.u16(0x5018); // 20 bytes of header; PSH, ACK
            out.u16(64240);
            out.u32(0);
        } else if (kind == ipv4_udp || kind == ipv6_udp) {
            checksum_at = start + 6;
            ports(out);
            out.u16(static_cast<unsigned>(size - start));
            out.u16(0);
        } else {
            out.u8(kind == ipv4_icmp ? 8 : 128); // echo request
            out.u8(0);
            out.u16(0);
            out.u32(static_cast<std::uint32_t>(random_()));
        }
        const std::size_t header_end = frame.size();
        frame.resize(size);
        for (std::size_t i = header_end; i < size; ++i)
            frame[i] = static_cast<std::uint8_t>(i);
        const bool with_pseudo_header = kind != ipv4_icmp;
        std::uint16_t checksum =
            checksum_of(add_words(std::span(frame).subspan(start), with_pseudo_header ? pseudo : 0));
        if (checksum == 0 && (kind == ipv4_udp || kind == ipv6_udp))
            checksum = 0xFFFF; // 0 would mean "none"
        store16(frame, checksum_at, checksum);
    }

    void ports(Writer &out)
    {
        out.u16(static_cast<unsigned>(draw(1024, 65535)));
        const auto port = static_cast<unsigned>(draw(1, 1023));
        if (mark_ == Mark::port)
            out.u16(marked_port);
        else
            out.u16(options_.marked && port == marked_port ? marked_port + 1 : port);
    }

    const Options &options_;
    Mac src_mac_;
    std::mt19937_64 random_;
    Mark mark_ = Mark::none;
};

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// Packet socket bound to an interface.
class Sender
{
public:
    explicit Sender(const std::string &interface) : fd_(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0))
    {
        if (fd_ < 0)
            fail("packet socket");
        ifreq request = {};
        interface.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
        if (::ioctl(fd_, SIOCGIFHWADDR, &request) != 0)
            fail("interface " + interface);
        std::memcpy(mac_.data(), request.ifr_hwaddr.sa_data, mac_.size());
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
        if (::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            fail("interface " + interface + ": bind");
    }
    ~Sender() { ::close(fd_); }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    [[nodiscard]] const Mac &mac() const { return mac_; }

    /// Sends all of them, waiting where the interface's queue is full.
    void send(std::span<mmsghdr> messages)
    {
        while (!messages.empty()) {
            const int sent = ::sendmmsg(fd_, messages.data(), static_cast<unsigned>(messages.size()), 0);
            if (sent > 0) {
                messages = messages.subspan(static_cast<std::size_t>(sent));
                continue;
            }
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
                fail("send");
            pollfd writable = {.fd = fd_, .events = POLLOUT, .revents = 0};
            ::poll(&writable, 1, 1);
        }
    }

private:
    int fd_;
    Mac mac_ = {};
};

struct Report {
    std::array<std::uint64_t, kinds> packets = {};
    std::uint64_t total = 0;
    std::uint64_t bytes = 0;
    std::uint64_t marked_by_net = 0;
    std::uint64_t marked_by_port = 0;
    double seconds = 0;
};

Report generate(const Options &options)
{
    Sender sender(options.interface);
    FrameMaker maker(options, sender.mac());
    std::array<std::vector<std::uint8_t>, batch_frames> frames;
    std::array<iovec, batch_frames> vectors = {};
    std::array<mmsghdr, batch_frames> messages = {};
    Report report;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    // a paced batch lasts a millisecond at most
    const std::uint64_t batch =
        options.rate == 0 ? batch_frames : std::clamp<std::uint64_t>(options.rate / 1000, 1, batch_frames);
    while (report.total < options.count) {
        const auto now_count = static_cast<std::size_t>(std::min(batch, options.count - report.total));
        for (std::size_t i = 0; i < now_count; ++i) {
            ++report.packets[maker.make(frames[i])];
            report.marked_by_net += maker.mark() == Mark::net ? 1 : 0;
            report.marked_by_port += maker.mark() == Mark::port ? 1 : 0;
            vectors[i] = {.iov_base = frames[i].data(), .iov_len = frames[i].size()};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            report.bytes += frames[i].size();
        }
        sender.send(std::span(messages).first(now_count));
        report.total += now_count;
        if (options.rate != 0)
            std::this_thread::sleep_until(
                start + std::chrono::nanoseconds(report.total * 1'000'000'000 / options.rate));
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
}

void print(const Report &report)
{
    std::string line =
        "{\"packets\": " + std::to_string(report.total) + ", \"bytes\": " + std::to_string(report.bytes);
    for (std::size_t kind = 0; kind < kinds; ++kind)
        line += ", \"" + std::string(kind_names[kind]) + "\": " + std::to_string(report.packets[kind]);
    line += ", \"marked_by_net\": " + std::to_string(report.marked_by_net) +
            ", \"marked_by_port\": " + std::to_string(report.marked_by_port);
    line += ", \"seconds\": " + std::to_string(report.seconds) + "}";
    std::puts(line.c_str());
}

constexpr std::string_view usage =
    "usage: pktgen --interface NAME --count N [OPTION]...\n"
    "  --dst-mac XX:XX:XX:XX:XX:XX  destination (default: broadcast)\n"
    "  --rate N                     packets a second; 0: as fast as possible (default)\n"
    "  --seed N                     same seed, same packets (default: 1)\n"
    "  --size-range MIN-MAX         bytes of a frame without FCS, 82 to 65535 (default: 82-1514)\n"
    "  --vlan ID[:PRIORITY]         802.1Q tag of every frame\n"
    "  --marked PERCENT             so many are IPv4 from 203.0.113.0/24, or IPv4 TCP to port 443, half of "
    "them each;\n"
    "                               the others are neither\n";

template <typename Number>
bool number(std::string_view text, Number least, Number most, Number &out)
{
    Number value = {};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most)
        return false;
    out = value;
    return true;
}

bool take_mac(std::string_view text, Options &options)
{
    if (text.size() != 17)
        return false;
    for (std::size_t i = 0; i < options.dst_mac.size(); ++i) {
        const std::string_view octet = text.substr(i * 3, 2);
        const auto [end, error] = std::from_chars(octet.data(), octet.data() + 2, options.dst_mac[i], 16);
        if (error != std::errc() || end != octet.data() + 2 || (i < 5 && text[i * 3 + 2] != ':'))
            return false;
    }
    return true;
}

bool take_size_range(std::string_view text, Options &options)
{
    const std::size_t dash = text.find('-');
    return dash != std::string_view::npos &&
           number<std::size_t>(text.substr(0, dash), least_frame, most_frame, options.least) &&
           number<std::size_t>(text.substr(dash + 1), options.least, most_frame, options.most);
}

bool take_vlan(std::string_view text, Options &options)
{
    const std::size_t colon = text.find(':');
    std::uint16_t id = 0;
    std::uint16_t priority = 0;
    if (!number<std::uint16_t>(text.substr(0, colon), 0, 4095, id))
        return false;
    if (colon != std::string_view::npos && !number<std::uint16_t>(text.substr(colon + 1), 0, 7, priority))
        return false;
    options.vlan = static_cast<std::uint16_t>(priority << 13 | id);
    return true;
}

struct OptionRow {
    std::string_view name;
    bool (*take)(std::string_view value, Options &options);
};

constexpr OptionRow option_table[] = {
    {"--count", [](std::string_view text,
                   Options &options) { return number<std::uint64_t>(text, 1, UINT64_MAX, options.count); }},
    {"--interface",
     [](std::string_view text, Options &options) {
         options.interface = text;
         return !text.empty() && text.size() < IFNAMSIZ;
     }},
    {"--dst-mac", take_mac},
    {"--rate", [](std::string_view text,
                  Options &options) { return number<std::uint64_t>(text, 0, 1'000'000'000, options.rate); }},
    {"--seed", [](std::string_view text,
                  Options &options) { return number<std::uint64_t>(text, 0, UINT64_MAX, options.seed); }},
    {"--size-range", take_size_range},
    {"--vlan", take_vlan},
    {"--marked", [](std::string_view text,
                    Options &options) { return number(text, 0U, 100U, options.marked.emplace()); }},
};

Options parse(std::span<char *> arguments)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string name = arguments[i];
        const auto *const row = std::find_if(std::begin(option_table), std::end(option_table),
                                             [&name](const OptionRow &entry) { return entry.name == name; });
        if (row == std::end(option_table) || i + 1 == arguments.size() ||
            !row->take(arguments[i + 1], options))
            throw std::invalid_argument("option " + name + ": not valid");
    }
    if (options.count == 0 || options.interface.empty())
        throw std::invalid_argument("--count and --interface are needed");
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::fputs(usage.data(), stdout);
        return 0;
    }
    try {
        print(generate(parse(std::span(argv, static_cast<std::size_t>(argc)).subspan(1))));
        return 0;
    } catch (const std::invalid_argument &error) {
        std::fprintf(stderr, "pktgen: %s\n%s", error.what(), usage.data());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pktgen: %s\n", error.what());
    }
    return 1;
}
