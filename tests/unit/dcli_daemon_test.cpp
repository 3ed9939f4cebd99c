// The command line on the daemon's real modules: what an operator enters becomes the running configuration when the
// sampling service answers, and the running configuration, entered again, becomes itself.
#include "fake_platform.h"
#include "sflow_acl.h"
#include "sflow_agent.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_lsm.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

// No thread of the daemon starts: the test makes every step itself.
extern "C" int __wrap_pthread_create(pthread_t *tid, const pthread_attr_t *, void *(*)(void *), void *)
{
    *tid = pthread_self();
    return 0;
}

namespace
{

using Lines = std::vector<std::string>;

constexpr IFINDEX ETH0 = 7;
constexpr IFINDEX BOND0 = 8;
constexpr IFINDEX MGMT0 = 11;
constexpr int RED = 20;
constexpr int MGMT_VRF = 30;

class Command_line : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fake::reset();
        setenv("TMPDIR", ::testing::TempDir().c_str(), 1);
        fake::set_interface(ETH0, {.name = "eth0", .ipv4 = {"10.0.0.7"}, .ipv6 = {"2001:db8::7"}});
        fake::set_interface(BOND0,
                            {.name = "bond0", .type = LSM_IF_TYPE_AGGREGATE, .kind = LSM_IF_KIND_AGGREGATE});
        fake::set_interface(MGMT0, {.name = "mgmt0", .kind = LSM_IF_KIND_MANAGEMENT, .vrf = MGMT_VRF});
        fake::set_vrf(RED, "red");
        fake::set_vrf(MGMT_VRF, LSM_VRF_MGMT_NAME);
        fake::add_acl(5, "5");
        fake::add_acl(3001, "web");

        start_agent();
        sflow_cli_master = kx_thread_master_create();
        ASSERT_EQ(sflow_lib_server_init(), 0);
        sflow_lib_server_cb.client_sd = CONNECTED;
        sflow_intf_support_flag = 0xFFF;
        sflow_cli_cmd_init();
        ASSERT_EQ(sflow_acl_init(sflow_cli_master), 0);
        ASSERT_EQ(sflow_lsm_init(sflow_cli_master), 0);
        fake::set_acl_service(true);
    }

    void TearDown() override
    {
        answer();
        start_agent();
        kx_thread_master_finish(sflow_cli_master);
        sflow_cli_master = nullptr;
        sflow_lib_server_cb.client_sd = -1;
    }

    /// The agent as after a start of the daemon.
    static void start_agent() { ASSERT_EQ(sflow_agent_init(&sflow_agent), 0); }

    /// Plays the sampling service: agrees to everything that was asked.
    static void answer() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        sflow_list_t *head = &sflow_lib_server_cb.send_list;
        while (!sflow_list_empty(head)) {
            auto *node = sflow_list_entry<sflow_lib_msg_t>(head->next);
            sflow_list_remove(&node->list);
            sflow_lib_server_cb.send_len--;
            agree(node->msg);
            std::free(node);
        }
    }

    /// Enters configuration lines, interface sections included, and has each answered.
    static void enter(const std::string &text)
    {
        fake::Place place;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            if (line == "!" || line.empty()) {
                place = fake::Place();
                continue;
            }
            if (line.starts_with("interface ")) {
                place = fake::interface(lsm_if_get_index(line.substr(10).c_str()));
                continue;
            }
            const fake::CliResult result = fake::cli_run(line, place);
            EXPECT_TRUE(result.ok()) << line << ": " << result.text;
            answer();
        }
    }

    static std::string refused(const std::string &line, const fake::Place &place = {})
    {
        const fake::CliResult result = fake::cli_run(line, place);
        EXPECT_TRUE(result.failed) << line;
        return result.text;
    }

private:
    static constexpr int CONNECTED = 1000;

    template <typename Request, typename Answer>
    static Answer echo(const char *record, sflow_cmd_t type)
    {
        Answer reply;
        std::memset(&reply, 0, sizeof(reply));
        std::memcpy(&reply, record, sizeof(Request));
        reply.head = {type, sizeof(reply)};
        return reply;
    }

    static void agree(const char *record)
    {
        sflow_msg_head_t head;
        std::memcpy(&head, record, sizeof(head));
        if (head.type == SFLOW_CMD_SET_SAMPLING_RATE) {
            auto reply = echo<sflow_spl_t, sflow_spl_ret_t>(record, SFLOW_CMD_SET_SAMPLING_RATE_RET);
            sflow_set_sampling_rate_ret_msg(reinterpret_cast<char *>(&reply));
        } else if (head.type == SFLOW_CMD_IFX_IS_CONF) {
            auto reply =
                echo<sflow_ifx_is_conf_t, sflow_ifx_is_conf_ret_t>(record, SFLOW_CMD_IFX_IS_CONF_RET);
            sflow_ifx_is_conf_ret_msg(reinterpret_cast<char *>(&reply));
        }
    }
};

