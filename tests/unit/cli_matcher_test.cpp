#include "matcher.h"

#include "cli_sample.h"
#include "interpreter.h"

#include <gtest/gtest.h>

#include <limits>

using cli::Level;
using cli::Match;
using cli::Mode;

namespace
{

class Parser
{
public:
    [[nodiscard]] Match match(std::string_view line, Mode mode = Mode::config,
                              Level level = Level::privileged, bool negated = false)
    {
        struct_command_data_block start{};
        start.mode_name = cli::mode_name(mode);
        start.flag_nd_prefix = negated ? 1 : 0;
        cli::Matcher matcher(grammar_, interfaces_, level);
        return matcher.match(cli::mode_root(mode), start, cli::split_words(line));
    }

    [[nodiscard]] std::vector<std::string> choices(std::string_view line, std::string_view partial,
                                                   Mode mode = Mode::config, Level level = Level::privileged)
    {
        struct_command_data_block start{};
        start.mode_name = cli::mode_name(mode);
        cli::Matcher matcher(grammar_, interfaces_, level);
        std::vector<std::string> texts;
        for (const cli::Choice &choice :
             matcher.choices(cli::mode_root(mode), start, cli::split_words(line), partial))
            texts.push_back(choice.text);
        return texts;
    }

private:
    cli::Grammar grammar_ = sample::grammar();
    cli::InterfaceDirectory interfaces_ = sample::interfaces();
};

/// Runs the handler of a match and says which it was.
std::string reached(const Match &match)
{
    if (match.result != Match::Result::run)
        return {};
    sample::calls = {};
    struct_command_data_block record = match.record;
    match.handler(&record);
    return sample::calls.handler;
}

} // namespace

TEST(Matcher_match, reaches_the_handler_at_the_end_of_the_line)
{
    struct Row {
        const char *line;
        const char *handler;
    };
    const Row rows[] = {{"fan speed 3", "fan_speed"},
                        {"fan name big", "fan_name"},
                        {"fan controller 10.0.0.1", "fan_controller"},
                        {"fan controller ipv6 2001:db8::1", "fan_controller"},
                        {"fan probe", "fan_probe"},
                        {"fan turbo", "fan_turbo"},
                        {"fan mode auto", "fan_mode"},
                        {"fan blow eth0", "fan_blow"},
                        {"fan blow bond0 50", "fan_blow"},
                        {"fan blow eth0 half 50", "fan_blow"},
                        {"fan after", "fan_after"}};
    Parser parser;
    for (const Row &row : rows)
        EXPECT_EQ(reached(parser.match(row.line)), row.handler) << row.line;
}

TEST(Matcher_match, points_at_the_word_at_fault)
{
    struct Row {
        const char *line;
        Match::Result result;
        std::size_t word;
    };
    const Row rows[] = {
        {"fin speed 3", Match::Result::invalid, 0},
        {"fan spead 3", Match::Result::invalid, 1},
        {"fan speed fast", Match::Result::invalid, 2},
        {"fan speed 3 4", Match::Result::invalid, 3},
        {"fan probe it", Match::Result::invalid, 2},
        {"fan m", Match::Result::incomplete, 0},
        {"fan speed", Match::Result::incomplete, 0},
        {"fan", Match::Result::incomplete, 0},
        {"fan mode", Match::Result::incomplete, 0},
        {"fan controller 10.0.0.1 backup", Match::Result::incomplete, 0},
    };
    Parser parser;
    for (const Row &row : rows) {
        const Match match = parser.match(row.line);
        EXPECT_EQ(match.result, row.result) << row.line;
        if (row.result == Match::Result::invalid)
            EXPECT_EQ(match.word, row.word) << row.line;
    }
}

TEST(Matcher_number, takes_decimal_digits_within_its_bounds)
{
    struct Row {
        const char *word;
        bool accepted;
    };
    const Row rows[] = {{"0", false},
                        {"1", true},
                        {"9", true},
                        {"10", false},
                        {"07", true},
                        {"+5", false},
                        {"-5", false},
                        {"5.0", false},
                        {"0x5", false},
                        {"5a", false},
                        {"18446744073709551621", false}, // 2^64 + 5
                        {"9223372036854775808", false},
                        {"99999999999999999999999999999999", false}};
    Parser parser;
    for (const Row &row : rows) {
        const Match match = parser.match(std::string("fan speed ") + row.word);
        EXPECT_EQ(match.result == Match::Result::run, row.accepted) << row.word;
        if (!row.accepted)
            EXPECT_EQ(match.word, 2U) << row.word;
    }
    EXPECT_EQ(parser.match("fan speed 7").record.int_var[0], 7);
}

