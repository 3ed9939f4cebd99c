#include "options.h"

#include "acl_list/acl_file.h"
#include "sflow_counter_cache.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <string_view>
#include <sys/un.h>

namespace sampling
{

namespace
{

constexpr std::string_view usage = R"(usage: sflow-samplingd [OPTION]...
Takes packet samples and interface counters for sflowd.

  --backend ebpf|replay        where packets come from (default: ebpf)
  --socket PATH                sflowd's domain socket (default: $TMPDIR/sflow/domain_socket)
  --state FILE                 where counters are remembered (default: counters in
                               $STATE_DIRECTORY, otherwise samplingd_counters beside the socket)
  --access-lists FOLDER        published access lists (default: $TMPDIR/platform/acl)
  --verbose                    log debug lines too
  --help                       this text
  --version                    version of the program

Backend ebpf:
  --ring-size BYTES            buffer between kernel and service: a power of two, 4096 to
                               1073741824; may end in K, M or G (default: 16M)
  --max-samplers N             directions of interfaces that can be sampled at a time,
                               1 to 65536 (default: 8192)

Backend replay:
  --replay FILE                capture to play (pcap or pcapng, Ethernet)
  --replay-interface NAME      interface that receives its packets; may be given several times
  --replay-egress-interface NAME
                               interface that sends its packets; may be given several times
  --replay-speed X             factor on the capture's timing; 0: as fast as possible (default: 1)
  --replay-loop N              play the file N times; 0: without end (default: 1)
  --replay-seed N              repeatable sampling
)";

constexpr std::string_view default_tmpdir = "/run";
constexpr std::string_view socket_suffix = "/sflow/domain_socket";

template <typename Number>
bool parse_number(std::string_view text, Number least, Number most, Number &out)
{
    Number value = {};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most)
        return false;
    out = value;
    return true;
}

bool parse_ring_size(std::string_view text, Options &options)
{
    unsigned shift = 0;
    constexpr std::string_view units = "KMG";
    if (!text.empty() && units.find(text.back()) != std::string_view::npos) {
        shift = 10 * static_cast<unsigned>(units.find(text.back()) + 1);
        text.remove_suffix(1);
    }
    std::uint64_t number = 0;
    if (!parse_number<std::uint64_t>(text, 1, 1U << 30, number))
        return false;
    const std::uint64_t bytes = number << shift;
    if (!std::has_single_bit(bytes) || bytes < 4096 || bytes > 1U << 30)
        return false;
    options.bpf.ring_bytes = static_cast<std::uint32_t>(bytes);
    return true;
}

bool parse_backend(std::string_view text, Options &options)
{
    if (text != "ebpf" && text != "replay")
        return false;
    options.backend = text == "replay" ? BackendKind::replay : BackendKind::ebpf;
    return true;
}

bool parse_speed(std::string_view text, Options &options)
{
    return parse_number(text, 0.0, 1e9, options.replay.speed) && std::isfinite(options.replay.speed);
}

bool parse_acl_directory(std::string_view text, Options &options)
{
    options.acl_directory = text;
    return !text.empty();
}

bool parse_socket(std::string_view text, Options &options)
{
    options.socket_path = text;
    return !text.empty();
}

bool parse_state(std::string_view text, Options &options)
{
    options.counters.state_path = text;
    return !text.empty();
}

struct OptionRow {
    std::string_view name;
    bool (*take)(std::string_view value, Options &options);
};

constexpr OptionRow option_table[] = {
    {"--backend", parse_backend},
    {"--socket", parse_socket},
    {"--state", parse_state},
    {"--access-lists", parse_acl_directory},
    {"--ring-size", parse_ring_size},
    {"--max-samplers",
     [](std::string_view text, Options &options) {
         return parse_number<std::uint32_t>(text, 1, 65536, options.bpf.max_samplers);
     }},
    {"--replay",
     [](std::string_view text, Options &options) {
         options.replay.file = text;
         return !text.empty();
     }},
    {"--replay-interface",
     [](std::string_view text, Options &options) {
         options.replay.ingress.emplace_back(text);
         return !text.empty();
     }},
    {"--replay-egress-interface",
     [](std::string_view text, Options &options) {
         options.replay.egress.emplace_back(text);
         return !text.empty();
     }},
    {"--replay-speed", parse_speed},
    {"--replay-loop",
     [](std::string_view text, Options &options) {
         return parse_number<std::uint64_t>(text, 0, UINT64_MAX, options.replay.loops);
     }},
    {"--replay-seed",
     [](std::string_view text, Options &options) {
         std::uint64_t seed = 0;
         if (!parse_number<std::uint64_t>(text, 0, UINT64_MAX, seed))
             return false;
         options.replay.seed = seed;
         return true;
     }},
};

