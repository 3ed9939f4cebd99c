// Handlers of the collector commands (module sflow_cli): a collector's destination with everything that belongs to
// it, its largest datagram, and the lines of both in the running configuration. The CLI thread runs them.
#include "sflow_cli_internal.h"

#include "platform/lsm.h"
#include "sflow_bytes.h"

#include <cstdarg>
#include <cstring>

// ---- Destination ---------------------------------------------------------------------------------------------
//
// One function for each part of the command line; false after the operator was told why it is refused.

static bool collector_check_description(const struct_command_data_block *record, sfladdress_t *)
{
    if (std::strlen(record->string_var[1]) < SFLOW_DESC_LEN)
        return true;
    cli_printf("Invalid sflow collector description.\n");
    return false;
}

/// Takes an address of the collector's family; `what` names it in the log.
static bool collector_take_address(const u_int8_t *slot, int cid, const char *what_v4, const char *what_v6,
                                   sflow_address_type_t family, sfladdress_value_t *address)
{
    if (family == SFLOW_ADDRESS_TYPE_IPV6) {
        sflow_cli_copy_ipv6(address, slot);
        sflow_cli_log_text(what_v6, cid, address->ip_v6);
        if (sflow_is_valid_ipv6(address->ip_v6) != 0)
            return true;
        cli_printf("invalid ipv6 host address.\n");
        return false;
    }
    sflow_cli_copy_ipv4(address, slot);
    sflow_cli_log_text(what_v4, cid, address->ip_v4);
    if (sflow_is_valid_ip(address->ip_v4) != 0)
        return true;
    cli_printf("invalid host address.\n");
    return false;
}

static bool collector_take_dest(const struct_command_data_block *record, sfladdress_t *collector)
{
    collector->type = static_cast<sflow_address_type_t>(record->flag_1);
    return collector_take_address(record->paddr_var[0], static_cast<int>(record->int_var[0]),
                                  "set collect %d dest:%a\n", "set collect %d dest:%v\n", collector->type,
                                  &collector->address);
}

static bool collector_take_source(const struct_command_data_block *record, sfladdress_t *collector)
{
    switch (record->flag_3) {
    case SFLOW_SOURCE_TYPE_ADDRESS:
        collector->src_type = SFLOW_SOURCE_TYPE_ADDRESS;
        return collector_take_address(
            record->paddr_var[1], static_cast<int>(record->int_var[0]), "set collect %d source address:%a\n",
            "set collect %d source ipv6 address:%v\n", collector->type, &collector->src_address);
    case SFLOW_SOURCE_TYPE_INTERFACE:
        collector->src_type = SFLOW_SOURCE_TYPE_INTERFACE;
        collector->ifindex = static_cast<IFINDEX>(record->int_var[4]);
        sflow_cli_interface_address(collector->ifindex, collector->type, &collector->src_address);
        return true;
    default:
        return true;
    }
}

/// VRF of `oob via INTERFACE`: the interface's.
static bool collector_take_mgmt_vrf(const struct_command_data_block *record, sfladdress_t *collector)
{
    const auto cid = static_cast<int>(record->int_var[0]);
    collector->mgmt_index = static_cast<int32_t>(record->int_var[3]);
    SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d oob mgmt %d \n", cid, collector->mgmt_index);
    if (collector->mgmt_index < 1)
        return true;
    collector->vrf_index = lsm_if_get_vrf(static_cast<IFINDEX>(collector->mgmt_index));
    if (collector->vrf_index >= 0)
        return true;
    SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d oob mgmt %d vrf is not exist\n", cid, collector->mgmt_index);
    cli_printf("mgmt %d vrf is not existed\n", collector->mgmt_index);
    return false;
}

static bool collector_take_named_vrf(const struct_command_data_block *record, const char *name,
                                     sfladdress_t *collector)
{
    collector->mgmt_index = -1;
    collector->vrf_index = lsm_vrf_name2index(name);
    if (collector->vrf_index >= 0)
        return true;
    SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d vrf is not existed\n", static_cast<int>(record->int_var[0]));
    cli_printf("VRF %s is not configured\n", name);
    return false;
}

/// `flag_2` of a destination.
enum collector_network_t : int {
    COLLECTOR_DEFAULT_VRF = 0,
    COLLECTOR_NAMED_VRF = 1,
    COLLECTOR_OOB = 2,
};

