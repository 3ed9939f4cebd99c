// Sessions of operators, compared to the letter with what tests/transcripts holds.
//
// A transcript is what somebody would see on the terminal: the prompt with what was typed behind it, then what came
// back. Beside that there are
//
//   # text             at the beginning of the file: what it shows
//   $TMPDIR            the directory of the daemon's files, in what is typed and in what comes back
//   switch# sho ?      help for what stands before the "?"
//   switch# sho<TAB>   the words that the last one can become
//   <failed>           the command was marked failed, with or without a word
//   @ log              the lines of the log since the last time
//   @ operator 2       what follows is typed at another console; the first one is 1
//   @ refuse 1         the sampling service answers sampling settings with this code; 0 agrees
//   @ disconnect, @ connect, @ capacity 3
//                      the sampling service goes, comes back, reports what it can sample
//   @ remove port1, @ move ma1 red, @ add port3 10.0.3.1/24, @ delete port3 10.0.3.1/24
//                      changes of the network of desk_network.h
//
// SFLOW_WRITE_TRANSCRIPTS=1 writes the files anew instead of comparing; the difference is then for a human to judge.
#include "desk.h"
#include "desk_network.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

// What differs from machine to machine.

extern "C" int __wrap_gethostname(char *name, size_t size)
{
    std::snprintf(name, size, "switch");
    return 0;
}

extern "C" int __wrap_uname(utsname *system)
{
    *system = {};
    std::snprintf(system->sysname, sizeof system->sysname, "Linux");
    std::snprintf(system->release, sizeof system->release, "RELEASE");
    std::snprintf(system->machine, sizeof system->machine, "MACHINE");
    std::snprintf(system->nodename, sizeof system->nodename, "switch");
    return 0;
}

namespace
{

using desk::Desk;
using desk::Operator;
using Words = std::vector<std::string>;

const std::string &directory()
{
    static const TemporaryDirectory the_directory;
    return the_directory.path();
}

Desk &the_desk()
{
    static Desk desk(directory());
    return desk;
}

Words split(const std::string &text, char separator)
{
    Words words;
    std::istringstream in(text);
    for (std::string word; std::getline(in, word, separator);)
        if (!word.empty())
            words.push_back(word);
    return words;
}

/// A line of a transcript with the directory that its $TMPDIR stands for.
std::string typed(std::string line)
{
    constexpr std::string_view name = "$TMPDIR";
    const std::size_t at = line.find(name);
    return at == std::string::npos ? line : line.replace(at, name.size(), directory());
}

/// Bytes that are no ASCII text and what changes from run to run, as they stand in a transcript.
std::string written(std::string text)
{
    for (std::size_t at = 0; (at = text.find(directory(), at)) != std::string::npos;)
        text.replace(at, directory().size(), "$TMPDIR");
    std::string printable;
    for (const char c : text) {
        char code[8];
        std::snprintf(code, sizeof code, "<%02X>", static_cast<unsigned char>(c));
        printable += c == '\r' ? "<CR>" : c == '\n' || (c >= ' ' && c <= '~') ? std::string(1, c) : code;
    }
    const std::pair<std::regex, const char *> varying[] = {
        {std::regex("written [0-9-]+ [0-9:]+"), "written DATE TIME"},
        {std::regex("(agent,? (version )?)" SFLOW_VERSION), "$1VERSION"},
        {std::regex("func address:0x0x[0-9a-f]+"), "func address:0xADDRESS"},
        {std::regex("[0-9]+ bytes written"), "N bytes written"},
    };
    for (const auto &[pattern, replacement] : varying)
        printable = std::regex_replace(printable, pattern, replacement);
    return printable;
}

/// One replay: what a transcript would look like now.
class Session
{
public:
    Session()
    {
        for (const char *const file : {"/startup-config", "/support.txt", "/platform/support.txt"})
            std::filesystem::remove(directory() + file);
        the_desk().start_over();
        turn_debugging_off();
        static_cast<void>(the_desk().take_log());
        now();
    }

