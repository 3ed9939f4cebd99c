// The configuration that follows to the standby: what is sent, what is entered, what operators may do.
#include "cli_platform_double.h"
#include "cli_rdnd_double.h"
#include "cli_sample.h"
#include "cli_temporary_directory.h"
#include "config_diff.h"
#include "config_file.h"
#include "console.h"
#include "core.h"
#include "own_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using cli::ConfigAssembly;
using cli::ConfigChange;
using cli::Console;
using cli::Level;
using cli::Mode;
using cli::Status;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr char interfaces_text[] =
    "interface eth0\n fan enable\n!\ninterface eth1\n fan enable\n!\nfan after\n!\n";

class Config_mirror : public testing::Test
{
protected:
    Config_mirror() : master_(kx_thread_master_create())
    {
        sample::calls = {};
        platform_double::reset();
        rdnd_double::reset();
        setenv("SFLOW_CONFIG_DIR", directory_.path().c_str(), 1);
        core_.mirror().set_delays({}, {});
        core_.serve("fand", master_);
        core_.set_settle_time({});
        cli::add_own_commands(core_);
        for (const sample::Tree &tree : sample::trees())
            EXPECT_TRUE(core_.add(tree.attach, tree.root, tree.name));
    }
    ~Config_mirror() override
    {
        kx_thread_master_finish(master_);
        unsetenv("SFLOW_CONFIG_DIR");
    }

    void start(rdnd_role role)
    {
        rdnd_double::state.role = role;
        core_.mirror().start(master_);
        core_.set_ready();
        serve();
    }
    /// Lets everything that is due happen; what cannot be followed is tried again and again.
    void serve()
    {
        kx_thread_t task{};
        for (int tasks = 0; tasks < 100 && kx_thread_fetch(master_, &task) != nullptr; ++tasks)
            kx_thread_call(&task);
    }
    static void deliver(RDND_EVENT event, std::string_view data = {}) { rdnd_double::deliver(event, data); }
    /// The active unit's configuration arrives.
    void receive(std::string_view text, bool saved = false)
    {
        for (const std::string &piece : ConfigAssembly::pieces(text, saved, ++generation_))
            deliver(RDND_E_BACKUP_MSG, piece);
        serve();
    }
    struct Answer {
        Status status = Status::not_ready;
        std::string text;
    };
    static Answer run(Console &console, std::string_view line)
    {
        Answer answer;
        console.run(
            line, std::nullopt, [&](std::string_view text) { answer.text += text; },
            [&](Status status) { answer.status = status; });
        return answer;
    }
    /// The configurations that were sent, put together.
    static std::vector<std::string> sent()
    {
        std::vector<std::string> texts;
        ConfigAssembly assembly;
        for (const std::string &piece : rdnd_double::state.messages)
            if (const auto whole = assembly.add(piece))
                texts.push_back((whole->saved ? "saved: " : "") + whole->text);
        rdnd_double::state.messages.clear();
        return texts;
    }

    const TemporaryDirectory directory_;
    kx_thread_master_t *master_;
    cli::Core core_;
    std::uint32_t generation_ = 0;
};
using Config_mirror_standby = Config_mirror;
using Config_mirror_active = Config_mirror;

} // namespace

// ---- Operators ----------------------------------------------------------------------------------------------------

TEST_F(Config_mirror_standby, refuses_configuration_with_a_clear_text)
{
    start(RDND_ROLE_SLAVE);
    for (const char *line :
         {"configure terminal", "write", "write memory", "copy running-config startup-config"}) {
        Console console(core_, Level::privileged);
        const Answer answer = run(console, line);
        EXPECT_EQ(answer.status, Status::failed) << line;
        EXPECT_EQ(answer.text, "% This unit is the standby: configure the active unit, this one follows it\n")
            << line;
        EXPECT_EQ(console.mode(), Mode::exec);
    }
    EXPECT_FALSE(cli::read_config_file(cli::startup_config_path()).text.has_value());
    Console console(core_, Level::privileged);
    EXPECT_EQ(run(console, "show fan").status, Status::ok);
}

TEST_F(Config_mirror_standby, that_is_none_yet_says_where_to_look)
{
    start(RDND_ROLE_CANDIDATE);
    Console console(core_, Level::privileged);
    EXPECT_THAT(run(console, "configure terminal").text, HasSubstr("not the active one"));
}

