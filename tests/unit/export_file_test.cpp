// File of the counter cache: it holds the cache after every change, a change of one node costs one image however many
// there are, and whatever a stranger's hand has put at its place does not stop the agent.
#include "export_cache.h"

#include <cerrno>
#include <functional>
#include <random>
#include <sys/stat.h>

using namespace export_test;
using ::testing::Contains;
using ::testing::ElementsAre;

namespace
{

using Poller_save_node = Saving;
using Poller_shorten_file = Saving;
using Poller_file = Saving;

} // namespace

// ---- Cost of one change -----------------------------------------------------------------------------------

TEST_F(Poller_save_node, writes_one_image_over_its_old_one_however_many_there_are)
{
    for (const IFINDEX number : {10U, 1000U}) {
        clear_world();
        fill(number);
        update(7, 5);
        EXPECT_THAT(file_calls(), ElementsAre("pwrite 168 at 1008")) << number << " interfaces";
        expect_file_is_the_cache("update among " + std::to_string(number));
    }
}

TEST_F(Poller_save_node, appends_the_image_of_a_new_interface)
{
    fill(10);
    update(11, 5);
    update(12, 6);
    update(11, 7);
    EXPECT_THAT(file_calls(), ElementsAre("pwrite 168 at 1680", "pwrite 168 at 1848", "pwrite 168 at 1680"));
    expect_file_is_the_cache("two new interfaces");
}

TEST_F(Poller_save_node, logs_the_image_it_writes_and_no_other)
{
    fill(3);
    update(2, 5);
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]sflow_poller_save_counter : ifx(2) ether 0, 0, 0, generic 0, 0, 0.\n",
                    "[SFLOW-CONF]sflow_poller_save_counter write ok\n"));
}

TEST_F(Poller_shorten_file, cuts_off_the_last_image_and_writes_none)
{
    fill(10);
    del(cached(10));
    del(cached(9));
    EXPECT_THAT(file_calls(), ElementsAre("ftruncate 1512", "ftruncate 1344"));
    expect_file_is_the_cache("removal of the last two");
    update(8, 1);
    update(30, 1);
    EXPECT_THAT(file_calls(),
                ElementsAre("ftruncate 1512", "ftruncate 1344", "pwrite 168 at 1176", "pwrite 168 at 1344"));
    expect_file_is_the_cache("updates behind it");
}

TEST_F(Poller_shorten_file, down_to_nothing_and_up_again)
{
    fill(1);
    del(cached(1));
    EXPECT_EQ(status().st_size, 0);
    update(5, 1);
    EXPECT_THAT(file_calls(), ElementsAre("ftruncate 0", "pwrite 168 at 0"));
    expect_file_is_the_cache("first interface of an emptied cache");
}

TEST_F(Poller_file, is_written_anew_when_images_move_and_patched_from_then_on)
{
    fill(100);
    del(cached(3));
    EXPECT_THAT(file_calls(), ElementsAre("write 10752", "write 5880", "rename"));
    expect_file_is_the_cache("removal from the middle");
    reset_syscalls();
    update(4, 1);
    EXPECT_THAT(file_calls(), ElementsAre("pwrite 168 at 336"));
    expect_file_is_the_cache("update of the one that moved");
}

// ---- Whatever happened before -----------------------------------------------------------------------------

TEST_F(Poller_save_node, writes_all_of_a_file_that_is_not_as_it_was_left)
{
    const struct {
        const char *name;
        std::function<void()> meddle;
    } rows[] = {
        {"removed", [this] { std::filesystem::remove(path()); }},
        {"emptied", [this] { std::filesystem::resize_file(path(), 0); }},
        {"cut within an image", [this] { std::filesystem::resize_file(path(), 400); }},
        {"longer", [this] { std::filesystem::resize_file(path(), 2000); }},
        {"other content of the same size",
         [this] { write_file(std::vector<std::uint8_t>(5 * IMAGE, 0x55)); }},
        {"another file in its place",
         [this] {
             const std::filesystem::path other = path().string() + ".other";
             std::filesystem::copy_file(path(), other, std::filesystem::copy_options::overwrite_existing);
             std::filesystem::rename(other, path());
         }},
    };
    for (const auto &row : rows) {
        clear_world();
        fill(5);
        meddle_visibly(row.meddle);
        reset_syscalls();
        update(2, 5);
        EXPECT_THAT(file_calls(), ElementsAre("write 840", "rename")) << row.name;
        expect_file_is_the_cache(row.name);
    }
}

