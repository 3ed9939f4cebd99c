// Messages from the sampling service that change the configuration: the answers to a sampling setting and to a
// collector attachment.
//
// An interface's configuration shows what the forwarding plane has accepted, so it changes here, when the answer
// arrives, and not where the operator's command is executed. Receive thread only.
#include "sflow_cli_msg.h"

#include "sflow_acl.h"
#include "sflow_agent.h"
#include "sflow_cli.h"
#include "sflow_dbg.h"
#include "sflow_lsm.h"
#include "sflow_poller.h"
#include "sflow_sampler.h"

#include "platform/lsm.h"
#include "platform/syslog_client.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

/// The answer in aligned memory, its list's name terminated in any case.
struct sflow_spl_answer_t {
    sflow_spl_ret_t record;
    char acl_name[SFLOW_ACL_NAME_LEN + 1];
};

constexpr char SFLOW_SPL_RET_FUNCTION[] = "sflow_set_sampling_rate_ret_msg";

bool sflow_conf_msg_is_type(const sflow_msg_head_t &head, sflow_cmd_t type, const char *function)
{
    if (head.type == type)
        return true;
    SFLOW_LOG_CONF("[SFLOW-CONF]%s type is invalid:0x%x\n", function, head.type);
    return false;
}

/// Whether `msg` holds `size` bytes, what a record of `type` has; otherwise `function`, its handler, says why not.
bool sflow_conf_msg_is_whole(const char *msg, sflow_cmd_t type, size_t size, const char *function)
{
    if (msg == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s msg is NULL\n", function);
        return false;
    }
    sflow_msg_head_t head;
    memcpy(&head, msg, sizeof(head));
    if (head.len >= size)
        return true;
    if (sflow_conf_msg_is_type(head, type, function))
        SFLOW_LOG_CONF("[SFLOW-CONF]%s len is invalid:%d\n", function, head.len);
    return false;
}

/// Has the saved running configuration brought up to date.
void sflow_conf_reform(const char *function)
{
    if (sflow_cli_c2p_reform() == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform success.\n", function);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s c2p reform failure.\n", function);
}

/// Tells the operator that an interface cannot be sampled, whatever the debug switches say.
void sflow_spl_warn(const sflow_spl_ret_t &answer)
{
    char name[LSM_IF_NAME_LEN + 1] = {};
    if (lsm_if_get_name(answer.ifx, name, LSM_IF_NAME_LEN) != 0) {
        char text[128];
        const int error = errno;
        SFLOW_LOG_CONF("[SFLOW-CONF]Failed to get interface name, errno=%d, %s.\n", error,
                       strerror_r(error, text, sizeof(text)));
        return;
    }
    switch (answer.ret) {
    case SFLOW_SPL_CONFLICT_ERSPAN:
        printk_syslog_ext(4, "SFLOW", "CONFLICT_ERSPAN", 1,
                          "Interface %s cannot be sampled due to the conflict between SFLOW and ERSPAN.",
                          name);
        break;
    case SFLOW_SPL_CONFLICT_IPFIX:
        printk_syslog_ext(4, "SFLOW", "CONFLICT_IPFIX", 1,
                          "Interface %s cannot be sampled due to the conflict between SFLOW and IPFIX.",
                          name);
        break;
    default:
        printk_syslog_ext(4, "SFLOW", "CONFIG_FAIL", 1,
                          "Interface %s cannot be sampled due to an unknown error[%d].", name, answer.ret);
        break;
    }
}

acl_info_t *sflow_spl_free_slot(sflow_intf_config_t *intf)
{
    for (acl_info_t &slot : intf->acl) {
        if (!slot.enable)
            return &slot;
    }
    return nullptr;
}

/// Names the answer's list in `slot`; the name keeps its terminating NUL.
void sflow_spl_fill_slot(acl_info_t *slot, const sflow_spl_answer_t &answer)
{
    slot->enable_acl_id = answer.record.acl_id;
    memset(slot->enable_acl_name, 0, sizeof(slot->enable_acl_name));
    memcpy(slot->enable_acl_name, answer.acl_name,
           strnlen(answer.acl_name, sizeof(slot->enable_acl_name) - 1));
}

