// The command line of access lists: what operators type, the list that it makes, and the configuration that gives it
// back.
#include "acl_service/acl_service.h"

#include "acl_list/acl_file.h"
#include "cli_platform_double.h"
#include "cli_temporary_directory.h"
#include "console.h"
#include "core.h"
#include "own_commands.h"

#include "platform/acl.h"
#include "platform/cli.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

using cli::Level;
using cli::Status;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> deleted;

void note_delete(acl_id_args_t *args)
{
    deleted.emplace_back(args->acl_name);
}

/// The services of the process: made once, they are what commands work on.
struct Process {
    Process() : master(kx_thread_master_create())
    {
        setenv("TMPDIR", directory.path().c_str(), 1);
        setenv("SFLOW_CONFIG_DIR", directory.path().c_str(), 1);
        cli::Core::instance().serve("acl", master);
        cli::Core::instance().set_settle_time({});
        cli::add_own_commands(cli::Core::instance());
        acl_reg_t registration{};
        registration.acl_delete_notify = note_delete;
        if (acl_agent_init("sflow_acl", master, &registration) != ACL_OK)
            std::abort();
        cli::Core::instance().set_ready();
    }

    TemporaryDirectory directory;
    kx_thread_master_t *master;
};

Process &process()
{
    static Process the_process;
    return the_process;
}

struct Answer {
    Status status;
    std::string text;
};

class Acl_commands : public testing::Test
{
protected:
    Acl_commands()
    {
        platform_double::reset();
        process();
        for (const auto &entry : platform::acl_service().all())
            EXPECT_EQ("", platform::acl_service().remove(entry.list.id()));
        serve();
        deleted.clear();
        expect_ok({"configure terminal"});
    }

    static void serve()
    {
        kx_thread_t task;
        while (kx_thread_fetch(process().master, &task) != nullptr)
            kx_thread_call(&task);
    }

    static Answer run(cli::Console &console, std::string_view line)
    {
        Answer answer{};
        console.run(
            line, std::nullopt, [&](std::string_view text) { answer.text += text; },
            [&](Status status) { answer.status = status; });
        return answer;
    }

    Answer run(std::string_view line) { return run(console_, line); }

    void expect_ok(std::initializer_list<std::string> lines)
    {
        for (const std::string &line : lines) {
            const Answer answer = run(line);
            EXPECT_EQ(answer.status, Status::ok) << line << ": " << answer.text;
            EXPECT_EQ(answer.text, "") << line;
        }
    }

    void expect_error(std::string_view line, const std::string &error)
    {
        const Answer answer = run(line);
        EXPECT_EQ(answer.status, Status::failed) << line;
        EXPECT_EQ(answer.text, "% " + error + "\n") << line;
    }

    void expect_refused(std::string_view line)
    {
        const Answer answer = run(line);
        EXPECT_EQ(answer.status, Status::refused) << line;
        EXPECT_THAT(answer.text, HasSubstr("% ")) << line;
    }

    static std::string config() { return cli::Core::instance().running_config(false); }

    /// Lines of the list's section without the number in front.
    [[nodiscard]] static std::vector<std::string> lines_of(const std::string &name)
    {
        std::vector<std::string> lines;
        const auto present = platform::acl_service().find(name);
        if (!present)
            return {"no list"};
        for (const auto &[number, line] : present->list.lines())
            lines.push_back(platform::line_text(line, present->list.kind()));
        return lines;
    }

    [[nodiscard]] std::string mode() const
    {
        const std::string prompt = console_.prompt();
        return prompt.substr(prompt.find('('));
    }

    [[nodiscard]] std::vector<std::string> choices(std::string_view text) const
    {
        std::vector<std::string> texts;
        for (const cli::Choice &choice : console_.help(text))
            texts.push_back(choice.text);
        return texts;
    }

    cli::Console console_{cli::Core::instance(), Level::privileged};
};

// ---- Lists ---------------------------------------------------------------------------------------------------------

