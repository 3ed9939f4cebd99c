// The domain-socket server with its threads, against a sampling service that is this test: real sockets below a
// TMPDIR of its own.
#include "channel_support.h"

#include "sflow_lib_server.h"

#include "sflow_atomic.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace channel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr std::uint32_t CONNECT_NOTICE = 0x1004;
constexpr std::uint32_t TEST_RECORD = 0x77;

/// The sampling service's end.
class Service
{
public:
    explicit Service(const std::string &path) : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        connected_ = connect(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0;
    }
    ~Service() { disconnect(); }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    [[nodiscard]] bool connected() const { return connected_; }
    void disconnect()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    void send(const Bytes &packet) const
    {
        EXPECT_EQ(::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
    }

    /// The next packet; none when the daemon has nothing to say within ten seconds or hangs up.
    [[nodiscard]] std::optional<Bytes> receive() const
    {
        pollfd readable{fd_, POLLIN, 0};
        if (poll(&readable, 1, 10000) != 1)
            return std::nullopt;
        Bytes packet(2000);
        const ssize_t len = recv(fd_, packet.data(), packet.size(), 0);
        if (len < 0)
            return std::nullopt;
        packet.resize(static_cast<std::size_t>(len));
        return packet;
    }

    /// Whether something has arrived already.
    [[nodiscard]] bool pending() const
    {
        pollfd readable{fd_, POLLIN, 0};
        return poll(&readable, 1, 0) == 1;
    }

private:
    int fd_;
    bool connected_ = false;
};

std::mutex handled_mutex;
std::vector<std::uint32_t> handled;

void note_record(char *msg)
{
    const std::lock_guard<std::mutex> lock(handled_mutex);
    std::uint32_t value = 0;
    std::memcpy(&value, msg + 4, sizeof(value));
    handled.push_back(value);
}

std::vector<std::uint32_t> handled_lengths()
{
    const std::lock_guard<std::mutex> lock(handled_mutex);
    return handled;
}

std::uint32_t count_of(const std::uint32_t &counter)
{
    return sflow_load(counter);
}

std::string thread_name(pthread_t thread)
{
    char name[16] = {};
    pthread_getname_np(thread, name, sizeof(name));
    return name;
}

class Server : public AgentTest
{
protected:
    Server()
    {
        replace_modules(false);
        set_threads(Threads::run);
        sflow_store(sflow_lib_debug_switch, 0);
        handled.clear();
    }

    ~Server() override
    {
        stop_threads();
        sflow_lib_server_cmd_clear();
        free_queue();
        sflow_store(sflow_lib_debug_switch, 0);
    }

    static void free_queue() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        sflow_list_for_each<sflow_lib_msg_t>(&sflow_lib_server_cb.send_list,
                                             [](sflow_lib_msg_t *node) { std::free(node); });
        sflow_list_init(&sflow_lib_server_cb.send_list);
    }

    [[nodiscard]] std::string socket_path() const { return directory_.path() + "/sflow/domain_socket"; }

    /// Starts the server and waits until it takes connections.
    static void start()
    {
        ASSERT_EQ(sflow_lib_server_init(), 0);
        ASSERT_TRUE(eventually([] { return libc_counts().accepts >= 1; }));
        ASSERT_EQ(sflow_lib_server_cmd_register(TEST_RECORD, note_record), 0);
    }

    /// Starts the server and has the receive thread end for lack of a socket.
    static void start_in_vain()
    {
        ASSERT_EQ(sflow_lib_server_init(), 0);
        ASSERT_EQ(running_threads().size(), 2U);
        join_thread(0);
    }

    /// What is left of the server when its receive thread has ended: the daemon runs on.
    static void expect_works_without_socket()
    {
        EXPECT_EQ(libc_counts().accepts, 0);
        EXPECT_EQ(sflow_lib_server_cb.server_sd, -1);
        EXPECT_EQ(sflow_lib_server_send_msg("\0\0\0\0\0\0\0\0", 8), -1);
        EXPECT_EQ(debug_count("client sd invalid"), 1U);
        EXPECT_EQ(sflow_lib_server_cmd_register(1, note_record), 0);
    }

    /// Has the queue refuse everything, without 8192 messages in it.
    static void fill_queue_count() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        pthread_mutex_lock(&sflow_lib_server_cb.send_lock.mutex);
        sflow_lib_server_cb.send_len = SFLOW_LIB_SEND_LIST_MAX;
        pthread_mutex_unlock(&sflow_lib_server_cb.send_lock.mutex);
    }

    /// Takes the connect notice.
    static void expect_notice(const Service &service)
    {
        ASSERT_TRUE(service.connected());
        EXPECT_EQ(service.receive(), words({CONNECT_NOTICE, 8}));
    }
};

