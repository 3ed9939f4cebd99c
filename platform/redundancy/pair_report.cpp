// What operators are told of a pair.
#include "redundancy/pair.h"

#include <array>
#include <ctime>
#include <syslog.h>

namespace platform
{

namespace
{

std::string_view word(rdnd_role role)
{
    switch (role) {
    case RDND_ROLE_MASTER:
        return "master";
    case RDND_ROLE_SLAVE:
        return "standby";
    case RDND_ROLE_CANDIDATE:
        return "candidate";
    case RDND_ROLE_ALONE:
        return "alone";
    case RDND_ROLE_NONE:
        break;
    }
    return "none";
}

std::string_view word(rdnd_stat state)
{
    switch (state) {
    case RDND_STAT_INIT:
        return "starting";
    case RDND_STAT_ALONE:
        return "alone";
    case RDND_STAT_BATCH:
        return "batch";
    case RDND_STAT_REALTIME:
        return "realtime";
    case RDND_STAT_SWITCHOVER:
        break;
    }
    return "switchover";
}

std::string local_time(std::chrono::system_clock::time_point when)
{
    std::array<char, 32> text{};
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "?";
    return text.data();
}

} // namespace

std::string Pair::name_of(MemberId id) const
{
    const StateFrame *state = roster_.state_of(id);
    const std::string node = "node " + std::to_string(id.node);
    return state != nullptr && !state->host.empty() ? node + " (" + state->host + ")" : node;
}

std::string Pair::describe_peer() const
{
    std::string text;
    for (const auto &[id, member] : roster_.members()) {
        if (id == roster_.self())
            continue;
        text += (text.empty() ? "" : "; ") + name_of(id);
        if (!member.state)
            text += ", says nothing";
        else if (silent(id))
            text += ", no sign of life";
        else
            text.append(", ").append(word(member.state->role)).append(", ").append(word(member.state->state));
    }
    return text.empty() ? "none" : text;
}

void Pair::note_switchover(const std::string &what)
{
    last_switchover_ = {.when = std::chrono::system_clock::now(), .what = what};
    log(LOG_NOTICE, "ROLE", what);
}

std::vector<RdndReportLine> Pair::report(rdnd_role role) const
{
    constexpr std::array<std::string_view, 3> quorum_words{"not known", "no", "yes"};
    std::vector<RdndReportLine> lines{
        {"Role", std::string(word(role))},
        {"State", std::string(word(state()))},
        {"Quorum", std::string(connected_ ? quorum_words.at(static_cast<std::size_t>(quorum_now())) : "no")},
        {"This unit", connected_ ? "node " + std::to_string(roster_.self().node) + " (" + settings_.host + ")"
                                 : "not in the group"},
        {"Peer", describe_peer()},
    };
    for (const auto &[name, counts] : sync_.counts())
        lines.push_back({"Checkpoints of " + name, std::to_string(counts.sent) + " sent, " +
                                                       std::to_string(counts.received) + " received, " +
                                                       std::to_string(counts.refused) + " refused"});
    lines.push_back({"Messages refused", std::to_string(refused_)});
    lines.push_back(
        {"Last switchover",
         last_switchover_ ? local_time(last_switchover_->when) + ", " + last_switchover_->what : "none"});
    return lines;
}

} // namespace platform
