// Interface manager client: interfaces, their addresses, VRFs and link facts, and the events that change
// them.
//
// A process has one client. It is set up on the thread that owns the thread master given to lsm_agent_init(),
// in this order: lsm_agent_set_connect_callback(), lsm_client_set_mode(), one lsm_client_reg_event_ex() and
// one lsm_reg_msg_handler_ex() a stack, lsm_agent_init(). The connect callback and every message handler run
// on that thread master, one at a time; the connect callback declares the registration complete with
// lsm_client_reg_event_over().
//
// Queries (everything below "Queries") may be made from any thread and from inside handlers. They answer from
// the manager's copy of the interface data, never block on the manager and never call back. An event is
// delivered after the copy has changed: a handler that asks sees the state that the event announces, or a
// later one. Before lsm_agent_init() has succeeded, every query answers as for an unknown interface.
#pragma once

#include "platform/kx_thread.h"
#include "sflow_types.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

// ---- Numbers ---------------------------------------------------------------------------------------------

/// Event numbers, also the bit numbers of lsm_msg_set.
enum intf_event_type_index : int {
    INTF_EVENT_CREATE_INDEX = 0,      ///< intf_msg_create_t: the interface appeared on the handler's stack
    INTF_EVENT_DESTROY_INDEX = 1,     ///< intf_msg_destroy_t: it left the handler's stack
    INTF_EVENT_DEFAULT_INDEX = 2,     ///< intf_msg_destroy_t: the operator returned it to its defaults
    INTF_EVENT_ADMIN_STATE_INDEX = 3, ///< intf_msg_state_t
    INTF_EVENT_LINK_STATE_INDEX = 4,  ///< intf_msg_state_t
    INTF_EVENT_AGG_INDEX = 11,        ///< intf_msg_ap_t: joined or left an aggregate
    INTF_EVENT_IPV4 = 15,             ///< intf_msg_ip_t
    INTF_EVENT_IPV6 = 16,             ///< intf_msg_ipv6_t
    INTF_EVENT_IPV6_ADDR = 17,        ///< sub-type of INTF_EVENT_IPV6: address became usable or unusable
    INTF_EVENT_IPV6_STATE = 21,       ///< sub-type of INTF_EVENT_IPV6: another address became the first
    INTF_EVENT_VRF = 23,              ///< intf_msg_vrf_t
    INTF_EVENT_IF_ETH_INFO = 27,      ///< intf_msg_eth_info_t: speed or duplex changed
    INTF_EVENT_SYNC_DATA_OVER = 48,   ///< intf_msg_sync_t: the initial data are complete
};

/// Layers on which an interface can exist. Ports and aggregates exist on the physical layer; interfaces that
/// are members of neither a bridge nor an aggregate exist on the TCP/IP layer.
enum lsm_if_stack_t : int {
    LSM_IF_STACK_PHYSICAL = 3,
    LSM_IF_STACK_BRIDGE = 5,
    LSM_IF_STACK_TCPIP = 7,
};

/// Interface types (lsm_if_get_type).
enum lsm_if_type_t : int {
    LSM_IF_TYPE_UNKNOWN = 0,
    LSM_IF_TYPE_ETHERNET = 6,          ///< Ethernet port with hardware behind it, and every VLAN subinterface
    LSM_IF_TYPE_VIRTUAL_ETHERNET = 12, ///< Ethernet port made of software
    LSM_IF_TYPE_AGGREGATE = 24,
    LSM_IF_TYPE_BRIDGE = 60,
    LSM_IF_TYPE_LOOPBACK = 61,
    LSM_IF_TYPE_VRF = 62,
    LSM_IF_TYPE_TUNNEL = 63,
    LSM_IF_TYPE_OTHER = 64,
};

/// Interface kinds (lsm_if_get_kind_mask), one bit each; what an interface argument of a command accepts is a
/// set of them.
enum lsm_if_kind_t : u_int32_t {
    LSM_IF_KIND_PORT = 0x1,
    LSM_IF_KIND_VIRTUAL_PORT = 0x2,
    LSM_IF_KIND_LOOPBACK = 0x40,
    LSM_IF_KIND_BRIDGE = 0x80,
    LSM_IF_KIND_VRF = 0x100,
    LSM_IF_KIND_TUNNEL = 0x200,
    LSM_IF_KIND_OTHER = 0x400,
    LSM_IF_KIND_SUBINTERFACE = 0x800,
    LSM_IF_KIND_AGGREGATE = 0x20000,
    LSM_IF_KIND_MANAGEMENT =
        0x100000, ///< in addition to the bit above, on interfaces of the management network, inside a VRF
};

