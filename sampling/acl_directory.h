// The published access lists that samplers are limited to, and the watch that follows their changes.
//
// A list is read when the first sampler asks for it, and again whenever its file is replaced; each version goes to the
// backend as a whole. What happens to the samplers of a list that is in force:
// - a new version takes the place of the old one between two packets;
// - its file disappears, or becomes that of another list: they take nothing on its account until it is back;
// - its file becomes corrupt, unreadable or older: the version in force stays, and the log says so.
// In no case do they take what no list permits.
//
// Where the directory cannot be watched (it does not exist yet or any more, the kernel gives no watch), the lists in use
// are read again every second. Thread of the event loop.
#pragma once

#include "backend.h"
#include "event_loop.h"
#include "log.h"
#include "unique_fd.h"

#include "acl_list/acl_file.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace sampling
{

/// Where the table of samplers gets access lists from.
class AclSource
{
public:
    AclSource(const AclSource &) = delete;
    AclSource &operator=(const AclSource &) = delete;
    virtual ~AclSource() = default;

    /// Sees to it that the list is in force in the backend.
    /// @param name  what the list must be called; empty: anything
    [[nodiscard]] virtual Answer use(std::int32_t id, std::string_view name) = 0;
    /// Forgets the lists that are not among these.
    virtual void keep_only(const std::set<std::int32_t> &ids) = 0;

protected:
    AclSource() = default;
};

class AclDirectory final : public AclSource
{
public:
    /// How often a directory that cannot be watched is looked at.
    static constexpr Clock::duration retry_interval = std::chrono::seconds(1);

    /// @param directory  of the files that acl_file.h describes; need not exist
    AclDirectory(EventLoop &loop, Log &log, std::string directory, Backend &backend);
    ~AclDirectory() override;

    [[nodiscard]] Answer use(std::int32_t id, std::string_view name) override;
    void keep_only(const std::set<std::int32_t> &ids) override;

    [[nodiscard]] const std::string &path() const { return directory_; }
    /// Writes a line a list in use to the log.
    void log_lists() const;

private:
    struct InUse {
        acl::List list; ///< the version in force, or the last one that was
        bool withheld = false;
    };

    [[nodiscard]] Answer refusal(std::int32_t id, const acl::ReadError &error);
    [[nodiscard]] Answer put_in_force(acl::List list);
    void read_again(std::int32_t id);
    void read_all_again();
    void withhold(InUse &entry, const std::string &reason);
    void try_to_watch();
    void on_events();
    void arm_retry();

    EventLoop &loop_;
    Log &log_;
    std::string directory_;
    Backend &backend_;
    UniqueFd inotify_;
    int watch_ = -1; ///< of the directory; -1: not watched
    bool complained_ = false;
    EventLoop::TimerId retry_ = 0;
    std::map<std::int32_t, InUse> lists_;
};

} // namespace sampling
