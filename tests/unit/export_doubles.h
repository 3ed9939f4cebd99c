// What surrounds the export modules inside the daemon, for their tests, fuzz target and benchmark: the agent record
// with its locks, the process's files and uptime, and the modules that the poller and the collectors call. The
// platform is the fake one.
#pragma once

#include "sflow_agent.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"
#include "sflow_process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace export_test
{

/// How the calling thread holds `config_lock`.
enum class Held { none, reading, writing };

/// A setting that the sampling service was asked for.
struct RateRequest {
    IFINDEX ifx;
    int rate;
    int direct;
    int ifx_type;
    int acl_id;
    std::string acl_name;
    int snoop;
    bool operator==(const RateRequest &) const = default;
};

struct AclRelease {
    int id;
    std::string name;
    bool operator==(const AclRelease &) const = default;
};

/// What the doubles do and what they have seen.
struct World {
    std::vector<std::string> debug; ///< "FILE: TEXT" of the debug file's lines
    std::uint64_t uptime_sec = 0;
    std::optional<std::string> tmp_dir; ///< TMPDIR
    std::size_t path_len_max = 4096;    ///< longer paths cannot be built
    int get_counter_result = 0;
    std::vector<std::pair<IFINDEX, int>> counter_requests; ///< interface and type
    std::vector<RateRequest> rate_requests;
    int acl_unref_result = 0;
    std::vector<AclRelease> acl_releases;
    int c2p_result = 0;
    std::vector<Held> c2p_requests;            ///< lock held at each request
    std::vector<sflow_intf_config_t> released; ///< interface records as they were when they were freed
    std::vector<std::uint32_t> detached;       ///< collector ids given to sflow_intf_del_receiver
};

World &world();
Held held();

/// Puts everything back: agent record as after start-up, counter cache empty, switches off, statistics zero. Leaves
/// the fake platform alone.
void reset_world();
/// Frees what the world still holds, so that leaks show.
void clear_world();

/// Switches every category of log lines on.
void log_everything();

/// Network-order value of a literal address; both abort on a literal that is none.
std::uint32_t ipv4(const char *text);
sfladdress_value_t address_value(const char *text);

void set_agent_address(const char *text);
/// A collector record at `text`, zero-filled otherwise.
sfladdress_t collector_record(const char *text);
/// Sets collector `cid` through the module, under the lock.
void set_collector(std::uint32_t cid, const char *text, std::uint16_t port = 6343);
/// Configures an interface that exports to these collectors.
sflow_intf_config_t *add_interface(IFINDEX ifx, std::uint32_t cid, std::uint32_t fid);
sflow_intf_config_t *find_interface(IFINDEX ifx);
sflreceiver_t *receiver(std::uint32_t cid);

} // namespace export_test
