// Domain-socket server: the table of command handlers, the walk over a received packet that runs them, and the
// server's diagnostics on the command line.
//
// Registration happens at start-up, the walk on the receive thread, the diagnostics on the CLI thread; `cmd_lock`
// keeps them apart. Handlers run one at a time with the lock held, so a handler that is found stays registered
// while it runs. Nothing here reads or writes the socket.
#include "sflow_lib_server.h"

#include "sflow_atomic.h"
#include "sflow_cli.h"
#include "sflow_process.h"

#include "platform/cli.h"
#include "platform/tech.h"

#include <cstdlib>
#include <cstring>

namespace
{

void sflow_lib_log(const char *text, int line = __builtin_LINE())
{
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_lib_server", line, text);
}

/// False when the lock could not be taken: the operation goes on unlocked.
bool sflow_lib_cmd_lock() SFLOW_ACQUIRE(sflow_lib_server_cb.cmd_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_mutex_lock(&sflow_lib_server_cb.cmd_lock.mutex) == 0)
        return true;
    sflow_lib_log("lock failure.");
    return false;
}

/// `held` is what sflow_lib_cmd_lock returned.
void sflow_lib_cmd_unlock(bool held)
    SFLOW_RELEASE(sflow_lib_server_cb.cmd_lock) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (held && pthread_mutex_unlock(&sflow_lib_server_cb.cmd_lock.mutex) != 0)
        sflow_lib_log("unlock failure.");
}

void sflow_lib_server_free_cmd(sflow_lib_cmd_t *entry) SFLOW_REQUIRES(sflow_lib_server_cb.cmd_lock)
{
    sflow_list_remove(&entry->list);
    sflow_store(sflow_lib_server_cb.cmd_len, sflow_load(sflow_lib_server_cb.cmd_len) - 1);
    std::free(entry);
}

int sflow_lib_server_add_cmd(unsigned int cmd, sflow_deal_msg_t handler)
    SFLOW_REQUIRES(sflow_lib_server_cb.cmd_lock)
{
    if (sflow_lib_server_get_cmd(cmd) != nullptr) {
        sflow_lib_log("cmd is exist");
        return 0;
    }
    const int32_t count = sflow_load(sflow_lib_server_cb.cmd_len);
    if (count > SFLOW_LIB_CMD_LIST_MAX) {
        sflow_lib_log("list full");
        return -1;
    }
    auto *entry = static_cast<sflow_lib_cmd_t *>(std::malloc(sizeof(sflow_lib_cmd_t)));
    if (entry == nullptr) {
        sflow_lib_log("malloc fail");
        return -1;
    }
    *entry = {.list = {}, .cmd = cmd, .sflow_deal_msg = handler};
    sflow_list_insert_before(&sflow_lib_server_cb.cmd_list, &entry->list);
    sflow_store(sflow_lib_server_cb.cmd_len, count + 1);
    return 0;
}

/// Runs the handler of `record`, whose header says `type`.
void sflow_lib_server_dispatch(u_int32_t type, char *record)
{
    const bool held = sflow_lib_cmd_lock();
    const sflow_lib_cmd_t *entry = sflow_lib_server_get_cmd(type);
    if (entry != nullptr && entry->sflow_deal_msg != nullptr) {
        entry->sflow_deal_msg(record);
    } else {
        sflow_count(sflow_lib_server_cb.recv_error_num);
        sflow_lib_log("recv error msg.");
    }
    sflow_lib_cmd_unlock(held);
}

// ---- Diagnostics ---------------------------------------------------------------------------------------------------

/// A line for the operator, or for the tech-support collection when `printf_flag` is not 0.
template <typename... Args>
void sflow_lib_print(int printf_flag, const char *format, Args... args)
{
    if (printf_flag != 0)
        tech_module_msg_output(format, args...);
    else
        cli_printf(format, args...);
}

struct sflow_lib_statis_row_t {
    const char *format;
    u_int32_t sflow_lib_cb_t::*counter;
};

constexpr sflow_lib_statis_row_t sflow_lib_statis_rows[] = {
    {"server add read socket fail number:%d\n", &sflow_lib_cb_t::add_read_fail_num},
    {"server create socket fail number:%d\n", &sflow_lib_cb_t::creat_socket_fail_num},
    {"server add timer number:%d\n", &sflow_lib_cb_t::add_timer_fail_num},
    {"server send lock fail number:%d\n", &sflow_lib_cb_t::send_lock_fail_num},
    {"server send unlock fail number:%d\n", &sflow_lib_cb_t::send_unlock_fail_num},
    {"server send message number:%d\n", &sflow_lib_cb_t::send_message_num},
    {"server send error number:%d\n", &sflow_lib_cb_t::send_error_num},
    {"server drop packet number:%d\n", &sflow_lib_cb_t::send_drop_num},
    {"server recv message number:%d\n", &sflow_lib_cb_t::recv_message_num},
    {"server recv error number:%d\n", &sflow_lib_cb_t::recv_error_num},
    {"server recv packet number:%d\n", &sflow_lib_cb_t::recv_packet_num},
};

void show_sflow_server_info_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        show_sflow_server_info(0);
}

void show_sflow_server_cmd_cmd(struct_command_data_block *record)
{
    if (!sflow_is_c2p_pass(record))
        show_sflow_server_cmd(0);
}

