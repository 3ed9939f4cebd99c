// The daemon's modules around sflow_agent, but for the poller.
#include "agent_doubles.h"

#include "sflow_acl.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_lib_server.h"
#include "sflow_lsm.h"
#include "sflow_sampler.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <unistd.h>

bool sflow_debug_all;
bool sflow_debug_event;
bool sflow_debug_export;
bool sflow_debug_conf;
bool sflow_debug_skt;
sflow_debug_statis_t sflow_statis;

namespace
{

std::mutex calls_mutex;
std::vector<std::string> recorded;
int rate_messages;

std::string text(const char *value)
{
    return value == nullptr ? "null" : value;
}

} // namespace

namespace doubles
{

behaviour_t behaviour;

void reset_wraps();

namespace
{

void reset()
{
    behaviour = {};
    forget_calls();
    rate_messages = 0;
    reset_wraps();
    fake::reset();
    sflow_debug_all = sflow_debug_event = sflow_debug_export = sflow_debug_conf = sflow_debug_skt = false;
    sflow_statis = {};
}

std::string make_directory()
{
    std::string name = std::filesystem::temp_directory_path() / "agent_test.XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        std::abort();
    return name;
}

} // namespace

agent_test::agent_test() : directory(make_directory())
{
    reset();
    setenv("TMPDIR", directory.c_str(), 1);
    sflow_make_dir();
    capture_threads();
    sflow_agent_init(&sflow_agent);
    behaviour.pthread_create = nullptr;
    sflow_agent.timer_flag = 0;
    sflow_rndn_ready = 0;
    g_can_backup = false;
    forget_calls();
    fake::forget_calls();
    sflow_app_debug_fd = sflow_app_open_debug_file();
}

agent_test::~agent_test()
{
    // No lock: a test may have left it held or destroyed.
    []() SFLOW_NO_THREAD_SAFETY_ANALYSIS {
        while (!sflow_list_empty(&sflow_counter_list))
            sflow_poller_free_counter(sflow_list_entry<sflow_counter_node_t>(sflow_counter_list.next));
    }();
    sflow_app_close_debug_file(&sflow_app_debug_fd);
    reset();
    unsetenv("TMPDIR");
    std::filesystem::remove_all(directory);
}

std::vector<std::string> agent_test::debug_lines() const
{
    return debug_texts(read_file(path("/sflow/app_debug")));
}

std::string read_file(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::vector<std::string> debug_texts(const std::string &content)
{
    static const std::regex form(R"((\d{4}/\d\d/\d\d \d\d:\d\d:\d\d|Y/M/D h:m:s) sflow_agent\.c,\d+,(.*))");
    std::vector<std::string> texts;
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        texts.push_back(std::regex_match(line, parts, form) ? parts[2].str() : "malformed: " + line);
    }
    return texts;
}

void record(const std::string &call)
{
    const std::lock_guard lock(calls_mutex);
    recorded.push_back(call);
}

std::vector<std::string> calls()
{
    const std::lock_guard lock(calls_mutex);
    return recorded;
}

std::vector<std::string> calls_of(const std::string &prefix)
{
    std::vector<std::string> found;
    for (const std::string &call : calls()) {
        if (call.compare(0, prefix.size(), prefix) == 0)
            found.push_back(call);
    }
    return found;
}

void forget_calls()
{
    const std::lock_guard lock(calls_mutex);
    recorded.clear();
}

} // namespace doubles

using doubles::behaviour;
using doubles::record;

void sflow_receiver_init()
{
    for (sflreceiver_t &receiver : sflow_agent.receivers) {
        receiver = {};
        receiver.cid = static_cast<u_int32_t>(&receiver - sflow_agent.receivers) + 1;
        receiver.maxdatagramsize = SFLOW_DEFAULT_DATAGRAM_SIZE;
        receiver.sd = -1;
    }
    record("receiver_init");
}

/// Records the addresses of the moment, so that a test sees under which the samples left.
void sflow_receiver_send_all_receiver_sample()
{
    sflow_config_held();
    record("send(agent " + std::to_string(sflow_agent.agent_ip.address.ip_v4) + ", source " +
           std::to_string(sflow_agent.source_ip.type) + ")");
}

void sflow_receiver_reset_all_buf()
{
    sflow_config_held();
    record("reset(agent " + std::to_string(sflow_agent.agent_ip.address.ip_v4) + ")");
}

void sflow_close_socket(void *receiver)
{
    auto *closed = static_cast<sflreceiver_t *>(receiver);
    record("close(" + std::to_string(closed->cid) + ")");
    closed->sd = -1;
}

bool sflow_is_enable_receiver(u_int32_t cid)
{
    return sflow_agent.receivers[cid - 1].is_enable;
}

void sflow_receiver_write_countersample(const sflow_msg_counter_t *, sflow_intf_config_t *intf)
{
    record("countersample(" + std::to_string(intf->ifx) + ")");
}

int sflow_sampler_write_flowsample(const char *buf, int buf_len, sflow_flow_info_t info)
{
    record("flowsample(" + std::string(buf, static_cast<size_t>(buf_len)) + ", " +
           std::to_string(info.source_id) + ")");
    return behaviour.sampler;
}

int sflow_set_sampling_rate_msg(IFINDEX ifx, int rate, int direct, int ifx_type, int acl_id,
                                const char *acl_name, int snoop)
{
    record("rate(" + std::to_string(ifx) + ", " + std::to_string(rate) + ", " + std::to_string(direct) +
           ", type " + std::to_string(ifx_type) + ", " + std::to_string(acl_id) + "/" + text(acl_name) +
           ", snoop " + std::to_string(snoop) + ")");
    const int nth = rate_messages++;
    return behaviour.sampling_rate ? behaviour.sampling_rate(nth) : 0;
}

int sflow_get_counter_msg(IFINDEX ifx, int)
{
    record("get_counter(" + std::to_string(ifx) + ")");
    return 0;
}

void sflow_lsm_forget_if_gone(IFINDEX ifx)
{
    record("forget_if_gone(" + std::to_string(ifx) + ")");
}

int sflow_acl_unref(int acl_id, const char *)
{
    record("acl_unref(" + std::to_string(acl_id) + ")");
    return 0;
}

int sflow_cli_init()
{
    record("cli_init");
    return behaviour.cli_init;
}

int sflow_cli_c2p_reform()
{
    record("reform");
    if (behaviour.on_reform)
        behaviour.on_reform();
    return behaviour.reform;
}

int sflow_lib_server_init()
{
    record("lib_server_init");
    return behaviour.lib_server_init;
}

int sflow_config_register()
{
    record("config_register");
    return behaviour.config_register;
}
