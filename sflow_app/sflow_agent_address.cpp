// Agent and source addresses: the address that every datagram carries, and the one it is sent from.
//
// Each is an explicit address or that of an interface, never both. Operators' commands and interface events
// call this on the CLI thread. Pending samples always leave before an address that they were built for
// changes; the socket is opened anew for the next datagram and then takes the source of the moment.

#include "sflow_agent_internal.h"

#include "sflow_bytes.h"
#include "sflow_cli.h"
#include "sflow_dbg.h"

#include <cstring>

namespace
{

/// Valid bytes of sfladdress_value_t::ip_v6.
constexpr size_t IPV6_LEN = 16;

bool same_v4(const sfladdress_value_t &a, const sfladdress_value_t &b)
{
    return a.ip_v4 == b.ip_v4;
}

bool same_v6(const sfladdress_value_t &a, const sfladdress_value_t &b)
{
    return std::memcmp(a.ip_v6, b.ip_v6, IPV6_LEN) == 0;
}

void close_sockets()
{
    for (sflreceiver_t &receiver : sflow_agent.receivers)
        sflow_close_socket(&receiver);
}

void reform(const char *function)
{
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", function);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", function);
}

void forget_agent_address() SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_receiver_send_all_receiver_sample();
    std::memset(&sflow_agent.agent_ip, 0, sizeof(sflow_agent.agent_ip));
}

void forget_source()
{
    std::memset(&sflow_agent.source_ip, 0, sizeof(sflow_agent.source_ip));
}

bool is_collector(const sfladdress_value_t &address)
{
    for (const sflreceiver_t &receiver : sflow_agent.receivers) {
        if (receiver.is_enable && sflow_same_bytes(receiver.address.address, address))
            return true;
    }
    return false;
}

int set_agent_address(const sflow_agent_address_t *addr) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_agent_cfg_type_t current = sflow_agent.agent_ip.cfg_type;
    if (current == SFLOW_AGENT_TYPE_ADDRESS && addr->cfg_type == SFLOW_AGENT_TYPE_INTERFACE) {
        cli_printf("config failure because sflow agent address has already configured.\n");
        return -1;
    }
    if (current == SFLOW_AGENT_TYPE_INTERFACE && addr->cfg_type == SFLOW_AGENT_TYPE_ADDRESS) {
        cli_printf("config failure because sflow agent interface has already configured.\n");
        return -1;
    }
    if (is_collector(addr->address)) {
        cli_printf("%% Sflow agent address is same as sflow collector destination address.\n");
        return -1;
    }
    if (sflow_same_bytes(sflow_agent.agent_ip, *addr)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set agent address is the same\n");
        return -1;
    }
    sflow_receiver_send_all_receiver_sample();
    std::memcpy(&sflow_agent.agent_ip, addr, sizeof(*addr));
    sflow_receiver_reset_all_buf();
    return 0;
}

bool is_same_source(const sflow_source_address_t &current, const sflow_source_address_t &src)
{
    return current.cfg_type == src.cfg_type && current.ifindex == src.ifindex && current.type == src.type &&
           same_v4(current.v4_address, src.v4_address) && same_v6(current.v6_address, src.v6_address);
}

/// Clears the first family that the request names and matches, IPv4 before IPv6. Whether one was cleared.
bool clear_source_family(const sflow_source_address_t *src, bool v4_matches, bool v6_matches)
{
    sflow_source_address_t &current = sflow_agent.source_ip;
    if ((src->type & SFLOW_FAMILY_IPV4) != 0 && v4_matches) {
        current.type &= ~SFLOW_FAMILY_IPV4;
        current.v4_address = {};
        return true;
    }
    if ((src->type & SFLOW_FAMILY_IPV6) != 0 && v6_matches) {
        current.type &= ~SFLOW_FAMILY_IPV6;
        std::memset(&current.v6_address, 0, sizeof(current.v6_address));
        return true;
    }
    return false;
}

/// Whether the request asks for the whole record to go, families apart.
bool is_source_clear_request(const sflow_source_address_t *src, bool cleared)
{
    if (src->cfg_type == SFLOW_SOURCE_TYPE_INTERFACE)
        return src->ifindex == 0 && !cleared;
    return (src->type & (SFLOW_FAMILY_IPV4 | SFLOW_FAMILY_IPV6)) == 0;
}

