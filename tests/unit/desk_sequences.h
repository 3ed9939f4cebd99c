// Command sequences as operators might type them, sensible and not, with what may happen around the daemon in between.
#pragma once

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

namespace desk
{

/// Draws sequences of lines of configuration mode; with events also of steps "@" and what happens to the network or
/// the sampling service. The same seed draws the same.
class Sequences
{
public:
    Sequences(unsigned seed, bool with_events)
        : random_(seed), with_events_(with_events), management_stays_(!with_events || chance(50))
    {
    }

    [[nodiscard]] std::vector<std::string> sequence();

private:
    using Words = std::initializer_list<const char *>;

    int number(int least, int most) { return std::uniform_int_distribution<int>(least, most)(random_); }
    bool chance(int percent) { return number(1, 100) <= percent; }
    std::string one_of(Words words);

    std::string interface();
    std::string any_interface(); ///< those that cannot be sampled too
    std::string ipv4();
    std::string ipv6();
    std::string description();
    std::string destination();
    std::string collector();
    std::string agent_or_source();
    std::string parameter();
    std::string interface_command();
    std::string list();
    void edit_list(std::vector<std::string> &steps);
    std::string event();
    void add_step(std::vector<std::string> &steps);

    std::mt19937 random_;
    bool with_events_;
    bool management_stays_; ///< its interface in a VRF; collectors may be reached through it
    std::vector<std::string> destinations_;
};

} // namespace desk
