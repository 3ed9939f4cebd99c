// Sessions over the socket, with shells that behave and shells that do not.
#include "server.h"

#include "cli_platform_double.h"
#include "cli_sample.h"
#include "cli_service_thread.h"
#include "cli_temporary_directory.h"
#include "client.h"
#include "own_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using shell::Client;
using shell::Status;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

void flood(struct_command_data_block * /*record*/)
{
    const std::string line(1023, 'x');
    for (std::size_t written = 0; written <= cli::OUTPUT_LIMIT; written += 1024)
        cli_printf("%s\n", line.c_str());
}

void trickle(struct_command_data_block * /*record*/)
{
    for (int i = 0; i < 4096; ++i)
        cli_printf("%01023d\n", i);
}

constexpr u_int64_t USER = CLI_PRIV_USER;
CLI_NODES(top, flood_word, flood_end, trickle_word, trickle_end);
CLI_APPEND_POINT(top, flood_word);
CLI_KEYWORD(flood_word, "flood", "more than a session may owe", USER, flood_end, trickle_word);
CLI_EOL(flood_end, flood);
CLI_KEYWORD(trickle_word, "trickle", "more than a socket holds", USER, trickle_end, Tno_alt);
CLI_EOL(trickle_end, trickle);

class ServerTest : public testing::Test
{
protected:
    void serve(cli::ServerLimits limits = {})
    {
        sample::calls = {};
        platform_double::reset();
        thread_.run([&] {
            core_.serve("fand", thread_.master());
            cli::add_own_commands(core_);
            for (const sample::Tree &tree : sample::trees())
                EXPECT_TRUE(core_.add(tree.attach, tree.root, tree.name));
            EXPECT_TRUE(core_.add(PARSE_ADD_SHOW_CMD, &top, "floods"));
            core_.set_ready();
            server_ = std::make_unique<cli::Server>(core_, limits);
            EXPECT_EQ(server_->open(directory_.path() + "/platform", thread_.master()), "");
        });
    }
    ~ServerTest() override
    {
        thread_.run([&] { server_.reset(); });
    }

    [[nodiscard]] std::string socket_path() const { return directory_.path() + "/platform/cli_socket"; }
    [[nodiscard]] Client connect() const { return Client::connect(socket_path()); }
    [[nodiscard]] Client batch() const
    {
        Client client = connect();
        EXPECT_TRUE(client.greet(false));
        return client;
    }
    [[nodiscard]] cli::Descriptor raw() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_path().copy(address.sun_path, sizeof address.sun_path - 1);
        cli::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        return socket;
    }
    static void put(const cli::Descriptor &socket, std::string_view bytes)
    {
        EXPECT_EQ(send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// Everything until the service closes the session.
    static std::string until_closed(const cli::Descriptor &socket)
    {
        std::string bytes;
        std::array<char, 65536> buffer{};
        for (ssize_t got = 0; (got = recv(socket.get(), buffer.data(), buffer.size(), 0)) > 0;)
            bytes.append(buffer.data(), static_cast<std::size_t>(got));
        return bytes;
    }
    std::size_t sessions()
    {
        std::size_t count = 0;
        thread_.run([&] { count = server_->sessions(); });
        return count;
    }

    /// The service closes a session in a turn of its loop after the one that ended it.
    void expect_sessions(std::size_t wanted)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (sessions() != wanted && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_EQ(sessions(), wanted);
    }

    TemporaryDirectory directory_;
    cli::Core core_;
    ServiceThread thread_;
    std::unique_ptr<cli::Server> server_;
};

/// How the service calls this process, whose sessions all of them are.
std::string owner()
{
    return "user " + std::to_string(geteuid()) + " (process " + std::to_string(getpid()) + ")";
}

std::string output_of(Client &client, std::string_view line, Status expected = Status::ok)
{
    std::string text;
    EXPECT_EQ(client.run(line, [&](std::string_view piece) { text += piece; }), expected) << line;
    return text;
}

} // namespace

