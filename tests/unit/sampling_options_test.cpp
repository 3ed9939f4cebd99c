#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

Options accepted(const std::vector<std::string> &arguments, const char *tmpdir = "/var/tmp",
                 const char *state_directory = nullptr)
{
    auto parsed = parse_options(arguments, {.tmpdir = tmpdir, .state_directory = state_directory});
    if (const auto *early = std::get_if<EarlyExit>(&parsed)) {
        ADD_FAILURE() << early->text;
        return {};
    }
    return std::get<Options>(parsed);
}

EarlyExit refused(const std::vector<std::string> &arguments)
{
    auto parsed = parse_options(arguments, {.tmpdir = "/var/tmp", .state_directory = nullptr});
    if (auto *early = std::get_if<EarlyExit>(&parsed))
        return *early;
    ADD_FAILURE() << "accepted";
    return {};
}

TEST(Options_parse_options, defaults)
{
    const Options options = accepted({});
    EXPECT_EQ(options.backend, BackendKind::ebpf);
    EXPECT_EQ(options.socket_path, "/var/tmp/sflow/domain_socket");
    EXPECT_FALSE(options.socket_path_assumed);
    EXPECT_EQ(options.acl_directory, "/var/tmp/platform/acl");
    EXPECT_EQ(options.bpf.ring_bytes, 16U * 1024 * 1024);
    EXPECT_FALSE(options.verbose);
}

TEST(Options_parse_options, without_tmpdir_the_socket_is_assumed_under_run)
{
    for (const char *tmpdir : {static_cast<const char *>(nullptr), ""}) {
        const Options options = accepted({}, tmpdir);
        EXPECT_EQ(options.socket_path, "/run/sflow/domain_socket");
        EXPECT_EQ(options.acl_directory, "/run/platform/acl");
        EXPECT_TRUE(options.socket_path_assumed);
    }
    const Options given = accepted({"--socket", "/x/y"}, nullptr);
    EXPECT_EQ(given.socket_path, "/x/y");
    EXPECT_FALSE(given.socket_path_assumed);
}

TEST(Options_parse_options, counters_are_remembered_beside_the_socket_unless_a_place_is_given)
{
    struct Row {
        std::vector<std::string> arguments;
        const char *state_directory;
        const char *state;
        const char *cache;
    };
    for (const Row &row : {Row{{}, nullptr, "/var/tmp/sflow/samplingd_counters", "/var/tmp/sflow/tmp_file"},
                           Row{{}, "", "/var/tmp/sflow/samplingd_counters", "/var/tmp/sflow/tmp_file"},
                           Row{{}, "/var/lib/sflow", "/var/lib/sflow/counters", "/var/tmp/sflow/tmp_file"},
                           Row{{}, "/var/lib/a:/var/lib/b", "/var/lib/a/counters", "/var/tmp/sflow/tmp_file"},
                           Row{{"--state", "/x/y"}, "/var/lib/sflow", "/x/y", "/var/tmp/sflow/tmp_file"},
                           Row{{"--socket", "/s/socket"}, nullptr, "/s/samplingd_counters", "/s/tmp_file"},
                           Row{{"--socket", "socket"}, nullptr, "samplingd_counters", "tmp_file"}}) {
        const Options options = accepted(row.arguments, "/var/tmp", row.state_directory);
        EXPECT_EQ(options.counters.state_path, row.state);
        EXPECT_EQ(options.counters.cache_path, row.cache);
    }
}

TEST(Options_parse_options, access_lists_may_lie_elsewhere)
{
    EXPECT_EQ(accepted({"--access-lists", "/x/lists"}).acl_directory, "/x/lists");
}

TEST(Options_parse_options, replay_with_everything)
{
    const Options options =
        accepted({"--backend", "replay", "--replay", "a.pcap", "--replay-interface", "eth0",
                  "--replay-interface=eth1", "--replay-egress-interface", "eth2", "--replay-speed", "2.5",
                  "--replay-loop", "0", "--replay-seed", "9", "--verbose"});
    EXPECT_EQ(options.backend, BackendKind::replay);
    EXPECT_EQ(options.replay.file, "a.pcap");
    EXPECT_THAT(options.replay.ingress, ElementsAre("eth0", "eth1"));
    EXPECT_THAT(options.replay.egress, ElementsAre("eth2"));
    EXPECT_EQ(options.replay.speed, 2.5);
    EXPECT_EQ(options.replay.loops, 0U);
    EXPECT_EQ(options.replay.seed, 9U);
    EXPECT_TRUE(options.verbose);
}

TEST(Options_parse_options, ring_size_takes_units)
{
    struct Row {
        const char *text;
        std::uint32_t bytes;
    };
    for (const Row &row : {Row{"4096", 4096}, Row{"4K", 4096}, Row{"64M", 64U << 20}, Row{"1G", 1U << 30}})
        EXPECT_EQ(accepted({"--ring-size", row.text}).bpf.ring_bytes, row.bytes) << row.text;
}

TEST(Options_parse_options, mistakes_end_with_status_1_and_one_line)
{
    const std::vector<std::vector<std::string>> rows = {
        {"--nonsense"},
        {"extra"},
        {"--backend"},
        {"--backend", "psycho"},
        {"--socket", ""},
        {"--socket", std::string(108, 'x')},
        {"--ring-size", "5000"},
        {"--ring-size", "2048"},
        {"--ring-size", "2G"},
        {"--ring-size", "K"},
        {"--ring-size", "-4K"},
        {"--max-samplers", "0"},
        {"--max-samplers", "65537"},
        {"--replay-speed", "-1"},
        {"--replay-speed", "nan"},
        {"--replay-loop", "x"},
        {"--replay", "f"},
        {"--replay-interface", "eth0"},
        {"--backend", "replay"},
        {"--backend", "replay", "--replay", "f"},
        {"--backend", "replay", "--replay-interface", "eth0"},
    };
    for (const auto &row : rows) {
        const EarlyExit early = refused(row);
        EXPECT_EQ(early.status, 1) << row[0];
        EXPECT_THAT(early.text, StartsWith("sflow-samplingd: "));
        EXPECT_EQ(early.text.find('\n'), early.text.size() - 1) << early.text;
    }
}

TEST(Options_parse_options, the_longest_socket_path_is_accepted)
{
    EXPECT_EQ(accepted({"--socket", std::string(107, 'x')}).socket_path.size(), 107U);
}

TEST(Options_parse_options, help_and_version_end_with_status_0)
{
    const EarlyExit help = refused({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *option :
         {"--backend", "--socket", "--state", "--verbose", "--version", "--ring-size", "--max-samplers",
          "--replay", "--replay-interface", "--replay-egress-interface", "--replay-speed", "--replay-loop",
          "--replay-seed"})
        EXPECT_THAT(help.text, HasSubstr(option));
    const EarlyExit version = refused({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.text, "sflow-samplingd " SFLOW_VERSION "\n");
}

} // namespace
} // namespace sampling
