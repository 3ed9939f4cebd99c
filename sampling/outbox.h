// What leaves for the daemon: answers first, then samples, in whole packets, never blocking.
//
// Answers wait in a queue of their own until the socket takes them, and are never dropped while the connection
// lasts. Samples wait in one packet only, of up to three records; when the socket takes no more, the packet is kept
// and the caller is told to bring no more, so that loss happens in the backend's buffer, where it is counted.
#pragma once

#include "records.h"

#include <cstddef>
#include <deque>
#include <vector>

namespace sampling
{

class Outbox
{
public:
    /// Samples a packet: the most that fits SFLOW_MSG_MAX_LEN bytes.
    static constexpr std::size_t samples_per_packet = SFLOW_MSG_MAX_LEN / sizeof(sflow_flow_spl_t);

    enum class State {
        clear,   ///< everything that was to go out has gone
        blocked, ///< the socket takes no more for the moment
        broken,  ///< the connection is gone
    };

    /// Starts afresh on this connected SOCK_SEQPACKET socket (not owned); -1: on none, everything is discarded.
    void reset(int fd);

    /// Queues a record ahead of all samples; goes out with the next flush().
    void add_answer(Bytes record);
    /// Room for one more sample's record; the caller fills it and calls commit_sample(). There is room unless a
    /// commit_sample() since the last clear flush() answered with blocked.
    [[nodiscard]] sflow_flow_spl_t &next_sample() { return samples_[sample_count_]; }
    /// Counts the sample in; sends the packet when it is full. Blocked: bring no more until flush() is clear.
    State commit_sample();
    /// Sends everything that waits, also a packet of samples that is not full.
    State flush();

    /// The last attempt to send found the socket full.
    [[nodiscard]] bool blocked() const { return blocked_; }
    /// Packets of answers that wait.
    [[nodiscard]] std::size_t waiting_answers() const { return answers_.size(); }

    /// Since construction.
    struct Statistics {
        std::uint64_t packets = 0;
        std::uint64_t samples = 0;
        std::uint64_t answers = 0;
        std::uint64_t blocked = 0; ///< times that the socket was full
    };
    [[nodiscard]] const Statistics &statistics() const { return statistics_; }

private:
    [[nodiscard]] State send_packet(Bytes packet);
    [[nodiscard]] State send_answers();

    int fd_ = -1;
    bool blocked_ = false;
    std::deque<std::vector<std::byte>> answers_; ///< packets of whole records
    std::array<sflow_flow_spl_t, samples_per_packet> samples_ = {};
    std::size_t sample_count_ = 0;
    Statistics statistics_;
};
static_assert(Outbox::samples_per_packet == 3);

} // namespace sampling
