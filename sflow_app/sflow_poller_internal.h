// What the files of module sflow_poller share among themselves: the cache in memory (sflow_poller_cache.cpp) and its
// file (sflow_poller_file.cpp).
#pragma once

#include "sflow_poller.h"

/// What a cache node really is: the node and the place of its image in the file.
struct sflow_counter_entry_t {
    sflow_counter_node_t node;
    u_int64_t slot; ///< images in front of its own; holds while the file is in step with the cache
};
static_assert(offsetof(sflow_counter_entry_t, node) == 0);

inline sflow_counter_entry_t *sflow_counter_entry(sflow_list_t *link)
{
    return reinterpret_cast<sflow_counter_entry_t *>(sflow_list_entry<sflow_counter_node_t>(link));
}

/// A zeroed entry outside of the cache, to be freed with std::free; null when memory is short.
sflow_counter_entry_t *sflow_poller_allocate_entry();
/// Appends `entry` to list and index; false, with neither changed, when memory is short.
bool sflow_poller_link_entry(sflow_counter_entry_t *entry) SFLOW_REQUIRES(sflow_agent.config_lock);
/// Nodes in the list.
u_int64_t sflow_poller_counter_num() SFLOW_REQUIRES(sflow_agent.config_lock);

/// The cache has changed in a way that the file cannot be patched for: the next save writes all of it.
void sflow_poller_file_outdated() SFLOW_REQUIRES(sflow_agent.config_lock);
/// Saves after the removal of the last node of the list, the only change since the last save.
void sflow_poller_file_shorten() SFLOW_REQUIRES(sflow_agent.config_lock);