EarlyExit mistake(std::string text)
{
    return {.status = 1, .text = "sflow-samplingd: " + std::move(text) + ", see --help\n"};
}

/// Files about counters that are not given: the daemon's lies beside its socket.
void complete_counters(Options &options, const Environment &environment)
{
    const std::size_t slash = options.socket_path.rfind('/');
    const std::string beside = options.socket_path.substr(0, slash == std::string::npos ? 0 : slash + 1);
    options.counters.cache_path = beside + SFLOW_COUNTER_CACHE_NAME;
    if (!options.counters.state_path.empty())
        return;
    const std::string_view directories =
        environment.state_directory == nullptr ? "" : environment.state_directory;
    // systemd gives a list, the first of which is enough
    const std::string_view directory = directories.substr(0, directories.find(':'));
    options.counters.state_path =
        directory.empty() ? beside + "samplingd_counters" : std::string(directory) + "/counters";
}

/// Checks that hold between options, and the paths.
std::variant<Options, EarlyExit> complete(Options options, const Environment &environment)
{
    const bool replay_options =
        !options.replay.file.empty() || !options.replay.ingress.empty() || !options.replay.egress.empty();
    if (options.backend == BackendKind::ebpf && replay_options)
        return mistake("options --replay...: only with --backend replay");
    if (options.backend == BackendKind::replay && options.replay.file.empty())
        return mistake("backend replay: no capture: --replay FILE is missing");
    if (options.backend == BackendKind::replay && options.replay.ingress.empty() &&
        options.replay.egress.empty())
        return mistake("backend replay: no interface: --replay-interface NAME is missing");
    const bool no_tmpdir = environment.tmpdir == nullptr || *environment.tmpdir == '\0';
    const std::string base(no_tmpdir ? default_tmpdir : std::string_view(environment.tmpdir));
    if (options.socket_path.empty()) {
        options.socket_path_assumed = no_tmpdir;
        options.socket_path = base + std::string(socket_suffix);
    }
    if (options.acl_directory.empty())
        options.acl_directory = acl::directory_below(base);
    if (options.socket_path.size() >= sizeof(sockaddr_un::sun_path))
        return mistake("socket " + options.socket_path + ": path: longer than " +
                       std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
    complete_counters(options, environment);
    return options;
}

} // namespace

std::variant<Options, EarlyExit> parse_options(const std::vector<std::string> &arguments,
                                               const Environment &environment)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string &argument = arguments[i];
        if (argument == "--help")
            return EarlyExit{.status = 0, .text = std::string(usage)};
        if (argument == "--version")
            return EarlyExit{.status = 0, .text = "sflow-samplingd " SFLOW_VERSION "\n"};
        if (argument == "--verbose") {
            options.verbose = true;
            continue;
        }
        // both "--name value" and "--name=value"
        const std::size_t equals = argument.find('=');
        const std::string_view name = std::string_view(argument).substr(0, equals);
        const auto *const row = std::find_if(std::begin(option_table), std::end(option_table),
                                             [name](const OptionRow &entry) { return entry.name == name; });
        if (row == std::end(option_table))
            return mistake("option " + argument + ": unknown");
        if (equals == std::string::npos && i + 1 == arguments.size())
            return mistake("option " + argument + ": its value is missing");
        const std::string value = equals != std::string::npos ? argument.substr(equals + 1) : arguments[++i];
        if (!row->take(value, options))
            return mistake("option " + std::string(name) + ": value \"" + value + "\" is not valid");
    }
    return complete(std::move(options), environment);
}

} // namespace sampling
