// Handlers of the global commands (module sflow_cli): agent address, global source, and the three sampling
// parameters. The CLI thread runs them; the collectors are in sflow_cli_collector.cpp.
//
// A handler validates what the tree left in the command record, builds the agent record's member from it and hands
// that to the agent core; it keeps nothing.
#include "sflow_cli_internal.h"

#include "sflow_cli_msg.h"

#include "platform/lsm.h"

#include <cstring>

// ---- Agent address -------------------------------------------------------------------------------------------

static void sflow_agent_address_c2p(struct_command_data_block *record, const char *handler)
{
    sflow_agent_address_t agent;
    sflow_agent_get_address(&agent);
    if (agent.cfg_type != SFLOW_AGENT_TYPE_ADDRESS)
        return;
    if (agent.type == SFLOW_ADDRESS_INVALID)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s invalid type\n", handler);
    else if (agent.type == SFLOW_ADDRESS_TYPE_IPV4)
        c2p_printf(1, record, "sflow agent address %a", agent.address.ip_v4);
    else
        c2p_printf(1, record, "sflow agent address ipv6 %v", agent.address.ip_v6);
}

/// Takes the agent address from the record; false after the operator was told that it is no host address.
static bool sflow_agent_address_encap(sflow_agent_address_t *agent, const struct_command_data_block *record)
{
    if (agent->type == SFLOW_ADDRESS_TYPE_IPV6) {
        sflow_cli_copy_ipv6(&agent->address, record->paddr_var[0]);
        sflow_cli_log_text("set agent ipv6 address:%v\n", agent->address.ip_v6);
        if (sflow_is_valid_ipv6(agent->address.ip_v6) != 0)
            return true;
        cli_printf("invalid ipv6 host address.\n");
        return false;
    }
    sflow_cli_copy_ipv4(&agent->address, record->paddr_var[0]);
    sflow_cli_log_text("set agent ip address:%a\n", agent->address.ip_v4);
    if (sflow_is_valid_ip(agent->address.ip_v4) != 0)
        return true;
    cli_printf("invalid host address.\n");
    return false;
}

void cfg_sflow_agent_address_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        sflow_agent_address_c2p(record, __func__);
        return;
    }
    if (record->flag_nd_prefix != 0) {
        sflow_agent_del_address(SFLOW_AGENT_TYPE_ADDRESS);
        SFLOW_LOG_CONF("[SFLOW-CONF]del agent address success\n");
        return;
    }

    SFLOW_LOG_CONF("[SFLOW-CONF]%s cfg\n", __func__);
    sflow_agent_address_t agent;
    std::memset(&agent, 0, sizeof(agent));
    agent.type = static_cast<sflow_address_type_t>(record->flag_1);
    if (!sflow_agent_address_encap(&agent, record)) {
        cli_client_execmd_fail(record);
        return;
    }
    agent.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
    if (sflow_agent_set_address(&agent) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set agent address fail\n");
        cli_client_execmd_fail(record);
        return;
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]set agent address success\n");
}

static void sflow_agent_interface_c2p(struct_command_data_block *record, const char *handler)
{
    sflow_agent_address_t agent;
    sflow_agent_get_address(&agent);
    if (agent.cfg_type != SFLOW_AGENT_TYPE_INTERFACE)
        return;
    if (agent.type == SFLOW_ADDRESS_INVALID) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s invalid type\n", handler);
        return;
    }
    char name[LSM_IF_NAME_LEN] = "";
    if (lsm_if_get_name(agent.ifindex, name, sizeof(name)) < 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s get interface name fail\n", handler);
        return;
    }
    c2p_printf(1, record,
               agent.type == SFLOW_ADDRESS_TYPE_IPV4 ? "sflow agent interface %s"
                                                     : "sflow agent interface ipv6 %s",
               name);
}

void sflow_cli_interface_address(IFINDEX ifx, sflow_address_type_t family, sfladdress_value_t *address)
{
    if (family == SFLOW_ADDRESS_TYPE_IPV4) {
        address->ip_v4 = lsm_netif_get_first_ip_by_index(ifx);
        if (address->ip_v4 == 0)
            SFLOW_LOG_CONF("[SFLOW-CONF]Get ip address fail:%d\n", ifx);
    } else if (family == SFLOW_ADDRESS_TYPE_IPV6 && lsm_ipv6_get_first_addr(ifx, address->ip_v6) != 1) {
        std::memset(address, 0, sizeof(*address));
        SFLOW_LOG_CONF("[SFLOW-CONF]Get ipv6 address fail:%d\n", ifx);
    }
}

