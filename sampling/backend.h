// What the sampling service asks of a backend, and what a backend hands back.
//
// A backend takes packets where they pass: on kernel hooks, or out of a capture file. It knows samplers (one a hook
// of an interface) and hands each sampled packet to a SampleSink. It knows nothing of the daemon, of answers' order,
// or of when a sampler may go: that is SamplerTable's.
//
// Everything here runs on the thread of the event loop.
#pragma once

#include "answer.h"
#include "sflow_domain_msg.h"

#include "acl_list/acl_list.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

struct rtnl_link_stats64;

namespace sampling
{

/// Where a sampler looks at packets.
enum class Hook : std::uint32_t {
    ingress = 1,
    egress = 2,
    snoop = 3, ///< received packets, seen through a packet socket
};

[[nodiscard]] constexpr std::string_view hook_name(Hook hook)
{
    switch (hook) {
    case Hook::ingress:
        return "ingress";
    case Hook::egress:
        return "egress";
    case Hook::snoop:
        return "snoop";
    }
    return "?";
}

struct SamplerKey {
    IFINDEX ifindex = 0;
    Hook hook = Hook::ingress;
    bool operator==(const SamplerKey &) const = default;
    bool operator<(const SamplerKey &other) const
    {
        return std::tie(ifindex, hook) < std::tie(other.ifindex, other.hook);
    }
};

/// Ids of the access lists that limit a sampler; 0 where there is none.
using AclIds = std::array<std::int32_t, 2>;

struct SamplerSettings {
    std::uint32_t rate = 1;        ///< takes one packet in `rate`, at random; at least 1
    std::uint32_t header_len = 64; ///< most leading bytes of a frame; 1 to SFLOW_FLOW_BUF_LEN
    /// With a list, only the packets that one of the lists permits pass this sampler: all others are neither taken
    /// nor counted.
    AclIds acls{};

    [[nodiscard]] bool limited() const
    {
        return std::any_of(acls.begin(), acls.end(), [](std::int32_t id) { return id != 0; });
    }
};

/// VLAN tag that the kernel holds beside the frame (hardware-accelerated), or that a VLAN device takes off and adds.
struct VlanTag {
    std::uint16_t protocol = 0; ///< EtherType of the tag, host byte order
    std::uint16_t tci = 0;      ///< priority, drop eligibility and VLAN id

    bool operator==(const VlanTag &) const = default;
};

/// One sampled packet. Everything is borrowed for the duration of the call.
struct Sample {
    SamplerKey sampler;
    IFINDEX input = 0;                    ///< input interface in sFlow's expanded encoding
    std::uint32_t frame_len = 0;          ///< bytes of the whole frame: no FCS, no tag outside the frame
    std::uint32_t header_len = 0;         ///< the sampler's setting
    std::uint64_t pool = 0;               ///< packets that the sampler could have taken, since it was created
    std::uint64_t drops = 0;              ///< samples of this interface lost on the way, since it is sampled
    std::optional<VlanTag> tag;           ///< to be put back into the header
    std::span<const VlanTag> device_tags; ///< those of the VLAN device that is sampled, in front of `tag`
    std::span<const std::uint8_t> header; ///< leading bytes of the frame, those tags not among them
};

/// Takes sampled packets from a backend.
class SampleSink
{
public:
    SampleSink(const SampleSink &) = delete;
    SampleSink &operator=(const SampleSink &) = delete;
    virtual ~SampleSink() = default;

    /// Takes the sample in every case. False: bring no more until Backend::resume(); what comes in the meantime
    /// stays, and is lost if it must be, in the backend's own buffer, where it is counted.
    [[nodiscard]] virtual bool take(const Sample &sample) = 0;
    /// No more samples for the moment: what was gathered may go out.
    virtual void drained() = 0;

protected:
    SampleSink() = default;
};

/// Totals of one sampler since it was created.
struct SamplerTotals {
    std::uint64_t pool = 0;    ///< packets that passed while it was on; of a limited one, those permitted
    std::uint64_t taken = 0;   ///< samples taken
    std::uint64_t dropped = 0; ///< selected and lost for want of buffer
};

class Backend
{
public:
    Backend(const Backend &) = delete;
    Backend &operator=(const Backend &) = delete;
    virtual ~Backend() = default;

    [[nodiscard]] virtual std::string_view name() const = 0;
    /// What can be sampled: a set of sflow_intf_support_t.
    [[nodiscard]] virtual std::uint32_t capacity() const = 0;

    /// Creates the sampler, or gives a present one (also a paused one) new settings. Totals of a present sampler
    /// go on. Its access lists must have been installed. On a refusal, which is logged here with its reason, nothing
    /// changes.
    [[nodiscard]] virtual Answer start(SamplerKey key, SamplerSettings settings) = 0;
    /// Puts the access list in the place of the one with its id, or in force for the first time. Every packet finds the
    /// one or the other, whole. False, logged, with everything as it was: the backend cannot take it.
    [[nodiscard]] virtual bool install_acl(const acl::List &list) = 0;
    /// The list permits nothing until it is installed again.
    virtual void withhold_acl(std::int32_t id) = 0;
    /// Forgets a list that no sampler, running or paused, is limited to.
    virtual void drop_acl(std::int32_t id) = 0;

    /// The sampler takes and counts nothing until the next start(); its hook and totals stay.
    virtual void pause(SamplerKey key) = 0;
    /// Removes the sampler with its hook. Samples of it that still wait are discarded.
    virtual void remove(SamplerKey key) = 0;
    /// The interface has gone, and its hooks with it: forgets its samplers.
    virtual void forget_interface(IFINDEX ifindex) = 0;

    /// The sink takes samples again after it had refused more.
    virtual void resume() = 0;

    [[nodiscard]] virtual SamplerTotals totals(SamplerKey key) const = 0;
    /// Counters of an interface whose packets this backend makes up; nothing for an interface of the kernel.
    [[nodiscard]] virtual std::optional<rtnl_link_stats64> own_counters(IFINDEX ifindex) const;
    /// One line about the backend's own state, for the log.
    [[nodiscard]] virtual std::string status() const { return ""; }

protected:
    Backend() = default;
};

} // namespace sampling