TEST_F(ServerTest, socket_is_for_the_owner_and_the_group)
{
    serve();
    struct stat status {
    };
    ASSERT_EQ(stat(socket_path().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0660U);
    ASSERT_EQ(stat((directory_.path() + "/platform").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750U);
}

TEST_F(ServerTest, socket_of_a_dead_daemon_is_replaced)
{
    serve();
    thread_.run([&] {
        server_ = std::make_unique<cli::Server>(core_);
        EXPECT_EQ(server_->open(directory_.path() + "/platform", thread_.master()), "");
    });
    Client client = batch();
    EXPECT_EQ(output_of(client, "show fan | include alarm"), "no alarm\n");
}

TEST_F(ServerTest, place_that_cannot_be_served_is_named)
{
    serve();
    thread_.run([&] {
        cli::Server server(core_);
        EXPECT_EQ(server.open("/dev/null/platform", thread_.master()),
                  "cannot create /dev/null/platform: Not a directory");
        EXPECT_THAT(server.open("/tmp/" + std::string(200, 'x'), thread_.master()),
                    EndsWith("the path is too long for a socket"));
    });
}

TEST_F(ServerTest, batch_is_privileged_and_an_operator_is_not)
{
    serve();
    Client client = connect();
    const auto state = client.greet(true);
    ASSERT_TRUE(state);
    EXPECT_TRUE(state->ready);
    EXPECT_EQ(state->prompt.back(), '>');
    output_of(client, "show running-config", Status::failed);
    output_of(client, "enable");
    EXPECT_EQ(client.prompt().back(), '#');
    output_of(client, "terminal length 33");
    EXPECT_EQ(client.terminal_length(), 33);
    EXPECT_EQ(batch().prompt().back(), '#');
}

TEST_F(ServerTest, marker_stands_below_the_line_that_the_prompt_precedes)
{
    serve();
    Client client = connect();
    ASSERT_TRUE(client.greet(true));
    const std::string indent(client.prompt().size() + 1, ' ');
    EXPECT_EQ(output_of(client, "show fun", Status::failed),
              indent + "     ^\n% Invalid input detected at '^' marker.\n");
}

TEST_F(ServerTest, help_and_completion_follow_the_mode)
{
    serve();
    Client client = batch();
    EXPECT_EQ(client.complete("sh"), "show\n");
    EXPECT_THAT(client.help("show "), HasSubstr("  fan             show the fan\n"));
    output_of(client, "conf t");
    EXPECT_EQ(client.complete("interface eth"), "eth0\neth0.5\neth1\n");
    EXPECT_EQ(client.help("nonsense "), "");
}

TEST_F(ServerTest, sessions_have_modes_of_their_own)
{
    serve();
    std::vector<Client> clients;
    for (int i = 0; i < 20; ++i)
        clients.push_back(batch());
    for (Client &client : clients)
        output_of(client, "conf t");
    output_of(clients[3], "interface eth0");
    EXPECT_THAT(clients[3].prompt(), EndsWith("(config-if-eth0)#"));
    output_of(clients[4], "fan speed 2");
    EXPECT_THAT(clients[4].prompt(), EndsWith("(config)#"));
    EXPECT_EQ(sessions(), 20U);
}

TEST_F(ServerTest, one_session_too_many_is_told_so)
{
    serve({.sessions = 2});
    const Client first = batch();
    const Client second = batch();
    Client third = connect();
    EXPECT_FALSE(third.greet(false));
    EXPECT_EQ(third.reason(), "there are 2 sessions already");
}

TEST_F(ServerTest, exit_ends_the_session)
{
    serve();
    Client client = batch();
    output_of(client, "exit", Status::ended);
    EXPECT_FALSE(client);
    EXPECT_EQ(client.reason(), "");
    expect_sessions(0);
}

TEST_F(ServerTest, what_was_sent_before_the_end_of_input_is_answered)
{
    serve();
    const cli::Descriptor socket = raw();
    put(socket, "hello 1 batch\nrun show fan | include alarm\nrun show fan | include speed\n");
    shutdown(socket.get(), SHUT_WR);
    const std::string answer = until_closed(socket);
    EXPECT_THAT(answer, HasSubstr("out 9\nno alarm\n"));
    EXPECT_THAT(answer, HasSubstr("out 15\nfan speed is 5\n"));
}

TEST_F(ServerTest, strangers_are_turned_away)
{
    const char *const rows[] = {"\n",
                                "GET / HTTP/1.0\r\n\r\n",
                                "run show fan\n",
                                "hello\n",
                                "hello 2 batch\n",
                                "hello 1 root\n",
                                "hello 1 batch\nhello 1 batch\n",
                                "hello 1 batch\nfly\n",
                                "\x16\x03\x01\x02\n"};
    serve();
    for (const char *const bytes : rows) {
        const cli::Descriptor socket = raw();
        put(socket, bytes);
        EXPECT_THAT(until_closed(socket), HasSubstr("bye ")) << bytes;
    }
    const cli::Descriptor socket = raw();
    put(socket, std::string(100000, 'x') + "\n");
    EXPECT_THAT(until_closed(socket), StartsWith("bye "));
    expect_sessions(0);
    EXPECT_EQ(sample::calls.handler, "");
}

TEST_F(ServerTest, too_long_a_line_is_refused_and_the_session_goes_on)
{
    serve();
    Client client = batch();
    for (const std::size_t length : {cli::LINE_LIMIT + 1, cli::REQUEST_LIMIT * 3})
        EXPECT_EQ(output_of(client, "show fan " + std::string(length, 'x'), Status::failed),
                  "% The line is too long: the limit is 1500 characters\n");
    EXPECT_EQ(output_of(client, "show fan | include alarm"), "no alarm\n");
}

TEST_F(ServerTest, nul_and_control_characters_are_no_command)
{
    serve();
    Client client = batch();
    EXPECT_THAT(output_of(client, std::string_view("show fan\0 | include x", 21), Status::failed),
                HasSubstr("% Invalid input"));
    EXPECT_THAT(output_of(client, "show\x1b[2J", Status::failed), HasSubstr("% Invalid input"));
}

TEST_F(ServerTest, long_output_arrives_whole)
{
    serve();
    Client client = batch();
    const std::string text = output_of(client, "show trickle");
    EXPECT_EQ(text.size(), 4096U * 1024U);
    EXPECT_EQ(text.substr(text.size() - 5), "4095\n");
}

TEST_F(ServerTest, reader_that_stalls_is_cut_off_and_holds_up_nobody)
{
    serve({.stall = std::chrono::milliseconds(20)});
    const cli::Descriptor stalled = raw();
    put(stalled, "hello 1 batch\nrun show trickle\n");
    Client other = batch();
    EXPECT_EQ(output_of(other, "show fan | include alarm"), "no alarm\n");
    // Closed without the stalled one ever reading: the rest of its output is lost.
    expect_sessions(1);
    EXPECT_LT(until_closed(stalled).size(), 4096U * 1024U);
    EXPECT_THAT(platform_double::take_log(), ElementsAre("%CLI-4-SESSION: the session of " + owner() +
                                                         " does not take its output: closed"));
}

TEST_F(ServerTest, reader_that_owes_too_much_is_cut_off_at_once)
{
    serve();
    const cli::Descriptor slow = raw();
    put(slow, "hello 1 batch\nrun show flood\n");
    Client other = batch();
    expect_sessions(1);
    EXPECT_LT(until_closed(slow).size(), cli::OUTPUT_LIMIT);
    EXPECT_THAT(platform_double::take_log(), ElementsAre("%CLI-4-SESSION: the session of " + owner() +
                                                         " lets more than 16 MiB of output gather: closed"));
}

TEST_F(ServerTest, who_configures_second_is_told_of_the_first)
{
    serve();
    Client first = batch();
    EXPECT_EQ(output_of(first, "configure terminal"), "");
    Client second = batch();
    const std::string notice = "% The session of " + owner() + " is in configuration mode too\n";
    EXPECT_EQ(output_of(second, "configure terminal"), notice);
    // Both work on the one configuration.
    output_of(first, "fan speed 2");
    output_of(second, "fan speed 7");
    EXPECT_THAT(output_of(first, "do show running-config"), HasSubstr("fan speed 7\n"));
    output_of(first, "interface eth0");
    Client third = batch();
    EXPECT_EQ(output_of(third, "configure terminal"), notice + notice);
    for (Client *const client : {&first, &second, &third})
        output_of(*client, "end");
    EXPECT_EQ(output_of(first, "configure terminal"), "");
}

TEST_F(ServerTest, session_that_asks_without_end_leaves_others_their_turn)
{
    serve();
    const cli::Descriptor flooding = raw();
    put(flooding, "hello 1 batch\n");
    std::string requests;
    while (requests.size() < cli::INPUT_LIMIT)
        requests += "run show fan\n";
    std::atomic<bool> enough{false};
    std::thread reader([&] { // takes what it is sent
        std::array<char, 65536> buffer{};
        while (recv(flooding.get(), buffer.data(), buffer.size(), 0) > 0) {
        }
    });
    std::thread writer([&] {
        while (!enough && send(flooding.get(), requests.data(), requests.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    Client other = batch();
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(output_of(other, "show fan | include alarm"), "no alarm\n");
    enough = true;
    writer.join();
    shutdown(flooding.get(), SHUT_RDWR);
    reader.join();
}

TEST_F(ServerTest, writer_that_never_stops_is_not_read_without_bounds)
{
    serve({.stall = std::chrono::milliseconds(20)});
    const cli::Descriptor flooding = raw();
    put(flooding, "hello 1 batch\n");
    const std::string request = "run show fan\n";
    // Never reads an answer; the service stops reading too, and then lets go.
    while (send(flooding.get(), request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    }
    Client other = batch();
    EXPECT_EQ(output_of(other, "show fan | include alarm"), "no alarm\n");
    expect_sessions(1);
}

TEST_F(ServerTest, shell_that_dies_in_mid_command_leaves_nothing_behind)
{
    serve();
    for (int i = 0; i < 10; ++i) {
        const cli::Descriptor socket = raw();
        put(socket, "hello 1 batch\nrun show trickle\nrun conf");
    }
    Client other = batch();
    expect_sessions(1);
}
