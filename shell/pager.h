// Shows text a page at a time.
#pragma once

#include <functional>
#include <string_view>

namespace shell
{

class Pager
{
public:
    /// @param lines     of a page; 0 shows everything at once
    /// @param columns   of the terminal; longer lines take several
    /// @param read_key  waits for one key; 0 when there is none
    /// @param write     puts text on the terminal
    Pager(int lines, int columns, std::function<char()> read_key,
          std::function<void(std::string_view)> write);

    /// Pauses whenever a page is full. After `q` the rest is dropped.
    void show(std::string_view text);
    /// The operator has seen enough.
    [[nodiscard]] bool quit() const { return dropping_; }

private:
    void pause();

    int page_lines_;
    int columns_;
    std::function<char()> read_key_;
    std::function<void(std::string_view)> write_;
    int left_;
    int column_ = 0;
    bool dropping_ = false;
};

} // namespace shell