/// Interface flags (lsm_if_get_flags).
constexpr u_int32_t LSM_IF_FLAG_INTERNAL = 0x1;  ///< the system's own, not offered to operators
constexpr u_int32_t LSM_IF_FLAG_TRANSIENT = 0x2; ///< its device is absent: being removed or not yet there

/// Line state of a control block. "Up" means that the interface can carry traffic now.
enum lsm_line_state_t : int32_t {
    INTF_DOWN = 0,
    INTF_UP = 1,
};

/// Administrative state of a control block.
enum lsm_admin_state_t : int32_t {
    INTF_ADMIN_DOWN = 0,
    INTF_ADMIN_UP = 1,
};

enum lsm_duplex_t : int32_t {
    LSM_DUPLEX_AUTO = 0, ///< unknown
    LSM_DUPLEX_FULL = 1,
    LSM_DUPLEX_HALF = 2,
};

/// Speed of an interface in Mbit/s; 0 unknown.
using LSM_SPEED_TYPE = u_int32_t;

/// Bytes that hold any interface or VRF name with its terminating NUL.
constexpr int LSM_IF_NAME_LEN = 64;
constexpr int LSM_VRF_NAME_LEN = 32;

/// Internal name of the management network's VRF. It stands for the VRF that the platform calls "mgmt", in
/// both directions of the name translation.
constexpr const char *LSM_VRF_MGMT_NAME = "&#~_hidden_vrf_mgmt_0_@^$";

// ---- Event payloads --------------------------------------------------------------------------------------

struct intf_msg_create_t {
    IFINDEX ifx;
    int32_t if_type; ///< lsm_if_type_t
};
static_assert(sizeof(intf_msg_create_t) == 8);

/// Destroy and default.
struct intf_msg_destroy_t {
    IFINDEX ifx;
    int32_t if_type; ///< type the interface had
};
static_assert(sizeof(intf_msg_destroy_t) == 8);
static_assert(offsetof(intf_msg_destroy_t, ifx) == 0);

/// Administrative and link state.
struct intf_msg_state_t {
    IFINDEX ifx;
    int32_t state; ///< lsm_admin_state_t or lsm_line_state_t
};
static_assert(sizeof(intf_msg_state_t) == 8);
static_assert(offsetof(intf_msg_state_t, ifx) == 0);

enum intf_msg_ap_type_t : int32_t {
    INTF_MSG_ADD_TO_AP = 0,
    INTF_MSG_RM_FROM_AP = 1,
};

/// Aggregate membership.
struct intf_msg_ap_t {
    int32_t type;    ///< intf_msg_ap_type_t
    IFINDEX ap_ifx;  ///< the aggregate
    IFINDEX ifindex; ///< the member
};
static_assert(sizeof(intf_msg_ap_t) == 12);
static_assert(offsetof(intf_msg_ap_t, ap_ifx) == 4);
static_assert(offsetof(intf_msg_ap_t, ifindex) == 8);

/// Sub-types of INTF_EVENT_IPV4.
enum intf_event_ip : int32_t {
    INTF_EVENT_IP_ADDR = 0,  ///< address added or removed
    INTF_EVENT_IP_VADDR = 1, ///< virtual (gateway redundancy) address added or removed
    INTF_EVENT_IP_STATE = 2, ///< same addresses, but another one became the first
};

struct intf_msg_ip_addr_t {
    IFINDEX ifindex;
    u_int32_t addr;       ///< network order
    u_int32_t prefix_len; ///< bits
    int32_t b_add;        ///< 1 added, 0 removed
};
static_assert(sizeof(intf_msg_ip_addr_t) == 16);

struct intf_msg_ip_state_t {
    IFINDEX ifindex;
    int32_t state; ///< lsm_line_state_t
};
static_assert(sizeof(intf_msg_ip_state_t) == 8);

