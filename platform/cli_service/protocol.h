// The line protocol between the CLI service and its shell; docs/cli-protocol.md describes it. Both ends use this file.
//
// The shell sends requests, one line each. The service answers with frames: a header line "TAG LENGTH[ FIELD...]" and
// LENGTH bytes of text. No I/O here; readers take bytes as they come and keep at most one unfinished line or frame.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli
{

constexpr std::string_view PROTOCOL_VERSION = "1";
/// Path of the socket below the directory that TMPDIR names.
constexpr std::string_view SOCKET_PATH = "/platform/cli_socket";

/// Longest request, in bytes, its newline not counted. It holds a verb and a line of LINE_LIMIT bytes.
constexpr std::size_t REQUEST_LIMIT = 2000;
/// Most bytes of text in one frame, and of one header line.
constexpr std::size_t FRAME_LIMIT = 65536;
constexpr std::size_t FRAME_HEADER_LIMIT = 128;

struct Request {
    std::string verb;     ///< up to the first blank
    std::string argument; ///< the rest of the line as it was sent
};

[[nodiscard]] Request parse_request(std::string_view line);

/// Cuts what a shell sends into lines.
class RequestReader
{
public:
    struct Line {
        bool oversized; ///< longer than REQUEST_LIMIT; `text` is empty
        std::string text;
    };

    /// Bytes beyond what an unfinished line needs are kept until next() has taken the lines before them.
    void feed(std::string_view bytes) { buffer_ += bytes; }
    /// The next whole line; a carriage return before the newline is dropped.
    [[nodiscard]] std::optional<Line> next();
    /// Takes the first line that is exactly `line` out of what next() would give, whatever stands before it.
    [[nodiscard]] bool take(std::string_view line);
    /// Whether next() has one.
    [[nodiscard]] bool has_line() const { return buffer_.find('\n') != std::string::npos; }
    [[nodiscard]] std::size_t buffered() const { return buffer_.size(); }

private:
    std::string buffer_;
    bool skipping_ = false; ///< inside an oversized line whose beginning is gone
};

struct Frame {
    std::string tag;
    std::vector<std::string> fields;
    std::string text;
};

/// @param fields  without blanks or newlines
[[nodiscard]] std::string encode_frame(std::string_view tag, std::string_view text,
                                       std::initializer_list<std::string_view> fields = {});

/// Puts together the frames that a service sends.
class FrameReader
{
public:
    void feed(std::string_view bytes) { buffer_ += bytes; }
    /// The next whole frame.
    [[nodiscard]] std::optional<Frame> next();
    /// What came is not a frame; nothing more is read.
    [[nodiscard]] bool broken() const { return broken_; }
    /// Bytes that next() has not given out yet.
    [[nodiscard]] std::size_t buffered() const { return buffer_.size() - begin_; }

private:
    void drop(std::size_t bytes);

    std::string buffer_;
    std::size_t begin_ = 0; ///< of what next() has not given out
    bool broken_ = false;
};

} // namespace cli