TEST_F(Config_mirror_standby, sends_sessions_out_of_the_configuration_modes)
{
    start(RDND_ROLE_MASTER);
    Console console(core_, Level::privileged);
    ASSERT_EQ(run(console, "configure terminal").status, Status::ok);
    ASSERT_EQ(run(console, "interface eth0").status, Status::ok);
    Console leaving(core_, Level::privileged, Mode::config);
    rdnd_double::state.role = RDND_ROLE_SLAVE;
    const Answer answer = run(console, "fan speed 3");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_THAT(answer.text, HasSubstr("is the standby"));
    EXPECT_EQ(console.mode(), Mode::exec);
    EXPECT_EQ(sample::calls.speed, 5);
    EXPECT_EQ(run(leaving, "end").status, Status::ok);
    EXPECT_EQ(leaving.mode(), Mode::exec);
}

TEST_F(Config_mirror_active, and_a_unit_without_redundancy_take_configuration)
{
    for (const rdnd_role role : {RDND_ROLE_MASTER, RDND_ROLE_NONE, RDND_ROLE_ALONE}) {
        rdnd_double::state.role = role;
        core_.set_ready();
        Console console(core_, Level::privileged);
        EXPECT_EQ(run(console, "configure terminal").status, Status::ok);
    }
}

// ---- The standby --------------------------------------------------------------------------------------------------

TEST_F(Config_mirror_standby, enters_what_it_lacks_and_shows_the_active_units_text)
{
    start(RDND_ROLE_SLAVE);
    const std::string text = std::string("fan speed 8\nfan name big\n!\n") + interfaces_text;
    receive(text);
    EXPECT_EQ(sample::calls.speed, 8);
    EXPECT_EQ(sample::calls.name, "big");
    EXPECT_EQ(core_.running_config(false), text);
    Console console(core_, Level::privileged);
    receive("fan name smaller\n");
    EXPECT_EQ(run(console, "show running-config").text, "fan name smaller\n");
}

TEST_F(Config_mirror_standby, takes_back_what_the_active_unit_does_not_have)
{
    start(RDND_ROLE_SLAVE);
    sample::calls.speed = 7;
    receive(interfaces_text);
    EXPECT_EQ(sample::calls.speed, 5) << "the default: its command forgets the value without naming it";
}

TEST_F(Config_mirror_standby, exchanges_a_value_without_forgetting_it_first)
{
    start(RDND_ROLE_SLAVE);
    receive(std::string("fan speed 7\n!\n") + interfaces_text);
    ASSERT_EQ(sample::calls.speed, 7);
    sample::calls.speeds.clear();
    receive(std::string("fan speed 8\n!\n") + interfaces_text);
    EXPECT_THAT(sample::calls.speeds, ElementsAre(8));
}

TEST_F(Config_mirror_standby, enters_nothing_while_an_earlier_change_has_not_settled)
{
    start(RDND_ROLE_SLAVE);
    core_.set_settle_time(std::chrono::hours(1));
    core_.mark_changed();
    deliver(RDND_E_BACKUP_MSG, ConfigAssembly::pieces("fan speed 8\n", false, 1)[0]);
    kx_thread_t task{};
    ASSERT_NE(kx_thread_fetch(master_, &task), nullptr);
    kx_thread_call(&task);
    EXPECT_TRUE(core_.mirror().mirrored().has_value());
    EXPECT_EQ(sample::calls.speed, 5);
}

TEST_F(Config_mirror_standby, waits_for_its_own_startup_configuration)
{
    ASSERT_EQ(cli::write_config_file(cli::startup_config_path(), "fan speed 2\n"), "");
    rdnd_double::state.role = RDND_ROLE_SLAVE;
    core_.mirror().start(master_);
    receive(std::string("fan speed 9\n!\n") + interfaces_text);
    EXPECT_EQ(sample::calls.speed, 5);
    core_.set_ready();
    serve();
    EXPECT_EQ(sample::calls.speed, 9);
}

