// The sampling service: what each record of the daemon means.
//
// Ties the connection, the table of samplers, the backend and the counters together. Answers every setting and every
// attachment in the order they came; keeps no setting beyond the connection that brought it.
#pragma once

#include "acl_directory.h"
#include "backend.h"
#include "counter_server.h"
#include "event_loop.h"
#include "links.h"
#include "log.h"
#include "restart_pairs.h"
#include "sampler_table.h"
#include "service_connection.h"

#include <functional>
#include <memory>
#include <set>

namespace sampling
{

class Service final : public SampleSink, public ConnectionHandler
{
public:
    /// Makes the backend; it is given the sink for its samples. What it throws ends the start.
    using BackendMaker = std::function<std::unique_ptr<Backend>(SampleSink &)>;

    /// @param acl_directory  where the ACL service publishes access lists
    Service(EventLoop &loop, Log &log, LinkTable &links, CounterSource &counters,
            const CounterOptions &counter_options, const std::string &socket_path,
            const std::string &acl_directory, const BackendMaker &make_backend);
    ~Service() override;

    /// Connects to the daemon and keeps connected.
    void start() { connection_.start(); }
    /// Serves a connected socket (tests).
    void adopt(UniqueFd socket) { connection_.adopt(std::move(socket)); }

    [[nodiscard]] bool take(const Sample &sample) override;
    void drained() override;

    void on_connect(std::uint64_t daemon) override;
    void on_record(const RecordView &record) override;
    void on_disconnect() override;
    void on_writable() override;

    [[nodiscard]] const SamplerTable &samplers() const { return table_; }

private:
    struct Command;
    static const Command commands[];

    void on_connect_notice(Bytes record);
    void on_config_start(Bytes record);
    void on_config_end(Bytes record);
    void on_set_sampling(Bytes record);
    void on_header_len(Bytes record);
    void on_attach_collector(Bytes record);
    void on_get_counter(Bytes record);
    void on_debug(Bytes record);

    void carry_out(const sflow_spl_t &request);
    void answer(const sflow_spl_t &request, Answer answer);
    void log_commands();
    void log_information();
    void arm_expiry();
    void log_once(std::uint32_t type, std::string_view what);

    EventLoop &loop_;
    Log &log_;
    LinkTable &links_;
    ServiceConnection connection_;
    std::unique_ptr<Backend> backend_;
    AclDirectory acls_;
    SamplerTable table_;
    RestartPairs restarts_;
    CounterServer counters_;
    EventLoop::TimerId expiry_ = 0;
    std::set<std::uint32_t> complained_;
};

} // namespace sampling
