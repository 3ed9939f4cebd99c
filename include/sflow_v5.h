// Constants of the sFlow version 5 datagram format (sflow.org, "sFlow Version 5", July 2004).
#pragma once

#include <sys/types.h>

constexpr u_int32_t SFLOW_VERSION_5 = 5;

/// Sample formats (enterprise 0).
constexpr u_int32_t SFLTAG_COUNTERS_SAMPLE = 2;
constexpr u_int32_t SFLTAG_FLOW_SAMPLE_EXPANDED = 3;

/// Flow record formats.
constexpr u_int32_t SFLTAG_FLOW_RAW_HEADER = 1;
constexpr u_int32_t SFLTAG_FLOW_EX_SWITCH = 1001;

/// Counter record formats.
constexpr u_int32_t SFLTAG_COUNTERS_GENERIC = 1;
constexpr u_int32_t SFLTAG_COUNTERS_ETHERNET = 2;

/// header_protocol of the raw packet header record.
constexpr u_int32_t SFLHEADER_ETHERNET_ISO8023 = 1;

/// Bytes of the datagram header with an IPv4 and an IPv6 agent address.
constexpr u_int32_t SFLOW_DATAGRAM_HEADER_LEN_V4 = 28;
constexpr u_int32_t SFLOW_DATAGRAM_HEADER_LEN_V6 = 40;

/// Bodies of the records, without tag and length.
constexpr u_int32_t SFLOW_EX_SWITCH_LEN = 16;
constexpr u_int32_t SFLOW_RAW_HEADER_FIELDS_LEN = 16;
constexpr u_int32_t SFLOW_GENERIC_COUNTERS_LEN = 88;
constexpr u_int32_t SFLOW_ETHERNET_COUNTERS_LEN = 52;
/// Tag and length in front of every sample and record.
constexpr u_int32_t SFLOW_TAG_LEN = 8;
/// Header of an expanded flow sample and of a counters sample, tag and length included.
constexpr u_int32_t SFLOW_FLOW_SAMPLE_HEADER_LEN = 52;
constexpr u_int32_t SFLOW_COUNTERS_SAMPLE_HEADER_LEN = 20;

/// ifType ethernetCsmacd, and ifPromiscuousMode false: written for every interface.
constexpr u_int32_t SFLOW_IF_TYPE_ETHERNET = 6;
constexpr u_int32_t SFLOW_IF_PROMISCUOUS_FALSE = 2;
