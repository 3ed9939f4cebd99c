// Receivers: a configured collector each, with the datagram that is being filled for it (module
// sflow_receiver).
//
// Samples are appended in network byte order as they arrive; the datagram header is written when the datagram
// is sent: when the next sample would not fit under the collector's maximum datagram size, once a second by
// the timer, and before a configuration change for which the pending samples were not built. Every datagram
// goes out over a fresh UDP socket, so that source addresses and VRFs are those of the moment.
#pragma once

#include "sflow_domain_msg.h"
#include "sflow_lock.h"
#include "sflow_types.h"

/// Number of collectors; ids run from 1 to this number.
constexpr int SFLOW_RECEIVER_NUM = 2;
constexpr u_int32_t SFLOW_DEFAULT_DATAGRAM_SIZE = 1400;
/// Room for a datagram; no collector gets a larger one, whatever its maximum says.
constexpr int SFLOW_DATAGRAM_WORDS = 2250;
constexpr u_int32_t SFLOW_DATAGRAM_BYTES = 4 * SFLOW_DATAGRAM_WORDS;
/// Bytes of a collector's description, its terminating NUL included.
constexpr int SFLOW_DESC_LEN = 65;

/// Address family; the values are the sFlow address types and go to the wire as they stand.
enum sflow_address_type_t : u_int32_t {
    SFLOW_ADDRESS_INVALID = 0,
    SFLOW_ADDRESS_TYPE_IPV4 = 1,
    SFLOW_ADDRESS_TYPE_IPV6 = 2,
};

/// Bits of a set of address families (sflow_source_address_t::type).
constexpr u_int32_t SFLOW_FAMILY_IPV4 = 1;
constexpr u_int32_t SFLOW_FAMILY_IPV6 = 2;

enum sflow_source_cfg_type_t : u_int32_t {
    SFLOW_SOURCE_TYPE_INVALID = 0,
    SFLOW_SOURCE_TYPE_ADDRESS = 1,
    SFLOW_SOURCE_TYPE_INTERFACE = 2,
};

/// An address in network byte order. Values are compared whole: bytes beyond the address itself stay zero.
/// The first member spans the union, so that an empty initialiser zeroes every byte of it.
union sfladdress_value_t {
    u_int8_t bytes[20];
    u_int32_t ip_v4;
    u_int8_t ip_v6[17]; ///< the first 16 bytes are the address
};
static_assert(sizeof(sfladdress_value_t) == 20);

/// A collector as configured. Records are compared byte for byte: build them zero-filled.
struct sfladdress_t {
    sflow_address_type_t type;
    int32_t vrf_index;  ///< VRF in which the collector is reached; 0 the default one
    int32_t mgmt_index; ///< management interface of an out-of-band collector; identity, not used for sending
    sfladdress_value_t address;
    sflow_source_cfg_type_t src_type; ///< whether this collector has a source of its own
    sfladdress_value_t src_address;
    IFINDEX ifindex; ///< the collector's own source interface
    char desc[SFLOW_DESC_LEN];
};
static_assert(sizeof(sfladdress_t) == 128);

struct sflreceiver_t {
    u_int32_t maxdatagramsize; ///< bytes
    sfladdress_t address;
    u_int16_t collector_port; ///< host byte order
    u_int32_t version;
    u_int32_t cid;                        ///< 1 or 2, fixed
    int32_t sd;                           ///< UDP socket, -1 when closed
    u_int32_t data[SFLOW_DATAGRAM_WORDS]; ///< the datagram under construction, header first
    u_int32_t *datap;                     ///< where the next sample goes: data + pktlen
    u_int32_t pktlen;                     ///< bytes of `data` in use, header room included
    u_int32_t seqno;                      ///< sequence number of the next datagram
    u_int32_t counter_sample_num;
    u_int32_t flow_sample_num;
    bool is_enable; ///< a collector is configured
};

struct sflow_intf_config_t;
struct sflow_msg_counter_t;
struct intf_msg_vrf_t;

// Receivers are changed under `config_lock`. Flow samples, flushes and configuration hold it for writing.
// Counters samples, which the dispatcher thread alone appends, and the running-configuration pass, which
// deletes a collector of a vanished VRF, hold it for reading; they exclude each other by a lock inside the
// module. Therefore the functions below ask for the lock in shared mode unless they say otherwise.

/// Sequence number of the next flow sample that belongs to no configured interface; starts at 1.
extern u_int32_t sflow_unkown_flow_seqno;

/// Puts both receivers into their start-up state. Before any other thread uses the agent record.
void sflow_receiver_init();

/// The receiver with id `cid` (1 or 2; not checked).
sflreceiver_t *sflow_receiver_get_receiver(u_int32_t cid);

/// First receiver with a collector, id 1 first; null when there is none. Caller holds `config_lock`.
sflreceiver_t *sflow_receiver_get_enable_receiver();

/// Whether collector `cid` is configured; an id that no collector has gives false. Caller holds
/// `config_lock`, or is the CLI thread, which alone configures collectors.
bool sflow_is_enable_receiver(u_int32_t cid);

/// Starts a fresh datagram with sequence number 1. Does nothing while no agent address is configured, and
/// leaves the sample counts as they are. Caller holds `config_lock` for writing.
void sflow_receiver_reset_buf(sflreceiver_t *receiver);
/// The same for every enabled receiver.
void sflow_receiver_reset_all_buf();

