#include "client.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace shell
{

Client::~Client()
{
    if (socket_ >= 0)
        close(socket_);
}

Client::Client(Client &&other) noexcept
    : socket_(std::exchange(other.socket_, -1)), frames_(std::move(other.frames_)),
      prompt_(std::move(other.prompt_)), terminal_length_(other.terminal_length_),
      reason_(std::move(other.reason_))
{
}

Client &Client::operator=(Client &&other) noexcept
{
    std::swap(socket_, other.socket_);
    std::swap(frames_, other.frames_);
    std::swap(prompt_, other.prompt_);
    std::swap(terminal_length_, other.terminal_length_);
    std::swap(reason_, other.reason_);
    return *this;
}

Client Client::connect(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    path.copy(address.sun_path, path.size());
    Client client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (client &&
        ::connect(client.socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int why = errno;
        client = Client();
        errno = why;
    }
    return client;
}

void Client::lose(std::string reason)
{
    reason_ = std::move(reason);
    if (socket_ >= 0)
        close(std::exchange(socket_, -1));
}

bool Client::send(std::string_view verb, std::string_view argument)
{
    std::string request(verb);
    request.append(" ").append(argument).push_back('\n');
    for (std::string_view rest = request; !rest.empty();) {
        const ssize_t sent = socket_ < 0 ? -1 : ::send(socket_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && socket_ >= 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return socket_ >= 0 && errno == EPIPE; // the daemon's last words may still be readable
        rest.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::optional<cli::Frame> Client::receive()
{
    for (;;) {
        if (auto frame = frames_.next())
            return frame;
        if (frames_.broken())
            lose("what answers is not sflowd");
        if (socket_ < 0)
            return std::nullopt;
        char buffer[16384];
        const ssize_t got = recv(socket_, buffer, sizeof buffer, 0);
        if (got > 0) {
            frames_.feed({buffer, static_cast<std::size_t>(got)});
        } else if (got == 0) {
            lose("sflowd closed the session");
        } else if (errno != EINTR) {
            lose(std::strerror(errno));
        }
    }
}

std::optional<State> Client::greet(bool interactive)
{
    if (!send("hello", std::string(cli::PROTOCOL_VERSION) + (interactive ? " interactive" : " batch"))) {
        lose(std::strerror(errno));
        return std::nullopt;
    }
    const auto frame = receive();
    if (!frame)
        return std::nullopt;
    if (frame->tag != "state" || frame->fields.empty()) {
        lose(frame->tag == "bye" ? frame->text : "what answers is not sflowd");
        return std::nullopt;
    }
    const std::size_t newline = frame->text.find('\n');
    prompt_ = frame->text.substr(0, newline);
    return State{frame->fields[0] == "ready", prompt_,
                 newline == std::string::npos ? std::string() : frame->text.substr(newline + 1)};
}

// Reads until the answer is complete.
Status Client::answer(const Output &output)
{
    while (const auto frame = receive()) {
        if (frame->tag == "out") {
            output(frame->text);
        } else if (frame->tag == "bye") {
            lose(frame->text);
            return frame->text.empty() ? Status::ended : Status::lost;
        } else if (frame->tag == "done" && frame->fields.size() >= 2) {
            prompt_ = frame->text;
            const std::string &lines = frame->fields[1];
            std::from_chars(lines.data(), lines.data() + lines.size(), terminal_length_);
            if (frame->fields[0] == "ok")
                return Status::ok;
            return frame->fields[0] == "starting" ? Status::starting : Status::failed;
        }
    }
    return Status::lost;
}

Status Client::run(std::string_view line, const Output &output)
{
    if (!send("run", line)) {
        lose(std::strerror(errno));
        return Status::lost;
    }
    return answer(output);
}

std::string Client::help(std::string_view text)
{
    std::string listing;
    if (!send("help", text) || answer([&](std::string_view piece) { listing += piece; }) == Status::lost)
        return {};
    return listing;
}

std::string Client::complete(std::string_view text)
{
    std::string words;
    if (!send("complete", text) || answer([&](std::string_view piece) { words += piece; }) == Status::lost)
        return {};
    return words;
}

} // namespace shell
