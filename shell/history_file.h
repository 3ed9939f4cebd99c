// The lines that an operator typed in former sessions, a line each in a file that is his alone.
//
// Any number of sessions may use the file at once: every line is appended when it is typed. A file that cannot be read
// or written is no error; the history then ends with the session.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shell
{

/// Lines that are kept.
constexpr std::size_t HISTORY_LINES = 500;

/// $SFLOW_CLI_HISTORY, or .sflow_cli_history in the home directory. Empty, "keep none", when the variable is empty or
/// there is no home directory.
[[nodiscard]] std::string history_path();

class HistoryFile
{
public:
    /// @param path  empty: nothing is read or written
    explicit HistoryFile(std::string path) : path_(std::move(path)) {}

    /// The last HISTORY_LINES lines, oldest first; what can be no command line is left out. Cuts the file down to them
    /// when it has grown to twice as many.
    [[nodiscard]] std::vector<std::string> load() const;

    /// Appends a line, unless it is the one that was added before it. The file is made with mode 0600.
    void add(std::string_view line);

private:
    std::string path_;
    std::string last_;
};

} // namespace shell
