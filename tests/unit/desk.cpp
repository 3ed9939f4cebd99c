#include "desk.h"

#include "desk_network.h"

#include "acl_service/acl_service.h"
#include "core.h"
#include "log/log_target.h"
#include "sflow_acl.h"
#include "sflow_agent.h"
#include "sflow_cli.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"
#include "sflow_lib_server.h"
#include "sflow_lsm.h"
#include "sflow_tech_sup.h"

#include "platform/rdnd.h"
#include "platform/syslog_client.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <span>
#include <stdexcept>
#include <utility>

namespace
{

/// The daemon's own threads do not start: the test does their work. Set while commands run, which may have some.
bool threads_start = false;

std::mutex log_mutex;
std::vector<std::string> log_lines;

} // namespace

extern "C" int __real_pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *),
                                     void *arg);
extern "C" int __wrap_pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *),
                                     void *arg)
{
    if (threads_start)
        return __real_pthread_create(tid, attr, start, arg);
    *tid = pthread_self();
    return 0;
}

// The daemon's regeneration of the running configuration, a second after a change: on a slow machine it would come
// between two lines, and into what the log says about them. Collecting is what `show running-config` does too.
extern "C" int __wrap__Z22kx_thread_insert_timerP16kx_thread_masterP11kx_thread_tPFiS2_EPvlPKc(
    kx_thread_master_t *, kx_thread_t *, kx_thread_func_t, void *, long, const char *)
{
    return 0;
}

// ---- Log -----------------------------------------------------------------------------------------------------------

void printk_syslog_ext(int level, const char *module, const char *mnemonic, int /*dest*/, const char *format,
                       ...)
{
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const std::lock_guard guard(log_mutex);
    log_lines.push_back(platform::make_log_line(level, module, mnemonic, text));
}

int syslog_single_thread_client_init(kx_thread_master_t * /*master*/)
{
    return 0;
}

int syslog_set_snd_queue_size(int /*lines*/)
{
    return 0;
}

namespace desk
{
namespace
{

constexpr int CONNECTED = 1000; ///< no descriptor: nothing is sent on it, the test empties the queue
constexpr u_int32_t EVERY_CAPACITY = 0xFFF;

void require(bool ok, const char *what)
{
    if (!ok)
        throw std::runtime_error(std::string("the desk cannot be set up: ") + what);
}

template <typename Request, typename Reply>
Reply echo(const char *record, u_int32_t type)
{
    Reply reply;
    std::memset(&reply, 0, sizeof reply);
    std::memcpy(&reply, record, sizeof(Request));
    reply.head = {type, sizeof reply};
    return reply;
}

template <typename Reply>
void deliver(Reply reply)
{
    sflow_lib_server_deal_recv_msg(reinterpret_cast<char *>(&reply), sizeof reply);
}

void answer_record(const char *record, int refusal)
{
    sflow_msg_head_t head;
    std::memcpy(&head, record, sizeof head);
    if (head.type == SFLOW_CMD_SET_SAMPLING_RATE) {
        auto reply = echo<sflow_spl_t, sflow_spl_ret_t>(record, SFLOW_CMD_SET_SAMPLING_RATE_RET);
        reply.ret = static_cast<decltype(reply.ret)>(refusal);
        deliver(reply);
    } else if (head.type == SFLOW_CMD_IFX_IS_CONF) {
        deliver(echo<sflow_ifx_is_conf_t, sflow_ifx_is_conf_ret_t>(record, SFLOW_CMD_IFX_IS_CONF_RET));
    }
}

/// The oldest message of the send queue, taken out of it.
std::optional<sflow_lib_msg_t> next_request() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    sflow_list_t *const head = &sflow_lib_server_cb.send_list;
    if (sflow_list_empty(head))
        return std::nullopt;
    auto *const node = sflow_list_entry<sflow_lib_msg_t>(head->next);
    sflow_list_remove(&node->list);
    sflow_lib_server_cb.send_len--;
    const sflow_lib_msg_t request = *node;
    std::free(node);
    return request;
}

void clear_counters()
{
    sflow_statis = {};
    sflow_lib_cb_t &server = sflow_lib_server_cb;
    for (u_int32_t *const counter :
         {&server.send_lock_fail_num, &server.send_unlock_fail_num, &server.send_message_num,
          &server.send_error_num, &server.send_drop_num, &server.recv_message_num, &server.recv_error_num,
          &server.recv_packet_num})
        *counter = 0;
}

void start_clients(kx_thread_master_t *master)
{
    require(cli_client_init("sflow_cli", master) == 0, "the command-line service");
    require(sflow_lsm_init(master) == 0, "the interface manager");
    require(sflow_acl_init(master) == 0, "the access lists");
    sflow_cli_cmd_init();
    sflow_debug_init();
    require(sflow_tech_init(master) == 0, "the tech-support service");
}

} // namespace

