// What the files of module sflow_cli share, and the modules whose commands look alike (sflow_dbg, sflow_tech_sup).
// Everything here belongs to the CLI thread.
#pragma once

#include "sflow_cli.h"
#include "sflow_dbg.h"

#include "platform/tech.h"
#include "platform/zformat.h"

#include <cstdint>
#include <cstring>

/// Bytes of a line that is put together piece by piece.
constexpr int SFLOW_CLI_LINE_LEN = 300;

/// Kinds of interfaces that an interface argument accepts (lsm_if_kind_t).
constexpr u_int64_t SFLOW_CLI_ORDINARY_INTERFACES = 0xFFDFEFEF;
constexpr u_int64_t SFLOW_CLI_MANAGEMENT_INTERFACES = 0x100000;

// Append points of the trees.
extern const struct_transtion sflow_tree_show_run_interface;
extern const struct_transtion sflow_tree_global;
extern const struct_transtion sflow_tree_after_interfaces;
extern const struct_transtion sflow_tree_interface;
extern const struct_transtion sflow_tree_show;
extern const struct_transtion sflow_tree_service_info;
extern const struct_transtion sflow_tree_service_debug;

/// Defines the pair of functions behind a test expression: `testexp_NAME` for the transition, `testfunc_NAME` for
/// its record.
#define SFLOW_TEST_EXPRESSION(name, predicate)                                                               \
    int testexp_##name(struct_command_data_block *record, const struct_transtion *t)                         \
    {                                                                                                        \
        record->contex_swap = "testexp_" #name;                                                              \
        return test_expression_action(record, t);                                                            \
    }                                                                                                        \
    int testfunc_##name(struct_command_data_block *record)                                                   \
    {                                                                                                        \
        return (predicate)(record) != 0 ? 1 : 0;                                                             \
    }

/// Copies an address slot of a command record into a value whose other bytes are zero.
inline void sflow_cli_copy_ipv4(sfladdress_value_t *to, const u_int8_t *slot)
{
    std::memcpy(&to->ip_v4, slot, 4);
}
inline void sflow_cli_copy_ipv6(sfladdress_value_t *to, const u_int8_t *slot)
{
    std::memcpy(to->ip_v6, slot, 16);
}

/// Stores the interface's first address of the family in a zeroed value, or zero with a log line when it has none.
void sflow_cli_interface_address(IFINDEX ifx, sflow_address_type_t family, sfladdress_value_t *address);

/// Prints one piece of a show command where `print_flag` says.
template <typename... Args>
void sflow_show_printf(int print_flag, const char *format, Args... args)
{
    if (print_flag != 0)
        tech_module_msg_output(format, args...);
    else
        cli_printf(format, args...);
}

/// Logs a text with addresses in it under the configuration switch: the platform's formatter knows them, the
/// syslog client does not.
template <typename... Args>
void sflow_cli_log_text(const char *format, Args... args)
{
    if (!sflow_load(sflow_debug_all) && !sflow_load(sflow_debug_conf))
        return;
    char text[SFLOW_CLI_LINE_LEN];
    zsnprintf(text, sizeof(text), format, args...);
    SFLOW_LOG_CONF("[SFLOW-CONF]%s", text);
}

/// Tells under the configuration switch how the request of `function` for a new running configuration went.
inline void sflow_cli_reform_and_log(const char *function)
{
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", function);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", function);
}
