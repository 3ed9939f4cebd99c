// The process: paths, directory, debug file, instance lock, threads, proof of life, start-up.
#include "agent_doubles.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Process : public agent_test
{
protected:
    static void set_tmpdir(const std::string &value) { setenv("TMPDIR", value.c_str(), 1); }
};

// ---- Paths and directory -----------------------------------------------------------------------------------------

TEST_F(Process, path_is_TMPDIR_followed_by_the_suffix)
{
    set_tmpdir("/some/where");
    EXPECT_STREQ(sflow_make_tmp_path("/sflow/app_debug"), "/some/where/sflow/app_debug");
    EXPECT_STREQ(sflow_make_tmp_path(""), "/some/where");
}

TEST_F(Process, path_is_null_without_TMPDIR)
{
    unsetenv("TMPDIR");
    EXPECT_EQ(sflow_make_tmp_path("/sflow"), nullptr);
}

TEST_F(Process, path_has_at_most_99_characters)
{
    const std::string suffix = "/sflow/app_debug";
    set_tmpdir(std::string(99 - suffix.size(), 'd'));
    const char *path = sflow_make_tmp_path(suffix.c_str());
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(std::string(path).size(), 99U);
    set_tmpdir(std::string(100 - suffix.size(), 'd'));
    EXPECT_EQ(sflow_make_tmp_path(suffix.c_str()), nullptr);
}

TEST_F(Process, path_shares_one_buffer_per_thread)
{
    EXPECT_EQ(sflow_make_tmp_path("/a"), sflow_make_tmp_path("/b"));
}

TEST_F(Process, directory_is_created_for_everybody)
{
    std::filesystem::remove_all(path("/sflow"));
    umask(077);
    EXPECT_EQ(sflow_make_dir(), 0);
    struct stat status = {};
    ASSERT_EQ(stat(path("/sflow").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0777));
    EXPECT_EQ(umask(0), 0U) << "the umask stays 0";
}

TEST_F(Process, directory_that_exists_is_good)
{
    EXPECT_EQ(sflow_make_dir(), 0);
    EXPECT_EQ(sflow_make_dir(), 0);
}

TEST_F(Process, directory_fails_without_parent_or_path)
{
    set_tmpdir(path("/missing"));
    EXPECT_EQ(sflow_make_dir(), -1);
    unsetenv("TMPDIR");
    EXPECT_EQ(sflow_make_dir(), -1);
}

// ---- Debug file --------------------------------------------------------------------------------------------------

TEST_F(Process, debug_file_is_created_readable_and_writable_for_everybody)
{
    sflow_app_close_debug_file(&sflow_app_debug_fd);
    EXPECT_EQ(sflow_app_debug_fd, -1);
    std::filesystem::remove(path("/sflow/app_debug"));
    sflow_app_debug_fd = sflow_app_open_debug_file();
    ASSERT_GE(sflow_app_debug_fd, 0);
    struct stat status = {};
    ASSERT_EQ(fstat(sflow_app_debug_fd, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0777));
    EXPECT_EQ(fcntl(sflow_app_debug_fd, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(Process, debug_file_is_truncated_when_opened)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 1, "old");
    const int second = sflow_app_open_debug_file();
    EXPECT_EQ(debug_lines(), strings{});
    close(second);
}

TEST_F(Process, debug_file_that_cannot_be_opened_is_minus_one)
{
    std::filesystem::remove_all(path("/sflow"));
    EXPECT_EQ(sflow_app_open_debug_file(), -1);
    unsetenv("TMPDIR");
    EXPECT_EQ(sflow_app_open_debug_file(), -1);
}

TEST_F(Process, debug_line_has_time_source_line_and_text)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 1745, "sflow app init success");
    const std::string content = read_file(path("/sflow/app_debug"));
    ASSERT_EQ(content.size(),
              std::string("2024/05/01 10:00:00 sflow_agent.c,1745,sflow app init success\n").size());
    EXPECT_EQ(content.substr(19), " sflow_agent.c,1745,sflow app init success\n");
    struct tm parsed = {};
    EXPECT_STREQ(strptime(content.c_str(), "%Y/%m/%d %H:%M:%S", &parsed), content.c_str() + 19);
}

