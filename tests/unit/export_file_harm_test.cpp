// File of the counter cache in harm's way: a process that is killed, a disk that is full, permissions that are missing
// lose no counter that the file could keep.
#include "export_cache.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <optional>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using namespace export_test;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

using Poller_file_of_a_killed_process = Saving;
using Poller_file_on_a_full_disk = Saving;
using Poller_file_without_permission = Saving;

/// What the wait for a child process running `work` says.
int in_child(const std::function<void()> &work)
{
    std::fflush(nullptr); // or the child prints it as well
    const pid_t child = fork();
    if (child == 0) {
        work();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

/// Exit status of a child process that cannot be anybody but root.
constexpr int STAYS_ROOT = 79;

/// The same for `work` that root, who may read and write everything, must not do.
int in_child_without_root(const std::function<void()> &work)
{
    return in_child([&work] {
        if (geteuid() == 0 && seteuid(65534) != 0)
            _exit(STAYS_ROOT);
        work();
    });
}

} // namespace

// ---- Kill -9 ----------------------------------------------------------------------------------------------

namespace
{

/// Interfaces in list order with the number that all their counters hold.
using Counters = std::vector<std::pair<IFINDEX, std::uint32_t>>;

Counters counters_of_the_cache()
{
    Counters counters;
    sflow_config_rdlock();
    for (const sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list; link = link->next) {
        const auto *node = reinterpret_cast<const sflow_counter_node_t *>(link);
        counters.emplace_back(node->ifx, node->generic.ifInErrors);
    }
    sflow_config_rdunlock();
    return counters;
}

/// The loaded cache is the one before or the one after the change that the process was killed in; within the node that
/// was being updated each counter may be the old or the new one.
void expect_before_or_after(const Counters &before, const Counters &after)
{
    const auto interfaces = [](const Counters &counters) {
        std::vector<IFINDEX> result;
        for (const auto &[ifx, number] : counters)
            result.push_back(ifx);
        return result;
    };
    EXPECT_THAT(interfaces(counters_of_the_cache()), AnyOf(interfaces(before), interfaces(after)));
    const auto number_in = [](const Counters &counters, IFINDEX ifx) {
        const auto found = std::find_if(counters.begin(), counters.end(),
                                        [ifx](const auto &each) { return each.first == ifx; });
        return found != counters.end() ? found->second : 0;
    };
    sflow_config_rdlock();
    for (const sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list; link = link->next) {
        const auto *node = reinterpret_cast<const sflow_counter_node_t *>(link);
        const std::uint32_t old_number = number_in(before, node->ifx);
        const std::uint32_t new_number = number_in(after, node->ifx);
        const auto either = AnyOf(old_number, new_number);
        EXPECT_THAT(node->generic.ifInOctets, either) << node->ifx;
        EXPECT_THAT(node->generic.ifInErrors, either) << node->ifx;
        EXPECT_THAT(node->ether.dot3StatsSymbolErrors, either) << node->ifx;
    }
    sflow_config_rdunlock();
}

} // namespace

TEST_F(Poller_file_of_a_killed_process, loads_with_nothing_lost_at_whatever_call_it_ended)
{
    const struct {
        const char *name;
        void (*change)();
    } rows[] = {
        // Of images of 168 bytes, the one of interface 25 lies across the end of a page.
        {"update", [] { update(25, 1000); }},
        {"new interface", [] { update(61, 1000); }},
        {"removal of the first", [] { del(cached(1)); }},
        {"removal from the middle", [] { del(cached(25)); }},
        {"removal of the last", [] { del(cached(60)); }},
        {"whole save", [] { save(); }},
    };
    const auto start = [] {
        clear_world();
        reset_syscalls();
        for (IFINDEX ifx = 1; ifx <= 60; ifx++)
            update(ifx, ifx);
    };
    sflow_debug_conf = false;
    for (const auto &row : rows) {
        start();
        const Counters before = counters_of_the_cache();
        row.change();
        const Counters after = counters_of_the_cache();
        int ended = 0;
        // What a write has taken ends between two counters, as the kernel's pages do.
        for (const std::size_t taken : {0U, 8U, 64U, 160U, 168U, 4096U, 10000U}) {
            for (int nth = 1;; nth++) {
                SCOPED_TRACE(std::string(row.name) + ", call " + std::to_string(nth) + " after " +
                             std::to_string(taken) + " bytes");
                start();
                const int status = in_child([&] {
                    end_process_at(nth, taken);
                    row.change();
                });
                clear_world();
                EXPECT_EQ(sflow_poller_counter_init(), 0);
                expect_before_or_after(before, after);
                ASSERT_TRUE(WIFEXITED(status));
                if (WEXITSTATUS(status) == 0)
                    break;
                ASSERT_EQ(WEXITSTATUS(status), ENDED_AT_CALL);
                ended++;
            }
        }
        EXPECT_GE(ended, 7) << row.name;
    }
}

namespace
{

/// Change number `step` of a process that changes the cache until it is killed.
void change_at_random(std::uint32_t step)
{
    std::minstd_rand random(step + 1);
    random.discard(2);
    const IFINDEX ifx = 1 + random() % 64;
    sflow_config_wrlock();
    sflow_counter_node_t *node = sflow_poller_get_counter(ifx);
    if (node != nullptr && random() % 4 == 0) {
        sflow_poller_del_counter(node);
        sflow_config_wrunlock();
        return;
    }
    sflow_config_wrunlock();
    sflow_msg_counter_t counters = {};
    counters.generic_counter.ifInOctets = counters.generic_counter.ifInErrors =
        counters.ether_counter.dot3StatsSymbolErrors = step + 1;
    const sflow_msg_t event = {.list = {}, .ifx = ifx, .type = SFLOW_MSG_UPDATE_COUNTER, .msg = &counters};
    sflow_poller_update_counter(&event);
}

/// A child process that makes one change after the other and reports each; killed after `reports` of them. The number
/// of changes that it has reported.
std::uint32_t change_until_killed(std::uint32_t reports)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        for (std::uint32_t step = 0;; step++) {
            change_at_random(step);
            if (write(ends[1], "", 1) != 1)
                _exit(1);
        }
    }
    close(ends[1]);
    std::uint32_t reported = 0;
    char report = 0;
    while (read(ends[0], &report, 1) == 1) {
        if (++reported == reports)
            kill(child, SIGKILL);
    }
    close(ends[0]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    return reported;
}

} // namespace

