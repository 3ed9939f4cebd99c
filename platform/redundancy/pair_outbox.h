// What a unit has to send: control frames at once, clients' messages in order behind them.
//
// The group takes frames one at a time and may be blocked; then they wait here, and clients' messages only up to a
// limit, beyond which a client is told to stop.
#pragma once

#include "redundancy/pair_frame.h"

#include <deque>
#include <memory>

namespace platform
{

/// Bytes of clients' messages that may wait: all interfaces of a large switch in one batch.
constexpr std::size_t OUTBOX_LIMIT = 16U << 20;

class PairOutbox
{
public:
    using Sealed = std::shared_ptr<const Bytes>;

    /// Ahead of clients' messages.
    void control(const Frame &frame) { control_.push_back(seal(frame)); }
    /// Behind clients' messages.
    void ordered(const Frame &frame)
    {
        ordered_.push_back(seal(frame));
        waiting_bytes_ += ordered_.back()->size();
    }
    /// Whether a client's message of `size` bytes would exceed the limit.
    [[nodiscard]] bool full(std::size_t size = 0) const { return waiting_bytes_ + size > OUTBOX_LIMIT; }

    /// The frame that is to be sent next; it stays until it is reported as sent. Empty: none.
    [[nodiscard]] Sealed next() const
    {
        const std::deque<Sealed> &queue = control_.empty() ? ordered_ : control_;
        return queue.empty() ? nullptr : queue.front();
    }
    /// Takes a frame out, unless it has been dropped meanwhile.
    void sent(const Sealed &frame)
    {
        if (!control_.empty() && control_.front() == frame) {
            control_.pop_front();
        } else if (!ordered_.empty() && ordered_.front() == frame) {
            waiting_bytes_ -= frame->size();
            ordered_.pop_front();
        }
    }
    void drop_ordered()
    {
        ordered_.clear();
        waiting_bytes_ = 0;
    }
    void clear()
    {
        control_.clear();
        drop_ordered();
    }

private:
    static Sealed seal(const Frame &frame) { return std::make_shared<const Bytes>(encode_frame(frame)); }

    std::deque<Sealed> control_;
    std::deque<Sealed> ordered_;
    std::size_t waiting_bytes_ = 0;
};

} // namespace platform
