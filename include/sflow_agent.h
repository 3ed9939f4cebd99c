// The agent record: the whole configuration and run-time state of the daemon, one instance, with its locks
// (module sflow_agent). Every thread reads and changes this one record; see sflow_lock.h for the order of
// locks.
#pragma once

#include "sflow_atomic.h"
#include "sflow_domain_msg.h"
#include "sflow_list.h"
#include "sflow_lock.h"
#include "sflow_receiver.h"
#include "sflow_types.h"

#include "platform/kx_thread.h"
#include "platform/rdnd.h"

constexpr u_int32_t SFLOW_DEFAULT_SAMPLING_RATE = 8192;
constexpr u_int32_t SFLOW_DEFAULT_MAX_HEADER = 64;
constexpr u_int32_t SFLOW_DEFAULT_INTERVAL = 30;

/// Most events that wait for the dispatcher; the newest beyond it is dropped.
constexpr int32_t SFLOW_MSG_LIST_MAX = 8192;

constexpr int SFLOW_ACL_SLOTS = 2;

/// An access list that limits the ingress sampling of an interface; `enable` while the slot holds a
/// reference.
struct acl_info_t {
    bool enable;
    int32_t enable_acl_id;
    char enable_acl_name[SFLOW_ACL_NAME_LEN];
};

/// An interface on which sampling or polling is configured. May be freed only while `enable`, `cid` and `fid`
/// are 0.
struct sflow_intf_config_t {
    sflow_list_t list; ///< link in sflow_agent.intf_config, ascending by `ifx`
    IFINDEX ifx;
    u_int32_t cid;           ///< receiver of the counters samples, 0 none
    u_int32_t fid;           ///< receiver of the flow samples, 0 none
    u_int32_t countdown;     ///< seconds until the next counter poll
    u_int32_t flow_seqno;    ///< next flow sample, from 1
    u_int32_t counter_seqno; ///< next counters sample, from 1
    u_int32_t total_pkt;     ///< sample pool
    u_int32_t enable;        ///< directions sampled: SFLOW_INGRESS | SFLOW_EGRESS
    acl_info_t acl[SFLOW_ACL_SLOTS];
    bool acl_enable;  ///< ingress sampling is limited to access lists
    int32_t ifx_type; ///< sflow_ifx_type_t
    int32_t snoop;    ///< SFLOW_INGRESS_BY_SNOOP or 0
};

struct sflow_global_config_t {
    u_int32_t samplingrate; ///< packets per flow sample
    u_int32_t maxhlen;      ///< most bytes of a sampled frame that are exported
    u_int32_t sslen;        ///< header length handed to the sampling service
    u_int32_t interval;     ///< counter polling, seconds
};

enum sflow_agent_cfg_type_t : u_int32_t {
    SFLOW_AGENT_TYPE_INVALID = 0,
    SFLOW_AGENT_TYPE_ADDRESS = 1,
    SFLOW_AGENT_TYPE_INTERFACE = 2,
};

/// The agent address of the datagram header; all zero while none is configured. Compared and copied whole.
struct sflow_agent_address_t {
    sflow_agent_cfg_type_t cfg_type;
    IFINDEX ifindex; ///< when it is the address of an interface
    sflow_address_type_t type;
    sfladdress_value_t address;
};

/// The global source of exported datagrams; all zero while none is configured. Compared and copied whole.
struct sflow_source_address_t {
    sflow_source_cfg_type_t cfg_type;
    IFINDEX ifindex;
    u_int32_t type; ///< set of SFLOW_FAMILY_*: the families that are set
    sfladdress_value_t v4_address;
    sfladdress_value_t v6_address;
    sfladdress_value_t used_address[SFLOW_RECEIVER_NUM]; ///< source really used, by collector id - 1
    u_int32_t is_src_cfg;                                ///< 1 once a source was accepted
};

