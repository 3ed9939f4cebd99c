// Sockets of the receivers: a fresh UDP socket for every datagram, in the collector's VRF and bound to its
// source.
//
// Runs on the thread that sends, inside the `config_lock` that this thread holds. The IPv4 and the IPv6
// variant are one algorithm and two rows of differences. Every line logged is formatted with the variant's
// public name. Never sends anything itself and never keeps a socket beyond the next datagram.
#include "sflow_receiver_internal.h"

#include "sflow_agent.h"
#include "sflow_dbg.h"

#include "platform/lsm.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace
{

/// What the two address families do differently.
struct family_t {
    const char *name; ///< of the public function, for the log
    const char *gap;  ///< between that name and the outcome of socket()
    const char *got_name;
    bool log_vrf;
    int domain;
    int vrf_level; ///< socket option that puts a socket into a VRF, on the kernel of the platform
    int vrf_option;
    socklen_t sockaddr_len;
    size_t value_len; ///< bytes of an address
    sfladdress_value_t sflow_source_address_t::*global_source;
    sflow_sockaddr_t (*sockaddr_of)(const sfladdress_value_t *address, u_int16_t port);
    const void *(*value_of)(const sflow_sockaddr_t *sockaddr);
    bool (*first_address)(IFINDEX ifx, sfladdress_value_t *address);
};

} // namespace

sflow_sockaddr_t sflow_ipv4_sockaddr(const sfladdress_value_t *address, u_int16_t port)
{
    sflow_sockaddr_t result;
    std::memset(&result, 0, sizeof(result));
    result.v4.sin_family = AF_INET;
    result.v4.sin_port = htons(port);
    std::memcpy(&result.v4.sin_addr, address, sizeof(result.v4.sin_addr));
    return result;
}

sflow_sockaddr_t sflow_ipv6_sockaddr(const sfladdress_value_t *address, u_int16_t port)
{
    sflow_sockaddr_t result;
    std::memset(&result, 0, sizeof(result));
    result.v6.sin6_family = AF_INET6;
    result.v6.sin6_port = htons(port);
    std::memcpy(&result.v6.sin6_addr, address, sizeof(result.v6.sin6_addr));
    return result;
}

static const void *ipv4_value(const sflow_sockaddr_t *sockaddr)
{
    return &sockaddr->v4.sin_addr;
}

static const void *ipv6_value(const sflow_sockaddr_t *sockaddr)
{
    return &sockaddr->v6.sin6_addr;
}

static sfladdress_value_t no_address()
{
    sfladdress_value_t zero;
    std::memset(&zero, 0, sizeof(zero));
    return zero;
}

static bool first_ipv4_address(IFINDEX ifx, sfladdress_value_t *address)
{
    *address = no_address();
    address->ip_v4 = lsm_netif_get_first_ip_by_index(ifx);
    return address->ip_v4 != 0;
}

static bool first_ipv6_address(IFINDEX ifx, sfladdress_value_t *address)
{
    *address = no_address();
    return lsm_ipv6_get_first_addr(ifx, address->ip_v6) != 0;
}

static constexpr family_t IPV4 = {
    .name = "sflow_receiver_bind_ipv4_socket",
    .gap = "  ",
    .got_name = "get socket name success",
    .log_vrf = false,
    .domain = AF_INET,
    .vrf_level = IPPROTO_IP,
    .vrf_option = 53,
    .sockaddr_len = sizeof(sockaddr_in),
    .value_len = sizeof(in_addr),
    .global_source = &sflow_source_address_t::v4_address,
    .sockaddr_of = sflow_ipv4_sockaddr,
    .value_of = ipv4_value,
    .first_address = first_ipv4_address,
};

static constexpr family_t IPV6 = {
    .name = "sflow_receiver_bind_ipv6_socket",
    .gap = " ",
    .got_name = "get socket name success ipv6 addr",
    .log_vrf = true,
    .domain = AF_INET6,
    .vrf_level = IPPROTO_IPV6,
    .vrf_option = 104,
    .sockaddr_len = sizeof(sockaddr_in6),
    .value_len = sizeof(in6_addr),
    .global_source = &sflow_source_address_t::v6_address,
    .sockaddr_of = sflow_ipv6_sockaddr,
    .value_of = ipv6_value,
    .first_address = first_ipv6_address,
};

void sflow_init_socket_id(sflreceiver_t *receiver)
{
    if (receiver != nullptr)
        receiver->sd = -1;
}

void sflow_get_socket_id(sflreceiver_t *receiver, int domain)
{
    if (receiver != nullptr)
        receiver->sd = socket(domain, SOCK_DGRAM, 0);
}

void sflow_close_socket(void *receiver)
{
    sflreceiver_t *owner = static_cast<sflreceiver_t *>(receiver);
    if (owner == nullptr || owner->sd == -1)
        return;
    close(owner->sd);
    owner->sd = -1;
}

static int open_socket(sflreceiver_t *receiver, const family_t &family)
{
    sflow_close_socket(receiver);
    sflow_get_socket_id(receiver, family.domain);
    if (receiver->sd == -1) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s%screate socket fail\n", family.name, family.gap);
        return -1;
    }
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s%screate socket success:%d\n", family.name, family.gap, receiver->sd);
    return 0;
}