TEST_F(Process, debug_line_carries_a_literal_when_the_time_is_unknown)
{
    behaviour.local_time = false;
    sflow_app_write_log(sflow_app_debug_fd, "sflow_cli.c", 7, "text");
    EXPECT_EQ(read_file(path("/sflow/app_debug")), "Y/M/D h:m:s sflow_cli.c,7,text\n");
}

TEST_F(Process, debug_line_goes_nowhere_without_a_file)
{
    sflow_app_write_log(-1, "sflow_agent.c", 1, "text");
    const int closed = dup(sflow_app_debug_fd);
    close(closed);
    sflow_app_write_log(closed, "sflow_agent.c", 1, "text");
    EXPECT_EQ(debug_lines(), strings{});
}

struct size_case_t {
    const char *name;
    off_t size;
    bool kept;
};

class Process_debug_size : public Process, public ::testing::WithParamInterface<size_case_t>
{
};

TEST_P(Process_debug_size, decides_whether_the_file_starts_again)
{
    ASSERT_EQ(ftruncate(sflow_app_debug_fd, GetParam().size), 0);
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 1, "next");
    const std::string content = read_file(path("/sflow/app_debug"));
    const std::string expected_end = " sflow_agent.c,1,next\n";
    const size_t line_size = 19 + expected_end.size();
    EXPECT_EQ(content.size(), line_size + (GetParam().kept ? static_cast<size_t>(GetParam().size) : 0));
    EXPECT_EQ(content.substr(content.size() - expected_end.size()), expected_end);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Process_debug_size,
                         ::testing::Values(size_case_t{"empty", 0, true}, size_case_t{"full", 1048575, true},
                                           size_case_t{"one_more", 1048576, false},
                                           size_case_t{"far_more", 5000000, false}),
                         [](const auto &info) { return info.param.name; });

TEST_F(Process, debug_lines_leave_no_hole_after_another_instance_truncated_the_file)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 1, "before");
    close(sflow_app_open_debug_file());
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 2, "after");
    EXPECT_EQ(debug_lines(), strings{"after"});
}

// ---- Instance lock -----------------------------------------------------------------------------------------------

/// Result of sflow_is_running() in a process of its own, which lives until the returned descriptor is closed.
struct other_instance_t {
    other_instance_t()
    {
        int result_pipe[2];
        int life_pipe[2];
        if (pipe(result_pipe) != 0 || pipe(life_pipe) != 0)
            std::abort();
        pid = fork();
        if (pid == 0) {
            close(life_pipe[1]);
            const char result = sflow_is_running() == 0 ? 'y' : 'n';
            char end = 0;
            if (write(result_pipe[1], &result, 1) != 1 || read(life_pipe[0], &end, 1) != 0)
                _exit(2);
            _exit(0);
        }
        close(life_pipe[0]);
        close(result_pipe[1]);
        life = life_pipe[1];
        char result = 0;
        holds_lock = read(result_pipe[0], &result, 1) == 1 && result == 'y';
        close(result_pipe[0]);
    }
    other_instance_t(const other_instance_t &) = delete;
    other_instance_t &operator=(const other_instance_t &) = delete;
    ~other_instance_t()
    {
        close(life);
        waitpid(pid, nullptr, 0);
    }

    pid_t pid;
    int life;
    bool holds_lock;
};

TEST_F(Process, instance_lock_is_held_for_the_life_of_the_process)
{
    EXPECT_EQ(sflow_is_running(), 0);
    EXPECT_EQ(debug_lines(), strings{});
    const other_instance_t second;
    EXPECT_FALSE(second.holds_lock);
    EXPECT_EQ(debug_lines(), strings{"SFLOW module is running."});
}

TEST_F(Process, instance_lock_of_another_process_is_respected_and_named)
{
    const other_instance_t first;
    ASSERT_TRUE(first.holds_lock);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(sflow_is_running(), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "sflowd: another instance is running: it holds the lock on " + path("/sflow/sflow_lock") +
                  "\n");
    EXPECT_EQ(debug_lines(), strings{"SFLOW module is running."});
}

TEST_F(Process, instance_lock_goes_with_its_process)
{
    {
        const other_instance_t first;
        ASSERT_TRUE(first.holds_lock);
    }
    EXPECT_EQ(sflow_is_running(), 0);
}

class Process_lock_refusal : public Process, public ::testing::WithParamInterface<int>
{
};

