// The agent record: the one instance, its defaults, its locks.
//
// main calls sflow_agent_init once; from then on every thread works on the record under the locks taken here.
// Nothing is ever torn down: the record lives as long as the process.

#include "sflow_agent.h"

#include "sflow_agent_internal.h"
#include "sflow_dbg.h"

#include <atomic>
#include <cstring>
#include <ctime>
#include <iterator>

sflagent_t sflow_agent;
pthread_mutex_t familyid_lock;

namespace
{

/// Published with release order as the last act of initialisation.
std::atomic<bool> record_complete{false};

thread_local bool reading_config = false;

/// What the steps below work on.
struct init_context_t {
    sflagent_t *agent;
    pthread_rwlockattr_t rwlock_attr;
};

/// One lock, or one attribute of a lock. Steps are undone in reverse order; those without `destroy` leave
/// nothing.
struct init_step_t {
    int (*create)(init_context_t *context);
    void (*destroy)(init_context_t *context);
    const char *failure;
};

int set_rwlock_attr(init_context_t *context)
{
    // Best effort: without the preference a steady flow of readers could only delay the tick.
    pthread_rwlockattr_setkind_np(&context->rwlock_attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    return pthread_rwlockattr_setpshared(&context->rwlock_attr, PTHREAD_PROCESS_SHARED);
}

const init_step_t init_steps[] = {
    {[](init_context_t *c) { return pthread_rwlockattr_init(&c->rwlock_attr); }, nullptr,
     "config lock attr failure."},
    {set_rwlock_attr, nullptr, "config lock attr pshared failure."},
    {[](init_context_t *c) { return pthread_rwlock_init(&c->agent->config_lock.rwlock, &c->rwlock_attr); },
     [](init_context_t *c) { pthread_rwlock_destroy(&c->agent->config_lock.rwlock); },
     "config lock failure."},
    {[](init_context_t *c) { return pthread_mutex_init(&c->agent->msg_lock.mutex, nullptr); },
     [](init_context_t *c) { pthread_mutex_destroy(&c->agent->msg_lock.mutex); }, "msg lock failure."},
    {[](init_context_t *c) { return pthread_condattr_init(&c->agent->condattr); },
     [](init_context_t *c) { pthread_condattr_destroy(&c->agent->condattr); }, "cond_attr failure."},
    {[](init_context_t *c) { return pthread_condattr_setclock(&c->agent->condattr, CLOCK_MONOTONIC); },
     nullptr, "cond_attr set clock failure."},
    {[](init_context_t *c) { return pthread_cond_init(&c->agent->msg_send_ready, &c->agent->condattr); },
     [](init_context_t *c) { pthread_cond_destroy(&c->agent->msg_send_ready); },
     "msg send ready init failure."},
    {[](init_context_t *c) { return pthread_mutex_init(&c->agent->cli_lock.mutex, nullptr); },
     [](init_context_t *c) { pthread_mutex_destroy(&c->agent->cli_lock.mutex); }, "cli lock failure."},
    {[](init_context_t *) { return pthread_mutex_init(&familyid_lock, nullptr); }, nullptr,
     "family id lock init failure."},
};

int create_locks(sflagent_t *agent)
{
    init_context_t context = {};
    context.agent = agent;
    for (size_t step = 0; step < std::size(init_steps); step++) {
        if (init_steps[step].create(&context) == 0)
            continue;
        SFLOW_AGENT_DEBUG(init_steps[step].failure);
        while (step-- > 0) {
            if (init_steps[step].destroy != nullptr)
                init_steps[step].destroy(&context);
        }
        return -1;
    }
    return 0;
}

} // namespace

// No other thread can reach the record before it is published at the end.
int sflow_agent_init(sflagent_t *agent) SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    record_complete.store(false, std::memory_order_relaxed);
    sflow_clear_intf_config();
    std::memset(agent, 0, sizeof(*agent));
    sflow_list_init(&agent->intf_config);
    sflow_list_init(&agent->msg_list);
    sflow_receiver_init();
    // Before the locks exist, on purpose: the thread needs them for its first tick only, and it does not tick
    // before the record is complete.
    if (sflow_agent_timer_init(agent) != 0)
        return -1;
    if (create_locks(agent) != 0)
        return -1;
    sflow_store(agent->cli_ready_flag, 0U);
    agent->g_config.samplingrate = SFLOW_DEFAULT_SAMPLING_RATE;
    agent->g_config.interval = SFLOW_DEFAULT_INTERVAL;
    agent->g_config.maxhlen = SFLOW_DEFAULT_MAX_HEADER;
    agent->g_config.sslen = SFLOW_DEFAULT_MAX_HEADER;
    record_complete.store(true, std::memory_order_release);
    record_complete.notify_all();
    return 0;
}

bool sflow_agent_is_complete()
{
    return record_complete.load(std::memory_order_acquire);
}

void sflow_agent_wait_complete()
{
    record_complete.wait(false, std::memory_order_acquire);
}

bool sflow_config_is_reading()
{
    return reading_config;
}

// The lock is held, or believed to be held, on return: a failure is only logged.

void sflow_config_wrlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_rwlock_wrlock(&sflow_agent.config_lock.rwlock) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow WR lock cfg fail.\n");
    sflow_reap_intf_config();
}

void sflow_config_wrunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow unlock cfg fail.\n");
}

void sflow_config_rdlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_rwlock_rdlock(&sflow_agent.config_lock.rwlock) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow RD lock cfg fail.\n");
    reading_config = true;
}

void sflow_config_rdunlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    reading_config = false;
    if (pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow unlock cfg fail.\n");
}

void sflow_msg_lock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_mutex_lock(&sflow_agent.msg_lock.mutex) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow lock msg fail.\n");
}

void sflow_msg_unlock() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    if (pthread_mutex_unlock(&sflow_agent.msg_lock.mutex) != 0)
        SFLOW_LOG_CONF("[SFLOW-CONF]sflow unlock msg fail.\n");
}