TEST_F(Acl_commands, every_kind_of_list_has_a_mode_with_its_prompt)
{
    struct Case {
        const char *line;
        const char *prompt;
    };
    const Case cases[] = {
        {"ip access-list standard 5", "(config-acl-5)#"},
        {"ip access-list extended 2899", "(config-acl-2899)#"},
        {"ip access-list extended web", "(config-acl-web)#"},
        {"ipv6 access-list six", "(config-acl-six)#"},
        {"mac access-list frames", "(config-acl-frames)#"},
        {"exit", "(config)#"},
        {"mac access-list frames", "(config-acl-frames)#"},
        {"interface eth0", "(config-if-eth0)#"},
        {"ip access-list standard 5", "(config-acl-5)#"},
    };
    for (const Case &one : cases) {
        expect_ok({one.line});
        EXPECT_EQ(mode(), one.prompt);
    }
    expect_ok({"end"});
    EXPECT_THAT(console_.prompt(), EndsWith("#"));
    EXPECT_THAT(console_.prompt(), Not(HasSubstr("(")));
}

TEST_F(Acl_commands, the_number_is_the_id)
{
    expect_ok({"ip access-list standard 5", "ip access-list extended 2899", "ip access-list standard web"});
    EXPECT_EQ(platform::acl_service().find("5")->list.id(), 5);
    EXPECT_EQ(platform::acl_service().find("2899")->list.id(), 2899);
    EXPECT_GT(platform::acl_service().find("web")->list.id(), 2899);
}

TEST_F(Acl_commands, unusable_numbers_and_names_are_refused)
{
    const std::string error =
        "An access list is called by a number from 1 to 2899, or by a letter and further "
        "characters, 99 in all";
    for (const char *const name : {"0", "2900", "05x", "-5", "_x"})
        expect_error(std::string("ip access-list standard ") + name, error);
    expect_error("mac access-list " + std::string(100, 'n'), error);
    EXPECT_EQ(mode(), "(config)#");
    for (const char *const line :
         {"ip access-list", "ip access-list standard", "ip access-list 5", "ipv6 access-list",
          "ip access-list web", "ip access-list standard 5 6", "access-list 5 permit any"})
        expect_refused(line);
    EXPECT_THAT(platform::acl_service().all(), IsEmpty());
    expect_ok({"mac access-list " + std::string(99, 'n')});
}

TEST_F(Acl_commands, a_name_belongs_to_one_kind)
{
    expect_ok({"ip access-list standard 5", "exit"});
    expect_error("ip access-list extended 5", "Access list 5 is a standard IP access list");
    EXPECT_EQ(mode(), "(config)#");
    expect_refused("10 permit any"); // it must not reach another list
    expect_ok({"ip access-list standard 5", "10 permit any"});
    expect_error("ip access-list extended 5", "Access list 5 is a standard IP access list");
    EXPECT_EQ(mode(), "(config)#") << "also out of a list";
}

TEST_F(Acl_commands, no_deletes_the_list_and_tells_the_clients)
{
    expect_ok({"ip access-list standard 5", "ip access-list extended web", "ip access-list standard standard",
               "ipv6 access-list six", "mac access-list frames", "exit"});
    expect_error("no ip access-list extended 5", "Access list 5 is a standard IP access list");
    expect_error("no ip access-list six", "Access list six is an IPv6 access list");
    expect_error("no mac access-list six", "Access list six is an IPv6 access list");
    expect_error("no ip access-list 6", "Access list 6 does not exist");
    expect_error("no ip access-list standard nosuch", "Access list nosuch does not exist");
    serve();
    EXPECT_THAT(deleted, IsEmpty());
    expect_ok({"no ip access-list 5", "no ip access-list extended web", "no ip access-list standard standard",
               "no ipv6 access-list six", "no mac access-list frames"});
    EXPECT_THAT(deleted, IsEmpty()) << "later, as a task of the client";
    serve();
    EXPECT_THAT(deleted, ElementsAre("5", "web", "standard", "six", "frames"));
    EXPECT_EQ(config(), "");
}

/// The CLI service with a loop of its own: timers of this test must not be waited for by others.
struct LoopOfItsOwn {
    LoopOfItsOwn() : master(kx_thread_master_create())
    {
        cli::Core::instance().serve("acl", master);
        cli::Core::instance().set_ready();
    }
    ~LoopOfItsOwn()
    {
        cli::Core::instance().set_settle_time({});
        cli::Core::instance().serve("acl", process().master);
        cli::Core::instance().set_ready();
        kx_thread_master_finish(master);
    }
    LoopOfItsOwn(const LoopOfItsOwn &) = delete;
    LoopOfItsOwn &operator=(const LoopOfItsOwn &) = delete;
    kx_thread_master_t *master;
};

