#include "show_json.h"

#include "show_lines.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace shell
{
namespace
{

using Json = nlohmann::ordered_json;

// ---- show sflow ------------------------------------------------------------------------------------------------

Json agent_address(ShowLines &lines)
{
    const std::string text(lines.behind("Agent IP: "));
    if (text == "NULL")
        return nullptr;
    check_address(lines, text);
    return text;
}

std::string address_in(const ShowLines &lines, LinePart &part, std::string_view suffix)
{
    std::string text = part.word(suffix);
    check_address(lines, text);
    return text;
}

// A collector without a source makes the daemon repeat the line before it; the repetition says nothing.
Json sources(ShowLines &lines)
{
    Json list = Json::array();
    std::string_view before;
    while (lines.peek().starts_with("Source IP[")) {
        const std::string_view line = lines.take();
        if (std::exchange(before, line) == line)
            continue;
        LinePart part(lines, line);
        part.literal("Source IP[");
        const std::uint64_t collector = part.number();
        part.literal("]: ");
        Json configured = nullptr;
        if (!part.optional("- (used: ")) {
            configured = address_in(lines, part, "(used:");
            part.literal(" ");
        }
        std::string used = address_in(lines, part, ")");
        part.end();
        list.push_back({{"collector", collector},
                        {"configured_address", std::move(configured)},
                        {"used_address", std::move(used)}});
    }
    return list;
}

std::uint64_t value_of(ShowLines &lines, std::string_view label)
{
    LinePart part(lines, lines.behind(label));
    const std::uint64_t value = part.number();
    part.end();
    return value;
}

std::uint64_t number_in(const ShowLines &lines, const std::string &cell)
{
    LinePart part(lines, cell);
    const std::uint64_t value = part.number();
    part.end();
    return value;
}

Json collectors(ShowLines &lines)
{
    constexpr std::array<std::size_t, 5> widths{5, 45, 6, 5, 32};
    const std::vector<std::string> heading{"ID", "IP", "Port", "Size", "VRF"};
    lines.expect("Collector information:");
    if (cells(lines, widths) != heading)
        lines.refuse();
    Json list = Json::array();
    while (lines.more() && lines.peek() != "Port information") {
        const std::vector<std::string> row = cells(lines, widths);
        Json address = nullptr;
        if (row[1] != "NULL") {
            check_address(lines, row[1]);
            address = row[1];
        }
        list.push_back({{"id", number_in(lines, row[0])},
                        {"address", std::move(address)},
                        {"port", number_in(lines, row[2])},
                        {"max_datagram_bytes", number_in(lines, row[3])},
                        {"vrf", row[4].empty() ? Json(nullptr) : Json(row[4])}});
    }
    return list;
}

Json collector_number(const ShowLines &lines, const std::string &cell)
{
    const std::uint64_t number = number_in(lines, cell);
    return number == 0 ? Json(nullptr) : Json(number);
}

std::string_view direction(const ShowLines &lines, std::string_view letter)
{
    constexpr std::array<std::pair<std::string_view, std::string_view>, 4> directions{
        {{"N", "none"}, {"I", "ingress"}, {"E", "egress"}, {"B", "both"}}};
    for (const auto &[shown, meant] : directions)
        if (shown == letter)
            return meant;
    lines.refuse();
}

Json ports(ShowLines &lines)
{
    constexpr std::array<std::size_t, 4> widths{32, 10, 10, 15};
    const std::vector<std::string> heading{"Interface", "CID", "FID", "Enable"};
    lines.expect("Port information");
    if (cells(lines, widths) != heading)
        lines.refuse();
    Json list = Json::array();
    while (lines.more()) {
        const std::vector<std::string> row = cells(lines, widths);
        if (row[0].empty())
            lines.refuse();
        list.push_back({{"name", row[0]},
                        {"counter_collector", collector_number(lines, row[1])},
                        {"flow_collector", collector_number(lines, row[2])},
                        {"enable", direction(lines, row[3])}});
    }
    return list;
}

Json read_sflow(ShowLines &lines)
{
    Json document;
    document["datagram_version"] = value_of(lines, "sflow datagram version ");
    lines.expect("Global information:");
    document["agent_address"] = agent_address(lines);
    document["sources"] = sources(lines);
    document["counter_interval_seconds"] = value_of(lines, "sflow counter interval:");
    document["max_header_bytes"] = value_of(lines, "sflow flow max-header:");
    document["sampling_rate"] = value_of(lines, "sflow sampling-rate:");
    document["collectors"] = collectors(lines);
    document["interfaces"] = ports(lines);
    return document;
}

// ---- show sflow status, show sflow stats -----------------------------------------------------------------------

Json read_status(ShowLines &lines)
{
    constexpr std::array<std::pair<std::string_view, std::string_view>, 4> facts{
        {{"sflow lsm data over", "interface_data"},
         {"sflow ss connect success", "sampling_service"},
         {"sflow acl data over", "access_lists"},
         {"sflow cli ready", "ready"}}};
    Json document;
    for (const auto &[text, key] : facts) {
        const bool is_so = lines.more() && lines.peek() == text;
        document[std::string(key)] = is_so;
        if (is_so)
            lines.take();
    }
    const bool can = lines.more() && lines.peek() == "sflow can rdnd";
    lines.expect(can ? "sflow can rdnd" : "sflow cannot rdnd");
    document["redundancy"] = can;
    return document;
}

Json read_stats(ShowLines &lines)
{
    constexpr std::array<std::string_view, 13> counters{
        "drop flow num",       "drop invalid flow num", "receive flow num",     "drop counter num",
        "receive counter num", "malloc fail num",       "get counter fail num", "export packet num",
        "export fail num",     "export flow num",       "export counter num",   "export sampler fail num",
        "current msg list len"};
    Json document;
    for (const std::string_view counter : counters) {
        std::string key(counter);
        std::replace(key.begin(), key.end(), ' ', '_');
        document[key] = value_of(lines, "sflow " + std::string(counter) + ":");
    }
    return document;
}

// ---- show interfaces -------------------------------------------------------------------------------------------

void read_states(ShowLines &lines, Json &interface)
{
    LinePart part(lines, lines.take());
    interface["name"] = part.word();
    const bool admin_up = part.optional(" is up");
    if (!admin_up)
        part.literal(" is administratively down");
    interface["admin_up"] = admin_up;
    part.literal(", line protocol is ");
    const bool oper_up = part.optional("up");
    if (!oper_up)
        part.literal("down");
    interface["oper_up"] = oper_up;
    part.end();
}

void read_identity(ShowLines &lines, Json &interface)
{
    LinePart part(lines, lines.behind("  Index "));
    interface["index"] = part.number();
    part.literal(", type ");
    const bool sub = part.optional("vlan of ");
    interface["type"] = sub ? "vlan" : part.word(",");
    interface["parent"] = sub ? Json(part.word(",")) : Json(nullptr);
    part.literal(" address ");
    const std::string mac = part.word();
    part.end();
    if (mac.size() != 17 || mac.find_first_not_of("0123456789abcdef:") != std::string::npos)
        lines.refuse();
    interface["mac_address"] = mac;
}

void read_link(ShowLines &lines, Json &interface)
{
    LinePart part(lines, lines.behind("  MTU "));
    interface["mtu_bytes"] = part.number();
    part.literal(" bytes, speed ");
    interface["speed_mbps"] = nullptr;
    if (!part.optional("-")) {
        interface["speed_mbps"] = part.number();
        part.literal(" Mb/s");
    }
    interface["duplex"] = nullptr;
    if (part.optional(", full duplex"))
        interface["duplex"] = "full";
    else if (part.optional(", half duplex"))
        interface["duplex"] = "half";
    part.end();
}

void read_membership(ShowLines &lines, Json &interface)
{
    LinePart part(lines, lines.behind("  VRF "));
    std::string vrf = part.word();
    interface["master"] = nullptr;
    if (!part.at_end()) {
        if (!vrf.ends_with(',') || vrf.size() == 1)
            lines.refuse();
        vrf.pop_back();
        part.literal(" member of ");
        interface["master"] = part.word();
        part.end();
    }
    interface["vrf"] = vrf;
}

Json read_addresses(ShowLines &lines)
{
    constexpr std::array<std::pair<std::string_view, std::string_view>, 2> families{
        {{"  Internet address is ", "ipv4"}, {"  IPv6 address is ", "ipv6"}}};
    Json list = Json::array();
    for (;;) {
        const auto family = std::find_if(families.begin(), families.end(), [&](const auto &row) {
            return lines.peek().starts_with(row.first);
        });
        if (family == families.end())
            return list;
        LinePart part(lines, lines.behind(family->first));
        const std::string prefix = part.word();
        const bool secondary = part.optional(" secondary");
        part.end();
        const std::size_t slash = prefix.find('/');
        if (slash == std::string::npos)
            lines.refuse();
        const std::string address = prefix.substr(0, slash);
        check_address(lines, address);
        list.push_back({{"family", family->second},
                        {"address", address},
                        {"prefix_length", number_in(lines, prefix.substr(slash + 1))},
                        {"secondary", secondary}});
    }
}

Json read_interfaces(ShowLines &lines)
{
    Json list = Json::array();
    while (lines.more()) {
        Json interface;
        read_states(lines, interface);
        read_identity(lines, interface);
        read_link(lines, interface);
        read_membership(lines, interface);
        interface["addresses"] = read_addresses(lines);
        list.push_back(std::move(interface));
    }
    return {{"interfaces", std::move(list)}};
}

// ---- Forms -----------------------------------------------------------------------------------------------------

constexpr std::array<JsonForm, 4> forms{{
    {"show sflow", {}, read_sflow},
    {"show sflow status", {}, read_status},
    {"show sflow stats", {}, read_stats},
    {"show interfaces", "NAME", read_interfaces},
}};

bool fits(const JsonForm &form, std::span<const std::string> words)
{
    std::string line;
    for (const std::string &word : words)
        line.append(line.empty() ? "" : " ").append(word);
    if (line == form.command)
        return true;
    // `brief` is another command, not the name of an interface.
    const std::string_view last = words.empty() ? std::string_view() : std::string_view(words.back());
    return !form.argument.empty() && last != "brief" && !last.starts_with('|') &&
           line == std::string(form.command) + " " + std::string(last);
}

} // namespace

std::string json_commands()
{
    std::string list;
    for (const JsonForm &form : forms) {
        list.append(list.empty() ? "" : ", ").append(form.command);
        if (!form.argument.empty())
            list.append(" [").append(form.argument).append("]");
    }
    return list;
}

const JsonForm *json_form(std::span<const std::string> words)
{
    const auto found =
        std::find_if(forms.begin(), forms.end(), [&](const JsonForm &form) { return fits(form, words); });
    return found == forms.end() ? nullptr : &*found;
}

JsonText to_json(const JsonForm &form, std::string_view text)
{
    ShowLines lines(text);
    try {
        const Json document = form.read(lines);
        if (lines.more())
            lines.refuse();
        return {document.dump(), {}};
    } catch (const NotUnderstood &refused) {
        return {std::nullopt,
                "line " + std::to_string(refused.line) + " of the output is not what is known of it"};
    } catch (const Json::type_error &) {
        return {std::nullopt, "the output has a name that is not UTF-8"};
    }
}

} // namespace shell