void debug_sflow_server_cmd(struct_command_data_block *record)
{
    if (sflow_is_c2p_pass(record))
        return;
    const auto value = static_cast<int32_t>(record->int_var[0]);
    sflow_store(sflow_lib_debug_switch, value);
    cli_printf("sflow_lib_debug_switch is %s\n", value == 1 ? "on" : "off");
}

CLI_NODES(show_server_top, show_server_info, show_server_info_end, show_server_cmd, show_server_cmd_end);
CLI_APPEND_POINT(show_server_top, show_server_info);
CLI_HIDDEN_KEYWORD(show_server_info, "sflow_server_lib_info", "show sflow server info", CLI_PRIV_PRIVILEGED,
                   15, show_server_info_end, show_server_cmd);
CLI_EOL(show_server_info_end, show_sflow_server_info_cmd);
CLI_HIDDEN_KEYWORD(show_server_cmd, "sflow_server_cmd_list", "show sflow cmd list", CLI_PRIV_PRIVILEGED, 15,
                   show_server_cmd_end, Tno_alt);
CLI_EOL(show_server_cmd_end, show_sflow_server_cmd_cmd);

CLI_NODES(debug_server_top, debug_server, debug_server_on, debug_server_off, debug_server_end);
CLI_APPEND_POINT(debug_server_top, debug_server);
CLI_HIDDEN_KEYWORD(debug_server, "debug_server_sflow", "debug sflow switch", CLI_PRIV_PRIVILEGED, 6,
                   debug_server_on, Tno_alt);
CLI_VALUE_KEYWORD(debug_server_on, "on", "switch on", CLI_PRIV_USER, CLI_SLOT(int_var[0]), 1,
                  debug_server_end, debug_server_off);
CLI_VALUE_KEYWORD(debug_server_off, "off", "switch off", CLI_PRIV_USER, CLI_SLOT(int_var[0]), 0,
                  debug_server_end, Tno_alt);
CLI_EOL(debug_server_end, debug_sflow_server_cmd);

} // namespace

// ---- Command table -------------------------------------------------------------------------------------------------

sflow_lib_cmd_t *sflow_lib_server_get_cmd(unsigned int cmd)
{
    sflow_lib_cmd_t *found = nullptr;
    sflow_list_for_each<sflow_lib_cmd_t>(&sflow_lib_server_cb.cmd_list, [&](sflow_lib_cmd_t *entry) {
        if (entry->cmd == cmd)
            found = entry;
    });
    return found;
}

int sflow_lib_server_cmd_register(unsigned int cmd, sflow_deal_msg_t handler)
{
    const bool held = sflow_lib_cmd_lock();
    const int result = sflow_lib_server_add_cmd(cmd, handler);
    sflow_lib_cmd_unlock(held);
    return result;
}

void sflow_lib_server_cmd_unregister(unsigned int cmd)
{
    const bool held = sflow_lib_cmd_lock();
    auto *entry = sflow_list_find<sflow_lib_cmd_t>(
        &sflow_lib_server_cb.cmd_list,
        [cmd](const sflow_lib_cmd_t *candidate) { return candidate->cmd == cmd; });
    if (entry != nullptr)
        sflow_lib_server_free_cmd(entry);
    sflow_lib_cmd_unlock(held);
}

void sflow_lib_server_cmd_clear()
{
    const bool held = sflow_lib_cmd_lock();
    while (!sflow_list_empty(&sflow_lib_server_cb.cmd_list))
        sflow_lib_server_free_cmd(sflow_list_entry<sflow_lib_cmd_t>(sflow_lib_server_cb.cmd_list.next));
    sflow_lib_cmd_unlock(held);
}

void sflow_lib_server_deal_recv_msg(char *data, u_int32_t len)
{
    u_int32_t remaining = len;
    char *record = data;
    while (remaining >= sizeof(sflow_msg_head_t)) {
        sflow_msg_head_t head;
        memcpy(&head, record, sizeof(head)); // records follow one another at any alignment
        if (head.len > remaining)
            return;
        sflow_lib_server_dispatch(head.type, record);
        remaining -= head.len;
        record += head.len;
        sflow_count(sflow_lib_server_cb.recv_message_num);
    }
}

void show_sflow_server_info(int printf_flag)
{
    for (const auto &[format, counter] : sflow_lib_statis_rows)
        sflow_lib_print(printf_flag, format, sflow_load(sflow_lib_server_cb.*counter));
    sflow_lib_print(printf_flag, "server command num is:%d\n", sflow_load(sflow_lib_server_cb.cmd_len));
    sflow_lib_print(printf_flag, sflow_load(sflow_lib_server_cb.client_sd) != -1
                                     ? "sflow domain socket is connect\n"
                                     : "sflow domain socket is no connect\n");
}

void show_sflow_server_cmd(int printf_flag)
{
    const bool held = sflow_lib_cmd_lock();
    sflow_list_for_each<sflow_lib_cmd_t>(&sflow_lib_server_cb.cmd_list, [=](const sflow_lib_cmd_t *entry) {
        sflow_lib_print(printf_flag, "cmd type:0x%x, func address:0x%p\n", entry->cmd,
                        reinterpret_cast<void *>(entry->sflow_deal_msg));
    });
    sflow_lib_cmd_unlock(held);
}

void sflow_lib_server_cli_init()
{
    cli_add_command(PARSE_ADD_SHOW_CMD, &show_server_top, "show sflow server debug info");
    cli_add_command(PARSE_ADD_EXEC_TOP_CMD, &debug_server_top, "debug sflow switch");
}
