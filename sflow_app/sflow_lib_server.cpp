// Domain-socket server: carries records between the daemon and the sampling service.
//
// The receive thread "sflow_srv_recv" owns the listening socket and the one connection; it takes in packets and runs
// the handlers of the records in them. The send thread "sflow_srv_send" empties the send queue. Every other thread
// only puts messages into the queue, so that no caller ever waits for the peer. The command table and the
// diagnostics are in sflow_lib_server_cmd.cpp.
//
// Nothing here looks into a record beyond its header, and no failure here ends the daemon: without the channel it
// keeps its configuration and exports nothing.
#include "sflow_lib_server.h"

#include "sflow_atomic.h"
#include "sflow_process.h"

#include "platform/syslog_client.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

constinit sflow_lib_cb_t sflow_lib_server_cb = {
    .send_lock = {PTHREAD_MUTEX_INITIALIZER},
    .cmd_lock = {PTHREAD_MUTEX_INITIALIZER},
    .condattr = {},
    .send_cond = PTHREAD_COND_INITIALIZER,
    .send_list = {&sflow_lib_server_cb.send_list, &sflow_lib_server_cb.send_list},
    .cmd_list = {&sflow_lib_server_cb.cmd_list, &sflow_lib_server_cb.cmd_list},
    .send_len = 0,
    .cmd_len = 0,
    .client_sd = -1,
    .server_sd = -1,
    .addr = {},
    .send_tid = {},
    .recv_tid = {},
    .add_read_fail_num = 0,
    .creat_socket_fail_num = 0,
    .add_timer_fail_num = 0,
    .send_lock_fail_num = 0,
    .send_unlock_fail_num = 0,
    .send_message_num = 0,
    .send_error_num = 0,
    .send_drop_num = 0,
    .recv_message_num = 0,
    .recv_error_num = 0,
    .recv_packet_num = 0,
};
int32_t sflow_lib_debug_switch = 0;

namespace
{

constexpr char SFLOW_LIB_SOCKET_PATH[] = "/sflow/domain_socket";
constexpr int SFLOW_LIB_PATH_MAX = 100;
constexpr int SFLOW_LIB_DUMP_ROW = 16;
constexpr time_t SFLOW_LIB_SEND_WAIT_SEC = 30;
/// Longest pause of the send thread between two attempts at a message that the socket does not take. A writable
/// socket ends it at once; it is there so that a full or absent connection does not burn a core.
constexpr int SFLOW_LIB_RETRY_MS = 1;
/// First value of the address length that accept() updates; later accepts start from what the last one left.
constexpr socklen_t SFLOW_LIB_ACCEPT_ADDR_LEN = 16;

/// Held while the threads are being created. The receive thread looks at the verdict before it touches the control
/// block, so that a start-up which fails half-way can destroy the block.
sflow_mutex_t sflow_lib_start_lock = {PTHREAD_MUTEX_INITIALIZER};
bool sflow_lib_started SFLOW_GUARDED_BY(sflow_lib_start_lock) = false;

void sflow_lib_log(const char *text, int line = __builtin_LINE())
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_lib_server", line, text);
}

/// False when the lock could not be taken: the operation goes on unlocked.
bool sflow_lib_send_lock() SFLOW_ACQUIRE(sflow_lib_server_cb.send_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_mutex_lock(&sflow_lib_server_cb.send_lock.mutex) == 0)
        return true;
    sflow_count(sflow_lib_server_cb.send_lock_fail_num);
    return false;
}

/// `held` is what sflow_lib_send_lock returned.
void sflow_lib_send_unlock(bool held)
    SFLOW_RELEASE(sflow_lib_server_cb.send_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held && pthread_mutex_unlock(&sflow_lib_server_cb.send_lock.mutex) != 0) {
        sflow_count(sflow_lib_server_cb.send_unlock_fail_num);
        sflow_lib_log("unlock fail");
    }
}

void sflow_lib_start_begin() SFLOW_ACQUIRE(sflow_lib_start_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&sflow_lib_start_lock.mutex);
}

void sflow_lib_start_end() SFLOW_RELEASE(sflow_lib_start_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_unlock(&sflow_lib_start_lock.mutex);
}

// ---- Trace ---------------------------------------------------------------------------------------------------------

/// Hex dump, a syslog line for each 16 bytes.
void sflow_dump_data(const char *data, int len)
{
    printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "sflow debug dump data len:%d\n", len);
    char row[SFLOW_LIB_DUMP_ROW * 3 + 1];
    size_t used = 0;
    for (int i = 0; i < len; ++i) {
        used += static_cast<size_t>(
            snprintf(row + used, sizeof(row) - used, "%02x ", static_cast<unsigned char>(data[i])));
        if ((i + 1) % SFLOW_LIB_DUMP_ROW == 0 || i + 1 == len) {
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "%s\n", row);
            used = 0;
        }
    }
}

