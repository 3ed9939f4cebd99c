// Counters that never fall, whatever happens: random sequences of traffic, kills of the daemon and of the service at
// any moment, driver resets and devices made again, with a kernel and a daemon that are made up. Time is theirs, too.
//
// Every export of every interface is compared with the previous one and with what the kernel has truly counted. What
// was counted after the last export before a restart may be missing, nothing else; where the service looked in time,
// nothing at all.
#include "counter_keeper.h"

#include "sampling_fakes.h"

#include <deque>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <set>
#include <sstream>

namespace sampling
{
namespace
{

using namespace std::chrono_literals;

constexpr std::uint64_t boot = 1;
constexpr std::uint64_t much = 1'000'000'000;    ///< traffic beside which a restart is noticed
constexpr std::uint64_t many_errors = 1'000'000; ///< the same for what the MAC counts
/// Counts that may be sent one off because their word, or that of the base, would mean unknown.
constexpr std::uint64_t one_off = 4;

/// Adds every counter.
void add(LinkCounters &sum, const LinkCounters &part)
{
    for (const auto counter : link_counters)
        sum.link.*counter += part.link.*counter;
    for (const auto counter : mac_counters) {
        if (part.mac.*counter)
            sum.mac.*counter = (sum.mac.*counter).value_or(0) + *(part.mac.*counter);
    }
}

void set_mac(LinkCounters &counters, std::uint64_t value)
{
    for (const auto counter : mac_counters)
        counters.mac.*counter = value;
}

struct Device {
    std::string name;
    IFINDEX ifindex = 0;
    bool hardware = false;
    LinkCounters kernel; ///< since its counters started
    LinkCounters truth;  ///< since the first of this name
    bool polled = false; ///< by the daemon
    int exports = 0;
    bool exported_since_restart = false;
    // As exported; valid after the first time.
    FieldWords last = {};
    LinkCounters truth_then;
    LinkCounters kernel_then;
    std::array<std::uint64_t, counter_field_count> total = {};   ///< not cut to the field's width
    std::array<std::uint64_t, counter_field_count> missing = {}; ///< at most, of what was truly counted
};

class Daemon
{
public:
    explicit Daemon(std::string cache) : cache_(std::move(cache)) {}

    DaemonId id = 100;
    bool alive = true;

    void receive(const std::pair<IFINDEX, FieldWords> &update) { queue_.push_back(update); }
    [[nodiscard]] bool idle() const { return queue_.empty(); }
    /// Applies the oldest update; `killed` before it has written its file, perhaps.
    void apply(bool killed)
    {
        accumulate(bases_[queue_.front().first], queue_.front().second);
        queue_.pop_front();
        if (!killed)
            write_cache(cache_, bases_);
    }
    void drain()
    {
        while (!idle())
            apply(false);
    }
    void kill()
    {
        alive = false;
        queue_.clear();
        bases_.clear();
    }
    void start()
    {
        alive = true;
        ++id;
        std::ifstream file(cache_, std::ios::binary);
        sflow_counter_node_t image = {};
        while (file.read(reinterpret_cast<char *>(&image), sizeof(image)))
            bases_.try_emplace(image.ifx, words_of(image));
    }
    void drop(IFINDEX ifindex)
    {
        bases_.erase(ifindex);
        write_cache(cache_, bases_);
    }
    [[nodiscard]] FieldWords exported(IFINDEX ifindex, const FieldWords &report)
    {
        FieldWords words = report;
        if (const auto base = bases_.find(ifindex); base != bases_.end())
            accumulate(words, base->second);
        return words;
    }

private:
    std::string cache_;
    std::map<IFINDEX, FieldWords> bases_;
    std::deque<std::pair<IFINDEX, FieldWords>> queue_;
};

/// One random sequence.
class World
{
public:
    explicit World(std::uint64_t seed)
        : random_(seed), options_(folder_.counter_options()), daemon_(options_.cache_path)
    {
        for (int i = 0; i < 3; ++i) {
            Device device;
            device.name = "port" + std::to_string(i);
            device.ifindex = next_ifindex_++;
            device.hardware = i == 0;
            device.kernel.link.rx_bytes = much + below(1'000'000'000'000);
            device.kernel.link.rx_packets = 0xFFFFFFFF - below(100'000); // the exported word wraps soon
            device.kernel.link.tx_bytes = much;
            device.kernel.link.tx_packets = 100 * many_errors;
            device.kernel.link.rx_errors = 10;
            if (device.hardware)
                set_mac(device.kernel, 2 * many_errors);
            device.truth = device.kernel;
            device.polled = true;
            devices_.push_back(device);
        }
        start_service();
    }

    void run(int steps)
    {
        for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i)
            step();
        settle_down();
    }

