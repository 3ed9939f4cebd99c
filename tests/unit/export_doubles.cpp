#include "export_doubles.h"

#include "sflow_acl.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

using namespace export_test;

sflagent_t sflow_agent;
bool sflow_debug_all = false;
bool sflow_debug_event = false;
bool sflow_debug_export = false;
bool sflow_debug_conf = false;
bool sflow_debug_skt = false;
sflow_debug_statis_t sflow_statis;
bool g_can_backup = false;
int sflow_app_debug_fd = 7;

namespace
{

thread_local Held held_now = Held::none;

} // namespace

namespace export_test
{

World &world()
{
    static World the_world;
    return the_world;
}

Held held()
{
    return held_now;
}

void clear_world()
{
    sflow_config_wrlock();
    while (!sflow_list_empty(&sflow_counter_list))
        sflow_poller_free_counter(sflow_list_entry<sflow_counter_node_t>(sflow_counter_list.next));
    if (sflow_agent.intf_config.next != nullptr) {
        sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [](sflow_intf_config_t *intf) {
            sflow_list_remove(&intf->list);
            std::free(intf);
        });
    }
    if (sflow_agent.receivers[0].cid != 0) {
        for (sflreceiver_t &each : sflow_agent.receivers)
            sflow_close_socket(&each);
    }
    sflow_config_wrunlock();

    sflow_msg_lock();
    if (sflow_agent.msg_list.next != nullptr) {
        sflow_list_for_each<sflow_msg_t>(&sflow_agent.msg_list, [](sflow_msg_t *event) {
            sflow_list_remove(&event->list);
            std::free(event->msg);
            std::free(event);
        });
    }
    sflow_msg_unlock();
}

void reset_world() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    static bool locks_exist = false;
    if (locks_exist) {
        clear_world();
        pthread_rwlock_destroy(&sflow_agent.config_lock.rwlock);
        pthread_mutex_destroy(&sflow_agent.msg_lock.mutex);
        pthread_cond_destroy(&sflow_agent.msg_send_ready);
    }
    std::memset(&sflow_agent, 0, sizeof(sflow_agent));
    pthread_rwlock_init(&sflow_agent.config_lock.rwlock, nullptr);
    pthread_mutex_init(&sflow_agent.msg_lock.mutex, nullptr);
    pthread_cond_init(&sflow_agent.msg_send_ready, nullptr);
    locks_exist = true;

    sflow_list_init(&sflow_agent.intf_config);
    sflow_list_init(&sflow_agent.msg_list);
    sflow_receiver_init();
    sflow_agent.g_config = {
        .samplingrate = SFLOW_DEFAULT_SAMPLING_RATE,
        .maxhlen = SFLOW_DEFAULT_MAX_HEADER,
        .sslen = SFLOW_DEFAULT_MAX_HEADER,
        .interval = SFLOW_DEFAULT_INTERVAL,
    };
    sflow_unkown_flow_seqno = 1;
    sflow_debug_all = sflow_debug_event = sflow_debug_export = sflow_debug_conf = sflow_debug_skt = false;
    sflow_statis = {};
    g_can_backup = false;
    world() = {};
}

void log_everything()
{
    sflow_debug_event = sflow_debug_export = sflow_debug_conf = true;
}

sfladdress_value_t address_value(const char *text)
{
    sfladdress_value_t value;
    std::memset(&value, 0, sizeof(value));
    const int family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    if (inet_pton(family, text, &value) != 1)
        std::abort();
    return value;
}

std::uint32_t ipv4(const char *text)
{
    return address_value(text).ip_v4;
}

static sflow_address_type_t address_type(const char *text)
{
    return std::strchr(text, ':') != nullptr ? SFLOW_ADDRESS_TYPE_IPV6 : SFLOW_ADDRESS_TYPE_IPV4;
}

void set_agent_address(const char *text)
{
    sflow_config_wrlock();
    std::memset(&sflow_agent.agent_ip, 0, sizeof(sflow_agent.agent_ip));
    sflow_agent.agent_ip.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
    sflow_agent.agent_ip.type = address_type(text);
    const sfladdress_value_t value = address_value(text);
    std::memcpy(&sflow_agent.agent_ip.address, &value, sizeof(value));
    sflow_receiver_reset_all_buf();
    sflow_config_wrunlock();
}

sfladdress_t collector_record(const char *text)
{
    sfladdress_t record;
    std::memset(&record, 0, sizeof(record));
    record.type = address_type(text);
    const sfladdress_value_t value = address_value(text);
    std::memcpy(&record.address, &value, sizeof(value));
    return record;
}

void set_collector(std::uint32_t cid, const char *text, std::uint16_t port)
{
    const sfladdress_t record = collector_record(text);
    sflow_config_wrlock();
    sflow_receiver_set_collector(cid, &record, port);
    sflow_config_wrunlock();
}