struct intf_msg_ip_t {
    int32_t sub_type; ///< intf_event_ip
    union {
        IFINDEX ifindex; ///< common first member
        intf_msg_ip_addr_t addr;
        intf_msg_ip_addr_t vaddr;
        intf_msg_ip_state_t state;
    };
};
static_assert(sizeof(intf_msg_ip_t) == 20);
static_assert(offsetof(intf_msg_ip_t, ifindex) == 4);

struct intf_msg_ipv6_addr_t {
    IFINDEX ifindex;
    u_int8_t addr[16];
    u_int32_t prefix_len; ///< bits
    int32_t b_add;        ///< 1 added, 0 removed
};
static_assert(sizeof(intf_msg_ipv6_addr_t) == 28);

struct intf_msg_ipv6_state_t {
    IFINDEX ifindex;
    int32_t state; ///< lsm_line_state_t
};
static_assert(sizeof(intf_msg_ipv6_state_t) == 8);

struct intf_msg_ipv6_t {
    int32_t sub_type; ///< INTF_EVENT_IPV6_ADDR or INTF_EVENT_IPV6_STATE
    union {
        IFINDEX ifindex; ///< common first member
        intf_msg_ipv6_addr_t addr;
        intf_msg_ipv6_state_t state;
    };
};
static_assert(sizeof(intf_msg_ipv6_t) == 32);
static_assert(offsetof(intf_msg_ipv6_t, ifindex) == 4);

/// Sub-types of INTF_EVENT_VRF.
enum intf_event_vrf : int32_t {
    INTF_EVENT_VRF_CHG = 0,  ///< a VRF ceased to exist
    INTF_EVENT_VRF_BIND = 1, ///< an interface was bound to a VRF or released from one
};

struct intf_msg_vrf_chg_t {
    int32_t vrf_id; ///< the VRF that is gone
};
static_assert(sizeof(intf_msg_vrf_chg_t) == 4);

struct intf_msg_vrf_bind_t {
    IFINDEX ifindex;
    int32_t vrf_id; ///< VRF of the interface from now on; 0, the default VRF, after a release
    int32_t b_bind; ///< 1 bound, 0 released
};
static_assert(sizeof(intf_msg_vrf_bind_t) == 12);

struct intf_msg_vrf_t {
    int32_t sub_type; ///< intf_event_vrf
    union {
        intf_msg_vrf_chg_t vrf_chg;
        intf_msg_vrf_bind_t vrf_bind;
    };
};
static_assert(sizeof(intf_msg_vrf_t) == 16);
static_assert(offsetof(intf_msg_vrf_t, vrf_chg) == 4);
static_assert(offsetof(intf_msg_vrf_t, vrf_bind) == 4);

struct intf_msg_eth_info_t {
    IFINDEX ifx;
    int32_t duplex; ///< lsm_duplex_t
    LSM_SPEED_TYPE speed;
};
static_assert(sizeof(intf_msg_eth_info_t) == 12);

struct intf_msg_sync_t {
    u_int32_t if_count; ///< interfaces known when the initial data were complete
};
static_assert(sizeof(intf_msg_sync_t) == 4);

static_assert(std::is_trivially_copyable_v<intf_msg_ip_t> && std::is_trivially_copyable_v<intf_msg_ipv6_t> &&
              std::is_trivially_copyable_v<intf_msg_vrf_t> && std::is_trivially_copyable_v<intf_msg_ap_t>);

// ---- Client set-up ---------------------------------------------------------------------------------------

/// Set of event numbers 0 to 63: event `n` is bit `n mod 8` of byte `n / 8`.
struct lsm_msg_set {
    u_int8_t bits[8];
};
static_assert(sizeof(lsm_msg_set) == 8);

/// Set of interface types: type `n` is bit `n mod 8` of byte `n / 8`. The last bit stands for type 55 and
/// every type above it.
struct lsm_iftype_filter {
    u_int8_t bits[7];
};
static_assert(sizeof(lsm_iftype_filter) == 7);

/// Empties the set.
inline void lsm_msgset_zero(lsm_msg_set *set)
{
    *set = {};
}

/// Adds the event number `type` to the set; a number outside 0 to 63 is ignored.
inline void lsm_msgset_set(int type, lsm_msg_set *set)
{
    if (type >= 0 && type < 64) {
        u_int8_t &byte = set->bits[type / 8];
        byte = static_cast<u_int8_t>(byte | (1U << (type % 8)));
    }
}

