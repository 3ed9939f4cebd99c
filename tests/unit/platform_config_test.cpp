// The platform's configuration file: values, defaults, and the one line that tells a mistake.

#include "config/platform_config.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using platform::Config;
using platform::ConfigError;
using platform::ConfigResult;
using platform::LogTarget;
using platform::parse_config;
using platform::read_config;
using platform::RedundancyMode;
using testing::HasSubstr;

Config accept(std::string_view text)
{
    const ConfigResult result = parse_config(text, "t.toml");
    const auto *error = std::get_if<ConfigError>(&result);
    EXPECT_EQ(nullptr, error) << text << ": " << (error != nullptr ? error->text : "");
    return error != nullptr ? Config{} : std::get<Config>(result);
}

class Directory
{
public:
    Directory()
    {
        std::string path = testing::TempDir() + "platform_config_XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(path.data()));
        path_ = path;
    }
    ~Directory() { std::filesystem::remove_all(path_); }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    [[nodiscard]] std::string path() const { return path_; }
    void write(const std::string &text) const { std::ofstream(path_ / "platform.toml") << text; }

private:
    std::filesystem::path path_;
};

} // namespace

TEST(parse_config, an_empty_text_gives_the_defaults)
{
    const Config config = accept("");
    EXPECT_EQ(LogTarget::automatic, config.syslog_target);
    EXPECT_FALSE(config.syslog_queue.has_value());
    EXPECT_EQ(RedundancyMode::standalone, config.redundancy);
    EXPECT_EQ("sflow", config.redundancy_group);
    EXPECT_EQ(std::chrono::milliseconds(1500), config.redundancy_peer_timeout);
    EXPECT_TRUE(config.cores.empty());
    EXPECT_TRUE(config.management_interfaces.empty());
}

TEST(parse_config, reads_every_key)
{
    const Config config = accept(R"(
[syslog]
target = "stderr"
queue = 4096
[redundancy]
mode = "corosync"
group = "pair-1"
peer_timeout_ms = 2000
[cpu.SFLOW]
cores = [2, 3]
[cpu.OTHER]
cores = [1023]
[interfaces]
management = ["eth0", "mgmt-interface1"]
)");
    EXPECT_EQ(LogTarget::standard_error, config.syslog_target);
    EXPECT_EQ(4096, config.syslog_queue);
    EXPECT_EQ(RedundancyMode::corosync, config.redundancy);
    EXPECT_EQ("pair-1", config.redundancy_group);
    EXPECT_EQ(std::chrono::milliseconds(2000), config.redundancy_peer_timeout);
    ASSERT_EQ(2U, config.cores.size());
    EXPECT_EQ((std::vector<int>{2, 3}), config.cores.at("SFLOW"));
    EXPECT_EQ((std::vector<int>{1023}), config.cores.at("OTHER"));
    EXPECT_EQ((std::vector<std::string>{"eth0", "mgmt-interface1"}), config.management_interfaces);
}

TEST(parse_config, accepts_every_word_of_a_choice)
{
    EXPECT_EQ(LogTarget::automatic, accept("syslog.target = \"auto\"").syslog_target);
    EXPECT_EQ(LogTarget::syslog, accept("syslog.target = \"syslog\"").syslog_target);
    EXPECT_EQ(LogTarget::standard_error, accept("syslog.target = \"stderr\"").syslog_target);
    EXPECT_EQ(RedundancyMode::standalone, accept("redundancy.mode = \"standalone\"").redundancy);
    EXPECT_TRUE(accept("[interfaces]\nmanagement = []").management_interfaces.empty());
}

