// Debug switches, the gate of the log lines, and the event counters.
#include "dcli_doubles.h"
#include "dcli_nodes.h"
#include "sflow_dbg.h"

#include <algorithm>
#include <set>

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

struct Debug : Case {
    void SetUp() override
    {
        Case::SetUp();
        sflow_debug_conf = false;
    }
};

using Debug_switches = Debug;
using Debug_listing = Debug;
using Debug_gate = Debug;
using Debug_statistics = Debug;

/// The switches that are on, in the order all, event, export, conf, socket.
std::string on()
{
    std::string names;
    for (const auto &[flag, name] : {std::pair{sflow_debug_all, "all "},
                                     {sflow_debug_event, "event "},
                                     {sflow_debug_export, "export "},
                                     {sflow_debug_conf, "conf "},
                                     {sflow_debug_skt, "socket "}})
        names += flag ? name : "";
    return names;
}

std::string listing()
{
    std::string text;
    sys_show_debug([&](std::string_view piece) { text += piece; });
    return text;
}

Ran exec(const std::string &line)
{
    return run(line, CLI_MODE_EXEC);
}

} // namespace

TEST_F(Debug_switches, each_keyword_has_its_switch)
{
    for (const std::string name : {"event", "export", "conf", "socket"}) {
        EXPECT_EQ(exec("debug sflow " + name), SILENT);
        EXPECT_EQ(on(), name + " ");
        EXPECT_EQ(exec("debug sflow " + name), SILENT);
        EXPECT_EQ(on(), name + " ");
        EXPECT_EQ(exec("no debug sflow " + name), SILENT);
        EXPECT_EQ(on(), "");
    }
}

TEST_F(Debug_switches, all_sets_every_category_and_stays_off_itself)
{
    sflow_debug_all = true;
    EXPECT_EQ(exec("debug sflow all"), SILENT);
    EXPECT_EQ(on(), "event export conf socket ");
}

TEST_F(Debug_switches, no_all_clears_all_five)
{
    sflow_debug_all = sflow_debug_event = sflow_debug_export = sflow_debug_conf = sflow_debug_skt = true;
    EXPECT_EQ(exec("no debug sflow all"), SILENT);
    EXPECT_EQ(on(), "");
}

TEST_F(Debug_switches, clearing_one_leaves_the_others)
{
    exec("debug sflow all");
    exec("no debug sflow export");
    EXPECT_EQ(on(), "event conf socket ");
}

TEST_F(Debug_switches, neither_debug_nor_its_negation_does_nothing)
{
    struct_command_data_block record{};
    record.flag_subcmd = 3;
    record.int_var[0] = reinterpret_cast<int64_t>(&sflow_array[0]);
    for (const int64_t flag : {0, 3, -1}) {
        record.flag_1 = flag;
        sflow_debug_ctrl_cmd(&record);
        EXPECT_EQ(on(), "") << flag;
    }
    record.flag_1 = 1;
    fake::print_config(sflow_debug_ctrl_cmd, record);
    EXPECT_EQ(on(), "");
    sflow_debug_ctrl_cmd(&record);
    EXPECT_EQ(on(), "conf ");
}

TEST_F(Debug_switches, the_command_is_hidden_and_for_privileged_operators)
{
    for (const fake::Help &choice : fake::cli_help("debug ", CLI_MODE_EXEC))
        EXPECT_NE(choice.text, "sflow");
    const std::vector<fake::Help> choices = fake::cli_help("debug sflow ", CLI_MODE_EXEC);
    for (const fake::Help &expected : {fake::Help{"all", "all sflow debug information"},
                                       {"socket", "sflow socket debug information"},
                                       {"event", "sflow event debug information"},
                                       {"export", "sflow export debug information"},
                                       {"conf", "sflow configure debug information"}})
        EXPECT_NE(std::find(choices.begin(), choices.end(), expected), choices.end()) << expected.text;
    fake::Place user(CLI_MODE_EXEC);
    user.privileged = false;
    EXPECT_EQ(fake::cli_match("debug sflow all", user).kind, fake::CliResult::Kind::invalid);
    EXPECT_EQ(fake::cli_match("debug sflo all", CLI_MODE_EXEC).kind, fake::CliResult::Kind::invalid);
    EXPECT_EQ(fake::cli_match("debug sflow", CLI_MODE_EXEC).kind, fake::CliResult::Kind::incomplete);
}

