// Feeds the CLI service with what a shell, an operator or a file may hold: a session's bytes in pieces, lines in every
// mode, a configuration text, frames. Whatever comes, answers must be whole frames, errors must point into their line,
// and help must agree with the matcher about what can follow.
#include "must.h"

#include "acl_service/acl_service.h"
#include "cli_platform_double.h"
#include "cli_sample.h"
#include "cli_temporary_directory.h"
#include "config_file.h"
#include "core.h"
#include "interpreter.h"
#include "own_commands.h"
#include "protocol.h"
#include "session.h"

#include <cstdint>
#include <cstdlib>

namespace
{

struct World {
    World() : master(kx_thread_master_create())
    {
        setenv("SFLOW_CONFIG_DIR", "/dev/null", 1); // `write memory` fails
        setenv("TMPDIR", directory.path().c_str(), 1);
        platform_double::reset();
        core.serve("fand", master);
        core.set_settle_time({});
        cli::add_own_commands(core);
        for (const sample::Tree &tree : sample::trees())
            MUST(core.add(tree.attach, tree.root, tree.name));
        const acl_reg_t nobody{};
        MUST(acl_agent_init("fand_acl", master, &nobody) == ACL_OK);
        core.set_ready();
    }

    /// Access lists are what inputs leave behind.
    void forget()
    {
        settle();
        for (const auto &entry : platform::acl_service().all())
            MUST(platform::acl_service().remove(entry.list.id()).empty());
        settle();
    }

    /// Runs what threads have left for this one.
    void settle()
    {
        bool settled = false;
        kx_thread_add_event(
            master,
            [](kx_thread_t *thread) {
                *static_cast<bool *>(kx_thread_arg(thread)) = true;
                return 0;
            },
            &settled);
        kx_thread_t task{};
        while (!settled && kx_thread_fetch(master, &task) != nullptr)
            kx_thread_call(&task);
    }

    TemporaryDirectory directory; ///< where access lists are published
    kx_thread_master_t *master;
    cli::Core &core = cli::Core::instance();
};

World &world()
{
    static World the_world;
    return the_world;
}

constexpr cli::Place places[] = {{cli::Mode::exec, cli::Level::user, 0},
                                 {cli::Mode::exec, cli::Level::privileged, 0},
                                 {cli::Mode::config, cli::Level::privileged, 0},
                                 {cli::Mode::interface, cli::Level::privileged, 2},
                                 {cli::Mode::ifrange, cli::Level::privileged, 0x20001},
                                 {cli::Mode::acl_standard, cli::Level::privileged, 1},
                                 {cli::Mode::acl_extended, cli::Level::privileged, 100},
                                 {cli::Mode::acl_ipv6, cli::Level::privileged, 3000},
                                 {cli::Mode::acl_mac, cli::Level::privileged, 3001}};

void fuzz_line(std::string_view line, const cli::Place &place)
{
    const auto grammar = world().core.grammar();
    const cli::Interpreter interpreter(*grammar, world().core.interfaces());
    const cli::Outcome outcome = interpreter.interpret(line, place);
    using Kind = cli::Outcome::Kind;
    MUST(outcome.kind != Kind::run || outcome.handler != nullptr);
    MUST(outcome.kind != Kind::run || outcome.record.parser == nullptr);
    if (outcome.kind == Kind::invalid || outcome.kind == Kind::ambiguous) {
        MUST(outcome.column < line.size());
        const std::string text = cli::format_error(outcome, line, 0);
        MUST(text.find('^') <= line.size());
    }
    static_cast<void>(cli::format_help(interpreter.help(line, place)));
    for (const std::string &word : interpreter.complete(line, place)) {
        // What completion offers is understood: the line is no longer at fault in this word.
        const std::size_t begin = line.find_last_of(" \t|") + 1;
        const std::string completed = std::string(line.substr(0, begin)) + word;
        const cli::Outcome then = interpreter.interpret(completed, place);
        MUST(then.kind != Kind::ambiguous || then.column < begin);
    }
}

void fuzz_session(const std::string_view bytes, std::size_t piece)
{
    cli::Session session(world().core, [] {});
    cli::FrameReader reader;
    for (std::size_t at = 0; at < bytes.size() && !session.over(); at += piece) {
        session.receive(bytes.substr(at, piece));
        reader.feed(session.output());
        session.sent(session.output().size());
        while (reader.next()) {
        }
    }
    session.input_ended();
    while (!session.over()) // a thread may carry its last command on
        world().settle();
    reader.feed(session.output());
    while (reader.next()) {
    }
    MUST(!reader.broken());
}

void fuzz_frames(std::string_view bytes, std::size_t piece)
{
    cli::FrameReader reader;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        reader.feed(bytes.substr(at, piece));
        while (const auto frame = reader.next())
            MUST(frame->text.size() <= cli::FRAME_LIMIT && !frame->tag.empty());
    }
}

void fuzz_filter(std::string_view text, std::size_t piece)
{
    const cli::ModifierParse parsed = cli::parse_modifier(text.substr(0, text.find('\n')));
    if (!parsed.modifier)
        return;
    cli::LineFilter whole(*parsed.modifier);
    std::string expected = whole.write(text);
    expected += whole.finish();
    cli::LineFilter in_pieces(*parsed.modifier);
    std::string passed;
    for (std::size_t at = 0; at < text.size(); at += piece)
        passed += in_pieces.write(text.substr(at, piece));
    passed += in_pieces.finish();
    MUST(passed == expected);
}

void fuzz_config(std::string_view text)
{
    cli::Console console(world().core, cli::Level::privileged, cli::Mode::config);
    cli::for_each_line(text, [&](int /*number*/, std::string_view line) {
        if (!console.busy())
            console.run(
                line.substr(0, cli::LINE_LIMIT), std::nullopt, [](std::string_view) {}, [](cli::Status) {});
    });
    world().settle();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::string_view text(reinterpret_cast<const char *>(data) + 2, size - 2);
    const std::size_t piece = 1 + data[1];
    sample::calls = {};
    world().forget();
    switch (data[0] % 5) {
    case 0:
        fuzz_line(text.substr(0, cli::LINE_LIMIT), places[data[1] % std::size(places)]);
        break;
    case 1:
        fuzz_session("hello 1 batch\n" + std::string(text), piece);
        break;
    case 2:
        fuzz_session(text, piece);
        break;
    case 3:
        fuzz_frames(text, piece);
        fuzz_filter(text, piece);
        break;
    default:
        fuzz_config(text);
        break;
    }
    return 0;
}