// Suites are named after what they test.
using LibServer_init = Server;
using LibServer_recv_main = Server;
using LibServer_send_main = Server;
using LibServer_dump_data = Server;
using LibServer_send_msg = Server;

// ---- Threads and socket --------------------------------------------------------------------------------------------

TEST_F(LibServer_init, names_its_threads)
{
    start();
    ASSERT_TRUE(eventually([] { return libc_counts().waits >= 1; }));
    ASSERT_EQ(running_threads().size(), 2U);
    EXPECT_EQ(thread_name(running_threads()[0]), "sflow_srv_recv");
    EXPECT_EQ(thread_name(running_threads()[1]), "sflow_srv_send");
    EXPECT_EQ(debug_lines().front(), (DebugLine{"sflow_lib_server", "sflow lib server success."}));
}

TEST_F(LibServer_recv_main, binds_below_tmpdir)
{
    start();
    EXPECT_TRUE(std::filesystem::is_socket(socket_path()));
    EXPECT_EQ(socket_path(), sflow_lib_server_cb.addr.sun_path);
    int type = 0;
    socklen_t len = sizeof(type);
    getsockopt(sflow_lib_server_cb.server_sd, SOL_SOCKET, SO_TYPE, &type, &len);
    EXPECT_EQ(type, SOCK_SEQPACKET);
}

TEST_F(LibServer_recv_main, raises_both_buffers)
{
    // What the kernel grants is limited by the system; it is at least what asking for 4 MiB gives elsewhere.
    const int plain = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const int asked = SFLOW_LIB_SOCKET_BUF;
    start();
    Service service(socket_path());
    expect_notice(service);
    for (const int option : {SO_RCVBUF, SO_SNDBUF}) {
        int expected = 0;
        socklen_t len = sizeof(expected);
        setsockopt(plain, SOL_SOCKET, option, &asked, sizeof(asked));
        getsockopt(plain, SOL_SOCKET, option, &expected, &len);
        for (const int sd : {sflow_lib_server_cb.server_sd, sflow_load(sflow_lib_server_cb.client_sd)}) {
            int granted = 0;
            getsockopt(sd, SOL_SOCKET, option, &granted, &len);
            EXPECT_EQ(granted, expected);
        }
    }
    close(plain);
}

TEST_F(LibServer_recv_main, without_tmpdir)
{
    unsetenv("TMPDIR");
    start_in_vain();
    EXPECT_THAT(debug_texts(), testing::UnorderedElementsAre("sflow lib server success.", "make path fail"));
    expect_works_without_socket();
}

TEST_F(LibServer_recv_main, tmpdir_of_80_characters_is_too_long)
{
    setenv("TMPDIR", std::string(80, 'x').c_str(), 1);
    start_in_vain();
    EXPECT_EQ(debug_count("make path fail"), 1U);
    expect_works_without_socket();
}

TEST_F(LibServer_recv_main, path_of_99_characters_is_used)
{
    const std::string longest = directory_.path() + "/" + std::string(79 - directory_.path().size() - 1, 'd');
    ASSERT_EQ(longest.size(), 79U);
    std::filesystem::create_directories(longest + "/sflow");
    setenv("TMPDIR", longest.c_str(), 1);
    start();
    Service service(longest + "/sflow/domain_socket");
    expect_notice(service);
}

TEST_F(LibServer_recv_main, removes_what_lies_at_the_path)
{
    // A socket file that a daemon left behind cannot be bound to again.
    const int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    socket_path().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)), 0);
    close(stale);
    ASSERT_TRUE(std::filesystem::is_socket(socket_path()));
    start();
    Service service(socket_path());
    expect_notice(service);
}

TEST_F(LibServer_recv_main, create_fail)
{
    fail_next("socket", EMFILE);
    start_in_vain();
    EXPECT_EQ(debug_count("create fail"), 1U);
    EXPECT_EQ(debug_count("Too many open files"), 1U);
    expect_works_without_socket();
}

TEST_F(LibServer_recv_main, bind_fail)
{
    fail_next("bind", EACCES);
    start_in_vain();
    EXPECT_EQ(debug_count("bind fail"), 1U);
    expect_works_without_socket();
}

TEST_F(LibServer_recv_main, listen_fail)
{
    fail_next("listen", EADDRINUSE);
    start_in_vain();
    EXPECT_EQ(debug_count("listen fail"), 1U);
    expect_works_without_socket();
}