enum sflow_msg_type_t : int32_t {
    SFLOW_MSG_FLOW_SAMPLING = 1, ///< never queued
    SFLOW_MSG_UPDATE_COUNTER = 2,
    SFLOW_MSG_GET_COUNTER_RSP = 3,
};

/// Payload of a counter event.
struct sflow_msg_counter_t {
    sflow_generic_counter_t generic_counter;
    sflow_ether_counter_t ether_counter;
};

/// One queued event; owns its payload.
struct sflow_msg_t {
    sflow_list_t list;
    IFINDEX ifx;
    sflow_msg_type_t type;
    void *msg; ///< sflow_msg_counter_t from std::malloc/calloc, may be null
};

/// What the configuration's replay and the command line wait for.
enum sflow_cli_ready_flag_t : u_int32_t {
    SFLOW_CLI_VRF_READY_FLAG = 1, ///< the interface manager has delivered its initial data
    SFLOW_CLI_SS_READY_FLAG = 2,  ///< the sampling service has asked for its configuration
    SFLOW_CLI_ACL_READY_FLAG = 4, ///< the ACL service is up
    SFLOW_CLI_ALL_READY_FLAG = 7,
};

struct sflagent_t {
    sflow_list_t intf_config SFLOW_GUARDED_BY(config_lock); ///< sflow_intf_config_t
    sflow_global_config_t g_config SFLOW_GUARDED_BY(config_lock);
    sflreceiver_t receivers[SFLOW_RECEIVER_NUM];
    sflow_rwlock_t config_lock; ///< process-shared, writers preferred: never take it twice on one thread
    sflow_agent_address_t agent_ip SFLOW_GUARDED_BY(config_lock);
    sflow_source_address_t source_ip; ///< `config_lock`; used_address is also set by whoever sends a datagram
    u_int32_t sub_id;
    int32_t reciver_num;
    sflow_list_t msg_list SFLOW_GUARDED_BY(msg_lock); ///< sflow_msg_t, oldest first
    sflow_mutex_t msg_lock;
    pthread_cond_t msg_send_ready; ///< an event was queued; measured on the monotonic clock
    pthread_condattr_t condattr;
    int32_t msg_list_len SFLOW_GUARDED_BY(msg_lock);
    int32_t timer_flag; ///< 1 while the one-second thread exists; relaxed
    pthread_t timer_tid;
    sflow_mutex_t cli_lock;
    u_int32_t cli_ready_flag; ///< sflow_cli_ready_flag_t bits, under `cli_lock`; the ACL bit: relaxed
    u_int32_t drop_packet_num;
    u_int32_t drop_counter_num;
};

extern sflagent_t sflow_agent;

/// Created with the record's locks, outside of the record; nothing takes it yet.
extern pthread_mutex_t familyid_lock;

/// Sets the record to its defaults, creates the locks and starts the one-second thread. 0, or -1 with the
/// reason in the debug file and every lock created so far destroyed; the one-second thread, which is started
/// first, then goes on waiting and must be ended with the process. Called once, by main, with `&sflow_agent`,
/// before any thread but the redundancy thread exists.
int sflow_agent_init(sflagent_t *agent);

/// Whether sflow_agent_init() has succeeded; all that it wrote is visible to a caller that got true. Threads
/// that exist before the record is complete ask before they touch it. Any thread.
bool sflow_agent_is_complete();
/// Blocks until sflow_agent_is_complete(); for ever when initialisation fails, since the process then ends.
void sflow_agent_wait_complete();

/// Take and release the agent's locks; a failure is logged under the configuration switch and ignored.
///
/// A thread that takes `config_lock` for writing first frees the interface records that were given up while
/// it was held for reading (see sflow_del_intf_config).
void sflow_config_wrlock() SFLOW_ACQUIRE(sflow_agent.config_lock);
void sflow_config_wrunlock() SFLOW_RELEASE(sflow_agent.config_lock);
void sflow_config_rdlock() SFLOW_ACQUIRE_SHARED(sflow_agent.config_lock);
void sflow_config_rdunlock() SFLOW_RELEASE_SHARED(sflow_agent.config_lock);
void sflow_msg_lock() SFLOW_ACQUIRE(sflow_agent.msg_lock);
void sflow_msg_unlock() SFLOW_RELEASE(sflow_agent.msg_lock);

