#include "bpf_backend.h"

#include "bpf_shared.h"
#include "privileges.h"
#include "probability.h"
#include "sflow_tc.skel.h"
#include "snoop.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/mman.h>

namespace sampling
{

namespace
{

static_assert(static_cast<std::uint32_t>(Hook::ingress) == SFLOW_HOOK_INGRESS);
static_assert(static_cast<std::uint32_t>(Hook::egress) == SFLOW_HOOK_EGRESS);
static_assert(static_cast<std::uint32_t>(Hook::snoop) == SFLOW_HOOK_SNOOP);
static_assert(static_cast<int>(SFLOW_EVENT_HEADER_LEN) == SFLOW_FLOW_BUF_LEN);
static_assert(std::tuple_size_v<AclIds> == std::extent_v<decltype(sflow_sampler_config::acl_slots)>);

// sFlow v5, expanded interface encoding: "no input interface", the packet was made by this machine.
constexpr IFINDEX no_input_interface = 0xFFFFFFFF;
constexpr IFINDEX unknown_interface = 0;

// Samples read before the event loop gets its turn again: some tenths of a millisecond, and whole packets.
constexpr unsigned slice_samples = 510;
constexpr Clock::duration recheck_delay = std::chrono::milliseconds(50);

} // namespace

/// What is counted for an interface as a whole.
struct BpfBackend::Source {
    std::uint64_t drops = 0;
    unsigned samplers = 0;
};

struct BpfBackend::Sampler {
    SamplerKey key;
    SamplerSettings settings;
    std::uint32_t slot = 0;
    std::uint32_t generation = 0;
    bool hooked = false;
    UniqueFd snoop_socket;
    Source *source = nullptr;
    /// Each CPU counts for itself, and an event brings the counts of its own CPU. These are the newest seen, so
    /// that their sum costs nothing per sample; it lags by what other CPUs saw since their latest sample.
    struct Seen {
        std::uint64_t pool = 0;
        std::uint64_t dropped = 0;
    };
    std::vector<Seen> seen;
    std::uint64_t pool = 0;
    std::vector<VlanTag>
        device_tags; ///< of a VLAN device; what a device adds cannot be changed while it exists
};

/// The map `counters`, seen without a system call.
struct BpfBackend::CounterMap {
    CounterMap(int fd, std::size_t rows) : bytes(rows * sizeof(sflow_sampler_counters))
    {
        void *mapped = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapped == MAP_FAILED)
            throw std::runtime_error("ebpf backend: map of the counters: " + error_text(errno));
        row = static_cast<sflow_sampler_counters *>(mapped);
    }
    ~CounterMap() { ::munmap(row, bytes); }
    CounterMap(const CounterMap &) = delete;
    CounterMap &operator=(const CounterMap &) = delete;

    std::size_t bytes;
    sflow_sampler_counters *row = nullptr;
};

void BpfBackend::SkeletonDeleter::operator()(sflow_tc_bpf *skeleton) const
{
    sflow_tc_bpf__destroy(skeleton);
}

void BpfBackend::RingDeleter::operator()(ring_buffer *ring) const
{
    ring_buffer__free(ring);
}

BpfBackend::BpfBackend(EventLoop &loop, Log &log, LinkTable &links, SampleSink &sink,
                       const BpfOptions &options)
    : loop_(loop), log_(log), links_(links), sink_(sink), libbpf_log_(log), tc_(log),
      watch_(loop, log, [this](IFINDEX ifindex, bool gone) { restore_hooks(ifindex, gone); }),
      cpus_(static_cast<unsigned>(std::max(1, libbpf_num_possible_cpus())))
{
    load(options);
    if (const int swept = tc_.sweep(); swept != 0)
        log_.info("tc hooks: removed ", swept, " filters that an earlier run had left");
    if (const IFINDEX loopback = links_.index_of("lo"); loopback != 0) {
        if (const int error = tc_.probe(program_fd(Hook::ingress), loopback); error != 0)
            throw std::runtime_error("ebpf backend: trial hook on interface lo: " + tc_.last_reason() +
                                     ", this kernel needs the clsact qdisc and BPF classifiers"
                                     " (sch_ingress, cls_bpf)");
    }
    by_slot_.assign(options.max_samplers, nullptr);
    for (std::uint32_t slot = options.max_samplers; slot-- > 0;)
        free_slots_.push_back(slot);
    loop_.add(ring_buffer__epoll_fd(ring_.get()), EPOLLIN, [this](std::uint32_t) { consume(); });
}

