#include "acl_directory.h"

#include "acl_frames.h"
#include "cli_temporary_directory.h"
#include "sampling_fakes.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

struct Lists {
    TemporaryDirectory root;
    std::string path = root.path() + "/platform/acl";
    EventLoop loop;
    LogLines log;
    FakeBackend backend;
    AclDirectory directory{loop, log.log, path, backend};

    explicit Lists(bool with_directory = true)
    {
        if (with_directory)
            std::filesystem::create_directories(path);
        else
            std::filesystem::create_directories(root.path() + "/platform");
    }

    void publish(std::int32_t id, std::uint64_t version, std::uint64_t instance = 1) const
    {
        acl::List list = list_of(acl::Family::ipv4, {{.action = acl::Action::permit}}, id);
        list.version = version;
        list.instance = instance;
        ASSERT_EQ(acl::publish_list(path, list), "");
    }
    void withdraw(std::int32_t id) const { ASSERT_EQ(acl::withdraw_list(path, id), ""); }
    void write(std::int32_t id, const std::string &text) const
    {
        std::ofstream(acl::file_of(path, id), std::ios::binary) << text;
    }
    std::vector<std::string> calls_after_events()
    {
        settle(loop);
        return backend.take_calls();
    }
    /// Until the backend has been called; the directory is looked at every second.
    std::vector<std::string> calls_after_a_while()
    {
        for (int i = 0; i < 600 && backend.calls.empty(); ++i)
            loop.run_once(std::chrono::milliseconds(100));
        return backend.take_calls();
    }
};

TEST(AclDirectory_use, puts_a_published_list_in_force_once)
{
    Lists lists;
    lists.publish(5, 1);
    EXPECT_EQ(lists.directory.use(5, ""), Answer::ok);
    EXPECT_EQ(lists.directory.use(5, "5"), Answer::ok);
    EXPECT_THAT(lists.backend.calls, ElementsAre("install 5 version 1"));
}

TEST(AclDirectory_use, refuses_each_fault_with_a_code_and_a_line_of_its_own)
{
    Lists lists;
    EXPECT_EQ(lists.directory.use(5, ""), Answer::acl_missing);
    EXPECT_EQ(lists.log.containing("access list 5: " + acl::file_of(lists.path, 5)), 1U);

    lists.write(6, "not a list");
    EXPECT_EQ(lists.directory.use(6, ""), Answer::acl_corrupt);
    EXPECT_EQ(lists.log.containing("access list 6: " + acl::file_of(lists.path, 6)), 1U);

    std::filesystem::create_directory(acl::file_of(lists.path, 7));
    EXPECT_EQ(lists.directory.use(7, ""), Answer::acl_unreadable);

    lists.publish(8, 1);
    EXPECT_EQ(lists.directory.use(8, "web"), Answer::acl_stale);

    lists.backend.refuse_acls = true;
    EXPECT_EQ(lists.directory.use(8, ""), Answer::acl_refused);
    EXPECT_EQ(lists.log.containing("nothing is sampled by it"), 4U);
}

TEST(AclDirectory_use, a_torn_file_is_corrupt)
{
    Lists lists;
    lists.publish(5, 1);
    const std::string file = acl::file_of(lists.path, 5);
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
    EXPECT_EQ(lists.directory.use(5, ""), Answer::acl_corrupt);
    EXPECT_THAT(lists.backend.calls, IsEmpty());
}

TEST(AclDirectory_use, a_list_of_another_name_is_not_taken_for_the_one_in_force)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, "5"), Answer::ok);
    EXPECT_EQ(lists.directory.use(5, "web"), Answer::acl_stale);
}

TEST(AclDirectory_watch, a_new_version_takes_the_place_of_the_old_one)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.publish(5, 2);
    lists.publish(6, 3); // nobody's
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 2"));
    lists.publish(5, 2); // the same again
    EXPECT_THAT(lists.calls_after_events(), IsEmpty());
    lists.publish(5, 1, 2); // the ACL service has restarted
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 1"));
}