TEST_F(Config_mirror_standby, tells_once_what_it_cannot_follow)
{
    start(RDND_ROLE_SLAVE);
    receive(std::string("fan lights on\n") + interfaces_text);
    core_.mark_changed();
    serve();
    const std::vector<std::string> log = platform_double::take_log();
    EXPECT_THAT(log, testing::Contains(HasSubstr("%CLI-4-MIRROR: this unit cannot follow the active unit's "
                                                 "configuration: fan lights on")));
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string &line) { return line.find("MIRROR") != std::string::npos; }),
              1);
}

TEST_F(Config_mirror_standby, saves_what_the_active_unit_has_saved)
{
    start(RDND_ROLE_SLAVE);
    receive("fan speed 8\n");
    EXPECT_FALSE(cli::read_config_file(cli::startup_config_path()).text.has_value());
    receive("fan speed 8\n", true);
    const cli::ConfigText file = cli::read_config_file(cli::startup_config_path());
    ASSERT_TRUE(file.text.has_value());
    EXPECT_THAT(*file.text, HasSubstr("\nfan speed 8\n"));
}

TEST_F(Config_mirror_standby, that_takes_over_keeps_the_configuration_and_takes_commands)
{
    start(RDND_ROLE_SLAVE);
    receive(std::string("fan speed 8\n") + interfaces_text);
    rdnd_double::state.role = RDND_ROLE_MASTER;
    deliver(RDND_E_SWITCHOVER);
    EXPECT_THAT(rdnd_double::state.completions, ElementsAre(RDND_NOTIFY_SWITCHOVER));
    deliver(RDND_E_SWITCHOVER_END);
    serve();
    EXPECT_EQ(sample::calls.speed, 8);
    EXPECT_FALSE(core_.mirror().mirrored().has_value());
    Console console(core_, Level::privileged);
    ASSERT_EQ(run(console, "configure terminal").status, Status::ok);
    ASSERT_EQ(run(console, "fan speed 3").status, Status::ok);
    serve();
    EXPECT_EQ(sample::calls.speed, 3) << "nothing pulls it back";
}

TEST_F(Config_mirror_standby, that_takes_over_enters_at_the_last_moment_what_is_missing)
{
    start(RDND_ROLE_SLAVE);
    receive(std::string("fan speed 8\n") + interfaces_text);
    sample::calls.speed = 5;
    rdnd_double::state.role = RDND_ROLE_MASTER;
    deliver(RDND_E_SWITCHOVER_END);
    serve();
    EXPECT_EQ(sample::calls.speed, 8);
}

TEST_F(Config_mirror_standby, ignores_configurations_when_it_is_the_active_unit)
{
    start(RDND_ROLE_MASTER);
    receive("fan speed 8\n", true);
    EXPECT_EQ(sample::calls.speed, 5);
    EXPECT_FALSE(core_.mirror().mirrored().has_value());
    EXPECT_FALSE(cli::read_config_file(cli::startup_config_path()).text.has_value());
}

// ---- The active unit ----------------------------------------------------------------------------------------------

TEST_F(Config_mirror_active, sends_everything_when_asked_and_then_each_change)
{
    start(RDND_ROLE_MASTER);
    EXPECT_EQ(rdnd_double::state.name, "SFLOW_CONFIG");
    core_.mark_changed();
    serve();
    EXPECT_THAT(sent(), IsEmpty()) << "nobody has asked";
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(sent(), ElementsAre(interfaces_text));
    EXPECT_THAT(rdnd_double::state.completions, ElementsAre(RDND_NOTIFY_BATCH));
    sample::calls.speed = 9;
    core_.mark_changed();
    serve();
    EXPECT_THAT(sent(), ElementsAre(std::string("fan speed 9\n!\n") + interfaces_text));
    core_.mark_changed();
    serve();
    EXPECT_THAT(sent(), IsEmpty()) << "nothing is different";
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(sent(), SizeIs(1)) << "another standby has nothing yet";
}

TEST_F(Config_mirror_active, sends_nothing_before_its_startup_configuration_is_in_force)
{
    ASSERT_EQ(cli::write_config_file(cli::startup_config_path(), "fan speed 2\n"), "");
    rdnd_double::state.role = RDND_ROLE_MASTER;
    core_.mirror().start(master_);
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(rdnd_double::state.completions, IsEmpty());
    core_.set_ready();
    serve();
    EXPECT_THAT(sent(), testing::Contains(HasSubstr("fan speed 2\n")));
    EXPECT_THAT(rdnd_double::state.completions, ElementsAre(RDND_NOTIFY_BATCH));
}