BpfBackend::~BpfBackend()
{
    while (!samplers_.empty())
        release(samplers_.begin());
    loop_.cancel(poll_timer_);
    loop_.remove(ring_buffer__epoll_fd(ring_.get()));
}

void BpfBackend::load(const BpfOptions &options)
{
    require_capabilities({Capability::net_admin, Capability::bpf, Capability::perfmon, Capability::net_raw},
                         "ebpf backend");
    skeleton_.reset(sflow_tc_bpf__open());
    if (!skeleton_)
        throw std::runtime_error("ebpf backend: program: cannot be opened: " + error_text(errno));
    const std::size_t rows = std::size_t{options.max_samplers} * cpus_;
    skeleton_->rodata->possible_cpus = cpus_;
    if (bpf_map__set_max_entries(skeleton_->maps.samplers, options.max_samplers) != 0 ||
        bpf_map__set_max_entries(skeleton_->maps.counters, static_cast<std::uint32_t>(rows)) != 0 ||
        bpf_map__set_max_entries(skeleton_->maps.acl_tables, options.max_acls + 1) != 0 ||
        bpf_map__set_max_entries(skeleton_->maps.events, options.ring_bytes) != 0)
        throw std::runtime_error("ebpf backend: size of a map: " + error_text(errno));
    const UniqueFd acl_pattern = make_acl_table_map();
    if (!acl_pattern || bpf_map__set_inner_map_fd(skeleton_->maps.acl_tables, acl_pattern.get()) != 0)
        throw std::runtime_error("ebpf backend: map of an access list: " + error_text(errno));
    LibbpfLog::clear();
    if (const int error = sflow_tc_bpf__load(skeleton_.get()); error != 0) {
        std::string reason = error_text(error);
        if (!LibbpfLog::last_warning().empty())
            reason += " (" + LibbpfLog::last_warning() + ")";
        throw std::runtime_error("ebpf backend: load of the programs: " + reason +
                                 ", needs Linux 5.12 or newer with BPF and its ring buffer");
    }
    counters_ = std::make_unique<CounterMap>(bpf_map__fd(skeleton_->maps.counters), rows);
    acls_ =
        std::make_unique<BpfAclTables>(log_, bpf_map__fd(skeleton_->maps.acl_tables), options.max_acls + 1);
    ring_.reset(ring_buffer__new(bpf_map__fd(skeleton_->maps.events), on_event, this, nullptr));
    if (!ring_)
        throw std::runtime_error("ebpf backend: ring buffer: " + error_text(errno));
}

std::uint32_t BpfBackend::capacity() const
{
    return SFLOW_PORT_INGRESS | SFLOW_PORT_EGRESS | SFLOW_SVI_INGRESS | SFLOW_SVI_EGRESS | SFLOW_SUB_INGRESS |
           SFLOW_SUB_EGRESS | SFLOW_PORT_INGRESS_ACL | SFLOW_SVI_INGRESS_ACL | SFLOW_SUB_INGRESS_ACL |
           SFLOW_PORT_INGRESS_SNOOP | SFLOW_SVI_INGRESS_SNOOP | SFLOW_SUB_INGRESS_SNOOP;
}

int BpfBackend::program_fd(Hook hook) const
{
    switch (hook) {
    case Hook::ingress:
        return bpf_program__fd(skeleton_->progs.sflow_ingress);
    case Hook::egress:
        return bpf_program__fd(skeleton_->progs.sflow_egress);
    case Hook::snoop:
        return bpf_program__fd(skeleton_->progs.sflow_snoop);
    }
    return -1;
}

