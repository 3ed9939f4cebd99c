#include "service_connection.h"

#include "sampling_fakes.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/un.h>

namespace sampling
{
namespace
{

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class Recorder final : public ConnectionHandler
{
public:
    void on_connect(std::uint64_t daemon) override { daemons.push_back(daemon); }
    void on_record(const RecordView &record) override { types.push_back(record.type); }
    void on_disconnect() override { ++disconnects; }
    void on_writable() override { ++writables; }

    std::vector<std::uint64_t> daemons;
    std::vector<std::uint32_t> types;
    int disconnects = 0;
    int writables = 0;
};

struct Wire {
    EventLoop loop;
    LogLines log;
    Recorder recorder;
    SocketPair pair;
    ServiceConnection connection{loop, log.log, "/nonexistent/socket", recorder};

    Wire() { connection.adopt(std::move(pair.service)); }

    void send_heads(std::initializer_list<std::uint32_t> types) const
    {
        std::vector<std::byte> packet;
        for (const std::uint32_t type : types) {
            const sflow_msg_head_t head = head_of<sflow_msg_head_t>(type);
            const Bytes bytes = bytes_of(head);
            packet.insert(packet.end(), bytes.begin(), bytes.end());
        }
        pair.send(packet);
    }
};

TEST(ServiceConnection_adopt, tells_which_daemon_it_is)
{
    const Wire wire;
    EXPECT_THAT(wire.recorder.daemons, ElementsAre(0)); // it has no file
}

TEST(ServiceConnection_next_delay, doubles_up_to_the_most)
{
    const ReconnectDelays delays;
    std::vector<long> sequence;
    Clock::duration delay = delays.first;
    for (int i = 0; i < 7; ++i, delay = next_delay(delay, delays))
        sequence.push_back(static_cast<long>(std::chrono::duration_cast<milliseconds>(delay).count()));
    EXPECT_THAT(sequence, ElementsAre(100, 200, 400, 800, 1600, 2000, 2000));
}

TEST(ServiceConnection_records, every_record_of_a_packet_is_handed_over_in_order)
{
    Wire wire;
    wire.send_heads({4100, 4097, 4098});
    wire.send_heads({4097});
    settle(wire.loop);
    EXPECT_THAT(wire.recorder.types, ElementsAre(4100, 4097, 4098, 4097));
}

TEST(ServiceConnection_records, a_bad_tail_is_logged_and_what_stood_before_it_counts)
{
    Wire wire;
    std::vector<std::byte> packet(12);
    const sflow_msg_head_t head = head_of<sflow_msg_head_t>(4100);
    std::memcpy(packet.data(), &head, sizeof(head));
    wire.pair.send(packet);
    settle(wire.loop);
    EXPECT_THAT(wire.recorder.types, ElementsAre(4100));
    EXPECT_EQ(wire.log.containing("4 bytes at the end of a packet"), 1U);
    EXPECT_EQ(wire.recorder.disconnects, 0);
}

TEST(ServiceConnection_records, a_record_of_length_0_ends_its_packet_only)
{
    Wire wire;
    const sflow_msg_head_t head = {.type = 258, .len = 0};
    wire.pair.send(bytes_of(head));
    wire.send_heads({4100});
    settle(wire.loop);
    EXPECT_THAT(wire.recorder.types, ElementsAre(4100));
}

TEST(ServiceConnection_records, an_oversized_packet_is_ignored)
{
    Wire wire;
    std::vector<std::byte> packet(5000);
    wire.pair.send(packet);
    wire.send_heads({4100});
    settle(wire.loop);
    EXPECT_THAT(wire.recorder.types, ElementsAre(4100));
    EXPECT_EQ(wire.log.containing("packet of 5000 bytes"), 1U);
}

TEST(ServiceConnection_disconnect, is_told_once)
{
    Wire wire;
    wire.pair.daemon.reset();
    settle(wire.loop);
    EXPECT_EQ(wire.recorder.disconnects, 1);
    EXPECT_FALSE(wire.connection.connected());
    EXPECT_EQ(wire.log.containing("connection lost: closed by the daemon"), 1U);
}

TEST(ServiceConnection_send_answer, answers_of_one_round_share_a_packet)
{
    Wire wire;
    const sflow_msg_head_t head = head_of<sflow_msg_head_t>(4099);
    wire.connection.send_answer(bytes_of(head));
    wire.connection.send_answer(bytes_of(head));
    EXPECT_TRUE(wire.pair.receive().empty());
    settle(wire.loop);
    EXPECT_EQ(wire.pair.receive().size(), 16U);
}

TEST(ServiceConnection_send_answer, to_a_daemon_that_has_gone_disconnects_later)
{
    Wire wire;
    wire.pair.daemon.reset();
    const sflow_msg_head_t head = head_of<sflow_msg_head_t>(4099);
    wire.connection.send_answer(bytes_of(head));
    EXPECT_EQ(wire.recorder.disconnects, 0);
    settle(wire.loop);
    EXPECT_EQ(wire.recorder.disconnects, 1);
}

TEST(ServiceConnection_commit_sample, refuses_more_while_the_socket_is_full_and_tells_when_it_is_not)
{
    Wire wire;
    std::size_t sent = 0;
    bool more = true;
    for (; more && sent < 1'000'000; ++sent) {
        wire.connection.next_sample() = {};
        wire.connection.next_sample().head = head_of<sflow_flow_spl_t>(SFLOW_CMD_FLOW_SAMPLING);
        more = wire.connection.commit_sample();
    }
    ASSERT_FALSE(more);
    settle(wire.loop);
    EXPECT_EQ(wire.recorder.writables, 0);
    std::size_t received = receive_all(wire.pair).size();
    settle(wire.loop);
    EXPECT_EQ(wire.recorder.writables, 1);
    received += receive_all(wire.pair).size();
    EXPECT_EQ(received, sent);
}

TEST(ServiceConnection_flow_control, too_many_waiting_answers_stop_the_reading)
{
    Wire wire;
    // one packet a record, more than the socket takes and may wait
    constexpr std::size_t answers = 20'000;
    const std::vector<std::byte> record = [] {
        std::vector<std::byte> bytes(600);
        const sflow_msg_head_t head = {.type = 514, .len = 600};
        std::memcpy(bytes.data(), &head, sizeof(head));
        return bytes;
    }();
    for (std::size_t i = 0; i < answers; ++i)
        wire.connection.send_answer(record);
    settle(wire.loop);
    ASSERT_GT(wire.connection.outbox().waiting_answers(), 4096U);
    wire.send_heads({4100});
    settle(wire.loop);
    EXPECT_THAT(wire.recorder.types, IsEmpty());
    std::size_t received = 0;
    while (wire.connection.outbox().waiting_answers() != 0) {
        received += receive_all(wire.pair).size();
        settle(wire.loop);
    }
    received += receive_all(wire.pair).size();
    EXPECT_EQ(received, answers);
    EXPECT_THAT(wire.recorder.types, ElementsAre(4100));
}

UniqueFd listen_at(const std::string &path)
{
    UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.get(), 0), 0);
    return listener;
}