TEST_F(Poller_file_of_a_killed_process, loads_with_nothing_lost_after_kill_9)
{
    log_everything();
    sflow_debug_conf = false;
    record_nothing();
    for (std::uint32_t reports = 1; reports <= 400; reports += 13) {
        SCOPED_TRACE("killed after " + std::to_string(reports) + " changes");
        clear_world();
        std::filesystem::remove(path());
        const std::uint32_t reported = change_until_killed(reports);
        ASSERT_GE(reported, reports);

        // The same changes again, without a file, tell what to expect.
        const std::optional<std::string> tmp_dir = std::exchange(world().tmp_dir, std::nullopt);
        for (std::uint32_t step = 0; step < reported; step++)
            change_at_random(step);
        const Counters before = counters_of_the_cache();
        change_at_random(reported);
        const Counters after = counters_of_the_cache();
        clear_world();
        world().tmp_dir = tmp_dir;

        EXPECT_EQ(sflow_poller_counter_init(), 0);
        expect_before_or_after(before, after);
    }
}

// ---- Full disk, missing permission ------------------------------------------------------------------------

namespace
{

/// While it lives, no file of this process can grow beyond `bytes`: writes are cut there and then refused, as on a
/// disk that is full.
class SizeLimit
{
public:
    explicit SizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~SizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_before_);
    }
    SizeLimit(const SizeLimit &) = delete;
    SizeLimit &operator=(const SizeLimit &) = delete;

private:
    rlimit before_ = {};
    void (*handler_before_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

constexpr const char *WRITE_FAIL = "[SFLOW-CONF]sflow_poller_save_counter write fail\n";

} // namespace