TEST_F(LibServer_recv_main, tries_accept_again_after_a_second)
{
    fail_next("accept4", EMFILE);
    ASSERT_EQ(sflow_lib_server_init(), 0);
    ASSERT_TRUE(wait_for_debug("accept fail"));
    ASSERT_TRUE(eventually([] { return libc_counts().accepts >= 2; }));
    EXPECT_EQ(libc_counts().sleeps, 1);
    EXPECT_EQ(libc_counts().slept_seconds, 1U);
    Service service(socket_path());
    expect_notice(service);
}

// ---- Connection ----------------------------------------------------------------------------------------------------

TEST_F(LibServer_recv_main, sends_the_connect_notice_first)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    EXPECT_TRUE(wait_for_debug("send connect to ss success."));
    EXPECT_THAT(debug_texts(),
                ElementsAre("sflow lib server success.", "accept success", "send connect to ss success."));
    EXPECT_NE(sflow_load(sflow_lib_server_cb.client_sd), -1);
    EXPECT_EQ(count_of(sflow_lib_server_cb.send_message_num), 1U);
}

TEST_F(LibServer_recv_main, tells_when_the_notice_is_not_queued)
{
    ASSERT_EQ(sflow_lib_server_init(), 0);
    ASSERT_TRUE(eventually([] { return libc_counts().accepts >= 1; }));
    // A full queue refuses it; nobody is connected, so the count is all that is looked at.
    fill_queue_count();
    Service service(socket_path());
    EXPECT_TRUE(wait_for_debug("send connect to ss failure."));
    EXPECT_EQ(debug_count("list full"), 1U);
    EXPECT_EQ(count_of(sflow_lib_server_cb.send_drop_num), 1U);
}

TEST_F(LibServer_recv_main, serves_one_service_at_a_time)
{
    start();
    Service first(socket_path());
    expect_notice(first);
    Service second(socket_path()); // the kernel's queue takes it, the server does not
    // A round trip with the first one, so that an accept would have happened.
    first.send(words({TEST_RECORD, 8}));
    ASSERT_TRUE(eventually([] { return handled_lengths().size() == 1; }));
    EXPECT_EQ(libc_counts().accepts, 1);
    EXPECT_FALSE(second.pending());
    first.disconnect();
    expect_notice(second);
    EXPECT_EQ(libc_counts().accepts, 2);
}

TEST_F(LibServer_recv_main, survives_a_lost_connection)
{
    start();
    {
        Service service(socket_path());
        expect_notice(service);
    }
    ASSERT_TRUE(wait_for_debug("recv error"));
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_error_num), 1U);
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_packet_num), 0U);
    EXPECT_EQ(sflow_load(sflow_lib_server_cb.client_sd), -1);
    EXPECT_EQ(sflow_lib_server_send_msg("\0\0\0\0\0\0\0\0", 8), -1);
    EXPECT_EQ(debug_count("client sd invalid"), 1U);
    // Registered commands survive.
    Service service(socket_path());
    expect_notice(service);
    service.send(words({TEST_RECORD, 8}));
    EXPECT_TRUE(eventually([] { return handled_lengths().size() == 1; }));
}

TEST_F(LibServer_recv_main, takes_a_packet_of_nothing_for_the_end)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    service.send({});
    ASSERT_TRUE(wait_for_debug("recv error"));
    EXPECT_EQ(service.receive(), Bytes{}); // the daemon has hung up
}

// ---- Receiving -----------------------------------------------------------------------------------------------------

TEST_F(LibServer_recv_main, counts_records_and_packets)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    service.send(words({TEST_RECORD, 8, TEST_RECORD, 12, 0, TEST_RECORD, 8}));
    ASSERT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.recv_packet_num) == 1; }));
    EXPECT_THAT(handled_lengths(), ElementsAre(8U, 12U, 8U));
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_message_num), 3U);
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_error_num), 0U);
}

TEST_F(LibServer_recv_main, counts_packets_without_a_record)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    service.send(Bytes(7, 1));
    service.send(words({TEST_RECORD, 12}));
    service.send(words({0x99, 8}));
    ASSERT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.recv_packet_num) == 3; }));
    EXPECT_THAT(handled_lengths(), IsEmpty());
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_message_num), 1U);
    EXPECT_EQ(count_of(sflow_lib_server_cb.recv_error_num), 1U);
    EXPECT_EQ(debug_count("recv error msg."), 1U);
}

