// Storage for an object that is made once and never destroyed.
//
// The daemon's threads are detached and run on while the process exits; a service object that a static destructor
// took away would be used after its end.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace platform
{

/// Use as a function-local static: `static Immortal<Service> service;`.
template <typename T>
class Immortal
{
public:
    template <typename... Args>
    explicit Immortal(Args &&...args)
        : object_(std::construct_at(reinterpret_cast<T *>(storage_), std::forward<Args>(args)...))
    {
    }
    Immortal(const Immortal &) = delete;
    Immortal &operator=(const Immortal &) = delete;

    [[nodiscard]] T &operator*() const { return *object_; }

private:
    alignas(T) std::byte storage_[sizeof(T)];
    T *object_;
};

} // namespace platform
