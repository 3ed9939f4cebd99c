/* An access list as the BPF programs match it (C and C++): the only definition of the tables' layout.
 *
 * One bit an entry, in order: bit 0 of word 0 is the first. For each field that an entry can ask of, a table holds
 * for each value of the field the set of entries that accept it. A packet's sets, one a field, are intersected word by
 * word; the lowest bit that remains is the first entry that matches. The cost of a packet therefore grows with the
 * words (entries / 64) and the fields that the list uses, not with its entries.
 *
 * Addresses, DSCP and EtherType are looked up byte by byte, which is exact for any mask. Ports are mapped to ranges
 * that all entries treat alike. acl_compiler.h fills a table, acl_match.bpf.h reads it. Host byte order. */
#ifndef SAMPLING_ACL_TABLE_H
#define SAMPLING_ACL_TABLE_H

#include <linux/types.h>

enum {
    SFLOW_ACL_ENTRIES = 512,
    SFLOW_ACL_WORDS = SFLOW_ACL_ENTRIES / 64,
    SFLOW_ACL_BYTE_TESTS = 33, /* an IPv6 list at most: two addresses and the DSCP */
    /* Each entry's range of ports has two ends; what lies between them is alike for all entries. */
    SFLOW_ACL_PORT_ROWS = 2 + 2 * SFLOW_ACL_ENTRIES + 1,
};

/* What is passed over in front of what is matched. */
enum {
    SFLOW_ACL_VLAN_TAGS = 2,
    SFLOW_ACL_EXTENSION_HEADERS = 8,
};

/* Offsets into the bytes of a packet that a table can ask of. */
enum {
    SFLOW_ACL_KEY_IPV4_SOURCE = 12, /* the IP header itself begins at 0 */
    SFLOW_ACL_KEY_IPV4_DESTINATION = 16,
    SFLOW_ACL_KEY_IPV6_SOURCE = 8,
    SFLOW_ACL_KEY_IPV6_DESTINATION = 24,
    SFLOW_ACL_KEY_ETHERNET = 40, /* destination, source; then the EtherType behind the tags */
    SFLOW_ACL_KEY_DESTINATION_MAC = SFLOW_ACL_KEY_ETHERNET,
    SFLOW_ACL_KEY_SOURCE_MAC = SFLOW_ACL_KEY_ETHERNET + 6,
    SFLOW_ACL_KEY_ETHER_TYPE = SFLOW_ACL_KEY_ETHERNET + 12,
    SFLOW_ACL_KEY_DSCP = 54, /* the six bits alone */
    SFLOW_ACL_KEY_BYTES = 64,
};

/* Rows of `protocol` and of `established`, and indices of `port_row`, for packets that do not have the field. */
enum {
    SFLOW_ACL_PROTOCOL_UNKNOWN = 256,
    SFLOW_ACL_PROTOCOL_ROWS = 257,

    SFLOW_ACL_NOT_ESTABLISHED = 0, /* also: no TCP header */
    SFLOW_ACL_ESTABLISHED = 1,
    SFLOW_ACL_ESTABLISHED_NOT_ASKED = 2, /* a later fragment */
    SFLOW_ACL_ESTABLISHED_ROWS = 3,

    SFLOW_ACL_PORT_NOT_ASKED = 65536, /* a later fragment */
    SFLOW_ACL_PORT_ABSENT = 65537,
    SFLOW_ACL_PORTS = 65538,
};

/* A set of entries. */
struct sflow_acl_set {
    __u64 word[SFLOW_ACL_WORDS];
};

struct sflow_acl_table {
    __u32 family; /* as enum acl::Family: 1 IPv4, 2 IPv6, 3 Ethernet */
    __u32 words;  /* that have entries; 0: nothing is permitted */
    __u32 tests;  /* used elements of `offset` and `bytes` */
    __u32 unused;
    __u8 offset[40]; /* of the byte that a test looks at */
    struct sflow_acl_set permit;
    struct sflow_acl_set protocol[SFLOW_ACL_PROTOCOL_ROWS];
    struct sflow_acl_set established[SFLOW_ACL_ESTABLISHED_ROWS];
    struct sflow_acl_set ports[2][SFLOW_ACL_PORT_ROWS]; /* source, destination */
    __u16 port_row[2][SFLOW_ACL_PORTS];
    struct sflow_acl_set bytes[SFLOW_ACL_BYTE_TESTS][256];
};

#ifdef __cplusplus
#include <cstddef>
static_assert(sizeof(sflow_acl_set) == 64);
static_assert(offsetof(sflow_acl_table, permit) == 56);
static_assert(sizeof(sflow_acl_table) % 8 == 0);
/* The kernel takes values of up to 4 MiB. */
static_assert(sizeof(sflow_acl_table) < std::size_t{1024} * 1024);
#endif

#endif
