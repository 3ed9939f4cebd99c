#include "pager.h"

#include "words.h"

#include <algorithm>

namespace shell
{
namespace
{

constexpr std::string_view prompt = " --More-- ";
constexpr std::string_view erase_prompt = "\r          \r";
constexpr int default_columns = 80;

} // namespace

Pager::Pager(int lines, int columns, std::function<char()> read_key,
             std::function<void(std::string_view)> write)
    : page_lines_(lines > 1 ? lines - 1 : lines), columns_(columns > 0 ? columns : default_columns),
      read_key_(std::move(read_key)), write_(std::move(write)), left_(page_lines_)
{
}

// Return or Enter goes on by a line, `q` ends, anything else goes on by a page.
void Pager::pause()
{
    write_(prompt);
    const char key = read_key_();
    write_(erase_prompt);
    if (key == 'q' || key == 'Q' || key == '\x03' || key == '\0')
        dropping_ = true;
    left_ = key == '\r' || key == '\n' ? 1 : page_lines_;
}

void Pager::show(std::string_view text)
{
    while (!text.empty() && !dropping_) {
        if (page_lines_ > 0 && left_ == 0) {
            pause();
            continue;
        }
        const std::size_t newline = text.find('\n');
        const std::size_t length = newline == std::string_view::npos ? text.size() : newline + 1;
        write_(text.substr(0, length));
        column_ += static_cast<int>(cli::display_column(text, length));
        if (newline != std::string_view::npos) {
            const int rows = 1 + std::max(0, column_ - 2) / columns_;
            left_ = std::max(0, left_ - rows);
            column_ = 0;
        }
        text.remove_prefix(length);
    }
}

} // namespace shell
