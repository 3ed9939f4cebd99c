// The server's diagnostic commands.
#include "channel_support.h"

#include "sflow_lib_server.h"

#include <cstdio>
#include <gmock/gmock.h>

using namespace channel;
using testing::ElementsAre;

namespace
{

void note_record(char *) {}
void other_handler(char *) {}

constexpr char STATISTICS[] = "server add read socket fail number:0\n"
                              "server create socket fail number:0\n"
                              "server add timer number:0\n"
                              "server send lock fail number:14\n"
                              "server send unlock fail number:15\n"
                              "server send message number:16\n"
                              "server send error number:17\n"
                              "server drop packet number:18\n"
                              "server recv message number:19\n"
                              "server recv error number:20\n"
                              "server recv packet number:21\n"
                              "server command num is:1\n";

class Diagnostics : public AgentTest
{
protected:
    Diagnostics()
    {
        EXPECT_EQ(sflow_lib_server_init(), 0);
        sflow_lib_debug_switch = 0;
        sflow_lib_server_cb.send_lock_fail_num = 14;
        sflow_lib_server_cb.send_unlock_fail_num = 15;
        sflow_lib_server_cb.send_message_num = 16;
        sflow_lib_server_cb.send_error_num = 17;
        sflow_lib_server_cb.send_drop_num = 18;
        sflow_lib_server_cb.recv_message_num = 19;
        sflow_lib_server_cb.recv_error_num = 20;
        sflow_lib_server_cb.recv_packet_num = 21;
        sflow_lib_server_cmd_register(0x201, note_record);
        sflow_lib_server_cli_init();
    }

    ~Diagnostics() override { sflow_lib_server_cmd_clear(); }
};

using LibServer_show_sflow_server_info = Diagnostics;
using LibServer_show_sflow_server_cmd = Diagnostics;
using LibServer_cli_init = Diagnostics;
using LibServer_cli = Diagnostics;

TEST_F(LibServer_show_sflow_server_info, prints_to_the_operator)
{
    show_sflow_server_info(0);
    EXPECT_EQ(fake::take_cli_text(), std::string(STATISTICS) + "sflow domain socket is no connect\n");
    sflow_lib_server_cb.client_sd = 1000;
    show_sflow_server_info(0);
    EXPECT_EQ(fake::take_cli_text(), std::string(STATISTICS) + "sflow domain socket is connect\n");
    EXPECT_EQ(fake::tech_text(), "");
}

TEST_F(LibServer_show_sflow_server_info, prints_to_tech_support)
{
    show_sflow_server_info(1);
    EXPECT_EQ(fake::tech_text(), std::string(STATISTICS) + "sflow domain socket is no connect\n");
    EXPECT_EQ(fake::cli_text(), "");
}

TEST_F(LibServer_show_sflow_server_cmd, lists_in_order_of_registration)
{
    sflow_lib_server_cmd_register(0x1003, other_handler);
    char expected[200];
    snprintf(expected, sizeof(expected),
             "cmd type:0x201, func address:0x%p\ncmd type:0x1003, func address:0x%p\n",
             reinterpret_cast<void *>(note_record), reinterpret_cast<void *>(other_handler));
    show_sflow_server_cmd(0);
    EXPECT_EQ(fake::take_cli_text(), expected);
    EXPECT_EQ(fake::tech_text(), "");
    show_sflow_server_cmd(1);
    EXPECT_EQ(fake::tech_text(), expected);
    EXPECT_EQ(fake::cli_text(), "");
}

const fake::Place EXEC(CLI_MODE_EXEC);

TEST_F(LibServer_cli_init, registers_two_trees)
{
    EXPECT_THAT(fake::cli_registrations(),
                ElementsAre(fake::CliRegistration{PARSE_ADD_SHOW_CMD, "show sflow server debug info"},
                            fake::CliRegistration{PARSE_ADD_EXEC_TOP_CMD, "debug sflow switch"}));
}

TEST_F(LibServer_cli, show_commands_reach_their_handlers)
{
    EXPECT_EQ(fake::cli_run("show sflow_server_lib_info", EXEC).text,
              std::string(STATISTICS) + "sflow domain socket is no connect\n");
    EXPECT_THAT(fake::cli_run("show sflow_server_cmd_list", EXEC).text,
                testing::StartsWith("cmd type:0x201, func address:0x"));
    // 15 characters are enough.
    EXPECT_TRUE(fake::cli_run("show sflow_server_li", EXEC).ok());
    EXPECT_TRUE(fake::cli_run("show sflow_server_cm", EXEC).ok());
    EXPECT_FALSE(fake::cli_match("show sflow_server_", EXEC).ok());
    for (const fake::Help &line : fake::cli_help("show ", EXEC))
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("sflow"))); // hidden
    fake::Place user(CLI_MODE_EXEC);
    user.privileged = false;
    EXPECT_FALSE(fake::cli_match("show sflow_server_lib_info", user).ok());
}

