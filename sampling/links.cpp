#include "links.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/if_vlan.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unordered_set>

namespace sampling
{

namespace
{

// A burst of a few thousand notices must fit: each is about 1.5 KiB.
constexpr int socket_buffer_bytes = 8 * 1024 * 1024;
// One read of a dump.
constexpr std::size_t receive_buffer_bytes = 65536;

// RFC 2863 states as the kernel shows them in IFLA_OPERSTATE.
/// VLAN devices on top of each other that are followed: one more than the kernel stacks by default.
constexpr std::size_t most_tags = 8;
constexpr std::uint8_t oper_unknown = 0;
constexpr std::uint8_t oper_up = 6;

int take_message(nl_msg *message, void *table)
{
    static_cast<LinkTable *>(table)->take(message);
    return NL_OK;
}

std::string link_kind(nlattr *link_info)
{
    std::array<nlattr *, IFLA_INFO_MAX + 1> info = {};
    if (link_info == nullptr || nla_parse_nested(info.data(), IFLA_INFO_MAX, link_info, nullptr) < 0 ||
        info[IFLA_INFO_KIND] == nullptr)
        return {};
    return nla_get_string(info[IFLA_INFO_KIND]);
}

/// The tag that a VLAN device handles. Without reordering of headers the kernel leaves the tag in the frame.
std::optional<VlanTag> device_tag(nlattr *link_info)
{
    std::array<nlattr *, IFLA_INFO_MAX + 1> info = {};
    std::array<nlattr *, IFLA_VLAN_MAX + 1> vlan = {};
    if (link_info == nullptr || nla_parse_nested(info.data(), IFLA_INFO_MAX, link_info, nullptr) < 0 ||
        info[IFLA_INFO_DATA] == nullptr ||
        nla_parse_nested(vlan.data(), IFLA_VLAN_MAX, info[IFLA_INFO_DATA], nullptr) < 0 ||
        vlan[IFLA_VLAN_ID] == nullptr)
        return std::nullopt;
    ifla_vlan_flags flags = {.flags = VLAN_FLAG_REORDER_HDR, .mask = 0};
    if (vlan[IFLA_VLAN_FLAGS] != nullptr)
        nla_memcpy(&flags, vlan[IFLA_VLAN_FLAGS], sizeof(flags));
    if ((flags.flags & VLAN_FLAG_REORDER_HDR) == 0)
        return std::nullopt;
    const std::uint16_t protocol = vlan[IFLA_VLAN_PROTOCOL] != nullptr
                                       ? ntohs(nla_get_u16(vlan[IFLA_VLAN_PROTOCOL]))
                                       : std::uint16_t{ETH_P_8021Q};
    return VlanTag{.protocol = protocol, .tci = nla_get_u16(vlan[IFLA_VLAN_ID])};
}

} // namespace

void NlSockDeleter::operator()(nl_sock *socket) const
{
    nl_socket_free(socket);
}

void NlMsgDeleter::operator()(nl_msg *message) const
{
    nlmsg_free(message);
}

NlSock open_request_socket(int protocol)
{
    NlSock socket(nl_socket_alloc());
    if (!socket || nl_connect(socket.get(), protocol) < 0)
        return nullptr;
    nl_socket_disable_auto_ack(socket.get());
    nl_socket_disable_seq_check(socket.get());
    nl_socket_set_msg_buf_size(socket.get(), receive_buffer_bytes);
    const timeval limit = {.tv_sec = 1, .tv_usec = 0};
    ::setsockopt(nl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return socket;
}

bool can_be_sampled(const Link &link)
{
    // A VRF device only lends its routing table: packets of its members never run through its ingress hook.
    return (link.arp_type == ARPHRD_ETHER || link.arp_type == ARPHRD_LOOPBACK) && link.kind != "vrf";
}

LinkTable::LinkTable(EventLoop &loop, Log &log) : loop_(loop), log_(log), socket_(nl_socket_alloc())
{
    if (!socket_)
        throw std::runtime_error("interface table: netlink socket: out of memory");
    nl_socket_disable_seq_check(socket_.get());
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, take_message, this);
    int error = nl_connect(socket_.get(), NETLINK_ROUTE);
    if (error == 0)
        error = nl_socket_add_memberships(socket_.get(), RTNLGRP_LINK, 0);
    if (error < 0)
        throw std::runtime_error(std::string("interface table: rtnetlink: ") + nl_geterror(error));
    nl_socket_set_buffer_size(socket_.get(), socket_buffer_bytes, 0);
    nl_socket_set_msg_buf_size(socket_.get(), receive_buffer_bytes);
    read_all();
    nl_socket_set_nonblocking(socket_.get());
    loop_.add(nl_socket_get_fd(socket_.get()), EPOLLIN, [this](std::uint32_t) { read_notices(); });
}

LinkTable::~LinkTable()
{
    loop_.remove(nl_socket_get_fd(socket_.get()));
}

void LinkTable::read_all()
{
    // A socket of its own: its answer ends with a DONE that must not be looked for among notices.
    const NlSock socket(nl_socket_alloc());
    if (!socket || nl_connect(socket.get(), NETLINK_ROUTE) < 0)
        throw std::runtime_error("interface table: netlink socket: cannot be opened");
    std::unordered_set<IFINDEX> before;
    for (const auto &entry : links_)
        before.insert(entry.first);
    links_.clear();
    nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, take_message, this);
    ifinfomsg request = {};
    int error = nl_send_simple(socket.get(), RTM_GETLINK, NLM_F_DUMP, &request, sizeof(request));
    if (error >= 0)
        error = nl_recvmsgs_default(socket.get());
    if (error < 0)
        throw std::runtime_error(std::string("interface table: read of all interfaces: ") +
                                 nl_geterror(error));
    for (const IFINDEX ifindex : before) {
        if (!links_.contains(ifindex))
            announce_removal(ifindex, nullptr);
    }
}

