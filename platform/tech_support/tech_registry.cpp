#include "tech_support/tech_registry.h"

#include "lock/immortal.h"

#include <algorithm>

namespace platform
{

namespace
{

/// Replaces the element of the same name in place, or appends.
template <typename T>
void put_by_name(std::vector<T> &elements, T element)
{
    const auto same = [&](const T &other) { return other.name == element.name; };
    const auto found = std::find_if(elements.begin(), elements.end(), same);
    if (found != elements.end())
        *found = std::move(element);
    else
        elements.push_back(std::move(element));
}

} // namespace

void TechRegistry::set_module(const std::string &name)
{
    const MutexLock lock(mutex_);
    state_.module = name;
}

void TechRegistry::add_file(const std::string &path)
{
    const MutexLock lock(mutex_);
    if (std::find(state_.files.begin(), state_.files.end(), path) == state_.files.end())
        state_.files.push_back(path);
}

void TechRegistry::set_status(tech_status_func_t func)
{
    const MutexLock lock(mutex_);
    state_.status = func;
}

void TechRegistry::set_provider(TechProvider provider)
{
    const MutexLock lock(mutex_);
    put_by_name(state_.providers, std::move(provider));
}

void TechRegistry::set_hooks(const tech_cli_hooks_t *hooks)
{
    const MutexLock lock(mutex_);
    state_.hooks = hooks != nullptr ? std::optional(*hooks) : std::nullopt;
}

void TechRegistry::set_listing(DebugListing listing)
{
    const MutexLock lock(mutex_);
    put_by_name(listings_, std::move(listing));
}

TechSnapshot TechRegistry::snapshot()
{
    const MutexLock lock(mutex_);
    return state_;
}

std::vector<DebugListing> TechRegistry::listings()
{
    const MutexLock lock(mutex_);
    return listings_;
}

TechRegistry &tech_registry()
{
    static const Immortal<TechRegistry> registry;
    return *registry;
}

} // namespace platform
