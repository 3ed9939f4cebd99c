// The CLI thread, the command trees and the handlers of the commands (module sflow_cli).
//
// One thread, "sflow_cli", serves a thread master on which the CLI service, the interface manager's and the ACL
// service's clients deliver everything: command handlers, events, notices and the two timers below. Unless a
// declaration says otherwise a function belongs to that thread.
//
// A handler is called in one of two passes and must serve the one it is called in: the execute pass (the operator
// entered the command, with `flag_nd_prefix` set for its "no" form) or the pass that prints the command's
// running-configuration lines (sflow_is_c2p_pass). A refusal is one line of cli_printf and
// cli_client_execmd_fail(); the configuration stays as it was. What a handler reads from the record is what the
// trees store there; the slots stand with each handler.
#pragma once

#include "sflow_agent.h"

#include "platform/cli.h"
#include "platform/kx_thread.h"

/// The management network's VRF under the interface manager; never shown to operators.
constexpr char SFLOW_MGMT_VRF_NAME[] = "&#~_hidden_vrf_mgmt_0_@^$";

/// Bits of parser_status while a handler is called to print running configuration.
constexpr int64_t SFLOW_C2P_STATUS = CLI_PARSER_C2P | CLI_PARSER_C2P_REFORM;

inline bool sflow_is_c2p_pass(const struct_command_data_block *record)
{
    return (record->parser_status & SFLOW_C2P_STATUS) != 0;
}

/// Thread master of the CLI thread; null until the sampling service has reported its capacity. Written by the CLI
/// thread only; other threads hand it to the thread library's functions that any thread may call, nothing else.
extern kx_thread_master_t *sflow_cli_master;

/// Starts the CLI thread; 0 or -1. Main thread, once.
int sflow_cli_init();
/// Body of the CLI thread: names it, then serves one thread master after the other for ever.
void *sflow_cli_proc(void *arg);
/// One life of a thread master: waits for the sampling service's capacity report, starts the clients, registers
/// the trees and serves the master until it has nothing left. Ends the process with status 0 when the master, a
/// client or the readiness timer cannot be had.
void sflow_cli_serve();
/// Has the CLI service regenerate the running configuration within a second; requests in between coalesce. 0, or -1
/// when the timer could not be armed (logged; the next request tries again). Takes no lock of the daemon. Any thread.
int sflow_cli_c2p_reform();
/// Registers every command tree, the sampling-service server's included.
void sflow_cli_cmd_init();
/// Readiness, once a second: opens the CLI service to configuration when everything that configuration depends on
/// has reported, otherwise arms itself again. Takes `cli_lock`. Returns 0.
int sflow_cli_timer(kx_thread_t *thread);
/// Regenerates the running configuration. Returns 0.
int sflow_cli_reform_timer_deal(kx_thread_t *thread);
/// What has reported so far, a set of sflow_cli_ready_flag_t. Takes `cli_lock`. Any thread.
u_int32_t sflow_cli_ready_flags();

// Global configuration (sflow_cli_global.cpp). Each takes `config_lock` itself, or calls functions that do: none may
// be called with it held. The family is `flag_1`: 1 IPv4, 2 IPv6.

/// Agent address: paddr_var[0].
void cfg_sflow_agent_address_cmd(struct_command_data_block *record);
/// Agent address of an interface: int_var[0]. An interface without an address is accepted and leaves a zero
/// address, which the interface's next address event fills in.
void cfg_sflow_agent_interface_cmd(struct_command_data_block *record);
/// Global source: paddr_var[0]; "no" without a family (`flag_1` 0) removes both.
void cfg_sflow_source_address_cmd(struct_command_data_block *record);
/// Global source from an interface: int_var[0]; another interface than the configured one replaces both families.
void cfg_sflow_source_interface_cmd(struct_command_data_block *record);
/// int_var[0], for "no" the default. A value that is in effect already changes and sends nothing.
void cfg_sflow_counter_interval_cmd(struct_command_data_block *record);
void cfg_sflow_flow_maxheader_cmd(struct_command_data_block *record);
void cfg_sflow_sampling_rate_cmd(struct_command_data_block *record);

/// Copies the family that `flag_1` names into `source`; the other family stays. 0, or -1 after the operator was told
/// that it is no host address. `flag_1` 0 copies nothing and is 0.
int sflow_addr_encap(sflow_source_address_t *source, struct_command_data_block *record);
/// Makes `source` that of interface int_var[0] in the family that `flag_1` names, in addition to what it holds; zero
/// when the interface has no address of the family.
void sflow_ifx_addr_encap(sflow_source_address_t *source, struct_command_data_block *record);

// Host addresses (sflow_cli_validity.cpp). Any thread.

/// 1 when the address may be used as a host address, else 0. IPv4 in network byte order; IPv6 as 16 bytes, null
/// being invalid.
int sflow_is_valid_ip(u_int32_t addr);
int sflow_is_valid_ipv6(const u_int8_t *addr);
/// The same as sflow_is_valid_ip, in host byte order.
int ip_chk_srcaddr(u_int32_t addr);
/// 1 for 127.0.0.0/8, host byte order.
int is_loopback_ip(u_int32_t addr);

