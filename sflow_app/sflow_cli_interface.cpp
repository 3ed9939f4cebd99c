// Handlers of the interface commands (module sflow_cli): sampling on and off, plain, limited to access lists or by
// snooping, the collectors of an interface, and the interface sections of the running configuration. The CLI thread
// runs them; what may be configured where is decided by the guards in sflow_cli_interface_guard.cpp.
//
// Nothing here changes the interface's configuration: a setting goes to the sampling service, whose answer changes it.
#include "sflow_cli_internal.h"

#include "sflow_acl.h"
#include "sflow_cli_msg.h"
#include "sflow_poller.h"
#include "sflow_sampler.h"

#include "platform/lsm.h"

#include <cstring>

static IFINDEX sflow_mode_ifx(const struct_command_data_block *record)
{
    return static_cast<IFINDEX>(record->mode_intidx);
}

// ---- Sampling ------------------------------------------------------------------------------------------------

static int sflow_ifx_type_of(IFINDEX ifx)
{
    if (lsm_if_is_subinterface(ifx) != 0)
        return SFLOW_IFX_TYPE_SUBINTERFACE;
    return lsm_if_get_type(ifx) == LSM_IF_TYPE_AGGREGATE ? SFLOW_IFX_TYPE_AGGREGATE : SFLOW_IFX_TYPE_PORT;
}

void intf_sflow_enable_cfg(struct_command_data_block *record, int acl_id, const char *acl_name)
{
    const IFINDEX ifx = sflow_mode_ifx(record);
    const auto direct = static_cast<int>(record->int_var[0]);
    const int snoop = record->flag_1 == 1 ? SFLOW_INGRESS_BY_SNOOP : 0;
    const int ifx_type = sflow_ifx_type_of(ifx);

    if (record->flag_nd_prefix != 0) {
        if (sflow_disable_intf_config(ifx, direct, ifx_type, acl_id, acl_name, snoop) != 0) {
            cli_printf("sflow disable failure.\n");
            cli_client_execmd_fail(record);
        }
        return;
    }
    if (sflow_enable_intf_config(ifx, direct, ifx_type, acl_id, acl_name, snoop) == 0)
        return;
    cli_printf("sflow enable failure.\n");
    const bool has_acl = acl_name[0] != '\0' || acl_id != 0;
    if (has_acl && sflow_acl_unref(acl_id, acl_name) != 0)
        cli_printf("Failed to de-reference the ACL(sflow enable ingress) rule.\n");
    cli_client_execmd_fail(record);
}

/// Running-configuration pass: the configuration of the mode's interface, null when it has none.
static sflow_intf_config_t *sflow_c2p_intf_config(const struct_command_data_block *record)
{
    sflow_config_held();
    sflow_intf_config_t *config = nullptr;
    sflow_get_intf_config_enable(sflow_mode_ifx(record), &config);
    return config;
}

static bool sflow_is_by_snoop(const sflow_intf_config_t *config)
{
    return (config->snoop & SFLOW_INGRESS_BY_SNOOP) != 0;
}

void intf_sflow_enable_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record)) {
        intf_sflow_enable_cfg(record, 0, "");
        return;
    }
    const sflow_intf_config_t *config = sflow_c2p_intf_config(record);
    if (config == nullptr)
        return;
    const bool is_plain = !config->acl_enable && !sflow_is_by_snoop(config);
    if (config->enable == SFLOW_BOTH && is_plain)
        c2p_printf(1, record, "sflow enable");
    else if ((config->enable & SFLOW_INGRESS) != 0 && is_plain)
        c2p_printf(1, record, "sflow enable ingress");
    else if ((config->enable & SFLOW_EGRESS) != 0)
        c2p_printf(1, record, "sflow enable egress");
}

void intf_sflow_enable_snoop_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record)) {
        intf_sflow_enable_cfg(record, 0, "");
        return;
    }
    const sflow_intf_config_t *config = sflow_c2p_intf_config(record);
    if (config == nullptr)
        return;
    if ((config->enable & SFLOW_INGRESS) != 0 && !config->acl_enable && sflow_is_by_snoop(config))
        c2p_printf(1, record, "sflow enable ingress by-snoop");
}

// ---- Access lists --------------------------------------------------------------------------------------------

enum acl_cap_t : int {
    ACL_CAP_FREE = 0,
    ACL_CAP_FULL = 1,
    ACL_CAP_APPLIED = 2,
};

