// Reaction to the interface manager's events (module sflow_lsm); all of it runs on the CLI thread.
#pragma once

#include "platform/kx_thread.h"
#include "sflow_types.h"

/// Subscribes to the events of the TCP/IP and the physical layer and connects to the interface manager, whose events
/// then run on `master`. 0, else the failing call's result with its name in the debug file. When the connection is
/// up and the registration cannot be completed, the process ends with status 0. CLI thread, once.
int sflow_lsm_init(kx_thread_master_t *master);

/// Handles one event of either registration. `data` is the event's payload record, or null; `len` is not looked at:
/// the event number says how large the record is. Other event numbers than those below are ignored. Takes
/// `config_lock` (for event 48 `cli_lock`); the caller holds no lock.
int sflow_recv_lsm_msg(int event, char *data, int len);

/// Forgets the configuration and the counter base of `ifx` if the interface is gone. The end of an interface may come
/// between a setting and the sampling service's answer, or overtake a counter update, which then leaves what nothing
/// would ever take away again; so whoever applies an answer or an update calls this afterwards. Before the initial data
/// are complete no interface counts as gone. Takes `config_lock`; the caller does not hold it, but may hold `msg_lock`.
/// Any thread.
void sflow_lsm_forget_if_gone(IFINDEX ifx);

// The events that change addresses (sflow_lsm_address.cpp); `data` as above. Each takes `config_lock` for writing.

/// The interface's IPv4 or IPv6 addresses changed: the agent address, the global source and the collectors' own
/// sources that are learnt from it follow, and the sockets bound to the old ones are closed.
void sflow_ipv4_address_change(const char *data);
void sflow_ipv6_address_change(const char *data);
/// Its link went up or down: the sources follow, the agent address does not.
void sflow_lsm_intf_status_chang(const char *data);
