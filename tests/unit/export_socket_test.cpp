// Sockets to the collectors: which calls are made, in which order, with which failures tolerated, and what is logged
// and recorded. The played kernel stands in for addresses and failures; the last tests talk over loopback.
#include "export_fixture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace export_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{

/// What a test says about either family.
struct Family {
    const char *test_name;
    const char *name; ///< of the function, in the log
    const char *gap;
    int (*bind_socket)(sflreceiver_t *);
    std::string socket;
    std::string vrf; ///< option, up to its value
    std::string collector;
    std::string own_source;
    std::string global_source;
    std::string interface_source;
    std::string wildcard;
    std::string local; ///< that the kernel chooses
    std::string got_name;
    std::size_t recorded; ///< bytes
    bool logs_vrf;
};

const Family families[] = {
    {.test_name = "ipv4",
     .name = "sflow_receiver_bind_ipv4_socket",
     .gap = "  ",
     .bind_socket = sflow_receiver_bind_ipv4_socket,
     .socket = "socket inet",
     .vrf = "vrf 0/53=",
     .collector = "198.51.100.9",
     .own_source = "192.0.2.11",
     .global_source = "192.0.2.22",
     .interface_source = "192.0.2.33",
     .wildcard = "0.0.0.0",
     .local = "192.0.2.44",
     .got_name = "get socket name success",
     .recorded = 4,
     .logs_vrf = false},
    {.test_name = "ipv6",
     .name = "sflow_receiver_bind_ipv6_socket",
     .gap = " ",
     .bind_socket = sflow_receiver_bind_ipv6_socket,
     .socket = "socket inet6",
     .vrf = "vrf 41/104=",
     .collector = "2001:db8::9",
     .own_source = "2001:db8::11",
     .global_source = "2001:db8::22",
     .interface_source = "2001:db8::33",
     .wildcard = "::",
     .local = "2001:db8::44",
     .got_name = "get socket name success ipv6 addr",
     .recorded = 16,
     .logs_vrf = true},
};

constexpr IFINDEX OWN_INTERFACE = 5;
constexpr IFINDEX GLOBAL_INTERFACE = 6;
constexpr std::uint32_t CID = 2;

class Receiver_bind_socket : public Export, public ::testing::WithParamInterface<Family>
{
protected:
    Receiver_bind_socket() : family(GetParam())
    {
        set_collector(CID, family.collector.c_str());
        play_local_address(family.local);
        log_everything();
        // Foreign bytes, so that what is recorded, what is cleared and what stays can be told apart.
        std::memset(sflow_agent.source_ip.used_address, 0xee, sizeof(sflow_agent.source_ip.used_address));
    }

    int bind_socket()
    {
        sflow_config_wrlock();
        const int ret = family.bind_socket(receiver(CID));
        sflow_config_wrunlock();
        return ret;
    }

    sfladdress_t &collector() { return receiver(CID)->address; }

    void give_own_address()
    {
        collector().src_type = SFLOW_SOURCE_TYPE_ADDRESS;
        collector().src_address = address_value(family.own_source.c_str());
    }
    void give_own_interface()
    {
        collector().src_type = SFLOW_SOURCE_TYPE_INTERFACE;
        collector().ifindex = OWN_INTERFACE;
    }
    void give_global_address()
    {
        sflow_agent.source_ip.cfg_type = SFLOW_SOURCE_TYPE_ADDRESS;
        sflow_agent.source_ip.is_src_cfg = 1;
        (is_ipv4() ? sflow_agent.source_ip.v4_address : sflow_agent.source_ip.v6_address) =
            address_value(family.global_source.c_str());
    }
    void give_global_interface()
    {
        sflow_agent.source_ip.cfg_type = SFLOW_SOURCE_TYPE_INTERFACE;
        sflow_agent.source_ip.is_src_cfg = 1;
        sflow_agent.source_ip.ifindex = GLOBAL_INTERFACE;
    }
    void address_interface(IFINDEX ifx, bool with_address = true)
    {
        fake::Interface interface = {.name = "eth" + std::to_string(ifx)};
        if (with_address)
            (is_ipv4() ? interface.ipv4 : interface.ipv6).push_back(family.interface_source);
        fake::set_interface(ifx, interface);
    }

