// Prints what the interface manager tells its client: events as they come, and answers to questions on
// standard input, one line each. For tests that change interfaces in a network namespace and look at what
// arrives.
//
//   event STACK TEXT      e.g. "event 7 ipv4 5 add 10.0.0.1/24"; "event 0 sync N" ends the initial data
//   if NAME key=value …   answer to "show NAME" and "ifx IFINDEX"; a line an interface to "walk"
//   vrf NAME INDEX        answer to "vrf NAME" and "vrfname INDEX"
//   speed NAME A B        answer to "speed NAME": by ethtool netlink, by ioctl
//   ok WHAT | none WHAT   answer to "default NAME" and to questions about what does not exist
//
// Netlink can be made to fail, as it does on a system in trouble: after SIGUSR1 the next changes that are received are
// thrown away with all that has arrived behind them, and reported as an overrun; "refuse N" lets the next N reads of a
// dump fail.
//
// "quit", or the end of the input, ends the program.
#include "lsm_test_events.h"

#include "interface_manager/lsm_ethtool.h"
#include "platform/lsm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/socket.h>
#include <optional>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using namespace platform::lsm;

volatile std::sig_atomic_t lose_changes = 0;
int refuse_dumps = 0;

int option_of(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

bool is_route(int fd)
{
    return option_of(fd, SO_DOMAIN) == AF_NETLINK && option_of(fd, SO_PROTOCOL) == NETLINK_ROUTE;
}

void throw_away(int fd)
{
    std::array<char, 65536> buffer;
    while (recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
}

template <typename Record>
Payload payload_from(const char *data)
{
    Record record{};
    std::memcpy(&record, data, sizeof record);
    return record;
}

Payload payload_of(int event, const char *data)
{
    switch (event) {
    case INTF_EVENT_CREATE_INDEX:
        return payload_from<intf_msg_create_t>(data);
    case INTF_EVENT_DESTROY_INDEX:
    case INTF_EVENT_DEFAULT_INDEX:
        return payload_from<intf_msg_destroy_t>(data);
    case INTF_EVENT_ADMIN_STATE_INDEX:
    case INTF_EVENT_LINK_STATE_INDEX:
        return payload_from<intf_msg_state_t>(data);
    case INTF_EVENT_AGG_INDEX:
        return payload_from<intf_msg_ap_t>(data);
    case INTF_EVENT_IPV4:
        return payload_from<intf_msg_ip_t>(data);
    case INTF_EVENT_IPV6:
        return payload_from<intf_msg_ipv6_t>(data);
    case INTF_EVENT_VRF:
        return payload_from<intf_msg_vrf_t>(data);
    case INTF_EVENT_IF_ETH_INFO:
        return payload_from<intf_msg_eth_info_t>(data);
    default:
        return payload_from<intf_msg_sync_t>(data);
    }
}

/// The end of the initial data comes once for both stacks: they have different handlers here, so it is shown
/// for one.
template <int Stack>
int print_event(int event, char *data, int)
{
    if (event == INTF_EVENT_SYNC_DATA_OVER && Stack != LSM_IF_STACK_TCPIP) {
        return 0;
    }
    const int stack = event == INTF_EVENT_SYNC_DATA_OVER ? 0 : Stack;
    const std::string text = lsm_test::describe(
        Event{.number = event, .stacks = 0, .if_type = 0, .payload = payload_of(event, data)});
    std::cout << "event " << stack << text << std::endl;
    return 0;
}

std::string ip_text(int family, const void *bytes)
{
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    inet_ntop(family, bytes, buffer.data(), buffer.size());
    return buffer.data();
}

void print_addresses(const lsm_if_record_t &record)
{
    std::cout << " addrs=";
    const char *separator = "";
    for (const lsm_if_addr_t &address : record.addrs) {
        std::cout << separator << ip_text(address.family, address.addr) << "/" << address.prefix_len
                  << (address.secondary ? "s" : "") << (address.usable ? "" : "!");
        separator = ",";
    }
}

void print_block(IFINDEX ifx)
{
    const lsm_intfcb_t *block = lsm_get_intfcb(ifx);
    std::cout << " admin=" << int{block->admin_state} << " line=" << int{block->line_state} << " speed=";
    if (block->eth_info == nullptr) {
        std::cout << "none";
    } else {
        std::cout << block->eth_info->speed << "/" << int{block->eth_info->duplex};
    }
    lsm_put_intfcb(block);
}

void print_interface(const lsm_if_record_t &record)
{
    const IFINDEX ifx = record.ifx;
    std::array<char, LSM_IF_NAME_LEN + 1> name{};
    lsm_if_get_name(ifx, name.data(), LSM_IF_NAME_LEN);
    std::cout << "if " << name.data() << " ifx=" << ifx << " type=" << lsm_if_get_type(ifx) << std::hex
              << " kind=0x" << lsm_if_get_kind_mask(ifx) << " flags=0x" << lsm_if_get_flags(ifx) << std::dec
              << " sub=" << lsm_if_is_subinterface(ifx) << " top=" << lsm_if_get_top_stack(ifx)
              << " main=" << lsm_if_get_main_index(ifx) << " master=" << record.master
              << " vrf=" << lsm_if_get_vrf(ifx) << " phys=" << (lsm_get_realtime_version(ifx, 3) != 0)
              << " tcpip=" << (lsm_get_realtime_version(ifx, 7) != 0) << " mtu=" << record.mtu;
    print_block(ifx);
    const u_int32_t ip = lsm_netif_get_first_ip_by_index(ifx);
    std::array<u_int8_t, 16> ip6{};
    std::cout << " ip=" << (ip != 0 ? ip_text(AF_INET, &ip) : "none") << " ip6="
              << (lsm_ipv6_get_first_addr(ifx, ip6.data()) == 1 ? ip_text(AF_INET6, ip6.data()) : "none");
    print_addresses(record);
    std::cout << std::endl;
}

void show(IFINDEX ifx, const std::string &what)
{
    const std::vector<lsm_if_record_t> records = lsm_if_walk();
    const auto it = std::find_if(records.begin(), records.end(), [&](const auto &r) { return r.ifx == ifx; });
    if (it == records.end()) {
        std::cout << "none " << what << std::endl;
        return;
    }
    print_interface(*it);
}

void show_vrf(int index, const std::string &what)
{
    std::array<char, LSM_VRF_NAME_LEN> name{};
    if (index < 0 || lsm_vrf_index2name(index, name.data(), LSM_VRF_NAME_LEN) != 0) {
        std::cout << "none " << what << std::endl;
        return;
    }
    std::cout << "vrf " << name.data() << " " << index << std::endl;
}

std::string eth_text(const std::optional<EthInfo> &eth)
{
    return eth ? std::to_string(eth->speed) + "/" + std::to_string(eth->duplex) : "none";
}

/// Both ways of asking, whatever the manager has kept.
void show_speed(const std::string &name)
{
    EthtoolReader by_netlink;
    by_netlink.open();
    EthtoolReader by_ioctl;
    const IFINDEX ifx = lsm_if_get_index(name.c_str());
    std::cout << "speed " << name << " " << eth_text(by_netlink.query(ifx, name)) << " "
              << eth_text(by_ioctl.query(ifx, name)) << std::endl;
}

/// False to end the program.
bool obey(const std::string &line)
{
    std::istringstream words(line);
    std::string command;
    std::string what;
    words >> command >> what;
    if (command == "quit") {
        return false;
    }
    if (command == "walk") {
        for (const lsm_if_record_t &record : lsm_if_walk()) {
            print_interface(record);
        }
        std::cout << "ok walk" << std::endl;
    } else if (command == "show") {
        show(lsm_if_get_index(what.c_str()), what);
    } else if (command == "ifx") {
        show(static_cast<IFINDEX>(std::stoul(what)), what);
    } else if (command == "vrf") {
        show_vrf(lsm_vrf_name2index(what.c_str()), what);
    } else if (command == "vrfname") {
        show_vrf(std::stoi(what), what);
    } else if (command == "speed") {
        show_speed(what);
    } else if (command == "refuse") {
        refuse_dumps = std::stoi(what);
        std::cout << "ok refuse" << std::endl;
    } else if (command == "default") {
        const bool raised = lsm_raise_default_event(lsm_if_get_index(what.c_str())) == 0;
        std::cout << (raised ? "ok " : "none ") << what << std::endl;
    } else {
        std::cout << "none " << line << std::endl;
    }
    return true;
}

bool running = true;
std::string input;

int on_input(kx_thread_t *thread)
{
    std::array<char, 4096> buffer;
    const ssize_t count = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count <= 0) {
        running = false;
        return 0;
    }
    input.append(buffer.data(), static_cast<std::size_t>(count));
    for (std::size_t end = 0; running && (end = input.find('\n')) != std::string::npos;) {
        const std::string line = input.substr(0, end);
        input.erase(0, end + 1);
        running = obey(line);
    }
    if (running) {
        kx_thread_add_read(thread->master, on_input, nullptr, STDIN_FILENO);
    }
    return 0;
}

bool start(kx_thread_master_t *master)
{
    lsm_iftype_filter all{};
    std::fill(std::begin(all.bits), std::end(all.bits), u_int8_t{0xFF});
    lsm_msg_set set;
    lsm_msgset_zero(&set);
    for (int event = 0; event < INTF_EVENT_SYNC_DATA_OVER; ++event) {
        lsm_msgset_set(event, &set);
    }
    lsm_agent_set_connect_callback([] {
        if (lsm_client_reg_event_over() != 0) {
            std::cerr << "registration not completed" << std::endl;
            running = false;
        }
    });
    return lsm_client_set_mode(LSM_CLIENT_MODE_DUPLICATOR) == 0 &&
           lsm_client_reg_event_ex(LSM_IF_STACK_PHYSICAL, &all, &set) == 0 &&
           lsm_reg_msg_handler_ex(LSM_IF_STACK_PHYSICAL, print_event<LSM_IF_STACK_PHYSICAL>) == 0 &&
           lsm_client_reg_event_ex(LSM_IF_STACK_TCPIP, &all, &set) == 0 &&
           lsm_reg_msg_handler_ex(LSM_IF_STACK_TCPIP, print_event<LSM_IF_STACK_TCPIP>) == 0 &&
           lsm_agent_init("lsm_probe", master) == 0;
}

} // namespace