TEST_F(Debug_switches, words_of_the_command)
{
    const fake::CliResult result = fake::cli_match("debug sflow socket", CLI_MODE_EXEC);
    EXPECT_EQ(result.record.flag_1, 1);
    EXPECT_EQ(result.record.flag_subcmd, 4);
    EXPECT_EQ(reinterpret_cast<debug_element_type *>(result.record.int_var[0]), &sflow_array[0]);
    EXPECT_EQ(fake::cli_match("no debug sflow socket", CLI_MODE_EXEC).record.flag_1, 2);
}

TEST_F(Debug_switches, words_of_the_keywords)
{
    struct Row {
        const char *help;
        u_int64_t mini_match;
        u_int64_t flag;
    };
    const std::map<std::string, Row> rows = {
        {"sflow", {"sflow debug informations", 5, 6}},
        {"all", {"all sflow debug information", 1, 10}},
        {"socket", {"sflow socket debug information", 1, 10}},
        {"event", {"sflow event debug information", 1, 10}},
        {"export", {"sflow export debug information", 1, 10}},
        {"conf", {"sflow configure debug information", 1, 10}},
    };
    const struct_transtion *tree = fake::cli_tree("debug sflow");
    ASSERT_NE(tree, nullptr);
    const auto look = [&](const struct_common_keyword &keyword) {
        const Row &row = rows.at(keyword.pname);
        EXPECT_STREQ(keyword.phelp, row.help);
        EXPECT_EQ(keyword.mini_match, row.mini_match) << keyword.pname;
        EXPECT_EQ(keyword.flag, row.flag) << keyword.pname;
        EXPECT_EQ(keyword.exec_priv, 2U) << keyword.pname;
        EXPECT_EQ(keyword.def_priv, 2U) << keyword.pname;
    };
    EXPECT_EQ(for_each_node<struct_common_keyword>(*tree, common_keyword_action, look), 6);
}

TEST_F(Debug_switches, the_table)
{
    const std::vector<std::pair<bool *, const char *>> rows = {
        {&sflow_debug_all, "sflow debug all"},
        {&sflow_debug_event, "sflow flow debug information"},
        {&sflow_debug_export, "sflow export debug information"},
        {&sflow_debug_conf, "sflow configure debug information"},
        {&sflow_debug_skt, "sflow socket debug information"},
    };
    for (std::size_t i = 0; i < rows.size(); i++) {
        EXPECT_EQ(sflow_array[i].flag, rows[i].first);
        EXPECT_STREQ(sflow_array[i].flag_help, rows[i].second);
    }
    EXPECT_EQ(sflow_array[rows.size()].flag, nullptr);
    EXPECT_EQ(sflow_array[rows.size()].flag_help, nullptr);
}

// ---- Listing -------------------------------------------------------------------------------------------------

TEST_F(Debug_listing, is_registered_under_its_name)
{
    fake::reset();
    sflow_debug_init();
    EXPECT_EQ(fake::calls("sys_add_debug"), Lines{"name=sflow-debug"});
    EXPECT_EQ(fake::calls("cli_add_command"), Lines{"attach=17 name=debug sflow"});
}

TEST_F(Debug_listing, says_what_is_on)
{
    exec("debug sflow conf");
    EXPECT_EQ(listing(), "sflow debug:\r\n  sflow configure debug information is on\r\n");
    exec("debug sflow socket");
    EXPECT_EQ(listing(), "sflow debug:\r\n  sflow configure debug information is on\r\n"
                         "  sflow socket debug information is on\r\n");
}

