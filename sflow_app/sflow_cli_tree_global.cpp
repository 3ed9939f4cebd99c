// Command trees of global configuration mode (module sflow_cli): `sflow ...`, and `sflow agent interface ...`,
// which is printed after the interfaces because it names one.
//
// A tree lists its nodes in the order in which they are tried. The node that prints a command's running
// configuration stands once, in front of all forms of the command, so that a walk over every node calls each handler
// once; the lines come out in the order of the tree. "No" takes the same nodes unless it needs fewer arguments than
// the plain form.
#include "sflow_cli_internal.h"

namespace
{

int sflow_collector_dest_is_ipv6(struct_command_data_block *record)
{
    return record->flag_1 == SFLOW_ADDRESS_TYPE_IPV6 ? 1 : 0;
}

SFLOW_TEST_EXPRESSION(cfg_sflow_collector_src_addr_test, sflow_collector_dest_is_ipv6)

constexpr u_int64_t FAMILY = CLI_SLOT(flag_1);
constexpr u_int64_t IPV4 = SFLOW_ADDRESS_TYPE_IPV4;
constexpr u_int64_t IPV6 = SFLOW_ADDRESS_TYPE_IPV6;
constexpr u_int64_t OWN_ADDRESS = SFLOW_SOURCE_TYPE_ADDRESS;
constexpr u_int64_t OWN_INTERFACE = SFLOW_SOURCE_TYPE_INTERFACE;
constexpr u_int64_t USER = CLI_PRIV_USER;

CLI_NODES(root, agent, collector, flow, counter, rate, source);

CLI_KEYWORD(root, "sflow", "Configure sflow", USER, agent, Tno_alt);

// sflow agent address {A.B.C.D | ipv6 X:X::X:X}
// no sflow agent address
CLI_NODES(agent_addr, agent_addr_c2p, agent_addr_no, agent_addr_v4, agent_addr_v4_set, agent_addr_ipv6,
          agent_addr_v6, agent_addr_v6_set, agent_addr_end);

CLI_KEYWORD(agent, "agent", "sflow agent", USER, agent_addr, collector);
CLI_KEYWORD(agent_addr, "address", "agent address", USER, agent_addr_c2p, Tno_alt);
CLI_C2P(agent_addr_c2p, cfg_sflow_agent_address_cmd, agent_addr_no, Tno_alt);
CLI_NOPREFIX(agent_addr_no, agent_addr_end, agent_addr_v4);
CLI_IPV4(agent_addr_v4, "agent ip address", CLI_SLOT(paddr_var[0]), agent_addr_v4_set, agent_addr_ipv6);
CLI_SET(agent_addr_v4_set, FAMILY, IPV4, agent_addr_end);
CLI_KEYWORD(agent_addr_ipv6, "ipv6", "ipv6", USER, agent_addr_v6, Tno_alt);
CLI_IPV6(agent_addr_v6, "agent ipv6 address", CLI_SLOT(paddr_var[0]), agent_addr_v6_set, Tno_alt);
CLI_SET(agent_addr_v6_set, FAMILY, IPV6, agent_addr_end);
CLI_EOL(agent_addr_end, cfg_sflow_agent_address_cmd);

// [no] sflow collector <1-2> destination {A.B.C.D | ipv6 X:X::X:X} <1-65535>
//     [vrf NAME | oob [via MGMT-INTERFACE]] [description TEXT] [source {address ADDR | interface INTERFACE}]
// sflow collector <1-2> max-datagram-size <200-9000>
// no sflow collector <1-2> max-datagram-size
CLI_NODES(coll_c2p, coll_id, coll_dest, coll_dest_v4, coll_dest_v4_set, coll_dest_ipv6, coll_dest_v6,
          coll_dest_v6_set, coll_port);
CLI_NODES(coll_vrf, coll_vrf_name, coll_vrf_set, coll_oob, coll_oob_set, coll_via, coll_via_name);
CLI_NODES(coll_desc, coll_desc_text, coll_src, coll_src_addr, coll_src_test, coll_src_v4, coll_src_v6,
          coll_src_addr_set, coll_src_intf, coll_src_intf_name, coll_src_intf_set, coll_dest_end);
CLI_NODES(coll_size, coll_size_no, coll_size_bytes, coll_size_end);

CLI_KEYWORD(collector, "collector", "sflow collector", USER, coll_c2p, flow);
CLI_C2P(coll_c2p, cfg_sflow_collector_c2p, coll_id, Tno_alt);
CLI_NUMBER(coll_id, "sflow collector id", 1, SFLOW_RECEIVER_NUM, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]),
           coll_dest, Tno_alt);