    [[nodiscard]] bool is_ipv4() const { return family.recorded == 4; }
    [[nodiscard]] std::string at(const std::string &address, int port = 0) const
    {
        return (is_ipv4() ? address : "[" + address + "]") + ":" + std::to_string(port);
    }
    [[nodiscard]] std::string line(const std::string &text, const std::string &gap = " ") const
    {
        return std::string("[SFLOW-EXPT]") + family.name + gap + text + "\n";
    }
    /// The lines after those about socket creation and VRF.
    [[nodiscard]] std::vector<std::string> bind_lines() const
    {
        std::vector<std::string> lines = fake::syslog_texts();
        lines.erase(lines.begin(), lines.begin() + (family.logs_vrf ? 2 : 1));
        return lines;
    }
    /// The recorded bytes are the address, or zero without one; the other bytes are untouched.
    void expect_used_address(const std::string &address) const
    {
        std::uint8_t want[sizeof(sfladdress_value_t)];
        std::memset(want, 0xee, sizeof(want));
        std::memset(want, 0, family.recorded);
        if (!address.empty()) {
            const sfladdress_value_t value = address_value(address.c_str());
            std::memcpy(want, &value, family.recorded);
        }
        EXPECT_THAT(std::vector<std::uint8_t>(want, want + sizeof(want)), ElementsAreArray(used(CID)));
        EXPECT_THAT(used(1), ::testing::Each(0xee)) << "the other collector's";
    }
    void expect_no_used_address_recorded() const { EXPECT_THAT(used(CID), ::testing::Each(0xee)); }
    static std::vector<std::uint8_t> used(std::uint32_t cid)
    {
        std::vector<std::uint8_t> bytes(sizeof(sfladdress_value_t));
        std::memcpy(bytes.data(), &sflow_agent.source_ip.used_address[cid - 1], bytes.size());
        return bytes;
    }

    const Family &family;
};

INSTANTIATE_TEST_SUITE_P(both, Receiver_bind_socket, ::testing::ValuesIn(families),
                         [](const auto &row) { return std::string(row.param.test_name); });

} // namespace

TEST_P(Receiver_bind_socket, without_a_source_connects_and_records_the_kernels_choice)
{
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.wildcard),
                                            "connect " + at(family.collector, 6343), "getsockname"));
    EXPECT_EQ(receiver(CID)->sd, 1000);
    expect_used_address(family.local);
    EXPECT_EQ(fake::syslog_texts()[0], line("create socket success:1000", family.gap));
    EXPECT_THAT(bind_lines(), ElementsAre(line("connect success"), line(family.got_name)));
}

TEST_P(Receiver_bind_socket, closes_the_socket_of_the_datagram_before)
{
    receiver(CID)->sd = 1077;
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(socket_calls()[0], "close");
    EXPECT_EQ(socket_calls()[1], family.socket);
    EXPECT_EQ(receiver(CID)->sd, 1000);
}

TEST_P(Receiver_bind_socket, socket_failure_leaves_no_socket)
{
    receiver(CID)->sd = 1077;
    fail_call("socket", 1, EMFILE);
    EXPECT_EQ(bind_socket(), -1);
    EXPECT_EQ(receiver(CID)->sd, -1);
    EXPECT_THAT(socket_calls(), ElementsAre("close", family.socket));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre(line("create socket fail", family.gap)));
    expect_no_used_address_recorded();
}

TEST_P(Receiver_bind_socket, vrf_option_follows_reuse_and_comes_before_any_bind)
{
    collector().vrf_index = 17;
    collector().mgmt_index = 3;
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(),
                ElementsAre(family.socket, "reuse=1", family.vrf + "17", "bind " + at(family.wildcard),
                            "connect " + at(family.collector, 6343), "getsockname"));
}

