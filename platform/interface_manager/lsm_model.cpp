#include "lsm_model.h"

#include <algorithm>
#include <iterator>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <string_view>
#include <sys/socket.h>

namespace platform::lsm
{
namespace
{

struct KindType {
    std::string_view kind;
    lsm_if_type_t type;
};

// Device kinds of the kernel. A kind that is not listed counts as a software port when it speaks Ethernet.
constexpr KindType KIND_TYPES[] = {
    {"dsa", LSM_IF_TYPE_ETHERNET},
    {"vlan", LSM_IF_TYPE_ETHERNET},
    {"veth", LSM_IF_TYPE_VIRTUAL_ETHERNET},
    {"bond", LSM_IF_TYPE_AGGREGATE},
    {"team", LSM_IF_TYPE_AGGREGATE},
    {"bridge", LSM_IF_TYPE_BRIDGE},
    {"vrf", LSM_IF_TYPE_VRF},
    {"bareudp", LSM_IF_TYPE_TUNNEL},
    {"erspan", LSM_IF_TYPE_TUNNEL},
    {"geneve", LSM_IF_TYPE_TUNNEL},
    {"gre", LSM_IF_TYPE_TUNNEL},
    {"gretap", LSM_IF_TYPE_TUNNEL},
    {"gtp", LSM_IF_TYPE_TUNNEL},
    {"ip6erspan", LSM_IF_TYPE_TUNNEL},
    {"ip6gre", LSM_IF_TYPE_TUNNEL},
    {"ip6gretap", LSM_IF_TYPE_TUNNEL},
    {"ip6tnl", LSM_IF_TYPE_TUNNEL},
    {"ipip", LSM_IF_TYPE_TUNNEL},
    {"ppp", LSM_IF_TYPE_TUNNEL},
    {"sit", LSM_IF_TYPE_TUNNEL},
    {"vti", LSM_IF_TYPE_TUNNEL},
    {"vti6", LSM_IF_TYPE_TUNNEL},
    {"vxlan", LSM_IF_TYPE_TUNNEL},
    {"wireguard", LSM_IF_TYPE_TUNNEL},
    {"xfrm", LSM_IF_TYPE_TUNNEL},
    {"ifb", LSM_IF_TYPE_OTHER},
    {"nlmon", LSM_IF_TYPE_OTHER},
    {"vcan", LSM_IF_TYPE_OTHER},
};

constexpr unsigned TUNNEL_HW_TYPES[] = {ARPHRD_NONE,  ARPHRD_TUNNEL, ARPHRD_TUNNEL6, ARPHRD_SIT,
                                        ARPHRD_IPGRE, ARPHRD_IP6GRE, ARPHRD_PPP};

// Devices that the kernel or a virtual switch makes for itself.
constexpr std::string_view INTERNAL_NAMES[] = {"erspan0", "gre0",    "gretap0", "ip6_vti0",   "ip6gre0",
                                               "ip6tnl0", "ip_vti0", "sit0",    "ovs-system", "tunl0"};

template <typename Range, typename Value>
bool contains(const Range &range, const Value &value)
{
    return std::find(std::begin(range), std::end(range), value) != std::end(range);
}

bool has_flag(const Link &link, unsigned flag)
{
    return (link.flags & flag) != 0;
}

} // namespace

bool same_address(const Address &lhs, const Address &rhs)
{
    return lhs.family == rhs.family && lhs.local == rhs.local && lhs.prefix_len == rhs.prefix_len &&
           lhs.peer == rhs.peer;
}

bool is_secondary(const Address &address)
{
    static_assert(IFA_F_SECONDARY == IFA_F_TEMPORARY);
    return (address.flags & IFA_F_SECONDARY) != 0;
}

bool is_usable(const Address &address)
{
    if ((address.flags & IFA_F_DADFAILED) != 0) {
        return false;
    }
    return (address.flags & IFA_F_TENTATIVE) == 0 || (address.flags & IFA_F_OPTIMISTIC) != 0;
}

lsm_if_type_t type_of(const Link &link)
{
    if (has_flag(link, IFF_LOOPBACK)) {
        return LSM_IF_TYPE_LOOPBACK;
    }
    const auto *row = std::find_if(std::begin(KIND_TYPES), std::end(KIND_TYPES),
                                   [&](const KindType &k) { return k.kind == link.kind; });
    if (row != std::end(KIND_TYPES)) {
        return row->type;
    }
    if (link.hw_type == ARPHRD_ETHER) {
        return link.kind.empty() ? LSM_IF_TYPE_ETHERNET : LSM_IF_TYPE_VIRTUAL_ETHERNET;
    }
    return contains(TUNNEL_HW_TYPES, link.hw_type) ? LSM_IF_TYPE_TUNNEL : LSM_IF_TYPE_OTHER;
}

bool is_subinterface(const Link &link)
{
    return link.kind == "vlan";
}

u_int32_t flags_of(const Link &link)
{
    u_int32_t flags = 0;
    if (contains(INTERNAL_NAMES, link.name)) {
        flags |= LSM_IF_FLAG_INTERNAL;
    }
    if (link.oper_state == IF_OPER_NOTPRESENT) {
        flags |= LSM_IF_FLAG_TRANSIENT;
    }
    return flags;
}

u_int32_t kind_of(const Link &link)
{
    if (is_subinterface(link)) {
        return LSM_IF_KIND_SUBINTERFACE;
    }
    switch (type_of(link)) {
    case LSM_IF_TYPE_ETHERNET:
        return LSM_IF_KIND_PORT;
    case LSM_IF_TYPE_VIRTUAL_ETHERNET:
        return LSM_IF_KIND_VIRTUAL_PORT;
    case LSM_IF_TYPE_AGGREGATE:
        return LSM_IF_KIND_AGGREGATE;
    case LSM_IF_TYPE_BRIDGE:
        return LSM_IF_KIND_BRIDGE;
    case LSM_IF_TYPE_LOOPBACK:
        return LSM_IF_KIND_LOOPBACK;
    case LSM_IF_TYPE_VRF:
        return LSM_IF_KIND_VRF;
    case LSM_IF_TYPE_TUNNEL:
        return LSM_IF_KIND_TUNNEL;
    case LSM_IF_TYPE_UNKNOWN:
    case LSM_IF_TYPE_OTHER:
        break;
    }
    return LSM_IF_KIND_OTHER;
}

bool is_admin_up(const Link &link)
{
    return has_flag(link, IFF_UP);
}

bool is_line_up(const Link &link)
{
    return is_admin_up(link) && has_flag(link, IFF_RUNNING);
}

IFINDEX aggregate_of(const Link &link)
{
    return link.slave_kind == "bond" || link.slave_kind == "team" ? link.master : 0;
}

IFINDEX bridge_of(const Link &link)
{
    return link.slave_kind == "bridge" || link.slave_kind == "openvswitch" ? link.master : 0;
}

IFINDEX vrf_of(const Link &link)
{
    if (type_of(link) == LSM_IF_TYPE_VRF) {
        return link.ifx;
    }
    return link.slave_kind == "vrf" ? link.master : 0;
}

bool exists_on(const Link &link, int stack)
{
    const lsm_if_type_t type = type_of(link);
    switch (stack) {
    case LSM_IF_STACK_PHYSICAL:
        return !is_subinterface(link) &&
               (type == LSM_IF_TYPE_ETHERNET || type == LSM_IF_TYPE_VIRTUAL_ETHERNET ||
                type == LSM_IF_TYPE_AGGREGATE);
    case LSM_IF_STACK_TCPIP:
        return aggregate_of(link) == 0 && bridge_of(link) == 0;
    default:
        return false;
    }
}

} // namespace platform::lsm
