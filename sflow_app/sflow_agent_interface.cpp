// Interface sampling configuration: the list of interfaces that are sampled or polled, and which settings go
// to the sampling service when an operator or the daemon changes one.
//
// The list is kept in ascending order, which is the order of show output and of the running configuration; a
// hash over it makes the look-up, which every sampled packet needs, constant in time. List and hash change
// under `config_lock` held for writing; reading is free of allocation.
//
// Enabling and disabling only asks: a record's own fields follow when the sampling service answers.

#include "sflow_agent_internal.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"

#include <cstdlib>
#include <cstring>

namespace
{

/// What a record really is: the configuration and its place in the hash.
struct intf_entry_t {
    sflow_intf_config_t config;
    intf_entry_t *hash_next;
    bool given_up; ///< waits for a writer to free it; relaxed
};
static_assert(std::is_standard_layout_v<intf_entry_t> && offsetof(intf_entry_t, config) == 0);

/// Chained hash by interface index, newest entry of an index first. The bucket count is a power of two.
struct intf_index_t {
    intf_entry_t **buckets;
    size_t bucket_num;
    size_t entry_num;
};

constexpr size_t FIRST_BUCKET_NUM = 256;

intf_entry_t *first_buckets[FIRST_BUCKET_NUM];
intf_index_t intf_index = {first_buckets, FIRST_BUCKET_NUM, 0};

/// 1 while given-up entries wait for a writer; relaxed.
u_int32_t given_up_pending = 0;

intf_entry_t *entry_of(sflow_intf_config_t *intf)
{
    return reinterpret_cast<intf_entry_t *>(intf);
}

/// Platforms number interfaces densely or code slot and port into the high bits: the product's upper half depends
/// on every bit of the index.
intf_entry_t **bucket_of(const intf_index_t &index, IFINDEX ifx)
{
    constexpr u_int64_t golden_ratio = 0x9E3779B97F4A7C15;
    return &index.buckets[(ifx * golden_ratio >> 32) & (index.bucket_num - 1)];
}

void index_insert(intf_entry_t *entry)
{
    intf_entry_t **bucket = bucket_of(intf_index, entry->config.ifx);
    entry->hash_next = *bucket;
    *bucket = entry;
    intf_index.entry_num++;
}

void index_remove(intf_entry_t *entry)
{
    intf_entry_t **link = bucket_of(intf_index, entry->config.ifx);
    while (*link != entry)
        link = &(*link)->hash_next;
    *link = entry->hash_next;
    intf_index.entry_num--;
}

/// Doubles a full hash. Without memory for it the hash works on, with longer chains.
void index_grow()
{
    if (intf_index.entry_num < intf_index.bucket_num)
        return;
    const size_t bucket_num = intf_index.bucket_num * 2;
    auto **buckets = static_cast<intf_entry_t **>(std::calloc(bucket_num, sizeof(void *)));
    if (buckets == nullptr)
        return;
    const intf_index_t old = intf_index;
    intf_index = {buckets, bucket_num, 0};
    // Appending keeps the order of a chain: the newest of one index stays first.
    for (size_t i = 0; i < old.bucket_num; i++) {
        for (intf_entry_t *entry = old.buckets[i]; entry != nullptr;) {
            intf_entry_t *next = entry->hash_next;
            intf_entry_t **tail = bucket_of(intf_index, entry->config.ifx);
            while (*tail != nullptr)
                tail = &(*tail)->hash_next;
            entry->hash_next = nullptr;
            *tail = entry;
            intf_index.entry_num++;
            entry = next;
        }
    }
    if (old.buckets != first_buckets)
        std::free(old.buckets);
}

bool serves_nothing(const sflow_intf_config_t *intf)
{
    return intf->enable == 0 && intf->cid == 0 && intf->fid == 0;
}

/// The link in front of which a node of `ifx` goes. Looked for from the end: a configuration is entered, and
/// interfaces appear, in ascending order for the most part.
sflow_list_t *position_for(IFINDEX ifx) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_list_t *position = &sflow_agent.intf_config;
    while (position->prev != &sflow_agent.intf_config &&
           sflow_list_entry<sflow_intf_config_t>(position->prev)->ifx >= ifx)
        position = position->prev;
    return position;
}

void free_entry(intf_entry_t *entry)
{
    sflow_list_remove(&entry->config.list);
    index_remove(entry);
    std::free(entry);
}

int send_rate(const sflow_intf_config_t *intf, u_int32_t rate, u_int32_t direct, int acl_id,
              const char *acl_name)
{
    return sflow_set_sampling_rate_msg(intf->ifx, static_cast<int>(rate), static_cast<int>(direct),
                                       intf->ifx_type, acl_id, acl_name, intf->snoop);
}

