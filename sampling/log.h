// Log of the sampling service: one line an event on standard error, in the form
// `what object: what failed: reason[, consequence]`.
//
// When standard error is a journal's stream, each line begins with the priority in the "<N>" form that the journal
// reads. Used from the one thread of the service; never blocks on anything but standard error itself.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

namespace sampling
{

/// Priorities as syslog(3) numbers them.
enum class LogLevel : int { error = 3, warning = 4, info = 6, debug = 7 };

class Log
{
public:
    using Writer = std::function<void(LogLevel, std::string_view)>;

    /// Writes to standard error. Debug lines only when `verbose`.
    explicit Log(bool verbose);
    /// Hands each line that passes the level to `writer` instead (tests).
    Log(bool verbose, Writer writer) : verbose_(verbose), writer_(std::move(writer)) {}

    template <typename... Parts>
    void error(const Parts &...parts)
    {
        write(LogLevel::error, parts...);
    }
    template <typename... Parts>
    void warning(const Parts &...parts)
    {
        write(LogLevel::warning, parts...);
    }
    template <typename... Parts>
    void info(const Parts &...parts)
    {
        write(LogLevel::info, parts...);
    }
    template <typename... Parts>
    void debug(const Parts &...parts)
    {
        if (verbose_)
            write(LogLevel::debug, parts...);
    }

    /// Lines of level debug are written.
    [[nodiscard]] bool verbose() const { return verbose_; }

private:
    template <typename... Parts>
    void write(LogLevel level, const Parts &...parts)
    {
        std::string line;
        (append(line, parts), ...);
        writer_(level, line);
    }

    static void append(std::string &line, std::string_view part) { line += part; }
    template <typename Number>
    requires std::is_arithmetic_v<Number>
    static void append(std::string &line, Number part) { line += std::to_string(part); }

    bool verbose_;
    Writer writer_;
};

/// True when standard error is the stream that the environment variable JOURNAL_STREAM names.
[[nodiscard]] bool stderr_is_journal();

/// Text of an errno value; negative values are taken as their magnitude.
[[nodiscard]] std::string error_text(int error);

} // namespace sampling
