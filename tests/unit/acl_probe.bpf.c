/* Runs the access-list matcher of the sampling programs alone, on frames that bpf_prog_test_run cannot give by itself:
 * with a VLAN tag beside them, or cut short within the IP header. */
#include "acl_match.bpf.h"

/* skb->cb[0], [1]: slots of the lists. skb->cb[2]: tag to put beside the frame, EtherType << 16 | TCI; 0: none. [3]: bytes to
 * which the frame is cut. */
SEC("tc")
int acl_probe(struct __sk_buff *skb)
{
    __u32 first = skb->cb[0];
    __u32 second = skb->cb[1];
    __u32 tag = skb->cb[2];
    __u32 len = skb->cb[3];

    if (len < skb->len && bpf_skb_change_tail(skb, len, 0) != 0)
        return -1;
    if (tag && bpf_skb_vlan_push(skb, bpf_htons(tag >> 16), tag & 0xffff) != 0)
        return -1;
    return sflow_acl_permits(skb, first, second);
}
