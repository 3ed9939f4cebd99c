// The queries of include/platform/lsm.h, answered from the client's data.
#include "lsm_client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>

namespace platform::lsm
{
namespace
{

constexpr std::string_view MGMT_VRF_DEVICE = "mgmt";

/// What `function` says about an interface, `otherwise` when there is no such interface.
template <typename Result, typename Function>
Result ask(IFINDEX ifx, Result otherwise, Function &&function)
{
    return client().query([&](const Store &store) -> Result {
        const Interface *intf = store.find(ifx);
        return intf == nullptr ? otherwise : function(*intf);
    });
}

bool copy_text(std::string_view text, char *buf, int len)
{
    if (buf == nullptr || len <= 0) {
        return false;
    }
    const std::size_t count = std::min(text.size(), static_cast<std::size_t>(len) - 1);
    std::memcpy(buf, text.data(), count);
    buf[count] = '\0';
    return true;
}

const Interface *find_vrf(const Store &store, std::string_view name)
{
    const Interface *intf = store.find(name == LSM_VRF_MGMT_NAME ? MGMT_VRF_DEVICE : name);
    return intf != nullptr && type_of(intf->link) == LSM_IF_TYPE_VRF ? intf : nullptr;
}

void add_addresses(const Interface &intf, int family, std::vector<lsm_if_addr_t> &out)
{
    for (const Address &address : intf.by_preference(family)) {
        lsm_if_addr_t record{};
        record.family = family;
        std::copy(address.local.begin(), address.local.end(), record.addr);
        record.prefix_len = address.prefix_len;
        record.secondary = is_secondary(address);
        record.usable = is_usable(address);
        out.push_back(record);
    }
}

IFINDEX main_index(const Link &link)
{
    return is_subinterface(link) && !link.parent_elsewhere && link.parent != 0 ? link.parent : link.ifx;
}

lsm_if_record_t to_record(const Interface &intf)
{
    const Link &link = intf.link;
    lsm_if_record_t record{};
    record.ifx = link.ifx;
    record.name = link.name;
    record.type = type_of(link);
    record.kind = intf.kind;
    record.flags = flags_of(link);
    record.subinterface = is_subinterface(link);
    record.admin_up = is_admin_up(link);
    record.oper_up = is_line_up(link);
    if (intf.eth) {
        record.has_eth_info = true;
        record.eth = {.duplex = intf.eth->duplex, .speed = intf.eth->speed};
    }
    record.mtu = link.mtu;
    std::copy(link.mac.begin(), link.mac.end(), record.mac);
    record.main_index = main_index(link);
    record.master = link.master;
    record.vrf = static_cast<int>(vrf_of(link));
    add_addresses(intf, AF_INET, record.addrs);
    add_addresses(intf, AF_INET6, record.addrs);
    return record;
}

} // namespace
} // namespace platform::lsm

using namespace platform::lsm;

u_int32_t lsm_get_realtime_version(IFINDEX ifx, int stack)
{
    return ask(ifx, u_int32_t{0}, [&](const Interface &intf) -> u_int32_t {
        switch (stack) {
        case LSM_IF_STACK_PHYSICAL:
            return intf.physical_version;
        case LSM_IF_STACK_TCPIP:
            return intf.tcpip_version;
        default:
            return 0;
        }
    });
}

u_int32_t lsm_netif_get_first_ip_by_index(IFINDEX ifx)
{
    return ask(ifx, u_int32_t{0}, [](const Interface &intf) {
        u_int32_t ip = 0;
        if (const Address *first = intf.first(AF_INET); first != nullptr) {
            std::memcpy(&ip, first->local.data(), sizeof ip);
        }
        return ip;
    });
}

int lsm_ipv6_get_first_addr(IFINDEX ifx, u_int8_t addr[16])
{
    return ask(ifx, 0, [&](const Interface &intf) {
        const Address *first = intf.first(AF_INET6);
        if (first == nullptr) {
            return 0;
        }
        std::copy(first->local.begin(), first->local.end(), addr);
        return 1;
    });
}

