// Event queue and dispatcher: counter reports wait here so that the receive thread never waits for their
// work.
//
// The poller's enqueue function is the producer (receive thread), the thread "sflow_msg_main" the only
// consumer. Flow samples are never queued: the receive thread encodes them at once, under the queue's mutex,
// so that they and the dispatcher's counter work never meet in a datagram. `msg_lock` is taken before
// `config_lock`.

#include "sflow_agent_internal.h"
#include "sflow_dbg.h"
#include "sflow_lsm.h"
#include "sflow_poller.h"
#include "sflow_sampler.h"

#include <cstdlib>
#include <ctime>
#include <pthread.h>

namespace
{

/// Longest sleep of the dispatcher, on the monotonic clock: steps of the wall clock neither stretch nor cut
/// it.
constexpr time_t SFLOW_MSG_WAIT_S = 30;

/// 0 when an event was signalled, otherwise the error or ETIMEDOUT. The lock is held on return in any case.
int wait_for_event() SFLOW_REQUIRES(sflow_agent.msg_lock)
{
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += SFLOW_MSG_WAIT_S;
    return pthread_cond_timedwait(&sflow_agent.msg_send_ready, &sflow_agent.msg_lock.mutex, &deadline);
}

void apply_event(sflow_msg_t *node)
{
    SFLOW_LOG_EVENT("[SFLOW-EVENT]msg type:%d\n", node->type);
    if (node->type == SFLOW_MSG_UPDATE_COUNTER) {
        sflow_poller_update_counter(node);
        sflow_lsm_forget_if_gone(node->ifx);
    } else if (node->type == SFLOW_MSG_GET_COUNTER_RSP) {
        sflow_poller_write_countersample(node);
    }
}

} // namespace

sflow_msg_t *sflow_get_msg()
{
    // The length alone does not tell: it stays one too high for each event that could not be allocated.
    if (sflow_agent.msg_list_len < 1 || sflow_list_empty(&sflow_agent.msg_list))
        return nullptr;
    // The analyzer does not see that a node which is removed is no longer the list's next.
    auto *node =
        sflow_list_entry<sflow_msg_t>(sflow_agent.msg_list.next); // NOLINT(clang-analyzer-unix.Malloc)
    sflow_list_remove(&node->list);
    sflow_agent.msg_list_len--;
    return node;
}

void sflow_free_msg(sflow_msg_t *node)
{
    std::free(node->msg);
    std::free(node);
}

void sflow_msg_dispatch()
{
    sflow_msg_lock();
    if (sflow_list_empty(&sflow_agent.msg_list) && wait_for_event() != 0) {
        sflow_msg_unlock();
        return;
    }
    while (sflow_msg_t *node = sflow_get_msg()) {
        apply_event(node);
        sflow_free_msg(node);
    }
    sflow_msg_unlock();
}

void *sflow_msg_main(void *)
{
    pthread_setname_np(pthread_self(), "sflow_msg_main");
    for (;;)
        sflow_msg_dispatch();
}

int sflow_pi_flow_sampling(const char *buf, int buf_len, sflow_flow_info_t info)
{
    sflow_msg_lock();
    if (buf == nullptr) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s:buf == NULL\n", __func__);
        sflow_msg_unlock();
        return -1;
    }
    sflow_count(sflow_statis.sflow_recv_flow_num);
    if (sflow_sampler_write_flowsample(buf, buf_len, info) == 0) {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s:write flow sample ok\n", __func__);
    } else {
        SFLOW_LOG_EVENT("[SFLOW-EVENT]%s:write flow sample fail\n", __func__);
        sflow_count(sflow_statis.sflow_drop_flow_num);
    }
    sflow_msg_unlock();
    return 0;
}