/// Client modes (lsm_client_set_mode).
enum lsm_client_mode_t : int {
    LSM_CLIENT_MODE_NOTIFY = 0,     ///< changes only
    LSM_CLIENT_MODE_DUPLICATOR = 2, ///< what exists, as the events that would have built it, then changes
};

using lsm_connect_callback_t = void (*)();

/// Receives the events of one stack.
///
/// @param event  event number, intf_event_type_index
/// @param data   the event's payload record, aligned for it, valid during the call only
/// @param len    bytes of the payload record
/// @return ignored
using lsm_msg_handler_t = int (*)(int event, char *data, int len);

/// Sets what runs, on the client's thread master, when the connection to the manager is up; nullptr for
/// nothing.
void lsm_agent_set_connect_callback(lsm_connect_callback_t callback);

/// Chooses the client mode, lsm_client_mode_t. Takes effect at the next lsm_client_reg_event_over().
/// Returns 0, or -1 for a mode that does not exist.
int lsm_client_set_mode(int mode);

/// Subscribes to the events of `set` on `stack` for interfaces whose type is in `filter`; replaces an earlier
/// subscription of that stack. Both sets are copied. VRF-gone and synchronisation events concern no single
/// interface and pass every filter. Returns 0, or -1 for an unknown stack or a null argument.
int lsm_client_reg_event_ex(int stack, const lsm_iftype_filter *filter, const lsm_msg_set *set);

/// Sets the function that receives the subscribed events of `stack`, and INTF_EVENT_SYNC_DATA_OVER, which is
/// delivered to every handler, once each, subscribed to or not. A handler set on several stacks receives
/// an event once for each stack that subscribed to it. Returns 0, or -1 for an unknown stack or a null
/// handler.
int lsm_reg_msg_handler_ex(int stack, lsm_msg_handler_t handler);

/// Connects the client named `name` (for logs) and reads the manager's data; queries work once it returns.
/// The connect callback runs later, from `master`'s loop. A second call, once the first master is finished,
/// starts over on the new one.
/// Returns 0, or -1 with errno set when the manager cannot be reached.
int lsm_agent_init(const char *name, kx_thread_master_t *master);

/// Declares the registration complete: from the next round of the master's loop on, events are delivered,
/// INTF_EVENT_SYNC_DATA_OVER being the first that is not part of the initial data. Returns 0, or -1 before
/// lsm_agent_init() or when the delivery could not be scheduled.
int lsm_client_reg_event_over();

// ---- Queries ---------------------------------------------------------------------------------------------

/// Number that changes whenever the interface's state on `stack` changes, never 0; 0 when the interface does
/// not exist on that stack.
u_int32_t lsm_get_realtime_version(IFINDEX ifx, int stack);

/// First IPv4 address of the interface in network order, 0 when it has none. Primary addresses come before
/// secondary ones, otherwise the order is the kernel's.
u_int32_t lsm_netif_get_first_ip_by_index(IFINDEX ifx);

/// First usable IPv6 address of the interface, global before link-local scope. Addresses that are tentative
/// or failed duplicate-address detection do not count. Returns 1 and fills `addr`, or returns 0 and leaves it
/// alone.
int lsm_ipv6_get_first_addr(IFINDEX ifx, u_int8_t addr[16]);

/// Copies the interface's name, NUL-terminated and cut to `len` bytes in all, into `buf`.
/// Returns 0, or -1 with errno ENODEV (unknown interface), EINVAL (no room) and `buf` untouched.
int lsm_if_get_name(IFINDEX ifx, char *buf, int len);

/// Index of the interface called `name`, 0 when there is none.
IFINDEX lsm_if_get_index(const char *name);

/// Type of the interface, lsm_if_type_t; LSM_IF_TYPE_UNKNOWN when there is no such interface.
int lsm_if_get_type(IFINDEX ifx);

/// 1 when the interface is a subinterface (VLAN on a parent interface), else 0.
int lsm_if_is_subinterface(IFINDEX ifx);

/// Uppermost layer on which the interface works, lsm_if_stack_t: bridge for a bridge member, physical for a
/// member of an aggregate, otherwise TCP/IP; 0 when there is no such interface.
int lsm_if_get_top_stack(IFINDEX ifx);

