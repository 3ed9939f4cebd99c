/* Matching a packet against access lists, for BPF programs of the types tc and socket filter.
 *
 * Reads the headers once, whatever the number of lists, and never more than: two VLAN tags, one IP header, eight IPv6
 * extension headers, 14 bytes of transport header. A list costs at most SFLOW_ACL_WORDS * (4 + SFLOW_ACL_BYTE_TESTS)
 * look-ups in its table, and as a rule ends at the first word. The plain form of the same, which the tests hold this
 * against, is in packet_fields.cpp and acl_matcher.cpp.
 *
 * Needs Linux 5.12 (reads of the stack at variable offsets) and CAP_PERFMON. */
#ifndef SAMPLING_ACL_MATCH_BPF_H
#define SAMPLING_ACL_MATCH_BPF_H

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "acl_table.h"

/* One table a slot; the place of a list that permits nothing for the moment is empty. The loader sets the number of
 * slots. A table is never changed: a new one takes its place, and goes when no program reads it any more. */
struct sflow_acl_table_map {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, struct sflow_acl_table);
    __uint(max_entries, 1);
};
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __type(key, __u32);
    __uint(max_entries, 1);
    __array(values, struct sflow_acl_table_map);
} acl_tables SEC(".maps");

/* What the lists ask of a packet. */
struct sflow_acl_packet {
    __u8 key[SFLOW_ACL_KEY_BYTES];
    __u32 families;    /* bit set of the families whose lists it may match */
    __u32 protocol;    /* row of the tables' `protocol` */
    __u32 established; /* row of the tables' `established` */
    __u32 port[2];     /* index into the tables' `port_row` */
};

enum {
    SFLOW_ACL_FAMILY_IPV4 = 1,
    SFLOW_ACL_FAMILY_IPV6 = 2,
    SFLOW_ACL_FAMILY_MAC = 3,

    /* IPv6 extension headers that <linux/in.h> does not name */
    SFLOW_ACL_NEXT_HOP_OPTIONS = 0,
    SFLOW_ACL_NEXT_ROUTING = 43,
    SFLOW_ACL_NEXT_FRAGMENT = 44,
    SFLOW_ACL_NEXT_DESTINATION_OPTIONS = 60,
    SFLOW_ACL_NEXT_MOBILITY = 135,
    SFLOW_ACL_NEXT_HIP = 139,
    SFLOW_ACL_NEXT_SHIM6 = 140,
};

static __always_inline __u32 sflow_acl_word(const __u8 *bytes)
{
    return (__u32)bytes[0] << 8 | bytes[1];
}

static __always_inline int sflow_acl_is_tag(__u32 ether_type)
{
    return ether_type == ETH_P_8021Q || ether_type == ETH_P_8021AD;
}

static __always_inline int sflow_acl_is_extension(__u32 next)
{
    return next == SFLOW_ACL_NEXT_HOP_OPTIONS || next == SFLOW_ACL_NEXT_ROUTING ||
           next == SFLOW_ACL_NEXT_FRAGMENT || next == IPPROTO_AH ||
           next == SFLOW_ACL_NEXT_DESTINATION_OPTIONS || next == SFLOW_ACL_NEXT_MOBILITY ||
           next == SFLOW_ACL_NEXT_HIP || next == SFLOW_ACL_NEXT_SHIM6;
}

static __always_inline void sflow_acl_later_fragment(struct sflow_acl_packet *packet)
{
    packet->established = SFLOW_ACL_ESTABLISHED_NOT_ASKED;
    packet->port[0] = SFLOW_ACL_PORT_NOT_ASKED;
    packet->port[1] = SFLOW_ACL_PORT_NOT_ASKED;
}

static __always_inline void sflow_acl_read_transport(struct __sk_buff *skb, __u32 at,
                                                     struct sflow_acl_packet *packet)
{
    __u8 header[16];

