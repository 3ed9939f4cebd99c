// The daemon's locks with clang's thread-safety attributes.
//
// Order in which locks are taken (the only nesting there is): `cmd_lock` → `msg_lock` → `config_lock`.
// `cli_lock` and `send_lock` are taken alone or innermost, never together with one another. The sequence
// `msg_lock` after `config_lock` never occurs. `sflow_receiver_lock`, inside module sflow_receiver, is taken
// under `config_lock` and innermost.
//
// A lock that cannot be taken or released is logged and the operation goes on: a daemon that exports with a
// broken lock serves its operator better than one that stops.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define SFLOW_TSA(x) __attribute__((x))
#else
#define SFLOW_TSA(x)
#endif
#define SFLOW_CAPABILITY(name) SFLOW_TSA(capability(name))
#define SFLOW_GUARDED_BY(lock) SFLOW_TSA(guarded_by(lock))
#define SFLOW_REQUIRES(...) SFLOW_TSA(requires_capability(__VA_ARGS__))
#define SFLOW_REQUIRES_SHARED(...) SFLOW_TSA(requires_shared_capability(__VA_ARGS__))
#define SFLOW_ACQUIRE(...) SFLOW_TSA(acquire_capability(__VA_ARGS__))
#define SFLOW_ACQUIRE_SHARED(...) SFLOW_TSA(acquire_shared_capability(__VA_ARGS__))
#define SFLOW_RELEASE(...) SFLOW_TSA(release_capability(__VA_ARGS__))
#define SFLOW_RELEASE_SHARED(...) SFLOW_TSA(release_shared_capability(__VA_ARGS__))
#define SFLOW_EXCLUDES(...) SFLOW_TSA(locks_excluded(__VA_ARGS__))
#define SFLOW_ASSERT_HELD_SHARED(...) SFLOW_TSA(assert_shared_capability(__VA_ARGS__))
#define SFLOW_NO_THREAD_SAFETY_ANALYSIS SFLOW_TSA(no_thread_safety_analysis)

struct SFLOW_CAPABILITY("rwlock") sflow_rwlock_t {
    pthread_rwlock_t rwlock;
};

struct SFLOW_CAPABILITY("mutex") sflow_mutex_t {
    pthread_mutex_t mutex;
};
