// The running configuration: which handlers print, in which order, and how the text looks.
#include "running_config.h"

#include "cli_sample.h"
#include "cli_services_double.h"
#include "graph_walk.h"
#include "modifier.h"

#include <gtest/gtest.h>

namespace
{

class ConfigTest : public testing::Test
{
protected:
    ConfigTest() : grammar_(sample::grammar())
    {
        sample::calls = {};
        services::state = {};
        services::state.grammar = &grammar_;
    }

    std::string collect(bool all = false)
    {
        services::state.config = {};
        struct_command_data_block record{};
        record.parser_status = CLI_PARSER_C2P;
        complete_ = cli::collect_config(grammar_, record, services::state.config);
        return services::state.config.text(all);
    }

    cli::Grammar grammar_;
    bool complete_ = false;
};

} // namespace

TEST_F(ConfigTest, sections_come_in_the_order_global_interfaces_after_interfaces)
{
    sample::calls.speed = 8;
    sample::calls.name = "big";
    // The tree that prints the interfaces was registered before the global one.
    EXPECT_EQ(collect(), "fan speed 8\nfan name big\n!\ninterface eth0\n fan enable\n!\n"
                         "interface eth1\n fan enable\n!\nfan after\n!\n");
    EXPECT_TRUE(complete_);
}

TEST_F(ConfigTest, default_values_are_shown_on_demand_only)
{
    EXPECT_EQ(collect().find("fan speed"), std::string::npos);
    EXPECT_EQ(collect(true).find("fan speed 5\n!\n"), 0U);
}

TEST_F(ConfigTest, both_sides_of_a_test_are_visited)
{
    // The name's c2p node is reached past nodes that would not match, and whatever the tests answer.
    sample::calls.name = "big";
    sample::calls.turbo_possible = false;
    EXPECT_NE(collect().find("fan name big\n"), std::string::npos);
}

TEST_F(ConfigTest, handler_named_by_two_nodes_prints_once_a_walk)
{
    const std::string text = collect();
    const std::size_t first = text.find(" fan enable\n");
    ASSERT_NE(first, std::string::npos);
    const std::size_t second = text.find(" fan enable\n", first + 1);
    ASSERT_NE(second, std::string::npos); // of the other interface
    EXPECT_EQ(text.find(" fan enable\n", second + 1), std::string::npos);
}

TEST_F(ConfigTest, lines_of_interface_mode_are_indented_and_have_one_newline)
{
    cli::RunningConfig config;
    config.add(true, "config", "a\n");
    config.add(true, "interface", "b\n");
    config.add(true, "interface", "c");
    config.add(true, "config", "");
    config.add(true, "config", "\n");
    EXPECT_EQ(config.text(false), "a\n b\n c\n");
}

TEST_F(ConfigTest, separators_do_not_stand_first_nor_in_a_row)
{
    cli::RunningConfig config;
    config.separate();
    config.add(false, "config", "default");
    config.separate();
    config.add(true, "config", "x");
    config.add(true, "config", "!");
    config.separate();
    EXPECT_EQ(config.text(false), "x\n!\n");
    EXPECT_EQ(config.text(true), "default\n!\nx\n!\n");
}

TEST(RunningConfig_add, lines_of_modes_below_configuration_mode_are_indented)
{
    cli::RunningConfig config;
    for (const char *const mode :
         {CLI_MODE_CONFIG, CLI_MODE_INTERFACE, CLI_MODE_IFRANGE, CLI_MODE_ACL_STANDARD, CLI_MODE_ACL_EXTENDED,
          CLI_MODE_ACL_IPV6, CLI_MODE_ACL_MAC, CLI_MODE_EXEC, ""})
        config.add(true, mode, "x");
    EXPECT_EQ(config.text(false), "x\n x\n x\n x\n x\n x\n x\nx\nx\n");
}

TEST_F(ConfigTest, nothing_configured_is_an_empty_text)
{
    const cli::Grammar nothing;
    struct_command_data_block record{};
    record.parser_status = CLI_PARSER_C2P;
    cli::RunningConfig config;
    EXPECT_TRUE(cli::collect_config(nothing, record, config));
    EXPECT_EQ(config.text(true), "");
}

TEST_F(ConfigTest, walk_puts_the_outer_walker_back)
{
    struct_command_data_block record{};
    record.parser_status = CLI_PARSER_C2P;
    record.mode_name = CLI_MODE_CONFIG;
    cli::ConfigWalk outer(grammar_);
    record.parser = &outer;
    EXPECT_TRUE(cli::ConfigWalk(grammar_).walk(cli::mode_root(cli::Mode::interface), record));
    EXPECT_EQ(record.parser, &outer);
}

