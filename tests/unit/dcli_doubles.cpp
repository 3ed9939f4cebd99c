#include "dcli_doubles.h"

#include "sflow_acl.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_lsm.h"
#include "sflow_poller.h"
#include "sflow_process.h"
#include "sflow_sampler.h"
#include "sflow_tech_sup.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <ostream>

sflagent_t sflow_agent;
bool g_can_backup;
int sflow_app_debug_fd = -1;
u_int32_t sflow_intf_support_flag;
u_int32_t sflow_hw_support_is_set;

namespace dcli
{

std::map<std::string, int> results;
std::string tmpdir;
std::function<void(unsigned seconds)> on_sleep;

namespace
{

enum class Held { none, reading, writing };

std::vector<std::string> the_calls;
std::vector<std::string> the_debug_lines;
std::vector<std::string> the_violations;
std::vector<Thread> the_threads;
std::vector<std::unique_ptr<sflow_intf_config_t>> the_intfs;
Held config_lock = Held::none;
bool msg_lock = false;
std::size_t conf_log_seen = 0;
std::vector<std::string> the_order;
std::size_t platform_calls_seen = 0;

void merge_platform_calls()
{
    const std::vector<std::string> names = fake::call_order();
    for (; platform_calls_seen < names.size(); platform_calls_seen++)
        the_order.push_back(names[platform_calls_seen]);
}

int note(const std::string &function, const std::string &arguments = {})
{
    the_calls.push_back(arguments.empty() ? function : function + " " + arguments);
    merge_platform_calls();
    the_order.push_back(function);
    const auto found = results.find(function);
    return found == results.end() ? 0 : found->second;
}

/// The contract of a double about `config_lock`.
void expects(Held wanted, const char *function)
{
    const bool ok = wanted == Held::reading ? config_lock != Held::none : config_lock == wanted;
    if (!ok)
        the_violations.push_back(std::string(function) + ": config_lock is not as it has to be");
}

void move_lock(Held from, Held to, const char *what)
{
    if (config_lock != from)
        the_violations.push_back(std::string("config_lock: ") + what);
    config_lock = to;
}

std::string text_of(const sfladdress_value_t &value, bool is_ipv4)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (is_ipv4)
        inet_ntop(AF_INET, &value.ip_v4, text, sizeof(text));
    else
        inet_ntop(AF_INET6, value.ip_v6, text, sizeof(text));
    return text;
}

std::string text_of(const sflow_source_address_t &source)
{
    return "cfg_type=" + std::to_string(source.cfg_type) + " ifindex=" + std::to_string(source.ifindex) +
           " type=" + std::to_string(source.type) + " v4=" + text_of(source.v4_address, true) +
           " v6=" + text_of(source.v6_address, false);
}

std::string text_of(const sfladdress_t &addr)
{
    const bool is_ipv4 = addr.type == SFLOW_ADDRESS_TYPE_IPV4;
    std::string text = "type=" + std::to_string(addr.type) + " vrf=" + std::to_string(addr.vrf_index) +
                       " mgmt=" + std::to_string(addr.mgmt_index) +
                       " address=" + text_of(addr.address, is_ipv4);
    if (addr.src_type != SFLOW_SOURCE_TYPE_INVALID) {
        text += " src_type=" + std::to_string(addr.src_type) + " src=" + text_of(addr.src_address, is_ipv4) +
                " ifindex=" + std::to_string(addr.ifindex);
    }
    if (addr.desc[0] != '\0')
        text += std::string(" desc=") + addr.desc;
    return text;
}

std::string sampling_text(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name, int snoop)
{
    return "ifx=" + std::to_string(ifx) + " direct=" + std::to_string(direct) +
           " ifx_type=" + std::to_string(ifx_type) + " acl_id=" + std::to_string(acl_id) +
           " acl_name=" + acl_name + " snoop=" + std::to_string(snoop);
}

std::string acl_text(int acl_id, const char *acl_name)
{
    return "acl_id=" + std::to_string(acl_id) + " acl_name=" + acl_name;
}

void reset_agent() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    std::memset(static_cast<void *>(&sflow_agent), 0, sizeof(sflow_agent));
    pthread_mutex_init(&sflow_agent.cli_lock.mutex, nullptr);
    sflow_list_init(&sflow_agent.intf_config);
    sflow_agent.g_config = {SFLOW_DEFAULT_SAMPLING_RATE, SFLOW_DEFAULT_MAX_HEADER, 64,
                            SFLOW_DEFAULT_INTERVAL};
    for (u_int32_t i = 0; i < SFLOW_RECEIVER_NUM; i++) {
        sflow_agent.receivers[i].cid = i + 1;
        sflow_agent.receivers[i].maxdatagramsize = SFLOW_DEFAULT_DATAGRAM_SIZE;
        sflow_agent.receivers[i].sd = -1;
    }
    g_can_backup = false;
    sflow_hw_support_is_set = 1;
    sflow_intf_support_flag = 0xFFF;
}

} // namespace

