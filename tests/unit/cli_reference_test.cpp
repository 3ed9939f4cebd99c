// The command reference: syntax, words and remarks of the commands of a parse graph.
#include "reference.h"

#include "cli_sample.h"
#include "syntax_graph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using cli::Grammar;
using cli::Mode;
using cli::ReferenceCommand;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

std::vector<ReferenceCommand> commands(Mode mode)
{
    return cli::reference_commands(sample::grammar(), mode);
}

ReferenceCommand command(Mode mode, const std::string &syntax)
{
    for (ReferenceCommand &found : commands(mode))
        if (found.syntax == syntax)
            return found;
    ADD_FAILURE() << "no command " << syntax;
    return {};
}

std::vector<std::string> syntaxes(const std::vector<ReferenceCommand> &list)
{
    std::vector<std::string> texts;
    for (const ReferenceCommand &entry : list)
        texts.push_back(entry.syntax);
    return texts;
}

void handler(struct_command_data_block * /*record*/) {}

constexpr u_int64_t USER = CLI_PRIV_USER;

// Ways that meet: ring {a | b [x | y]} [z] WORD
CLI_NODES(ring_top, ring, a, b, x, y, z, word, ring_end);
CLI_APPEND_POINT(ring_top, ring);
CLI_KEYWORD(ring, "ring", "a ring", USER, a, Tno_alt);
CLI_KEYWORD(a, "a", "first", USER, z, b);
CLI_KEYWORD(b, "b", "second", USER, x, Tno_alt);
CLI_KEYWORD(x, "x", "b's first", USER, z, y);
CLI_KEYWORD(y, "y", "b's second", USER, z, z);
CLI_KEYWORD(z, "z", "last", USER, word, word);
CLI_STRING(word, "any | other", CLI_SLOT(string_var[0]), ring_end, Tno_alt);
CLI_EOL(ring_end, handler);

// An argument for help alone, and one that takes any word: port IFNAME
CLI_NODES(port_top, port, port_name, port_any, port_end);
CLI_APPEND_POINT(port_top, port);
CLI_KEYWORD(port, "port", "a port", USER, port_name, Tno_alt);
CLI_INTERFACE(port_name, ~u_int64_t{0}, CLI_SLOT(int_var[0]), Tno_alt, port_any);
CLI_STRING(port_any, "", CLI_SLOT(string_var[0]), port_end, Tno_alt);
CLI_EOL(port_end, handler);

// Common endings: same [ipv6] IFNAME
CLI_NODES(same_top, same, same_ipv6, same_v6, same_v4, same_end);
CLI_APPEND_POINT(same_top, same);
CLI_KEYWORD(same, "same", "same", USER, same_ipv6, Tno_alt);
CLI_KEYWORD(same_ipv6, "ipv6", "ipv6", USER, same_v6, same_v4);
CLI_INTERFACE(same_v6, 1, CLI_SLOT(int_var[0]), same_end, Tno_alt);
CLI_INTERFACE(same_v4, 1, CLI_SLOT(int_var[0]), same_end, Tno_alt);
CLI_EOL(same_end, handler);

// Words again and again, without an end.
CLI_NODES(circle_top, circle, round_and, round_end);
CLI_APPEND_POINT(circle_top, circle);
CLI_KEYWORD(circle, "circle", "a circle", USER, round_and, Tno_alt);
CLI_KEYWORD(round_and, "round", "once more", USER, round_and, round_end);
CLI_EOL(round_end, handler);

std::vector<ReferenceCommand> commands_of(const struct_transtion &root)
{
    Grammar grammar;
    EXPECT_TRUE(grammar.add(PARSE_ADD_CFG_CMD, &root, "tree"));
    return cli::reference_commands(grammar, Mode::config);
}

} // namespace

TEST(Reference_commands, every_command_of_the_graph_is_there_once)
{
    EXPECT_THAT(syntaxes(commands(Mode::config)),
                ElementsAre("fan speed <1-9>", "fan name WORD", "fan controller {ipv6 X:X::X:X | A.B.C.D}",
                            "fan controller {ipv6 X:X::X:X | A.B.C.D} backup {X:X::X:X | A.B.C.D}",
                            "fan probe", "fan turbo", "fan mode {automatic | auto}",
                            "fan blow IFNAME [half] [<0-100>]", "fan after"));
    EXPECT_THAT(syntaxes(commands(Mode::interface)), ElementsAre("fan enable"));
    EXPECT_THAT(syntaxes(commands(Mode::exec)),
                ElementsAre("debug fan", "show fan", "show fan secret", "show fancy_internals"));
}

