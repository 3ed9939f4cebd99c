#include "replay_backend.h"

#include "acl_matcher.h"
#include "records.h"

#include <algorithm>
#include <array>
#include <pcap/pcap.h>
#include <stdexcept>

namespace sampling
{

namespace
{

// Packets played before others get their turn.
constexpr int slice_packets = 256;

constexpr std::uint8_t group_bit = 1; // of the first octet of a destination address

bool is_broadcast(std::span<const std::uint8_t> frame)
{
    return frame.size() >= 6 &&
           std::all_of(frame.begin(), frame.begin() + 6, [](auto octet) { return octet == 0xFF; });
}

bool is_group(std::span<const std::uint8_t> frame)
{
    return !frame.empty() && (frame.front() & group_bit) != 0;
}

} // namespace

void ReplayBackend::PcapDeleter::operator()(pcap *file) const
{
    pcap_close(file);
}

ReplayBackend::ReplayBackend(EventLoop &loop, Log &log, LinkTable &links, SampleSink &sink,
                             ReplayOptions options)
    : loop_(loop), log_(log), links_(links), sink_(sink), options_(std::move(options)),
      random_(options_.seed ? *options_.seed
                            : std::uint64_t{std::random_device{}()} << 32 | std::random_device{}())
{
    add_interfaces(options_.ingress, Hook::ingress);
    add_interfaces(options_.egress, Hook::egress);
    open();
}

ReplayBackend::~ReplayBackend()
{
    loop_.cancel(timer_);
}

void ReplayBackend::add_interfaces(const std::vector<std::string> &names, Hook hook)
{
    for (const std::string &name : names) {
        const IFINDEX ifindex = links_.index_of(name);
        if (ifindex == 0)
            throw std::runtime_error("replay backend: interface " + name + ": no such interface");
        places_.push_back({.ifindex = ifindex, .hook = hook});
        counters_.try_emplace(ifindex);
    }
}

void ReplayBackend::open()
{
    std::array<char, PCAP_ERRBUF_SIZE> error = {};
    file_.reset(pcap_open_offline_with_tstamp_precision(options_.file.c_str(), PCAP_TSTAMP_PRECISION_NANO,
                                                        error.data()));
    if (!file_)
        throw std::runtime_error("replay backend: capture " + options_.file + ": " + error.data());
    if (pcap_datalink(file_.get()) != DLT_EN10MB)
        throw std::runtime_error("replay backend: capture " + options_.file + ": not of Ethernet frames");
    first_stamp_.reset();
}

std::uint32_t ReplayBackend::capacity() const
{
    std::uint32_t capacity = SFLOW_PORT_INGRESS | SFLOW_SVI_INGRESS | SFLOW_SUB_INGRESS |
                             SFLOW_PORT_INGRESS_ACL | SFLOW_SVI_INGRESS_ACL | SFLOW_SUB_INGRESS_ACL;
    if (!options_.egress.empty())
        capacity |= SFLOW_PORT_EGRESS | SFLOW_SVI_EGRESS | SFLOW_SUB_EGRESS;
    return capacity;
}

Answer ReplayBackend::start(SamplerKey key, SamplerSettings settings)
{
    if (links_.find(key.ifindex) == nullptr)
        return Answer::no_interface;
    if (std::find(places_.begin(), places_.end(), key) == places_.end()) {
        log_.warning("interface ", links_.name_of(key.ifindex), ": ", hook_name(key.hook),
                     " sampling: the replay does not pass there, not sampled");
        return Answer::hook_refused;
    }
    Sampler &sampler = samplers_[key];
    sampler.settings = settings;
    sampler.threshold = threshold_of(settings.rate);
    sampler.on = true;
    if (state_ == State::waiting) {
        state_ = State::playing;
        log_.info("replay ", options_.file, ": begins");
        schedule(Clock::duration::zero());
    }
    return Answer::ok;
}

bool ReplayBackend::install_acl(const acl::List &list)
{
    acls_.insert_or_assign(list.id, list);
    return true;
}

void ReplayBackend::pause(SamplerKey key)
{
    if (const auto sampler = samplers_.find(key); sampler != samplers_.end())
        sampler->second.on = false;
}

void ReplayBackend::remove(SamplerKey key)
{
    samplers_.erase(key);
}

void ReplayBackend::forget_interface(IFINDEX ifindex)
{
    std::erase_if(samplers_, [ifindex](const auto &entry) { return entry.first.ifindex == ifindex; });
}

void ReplayBackend::resume()
{
    if (!std::exchange(refused_, false) || state_ != State::playing)
        return;
    schedule(Clock::duration::zero());
}

void ReplayBackend::schedule(Clock::duration delay)
{
    loop_.cancel(timer_);
    timer_ = loop_.call_after(delay, [this] {
        timer_ = 0;
        play_slice();
    });
}

bool ReplayBackend::next_frame()
{
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    const int result = pcap_next_ex(file_.get(), &header, &bytes);
    if (result != 1) {
        if (result != PCAP_ERROR_BREAK)
            log_.warning("replay ", options_.file, ": read: ", pcap_geterr(file_.get()),
                         ", the rest is skipped");
        return false;
    }
    const std::int64_t stamp = std::int64_t{header->ts.tv_sec} * 1'000'000'000 + header->ts.tv_usec;
    if (!first_stamp_) {
        first_stamp_ = stamp;
        began_ = Clock::now();
    }
    pending_ = Frame{.at = std::chrono::nanoseconds(stamp - *first_stamp_),
                     .frame_len = header->len,
                     .bytes = {bytes, header->caplen}};
    return true;
}

void ReplayBackend::end_of_file()
{
    ++passes_;
    if (options_.loops == 0 || passes_ < options_.loops) {
        try {
            open();
            schedule(Clock::duration::zero());
            return;
        } catch (const std::runtime_error &error) {
            log_.error(error.what(), ", the replay ends");
        }
    }
    state_ = State::finished;
    log_.info("replay ", options_.file, ": ended after ", passes_,
              passes_ == 1 ? " pass: " : " passes: ", packets_, " packets, ", octets_, " octets, ", samples_,
              " samples, still serving");
    sink_.drained();
}

void ReplayBackend::play_slice()
{
    for (int i = 0; i < slice_packets; ++i) {
        if (!pending_ && !next_frame()) {
            end_of_file();
            return;
        }
        if (options_.speed > 0) {
            const auto due =
                began_ + std::chrono::duration_cast<Clock::duration>(pending_->at / options_.speed);
            if (const auto now = Clock::now(); due > now) {
                sink_.drained();
                schedule(due - now);
                return;
            }
        }
        if (!play_pending()) {
            refused_ = true;
            return;
        }
    }
    sink_.drained();
    schedule(Clock::duration::zero());
}

bool ReplayBackend::play_pending()
{
    while (next_place_ < places_.size()) {
        const SamplerKey place = places_[next_place_++];
        count(place.ifindex, place.hook, *pending_);
        if (!sample(place, *pending_))
            return false;
    }
    ++packets_;
    octets_ += pending_->frame_len;
    pending_.reset();
    next_place_ = 0;
    return true;
}

bool ReplayBackend::permitted(const AclIds &acls, const Frame &frame) const
{
    const std::optional<PacketFields> fields = packet_fields(frame.bytes, false);
    return fields && std::any_of(acls.begin(), acls.end(), [this, &fields](std::int32_t id) {
               const auto list = acls_.find(id);
               return list != acls_.end() && permits(list->second, *fields);
           });
}

bool ReplayBackend::sample(SamplerKey key, const Frame &frame)
{
    const auto found = samplers_.find(key);
    if (found == samplers_.end() || !found->second.on)
        return true;
    Sampler &sampler = found->second;
    if (sampler.settings.limited() && !permitted(sampler.settings.acls, frame))
        return true;
    ++sampler.totals.pool;
    if (!selected(sampler.threshold, [this] { return static_cast<std::uint32_t>(random_() >> 32); }))
        return true;
    ++sampler.totals.taken;
    ++samples_;
    Sample sample;
    sample.sampler = key;
    sample.input =
        key.hook == Hook::ingress ? key.ifindex : 0; // a capture does not tell where a packet came in
    sample.frame_len = frame.frame_len;
    sample.header_len = sampler.settings.header_len;
    sample.pool = sampler.totals.pool;
    sample.header = frame.bytes;
    return sink_.take(sample);
}

void ReplayBackend::count(IFINDEX ifindex, Hook hook, const Frame &frame)
{
    rtnl_link_stats64 &counters = counters_[ifindex];
    if (hook == Hook::egress) {
        ++counters.tx_packets;
        counters.tx_bytes += frame.frame_len;
        return;
    }
    ++counters.rx_packets;
    counters.rx_bytes += frame.frame_len;
    if (is_group(frame.bytes) && !is_broadcast(frame.bytes))
        ++counters.multicast;
}

SamplerTotals ReplayBackend::totals(SamplerKey key) const
{
    const auto sampler = samplers_.find(key);
    return sampler == samplers_.end() ? SamplerTotals{} : sampler->second.totals;
}

std::optional<rtnl_link_stats64> ReplayBackend::own_counters(IFINDEX ifindex) const
{
    const auto found = counters_.find(ifindex);
    return found == counters_.end() ? std::nullopt : std::optional(found->second);
}

std::string ReplayBackend::status() const
{
    return "replay " + options_.file + ": " + std::to_string(packets_) + " packets played in " +
           std::to_string(passes_) + " whole passes" +
           (finished() ? ", ended"
            : refused_ ? ", waits"
                       : "");
}

} // namespace sampling
