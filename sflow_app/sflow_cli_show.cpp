// Show commands (module sflow_cli): what `show sflow` and `show sflow status` print, to the operator or into the
// tech-support output. The CLI thread runs them. They change nothing, and lines of one output may stem from moments
// a little apart: each part of the output takes its lock for itself.
#include "sflow_cli_internal.h"

#include "sflow_cli_msg.h"

#include "platform/lsm.h"

#include <cstring>

// ---- show sflow ----------------------------------------------------------------------------------------------

static void show_agent_address(int print_flag)
{
    sflow_agent_address_t agent;
    sflow_agent_get_address(&agent);
    switch (agent.type) {
    case SFLOW_ADDRESS_TYPE_IPV4:
        sflow_show_printf(print_flag, "Agent IP: %a\n", agent.address.ip_v4);
        break;
    case SFLOW_ADDRESS_TYPE_IPV6:
        sflow_show_printf(print_flag, "Agent IP: %v\n", agent.address.ip_v6);
        break;
    default:
        sflow_show_printf(print_flag, "Agent IP: NULL\n");
        break;
    }
}

/// The source address that a receiver is configured to use in its family, null for none.
static const sfladdress_value_t *receiver_source(const sflreceiver_t &receiver,
                                                 const sflow_source_address_t &source)
{
    if (receiver.address.src_type != SFLOW_SOURCE_TYPE_INVALID)
        return &receiver.address.src_address;
    const bool is_ipv4 = receiver.address.type == SFLOW_ADDRESS_TYPE_IPV4;
    if ((source.type & (is_ipv4 ? SFLOW_FAMILY_IPV4 : SFLOW_FAMILY_IPV6)) == 0)
        return nullptr;
    return is_ipv4 ? &source.v4_address : &source.v6_address;
}

/// Formats the source line of a receiver; leaves `line` alone when no source is configured for it.
static void format_source(char *line, size_t size, const sflreceiver_t &receiver,
                          const sflow_source_address_t &source)
{
    if (receiver.address.src_type == SFLOW_SOURCE_TYPE_INVALID && source.is_src_cfg != 1)
        return;
    const sfladdress_value_t *address = receiver_source(receiver, source);
    const sfladdress_value_t &used = source.used_address[receiver.cid - 1];
    switch (receiver.address.type) {
    case SFLOW_ADDRESS_TYPE_IPV4:
        if (address != nullptr)
            zsnprintf(line, size, "Source IP[%d]: %a(used: %a)\n", receiver.cid, address->ip_v4, used.ip_v4);
        else
            zsnprintf(line, size, "Source IP[%d]: - (used: %a)\n", receiver.cid, used.ip_v4);
        break;
    case SFLOW_ADDRESS_TYPE_IPV6:
        if (address != nullptr)
            zsnprintf(line, size, "Source IP[%d]: %v(used: %v)\n", receiver.cid, address->ip_v6, used.ip_v6);
        else
            zsnprintf(line, size, "Source IP[%d]: - (used: %v)\n", receiver.cid, used.ip_v6);
        break;
    default:
        break;
    }
}

static void show_source_addresses(int print_flag)
{
    sflow_source_address_t source;
    sflow_source_get_address(&source);
    // One buffer for both receivers, printed for each: one without a source repeats the line before it.
    char line[SFLOW_CLI_LINE_LEN] = "";
    for (const sflreceiver_t &receiver : sflow_agent.receivers) {
        if (!receiver.is_enable)
            continue;
        format_source(line, sizeof(line), receiver, source);
        sflow_show_printf(print_flag, "%s", line);
    }
}

static void show_global_values(int print_flag)
{
    sflow_config_rdlock();
    const sflow_global_config_t config = sflow_agent.g_config;
    sflow_show_printf(print_flag, "sflow counter interval:%d\n", config.interval);
    sflow_show_printf(print_flag, "sflow flow max-header:%d\n", config.maxhlen);
    sflow_show_printf(print_flag, "sflow sampling-rate:%d\n", config.samplingrate);
    sflow_config_rdunlock();
}