/// Sampling started on an interface that had no configuration. False when memory is short.
bool sflow_spl_start_new(const sflow_spl_answer_t &answer) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_spl_ret_t &record = answer.record;
    sflow_intf_config_t *intf = sflow_add_intf_config(record.ifx);
    if (intf == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s add fail\n", SFLOW_SPL_RET_FUNCTION);
        return false;
    }
    intf->enable |= static_cast<u_int32_t>(record.direct);
    intf->ifx_type = record.ifx_type;
    SFLOW_LOG_EVENT(
        "[SFLOW-EVENT]%s 3.sflow_spl_ret_t:ifx=%d, direct(%d), ifx_type=%d, acl_id(%d), acl_name(%s), "
        "snoop(%d)\n",
        SFLOW_SPL_RET_FUNCTION, record.ifx, record.direct, record.ifx_type, record.acl_id, answer.acl_name,
        record.snoop);
    // Compared whole, unlike on an existing configuration, where the record's ingress bit is enough.
    if (intf->enable != SFLOW_INGRESS)
        return true;
    intf->snoop |= record.snoop;
    acl_info_t *slot = sflow_spl_free_slot(intf);
    if (record.acl_id != 0 && slot != nullptr) {
        sflow_spl_fill_slot(slot, answer);
        slot->enable = true;
        intf->acl_enable = true;
    }
    return true;
}

/// Ingress sampling stopped; it stays on while another access list still limits it.
void sflow_spl_stop_ingress(sflow_intf_config_t *intf, const sflow_spl_answer_t &answer)
{
    const sflow_spl_ret_t &record = answer.record;
    if (answer.acl_name[0] != '\0' || record.acl_id != 0) {
        if (sflow_acl_unref(record.acl_id, answer.acl_name) != 0)
            SFLOW_LOG_EVENT("[SFLOW-EVENT][%s] Failed to de-reference the ACL(%d) rule\n",
                            SFLOW_SPL_RET_FUNCTION, record.acl_id);
        for (acl_info_t &slot : intf->acl) {
            if (slot.enable_acl_id == record.acl_id)
                slot = {};
        }
    }
    intf->acl_enable = intf_acl_cfg(intf);
    if (!intf->acl_enable)
        intf->enable &= ~static_cast<u_int32_t>(record.direct);
    intf->snoop &= ~record.snoop;
}

void sflow_spl_stop(sflow_intf_config_t *intf, const sflow_spl_answer_t &answer)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_spl_ret_t &record = answer.record;
    intf->ifx_type = record.ifx_type;
    SFLOW_LOG_EVENT(
        "[SFLOW-EVENT]%s 2.sflow_spl_ret_t:ifx=%d, direct(%d), ifx_type=%d, acl_id(%d), acl_name(%s)\n",
        SFLOW_SPL_RET_FUNCTION, record.ifx, record.direct, record.ifx_type, record.acl_id, answer.acl_name);
    if ((record.direct & SFLOW_INGRESS) != 0)
        sflow_spl_stop_ingress(intf, answer);
    else
        intf->enable &= ~static_cast<u_int32_t>(record.direct);
    sflow_del_intf_config(intf);
}

void sflow_spl_start_ingress(sflow_intf_config_t *intf, const sflow_spl_answer_t &answer)
{
    const sflow_spl_ret_t &record = answer.record;
    intf->snoop |= record.snoop;
    acl_info_t *slot = sflow_spl_free_slot(intf);
    if (slot == nullptr) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s sflow_spl_ret_t:ifx=%d, direct(%d), ifx_type=%d, acl_id(%d), "
                        "acl_name(%s) failed\n",
                        SFLOW_SPL_RET_FUNCTION, record.ifx, record.direct, record.ifx_type, record.acl_id,
                        answer.acl_name);
        return;
    }
    sflow_spl_fill_slot(slot, answer);
    slot->enable = record.acl_id != 0;
    intf->acl_enable = intf_acl_cfg(intf);
}

