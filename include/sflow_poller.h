// Counter poller: one counters sample per interface and polling interval, and the cache of counter bases that
// keeps exported counters growing across restarts (module sflow_poller).
#pragma once

#include "sflow_agent.h"
#include "sflow_counter_cache.h"

/// The cache, in order of insertion. Nodes are made and freed by the module only: they carry their place in the
/// index by interface, which sflow_poller_get_counter looks into, and in the file.
extern sflow_list_t sflow_counter_list SFLOW_GUARDED_BY(sflow_agent.config_lock);

/// Counts down one second on every polled interface and asks the sampling service for those that fall due.
void sflow_poller_countdown() SFLOW_REQUIRES(sflow_agent.config_lock);

/// Queues a copy of a counter report for the dispatcher: 0, or -1 when the queue is full (the report is
/// counted as dropped) or memory is short (counted; the queue's length then stays one too high, on purpose).
///
/// @param ret   the service's record; its `ifx` names the interface, the one inside the counters is not
///                  looked at
/// @param type  SFLOW_MSG_UPDATE_COUNTER or SFLOW_MSG_GET_COUNTER_RSP
///
/// Receive thread; takes `msg_lock`.
int sflow_pi_counter_msg_enqueue(const sflow_counter_ret_t *ret, int type);

/// Adds an update to the cached base of its interface, brings the cache file up to date and tells the standby;
/// an update for which no node can be made is lost. `msg_node` and its payload stay the caller's; the payload
/// must not be null. Dispatcher thread; takes `config_lock` for writing.
void sflow_poller_update_counter(const sflow_msg_t *msg_node);
/// Exports a counter report with the cached base added: 0 (also when no collector or no agent address is
/// configured and nothing is written), or -1 when the interface is not configured. The report's payload,
/// which must not be null, is changed; the cache is not. Dispatcher thread; takes `config_lock` for reading.
int sflow_poller_write_countersample(sflow_msg_t *msg_node);

/// As the flow sampler's functions, for counters samples: `set` and `clear` take `config_lock` for writing.
int sflow_poller_set_cid(IFINDEX ifx, u_int32_t cid);
u_int32_t sflow_poller_get_cid(IFINDEX ifx) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
void sflow_poller_clear_cid(IFINDEX ifx);

/// Adds each counter of `src` to `dst`, modulo the field's width; a counter of `src` at its maximum sets that
/// of `dst` to the maximum instead. Fields that are no counters (index, type, speed, direction, status,
/// promiscuous mode) stay as they are.
void sflow_poller_update_generic_counter(sflow_generic_counter_t *dst, const sflow_generic_counter_t *src);
void sflow_poller_update_ether_counter(sflow_ether_counter_t *dst, const sflow_ether_counter_t *src);

/// Cache node of `ifx` (the oldest, should the cache file have named it twice), or null; constant time.
sflow_counter_node_t *sflow_poller_get_counter(IFINDEX ifx) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);
/// New zeroed cache node at the end of the list; null when memory is short.
sflow_counter_node_t *sflow_poller_add_counter(IFINDEX ifx) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Replaces the node's counters; the file learns of it with the next save.
void sflow_poller_set_counter(sflow_counter_node_t *node, const sflow_generic_counter_t &generic,
                              const sflow_ether_counter_t &ether) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Unlinks the node from the cache and frees it; the standby does not learn of it, the file with the next save.
void sflow_poller_free_counter(sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Tells the standby, frees the node and brings the file up to date: cuts the last image off, or writes all of
/// it again when others moved.
void sflow_poller_del_counter(sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Writes the whole cache file anew; nothing when no path can be built. A process that ends meanwhile leaves the
/// old file or the new one, unless the directory does not take a second file: then the old one is written over.
/// Failures are logged under the configuration switch and leave a shorter file or none.
void sflow_poller_save_counter() SFLOW_REQUIRES(sflow_agent.config_lock);
/// The same content after a change of `node` alone, its creation included, at a cost that does not depend on the
/// number of nodes: its image is written over the old one or appended. A file that is not as this process left
/// it is written anew.
void sflow_poller_save_node(const sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Appends the cache file's complete images to the cache; called once, before the sampling-service server
/// starts. 0, or -1 when there is no path or no file. The end of the file, and memory running out, go to the
/// debug file. Takes `config_lock` for writing.
int sflow_poller_counter_init();

/// Interface `ifx` is gone: forgets its counters, asks the service to stop its sampling (once per access-list
/// slot, bound or not), gives the access lists back and forgets its configuration; the running configuration
/// is then regenerated. CLI thread; takes `config_lock` for writing.
void sflow_intf_del_notify(IFINDEX ifx);

/// Name of the agent's registration and of its checkpoint messages with the redundancy service.
constexpr char SFLOW_RDND_NAME[] = "SFLOW_RDND";

/// rdnd_sflow_counter_s::rdnd_type: add or update; every other value deletes, of which the sender uses 0.
constexpr int32_t SFLOW_RDND_DEL_COUNTER = 0;
constexpr int32_t SFLOW_RDND_ADD_COUNTER = 1;

/// Checkpoint message from the active to the standby control CPU (both are alike: host byte order). The
/// receiver ignores the padding and the links inside `counter`.
struct rdnd_sflow_counter_s {
    int32_t rdnd_type;
    u_int32_t pad;
    sflow_counter_node_t counter;
};
using rdnd_sflow_counter_t = rdnd_sflow_counter_s;
static_assert(sizeof(rdnd_sflow_counter_t) == 176);
static_assert(offsetof(rdnd_sflow_counter_t, counter) == 8);
static_assert(std::is_trivially_copyable_v<rdnd_sflow_counter_t>);

/// A checkpoint message with a copy of `counter`, padding and links zero.
rdnd_sflow_counter_t sflow_rdnd_counter_record(int32_t rdnd_type, const sflow_counter_node_t *counter);

/// Mirror one change to the standby: the node after its update, and the node that is about to be deleted.
/// Nothing is sent while g_can_backup is false; the service's "stop" makes it false. Nothing is retried, no
/// failure reaches the caller.
void sflow_rdnd_realtime_add_msg(const sflow_counter_node_t *counter) SFLOW_REQUIRES(sflow_agent.config_lock);
void sflow_rdnd_realtime_del_msg(const sflow_counter_node_t *counter) SFLOW_REQUIRES(sflow_agent.config_lock);