/// The text without the separators that the service adds between its parts: "!" ends an interface section only.
std::string daemon_lines(const std::string &text)
{
    std::string lines;
    bool in_section = false;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("interface "))
            in_section = true;
        if (line != "!" || in_section)
            lines += line + "\n";
        if (line == "!")
            in_section = false;
    }
    return lines;
}

std::string running_config(bool all = false)
{
    return daemon_lines(fake::running_config(all));
}

/// One line for everything that can be configured beside one another.
constexpr char EVERYTHING[] =
    "sflow agent address 192.0.2.1\n"
    "sflow collector 1 destination 198.51.100.1 6343 vrf red description rack-4 "
    "source address 192.0.2.2\n"
    "sflow collector 1 max-datagram-size 9000\n"
    "sflow collector 2 destination ipv6 2001:db8::2 9999 oob via mgmt0 source interface eth0\n"
    "sflow collector 2 max-datagram-size 200\n"
    "sflow flow max-header 128\n"
    "sflow counter interval 10\n"
    "sflow sampling-rate 4096\n"
    "sflow source address 192.0.2.3\n"
    "sflow source address ipv6 2001:db8::3\n"
    "interface eth0\n"
    " sflow counter collector 1\n"
    " sflow flow collector 2\n"
    " sflow enable ingress acl web\n"
    " sflow enable ingress acl 5\n"
    " sflow enable egress\n"
    "!\n"
    "interface bond0\n"
    " sflow flow collector 1\n"
    " sflow enable ingress by-snoop\n"
    "!\n";

} // namespace

TEST_F(Command_line, running_configuration_is_what_was_entered)
{
    EXPECT_EQ(running_config(), "");
    enter(EVERYTHING);
    EXPECT_EQ(running_config(), EVERYTHING);
}

TEST_F(Command_line, running_configuration_entered_after_a_restart_is_itself)
{
    const Lines texts = {
        EVERYTHING,
        "sflow collector 1 destination 10.1.1.1 6343 oob\n"
        "sflow source interface eth0\n"
        "sflow source interface ipv6 eth0\n"
        "interface eth0\n"
        " sflow enable\n"
        "!\n"
        "sflow agent interface eth0\n",
        "sflow collector 2 destination 10.1.1.1 1\n"
        "interface eth0\n"
        " sflow enable ingress\n"
        "!\n"
        "interface bond0\n"
        " sflow enable egress\n"
        "!\n"
        "sflow agent interface ipv6 eth0\n",
    };
    for (const std::string &text : texts) {
        start_agent();
        enter(text);
        const std::string first = running_config();
        EXPECT_EQ(first, text);
        start_agent();
        EXPECT_EQ(running_config(), "");
        enter(first);
        EXPECT_EQ(running_config(), first);
    }
}

TEST_F(Command_line, no_forms_take_everything_back)
{
    enter(EVERYTHING);
    enter("interface eth0\n"
          " no sflow counter collector\n"
          " no sflow flow collector\n"
          " no sflow enable ingress acl web\n"
          " no sflow enable ingress acl 5\n"
          " no sflow enable egress\n"
          "!\n"
          "interface bond0\n"
          " no sflow flow collector\n"
          " no sflow enable ingress by-snoop\n"
          "!\n"
          "no sflow collector 1 destination 198.51.100.1 6343 vrf red description rack-4 source address "
          "192.0.2.2\n"
          "no sflow collector 1 max-datagram-size\n"
          "no sflow collector 2 destination ipv6 2001:db8::2 9999 oob via mgmt0 source interface eth0\n"
          "no sflow collector 2 max-datagram-size\n"
          "no sflow flow max-header\n"
          "no sflow counter interval\n"
          "no sflow sampling-rate\n"
          "no sflow source address\n"
          "no sflow agent address\n");
    EXPECT_EQ(running_config(), "");
    EXPECT_EQ(fake::acl_refs(5), 0);
    EXPECT_EQ(fake::acl_refs(3001), 0);
}

