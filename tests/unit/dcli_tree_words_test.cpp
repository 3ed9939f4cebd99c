// The command trees: their help texts, and the words in their nodes.
#include "dcli_nodes.h"
#include "dcli_tree_doubles.h"

#include <gmock/gmock.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

using namespace dcli;

// ---- Help ----------------------------------------------------------------------------------------------------

namespace
{

/// "TEXT HELP" of each choice, but for the end of the line.
std::vector<std::string> help(const std::string &line, const fake::Place &place = {})
{
    std::vector<std::string> texts;
    for (const fake::Help &choice : fake::cli_help(line, place)) {
        if (choice.text != "<cr>")
            texts.push_back(choice.text + "|" + choice.help);
    }
    return texts;
}

} // namespace

TEST_F(Command_tree, help_texts_of_global_configuration)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"sf", {"sflow|Configure sflow"}},
        {"sflow ",
         {"agent|sflow agent", "collector|sflow collector", "flow|sflow flow max-header",
          "counter|sflow counter interval", "sampling-rate|sflow sampling-rate",
          "source|sflow source address"}},
        {"sflow agent ", {"address|agent address", "interface|Configure sflow agent interface"}},
        {"sflow agent address ", {"A.B.C.D|agent ip address", "ipv6|ipv6"}},
        {"sflow agent address ipv6 ", {"X:X::X:X|agent ipv6 address"}},
        {"sflow collector ", {"<1-2>|sflow collector id"}},
        {"sflow collector 1 ",
         {"destination|sflow collector address", "max-datagram-size|sflow export max datagram size"}},
        {"sflow collector 1 destination ", {"A.B.C.D|collector ip address", "ipv6|ipv6 address"}},
        {"sflow collector 1 destination ipv6 ", {"X:X::X:X|collector ipv6 address"}},
        {"sflow collector 1 destination 1.1.1.1 ", {"<1-65535>|sflow collector port"}},
        {"sflow collector 1 destination 1.1.1.1 1 ",
         {"vrf|Set VRF option", "oob|mgmt", "description|Describe sflow collector",
          "source|sflow source address"}},
        {"sflow collector 1 destination 1.1.1.1 1 vrf ", {"WORD|VPN Routing/Forwarding instance name"}},
        {"sflow collector 1 destination 1.1.1.1 1 oob ",
         {"via|Specify mgmt interface", "description|Describe sflow collector",
          "source|sflow source address"}},
        {"sflow collector 1 destination 1.1.1.1 1 description ", {"WORD|Set sflow collector description"}},
        {"sflow collector 1 destination 1.1.1.1 1 source ",
         {"address|Configuresource address", "interface|Configure sflow source interface"}},
        {"sflow collector 1 destination 1.1.1.1 1 source address ", {"A.B.C.D|source ip address"}},
        {"sflow collector 1 destination ipv6 ::2 1 source address ", {"X:X::X:X|source ipv6 address"}},
        {"sflow collector 1 max-datagram-size ", {"<200-9000>|size"}},
        {"sflow flow ", {"max-header|max-header"}},
        {"sflow flow max-header ", {"<18-256>|length"}},
        {"sflow counter ", {"interval|interval"}},
        {"sflow counter interval ", {"<3-2147483647>|seconds"}},
        {"sflow sampling-rate ", {"<4096-16777215>|rate"}},
        {"sflow source ", {"address|Configuresource address", "interface|Configure sflow source interface"}},
        {"sflow source address ", {"A.B.C.D|source ip address", "ipv6|ipv6"}},
        {"sflow source address ipv6 ", {"X:X::X:X|source ipv6 address"}},
        {"sflow source interface ",
         {"ipv6|ipv6", "IFNAME|Interface name", "eth0|Interface name", "mgmt0|Interface name"}},
        {"sflow agent interface ",
         {"ipv6|ipv6", "IFNAME|Interface name", "eth0|Interface name", "mgmt0|Interface name"}},
    };
    for (const auto &[line, choices] : rows)
        EXPECT_THAT(help(line), ::testing::UnorderedElementsAreArray(choices)) << line;
}

TEST_F(Command_tree, help_texts_of_interface_mode)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"sf", {"sflow|sflow configure"}},
        {"sflow ", {"counter|sflow counter sample", "flow|sflow flow sample", "enable|enable sflow"}},
        {"sflow counter ", {"collector|sflow collector"}},
        {"sflow counter collector ", {"<1-2>|sflow collector id"}},
        {"sflow flow ", {"collector|sflow collector"}},
        {"sflow flow collector ", {"<1-2>|sflow collector id"}},
        {"sflow enable ", {"ingress|enable ingress sflow", "egress|enable egress sflow"}},
        {"sflow enable ingress ",
         {"acl|sflow enable ingress acl apply", "by-snoop|sflow enable ingress by-snoop"}},
        {"sflow enable ingress acl ", {"<1-2899>|acl id", "WORD|acl name"}},
    };
    for (const auto &[line, choices] : rows)
        EXPECT_THAT(help(line, fake::interface(ETH0)), ::testing::UnorderedElementsAreArray(choices)) << line;
}

