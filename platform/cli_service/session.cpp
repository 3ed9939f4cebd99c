#include "session.h"

#include "core.h"

#include <array>

namespace cli
{
namespace
{

constexpr std::size_t text_chunk = 16384;

std::string_view status_word(Status status)
{
    switch (status) {
    case Status::ok:
        return "ok";
    case Status::failed:
        return "failed";
    case Status::refused:
        return "refused";
    case Status::not_ready:
        return "starting";
    case Status::cancelled:
        return "cancelled";
    }
    return "failed";
}

} // namespace

Session::Session(Core &core, std::function<void()> changed, std::string owner)
    : core_(core), changed_(std::move(changed)), console_(core, Level::user)
{
    console_.set_owner(std::move(owner));
}

void Session::receive(std::string_view bytes)
{
    if (over_)
        return;
    input_.feed(bytes);
    serve();
    // Ahead of what waits for the command that it is to end.
    while (console_.busy() && input_.take("cancel")) {
        console_.cancel();
        finished(Status::cancelled);
    }
}

void Session::input_ended()
{
    input_ended_ = true;
    serve();
}

// Runs requests until one is carried on by a thread, the turn is over or the shell owes too much reading. A command that
// ends while it is being started must not be answered by another round of this loop below itself.
void Session::serve()
{
    if (serving_)
        return;
    serving_ = true;
    for (int served = 0; served < REQUESTS_PER_TURN && can_serve(); ++served) {
        const auto line = input_.next();
        if (!line)
            break;
        serve_one(*line);
    }
    serving_ = false;
    if (wants_turn())
        changed_();
    if (input_ended_ && !over_ && !console_.busy() && !input_.has_line()) {
        flush_text();
        over_ = true;
        changed_();
    }
}

void Session::serve_one(const RequestReader::Line &line)
{
    static constexpr std::array<Verb, 5> verbs{{{"hello", &Session::hello},
                                                {"run", &Session::run},
                                                {"help", &Session::help},
                                                {"complete", &Session::complete},
                                                {"cancel", &Session::cancel}}};
    const Request request = parse_request(line.text);
    const Verb *known = nullptr;
    for (const Verb &verb : verbs)
        if (verb.name == request.verb)
            known = &verb;
    if (line.oversized && greeted_) {
        write("% The line is too long: the limit is " + std::to_string(LINE_LIMIT) + " characters\n");
        finished(Status::refused);
    } else if (known == nullptr || (!greeted_ && known->handler != &Session::hello)) {
        end("this is not the protocol of sflow-cli");
    } else {
        (this->*known->handler)(request.argument);
    }
}

void Session::hello(const std::string &argument)
{
    const Request parts = parse_request(argument);
    if (greeted_ || parts.verb != PROTOCOL_VERSION ||
        (parts.argument != "batch" && parts.argument != "interactive")) {
        end("sflow-cli and sflowd do not belong to the same version");
        return;
    }
    greeted_ = true;
    interactive_ = parts.argument == "interactive";
    if (!interactive_)
        console_.set_level(Level::privileged);
    const bool ready = core_.ready();
    std::string text = console_.prompt();
    if (!ready)
        text.append("\n").append(core_.starting());
    send(encode_frame("state", text, {ready ? "ready" : "starting"}));
}

void Session::run(const std::string &argument)
{
    if (refuse_long(argument)) {
        finished(Status::refused);
        return;
    }
    // A batch is not echoed: an error then repeats the line that its marker points into.
    const auto indent = interactive_ ? std::optional(console_.prompt().size() + 1) : std::nullopt;
    console_.run(
        argument, indent, [this](std::string_view text) { write(text); },
        [this](Status status) { finished(status); });
}

void Session::finished(Status status)
{
    flush_text();
    if (console_.closing()) {
        end("");
        return;
    }
    const std::string length = std::to_string(console_.terminal_length());
    send(encode_frame("done", console_.prompt(), {status_word(status), length}));
    serve();
}

void Session::help(const std::string &argument)
{
    if (!refuse_long(argument))
        write(format_help(console_.help(argument)));
    finished(Status::ok);
}

void Session::complete(const std::string &argument)
{
    if (!refuse_long(argument))
        for (const std::string &word : console_.complete(argument))
            write(word + "\n");
    finished(Status::ok);
}

// The command that was to be cancelled has ended by itself, and its answer is on its way.
void Session::cancel(const std::string & /*argument*/) {}

bool Session::refuse_long(std::string_view line)
{
    if (line.size() <= LINE_LIMIT)
        return false;
    write("% The line is too long: the limit is " + std::to_string(LINE_LIMIT) + " characters\n");
    return true;
}

void Session::write(std::string_view text)
{
    text_ += text;
    if (text_.size() >= text_chunk)
        flush_text();
    else
        changed_();
}

void Session::flush_text()
{
    for (std::string_view rest = text_; !rest.empty() && !overflowed_;) {
        const std::string_view piece = rest.substr(0, text_chunk);
        send(encode_frame("out", piece));
        rest.remove_prefix(piece.size());
    }
    text_.clear();
}

void Session::send(std::string_view frame)
{
    if (over_)
        return;
    if (output_.size() - sent_ + frame.size() > OUTPUT_LIMIT) {
        over_ = overflowed_ = true;
        output_.clear();
        sent_ = 0;
    } else {
        output_ += frame;
    }
    changed_();
}

void Session::end(std::string_view reason)
{
    send(encode_frame("bye", reason));
    over_ = true;
    changed_();
}

std::string_view Session::output()
{
    flush_text();
    return std::string_view(output_).substr(sent_);
}

void Session::sent(std::size_t bytes)
{
    sent_ += bytes;
    // Moving the rest up each time would cost the square of a long output.
    if (sent_ == output_.size() || sent_ > output_.size() / 2) {
        output_.erase(0, sent_);
        sent_ = 0;
    }
}

} // namespace cli
