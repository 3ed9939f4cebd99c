// CLI service: command trees, command output and the running configuration.
//
// A client hands the service static parse trees (cli_add_command). The service matches what an operator types
// against them, fills a command record from the arguments and calls the handler at the end of the line, on
// the thread that runs the master given to cli_client_init. The same trees describe the running
// configuration: the service walks them and calls the handler of every c2p node, which prints its lines with
// c2p_printf.
//
// Unless a function says otherwise it belongs to that one thread. Nothing here throws. Output never blocks:
// it is queued, and a session that does not read it is closed.
//
// A tree is a graph of `struct_transtion` in static storage. Names are declared first, so that nodes can be
// defined from the root down; each macro defines one node with its record, and ends with the accept and the
// alternate transition. `fan speed <1-9>`, `no fan speed` and the hidden `fan probe`:
//
//     namespace
//     {
//     CLI_NODES(fan_top, fan, speed, speed_c2p, speed_no, speed_rpm, speed_end, probe, probe_end);
//
//     CLI_APPEND_POINT(fan_top, fan);
//     CLI_KEYWORD(fan, "fan", "Configure the fan", CLI_PRIV_USER, speed, Tno_alt);
//     CLI_KEYWORD(speed, "speed", "fan speed", CLI_PRIV_USER, speed_c2p, probe);
//     CLI_C2P(speed_c2p, cfg_fan_speed_cmd, speed_no, Tno_alt);
//     CLI_NOPREFIX(speed_no, speed_end, speed_rpm);
//     CLI_NUMBER(speed_rpm, "rpm", 1, 9, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), speed_end, Tno_alt);
//     CLI_EOL(speed_end, cfg_fan_speed_cmd);
//     CLI_HIDDEN_KEYWORD(probe, "probe", "probe the fan", CLI_PRIV_PRIVILEGED, 5, probe_end, Tno_alt);
//     CLI_EOL(probe_end, fan_probe_cmd);
//     } // namespace
//
//     cli_add_command(PARSE_ADD_CFG_CMD, &fan_top, "fan config");
#pragma once

#include "platform/kx_thread.h"

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <sys/types.h>
#include <type_traits>

struct struct_transtion;
struct struct_command_data_block;

/// State of the walk that is under way; known to the service only.
struct cli_parser_t;
/// The session (or configuration file, or regeneration) that a command belongs to; known to the service only.
struct cli_session_t;

/// Runs one position of a graph. The service calls it with the record being filled; it matches, records and
/// follows the transitions of `t` itself through record->parser. Returns 0 to go on, non-zero to give the
/// walk up.
using cli_action_t = int (*)(struct_command_data_block *record, const struct_transtion *t);
/// A command: execute pass or, when record->parser_status has CLI_PARSER_C2P or CLI_PARSER_C2P_REFORM, the
/// pass that prints the command's running-configuration lines.
using cli_handler_t = void (*)(struct_command_data_block *record);
/// Predicate of a test expression: non-zero is true. Sees the record as filled so far.
using cli_testfun_t = int (*)(struct_command_data_block *record);

/// One position of a parse graph.
struct struct_transtion {
    cli_action_t pfn;
    const void *argument;              ///< node-kind record that `pfn` interprets; nullptr when it needs none
    const struct_transtion *accept;    ///< followed when the action matches
    const struct_transtion *alternate; ///< tried when it does not; the other branch of a branching action
};

/// No further alternative.
extern const struct_transtion Tno_alt;
/// Nothing follows. Both ends may be used as accept and as alternate.
extern const struct_transtion Tno_acc;

// ---------------------------------------------------------------------------------------------------------------
// Command record

/// Bits of parser_status.
constexpr int64_t CLI_PARSER_C2P = 0x02;        ///< running configuration is being collected
constexpr int64_t CLI_PARSER_C2P_REFORM = 0x10; ///< the same, after cli_client_c2p_reform

constexpr int CLI_INT_VARS = 15;
constexpr int CLI_ADDR_VARS = 4;
constexpr int CLI_STRING_VARS = 3;
constexpr int CLI_STRING_LEN = 256; ///< bytes, the terminating NUL included

