#include "acl_service/access_list.h"

#include "platform/cli.h"

#include <algorithm>
#include <array>

namespace platform
{

namespace
{

constexpr std::array<ListKindInfo, 4> kinds{{
    {ListKind::standard, acl::Family::ipv4, CLI_MODE_ACL_STANDARD, "ip access-list standard",
     "a standard IP access list"},
    {ListKind::extended, acl::Family::ipv4, CLI_MODE_ACL_EXTENDED, "ip access-list extended",
     "an extended IP access list"},
    {ListKind::ipv6, acl::Family::ipv6, CLI_MODE_ACL_IPV6, "ipv6 access-list", "an IPv6 access list"},
    {ListKind::mac, acl::Family::mac, CLI_MODE_ACL_MAC, "mac access-list", "a MAC access list"},
}};

std::string no_line(const std::string &name, std::uint32_t sequence)
{
    return "Access list " + name + " has no line " + std::to_string(sequence);
}

} // namespace

const ListKindInfo &info_of(ListKind kind)
{
    return kinds[static_cast<std::size_t>(kind)];
}

std::string AccessList::check_room(const Line &line, const Line *replaced) const
{
    if (replaced != nullptr && replaced->index() == line.index())
        return {};
    const auto used =
        static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto &numbered) {
            return numbered.second.index() == line.index();
        }));
    const bool entry = std::holds_alternative<acl::Entry>(line);
    const std::size_t most = entry ? acl::MAX_ENTRIES : most_remarks;
    if (used < most)
        return {};
    return "Access list " + name_ + " is full: it has " + std::to_string(most) +
           (entry ? " entries" : " remarks");
}

std::string AccessList::put(std::uint32_t sequence, const Line &line)
{
    const bool present_already = std::any_of(lines_.begin(), lines_.end(), [&](const auto &numbered) {
        return std::holds_alternative<acl::Entry>(line) && numbered.second == line;
    });
    if (sequence == 0 && present_already)
        return {};
    const std::uint32_t last = lines_.empty() ? 0 : lines_.rbegin()->first;
    if (sequence == 0 && last > acl::MAX_SEQUENCE - step)
        return "No number is left behind " + std::to_string(last) + ": resequence the list first";
    const std::uint32_t number = sequence == 0 ? last + step : sequence;
    const auto present = lines_.find(number);
    std::string error = check_room(line, present == lines_.end() ? nullptr : &present->second);
    if (error.empty())
        lines_.insert_or_assign(number, line);
    return error;
}

std::string AccessList::remove(std::uint32_t sequence)
{
    return lines_.erase(sequence) != 0 ? std::string() : no_line(name_, sequence);
}

std::string AccessList::remove(std::uint32_t sequence, const Line &line)
{
    const auto found = std::find_if(lines_.begin(), lines_.end(), [&](const auto &numbered) {
        return (sequence == 0 || numbered.first == sequence) && numbered.second == line;
    });
    if (found == lines_.end())
        return "Access list " + name_ + " has no such line";
    lines_.erase(found);
    return {};
}

std::string AccessList::resequence(std::uint32_t first, std::uint32_t distance)
{
    const std::uint64_t steps = lines_.empty() ? 0 : lines_.size() - 1;
    if (first + steps * distance > acl::MAX_SEQUENCE)
        return "The last number would be above " + std::to_string(acl::MAX_SEQUENCE);
    std::map<std::uint32_t, Line> renumbered;
    std::uint32_t number = first;
    for (auto &[old_number, line] : lines_) {
        renumbered.emplace_hint(renumbered.end(), number, std::move(line));
        number += distance;
    }
    lines_ = std::move(renumbered);
    return {};
}

std::vector<acl::Entry> AccessList::entries() const
{
    std::vector<acl::Entry> entries;
    for (const auto &[number, line] : lines_) {
        if (const auto *const entry = std::get_if<acl::Entry>(&line))
            entries.emplace_back(*entry).sequence = number;
    }
    return entries;
}

} // namespace platform