TEST_F(Acl_commands, deleting_a_list_in_use_waits_for_settings_before_it_and_holds_up_those_behind_it)
{
    using std::chrono::hours;
    const LoopOfItsOwn loop;
    auto &core = cli::Core::instance();
    expect_ok({"ip access-list standard 5", "exit"});
    acl_ref_args_t reference{};
    reference.acl.acl_id = 5;
    ASSERT_EQ(acl_ref(&reference), ACL_OK);
    core.set_settle_time(hours(1));
    core.when_settled([&core] { core.set_settle_time(hours(1)); }); // runs ahead of the deletion
    bool done = false;
    console_.run(
        "no ip access-list 5", std::nullopt, [](std::string_view) {},
        [&](Status status) {
            done = true;
            EXPECT_EQ(status, Status::ok);
        });
    EXPECT_TRUE(platform::acl_service().find("5")) << "a setting by it may still be confirmed";
    EXPECT_FALSE(done);
    core.set_settle_time({});
    EXPECT_FALSE(platform::acl_service().find("5"));
    EXPECT_FALSE(done) << "its end may still have to be confirmed";
    core.set_settle_time({});
    EXPECT_TRUE(done);
}

TEST_F(Acl_commands, a_list_that_somebody_else_deletes_meanwhile_is_a_failure)
{
    const LoopOfItsOwn loop;
    auto &core = cli::Core::instance();
    expect_ok({"ip access-list standard 5", "exit"});
    acl_ref_args_t reference{};
    reference.acl.acl_id = 5;
    ASSERT_EQ(acl_ref(&reference), ACL_OK);
    core.set_settle_time(std::chrono::hours(1));
    std::string text;
    Status status = Status::ok;
    console_.run(
        "no ip access-list 5", std::nullopt, [&](std::string_view piece) { text += piece; },
        [&](Status ended) { status = ended; });
    EXPECT_EQ(platform::acl_service().remove(5), "");
    core.set_settle_time({});
    EXPECT_EQ(status, Status::failed);
    EXPECT_EQ(text, "% Access list with id 5 does not exist any more\n");
}

TEST_F(Acl_commands, a_list_that_nobody_uses_is_deleted_at_once)
{
    const LoopOfItsOwn loop;
    expect_ok({"ip access-list extended web", "permit ip any any", "exit"});
    cli::Core::instance().set_settle_time(std::chrono::hours(1));
    expect_ok({"no ip access-list web"});
    EXPECT_FALSE(platform::acl_service().find("web"));
}

TEST_F(Acl_commands, a_list_that_is_deleted_while_somebody_is_in_it_can_be_edited_no_more)
{
    expect_ok({"ip access-list extended web", "10 permit ip any any"});
    cli::Console other(cli::Core::instance(), Level::privileged, cli::Mode::config);
    EXPECT_EQ(run(other, "no ip access-list web").status, Status::ok);
    expect_error("20 permit ip any any", "The access list does not exist any more");
    EXPECT_EQ(mode(), "(config)#");
    // The name is given anew, to another kind of list: of the first one nothing reaches it.
    expect_ok({"ip access-list extended web"});
    EXPECT_EQ(run(other, "no ip access-list web").status, Status::ok);
    EXPECT_EQ(run(other, "mac access-list web").status, Status::ok);
    for (const char *const line : {"no 10", "remark x", "resequence", "permit ip any any"}) {
        cli::Console late(cli::Core::instance(), Level::privileged, cli::Mode::config);
        late.enter_list(cli::Mode::acl_extended,
                        static_cast<u_int64_t>(platform::acl_service().find("web")->list.id()), "web");
        EXPECT_EQ(run(late, line).text, "% The access list does not exist any more\n") << line;
    }
    EXPECT_THAT(lines_of("web"), IsEmpty());
}

// ---- Entries -------------------------------------------------------------------------------------------------------

struct Typed {
    const char *line;
    const char *shown;
};