static void show_collector_row(int print_flag, const sflreceiver_t &receiver)
{
    const sfladdress_t &collector = receiver.address;
    char vrf[LSM_VRF_NAME_LEN] = "";
    if (collector.vrf_index != 0) {
        if (lsm_vrf_index2name(collector.vrf_index, vrf, sizeof(vrf)) < 0)
            return;
        if (collector.mgmt_index > 0 || std::strcmp(vrf, SFLOW_MGMT_VRF_NAME) == 0)
            vrf[0] = '\0';
    }
    switch (collector.type) {
    case SFLOW_ADDRESS_TYPE_IPV4:
        sflow_show_printf(print_flag, "%-5d%-45a%-6u%-5d%-32s\n", receiver.cid, collector.address.ip_v4,
                          receiver.collector_port, receiver.maxdatagramsize, vrf);
        break;
    case SFLOW_ADDRESS_TYPE_IPV6:
        sflow_show_printf(print_flag, "%-5d%-45v%-6d%-5d%-32s\n", receiver.cid, collector.address.ip_v6,
                          receiver.collector_port, receiver.maxdatagramsize, vrf);
        break;
    default:
        sflow_show_printf(print_flag, "%-5d%-45s%-6d%-5d%-32s\n", receiver.cid, "NULL",
                          receiver.collector_port, receiver.maxdatagramsize, vrf);
        break;
    }
}

static void show_collectors(int print_flag)
{
    sflow_show_printf(print_flag, "Collector information:\n");
    sflow_show_printf(print_flag, "%-5s%-45s%-6s%-5s%-32s\n", "ID", "IP", "Port", "Size", "VRF");
    for (const sflreceiver_t &receiver : sflow_agent.receivers) {
        sflow_config_rdlock();
        show_collector_row(print_flag, receiver);
        sflow_config_rdunlock();
    }
}

static void show_port_row(int print_flag, const sflow_intf_config_t *config, const char *function)
{
    constexpr const char *DIRECTIONS[] = {"N", "I", "E", "B"};
    char name[LSM_IF_NAME_LEN] = "";
    if (lsm_if_get_name(config->ifx, name, sizeof(name)) < 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s: lsm_if_get_name fail\n", function);
        return;
    }
    if (config->enable <= SFLOW_BOTH)
        sflow_show_printf(print_flag, "%-32s%-10d%-10d%-15s\n", name, config->cid, config->fid,
                          DIRECTIONS[config->enable]);
}

void show_sflow_handle(int print_flag)
{
    // For writing although it only reads: the lock prefers writers, so the table does not wait behind a stream of
    // counters samples.
    sflow_config_wrlock();
    const sflow_list_t *head = &sflow_agent.intf_config;
    for (sflow_list_t *link = head->next; link != head; link = link->next)
        show_port_row(print_flag, sflow_list_entry<sflow_intf_config_t>(link), __func__);
    sflow_config_wrunlock();
}

void show_sflow(int print_flag)
{
    sflow_show_printf(print_flag, "sflow datagram version 5\n");
    sflow_show_printf(print_flag, "Global information:\n");
    show_agent_address(print_flag);
    show_source_addresses(print_flag);
    show_global_values(print_flag);
    show_collectors(print_flag);
    sflow_show_printf(print_flag, "Port information\n");
    sflow_show_printf(print_flag, "%-32s%-10s%-10s%-15s\n", "Interface", "CID", "FID", "Enable");
    show_sflow_handle(print_flag);
}

void show_sflow_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record) && record->flag_nd_prefix == 0)
        show_sflow(0);
}

// ---- show sflow status ---------------------------------------------------------------------------------------

void show_sflow_status(int print_flag)
{
    struct ready_line_t {
        u_int32_t flags;
        const char *text;
    };
    constexpr ready_line_t LINES[] = {
        {SFLOW_CLI_VRF_READY_FLAG, "sflow lsm data over\n"},
        {SFLOW_CLI_SS_READY_FLAG, "sflow ss connect success\n"},
        {SFLOW_CLI_ACL_READY_FLAG, "sflow acl data over\n"},
        {SFLOW_CLI_ALL_READY_FLAG, "sflow cli ready\n"},
    };
    const u_int32_t ready = sflow_cli_ready_flags();
    for (const ready_line_t &line : LINES) {
        if ((ready & line.flags) == line.flags)
            sflow_show_printf(print_flag, line.text);
    }
    sflow_show_printf(print_flag, sflow_load(g_can_backup) ? "sflow can rdnd\n" : "sflow cannot rdnd\n");
}

void show_sflow_status_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        show_sflow_status(0);
}

// ---- Diagnostics of the sampling service ---------------------------------------------------------------------

void show_sflow_lib_info_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        sflow_send_debug_msg(SFLOW_DEBUG_SHOW_INFO, 0);
}

void show_sflow_lib_cmd_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        sflow_send_debug_msg(SFLOW_DEBUG_SHOW_CMD, 0);
}

void debug_sflow_lib_switch_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        sflow_send_debug_msg(SFLOW_DEBUG_SWITCH, static_cast<int>(record->int_var[0]));
}
