// Which samplers there are and which of them are on: what the daemon's settings mean for the backend.
//
// The daemon changes a rate by switching every direction of every interface off and on again. A sampler that is
// switched off is therefore only paused and its hook kept for a moment (the linger time): a change of rate costs no
// hook and loses no totals. Ingress sampling and snooping exclude each other on an interface; the last one switched
// on wins.
//
// A sampler is off, takes everything, or is limited to one or two access lists. Its state is what the daemon makes of
// the answers: a list limits what ran without one; a plain start or stop changes nothing about lists; with its last list
// a sampler ends. No failure leads from a limited sampler to one that takes everything.
//
// Pure bookkeeping on the thread of the event loop; the owner brings the time and calls expire().
#pragma once

#include "acl_directory.h"
#include "backend.h"
#include "event_loop.h"

#include <map>
#include <optional>
#include <vector>

namespace sampling
{

class SamplerTable
{
public:
    /// How long a paused sampler keeps its hook.
    static constexpr Clock::duration linger = std::chrono::seconds(1);
    /// Header length until the daemon sends one.
    static constexpr std::uint32_t default_header_len = 64;

    SamplerTable(Backend &backend, AclSource &acls) : backend_(backend), acls_(acls) {}

    /// The sampler that a setting is about; nothing when its direction or flags make no sense.
    [[nodiscard]] static std::optional<SamplerKey> key_of(const sflow_spl_t &request);

    /// Carries out one setting. Rate 0 for what is not sampled is a success.
    [[nodiscard]] Answer set(const sflow_spl_t &request, Clock::time_point now);
    /// New header length for all samplers, present and future; clamped to 1 … SFLOW_FLOW_BUF_LEN.
    void set_header_len(std::uint32_t header_len);

    /// Forgets all settings: every sampler is paused and lingers, the header length is the default again.
    void pause_all(Clock::time_point now);
    /// Removes every sampler at once.
    void remove_all();
    /// The interface has gone.
    void forget_interface(IFINDEX ifindex);

    /// Removes the samplers whose linger time is over, and the access lists that no sampler has.
    void expire(Clock::time_point now);
    /// When expire() has something to do next.
    [[nodiscard]] std::optional<Clock::time_point> next_expiry() const;

    struct Row {
        SamplerKey key;
        SamplerSettings settings;
        bool on = false;
    };
    /// Every sampler in the order of interface and hook.
    [[nodiscard]] std::vector<Row> rows() const;
    [[nodiscard]] std::uint32_t header_len() const { return header_len_; }

private:
    struct State {
        SamplerSettings settings;
        std::optional<Clock::time_point> off_since; ///< nothing: on
    };

    [[nodiscard]] Answer start(SamplerKey key, const sflow_spl_t &request, Clock::time_point now);
    [[nodiscard]] Answer stop(SamplerKey key, const sflow_spl_t &request, Clock::time_point now);
    [[nodiscard]] Answer switch_on(SamplerKey key, const SamplerSettings &settings, Clock::time_point now);
    void switch_off(SamplerKey key, Clock::time_point now);
    [[nodiscard]] bool is_on(SamplerKey key) const;
    void release_acls();

    Backend &backend_;
    AclSource &acls_;
    std::map<SamplerKey, State> samplers_;
    std::uint32_t header_len_ = default_header_len;
};

} // namespace sampling