TEST(ServiceConnection_start, connects_as_soon_as_the_daemon_is_there_and_again_when_it_comes_back)
{
    const Folder folder;
    const std::string path = folder.file("domain_socket");
    EventLoop loop;
    LogLines log;
    Recorder recorder;
    ServiceConnection connection(loop, log.log, path, recorder,
                                 {.first = milliseconds(1), .most = milliseconds(2)});
    connection.start();
    for (int i = 0; i < 5; ++i)
        loop.run_once(milliseconds(5));
    EXPECT_FALSE(connection.connected());
    EXPECT_EQ(log.containing("trying again until it is there"), 1U); // once, not with each attempt

    for (int life = 1; life <= 2; ++life) {
        UniqueFd listener = listen_at(path);
        for (int i = 0; i < 1000 && !connection.connected(); ++i)
            loop.run_once(milliseconds(5));
        ASSERT_TRUE(connection.connected()) << life;
        const UniqueFd accepted(::accept(listener.get(), nullptr, nullptr));
        ASSERT_TRUE(accepted);
        listener.reset();
        std::filesystem::remove(path);
        ::shutdown(accepted.get(), SHUT_RDWR);
        for (int i = 0; i < 1000 && connection.connected(); ++i)
            loop.run_once(milliseconds(5));
        EXPECT_EQ(recorder.disconnects, life);
    }
    ASSERT_EQ(recorder.daemons.size(), 2U);
    EXPECT_NE(recorder.daemons[0], 0U);
    EXPECT_NE(recorder.daemons[0], recorder.daemons[1]);
}

} // namespace
} // namespace sampling