sflow_intf_config_t *find_interface(IFINDEX ifx)
{
    sflow_config_rdlock();
    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    sflow_config_rdunlock();
    return intf;
}

sflow_intf_config_t *add_interface(IFINDEX ifx, std::uint32_t cid, std::uint32_t fid)
{
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_add_intf_config(ifx);
    intf->cid = cid;
    intf->fid = fid;
    intf->enable = SFLOW_INGRESS;
    intf->ifx_type = SFLOW_IFX_TYPE_PORT;
    sflow_config_wrunlock();
    return intf;
}

sflreceiver_t *receiver(std::uint32_t cid)
{
    return sflow_receiver_get_receiver(cid);
}

} // namespace export_test

// ---- Agent ------------------------------------------------------------------------------------------------

void sflow_config_wrlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held_now != Held::none)
        std::abort();
    pthread_rwlock_wrlock(&sflow_agent.config_lock.rwlock);
    held_now = Held::writing;
}

void sflow_config_wrunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held_now != Held::writing)
        std::abort();
    held_now = Held::none;
    pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
}

void sflow_config_rdlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held_now != Held::none)
        std::abort();
    pthread_rwlock_rdlock(&sflow_agent.config_lock.rwlock);
    held_now = Held::reading;
}

void sflow_config_rdunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held_now != Held::reading)
        std::abort();
    held_now = Held::none;
    pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
}

void sflow_msg_lock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&sflow_agent.msg_lock.mutex);
}

void sflow_msg_unlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_unlock(&sflow_agent.msg_lock.mutex);
}

u_int64_t sflow_uptime_sec()
{
    return world().uptime_sec;
}

sflow_intf_config_t *sflow_add_intf_config(IFINDEX ifx)
{
    auto *intf = static_cast<sflow_intf_config_t *>(std::malloc(sizeof(sflow_intf_config_t)));
    std::memset(intf, 0, sizeof(*intf));
    intf->ifx = ifx;
    intf->flow_seqno = 1;
    intf->counter_seqno = 1;
    intf->countdown = sflow_agent.g_config.interval;
    sflow_list_insert_before(&sflow_agent.intf_config, &intf->list);
    return intf;
}

sflow_intf_config_t *sflow_get_intf_config(IFINDEX ifx)
{
    for (sflow_list_t *link = sflow_agent.intf_config.next; link != &sflow_agent.intf_config;
         link = link->next) {
        auto *intf = sflow_list_entry<sflow_intf_config_t>(link);
        if (intf->ifx == ifx)
            return intf;
    }
    return nullptr;
}

void sflow_del_intf_config(sflow_intf_config_t *intf)
{
    if (held_now == Held::none)
        std::abort();
    if (intf == nullptr || intf->enable != 0 || intf->cid != 0 || intf->fid != 0)
        return;
    sflow_list_remove(&intf->list);
    world().released.push_back(*intf);
    std::free(intf);
}

sflow_intf_config_t *sflow_check_intf(IFINDEX ifx, u_int32_t cid)
{
    if (held_now != Held::writing)
        std::abort();
    if (!sflow_is_enable_receiver(cid))
        return nullptr;
    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    return intf != nullptr ? intf : sflow_add_intf_config(ifx);
}

void sflow_intf_del_receiver(u_int32_t cid)
{
    world().detached.push_back(cid);
    for (sflow_list_t *link = sflow_agent.intf_config.next; link != &sflow_agent.intf_config;
         link = link->next) {
        auto *intf = sflow_list_entry<sflow_intf_config_t>(link);
        if (intf->cid == cid)
            sflow_store(intf->cid, 0U);
        if (intf->fid == cid)
            sflow_store(intf->fid, 0U);
    }
}

// ---- Process ----------------------------------------------------------------------------------------------

char *sflow_make_tmp_path(const char *suffix)
{
    static std::string path;
    if (!world().tmp_dir)
        return nullptr;
    path.assign(*world().tmp_dir).append(suffix);
    return path.size() <= world().path_len_max ? path.data() : nullptr;
}

void sflow_app_write_log(int, const char *file, int, const char *text)
{
    world().debug.push_back(std::string(file) + ": " + text);
}

// ---- The daemon's other modules ---------------------------------------------------------------------------

int sflow_get_counter_msg(IFINDEX ifx, int ifx_type)
{
    world().counter_requests.emplace_back(ifx, ifx_type);
    return world().get_counter_result;
}

int sflow_set_sampling_rate_msg(IFINDEX ifx, int rate, int direct, int ifx_type, int acl_id,
                                const char *acl_name, int snoop)
{
    world().rate_requests.push_back({ifx, rate, direct, ifx_type, acl_id, acl_name, snoop});
    return 0;
}

int sflow_acl_unref(int acl_id, const char *acl_name)
{
    world().acl_releases.push_back({acl_id, acl_name});
    return world().acl_unref_result;
}

int sflow_cli_c2p_reform()
{
    world().c2p_requests.push_back(held_now);
    return world().c2p_result;
}
