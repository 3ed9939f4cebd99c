#include "lsm_netlink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/rtnetlink.h>
#include <netlink/addr.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/socket.h>
#include <sys/socket.h>
#include <unordered_map>
#include <utility>

namespace platform::lsm
{
namespace
{

// Some thousand notifications; a flood that exceeds it costs a dump.
constexpr int RECEIVE_BUFFER_BYTES = 4 * 1024 * 1024;
constexpr int DUMP_ATTEMPTS = 20;
constexpr int DISCARD_LIMIT = 1'000'000;

template <typename Array>
void copy_address(const nl_addr *from, Array &to)
{
    if (from == nullptr) {
        return;
    }
    const auto length = std::min<std::size_t>(nl_addr_get_len(from), to.size());
    std::memcpy(to.data(), nl_addr_get_binary_addr(from), length);
}

std::string text(const char *value)
{
    return value != nullptr ? value : "";
}

Link to_link(rtnl_link *object)
{
    Link link;
    link.ifx = static_cast<IFINDEX>(rtnl_link_get_ifindex(object));
    link.name = text(rtnl_link_get_name(object));
    link.kind = text(rtnl_link_get_type(object));
    link.slave_kind = text(rtnl_link_get_slave_type(object));
    link.hw_type = rtnl_link_get_arptype(object);
    link.flags = rtnl_link_get_flags(object);
    link.oper_state = rtnl_link_get_operstate(object);
    link.mtu = rtnl_link_get_mtu(object);
    if (nl_addr *mac = rtnl_link_get_addr(object);
        mac != nullptr && nl_addr_get_len(mac) == link.mac.size()) {
        copy_address(mac, link.mac);
    }
    link.master = static_cast<IFINDEX>(std::max(rtnl_link_get_master(object), 0));
    link.parent = static_cast<IFINDEX>(std::max(rtnl_link_get_link(object), 0));
    int32_t namespace_id = 0;
    link.parent_elsewhere = rtnl_link_get_link_netnsid(object, &namespace_id) == 0;
    return link;
}

Address to_address(rtnl_addr *object)
{
    Address address;
    address.family = rtnl_addr_get_family(object);
    copy_address(rtnl_addr_get_local(object), address.local);
    copy_address(rtnl_addr_get_peer(object), address.peer);
    address.prefix_len = static_cast<unsigned>(std::max(rtnl_addr_get_prefixlen(object), 0));
    address.scope = static_cast<unsigned>(std::max(rtnl_addr_get_scope(object), 0));
    address.flags = rtnl_addr_get_flags(object);
    return address;
}

/// The decoded object of a message; null when libnl does not understand it.
struct PutObject {
    void operator()(nl_object *object) const { nl_object_put(object); }
};
using Object = std::unique_ptr<nl_object, PutObject>;

Object decode(nl_msg *msg)
{
    nl_object *object = nullptr;
    nl_msg_parse(
        msg,
        [](nl_object *decoded, void *arg) {
            nl_object_get(decoded);
            *static_cast<nl_object **>(arg) = decoded;
        },
        &object);
    return Object(object);
}

bool describes_whole_link(nlmsghdr *header)
{
    if (!nlmsg_valid_hdr(header, sizeof(ifinfomsg))) {
        return false;
    }
    const auto *info = static_cast<const ifinfomsg *>(nlmsg_data(header));
    return info->ifi_family == AF_UNSPEC && info->ifi_index > 0 &&
           nlmsg_find_attr(header, sizeof(ifinfomsg), IFLA_IFNAME) != nullptr &&
           nlmsg_find_attr(header, sizeof(ifinfomsg), IFLA_WIRELESS) == nullptr;
}

bool is_ip_family(int family)
{
    return family == AF_INET || family == AF_INET6;
}

// libnl's objects of these messages are the types that its constructors registered for them.
std::optional<Change> parse_link(nl_msg *msg, bool gone)
{
    if (!describes_whole_link(nlmsg_hdr(msg))) {
        return std::nullopt;
    }
    const Object object = decode(msg);
    if (object == nullptr) {
        return std::nullopt;
    }
    Link link = to_link(reinterpret_cast<rtnl_link *>(object.get()));
    return gone ? Change(LinkGone{.ifx = link.ifx}) : Change(std::move(link));
}

std::optional<Change> parse_address(nl_msg *msg, bool gone)
{
    const Object object = decode(msg);
    if (object == nullptr) {
        return std::nullopt;
    }
    auto *decoded = reinterpret_cast<rtnl_addr *>(object.get());
    const int ifx = rtnl_addr_get_ifindex(decoded);
    const Address address = to_address(decoded);
    // The kernel lets an interface have the address 0.0.0.0; it is none to bind to.
    const bool unspecified = address.local == Address{}.local;
    if (ifx <= 0 || !is_ip_family(address.family) || unspecified) {
        return std::nullopt;
    }
    if (gone) {
        return AddressGone{.ifx = static_cast<IFINDEX>(ifx), .address = address};
    }
    return AddressChange{.ifx = static_cast<IFINDEX>(ifx), .address = address};
}

int to_errno(int nl_error)
{
    switch (-nl_error) {
    case NLE_PERM:
        return EPERM;
    case NLE_NOACCESS:
        return EACCES;
    case NLE_NOMEM:
        return ENOMEM;
    case NLE_DUMP_INTR:
        return EAGAIN;
    default:
        return EIO;
    }
}

bool succeeded(int nl_result)
{
    if (nl_result >= 0) {
        return true;
    }
    errno = to_errno(nl_result);
    return false;
}

/// Merges what the dumps delivered. Addresses whose interface is in none of them came or went in between; the
/// pending notifications settle it.
std::vector<LinkState> assemble(std::vector<Change> &changes)
{
    std::vector<LinkState> states;
    std::unordered_map<IFINDEX, std::size_t> positions;
    for (Change &change : changes) {
        if (auto *link = std::get_if<Link>(&change); link != nullptr) {
            positions.emplace(link->ifx, states.size());
            states.push_back({.link = std::move(*link), .addresses = {}, .eth = {}});
        } else if (auto *added = std::get_if<AddressChange>(&change); added != nullptr) {
            if (const auto it = positions.find(added->ifx); it != positions.end()) {
                states[it->second].addresses.push_back(added->address);
            }
        }
    }
    return states;
}

} // namespace

std::optional<Change> parse_change(nl_msg *msg) noexcept
{
    switch (nlmsg_hdr(msg)->nlmsg_type) {
    case RTM_NEWLINK:
        return parse_link(msg, false);
    case RTM_DELLINK:
        return parse_link(msg, true);
    case RTM_NEWADDR:
        return parse_address(msg, false);
    case RTM_DELADDR:
        return parse_address(msg, true);
    default:
        return std::nullopt;
    }
}

void FreeSocket::operator()(nl_sock *sock) const
{
    nl_socket_free(sock);
}

bool RouteReader::open()
{
    events_.reset(nl_socket_alloc());
    if (events_ == nullptr) {
        errno = ENOMEM;
        return false;
    }
    nl_socket_disable_seq_check(events_.get());
    if (!succeeded(nl_connect(events_.get(), NETLINK_ROUTE)) ||
        !succeeded(nl_socket_add_memberships(events_.get(), RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR,
                                             RTNLGRP_IPV6_IFADDR, 0)) ||
        !succeeded(nl_socket_set_nonblocking(events_.get()))) {
        return false;
    }
    // A smaller buffer than asked for is no error: it fills earlier and costs a dump. Without CAP_NET_ADMIN the
    // system's limit (net.core.rmem_max) holds.
    const int bytes = RECEIVE_BUFFER_BYTES;
    if (setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        nl_socket_set_buffer_size(events_.get(), bytes, 0);
    }
    return open_requests();
}

bool RouteReader::open_requests()
{
    requests_.reset(nl_socket_alloc());
    if (requests_ == nullptr) {
        errno = ENOMEM;
        return false;
    }
    nl_socket_disable_auto_ack(requests_.get());
    if (!succeeded(nl_connect(requests_.get(), NETLINK_ROUTE))) {
        requests_.reset();
    }
    return requests_ != nullptr;
}

int RouteReader::fd() const
{
    return nl_socket_get_fd(events_.get());
}

RouteReader::Result RouteReader::receive(const std::function<void(Change &&)> &sink, int limit)
{
    auto on_message = [](nl_msg *msg, void *arg) noexcept -> int {
        if (std::optional<Change> change = parse_change(msg)) {
            (*static_cast<const std::function<void(Change &&)> *>(arg))(std::move(*change));
        }
        return NL_OK;
    };
    // libnl hands the argument back untouched; the callback restores the const.
    nl_socket_modify_cb(events_.get(), NL_CB_VALID, NL_CB_CUSTOM, on_message,
                        const_cast<std::function<void(Change &&)> *>(&sink));
    for (int received = 0; received < limit; ++received) {
        const int result = nl_recvmsgs_default(events_.get());
        if (result == -NLE_AGAIN) {
            return Result::drained;
        }
        if (result < 0) { // mostly ENOBUFS
            return Result::lost;
        }
    }
    return Result::more;
}

void RouteReader::discard()
{
    // The socket reports one loss an overflow, possibly several until it is empty.
    for (int i = 0; i < DISCARD_LIMIT && receive([](Change &&) {}, 1) != Result::drained; ++i) {
    }
}

bool RouteReader::request(int message_type, void *header, std::size_t header_bytes,
                          std::vector<Change> &changes)
{
    auto on_message = [](nl_msg *msg, void *arg) noexcept -> int {
        if (std::optional<Change> change = parse_change(msg)) {
            static_cast<std::vector<Change> *>(arg)->push_back(std::move(*change));
        }
        return NL_OK;
    };
    nl_socket_modify_cb(requests_.get(), NL_CB_VALID, NL_CB_CUSTOM, on_message, &changes);
    return succeeded(nl_send_simple(requests_.get(), message_type, NLM_F_DUMP, header, header_bytes)) &&
           succeeded(nl_recvmsgs_default(requests_.get()));
}

std::optional<std::vector<LinkState>> RouteReader::dump()
{
    // All address families at once: a kernel without IPv6 would answer a request for IPv6 with everything it
    // has.
    ifinfomsg links{};
    ifaddrmsg addresses{};
    for (int attempt = 0; attempt < DUMP_ATTEMPTS && (requests_ != nullptr || open_requests()); ++attempt) {
        std::vector<Change> changes;
        if (request(RTM_GETLINK, &links, sizeof links, changes) &&
            request(RTM_GETADDR, &addresses, sizeof addresses, changes)) {
            return assemble(changes);
        }
        // What is left of an answer that was given up would be taken for the answer to the next request.
        requests_.reset();
        if (errno != EAGAIN) {
            break;
        }
    }
    return std::nullopt;
}

} // namespace platform::lsm