    int restarts = 0;
    int updates = 0;
    int kills = 0;
    std::string history; ///< what happened, a line each, for the report of a failure

private:
    template <typename... Parts>
    void note(const Parts &...parts)
    {
        std::ostringstream line;
        (line << ... << parts) << '\n';
        history += line.str();
    }

    std::uint64_t below(std::uint64_t limit)
    {
        return std::uniform_int_distribution<std::uint64_t>(0, limit - 1)(random_);
    }
    bool chance(unsigned percent) { return below(100) < percent; }
    Device &any() { return devices_[below(devices_.size())]; }

    void step()
    {
        using Action = void (World::*)();
        struct Row {
            unsigned weight;
            Action run;
        };
        static constexpr Row rows[] = {
            {30, &World::traffic},       {30, &World::poll},        {10, &World::daemon_works},
            {5, &World::pass_time},      {4, &World::driver_reset}, {4, &World::make_again},
            {4, &World::kill_service},   {4, &World::kill_daemon},  {2, &World::default_interface},
            {3, &World::poll_and_crash},
        };
        unsigned total = 0;
        for (const Row &row : rows)
            total += row.weight;
        std::uint64_t choice = below(total);
        for (const Row &row : rows) {
            if (choice < row.weight) {
                (this->*row.run)();
                return;
            }
            choice -= row.weight;
        }
    }

    // ---- Kernel

    void traffic()
    {
        Device &device = any();
        LinkCounters part;
        part.link.rx_packets = below(1000);
        part.link.multicast = below(part.link.rx_packets + 1) / 4;
        part.link.rx_bytes = part.link.rx_packets * 100;
        part.link.tx_packets = below(1000);
        part.link.tx_bytes = part.link.tx_packets * 100;
        part.link.rx_dropped = below(3);
        part.link.rx_errors = below(2);
        if (device.hardware) {
            set_mac(part, below(10));
            // unicast is what remains of the packets
            part.link.rx_packets += 2 * *part.mac.rx_multicast;
            part.link.tx_packets += 2 * *part.mac.tx_multicast;
        }
        add(device.kernel, part);
        add(device.truth, part);
    }

    /// Whether counters that start again now are sure to fall: only that can be noticed.
    static bool restart_shows(const Device &device)
    {
        return device.exported_since_restart && device.kernel_then.link.rx_bytes >= much &&
               (!device.hardware || *device.kernel_then.mac.fcs_errors >= many_errors);
    }

    /// Sees to it that the next restart will show.
    void rush(Device &device)
    {
        if (device.kernel.link.rx_bytes >= much || !chance(50))
            return;
        LinkCounters part;
        part.link.rx_bytes = much;
        part.link.rx_packets = part.link.tx_packets = 2 * many_errors;
        if (device.hardware)
            set_mac(part, many_errors);
        add(device.kernel, part);
        add(device.truth, part);
    }

