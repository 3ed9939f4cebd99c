// File of the counter cache: $TMPDIR/sflow/tmp_file, a bare sequence of node images in list order.
//
// Runs under `config_lock` on the threads that change the cache. After every save the file holds the whole cache and
// nothing else. The cost of one changed node does not depend on how many there are: its image is written over the old
// one, or appended, and a removed last node is cut off. Only what moves images, or an unknown file, has all of it
// written again.
//
// A process that is killed leaves a file that loads with nothing lost. A whole file is written beside the old one and
// takes its place when it is complete. A single image goes over its old one in one call, which the kernel can break
// off only at the end of a page; a page ends between two counters, so that each counter is the old or the new one.
//
// The file is the memory's copy and never more: what cannot be written or read is logged and the agent goes on.
#include "sflow_poller_internal.h"

#include "sflow_dbg.h"
#include "sflow_process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

static constexpr char CACHE_FILE[] = "/sflow/tmp_file";
static constexpr char NEW_FILE[] = "/sflow/tmp_file.new";
static constexpr mode_t CACHE_FILE_MODE = 0777;
static constexpr size_t IMAGE_BYTES = sizeof(sflow_counter_node_t);
/// Images that go into the file with one call.
static constexpr size_t BATCH_IMAGES = 64;

static_assert(offsetof(sflow_counter_node_t, generic) % 8 == 0 && IMAGE_BYTES % 8 == 0,
              "no counter lies across the end of a page");

namespace
{

/// The file as this process left it. `in_step` says that it then held the cache; the rest recognises it.
struct cache_file_t {
    bool in_step;
    u_int64_t images;
    dev_t device;
    ino_t inode;
    timespec changed;
};

} // namespace

static cache_file_t cache_file SFLOW_GUARDED_BY(sflow_agent.config_lock) = {};

void sflow_poller_file_outdated()
{
    cache_file.in_step = false;
}

// ---- Images -----------------------------------------------------------------------------------------------

/// The node as it stands in the file: without its links, which mean nothing there.
static sflow_counter_node_t image_of(const sflow_counter_entry_t *entry)
{
    sflow_counter_node_t image = entry->node;
    image.list = {};
    return image;
}

static void log_image(const sflow_counter_node_t &node)
{
    static constexpr char name[] = "sflow_poller_save_counter";

    SFLOW_LOG_CONF("[SFLOW-CONF]%s : ifx(%d) ether %d, %d, %d, generic %d, %d, %d.\n", name, node.ifx,
                   node.ether.dot3StatsAlignmentErrors, node.ether.dot3StatsFCSErrors,
                   node.ether.dot3StatsSingleCollisionFrames, node.generic.ifInUcastPkts,
                   node.generic.ifInMulticastPkts, node.generic.ifInBroadcastPkts);
    SFLOW_LOG_CONF("[SFLOW-CONF]%s write ok\n", name);
}

static void log_write_failure()
{
    SFLOW_LOG_CONF("[SFLOW-CONF]%s write fail\n", "sflow_poller_save_counter");
}

/// Writes the images of all nodes from where `fd` stands and numbers their slots; the bytes that the file took, fewer
/// than the whole when it took no more.
static u_int64_t write_images(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    u_int64_t slot = 0;
    u_int64_t taken = 0;
    for (sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list;) {
        sflow_counter_node_t batch[BATCH_IMAGES];
        size_t number = 0;
        for (; link != &sflow_counter_list && number < BATCH_IMAGES; link = link->next) {
            sflow_counter_entry_t *entry = sflow_counter_entry(link);
            entry->slot = slot++;
            batch[number++] = image_of(entry);
        }
        const ssize_t got = write(fd, batch, number * IMAGE_BYTES);
        if (got > 0)
            taken += static_cast<u_int64_t>(got);
        if (taken != slot * IMAGE_BYTES)
            break;
    }
    return taken;
}

static void log_images(u_int64_t number) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    for (const sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list && number > 0;
         link = link->next, number--)
        log_image(*reinterpret_cast<const sflow_counter_node_t *>(link));
}

// ---- Recognising the file ---------------------------------------------------------------------------------

/// Takes note that the file behind `fd` now holds the cache.
static void remember(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return;
    cache_file = {.in_step = true,
                  .images = sflow_poller_counter_num(),
                  .device = status.st_dev,
                  .inode = status.st_ino,
                  .changed = status.st_ctim};
}

/// Whether the file behind `fd` is the one remembered and nobody has touched it since.
static bool is_remembered(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_dev == cache_file.device &&
           status.st_ino == cache_file.inode && status.st_ctim.tv_sec == cache_file.changed.tv_sec &&
           status.st_ctim.tv_nsec == cache_file.changed.tv_nsec &&
           static_cast<u_int64_t>(status.st_size) == cache_file.images * IMAGE_BYTES;
}

// ---- Changing a part of it --------------------------------------------------------------------------------

/// Whether writing this one image makes the file the cache's: it is the node's own, or the next one, and no other
/// node is missing.
static bool is_one_image_off(const sflow_counter_entry_t *entry) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const u_int64_t appended = entry->slot == cache_file.images ? 1 : 0;
    return entry->slot <= cache_file.images && sflow_poller_counter_num() == cache_file.images + appended;
}

