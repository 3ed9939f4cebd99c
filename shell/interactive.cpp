#include "interactive.h"

#include "batch.h"
#include "pager.h"
#include "words.h"

#include <cstdio>
#include <histedit.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace shell
{
namespace
{

constexpr int history_lines = 500;

struct Terminal {
    Client &client;
    std::string prompt; ///< storage behind the prompt function's result
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

/// Writes below the line being edited; the editor then draws it again.
void print_below(std::string_view text)
{
    std::fputc('\n', stdout);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

unsigned char on_help(EditLine *editor, int /*key*/)
{
    Client &client = terminal_of(editor).client;
    const std::string listing = client.help(text_before_cursor(editor));
    print_below(listing.empty() ? "  % There is no help for this\n" : listing);
    return client ? CC_REDISPLAY : CC_EOF;
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

unsigned char on_tab(EditLine *editor, int /*key*/)
{
    Client &client = terminal_of(editor).client;
    const std::string text = text_before_cursor(editor);
    const std::vector<std::string> words = lines_of(client.complete(text));
    if (!client)
        return CC_EOF;
    if (words.empty())
        return CC_REFRESH_BEEP;
    const std::size_t partial = text.size() - (text.find_last_of(" \t") + 1);
    const std::string common = common_beginning(words) + (words.size() == 1 ? " " : "");
    if (common.size() > partial) {
        // The word may have been typed in another case.
        el_deletestr(editor, static_cast<int>(partial));
        el_insertstr(editor, common.c_str());
        return CC_REFRESH;
    }
    std::string listing;
    for (const std::string &word : words)
        listing += "  " + word + "\n";
    print_below(listing);
    return CC_REDISPLAY;
}

unsigned char on_cancel(EditLine *editor, int /*key*/)
{
    const LineInfo *const line = el_line(editor);
    el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
    const LineInfo *const at_end = el_line(editor);
    el_deletestr(editor, static_cast<int>(at_end->cursor - at_end->buffer));
    print_below("");
    return CC_REDISPLAY;
}

/// One key without its echo.
char read_key()
{
    termios before{};
    if (tcgetattr(STDIN_FILENO, &before) != 0)
        return '\0';
    termios raw = before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    char key = '\0';
    if (read(STDIN_FILENO, &key, 1) != 1)
        key = '\0';
    tcsetattr(STDIN_FILENO, TCSANOW, &before);
    return key;
}

void write_out(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

Pager make_pager(const Client &client)
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        size = {};
    const int lines = client.terminal_length() >= 0 ? client.terminal_length() : size.ws_row;
    return {isatty(STDOUT_FILENO) != 0 ? lines : 0, size.ws_col, read_key, write_out};
}

struct EndEditor {
    void operator()(EditLine *editor) const { el_end(editor); }
};
struct EndHistory {
    void operator()(History *history) const { history_end(history); }
};

bool is_blank(std::string_view line)
{
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

} // namespace

int interact(Client &client)
{
    Terminal terminal{client, {}};
    const std::unique_ptr<History, EndHistory> past(history_init());
    const std::unique_ptr<EditLine, EndEditor> editor(el_init("sflow-cli", stdin, stdout, stderr));
    if (editor == nullptr || past == nullptr) {
        std::fputs("sflow-cli: the terminal cannot be used\n", stderr);
        return EXIT_UNREACHABLE;
    }
    HistEvent event{};
    history(past.get(), &event, H_SETSIZE, history_lines);
    history(past.get(), &event, H_SETUNIQUE, 1);
    EditLine *const el = editor.get();
    el_set(el, EL_CLIENTDATA, &terminal);
    el_set(el, EL_PROMPT, prompt_of);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_HIST, history, past.get());
    el_set(el, EL_ADDFN, "sflow-help", "List what may be typed here", on_help);
    el_set(el, EL_ADDFN, "sflow-complete", "Complete the word", on_tab);
    el_set(el, EL_ADDFN, "sflow-cancel", "Drop the line", on_cancel);
    el_set(el, EL_BIND, "?", "sflow-help", nullptr);
    el_set(el, EL_BIND, "^I", "sflow-complete", nullptr);
    // The keyboard's interrupt only drops the line; it must not end a configuration session halfway.
    el_set(el, EL_SETTY, "-d", "-isig", nullptr);
    el_set(el, EL_BIND, "^C", "sflow-cancel", nullptr);

    while (client) {
        int length = 0;
        const char *const typed = el_gets(el, &length);
        if (typed == nullptr || length <= 0)
            break;
        std::string line(typed, static_cast<std::size_t>(length));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        if (!is_blank(line))
            history(past.get(), &event, H_ENTER, line.c_str());
        Pager pager = make_pager(client);
        if (client.run(line, [&](std::string_view text) { pager.show(text); }) == Status::lost)
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