/// Tells the thread-safety analysis, where a callback cannot, that the caller's caller holds `config_lock`.
inline void sflow_config_held() SFLOW_ASSERT_HELD_SHARED(sflow_agent.config_lock) {}

// Event queue and dispatcher (sflow_agent_msg.cpp).

/// Takes the oldest event off the queue; null when it is empty or `msg_list_len` is below 1. The caller frees
/// it with sflow_free_msg.
sflow_msg_t *sflow_get_msg() SFLOW_REQUIRES(sflow_agent.msg_lock);
/// Frees an event and its payload.
void sflow_free_msg(sflow_msg_t *node);
/// One round of the dispatcher: waits up to 30 s for an event, then applies all that are queued. A wait that
/// ends with the time-out or an error ends the round. Takes `msg_lock` for the whole round; what it applies
/// takes `config_lock`.
void sflow_msg_dispatch();
/// Body of the dispatcher thread "sflow_msg_main": rounds for ever.
void *sflow_msg_main(void *arg);
/// Encodes one sampled packet on the calling (receive) thread: `buf_len` leading bytes of the frame at `buf`.
/// 0, also when the sample was refused, which is counted; -1 for a null `buf`. Takes `msg_lock`, then
/// `config_lock`: flow samples and the dispatcher's counter work exclude each other.
int sflow_pi_flow_sampling(const char *buf, int buf_len, sflow_flow_info_t info);

// One-second timer (sflow_agent_timer.cpp).

/// 1 once the redundancy service has reported its state; relaxed. Until then the timer does not tick.
extern int32_t sflow_rndn_ready;

/// Starts the one-second thread with its handle in `agent->timer_tid` and sets `timer_flag`; 0, or non-zero
/// with `timer_flag` as it was. The caller has seen `timer_flag` 0: two such threads must not tick. Called by
/// sflow_agent_init and, when a switch-over has ended, by the redundancy thread.
int sflow_agent_timer_init(sflagent_t *agent);
/// Ends the one-second thread if `timer_flag` says that there is one, and clears the flag. The thread ends at
/// its next sleep, never in the middle of a tick. Redundancy thread.
void sflow_agent_timer_cancel(sflagent_t *agent);
/// One tick: countdown of the counter polls, then whatever the datagrams hold. Takes `config_lock` for
/// writing.
void sflow_one_second();
/// Absolute difference of two uptimes in seconds.
int64_t sflow_time_interval(u_int64_t a, u_int64_t b);
/// Uptime in seconds. While the system refuses to tell, logs the reason under the event switch and tries
/// again every second: the caller blocks.
u_int64_t sflow_uptime_sec();

// Agent and source addresses (sflow_agent_address.cpp). All take `config_lock` themselves.

/// 0 set; -1 refused (the operator is told) or unchanged. Pending samples leave under the old address. `addr`
/// is built zero-filled, since it is compared byte for byte. An explicit address and an interface replace
/// each other only by way of deletion.
int sflow_agent_set_address(const sflow_agent_address_t *addr);
/// Clears the agent address when it is of kind `type`.
void sflow_agent_del_address(sflow_agent_cfg_type_t type);
void sflow_agent_get_address(sflow_agent_address_t *out);
/// Interface `ifx` is gone: an agent address learnt from it goes too. Has the running configuration
/// regenerated whether or not anything changed. CLI thread, no lock held.
void sflow_agent_del_intf_notify(IFINDEX ifx);

/// Whether `src` must be applied: false when it is refused (the operator is told) or changes nothing.
bool sflow_is_source_addr_need_proc(const sflow_source_address_t *src)
    SFLOW_REQUIRES(sflow_agent.config_lock);
