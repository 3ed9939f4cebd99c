// The process: start-up in a fixed order, the files below TMPDIR, the single-instance lock, the debug file,
// thread creation, and proof of life to the health monitor.
//
// The main thread runs sflow_main: it starts every subsystem and then serves its own thread master, which
// carries the syslog client and the health timer. There is no orderly shutdown: the process runs until it is
// killed.
//
// The debug file is the daemon's diary of starts, threads and locks. It is deliberately simple: no lock, no
// rotation, nothing in it is read back.

#include "sflow_process.h"

#include "sflow_agent_internal.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_lib_server.h"
#include "sflow_poller.h"

#include "platform/cpu_placement.h"
#include "platform/ham.h"
#include "platform/syslog_client.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

int sflow_app_debug_fd = -1;

namespace
{

constexpr char SFLOW_PROCESS_NAME[] = "SFLOW";
constexpr char SFLOW_DIR[] = "/sflow";
constexpr char SFLOW_DEBUG_FILE[] = "/sflow/app_debug";
constexpr char SFLOW_LOCK_FILE[] = "/sflow/sflow_lock";
/// The longest of the paths below TMPDIR, made elsewhere: what fits it fits them all.
constexpr char SFLOW_LONGEST_PATH[] = "/sflow/domain_socket";
constexpr mode_t SFLOW_FILE_MODE = 0777;

/// A debug file above this size is started again.
constexpr off_t SFLOW_DEBUG_FILE_MAX_BYTES = 0xFFFFF;

constexpr int SFLOW_SYSLOG_QUEUE_LINES = 10240;

// The health monitor: seconds within which a thread renews, reports of one lapse, seconds between renewals.
constexpr int SFLOW_HAM_DEADLINE_S = 120;
constexpr int SFLOW_HAM_REPORTS = 5;
constexpr long SFLOW_HAM_RENEW_S = 60;
constexpr char SFLOW_HAM_TIMER[] = "sflow-ham";

/// What starts after the instance lock is held, in this order. A step without text may fail.
struct start_step_t {
    int (*start)();
    const char *failure;
};

int start_dispatcher()
{
    pthread_t tid;
    return sflow_create_depatch_thread(&tid, sflow_msg_main, nullptr);
}

const start_step_t start_steps[] = {
    {sflow_rdnd_init, "sflow_rdnd_init failure."},
    {[] { return sflow_agent_init(&sflow_agent); }, "sflow_agent_init failure."},
    {sflow_cli_init, "sflow_cli_init failure."},
    {sflow_poller_counter_init, nullptr},
    {sflow_lib_server_init, "sflow_lib_server_init failure."},
    {sflow_config_register, "sflow_config_register failure."},
    {start_dispatcher, "create pthread failure."},
};

/// `consequence` follows the length that every path has room for.
void tell_long_directory(const char *consequence)
{
    sflow_tell_starter("TMPDIR is too long: at most %d characters are usable%s",
                       SFLOW_TMP_PATH_LEN - static_cast<int>(sizeof(SFLOW_LONGEST_PATH)), consequence);
}

void tell_no_directory(int error)
{
    const char *directory = sflow_make_tmp_path(SFLOW_DIR);
    if (directory != nullptr)
        sflow_tell_starter("cannot create the directory %s: %s", directory, std::strerror(error));
    else if (std::getenv("TMPDIR") == nullptr)
        sflow_tell_starter(
            "TMPDIR is not set: set it to the directory below which the daemon keeps its files, "
            "for example TMPDIR=/run");
    else
        tell_long_directory("");
}

int fail_start(int line, const char *text)
{
    sflow_app_write_log(sflow_app_debug_fd, "sflow_agent.c", line, text);
    const char *debug_file = sflow_make_tmp_path(SFLOW_DEBUG_FILE);
    if (debug_file != nullptr)
        sflow_tell_starter("start-up failed: %s More may be in %s", text, debug_file);
    else
        sflow_tell_starter("start-up failed: %s", text);
    sflow_app_close_debug_file(&sflow_app_debug_fd);
    return -1;
}

/// Confines the process, and with it every thread to come, to the cores that the platform assigns to it.
void pin_process()
{
    cores_affinity_req_t request = {};
    std::memcpy(request.process_name, SFLOW_PROCESS_NAME, sizeof(SFLOW_PROCESS_NAME));
    CPU_ZERO(&request.cpus);
    if (get_cores_affinity(&request) == 0)
        sched_setaffinity(getpid(), sizeof(request.cpus), &request.cpus);
}

int start_subsystems()
{
    for (const start_step_t &step : start_steps) {
        if (step.start() != 0 && step.failure != nullptr)
            return fail_start(__LINE__, step.failure);
    }
    SFLOW_AGENT_DEBUG("sflow app init success.");
    return 0;
}

[[noreturn]] void exit_start(int line, const char *text)
{
    fail_start(line, text);
    std::exit(-1);
}

/// Serves the syslog client and the health timer; returns when the master has nothing left to wait for.
int run_main_loop()
{
    kx_thread_master_t *master = kx_thread_master_create();
    if (master == nullptr)
        return fail_start(__LINE__, "kx_thread_master_create failure.");
    if (syslog_single_thread_client_init(master) < 0)
        exit_start(__LINE__, "syslog_single_thread_client_init failed.");
    if (syslog_set_snd_queue_size(SFLOW_SYSLOG_QUEUE_LINES) != 0)
        exit_start(__LINE__, "syslog_set_snd_queue_size failed.");
    sflow_init_dead_detection(master);

    kx_thread_t task = {};
    while (kx_thread_fetch(master, &task) != nullptr)
        kx_thread_call(&task);
    kx_thread_master_finish(master);
    sflow_tell_starter("the main loop has ended");
    sflow_app_close_debug_file(&sflow_app_debug_fd);
    return -1;
}

void write_debug(int fd, const char *text, size_t len)
{
    // A diary that cannot be written must not stop the daemon.
    [[maybe_unused]] const ssize_t written = write(fd, text, len);
}

/// Lays an exclusive lock on the whole file. 0, or -1 with errno.
int lock_file(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return fcntl(fd, F_SETLK, &lock);
}

} // namespace