TEST(AclDirectory_watch, an_older_version_is_not_put_in_force)
{
    Lists lists;
    lists.publish(5, 7);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.publish(5, 6);
    EXPECT_THAT(lists.calls_after_events(), IsEmpty());
    EXPECT_EQ(lists.log.containing("is older than version 7"), 1U);
}

TEST(AclDirectory_watch, a_withdrawn_list_permits_nothing_until_it_is_back)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.withdraw(5);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("withhold 5"));
    EXPECT_EQ(lists.directory.use(5, ""), Answer::acl_missing);
    lists.publish(5, 2);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 2"));
}

TEST(AclDirectory_watch, a_list_whose_id_was_given_to_another_permits_nothing)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    acl::List other = list_of(acl::Family::ipv4, {}, 5);
    other.name = "web";
    other.version = 2;
    ASSERT_EQ(acl::publish_list(lists.path, other), "");
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("withhold 5"));
}

TEST(AclDirectory_watch, a_corrupt_file_leaves_the_version_in_force)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.write(5, "not a list");
    EXPECT_THAT(lists.calls_after_events(), IsEmpty());
    EXPECT_GE(lists.log.containing("version 1 stays in force"), 1U);
    lists.publish(5, 2);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 2"));
}

TEST(AclDirectory_watch, a_version_that_the_backend_refuses_leaves_the_one_before)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.backend.refuse_acls = true;
    lists.publish(5, 2);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 2"));
    lists.backend.refuse_acls = false;
    lists.publish(5, 3);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 3"));
}

TEST(AclDirectory_watch, begins_with_the_first_list_when_the_directory_comes_late)
{
    Lists lists(false);
    EXPECT_EQ(lists.directory.use(5, ""), Answer::acl_missing);
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    lists.publish(5, 2);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 2"));
}

TEST(AclDirectory_watch, survives_the_loss_of_the_directory)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    std::filesystem::remove_all(lists.path);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("withhold 5"));
    lists.publish(5, 2);
    EXPECT_THAT(lists.calls_after_a_while(), ElementsAre("install 5 version 2"));
    // and it is watched again
    lists.publish(5, 3);
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("install 5 version 3"));
}

TEST(AclDirectory_watch, a_directory_that_is_moved_away_takes_its_lists_along)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.backend.take_calls();
    std::filesystem::rename(lists.path, lists.root.path() + "/elsewhere");
    EXPECT_THAT(lists.calls_after_events(), ElementsAre("withhold 5"));
}

TEST(AclDirectory_keep_only, forgets_the_others)
{
    Lists lists;
    lists.publish(5, 1);
    lists.publish(6, 2);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    ASSERT_EQ(lists.directory.use(6, ""), Answer::ok);
    lists.backend.take_calls();
    lists.directory.keep_only({0, 6});
    EXPECT_THAT(lists.backend.take_calls(), ElementsAre("drop 5"));
    lists.publish(5, 3);
    EXPECT_THAT(lists.calls_after_events(), IsEmpty());
    EXPECT_EQ(lists.directory.use(5, ""), Answer::ok);
    EXPECT_THAT(lists.backend.take_calls(), ElementsAre("install 5 version 3"));
}

TEST(AclDirectory_log_lists, tells_what_is_in_force)
{
    Lists lists;
    lists.publish(5, 1);
    ASSERT_EQ(lists.directory.use(5, ""), Answer::ok);
    lists.directory.log_lists();
    EXPECT_EQ(lists.log.containing("access list 5: id 5, version 1 with 1 entries, in force"), 1U);
    lists.withdraw(5);
    settle(lists.loop);
    lists.directory.log_lists();
    EXPECT_EQ(lists.log.containing("withheld"), 1U);
}

} // namespace
} // namespace sampling
