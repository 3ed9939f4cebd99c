// ACL service, redundancy, health monitor, CPU placement and syslog client.
#include "fake_state.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace fake
{
namespace
{

struct Acl {
    std::string name;
    int32_t acl_cls = ACL_CLASS_IPV4;
    int refs = 0;
};

struct Rdnd {
    std::string name;
    rdnd_handler_t handler = nullptr;
    void *arg = nullptr;
    unsigned long version = 0;
    rdnd_role role = RDND_ROLE_NONE;
    rdnd_stat state = RDND_STAT_INIT;
    std::vector<Checkpoint> checkpoints;
};

struct Services {
    std::map<int32_t, Acl> acls;
    std::optional<acl_reg_t> acl_registration;
    Rdnd rdnd;
    std::map<pid_t, HamThread> ham_threads;
    std::map<std::string, std::vector<int>> cores;
    std::vector<SyslogLine> syslog;
};

Services &services()
{
    static Services the_services;
    return the_services;
}

std::string acl_name(const acl_id_args_t &args)
{
    return {args.acl_name, strnlen(args.acl_name, sizeof args.acl_name)};
}

std::string acl_text(const acl_id_args_t &args)
{
    return text("vdev=%d id=%d name=%s", args.vdev_id, args.acl_id, acl_name(args).c_str());
}

/// The list that the arguments name, as the service looks it up; the state is locked.
std::pair<const int32_t, Acl> *find_acl(const acl_id_args_t &args)
{
    auto &acls = services().acls;
    const auto it = args.acl_id != 0 ? acls.find(args.acl_id)
                                     : std::find_if(acls.begin(), acls.end(), [&](const auto &entry) {
                                           return entry.second.name == acl_name(args);
                                       });
    return it == acls.end() ? nullptr : &*it;
}

void fill(acl_id_args_t &args, const std::pair<const int32_t, Acl> &acl)
{
    args.acl_id = acl.first;
    args.acl_cls = acl.second.acl_cls;
    std::memset(args.acl_name, 0, sizeof args.acl_name);
    std::memcpy(args.acl_name, acl.second.name.data(),
                std::min(acl.second.name.size(), sizeof args.acl_name));
}

std::optional<acl_reg_t> copy_acl_registration()
{
    const Lock lock = lock_state();
    return services().acl_registration;
}

} // namespace

void reset_services()
{
    const Lock lock = lock_state();
    services() = {};
}

// ---- ACL service

void add_acl(int32_t acl_id, const std::string &name, int32_t acl_cls)
{
    const Lock lock = lock_state();
    services().acls[acl_id] = {.name = name, .acl_cls = acl_cls, .refs = 0};
}

void delete_acl(int32_t acl_id)
{
    acl_id_args_t args{};
    {
        const Lock lock = lock_state();
        const auto it = services().acls.find(acl_id);
        if (it == services().acls.end()) {
            give_up(text("there is no list %d to delete", acl_id));
        }
        fill(args, *it);
        services().acls.erase(it);
    }
    const auto registration = copy_acl_registration();
    if (registration && registration->acl_delete_notify != nullptr) {
        registration->acl_delete_notify(&args);
    }
}

int acl_refs(int32_t acl_id)
{
    const Lock lock = lock_state();
    const auto it = services().acls.find(acl_id);
    return it == services().acls.end() ? 0 : it->second.refs;
}

void set_acl_service(bool up)
{
    if (!up) {
        const Lock lock = lock_state();
        for (auto &[id, acl] : services().acls) {
            acl.refs = 0;
        }
    }
    const auto registration = copy_acl_registration();
    if (registration && registration->acl_svr_status_notify != nullptr) {
        registration->acl_svr_status_notify(up);
    }
}

const acl_reg_t *acl_registration()
{
    const Lock lock = lock_state();
    return services().acl_registration ? &*services().acl_registration : nullptr;
}

// ---- Redundancy

void set_role(rdnd_role role)
{
    const Lock lock = lock_state();
    services().rdnd.role = role;
}

void set_state(rdnd_stat state)
{
    const Lock lock = lock_state();
    services().rdnd.state = state;
}

std::optional<int> deliver_rdnd(RDND_EVENT event, std::span<const std::byte> data)
{
    std::string name;
    rdnd_handler_t handler = nullptr;
    void *arg = nullptr;
    {
        const Lock lock = lock_state();
        name = services().rdnd.name;
        handler = services().rdnd.handler;
        arg = services().rdnd.arg;
    }
    if (handler == nullptr) {
        return std::nullopt;
    }
    std::vector<std::byte> copy(data.begin(), data.end());
    return handler(name.data(), event, static_cast<int>(copy.size()), copy.empty() ? nullptr : copy.data(),
                   arg);
}

std::optional<int> deliver_version_check(unsigned long version)
{
    return deliver_rdnd(RDND_E_VERSION_CHECK, std::as_bytes(std::span(&version, 1)));
}

void *rdnd_registered_arg()
{
    const Lock lock = lock_state();
    return services().rdnd.arg;
}

unsigned long rdnd_registered_version()
{
    const Lock lock = lock_state();
    return services().rdnd.version;
}

std::vector<Checkpoint> checkpoints()
{
    const Lock lock = lock_state();
    return services().rdnd.checkpoints;
}

void forget_checkpoints()
{
    const Lock lock = lock_state();
    services().rdnd.checkpoints.clear();
}

// ---- Health monitor, CPU placement, syslog

std::map<pid_t, HamThread> ham_threads()
{
    const Lock lock = lock_state();
    return services().ham_threads;
}

void set_cores(const std::string &process, std::vector<int> cores)
{
    const Lock lock = lock_state();
    services().cores[process] = std::move(cores);
}

std::vector<SyslogLine> syslog_lines()
{
    const Lock lock = lock_state();
    return services().syslog;
}

std::vector<std::string> syslog_texts()
{
    std::vector<std::string> texts;
    for (const SyslogLine &line : syslog_lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

std::size_t syslog_count(std::string_view wanted)
{
    const std::vector<std::string> texts = syslog_texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), wanted));
}

