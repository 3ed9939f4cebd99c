// Guards of interface mode (module sflow_cli): which ways of sampling an interface the operator is offered, after the
// capacity that the sampling service has reported. The CLI thread runs them while it matches a command line.
#include "sflow_cli_internal.h"

#include "sflow_cli_msg.h"

#include "platform/lsm.h"

#include <cstring>

namespace
{

/// Capacity bits of one sflow_support_direct_t.
struct sflow_support_bits_t {
    u_int32_t port;
    u_int32_t aggregate;
    u_int32_t subinterface;
};

constexpr sflow_support_bits_t SUPPORT_BITS[] = {
    {SFLOW_PORT_INGRESS, SFLOW_SVI_INGRESS, SFLOW_SUB_INGRESS},
    {SFLOW_PORT_EGRESS, SFLOW_SVI_EGRESS, SFLOW_SUB_EGRESS},
    {SFLOW_PORT_INGRESS_ACL, SFLOW_SVI_INGRESS_ACL, SFLOW_SUB_INGRESS_ACL},
    {SFLOW_PORT_INGRESS_SNOOP, SFLOW_SVI_INGRESS_SNOOP, SFLOW_SUB_INGRESS_SNOOP},
};

// Kinds of interfaces in the mask of an interface range.
constexpr u_int64_t RANGE_SUBINTERFACE = 0x800;
constexpr u_int64_t RANGE_PORT = 0xF801000B | 0x8000;
constexpr u_int64_t RANGE_AGGREGATE = 0x20000;

struct type_range_t {
    int first;
    int last;
};
constexpr type_range_t ETHERNET_TYPES[] = {{6, 11}, {49, 51}};

} // namespace

int is_ethernet_port_by_type(int type)
{
    for (const type_range_t &range : ETHERNET_TYPES) {
        if (type >= range.first && type <= range.last)
            return 1;
    }
    return 0;
}

/// The bit that answers for a range of interfaces, 0 for none. A range with anything but subinterfaces is judged by
/// that, ports first.
static u_int32_t sflow_range_bit(u_int64_t kinds, const sflow_support_bits_t &bits)
{
    if ((kinds & ~RANGE_SUBINTERFACE) == 0)
        return kinds != 0 ? bits.subinterface : 0;
    if ((kinds & RANGE_PORT) != 0)
        return bits.port;
    return (kinds & RANGE_AGGREGATE) != 0 ? bits.aggregate : 0;
}

/// The bit that answers for one interface, 0 for none.
static u_int32_t sflow_interface_bit(IFINDEX ifx, const sflow_support_bits_t &bits)
{
    const bool is_sub = lsm_if_is_subinterface(ifx) != 0;
    // What the bridge takes from a subinterface never passes its sampling point.
    if (is_sub && lsm_if_get_top_stack(ifx) == LSM_IF_STACK_BRIDGE)
        return 0;
    const int type = lsm_if_get_type(ifx);
    if (is_ethernet_port_by_type(type) != 0 || type == LSM_IF_TYPE_VIRTUAL_ETHERNET)
        return is_sub ? bits.subinterface : bits.port;
    return !is_sub && type == LSM_IF_TYPE_AGGREGATE ? bits.aggregate : 0;
}

int sflow_interface_support_test(struct_command_data_block *record, int direct)
{
    if (direct < SFLOW_SUPPORT_INGRESS || direct > SFLOW_SUPPORT_INGRESS_SNOOP) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s:direction is failure\n", __func__);
        return 0;
    }
    const sflow_support_bits_t &bits = SUPPORT_BITS[direct];
    u_int32_t bit = 0;
    if (record->mode_name != nullptr && std::strcmp(record->mode_name, CLI_MODE_IFRANGE) == 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s:strcmp\n", __func__);
        bit = sflow_range_bit(record->mode_intidx, bits);
    } else {
        bit = sflow_interface_bit(static_cast<IFINDEX>(record->mode_intidx), bits);
    }
    return (sflow_load(sflow_intf_support_flag) & bit) != 0 ? 1 : 0;
}

int sflow_interface_ingress_test(struct_command_data_block *record)
{
    return sflow_interface_support_test(record, SFLOW_SUPPORT_INGRESS);
}

int sflow_interface_egress_test(struct_command_data_block *record)
{
    return sflow_interface_support_test(record, SFLOW_SUPPORT_EGRESS);
}

int sflow_interface_acl_test(struct_command_data_block *record)
{
    return sflow_interface_support_test(record, SFLOW_SUPPORT_INGRESS_ACL);
}

int sflow_interface_snoop_test(struct_command_data_block *record)
{
    return sflow_interface_support_test(record, SFLOW_SUPPORT_INGRESS_SNOOP);
}

int sflow_interface_both_test(struct_command_data_block *record)
{
    return sflow_interface_ingress_test(record) != 0 && sflow_interface_egress_test(record) != 0 ? 1 : 0;
}

int sflow_interface_test(struct_command_data_block *record)
{
    return sflow_interface_ingress_test(record) != 0 || sflow_interface_egress_test(record) != 0 ? 1 : 0;
}