void del_source_address(const sflow_source_address_t *src)
{
    const sflow_source_address_t &current = sflow_agent.source_ip;
    sflow_receiver_send_all_receiver_sample();
    bool cleared = false;
    if (src->cfg_type == SFLOW_SOURCE_TYPE_ADDRESS) {
        cleared = clear_source_family(src, same_v4(src->v4_address, current.v4_address),
                                      same_v6(src->v6_address, current.v6_address));
    } else if (src->cfg_type == SFLOW_SOURCE_TYPE_INTERFACE) {
        const bool matches = src->ifindex == current.ifindex;
        cleared = clear_source_family(src, matches, matches);
    }
    if (is_source_clear_request(src, cleared) ||
        (current.type & (SFLOW_FAMILY_IPV4 | SFLOW_FAMILY_IPV6)) == 0)
        forget_source();
    close_sockets();
}

void del_collector_source(sflreceiver_t *receiver, IFINDEX ifx)
{
    sfladdress_t &collector = receiver->address;
    if (collector.src_type == SFLOW_SOURCE_TYPE_INTERFACE && collector.ifindex == ifx) {
        sflow_receiver_send_all_receiver_sample();
        collector.src_type = SFLOW_SOURCE_TYPE_INVALID;
        collector.ifindex = 0;
        std::memset(&collector.src_address, 0, sizeof(collector.src_address));
    }
    sflow_close_socket(receiver);
}

} // namespace

int sflow_agent_set_address(const sflow_agent_address_t *addr)
{
    sflow_config_wrlock();
    const int ret = set_agent_address(addr);
    sflow_config_wrunlock();
    return ret;
}

void sflow_agent_del_address(sflow_agent_cfg_type_t type)
{
    sflow_config_wrlock();
    if (sflow_agent.agent_ip.cfg_type == type)
        forget_agent_address();
    sflow_config_wrunlock();
}

void sflow_agent_get_address(sflow_agent_address_t *out)
{
    sflow_config_rdlock();
    std::memcpy(out, &sflow_agent.agent_ip, sizeof(*out));
    sflow_config_rdunlock();
}

void sflow_agent_del_intf_notify(IFINDEX ifx)
{
    sflow_config_wrlock();
    if (sflow_agent.agent_ip.cfg_type == SFLOW_AGENT_TYPE_INTERFACE && sflow_agent.agent_ip.ifindex == ifx)
        forget_agent_address();
    sflow_config_wrunlock();
    reform(__func__);
}

bool sflow_is_source_addr_need_proc(const sflow_source_address_t *src)
{
    const sflow_source_address_t &current = sflow_agent.source_ip;
    if (src->cfg_type == SFLOW_SOURCE_TYPE_INVALID) {
        cli_printf("invalid config type.\n");
        return false;
    }
    if (current.cfg_type == SFLOW_SOURCE_TYPE_ADDRESS && src->cfg_type == SFLOW_SOURCE_TYPE_INTERFACE) {
        cli_printf("config failure because sflow source address has already configured.\n");
        return false;
    }
    if (current.cfg_type == SFLOW_SOURCE_TYPE_INTERFACE && src->cfg_type == SFLOW_SOURCE_TYPE_ADDRESS) {
        cli_printf("config failure because sflow source interface has already configured.\n");
        return false;
    }
    if (is_same_source(current, *src)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set source address is the same\n");
        return false;
    }
    return true;
}

int sflow_source_set_address(const sflow_source_address_t *src)
{
    sflow_config_wrlock();
    const bool apply = sflow_is_source_addr_need_proc(src);
    if (apply) {
        sflow_receiver_send_all_receiver_sample();
        std::memcpy(&sflow_agent.source_ip, src, sizeof(*src));
        sflow_agent.source_ip.is_src_cfg = 1;
        sflow_receiver_reset_all_buf();
        close_sockets();
    }
    sflow_config_wrunlock();
    return apply ? 0 : -1;
}

void sflow_source_del_address(const sflow_source_address_t *src)
{
    sflow_config_wrlock();
    if (sflow_agent.source_ip.cfg_type == src->cfg_type)
        del_source_address(src);
    sflow_config_wrunlock();
}

// The write lock keeps out counters samples too, whose sending records the address used in the same record.
void sflow_source_get_address(sflow_source_address_t *out)
{
    sflow_config_wrlock();
    std::memcpy(out, &sflow_agent.source_ip, sizeof(*out));
    sflow_config_wrunlock();
}

void sflow_source_clear()
{
    sflow_config_wrlock();
    sflow_receiver_send_all_receiver_sample();
    forget_source();
    sflow_config_wrunlock();
}

void sflow_source_del_intf_notify(IFINDEX ifx)
{
    sflow_config_wrlock();
    if (sflow_agent.source_ip.cfg_type == SFLOW_SOURCE_TYPE_INTERFACE &&
        sflow_agent.source_ip.ifindex == ifx) {
        sflow_receiver_send_all_receiver_sample();
        forget_source();
        close_sockets();
    }
    for (sflreceiver_t &receiver : sflow_agent.receivers)
        del_collector_source(&receiver, ifx);
    sflow_config_wrunlock();
    reform(__func__);
}
