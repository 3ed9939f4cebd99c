// The counter poller around sflow_agent: a cache without file and index.
#include "agent_doubles.h"

#include <cstdlib>

sflow_list_t sflow_counter_list = {&sflow_counter_list, &sflow_counter_list};

using doubles::behaviour;
using doubles::record;

void sflow_poller_countdown()
{
    record("countdown");
    if (behaviour.countdown)
        behaviour.countdown();
}

void sflow_poller_update_counter(const sflow_msg_t *msg_node)
{
    record("update(" + std::to_string(msg_node->ifx) + ")");
}

int sflow_poller_write_countersample(sflow_msg_t *msg_node)
{
    record("export(" + std::to_string(msg_node->ifx) + ")");
    return 0;
}

sflow_counter_node_t *sflow_poller_get_counter(IFINDEX ifx)
{
    return sflow_list_find<sflow_counter_node_t>(
        &sflow_counter_list, [ifx](const sflow_counter_node_t *node) { return node->ifx == ifx; });
}

sflow_counter_node_t *sflow_poller_add_counter(IFINDEX ifx)
{
    if (!behaviour.node_memory)
        return nullptr;
    auto *node = static_cast<sflow_counter_node_t *>(std::calloc(1, sizeof(sflow_counter_node_t)));
    node->ifx = ifx;
    sflow_list_insert_before(&sflow_counter_list, &node->list);
    return node;
}

void sflow_poller_set_counter(sflow_counter_node_t *node, const sflow_generic_counter_t &generic,
                              const sflow_ether_counter_t &ether)
{
    node->generic = generic;
    node->ether = ether;
}

void sflow_poller_free_counter(sflow_counter_node_t *node)
{
    sflow_list_remove(&node->list);
    std::free(node);
}

void sflow_poller_save_counter()
{
    record("save_counter");
}

int sflow_poller_counter_init()
{
    record("counter_init");
    return behaviour.counter_init;
}

rdnd_sflow_counter_t sflow_rdnd_counter_record(int32_t rdnd_type, const sflow_counter_node_t *counter)
{
    rdnd_sflow_counter_t checkpoint = {};
    checkpoint.rdnd_type = rdnd_type;
    checkpoint.counter = *counter;
    return checkpoint;
}