// ---- Control block -------------------------------------------------------------------------------------------------

struct sflow_lib_sync_object_t {
    int (*create)();
    int (*destroy)(); ///< null: nothing to undo
    const char *failure;
};

constexpr sflow_lib_sync_object_t sflow_lib_sync_objects[] = {
    {[] { return pthread_mutex_init(&sflow_lib_server_cb.send_lock.mutex, nullptr); },
     [] { return pthread_mutex_destroy(&sflow_lib_server_cb.send_lock.mutex); }, "send_lock failure."},
    {[] { return pthread_mutex_init(&sflow_lib_server_cb.cmd_lock.mutex, nullptr); },
     [] { return pthread_mutex_destroy(&sflow_lib_server_cb.cmd_lock.mutex); }, "cmd_lock failure."},
    {[] { return pthread_condattr_init(&sflow_lib_server_cb.condattr); },
     [] { return pthread_condattr_destroy(&sflow_lib_server_cb.condattr); }, "cond_attr failure."},
    {[] { return pthread_condattr_setclock(&sflow_lib_server_cb.condattr, CLOCK_MONOTONIC); }, nullptr,
     "cond_attr set clock failure."},
    {[] { return pthread_cond_init(&sflow_lib_server_cb.send_cond, &sflow_lib_server_cb.condattr); },
     [] { return pthread_cond_destroy(&sflow_lib_server_cb.send_cond); }, "send_cond failure."},
};

/// Destroys the first `count` synchronisation objects, the last created first.
void sflow_lib_server_sync_destroy(size_t count)
{
    while (count > 0) {
        --count;
        if (sflow_lib_sync_objects[count].destroy != nullptr)
            sflow_lib_sync_objects[count].destroy();
    }
}

/// No other thread uses the block yet.
int sflow_lib_server_cb_init() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    sflow_lib_cb_t fresh = {};
    fresh.client_sd = -1;
    fresh.server_sd = -1;
    sflow_lib_server_cb = fresh;
    sflow_list_init(&sflow_lib_server_cb.send_list);
    sflow_list_init(&sflow_lib_server_cb.cmd_list);
    for (size_t created = 0; created < std::size(sflow_lib_sync_objects); ++created) {
        if (sflow_lib_sync_objects[created].create() != 0) {
            sflow_lib_server_sync_destroy(created);
            sflow_lib_log(sflow_lib_sync_objects[created].failure);
            return -1;
        }
    }
    return 0;
}

void sflow_lib_server_free_msg(sflow_lib_msg_t *node) SFLOW_REQUIRES(sflow_lib_server_cb.send_lock)
{
    sflow_list_remove(&node->list);
    --sflow_lib_server_cb.send_len;
    std::free(node);
}

/// Closes the connection. Under `send_lock`: the send thread must not write to a descriptor that another part of the
/// daemon may be given next.
void sflow_lib_server_close_client()
{
    const bool held = sflow_lib_send_lock();
    const int sd = sflow_load(sflow_lib_server_cb.client_sd);
    sflow_store(sflow_lib_server_cb.client_sd, -1);
    if (sd >= 0)
        close(sd);
    sflow_lib_send_unlock(held);
}

/// Frees queue and command table and closes both sockets. The locks stay: the send thread waits on them, and the
/// message handlers will be registered whether or not there is a socket.
void sflow_lib_server_cb_clear()
{
    const bool held = sflow_lib_send_lock();
    for (sflow_list_t *link = sflow_lib_server_cb.send_list.next; link != &sflow_lib_server_cb.send_list;) {
        auto *node = sflow_list_entry<sflow_lib_msg_t>(link);
        link = link->next;
        sflow_lib_server_free_msg(node);
    }
    sflow_lib_send_unlock(held);
    sflow_lib_server_cmd_clear();
    sflow_lib_server_close_client();
    if (sflow_lib_server_cb.server_sd >= 0) {
        close(sflow_lib_server_cb.server_sd);
        sflow_lib_server_cb.server_sd = -1;
    }
}

/// The whole block; only while no thread of the server uses it.
void sflow_lib_server_cb_destroy()
{
    sflow_lib_server_cb_clear();
    sflow_lib_server_sync_destroy(std::size(sflow_lib_sync_objects));
}

// ---- Receive thread ------------------------------------------------------------------------------------------------

