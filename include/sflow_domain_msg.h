// Records exchanged with the sampling service over the domain socket ($TMPDIR/sflow/domain_socket, SOCK_SEQPACKET).
//
// Both ends run on the same machine: every integer is in host byte order. A packet on the socket holds one or
// more whole records back to back, each beginning with sflow_msg_head_t; `len` counts the whole record. Character
// arrays are padded with NUL bytes. This file is the only definition of these records.
#pragma once

#include "sflow_types.h"

#include <cstddef>
#include <type_traits>

/// Command codes (sflow_msg_head_t::type).
enum sflow_cmd_t : u_int32_t {
    // daemon to service
    SFLOW_CMD_GET_COUNTER = 0x101,       ///< sflow_counter_t
    SFLOW_CMD_SET_SAMPLING_RATE = 0x102, ///< sflow_spl_t
    SFLOW_CMD_IFX_IS_CONF = 0x105,       ///< sflow_ifx_is_conf_t
    SFLOW_CMD_SAMPLE_HEADER_LEN = 0x106, ///< sflow_sample_header_len_t
    // service to daemon
    SFLOW_CMD_GET_COUNTER_RET = 0x201,       ///< sflow_counter_ret_t
    SFLOW_CMD_SET_SAMPLING_RATE_RET = 0x202, ///< sflow_spl_ret_t
    SFLOW_CMD_FLOW_SAMPLING = 0x203,         ///< sflow_flow_spl_t
    SFLOW_CMD_UPDATE_COUNTER = 0x204,        ///< sflow_counter_ret_t
    SFLOW_CMD_IFX_IS_CONF_RET = 0x205,       ///< sflow_ifx_is_conf_ret_t
    SFLOW_CMD_HD_CAPACITY = 0x501,           ///< sflow_hardware_capacity_t
    // connection set-up, header only
    SFLOW_CMD_CONFIG_START = 0x1001,   ///< daemon: start of the configuration replay
    SFLOW_CMD_CONFIG_END = 0x1002,     ///< daemon: end of the configuration replay
    SFLOW_CMD_CONFIG_REQUEST = 0x1003, ///< service: asks for the configuration
    SFLOW_CMD_CONNECT = 0x1004,        ///< daemon: first record on a new connection
    // diagnostics, daemon to service
    SFLOW_CMD_DEBUG = 0x2001, ///< sflow_debug_t
};

/// Direction of a sampling setting; the two values are also the bits of a direction mask.
enum sflow_direct_t : int32_t {
    SFLOW_INGRESS = 1,
    SFLOW_EGRESS = 2,
    SFLOW_BOTH = 3, ///< never on the wire: becomes two records
};

/// Interface kind as carried in `ifx_type`.
enum sflow_ifx_type_t : int32_t {
    SFLOW_IFX_TYPE_PORT = 1,
    SFLOW_IFX_TYPE_AGGREGATE = 2,
    SFLOW_IFX_TYPE_SUBINTERFACE = 3,
};

/// Snooping flags (sflow_spl_t::snoop).
constexpr int32_t SFLOW_INGRESS_BY_SNOOP = 1;

/// Kind of collector attachment (sflow_ifx_is_conf_t::flag).
enum sflow_conf_flag_t : int32_t {
    SFLOW_CONF_FLAG_FLOW = 1,
    SFLOW_CONF_FLAG_COUNTER = 2,
};

/// What the forwarding plane can sample (sflow_hardware_capacity_t::sflow_intf_support), a bit set.
enum sflow_intf_support_t : u_int32_t {
    SFLOW_INTF_NONE = 0,
    SFLOW_PORT_INGRESS = 1,
    SFLOW_PORT_EGRESS = 2,
    SFLOW_SVI_INGRESS = 4,
    SFLOW_SVI_EGRESS = 8,
    SFLOW_SUB_INGRESS = 16,
    SFLOW_SUB_EGRESS = 32,
    SFLOW_PORT_INGRESS_ACL = 64,
    SFLOW_SVI_INGRESS_ACL = 128,
    SFLOW_SUB_INGRESS_ACL = 256,
    SFLOW_PORT_INGRESS_SNOOP = 512,
    SFLOW_SVI_INGRESS_SNOOP = 1024,
    SFLOW_SUB_INGRESS_SNOOP = 2048,
};