/// 0 set; -1 refused or unchanged. The request carries both families that are to stay set.
int sflow_source_set_address(const sflow_source_address_t *src);
/// Removes at most one family of the source, IPv4 tried first, and the record with the last family. An
/// explicit address must match the stored one, an interface the stored `ifindex`. A request without a family
/// removes all; of an interface only with `ifindex` 0. A request of the other kind changes nothing.
void sflow_source_del_address(const sflow_source_address_t *src);
void sflow_source_get_address(sflow_source_address_t *out);
/// Forgets the whole global source, so that another interface can replace it. Pending samples leave first.
void sflow_source_clear();
/// Interface `ifx` is gone: the global and the collectors' own sources learnt from it go too. Closes both
/// collector sockets and has the running configuration regenerated whether or not anything changed. CLI
/// thread, no lock held.
void sflow_source_del_intf_notify(IFINDEX ifx);

// Interface sampling configuration (sflow_agent_interface.cpp).

/// New node with the defaults, linked in order of `ifx`; null when memory is short. The only maker of nodes:
/// they carry data of the look-up with them. A node of the same `ifx` is not looked for; the new one goes in
/// front of it.
sflow_intf_config_t *sflow_add_intf_config(IFINDEX ifx) SFLOW_REQUIRES(sflow_agent.config_lock);
/// The node of `ifx` (the newest of several) or null; constant time, never allocates.
sflow_intf_config_t *sflow_get_intf_config(IFINDEX ifx) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// Unlinks and frees a node that serves nothing any more (`enable`, `cid` and `fid` are 0); otherwise, and
/// for null, does nothing. The running-configuration pass, which drops collectors of vanished VRFs, comes
/// here with the lock held for reading: other readers may then be looking at the node, so it is only given
/// up. It is found no more, stays in `intf_config` with nothing set in it, and is freed by whoever next takes
/// the lock for writing.
void sflow_del_intf_config(sflow_intf_config_t *intf) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// Whether any access-list slot is enabled.
bool intf_acl_cfg(const sflow_intf_config_t *intf);
/// Stores the node of `ifx` (or null) and returns the directions it samples.
u_int32_t sflow_get_intf_config_enable(IFINDEX ifx, sflow_intf_config_t **intf)
    SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// Sets the countdown of every node, in seconds.
void sflow_reset_intf_countdown(u_int32_t countdown) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Collector `cid` is gone: detaches it from every interface.
void sflow_intf_del_receiver(u_int32_t cid) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// The node of `ifx`, created when missing, provided collector `cid` is configured; else null.
sflow_intf_config_t *sflow_check_intf(IFINDEX ifx, u_int32_t cid) SFLOW_REQUIRES(sflow_agent.config_lock);
/// 1 when any interface is configured, else 0. Takes `config_lock` for reading.
int sflow_get_current_status();
/// Ask the sampling service to start or stop sampling on `ifx`; the configuration changes when it answers.
/// `direct` is a set of SFLOW_INGRESS and SFLOW_EGRESS, `acl_id` 0 with a null or empty name means no access
/// list. 0, or -1 when a request could not be queued (those already queued are not taken back). Take
/// `config_lock`.
int sflow_enable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                             int snoop);
int sflow_disable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                              int snoop);
/// Re-sends every interface's sampling: first all are switched off, then all get `rate`.
void sflow_reflush_intf_config(u_int32_t rate) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);

// Redundancy (sflow_agent_rdnd.cpp).

/// 1 while checkpoint messages may be sent; relaxed.
extern bool g_can_backup;

/// Starts the redundancy thread "sflow_rdnd"; 0 or non-zero. The thread ends the process when it cannot
/// attach to the redundancy service.
int sflow_rdnd_init();
/// Handles one event of the redundancy service (see sflow_rdnd.h); runs on the redundancy thread. Returns the
/// answer to the service: 0, -1 for a name that is not ours, rdnd_issu_result for a version check.
int sflow_rdnd_handle_process(char *name, RDND_EVENT event, int data_len, void *data_buf, void *arg);
