#include "sampler_table.h"

#include "records.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace sampling
{

namespace
{

/// Direction and flags as a hook; nothing when they make no sense.
std::optional<Hook> hook_of(const sflow_spl_t &request)
{
    const bool snoop = (request.snoop & SFLOW_INGRESS_BY_SNOOP) != 0;
    if ((request.snoop & ~SFLOW_INGRESS_BY_SNOOP) != 0)
        return std::nullopt;
    if (request.direct == SFLOW_INGRESS)
        return snoop ? Hook::snoop : Hook::ingress;
    if (request.direct == SFLOW_EGRESS && !snoop)
        return Hook::egress;
    return std::nullopt;
}

/// The hook that cannot be on together with this one.
std::optional<Hook> excluded_by(Hook hook)
{
    if (hook == Hook::ingress)
        return Hook::snoop;
    if (hook == Hook::snoop)
        return Hook::ingress;
    return std::nullopt;
}

} // namespace

std::optional<SamplerKey> SamplerTable::key_of(const sflow_spl_t &request)
{
    const std::optional<Hook> hook = hook_of(request);
    return hook ? std::optional(SamplerKey{.ifindex = request.ifx, .hook = *hook}) : std::nullopt;
}

Answer SamplerTable::set(const sflow_spl_t &request, Clock::time_point now)
{
    const std::optional<SamplerKey> key = key_of(request);
    // a list is known by its id; the name alone is not enough
    if (!key || request.rate < 0 || request.acl_id < 0 || (names_acl(request) && request.acl_id == 0))
        return Answer::bad_request;
    return request.rate == 0 ? stop(*key, request, now) : start(*key, request, now);
}

Answer SamplerTable::stop(SamplerKey key, const sflow_spl_t &request, Clock::time_point now)
{
    if (!is_on(key))
        return Answer::ok;
    SamplerSettings settings = samplers_[key].settings;
    if (!names_acl(request)) {
        if (!settings.limited())
            switch_off(key, now);
        return Answer::ok;
    }
    std::replace(settings.acls.begin(), settings.acls.end(), request.acl_id, 0);
    if (!settings.limited()) {
        switch_off(key, now); // a plain sampler, too: without a list the daemon takes it for stopped now
        return Answer::ok;
    }
    return switch_on(key, settings, now);
}

Answer SamplerTable::start(SamplerKey key, const sflow_spl_t &request, Clock::time_point now)
{
    SamplerSettings settings = {.rate = static_cast<std::uint32_t>(request.rate), .header_len = header_len_};
    if (is_on(key))
        settings.acls = samplers_[key].settings.acls;
    if (names_acl(request)) {
        if (key.hook == Hook::egress)
            return Answer::acl_unsupported;
        AclIds &acls = settings.acls;
        if (std::find(acls.begin(), acls.end(), request.acl_id) == acls.end()) {
            auto *const place = std::find(acls.begin(), acls.end(), 0);
            if (place == acls.end())
                return Answer::too_many_acls;
            *place = request.acl_id;
        }
        const std::string_view name(request.acl_name, ::strnlen(request.acl_name, sizeof(request.acl_name)));
        if (const Answer answer = acls_.use(request.acl_id, name); answer != Answer::ok)
            return answer;
    }
    return switch_on(key, settings, now);
}

bool SamplerTable::is_on(SamplerKey key) const
{
    const auto sampler = samplers_.find(key);
    return sampler != samplers_.end() && !sampler->second.off_since;
}

Answer SamplerTable::switch_on(SamplerKey key, const SamplerSettings &settings, Clock::time_point now)
{
    // The other kind of ingress sampling pauses first, so that no packet is taken twice, and goes on if this fails.
    std::optional<SamplerKey> other;
    if (const std::optional<Hook> hook = excluded_by(key.hook)) {
        other = SamplerKey{.ifindex = key.ifindex, .hook = *hook};
        if (!is_on(*other))
            other.reset();
    }
    if (other)
        backend_.pause(*other);
    const Answer answer = backend_.start(key, settings);
    if (answer == Answer::ok) {
        samplers_[key] = {.settings = settings, .off_since = std::nullopt};
        if (other)
            samplers_[*other].off_since = now;
    } else if (other && backend_.start(*other, samplers_[*other].settings) != Answer::ok) {
        backend_.remove(*other);
        samplers_.erase(*other);
    }
    return answer;
}

void SamplerTable::switch_off(SamplerKey key, Clock::time_point now)
{
    if (!is_on(key))
        return;
    backend_.pause(key);
    samplers_[key].off_since = now;
}

void SamplerTable::set_header_len(std::uint32_t header_len)
{
    header_len_ = std::clamp<std::uint32_t>(header_len, 1, SFLOW_FLOW_BUF_LEN);
    for (auto &[key, state] : samplers_) {
        if (state.off_since || state.settings.header_len == header_len_)
            continue;
        SamplerSettings settings = state.settings;
        settings.header_len = header_len_;
        if (backend_.start(key, settings) == Answer::ok)
            state.settings = settings;
    }
}

void SamplerTable::pause_all(Clock::time_point now)
{
    for (auto &[key, state] : samplers_) {
        if (state.off_since)
            continue;
        backend_.pause(key);
        state.off_since = now;
    }
    header_len_ = default_header_len;
}

void SamplerTable::remove_all()
{
    for (const auto &entry : samplers_)
        backend_.remove(entry.first);
    samplers_.clear();
    header_len_ = default_header_len;
    release_acls();
}

void SamplerTable::forget_interface(IFINDEX ifindex)
{
    backend_.forget_interface(ifindex);
    std::erase_if(samplers_, [ifindex](const auto &entry) { return entry.first.ifindex == ifindex; });
}

void SamplerTable::expire(Clock::time_point now)
{
    for (auto sampler = samplers_.begin(); sampler != samplers_.end();) {
        if (sampler->second.off_since && *sampler->second.off_since + linger <= now) {
            backend_.remove(sampler->first);
            sampler = samplers_.erase(sampler);
        } else {
            ++sampler;
        }
    }
    release_acls();
}

void SamplerTable::release_acls()
{
    std::set<std::int32_t> used;
    for (const auto &entry : samplers_)
        used.insert(entry.second.settings.acls.begin(), entry.second.settings.acls.end());
    acls_.keep_only(used);
}

std::optional<Clock::time_point> SamplerTable::next_expiry() const
{
    std::optional<Clock::time_point> next;
    for (const auto &entry : samplers_) {
        const auto &off_since = entry.second.off_since;
        if (off_since && (!next || *off_since + linger < *next))
            next = *off_since + linger;
    }
    return next;
}

std::vector<SamplerTable::Row> SamplerTable::rows() const
{
    std::vector<Row> rows;
    rows.reserve(samplers_.size());
    for (const auto &[key, state] : samplers_)
        rows.push_back({.key = key, .settings = state.settings, .on = !state.off_since});
    return rows;
}

} // namespace sampling