TEST_F(LibServer_recv_main, cuts_a_packet_at_1000_bytes)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    Bytes packet(1200);
    put(packet, 0, TEST_RECORD);
    put(packet, 4, 992);
    put(packet, 992, TEST_RECORD);
    put(packet, 996, 8);
    put(packet, 1000, TEST_RECORD); // cut off
    put(packet, 1004, 8);
    service.send(packet);
    service.send(words({TEST_RECORD, 8}));
    ASSERT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.recv_packet_num) == 2; }));
    EXPECT_THAT(handled_lengths(), ElementsAre(992U, 8U, 8U));
}

// ---- Sending -------------------------------------------------------------------------------------------------------

TEST_F(LibServer_send_main, sends_what_the_header_says)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    Bytes record = words({0x101, 12, 0xAAAAAAAA, 0xBBBBBBBB});
    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), 16), 0);
    EXPECT_EQ(service.receive(), words({0x101, 12, 0xAAAAAAAA}));
    // More than was given: the rest is zero.
    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), 8), 0);
    EXPECT_EQ(service.receive(), words({0x101, 12, 0}));
    // More than a message holds: cut, and done with.
    put(record, 4, 0xFFFFFFFF);
    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), 16), 0);
    record.resize(1000);
    EXPECT_EQ(service.receive(), record);
    EXPECT_EQ(count_of(sflow_lib_server_cb.send_error_num), 0U);
}

TEST_F(LibServer_send_main, wakes_after_30_seconds)
{
    time_out_next_wait();
    start();
    ASSERT_TRUE(eventually([] { return libc_counts().waits >= 2; })); // the first ended without a message
    EXPECT_GE(libc_counts().wait_ms, 29000);
    EXPECT_LE(libc_counts().wait_ms, 30000);
    EXPECT_EQ(libc_counts().retry_pauses, 0);
    Service service(socket_path());
    expect_notice(service);
}

/// Queues records with ascending numbers until the kernel takes no more, and then `more` of them.
std::uint32_t overfill(std::uint32_t more)
{
    std::uint32_t number = 0;
    const auto queue_one = [&] {
        Bytes record(SFLOW_MSG_MAX_LEN);
        put(record, 4, SFLOW_MSG_MAX_LEN);
        put(record, 8, number++);
        EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), SFLOW_MSG_MAX_LEN),
                  0);
    };
    while (count_of(sflow_lib_server_cb.send_error_num) == 0 && number < 8000)
        queue_one();
    for (std::uint32_t i = 0; i < more; ++i)
        queue_one();
    EXPECT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.send_error_num) > 0; }));
    return number;
}

TEST_F(LibServer_send_main, retries_a_message_that_does_not_fit)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    const std::uint32_t count = overfill(10);
    ASSERT_TRUE(wait_for_debug("send fail", 3)); // retried without anything being queued
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto record = service.receive();
        ASSERT_TRUE(record.has_value());
        ASSERT_EQ(word_at(*record, 8), i); // none lost, none twice
    }
    EXPECT_FALSE(service.pending());
    EXPECT_GT(libc_counts().retry_pauses, 0);
    EXPECT_EQ(libc_counts().longest_pause_ms, 1); // queueing threads and a new connection wait no longer
}

TEST_F(LibServer_send_main, keeps_messages_for_the_next_service)
{
    start();
    std::uint32_t count = 0;
    {
        Service service(socket_path());
        expect_notice(service);
        count = overfill(10);
    }
    ASSERT_TRUE(wait_for_debug("recv error"));
    // Nobody is connected: the front message is tried again and again.
    const std::uint32_t errors = count_of(sflow_lib_server_cb.send_error_num);
    ASSERT_TRUE(eventually([&] { return count_of(sflow_lib_server_cb.send_error_num) > errors + 3; }));
    EXPECT_TRUE(wait_for_debug("send fail", errors + 1));

    Service service(socket_path());
    ASSERT_TRUE(service.connected());
    std::uint32_t previous = 0;
    std::uint32_t received = 0;
    for (;;) {
        const auto record = service.receive();
        ASSERT_TRUE(record.has_value());
        if (word_at(*record, 0) == CONNECT_NOTICE)
            break; // behind everything that the lost connection left
        ASSERT_TRUE(received == 0 || word_at(*record, 8) == previous + 1);
        previous = word_at(*record, 8);
        ++received;
    }
    EXPECT_GE(received, 10U);
    EXPECT_EQ(previous, count - 1);
}

