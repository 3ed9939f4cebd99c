// Feeds the receivers with samples of any size, under any settings, and takes every datagram apart with a reader of
// its own: lengths add up, counts agree, sequence numbers follow, nothing is larger than it may be. The kernel is
// played, so that each sendmsg() ends in check_datagram().
#include "must.h"

#include "../unit/export_doubles.h"
#include "../unit/export_syscalls.h"

#include "fake_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

using namespace export_test;

namespace
{

/// Takes values off the fuzzer's bytes; zero when there are none left.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t len) : data_(data), len_(len) {}

    [[nodiscard]] bool empty() const { return len_ == 0; }
    std::uint8_t byte()
    {
        if (len_ == 0)
            return 0;
        len_--;
        return *data_++;
    }
    std::uint32_t word()
    {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; i++)
            value = value << 8 | byte();
        return value;
    }

private:
    const std::uint8_t *data_;
    std::size_t len_;
};

/// Reads big-endian words; a read beyond the end ends the program.
class Reader
{
public:
    Reader(const std::uint8_t *bytes, std::size_t len) : at_(bytes), end_(bytes + len) {}

    std::uint32_t word()
    {
        const std::uint8_t *field = take(4);
        return static_cast<std::uint32_t>(field[0]) << 24 | static_cast<std::uint32_t>(field[1]) << 16 |
               static_cast<std::uint32_t>(field[2]) << 8 | field[3];
    }
    const std::uint8_t *take(std::size_t len)
    {
        MUST(len <= left());
        const std::uint8_t *field = at_;
        at_ += len;
        return field;
    }
    Reader part(std::size_t len) { return {take(len), len}; }
    [[nodiscard]] std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

private:
    const std::uint8_t *at_;
    const std::uint8_t *end_;
};

struct Expected {
    std::uint32_t agent_type = 0;
    std::uint32_t seqno = 0;
    std::uint32_t samples = 0; ///< held by the receiver
    std::size_t max_len = 0;
    std::size_t max_header = 0;
};
Expected expected;
bool datagram_seen = false;

void check_flow_sample(Reader sample)
{
    sample.word(); // sequence number
    MUST(sample.word() == 0);
    sample.take(4 * 4); // source, rate, pool, drops
    MUST(sample.word() == 0);
    sample.word();
    MUST(sample.word() == 0);
    sample.word();
    MUST(sample.word() == 2);

    MUST(sample.word() == 1001);
    Reader ex_switch = sample.part(sample.word());
    MUST(ex_switch.left() == 16);

    MUST(sample.word() == 1);
    Reader raw = sample.part(sample.word());
    MUST(raw.word() == 1);
    raw.take(2 * 4); // frame length, stripped
    const std::uint32_t header_len = raw.word();
    MUST(header_len % 4 == 0);
    MUST(header_len <= expected.max_header);
    MUST(raw.left() == header_len);
    MUST(sample.left() == 0);
}

void check_counters_sample(Reader sample)
{
    sample.word(); // sequence number
    const std::uint32_t source = sample.word();
    MUST(sample.word() == 2);

    MUST(sample.word() == 1);
    Reader generic = sample.part(sample.word());
    MUST(generic.left() == 88);
    MUST(generic.word() == source);
    MUST(generic.word() == 6);
    generic.take(76);
    MUST(generic.word() == 2);

    MUST(sample.word() == 2);
    MUST(sample.part(sample.word()).left() == 52);
    MUST(sample.left() == 0);
}

void check_datagram(const std::uint8_t *bytes, std::size_t len)
{
    datagram_seen = true;
    MUST(len <= expected.max_len);
    Reader datagram(bytes, len);
    MUST(datagram.word() == 5);
    MUST(datagram.word() == expected.agent_type);
    datagram.take(expected.agent_type == 1 ? 4 : 16);
    MUST(datagram.word() == 0);
    MUST(datagram.word() == expected.seqno);
    datagram.word(); // uptime
    const std::uint32_t samples = datagram.word();
    MUST(samples == expected.samples);
    for (std::uint32_t i = 0; i < samples; i++) {
        const std::uint32_t tag = datagram.word();
        Reader sample = datagram.part(datagram.word());
        MUST(tag == 2 || tag == 3);
        if (tag == 3)
            check_flow_sample(sample);
        else
            check_counters_sample(sample);
    }
    MUST(datagram.left() == 0);
}

/// Takes down what the receiver holds, so that a datagram that leaves during the next operation can be judged.
void expect_next(std::size_t largest_sample)
{
    const sflreceiver_t *one = receiver(1);
    const std::size_t header = expected.agent_type == 1 ? 28 : 40;
    expected.seqno = one->seqno;
    expected.samples = one->flow_sample_num + one->counter_sample_num;
    // A sample larger than the maximum travels alone.
    expected.max_len = std::min<std::size_t>(
        SFLOW_DATAGRAM_BYTES, std::max<std::size_t>(one->maxdatagramsize, header + largest_sample));
    datagram_seen = false;
}