TEST(Reference_commands, ways_that_meet_are_alternatives)
{
    const std::vector<ReferenceCommand> list = commands_of(ring_top);
    ASSERT_EQ(syntaxes(list), std::vector<std::string>{"ring {a | b [x | y]} [z] WORD"});
    std::vector<std::string> words;
    for (const cli::ReferenceWord &entry : list.front().words)
        words.push_back(entry.text + ": " + entry.help);
    EXPECT_THAT(words, ElementsAre("ring: a ring", "a: first", "b: second", "x: b's first", "y: b's second",
                                   "z: last", "WORD: any | other"));
}

TEST(Reference_commands, common_endings_stand_once)
{
    EXPECT_THAT(syntaxes(commands_of(same_top)), ElementsAre("same [ipv6] IFNAME"));
}

TEST(Reference_commands, argument_that_takes_any_word_is_named_after_the_one_for_help)
{
    EXPECT_THAT(syntaxes(commands_of(port_top)), ElementsAre("port IFNAME"));
}

TEST(Reference_commands, graph_in_circles_is_refused)
{
    EXPECT_THROW(static_cast<void>(commands_of(circle_top)), std::logic_error);
}

TEST(Reference_commands, forms_with_no_belong_to_the_command_they_take_back)
{
    EXPECT_THAT(command(Mode::config, "fan speed <1-9>").negated, ElementsAre("fan speed"));
    EXPECT_THAT(command(Mode::config, "fan name WORD").negated, ElementsAre("fan name WORD"));
    EXPECT_THAT(command(Mode::interface, "fan enable").negated, ElementsAre("fan enable"));
    EXPECT_THAT(command(Mode::exec, "show fan").negated, ElementsAre()); // `show` takes no "no"
    EXPECT_THAT(command(Mode::exec, "debug fan").negated, ElementsAre("debug fan"));
}

TEST(Reference_commands, privilege_hiding_and_conditions_are_told)
{
    EXPECT_FALSE(command(Mode::exec, "show fan").privileged);
    EXPECT_TRUE(command(Mode::exec, "show fan secret").privileged);
    EXPECT_FALSE(command(Mode::exec, "show fan secret").hidden);
    EXPECT_TRUE(command(Mode::exec, "show fancy_internals").hidden);
    EXPECT_TRUE(command(Mode::config, "fan turbo").conditional);
    EXPECT_FALSE(command(Mode::config, "fan speed <1-9>").conditional);
}

TEST(Reference_format, has_a_section_for_each_mode_and_command)
{
    const Grammar grammar = sample::grammar();
    const cli::ReferenceDefault presets[] = {
        {command(Mode::config, "fan speed <1-9>").handler, "fan speed 5"}};
    const std::string text = cli::format_reference(grammar, presets);
    EXPECT_EQ(text.find("# Command reference\n"), 0U);
    EXPECT_THAT(text, HasSubstr("\n## Exec mode\n"));
    EXPECT_THAT(text, HasSubstr("\n## Configuration mode\n"));
    EXPECT_THAT(text, HasSubstr("\n## Interface mode and interface-range mode\n"));
    EXPECT_THAT(text, Not(HasSubstr("\n## Mode ifrange")));
    EXPECT_THAT(text,
                HasSubstr("\n### `fan speed <1-9>`\nWith `no`: `no fan speed`. Default: `fan speed 5`.\n\n"
                          "| Word | |\n|---|---|\n| `fan` | Configure the fan |\n| `speed` | fan speed |\n"
                          "| `<1-9>` | thousands of revolutions |\n"));
    EXPECT_THAT(text, HasSubstr("\n### `fan name WORD`\nTakes `no` in front.\n"));
    EXPECT_THAT(text, HasSubstr("\n### `show fan secret`\nNeeds `enable`.\n"));
}

TEST(Reference_format, bars_in_help_do_not_break_the_table)
{
    Grammar grammar;
    ASSERT_TRUE(grammar.add(PARSE_ADD_CFG_CMD, &ring_top, "ring"));
    EXPECT_THAT(cli::format_reference(grammar, {}), HasSubstr("| `WORD` | any \\| other |\n"));
}
