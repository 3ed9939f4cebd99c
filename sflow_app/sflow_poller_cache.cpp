// Counter cache: the base of every interface's counters in memory, a list in order of insertion with an index by
// interface beside it.
//
// Runs under `config_lock` on the dispatcher (updates), the CLI thread (removal) and the redundancy thread. Never
// touches the file itself: see sflow_poller_file.cpp.
#include "sflow_poller_internal.h"

#include "sflow_dbg.h"

#include <cstdlib>
#include <new>
#include <unordered_map>

sflow_list_t sflow_counter_list = {.next = &sflow_counter_list, .prev = &sflow_counter_list};

namespace
{

/// Nodes of one interface. A file may name an interface twice; the first of its nodes counts until it is
/// removed.
struct counter_index_t {
    sflow_counter_node_t *first;
    u_int32_t nodes;
};

/// Never destroyed: detached threads outlive main's return.
union counter_index_storage_t {
    std::unordered_map<IFINDEX, counter_index_t> by_ifx;
    counter_index_storage_t() : by_ifx() {}
    ~counter_index_storage_t() {}
};

} // namespace

static counter_index_storage_t counter_index SFLOW_GUARDED_BY(sflow_agent.config_lock);
static u_int64_t counter_num SFLOW_GUARDED_BY(sflow_agent.config_lock) = 0;

u_int64_t sflow_poller_counter_num()
{
    return counter_num;
}

bool sflow_poller_link_entry(sflow_counter_entry_t *entry)
{
    sflow_counter_node_t *node = &entry->node;
    try {
        counter_index.by_ifx.try_emplace(node->ifx, counter_index_t{.first = node, .nodes = 0})
            .first->second.nodes++;
    } catch (const std::bad_alloc &) {
        return false;
    }
    sflow_list_insert_before(&sflow_counter_list, &node->list);
    entry->slot = counter_num++;
    return true;
}

static void unlink_node(sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_list_remove(&node->list);
    counter_num--;
    const auto found = counter_index.by_ifx.find(node->ifx);
    if (--found->second.nodes == 0) {
        counter_index.by_ifx.erase(found);
        return;
    }
    const IFINDEX ifx = node->ifx;
    found->second.first = sflow_list_find<sflow_counter_node_t>(
        &sflow_counter_list, [ifx](const sflow_counter_node_t *other) { return other->ifx == ifx; });
}

sflow_counter_node_t *sflow_poller_get_counter(IFINDEX ifx)
{
    const auto found = counter_index.by_ifx.find(ifx);
    return found != counter_index.by_ifx.end() ? found->second.first : nullptr;
}

sflow_counter_entry_t *sflow_poller_allocate_entry()
{
    return static_cast<sflow_counter_entry_t *>(std::calloc(1, sizeof(sflow_counter_entry_t)));
}

sflow_counter_node_t *sflow_poller_add_counter(IFINDEX ifx)
{
    sflow_counter_entry_t *entry = sflow_poller_allocate_entry();
    if (entry != nullptr) {
        entry->node.ifx = ifx;
        if (sflow_poller_link_entry(entry))
            return &entry->node;
        std::free(entry);
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]%s malloc counter fail.\n", "sflow_poller_add_counter");
    return nullptr;
}

void sflow_poller_set_counter(sflow_counter_node_t *node, const sflow_generic_counter_t &generic,
                              const sflow_ether_counter_t &ether)
{
    node->generic = generic;
    node->ether = ether;
    sflow_poller_file_outdated();
}

void sflow_poller_free_counter(sflow_counter_node_t *node)
{
    unlink_node(node);
    std::free(node);
    sflow_poller_file_outdated();
}

void sflow_poller_del_counter(sflow_counter_node_t *node)
{
    sflow_rdnd_realtime_del_msg(node);
    if (node->list.next != &sflow_counter_list) {
        sflow_poller_free_counter(node);
        sflow_poller_save_counter();
        return;
    }
    unlink_node(node);
    std::free(node);
    sflow_poller_file_shorten();
}