    /// All counters start again.
    /// @param seen  the service has seen the last of them
    void restart(Device &device, bool seen)
    {
        note(device.name, " #", device.ifindex, " starts again, octets ", device.truth.link.rx_bytes,
             " so far", seen ? "" : ", unseen");
        ++restarts;
        device.exported_since_restart = false;
        const FieldValues truth = field_values(device.truth);
        const FieldValues then = field_values(device.truth_then);
        for (std::size_t i = 0; i < counter_field_count && !seen; ++i)
            device.missing[i] += truth[i].value_or(0) - then[i].value_or(0);
        LinkCounters fresh;
        if (device.hardware)
            set_mac(fresh, 0);
        device.kernel = fresh;
    }

    void driver_reset()
    {
        Device &device = any();
        if (restart_shows(device))
            restart(device, false);
    }

    void make_again()
    {
        Device &device = any();
        if (device.exports == 0 || (device.hardware && !restart_shows(device)))
            return;
        const IFINDEX old = device.ifindex;
        // the service sees it go, or is not there
        if (keeper_)
            keeper_->depart({.instance = boot, .ifindex = old}, &device.kernel.link);
        if (daemon_.alive) {
            daemon_.drain();
            daemon_.drop(old);
        }
        // the kernel's farewell to an interface that is remembered has everything but what the MAC counts
        restart(device, keeper_ != nullptr && device.exported_since_restart && !device.hardware);
        device.polled = false;
        // under its old index nobody can tell it from the old one afterwards but by counters that fall
        if (chance(75) || (!keeper_ && !restart_shows(device)))
            device.ifindex = next_ifindex_++;
    }

    // ---- Service

    void start_service()
    {
        note("service starts");
        keeper_ = std::make_unique<CounterKeeper>(log_.log, options_, [this](IFINDEX ifindex) {
            return std::any_of(devices_.begin(), devices_.end(),
                               [ifindex](const Device &device) { return device.ifindex == ifindex; });
        });
        if (daemon_.alive)
            keeper_->connected(daemon_.id);
    }

    void kill_service()
    {
        note("service killed");
        ++kills;
        keeper_.reset();
        // what it was writing may be cut
        if (chance(30)) {
            std::ofstream torn(options_.state_path, std::ios::binary | std::ios::app);
            torn << std::string(1 + below(559), 'x');
        }
        for (std::uint64_t i = below(4); i > 0; --i)
            step();
        if (!keeper_)
            start_service();
    }

    static CounterLook look(const Device &device)
    {
        CounterLook look;
        look.origin = {.instance = boot, .ifindex = device.ifindex};
        look.software = !device.hardware;
        look.counters = device.kernel;
        return look;
    }

    enum class Crash { never, before_saving, before_sending };

    void poll() { poll(any(), Crash::never); }

    void poll_and_crash()
    {
        if (!keeper_ || !daemon_.alive)
            return;
        poll(any(), chance(50) ? Crash::before_saving : Crash::before_sending);
        kill_service();
    }

    void poll(Device &device, Crash crash)
    {
        if (!keeper_ || !daemon_.alive)
            return;
        const CounterLook seen = look(device);
        if (!device.polled) { // the operator configures it
            device.polled = true;
            keeper_->reconsider(seen.origin, device.name);
        }
        keeper_->cache_outdated();
        if (!keeper_->ready(seen.origin, device.name, now_))
            return;
        const auto settlement = keeper_->settle(device.name, seen);
        note(device.name, " #", device.ifindex, " looked at, octets ", seen.counters.link.rx_bytes);
        if (crash == Crash::before_saving)
            return;
        keeper_->save();
        if (crash == Crash::before_sending)
            return;
        if (settlement.update) {
            note(device.name, " #", device.ifindex, " update of octets ", (*settlement.update)[0]);
            ++updates;
            daemon_.receive({device.ifindex, *settlement.update});
            return;
        }
        daemon_.drain();
        check(device, daemon_.exported(device.ifindex, settlement.report));
    }

    // ---- Daemon

