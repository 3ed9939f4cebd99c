// Feeds the daemon with what a sampling service may send: packets on the domain socket, through the server's walk, the
// real handlers, the flow encoder and the counter dispatcher. Whatever comes, nothing is read beyond a packet, every
// record is counted, the daemon's own records are well-formed and its interface list stays in order.
//
// An input is a sequence of packets, each with its length before it (two bytes, low byte first). A record that claims
// less than a header's length ends its packet: the walk never gets past a length of 0, by contract with the peer.
#include "must.h"

#include "fake_platform.h"

#include "sflow_acl.h"
#include "sflow_agent.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_poller.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

/// Interfaces that exist; the first two are sampled and polled when an input starts.
constexpr IFINDEX INTERFACES[] = {1, 2, 3};
constexpr std::uint32_t HANDLED[] = {0x201, 0x202, 0x203, 0x204, 0x205, 0x501, 0x1003};

/// What the daemon may send, with the length of each.
const std::map<std::uint32_t, std::uint32_t> SENT = {{0x101, 16}, {0x102, 132}, {0x105, 20}, {0x106, 12},
                                                     {0x1001, 8}, {0x1002, 8},  {0x1004, 8}, {0x2001, 16}};

/// Records of a packet and how many of them have no handler; `len` is cut where the walk would not advance.
struct Walk {
    std::size_t len = 0;
    std::uint32_t records = 0;
    std::uint32_t unknown = 0;
};

sflow_msg_head_t head_at(const std::uint8_t *data)
{
    sflow_msg_head_t head;
    std::memcpy(&head, data, sizeof(head));
    return head;
}

Walk walk_of(const std::uint8_t *data, std::size_t len)
{
    Walk walk;
    while (len - walk.len >= sizeof(sflow_msg_head_t)) {
        const sflow_msg_head_t head = head_at(data + walk.len);
        if (head.len < sizeof(head))
            return walk;
        if (head.len > len - walk.len)
            break;
        ++walk.records;
        if (std::find(std::begin(HANDLED), std::end(HANDLED), head.type) == std::end(HANDLED))
            ++walk.unknown;
        walk.len += head.len;
    }
    walk.len = len; // a tail that is ignored belongs to the packet
    return walk;
}

void start_once()
{
    static char directory[] = "/tmp/domain_fuzz-XXXXXX";
    MUST(mkdtemp(directory) != nullptr);
    MUST(setenv("TMPDIR", directory, 1) == 0);
    MUST(std::filesystem::create_directory(std::string(directory) + "/sflow"));
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    });
    MUST(std::freopen("/dev/null", "w", stdout) != nullptr); // refused attachments are printed
    fake::reset();
    for (const IFINDEX ifx : INTERFACES)
        fake::set_interface(ifx, {.name = "eth" + std::to_string(ifx)});
    fake::add_acl(77, "web");
    MUST(sflow_acl_init(kx_thread_master_create()) == 0);
    MUST(sflow_lib_server_init() == 0);
    MUST(sflow_config_register() == 0);
    sflow_debug_all = true; // the texts are part of what is fed
}

/// The daemon as an operator has configured it: an agent address, one collector, two interfaces.
void start_input() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    MUST(sflow_agent_init(&sflow_agent) == 0);
    sflow_agent.agent_ip.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
    sflow_agent.agent_ip.type = SFLOW_ADDRESS_TYPE_IPV4;
    sflow_agent.agent_ip.address.ip_v4 = htonl(INADDR_LOOPBACK);
    sfladdress_t collector;
    std::memset(&collector, 0, sizeof(collector));
    collector.type = SFLOW_ADDRESS_TYPE_IPV4;
    collector.address.ip_v4 = htonl(INADDR_LOOPBACK);
    sflow_config_wrlock();
    MUST(sflow_receiver_set_collector(1, &collector, 6343) == 0);
    for (const IFINDEX ifx : {INTERFACES[0], INTERFACES[1]}) {
        sflow_intf_config_t *intf = sflow_add_intf_config(ifx);
        MUST(intf != nullptr);
        intf->enable = SFLOW_INGRESS;
        intf->cid = 1;
        intf->fid = 1;
    }
    sflow_config_wrunlock();
    sflow_lib_server_cb.client_sd = 1000; // messages are queued, and looked at there
}

void check_queue() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    sflow_list_for_each<sflow_lib_msg_t>(&sflow_lib_server_cb.send_list, [](sflow_lib_msg_t *node) {
        const sflow_msg_head_t head = head_at(reinterpret_cast<const std::uint8_t *>(node->msg));
        const auto row = SENT.find(head.type);
        MUST(row != SENT.end() && row->second == head.len);
        std::free(node);
    });
    sflow_list_init(&sflow_lib_server_cb.send_list);
    sflow_lib_server_cb.send_len = 0;
}

void check_interfaces()
{
    sflow_config_rdlock();
    IFINDEX previous = 0;
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [&](sflow_intf_config_t *intf) {
        sflow_config_held();
        MUST(intf->ifx >= previous);
        previous = intf->ifx;
        MUST(sflow_get_intf_config(intf->ifx) == intf);
        for (const acl_info_t &slot : intf->acl)
            MUST(memchr(slot.enable_acl_name, '\0', sizeof(slot.enable_acl_name)) != nullptr);
    });
    sflow_config_rdunlock();
}

/// Applies what the handlers queued for the dispatcher.
void dispatch() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (!sflow_list_empty(&sflow_agent.msg_list))
        sflow_msg_dispatch();
    MUST(sflow_list_empty(&sflow_agent.msg_list));
}

void forget_counters()
{
    sflow_config_wrlock();
    while (!sflow_list_empty(&sflow_counter_list))
        sflow_poller_del_counter(sflow_list_entry<sflow_counter_node_t>(sflow_counter_list.next));
    sflow_config_wrunlock();
}

void feed(const std::uint8_t *data, std::size_t len)
{
    const Walk walk = walk_of(data, len);
    // On the heap and exactly as long: a read beyond it is an error.
    const std::unique_ptr<char[]> packet(new char[walk.len]);
    std::memcpy(packet.get(), data, walk.len);
    const std::uint32_t records = sflow_lib_server_cb.recv_message_num;
    const std::uint32_t errors = sflow_lib_server_cb.recv_error_num;
    sflow_lib_server_deal_recv_msg(packet.get(), static_cast<std::uint32_t>(walk.len));
    MUST(sflow_lib_server_cb.recv_message_num - records == walk.records);
    MUST(sflow_lib_server_cb.recv_error_num - errors == walk.unknown);
    check_queue();
    check_interfaces();
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int __wrap_socket(int domain, int type, int protocol);
int wrap_create_thread(pthread_t *, void *(*)(void *),
                       void *) __asm__("__wrap__Z27sflow_create_depatch_threadPmPFPvS0_ES0_");

/// No datagram leaves: a collector without a socket loses its samples.
extern "C" int __wrap_socket(int, int, int)
{
    errno = EMFILE;
    return -1;
}

int wrap_create_thread(pthread_t *, void *(*)(void *), void *)
{
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const bool started = (start_once(), true);
    MUST(started);
    start_input();
    while (size >= 2) {
        const std::size_t claimed = data[0] | static_cast<std::size_t>(data[1]) << 8;
        data += 2;
        size -= 2;
        const std::size_t len = std::min({claimed, size, static_cast<std::size_t>(SFLOW_MSG_MAX_LEN)});
        feed(data, len);
        data += len;
        size -= len;
    }
    dispatch();
    forget_counters();
    fake::forget_syslog();
    fake::forget_calls();
    fake::forget_checkpoints();
    return 0;
}
