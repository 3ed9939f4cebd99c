// What is remembered of one interface's counters so that what the daemon exports never falls.
//
// The daemon exports base + report: the report is what the kernel counts now, the base is kept by the daemon and grows
// by the updates that this service sends. When the kernel starts counters again, what they had reached is lost to the
// report and must go into the base. A memory knows the kernel's last values and the base that belongs to them; it
// neither reads the kernel nor sends anything.
#pragma once

#include "counters.h"

#include <string>

namespace sampling
{

/// Where and since when an interface counts: counters of another origin have started from zero, or may have.
struct CounterOrigin {
    std::uint64_t instance =
        0; ///< the boot for the kernel's counters; this process for those that a backend makes up
    IFINDEX ifindex = 0;
    bool operator==(const CounterOrigin &) const = default;
};

/// One look at an interface.
struct CounterLook {
    CounterOrigin origin;
    /// No device whose counters can outlive a driver: with another origin they have certainly started again.
    bool software = false;
    LinkCounters counters;
};

class CounterMemory
{
public:
    /// What the memory is made of, for keeping it in a file.
    struct State {
        CounterOrigin origin;
        LinkCounters last;
        /// Unicast packets as reported, in and out: made of counters that are read one after the other, they may fall a
        /// little without a restart.
        std::array<std::uint64_t, 2> unicast = {};
        /// Per field: what the daemon must add to the report. For a field that is not known now: its whole count so
        /// far.
        FieldWords base = {};
    };

    /// The first look at an interface of which nothing is known but the daemon's base; what it exports goes on.
    CounterMemory(std::string name, const CounterLook &first, const FieldWords &daemons_base);
    CounterMemory(std::string name, const State &state) : name_(std::move(name)), state_(state) {}

    /// Takes in a look. True when counters have started again or their kinds have changed, and with that the base.
    ///
    /// Traffic counters that fall have started again, all that come from rtnetlink together; so have all from ethtool
    /// when one of them falls. Another counter that falls has started again alone.
    ///
    /// @param another  the device is known to be another one than at the last look, whatever its origin
    bool take(const CounterLook &look, bool another = false);

    /// Takes in the kernel's farewell to the interface. A counter that is lower than before is no restart: a device that
    /// is being taken apart may have lost some. What the MAC counted in the end is not told, and therefore not how many
    /// of the last packets were unicast.
    void take_farewell(const rtnl_link_stats64 &last);

    /// Contents of the report's fields, as of the last look.
    [[nodiscard]] FieldWords report() const;
    /// What the daemon's base must be for this report. Of a field that is not known now and had been counted before: the
    /// value that makes the sum unknown.
    [[nodiscard]] FieldWords wanted_base() const;
    /// Counts one more in this field, or two where the sum of one would mean unknown: for a base that cannot be had.
    void raise_base(std::size_t field);

    [[nodiscard]] const State &state() const { return state_; }
    [[nodiscard]] const CounterOrigin &origin() const { return state_.origin; }
    [[nodiscard]] const std::string &name() const { return name_; }
    void rename(std::string name) { name_ = std::move(name); }

private:
    struct Growth;

    [[nodiscard]] FieldValues values() const;
    [[nodiscard]] Growth growth(const LinkCounters &now, bool certain) const;

    std::string name_;
    State state_;
};

/// The update that turns `from`, the daemon's base, into `to`: what the daemon adds to each field. Nothing stands for
/// a field that would have to be lowered by one, which the record has no word for.
[[nodiscard]] std::optional<std::uint64_t> base_step(const CounterField &field, std::uint64_t from,
                                                     std::uint64_t to);

} // namespace sampling
