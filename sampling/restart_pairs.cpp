#include "restart_pairs.h"

#include "records.h"

#include <utility>

namespace sampling
{

RestartPairs::Decision RestartPairs::arrived(SamplerKey key, const sflow_spl_t &setting,
                                             Clock::time_point now)
{
    using Action = Decision::Action;
    const bool of_list = names_acl(setting);
    if (setting.rate == 0) {
        Course &course = courses_[key];
        Decision decision{.first = std::exchange(course.held, std::nullopt)};
        if (course.list_answer || decision.first)
            course = Course{};
        (of_list ? course.list_stopped : course.plain_stopped) = true;
        course.list_stopped_last = of_list;
        course.since = now;
        return decision;
    }
    const auto found = courses_.find(key);
    if (found == courses_.end())
        return {};
    Course &course = found->second;
    const Clock::duration age = now - course.since;
    if (!course.plain_stopped || !course.list_stopped ||
        age > (course.list_answer ? patience : longest_restart)) {
        Decision decision{.first = course.held};
        courses_.erase(found); // no restart: the start speaks for itself
        return decision;
    }
    if (of_list)
        return {};
    if (course.list_answer) {
        const Answer answer = *course.list_answer;
        courses_.erase(found);
        return {.action = answer == Answer::ok ? Action::carry_out : Action::refuse, .refusal = answer};
    }
    if (!course.list_stopped_last) {
        courses_.erase(found);
        return {};
    }
    course.since = now;
    return {.action = Action::hold, .first = std::exchange(course.held, setting)};
}

std::optional<sflow_spl_t> RestartPairs::settled(SamplerKey key, const sflow_spl_t &setting, Answer answer,
                                                 Clock::time_point now)
{
    const auto found = courses_.find(key);
    if (found == courses_.end() || setting.rate == 0 || !names_acl(setting))
        return std::nullopt;
    Course &course = found->second;
    if (course.held) {
        std::optional<sflow_spl_t> held = course.held;
        courses_.erase(found);
        return held;
    }
    course.list_answer = answer;
    course.since = now;
    return std::nullopt;
}

std::vector<sflow_spl_t> RestartPairs::overdue(Clock::time_point now)
{
    std::vector<sflow_spl_t> settings;
    std::erase_if(courses_, [now, &settings](const auto &entry) {
        const Course &course = entry.second;
        if (course.since + (course.held ? patience : longest_restart) > now)
            return false;
        if (course.held)
            settings.push_back(*course.held);
        return true;
    });
    return settings;
}

} // namespace sampling