/// Names of the modes, as cli_change_mode, cli_get_mode_root and record->mode_name have them.
#define CLI_MODE_EXEC "exec"
#define CLI_MODE_CONFIG "config"
#define CLI_MODE_INTERFACE "interface"
#define CLI_MODE_IFRANGE "ifrange"
/// Modes in which the entries of a list are typed, one a kind of list; see cli_enter_mode.
#define CLI_MODE_ACL_STANDARD "acl-standard"
#define CLI_MODE_ACL_EXTENDED "acl-extended"
#define CLI_MODE_ACL_IPV6 "acl-ipv6"
#define CLI_MODE_ACL_MAC "acl-mac"

/// What a command line left behind. Zeroed for each line; one record a command, valid until its handler
/// returns or, after cli_proc_thread_start, until cli_proc_thread_end.
struct struct_command_data_block {
    cli_parser_t *parser;   ///< opaque
    cli_session_t *session; ///< opaque

    int64_t flag_1;
    int64_t flag_2;
    int64_t flag_3;
    int64_t flag_5;
    int64_t flag_subcmd;
    int64_t flag_nd_prefix; ///< non-zero when the line began with "no"
    int64_t parser_status;  ///< CLI_PARSER_*
    int64_t int_var[CLI_INT_VARS];
    /// IPv4: the first four bytes; IPv6: all sixteen. Network order.
    u_int8_t paddr_var[CLI_ADDR_VARS][16];
    char string_var[CLI_STRING_VARS][CLI_STRING_LEN];

    /// Interface of mode "interface". In mode "ifrange": the kinds of all interfaces of the range
    /// (lsm_if_get_kind_mask); a line that matches so is matched again, and its handler runs, once a member in
    /// mode "interface" with its index here. In the modes of lists: what cli_enter_mode was given.
    u_int64_t mode_intidx;
    const char *mode_name;   ///< CLI_MODE_*
    const char *contex_swap; ///< name of the test expression that was evaluated last
};
static_assert(std::is_standard_layout_v<struct_command_data_block> &&
              std::is_trivially_copyable_v<struct_command_data_block>);

/// A slot: where in the record an argument is stored, e.g. CLI_SLOT(int_var[1]). Numbers, interface indices
/// and keyword values go to the int64_t members, addresses to paddr_var[n], strings to string_var[n].
#define CLI_SLOT(member) (static_cast<u_int64_t>(offsetof(struct_command_data_block, member)))

// ---------------------------------------------------------------------------------------------------------------
// Node kinds

/// 64-bit word that a node writes into a slot: a number, or the address of a static object.
union cli_word_t {
    u_int64_t number;
    const void *pointer;

    template <typename Integer>
    requires std::is_integral_v<Integer>
    constexpr cli_word_t(Integer value) : number(static_cast<u_int64_t>(value)) {}
    constexpr cli_word_t(const void *address) : pointer(address) {}
};
static_assert(sizeof(cli_word_t) == sizeof(u_int64_t));

/// Privilege words (exec_priv, def_priv). User level may use a word that has bit 0x08 and not bit 0x10;
/// privileged level may use every word. Bit 0x400 marks keywords of interface mode and restricts nothing.
constexpr u_int64_t CLI_PRIV_USER = 14;
constexpr u_int64_t CLI_PRIV_PRIVILEGED = 30;
constexpr u_int64_t CLI_PRIV_DEBUG = 2; ///< privileged
constexpr u_int64_t CLI_PRIV_INTERFACE = 1038;

/// Bits of struct_common_keyword::flag.
constexpr u_int64_t CLI_KEYWORD_FLAG = 2;        ///< every keyword
constexpr u_int64_t CLI_KEYWORD_FLAG_HIDDEN = 4; ///< matched, never listed by help or completion
constexpr u_int64_t CLI_KEYWORD_FLAG_VALUE = 8;  ///< a match writes `value` to `var_pos`

constexpr u_int64_t CLI_NUMBER_FLAG = 258;
constexpr u_int64_t CLI_NUMBER_FLAG_HEX =
    0x10000; ///< also taken as 0x and hexadecimal digits, and offered so
constexpr u_int64_t CLI_IPV4_FLAG = 2;
constexpr u_int64_t CLI_IPV6_FLAG = 66;
constexpr u_int64_t CLI_STRING_FLAG = 2;
constexpr u_int64_t CLI_VARIABLE_FLAG = 8; ///< interface arguments and set nodes

/// Keyword, case ignored. The whole word always matches; an abbreviation must have `mini_match` characters.
/// The whole word beats abbreviations; an abbreviation of two keywords that are not hidden is ambiguous; one
/// that fits a listed and a hidden keyword means the listed one.
struct struct_common_keyword {
    const char *pname;
    const char *phelp;
    u_int64_t priv_count;
    u_int64_t exec_priv;
    u_int64_t def_priv;
    u_int64_t mini_match;
    u_int64_t flag;    ///< CLI_KEYWORD_FLAG*
    u_int64_t var_pos; ///< slot
    cli_word_t value;
};

