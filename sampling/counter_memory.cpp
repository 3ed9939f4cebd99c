#include "counter_memory.h"

#include <algorithm>

namespace sampling
{

namespace
{

// Places of the fields whose value is made of several counters.
constexpr std::array<std::size_t, 2> unicast_fields = {1, 8};

/// Counters that a driver gives only at times, while the interface is up for example, keep their last value.
void keep_missing(MacCounters &now, const MacCounters &last)
{
    for (const auto counter : mac_counters) {
        if (!(now.*counter))
            now.*counter = last.*counter;
    }
}

/// Whether traffic counters have started again.
bool totals_fell(const rtnl_link_stats64 &now, const rtnl_link_stats64 &last)
{
    return std::any_of(link_counters.begin(), link_counters.begin() + link_totals,
                       [&](auto counter) { return now.*counter < last.*counter; });
}

} // namespace

/// How far each counter has come since the last look.
struct CounterMemory::Growth {
    LinkCounters counters;
    bool continuous = true; ///< no counter has started again, appeared or gone
};

CounterMemory::CounterMemory(std::string name, const CounterLook &first, const FieldWords &daemons_base)
    : name_(std::move(name)), state_{.origin = first.origin, .last = first.counters}
{
    const FieldValues fields = field_values(first.counters);
    for (std::size_t i = 0; i < unicast_fields.size(); ++i)
        state_.unicast[i] = fields[unicast_fields[i]].value_or(0);
    for (std::size_t i = 0; i < counter_field_count; ++i)
        state_.base[i] = daemons_base[i] == counter_fields[i].mask() ? 0 : daemons_base[i];
}

FieldValues CounterMemory::values() const
{
    FieldValues fields = field_values(state_.last);
    for (std::size_t i = 0; i < unicast_fields.size(); ++i)
        fields[unicast_fields[i]] = state_.unicast[i];
    return fields;
}

/// @param certain  the counters from rtnetlink have started again whether they fell or not
CounterMemory::Growth CounterMemory::growth(const LinkCounters &now, bool certain) const
{
    const LinkCounters &last = state_.last;
    Growth growth;
    const bool link_restarted = certain || totals_fell(now.link, last.link);
    for (const auto counter : link_counters) {
        const bool restarted = link_restarted || now.link.*counter < last.link.*counter;
        growth.counters.link.*counter =
            restarted ? now.link.*counter : now.link.*counter - last.link.*counter;
        growth.continuous = growth.continuous && !restarted;
    }
    const bool mac_restarted = std::any_of(mac_counters.begin(), mac_counters.end(), [&](auto counter) {
        return now.mac.*counter && now.mac.*counter < last.mac.*counter;
    });
    for (const auto counter : mac_counters) {
        const MacCounters::Value &before = last.mac.*counter;
        const MacCounters::Value &after = now.mac.*counter;
        growth.continuous = growth.continuous && !mac_restarted && before.has_value() == after.has_value();
        if (!after)
            continue;
        // one that appears has counted before: from when on is not known
        if (mac_restarted)
            growth.counters.mac.*counter = *after;
        else
            growth.counters.mac.*counter = before ? *after - *before : 0;
    }
    return growth;
}

bool CounterMemory::take(const CounterLook &look, bool another)
{
    LinkCounters now = look.counters;
    another = another || look.origin != state_.origin;
    if (!another)
        keep_missing(now.mac, state_.last.mac);
    const Growth grown = growth(now, another && look.software);
    const FieldValues before = values();
    const FieldValues after = field_values(now);
    const FieldValues step = field_values(grown.counters);
    for (std::size_t i = 0; i < counter_field_count && !grown.continuous; ++i) {
        const std::uint64_t mask = counter_fields[i].mask();
        if (!before[i] && state_.base[i] == 0)
            continue; // never counted before: it begins with what it has
        const std::uint64_t total = state_.base[i] + before[i].value_or(0);
        if (after[i])
            state_.base[i] = (total + step[i].value_or(0) - *after[i]) & mask;
        else
            state_.base[i] = total & mask;
        if (state_.base[i] == mask)
            raise_base(i); // as a base it would mean unknown
    }
    for (std::size_t i = 0; i < unicast_fields.size(); ++i) {
        const std::uint64_t value = after[unicast_fields[i]].value_or(0);
        state_.unicast[i] = grown.continuous ? std::max(state_.unicast[i], value) : value;
    }
    state_.last = now;
    state_.origin = look.origin;
    return !grown.continuous;
}

void CounterMemory::take_farewell(const rtnl_link_stats64 &last)
{
    const LinkCounters &before = state_.last;
    CounterLook look = {.origin = state_.origin, .software = false, .counters = {.link = last, .mac = {}}};
    for (const auto counter : link_counters)
        look.counters.link.*counter = std::max(last.*counter, before.link.*counter);
    if (before.mac.rx_multicast || before.mac.rx_broadcast)
        look.counters.link.rx_packets = before.link.rx_packets;
    if (before.mac.tx_multicast || before.mac.tx_broadcast)
        look.counters.link.tx_packets = before.link.tx_packets;
    take(look);
}

FieldWords CounterMemory::report() const
{
    const FieldValues fields = values();
    FieldWords words = {};
    for (std::size_t i = 0; i < counter_field_count; ++i)
        words[i] = word_of(counter_fields[i], fields[i], state_.base[i]);
    return words;
}

FieldWords CounterMemory::wanted_base() const
{
    const FieldValues fields = values();
    FieldWords wanted = state_.base;
    for (std::size_t i = 0; i < counter_field_count; ++i) {
        if (!fields[i] && wanted[i] != 0)
            wanted[i] = counter_fields[i].mask();
    }
    return wanted;
}

void CounterMemory::raise_base(std::size_t field)
{
    const std::uint64_t mask = counter_fields[field].mask();
    std::uint64_t &base = state_.base[field];
    base = (base + 1) & mask;
    if (base == mask)
        base = 0;
}

std::optional<std::uint64_t> base_step(const CounterField &field, std::uint64_t from, std::uint64_t to)
{
    const std::uint64_t mask = field.mask();
    if (from == to)
        return 0;
    if (to == mask)
        return mask;
    const std::uint64_t step = (to - from) & mask;
    return step == mask ? std::nullopt : std::optional(step);
}

} // namespace sampling