bool BpfBackend::write_config(SamplerKey key, const Sampler &sampler, bool on)
{
    const Threshold threshold = threshold_of(sampler.settings.rate);
    sflow_sampler_config config = {};
    config.flags = (on ? SFLOW_SAMPLER_ON : 0U) | (threshold.take_all ? SFLOW_SAMPLER_TAKE_ALL : 0U) |
                   (sampler.settings.limited() ? SFLOW_SAMPLER_LIMITED : 0U);
    for (std::size_t i = 0; i < sampler.settings.acls.size(); ++i)
        config.acl_slots[i] = acls_->slot_of(sampler.settings.acls[i]);
    config.threshold = threshold.threshold;
    config.equal_threshold = threshold.equal_threshold;
    config.header_len = std::clamp<std::uint32_t>(sampler.settings.header_len, 1, SFLOW_EVENT_HEADER_LEN);
    config.slot = sampler.slot;
    config.generation = sampler.generation;
    const sflow_sampler_key map_key = {.ifindex = key.ifindex, .hook = static_cast<std::uint32_t>(key.hook)};
    if (bpf_map_update_elem(bpf_map__fd(skeleton_->maps.samplers), &map_key, &config, BPF_ANY) == 0)
        return true;
    log_.error("interface ", links_.name_of(key.ifindex), ": settings of the ", hook_name(key.hook),
               " sampler: ", error_text(errno));
    return false;
}

Answer BpfBackend::attach(SamplerKey key, Sampler &sampler)
{
    int error = 0;
    std::string reason;
    if (key.hook == Hook::snoop) {
        sampler.snoop_socket = open_snoop_socket(key.ifindex, program_fd(key.hook));
        error = sampler.snoop_socket ? 0 : -errno;
        reason = error_text(error);
    } else {
        error = tc_.attach(key, program_fd(key.hook));
        reason = tc_.last_reason();
    }
    if (error == 0) {
        sampler.hooked = true;
        return Answer::ok;
    }
    log_.error("interface ", links_.name_of(key.ifindex), ": ", hook_name(key.hook), " hook: ", reason,
               ", not sampled");
    return error == -ENODEV ? Answer::no_interface : Answer::hook_refused;
}

void BpfBackend::detach(SamplerKey key, Sampler &sampler)
{
    if (!sampler.hooked)
        return;
    if (key.hook == Hook::snoop)
        sampler.snoop_socket.reset();
    else
        tc_.detach(key);
    sampler.hooked = false;
}

Answer BpfBackend::start(SamplerKey key, SamplerSettings settings)
{
    const auto present = samplers_.find(key);
    return present != samplers_.end() ? change(key, *present->second, settings) : create(key, settings);
}

Answer BpfBackend::change(SamplerKey key, Sampler &sampler, SamplerSettings settings)
{
    const SamplerSettings before = std::exchange(sampler.settings, settings);
    // a hook that was taken away and could not be put back is tried again with each setting
    const Answer answer = sampler.hooked ? Answer::ok : attach(key, sampler);
    if (answer == Answer::ok && write_config(key, sampler, true))
        return Answer::ok;
    sampler.settings = before;
    return answer == Answer::ok ? Answer::hook_refused : answer;
}

Answer BpfBackend::create(SamplerKey key, SamplerSettings settings)
{
    const Link *link = links_.find(key.ifindex);
    if (link == nullptr)
        return Answer::no_interface;
    if (!can_be_sampled(*link))
        return Answer::type_unsupported;
    if (free_slots_.empty())
        return Answer::too_many_samplers;

    auto sampler = std::make_unique<Sampler>();
    sampler->key = key;
    sampler->settings = settings;
    sampler->slot = free_slots_.back();
    sampler->generation = next_generation_++;
    sampler->seen.resize(cpus_);
    sampler->device_tags = links_.device_tags(key.ifindex);
    std::fill_n(counters_->row + std::size_t{sampler->slot} * cpus_, cpus_, sflow_sampler_counters{});
    auto &source = sources_[key.ifindex];
    if (!source)
        source = std::make_unique<Source>();
    sampler->source = source.get();
    ++source->samplers;
    free_slots_.pop_back();
    by_slot_[sampler->slot] = sampler.get();
    const auto entry = samplers_.emplace(key, std::move(sampler)).first;

    // the settings first: not one packet that passes the hook goes uncounted
    Answer answer = write_config(key, *entry->second, true) ? Answer::ok : Answer::hook_refused;
    if (answer == Answer::ok)
        answer = attach(key, *entry->second);
    if (answer != Answer::ok)
        release(entry);
    return answer;
}