void set_msg_list_len(int32_t len) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    sflow_agent.msg_list_len = len;
}

sflow_global_config_t &config() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    return sflow_agent.g_config;
}

std::vector<std::string> calls()
{
    return the_calls;
}

std::vector<std::string> calls(std::string_view function)
{
    std::vector<std::string> found;
    for (const std::string &call : the_calls) {
        const std::string name = call.substr(0, call.find(' '));
        if (name == function)
            found.push_back(call.size() == name.size() ? "" : call.substr(name.size() + 1));
    }
    return found;
}

void forget_calls()
{
    the_calls.clear();
}
std::vector<std::string> order()
{
    merge_platform_calls();
    return the_order;
}
std::vector<std::string> debug_lines()
{
    return the_debug_lines;
}
std::vector<std::string> lock_violations()
{
    return the_violations;
}
std::vector<Thread> threads()
{
    return the_threads;
}

sfladdress_value_t ipv4(const char *text)
{
    sfladdress_value_t value;
    std::memset(&value, 0, sizeof(value));
    EXPECT_EQ(inet_pton(AF_INET, text, &value.ip_v4), 1) << text;
    return value;
}

sfladdress_value_t ipv6(const char *text)
{
    sfladdress_value_t value;
    std::memset(&value, 0, sizeof(value));
    EXPECT_EQ(inet_pton(AF_INET6, text, value.ip_v6), 1) << text;
    return value;
}

void set_agent(sflow_agent_cfg_type_t kind, sflow_address_type_t type, const char *address,
               IFINDEX ifx) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    sflow_agent.agent_ip.cfg_type = kind;
    sflow_agent.agent_ip.type = type;
    sflow_agent.agent_ip.ifindex = ifx;
    sflow_agent.agent_ip.address = type == SFLOW_ADDRESS_TYPE_IPV6 ? ipv6(address) : ipv4(address);
}

sfladdress_t collector(const char *address)
{
    sfladdress_t record;
    std::memset(&record, 0, sizeof(record));
    const bool is_ipv6 = std::strchr(address, ':') != nullptr;
    record.type = is_ipv6 ? SFLOW_ADDRESS_TYPE_IPV6 : SFLOW_ADDRESS_TYPE_IPV4;
    record.mgmt_index = -1;
    record.address = is_ipv6 ? ipv6(address) : ipv4(address);
    return record;
}

void enable_receiver(u_int32_t cid, const sfladdress_t &address, u_int16_t port)
{
    sflreceiver_t &receiver = sflow_agent.receivers[cid - 1];
    std::memcpy(&receiver.address, &address, sizeof(address));
    receiver.collector_port = port;
    receiver.is_enable = true;
}

sflow_intf_config_t *add_intf(IFINDEX ifx)
{
    the_intfs.push_back(std::make_unique<sflow_intf_config_t>());
    sflow_intf_config_t *intf = the_intfs.back().get();
    intf->ifx = ifx;
    sflow_list_insert_before(&sflow_agent.intf_config, &intf->list);
    return intf;
}

std::vector<std::string> conf_log()
{
    const std::vector<std::string> all = fake::syslog_texts();
    std::vector<std::string> texts;
    for (; conf_log_seen < all.size(); conf_log_seen++) {
        if (all[conf_log_seen].starts_with("[SFLOW-CONF]"))
            texts.push_back(all[conf_log_seen].substr(std::strlen("[SFLOW-CONF]")));
    }
    return texts;
}

void Case::SetUp()
{
    fake::reset();
    results.clear();
    tmpdir = "/tmp";
    the_calls.clear();
    the_debug_lines.clear();
    the_violations.clear();
    the_threads.clear();
    the_intfs.clear();
    config_lock = Held::none;
    msg_lock = false;
    conf_log_seen = 0;
    reset_agent();
    sflow_statis = {};
    sflow_debug_all = sflow_debug_event = sflow_debug_export = sflow_debug_skt = false;
    sflow_debug_conf = true;
    sflow_cli_cmd_init();
    sflow_debug_init();
    sflow_tech_cmd_init();
    the_calls.clear();
    fake::forget_calls();
    the_order.clear();
    platform_calls_seen = 0;
    on_sleep = [](unsigned) { FAIL() << "the code under test sleeps"; };
}

void Case::TearDown()
{
    EXPECT_EQ(the_violations, std::vector<std::string>{});
    EXPECT_EQ(config_lock, Held::none) << "config_lock was not released";
    EXPECT_FALSE(msg_lock) << "msg_lock was not released";
}

