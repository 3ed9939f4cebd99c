#include "interactive.h"

#include "batch.h"
#include "history_file.h"
#include "keyboard.h"
#include "pager.h"
#include "words.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <histedit.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace shell
{
namespace
{

constexpr int default_columns = 80;

struct Terminal {
    Client &client;
    std::string prompt{}; ///< storage behind the prompt function's result
};

Terminal &terminal_of(EditLine *editor)
{
    void *data = nullptr;
    el_get(editor, EL_CLIENTDATA, &data);
    return *static_cast<Terminal *>(data);
}

char *prompt_of(EditLine *editor)
{
    Terminal &terminal = terminal_of(editor);
    terminal.prompt = terminal.client.prompt() + " ";
    return terminal.prompt.data();
}

std::string text_before_cursor(EditLine *editor)
{
    const LineInfo *const line = el_line(editor);
    return {line->buffer, line->cursor};
}

void write_out(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

winsize window_size()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        size = {};
    return size;
}

Pager make_pager(Client &client)
{
    const winsize size = window_size();
    const int lines = client.terminal_length() >= 0 ? client.terminal_length() : size.ws_row;
    return {isatty(STDOUT_FILENO) != 0 ? lines : 0, size.ws_col,
            [&client] { return read_key(STDIN_FILENO, client); }, write_out};
}

// ---- Below the line being edited -------------------------------------------------------------------------------

/// Columns that the editor needs for `text`; it shows control characters as two.
int columns_of(const wchar_t *begin, const wchar_t *end)
{
    int columns = 0;
    for (; begin != end; ++begin) {
        const int width = wcwidth(*begin);
        columns += width < 0 ? 2 : width;
    }
    return columns;
}

/// Leaves the line as it stands on the terminal and goes to the beginning of the row below it.
void go_below(EditLine *editor)
{
    const LineInfoW *const line = el_wline(editor);
    const int window = window_size().ws_col;
    const int columns = window > 0 ? window : default_columns;
    const int before =
        static_cast<int>(terminal_of(editor).prompt.size()) + columns_of(line->buffer, line->cursor);
    const int all = before + columns_of(line->cursor, line->lastchar);
    write_out(std::string(static_cast<std::size_t>(all / columns - before / columns + 1), '\n'));
}

/// Shows `text` below the line being edited, then the prompt and the line again.
unsigned char show_below(EditLine *editor, std::string_view text)
{
    Client &client = terminal_of(editor).client;
    go_below(editor);
    make_pager(client).show(text);
    if (!client)
        return CC_EOF;
    el_set(editor, EL_REFRESH);
    return CC_NORM;
}

// ---- Keys ------------------------------------------------------------------------------------------------------

unsigned char on_help(EditLine *editor, int /*key*/)
{
    const std::string listing = terminal_of(editor).client.help(text_before_cursor(editor));
    return show_below(editor, listing.empty() ? "  % There is no help for this\n" : listing);
}

std::vector<std::string> lines_of(std::string_view text)
{
    std::vector<std::string> lines;
    for (std::size_t newline = text.find('\n'); newline != std::string_view::npos;
         newline = text.find('\n')) {
        lines.emplace_back(text.substr(0, newline));
        text.remove_prefix(newline + 1);
    }
    return lines;
}

std::string common_beginning(const std::vector<std::string> &words)
{
    std::string common = words.front();
    for (const std::string &word : words)
        while (!cli::is_prefix(common, word))
            common.pop_back();
    return common;
}

/// Characters, as the editor counts them, of the word before the cursor. A bar begins a word of its own.
std::size_t word_length(EditLine *editor)
{
    const LineInfoW *const line = el_wline(editor);
    const wchar_t *begin = line->cursor;
    while (begin != line->buffer && std::wcschr(L" \t|", begin[-1]) == nullptr)
        --begin;
    return static_cast<std::size_t>(line->cursor - begin);
}

unsigned char on_tab(EditLine *editor, int /*key*/)
{
    Client &client = terminal_of(editor).client;
    const std::vector<std::string> words = lines_of(client.complete(text_before_cursor(editor)));
    if (!client)
        return CC_EOF;
    if (words.empty())
        return CC_REFRESH_BEEP;
    const std::size_t typed = word_length(editor);
    const std::string common = common_beginning(words) + (words.size() == 1 ? " " : "");
    if (cli::display_column(common, common.size()) > typed) {
        // The word may have been typed in another case.
        el_deletestr(editor, static_cast<int>(typed));
        el_insertstr(editor, common.c_str());
        return CC_REFRESH;
    }
    std::string listing;
    for (const std::string &word : words)
        listing += "  " + word + "\n";
    return show_below(editor, listing);
}

unsigned char on_cancel(EditLine *editor, int /*key*/)
{
    go_below(editor);
    const LineInfoW *const line = el_wline(editor);
    el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
    el_deletestr(editor, static_cast<int>(line->lastchar - line->buffer));
    el_set(editor, EL_REFRESH);
    return CC_NORM;
}

struct EndEditor {
    void operator()(EditLine *editor) const { el_end(editor); }
};
struct EndHistory {
    void operator()(History *history) const { history_end(history); }
};

void set_up(EditLine *el, Terminal &terminal, History *past)
{
    el_set(el, EL_CLIENTDATA, &terminal);
    el_set(el, EL_PROMPT, prompt_of);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_SIGNAL, 1); // the size of the window may change
    el_set(el, EL_HIST, history, past);
    el_set(el, EL_ADDFN, "sflow-help", "List what may be typed here", on_help);
    el_set(el, EL_ADDFN, "sflow-complete", "Complete the word", on_tab);
    el_set(el, EL_ADDFN, "sflow-cancel", "Drop the line", on_cancel);
    el_set(el, EL_BIND, "?", "sflow-help", nullptr);
    el_set(el, EL_BIND, "^I", "sflow-complete", nullptr);
    el_set(el, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_set(el, EL_BIND, "^W", "ed-delete-prev-word", nullptr);
    // The keyboard's interrupt only drops the line; it must not end a configuration session halfway.
    el_set(el, EL_SETTY, "-d", "-isig", nullptr);
    el_set(el, EL_BIND, "^C", "sflow-cancel", nullptr);
}

// ---- Lines -----------------------------------------------------------------------------------------------------

bool is_blank(std::string_view line)
{
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

/// The next line without its end; nothing at the end of input.
std::optional<std::string> read_line(EditLine *editor)
{
    int length = 0;
    const char *const typed = el_gets(editor, &length);
    if (typed == nullptr || length <= 0)
        return std::nullopt;
    std::string line(typed, static_cast<std::size_t>(length));
    line.erase(line.find_last_not_of("\r\n") + 1);
    return line;
}

/// Runs one line. While it runs, the interrupt key ends it; a second time, it gives up a daemon that does not answer.
Status run_line(Client &client, const Interrupts &interrupts, std::string_view line)
{
    interrupts.drain();
    client.watch(interrupts.descriptor(), [&] {
        interrupts.drain();
        if (!client.cancel())
            client.abandon("sflowd does not answer: interrupted");
    });
    Pager pager = make_pager(client);
    const Status status = client.run(line, [&](std::string_view text) {
        pager.show(text);
        if (pager.quit())
            client.cancel();
    });
    client.watch(-1, {});
    return status;
}

} // namespace

int interact(Client &client)
{
    Terminal terminal{client};
    const std::unique_ptr<History, EndHistory> past(history_init());
    const std::unique_ptr<EditLine, EndEditor> editor(el_init("sflow-cli", stdin, stdout, stderr));
    if (editor == nullptr || past == nullptr) {
        std::fputs("sflow-cli: the terminal cannot be used\n", stderr);
        return EXIT_UNREACHABLE;
    }
    HistEvent event{};
    history(past.get(), &event, H_SETSIZE, static_cast<int>(HISTORY_LINES));
    history(past.get(), &event, H_SETUNIQUE, 1);
    set_up(editor.get(), terminal, past.get());
    HistoryFile file(history_path());
    for (const std::string &line : file.load())
        history(past.get(), &event, H_ENTER, line.c_str());

    const Interrupts interrupts;
    while (client) {
        const std::optional<std::string> line = read_line(editor.get());
        if (!line)
            break;
        if (!is_blank(*line)) {
            history(past.get(), &event, H_ENTER, line->c_str());
            file.add(*line);
        }
        if (run_line(client, interrupts, *line) == Status::lost)
            break;
    }
    if (client) { // end of input
        std::fputc('\n', stdout);
        return EXIT_OK;
    }
    if (client.reason().empty())
        return EXIT_OK;
    std::fprintf(stderr, "sflow-cli: %s\n", client.reason().c_str());
    return EXIT_UNREACHABLE;
}

} // namespace shell
