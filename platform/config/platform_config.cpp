// Reads platform.toml with toml++ and checks every section, key and value against one table, so that a misspelt key
// is told to the operator instead of silently meaning its default.

#include "config/platform_config.h"

#include "lock/immortal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sched.h>
#include <syslog.h>
#include <toml++/toml.h>

namespace platform
{

namespace
{

constexpr std::size_t interface_name_max = 15; // IFNAMSIZ without the NUL
constexpr std::size_t group_name_max = 64;

template <typename T>
struct Choice {
    std::string_view word;
    T value;
};

constexpr Choice<LogTarget> log_targets[] = {
    {"auto", LogTarget::automatic},
    {"syslog", LogTarget::syslog},
    {"stderr", LogTarget::standard_error},
};

constexpr Choice<RedundancyMode> redundancy_modes[] = {
    {"standalone", RedundancyMode::standalone},
    {"corosync", RedundancyMode::corosync},
};

template <typename T, std::size_t N>
bool choose(const toml::node &node, const Choice<T> (&choices)[N], T &result)
{
    const auto word = node.value_exact<std::string_view>();
    const auto *found =
        std::find_if(std::begin(choices), std::end(choices), [&](const auto &c) { return c.word == word; });
    if (found == std::end(choices))
        return false;
    result = found->value;
    return true;
}

bool apply_target(const toml::node &node, std::string_view, Config &config)
{
    return choose(node, log_targets, config.syslog_target);
}

bool apply_queue(const toml::node &node, std::string_view, Config &config)
{
    const auto lines = node.value_exact<int64_t>();
    if (!lines || *lines < 1 || *lines > 1'000'000)
        return false;
    config.syslog_queue = static_cast<int>(*lines);
    return true;
}

bool apply_mode(const toml::node &node, std::string_view, Config &config)
{
    return choose(node, redundancy_modes, config.redundancy);
}

bool apply_group(const toml::node &node, std::string_view, Config &config)
{
    const auto name = node.value_exact<std::string>();
    const auto is_graphic = [](unsigned char c) { return std::isgraph(c) != 0; };
    if (!name || name->empty() || name->size() > group_name_max ||
        !std::all_of(name->begin(), name->end(), is_graphic))
        return false;
    config.redundancy_group = *name;
    return true;
}

bool apply_peer_timeout(const toml::node &node, std::string_view, Config &config)
{
    const auto ms = node.value_exact<int64_t>();
    if (!ms || *ms < 750 || *ms > 60'000)
        return false;
    config.redundancy_peer_timeout = std::chrono::milliseconds(*ms);
    return true;
}

bool apply_cores(const toml::node &node, std::string_view process, Config &config)
{
    const toml::array *array = node.as_array();
    if (array == nullptr || array->empty())
        return false;
    std::vector<int> cores;
    for (const toml::node &element : *array) {
        const auto core = element.value_exact<int64_t>();
        if (!core || *core < 0 || *core >= CPU_SETSIZE)
            return false;
        cores.push_back(static_cast<int>(*core));
    }
    config.cores.insert_or_assign(std::string(process), std::move(cores));
    return true;
}

bool apply_management(const toml::node &node, std::string_view, Config &config)
{
    const toml::array *array = node.as_array();
    if (array == nullptr)
        return false;
    std::vector<std::string> names;
    for (const toml::node &element : *array) {
        const auto name = element.value_exact<std::string>();
        if (!name || name->empty() || name->size() > interface_name_max)
            return false;
        names.push_back(*name);
    }
    config.management_interfaces = std::move(names);
    return true;
}

/// One key. A section whose name ends in ".*" has one sub-table a name, and `apply` gets that name.
struct Key {
    std::string_view section;
    std::string_view name;
    std::string_view accepted;
    bool (*apply)(const toml::node &node, std::string_view sub_table, Config &config);
};

constexpr Key keys[] = {
    {"syslog", "target", R"("auto", "syslog" or "stderr")", apply_target},
    {"syslog", "queue", "a number of lines, 1 to 1000000", apply_queue},
    {"redundancy", "mode", R"("standalone" or "corosync")", apply_mode},
    {"redundancy", "group", "a name of 1 to 64 characters without blanks", apply_group},
    {"redundancy", "peer_timeout_ms", "a number of milliseconds, 750 to 60000", apply_peer_timeout},
    {"cpu.*", "cores", "a list of one or more core numbers, 0 to 1023", apply_cores},
    {"interfaces", "management", "a list of interface names of at most 15 characters", apply_management},
};

/// The names that `project` takes from the rows that `filter` admits, each once, for a message.
template <typename Filter, typename Project>
std::string list_of(Filter filter, Project project)
{
    std::string text;
    std::string_view last;
    for (const Key &key : keys) {
        if (!filter(key) || project(key) == last)
            continue;
        last = project(key);
        text.append(text.empty() ? "" : ", ").append(last);
    }
    return text;
}

/// Quoted pieces of the file may hold line ends, a message may not.
std::string one_line(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
    return text;
}

class Reader
{
public:
    explicit Reader(std::string_view file_name) : file_name_(file_name) {}

    ConfigResult read(std::string_view text)
    {
        toml::table root;
        try {
            root = toml::parse(text, file_name_);
        } catch (const toml::parse_error &error) {
            return ConfigError{one_line(at(error.source().begin.line) +
                                        "not valid TOML: " + std::string(error.description()))};
        }
        for (const auto &[key, node] : root) {
            if (!read_section(key, node))
                return ConfigError{one_line(mistake_)};
        }
        return config_;
    }

private:
    [[nodiscard]] std::string at(std::size_t line) const
    {
        return std::string(file_name_) + ":" + std::to_string(line) + ": ";
    }

    bool fail(const toml::key &where, const std::string &what, std::string_view accepted)
    {
        mistake_ = at(where.source().begin.line) + what + "; accepted: " + std::string(accepted);
        return false;
    }

    bool read_section(const toml::key &key, const toml::node &node)
    {
        const std::string name(key.str());
        const std::string many = name + ".*";
        const auto is_section = [&](const Key &row) { return row.section == name || row.section == many; };
        const auto *found = std::find_if(std::begin(keys), std::end(keys), is_section);
        const toml::table *table = node.as_table();
        if (found == std::end(keys) || table == nullptr) {
            const auto every = [](const Key &) { return true; };
            return fail(key, "no section \"" + name + "\"",
                        list_of(every, [](const Key &k) { return k.section; }));
        }
        if (found->section == name)
            return read_keys(name, name, *table);
        for (const auto &[sub_key, sub_node] : *table) {
            if (sub_node.as_table() == nullptr)
                return fail(sub_key, "no key \"" + std::string(sub_key.str()) + "\" in [" + name + "]", many);
            if (!read_keys(many, sub_key.str(), *sub_node.as_table()))
                return false;
        }
        return true;
    }

    bool read_keys(std::string_view section, std::string_view title, const toml::table &table)
    {
        const auto in_section = [&](const Key &row) { return row.section == section; };
        for (const auto &entry : table) {
            const std::string name(entry.first.str());
            const auto *row = std::find_if(std::begin(keys), std::end(keys),
                                           [&](const Key &k) { return in_section(k) && k.name == name; });
            if (row == std::end(keys)) {
                return fail(entry.first, "no key \"" + name + "\" in [" + std::string(section) + "]",
                            list_of(in_section, [](const Key &k) { return k.name; }));
            }
            if (!row->apply(entry.second, title, config_))
                return fail(entry.first, "unusable value of \"" + name + "\"", row->accepted);
        }
        return true;
    }

    std::string_view file_name_;
    Config config_;
    std::string mistake_;
};

struct Loaded {
    Config config;
    bool broken = false;

    Loaded()
    {
        const char *directory = std::getenv("SFLOW_CONFIG_DIR");
        ConfigResult result =
            read_config(directory != nullptr && *directory != '\0' ? directory : "/etc/sflow");
        if (const auto *error = std::get_if<ConfigError>(&result)) {
            broken = true;
            write_log_line(
                LogTarget::automatic, LOG_ERR,
                make_log_line(LOG_ERR, "PLATFORM", "CONFIG", error->text + "; the file is not used"));
        } else {
            config = std::move(std::get<Config>(result));
        }
    }
};

const Loaded &loaded()
{
    static const Immortal<Loaded> instance;
    return *instance;
}

} // namespace

ConfigResult parse_config(std::string_view text, std::string_view file_name)
{
    return Reader(file_name).read(text);
}

ConfigResult read_config(const std::string &directory)
{
    const std::string path = directory + "/platform.toml";
    const auto unreadable = [&] { return ConfigError{path + ": cannot be read: " + std::strerror(errno)}; };
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "re"),
                                                                  &std::fclose);
    if (!file) {
        if (errno == ENOENT || errno == ENOTDIR)
            return Config{};
        return unreadable();
    }
    std::string text;
    std::array<char, 4096> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get()))
        text.append(block.data(), got);
    if (std::ferror(file.get()) != 0)
        return unreadable();
    return parse_config(text, path);
}

const Config &platform_config()
{
    return loaded().config;
}

bool platform_config_is_broken()
{
    return loaded().broken;
}

} // namespace platform
