#include "console.h"

#include "core.h"
#include "own_commands.h"

#include <array>
#include <unistd.h>

namespace cli
{
namespace
{

std::string host_name()
{
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0')
        return "switch";
    const std::string full(name.data());
    return full.substr(0, full.find('.'));
}

std::string name_of(IFINDEX ifindex)
{
    std::array<char, LSM_IF_NAME_LEN> name{};
    if (lsm_if_get_name(ifindex, name.data(), LSM_IF_NAME_LEN) < 0)
        return "index " + std::to_string(ifindex);
    return name.data();
}

} // namespace

Console::Console(Core &core, Level level, Mode mode) : core_(core), level_(level), mode_(mode)
{
    core_.add_console(*this);
}

Console::~Console()
{
    cancel();
    core_.remove_console(*this);
}

void Console::cancel()
{
    if (command_)
        command_->abandon();
    command_.reset();
}

Place Console::place() const
{
    Place place{mode_, level_, 0};
    if (mode_ == Mode::interface)
        place.intidx = ifindex_;
    if (mode_ == Mode::ifrange)
        for (const IFINDEX member : members_)
            place.intidx |= lsm_if_get_kind_mask(member);
    if (is_list_mode(mode_))
        place.intidx = list_;
    return place;
}

void Console::enter(Mode mode)
{
    mode_ = mode;
    ifindex_ = 0;
    ifname_.clear();
    members_.clear();
    list_ = 0;
    list_label_.clear();
}

void Console::enter_interface(IFINDEX ifindex, std::string name)
{
    enter(Mode::interface);
    ifindex_ = ifindex;
    ifname_ = std::move(name);
}

void Console::enter_range(std::vector<IFINDEX> members)
{
    enter(Mode::ifrange);
    members_ = std::move(members);
}

void Console::enter_list(Mode mode, u_int64_t index, std::string label)
{
    enter(mode);
    list_ = index;
    list_label_ = std::move(label);
}

std::string Console::prompt() const
{
    std::string host = host_name();
    switch (mode_) {
    case Mode::exec:
        return host + (level_ == Level::privileged ? "#" : ">");
    case Mode::config:
        return host + "(config)#";
    case Mode::interface:
        return host + "(config-if-" + ifname_ + ")#";
    case Mode::ifrange:
        return host + "(config-if-range)#";
    case Mode::acl_standard:
    case Mode::acl_extended:
    case Mode::acl_ipv6:
    case Mode::acl_mac:
        return host + "(config-acl-" + list_label_ + ")#";
    }
    return host;
}

std::vector<Choice> Console::help(std::string_view text) const
{
    const auto grammar = core_.grammar();
    return Interpreter(*grammar, core_.interfaces()).help(text, place());
}

std::vector<std::string> Console::complete(std::string_view text) const
{
    const auto grammar = core_.grammar();
    return Interpreter(*grammar, core_.interfaces()).complete(text, place());
}

// The interface of the mode can go while an operator is in it; its index may then come to mean another.
bool Console::present(cli_session_t &command)
{
    if (mode_ != Mode::interface || (lsm_if_get_kind_mask(ifindex_) != 0 && name_of(ifindex_) == ifname_))
        return true;
    command.write("% Interface " + ifname_ + " does not exist any more\n");
    command.fail();
    enter(Mode::config);
    return false;
}

// A unit can become the standby while an operator is in a configuration mode.
bool Console::refused_as_passive(cli_session_t &command, const Outcome &outcome)
{
    if (internal_ || outcome.mode == Mode::exec || only_changes_mode(outcome.handler))
        return false;
    const std::string refusal = ConfigMirror::refusal();
    if (refusal.empty())
        return false;
    command.write("% " + refusal + "\n");
    command.fail();
    enter(Mode::exec);
    return true;
}

// A range as a whole is matched with the kinds of all its members. What that lets through is matched again for each
// member: a command that this interface alone would not offer could not be read back from a saved configuration.
void Console::call_for_range(cli_session_t &command, const Interpreter &interpreter)
{
    const std::vector<IFINDEX> members = members_;
    for (const IFINDEX member : members) {
        const std::string name = name_of(member);
        const Outcome outcome = interpreter.interpret(line_, {Mode::interface, level_, member});
        if (lsm_if_get_kind_mask(member) == 0 || outcome.kind != Outcome::Kind::run ||
            outcome.mode != Mode::interface) {
            command.write("% Interface " + name + ": the command is not available there\n");
            command.fail();
            continue;
        }
        const unsigned failures = command.failures();
        command.call(outcome.handler, command.add_record(outcome.record));
        if (command.failures() != failures)
            command.write("% Interface " + name + ": the command failed\n");
        if (mode_ != Mode::ifrange)
            return; // the command was one that leaves the mode
    }
}

void Console::call(cli_session_t &command, const Outcome &outcome, const Interpreter &interpreter)
{
    if (refused_as_passive(command, outcome))
        return;
    const bool interface_command = outcome.mode == Mode::interface || outcome.mode == Mode::ifrange;
    if (interface_command && !present(command))
        return;
    if (outcome.mode == Mode::config && mode_ != Mode::config)
        enter(Mode::config);
    if (outcome.mode == Mode::ifrange)
        call_for_range(command, interpreter);
    else
        command.call(outcome.handler, command.add_record(outcome.record));
    if (outcome.mode != Mode::exec)
        core_.mark_changed();
}

std::string Console::withheld_text() const
{
    if (mode_ == Mode::ifrange)
        return "% The interfaces of the range: the command is not available there\n";
    const u_int32_t kinds = mode_ == Mode::interface ? lsm_if_get_kind_mask(ifindex_) : 0;
    if (kinds == 0)
        return {}; // another mode, or the interface has gone
    return "% Interface " + ifname_ + " (" + std::string(interface_type_word(kinds)) +
           "): the command is not available there\n";
}

void Console::run(std::string_view line, std::optional<std::size_t> indent, cli_session_t::Sink sink,
                  cli_session_t::Done done)
{
    line_ = line;
    const auto grammar = core_.grammar();
    const Interpreter interpreter(*grammar, core_.interfaces());
    Outcome outcome = interpreter.interpret(line, place());
    if (outcome.kind != Outcome::Kind::run) {
        sink(format_error(outcome, line, indent));
        if (outcome.withheld)
            sink(withheld_text());
        done(outcome.kind == Outcome::Kind::empty ? Status::ok : Status::refused);
        return;
    }
    auto finished = [this, done = std::move(done)](Status status) {
        command_.reset();
        done(status);
    };
    const auto command = std::make_shared<cli_session_t>(core_, this, std::move(sink), std::move(finished));
    if (outcome.modifier)
        command->filter(std::move(*outcome.modifier));
    command_ = command;
    call(*command, outcome, interpreter);
    command->handlers_called();
}

} // namespace cli
