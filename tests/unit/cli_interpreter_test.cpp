#include "interpreter.h"

#include "cli_sample.h"

#include <gtest/gtest.h>

using cli::Level;
using cli::Mode;
using cli::Outcome;
using cli::Place;
using Kind = cli::Outcome::Kind;

namespace
{

constexpr Place user{Mode::exec, Level::user, 0};
constexpr Place exec{Mode::exec, Level::privileged, 0};
constexpr Place config{Mode::config, Level::privileged, 0};
constexpr Place in_eth0{Mode::interface, Level::privileged, 2};
constexpr Place in_range{Mode::ifrange, Level::privileged, 0x20001};

class Terminal
{
public:
    [[nodiscard]] Outcome enter(std::string_view line, const Place &place) const
    {
        return cli::Interpreter(grammar_, interfaces_).interpret(line, place);
    }
    [[nodiscard]] std::string answer(std::string_view line, const Place &place) const
    {
        return cli::format_error(enter(line, place), line, 0);
    }
    [[nodiscard]] std::string handler(std::string_view line, const Place &place) const
    {
        const Outcome outcome = enter(line, place);
        if (outcome.kind != Kind::run)
            return {};
        sample::calls = {};
        struct_command_data_block record = outcome.record;
        outcome.handler(&record);
        return sample::calls.handler;
    }
    [[nodiscard]] std::vector<std::string> help(std::string_view text, const Place &place) const
    {
        std::vector<std::string> texts;
        for (const cli::Choice &choice : cli::Interpreter(grammar_, interfaces_).help(text, place))
            texts.push_back(choice.text);
        return texts;
    }
    [[nodiscard]] std::vector<std::string> complete(std::string_view text, const Place &place) const
    {
        return cli::Interpreter(grammar_, interfaces_).complete(text, place);
    }

private:
    cli::Grammar grammar_ = sample::grammar();
    cli::InterfaceDirectory interfaces_ = sample::interfaces();
};

using Words = std::vector<std::string>;

} // namespace

TEST(Interpreter_interpret, comments_and_blank_lines_are_empty)
{
    const Terminal terminal;
    for (const char *const line : {"", "   ", "\t", "!", "! fan speed 3", "   ! fan"})
        EXPECT_EQ(terminal.enter(line, config).kind, Kind::empty) << line;
}

TEST(Interpreter_interpret, leading_blanks_are_indentation)
{
    const Terminal terminal;
    EXPECT_EQ(terminal.handler(" fan speed 3", config), "fan_speed");
    EXPECT_EQ(terminal.handler("\tfan\tspeed  3  ", config), "fan_speed");
}

TEST(Interpreter_interpret, errors_point_at_the_word)
{
    struct Row {
        const char *line;
        const Place &place;
        const char *answer;
    };
    const Row rows[] = {
        {"fan spead 3", config, "    ^\n% Invalid input detected at '^' marker.\n"},
        {"  fan speed 0", config, "            ^\n% Invalid input detected at '^' marker.\n"},
        {"no fan speed 3", config, "             ^\n% Invalid input detected at '^' marker.\n"},
        {"fan mode aut", config, "         ^\n% Ambiguous command\n"},
        {"fan speed", config, "% Incomplete command\n"},
        {"no", config, "% Incomplete command\n"},
        {"do", config, "% Incomplete command\n"},
        {"nonsense", exec, "^\n% Invalid input detected at '^' marker.\n"},
        {"fan speed 3", exec, "^\n% Invalid input detected at '^' marker.\n"},
        {"fan name a\x01", config, "          ^\n% Invalid input detected at '^' marker.\n"},
        {"fan name \xc3\xa4 x", config, "           ^\n% Invalid input detected at '^' marker.\n"},
    };
    const Terminal terminal;
    for (const Row &row : rows)
        EXPECT_EQ(terminal.answer(row.line, row.place), row.answer) << row.line;
}