void sflow_lib_server_set_buffers(int sd)
{
    const int size = SFLOW_LIB_SOCKET_BUF;
    setsockopt(sd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    setsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

/// Writes the reason, closes what is open and reports failure.
int sflow_lib_server_listen_failed(const char *text, const char *reason, int line = __builtin_LINE())
{
    sflow_lib_log(text, line);
    if (reason != nullptr)
        sflow_lib_log(reason, line);
    sflow_lib_server_cb_clear();
    return -1;
}

/// Creates, binds and opens the listening socket.
int sflow_lib_server_listen()
{
    sockaddr_un &addr = sflow_lib_server_cb.addr;
    addr.sun_family = AF_UNIX;
    const char *path = sflow_make_tmp_path(SFLOW_LIB_SOCKET_PATH);
    if (path == nullptr) {
        sflow_lib_log("make path fail");
        return -1;
    }
    memcpy(addr.sun_path, path, strnlen(path, SFLOW_LIB_PATH_MAX));

    sflow_lib_server_cb.server_sd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (sflow_lib_server_cb.server_sd < 0) {
        char text[128];
        return sflow_lib_server_listen_failed("create fail", strerror_r(errno, text, sizeof(text)));
    }
    sflow_lib_server_set_buffers(sflow_lib_server_cb.server_sd);
    unlink(addr.sun_path);
    if (bind(sflow_lib_server_cb.server_sd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0)
        return sflow_lib_server_listen_failed("bind fail", nullptr);
    if (listen(sflow_lib_server_cb.server_sd, 0) != 0)
        return sflow_lib_server_listen_failed("listen fail", nullptr);
    return 0;
}

/// First record of every connection; the service answers by asking for its configuration.
void sflow_send_connect_msg()
{
    const sflow_msg_head_t notice = {SFLOW_CMD_CONNECT, sizeof(notice)};
    if (sflow_lib_server_send_msg(reinterpret_cast<const char *>(&notice), sizeof(notice)) == 0)
        sflow_lib_log("send connect to ss success.");
    else
        sflow_lib_log("send connect to ss failure.");
}

/// Takes in packets until the connection is lost.
void sflow_lib_server_serve(int sd)
{
    alignas(u_int64_t) char packet[SFLOW_MSG_MAX_LEN];
    for (;;) {
        const ssize_t received = recv(sd, packet, sizeof(packet), 0);
        if (received <= 0)
            break;
        if (sflow_load(sflow_lib_debug_switch) == 1) {
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "[sflow server receive message]:%d\n",
                              static_cast<int>(received));
            sflow_dump_data(packet, static_cast<int>(received));
        }
        sflow_lib_server_deal_recv_msg(packet, static_cast<u_int32_t>(received));
        sflow_count(sflow_lib_server_cb.recv_packet_num);
    }
    sflow_count(sflow_lib_server_cb.recv_error_num);
    sflow_lib_server_close_client();
    sflow_lib_log("recv error");
}

void *sflow_lib_server_recv_main(void *)
{
    prctl(PR_SET_NAME, "sflow_srv_recv");
    sflow_lib_start_begin();
    const bool started = sflow_lib_started;
    sflow_lib_start_end();
    if (!started || sflow_lib_server_listen() != 0)
        return nullptr;

    socklen_t addr_len = SFLOW_LIB_ACCEPT_ADDR_LEN;
    for (;;) {
        const int sd =
            accept4(sflow_lib_server_cb.server_sd, reinterpret_cast<sockaddr *>(&sflow_lib_server_cb.addr),
                    &addr_len, SOCK_CLOEXEC);
        if (sd < 0) {
            sflow_lib_log("accept fail");
            sleep(1);
            continue;
        }
        // The listening socket's sizes do not carry over to its connections.
        sflow_lib_server_set_buffers(sd);
        sflow_store(sflow_lib_server_cb.client_sd, sd);
        sflow_lib_log("accept success");
        sflow_send_connect_msg();
        sflow_lib_server_serve(sd);
    }
}

// ---- Send thread ---------------------------------------------------------------------------------------------------

/// Bytes of a queued record by its own header, limited to what was kept of it.
u_int32_t sflow_lib_server_msg_len(const sflow_lib_msg_t *node)
{
    sflow_msg_head_t head;
    memcpy(&head, node->msg, sizeof(head));
    return head.len < sizeof(node->msg) ? head.len : static_cast<u_int32_t>(sizeof(node->msg));
}

/// Writes one message to the connection, without waiting; false when it was not taken as a whole.
bool sflow_lib_server_send_one(const sflow_lib_msg_t *node)
{
    const u_int32_t len = sflow_lib_server_msg_len(node);
    if (sflow_load(sflow_lib_debug_switch) == 1) {
        printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "[sflow server send message]:%d\n",
                          static_cast<int>(len));
        sflow_dump_data(node->msg, static_cast<int>(len));
    }
    const ssize_t sent =
        send(sflow_load(sflow_lib_server_cb.client_sd), node->msg, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(len))
        return true;
    sflow_lib_log("send fail");
    sflow_count(sflow_lib_server_cb.send_error_num);
    return false;
}

/// Sends from the front of the queue; false when the socket did not take a message, which stays there with all
/// behind it.
bool sflow_lib_server_send_queued() SFLOW_REQUIRES(sflow_lib_server_cb.send_lock)
{
    for (sflow_list_t *link = sflow_lib_server_cb.send_list.next; link != &sflow_lib_server_cb.send_list;) {
        auto *node = sflow_list_entry<sflow_lib_msg_t>(link);
        link = link->next;
        if (!sflow_lib_server_send_one(node))
            return false;
        sflow_lib_server_free_msg(node);
    }
    return true;
}

/// True when a message was announced; false after half a minute without one.
bool sflow_lib_server_wait_msg() SFLOW_REQUIRES(sflow_lib_server_cb.send_lock)
{
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += SFLOW_LIB_SEND_WAIT_SEC;
    return pthread_cond_timedwait(&sflow_lib_server_cb.send_cond, &sflow_lib_server_cb.send_lock.mutex,
                                  &deadline) == 0;
}

void sflow_lib_server_retry_pause()
{
    pollfd connection = {.fd = sflow_load(sflow_lib_server_cb.client_sd), .events = POLLOUT, .revents = 0};
    poll(&connection, 1, SFLOW_LIB_RETRY_MS);
}

/// One round: waits for messages, then sends what is queued. False when it has to be tried again soon: a message is
/// left, or nothing could be waited for because the lock was not to be had.
bool sflow_lib_server_send_round()
{
    const bool held = sflow_lib_send_lock();
    const bool empty = sflow_list_empty(&sflow_lib_server_cb.send_list);
    bool done = false;
    if (held || !empty)
        done = (empty && !sflow_lib_server_wait_msg()) || sflow_lib_server_send_queued();
    sflow_lib_send_unlock(held);
    return done;
}

void *sflow_lib_server_send_main(void *)
{
    prctl(PR_SET_NAME, "sflow_srv_send");
    for (;;) {
        if (!sflow_lib_server_send_round())
            sflow_lib_server_retry_pause();
    }
}

int sflow_lib_server_start_threads()
{
    if (sflow_create_depatch_thread(&sflow_lib_server_cb.recv_tid, sflow_lib_server_recv_main, nullptr) !=
        0) {
        sflow_lib_log("create recv thread failure.");
        return -1;
    }
    if (sflow_create_depatch_thread(&sflow_lib_server_cb.send_tid, sflow_lib_server_send_main, nullptr) !=
        0) {
        sflow_lib_log("create send thread failure.");
        return -1;
    }
    return 0;
}

} // namespace