TEST_F(Acl_commands, entries_of_extended_lists)
{
    const Typed cases[] = {
        {"permit ip any any", "permit ip any any"},
        {"deny ip any any", "deny ip any any"},
        {"permit tcp any any", "permit tcp any any"},
        {"permit 6 any any eq 1", "permit tcp any any eq 1"},
        {"permit udp any any", "permit udp any any"},
        {"permit icmp any any", "permit icmp any any"},
        {"permit 1 any any dscp 1", "permit icmp any any dscp 1"},
        {"permit 58 any any", "permit 58 any any"},
        {"permit 0 any any", "permit 0 any any"},
        {"permit 255 any any", "permit 255 any any"},
        {"permit ip host 10.0.0.1 host 10.0.0.2", "permit ip host 10.0.0.1 host 10.0.0.2"},
        {"permit ip 10.0.0.1/32 any", "permit ip host 10.0.0.1 any"},
        {"permit ip 10.1.2.3/16 any", "permit ip 10.1.0.0/16 any"},
        {"deny ip 10.1.2.3/0 any", "deny ip any any"},
        {"permit ip any 192.0.2.77 0.0.0.255", "permit ip any 192.0.2.0/24"},
        {"permit ip any 192.0.2.77 0.0.255.0", "permit ip any 192.0.0.77 0.0.255.0"},
        {"permit ip 1.2.3.4 0.0.0.0 5.6.7.8 255.255.255.255", "permit ip host 1.2.3.4 any"},
        {"permit ip 10.0.0.5 0.0.0.250 any", "permit ip 10.0.0.5 0.0.0.250 any"},
        {"permit tcp any eq 80 any", "permit tcp any eq 80 any"},
        {"permit tcp any any eq 443", "permit tcp any any eq 443"},
        {"permit tcp any any neq 443", "permit tcp any any neq 443"},
        {"permit udp any gt 1023 any lt 1024", "permit udp any gt 1023 any lt 1024"},
        {"permit udp any range 1 1 any range 5 9", "permit udp any eq 1 any range 5 9"},
        {"permit udp any any gt 65534", "permit udp any any eq 65535"},
        {"permit udp any any lt 1", "permit udp any any eq 0"},
        {"permit udp any any range 0 65535", "permit udp any any range 0 65535"},
        {"permit ip any any dscp 0", "permit ip any any dscp 0"},
        {"permit ip any any dscp 63", "permit ip any any dscp 63"},
        {"permit tcp any any established", "permit tcp any any established"},
        {"permit tcp 10.0.0.0/8 gt 1023 host 10.9.9.9 eq 22 dscp 46 established",
         "permit tcp 10.0.0.0/8 gt 1023 host 10.9.9.9 eq 22 dscp 46 established"},
    };
    expect_ok({"ip access-list extended all"});
    std::vector<std::string> expected;
    for (const Typed &one : cases) {
        expect_ok({one.line});
        if (std::find(expected.begin(), expected.end(), one.shown) == expected.end())
            expected.emplace_back(one.shown);
    }
    EXPECT_EQ(lines_of("all"), expected);
}

TEST_F(Acl_commands, lines_that_are_no_entries_of_extended_lists)
{
    expect_ok({"ip access-list extended all"});
    for (const char *const line : {"permit",
                                   "permit ip",
                                   "permit ip any",
                                   "permit any any",
                                   "permit ip 10.0.0.1 any",
                                   "permit ip 10.0.0.0/33 any",
                                   "permit ip 10.0.0/8 any",
                                   "permit ip 10.0.0.0/ any",
                                   "permit ip 10.0.0.0/-1 any",
                                   "permit ip 10.0.0.0 8 any any",
                                   "permit 256 any any",
                                   "permit -1 any any",
                                   "permit ip any any eq 80",
                                   "permit icmp any any eq 80",
                                   "permit 58 any any eq 80",
                                   "permit udp any any established",
                                   "permit tcp any any eq",
                                   "permit tcp any any eq 65536",
                                   "permit tcp any any gt 65535",
                                   "permit tcp any any lt 0",
                                   "permit tcp any any range 5",
                                   "permit tcp any any range 5 4",
                                   "permit tcp any any eq 80 81",
                                   "permit ip any any dscp 64",
                                   "permit ip any any dscp",
                                   "permit ip host any any",
                                   "permit ip any any log",
                                   "0 permit ip any any",
                                   "2147483648 permit ip any any",
                                   "10",
                                   "10 20 permit ip any any",
                                   "permit ipv6 any any",
                                   "allow ip any any",
                                   "permit ip ::/0 any",
                                   "remark",
                                   "10 remark",
                                   "resequence 0",
                                   "resequence 1 0",
                                   "no",
                                   "no resequence",
                                   "permit arp any any"})
        expect_refused(line);
    EXPECT_THAT(lines_of("all"), IsEmpty());
    EXPECT_EQ(mode(), "(config-acl-all)#");
}

