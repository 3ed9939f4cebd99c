#include "acl_service/acl_service.h"

#include "lock/immortal.h"

#include <algorithm>
#include <cstring>

namespace platform
{

namespace
{

std::string name_of(const acl_id_args_t &list)
{
    return {list.acl_name, strnlen(list.acl_name, ACL_NAME_LEN)};
}

acl_id_args_t record_of(int id, const std::string &name, acl_class_t cls)
{
    acl_id_args_t record{};
    record.acl_id = id;
    name.copy(record.acl_name, ACL_NAME_LEN - 1);
    record.acl_cls = cls;
    return record;
}

} // namespace

int AclService::attach(const std::string &name, kx_thread_master_t *master, const acl_reg_t &registration)
{
    const MutexLock lock(mutex_);
    Client client{.master = master, .registration = registration, .notices = {}};
    const bool posted = post(client, [](const acl_reg_t &reg) {
        if (reg.acl_svr_status_notify != nullptr)
            reg.acl_svr_status_notify(true);
    });
    if (!posted)
        return ACL_ERR_INVALID;
    clients_.insert_or_assign(name, std::move(client));
    return ACL_OK;
}

int AclService::look_up(acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    if (clients_.empty())
        return ACL_ERR_NOT_READY;
    const auto found = find(list);
    if (found == lists_.end())
        return ACL_ERR_NOT_FOUND;
    list = record_of(found->first, found->second.name, found->second.cls);
    return ACL_OK;
}

int AclService::take_reference(const acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    if (clients_.empty())
        return ACL_ERR_NOT_READY;
    const auto found = find(list);
    if (found == lists_.end())
        return ACL_ERR_NOT_FOUND;
    ++found->second.references;
    return ACL_OK;
}

int AclService::release_reference(const acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    if (clients_.empty())
        return ACL_ERR_NOT_READY;
    const auto found = find(list);
    if (found == lists_.end())
        return ACL_ERR_NOT_FOUND;
    if (found->second.references == 0)
        return ACL_ERR_NOT_HELD;
    --found->second.references;
    return ACL_OK;
}

int AclService::create(int id, const std::string &name, acl_class_t cls)
{
    const MutexLock lock(mutex_);
    if (id < 1 || name.empty() || name.size() >= ACL_NAME_LEN || lists_.contains(id))
        return ACL_ERR_INVALID;
    const acl_id_args_t record = record_of(id, name, cls);
    acl_id_args_t by_name = record;
    by_name.acl_id = 0;
    if (find(by_name) != lists_.end())
        return ACL_ERR_INVALID;
    lists_.emplace(id, List{.name = name, .cls = cls});
    post_to_all([record](const acl_reg_t &registration) {
        acl_id_args_t args = record;
        if (registration.acl_create_notify != nullptr)
            registration.acl_create_notify(&args);
    });
    return ACL_OK;
}

int AclService::remove(int id)
{
    const MutexLock lock(mutex_);
    const auto found = lists_.find(id);
    if (found == lists_.end())
        return ACL_ERR_NOT_FOUND;
    const acl_id_args_t record = record_of(id, found->second.name, found->second.cls);
    lists_.erase(found);
    post_to_all([record](const acl_reg_t &registration) {
        acl_id_args_t args = record;
        if (registration.acl_delete_notify != nullptr)
            registration.acl_delete_notify(&args);
    });
    return ACL_OK;
}

int AclService::references(int id)
{
    const MutexLock lock(mutex_);
    const auto found = lists_.find(id);
    return found == lists_.end() ? 0 : found->second.references;
}

AclService::Lists::iterator AclService::find(const acl_id_args_t &list)
{
    if (list.acl_id != 0)
        return lists_.find(list.acl_id);
    const std::string name = name_of(list);
    return std::find_if(lists_.begin(), lists_.end(),
                        [&](const auto &entry) { return entry.second.name == name; });
}

bool AclService::post(Client &client, Notice notice)
{
    if (kx_thread_add_event(client.master, on_master, this) == nullptr)
        return false;
    client.notices.push_back(std::move(notice));
    return true;
}

void AclService::post_to_all(const Notice &notice)
{
    // A client whose master has ended misses the notice; it has nothing left to run it on.
    for (auto &[name, client] : clients_)
        post(client, notice);
}

int AclService::on_master(kx_thread_t *thread)
{
    static_cast<AclService *>(kx_thread_arg(thread))->deliver_next(thread->master);
    return 0;
}

void AclService::deliver_next(const kx_thread_master_t *master)
{
    Notice notice;
    acl_reg_t registration{};
    {
        const MutexLock lock(mutex_);
        const auto found = std::find_if(clients_.begin(), clients_.end(), [&](const auto &entry) {
            return entry.second.master == master && !entry.second.notices.empty();
        });
        if (found == clients_.end())
            return; // the client has registered anew
        notice = std::move(found->second.notices.front());
        found->second.notices.pop_front();
        registration = found->second.registration;
    }
    notice(registration);
}

AclService &acl_service()
{
    static const Immortal<AclService> service;
    return *service;
}

} // namespace platform