TEST(Matcher_number, range_callback_narrows_the_bounds_for_what_stands_before)
{
    Parser parser;
    EXPECT_EQ(parser.match("fan blow eth0 80").record.int_var[2], 80);
    EXPECT_EQ(parser.match("fan blow eth0 half 50").record.int_var[2], 50);
    EXPECT_EQ(parser.match("fan blow eth0 half 51").result, Match::Result::invalid);
    EXPECT_EQ(parser.choices("fan blow eth0 half", ""), (std::vector<std::string>{"<0-50>", "<cr>"}));
}

TEST(Matcher_address, ipv4_is_strict_dotted_quad)
{
    struct Row {
        const char *word;
        bool accepted;
    };
    const Row rows[] = {{"10.0.0.1", true},    {"255.255.255.255", true}, {"10.0.0", false},
                        {"10.0.0.256", false}, {"10.0.0.01", false},      {"10.0.0.1.2", false},
                        {"10.0.0.1/8", false}, {"167772161", false},      {"::1", false}};
    Parser parser;
    for (const Row &row : rows)
        EXPECT_EQ(parser.match(std::string("fan controller ") + row.word).result == Match::Result::run,
                  row.accepted)
            << row.word;
    const Match match = parser.match("fan controller 10.1.2.3");
    EXPECT_EQ(match.record.flag_1, 1);
    EXPECT_EQ(sample::ipv4_slot(match.record, 0), "10.1.2.3");
}

TEST(Matcher_address, ipv6_fills_sixteen_bytes)
{
    Parser parser;
    const Match match = parser.match("fan controller ipv6 2001:db8::ff");
    ASSERT_EQ(match.result, Match::Result::run);
    EXPECT_EQ(match.record.flag_1, 2);
    EXPECT_EQ(match.record.paddr_var[0][0], 0x20);
    EXPECT_EQ(match.record.paddr_var[0][15], 0xff);
    for (const char *const word : {"2001:db8::1::2", "10.0.0.1", "fe80::1%eth0", "2001:db8::/32"})
        EXPECT_EQ(parser.match(std::string("fan controller ipv6 ") + word).result, Match::Result::invalid)
            << word;
}

TEST(Matcher_test_expression, sees_what_earlier_words_have_stored)
{
    Parser parser;
    EXPECT_EQ(parser.match("fan controller ipv6 2001::1 backup 2001::2").result, Match::Result::run);
    const Match wrong_family = parser.match("fan controller ipv6 2001::1 backup 10.0.0.1");
    EXPECT_EQ(wrong_family.result, Match::Result::invalid);
    EXPECT_EQ(wrong_family.word, 5U);
    const Match right_family = parser.match("fan controller 10.0.0.2 backup 10.0.0.1");
    ASSERT_EQ(right_family.result, Match::Result::run);
    EXPECT_EQ(sample::ipv4_slot(right_family.record, 1), "10.0.0.1");
    EXPECT_STREQ(right_family.record.contex_swap, "testexp_v6");
}

TEST(Matcher_test_expression, false_hides_the_command)
{
    Parser parser;
    sample::calls = {};
    sample::calls.turbo_possible = false;
    EXPECT_EQ(parser.match("fan turbo").result, Match::Result::invalid);
    EXPECT_EQ(parser.match("fan mode auto").result, Match::Result::run); // the other branch goes on
    EXPECT_EQ(parser.choices("fan", "tu"), std::vector<std::string>{});
    sample::calls.turbo_possible = true;
    EXPECT_EQ(parser.match("fan turbo").result, Match::Result::run);
}

TEST(Matcher_string, takes_up_to_255_bytes)
{
    Parser parser;
    const std::string longest(255, 'x');
    EXPECT_EQ(parser.match("fan name " + longest).record.string_var[0], longest);
    EXPECT_EQ(parser.match("fan name " + longest + "x").result, Match::Result::invalid);
}

TEST(Matcher_interface, takes_existing_interfaces_of_the_accepted_kinds)
{
    Parser parser;
    EXPECT_EQ(parser.match("fan blow eth1").record.int_var[3], 3);
    EXPECT_EQ(parser.match("fan blow bond0").record.int_var[3], 10);
    EXPECT_EQ(parser.match("fan blow mgmt0").result, Match::Result::invalid);
    EXPECT_EQ(parser.match("fan blow eth9").result, Match::Result::invalid);
    EXPECT_EQ(parser.match("fan blow eth").result, Match::Result::invalid); // names are not abbreviated
}