Ran run(std::string_view line, const fake::Place &place)
{
    const fake::CliResult result = fake::cli_run(line, place);
    EXPECT_EQ(result.kind, fake::CliResult::Kind::run) << line << ": " << result.text;
    return {result.failed, result.text};
}

void PrintTo(const Ran &ran, std::ostream *out)
{
    *out << (ran.failed ? "failed" : "succeeded") << " with \"" << ran.text << "\"";
}

std::vector<std::string> lines_of(cli_handler_t handler, IFINDEX mode_intidx)
{
    struct_command_data_block record{};
    record.mode_name = mode_intidx == 0 ? CLI_MODE_CONFIG : CLI_MODE_INTERFACE;
    record.mode_intidx = mode_intidx;
    if (mode_intidx != 0)
        config_lock = Held::reading;
    std::vector<std::string> lines;
    for (const fake::ConfigLine &line : fake::print_config(handler, record))
        lines.push_back(line.text);
    if (mode_intidx != 0)
        config_lock = Held::none;
    return lines;
}

} // namespace dcli

using namespace dcli;

// ---- Agent core ----------------------------------------------------------------------------------------------

void sflow_config_wrlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    move_lock(Held::none, Held::writing, "taken for writing while held");
}
void sflow_config_wrunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    move_lock(Held::writing, Held::none, "released for writing while not held so");
}
void sflow_config_rdlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    move_lock(Held::none, Held::reading, "taken for reading while held");
}
void sflow_config_rdunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    move_lock(Held::reading, Held::none, "released for reading while not held so");
}
void sflow_msg_lock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (msg_lock)
        the_violations.emplace_back("msg_lock: taken while held");
    msg_lock = true;
    note("sflow_msg_lock");
}
void sflow_msg_unlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (!msg_lock)
        the_violations.emplace_back("msg_lock: released while not held");
    msg_lock = false;
    note("sflow_msg_unlock");
}

int sflow_agent_set_address(const sflow_agent_address_t *addr)
{
    expects(Held::none, __func__);
    const bool is_ipv4 = addr->type == SFLOW_ADDRESS_TYPE_IPV4;
    return note(__func__,
                "cfg_type=" + std::to_string(addr->cfg_type) + " ifindex=" + std::to_string(addr->ifindex) +
                    " type=" + std::to_string(addr->type) + " address=" + text_of(addr->address, is_ipv4));
}
void sflow_agent_del_address(sflow_agent_cfg_type_t type)
{
    expects(Held::none, __func__);
    note(__func__, "type=" + std::to_string(type));
}
void sflow_agent_get_address(sflow_agent_address_t *out) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    expects(Held::none, __func__);
    *out = sflow_agent.agent_ip;
}
int sflow_source_set_address(const sflow_source_address_t *src)
{
    expects(Held::none, __func__);
    return note(__func__, text_of(*src));
}
void sflow_source_del_address(const sflow_source_address_t *src)
{
    expects(Held::none, __func__);
    note(__func__, text_of(*src));
}
void sflow_source_get_address(sflow_source_address_t *out)
{
    expects(Held::none, __func__);
    std::memcpy(out, &sflow_agent.source_ip, sizeof(*out));
}
void sflow_source_clear()
{
    expects(Held::none, __func__);
    note(__func__);
    std::memset(&sflow_agent.source_ip, 0, sizeof(sflow_agent.source_ip));
}
u_int32_t sflow_get_intf_config_enable(IFINDEX ifx, sflow_intf_config_t **intf)
{
    expects(Held::reading, __func__);
    *intf = sflow_list_find<sflow_intf_config_t>(&sflow_agent.intf_config,
                                                 [&](const auto *node) { return node->ifx == ifx; });
    return *intf == nullptr ? 0 : (*intf)->enable;
}
void sflow_reset_intf_countdown(u_int32_t countdown)
{
    expects(Held::writing, __func__);
    note(__func__, "countdown=" + std::to_string(countdown));
}
void sflow_reflush_intf_config(u_int32_t rate)
{
    expects(Held::reading, __func__);
    note(__func__, "rate=" + std::to_string(rate));
}
int sflow_get_current_status()
{
    expects(Held::none, __func__);
    return note(__func__);
}
int sflow_enable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                             int snoop)
{
    expects(Held::none, __func__);
    return note(__func__, sampling_text(ifx, direct, ifx_type, acl_id, acl_name, snoop));
}
int sflow_disable_intf_config(IFINDEX ifx, int direct, int ifx_type, int acl_id, const char *acl_name,
                              int snoop)
{
    expects(Held::none, __func__);
    return note(__func__, sampling_text(ifx, direct, ifx_type, acl_id, acl_name, snoop));
}

// ---- Process -------------------------------------------------------------------------------------------------