/// Judges the slots of an interface's configuration, which may be null.
static int acl_slots_check(const sflow_intf_config_t *config, int acl_id)
{
    if (config == nullptr || config->enable == 0)
        return ACL_CAP_FREE;
    int used = 0;
    for (const acl_info_t &slot : config->acl) {
        if (!slot.enable)
            continue;
        if (slot.enable_acl_id == acl_id)
            return ACL_CAP_APPLIED;
        used++;
    }
    return used == SFLOW_ACL_SLOTS ? ACL_CAP_FULL : ACL_CAP_FREE;
}

int local_acl_cap_check(IFINDEX ifx, int acl_id, const char * /*acl_name*/)
{
    sflow_config_wrlock();
    sflow_intf_config_t *config = nullptr;
    sflow_get_intf_config_enable(ifx, &config);
    const int cap = acl_slots_check(config, acl_id);
    sflow_config_wrunlock();
    return cap;
}

/// Says something about a list by its name, or by its number when it was entered as one.
#define ACL_CLI_PRINTF(by_name, by_id, acl_id, acl_name)                                                     \
    do {                                                                                                     \
        if ((acl_name)[0] != '\0')                                                                           \
            cli_printf(by_name, acl_name);                                                                   \
        else                                                                                                 \
            cli_printf(by_id, acl_id);                                                                       \
    } while (0)

#define ACL_LOG_CONF(by_name, by_id, acl_id, acl_name)                                                       \
    do {                                                                                                     \
        if ((acl_name)[0] != '\0')                                                                           \
            SFLOW_LOG_CONF(by_name, "intf_sflow_enable_acl_cmd", acl_name);                                  \
        else                                                                                                 \
            SFLOW_LOG_CONF(by_id, "intf_sflow_enable_acl_cmd", acl_id);                                      \
    } while (0)

static void acl_enable_no(struct_command_data_block *record, int acl_id, const char *acl_name)
{
    if (local_acl_cap_check(sflow_mode_ifx(record), acl_id, acl_name) != ACL_CAP_APPLIED) {
        ACL_LOG_CONF("[SFLOW-CONF]%s: acl %s is not configured\n",
                     "[SFLOW-CONF]%s: acl %d is not configured\n", acl_id, acl_name);
        return;
    }
    intf_sflow_enable_cfg(record, acl_id, acl_name);
}

static void acl_enable(struct_command_data_block *record, int acl_id, const char *acl_name)
{
    switch (local_acl_cap_check(sflow_mode_ifx(record), acl_id, acl_name)) {
    case ACL_CAP_FULL:
        cli_printf("Max acl rule number has been configure.\n");
        cli_client_execmd_fail(record);
        return;
    case ACL_CAP_APPLIED:
        ACL_LOG_CONF("[SFLOW-CONF]%s: acl %s has been configured\n",
                     "[SFLOW-CONF]%s: acl %d has been configured\n", acl_id, acl_name);
        cli_client_execmd_fail(record);
        return;
    default:
        break;
    }
    if (sflow_acl_ref(acl_id, acl_name) != 0) {
        ACL_CLI_PRINTF("Failed to reference ACL(%s) rule.\n", "Failed to reference ACL(%d) rule.\n", acl_id,
                       acl_name);
        cli_client_execmd_fail(record);
        return;
    }
    intf_sflow_enable_cfg(record, acl_id, acl_name);
}

static void acl_enable_c2p(struct_command_data_block *record)
{
    const sflow_intf_config_t *config = sflow_c2p_intf_config(record);
    if (config == nullptr || (config->enable & SFLOW_INGRESS) == 0 || !config->acl_enable)
        return;
    // Unlike all other lines these carry their newline; the service takes either.
    for (const acl_info_t &slot : config->acl) {
        if (!slot.enable)
            continue;
        if (slot.enable_acl_name[0] != '\0')
            c2p_printf(1, record, "sflow enable ingress acl %s\n", slot.enable_acl_name);
        else if (slot.enable_acl_id != 0)
            c2p_printf(1, record, "sflow enable ingress acl %d\n", slot.enable_acl_id);
    }
}

void intf_sflow_enable_acl_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        acl_enable_c2p(record);
        return;
    }
    char acl_name[SFLOW_ACL_NAME_LEN] = "";
    if (std::strlen(record->string_var[2]) >= sizeof(acl_name)) {
        cli_printf("Invalid acl name.\n");
        cli_client_execmd_fail(record);
        return;
    }
    std::strncpy(acl_name, record->string_var[2], sizeof(acl_name) - 1);
    auto acl_id = static_cast<int>(record->int_var[3]);
    if (sflow_acl_lookup(&acl_id, acl_name) != 0) {
        ACL_CLI_PRINTF("ACL(%s) rule referenced by SFLOW does not exist.\n",
                       "ACL(%d) rule referenced by SFLOW does not exist.\n", acl_id, acl_name);
        cli_client_execmd_fail(record);
        return;
    }
    if (record->flag_nd_prefix != 0)
        acl_enable_no(record, acl_id, acl_name);
    else
        acl_enable(record, acl_id, acl_name);
}

