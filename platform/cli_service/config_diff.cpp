#include "config_diff.h"

#include "config_file.h"
#include "words.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace cli
{
namespace
{

bool is_interface(std::string_view heading)
{
    constexpr std::string_view word = "interface ";
    return heading.substr(0, word.size()) == word;
}

/// Every line with the section that it stands in. The heading of an interface is no setting; that of another section
/// is, for it makes what it names.
std::vector<ConfigChange> settings_of(std::string_view text)
{
    std::vector<ConfigChange> settings;
    std::string section;
    for_each_line(text, [&](int /*number*/, std::string_view line) {
        const std::size_t first = line.find_first_not_of(' ');
        if (first == std::string_view::npos || line[first] == '!')
            return;
        if (first == 0) {
            section = line;
            if (is_interface(line))
                return;
        }
        settings.push_back(
            {.section = first == 0 ? std::string() : section, .line = std::string(line.substr(first))});
    });
    return settings;
}

} // namespace

std::vector<ConfigChange> config_changes(std::string_view actual, std::string_view desired)
{
    const std::vector<ConfigChange> before = settings_of(actual);
    const std::vector<ConfigChange> after = settings_of(desired);
    const auto missing_in = [](const std::vector<ConfigChange> &list) {
        return [known = std::set<ConfigChange>(list.begin(), list.end())](const ConfigChange &one) {
            return !known.contains(one);
        };
    };
    std::vector<ConfigChange> changes;
    std::copy_if(before.rbegin(), before.rend(), std::back_inserter(changes), missing_in(after));
    // What stands in a section goes with it.
    const auto goes_with_its_section =
        [removed = std::set<ConfigChange>(changes.begin(), changes.end())](const ConfigChange &change) {
            return !change.section.empty() &&
                   removed.contains(ConfigChange{.section = {}, .line = change.section});
        };
    std::erase_if(changes, goes_with_its_section);
    for (ConfigChange &change : changes)
        change.remove = true;
    std::copy_if(after.begin(), after.end(), std::back_inserter(changes), missing_in(before));
    return changes;
}

std::vector<ConfigChange> exchanging_values(std::vector<ConfigChange> changes)
{
    const auto without_value = [](const ConfigChange &change) {
        const std::vector<Word> words = split_words(change.line);
        return std::pair(change.section, change.line.substr(0, words.empty() ? 0 : words.back().column));
    };
    std::set<std::pair<std::string, std::string>> added;
    for (const ConfigChange &change : changes)
        if (!change.remove)
            added.insert(without_value(change));
    std::erase_if(changes, [&](const ConfigChange &change) {
        return change.remove && added.contains(without_value(change));
    });
    return changes;
}

std::vector<std::string> negations(std::string_view line)
{
    constexpr std::size_t least_words = 2;
    std::vector<std::string> forms;
    const std::vector<Word> words = split_words(line);
    for (std::size_t count = words.size(); count >= least_words; --count) {
        const Word &last = words[count - 1];
        forms.push_back("no " + std::string(line.substr(0, last.column + last.text.size())));
    }
    return forms;
}

} // namespace cli