/// Parent of a subinterface; the interface itself when it is none (or its parent is out of reach); 0 when
/// there is no such interface.
IFINDEX lsm_if_get_main_index(IFINDEX ifx);

/// Set of LSM_IF_FLAG_*; 0 when there is no such interface.
u_int32_t lsm_if_get_flags(IFINDEX ifx);

/// Set of lsm_if_kind_t; 0 when there is no such interface.
u_int32_t lsm_if_get_kind_mask(IFINDEX ifx);

/// VRF of the interface: the index of the VRF, 0 in the default VRF, -1 when there is no such interface.
/// A VRF is its own.
int lsm_if_get_vrf(IFINDEX ifx);

/// Index of the VRF called `name` (LSM_VRF_MGMT_NAME included), -1 when there is none.
int lsm_vrf_name2index(const char *name);

/// Copies the name of the VRF `vrf`, NUL-terminated and cut to `len` bytes in all, into `buf`.
/// Returns 0, or -1 when there is no such VRF (0, the default VRF, has no name) or no room; `buf` is then
/// untouched.
int lsm_vrf_index2name(int vrf, char *buf, int len);

/// Puts an unbound socket into the VRF `vrf` (not 0), for a kernel that does not know the platform's own socket
/// options for that: what it sends takes the VRF's routes, and its local address is one of the VRF's. Any thread.
/// Returns 0, or -1 with errno: ENODEV when there is no such VRF (any more), otherwise what the kernel says.
int lsm_vrf_bind_socket(int sd, int vrf);

/// Ethernet facts of an interface.
struct lsm_eth_info_t {
    lsm_duplex_t duplex;
    LSM_SPEED_TYPE speed;
};

/// Control block of an interface: its state at one moment. Immutable; owned by the manager.
struct lsm_intfcb_t {
    IFINDEX ifx;
    int32_t if_type;                ///< lsm_if_type_t
    lsm_admin_state_t admin_state;  ///< what the operator wants
    lsm_line_state_t line_state;    ///< INTF_UP only while admin_state is up
    const lsm_eth_info_t *eth_info; ///< nullptr when the interface has no Ethernet information
};

/// The interface's control block, or nullptr when there is no such interface. The block stays valid, and as
/// it is, until it is handed to lsm_put_intfcb(). Allocates nothing.
const lsm_intfcb_t *lsm_get_intfcb(IFINDEX ifx);

/// Releases a block obtained from lsm_get_intfcb(); nullptr is allowed.
void lsm_put_intfcb(const lsm_intfcb_t *intfcb);

// ---- For the CLI service ---------------------------------------------------------------------------------

struct lsm_if_addr_t {
    int family;        ///< AF_INET or AF_INET6
    u_int8_t addr[16]; ///< network order; an IPv4 address takes the first 4 bytes
    u_int32_t prefix_len;
    bool secondary; ///< IPv4: not the first of its subnet; IPv6: temporary
    bool usable;    ///< false while duplicate-address detection runs and after it failed
};

/// Everything that `show interface` needs.
struct lsm_if_record_t {
    IFINDEX ifx;
    std::string name;
    int type;        ///< lsm_if_type_t
    u_int32_t kind;  ///< set of lsm_if_kind_t
    u_int32_t flags; ///< set of LSM_IF_FLAG_*
    bool subinterface;
    bool admin_up;
    bool oper_up;
    bool has_eth_info; ///< `eth` is valid
    lsm_eth_info_t eth;
    u_int32_t mtu;   ///< bytes
    u_int8_t mac[6]; ///< zero when the interface has no Ethernet address
    IFINDEX main_index;
    IFINDEX master; ///< bridge, aggregate or VRF that the interface is a member of, 0 none
    int vrf;
    std::vector<lsm_if_addr_t> addrs; ///< in the order of preference of the first-address queries
};

/// All interfaces at one moment, in the order of their indexes.
std::vector<lsm_if_record_t> lsm_if_walk();

/// Announces that the operator returned the interface to its defaults: subscribers get
/// INTF_EVENT_DEFAULT_INDEX on the stacks on which it exists. Callable from any thread; the handlers run on
/// the client's thread master. Returns 0, or -1 when there is no such interface or the delivery could not be
/// scheduled.
int lsm_raise_default_event(IFINDEX ifx);