// ---- Collectors of an interface ------------------------------------------------------------------------------

/// What the commands for the two kinds of samples differ in.
struct sflow_collector_cmd_t {
    const char *name; ///< of the samples, to the operator
    sflow_conf_flag_t kind;
    u_int32_t (*get_cid)(IFINDEX ifx); ///< the caller holds `config_lock`
    void (*clear_cid)(IFINDEX ifx);
};

/// Asks the sampling service to bind the interface to collector int_var[0].
static void intf_sflow_collector_cfg(struct_command_data_block *record, const sflow_collector_cmd_t &cmd)
{
    const auto cid = static_cast<int>(record->int_var[0]);
    if (!sflow_is_enable_receiver(static_cast<u_int32_t>(cid))) {
        cli_printf(
            "Failed to configure sflow %s collector %d. Sflow collector %d should be configured first.\n",
            cmd.name, cid, cid);
        cli_client_execmd_fail(record);
        return;
    }
    if (sflow_ifx_is_conf_msg(sflow_mode_ifx(record), cid, cmd.kind) != 0) {
        cli_printf("Failed to configure sflow %s collector.\n", cmd.name);
        cli_client_execmd_fail(record);
    }
}

static void intf_sflow_collector_cmd(struct_command_data_block *record, const sflow_collector_cmd_t &cmd)
{
    const IFINDEX ifx = sflow_mode_ifx(record);
    if (sflow_is_c2p_pass(record)) {
        sflow_config_held();
        const u_int32_t cid = cmd.get_cid(ifx);
        if (cid != 0)
            c2p_printf(1, record, "sflow %s collector %d", cmd.name, cid);
    } else if (record->flag_nd_prefix != 0) {
        cmd.clear_cid(ifx);
    } else {
        intf_sflow_collector_cfg(record, cmd);
    }
}

void intf_sflow_counter_collector_cmd(struct_command_data_block *record)
{
    intf_sflow_collector_cmd(record, {.name = "counter",
                                      .kind = SFLOW_CONF_FLAG_COUNTER,
                                      .get_cid = sflow_poller_get_cid,
                                      .clear_cid = sflow_poller_clear_cid});
}

void intf_sflow_flow_collector_cmd(struct_command_data_block *record)
{
    intf_sflow_collector_cmd(record, {.name = "flow",
                                      .kind = SFLOW_CONF_FLAG_FLOW,
                                      .get_cid = sflow_sampler_get_cid,
                                      .clear_cid = sflow_sampler_clear_cid});
}

// ---- Running configuration -----------------------------------------------------------------------------------

/// Prints one interface's section; false when the interface's name is not to be had.
static bool sflow_show_run_interface(struct_command_data_block *record, IFINDEX ifx, const char *handler)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]XXX %s 1. ifx(%d) .\n", handler, ifx);
    char name[LSM_IF_NAME_LEN] = "";
    if (lsm_if_get_name(ifx, name, sizeof(name)) < 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s: lsm_if_get_name fail\n", handler);
        return false;
    }
    if (lsm_if_get_main_index(ifx) == 0 ||
        (lsm_if_get_flags(ifx) & (LSM_IF_FLAG_INTERNAL | LSM_IF_FLAG_TRANSIENT)) != 0)
        return true;
    SFLOW_LOG_CONF("[SFLOW-CONF]XXX %s 2. ifx(%d) intf_name(%s).\n", handler, ifx, name);
    c2p_printf(1, record, "interface %s", name);
    record->mode_intidx = ifx;
    cli_change_mode(record, CLI_MODE_INTERFACE, 1);
    cli_walkthrought_node(record, CLI_MODE_INTERFACE, cli_get_mode_root(CLI_MODE_INTERFACE));
    cli_change_mode(record, CLI_MODE_CONFIG, 1);
    c2p_printf(1, record, "!");
    return true;
}

void cfg_sflow_show_run_interface_cmd(struct_command_data_block *record)
{
    sflow_config_rdlock();
    const sflow_list_t *head = &sflow_agent.intf_config;
    for (sflow_list_t *link = head->next; link != head; link = link->next) {
        if (!sflow_show_run_interface(record, sflow_list_entry<sflow_intf_config_t>(link)->ifx, __func__))
            break;
    }
    sflow_config_rdunlock();
}
