// Domain-socket server: the transport to the sampling service (module sflow_lib_server). One listening socket, one
// connection at a time, a receive thread that runs the handler of each record, a bounded send queue with its thread.
//
// What a record means is none of the server's business: it reads the header (sflow_msg_head_t) and nothing else.
#pragma once

#include "sflow_domain_msg.h"
#include "sflow_list.h"
#include "sflow_lock.h"

#include <pthread.h>
#include <sys/un.h>

/// Most messages that wait to be sent; the newest beyond it is refused.
constexpr int32_t SFLOW_LIB_SEND_LIST_MAX = 8192;
/// A registration is refused once more than this many commands are there.
constexpr int32_t SFLOW_LIB_CMD_LIST_MAX = 1024;
/// Bytes of either socket buffer, so that bursts of samples are not lost in the kernel.
constexpr int SFLOW_LIB_SOCKET_BUF = 4194304;

/// Handles one received record; `msg` points at its header, has the alignment that its place in the packet gives it
/// and at least the header's `len` bytes behind it. Receive thread, `cmd_lock` held: must not register or
/// unregister commands.
using sflow_deal_msg_t = void (*)(char *msg);

struct sflow_lib_msg_t {
    sflow_list_t list;
    char msg[SFLOW_MSG_MAX_LEN]; ///< the record; its header's len is what is sent
    int32_t len;                 ///< never filled in
};

struct sflow_lib_cmd_t {
    sflow_list_t list;
    u_int32_t cmd;
    sflow_deal_msg_t sflow_deal_msg; ///< null: the command is known and its records count as errors
};

struct sflow_lib_cb_t {
    sflow_mutex_t send_lock; ///< also held while the connection is closed
    sflow_mutex_t cmd_lock;  ///< also held while a handler runs
    pthread_condattr_t condattr;
    pthread_cond_t send_cond;                           ///< a message was queued; monotonic clock
    sflow_list_t send_list SFLOW_GUARDED_BY(send_lock); ///< sflow_lib_msg_t, first queued first sent
    sflow_list_t cmd_list SFLOW_GUARDED_BY(cmd_lock);   ///< sflow_lib_cmd_t, in order of registration
    int32_t send_len SFLOW_GUARDED_BY(send_lock);
    int32_t cmd_len;   ///< changed under `cmd_lock`; relaxed
    int32_t client_sd; ///< -1 when no service is connected; relaxed
    int32_t server_sd; ///< -1 when not listening; receive thread
    sockaddr_un addr;  ///< the bound path, then the address of the peer accepted last; receive thread
    pthread_t send_tid;
    pthread_t recv_tid;
    // Statistics; relaxed. The first three are shown and never counted.
    u_int32_t add_read_fail_num;
    u_int32_t creat_socket_fail_num;
    u_int32_t add_timer_fail_num;
    u_int32_t send_lock_fail_num;
    u_int32_t send_unlock_fail_num;
    u_int32_t send_message_num; ///< messages accepted into the queue
    u_int32_t send_error_num;   ///< sends that did not write the whole message, retries included
    u_int32_t send_drop_num;    ///< messages refused because the queue was full
    u_int32_t recv_message_num; ///< records walked, dispatched or not
    u_int32_t recv_error_num;   ///< records without a handler, and lost connections
    u_int32_t recv_packet_num;  ///< successful receives
};

extern sflow_lib_cb_t sflow_lib_server_cb;
/// 1: every received and sent buffer is dumped to syslog; relaxed.
extern int32_t sflow_lib_debug_switch;

/// Starts the server's threads "sflow_srv_recv" and "sflow_srv_send"; 0, or -1 with the reason in the debug file and
/// nothing running. 0 does not mean that the socket could be served: the receive thread finds that out, says so in
/// the debug file and ends; every send is then refused. Once, before sflow_config_register().
int sflow_lib_server_init();

/// Queues one record for the sampling service: 0, or -1 when it is null or larger than SFLOW_MSG_MAX_LEN, no service
/// is connected, memory is short or the queue is full; the reason is in the debug file. Never blocks on the socket.
/// `len` bytes are copied; as many are sent as the record's header says, at most SFLOW_MSG_MAX_LEN. Queued is not
/// sent: what a lost connection leaves goes to the next one, ahead of its connect notice. Any thread; takes
/// `send_lock`.
int sflow_lib_server_send_msg(const char *msg, int len);

/// 0 when registered, or when the code already has an entry (which stays); -1 when the table is full or memory is
/// short. Any thread, but not from a handler; takes `cmd_lock`.
int sflow_lib_server_cmd_register(unsigned int cmd, sflow_deal_msg_t handler);
/// Removes the first entry with the code, if any. As registration.
void sflow_lib_server_cmd_unregister(unsigned int cmd);
/// Removes every entry. As registration.
void sflow_lib_server_cmd_clear();
/// The last entry with the code, or null.
sflow_lib_cmd_t *sflow_lib_server_get_cmd(unsigned int cmd) SFLOW_REQUIRES(sflow_lib_server_cb.cmd_lock);

/// Runs the handler of every whole record in the `len` bytes of `data`, which need no alignment; stops silently at a
/// short tail and at a record whose length runs past the end. A record of length 0 is never passed by, its handler
/// runs for ever: the peer must not send one. A length from 1 to 7 is walked as it stands, into the middle of its
/// own header. Receive thread; takes `cmd_lock` for each record.
void sflow_lib_server_deal_recv_msg(char *data, u_int32_t len);

/// Print the statistics and the command table; `printf_flag` 0 to the operator, otherwise to tech-support. CLI
/// thread; the second takes `cmd_lock` and so waits for a handler that runs.
void show_sflow_server_info(int printf_flag);
void show_sflow_server_cmd(int printf_flag);
/// Registers the diagnostic commands. CLI thread, once.
void sflow_lib_server_cli_init();
