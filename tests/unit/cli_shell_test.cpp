// The shell's parts against a scripted service.
#include "batch.h"
#include "pager.h"
#include "reach.h"

#include "cli_temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using shell::Batch;
using shell::Client;
using shell::Pager;
using shell::Status;
using testing::HasSubstr;

namespace
{

/// A client and the service's end of its session. What the service says is said beforehand.
class ScriptedSession
{
public:
    explicit ScriptedSession(const std::string &service_says)
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client_ = Client(ends[0]);
        service_ = ends[1];
        EXPECT_EQ(::send(service_, service_says.data(), service_says.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(service_says.size()));
        shutdown(service_, SHUT_WR);
    }
    ScriptedSession(const ScriptedSession &) = delete;
    ScriptedSession &operator=(const ScriptedSession &) = delete;
    ~ScriptedSession() { close(service_); }

    [[nodiscard]] Client &client() { return client_; }
    [[nodiscard]] std::string requests() const
    {
        char buffer[4096];
        const ssize_t got = recv(service_, buffer, sizeof buffer, MSG_DONTWAIT);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    }

private:
    Client client_;
    int service_ = -1;
};

std::string done(std::string_view status)
{
    return cli::encode_frame("done", "host#", {status, "-1"});
}

struct BatchRun {
    int status;
    std::string output;
    std::string complaint;
};

template <typename Commands>
BatchRun run(Client &client, const std::vector<Commands> &commands)
{
    BatchRun result{};
    Batch batch(
        client, [&](std::string_view text) { result.output += text; },
        [&](std::string_view text) { result.complaint += text; });
    for (const Commands &command : commands)
        if (!batch.run(command))
            break;
    result.status = batch.exit_status();
    return result;
}

} // namespace

TEST(Batch_run, runs_every_command_in_order_and_passes_output_on_as_it_is)
{
    ScriptedSession session(cli::encode_frame("out", "one\r\n") + cli::encode_frame("out", "two") +
                            done("ok") + done("failed") + cli::encode_frame("out", "3") + done("ok"));
    const BatchRun result = run<std::string>(session.client(), {"a", "b", "c"});
    EXPECT_EQ(result.output, "one\r\ntwo3");
    EXPECT_EQ(result.status, shell::EXIT_COMMAND);
    EXPECT_EQ(result.complaint, "");
    EXPECT_EQ(session.requests(), "run a\nrun b\nrun c\n");
}

TEST(Batch_run, exit_status_is_the_worst_of_all_commands)
{
    struct Row {
        std::vector<std::string> answers;
        int status;
    };
    const Row rows[] = {{{"ok", "ok"}, 0},       {{"ok", "refused"}, 1},      {{"failed", "ok"}, 1},
                        {{"starting", "ok"}, 2}, {{"starting", "failed"}, 2}, {{}, 0}};
    for (const Row &row : rows) {
        std::string says;
        for (const std::string &answer : row.answers)
            says += done(answer);
        ScriptedSession session(says);
        EXPECT_EQ(run(session.client(), row.answers).status, row.status);
    }
}

TEST(Batch_run, script_is_run_line_by_line)
{
    ScriptedSession session(done("ok") + done("ok") + done("ok"));
    std::istringstream script("conf t\n\n fan speed 3");
    Batch batch(
        session.client(), [](std::string_view) {}, [](std::string_view) {});
    EXPECT_TRUE(batch.run(script));
    EXPECT_EQ(session.requests(), "run conf t\nrun\nrun  fan speed 3\n");
}

TEST(Batch_run, command_with_several_lines_is_several_commands)
{
    ScriptedSession session(done("ok") + done("ok"));
    EXPECT_EQ(run<std::string>(session.client(), {"conf t\nfan speed 3"}).status, 0);
    EXPECT_EQ(session.requests(), "run conf t\nrun fan speed 3\n");
}

