// CLI service: the real interpreter on the trees that the code under test registered, and captured output.
#include "fake_state.h"

#include "graph_walk.h"
#include "interpreter.h"
#include "running_config.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace fake
{
namespace
{

using CommandThreads = std::multimap<const struct_command_data_block *, pthread_t>;

struct Cli {
    cli::Grammar grammar;
    std::vector<CliRegistration> registrations;
    std::map<std::string, const struct_transtion *> trees; ///< by name of the registration
    std::string printed;
    std::vector<ConfigLine> config_lines;
    int execmd_fails = 0;
    std::set<const struct_command_data_block *> failed;
    /// Threads that a command was handed to and that have not ended it, by record.
    CommandThreads command_threads;
    /// Threads that have ended their part. The handler may announce a thread that is already done.
    CommandThreads ended_threads;
    cli::RunningConfig *collecting = nullptr;
    std::optional<std::string> reformed;
    bool ready = false;
};

std::unique_ptr<Cli> &cli_pointer()
{
    static auto the_cli = std::make_unique<Cli>();
    return the_cli;
}

Cli &cli_state()
{
    return *cli_pointer();
}

const cli::InterfaceDirectory &directory()
{
    static const cli::InterfaceDirectory the_directory{
        .index_of = [](std::string_view name) { return lsm_if_get_index(std::string(name).c_str()); },
        .kinds_of = [](u_int32_t ifx) -> u_int64_t { return lsm_if_get_kind_mask(ifx); },
        .names =
            [] {
                std::vector<std::string> names;
                for (const lsm_if_record_t &interface : lsm_if_walk()) {
                    names.push_back(interface.name);
                }
                return names;
            },
    };
    return the_directory;
}

cli::Place to_cli_place(const Place &place)
{
    const std::optional<cli::Mode> mode = cli::mode_by_name(place.mode);
    if (!mode) {
        give_up("there is no mode \"" + place.mode + "\"");
    }
    u_int64_t intidx = place.ifx;
    for (const IFINDEX ifx : place.range) {
        intidx |= lsm_if_get_kind_mask(ifx);
    }
    return {.mode = *mode,
            .level = place.privileged ? cli::Level::privileged : cli::Level::user,
            .intidx = intidx};
}

CliResult::Kind to_kind(cli::Outcome::Kind kind)
{
    switch (kind) {
    case cli::Outcome::Kind::empty:
        return CliResult::Kind::empty;
    case cli::Outcome::Kind::run:
        return CliResult::Kind::run;
    case cli::Outcome::Kind::ambiguous:
        return CliResult::Kind::ambiguous;
    case cli::Outcome::Kind::incomplete:
        return CliResult::Kind::incomplete;
    case cli::Outcome::Kind::invalid:
        break;
    }
    return CliResult::Kind::invalid;
}

std::optional<CommandThreads::iterator> find_thread(CommandThreads &threads,
                                                    const struct_command_data_block *rec, pthread_t tid)
{
    const auto [first, last] = threads.equal_range(rec);
    const auto it =
        std::find_if(first, last, [&](const auto &entry) { return pthread_equal(entry.second, tid) != 0; });
    return it == last ? std::nullopt : std::optional(it);
}

bool in_config_pass(const struct_command_data_block *record)
{
    return record != nullptr && (record->parser_status & (CLI_PARSER_C2P | CLI_PARSER_C2P_REFORM)) != 0;
}

/// Runs the handler on a record of its own and waits for the threads that it handed the command to.
bool run_handler(cli_handler_t handler, struct_command_data_block record)
{
    {
        const Lock lock = lock_state();
        // Left by another record that stood at this address.
        cli_state().failed.erase(&record);
        cli_state().ended_threads.erase(&record);
    }
    handler(&record);
    Lock lock = lock_state();
    state_changed().wait(lock, [&] { return cli_state().command_threads.count(&record) == 0; });
    return cli_state().failed.erase(&record) == 0;
}

/// The handler of an interface range runs once for each member.
bool run_outcome(const cli::Outcome &outcome, const Place &place)
{
    if (outcome.mode != cli::Mode::ifrange) {
        return run_handler(outcome.handler, outcome.record);
    }
    bool succeeded = true;
    for (const IFINDEX ifx : place.range) {
        struct_command_data_block record = outcome.record;
        record.mode_name = CLI_MODE_INTERFACE;
        record.mode_intidx = ifx;
        succeeded = run_handler(outcome.handler, record) && succeeded;
    }
    return succeeded;
}

std::string filtered(const std::optional<cli::Modifier> &modifier, const std::string &printed)
{
    if (!modifier) {
        return printed;
    }
    cli::LineFilter filter(*modifier);
    std::string result = filter.write(printed);
    return result + filter.finish();
}

std::string collect(int64_t pass, bool all)
{
    cli::RunningConfig config;
    struct_command_data_block record{};
    record.parser_status = pass;
    record.mode_name = CLI_MODE_CONFIG;
    {
        const Lock lock = lock_state();
        cli_state().collecting = &config;
    }
    const bool complete = cli::collect_config(cli_state().grammar, record, config);
    {
        const Lock lock = lock_state();
        cli_state().collecting = nullptr;
    }
    if (!complete) {
        give_up("collecting the running configuration was given up half-way");
    }
    return config.text(all);
}

cli::Outcome interpret(std::string_view line, const Place &place)
{
    const cli::Interpreter interpreter(cli_state().grammar, directory());
    return interpreter.interpret(line, to_cli_place(place));
}

} // namespace

void reset_cli()
{
    const Lock lock = lock_state();
    cli_pointer() = std::make_unique<Cli>();
}

Place interface(IFINDEX ifx)
{
    Place place(CLI_MODE_INTERFACE);
    place.ifx = ifx;
    return place;
}

Place ifrange(std::vector<IFINDEX> members)
{
    Place place(CLI_MODE_IFRANGE);
    place.range = std::move(members);
    return place;
}

CliResult cli_match(std::string_view line, const Place &place)
{
    const cli::Outcome outcome = interpret(line, place);
    CliResult result;
    result.kind = to_kind(outcome.kind);
    result.record = outcome.record;
    result.text = cli::format_error(outcome, line, 0);
    return result;
}

CliResult cli_run(std::string_view line, const Place &place)
{
    const cli::Outcome outcome = interpret(line, place);
    CliResult result;
    result.kind = to_kind(outcome.kind);
    result.record = outcome.record;
    if (outcome.kind != cli::Outcome::Kind::run) {
        result.text = cli::format_error(outcome, line, 0);
        return result;
    }
    const std::size_t printed_before = cli_text().size();
    result.failed = !run_outcome(outcome, place);
    result.text = filtered(outcome.modifier, cli_text().substr(printed_before));
    return result;
}

std::vector<Help> cli_help(std::string_view line, const Place &place)
{
    const cli::Interpreter interpreter(cli_state().grammar, directory());
    std::vector<Help> result;
    for (const cli::Choice &choice : interpreter.help(line, to_cli_place(place))) {
        result.push_back({.text = choice.text, .help = choice.help});
    }
    return result;
}

std::vector<std::string> cli_complete(std::string_view line, const Place &place)
{
    const cli::Interpreter interpreter(cli_state().grammar, directory());
    return interpreter.complete(line, to_cli_place(place));
}

std::string cli_text()
{
    const Lock lock = lock_state();
    return cli_state().printed;
}

std::string take_cli_text()
{
    const Lock lock = lock_state();
    return std::exchange(cli_state().printed, {});
}

int execmd_fails()
{
    const Lock lock = lock_state();
    return cli_state().execmd_fails;
}

std::vector<ConfigLine> config_lines()
{
    const Lock lock = lock_state();
    return cli_state().config_lines;
}

std::vector<ConfigLine> take_config_lines()
{
    const Lock lock = lock_state();
    return std::exchange(cli_state().config_lines, {});
}

std::vector<ConfigLine> print_config(cli_handler_t handler, struct_command_data_block record)
{
    const std::size_t before = config_lines().size();
    record.parser_status |= CLI_PARSER_C2P;
    if (record.mode_name == nullptr) {
        record.mode_name = CLI_MODE_CONFIG;
    }
    handler(&record);
    std::vector<ConfigLine> lines = config_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    return lines;
}

std::string running_config(bool all)
{
    return collect(CLI_PARSER_C2P, all);
}

std::optional<std::string> reformed_config()
{
    const Lock lock = lock_state();
    return cli_state().reformed;
}

std::vector<CliRegistration> cli_registrations()
{
    const Lock lock = lock_state();
    return cli_state().registrations;
}

const struct_transtion *cli_tree(const std::string &name)
{
    const Lock lock = lock_state();
    const auto found = cli_state().trees.find(name);
    return found == cli_state().trees.end() ? nullptr : found->second;
}

bool cli_is_ready()
{
    const Lock lock = lock_state();
    return cli_state().ready;
}

} // namespace fake

