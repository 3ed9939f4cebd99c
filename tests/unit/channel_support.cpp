#include "channel_support.h"

#include "sflow_cli.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_poller.h"
#include "sflow_sampler.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;

namespace channel
{
namespace
{

constexpr auto PATIENCE = 120s;

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<DebugLine> debug;
    bool replace = false;
    std::vector<Bytes> sent;
    std::function<int(int nth)> send_result;
    std::vector<std::string> calls;
    std::map<std::string, int, std::less<>> answers;
    std::vector<QueuedCounter> counters;
    std::vector<FlowSample> samples;
    std::vector<const struct_transtion *> trees;
};

State &state()
{
    static State the_state;
    return the_state;
}

using Lock = std::unique_lock<std::mutex>;

void note(std::string call)
{
    const Lock lock(state().mutex);
    state().calls.push_back(std::move(call));
}

bool replaced()
{
    const Lock lock(state().mutex);
    return state().replace;
}

int answer_of(std::string_view function)
{
    const Lock lock(state().mutex);
    const auto found = state().answers.find(function);
    return found == state().answers.end() ? 0 : found->second;
}

std::string arguments(std::string_view function, std::initializer_list<long> values)
{
    std::string text(function);
    char separator = '(';
    for (const long value : values) {
        text += separator;
        text += std::to_string(value);
        separator = ',';
    }
    if (values.size() == 0)
        text += '(';
    return text + ')';
}

} // namespace

Bytes words(std::initializer_list<std::uint32_t> values)
{
    Bytes bytes;
    for (const std::uint32_t value : values) {
        bytes.resize(bytes.size() + sizeof(value));
        put(bytes, bytes.size() - sizeof(value), value);
    }
    return bytes;
}