// The linker's --wrap leads the interface manager's reads here. Changes are read without waiting, dumps are waited for.
extern "C" int __real_nl_recvmsgs_default(nl_sock *sock);
extern "C" int __wrap_nl_recvmsgs_default(nl_sock *sock)
{
    const int fd = nl_socket_get_fd(sock);
    if (!is_route(fd)) {
        return __real_nl_recvmsgs_default(sock);
    }
    if ((fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) {
        return refuse_dumps > 0 && refuse_dumps-- > 0 ? -NLE_NOMEM : __real_nl_recvmsgs_default(sock);
    }
    if (lose_changes == 0) {
        return __real_nl_recvmsgs_default(sock);
    }
    lose_changes = 0;
    throw_away(fd);
    return -NLE_NOMEM; // what libnl makes of ENOBUFS
}

int main()
{
    std::signal(SIGUSR1, [](int) { lose_changes = 1; });
    kx_thread_master_t *master = kx_thread_master_create();
    if (master == nullptr || !start(master)) {
        std::perror("lsm_probe: interface manager");
        return 1;
    }
    kx_thread_add_read(master, on_input, nullptr, STDIN_FILENO);
    kx_thread_t task{};
    while (running && kx_thread_fetch(master, &task) != nullptr) {
        kx_thread_call(&task);
    }
    kx_thread_master_finish(master);
    return 0;
}