void BpfBackend::pause(SamplerKey key)
{
    if (const auto sampler = samplers_.find(key);
        sampler != samplers_.end() && !write_config(key, *sampler->second, false))
        release(sampler); // a sampler that cannot be silenced must not stay
}

void BpfBackend::remove(SamplerKey key)
{
    if (const auto sampler = samplers_.find(key); sampler != samplers_.end())
        release(sampler);
}

void BpfBackend::release(std::map<SamplerKey, std::unique_ptr<Sampler>>::iterator entry)
{
    Sampler &sampler = *entry->second;
    detach(entry->first, sampler);
    const sflow_sampler_key map_key = {.ifindex = entry->first.ifindex,
                                       .hook = static_cast<std::uint32_t>(entry->first.hook)};
    bpf_map_delete_elem(bpf_map__fd(skeleton_->maps.samplers), &map_key);
    by_slot_[sampler.slot] = nullptr;
    free_slots_.push_back(sampler.slot);
    if (--sampler.source->samplers == 0)
        sources_.erase(entry->first.ifindex);
    samplers_.erase(entry);
}

void BpfBackend::forget_interface(IFINDEX ifindex)
{
    for (const Hook hook : {Hook::ingress, Hook::egress, Hook::snoop}) {
        const auto sampler = samplers_.find({.ifindex = ifindex, .hook = hook});
        if (sampler == samplers_.end())
            continue;
        sampler->second->hooked = false; // went with the interface
        release(sampler);
    }
    tc_.forget(ifindex);
}

void BpfBackend::restore_hooks(IFINDEX ifindex, bool qdisc_gone)
{
    for (auto &[key, sampler] : samplers_) {
        if ((ifindex == 0 || key.ifindex == ifindex) && key.hook != Hook::snoop)
            restore_hook(key, *sampler, qdisc_gone);
    }
}

void BpfBackend::restore_hook(SamplerKey key, Sampler &sampler, bool qdisc_gone)
{
    if (links_.find(key.ifindex) == nullptr)
        return; // the interface has gone with all its hooks
    if (tc_.has_hook(key)) {
        sampler.hooked = true;
        return;
    }
    if (qdisc_gone)
        tc_.forget(key.ifindex);
    // what is told once about a hook that cannot be put back is not told again with every notice
    const bool was_hooked = std::exchange(sampler.hooked, false);
    if (const int error = tc_.attach(key, program_fd(key.hook)); error == 0) {
        sampler.hooked = true;
        log_.warning("interface ", links_.name_of(key.ifindex), ": ", hook_name(key.hook),
                     " hook: somebody else removed it, it is back");
    } else if (was_hooked && error != -ENODEV) {
        log_.error("interface ", links_.name_of(key.ifindex), ": ", hook_name(key.hook),
                   " hook: somebody else removed it and it cannot be put back: ", tc_.last_reason(),
                   ", not sampled until that has changed");
    }
}

bool BpfBackend::take_event(const sflow_sample_event &event)
{
    Sampler *sampler = event.slot < by_slot_.size() ? by_slot_[event.slot] : nullptr;
    if (sampler == nullptr || sampler->generation != event.generation || event.cpu >= cpus_) {
        ++stale_events_; // taken before its sampler was removed
        return true;
    }
    Sampler::Seen &seen = sampler->seen[event.cpu];
    sampler->pool += event.pool - seen.pool;
    sampler->source->drops += event.dropped - seen.dropped;
    seen = {.pool = event.pool, .dropped = event.dropped};

    Sample sample;
    sample.sampler = sampler->key;
    if (sampler->key.hook != Hook::egress)
        sample.input = sampler->key.ifindex;
    else if (event.ingress_ifindex == 0)
        sample.input = no_input_interface;
    else
        // the member by which it came in is not known any more
        sample.input = links_.is_vrf(event.ingress_ifindex) ? unknown_interface : event.ingress_ifindex;
    sample.frame_len = event.frame_len;
    sample.header_len = sampler->settings.header_len;
    sample.pool = sampler->pool;
    sample.drops = sampler->source->drops;
    if (event.vlan_present != 0)
        sample.tag = VlanTag{.protocol = __builtin_bswap16(event.vlan_proto), .tci = event.vlan_tci};
    sample.device_tags = sampler->device_tags;
    sample.header = {event.header, std::min<std::size_t>(event.header_len, SFLOW_EVENT_HEADER_LEN)};
    return sink_.take(sample);
}

