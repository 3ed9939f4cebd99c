// Access lists as operators edit them: numbers, duplicates, limits, and the text of each line.
#include "acl_service/access_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using platform::AccessList;
using platform::Line;
using platform::ListKind;
using testing::ElementsAre;
using testing::HasSubstr;

acl::Entry protocol(std::uint8_t number)
{
    acl::Entry entry{.action = acl::Action::permit};
    entry.protocol = number;
    return entry;
}

std::vector<std::uint32_t> numbers(const AccessList &list)
{
    std::vector<std::uint32_t> all;
    for (const auto &[number, line] : list.lines())
        all.push_back(number);
    return all;
}

AccessList with_numbers(std::initializer_list<std::uint32_t> numbers)
{
    AccessList list(ListKind::extended, 5, "5");
    std::uint8_t next = 1;
    for (const std::uint32_t number : numbers)
        EXPECT_EQ("", list.put(number, protocol(next++)));
    return list;
}

} // namespace

TEST(AccessList_put, numbers_what_comes_without_a_number_behind_the_last_line)
{
    AccessList list(ListKind::extended, 5, "5");
    EXPECT_EQ("", list.put(0, protocol(1)));
    EXPECT_EQ("", list.put(0, std::string("remark")));
    EXPECT_EQ("", list.put(13, protocol(2)));
    EXPECT_EQ("", list.put(25, protocol(3)));
    EXPECT_EQ("", list.put(0, protocol(4)));
    EXPECT_THAT(numbers(list), ElementsAre(10, 13, 20, 25, 35));
}

TEST(AccessList_put, replaces_the_line_of_a_number)
{
    AccessList list = with_numbers({10, 20});
    EXPECT_EQ("", list.put(10, protocol(9)));
    EXPECT_EQ("", list.put(20, std::string("remark")));
    EXPECT_EQ(list.lines().at(10), Line(protocol(9)));
    EXPECT_EQ(list.lines().at(20), Line(std::string("remark")));
    EXPECT_EQ(1U, list.entries().size());
}

TEST(AccessList_put, an_entry_that_is_there_is_not_entered_again_unless_it_has_a_number)
{
    AccessList list = with_numbers({10});
    EXPECT_EQ("", list.put(0, protocol(1)));
    EXPECT_THAT(numbers(list), ElementsAre(10));
    EXPECT_EQ("", list.put(5, protocol(1)));
    EXPECT_THAT(numbers(list), ElementsAre(5, 10));
    EXPECT_EQ("", list.put(0, std::string("----")));
    EXPECT_EQ("", list.put(0, std::string("----")));
    EXPECT_THAT(numbers(list), ElementsAre(5, 10, 20, 30)) << "remarks may repeat themselves";
}

TEST(AccessList_put, needs_a_number_that_is_left)
{
    AccessList list = with_numbers({acl::MAX_SEQUENCE - 10});
    EXPECT_EQ("", list.put(0, protocol(7)));
    EXPECT_THAT(numbers(list), ElementsAre(acl::MAX_SEQUENCE - 10, acl::MAX_SEQUENCE));
    EXPECT_EQ("No number is left behind 2147483647: resequence the list first", list.put(0, protocol(8)));
    EXPECT_EQ("", list.put(1, protocol(8)));
}

TEST(AccessList_put, takes_512_entries_and_as_many_remarks)
{
    AccessList list(ListKind::extended, 5, "web");
    acl::Entry entry = protocol(acl::PROTOCOL_TCP);
    for (std::uint16_t port = 0; port < 512; ++port) {
        entry.destination_ports = acl::Ports{.first = port, .last = port};
        ASSERT_EQ("", list.put(0, entry));
        ASSERT_EQ("", list.put(0, std::string("remark")));
    }
    EXPECT_EQ("Access list web is full: it has 512 entries", list.put(0, protocol(1)));
    EXPECT_EQ("Access list web is full: it has 512 remarks", list.put(0, std::string("more")));
    EXPECT_EQ("", list.put(10, protocol(1))) << "in the place of an entry";
    EXPECT_EQ("Access list web is full: it has 512 entries", list.put(20, protocol(1)))
        << "in the place of a remark";
    EXPECT_EQ("", list.remove(30));
    EXPECT_EQ("", list.put(0, protocol(2)));
    EXPECT_EQ(512U, list.entries().size());
}