/// Answers to a sampling setting (sflow_spl_ret_t::ret); every other non-zero value is an unknown failure.
enum sflow_spl_result_t : int32_t {
    SFLOW_SPL_OK = 0,
    SFLOW_SPL_CONFLICT_ERSPAN = -10,
    SFLOW_SPL_CONFLICT_IPFIX = -11,
};

/// Largest packet on the socket in either direction, in bytes.
constexpr int SFLOW_MSG_MAX_LEN = 1000;
/// Room for the leading bytes of a sampled frame.
constexpr int SFLOW_FLOW_BUF_LEN = 256;

struct sflow_msg_head_t {
    u_int32_t type; ///< sflow_cmd_t
    u_int32_t len;  ///< bytes of the whole record, this header included
};
static_assert(sizeof(sflow_msg_head_t) == 8);

/// Generic interface counters, in the order of the sFlow v5 structure of the same name (format 0,1).
/// Counters are cumulative; octets count bytes, the rest packets.
struct sflow_generic_counter_t {
    u_int32_t ifIndex;
    u_int32_t ifType;
    u_int64_t ifSpeed; ///< bit/s
    u_int32_t ifDirection;
    u_int32_t ifStatus;
    u_int64_t ifInOctets;
    u_int32_t ifInUcastPkts;
    u_int32_t ifInMulticastPkts;
    u_int32_t ifInBroadcastPkts;
    u_int32_t ifInDiscards;
    u_int32_t ifInErrors;
    u_int32_t ifInUnknownProtos;
    u_int64_t ifOutOctets;
    u_int32_t ifOutUcastPkts;
    u_int32_t ifOutMulticastPkts;
    u_int32_t ifOutBroadcastPkts;
    u_int32_t ifOutDiscards;
    u_int32_t ifOutErrors;
    u_int32_t ifPromiscuousMode;
};
static_assert(sizeof(sflow_generic_counter_t) == 88);
static_assert(offsetof(sflow_generic_counter_t, ifInOctets) == 24);
static_assert(offsetof(sflow_generic_counter_t, ifOutOctets) == 56);
static_assert(offsetof(sflow_generic_counter_t, ifPromiscuousMode) == 84);

/// Ethernet interface counters, in the order of the sFlow v5 structure of the same name (format 0,2).
struct sflow_ether_counter_t {
    u_int32_t dot3StatsAlignmentErrors;
    u_int32_t dot3StatsFCSErrors;
    u_int32_t dot3StatsSingleCollisionFrames;
    u_int32_t dot3StatsMultipleCollisionFrames;
    u_int32_t dot3StatsSQETestErrors;
    u_int32_t dot3StatsDeferredTransmissions;
    u_int32_t dot3StatsLateCollisions;
    u_int32_t dot3StatsExcessiveCollisions;
    u_int32_t dot3StatsInternalMacTransmitErrors;
    u_int32_t dot3StatsCarrierSenseErrors;
    u_int32_t dot3StatsFrameTooLongs;
    u_int32_t dot3StatsInternalMacReceiveErrors;
    u_int32_t dot3StatsSymbolErrors;
};
static_assert(sizeof(sflow_ether_counter_t) == 52);

/// Asks for the counters of one interface; answered by sflow_counter_ret_t of type SFLOW_CMD_GET_COUNTER_RET.
struct sflow_counter_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t ifx_type; ///< sflow_ifx_type_t, as kept in the interface's configuration
};
static_assert(sizeof(sflow_counter_t) == 16);
static_assert(offsetof(sflow_counter_t, ifx) == 8);

/// Counter report: the answer to a request, or an unsolicited update whose values are added to the daemon's base
/// (an update names its interface in generic.ifIndex).
struct sflow_counter_ret_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t ifx_type;
    sflow_generic_counter_t generic;
    sflow_ether_counter_t ether;
    u_int32_t pad;
};
static_assert(sizeof(sflow_counter_ret_t) == 160);
static_assert(offsetof(sflow_counter_ret_t, generic) == 16);
static_assert(offsetof(sflow_counter_ret_t, ether) == 104);
static_assert(offsetof(sflow_counter_ret_t, pad) == 156);

