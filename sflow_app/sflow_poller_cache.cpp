// Counter cache: the base of every interface's counters in memory, with its index by interface, and its file
// $TMPDIR/sflow/tmp_file, a bare sequence of node images.
//
// Runs under `config_lock` on the dispatcher (updates), the CLI thread (removal) and the redundancy thread.
// The file is the memory's copy and never more: what cannot be written or read is logged and the agent goes
// on.
#include "sflow_poller.h"

#include "sflow_dbg.h"
#include "sflow_process.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <unordered_map>

sflow_list_t sflow_counter_list = {.next = &sflow_counter_list, .prev = &sflow_counter_list};

static constexpr char CACHE_FILE[] = "/sflow/tmp_file";

// ---- Index ------------------------------------------------------------------------------------------------

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

/// Appends `node` to list and index; false, with neither changed, when memory is short.
static bool link_node(sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    try {
        counter_index_t &entry =
            counter_index.by_ifx.try_emplace(node->ifx, counter_index_t{.first = node, .nodes = 0})
                .first->second;
        entry.nodes++;
    } catch (const std::bad_alloc &) {
        return false;
    }
    sflow_list_insert_before(&sflow_counter_list, &node->list);
    return true;
}

static void unlink_node(sflow_counter_node_t *node) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    sflow_list_remove(&node->list);
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

static sflow_counter_node_t *allocate_node()
{
    return static_cast<sflow_counter_node_t *>(std::calloc(1, sizeof(sflow_counter_node_t)));
}

sflow_counter_node_t *sflow_poller_add_counter(IFINDEX ifx)
{
    sflow_counter_node_t *node = allocate_node();
    if (node != nullptr) {
        node->ifx = ifx;
        if (link_node(node))
            return node;
        std::free(node);
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]%s malloc counter fail.\n", "sflow_poller_add_counter");
    return nullptr;
}

void sflow_poller_free_counter(sflow_counter_node_t *node)
{
    unlink_node(node);
    std::free(node);
}

void sflow_poller_del_counter(sflow_counter_node_t *node)
{
    sflow_rdnd_realtime_del_msg(node);
    sflow_poller_free_counter(node);
    sflow_poller_save_counter();
}

// ---- File -------------------------------------------------------------------------------------------------

/// Writes the image of one node; false when the file did not take all of it.
static bool write_node(int fd, const sflow_counter_node_t *node)
{
    static constexpr char name[] = "sflow_poller_save_counter";

    sflow_counter_node_t image = *node;
    image.list = {};
    if (write(fd, &image, sizeof(image)) != static_cast<ssize_t>(sizeof(image))) {
        SFLOW_LOG_CONF("[SFLOW-CONF]%s write fail\n", name);
        return false;
    }
    SFLOW_LOG_CONF("[SFLOW-CONF]%s : ifx(%d) ether %d, %d, %d, generic %d, %d, %d.\n", name, node->ifx,
                   node->ether.dot3StatsAlignmentErrors, node->ether.dot3StatsFCSErrors,
                   node->ether.dot3StatsSingleCollisionFrames, node->generic.ifInUcastPkts,
                   node->generic.ifInMulticastPkts, node->generic.ifInBroadcastPkts);
    SFLOW_LOG_CONF("[SFLOW-CONF]%s write ok\n", name);
    return true;
}

void sflow_poller_save_counter()
{
    const char *path = sflow_make_tmp_path(CACHE_FILE);
    if (path == nullptr)
        return;
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0777);
    if (fd == -1) {
        SFLOW_LOG_CONF("[SFLOW-CONF]creat file error\n");
        return;
    }
    for (sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list; link = link->next) {
        if (!write_node(fd, sflow_list_entry<sflow_counter_node_t>(link)))
            break;
    }
    close(fd);
}

static void debug_file_line(int line, const char *text)
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_poller.c", line, text);
}

/// Reads images until one is incomplete, which the end of the file is as well.
static void load_nodes(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    for (;;) {
        sflow_counter_node_t *node = allocate_node();
        if (node == nullptr) {
            debug_file_line(__LINE__, "malloc counter fail");
            return;
        }
        if (read(fd, node, sizeof(*node)) != static_cast<ssize_t>(sizeof(*node))) {
            debug_file_line(__LINE__, "read file fail");
            std::free(node);
            return;
        }
        if (!link_node(node)) {
            debug_file_line(__LINE__, "malloc counter fail");
            std::free(node);
            return;
        }
    }
}

int sflow_poller_counter_init()
{
    const char *path = sflow_make_tmp_path(CACHE_FILE);
    if (path == nullptr)
        return -1;
    const int fd = open(path, O_RDONLY);
    if (fd == -1)
        return -1;
    sflow_config_wrlock();
    load_nodes(fd);
    sflow_config_wrunlock();
    close(fd);
    return 0;
}