TEST_F(Acl_commands, entries_of_standard_lists)
{
    const Typed cases[] = {
        {"permit any", "permit any"},
        {"deny host 10.0.0.1", "deny host 10.0.0.1"},
        {"permit 10.0.0.1/8", "permit 10.0.0.0/8"},
        {"permit 10.0.0.1 0.0.0.255", "permit 10.0.0.0/24"},
        {"permit 10.0.0.1 0.255.0.255", "permit 10.0.0.0 0.255.0.255"},
    };
    expect_ok({"ip access-list standard 5"});
    std::vector<std::string> expected;
    for (const Typed &one : cases) {
        expect_ok({one.line});
        expected.emplace_back(one.shown);
    }
    EXPECT_EQ(lines_of("5"), expected);
    const std::vector<acl::Entry> entries = platform::acl_service().find("5")->list.entries();
    EXPECT_EQ(entries[1].protocol, std::nullopt);
    EXPECT_EQ(entries[1].destination, acl::Address{});
    for (const char *const line : {"permit ip any any", "permit any any", "permit tcp any any eq 80",
                                   "permit any dscp 1", "permit any established", "permit 10.0.0.1"})
        expect_refused(line);
}

TEST_F(Acl_commands, entries_of_ipv6_lists)
{
    const Typed cases[] = {
        {"permit ip any any", "permit ipv6 any any"}, // an abbreviation
        {"permit icmp any any", "permit icmp any any"},
        {"deny 58 any any", "deny icmp any any"},
        {"permit 1 any any", "permit 1 any any"},
        {"permit tcp 2001:DB8::1/32 host ::1 eq 443 established",
         "permit tcp 2001:db8::/32 host ::1 eq 443 established"},
        {"permit udp 2001:db8::5 ::ffff any gt 5 dscp 10", "permit udp 2001:db8::/112 any gt 5 dscp 10"},
        {"permit ipv6 any 2001:db8::1 0:0:0:ffff::", "permit ipv6 any 2001:db8::1 0:0:0:ffff::"},
        {"permit ipv6 ::5/128 ::/0", "permit ipv6 host ::5 any"},
    };
    expect_ok({"ipv6 access-list six"});
    std::vector<std::string> expected;
    for (const Typed &one : cases) {
        expect_ok({one.line});
        expected.emplace_back(one.shown);
    }
    EXPECT_EQ(lines_of("six"), expected);
    for (const char *const line :
         {"permit any any", "permit ipv6 10.0.0.0/8 any", "permit ipv6 2001:db8::/129 any",
          "permit ipv6 any any established", "permit ipv6 any any eq 80"})
        expect_refused(line);
}

TEST_F(Acl_commands, entries_of_mac_lists)
{
    const Typed cases[] = {
        {"permit any any", "permit any any"},
        {"permit any any arp", "permit any any arp"},
        {"deny any any 0x0806", "deny any any arp"},
        {"permit any any 34525", "permit any any ipv6"},
        {"permit any any 0x600", "permit any any 0x0600"},
        {"permit any any 0xFFFF", "permit any any 0xffff"},
        {"permit any any ipv4", "permit any any ipv4"},
        {"permit any any mpls", "permit any any mpls"},
        {"permit any any lldp", "permit any any lldp"},
        {"permit host 0011.2233.4455 any", "permit host 00:11:22:33:44:55 any"},
        {"permit host 00-11-22-AA-bb-56 any ipv6", "permit host 00:11:22:aa:bb:56 any ipv6"},
        {"permit any 01:00:5e:01:02:03 00:00:00:7f:ff:ff", "permit any 01:00:5e:00:00:00 00:00:00:7f:ff:ff"},
        {"permit 00:11:22:33:44:55 ff:ff:ff:00:00:00 any", "permit 00:00:00:33:44:55 ff:ff:ff:00:00:00 any"},
    };
    expect_ok({"mac access-list frames"});
    std::vector<std::string> expected;
    for (const Typed &one : cases) {
        expect_ok({one.line});
        expected.emplace_back(one.shown);
    }
    EXPECT_EQ(lines_of("frames"), expected);
    for (const char *const line :
         {"permit any", "permit any any 0x5ff", "permit any any 1535", "permit any any 0x10000",
          "permit any any 0x", "permit any any 0x-1", "permit any any 806x", "permit ip any any",
          "permit any any eq 80", "permit host 00:11:22:33:44 any", "permit host 00:11:22:33:44:5g any",
          "permit host 00:11:22:33:44:55:66 any", "permit host 001122334455 any",
          "permit host 00:11-22:33:44:55 any", "permit host 0011.2233:4455 any",
          "permit host 00.11.22.33.44.55 any", "permit 00:11:22:33:44:55 any",
          "permit host -0:11:22:33:44:55 any"})
        expect_refused(line);
}