void sflow_app_write_log(int, const char *file, int, const char *text)
{
    the_debug_lines.push_back(std::string(file) + ": " + text);
    std::fprintf(stderr, "%s: %s\n", file, text);
}
char *sflow_make_tmp_path(const char *suffix)
{
    static std::string path;
    path = tmpdir + suffix;
    return tmpdir.empty() ? nullptr : path.data();
}
int sflow_create_depatch_thread(pthread_t *tid, void *(*start)(void *), void *arg)
{
    const int result = note(__func__);
    if (result == 0) {
        *tid = pthread_self();
        the_threads.push_back({start, arg});
    }
    return result;
}
void sflow_init_dead_detection(kx_thread_master_t *master)
{
    note(__func__, master == sflow_cli_master ? "master=sflow_cli_master" : "master=another");
}

extern "C" unsigned __wrap_sleep(unsigned seconds)
{
    on_sleep(seconds);
    return 0;
}

// ---- Export --------------------------------------------------------------------------------------------------

bool sflow_is_enable_receiver(u_int32_t cid)
{
    return sflow_agent.receivers[cid - 1].is_enable;
}
int sflow_receiver_set_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port)
{
    expects(Held::writing, __func__);
    const int result =
        note(__func__, "cid=" + std::to_string(cid) + " port=" + std::to_string(port) + " " + text_of(*addr));
    if (result == 0)
        enable_receiver(cid, *addr, port);
    return result;
}
void sflow_receiver_del_collector(u_int32_t cid, const sfladdress_t *addr, u_int16_t port)
{
    expects(Held::reading, __func__);
    note(__func__, "cid=" + std::to_string(cid) + " port=" + std::to_string(port) + " " + text_of(*addr));
    sflreceiver_t &receiver = sflow_agent.receivers[cid - 1];
    std::memset(&receiver.address, 0, sizeof(receiver.address));
    receiver.collector_port = 0;
    receiver.is_enable = false;
}
void sflow_receiver_set_max_datagramsize(u_int32_t cid, u_int32_t size)
{
    expects(Held::none, __func__);
    note(__func__, "cid=" + std::to_string(cid) + " size=" + std::to_string(size));
    sflow_agent.receivers[cid - 1].maxdatagramsize = size;
}
u_int32_t sflow_poller_get_cid(IFINDEX ifx)
{
    sflow_intf_config_t *intf = nullptr;
    sflow_get_intf_config_enable(ifx, &intf);
    return intf == nullptr ? 0 : intf->cid;
}
void sflow_poller_clear_cid(IFINDEX ifx)
{
    expects(Held::none, __func__);
    note(__func__, "ifx=" + std::to_string(ifx));
}
u_int32_t sflow_sampler_get_cid(IFINDEX ifx)
{
    sflow_intf_config_t *intf = nullptr;
    sflow_get_intf_config_enable(ifx, &intf);
    return intf == nullptr ? 0 : intf->fid;
}
void sflow_sampler_clear_cid(IFINDEX ifx)
{
    expects(Held::none, __func__);
    note(__func__, "ifx=" + std::to_string(ifx));
}

// ---- Sampling service and platform events --------------------------------------------------------------------

int sflow_flow_header_len_msg(int len)
{
    return note(__func__, "len=" + std::to_string(len));
}
int sflow_ifx_is_conf_msg(IFINDEX ifx, int cid, int flag)
{
    return note(__func__, "ifx=" + std::to_string(ifx) + " cid=" + std::to_string(cid) +
                              " flag=" + std::to_string(flag));
}
void sflow_send_debug_msg(int type, int flag)
{
    note(__func__, "type=" + std::to_string(type) + " flag=" + std::to_string(flag));
}
void show_sflow_server_info(int printf_flag)
{
    if (printf_flag != 0)
        tech_module_msg_output("server info\n");
}
void show_sflow_server_cmd(int printf_flag)
{
    if (printf_flag != 0)
        tech_module_msg_output("server commands\n");
}
void sflow_lib_server_cli_init()
{
    note(__func__);
}
int sflow_lsm_init(kx_thread_master_t *master)
{
    return note(__func__, master == sflow_cli_master ? "master=sflow_cli_master" : "master=another");
}
int sflow_acl_init(kx_thread_master_t *master)
{
    return note(__func__, master == sflow_cli_master ? "master=sflow_cli_master" : "master=another");
}
int sflow_acl_lookup(int *acl_id, const char *acl_name)
{
    expects(Held::none, __func__);
    const int result = note(__func__, acl_text(*acl_id, acl_name));
    if (result == 0 && *acl_id == 0)
        *acl_id = results["id of the named list"];
    return result;
}
int sflow_acl_ref(int acl_id, const char *acl_name)
{
    return note(__func__, acl_text(acl_id, acl_name));
}
int sflow_acl_unref(int acl_id, const char *acl_name)
{
    return note(__func__, acl_text(acl_id, acl_name));
}