TEST_P(Process_lock_refusal, means_that_an_instance_runs)
{
    fail("fcntl", GetParam());
    EXPECT_EQ(sflow_is_running(), -1);
    EXPECT_EQ(debug_lines(), strings{"SFLOW module is running."});
}

INSTANTIATE_TEST_SUITE_P(Errors, Process_lock_refusal, ::testing::Values(EACCES, EAGAIN));

TEST_F(Process, instance_lock_that_fails_otherwise_ends_the_process_with_status_0)
{
    fail("fcntl", ENOLCK);
    EXPECT_EXIT(sflow_is_running(), ::testing::ExitedWithCode(0),
                "cannot lock .*/sflow/sflow_lock: No locks available");
}

TEST_F(Process, instance_lock_needs_a_path)
{
    set_tmpdir(std::string(100 - std::string("/sflow/sflow_lock").size(), 'd'));
    EXPECT_EQ(sflow_is_running(), -1);
    EXPECT_EQ(debug_lines(), strings{"SFLOW make path failure."});
}

TEST_F(Process, instance_lock_needs_its_file)
{
    std::filesystem::create_directory(path("/sflow/sflow_lock"));
    EXPECT_EQ(sflow_is_running(), -1);
    EXPECT_EQ(debug_lines(), strings{"SFLOW create file lock failure."});
}

TEST_F(Process, instance_lock_file_is_truncated)
{
    std::ofstream(path("/sflow/sflow_lock")) << "something";
    EXPECT_EQ(sflow_is_running(), 0);
    EXPECT_EQ(read_file(path("/sflow/sflow_lock")), "");
}

// ---- Threads -----------------------------------------------------------------------------------------------------

void *post(void *semaphore)
{
    static_cast<std::binary_semaphore *>(semaphore)->release();
    return nullptr;
}

TEST_F(Process, thread_runs_its_routine_with_its_argument)
{
    static std::binary_semaphore ran{0};
    pthread_t tid = {};
    ASSERT_EQ(sflow_create_depatch_thread(&tid, post, &ran), 0);
    ran.acquire();
}

TEST_F(Process, thread_is_detached)
{
    const captured_thread_t &thread = capture_threads();
    pthread_t tid = {};
    EXPECT_EQ(sflow_create_depatch_thread(&tid, post, nullptr), 0);
    EXPECT_TRUE(thread.detached);
}

class Process_thread_step : public Process, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(Process_thread_step, failure_is_minus_one)
{
    capture_threads();
    fail(GetParam(), ENOMEM);
    pthread_t tid = {};
    EXPECT_EQ(sflow_create_depatch_thread(&tid, post, nullptr), -1);
}

INSTANTIATE_TEST_SUITE_P(Steps, Process_thread_step,
                         ::testing::Values("pthread_attr_init", "pthread_attr_setdetachstate",
                                           "pthread_create", "pthread_attr_destroy"),
                         [](const auto &info) { return std::string(info.param); });

// ---- Health monitor ----------------------------------------------------------------------------------------------

TEST_F(Process, thread_registers_with_120_seconds_and_5_reports)
{
    EXPECT_EQ(sflow_reg_ham_client_notify(), 0);
    const auto threads = fake::ham_threads();
    ASSERT_EQ(threads.count(gettid()), 1U);
    EXPECT_EQ(threads.at(gettid()).pid, getpid());
    EXPECT_EQ(threads.at(gettid()).deadline_s, 120);
    EXPECT_EQ(threads.at(gettid()).max_reports, 5);
    EXPECT_EQ(sflow_reset_ham_client_notify(), 0);
    EXPECT_EQ(fake::ham_threads().at(gettid()).renewals, 1);
    sflow_unreg_ham_client_notify();
    EXPECT_EQ(fake::ham_threads().count(gettid()), 0U);
    EXPECT_EQ(debug_lines(), strings{});
}

TEST_F(Process, refused_registration_and_renewal_are_written_down)
{
    fake::fail_next("ham_client_reg_thread_notify");
    EXPECT_EQ(sflow_reg_ham_client_notify(), -1);
    fake::fail_next("ham_client_reset_thread_notify");
    EXPECT_EQ(sflow_reset_ham_client_notify(), -1);
    EXPECT_EQ(debug_lines(),
              (strings{"ham_client_reg_thread_notify fail.", "sflow_reset_ham_client_notify fail."}));
}