TEST(Batch_run, commands_behind_exit_are_not_forgotten_silently)
{
    ScriptedSession alone(cli::encode_frame("bye", ""));
    EXPECT_EQ(run<std::string>(alone.client(), {"exit"}).status, shell::EXIT_OK);
    ScriptedSession session(cli::encode_frame("bye", ""));
    const BatchRun result = run<std::string>(session.client(), {"exit", "show fan"});
    EXPECT_EQ(result.status, shell::EXIT_COMMAND);
    EXPECT_EQ(result.complaint, "the session has ended before: show fan");
}

TEST(Batch_run, lost_daemon_is_unreachable)
{
    struct Row {
        std::string says;
        const char *complaint;
    };
    const Row rows[] = {{done("ok"), "sflowd closed the session"},
                        {done("ok") + "out 100\ncut off", "sflowd closed the session"},
                        {done("ok") + "garbage\n", "what answers is not sflowd"},
                        {done("ok") + cli::encode_frame("bye", "no more"), "no more"}};
    for (const Row &row : rows) {
        ScriptedSession session(row.says);
        const BatchRun result = run<std::string>(session.client(), {"a", "b", "c"});
        EXPECT_EQ(result.status, shell::EXIT_UNREACHABLE) << row.says;
        EXPECT_EQ(result.complaint, row.complaint) << row.says;
    }
}

TEST(Client_greet, reads_the_state)
{
    ScriptedSession ready(cli::encode_frame("state", "host#", {"ready"}));
    const auto state = ready.client().greet(false);
    ASSERT_TRUE(state);
    EXPECT_TRUE(state->ready);
    EXPECT_EQ(ready.requests(), "hello 1 batch\n");

    ScriptedSession starting(cli::encode_frame("state", "host>\nit waits", {"starting"}));
    const auto other = starting.client().greet(true);
    ASSERT_TRUE(other);
    EXPECT_FALSE(other->ready);
    EXPECT_EQ(other->prompt, "host>");
    EXPECT_EQ(other->reason, "it waits");
    EXPECT_EQ(starting.requests(), "hello 1 interactive\n");
}

TEST(Client_greet, other_services_are_recognised)
{
    for (const std::string &says : {std::string("220 mail\r\n"), cli::encode_frame("out", "x"), std::string(),
                                    cli::encode_frame("state", "host#"), cli::encode_frame("bye", "full")}) {
        ScriptedSession session(says);
        EXPECT_FALSE(session.client().greet(false)) << says;
        EXPECT_NE(session.client().reason(), "") << says;
    }
}

namespace
{

std::string output_of(Client &client, std::string_view line, Status expected)
{
    std::string text;
    EXPECT_EQ(client.run(line, [&](std::string_view piece) { text += piece; }), expected);
    return text;
}

} // namespace

TEST(Client_greet, gives_up_a_daemon_that_does_not_answer)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Client client(ends[0]);
    EXPECT_FALSE(client.greet(false, std::chrono::milliseconds(1)));
    EXPECT_FALSE(client);
    EXPECT_EQ(client.reason(), "sflowd does not answer");
    close(ends[1]);
}

TEST(Client_run, newline_in_a_line_does_not_begin_another_request)
{
    ScriptedSession session(done("ok") + done("ok"));
    output_of(session.client(), "show\nversion\n", Status::ok);
    EXPECT_EQ(session.requests(), "run show version \n");
}

TEST(Client_cancel, drops_what_the_command_still_prints)
{
    ScriptedSession session(cli::encode_frame("out", "one\n") + cli::encode_frame("out", "two\n") +
                            done("cancelled") + cli::encode_frame("out", "next\n") + done("ok"));
    Client &client = session.client();
    std::string text;
    bool first = false;
    bool second = true;
    EXPECT_EQ(client.run("show long",
                         [&](std::string_view piece) {
                             text += piece;
                             first = client.cancel();
                             second = client.cancel();
                         }),
              Status::cancelled);
    EXPECT_EQ(text, "one\n");
    EXPECT_TRUE(first);
    EXPECT_FALSE(second);
    EXPECT_EQ(output_of(client, "show next", Status::ok), "next\n");
    EXPECT_EQ(session.requests(), "run show long\ncancel\nrun show next\n");
}