using namespace fake;

int cli_add_command(cli_attach_t attach, const struct_transtion *append_point, const char *name)
{
    if (const auto result =
            record("cli_add_command", text("attach=%d name=%s", int{attach}, string_or_null(name).c_str()))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    if (name == nullptr || !cli_state().grammar.add(attach, append_point, name)) {
        return -1;
    }
    cli_state().registrations.push_back({.attach = attach, .name = name});
    cli_state().trees[name] = append_point;
    return 0;
}

int cli_client_init(const char *name, kx_thread_master_t *)
{
    const auto result = record("cli_client_init", "name=" + string_or_null(name));
    return result ? static_cast<int>(*result) : 0;
}

void cli_client_awaits(const char *what)
{
    record("cli_client_awaits", "what=" + string_or_null(what));
}

void cli_client_ready()
{
    if (!record("cli_client_ready")) {
        const Lock lock = lock_state();
        cli_state().ready = true;
    }
}

int cli_printf(const char *format, ...)
{
    note_format(format);
    va_list args;
    va_start(args, format);
    const std::string printed = zvformat(format, args);
    va_end(args);
    const Lock lock = lock_state();
    cli_state().printed += printed;
    return static_cast<int>(printed.size());
}

void cli_client_execmd_fail(struct_command_data_block *rec)
{
    if (!record("cli_client_execmd_fail")) {
        const Lock lock = lock_state();
        ++cli_state().execmd_fails;
        cli_state().failed.insert(rec);
    }
}

int c2p_printf(int non_default, struct_command_data_block *rec, const char *format, ...)
{
    if (const auto result = scripted("c2p_printf")) {
        return static_cast<int>(*result);
    }
    note_format(format);
    va_list args;
    va_start(args, format);
    const std::string line = zvformat(format, args);
    va_end(args);
    if (!in_config_pass(rec)) {
        return -1;
    }
    const std::string mode = string_or_null(rec->mode_name);
    const Lock lock = lock_state();
    cli_state().config_lines.push_back(
        {.non_default = non_default != 0, .mode = mode, .mode_intidx = rec->mode_intidx, .text = line});
    if (cli_state().collecting != nullptr) {
        cli_state().collecting->add(non_default != 0, mode, line);
    }
    return 0;
}

int cli_change_mode(struct_command_data_block *rec, const char *mode_name, int how)
{
    if (const auto result =
            record("cli_change_mode", text("mode=%s how=%d", string_or_null(mode_name).c_str(), how))) {
        return static_cast<int>(*result);
    }
    const std::optional<cli::Mode> mode =
        mode_name != nullptr ? cli::mode_by_name(mode_name) : std::optional<cli::Mode>();
    if (!mode) {
        return -1;
    }
    rec->mode_name = cli::mode_name(*mode);
    return 0;
}

int cli_enter_mode(struct_command_data_block *rec, const char *mode_name, u_int64_t index, const char *label)
{
    if (const auto result =
            record("cli_enter_mode", text("mode=%s index=%d label=%s", string_or_null(mode_name).c_str(),
                                          static_cast<int>(index), string_or_null(label).c_str()))) {
        return static_cast<int>(*result);
    }
    return rec != nullptr && mode_name != nullptr && cli::mode_by_name(mode_name) ? 0 : -1;
}

const struct_transtion *cli_get_mode_root(const char *mode_name)
{
    if (scripted("cli_get_mode_root") || mode_name == nullptr) {
        return nullptr;
    }
    const std::optional<cli::Mode> mode = cli::mode_by_name(mode_name);
    return mode ? cli::mode_root(*mode) : nullptr;
}

int cli_walkthrought_node(struct_command_data_block *rec, const char *mode_name, const struct_transtion *root)
{
    if (const auto result =
            record("cli_walkthrought_node",
                   text("mode=%s ifx=%lu", string_or_null(mode_name).c_str(), rec->mode_intidx))) {
        return static_cast<int>(*result);
    }
    if (!in_config_pass(rec) || mode_name == nullptr || !cli::mode_by_name(mode_name) || root == nullptr) {
        return -1;
    }
    const char *mode_before = rec->mode_name;
    cli::ConfigWalk walk(cli_state().grammar);
    const bool complete = walk.walk(root, *rec);
    rec->mode_name = mode_before;
    return complete ? 0 : -1;
}

int cli_proc_thread_start(struct_command_data_block *rec, pthread_t tid)
{
    if (const auto result = record("cli_proc_thread_start")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    Cli &state = cli_state();
    if (!find_thread(state.command_threads, rec, tid) && !find_thread(state.ended_threads, rec, tid)) {
        state.command_threads.emplace(rec, tid);
    }
    return 0;
}

int cli_proc_thread_end(struct_command_data_block *rec, pthread_t tid)
{
    if (const auto result = record("cli_proc_thread_end")) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    Cli &state = cli_state();
    const auto it = find_thread(state.command_threads, rec, tid);
    if (!it) {
        return -1;
    }
    state.command_threads.erase(*it);
    state.ended_threads.emplace(rec, tid);
    state_changed().notify_all();
    return 0;
}

int cli_run_command(struct_command_data_block *, const char *line)
{
    if (const auto result = record("cli_run_command", "line=" + string_or_null(line))) {
        return static_cast<int>(*result);
    }
    return line != nullptr && cli_run(line, CLI_MODE_EXEC).ok() ? 0 : -1;
}

void cli_param_is_change()
{
    record("cli_param_is_change");
}

int cli_client_c2p_reform(kx_thread_t *)
{
    if (const auto result = record("cli_client_c2p_reform")) {
        return static_cast<int>(*result);
    }
    std::string config = collect(CLI_PARSER_C2P_REFORM, false);
    const Lock lock = lock_state();
    cli_state().reformed = std::move(config);
    return 0;
}