TEST_F(Command_tree, help_texts_of_show)
{
    EXPECT_THAT(help("show sf", CLI_MODE_EXEC), ::testing::ElementsAre("sflow|show sflow information"));
    EXPECT_THAT(help("show sflow s", CLI_MODE_EXEC),
                ::testing::ElementsAre("stats|show sflow stats", "status|show sflow status"));
}

// ---- Words stored in the nodes -------------------------------------------------------------------------------
//
// The service gives some of them no meaning of its own, so no line shows them.

TEST_F(Command_tree, keyword_words)
{
    struct TreeRow {
        const char *name;
        const struct_transtion *tree;
        u_int64_t priv;
        int keywords;
    };
    const TreeRow rows[] = {
        {"global", &sflow_tree_global, 14, 27},
        {"after interfaces", &sflow_tree_after_interfaces, 14, 4},
        {"interface", &sflow_tree_interface, 1038, 10},
    };
    for (const TreeRow &row : rows) {
        SCOPED_TRACE(row.name);
        const auto look = [&](const struct_common_keyword &keyword) {
            EXPECT_EQ(keyword.exec_priv, row.priv) << keyword.pname;
            EXPECT_EQ(keyword.def_priv, row.priv) << keyword.pname;
            EXPECT_EQ(keyword.mini_match, 1U) << keyword.pname;
            EXPECT_EQ(keyword.flag, std::strcmp(keyword.pname, "via") == 0 ? 10U : 2U) << keyword.pname;
        };
        EXPECT_EQ(for_each_node<struct_common_keyword>(*row.tree, common_keyword_action, look), row.keywords);
    }
}

TEST_F(Command_tree, keyword_words_of_exec_mode)
{
    struct KeywordRow {
        u_int64_t priv;
        u_int64_t mini_match;
        u_int64_t flag;
    };
    const std::map<std::string, KeywordRow> expected = {
        {"sflow", {14, 1, 2}},
        {"stats", {14, 1, 2}},
        {"status", {30, 1, 2}},
        {"sflow_lib_info", {30, 8, 6}},
        {"sflow_lib_cmd_list", {30, 8, 6}},
        {"debug_sflow_lib", {30, 6, 6}},
        {"on", {30, 1, 10}},
        {"off", {30, 1, 10}},
    };
    const auto look = [&](const struct_common_keyword &keyword) {
        const KeywordRow &row = expected.at(keyword.pname);
        EXPECT_EQ(keyword.exec_priv, row.priv) << keyword.pname;
        EXPECT_EQ(keyword.def_priv, row.priv) << keyword.pname;
        EXPECT_EQ(keyword.mini_match, row.mini_match) << keyword.pname;
        EXPECT_EQ(keyword.flag, row.flag) << keyword.pname;
    };
    int keywords = 0;
    for (const struct_transtion *tree :
         {&sflow_tree_show, &sflow_tree_service_info, &sflow_tree_service_debug})
        keywords += for_each_node<struct_common_keyword>(*tree, common_keyword_action, look);
    EXPECT_EQ(keywords, static_cast<int>(expected.size()));
}

TEST_F(Command_tree, help_of_the_hidden_diagnostics)
{
    std::map<std::string, std::string> texts;
    const auto look = [&](const struct_common_keyword &keyword) { texts[keyword.pname] = keyword.phelp; };
    for_each_node<struct_common_keyword>(sflow_tree_service_info, common_keyword_action, look);
    for_each_node<struct_common_keyword>(sflow_tree_service_debug, common_keyword_action, look);
    const std::map<std::string, std::string> expected = {
        {"sflow_lib_info", "show sflow ss info"},
        {"sflow_lib_cmd_list", "show sflow cmd list"},
        {"debug_sflow_lib", "debug sflow lib switch"},
        {"on", "swtich on"},
        {"off", "swtich off"},
    };
    EXPECT_EQ(texts, expected);
}

TEST_F(Command_tree, argument_words)
{
    for (const struct_transtion *tree : {&sflow_tree_global, &sflow_tree_interface}) {
        for_each_node<struct_common_number>(
            *tree, common_number_action, [](const struct_common_number &number) {
                EXPECT_EQ(number.nFlag, std::strcmp(number.pHelp, "acl id") == 0 ? 16687U : 258U)
                    << number.pHelp;
                EXPECT_EQ(number.pfn, nullptr);
            });
    }
    int management = 0;
    const int interfaces = for_each_node<struct_common_interface>(
        sflow_tree_global, interface_action, [&](const struct_common_interface &node) {
            const bool is_management = node.nVarPos == CLI_SLOT(int_var[3]);
            management += is_management ? 1 : 0;
            EXPECT_EQ(node.nType, is_management ? 0x100000U : 0xFFDFEFEFU);
            EXPECT_EQ(node.nFlag, 8U);
            EXPECT_EQ(node.pkeyword, nullptr);
            EXPECT_EQ(node.phelp, nullptr);
        });
    EXPECT_EQ(interfaces, 4);
    EXPECT_EQ(management, 1);
    for_each_node<struct_common_ipaddr>(sflow_tree_global, ipaddr_action,
                                        [](const struct_common_ipaddr &node) { EXPECT_EQ(node.nFlag, 2U); });
    for_each_node<struct_common_ipaddr>(sflow_tree_global, ipaddr_v6_action,
                                        [](const struct_common_ipaddr &node) { EXPECT_EQ(node.nFlag, 66U); });
}
