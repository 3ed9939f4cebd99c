// Access lists that limit ingress sampling: the daemon's side of the ACL service.
//
// Look-up and references are called where sampling is configured, on any thread. The notices run on the CLI thread:
// when the service comes back every reference is taken again, and when a list is deleted the sampling that it limits
// is withdrawn. Nothing here clears a slot of an interface's configuration: that happens when the sampling service
// has answered the withdrawal.
#include "sflow_acl.h"

#include "sflow_agent.h"
#include "sflow_atomic.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_process.h"

#include "platform/acl.h"

#include <cstring>

namespace
{

acl_reg_t g_acl;

void sflow_acl_log(const char *text, int line = __builtin_LINE())
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_acl.c", line, text);
}

acl_id_args_t sflow_acl_args(int acl_id, const char *acl_name)
{
    acl_id_args_t args = {};
    args.acl_id = acl_id;
    if (acl_name != nullptr)
        memcpy(args.acl_name, acl_name, strnlen(acl_name, sizeof(args.acl_name)));
    return args;
}

const char *sflow_acl_text(const char *acl_name)
{
    return acl_name != nullptr ? acl_name : "";
}

bool sflow_acl_is_bound(const acl_info_t &slot)
{
    return slot.enable && slot.enable_acl_id != 0;
}

/// The service came up or went down. References do not outlive the service, so they are taken again when it comes.
void sflow_acl_svr_notify(bool status)
{
    sflow_acl_log("sflow_acl_svr_notify status.");
    // Without `cli_lock`, unlike the other readiness bits: the bits are set atomically.
    sflow_set_bits(sflow_agent.cli_ready_flag, static_cast<u_int32_t>(SFLOW_CLI_ACL_READY_FLAG));
    if (!status)
        return;
    sflow_config_rdlock();
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [](const sflow_intf_config_t *intf) {
        for (const acl_info_t &slot : intf->acl) {
            if (sflow_acl_is_bound(slot) && sflow_acl_ref(slot.enable_acl_id, slot.enable_acl_name) != 0)
                sflow_acl_log("Failed to reference ACL rule.\n");
        }
    });
    sflow_config_rdunlock();
}

/// Asks for the end of the sampling on `intf` that list `acl_id` limits. A request that cannot be queued leaves the
/// slot enabled until a later stop.
void sflow_acl_withdraw(sflow_intf_config_t *intf, int acl_id)
{
    for (const acl_info_t &slot : intf->acl) {
        if (slot.enable && slot.enable_acl_id == acl_id)
            sflow_set_sampling_rate_msg(intf->ifx, 0, SFLOW_INGRESS, intf->ifx_type, acl_id,
                                        slot.enable_acl_name, intf->snoop);
    }
    intf->acl_enable = intf_acl_cfg(intf);
}

void sflow_acl_delete_notify(acl_id_args_t *args)
{
    const int acl_id = args->acl_id;
    char name[sizeof(args->acl_name) + 1] = {};
    memcpy(name, args->acl_name, sizeof(args->acl_name));
    SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_delete_notify acl id(%d), acl name(%s) notify\n", acl_id, name);
    sflow_config_wrlock();
    sflow_list_for_each<sflow_intf_config_t>(
        &sflow_agent.intf_config, [acl_id](sflow_intf_config_t *intf) { sflow_acl_withdraw(intf, acl_id); });
    sflow_config_wrunlock();
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", __func__);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", __func__);
}

} // namespace

int sflow_acl_init(kx_thread_master_t *master)
{
    g_acl = {};
    g_acl.acl_delete_notify = sflow_acl_delete_notify;
    g_acl.acl_svr_status_notify = sflow_acl_svr_notify;
    const int result = acl_agent_init("sflow_acl", master, &g_acl);
    if (result != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s acl client init fail, %s\n", __func__, acl_strerror(result));
        return -1;
    }
    return 0;
}

int sflow_acl_lookup(int *acl_id, const char *acl_name)
{
    acl_id_args_t args = sflow_acl_args(*acl_id, acl_name);
    if (acl_info_get(&args) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_lookup acl id(%d), acl name(%s), is not exited\n", *acl_id,
                       sflow_acl_text(acl_name));
        return -1;
    }
    *acl_id = args.acl_id;
    SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_lookup acl id(%d), acl name(%s), acl type(%d)\n", *acl_id,
                   sflow_acl_text(acl_name), args.acl_cls);
    return 0;
}

int sflow_acl_ref(int acl_id, const char *acl_name)
{
    acl_ref_args_t args = {.acl = sflow_acl_args(acl_id, acl_name), .cache_flag = false};
    if (acl_ref(&args) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_ref acl id(%d), acl name(%s), ref fail\n", acl_id,
                       sflow_acl_text(acl_name));
        return -1;
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_ref acl id(%d), acl name(%s), ref success\n", acl_id,
                   sflow_acl_text(acl_name));
    return 0;
}

int sflow_acl_unref(int acl_id, const char *acl_name)
{
    acl_unref_args_t args = {.acl = sflow_acl_args(acl_id, acl_name)};
    if (acl_unref(&args) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_unref acl id(%d), acl name(%s), unref fail\n", acl_id,
                       sflow_acl_text(acl_name));
        return -1;
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]sflow_acl_unref acl id(%d), acl name(%s), unref success\n", acl_id,
                   sflow_acl_text(acl_name));
    return 0;
}
