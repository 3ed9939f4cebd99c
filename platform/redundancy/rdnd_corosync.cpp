// The edition for a pair of units that are nodes of a corosync cluster.
//
// One thread, "rdnd_group", owns the connection to corosync and feeds Pair with what it says; clients' calls go to the
// same Pair from their own threads. Pair is behind one lock, which is never held while corosync is called: a client
// that holds the daemon's own locks must not wait for a cluster.
//
// The thread asks corosync something at every turn and renews a lease with the answer; role() takes a master whose
// lease has ended for none. So a unit that stands still, or whose corosync does, is not the master any more at the
// moment at which it runs again, before any of its threads has looked at the group.

#include "config/platform_config.h"
#include "lock/mutex.h"
#include "redundancy/corosync_group.h"
#include "redundancy/lease.h"
#include "redundancy/pair.h"
#include "redundancy/rdnd_edition.h"

#include "platform/syslog_client.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace platform
{

namespace
{

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

/// How often the thread turns without anything to do.
constexpr milliseconds turn{100};
constexpr milliseconds first_retry{250};
constexpr milliseconds last_retry{5000};
/// Frames that are sent before the thread looks around again.
constexpr int frames_a_turn = 256;

std::string host_name()
{
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0)
        return "";
    std::string text(name.data());
    text = text.substr(0, std::min(text.find('.'), UNIT_NAME_MAX));
    std::erase_if(text, [](unsigned char c) { return std::isgraph(c) == 0; });
    return text;
}

PairSettings settings_of(const Config &config)
{
    std::random_device random;
    return {.peer_timeout = config.redundancy_peer_timeout,
            .host = host_name(),
            .instance = std::uint64_t{random()} << 32 | random()};
}

class CorosyncEdition final : public RdndEdition, private PairHost, private CorosyncGroup::Listener
{
public:
    CorosyncEdition(RdndHost &host, const Config &config)
        : host_(host), group_name_(config.redundancy_group),
          pair_(settings_of(config), *this, [] { return SteadyClock::now(); }),
          lease_(pair_.lease(), [] { return SteadyClock::now(); }),
          wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
    }
    ~CorosyncEdition() override
    {
        ending_.store(true);
        wake();
        if (thread_.joinable())
            thread_.join();
        if (wake_ != -1)
            ::close(wake_);
    }
    CorosyncEdition(const CorosyncEdition &) = delete;
    CorosyncEdition &operator=(const CorosyncEdition &) = delete;

    [[nodiscard]] bool usable() const { return wake_ != -1; }

    // ---- RdndEdition

    [[nodiscard]] rdnd_role role() const override
    {
        const rdnd_role role = role_.load();
        return role == RDND_ROLE_MASTER && !lease_.holds() ? RDND_ROLE_CANDIDATE : role;
    }
    [[nodiscard]] rdnd_stat state() const override { return state_.load(); }

    bool client_registered(const std::string &name, unsigned long version) override
    {
        const MutexLock lock(mutex_);
        if (!pair_.add_client(name, version))
            return false;
        if (!thread_.joinable())
            thread_ = std::thread([this] { run(); });
        wake();
        return true;
    }

    int enqueue(const std::string &name, std::span<const std::byte> message) override
    {
        const MutexLock lock(mutex_);
        const int result = pair_.enqueue(name, message);
        if (result == RDND_ENQUEUE_OK)
            wake();
        return result;
    }

    int completed(const std::string &name, rdnd_notify what) override
    {
        const MutexLock lock(mutex_);
        pair_.completed(name, what);
        publish();
        wake();
        return 0;
    }

    void handled(const std::string &name, RDND_EVENT event, int answer) override
    {
        const MutexLock lock(mutex_);
        pair_.handled(name, event, answer);
        publish();
        if (event == RDND_E_VERSION_CHECK)
            wake();
    }

    std::string force_switchover() override
    {
        const MutexLock lock(mutex_);
        std::string error = pair_.force_switchover();
        publish();
        wake();
        return error;
    }

    [[nodiscard]] std::vector<RdndReportLine> report() const override
    {
        const MutexLock lock(mutex_);
        std::vector<RdndReportLine> lines = pair_.report(role());
        lines.insert(lines.begin(), {"Mode", "corosync, group " + group_name_});
        if (!trouble_.empty())
            lines.push_back({"Trouble", trouble_});
        return lines;
    }

private:
    // ---- PairHost, under the lock

    bool post(const std::string &name, RDND_EVENT event, std::vector<std::byte> data) override
    {
        return host_.post(name, event, std::move(data));
    }
    void log(int level, const char *mnemonic, const std::string &text) override
    {
        printk_syslog_ext(level, "RDND", mnemonic, SYSLOG_DEST_OPERATOR, "%s", text.c_str());
    }

    // ---- CorosyncGroup::Listener, on the thread

    void on_view(const GroupView &view) override
    {
        const MutexLock lock(mutex_);
        pair_.view(view);
        publish();
    }
    void on_message(MemberId from, std::span<const std::byte> bytes) override
    {
        const MutexLock lock(mutex_);
        pair_.deliver(from, bytes);
        publish();
    }
    void on_quorum(bool quorate, std::span<const std::uint32_t> nodes) override
    {
        const MutexLock lock(mutex_);
        pair_.quorum(quorate, nodes);
        publish();
    }

    // ---- The thread

    void run()
    {
        pthread_setname_np(pthread_self(), "rdnd_group");
        // Like corosync's own thread: a sign of life must not wait for a busy machine. Where that is not permitted the
        // thread runs like any other.
        const sched_param lowest{.sched_priority = sched_get_priority_min(SCHED_RR)};
        pthread_setschedparam(pthread_self(), SCHED_RR, &lowest);
        while (!ending_.load()) {
            tick();
            if (!group_.is_open())
                try_open();
            wait();
            if (group_.is_open())
                work();
        }
    }

    void tick()
    {
        const std::chrono::nanoseconds gap = lease_.take_gap();
        const MutexLock lock(mutex_);
        if (group_.is_open() && gap.count() > 0)
            pair_.lapsed(lease_.length() + std::chrono::duration_cast<milliseconds>(gap));
        pair_.tick();
        publish();
    }

    void try_open()
    {
        const auto now = SteadyClock::now();
        if (now < next_try_)
            return;
        const std::string error = group_.open(group_name_);
        if (!error.empty()) {
            next_try_ = SteadyClock::now() + retry_;
            retry_ = std::min(2 * retry_, last_retry);
            tell_trouble(error);
            return;
        }
        retry_ = first_retry;
        lease_.begin(SteadyClock::now());
        const MutexLock lock(mutex_);
        trouble_.clear();
        pair_.connected(group_.self());
        publish();
        log(LOG_NOTICE, "GROUP",
            "in the group " + group_name_ + " as node " + std::to_string(group_.self().node));
    }

    void tell_trouble(const std::string &trouble)
    {
        const MutexLock lock(mutex_);
        if (trouble != trouble_)
            log(LOG_ERR, "GROUP",
                trouble + "; this unit is not the active one until that works, it is tried again every few "
                          "seconds");
        trouble_ = trouble;
    }

    void wait()
    {
        std::array<pollfd, 3> fds{{{wake_, POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}}};
        if (group_.is_open()) {
            const auto descriptors = group_.descriptors();
            fds[1].fd = descriptors[0];
            fds[2].fd = descriptors[1];
        }
        if (poll(fds.data(), fds.size(), static_cast<int>(turn.count())) <= 0)
            return;
        std::uint64_t count = 0;
        while (read(wake_, &count, sizeof(count)) < 0 && errno == EINTR) {
        }
    }

    void work()
    {
        if (const std::string error = group_.dispatch(); !error.empty()) {
            lost(error);
            return;
        }
        if (!send_frames()) {
            lost("corosync has ended");
            return;
        }
        const auto asked = SteadyClock::now();
        if (group_.ping())
            lease_.renew(asked);
        else
            lost("corosync has ended");
    }

    /// False when the connection is lost.
    bool send_frames()
    {
        for (int n = 0; n < frames_a_turn; ++n) {
            const PairOutbox::Sealed frame = next_frame();
            if (frame == nullptr)
                return true;
            const CorosyncGroup::Sent sent = group_.send(*frame);
            const MutexLock lock(mutex_);
            if (sent == CorosyncGroup::Sent::ok)
                pair_.sent(frame);
            else
                pair_.blocked();
            if (sent != CorosyncGroup::Sent::ok)
                return sent == CorosyncGroup::Sent::blocked;
        }
        wake();
        return true;
    }

    PairOutbox::Sealed next_frame()
    {
        const MutexLock lock(mutex_);
        return pair_.next_frame();
    }

    void lost(const std::string &why)
    {
        group_.close();
        next_try_ = SteadyClock::now() + first_retry;
        {
            const MutexLock lock(mutex_);
            pair_.disconnected(why);
            publish();
        }
        tell_trouble(why);
    }

    void publish() PLATFORM_REQUIRES(mutex_)
    {
        role_.store(pair_.role());
        state_.store(pair_.state());
    }
    void wake() const
    {
        const std::uint64_t one = 1;
        // A full counter wakes as well.
        [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof(one));
    }

    RdndHost &host_;
    const std::string group_name_;
    mutable Mutex mutex_;
    Pair pair_ PLATFORM_GUARDED_BY(mutex_);
    std::string
        trouble_ PLATFORM_GUARDED_BY(mutex_); ///< why there is no connection; empty while there is one
    std::thread thread_ PLATFORM_GUARDED_BY(mutex_);

    Lease lease_;
    std::atomic<rdnd_role> role_{RDND_ROLE_CANDIDATE};
    std::atomic<rdnd_stat> state_{RDND_STAT_INIT};
    std::atomic<bool> ending_{false};
    const int wake_;

    // The thread's own.
    CorosyncGroup group_{*this};
    SteadyClock::time_point next_try_;
    milliseconds retry_{first_retry};
};

} // namespace

std::unique_ptr<RdndEdition> make_corosync_edition(RdndHost &host, const Config &config)
{
    auto edition = std::make_unique<CorosyncEdition>(host, config);
    return edition->usable() ? std::move(edition) : nullptr;
}

} // namespace platform