TEST_F(Process, dead_detection_renews_every_60_seconds)
{
    kx_thread_master_t *master = kx_thread_master_create();
    sflow_init_dead_detection(master);
    EXPECT_EQ(fake::ham_threads().count(gettid()), 1U);
    for (int renewals = 1; renewals <= 3; renewals++) {
        ASSERT_EQ(fake::armed_count("sflow-ham"), 1U);
        fake::advance(std::chrono::milliseconds(59'999));
        EXPECT_EQ(fake::ham_threads().at(gettid()).renewals, renewals - 1);
        fake::advance(std::chrono::milliseconds(1));
        EXPECT_EQ(fake::ham_threads().at(gettid()).renewals, renewals);
    }
    EXPECT_EQ(fake::armed().front().master, master);
    EXPECT_EQ(debug_lines(), strings{});
}

TEST_F(Process, dead_detection_without_a_timer_is_written_down)
{
    kx_thread_master_t *master = kx_thread_master_create();
    fake::fail_next("kx_thread_add_timer");
    sflow_init_dead_detection(master);
    EXPECT_EQ(debug_lines(), (strings{"Failed to add thread for HAM.", "malformed: "}))
        << "the text ends its own line";

    kx_thread_t task = {};
    task.master = master;
    fake::fail_next("kx_thread_add_timer");
    EXPECT_EQ(sflow_reset_thread_notify(&task), 0);
    EXPECT_EQ(debug_lines()[2], "Failed to add re-thread for HAM.");
}

TEST_F(Process, dead_detection_goes_on_after_a_refused_renewal)
{
    kx_thread_t task = {};
    task.master = kx_thread_master_create();
    fake::fail_next("ham_client_reset_thread_notify");
    EXPECT_EQ(sflow_reset_thread_notify(&task), 0);
    EXPECT_EQ(fake::armed_count("sflow-ham"), 1U);
}

// ---- Start-up ----------------------------------------------------------------------------------------------------

class Start : public Process
{
protected:
    void SetUp() override
    {
        threads = &capture_threads();
        ::testing::internal::CaptureStderr();
    }
    void TearDown() override
    {
        if (!told_taken)
            ::testing::internal::GetCapturedStderr();
    }
    /// What the starter was told.
    std::string told()
    {
        told_taken = true;
        return ::testing::internal::GetCapturedStderr();
    }

    const captured_thread_t *threads = nullptr;
    bool told_taken = false;
};

const strings success_lines = {"create rdnd thread success.", "create one second thread success.",
                               "sflow app init success."};

TEST_F(Start, starts_everything_in_order_and_serves_the_main_loop)
{
    EXPECT_EQ(sflow_main(), -1) << "the loop ends when its master has nothing left";
    EXPECT_EQ(calls(),
              (strings{"receiver_init", "cli_init", "counter_init", "lib_server_init", "config_register"}));
    EXPECT_EQ(threads->created, 3);
    EXPECT_EQ(threads->start, sflow_msg_main) << "the dispatcher is the last thread";
    EXPECT_EQ(debug_lines(), success_lines);
    EXPECT_EQ(fake::call_order(),
              (strings{"get_cores_affinity", "reg_process_exit_action", "kx_thread_master_create",
                       "syslog_single_thread_client_init", "syslog_set_snd_queue_size",
                       "ham_client_reg_thread_notify", "kx_thread_add_timer", "kx_thread_master_finish"}));
    EXPECT_EQ(sflow_app_debug_fd, -1);
    EXPECT_EQ(told(), "sflowd: the main loop has ended\n");
}

TEST_F(Start, passes_the_platform_its_fixed_arguments)
{
    sflow_main();
    EXPECT_EQ(fake::calls("reg_process_exit_action").size(), 1U);
    EXPECT_NE(fake::calls("reg_process_exit_action")[0].find("0"), std::string::npos);
    EXPECT_NE(fake::calls("reg_process_exit_action")[0].find("1"), std::string::npos);
    EXPECT_NE(fake::calls("syslog_set_snd_queue_size")[0].find("10240"), std::string::npos);
    EXPECT_NE(fake::calls("get_cores_affinity")[0].find("SFLOW"), std::string::npos);
    EXPECT_NE(fake::calls("kx_thread_add_timer")[0].find("ms=60000 name=sflow-ham"), std::string::npos);
}

bool main_task_ran;

TEST_F(Start, main_loop_runs_the_tasks_of_its_master)
{
    main_task_ran = false;
    fake::set_idle_hook([] {
        if (main_task_ran)
            return false;
        kx_thread_add_event(
            fake::armed().front().master,
            [](kx_thread_t *) {
                main_task_ran = true;
                return 0;
            },
            nullptr);
        return true;
    });
    sflow_main();
    EXPECT_TRUE(main_task_ran);
}

TEST_F(Start, pins_the_process_to_the_cores_that_the_platform_assigns)
{
    fake::set_cores("SFLOW", {1, 3});
    sflow_main();
    EXPECT_EQ(pinned().cores, (std::vector<int>{1, 3}));
    EXPECT_EQ(pinned().bytes, 128U);
}

TEST_F(Start, goes_on_unpinned_when_no_cores_are_assigned)
{
    sflow_main();
    EXPECT_EQ(pinned().bytes, 0U);
    EXPECT_EQ(debug_lines(), success_lines);
}

TEST_F(Start, ignores_sigpipe)
{
    std::signal(SIGPIPE, SIG_DFL);
    sflow_main();
    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(Start, fails_when_sigpipe_cannot_be_ignored)
{
    fail("signal", EINVAL);
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(debug_lines(), strings{"ignore SIGPIPE failure."});
    EXPECT_EQ(threads->created, 0);
    EXPECT_EQ(sflow_app_debug_fd, -1);
}

TEST_F(Start, without_TMPDIR_creates_nothing_and_says_what_to_do)
{
    unsetenv("TMPDIR");
    std::filesystem::remove_all(directory);
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(threads->created, 0);
    EXPECT_EQ(calls(), strings{});
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_EQ(
        told(),
        "sflowd: TMPDIR is not set: set it to the directory below which the daemon keeps its files, for "
        "example TMPDIR=/run\n");
}

TEST_F(Start, with_too_long_a_TMPDIR_creates_nothing)
{
    set_tmpdir(directory + "/" + std::string(94 - directory.size() - 1, 'd'));
    std::filesystem::create_directory(std::getenv("TMPDIR"));
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_TRUE(std::filesystem::is_empty(std::getenv("TMPDIR")));
    EXPECT_EQ(threads->created, 0);
    EXPECT_EQ(told(), "sflowd: TMPDIR is too long: at most 79 characters are usable\n");
}

TEST_F(Start, with_the_longest_TMPDIR_for_the_directory_stops_at_the_lock_file)
{
    set_tmpdir(directory + "/" + std::string(93 - directory.size() - 1, 'd'));
    std::filesystem::create_directory(std::getenv("TMPDIR"));
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(threads->created, 0);
    EXPECT_EQ(told(), "sflowd: TMPDIR is too long: at most 79 characters are usable\n");
}

struct LongDirectory {
    size_t length;
    const char *said;
};

class Start_in_a_long_directory : public Start, public ::testing::WithParamInterface<LongDirectory>
{
};

TEST_P(Start_in_a_long_directory, goes_on_and_says_when_the_domain_socket_has_no_room)
{
    set_tmpdir(directory + "/" + std::string(GetParam().length - directory.size() - 1, 'd'));
    std::filesystem::create_directory(std::getenv("TMPDIR"));
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(told(), std::string(GetParam().said) + "sflowd: the main loop has ended\n");
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, Start_in_a_long_directory,
    ::testing::Values(LongDirectory{79, ""},
                      LongDirectory{80, "sflowd: TMPDIR is too long: at most 79 characters are usable, no "
                                        "sampling service can connect\n"},
                      LongDirectory{82, "sflowd: TMPDIR is too long: at most 79 characters are usable, no "
                                        "sampling service can connect\n"}),
    [](const auto &info) { return std::to_string(info.param.length); });

TEST_F(Start, says_which_directory_it_cannot_create)
{
    set_tmpdir(path("/missing"));
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(told(), "sflowd: cannot create the directory " + path("/missing/sflow") +
                          ": No such file or directory\n");
}

TEST_F(Start, second_instance_truncates_the_debug_file_says_why_and_ends)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", 1, "line of the first instance");
    const other_instance_t first;
    ASSERT_TRUE(first.holds_lock);
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(debug_lines(), strings{"SFLOW module is running."});
    EXPECT_EQ(threads->created, 0);
    EXPECT_EQ(sflow_app_debug_fd, -1);
}

TEST_F(Start, goes_on_when_the_exit_action_is_refused)
{
    fake::fail_next("reg_process_exit_action");
    sflow_main();
    EXPECT_EQ(debug_lines(), (strings{"sflow reg ham failure.", "create rdnd thread success.",
                                      "create one second thread success.", "sflow app init success."}));
}

TEST_F(Start, ignores_a_counter_cache_that_cannot_be_loaded)
{
    behaviour.counter_init = -1;
    sflow_main();
    EXPECT_EQ(debug_lines(), success_lines);
}

struct start_failure_t {
    const char *name;
    std::function<void()> provoke;
    strings lines;
    strings reached; ///< calls of the other modules
    int threads;
};

const strings all_modules = {"receiver_init", "cli_init", "counter_init", "lib_server_init",
                             "config_register"};

const start_failure_t start_failures[] = {
    {"redundancy_thread",
     [] { fail("pthread_create", EAGAIN, 0); },
     {"create rdnd thread failure.", "create rdnd thread success.", "sflow_rdnd_init failure."},
     {},
     0},
    {"agent_record",
     [] { fail("pthread_create", EAGAIN, 1); },
     {"create rdnd thread success.", "create one second thread failure.", "sflow_agent_init failure."},
     {"receiver_init"},
     1},
    {"cli",
     [] { behaviour.cli_init = -1; },
     {"create rdnd thread success.", "create one second thread success.", "sflow_cli_init failure."},
     {"receiver_init", "cli_init"},
     2},
    {"server",
     [] { behaviour.lib_server_init = -1; },
     {"create rdnd thread success.", "create one second thread success.", "sflow_lib_server_init failure."},
     {"receiver_init", "cli_init", "counter_init", "lib_server_init"},
     2},
    {"message_handlers",
     [] { behaviour.config_register = -1; },
     {"create rdnd thread success.", "create one second thread success.", "sflow_config_register failure."},
     all_modules,
     2},
    {"dispatcher",
     [] { fail("pthread_create", EAGAIN, 2); },
     {"create rdnd thread success.", "create one second thread success.", "create pthread failure."},
     all_modules,
     2},
    {"thread_master",
     [] { fake::fail_next("kx_thread_master_create"); },
     {"create rdnd thread success.", "create one second thread success.", "sflow app init success.",
      "kx_thread_master_create failure."},
     all_modules,
     3},
};

class Start_failure : public Start, public ::testing::WithParamInterface<start_failure_t>
{
};

TEST_P(Start_failure, stops_there_says_why_and_closes_the_debug_file)
{
    GetParam().provoke();
    EXPECT_EQ(sflow_main(), -1);
    EXPECT_EQ(debug_lines(), GetParam().lines);
    EXPECT_EQ(calls(), GetParam().reached);
    EXPECT_EQ(threads->created, GetParam().threads);
    EXPECT_EQ(sflow_app_debug_fd, -1);
    EXPECT_EQ(told(), "sflowd: start-up failed: " + GetParam().lines.back() + " More may be in " +
                          path("/sflow/app_debug") + "\n");
}

INSTANTIATE_TEST_SUITE_P(Steps, Start_failure, ::testing::ValuesIn(start_failures),
                         [](const auto &info) { return info.param.name; });

TEST_F(Process, start_ends_with_status_255_when_the_syslog_client_refuses)
{
    capture_threads();
    fake::fail_next("syslog_single_thread_client_init");
    EXPECT_EXIT(sflow_main(), ::testing::ExitedWithCode(255), "syslog_single_thread_client_init failed\\.");
    EXPECT_EQ(debug_lines().back(), "syslog_single_thread_client_init failed.");
}

TEST_F(Process, start_ends_with_status_255_when_the_syslog_queue_refuses)
{
    capture_threads();
    fake::fail_next("syslog_set_snd_queue_size", 3);
    EXPECT_EXIT(sflow_main(), ::testing::ExitedWithCode(255), "syslog_set_snd_queue_size failed\\.");
    EXPECT_EQ(debug_lines().back(), "syslog_set_snd_queue_size failed.");
}

} // namespace