int BpfBackend::on_event(void *backend, void *data, std::size_t size)
{
    auto &self = *static_cast<BpfBackend *>(backend);
    if (size >= sizeof(sflow_sample_event) &&
        !self.take_event(*static_cast<const sflow_sample_event *>(data)))
        self.refused_ = true;
    // An error ends the pass; the event at hand has been consumed all the same.
    return self.refused_ || --self.slice_left_ == 0 ? -ECANCELED : 0;
}

BpfBackend::Pass BpfBackend::read_ring()
{
    slice_left_ = slice_samples;
    const int result = ring_buffer__consume(ring_.get());
    if (refused_) {
        loop_.modify(ring_buffer__epoll_fd(ring_.get()), 0);
        return Pass::part;
    }
    sink_.drained();
    if (result == -ECANCELED)
        return Pass::part;
    if (result < 0)
        log_.warning("ring buffer: read: ", error_text(result));
    return result > 0 ? Pass::all : Pass::nothing;
}

void BpfBackend::set_polling(bool on)
{
    polling_ = on;
    __atomic_store_n(&skeleton_->bss->consumer_polls, on ? 1U : 0U, __ATOMIC_SEQ_CST);
}

void BpfBackend::poll_after(Clock::duration delay)
{
    loop_.cancel(poll_timer_);
    poll_timer_ = loop_.call_after(delay, [this] {
        poll_timer_ = 0;
        consume();
    });
}

void BpfBackend::consume()
{
    if (refused_)
        return;
    Pass pass = read_ring();
    if (pass == Pass::nothing && polling_) {
        // Back to being woken. What came just before the kernel half could know of it woke nobody: look once more,
        // and a last time when it must have been seen on every CPU.
        set_polling(false);
        pass = read_ring();
        if (pass == Pass::nothing)
            poll_after(recheck_delay);
    }
    if (pass == Pass::nothing || refused_)
        return;
    if (!polling_)
        set_polling(true);
    poll_after(pass == Pass::part ? Clock::duration::zero() : poll_interval);
}

void BpfBackend::resume()
{
    if (!std::exchange(refused_, false))
        return;
    loop_.modify(ring_buffer__epoll_fd(ring_.get()), EPOLLIN);
    poll_after(Clock::duration::zero());
}

SamplerTotals BpfBackend::totals(SamplerKey key) const
{
    SamplerTotals totals;
    const auto sampler = samplers_.find(key);
    if (sampler == samplers_.end())
        return totals;
    const sflow_sampler_counters *row = counters_->row + std::size_t{sampler->second->slot} * cpus_;
    for (unsigned cpu = 0; cpu < cpus_; ++cpu) {
        totals.pool += __atomic_load_n(&row[cpu].pool, __ATOMIC_RELAXED);
        totals.taken += __atomic_load_n(&row[cpu].taken, __ATOMIC_RELAXED);
        totals.dropped += __atomic_load_n(&row[cpu].dropped, __ATOMIC_RELAXED);
    }
    return totals;
}

std::string BpfBackend::status() const
{
    return std::string("ring buffer ") + (refused_ ? "waits for the daemon" : "is read") + ", " +
           std::to_string(samplers_.size()) + " samplers, " + std::to_string(acls_->size()) +
           " access lists, " + std::to_string(stale_events_) + " samples of removed samplers discarded";
}

} // namespace sampling