TEST_F(LibServer_cli, debug_command_sets_the_switch)
{
    EXPECT_EQ(fake::cli_run("debug_server_sflow on", EXEC).text, "sflow_lib_debug_switch is on\n");
    EXPECT_EQ(sflow_lib_debug_switch, 1);
    EXPECT_EQ(fake::cli_run("debug_server_sflow off", EXEC).text, "sflow_lib_debug_switch is off\n");
    EXPECT_EQ(sflow_lib_debug_switch, 0);
    EXPECT_TRUE(fake::cli_run("debug_ on", EXEC).ok());
    EXPECT_FALSE(fake::cli_match("debug on", EXEC).ok());
    EXPECT_FALSE(fake::cli_match("debug_server_sflow", EXEC).ok());
    EXPECT_THAT(
        fake::cli_help("debug_server_sflow ", EXEC),
        testing::UnorderedElementsAre(fake::Help{"on", "switch on"}, fake::Help{"off", "switch off"}));
}

struct Node {
    const char *name;
    const char *help;
    std::uint64_t priv;
    std::uint64_t flag;
    std::uint64_t mini_match;
    std::uint64_t value;
};

void expect_keyword(const struct_transtion *node, const Node &expected)
{
    ASSERT_EQ(node->pfn, common_keyword_action);
    const auto *keyword = static_cast<const struct_common_keyword *>(node->argument);
    EXPECT_STREQ(keyword->pname, expected.name);
    EXPECT_STREQ(keyword->phelp, expected.help);
    EXPECT_EQ(keyword->exec_priv, expected.priv);
    EXPECT_EQ(keyword->def_priv, expected.priv);
    EXPECT_EQ(keyword->flag, expected.flag);
    EXPECT_EQ(keyword->mini_match, expected.mini_match);
    if ((expected.flag & CLI_KEYWORD_FLAG_VALUE) != 0) {
        EXPECT_EQ(keyword->var_pos, CLI_SLOT(int_var[0]));
        EXPECT_EQ(keyword->value.number, expected.value);
    }
}

TEST_F(LibServer_cli, trees_are_stored_as_the_service_interprets_them)
{
    ASSERT_EQ(cli_trees().size(), 2U);
    const struct_transtion *info = cli_trees()[0]->accept;
    expect_keyword(info, {"sflow_server_lib_info", "show sflow server info", 30, 6, 15, 0});
    expect_keyword(info->alternate, {"sflow_server_cmd_list", "show sflow cmd list", 30, 6, 15, 0});
    const struct_transtion *debug = cli_trees()[1]->accept;
    expect_keyword(debug, {"debug_server_sflow", "debug sflow switch", 30, 6, 6, 0});
    expect_keyword(debug->accept, {"on", "switch on", 14, 10, 1, 1});
    expect_keyword(debug->accept->alternate, {"off", "switch off", 14, 10, 1, 0});
}

TEST_F(LibServer_cli, commands_do_nothing_while_running_configuration_is_printed)
{
    ASSERT_EQ(cli_trees().size(), 2U);
    const struct_transtion *info = cli_trees()[0]->accept;
    const struct_transtion *debug = cli_trees()[1]->accept;
    for (const struct_transtion *end : {info->accept, info->alternate->accept, debug->accept->accept}) {
        ASSERT_EQ(end->pfn, eol_action);
        for (const int64_t status : {0x02, 0x10, 0x12}) {
            struct_command_data_block record{};
            record.parser_status = status;
            record.int_var[0] = 1;
            static_cast<const struct_eol *>(end->argument)->exec_func(&record);
        }
    }
    EXPECT_EQ(fake::cli_text(), "");
    EXPECT_EQ(sflow_lib_debug_switch, 0);
}

} // namespace