void forget_syslog()
{
    const Lock lock = lock_state();
    services().syslog.clear();
}

} // namespace fake

using namespace fake;

// ---- acl.h

int acl_agent_init(const char *name, kx_thread_master_t *, const acl_reg_t *registration)
{
    if (const auto result = record("acl_agent_init", "name=" + string_or_null(name))) {
        return static_cast<int>(*result);
    }
    if (name == nullptr || registration == nullptr) {
        return ACL_ERR_INVALID;
    }
    const Lock lock = lock_state();
    services().acl_registration = *registration;
    return ACL_OK;
}

const char *acl_strerror(int code)
{
    switch (code) {
    case ACL_OK:
        return "success";
    case ACL_ERR_INVALID:
        return "invalid argument";
    case ACL_ERR_NOT_FOUND:
        return "no such list";
    case ACL_ERR_NOT_READY:
        return "service not ready";
    case ACL_ERR_NO_MEMORY:
        return "out of memory";
    case ACL_ERR_NOT_HELD:
        return "no reference held";
    default:
        return "unknown error";
    }
}

int acl_info_get(acl_id_args_t *args)
{
    if (const auto result = record("acl_info_get", acl_text(*args))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    const auto *acl = find_acl(*args);
    if (acl == nullptr) {
        return ACL_ERR_NOT_FOUND;
    }
    fill(*args, *acl);
    return ACL_OK;
}

int acl_ref(acl_ref_args_t *args)
{
    if (const auto result = record("acl_ref", acl_text(args->acl))) {
        return static_cast<int>(*result);
    }
    if (args->cache_flag) {
        return ACL_ERR_INVALID;
    }
    const Lock lock = lock_state();
    auto *acl = find_acl(args->acl);
    if (acl == nullptr) {
        return ACL_ERR_NOT_FOUND;
    }
    ++acl->second.refs;
    return ACL_OK;
}

int acl_unref(acl_unref_args_t *args)
{
    if (const auto result = record("acl_unref", acl_text(args->acl))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    auto *acl = find_acl(args->acl);
    if (acl == nullptr) {
        return ACL_ERR_NOT_FOUND;
    }
    if (acl->second.refs == 0) {
        return ACL_ERR_NOT_HELD;
    }
    --acl->second.refs;
    return ACL_OK;
}

// ---- rdnd.h

int rdnd_kx_thread_init(kx_thread_master_t *master, int slot, int flags)
{
    if (const auto result = record("rdnd_kx_thread_init", text("slot=%d flags=%d", slot, flags))) {
        return static_cast<int>(*result);
    }
    return master != nullptr ? 0 : -1;
}

int rdnd_callback_register(const char *name, unsigned long version, rdnd_handler_t handler, int flags,
                           void *arg)
{
    if (const auto result =
            record("rdnd_callback_register",
                   text("name=%s version=%lu flags=%d", string_or_null(name).c_str(), version, flags))) {
        return static_cast<int>(*result);
    }
    if (name == nullptr || handler == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    Rdnd &rdnd = services().rdnd;
    rdnd.name = name;
    rdnd.version = version;
    rdnd.handler = handler;
    rdnd.arg = arg;
    return 0;
}

rdnd_role rdnd_get_role()
{
    if (const auto result = scripted("rdnd_get_role")) {
        return static_cast<rdnd_role>(*result);
    }
    const Lock lock = lock_state();
    return services().rdnd.role;
}

rdnd_stat rdnd_get_state()
{
    if (const auto result = scripted("rdnd_get_state")) {
        return static_cast<rdnd_stat>(*result);
    }
    const Lock lock = lock_state();
    return services().rdnd.state;
}

unsigned long rdnd_get_version(int data_len, const void *data_buf)
{
    if (const auto result = scripted("rdnd_get_version")) {
        return static_cast<unsigned long>(*result);
    }
    unsigned long version = 0;
    if (data_buf != nullptr && data_len == static_cast<int>(sizeof version)) {
        std::memcpy(&version, data_buf, sizeof version);
    }
    return version;
}

int rdnd_chkpnt_enqueue(const char *name, int len, const void *data, int flags)
{
    if (const auto result = record("rdnd_chkpnt_enqueue", text("name=%s len=%d flags=%d",
                                                               string_or_null(name).c_str(), len, flags))) {
        return static_cast<int>(*result);
    }
    if (name == nullptr || data == nullptr || len < 1) {
        return RDND_ENQUEUE_FAILED;
    }
    const auto *bytes = static_cast<const std::byte *>(data);
    const Lock lock = lock_state();
    services().rdnd.checkpoints.push_back({.name = name, .data = {bytes, bytes + len}});
    return RDND_ENQUEUE_OK;
}

int rdnd_notify_completion(const char *name, rdnd_notify what)
{
    if (const auto result = record("rdnd_notify_completion",
                                   text("name=%s what=%d", string_or_null(name).c_str(), int{what}))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    return name != nullptr && services().rdnd.name == name ? 0 : -1;
}

// ---- ham.h

int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports)
{
    if (const auto result = record("ham_client_reg_thread_notify",
                                   text("deadline_s=%d max_reports=%d", deadline_s, max_reports))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    services().ham_threads[tid] = {
        .pid = pid, .deadline_s = deadline_s, .max_reports = max_reports, .renewals = 0};
    return 0;
}

int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports)
{
    if (const auto result = record("ham_client_reset_thread_notify",
                                   text("deadline_s=%d max_reports=%d", deadline_s, max_reports))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    const auto it = services().ham_threads.find(tid);
    if (it == services().ham_threads.end()) {
        return -1;
    }
    it->second = {.pid = pid,
                  .deadline_s = deadline_s,
                  .max_reports = max_reports,
                  .renewals = it->second.renewals + 1};
    return 0;
}

int ham_client_unreg_thread_notify(pid_t tid)
{
    if (const auto result = record("ham_client_unreg_thread_notify")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    return services().ham_threads.erase(tid) == 1 ? 0 : -1;
}

int reg_process_exit_action(int scope, int restart)
{
    const auto result = record("reg_process_exit_action", text("scope=%d restart=%d", scope, restart));
    return result ? static_cast<int>(*result) : 0;
}

// ---- cpu_placement.h

int get_cores_affinity(cores_affinity_req_t *request)
{
    const std::string name(request->process_name,
                           strnlen(request->process_name, sizeof request->process_name));
    if (const auto result = record("get_cores_affinity", "name=" + name)) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    const auto it = services().cores.find(name);
    if (it == services().cores.end()) {
        return -1;
    }
    CPU_ZERO(&request->cpus);
    for (const int core : it->second) {
        CPU_SET(static_cast<std::size_t>(core), &request->cpus);
    }
    return 0;
}

// ---- syslog_client.h

void printk_syslog_ext(int level, const char *module, const char *mnemonic, int dest, const char *format, ...)
{
    note_format(format);
    va_list args;
    va_start(args, format);
    std::string line = vtext(format, args);
    va_end(args);
    const Lock lock = lock_state();
    services().syslog.push_back({.level = level,
                                 .module = string_or_null(module),
                                 .mnemonic = string_or_null(mnemonic),
                                 .dest = dest,
                                 .text = std::move(line)});
}

int syslog_single_thread_client_init(kx_thread_master_t *master)
{
    if (const auto result = record("syslog_single_thread_client_init")) {
        return static_cast<int>(*result);
    }
    return master != nullptr ? 0 : -1;
}

int syslog_set_snd_queue_size(int lines)
{
    if (const auto result = record("syslog_set_snd_queue_size", text("lines=%d", lines))) {
        return static_cast<int>(*result);
    }
    return lines >= 1 ? 0 : -1;
}
