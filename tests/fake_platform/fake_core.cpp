#include "fake_state.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

namespace fake
{
namespace
{

// Every platform function that can be made to fail.
constexpr std::string_view FUNCTIONS[] = {
    "acl_agent_init",
    "acl_info_get",
    "acl_ref",
    "acl_unref",
    "c2p_printf",
    "cli_add_command",
    "cli_change_mode",
    "cli_client_awaits",
    "cli_client_c2p_reform",
    "cli_client_execmd_fail",
    "cli_client_init",
    "cli_client_ready",
    "cli_get_mode_root",
    "cli_param_is_change",
    "cli_proc_thread_end",
    "cli_proc_thread_start",
    "cli_run_command",
    "cli_walkthrought_node",
    "get_cores_affinity",
    "ham_client_reg_thread_notify",
    "ham_client_reset_thread_notify",
    "ham_client_unreg_thread_notify",
    "kx_thread_add_event",
    "kx_thread_add_read",
    "kx_thread_add_timer",
    "kx_thread_add_write",
    "kx_thread_cancel",
    "kx_thread_fetch",
    "kx_thread_insert_timer",
    "kx_thread_master_create",
    "kx_thread_master_finish",
    "lsm_agent_init",
    "lsm_agent_set_connect_callback",
    "lsm_client_reg_event_ex",
    "lsm_client_reg_event_over",
    "lsm_client_set_mode",
    "lsm_get_intfcb",
    "lsm_get_realtime_version",
    "lsm_if_get_flags",
    "lsm_if_get_index",
    "lsm_if_get_kind_mask",
    "lsm_if_get_main_index",
    "lsm_if_get_name",
    "lsm_if_get_top_stack",
    "lsm_if_get_type",
    "lsm_if_get_vrf",
    "lsm_if_is_subinterface",
    "lsm_ipv6_get_first_addr",
    "lsm_netif_get_first_ip_by_index",
    "lsm_raise_default_event",
    "lsm_reg_msg_handler_ex",
    "lsm_vrf_bind_socket",
    "lsm_vrf_index2name",
    "lsm_vrf_name2index",
    "rdnd_callback_register",
    "rdnd_chkpnt_enqueue",
    "rdnd_get_role",
    "rdnd_get_state",
    "rdnd_get_version",
    "rdnd_kx_thread_init",
    "rdnd_notify_completion",
    "reg_process_exit_action",
    "sys_add_debug",
    "syslog_set_snd_queue_size",
    "syslog_single_thread_client_init",
    "tech_client_execute_cmd",
    "tech_client_init",
    "tech_client_regcmd",
    "tech_collect",
    "tech_module_msg_deal_completion",
    "tech_module_reg_dump_file",
    "tech_reg_cmdlist",
    "tech_reg_service_callback",
    "tech_reg_status_func",
    "tech_unreg_cmdlist",
};

struct Failure {
    std::deque<long> next;
    std::optional<long> always;
};

struct Core {
    std::vector<Call> calls;
    std::map<std::string, Failure, std::less<>> failures;
};

Core &core()
{
    static Core the_core;
    return the_core;
}

class FormatNotes
{
public:
    FormatNotes() : path_(std::getenv("SFLOW_NOTE_FORMATS")) {}
    FormatNotes(const FormatNotes &) = delete;
    FormatNotes &operator=(const FormatNotes &) = delete;
    ~FormatNotes()
    {
        if (path_ == nullptr) {
            return;
        }
        std::ofstream file(path_, std::ios::app);
        for (const std::string &format : formats_) {
            file << format << '\0';
        }
    }

    void add(const char *format)
    {
        if (path_ != nullptr) {
            formats_.insert(format);
        }
    }

private:
    const char *const path_;
    std::set<std::string, std::less<>> formats_;
};

void check_name(std::string_view function)
{
    if (!std::binary_search(std::begin(FUNCTIONS), std::end(FUNCTIONS), function)) {
        give_up("no function \"" + std::string(function) + "\" that could be made to fail");
    }
}

std::optional<long> take_failure(std::string_view function)
{
    check_name(function);
    const auto it = core().failures.find(function);
    if (it == core().failures.end()) {
        return std::nullopt;
    }
    Failure &failure = it->second;
    if (failure.next.empty()) {
        return failure.always;
    }
    const long result = failure.next.front();
    failure.next.pop_front();
    return result;
}

} // namespace

std::mutex &state_mutex()
{
    static std::mutex the_mutex;
    return the_mutex;
}

std::condition_variable &state_changed()
{
    static std::condition_variable the_condition;
    return the_condition;
}

void give_up(const std::string &reason)
{
    std::fprintf(stderr, "fake platform: %s\n", reason.c_str());
    std::abort();
}

void note_format(const char *format)
{
    static FormatNotes notes;
    const Lock lock = lock_state();
    notes.add(format);
}

std::string vtext(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        give_up(std::string("cannot format \"") + format + "\"");
    }
    std::string result(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(result.data(), result.size(), format, args);
    result.pop_back();
    return result;
}

std::string text(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string result = vtext(format, args);
    va_end(args);
    return result;
}

std::string string_or_null(const char *value)
{
    return value != nullptr ? value : "(null)";
}

std::optional<long> record(std::string_view function, const std::string &arguments)
{
    const Lock lock = lock_state();
    core().calls.push_back({.function = std::string(function), .arguments = arguments});
    return take_failure(function);
}

std::optional<long> scripted(std::string_view function)
{
    const Lock lock = lock_state();
    return take_failure(function);
}

void reset_core()
{
    const Lock lock = lock_state();
    core() = {};
}

void reset()
{
    reset_threads();
    reset_lsm();
    reset_cli();
    reset_services();
    reset_tech();
    reset_core();
}

std::vector<Call> calls()
{
    const Lock lock = lock_state();
    return core().calls;
}

std::vector<std::string> calls(std::string_view function)
{
    const Lock lock = lock_state();
    check_name(function);
    std::vector<std::string> result;
    for (const Call &call : core().calls) {
        if (call.function == function) {
            result.push_back(call.arguments);
        }
    }
    return result;
}

std::size_t call_count(std::string_view function)
{
    return calls(function).size();
}

std::vector<std::string> call_order()
{
    const Lock lock = lock_state();
    std::vector<std::string> result;
    for (const Call &call : core().calls) {
        result.push_back(call.function);
    }
    return result;
}

void forget_calls()
{
    const Lock lock = lock_state();
    core().calls.clear();
}

void fail_next(std::string_view function, long result, int times)
{
    const Lock lock = lock_state();
    check_name(function);
    Failure &failure = core().failures[std::string(function)];
    failure.next.insert(failure.next.end(), static_cast<std::size_t>(times), result);
}

void fail_always(std::string_view function, long result)
{
    const Lock lock = lock_state();
    check_name(function);
    core().failures[std::string(function)].always = result;
}

void succeed(std::string_view function)
{
    const Lock lock = lock_state();
    check_name(function);
    core().failures.erase(std::string(function));
}

std::vector<std::string> pending_failures()
{
    const Lock lock = lock_state();
    std::vector<std::string> result;
    for (const auto &[function, failure] : core().failures) {
        if (!failure.next.empty()) {
            result.push_back(function);
        }
    }
    return result;
}

} // namespace fake
