// Connects the client with the kernel and with its thread master: opens netlink, feeds every change into the
// client's data and recovers from lost notifications. Everything except lsm_raise_default_event() runs on the
// master's thread; queries go past this file.
#include "lsm_client.h"
#include "lsm_ethtool.h"
#include "lsm_netlink.h"

#include "config/platform_config.h"
#include "lock/immortal.h"
#include "platform/syslog_client.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/if.h>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace platform::lsm
{
namespace
{

constexpr int CHANGES_PER_ROUND = 256; // then other tasks of the master get their turn
constexpr int RETRY_MS = 1000;
constexpr int START_ATTEMPTS = 30; // a second apart
constexpr std::chrono::seconds LOSS_REPORT_INTERVAL(10);
constexpr int WARNING = 4;
constexpr int NOTICE = 5;
// A port's speed may change with any of these.
constexpr unsigned LINK_FLAGS = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;

class Agent
{
public:
    void set_connect_callback(lsm_connect_callback_t callback) { connect_callback_ = callback; }
    bool start(const char *name, kx_thread_master_t *master);
    bool schedule(kx_thread_func_t function);

    void connected();
    void changes_arrived();
    void settings_changed();
    void resynchronise();

private:
    std::optional<std::vector<LinkState>> read_everything();
    std::optional<std::vector<LinkState>> read_at_start();
    void lost_changes();
    bool watch_changes();
    void watch_settings();
    void take(Change &&change);
    void take_link(const Link &link);
    void refresh_eth(IFINDEX ifx);
    void refresh_followers(IFINDEX ifx);
    void warn(const char *what, const char *consequence) const;

    std::string name_;
    std::atomic<kx_thread_master_t *> master_{nullptr};
    lsm_connect_callback_t connect_callback_ = nullptr;
    std::optional<std::chrono::steady_clock::time_point> loss_reported_;
    u_int64_t losses_ = 0; ///< since then
    RouteReader route_;
    EthtoolReader ethtool_;
};

Agent &agent()
{
    static Immortal<Agent> the_agent;
    return *the_agent;
}

int on_connected(kx_thread_t *)
{
    agent().connected();
    return 0;
}

int on_registration_over(kx_thread_t *)
{
    client().begin_delivery();
    return 0;
}

int on_changes(kx_thread_t *)
{
    agent().changes_arrived();
    return 0;
}

int on_settings(kx_thread_t *)
{
    agent().settings_changed();
    return 0;
}

int on_retry(kx_thread_t *)
{
    agent().resynchronise();
    return 0;
}

int on_defaults(kx_thread_t *)
{
    client().deliver_defaults();
    return 0;
}

void Agent::warn(const char *what, const char *consequence) const
{
    const int error = errno;
    printk_syslog_ext(WARNING, "LSM", "NETLINK", SYSLOG_DEST_OPERATOR, "client %s: %s: %s, %s", name_.c_str(),
                      what, strerrordesc_np(error), consequence);
    errno = error; // for the caller
}

bool Agent::schedule(kx_thread_func_t function)
{
    kx_thread_master_t *master = master_.load(std::memory_order_acquire);
    return master != nullptr && kx_thread_add_event(master, function, nullptr) != nullptr;
}

std::optional<std::vector<LinkState>> Agent::read_everything()
{
    std::optional<std::vector<LinkState>> states = route_.dump();
    if (states) {
        const std::unordered_map<IFINDEX, EthInfo> facts = ethtool_.query_all(*states);
        for (LinkState &state : *states) {
            if (const auto it = facts.find(state.link.ifx); it != facts.end()) {
                state.eth = it->second;
            }
        }
    }
    return states;
}

/// Interfaces that come and go faster than they can be read, as at boot, calm down sooner or later. The thread has
/// nothing else to serve yet.
std::optional<std::vector<LinkState>> Agent::read_at_start()
{
    std::optional<std::vector<LinkState>> states = read_everything();
    for (int attempt = 1; !states && errno == EAGAIN && attempt < START_ATTEMPTS; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(RETRY_MS));
        states = read_everything();
    }
    return states;
}

bool Agent::start(const char *name, kx_thread_master_t *master)
{
    name_ = name != nullptr ? name : "";
    if (!route_.open()) {
        warn("open rtnetlink", "no interface data");
        return false;
    }
    ethtool_.open();
    const std::optional<std::vector<LinkState>> states = read_at_start();
    if (!states) {
        warn("read interfaces and addresses", "no interface data");
        return false;
    }
    const std::vector<std::string> &management = platform_config().management_interfaces;
    client().start({management.begin(), management.end()}, *states);
    master_.store(master, std::memory_order_release);
    if (!watch_changes() || !schedule(on_connected)) {
        errno = ENOMEM;
        return false;
    }
    watch_settings();
    return true;
}

void Agent::connected()
{
    if (connect_callback_ != nullptr) {
        connect_callback_();
    }
}

bool Agent::watch_changes()
{
    return kx_thread_add_read(master_.load(std::memory_order_relaxed), on_changes, nullptr, route_.fd()) !=
           nullptr;
}

void Agent::watch_settings()
{
    if (ethtool_.fd() >= 0) {
        kx_thread_add_read(master_.load(std::memory_order_relaxed), on_settings, nullptr, ethtool_.fd());
    }
}

void Agent::changes_arrived()
{
    const RouteReader::Result result =
        route_.receive([this](Change &&change) { take(std::move(change)); }, CHANGES_PER_ROUND);
    if (result == RouteReader::Result::lost) {
        lost_changes();
    }
    if (!watch_changes()) {
        errno = ENOMEM;
        warn("watch rtnetlink", "interface data are frozen");
    }
}

/// The kernel dropped notifications because they were not read fast enough.
void Agent::lost_changes()
{
    ++losses_;
    const auto now = std::chrono::steady_clock::now();
    // A flood overruns the buffer again and again: one line tells of several times.
    if (!loss_reported_ || now - *loss_reported_ >= LOSS_REPORT_INTERVAL) {
        printk_syslog_ext(NOTICE, "LSM", "RESYNC", SYSLOG_DEST_OPERATOR,
                          "client %s: changes of interfaces came too fast (%llu times since the last "
                          "report), all interfaces "
                          "are read again",
                          name_.c_str(), static_cast<unsigned long long>(losses_));
        loss_reported_ = now;
        losses_ = 0;
    }
    resynchronise();
}

void Agent::resynchronise()
{
    route_.discard();
    if (const std::optional<std::vector<LinkState>> states = read_everything()) {
        client().change([&](Store &store) { return store.replace(*states); });
        return;
    }
    warn("read interfaces and addresses again", "trying again in a second");
    kx_thread_add_timer_msec(master_.load(std::memory_order_relaxed), on_retry, nullptr, RETRY_MS);
}

void Agent::take(Change &&change)
{
    if (const auto *link = std::get_if<Link>(&change); link != nullptr) {
        take_link(*link);
        return;
    }
    client().change([&](Store &store) {
        if (const auto *gone = std::get_if<LinkGone>(&change); gone != nullptr) {
            return store.remove(gone->ifx);
        }
        if (const auto *added = std::get_if<AddressChange>(&change); added != nullptr) {
            return store.apply(added->ifx, added->address);
        }
        const auto &removed = std::get<AddressGone>(change);
        return store.remove(removed.ifx, removed.address);
    });
}

/// Takes the Ethernet facts over with the link, so that a handler of the link's event sees both.
void Agent::take_link(const Link &link)
{
    const bool ask = client().query([&](const Store &store) {
        const Interface *known = store.find(link.ifx);
        return known == nullptr || ((known->link.flags ^ link.flags) & LINK_FLAGS) != 0;
    });
    if (!ask) {
        client().change([&](Store &store) { return store.apply(link); });
        return;
    }
    const std::optional<EthInfo> eth = ethtool_.query(link.ifx, link.name);
    client().change([&](Store &store) {
        Events events = store.apply(link);
        const Events more = store.set_eth(link.ifx, eth);
        events.insert(events.end(), more.begin(), more.end());
        return events;
    });
    refresh_followers(link.ifx);
}

void Agent::refresh_eth(IFINDEX ifx)
{
    const std::string name = client().query([&](const Store &store) {
        const Interface *intf = store.find(ifx);
        return intf == nullptr ? std::string() : intf->link.name;
    });
    if (!name.empty()) {
        const std::optional<EthInfo> eth = ethtool_.query(ifx, name);
        client().change([&](Store &store) { return store.set_eth(ifx, eth); });
    }
}

/// An aggregate is as fast as its members together, a subinterface as fast as its parent; the kernel does not
/// announce that they changed. Two levels are all there is: member, aggregate, subinterface.
void Agent::refresh_followers(IFINDEX ifx)
{
    const auto followers_of = [](IFINDEX leader) {
        return client().query([&](const Store &store) { return store.speed_followers(leader); });
    };
    for (const IFINDEX follower : followers_of(ifx)) {
        refresh_eth(follower);
        for (const IFINDEX second : followers_of(follower)) {
            refresh_eth(second);
        }
    }
}

void Agent::settings_changed()
{
    std::set<IFINDEX> changed;
    const bool complete = ethtool_.receive([&](IFINDEX ifx) { changed.insert(ifx); });
    for (const IFINDEX ifx : changed) {
        refresh_eth(ifx);
        refresh_followers(ifx);
    }
    if (!complete) {
        lost_changes();
    }
    watch_settings();
}

} // namespace
} // namespace platform::lsm