static bool collector_take_vrf(const struct_command_data_block *record, sfladdress_t *collector)
{
    bool is_taken = true;
    if (record->flag_2 == COLLECTOR_OOB && record->flag_5 == 1)
        is_taken = collector_take_mgmt_vrf(record, collector);
    else if (record->flag_2 == COLLECTOR_OOB)
        is_taken = collector_take_named_vrf(record, SFLOW_MGMT_VRF_NAME, collector);
    else if (record->flag_2 == COLLECTOR_NAMED_VRF)
        is_taken = collector_take_named_vrf(record, record->string_var[0], collector);
    else
        collector->mgmt_index = -1;
    if (is_taken)
        SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d vrf %d\n", static_cast<int>(record->int_var[0]),
                       collector->vrf_index);
    return is_taken;
}

static bool collector_take_description(const struct_command_data_block *record, sfladdress_t *collector)
{
    if (record->string_var[1][0] == '\0')
        return true;
    std::strncpy(collector->desc, record->string_var[1], SFLOW_DESC_LEN - 1);
    SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d description\n", static_cast<int>(record->int_var[0]));
    return true;
}

/// Builds the collector's record from the command line, zero-filled since such records are compared byte for byte.
static bool collector_encap(const struct_command_data_block *record, sfladdress_t *collector)
{
    constexpr bool (*PARTS[])(const struct_command_data_block *, sfladdress_t *) = {
        collector_check_description, collector_take_dest,        collector_take_source,
        collector_take_vrf,          collector_take_description,
    };
    std::memset(collector, 0, sizeof(*collector));
    for (const auto &take : PARTS) {
        if (!take(record, collector))
            return false;
    }
    return true;
}

/// Whether both records send to the same place under the same description; ports and sources do not count.
static bool collector_is_same_place(const sfladdress_t &lhs, const sfladdress_t &rhs)
{
    return lhs.type == rhs.type && lhs.vrf_index == rhs.vrf_index && lhs.mgmt_index == rhs.mgmt_index &&
           sflow_same_bytes(lhs.address, rhs.address) && sflow_same_bytes(lhs.desc, rhs.desc);
}

/// Whether either receiver makes the request void: it is in effect already, or the other collector has the place.
static bool collector_is_void(u_int32_t cid, const sfladdress_t &collector, u_int16_t port)
{
    for (const sflreceiver_t &receiver : sflow_agent.receivers) {
        if (receiver.cid == cid) {
            if (sflow_same_bytes(receiver.address, collector) && receiver.collector_port == port)
                return true;
        } else if (collector_is_same_place(receiver.address, collector)) {
            cli_printf("The same ip address is already configured!\n");
            return true;
        }
    }
    return false;
}

/// Removes or sets the collector; false when nothing was to be done or it was refused.
static bool collector_apply(struct_command_data_block *record, const sfladdress_t &collector)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const auto cid = static_cast<u_int32_t>(record->int_var[0]);
    const auto port = static_cast<u_int16_t>(record->int_var[1]);
    if (record->flag_nd_prefix != 0) {
        sflow_receiver_del_collector(cid, &collector, port);
        SFLOW_LOG_CONF("[SFLOW-CONF]del collect %d dest success\n", cid);
        return true;
    }
    if (collector_is_void(cid, collector, port))
        return false;
    if (sflow_agent.agent_ip.type != SFLOW_ADDRESS_INVALID &&
        sflow_same_bytes(sflow_agent.agent_ip.address, collector.address)) {
        cli_printf("%% Sflow collector destination address is same as sflow agent address.\n");
        cli_client_execmd_fail(record);
        return false;
    }
    if (sflow_receiver_set_collector(cid, &collector, port) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d dest fail\n", cid);
        cli_client_execmd_fail(record);
    } else {
        SFLOW_LOG_CONF("[SFLOW-CONF]set collect %d dest success\n", cid);
    }
    return true;
}

void cfg_sflow_collector_dest_cmd(struct_command_data_block *record)
{
    sfladdress_t collector;
    if (!collector_encap(record, &collector)) {
        cli_client_execmd_fail(record);
        return;
    }
    sflow_config_wrlock();
    const bool is_changed = collector_apply(record, collector);
    sflow_config_wrunlock();
    if (is_changed)
        sflow_cli_reform_and_log(__func__);
}

