// An operator's console: mode, privilege and the command in progress. Sessions, the startup configuration and commands
// that programs run each have one. Belongs to the service's thread.
#pragma once

#include "command.h"
#include "interpreter.h"
#include "platform/lsm.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace cli
{

/// Somebody whose file rights count.
struct User {
    uid_t uid;
    gid_t gid;
};

class Console
{
public:
    Console(Core &core, Level level, Mode mode = Mode::exec);
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    /// Runs one line. A line that is not a command is answered through `sink`.
    ///
    /// @param indent  columns that stand before the line on the terminal; without: the line is not on one
    /// @param done    called once: before run() returns, or later when threads carry the command on
    /// Not to be called while busy().
    void run(std::string_view line, std::optional<std::size_t> indent, cli_session_t::Sink sink,
             cli_session_t::Done done);
    [[nodiscard]] bool busy() const { return command_ != nullptr; }
    /// Lets go of the command in progress: its output goes nowhere from now on and `done` is not called. Threads that
    /// carry it on are not stopped.
    void cancel();

    [[nodiscard]] std::vector<Choice> help(std::string_view text) const;
    [[nodiscard]] std::vector<std::string> complete(std::string_view text) const;
    /// "host>", "host#", "host(config)#", … without a blank.
    [[nodiscard]] std::string prompt() const;

    /// What is run here is no operator's: it configures a standby too.
    void set_internal() { internal_ = true; }
    [[nodiscard]] bool internal() const { return internal_; }

    // For the service's own commands.

    /// Whose console this is, in words for other operators and for the log; empty when it is nobody's.
    void set_owner(std::string owner) { owner_ = std::move(owner); }
    [[nodiscard]] const std::string &owner() const { return owner_; }
    /// Who types here; nobody's console has the rights of the daemon.
    void set_user(User user) { user_ = user; }
    [[nodiscard]] std::optional<User> user() const { return user_; }
    [[nodiscard]] Mode mode() const { return mode_; }
    void set_level(Level level) { level_ = level; }
    /// Leaves the submodes too.
    void enter(Mode mode);
    void enter_interface(IFINDEX ifindex, std::string name);
    void enter_range(std::vector<IFINDEX> members);
    /// @param mode  one of the modes of lists
    void enter_list(Mode mode, u_int64_t index, std::string label);
    /// The operator is done with the session.
    void close() { closing_ = true; }
    [[nodiscard]] bool closing() const { return closing_; }
    /// Lines of a terminal page; 0 is no paging, -1 the terminal's own.
    void set_terminal_length(int lines) { terminal_length_ = lines; }
    [[nodiscard]] int terminal_length() const { return terminal_length_; }
    /// The line being run, as typed.
    [[nodiscard]] const std::string &line() const { return line_; }

private:
    [[nodiscard]] Place place() const;
    bool present(cli_session_t &command);
    bool refused_as_passive(cli_session_t &command, const Outcome &outcome);
    void call(cli_session_t &command, const Outcome &outcome, const Interpreter &interpreter);
    void call_for_range(cli_session_t &command, const Interpreter &interpreter);
    /// Why a command that exists is refused here.
    [[nodiscard]] std::string withheld_text() const;

    Core &core_;
    std::string owner_;
    std::optional<User> user_;
    bool internal_ = false;
    Level level_;
    Mode mode_;
    IFINDEX ifindex_ = 0;
    std::string ifname_;
    std::vector<IFINDEX> members_;
    u_int64_t list_ = 0;
    std::string list_label_;
    bool closing_ = false;
    int terminal_length_ = -1;
    std::string line_;
    std::shared_ptr<cli_session_t> command_;
};

} // namespace cli
