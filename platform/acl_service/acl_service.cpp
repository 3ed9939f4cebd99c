#include "acl_service/acl_service.h"

#include "acl_list/acl_file.h"
#include "lock/immortal.h"
#include "platform/syslog_client.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <random>

namespace platform
{

namespace
{

constexpr int log_warning = 4;
/// Ids of named lists: most_number + 1 … most_id.
constexpr std::uint32_t most_id = 999999;

std::string name_of(const acl_id_args_t &list)
{
    return {list.acl_name, strnlen(list.acl_name, ACL_NAME_LEN)};
}

acl_id_args_t record_of(const AccessList &list)
{
    acl_id_args_t record{};
    record.acl_id = list.id();
    list.name().copy(record.acl_name, ACL_NAME_LEN - 1);
    record.acl_cls = static_cast<int32_t>(info_of(list.kind()).family);
    return record;
}

/// The number that a name stands for; 0 for a name that is none.
int number_of(std::string_view name)
{
    int number = 0;
    const char *const end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data(), end, number);
    const bool plain = error == std::errc{} && stop == end && !name.starts_with('0');
    return plain && number >= 1 && number <= AclService::most_number ? number : 0;
}

/// 32-bit FNV-1a.
std::uint32_t hash_of(std::string_view text)
{
    std::uint32_t hash = 2166136261U;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return hash;
}

std::string missing(int id)
{
    return "Access list with id " + std::to_string(id) + " does not exist any more";
}

} // namespace

bool is_list_name(std::string_view name)
{
    if (number_of(name) != 0)
        return true;
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto is_printable = [](char c) { return c > ' ' && c <= '~' && c != '?'; };
    return !name.empty() && name.size() <= acl::MAX_NAME && is_letter(name.front()) &&
           std::all_of(name.begin(), name.end(), is_printable);
}

// ---- Clients -------------------------------------------------------------------------------------------------------

int AclService::attach(const std::string &name, kx_thread_master_t *master, const acl_reg_t &registration)
{
    const MutexLock editing(edit_mutex_);
    begin_run();
    const MutexLock lock(mutex_);
    const auto tell_up = [](const acl_reg_t &reg) {
        if (reg.acl_svr_status_notify != nullptr)
            reg.acl_svr_status_notify(true);
    };
    Client client{.master = master, .registration = registration, .notices = {}};
    if (!post(client, tell_up))
        return ACL_ERR_INVALID;
    const bool again = !clients_.insert_or_assign(name, std::move(client)).second;
    if (!again)
        return ACL_OK;
    for (auto &[id, entry] : lists_)
        entry.references = 0;
    for (auto &[other, present] : clients_)
        if (other != name)
            post(present, tell_up);
    return ACL_OK;
}

int AclService::find_for_client(const acl_id_args_t &list, Snapshot *&found)
{
    if (clients_.empty())
        return ACL_ERR_NOT_READY;
    found = find_record(list);
    return found != nullptr ? ACL_OK : ACL_ERR_NOT_FOUND;
}

int AclService::look_up(acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    Snapshot *found = nullptr;
    const int result = find_for_client(list, found);
    if (found != nullptr)
        list = record_of(found->list);
    return result;
}

int AclService::take_reference(const acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    Snapshot *found = nullptr;
    const int result = find_for_client(list, found);
    if (found != nullptr)
        ++found->references;
    return result;
}

int AclService::release_reference(const acl_id_args_t &list)
{
    const MutexLock lock(mutex_);
    Snapshot *found = nullptr;
    if (const int result = find_for_client(list, found); found == nullptr)
        return result;
    if (found->references == 0)
        return ACL_ERR_NOT_HELD;
    --found->references;
    return ACL_OK;
}

// ---- Edits ---------------------------------------------------------------------------------------------------------

/// The lists of the run before are nobody's any more.
void AclService::begin_run()
{
    if (instance_ != 0)
        return;
    std::random_device random;
    while (instance_ == 0)
        instance_ = (std::uint64_t{random()} << 32) | random();
    const std::string error = directory_.empty() ? std::string() : acl::withdraw_all(directory_);
    if (!error.empty())
        printk_syslog_ext(log_warning, "ACL", "PUBLISH", SYSLOG_DEST_OPERATOR,
                          "%s: an access list of the run before stays", error.c_str());
}

std::string AclService::publish(const AccessList &list)
{
    if (directory_.empty())
        return "Access lists cannot be published: TMPDIR is not set";
    begin_run();
    std::string error = acl::publish_list(directory_, {.family = info_of(list.kind()).family,
                                                       .id = list.id(),
                                                       .name = list.name(),
                                                       .instance = instance_,
                                                       .version = version_ + 1,
                                                       .entries = list.entries()});
    if (error.empty())
        ++version_;
    return error;
}

void AclService::replace(const AccessList &list)
{
    const MutexLock lock(mutex_);
    lists_.at(list.id()).list = list;
}

std::string AclService::enter(ListKind kind, const std::string &name, int &id)
{
    const MutexLock editing(edit_mutex_);
    if (!is_list_name(name))
        return "An access list is called by a number from 1 to " + std::to_string(most_number) +
               ", or by a letter and further characters, " + std::to_string(acl::MAX_NAME) + " in all";
    if (const auto present = find(name)) {
        id = present->list.id();
        const bool fits = present->list.kind() == kind;
        return fits ? std::string()
                    : "Access list " + name + " is " + std::string(info_of(present->list.kind()).noun);
    }
    {
        const MutexLock lock(mutex_);
        id = free_id(name);
    }
    const AccessList list(kind, id, name);
    std::string error = publish(list);
    if (!error.empty())
        return error;
    const MutexLock lock(mutex_);
    lists_.emplace(id, Snapshot{.list = list, .references = 0});
    notify(&acl_reg_t::acl_create_notify, record_of(list));
    return {};
}