void sflow_tell_starter(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::fputs("sflowd: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

char *sflow_make_tmp_path(const char *suffix)
{
    static thread_local char path[SFLOW_TMP_PATH_LEN];
    const char *directory = std::getenv("TMPDIR");
    if (directory == nullptr)
        return nullptr;
    if (std::strlen(directory) + std::strlen(suffix) + 1 > sizeof(path))
        return nullptr;
    std::snprintf(path, sizeof(path), "%s%s", directory, suffix);
    return path;
}

int sflow_make_dir()
{
    // The other processes of the platform run under other users and share the directory.
    umask(0);
    const char *path = sflow_make_tmp_path(SFLOW_DIR);
    if (path == nullptr)
        return -1;
    if (mkdir(path, SFLOW_FILE_MODE) != 0 && errno != EEXIST)
        return -1;
    return 0;
}

int sflow_app_open_debug_file()
{
    const char *path = sflow_make_tmp_path(SFLOW_DEBUG_FILE);
    if (path == nullptr)
        return -1;
    // Append mode: a second instance truncates the file before it notices the first one, whose next line must
    // then go to the new end instead of leaving a hole.
    return open(path, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, SFLOW_FILE_MODE);
}

void sflow_app_close_debug_file(int *fd)
{
    const int open_fd = sflow_load(*fd);
    sflow_store(*fd, -1);
    if (open_fd != -1)
        close(open_fd);
}

void sflow_app_write_log(int fd, const char *file, int line, const char *text)
{
    struct stat status;
    if (fd == -1 || fstat(fd, &status) != 0)
        return;
    if (status.st_size > SFLOW_DEBUG_FILE_MAX_BYTES && ftruncate(fd, 0) == 0)
        lseek(fd, 0, SEEK_SET);

    char when[32] = "Y/M/D h:m:s";
    const time_t now = std::time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr)
        std::strftime(when, sizeof(when), "%Y/%m/%d %H:%M:%S", &local);

    char part[48];
    int len = std::snprintf(part, sizeof(part), "%s ", when);
    write_debug(fd, part, static_cast<size_t>(len));
    write_debug(fd, file, std::strlen(file));
    len = std::snprintf(part, sizeof(part), ",%d,", line);
    write_debug(fd, part, static_cast<size_t>(len));
    write_debug(fd, text, std::strlen(text));
    write_debug(fd, "\n", 1);
}

int sflow_is_running()
{
    const char *path = sflow_make_tmp_path(SFLOW_LOCK_FILE);
    if (path == nullptr) {
        SFLOW_AGENT_DEBUG("SFLOW make path failure.");
        tell_long_directory("");
        return -1;
    }
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, SFLOW_FILE_MODE);
    if (fd < 0) {
        const int error = errno;
        SFLOW_AGENT_DEBUG("SFLOW create file lock failure.");
        sflow_tell_starter("cannot open the lock file %s: %s", path, std::strerror(error));
        return -1;
    }
    // The descriptor stays open: the lock is the instance's marker and goes with the process.
    if (lock_file(fd) == 0)
        return 0;
    const int error = errno;
    if (error != EACCES && error != EAGAIN) {
        sflow_tell_starter("cannot lock %s: %s", path, std::strerror(error));
        std::exit(0);
    }
    close(fd);
    SFLOW_AGENT_DEBUG("SFLOW module is running.");
    sflow_tell_starter("another instance is running: it holds the lock on %s", path);
    return -1;
}