TEST_F(Debug_listing, says_nothing_at_all_with_no_switch_on)
{
    EXPECT_EQ(listing(), "");
}

TEST_F(Debug_listing, shows_four_lines_after_all)
{
    const std::string four = "sflow debug:\r\n"
                             "  sflow flow debug information is on\r\n"
                             "  sflow export debug information is on\r\n"
                             "  sflow configure debug information is on\r\n"
                             "  sflow socket debug information is on\r\n";
    exec("debug sflow all");
    EXPECT_EQ(listing(), four);
    // The all switch itself is never listed, but lists the others.
    exec("no debug sflow all");
    sflow_debug_all = true;
    EXPECT_EQ(listing(), four);
}

// ---- Gate ----------------------------------------------------------------------------------------------------

TEST_F(Debug_gate, each_category_opens_for_its_switch_and_for_all)
{
    struct Row {
        const char *name;
        bool *flag;
        std::set<std::string> texts;
    };
    const std::vector<Row> rows = {
        {"none", nullptr, {}},
        {"conf", &sflow_debug_conf, {"[SFLOW-CONF]1\n"}},
        {"event", &sflow_debug_event, {"[SFLOW-EVENT]2\n"}},
        {"export", &sflow_debug_export, {"[SFLOW-EXPT]3\n"}},
        {"socket", &sflow_debug_skt, {}},
        {"all", &sflow_debug_all, {"[SFLOW-CONF]1\n", "[SFLOW-EVENT]2\n", "[SFLOW-EXPT]3\n"}},
    };
    for (const Row &row : rows) {
        fake::forget_syslog();
        if (row.flag != nullptr)
            *row.flag = true;
        int formatted = 0;
        SFLOW_LOG_CONF("[SFLOW-CONF]%d\n", (formatted++, 1));
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%d\n", (formatted++, 2));
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%d\n", (formatted++, 3));
        if (row.flag != nullptr)
            *row.flag = false;
        std::set<std::string> texts;
        for (const fake::SyslogLine &line : fake::syslog_lines()) {
            EXPECT_EQ(line, (fake::SyslogLine{7, "UNKNOW_MODULE", "DEBUG", 2, line.text}));
            texts.insert(line.text);
        }
        EXPECT_EQ(texts, row.texts) << row.name;
        EXPECT_EQ(formatted, static_cast<int>(row.texts.size())) << row.name;
    }
}

TEST_F(Debug_gate, socket_alone_lets_no_line_of_a_command_pass)
{
    exec("debug sflow socket");
    run("sflow agent address ipv6 2001:db8::1");
    run("sflow collector 1 destination 10.0.0.1 6343 description x");
    EXPECT_TRUE(fake::syslog_lines().empty());
}

// ---- Counters ------------------------------------------------------------------------------------------------

TEST_F(Debug_statistics, counters_in_order)
{
    sflow_statis = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 4294967295U};
    set_msg_list_len(17);
    const std::string expected = "sflow drop flow num:1\n"
                                 "sflow drop invalid flow num:2\n"
                                 "sflow receive flow num:3\n"
                                 "sflow drop counter num:4\n"
                                 "sflow receive counter num:5\n"
                                 "sflow malloc fail num:6\n"
                                 "sflow get counter fail num:7\n"
                                 "sflow export packet num:8\n"
                                 "sflow export fail num:9\n"
                                 "sflow export flow num:10\n"
                                 "sflow export counter num:11\n"
                                 "sflow export sampler fail num:4294967295\n"
                                 "sflow current msg list len:17\n";
    EXPECT_EQ(exec("show sflow stats"), (Ran{false, expected}));
    EXPECT_EQ(calls(), (Lines{"sflow_msg_lock", "sflow_msg_unlock"}));
    fake::take_cli_text();
    sflow_debug_statis(1);
    EXPECT_EQ(fake::take_tech_text(), expected);
    EXPECT_EQ(fake::take_cli_text(), "");
    EXPECT_EQ(sflow_statis.sflow_export_pkt_num, 8U) << "showing clears nothing";
}