TEST(Grammar_add, refuses_trees_that_are_not_sound)
{
    static constexpr struct_common_keyword no_text{nullptr, "help", 1, 14, 14, 1, 2, 0, 0};
    static constexpr struct_common_keyword bad_slot{"x", "help", 1, 14, 14, 1, 10, 3, 0};
    static constexpr struct_common_number number_to_string{"n", 0, 1, nullptr, 258, CLI_SLOT(string_var[0])};
    static constexpr struct_common_string string_to_int{"s", 2, CLI_SLOT(int_var[0])};
    static constexpr struct_common_ipaddr address_between{"a", 2, CLI_SLOT(paddr_var[0]) + 4, 0, 0};
    static constexpr struct_common_interface interface_to_end{
        nullptr, nullptr, 1, 8, sizeof(struct_command_data_block), 0, 0};
    static constexpr struct_common_prefix prefix_to_int{"p", 2, CLI_SLOT(int_var[0]), CLI_SLOT(int_var[1])};
    static constexpr struct_common_prefix length_to_address{"p", 2, CLI_SLOT(paddr_var[0]),
                                                            CLI_SLOT(paddr_var[1])};
    static constexpr struct_common_mac mac_to_string{"m", 2, CLI_SLOT(string_var[0])};
    static constexpr struct_common_mac mac_without_help{nullptr, 2, CLI_SLOT(paddr_var[0])};
    static constexpr struct_common_text text_to_int{"t", 2, CLI_SLOT(int_var[0])};
    static constexpr struct_eol no_handler{1, nullptr, 0};
    static constexpr struct_c2p no_printer{nullptr, 0};
    static constexpr struct_set_cdb_var set_outside{1, 8, 1U << 20};
    const struct_transtion nodes[] = {{common_keyword_action, &no_text, nullptr, nullptr},
                                      {common_keyword_action, &bad_slot, nullptr, nullptr},
                                      {common_number_action, &number_to_string, nullptr, nullptr},
                                      {string_action, &string_to_int, nullptr, nullptr},
                                      {ipaddr_action, &address_between, nullptr, nullptr},
                                      {interface_action, &interface_to_end, nullptr, nullptr},
                                      {prefix_action, &prefix_to_int, nullptr, nullptr},
                                      {prefix_action, &length_to_address, nullptr, nullptr},
                                      {mac_action, &mac_to_string, nullptr, nullptr},
                                      {mac_action, &mac_without_help, nullptr, nullptr},
                                      {text_action, &text_to_int, nullptr, nullptr},
                                      {eol_action, &no_handler, nullptr, nullptr},
                                      {c2p_action, &no_printer, nullptr, nullptr},
                                      {set_cdb_var_action, &set_outside, nullptr, nullptr},
                                      {common_keyword_action, nullptr, nullptr, nullptr},
                                      {nullptr, nullptr, nullptr, nullptr}};
    for (const struct_transtion &node : nodes) {
        const struct_transtion top{append_point_action, nullptr, &node, &Tno_alt};
        cli::Grammar grammar;
        EXPECT_FALSE(grammar.add(PARSE_ADD_CFG_CMD, &top, "broken")) << &node - nodes;
        EXPECT_TRUE(grammar.at(PARSE_ADD_CFG_CMD).empty());
    }
}

TEST(Grammar_add, refuses_unknown_attach_points)
{
    cli::Grammar grammar;
    EXPECT_FALSE(grammar.add(static_cast<cli_attach_t>(2), sample::trees()[0].root, "x"));
    EXPECT_FALSE(grammar.add(PARSE_ADD_CFG_CMD, nullptr, "x"));
}

TEST(Grammar_add, the_same_tree_again_stays_in_its_place)
{
    cli::Grammar grammar = sample::grammar();
    const std::size_t before = grammar.at(PARSE_ADD_CFG_CMD).size();
    ASSERT_GT(before, 1U);
    const struct_transtion *first = grammar.at(PARSE_ADD_CFG_CMD)[0].root;
    EXPECT_TRUE(grammar.add(PARSE_ADD_CFG_CMD, first, "another name"));
    ASSERT_EQ(grammar.at(PARSE_ADD_CFG_CMD).size(), before);
    EXPECT_EQ(grammar.at(PARSE_ADD_CFG_CMD)[0].root, first);
    EXPECT_EQ(grammar.at(PARSE_ADD_CFG_CMD)[0].name, "another name");
}

TEST(Grammar_add, trees_of_the_same_name_stand_beside_one_another)
{
    cli::Grammar grammar = sample::grammar();
    const std::size_t before = grammar.at(PARSE_ADD_SHOW_CMD).size();
    const std::string name = grammar.at(PARSE_ADD_SHOW_CMD).back().name;
    EXPECT_TRUE(grammar.add(PARSE_ADD_SHOW_CMD, sample::trees()[3].root, name));
    EXPECT_EQ(grammar.at(PARSE_ADD_SHOW_CMD).size(), before + 1);
}

TEST(LineFilter_write, judges_whole_lines_whatever_the_pieces)
{
    struct Row {
        cli::Modifier modifier;
        const char *passed;
    };
    using Kind = cli::Modifier::Kind;
    const Row rows[] = {{{Kind::include, "an"}, "fan\nman\n"},
                        {{Kind::exclude, "an"}, "dog\nend"},
                        {{Kind::begin, "dog"}, "dog\nman\nend"},
                        {{Kind::include, "zebra"}, ""}};
    const std::string_view text = "fan\ndog\nman\nend";
    for (const Row &row : rows)
        for (std::size_t piece = 1; piece <= text.size(); ++piece) {
            cli::LineFilter filter(row.modifier);
            std::string passed;
            for (std::size_t at = 0; at < text.size(); at += piece)
                passed += filter.write(text.substr(at, piece));
            passed += filter.finish();
            EXPECT_EQ(passed, row.passed) << row.modifier.text << " by " << piece;
        }
}
