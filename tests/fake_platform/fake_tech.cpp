// Tech-support service and debug listing.
#include "fake_state.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

struct tech_cmdlist_t {
    std::vector<std::string> commands;
};

namespace fake
{
namespace
{

struct DebugModule {
    std::string name;
    debug_show_func_t show = nullptr;
};

struct Tech {
    std::vector<std::string> dump_files;
    std::vector<std::string> services;
    tech_status_func_t status_func = nullptr;
    tech_callback_t callback = nullptr;
    kx_thread_master_t *master = nullptr;
    std::string written;
    int completions = 0;
    std::vector<DebugModule> modules;
    std::vector<std::unique_ptr<tech_cmdlist_t>> lists;
};

Tech &tech()
{
    static Tech the_tech;
    return the_tech;
}

/// Runs `function` with standard output going to a file of memory and returns what it printed.
std::string printed_by(const std::function<void()> &function)
{
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int captured = memfd_create("stdout", MFD_CLOEXEC);
    if (saved < 0 || captured < 0 || dup2(captured, STDOUT_FILENO) < 0) {
        give_up("cannot capture standard output");
    }
    function();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string printed;
    std::array<char, 4096> buffer;
    off_t offset = 0;
    for (ssize_t count = 0; (count = pread(captured, buffer.data(), buffer.size(), offset)) > 0;
         offset += count) {
        printed.append(buffer.data(), static_cast<std::size_t>(count));
    }
    close(captured);
    return printed;
}

} // namespace

void reset_tech()
{
    const Lock lock = lock_state();
    tech() = {};
}

std::optional<int> deliver_tech(tech_event event, void *tech_arg)
{
    tech_callback_t callback = nullptr;
    {
        const Lock lock = lock_state();
        callback = tech().callback;
    }
    return callback != nullptr ? std::optional(callback(event, tech_arg)) : std::nullopt;
}

std::string tech_text()
{
    const Lock lock = lock_state();
    return tech().written;
}

std::string take_tech_text()
{
    const Lock lock = lock_state();
    return std::exchange(tech().written, {});
}

int tech_completions()
{
    const Lock lock = lock_state();
    return tech().completions;
}

std::vector<std::string> tech_dump_files()
{
    const Lock lock = lock_state();
    return tech().dump_files;
}

tech_status_func_t tech_status_func()
{
    const Lock lock = lock_state();
    return tech().status_func;
}

std::vector<std::string> tech_services()
{
    const Lock lock = lock_state();
    return tech().services;
}

kx_thread_master_t *tech_master()
{
    const Lock lock = lock_state();
    return tech().master;
}

} // namespace fake

using namespace fake;

int tech_client_init(const char *name)
{
    if (const auto result = record("tech_client_init", "name=" + string_or_null(name))) {
        return static_cast<int>(*result);
    }
    return name != nullptr && *name != '\0' ? 0 : -1;
}

int tech_module_reg_dump_file(const char *path)
{
    if (const auto result = record("tech_module_reg_dump_file", "path=" + string_or_null(path))) {
        return static_cast<int>(*result);
    }
    if (path == nullptr || *path == '\0') {
        return -1;
    }
    const Lock lock = lock_state();
    tech().dump_files.emplace_back(path);
    return 0;
}

int tech_reg_status_func(tech_status_func_t func)
{
    if (const auto result = record("tech_reg_status_func")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    tech().status_func = func;
    return func != nullptr ? 0 : -1;
}

int tech_reg_service_callback(const char *name, kx_thread_master_t *master, tech_callback_t callback)
{
    if (const auto result = record("tech_reg_service_callback", "name=" + string_or_null(name))) {
        return static_cast<int>(*result);
    }
    if (name == nullptr || master == nullptr || callback == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    tech().services.emplace_back(name);
    tech().master = master;
    tech().callback = callback;
    return 0;
}

void tech_module_msg_output(const char *format, ...)
{
    note_format(format);
    va_list args;
    va_start(args, format);
    const std::string written = zvformat(format, args);
    va_end(args);
    const Lock lock = lock_state();
    tech().written += written;
}

void tech_module_msg_deal_completion()
{
    record("tech_module_msg_deal_completion");
    const Lock lock = lock_state();
    ++tech().completions;
}

tech_cmdlist_t *tech_reg_cmdlist()
{
    if (record("tech_reg_cmdlist")) {
        return nullptr;
    }
    const Lock lock = lock_state();
    tech().lists.push_back(std::make_unique<tech_cmdlist_t>());
    return tech().lists.back().get();
}

int tech_client_regcmd(tech_cmdlist_t *list, const char *command)
{
    if (const auto result = record("tech_client_regcmd", "command=" + string_or_null(command))) {
        return static_cast<int>(*result);
    }
    if (list == nullptr || command == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    list->commands.emplace_back(command);
    return 0;
}

int tech_client_execute_cmd(struct_command_data_block *, tech_cmdlist_t *list)
{
    std::string commands;
    if (list != nullptr) {
        const Lock lock = lock_state();
        for (const std::string &command : list->commands) {
            commands += (commands.empty() ? "" : ";") + command;
        }
    }
    const auto result = record("tech_client_execute_cmd", "commands=" + commands);
    return result ? static_cast<int>(*result) : 0;
}

void tech_unreg_cmdlist(tech_cmdlist_t *list)
{
    record("tech_unreg_cmdlist");
    const Lock lock = lock_state();
    std::erase_if(tech().lists, [&](const auto &known) { return known.get() == list; });
}

int sys_add_debug(const char *name, debug_element_type *table, debug_show_func_t show, int, int, int)
{
    if (const auto result = record("sys_add_debug", "name=" + string_or_null(name))) {
        return static_cast<int>(*result);
    }
    if (name == nullptr || table == nullptr || show == nullptr) {
        return -1;
    }
    const Lock lock = lock_state();
    std::vector<DebugModule> &modules = tech().modules;
    std::erase_if(modules, [&](const DebugModule &module) { return module.name == name; });
    modules.push_back({.name = name, .show = show});
    return 0;
}

void tech_set_cli_hooks(const tech_cli_hooks_t *) {}

int tech_collect(const tech_sink_t &sink, std::chrono::milliseconds)
{
    if (const auto result = record("tech_collect")) {
        return static_cast<int>(*result);
    }
    const std::size_t before = tech_text().size();
    const bool answered = deliver_tech(TECH_E_BASIC).has_value();
    sink(tech_text().substr(before));
    return answered ? 1 : 0;
}

void sys_show_debug(const tech_sink_t &sink)
{
    std::vector<DebugModule> modules;
    {
        const Lock lock = lock_state();
        modules = tech().modules;
    }
    for (const DebugModule &module : modules) {
        sink(printed_by(module.show));
    }
}
