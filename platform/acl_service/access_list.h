// One access list as operators enter and read it: numbered lines, each an entry or a remark.
//
// A plain value: whoever changes a list changes a copy, and the service takes it over once it is published. Errors are
// texts for the operator, without the "% " in front and the newline behind; empty means success.
#pragma once

#include "acl_list/acl_list.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform
{

enum class ListKind { standard, extended, ipv6, mac };

struct ListKindInfo {
    ListKind kind;
    acl::Family family;
    const char *mode;         ///< CLI_MODE_ACL_* in which its lines are typed
    std::string_view command; ///< that creates it, without the name
    std::string_view noun;    ///< for messages
};

[[nodiscard]] const ListKindInfo &info_of(ListKind kind);

/// An entry, whose `sequence` is 0 and means nothing here, or a remark's text.
using Line = std::variant<acl::Entry, std::string>;

class AccessList
{
public:
    /// Remarks of a list; entries: acl::MAX_ENTRIES.
    static constexpr std::size_t most_remarks = 512;
    /// Distance of a new line from the last one, and the number of the first.
    static constexpr std::uint32_t step = 10;

    AccessList(ListKind kind, int id, std::string name) : kind_(kind), id_(id), name_(std::move(name)) {}

    [[nodiscard]] ListKind kind() const { return kind_; }
    [[nodiscard]] int id() const { return id_; }
    [[nodiscard]] const std::string &name() const { return name_; }
    [[nodiscard]] const std::map<std::uint32_t, Line> &lines() const { return lines_; }

    /// Enters a line, in the place of the line that has the number already.
    ///
    /// @param sequence  0: behind the last line; an entry that the list has already is not entered again
    [[nodiscard]] std::string put(std::uint32_t sequence, const Line &line);

    /// Takes the line of a number away.
    [[nodiscard]] std::string remove(std::uint32_t sequence);
    /// Takes the line away that says the same.
    /// @param sequence  0: whatever its number
    [[nodiscard]] std::string remove(std::uint32_t sequence, const Line &line);

    /// Numbers the lines anew: `first`, `first` + `distance`, …
    [[nodiscard]] std::string resequence(std::uint32_t first, std::uint32_t distance);

    /// What is matched, in order.
    [[nodiscard]] std::vector<acl::Entry> entries() const;

private:
    [[nodiscard]] std::string check_room(const Line &line, const Line *replaced) const;

    ListKind kind_;
    int id_;
    std::string name_;
    std::map<std::uint32_t, Line> lines_; ///< by sequence number
};

/// A line as the running configuration has it, without its number; typed in a list of the kind it gives the same line.
[[nodiscard]] std::string line_text(const Line &line, ListKind kind);

/// EtherTypes that have a word on the command line.
struct EtherTypeWord {
    std::uint16_t type;
    const char *word;
};
constexpr EtherTypeWord ETHER_TYPE_WORDS[] = {
    {0x0800, "ipv4"}, {0x0806, "arp"}, {0x86dd, "ipv6"}, {0x8847, "mpls"}, {0x88cc, "lldp"},
};

} // namespace platform
