// The operator's desk: the daemon's modules on the services of the Linux edition, with an invented network
// (desk_network.h) and a sampling service that the test plays. One thread does everything, so that a test sees the
// state after each line; only commands that the daemon carries on in threads of their own have theirs.
//
// Real are the command trees and their handlers, the agent, the collectors, the interface manager above netlink, the
// access-list and tech-support services and the whole command-line service, from the line as typed to the startup
// configuration's file. The log is kept instead of being sent. The process has one desk.
#pragma once

#include "console.h"

#include "platform/kx_thread.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace desk
{

class Desk
{
public:
    /// Starts everything and applies the startup configuration, if there is one.
    /// @param directory  exists; becomes TMPDIR and SFLOW_CONFIG_DIR
    explicit Desk(const std::string &directory);
    ~Desk();
    Desk(const Desk &) = delete;
    Desk &operator=(const Desk &) = delete;

    // The sampling service.

    /// Answers what the daemon has asked since the last time.
    void answer();
    /// Result code of the answers to sampling settings from now on; 0 agrees.
    void refuse_with(int code) { refusal_ = code; }
    /// Without a connection every request fails; with a new one the configuration is replayed and confirmed.
    void connect(bool connected);
    void set_capacity(u_int32_t capacity);

    // The daemon.

    /// The agent as after a start without a startup configuration; the sampling service is connected and agrees to
    /// everything. Access lists and consoles stay.
    void forget_configuration();
    /// The same on the network as it was at the beginning, with all counters at zero.
    void start_over();
    /// Runs everything that is due on the command-line thread.
    void pump();
    /// Runs the next thing that is due there; waits for it.
    void serve_once();
    /// What `show running-config` prints.
    [[nodiscard]] std::string running_config();
    /// Lines of the log since the last time.
    [[nodiscard]] std::vector<std::string> take_log();

private:
    void remove_lists();

    kx_thread_master_t *master_;
    int refusal_ = 0;
};

/// Somebody at a console.
class Operator
{
public:
    Operator(Desk &desk, cli::Level level, cli::Mode mode = cli::Mode::exec);

    struct Answer {
        cli::Status status = cli::Status::ok;
        std::string text;
    };
    /// Types a line, waits for its end and has the sampling service answer.
    Answer type(std::string_view line);
    /// Types a line that may go on by itself; finish() waits for its end. One at a time.
    void begin(std::string_view line);
    Answer finish();
    [[nodiscard]] bool busy() const { return console_.busy(); }
    [[nodiscard]] std::string prompt() const { return console_.prompt(); }
    [[nodiscard]] std::string help(std::string_view text) const;
    [[nodiscard]] std::vector<std::string> complete(std::string_view text) const
    {
        return console_.complete(text);
    }
    /// Has left with `exit`.
    [[nodiscard]] bool gone() const { return console_.closing(); }

private:
    Desk &desk_;
    cli::Console console_;
    Answer answer_;
    bool done_ = true;
};

} // namespace desk