TEST_F(Acl_commands, lines_are_numbered_replaced_taken_away_and_renumbered)
{
    expect_ok({"ip access-list standard 5", "permit any", "5 remark  the   office ", "deny host 10.0.0.1",
               "15 permit host 10.0.0.2", "permit any"});
    EXPECT_EQ(config(),
              "ip access-list standard 5\n 5 remark the office\n 10 permit any\n 15 permit host 10.0.0.2\n"
              " 20 deny host 10.0.0.1\n!\n");
    expect_ok({"10 deny any", "no 15", "no remark the office", "no deny host 10.0.0.1"});
    EXPECT_EQ(config(), "ip access-list standard 5\n 10 deny any\n!\n");
    expect_error("no 15", "Access list 5 has no line 15");
    expect_error("no permit any", "Access list 5 has no such line");
    expect_error("no remark the office", "Access list 5 has no such line");
    expect_error("no 11 deny any", "Access list 5 has no such line");
    expect_ok(
        {"no 10 deny any", "permit host 10.0.0.3", "permit host 10.0.0.4", "remark end", "resequence 7 3"});
    EXPECT_EQ(
        config(),
        "ip access-list standard 5\n 7 permit host 10.0.0.3\n 10 permit host 10.0.0.4\n 13 remark end\n!\n");
    expect_ok({"resequence 100"});
    EXPECT_THAT(config(), HasSubstr("\n 100 permit host 10.0.0.3\n 110 permit host 10.0.0.4\n"));
    expect_ok({"resequence"});
    EXPECT_THAT(config(), HasSubstr("\n 10 permit host 10.0.0.3\n 20 permit host 10.0.0.4\n"));
    expect_error("resequence 2147483647 1", "The last number would be above 2147483647");
}

TEST_F(Acl_commands, what_is_typed_is_published_at_once)
{
    expect_ok({"ip access-list extended 101", "permit tcp any any eq 443"});
    const std::string directory = acl::directory_below(process().directory.path());
    acl::ReadResult result = acl::read_list(directory, 101, "101");
    ASSERT_TRUE(std::holds_alternative<acl::List>(result));
    ASSERT_EQ(std::get<acl::List>(result).entries.size(), 1U);
    EXPECT_EQ(std::get<acl::List>(result).entries[0].destination_ports,
              (acl::Ports{.first = 443, .last = 443}));
    expect_ok({"no 10"});
    result = acl::read_list(directory, 101, "101");
    EXPECT_THAT(std::get<acl::List>(result).entries, IsEmpty());
}

TEST_F(Acl_commands, an_edit_that_cannot_be_published_fails)
{
    expect_ok({"ip access-list extended 101", "permit ip any any"});
    const std::string obstacle = acl::file_of(acl::directory_below(process().directory.path()), 101) + ".new";
    std::filesystem::create_directory(obstacle);
    const Answer answer = run("deny ip any any");
    std::filesystem::remove(obstacle);
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% cannot create " + obstacle + ": Is a directory\n");
    EXPECT_THAT(lines_of("101"), ElementsAre("permit ip any any"));
}

// ---- Configuration -------------------------------------------------------------------------------------------------

constexpr std::string_view sample =
    "ip access-list standard 5\n"
    " 10 remark sources ! of interest\n"
    " 20 permit 192.0.2.0/24\n"
    " 30 deny any\n"
    "!\n"
    "ip access-list extended 101\n"
    " 1 permit tcp 10.0.0.0/8 gt 1023 host 10.9.9.9 range 80 90 dscp 46 established\n"
    " 2147483647 deny ip 10.0.0.5 0.0.0.250 any\n"
    "!\n"
    "mac access-list frames\n"
    " 10 permit host 00:11:22:33:44:55 any arp\n"
    " 20 permit any any 0x88f7\n"
    "!\n"
    "ip access-list standard nothing\n"
    "!\n"
    "ipv6 access-list six\n"
    " 10 permit udp any neq 53 2001:db8::/32 dscp 0\n"
    "!\n"
    "ip access-list extended web\n"
    " 10 permit 47 any any\n"
    "!\n";

TEST_F(Acl_commands, the_running_configuration_is_a_fixed_point)
{
    std::istringstream lines{std::string(sample)};
    for (std::string line; std::getline(lines, line);)
        expect_ok({line});
    EXPECT_EQ(config(), sample);
    EXPECT_EQ(config(), cli::Core::instance().running_config(true)) << "nothing is a default";
}

