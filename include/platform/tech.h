// Tech-support service: a module contributes its state and files to the platform's support collection; and
// the platform's debug listing.
//
// A module registers once, on the thread of its thread master: tech_client_init(), then its files, its status
// function and its callback. Registering again replaces what was registered under the same name.
#pragma once

#include "platform/kx_thread.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string_view>

/// The CLI service's record of the command being executed.
struct struct_command_data_block;

// ---- For modules
// ----------------------------------------------------------------------------------------------

enum tech_event : int {
    TECH_E_BASIC = 0,            ///< write the basic report
    TECH_E_DETAIL = 1,           ///< write the detailed report
    TECH_E_BASIC_COMPLETION = 2, ///< the basic collection has ended
    TECH_E_DETAIL_COMPLETION = 3,
    TECH_E_DETAIL_NOSPC = 4, ///< the detailed collection ended for want of space
};

/// Gets the events on the module's thread master; the result means nothing. A report (TECH_E_BASIC,
/// TECH_E_DETAIL) is written with tech_module_msg_output() and ended with tech_module_msg_deal_completion(),
/// on the same thread. `tech_arg` is reserved, nullptr.
using tech_callback_t = int (*)(tech_event event, void *tech_arg);

/// Prints one line about the module with cli_printf(); runs on the module's thread master.
using tech_status_func_t = void (*)(struct_command_data_block *record);

/// Names the module; 0, or -1 when `name` is nullptr or empty. Copied.
int tech_client_init(const char *name);

/// Adds a file to the collection; it need not exist yet. 0, or -1 when `path` is nullptr or empty. Copied.
int tech_module_reg_dump_file(const char *path);

/// Sets the module's status function; 0, or -1 for nullptr.
int tech_reg_status_func(tech_status_func_t func);

/// Registers the module's report under `name`, which is copied; events come on `master`. 0, or -1 when an
/// argument is nullptr.
int tech_reg_service_callback(const char *name, kx_thread_master_t *master, tech_callback_t callback);

/// Adds text to the report being written. `format` is printf's with the additions of platform/zformat.h ("%a"
/// IPv4,
/// "%v" IPv6). On the thread that got the event; text outside a report is dropped.
void tech_module_msg_output(const char *format, ...);

/// Ends the report being written; on the thread that got the event. Nothing happens outside a report.
void tech_module_msg_deal_completion();

/// A list of commands to be run for an operator.
struct tech_cmdlist_t;

/// Creates an empty list; nullptr when memory is short. The caller releases it with tech_unreg_cmdlist().
[[nodiscard]] tech_cmdlist_t *tech_reg_cmdlist();
/// Appends a command line; copied. 0, or -1 when an argument is nullptr.
int tech_client_regcmd(tech_cmdlist_t *list, const char *command);
/// Runs the commands in order, their output going to the operator of `record`. Blocks until the last one is
/// done; any thread but the CLI service's own. 0 when all were run, -1 when one could not be (the rest still
/// are).
int tech_client_execute_cmd(struct_command_data_block *record, tech_cmdlist_t *list);
void tech_unreg_cmdlist(tech_cmdlist_t *list);

// ---- Debug listing
// ----------------------------------------------------------------------------------------------

/// One debug switch. A table of them ends with a row whose members are both null.
struct debug_element_type {
    bool *flag; ///< accessed with relaxed atomics
    const char *flag_help;
};

/// Prints the module's switches that are on to standard output.
using debug_show_func_t = void (*)();

/// Adds a module to the debug listing. `name` is copied, `table` must stay; a second call with the same name
/// replaces the first. The last three arguments are reserved, 0.
/// @return 0, or -1 when `name`, `table` or `show` is nullptr
int sys_add_debug(const char *name, debug_element_type *table, debug_show_func_t show, int reserved_1,
                  int reserved_2, int reserved_3);

// ---- For the CLI service
// ----------------------------------------------------------------------------------------

/// Takes text piece by piece; must not call back into this service.
using tech_sink_t = std::function<void(std::string_view text)>;

/// What the tech-support service needs of the CLI service.
struct tech_cli_hooks_t {
    /// Runs one command line as if the operator of `record` had entered it in exec mode, with a heading that
    /// shows the command; blocks until it is done. Called on the thread of tech_client_execute_cmd(). 0, or
    /// -1 when the command is not known or the operator has gone.
    int (*execute)(struct_command_data_block *record, const char *command);
    /// Calls `func` with a record whose cli_printf() output goes to `sink`. Called on the module's thread
    /// master.
    void (*capture)(tech_status_func_t func, const tech_sink_t &sink);
};

/// Installs the hooks; nullptr removes them. Copied. Without them tech_client_execute_cmd() fails and a
/// collection says that status is not available.
void tech_set_cli_hooks(const tech_cli_hooks_t *hooks);

/// Collects the support text: each module's status line and report (TECH_E_BASIC, on the module's thread
/// master), then the registered files.
///
/// @param sink     called on any of the threads involved, one call at a time
/// @param patience how long to wait for each module; one that takes longer is named as late, and what it
/// writes
///                 afterwards is dropped
/// @return number of modules that answered in full, or -1 when another collection is running
///
/// Blocks; must not be called on a thread that serves a module's thread master, which would wait for itself.
int tech_collect(const tech_sink_t &sink, std::chrono::milliseconds patience);

/// The same with the modules' detailed reports (TECH_E_DETAIL), for a place that may run out of room.
///
/// @param has_room  asked after each module's report and before each file, on the calling thread. Once it is false
///                  the rest is left out; the module that wrote last gets TECH_E_DETAIL_NOSPC instead of
///                  TECH_E_DETAIL_COMPLETION.
int tech_collect_detail(const tech_sink_t &sink, const std::function<bool()> &has_room,
                        std::chrono::milliseconds patience);

/// Calls every show function of the debug listing, in order of registration, and hands what they print to
/// `sink`. Whatever else the process prints to standard output meanwhile is collected too. One call at a
/// time, others wait.
void sys_show_debug(const tech_sink_t &sink);
