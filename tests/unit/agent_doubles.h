// What the tests of module sflow_agent put in the place of the daemon's other modules, and of the parts of
// libc that fail, block or make threads: the doubles record who was called, in order, and answer as the test
// wants. The platform is tests/fake_platform.
#pragma once

#include "fake_platform.h"
#include "sflow_agent.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"
#include "sflow_process.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/sysinfo.h>
#include <vector>

namespace doubles
{

/// How the doubles answer. Functions that are empty mean success, or the real function for libc.
struct behaviour_t {
    // The daemon's other modules.
    int cli_init = 0;
    int counter_init = 0;
    int lib_server_init = 0;
    int config_register = 0;
    int reform = 0;
    std::function<void()> on_reform; ///< runs within sflow_cli_c2p_reform
    int sampler = 0;
    bool node_memory = true;                   ///< whether sflow_poller_add_counter succeeds
    std::function<int(int nth)> sampling_rate; ///< result of the nth sflow_set_sampling_rate_msg, from 0
    std::function<void()> countdown;           ///< runs within sflow_poller_countdown
    // libc.
    std::function<int(pthread_t *, void *(*)(void *), void *)> pthread_create;
    std::function<int(struct sysinfo *)> sysinfo;
    std::function<int(const timeval *)> select;
    std::function<unsigned(unsigned)> sleep;
    std::function<int(const timespec *)> cond_timedwait;
    std::function<int()> pause;
    bool cancel = true; ///< whether pthread_cancel is carried out; recorded as "cancel" either way
    bool local_time = true;
};

extern behaviour_t behaviour;

/// Notes a call. Any thread.
void record(const std::string &call);
/// The calls so far, "function" or "function(arguments)", oldest first.
std::vector<std::string> calls();
/// Those that begin with `prefix`.
std::vector<std::string> calls_of(const std::string &prefix);
void forget_calls();

/// Lets call number `nth` (from 0) of a libc function fail with `error`; replaces what was asked of the same
/// function before. Which functions can fail: FALLIBLE in agent_wraps.cpp; an unknown name ends the test
/// program.
void fail(const char *function, int error, int nth = 0);

/// Locks, conditions and attributes of the agent record that were created and not destroyed: names of the
/// fields.
std::vector<std::string> alive();

/// What `config_lock` was last created with; -1 while it was not.
struct rwlock_attr_t {
    int kind = -1;
    int shared = -1;
};
rwlock_attr_t config_lock_attr();

/// The CPU set that the process asked to be pinned to: cores and size in bytes; {} while it did not ask.
struct pinned_t {
    std::vector<int> cores;
    size_t bytes = 0;
};
pinned_t pinned();

/// What pthread_create was last asked for.
struct captured_thread_t {
    int created = 0;
    bool detached = false;
    void *(*start)(void *) = nullptr;
    void *arg = nullptr;
};
/// From here on pthread_create makes no thread.
captured_thread_t &capture_threads();

/// The agent record as after start-up, without the one-second thread, and all doubles at rest; a directory of
/// its own as TMPDIR, and the debug file in it.
class agent_test : public ::testing::Test
{
protected:
    agent_test();
    ~agent_test() override;

    /// Texts of the debug file's lines, each checked to be of form "TIME sflow_agent.c,LINE,TEXT".
    [[nodiscard]] std::vector<std::string> debug_lines() const;
    [[nodiscard]] std::string path(const std::string &name) const { return directory + name; }

    std::string directory; ///< value of TMPDIR
};

/// Contents of a file; empty when there is none.
std::string read_file(const std::string &path);
/// Texts of a debug file's lines.
std::vector<std::string> debug_texts(const std::string &content);

} // namespace doubles
