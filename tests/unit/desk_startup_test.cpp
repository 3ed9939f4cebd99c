// A configuration that was saved is there again after the daemon was killed: to the letter, without a line that fails.
#include "desk.h"
#include "desk_sequences.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr unsigned ROUNDS = 60;

using desk::Desk;
using desk::Operator;

/// Runs `life` in a process of its own; what waitpid says of its end.
int live(const std::function<void()> &life)
{
    const pid_t pid = fork();
    if (pid == 0) {
        life();
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

std::string read(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

/// Configures something, saves it, notes what the running configuration is, and is killed.
void first_life(const std::string &directory, unsigned seed)
{
    Desk desk(directory);
    Operator somebody(desk, cli::Level::privileged, cli::Mode::config);
    for (const std::string &line : desk::Sequences(seed, false).sequence())
        somebody.type(line);
    somebody.type("end");
    if (somebody.type("write memory").text != "Building configuration...\n[OK]\n")
        _exit(1);
    write(directory + "/saved", desk.running_config());
    raise(SIGKILL);
}

void second_life(const std::string &directory)
{
    Desk desk(directory);
    write(directory + "/restored", desk.running_config());
    std::string log;
    for (const std::string &line : desk.take_log())
        log += line + "\n";
    write(directory + "/log", log);
}

} // namespace

TEST(Startup_configuration, is_exactly_what_was_saved_before_the_kill)
{
    std::size_t longest = 0;
    for (unsigned seed = 1; seed <= ROUNDS; seed++) {
        SCOPED_TRACE(seed);
        const TemporaryDirectory directory;
        const std::string path = directory.path();
        const int first = live([&] { first_life(path, seed); });
        ASSERT_TRUE(WIFSIGNALED(first) && WTERMSIG(first) == SIGKILL) << first;
        const int second = live([&] { second_life(path); });
        ASSERT_TRUE(WIFEXITED(second) && WEXITSTATUS(second) == 0) << second;
        const std::string saved = read(path + "/saved");
        EXPECT_EQ(read(path + "/restored"), saved);
        EXPECT_TRUE(read(path + "/startup-config").ends_with("\n!\n" + saved));
        EXPECT_TRUE(read(path + "/log").ends_with(" lines, 0 failed\n")) << read(path + "/log");
        longest = std::max(longest, saved.size());
    }
    EXPECT_GT(longest, 200U) << "something was configured";
}

TEST(Startup_configuration, names_the_lines_that_fail_and_applies_the_rest)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path();
    write(path + "/startup-config", "! by hand\n"
                                    "sflow sampling-rate 4096\n"
                                    "sflow gibberish\n"
                                    "interface nosuch\n"
                                    " sflow enable\n"
                                    "!\n"
                                    "interface port1\n"
                                    " sflow flow collector 1\n"
                                    " sflow enable\n"
                                    "!\n");
    const int status = live([&] { second_life(path); });
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(read(path + "/restored"), "sflow sampling-rate 4096\n!\ninterface port1\n sflow enable\n!\n");
    const std::string log = read(path + "/log");
    for (const char *const part :
         {"startup-config line 3: \"sflow gibberish\": % Invalid input",
          "startup-config line 4: \"interface nosuch\": ", "startup-config line 5: \" sflow enable\": % ",
          "startup-config line 8: \" sflow flow collector 1\": Failed to configure sflow flow collector 1.",
          " lines, 4 failed\n"})
        EXPECT_NE(log.find(part), std::string::npos) << part << "\n" << log;
}