    if (packet->protocol == IPPROTO_TCP && bpf_skb_load_bytes(skb, at, header, 14) == 0) {
        if (header[13] & 0x14) /* RST, ACK */
            packet->established = SFLOW_ACL_ESTABLISHED;
    } else if ((packet->protocol != IPPROTO_TCP && packet->protocol != IPPROTO_UDP) ||
               bpf_skb_load_bytes(skb, at, header, 4) != 0) {
        return;
    }
    packet->port[0] = sflow_acl_word(header);
    packet->port[1] = sflow_acl_word(header + 2);
}

static __always_inline void sflow_acl_read_ipv4(struct __sk_buff *skb, __u32 at,
                                                struct sflow_acl_packet *packet)
{
    const __u8 *header = packet->key;

    if (bpf_skb_load_bytes(skb, at, packet->key, 20) != 0 || header[0] >> 4 != 4 || (header[0] & 0xf) < 5)
        return;
    packet->families |= 1 << SFLOW_ACL_FAMILY_IPV4;
    packet->key[SFLOW_ACL_KEY_DSCP] = header[1] >> 2;
    packet->protocol = header[9];
    if (sflow_acl_word(header + 6) & 0x1fff)
        sflow_acl_later_fragment(packet);
    else
        sflow_acl_read_transport(skb, at + (header[0] & 0xf) * 4, packet);
}

static __always_inline void sflow_acl_read_ipv6(struct __sk_buff *skb, __u32 at,
                                                struct sflow_acl_packet *packet)
{
    __u8 extension[8];
    __u32 next;
    int i;

    if (bpf_skb_load_bytes(skb, at, packet->key, 40) != 0 || packet->key[0] >> 4 != 6)
        return;
    packet->families |= 1 << SFLOW_ACL_FAMILY_IPV6;
    packet->key[SFLOW_ACL_KEY_DSCP] = sflow_acl_word(packet->key) >> 6 & 0x3f;
    next = packet->key[6];
    at += 40;
#pragma clang loop unroll(disable)
    for (i = 0; i < SFLOW_ACL_EXTENSION_HEADERS; i++) {
        __u32 kind = next;

        if (!sflow_acl_is_extension(kind))
            break;
        if (bpf_skb_load_bytes(skb, at, extension, sizeof(extension)) != 0)
            return;
        next = extension[0];
        if (kind == SFLOW_ACL_NEXT_FRAGMENT) {
            at += 8;
            if (sflow_acl_word(extension + 2) & 0xfff8) {
                packet->protocol = next;
                sflow_acl_later_fragment(packet);
                return;
            }
        } else if (kind == IPPROTO_AH) {
            at += (extension[1] + 2) * 4;
        } else {
            at += (extension[1] + 1) * 8;
        }
    }
    if (sflow_acl_is_extension(next))
        return;
    packet->protocol = next;
    sflow_acl_read_transport(skb, at, packet);
}

/* False when there is not even an Ethernet header: no list permits such a frame. */
static __always_inline int sflow_acl_read_packet(struct __sk_buff *skb, struct sflow_acl_packet *packet)
{
    __u8 *ether_type = packet->key + SFLOW_ACL_KEY_ETHER_TYPE;
    __u32 tags = skb->vlan_present ? 1 : 0;
    __u32 at = ETH_HLEN;
    __u32 type;
    int i;

    if (bpf_skb_load_bytes(skb, 0, packet->key + SFLOW_ACL_KEY_ETHERNET, ETH_HLEN) != 0)
        return 0;
    packet->families = 1 << SFLOW_ACL_FAMILY_MAC;
    packet->protocol = SFLOW_ACL_PROTOCOL_UNKNOWN;
    packet->established = SFLOW_ACL_NOT_ESTABLISHED;
    packet->port[0] = SFLOW_ACL_PORT_ABSENT;
    packet->port[1] = SFLOW_ACL_PORT_ABSENT;
#pragma clang loop unroll(disable)
    for (i = 0; i < SFLOW_ACL_VLAN_TAGS; i++) {
        if (tags + i >= SFLOW_ACL_VLAN_TAGS || !sflow_acl_is_tag(sflow_acl_word(ether_type)))
            break;
        if (bpf_skb_load_bytes(skb, at + 2, ether_type, 2) != 0) {
            /* no entry asks for this value, so the frame has no EtherType */
            ether_type[0] = 0;
            ether_type[1] = 0;
            return 1;
        }
        at += 4;
    }
    type = sflow_acl_word(ether_type);
    if (type == ETH_P_IP)
        sflow_acl_read_ipv4(skb, at, packet);
    else if (type == ETH_P_IPV6)
        sflow_acl_read_ipv6(skb, at, packet);
    return 1;
}

