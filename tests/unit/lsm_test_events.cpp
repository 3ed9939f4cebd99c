#include "lsm_test_events.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <stdexcept>

namespace lsm_test
{
namespace
{

using namespace platform::lsm;

std::string ip_text(int family, const void *bytes)
{
    char buffer[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, bytes, buffer, sizeof buffer);
    return buffer;
}

std::string number(u_int32_t value)
{
    return std::to_string(value);
}

struct Describer {
    int event;

    std::string operator()(const intf_msg_create_t &msg) const { return "create " + number(msg.ifx); }
    std::string operator()(const intf_msg_destroy_t &msg) const
    {
        return (event == INTF_EVENT_DEFAULT_INDEX ? "default " : "destroy ") + number(msg.ifx);
    }
    std::string operator()(const intf_msg_state_t &msg) const
    {
        return (event == INTF_EVENT_ADMIN_STATE_INDEX ? "admin " : "link ") + number(msg.ifx) +
               (msg.state == 1 ? " up" : " down");
    }
    std::string operator()(const intf_msg_ap_t &msg) const
    {
        return "agg " + number(msg.ifindex) + (msg.type == INTF_MSG_ADD_TO_AP ? " join " : " leave ") +
               number(msg.ap_ifx);
    }
    std::string operator()(const intf_msg_ip_t &msg) const
    {
        if (msg.sub_type == INTF_EVENT_IP_STATE) {
            return "ipv4 " + number(msg.state.ifindex) + " first";
        }
        return "ipv4 " + number(msg.addr.ifindex) + (msg.addr.b_add == 1 ? " add " : " del ") +
               ip_text(AF_INET, &msg.addr.addr) + "/" + number(msg.addr.prefix_len);
    }
    std::string operator()(const intf_msg_ipv6_t &msg) const
    {
        if (msg.sub_type == INTF_EVENT_IPV6_STATE) {
            return "ipv6 " + number(msg.state.ifindex) + " first";
        }
        return "ipv6 " + number(msg.addr.ifindex) + (msg.addr.b_add == 1 ? " add " : " del ") +
               ip_text(AF_INET6, msg.addr.addr) + "/" + number(msg.addr.prefix_len);
    }
    std::string operator()(const intf_msg_vrf_t &msg) const
    {
        if (msg.sub_type == INTF_EVENT_VRF_CHG) {
            return "vrf gone " + std::to_string(msg.vrf_chg.vrf_id);
        }
        return "vrf " + number(msg.vrf_bind.ifindex) + (msg.vrf_bind.b_bind == 1 ? " bind " : " release ") +
               std::to_string(msg.vrf_bind.vrf_id);
    }
    std::string operator()(const intf_msg_eth_info_t &msg) const
    {
        return "eth " + number(msg.ifx) + " " + number(msg.speed) + " " + std::to_string(msg.duplex);
    }
    std::string operator()(const intf_msg_sync_t &msg) const { return "sync " + number(msg.if_count); }
};

} // namespace

std::string describe(const Event &event)
{
    std::string stacks;
    for (const int stack : {3, 5, 7}) {
        if ((event.stacks & stack_bit(stack)) != 0) {
            stacks += (stacks.empty() ? "" : "+") + std::to_string(stack);
        }
    }
    return stacks + " " + std::visit(Describer{event.number}, event.payload);
}

std::vector<std::string> describe(const Events &events)
{
    std::vector<std::string> lines;
    for (const Event &event : events) {
        lines.push_back(describe(event));
    }
    return lines;
}

Link port(IFINDEX ifx, const std::string &name)
{
    Link link;
    link.ifx = ifx;
    link.name = name;
    link.hw_type = ARPHRD_ETHER;
    link.mtu = 1500;
    link.mac = {2, 0, 0, 0, 0, static_cast<u_int8_t>(ifx)};
    return link;
}

Link device(IFINDEX ifx, const std::string &name, const std::string &kind)
{
    Link link = port(ifx, name);
    link.kind = kind;
    link.flags = UP;
    return link;
}

Link member_of(Link link, IFINDEX master, const std::string &kind)
{
    link.master = master;
    link.slave_kind = kind;
    return link;
}

Link with_flags(Link link, unsigned flags)
{
    link.flags = flags;
    return link;
}

Address address(const std::string &text, unsigned flags)
{
    const std::size_t slash = text.find('/');
    const std::string host = text.substr(0, slash);
    Address result;
    result.family = host.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    if (slash == std::string::npos || inet_pton(result.family, host.c_str(), result.local.data()) != 1) {
        throw std::invalid_argument(text);
    }
    result.prefix_len = static_cast<unsigned>(std::stoul(text.substr(slash + 1)));
    result.scope =
        host.rfind("fe80:", 0) == 0 || host.rfind("169.254.", 0) == 0 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    result.flags = flags;
    return result;
}

} // namespace lsm_test