/// Classes of IPv6 addresses (ipv6_addr_type), a bit set.
constexpr int SFLOW_IPV6_ANY = 0;
constexpr int SFLOW_IPV6_UNICAST = 0x1;
constexpr int SFLOW_IPV6_MULTICAST = 0x2;
constexpr int SFLOW_IPV6_LOOPBACK = 0x10; ///< also multicast of interface-local scope
constexpr int SFLOW_IPV6_LINKLOCAL = 0x20;
constexpr int SFLOW_IPV6_SITELOCAL = 0x40;
constexpr int SFLOW_IPV6_COMPATV4 = 0x80;
constexpr int SFLOW_IPV6_MAPPED = 0x1000;
/// Class of the 16 bytes at `addr` after RFC 4291, with multicast carrying the bit of its scope.
int ipv6_addr_type(const u_int8_t *addr);

// Collectors (sflow_cli_collector.cpp).

/// Collector int_var[0] at paddr_var[0], port int_var[1]; `flag_2`: 0 default VRF, 1 VRF string_var[0], 2 management
/// network, with `flag_5` 1 through interface int_var[3]; description string_var[1]; `flag_3`: 0 no source of its
/// own, 1 paddr_var[1], 2 interface int_var[4]. "No" takes the same arguments and removes the collector that they
/// identify. Entering what is configured already does nothing. Takes `config_lock` for writing.
void cfg_sflow_collector_dest_cmd(struct_command_data_block *record);
/// Largest datagram of collector int_var[0], int_var[1] bytes. Prints no line of its own.
void cfg_sflow_collector_maxlen_cmd(struct_command_data_block *record);
/// Prints both collectors' lines. Takes `config_lock` for reading; a collector whose VRF has ceased to exist is
/// removed on the way.
void cfg_sflow_collector_c2p(struct_command_data_block *record);
/// The destination line of one enabled receiver; prints nothing when the name of its management or source interface
/// is not to be had.
void cfg_sflow_collector_print_address(struct_command_data_block *record, sflreceiver_t *receiver)
    SFLOW_REQUIRES_SHARED(sflow_agent.config_lock);

// Guards of interface mode (sflow_cli_interface_guard.cpp): 1 when the forwarding plane can sample the interface of
// `mode_intidx` that way, else 0. In interface-range mode they answer for the kinds of interfaces in the range.

/// What sflow_interface_support_test asks for.
enum sflow_support_direct_t : int {
    SFLOW_SUPPORT_INGRESS = 0,
    SFLOW_SUPPORT_EGRESS = 1,
    SFLOW_SUPPORT_INGRESS_ACL = 2,
    SFLOW_SUPPORT_INGRESS_SNOOP = 3,
};

int sflow_interface_support_test(struct_command_data_block *record, int direct);
/// Ingress or egress.
int sflow_interface_test(struct_command_data_block *record);
int sflow_interface_ingress_test(struct_command_data_block *record);
int sflow_interface_egress_test(struct_command_data_block *record);
/// Ingress and egress.
int sflow_interface_both_test(struct_command_data_block *record);
int sflow_interface_acl_test(struct_command_data_block *record);
int sflow_interface_snoop_test(struct_command_data_block *record);
/// 1 for an Ethernet type of the interface manager (6 to 11, 49 to 51), else 0.
int is_ethernet_port_by_type(int type);

// Interface configuration (sflow_cli_interface.cpp), for the interface `mode_intidx`. In the execute pass they take
// `config_lock` themselves. In the running-configuration pass they read under the lock that
// cfg_sflow_show_run_interface_cmd holds, and never take it again.

/// Direction int_var[0], a set of SFLOW_INGRESS and SFLOW_EGRESS; `flag_1` 1 for ingress by snooping. The
/// configuration changes when the sampling service has answered.
void intf_sflow_enable_cmd(struct_command_data_block *record);
void intf_sflow_enable_snoop_cmd(struct_command_data_block *record);
/// Ingress limited to access list int_var[3] or string_var[2], of which an interface has at most SFLOW_ACL_SLOTS.
/// Takes a reference on the list, which is released when the sampling service has answered the "no" form.
void intf_sflow_enable_acl_cmd(struct_command_data_block *record);
/// Collector int_var[0], which must have a destination; becomes the interface's when the service has answered.
void intf_sflow_counter_collector_cmd(struct_command_data_block *record);
void intf_sflow_flow_collector_cmd(struct_command_data_block *record);
/// Prints the interface sections of the running configuration, in order of interface index. Holds `config_lock` for
/// reading while the CLI service walks interface mode for each. An interface whose name is not to be had ends it.
void cfg_sflow_show_run_interface_cmd(struct_command_data_block *record);
/// Asks the sampling service to start or stop; tells the operator and marks the command failed when that fails, with
/// the reference on a list (id 0 and empty name: none) released again.
void intf_sflow_enable_cfg(struct_command_data_block *record, int acl_id, const char *acl_name);
/// 0 room for this list on the interface, 1 every slot is taken, 2 the list is applied already (by id; names are not
/// compared). Takes `config_lock` for writing.
int local_acl_cap_check(IFINDEX ifx, int acl_id, const char *acl_name);

// Show commands (sflow_cli_show.cpp). `print_flag` 0 prints to the operator, otherwise to the tech-support output.
// They take `config_lock` or `cli_lock` themselves.

void show_sflow_cmd(struct_command_data_block *record);
void show_sflow(int print_flag);
/// The port table alone.
void show_sflow_handle(int print_flag);
void show_sflow_status_cmd(struct_command_data_block *record);
void show_sflow_status(int print_flag);
/// Diagnostic requests to the sampling service, which writes its answer to its own log: its state, its commands,
/// its debug switch (int_var[0]: 1 on, 0 off).
void show_sflow_lib_info_cmd(struct_command_data_block *record);
void show_sflow_lib_cmd_cmd(struct_command_data_block *record);
void debug_sflow_lib_switch_cmd(struct_command_data_block *record);