TEST(AccessList_remove, takes_away_by_number_or_by_what_the_line_says)
{
    AccessList list = with_numbers({10, 20, 30});
    EXPECT_EQ("", list.remove(20));
    EXPECT_EQ("Access list 5 has no line 20", list.remove(20));
    EXPECT_EQ("", list.remove(0, protocol(3)));
    EXPECT_EQ("Access list 5 has no such line", list.remove(0, protocol(3)));
    EXPECT_EQ("Access list 5 has no such line", list.remove(20, protocol(1))) << "another number";
    EXPECT_EQ("", list.remove(10, protocol(1)));
    EXPECT_TRUE(list.lines().empty());
}

TEST(AccessList_resequence, keeps_the_order)
{
    AccessList list = with_numbers({3, 7, 2000});
    EXPECT_EQ("", list.resequence(100, 5));
    EXPECT_THAT(numbers(list), ElementsAre(100, 105, 110));
    EXPECT_EQ(list.lines().at(110), Line(protocol(3)));
    EXPECT_EQ("", list.resequence(acl::MAX_SEQUENCE - 2, 1));
    EXPECT_THAT(list.resequence(acl::MAX_SEQUENCE - 1, 1), HasSubstr("2147483647"));
    EXPECT_THAT(list.resequence(1, acl::MAX_SEQUENCE), HasSubstr("2147483647"));
    EXPECT_THAT(numbers(list), ElementsAre(2147483645, 2147483646, 2147483647)) << "unchanged";
    AccessList empty(ListKind::mac, 3000, "empty");
    EXPECT_EQ("", empty.resequence(acl::MAX_SEQUENCE, acl::MAX_SEQUENCE));
}

TEST(AccessList_entries, are_the_lines_that_are_matched_with_their_numbers)
{
    AccessList list = with_numbers({30, 10});
    EXPECT_EQ("", list.put(20, std::string("remark")));
    const std::vector<acl::Entry> entries = list.entries();
    ASSERT_EQ(2U, entries.size());
    EXPECT_EQ(10U, entries[0].sequence);
    EXPECT_EQ(2, entries[0].protocol);
    EXPECT_EQ(30U, entries[1].sequence);
    EXPECT_EQ(1, entries[1].protocol);
}

TEST(AccessList_line_text, ports_have_one_form_each)
{
    struct Case {
        acl::Ports ports;
        const char *text;
    };
    const Case cases[] = {
        {{.first = 80, .last = 80}, "eq 80"},       {{.first = 80, .last = 80, .inverted = true}, "neq 80"},
        {{.first = 0, .last = 79}, "lt 80"},        {{.first = 81, .last = 65535}, "gt 80"},
        {{.first = 80, .last = 90}, "range 80 90"}, {{.first = 0, .last = 65535}, "range 0 65535"},
        {{.first = 0, .last = 0}, "eq 0"},          {{.first = 65535, .last = 65535}, "eq 65535"},
    };
    for (const Case &one : cases) {
        acl::Entry entry = protocol(acl::PROTOCOL_UDP);
        entry.destination_ports = one.ports;
        EXPECT_EQ(std::string("permit udp any any ") + one.text,
                  platform::line_text(entry, ListKind::extended));
        std::swap(entry.source_ports, entry.destination_ports);
        EXPECT_EQ(std::string("permit udp any ") + one.text + " any",
                  platform::line_text(entry, ListKind::extended));
    }
}

TEST(AccessList_line_text, remarks_stand_as_they_were_typed)
{
    EXPECT_EQ("remark ! 10 permit", platform::line_text(std::string("! 10 permit"), ListKind::mac));
}