    void daemon_works()
    {
        if (daemon_.alive && !daemon_.idle())
            daemon_.apply(false);
    }

    /// A live daemon is never so far behind that it needs the service's whole patience.
    void pass_time()
    {
        if (daemon_.alive)
            daemon_.drain();
        now_ += std::chrono::milliseconds(below(12'000));
    }

    void kill_daemon()
    {
        if (!daemon_.alive)
            return;
        ++kills;
        note("daemon killed");
        if (!daemon_.idle() && chance(50))
            daemon_.apply(chance(50));
        daemon_.kill();
        for (std::uint64_t i = below(4); i > 0; --i)
            step();
        if (!daemon_.alive)
            daemon_.start();
        if (keeper_)
            keeper_->connected(daemon_.id);
    }

    /// The operator puts the interface back to its defaults: the daemon forgets its base.
    void default_interface()
    {
        if (!daemon_.alive)
            return;
        Device &device = any();
        daemon_.drain();
        daemon_.drop(device.ifindex);
        device.polled = false;
        note(device.name, " #", device.ifindex, " dropped by the daemon");
    }

    // ---- Judgement

    void check(Device &device, const FieldWords &exported)
    {
        const FieldValues truth = field_values(device.truth);
        note(device.name, " #", device.ifindex, " exported, octets ", exported[0], " of ", *truth[0]);
        for (std::size_t i = 0; i < counter_field_count; ++i) {
            const std::uint64_t mask = counter_fields[i].mask();
            if (!truth[i]) {
                ASSERT_EQ(exported[i], mask) << device.name << " field " << i << " is not known";
                continue;
            }
            ASSERT_NE(exported[i], mask) << device.name << " field " << i;
            if (device.exports > 0)
                device.total[i] += (exported[i] - device.last[i]) & mask; // a fall is a huge step here
            else
                device.total[i] = *truth[i] - ((*truth[i] - exported[i]) & mask);
            ASSERT_LE(device.total[i], *truth[i] + one_off) << device.name << " field " << i;
            ASSERT_GE(device.total[i] + device.missing[i] + one_off, *truth[i])
                << device.name << " field " << i;
        }
        device.last = exported;
        device.truth_then = device.truth;
        device.kernel_then = device.kernel;
        ++device.exports;
        device.exported_since_restart = true;
        rush(device);
    }

    /// Everything comes up again and stays; then every interface is exported.
    void settle_down()
    {
        if (testing::Test::HasFatalFailure())
            return;
        if (!daemon_.alive)
            daemon_.start();
        daemon_.drain();
        start_service();
        for (Device &device : devices_) {
            const int exports = device.exports;
            for (int attempt = 0; attempt < 4 && device.exports == exports; ++attempt) {
                poll(device, Crash::never);
                daemon_.drain();
                now_ += 11s;
            }
            EXPECT_GT(device.exports, exports) << device.name << " is never exported again";
        }
    }

    std::mt19937_64 random_;
    Folder folder_;
    LogLines log_;
    CounterOptions options_;
    Clock::time_point now_{};
    IFINDEX next_ifindex_ = 5;
    std::vector<Device> devices_;
    Daemon daemon_;
    std::unique_ptr<CounterKeeper> keeper_;
};

TEST(Continuity, exported_counters_never_fall_and_their_totals_are_right)
{
    constexpr std::uint64_t sequences = 3000;
    int restarts = 0;
    int updates = 0;
    int kills = 0;
    for (std::uint64_t seed = 1; seed <= sequences; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        World world(seed);
        world.run(120);
        restarts += world.restarts;
        updates += world.updates;
        kills += world.kills;
        if (HasFailure()) {
            std::cout << world.history;
            return;
        }
    }
    // the sequences would prove little if nothing happened in them
    EXPECT_GT(restarts, 10'000);
    EXPECT_GT(updates, 10'000);
    EXPECT_GT(kills, 10'000);
}

} // namespace
} // namespace sampling
