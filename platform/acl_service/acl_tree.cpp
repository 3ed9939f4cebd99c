// Command trees of access lists.
//
// The modes of the four kinds of lists share the nodes behind which nothing depends on the kind. Rules are built by
// macros: an address is `any`, `host A`, `A/LEN` or `A WILDCARD`; what follows it is the macro's last argument. Nodes
// that store how something was typed stand behind the argument, so that an alternative that fails leaves nothing.
#include "acl_service/acl_commands.h"
#include "acl_service/acl_service.h"
#include "acl_service/acl_slots.h"
#include "cli_service/core.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

namespace platform
{

namespace
{

constexpr u_int64_t USER = CLI_PRIV_USER;

constexpr u_int64_t int_slot(int index)
{
    return CLI_SLOT(int_var) + static_cast<u_int64_t>(index) * sizeof(int64_t);
}

constexpr u_int64_t address_slot(int index)
{
    return CLI_SLOT(paddr_var) + static_cast<u_int64_t>(index) * 16;
}

constexpr u_int64_t SEQUENCE = int_slot(VAR_SEQUENCE);
constexpr u_int64_t ACTION = int_slot(VAR_ACTION);
constexpr u_int64_t PROTOCOL = int_slot(VAR_PROTOCOL);
constexpr u_int64_t KIND = CLI_SLOT(flag_1);
constexpr int64_t most_port = 65535;
constexpr int64_t most_protocol = 255;

constexpr int64_t kind_word(ListKind kind)
{
    return 1 + static_cast<int64_t>(kind);
}

// ---- Predicates ----------------------------------------------------------------------------------------------------

int has_ports(struct_command_data_block *record)
{
    const int64_t protocol = record->int_var[VAR_PROTOCOL];
    return protocol == acl::PROTOCOL_TCP || protocol == acl::PROTOCOL_UDP ? 1 : 0;
}

int testexp_acl_ports(struct_command_data_block *record, const struct_transtion *t)
{
    record->contex_swap = "testexp_acl_ports";
    return test_expression_action(record, t);
}

int is_tcp(struct_command_data_block *record)
{
    return record->int_var[VAR_PROTOCOL] == acl::PROTOCOL_TCP ? 1 : 0;
}

int testexp_acl_tcp(struct_command_data_block *record, const struct_transtion *t)
{
    record->contex_swap = "testexp_acl_tcp";
    return test_expression_action(record, t);
}

/// A range ends where it begins or behind.
template <int END>
void range_from(struct_command_data_block *record, int64_t *minimum, int64_t * /*maximum*/)
{
    *minimum = record->int_var[VAR_PORT + END * END_SLOTS];
}

// ---- Parts of a rule -----------------------------------------------------------------------------------------------

// Slots of the source (0) and the destination (1).
#define ACL_FORM(end) int_slot(VAR_FORM + (end)*END_SLOTS)
#define ACL_LENGTH(end) int_slot(VAR_LENGTH + (end)*END_SLOTS)
#define ACL_ADDRESS(end) address_slot(2 * (end))
#define ACL_WILDCARD(end) address_slot(2 * (end) + 1)

/// `any` and `host A`; `more` are the other forms.
#define ACL_HOST(p, NODE, end, what, more, next)                                                             \
    CLI_NODES(p##_host, p##_host_address, p##_host_set);                                                     \
    CLI_KEYWORD(p, "any", "Any " what, USER, next, p##_host);                                                \
    CLI_KEYWORD(p##_host, "host", "One " what, USER, p##_host_address, more);                                \
    NODE(p##_host_address, "Address", ACL_ADDRESS(end), p##_host_set, Tno_alt);                              \
    CLI_SET(p##_host_set, ACL_FORM(end), FORM_HOST, next)

/// `A WILDCARD`
#define ACL_MASKED(p, NODE, end, next)                                                                       \
    CLI_NODES(p##_wildcard, p##_wildcard_set);                                                               \
    NODE(p##_masked, "Address, followed by a wildcard", ACL_ADDRESS(end), p##_wildcard, Tno_alt);            \
    NODE(p##_wildcard, "Wildcard: 1 is a bit that does not count", ACL_WILDCARD(end), p##_wildcard_set,      \
         Tno_alt);                                                                                           \
    CLI_SET(p##_wildcard_set, ACL_FORM(end), FORM_WILDCARD, next)

#define ACL_IP_ADDRESS(p, NODE, FLAG, end, what, next)                                                       \
    CLI_NODES(p, p##_prefix, p##_prefix_set, p##_masked);                                                    \
    ACL_HOST(p, NODE, end, what, p##_prefix, next);                                                          \
    CLI_PREFIX(p##_prefix, "Network", FLAG, ACL_ADDRESS(end), ACL_LENGTH(end), p##_prefix_set, p##_masked);  \
    CLI_SET(p##_prefix_set, ACL_FORM(end), FORM_PREFIX, next);                                               \
    ACL_MASKED(p, NODE, end, next)

#define ACL_MAC_ADDRESS(p, end, what, next)                                                                  \
    CLI_NODES(p, p##_masked);                                                                                \
    ACL_HOST(p, CLI_MAC, end, what, p##_masked, next);                                                       \
    ACL_MASKED(p, CLI_MAC, end, next)

#define ACL_PORT_TEST(end) int_slot(VAR_PORT_TEST + (end)*END_SLOTS)
#define ACL_PORT(end) int_slot(VAR_PORT + (end)*END_SLOTS)

/// eq|neq|gt|lt PORT, range FIRST LAST, or nothing.
#define ACL_PORTS(p, end, next)                                                                              \
    CLI_NODES(p, p##_eq, p##_neq, p##_gt, p##_lt, p##_range);                                                \
    CLI_NODES(p##_port, p##_above, p##_below, p##_first, p##_last);                                          \
    CLI_TEST(p, testexp_acl_ports, has_ports, p##_eq, next);                                                 \
    CLI_VALUE_KEYWORD(p##_eq, "eq", "This port", USER, ACL_PORT_TEST(end), PORT_EQ, p##_port, p##_neq);      \
    CLI_VALUE_KEYWORD(p##_neq, "neq", "Every other port", USER, ACL_PORT_TEST(end), PORT_NEQ, p##_port,      \
                      p##_gt);                                                                               \
    CLI_VALUE_KEYWORD(p##_gt, "gt", "Ports above", USER, ACL_PORT_TEST(end), PORT_GT, p##_above, p##_lt);    \
    CLI_VALUE_KEYWORD(p##_lt, "lt", "Ports below", USER, ACL_PORT_TEST(end), PORT_LT, p##_below, p##_range); \
    CLI_VALUE_KEYWORD(p##_range, "range", "Ports from the first to the last", USER, ACL_PORT_TEST(end),      \
                      PORT_RANGE, p##_first, next);                                                          \
    CLI_NUMBER(p##_port, "port", 0, most_port, CLI_NUMBER_FLAG, ACL_PORT(end), next, Tno_alt);               \
    CLI_NUMBER(p##_above, "port", 0, most_port - 1, CLI_NUMBER_FLAG, ACL_PORT(end), next, Tno_alt);          \
    CLI_NUMBER(p##_below, "port", 1, most_port, CLI_NUMBER_FLAG, ACL_PORT(end), next, Tno_alt);              \
    CLI_NUMBER(p##_first, "first port", 0, most_port, CLI_NUMBER_FLAG, ACL_PORT(end), p##_last, Tno_alt);    \
    constinit const struct_common_number p##_last_arg = {                                                    \
        "last port",     0,                                                                                  \
        most_port,       range_from<end>,                                                                    \
        CLI_NUMBER_FLAG, int_slot(VAR_PORT_LAST + (end)*END_SLOTS)};                                         \
    constinit const struct_transtion p##_last = {common_number_action, &p##_last_arg, &(next), &Tno_alt}

// [dscp N] [established], the end of rules for IP
CLI_NODES(dscp, dscp_value, dscp_set, tcp_only, established, rule_end);
CLI_KEYWORD(dscp, "dscp", "Differentiated services code point", USER, dscp_value, tcp_only);
CLI_NUMBER(dscp_value, "code point", 0, acl::MAX_DSCP, CLI_NUMBER_FLAG, int_slot(VAR_DSCP), dscp_set,
           Tno_alt);
CLI_SET(dscp_set, CLI_SLOT(flag_2), 1, tcp_only);
CLI_TEST(tcp_only, testexp_acl_tcp, is_tcp, established, rule_end);
CLI_VALUE_KEYWORD(established, "established", "Segments with ACK or RST", USER, CLI_SLOT(flag_3), 1, rule_end,
                  rule_end);
CLI_EOL(rule_end, acl_entry_cmd);

/// {any_word|tcp|udp|icmp|<0-255>} SRC [PORTS] DST [PORTS] [dscp N] [established]
#define ACL_IP_RULE(p, any_word, icmp_number, NODE, FLAG)                                                    \
    CLI_NODES(p, p##_tcp, p##_udp, p##_icmp, p##_protocol);                                                  \
    CLI_NODES(p##_source, p##_source_ports, p##_destination, p##_destination_ports);                         \
    CLI_VALUE_KEYWORD(p, any_word, "Any protocol", USER, PROTOCOL, PROTOCOL_ANY, p##_source, p##_tcp);       \
    CLI_VALUE_KEYWORD(p##_tcp, "tcp", "TCP", USER, PROTOCOL, acl::PROTOCOL_TCP, p##_source, p##_udp);        \
    CLI_VALUE_KEYWORD(p##_udp, "udp", "UDP", USER, PROTOCOL, acl::PROTOCOL_UDP, p##_source, p##_icmp);       \
    CLI_VALUE_KEYWORD(p##_icmp, "icmp", "ICMP", USER, PROTOCOL, icmp_number, p##_source, p##_protocol);      \
    CLI_NUMBER(p##_protocol, "protocol number", 0, most_protocol, CLI_NUMBER_FLAG, PROTOCOL, p##_source,     \
               Tno_alt);                                                                                     \
    ACL_IP_ADDRESS(p##_source, NODE, FLAG, 0, "source", p##_source_ports);                                   \
    ACL_PORTS(p##_source_ports, 0, p##_destination);                                                         \
    ACL_IP_ADDRESS(p##_destination, NODE, FLAG, 1, "destination", p##_destination_ports);                    \
    ACL_PORTS(p##_destination_ports, 1, dscp)

ACL_IP_RULE(extended_rule, "ip", acl::PROTOCOL_ICMP, CLI_IPV4, CLI_IPV4_FLAG);
ACL_IP_RULE(ipv6_rule, "ipv6", acl::PROTOCOL_ICMPV6, CLI_IPV6, CLI_IPV6_FLAG);

// A standard list asks for the source alone. Entries of a standard list ask for no protocol.
CLI_NODES(standard_rule, standard_source);
CLI_SET(standard_rule, PROTOCOL, PROTOCOL_ANY, standard_source);
ACL_IP_ADDRESS(standard_source, CLI_IPV4, CLI_IPV4_FLAG, 0, "source", rule_end);

// SRC DST [ETHERTYPE]
#define ACL_ETHER_TYPE(node, row, alt)                                                                       \
    CLI_VALUE_KEYWORD(node, ETHER_TYPE_WORDS[row].word, "EtherType", USER, int_slot(VAR_ETHER_TYPE),         \
                      ETHER_TYPE_WORDS[row].type, rule_end, alt)
constexpr int64_t least_ether_type = 0x0600;
CLI_NODES(mac_rule_destination, type_0, type_1, type_2, type_3, type_4, type_number, mac_rule_end);
ACL_MAC_ADDRESS(mac_rule, 0, "source", mac_rule_destination);
ACL_MAC_ADDRESS(mac_rule_destination, 1, "destination", type_0);
ACL_ETHER_TYPE(type_0, 0, type_1);
ACL_ETHER_TYPE(type_1, 1, type_2);
ACL_ETHER_TYPE(type_2, 2, type_3);
ACL_ETHER_TYPE(type_3, 3, type_4);
ACL_ETHER_TYPE(type_4, 4, type_number);
static_assert(std::size(ETHER_TYPE_WORDS) == 5);
CLI_NUMBER(type_number, "EtherType", least_ether_type, 0xffff, CLI_NUMBER_FLAG | CLI_NUMBER_FLAG_HEX,
           int_slot(VAR_ETHER_TYPE), rule_end, mac_rule_end);
CLI_EOL(mac_rule_end, acl_entry_cmd);

// ---- Lines of a list -----------------------------------------------------------------------------------------------

// remark TEXT
CLI_NODES(remark, remark_text, remark_end);
CLI_KEYWORD(remark, "remark", "A note for readers", USER, remark_text, Tno_alt);
CLI_TEXT(remark_text, "Text", CLI_SLOT(string_var[0]), remark_end, Tno_alt);
CLI_EOL(remark_end, acl_remark_cmd);

// resequence [FIRST [STEP]]
CLI_NODES(resequence_end, resequence_first, resequence_first_end, resequence_step, resequence_step_end);
CLI_EOL_OR(resequence_end, acl_resequence_cmd, resequence_first);
CLI_NUMBER(resequence_first, "first number", 1, acl::MAX_SEQUENCE, CLI_NUMBER_FLAG, SEQUENCE,
           resequence_first_end, Tno_alt);
CLI_EOL_OR(resequence_first_end, acl_resequence_cmd, resequence_step);
CLI_NUMBER(resequence_step, "distance", 1, acl::MAX_SEQUENCE, CLI_NUMBER_FLAG, int_slot(VAR_STEP),
           resequence_step_end, Tno_alt);
CLI_EOL(resequence_step_end, acl_resequence_cmd);

/// [no] [SEQ] {permit|deny} RULE, [no] [SEQ] remark TEXT, no SEQ, resequence …
#define ACL_LINES(p, rule)                                                                                   \
    CLI_NODES(p##_top, p##_first, p##_no, p##_no_end, p##_sequence, p##_resequence, p##_permit, p##_deny);   \
    CLI_APPEND_POINT(p##_top, p##_first);                                                                    \
    CLI_NOPREFIX(p##_first, p##_no, p##_sequence);                                                           \
    CLI_NUMBER(p##_no, "number of a line", 1, acl::MAX_SEQUENCE, CLI_NUMBER_FLAG, SEQUENCE, p##_no_end,      \
               p##_permit);                                                                                  \
    CLI_EOL_OR(p##_no_end, acl_no_sequence_cmd, p##_permit);                                                 \
    CLI_NUMBER(p##_sequence, "number of the line", 1, acl::MAX_SEQUENCE, CLI_NUMBER_FLAG, SEQUENCE,          \
               p##_permit, p##_resequence);                                                                  \
    CLI_KEYWORD(p##_resequence, "resequence", "Number the lines anew", USER, resequence_end, p##_permit);    \
    CLI_VALUE_KEYWORD(p##_permit, "permit", "Let matching packets be sampled", USER, ACTION,                 \
                      static_cast<int64_t>(acl::Action::permit), rule, p##_deny);                            \
    CLI_VALUE_KEYWORD(p##_deny, "deny", "Keep matching packets from being sampled", USER, ACTION,            \
                      static_cast<int64_t>(acl::Action::deny), rule, remark)

ACL_LINES(standard, standard_rule);
ACL_LINES(extended, extended_rule);
ACL_LINES(ipv6, ipv6_rule);
ACL_LINES(mac, mac_rule);

// ---- Configuration mode --------------------------------------------------------------------------------------------

CLI_NODES(list_name, list_end);
CLI_STRING(list_name, "Name of the list", CLI_SLOT(string_var[0]), list_end, Tno_alt);
CLI_EOL(list_end, acl_list_cmd);

// [no] ip access-list {standard|extended} {<1-2899>|NAME}, no ip access-list {<1-2899>|NAME}
CLI_NODES(config_ip_top, config_ip, config_ip_list, config_ip_c2p, config_standard, config_extended,
          config_bare, list_number);
CLI_APPEND_POINT(config_ip_top, config_ip);
CLI_KEYWORD(config_ip, "ip", "IP configuration", USER, config_ip_list, Tno_alt);
CLI_KEYWORD(config_ip_list, "access-list", "Configure an access list", USER, config_ip_c2p, Tno_alt);
CLI_C2P(config_ip_c2p, acl_lists_c2p, config_standard, Tno_alt);
CLI_VALUE_KEYWORD(config_standard, "standard", "Matches sources", USER, KIND, kind_word(ListKind::standard),
                  list_number, config_extended);
CLI_VALUE_KEYWORD(config_extended, "extended", "Matches protocols, addresses and ports", USER, KIND,
                  kind_word(ListKind::extended), list_number, config_bare);
CLI_NOPREFIX(config_bare, list_number, Tno_alt);
CLI_NUMBER(list_number, "Number of the list", 1, AclService::most_number, CLI_NUMBER_FLAG,
           CLI_SLOT(int_var[0]), list_end, list_name);

// [no] {ipv6|mac} access-list NAME
#define ACL_NAMED(p, text, help, list_kind)                                                                  \
    CLI_NODES(p##_top, p, p##_list, p##_kind);                                                               \
    CLI_APPEND_POINT(p##_top, p);                                                                            \
    CLI_KEYWORD(p, text, help, USER, p##_list, Tno_alt);                                                     \
    CLI_KEYWORD(p##_list, "access-list", "Configure an access list", USER, p##_kind, Tno_alt);               \
    CLI_SET(p##_kind, KIND, kind_word(list_kind), list_name)

ACL_NAMED(config_ipv6, "ipv6", "IPv6 configuration", ListKind::ipv6);
ACL_NAMED(config_mac, "mac", "Ethernet configuration", ListKind::mac);

// ---- Exec mode -----------------------------------------------------------------------------------------------------

// show access-lists [NAME]
CLI_NODES(show_top, show_lists, show_end, show_name, show_name_end);
CLI_APPEND_POINT(show_top, show_lists);
CLI_KEYWORD(show_lists, "access-lists", "Access lists, their entries and who uses them", USER, show_end,
            Tno_alt);
CLI_EOL_OR(show_end, acl_show_cmd, show_name);
CLI_STRING(show_name, "Number or name of a list", CLI_SLOT(string_var[0]), show_name_end, Tno_alt);
CLI_EOL(show_name_end, acl_show_cmd);

struct Tree {
    cli_attach_t attach;
    const struct_transtion *root;
    const char *name;
};
constexpr std::array<Tree, 8> trees{{
    {PARSE_ADD_CFG_CMD, &config_ip_top, "ip access-list"},
    {PARSE_ADD_CFG_CMD, &config_ipv6_top, "ipv6 access-list"},
    {PARSE_ADD_CFG_CMD, &config_mac_top, "mac access-list"},
    {PARSE_ADD_ACL_STANDARD_CMD, &standard_top, "standard access list"},
    {PARSE_ADD_ACL_EXTENDED_CMD, &extended_top, "extended access list"},
    {PARSE_ADD_ACL_IPV6_CMD, &ipv6_top, "ipv6 access list"},
    {PARSE_ADD_ACL_MAC_CMD, &mac_top, "mac access list"},
    {PARSE_ADD_SHOW_CMD, &show_top, "show access-lists"},
}};

/// Names of the lists of a kind, of any kind by default.
std::vector<std::string> list_names(std::optional<ListKind> kind = std::nullopt)
{
    std::vector<std::string> names;
    for (const AclService::Snapshot &present : acl_service().all())
        if (!kind || present.list.kind() == *kind)
            names.push_back(present.list.name());
    return names;
}

} // namespace

int add_acl_commands()
{
    cli::Core &core = cli::Core::instance();
    for (const char *const keyword : {"acl", "access-list", "access-lists"})
        core.offer_names(keyword, [] { return list_names(); });
    core.offer_names("standard", [] { return list_names(ListKind::standard); });
    core.offer_names("extended", [] { return list_names(ListKind::extended); });
    const bool added = std::all_of(trees.begin(), trees.end(), [](const Tree &tree) {
        return cli_add_command(tree.attach, tree.root, tree.name) == 0;
    });
    return added ? 0 : -1;
}

} // namespace platform
