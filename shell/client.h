// The shell's end of a session: connects, sends requests, waits for the frames that answer them.
#pragma once

#include "protocol.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace shell
{

enum class Status {
    ok,
    failed,    ///< refused or failed
    starting,  ///< the daemon does not take configuration yet
    cancelled, ///< its end was not waited for
    ended,     ///< succeeded, and ended the session
    lost,      ///< the session is over; Client::reason() says why
};

/// How the daemon answered a greeting.
struct State {
    bool ready;
    std::string prompt;
    std::string reason; ///< not ready: what is awaited
};

/// Bytes of answers that a client keeps for an output that does not come to take them.
constexpr std::size_t READ_AHEAD_LIMIT = 64U << 20;

/// How long an answer may take that no command is run for.
constexpr std::chrono::milliseconds ANSWER_PATIENCE{60000};

class Client
{
public:
    Client() = default;
    ~Client();
    Client(Client &&other) noexcept;
    Client &operator=(Client &&other) noexcept;

    /// Takes a connected stream socket.
    explicit Client(int socket) : socket_(socket) {}

    /// @return a client without a session when nobody serves the socket; errno says why
    [[nodiscard]] static Client connect(const std::string &path);
    [[nodiscard]] explicit operator bool() const { return socket_ >= 0; }

    /// Opens the session. Privileged exec mode when it is not interactive, otherwise user level.
    ///
    /// @param patience  how long to wait for the answer; without it, for ever
    [[nodiscard]] std::optional<State>
    greet(bool interactive, std::optional<std::chrono::milliseconds> patience = std::nullopt);

    using Output = std::function<void(std::string_view text)>;
    /// Runs one line and hands on what the daemon prints, as it comes. A newline inside `line` is sent as a blank.
    Status run(std::string_view line, const Output &output);

    /// Whenever `descriptor` can be read while an answer is awaited, `readable` is called, and must read from it.
    void watch(int descriptor, std::function<void()> readable);
    /// Asks the daemon to end the command that runs, and drops what that still prints. For `readable` and for outputs.
    /// @return false when it has been asked already
    bool cancel();
    /// Gives the session up. For `readable`.
    void abandon(std::string reason) { lose(std::move(reason)); }
    /// Takes what the daemon has sent, up to READ_AHEAD_LIMIT, without waiting for more. An output that waits for
    /// something else meanwhile thereby keeps the daemon from waiting for it.
    void read_ahead();
    /// Readable when read_ahead() has something to do; -1 when it has not.
    [[nodiscard]] int read_ahead_descriptor() const;

    // These wait for ANSWER_PATIENCE at most; the session is lost then.

    /// The help listing for the end of `text`; empty when the session is lost.
    [[nodiscard]] std::string help(std::string_view text);
    /// Words, a line each, that complete the last word of `text`.
    [[nodiscard]] std::string complete(std::string_view text);

    [[nodiscard]] const std::string &prompt() const { return prompt_; }
    /// Lines of a page as `terminal length` set them; -1 before that.
    [[nodiscard]] int terminal_length() const { return terminal_length_; }
    /// Lost: the daemon's words, or the system's. Empty when a command ended the session.
    [[nodiscard]] const std::string &reason() const { return reason_; }

private:
    [[nodiscard]] bool send(std::string_view verb, std::string_view argument);
    [[nodiscard]] std::optional<cli::Frame> receive();
    [[nodiscard]] bool await();
    [[nodiscard]] std::string ask(std::string_view verb, std::string_view text);
    Status answer(const Output &output);
    void lose(std::string reason);

    int socket_ = -1;
    cli::FrameReader frames_;
    std::string prompt_;
    int terminal_length_ = -1;
    std::string reason_;
    int watched_ = -1;
    std::function<void()> readable_;
    std::optional<std::chrono::steady_clock::time_point> deadline_; ///< of the answer that is awaited
    bool cancelled_ = false;                                        ///< the command that runs
    bool hung_up_ = false;                                          ///< read_ahead() found the end
};

} // namespace shell