/// Decimal number without sign, blank or leading plus, minimum <= number <= maximum.
struct struct_common_number {
    const char *pHelp;
    int64_t minimum;
    int64_t maximum;
    /// Narrows the range for this record when not nullptr.
    void (*pfn)(struct_command_data_block *record, int64_t *minimum, int64_t *maximum);
    u_int64_t nFlag;
    u_int64_t nVarPos;
};

/// IPv4 address in strict dotted quad, or IPv6 address in any notation of inet_pton(3).
struct struct_common_ipaddr {
    const char *pHelp;
    u_int64_t nFlag;
    u_int64_t nVarPos;
    u_int64_t nFlagVarPos; ///< slot that receives nValue; 0: none
    u_int64_t nValue;
};

/// Address and length of a prefix in one word, A.B.C.D/LEN or X:X::X:X/LEN. Host bits are stored as typed.
struct struct_common_prefix {
    const char *pHelp;
    u_int64_t nFlag;   ///< CLI_IPV4_FLAG or CLI_IPV6_FLAG
    u_int64_t nVarPos; ///< address slot
    u_int64_t nLenPos; ///< slot of the length
};

/// Ethernet address, six bytes at the front of an address slot: 00:11:22:33:44:55, 00-11-22-33-44-55 or
/// 0011.2233.4455.
struct struct_common_mac {
    const char *pHelp;
    u_int64_t nFlag;
    u_int64_t nVarPos;
};

/// The rest of the line, one word or more, at most 255 bytes; blanks between words become one.
struct struct_common_text {
    const char *pHelp;
    u_int64_t nFlag;
    u_int64_t nVarPos;
};

/// One word of at most 255 bytes.
struct struct_common_string {
    const char *pHelp;
    u_int64_t nFlag;
    u_int64_t nVarPos;
};

/// Name of an existing interface of one of the kinds of `nType` (bits of lsm_if_get_kind_mask).
struct struct_common_interface {
    const char *pkeyword; ///< unused
    const char *phelp;    ///< nullptr: the service's own text
    u_int64_t nType;
    u_int64_t nFlag;
    u_int64_t nVarPos;
    u_int64_t nFlagPos; ///< slot that receives 1; 0: none
    u_int64_t nTypePos; ///< slot that receives the interface's kind; 0: none
};

/// Stores `value`; consumes no input.
struct struct_set_cdb_var {
    cli_word_t value;
    u_int64_t flag;
    u_int64_t nVarPos;
};

/// Branch on a predicate. The transition's pfn is the client's own testexp_ function, which stores its name
/// in record->contex_swap and returns test_expression_action(record, t). Collecting the running configuration
/// goes down both branches, so that configuration stays visible and is saved while a capability is missing.
struct struct_test_expression {
    const struct_transtion *ptrue;
    const struct_transtion *pfalse;
    cli_testfun_t ptestfun;
};

/// `pfn` prints the running-configuration lines of the command it stands in. Matching a line passes through.
struct struct_c2p {
    cli_handler_t pfn;
    u_int64_t subcmd; ///< not 0: goes to flag_subcmd before `pfn` is called
};

/// End of the line: `exec_func` runs.
struct struct_eol {
    u_int64_t nFlag;
    cli_handler_t exec_func;
    u_int64_t subcmd; ///< not 0: goes to flag_subcmd before `exec_func` is called
};

// Actions. Each takes the record kind of its name as argument; the last three take none.
int common_keyword_action(struct_command_data_block *record, const struct_transtion *t);
int common_number_action(struct_command_data_block *record, const struct_transtion *t);
int ipaddr_action(struct_command_data_block *record, const struct_transtion *t);
int ipaddr_v6_action(struct_command_data_block *record, const struct_transtion *t);
int string_action(struct_command_data_block *record, const struct_transtion *t);
int prefix_action(struct_command_data_block *record, const struct_transtion *t);
int mac_action(struct_command_data_block *record, const struct_transtion *t);
int text_action(struct_command_data_block *record, const struct_transtion *t);
int interface_action(struct_command_data_block *record, const struct_transtion *t);
int set_cdb_var_action(struct_command_data_block *record, const struct_transtion *t);
int test_expression_action(struct_command_data_block *record, const struct_transtion *t);
int c2p_action(struct_command_data_block *record, const struct_transtion *t);
int eol_action(struct_command_data_block *record, const struct_transtion *t);
/// Follows `accept` when the line began with "no", otherwise `alternate`.
int noprefix_action(struct_command_data_block *record, const struct_transtion *t);
/// Offers `accept`, then `alternate`.
int nop_action(struct_command_data_block *record, const struct_transtion *t);
/// Root of a registered tree: `accept` is its first node.
int append_point_action(struct_command_data_block *record, const struct_transtion *t);

