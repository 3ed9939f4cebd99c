// The edition for a unit without a partner.

#include "redundancy/rdnd_edition.h"

#include <atomic>

namespace platform
{

namespace
{

class Standalone final : public RdndEdition
{
public:
    explicit Standalone(RdndHost &host) : host_(host) {}

    [[nodiscard]] rdnd_role role() const override { return RDND_ROLE_MASTER; }
    [[nodiscard]] rdnd_stat state() const override
    {
        return ready_.load(std::memory_order_relaxed) ? RDND_STAT_ALONE : RDND_STAT_INIT;
    }

    bool client_registered(const std::string &name, unsigned long) override
    {
        // Before the event: its handler asks for the state.
        ready_.store(true, std::memory_order_relaxed);
        return host_.post(name, RDND_E_STAT_READY, {});
    }

    // Not "queued": a client that believed so would go on copying records for nobody.
    int enqueue(const std::string &, std::span<const std::byte>) override { return RDND_ENQUEUE_STOP; }

    int completed(const std::string &, rdnd_notify) override { return 0; }
    void handled(const std::string &, RDND_EVENT, int) override {}

    std::string force_switchover() override { return "this unit has no partner"; }
    [[nodiscard]] std::vector<RdndReportLine> report() const override
    {
        return {{"Mode", "standalone"},
                {"Role", "master"},
                {"State", state() == RDND_STAT_ALONE ? "alone" : "starting"},
                {"Peer", "none"},
                {"Last switchover", "none"}};
    }

private:
    RdndHost &host_;
    std::atomic<bool> ready_{false};
};

} // namespace

std::unique_ptr<RdndEdition> make_standalone_edition(RdndHost &host)
{
    return std::make_unique<Standalone>(host);
}

} // namespace platform
