// The ACL service of a process: the access lists, its clients, their references and notices.
//
// Operators edit lists on the command line (acl_commands.cpp), one edit at a time; each is published for the sampling
// service (acl_list/acl_file.h) before it becomes the list that look-ups see, and is refused when that fails. Clients
// look lists up and count references from any thread, and never wait for a file. Notices are calls of a client's
// functions on its thread master, in the order of what they tell, without a lock held.
//
// Errors of edits are texts for the operator, as in access_list.h.
#pragma once

#include "acl_service/access_list.h"
#include "lock/mutex.h"

#include "platform/acl.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform
{

class AclService
{
public:
    /// Numbers of numbered lists, which are their ids; named lists have ids above.
    static constexpr int most_number = 2899;

    /// @param directory  where lists are published; "" publishes nowhere, and edits are refused
    explicit AclService(std::string directory) : directory_(std::move(directory)) {}

    /// A client as in acl_agent_init(); the status notice follows on its master. A name that is known already means
    /// that the service has been started again: every reference has ended, and every client is told that the service
    /// is up.
    [[nodiscard]] int attach(const std::string &name, kx_thread_master_t *master,
                             const acl_reg_t &registration) PLATFORM_EXCLUDES(edit_mutex_, mutex_);

    /// Operations of the clients, results as in platform/acl.h. Any thread.
    [[nodiscard]] int look_up(acl_id_args_t &list) PLATFORM_EXCLUDES(mutex_);
    [[nodiscard]] int take_reference(const acl_id_args_t &list) PLATFORM_EXCLUDES(mutex_);
    [[nodiscard]] int release_reference(const acl_id_args_t &list) PLATFORM_EXCLUDES(mutex_);

    /// The list of that name, made when there is none. A number is the name of a numbered list.
    /// @param id  receives the list's id
    [[nodiscard]] std::string enter(ListKind kind, const std::string &name, int &id)
        PLATFORM_EXCLUDES(edit_mutex_, mutex_);
    /// Changes a copy of the list and, when `change` returns no error, puts it in the list's place.
    [[nodiscard]] std::string edit(int id, const std::function<std::string(AccessList &)> &change)
        PLATFORM_EXCLUDES(edit_mutex_, mutex_);
    /// The same for a change that leaves entries and their order: clients get acl_reseq_notify instead of a notice for
    /// every entry.
    [[nodiscard]] std::string resequence(int id, std::uint32_t first, std::uint32_t distance)
        PLATFORM_EXCLUDES(edit_mutex_, mutex_);
    /// Deletes the list with the references on it.
    [[nodiscard]] std::string remove(int id) PLATFORM_EXCLUDES(edit_mutex_, mutex_);

    /// As they are now.
    struct Snapshot {
        AccessList list;
        int references;
    };
    [[nodiscard]] std::optional<Snapshot> find(int id) PLATFORM_EXCLUDES(mutex_);
    [[nodiscard]] std::optional<Snapshot> find(std::string_view name) PLATFORM_EXCLUDES(mutex_);
    /// Numbered lists by number, then named ones by name.
    [[nodiscard]] std::vector<Snapshot> all() PLATFORM_EXCLUDES(mutex_);
    [[nodiscard]] std::vector<std::string> client_names() PLATFORM_EXCLUDES(mutex_);

private:
    using Notice = std::function<void(const acl_reg_t &registration)>;
    struct Client {
        kx_thread_master_t *master = nullptr;
        acl_reg_t registration{};
        std::deque<Notice> notices; ///< one task on the master each
    };
    using Lists = std::map<int, Snapshot>;

    static int on_master(kx_thread_t *thread);
    void deliver_next(const kx_thread_master_t *master) PLATFORM_EXCLUDES(mutex_);
    bool post(Client &client, Notice notice) PLATFORM_REQUIRES(mutex_);
    template <typename Args>
    void notify(void (*acl_reg_t::*function)(Args *), const Args &args) PLATFORM_REQUIRES(mutex_);
    void notify_difference(const AccessList &before, const AccessList &after) PLATFORM_REQUIRES(mutex_);

    [[nodiscard]] Snapshot *find_record(const acl_id_args_t &list) PLATFORM_REQUIRES(mutex_);
    /// What a client is told when it names this list; `found` is set when there is one to be had, else unchanged.
    [[nodiscard]] int find_for_client(const acl_id_args_t &list, Snapshot *&found) PLATFORM_REQUIRES(mutex_);
    [[nodiscard]] Snapshot *find_name(std::string_view name) PLATFORM_REQUIRES(mutex_);
    [[nodiscard]] int free_id(const std::string &name) PLATFORM_REQUIRES(mutex_);

    void begin_run() PLATFORM_REQUIRES(edit_mutex_);
    [[nodiscard]] std::string publish(const AccessList &list) PLATFORM_REQUIRES(edit_mutex_);
    void replace(const AccessList &list) PLATFORM_REQUIRES(edit_mutex_) PLATFORM_EXCLUDES(mutex_);

    const std::string directory_;

    /// Held for a whole edit, its file included; taken before mutex_.
    Mutex edit_mutex_;
    std::uint64_t
        instance_ PLATFORM_GUARDED_BY(edit_mutex_) = 0; ///< acl::List::instance; 0: nothing published yet
    std::uint64_t version_ PLATFORM_GUARDED_BY(edit_mutex_) = 0;

    Mutex mutex_;
    std::map<std::string, Client> clients_ PLATFORM_GUARDED_BY(mutex_);
    Lists lists_ PLATFORM_GUARDED_BY(mutex_); ///< by id
};

/// Whether a list may have the name: a number from 1 to most_number, or a letter followed by printable characters, at
/// most acl::MAX_NAME in all.
[[nodiscard]] bool is_list_name(std::string_view name);

/// The process's service, which the functions of platform/acl.h use. It publishes below $TMPDIR.
[[nodiscard]] AclService &acl_service();

} // namespace platform
