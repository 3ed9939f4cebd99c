// Every value is checked before it is taken; members are counted, so that one that is not known is noticed.
#include "acl_list/acl_json.h"

#include <arpa/inet.h>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>
#include <type_traits>

namespace acl
{

namespace
{

// In the order of writing: an operator who looks at a file finds the fields where they are expected.
using Json = nlohmann::ordered_json;

template <typename T>
struct Named {
    T value;
    std::string_view word;
};

constexpr Named<Family> families[] = {{Family::ipv4, "ipv4"}, {Family::ipv6, "ipv6"}, {Family::mac, "mac"}};
constexpr Named<Action> actions[] = {{Action::deny, "deny"}, {Action::permit, "permit"}};

template <typename T, std::size_t N>
std::string_view word_of(T value, const Named<T> (&table)[N])
{
    for (const Named<T> &row : table)
        if (row.value == value)
            return row.word;
    return "";
}

std::string address_text(const std::array<std::uint8_t, 16> &bytes, Family family)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (family == Family::mac)
        std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                      bytes[3], bytes[4], bytes[5]);
    else
        inet_ntop(family == Family::ipv4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
    return text.data();
}

void put_address(Json &entry, const char *key, const Address &address, Family family)
{
    if (address.mask != Address{}.mask)
        entry[key] = {address_text(address.value, family), address_text(address.mask, family)};
}

void put_ports(Json &entry, const char *key, const std::optional<Ports> &ports)
{
    if (ports)
        entry[key] = {ports->first, ports->last, ports->inverted};
}

template <typename T>
void put_number(Json &entry, const char *key, const std::optional<T> &number)
{
    if (number)
        entry[key] = *number;
}

Json json_of(const Entry &entry, Family family)
{
    Json json;
    json["sequence"] = entry.sequence;
    json["action"] = word_of(entry.action, actions);
    put_number(json, "protocol", entry.protocol);
    put_number(json, "ether_type", entry.ether_type);
    put_address(json, "source", entry.source, family);
    put_ports(json, "source_ports", entry.source_ports);
    put_address(json, "destination", entry.destination, family);
    put_ports(json, "destination_ports", entry.destination_ports);
    put_number(json, "dscp", entry.dscp);
    if (entry.established)
        json["established"] = true;
    return json;
}

// ---- Reading -------------------------------------------------------------------------------------------------

bool take(const Json &json, bool &value)
{
    if (!json.is_boolean())
        return false;
    value = json.get<bool>();
    return true;
}

bool take(const Json &json, std::string &value)
{
    if (!json.is_string())
        return false;
    value = json.get_ref<const std::string &>();
    return true;
}

template <typename T>
requires std::is_integral_v<T>
bool take(const Json &json, T &value)
{
    if (!json.is_number_unsigned())
        return false;
    const auto number = json.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
        return false;
    value = static_cast<T>(number);
    return true;
}

template <typename T, std::size_t N>
bool take(const Json &json, T &value, const Named<T> (&table)[N])
{
    if (!json.is_string())
        return false;
    for (const Named<T> &row : table) {
        if (row.word != json.get_ref<const std::string &>())
            continue;
        value = row.value;
        return true;
    }
    return false;
}

bool take_bytes(const Json &json, std::array<std::uint8_t, 16> &bytes, Family family)
{
    if (!json.is_string())
        return false;
    const std::string &text = json.get_ref<const std::string &>();
    if (family != Family::mac)
        return inet_pton(family == Family::ipv4 ? AF_INET : AF_INET6, text.c_str(), bytes.data()) == 1;
    int end = 0;
    return text.size() == std::string_view("00:00:00:00:00:00").size() &&
           std::sscanf(text.c_str(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx%n", &bytes[0], &bytes[1], &bytes[2],
                       &bytes[3], &bytes[4], &bytes[5], &end) == 6 &&
           static_cast<std::size_t>(end) == text.size();
}

bool take(const Json &json, Address &address, Family family)
{
    return json.is_array() && json.size() == 2 && take_bytes(json[0], address.value, family) &&
           take_bytes(json[1], address.mask, family);
}

bool take(const Json &json, Ports &ports)
{
    return json.is_array() && json.size() == 3 && take(json[0], ports.first) && take(json[1], ports.last) &&
           take(json[2], ports.inverted);
}

// Seen by Members below.
bool take(const Json &json, Entry &entry, Family family);
bool take(const Json &json, std::vector<Entry> &entries, Family family);

/// Takes the members of one object, each once; what is left over is not known.
class Members
{
public:
    explicit Members(const Json &object) : object_(object), good_(object.is_object()) {}

    template <typename T, typename... How>
    void required(const char *key, T &value, const How &...how)
    {
        optional(key, value, how...);
        good_ = good_ && found_;
    }

    template <typename T, typename... How>
    void optional(const char *key, T &value, const How &...how)
    {
        found_ = false;
        if (!good_)
            return;
        const auto member = object_.find(key);
        if (member == object_.end())
            return;
        found_ = true;
        ++taken_;
        good_ = take(*member, value, how...);
    }

    template <typename T>
    void optional(const char *key, std::optional<T> &value)
    {
        T plain{};
        optional(key, plain);
        if (good_ && found_)
            value = plain;
    }

    [[nodiscard]] bool complete() const { return good_ && taken_ == object_.size(); }

private:
    const Json &object_;
    bool good_;
    bool found_ = false;
    std::size_t taken_ = 0;
};

bool take(const Json &json, Entry &entry, Family family)
{
    Members members(json);
    members.required("sequence", entry.sequence);
    members.required("action", entry.action, actions);
    members.optional("protocol", entry.protocol);
    members.optional("ether_type", entry.ether_type);
    members.optional("source", entry.source, family);
    members.optional("source_ports", entry.source_ports);
    members.optional("destination", entry.destination, family);
    members.optional("destination_ports", entry.destination_ports);
    members.optional("dscp", entry.dscp);
    members.optional("established", entry.established);
    return members.complete();
}

bool take(const Json &json, std::vector<Entry> &entries, Family family)
{
    if (!json.is_array() || json.size() > MAX_ENTRIES)
        return false;
    for (const Json &one : json)
        if (!take(one, entries.emplace_back(), family))
            return false;
    return true;
}

} // namespace

std::string to_json(const List &list)
{
    Json entries = Json::array();
    for (const Entry &entry : list.entries)
        entries.push_back(json_of(entry, list.family));
    Json json;
    json["family"] = word_of(list.family, families);
    json["id"] = list.id;
    json["name"] = list.name;
    json["instance"] = list.instance;
    json["version"] = list.version;
    json["entries"] = std::move(entries);
    return json.dump(1, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::optional<List> from_json(std::string_view text)
{
    const Json json = Json::parse(text, nullptr, false);
    List list;
    Members members(json);
    members.required("family", list.family, families);
    members.required("id", list.id);
    members.required("name", list.name);
    members.required("instance", list.instance);
    members.required("version", list.version);
    members.required("entries", list.entries, list.family);
    if (!members.complete())
        return std::nullopt;
    return list;
}

} // namespace acl