TEST_F(Config_mirror_active, tells_when_it_has_saved)
{
    start(RDND_ROLE_MASTER);
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    static_cast<void>(sent());
    EXPECT_EQ(core_.save_config(), "");
    EXPECT_THAT(sent(), ElementsAre(std::string("saved: ") + interfaces_text));
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(sent(), ElementsAre(std::string("saved: ") + interfaces_text));
}

TEST_F(Config_mirror_active, stops_when_told_to)
{
    start(RDND_ROLE_MASTER);
    rdnd_double::state.enqueue_result = RDND_ENQUEUE_STOP;
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(rdnd_double::state.completions, IsEmpty()) << "a batch that was stopped is not completed";
    rdnd_double::state.enqueue_result = RDND_ENQUEUE_OK;
    sample::calls.speed = 9;
    core_.mark_changed();
    serve();
    EXPECT_THAT(sent(), IsEmpty());
    deliver(RDND_E_BATCH_SYN_REQ);
    serve();
    EXPECT_THAT(sent(), SizeIs(1));
}

TEST_F(Config_mirror_active, judges_the_version_of_the_other_unit)
{
    start(RDND_ROLE_MASTER);
    for (const unsigned long version : {1UL, 2UL}) {
        std::string data(sizeof(version), '\0');
        std::memcpy(data.data(), &version, sizeof(version));
        EXPECT_EQ(rdnd_double::deliver(RDND_E_VERSION_CHECK, data),
                  version == 1 ? RDND_VERCHK_PASS : RDND_VERCHK_NG);
    }
}

TEST_F(Config_mirror_active, registers_as_soon_as_the_redundancy_service_is_there)
{
    rdnd_double::state.registers = false;
    core_.mirror().start(master_);
    kx_thread_t task{};
    ASSERT_NE(kx_thread_fetch(master_, &task), nullptr);
    kx_thread_call(&task);
    EXPECT_EQ(rdnd_double::state.handler, nullptr);
    rdnd_double::state.registers = true;
    serve();
    EXPECT_NE(rdnd_double::state.handler, nullptr);
}

// ---- Pieces -------------------------------------------------------------------------------------------------------

TEST(Config_assembly, puts_texts_of_any_length_together)
{
    ConfigAssembly assembly;
    std::uint32_t generation = 0;
    for (const std::size_t length : {0, 1, 32767, 32768, 32769, 200000}) {
        const std::string text(length, 'x');
        const std::vector<std::string> pieces = ConfigAssembly::pieces(text, length % 2 == 1, ++generation);
        EXPECT_EQ(pieces.size(), std::max<std::size_t>(1, (length + 32767) / 32768));
        std::optional<ConfigAssembly::Whole> whole;
        for (const std::string &piece : pieces) {
            EXPECT_FALSE(whole.has_value());
            EXPECT_LE(piece.size(), 65536U) << "what a checkpoint message holds";
            whole = assembly.add(piece);
        }
        ASSERT_TRUE(whole.has_value()) << length;
        EXPECT_EQ(whole->text, text);
        EXPECT_EQ(whole->saved, length % 2 == 1);
    }
}

TEST(Config_assembly, drops_what_does_not_fit_together)
{
    const std::vector<std::string> one = ConfigAssembly::pieces(std::string(100000, 'a'), false, 1);
    const std::vector<std::string> two = ConfigAssembly::pieces(std::string(100000, 'b'), false, 2);
    ConfigAssembly assembly;
    EXPECT_FALSE(assembly.add(one[1])) << "not a beginning";
    EXPECT_FALSE(assembly.add(one[0]));
    EXPECT_FALSE(assembly.add(two[1])) << "of another text";
    EXPECT_FALSE(assembly.add(one[1])) << "what came before is gone with it";
    for (std::size_t length = 0; length < 16; ++length)
        EXPECT_FALSE(assembly.add(one[0].substr(0, length))) << length;
    std::string longer = ConfigAssembly::pieces("abc", false, 3)[0] + "d";
    EXPECT_FALSE(assembly.add(longer));
    EXPECT_FALSE(assembly.add(one[0]));
    EXPECT_FALSE(assembly.add(one[1]));
    EXPECT_FALSE(assembly.add(one[1])) << "twice";
    std::string huge = one[0];
    const std::uint32_t total = 0xffffffff;
    std::memcpy(huge.data() + 4, &total, sizeof(total));
    EXPECT_FALSE(assembly.add(huge));
    EXPECT_FALSE(assembly.add(huge));
    const std::string small = ConfigAssembly::pieces("abc", true, 4)[0];
    EXPECT_TRUE(assembly.add(small)) << "the next text is taken";
}