int sflow_create_depatch_thread(pthread_t *tid, void *(*start)(void *), void *arg)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return -1;
    if (pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) != 0 ||
        pthread_create(tid, &attr, start, arg) != 0) {
        pthread_attr_destroy(&attr);
        return -1;
    }
    return pthread_attr_destroy(&attr) != 0 ? -1 : 0;
}

int sflow_reg_ham_client_notify()
{
    if (ham_client_reg_thread_notify(getpid(), gettid(), SFLOW_HAM_DEADLINE_S, SFLOW_HAM_REPORTS) < 0) {
        SFLOW_AGENT_DEBUG("ham_client_reg_thread_notify fail.");
        return -1;
    }
    return 0;
}

int sflow_reset_ham_client_notify()
{
    if (ham_client_reset_thread_notify(getpid(), gettid(), SFLOW_HAM_DEADLINE_S, SFLOW_HAM_REPORTS) < 0) {
        SFLOW_AGENT_DEBUG("sflow_reset_ham_client_notify fail.");
        return -1;
    }
    return 0;
}

void sflow_unreg_ham_client_notify()
{
    ham_client_unreg_thread_notify(gettid());
}

void sflow_init_dead_detection(kx_thread_master_t *master)
{
    sflow_reg_ham_client_notify();
    if (kx_thread_add_timer_withname(master, sflow_reset_thread_notify, nullptr, SFLOW_HAM_RENEW_S,
                                     SFLOW_HAM_TIMER) == nullptr)
        SFLOW_AGENT_DEBUG("Failed to add thread for HAM.\n");
}

int sflow_reset_thread_notify(kx_thread_t *thread)
{
    sflow_reset_ham_client_notify();
    if (kx_thread_add_timer_withname(thread->master, sflow_reset_thread_notify, nullptr, SFLOW_HAM_RENEW_S,
                                     SFLOW_HAM_TIMER) == nullptr)
        SFLOW_AGENT_DEBUG("Failed to add re-thread for HAM.\n");
    return 0;
}

int sflow_main()
{
    pin_process();
    if (sflow_make_dir() != 0) {
        tell_no_directory(errno);
        return -1;
    }
    sflow_store(sflow_app_debug_fd, sflow_app_open_debug_file());
    // A peer that closes a socket under a write costs that write, not the daemon.
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR)
        return fail_start(__LINE__, "ignore SIGPIPE failure.");
    if (sflow_is_running() != 0) {
        sflow_app_close_debug_file(&sflow_app_debug_fd);
        return -1;
    }
    if (sflow_make_tmp_path(SFLOW_LONGEST_PATH) == nullptr)
        tell_long_directory(", no sampling service can connect");
    if (reg_process_exit_action(0, 1) != 0)
        SFLOW_AGENT_DEBUG("sflow reg ham failure.");
    if (start_subsystems() != 0)
        return -1;
    return run_main_loop();
}