CLI_KEYWORD(coll_dest, "destination", "sflow collector address", USER, coll_dest_v4, coll_size);
CLI_IPV4(coll_dest_v4, "collector ip address", CLI_SLOT(paddr_var[0]), coll_dest_v4_set, coll_dest_ipv6);
CLI_SET(coll_dest_v4_set, FAMILY, IPV4, coll_port);
CLI_KEYWORD(coll_dest_ipv6, "ipv6", "ipv6 address", USER, coll_dest_v6, Tno_alt);
CLI_IPV6(coll_dest_v6, "collector ipv6 address", CLI_SLOT(paddr_var[0]), coll_dest_v6_set, Tno_alt);
CLI_SET(coll_dest_v6_set, FAMILY, IPV6, coll_port);
CLI_NUMBER(coll_port, "sflow collector port", 1, 65535, CLI_NUMBER_FLAG, CLI_SLOT(int_var[1]), coll_vrf,
           Tno_alt);

CLI_KEYWORD(coll_vrf, "vrf", "Set VRF option", USER, coll_vrf_name, coll_oob);
CLI_STRING(coll_vrf_name, "VPN Routing/Forwarding instance name", CLI_SLOT(string_var[0]), coll_vrf_set,
           Tno_alt);
CLI_SET(coll_vrf_set, CLI_SLOT(flag_2), 1, coll_desc);
CLI_KEYWORD(coll_oob, "oob", "mgmt", USER, coll_oob_set, coll_desc);
CLI_SET(coll_oob_set, CLI_SLOT(flag_2), 2, coll_via);
CLI_VALUE_KEYWORD(coll_via, "via", "Specify mgmt interface", USER, CLI_SLOT(flag_5), 1, coll_via_name,
                  coll_desc);
CLI_INTERFACE(coll_via_name, SFLOW_CLI_MANAGEMENT_INTERFACES, CLI_SLOT(int_var[3]), coll_desc, Tno_alt);

CLI_KEYWORD(coll_desc, "description", "Describe sflow collector", USER, coll_desc_text, coll_src);
CLI_STRING(coll_desc_text, "Set sflow collector description", CLI_SLOT(string_var[1]), coll_src, Tno_alt);

CLI_KEYWORD(coll_src, "source", "sflow source address", USER, coll_src_addr, coll_dest_end);
CLI_KEYWORD(coll_src_addr, "address", "Configuresource address", USER, coll_src_test, coll_src_intf);
CLI_TEST(coll_src_test, testexp_cfg_sflow_collector_src_addr_test, testfunc_cfg_sflow_collector_src_addr_test,
         coll_src_v6, coll_src_v4);
CLI_IPV4(coll_src_v4, "source ip address", CLI_SLOT(paddr_var[1]), coll_src_addr_set, Tno_alt);
CLI_IPV6(coll_src_v6, "source ipv6 address", CLI_SLOT(paddr_var[1]), coll_src_addr_set, Tno_alt);
CLI_SET(coll_src_addr_set, CLI_SLOT(flag_3), OWN_ADDRESS, coll_dest_end);
CLI_KEYWORD(coll_src_intf, "interface", "Configure sflow source interface", USER, coll_src_intf_name,
            Tno_alt);
CLI_INTERFACE(coll_src_intf_name, SFLOW_CLI_ORDINARY_INTERFACES, CLI_SLOT(int_var[4]), coll_src_intf_set,
              Tno_alt);
