#include "desk_network.h"

#include "interface_manager/lsm_client.h"
#include "lsm_test_events.h"

#include <algorithm>
#include <linux/if.h>

using namespace platform::lsm;
using namespace lsm_test;

namespace desk
{
namespace
{

kx_thread_master_t *master = nullptr;
lsm_connect_callback_t connect_callback = nullptr;

Link vlan(IFINDEX ifx, const std::string &name, IFINDEX parent)
{
    Link link = device(ifx, name, "vlan");
    link.parent = parent;
    return link;
}

Link loopback()
{
    Link link = with_flags(port(1, "lo"), UP | IFF_LOOPBACK);
    link.mac = {};
    return link;
}

LinkState state(Link link, std::initializer_list<const char *> addresses = {})
{
    LinkState result;
    if (link.kind.empty() || link.kind == "bond")
        result.eth = EthInfo{.duplex = LSM_DUPLEX_FULL, .speed = 1000};
    result.link = std::move(link);
    for (const char *const text : addresses)
        result.addresses.push_back(address(text));
    return result;
}

std::vector<LinkState> network()
{
    return {
        state(loopback(), {"127.0.0.1/8"}),
        state(with_flags(port(2, "port1"), UP), {"10.0.1.1/24", "2001:db8:1::1/64"}),
        state(with_flags(port(3, "port2"), UP), {"10.0.2.1/24"}),
        state(port(4, "port3")),
        state(member_of(with_flags(port(5, "port4"), UP), 6, "bond")),
        state(device(6, "bond0", "bond"), {"10.0.6.1/24"}),
        state(vlan(7, "port1.5", 2), {"10.0.7.1/24"}),
        state(member_of(vlan(8, "port1.6", 2), 9, "bridge")),
        state(device(9, "br0", "bridge"), {"10.0.9.1/24"}),
        state(device(10, "red", "vrf")),
        state(device(11, "mgmt", "vrf")),
        state(member_of(with_flags(port(12, "ma1"), UP), 11, "vrf"), {"192.0.2.200/24", "2001:db8:c::1/64"}),
        state(with_flags(port(13, "ma2"), UP), {"192.0.2.201/24"}),
        state(member_of(with_flags(port(14, "port5"), UP), 10, "vrf"), {"10.0.14.1/24"}),
        state(device(15, "ra", "veth"), {"10.0.15.1/24"}),
        state(device(16, "tun7", "wireguard"), {"10.0.16.1/24"}),
    };
}

std::optional<Link> link_of(const std::string &name)
{
    return client().query([&](const Store &store) {
        const Interface *intf = store.find(std::string_view(name));
        return intf == nullptr ? std::nullopt : std::optional(intf->link);
    });
}

template <typename Change>
bool change_link(const std::string &name, Change change)
{
    const std::optional<Link> link = link_of(name);
    if (link)
        client().change([&](Store &store) { return change(store, *link); });
    return link.has_value();
}

int on_connected(kx_thread_t *)
{
    connect_callback();
    return 0;
}

int on_registration_over(kx_thread_t *)
{
    client().begin_delivery();
    return 0;
}

int on_defaults(kx_thread_t *)
{
    client().deliver_defaults();
    return 0;
}

} // namespace

void restore_network()
{
    client().change([](Store &store) { return store.replace(network()); });
}

bool remove_link(const std::string &name)
{
    return change_link(name, [](Store &store, const Link &link) { return store.remove(link.ifx); });
}

bool move_to_vrf(const std::string &name, const std::string &vrf)
{
    const std::optional<Link> master_link = vrf.empty() ? std::optional(Link{}) : link_of(vrf);
    return master_link && change_link(name, [&](Store &store, const Link &link) {
               return store.apply(member_of(link, master_link->ifx, vrf.empty() ? "" : "vrf"));
           });
}

bool add_address(const std::string &name, const std::string &text)
{
    return change_link(name,
                       [&](Store &store, const Link &link) { return store.apply(link.ifx, address(text)); });
}

bool remove_address(const std::string &name, const std::string &text)
{
    return change_link(name,
                       [&](Store &store, const Link &link) { return store.remove(link.ifx, address(text)); });
}

} // namespace desk

// The interface manager's connection with the kernel, which reads the network above instead.

void lsm_agent_set_connect_callback(lsm_connect_callback_t callback)
{
    desk::connect_callback = callback;
}

int lsm_client_set_mode(int mode)
{
    client().set_mode(static_cast<lsm_client_mode_t>(mode));
    return 0;
}

int lsm_client_reg_event_ex(int stack, const lsm_iftype_filter *filter, const lsm_msg_set *set)
{
    return client().subscriptions().subscribe(stack, *filter, *set) ? 0 : -1;
}

int lsm_reg_msg_handler_ex(int stack, lsm_msg_handler_t handler)
{
    return client().subscriptions().set_handler(stack, handler) ? 0 : -1;
}

int lsm_agent_init(const char *, kx_thread_master_t *master)
{
    desk::master = master;
    client().start({"ma1", "ma2"}, desk::network());
    return kx_thread_add_event(master, desk::on_connected, nullptr) != nullptr ? 0 : -1;
}

int lsm_client_reg_event_over()
{
    return kx_thread_add_event(desk::master, desk::on_registration_over, nullptr) != nullptr ? 0 : -1;
}

int lsm_raise_default_event(IFINDEX ifx)
{
    const bool noted = client().note_default(ifx);
    return noted && kx_thread_add_event(desk::master, desk::on_defaults, nullptr) != nullptr ? 0 : -1;
}
