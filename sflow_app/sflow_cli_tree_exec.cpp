// Command trees of exec mode (module sflow_cli): `show sflow ...` and the hidden diagnostics of the sampling service.
#include "sflow_cli_internal.h"

namespace
{

constexpr u_int64_t USER = CLI_PRIV_USER;
constexpr u_int64_t PRIVILEGED = CLI_PRIV_PRIVILEGED;

// show sflow [stats | status]
CLI_NODES(show, show_end, stats, stats_end, status, status_end);

CLI_KEYWORD(show, "sflow", "show sflow information", USER, show_end, Tno_alt);
CLI_EOL_OR(show_end, show_sflow_cmd, stats);
CLI_KEYWORD(stats, "stats", "show sflow stats", USER, stats_end, status);
CLI_EOL(stats_end, sflow_debug_statis_cmd);
CLI_KEYWORD(status, "status", "show sflow status", PRIVILEGED, status_end, Tno_alt);
CLI_EOL(status_end, show_sflow_status_cmd);

// show {sflow_lib_info | sflow_lib_cmd_list}
CLI_NODES(lib_info, lib_info_end, lib_cmd_list, lib_cmd_list_end);

CLI_HIDDEN_KEYWORD(lib_info, "sflow_lib_info", "show sflow ss info", PRIVILEGED, 8, lib_info_end,
                   lib_cmd_list);
CLI_EOL(lib_info_end, show_sflow_lib_info_cmd);
CLI_HIDDEN_KEYWORD(lib_cmd_list, "sflow_lib_cmd_list", "show sflow cmd list", PRIVILEGED, 8, lib_cmd_list_end,
                   Tno_alt);
CLI_EOL(lib_cmd_list_end, show_sflow_lib_cmd_cmd);

// debug_sflow_lib {on | off}
CLI_NODES(lib_debug, lib_debug_on, lib_debug_off, lib_debug_end);

CLI_HIDDEN_KEYWORD(lib_debug, "debug_sflow_lib", "debug sflow lib switch", PRIVILEGED, 6, lib_debug_on,
                   Tno_alt);
CLI_VALUE_KEYWORD(lib_debug_on, "on", "swtich on", PRIVILEGED, CLI_SLOT(int_var[0]), 1, lib_debug_end,
                  lib_debug_off);
CLI_VALUE_KEYWORD(lib_debug_off, "off", "swtich off", PRIVILEGED, CLI_SLOT(int_var[0]), 0, lib_debug_end,
                  Tno_alt);
CLI_EOL(lib_debug_end, debug_sflow_lib_switch_cmd);

} // namespace

CLI_APPEND_POINT(sflow_tree_show, show);
CLI_APPEND_POINT(sflow_tree_service_info, lib_info);
CLI_APPEND_POINT(sflow_tree_service_debug, lib_debug);