TEST_F(Poller_shorten_file, writes_all_of_a_file_that_is_not_as_it_was_left)
{
    fill(5);
    std::filesystem::resize_file(path(), 100);
    del(cached(5));
    expect_file_is_the_cache("removal of the last one from a cut file");
}

TEST_F(Poller_save_node, writes_all_after_changes_that_were_not_saved)
{
    const struct {
        const char *name;
        std::function<void()> change;
    } rows[] = {
        {"values from the active unit", [] { take_over(4, 77); }},
        {"an interface more", [] { add(20); }},
        {"an interface less", [] { forget(5); }},
        {"another last interface",
         [] {
             forget(5);
             add(20);
         }},
    };
    for (const auto &row : rows) {
        clear_world();
        fill(5);
        row.change();
        update(2, 5);
        EXPECT_THAT(file_calls(), Contains("rename")) << row.name;
        expect_file_is_the_cache(row.name);
    }
}

TEST_F(Poller_shorten_file, never_lengthens_the_file_when_others_were_not_saved)
{
    fill(3);
    add(20);
    del(add(21));
    expect_file_is_the_cache("removal of the last one behind one that was not saved");
}

TEST_F(Poller_file, is_right_after_every_one_of_many_changes)
{
    std::mt19937 random(20240817);
    const auto below = [&random](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    sflow_debug_conf = false;
    for (int step = 0; step < 2000; step++) {
        const std::vector<IFINDEX> there = listed();
        const auto some = [&] { return there[below(there.size())]; };
        std::string what;
        switch (there.empty() ? 0 : below(8)) {
        case 0:
            what = "new interface";
            update(static_cast<IFINDEX>(1 + below(200)), 1);
            break;
        case 1:
            what = "removal";
            del(cached(some()));
            break;
        case 2:
            what = "removal of the last";
            del(cached(there.back()));
            break;
        case 3: {
            what = "update after a stranger's hand";
            const std::uintmax_t size = std::filesystem::file_size(path());
            std::filesystem::resize_file(path(), size / 2);
            update(some(), 2);
            break;
        }
        case 4:
            what = "update after unsaved values";
            take_over(some(), 3);
            update(some(), 2);
            break;
        case 5:
            what = "update after a failure";
            fail_call("pwrite", 1, ENOSPC);
            update(some(), 4);
            update(some(), 4);
            break;
        default:
            what = "update";
            update(some(), 5);
        }
        ASSERT_TRUE(file() == images_of_the_cache()) << "step " << step << ": " << what;
        reset_syscalls();
    }
}

TEST_F(Poller_file, keeps_nothing_of_a_thousand_interfaces_that_came_and_went)
{
    set_agent_address("192.0.2.1");
    set_collector(1, "198.51.100.9");
    sflow_debug_conf = sflow_debug_export = sflow_debug_event = false;
    update(1, 1);
    for (IFINDEX ifx = 2; ifx <= 1001; ifx++) {
        add_interface(ifx, 1, 1);
        update(ifx, 1000);
        sflow_msg_counter_t report = {.generic_counter = {.ifInErrors = 1}, .ether_counter = {}};
        sflow_msg_t event = {.list = {}, .ifx = ifx, .type = SFLOW_MSG_GET_COUNTER_RSP, .msg = &report};
        ASSERT_EQ(sflow_poller_write_countersample(&event), 0);
        ASSERT_EQ(report.generic_counter.ifInErrors, 1001U) << "nothing of the one before";
        // The neighbour goes every other time, so that images move as well.
        if (ifx % 2 == 1) {
            sflow_intf_del_notify(ifx - 1);
            sflow_intf_del_notify(ifx);
        }
    }
    EXPECT_THAT(listed(), ElementsAre(1));
    EXPECT_EQ(find_interface(500), nullptr);
    expect_file_is_the_cache("a thousand interfaces");
    EXPECT_EQ(file().size(), IMAGE);
}

TEST_F(Poller_file, that_was_loaded_is_written_anew_once)
{
    fill(3);
    std::filesystem::resize_file(path(), 3 * IMAGE - 1);
    clear_world();
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    update(2, 5);
    EXPECT_THAT(file_calls(), ElementsAre("write 336", "rename"));
    expect_file_is_the_cache("loading of a cut file");
    reset_syscalls();
    update(1, 5);
    EXPECT_THAT(file_calls(), ElementsAre("pwrite 168 at 0"));
}

TEST_F(Poller_file, comes_back_from_every_length_of_garbage)
{
    std::mt19937 random(7);
    sflow_debug_conf = false;
    for (std::size_t len = 0; len <= 700; len++) {
        std::vector<std::uint8_t> garbage(len);
        for (std::uint8_t &byte : garbage)
            byte = static_cast<std::uint8_t>(random());
        write_file(garbage);
        EXPECT_EQ(sflow_poller_counter_init(), 0);
        ASSERT_EQ(listed().size(), len / IMAGE) << len;
        ASSERT_THAT(world().debug, ElementsAre("sflow_poller.c: read file fail"));
        update(1, 1);
        expect_file_is_the_cache("garbage of " + std::to_string(len) + " bytes");
        world().debug.clear();
        clear_world();
    }
}

// ---- What stands at its place -----------------------------------------------------------------------------

TEST_F(Poller_file, keeps_its_mode_and_leaves_nothing_beside_it)
{
    fill(5);
    std::filesystem::permissions(path(), std::filesystem::perms{0640});
    del(cached(1));
    EXPECT_EQ(status().st_mode & 07777, 0640U);
    EXPECT_THAT(directory(), ElementsAre("tmp_file"));
}

TEST_F(Poller_file, replaces_what_an_ended_process_left_beside_it)
{
    std::ofstream(path().string() + ".new") << "half an image";
    fill(5);
    EXPECT_THAT(directory(), ElementsAre("tmp_file"));
    expect_file_is_the_cache("a left-over");
}

TEST_F(Poller_file, that_is_a_link_stays_one_and_its_target_has_the_content)
{
    const std::filesystem::path target = path().parent_path() / "elsewhere";
    for (const bool symbolic : {true, false}) {
        SCOPED_TRACE(symbolic ? "symbolic" : "hard");
        std::filesystem::remove(path());
        std::ofstream(target) << "something longer than two images" << std::string(500, 'x');
        if (symbolic)
            std::filesystem::create_symlink(target, path());
        else
            std::filesystem::create_hard_link(target, path());
        clear_world();
        add(1);
        add(2);
        save();
        update(2, 5);
        del(cached(1));
        EXPECT_TRUE(std::filesystem::equivalent(target, path()));
        EXPECT_EQ(std::filesystem::is_symlink(path()), symbolic);
        expect_file_is_the_cache("saves through a link");
    }
}

TEST_F(Poller_file, is_written_in_place_where_no_second_file_can_be)
{
    const struct {
        const char *name;
        std::function<void()> prevent;
    } rows[] = {
        {"a directory of its name", [this] { std::filesystem::create_directory(path().string() + ".new"); }},
        {"a link of its name",
         [this] { std::filesystem::create_symlink("/nowhere", path().string() + ".new"); }},
        {"path too long", [this] { world().path_len_max = path().string().size(); }},
        {"no renaming", [] { fail_call("rename", 1, EPERM); }},
        {"no blocks for a second one", [] { fail_call("write", 1, ENOSPC); }},
    };
    for (const auto &row : rows) {
        clear_world();
        fill(5);
        row.prevent();
        const ino_t before = status().st_ino;
        del(cached(2));
        EXPECT_EQ(status().st_ino, before) << row.name;
        expect_file_is_the_cache(row.name);
        EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow_poller_save_counter write ok\n"), 4U) << row.name;
        EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow_poller_save_counter write fail\n"), 0U) << row.name;
        std::filesystem::remove_all(path().string() + ".new");
        world().path_len_max = 4096;
    }
}

TEST_F(Poller_file, that_is_a_directory_is_reported_and_counting_goes_on)
{
    std::filesystem::create_directory(path());
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(world().debug, ElementsAre("sflow_poller.c: read file fail"));
    update(7, 5);
    EXPECT_EQ(cached(7)->generic.ifInErrors, 5U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]creat file error\n"));
    std::filesystem::remove(path());
    update(8, 1);
    expect_file_is_the_cache("the directory is gone");
}

TEST_F(Poller_file, that_is_a_pipe_does_not_hold_up_the_agent)
{
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    // More than a pipe takes.
    for (IFINDEX ifx = 1; ifx <= 1000; ifx++)
        add(ifx);
    update(7, 5);
    EXPECT_EQ(cached(7)->generic.ifInErrors, 5U);
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]sflow_poller_save_counter write fail\n");
    EXPECT_THAT(directory(), ElementsAre("tmp_file"));
}
