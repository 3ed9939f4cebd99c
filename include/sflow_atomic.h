// Relaxed access to the plain flags and counters that threads share without a lock by design: same size and cost
// as a plain access, defined behaviour, no ordering of anything else.
#pragma once

template <typename T>
inline T sflow_load(const T &value)
{
    return __atomic_load_n(&value, __ATOMIC_RELAXED);
}

template <typename T>
inline void sflow_store(T &value, T desired)
{
    __atomic_store_n(&value, desired, __ATOMIC_RELAXED);
}

/// Adds to a counter, wrapping modulo its width.
template <typename T>
inline void sflow_count(T &value, T amount = 1)
{
    __atomic_fetch_add(&value, amount, __ATOMIC_RELAXED);
}

template <typename T>
inline void sflow_set_bits(T &value, T bits)
{
    __atomic_fetch_or(&value, bits, __ATOMIC_RELAXED);
}