CLI_SET(coll_src_intf_set, CLI_SLOT(flag_3), OWN_INTERFACE, coll_dest_end);
CLI_EOL(coll_dest_end, cfg_sflow_collector_dest_cmd);

CLI_KEYWORD(coll_size, "max-datagram-size", "sflow export max datagram size", USER, coll_size_no, Tno_alt);
CLI_NOPREFIX(coll_size_no, coll_size_end, coll_size_bytes);
CLI_NUMBER(coll_size_bytes, "size", 200, 9000, CLI_NUMBER_FLAG, CLI_SLOT(int_var[1]), coll_size_end, Tno_alt);
CLI_EOL(coll_size_end, cfg_sflow_collector_maxlen_cmd);

// sflow flow max-header <18-256>
// no sflow flow max-header
CLI_NODES(header, header_c2p, header_no, header_bytes, header_end);

CLI_KEYWORD(flow, "flow", "sflow flow max-header", USER, header, counter);
CLI_KEYWORD(header, "max-header", "max-header", USER, header_c2p, Tno_alt);
CLI_C2P(header_c2p, cfg_sflow_flow_maxheader_cmd, header_no, Tno_alt);
CLI_NOPREFIX(header_no, header_end, header_bytes);
CLI_NUMBER(header_bytes, "length", 18, 256, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), header_end, Tno_alt);
CLI_EOL(header_end, cfg_sflow_flow_maxheader_cmd);

// sflow counter interval <3-2147483647>
// no sflow counter interval
CLI_NODES(interval, interval_c2p, interval_no, interval_seconds, interval_end);

CLI_KEYWORD(counter, "counter", "sflow counter interval", USER, interval, rate);
CLI_KEYWORD(interval, "interval", "interval", USER, interval_c2p, Tno_alt);
CLI_C2P(interval_c2p, cfg_sflow_counter_interval_cmd, interval_no, Tno_alt);
CLI_NOPREFIX(interval_no, interval_end, interval_seconds);
CLI_NUMBER(interval_seconds, "seconds", 3, 0x7FFFFFFF, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), interval_end,
           Tno_alt);
CLI_EOL(interval_end, cfg_sflow_counter_interval_cmd);

// sflow sampling-rate <4096-16777215>
// no sflow sampling-rate
CLI_NODES(rate_c2p, rate_no, rate_packets, rate_end);

CLI_KEYWORD(rate, "sampling-rate", "sflow sampling-rate", USER, rate_c2p, source);
CLI_C2P(rate_c2p, cfg_sflow_sampling_rate_cmd, rate_no, Tno_alt);
CLI_NOPREFIX(rate_no, rate_end, rate_packets);
CLI_NUMBER(rate_packets, "rate", 4096, 0xFFFFFF, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), rate_end, Tno_alt);
CLI_EOL(rate_end, cfg_sflow_sampling_rate_cmd);

// sflow source address {A.B.C.D | ipv6 X:X::X:X}
// no sflow source address [ipv6 X:X::X:X]
CLI_NODES(src_addr, src_addr_c2p, src_addr_no, src_addr_no_ipv6, src_addr_v4, src_addr_v4_set, src_addr_ipv6,
          src_addr_v6, src_addr_v6_set, src_addr_end);
CLI_NODES(src_intf, src_intf_c2p, src_intf_no, src_intf_no_ipv6, src_intf_ipv6, src_intf_v4, src_intf_v4_set,
          src_intf_v6, src_intf_v6_set, src_intf_end);