/// A socket without these options still reaches most collectors, so a refusal is only logged. Where the kernel does
/// not know the VRF options, the platform binds the socket; what cannot be bound must not go out by the default VRF.
static int set_options(const sflreceiver_t *receiver, const family_t &family)
{
    const int reuse = 1;
    if (setsockopt(receiver->sd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0)
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s set sock opt fail:%s\n", family.name, std::strerror(errno));

    const int vrf = receiver->address.vrf_index;
    if (family.log_vrf)
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s vrf id:%d\n", family.name, vrf);
    if (vrf == 0 || setsockopt(receiver->sd, family.vrf_level, family.vrf_option, &vrf, sizeof(vrf)) == 0)
        return 0;
    const int error = errno;
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s set sock vrf opt fail:%s\n", family.name, std::strerror(error));
    return error == ENOPROTOOPT ? lsm_vrf_bind_socket(receiver->sd, vrf) : 0;
}

static int bind_to(const sflreceiver_t *receiver, const family_t &family, const sfladdress_value_t *source)
{
    const sflow_sockaddr_t local = family.sockaddr_of(source, 0);
    return bind(receiver->sd, &local.any, family.sockaddr_len);
}

/// Binds to the collector's own source, kept in `source`; negative when it has none or it cannot be used.
static int bind_collector_source(const sflreceiver_t *receiver, const family_t &family,
                                 sfladdress_value_t *source)
{
    const sfladdress_t &collector = receiver->address;
    int ret = -1;
    if (collector.src_type == SFLOW_SOURCE_TYPE_ADDRESS) {
        std::memcpy(source, &collector.src_address, sizeof(*source));
        ret = bind_to(receiver, family, source);
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind collector source address, ret %d\n", family.name, ret);
    } else if (collector.src_type == SFLOW_SOURCE_TYPE_INTERFACE) {
        if (!family.first_address(collector.ifindex, source)) {
            SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind collector source interface, get address failed\n",
                           family.name);
            return -1;
        }
        ret = bind_to(receiver, family, source);
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind collector source interface, ret %d\n", family.name, ret);
    }
    return ret;
}

/// The same for the global source. A global source address of the other family only leaves this family's
/// value zero: the socket is then bound to the wildcard and counts as bound to a source, on purpose.
static int bind_global_source(const sflreceiver_t *receiver, const family_t &family,
                              sfladdress_value_t *source)
{
    const sflow_source_address_t &global = sflow_agent.source_ip;
    if (global.is_src_cfg != 1)
        return -1;
    int ret = -1;
    if (global.cfg_type == SFLOW_SOURCE_TYPE_ADDRESS) {
        std::memcpy(source, &(global.*family.global_source), sizeof(*source));
        ret = bind_to(receiver, family, source);
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind source address, ret %d\n", family.name, ret);
    } else if (global.cfg_type == SFLOW_SOURCE_TYPE_INTERFACE) {
        if (!family.first_address(global.ifindex, source)) {
            SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind source interface, get address failed\n", family.name);
            return -1;
        }
        ret = bind_to(receiver, family, source);
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  bind source interface, ret %d\n", family.name, ret);
    }
    return ret;
}

/// Closes the socket when `ret`, the outcome of the last way to bind it, is a failure; returns it.
static int close_unbound(sflreceiver_t *receiver, const family_t &family, int ret)
{
    if (ret < 0) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s bind socket fail:%d, %s\n", family.name, ret, std::strerror(errno));
        sflow_close_socket(receiver);
    }
    return ret;
}

static int bind_wildcard(sflreceiver_t *receiver, const family_t &family)
{
    const sfladdress_value_t wildcard = no_address();
    return close_unbound(receiver, family, bind_to(receiver, family, &wildcard));
}

static void *used_address(const sflreceiver_t *receiver)
{
    return &sflow_agent.source_ip.used_address[receiver->cid - 1];
}

/// Has the routing table choose the source: connects the socket and records the local address that results.
static int connect_to_collector(sflreceiver_t *receiver, const family_t &family)
{
    const sflow_sockaddr_t collector =
        family.sockaddr_of(&receiver->address.address, receiver->collector_port);
    if (connect(receiver->sd, &collector.any, family.sockaddr_len) != 0) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s connect fail:%s\n", family.name, std::strerror(errno));
        sflow_close_socket(receiver);
        std::memset(used_address(receiver), 0, family.value_len);
        return -1;
    }
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s connect success\n", family.name);

    sflow_sockaddr_t local;
    socklen_t local_len = sizeof(local);
    if (getsockname(receiver->sd, &local.any, &local_len) != 0) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s get socket name fail:%s\n", family.name, std::strerror(errno));
        return 0;
    }
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s %s\n", family.name, family.got_name);
    std::memcpy(used_address(receiver), family.value_of(&local), family.value_len);
    return 0;
}

static int bind_socket(sflreceiver_t *receiver, const family_t &family)
{
    if (open_socket(receiver, family) != 0 ||
        close_unbound(receiver, family, set_options(receiver, family)) < 0)
        return -1;

    sfladdress_value_t source = no_address();
    if (bind_collector_source(receiver, family, &source) < 0 &&
        bind_global_source(receiver, family, &source) < 0) {
        if (bind_wildcard(receiver, family) < 0)
            return -1;
        return connect_to_collector(receiver, family);
    }
    std::memcpy(used_address(receiver), &source, family.value_len);
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s  source address bind success\n", family.name);
    return 0;
}

int sflow_receiver_bind_ipv4_socket(sflreceiver_t *receiver)
{
    return bind_socket(receiver, IPV4);
}

int sflow_receiver_bind_ipv6_socket(sflreceiver_t *receiver)
{
    return bind_socket(receiver, IPV6);
}