TEST(Client_watch, descriptor_is_served_while_an_answer_is_awaited)
{
    int ends[2] = {-1, -1};
    int signals[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(pipe(signals), 0);
    Client client(ends[0]);
    ASSERT_EQ(write(signals[1], "xx", 2), 2);
    int calls = 0;
    client.watch(signals[0], [&] {
        char byte = 0;
        EXPECT_EQ(read(signals[0], &byte, 1), 1);
        if (++calls == 2)
            client.abandon("enough");
    });
    output_of(client, "show nothing", Status::lost);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(client.reason(), "enough");
    for (const int descriptor : {ends[1], signals[0], signals[1]})
        close(descriptor);
}

TEST(Client_read_ahead, keeps_what_an_output_has_no_time_for)
{
    std::string says;
    for (int i = 0; i < 1000; ++i)
        says += cli::encode_frame("out", "line " + std::to_string(i) + "\n");
    ScriptedSession session(says + done("ok"));
    Client &client = session.client();
    int lines = 0;
    EXPECT_EQ(client.run("show long",
                         [&](std::string_view piece) {
                             EXPECT_EQ(piece, "line " + std::to_string(lines) + "\n");
                             if (lines++ == 0) // the pager waits for a key
                                 while (client.read_ahead_descriptor() >= 0)
                                     client.read_ahead();
                         }),
              Status::ok);
    EXPECT_EQ(lines, 1000);
    // The end was seen ahead, and is said in its turn.
    output_of(client, "show more", Status::lost);
    EXPECT_EQ(client.reason(), "sflowd closed the session");
}

namespace
{

class ReachTest : public testing::Test
{
protected:
    ReachTest()
    {
        std::filesystem::create_directory(directory_.path() + "/sflow");
        std::filesystem::create_directory(directory_.path() + "/platform");
    }

    [[nodiscard]] std::string reason(std::optional<std::chrono::milliseconds> wait = std::nullopt) const
    {
        const shell::Reached reached = shell::reach(directory_.path(), false, wait);
        EXPECT_FALSE(reached.state);
        return reached.reason;
    }

    TemporaryDirectory directory_;
};

/// A process that holds the daemon's lock. Locks of one's own process do not count.
class LockHolder
{
public:
    explicit LockHolder(const std::string &path)
    {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe(ready), 0);
        child_ = fork();
        if (child_ == 0) {
            const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
            struct flock lock {
            };
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            const char held = fcntl(file, F_SETLK, &lock) == 0 ? 'y' : 'n';
            if (write(ready[1], &held, 1) == 1)
                pause();
            _exit(1);
        }
        char held = 'n';
        EXPECT_EQ(read(ready[0], &held, 1), 1);
        EXPECT_EQ(held, 'y');
        close(ready[0]);
        close(ready[1]);
    }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;
    ~LockHolder()
    {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }

private:
    pid_t child_ = -1;
};

} // namespace

TEST_F(ReachTest, daemon_that_does_not_run_is_said_with_the_directory)
{
    const std::string expected = "sflowd is not running (TMPDIR is " + directory_.path() + ")";
    EXPECT_EQ(reason(), expected);
    std::ofstream(directory_.path() + "/sflow/sflow_lock") << ""; // of a daemon that has died
    EXPECT_EQ(reason(), expected);
}

TEST_F(ReachTest, socket_that_a_dead_daemon_left_is_no_daemon)
{
    const std::string path = directory_.path() + "/platform/cli_socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(socket);
    EXPECT_THAT(reason(), HasSubstr("sflowd is not running"));
}

TEST_F(ReachTest, daemon_without_its_sampling_service_is_said_to_wait)
{
    const LockHolder daemon(directory_.path() + "/sflow/sflow_lock");
    EXPECT_EQ(reason(), "sflowd runs but still waits for the sampling service (sflow-samplingd)");
}