    ~Session() { turn_debugging_off(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void replay(const std::string &line)
    {
        if (line.starts_with("@ "))
            happen(line);
        else
            type(line.substr(line.find_first_of(">#") + 1));
    }

    void comment(const std::string &line) { out_ << line << "\n"; }
    [[nodiscard]] std::string text() const { return out_.str(); }

private:
    using Happening = void (Session::*)(const Words &);

    Operator &now()
    {
        std::unique_ptr<Operator> &somebody = operators_[number_];
        if (!somebody || somebody->gone())
            somebody = std::make_unique<Operator>(the_desk(), cli::Level::user);
        return *somebody;
    }

    static void turn_debugging_off()
    {
        Operator(the_desk(), cli::Level::privileged).type("no debug sflow all");
    }

    void type(std::string line)
    {
        line.erase(0, line.find_first_not_of(' '));
        out_ << now().prompt() << (line.empty() ? "" : " ") << line << "\n";
        constexpr std::string_view tab = "<TAB>";
        if (line.ends_with("?")) {
            out_ << now().help(line.substr(0, line.size() - 1));
        } else if (line.ends_with(tab)) {
            for (const std::string &word : now().complete(line.substr(0, line.size() - tab.size())))
                out_ << word << "\n";
        } else {
            const Operator::Answer answer = now().type(typed(line));
            const std::string text = written(answer.text);
            out_ << text << (text.empty() || text.ends_with("\n") ? "" : "<no newline>\n");
            if (answer.status == cli::Status::failed)
                out_ << "<failed>\n";
        }
    }

    void happen(const std::string &line)
    {
        static const std::map<std::string, Happening> happenings = {
            {"log", &Session::log},         {"operator", &Session::other_operator},
            {"refuse", &Session::refuse},   {"disconnect", &Session::disconnect},
            {"connect", &Session::connect}, {"capacity", &Session::capacity},
            {"remove", &Session::remove},   {"move", &Session::move},
            {"add", &Session::add},         {"delete", &Session::remove_address},
        };
        out_ << line << "\n";
        const Words words = split(line, ' ');
        const auto found = happenings.find(words.at(1));
        ASSERT_NE(found, happenings.end()) << line;
        (this->*found->second)(words);
        the_desk().pump();
        the_desk().answer();
    }

    void log(const Words & /*words*/)
    {
        the_desk().pump();
        for (const std::string &line : the_desk().take_log())
            out_ << written(line) << "\n";
    }
    void other_operator(const Words &words) { number_ = std::stoi(words.at(2)); }
    void refuse(const Words &words) { the_desk().refuse_with(std::stoi(words.at(2))); }
    void disconnect(const Words & /*words*/) { the_desk().connect(false); }
    void connect(const Words & /*words*/) { the_desk().connect(true); }
    void capacity(const Words &words)
    {
        the_desk().set_capacity(static_cast<u_int32_t>(std::stoul(words.at(2), nullptr, 16)));
    }
    void remove(const Words &words) { EXPECT_TRUE(desk::remove_link(words.at(2))); }
    void move(const Words &words)
    {
        EXPECT_TRUE(desk::move_to_vrf(words.at(2), words.size() > 3 ? words[3] : ""));
    }
    void add(const Words &words) { EXPECT_TRUE(desk::add_address(words.at(2), words.at(3))); }
    void remove_address(const Words &words) { EXPECT_TRUE(desk::remove_address(words.at(2), words.at(3))); }

    std::ostringstream out_;
    std::map<int, std::unique_ptr<Operator>> operators_;
    int number_ = 1;
};

bool is_input(const std::string &line)
{
    static const std::regex prompt(R"(switch(\([^)]*\))?[>#].*)");
    return line.starts_with("@ ") || std::regex_match(line, prompt);
}

std::string read(const std::filesystem::path &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string replayed(const std::string &transcript)
{
    Session session;
    bool begun = false;
    std::istringstream in(transcript);
    for (std::string line; std::getline(in, line);) {
        if (is_input(line)) {
            begun = true;
            session.replay(line);
        } else if (!begun) {
            session.comment(line);
        }
    }
    return session.text();
}

/// The first line in which two transcripts differ, with what leads there; empty when there is none.
std::string difference(const std::string &expected, const std::string &seen)
{
    constexpr std::ptrdiff_t context = 5;
    const Words wanted = split(expected, '\n');
    const Words got = split(seen, '\n');
    const auto [end, at] = std::mismatch(wanted.begin(), wanted.end(), got.begin(), got.end());
    if (end == wanted.end() && at == got.end())
        return expected == seen ? "" : "an empty line more or less";
    std::string text;
    for (auto line = at - std::min(context, at - got.begin()); line != at; ++line)
        text += "  " + *line + "\n";
    text += "- " + (end == wanted.end() ? "(the end)" : *end) + "\n";
    return text + "+ " + (at == got.end() ? "(the end)" : *at) + "\n";
}

std::vector<std::string> names()
{
    std::vector<std::string> result;
    for (const auto &entry : std::filesystem::directory_iterator(SFLOW_TRANSCRIPTS))
        result.push_back(entry.path().stem().string());
    std::sort(result.begin(), result.end());
    return result;
}

class Transcript : public ::testing::TestWithParam<std::string>
{
};

} // namespace

TEST_P(Transcript, is_what_an_operator_sees)
{
    const std::filesystem::path path = std::filesystem::path(SFLOW_TRANSCRIPTS) / (GetParam() + ".txt");
    const std::string expected = read(path);
    ASSERT_FALSE(expected.empty());
    const std::string seen = replayed(expected);
    if (std::getenv("SFLOW_WRITE_TRANSCRIPTS") != nullptr)
        std::ofstream(path) << seen;
    else if (const std::string text = difference(expected, seen); !text.empty())
        ADD_FAILURE() << "in the file: -, now: +; tests/README.md tells how to have it written anew\n"
                      << text;
}

INSTANTIATE_TEST_SUITE_P(Operators, Transcript, ::testing::ValuesIn(names()),
                         [](const auto &info) { return info.param; });
