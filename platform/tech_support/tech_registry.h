// What modules have registered with the tech-support service and the debug listing.
#pragma once

#include "lock/mutex.h"

#include "platform/tech.h"

#include <optional>
#include <string>
#include <vector>

namespace platform
{

struct TechProvider {
    std::string name;
    kx_thread_master_t *master;
    tech_callback_t callback;
};

struct DebugListing {
    std::string name;
    debug_show_func_t show;
};

/// A copy of everything a collection needs, so that it runs without the registry's lock.
struct TechSnapshot {
    std::string module;
    std::vector<std::string> files;
    tech_status_func_t status = nullptr;
    std::vector<TechProvider> providers; ///< in order of registration
    std::optional<tech_cli_hooks_t> hooks;
};

/// Any thread.
class TechRegistry
{
public:
    void set_module(const std::string &name);
    void add_file(const std::string &path); ///< once, however often it is registered
    void set_status(tech_status_func_t func);
    void set_provider(TechProvider provider); ///< replaces the one of the same name
    void set_hooks(const tech_cli_hooks_t *hooks);
    void set_listing(DebugListing listing); ///< replaces the one of the same name

    [[nodiscard]] TechSnapshot snapshot();
    [[nodiscard]] std::vector<DebugListing> listings();

private:
    Mutex mutex_;
    TechSnapshot state_ PLATFORM_GUARDED_BY(mutex_);
    std::vector<DebugListing> listings_ PLATFORM_GUARDED_BY(mutex_);
};

/// The process's registry.
[[nodiscard]] TechRegistry &tech_registry();

} // namespace platform
