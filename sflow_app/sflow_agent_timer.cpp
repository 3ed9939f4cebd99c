// One-second timer: the thread "sflow_timer" counts the polls down and flushes the datagrams once a second.
//
// It ticks on the master only. On any other role it ends itself, and the redundancy handler starts another
// one when this unit takes over. It starts before the agent record is complete and until then only renews its
// registration with the health monitor.
//
// How it ends: `timer_flag` and `timer_tid` change together, under a lock of their own that nothing else is
// taken under. The thread itself clears the flag and returns, or the redundancy thread clears it and cancels
// the thread, which then stays until the cancellation arrives. So a thread that has gone is never cancelled,
// and one that was cancelled never takes its successor's flag. Ticks cannot be cancelled: one that ended
// half-way would leave `config_lock` held.

#include "sflow_agent_internal.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/select.h>
#include <sys/sysinfo.h>
#include <unistd.h>

int32_t sflow_rndn_ready = 0;

namespace
{

/// Seconds of uptime after which the registration with the health monitor is renewed.
constexpr int64_t SFLOW_TIMER_RENEW_S = 59;

/// Guards the life of the thread, see above.
pthread_mutex_t timer_life = PTHREAD_MUTEX_INITIALIZER;

/// Clears the flag if it is the calling thread's.
bool claim_own_end(sflagent_t *agent)
{
    pthread_mutex_lock(&timer_life);
    const bool mine =
        sflow_load(agent->timer_flag) == 1 && pthread_equal(agent->timer_tid, pthread_self()) != 0;
    if (mine)
        sflow_store(agent->timer_flag, 0);
    pthread_mutex_unlock(&timer_life);
    return mine;
}

/// Renews when due and returns the time of the last successful renewal.
u_int64_t keep_alive(u_int64_t renewed)
{
    const u_int64_t now = sflow_uptime_sec();
    if (sflow_time_interval(now, renewed) > SFLOW_TIMER_RENEW_S && sflow_reset_ham_client_notify() == 0)
        return now;
    return renewed;
}

void sleep_one_second()
{
    timeval second = {1, 0};
    if (select(0, nullptr, nullptr, nullptr, &second) != 0)
        SFLOW_AGENT_DEBUG("select return error");
}

void tick_uncancelled()
{
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    sflow_one_second();
    pthread_setcancelstate(previous, nullptr);
    pthread_testcancel();
}

void run_timer(sflagent_t *agent)
{
    u_int64_t renewed = sflow_uptime_sec();
    for (;;) {
        renewed = keep_alive(renewed);
        if (sflow_load(sflow_rndn_ready) == 0 || !sflow_agent_is_complete()) {
            sleep(1);
            continue;
        }
        if (rdnd_get_role() != RDND_ROLE_MASTER)
            break;
        sleep_one_second();
        tick_uncancelled();
    }
    while (!claim_own_end(agent))
        pause();
}

void leave_health_monitor(void *)
{
    sflow_unreg_ham_client_notify();
}

void *sflow_one_second_thread(void *arg)
{
    pthread_setname_np(pthread_self(), "sflow_timer");
    // Also for the cancelled thread: nobody else could renew its registration, and the monitor would have the
    // process restarted after the switch-over.
    pthread_cleanup_push(leave_health_monitor, nullptr);
    sflow_reg_ham_client_notify();
    run_timer(static_cast<sflagent_t *>(arg));
    pthread_cleanup_pop(1);
    return nullptr;
}

} // namespace

int64_t sflow_time_interval(u_int64_t a, u_int64_t b)
{
    return static_cast<int64_t>(a > b ? a - b : b - a);
}

u_int64_t sflow_uptime_sec()
{
    struct sysinfo info;
    while (sysinfo(&info) != 0) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]sflow get sysinfo fail:%s\n", std::strerror(errno));
        sleep(1);
    }
    return static_cast<u_int64_t>(info.uptime);
}

void sflow_one_second()
{
    sflow_config_wrlock();
    sflow_poller_countdown();
    sflow_receiver_send_all_receiver_sample();
    sflow_config_wrunlock();
}

int sflow_agent_timer_init(sflagent_t *agent)
{
    pthread_mutex_lock(&timer_life);
    const int ret = sflow_create_depatch_thread(&agent->timer_tid, sflow_one_second_thread, agent);
    if (ret == 0)
        sflow_store(agent->timer_flag, 1);
    pthread_mutex_unlock(&timer_life);
    if (ret == 0)
        SFLOW_AGENT_DEBUG("create one second thread success.");
    else
        SFLOW_AGENT_DEBUG("create one second thread failure.");
    return ret;
}

void sflow_agent_timer_cancel(sflagent_t *agent)
{
    pthread_mutex_lock(&timer_life);
    if (sflow_load(agent->timer_flag) == 1) {
        sflow_store(agent->timer_flag, 0);
        pthread_cancel(agent->timer_tid);
    }
    pthread_mutex_unlock(&timer_life);
}