CLI_KEYWORD(source, "source", "sflow source address", USER, src_addr, Tno_alt);
CLI_KEYWORD(src_addr, "address", "Configuresource address", USER, src_addr_c2p, src_intf);
CLI_C2P(src_addr_c2p, cfg_sflow_source_address_cmd, src_addr_no, Tno_alt);
CLI_NOPREFIX(src_addr_no, src_addr_no_ipv6, src_addr_v4);
CLI_KEYWORD(src_addr_no_ipv6, "ipv6", "ipv6", USER, src_addr_v6, src_addr_end);
CLI_IPV4(src_addr_v4, "source ip address", CLI_SLOT(paddr_var[0]), src_addr_v4_set, src_addr_ipv6);
CLI_SET(src_addr_v4_set, FAMILY, IPV4, src_addr_end);
CLI_KEYWORD(src_addr_ipv6, "ipv6", "ipv6", USER, src_addr_v6, Tno_alt);
CLI_IPV6(src_addr_v6, "source ipv6 address", CLI_SLOT(paddr_var[0]), src_addr_v6_set, Tno_alt);
CLI_SET(src_addr_v6_set, FAMILY, IPV6, src_addr_end);
CLI_EOL(src_addr_end, cfg_sflow_source_address_cmd);

// sflow source interface [ipv6] INTERFACE
// no sflow source interface [ipv6 INTERFACE]
CLI_KEYWORD(src_intf, "interface", "Configure sflow source interface", USER, src_intf_c2p, Tno_alt);
CLI_C2P(src_intf_c2p, cfg_sflow_source_interface_cmd, src_intf_no, Tno_alt);
CLI_NOPREFIX(src_intf_no, src_intf_no_ipv6, src_intf_ipv6);
CLI_KEYWORD(src_intf_no_ipv6, "ipv6", "ipv6", USER, src_intf_v6, src_intf_end);
CLI_KEYWORD(src_intf_ipv6, "ipv6", "ipv6", USER, src_intf_v6, src_intf_v4);
CLI_INTERFACE(src_intf_v4, SFLOW_CLI_ORDINARY_INTERFACES, CLI_SLOT(int_var[0]), src_intf_v4_set, Tno_alt);
CLI_SET(src_intf_v4_set, FAMILY, IPV4, src_intf_end);
CLI_INTERFACE(src_intf_v6, SFLOW_CLI_ORDINARY_INTERFACES, CLI_SLOT(int_var[0]), src_intf_v6_set, Tno_alt);
CLI_SET(src_intf_v6_set, FAMILY, IPV6, src_intf_end);
CLI_EOL(src_intf_end, cfg_sflow_source_interface_cmd);

// sflow agent interface [ipv6] INTERFACE
// no sflow agent interface
CLI_NODES(after_root, after_agent, after_intf, after_c2p, after_no, after_ipv6, after_v4, after_v4_set,
          after_v6, after_v6_set, after_end);

CLI_KEYWORD(after_root, "sflow", "Configure sflow", USER, after_agent, Tno_alt);
CLI_KEYWORD(after_agent, "agent", "Configure sflow agent", USER, after_intf, Tno_alt);
CLI_KEYWORD(after_intf, "interface", "Configure sflow agent interface", USER, after_c2p, Tno_alt);
CLI_C2P(after_c2p, cfg_sflow_agent_interface_cmd, after_no, Tno_alt);
CLI_NOPREFIX(after_no, after_end, after_ipv6);
CLI_KEYWORD(after_ipv6, "ipv6", "ipv6", USER, after_v6, after_v4);
CLI_INTERFACE(after_v4, SFLOW_CLI_ORDINARY_INTERFACES, CLI_SLOT(int_var[0]), after_v4_set, Tno_alt);
CLI_SET(after_v4_set, FAMILY, IPV4, after_end);
CLI_INTERFACE(after_v6, SFLOW_CLI_ORDINARY_INTERFACES, CLI_SLOT(int_var[0]), after_v6_set, Tno_alt);
CLI_SET(after_v6_set, FAMILY, IPV6, after_end);
CLI_EOL(after_end, cfg_sflow_agent_interface_cmd);

// Interface sections of the running configuration.
CLI_NODES(show_run_interface);

CLI_C2P(show_run_interface, cfg_sflow_show_run_interface_cmd, Tno_acc, Tno_alt);

} // namespace

CLI_APPEND_POINT(sflow_tree_global, root);
CLI_APPEND_POINT(sflow_tree_after_interfaces, after_root);
CLI_APPEND_POINT(sflow_tree_show_run_interface, show_run_interface);