static void write_image(int fd, const sflow_counter_entry_t *entry) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const sflow_counter_node_t image = image_of(entry);
    const off_t offset = static_cast<off_t>(entry->slot * IMAGE_BYTES);
    if (pwrite(fd, &image, sizeof(image), offset) != static_cast<ssize_t>(sizeof(image))) {
        log_write_failure();
        return;
    }
    log_image(entry->node);
    remember(fd);
}

// ---- Writing all of it ------------------------------------------------------------------------------------

/// Whether another file may take the place of the one behind `fd` at `path`: not when an operator has put a link
/// there, or something that is no file.
static bool is_replaceable(int fd, const char *path, struct stat *status)
{
    struct stat entry;
    return fstat(fd, status) == 0 && lstat(path, &entry) == 0 && S_ISREG(entry.st_mode) &&
           entry.st_nlink == 1 && entry.st_dev == status->st_dev && entry.st_ino == status->st_ino &&
           entry.st_uid == geteuid();
}

static bool fill_and_rename(int fd, const char *new_path, const char *path, mode_t mode)
    SFLOW_REQUIRES(sflow_agent.config_lock)
{
    if (write_images(fd) != sflow_poller_counter_num() * IMAGE_BYTES || fchmod(fd, mode) != 0 ||
        rename(new_path, path) != 0)
        return false;
    remember(fd);
    return true;
}

/// Puts a new file in the place of the one behind `fd`; false, with that one untouched, when this cannot be done.
static bool replace_file(int fd, const char *path) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    struct stat status;
    if (!is_replaceable(fd, path, &status))
        return false;
    const char *new_path = sflow_make_tmp_path(NEW_FILE);
    if (new_path == nullptr)
        return false;
    const int new_fd =
        open(new_path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, CACHE_FILE_MODE);
    if (new_fd == -1)
        return false;
    const bool replaced = fill_and_rename(new_fd, new_path, path, status.st_mode & 07777);
    if (!replaced)
        unlink(new_path);
    close(new_fd);
    return replaced;
}

/// Writes over the file's content, which keeps its blocks on a disk that has no others; what is behind goes.
static void overwrite_file(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    const u_int64_t taken = write_images(fd);
    const bool cut = ftruncate(fd, static_cast<off_t>(taken)) == 0;
    log_images(taken / IMAGE_BYTES);
    if (taken != sflow_poller_counter_num() * IMAGE_BYTES)
        log_write_failure();
    else if (cut)
        remember(fd);
}

static void write_file(int fd, const char *path) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    if (replace_file(fd, path))
        log_images(sflow_poller_counter_num());
    else
        overwrite_file(fd);
}

// ---- Saving -----------------------------------------------------------------------------------------------

namespace
{

/// What has changed in the cache since the last save.
enum class change_t { anything, one_node, last_node_gone };

} // namespace

/// `entry` is the changed node of `change_t::one_node`.
static void save(change_t change, const sflow_counter_entry_t *entry) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    // Until all of it has gone well, the file is anything.
    const bool was_in_step = std::exchange(cache_file.in_step, false);
    const char *made_path = sflow_make_tmp_path(CACHE_FILE);
    if (made_path == nullptr)
        return;
    char path[SFLOW_TMP_PATH_LEN];
    std::snprintf(path, sizeof(path), "%s", made_path);
    // Without waiting: whatever an operator has put there must not hold up the agent.
    const int fd = open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, CACHE_FILE_MODE);
    if (fd == -1) {
        SFLOW_LOG_CONF("[SFLOW-CONF]creat file error\n");
        return;
    }
    const bool known = was_in_step && change != change_t::anything && is_remembered(fd);
    if (known && change == change_t::one_node && is_one_image_off(entry)) {
        write_image(fd, entry);
    } else if (known && change == change_t::last_node_gone &&
               sflow_poller_counter_num() <= cache_file.images &&
               ftruncate(fd, static_cast<off_t>(sflow_poller_counter_num() * IMAGE_BYTES)) == 0) {
        remember(fd);
    } else {
        write_file(fd, path);
    }
    close(fd);
}

void sflow_poller_save_counter()
{
    save(change_t::anything, nullptr);
}

void sflow_poller_save_node(const sflow_counter_node_t *node)
{
    save(change_t::one_node, reinterpret_cast<const sflow_counter_entry_t *>(node));
}

void sflow_poller_file_shorten()
{
    save(change_t::last_node_gone, nullptr);
}

// ---- Loading ----------------------------------------------------------------------------------------------

static void debug_file_line(int line, const char *text)
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_poller.c", line, text);
}

/// Reads images until one is incomplete, which the end of the file is as well.
static void load_nodes(int fd) SFLOW_REQUIRES(sflow_agent.config_lock)
{
    for (;;) {
        sflow_counter_entry_t *entry = sflow_poller_allocate_entry();
        if (entry == nullptr) {
            debug_file_line(__LINE__, "malloc counter fail");
            return;
        }
        if (read(fd, &entry->node, IMAGE_BYTES) != static_cast<ssize_t>(IMAGE_BYTES)) {
            debug_file_line(__LINE__, "read file fail");
            std::free(entry);
            return;
        }
        if (!sflow_poller_link_entry(entry)) {
            debug_file_line(__LINE__, "malloc counter fail");
            std::free(entry);
            return;
        }
    }
}

int sflow_poller_counter_init()
{
    const char *path = sflow_make_tmp_path(CACHE_FILE);
    if (path == nullptr)
        return -1;
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1)
        return -1;
    sflow_config_wrlock();
    load_nodes(fd);
    sflow_config_wrunlock();
    close(fd);
    return 0;
}
