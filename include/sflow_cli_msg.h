// Messages to and from the sampling service (module sflow_cli_msg): builders that any thread may call, and handlers
// that run on the server's receive thread. The records are in sflow_domain_msg.h.
//
// A sent request changes nothing in the daemon: interface configuration follows when its answer arrives. A lost
// connection loses requests and answers alike; the service asks for the whole configuration when it connects again.
#pragma once

#include "sflow_domain_msg.h"

/// Capacity set last received (sflow_intf_support_t), and 1 once any has been, an empty one included. A lost
/// connection resets neither. Relaxed.
extern u_int32_t sflow_intf_support_flag;
extern u_int32_t sflow_hw_support_is_set;

/// Registers the handlers with the server: 0, or -1 with none registered. Main thread, after the server's start.
int sflow_config_register();
void sflow_config_unregister();

// Senders. Each queues its record and returns 0, or -1 when the server refuses it (no service connected, queue full);
// they take no lock of their own, so that `config_lock` may be held. Any thread. What a parameter means stands with the
// record's field.

/// Asks for the counters of `ifx`: sflow_counter_t.
int sflow_get_counter_msg(IFINDEX ifx, int ifx_type);
/// Sets the sampling of an interface: sflow_spl_t. `direct` SFLOW_BOTH sends two records, ingress first; the result is
/// that of the second. Access list and snoop travel with ingress only. `acl_name` may be null or empty; of a longer one
/// the first SFLOW_ACL_NAME_LEN bytes are sent. Any direction but the three sends nothing and returns -1.
int sflow_set_sampling_rate_msg(IFINDEX ifx, int rate, int direct, int ifx_type, int acl_id,
                                const char *acl_name, int snoop);
/// Most bytes of a frame to copy per sample: sflow_sample_header_len_t.
int sflow_flow_header_len_msg(int len);
/// Attaches an interface to collector `cid`: sflow_ifx_is_conf_t. `flag` is a sflow_conf_flag_t.
int sflow_ifx_is_conf_msg(IFINDEX ifx, int cid, int flag);
/// A diagnostic request, sflow_debug_t; whether it was queued is logged only.
void sflow_send_debug_msg(int type, int flag);

// Handlers of received records, by command code; `msg` points at the record's header, at any alignment. A null `msg`,
// another type than the handler's and a record shorter than its kind are logged and dropped. Receive thread; the
// caller holds the server's `cmd_lock` and no other lock.

/// Queues the report for the dispatcher. Takes `msg_lock`.
void sflow_get_counter_ret_msg(char *msg);
/// The same for an update, whose interface is that of its generic counters.
void sflow_update_counter_msg(char *msg);
/// Brings an interface's configuration in line with an accepted setting, or warns the operator of a refused one. Takes
/// `config_lock` for writing.
void sflow_set_sampling_rate_ret_msg(char *msg);
/// Encodes a sampled packet at once. How many bytes of the frame are valid is not checked here. Takes `msg_lock`, then
/// `config_lock` for writing.
void sflow_flow_sampler_msg(char *msg);
/// Binds the samples of an interface to the collector that the service has accepted. Takes `config_lock` for writing.
void sflow_ifx_is_conf_ret_msg(char *msg);
/// Stores the capacity set. The type is not checked.
void sflow_hd_capacity_msg(char *msg);
/// Replays the configuration between a start and an end record, then reports the service ready. Nothing of `msg` is
/// looked at. Takes `config_lock` for reading, then `cli_lock`.
void sflow_request_msg(char *msg);