TEST(parse_config, a_mistake_is_told_with_file_line_and_what_is_accepted)
{
    struct Row {
        const char *text;
        const char *begin;
        const char *accepted;
    };
    const Row rows[] = {
        {"[syslog]\ntarget = \"journal\"", "t.toml:2: unusable value of \"target\"",
         R"(accepted: "auto", "syslog" or "stderr")"},
        {"[syslog]\ntarget = 1", "t.toml:2: unusable value of \"target\"", "accepted: \"auto\""},
        {"[syslog]\nqueue = 0", "t.toml:2: unusable value of \"queue\"",
         "accepted: a number of lines, 1 to 1000000"},
        {"[syslog]\nqueue = 1000001", "t.toml:2: ", "1 to 1000000"},
        {"[syslog]\nqueue = \"100\"", "t.toml:2: ", "1 to 1000000"},
        {"[syslog]\nqueue = 1.5", "t.toml:2: ", "1 to 1000000"},
        {"[syslog]\nqeue = 1", "t.toml:2: no key \"qeue\" in [syslog]", "accepted: target, queue"},
        {"\n\n[sylog]\nqueue = 1", "t.toml:3: no section \"sylog\"",
         "accepted: syslog, redundancy, cpu.*, interfaces"},
        {"queue = 1", "t.toml:1: no section \"queue\"", "accepted: syslog"},
        {"syslog = 1", "t.toml:1: no section \"syslog\"", "accepted: syslog"},
        {"[redundancy]\nmode = \"cluster\"", "t.toml:2: unusable value of \"mode\"",
         R"(accepted: "standalone" or "corosync")"},
        {"[redundancy]\ngroup = \"\"", "t.toml:2: unusable value of \"group\"", "1 to 64 characters"},
        {"[redundancy]\ngroup = \"a b\"", "t.toml:2: ", "without blanks"},
        {"[redundancy]\npeer_timeout_ms = 749", "t.toml:2: ", "750 to 60000"},
        {"[redundancy]\npeer_timeout_ms = 60001", "t.toml:2: ", "750 to 60000"},
        {"[cpu]\ncores = [1]", "t.toml:2: no key \"cores\" in [cpu]", "accepted: cpu.*"},
        {"[cpu.SFLOW]\ncores = []", "t.toml:2: unusable value of \"cores\"", "0 to 1023"},
        {"[cpu.SFLOW]\ncores = [-1]", "t.toml:2: ", "0 to 1023"},
        {"[cpu.SFLOW]\ncores = [1024]", "t.toml:2: ", "0 to 1023"},
        {"[cpu.SFLOW]\ncores = [\"1\"]", "t.toml:2: ", "0 to 1023"},
        {"[cpu.SFLOW]\ncores = 1", "t.toml:2: ", "0 to 1023"},
        {"[cpu.SFLOW]\ncore = [1]", "t.toml:2: no key \"core\" in [cpu.*]", "accepted: cores"},
        {"[interfaces]\nmanagement = \"eth0\"", "t.toml:2: ", "accepted: a list of interface names"},
        {"[interfaces]\nmanagement = [\"\"]", "t.toml:2: ", "at most 15 characters"},
        {"[interfaces]\nmanagement = [\"sixteen-chars-xx\"]", "t.toml:2: ", "at most 15 characters"},
        {"[interfaces]\nmanagement = [1]", "t.toml:2: ", "interface names"},
    };
    for (const Row &row : rows) {
        const ConfigResult result = parse_config(row.text, "t.toml");
        const auto *error = std::get_if<ConfigError>(&result);
        ASSERT_NE(nullptr, error) << row.text;
        EXPECT_EQ(0U, error->text.find(row.begin)) << error->text;
        EXPECT_THAT(error->text, HasSubstr(row.accepted));
        EXPECT_EQ(std::string::npos, error->text.find('\n')) << error->text;
    }
}

TEST(parse_config, text_that_is_no_toml_is_told_with_its_line)
{
    for (const char *text :
         {"[syslog\n", "[syslog]\ntarget = \"auto", "[syslog]\nqueue = 1\nqueue = 2", "=", "\xff"}) {
        const ConfigResult result = parse_config(text, "t.toml");
        const auto *error = std::get_if<ConfigError>(&result);
        ASSERT_NE(nullptr, error) << text;
        EXPECT_THAT(error->text, testing::MatchesRegex("t\\.toml:[1-3]: not valid TOML: .+")) << error->text;
    }
}

// The example that is installed with the package, as it stands and with every value that it only shows.
TEST(parse_config, accepts_the_packaged_example)
{
    std::ifstream file(SFLOW_SOURCE_DIR "/packaging/platform.toml");
    ASSERT_TRUE(file);
    std::string as_it_stands;
    std::string with_every_value;
    for (std::string line; std::getline(file, line);) {
        as_it_stands += line + "\n";
        const bool is_shown_value = line.size() > 1 && line[0] == '#' && line[1] != ' ';
        if (line == "management = []")
            continue; // shown with another value below it
        with_every_value += (is_shown_value ? line.substr(1) : line) + "\n";
    }
    const Config defaults = accept(as_it_stands);
    EXPECT_EQ(LogTarget::automatic, defaults.syslog_target);
    EXPECT_FALSE(defaults.syslog_queue.has_value());
    EXPECT_TRUE(defaults.cores.empty());
    EXPECT_TRUE(defaults.management_interfaces.empty());
    const Config shown = accept(with_every_value);
    EXPECT_EQ(20480, shown.syslog_queue);
    EXPECT_EQ("sflow", shown.redundancy_group);
    EXPECT_EQ((std::vector<int>{2, 3}), shown.cores.at("SFLOW"));
    EXPECT_EQ((std::vector<std::string>{"eth0"}), shown.management_interfaces);
}