void cfg_sflow_agent_interface_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        sflow_agent_interface_c2p(record, __func__);
        return;
    }
    if (record->flag_nd_prefix != 0) {
        sflow_agent_del_address(SFLOW_AGENT_TYPE_INTERFACE);
        SFLOW_LOG_CONF("[SFLOW-CONF]del agent address success\n");
        return;
    }

    SFLOW_LOG_CONF("[SFLOW-CONF]%s cfg\n", __func__);
    sflow_agent_address_t agent;
    std::memset(&agent, 0, sizeof(agent));
    agent.ifindex = static_cast<IFINDEX>(record->int_var[0]);
    agent.type = static_cast<sflow_address_type_t>(record->flag_1);
    sflow_cli_interface_address(agent.ifindex, agent.type, &agent.address);
    agent.cfg_type = SFLOW_AGENT_TYPE_INTERFACE;
    // The core tells the operator why it refuses; the command itself counts as done either way.
    sflow_agent_set_address(&agent);
    SFLOW_LOG_CONF("[SFLOW-CONF]set agent address success\n");
}

// ---- Global source -------------------------------------------------------------------------------------------

int sflow_addr_encap(sflow_source_address_t *source, struct_command_data_block *record)
{
    if (record->flag_1 == SFLOW_ADDRESS_TYPE_IPV4) {
        sflow_cli_copy_ipv4(&source->v4_address, record->paddr_var[0]);
        sflow_cli_log_text("source ip address:%a\n", source->v4_address.ip_v4);
        if (sflow_is_valid_ip(source->v4_address.ip_v4) == 0) {
            cli_printf("invalid host address.\n");
            return -1;
        }
    } else if (record->flag_1 == SFLOW_ADDRESS_TYPE_IPV6) {
        sflow_cli_copy_ipv6(&source->v6_address, record->paddr_var[0]);
        sflow_cli_log_text("source ipv6 address:%v\n", source->v6_address.ip_v6);
        if (sflow_is_valid_ipv6(source->v6_address.ip_v6) == 0) {
            cli_printf("invalid ipv6 host address.\n");
            return -1;
        }
    }
    return 0;
}

void sflow_ifx_addr_encap(sflow_source_address_t *source, struct_command_data_block *record)
{
    source->ifindex = static_cast<IFINDEX>(record->int_var[0]);
    source->type |= static_cast<u_int32_t>(record->flag_1);
    source->cfg_type = SFLOW_SOURCE_TYPE_INTERFACE;
    if (record->flag_1 == SFLOW_ADDRESS_TYPE_IPV4)
        sflow_cli_interface_address(source->ifindex, SFLOW_ADDRESS_TYPE_IPV4, &source->v4_address);
    else if (record->flag_1 == SFLOW_ADDRESS_TYPE_IPV6)
        sflow_cli_interface_address(source->ifindex, SFLOW_ADDRESS_TYPE_IPV6, &source->v6_address);
}

static void sflow_source_address_c2p(struct_command_data_block *record)
{
    sflow_source_address_t source;
    sflow_source_get_address(&source);
    if (source.cfg_type != SFLOW_SOURCE_TYPE_ADDRESS)
        return;
    if ((source.type & SFLOW_FAMILY_IPV4) != 0)
        c2p_printf(1, record, "sflow source address %a", source.v4_address.ip_v4);
    if ((source.type & SFLOW_FAMILY_IPV6) != 0)
        c2p_printf(1, record, "sflow source address ipv6 %v", source.v6_address.ip_v6);
}

static void sflow_source_address_no(struct_command_data_block *record)
{
    sflow_source_address_t source;
    std::memset(&source, 0, sizeof(source));
    if (sflow_addr_encap(&source, record) != 0) {
        cli_client_execmd_fail(record);
        return;
    }
    source.type |= static_cast<u_int32_t>(record->flag_1);
    source.cfg_type = SFLOW_SOURCE_TYPE_ADDRESS;
    sflow_source_del_address(&source);
    SFLOW_LOG_CONF("[SFLOW-CONF]del source address success\n");
}

