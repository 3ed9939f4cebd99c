// Backend `ebpf`: samples in the kernel, on tc hooks and packet sockets.
//
// Loads the programs of sflow_tc.bpf.c once; a sampler is an entry of their configuration map, a row of their
// counters and a hook. Sampled headers arrive over one ring buffer. Losses happen in one place only, where the ring
// buffer is full, and are counted there by the kernel half: when the sink refuses more, the ring buffer is simply
// not read.
#pragma once

#include "backend.h"
#include "bpf_acl_tables.h"
#include "event_loop.h"
#include "hook_watch.h"
#include "links.h"
#include "log.h"
#include "tc_hook.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

struct ring_buffer;
struct sflow_sample_event;
struct sflow_sampler_counters;
struct sflow_tc_bpf;

namespace sampling
{

struct BpfOptions {
    std::uint32_t ring_bytes = 16 * 1024 * 1024; ///< size of the ring buffer: a power of two, at least a page
    std::uint32_t max_samplers = 8192;           ///< hooks that can be sampled at a time
    std::uint32_t max_acls = 1024;               ///< access lists that can be in use at a time
};

class BpfBackend final : public Backend
{
public:
    /// Loads the programs, removes hooks of an earlier run, checks that hooks can be attached.
    /// Throws std::runtime_error with one line that names what is missing (privilege or kernel feature).
    BpfBackend(EventLoop &loop, Log &log, LinkTable &links, SampleSink &sink, const BpfOptions &options);
    /// Removes every hook.
    ~BpfBackend() override;

    [[nodiscard]] std::string_view name() const override { return "ebpf"; }
    [[nodiscard]] std::uint32_t capacity() const override;
    [[nodiscard]] Answer start(SamplerKey key, SamplerSettings settings) override;
    [[nodiscard]] bool install_acl(const acl::List &list) override { return acls_->install(list); }
    void withhold_acl(std::int32_t id) override { acls_->withhold(id); }
    void drop_acl(std::int32_t id) override { acls_->drop(id); }
    void pause(SamplerKey key) override;
    void remove(SamplerKey key) override;
    void forget_interface(IFINDEX ifindex) override;
    void resume() override;
    [[nodiscard]] SamplerTotals totals(SamplerKey key) const override;
    [[nodiscard]] std::string status() const override;

    /// Reads at most one slice of the ring buffer into the sink. Called by the event loop (and by tests).
    ///
    /// The first sample after a pause wakes the service at once. From then on it looks by itself every
    /// `poll_interval`, and the kernel half wakes nobody, until a look finds nothing.
    void consume();
    static constexpr Clock::duration poll_interval = std::chrono::milliseconds(2);

    /// Descriptor of the loaded program of a hook, owned by the backend.
    [[nodiscard]] int program_fd(Hook hook) const;

private:
    struct Source;
    struct Sampler;
    struct SkeletonDeleter {
        void operator()(sflow_tc_bpf *skeleton) const;
    };
    struct RingDeleter {
        void operator()(ring_buffer *ring) const;
    };
    struct CounterMap;

    void load(const BpfOptions &options);
    [[nodiscard]] Answer attach(SamplerKey key, Sampler &sampler);
    void detach(SamplerKey key, Sampler &sampler);
    [[nodiscard]] Answer create(SamplerKey key, SamplerSettings settings);
    [[nodiscard]] Answer change(SamplerKey key, Sampler &sampler, SamplerSettings settings);
    [[nodiscard]] bool write_config(SamplerKey key, const Sampler &sampler, bool on);
    /// Puts back the hooks on an interface (0: on all) that somebody else has taken away.
    void restore_hooks(IFINDEX ifindex, bool qdisc_gone);
    void restore_hook(SamplerKey key, Sampler &sampler, bool qdisc_gone);
    void release(std::map<SamplerKey, std::unique_ptr<Sampler>>::iterator sampler);
    enum class Pass { nothing, all, part };
    [[nodiscard]] Pass read_ring();
    void poll_after(Clock::duration delay);
    void set_polling(bool on);
    [[nodiscard]] bool take_event(const sflow_sample_event &event);
    static int on_event(void *backend, void *data, std::size_t size);

    EventLoop &loop_;
    Log &log_;
    LinkTable &links_;
    SampleSink &sink_;
    LibbpfLog libbpf_log_;
    TcControl tc_;
    HookWatch watch_;
    unsigned cpus_;
    std::unique_ptr<sflow_tc_bpf, SkeletonDeleter> skeleton_;
    std::unique_ptr<CounterMap> counters_;
    std::unique_ptr<BpfAclTables> acls_;
    std::unique_ptr<ring_buffer, RingDeleter> ring_;
    std::map<SamplerKey, std::unique_ptr<Sampler>> samplers_;
    std::unordered_map<IFINDEX, std::unique_ptr<Source>> sources_;
    std::vector<Sampler *> by_slot_;
    std::vector<std::uint32_t> free_slots_;
    std::uint32_t next_generation_ = 1;
    unsigned slice_left_ = 0;
    EventLoop::TimerId poll_timer_ = 0;
    bool polling_ = false;
    bool refused_ = false; ///< the sink takes no more for the moment
    std::uint64_t stale_events_ = 0;
};

} // namespace sampling