int sflow_lib_server_init()
{
    if (sflow_lib_server_cb_init() != 0)
        return -1;
    sflow_lib_start_begin();
    const int result = sflow_lib_server_start_threads();
    sflow_lib_started = result == 0;
    sflow_lib_start_end();
    if (result != 0) {
        sflow_lib_server_cb_destroy();
        return -1;
    }
    sflow_lib_log("sflow lib server success.");
    return 0;
}

int sflow_lib_server_send_msg(const char *msg, int len)
{
    if (msg == nullptr || len < 0 || len > SFLOW_MSG_MAX_LEN) {
        sflow_lib_log("arg invalid");
        return -1;
    }
    if (sflow_load(sflow_lib_server_cb.client_sd) == -1) {
        sflow_lib_log("client sd invalid");
        return -1;
    }
    auto *node = static_cast<sflow_lib_msg_t *>(std::calloc(1, sizeof(sflow_lib_msg_t)));
    if (node == nullptr) {
        sflow_lib_log("malloc fail");
        return -1;
    }
    memcpy(node->msg, msg, static_cast<size_t>(len));

    const bool held = sflow_lib_send_lock();
    if (!held)
        sflow_lib_log("lock fail");
    const bool accepted = sflow_lib_server_cb.send_len < SFLOW_LIB_SEND_LIST_MAX;
    if (accepted) {
        sflow_list_insert_before(&sflow_lib_server_cb.send_list, &node->list);
        ++sflow_lib_server_cb.send_len;
        sflow_count(sflow_lib_server_cb.send_message_num);
        pthread_cond_signal(&sflow_lib_server_cb.send_cond);
    }
    sflow_lib_send_unlock(held);
    if (accepted)
        return 0;
    std::free(node);
    sflow_count(sflow_lib_server_cb.send_drop_num);
    sflow_lib_log("list full");
    return -1;
}