void cfg_sflow_source_address_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        sflow_source_address_c2p(record);
        return;
    }
    if (record->flag_nd_prefix != 0) {
        sflow_source_address_no(record);
        return;
    }

    SFLOW_LOG_CONF("[SFLOW-CONF]%s cfg\n", __func__);
    sflow_source_address_t source;
    sflow_source_get_address(&source);
    if (sflow_addr_encap(&source, record) != 0) {
        cli_client_execmd_fail(record);
        return;
    }
    source.type |= static_cast<u_int32_t>(record->flag_1);
    source.cfg_type = SFLOW_SOURCE_TYPE_ADDRESS;
    if (sflow_source_set_address(&source) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set source address fail\n");
        cli_client_execmd_fail(record);
        return;
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]set source address success\n");
}

static void sflow_source_interface_c2p(struct_command_data_block *record, const char *handler)
{
    sflow_source_address_t source;
    sflow_source_get_address(&source);
    if (source.cfg_type != SFLOW_SOURCE_TYPE_INTERFACE)
        return;
    char name[LSM_IF_NAME_LEN] = "";
    if (lsm_if_get_name(source.ifindex, name, sizeof(name)) < 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s get interface name fail\n", handler);
        return;
    }
    if ((source.type & SFLOW_FAMILY_IPV4) != 0)
        c2p_printf(1, record, "sflow source interface %s", name);
    if ((source.type & SFLOW_FAMILY_IPV6) != 0)
        c2p_printf(1, record, "sflow source interface ipv6 %s", name);
}

void cfg_sflow_source_interface_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record)) {
        sflow_source_interface_c2p(record, __func__);
        return;
    }
    sflow_source_address_t source;
    if (record->flag_nd_prefix != 0) {
        std::memset(&source, 0, sizeof(source));
        sflow_ifx_addr_encap(&source, record);
        sflow_source_del_address(&source);
        SFLOW_LOG_CONF("[SFLOW-CONF]del source interface success\n");
        return;
    }

    SFLOW_LOG_CONF("[SFLOW-CONF]%s cfg\n", __func__);
    sflow_source_get_address(&source);
    if (source.ifindex != 0 && source.ifindex != static_cast<IFINDEX>(record->int_var[0])) {
        sflow_source_clear();
        sflow_source_get_address(&source);
    }
    sflow_ifx_addr_encap(&source, record);
    if (sflow_source_set_address(&source) == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]set source interface success\n");
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]set source interface failed\n");
}

// ---- Sampling parameters -------------------------------------------------------------------------------------

/// Serves either pass of a command that sets one number. True when `stored` changed and must be passed on.
static bool sflow_global_value(struct_command_data_block *record, u_int32_t *stored, u_int32_t preset,
                               const char *line)
{
    if (sflow_is_c2p_pass(record)) {
        c2p_printf(*stored != preset ? 1 : 0, record, line, *stored);
        return false;
    }
    const u_int32_t wanted =
        record->flag_nd_prefix != 0 ? preset : static_cast<u_int32_t>(record->int_var[0]);
    if (*stored == wanted)
        return false;
    *stored = wanted;
    return true;
}

void cfg_sflow_counter_interval_cmd(struct_command_data_block *record)
{
    sflow_config_wrlock();
    sflow_global_config_t &config = sflow_agent.g_config;
    if (sflow_global_value(record, &config.interval, SFLOW_DEFAULT_INTERVAL, "sflow counter interval %d"))
        sflow_reset_intf_countdown(config.interval);
    sflow_config_wrunlock();
}

void cfg_sflow_flow_maxheader_cmd(struct_command_data_block *record)
{
    sflow_config_wrlock();
    sflow_global_config_t &config = sflow_agent.g_config;
    if (sflow_global_value(record, &config.maxhlen, SFLOW_DEFAULT_MAX_HEADER, "sflow flow max-header %d")) {
        // Whole words, because a sampled header is padded to them on the wire.
        const u_int32_t sslen = (config.maxhlen + 3) / 4 * 4;
        sflow_flow_header_len_msg(static_cast<int>(sslen));
        config.sslen = sslen;
    }
    sflow_config_wrunlock();
}

void cfg_sflow_sampling_rate_cmd(struct_command_data_block *record)
{
    sflow_config_wrlock();
    sflow_global_config_t &config = sflow_agent.g_config;
    if (sflow_global_value(record, &config.samplingrate, SFLOW_DEFAULT_SAMPLING_RATE,
                           "sflow sampling-rate %d"))
        sflow_reflush_intf_config(config.samplingrate);
    sflow_config_wrunlock();
}