int lsm_if_get_name(IFINDEX ifx, char *buf, int len)
{
    const int error = ask(
        ifx, ENODEV, [&](const Interface &intf) { return copy_text(intf.link.name, buf, len) ? 0 : EINVAL; });
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

IFINDEX lsm_if_get_index(const char *name)
{
    if (name == nullptr) {
        return 0;
    }
    return client().query([&](const Store &store) {
        const Interface *intf = store.find(std::string_view(name));
        return intf == nullptr ? IFINDEX{0} : intf->link.ifx;
    });
}

int lsm_if_get_type(IFINDEX ifx)
{
    return ask(ifx, int{LSM_IF_TYPE_UNKNOWN},
               [](const Interface &intf) -> int { return type_of(intf.link); });
}

int lsm_if_is_subinterface(IFINDEX ifx)
{
    return ask(ifx, 0, [](const Interface &intf) { return is_subinterface(intf.link) ? 1 : 0; });
}

int lsm_if_get_top_stack(IFINDEX ifx)
{
    return ask(ifx, 0, [](const Interface &intf) -> int {
        if (bridge_of(intf.link) != 0) {
            return LSM_IF_STACK_BRIDGE;
        }
        return aggregate_of(intf.link) != 0 ? LSM_IF_STACK_PHYSICAL : LSM_IF_STACK_TCPIP;
    });
}

IFINDEX lsm_if_get_main_index(IFINDEX ifx)
{
    return ask(ifx, IFINDEX{0}, [](const Interface &intf) { return main_index(intf.link); });
}

u_int32_t lsm_if_get_flags(IFINDEX ifx)
{
    return ask(ifx, u_int32_t{0}, [](const Interface &intf) { return flags_of(intf.link); });
}

u_int32_t lsm_if_get_kind_mask(IFINDEX ifx)
{
    return ask(ifx, u_int32_t{0}, [](const Interface &intf) { return intf.kind; });
}

int lsm_if_get_vrf(IFINDEX ifx)
{
    return ask(ifx, -1, [](const Interface &intf) { return static_cast<int>(vrf_of(intf.link)); });
}

int lsm_vrf_name2index(const char *name)
{
    if (name == nullptr) {
        return -1;
    }
    return client().query([&](const Store &store) {
        const Interface *vrf = find_vrf(store, name);
        return vrf == nullptr ? -1 : static_cast<int>(vrf->link.ifx);
    });
}

int lsm_vrf_index2name(int vrf, char *buf, int len)
{
    return ask(static_cast<IFINDEX>(vrf), -1, [&](const Interface &intf) {
        if (type_of(intf.link) != LSM_IF_TYPE_VRF) {
            return -1;
        }
        const std::string_view name = intf.link.name;
        return copy_text(name == MGMT_VRF_DEVICE ? LSM_VRF_MGMT_NAME : name, buf, len) ? 0 : -1;
    });
}

int lsm_vrf_bind_socket(int sd, int vrf)
{
    const bool is_vrf = ask(static_cast<IFINDEX>(vrf), false,
                            [](const Interface &intf) { return type_of(intf.link) == LSM_IF_TYPE_VRF; });
    if (!is_vrf) {
        errno = ENODEV;
        return -1;
    }
    return setsockopt(sd, SOL_SOCKET, SO_BINDTOIFINDEX, &vrf, sizeof(vrf));
}

const lsm_intfcb_t *lsm_get_intfcb(IFINDEX ifx)
{
    return ask(ifx, static_cast<const lsm_intfcb_t *>(nullptr),
               [](const Interface &intf) -> const lsm_intfcb_t * {
                   intf.block->acquire();
                   return intf.block.get();
               });
}

void lsm_put_intfcb(const lsm_intfcb_t *intfcb)
{
    if (intfcb != nullptr) {
        static_cast<const ControlBlock *>(intfcb)->release();
    }
}

std::vector<lsm_if_record_t> lsm_if_walk()
{
    return client().query([](const Store &store) {
        std::vector<lsm_if_record_t> records;
        records.reserve(store.size());
        for (const Interface *intf : store.all()) {
            records.push_back(to_record(*intf));
        }
        return records;
    });
}