TEST(Interpreter_format_error, prompt_shifts_the_marker_and_a_batch_repeats_the_line)
{
    const Terminal terminal;
    const std::string line = "fan spead 3";
    const Outcome outcome = terminal.enter(line, config);
    EXPECT_EQ(cli::format_error(outcome, line, 2), "      ^\n% Invalid input detected at '^' marker.\n");
    EXPECT_EQ(cli::format_error(outcome, line, std::nullopt),
              "fan spead 3\n    ^\n% Invalid input detected at '^' marker.\n");
}

TEST(Interpreter_interpret, no_sets_the_prefix_flag)
{
    const Terminal terminal;
    EXPECT_NE(terminal.enter("no fan speed", config).record.flag_nd_prefix, 0);
    EXPECT_EQ(terminal.enter("fan speed 3", config).record.flag_nd_prefix, 0);
    EXPECT_EQ(terminal.enter("n fan speed", config).kind, Kind::invalid);
}

TEST(Interpreter_interpret, do_runs_an_exec_command_in_any_configuration_mode)
{
    const Terminal terminal;
    for (const Place &place : {config, in_eth0, in_range}) {
        const Outcome outcome = terminal.enter("do show fan | include x", place);
        EXPECT_EQ(outcome.kind, Kind::run);
        EXPECT_EQ(outcome.mode, Mode::exec);
        EXPECT_TRUE(outcome.modifier.has_value());
    }
    EXPECT_EQ(terminal.enter("do no debug fan", config).record.flag_1, 2);
    EXPECT_EQ(terminal.enter("do show fan", exec).kind, Kind::invalid);
    EXPECT_EQ(terminal.enter("show fan", config).kind, Kind::invalid);
}

TEST(Interpreter_interpret, configuration_commands_are_understood_in_interface_modes)
{
    const Terminal terminal;
    for (const Place &place : {in_eth0, in_range}) {
        EXPECT_EQ(terminal.enter("fan speed 3", place).mode, Mode::config);
        EXPECT_EQ(terminal.enter("fan after", place).mode, Mode::config);
        EXPECT_EQ(terminal.enter("fan enable", place).mode, place.mode);
    }
}

TEST(Interpreter_interpret, error_in_interface_mode_is_that_of_the_mode_that_understood_more)
{
    const Terminal terminal;
    EXPECT_EQ(terminal.enter("fan enable it", in_eth0).column, 11U);
    EXPECT_EQ(terminal.enter("fan speed 99", in_eth0).column, 10U);
    EXPECT_EQ(terminal.enter("fan speed", in_eth0).kind, Kind::incomplete);
}

TEST(Interpreter_interpret, record_carries_the_interface_or_the_kinds_of_the_range)
{
    const Terminal terminal;
    const Outcome one = terminal.enter("fan enable", in_eth0);
    EXPECT_EQ(one.record.mode_intidx, 2U);
    EXPECT_STREQ(one.record.mode_name, "interface");
    const Outcome range = terminal.enter("fan enable", in_range);
    EXPECT_EQ(range.record.mode_intidx, 0x20001U);
    EXPECT_STREQ(range.record.mode_name, "ifrange");
    EXPECT_EQ(terminal.enter("fan speed 3", in_eth0).record.mode_intidx, 0U);
}

TEST(Interpreter_modifier, is_taken_off_show_commands)
{
    struct Row {
        const char *line;
        cli::Modifier::Kind kind;
        const char *text;
    };
    const Row rows[] = {{"show fan | include speed", cli::Modifier::Kind::include, "speed"},
                        {"sh fan | inc speed is", cli::Modifier::Kind::include, "speed is"},
                        {"show fan |exclude  a | b ", cli::Modifier::Kind::exclude, "a | b"},
                        {"show fan | b x", cli::Modifier::Kind::begin, "x"}};
    const Terminal terminal;
    for (const Row &row : rows) {
        const Outcome outcome = terminal.enter(row.line, exec);
        ASSERT_TRUE(outcome.kind == Kind::run && outcome.modifier) << row.line;
        EXPECT_EQ(outcome.modifier->kind, row.kind) << row.line;
        EXPECT_EQ(outcome.modifier->text, row.text) << row.line;
    }
}