// ---- Differences --------------------------------------------------------------------------------------------------

TEST(Config_changes, removes_backwards_and_adds_forwards_section_by_section)
{
    const std::string actual = "a 1\nb 2\n!\ninterface x\n e 1\n f 2\n!\ninterface y\n e 1\n!\nlast 1\n";
    const std::string desired = "a 1\nb 3\n!\ninterface x\n f 2\n g 3\n!\ninterface z\n e 1\n!\nlast 2\n";
    EXPECT_THAT(cli::config_changes(actual, desired),
                ElementsAre(ConfigChange{"", "last 1", true}, ConfigChange{"interface y", "e 1", true},
                            ConfigChange{"interface x", "e 1", true}, ConfigChange{"", "b 2", true},
                            ConfigChange{"", "b 3", false}, ConfigChange{"interface x", "g 3", false},
                            ConfigChange{"interface z", "e 1", false}, ConfigChange{"", "last 2", false}));
    EXPECT_THAT(cli::config_changes(actual, actual), IsEmpty());
    EXPECT_THAT(cli::config_changes("", ""), IsEmpty());
}

TEST(Config_changes, a_list_is_made_with_its_heading_and_goes_with_it)
{
    const std::string actual = "ip access-list standard 5\n 10 permit any\n 20 deny any\n!\n"
                               "ip access-list standard 6\n 10 permit any\n!\nsflow sampling-rate 5000\n";
    const std::string desired = "ip access-list standard 5\n 10 deny any\n 20 deny any\n!\n"
                                "ip access-list standard 7\n 10 permit any\n!\nsflow sampling-rate 5000\n";
    const std::string five = "ip access-list standard 5";
    const std::string seven = "ip access-list standard 7";
    EXPECT_THAT(cli::config_changes(actual, desired),
                ElementsAre(ConfigChange{.section = "", .line = "ip access-list standard 6", .remove = true},
                            ConfigChange{.section = five, .line = "10 permit any", .remove = true},
                            ConfigChange{.section = five, .line = "10 deny any"},
                            ConfigChange{.section = "", .line = seven},
                            ConfigChange{.section = seven, .line = "10 permit any"}));
    EXPECT_THAT(cli::config_changes("ip access-list standard 5\n!\n", "ip access-list standard 5\n!\n"),
                IsEmpty());
}

TEST(Config_changes, an_interface_without_settings_is_no_difference)
{
    EXPECT_THAT(cli::config_changes("interface x\n!\n", "!\n"), IsEmpty());
}

TEST(Config_changes, a_value_is_exchanged_where_only_the_last_word_differs)
{
    const std::vector<ConfigChange> changes =
        cli::config_changes("a 1\nb 2 x\nc 1\n!\ninterface x\n a 5\n", "a 2\nb 3 x\ninterface x\n d 1\n");
    EXPECT_THAT(cli::exchanging_values(changes),
                ElementsAre(ConfigChange{"interface x", "a 5", true}, ConfigChange{"", "c 1", true},
                            ConfigChange{"", "b 2 x", true}, ConfigChange{"", "a 2", false},
                            ConfigChange{"", "b 3 x", false}, ConfigChange{"interface x", "d 1", false}));
}

TEST(Config_changes, a_negation_forgets_word_by_word)
{
    EXPECT_THAT(cli::negations("fan  speed 8"), ElementsAre("no fan  speed 8", "no fan  speed"));
    EXPECT_THAT(cli::negations("fan on"), ElementsAre("no fan on"));
    EXPECT_THAT(cli::negations("fan"), IsEmpty());
}
