// The shell's end of a session: connects, sends requests, waits for the frames that answer them.
#pragma once

#include "protocol.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace shell
{

enum class Status {
    ok,
    failed,   ///< refused or failed
    starting, ///< the daemon does not take configuration yet
    ended,    ///< succeeded, and ended the session
    lost,     ///< the session is over; Client::reason() says why
};

/// How the daemon answered a greeting.
struct State {
    bool ready;
    std::string prompt;
    std::string reason; ///< not ready: what is awaited
};

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
    [[nodiscard]] std::optional<State> greet(bool interactive);

    using Output = std::function<void(std::string_view text)>;
    /// Runs one line and hands on what the daemon prints, as it comes.
    Status run(std::string_view line, const Output &output);
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
    Status answer(const Output &output);
    void lose(std::string reason);

    int socket_ = -1;
    cli::FrameReader frames_;
    std::string prompt_;
    int terminal_length_ = -1;
    std::string reason_;
};

} // namespace shell
