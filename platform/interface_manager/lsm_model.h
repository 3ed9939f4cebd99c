// What the interface manager knows about interfaces, in the kernel's own terms, and how that maps to
// interface types, kinds and flags. Plain values: no netlink, no locks.
#pragma once

#include "platform/lsm.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform::lsm
{

/// One network device as RTM_NEWLINK describes it.
struct Link {
    IFINDEX ifx = 0;
    std::string name;
    std::string kind;        ///< IFLA_INFO_KIND; empty for a driver without one
    std::string slave_kind;  ///< IFLA_INFO_SLAVE_KIND: kind of the device that `master` is
    unsigned hw_type = 0;    ///< ARPHRD_*
    unsigned flags = 0;      ///< IFF_*
    unsigned oper_state = 0; ///< IF_OPER_*
    u_int32_t mtu = 0;       ///< bytes
    std::array<u_int8_t, 6> mac{};
    IFINDEX master = 0;
    IFINDEX parent = 0;            ///< IFLA_LINK; 0 none
    bool parent_elsewhere = false; ///< `parent` counts in another network namespace

    bool operator==(const Link &) const = default;
};

/// One address as RTM_NEWADDR describes it.
struct Address {
    int family = 0;                   ///< AF_INET or AF_INET6
    std::array<u_int8_t, 16> local{}; ///< network order; IPv4 takes the first 4 bytes
    std::array<u_int8_t, 16> peer{};  ///< other end of a point-to-point address, else zero
    unsigned prefix_len = 0;
    unsigned scope = 0; ///< RT_SCOPE_*
    unsigned flags = 0; ///< IFA_F_*

    bool operator==(const Address &) const = default;
};

/// Whether two records describe the same address, their changeable properties aside.
[[nodiscard]] bool same_address(const Address &lhs, const Address &rhs);

/// Whether the kernel ranks the address behind others: IPv4, not the first of its subnet; IPv6, temporary.
[[nodiscard]] bool is_secondary(const Address &address);

/// Whether a socket can be bound to the address now.
[[nodiscard]] bool is_usable(const Address &address);

struct EthInfo {
    lsm_duplex_t duplex = LSM_DUPLEX_AUTO;
    LSM_SPEED_TYPE speed = 0; ///< Mbit/s

    bool operator==(const EthInfo &) const = default;
};

/// One interface with its addresses, as a dump delivers it. Addresses in the kernel's order.
struct LinkState {
    Link link;
    std::vector<Address> addresses;
    std::optional<EthInfo> eth;
};

/// lsm_if_type_t of a device.
[[nodiscard]] lsm_if_type_t type_of(const Link &link);
[[nodiscard]] bool is_subinterface(const Link &link);
/// LSM_IF_FLAG_* of a device.
[[nodiscard]] u_int32_t flags_of(const Link &link);
/// lsm_if_kind_t bits of a device, LSM_IF_KIND_MANAGEMENT excepted.
[[nodiscard]] u_int32_t kind_of(const Link &link);

[[nodiscard]] bool is_admin_up(const Link &link);
/// Whether the device can carry traffic: up, with carrier, and not held back by a protocol (RFC 2863
/// dormant).
[[nodiscard]] bool is_line_up(const Link &link);

/// The aggregate, bridge or VRF that the device is a member of; 0 when its master, if any, is of another
/// kind.
[[nodiscard]] IFINDEX aggregate_of(const Link &link);
[[nodiscard]] IFINDEX bridge_of(const Link &link);
/// A VRF device is in itself.
[[nodiscard]] IFINDEX vrf_of(const Link &link);

/// Whether the device exists on LSM_IF_STACK_PHYSICAL or LSM_IF_STACK_TCPIP; other stacks hold nothing.
[[nodiscard]] bool exists_on(const Link &link, int stack);

} // namespace platform::lsm
