#include "outbox.h"

#include <cerrno>
#include <sys/socket.h>

namespace sampling
{

void Outbox::reset(int fd)
{
    fd_ = fd;
    blocked_ = false;
    answers_.clear();
    sample_count_ = 0;
}

void Outbox::add_answer(Bytes record)
{
    if (fd_ < 0)
        return;
    if (answers_.empty() || answers_.back().size() + record.size() > SFLOW_MSG_MAX_LEN)
        answers_.emplace_back();
    answers_.back().insert(answers_.back().end(), record.begin(), record.end());
    ++statistics_.answers;
}

Outbox::State Outbox::send_packet(Bytes packet)
{
    const ssize_t sent = ::send(fd_, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
        blocked_ = false;
        ++statistics_.packets;
        return State::clear;
    }
    if (errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM) {
        blocked_ = true;
        ++statistics_.blocked;
        return State::blocked;
    }
    return State::broken;
}

Outbox::State Outbox::send_answers()
{
    while (!answers_.empty()) {
        if (const State state = send_packet(answers_.front()); state != State::clear)
            return state;
        answers_.pop_front();
    }
    return State::clear;
}

Outbox::State Outbox::commit_sample()
{
    ++sample_count_;
    ++statistics_.samples;
    if (sample_count_ == samples_per_packet)
        return flush();
    return blocked_ ? State::blocked : State::clear;
}

Outbox::State Outbox::flush()
{
    if (fd_ < 0) {
        sample_count_ = 0;
        return State::clear;
    }
    State state = send_answers();
    if (state != State::clear || sample_count_ == 0)
        return state;
    state = send_packet(std::as_bytes(std::span(samples_).first(sample_count_)));
    if (state == State::clear)
        sample_count_ = 0;
    return state;
}

} // namespace sampling