TEST_F(Poller_file_on_a_full_disk, takes_updates_of_what_it_holds)
{
    fill(3);
    const SizeLimit full(3 * IMAGE);
    update(2, 5);
    expect_file_is_the_cache("an update on a full disk");
    EXPECT_EQ(fake::syslog_count(WRITE_FAIL), 0U);
}

TEST_F(Poller_file_on_a_full_disk, keeps_the_complete_images_and_takes_the_rest_when_there_is_room_again)
{
    fill(3);
    {
        const SizeLimit full(3 * IMAGE + 50);
        for (const IFINDEX ifx : {4U, 5U, 2U}) {
            fake::forget_syslog();
            update(ifx, 5);
            EXPECT_EQ(fake::syslog_count(WRITE_FAIL), 1U) << ifx;
            std::vector<std::uint8_t> want = images_of_the_cache();
            want.resize(3 * IMAGE + 50);
            EXPECT_EQ(file(), want) << ifx;
        }
        EXPECT_EQ(cached(5)->generic.ifInErrors, 5U) << "counting goes on";
        EXPECT_THAT(directory(), ElementsAre("tmp_file"));
    }
    update(1, 5);
    expect_file_is_the_cache("room again");
    clear_world();
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(listed(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(Poller_file_on_a_full_disk, follows_removals)
{
    fill(5);
    const SizeLimit full(4 * IMAGE - 1);
    for (const IFINDEX ifx : {1U, 5U, 3U}) {
        del(cached(ifx));
        std::vector<std::uint8_t> want = images_of_the_cache();
        want.resize(std::min<std::size_t>(want.size(), 4 * IMAGE - 1));
        EXPECT_EQ(file(), want) << ifx;
    }
}

TEST_F(Poller_file_without_permission, stays_as_it_is_and_counting_goes_on)
{
    fill(2);
    std::filesystem::permissions(path(), std::filesystem::perms{0444});
    std::filesystem::permissions(path().parent_path().parent_path(), std::filesystem::perms{0755});
    const std::vector<std::uint8_t> before = file();
    const int status = in_child_without_root([] {
        update(1, 5);
        EXPECT_EQ(cached(1)->generic.ifInErrors, 6U);
        EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]creat file error\n"));
    });
    if (WEXITSTATUS(status) == STAYS_ROOT)
        GTEST_SKIP() << "nobody to be but root here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(file(), before);
}

TEST_F(Poller_file_without_permission, to_make_a_second_file_is_written_in_place)
{
    fill(5);
    std::filesystem::permissions(path(), std::filesystem::perms{0666});
    std::filesystem::permissions(path().parent_path(), std::filesystem::perms{0555});
    std::filesystem::permissions(path().parent_path().parent_path(), std::filesystem::perms{0755});
    const int status = in_child_without_root([this] {
        for (const IFINDEX ifx : {2U, 5U, 1U}) {
            del(cached(ifx));
            expect_file_is_the_cache("removal of " + std::to_string(ifx));
        }
        update(4, 5);
        update(9, 5);
        expect_file_is_the_cache("updates");
        EXPECT_EQ(fake::syslog_count(WRITE_FAIL), 0U);
    });
    std::filesystem::permissions(path().parent_path(), std::filesystem::perms{0755});
    if (WEXITSTATUS(status) == STAYS_ROOT)
        GTEST_SKIP() << "nobody to be but root here";
    EXPECT_EQ(status, 0);
}

TEST_F(Poller_file_without_permission, to_read_it_starts_with_an_empty_cache)
{
    fill(2);
    clear_world();
    std::filesystem::permissions(path(), std::filesystem::perms{0});
    std::filesystem::permissions(path().parent_path().parent_path(), std::filesystem::perms{0755});
    const int status = in_child_without_root([] {
        EXPECT_EQ(sflow_poller_counter_init(), -1);
        EXPECT_THAT(listed(), IsEmpty());
        EXPECT_THAT(fake::syslog_texts(), IsEmpty());
    });
    if (WEXITSTATUS(status) == STAYS_ROOT)
        GTEST_SKIP() << "nobody to be but root here";
    EXPECT_EQ(status, 0);
}