TEST_P(Receiver_bind_socket, vrf_index_0_sets_no_vrf_option)
{
    collector().mgmt_index = 3;
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(socket_calls()[1], "reuse=1");
    EXPECT_EQ(socket_calls()[2], "bind " + at(family.wildcard));
}

TEST_P(Receiver_bind_socket, logs_the_vrf_with_ipv6_only)
{
    collector().vrf_index = 17;
    bind_socket();
    const std::vector<std::string> lines = fake::syslog_texts();
    if (family.logs_vrf)
        EXPECT_EQ(lines[1], line("vrf id:17"));
    else
        EXPECT_THAT(lines, Not(Contains(line("vrf id:17"))));
}

TEST_P(Receiver_bind_socket, refused_options_are_logged_and_tolerated)
{
    collector().vrf_index = 17;
    fail_call("setsockopt", 1, EPERM);
    fail_call("setsockopt", 2, ENOPROTOOPT);
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(receiver(CID)->sd, 1000);
    const std::vector<std::string> lines = fake::syslog_texts();
    EXPECT_THAT(lines, Contains(line("set sock opt fail:Operation not permitted")));
    EXPECT_THAT(lines, Contains(line("set sock vrf opt fail:Protocol not available")));
}

TEST_P(Receiver_bind_socket, vrf_option_that_the_kernel_knows_is_enough)
{
    collector().vrf_index = 17;
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(fake::vrf_sockets(), IsEmpty());
}

TEST_P(Receiver_bind_socket, without_the_vrf_option_the_platform_binds_the_socket_to_the_vrf)
{
    collector().vrf_index = 17;
    fail_call("setsockopt", 2, ENOPROTOOPT);
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(fake::vrf_sockets(), ElementsAre(fake::VrfSocket{1000, 17}));
}

TEST_P(Receiver_bind_socket, vrf_option_refused_for_another_reason_is_left_at_that)
{
    collector().vrf_index = 17;
    fail_call("setsockopt", 2, EPERM);
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(fake::vrf_sockets(), IsEmpty());
}

TEST_P(Receiver_bind_socket,
       socket_that_the_platform_cannot_bind_to_the_vrf_does_not_leak_into_the_default_vrf)
{
    collector().vrf_index = 17;
    fail_call("setsockopt", 2, ENOPROTOOPT);
    fake::fail_next("lsm_vrf_bind_socket");
    EXPECT_EQ(bind_socket(), -1);
    EXPECT_EQ(receiver(CID)->sd, -1);
    EXPECT_THAT(socket_calls(), Not(Contains(StartsWith("bind "))));
    EXPECT_THAT(fake::syslog_texts(), Contains(line("bind socket fail:-1, No such device")));
}

TEST_P(Receiver_bind_socket, prefers_the_collectors_own_address)
{
    give_own_address();
    give_global_address();
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.own_source)));
    expect_used_address(family.own_source);
    EXPECT_THAT(bind_lines(), ElementsAre(line("bind collector source address, ret 0", "  "),
                                          line("source address bind success", "  ")));
}

TEST_P(Receiver_bind_socket, uses_the_first_address_of_the_collectors_own_interface)
{
    give_own_interface();
    address_interface(OWN_INTERFACE);
    give_global_address();
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.interface_source)));
    expect_used_address(family.interface_source);
    EXPECT_THAT(bind_lines(), ElementsAre(line("bind collector source interface, ret 0", "  "),
                                          line("source address bind success", "  ")));
}

TEST_P(Receiver_bind_socket, own_interface_without_address_falls_back_to_the_global_address_unconnected)
{
    give_own_interface();
    address_interface(OWN_INTERFACE, false);
    give_global_address();
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.global_source)));
    expect_used_address(family.global_source);
    EXPECT_THAT(bind_lines(), ElementsAre(line("bind collector source interface, get address failed", "  "),
                                          line("bind source address, ret 0", "  "),
                                          line("source address bind success", "  ")));
}

