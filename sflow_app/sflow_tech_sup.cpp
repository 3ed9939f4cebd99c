// The daemon's contribution to the tech-support collection (module sflow_tech_sup): its debug file, a status line, a
// report made of the show commands' outputs, and `show tech-support sflow`.
//
// Everything runs on the CLI thread, but for the thread that `show tech-support sflow` starts: it has the CLI service
// run show commands and waits for them, which the CLI thread itself could not.
#include "sflow_tech_sup.h"

#include "sflow_cli_internal.h"
#include "sflow_lib_server.h"
#include "sflow_process.h"

#include <pthread.h>

static void sflow_tech_write_log(int line, const char *text)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_tech_sup.c", line, text);
}

// ---- Report --------------------------------------------------------------------------------------------------

namespace
{

struct tech_section_t {
    const char *banner;
    void (*print)(int print_flag);
};

constexpr tech_section_t SECTIONS[] = {
    {"-----------------show sflow_server_lib_info-----\n", show_sflow_server_info},
    {"-----------------show sflow_server_cmd_list -----\n", show_sflow_server_cmd},
    {"-----------------show sflow------------------\n", show_sflow},
    {"-----------------show sflow stats--------------\n", sflow_debug_statis},
    {"-----------------show sflow status-------------\n", show_sflow_status},
};

} // namespace

int sflow_tech_callback(tech_event event, void * /*tech_arg*/)
{
    if (event != TECH_E_BASIC && event != TECH_E_DETAIL)
        return 0;
    for (const tech_section_t &section : SECTIONS) {
        tech_module_msg_output("%s", section.banner);
        section.print(1);
    }
    tech_module_msg_deal_completion();
    return 0;
}

void sflow_show_current_status_cmd(struct_command_data_block * /*record*/)
{
    cli_printf(sflow_get_current_status() != 0 ? "| - sflow - sflow is on!\r\n"
                                               : "| - sflow - sflow is off!\r\n");
}

// ---- show tech-support sflow ---------------------------------------------------------------------------------

void *sflow_tech_show_thread(void *argument)
{
    constexpr const char *COMMANDS[] = {
        "show sflow",
        "show sflow stats",
        "show sflow status",
        "show run | include sflow",
    };
    auto *record = static_cast<struct_command_data_block *>(argument);
    pthread_setname_np(pthread_self(), "sflow-show-tech");
    cli_proc_thread_start(record, pthread_self());
    tech_cmdlist_t *list = tech_reg_cmdlist();
    if (list != nullptr) {
        for (const char *command : COMMANDS)
            tech_client_regcmd(list, command);
        tech_client_execute_cmd(record, list);
        tech_unreg_cmdlist(list);
    }
    cli_proc_thread_end(record, pthread_self());
    return nullptr;
}

void sflow_tech_show_sflow_command(struct_command_data_block *record)
{
    pthread_t tid;
    if (sflow_create_depatch_thread(&tid, sflow_tech_show_thread, record) != 0) {
        sflow_tech_write_log(__LINE__, "tech create show thread fail.");
        return;
    }
    cli_proc_thread_start(record, tid);
}

namespace
{

CLI_NODES(tech_top, tech_sflow, tech_end);

CLI_APPEND_POINT(tech_top, tech_sflow);
CLI_KEYWORD(tech_sflow, "sflow", "flow packet diagnostic information", CLI_PRIV_USER, tech_end, Tno_alt);
CLI_EOL(tech_end, sflow_tech_show_sflow_command);

} // namespace

void sflow_tech_cmd_init()
{
    cli_add_command(PARSE_ADD_DEBUG_SUPPORT_SHOW_TECH_CMD, &tech_top, "show tech-support sflow");
}

// ---- Registration --------------------------------------------------------------------------------------------

int sflow_tech_reg_dump_file()
{
    const char *path = sflow_make_tmp_path("/sflow/app_debug");
    if (path == nullptr) {
        sflow_tech_write_log(__LINE__, "tech make app file fail.");
        return -1;
    }
    const int result = tech_module_reg_dump_file(path);
    if (result != 0)
        sflow_tech_write_log(__LINE__, "tech reg app file fail.");
    return result;
}

int sflow_tech_init(kx_thread_master_t *master)
{
    int result = tech_client_init("sflow_tech-support");
    if (result != 0) {
        sflow_tech_write_log(__LINE__, "tech init fail.");
        return result;
    }
    result = sflow_tech_reg_dump_file();
    if (result != 0)
        return result;
    tech_reg_status_func(sflow_show_current_status_cmd);
    sflow_tech_cmd_init();
    result = tech_reg_service_callback("ipfix#sflow", master, sflow_tech_callback);
    if (result == -1)
        sflow_tech_write_log(__LINE__, "Failed to register Tech-Support\n");
    return result;
}