Desk::Desk(const std::string &directory) : master_(kx_thread_master_create())
{
    require(master_ != nullptr, "a thread master");
    setenv("TMPDIR", directory.c_str(), 1);
    setenv("SFLOW_CONFIG_DIR", directory.c_str(), 1);
    std::filesystem::create_directories(directory + "/sflow");
    std::ofstream(directory + "/sflow/app_debug")
        << "2024/01/01 00:00:00 sflow_agent.c,1,sflow app init success.\n";

    require(sflow_agent_init(&sflow_agent) == 0, "the agent");
    require(sflow_lib_server_init() == 0, "the server");
    require(sflow_config_register() == 0, "the message handlers");
    sflow_cli_master = master_;
    require(rdnd_kx_thread_init(master_, 0, 0) == 0, "the redundancy service");
    start_clients(master_);
    threads_start = true;
    cli::Core::instance().set_settle_time({});
    pump();
    set_capacity(EVERY_CAPACITY);
    connect(true);
    kx_thread_t task{};
    task.master = master_;
    sflow_cli_timer(&task);
    answer();
    require(cli::Core::instance().ready(), "one of those that have to be ready");
}

Desk::~Desk()
{
    answer();
    remove_lists();
    kx_thread_master_finish(master_);
}

void Desk::answer()
{
    while (const std::optional<sflow_lib_msg_t> request = next_request())
        answer_record(request->msg, refusal_);
}

void Desk::connect(bool connected)
{
    answer();
    sflow_store(sflow_lib_server_cb.client_sd, connected ? CONNECTED : -1);
    if (connected)
        deliver(sflow_msg_head_t{SFLOW_CMD_CONFIG_REQUEST, sizeof(sflow_msg_head_t)});
    answer();
}

void Desk::set_capacity(u_int32_t capacity)
{
    sflow_hardware_capacity_t report{};
    report.head = {SFLOW_CMD_HD_CAPACITY, sizeof report};
    report.sflow_intf_support = capacity;
    deliver(report);
}

void Desk::remove_lists()
{
    for (const auto &[list, references] : platform::acl_service().all()) {
        const std::string error = platform::acl_service().remove(list.id());
        require(error.empty(), error.c_str());
    }
    pump();
    answer();
}

void Desk::start_over()
{
    restore_network();
    forget_configuration();
    clear_counters();
}

void Desk::forget_configuration()
{
    answer();
    const u_int32_t ready = sflow_cli_ready_flags();
    threads_start = false;
    require(sflow_agent_init(&sflow_agent) == 0, "the agent again");
    threads_start = true;
    sflow_set_bits(sflow_agent.cli_ready_flag, ready);
    remove_lists();
    refusal_ = 0;
    connect(true);
    set_capacity(EVERY_CAPACITY);
}

void Desk::serve_once()
{
    kx_thread_t task{};
    require(kx_thread_fetch(master_, &task) != nullptr, "something to wait for");
    kx_thread_call(&task);
}

// A marker goes through behind everything that is due; when nothing came before it, nothing is due any more.
void Desk::pump()
{
    for (int served = 0; served != 1;) {
        bool reached = false;
        kx_thread_add_event(
            master_,
            [](kx_thread_t *thread) {
                *static_cast<bool *>(kx_thread_arg(thread)) = true;
                return 0;
            },
            &reached);
        served = 0;
        while (!reached) {
            serve_once();
            ++served;
        }
    }
}

std::string Desk::running_config()
{
    return cli::Core::instance().running_config(false);
}

std::vector<std::string> Desk::take_log()
{
    const std::lock_guard guard(log_mutex);
    return std::exchange(log_lines, {});
}

Operator::Operator(Desk &desk, cli::Level level, cli::Mode mode)
    : desk_(desk), console_(cli::Core::instance(), level, mode)
{
}

void Operator::begin(std::string_view line)
{
    answer_ = {};
    done_ = false;
    console_.run(
        line, prompt().size() + 1, [this](std::string_view text) { answer_.text += text; },
        [this](cli::Status status) {
            answer_.status = status;
            done_ = true;
        });
}

Operator::Answer Operator::finish()
{
    while (!done_)
        desk_.serve_once();
    desk_.pump();
    desk_.answer();
    return answer_;
}

Operator::Answer Operator::type(std::string_view line)
{
    begin(line);
    return finish();
}

std::string Operator::help(std::string_view text) const
{
    return cli::format_help(console_.help(text));
}

} // namespace desk