TEST_F(LibServer_send_main, goes_on_without_the_lock)
{
    fail_lock(&sflow_lib_server_cb.send_lock.mutex); // nobody else takes it before there is a connection
    start();
    ASSERT_TRUE(eventually([] { return libc_counts().waits >= 1; }));
    EXPECT_EQ(count_of(sflow_lib_server_cb.send_lock_fail_num), 1U);
    EXPECT_EQ(libc_counts().retry_pauses, 1); // and not a wait with a lock that is not held
    Service service(socket_path());
    expect_notice(service);
}

TEST_F(LibServer_send_main, counts_a_lock_that_is_not_released)
{
    fail_unlock(&sflow_lib_server_cb.send_lock.mutex);
    time_out_next_wait(); // the first to release it is the send thread, after its first wait
    start();
    ASSERT_TRUE(eventually([] { return libc_counts().waits >= 2; }));
    EXPECT_EQ(count_of(sflow_lib_server_cb.send_unlock_fail_num), 1U);
    EXPECT_EQ(debug_count("unlock fail"), 1U);
}

// ---- Trace ---------------------------------------------------------------------------------------------------------

TEST_F(LibServer_dump_data, traces_what_is_received)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    sflow_store(sflow_lib_debug_switch, 1);
    Bytes packet(18);
    for (std::size_t i = 0; i < packet.size(); ++i)
        packet[i] = static_cast<std::uint8_t>(0xF0 + i);
    service.send(packet);
    ASSERT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.recv_packet_num) == 1; }));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[sflow server receive message]:18\n", "sflow debug dump data len:18\n",
                            "f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff \n", "00 01 \n"));
    EXPECT_EQ(fake::syslog_lines().front().level, 7);
    EXPECT_EQ(fake::syslog_lines().front().module, "UNKNOW_MODULE");
    EXPECT_EQ(fake::syslog_lines().front().mnemonic, "DEBUG");
    EXPECT_EQ(fake::syslog_lines().front().dest, 2);
}

TEST_F(LibServer_dump_data, traces_what_is_sent)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    sflow_store(sflow_lib_debug_switch, 1);
    const Bytes record = words({0x04030201, 16, 0x0C0B0A09, 0x100F0E0D});
    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), 16), 0);
    ASSERT_TRUE(service.receive().has_value());
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[sflow server send message]:16\n", "sflow debug dump data len:16\n",
                            "01 02 03 04 10 00 00 00 09 0a 0b 0c 0d 0e 0f 10 \n"));
}

TEST_F(LibServer_dump_data, is_silent_unless_the_switch_is_1)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    for (const int32_t value : {0, 2, -1}) {
        sflow_store(sflow_lib_debug_switch, value);
        service.send(words({0x99, 8}));
        EXPECT_EQ(sflow_lib_server_send_msg("\1\0\0\0\10\0\0\0", 8), 0);
        ASSERT_TRUE(service.receive().has_value());
    }
    ASSERT_TRUE(eventually([] { return count_of(sflow_lib_server_cb.recv_packet_num) == 3; }));
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

// ---- Many threads --------------------------------------------------------------------------------------------------

TEST_F(LibServer_send_msg, from_many_threads)
{
    start();
    Service service(socket_path());
    expect_notice(service);
    constexpr std::uint32_t THREADS = 4;
    constexpr std::uint32_t RECORDS = 200;
    std::vector<std::unique_ptr<pthread_t>> senders;
    static std::atomic<std::uint32_t> next_sender{0};
    next_sender = 0;
    for (std::uint32_t i = 0; i < THREADS; ++i) {
        senders.push_back(std::make_unique<pthread_t>());
        pthread_create(
            senders.back().get(), nullptr,
            [](void *) -> void * {
                const std::uint32_t sender = next_sender++;
                for (std::uint32_t nth = 0; nth < RECORDS; ++nth) {
                    const Bytes record = words({sender, 12, nth});
                    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), 12),
                              0);
                }
                return nullptr;
            },
            nullptr);
    }
    std::vector<std::uint32_t> next(THREADS, 0);
    for (std::uint32_t i = 0; i < THREADS * RECORDS; ++i) {
        service.send(words({TEST_RECORD, 8})); // handlers run at the same time
        const auto record = service.receive();
        ASSERT_TRUE(record.has_value());
        ASSERT_LT(word_at(*record, 0), THREADS);
        EXPECT_EQ(word_at(*record, 8), next[word_at(*record, 0)]++);
    }
    for (const auto &sender : senders)
        pthread_join(*sender, nullptr);
    EXPECT_TRUE(eventually([] { return handled_lengths().size() == THREADS * RECORDS; }));
}

} // namespace
