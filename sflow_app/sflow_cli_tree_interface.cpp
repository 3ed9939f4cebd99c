// Command tree of interface mode (module sflow_cli): `sflow counter|flow collector ...` and `sflow enable ...`.
//
// Every command is offered only where the forwarding plane can do it, by test expressions in front of the keywords;
// see sflow_cli_tree_global.cpp for how trees are laid out. The plain forms of `sflow enable` end in the same node,
// which prints after those that name an access list or snooping.
#include "sflow_cli_internal.h"

#include "sflow_domain_msg.h"

namespace
{

SFLOW_TEST_EXPRESSION(intf_sflow_test, sflow_interface_test)
SFLOW_TEST_EXPRESSION(intf_sflow_enable_ingress_test, sflow_interface_ingress_test)
SFLOW_TEST_EXPRESSION(intf_sflow_enable_egress_test, sflow_interface_egress_test)
SFLOW_TEST_EXPRESSION(intf_sflow_enable_both_test, sflow_interface_both_test)
SFLOW_TEST_EXPRESSION(intf_sflow_enable_ingress_acl_test, sflow_interface_acl_test)
SFLOW_TEST_EXPRESSION(intf_sflow_enable_ingress_snoop_test, sflow_interface_snoop_test)

constexpr u_int64_t INTF = CLI_PRIV_INTERFACE;
constexpr u_int64_t DIRECTION = CLI_SLOT(int_var[0]);
constexpr u_int64_t INGRESS = SFLOW_INGRESS;
constexpr u_int64_t EGRESS = SFLOW_EGRESS;
constexpr u_int64_t BOTH = SFLOW_BOTH;
/// Highest number of a numbered access list.
constexpr int64_t ACL_ID_MAX = 2899;
constexpr u_int64_t ACL_NUMBER_FLAG = 0x412F;

CLI_NODES(guard, root, counter, flow, enable);

CLI_TEST(guard, testexp_intf_sflow_test, testfunc_intf_sflow_test, root, Tno_alt);
CLI_KEYWORD(root, "sflow", "sflow configure", INTF, counter, Tno_alt);

// sflow counter collector <1-2>
// no sflow counter collector
CLI_NODES(counter_coll, counter_c2p, counter_no, counter_id, counter_end);

CLI_KEYWORD(counter, "counter", "sflow counter sample", INTF, counter_coll, flow);
CLI_KEYWORD(counter_coll, "collector", "sflow collector", INTF, counter_c2p, Tno_alt);
CLI_C2P(counter_c2p, intf_sflow_counter_collector_cmd, counter_no, Tno_alt);
CLI_NOPREFIX(counter_no, counter_end, counter_id);
CLI_NUMBER(counter_id, "sflow collector id", 1, SFLOW_RECEIVER_NUM, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]),
           counter_end, Tno_alt);
CLI_EOL(counter_end, intf_sflow_counter_collector_cmd);

// sflow flow collector <1-2>
// no sflow flow collector
CLI_NODES(flow_coll, flow_c2p, flow_no, flow_id, flow_end);

CLI_KEYWORD(flow, "flow", "sflow flow sample", INTF, flow_coll, enable);
CLI_KEYWORD(flow_coll, "collector", "sflow collector", INTF, flow_c2p, Tno_alt);
CLI_C2P(flow_c2p, intf_sflow_flow_collector_cmd, flow_no, Tno_alt);
CLI_NOPREFIX(flow_no, flow_end, flow_id);
CLI_NUMBER(flow_id, "sflow collector id", 1, SFLOW_RECEIVER_NUM, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]),
           flow_end, Tno_alt);
CLI_EOL(flow_end, intf_sflow_flow_collector_cmd);

// [no] sflow enable [ingress [acl {<1-2899> | NAME} | by-snoop] | egress]
CLI_NODES(ingress_test, ingress, ingress_set, acl_test, acl, acl_c2p, acl_set, acl_id, acl_name, acl_end);
CLI_NODES(snoop_test, snoop, snoop_c2p, snoop_set, snoop_end);
CLI_NODES(egress_test, egress, egress_set, both_test, both_set, enable_c2p, enable_end);

CLI_KEYWORD(enable, "enable", "enable sflow", INTF, ingress_test, Tno_alt);

CLI_TEST(ingress_test, testexp_intf_sflow_enable_ingress_test, testfunc_intf_sflow_enable_ingress_test,
         ingress, egress_test);
CLI_KEYWORD(ingress, "ingress", "enable ingress sflow", INTF, ingress_set, egress_test);
CLI_SET(ingress_set, DIRECTION, INGRESS, acl_test);

CLI_TEST(acl_test, testexp_intf_sflow_enable_ingress_acl_test, testfunc_intf_sflow_enable_ingress_acl_test,
         acl, snoop_test);
CLI_KEYWORD(acl, "acl", "sflow enable ingress acl apply", INTF, acl_c2p, snoop_test);
CLI_C2P(acl_c2p, intf_sflow_enable_acl_cmd, acl_set, Tno_alt);
CLI_SET(acl_set, CLI_SLOT(flag_2), 1, acl_id);
CLI_NUMBER(acl_id, "acl id", 1, ACL_ID_MAX, ACL_NUMBER_FLAG, CLI_SLOT(int_var[3]), acl_end, acl_name);
CLI_STRING(acl_name, "acl name", CLI_SLOT(string_var[2]), acl_end, Tno_alt);
CLI_EOL(acl_end, intf_sflow_enable_acl_cmd);

CLI_TEST(snoop_test, testexp_intf_sflow_enable_ingress_snoop_test,
         testfunc_intf_sflow_enable_ingress_snoop_test, snoop, enable_c2p);
CLI_KEYWORD(snoop, "by-snoop", "sflow enable ingress by-snoop", INTF, snoop_c2p, enable_c2p);
CLI_C2P(snoop_c2p, intf_sflow_enable_snoop_cmd, snoop_set, Tno_alt);
CLI_SET(snoop_set, CLI_SLOT(flag_1), 1, snoop_end);
CLI_EOL(snoop_end, intf_sflow_enable_snoop_cmd);

CLI_TEST(egress_test, testexp_intf_sflow_enable_egress_test, testfunc_intf_sflow_enable_egress_test, egress,
         both_test);
CLI_KEYWORD(egress, "egress", "enable egress sflow", INTF, egress_set, both_test);
CLI_SET(egress_set, DIRECTION, EGRESS, enable_c2p);

CLI_TEST(both_test, testexp_intf_sflow_enable_both_test, testfunc_intf_sflow_enable_both_test, both_set,
         Tno_alt);
CLI_SET(both_set, DIRECTION, BOTH, enable_c2p);

CLI_C2P(enable_c2p, intf_sflow_enable_cmd, enable_end, Tno_alt);
CLI_EOL(enable_end, intf_sflow_enable_cmd);

} // namespace

CLI_APPEND_POINT(sflow_tree_interface, guard);
