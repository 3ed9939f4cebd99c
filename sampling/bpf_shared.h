/* Records and limits shared by the BPF programs (C, compiled for the kernel) and the user-space side of the
 * sampling service (C++). This file is the only definition of both maps' values and of the ring buffer's event;
 * everything is in host byte order unless a field says otherwise. */
#ifndef SAMPLING_BPF_SHARED_H
#define SAMPLING_BPF_SHARED_H

#include <linux/types.h>

/* Names of the programs; at most 15 characters, so that the kernel keeps them whole. A tc filter whose program
 * carries one of the first two belongs to this service, whoever left it. */
#define SFLOW_PROG_INGRESS "sflow_ingress"
#define SFLOW_PROG_EGRESS "sflow_egress"
#define SFLOW_PROG_SNOOP "sflow_snoop"

enum {
    SFLOW_EVENT_HEADER_LEN = 256, /* most leading bytes of a frame that an event carries */
    SFLOW_COUNTER_STRIDE = 64,    /* one cache line a sampler and CPU, so that CPUs never share one */
};

/* Where a sampler looks at packets. */
enum sflow_hook {
    SFLOW_HOOK_INGRESS = 1, /* tc ingress */
    SFLOW_HOOK_EGRESS = 2,  /* tc egress */
    SFLOW_HOOK_SNOOP = 3,   /* packet socket, received packets only */
};

/* Key of the map `samplers`. */
struct sflow_sampler_key {
    __u32 ifindex;
    __u32 hook; /* enum sflow_hook */
};

enum {
    SFLOW_SAMPLER_ON = 1,       /* clear: packets pass uncounted */
    SFLOW_SAMPLER_TAKE_ALL = 2, /* rate 1: no draw */
    SFLOW_SAMPLER_LIMITED = 4,  /* only what one of `acl_slots` permits passes the sampler at all */
};

/* Value of the map `samplers`; replaced as a whole, so that a program never sees half a change. */
struct sflow_sampler_config {
    __u32 flags;
    __u32 threshold;       /* take when a 32-bit draw is below this: floor(2^32 / rate) */
    __u32 equal_threshold; /* when the draw equals `threshold`: take when a second draw is below this */
    __u32 header_len;      /* 1 .. SFLOW_EVENT_HEADER_LEN */
    __u32 slot;            /* row of the map `counters` */
    __u32 generation;      /* which use of the slot this is */
    __u32 acl_slots[2];    /* places in the map `acl_tables`; 0: no list */
};

/* Value of the map `counters`, at index slot * CPUs + CPU: written by that CPU only. */
struct sflow_sampler_counters {
    __u64
        pool; /* packets that passed while the sampler was on; of a limited one, those that its lists permit */
    __u64 taken;   /* events put into the ring buffer */
    __u64 dropped; /* selected, but the ring buffer was full */
    __u64 unused[5];
};

/* One sampled packet in the ring buffer. */
struct sflow_sample_event {
    __u64 pool; /* this CPU's counters of the sampler when the packet was taken, the packet itself included */
    __u64 dropped; /* likewise */
    __u32 slot;
    __u32 generation;
    __u32 cpu;
    __u32 ingress_ifindex; /* interface by which the packet came into the system; 0 when it was made here */
    __u32 frame_len;       /* bytes of the frame as the kernel holds it: no FCS, no accelerated tag */
    __u32 header_len;      /* valid bytes in `header` */
    __u32 vlan_present;    /* non-zero: the kernel holds a VLAN tag beside the frame */
    __u16 vlan_tci;
    __u16 vlan_proto; /* network byte order */
    __u8 header[SFLOW_EVENT_HEADER_LEN];
};

#ifdef __cplusplus
#include <cstddef>
static_assert(sizeof(sflow_sampler_key) == 8);
static_assert(sizeof(sflow_sampler_config) == 32);
static_assert(sizeof(sflow_sampler_counters) == SFLOW_COUNTER_STRIDE);
static_assert(offsetof(sflow_sample_event, slot) == 16);
static_assert(offsetof(sflow_sample_event, vlan_proto) == 46);
static_assert(offsetof(sflow_sample_event, header) == 48);
static_assert(sizeof(sflow_sample_event) == 304);
#endif

#endif
