// A platform for unit tests: every function of include/platform/ against state that the test sets up and
// looks at.
//
// Nothing happens by itself. Time stands still until the test advances it, tasks of a thread master run when
// the test says so, on the test's thread, and events come from the test. The formatter and the parse-graph
// interpreter are the real ones. Tests call reset() before each case.
//
// Every function here and every platform function may be called from any thread; handlers, callbacks and
// tasks are called without any lock held. Texts and lists are copies.
#pragma once

#include "platform/acl.h"
#include "platform/cli.h"
#include "platform/cpu_placement.h"
#include "platform/ham.h"
#include "platform/kx_thread.h"
#include "platform/lsm.h"
#include "platform/rdnd.h"
#include "platform/syslog_client.h"
#include "platform/tech.h"
#include "platform/zformat.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fake
{

/// Forgets everything: registrations, interfaces, lists, captured output, scripted failures; the clock starts
/// at 0. Thread masters made before are finished, caller-owned timers become idle.
void reset();

// ---- Calls and failures -----------------------------------------------------------------------------------

/// One call that changed something. Queries, formatting, output and the loop functions are not recorded.
struct Call {
    std::string function;
    std::string arguments; ///< "name=value" of those worth comparing, separated by blanks

    bool operator==(const Call &) const = default;
};

/// All calls, oldest first.
std::vector<Call> calls();
/// Arguments of the calls of one function.
std::vector<std::string> calls(std::string_view function);
std::size_t call_count(std::string_view function);
/// Names only: what was called in which order.
std::vector<std::string> call_order();
void forget_calls();

/// The next `times` calls of `function` return `result`, or nullptr where it returns a pointer, and do
/// nothing else; they are recorded. An unknown name ends the test program: a failure that can never happen is
/// a mistake.
void fail_next(std::string_view function, long result = -1, int times = 1);
/// The same for every call until succeed().
void fail_always(std::string_view function, long result = -1);
void succeed(std::string_view function);
/// Functions whose scripted failures have not all been consumed; fail_always() does not count.
std::vector<std::string> pending_failures();

// ---- Thread masters and time ------------------------------------------------------------------------------

enum class TaskKind { timer, event, read, write };

struct ArmedTask {
    std::string name; ///< as armed; "" without a name
    TaskKind kind = TaskKind::timer;
    kx_thread_master_t *master = nullptr;
    kx_thread_func_t func = nullptr;
    long due_in_ms = 0; ///< timers; 0 when overdue
};

/// Virtual time since reset().
std::chrono::milliseconds now();
/// What waits, in the order in which it would run.
std::vector<ArmedTask> armed();
/// The tasks that wait under this name.
std::size_t armed_count(std::string_view name);

/// Runs every task that is due, on this thread, also those that become due meanwhile; the number run. Read
/// and write tasks are due when their descriptor is ready. Ends the test program when it does not come to an
/// end.
int run_due();
/// Lets time pass, running every timer at its moment; the number run. With Fetch::waits it runs nothing
/// itself: the waiting threads do.
int advance(std::chrono::milliseconds time);

/// What kx_thread_fetch() does when nothing is due.
enum class Fetch {
    returns_null, ///< the default
    waits,        ///< until another thread advances the clock, arms a task or ends the master
};
void set_fetch(Fetch fetch);
/// Called, without a lock, by kx_thread_fetch() before it gives up for lack of a due task; true has it look
/// again.
void set_idle_hook(std::function<bool()> hook);
/// Has every waiting kx_thread_fetch(), and every later one, return nullptr until reset().
void end_fetch();

// ---- Syslog -----------------------------------------------------------------------------------------------

struct SyslogLine {
    int level = 0;
    std::string module;
    std::string mnemonic;
    int dest = 0;
    std::string text; ///< as formatted, newlines kept

    bool operator==(const SyslogLine &) const = default;
};

std::vector<SyslogLine> syslog_lines();
/// The texts alone.
std::vector<std::string> syslog_texts();
std::size_t syslog_count(std::string_view text);
void forget_syslog();

// ---- Interface manager ------------------------------------------------------------------------------------

/// An interface; the initialisers describe a port that is up, with 1 Gbit/s.
struct Interface {
    std::string name;
    int type = LSM_IF_TYPE_ETHERNET;
    bool subinterface = false;
    int top_stack = LSM_IF_STACK_TCPIP;
    std::optional<IFINDEX> main_index; ///< empty: the interface itself
    u_int32_t flags = 0;
    u_int32_t kind = LSM_IF_KIND_PORT;
    int vrf = 0; ///< negative: lsm_if_get_vrf() fails
    lsm_admin_state_t admin_state = INTF_ADMIN_UP;
    lsm_line_state_t line_state = INTF_UP;
    std::optional<lsm_eth_info_t> eth = lsm_eth_info_t{.duplex = LSM_DUPLEX_FULL, .speed = 1000};
    std::vector<std::string> ipv4{}; ///< text; the first one is the first address
    std::vector<std::string> ipv6{};
    u_int32_t physical_version = 1; ///< lsm_get_realtime_version()
    u_int32_t tcpip_version = 1;
};

/// Adds or replaces. No event.
void set_interface(IFINDEX ifx, const Interface &interface);
/// From here on unknown. No event.
void remove_interface(IFINDEX ifx);
/// Names a VRF; LSM_VRF_MGMT_NAME stands for itself.
void set_vrf(int vrf, const std::string &name);
void remove_vrf(int vrf);

/// One call of lsm_vrf_bind_socket(), whatever came of it.
struct VrfSocket {
    int sd;
    int vrf;
    bool operator==(const VrfSocket &) const = default;
};
std::vector<VrfSocket> vrf_sockets();
/// Control blocks handed out and not put back.
int intfcbs_held();

/// Calls the handler of `stack` with the payload, as the client's thread would.
/// @return false when no handler is set there, or the event is not subscribed to (INTF_EVENT_SYNC_DATA_OVER
/// always is)
bool deliver_lsm_bytes(int stack, int event, const void *payload, std::size_t len);
template <typename Payload>
bool deliver_lsm(int stack, int event, const Payload &payload)
{
    return deliver_lsm_bytes(stack, event, &payload, sizeof payload);
}
/// The same without data.
bool deliver_lsm_null(int stack, int event);
/// Whether the handler of `stack` is subscribed to `event`, and to every interface type.
bool lsm_subscribed(int stack, int event);
/// Mode last set with success; nothing before.
std::optional<int> lsm_mode();

// ---- ACL service ------------------------------------------------------------------------------------------

/// Adds a list. A numbered list usually has its number as name.
void add_acl(int32_t acl_id, const std::string &name, int32_t acl_cls = ACL_CLASS_IPV4);
/// Removes a list and the references on it, then calls acl_delete_notify.
void delete_acl(int32_t acl_id);
/// References held on a list.
int acl_refs(int32_t acl_id);
/// Calls acl_svr_status_notify. Down ends all references.
void set_acl_service(bool up);
/// The registration; nullptr before.
const acl_reg_t *acl_registration();

// ---- Redundancy -------------------------------------------------------------------------------------------

void set_role(rdnd_role role);
void set_state(rdnd_stat state);

/// Calls the registered handler and returns its answer; nothing when none is registered.
std::optional<int> deliver_rdnd(RDND_EVENT event, std::span<const std::byte> data = {});
/// RDND_E_VERSION_CHECK from a peer of this version.
std::optional<int> deliver_version_check(unsigned long version);
/// Argument the handler was registered with, and the version.
void *rdnd_registered_arg();
unsigned long rdnd_registered_version();

struct Checkpoint {
    std::string name;
    std::vector<std::byte> data;
};
/// Messages taken by rdnd_chkpnt_enqueue().
std::vector<Checkpoint> checkpoints();
void forget_checkpoints();

// ---- Health monitor, CPU placement ------------------------------------------------------------------------

struct HamThread {
    pid_t pid = 0;
    int deadline_s = 0;
    int max_reports = 0;
    int renewals = 0; ///< ham_client_reset_thread_notify() calls
};
/// By kernel thread id.
std::map<pid_t, HamThread> ham_threads();

/// Cores of a process; without, get_cores_affinity() fails.
void set_cores(const std::string &process, std::vector<int> cores);

// ---- CLI service ------------------------------------------------------------------------------------------

/// Where a line is typed: a mode's name, or interface().
struct Place {
    Place(const char *mode_name = CLI_MODE_CONFIG) : mode(mode_name) {}

    std::string mode;
    IFINDEX ifx = 0;
    std::vector<IFINDEX> range; ///< of mode ifrange
    bool privileged = true;
};
Place interface(IFINDEX ifx);
Place ifrange(std::vector<IFINDEX> members);

struct CliResult {
    enum class Kind { empty, run, invalid, ambiguous, incomplete };

    Kind kind = Kind::empty;
    bool failed = false; ///< the handler called cli_client_execmd_fail()
    std::string text;    ///< what it printed, or the parser's message for a line that is not a command
    struct_command_data_block record{}; ///< as the parser filled it

    /// The line is a command and its handler did not fail.
    [[nodiscard]] bool ok() const { return kind == Kind::run && !failed; }
};

/// Parses the line against the registered trees and runs its handler. Threads that the handler handed the
/// command to (cli_proc_thread_start) are waited for.
CliResult cli_run(std::string_view line, const Place &place = {});
/// Parses only.
CliResult cli_match(std::string_view line, const Place &place = {});

struct Help {
    std::string text;
    std::string help;

    bool operator==(const Help &) const = default;
};
/// What "?" lists at the end of `text`.
std::vector<Help> cli_help(std::string_view text, const Place &place = {});
/// What the tab key completes the last word of `text` to.
std::vector<std::string> cli_complete(std::string_view text, const Place &place = {});

/// Everything printed with cli_printf() since reset() or the last take.
std::string cli_text();
std::string take_cli_text();
/// Calls of cli_client_execmd_fail() since reset().
int execmd_fails();

struct ConfigLine {
    bool non_default = false;
    std::string mode; ///< of the record
    u_int64_t mode_intidx = 0;
    std::string text; ///< as formatted, newlines kept

    bool operator==(const ConfigLine &) const = default;
};
/// Everything added with c2p_printf() since reset() or the last take.
std::vector<ConfigLine> config_lines();
std::vector<ConfigLine> take_config_lines();
/// Runs one handler as in the pass that prints running configuration and returns the lines it added.
std::vector<ConfigLine> print_config(cli_handler_t handler, struct_command_data_block record = {});
/// The running configuration of all registered trees.
std::string running_config(bool all = false);
/// What the last cli_client_c2p_reform() collected; nothing before.
std::optional<std::string> reformed_config();

/// Attach point and name of each registration, in order.
struct CliRegistration {
    int attach = 0;
    std::string name;

    bool operator==(const CliRegistration &) const = default;
};
std::vector<CliRegistration> cli_registrations();
/// Append point of the last registration of this name; nullptr for none.
const struct_transtion *cli_tree(const std::string &name);
bool cli_is_ready();

// ---- Tech support -----------------------------------------------------------------------------------------

/// Calls the registered report callback and returns its answer; nothing when none is registered.
std::optional<int> deliver_tech(tech_event event, void *tech_arg = nullptr);
/// What was written with tech_module_msg_output().
std::string tech_text();
std::string take_tech_text();
/// Calls of tech_module_msg_deal_completion().
int tech_completions();
std::vector<std::string> tech_dump_files();
tech_status_func_t tech_status_func();
/// Names registered with tech_reg_service_callback(); the master of the last one.
std::vector<std::string> tech_services();
kx_thread_master_t *tech_master();

} // namespace fake
