// The CLI thread (module sflow_cli): start-up order, readiness, regeneration of the running configuration, and the
// registration of the command trees. The trees, the handlers and the outputs are in the files with this prefix.
//
// The thread sleeps until the sampling service has told what it can sample, since the guards of interface mode depend
// on that; from then on it only serves its thread master. It never blocks on the sampling service or a collector.
#include "sflow_cli_internal.h"

#include "sflow_acl.h"
#include "sflow_cli_msg.h"
#include "sflow_lib_server.h"
#include "sflow_lsm.h"
#include "sflow_process.h"
#include "sflow_tech_sup.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

kx_thread_master_t *sflow_cli_master;

/// Pending from the first request for a new running configuration until it is regenerated.
static kx_thread_t g_sflow_cli_reform_timer;
static pthread_t sflow_cli_tid;

static void sflow_cli_write_log(int line, const char *text)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_cli.c", line, text);
}

[[noreturn]] static void sflow_cli_give_up(int line, const char *text)
{
    sflow_cli_write_log(line, text);
    std::exit(0);
}

int sflow_cli_init()
{
    const int result = sflow_create_depatch_thread(&sflow_cli_tid, sflow_cli_proc, nullptr);
    sflow_cli_write_log(__LINE__, result != 0 ? "create cli thread failure." : "create cli thread success.");
    return result;
}

// ---- Registrations -------------------------------------------------------------------------------------------

namespace
{

struct sflow_tree_t {
    cli_attach_t attach;
    const struct_transtion *tree;
    const char *name;
};

constexpr sflow_tree_t TREES[] = {
    {PARSE_ADD_CFG_CMD, &sflow_tree_show_run_interface, "interface sflow show run"},
    {PARSE_ADD_INTERFACE_CMD, &sflow_tree_interface, "interface sflow config"},
    {PARSE_ADD_SHOW_CMD, &sflow_tree_show, "sflow show"},
    {PARSE_ADD_CFG_CMD, &sflow_tree_global, "sflow config"},
    {PARSE_ADD_CFG_AFT_INTF_CMD, &sflow_tree_after_interfaces, "ipfix after interface"},
    {PARSE_ADD_SHOW_CMD, &sflow_tree_service_info, "show sflow ss debug info"},
    {PARSE_ADD_EXEC_TOP_CMD, &sflow_tree_service_debug, "debug sflow switch"},
};

} // namespace

void sflow_cli_cmd_init()
{
    for (const sflow_tree_t &row : TREES)
        cli_add_command(row.attach, row.tree, row.name);
    sflow_lib_server_cli_init();
}

// ---- Readiness -----------------------------------------------------------------------------------------------

u_int32_t sflow_cli_ready_flags()
{
    const bool held = pthread_mutex_lock(&sflow_agent.cli_lock.mutex) == 0;
    if (!held)
        sflow_cli_write_log(__LINE__, "lock failure.");
    const u_int32_t flags = sflow_load(sflow_agent.cli_ready_flag);
    if (held)
        pthread_mutex_unlock(&sflow_agent.cli_lock.mutex);
    return flags;
}

/// Tells operators whose report is missing; `flags` is what has reported.
static void sflow_cli_tell_awaited(u_int32_t flags)
{
    // By the missing of the three bits.
    static constexpr const char *AWAITED[] = {
        "",
        "interface data",
        "the sampling service",
        "interface data and the sampling service",
        "access lists",
        "interface data and access lists",
        "the sampling service and access lists",
        "interface data, the sampling service and access lists",
    };
    static_assert(sizeof(AWAITED) / sizeof(AWAITED[0]) == SFLOW_CLI_ALL_READY_FLAG + 1);
    cli_client_awaits(AWAITED[~flags & SFLOW_CLI_ALL_READY_FLAG]);
}

int sflow_cli_timer(kx_thread_t *thread)
{
    const u_int32_t flags = sflow_cli_ready_flags();
    sflow_cli_tell_awaited(flags);
    if (flags != SFLOW_CLI_ALL_READY_FLAG) {
        if (kx_thread_add_timer(thread->master, sflow_cli_timer, nullptr, 1) == nullptr)
            sflow_cli_write_log(__LINE__, "add cli timer failure.");
        return 0;
    }
    // Without `cli_lock`: the service applies the startup configuration here, whose commands take other locks.
    cli_client_ready();
    sflow_cli_write_log(__LINE__, "cli_client_ready");
    return 0;
}

// ---- Regeneration of the running configuration ---------------------------------------------------------------

int sflow_cli_reform_timer_deal(kx_thread_t *thread)
{
    if (cli_client_c2p_reform(thread) == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF][%s] c2p reform success.\n", __func__);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF][%s] c2p reform fail.\n", __func__);
    return 0;
}

int sflow_cli_c2p_reform()
{
    cli_param_is_change();
    if (kx_thread_is_pending(&g_sflow_cli_reform_timer))
        return 0;
    kx_thread_master_t *master = __atomic_load_n(&sflow_cli_master, __ATOMIC_ACQUIRE);
    if (kx_thread_insert_timer(master, &g_sflow_cli_reform_timer, sflow_cli_reform_timer_deal, nullptr, 1,
                               "sflow_c2p") != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF][%s] No enough memory available for create sflow cli reform timer.\n",
                       __func__);
        return -1;
    }
    return 0;
}

// ---- The thread ----------------------------------------------------------------------------------------------

static void sflow_cli_await_capacity()
{
    while (sflow_load(sflow_hw_support_is_set) != 1 || sflow_load(sflow_intf_support_flag) == 0)
        sleep(1);
}

static void sflow_cli_start_clients(kx_thread_master_t *master)
{
    if (cli_client_init("sflow_cli", master) != 0)
        sflow_cli_give_up(__LINE__, "cli-client init failure.");
    if (sflow_lsm_init(master) != 0)
        sflow_cli_give_up(__LINE__, "lsm client init failure.");
    if (sflow_acl_init(master) != 0)
        sflow_cli_give_up(__LINE__, "acl client init failure.");
    sflow_cli_cmd_init();
    sflow_debug_init();
    if (sflow_tech_init(master) != 0)
        sflow_cli_write_log(__LINE__, "tech init failure.");
    if (kx_thread_add_timer(master, sflow_cli_timer, nullptr, 1) == nullptr)
        sflow_cli_give_up(__LINE__, "add cli timer failure.");
    sflow_cli_tell_awaited(sflow_cli_ready_flags());
    sflow_init_dead_detection(master);
}

void sflow_cli_serve()
{
    sflow_cli_await_capacity();
    kx_thread_master_t *master = kx_thread_master_create();
    if (master == nullptr)
        sflow_cli_give_up(__LINE__, "create thread failure.");
    __atomic_store_n(&sflow_cli_master, master, __ATOMIC_RELEASE);
    sflow_cli_start_clients(master);
    kx_thread_t task;
    while (kx_thread_fetch(master, &task) != nullptr)
        kx_thread_call(&task);
    kx_thread_master_finish(master);
}

void *sflow_cli_proc(void * /*arg*/)
{
    pthread_setname_np(pthread_self(), "sflow_cli");
    std::memset(&g_sflow_cli_reform_timer, 0, sizeof(g_sflow_cli_reform_timer));
    for (;;)
        sflow_cli_serve();
}