TEST(Interpreter_modifier, mistakes_are_pointed_at)
{
    struct Row {
        const char *line;
        const Place &place;
        Kind kind;
        std::size_t column;
    };
    const Row rows[] = {{"show fan |", exec, Kind::incomplete, 0},
                        {"show fan | include", exec, Kind::incomplete, 0},
                        {"show fan | grep x", exec, Kind::invalid, 11},
                        {"show fun | include x", exec, Kind::invalid, 5},
                        {"debug fan | include x", exec, Kind::invalid, 10},
                        {"fan speed 3 | include x", config, Kind::invalid, 12}};
    const Terminal terminal;
    for (const Row &row : rows) {
        const Outcome outcome = terminal.enter(row.line, row.place);
        EXPECT_EQ(outcome.kind, row.kind) << row.line;
        if (row.kind == Kind::invalid)
            EXPECT_EQ(outcome.column, row.column) << row.line;
    }
}

TEST(Interpreter_help, lists_the_words_at_the_cursor)
{
    struct Row {
        const char *text;
        const Place &place;
        Words texts;
    };
    const Row rows[] = {
        {"", user, {"show"}},
        {"", exec, {"debug", "no", "show"}},
        {"", config, {"do", "fan", "no"}},
        {"", in_eth0, {"do", "fan", "no"}},
        {"s", exec, {"show"}},
        {"show ", exec, {"fan", "tech-support"}},
        {"show fan ", exec, {"secret", "|", "<cr>"}},
        {"show fan | ", exec, {"begin", "exclude", "include"}},
        {"show fan | e", exec, {"exclude"}},
        {"show fan |in", exec, {"include"}},
        {"show fan | include ", exec, {"LINE"}},
        {"no d", exec, {"debug"}},
        {"no fan speed ", config, {"<cr>"}},
        {"do show fan ", config, {"secret", "|", "<cr>"}},
        {"fan ", in_eth0, {"enable"}},
        {"fan speed ", in_eth0, {"<1-9>"}},
        {"fan blow ", config, {"bond0", "eth0", "eth1", "IFNAME"}},
        {"fan bogus ", config, {}},
        {"! fan ", config, {}},
        {"fan pro", config, {}},
    };
    const Terminal terminal;
    sample::calls = {};
    for (const Row &row : rows)
        EXPECT_EQ(terminal.help(row.text, row.place), row.texts) << row.text;
}

TEST(Interpreter_complete, offers_what_can_be_typed_as_it_stands)
{
    struct Row {
        const char *text;
        const Place &place;
        Words words;
    };
    const Row rows[] = {{"sh", exec, {"show"}},     {"SH", exec, {"show"}},
                        {"show f", exec, {"fan"}},  {"fan blow e", config, {"eth0", "eth1"}},
                        {"fan speed ", config, {}}, {"fan ", in_range, {"enable"}},
                        {"fan prob", config, {}},   {"show fan | i", exec, {"include"}},
                        {"d", config, {"do"}}};
    const Terminal terminal;
    sample::calls = {};
    for (const Row &row : rows)
        EXPECT_EQ(terminal.complete(row.text, row.place), row.words) << row.text;
}

TEST(Interpreter_format_help, aligns_the_texts)
{
    EXPECT_EQ(
        cli::format_help({{"fan", "the fan", true}, {"A.B.C.D", "an address", false}, {"<cr>", "", false}}),
        "  fan      the fan\n  A.B.C.D  an address\n  <cr>\n");
}

TEST(Words_display_column, counts_characters_not_bytes)
{
    EXPECT_EQ(cli::display_column("a\xc3\xa4"
                                  "b",
                                  3),
              2U);
    EXPECT_EQ(cli::display_column("ab", 9), 2U);
}
