// Interface manager: a table of interfaces, and events when the test says so.
#include "fake_state.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>

namespace fake
{
namespace
{

struct Registration {
    bool subscribed = false;
    lsm_iftype_filter filter{};
    lsm_msg_set set{};
    lsm_msg_handler_t handler = nullptr;
};

/// A control block that the code under test holds.
struct HeldBlock {
    lsm_intfcb_t block{};
    lsm_eth_info_t eth{};
};

struct Lsm {
    std::map<IFINDEX, Interface> interfaces;
    std::map<int, std::string> vrfs;
    std::vector<VrfSocket> vrf_sockets;
    std::map<int, Registration> registrations;
    std::vector<std::unique_ptr<HeldBlock>> held;
    lsm_connect_callback_t connect_callback = nullptr;
    kx_thread_master_t *master = nullptr;
    std::optional<int> mode;
    std::vector<IFINDEX> defaults;
};

Lsm &lsm()
{
    static Lsm the_lsm;
    return the_lsm;
}

template <typename Result, typename Function>
Result ask(std::string_view function, IFINDEX ifx, Result otherwise, Function &&answer)
{
    if (const auto result = scripted(function)) {
        return static_cast<Result>(*result);
    }
    const Lock lock = lock_state();
    const auto it = lsm().interfaces.find(ifx);
    return it == lsm().interfaces.end() ? otherwise : answer(it->second);
}

bool copy_text(const std::string &from, char *buf, int len)
{
    if (buf == nullptr || len <= 0) {
        return false;
    }
    const std::size_t count = std::min(from.size(), static_cast<std::size_t>(len) - 1);
    std::memcpy(buf, from.data(), count);
    buf[count] = '\0';
    return true;
}

template <std::size_t N>
bool has_bit(const u_int8_t (&bits)[N], int bit)
{
    return bit >= 0 && bit < static_cast<int>(N) * 8 && (bits[bit / 8] & (1U << (bit % 8))) != 0;
}

bool known_stack(int stack)
{
    return stack == LSM_IF_STACK_PHYSICAL || stack == LSM_IF_STACK_BRIDGE || stack == LSM_IF_STACK_TCPIP;
}

int on_connected(kx_thread_t *)
{
    lsm_connect_callback_t callback = nullptr;
    {
        const Lock lock = lock_state();
        callback = lsm().connect_callback;
    }
    if (callback != nullptr) {
        callback();
    }
    return 0;
}

/// The end of the initial data goes to each handler once.
int on_registration_over(kx_thread_t *)
{
    std::vector<lsm_msg_handler_t> handlers;
    intf_msg_sync_t payload{};
    {
        const Lock lock = lock_state();
        payload.if_count = static_cast<u_int32_t>(lsm().interfaces.size());
        for (const auto &[stack, registration] : lsm().registrations) {
            if (registration.handler != nullptr &&
                std::find(handlers.begin(), handlers.end(), registration.handler) == handlers.end()) {
                handlers.push_back(registration.handler);
            }
        }
    }
    for (const lsm_msg_handler_t handler : handlers) {
        handler(INTF_EVENT_SYNC_DATA_OVER, reinterpret_cast<char *>(&payload),
                static_cast<int>(sizeof payload));
    }
    return 0;
}

int on_defaults(kx_thread_t *)
{
    std::vector<IFINDEX> interfaces;
    {
        const Lock lock = lock_state();
        interfaces.swap(lsm().defaults);
    }
    for (const IFINDEX ifx : interfaces) {
        for (const int stack : {LSM_IF_STACK_PHYSICAL, LSM_IF_STACK_TCPIP}) {
            deliver_lsm(stack, INTF_EVENT_DEFAULT_INDEX,
                        intf_msg_destroy_t{.ifx = ifx, .if_type = lsm_if_get_type(ifx)});
        }
    }
    return 0;
}

bool schedule(kx_thread_func_t function)
{
    kx_thread_master_t *master = nullptr;
    {
        const Lock lock = lock_state();
        master = lsm().master;
    }
    return master != nullptr && kx_thread_add_event(master, function, nullptr) != nullptr;
}

void add_addresses(const std::vector<std::string> &texts, int family, std::vector<lsm_if_addr_t> &out)
{
    for (const std::string &address : texts) {
        lsm_if_addr_t record{};
        record.family = family;
        record.prefix_len = family == AF_INET ? 24 : 64;
        record.usable = true;
        inet_pton(family, address.c_str(), record.addr);
        out.push_back(record);
    }
}

IFINDEX main_index(IFINDEX ifx, const Interface &interface)
{
    return interface.main_index.value_or(ifx);
}

lsm_if_record_t to_record(IFINDEX ifx, const Interface &interface)
{
    lsm_if_record_t out{};
    out.ifx = ifx;
    out.name = interface.name;
    out.type = interface.type;
    out.kind = interface.kind;
    out.flags = interface.flags;
    out.subinterface = interface.subinterface;
    out.admin_up = interface.admin_state == INTF_ADMIN_UP;
    out.oper_up = interface.line_state == INTF_UP;
    out.has_eth_info = interface.eth.has_value();
    out.eth = interface.eth.value_or(lsm_eth_info_t{});
    out.mtu = 1500;
    out.main_index = main_index(ifx, interface);
    out.vrf = interface.vrf;
    add_addresses(interface.ipv4, AF_INET, out.addrs);
    add_addresses(interface.ipv6, AF_INET6, out.addrs);
    return out;
}

void check_address(int family, const std::string &address)
{
    u_int8_t bytes[16];
    if (inet_pton(family, address.c_str(), bytes) != 1) {
        give_up("\"" + address + "\" is no address");
    }
}

} // namespace

void reset_lsm()
{
    const Lock lock = lock_state();
    lsm() = {};
}

void set_interface(IFINDEX ifx, const Interface &interface)
{
    for (const std::string &address : interface.ipv4) {
        check_address(AF_INET, address);
    }
    for (const std::string &address : interface.ipv6) {
        check_address(AF_INET6, address);
    }
    const Lock lock = lock_state();
    lsm().interfaces.insert_or_assign(ifx, interface);
}

void remove_interface(IFINDEX ifx)
{
    const Lock lock = lock_state();
    lsm().interfaces.erase(ifx);
}

void set_vrf(int vrf, const std::string &name)
{
    const Lock lock = lock_state();
    lsm().vrfs[vrf] = name;
}

std::vector<VrfSocket> vrf_sockets()
{
    const Lock lock = lock_state();
    return lsm().vrf_sockets;
}

void remove_vrf(int vrf)
{
    const Lock lock = lock_state();
    lsm().vrfs.erase(vrf);
}

int intfcbs_held()
{
    const Lock lock = lock_state();
    return static_cast<int>(lsm().held.size());
}

bool lsm_subscribed(int stack, int event)
{
    const Lock lock = lock_state();
    const auto it = lsm().registrations.find(stack);
    if (it == lsm().registrations.end() || !it->second.subscribed || !has_bit(it->second.set.bits, event)) {
        return false;
    }
    return std::all_of(std::begin(it->second.filter.bits), std::end(it->second.filter.bits),
                       [](u_int8_t byte) { return byte == 0xFF; });
}

std::optional<int> lsm_mode()
{
    const Lock lock = lock_state();
    return lsm().mode;
}

bool deliver_lsm_bytes(int stack, int event, const void *payload, std::size_t len)
{
    lsm_msg_handler_t handler = nullptr;
    {
        const Lock lock = lock_state();
        const auto it = lsm().registrations.find(stack);
        if (it != lsm().registrations.end() &&
            (event == INTF_EVENT_SYNC_DATA_OVER ||
             (it->second.subscribed && has_bit(it->second.set.bits, event)))) {
            handler = it->second.handler;
        }
    }
    if (handler == nullptr) {
        return false;
    }
    if (payload == nullptr) {
        handler(event, nullptr, 0);
        return true;
    }
    // Word-aligned, and exactly as long as the payload so that the address sanitizer sees a read beyond it.
    const std::unique_ptr<std::byte[]> copy = std::make_unique<std::byte[]>(len);
    std::memcpy(copy.get(), payload, len);
    handler(event, reinterpret_cast<char *>(copy.get()), static_cast<int>(len));
    return true;
}

bool deliver_lsm_null(int stack, int event)
{
    return deliver_lsm_bytes(stack, event, nullptr, 0);
}

} // namespace fake