/// One request of an operator, as enable and disable get it.
struct rate_request_t {
    IFINDEX ifx;
    int direct;
    int ifx_type;
    int acl_id;
    const char *acl_name;
    int snoop;
};

int send_request(const rate_request_t &request, u_int32_t rate, sflow_direct_t direct)
{
    return sflow_set_sampling_rate_msg(request.ifx, static_cast<int>(rate), direct, request.ifx_type,
                                       request.acl_id, request.acl_name, request.snoop);
}

/// Stops the ingress sampling that runs on `intf` without an access list, under the snoop setting it runs
/// with.
int stop_plain_ingress(const sflow_intf_config_t *intf, int ifx_type)
{
    return sflow_set_sampling_rate_msg(intf->ifx, 0, SFLOW_INGRESS, ifx_type, 0, nullptr, intf->snoop);
}

/// Stops the ingress sampling of every access list of `intf`; ends at the first failure.
int stop_acl_ingress(const sflow_intf_config_t *intf, int ifx_type)
{
    for (const acl_info_t &acl : intf->acl) {
        if (acl.enable &&
            sflow_set_sampling_rate_msg(intf->ifx, 0, SFLOW_INGRESS, ifx_type, acl.enable_acl_id,
                                        acl.enable_acl_name, intf->snoop) != 0)
            return -1;
    }
    return 0;
}

/// Ingress sampling with and without access lists exclude each other: what runs the other way is stopped
/// first.
int enable_ingress(const rate_request_t &request, const sflow_intf_config_t *intf, u_int32_t rate)
{
    if (request.acl_id != 0 || intf == nullptr) {
        const bool plain_runs = intf != nullptr && (intf->enable & SFLOW_INGRESS) != 0 && !intf->acl_enable;
        if (request.acl_id != 0 && plain_runs && stop_plain_ingress(intf, request.ifx_type) != 0)
            return -1;
        return send_request(request, rate, SFLOW_INGRESS);
    }
    if (stop_acl_ingress(intf, request.ifx_type) != 0)
        return -1;
    if (intf->snoop != request.snoop && stop_plain_ingress(intf, request.ifx_type) != 0)
        return -1;
    return sflow_set_sampling_rate_msg(request.ifx, static_cast<int>(rate), SFLOW_INGRESS, request.ifx_type,
                                       0, nullptr, request.snoop);
}

int enable_directions(const rate_request_t &request) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const u_int32_t rate = sflow_agent.g_config.samplingrate;
    if ((request.direct & SFLOW_EGRESS) != 0 && send_request(request, rate, SFLOW_EGRESS) != 0)
        return -1;
    if ((request.direct & SFLOW_INGRESS) == 0)
        return 0;
    return enable_ingress(request, sflow_get_intf_config(request.ifx), rate);
}

int disable_ingress(const rate_request_t &request, const sflow_intf_config_t *intf)
{
    if (intf->acl_enable && request.acl_id == 0)
        return stop_acl_ingress(intf, request.ifx_type);
    return sflow_set_sampling_rate_msg(request.ifx, 0, SFLOW_INGRESS, request.ifx_type, request.acl_id,
                                       request.acl_name, intf->snoop);
}

/// Sends `rate` for every access-list slot of every interface that samples; `failure` is logged with the
/// function and the interface, and the walk goes on.
void reflush_all(u_int32_t rate, void (*failure)(IFINDEX ifx)) SFLOW_REQUIRES_SHARED(sflow_agent.config_lock)
{
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [&](sflow_intf_config_t *intf) {
        if (intf->enable == 0)
            return;
        for (const acl_info_t &acl : intf->acl) {
            if (send_rate(intf, rate, intf->enable, acl.enable_acl_id, acl.enable_acl_name) != 0)
                failure(intf->ifx);
        }
    });
}

} // namespace

void sflow_clear_intf_config()
{
    for (size_t i = 0; i < intf_index.bucket_num; i++) {
        while (intf_entry_t *entry = intf_index.buckets[i]) {
            intf_index.buckets[i] = entry->hash_next;
            std::free(entry);
        }
    }
    intf_index.entry_num = 0;
    sflow_store(given_up_pending, 0U);
}

void sflow_reap_intf_config()
{
    if (sflow_load(given_up_pending) == 0)
        return;
    sflow_store(given_up_pending, 0U);
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [](sflow_intf_config_t *intf) {
        if (sflow_load(entry_of(intf)->given_up))
            free_entry(entry_of(intf));
    });
}

sflow_intf_config_t *sflow_add_intf_config(IFINDEX ifx)
{
    auto *entry = static_cast<intf_entry_t *>(std::calloc(1, sizeof(intf_entry_t)));
    if (entry == nullptr) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s fail\n", __func__);
        return nullptr;
    }
    sflow_intf_config_t *intf = &entry->config;
    intf->ifx = ifx;
    intf->flow_seqno = 1;
    intf->counter_seqno = 1;
    intf->countdown = sflow_agent.g_config.interval;
    sflow_list_insert_before(position_for(ifx), &intf->list);
    index_grow();
    index_insert(entry);
    return intf;
}