TEST_F(Acl_commands, a_configuration_that_is_read_twice_changes_nothing)
{
    for (int pass = 0; pass < 2; ++pass) {
        std::istringstream lines{std::string(sample)};
        for (std::string line; std::getline(lines, line);)
            expect_ok({line});
    }
    EXPECT_EQ(config(), sample);
}

TEST_F(Acl_commands, configuration_commands_leave_the_list)
{
    expect_ok({"ip access-list standard 5", "interface eth0"});
    EXPECT_EQ(mode(), "(config-if-eth0)#");
    expect_ok({"ip access-list standard 5", "no ip access-list 5"});
    EXPECT_EQ(mode(), "(config)#");
    expect_ok({"ip access-list standard 5"});
    EXPECT_EQ(run("do show access-lists nosuch").text, "% Access list nosuch does not exist\n");
    EXPECT_EQ(mode(), "(config-acl-5)#");
}

TEST_F(Acl_commands, lists_can_be_saved)
{
    expect_ok({"ip access-list standard 5", "permit any", "end"});
    EXPECT_EQ(run("write memory").text, "Building configuration...\n[OK]\n");
    EXPECT_THAT(run("show startup-config").text, HasSubstr("ip access-list standard 5\n 10 permit any\n!\n"));
}

// ---- Help ----------------------------------------------------------------------------------------------------------

TEST_F(Acl_commands, help_offers_what_the_protocol_allows)
{
    expect_ok({"ip access-list extended web"});
    EXPECT_THAT(choices(""), ElementsAre("deny", "do", "end", "exit", "no", "permit", "remark", "resequence",
                                         "<1-2147483647>"));
    EXPECT_THAT(choices("permit "), ElementsAre("icmp", "ip", "tcp", "udp", "<0-255>"));
    EXPECT_THAT(choices("permit ip "), ElementsAre("any", "host", "A.B.C.D/LEN", "A.B.C.D"));
    EXPECT_THAT(choices("permit ip any any "), ElementsAre("dscp", "<cr>"));
    EXPECT_THAT(choices("permit tcp any any "),
                ElementsAre("dscp", "eq", "established", "gt", "lt", "neq", "range", "<cr>"));
    EXPECT_THAT(choices("permit udp any any range 100 "), ElementsAre("<100-65535>"));
    EXPECT_THAT(choices("no "), ElementsAre("deny", "permit", "remark", "<1-2147483647>"));
    EXPECT_THAT(choices("remark "), ElementsAre("LINE"));
    EXPECT_THAT(choices("remark a "), ElementsAre("LINE", "<cr>"));
    expect_ok({"mac access-list frames"});
    EXPECT_THAT(choices("permit any "), ElementsAre("any", "host", "H:H:H:H:H:H"));
    EXPECT_THAT(choices("permit any any "),
                ElementsAre("arp", "ipv4", "ipv6", "lldp", "mpls", "<0x600-0xffff>", "<cr>"));
    expect_ok({"ipv6 access-list six"});
    EXPECT_THAT(choices("permit ipv6 "), ElementsAre("any", "host", "X:X::X:X/LEN", "X:X::X:X"));
    expect_ok({"exit"});
    EXPECT_THAT(choices("ip access-list "), ElementsAre("extended", "standard"));
    EXPECT_THAT(choices("ip access-list standard "), ElementsAre("<1-2899>", "WORD"));
}

TEST_F(Acl_commands, words_may_be_abbreviated)
{
    expect_ok({"ip acc ext web", "10 p t a h 10.0.0.1 eq 5 d 1 es"});
    EXPECT_THAT(lines_of("web"), ElementsAre("permit tcp any host 10.0.0.1 eq 5 dscp 1 established"));
    expect_refused("p t a a e");
}

// ---- Show ----------------------------------------------------------------------------------------------------------