void put(Bytes &bytes, std::size_t offset, std::uint32_t value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

void put(Bytes &bytes, std::size_t offset, std::string_view text)
{
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

std::uint32_t word_at(const Bytes &bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

std::vector<DebugLine> debug_lines()
{
    const Lock lock(state().mutex);
    return state().debug;
}

std::vector<std::string> debug_texts()
{
    std::vector<std::string> texts;
    for (const DebugLine &line : debug_lines())
        texts.push_back(line.text);
    return texts;
}

std::size_t debug_count(std::string_view text)
{
    const std::vector<std::string> texts = debug_texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

bool wait_for_debug(std::string_view text, std::size_t times)
{
    Lock lock(state().mutex);
    return state().changed.wait_for(lock, PATIENCE, [&] {
        return std::count_if(state().debug.begin(), state().debug.end(), [&](const DebugLine &line) {
                   return line.text == text;
               }) >= static_cast<std::ptrdiff_t>(times);
    });
}

void forget_debug()
{
    const Lock lock(state().mutex);
    state().debug.clear();
}

bool eventually(const std::function<bool()> &predicate)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

void replace_modules(bool replace)
{
    const Lock lock(state().mutex);
    state().replace = replace;
}

std::vector<Bytes> sent_records()
{
    const Lock lock(state().mutex);
    return state().sent;
}

void answer_sends(std::function<int(int nth)> result)
{
    const Lock lock(state().mutex);
    state().send_result = std::move(result);
}

void forget_sent()
{
    const Lock lock(state().mutex);
    state().sent.clear();
}

std::vector<std::string> module_calls()
{
    const Lock lock(state().mutex);
    return state().calls;
}

void forget_module_calls()
{
    const Lock lock(state().mutex);
    state().calls.clear();
}

void answer(std::string_view function, int result)
{
    const Lock lock(state().mutex);
    state().answers[std::string(function)] = result;
}

std::vector<QueuedCounter> queued_counters()
{
    const Lock lock(state().mutex);
    return state().counters;
}

std::vector<FlowSample> flow_samples()
{
    const Lock lock(state().mutex);
    return state().samples;
}

std::vector<const struct_transtion *> cli_trees()
{
    const Lock lock(state().mutex);
    return state().trees;
}

// ---- Fixtures ----------------------------------------------------------------------------------------------------

TempDir::TempDir() : path_("/tmp/chan-XXXXXX")
{
    if (mkdtemp(path_.data()) == nullptr)
        std::abort();
    std::filesystem::create_directory(path_ + "/sflow");
    setenv("TMPDIR", path_.c_str(), 1);
}

TempDir::~TempDir()
{
    unsetenv("TMPDIR");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

AgentTest::AgentTest()
{
    fake::reset();
    {
        const Lock lock(state().mutex);
        state().debug.clear();
        state().sent.clear();
        state().send_result = nullptr;
        state().calls.clear();
        state().answers.clear();
        state().counters.clear();
        state().samples.clear();
        state().trees.clear();
        state().replace = true;
    }
    set_threads(Threads::noted);
    if (sflow_agent_init(&sflow_agent) != 0)
        std::abort();
    sflow_debug_all = sflow_debug_export = sflow_debug_skt = false;
    sflow_debug_conf = sflow_debug_event = true;
    sflow_statis = {};
    fake::forget_syslog();
    forget_debug();
}

AgentTest::~AgentTest()
{
    sflow_debug_conf = sflow_debug_event = false;
    replace_modules(false);
}

sflow_intf_config_t *AgentTest::add_interface(IFINDEX ifx)
{
    sflow_config_wrlock();
    sflow_intf_config_t *intf = sflow_add_intf_config(ifx);
    sflow_config_wrunlock();
    return intf;
}

sflow_intf_config_t *AgentTest::interface(IFINDEX ifx)
{
    sflow_config_rdlock();
    sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
    sflow_config_rdunlock();
    return intf;
}

} // namespace channel

// ---- The daemon's functions under the linker's --wrap --------------------------------------------------------------

using namespace channel;

// `real_X` is the daemon's function, `wrap_X` what the objects that call it get.
#define CHANNEL_WRAPPED(result, name, mangled, ...)                                                          \
    result real_##name(__VA_ARGS__) __asm__("__real_" mangled);                                              \
    result wrap_##name(__VA_ARGS__) __asm__("__wrap_" mangled)

CHANNEL_WRAPPED(void, write_log, "_Z19sflow_app_write_logiPKciS0_", int, const char *, int, const char *);
CHANNEL_WRAPPED(int, send_msg, "_Z25sflow_lib_server_send_msgPKci", const char *, int);
CHANNEL_WRAPPED(int, reform, "_Z20sflow_cli_c2p_reformv", void);
CHANNEL_WRAPPED(int, sampler_set_cid, "_Z21sflow_sampler_set_cidjj", IFINDEX, u_int32_t);
CHANNEL_WRAPPED(int, poller_set_cid, "_Z20sflow_poller_set_cidjj", IFINDEX, u_int32_t);
CHANNEL_WRAPPED(int, enqueue, "_Z28sflow_pi_counter_msg_enqueuePK19sflow_counter_ret_ti",
                const sflow_counter_ret_t *, int);
CHANNEL_WRAPPED(int, flow_sampling, "_Z22sflow_pi_flow_samplingPKci17sflow_flow_info_t", const char *, int,
                sflow_flow_info_t);
CHANNEL_WRAPPED(sflow_intf_config_t *, add_intf, "_Z21sflow_add_intf_configj", IFINDEX);
CHANNEL_WRAPPED(void, intf_del, "_Z21sflow_intf_del_notifyj", IFINDEX);
CHANNEL_WRAPPED(void, agent_del, "_Z27sflow_agent_del_intf_notifyj", IFINDEX);
CHANNEL_WRAPPED(void, source_del, "_Z28sflow_source_del_intf_notifyj", IFINDEX);
CHANNEL_WRAPPED(void, vrf_gone, "_Z40sflow_receiver_vrf_no_exist_del_receiverPK14intf_msg_vrf_t",
                const intf_msg_vrf_t *);
CHANNEL_WRAPPED(int, cmd_register, "_Z29sflow_lib_server_cmd_registerjPFvPcE", unsigned int,
                sflow_deal_msg_t);
CHANNEL_WRAPPED(void, cmd_unregister, "_Z31sflow_lib_server_cmd_unregisterj", unsigned int);
CHANNEL_WRAPPED(int, add_command, "_Z15cli_add_command12cli_attach_tPK16struct_transtionPKc", cli_attach_t,
                const struct struct_transtion *, const char *);

void wrap_write_log(int fd, const char *file, int line, const char *text)
{
    {
        const Lock lock(state().mutex);
        state().debug.push_back({file, text});
        state().changed.notify_all();
    }
    real_write_log(fd, file, line, text);
}

int wrap_send_msg(const char *msg, int len)
{
    if (!replaced())
        return real_send_msg(msg, len);
    const Lock lock(state().mutex);
    const int nth = static_cast<int>(state().sent.size());
    state().sent.emplace_back(msg, msg + len);
    return state().send_result ? state().send_result(nth) : 0;
}

int wrap_reform()
{
    note("sflow_cli_c2p_reform()");
    return replaced() ? answer_of("sflow_cli_c2p_reform") : real_reform();
}

int wrap_sampler_set_cid(IFINDEX ifx, u_int32_t cid)
{
    note(arguments("sflow_sampler_set_cid", {ifx, cid}));
    return replaced() ? answer_of("sflow_sampler_set_cid") : real_sampler_set_cid(ifx, cid);
}

int wrap_poller_set_cid(IFINDEX ifx, u_int32_t cid)
{
    note(arguments("sflow_poller_set_cid", {ifx, cid}));
    return replaced() ? answer_of("sflow_poller_set_cid") : real_poller_set_cid(ifx, cid);
}

int wrap_enqueue(const sflow_counter_ret_t *ret, int type)
{
    if (!replaced())
        return real_enqueue(ret, type);
    const int result = answer_of("sflow_pi_counter_msg_enqueue");
    const Lock lock(state().mutex);
    state().counters.push_back({*ret, type});
    return result;
}

int wrap_flow_sampling(const char *buf, int buf_len, sflow_flow_info_t info)
{
    if (!replaced())
        return real_flow_sampling(buf, buf_len, info);
    const Lock lock(state().mutex);
    state().samples.push_back({Bytes(buf, buf + SFLOW_FLOW_BUF_LEN), buf_len, info});
    return 0;
}

sflow_intf_config_t *wrap_add_intf(IFINDEX ifx)
{
    return answer_of("sflow_add_intf_config") != 0 ? nullptr : real_add_intf(ifx);
}

void wrap_intf_del(IFINDEX ifx)
{
    note(arguments("sflow_intf_del_notify", {ifx}));
    real_intf_del(ifx);
}

void wrap_agent_del(IFINDEX ifx)
{
    note(arguments("sflow_agent_del_intf_notify", {ifx}));
    real_agent_del(ifx);
}

void wrap_source_del(IFINDEX ifx)
{
    note(arguments("sflow_source_del_intf_notify", {ifx}));
    real_source_del(ifx);
}

void wrap_vrf_gone(const intf_msg_vrf_t *msg)
{
    note(arguments("sflow_receiver_vrf_no_exist_del_receiver", {msg->sub_type, msg->vrf_chg.vrf_id}));
    real_vrf_gone(msg);
}

int wrap_cmd_register(unsigned int cmd, sflow_deal_msg_t handler)
{
    note(arguments("sflow_lib_server_cmd_register", {cmd}));
    {
        const Lock lock(state().mutex);
        const auto found = state().answers.find("sflow_lib_server_cmd_register " + std::to_string(cmd));
        if (found != state().answers.end())
            return found->second;
    }
    return real_cmd_register(cmd, handler);
}

void wrap_cmd_unregister(unsigned int cmd)
{
    note(arguments("sflow_lib_server_cmd_unregister", {cmd}));
    real_cmd_unregister(cmd);
}

int wrap_add_command(cli_attach_t attach, const struct struct_transtion *append_point, const char *name)
{
    {
        const Lock lock(state().mutex);
        state().trees.push_back(append_point);
    }
    return real_add_command(attach, append_point, name);
}
