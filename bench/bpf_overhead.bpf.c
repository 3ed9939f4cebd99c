/* Limit program of bpf_overhead: a tc program that does nothing. What it costs is the cost of having a hook. */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_helpers.h>

SEC("tc")
int pass(struct __sk_buff *skb)
{
    (void)skb;
    return TC_ACT_UNSPEC;
}