void cfg_sflow_collector_maxlen_cmd(struct_command_data_block *record)
{
    const auto cid = static_cast<u_int32_t>(record->int_var[0]);
    if (record->flag_nd_prefix != 0) {
        sflow_receiver_set_max_datagramsize(cid, SFLOW_DEFAULT_DATAGRAM_SIZE);
        SFLOW_LOG_CONF("[SFLOW-CONF]del collector max datagram size success\n");
        return;
    }
    const auto size = static_cast<u_int32_t>(record->int_var[1]);
    sflow_receiver_set_max_datagramsize(cid, size);
    SFLOW_LOG_CONF("[SFLOW-CONF]set collector max datagram size success:%d\n", size);
}

// ---- Running configuration -----------------------------------------------------------------------------------

namespace
{

/// A line put together piece by piece; what does not fit is cut off.
struct collector_line_t {
    char text[SFLOW_CLI_LINE_LEN];
    size_t used;
};

} // namespace

static void line_append(collector_line_t *line, const char *format, ...)
{
    const size_t room = sizeof(line->text) - line->used;
    va_list args;
    va_start(args, format);
    zvsnprintf(line->text + line->used, room, format, args);
    va_end(args);
    line->used += std::strlen(line->text + line->used);
}

/// The piece that names the collector's network; false when an interface's name is not to be had.
static bool line_append_network(collector_line_t *line, const sfladdress_t &collector, const char *vrf)
{
    if (collector.vrf_index == 0)
        return true;
    if (collector.mgmt_index < 1) {
        if (std::strcmp(vrf, SFLOW_MGMT_VRF_NAME) == 0)
            line_append(line, " oob");
        else
            line_append(line, " vrf %s", vrf);
        return true;
    }
    char name[LSM_IF_NAME_LEN] = "";
    if (lsm_if_get_name(static_cast<IFINDEX>(collector.mgmt_index), name, sizeof(name)) < 0)
        return false;
    line_append(line, " oob via %s", name);
    return true;
}

/// The piece that names the collector's own source. No family keyword: the parser takes the destination's.
static bool line_append_source(collector_line_t *line, const sfladdress_t &collector)
{
    if (collector.src_type == SFLOW_SOURCE_TYPE_ADDRESS) {
        if (collector.type == SFLOW_ADDRESS_TYPE_IPV4)
            line_append(line, " source address %a", collector.src_address.ip_v4);
        else
            line_append(line, " source address %v", collector.src_address.ip_v6);
    } else if (collector.src_type == SFLOW_SOURCE_TYPE_INTERFACE) {
        char name[LSM_IF_NAME_LEN] = "";
        if (lsm_if_get_name(collector.ifindex, name, sizeof(name)) < 0)
            return false;
        line_append(line, " source interface %s", name);
    }
    return true;
}

void cfg_sflow_collector_print_address(struct_command_data_block *record, sflreceiver_t *receiver)
{
    const sfladdress_t &collector = receiver->address;
    char vrf[LSM_VRF_NAME_LEN] = "";
    if (collector.vrf_index != 0 && lsm_vrf_index2name(collector.vrf_index, vrf, sizeof(vrf)) != 0) {
        // The VRF has gone and the collector goes with it, under the lock for reading that the caller holds.
        sflow_receiver_del_collector(receiver->cid, &collector, receiver->collector_port);
        return;
    }

    collector_line_t line = {};
    line_append(&line, "sflow collector %d destination", receiver->cid);
    if (collector.type == SFLOW_ADDRESS_TYPE_IPV4)
        line_append(&line, " %a %d", collector.address.ip_v4, receiver->collector_port);
    else
        line_append(&line, " ipv6 %v %d", collector.address.ip_v6, receiver->collector_port);
    if (!line_append_network(&line, collector, vrf)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s get interface name fail\n", __func__);
        return;
    }
    if (collector.desc[0] != '\0')
        line_append(&line, " description %s", collector.desc);
    if (!line_append_source(&line, collector)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s get interface name fail\n", __func__);
        return;
    }
    c2p_printf(1, record, "%s", line.text);
}

void cfg_sflow_collector_c2p(struct_command_data_block *record)
{
    sflow_config_rdlock();
    for (sflreceiver_t &receiver : sflow_agent.receivers) {
        if (receiver.is_enable)
            cfg_sflow_collector_print_address(record, &receiver);
        if (receiver.maxdatagramsize != SFLOW_DEFAULT_DATAGRAM_SIZE)
            c2p_printf(1, record, "sflow collector %d max-datagram-size %d", receiver.cid,
                       receiver.maxdatagramsize);
    }
    sflow_config_rdunlock();
}