TEST(Matcher_keyword, unique_abbreviation_is_enough)
{
    Parser parser;
    EXPECT_EQ(reached(parser.match("f s 3")), "fan_speed");
    EXPECT_EQ(reached(parser.match("F SPEED 3")), "fan_speed");
    EXPECT_EQ(reached(parser.match("fan mod autom")), "fan_mode");
}

TEST(Matcher_keyword, abbreviation_of_two_listed_keywords_is_ambiguous)
{
    Parser parser;
    const Match match = parser.match("fan mode aut");
    EXPECT_EQ(match.result, Match::Result::ambiguous);
    EXPECT_EQ(match.word, 2U);
    EXPECT_EQ(parser.match("fan mode autom").record.int_var[1], 7);
}

TEST(Matcher_keyword, whole_word_beats_an_abbreviation)
{
    Parser parser;
    EXPECT_EQ(parser.match("fan mode auto").record.int_var[1], reinterpret_cast<int64_t>(&sample::calls));
    EXPECT_EQ(parser.match("fan mode AUTO").record.int_var[1], reinterpret_cast<int64_t>(&sample::calls));
}

TEST(Matcher_keyword, value_is_written_on_a_match)
{
    Parser parser;
    EXPECT_EQ(parser.match("fan mode automatic").record.int_var[1], 7);
    const Match with_pointer = parser.match("fan mode auto");
    EXPECT_EQ(with_pointer.record.int_var[1], reinterpret_cast<int64_t>(&sample::calls));
}

TEST(Matcher_keyword, hidden_needs_its_minimum_and_is_never_listed)
{
    Parser parser;
    EXPECT_EQ(reached(parser.match("fan prob")), "fan_probe");
    EXPECT_EQ(reached(parser.match("fan probe")), "fan_probe");
    EXPECT_EQ(parser.match("fan pro").result, Match::Result::invalid);
    EXPECT_EQ(parser.choices("fan", "probe"), std::vector<std::string>{});
    for (const std::string &choice : parser.choices("fan", ""))
        EXPECT_NE(choice, "probe");
}

TEST(Matcher_keyword, listed_one_wins_over_a_hidden_one)
{
    Parser parser;
    EXPECT_EQ(reached(parser.match("show fa", Mode::exec)), "show_fan");
    EXPECT_EQ(reached(parser.match("show fan", Mode::exec)), "show_fan"); // the whole word
    EXPECT_EQ(reached(parser.match("show fancy", Mode::exec)), "show_fan_secret");
    EXPECT_EQ(parser.match("show fanc", Mode::exec).result, Match::Result::invalid);
}

TEST(Matcher_privilege, user_level_sees_words_with_bit_8_and_without_bit_10_only)
{
    Parser parser;
    EXPECT_EQ(reached(parser.match("show fan", Mode::exec, Level::user)), "show_fan");
    EXPECT_EQ(parser.match("show fan secret", Mode::exec, Level::user).result, Match::Result::invalid);
    EXPECT_EQ(parser.match("debug fan", Mode::exec, Level::user).result, Match::Result::invalid);
    EXPECT_EQ(reached(parser.match("debug fan", Mode::exec)), "debug_fan");
    EXPECT_EQ(parser.choices("show fan", "", Mode::exec, Level::user), std::vector<std::string>{"<cr>"});
    EXPECT_EQ(parser.choices("show fan", "", Mode::exec), (std::vector<std::string>{"secret", "<cr>"}));
}

TEST(Matcher_noprefix, chooses_by_the_word_no)
{
    Parser parser;
    const Match negated = parser.match("fan speed", Mode::config, Level::privileged, true);
    EXPECT_EQ(reached(negated), "fan_speed");
    EXPECT_NE(negated.record.flag_nd_prefix, 0);
    EXPECT_EQ(parser.match("fan speed 3", Mode::config, Level::privileged, true).result,
              Match::Result::invalid);
    EXPECT_EQ(parser.match("fan speed").result, Match::Result::incomplete);
    EXPECT_EQ(parser.match("show fan", Mode::exec, Level::privileged, true).result, Match::Result::invalid);
}

