// The ACL service of a process: the directory of access lists, its clients, their references and notices.
//
// A list is known by its id and its name; its entries are not kept here. Notices are calls of a client's functions
// on its thread master, in the order of what they tell, without a lock held.
#pragma once

#include "lock/mutex.h"

#include "platform/acl.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string>

namespace platform
{

class AclService
{
public:
    /// A client as in acl_agent_init(); the status notice follows on its master.
    [[nodiscard]] int attach(const std::string &name, kx_thread_master_t *master,
                             const acl_reg_t &registration);

    /// Operations of the clients, results as in platform/acl.h.
    [[nodiscard]] int look_up(acl_id_args_t &list);
    [[nodiscard]] int take_reference(const acl_id_args_t &list);
    [[nodiscard]] int release_reference(const acl_id_args_t &list);

    /// Enters a list, for whoever edits lists; clients get acl_create_notify. ACL_ERR_INVALID when the id (1 or
    /// more) or the name is unusable or taken.
    [[nodiscard]] int create(int id, const std::string &name, acl_class_t cls);

    /// Removes a list together with the references on it; clients get acl_delete_notify.
    [[nodiscard]] int remove(int id);

    /// References on a list; 0 for one that does not exist.
    [[nodiscard]] int references(int id);

private:
    struct List {
        std::string name;
        acl_class_t cls;
        int references = 0;
    };
    using Notice = std::function<void(const acl_reg_t &registration)>;
    struct Client {
        kx_thread_master_t *master = nullptr;
        acl_reg_t registration{};
        std::deque<Notice> notices; ///< one task on the master each
    };
    using Lists = std::map<int, List>;

    static int on_master(kx_thread_t *thread);
    void deliver_next(const kx_thread_master_t *master);
    bool post(Client &client, Notice notice) PLATFORM_REQUIRES(mutex_);
    void post_to_all(const Notice &notice) PLATFORM_REQUIRES(mutex_);
    Lists::iterator find(const acl_id_args_t &list) PLATFORM_REQUIRES(mutex_);

    Mutex mutex_;
    std::map<std::string, Client> clients_ PLATFORM_GUARDED_BY(mutex_);
    Lists lists_ PLATFORM_GUARDED_BY(mutex_);
};

/// The process's service, which the functions of platform/acl.h use.
[[nodiscard]] AclService &acl_service();

} // namespace platform
