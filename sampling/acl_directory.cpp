#include "acl_directory.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace sampling
{

namespace
{

// A new version arrives by a rename. A file that somebody writes in place is looked at, too: it may be corrupt now.
constexpr std::uint32_t changes = IN_MOVED_TO | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t end_of_directory = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

Answer answer_of(acl::Fault fault)
{
    switch (fault) {
    case acl::Fault::missing:
        return Answer::acl_missing;
    case acl::Fault::unreadable:
        return Answer::acl_unreadable;
    case acl::Fault::corrupt:
        return Answer::acl_corrupt;
    case acl::Fault::stale:
        return Answer::acl_stale;
    }
    return Answer::acl_corrupt;
}

std::string version_text(const acl::List &list)
{
    return "version " + std::to_string(list.version) + " with " + std::to_string(list.entries.size()) +
           " entries";
}

/// Whether the file name is that of the list; without its directory.
bool is_file_of(std::string_view name, std::int32_t id)
{
    return acl::file_of("", id).substr(1) == name;
}

} // namespace

AclDirectory::AclDirectory(EventLoop &loop, Log &log, std::string directory, Backend &backend)
    : loop_(loop), log_(log), directory_(std::move(directory)), backend_(backend),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    if (inotify_)
        loop_.add(inotify_.get(), EPOLLIN, [this](std::uint32_t) { on_events(); });
    else
        log_.warning("access lists in ", directory_, ": watch: ", error_text(errno),
                     ", those in use are read again every second");
}

AclDirectory::~AclDirectory()
{
    loop_.cancel(retry_);
    if (inotify_)
        loop_.remove(inotify_.get());
}

Answer AclDirectory::refusal(std::int32_t id, const acl::ReadError &error)
{
    log_.error("access list ", id, ": ", error.reason, ", nothing is sampled by it");
    return answer_of(error.fault);
}

Answer AclDirectory::use(std::int32_t id, std::string_view name)
{
    try_to_watch(); // first, so that no version slips in between
    const auto present = lists_.find(id);
    if (present != lists_.end() && !present->second.withheld &&
        (name.empty() || name == present->second.list.name))
        return Answer::ok;
    acl::ReadResult read = acl::read_list(directory_, id, name);
    if (const auto *const error = std::get_if<acl::ReadError>(&read))
        return refusal(id, *error);
    return put_in_force(std::get<acl::List>(std::move(read)));
}

Answer AclDirectory::put_in_force(acl::List list)
{
    const auto present = lists_.find(list.id);
    if (present != lists_.end() && acl::is_older(list, present->second.list)) {
        log_.error("access list ", list.name, ": ", acl::file_of(directory_, list.id), ": ",
                   version_text(list), " is older than version ", present->second.list.version,
                   " that was in force, not used");
        return Answer::acl_stale;
    }
    if (!backend_.install_acl(list))
        return Answer::acl_refused;
    log_.info("access list ", list.name, ": ", version_text(list), " in force");
    const std::int32_t id = list.id;
    lists_.insert_or_assign(id, InUse{.list = std::move(list), .withheld = false});
    arm_retry();
    return Answer::ok;
}

void AclDirectory::keep_only(const std::set<std::int32_t> &ids)
{
    std::erase_if(lists_, [this, &ids](const auto &entry) {
        if (ids.contains(entry.first))
            return false;
        backend_.drop_acl(entry.first);
        log_.debug("access list ", entry.second.list.name, ": not in use any more");
        return true;
    });
}

void AclDirectory::withhold(InUse &entry, const std::string &reason)
{
    if (std::exchange(entry.withheld, true))
        return;
    backend_.withhold_acl(entry.list.id);
    log_.warning("access list ", entry.list.name, ": ", reason,
                 ", nothing is sampled by it until it is back");
}

void AclDirectory::read_again(std::int32_t id)
{
    InUse &entry = lists_.at(id);
    acl::ReadResult read = acl::read_list(directory_, id, entry.list.name);
    if (const auto *const error = std::get_if<acl::ReadError>(&read)) {
        if (error->fault == acl::Fault::missing || error->fault == acl::Fault::stale)
            withhold(entry, error->reason);
        else if (!entry.withheld)
            log_.error("access list ", entry.list.name, ": ", error->reason, ", version ", entry.list.version,
                       " stays in force");
        return;
    }
    acl::List &list = std::get<acl::List>(read);
    if (entry.withheld || list.version != entry.list.version || list.instance != entry.list.instance)
        static_cast<void>(
            put_in_force(std::move(list))); // what failed is in the log; the version before stays
}

void AclDirectory::read_all_again()
{
    for (const auto &entry : lists_)
        read_again(entry.first);
}

void AclDirectory::try_to_watch()
{
    if (!inotify_ || watch_ != -1)
        return;
    watch_ = ::inotify_add_watch(inotify_.get(), directory_.c_str(),
                                 changes | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    if (watch_ == -1 && errno != ENOENT && !std::exchange(complained_, true))
        log_.warning("access lists in ", directory_, ": watch: ", error_text(errno),
                     ", those in use are read again every second");
}

void AclDirectory::arm_retry()
{
    if (watch_ != -1 || lists_.empty() || retry_ != 0)
        return;
    retry_ = loop_.call_after(retry_interval, [this] {
        retry_ = 0;
        try_to_watch();
        read_all_again();
        arm_retry();
    });
}

void AclDirectory::on_events()
{
    alignas(inotify_event) std::array<char, 16 * (sizeof(inotify_event) + NAME_MAX + 1)> buffer;
    std::set<std::int32_t> changed;
    bool everything = false;
    for (ssize_t got = 0; (got = ::read(inotify_.get(), buffer.data(), buffer.size())) > 0;) {
        inotify_event event;
        for (const char *at = buffer.data(); at < buffer.data() + got; at += sizeof(event) + event.len) {
            std::memcpy(&event, at, sizeof(event));
            if ((event.mask & IN_Q_OVERFLOW) != 0)
                everything = true;
            if (event.wd != watch_)
                continue; // of a watch that has ended
            if ((event.mask & end_of_directory) != 0) {
                ::inotify_rm_watch(inotify_.get(), watch_); // also when the directory was moved away
                watch_ = -1;
                everything = true;
                continue;
            }
            const std::string_view name(at + sizeof(event), ::strnlen(at + sizeof(event), event.len));
            for (const auto &entry : lists_) {
                if (is_file_of(name, entry.first))
                    changed.insert(entry.first);
            }
        }
    }
    if (everything) {
        try_to_watch();
        read_all_again();
        arm_retry();
        return;
    }
    for (const std::int32_t id : changed)
        read_again(id);
}

void AclDirectory::log_lists() const
{
    for (const auto &entry : lists_)
        log_.info("access list ", entry.second.list.name, ": id ", entry.first, ", ",
                  version_text(entry.second.list), entry.second.withheld ? ", withheld" : ", in force");
}

} // namespace sampling
