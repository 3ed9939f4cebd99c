#include "cli_platform_double.h"

#include "platform/syslog_client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <utility>

namespace platform_double
{

std::mutex lock;
State state;

lsm_if_record_t interface(IFINDEX ifx, const std::string &name, u_int32_t kind)
{
    lsm_if_record_t record{};
    record.ifx = ifx;
    record.name = name;
    record.kind = kind;
    record.type = kind == LSM_IF_KIND_AGGREGATE ? LSM_IF_TYPE_AGGREGATE : LSM_IF_TYPE_ETHERNET;
    record.subinterface = kind == LSM_IF_KIND_SUBINTERFACE;
    record.main_index = ifx;
    record.mtu = 1500;
    return record;
}

void reset()
{
    const std::lock_guard guard(lock);
    state = {};
    lsm_if_record_t loopback = interface(1, "lo", LSM_IF_KIND_LOOPBACK);
    loopback.flags = LSM_IF_FLAG_INTERNAL;
    lsm_if_record_t eth0 = interface(2, "eth0", LSM_IF_KIND_PORT);
    eth0.admin_up = eth0.oper_up = eth0.has_eth_info = true;
    eth0.eth = {LSM_DUPLEX_FULL, 10000};
    lsm_if_addr_t address{};
    address.family = AF_INET;
    inet_pton(AF_INET, "10.0.0.1", address.addr);
    address.prefix_len = 24;
    eth0.addrs.push_back(address);
    lsm_if_record_t vlan = interface(12, "eth0.5", LSM_IF_KIND_SUBINTERFACE);
    vlan.main_index = 2;
    state.interfaces = {loopback, eth0, interface(3, "eth1", LSM_IF_KIND_PORT),
                        interface(10, "bond0", LSM_IF_KIND_AGGREGATE), vlan};
}

std::vector<std::string> take_log()
{
    const std::lock_guard guard(lock);
    return std::exchange(state.log, {});
}

namespace
{

const lsm_if_record_t *find(const std::function<bool(const lsm_if_record_t &)> &wanted)
{
    const auto found = std::find_if(state.interfaces.begin(), state.interfaces.end(), wanted);
    return found == state.interfaces.end() ? nullptr : &*found;
}

const lsm_if_record_t *by_index(IFINDEX ifx)
{
    return find([&](const lsm_if_record_t &record) { return record.ifx == ifx; });
}

} // namespace
} // namespace platform_double

using namespace platform_double;

IFINDEX lsm_if_get_index(const char *name)
{
    const std::lock_guard guard(platform_double::lock);
    const lsm_if_record_t *const record = find([&](const lsm_if_record_t &r) { return r.name == name; });
    return record == nullptr ? 0 : record->ifx;
}

int lsm_if_get_name(IFINDEX ifx, char *buf, int len)
{
    const std::lock_guard guard(platform_double::lock);
    const lsm_if_record_t *const record = by_index(ifx);
    if (record == nullptr)
        return -1;
    std::snprintf(buf, static_cast<std::size_t>(len), "%s", record->name.c_str());
    return 0;
}

u_int32_t lsm_if_get_flags(IFINDEX ifx)
{
    const std::lock_guard guard(platform_double::lock);
    const lsm_if_record_t *const record = by_index(ifx);
    return record == nullptr ? 0 : record->flags;
}

u_int32_t lsm_if_get_kind_mask(IFINDEX ifx)
{
    const std::lock_guard guard(platform_double::lock);
    const lsm_if_record_t *const record = by_index(ifx);
    return record == nullptr ? 0 : record->kind;
}

int lsm_vrf_index2name(int vrf, char *buf, int len)
{
    if (vrf != 30)
        return -1;
    std::snprintf(buf, static_cast<std::size_t>(len), "blue");
    return 0;
}

std::vector<lsm_if_record_t> lsm_if_walk()
{
    const std::lock_guard guard(platform_double::lock);
    return state.interfaces;
}

int lsm_raise_default_event(IFINDEX ifx)
{
    const std::lock_guard guard(platform_double::lock);
    if (by_index(ifx) == nullptr)
        return -1;
    state.returned_to_defaults.push_back(ifx);
    return 0;
}

void printk_syslog_ext(int level, const char *module, const char *mnemonic, int /*dest*/, const char *format,
                       ...)
{
    char text[4096];
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const std::lock_guard guard(platform_double::lock);
    state.log.push_back("%" + std::string(module) + "-" + std::to_string(level) + "-" + mnemonic + ": " +
                        text);
}

void tech_set_cli_hooks(const tech_cli_hooks_t *hooks)
{
    const std::lock_guard guard(platform_double::lock);
    state.hooks = hooks == nullptr ? tech_cli_hooks_t{} : *hooks;
}

int tech_collect(const tech_sink_t &sink, std::chrono::milliseconds /*patience*/)
{
    std::function<int(const tech_sink_t &)> collect;
    {
        const std::lock_guard guard(platform_double::lock);
        collect = state.collect;
    }
    return collect ? collect(sink) : -1;
}

int tech_collect_detail(const tech_sink_t &sink, const std::function<bool()> & /*has_room*/,
                        std::chrono::milliseconds patience)
{
    return tech_collect(sink, patience);
}

void sys_show_debug(const tech_sink_t &sink)
{
    std::string listing;
    {
        const std::lock_guard guard(platform_double::lock);
        listing = state.debug_listing;
    }
    sink(listing);
}