/// Appends one expanded flow sample to the datagram of the collector that takes `intf`'s flow samples.
///
/// @param buf      leading bytes of the sampled frame, as captured
/// @param buf_len  valid bytes in `buf`; at most the configured maximum header length, rounded up to a
///                 multiple of four, is exported
/// @param info     interfaces, pool, drops, lengths and VLAN data of the sample
/// @param intf     data source, or null when the service could not attribute the sample: the first enabled
///                 collector takes it, with sequence numbers shared by all such samples
///
/// Header length and record length on the wire count the header padded to a multiple of four; the pad bytes
/// themselves are not written and hold whatever the buffer held.
///
/// Caller holds `config_lock` for writing and has seen to it that an agent address is configured. Sends the
/// pending datagram first when the sample does not fit. Never allocates. A sample for a disabled collector is
/// dropped silently. A negative `buf_len`, and a sample that no datagram could hold, drop the sample without
/// using up a sequence number and are counted in sflow_drop_invalid_num.
void sflow_receiver_write_flowsample(const char *buf, int buf_len, sflow_flow_info_t info,
                                     sflow_intf_config_t *intf);

/// Appends one counters sample (generic and Ethernet counters) for `intf` from the values in `msg`; index,
/// type and promiscuous mode are not taken from `msg`, and speed, direction and status come from the
/// interface manager. A sample for a disabled collector is dropped silently. Dispatcher thread, `config_lock`
/// held for reading.
void sflow_receiver_write_countersample(const sflow_msg_counter_t *msg, sflow_intf_config_t *intf);

/// Bytes of a flow sample whose padded header has `header_len` bytes.
u_int32_t sflow_receiver_cal_flowsample_size(u_int32_t header_len);
/// Bytes of a counters sample.
u_int32_t sflow_receiver_cal_countersample_size();

/// ifSpeed (bit/s), ifDirection and ifStatus of `ifx` as the interface manager knows them; zeros when it does
/// not.
void sflow_receiver_get_interface_info(IFINDEX ifx, u_int64_t *speed, u_int32_t *direct, u_int32_t *status);

/// Finishes the current datagram (header with the agent address, `seqno`, uptime in ms and number of
/// samples), sends it to the collector and starts the next one; the buffer is not cleared. 0: sent,
/// attempted, or nothing to send; -1: no socket could be bound, the pending samples are discarded and the
/// sequence number is not used up. A unit that is passive (sflow_rdnd.h) discards them as well, with result 0.
/// What the kernel refuses or cuts short is counted in sflow_statis and not
/// sent again.
int sflow_receiver_send_sample(sflreceiver_t *receiver);
/// The same, result ignored.
void sflow_receiver_send_all_sample(sflreceiver_t *receiver);
/// Sends what every enabled receiver holds, id 1 first.
void sflow_receiver_send_all_receiver_sample();

// Collector sockets (sflow_receiver_socket.cpp).

/// Opens a fresh socket in the collector's VRF, bound to the collector's own source, else the global source,
/// else left to the routing table (then connected, to learn the address chosen). Records the address used in
/// the agent's source record. 0 ready, -1 failed with `sd` -1.
int sflow_receiver_bind_ipv4_socket(sflreceiver_t *receiver);
int sflow_receiver_bind_ipv6_socket(sflreceiver_t *receiver);

/// Marks the receiver's socket closed; null is ignored.
void sflow_init_socket_id(sflreceiver_t *receiver);
/// Stores a new datagram socket of family `domain` (-1 when that fails); null is ignored.
void sflow_get_socket_id(sflreceiver_t *receiver, int domain);
/// Closes an open socket of the receiver; null is ignored.
void sflow_close_socket(void *receiver);

// Collector configuration (sflow_receiver_collector.cpp).

/// Configures or replaces collector `cid`; always 0. A change of family or VRF sends the pending datagram
/// first and closes the socket; any other change drops the pending samples with the buffer but keeps their
/// counts, so that the next datagram announces them. Caller holds `config_lock` for writing.
int sflow_receiver_set_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port);

/// Removes collector `cid` when `addr` and `port` identify it: sends what is pending, closes the socket,
/// detaches every interface. Otherwise changes nothing. The maximum datagram size stays. Caller holds
/// `config_lock` for writing; the running-configuration pass, which drops collectors of vanished VRFs, holds
/// it for reading.
void sflow_receiver_del_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port);

/// Copies out collector `cid`: 0, or -1 when it is not configured. Takes `config_lock` for reading.
int sflow_receiver_get_collector(u_int32_t cid, sfladdress_t *addr, u_int16_t *port);

/// 1 when both records identify the same collector, by the source kind of `rhs`; else 0.
int sflow_is_collector_addr_same(const sfladdress_t *lhs, const sfladdress_t *rhs);

/// Changes the largest datagram of collector `cid` (bytes; the caller has checked the range); a smaller
/// maximum sends what is pending first. Takes `config_lock` for writing.
void sflow_receiver_set_max_datagramsize(u_int32_t cid, u_int32_t size);
/// Takes `config_lock` for reading.
u_int32_t sflow_receiver_get_datagramsize(u_int32_t cid);

/// A VRF has ceased to exist: removes every collector in it. Takes `config_lock` for writing.
void sflow_receiver_vrf_no_exist_del_receiver(const intf_msg_vrf_t *msg);