TEST(parse_config, a_mistake_is_one_line_whatever_the_file_holds)
{
    for (const std::string_view text : {"[redundancy]\na = [t\n\nh5\"]\n", "\"a\\nb\" = 1\n", "[\"a\\nb\"]\n",
                                        "[syslog]\n\"que\\nue\" = 1\n", "[cpu.\"a\\nb\"]\nc = 1\n"}) {
        const ConfigResult result = parse_config(text, "t.toml");
        const auto *error = std::get_if<ConfigError>(&result);
        ASSERT_NE(nullptr, error) << text;
        EXPECT_EQ(std::string::npos, error->text.find('\n')) << error->text;
    }
}

TEST(read_config, a_missing_file_or_directory_gives_the_defaults)
{
    const Directory directory;
    EXPECT_TRUE(std::holds_alternative<Config>(read_config(directory.path())));
    EXPECT_TRUE(std::holds_alternative<Config>(read_config(directory.path() + "/none")));
    directory.write("");
    EXPECT_TRUE(std::holds_alternative<Config>(read_config(directory.path()))) << "an empty file";
    EXPECT_TRUE(std::holds_alternative<Config>(read_config(directory.path() + "/platform.toml")))
        << "no directory";
}

TEST(read_config, reads_the_file_of_the_directory)
{
    const Directory directory;
    directory.write(std::string(10000, '\n') + "[syslog]\nqueue = 77\n");
    const ConfigResult result = read_config(directory.path());
    ASSERT_TRUE(std::holds_alternative<Config>(result));
    EXPECT_EQ(77, std::get<Config>(result).syslog_queue);
}

TEST(read_config, names_the_whole_path_in_a_mistake)
{
    const Directory directory;
    directory.write("[syslog]\nqueue = 0\n");
    const ConfigResult result = read_config(directory.path());
    ASSERT_TRUE(std::holds_alternative<ConfigError>(result));
    EXPECT_THAT(std::get<ConfigError>(result).text, HasSubstr(directory.path() + "/platform.toml:2: "));
}

TEST(read_config, a_file_that_cannot_be_read_is_a_mistake)
{
    const Directory directory;
    std::filesystem::create_directory(directory.path() + "/platform.toml");
    const ConfigResult result = read_config(directory.path());
    ASSERT_TRUE(std::holds_alternative<ConfigError>(result));
    EXPECT_THAT(std::get<ConfigError>(result).text, HasSubstr("cannot be read: Is a directory"));
}

// The process's own configuration is read once, so each case looks at it in a process of its own.
TEST(platform_config, comes_from_the_directory_named_in_the_environment)
{
    const Directory directory;
    directory.write("[syslog]\nqueue = 5\n");
    EXPECT_EXIT(
        {
            setenv("SFLOW_CONFIG_DIR", directory.path().c_str(), 1);
            const bool read = platform::platform_config().syslog_queue == 5;
            std::filesystem::remove(directory.path() + "/platform.toml");
            const bool kept = platform::platform_config().syslog_queue == 5;
            std::exit(read && kept && !platform::platform_config_is_broken() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(platform_config, a_broken_file_is_logged_and_gives_the_defaults)
{
    const Directory directory;
    directory.write("[syslog]\nqueue = 5\ntarget = \"x\"\n");
    // Standard error takes the line only where there is no system log.
    EXPECT_EXIT(
        {
            setenv("SFLOW_CONFIG_DIR", directory.path().c_str(), 1);
            const bool defaults = !platform::platform_config().syslog_queue.has_value();
            std::exit(defaults && platform::platform_config_is_broken() ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        std::filesystem::exists("/dev/log") ? "" : "%PLATFORM-3-CONFIG: .*platform.toml:3");
}
