#include "client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace shell
{
namespace
{

struct StatusWord {
    std::string_view word;
    Status status;
};
constexpr std::array<StatusWord, 3> status_words{
    {{"ok", Status::ok}, {"starting", Status::starting}, {"cancelled", Status::cancelled}}};

Status status_of(std::string_view word)
{
    for (const StatusWord &row : status_words)
        if (row.word == word)
            return row.status;
    return Status::failed;
}

} // namespace

Client::~Client()
{
    if (socket_ >= 0)
        close(socket_);
}

Client::Client(Client &&other) noexcept
{
    *this = std::move(other);
}

Client &Client::operator=(Client &&other) noexcept
{
    std::swap(socket_, other.socket_);
    std::swap(frames_, other.frames_);
    std::swap(prompt_, other.prompt_);
    std::swap(terminal_length_, other.terminal_length_);
    std::swap(reason_, other.reason_);
    std::swap(watched_, other.watched_);
    std::swap(readable_, other.readable_);
    std::swap(deadline_, other.deadline_);
    std::swap(cancelled_, other.cancelled_);
    std::swap(hung_up_, other.hung_up_);
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
    if (!argument.empty())
        request.append(" ").append(argument);
    // A newline would begin another request, whose answer nobody awaits.
    std::replace(request.begin(), request.end(), '\n', ' ');
    request.push_back('\n');
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

void Client::watch(int descriptor, std::function<void()> readable)
{
    watched_ = descriptor;
    readable_ = std::move(readable);
}

// Waits for bytes from the daemon. False when there is nothing to read: the wait is over, or something else came.
bool Client::await()
{
    int timeout = -1;
    if (deadline_) {
        const auto left = *deadline_ - std::chrono::steady_clock::now();
        timeout =
            static_cast<int>(std::max<long>(0, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
    }
    std::array<pollfd, 2> awaited{{{socket_, POLLIN, 0}, {watched_, POLLIN, 0}}};
    const int ready = poll(awaited.data(), awaited.size(), timeout);
    if (ready == 0)
        lose("sflowd does not answer");
    if (ready > 0 && awaited[1].revents != 0 && readable_)
        readable_();
    return ready > 0 && awaited[0].revents != 0 && socket_ >= 0;
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
        if (!await())
            continue;
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

bool Client::cancel()
{
    if (std::exchange(cancelled_, true))
        return false;
    if (!send("cancel", {}))
        lose(std::strerror(errno));
    return true;
}

int Client::read_ahead_descriptor() const
{
    return hung_up_ || frames_.buffered() >= READ_AHEAD_LIMIT ? -1 : socket_;
}

void Client::read_ahead()
{
    while (read_ahead_descriptor() >= 0) {
        char buffer[16384];
        const ssize_t got = recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0)
            frames_.feed({buffer, static_cast<std::size_t>(got)});
        else if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            return;
        else
            hung_up_ = true; // receive() says so behind the frames that are here
    }
}

std::optional<State> Client::greet(bool interactive, std::optional<std::chrono::milliseconds> patience)
{
    if (patience)
        deadline_ = std::chrono::steady_clock::now() + *patience;
    if (!send("hello", std::string(cli::PROTOCOL_VERSION) + (interactive ? " interactive" : " batch"))) {
        lose(std::strerror(errno));
        return std::nullopt;
    }
    const auto frame = receive();
    deadline_.reset();
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
    cancelled_ = false;
    while (const auto frame = receive()) {
        if (frame->tag == "out") {
            if (!cancelled_)
                output(frame->text);
        } else if (frame->tag == "bye") {
            lose(frame->text);
            return frame->text.empty() ? Status::ended : Status::lost;
        } else if (frame->tag == "done" && frame->fields.size() >= 2) {
            prompt_ = frame->text;
            const std::string &lines = frame->fields[1];
            std::from_chars(lines.data(), lines.data() + lines.size(), terminal_length_);
            return status_of(frame->fields[0]);
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

std::string Client::ask(std::string_view verb, std::string_view text)
{
    std::string said;
    deadline_ = std::chrono::steady_clock::now() + ANSWER_PATIENCE;
    const bool answered =
        send(verb, text) && answer([&](std::string_view piece) { said += piece; }) != Status::lost;
    deadline_.reset();
    return answered ? said : std::string();
}

std::string Client::help(std::string_view text)
{
    return ask("help", text);
}

std::string Client::complete(std::string_view text)
{
    return ask("complete", text);
}

} // namespace shell
