// Debug switches and event counters (module sflow_dbg). The switches live for the process, all off at first, and are
// no part of the configuration; the counters are counted where the events happen and never cleared.
#include "sflow_dbg.h"

#include "sflow_cli_internal.h"

#include <cstdio>

bool sflow_debug_all;
bool sflow_debug_event;
bool sflow_debug_export;
bool sflow_debug_conf;
bool sflow_debug_skt;

sflow_debug_statis_t sflow_statis;

debug_element_type sflow_array[] = {
    {&sflow_debug_all, "sflow debug all"},
    {&sflow_debug_event, "sflow flow debug information"},
    {&sflow_debug_export, "sflow export debug information"},
    {&sflow_debug_conf, "sflow configure debug information"},
    {&sflow_debug_skt, "sflow socket debug information"},
    {nullptr, nullptr},
};

// ---- Commands ------------------------------------------------------------------------------------------------

namespace
{

/// Rows of sflow_array.
constexpr int ROW_ALL = 0;
constexpr int ROW_EVENT = 1;
constexpr int ROW_EXPORT = 2;
constexpr int ROW_CONF = 3;
constexpr int ROW_SOCKET = 4;

constexpr u_int64_t DEBUG = CLI_PRIV_DEBUG;
constexpr u_int64_t ROW = CLI_SLOT(flag_subcmd);

// debug sflow {all | socket | event | export | conf}, and its "no" form: the service stores which in flag_1
CLI_NODES(debug_top, debug_sflow, debug_all, debug_socket, debug_event, debug_export, debug_conf, debug_table,
          debug_end);

CLI_APPEND_POINT(debug_top, debug_sflow);
CLI_HIDDEN_KEYWORD(debug_sflow, "sflow", "sflow debug informations", DEBUG, 5, debug_all, Tno_alt);
CLI_VALUE_KEYWORD(debug_all, "all", "all sflow debug information", DEBUG, ROW, ROW_ALL, debug_table,
                  debug_socket);
CLI_VALUE_KEYWORD(debug_socket, "socket", "sflow socket debug information", DEBUG, ROW, ROW_SOCKET,
                  debug_table, debug_event);
CLI_VALUE_KEYWORD(debug_event, "event", "sflow event debug information", DEBUG, ROW, ROW_EVENT, debug_table,
                  debug_export);
CLI_VALUE_KEYWORD(debug_export, "export", "sflow export debug information", DEBUG, ROW, ROW_EXPORT,
                  debug_table, debug_conf);
CLI_VALUE_KEYWORD(debug_conf, "conf", "sflow configure debug information", DEBUG, ROW, ROW_CONF, debug_table,
                  Tno_alt);
CLI_SET(debug_table, CLI_SLOT(int_var[0]), sflow_array, debug_end);
CLI_EOL(debug_end, sflow_debug_ctrl_cmd);

/// flag_1 of a debug command.
constexpr int64_t DEBUG_ON = 1;
constexpr int64_t DEBUG_OFF = 2;

} // namespace

static bool sflow_is_row(const debug_element_type *row)
{
    return row->flag != nullptr && row->flag_help != nullptr;
}

void sflow_debug_ctrl_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record))
        return;
    if (record->flag_1 != DEBUG_ON && record->flag_1 != DEBUG_OFF)
        return;
    const bool on = record->flag_1 == DEBUG_ON;
    auto *table = reinterpret_cast<debug_element_type *>(record->int_var[0]);
    if (record->flag_subcmd != ROW_ALL) {
        sflow_store(*table[record->flag_subcmd].flag, on);
        return;
    }
    for (const debug_element_type *row = table + 1; sflow_is_row(row); row++)
        sflow_store(*row->flag, on);
    sflow_store(*table[ROW_ALL].flag, false);
}

void sflow_debug_show()
{
    const bool all = sflow_load(sflow_debug_all);
    bool has_heading = false;
    for (const debug_element_type *row = sflow_array; sflow_is_row(row); row++) {
        if (!all && !sflow_load(*row->flag))
            continue;
        if (!has_heading)
            std::printf("sflow debug:\r\n");
        has_heading = true;
        if (row != sflow_array)
            std::printf("  %s is on\r\n", row->flag_help);
    }
}

void sflow_debug_init()
{
    cli_add_command(PARSE_ADD_EXEC_DEBUG_CMD, &debug_top, "debug sflow");
    sys_add_debug("sflow-debug", sflow_array, sflow_debug_show, 0, 0, 0);
}

// ---- Counters ------------------------------------------------------------------------------------------------

void sflow_debug_statis(int print_flag)
{
    struct statis_line_t {
        const u_int32_t *counter;
        const char *format;
    };
    constexpr statis_line_t LINES[] = {
        {&sflow_statis.sflow_drop_flow_num, "sflow drop flow num:%u\n"},
        {&sflow_statis.sflow_drop_invalid_num, "sflow drop invalid flow num:%u\n"},
        {&sflow_statis.sflow_recv_flow_num, "sflow receive flow num:%u\n"},
        {&sflow_statis.sflow_drop_counter_num, "sflow drop counter num:%u\n"},
        {&sflow_statis.sflow_recv_counter_num, "sflow receive counter num:%u\n"},
        {&sflow_statis.sflow_malloc_fail_num, "sflow malloc fail num:%u\n"},
        {&sflow_statis.sflow_get_counter_fail_num, "sflow get counter fail num:%u\n"},
        {&sflow_statis.sflow_export_pkt_num, "sflow export packet num:%u\n"},
        {&sflow_statis.sflow_export_fail_num, "sflow export fail num:%u\n"},
        {&sflow_statis.sflow_export_flow_num, "sflow export flow num:%u\n"},
        {&sflow_statis.sflow_export_counter_num, "sflow export counter num:%u\n"},
        {&sflow_statis.sflow_export_spl_fail_num, "sflow export sampler fail num:%u\n"},
    };
    sflow_msg_lock();
    for (const statis_line_t &line : LINES)
        sflow_show_printf(print_flag, line.format, sflow_load(*line.counter));
    sflow_show_printf(print_flag, "sflow current msg list len:%u\n", sflow_agent.msg_list_len);
    sflow_msg_unlock();
}

void sflow_debug_statis_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        sflow_debug_statis(0);
}
