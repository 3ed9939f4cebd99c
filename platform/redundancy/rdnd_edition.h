// What an edition of the redundancy service provides, and what the service provides to it.
//
// The service keeps registrations and runs handlers; an edition knows the role and moves checkpoint messages. Which
// edition runs is the platform's configuration ([redundancy] mode).
#pragma once

#include "platform/rdnd.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace platform
{

struct Config;

/// The service as an edition sees it. Any thread.
class RdndHost
{
public:
    virtual ~RdndHost() = default;

    /// Has the handler registered under `name` called with the event, on the service's thread master, in the order
    /// of posting; RdndEdition::handled() tells its answer. False when nobody is registered or the master has ended.
    virtual bool post(const std::string &name, RDND_EVENT event, std::vector<std::byte> data) = 0;
};

/// What an operator is shown, a line a pair: heading and value.
struct RdndReportLine {
    std::string heading;
    std::string value;
};

/// One way of being redundant. Any thread, without blocking; results as in platform/rdnd.h.
class RdndEdition
{
public:
    virtual ~RdndEdition() = default;

    [[nodiscard]] virtual rdnd_role role() const = 0;
    [[nodiscard]] virtual rdnd_stat state() const = 0;

    /// A client has registered; its RDND_E_STAT_READY is the edition's to post. False when it cannot be served.
    virtual bool client_registered(const std::string &name, unsigned long version) = 0;
    virtual int enqueue(const std::string &name, std::span<const std::byte> message) = 0;
    virtual int completed(const std::string &name, rdnd_notify what) = 0;
    /// A handler has dealt with an event; `answer` is what it returned. On the service's thread master.
    virtual void handled(const std::string &name, RDND_EVENT event, int answer) = 0;

    /// Hands the active unit's work to the standby. Why that cannot be; empty when it has begun.
    virtual std::string force_switchover() = 0;
    [[nodiscard]] virtual std::vector<RdndReportLine> report() const = 0;
};

/// No partner: this unit is the active one from the start, and nobody takes checkpoint messages.
[[nodiscard]] std::unique_ptr<RdndEdition> make_standalone_edition(RdndHost &host);

/// A pair over corosync; nullptr, with the reason in the log, when this build has none.
[[nodiscard]] std::unique_ptr<RdndEdition> make_corosync_edition(RdndHost &host, const Config &config);

} // namespace platform