void sflow_spl_start(sflow_intf_config_t *intf, const sflow_spl_answer_t &answer)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_spl_ret_t &record = answer.record;
    intf->enable |= static_cast<u_int32_t>(record.direct);
    intf->ifx_type = record.ifx_type;
    if ((record.direct & SFLOW_INGRESS) != 0)
        sflow_spl_start_ingress(intf, answer);
    SFLOW_LOG_EVENT(
        "[SFLOW-EVENT]%s 1.sflow_spl_ret_t:ifx=%d, direct(%d), ifx_type=%d, acl_id(%d), acl_name(%s)\n",
        SFLOW_SPL_RET_FUNCTION, record.ifx, record.direct, record.ifx_type, record.acl_id, answer.acl_name);
}

/// Brings the interface's configuration in line with an accepted setting. False when memory is short.
bool sflow_spl_apply(const sflow_spl_answer_t &answer)
{
    bool applied = true;
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_get_intf_config(answer.record.ifx);
    if (intf == nullptr)
        applied = answer.record.rate == 0 || sflow_spl_start_new(answer);
    else if (answer.record.rate == 0)
        sflow_spl_stop(intf, answer);
    else
        sflow_spl_start(intf, answer);
    sflow_config_wrunlock();
    return applied;
}

} // namespace

void sflow_set_sampling_rate_ret_msg(char *msg)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]recv set sampling rate return msg\n");
    sflow_spl_answer_t answer = {};
    if (!sflow_conf_msg_is_whole(msg, SFLOW_CMD_SET_SAMPLING_RATE_RET, sizeof(answer.record), __func__))
        return;
    memcpy(&answer.record, msg, sizeof(answer.record));
    memcpy(answer.acl_name, answer.record.acl_name, sizeof(answer.record.acl_name));
    if (!sflow_conf_msg_is_type(answer.record.head, SFLOW_CMD_SET_SAMPLING_RATE_RET, __func__))
        return;
    if (answer.record.ret != SFLOW_SPL_OK) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s return fail:%d type:%d\n", __func__, answer.record.ret,
                       answer.record.head.type);
        sflow_spl_warn(answer.record);
    } else if (!sflow_spl_apply(answer)) {
        return;
    }
    sflow_lsm_forget_if_gone(answer.record.ifx);
    sflow_conf_reform(__func__);
}

void sflow_ifx_is_conf_ret_msg(char *msg)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]recv ifx configure msg\n");
    sflow_ifx_is_conf_ret_t record;
    if (!sflow_conf_msg_is_whole(msg, SFLOW_CMD_IFX_IS_CONF_RET, sizeof(record), __func__))
        return;
    memcpy(&record, msg, sizeof(record));
    SFLOW_LOG_CONF("[SFLOW-CONF]%s:ret:%d, ifx:%d, cid:%d, flag:%d\n", __func__, record.ret, record.ifx,
                   record.cid, record.flag);
    if (!sflow_conf_msg_is_type(record.head, SFLOW_CMD_IFX_IS_CONF_RET, __func__))
        return;
    if (record.ret != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s sflow set collector fail.", __func__);
        return;
    }
    const bool flow = record.flag == SFLOW_CONF_FLAG_FLOW;
    const auto cid = static_cast<u_int32_t>(record.cid);
    if ((flow ? sflow_sampler_set_cid(record.ifx, cid) : sflow_poller_set_cid(record.ifx, cid)) != 0) {
        fputs(
            flow ? "[sflow] sflow set flow sample collector failure.Should config sflow collector address "
                   "first."
                 : "[sflow] sflow set counter sample collector failure.Should config sflow collector address "
                   "first.",
            stdout);
        fflush(stdout);
        return;
    }
    sflow_lsm_forget_if_gone(record.ifx);
    sflow_conf_reform(__func__);
}
