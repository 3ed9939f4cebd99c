// Which addresses an operator may enter as a host's (module sflow_cli). Pure functions, any thread.
#include "sflow_cli.h"
#include "sflow_dbg.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>

namespace
{

struct ipv6_class_t {
    u_int8_t prefix[16];
    int bits; ///< length of the prefix
    int type;
};

/// First match wins; what matches nothing is plain unicast.
constexpr ipv6_class_t IPV6_CLASSES[] = {
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 128, SFLOW_IPV6_ANY},
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128, SFLOW_IPV6_LOOPBACK | SFLOW_IPV6_UNICAST},
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 96, SFLOW_IPV6_COMPATV4 | SFLOW_IPV6_UNICAST},
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, 96, SFLOW_IPV6_MAPPED},
    {{0xfe, 0x80}, 10, SFLOW_IPV6_LINKLOCAL | SFLOW_IPV6_UNICAST},
    {{0xfe, 0xc0}, 10, SFLOW_IPV6_SITELOCAL | SFLOW_IPV6_UNICAST},
    {{0xff}, 8, SFLOW_IPV6_MULTICAST},
};

/// Bits of the scopes that a multicast address (RFC 4291 section 2.7) can have; others have none.
struct multicast_scope_t {
    int scope;
    int type;
};
constexpr multicast_scope_t MULTICAST_SCOPES[] = {
    {1, SFLOW_IPV6_LOOPBACK},
    {2, SFLOW_IPV6_LINKLOCAL},
    {5, SFLOW_IPV6_SITELOCAL},
};

bool sflow_has_prefix(const u_int8_t *addr, const ipv6_class_t &row)
{
    const auto whole = static_cast<size_t>(row.bits / 8);
    if (std::memcmp(addr, row.prefix, whole) != 0)
        return false;
    const int rest = row.bits % 8;
    return rest == 0 || ((addr[whole] ^ row.prefix[whole]) >> (8 - rest)) == 0;
}

int sflow_multicast_scope_type(const u_int8_t *addr)
{
    for (const multicast_scope_t &row : MULTICAST_SCOPES) {
        if ((addr[1] & 0x0f) == row.scope)
            return row.type;
    }
    return 0;
}

} // namespace

int ipv6_addr_type(const u_int8_t *addr)
{
    for (const ipv6_class_t &row : IPV6_CLASSES) {
        if (!sflow_has_prefix(addr, row))
            continue;
        return row.type == SFLOW_IPV6_MULTICAST ? row.type | sflow_multicast_scope_type(addr) : row.type;
    }
    return SFLOW_IPV6_UNICAST;
}

int is_loopback_ip(u_int32_t addr)
{
    return addr >> 24 == IN_LOOPBACKNET ? 1 : 0;
}

int ip_chk_srcaddr(u_int32_t addr)
{
    // Class D, class E and the broadcast address have the top three bits set.
    const bool is_group = (addr & 0xE0000000U) == 0xE0000000U;
    const bool is_this_network = addr >> 24 == 0;
    return is_group || is_this_network || is_loopback_ip(addr) != 0 ? 0 : 1;
}

int sflow_is_valid_ip(u_int32_t addr)
{
    return ip_chk_srcaddr(ntohl(addr));
}

int sflow_is_valid_ipv6(const u_int8_t *addr)
{
    if (addr == nullptr)
        return 0;
    const int type = ipv6_addr_type(addr);
    // The two bytes are a full-width colon in GBK; operators' log filters know the line by it.
    SFLOW_LOG_CONF("[SFLOW-CONF]%s\xA3\xBA"
                   "addr type = %d\n",
                   __func__, type);
    const bool is_refused =
        type == SFLOW_IPV6_ANY || (type & (SFLOW_IPV6_MULTICAST | SFLOW_IPV6_LOOPBACK)) != 0;
    return is_refused ? 0 : 1;
}