// ---------------------------------------------------------------------------------------------------------------
// Node definitions, for namespace scope. `node` names the transition; `node`_arg is its record.

/// Declares the transitions of a tree. Inside an unnamed namespace they stay private to the file.
#define CLI_NODES(...) extern const struct_transtion __VA_ARGS__

/// Every field of a keyword.
#define CLI_KEYWORD_FULL(node, text, help, priv, mini, flags, slot, word, acc, alt)                          \
    constinit const struct_common_keyword node##_arg = {text, help, 1, priv, priv, mini, flags, slot, word}; \
    constinit const struct_transtion node = {common_keyword_action, &node##_arg, &(acc), &(alt)}
#define CLI_KEYWORD(node, text, help, priv, acc, alt)                                                        \
    CLI_KEYWORD_FULL(node, text, help, priv, 1, CLI_KEYWORD_FLAG, 0, 0, acc, alt)
#define CLI_HIDDEN_KEYWORD(node, text, help, priv, mini, acc, alt)                                           \
    CLI_KEYWORD_FULL(node, text, help, priv, mini, CLI_KEYWORD_FLAG | CLI_KEYWORD_FLAG_HIDDEN, 0, 0, acc, alt)
/// Keyword that writes `word` to `slot`.
#define CLI_VALUE_KEYWORD(node, text, help, priv, slot, word, acc, alt)                                      \
    CLI_KEYWORD_FULL(node, text, help, priv, 1, CLI_KEYWORD_FLAG | CLI_KEYWORD_FLAG_VALUE, slot, word, acc,  \
                     alt)

#define CLI_NUMBER(node, help, min, max, flags, slot, acc, alt)                                              \
    constinit const struct_common_number node##_arg = {help, min, max, nullptr, flags, slot};                \
    constinit const struct_transtion node = {common_number_action, &node##_arg, &(acc), &(alt)}
#define CLI_IPV4(node, help, slot, acc, alt)                                                                 \
    constinit const struct_common_ipaddr node##_arg = {help, CLI_IPV4_FLAG, slot, 0, 0};                     \
    constinit const struct_transtion node = {ipaddr_action, &node##_arg, &(acc), &(alt)}
#define CLI_IPV6(node, help, slot, acc, alt)                                                                 \
    constinit const struct_common_ipaddr node##_arg = {help, CLI_IPV6_FLAG, slot, 0, 0};                     \
    constinit const struct_transtion node = {ipaddr_v6_action, &node##_arg, &(acc), &(alt)}
#define CLI_STRING(node, help, slot, acc, alt)                                                               \
    constinit const struct_common_string node##_arg = {help, CLI_STRING_FLAG, slot};                         \
    constinit const struct_transtion node = {string_action, &node##_arg, &(acc), &(alt)}
#define CLI_PREFIX(node, help, flags, slot, len_slot, acc, alt)                                              \
    constinit const struct_common_prefix node##_arg = {help, flags, slot, len_slot};                         \
    constinit const struct_transtion node = {prefix_action, &node##_arg, &(acc), &(alt)}
#define CLI_MAC(node, help, slot, acc, alt)                                                                  \
    constinit const struct_common_mac node##_arg = {help, CLI_STRING_FLAG, slot};                            \
    constinit const struct_transtion node = {mac_action, &node##_arg, &(acc), &(alt)}
/// Only the end of the line may follow.
#define CLI_TEXT(node, help, slot, acc, alt)                                                                 \
    constinit const struct_common_text node##_arg = {help, CLI_STRING_FLAG, slot};                           \
    constinit const struct_transtion node = {text_action, &node##_arg, &(acc), &(alt)}
#define CLI_INTERFACE(node, kinds, slot, acc, alt)                                                           \
    constinit const struct_common_interface node##_arg = {nullptr, nullptr, kinds, CLI_VARIABLE_FLAG,        \
                                                          slot,    0,       0};                              \
    constinit const struct_transtion node = {interface_action, &node##_arg, &(acc), &(alt)}
#define CLI_SET(node, slot, word, acc)                                                                       \
    constinit const struct_set_cdb_var node##_arg = {word, CLI_VARIABLE_FLAG, slot};                         \
    constinit const struct_transtion node = {set_cdb_var_action, &node##_arg, &(acc), &Tno_alt}
/// `testexp` is the client's testexp_ function, `testfunc` its predicate.
#define CLI_TEST(node, testexp, testfunc, when_true, when_false)                                             \
    constinit const struct_test_expression node##_arg = {&(when_true), &(when_false), testfunc};             \
    constinit const struct_transtion node = {testexp, &node##_arg, &(when_true), &(when_false)}
#define CLI_C2P(node, handler, acc, alt)                                                                     \
    constinit const struct_c2p node##_arg = {handler, 0};                                                    \
    constinit const struct_transtion node = {c2p_action, &node##_arg, &(acc), &(alt)}
#define CLI_EOL(node, handler) CLI_EOL_OR(node, handler, Tno_alt)
/// End of the line, or `alt`.
#define CLI_EOL_OR(node, handler, alt)                                                                       \
    constinit const struct_eol node##_arg = {1, handler, 0};                                                 \
    constinit const struct_transtion node = {eol_action, &node##_arg, &Tno_acc, &(alt)}
/// `when_no` for a line that began with "no", otherwise `when_plain`.
#define CLI_NOPREFIX(node, when_no, when_plain)                                                              \
    constinit const struct_transtion node = {noprefix_action, nullptr, &(when_no), &(when_plain)}
#define CLI_NOP(node, first, second)                                                                         \
    constinit const struct_transtion node = {nop_action, nullptr, &(first), &(second)}
#define CLI_APPEND_POINT(node, first)                                                                        \
    constinit const struct_transtion node = {append_point_action, nullptr, &(first), &Tno_alt}

// ---------------------------------------------------------------------------------------------------------------
// Registration

/// Where a tree hooks in.
enum cli_attach_t : int {
    PARSE_ADD_EXEC_TOP_CMD = 1,      ///< exec mode
    PARSE_ADD_SHOW_CMD = 6,          ///< exec mode, after `show`
    PARSE_ADD_EXEC_DEBUG_CMD = 17,   ///< exec mode, after `debug` (flag_1 is 1) or `no debug` (flag_1 is 2)
    PARSE_ADD_CFG_CMD = 33,          ///< configuration mode
    PARSE_ADD_CFG_AFT_INTF_CMD = 42, ///< configuration mode; printed after the interfaces
    PARSE_ADD_INTERFACE_CMD = 59,    ///< interface and interface-range mode
    PARSE_ADD_DEBUG_SUPPORT_SHOW_TECH_CMD = 518, ///< exec mode, after `show tech-support`
    PARSE_ADD_ACL_STANDARD_CMD = 1001,           ///< the modes CLI_MODE_ACL_*
    PARSE_ADD_ACL_EXTENDED_CMD = 1002,
    PARSE_ADD_ACL_IPV6_CMD = 1003,
    PARSE_ADD_ACL_MAC_CMD = 1004,
};

/// Hooks a tree in. Trees of one attach point are tried, and printed in the running configuration, in the
/// order of their registration; a tree of PARSE_ADD_CFG_CMD that is nothing but a c2p node prints the
/// interface sections and comes after the others. A tree that is there already stays in its place; only its name
/// is taken over. Any thread.
///
/// @param append_point  transition with append_point_action; it and the tree stay for the process's life
/// @param name          names the registration in diagnostics, several may have the same; copied
/// @return 0, or -1 when an argument is nullptr, the attach point unknown or the tree not sound: a node
///         without text, action, predicate or handler, or with a slot of another kind than its argument
int cli_add_command(cli_attach_t attach, const struct_transtion *append_point, const char *name);

/// Opens the service to operators on the caller's thread: from here on sessions, handlers and the running
/// configuration run as tasks of `master`. Sessions are accepted but, until cli_client_ready, can neither
/// change nor save configuration. A second call moves the service to a new master and closes the sessions;
/// the old master has been finished by then.
///
/// @param name  client's name for the log; copied
/// @return 0, or -1 when TMPDIR is not set or the socket $TMPDIR/platform/cli_socket cannot be served
int cli_client_init(const char *name, kx_thread_master_t *master);

/// Tells operators what a client that is not ready yet waits for, in words that follow "it waits for "; copied,
/// empty: not known. Replaces what was told before. On the thread that called cli_client_init.
void cli_client_awaits(const char *what);

/// The client accepts configuration: applies $SFLOW_CONFIG_DIR/startup-config (default /etc/sflow; no file is
/// no error), logging lines that fail with their number, then opens configuration commands to the sessions.
/// Further calls do nothing.
void cli_client_ready();

// ---------------------------------------------------------------------------------------------------------------
// For handlers

/// Writes to the session whose command runs on this thread: inside a handler, or on a thread between
/// cli_proc_thread_start and cli_proc_thread_end. Anywhere else, and in a c2p pass, the text goes nowhere.
/// Formats as zformat.h (%a IPv4 address, %v IPv6 address). Any thread.
/// @return bytes written, 0 when it went nowhere
int cli_printf(const char *format, ...);

/// Marks the command failed. Output is the handler's own business.
void cli_client_execmd_fail(struct_command_data_block *record);

/// The session that typed the command goes on in a mode of lists (CLI_MODE_ACL_*) or, with CLI_MODE_CONFIG,
/// leaves it. Its next lines have the mode and, as mode_intidx, `index`; lines that are no commands of the mode
/// are taken as configuration commands, which leave it.
/// @param label  names the list in the prompt; copied
/// @return 0, or -1 for another mode or a command that no session typed
int cli_enter_mode(struct_command_data_block *record, const char *mode_name, u_int64_t index,
                   const char *label);

/// Adds one line to the running configuration; does nothing outside a c2p pass. A newline at the end of the
/// text is dropped. Lines of mode "interface" and of the modes of lists are indented by one blank. Formats as zformat.h; at most 1023
/// bytes.
/// @param non_default  0: the value is the default, the line is shown by `show running-config all` only
/// @return 0, or -1 when there was nowhere to add it
int c2p_printf(int non_default, struct_command_data_block *record, const char *format, ...);

/// Gives the record another mode (CLI_MODE_*) for what is printed or walked next. mode_intidx stays.
/// @param how  1
/// @return 0, or -1 for an unknown mode
int cli_change_mode(struct_command_data_block *record, const char *mode_name, int how);

/// Root of everything registered in a mode; nullptr for an unknown mode. Valid for the process's life. Any
/// thread.
const struct_transtion *cli_get_mode_root(const char *mode_name);

/// In a c2p pass: calls the handler of every c2p node below `root`, with the record's mode_intidx as it is and
/// its mode set to `mode_name`. Each transition is visited once and each handler called once a walk, so that
/// several nodes of a tree may name the same one. The record's mode is the same afterwards.
/// @return 0, or -1 outside a c2p pass or for an unknown mode
int cli_walkthrought_node(struct_command_data_block *record, const char *mode_name,
                          const struct_transtion *root);

// ---------------------------------------------------------------------------------------------------------------
// Commands that outlive their handler

/// The command of `record` goes on in thread `tid`: it completes, and the record ends, when every thread that
/// was started has called cli_proc_thread_end. Output of that thread goes to the command's session. The
/// handler calls it before it returns, even if the thread should be through already; the thread may call it
/// for itself too. Any thread.
/// @return 0, or -1 for a record that belongs to no command
int cli_proc_thread_start(struct_command_data_block *record, pthread_t tid);

/// Ends what cli_proc_thread_start began; the record is not to be used afterwards. Called by thread `tid`
/// itself.
int cli_proc_thread_end(struct_command_data_block *record, pthread_t tid);

/// Runs one exec-mode command line, privileged, as part of the command of `record`: its handler runs on the
/// service's thread and its output goes to that command's session. Output modifiers work.
///
/// Any thread. On another than the service's the caller waits until the command is done, and must hold no
/// lock that a handler takes; on the service's own the call does not wait for threads that carry it on.
/// @return 0, or -1 when the line was refused or failed
int cli_run_command(struct_command_data_block *record, const char *line);

// ---------------------------------------------------------------------------------------------------------------
// Running configuration

/// Configuration changed outside a command: what is saved may be out of date. Any thread.
void cli_param_is_change();

/// Collects the running configuration now.
/// @param thread  the task that calls, may be nullptr
/// @return 0, or -1 when the service is not open
int cli_client_c2p_reform(kx_thread_t *thread);