void LinkTable::announce_removal(IFINDEX ifindex, const rtnl_link_stats64 *farewell)
{
    if (farewell_)
        farewell_(ifindex, farewell);
    // Not at once: this may run inside find(), whose caller is in the middle of its own tables.
    loop_.post([this, ifindex] {
        if (removed_)
            removed_(ifindex);
    });
}

void LinkTable::read_notices()
{
    for (;;) {
        const int error = nl_recvmsgs_default(socket_.get());
        if (error == -NLE_AGAIN)
            return;
        if (error == -NLE_NOMEM) { // the kernel's name for "notices were lost"
            log_.warning("interface table: notices lost: the kernel's buffer ran over, reading all again");
            read_all();
        } else if (error < 0) {
            log_.warning("interface table: read of a notice: ", nl_geterror(error));
            return;
        }
    }
}

void LinkTable::take(nl_msg *message)
{
    nlmsghdr *header = nlmsg_hdr(message);
    std::array<nlattr *, IFLA_MAX + 1> attributes = {};
    if ((header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) ||
        nlmsg_parse(header, sizeof(ifinfomsg), attributes.data(), IFLA_MAX, nullptr) < 0)
        return;
    const auto *info = static_cast<const ifinfomsg *>(nlmsg_data(header));
    // Notices of a bridge's port come with its family; those say nothing about the interface itself.
    if (info->ifi_family != AF_UNSPEC || info->ifi_index <= 0)
        return;
    const auto ifindex = static_cast<IFINDEX>(info->ifi_index);
    if (header->nlmsg_type == RTM_DELLINK) {
        if (links_.erase(ifindex) == 0)
            return;
        rtnl_link_stats64 last = {};
        nlattr *const statistics = attributes[IFLA_STATS64];
        if (statistics != nullptr)
            nla_memcpy(&last, statistics, sizeof(last));
        announce_removal(ifindex, statistics != nullptr ? &last : nullptr);
        return;
    }
    Link &link = links_[ifindex];
    if (attributes[IFLA_IFNAME] != nullptr)
        link.name = nla_get_string(attributes[IFLA_IFNAME]);
    link.kind = link_kind(attributes[IFLA_LINKINFO]);
    link.device_tag = link.kind == "vlan" ? device_tag(attributes[IFLA_LINKINFO]) : std::nullopt;
    link.parent = attributes[IFLA_LINK] != nullptr && attributes[IFLA_LINK_NETNSID] == nullptr
                      ? nla_get_u32(attributes[IFLA_LINK])
                      : 0;
    link.arp_type = info->ifi_type;
    link.flags = info->ifi_flags;
    const std::uint8_t state =
        attributes[IFLA_OPERSTATE] != nullptr ? nla_get_u8(attributes[IFLA_OPERSTATE]) : oper_unknown;
    link.oper_up = state == oper_up || (state == oper_unknown && (info->ifi_flags & IFF_RUNNING) != 0);
    link.promiscuous =
        attributes[IFLA_PROMISCUITY] != nullptr && nla_get_u32(attributes[IFLA_PROMISCUITY]) != 0;
}

const Link *LinkTable::find(IFINDEX ifindex)
{
    auto found = links_.find(ifindex);
    if (found == links_.end()) {
        read_notices();
        found = links_.find(ifindex);
    }
    return found == links_.end() ? nullptr : &found->second;
}

std::string LinkTable::name_of(IFINDEX ifindex) const
{
    const auto found = links_.find(ifindex);
    return found == links_.end() ? "#" + std::to_string(ifindex) : found->second.name;
}

IFINDEX LinkTable::index_of(const std::string &name) const
{
    const auto found = std::find_if(links_.begin(), links_.end(),
                                    [&name](const auto &entry) { return entry.second.name == name; });
    return found == links_.end() ? 0 : found->first;
}

std::vector<VlanTag> LinkTable::device_tags(IFINDEX ifindex) const
{
    std::vector<VlanTag> tags;
    for (auto found = links_.find(ifindex);
         found != links_.end() && found->second.device_tag && tags.size() < most_tags;
         found = links_.find(found->second.parent))
        tags.push_back(*found->second.device_tag);
    std::reverse(tags.begin(), tags.end());
    return tags;
}

bool LinkTable::is_vrf(IFINDEX ifindex) const
{
    const auto found = links_.find(ifindex);
    return found != links_.end() && found->second.kind == "vrf";
}

} // namespace sampling
