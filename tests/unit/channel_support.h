// What the tests of the sampling-service channel, the interface events and the access lists share: the debug file's
// lines as they are written, the records that are sent, and other modules' functions as calls that are noted and can
// be made to fail. Link with CHANNEL_WRAPS. The platform is tests/fake_platform, the other modules are the real ones.
#pragma once

#include "fake_platform.h"
#include "sflow_agent.h"
#include "sflow_domain_msg.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <vector>

namespace channel
{

using Bytes = std::vector<std::uint8_t>;

template <typename Record>
Bytes bytes_of(const Record &record)
{
    Bytes bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

/// A record laid out by hand: 32-bit words in host order, from offset 0.
Bytes words(std::initializer_list<std::uint32_t> values);
/// Overwrites what is at `offset`.
void put(Bytes &bytes, std::size_t offset, std::uint32_t value);
void put(Bytes &bytes, std::size_t offset, std::string_view text);
std::uint32_t word_at(const Bytes &bytes, std::size_t offset);

// ---- Debug file --------------------------------------------------------------------------------------------------

struct DebugLine {
    std::string file;
    std::string text;

    bool operator==(const DebugLine &) const = default;
};

std::vector<DebugLine> debug_lines();
std::vector<std::string> debug_texts();
std::size_t debug_count(std::string_view text);
/// Waits until `text` has been written `times` times; false when it has not been within ten seconds.
[[nodiscard]] bool wait_for_debug(std::string_view text, std::size_t times = 1);
void forget_debug();

/// Waits, without sleeping, until `predicate` holds; false when it does not within ten seconds.
[[nodiscard]] bool eventually(const std::function<bool()> &predicate);

// ---- libc --------------------------------------------------------------------------------------------------------

/// Makes the next call of `function` fail with `error`: pthread_mutex_init, pthread_condattr_init,
/// pthread_condattr_setclock, pthread_cond_init, socket, bind, listen, accept4. `skip` calls before it succeed. Any
/// other name ends the test program.
void fail_next(std::string_view function, int error, int skip = 0);
/// The next attempts to take or to release this lock fail: a mutex is then not taken, a read-write lock is, and
/// either is released all the same.
void fail_lock(const pthread_mutex_t *lock, int times = 1);
void fail_unlock(const pthread_mutex_t *lock, int times = 1);
void fail_lock(const pthread_rwlock_t *lock);
void fail_unlock(const pthread_rwlock_t *lock);
/// The next allocation of this many bytes on this thread fails.
void fail_allocation(std::size_t size);

struct LibcCounts {
    int accepts = 0; ///< calls of accept4()
    int waits = 0;   ///< timed waits of the send thread
    int sleeps = 0;  ///< calls of sleep(), which returns at once
    unsigned slept_seconds = 0;
    int retry_pauses = 0;     ///< calls of poll() by a thread of the server
    int longest_pause_ms = 0; ///< longest timeout of these
    std::int64_t wait_ms = 0; ///< how far ahead the last deadline of the send thread was, monotonic clock
};
LibcCounts libc_counts();
/// Names of the synchronisation objects of the server that exist, in order of creation.
std::vector<std::string> live_objects();
/// The next timed wait of the send thread times out at once.
void time_out_next_wait();

// ---- Threads -----------------------------------------------------------------------------------------------------

enum class Threads {
    noted, ///< sflow_create_depatch_thread() only notes the request
    run,   ///< threads are real, and ended by stop_threads()
};
void set_threads(Threads mode);
/// The `nth` thread from now on (from 1) cannot be created.
void fail_thread(int nth);
int threads_requested();
/// Handles of the threads that run, in order of creation.
std::vector<pthread_t> running_threads();
/// Waits for the end of the thread; it ends by itself.
void join_thread(std::size_t index);
/// Ends the server's threads at their next wait and waits for them; closes the server's descriptors.
void stop_threads();

// ---- Other modules -----------------------------------------------------------------------------------------------

/// While true the functions of other modules below are replaced; their calls are noted either way.
void replace_modules(bool replace);

/// Records given to sflow_lib_server_send_msg() while it is replaced, sent or refused.
std::vector<Bytes> sent_records();
/// From now on `result(nth)` answers the nth of them (from 0).
void answer_sends(std::function<int(int nth)> result);
void forget_sent();

/// "function(arguments)" of: sflow_cli_c2p_reform, sflow_sampler_set_cid, sflow_poller_set_cid,
/// sflow_intf_del_notify, sflow_agent_del_intf_notify, sflow_source_del_intf_notify,
/// sflow_receiver_vrf_no_exist_del_receiver, sflow_lib_server_cmd_register, sflow_lib_server_cmd_unregister. The last
/// six are noted and run.
std::vector<std::string> module_calls();
void forget_module_calls();
/// What the named function returns while replaced. "sflow_cli_c2p_reform", "sflow_sampler_set_cid",
/// "sflow_poller_set_cid", "sflow_pi_counter_msg_enqueue", "sflow_add_intf_config" (-1: null),
/// "sflow_lib_server_cmd_register" (also while not replaced, once).
void answer(std::string_view function, int result);

struct QueuedCounter {
    sflow_counter_ret_t record;
    int type;
};
std::vector<QueuedCounter> queued_counters();

struct FlowSample {
    Bytes buf; ///< the whole room for the frame
    int buf_len;
    sflow_flow_info_t info;
};
std::vector<FlowSample> flow_samples();

/// Append points given to cli_add_command(), in order.
std::vector<const struct_transtion *> cli_trees();

// ---- Fixtures ----------------------------------------------------------------------------------------------------

/// A directory of its own as TMPDIR, with the daemon's directory in it.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
};

/// The agent record as after start-up without threads, every debug switch on, everything above at rest and other
/// modules replaced.
class AgentTest : public ::testing::Test
{
protected:
    AgentTest();
    ~AgentTest() override;

    /// A sampled interface in the agent record.
    static sflow_intf_config_t *add_interface(IFINDEX ifx);
    static sflow_intf_config_t *interface(IFINDEX ifx);

    TempDir directory_;
};

} // namespace channel
