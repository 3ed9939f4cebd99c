// Published access lists: what is written is read back, and what was not written by a publisher is refused.
#include "acl_list/acl_file.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace
{

using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

class Acl_file : public testing::Test
{
protected:
    Acl_file()
    {
        std::string pattern = (fs::temp_directory_path() / "acl-file-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
        directory_ = acl::directory_below(root_.string());
    }
    ~Acl_file() override { fs::remove_all(root_); }

    [[nodiscard]] std::string path(int id) const { return acl::file_of(directory_, id); }

    [[nodiscard]] std::string contents(int id) const
    {
        std::ostringstream text;
        text << std::ifstream(path(id), std::ios::binary).rdbuf();
        return text.str();
    }

    void write(int id, const std::string &text) const
    {
        fs::create_directories(directory_);
        std::ofstream(path(id), std::ios::binary) << text;
    }

    [[nodiscard]] acl::Fault fault(int id, std::string_view name = "") const
    {
        const acl::ReadResult result = acl::read_list(directory_, id, name);
        const auto *const error = std::get_if<acl::ReadError>(&result);
        EXPECT_NE(error, nullptr) << "a list was read";
        if (error == nullptr)
            return acl::Fault{-1};
        EXPECT_THAT(error->reason, StartsWith(path(id) + ": "));
        return error->fault;
    }

    fs::path root_;
    std::string directory_;
};

acl::Address ipv4(std::array<std::uint8_t, 4> value, std::array<std::uint8_t, 4> mask)
{
    acl::Address address;
    std::copy(value.begin(), value.end(), address.value.begin());
    std::copy(mask.begin(), mask.end(), address.mask.begin());
    return address;
}

acl::List ipv4_list()
{
    acl::List list{.family = acl::Family::ipv4,
                   .id = 101,
                   .name = "101",
                   .instance = 0xfedcba9876543210,
                   .version = 3,
                   .entries = {}};
    acl::Entry web{.sequence = 10, .action = acl::Action::permit};
    web.protocol = acl::PROTOCOL_TCP;
    web.source = ipv4({10, 1, 0, 7}, {255, 255, 0, 255});
    web.source_ports = acl::Ports{.first = 0, .last = 1023, .inverted = true};
    web.destination_ports = acl::Ports{.first = 443, .last = 443};
    web.dscp = 46;
    web.established = true;
    list.entries.push_back(web);
    list.entries.push_back({.sequence = 2147483647, .action = acl::Action::deny});
    return list;
}

acl::List ipv6_list()
{
    acl::List list{.family = acl::Family::ipv6, .id = 3000, .name = "v6", .entries = {}};
    acl::Entry entry{.sequence = 1, .action = acl::Action::permit};
    entry.protocol = 0;
    entry.destination.value = {0x20, 0x01, 0x0d, 0xb8};
    entry.destination.mask = {0xff, 0xff, 0xff, 0xff};
    entry.dscp = 0;
    list.entries.push_back(entry);
    return list;
}

acl::List mac_list()
{
    acl::List list{.family = acl::Family::mac, .id = 3001, .name = "frames", .version = 1, .entries = {}};
    acl::Entry entry{.sequence = 5, .action = acl::Action::permit};
    entry.ether_type = 0x0806;
    entry.source.value = {0x02, 0xab, 0, 0, 0, 1};
    entry.source.mask = {0xff, 0xff, 0xff, 0, 0, 0xff};
    list.entries.push_back(entry);
    return list;
}

acl::List longest_list()
{
    acl::List list = ipv4_list();
    const acl::Entry pattern = list.entries.front();
    list.name = std::string(acl::MAX_NAME, 'n');
    list.entries.assign(acl::MAX_ENTRIES, pattern);
    for (std::uint32_t i = 0; i < acl::MAX_ENTRIES; ++i)
        list.entries[i].sequence = acl::MAX_SEQUENCE - static_cast<std::uint32_t>(acl::MAX_ENTRIES) + i + 1;
    return list;
}

TEST_F(Acl_file, what_is_published_is_read_back_whole)
{
    const acl::List lists[] = {ipv4_list(),
                               ipv6_list(),
                               mac_list(),
                               longest_list(),
                               {.family = acl::Family::ipv4, .id = 7, .name = "empty", .entries = {}}};
    for (const acl::List &list : lists) {
        SCOPED_TRACE(list.name);
        ASSERT_EQ(acl::publish_list(directory_, list), "");
        const acl::ReadResult by_name = acl::read_list(directory_, list.id, list.name);
        ASSERT_TRUE(std::holds_alternative<acl::List>(by_name)) << std::get<acl::ReadError>(by_name).reason;
        EXPECT_EQ(std::get<acl::List>(by_name), list);
        EXPECT_EQ(acl::read_list(directory_, list.id, "").index(), 0U);
    }
}

TEST_F(Acl_file, lists_lie_below_the_platforms_directory)
{
    EXPECT_EQ(acl::directory_below("/run"), "/run/platform/acl");
    EXPECT_EQ(acl::file_of("/run/platform/acl", 2899), "/run/platform/acl/2899.acl");
}

TEST_F(Acl_file, a_new_version_replaces_the_file_and_leaves_nothing_else)
{
    acl::List list = ipv4_list();
    ASSERT_EQ(acl::publish_list(directory_, list), "");
    // A reader that has the file open goes on reading the version that it opened.
    std::ifstream before(path(101), std::ios::binary);
    const std::string old_text = contents(101);
    list.version = 4;
    list.entries.pop_back();
    ASSERT_EQ(acl::publish_list(directory_, list), "");
    std::ostringstream read_on;
    read_on << before.rdbuf();
    EXPECT_EQ(read_on.str(), old_text);
    EXPECT_EQ(std::get<acl::List>(acl::read_list(directory_, 101, "101")), list);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 1);
}

TEST_F(Acl_file, files_can_be_read_by_all_whatever_the_mask)
{
    const mode_t before = ::umask(077);
    const std::string error = acl::publish_list(directory_, ipv4_list());
    ::umask(before);
    ASSERT_EQ(error, "");
    struct stat status {
    };
    ASSERT_EQ(::stat(path(101).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST_F(Acl_file, a_list_that_is_not_sound_is_not_published)
{
    acl::List list = ipv4_list();
    list.entries[0].dscp = 64;
    EXPECT_THAT(acl::publish_list(directory_, list), HasSubstr("entry 10: a DSCP above 63"));
    EXPECT_FALSE(fs::exists(path(101)));
}

TEST_F(Acl_file, a_directory_that_cannot_be_made_is_told)
{
    std::ofstream(root_ / "platform") << "in the way";
    EXPECT_THAT(acl::publish_list(directory_, ipv4_list()), HasSubstr("cannot be created: Not a directory"));
}

TEST_F(Acl_file, a_failed_publication_leaves_the_version_before)
{
    ASSERT_EQ(acl::publish_list(directory_, ipv4_list()), "");
    const std::string before = contents(101);
    fs::create_directory(path(101) + ".new"); // in the place of the new version
    acl::List list = ipv4_list();
    list.version = 4;
    EXPECT_EQ(acl::publish_list(directory_, list), "cannot create " + path(101) + ".new: Is a directory");
    EXPECT_EQ(contents(101), before);
}

TEST_F(Acl_file, a_missing_list_is_told_from_an_unreadable_one)
{
    EXPECT_EQ(fault(5), acl::Fault::missing);
    fs::create_directories(path(6));
    EXPECT_EQ(fault(6), acl::Fault::unreadable);
    fs::create_symlink("/dev/zero", path(7));
    EXPECT_EQ(fault(7), acl::Fault::unreadable);
    write(8, std::string((1U << 20) + 1, 'x'));
    EXPECT_EQ(fault(8), acl::Fault::unreadable);
}

TEST_F(Acl_file, a_list_of_another_id_or_name_is_stale)
{
    ASSERT_EQ(acl::publish_list(directory_, mac_list()), "");
    EXPECT_EQ(fault(3001, "others"), acl::Fault::stale);
    fs::copy_file(path(3001), path(5));
    EXPECT_EQ(fault(5), acl::Fault::stale);
}

TEST_F(Acl_file, every_changed_or_missing_byte_is_noticed)
{
    ASSERT_EQ(acl::publish_list(directory_, mac_list()), "");
    const std::string good = contents(3001);
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ 1);
        EXPECT_EQ(acl::decode_list(bad).index(), 1U) << "byte " << i;
        EXPECT_EQ(acl::decode_list(good.substr(0, i)).index(), 1U) << "cut to " << i;
    }
    EXPECT_EQ(acl::decode_list(good + "\n").index(), 1U);
    write(3001, good.substr(0, good.size() / 2));
    EXPECT_EQ(fault(3001), acl::Fault::corrupt);
}

/// The published form of a JSON text, checksum and length right.
std::string wrapped(const std::string &json)
{
    // CRC-32 as in zlib and IEEE 802.3, reflected, computed bit by bit.
    std::uint32_t crc = 0xffffffff;
    for (const char c : json) {
        crc ^= static_cast<std::uint8_t>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xedb88320U : 0U);
    }
    std::ostringstream text;
    text << "sflow-access-list 1 " << std::hex << (crc ^ 0xffffffff) << std::dec << ' ' << json.size() << '\n'
         << json;
    return text.str();
}

constexpr std::string_view small =
    R"({"family":"ipv4","id":5,"name":"5","instance":1,"version":2,"entries":[)"
    R"({"sequence":10,"action":"permit","protocol":6,)"
    R"("source":["10.0.0.0","255.0.0.0"],"destination_ports":[80,90,false]}]})";

TEST(Acl_decode, the_form_is_as_documented)
{
    const acl::ReadResult result = acl::decode_list(wrapped(std::string(small)));
    ASSERT_EQ(result.index(), 0U) << std::get<acl::ReadError>(result).reason;
    const auto &list = std::get<acl::List>(result);
    EXPECT_EQ(list.id, 5);
    EXPECT_EQ(list.name, "5");
    EXPECT_EQ(list.version, 2U);
    ASSERT_EQ(list.entries.size(), 1U);
    EXPECT_EQ(list.entries[0].source, ipv4({10, 0, 0, 0}, {255, 0, 0, 0}));
    EXPECT_EQ(list.entries[0].destination, acl::Address{});
    EXPECT_EQ(list.entries[0].destination_ports, (acl::Ports{.first = 80, .last = 90}));
    EXPECT_FALSE(list.entries[0].source_ports);
}

TEST(Acl_decode, contents_that_no_publisher_writes_are_corrupt)
{
    struct Case {
        std::string_view part; ///< of `small`
        std::string_view instead;
    };
    const Case cases[] = {
        {"}]}", "}]"}, // not JSON
        {small, "[]"}, // no object
        {small, "null"},
        {"\"version\":2,", ""},                           // a member is missing
        {"\"version\":2,", "\"version\":2,\"color\":1,"}, // one is not known
        {"\"protocol\":6,", "\"protocol\":6,\"ttl\":1,"}, // a condition is not known
        {"\"family\":\"ipv4\"", "\"family\":\"ipx\""},
        {"\"family\":\"ipv4\"", "\"family\":4"},
        {"\"family\":\"ipv4\"", "\"family\":\"ipv6\""}, // addresses of another family
        {"\"family\":\"ipv4\"", "\"family\":\"mac\""},
        {"\"id\":5", "\"id\":-5"},
        {"\"id\":5", "\"id\":0"},
        {"\"id\":5", "\"id\":2147483648"},
        {"\"id\":5", "\"id\":\"5\""},
        {"\"name\":\"5\"", "\"name\":\"\""},
        {"\"name\":\"5\"", "\"name\":\"a b\""},
        {"\"entries\":[{", "\"entries\":{\"a\":{"},
        {"\"sequence\":10,", ""},
        {"\"sequence\":10", "\"sequence\":0"},
        {"\"sequence\":10", "\"sequence\":2147483648"},
        {"\"action\":\"permit\"", "\"action\":\"allow\""},
        {"\"action\":\"permit\"", "\"action\":true"},
        {"\"protocol\":6", "\"protocol\":256"},
        {"\"protocol\":6", "\"protocol\":6.5"},
        {"\"protocol\":6,", ""}, // ports without a protocol
        {"\"protocol\":6", "\"protocol\":1"},
        {"\"protocol\":6", "\"protocol\":17,\"established\":true"},
        {"\"protocol\":6", "\"protocol\":6,\"established\":1"},
        {"\"protocol\":6", "\"protocol\":6,\"ether_type\":2048"},
        {"\"10.0.0.0\"", "\"10.0.0\""},
        {"\"10.0.0.0\"", "\"10.1.0.0\""}, // outside of the mask
        {"[\"10.0.0.0\",\"255.0.0.0\"]", "[\"10.0.0.0\"]"},
        {"[\"10.0.0.0\",\"255.0.0.0\"]", "\"10.0.0.0/8\""},
        {"[80,90,false]", "[80,90]"},
        {"[80,90,false]", "[90,80,false]"},
        {"[80,90,false]", "[80,65536,false]"},
        {"[80,90,false]", "[80,90,0]"},
    };
    for (const Case &one : cases) {
        std::string text(small);
        ASSERT_NE(text.find(one.part), std::string::npos) << one.part;
        text.replace(text.find(one.part), one.part.size(), one.instead);
        const acl::ReadResult result = acl::decode_list(wrapped(text));
        ASSERT_EQ(result.index(), 1U) << text;
        EXPECT_EQ(std::get<acl::ReadError>(result).fault, acl::Fault::corrupt);
    }
}

TEST(Acl_decode, another_format_is_refused)
{
    std::string text = wrapped(std::string(small));
    text.replace(text.find(" 1 "), 3, " 2 ");
    EXPECT_EQ(acl::decode_list(text).index(), 1U);
}

TEST(Acl_list_find_fault, entries_come_in_ascending_order_and_not_twice)
{
    acl::List list = ipv4_list();
    EXPECT_EQ(acl::find_fault(list), std::nullopt);
    std::swap(list.entries[0], list.entries[1]);
    EXPECT_NE(acl::find_fault(list), std::nullopt);
    list.entries[0] = list.entries[1];
    EXPECT_NE(acl::find_fault(list), std::nullopt);
}

TEST(Acl_list_find_fault, what_an_entry_cannot_ask_is_a_fault)
{
    struct Case {
        const char *what;
        acl::List list;
        std::function<void(acl::Entry &)> change;
    };
    const Case cases[] = {
        {"mask beyond the address", ipv4_list(), [](acl::Entry &e) { e.source.mask[4] = 1; }},
        {"bits outside of the mask", mac_list(), [](acl::Entry &e) { e.source.value[4] = 1; }},
        {"protocol of a frame", mac_list(), [](acl::Entry &e) { e.protocol = acl::PROTOCOL_UDP; }},
        {"DSCP of a frame", mac_list(), [](acl::Entry &e) { e.dscp = 1; }},
        {"802.3 length as EtherType", mac_list(), [](acl::Entry &e) { e.ether_type = 0x05ff; }},
        {"EtherType of a packet", ipv6_list(), [](acl::Entry &e) { e.ether_type = 0x86dd; }},
        {"ports of every protocol", ipv6_list(), [](acl::Entry &e) { e.destination_ports = acl::Ports{}; }},
    };
    for (const Case &one : cases) {
        acl::List list = one.list;
        ASSERT_EQ(acl::find_fault(list), std::nullopt) << one.what;
        one.change(list.entries[0]);
        EXPECT_NE(acl::find_fault(list), std::nullopt) << one.what;
    }
}

TEST(Acl_list_find_fault, a_list_has_at_most_512_entries)
{
    acl::List list = longest_list();
    EXPECT_EQ(list.entries.size(), 512U);
    EXPECT_EQ(acl::find_fault(list), std::nullopt);
    list.entries.insert(list.entries.begin(), {.sequence = 1});
    EXPECT_NE(acl::find_fault(list), std::nullopt);
}

TEST(Acl_list_is_older, only_versions_of_one_run_are_compared)
{
    const acl::List current = ipv4_list();
    acl::List candidate = current;
    EXPECT_FALSE(acl::is_older(candidate, current));
    candidate.version = current.version - 1;
    EXPECT_TRUE(acl::is_older(candidate, current));
    candidate.instance = 1;
    EXPECT_FALSE(acl::is_older(candidate, current));
}

TEST_F(Acl_file, withdrawing_takes_one_file_or_all)
{
    EXPECT_EQ(acl::withdraw_all(directory_), "");
    EXPECT_EQ(acl::withdraw_list(directory_, 5), "");
    ASSERT_EQ(acl::publish_list(directory_, ipv4_list()), "");
    ASSERT_EQ(acl::publish_list(directory_, mac_list()), "");
    EXPECT_EQ(acl::withdraw_list(directory_, 101), "");
    EXPECT_EQ(fault(101), acl::Fault::missing);
    EXPECT_EQ(acl::read_list(directory_, 3001, "frames").index(), 0U);
    std::ofstream(path(9) + ".new") << "half a list";
    std::ofstream(directory_ + "/notes") << "of somebody else";
    EXPECT_EQ(acl::withdraw_all(directory_), "");
    EXPECT_FALSE(fs::exists(path(3001)));
    EXPECT_FALSE(fs::exists(path(9) + ".new"));
    EXPECT_TRUE(fs::exists(directory_ + "/notes"));
}

} // namespace
