// Tech-support service: registration, and commands run for an operator.

#include "platform/tech.h"

#include "tech_support/tech_registry.h"

#include <memory>
#include <new>
#include <string>
#include <vector>

using platform::tech_registry;

struct tech_cmdlist_t {
    std::vector<std::string> commands;
};

int tech_client_init(const char *name)
{
    if (name == nullptr || *name == '\0')
        return -1;
    tech_registry().set_module(name);
    return 0;
}

int tech_module_reg_dump_file(const char *path)
{
    if (path == nullptr || *path == '\0')
        return -1;
    tech_registry().add_file(path);
    return 0;
}

int tech_reg_status_func(tech_status_func_t func)
{
    if (func == nullptr)
        return -1;
    tech_registry().set_status(func);
    return 0;
}

int tech_reg_service_callback(const char *name, kx_thread_master_t *master, tech_callback_t callback)
{
    if (name == nullptr || master == nullptr || callback == nullptr)
        return -1;
    tech_registry().set_provider({.name = name, .master = master, .callback = callback});
    return 0;
}

void tech_set_cli_hooks(const tech_cli_hooks_t *hooks)
{
    tech_registry().set_hooks(hooks);
}

tech_cmdlist_t *tech_reg_cmdlist()
try {
    return std::make_unique<tech_cmdlist_t>().release();
} catch (const std::bad_alloc &) {
    return nullptr;
}

int tech_client_regcmd(tech_cmdlist_t *list, const char *command)
{
    if (list == nullptr || command == nullptr)
        return -1;
    list->commands.emplace_back(command);
    return 0;
}

int tech_client_execute_cmd(struct_command_data_block *record, tech_cmdlist_t *list)
{
    const auto hooks = tech_registry().snapshot().hooks;
    if (record == nullptr || list == nullptr || !hooks)
        return -1;
    int result = 0;
    for (const std::string &command : list->commands) {
        if (hooks->execute(record, command.c_str()) != 0)
            result = -1;
    }
    return result;
}

void tech_unreg_cmdlist(tech_cmdlist_t *list)
{
    const std::unique_ptr<tech_cmdlist_t> owned(list);
}
