// Backend `replay`: plays a capture file as if its packets passed on interfaces of this machine.
//
// Sampling happens here, with the same rate semantics as in the kernel. The replay begins with the first sampler that
// is switched on for one of its interfaces, so that nothing passes before anybody looks; it then runs to its end
// whether anybody looks or not, and the service keeps serving afterwards. Packets come in the capture's own timing,
// scaled, or as fast as they are taken. When the daemon takes no more, the replay waits: it loses nothing.
//
// Needs no privilege. The interfaces must exist, because the daemon knows interfaces by the kernel's index; their
// counters are those of the replayed packets.
#pragma once

#include "backend.h"
#include "counters.h"
#include "event_loop.h"
#include "links.h"
#include "log.h"
#include "probability.h"

#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

struct pcap;

namespace sampling
{

struct ReplayOptions {
    std::string file;
    std::vector<std::string> ingress;  ///< names of interfaces that receive each packet
    std::vector<std::string> egress;   ///< names of interfaces that send each packet
    double speed = 1.0;                ///< factor on the capture's timing; 0: as fast as possible
    std::uint64_t loops = 1;           ///< how often the file is played; 0: without end
    std::optional<std::uint64_t> seed; ///< for repeatable sampling
};

class ReplayBackend final : public Backend
{
public:
    /// Throws std::runtime_error when the file cannot be read, is no Ethernet capture, or an interface is missing.
    ReplayBackend(EventLoop &loop, Log &log, LinkTable &links, SampleSink &sink, ReplayOptions options);
    ~ReplayBackend() override;

    [[nodiscard]] std::string_view name() const override { return "replay"; }
    [[nodiscard]] std::uint32_t capacity() const override;
    [[nodiscard]] Answer start(SamplerKey key, SamplerSettings settings) override;
    [[nodiscard]] bool install_acl(const acl::List &list) override;
    void withhold_acl(std::int32_t id) override { acls_.erase(id); }
    void drop_acl(std::int32_t id) override { acls_.erase(id); }
    void pause(SamplerKey key) override;
    void remove(SamplerKey key) override;
    void forget_interface(IFINDEX ifindex) override;
    void resume() override;
    [[nodiscard]] SamplerTotals totals(SamplerKey key) const override;
    [[nodiscard]] std::optional<rtnl_link_stats64> own_counters(IFINDEX ifindex) const override;
    [[nodiscard]] std::string status() const override;

    /// Packets played so far.
    [[nodiscard]] std::uint64_t packets() const { return packets_; }
    [[nodiscard]] bool finished() const { return state_ == State::finished; }

private:
    enum class State { waiting, playing, finished };

    struct PcapDeleter {
        void operator()(pcap *file) const;
    };
    struct Frame {
        Clock::duration at{}; ///< since the first packet of the file
        std::uint32_t frame_len = 0;
        std::span<const std::uint8_t> bytes;
    };
    struct Sampler {
        SamplerSettings settings;
        Threshold threshold;
        bool on = true;
        SamplerTotals totals;
    };

    void open();
    void add_interfaces(const std::vector<std::string> &names, Hook hook);
    void schedule(Clock::duration delay);
    void play_slice();
    [[nodiscard]] bool next_frame();
    void end_of_file();
    /// Lets the pending packet pass where it has not passed yet; false when the sink refused more on the way.
    [[nodiscard]] bool play_pending();
    [[nodiscard]] bool sample(SamplerKey key, const Frame &frame);
    /// Whether one of the lists in force permits the frame, as far as the capture has it.
    [[nodiscard]] bool permitted(const AclIds &acls, const Frame &frame) const;
    void count(IFINDEX ifindex, Hook hook, const Frame &frame);

    EventLoop &loop_;
    Log &log_;
    LinkTable &links_;
    SampleSink &sink_;
    ReplayOptions options_;
    std::unique_ptr<pcap, PcapDeleter> file_;
    std::vector<SamplerKey> places_; ///< where each packet passes
    std::unordered_map<IFINDEX, rtnl_link_stats64> counters_;
    std::map<SamplerKey, Sampler> samplers_;
    std::map<std::int32_t, acl::List> acls_; ///< in force
    std::mt19937_64 random_;

    State state_ = State::waiting;
    bool refused_ = false;
    EventLoop::TimerId timer_ = 0;
    std::optional<Frame> pending_; ///< read, has not passed everywhere; its bytes belong to libpcap
    std::size_t next_place_ = 0;   ///< of `places_`: where the pending packet passes next
    std::optional<std::int64_t> first_stamp_; ///< nanoseconds, of this pass's first packet
    Clock::time_point began_;                 ///< moment of this pass's first packet
    std::uint64_t passes_ = 0;
    std::uint64_t packets_ = 0;
    std::uint64_t octets_ = 0;
    std::uint64_t samples_ = 0;
};

} // namespace sampling
