#include "counter_keeper.h"

#include <algorithm>

namespace sampling
{

namespace
{

/// What the daemon must add to the base `from` to have the wanted one, which may move a little for it.
FieldWords step_to_wanted(CounterMemory &memory, const FieldWords &from)
{
    FieldWords wanted = memory.wanted_base();
    FieldWords update = {};
    for (std::size_t i = 0; i < counter_field_count; ++i) {
        auto step = base_step(counter_fields[i], from[i], wanted[i]);
        while (!step) {
            memory.raise_base(i);
            wanted = memory.wanted_base();
            step = base_step(counter_fields[i], from[i], wanted[i]);
        }
        update[i] = *step;
    }
    return update;
}

} // namespace

CounterKeeper::CounterKeeper(Log &log, CounterOptions options, Exists exists)
    : log_(log), options_(std::move(options)), exists_(std::move(exists)), file_(log, options_.state_path),
      slots_(file_.load()), next_slot_(slots_.empty() ? 0 : slots_.rbegin()->first + 1),
      cache_(options_.cache_path)
{
}

void CounterKeeper::connected(DaemonId daemon)
{
    daemon_ = daemon;
    cache_outdated();
    for (auto &[ifindex, seen] : seen_)
        seen = {.slot = seen.slot};
}

// ---- Which memory is whose -----------------------------------------------------------------------------------------

std::optional<CounterSlot> CounterKeeper::find(const CounterOrigin &origin, const std::string &name) const
{
    const auto same = std::find_if(slots_.rbegin(), slots_.rend(), [&](const auto &entry) {
        return entry.second.memory.origin() == origin && !entry.second.departed;
    });
    if (same != slots_.rend())
        return same->first;
    // A name belongs to whoever bears it now; the memory of a device that has only been renamed stays its own.
    const auto named = std::find_if(slots_.rbegin(), slots_.rend(), [&](const auto &entry) {
        const CounterMemory &memory = entry.second.memory;
        const CounterOrigin &other = memory.origin();
        const bool alive = !entry.second.departed && other.ifindex != origin.ifindex &&
                           other.instance == origin.instance && exists_(other.ifindex);
        return memory.name() == name && !alive;
    });
    return named == slots_.rend() ? std::nullopt : std::optional(named->first);
}

CounterKeeper::Seen &CounterKeeper::seen(const CounterOrigin &origin, const std::string &name)
{
    Seen &seen = seen_[origin.ifindex];
    // Until a look has made it its own, another device may take the memory over.
    const auto remembered = seen.slot ? slots_.find(*seen.slot) : slots_.end();
    if (remembered == slots_.end() || remembered->second.memory.origin() != origin ||
        remembered->second.departed)
        seen.slot = find(origin, name);
    return seen;
}

void CounterKeeper::make_room()
{
    if (slots_.size() < options_.most_remembered)
        return;
    std::set<CounterSlot> used;
    for (const auto &[ifindex, seen] : seen_) {
        if (seen.slot)
            used.insert(*seen.slot);
    }
    // an eighth at a time: the file has to be written anew for it
    std::size_t left = options_.most_remembered / 8;
    for (auto slot = slots_.begin(); slot != slots_.end() && left > 0;) {
        const RememberedCounters &remembered = slot->second;
        if (used.contains(slot->first) ||
            (!remembered.departed && exists_(remembered.memory.origin().ifindex))) {
            ++slot;
            continue;
        }
        changed_.erase(slot->first);
        slot = slots_.erase(slot);
        file_.outdated();
        --left;
    }
}

CounterSlot CounterKeeper::add(const std::string &name, const CounterLook &look, const FieldWords &from)
{
    make_room();
    // The daemon's base under this index goes on, unless it is known to be that of another device.
    const bool anothers = std::any_of(slots_.begin(), slots_.end(), [&](const auto &entry) {
        return entry.second.memory.origin().ifindex == look.origin.ifindex;
    });
    const CounterSlot slot = next_slot_++;
    slots_.insert_or_assign(
        slot, RememberedCounters{.memory = CounterMemory(name, look, anothers ? FieldWords{} : from)});
    return slot;
}

void CounterKeeper::rename(CounterSlot slot, const std::string &name)
{
    CounterMemory &memory = slots_.at(slot).memory;
    if (memory.name() == name)
        return;
    memory.rename(name);
    // What bore the name before does not come back.
    if (std::erase_if(slots_, [&](const auto &entry) {
            return entry.first != slot && entry.second.departed && entry.second.memory.name() == name;
        }) != 0)
        file_.outdated();
    std::erase_if(changed_, [this](CounterSlot changed) { return !slots_.contains(changed); });
}

// ---- What the daemon has -------------------------------------------------------------------------------------------

FieldWords CounterKeeper::cached_base(IFINDEX ifindex)
{
    if (!std::exchange(cache_read_, true))
        cache_.read();
    return cache_.base(ifindex);
}

/// Whether it is decided what has become of an update that this process of the daemon has got, or would have; its base
/// is known then.
bool CounterKeeper::confirmed(Seen &seen, IFINDEX ifindex, Clock::time_point now)
{
    RememberedCounters &remembered = slots_.at(*seen.slot);
    const FieldWords wanted = remembered.memory.wanted_base();
    const FieldWords cached = cached_base(ifindex);
    if (!seen.deadline)
        seen.deadline = now + options_.patience;
    if (cached != wanted && now < *seen.deadline)
        return false;
    if (cached != wanted && seen.sent && !seen.doubtful) {
        log_.warning("interface ", remembered.memory.name(), ": counters: the daemon's file ",
                     options_.cache_path, " does not show an update, it counts as arrived");
        seen.daemons_base = wanted;
    } else {
        seen.daemons_base = cached;
    }
    remembered.confirmed = *seen.daemons_base == wanted;
    seen.sent = false;
    changed_.insert(*seen.slot);
    return true;
}

bool CounterKeeper::ready(const CounterOrigin &origin, const std::string &name, Clock::time_point now)
{
    Seen &interface = seen(origin, name);
    if (interface.daemons_base)
        return true;
    if (interface.slot) {
        const RememberedCounters &remembered = slots_.at(*interface.slot);
        const bool same_daemon = interface.sent || (daemon_ != 0 && remembered.daemon == daemon_);
        if (same_daemon && remembered.memory.origin().ifindex == origin.ifindex) {
            if (!remembered.confirmed)
                return confirmed(interface, origin.ifindex, now);
            interface.daemons_base = remembered.memory.wanted_base();
            return true;
        }
    }
    interface.daemons_base = cached_base(origin.ifindex);
    return true;
}

void CounterKeeper::reconsider(const CounterOrigin &origin, const std::string &name)
{
    Seen &interface = seen(origin, name);
    if (!interface.slot)
        return;
    RememberedCounters &remembered = slots_.at(*interface.slot);
    if (interface.sent && !remembered.confirmed) {
        interface.doubtful = true;
        return;
    }
    interface.daemons_base.reset();
    if (!remembered.confirmed)
        return;
    remembered.daemon = 0;
    changed_.insert(*interface.slot);
    save();
}

void CounterKeeper::depart(const CounterOrigin &origin, const rtnl_link_stats64 *farewell)
{
    seen_.erase(origin.ifindex);
    const auto slot = std::find_if(slots_.rbegin(), slots_.rend(), [&](const auto &entry) {
        return entry.second.memory.origin() == origin && !entry.second.departed;
    });
    if (slot == slots_.rend())
        return;
    RememberedCounters &remembered = slot->second;
    if (farewell != nullptr)
        remembered.memory.take_farewell(*farewell);
    remembered.daemon = 0;
    remembered.departed = true;
    changed_.insert(slot->first);
    save();
}

// ---- Settling ------------------------------------------------------------------------------------------------------

CounterKeeper::Settlement CounterKeeper::settle(const std::string &name, const CounterLook &look)
{
    Seen &interface = seen(look.origin, name);
    const FieldWords from = interface.daemons_base.value_or(FieldWords{});
    if (interface.slot) {
        rename(*interface.slot, name);
        RememberedCounters &known = slots_.at(*interface.slot);
        known.memory.take(look, known.departed);
    } else {
        interface.slot = add(name, look, from);
    }
    RememberedCounters &remembered = slots_.at(*interface.slot);
    const FieldWords update = step_to_wanted(remembered.memory, from);
    changed_.insert(*interface.slot);
    remembered.departed = false;
    remembered.daemon = daemon_;
    remembered.confirmed = update == FieldWords{};
    if (remembered.confirmed)
        return {.report = remembered.memory.report(), .update = std::nullopt};
    interface.daemons_base.reset();
    interface.sent = true;
    interface.doubtful = false;
    interface.deadline.reset();
    return {.report = {}, .update = update};
}

void CounterKeeper::save()
{
    file_.save({changed_.begin(), changed_.end()}, slots_);
    changed_.clear();
}

} // namespace sampling