/* Keeps the compiler from working a value out anew where the verifier has forgotten its range. */
#define SFLOW_ACL_SETTLE(value) asm volatile("" : "+r"(value))

/* The element of an array that `index`, checked against its size, names; leaves the function when it is outside. */
#define SFLOW_ACL_ROW(pointer, array, index)                                                                 \
    do {                                                                                                     \
        __u64 row_ = (index);                                                                                \
        SFLOW_ACL_SETTLE(row_);                                                                              \
        if (row_ >= sizeof(array) / sizeof((array)[0]))                                                      \
            return 0;                                                                                        \
        (pointer) = &(array)[row_];                                                                          \
        SFLOW_ACL_SETTLE(pointer);                                                                           \
    } while (0)

/* Not static, so that the verifier looks at it once by itself, not once for every way that leads here. */
__noinline int sflow_acl_table_permits(const struct sflow_acl_table *table,
                                       const struct sflow_acl_packet *packet)
{
    const struct sflow_acl_set *source, *destination, *protocol, *established;
    const __u16 *row;
    __u32 w, i;

    if (!table || !packet || !(packet->families >> (table->family & 31) & 1))
        return 0;
    SFLOW_ACL_ROW(row, table->port_row[0], packet->port[0]);
    SFLOW_ACL_ROW(source, table->ports[0], *row);
    SFLOW_ACL_ROW(row, table->port_row[1], packet->port[1]);
    SFLOW_ACL_ROW(destination, table->ports[1], *row);
    SFLOW_ACL_ROW(protocol, table->protocol, packet->protocol);
    SFLOW_ACL_ROW(established, table->established, packet->established);

#pragma clang loop unroll(disable)
    for (w = 0; w < SFLOW_ACL_WORDS; w++) {
        __u64 entries;

        if (w >= table->words)
            break;
        entries = protocol->word[w] & established->word[w] & source->word[w] & destination->word[w];
#pragma clang loop unroll(disable)
        for (i = 0; i < SFLOW_ACL_BYTE_TESTS; i++) {
            if (!entries || i >= table->tests)
                break;
            entries &= table->bytes[i][packet->key[table->offset[i] & (SFLOW_ACL_KEY_BYTES - 1)]].word[w];
        }
        if (entries) /* the lowest bit is the first entry */
            return (table->permit.word[w] & entries & -entries) != 0;
    }
    return 0;
}

/* Slot 0 is nobody's: it stands for "no list". */
static __always_inline int sflow_acl_slot_permits(__u32 slot, const struct sflow_acl_packet *packet)
{
    const struct sflow_acl_table *table;
    const __u32 zero = 0;
    void *map;

    if (!slot)
        return 0;
    map = bpf_map_lookup_elem(&acl_tables, &slot);
    if (!map)
        return 0;
    table = bpf_map_lookup_elem(map, &zero);
    return table && sflow_acl_table_permits(table, packet);
}

/* Whether one of the lists permits the packet. No loop over the slots: with an array on the stack, some kernels (6.1.0-50
 * of Debian) lose track of what has been written there, and refuse the program. */
static __noinline int sflow_acl_permits(struct __sk_buff *skb, __u32 first_slot, __u32 second_slot)
{
    struct sflow_acl_packet packet = {};

    if (!sflow_acl_read_packet(skb, &packet))
        return 0;
    return sflow_acl_slot_permits(first_slot, &packet) || sflow_acl_slot_permits(second_slot, &packet);
}

#endif