std::string AclService::edit(int id, const std::function<std::string(AccessList &)> &change)
{
    const MutexLock editing(edit_mutex_);
    const auto present = find(id);
    if (!present)
        return missing(id);
    const AccessList &before = present->list;
    AccessList after = before;
    std::string error = change(after);
    if (error.empty() && after.entries() != before.entries())
        error = publish(after);
    if (!error.empty())
        return error;
    replace(after);
    const MutexLock lock(mutex_);
    notify_difference(before, after);
    return {};
}

std::string AclService::resequence(int id, std::uint32_t first, std::uint32_t distance)
{
    const MutexLock editing(edit_mutex_);
    const auto present = find(id);
    if (!present)
        return missing(id);
    AccessList list = present->list;
    std::string error = list.resequence(first, distance);
    if (error.empty())
        error = publish(list);
    if (!error.empty())
        return error;
    replace(list);
    const MutexLock lock(mutex_);
    notify(&acl_reg_t::acl_reseq_notify, record_of(list));
    return {};
}

std::string AclService::remove(int id)
{
    const MutexLock editing(edit_mutex_);
    const auto present = find(id);
    if (!present)
        return missing(id);
    // First the file: sampling by a list that is gone must not start again.
    std::string error = acl::withdraw_list(directory_, id);
    if (!error.empty())
        return error;
    const MutexLock lock(mutex_);
    lists_.erase(id);
    notify(&acl_reg_t::acl_delete_notify, record_of(present->list));
    return {};
}

// ---- The directory -------------------------------------------------------------------------------------------------

std::optional<AclService::Snapshot> AclService::find(int id)
{
    const MutexLock lock(mutex_);
    const auto found = lists_.find(id);
    return found == lists_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<AclService::Snapshot> AclService::find(std::string_view name)
{
    const MutexLock lock(mutex_);
    const Snapshot *const found = find_name(name);
    return found == nullptr ? std::nullopt : std::optional(*found);
}

std::vector<AclService::Snapshot> AclService::all()
{
    std::vector<Snapshot> lists;
    {
        const MutexLock lock(mutex_);
        for (const auto &[id, entry] : lists_)
            lists.push_back(entry);
    }
    const auto named =
        std::find_if(lists.begin(), lists.end(), [](const auto &l) { return l.list.id() > most_number; });
    std::sort(named, lists.end(), [](const auto &a, const auto &b) { return a.list.name() < b.list.name(); });
    return lists;
}

std::vector<std::string> AclService::client_names()
{
    const MutexLock lock(mutex_);
    std::vector<std::string> names;
    for (const auto &[name, client] : clients_)
        names.push_back(name);
    return names;
}

AclService::Snapshot *AclService::find_record(const acl_id_args_t &list)
{
    if (list.acl_id == 0)
        return find_name(name_of(list));
    const auto found = lists_.find(list.acl_id);
    return found == lists_.end() ? nullptr : &found->second;
}

AclService::Snapshot *AclService::find_name(std::string_view name)
{
    const auto found = std::find_if(lists_.begin(), lists_.end(),
                                    [&](const auto &entry) { return entry.second.list.name() == name; });
    return found == lists_.end() ? nullptr : &found->second;
}

/// From the name itself, so that a list has the same id after a restart, whatever lists there are besides; the next one
/// in the rare case that another name has it.
int AclService::free_id(const std::string &name)
{
    if (const int number = number_of(name); number != 0)
        return number;
    constexpr std::uint32_t ids = most_id - most_number;
    std::uint32_t offset = hash_of(name) % ids;
    const auto id = [&] { return most_number + 1 + static_cast<int>(offset); };
    while (lists_.contains(id()))
        offset = (offset + 1) % ids;
    return id();
}

// ---- Notices -------------------------------------------------------------------------------------------------------

template <typename Args>
void AclService::notify(void (*acl_reg_t::*function)(Args *), const Args &args)
{
    // A client whose master has ended misses the notice; it has nothing left to run it on.
    for (auto &[name, client] : clients_) {
        if (client.registration.*function == nullptr)
            continue;
        post(client, [function, args](const acl_reg_t &registration) {
            Args copy = args;
            if (registration.*function != nullptr)
                (registration.*function)(&copy);
        });
    }
}

void AclService::notify_difference(const AccessList &before, const AccessList &after)
{
    const acl_id_args_t record = record_of(after);
    const auto each = [&](const AccessList &list, const AccessList &other,
                          void (*acl_reg_t::*function)(ace_args_t *)) PLATFORM_REQUIRES(mutex_) {
        for (const auto &[number, line] : list.lines()) {
            const auto same = other.lines().find(number);
            const bool stays = same != other.lines().end() && same->second == line;
            if (!stays && std::holds_alternative<acl::Entry>(line))
                notify(function, ace_args_t{.acl = record, .sequence = number});
        }
    };
    each(before, after, &acl_reg_t::ace_delete_notify);
    each(after, before, &acl_reg_t::ace_add_notify);
}

bool AclService::post(Client &client, Notice notice)
{
    if (kx_thread_add_event(client.master, on_master, this) == nullptr)
        return false;
    client.notices.push_back(std::move(notice));
    return true;
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
    static const Immortal<AclService> service([] {
        const char *const tmpdir = std::getenv("TMPDIR");
        return tmpdir == nullptr || *tmpdir == '\0' ? std::string() : acl::directory_below(tmpdir);
    }());
    return *service;
}

} // namespace platform
