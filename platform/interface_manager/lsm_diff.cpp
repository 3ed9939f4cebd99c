#include "lsm_diff.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>

namespace platform::lsm
{
namespace
{

struct State {
    StackSet stacks = 0;
    bool admin_up = false;
    bool line_up = false;
    IFINDEX aggregate = 0;
    IFINDEX vrf = 0;
};

StackSet stacks_of(const Link &link)
{
    StackSet stacks = 0;
    for (const int stack : {LSM_IF_STACK_PHYSICAL, LSM_IF_STACK_TCPIP}) {
        if (exists_on(link, stack)) {
            stacks |= stack_bit(stack);
        }
    }
    return stacks;
}

State state_of(const Link *link)
{
    if (link == nullptr) {
        return {};
    }
    const IFINDEX vrf = vrf_of(*link);
    return {.stacks = stacks_of(*link),
            .admin_up = is_admin_up(*link),
            .line_up = is_line_up(*link),
            .aggregate = aggregate_of(*link),
            .vrf = vrf == link->ifx ? 0 : vrf};
}

/// Appends events of one interface.
class Writer
{
public:
    Writer(const Link &link, StackSet stacks, Events &events)
        : ifx_(link.ifx), type_(type_of(link)), stacks_(stacks), events_(events)
    {
    }

    void state(int number, bool up)
    {
        add(number, stacks_, intf_msg_state_t{.ifx = ifx_, .state = up ? 1 : 0});
    }

    void aggregate(intf_msg_ap_type_t what, IFINDEX aggregate)
    {
        add(INTF_EVENT_AGG_INDEX, stacks_, intf_msg_ap_t{.type = what, .ap_ifx = aggregate, .ifindex = ifx_});
    }

    void vrf_bind(IFINDEX vrf)
    {
        intf_msg_vrf_t msg{};
        msg.sub_type = INTF_EVENT_VRF_BIND;
        msg.vrf_bind = {.ifindex = ifx_, .vrf_id = static_cast<int32_t>(vrf), .b_bind = vrf != 0 ? 1 : 0};
        add(INTF_EVENT_VRF, stack_bit(LSM_IF_STACK_TCPIP), msg);
    }

    void vrf_gone()
    {
        intf_msg_vrf_t msg{};
        msg.sub_type = INTF_EVENT_VRF_CHG;
        msg.vrf_chg = {.vrf_id = static_cast<int32_t>(ifx_)};
        events_.push_back({.number = INTF_EVENT_VRF,
                           .stacks = stack_bit(LSM_IF_STACK_TCPIP),
                           .if_type = LSM_IF_TYPE_UNKNOWN,
                           .payload = msg});
    }

    void created(StackSet stacks)
    {
        add(INTF_EVENT_CREATE_INDEX, stacks, intf_msg_create_t{.ifx = ifx_, .if_type = type_});
    }

    void left(int number, StackSet stacks)
    {
        add(number, stacks, intf_msg_destroy_t{.ifx = ifx_, .if_type = type_});
    }

