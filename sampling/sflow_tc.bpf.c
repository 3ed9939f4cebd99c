/* The in-kernel half of the sampling service: takes one packet in N at random and hands its leading bytes over
 * the ring buffer.
 *
 * Three programs share one decision: tc ingress, tc egress, and a filter for packet sockets (snooping). They run
 * for every packet of a sampled interface, with bottom halves off, so what is not sampled costs one hash look-up,
 * one counter and one draw; where sampling is limited to access lists, the match as well. They never change, drop, redirect or delay a packet, whatever happens: the tc programs
 * always answer TC_ACT_UNSPEC, which lets the classifiers behind them and forwarding go on as if they were not
 * there; the socket filter always answers 0, so that nothing is ever queued on its socket.
 *
 * Written against the UAPI headers alone and without GPL-only helpers; loads from Linux 5.12 on. */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_helpers.h>

#include "acl_match.bpf.h"
#include "bpf_shared.h"

/* The sizes below are placeholders: the loader sets them before the maps are made. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, struct sflow_sampler_key);
    __type(value, struct sflow_sampler_config);
    __uint(max_entries, 1);
} samplers SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, struct sflow_sampler_counters);
    __uint(max_entries, 1);
    __uint(map_flags, BPF_F_MMAPABLE);
} counters SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 4096);
} events SEC(".maps");

/* Rows of `counters` per slot: the CPUs that this machine can have. */
const volatile __u32 possible_cpus = 1;

/* Set by the consumer while it looks into the ring buffer by itself every few milliseconds. */
volatile __u32 consumer_polls = 0;

/* True with a probability of exactly 1 / rate. */
static __always_inline int selected(const struct sflow_sampler_config *config)
{
    __u32 draw;

    if (config->flags & SFLOW_SAMPLER_TAKE_ALL)
        return 1;
    draw = bpf_get_prandom_u32();
    if (__builtin_expect(draw > config->threshold, 1))
        return 0;
    return draw < config->threshold || bpf_get_prandom_u32() < config->equal_threshold;
}

/* Kept out of the way of the packets that are not sampled. */
static __noinline int hand_over(struct __sk_buff *skb, const struct sflow_sampler_config *config,
                                struct sflow_sampler_counters *count, __u32 cpu)
{
    struct sflow_sample_event *event;
    __u32 len = skb->len;

    event = bpf_ringbuf_reserve(&events, sizeof(*event), 0);
    if (!event) {
        count->dropped++;
        return 0;
    }
    event->pool = count->pool;
    event->dropped = count->dropped;
    event->slot = config->slot;
    event->generation = config->generation;
    event->cpu = cpu;
    event->ingress_ifindex = skb->ingress_ifindex;
    event->frame_len = len;
    event->vlan_present = skb->vlan_present;
    event->vlan_tci = skb->vlan_tci;
    event->vlan_proto = skb->vlan_proto;

    if (len > config->header_len)
        len = config->header_len;
    /* The mask gives every verifier the range 1 .. 256; the barrier keeps the compiler from proving it away. */
    len = (len - 1) & (SFLOW_EVENT_HEADER_LEN - 1);
    asm volatile("" : "+r"(len));
    len = (len & (SFLOW_EVENT_HEADER_LEN - 1)) + 1;
    event->header_len = len;
    if (bpf_skb_load_bytes(skb, 0, event->header, len) != 0) {
        bpf_ringbuf_discard(event, 0);
        count->dropped++;
        return 0;
    }
    count->taken++;
    /* A wake-up costs the packet's path more than all the rest: none while the consumer polls. */
    bpf_ringbuf_submit(event, consumer_polls ? BPF_RB_NO_WAKEUP : 0);
    return 0;
}

static __always_inline void sample(struct __sk_buff *skb, __u32 hook)
{
    struct sflow_sampler_key key = {.ifindex = skb->ifindex, .hook = hook};
    const struct sflow_sampler_config *config = bpf_map_lookup_elem(&samplers, &key);
    struct sflow_sampler_counters *count;
    __u32 cpu;
    __u32 row;

    if (!config || !(config->flags & SFLOW_SAMPLER_ON))
        return;
    if (config->flags & SFLOW_SAMPLER_LIMITED &&
        !sflow_acl_permits(skb, config->acl_slots[0], config->acl_slots[1]))
        return;
    cpu = bpf_get_smp_processor_id();
    row = config->slot * possible_cpus + cpu;
    count = bpf_map_lookup_elem(&counters, &row);
    if (!count)
        return;
    count->pool++;
    if (selected(config))
        hand_over(skb, config, count, cpu);
}

SEC("tc")
int sflow_ingress(struct __sk_buff *skb)
{
    sample(skb, SFLOW_HOOK_INGRESS);
    return TC_ACT_UNSPEC;
}

SEC("tc")
int sflow_egress(struct __sk_buff *skb)
{
    sample(skb, SFLOW_HOOK_EGRESS);
    return TC_ACT_UNSPEC;
}

SEC("socket")
int sflow_snoop(struct __sk_buff *skb)
{
    sample(skb, SFLOW_HOOK_SNOOP);
    return 0;
}
