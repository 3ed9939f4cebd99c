// One shell's session: requests in, frames out, a console in between. Knows no descriptor: the server moves the bytes.
// Belongs to the service's thread.
#pragma once

#include "console.h"
#include "protocol.h"

#include <functional>
#include <string>
#include <string_view>

namespace cli
{

/// Output that a shell has not taken, in bytes; one that lets it grow further is cut off.
constexpr std::size_t OUTPUT_LIMIT = 16U << 20;
/// Output that a shell has not taken, in bytes, with which no further request of it is begun.
constexpr std::size_t BACKLOG_LIMIT = 256U << 10;
/// Requests that wait for a command to end, in bytes; the server reads no more while there are that many.
constexpr std::size_t INPUT_LIMIT = 65536;
/// Requests that are run before other sessions get their turn.
constexpr int REQUESTS_PER_TURN = 16;

class Session
{
public:
    /// @param changed  called when there is output to send, requests wait for take_turn() or the session is over, from
    ///                 within any member and from outside them; must not call back into the session other than to ask
    /// @param owner    whose session it is, in words for other operators
    Session(Core &core, std::function<void()> changed, std::string owner = {});

    /// Who is at the other end.
    void set_user(User user) { console_.set_user(user); }

    /// Takes bytes from the shell and runs requests that they complete, as many as a turn allows.
    void receive(std::string_view bytes);
    /// Requests are there that the last turn left.
    [[nodiscard]] bool wants_turn() const { return !serving_ && can_serve() && input_.has_line(); }
    void take_turn() { serve(); }
    /// The shell sends no more; what it has asked for is still answered.
    void input_ended();
    [[nodiscard]] bool wants_input() const
    {
        return !over_ && !input_ended_ && input_.buffered() < INPUT_LIMIT;
    }

    /// Bytes for the shell, and how many of them have been sent.
    [[nodiscard]] std::string_view output();
    [[nodiscard]] bool has_output() const { return !text_.empty() || sent_ < output_.size(); }
    void sent(std::size_t bytes);
    /// Nothing more will be added to output(): close when it has been sent.
    [[nodiscard]] bool over() const { return over_; }
    /// The shell reads too slowly: close at once.
    [[nodiscard]] bool overflowed() const { return overflowed_; }

private:
    using Handler = void (Session::*)(const std::string &argument);
    struct Verb {
        std::string_view name;
        Handler handler;
    };

    [[nodiscard]] bool can_serve() const
    {
        return !over_ && !console_.busy() && output_.size() - sent_ + text_.size() < BACKLOG_LIMIT;
    }
    void serve();
    void serve_one(const RequestReader::Line &line);
    void hello(const std::string &argument);
    void run(const std::string &argument);
    void help(const std::string &argument);
    void complete(const std::string &argument);
    void cancel(const std::string &argument);
    void finished(Status status);
    void write(std::string_view text);
    void flush_text();
    void send(std::string_view frame);
    void end(std::string_view reason);
    [[nodiscard]] bool refuse_long(std::string_view line);

    Core &core_;
    std::function<void()> changed_;
    Console console_;
    RequestReader input_;
    std::string text_;   ///< output of the command not yet in a frame
    std::string output_; ///< frames
    std::size_t sent_ = 0;
    bool greeted_ = false;
    bool interactive_ = false;
    bool serving_ = false;
    bool input_ended_ = false;
    bool over_ = false;
    bool overflowed_ = false;
};

} // namespace cli