TEST_F(Command_line, references_follow_the_lists_of_an_interface)
{
    enter("interface eth0\n sflow enable ingress acl web\n sflow enable ingress acl 5\n");
    EXPECT_EQ(fake::acl_refs(3001), 1);
    EXPECT_EQ(fake::acl_refs(5), 1);
    EXPECT_EQ(refused("sflow enable ingress acl 5", fake::interface(ETH0)), "");
    fake::add_acl(6, "6");
    EXPECT_EQ(refused("sflow enable ingress acl 6", fake::interface(ETH0)),
              "Max acl rule number has been configure.\n");
    enter("interface eth0\n no sflow enable ingress acl 5\n sflow enable ingress acl 6\n");
    EXPECT_EQ(fake::acl_refs(5), 0);
    EXPECT_EQ(fake::acl_refs(6), 1);
}

TEST_F(Command_line, without_the_sampling_service_sampling_cannot_be_enabled)
{
    sflow_lib_server_cb.client_sd = -1;
    EXPECT_EQ(refused("sflow enable", fake::interface(ETH0)), "sflow enable failure.\n");
    EXPECT_EQ(refused("sflow enable ingress acl 5", fake::interface(ETH0)), "sflow enable failure.\n");
    EXPECT_EQ(fake::acl_refs(5), 0);
    EXPECT_EQ(running_config(), "");
}

TEST_F(Command_line, agent_and_source_kinds_exclude_one_another)
{
    enter("sflow agent address 192.0.2.1\nsflow source address 192.0.2.2\n");
    EXPECT_EQ(fake::cli_run("sflow agent interface eth0").text,
              "config failure because sflow agent address has already configured.\n");
    EXPECT_EQ(fake::cli_run("sflow source interface eth0").text,
              "config failure because sflow source address has already configured.\n");
    EXPECT_EQ(running_config(), "sflow agent address 192.0.2.1\nsflow source address 192.0.2.2\n");
}

TEST_F(Command_line, a_second_source_interface_replaces_both_families_of_the_first)
{
    fake::set_interface(9, {.name = "eth1", .ipv4 = {"10.0.0.9"}});
    enter("sflow source interface eth0\nsflow source interface ipv6 eth0\nsflow source interface eth1\n");
    EXPECT_EQ(running_config(), "sflow source interface eth1\n");
}

TEST_F(Command_line, a_collector_of_a_vanished_vrf_goes_with_the_next_running_configuration)
{
    enter("sflow collector 1 destination 10.1.1.1 6343 vrf red\n"
          "interface eth0\n sflow flow collector 1\n sflow enable\n");
    fake::remove_vrf(RED);
    EXPECT_EQ(running_config(), "interface eth0\n sflow enable\n!\n");
    EXPECT_FALSE(sflow_is_enable_receiver(1));
    EXPECT_EQ(running_config(), "interface eth0\n sflow enable\n!\n");
}

TEST_F(Command_line, a_collector_of_a_vanished_vrf_takes_interfaces_with_it_that_served_only_it)
{
    enter("sflow collector 1 destination 10.1.1.1 6343 vrf red\n"
          "interface eth0\n sflow flow collector 1\n");
    fake::remove_vrf(RED);
    EXPECT_EQ(running_config(), "");
    enter("sflow counter interval 10\n");
    EXPECT_EQ(running_config(), "sflow counter interval 10\n");
}

TEST_F(Command_line, defaults_are_shown_by_the_full_listing_only)
{
    EXPECT_EQ(running_config(true), "sflow flow max-header 64\n"
                                    "sflow counter interval 30\n"
                                    "sflow sampling-rate 8192\n");
}

TEST_F(Command_line, what_the_daemon_changes_itself_regenerates_the_running_configuration)
{
    enter("interface eth0\n sflow enable\n");
    fake::advance(std::chrono::seconds(1));
    EXPECT_EQ(daemon_lines(fake::reformed_config().value_or("none")), "interface eth0\n sflow enable\n!\n");
}

TEST_F(Command_line, show_after_configuration)
{
    enter("sflow collector 1 destination 10.1.1.1 6343 oob\ninterface eth0\n sflow enable ingress\n");
    const std::string text = fake::cli_run("show sflow", CLI_MODE_EXEC).text;
    EXPECT_NE(text.find("\n1    10.1.1.1                                     6343  1400                      "
                        "           \n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\neth0                            0         0         I              \n"),
              std::string::npos)
        << text;
}
