// Debug switches, the gate in front of every operational log line, and the event counters (module sflow_dbg).
//
// A line is sent to the syslog client only when its category's switch or the all switch is on; the test comes
// before the arguments are formatted, so that a silent category costs two byte reads.
#pragma once

#include "sflow_atomic.h"

#include "platform/syslog_client.h"

#include <sys/types.h>

extern bool sflow_debug_all;
extern bool sflow_debug_event;
extern bool sflow_debug_export;
extern bool sflow_debug_conf;
extern bool sflow_debug_skt; ///< can be set and is listed, but gates nothing

/// Whether a format begins with its category's tag.
constexpr bool sflow_has_tag(const char *format, const char *tag)
{
    while (*tag != '\0') {
        if (*format++ != *tag++)
            return false;
    }
    return true;
}

#define SFLOW_LOG_GATED(on, tag, format, ...)                                                                \
    do {                                                                                                     \
        static_assert(sflow_has_tag(format, tag), "the format's tag is another category's");                 \
        if (sflow_load(sflow_debug_all) || sflow_load(on))                                                   \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, format __VA_OPT__(, ) __VA_ARGS__);            \
    } while (0)

/// The tag at the beginning of the format and the switch in front of it belong together; the compiler checks it.
#define SFLOW_LOG_CONF(...) SFLOW_LOG_GATED(sflow_debug_conf, "[SFLOW-CONF]", __VA_ARGS__)
#define SFLOW_LOG_EVENT(...) SFLOW_LOG_GATED(sflow_debug_event, "[SFLOW-EVENT]", __VA_ARGS__)
#define SFLOW_LOG_EXPT(...) SFLOW_LOG_GATED(sflow_debug_export, "[SFLOW-EXPT]", __VA_ARGS__)

/// Event counters since start; relaxed.
struct sflow_debug_statis_t {
    u_int32_t sflow_drop_flow_num;
    u_int32_t sflow_drop_invalid_num;
    u_int32_t sflow_recv_flow_num;
    u_int32_t sflow_drop_counter_num;
    u_int32_t sflow_recv_counter_num;
    u_int32_t sflow_malloc_fail_num;
    u_int32_t sflow_get_counter_fail_num;
    u_int32_t sflow_export_pkt_num;
    u_int32_t sflow_export_fail_num;
    u_int32_t sflow_export_flow_num;
    u_int32_t sflow_export_counter_num;
    u_int32_t sflow_export_spl_fail_num;
};

extern sflow_debug_statis_t sflow_statis;

struct struct_command_data_block;
struct debug_element_type;

/// The switches with their descriptions, ended by a row of nulls. Row 0 is the all switch; the row number is what
/// the command tree stores in `flag_subcmd`.
extern debug_element_type sflow_array[];

/// Registers the `debug sflow` commands and the platform's debug listing. CLI thread, once.
void sflow_debug_init();
/// Sets (`flag_1` 1) or clears (`flag_1` 2) the switch of row `flag_subcmd` of the table at int_var[0]. Row 0 stands
/// for every other row and ends up off itself: the categories carry the state. CLI thread.
void sflow_debug_ctrl_cmd(struct_command_data_block *record);
/// Prints the switches that are on to standard output, which the debug listing collects.
void sflow_debug_show();
/// Prints the counters and the length of the event queue; `print_flag` 0 to the operator, otherwise to the
/// tech-support output. Takes `msg_lock`.
void sflow_debug_statis(int print_flag);
void sflow_debug_statis_cmd(struct_command_data_block *record);