TEST_F(Acl_commands, show_lists_ids_lines_and_references)
{
    expect_ok({"ip access-list standard 5", "permit any", "remark r", "ip access-list extended web", "end"});
    const int id = platform::acl_service().find("web")->list.id();
    acl_ref_args_t reference{};
    reference.acl.acl_id = 5;
    ASSERT_EQ(acl_ref(&reference), ACL_OK);
    ASSERT_EQ(acl_ref(&reference), ACL_OK);
    const std::string five = "ip access-list standard 5, id 5, 1 entry\n  10 permit any\n  20 remark r\n"
                             "  References: 2 (sflow_acl)\n";
    const std::string web =
        "ip access-list extended web, id " + std::to_string(id) + ", 0 entries\n  References: none\n";
    EXPECT_EQ(run("show access-lists").text, five + web);
    EXPECT_EQ(run("show access-lists 5").text, five);
    EXPECT_EQ(run("show access-lists web").text, web);
    EXPECT_EQ(run("show access-lists | include id").text,
              "ip access-list standard 5, id 5, 1 entry\nip access-list extended web, id " +
                  std::to_string(id) + ", 0 entries\n");
    const Answer missing = run("show access-lists 6");
    EXPECT_EQ(missing.status, Status::failed);
    EXPECT_EQ(missing.text, "% Access list 6 does not exist\n");
}

bool has_interfaces = false;

/// Prints interface sections as the daemon does.
void print_interfaces(struct_command_data_block *record)
{
    if (!has_interfaces)
        return;
    c2p_printf(1, record, "interface eth0");
    cli_change_mode(record, CLI_MODE_INTERFACE, 1);
    c2p_printf(1, record, "fan enable acl web");
    c2p_printf(1, record, "fan enable acl 5\n");
    cli_change_mode(record, CLI_MODE_CONFIG, 1);
    c2p_printf(1, record, "!");
}

constinit const struct_c2p interfaces_arg{print_interfaces, 0};
constinit const struct_transtion interfaces_node{c2p_action, &interfaces_arg, &Tno_acc, &Tno_alt};
constinit const struct_transtion interfaces_top{append_point_action, nullptr, &interfaces_node, &Tno_alt};

TEST_F(Acl_commands, lists_stand_ahead_of_the_interfaces_and_show_says_where_they_are_used)
{
    ASSERT_EQ(cli_add_command(PARSE_ADD_CFG_CMD, &interfaces_top, "interfaces"), 0);
    has_interfaces = true;
    expect_ok({"ip access-list standard 5", "ip access-list extended web", "end"});
    EXPECT_EQ(config(), "ip access-list standard 5\n!\nip access-list extended web\n!\n"
                        "interface eth0\n fan enable acl web\n fan enable acl 5\n!\n");
    EXPECT_EQ(run("show access-lists 5").text,
              "ip access-list standard 5, id 5, 0 entries\n  References: none\n"
              "  Used by interface eth0: fan enable acl 5\n");
    has_interfaces = false;
}

TEST_F(Acl_commands, only_the_session_of_a_command_can_be_led_into_a_list)
{
    struct_command_data_block record{};
    EXPECT_EQ(cli_enter_mode(nullptr, CLI_MODE_ACL_MAC, 1, "x"), -1);
    EXPECT_EQ(cli_enter_mode(&record, CLI_MODE_ACL_MAC, 1, "x"), -1) << "no session";
    cli_session_t nobody(cli::Core::instance(), nullptr, nullptr, nullptr);
    record.session = &nobody;
    EXPECT_EQ(cli_enter_mode(&record, CLI_MODE_ACL_MAC, 1, "x"), -1) << "typed by nobody";
    cli_session_t typed(cli::Core::instance(), &console_, nullptr, nullptr);
    record.session = &typed;
    for (const char *const name : {CLI_MODE_EXEC, CLI_MODE_INTERFACE, CLI_MODE_IFRANGE, "nowhere"})
        EXPECT_EQ(cli_enter_mode(&record, name, 1, "x"), -1) << name;
    EXPECT_EQ(cli_enter_mode(&record, nullptr, 1, "x"), -1);
    EXPECT_EQ(mode(), "(config)#");
    EXPECT_EQ(cli_enter_mode(&record, CLI_MODE_ACL_MAC, 1, nullptr), 0);
    EXPECT_EQ(mode(), "(config-acl-)#");
    EXPECT_EQ(cli_enter_mode(&record, CLI_MODE_CONFIG, 0, nullptr), 0);
    EXPECT_EQ(mode(), "(config)#");
}

TEST_F(Acl_commands, a_client_that_comes_back_has_its_commands_once)
{
    acl_reg_t registration{};
    registration.acl_delete_notify = note_delete;
    ASSERT_EQ(acl_agent_init("sflow_acl", process().master, &registration), ACL_OK);
    expect_ok({"ip access-list standard 5", "permit any"});
    EXPECT_EQ(config(), "ip access-list standard 5\n 10 permit any\n!\n");
}

} // namespace