TEST(Matcher_debug, framework_says_on_or_off_in_flag_1)
{
    Parser parser;
    EXPECT_EQ(parser.match("debug fan", Mode::exec).record.flag_1, 1);
    EXPECT_EQ(parser.match("debug fan", Mode::exec, Level::privileged, true).record.flag_1, 2);
}

TEST(Matcher_match, two_trees_may_begin_with_the_same_keywords)
{
    Parser parser;
    EXPECT_EQ(reached(parser.match("fan speed 1")), "fan_speed"); // PARSE_ADD_CFG_CMD
    EXPECT_EQ(reached(parser.match("fan after")), "fan_after");   // PARSE_ADD_CFG_AFT_INTF_CMD
    EXPECT_EQ(reached(parser.match("fan af")), "fan_after");
}

TEST(Matcher_choices, lists_what_may_follow)
{
    struct Row {
        const char *words;
        const char *partial;
        std::vector<std::string> texts;
    };
    const Row rows[] = {
        {"fan speed", "", {"<1-9>"}},
        {"fan name", "", {"WORD"}},
        {"fan controller", "", {"ipv6", "A.B.C.D"}},
        {"fan controller ipv6", "", {"X:X::X:X"}},
        {"fan controller 10.0.0.1", "", {"backup", "<cr>"}},
        {"fan blow", "", {"IFNAME", "bond0", "eth0", "eth1"}},
        {"fan blow", "e", {"IFNAME", "eth0", "eth1"}},
        {"fan", "m", {"mode"}},
        {"fan", "x", {}},
        {"fin", "", {}},
    };
    Parser parser;
    sample::calls = {};
    for (const Row &row : rows)
        EXPECT_EQ(parser.choices(row.words, row.partial), row.texts) << row.words << " " << row.partial;
}

TEST(Matcher_match, tree_that_runs_in_a_circle_ends)
{
    // Each round stores another value, so that no position is ever seen again.
    static constexpr struct_set_cdb_var one{1, CLI_VARIABLE_FLAG, CLI_SLOT(flag_1)};
    static constexpr struct_set_cdb_var two{2, CLI_VARIABLE_FLAG, CLI_SLOT(flag_1)};
    static struct_transtion second{set_cdb_var_action, &two, nullptr, nullptr};
    static const struct_transtion circle{set_cdb_var_action, &one, &second, nullptr};
    second.accept = &circle;
    cli::Grammar grammar;
    static const struct_transtion top{append_point_action, nullptr, &circle, &Tno_alt};
    ASSERT_TRUE(grammar.add(PARSE_ADD_CFG_CMD, &top, "circle"));
    const cli::InterfaceDirectory interfaces = sample::interfaces();
    cli::Matcher matcher(grammar, interfaces, Level::privileged);
    struct_command_data_block start{};
    EXPECT_EQ(matcher.match(cli::mode_root(Mode::config), start, cli::split_words("x")).result,
              Match::Result::invalid);
}

TEST(Matcher_choices, names_are_offered_behind_their_keyword)
{
    const cli::Grammar grammar = sample::grammar();
    cli::InterfaceDirectory directory = sample::interfaces();
    std::vector<std::string> asked;
    directory.named_behind = [&](std::string_view keyword) {
        asked.emplace_back(keyword);
        return keyword == "name" ? std::vector<std::string>{"big", "bigger", "small"}
                                 : std::vector<std::string>{};
    };
    cli::Matcher matcher(grammar, directory, cli::Level::privileged);
    struct_command_data_block start{};
    start.mode_name = CLI_MODE_CONFIG;
    const auto offered = [&](std::string_view line, std::string_view partial) {
        std::vector<std::string> texts;
        for (const cli::Choice &choice :
             matcher.choices(cli::mode_root(cli::Mode::config), start, cli::split_words(line), partial))
            texts.push_back(choice.text + (choice.literal ? "" : " (any)"));
        return texts;
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ(offered("fan name", ""), (Texts{"WORD (any)", "big", "bigger", "small"}));
    EXPECT_EQ(offered("FAN NA", "big"),
              (Texts{"WORD (any)", "big", "bigger"})); // by the keyword, not as typed
    EXPECT_EQ(offered("fan name", "huge"), Texts{"WORD (any)"});
    EXPECT_EQ(asked, (Texts{"name", "name", "name"}));
    // Any other name is taken.
    const auto words = cli::split_words("fan name huge");
    EXPECT_EQ(matcher.match(cli::mode_root(cli::Mode::config), start, words).result, cli::Match::Result::run);
}
