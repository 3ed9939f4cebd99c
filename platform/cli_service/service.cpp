// The functions of platform/cli.h on the service's state.
#include "platform/cli.h"

#include "console.h"
#include "core.h"
#include "graph_walk.h"
#include "lock/immortal.h"
#include "own_commands.h"
#include "platform/syslog_client.h"
#include "platform/tech.h"
#include "platform/zformat.h"
#include "server.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <string>
#include <utility>

using cli::Core;

namespace
{

constexpr int log_error = 3;
constexpr int most_config_line = 1024;

/// The server and the master that it runs on.
struct Opened {
    std::unique_ptr<cli::Server> server;
    kx_thread_master_t *master = nullptr;
};

Opened &opened()
{
    static platform::Immortal<Opened> state;
    return *state;
}

bool in_config_pass(const struct_command_data_block *record)
{
    return record != nullptr && record->session != nullptr && record->session->config() != nullptr &&
           (record->parser_status & (CLI_PARSER_C2P | CLI_PARSER_C2P_REFORM)) != 0;
}

/// A command that a thread waits for.
class Errand
{
public:
    void complete(bool ok)
    {
        const platform::MutexLock guard(lock_);
        result_ = ok;
        changed_.notify_all();
    }

    [[nodiscard]] std::optional<bool> result()
    {
        const platform::MutexLock guard(lock_);
        return result_;
    }

    [[nodiscard]] bool wait()
    {
        const platform::MutexLock guard(lock_);
        while (!result_)
            changed_.wait(lock_);
        return *result_;
    }

private:
    platform::Mutex lock_;
    std::condition_variable_any changed_;
    std::optional<bool> result_ PLATFORM_GUARDED_BY(lock_);
};

/// Runs a line in exec mode on a console of its own, on the service's thread.
void run_for(const std::shared_ptr<cli_session_t> &command, const std::string &line,
             const std::shared_ptr<Errand> &errand)
{
    const auto console = std::make_shared<cli::Console>(command->core(), cli::Level::privileged);
    console->run(
        line, std::nullopt, [command](std::string_view text) { command->write(text); },
        [console, errand](cli::Status status) { errand->complete(status == cli::Status::ok); });
}

int execute_for_tech_support(struct_command_data_block *record, const char *line)
{
    if (record == nullptr || record->session == nullptr || line == nullptr)
        return -1;
    record->session->write("\n--- " + std::string(line) + " ---\n");
    return cli_run_command(record, line);
}

void capture_for_tech_support(tech_status_func_t func, const tech_sink_t &sink)
{
    const auto command = std::make_shared<cli_session_t>(Core::instance(), nullptr, sink, nullptr);
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_EXEC;
    command->call(func, command->add_record(record));
    command->handlers_called();
}

} // namespace

int cli_add_command(cli_attach_t attach, const struct_transtion *append_point, const char *name)
{
    if (append_point == nullptr || name == nullptr)
        return -1;
    if (Core::instance().add(attach, append_point, name))
        return 0;
    printk_syslog_ext(log_error, "CLI", "TREE", SYSLOG_DEST_OPERATOR,
                      "command tree \"%s\": refused, the tree is not sound or attach point %d does not exist",
                      name, static_cast<int>(attach));
    return -1;
}

int cli_client_init(const char *name, kx_thread_master_t *master)
{
    const char *const directory = std::getenv("TMPDIR");
    if (name == nullptr || master == nullptr || directory == nullptr)
        return -1;
    Opened &state = opened();
    // An earlier master has been finished by now, unless it is this one.
    if (state.server != nullptr && state.master != master)
        state.server->master_is_gone();
    state.server.reset();
    state.master = master;

    Core &core = Core::instance();
    core.serve(name, master);
    core.mirror().start(master);
    cli::add_own_commands(core);
    constexpr tech_cli_hooks_t hooks{execute_for_tech_support, capture_for_tech_support};
    tech_set_cli_hooks(&hooks);

    state.server = std::make_unique<cli::Server>(core);
    const std::string error = state.server->open(std::string(directory) + "/platform", master);
    if (error.empty())
        return 0;
    printk_syslog_ext(log_error, "CLI", "SOCKET", SYSLOG_DEST_OPERATOR, "%s: no sessions", error.c_str());
    return -1;
}

void cli_client_awaits(const char *what)
{
    Core::instance().set_awaited(what == nullptr ? "" : what);
}