TEST_P(Receiver_bind_socket, own_source_that_cannot_be_bound_falls_back_to_the_global_interface)
{
    address_interface(GLOBAL_INTERFACE);
    give_global_interface();
    const struct {
        bool by_interface;
        const char *text;
    } rows[] = {{false, "bind collector source address, ret -1"},
                {true, "bind collector source interface, ret -1"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        reset_syscalls();
        fake::forget_syslog();
        give_own_address();
        if (row.by_interface) {
            give_own_interface();
            address_interface(OWN_INTERFACE);
        }
        fail_call("bind", 1, EADDRNOTAVAIL);
        EXPECT_EQ(bind_socket(), 0);
        EXPECT_EQ(socket_calls().back(), "bind " + at(family.interface_source));
        expect_used_address(family.interface_source);
        EXPECT_THAT(fake::syslog_texts(), Contains(line(row.text, "  ")));
        EXPECT_THAT(fake::syslog_texts(), Contains(line("bind source interface, ret 0", "  ")));
    }
}

TEST_P(Receiver_bind_socket, no_usable_source_falls_back_to_the_routing_table)
{
    give_own_address();
    give_global_address();
    fail_call("bind", 1, EADDRNOTAVAIL);
    fail_call("bind", 2, EADDRNOTAVAIL);
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.own_source),
                                            "bind " + at(family.global_source), "bind " + at(family.wildcard),
                                            "connect " + at(family.collector, 6343), "getsockname"));
    expect_used_address(family.local);
    EXPECT_THAT(fake::syslog_texts(), Contains(line("bind source address, ret -1", "  ")));
}

TEST_P(Receiver_bind_socket, global_interface_without_address_falls_back_to_the_routing_table)
{
    give_global_interface();
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(socket_calls()[2], "bind " + at(family.wildcard));
    EXPECT_THAT(bind_lines(), ElementsAre(line("bind source interface, get address failed", "  "),
                                          line("connect success"), line(family.got_name)));
}

TEST_P(Receiver_bind_socket, a_global_source_that_is_not_in_force_is_not_used)
{
    give_global_address();
    sflow_agent.source_ip.is_src_cfg = 0;
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(socket_calls()[2], "bind " + at(family.wildcard));
}

TEST_P(Receiver_bind_socket, global_address_of_the_other_family_binds_to_the_wildcard_as_if_it_were_a_source)
{
    give_global_address();
    (is_ipv4() ? sflow_agent.source_ip.v4_address : sflow_agent.source_ip.v6_address) =
        address_value("0.0.0.0");
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_THAT(socket_calls(), ElementsAre(family.socket, "reuse=1", "bind " + at(family.wildcard)));
    expect_used_address(family.wildcard);
}

TEST_P(Receiver_bind_socket, wildcard_that_cannot_be_bound_leaves_no_socket)
{
    fail_call("bind", 1, EADDRINUSE);
    EXPECT_EQ(bind_socket(), -1);
    EXPECT_EQ(receiver(CID)->sd, -1);
    EXPECT_THAT(socket_calls(),
                ElementsAre(family.socket, "reuse=1", "bind " + at(family.wildcard), "close"));
    EXPECT_THAT(bind_lines(), ElementsAre(line("bind socket fail:-1, Address already in use")));
    expect_no_used_address_recorded();
}

TEST_P(Receiver_bind_socket, unreachable_collector_leaves_no_socket_and_clears_the_recorded_address)
{
    fail_call("connect", 1, ENETUNREACH);
    EXPECT_EQ(bind_socket(), -1);
    EXPECT_EQ(receiver(CID)->sd, -1);
    EXPECT_EQ(socket_calls().back(), "close");
    expect_used_address("");
    EXPECT_THAT(bind_lines(), ElementsAre(line("connect fail:Network is unreachable")));
}