TEST_F(ReachTest, waiting_ends_with_the_reason)
{
    EXPECT_THAT(reason(std::chrono::milliseconds(1)), HasSubstr("sflowd is not running"));
}

TEST_F(ReachTest, waiting_sees_a_daemon_become_ready)
{
    const std::string path = directory_.path() + "/platform/cli_socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(socket, 4), 0);
    std::thread daemon([&] {
        for (const char *const state : {"starting", "ready"}) {
            const int session = accept(socket, nullptr, nullptr);
            const std::string frame = cli::encode_frame("state", "host#", {state});
            EXPECT_EQ(send(session, frame.data(), frame.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(frame.size()));
            close(session);
        }
    });
    const shell::Reached reached = shell::reach(directory_.path(), false, std::chrono::seconds(60));
    daemon.join();
    close(socket);
    ASSERT_TRUE(reached.state);
    EXPECT_TRUE(reached.state->ready);
}

TEST(Reach_reason, missing_permission_is_said)
{
    EXPECT_EQ(
        shell::unreachable_reason("/run", EACCES),
        "no permission for /run/platform/cli_socket: it is open to root and to members of the group sflow");
}

TEST(Reach_runtime_directory, is_the_daemons)
{
    setenv("TMPDIR", "/somewhere", 1);
    EXPECT_EQ(shell::runtime_directory(), "/somewhere");
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(shell::runtime_directory(), "/run");
    unsetenv("TMPDIR");
    EXPECT_EQ(shell::runtime_directory(), "/run");
}

namespace
{

std::string paged(int lines, int columns, std::string keys, const std::vector<std::string> &pieces)
{
    std::string screen;
    Pager pager(
        lines, columns,
        [&] {
            if (keys.empty())
                return '\0';
            const char key = keys.front();
            keys.erase(0, 1);
            return key;
        },
        [&](std::string_view text) {
            screen += text == " --More-- " ? "<more>" : text[0] == '\r' ? "" : text;
        });
    for (const std::string &piece : pieces)
        pager.show(piece);
    return screen;
}

} // namespace

TEST(Pager_show, pauses_when_a_page_is_full)
{
    struct Row {
        const char *name;
        int lines;
        std::string keys;
        std::vector<std::string> pieces;
        const char *screen;
    };
    const Row rows[] = {
        {"all on a page", 5, "", {"1\n2\n3\n4\n"}, "1\n2\n3\n4\n"},
        {"a page more", 3, " ", {"1\n2\n3\n4\n"}, "1\n2\n<more>3\n4\n"},
        {"a line more", 3, "\rq", {"1\n2\n3\n4\n"}, "1\n2\n<more>3\n<more>"},
        {"enough", 3, "q", {"1\n2\n3\n", "4\n"}, "1\n2\n<more>"},
        {"end of input", 3, "", {"1\n2\n3\n"}, "1\n2\n<more>"},
        {"no paging", 0, "", {"1\n2\n3\n4\n"}, "1\n2\n3\n4\n"},
        {"in pieces", 3, " ", {"1", "\n", "2\n3", "\n"}, "1\n2\n<more>3\n"},
        {"wide characters", 3, " ", {"ééééééé\n2\n3\n"}, "ééééééé\n2\n<more>3\n"},
        {"long line", 4, " ", {"12345678901\n2\n3\n"}, "12345678901\n2\n<more>3\n"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(paged(row.lines, 10, row.keys, row.pieces), row.screen) << row.name;
}

TEST(Pager_quit, tells_that_the_operator_has_seen_enough)
{
    for (const char key : {'q', 'Q', '\x03', '\0', ' '}) {
        Pager pager(
            2, 10, [&] { return key; }, [](std::string_view) {});
        pager.show("1\n");
        EXPECT_FALSE(pager.quit());
        pager.show("2\n");
        EXPECT_EQ(pager.quit(), key != ' ') << static_cast<int>(key);
    }
}