void cli_client_ready()
{
    Core::instance().set_ready();
}

int cli_printf(const char *format, ...)
{
    const std::shared_ptr<cli_session_t> carried =
        cli_session_t::current() == nullptr ? Core::instance().carried_here() : nullptr;
    cli_session_t *const command = carried == nullptr ? cli_session_t::current() : carried.get();
    if (command == nullptr || format == nullptr || command->config() != nullptr)
        return 0;
    std::va_list args;
    va_start(args, format);
    const std::string text = zvformat(format, args);
    va_end(args);
    command->write(text);
    return static_cast<int>(text.size());
}

void cli_client_execmd_fail(struct_command_data_block *record)
{
    if (record != nullptr && record->session != nullptr)
        record->session->fail();
}

int c2p_printf(int non_default, struct_command_data_block *record, const char *format, ...)
{
    if (!in_config_pass(record) || format == nullptr)
        return -1;
    char text[most_config_line];
    std::va_list args;
    va_start(args, format);
    const int length = zvsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0)
        return -1;
    record->session->config()->add(non_default != 0, record->mode_name == nullptr ? "" : record->mode_name,
                                   text);
    return 0;
}

int cli_change_mode(struct_command_data_block *record, const char *mode_name, int /*how*/)
{
    const auto mode = mode_name == nullptr ? std::nullopt : cli::mode_by_name(mode_name);
    if (record == nullptr || !mode)
        return -1;
    record->mode_name = cli::mode_name(*mode);
    return 0;
}

int cli_enter_mode(struct_command_data_block *record, const char *mode_name, u_int64_t index,
                   const char *label)
{
    const auto mode = mode_name == nullptr ? std::nullopt : cli::mode_by_name(mode_name);
    cli::Console *const console =
        record == nullptr || record->session == nullptr ? nullptr : record->session->console();
    if (console == nullptr || !mode || (*mode != cli::Mode::config && !cli::is_list_mode(*mode)))
        return -1;
    if (*mode == cli::Mode::config)
        console->enter(*mode);
    else
        console->enter_list(*mode, index, label == nullptr ? "" : label);
    return 0;
}

const struct_transtion *cli_get_mode_root(const char *mode_name)
{
    const auto mode = mode_name == nullptr ? std::nullopt : cli::mode_by_name(mode_name);
    return mode ? cli::mode_root(*mode) : nullptr;
}

int cli_walkthrought_node(struct_command_data_block *record, const char *mode_name,
                          const struct_transtion *root)
{
    const auto mode = mode_name == nullptr ? std::nullopt : cli::mode_by_name(mode_name);
    if (!in_config_pass(record) || !mode || root == nullptr)
        return -1;
    const char *const before = std::exchange(record->mode_name, cli::mode_name(*mode));
    const auto grammar = record->session->core().grammar();
    const bool complete = cli::ConfigWalk(*grammar).walk(root, *record);
    record->mode_name = before;
    return complete ? 0 : -1;
}

int cli_proc_thread_start(struct_command_data_block *record, pthread_t tid)
{
    if (record == nullptr || record->session == nullptr)
        return -1;
    record->session->thread_starts(tid);
    return 0;
}

int cli_proc_thread_end(struct_command_data_block *record, pthread_t tid)
{
    if (record == nullptr || record->session == nullptr)
        return -1;
    record->session->thread_ends(tid);
    return 0;
}

int cli_run_command(struct_command_data_block *record, const char *line)
{
    if (record == nullptr || record->session == nullptr || line == nullptr)
        return -1;
    Core &core = record->session->core();
    if (!core.serving())
        return -1;
    const std::shared_ptr<cli_session_t> command = record->session->shared_from_this();
    const auto errand = std::make_shared<Errand>();
    if (core.on_service_thread()) {
        run_for(command, line, errand);
        return errand->result().value_or(true) ? 0 : -1;
    }
    core.post([command, text = std::string(line), errand] { run_for(command, text, errand); });
    return errand->wait() ? 0 : -1;
}

void cli_param_is_change()
{
    Core::instance().mark_changed();
}

int cli_client_c2p_reform(kx_thread_t * /*thread*/)
{
    Core &core = Core::instance();
    return core.serving() && core.collect(CLI_PARSER_C2P_REFORM) ? 0 : -1;
}