void check_bookkeeping()
{
    const sflreceiver_t *one = receiver(1);
    MUST(one->pktlen <= SFLOW_DATAGRAM_BYTES);
    MUST(one->pktlen >= (expected.agent_type == 1 ? 28U : 40U));
    MUST(one->pktlen % 4 == 0);
    MUST(one->datap == one->data + one->pktlen / 4);
    MUST(!datagram_seen || one->seqno == expected.seqno + 1);
}

class Session
{
public:
    explicit Session(Input &input) : input_(input)
    {
        set_agent(input_.byte());
        set_collector(1, input_.byte() % 2 == 0 ? "198.51.100.9" : "2001:db8::9");
        port_ = add_interface(7, 1, 1);
        other_ = add_interface(0xfffffffe, 1, 1);
    }

    void run()
    {
        while (!input_.empty()) {
            expect_next(largest_sample_);
            step(input_.byte() % 8);
            check_bookkeeping();
        }
        expect_next(largest_sample_);
        flush();
        check_bookkeeping();
    }

private:
    void step(int kind)
    {
        switch (kind) {
        case 0:
            write_counters();
            break;
        case 1:
            // Keep what was built under the old setting from being judged by the new one.
            flush();
            change_setting();
            break;
        case 2:
            flush();
            break;
        case 3:
            fail_call("socket", 1, EMFILE);
            break;
        default:
            write_flow(kind);
            break;
        }
    }

    void write_flow(int kind)
    {
        sflow_flow_info_t info = {};
        info.source_id = input_.word();
        info.sample_pool = input_.word();
        int buf_len = static_cast<int>(kind < 6 ? input_.byte() : input_.word());
        // Bytes that are really there, as the contract asks for; what they claim beyond that is the sampler's matter.
        const int most = static_cast<int>(2 * SFLOW_DATAGRAM_BYTES);
        buf_len = std::min(buf_len, most);
        const std::vector<char> buf(static_cast<std::size_t>(std::max(buf_len, 0)), static_cast<char>(kind));
        sflow_intf_config_t *const sources[] = {port_, other_, nullptr};
        sflow_config_wrlock();
        sflow_receiver_write_flowsample(buf.data(), buf_len, info, sources[input_.byte() % 3]);
        sflow_config_wrunlock();
        const std::size_t padded = (buf.size() + 3) / 4 * 4;
        largest_sample_ = std::max(largest_sample_, 100 + std::min(padded, max_header_));
    }

    void write_counters()
    {
        sflow_msg_counter_t msg;
        std::memset(&msg, input_.byte(), sizeof(msg));
        largest_sample_ = std::max<std::size_t>(largest_sample_, 176);
        sflow_config_rdlock();
        sflow_receiver_write_countersample(&msg, port_);
        sflow_config_rdunlock();
    }

    void change_setting()
    {
        switch (input_.byte() % 4) {
        case 0:
            receiver(1)->maxdatagramsize = input_.word();
            break;
        case 1: {
            const std::uint32_t maxhlen = input_.byte() % 2 == 0 ? input_.byte() : input_.word();
            sflow_config_wrlock();
            sflow_agent.g_config.maxhlen = maxhlen;
            sflow_config_wrunlock();
            max_header_ = (std::size_t{maxhlen} + 3) / 4 * 4;
            expected.max_header = max_header_;
            break;
        }
        case 2:
            set_agent(input_.byte());
            break;
        default:
            world().uptime_sec = input_.word();
            break;
        }
        largest_sample_ = 0;
        expect_next(0);
    }

    static void set_agent(std::uint8_t choice)
    {
        set_agent_address(choice % 2 == 0 ? "192.0.2.1" : "2001:db8::1");
        expected.agent_type = choice % 2 == 0 ? 1 : 2;
    }

    static void flush()
    {
        sflow_config_wrlock();
        sflow_receiver_send_all_receiver_sample();
        sflow_config_wrunlock();
    }

    Input &input_;
    sflow_intf_config_t *port_ = nullptr;
    sflow_intf_config_t *other_ = nullptr;
    std::size_t max_header_ = SFLOW_DEFAULT_MAX_HEADER;
    std::size_t largest_sample_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t len)
{
    fake::reset();
    reset_syscalls();
    record_nothing();
    watch_sent(check_datagram);
    reset_world();
    expected = {};
    expected.max_header = SFLOW_DEFAULT_MAX_HEADER;
    Input input(data, len);
    Session session(input);
    session.run();
    clear_world();
    return 0;
}
