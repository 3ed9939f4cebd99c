#include "reference.h"

#include "syntax_graph.h"

#include <algorithm>
#include <array>

namespace cli
{
namespace
{

std::vector<ReferenceWord> words_of(const SyntaxGraph &graph, const SyntaxLine &line)
{
    std::vector<ReferenceWord> words;
    for (const std::size_t index : line.words) {
        const SyntaxWord &word = graph.words()[index];
        const ReferenceWord entry{word.text, word.help};
        if (std::find(words.begin(), words.end(), entry) == words.end())
            words.push_back(entry);
    }
    return words;
}

bool any_word(const SyntaxGraph &graph, const SyntaxLine &line, bool SyntaxWord::*member)
{
    return std::any_of(line.words.begin(), line.words.end(),
                       [&](std::size_t index) { return graph.words()[index].*member; });
}

ReferenceCommand command_of(const SyntaxGraph &graph, SyntaxLine line)
{
    ReferenceCommand command;
    command.words = words_of(graph, line);
    command.handler = line.handler;
    command.privileged = any_word(graph, line, &SyntaxWord::privileged);
    command.hidden = any_word(graph, line, &SyntaxWord::hidden);
    command.conditional = line.conditional;
    command.syntax = std::move(line.text);
    return command;
}

std::size_t common_beginning(std::string_view a, std::string_view b)
{
    return static_cast<std::size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

/// The command that `line` takes back: of those with its handler, the one that begins most like it.
ReferenceCommand *positive_of(std::vector<ReferenceCommand> &commands, const SyntaxLine &line)
{
    ReferenceCommand *best = nullptr;
    for (ReferenceCommand &command : commands)
        if (command.handler == line.handler &&
            (best == nullptr ||
             common_beginning(command.syntax, line.text) > common_beginning(best->syntax, line.text)))
            best = &command;
    return best;
}

std::string_view first_word(std::string_view syntax)
{
    return syntax.substr(0, syntax.find(' '));
}

// ---- Markdown --------------------------------------------------------------------------------------------------

constexpr std::string_view introduction =
    R"(# Command reference
Written from the daemon's parse graph when it is built, so that it says what the parser takes. After a change of a
command, write it anew:

```sh
cmake --build --preset release --target command-reference
```

Words are typed as they stand and may be abbreviated as long as they stay unique. `{a | b}` is one of several, `[a]` may be
left out. `<1-2>` is a number of this range, `A.B.C.D` an IPv4 address, `X:X::X:X` an IPv6 address, `IFNAME` the name of an
interface, `WORD` any word, `LINE` the rest of the line. Behind every `show` command stands, if wanted, `| include TEXT`,
`| exclude TEXT` or `| begin TEXT`.

In the configuration modes `do` in front of a command of the exec mode runs it there. Commands of the configuration mode
are also taken in the modes below it, which they leave.
)";

struct ModeTitle {
    Mode mode;
    std::string_view title;
    std::string_view entered;
};
constexpr std::array<ModeTitle, 7> titles{{
    {Mode::exec, "Exec mode", "Prompt `host>`; after `enable`, `host#`."},
    {Mode::config, "Configuration mode", "Entered with `configure terminal`. Prompt `host(config)#`."},
    {Mode::interface, "Interface mode and interface-range mode",
     "Entered with `interface IFNAME` and `interface range NAME[, NAME...]`. Prompts "
     "`host(config-if-IFNAME)#` and "
     "`host(config-if-range)#`. In a range, a command is run for each member."},
    {Mode::acl_standard, "Standard access lists",
     "Entered with `ip access-list standard`. Prompt `host(config-acl-NAME)#`, as for the lists below."},
    {Mode::acl_extended, "Extended access lists", "Entered with `ip access-list extended`."},
    {Mode::acl_ipv6, "IPv6 access lists", "Entered with `ipv6 access-list`."},
    {Mode::acl_mac, "MAC access lists", "Entered with `mac access-list`."},
}};

std::string heading_of(Mode mode)
{
    for (const ModeTitle &row : titles)
        if (row.mode == mode)
            return "\n## " + std::string(row.title) + "\n" + std::string(row.entered) + "\n";
    return "\n## Mode " + std::string(mode_name(mode)) + "\n";
}

std::string code(std::string_view text)
{
    return "`" + std::string(text) + "`";
}

std::string cell(std::string text)
{
    for (std::size_t bar = 0; (bar = text.find('|', bar)) != std::string::npos; bar += 2)
        text.insert(bar, 1, '\\');
    return text;
}

std::string remarks_of(const ReferenceCommand &command, std::span<const ReferenceDefault> defaults)
{
    std::vector<std::string> remarks;
    for (const std::string &negated : command.negated)
        remarks.push_back(negated == command.syntax ? "Takes `no` in front."
                                                    : "With `no`: " + code("no " + negated) + ".");
    for (const ReferenceDefault &preset : defaults)
        if (preset.handler == command.handler)
            remarks.push_back("Default: " + code(preset.text) + ".");
    if (command.privileged)
        remarks.emplace_back("Needs `enable`.");
    if (command.conditional)
        remarks.emplace_back("Offered where the interface and the sampling service can do it.");
    if (command.hidden)
        remarks.emplace_back("For finding faults: help does not list it.");
    std::string text;
    for (const std::string &remark : remarks)
        text.append(text.empty() ? "" : " ").append(remark);
    return text.empty() ? text : text + "\n\n";
}

std::string section_of(const ReferenceCommand &command, Mode mode, std::span<const ReferenceDefault> defaults)
{
    ReferenceCommand shown = command;
    // Who is in another mode than exec has the privilege.
    shown.privileged = command.privileged && mode == Mode::exec;
    std::string text = "\n### " + code(command.syntax) + "\n" + remarks_of(shown, defaults);
    text += "| Word | |\n|---|---|\n";
    for (const ReferenceWord &word : command.words)
        text += "| " + cell(code(word.text)) + " | " + cell(word.help) + " |\n";
    return text;
}

} // namespace

std::vector<ReferenceCommand> reference_commands(const Grammar &grammar, Mode mode)
{
    const SyntaxGraph positive(grammar, mode, false);
    std::vector<ReferenceCommand> commands;
    for (SyntaxLine &line : positive.lines())
        commands.push_back(command_of(positive, std::move(line)));
    const SyntaxGraph negative(grammar, mode, true);
    for (SyntaxLine &line : negative.lines()) {
        if (ReferenceCommand *const command = positive_of(commands, line)) {
            command->negated.push_back(std::move(line.text));
            continue;
        }
        line.text = "no " + line.text;
        commands.push_back(command_of(negative, std::move(line)));
    }
    std::stable_sort(commands.begin(), commands.end(),
                     [](const ReferenceCommand &a, const ReferenceCommand &b) {
                         return first_word(a.syntax) < first_word(b.syntax);
                     });
    return commands;
}

std::string format_reference(const Grammar &grammar, std::span<const ReferenceDefault> defaults)
{
    std::string text(introduction);
    std::vector<const struct_transtion *> seen;
    for (const Mode mode : all_modes()) {
        // Modes with the same root have the same commands.
        if (std::find(seen.begin(), seen.end(), mode_root(mode)) != seen.end())
            continue;
        seen.push_back(mode_root(mode));
        text += heading_of(mode);
        for (const ReferenceCommand &command : reference_commands(grammar, mode))
            text += section_of(command, mode, defaults);
    }
    return text;
}

} // namespace cli