using namespace platform::lsm;

void lsm_agent_set_connect_callback(lsm_connect_callback_t callback)
{
    agent().set_connect_callback(callback);
}

int lsm_client_set_mode(int mode)
{
    if (mode != LSM_CLIENT_MODE_NOTIFY && mode != LSM_CLIENT_MODE_DUPLICATOR) {
        return -1;
    }
    client().set_mode(static_cast<lsm_client_mode_t>(mode));
    return 0;
}

int lsm_client_reg_event_ex(int stack, const lsm_iftype_filter *filter, const lsm_msg_set *set)
{
    if (filter == nullptr || set == nullptr) {
        return -1;
    }
    return client().subscriptions().subscribe(stack, *filter, *set) ? 0 : -1;
}

int lsm_reg_msg_handler_ex(int stack, lsm_msg_handler_t handler)
{
    return handler != nullptr && client().subscriptions().set_handler(stack, handler) ? 0 : -1;
}

int lsm_agent_init(const char *name, kx_thread_master_t *master)
{
    if (master == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return agent().start(name, master) ? 0 : -1;
}

int lsm_client_reg_event_over()
{
    return agent().schedule(on_registration_over) ? 0 : -1;
}

int lsm_raise_default_event(IFINDEX ifx)
{
    return client().note_default(ifx) && agent().schedule(on_defaults) ? 0 : -1;
}