sflow_intf_config_t *sflow_get_intf_config(IFINDEX ifx)
{
    for (intf_entry_t *entry = *bucket_of(intf_index, ifx); entry != nullptr; entry = entry->hash_next) {
        if (entry->config.ifx == ifx && !sflow_load(entry->given_up))
            return &entry->config;
    }
    return nullptr;
}

void sflow_del_intf_config(sflow_intf_config_t *intf)
{
    if (intf == nullptr || !serves_nothing(intf))
        return;
    if (!sflow_config_is_reading()) {
        free_entry(entry_of(intf));
        return;
    }
    sflow_store(entry_of(intf)->given_up, true);
    sflow_store(given_up_pending, 1U);
}

bool intf_acl_cfg(const sflow_intf_config_t *intf)
{
    for (const acl_info_t &acl : intf->acl) {
        if (acl.enable)
            return true;
    }
    return false;
}

u_int32_t sflow_get_intf_config_enable(IFINDEX ifx, sflow_intf_config_t **intf)
{
    *intf = sflow_get_intf_config(ifx);
    return *intf != nullptr ? (*intf)->enable : 0;
}

void sflow_reset_intf_countdown(u_int32_t countdown)
{
    sflow_list_for_each<sflow_intf_config_t>(
        &sflow_agent.intf_config, [countdown](sflow_intf_config_t *intf) { intf->countdown = countdown; });
}

void sflow_intf_del_receiver(u_int32_t cid)
{
    // Relaxed stores: in the running-configuration pass the dispatcher may be reading the same fields.
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [cid](sflow_intf_config_t *intf) {
        if (intf->cid == cid)
            sflow_store(intf->cid, 0U);
        if (intf->fid == cid)
            sflow_store(intf->fid, 0U);
        sflow_config_held();
        sflow_del_intf_config(intf);
    });
}

sflow_intf_config_t *sflow_check_intf(IFINDEX ifx, u_int32_t cid)
{
    if (!sflow_is_enable_receiver(cid)) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s receiver is not enable\n", __func__);
        return nullptr;
    }
    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    if (intf == nullptr)
        intf = sflow_add_intf_config(ifx);
    if (intf == nullptr)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s add intf fail.\n", __func__);
    return intf;
}

int sflow_get_current_status()
{
    sflow_config_rdlock();
    const auto *intf =
        sflow_list_find<sflow_intf_config_t>(&sflow_agent.intf_config, [](sflow_intf_config_t *node) {
            return !sflow_load(entry_of(node)->given_up);
        });
    sflow_config_rdunlock();
    return intf != nullptr ? 1 : 0;
}

int sflow_enable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                             int snoop)
{
    SFLOW_LOG_CONF("[SFLOW-CONF]%s start\n", __func__);
    sflow_config_wrlock();
    const int ret = enable_directions({ifx, direct, ifx_type, acl_id, acl_name, snoop});
    if (ret == 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]%s end\n", __func__);
    else
        SFLOW_LOG_CONF("[SFLOW-CONF]%s set to ss fail\n", __func__);
    sflow_config_wrunlock();
    return ret == 0 ? 0 : -1;
}

int sflow_disable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                              int snoop)
{
    const rate_request_t request = {ifx, direct, ifx_type, acl_id, acl_name, snoop};
    sflow_config_rdlock();
    const bool known = sflow_get_intf_config(ifx) != nullptr;
    sflow_config_rdunlock();
    if ((direct & SFLOW_EGRESS) != 0 && send_request(request, 0, SFLOW_EGRESS) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s set to ss fail\n", __func__);
        return -1;
    }
    sflow_config_wrlock();
    const sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    int ret = 0;
    if (intf == nullptr) {
        // A node that was there has gone because the service has answered the egress request already: all is off.
        if (!known) {
            SFLOW_LOG_CONF("[SFLOW-CONF]%s get to intf fail\n", __func__);
            ret = -1;
        }
    } else if ((direct & SFLOW_INGRESS) != 0 && disable_ingress(request, intf) != 0) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s set to ss fail\n", __func__);
        ret = -1;
    }
    sflow_config_wrunlock();
    return ret;
}

void sflow_reflush_intf_config(u_int32_t rate)
{
    // Two whole passes: the service must have forgotten every old rate before it learns the first new one.
    reflush_all(0, [](IFINDEX ifx) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s(1)set to ss fail:%d\n", "sflow_reflush_intf_config",
                       static_cast<int>(ifx));
    });
    reflush_all(rate, [](IFINDEX ifx) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s(2)set to ss fail:%d\n", "sflow_reflush_intf_config",
                       static_cast<int>(ifx));
    });
}