TEST_P(Receiver_bind_socket, unknown_local_address_still_leaves_a_usable_socket)
{
    fail_call("getsockname", 1, ENOBUFS);
    EXPECT_EQ(bind_socket(), 0);
    EXPECT_EQ(receiver(CID)->sd, 1000);
    expect_no_used_address_recorded();
    EXPECT_THAT(bind_lines(),
                ElementsAre(line("connect success"), line("get socket name fail:No buffer space available")));
}

TEST_P(Receiver_bind_socket, says_nothing_while_the_switch_is_off)
{
    sflow_debug_export = false;
    fail_call("bind", 1, EADDRINUSE);
    EXPECT_EQ(bind_socket(), -1);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

// ---- Socket slot ------------------------------------------------------------------------------------------

using Socket_id = Export;

TEST_F(Socket_id, null_is_ignored)
{
    sflow_init_socket_id(nullptr);
    sflow_get_socket_id(nullptr, AF_INET);
    sflow_close_socket(nullptr);
    EXPECT_THAT(socket_calls(), IsEmpty());
}

TEST_F(Socket_id, failure_is_stored_as_it_is)
{
    receiver(1)->sd = 5;
    fail_call("socket", 1, EMFILE);
    sflow_get_socket_id(receiver(1), AF_INET6);
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_THAT(socket_calls(), ElementsAre("socket inet6"));
}

TEST_F(Socket_id, closing_twice_closes_once)
{
    sflow_get_socket_id(receiver(1), AF_INET);
    EXPECT_EQ(receiver(1)->sd, 1000);
    sflow_close_socket(receiver(1));
    sflow_close_socket(receiver(1));
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_THAT(socket_calls(), ElementsAre("socket inet", "close"));
}

TEST_F(Socket_id, initialising_does_not_close)
{
    receiver(1)->sd = 1000;
    sflow_init_socket_id(receiver(1));
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_THAT(socket_calls(), IsEmpty());
}

// ---- Loopback ---------------------------------------------------------------------------------------------

namespace
{

/// A UDP socket on loopback that plays the collector. `port` is 0 when the family is not available here.
class Sink
{
public:
    explicit Sink(int family) : fd_(socket(family, SOCK_DGRAM, 0))
    {
        sockaddr_storage address = {};
        socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (family == AF_INET) {
            sockaddr_in v4 = {};
            v4.sin_family = AF_INET;
            v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            std::memcpy(&address, &v4, sizeof(v4));
        } else {
            sockaddr_in6 v6 = {};
            v6.sin6_family = AF_INET6;
            v6.sin6_addr = in6addr_loopback;
            std::memcpy(&address, &v6, sizeof(v6));
        }
        auto *any = reinterpret_cast<sockaddr *>(&address);
        if (bind(fd_, any, len) != 0 || getsockname(fd_, any, &len) != 0)
            return;
        in_port_t network_order = 0; // at the same place in both families
        std::memcpy(&network_order, reinterpret_cast<const char *>(&address) + 2, sizeof(network_order));
        port = ntohs(network_order);
    }
    ~Sink() { close(fd_); }
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    /// The next datagram and the address it came from.
    std::pair<std::vector<std::uint8_t>, std::string> take() const
    {
        std::vector<std::uint8_t> bytes(10000);
        sockaddr_storage from = {};
        socklen_t len = sizeof(from);
        const ssize_t got = recvfrom(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr *>(&from), &len);
        if (got < 0)
            return {};
        bytes.resize(static_cast<std::size_t>(got));
        char text[INET6_ADDRSTRLEN] = "";
        const std::size_t offset = from.ss_family == AF_INET ? 4 : 8;
        inet_ntop(from.ss_family, reinterpret_cast<const char *>(&from) + offset, text, sizeof(text));
        return {bytes, text};
    }

    std::uint16_t port = 0;

private:
    int fd_;
};

class Receiver_loopback : public Export
{
protected:
    Receiver_loopback()
    {
        reset_syscalls(Kernel::real);
        set_agent_address("192.0.2.1");
        port = add_interface(7, 1, 1);
    }
    ~Receiver_loopback() override { sflow_close_socket(receiver(1)); }

    void export_one_sample()
    {
        sflow_config_wrlock();
        sflow_receiver_write_flowsample("abcd", 4, {.source_id = 7}, port);
        sflow_receiver_send_all_receiver_sample();
        sflow_config_wrunlock();
    }
    sflow_intf_config_t *port;
};

} // namespace

TEST_F(Receiver_loopback, ipv4_datagram_arrives_from_the_address_recorded)
{
    const Sink sink(AF_INET);
    ASSERT_NE(sink.port, 0);
    set_collector(1, "127.0.0.1", sink.port);
    export_one_sample();
    const auto [bytes, from] = sink.take();
    EXPECT_EQ(bytes.size(), 132U);
    EXPECT_EQ(from, "127.0.0.1");
    EXPECT_EQ(sflow_agent.source_ip.used_address[0].ip_v4, ipv4("127.0.0.1"));
    EXPECT_EQ(sflow_statis.sflow_export_pkt_num, 1U);
}

TEST_F(Receiver_loopback, ipv4_datagram_leaves_from_the_collectors_own_source)
{
    const Sink sink(AF_INET);
    ASSERT_NE(sink.port, 0);
    set_collector(1, "127.0.0.1", sink.port);
    receiver(1)->address.src_type = SFLOW_SOURCE_TYPE_ADDRESS;
    receiver(1)->address.src_address = address_value("127.0.0.2");
    export_one_sample();
    EXPECT_EQ(sink.take().second, "127.0.0.2");
    EXPECT_EQ(sflow_agent.source_ip.used_address[0].ip_v4, ipv4("127.0.0.2"));
}

TEST_F(Receiver_loopback, a_source_that_is_not_ours_falls_back_to_the_kernels_choice)
{
    const Sink sink(AF_INET);
    ASSERT_NE(sink.port, 0);
    set_collector(1, "127.0.0.1", sink.port);
    receiver(1)->address.src_type = SFLOW_SOURCE_TYPE_ADDRESS;
    receiver(1)->address.src_address = address_value("192.0.2.77");
    export_one_sample();
    EXPECT_EQ(sink.take().second, "127.0.0.1");
    EXPECT_EQ(sflow_agent.source_ip.used_address[0].ip_v4, ipv4("127.0.0.1"));
}

TEST_F(Receiver_loopback, ipv6_datagram_arrives_from_the_address_recorded)
{
    const Sink sink(AF_INET6);
    if (sink.port == 0)
        GTEST_SKIP() << "no IPv6 loopback address here";
    set_collector(1, "::1", sink.port);
    export_one_sample();
    const auto [bytes, from] = sink.take();
    EXPECT_EQ(bytes.size(), 132U);
    EXPECT_EQ(from, "::1");
    const sfladdress_value_t loopback = address_value("::1");
    EXPECT_EQ(std::memcmp(&sflow_agent.source_ip.used_address[0], &loopback, 16), 0);
}

TEST_F(Receiver_loopback, every_datagram_has_a_socket_of_its_own_and_one_stays_open)
{
    const Sink sink(AF_INET);
    ASSERT_NE(sink.port, 0);
    set_collector(1, "127.0.0.1", sink.port);
    reset_syscalls(Kernel::real);
    export_one_sample();
    export_one_sample();
    const auto count = [](const char *call) {
        return std::count(socket_calls().begin(), socket_calls().end(), call);
    };
    EXPECT_EQ(count("socket inet"), 2);
    EXPECT_EQ(count("close"), 1);
    EXPECT_NE(receiver(1)->sd, -1);
}
