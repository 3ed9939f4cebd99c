// The running configuration, entered into an empty daemon, is the running configuration: for every combination of what
// a collector and an interface can have, and for what thousands of command sequences leave behind, with refusals of
// the sampling service and changes of the network in between.
#include "desk.h"
#include "desk_network.h"
#include "desk_sequences.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using desk::Desk;
using desk::Operator;
using Lines = std::vector<std::string>;

Desk &the_desk()
{
    static const TemporaryDirectory directory;
    static Desk desk(directory.path());
    return desk;
}

Lines split(const std::string &text)
{
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// ---- Steps ---------------------------------------------------------------------------------------------------------

/// A line of configuration mode, or something that happens around the daemon: "@" and what.
struct Event {
    const char *name;
    void (*happens)(const Lines &words);
};
const Event EVENTS[] = {
    {"@refuse", [](const Lines &words) { the_desk().refuse_with(std::stoi(words[1])); }},
    {"@disconnect", [](const Lines &) { the_desk().connect(false); }},
    {"@connect", [](const Lines &) { the_desk().connect(true); }},
    {"@capacity",
     [](const Lines &words) {
         the_desk().set_capacity(static_cast<u_int32_t>(std::stoul(words[1], nullptr, 16)));
     }},
    {"@remove", [](const Lines &words) { desk::remove_link(words[1]); }},
    {"@move", [](const Lines &words) { desk::move_to_vrf(words[1], words.size() > 2 ? words[2] : ""); }},
    {"@add", [](const Lines &words) { desk::add_address(words[1], words[2]); }},
    {"@delete", [](const Lines &words) { desk::remove_address(words[1], words[2]); }},
    {"@restore", [](const Lines &) { desk::restore_network(); }},
};

void happen(const std::string &step)
{
    Lines words;
    std::istringstream in(step);
    for (std::string word; in >> word;)
        words.push_back(word);
    const auto *event = std::find_if(std::begin(EVENTS), std::end(EVENTS),
                                     [&](const Event &candidate) { return words[0] == candidate.name; });
    ASSERT_NE(event, std::end(EVENTS)) << step;
    event->happens(words);
    the_desk().pump();
    the_desk().answer();
}

void perform(Operator &somebody, const Lines &steps)
{
    for (const std::string &step : steps) {
        if (step.starts_with("@"))
            happen(step);
        else
            somebody.type(step);
    }
}

/// Enters the configuration into an empty daemon on the network as it is now. What is wrong with it; empty when it is
/// itself again.
std::string objection(const std::string &config)
{
    Desk &desk = the_desk();
    desk.forget_configuration();
    if (const std::string left = desk.running_config(); !left.empty())
        return "an empty daemon has\n" + left;
    Operator somebody(desk, cli::Level::privileged, cli::Mode::config);
    for (const std::string &line : split(config)) {
        const Operator::Answer answer = somebody.type(line);
        if (answer.status != cli::Status::ok || !answer.text.empty())
            return "\"" + line + "\" is answered with\n" + answer.text + "in\n" + config;
    }
    const std::string again = desk.running_config();
    return again == config ? "" : "entered:\n" + config + "is then:\n" + again;
}

/// The configuration that the steps lead to is not stable; why.
std::string objection_after(const Lines &steps, std::set<std::string> *seen = nullptr)
{
    Desk &desk = the_desk();
    desk.start_over();
    Operator somebody(desk, cli::Level::privileged, cli::Mode::config);
    perform(somebody, steps);
    const std::string config = desk.running_config();
    if (const std::string second = desk.running_config(); second != config)
        return "printed first:\n" + config + "printed then:\n" + second;
    if (seen != nullptr)
        for (const std::string &line : split(config))
            seen->insert(line);
    return objection(config);
}

/// Leaves out steps as long as the sequence still fails.
Lines shrink(Lines steps)
{
    for (bool smaller = true; smaller;) {
        smaller = false;
        for (std::size_t i = 0; i < steps.size() && !smaller; ++i) {
            Lines fewer = steps;
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
            if (!objection_after(fewer).empty()) {
                steps = std::move(fewer);
                smaller = true;
            }
        }
    }
    return steps;
}

std::string joined(const Lines &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

void expect_stable(const Lines &steps, std::set<std::string> *seen = nullptr)
{
    if (objection_after(steps, seen).empty())
        return;
    const Lines least = shrink(steps);
    ADD_FAILURE() << "after\n" << joined(least) << objection_after(least);
}

// ---- Everything that a collector and an interface can have ---------------------------------------------------------

/// Every destination line of a collector, without its id.
Lines every_destination(const std::string &ipv4, const std::string &ipv6)
{
    Lines lines;
    for (const bool is_ipv6 : {false, true}) {
        const std::string address = is_ipv6 ? "ipv6 " + ipv6 : ipv4;
        const std::string own = is_ipv6 ? "2001:db8:9::9" : "10.9.9.9";
        for (const char *const network : {"", " vrf red", " oob", " oob via ma1"})
            for (const char *const description : {"", " description rack-4"})
                for (const std::string &source :
                     {std::string(), " source address " + own, std::string(" source interface port2")})
                    lines.push_back(" destination " + address + " 6343" + network + description + source);
    }
    return lines;
}

/// Lines of interface mode, each there or not.
const Lines ENABLES = {"sflow enable",
                       "sflow enable ingress",
                       "sflow enable egress",
                       "sflow enable ingress by-snoop",
                       "sflow enable ingress acl 5",
                       "sflow enable ingress acl web"};

} // namespace

TEST(Running_config_fixed_point, every_pair_of_collectors)
{
    for (const std::string &first : every_destination("198.51.100.1", "2001:db8::1"))
        for (const std::string &second : every_destination("198.51.100.2", "2001:db8::2"))
            expect_stable({"sflow collector 1" + first, "sflow collector 2" + second});
}

TEST(Running_config_fixed_point, a_destination_line_is_the_line_that_was_entered)
{
    for (const char *const id : {"1", "2"})
        for (const std::string &rest : every_destination("198.51.100.1", "2001:db8::1")) {
            const std::string line = std::string("sflow collector ") + id + rest;
            the_desk().start_over();
            Operator somebody(the_desk(), cli::Level::privileged, cli::Mode::config);
            EXPECT_EQ(somebody.type(line).text, "");
            EXPECT_EQ(the_desk().running_config(), line + "\n!\n");
            EXPECT_EQ(somebody.type("no " + line).text, "");
            EXPECT_EQ(the_desk().running_config(), "");
        }
}

TEST(Running_config_fixed_point, every_combination_on_an_interface)
{
    for (unsigned enables = 0; enables < 1U << ENABLES.size(); ++enables)
        for (int flow = 0; flow <= 2; ++flow)
            for (int counter = 0; counter <= 2; ++counter) {
                Lines steps = {"sflow collector 1 destination 198.51.100.1 6343",
                               "sflow collector 2 destination 198.51.100.2 6343", "ip access-list standard 5",
                               "ip access-list extended web", "interface port1"};
                for (std::size_t i = 0; i < ENABLES.size(); ++i)
                    if ((enables >> i & 1U) != 0)
                        steps.push_back(ENABLES[i]);
                if (flow > 0)
                    steps.push_back("sflow flow collector " + std::to_string(flow));
                if (counter > 0)
                    steps.push_back("sflow counter collector " + std::to_string(counter));
                expect_stable(steps);
            }
}

TEST(Running_config_fixed_point, a_management_interface_that_leaves_its_vrf_leaves_the_line)
{
    const std::string line = "sflow collector 1 destination 198.51.100.1 6343";
    expect_stable({line + " oob via ma1", "@move ma1"});
    EXPECT_EQ(the_desk().running_config(), line + "\n!\n");
    expect_stable({line + " oob via ma1", "@remove mgmt"});
    expect_stable({line + " oob via ma1", "@move ma1 red"});
    EXPECT_EQ(the_desk().running_config(), line + " oob via ma1\n!\n");
}

// ---- Sequences -----------------------------------------------------------------------------------------------------

namespace
{

unsigned from_environment(const char *name, unsigned otherwise)
{
    const char *const text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

/// Whether a line of the set has all these pieces.
bool has(const std::set<std::string> &lines, std::initializer_list<const char *> pieces)
{
    return std::any_of(lines.begin(), lines.end(), [&](const std::string &line) {
        return std::all_of(pieces.begin(), pieces.end(),
                           [&](const char *piece) { return line.find(piece) != std::string::npos; });
    });
}

} // namespace

TEST(Running_config_fixed_point, whatever_commands_and_events_led_there)
{
    // Longer: SFLOW_SEQUENCES=100000 SFLOW_SEED=1
    const unsigned count = from_environment("SFLOW_SEQUENCES", 3000);
    const unsigned seed = from_environment("SFLOW_SEED", 20240101);
    std::set<std::string> seen;
    for (unsigned i = 0; i < count && !HasFailure(); ++i) {
        SCOPED_TRACE("SFLOW_SEED=" + std::to_string(seed + i) + " SFLOW_SEQUENCES=1");
        expect_stable(desk::Sequences(seed + i, true).sequence(), &seen);
    }
    if (count < 1000)
        return;
    // What would be missing if the sequences went nowhere.
    for (const auto &pieces : std::initializer_list<std::initializer_list<const char *>>{
             {"collector 1 destination", "vrf red", "description", "source interface"},
             {"collector 2 destination ipv6", " oob via ma1", "source address"},
             {"collector 1 destination", " oob", "description |"},
             {"max-datagram-size 9000"},
             {"agent address ipv6"},
             {"agent interface ipv6"},
             {"source address ipv6"},
             {"source interface ra"},
             {"interval 2147483647"},
             {"max-header 61"},
             {"sampling-rate 16777215"},
             {" sflow enable ingress by-snoop"},
             {" sflow enable ingress acl web"},
             {" sflow enable ingress acl 6"},
             {"ip access-list extended web"},
             {" remark the web servers"},
             {" permit tcp any any eq 443"},
             {" permit ipv6 2001:db8::/32 any"},
             {" sflow enable egress"},
             {" sflow flow collector 2"},
             {" sflow counter collector 1"},
             {"interface port1.5"},
             {"interface bond0"},
         })
        EXPECT_TRUE(has(seen, pieces)) << *pieces.begin();
}