/// Sets the sampling of one direction of an interface; answered by sflow_spl_ret_t.
struct sflow_spl_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t rate;   ///< takes one packet in `rate`; 0 stops sampling in this direction
    int32_t direct; ///< SFLOW_INGRESS or SFLOW_EGRESS
    int32_t ifx_type;
    int32_t acl_id;                    ///< 0: not limited to an access list; ingress only
    char acl_name[SFLOW_ACL_NAME_LEN]; ///< ingress only
    int32_t snoop;                     ///< SFLOW_INGRESS_BY_SNOOP or 0; ingress only
};
static_assert(sizeof(sflow_spl_t) == 132);
static_assert(offsetof(sflow_spl_t, acl_id) == 24);
static_assert(offsetof(sflow_spl_t, acl_name) == 28);
static_assert(offsetof(sflow_spl_t, snoop) == 128);

/// Answer to sflow_spl_t: the request's fields and the result. The daemon acts on this copy.
struct sflow_spl_ret_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t rate;
    int32_t direct;
    int32_t ifx_type;
    int32_t acl_id;
    char acl_name[SFLOW_ACL_NAME_LEN];
    int32_t snoop;
    int32_t ret; ///< sflow_spl_result_t
};
static_assert(sizeof(sflow_spl_ret_t) == 136);
static_assert(offsetof(sflow_spl_ret_t, snoop) == 128);
static_assert(offsetof(sflow_spl_ret_t, ret) == 132);

/// Facts of one sampled packet.
struct sflow_flow_info_t {
    u_int32_t source_id;   ///< interface that sampled, 0 when it could not be attributed
    u_int32_t ingress_ifx; ///< interface the packet came in by, 0 unknown
    u_int32_t egress_ifx;  ///< interface the packet leaves by, 0 unknown
    u_int32_t sample_pool; ///< packets that could have been sampled
    u_int32_t drops_num;   ///< samples lost for want of resources
    u_int32_t frame_len;   ///< bytes of the frame before truncation
    u_int32_t strip_len;   ///< bytes removed from the frame before `buf` was taken
    u_int32_t src_vlan;
    u_int32_t src_priority;
    u_int32_t dest_vlan;
    u_int32_t dest_prority;
};
static_assert(sizeof(sflow_flow_info_t) == 44);

/// One sampled packet.
struct sflow_flow_spl_t {
    sflow_msg_head_t head;
    u_int8_t buf[SFLOW_FLOW_BUF_LEN]; ///< leading bytes of the frame, as captured
    int32_t buf_len;                  ///< valid bytes in `buf`
    sflow_flow_info_t info;
};
static_assert(sizeof(sflow_flow_spl_t) == 312);
static_assert(offsetof(sflow_flow_spl_t, buf_len) == 264);
static_assert(offsetof(sflow_flow_spl_t, info) == 268);

/// Most bytes of a frame to copy per sample.
struct sflow_sample_header_len_t {
    sflow_msg_head_t head;
    u_int32_t header_len;
};
static_assert(sizeof(sflow_sample_header_len_t) == 12);

/// Attaches an interface to a collector; answered by sflow_ifx_is_conf_ret_t.
struct sflow_ifx_is_conf_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t flag; ///< sflow_conf_flag_t
    int32_t cid;  ///< collector number
};
static_assert(sizeof(sflow_ifx_is_conf_t) == 20);

struct sflow_ifx_is_conf_ret_t {
    sflow_msg_head_t head;
    IFINDEX ifx;
    int32_t flag;
    int32_t cid;
    int32_t ret; ///< 0 success, otherwise failure
};
static_assert(sizeof(sflow_ifx_is_conf_ret_t) == 24);

/// What the forwarding plane can sample; sent by the service at any time after the connection is up.
struct sflow_hardware_capacity_t {
    sflow_msg_head_t head;
    u_int32_t sflow_intf_support; ///< set of sflow_intf_support_t
};
static_assert(sizeof(sflow_hardware_capacity_t) == 12);

/// Diagnostic request to the service.
enum sflow_debug_type_t : int32_t {
    SFLOW_DEBUG_SHOW_CMD = 1,
    SFLOW_DEBUG_SHOW_INFO = 2,
    SFLOW_DEBUG_SWITCH = 3,
};

struct sflow_debug_t {
    sflow_msg_head_t head;
    int32_t type; ///< sflow_debug_type_t
    int32_t flag; ///< SFLOW_DEBUG_SWITCH: 1 on, 0 off; otherwise 0
};
static_assert(sizeof(sflow_debug_t) == 16);

static_assert(std::is_trivially_copyable_v<sflow_flow_spl_t> &&
              std::is_trivially_copyable_v<sflow_spl_ret_t> &&
              std::is_trivially_copyable_v<sflow_counter_ret_t>);