using namespace fake;

void lsm_agent_set_connect_callback(lsm_connect_callback_t callback)
{
    record("lsm_agent_set_connect_callback");
    const Lock lock = lock_state();
    lsm().connect_callback = callback;
}

int lsm_client_set_mode(int mode)
{
    if (const auto result = record("lsm_client_set_mode", text("mode=%d", mode))) {
        return static_cast<int>(*result);
    }
    if (mode != LSM_CLIENT_MODE_NOTIFY && mode != LSM_CLIENT_MODE_DUPLICATOR) {
        return -1;
    }
    const Lock lock = lock_state();
    lsm().mode = mode;
    return 0;
}

int lsm_client_reg_event_ex(int stack, const lsm_iftype_filter *filter, const lsm_msg_set *set)
{
    if (const auto result = record("lsm_client_reg_event_ex", text("stack=%d", stack))) {
        return static_cast<int>(*result);
    }
    if (!known_stack(stack) || filter == nullptr || set == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    Registration &registration = lsm().registrations[stack];
    registration.subscribed = true;
    registration.filter = *filter;
    registration.set = *set;
    return 0;
}

int lsm_reg_msg_handler_ex(int stack, lsm_msg_handler_t handler)
{
    if (const auto result = record("lsm_reg_msg_handler_ex", text("stack=%d", stack))) {
        return static_cast<int>(*result);
    }
    if (!known_stack(stack) || handler == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    lsm().registrations[stack].handler = handler;
    return 0;
}

int lsm_agent_init(const char *name, kx_thread_master_t *master)
{
    if (const auto result = record("lsm_agent_init", "name=" + string_or_null(name))) {
        return static_cast<int>(*result);
    }
    {
        const Lock lock = lock_state();
        lsm().master = master;
    }
    return schedule(on_connected) ? 0 : -1;
}

int lsm_client_reg_event_over()
{
    if (const auto result = record("lsm_client_reg_event_over")) {
        return static_cast<int>(*result);
    }
    return schedule(on_registration_over) ? 0 : -1;
}

int lsm_raise_default_event(IFINDEX ifx)
{
    if (const auto result = record("lsm_raise_default_event", text("ifx=%u", ifx))) {
        return static_cast<int>(*result);
    }
    {
        const Lock lock = lock_state();
        if (lsm().interfaces.count(ifx) == 0) {
            return -1;
        }
        lsm().defaults.push_back(ifx);
    }
    return schedule(on_defaults) ? 0 : -1;
}

u_int32_t lsm_get_realtime_version(IFINDEX ifx, int stack)
{
    return ask("lsm_get_realtime_version", ifx, u_int32_t{0}, [&](const Interface &intf) -> u_int32_t {
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
    return ask("lsm_netif_get_first_ip_by_index", ifx, u_int32_t{0}, [](const Interface &intf) {
        u_int32_t ip = 0;
        if (!intf.ipv4.empty()) {
            inet_pton(AF_INET, intf.ipv4.front().c_str(), &ip);
        }
        return ip;
    });
}

int lsm_ipv6_get_first_addr(IFINDEX ifx, u_int8_t addr[16])
{
    return ask("lsm_ipv6_get_first_addr", ifx, 0, [&](const Interface &intf) {
        return !intf.ipv6.empty() && inet_pton(AF_INET6, intf.ipv6.front().c_str(), addr) == 1 ? 1 : 0;
    });
}

int lsm_if_get_name(IFINDEX ifx, char *buf, int len)
{
    const int result = ask("lsm_if_get_name", ifx, -1,
                           [&](const Interface &intf) { return copy_text(intf.name, buf, len) ? 0 : -1; });
    if (result != 0) {
        errno = ENODEV;
    }
    return result;
}

IFINDEX lsm_if_get_index(const char *name)
{
    if (const auto result = scripted("lsm_if_get_index")) {
        return static_cast<IFINDEX>(*result);
    }
    const Lock lock = lock_state();
    for (const auto &[ifx, intf] : lsm().interfaces) {
        if (name != nullptr && intf.name == name) {
            return ifx;
        }
    }
    return 0;
}

int lsm_if_get_type(IFINDEX ifx)
{
    return ask("lsm_if_get_type", ifx, 0, [](const Interface &intf) { return intf.type; });
}

int lsm_if_is_subinterface(IFINDEX ifx)
{
    return ask("lsm_if_is_subinterface", ifx, 0,
               [](const Interface &intf) { return intf.subinterface ? 1 : 0; });
}

int lsm_if_get_top_stack(IFINDEX ifx)
{
    return ask("lsm_if_get_top_stack", ifx, 0, [](const Interface &intf) { return intf.top_stack; });
}

IFINDEX lsm_if_get_main_index(IFINDEX ifx)
{
    return ask("lsm_if_get_main_index", ifx, IFINDEX{0},
               [&](const Interface &intf) { return main_index(ifx, intf); });
}

u_int32_t lsm_if_get_flags(IFINDEX ifx)
{
    return ask("lsm_if_get_flags", ifx, u_int32_t{0}, [](const Interface &intf) { return intf.flags; });
}

u_int32_t lsm_if_get_kind_mask(IFINDEX ifx)
{
    return ask("lsm_if_get_kind_mask", ifx, u_int32_t{0}, [](const Interface &intf) { return intf.kind; });
}

int lsm_if_get_vrf(IFINDEX ifx)
{
    return ask("lsm_if_get_vrf", ifx, -1, [](const Interface &intf) { return intf.vrf; });
}

int lsm_vrf_name2index(const char *name)
{
    if (const auto result = scripted("lsm_vrf_name2index")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    for (const auto &[vrf, vrf_name] : lsm().vrfs) {
        if (name != nullptr && vrf_name == name) {
            return vrf;
        }
    }
    return -1;
}

int lsm_vrf_index2name(int vrf, char *buf, int len)
{
    if (const auto result = scripted("lsm_vrf_index2name")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    const auto it = lsm().vrfs.find(vrf);
    return it != lsm().vrfs.end() && copy_text(it->second, buf, len) ? 0 : -1;
}

int lsm_vrf_bind_socket(int sd, int vrf)
{
    {
        const Lock lock = lock_state();
        lsm().vrf_sockets.push_back({sd, vrf});
    }
    if (const auto result = scripted("lsm_vrf_bind_socket"); result && *result != 0) {
        errno = ENODEV;
        return static_cast<int>(*result);
    }
    return 0;
}

const lsm_intfcb_t *lsm_get_intfcb(IFINDEX ifx)
{
    if (scripted("lsm_get_intfcb")) {
        return nullptr;
    }
    const Lock lock = lock_state();
    const auto it = lsm().interfaces.find(ifx);
    if (it == lsm().interfaces.end()) {
        return nullptr;
    }
    const Interface &intf = it->second;
    lsm().held.push_back(std::make_unique<HeldBlock>());
    HeldBlock &held = *lsm().held.back();
    held.block = {.ifx = ifx,
                  .if_type = intf.type,
                  .admin_state = intf.admin_state,
                  .line_state = intf.line_state,
                  .eth_info = nullptr};
    if (intf.eth) {
        held.eth = *intf.eth;
        held.block.eth_info = &held.eth;
    }
    return &held.block;
}

void lsm_put_intfcb(const lsm_intfcb_t *intfcb)
{
    if (intfcb == nullptr) {
        return;
    }
    const Lock lock = lock_state();
    const std::size_t put = std::erase_if(
        lsm().held, [&](const std::unique_ptr<HeldBlock> &held) { return &held->block == intfcb; });
    if (put == 0) {
        give_up("a control block was put back that nobody holds");
    }
}

std::vector<lsm_if_record_t> lsm_if_walk()
{
    const Lock lock = lock_state();
    std::vector<lsm_if_record_t> records;
    for (const auto &[ifx, intf] : lsm().interfaces) {
        records.push_back(to_record(ifx, intf));
    }
    return records;
}