    void add(int number, StackSet stacks, const Payload &payload)
    {
        if (stacks != 0) {
            events_.push_back({.number = number, .stacks = stacks, .if_type = type_, .payload = payload});
        }
    }

private:
    IFINDEX ifx_;
    lsm_if_type_t type_;
    StackSet stacks_;
    Events &events_;
};

intf_msg_ip_t ipv4_message(IFINDEX ifx, const Address &address, bool added)
{
    intf_msg_ip_t msg{};
    msg.sub_type = INTF_EVENT_IP_ADDR;
    msg.addr = {.ifindex = ifx, .addr = 0, .prefix_len = address.prefix_len, .b_add = added ? 1 : 0};
    std::memcpy(&msg.addr.addr, address.local.data(), sizeof msg.addr.addr);
    return msg;
}

intf_msg_ipv6_t ipv6_message(IFINDEX ifx, const Address &address, bool added)
{
    intf_msg_ipv6_t msg{};
    msg.sub_type = INTF_EVENT_IPV6_ADDR;
    msg.addr = {.ifindex = ifx, .addr = {}, .prefix_len = address.prefix_len, .b_add = added ? 1 : 0};
    std::copy(address.local.begin(), address.local.end(), msg.addr.addr);
    return msg;
}

bool has_usable(const std::vector<Address> &addresses, const Address &wanted)
{
    return std::any_of(addresses.begin(), addresses.end(),
                       [&](const Address &a) { return same_address(a, wanted) && is_usable(a); });
}

/// Announces the usable addresses of `these` that are not usable in `those`.
void add_difference(const Link &link, int family, const std::vector<Address> &these,
                    const std::vector<Address> &those, bool added, Events &events)
{
    Writer writer(link, 0, events);
    for (const Address &address : these) {
        if (!is_usable(address) || has_usable(those, address)) {
            continue;
        }
        if (family == AF_INET) {
            writer.add(INTF_EVENT_IPV4, stack_bit(LSM_IF_STACK_TCPIP),
                       ipv4_message(link.ifx, address, added));
        } else {
            writer.add(INTF_EVENT_IPV6, stack_bit(LSM_IF_STACK_TCPIP),
                       ipv6_message(link.ifx, address, added));
        }
    }
}

} // namespace

void add_link_events(const Link *before, const Link *after, Events &events)
{
    const Link *link = after != nullptr ? after : before;
    if (link == nullptr) {
        return;
    }
    const State was = state_of(before);
    const State is = state_of(after);
    Writer writer(*link, was.stacks | is.stacks, events);

    if (was.line_up && !is.line_up) {
        writer.state(INTF_EVENT_LINK_STATE_INDEX, false);
    }
    if (was.admin_up && !is.admin_up) {
        writer.state(INTF_EVENT_ADMIN_STATE_INDEX, false);
    }
    if (was.aggregate != 0 && was.aggregate != is.aggregate) {
        writer.aggregate(INTF_MSG_RM_FROM_AP, was.aggregate);
    }
    if (was.vrf != 0 && is.vrf == 0) {
        writer.vrf_bind(0);
    }
    if (after == nullptr && type_of(*link) == LSM_IF_TYPE_VRF) {
        writer.vrf_gone();
    }
    if (is.stacks != 0) {
        // A new interface appears before anything is said about it.
        writer.created(is.stacks & ~was.stacks);
    }
    if (is.aggregate != 0 && was.aggregate != is.aggregate) {
        writer.aggregate(INTF_MSG_ADD_TO_AP, is.aggregate);
    }
    writer.left(INTF_EVENT_DESTROY_INDEX, was.stacks & ~is.stacks);
    if (is.vrf != 0 && was.vrf != is.vrf) {
        writer.vrf_bind(is.vrf);
    }
    if (!was.admin_up && is.admin_up) {
        writer.state(INTF_EVENT_ADMIN_STATE_INDEX, true);
    }
    if (!was.line_up && is.line_up) {
        writer.state(INTF_EVENT_LINK_STATE_INDEX, true);
    }
}

void add_address_events(const Link &link, int family, const std::vector<Address> &before,
                        const std::vector<Address> &after, Events &events)
{
    add_difference(link, family, before, after, false, events);
    add_difference(link, family, after, before, true, events);
}

void add_first_address_event(const Link &link, int family, Events &events)
{
    Writer writer(link, 0, events);
    if (family == AF_INET) {
        intf_msg_ip_t msg{};
        msg.sub_type = INTF_EVENT_IP_STATE;
        msg.state = {.ifindex = link.ifx, .state = is_line_up(link) ? INTF_UP : INTF_DOWN};
        writer.add(INTF_EVENT_IPV4, stack_bit(LSM_IF_STACK_TCPIP), msg);
    } else {
        intf_msg_ipv6_t msg{};
        msg.sub_type = INTF_EVENT_IPV6_STATE;
        msg.state = {.ifindex = link.ifx, .state = is_line_up(link) ? INTF_UP : INTF_DOWN};
        writer.add(INTF_EVENT_IPV6, stack_bit(LSM_IF_STACK_TCPIP), msg);
    }
}

void add_eth_event(const Link &link, const std::optional<EthInfo> &eth, Events &events)
{
    const EthInfo info = eth.value_or(EthInfo{});
    const StackSet stacks = stacks_of(link);
    Writer(link, stacks, events)
        .add(INTF_EVENT_IF_ETH_INFO, stacks,
             intf_msg_eth_info_t{.ifx = link.ifx, .duplex = info.duplex, .speed = info.speed});
}

void add_default_event(const Link &link, Events &events)
{
    const StackSet stacks = stacks_of(link);
    Writer(link, stacks, events).left(INTF_EVENT_DEFAULT_INDEX, stacks);
}

} // namespace platform::lsm
